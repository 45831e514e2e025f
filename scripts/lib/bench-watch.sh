#!/usr/bin/env bash
# The sync service versioning by itself, with the daemon watching the demo
# system and lighttpd serving the web API:
#   1. latency: single changes in alice's home (a new file, or new content
#      in one), each from its close until list_version shows its content;
#      p50 and p99, first one every BENCH_GAP_MS, then a few one at a time
#      (each after the previous one is visible: a pass of its own);
#   2. a burst of new files of 4-16 KiB in one folder tree, from the first
#      write until the view database holds them all, beside the same files
#      written with the daemon stopped and then `driftway-control scan` of
#      the view (from the first write to the scan's end), written folder by
#      folder as cp -r does, and spread so that every folder keeps changing
#      (no folder is quiet before the end);
#   3. rewrites of a 100 MiB file (1 MiB at a random place each, then
#      close), until list_version shows the last content; the versions made
#      (one for the whole burst is right);
#   3b. a file written for 6 s in one open beside one change elsewhere: the
#      versions made (one, after the close, is right);
#   4. idle: with 100,000 more files in 5,000 folders watched, the daemon's
#      CPU time (utime + stime) and wake-ups (voluntary context switches of
#      all its threads) over 60 s without a change;
#   5. memory per watched folder: the daemon's RSS before and after those
#      folders are watched, and the watches of its inotify descriptor.
# Versions are found in alice's view database (read-only, every 20 ms) and
# confirmed through list_version (bench_watch_probe): a request per look
# would compete with the passes for the cores.
#
# Knobs for a quick try: BENCH_CHANGES (200), BENCH_GAP_MS (500),
# BENCH_ISOLATED (20), BENCH_BURST (10000), BENCH_REWRITES (100),
# BENCH_IDLE_FILES (100000), BENCH_IDLE_FOLDERS (5000), BENCH_IDLE_S (60),
# BENCH_QUIET_MS (2000, the service's watch_quiet_ms), BENCH_PARTS ("latency
# burst rewrites idle": the sections to run).
set -euo pipefail
shopt -s inherit_errexit
build=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=bench-server.sh
. "$here/bench-server.sh"
probe=$(find "$build" -name bench_watch_probe -type f -perm -u+x -print -quit)
data=$(find "$build" -name bench_restore_data -type f -perm -u+x -print -quit)
[ -n "$probe" ] && [ -n "$data" ] || { echo "bench_watch_probe is not built" >&2; exit 1; }
changes=${BENCH_CHANGES:-200}
gap_ms=${BENCH_GAP_MS:-500}
isolated=${BENCH_ISOLATED:-20}
burst=${BENCH_BURST:-10000}
rewrites=${BENCH_REWRITES:-100}
idle_files=${BENCH_IDLE_FILES:-100000}
idle_folders=${BENCH_IDLE_FOLDERS:-5000}
idle_s=${BENCH_IDLE_S:-60}
quiet_ms=${BENCH_QUIET_MS:-2000}
parts=" ${BENCH_PARTS:-latency burst rewrites idle} "
want() { [[ $parts == *" $1 "* ]]; }
home=/volume1/homes/alice/Tidepool
setting=/var/packages/Tidepool/etc/setting.conf

cleanup() {
  lighttpd_stop
  "$control" service --stop >/dev/null 2>&1 || true
}
trap cleanup EXIT
"$here/seed-demo.sh"
printf 'watch_quiet_ms="%s"\n' "$quiet_ms" >>"$setting"
"$control" service --start >/dev/null
bench_server_start
read -r sid token < <(bench_login alice alice-demo) || true
[ -n "${token:-}" ] || exit 1
url="http://127.0.0.1:$port/webapi/entry.cgi"
alice=$(stat -c %u "$home")

now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
status() { "$control" service --status; }
passes() { status | sed -n 's/^passes: //p'; }
idle() { local s; s=$(status); [[ $s == *$'waiting: none\nversioning: none'* ]]; }
# Until nothing waits and no pass runs; a pass that never ends stops the run.
wait_idle() {
  local i
  for ((i = 0; i < 6000; i++)); do
    idle && return 0
    sleep 0.1
  done
  echo "the service is still busy after 10 minutes:" >&2
  status >&2
  return 1
}
view=$(status | awk -v r="$home" '$1 == "watching" && $4 == r "," { sub(":", "", $3); print $3 }')
db=/volume1/@tidepool/views/$view.sqlite
[ -f "$db" ] || { echo "no view database of alice's home ($db)" >&2; exit 1; }
pid=$(status | sed -n 's/^driftway: running (pid \([0-9]*\)).*/\1/p')
wait_idle

rows=()
row() { rows+=("$(printf '%s\t' "$@")"); }
verdict() { awk -v v="$1" -v op="$2" -v t="$3" 'BEGIN {
  ok = (op == ">=") ? v >= t : (op == "<=") ? v <= t : (op == "==") ? v == t : v < t
  print ok ? "pass" : "FAIL" }'; }
# The p-th percentile (nearest rank) of the first column of FILE.
percentile() {
  sort -n "$1" | awk -v p="$2" '{ v[NR] = $1 } END {
    if (NR == 0) { print "nan"; exit }
    i = int(NR * p / 100 + 0.999999); if (i < 1) i = 1; if (i > NR) i = NR; print v[i] }'
}
quiet_s=$(awk -v q="$quiet_ms" 'BEGIN { printf "%.1f", q / 1000 }')

if want latency; then
echo "== 1. latency of $changes single changes, one every $gap_ms ms, then $isolated one at a time (quiet $quiet_s s) =="
"$probe" latency "$url" "$sid" "$db" "$home" 0 "$((changes + isolated))" -1 "$alice"
sleep 1
wait_idle
p0=$(passes)
"$probe" latency "$url" "$sid" "$db" "$home" 0 "$changes" "$gap_ms" "$alice" >/tmp/latency
p1=$(passes)
wait_idle
grep -v '^missed' /tmp/latency >/tmp/latency-seen || true
missed=$(grep -c '^missed' /tmp/latency || true)
p50=$(percentile /tmp/latency-seen 50) p99=$(percentile /tmp/latency-seen 99)
echo "p50 $p50 s, p99 $p99 s (new files $(grep ' new$' /tmp/latency-seen | percentile /dev/stdin 50) s," \
  "new content $(grep ' rewrite$' /tmp/latency-seen | percentile /dev/stdin 50) s);" \
  "$((p1 - p0)) passes; $missed missed"
# One at a time: the numbers go on after the ones above, so that the files
# of odd changes are the ones made beforehand.
"$probe" latency "$url" "$sid" "$db" "$home" "$changes" "$isolated" 0 "$alice" >/tmp/latency-iso
grep -v '^missed' /tmp/latency-iso >/tmp/latency-iso-seen || true
missed_iso=$(grep -c '^missed' /tmp/latency-iso || true)
iso50=$(percentile /tmp/latency-iso-seen 50) iso99=$(percentile /tmp/latency-iso-seen 99)
echo "one at a time: p50 $iso50 s, p99 $iso99 s; $missed_iso missed"
target=$(awk -v q="$quiet_ms" 'BEGIN { print q / 1000 + 1 }')
row "latency p50, one every $gap_ms ms" "$p50 s" "quiet $quiet_s s" \
  "$(awk -v a="$p50" -v q="$quiet_ms" 'BEGIN { printf "quiet %+.2f s", a - q / 1000 }')" \
  "<= quiet + 1 s" "$(verdict "$p50" "<=" "$target")"
row "latency p99, one every $gap_ms ms" "$p99 s" "" "" "(none)" "-"
row "latency p50, one at a time" "$iso50 s" "quiet $quiet_s s" \
  "$(awk -v a="$iso50" -v q="$quiet_ms" 'BEGIN { printf "quiet %+.2f s", a - q / 1000 }')" \
  "<= quiet + 1 s" "$(verdict "$iso50" "<=" "$target")"
row "latency p99, one at a time" "$iso99 s" "" "" "(none)" "-"
row "changes never versioned" "$((missed + missed_iso))" "of $((changes + isolated))" "" "0" \
  "$(verdict "$((missed + missed_iso))" "==" 0)"

fi
# The daemon's own CPU ticks, and those of its passes (children it waited for).
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$pid/stat"; }
child_ticks() { awk '{ print $16 + $17 }' "/proc/$pid/stat"; }
# Those of the children this shell waited for, such as a scan by hand.
own_child_ticks() { awk '{ print $16 + $17 }' "/proc/$$/stat"; }
ticks_s() { awk -v a="$1" -v b="$2" -v t="$(getconf CLK_TCK)" 'BEGIN { printf "%.2f", (b - a) / t }'; }
# A burst of files in ORDER (tree or spread, see bench_watch_probe) into
# /NAME watched, then into /NAME-ref with the daemon stopped and scanned by
# hand; adds a row, the watched time judged against the other one.
burst_case() {  # NAME ORDER LABEL
  local t0 t_last t1 p0 p1 c0 c1 k0 k1 watch_s ref_s ratio
  wait_idle
  p0=$(passes) c0=$(cpu_ticks) k0=$(child_ticks)
  t0=$(now)
  "$probe" files "$home/$1" "$burst" 100 4096 16384 7 "$alice" "$2"
  t_last=$(now)
  t1=$("$probe" wait-count "$db" "/$1" $((burst + 100)) 600)
  wait_idle
  p1=$(passes) c1=$(cpu_ticks) k1=$(child_ticks)
  watch_s=$(secs "$t0" "$t1")
  echo "watched: $watch_s s from the first write ($(secs "$t0" "$t_last") s of writing," \
    "$(secs "$t_last" "$t1") s after the last); $((p1 - p0)) passes; daemon CPU" \
    "$(ticks_s "$c0" "$c1") s, its passes $(ticks_s "$k0" "$k1") s"
  "$control" service --stop >/dev/null
  sync
  t0=$(now)
  "$probe" files "$home/$1-ref" "$burst" 100 4096 16384 7 "$alice" "$2"
  t_last=$(now)
  k0=$(own_child_ticks)
  "$control" scan --view "$view" --client driftway >/dev/null
  k1=$(own_child_ticks)
  t1=$(now)
  ref_s=$(secs "$t0" "$t1")
  echo "daemon stopped: $ref_s s from the first write ($(secs "$t0" "$t_last") s of writing," \
    "scan $(secs "$t_last" "$t1") s, its CPU $(ticks_s "$k0" "$k1") s)"
  "$probe" wait-count "$db" "/$1-ref" $((burst + 100)) 5 >/dev/null
  "$control" service --start >/dev/null
  pid=$(status | sed -n 's/^driftway: running (pid \([0-9]*\)).*/\1/p')
  wait_idle
  ratio=$(awk -v a="$watch_s" -v b="$ref_s" 'BEGIN { printf "%.2f", a / b }')
  # The quiet is waited out after the last write whatever the pass costs:
  # the ratio without it shows the pass against the scan.
  row "burst of $burst files, $3" "$watch_s s" "write + scan $ref_s s" \
    "${ratio}x ($(awk -v a="$watch_s" -v b="$ref_s" -v q="$quiet_ms" \
      'BEGIN { printf "%.2f", (a - q / 1000) / b }')x less quiet)" "<= 1.2x" \
    "$(verdict "$ratio" "<=" 1.2)"
}
if want burst; then
echo "== 2a. a burst of $burst new files of 4-16 KiB, 100 folders one after another =="
burst_case burst tree "folder by folder"
echo "== 2b. the same, every file into the next of the 100 folders =="
burst_case spread spread "all folders at once"
fi

if want rewrites; then
echo "== 3. $rewrites rewrites of a 100 MiB file =="
big=$home/big.bin
"$data" random "$big" 100 5
chown "$alice:100" "$big"
"$probe" wait-version "$url" "$sid" "$db" /big.bin "$(sha256sum "$big" | cut -d' ' -f1)" 120 >/dev/null
wait_idle
p0=$(passes)
RANDOM=3
t0=$(now)
for ((i = 0; i < rewrites; i++)); do
  dd if=/dev/urandom of="$big" bs=1M count=1 seek=$(((RANDOM << 15 | RANDOM) % (99 << 20))) \
    oflag=seek_bytes conv=notrunc status=none
done
t_last=$(now)
read -r t1 versions < <("$probe" wait-version "$url" "$sid" "$db" /big.bin \
  "$(sha256sum "$big" | cut -d' ' -f1)" 300)
wait_idle
p1=$(passes)
made=$((versions - 1))
echo "$rewrites rewrites in $(secs "$t0" "$t_last") s; the last one visible $(secs "$t_last" "$t1") s" \
  "after it ($(secs "$t0" "$t1") s from the first); $made versions made, $((p1 - p0)) passes"
row "$rewrites rewrites of 100 MiB" "$(secs "$t_last" "$t1") s after the last" \
  "quiet $quiet_s s" "" "(none)" "-"
row "versions made by them" "$made" "" "" "1" "$(verdict "$made" "==" 1)"

echo "== 3b. a file written for 6 s in one open while a file elsewhere changes once =="
# Its folder is never quiet until the close, so one version is right; a
# pass started for the other change must not take it along half written.
mkdir -p "$home/grow/a" "$home/grow/b"
chown -R "$alice:100" "$home/grow"
sleep 1
wait_idle
p0=$(passes)
echo once >"$home/grow/a/once.txt"
exec {grow}>"$home/grow/b/grow.bin"
for ((i = 0; i < 20; i++)); do
  head -c 65536 /dev/urandom >&"$grow"
  sleep 0.3
done
exec {grow}>&-
read -r _ grow_versions < <("$probe" wait-version "$url" "$sid" "$db" /grow/b/grow.bin \
  "$(sha256sum "$home/grow/b/grow.bin" | cut -d' ' -f1)" 120)
wait_idle
p1=$(passes)
echo "versions of the file: $grow_versions; $((p1 - p0)) passes"
row "versions of a file written for 6 s" "$grow_versions" "a change elsewhere" "" "1" \
  "$(verdict "$grow_versions" "==" 1)"

fi
if want idle; then
echo "== 4./5. $idle_files more files in $idle_folders folders watched =="
rss_kib() { awk '/^VmRSS/ { print $2 }' "/proc/$pid/status"; }
# The watches of the daemon's inotify descriptors (one line each), if the
# kernel shows them.
watches() {
  local fd n=0
  for fd in /proc/"$pid"/fdinfo/*; do
    n=$((n + $(grep -c '^inotify wd:' "$fd" 2>/dev/null || true)))
  done
  echo "$n"
}
folders() { status | awk '$1 == "watching" { n += $5 } END { print n + 0 }'; }
rss0=$(rss_kib) w0=$(watches) f0=$(folders)
p0=$(passes)
t0=$(now)
"$probe" files "$home/idle" "$idle_files" "$idle_folders" 64 256 11 "$alice" tree
t1=$("$probe" wait-count "$db" /idle $((idle_files + idle_folders)) 900)
wait_idle
p1=$(passes)
echo "$idle_files files versioned $(secs "$t0" "$t1") s from the first write; $((p1 - p0)) passes"
sleep 2
rss1=$(rss_kib) w1=$(watches) f1=$(folders)
# Voluntary switches per thread: "NAME COUNT" lines.
wakes() {
  local t
  for t in /proc/"$pid"/task/*; do
    printf '%s %s\n' "$(tr ' ' _ <"$t/comm")" "$(awk '/^voluntary_ctxt_switches/ { print $2 }' "$t/status")"
  done | sort
}
c0=$(cpu_ticks)
wakes >/tmp/wakes0
sleep "$idle_s"
c1=$(cpu_ticks)
wakes >/tmp/wakes1
idle_cpu=$(ticks_s "$c0" "$c1")
idle_wakes=$(($(awk '{ s += $2 } END { print s + 0 }' /tmp/wakes1) - $(awk '{ s += $2 } END { print s + 0 }' /tmp/wakes0)))
per_min=$(awk -v w="$idle_wakes" -v s="$idle_s" 'BEGIN { printf "%.1f", w * 60 / s }')
echo "idle $idle_s s: CPU $idle_cpu s, $idle_wakes wake-ups; by thread:" \
  "$(join /tmp/wakes0 /tmp/wakes1 2>/dev/null | awk '{ printf "%s %d, ", $1, $3 - $2 }')"
echo "watched folders $f0 -> $f1, inotify watches $w0 -> $w1, RSS $rss0 -> $rss1 KiB"
row "idle $idle_s s, $f1 folders" "CPU $idle_cpu s" "" "" "(none)" "-"
row "idle wake-ups" "$per_min / min" "$idle_wakes in $idle_s s" "" "<= 10 / min" \
  "$(verdict "$per_min" "<=" 10)"
added=$((f1 - f0))
per_folder=$(awk -v a="$rss0" -v b="$rss1" -v n="$added" 'BEGIN {
  if (n <= 0) { print "n/a"; exit } printf "%.0f", (b - a) * 1024 / n }')
row "RSS per watched folder" "$per_folder B" "RSS $rss0 -> $rss1 KiB" \
  "$added folders, $((w1 - w0)) watches" "(none)" "-"

fi

echo "== summary (quiet $quiet_s s) =="
{
  printf 'case\tfigure\treference\tratio\ttarget\tresult\n'
  printf '%s\n' "${rows[@]}"
} | column -t -s $'\t'
