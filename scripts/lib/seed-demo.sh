#!/usr/bin/env bash
# Seeds the demo system inside a sandbox (the appliance paths are the
# sandbox's): volumes, host accounts, the service's settings and users. Does
# nothing when the data directory was seeded before.
set -euo pipefail

marker=/usr/kstx/etc/.demo-seeded
[ -f "$marker" ] && exit 0

admin=/usr/kstx/bin/kstx-admin
control=/var/packages/Tidepool/target/bin/driftway-control

mkdir -p /var/packages/Tidepool/etc /var/packages/Tidepool/var/log /var/packages/Tidepool/target/etc
printf 'repo_volume="/volume1"\ndb_backend="sqlite"\n' > /var/packages/Tidepool/etc/setting.conf
printf 'package="Tidepool"\nversion="1.0.0-0001"\n' > /var/packages/Tidepool/INFO

"$admin" volume add /volume1 >/dev/null
"$admin" volume add /volume2 >/dev/null
# Demo passwords: for the demo only, never on a real system.
"$admin" user add admin --password admin-demo >/dev/null
"$admin" group member administrators admin >/dev/null
"$admin" user add alice --password alice-demo >/dev/null
"$admin" user add bob --password bob-demo >/dev/null
"$control" user --enable admin alice bob >/dev/null
"$(dirname "$0")/seed-history.sh"
touch "$marker"
