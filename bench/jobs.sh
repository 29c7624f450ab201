#!/usr/bin/env bash
# Measures --jobs: the same rows repaired with 1 job, 2 jobs and as many jobs as instances,
# and writes the table into docs/benchmarks.md between its "jobs" markers. Not part of the
# test run.
#
#   bench/jobs.sh [ROWS]      default: 300000
#
# Environment: REPEATS (runs per setting, default 3), INSTANCE_COUNTS (default "4 3").
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

rows=${1:-300000}
repeats=${REPEATS:-3}
instance_counts=${INSTANCE_COUNTS:-4 3}

. bench/bench-lib.sh
start_bench_server

table="$work/jobs.md"
{
    echo "| rows | instances | --jobs | seconds | of --jobs 1 | bad rows before/after |"
    echo "| ---: | ---: | ---: | ---: | ---: | ---: |"
} >"$table"
for instances in $instance_counts; do
    echo "== $rows rows, $instances instances" >&2
    seed "$rows" "$instances"
    reset_data
    before=$(bad_rows)
    settings=$(printf '%s\n' 1 2 "$instances" | awk '!seen[$0]++')
    for jobs in $settings; do : >"$work/jobs-$jobs"; done
    for r in $(seq "$repeats"); do
        # Each round starts with another setting, so none always follows the same history.
        for jobs in $(echo "$settings" | awk -v r="$r" '{v[NR]=$0} END {for (i = 0; i < NR; i++) print v[(i + r - 1) % NR + 1]}'); do
            reset_data
            read -r seconds _ < <(timed "$work/work" "$tool" --jobs "$jobs")
            echo "$seconds" >>"$work/jobs-$jobs"
            [ "$(bad_rows)" -eq 0 ] || { echo "--jobs $jobs left bad rows" >&2; exit 1; }
            echo "  run $r, --jobs $jobs: $seconds s" >&2
        done
    done
    single=$(median <"$work/jobs-1")
    for jobs in $settings; do
        seconds=$(median <"$work/jobs-$jobs")
        echo "| $rows | $instances | $jobs | $seconds | $(ratio "$seconds" "$single") | $before/0 |" >>"$table"
    done
done

{
    echo "<!-- jobs -->"
    echo "Measured by \`bench/jobs.sh\` on $(date -u '+%Y-%m-%d %H:%M UTC'): $(nproc) cores ($cpu), the server"
    echo "of \`bench/run.sh\` and its rows; medians of $repeats runs, the settings taking turns at going first."
    echo
    cat "$table"
    echo "<!-- /jobs -->"
} >"$work/block"
write_block jobs "$work/block"
