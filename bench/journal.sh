#!/usr/bin/env bash
# Measures what the journal costs and gives back, and writes its table into docs/benchmarks.md
# between its "journal" markers. Not part of the test run.
#
#   bench/journal.sh [ROWS]      default: 2000000, one row in EVERY damaged (default 5)
#
# --batched, --journal, --undo of that run, a --journal run killed halfway and the run that
# finishes it, --verify alone and --dry-run: time, the tool's peak memory, the longest statement,
# and the journal's size on disk per changed row.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

rows=${1:-2000000}
every=${EVERY:-5}

. bench/bench-lib.sh
start_bench_server
sql -d postgres -q -c "ALTER SYSTEM SET log_statement = 'all'" -c "SELECT pg_reload_conf()"
seed "$rows" 3 "$every"

# "measure ARGS...": one run from a checkpoint; prints "seconds peak-MB longest-statement-bytes".
measure() {
    local offset seconds kib longest
    sql -d bench -q -c "CHECKPOINT"
    offset=$(stat -c %s "$work/server.log")
    read -r seconds kib < <(timed "$work/work" "$tool" "$@" || true)
    longest=$(tail -c +"$((offset + 1))" "$work/server.log" | grep -a ' statement: ' |
        awk '{sub(/^.* statement: /, ""); if (length($0) > m) m = length($0)} END {print m + 0}')
    echo "$seconds $(awk -v k="$kib" 'BEGIN {printf "%.1f", k / 1024}') $longest"
}
drop_journal() { sql -d bench -q -c "DROP SCHEMA IF EXISTS zentrix_normalizer CASCADE"; }
table="$work/journal.md"
{
    echo "| run | seconds | of --batched | peak RSS MB | longest statement bytes |"
    echo "| --- | ---: | ---: | ---: | ---: |"
} >"$table"
row() { echo "| $1 | $2 | $(ratio "$2" "$batched") | $3 | $4 |" >>"$table"; echo "  $1: $2 s, $3 MB, $4 B" >&2; }

reset_data
read -r batched peak longest < <(measure --batched)
batched=${batched:-1}
row "--batched" "$batched" "$peak" "$longest"

reset_data
drop_journal
read -r journal peak longest < <(measure --journal)
row "--journal" "$journal" "$peak" "$longest"
changed=$(sql -d bench -At -c "SELECT count(*) FROM zentrix_normalizer.original")
bytes=$(sql -d bench -At -c "SELECT pg_total_relation_size('zentrix_normalizer.original')")
read -r seconds peak longest < <(measure --undo 1)
row "--undo 1" "$seconds" "$peak" "$longest"
[ "$(bad_rows)" -eq "$(sql -d bench -At -c "SELECT count(*) FROM pristine WHERE filetype_details LIKE '%\\\\ud800%' OR filetype_details LIKE '%\\\\u0000%'")" ] ||
    echo "  (the undo did not bring back every damaged row)" >&2

# Killed once half the rows to change are repaired; the next run resumes it.
reset_data
drop_journal
half=$((changed / 2))
sql -d bench -q -c "CHECKPOINT"
(cd "$work/work" && exec "$tool" --journal >/dev/null 2>&1) &
pid=$!
until [ "$(sql -d bench -At -c "SELECT count(*) FROM zentrix_normalizer.original" 2>/dev/null || echo 0)" -ge "$half" ]; do
    sleep 0.2
done
kill -9 "$pid"
wait "$pid" 2>/dev/null || true
read -r seconds peak longest < <(measure --journal)
row "--journal after one killed halfway ($(ratio "$seconds" "$journal") of a whole --journal)" "$seconds" "$peak" "$longest"
[ "$(bad_rows)" -eq 0 ] || { echo "the resumed run left bad rows" >&2; exit 1; }

read -r seconds peak longest < <(measure --verify)
row "--verify alone" "$seconds" "$peak" "$longest"
read -r seconds peak longest < <(measure --dry-run)
row "--dry-run" "$seconds" "$peak" "$longest"

{
    echo "<!-- journal -->"
    echo "Measured by \`bench/journal.sh\` on $(date -u '+%Y-%m-%d %H:%M UTC'): $(nproc) cores ($cpu), the server"
    echo "of \`bench/run.sh\`, $rows rows of about 1 KB over 3 instances, one in $every damaged, one run each from a"
    echo "checkpoint. The journal of one run held $changed original texts in $((bytes / 1048576)) MB on disk,"
    echo "$((bytes / (changed > 0 ? changed : 1))) bytes per changed row (the text again, its key, its digest)."
    echo
    cat "$table"
    echo "<!-- /journal -->"
} >"$work/block"
write_block journal "$work/block"
