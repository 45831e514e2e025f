#!/usr/bin/env bash
# Repository move: KSTX.Tidepool.Config set moves a repository of 20 views
# with about 2 GiB of databases from one ext4 loop volume to another, the
# daemon running, beside references measured in the same run on the same
# files between the same volumes: `cp -a` and `rsync -a`, each followed by
# `sync` (the mover flushes its copy before it commits).
# Reports the total time (request to the status back at "enabled"), the
# downtime (the time in "moving_db") and the time from the request to the
# first successful request after the move. Target: the move within 1.3
# times `cp -a`, verification included.
#
# Knob for a quick try: BENCH_MOVE_MB (2048), the size of the databases.
set -euo pipefail
shopt -s inherit_errexit
build=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=volumes.sh
. "$here/volumes.sh"
# shellcheck source=bench-server.sh
. "$here/bench-server.sh"
total_mb=${BENCH_MOVE_MB:-2048}
views=20
size_mb=$((total_mb * 2 + 1024))
repo=/volume1/@tidepool
status_file=/var/packages/Tidepool/etc/enable_status

make_loop_volume ext4 "$size_mb" /volume1
make_loop_volume ext4 "$size_mb" /volume2
trap 'lighttpd_stop; "$control" service --stop >/dev/null 2>&1 || true;
      remove_loop_volume /volume2 || true; remove_loop_volume /volume1 || true' EXIT
"$here/seed-demo.sh"
"$control" service --start >/dev/null

echo "building the repository ($views views, $total_mb MiB of databases)..."
per_view=$((total_mb * 1024 / views))  # KiB, in rows of 4 KiB
mkdir -p "$repo/views"
for v in $(seq 1001 $((1000 + views))); do
  sqlite3 "$repo/views/$v.sqlite" "PRAGMA journal_mode=WAL; CREATE TABLE versions(id INTEGER PRIMARY KEY, body BLOB);
    WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c WHERE i < $((per_view / 4)))
    INSERT INTO versions(body) SELECT randomblob(4000) FROM c;" >/dev/null
done
du -sh --exclude=@sync "$repo"
bench_server_start
read -r sid token < <(bench_login admin admin-demo) || true
[ -n "${token:-}" ] || exit 1
url="http://127.0.0.1:$port/webapi/entry.cgi"

now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", b - a }'; }
timed() { local t0 t1; sync; t0=$(now); "$@"; sync; t1=$(now); secs "$t0" "$t1"; }
moving=(); for e in "$repo"/*; do case "${e##*/}" in @sync | @tmp) ;; *) moving+=("$e") ;; esac; done

echo "== references: the same files to /volume2 =="
mkdir -p /volume2/ref
t_cp=$(timed cp -a "${moving[@]}" /volume2/ref/)
rm -rf /volume2/ref && mkdir -p /volume2/ref && sync
t_rsync=$(timed rsync -a "${moving[@]}" /volume2/ref/)
rm -rf /volume2/ref && mkdir -p /volume2/ref && sync
# The first copy onto a fresh volume pays for its allocation: cp -a is
# timed once more and the better time counts.
t_cp2=$(timed cp -a "${moving[@]}" /volume2/ref/)
t_cp=$(awk -v a="$t_cp" -v b="$t_cp2" 'BEGIN { print (a < b) ? a : b }')
rm -rf /volume2/ref && sync
echo "cp -a     ${t_cp} s (best of two)"
echo "rsync -a  ${t_rsync} s"

echo "== the move =="
config() {  # METHOD [PARAMS]: the answer
  curl -s -b "id=$sid" -H "X-Tidepool-Token: $token" --data-binary "${2:-}" \
    "$url?api=KSTX.Tidepool.Config&method=$1&version=1"
}
t0=$(now)
answer=$(config set 'db_volume=%22/volume2%22&use_del_by_cnt=false&del_cnt=1000000&use_del_by_span=false&del_span=2592000')
case "$answer" in *'"code":503'*) ;; *) echo "set: $answer" >&2; exit 1 ;; esac
t_moving=
while :; do
  word=$(cat "$status_file" 2>/dev/null || true)
  if [ "$word" = moving_db ] && [ -z "$t_moving" ]; then t_moving=$(now); fi
  if [ "$word" != moving_db ] && [ -n "$t_moving" ]; then t_back=$(now); break; fi
  sleep 0.01
done
until case "$(config get)" in *'"success":true'*) true ;; *) false ;; esac; do sleep 0.01; done
t_first=$(now)
grep -q 'repo_volume="/volume2"' /var/packages/Tidepool/etc/setting.conf ||
  { echo "the repository did not move" >&2; exit 1; }
t_move=$(secs "$t0" "$t_back")
echo "move total         $t_move s"
echo "downtime           $(secs "$t_moving" "$t_back") s (status moving_db)"
echo "first request      $(secs "$t0" "$t_first") s after the request"
awk -v m="$t_move" -v c="$t_cp" 'BEGIN { printf "move / cp -a       %.2f (target <= 1.30)\n", m / c }'
