# Starting and stopping lighttpd in front of the runtime, inside a sandbox,
# with tidepool-webapi serving the web API (WEBAPI_PATH=cgi: entry.cgi run by
# lighttpd for each request instead). Source it; then: lighttpd_start PORT,
# webapi_start (again after it died), lighttpd_stop.

webapi_socket=/tmp/tidepool-webapi/webapi.sock

webapi_start() {
  [ "${WEBAPI_PATH:-forked}" = cgi ] && return 0
  mkdir -p /tmp/lighttpd
  /usr/kstx/sbin/tidepool-webapi ${WEBAPI_OPTIONS:-} 2>>/tmp/lighttpd/webapi.log &
  WEBAPI_PID=$!
  local i
  for i in $(seq 1 100); do
    if [ -S "$webapi_socket" ]; then return 0; fi
    if ! kill -0 "$WEBAPI_PID" 2>/dev/null; then break; fi
    sleep 0.05
  done
  echo "tidepool-webapi did not start" >&2
  cat /tmp/lighttpd/webapi.log >&2 2>/dev/null || true
  return 1
}

lighttpd_start() {
  local port=$1 cgi_only=
  mkdir -p /tmp/lighttpd
  # lighttpd opens its error log after giving up root.
  chown www-data:www-data /tmp/lighttpd
  [ "${WEBAPI_PATH:-forked}" = cgi ] && cgi_only='#'
  sed -e "s|@PORT@|$port|" -e "s|@LOGDIR@|/tmp/lighttpd|" -e "s|@CGI_ONLY@|$cgi_only|" \
    /var/packages/Tidepool/target/etc/lighttpd.conf.in > /tmp/lighttpd/lighttpd.conf
  webapi_start || return 1
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
  local pid
  for pid in "${LIGHTTPD_PID:-}" "${WEBAPI_PID:-}"; do
    if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
      kill "$pid" 2>/dev/null || true
      wait "$pid" 2>/dev/null || true
    fi
  done
  LIGHTTPD_PID=
  WEBAPI_PID=
}
