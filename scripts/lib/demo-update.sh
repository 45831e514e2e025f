#!/usr/bin/env bash
# The demo's stand-in for the update server: a small update document served
# by the demo's own lighttpd, and setting.conf's update_server pointed at it,
# so that KSTX.Tidepool get_client_link answers a link. A value that names
# another server (a real one, set by hand) is left alone.
# usage: demo-update.sh PORT
set -euo pipefail
port=$1
web=/var/packages/Tidepool/target/ui/web/update
conf=/var/packages/Tidepool/etc/setting.conf
base="http://127.0.0.1:$port/update"

mkdir -p "$web"
printf 'The desktop client is not part of the demo: a real update server links its installer here.\n' \
  > "$web/tidepool-client-demo.txt"
printf '{"installer":{"url":"%s/tidepool-client-demo.txt","version":"1.0.0-0001"}}\n' "$base" \
  > "$web/getUpdate.json"

current=$(sed -n 's/^update_server="\{0,1\}\([^"]*\)"\{0,1\}[[:space:]]*$/\1/p' "$conf" | tail -n 1)
case "$current" in
  "" | http://127.0.0.1:*/update/getUpdate.json)
    sed -i '/^update_server=/d' "$conf"
    printf 'update_server="%s/getUpdate.json"\n' "$base" >> "$conf"
    ;;
esac
