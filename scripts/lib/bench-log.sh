#!/usr/bin/env bash
# The activity log at its default cap of 1,000,000 records, through the web
# API and lighttpd, each figure beside the same query in the sqlite3 CLI on
# the same file in the same run:
#   1. a list page (limit 100, so 601 rows read ahead) at offsets 0, 50,000
#      and 900,000, for an administrator and for one user;
#   2. a keyword search that matches a few records and one that matches many;
#   3. get_all (the count and the oldest page);
#   4. the CSV export of every record, beside `sqlite3 -csv` of the same
#      columns, with the peak RSS of the CGI that writes it.
# Each list figure is the p50 of BENCH_REQUESTS (20) requests made one at a
# time; the sqlite3 figures are the better of three runs. For a keyword
# the sqlite3 figure is the plain substring scan of every record, which is
# what the search costs without the log's trigram index. The export's RSS
# comes from one more run of entry.cgi called as lighttpd calls it, whose
# ru_maxrss its parent reads when it exits.
#
# Knob for a quick try: BENCH_RECORDS (1000000).
set -euo pipefail
shopt -s inherit_errexit
build=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=bench-server.sh
. "$here/bench-server.sh"
load="$build/bench/http-load"
requests=${BENCH_REQUESTS:-20}
records=${BENCH_RECORDS:-1000000}
logdb=/volume1/@tidepool/log-db.sqlite
entry=/usr/kstx/webapi/entry.cgi

bench_service_start
# The seeded log replaces the demo's, with the daemon stopped meanwhile.
"$control" service --stop >/dev/null
bench_server_start

echo "seeding $records records..." >&2
now=$(date +%s)
t0=$((now - 25 * 86400))
step=$(awk -v n="$records" 'BEGIN { s = int(24 * 86400 / n); print (s < 1 ? 1 : s) }')
# Who wrote what, taken from the records the demo's scans left: homes and the
# share, each with its user. Types 13 to 17 as versioning writes them: the
# node id and file type, then the path.
sqlite3 "$logdb" <<SQL
CREATE TEMP TABLE who AS
  SELECT DISTINCT user_id, user_name, view_id, share_name, share_type FROM logs
  WHERE type BETWEEN 13 AND 17;
CREATE TEMP TABLE whon AS SELECT row_number() OVER () - 1 AS k, * FROM who;
DELETE FROM logs;
BEGIN;
WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < $records - 1),
  rows AS (
    SELECT i, w.*, 13 + i % 5 AS type,
           '/project-' || (i % 97) || '/part-' || (i % 7) || '/file-' || i || '.txt' AS path
    FROM n JOIN whon w ON w.k = i % (SELECT count(*) FROM whon))
INSERT INTO logs(type, time, user_id, user_name, view_id, share_name, share_type,
                 target_view_id, target_share_name, target_share_type, p_args, s_args,
                 search_text)
SELECT type, $t0 + i * $step, user_id, user_name, view_id, share_name, share_type, 0, '', 0,
       length(i + 1000) || ':' || (i + 1000) || '1:0', length(path) || ':' || path,
       lower(user_name || char(10) || share_name || char(10) || char(10) || path)
FROM rows;
COMMIT;
ANALYZE;
SQL
sqlite3 "$logdb" 'PRAGMA wal_checkpoint(TRUNCATE);' >/dev/null
chown --reference="$(dirname "$logdb")" "$logdb" 2>/dev/null || true
"$control" service --start >/dev/null
echo "log: $(sqlite3 "$logdb" 'SELECT count(*) FROM logs') records," \
  "$(du -m "$logdb" | cut -f1) MiB" >&2

read -r sid token < <(bench_login admin admin-demo) || true
[ -n "${token:-}" ] || exit 1
read -r alice_sid _ < <(bench_login alice alice-demo) || true
[ -n "${alice_sid:-}" ] || exit 1
alice_view=$(sqlite3 "$logdb" "SELECT view_id FROM logs WHERE user_name = 'alice' AND share_type != 1 LIMIT 1")
alice_uid=$(id -u alice 2>/dev/null || sqlite3 "$logdb" "SELECT user_id FROM logs WHERE user_name = 'alice' LIMIT 1")

api="/webapi/entry.cgi?api=KSTX.Tidepool.Log&version=1&method=list&target=%22%22&share_type=%22all%22"
p50() { sed -n 's/.*p50_ms=\([0-9.]*\).*/\1/p'; }
http() {  # NAME PATH [SID]: prints the p50 in ms
  local name=$1 path=$2 cookie="id=${3:-$sid}" answer line
  answer=$(curl -s -b "$cookie" "http://127.0.0.1:$port$path")
  case "$answer" in
    *'"success":true'*) ;;
    *) echo "$name failed: ${answer:0:300}" >&2; kill "$$"; exit 1 ;;
  esac
  "$load" 127.0.0.1 "$port" "$path" 3 1 "$cookie" >/dev/null || true
  line=$("$load" 127.0.0.1 "$port" "$path" "$requests" 1 "$cookie")
  p50 <<<"$line"
}
sql_ms() {  # SQL: the better of three runs of the sqlite3 CLI, in ms
  local best="" t s e
  for _ in 1 2 3; do
    s=$(date +%s%N)
    sqlite3 "$logdb" "$1" >/dev/null
    e=$(date +%s%N)
    t=$(((e - s) / 1000))
    if [ -z "$best" ] || [ "$t" -lt "$best" ]; then best=$t; fi
  done
  awk -v us="$best" 'BEGIN { printf "%.1f", us / 1000 }'
}
cols="type, time, user_id, user_name, view_id, share_name, share_type, target_view_id,
      target_share_name, target_share_type, p_args, s_args"
page_sql() {  # WHERE OFFSET
  echo "SELECT $cols FROM logs WHERE $1 ORDER BY time DESC, id DESC LIMIT 601 OFFSET $2"
}
row() { printf '%-34s %10s ms   sqlite3 %8s ms\n' "$1" "$2" "$3"; }

echo "== log list: p50 of $requests requests, lighttpd on 127.0.0.1:$port ==" >&2
for offset in 0 50000 900000; do
  row "admin page at offset $offset" "$(http "page $offset" "$api&limit=100&offset=$offset")" \
    "$(sql_ms "$(page_sql 1 "$offset")")"
done
user_where="(view_id = $alice_view OR user_id = $alice_uid)"
for offset in 0 50000; do
  row "alice's page at offset $offset" \
    "$(http "alice $offset" "${api/target=%22%22/target=%22mine%22}&limit=100&offset=$offset" "$alice_sid")" \
    "$(sql_ms "$(page_sql "$user_where" "$offset")")"
done
rare="file-777777.txt"
common="part-3/"
row "keyword \"$rare\" (few)" "$(http rare "$api&limit=100&keyword=%22$rare%22")" \
  "$(sql_ms "$(page_sql "instr(search_text, '$rare') > 0" 0)")"
row "keyword \"$common\" (1 in 7)" "$(http common "$api&limit=100&keyword=%22$common%22")" \
  "$(sql_ms "$(page_sql "instr(search_text, '$common') > 0" 0)")"
row "get_all (count + oldest page)" "$(http get_all "$api&limit=100&get_all=true")" \
  "$(sql_ms "SELECT count(*) FROM logs; SELECT $cols FROM logs ORDER BY time, id LIMIT 100")"

echo "== export of every record ==" >&2
export_url="http://127.0.0.1:$port/webapi/entry.cgi"
export_once() {
  curl -s -o /tmp/bench-export.csv -w '%{time_total} %{size_download}\n' -b "id=$sid" \
    -H "X-Tidepool-Token: $token" -d api=KSTX.Tidepool.Log -d method=export -d version=1 -d type=%22csv%22 \
    "$export_url"
}
best_export=""
for _ in 1 2; do
  read -r secs bytes < <(export_once)
  if [ -z "$best_export" ] || awk -v a="$secs" -v b="$best_export" 'BEGIN { exit !(a < b) }'; then
    best_export=$secs
  fi
done
lines=$(wc -l </tmp/bench-export.csv)
ref_s=""
for _ in 1 2; do
  s=$(date +%s%N)
  sqlite3 -csv "$logdb" "SELECT $cols FROM logs ORDER BY time DESC, id DESC" >/tmp/bench-ref.csv
  e=$(date +%s%N)
  t=$(awk -v ns=$((e - s)) 'BEGIN { printf "%.3f", ns / 1e9 }')
  if [ -z "$ref_s" ] || awk -v a="$t" -v b="$ref_s" 'BEGIN { exit !(a < b) }'; then ref_s=$t; fi
done
ref_bytes=$(stat -c %s /tmp/bench-ref.csv)
# Peak RSS: entry.cgi run once more as lighttpd runs it, as www-data.
rss_kib=$(python3 - "$entry" "$sid" "$token" <<'PY'
import os, pwd, subprocess, sys
entry, sid, token = sys.argv[1:4]
body = b"api=KSTX.Tidepool.Log&method=export&version=1&type=%22csv%22"
www = pwd.getpwnam("www-data")
env = {"GATEWAY_INTERFACE": "CGI/1.1", "SERVER_PROTOCOL": "HTTP/1.1",
       "SCRIPT_NAME": "/webapi/entry.cgi", "REQUEST_METHOD": "POST", "QUERY_STRING": "",
       "REMOTE_ADDR": "127.0.0.1", "SERVER_PORT": "5080", "HTTP_HOST": "127.0.0.1:5080",
       "PATH": "/usr/bin:/bin", "HTTP_COOKIE": "id=" + sid, "HTTP_X_TIDEPOOL_TOKEN": token,
       "CONTENT_TYPE": "application/x-www-form-urlencoded", "CONTENT_LENGTH": str(len(body))}
def drop():
    os.setgid(www.pw_gid)
    os.setuid(www.pw_uid)
with open(os.devnull, "wb") as null:
    p = subprocess.Popen([entry], env=env, stdin=subprocess.PIPE, stdout=null,
                         preexec_fn=drop)
    p.stdin.write(body)
    p.stdin.close()
    _, status, usage = os.wait4(p.pid, 0)
print(usage.ru_maxrss if status == 0 else -1)
PY
)
mib() { awk -v b="$1" 'BEGIN { printf "%.1f", b / 1048576 }'; }
printf 'export: %s lines, %s MiB in %s s (%s MiB/s)\n' "$lines" "$(mib "$bytes")" "$best_export" \
  "$(awk -v b="$bytes" -v s="$best_export" 'BEGIN { printf "%.1f", b / 1048576 / s }')"
printf 'sqlite3 -csv of the same rows: %s MiB in %s s (%s MiB/s)\n' "$(mib "$ref_bytes")" "$ref_s" \
  "$(awk -v b="$ref_bytes" -v s="$ref_s" 'BEGIN { printf "%.1f", b / 1048576 / s }')"
awk -v a="$best_export" -v b="$ref_s" -v ba="$bytes" -v bb="$ref_bytes" 'BEGIN {
  printf "export speed: %.2fx of sqlite3 -csv in rows per second (target >= 0.5x)\n", b / a }'
awk -v k="$rss_kib" 'BEGIN { printf "export peak RSS of entry.cgi: %.1f MiB (target < 64 MiB)\n", k / 1024 }'
rm -f /tmp/bench-export.csv /tmp/bench-ref.csv
