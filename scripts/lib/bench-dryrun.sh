#!/usr/bin/env bash
# Node.dry_run of one folder holding 100,000 nodes (1,000 folders of 99
# files, every 50th file a password-protected office document) over HTTP
# through lighttpd, as its owner and as an administrator acting for her.
# In the same run: the same SELECT in the sqlite3 CLI (the floor, process
# start included) and the view library's search in process.
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=bench-server.sh
. "$here/bench-server.sh"
load="$build/bench/http-load"
requests=${BENCH_REQUESTS:-20}

bench_service_start
echo "building the view (100,000 nodes below /big)..."
refs=$("$build/bench/dryrun/bench_dryrun_view" alice)
ref() { sed -n "s/^$1=//p" <<<"$refs"; }
big=$(ref big_node_id)
big_pid=$(ref big_permanent_id)
expected=$(ref protected)
view_file=$(ref view_file)
bench_server_start
read -r sid token < <(bench_login alice alice-demo) || true
[ -n "${token:-}" ] || exit 1
read -r admin_sid _ < <(bench_login admin admin-demo) || true
[ -n "${admin_sid:-}" ] || exit 1

# nodes=[{"node_id":"BIG","permanent_id":"PID","file_type":1}]
nodes="%5B%7B%22node_id%22%3A%22$big%22%2C%22permanent_id%22%3A%22$big_pid%22%2C%22file_type%22%3A1%7D%5D"
path="/webapi/entry.cgi?api=KSTX.Tidepool.Node&version=1&method=dry_run&target=%22mine%22&nodes=$nodes"
admin_path="$path&view_role=%22alice%22"
for who in "$sid:$path" "$admin_sid:$admin_path"; do
  answer=$(curl -s -b "id=${who%%:*}" "http://127.0.0.1:$port${who#*:}")
  case "$answer" in *'"success":true'*) ;; *) echo "call failed: ${answer:0:300}" >&2; exit 1 ;; esac
  found=$(grep -o '"permanent_id"' <<<"$answer" | wc -l)
  [ "$found" -eq "$expected" ] || { echo "dry run listed $found, expected $expected" >&2; exit 1; }
done

p50() { sed -n 's/.*p50_ms=\([0-9.]*\).*/\1/p'; }
run() {
  local name=$1 path=$2 cookie=$3
  "$load" 127.0.0.1 "$port" "$path" 3 1 "id=$cookie" >/dev/null || true
  local line; line=$("$load" 127.0.0.1 "$port" "$path" "$requests" 1 "id=$cookie")
  printf '%-26s %s\n' "$name" "$line" >&2
  p50 <<<"$line"
}
echo "== dry_run: $requests requests per row, one at a time, lighttpd on 127.0.0.1:$port =="
owner_ms=$(run "dry_run as owner (HTTP)" "$path" "$sid")
admin_ms=$(run "dry_run as admin (HTTP)" "$admin_path" "$admin_sid")

# The SELECT the view library runs for the folder's protected documents.
sql="WITH RECURSIVE sub(id) AS (SELECT $big UNION SELECT c.node_id FROM nodes c JOIN sub ON
c.parent_id = sub.id) SELECT s.node_id, s.parent_id, s.sync_id, s.permanent_id,
s.permanent_link, s.name, s.path, s.extension, s.file_type, s.size, s.ver_cnt, s.mtime,
s.removed, s.permanent_removed, s.encrypted FROM nodes s WHERE s.node_id IN (SELECT id FROM
sub) AND s.node_id != $big AND s.removed = 0 AND s.encrypted = 1 ORDER BY s.mtime DESC,
s.node_id DESC;"
rows=$(sqlite3 -readonly "$view_file" "$sql" | wc -l)
[ "$rows" -eq "$expected" ] || { echo "sqlite3 found $rows, expected $expected" >&2; exit 1; }
best=""
for _ in 1 2 3 4 5; do
  start=$(date +%s%N)
  sqlite3 -readonly "$view_file" "$sql" >/dev/null
  ms=$(( ($(date +%s%N) - start) / 1000 ))
  if [ -z "$best" ] || [ "$ms" -lt "$best" ]; then best=$ms; fi
done
printf 'protected documents found: %s of 100,000 nodes\n' "$expected"
printf 'dry_run as owner  p50 %8.2f ms end to end   (target < 500 ms)\n' "$owner_ms"
printf 'dry_run as admin  p50 %8.2f ms end to end   (target < 500 ms)\n' "$admin_ms"
awk -v us="$best" 'BEGIN { printf "sqlite3 CLI, same SELECT, best of 5: %.2f ms\n", us / 1000 }'
printf 'view library search, in process, best of 5: %s ms\n' "$(ref db_search_ms)"
