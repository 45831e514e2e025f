#!/usr/bin/env bash
# Runs the browser scenarios inside a sandbox: seeds the demo, starts the
# sync service and lighttpd on a free loopback port, drives chromium, stops
# both. usage: run-scenarios.sh OUT_DIR
set -euo pipefail
out=$1
here=$(cd "$(dirname "$0")" && pwd)
lib=$here/../../scripts/lib
# shellcheck source=../../scripts/lib/lighttpd.sh
. "$lib/lighttpd.sh"
control=/var/packages/Tidepool/target/bin/driftway-control

"$lib/seed-demo.sh"
"$control" service --start >/dev/null
cleanup() {
  lighttpd_stop
  "$control" service --stop >/dev/null 2>&1 || true
}
trap cleanup EXIT

port=""
for _ in 1 2 3 4 5; do
  p=$((20000 + RANDOM % 20000))
  if lighttpd_start "$p" 2>/dev/null; then port=$p; break; fi
  lighttpd_stop
done
[ -n "$port" ] || { echo "lighttpd did not start" >&2; exit 1; }
node "$here/scenarios.mjs" "http://127.0.0.1:$port/" "$out" /
