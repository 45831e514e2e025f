#!/usr/bin/env bash
# Versioning speed of `driftway-control scan`, each figure beside a reference
# measured in the same run on the same data:
#   - 20,000 small files (200 folders of 100 files, 2 KiB each): a first
#     scan against `cp -r` of the same tree;
#   - one 1 GiB file changed in 1% of its bytes (1024 scattered 10 KiB
#     writes): the scan that versions it against `rdiff delta` of the same
#     change from a stored signature.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
control=/var/packages/Tidepool/target/bin/driftway-control
home=/volume1/homes/alice/Tidepool
work=/volume1/bench-work
files=${BENCH_SMALL_FILES:-20000}
big_mib=${BENCH_BIG_MIB:-1024}

"$here/seed-demo.sh"
mkdir -p "$home" "$work"

now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
scan_at=1700000000
scan() { scan_at=$((scan_at + 100)); "$control" scan --at "$scan_at" >/dev/null; }

echo "== scan: small files =="
folders=$(( (files + 99) / 100 ))
for ((d = 0; d < folders; d++)); do
  mkdir -p "$work/tree/d$d"
  head -c $((100 * 2048)) /dev/urandom | split -b 2048 -d -a 3 - "$work/tree/d$d/f"
done
cp -r "$work/tree" "$work/warm" && rm -rf "$work/warm" && sync
t0=$(now); cp -r "$work/tree" "$work/copy"; t1=$(now)
cp_s=$(secs "$t0" "$t1")
rm -rf "$work/copy"
mv "$work/tree" "$home/tree"
sync
t0=$(now); scan; t1=$(now)
scan_s=$(secs "$t0" "$t1")
t0=$(now); scan; t1=$(now)
rescan_s=$(secs "$t0" "$t1")
awk -v n="$files" -v c="$cp_s" -v s="$scan_s" -v r="$rescan_s" 'BEGIN {
  printf "cp -r        %8.3f s  %9.0f files/s\n", c, n / c
  printf "first scan   %8.3f s  %9.0f files/s  (%.1fx cp -r)\n", s, n / s, s / c
  printf "rescan       %8.3f s  %9.0f files/s  (nothing changed)\n", r, n / r }'
rm -rf "$home/tree"
scan

echo "== scan: one ${big_mib} MiB file, 1% changed =="
head -c $((big_mib << 20)) /dev/urandom > "$home/big.bin"
cp "$home/big.bin" "$work/old.bin"
t0=$(now); scan; t1=$(now)
first_s=$(secs "$t0" "$t1")
t0=$(now); cp "$work/old.bin" "$work/copy.bin"; t1=$(now)
cpbig_s=$(secs "$t0" "$t1")
rm -f "$work/copy.bin"
rdiff signature "$work/old.bin" "$work/old.sig"
size=$((big_mib << 20))
changes=$((big_mib))
RANDOM=7
for ((i = 0; i < changes; i++)); do
  off=$(( ((RANDOM << 15) | RANDOM) % (size - 10240) ))
  dd if=/dev/urandom of="$home/big.bin" bs=10240 count=1 seek="$off" oflag=seek_bytes \
    conv=notrunc status=none
done
cat "$home/big.bin" > /dev/null
t0=$(now); rdiff delta "$work/old.sig" "$home/big.bin" "$work/new.delta"; t1=$(now)
rdiff_s=$(secs "$t0" "$t1")
t0=$(now); scan; t1=$(now)
version_s=$(secs "$t0" "$t1")
delta_bytes=$(find /volume1/@tidepool/@sync/delta -type f -printf '%s\n' | awk '{s += $1} END {print s + 0}')
awk -v f="$first_s" -v c="$cpbig_s" -v r="$rdiff_s" -v v="$version_s" \
    -v d="$(stat -c %s "$work/new.delta")" -v o="$delta_bytes" 'BEGIN {
  printf "first version (whole, hash, signature) %7.3f s   cp of the same bytes %7.3f s  (%.2fx)\n", f, c, f / c
  printf "rdiff delta from a stored signature    %7.3f s   delta %d bytes\n", r, d
  printf "scan versioning the change             %7.3f s   delta %d bytes  (%.2fx rdiff)\n", v, o, v / r }'
rm -rf "$work"
