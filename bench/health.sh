#!/usr/bin/env bash
# Measures how closely --batched --jobs 2 keeps to the limits that spare the product's server, and
# what sparing it costs; writes its tables into docs/benchmarks.md between its "health" markers.
# The tests do not run it.
#
#   bench/health.sh [MEASUREMENT...]  default: wal archive lag pace checks scale
#
# The server of bench/bench-lib.sh with archive_mode on, an archive_command that copies a 16 MB
# segment after ARCHIVE_SLEEP seconds (default 0.5: about 32 MB/s), and a hot standby made by
# pg_basebackup, streaming from it on the same machine through a replication slot (a restart of the
# primary with a small max_wal_size must not take WAL from a standby reconnecting). ROWS rows of
# about 1.1 KB (default 1000000), one in 5 damaged. Every run starts from a checkpoint, with nothing
# waiting for the archiver, the standby caught up and its pages written, and nothing left for the
# kernel to write back; while the table is reset between runs the archiver copies nothing, so that
# the reset's own WAL does not hold up the next run.
#
#   wal      WAL per changed row, with the tool's wal_compression and with the tool of BASE (a git
#            commit, default c9f4029, which compressed nothing and checked nothing), taking turns
#   archive  the archive backlog (.ready files times 16 MB, and the WAL not yet archived) and pg_wal's size, sampled every 0.5 s,
#            without a backlog limit and with --max-archive-backlog BACKLOG_MB (default 64), on the
#            product's WAL settings (max_wal_size 1GB, min_wal_size 80MB), so that pg_wal shrinks
#            back at checkpoints as far as the archiver lets it
#   lag      the standby's replay paused PAUSE_AT seconds into the run (default 5) for PAUSE_FOR
#            seconds (default 20), with --max-lag LAG (default 2): the WAL the run wrote after the
#            standby's lag passed the limit, and when the run went on against when the standby had
#            caught up, sampled every 0.2 s
#   pace     the writer's 99th percentile (pgbench updating a random row by key WRITER_RATE times a
#            second, default 200) alone for IDLE_SECONDS (default 20), then beside the run at each of
#            PACES (default "100 50 25 10"), PACE_REPEATS times (default 3)
#   checks   the run with its checks on (their defaults, none reached) against --max-lag off
#            --max-archive-backlog off, REPEATS runs each (default 3), taking turns
#   scale    time per row and peak memory at each of SCALE_ROWS (default "2000000 20000000"; the
#            first size is run again after the others), on the server alone: the standby gone and
#            archive_mode off. A size whose rows would not fit on the disk is halved until they do.
#
# Each measurement keeps its table in build-bench/health/, so that they can be run one at a time; the
# block written holds every one measured so far.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

rows=${ROWS:-1000000}
base_ref=${BASE:-c9f4029}
archive_sleep=${ARCHIVE_SLEEP:-0.5}
backlog_mb=${BACKLOG_MB:-64}
pause_at=${PAUSE_AT:-5}
pause_for=${PAUSE_FOR:-20}
lag_limit=${LAG:-2}
writer_rate=${WRITER_RATE:-200}
paces=${PACES:-100 50 25 10}
repeats=${REPEATS:-3}
pace_repeats=${PACE_REPEATS:-3}
idle_seconds=${IDLE_SECONDS:-20}
scale_rows=${SCALE_ROWS:-2000000 20000000}
measurements=${*:-wal archive lag pace checks scale}
for measurement in $measurements; do
    case $measurement in
    wal | archive | lag | pace | checks | scale) ;;
    *)
        echo "$(basename "$0"): no measurement \"$measurement\"; they are wal archive lag pace checks scale" >&2
        exit 2
        ;;
    esac
done

. bench/bench-lib.sh
results="$top/build-bench/health"
mkdir -p "$results"
segment=$((16 * 1024 * 1024))
mb() { awk -v b="$1" 'BEGIN {printf "%.1f", b / 1048576}'; }
now() { date +%s.%N; }
# The 1-minute load average, noted with each figure: the machine is shared.
load() { cut -d' ' -f1 /proc/loadavg; }
stamp() { echo "$(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores ($cpu)"; }

# As start_bench_server starts the server, for a restart with other settings after them.
primary_options="-p $port -k '' -c max_wal_size=16GB -c min_wal_size=4GB -c checkpoint_timeout=1h -c autovacuum=off \
    -c log_min_duration_statement=1000 -c log_line_prefix='%a '"
restart_primary() {
    as_account "$pgbin/pg_ctl" restart -D "$work/server" -m fast -w -l "$work/server.log" \
        -o "$primary_options $*" >/dev/null
}
standby=
sql_standby() { psql -X -q -v ON_ERROR_STOP=1 -h 127.0.0.1 -p "$standby_port" -U zentrix "$@"; }
stop_standby() {
    [ -z "$standby" ] || as_account "$pgbin/pg_ctl" stop -D "$standby" -m immediate >/dev/null 2>&1 || true
}
trap '[ -n "${KEEP_WORK:-}" ] || { stop_standby; cleanup; }' EXIT

start_health_servers() {
    start_bench_server
    mkdir -p "$work/archive"
    chown "$account" "$work/archive"
    touch "$work/archive-setup"
    sql -d postgres -c "ALTER SYSTEM SET archive_mode = on" \
        -c "ALTER SYSTEM SET archive_command = 'test -f $work/archive-setup || { sleep $archive_sleep && cp %p $work/archive/%f; }'"
    restart_primary
    standby="$work/standby"
    standby_port=$(free_port $((port + 1)))
    as_account "$pgbin/pg_basebackup" -d "host=127.0.0.1 port=$port user=zentrix" -D "$standby" \
        -R -X stream -c fast -C -S standby >/dev/null
    as_account "$pgbin/pg_ctl" start -D "$standby" -w -l "$work/standby.log" \
        -o "-p $standby_port -k '' -c max_wal_size=16GB -c min_wal_size=4GB -c checkpoint_timeout=1h" >/dev/null
}

ready_files() { ls "$work/server/pg_wal/archive_status" | grep -c '\.ready$' || true; }
wal_files() { ls "$work/server/pg_wal" | grep -cE '^[0-9A-F]{24}$' || true; }
# Nothing waiting for the archiver, the standby caught up, the copies gone; then the archiver
# copies at its measured speed again.
settle() {
    touch "$work/archive-setup"
    sql -d postgres -q -c "SELECT pg_switch_wal()" >/dev/null
    local waited=0
    while [ "$(ready_files)" -gt 0 ]; do sleep 0.5; done
    if [ -n "$standby" ]; then
        local position
        position=$(sql -d postgres -At -c "SELECT pg_current_wal_lsn()")
        until [ "$(sql_standby -d postgres -At -c "SELECT pg_last_wal_replay_lsn() >= '$position'")" = t ]; do
            sleep 0.5
            waited=$((waited + 1))
            if [ "$waited" -gt 1200 ]; then
                echo "the standby did not catch up in 10 minutes; see $work/standby.log" >&2
                exit 1
            fi
        done
    fi
    rm -f "$work/archive"/*
    rm -f "$work/archive-setup"
}
# The reset's pages that the standby replayed, and any the kernel still holds, are written out
# before the run: left dirty, the kernel writes them back some 30 s later, in the middle of it.
prepare_run() {
    reset_data >/dev/null
    settle
    [ -z "$standby" ] || sql_standby -d postgres -q -c "CHECKPOINT"
    sync
}

run_log() { ls -t "$work"/data/logs/data_normalizer-*.log 2>/dev/null | head -n 1 || true; }
# "run_tool NAME PROGRAM ARGS...": one run; the run log lines it wrote go to $work/NAME.log. Prints
# "seconds peak-KiB WAL-bytes load".
run_tool() {
    local name=$1 log offset=0 lsn seconds kib before
    shift
    log=$(run_log)
    [ -z "$log" ] || offset=$(stat -c %s "$log")
    before=$(load)
    lsn=$(sql -d postgres -At -c "SELECT pg_current_wal_lsn()")
    read -r seconds kib < <(timed "$work/work" "$@")
    local wal
    wal=$(sql -d postgres -At -c "SELECT pg_current_wal_lsn() - '$lsn'")
    tail -c +"$((offset + 1))" "$(run_log)" >"$work/$name.log"
    echo "$seconds $kib $wal $before"
}
# What a run's --verbose lines say: "units rows-changed".
units_of() {
    { grep -aoE ': [0-9]+\.[0-9]{3} s, rows changed: [0-9]+' "$work/$1.log" || true; } |
        awk '{n++; c += $NF} END {printf "%d %d\n", n, c}'
}
# The pause lines of a run: "end-epoch start-HH:MM:SS end-HH:MM:SS cause", the end from the line's
# own time stamp (milliseconds), the start as the line gives it (whole seconds).
pauses_of() {
    { grep -a 'Paused .*, from [0-9:]* to [0-9:]*: ' "$work/$1.log" || true; } | while read -r line; do
        local when start end cause
        when=$(grep -oE '^[^0-9]*[0-9]{4}\.[0-9]{2}\.[0-9]{2} [0-9:]{8}\.[0-9]{3}' <<<"$line" | grep -oE '[0-9].*')
        start=$(sed -E 's/.*, from ([0-9:]{8}) to .*/\1/' <<<"$line")
        end=$(sed -E 's/.*, from [0-9:]{8} to ([0-9:]{8}): .*/\1/' <<<"$line")
        cause=$(sed -E 's/.*, from [0-9:]{8} to [0-9:]{8}: //' <<<"$line")
        echo "$(date -d "$(tr . - <<<"${when% *}") ${when#* }" +%s.%N) $start $end $cause"
    done
}
epoch_of_clock() { date -d "$(date -d "@${2%.*}" +%F) $1" +%s; }
verdict() { if awk "BEGIN {exit !($1)}"; then echo met; else echo missed; fi; }

# The tool of BASE, built once beside this one and kept in build-bench-base/.
base_tool() {
    local dir="$top/build-bench-base" commit
    commit=$(git rev-parse "$base_ref^{commit}")
    if [ "$(cat "$dir/commit" 2>/dev/null)" != "$commit" ]; then
        rm -rf "$dir"
        mkdir -p "$dir/src"
        git archive "$commit" | tar -x -C "$dir/src"
        nice cmake -S "$dir/src" -B "$dir/build" -DCMAKE_BUILD_TYPE=Release -DZENTRIX_BUILD_TESTS=OFF >/dev/null
        nice cmake --build "$dir/build" -j "$(nproc)" --target zentrix-data-normalizer -- --no-print-directory >/dev/null
        echo "$commit" >"$dir/commit"
    fi
    echo "$dir/build/app/zentrix-data-normalizer"
}

batched=(--batched --jobs 2 --verbose)

measure_wal() {
    local base program which seconds kib wal before units changed method bad
    base=$(base_tool)
    : >"$work/wal.results"
    for which in this base base this; do
        program=$tool
        [ "$which" = base ] && program=$base
        prepare_run
        read -r seconds kib wal before < <(run_tool "wal-$which" "$program" "${batched[@]}")
        read -r units changed < <(units_of "wal-$which")
        method=$(grep -aoE -m 1 'wal_compression = [a-z0-9]+' "$work/wal-$which.log" | sed 's/.*= //' || true)
        bad=$(bad_rows)
        echo "  wal $which: $seconds s, WAL $(mb "$wal") MB, $changed rows changed, ${method:-none}, $bad left, load $before" >&2
        echo "$which ${method:-none} $seconds $wal $changed $units $bad $before" >>"$work/wal.results"
    done
    {
        echo "**WAL per changed row** ($(stamp), $rows rows, one in 5 damaged): \`--batched --jobs 2\`"
        echo "of this tree, which sets wal_compression on its sessions, against the tool of \`$base_ref\`, which"
        echo "did not; each run from a checkpoint, so every page it changes goes into the WAL whole once."
        echo
        echo "| tool | wal_compression | seconds | WAL MB | rows changed | units | WAL bytes per changed row | damaged rows after | load before |"
        echo "| --- | --- | ---: | ---: | ---: | ---: | ---: | ---: | ---: |"
        awk '{printf "| %s | %s | %s | %.1f | %d | %d | %d | %d | %s |\n", ($1 == "base" ? "'"$base_ref"'" : "this"), $2, $3,
            $4 / 1048576, $5, $6, $4 / $5, $7, $8}' "$work/wal.results"
        awk '{w[$1] += $4 / $5; n[$1]++} END {r = (w["this"] / n["this"]) / (w["base"] / n["base"]);
            printf "\nWith compression %.3f of the WAL per changed row without it (means of two runs each); target at most 1/3: %s.\n",
            r, (r <= 1 / 3 ? "met" : "missed")}' "$work/wal.results"
    } >"$results/wal.md"
}

# Every 0.5 s: "epoch .ready-files pg_wal-segments"; the WAL not yet archived comes from the server.
sample_archive() {
    while :; do
        echo "$(now) $(ready_files) $(wal_files)"
        sleep 0.5
    done
}
start_unarchived_sampler() {
    psql -X -At -F ' ' -h 127.0.0.1 -p "$port" -U zentrix -d postgres >"$1" 2>/dev/null <<'SQL' &
SELECT extract(epoch FROM clock_timestamp()), pg_current_wal_lsn() - '0/0' - coalesce(
    ('x' || substr(last_archived_wal, 9, 8))::bit(32)::bigint * 4294967296
    + (('x' || substr(last_archived_wal, 17, 8))::bit(32)::bigint + 1)
      * (SELECT setting::bigint FROM pg_settings WHERE name = 'wal_segment_size'), 0)
FROM pg_stat_archiver
\watch 0.5
SQL
    echo $!
}

measure_archive() {
    local limit seconds kib wal before units changed sampler unarchived peak_ready peak_files first_files peak_bytes pauses paused
    restart_primary "-c max_wal_size=1GB -c min_wal_size=80MB"
    : >"$work/archive.results"
    for limit in off "$backlog_mb"; do
        prepare_run
        sample_archive >"$work/archive-$limit.samples" &
        sampler=$!
        unarchived=$(start_unarchived_sampler "$work/unarchived-$limit.samples")
        read -r seconds kib wal before < <(run_tool "archive-$limit" "$tool" "${batched[@]}" --max-lag off \
            --max-archive-backlog "$limit")
        sleep 1
        kill "$sampler" "$unarchived"
        wait "$sampler" "$unarchived" 2>/dev/null || true
        read -r units changed < <(units_of "archive-$limit")
        read -r peak_ready peak_files first_files < <(awk 'NR == 1 {s = $3} $2 > r {r = $2} $3 > f {f = $3}
            END {print r + 0, f + 0, s + 0}' "$work/archive-$limit.samples")
        peak_bytes=$(awk '$2 > m {m = $2} END {print m + 0}' "$work/unarchived-$limit.samples")
        pauses=$(pauses_of "archive-$limit" | wc -l)
        paused=$(grep -aoE 'Paused .* in all' "$work/archive-$limit.log" | sed 's/Paused //; s/ in all//' || true)
        echo "  archive, limit $limit: $seconds s, WAL $(mb "$wal") MB, peak $((peak_ready * 16)) MB ready," \
            "pg_wal $((peak_files * 16)) MB, $pauses pauses, load $before" >&2
        echo "$limit $seconds $wal $units $peak_ready $peak_files $peak_bytes $first_files $pauses ${paused:--} $before" \
            >>"$work/archive.results"
    done
    settle
    restart_primary
    {
        echo "**The archiver at 32 MB/s** ($(stamp), $rows rows, one in 5 damaged): \`--batched --jobs 2"
        echo "--max-lag off\` without a backlog limit and with \`--max-archive-backlog $backlog_mb\`; archive_command"
        echo "\`sleep $archive_sleep && cp\` per 16 MB segment; the server on the product's WAL settings (max_wal_size 1GB,"
        echo "min_wal_size 80MB). The backlog is the .ready files times 16 MB, and the WAL not yet archived the server's"
        echo "position past the end of the last segment archived (what the tool counts: the .ready files and the segment"
        echo "being filled); both, and pg_wal's segments, are sampled every 0.5 s. A unit's WAL is the run's WAL over its"
        echo "units (mean)."
        echo
        echo "| --max-archive-backlog | seconds | WAL MB | units | a unit's WAL MB | peak backlog MB | peak WAL not yet archived MB | pg_wal MB at the start | peak pg_wal MB | pauses | paused in all | load before |"
        echo "| --- | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: | --- | ---: |"
        awk '{paused = $10; for (i = 11; i < NF; i++) paused = paused " " $i;
            printf "| %s | %s | %.1f | %d | %.1f | %d | %.1f | %d | %d | %d | %s | %s |\n", $1, $2, $3 / 1048576, $4,
            $3 / $4 / 1048576, $5 * 16, $7 / 1048576, $8 * 16, $6 * 16, $9, paused, $NF}' "$work/archive.results"
        awk -v limit="$backlog_mb" '$1 == limit {peak = $7 / 1048576; unit = $3 / $4 / 1048576; over = peak - limit;
            printf "\nWith the limit the WAL not yet archived peaked %.1f MB %s it, against a unit'"'"'s %.1f MB of WAL; target at most one unit over: %s.%s\n",
            (over < 0 ? -over : over), (over < 0 ? "below" : "above"), unit, (over <= unit ? "met" : "missed"),
            ($9 == 0 ? " The limit was never reached." : "")}' \
            "$work/archive.results"
    } >"$results/archive.md"
}

# A psql that prints QUERY's row every 0.2 s into FILE until killed; prints its process id.
start_watch() {
    local file=$1 where=$2 query=$3
    printf '%s\n\\watch 0.2\n' "$query" |
        psql -X -At -F ' ' -h 127.0.0.1 -p "$where" -U zentrix -d postgres >"$file" 2>/dev/null &
    echo $!
}

measure_lag() {
    local primary_watch standby_watch started t_pause t_resume seconds kib wal before units changed
    prepare_run
    primary_watch=$(start_watch "$work/primary.samples" "$port" "SELECT extract(epoch FROM clock_timestamp()),
        pg_current_wal_lsn() - '0/0', coalesce((SELECT max(replay_lsn - '0/0') FROM pg_stat_replication), -1)")
    standby_watch=$(start_watch "$work/standby.samples" "$standby_port" "SELECT extract(epoch FROM clock_timestamp()),
        pg_last_wal_replay_lsn() - '0/0'")
    sleep 1
    started=$(now)
    run_tool lag "$tool" "${batched[@]}" --max-lag "$lag_limit" >"$work/lag.result" &
    local run=$!
    sleep "$pause_at"
    t_pause=$(now)
    sql_standby -d postgres -At -c "SELECT pg_wal_replay_pause()" >/dev/null
    sleep "$pause_for"
    t_resume=$(now)
    sql_standby -d postgres -At -c "SELECT pg_wal_replay_resume()" >/dev/null
    wait "$run"
    sleep 1
    kill "$primary_watch" "$standby_watch"
    wait "$primary_watch" "$standby_watch" 2>/dev/null || true
    read -r seconds kib wal before <"$work/lag.result"
    read -r units changed < <(units_of lag)
    pauses_of lag >"$work/lag.pauses"
    echo "  lag: $seconds s, WAL $(mb "$wal") MB, $units units, load $before; pauses:" >&2
    sed 's/^/    /' "$work/lag.pauses" >&2
    # The pause that held when replay resumed: its start (whole seconds) and end (its line's stamp).
    local pause_end pause_start cause
    read -r pause_end pause_start _ cause < <(awk -v r="$t_resume" '$1 >= r' "$work/lag.pauses" | head -n 1) || true
    [ -z "${pause_start:-}" ] || pause_start=$(epoch_of_clock "$pause_start" "$t_resume")
    # The standby's lag at each of its samples: how long ago the primary wrote the first byte it has
    # not replayed (the first primary sample past its position). From it: when the lag passed the
    # limit, the WAL written from then until replay resumed (the run paused by then), when the standby
    # had replayed all of that, when the primary saw it (what the tool reads), when the run wrote again.
    awk -v tp="$t_pause" -v tr="$t_resume" -v limit="$lag_limit" '
        FNR == NR { pt[++np] = $1; pw[np] = $2; pr[np] = $3; next }
        { st[++ns] = $1; sr[ns] = $2 }
        function written(t,   j, w) { w = pw[1]; for (j = 1; j <= np && pt[j] <= t; j++) w = pw[j]; return w }
        END {
            th = -1
            for (i = 1; i <= ns && th < 0; i++) {
                if (st[i] < tp - 1 || st[i] > tr) continue
                for (j = 1; j <= np && pw[j] <= sr[i]; j++) ;
                if (j <= np && pt[j] <= st[i] && st[i] - pt[j] > limit) th = st[i]
            }
            plateau = written(tr)
            after = (th < 0) ? -1 : plateau - written(th)
            cu = -1; for (i = 1; i <= ns; i++) if (st[i] > tr && sr[i] >= plateau) { cu = st[i]; break }
            seen = -1; for (j = 1; j <= np; j++) if (pt[j] > tr && pr[j] >= plateau) { seen = pt[j]; break }
            again = -1; for (j = 1; j <= np; j++) if (pt[j] > tr && pw[j] > plateau + 1048576) { again = pt[j]; break }
            printf "%.3f %d %.3f %.3f %.3f\n", th, after, cu, seen, again
        }' "$work/primary.samples" "$work/standby.samples" >"$work/lag.analysis"
    local th after cu seen again
    read -r th after cu seen again <"$work/lag.analysis"
    local rel
    rel() { awk -v t="$1" -v s="$started" 'BEGIN {if (t < 0) print "-"; else printf "%.1f", t - s}'; }
    local unit_mb
    unit_mb=$(awk -v w="$wal" -v u="$units" 'BEGIN {printf "%.1f", w / u / 1048576}')
    echo "  lag: passed the limit at $(rel "$th") s, WAL after $(mb "$after") MB; pause $(rel "${pause_start:--1}")" \
        "to $(rel "${pause_end:--1}") s; caught up $(rel "$cu") s, seen $(rel "$seen") s, writing again $(rel "$again") s" >&2
    {
        echo "**A standby that stops replaying** ($(stamp), $rows rows, one in 5 damaged): \`--batched --jobs 2"
        echo "--max-lag $lag_limit\`; the standby's replay paused (\`pg_wal_replay_pause()\`) $pause_at s into the run and"
        echo "resumed $pause_for s later. Times in seconds from the run's start. The standby's lag is how long ago the"
        echo "primary wrote the first byte it has not replayed; the primary's position and the standby's replay position"
        echo "are sampled every 0.2 s (the latter on the standby itself; \"the primary saw it\" is pg_stat_replication's"
        echo "replay_lsn, which is what the tool reads). The pause's end is its run log line's time stamp. Run: $seconds s,"
        echo "$(mb "$wal") MB of WAL in $units units ($unit_mb MB each, mean); load before $before."
        echo
        echo "| replay paused | lag passed $lag_limit s | run paused (log, whole s) | replay resumed | standby caught up | the primary saw it | run's pause ended (log) | run wrote again |"
        echo "| ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: |"
        echo "| $(rel "$t_pause") | $(rel "$th") | $(rel "${pause_start:--1}") | $(rel "$t_resume") | $(rel "$cu") | $(rel "$seen") | $(rel "${pause_end:--1}") | $(rel "$again") |"
        echo
        if [ "$after" -ge 0 ]; then
            awk -v a="$after" -v w="$wal" -v u="$units" 'BEGIN {a /= 1048576; unit = w / u / 1048576;
                printf "WAL written after the lag passed the limit: %.1f MB, against one unit per connection %.1f MB; target: %s.\n",
                a, 2 * unit, (a <= 2 * unit ? "met" : "missed")}'
        else
            echo "The standby's lag never passed the limit while replay was paused."
        fi
        if [ -n "${pause_end:-}" ] && [ "$cu" != -1.000 ]; then
            awk -v e="$pause_end" -v c="$cu" 'BEGIN {d = e - c;
                printf "From the standby having caught up to the run'"'"'s pause ending: %.1f s; target at most 2 s: %s.\n",
                d, (d <= 2 ? "met" : "missed")}'
        else
            echo "The run's pause did not end after replay resumed, or the standby did not catch up: target missed."
        fi
        echo
        echo "Pauses in the run log:"
        echo
        sed -E 's/^[0-9.]+ ([0-9:]+) ([0-9:]+) (.*)/- from \1 to \2: \3/' "$work/lag.pauses" | grep . || echo "- none"
    } >"$results/lag.md"
}

# "beside_writer NAME ARGS...": the writer alone for IDLE_SECONDS, then beside the tool running with
# ARGS until it ends; prints "idle-p99-ms p99-ms longest-ms tool-seconds load". Both parts from one
# reset of the table, so that the run is held against the server in the state it met.
beside_writer() {
    local name=$1 started tool_seconds before
    shift
    rm -f "$work"/pgbench_log.*
    before=$(load)
    (cd "$work" && exec "$pgbin/pgbench" -h 127.0.0.1 -p "$port" -U zentrix -n -f "$work/writer.sql" \
        -R "$writer_rate" -T 3600 -l --log-prefix="$work/pgbench_log" bench >/dev/null 2>&1) &
    local pgbench_pid=$!
    sleep "$idle_seconds"
    started=$(now)
    run_tool "$name" "$@" >/dev/null || true
    tool_seconds=$(awk -v a="$started" -v b="$(now)" 'BEGIN {printf "%.1f", b - a}')
    kill "$pgbench_pid" 2>/dev/null || true
    wait "$pgbench_pid" 2>/dev/null || true
    # The log's third field is each transaction's latency in microseconds, from its scheduled
    # start; the fifth and sixth its end. The idle part leaves out the first second (connecting).
    local idle p99
    idle=$(awk -v a="$started" '$5 + $6 / 1e6 < a {print $3 / 1000}' "$work"/pgbench_log.* | tail -n +"$writer_rate" |
        sort -g | awk '{v[NR] = $1} END {i = int(NR * 0.99); if (i < 1) i = 1; printf "%.1f", v[i]}')
    p99=$(awk -v a="$started" '$5 + $6 / 1e6 >= a {print $3 / 1000}' "$work"/pgbench_log.* | sort -g |
        awk '{v[NR] = $1} END {i = int(NR * 0.99); if (i < 1) i = 1; printf "%.1f %.1f", v[i], v[NR]}')
    echo "$idle $p99 $tool_seconds $before"
}

measure_pace() {
    local p99 longest seconds before idle pace pauses unit repeat
    cat >"$work/writer.sql" <<SQL
\set id random(1, $rows)
UPDATE scan.file SET request_id = request_id WHERE id = :id;
SQL
    : >"$work/pace.results"
    for ((repeat = 1; repeat <= pace_repeats; repeat++)); do
        for pace in $paces; do
            prepare_run
            read -r idle p99 longest seconds before < <(beside_writer "pace-$pace" "$tool" "${batched[@]}" --pace "$pace")
            pauses=$(pauses_of "pace-$pace" | wc -l)
            unit=$({ grep -aoE ': [0-9]+\.[0-9]{3} s, rows changed' "$work/pace-$pace.log" || true; } |
                awk '{if ($2 > m) m = $2} END {printf "%.3f", m}')
            echo "  pace $pace: $seconds s, idle $idle ms, p99 $p99 ms, longest $longest ms, longest unit $unit s, $pauses pauses, load $before" >&2
            echo "$pace $seconds $idle $p99 $longest $pauses $before $unit" >>"$work/pace.results"
        done
    done
    # Per pace, in the order measured: medians of the run's time, the idle and beside-the-run
    # p99 and their ratio; the longest of the longest waits and units, the pauses in all.
    local summary=$work/pace.summary
    : >"$summary"
    for pace in $paces; do
        awk -v p="$pace" '$1 == p' "$work/pace.results" >"$work/pace.one"
        echo "$pace $(awk '{print $2}' "$work/pace.one" | median) $(awk '{print $3}' "$work/pace.one" | median)" \
            "$(awk '{print $4}' "$work/pace.one" | median) $(awk '{print $4 / $3}' "$work/pace.one" | median)" \
            "$(awk '{if ($5 > m) m = $5} END {print m}' "$work/pace.one")" \
            "$(awk '{if ($8 > m) m = $8} END {print m}' "$work/pace.one")" \
            "$(awk '{n += $6} END {print n}' "$work/pace.one")" \
            "$(awk '{printf "%s%s", (NR > 1 ? "/" : ""), $4} END {print ""}' "$work/pace.one")" >>"$summary"
    done
    {
        echo "**The product's writer beside the run** ($(stamp), $rows rows, one in 5 damaged): pgbench"
        echo "updating a random row by key $writer_rate times a second (latency from each transaction's scheduled"
        echo "start), alone for ${idle_seconds} s and then during \`--batched --jobs 2 --pace P\`, the checks at their defaults,"
        echo "$pace_repeats times at each pace, each from its own reset of the table; medians of the runs, each run's p99"
        echo "held against the idle p99 of its own reset. The longest unit is from the run's --verbose lines."
        echo
        echo "| --pace | run seconds | of --pace 100 | idle p99 ms | writer p99 ms (each run) | of idle | writer longest ms | longest unit s | run's pauses |"
        echo "| ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: |"
        awk 'NR == 1 {full = $2} {printf "| %s | %s | %.2f | %s | %s (%s) | %.1f | %s | %s | %s |\n", $1, $2,
            $2 / full, $3, $4, $9, $5, $6, $7, $8}' "$summary"
        echo
        awk 'NR == 1 {full = $2} $5 <= 3 && !found {found = 1; pace = $1; cost = $2 / full}
            END {if (found) printf "The writer'"'"'s p99 is at most 3 times idle (medians) from --pace %s down; the run then takes %.2f times as long as at --pace 100.\n", pace, cost;
                else print "At none of these paces is the writer'"'"'s p99 at most 3 times idle (medians)."}' "$summary"
        echo
        echo "Load before each run: $(awk '{printf "%s%s", (NR > 1 ? ", " : ""), $7} END {print ""}' "$work/pace.results")."
    } >"$results/pace.md"
}

measure_checks() {
    local which seconds kib wal before pauses
    : >"$work/checks.results"
    local order=()
    for ((i = 0; i < repeats; i++)); do
        if ((i % 2 == 0)); then order+=(on off); else order+=(off on); fi
    done
    for which in "${order[@]}"; do
        prepare_run
        if [ "$which" = on ]; then
            read -r seconds kib wal before < <(run_tool "checks-$which" "$tool" "${batched[@]}")
        else
            read -r seconds kib wal before < <(run_tool "checks-$which" "$tool" "${batched[@]}" --max-lag off \
                --max-archive-backlog off)
        fi
        pauses=$(pauses_of "checks-$which" | wc -l)
        echo "  checks $which: $seconds s, $pauses pauses, load $before" >&2
        echo "$which $seconds $pauses $before" >>"$work/checks.results"
    done
    local on off
    on=$(awk '$1 == "on" {print $2}' "$work/checks.results" | median)
    off=$(awk '$1 == "off" {print $2}' "$work/checks.results" | median)
    {
        echo "**What the checks cost** ($(stamp), $rows rows, one in 5 damaged): \`--batched --jobs 2\` with"
        echo "the checks at their defaults (--max-lag 10, --max-archive-backlog 1024; none reached) against \`--max-lag off"
        echo "--max-archive-backlog off\`, $repeats runs each, taking turns; the archiver at 32 MB/s and the standby streaming."
        echo
        echo "| run | checks | seconds | pauses | load before |"
        echo "| ---: | --- | ---: | ---: | ---: |"
        awk '{printf "| %d | %s | %s | %s | %s |\n", NR, $1, $2, $3, $4}' "$work/checks.results"
        echo
        echo "Medians: on $on s, off $off s, on / off $(ratio "$on" "$off"); target at most 1.05: $(verdict "$on / $off <= 1.05")."
    } >"$results/checks.md"
}

# The disk the server's folder is on, in KiB free.
free_kib() { df -Pk "$work" | awk 'NR == 2 {print $4}'; }
measure_scale() {
    if [ -n "$standby" ]; then
        stop_standby
        rm -rf "$standby"
        standby=
        touch "$work/archive-setup"
        sql -d postgres -q -c "SELECT FROM pg_drop_replication_slot('standby')" -c "ALTER SYSTEM RESET archive_mode" \
            -c "ALTER SYSTEM RESET archive_command" >/dev/null
        restart_primary
        rm -f "$work/archive-setup"
    elif [ ! -d "$work/server" ]; then
        start_bench_server
    fi
    # One copy of the rows only: seed's rows go straight into scan.file.
    sql -d bench -q -c "TRUNCATE pristine" \
        -c "CREATE RULE into_file AS ON INSERT TO pristine DO INSTEAD INSERT INTO scan.file VALUES (NEW.*)"
    local sizes=() n need first
    for n in $scale_rows; do
        # The table with a fifth of its rows written again, its index, and max_wal_size of WAL.
        need=$((n * 17 / 10 + 17 * 1024 * 1024))
        while [ "$need" -gt "$(free_kib)" ] && [ "$n" -gt 1000 ]; do
            echo "  $n rows need about $((need / 1048576)) GB, $(($(free_kib) / 1048576)) GB free: halved" >&2
            n=$((n / 2))
            need=$((n * 17 / 10 + 17 * 1024 * 1024))
        done
        sizes+=("$n")
    done
    first=${sizes[0]}
    [ "${#sizes[@]}" -lt 2 ] || sizes+=("$first")
    : >"$work/scale.results"
    local seconds kib wal before seeded
    for n in "${sizes[@]}"; do
        seeded=$(now)
        sql -d bench -q -c "TRUNCATE scan.file"
        seed "$n" 3 5 >/dev/null
        sql -d bench -q -c "VACUUM ANALYZE scan.file" -c "CHECKPOINT"
        echo "  $n rows seeded in $(awk -v a="$seeded" -v b="$(now)" 'BEGIN {printf "%.0f", b - a}') s" >&2
        read -r seconds kib wal before < <(run_tool "scale-$n" "$tool" "${batched[@]}")
        echo "  scale $n: $seconds s, $kib KiB, load $before" >&2
        echo "$n $seconds $kib $before" >>"$work/scale.results"
    done
    sql -d bench -q -c "DROP RULE into_file ON pristine" -c "TRUNCATE scan.file"
    {
        echo "**Time per row and memory by size** ($(stamp)): \`--batched --jobs 2\` on the server alone (no"
        echo "standby, archive_mode off), one in 5 rows damaged, each size seeded afresh, vacuumed and checkpointed; the"
        echo "first size run again after the others. Peak RSS is /usr/bin/time's maximum resident size."
        echo
        echo "| rows | seconds | µs per row | peak RSS KiB | load before |"
        echo "| ---: | ---: | ---: | ---: | ---: |"
        awk '{printf "| %d | %s | %.2f | %d | %s |\n", $1, $2, $2 / $1 * 1e6, $3, $4}' "$work/scale.results"
        echo
        awk -v small="$first" '$1 == small {s += $2 / $1; k = (k > $3 ? k : $3); n++; next}
            {b = $2 / $1; bk = $3; big = $1}
            END {if (!big) exit; s /= n; r = b / s; m = bk / k;
                printf "%d rows against %d: time per row %.3f (target within 10%%: %s), peak RSS %.3f (target the same: %s).\n",
                big, small, r, (r >= 0.9 && r <= 1.1 ? "met" : "missed"), m, (m >= 0.95 && m <= 1.05 ? "met" : "missed")}' \
            "$work/scale.results"
    } >"$results/scale.md"
}

on_primary=no
for measurement in $measurements; do [ "$measurement" = scale ] || on_primary=yes; done
if [ "$on_primary" = yes ]; then
    start_health_servers
    echo "== $rows rows, one in 5 damaged; the standby on port $standby_port" >&2
    seed "$rows" 3 5 >/dev/null
fi
for measurement in wal archive lag pace checks scale; do
    case " $measurements " in *" $measurement "*) ;; *) continue ;; esac
    echo "== $measurement ($(date -u +%H:%M:%S), load $(load))" >&2
    "measure_$measurement"
done

{
    echo "<!-- health -->"
    echo "Measured by \`bench/health.sh\`: PostgreSQL $("$pgbin/postgres" --version | awk '{print $3}') with archive_mode on, an"
    echo "archive_command copying each 16 MB segment after ${archive_sleep} s (about 32 MB/s), and a hot standby made by"
    echo "\`pg_basebackup -R -X stream -c fast -C\` streaming from it through a replication slot on the same machine;"
    echo "every run is \`--batched --jobs 2\`"
    echo "of this tree (where not said otherwise), from a checkpoint, with the archive empty and the standby caught up."
    echo "The load is the machine's 1-minute load average just before the run: other builds and tests share its cores."
    for measurement in wal archive lag pace checks scale; do
        [ ! -f "$results/$measurement.md" ] || { echo; cat "$results/$measurement.md"; }
    done
    echo "<!-- /health -->"
} >"$work/block"
write_block health "$work/block"
