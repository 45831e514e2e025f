#!/usr/bin/env bash
# inotify on every folder against one fanotify mark on the whole file system,
# on the same tree of BENCH_FILES files (100000) in BENCH_FOLDERS folders
# (10000) and the same BENCH_NOTIFY_CHANGES changes (20000): setup time and
# CPU, kernel and process memory, events and CPU per change to learn which
# folder changed, and the events a file-system mark gets from elsewhere.
set -euo pipefail
build=$1
probe=$(find "$build" -name bench_notify_probe -type f -perm -u+x -print -quit)
[ -n "$probe" ] || { echo "bench_notify_probe is not built" >&2; exit 1; }
files=${BENCH_FILES:-100000}
folders=${BENCH_FOLDERS:-10000}
changes=${BENCH_NOTIFY_CHANGES:-20000}
dir=/volume1/notify-probe
echo "== $files files in $folders folders, then $changes changes (kernel $(uname -r)) =="
"$probe" "$dir" "$folders" "$files" "$changes" | tee /tmp/notify
rm -rf "$dir"
get() { awk -v k="$1" '$1 == k { print $2 }' /tmp/notify; }
echo "== summary =="
{
  printf 'figure\tinotify\tfanotify\n'
  printf 'setup (wall s)\t%s\t%s\n' "$(get inotify-setup-s)" "$(get fanotify-setup-s)"
  printf 'setup (CPU s)\t%s\t%s\n' "$(get inotify-setup-cpu-s)" "$(get fanotify-setup-cpu-s)"
  printf 'kernel memory (KiB)\t%s\t%s\n' "$(get inotify-kernel-kib)" "$(get fanotify-kernel-kib)"
  printf 'process memory (KiB)\t%s\t%s\n' "$(get inotify-rss-kib)" "$(get fanotify-rss-kib)"
  printf 'CPU per change (us)\t%s\t%s\n' "$(get inotify-us-per-change)" "$(get fanotify-us-per-change)"
  printf 'events from elsewhere\t0\t%s\n' "$(get fanotify-outside)"
  printf 'refused\t-\t%s\n' "$(sed -n 's/^fanotify-refused //p' /tmp/notify)"
} | column -t -s $'\t'
