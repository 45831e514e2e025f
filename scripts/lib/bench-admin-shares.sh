#!/usr/bin/env bash
# The administrator's share methods, each beside its floor measured in the
# same run:
#   1. Share.set of the rotation of all homes over BENCH_HOMES (10,000)
#      homes, each with its view; floor: opening as many SQLite files and
#      writing one row in each, in one process;
#   2. Share.list with BENCH_SHARES (1,000) shares, half of them enabled,
#      p50 over 30 calls (target under 50 ms); floor: the pipeline's
#      check_user round trip plus one SQL listing of the same rows.
set -euo pipefail
shopt -s inherit_errexit
build=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=bench-server.sh
. "$here/bench-server.sh"
homes=${BENCH_HOMES:-10000}
shares=${BENCH_SHARES:-1000}
calls=${BENCH_LIST_CALLS:-30}
repo=/volume1/@tidepool
admin_tool=/usr/kstx/bin/kstx-admin

bench_service_start
bench_server_start
read -r sid token < <(bench_login admin admin-demo) || true
[ -n "${token:-}" ] || exit 1

now() { date +%s.%N; }
ms() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.1f", (b - a) * 1000 }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
call() {  # API METHOD JSON-BODY
  local answer
  answer=$(curl -s -b "id=$sid" -H "X-Tidepool-Token: $token" \
    -H 'Content-Type: application/json' --data-binary "$3" \
    "http://127.0.0.1:$port/webapi/entry.cgi?api=$1&method=$2&version=1")
  case "$answer" in
    *'"success":true'*) printf '%s\n' "$answer" ;;
    *) echo "$1 $2 failed: ${answer:0:400}" >&2; return 1 ;;
  esac
}

# 1. Homes. Real accounts cost a password hash each, so the homes are made
# the way the service would leave them: an owner row each, and a copy of a
# fresh, empty view.
echo "admin-shares: making $homes homes with their views"
template=$(sqlite3 "$repo/user-db.sqlite" "SELECT view_id FROM owners WHERE name = 'bob'")
first=$(sqlite3 "$repo/user-db.sqlite" "SELECT max(view_id) + 1 FROM owners")
sqlite3 "$repo/user-db.sqlite" "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i + 1 < $homes)
  INSERT INTO owners (name, uid, user_type, view_id, enabled, root_path)
  SELECT printf('home%05d', i), 200000 + i, 0, $first + i, 1, printf('/volume1/homes/home%05d/Tidepool', i) FROM n;"
sqlite3 "$repo/views/$template.sqlite" "PRAGMA wal_checkpoint(TRUNCATE)" >/dev/null
for ((i = 0; i < homes; i++)); do
  cp "$repo/views/$template.sqlite" "$repo/views/$((first + i)).sqlite"
done
sync
t0=$(now)
call KSTX.Tidepool.Share set '{"share":[{"share_name":"homes","rotate_cnt":8,"rotate_policy":"smart","rotate_days":30}]}' >/dev/null
set_ms=$(ms "$t0" "$(now)")
check=$(sqlite3 "$repo/views/$((first + homes - 1)).sqlite" "SELECT value FROM meta WHERE key = 'rotate_policy'")
[ "$check" = smart ] || { echo "admin-shares: the last home's view was not changed" >&2; exit 1; }
sync
floor_ms=$("$build/bench/bench_open_write" "$repo/views" "$first" "$homes")
echo "admin-shares: Share.set rotation of all homes over $homes homes: ${set_ms} ms; floor (open $homes SQLite files, one row each, one process) ${floor_ms} ms: $(ratio "$set_ms" "$floor_ms")x"

# 2. Shares.
echo "admin-shares: making $shares shares, every other one enabled"
demo_shares=$(sqlite3 /usr/kstx/etc/accounts.db "SELECT count(*) FROM shares")
for ((i = 0; i < shares; i++)); do printf 'share add s%04d --volume /volume1\n' "$i"; done |
  while read -r -a args; do "$admin_tool" "${args[@]}" >/dev/null; done
for ((i = 0; i < shares; i += 2)); do "$control" share --enable "$(printf 's%04d' "$i")" >/dev/null; done
list_times=()
for ((c = 0; c < calls; c++)); do
  t0=$(now)
  answer=$(call KSTX.Tidepool.Share list '{"offset":0,"limit":50,"sort_by":"rotate_cnt","sort_direction":"DESC"}')
  list_times+=("$(ms "$t0" "$(now)")")
done
total=$(printf '%s' "$answer" | sed -n 's/.*"total":\([0-9]*\).*/\1/p')
[ "$total" = $((demo_shares + shares + 1)) ] || { echo "admin-shares: Share.list counted $total rows" >&2; exit 1; }
list_p50=$(printf '%s\n' "${list_times[@]}" | median)
floor_times=()
for ((c = 0; c < calls; c++)); do
  t0=$(now)
  call KSTX.Tidepool check_user '{}' >/dev/null
  sqlite3 /usr/kstx/etc/accounts.db "ATTACH '$repo/user-db.sqlite' AS u;
    SELECT s.name, s.encrypted, s.mounted, o.enabled, r.rotate_cnt, r.rotate_policy, r.rotate_days
    FROM shares s LEFT JOIN u.owners o ON o.name = s.name AND o.user_type = 1
    LEFT JOIN u.rotate_settings r ON r.view_id = o.view_id ORDER BY s.name_key" >/dev/null
  floor_times+=("$(ms "$t0" "$(now)")")
done
floor_p50=$(printf '%s\n' "${floor_times[@]}" | median)
echo "admin-shares: Share.list with $shares shares: p50 ${list_p50} ms (target 50 ms); floor (check_user + one SQL listing) p50 ${floor_p50} ms: $(ratio "$list_p50" "$floor_p50")x"
