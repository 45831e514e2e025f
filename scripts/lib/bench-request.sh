#!/usr/bin/env bash
# Request latency and throughput through lighttpd on loopback, by the three
# paths a request may take in one server: a minimal C++ CGI (the floor of an
# exec per request), entry.cgi exec'd for each request, and tidepool-webapi's
# processes forked from a preloaded parent. Calls: check_user, get_status and
# Node.list of a folder of 100 entries. Then, with perf, where the forked
# path's CPU goes (BENCH_PERF=0 leaves that out).
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=bench-server.sh
. "$here/bench-server.sh"
load="$build/bench/http-load"
requests=${BENCH_REQUESTS:-1000}

bench_service_start
install -m 0755 "$build/bench/minimal.cgi" /usr/kstx/webapi/minimal.cgi
# The same entry.cgi under a name lighttpd runs as a CGI program.
install -m 4755 /usr/kstx/webapi/entry.cgi /usr/kstx/webapi/exec-entry.cgi
folder=/volume1/homes/alice/Tidepool/hundred
mkdir -p "$folder"
for i in $(seq 1 100); do printf 'file %s\n' "$i" > "$folder/file-$i.txt"; done
chown -R "$(stat -c %u /volume1/homes/alice/Tidepool):100" "$folder"
/var/packages/Tidepool/target/bin/driftway-control scan >/dev/null
bench_server_start
read -r sid token < <(bench_login alice alice-demo) || true
[ -n "${token:-}" ] || exit 1
url="http://127.0.0.1:$port/webapi"
node="api=KSTX.Tidepool.Node&version=1&target=%22mine%22&method=list"
hundred=$(curl -s -b "id=$sid" "$url/entry.cgi?$node" |
  sed -n 's/.*"name":"hundred","node_id":"\([0-9]*\)".*/\1/p')
[ -n "$hundred" ] || { echo "the folder of 100 entries is not in the view" >&2; exit 1; }
list="$node&node_id=$hundred&offset=0&limit=100"
for entry in entry.cgi exec-entry.cgi; do
  for call in "api=KSTX.Tidepool&method=check_user&version=1" "$list"; do
    answer=$(curl -s -b "id=$sid" "$url/$entry?$call")
    case "$answer" in *'"success":true'*) ;; *) echo "$entry $call failed: ${answer:0:200}" >&2; exit 1 ;; esac
  done
done
[ "$(curl -s -b "id=$sid" "$url/entry.cgi?$list" | grep -o '"node_id"' | wc -l)" = 100 ] ||
  { echo "Node.list did not answer 100 entries" >&2; exit 1; }

run() {
  local name=$1 path=$2 c=$3
  # Warm the page cache and the servers first.
  "$load" 127.0.0.1 "$port" "$path" 50 "$c" "id=$sid" >/dev/null || true
  printf '%-26s c=%-2s %s\n' "$name" "$c" "$("$load" 127.0.0.1 "$port" "$path" "$requests" "$c" "id=$sid")"
}

echo "== request: $requests requests per row, lighttpd on 127.0.0.1:$port =="
echo "   floor: minimal CGI; exec: entry.cgi run for each request; forked: tidepool-webapi"
for c in 1 8; do
  run "floor" "/webapi/minimal.cgi" "$c"
  for call in check_user get_status; do
    run "$call exec" "/webapi/exec-entry.cgi?api=KSTX.Tidepool&method=$call&version=1" "$c"
    run "$call forked" "/webapi/entry.cgi?api=KSTX.Tidepool&method=$call&version=1" "$c"
  done
  run "Node.list 100 exec" "/webapi/exec-entry.cgi?$list" "$c"
  run "Node.list 100 forked" "/webapi/entry.cgi?$list" "$c"
done
echo "targets for forked, against the floor at the same concurrency: p50 <= 1.0x, p99 <= 2x, rps >= 1.5x"

# Shares of the CPU of tidepool-webapi and its children (a stage's share
# includes what it calls), sampled while one client sends requests.
profile() {
  local name=$1 path=$2 data=/tmp/bench-request.perf
  "$load" 127.0.0.1 "$port" "$path" 100000 1 "id=$sid" >/dev/null &
  local client=$!
  sleep 0.5
  perf record -q -F 2000 --call-graph dwarf,16384 -p "$WEBAPI_PID" -o "$data" -- sleep 3 \
    >/dev/null 2>&1
  kill "$client" 2>/dev/null; wait "$client" 2>/dev/null || true
  echo "where the CPU of the forked path goes, $name (perf: share of the samples whose stack holds it):"
  perf script -i "$data" -F ip,sym --no-inline 2>/dev/null | awk '
    BEGIN {
      RS = ""
      n = split("__libc_fork|ServeRequestProcess|DecodeRequest|AttachSession|ServeModule|" \
                "SQLite::Database::Database|sqlite3InitOne|WriteAnswer|asm_exc_page_fault|do_exit", sym, "|")
      split("fork, in the parent|the request (entry.cgi'"'"'s code, in the child)|" \
            "  reading and decoding the request|  session and account standing|" \
            "  the module (check and Process)|    of which opening SQLite databases|" \
            "    of which SQLite schema parsing|  writing the answer|page faults, anywhere|" \
            "process exit", label, "|")
    }
    { samples++; for (i = 1; i <= n; i++) if (index($0, sym[i]) > 0) hits[i]++ }
    END { for (i = 1; i <= n; i++) printf "  %-46s %5.1f%%\n", label[i], 100 * hits[i] / samples
          printf "  (%d samples)\n", samples }'
  rm -f "$data"
}
if [ "${BENCH_PERF:-1}" = 1 ]; then
  if command -v perf >/dev/null 2>&1; then
    profile check_user "/webapi/entry.cgi?api=KSTX.Tidepool&method=check_user&version=1"
    profile "Node.list 100" "/webapi/entry.cgi?$list"
  else
    echo "perf is not installed: no profile"
  fi
fi
echo "libraries of entry.cgi:"; ldd /usr/kstx/webapi/entry.cgi | awk '{print "  " $1}'
echo "libraries of the module:"; ldd /var/packages/Tidepool/target/webapi/KSTX.Tidepool.so | awk '{print "  " $1}'
