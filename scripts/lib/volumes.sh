# Loop-mounted volumes of limited size for benchmarks (sourced, as root):
#   make_loop_volume TYPE SIZE_MB MOUNTPOINT   TYPE is ext4 or btrfs (>= 114 MiB)
#   remove_loop_volume MOUNTPOINT
# Images are sparse files /var/tmp/tidepool-loop-*.img. The loop device is
# attached with autoclear (mount -o loop), so it goes away with the mount,
# also when a private mount namespace (scripts/sandbox) dies with its run.
# Images older than an hour that nothing mounts any more are removed on the
# next make_loop_volume.

_loop_volume_prefix=/var/tmp/tidepool-loop-

remove_stale_loop_volumes() {
  local image dev
  find /var/tmp -maxdepth 1 -name 'tidepool-loop-*' -type f -mmin +60 2>/dev/null |
    while read -r image; do
      for dev in $(losetup --noheadings --output NAME --associated "$image" 2>/dev/null); do
        findmnt --noheadings --output TARGET --source "$dev" 2>/dev/null | tac |
          while read -r mp; do umount "$mp" 2>/dev/null || umount --lazy "$mp"; done
        losetup --detach "$dev" 2>/dev/null || true
      done
      rm -f "$image"
    done
}

make_loop_volume() {
  local type=$1 size_mb=$2 mountpoint=$3 image
  case "$type" in
    ext4) local force=-F ;;
    btrfs) local force=-f ;;
    *) echo "make_loop_volume: unknown type $type" >&2; return 2 ;;
  esac
  remove_stale_loop_volumes
  image=$(mktemp "${_loop_volume_prefix}XXXXXX.img") || return 1
  if ! { truncate -s "${size_mb}M" "$image" &&
         "mkfs.$type" -q "$force" "$image" >/dev/null &&
         mkdir -p "$mountpoint" &&
         mount -t "$type" -o loop "$image" "$mountpoint"; }; then
    echo "make_loop_volume: cannot make a $type volume on $mountpoint" >&2
    rm -f "$image"
    return 1
  fi
}

remove_loop_volume() {
  local mountpoint=$1 dev image
  # The topmost of the mounts stacked there (a sandbox binds /volumeN first).
  dev=$(findmnt --noheadings --output SOURCE --mountpoint "$mountpoint" | tail -n 1)
  case "$dev" in
    /dev/loop*) ;;
    *) echo "remove_loop_volume: no loop volume on $mountpoint" >&2; return 1 ;;
  esac
  image=$(losetup --noheadings --output BACK-FILE "$dev" 2>/dev/null)
  umount "$mountpoint" 2>/dev/null || umount --lazy "$mountpoint"
  # The device detaches itself (autoclear); only when it was attached by hand.
  losetup --detach "$dev" 2>/dev/null || true
  case "$image" in "$_loop_volume_prefix"*) rm -f "$image" ;; esac
}
