#!/usr/bin/env bash
# Builds the demo's history through real scans, at three moments a day
# apart: alice's home with files of several versions, a deleted file, a
# renamed file and a subfolder; the share "team" (alice may write, bob may
# read) with a few hundred files in nested folders; the share "archive",
# which exists but is not enabled in the service.
set -euo pipefail

admin=/usr/kstx/bin/kstx-admin
control=/var/packages/Tidepool/target/bin/driftway-control
uid_of() { "$admin" user list | awk -F'\t' -v n="$1" '$2 == n { print $1 }'; }

alice=$(uid_of alice)
users_gid=100
now=$(date +%s)
t0=$((now - 3 * 86400)) t1=$((now - 2 * 86400)) t2=$((now - 86400))

"$admin" share add team --volume /volume1 >/dev/null
"$admin" share perm team alice rw >/dev/null
"$admin" share perm team bob ro >/dev/null
"$admin" share add archive --volume /volume1 >/dev/null
"$control" share --enable team >/dev/null

home=/volume1/homes/alice/Tidepool
team=/volume1/team
mkdir -p "$home/projects/drafts" "$team"

# First moment.
printf 'Plan, first draft\n' > "$home/projects/plan.txt"
printf 'Shopping: milk\n' > "$home/notes.txt"
printf 'An idea\n' > "$home/projects/drafts/idea.txt"
printf 'Report v1\n' > "$home/report-draft.txt"
for d in $(seq 1 10); do
  for s in a b; do
    mkdir -p "$team/project-$d/part-$s"
    for f in $(seq 1 15); do
      printf 'team file %s %s %s, version 1\n' "$d" "$s" "$f" > "$team/project-$d/part-$s/doc-$f.txt"
    done
  done
done
mkdir -p "$team/private"
printf 'for alice only\n' > "$team/private/salaries.txt"
chown -R "$alice:$users_gid" "$home"
chmod -R u=rwX,g=rX,o= "$home"
# The share's own folder keeps the owner, mode and ACL that its permissions
# gave it; what is inside is alice's.
find "$team" -mindepth 1 -exec chown "$alice:$users_gid" {} +
find "$team" -mindepth 1 -exec chmod u=rwX,g=rwX,o=rX {} +
chmod 0700 "$team/private"
# Modification times as of each moment, so the history reads like a real one.
find "$home" "$team" -exec touch -h -d "@$t0" {} +
"$control" scan --at "$t0" >/dev/null

# Second moment: edits, a rename.
printf 'Plan, second draft\n' >> "$home/projects/plan.txt"
mv "$home/report-draft.txt" "$home/report.txt"
for d in $(seq 1 10); do
  for f in 1 2 3; do
    printf 'version 2\n' >> "$team/project-$d/part-a/doc-$f.txt"
    touch -d "@$t1" "$team/project-$d/part-a/doc-$f.txt"
  done
done
touch -d "@$t1" "$home/projects/plan.txt" "$home/report.txt"
"$control" scan --at "$t1" >/dev/null

# Third moment: more edits, a deletion.
printf 'Plan, final\n' >> "$home/projects/plan.txt"
rm "$home/notes.txt"
for d in $(seq 1 10); do
  printf 'version 3\n' >> "$team/project-$d/part-a/doc-1.txt"
  touch -d "@$t2" "$team/project-$d/part-a/doc-1.txt"
done
touch -d "@$t2" "$home/projects/plan.txt"
"$control" scan --at "$t2" >/dev/null
