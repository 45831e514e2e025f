#!/usr/bin/env bash
# Purge speed through the web API and the daemon's worker (Node.Delete start
# until status reads current 1), each beside its floor measured in the same
# run on copies of the same data: `rm -rf` of the stored pieces plus one SQL
# DELETE of the same rows in sqlite3.
#   1. a folder of 20,000 small files with three versions each;
#   2. a trash of 100,000 removed nodes;
# and how long `start` with 1,000 fileinfo entries takes to answer, and
# whether an idle daemon's job worker wakes at all.
set -euo pipefail
shopt -s inherit_errexit
build=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=bench-server.sh
. "$here/bench-server.sh"
files=${BENCH_PURGE_FILES:-20000}
trash=${BENCH_TRASH_NODES:-100000}
home=/volume1/homes/alice/Tidepool
repo=/volume1/@tidepool
store=$repo/@sync
floor=/volume1/purge-floor

bench_service_start
bench_server_start
read -r sid token < <(bench_login alice alice-demo) || true
[ -n "${token:-}" ] || exit 1

now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
scan_at=$(($(date +%s) - 86400))
scan() { scan_at=$((scan_at + 600)); "$control" scan --at "$scan_at" >/dev/null; }
# `count` files of about `size` bytes named NAME-00000.. in DIR, new bytes each time.
fill() {  # DIR COUNT SIZE
  mkdir -p "$1"
  head -c $(($2 * $3)) /dev/urandom | (cd "$1" && split -b "$3" -a 6 -d - f-)
}

call() {  # METHOD JSON-BODY
  local answer
  answer=$(curl -s -b "id=$sid" -H "X-Tidepool-Token: $token" \
    -H 'Content-Type: application/json' --data-binary "$2" \
    "http://127.0.0.1:$port/webapi/entry.cgi?api=KSTX.Tidepool.Node.Delete&method=$1&version=1")
  case "$answer" in
    *'"success":true'*) printf '%s\n' "$answer" ;;
    *) echo "Node.Delete $1 failed: ${answer:0:400}" >&2; return 1 ;;
  esac
}
wait_done() {
  until call status '{}' | grep -q '"current":1'; do sleep 0.02; done
}
view_db() {  # the view database that holds PATH
  local v
  for v in "$repo"/views/*.sqlite; do
    [ -n "$(sqlite3 "$v" "SELECT 1 FROM nodes WHERE path = '$1' LIMIT 1")" ] && { echo "$v"; return; }
  done
  return 1
}
# Copies of what a purge removes, for the floor: the store's pieces and
# databases and the view.
copy_for_floor() {  # VIEW-DB
  rm -rf "$floor"
  mkdir -p "$floor"
  cp -a "$store/repo" "$store/delta" "$store/node_delta" "$floor/"
  sqlite3 "$1" ".backup $floor/view.sqlite"
  sqlite3 "$store/file-db.sqlite" ".backup $floor/file-db.sqlite"
}
floor_time() {  # SQL-ON-VIEW
  local t0 t1
  sync
  t0=$(now)
  rm -rf "$floor/repo" "$floor/delta" "$floor/node_delta"
  sqlite3 "$floor/view.sqlite" "$1"
  sqlite3 "$floor/file-db.sqlite" "DELETE FROM file"
  t1=$(now)
  secs "$t0" "$t1"
}
timed_purge() {  # JSON-BODY
  local t0 t1
  sync
  t0=$(now)
  call start "$1" >/dev/null
  wait_done
  t1=$(now)
  secs "$t0" "$t1"
}

echo "purge: making $files files x 3 versions and $trash removed nodes (this takes a while)"
for v in 1 2 3; do
  fill "$home/bench" "$files" 3000
  [ "$v" = 1 ] && fill "$home/ids" 1000 100
  scan
done
view=$(view_db /bench)
folder=$(sqlite3 "$view" "SELECT node_id FROM nodes WHERE path = '/bench'")

# 1. The folder.
copy_for_floor "$view"
floor1=$(floor_time "DELETE FROM versions WHERE node_id IN (SELECT node_id FROM nodes WHERE path = '/bench' OR path LIKE '/bench/%'); DELETE FROM nodes WHERE path = '/bench' OR path LIKE '/bench/%';")
du0=$(du -sb "$store" | cut -f1)
t1=$(timed_purge "{\"target\":\"mine\",\"fileinfo\":[{\"node_id\":\"$folder\"}]}")
du1=$(du -sb "$store" | cut -f1)
echo "purge: folder of $files files x 3 versions: ${t1} s; floor (rm -rf + SQL DELETE) ${floor1} s: $(ratio "$t1" "$floor1")x (target 2x); store $du0 -> $du1 bytes"

# start with 1,000 fileinfo entries: the time to the answer.
ids=$(sqlite3 "$view" "SELECT '{\"node_id\":\"' || node_id || '\"}' FROM nodes WHERE path LIKE '/ids/%' LIMIT 1000" | paste -sd, -)
best=""
t0=$(now)
call start "{\"target\":\"mine\",\"fileinfo\":[$ids]}" >/dev/null
t=$(secs "$t0" "$(now)")
wait_done
t0=$(now)
call status '{}' >/dev/null
one=$(secs "$t0" "$(now)")
echo "purge: start with 1000 fileinfo entries answered in ${t} s (target 0.100 s); one status call ${one} s"

# 2. The trash.
fill "$home/trash" "$trash" 64
scan
rm -rf "$home/trash"
scan
copy_for_floor "$view"
floor2=$(floor_time "DELETE FROM versions WHERE node_id IN (SELECT node_id FROM nodes WHERE removed = 1); DELETE FROM nodes WHERE removed = 1;")
t2=$(timed_purge '{"target":"mine"}')
echo "purge: trash of $trash removed nodes: ${t2} s; floor (rm -rf + SQL DELETE) ${floor2} s: $(ratio "$t2" "$floor2")x (target 2x)"
rm -rf "$floor"

# An idle daemon: its job worker makes no wake-ups while the queue is empty.
pid=$(cat /var/packages/Tidepool/var/run/driftway.pid 2>/dev/null || pgrep -x driftway | head -1)
for task in /proc/"$pid"/task/*; do
  if [ "$(cat "$task/comm")" = jobs ]; then
    a=$(awk '/^voluntary_ctxt_switches/ { print $2 }' "$task/status")
    sleep 5
    b=$(awk '/^voluntary_ctxt_switches/ { print $2 }' "$task/status")
    echo "purge: idle job worker: $((b - a)) wake-ups in 5 s (target 0)"
  fi
done
"$control" check >/dev/null && echo "purge: driftway-control check passes after the run"
