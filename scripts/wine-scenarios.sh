#!/usr/bin/env bash
# The Windows programs as an operator gets them, under Wine: "zip" or "local_server", each a CTest
# test of the Windows build (tests/CMakeLists.txt says what each proves). scripts/test-windows.sh
# runs them after it has made the zip (dist/) and the Linux build (build/) and started the test
# server (ZENTRIX_TEST_SERVER_PORT). Each scenario has Wine prefixes of its own, and the zip finds
# nothing outside its folder: no search path, no plugin path.
set -euo pipefail
cd "$(dirname "$0")/.."
export LC_ALL=C.UTF-8
unset WINEPATH QT_PLUGIN_PATH
source scripts/windows-env.sh
source scripts/sandbox-lib.sh
repo=$(pwd)
port=${ZENTRIX_TEST_SERVER_PORT:?the port of the test server, which scripts/test-windows.sh starts}
zip_file=$(ls dist/zentrix-data-normalizer-*-win64.zip 2>/dev/null) ||
    windows_env_die "no zip in dist/; make it with scripts/package-windows.sh"
[ -x build/app/zentrix-data-normalizer ] || windows_env_die "no Linux build in build/; make it with scripts/build.sh"
sdk=$(./scripts/windows-sdk.sh)
wine=$(wine_program)
windows_folder='C:\zentrix\'$(basename "$zip_file" .zip)
key='HKEY_LOCAL_MACHINE\Software\Tarvex\Bravik'
reg() { "$wine" reg add "$@" /f >/dev/null; }
work=$(mktemp -d)
cleanup() {
    [ -n "${WINEPREFIX:-}" ] && "$(wineserver_program)" -k 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
failed=0

# The zip alone, in a fresh prefix: configuration only in the registry (numbers as DWORDs,
# paths with backslashes), the information file written by zentrix-dbinfo.exe.
scenario_zip() {
    make_wine_prefix "$work/fresh"
    unzip -q "$zip_file" -d "$work/fresh/drive_c/zentrix"
    data_folder='zentrix-données'
    mkdir -p "$work/fresh/drive_c/$data_folder/logs"
    reg "$key" /v InstallationFolder /t REG_SZ /d "$windows_folder"
    reg "$key\\global" /v restaddress /t REG_SZ /d 127.0.0.1
    reg "$key\\global" /v restport /t REG_DWORD /d 8008
    reg "$key\\internal" /v data_directory /t REG_SZ /d "C:/$data_folder"
    reg "$key\\internal" /v db_connection /t REG_DWORD /d 3

    sql() { env PGPASSWORD=s3cret-pw PGOPTIONS="-c client_min_messages=warning" "$pgbin/psql" -h 127.0.0.1 -p "$port" -U zentrix_test -qAt "$@"; }
    sql postgres -c "DROP DATABASE IF EXISTS windows" -c "CREATE DATABASE windows"
    sql windows -f tests/fixtures/product-schema.sql
    sql windows -c "INSERT INTO warehouse.control_refresh VALUES (1, 0), (2, 0); INSERT INTO scan.file (instance_id,
        request_id, filetype_details) VALUES (1, 5, '{\"a\":\"\\ud800\"}'), (2, 5, '{\"b\":\"\\u0000\",\"c\":\"\\x41\"}'),
        (2, 1, '{\"d\":\"\\udc00\"}');"
    before=$(sql windows -c "SELECT string_agg(filetype_details, ' ' ORDER BY instance_id, request_id) FROM scan.file")

    (cd "$work/fresh/drive_c" && "$wine" "$windows_folder\\zentrix-dbinfo.exe" set host=127.0.0.1 port="$port" \
        user=zentrix_test password=s3cret-pw type=remote dbname=windows >/dev/null)
    # The Linux build reads what the Windows build wrote.
    cp "$work/fresh/drive_c/zentrix/$(basename "$zip_file" .zip)/zentrix_postgres."{dat,cat} "$work/"
    shown=$(./build/app/zentrix-dbinfo --installation "$work" show 2>/dev/null)
    grep -q "\"port\": $port" <<<"$shown" || { echo "the Linux build cannot read the Windows information file" >&2; return 1; }

    windows_out=$(cd "$work/fresh/drive_c" && "$wine" "$windows_folder\\zentrix-data-normalizer.exe" --changed-only --jobs 2 \
        2>&1 | tr -d '\r')
    windows_rows=$(sql windows -c "SELECT string_agg(filetype_details, ' ' ORDER BY instance_id, request_id) FROM scan.file")
    windows_log=$(sed -E 's/^(\[[A-Z]+\s*\] )[0-9.: ]+:/\1<ts>:/' "$work/fresh/drive_c/$data_folder/logs/"*.log)

    # The same rows repaired by the Linux build.
    sql windows -c "UPDATE scan.file SET filetype_details = v FROM (VALUES (1, 5, '{\"a\":\"\\ud800\"}'),
        (2, 5, '{\"b\":\"\\u0000\",\"c\":\"\\x41\"}'), (2, 1, '{\"d\":\"\\udc00\"}')) AS o(i, r, v)
        WHERE instance_id = i AND request_id = r"
    [ "$(sql windows -c "SELECT string_agg(filetype_details, ' ' ORDER BY instance_id, request_id) FROM scan.file")" \
        = "$before" ]
    linux="$work/linux"
    make_installation "$linux"
    cp "$work/zentrix_postgres."{dat,cat} "$linux/install/"
    linux_out=$(cd "$linux/work" && "$repo/build/app/zentrix-data-normalizer" --changed-only --jobs 2 2>&1)
    linux_rows=$(sql windows -c "SELECT string_agg(filetype_details, ' ' ORDER BY instance_id, request_id) FROM scan.file")
    linux_log=$(sed -E 's/^(\[[A-Z]+\s*\] )[0-9.: ]+:/\1<ts>:/' "$linux/data/logs/"*.log)

    same() {
        if [ "$2" != "$3" ]; then
            printf 'Windows and Linux differ in %s:\n--- Windows\n%s\n--- Linux\n%s\n' "$1" "$2" "$3" >&2
            failed=1
        fi
    }
    same "repaired rows" "$windows_rows" "$linux_rows"
    same "console (after the log path)" "$(tail -n +2 <<<"$windows_out" | sort)" "$(tail -n +2 <<<"$linux_out" | sort)"
    same "run log" "$(sort <<<"$windows_log")" "$(sort <<<"$linux_log")"
    [ "$windows_rows" != "$before" ] || { echo "the Windows build repaired nothing" >&2; failed=1; }
    # Text outside ASCII, from the registry and from the command line, stays UTF-8 on the console
    # and in the run log.
    first="File log: C:/$data_folder/logs/data_normalizer-$(date +%Y%m%d).log"
    [ "$(head -1 <<<"$windows_out")" = "$first" ] || { echo "the log path is not \"$first\" in UTF-8" >&2; failed=1; }
    (cd "$work/fresh/drive_c" && "$wine" "$windows_folder\\zentrix-dbinfo.exe" set dbname=fenêtre >/dev/null &&
        ! "$wine" "$windows_folder\\zentrix-data-normalizer.exe" >/dev/null 2>&1)
    grep -qF "Cannot connect to Postgres server: fenêtre" "$work/fresh/drive_c/$data_folder/logs/"*.log ||
        { echo "the database name is not in the run log in UTF-8" >&2; failed=1; }
    # A database named outside ASCII is connected with its UTF-8 name, not the ANSI code page's bytes.
    sql postgres -c 'DROP DATABASE IF EXISTS "Datenbank Größe"' -c 'CREATE DATABASE "Datenbank Größe"'
    sql "Datenbank Größe" -f tests/fixtures/product-schema.sql
    (cd "$work/fresh/drive_c" && "$wine" "$windows_folder\\zentrix-dbinfo.exe" set "dbname=Datenbank Größe" >/dev/null &&
        "$wine" "$windows_folder\\zentrix-data-normalizer.exe" >/dev/null 2>&1) ||
        { echo "a database named outside ASCII was not connected" >&2; failed=1; }
    # An INI file as Notepad saves it, in code page 1252 or as "Unicode" (UTF-16): its folder outside
    # ASCII is read whole.
    for encoding in CP1252 UTF-16; do
        ini_work="$work/fresh/drive_c/ini-$encoding"
        mkdir -p "$ini_work/HKEY_LOCAL_MACHINE/Software/Tarvex" "$work/fresh/drive_c/Daten Ä/logs"
        printf 'InstallationFolder=%s\n[global]\nrestaddress=127.0.0.1\nrestport=8008\n[internal]\ndata_directory=C:/Daten Ä\n' \
            "${windows_folder//\\//}" | iconv -f UTF-8 -t "$encoding" >"$ini_work/HKEY_LOCAL_MACHINE/Software/Tarvex/Bravik"
        ini_out=$(cd "$ini_work" && "$wine" "$windows_folder\\zentrix-data-normalizer.exe" 2>&1 | tr -d '\r') ||
            { echo "the INI file in $encoding failed: $ini_out" >&2; failed=1; }
        grep -qF "File log: C:/Daten Ä/logs/" <<<"$ini_out" ||
            { echo "the INI file in $encoding lost its folder: $ini_out" >&2; failed=1; }
    done
    # On a console it is the characters it is: Wine shows a console's text on its terminal in UTF-8.
    on_console=$(cd "$work/fresh/drive_c" && script -qc "'$wine' 'C:\\zentrix\\$(basename "$zip_file" .zip)\\zentrix-data-normalizer.exe' --help" /dev/null |
        sed 's/\x1b\[[^a-zA-Z]*[a-zA-Z]//g' | tr -d '\r')
    grep -qF "C:/$data_folder/logs" <<<"$on_console" || { echo "the console does not show $data_folder: $on_console" >&2; failed=1; }
    [ "$failed" -eq 0 ] && echo "Windows zip: repaired like the Linux build (rows, console, run log)"
}

# The local path: PostgreSQL's own Windows programs in the installation, the service driven
# through Wine's sc and net, a data folder outside ASCII and with a blank. The first run makes
# the cluster and the service and finds no product database; once the product has made it, the
# next run repairs and stops the service again. Then a service of the same name registered for
# another data folder, and an installation folder outside ASCII without a cluster, are refused.
scenario_local_server() {
    make_wine_prefix "$work/local"
    drive="$work/local/drive_c"
    unzip -q "$zip_file" -d "$drive/zentrix"
    install="$drive/zentrix/$(basename "$zip_file" .zip)"
    data="$drive/ProgramData/Tarvex/Données Bravik"
    mkdir -p "$install/postgres" "$data/logs"
    cp -r "$sdk/postgresql/"{bin,lib,share} "$install/postgres/"
    cp "$install/"*.dll "$install/postgres/bin/"
    reg "$key" /v InstallationFolder /t REG_SZ /d "$windows_folder"
    reg "$key\\global" /v restaddress /t REG_SZ /d 127.0.0.1
    reg "$key\\global" /v restport /t REG_SZ /d 8008
    reg "$key\\internal" /v data_directory /t REG_SZ /d 'C:\ProgramData\Tarvex\Données Bravik'
    local_port=$(free_port 47400)
    local_run() { (cd "$drive" && "$wine" "$windows_folder\\$1" "${@:2}"); }
    local_run zentrix-dbinfo.exe set host=127.0.0.1 port="$local_port" user=zentrix password=local-pw type=local \
        dbname=product >/dev/null
    local_sql() { env PGPASSWORD=local-pw "$pgbin/psql" -h 127.0.0.1 -p "$local_port" -U zentrix -qAt "$@"; }
    pg_data='C:\ProgramData\Tarvex\Données Bravik\pg_data'
    # The product's own use of its server, outside the tool's runs.
    product_server() {
        if [ "$1" = start ]; then
            local_run 'postgres\bin\pg_ctl.exe' start -W -D "$pg_data" -o "-p $local_port" >/dev/null
            for _ in $(seq 60); do "$pgbin/pg_isready" -q -h 127.0.0.1 -p "$local_port" && return; sleep 1; done
            return 1
        fi
        local_run 'postgres\bin\pg_ctl.exe' stop -D "$pg_data" -m fast >/dev/null
    }
    local_log="$data/logs/data_normalizer-$(date +%Y%m%d).log"
    local_failed() { echo "local server under Wine: $1" >&2; failed=1; }
    if local_run zentrix-data-normalizer.exe >/dev/null 2>&1; then local_failed "the first run found a database"; fi
    grep -qF "Cannot connect to Postgres server: product" "$local_log" || local_failed "no connection failure logged"
    [ -f "$data/pg_data/PG_VERSION" ] || local_failed "no cluster made"
    ! "$pgbin/pg_isready" -q -h 127.0.0.1 -p "$local_port" || local_failed "the first run left the server running"
    product_server start
    local_sql postgres -c "CREATE DATABASE product"
    local_sql product -f tests/fixtures/product-schema.sql
    local_sql product -c "INSERT INTO warehouse.control_refresh VALUES (1, 0); INSERT INTO scan.file (instance_id,
        request_id, filetype_details) VALUES (1, 5, '{\"a\":\"\\ud800\"}');"
    product_server stop
    local_run zentrix-data-normalizer.exe >/dev/null 2>&1 || local_failed "the second run failed"
    ! "$pgbin/pg_isready" -q -h 127.0.0.1 -p "$local_port" || local_failed "the second run left the server running"
    product_server start
    [ "$(local_sql product -c "SELECT filetype_details FROM scan.file")" = '{"a":"\\ud800"}' ] ||
        local_failed "the row was not repaired"
    product_server stop
    # A lock file left naming a live postgres.exe of another installation (its own folder, cluster
    # and port) is set aside, and this installation's server is started; the other one runs on.
    cp -r "$install/postgres" "$drive/other-postgres"
    cp -r "$data/pg_data" "$drive/other-data"
    rm -f "$drive/other-data/postmaster.pid"
    other_port=$(free_port $((local_port + 1)))
    other_ctl() { (cd "$drive" && "$wine" 'C:\other-postgres\bin\pg_ctl.exe' "$@" -D 'C:\other-data' >/dev/null); }
    other_ctl start -W -o "-p $other_port"
    for _ in $(seq 60); do "$pgbin/pg_isready" -q -h 127.0.0.1 -p "$other_port" && break; sleep 1; done
    cp "$drive/other-data/postmaster.pid" "$data/pg_data/postmaster.pid"
    local_run zentrix-data-normalizer.exe >/dev/null 2>&1 || local_failed "a lock file of another installation's server failed the run"
    [ -f "$data/pg_data/postmaster.pid.stale" ] || local_failed "the other installation's lock file was not set aside"
    "$pgbin/pg_isready" -q -h 127.0.0.1 -p "$other_port" || local_failed "the other installation's server was touched"
    other_ctl stop -m fast
    other='"C:\other\pg_ctl.exe" runservice -N "zentrix-postgresql" -D "C:\Other Data\pg_data"'
    "$wine" sc create zentrix-postgresql binPath= "$other" >/dev/null
    if local_run zentrix-data-normalizer.exe >/dev/null 2>&1; then local_failed "another installation's service was used"; fi
    grep -qF 'belongs to another installation: it runs the database server of C:\Other Data\pg_data' "$local_log" ||
        local_failed "no run-log line names the other installation's service"
    "$wine" sc query zentrix-postgresql >/dev/null || local_failed "another installation's service was unregistered"
    "$wine" sc delete zentrix-postgresql >/dev/null
    mkdir -p "$drive/zentrix/Bravík" "$drive/fresh-data/logs"
    cp "$install"/zentrix_postgres.{dat,cat} "$drive/zentrix/Bravík/"
    reg "$key" /v InstallationFolder /t REG_SZ /d 'C:\zentrix\Bravík'
    reg "$key\\internal" /v data_directory /t REG_SZ /d 'C:\fresh-data'
    if local_run zentrix-data-normalizer.exe >/dev/null 2>&1; then local_failed "an installation outside ASCII ran"; fi
    grep -qF "initdb cannot create the database cluster from the installation folder C:\zentrix\Bravík" \
        "$drive/fresh-data/logs/"*.log || local_failed "no run-log line refuses the installation folder"
    [ "$(ls "$drive/fresh-data")" = logs ] || local_failed "something was made for an installation outside ASCII"
    [ "$failed" -eq 0 ] && echo "Windows local server: cluster made, service started, rows repaired, service stopped;" \
        "another installation's lock file set aside;" \
        "another's service and an installation outside ASCII refused"
}

case "${1:-}" in
    zip | local_server) "scenario_$1" ;;
    *) echo "usage: $0 zip|local_server" >&2; exit 2 ;;
esac
exit "$failed"
