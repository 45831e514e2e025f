#!/usr/bin/env bash
# Restore speed through the web API (Node.Restore start until the task that
# status reports reads current == total), each figure beside references
# measured in the same run on the same bytes:
#   1. a 1 GiB file at the end of a chain of 8 deltas (9 scans, ~1% of the
#      bytes changed each time), copied out: against cp, openssl's SHA-256
#      pass and rdiff-backup restoring the same version of the same history;
#   2. a folder of 20,000 files of 4-64 KiB, copied out onto ext4 and onto a
#      tmpfs (the engine's own cost per file): against cp -r and rdiff-backup;
#   3. a 1 GiB live-file version (nothing stored), copied out on btrfs (clone)
#      and on ext4 (copy): against the SHA-256 pass over the same file.
# Every timed step starts after `sync`, with its inputs in the page cache
# (warm, for the engine and the references alike), and ends without a sync;
# each figure is the better of two runs.
set -euo pipefail
shopt -s inherit_errexit
build=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=bench-server.sh
. "$here/bench-server.sh"
# shellcheck source=volumes.sh
. "$here/volumes.sh"
data="$build/bench/bench_restore_data"
admin=/usr/kstx/bin/kstx-admin
big_mib=${BENCH_BIG_MIB:-1024}
files=${BENCH_SMALL_FILES:-20000}
deltas=8
home=/volume1/homes/alice/Tidepool
work=/volume1/bench-work
landing=/volume1/landing
setting=/var/packages/Tidepool/etc/setting.conf

cleanup() {
  lighttpd_stop
  "$control" service --stop >/dev/null 2>&1 || true
  umount "$landing/ram" 2>/dev/null || true
  if findmnt --noheadings --mountpoint /volume2 --output SOURCE | grep -q '^/dev/loop'; then
    remove_loop_volume /volume2 || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# The btrfs volume goes under /volume2 before anything is seeded there.
make_loop_volume btrfs $((big_mib * 3)) /volume2
"$here/seed-demo.sh"
"$control" service --start >/dev/null
bench_server_start
# One origin and 8 deltas: a chain this long is allowed, the 9th version is its end.
printf 'max_delta_chain="%s"\n' "$deltas" >> "$setting"
alice=$("$admin" user list | awk -F'\t' '$2 == "alice" { print $1 }')
own() { chown -R "$alice:100" "$@"; }
# A share alice may write that the service does not version: copies land there.
"$admin" share add landing --volume /volume1 >/dev/null
"$admin" share perm landing alice rw >/dev/null
mkdir -p "$work" "$home"
read -r sid token < <(bench_login alice alice-demo) || true
[ -n "${token:-}" ] || exit 1

now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
timed() { local t0 t1; sync; t0=$(now); "$@" >/dev/null; t1=$(now); secs "$t0" "$t1"; }
sha() { sha256sum "$1" | cut -d' ' -f1; }
warm() { find "$@" -type f -exec cat {} + >/dev/null; }
scan_at=$(($(date +%s) - 86400 / 2))
scan() { scan_at=$((scan_at + 600)); "$control" scan --at "$scan_at" >/dev/null; }

call() {  # API METHOD JSON-BODY
  local answer
  answer=$(curl -s -b "id=$sid" -H "X-Tidepool-Token: $token" \
    -H 'Content-Type: application/json' --data-binary "$3" \
    "http://127.0.0.1:$port/webapi/entry.cgi?api=KSTX.Tidepool.$1&method=$2&version=1")
  case "$answer" in
    *'"success":true'*) printf '%s\n' "$answer" ;;
    *) echo "$1 $2 failed: ${answer:0:400}" >&2; return 1 ;;
  esac
}
# The restore node of the newest version of the file PATH in TARGET.
file_node() {
  call Node list_version "$(jq -cn --arg t "$1" --arg p "$2" '{target: $t, path: $p}')" |
    jq -c --arg p "$2" '.data as $d | ($d.items | max_by(.sync_id)) as $v
      | [{node_id: ($v.node_id | tostring), permanent_id: $d.permanent_id,
          sync_id: ($v.sync_id | tostring), ver_ctime_upper_bound: 0, file_type: 0,
          path: $p, name: ($p | split("/") | last), is_removed: false, hash: $v.hash}]'
}
# The restore node of the folder NAME under the root of TARGET.
folder_node() {
  call Node list "$(jq -cn --arg t "$1" '{target: $t, sort_by: "name", sort_direction: "ASC"}')" |
    jq -c --arg n "$2" '[.data.items[] | select(.name == $n)
      | {node_id, permanent_id, sync_id, ver_ctime_upper_bound: 0, file_type, path, name,
         is_removed}] | if length == 1 then . else error("no folder " + $n) end'
}
# The task record that status reads. The wait below looks at it every 10 ms
# without starting a process (a status call is a CGI process of ~100 ms that
# would compete with the restore for the 2 cores); status then confirms.
record=/tmp/tidepool-tasks/admin/dftw_restore_progress.json
mkfifo /tmp/bench-tick
exec {tick}<>/tmp/bench-tick
# Seconds from start until the task reads current == total, copying NODES of
# TARGET to COPY_TO.
restore() {
  local body text status t0 t1 current=-1 total=-2 looks=0
  body=$(jq -cn --arg t "$1" --argjson n "$2" --arg c "$3" \
    '{target: $t, nodes: ($n | map(del(.hash))), copy_to: $c, override: true}')
  sync
  t0=$(now)
  call Node.Restore start "$body" >/dev/null
  while :; do
    text=
    if [ -f "$record" ]; then read -r -d '' text <"$record" || true; fi
    [[ $text =~ \"current\":([0-9]+) ]] && current=${BASH_REMATCH[1]}
    [[ $text =~ \"total\":([0-9]+) ]] && total=${BASH_REMATCH[1]}
    [ "$current" = "$total" ] && break
    case "$text" in *'"error":'*) call Node.Restore status '{}' >/dev/null; return 1 ;; esac
    # A stuck task ends the run rather than hanging it (10 minutes).
    if [ $((looks += 1)) -gt 60000 ]; then echo "restore stuck at $current of $total" >&2; return 1; fi
    read -r -t 0.01 -u "$tick" || true
  done
  t1=$(now)
  status=$(call Node.Restore status '{}')
  [ "$(jq '.data.current == .data.total' <<<"$status")" = true ] || {
    echo "status disagrees with the task record: $status" >&2; return 1; }
  call Node.Restore finish '{}' >/dev/null
  echo "  restored $current of $total progress units in $(secs "$t0" "$t1") s" >&2
  secs "$t0" "$t1"
}
# Every figure is the better of two runs, both printed: on a virtual machine a
# write() into page cache that no deleted file has freed before can cost ten
# times the second run's (dd shows it too; cp, which copies inside the
# kernel, does not).
min() { awk -v a="$1" -v b="$2" 'BEGIN { print (a < b) ? a : b }'; }
# restore twice into the emptied DEST; CHECK (a command) after each run.
restore2() {
  local a b
  a=$(restore "$1" "$2" "$3"); eval "$4"; find "$3" -mindepth 1 -delete
  b=$(restore "$1" "$2" "$3"); eval "$4"
  min "$a" "$b"
}
# COMMAND... twice, CLEAN (a command) after each run.
timed2() {
  local clean=$1 a b; shift
  a=$(timed "$@"); eval "$clean"
  b=$(timed "$@"); eval "$clean"
  echo "  ${1##*/} ${2:-}: $a s, $b s" >&2
  min "$a" "$b"
}
landing_dir() { mkdir -p "$1" && own "$1"; }
same_tree() { diff -rq --exclude=@eaDir "$1" "$2" >/dev/null || { echo "trees differ: $1 $2" >&2; return 1; }; }

rows=()
row() { rows+=("$(printf '%s\t' "$@")"); }
verdict() { awk -v v="$1" -v op="$2" -v t="$3" 'BEGIN {
  ok = (op == ">=") ? v >= t : (op == "<=") ? v <= t : v < t; print ok ? "pass" : "FAIL" }'; }

echo "== restore 1: ${big_mib} MiB at the end of a chain of $deltas deltas =="
chain=$home/chain
mkdir -p "$chain"
"$data" random "$chain/big.bin" "$big_mib" 1
own "$chain"
rdiff_backup() { rdiff-backup --no-fsync --terminal-verbosity 1 "$@"; }
for ((v = 0; v <= deltas; v++)); do
  if [ "$v" -gt 0 ]; then "$data" mutate "$chain/big.bin" $((v + 1)); fi
  scan_at_next=$((scan_at + 600))
  touch -d "@$scan_at_next" "$chain/big.bin"
  # Each version into rdiff-backup's repository too, alongside the scan.
  rdiff_backup --current-time "$scan_at_next" backup "$chain" "$work/rdiff-chain" &
  backup=$!
  scan
  wait "$backup"
done
chain_at=$scan_at
echo "store: $(find /volume1/@tidepool/@sync/delta -type f | wc -l) delta pieces," \
  "$(du -sm /volume1/@tidepool/@sync/delta | cut -f1) MiB"
node=$(file_node mine /chain/big.bin)
want=$(jq -r '.[0].hash' <<<"$node")
[ "$want" = "$(sha "$chain/big.bin")" ] || { echo "newest version's hash is not the file's" >&2; exit 1; }
landing_dir "$landing/chain"
warm /volume1/@tidepool/@sync "$chain"
check_sha() {
  local got; got=$(sha "$1")
  [ "$got" = "$2" ] || { echo "$1: SHA-256 $got, the version's $2" >&2; return 1; }
}
restore_s=$(restore2 mine "$node" "$landing/chain" 'check_sha "$landing/chain/big.bin" "$want"')
find "$landing/chain" -mindepth 1 -delete
# The floor of one call (request, checks, fork, task record; the child works
# while start has not answered yet): a file of a few bytes from the demo.
tiny=$(file_node mine /projects/plan.txt)
tiny_want=$(jq -r '.[0].hash' <<<"$tiny")
tiny_s=$(restore2 mine "$tiny" "$landing/chain" 'check_sha "$landing/chain/plan.txt" "$tiny_want"')
rm -rf "$landing/chain"
cp_s=$(timed2 'rm -f "$work/cp.bin"' cp "$chain/big.bin" "$work/cp.bin")
hash_s=$(timed2 : openssl dgst -sha256 "$chain/big.bin")
warm "$work/rdiff-chain"
rdiff_s=$(timed2 'check_sha "$work/rdiff-out/big.bin" "$want" && rm -rf "$work/rdiff-out"' \
  rdiff_backup restore --at "$chain_at" "$work/rdiff-chain" "$work/rdiff-out")
# rdiff-backup keeps the newest whole; its oldest version is the end of its chain.
rdiff_old_s=$(timed rdiff_backup restore --at "$((chain_at - deltas * 600))" "$work/rdiff-chain" "$work/rdiff-out")
rm -rf "$work/rdiff-out" "$work/rdiff-chain" "$chain"
awk -v m="$big_mib" -v r="$restore_s" -v c="$cp_s" -v h="$hash_s" -v d="$rdiff_s" -v o="$rdiff_old_s" \
    -v t="$tiny_s" 'BEGIN {
  printf "Restore copy_to (API)             %7.3f s %7.0f MiB/s  %3.0f%% of cp\n", r, m / r, 100 * c / r
  printf "Restore copy_to of a tiny file    %7.3f s  (the floor of one call)\n", t
  printf "cp                                %7.3f s %7.0f MiB/s\n", c, m / c
  printf "openssl dgst -sha256              %7.3f s %7.0f MiB/s\n", h, m / h
  printf "rdiff-backup restore, same version %6.3f s %7.0f MiB/s  (its newest: a whole copy)\n", d, m / d
  printf "rdiff-backup restore, oldest      %7.3f s %7.0f MiB/s  (end of its reverse chain)\n", o, m / o }'
pct=$(awk -v r="$restore_s" -v c="$cp_s" 'BEGIN { printf "%.0f", 100 * c / r }')
row "$big_mib MiB, $deltas-delta chain, ext4" \
  "$(awk -v m="$big_mib" -v r="$restore_s" 'BEGIN { printf "%.0f MiB/s", m / r }')" \
  "$(awk -v m="$big_mib" -v c="$cp_s" 'BEGIN { printf "cp %.0f MiB/s", m / c }')" \
  "$pct% of cp" ">= 35% of cp" "$(verdict "$pct" ">=" 35)"

echo "== restore 2: $files files of 4-64 KiB in nested folders =="
"$data" tree "$home/tree" "$files" 7
own "$home/tree"
scan
node=$(folder_node mine tree)
tree_mib=$(du -sm "$home/tree" | cut -f1)
warm /volume1/@tidepool/@sync "$home/tree"
landing_dir "$landing/ext4"
ext4_s=$(restore2 mine "$node" "$landing/ext4" 'same_tree "$home/tree" "$landing/ext4/tree"')
rm -rf "$landing/ext4"
landing_dir "$landing/ram"
mount -t tmpfs -o "size=$((tree_mib * 2 + 64))m,mode=0755,uid=$alice,gid=100" tmpfs "$landing/ram"
ram_s=$(restore2 mine "$node" "$landing/ram" 'same_tree "$home/tree" "$landing/ram/tree"')
find "$landing/ram" -mindepth 1 -delete
cpr_s=$(timed2 'rm -rf "$work/cp-tree"' cp -r "$home/tree" "$work/cp-tree")
cpr_ram_s=$(timed2 'rm -rf "$landing/ram/cp-tree"' cp -r "$home/tree" "$landing/ram/cp-tree")
umount "$landing/ram"
rdiff_backup backup "$home/tree" "$work/rdiff-tree"
warm "$work/rdiff-tree"
rdiff_tree_s=$(timed2 'same_tree "$home/tree" "$work/rdiff-tree-out" && rm -rf "$work/rdiff-tree-out"' \
  rdiff_backup restore "$work/rdiff-tree" "$work/rdiff-tree-out")
rm -rf "$work/rdiff-tree"
awk -v n="$files" -v mib="$tree_mib" -v e="$ext4_s" -v r="$ram_s" -v c="$cpr_s" -v cr="$cpr_ram_s" \
    -v d="$rdiff_tree_s" 'BEGIN {
  printf "(%d MiB in all)\n", mib
  printf "Restore copy_to ext4 (API)  %7.3f s %7.0f files/s\n", e, n / e
  printf "Restore copy_to tmpfs (API) %7.3f s %7.0f files/s %6.1f us/file\n", r, n / r, 1e6 * r / n
  printf "cp -r to ext4               %7.3f s %7.0f files/s\n", c, n / c
  printf "cp -r to tmpfs              %7.3f s %7.0f files/s %6.1f us/file\n", cr, n / cr, 1e6 * cr / n
  printf "rdiff-backup restore, ext4  %7.3f s %7.0f files/s\n", d, n / d }'
ext4_fps=$(awk -v n="$files" -v e="$ext4_s" 'BEGIN { printf "%.0f", n / e }')
ram_us=$(awk -v n="$files" -v r="$ram_s" 'BEGIN { printf "%.1f", 1e6 * r / n }')
row "$files files, ext4" "$ext4_fps files/s" \
  "$(awk -v n="$files" -v c="$cpr_s" 'BEGIN { printf "cp -r %.0f files/s", n / c }')" \
  "$(awk -v e="$ext4_s" -v c="$cpr_s" 'BEGIN { printf "%.2fx cp -r", c / e }')" \
  ">= 2000 files/s" "$(verdict "$ext4_fps" ">=" 2000)"
row "$files files, tmpfs" "$ram_us us/file" \
  "$(awk -v n="$files" -v c="$cpr_ram_s" 'BEGIN { printf "cp -r %.1f us/file", 1e6 * c / n }')" \
  "$(awk -v r="$ram_s" -v c="$cpr_ram_s" 'BEGIN { printf "%.1fx cp -r", r / c }')" \
  "<= 100 us/file" "$(verdict "$ram_us" "<=" 100)"

echo "== restore 3: ${big_mib} MiB live-file version (nothing stored) =="
# Files from half the size up stand as their own version.
printf 'live_version_min_size="%s"\n' $(((big_mib << 20) / 2)) >> "$setting"
"$admin" share add pool --volume /volume2 >/dev/null
"$admin" share perm pool alice rw >/dev/null
"$admin" share add landing2 --volume /volume2 >/dev/null
"$admin" share perm landing2 alice rw >/dev/null
"$control" share --enable pool >/dev/null
mkdir -p "$home/live"
"$data" random "$home/live/big.bin" "$big_mib" 11
"$data" random /volume2/pool/big.bin "$big_mib" 11
own "$home/live" /volume2/pool/big.bin
scan
want=$(sha "$home/live/big.bin")
# Bytes of FILE whose extents another file shares: all of them after a clone.
shared_bytes() { btrfs filesystem du -s --raw "$1" | awk 'NR == 2 { print $3 }'; }

node=$(file_node @pool /big.bin)
[ "$(jq -r '.[0].hash' <<<"$node")" = "$want" ] || { echo "live version's hash is not the file's" >&2; exit 1; }
landing_dir /volume2/landing2/out
check_clone() {
  sync
  shared_bytes /volume2/landing2/out/big.bin >/tmp/bench-shared
  echo "  $(</tmp/bench-shared) of $((big_mib << 20)) bytes shared with the live file" >&2
  check_sha /volume2/landing2/out/big.bin "$want"
}
btrfs_s=$(restore2 @pool "$node" /volume2/landing2/out check_clone)
hash_btrfs_s=$(timed2 : openssl dgst -sha256 /volume2/pool/big.bin)

node=$(file_node mine /live/big.bin)
landing_dir "$landing/live"
ext4_live_s=$(restore2 mine "$node" "$landing/live" 'check_sha "$landing/live/big.bin" "$want"')
rm -rf "$landing/live"
hash_ext4_s=$(timed2 : openssl dgst -sha256 "$home/live/big.bin")
cp_live_s=$(timed2 'rm -f "$work/cp.bin"' cp "$home/live/big.bin" "$work/cp.bin")
awk -v b="$btrfs_s" -v hb="$hash_btrfs_s" -v e="$ext4_live_s" -v he="$hash_ext4_s" -v c="$cp_live_s" 'BEGIN {
  printf "Restore copy_to btrfs, clone (API) %7.3f s  %.2fx the hash pass\n", b, b / hb
  printf "openssl dgst -sha256 on btrfs      %7.3f s\n", hb
  printf "Restore copy_to ext4, copy (API)   %7.3f s  %.2fx the hash pass\n", e, e / he
  printf "openssl dgst -sha256 on ext4       %7.3f s\n", he
  printf "cp on ext4                         %7.3f s\n", c }'
clone_x=$(awk -v b="$btrfs_s" -v h="$hash_btrfs_s" 'BEGIN { printf "%.2f", b / h }')
route=clone
[ "$(</tmp/bench-shared)" = $((big_mib << 20)) ] || route="copy, no clone"
row "$big_mib MiB live file, btrfs $route" "$btrfs_s s" "sha256 $hash_btrfs_s s" "${clone_x}x hash" \
  "< 1.2x hash" "$(verdict "$clone_x" "<" 1.2)"
row "$big_mib MiB live file, ext4 copy" "$ext4_live_s s" "sha256 $hash_ext4_s s" \
  "$(awk -v e="$ext4_live_s" -v h="$hash_ext4_s" 'BEGIN { printf "%.2fx hash", e / h }')" \
  "(none)" "-"

echo "== summary (warm page cache, no sync inside any timing, best of 2 runs) =="
{
  printf 'case\tfigure\treference\tratio\ttarget\tresult\n'
  printf '%s\n' "${rows[@]}"
} | column -t -s $'\t'
