#!/usr/bin/env bash
# Cross-builds the Windows programs and test suites, makes the zip, and runs every Windows test
# under Wine through CTest (tests/CMakeLists.txt says what each proves), against a real PostgreSQL
# server started here on the Linux side (the Windows test programs reach it on 127.0.0.1; they
# cannot start Linux programs themselves): the suites, and the zip's scenarios of
# scripts/wine-scenarios.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
# Wine converts command lines and names through the locale's character set.
export LC_ALL=C.UTF-8

./scripts/install-deps.sh wine64 zip unzip >/dev/null
source scripts/windows-env.sh
source scripts/sandbox-lib.sh
repo=$(pwd)
[ -x build/app/zentrix-data-normalizer ] || ./scripts/build.sh release
build_windows windows
./scripts/package-windows.sh >/dev/null
runtime=$(mingw_runtime_dlls)
mapfile -t mingw_runtime <<<"$runtime"

work=$(mktemp -d)
# The server's own folder belongs to its account; Wine wants its prefixes' parent to be ours.
server=$(mktemp -d)
cleanup() {
    as_account "$pgbin/pg_ctl" stop -D "$server/data" -m immediate >/dev/null 2>&1 || true
    [ -n "${WINEPREFIX:-}" ] && /usr/lib/wine/wineserver -k 2>/dev/null || true
    rm -rf "$work" "$server"
}
trap cleanup EXIT

# The test server: the user and password the suites expect (tests/support/TestServer.h).
chown "$account" "$server"
echo "s3cret-pw" >"$server/pw"
chown "$account" "$server/pw"
as_account "$pgbin/initdb" -D "$server/data" -U zentrix_test --pwfile="$server/pw" -A scram-sha-256 -E UTF8 \
    --locale=C --no-sync >/dev/null
port=$(free_port 47300)
as_account "$pgbin/pg_ctl" start -D "$server/data" -w -l "$server/log" \
    -o "-p $port -k '' -c listen_addresses=127.0.0.1 -c fsync=off" >/dev/null

make_wine_prefix "$work/prefix"
export WINEPATH="$sdk/bin;$(dirname "${mingw_runtime[0]}");$(dirname "${mingw_runtime[2]}")"
export QT_PLUGIN_PATH="Z:$sdk/plugins" ZENTRIX_TEST_SERVER_PORT=$port
ctest --preset windows

