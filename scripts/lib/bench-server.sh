# The demo system served for a benchmark, inside its sandbox. Source it after
# setting `here`; then: bench_service_start, bench_server_start (sets `port`),
# read -r sid token < <(bench_login USER PASSWORD). Calls that change
# something are POSTs with the header "X-Tidepool-Token: $token". Everything
# started stops at exit.
# shellcheck source=lighttpd.sh
. "$here/lighttpd.sh"
control=/var/packages/Tidepool/target/bin/driftway-control

bench_service_start() {
  "$here/seed-demo.sh"
  "$control" service --start >/dev/null
  trap 'lighttpd_stop; "$control" service --stop >/dev/null 2>&1 || true' EXIT
}

bench_server_start() {
  port=$((20000 + RANDOM % 20000))
  lighttpd_start "$port"
}

bench_login() {  # prints "SID TOKEN"
  local answer sid token
  answer=$(curl -s "http://127.0.0.1:$port/webapi/entry.cgi?api=KSTX.API.Auth&method=login&version=1&account=$1&passwd=$2")
  sid=$(printf '%s' "$answer" | sed -n 's/.*"sid":"\([0-9a-f]*\)".*/\1/p')
  token=$(printf '%s' "$answer" | sed -n 's/.*"token":"\([0-9a-f]*\)".*/\1/p')
  [ -n "$sid" ] && [ -n "$token" ] || { echo "login of $1 failed" >&2; return 1; }
  echo "$sid $token"
}
