# Shared by the scripts of bench/: makes their work folder, builds the programs, starts a
# benchmark server of its own with the product's tables, and seeds realistic rows. Source it
# from the top folder after setting "top"; it defines functions and variables.

# A fresh work folder named after the script, removed with the servers in it when the script
# ends, unless KEEP_WORK is set.
work=$(mktemp -d "/tmp/zentrix-bench-$(basename "$0" .sh).XXXXXX")
cleanup() {
    local data
    for data in "$work/server" "$work/first/data/pg_data" "$work/manual"; do
        [ ! -d "$data" ] || as_account "$pgbin/pg_ctl" stop -D "$data" -m immediate >/dev/null 2>&1 || true
    done
    rm -rf "$work"
}
[ -n "${KEEP_WORK:-}" ] || trap cleanup EXIT

./scripts/install-deps.sh time >/dev/null
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DZENTRIX_BUILD_TESTS=OFF -DZENTRIX_BUILD_BENCH=ON >/dev/null
cmake --build build-bench -j "$(nproc)" -- --no-print-directory >/dev/null
tool="$top/build-bench/app/zentrix-data-normalizer"
dbinfo="$top/build-bench/app/zentrix-dbinfo"
fixer="$top/build-bench/bench/client_fixer"
. scripts/sandbox-lib.sh

port=$(free_port 56432)
password=bench-pw
export PGPASSWORD=$password
sql() { psql -X -q -v ON_ERROR_STOP=1 -h 127.0.0.1 -p "$port" -U zentrix "$@"; }
# A server tuned so that nothing but the statements measured lands inside a run.
start_bench_server() {
    make_installation "$work"
    chown "$account" "$work"
    printf '%s' "$password" >"$work/pw"
    chown "$account" "$work/pw"
    as_account "$pgbin/initdb" -D "$work/server" -U zentrix --pwfile="$work/pw" -A scram-sha-256 -E UTF8 --locale=C >/dev/null
    # Checkpoints and autovacuum would land at random points of a run; WAL kept recycled keeps
    # segment creation out of the runs. Statements over a second are logged with their duration
    # and client, to compare the server's time for the tool's statements with psql's.
    as_account "$pgbin/pg_ctl" start -D "$work/server" -w -l "$work/server.log" \
        -o "-p $port -k '' -c max_wal_size=16GB -c min_wal_size=4GB -c checkpoint_timeout=1h -c autovacuum=off \
            -c log_min_duration_statement=1000 -c log_line_prefix='%a '" >/dev/null
    sql -d postgres -c "CREATE DATABASE bench"

    (cd "$work/work" && "$dbinfo" set host=127.0.0.1 port="$port" user=zentrix password="$password" type=remote \
        dbname=bench private_password=x >/dev/null)
    sql -d bench -f "$top/tests/fixtures/product-schema.sql"
    sql -d bench -c "CREATE TABLE pristine (LIKE scan.file)"
}

# "seed ROWS [INSTANCES] [EVERY]": about 1 KB of file-type details per row, spread evenly over
# the instances (default 3); one row in EVERY carries a bad escape (default 50), alternately a
# lone surrogate and a NUL with a \x.
seed() {
    local instances=${2:-3} every=${3:-50}
    sql -d bench -c "TRUNCATE pristine; INSERT INTO pristine
      SELECT n, 1 + n % $instances, 1000 + n,
        '{\"filetype\":\"PE32 executable (GUI) Intel 80386, for MS Windows\",\"mime\":\"application/x-dosexec\",'
        || '\"magic\":\"MZ\",\"size\":' || (n * 37 % 900000) || ',\"sections\":['
        || '{\"name\":\".text\",\"entropy\":6.21,\"flags\":\"rx\",\"size\":' || (n % 4096) || '},'
        || '{\"name\":\".rdata\",\"entropy\":4.87,\"flags\":\"r\",\"size\":8192},'
        || '{\"name\":\".data\",\"entropy\":1.02,\"flags\":\"rw\",\"size\":1024},'
        || '{\"name\":\".rsrc\",\"entropy\":3.33,\"flags\":\"r\",\"size\":65536}],'
        || '\"version_info\":{\"CompanyName\":\"Example Software Ltd\",\"FileDescription\":\"Setup \\u00e9 utility\",'
        || '\"ProductVersion\":\"10.4.' || (n % 97) || '\",\"OriginalFilename\":\"setup_' || n || '.exe\"},'
        || '\"imports\":[\"KERNEL32.dll\",\"USER32.dll\",\"ADVAPI32.dll\",\"SHELL32.dll\",\"ole32.dll\"],'
        || '\"signature\":{\"signed\":true,\"issuer\":\"Example Code Signing CA \\ud83d\\ude00\"},'
        || '\"note\":\"' || CASE n % (2 * $every) WHEN 0 THEN 'lone \\ud800 surrogate'
                                     WHEN $every THEN 'nul \\u0000 and \\x41' ELSE 'clean' END || '\",'
        || '\"padding\":\"' || repeat('0123456789abcdef', 16) || '\"}'
      FROM generate_series(1, $1) n;
      TRUNCATE warehouse.control_refresh;
      INSERT INTO warehouse.control_refresh SELECT i, 0 FROM generate_series(1, $instances) i;"
}
reset_data() {
    sql -d bench -c "TRUNCATE scan.file" -c "INSERT INTO scan.file SELECT * FROM pristine" \
        -c "VACUUM ANALYZE scan.file" -c "CHECKPOINT"
}
bad_rows() {
    sql -d bench -At -c "CREATE FUNCTION pg_temp.ok(t text) RETURNS bool LANGUAGE plpgsql AS
        \$\$ BEGIN PERFORM t::jsonb; RETURN true; EXCEPTION WHEN others THEN RETURN false; END \$\$" \
        -c "SELECT count(*) FROM scan.file WHERE NOT pg_temp.ok(filetype_details)"
}
# "seconds peak-KiB" of a command run in the given folder.
timed() {
    local dir=$1
    shift
    (cd "$dir" && /usr/bin/time -f '%e %M' -o "$work/time" "$@" >/dev/null 2>"$work/stderr") || {
        cat "$work/stderr" >&2
        return 1
    }
    cat "$work/time"
}
median() { sort -g | awk '{v[NR]=$1} END {print (NR % 2) ? v[(NR+1)/2] : (v[NR/2] + v[NR/2+1]) / 2}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.3f", a / b}'; }

# "write_block NAME FILE": puts FILE into docs/benchmarks.md between the markers
# "<!-- NAME -->" and "<!-- /NAME -->" (FILE holds them), or appends it, and prints it.
write_block() {
    local name=$1 block=$2 target="$top/docs/benchmarks.md"
    if grep -q "^<!-- $name -->" "$target"; then
        awk -v block="$block" -v first="<!-- $name -->" -v last="<!-- /$name -->" '
            $0 == first { while ((getline line < block) > 0) print line; skip = 1; next }
            $0 == last { skip = 0; next }
            !skip' "$target" >"$target.new"
        mv "$target.new" "$target"
    else
        { echo; cat "$block"; } >>"$target"
    fi
    cat "$block"
}
cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')
