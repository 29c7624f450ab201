#!/usr/bin/env bash
# Measures --changed-only and --dry-run against the product's statements on the same rows,
# spread over few and over many instances, and writes the table into docs/benchmarks.md
# between its "changed" markers. Not part of the test run.
#
#   bench/changed.sh [ROWS]      default: 200000
#
# Environment: REPEATS (runs per setting, default 3), INSTANCE_COUNTS (default "3 24").
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

rows=${1:-200000}
repeats=${REPEATS:-3}
instance_counts=${INSTANCE_COUNTS:-3 24}

. bench/bench-lib.sh
start_bench_server

# The pre-test of --changed-only over every row, in one parallel scan: what any statement
# that must look at every row's text costs at least.
pretest="SELECT count(*) FROM scan.file WHERE filetype_details::TEXT ~ '[\\\\]([uU]0000|[xX])|[\\\\][uU][dD][89abAB][0-9a-fA-F]{2}(?![\\\\][uU][dD][c-fC-F][0-9a-fA-F]{2})|[\\\\](?<![\\\\][uU][dD][89abAB][0-9a-fA-F]{2}[\\\\])[uU][dD][c-fC-F]'"

# "measure LABEL ARGS...": one run of the tool from a checkpoint; appends "seconds wal-bytes
# rows-rewritten" to $work/LABEL. Rows rewritten are those with a row version newer than the
# start of the run.
measure() {
    local label=$1 lsn xid seconds
    shift
    sql -d bench -q -c "CHECKPOINT"
    lsn=$(sql -d bench -At -c "SELECT pg_current_wal_lsn()")
    xid=$(sql -d bench -At -c "SELECT txid_current() % 4294967296")
    read -r seconds _ < <(timed "$work/work" "$tool" "$@")
    sql -d bench -At -F ' ' -c "SELECT $seconds, pg_wal_lsn_diff(pg_current_wal_lsn(), '$lsn'),
        count(*) FILTER (WHERE xmin::text::bigint > $xid) FROM scan.file" >>"$work/$label"
    echo "  $label: $(tail -n 1 "$work/$label")" >&2
}
# Medians of one column (1 seconds, 2 WAL bytes, 3 rows rewritten) of a label's runs.
column() { awk -v c="$2" '{print $c}' "$work/$1" | median; }

table="$work/changed.md"
{
    echo "| instances | run | seconds | of default | WAL MB | of default | rows rewritten | bad rows after |"
    echo "| ---: | --- | ---: | ---: | ---: | ---: | ---: | ---: |"
} >"$table"
labels="default changed second dry"
for instances in $instance_counts; do
    echo "== $rows rows, $instances instances" >&2
    seed "$rows" "$instances" 100
    for label in $labels floor-pretest floor-count; do : >"$work/$label"; done
    for r in $(seq "$repeats"); do
        # The product's statements and --changed-only take turns at going first.
        for mode in $( ((r % 2)) && echo "default changed" || echo "changed default"); do
            reset_data
            if [ "$mode" = default ]; then
                measure default
            else
                measure changed --changed-only
                [ "$(bad_rows)" -eq 0 ] || { echo "--changed-only left bad rows" >&2; exit 1; }
                measure second --changed-only
            fi
        done
        reset_data
        measure dry --dry-run
        sql -d bench -q -c "CHECKPOINT"
        read -r seconds _ < <(timed "$work" psql -X -q -h 127.0.0.1 -p "$port" -U zentrix -d bench -c "$pretest")
        echo "$seconds" >>"$work/floor-pretest"
        for i in $(seq "$instances"); do
            echo "SELECT count(*) FROM scan.file WHERE request_id > $i AND instance_id = $i;"
        done >"$work/counts.sql"
        read -r seconds _ < <(timed "$work" psql -X -q -h 127.0.0.1 -p "$port" -U zentrix -d bench -f "$work/counts.sql")
        echo "$seconds" >>"$work/floor-count"
    done
    base=$(column default 1)
    wal=$(column default 2)
    for label in $labels; do
        seconds=$(column "$label" 1)
        bytes=$(column "$label" 2)
        echo "| $instances | $label | $seconds | $(ratio "$seconds" "$base") | $(awk -v b="$bytes" 'BEGIN {printf "%.1f", b / 1048576}') | $(ratio "$bytes" "$wal") | $(column "$label" 3) | 0 |" >>"$table"
    done
    for floor in floor-pretest floor-count; do
        seconds=$(median <"$work/$floor")
        echo "| $instances | $floor | $seconds | $(ratio "$seconds" "$base") | | | | |" >>"$table"
    done
    echo "changed-$instances $(column changed 1)" >>"$work/scaling"
done

{
    echo "<!-- changed -->"
    echo "Measured by \`bench/changed.sh\` on $(date -u '+%Y-%m-%d %H:%M UTC'): $(nproc) cores ($cpu), the server"
    echo "of \`bench/run.sh\`, $rows rows of about 1 KB, one in a hundred damaged; medians of $repeats runs,"
    echo "the product's statements and \`--changed-only\` taking turns at going first, a checkpoint before each run."
    echo "\"second\" is a \`--changed-only\` run right after one, with nothing left to repair; \"dry\" is"
    echo "\`--dry-run\`; \"floor-pretest\" one parallel scan running the pre-test over every row (psql);"
    echo "\"floor-count\" a plain \`SELECT count(*)\` of each instance's range, one instance after the other (psql)."
    echo
    cat "$table"
    echo
    awk '{v[NR]=$2} END {if (NR > 1) printf "--changed-only at %s against %s instances: %.3f of its time.\n", "the most", "the fewest", v[NR] / v[1]}' "$work/scaling"
    echo "<!-- /changed -->"
} >"$work/block"
write_block changed "$work/block"
