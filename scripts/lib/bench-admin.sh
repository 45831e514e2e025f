#!/usr/bin/env bash
# Users' privileges at scale, through lighttpd with the daemon running:
# Privilege.set enable_all over 1,000 and then 10,000 new users, timed from
# the call until status says the batch is done, with status's own latency
# while the batch runs; Privilege.list with `additional` over 10,000 users.
# Floors in the same run: the same number of new users enabled by
# driftway-control in one process; as many SQLite files opened with one row
# written each in one process; check_user's round trip plus one SQL listing
# of the same rows.
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=bench-server.sh
. "$here/bench-server.sh"
load="$build/bench/http-load"
small=${BENCH_ADMIN_SMALL:-1000}
large=${BENCH_ADMIN_LARGE:-10000}
accounts=/usr/kstx/etc/accounts.db
userdb=/volume1/@tidepool/user-db.sqlite
api="http://127.0.0.1:PORT/webapi/entry.cgi"

bench_service_start
bench_server_start
api=${api/PORT/$port}
read -r sid token < <(bench_login admin admin-demo) || true
[ -n "${token:-}" ] || exit 1

# Adds N accounts named PREFIX00001... to the host's directory in one
# transaction, as members of "users", with no password.
add_users() {
  local prefix=$1 n=$2
  python3 - "$accounts" "$prefix" "$n" <<'EOF'
import sqlite3, sys
path, prefix, n = sys.argv[1], sys.argv[2], int(sys.argv[3])
db = sqlite3.connect(path)
with db:
    for i in range(1, n + 1):
        name = "%s%05d" % (prefix, i)
        cur = db.execute("INSERT INTO users (name, name_key, gid, home) VALUES (?, ?, 100, ?)",
                         (name, name, "/volume1/homes/" + name))
        db.execute("INSERT INTO memberships (gid, uid) VALUES (100, ?)", (cur.lastrowid,))
EOF
}

names_of() {  # PREFIX N: the names, one a line
  local prefix=$1 n=$2
  seq -f "${prefix}%05g" 1 "$n"
}

now_ms() { date +%s%3N; }

p50_max() {  # FILE of seconds, one a line: "p50 max" in ms
  sort -n "$1" | awk '{a[NR]=$1} END {if (NR == 0) {print "- -"; exit}
    printf "%.1f %.1f", a[int((NR + 1) / 2)] * 1000, a[NR] * 1000}'
}

# Privilege.set enable_all, then status every 100 ms until "none", each
# followed by a check_user under the same load; prints the seconds, status's
# p50 and max latency in ms meanwhile, the number of polls and check_user's
# p50 and max.
enable_all() {
  local start end times="$dir/status-times" checks="$dir/check-times" answer
  : >"$times"
  : >"$checks"
  start=$(now_ms)
  answer=$(curl -s -b "id=$sid" -H "X-Tidepool-Token: $token" \
    --data 'api=KSTX.Tidepool.Privilege&method=set&version=1&auth_type="local"&batch_mode="enable_all"' "$api")
  case "$answer" in *'"success":true'*) ;; *) echo "set failed: $answer" >&2; exit 1 ;; esac
  while :; do
    answer=$(curl -s -o "$dir/status" -w '%{time_total}' -b "id=$sid" -H "X-Tidepool-Token: $token" \
      --data 'api=KSTX.Tidepool.Privilege&method=status&version=1' "$api")
    grep -q '"batch_mode":"none"' "$dir/status" && break
    echo "$answer" >>"$times"
    curl -s -o /dev/null -w '%{time_total}\n' -b "id=$sid" \
      "$api?api=KSTX.Tidepool&method=check_user&version=1" >>"$checks"
    sleep 0.1
  done
  end=$(now_ms)
  echo "$(awk -v ms=$((end - start)) 'BEGIN {printf "%.2f", ms / 1000}') $(p50_max "$times")" \
    "$(wc -l <"$times") $(p50_max "$checks")"
}

# Seconds until the daemon has versioned the new homes: nothing waits and
# no pass runs; given up after 15 minutes.
until_idle() {
  local start end out
  start=$(now_ms)
  while [ $(($(now_ms) - start)) -lt 900000 ]; do
    out=$("$control" service --status)
    if [[ "$out" == *"waiting: none"* && "$out" == *"versioning: none"* ]]; then break; fi
    sleep 0.5
  done
  end=$(now_ms)
  awk -v ms=$((end - start)) 'BEGIN {printf "%.1f", ms / 1000}'
}

floor_enable() {  # PREFIX N: seconds for driftway-control in one process
  local start end
  start=$(now_ms)
  # shellcheck disable=SC2046
  "$control" user --enable $(names_of "$1" "$2") >/dev/null
  end=$(now_ms)
  awk -v ms=$((end - start)) 'BEGIN {printf "%.2f", ms / 1000}'
}

dir=$(mktemp -d /volume1/bench-admin.XXXXXX)
echo "== admin: Privilege.set enable_all of new users, through lighttpd on 127.0.0.1:$port =="
printf '%-28s %9s %14s %14s %8s %9s\n' "" "seconds" "status p50 ms" "status max ms" "polls" "x floor"
for n in "$small" "$large"; do
  add_users "api$n-" "$n"
  read -r secs p50 max polls check50 checkmax < <(enable_all)
  versioned=$(until_idle)
  add_users "cli$n-" "$n"
  floor=$(floor_enable "cli$n-" "$n")
  mkdir -p "$dir/files$n"
  files=$("$build/bench/bench_sqlite_files" "$dir/files$n" "$n" | awk '{print $4}')
  ratio=$(awk -v a="$secs" -v b="$floor" 'BEGIN {printf "%.2f", a / b}')
  printf '%-28s %9s %14s %14s %8s %9s\n' "enable_all $n users" "$secs" "$p50" "$max" "$polls" "$ratio"
  printf '%-28s %9s %14s %14s\n' "  check_user meanwhile" "" "$check50" "$checkmax"
  printf '%-28s %9s\n' "  then homes versioned in" "$versioned"
  printf '%-28s %9s\n' "  floor: driftway-control" "$floor"
  printf '%-28s %9s\n' "  floor: $n SQLite files" "$files"
done
enabled=$(sqlite3 "$userdb" "SELECT count(*) FROM owners WHERE enabled = 1 AND name LIKE 'api%'")
echo "users enabled by the batches: $enabled of $((small + large))"
views=$(find /volume1/@tidepool/views -name '*.sqlite' | wc -l)
echo "views on disk: $views"

echo "== Privilege.list with additional, $large users a page =="
list="/webapi/entry.cgi?api=KSTX.Tidepool.Privilege&method=list&version=1&offset=0&limit=$large&additional=%5B%5D"
got=$(curl -s -b "id=$sid" "http://127.0.0.1:$port$list" | python3 -c \
  'import json,sys; d=json.load(sys.stdin)["data"]; print(len(d["users"]), sum(u["enabled"] for u in d["users"]))')
echo "users in the page, of them enabled: $got"
printf '%-28s %s\n' "Privilege.list" "$("$load" 127.0.0.1 "$port" "$list" 10 1 "id=$sid")"
printf '%-28s %s\n' "  floor: check_user" \
  "$("$load" 127.0.0.1 "$port" "/webapi/entry.cgi?api=KSTX.Tidepool&method=check_user&version=1" 50 1 "id=$sid")"
sql=$(python3 - "$accounts" "$userdb" "$large" <<'EOF'
import sqlite3, sys, time
accounts, userdb, n = sys.argv[1], sys.argv[2], int(sys.argv[3])
db = sqlite3.connect(accounts)
db.execute("ATTACH ? AS s", (userdb,))
start = time.perf_counter()
rows = db.execute("""SELECT u.name, o.enabled, u.expire_day FROM users u
    LEFT JOIN s.owners o ON o.name = u.name AND o.user_type != 1
    WHERE u.app_allowed != 0 AND u.disabled = 0 ORDER BY u.name_key LIMIT ?""", (n,)).fetchall()
print("%.1f ms for %d rows" % ((time.perf_counter() - start) * 1000, len(rows)))
EOF
)
printf '%-28s %s\n' "  floor: one SQL listing" "$sql"
rm -rf "$dir"
