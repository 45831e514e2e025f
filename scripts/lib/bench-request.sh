#!/usr/bin/env bash
# Request latency and throughput through lighttpd on loopback: check_user and
# get_status against a minimal C++ CGI served by the same server (the floor of
# a process per request).
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=bench-server.sh
. "$here/bench-server.sh"
load="$build/bench/http-load"
requests=${BENCH_REQUESTS:-1000}

bench_service_start
install -m 0755 "$build/bench/minimal.cgi" /usr/kstx/webapi/minimal.cgi
bench_server_start
read -r sid token < <(bench_login alice alice-demo) || true
[ -n "${token:-}" ] || exit 1
check=$(curl -s -b "id=$sid" "http://127.0.0.1:$port/webapi/entry.cgi?api=KSTX.Tidepool&method=check_user&version=1")
case "$check" in *'"success":true'*) ;; *) echo "check_user failed: $check" >&2; exit 1 ;; esac

run() {
  local name=$1 path=$2 c=$3
  # Warm the page cache and the server first.
  "$load" 127.0.0.1 "$port" "$path" 50 "$c" "id=$sid" >/dev/null || true
  printf '%-12s c=%-2s %s\n' "$name" "$c" "$("$load" 127.0.0.1 "$port" "$path" "$requests" "$c" "id=$sid")"
}

echo "== request: $requests requests per row, lighttpd on 127.0.0.1:$port =="
for c in 1 8; do
  run floor "/webapi/minimal.cgi" "$c"
  run check_user "/webapi/entry.cgi?api=KSTX.Tidepool&method=check_user&version=1" "$c"
  run get_status "/webapi/entry.cgi?api=KSTX.Tidepool&method=get_status&version=1" "$c"
done
echo "libraries of entry.cgi:"; ldd /usr/kstx/webapi/entry.cgi | awk '{print "  " $1}'
echo "libraries of the module:"; ldd /var/packages/Tidepool/target/webapi/KSTX.Tidepool.so | awk '{print "  " $1}'
