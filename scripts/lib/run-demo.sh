#!/usr/bin/env bash
# The demo inside its sandbox: seed (once), start the sync service,
# tidepool-webapi and lighttpd, wait for SIGINT or SIGTERM, stop them all.
# tidepool-webapi is started again when it dies (lighttpd answers 503 in
# between); WEBAPI_PATH=cgi runs entry.cgi for each request instead.
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
  wait -n "$LIGHTTPD_PID" ${WEBAPI_PID:-} 2>/dev/null || true
  [ "$stopping" = 0 ] || break
  # lighttpd ended by itself: stop the rest and report it.
  if ! kill -0 "$LIGHTTPD_PID" 2>/dev/null; then
    echo "lighttpd stopped unexpectedly" >&2
    stop
    exit 1
  fi
  if [ -n "${WEBAPI_PID:-}" ] && ! kill -0 "$WEBAPI_PID" 2>/dev/null; then
    echo "tidepool-webapi stopped unexpectedly; starting it again" >&2
    sleep 1  # a server that cannot start is not restarted in a tight loop
    webapi_start || true
  fi
done
