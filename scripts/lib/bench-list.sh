#!/usr/bin/env bash
# Node.list on one folder of 100,000 children over HTTP through lighttpd: a
# page of 100 at offset 50,000 sorted by name and by modification time, and
# list_version of a file with 32 versions. In the same run: SQLite's own
# ORDER BY of the page (the floor) and the literal per-comparison collator
# over every row (the naive reference, extrapolated from a sample).
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=bench-server.sh
. "$here/bench-server.sh"
load="$build/bench/http-load"
requests=${BENCH_REQUESTS:-50}

bench_service_start
echo "building the view (100,000 children)..."
refs=$("$build/bench/list/bench_list_view" alice)
ref() { sed -n "s/^$1=//p" <<<"$refs"; }
big=$(ref big_node_id)
bench_server_start
read -r sid token < <(bench_login alice alice-demo) || true
[ -n "${token:-}" ] || exit 1

node="/webapi/entry.cgi?api=KSTX.Tidepool.Node&version=1&target=%22mine%22"
page="$node&method=list&node_id=$big&offset=50000&limit=100&sort_direction=ASC"
by_name="$page&sort_by=%22name%22"
by_mtime="$page&sort_by=%22mtime%22"
versions="$node&method=list_version&path=%22/history.txt%22"
for path in "$by_name" "$versions"; do
  answer=$(curl -s -b "id=$sid" "http://127.0.0.1:$port$path")
  case "$answer" in *'"success":true'*) ;; *) echo "call failed: ${answer:0:300}" >&2; exit 1 ;; esac
done
echo "name page, first names: $(curl -s -b "id=$sid" "http://127.0.0.1:$port$by_name" \
  | grep -o '"name":"[^"]*"' | head -3 | tr '\n' ' ')"

p50() { sed -n 's/.*p50_ms=\([0-9.]*\).*/\1/p'; }
run() {
  local name=$1 path=$2
  "$load" 127.0.0.1 "$port" "$path" 5 1 "id=$sid" >/dev/null || true
  local line; line=$("$load" 127.0.0.1 "$port" "$path" "$requests" 1 "id=$sid")
  printf '%-22s %s\n' "$name" "$line" >&2
  p50 <<<"$line"
}
echo "== list: $requests requests per row, one at a time, lighttpd on 127.0.0.1:$port =="
name_ms=$(run "name page (HTTP)" "$by_name")
mtime_ms=$(run "mtime page (HTTP)" "$by_mtime")
version_ms=$(run "list_version 32 (HTTP)" "$versions")
naive=$(ref naive_ms)
printf 'view built in %s ms\n' "$(ref built_ms)"
printf 'name page  p50 %8.2f ms end to end   (target < 100 ms)\n' "$name_ms"
printf 'mtime page p50 %8.2f ms end to end   (target < 30 ms)\n' "$mtime_ms"
printf 'list_version (32 versions) p50 %.2f ms\n' "$version_ms"
printf 'floor: SQLite ORDER BY name, same page, in process: %s ms\n' "$(ref floor_order_by_ms)"
printf 'view library name page, in process: %s ms\n' "$(ref db_name_page_ms)"
printf 'naive: read all rows %s ms + %s comparisons x %s us (literal collator) = %s ms\n' \
  "$(ref naive_read_all_ms)" "$(ref naive_comparisons)" "$(ref naive_us_per_comparison)" "$naive"
awk -v n="$naive" -v h="$name_ms" 'BEGIN { printf "name page speed-up over naive: %.0fx (target >= 25x)\n", n / h }'
