#!/usr/bin/env bash
# Measures --batched against the product's statements, --changed-only and --dry-run on a
# large table at two damage rates, and the batch size of --batched on a smaller one; writes
# the tables into docs/benchmarks.md between its "batched" and "batch-size" markers. Not part
# of the test run.
#
#   bench/batched.sh [ROWS]      default: 2000000
#
# Environment: EVERY (damage rates, one row in N, default "100 5"), SWEEP_ROWS (rows of the
# batch-size table, default 400000; 0 skips it), SWEEP_SIZES (blocks, default "128 512 1024
# 4096 16384"), MODES (default "default changed batched batched-2 dry").
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

rows=${1:-2000000}
rates=${EVERY:-100 5}
sweep_rows=${SWEEP_ROWS:-400000}
sweep_sizes=${SWEEP_SIZES:-128 512 1024 4096 16384}
modes=${MODES:-default changed batched batched-2 dry}

. bench/bench-lib.sh
start_bench_server
# Every statement in the server's log, for the longest one a run sends.
sql -d postgres -q -c "ALTER SYSTEM SET log_statement = 'all'" -c "SELECT pg_reload_conf()"

# The tool's test of a row's text (whether the repair changes it), for the floor.
high='[uU][dD][89abAB][0-9a-fA-F]{2}'
low='[uU][dD][c-fC-F][0-9a-fA-F]{2}'
not_after_high="(^|[^\\\\0-9a-fA-F]|(^|[^0-9a-fA-F])[0-9a-fA-F]|(^|[^89abAB])[0-9a-fA-F]{2}|(^|[^dD])[89abAB][0-9a-fA-F]{2}|(^|[^uU])[dD][89abAB][0-9a-fA-F]{2}|(^|[^\\\\])$high)"
not_low_after="(\$|[^\\\\]|[\\\\](\$|[^uU]|[uU](\$|[^dD]|[dD](\$|[^c-fC-F]|[c-fC-F](\$|[^0-9a-fA-F]|[0-9a-fA-F](\$|[^0-9a-fA-F]))))))"
test="filetype_details::TEXT ~ '(^|[^\\\\])([\\\\]|[\\\\]{3,})([uU]0000|[xX]|$high$not_low_after)|[\\\\]{4,}$low|[\\\\]$high[\\\\]{2}$low|$not_after_high([\\\\]|[\\\\]{3})$low'"

options_of() {
    case $1 in
    default) ;;
    changed) echo --changed-only ;;
    batched) echo --batched ;;
    batched-2) echo --batched --jobs 2 ;;
    dry) echo --dry-run ;;
    esac
}

# "measure LABEL ARGS...": one run of the tool from a checkpoint; prints "seconds peak-MB
# WAL-MB longest-statement-bytes".
measure() {
    local label=$1 lsn offset seconds kib
    shift
    sql -d bench -q -c "CHECKPOINT"
    lsn=$(sql -d bench -At -c "SELECT pg_current_wal_lsn()")
    offset=$(stat -c %s "$work/server.log")
    read -r seconds kib < <(timed "$work/work" "$tool" "$@")
    local longest
    longest=$(tail -c +"$((offset + 1))" "$work/server.log" | grep -a ' statement: ' |
        awk '{sub(/^.* statement: /, ""); if (length($0) > m) m = length($0)} END {print m + 0}')
    local wal
    wal=$(sql -d bench -At -c "SELECT round(pg_wal_lsn_diff(pg_current_wal_lsn(), '$lsn') / 1048576.0, 1)")
    echo "$seconds $(awk -v k="$kib" 'BEGIN {printf "%.1f", k / 1024}') $wal $longest"
}

table="$work/batched.md"
{
    echo "| damaged | run | seconds | of --changed-only | peak RSS MB | WAL MB | longest statement bytes |"
    echo "| ---: | --- | ---: | ---: | ---: | ---: | ---: |"
} >"$table"
for every in $rates; do
    echo "== $rows rows, one in $every damaged" >&2
    seed "$rows" 3 "$every"
    changed_seconds=
    for mode in $modes; do
        reset_data
        # shellcheck disable=SC2046
        read -r seconds peak wal longest < <(measure "$mode" $(options_of "$mode"))
        echo "  $mode: $seconds s, $peak MB, WAL $wal MB, longest statement $longest B" >&2
        case $mode in
        changed) changed_seconds=$seconds ;;
        batched*) [ "$(bad_rows)" -eq 0 ] || { echo "$mode left bad rows" >&2; exit 1; } ;;
        esac
        echo "$every $mode $seconds $peak $wal $longest" >>"$work/results"
    done
    awk -v e="$every" -v c="${changed_seconds:-0}" '$1 == e {
        printf "| 1 in %s | %s | %s | %s | %s | %s | %s |\n", e, $2, $3, (c > 0 ? sprintf("%.3f", $3 / c) : ""), $4, $5, $6
    }' "$work/results" >>"$table"
    # The floor: one parallel scan testing every row's text, the write left out (psql).
    reset_data
    read -r seconds _ < <(timed "$work" psql -X -q -h 127.0.0.1 -p "$port" -U zentrix -d bench \
        -c "SET parallel_tuple_cost = 0" -c "SELECT count(*) FROM scan.file WHERE $test")
    echo "| 1 in $every | floor (one parallel scan of the test, psql) | $seconds | | | | |" >>"$table"
done

sweep="$work/sweep.md"
if [ "$sweep_rows" -gt 0 ]; then
    echo "== batch sizes, $sweep_rows rows, one in 5 damaged" >&2
    seed "$sweep_rows" 3 5
    {
        echo "| blocks per batch | batches | seconds | peak RSS MB |"
        echo "| ---: | ---: | ---: | ---: |"
    } >"$sweep"
    for size in $sweep_sizes; do
        reset_data
        blocks=$(sql -d bench -At -c "SELECT pg_relation_size('scan.file') / 8192")
        read -r seconds peak _ < <(ZENTRIX_BATCH_BLOCKS=$size measure "size-$size" --batched)
        echo "  $size blocks: $seconds s" >&2
        echo "| $size | $(((blocks + size - 1) / size)) | $seconds | $peak |" >>"$sweep"
    done
fi

{
    echo "<!-- batched -->"
    echo "Measured by \`bench/batched.sh\` on $(date -u '+%Y-%m-%d %H:%M UTC'): $(nproc) cores ($cpu), the server"
    echo "of \`bench/run.sh\`, $rows rows of about 1 KB over 3 instances, one run per setting from a"
    echo "checkpoint. \"batched-2\" is \`--batched --jobs 2\`; peak RSS is the tool's; the longest statement"
    echo "is the longest text the run sent, from the server's log."
    echo
    cat "$table"
    echo "<!-- /batched -->"
} >"$work/block"
write_block batched "$work/block"
if [ -s "$sweep" ]; then
    {
        echo "<!-- batch-size -->"
        echo "Measured by \`bench/batched.sh\`: \`--batched\` on $sweep_rows rows, one in 5 damaged, with"
        echo "ZENTRIX_BATCH_BLOCKS set to each size."
        echo
        cat "$sweep"
        echo "<!-- /batch-size -->"
    } >"$work/block"
    write_block batch-size "$work/block"
fi
