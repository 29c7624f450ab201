#!/usr/bin/env bash
# Runs the tool's main job on a self-contained demo installation in ./demo (or $DEMO_DIR).
# Delete that folder to remove everything; running the demo again starts it afresh.
#
# The tool creates and manages its own PostgreSQL cluster there, as on a product
# installation: the first run creates the cluster (and stops it again), the demo then
# creates the product database with sample rows the way the product would, and the
# second run starts the server, repairs the rows and stops it.
#
# Then it puts the damaged texts back and shows the run to use in production: a dry run, the
# journaled and verified repair (--journal --verify), the journaled runs (--runs) and the undo
# of that run (--undo N), which must leave every row as it was before the repair.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

./scripts/install-deps.sh
./scripts/build.sh release >/dev/null

demo="${DEMO_DIR:-$top/demo}"
tool="$top/build/app/zentrix-data-normalizer"
dbinfo="$top/build/app/zentrix-dbinfo"
. scripts/sandbox-lib.sh

# A server left by an interrupted earlier demo is stopped before its folder goes.
if [ -f "$demo/data/pg_data/postmaster.pid" ]; then
    as_account "$pgbin/pg_ctl" stop -D "$demo/data/pg_data" -m fast >/dev/null 2>&1 || true
fi
rm -rf "$demo"
make_installation "$demo"
port=$(free_port 55432)
password="demo-$RANDOM$RANDOM"

section() { printf '\n== %s\n' "$*"; }
run_tool() {
    local status=0
    (cd "$demo/work" && "$tool" "$@") || status=$?
    echo "(exit status $status)"
}
# No pager: in a terminal narrower than the rows psql would stop at each table for a key.
sql() { PGPASSWORD="$password" psql -X -q -P pager=off -h 127.0.0.1 -p "$port" -U zentrix "$@"; }
start_server() { as_account "$pgbin/pg_ctl" start -D "$demo/data/pg_data" -w -l "$demo/data/pg_data/demo.log" -o "-p $port -k ''" >/dev/null; }
stop_server() { as_account "$pgbin/pg_ctl" stop -D "$demo/data/pg_data" -m fast >/dev/null; }

section "Provisioning the encrypted information file (zentrix-dbinfo)"
(cd "$demo/work" && "$dbinfo" set host=127.0.0.1 port="$port" user=zentrix password="$password" type=local)
chown "$account" "$demo/install/zentrix_postgres.dat" "$demo/install/zentrix_postgres.cat"

section "First run: creates the cluster, starts it, finds no product database yet, stops it"
echo "(--verbose says on standard error why it ends with status 1)"
run_tool --verbose
dbname=$(cd "$demo/work" && "$dbinfo" show | sed -n 's/.*"dbname": "\(.*\)".*/\1/p')
echo "Generated database name: $dbname"

section "Creating the product database with sample rows for three instances"
start_server
sql -d postgres -c "CREATE DATABASE $dbname"
sql -d "$dbname" -f "$top/tests/fixtures/product-schema.sql"
# The damaged texts are put back after the plain run, so they are written once for both.
samples=$(cat <<'SQL'
  (1, 10, '{"type":"PE32","name":"lone high \ud800 surrogate"}'),
  (1, 11, '{"type":"PE32","name":"lone low \udc00 surrogate"}'),
  (1, 12, '{"type":"ZIP","name":"valid pair \ud83d\ude00 stays"}'),
  (2, 10, '{"type":"PDF","name":"nul \u0000 escape"}'),
  (2, 11, '{"type":"PDF","name":"three backslashes \\\u0000"}'),
  (2, 12, '{"type":"ELF","name":"hex \x41 escape, upper \X42"}'),
  (3, 10, '{"type":"DOC","name":"upper-case \U0000 and \uD800"}'),
  (3, 11, '{"type":"TXT","name":"escaped backslash \\ stays"}'),
  (3, 3,  '{"type":"OLD","name":"request not after the instance id: left \ud800"}')
SQL
)
sql -d "$dbname" -c "INSERT INTO warehouse.control_refresh VALUES (1, 0), (2, 0), (3, 0)" \
    -c "INSERT INTO scan.file (instance_id, request_id, filetype_details) VALUES $samples"
checker="CREATE FUNCTION pg_temp.is_jsonb(t text) RETURNS boolean LANGUAGE plpgsql AS
  \$\$ BEGIN PERFORM t::jsonb; RETURN true; EXCEPTION WHEN others THEN RETURN false; END \$\$;"
show_rows() {
    sql -d "$dbname" -c "$checker" -c "SELECT id, instance_id, request_id,
        CASE WHEN pg_temp.is_jsonb(filetype_details) THEN 'ok' ELSE 'FAILS ::jsonb' END AS jsonb_cast,
        filetype_details FROM scan.file ORDER BY id"
}
section "Before: rows that fail a ::jsonb cast"
show_rows
stop_server

section "Dry run: counts what the repair would change, writes nothing"
run_tool --dry-run

section "Second run: starts the server, repairs the rows, stops the server"
run_tool

section "After"
start_server
show_rows
stop_server

# The rows' texts alone, to compare the rows before the journaled run with those after its undo.
texts() { sql -d "$dbname" -At -c "SELECT id, filetype_details FROM scan.file ORDER BY id"; }

section "The same damaged texts put back, for the run to use in production"
start_server
sql -d "$dbname" -c "UPDATE scan.file AS f SET filetype_details = s.details
    FROM (VALUES $samples) AS s (instance_id, request_id, details)
    WHERE f.instance_id = s.instance_id AND f.request_id = s.request_id"
show_rows
before_journal=$(texts)
stop_server

section "Dry run before the production run: counts only, writes nothing"
run_tool --dry-run

section "Production run (--journal --verify): journaled, so resumable and undoable, then verified by a jsonb cast"
run_tool --journal --verify

section "After the production run"
start_server
show_rows
stop_server

section "Journaled runs (--runs)"
listing=$(run_tool --runs)
echo "$listing"
# Each demo makes a fresh cluster, so this is always run 1; it is read from the listing anyway
# so that the undo names the run the listing shows.
run=$(sed -n 's/^Run \([0-9][0-9]*\): .*/\1/p' <<<"$listing" | tail -n 1)
if [ -z "$run" ]; then
    echo "demo: --runs listed no journaled run" >&2
    exit 1
fi

section "Undoing run $run (--undo $run): the texts it replaced put back"
run_tool --undo "$run"

section "After the undo: compared with the rows before the production run"
start_server
show_rows
after_undo=$(texts)
stop_server
if [ "$after_undo" = "$before_journal" ]; then
    echo "rows back as they were: yes"
else
    echo "rows back as they were: no (< before the production run, > after the undo)" >&2
    diff <(echo "$before_journal") <(echo "$after_undo") >&2 || true
    exit 1
fi

section "Run log ($(ls "$demo"/data/logs/*.log))"
cat "$demo"/data/logs/*.log

printf '\nThe demo installation is in %s; delete that folder to remove it.\n' "$demo"
