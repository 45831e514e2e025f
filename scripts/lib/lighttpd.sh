# Starting and stopping lighttpd in front of the runtime, inside a sandbox.
# Source it; then: lighttpd_start PORT, lighttpd_stop.

lighttpd_start() {
  local port=$1
  mkdir -p /tmp/lighttpd
  # lighttpd opens its error log after giving up root.
  chown www-data:www-data /tmp/lighttpd
  sed -e "s|@PORT@|$port|" -e "s|@LOGDIR@|/tmp/lighttpd|" \
    /var/packages/Tidepool/target/etc/lighttpd.conf.in > /tmp/lighttpd/lighttpd.conf
  lighttpd -D -f /tmp/lighttpd/lighttpd.conf &
  LIGHTTPD_PID=$!
  local i
  for i in $(seq 1 100); do
    if curl -s -o /dev/null "http://127.0.0.1:$port/" 2>/dev/null; then return 0; fi
    if ! kill -0 "$LIGHTTPD_PID" 2>/dev/null; then break; fi
    sleep 0.05
  done
  echo "lighttpd did not start on port $port" >&2
  cat /tmp/lighttpd/lighttpd-error.log >&2 2>/dev/null || true
  return 1
}

lighttpd_stop() {
  if [ -n "${LIGHTTPD_PID:-}" ] && kill -0 "$LIGHTTPD_PID" 2>/dev/null; then
    kill "$LIGHTTPD_PID" 2>/dev/null || true
    wait "$LIGHTTPD_PID" 2>/dev/null || true
  fi
  LIGHTTPD_PID=
}
