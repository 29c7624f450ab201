#!/usr/bin/env bash
# Installs a build into a temporary prefix and runs the installed programs from there, so that
# a broken install rule fails the test run.   tests/install-test.sh BUILD_DIR
set -euo pipefail
build=$1
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT

cmake --install "$build" --prefix "$root/prefix" >/dev/null
doc="$root/prefix/share/doc/zentrix-data-normalizer"
for file in bin/zentrix-data-normalizer bin/zentrix-dbinfo share/man/man1/zentrix-data-normalizer.1.gz \
    share/man/man1/zentrix-dbinfo.1.gz; do
    [ -f "$root/prefix/$file" ] || { echo "not installed: $file" >&2; exit 1; }
done
for file in README.md copyright benchmarks.md changelog.gz; do
    [ -f "$doc/$file" ] || { echo "not installed: $doc/$file" >&2; exit 1; }
done
extra=$(ls "$root/prefix/bin" | grep -vxE 'zentrix-data-normalizer|zentrix-dbinfo' || true)
[ -z "$extra" ] || { echo "installed beyond the two programs: $extra" >&2; exit 1; }

# The tool needs a readable configuration and a writable run log even for its usage.
mkdir -p "$root/work" "$root/data/logs"
printf 'InstallationFolder=%s\n[global]\nrestaddress=127.0.0.1\nrestport=8008\n[internal]\ndata_directory=%s\n' \
    "$root/install" "$root/data" >"$root/work/HKEY_LOCAL_MACHINE\\Software\\Tarvex\\Bravik"
status=0
out=$(cd "$root/work" && "$root/prefix/bin/zentrix-data-normalizer" --help) || status=$?
[ "$status" -eq 1 ] || { echo "--help ended with status $status" >&2; exit 1; }
grep -qx 'Usage:' <<<"$out" || { echo "no usage from the installed tool: $out" >&2; exit 1; }
# Output is taken whole before it is searched: "grep -q" would close the pipe early.
usage=$("$root/prefix/bin/zentrix-dbinfo" --help 2>&1)
grep -q 'zentrix-dbinfo' <<<"$usage" || { echo "no usage from zentrix-dbinfo" >&2; exit 1; }
# --version reads no configuration: it answers in an empty folder.
mkdir "$root/empty"
for program in zentrix-data-normalizer zentrix-dbinfo; do
    version=$(cd "$root/empty" && "$root/prefix/bin/$program" --version)
    grep -qxE "$program [0-9]+\.[0-9]+\.[0-9]+" <<<"$version" || { echo "$program --version: $version" >&2; exit 1; }
done
page=$(gzip -dc "$root/prefix/share/man/man1/zentrix-data-normalizer.1.gz")
grep -q '^\.TH ZENTRIX-DATA-NORMALIZER 1' <<<"$page" || { echo "manual page unreadable" >&2; exit 1; }
echo "installed and ran from $root/prefix"
