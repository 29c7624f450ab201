#!/usr/bin/env bash
# Measures the tool against the server's own cost and a client-side fixer, and writes the
# results to docs/benchmarks.md. Not part of the test run.
#
#   bench/run.sh [ROW_COUNTS...]      default: 10000 100000 1000000
#
# Environment: REPEATS (alternating runs per size, default 3), CLIENT_LIMIT (largest size
# the client-side fixer is run at, default 1000000), CLIENT_TIMEOUT (seconds, default 1800).
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

sizes=("$@")
[ "${#sizes[@]}" -gt 0 ] || sizes=(10000 100000 1000000)
repeats=${REPEATS:-3}
client_limit=${CLIENT_LIMIT:-1000000}
client_timeout=${CLIENT_TIMEOUT:-1800}

. bench/bench-lib.sh
start_bench_server

# The statements the tool sends, byte for byte: the instance query and one UPDATE per instance.
blanks() { printf '%*s' "$1" ''; }
statements="$work/statements.sql"
{
    printf 'SELECT instance_id, last_request_id%sFROM warehouse.control_refresh%sORDER BY instance_id;\n' \
        "$(blanks 61)" "$(blanks 61)"
    for i in 1 2 3; do
        printf '%s' "UPDATE scan.file$(blanks 57)SET filetype_details = REGEXP_REPLACE(filetype_details::TEXT, "
        printf '%s' "'(?<![\\\\]ud[89ab][0-9a-f]{2})[\\\\]+(?=ud[c-f][0-9a-f]{2})|[\\\\]+(?=ud[89ab][0-9a-f]{2}"
        printf '%s' "(?![\\\\]ud[c-f][0-9a-f]{2}))|[\\\\]+(?=u0000|x)', '\\\\\\\\', 'gi')"
        printf '%s\n' "$(blanks 57)WHERE request_id > $i$(blanks 57)AND instance_id = $i;"
    done
} >"$statements"
# The same rewrite without the expression, to show what the expression itself costs.
rewrite="$work/rewrite.sql"
for i in 1 2 3; do
    echo "UPDATE scan.file SET filetype_details = filetype_details::TEXT WHERE request_id > $i AND instance_id = $i;"
done >"$rewrite"

results="$work/results.md"
echo "| rows | tool (a) s | psql (b) s | a/b | client fixer (c) s | c/a | rewrite without expression (d) s | server time of the UPDATEs, all runs | tool peak RSS KiB | bad rows before/after |" >"$results"
echo "| ---: | ---: | ---: | ---: | ---: | ---: | ---: | --- | ---: | ---: |" >>"$results"
for n in "${sizes[@]}"; do
    echo "== $n rows" >&2
    seed "$n"
    reset_data
    before=$(bad_rows)
    : >"$work/a"
    : >"$work/b"
    : >"$work/rss"
    : >"$work/d"
    for r in $(seq "$repeats"); do
        # Alternate which of the two goes first, so neither always follows the same history.
        if [ $((r % 2)) -eq 1 ]; then order="tool psql"; else order="psql tool"; fi
        for who in $order; do
            reset_data
            if [ "$who" = tool ]; then
                read -r seconds rss < <(timed "$work/work" "$tool")
                echo "$seconds" >>"$work/a"
                echo "$rss" >>"$work/rss"
                after=$(bad_rows)
            else
                read -r seconds _ < <(timed "$work/work" psql -X -q -h 127.0.0.1 -p "$port" -U zentrix -d bench -f "$statements")
                echo "$seconds" >>"$work/b"
            fi
        done
        reset_data
        read -r rewrite_seconds _ < <(timed "$work/work" psql -X -q -h 127.0.0.1 -p "$port" -U zentrix -d bench -f "$rewrite")
        echo "$rewrite_seconds" >>"$work/d"
        echo "  run $r ($order): tool $(tail -n 1 "$work/a") s, psql $(tail -n 1 "$work/b") s, rewrite only $rewrite_seconds s" >&2
    done
    d=$(median <"$work/d")
    # The server's own time for the UPDATEs, by client: the tool's connection has no application name.
    server_times=$(awk '/duration: .* UPDATE scan.file +SET filetype_details = REGEXP_REPLACE/ {
            who = ($1 == "psql") ? "psql" : "tool"
            for (i = 1; i < NF; i++) if ($i == "duration:") sum[who] += $(i + 1) } END {
            printf "tool %.1f s, psql %.1f s", sum["tool"] / 1000, sum["psql"] / 1000 }' "$work/server.log")
    echo "  server time for the UPDATEs over all runs: $server_times" >&2
    : >"$work/server.log"
    a=$(median <"$work/a")
    b=$(median <"$work/b")
    rss=$(sort -g "$work/rss" | tail -n 1)
    if [ "$n" -le "$client_limit" ]; then
        reset_data
        if read -r c _ < <(timed "$work/work" timeout "$client_timeout" "$fixer" 127.0.0.1 "$port" bench zentrix "$password"); then
            cr=$(ratio "$c" "$a")
        else
            c=">$client_timeout"
            cr=">$(ratio "$client_timeout" "$a")"
        fi
        echo "  client fixer: $c s" >&2
    else
        c="not run"
        cr="-"
    fi
    echo "| $n | $a | $b | $(ratio "$a" "$b") | $c | $cr | $d | $server_times | $rss | $before/$after |" >>"$results"
done

# Fixed costs: an empty instance list against a bare round trip, and a first run.
sql -d bench -c "TRUNCATE warehouse.control_refresh"
: >"$work/empty"
: >"$work/select1"
for r in $(seq 10); do
    timed "$work/work" "$tool" | cut -d' ' -f1 >>"$work/empty"
    timed "$work/work" psql -X -q -h 127.0.0.1 -p "$port" -U zentrix -d bench -c 'select 1' | cut -d' ' -f1 >>"$work/select1"
done
empty=$(median <"$work/empty")
select1=$(median <"$work/select1")

first_port=$(free_port $((port + 1)))
: >"$work/first-tool"
: >"$work/first-manual"
for r in $(seq "$repeats"); do
    as_account "$pgbin/pg_ctl" stop -D "$work/first/data/pg_data" -m immediate >/dev/null 2>&1 || true
    rm -rf "$work/first"
    make_installation "$work/first"
    (cd "$work/first/work" && "$dbinfo" set host=127.0.0.1 port="$first_port" user=zentrix password="$password" \
        type=local dbname=postgres private_password=x >/dev/null)
    # An argument other than -h skips the pass: cluster creation, start, connection, stop.
    timed "$work/first/work" "$tool" skip-pass | cut -d' ' -f1 >>"$work/first-tool"

    rm -rf "$work/manual"
    start=$(date +%s.%N)
    as_account "$pgbin/initdb" -D "$work/manual" -U zentrix --pwfile="$work/pw" -A password -E UTF8 >/dev/null
    as_account "$pgbin/pg_ctl" start -D "$work/manual" -w -l "$work/manual.log" -o "-p $first_port -k ''" >/dev/null
    as_account "$pgbin/pg_ctl" stop -D "$work/manual" -w >/dev/null
    end=$(date +%s.%N)
    awk -v s="$start" -v e="$end" 'BEGIN {printf "%.2f\n", e - s}' >>"$work/first-manual"
done
first_tool=$(median <"$work/first-tool")
first_manual=$(median <"$work/first-manual")

cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')
memory=$(awk '/MemTotal/ {printf "%.0f GiB", $2 / 1048576}' /proc/meminfo)
server=$("$pgbin/postgres" --version)
{
    echo "# Benchmarks"
    echo
    echo "Measured by \`bench/run.sh\` on $(date -u '+%Y-%m-%d %H:%M UTC'): $(nproc) cores ($cpu), $memory,"
    echo "$server on loopback, default settings but for max_wal_size=16GB, min_wal_size=4GB,"
    echo "checkpoint_timeout=1h and autovacuum off (so no checkpoint or vacuum lands inside a run). Medians of"
    echo "$repeats runs on identical data, the tool and psql taking turns at going first (the table is restored,"
    echo "vacuumed and checkpointed before every run)."
    echo
    echo "- (a) the tool end to end on a running server (type \`remote\`): start, configuration, information"
    echo "  file, upgrade check, connection, the instance list and one UPDATE per instance;"
    echo "- (b) \`psql -f\` sending the identical statements: the server's own cost, the floor;"
    echo "- (c) \`bench/client_fixer\`: fetches every row, repairs it in the client with the same expression"
    echo "  and writes it back by key, one autocommitted UPDATE per row;"
    echo "- (d) the same UPDATEs without the expression (\`SET filetype_details = filetype_details::TEXT\`):"
    echo "  what rewriting the rows costs, so (b) - (d) is the server's regular-expression work."
    echo
    echo "Rows hold about 1 KB of file-type JSON each; one in a hundred has a bad escape; three instances."
    echo
    cat "$results"
    echo
    echo "| fixed cost | seconds |"
    echo "| --- | ---: |"
    echo "| tool, empty instance list (median of 10) | $empty |"
    echo "| \`psql -c 'select 1'\` (median of 10) | $select1 |"
    echo "| tool, first run: cluster creation, start, stop (median of $repeats) | $first_tool |"
    echo "| \`initdb\` + \`pg_ctl start -w\` + \`pg_ctl stop\` by hand (median of $repeats) | $first_manual |"
    # Hand-written findings below the marker survive a new measurement.
    if [ -f "$top/docs/benchmarks.md" ] && grep -q '^<!-- findings -->' "$top/docs/benchmarks.md"; then
        echo
        sed -n '/^<!-- findings -->/,$p' "$top/docs/benchmarks.md"
    fi
} >"$top/docs/benchmarks.md.new"
mv "$top/docs/benchmarks.md.new" "$top/docs/benchmarks.md"
cat "$top/docs/benchmarks.md"
