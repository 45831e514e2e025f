#!/usr/bin/env bash
# The job queue's push and count latency on SQLite and on a redis-server of
# its own on a free loopback port, each beside the floor of its store.
set -euo pipefail
build=$1
dir=$(mktemp -d /tmp/bench-queue-XXXXXX)
redis=()
if command -v redis-server >/dev/null; then
  port=
  for candidate in $(shuf -i 20000-40000 -n 20); do
    if ! (exec 3<>"/dev/tcp/127.0.0.1/$candidate") 2>/dev/null; then port=$candidate; break; fi
  done
  [ -n "$port" ] || { echo "no free port for redis-server" >&2; exit 1; }
  redis-server --port "$port" --bind 127.0.0.1 --save '' --appendonly no --daemonize no \
    --dir "$dir" --loglevel warning >"$dir/redis.log" 2>&1 &
  server=$!
  trap 'kill "$server" 2>/dev/null; wait "$server" 2>/dev/null || true' EXIT
  for _ in $(seq 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break
    sleep 0.05
  done
  redis=("redis://127.0.0.1:$port")
else
  echo "redis-server is not installed: SQLite only" >&2
fi
"$build/bench/bench_job_queue" "$dir" "${redis[@]}"
