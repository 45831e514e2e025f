#!/usr/bin/env bash
# The sync service watching alice's home through the web API:
#   1. latency from the close of a written file to its version in
#      list_version, over 200 changes, each in a folder of its own, one
#      every quarter second (p50, p99);
#   2. a burst of 10,000 new files of 4-16 KiB in 100 folders, from the
#      last write (and from the first) until the service is idle again,
#      beside `driftway-control scan` of the same files with the daemon
#      stopped;
#   3. 100 rewrites of 1 MiB in a 100 MiB file, until idle, and the
#      versions made;
#   4. idle with 100,000 more files in 5,000 folders watched: the daemon's
#      CPU time and wake-ups (context switches of all its threads) over 60 s;
#   5. memory per watched folder: the daemon's RSS before and after those
#      5,000 folders, and the watches in its inotify descriptor.
# Knobs: BENCH_CHANGES (200), BENCH_BURST (10000), BENCH_IDLE_FOLDERS (5000),
# BENCH_IDLE_S (60).
set -euo pipefail
shopt -s inherit_errexit
build=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=bench-server.sh
. "$here/bench-server.sh"
changes=${BENCH_CHANGES:-200}
burst=${BENCH_BURST:-10000}
idle_folders=${BENCH_IDLE_FOLDERS:-5000}
idle_s=${BENCH_IDLE_S:-60}
home=/volume1/homes/alice/Tidepool
setting=/var/packages/Tidepool/etc/setting.conf
quiet_ms=2000

bench_service_start
bench_server_start
read -r sid token < <(bench_login alice alice-demo)
now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
daemon_pid() { cat /var/packages/Tidepool/var/run/driftway.pid 2>/dev/null ||
  "$control" service --status | sed -n 's/.*(pid \([0-9]*\)).*/\1/p'; }
passes() { "$control" service --status | sed -n 's/^passes: //p'; }
idle() { "$control" service --status | grep -q '^waiting: none' &&
  "$control" service --status | grep -q '^versioning: none'; }
# Waits until a pass after PASSES ran and nothing waits any more.
wait_idle_after() {
  local before=$1 i
  for i in $(seq 1 6000); do
    if [ "$(passes)" -gt "$before" ] && idle; then return 0; fi
    sleep 0.05
  done
  echo "the service never fell idle" >&2
  return 1
}
alice=$(stat -c %u "$home")
make_files() {  # DIR COUNT FOLDERS: COUNT files of 4-16 KiB spread over FOLDERS folders
  python3 - "$1" "$2" "$3" "$alice" <<'PY'
import os, random, sys
root, count, folders, uid = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4])
rnd = random.Random(7)
for i in range(count):
    d = f"{root}/d{i % folders}"
    os.makedirs(d, exist_ok=True)
    with open(f"{d}/f{i}", "wb") as f:
        f.write(rnd.randbytes(rnd.randint(4096, 16384)))
for dirpath, dirs, files in os.walk(root):
    os.chown(dirpath, uid, 100)
    for name in files:
        os.chown(os.path.join(dirpath, name), uid, 100)
PY
}

echo "== 1. latency of $changes single changes (quiet ${quiet_ms} ms) =="
python3 "$here/bench-watch.py" latency "$port" "$sid" "$token" "$changes" > /tmp/latencies
seen=$(wc -l < /tmp/latencies)
read -r p50 p99 < <(sort -n /tmp/latencies | awk '{ v[NR] = $1 } END {
  if (NR == 0) { print "nan nan"; exit }
  i50 = int(NR * 0.50 + 0.5); if (i50 < 1) i50 = 1
  i99 = int(NR * 0.99 + 0.5); if (i99 < 1) i99 = 1; if (i99 > NR) i99 = NR
  print v[i50], v[i99] }')
echo "versions seen: $seen of $changes; p50 $p50 s, p99 $p99 s"

echo "== 2. a burst of $burst new files =="
before=$(passes)
t0=$(now)
make_files "$home/burst" "$burst" 100
t_last=$(now)
wait_idle_after "$before"
t1=$(now)
watch_total=$(secs "$t0" "$t1")
# The service versions while the files arrive; what is left after the
# last write is the wait a user sees.
watch_burst=$(secs "$t_last" "$t1")
"$control" service --stop >/dev/null
make_files "$home/burst2" "$burst" 100
t0=$(now)
"$control" scan >/dev/null
t1=$(now)
scan_burst=$(secs "$t0" "$t1")
"$control" service --start >/dev/null
sleep 1
wait_idle_after "$(( $(passes) - 1 ))" || true
echo "watched: $watch_total s from the first write, $watch_burst s after the last; scan of the same files: $scan_burst s"

echo "== 3. 100 rewrites of a 100 MiB file =="
head -c $((100 << 20)) /dev/urandom > "$home/big.bin"
chown "$alice" "$home/big.bin"
before=$(passes)
wait_idle_after "$before"
before=$(passes)
t0=$(now)
python3 - "$home/big.bin" <<'PY'
import os, random, sys
rnd = random.Random(3)
for i in range(100):
    with open(sys.argv[1], "r+b") as f:
        f.seek(rnd.randrange(0, 99 << 20))
        f.write(rnd.randbytes(1 << 20))
PY
wait_idle_after "$before"
t1=$(now)
rewrites=$(secs "$t0" "$t1")
big_versions=$(python3 "$here/bench-watch.py" versions "$port" "$sid" "$token" /big.bin)
echo "100 rewrites versioned in $rewrites s (from the first write); versions: $big_versions"

echo "== 4./5. $idle_folders more folders watched =="
pid=$(daemon_pid)
rss_kib() { awk '/^VmRSS/ { print $2 }' "/proc/$1/status"; }
watches() { local fd n=0; for fd in /proc/"$1"/fdinfo/*; do
    n=$((n + $(grep -c '^inotify wd:' "$fd" 2>/dev/null || true))); done; echo "$n"; }
rss0=$(rss_kib "$pid"); w0=$(watches "$pid")
before=$(passes)
make_files "$home/idle" $((idle_folders * 20)) "$idle_folders"
wait_idle_after "$before"
sleep 2
rss1=$(rss_kib "$pid"); w1=$(watches "$pid")
cpu() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
switches() { local t n=0; for t in /proc/"$1"/task/*; do
    n=$((n + $(awk '/ctxt_switches/ { s += $2 } END { print s }' "$t/status"))); done; echo "$n"; }
c0=$(cpu "$pid"); s0=$(switches "$pid")
sleep "$idle_s"
c1=$(cpu "$pid"); s1=$(switches "$pid")
tick=$(getconf CLK_TCK)
idle_cpu=$(awk -v a="$c0" -v b="$c1" -v t="$tick" 'BEGIN { printf "%.2f", (b - a) / t }')
idle_wakes=$((s1 - s0))
per_folder=$(awk -v a="$rss0" -v b="$rss1" -v n="$((w1 - w0))" 'BEGIN {
  if (n <= 0) { print "n/a"; exit } printf "%.0f", (b - a) * 1024 / n }')
echo "watches $w0 -> $w1; RSS $rss0 -> $rss1 KiB; idle ${idle_s} s: CPU $idle_cpu s, $idle_wakes context switches"

echo "== summary =="
printf '%-34s %-22s %-22s %s\n' figure value reference target
printf '%-34s %-22s %-22s %s\n' "latency p50 ($seen changes)" "$p50 s" "quiet $((quiet_ms / 1000)) s" \
  "<= quiet + 1 s: $(awk -v v="$p50" -v q="$quiet_ms" 'BEGIN { print (v <= q / 1000 + 1) ? "pass" : "FAIL" }')"
printf '%-34s %-22s %-22s %s\n' "latency p99" "$p99 s" "" "(none)"
printf '%-34s %-22s %-22s %s\n' "burst of $burst files, after last" "$watch_burst s" "scan $scan_burst s" \
  "<= 1.2x scan: $(awk -v a="$watch_burst" -v b="$scan_burst" 'BEGIN { printf "%.2fx %s", a / b, (a <= 1.2 * b) ? "pass" : "FAIL" }')"
printf '%-34s %-22s %-22s %s\n' "100 rewrites of 100 MiB" "$rewrites s" "$big_versions versions" "(none)"
printf '%-34s %-22s %-22s %s\n' "idle ${idle_s} s, $((w1)) watches" "CPU $idle_cpu s" "$idle_wakes switches" "timers only"
printf '%-34s %-22s %-22s %s\n' "memory per watched folder" "$per_folder B" "$((w1 - w0)) folders" "(none)"
