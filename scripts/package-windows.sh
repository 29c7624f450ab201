#!/usr/bin/env bash
# Builds both programs for Windows (Release) and writes dist/zentrix-data-normalizer-<version>-win64.zip:
# the programs with every DLL they load (Qt, its PostgreSQL driver, libpq, OpenSSL, the MinGW
# runtime), this README and the licence texts. It needs no installation on the server: unzip and run.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/windows-env.sh

./scripts/install-deps.sh zip file binutils-mingw-w64-x86-64 >/dev/null
build_windows windows-package
runtime=$(mingw_runtime_dlls)
mapfile -t mingw_runtime <<<"$runtime"

version=$(sed -n 's/^project(zentrix-data-normalizer VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
name="zentrix-data-normalizer-$version-win64"
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
folder="$stage/$name"
mkdir -p "$folder/sqldrivers" "$folder/licenses"
cp build-windows-package/app/zentrix-data-normalizer.exe build-windows-package/app/zentrix-dbinfo.exe "$folder/"
cp "$sdk"/bin/Qt6{Core,Network,Sql}.dll "$sdk"/bin/{libpq,libcrypto-3-x64,libssl-3-x64}.dll "${mingw_runtime[@]}" \
    "$folder/"
cp "$sdk/plugins/sqldrivers/qsqlpsql.dll" "$folder/sqldrivers/"
x86_64-w64-mingw32-strip --strip-unneeded "$folder"/*.exe "$folder"/*.dll "$folder"/sqldrivers/*.dll
cp README.md "$folder/"
cp packaging/copyright "$folder/licenses/zentrix-data-normalizer.txt"
for package in libqt6core6 libssl3 libpq5 gcc-mingw-w64-base mingw-w64-common; do
    cp "/usr/share/doc/$package/copyright" "$folder/licenses/$package.txt"
done

# Every program and library is a Windows one, and everything they import is in the folder or
# part of Windows itself.
failed=0
held=$(ls "$folder" | tr '[:upper:]' '[:lower:]')
for binary in "$folder"/*.exe "$folder"/*.dll "$folder"/sqldrivers/*.dll; do
    if ! file -b "$binary" | grep -q '^PE32+ executable'; then
        echo "not a 64-bit Windows binary: $binary" >&2
        failed=1
    fi
    for import in $(x86_64-w64-mingw32-objdump -p "$binary" | sed -n 's/^\s*DLL Name: //p'); do
        grep -qxF "${import,,}" <<<"$held" && continue
        case "${import,,}" in
            kernel32.dll | user32.dll | advapi32.dll | ws2_32.dll | msvcrt.dll | shell32.dll | ole32.dll | \
                netapi32.dll | userenv.dll | version.dll | crypt32.dll | secur32.dll | iphlpapi.dll | \
                winmm.dll | mpr.dll | winhttp.dll | shlwapi.dll | bcrypt.dll | dnsapi.dll | authz.dll | rpcrt4.dll | \
                api-ms-win-*) ;;
            *) echo "$binary imports $import, which the zip does not hold" >&2; failed=1 ;;
        esac
    done
done
[ "$failed" -eq 0 ] || exit 1

mkdir -p dist
rm -f "dist/$name.zip"
(cd "$stage" && zip -qr -X "$OLDPWD/dist/$name.zip" "$name")
echo "dist/$name.zip"
