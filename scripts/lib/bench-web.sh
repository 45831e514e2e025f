#!/usr/bin/env bash
# The web front-end in headless chromium against the demo over loopback:
# its size gzipped, the first view, and a page of a 100,000-entry folder
# rendered after its answer (see bench/web/bench-web.mjs). The folder is the
# one `scripts/bench list` builds, in alice's home.
# Knob: BENCH_RUNS (10) runs of each figure.
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=bench-server.sh
. "$here/bench-server.sh"

bench_service_start
echo "building the view (100,000 children)..."
refs=$("$build/bench/list/bench_list_view" alice)
big=$(sed -n 's/^big_node_id=//p' <<<"$refs")
bench_server_start
node "$here/../../bench/web/bench-web.mjs" "http://127.0.0.1:$port/" /var/packages/Tidepool/target/ui/web "$big"
