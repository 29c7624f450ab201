#!/usr/bin/env bash
# Builds the Debian package into dist/ and checks what it holds and what it depends on.
# Install it with "apt install ./dist/zentrix-data-normalizer_<version>_<arch>.deb".
set -euo pipefail
cd "$(dirname "$0")/.."

# dpkg-shlibdeps (dpkg-dev) and file compute the dependencies of the binaries; lintian checks
# the package against Debian's policy.
./scripts/install-deps.sh dpkg-dev file lintian
# build-package/ and its options are CMake's preset "package" (CMakePresets.json).
cmake --preset package >/dev/null
cmake --build --preset package -j "$(nproc)" -- --no-print-directory >/dev/null
rm -rf build-package/cpack dist
(cd build-package && cpack -G DEB -B cpack >/dev/null)
mkdir -p dist
cp build-package/cpack/*.deb dist/
deb=$(ls dist/*.deb)

contents=$(dpkg-deb -c "$deb" | awk '{print $NF}')
fields=$(dpkg-deb -f "$deb" Package Version Maintainer Depends Recommends Description)
failed=0
expect() {
    if ! grep -qE "$2" <<<"$1"; then
        echo "package check failed: no match for '$2'" >&2
        failed=1
    fi
}
for path in usr/bin/zentrix-data-normalizer usr/bin/zentrix-dbinfo \
    usr/share/man/man1/zentrix-data-normalizer.1.gz usr/share/man/man1/zentrix-dbinfo.1.gz \
    usr/share/doc/zentrix-data-normalizer/README.md usr/share/doc/zentrix-data-normalizer/copyright \
    usr/share/doc/zentrix-data-normalizer/benchmarks.md usr/share/doc/zentrix-data-normalizer/changelog.gz; do
    expect "$contents" "^\./$path\$"
done
if [ "$(grep -c '^\./usr/bin/.' <<<"$contents")" -ne 2 ]; then
    echo "package check failed: programs other than the two tools in usr/bin" >&2
    failed=1
fi
for dependency in libqt6core6 libqt6sql6 libqt6network6 libssl3 libpq5 libqt6sql6-psql; do
    expect "$(grep '^Depends:' <<<"$fields")" "(^|[ ,])$dependency([ ,(]|\$)"
done
expect "$fields" '^Recommends: postgresql$'
expect "$fields" '^Maintainer: .+<.+@.+>$'
# Any error or warning fails the build; lintian runs as root only with --allow-root.
lintian --allow-root --fail-on error,warning "$deb" || failed=1
[ "$failed" -eq 0 ] || exit 1
echo "$deb"
echo "$fields"
