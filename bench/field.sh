#!/usr/bin/env bash
# Measures the batched repair as the field meets it, and writes its tables into
# docs/benchmarks.md between its "large-rows", "writer" and "unit-target" markers. Not part of the
# test run.
#
#   bench/field.sh
#
# Large rows: LARGE_ROWS rows of about 400 KB (TOASTed; default 240, one in 5 damaged) repaired by
# --batched: the run's time and its longest statement (each an autocommitted transaction).
# The product beside the tool: WRITER_ROWS rows of about 1 KB (default 600000, one in 5 damaged)
# while a writer updates random rows by key WRITER_RATE times a second (pgbench, default 200):
# the writer's 99th percentile and longest latency idle, during the product's run, --changed-only,
# --batched, --batched --jobs 2 and --dry-run, and --batched --jobs 2 over the range targets TARGETS
# (ms, default "100 250 500 1000").
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

large_rows=${LARGE_ROWS:-240}
writer_rows=${WRITER_ROWS:-600000}
writer_rate=${WRITER_RATE:-200}
targets=${TARGETS:-100 250 500 1000}

. bench/bench-lib.sh
start_bench_server
pgbench=$pgbin/pgbench

# "longest_statement LOG": the longest time a --verbose run gave one of its ranges, in seconds.
longest_statement() {
    grep -aoE ': [0-9]+\.[0-9]{3} s, rows changed' "$1" | awk '{if ($2 > m) m = $2} END {printf "%.3f", m}'
}

echo "== large rows: $large_rows rows of about 400 KB, one in 5 damaged" >&2
sql -d bench -c "TRUNCATE pristine; INSERT INTO pristine SELECT n, 1 + n % 3, 1000 + n,
    '{\"strings\":\"' || repeat(CASE WHEN n % 5 = 0 THEN 'lone \\ud800 surrogate and \\u0000 nul ' ELSE
    'clean text of a large document, nothing to repair ' END, 8000) || '\"}' FROM generate_series(1, $large_rows) n;
    TRUNCATE warehouse.control_refresh; INSERT INTO warehouse.control_refresh VALUES (1, 0), (2, 0), (3, 0);"
large="$work/large.md"
{
    echo "| run | seconds | longest range s | peak RSS MB |"
    echo "| --- | ---: | ---: | ---: |"
} >"$large"
for jobs in 1 2; do
    reset_data
    read -r seconds kib < <(timed "$work/work" "$tool" --batched --jobs "$jobs" --verbose)
    cp "$work/stderr" "$work/large-$jobs.log"
    longest=$(longest_statement "$work/large-$jobs.log")
    [ "$(bad_rows)" -eq 0 ] || { echo "the large rows were not all repaired" >&2; exit 1; }
    echo "  --batched --jobs $jobs: $seconds s, longest range $longest s" >&2
    echo "| --batched --jobs $jobs | $seconds | $longest | $(awk -v k="$kib" 'BEGIN {printf "%.1f", k / 1024}') |" >>"$large"
done

echo "== the product beside the tool: $writer_rows rows, a writer at $writer_rate/s" >&2
seed "$writer_rows" 3 5
cat >"$work/writer.sql" <<SQL
\set id random(1, $writer_rows)
UPDATE scan.file SET request_id = request_id WHERE id = :id;
SQL
# "writer SECONDS COMMAND...": runs the writer while the command runs (or for SECONDS when there
# is none); prints "p99-ms longest-ms tool-seconds".
writer() {
    local seconds=$1 started tool_seconds=-
    shift
    rm -f "$work"/pgbench_log.*
    (cd "$work" && exec "$pgbench" -h 127.0.0.1 -p "$port" -U zentrix -n -f "$work/writer.sql" -R "$writer_rate" \
        -T "$seconds" -l --log-prefix="$work/pgbench_log" bench >/dev/null 2>&1) &
    local pgbench_pid=$!
    if [ "$#" -gt 0 ]; then
        sleep 2
        started=$(date +%s.%N)
        (cd "$work/work" && "$@" >/dev/null 2>&1) || true
        tool_seconds=$(awk -v a="$started" -v b="$(date +%s.%N)" 'BEGIN {printf "%.1f", b - a}')
        kill "$pgbench_pid" 2>/dev/null || true
    fi
    wait "$pgbench_pid" 2>/dev/null || true
    # The log's third field is each transaction's latency in microseconds, from its scheduled start.
    cat "$work"/pgbench_log.* | awk '{print $3 / 1000}' | sort -g |
        awk -v t="$tool_seconds" '{v[NR] = $1} END {i = int(NR * 0.99); if (i < 1) i = 1;
            printf "%.1f %.1f %s\n", v[i], v[NR], t}'
}
writers="$work/writer.md"
{
    echo "| beside the writer | tool seconds | writer p99 ms | writer longest ms |"
    echo "| --- | ---: | ---: | ---: |"
} >"$writers"
reset_data
read -r p99 longest _ < <(writer 30)
echo "  idle: p99 $p99 ms, longest $longest ms" >&2
echo "| nothing (idle) | | $p99 | $longest |" >>"$writers"
# The dry run reads as hard as a repair but locks and writes nothing: what the writer loses to the
# machine's load alone.
for mode in "product's run:" "--changed-only:--changed-only" "--batched:--batched" \
    "--batched --jobs 2:--batched --jobs 2" "--dry-run (locks nothing):--dry-run"; do
    reset_data
    # shellcheck disable=SC2086
    read -r p99 longest seconds < <(writer 3600 "$tool" ${mode#*:})
    echo "  ${mode%%:*}: $seconds s, p99 $p99 ms, longest $longest ms" >&2
    echo "| ${mode%%:*} | $seconds | $p99 | $longest |" >>"$writers"
done

sweep="$work/targets.md"
{
    echo "| range target ms | tool seconds | writer p99 ms | writer longest ms |"
    echo "| ---: | ---: | ---: | ---: |"
} >"$sweep"
for target in $targets; do
    reset_data
    read -r p99 longest seconds < <(ZENTRIX_UNIT_TARGET_MS=$target writer 3600 "$tool" --batched --jobs 2)
    echo "  target $target ms: $seconds s, p99 $p99 ms, longest $longest ms" >&2
    echo "| $target | $seconds | $p99 | $longest |" >>"$sweep"
done

stamp="$(date -u '+%Y-%m-%d %H:%M UTC'): $(nproc) cores ($cpu), the server of \`bench/run.sh\`"
{
    echo "<!-- large-rows -->"
    echo "Measured by \`bench/field.sh\` on $stamp: $large_rows rows of about 400 KB"
    echo "(TOASTed), one in 5 damaged, repaired by \`--batched --verbose\`; the longest range is the longest"
    echo "time the run gave one range, which is one autocommitted transaction."
    echo
    cat "$large"
    echo "<!-- /large-rows -->"
} >"$work/block"
write_block large-rows "$work/block"
{
    echo "<!-- writer -->"
    echo "Measured by \`bench/field.sh\` on $stamp: $writer_rows rows of about 1 KB, one in 5"
    echo "damaged, while pgbench updates a random row by key $writer_rate times a second; latencies are"
    echo "the writer's, from each transaction's scheduled start, over the tool's whole run."
    echo
    cat "$writers"
    echo "<!-- /writer -->"
} >"$work/block"
write_block writer "$work/block"
{
    echo "<!-- unit-target -->"
    echo "Measured by \`bench/field.sh\`: the same writer during \`--batched --jobs 2\` with"
    echo "ZENTRIX_UNIT_TARGET_MS set to each target."
    echo
    cat "$sweep"
    echo "<!-- /unit-target -->"
} >"$work/block"
write_block unit-target "$work/block"
