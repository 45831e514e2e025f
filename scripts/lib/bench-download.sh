#!/usr/bin/env bash
# Download speed through the web API and lighttpd, to a client that discards
# the bytes (curl -o /dev/null), each figure beside references measured in
# the same run on the same bytes, in the page cache:
#   1. an archive of a folder of 1 GiB in 1,000 files;
#   2. an archive of a folder of 20,000 files of 4-64 KiB;
#   3. one 1 GiB file whose version is the end of a chain of 8 deltas.
# For each: the preparation (Node.Download start until the task reads
# current == total); `finish`: the time to its first byte and the body's
# throughput over its whole time; the peak RSS of entry.cgi while it sends.
# References: `zip -0` and `tar cf` of the same tree into a pipe, `cat` of the
# same file into a pipe, lighttpd serving the same file statically, a CGI
# that only copies the same file (the ceiling of lighttpd's CGI route), and
# bench_archive_writers on both trees when that program is built.
#
# Peak RSS: every ~20 ms, while `finish` runs, the children of lighttpd named
# entry.cgi are read from /proc/<lighttpd>/task/<lighttpd>/children and their
# VmHWM (the kernel's high-water mark of the resident set) from
# /proc/<pid>/status, and the highest value is kept; the same for the
# processes entry.cgi starts (an archiver). VmHWM only grows, so a 20 ms
# sampling misses nothing but the growth of a process's last 20 ms.
#
# Every timed step starts after `sync`, with its inputs warm in the page cache,
# and ends without a sync; each time is the better of two runs, the peak RSS
# the higher. A third, untimed download of each case is checked: the archive
# unpacked is the tree, the file hashes to the version's SHA-256.
#
# Knobs for a quick try: BENCH_BIG_MIB (1024), BENCH_BIG_FILES (1000),
# BENCH_SMALL_FILES (20000).
set -euo pipefail
shopt -s inherit_errexit
build=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=bench-server.sh
. "$here/bench-server.sh"
data="$build/bench/bench_restore_data"
admin=/usr/kstx/bin/kstx-admin
big_mib=${BENCH_BIG_MIB:-1024}
big_files=${BENCH_BIG_FILES:-1000}
files=${BENCH_SMALL_FILES:-20000}
deltas=8
home=/volume1/homes/alice/Tidepool
work=/volume1/bench-work
docroot=/var/packages/Tidepool/target/ui/web
setting=/var/packages/Tidepool/etc/setting.conf

cleanup() {
  [ -z "${watcher:-}" ] || kill "$watcher" 2>/dev/null || true
  lighttpd_stop
  "$control" service --stop >/dev/null 2>&1 || true
  rm -rf "$work" "$docroot/bench-big.bin"
}
trap cleanup EXIT

bench_service_start
trap cleanup EXIT
bench_server_start
printf 'max_delta_chain="%s"\n' "$deltas" >>"$setting"
alice=$("$admin" user list | awk -F'\t' '$2 == "alice" { print $1 }')
own() { chown -R "$alice:100" "$@"; }
mkdir -p "$work" "$home"
read -r sid token < <(bench_login alice alice-demo) || true
[ -n "${token:-}" ] || exit 1
url="http://127.0.0.1:$port/webapi/entry.cgi"

now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
timed() { local t0 t1; sync; t0=$(now); "$@" >/dev/null; t1=$(now); secs "$t0" "$t1"; }
min() { awk -v a="$1" -v b="$2" 'BEGIN { print (a < b) ? a : b }'; }
max() { awk -v a="$1" -v b="$2" 'BEGIN { print (a > b) ? a : b }'; }
warm() { find "$@" -type f -exec cat {} + >/dev/null; }
scan_at=$(($(date +%s) - 86400 / 2))
scan() { scan_at=$((scan_at + 600)); "$control" scan --at "$scan_at" >/dev/null; }

call() {  # API METHOD JSON-BODY
  local answer
  answer=$(curl -s -b "id=$sid" -H "X-Tidepool-Token: $token" \
    -H 'Content-Type: application/json' --data-binary "$3" \
    "$url?api=KSTX.Tidepool.$1&method=$2&version=1")
  case "$answer" in
    *'"success":true'*) printf '%s\n' "$answer" ;;
    *) echo "$1 $2 failed: ${answer:0:400}" >&2; return 1 ;;
  esac
}
# The download node of the newest version of the file PATH in TARGET.
file_node() {
  call Node list_version "$(jq -cn --arg t "$1" --arg p "$2" '{target: $t, path: $p}')" |
    jq -c --arg p "$2" '.data as $d | ($d.items | max_by(.sync_id)) as $v
      | [{node_id: ($v.node_id | tostring), permanent_id: $d.permanent_id,
          sync_id: ($v.sync_id | tostring), ver_ctime_upper_bound: 0, file_type: 0,
          path: $p, name: ($p | split("/") | last), is_removed: false, hash: $v.hash}]'
}
# The download node of the folder NAME under the root of TARGET.
folder_node() {
  call Node list "$(jq -cn --arg t "$1" '{target: $t, sort_by: "name", sort_direction: "ASC"}')" |
    jq -c --arg n "$2" '[.data.items[] | select(.name == $n)
      | {node_id, permanent_id, sync_id, ver_ctime_upper_bound: 0, file_type, path, name,
         is_removed}] | if length == 1 then . else error("no folder " + $n) end'
}

# The folders of finished downloads: the daemon removes each a minute after
# its answer, which would land inside a later timing; they go before each one.
drop_task_folders() { rm -rf /volume1/@tmp/Tidepool.*; }

# A tick to sleep on without starting a process (sleep would be one per look).
mkfifo /tmp/bench-tick
exec {tick}<>/tmp/bench-tick
# Starts a download of NODES in alice's home and waits until its task record
# reads current == total; prints "TASK_ID SECONDS". The record is read every
# 10 ms without starting a process (a status call is a CGI process that would
# compete with the preparation for the cores); status then confirms.
prepare() {
  local body answer id t0 ta t1 text rec current=-1 total=-2 looks=0
  body=$(jq -cn --argjson n "$1" '{target: "mine", nodes: ($n | map(del(.hash)))}')
  drop_task_folders
  sync
  t0=$(now)
  answer=$(call Node.Download start "$body")
  ta=$(now)
  [[ $answer =~ \"task_id\":(-?[0-9]+) ]] || { echo "start answered no task_id: $answer" >&2; return 1; }
  id=${BASH_REMATCH[1]}
  while :; do
    text=
    for rec in /tmp/tidepool-tasks/*/dftw_download_progress.json; do
      if [ -f "$rec" ]; then read -r -d '' text <"$rec" || true; fi
    done
    if [[ $text =~ \"task_id\":\ *${id}[^0-9] ]]; then
      [[ $text =~ \"current\":\ *([0-9]+) ]] && current=${BASH_REMATCH[1]}
      [[ $text =~ \"total\":\ *([0-9]+) ]] && total=${BASH_REMATCH[1]}
      [ "$current" = "$total" ] && break
      case "$text" in *'"error":'*) call Node.Download status '{}' >/dev/null; return 1 ;; esac
    fi
    # A stuck task ends the run rather than hanging it (10 minutes).
    if [ $((looks += 1)) -gt 60000 ]; then echo "download stuck at $current of $total" >&2; return 1; fi
    read -r -t 0.01 -u "$tick" || true
  done
  t1=$(now)
  answer=$(call Node.Download status '{}')
  [ "$(jq '.data.current == .data.total' <<<"$answer")" = true ] || {
    echo "status disagrees with the task record: $answer" >&2; return 1; }
  echo "  prepared $current of $total progress units in $(secs "$t0" "$t1") s" \
    "(start answered after $(secs "$t0" "$ta") s)" >&2
  echo "$id $(secs "$t0" "$t1")"
}

# Until the file /tmp/bench-rss-stop appears, follows the peak VmHWM in KiB of
# lighttpd's entry.cgi children and of any process they start; then writes
# "CGI STARTED" into FILE. Only bash builtins in the loop.
rss_watch() {
  local out=$1 cgi=0 kids=0 pids kid_pids queue pid kid name hwm key value rest
  hwm_of() {  # PID: sets name and hwm
    name='' hwm=0
    while read -r key value rest; do
      case "$key" in Name:) name=$value ;; VmHWM:) hwm=$value ;; esac
    done 2>/dev/null <"/proc/$1/status" || true
  }
  while [ ! -e /tmp/bench-rss-stop ]; do
    pids=()
    read -r -a pids 2>/dev/null <"/proc/$LIGHTTPD_PID/task/$LIGHTTPD_PID/children" || true
    for pid in "${pids[@]}"; do
      hwm_of "$pid"
      [ "$name" = entry.cgi ] || continue
      if [ "$hwm" -gt "$cgi" ]; then cgi=$hwm; fi
      # Its descendants, all the way down (a shell between it and a program).
      queue=("$pid")
      while [ ${#queue[@]} -gt 0 ]; do
        kid=${queue[-1]}
        unset 'queue[-1]'
        kid_pids=()
        read -r -a kid_pids 2>/dev/null <"/proc/$kid/task/$kid/children" || true
        for kid in "${kid_pids[@]}"; do
          hwm_of "$kid"
          if [ "$hwm" -gt "$kids" ]; then kids=$hwm; fi
          queue+=("$kid")
        done
      done
    done
    read -r -t 0.02 -u "$tick" || true
  done
  echo "$cgi $kids" >"$out"
}

# `finish` of TASK_ID for NODES, the body into OUT; prints "TTFB TOTAL BYTES
# CGI_KIB CHILD_KIB". The answer's headers land in /tmp/bench-headers.
finish() {
  local body answer code ttfb total bytes cgi kids
  body=$(jq -cn --argjson id "$1" --argjson n "$2" \
    '{task_id: $id, nodes: ($n | map(del(.hash))), outname: "Tidepool"}')
  rm -f /tmp/bench-rss /tmp/bench-rss-stop
  rss_watch /tmp/bench-rss &
  watcher=$!
  answer=$(curl -sS -o "$3" -D /tmp/bench-headers -b "id=$sid" -H "X-Tidepool-Token: $token" \
    -H 'Content-Type: application/json' --data-binary "$body" \
    -w '%{http_code} %{time_starttransfer} %{time_total} %{size_download}' \
    "$url?api=KSTX.Tidepool.Node.Download&method=finish&version=1")
  : >/tmp/bench-rss-stop
  wait "$watcher"
  watcher=
  read -r cgi kids </tmp/bench-rss
  read -r code ttfb total bytes <<<"$answer"
  if [ "$code" != 200 ] || grep -qi '^X-KSTX-WEBAPI-DOWNLOAD-ERROR-CODE' /tmp/bench-headers; then
    echo "finish answered HTTP $code:" >&2
    cat /tmp/bench-headers >&2
    return 1
  fi
  echo "  finish: first byte $ttfb s, $bytes bytes in $total s, entry.cgi $cgi KiB," \
    "processes it starts $kids KiB" >&2
  echo "$ttfb $total $bytes $cgi $kids"
}
# The Content-Disposition of the last answer must name FILENAME.
check_name() {
  grep -i '^Content-Disposition:.*attachment' /tmp/bench-headers | grep -qF "\"$1\"" || {
    echo "the answer does not name $1 as an attachment:" >&2
    cat /tmp/bench-headers >&2
    return 1
  }
}

# Two timed downloads of NODES to /dev/null; sets prep, ttfb, total, bytes
# (the better of two) and cgi_kib, kids_kib (the higher).
measure() {
  local id p line t f b c k
  prep=999999 ttfb=999999 total=999999 cgi_kib=0 kids_kib=0
  for _ in 1 2; do
    line=$(prepare "$1")
    read -r id p <<<"$line"
    line=$(finish "$id" "$1" /dev/null)
    read -r t f b c k <<<"$line"
    check_name "$2"
    prep=$(min "$prep" "$p") ttfb=$(min "$ttfb" "$t") total=$(min "$total" "$f")
    cgi_kib=$(max "$cgi_kib" "$c") kids_kib=$(max "$kids_kib" "$k") bytes=$b
  done
}
# The archive of NODES, downloaded once more, unpacked must be TREE (whose
# folder name it holds at its top).
check_archive() {
  local id p line
  line=$(prepare "$1")
  read -r id p <<<"$line"
  finish "$id" "$1" "$work/check.zip" >/dev/null
  mkdir -p "$work/unpacked"
  unzip -q "$work/check.zip" -d "$work/unpacked"
  diff -r --exclude=@eaDir "$2" "$work/unpacked/$(basename "$2")" >/dev/null || {
    echo "the archive does not hold $2" >&2; return 1; }
  rm -rf "$work/check.zip" "$work/unpacked"
}
# The file of NODES, downloaded once more, must hash to SHA256.
check_file() {
  local id p got line
  line=$(prepare "$1")
  read -r id p <<<"$line"
  finish "$id" "$1" "$work/check.bin" >/dev/null
  got=$(sha256sum "$work/check.bin" | cut -d' ' -f1)
  rm -f "$work/check.bin"
  [ "$got" = "$2" ] || { echo "downloaded file: SHA-256 $got, the version's $2" >&2; return 1; }
}

# COMMAND... twice; the better time.
timed2() {
  local a b
  drop_task_folders
  a=$(timed "$@")
  b=$(timed "$@")
  echo "  $*: $a s, $b s" >&2
  min "$a" "$b"
}
zip_of() { (cd "$1" && zip -q -0 -r -y - . | cat >/dev/null); }
# Never tar straight to /dev/null: GNU tar notices and reads nothing.
tar_of() { (cd "$1" && tar cf - . | cat >/dev/null); }
# shellcheck disable=SC2002  # the pipe is the point: the reader discards
cat_of() { cat "$1" | cat >/dev/null; }
static_of() { curl -s -o /dev/null "http://127.0.0.1:$port/$1"; }
# bench_archive_writers DIR, when the build has it.
writers=$(find "$build" -name bench_archive_writers -type f -perm -u+x -print -quit)
archive_writers() {
  if [ -n "$writers" ]; then
    echo "-- bench_archive_writers $1"
    "$writers" "$1"
  else
    echo "-- bench_archive_writers is not built: skipped"
  fi
}
# The floor of any answer: time to the first byte of a small JSON request.
floor_ttfb() {
  curl -s -o /dev/null -b "id=$sid" -w '%{time_starttransfer}' \
    "$url?api=KSTX.Tidepool&method=get_status&version=1"
}

rows=()
row() { rows+=("$(printf '%s\t' "$@")"); }
verdict() { awk -v v="$1" -v op="$2" -v t="$3" 'BEGIN {
  ok = (op == ">=") ? v >= t : (op == "<=") ? v <= t : v < t; print ok ? "pass" : "FAIL" }'; }
s3() { printf '%.3f' "$1"; }
rate() { awk -v m="$1" -v s="$2" 'BEGIN { printf "%.0f", m / s }'; }
mib_of() { du -sb "$1" | awk '{ printf "%.0f", $1 / 1048576 }'; }

echo "== seeding: ${big_mib} MiB at the end of a chain of $deltas deltas, a folder of" \
  "$big_files files, a folder of $files small files =="
chain=$home/chain
mkdir -p "$chain"
"$data" random "$chain/big.bin" "$big_mib" 1
own "$chain"
for ((v = 0; v <= deltas; v++)); do
  if [ "$v" -gt 0 ]; then "$data" mutate "$chain/big.bin" $((v + 1)); fi
  touch -d "@$((scan_at + 600))" "$chain/big.bin"
  scan
done
big=$home/big
mkdir -p "$big"
"$data" random "$work/big.bin" "$big_mib" 3
(cd "$big" && split -n "$big_files" -a 4 -d "$work/big.bin" f-)
rm "$work/big.bin"
"$data" tree "$home/small" "$files" 7
own "$big" "$home/small"
scan
echo "store: $(find /volume1/@tidepool/@sync/delta -type f | wc -l) delta pieces," \
  "$(du -sm /volume1/@tidepool/@sync | cut -f1) MiB in all"
floor=$(min "$(floor_ttfb)" "$(floor_ttfb)")
echo "first byte of a small JSON answer (the floor of any request): $(s3 "$floor") s"

echo "== download 1: a folder of $big_files files, $big_mib MiB =="
node=$(folder_node mine big)
warm /volume1/@tidepool/@sync/repo "$big"
check_archive "$node" "$big"
measure "$node" Tidepool.zip
zip_s=$(timed2 zip_of "$big")
tar_s=$(timed2 tar_of "$big")
archive_writers "$big"
mib=$(mib_of "$big")
awk -v m="$mib" -v p="$prep" -v t="$ttfb" -v f="$total" -v b="$bytes" -v z="$zip_s" \
    -v r="$tar_s" -v c="$cgi_kib" -v k="$kids_kib" 'BEGIN {
  printf "(%d MiB of files; the archive %d bytes)\n", m, b
  printf "Download start until ready     %7.3f s %7.0f MiB/s\n", p, m / p
  printf "Download finish, first byte    %7.3f s\n", t
  printf "Download finish, whole body    %7.3f s %7.0f MiB/s\n", f, m / f
  printf "Peak RSS entry.cgi %.1f MiB, processes it starts %.1f MiB\n", c / 1024, k / 1024
  printf "zip -0 -r into a pipe          %7.3f s %7.0f MiB/s\n", z, m / z
  printf "tar cf into a pipe             %7.3f s %7.0f MiB/s\n", r, m / r }'
big_rate=$(rate "$mib" "$total") big_ttfb=$ttfb big_total=$total
row "$big_files files: finish" "$big_rate MiB/s" "zip $(rate "$mib" "$zip_s") MiB/s" \
  "$(awk -v a="$zip_s" -v b="$total" 'BEGIN { printf "%.2fx zip", a / b }')" ">= 2x zip" \
  "$(verdict "$(awk -v a="$zip_s" -v b="$total" 'BEGIN { print a / b }')" ">=" 2)"
row "" "" "tar $(rate "$mib" "$tar_s") MiB/s" \
  "$(awk -v a="$tar_s" -v b="$total" 'BEGIN { printf "%.2fx tar", a / b }')" ">= 0.5x tar" \
  "$(verdict "$(awk -v a="$tar_s" -v b="$total" 'BEGIN { print a / b }')" ">=" 0.5)"
row "$big_files files: first byte" "$(s3 "$ttfb") s" "JSON answer $(s3 "$floor") s" "" "<= 0.1 s" \
  "$(verdict "$ttfb" "<=" 0.1)"
row "$big_files files: preparation" "$prep s" "" "" "(none)" "-"
row "$big_files files: peak RSS" "$(awk -v c="$cgi_kib" 'BEGIN { printf "%.1f MiB", c / 1024 }')" \
  "" "" "< 64 MiB" "$(verdict "$cgi_kib" "<" 65536)"

echo "== download 2: a folder of $files files of 4-64 KiB =="
node=$(folder_node mine small)
warm /volume1/@tidepool/@sync/repo "$home/small"
check_archive "$node" "$home/small"
measure "$node" Tidepool.zip
zip_s=$(timed2 zip_of "$home/small")
tar_s=$(timed2 tar_of "$home/small")
archive_writers "$home/small"
mib=$(mib_of "$home/small")
awk -v m="$mib" -v n="$files" -v p="$prep" -v t="$ttfb" -v f="$total" -v b="$bytes" \
    -v z="$zip_s" -v r="$tar_s" -v c="$cgi_kib" -v k="$kids_kib" 'BEGIN {
  printf "(%d MiB of files; the archive %d bytes)\n", m, b
  printf "Download start until ready     %7.3f s %7.0f files/s\n", p, n / p
  printf "Download finish, first byte    %7.3f s\n", t
  printf "Download finish, whole body    %7.3f s %7.0f MiB/s %7.0f files/s\n", f, m / f, n / f
  printf "Peak RSS entry.cgi %.1f MiB, processes it starts %.1f MiB\n", c / 1024, k / 1024
  printf "zip -0 -r into a pipe          %7.3f s %7.0f MiB/s %7.0f files/s\n", z, m / z, n / z
  printf "tar cf into a pipe             %7.3f s %7.0f MiB/s %7.0f files/s\n", r, m / r, n / r }'
row "$files files: finish" "$(rate "$mib" "$total") MiB/s" "zip $(rate "$mib" "$zip_s") MiB/s" \
  "$(awk -v a="$zip_s" -v b="$total" 'BEGIN { printf "%.2fx zip", a / b }')" ">= 2x zip" \
  "$(verdict "$(awk -v a="$zip_s" -v b="$total" 'BEGIN { print a / b }')" ">=" 2)"
row "" "" "tar $(rate "$mib" "$tar_s") MiB/s" \
  "$(awk -v a="$tar_s" -v b="$total" 'BEGIN { printf "%.2fx tar", a / b }')" ">= 0.5x tar" \
  "$(verdict "$(awk -v a="$tar_s" -v b="$total" 'BEGIN { print a / b }')" ">=" 0.5)"
row "$files files: first byte" "$(s3 "$ttfb") s" "" "" "(none)" "-"
row "$files files: preparation" "$prep s" "" "" "(none)" "-"
row "$files files: peak RSS" "$(awk -v c="$cgi_kib" 'BEGIN { printf "%.1f MiB", c / 1024 }')" \
  "" "" "< 64 MiB" "$(verdict "$cgi_kib" "<" 65536)"

echo "== download 3: one ${big_mib} MiB file at the end of a chain of $deltas deltas =="
node=$(file_node mine /chain/big.bin)
want=$(jq -r '.[0].hash' <<<"$node")
[ "$want" = "$(sha256sum "$chain/big.bin" | cut -d' ' -f1)" ] || {
  echo "newest version's hash is not the file's" >&2; exit 1; }
warm /volume1/@tidepool/@sync "$chain"
check_file "$node" "$want"
measure "$node" Tidepool.bin
cat_s=$(timed2 cat_of "$chain/big.bin")
# The same bytes under lighttpd's document root: a hard link where the two
# folders share a mount, else a copy (then warm like the rest).
mkdir -p "$docroot"
ln "$chain/big.bin" "$docroot/bench-big.bin" 2>/dev/null || cp "$chain/big.bin" "$docroot/bench-big.bin"
chmod 0644 "$docroot/bench-big.bin"
warm "$docroot/bench-big.bin"
static_s=$(timed2 static_of bench-big.bin)
# The ceiling of the CGI route: a CGI that does nothing but copy the same
# file to lighttpd (cat splices it into the pipe).
probe=/usr/kstx/webapi/bench-copy.cgi
printf '#!/bin/sh\nprintf "Content-Type: application/octet-stream\\r\\n\\r\\n"\nexec cat %s\n' \
  "$docroot/bench-big.bin" > "$probe"
chmod 0755 "$probe"
copy_cgi_of() { curl -s -o /dev/null "http://127.0.0.1:$port/webapi/bench-copy.cgi"; }
copy_cgi_s=$(timed2 copy_cgi_of)
rm -f "$probe" "$docroot/bench-big.bin"
awk -v m="$big_mib" -v p="$prep" -v t="$ttfb" -v f="$total" -v c="$cat_s" -v s="$static_s" \
    -v g="$cgi_kib" -v k="$kids_kib" 'BEGIN {
  printf "Download start until ready     %7.3f s %7.0f MiB/s\n", p, m / p
  printf "Download finish, first byte    %7.3f s\n", t
  printf "Download finish, whole body    %7.3f s %7.0f MiB/s\n", f, m / f
  printf "Peak RSS entry.cgi %.1f MiB, processes it starts %.1f MiB\n", g / 1024, k / 1024
  printf "cat into a pipe                %7.3f s %7.0f MiB/s\n", c, m / c
  printf "lighttpd static, same file     %7.3f s %7.0f MiB/s\n", s, m / s }'
row "$big_mib MiB file: finish" "$(rate "$big_mib" "$total") MiB/s" \
  "static $(rate "$big_mib" "$static_s") MiB/s" \
  "$(awk -v a="$static_s" -v b="$total" 'BEGIN { printf "%.2fx static", a / b }')" \
  ">= 0.5x static" "$(verdict "$(awk -v a="$static_s" -v b="$total" 'BEGIN { print a / b }')" ">=" 0.5)"
row "" "" "cat $(rate "$big_mib" "$cat_s") MiB/s" \
  "$(awk -v a="$cat_s" -v b="$total" 'BEGIN { printf "%.2fx cat", a / b }')" "(none)" "-"
row "" "" "copy CGI $(rate "$big_mib" "$copy_cgi_s") MiB/s" \
  "$(awk -v a="$copy_cgi_s" -v b="$total" 'BEGIN { printf "%.2fx copy CGI", a / b }')" "(none)" "-"
row "$big_mib MiB file: first byte" "$(s3 "$ttfb") s" "" "" "(none)" "-"
row "$big_mib MiB file: preparation" "$prep s" "" "" "(none)" "-"
row "$big_mib MiB file: peak RSS" "$(awk -v c="$cgi_kib" 'BEGIN { printf "%.1f MiB", c / 1024 }')" \
  "" "" "< 64 MiB" "$(verdict "$cgi_kib" "<" 65536)"
# lighttpd must pass a CGI's body on as it comes: a buffered answer reaches
# the client only when the CGI is done, so its first byte comes near its end.
row "streamed (${big_files} files)" "first byte at $(s3 "$big_ttfb") of $(s3 "$big_total") s" "" "" \
  "< half the total" "$(verdict "$big_ttfb" "<" "$(awk -v t="$big_total" 'BEGIN { print t / 2 }')")"

echo "== summary (warm page cache, no sync inside any timing, best of 2 runs) =="
{
  printf 'case\tfigure\treference\tratio\ttarget\tresult\n'
  printf '%s\n' "${rows[@]}"
} | column -t -s $'\t'
