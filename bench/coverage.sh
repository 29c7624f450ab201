#!/usr/bin/env bash
# Measures what a coverage of rows, not of places, costs, and writes its table into
# docs/benchmarks.md between its "coverage" markers. Not part of the test run.
#
#   bench/coverage.sh [ROWS]      default: 2000000, one row in 5 damaged
#
# --batched, --batched --jobs 2 and --journal on a quiet table, this tool against the one of BASE
# (a git commit, default the one before the closing rounds), taking turns at going first; then the
# same runs of this tool while pgbench updates a random row by key WRITER_RATE times a second
# (default 200): the run's time, the rows the closing rounds repaired, and the rows still damaged
# after it (for BASE too, which did not read them again).
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

rows=${1:-2000000}
base_ref=${BASE:-8fda303^}
writer_rate=${WRITER_RATE:-200}

. bench/bench-lib.sh
start_bench_server
seed "$rows" 3 5

# The base tool, built from its commit beside this one.
git worktree add --detach "$work/base-src" "$base_ref" >/dev/null 2>&1
cmake -S "$work/base-src" -B "$work/base-build" -DCMAKE_BUILD_TYPE=Release -DZENTRIX_BUILD_TESTS=OFF >/dev/null
cmake --build "$work/base-build" -j "$(nproc)" --target zentrix-data-normalizer -- --no-print-directory >/dev/null
base_tool="$work/base-build/app/zentrix-data-normalizer"
remove_base() { git -C "$top" worktree remove --force "$work/base-src" >/dev/null 2>&1 || true; }
trap 'remove_base; cleanup' EXIT

run_log() { ls -t "$work"/data/logs/data_normalizer-*.log | head -n 1; }
drop_journal() { sql -d bench -q -c "DROP SCHEMA IF EXISTS zentrix_normalizer CASCADE"; }
# "repaired_meanwhile LOG-OFFSET": what this run's closing rounds repaired, from its run log.
repaired_meanwhile() {
    tail -c +"$(($1 + 1))" "$(run_log)" | grep -a 'Rows repaired by the closing rounds' |
        sed 's/.*began): //' | tail -n 1 | grep . || echo 0
}
rounds_of() {
    tail -c +"$(($1 + 1))" "$(run_log)" | grep -ac 'Rows written during the run, round' || true
}

quiet="$work/quiet.md"
{
    echo "| run | base s | this s | this / base |"
    echo "| --- | ---: | ---: | ---: |"
} >"$quiet"
for mode in "--batched" "--batched --jobs 2" "--journal"; do
    declare -A seconds=()
    for which in base this this base; do
        tool_of=$tool
        [ "$which" = base ] && tool_of=$base_tool
        reset_data
        drop_journal
        # shellcheck disable=SC2086
        read -r s _ < <(timed "$work/work" "$tool_of" $mode)
        seconds[$which]="${seconds[$which]:-} $s"
        echo "  quiet $mode, $which: $s s" >&2
    done
    base_median=$(printf '%s\n' ${seconds[base]} | median)
    this_median=$(printf '%s\n' ${seconds[this]} | median)
    echo "| $mode | $base_median | $this_median | $(ratio "$this_median" "$base_median") |" >>"$quiet"
done

cat >"$work/writer.sql" <<SQL
\set id random(1, $rows)
UPDATE scan.file SET request_id = request_id WHERE id = :id;
SQL
busy="$work/busy.md"
{
    echo "| run beside the writer | tool | seconds | rounds that found rows | rows the rounds repaired | damaged rows after |"
    echo "| --- | --- | ---: | ---: | ---: | ---: |"
} >"$busy"
for mode in "--batched --jobs 2" "--journal"; do
    for which in base this; do
        tool_of=$tool
        [ "$which" = base ] && tool_of=$base_tool
        reset_data
        drop_journal
        offset=$(stat -c %s "$(run_log)" 2>/dev/null || echo 0)
        "$pgbin/pgbench" -h 127.0.0.1 -p "$port" -U zentrix -n -f "$work/writer.sql" -R "$writer_rate" -T 3600 \
            bench >/dev/null 2>&1 &
        pgbench_pid=$!
        sleep 2
        # shellcheck disable=SC2086
        read -r s _ < <(timed "$work/work" "$tool_of" $mode || true)
        kill "$pgbench_pid" 2>/dev/null || true
        wait "$pgbench_pid" 2>/dev/null || true
        left=$(bad_rows)
        echo "  writer, $mode, $which: $s s, rounds $(rounds_of "$offset"), repaired $(repaired_meanwhile "$offset"), left $left" >&2
        echo "| $mode | $which | $s | $(rounds_of "$offset") | $(repaired_meanwhile "$offset") | $left |" >>"$busy"
    done
done

stamp="$(date -u '+%Y-%m-%d %H:%M UTC'): $(nproc) cores ($cpu), the server of \`bench/run.sh\`"
{
    echo "<!-- coverage -->"
    echo "Measured by \`bench/coverage.sh\` on $stamp: $rows rows of about 1 KB, one in 5"
    echo "damaged. Quiet table: medians of two runs each, this tool against the one of \`$base_ref\` (before the"
    echo "rows written during the run were read again), taking turns. Beside the writer: pgbench updating a random row"
    echo "by key $writer_rate times a second all through the run; the damaged rows are counted by the server's jsonb cast"
    echo "after it."
    echo
    cat "$quiet"
    echo
    cat "$busy"
    echo "<!-- /coverage -->"
} >"$work/block"
write_block coverage "$work/block"
