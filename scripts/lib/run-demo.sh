#!/usr/bin/env bash
# The demo inside its sandbox: seed (once), start the sync service and
# lighttpd, wait for SIGINT or SIGTERM, stop both.
set -euo pipefail
port=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=lighttpd.sh
. "$here/lighttpd.sh"
control=/var/packages/Tidepool/target/bin/driftway-control

"$here/seed-demo.sh"
"$here/demo-update.sh" "$port"

stopping=0
stop() {
  stopping=1
  lighttpd_stop
  "$control" service --stop >/dev/null 2>&1 || true
}
trap 'stop; exit 0' INT TERM

"$control" service --start >/dev/null
lighttpd_start "$port" || { stop; exit 1; }
echo "Tidepool is ready at http://127.0.0.1:$port/"
echo "Demo accounts (for the demo only): admin / admin-demo, alice / alice-demo, bob / bob-demo"
while [ "$stopping" = 0 ]; do
  wait "$LIGHTTPD_PID" 2>/dev/null || true
  # lighttpd ended by itself: stop the rest and report it.
  if [ "$stopping" = 0 ] && ! kill -0 "$LIGHTTPD_PID" 2>/dev/null; then
    echo "lighttpd stopped unexpectedly" >&2
    stop
    exit 1
  fi
done
