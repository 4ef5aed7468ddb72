#!/usr/bin/env bash
# The logrotate snippet parses cleanly (logrotate -d with a private state
# file) and, run for real against a private /var/log, renames the output log
# and creates a new one, and copies and truncates the diagnostic log in place.
source "$(dirname "$0")/lib.sh"
require_tool logrotate
make_scratch

# logrotate refuses configuration files that others may write.
snippet="$SCRATCH/qirn-log-converter"
install -m 0644 "$QLC_SOURCE_DIR/packaging/qirn-log-converter.logrotate" "$snippet"

note "logrotate -d"
logrotate -d -s "$SCRATCH/debug.state" "$snippet" >"$SCRATCH/debug.txt" 2>&1 ||
    { cat "$SCRATCH/debug.txt"; fail "logrotate -d failed"; }
cat "$SCRATCH/debug.txt"
if grep -qi '^error' "$SCRATCH/debug.txt"; then
    fail "logrotate -d reports errors"
fi
for log in /var/log/zarvo_container.log /var/log/qirn-log-converter.log \
           /var/log/zarvo_container.backfill.log; do
    grep -q "rotating pattern: $log " "$SCRATCH/debug.txt" || fail "no rule for $log"
done

note "a forced rotation in a private /var/log"
require_private_mounts
varlog="$SCRATCH/varlog"
mkdir -m 0755 "$varlog"
printf 'Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,path=/etc/passwd,status=enforcing\n' \
    >"$varlog/zarvo_container.log"
printf '[2026-03-01 08:05:09.042] [INFO] Logger initialized\n' >"$varlog/qirn-log-converter.log"
printf 'Nov 15 13:10:06,container_id=3f2a9c,Event=filectl,path=/etc/group,status=enforcing\n' \
    >"$varlog/zarvo_container.backfill.log"
chmod 0640 "$varlog/zarvo_container.log" "$varlog/qirn-log-converter.log" \
    "$varlog/zarvo_container.backfill.log"
diag_inode=$(stat -c %i "$varlog/qirn-log-converter.log")

unshare --mount --propagation private -- sh -c '
    mount --bind "$1" /var/log && exec logrotate -v -f -s "$2" "$3"' \
    sh "$varlog" "$SCRATCH/rotate.state" "$snippet" >"$SCRATCH/rotate.txt" 2>&1 ||
    { cat "$SCRATCH/rotate.txt"; fail "logrotate -f failed"; }

# Output log: renamed to .1 (not yet compressed), a new empty file created
# with the old mode.
grep -q 'status=enforcing' "$varlog/zarvo_container.log.1" || fail "output log not rotated to .1"
[ -f "$varlog/zarvo_container.log" ] || fail "no new output log created"
[ ! -s "$varlog/zarvo_container.log" ] || fail "new output log is not empty"
[ "$(stat -c "%U:%G %a" "$varlog/zarvo_container.log")" = "root:adm 640" ] ||
    fail "new output log is not root:adm 0640: $(stat -c "%U:%G %a" "$varlog/zarvo_container.log")"
# Backfill log: renamed and recreated the same way.
grep -q 'path=/etc/group' "$varlog/zarvo_container.backfill.log.1" || fail "backfill log not rotated"
[ -f "$varlog/zarvo_container.backfill.log" ] && [ ! -s "$varlog/zarvo_container.backfill.log" ] ||
    fail "no new empty backfill log"
[ "$(stat -c "%U:%G %a" "$varlog/zarvo_container.backfill.log")" = "root:adm 640" ] ||
    fail "new backfill log is not root:adm 0640"
# Diagnostic log: same file, truncated, its content copied to .1.
grep -q 'Logger initialized' "$varlog/qirn-log-converter.log.1" || fail "diagnostic log not copied"
[ "$(stat -c %i "$varlog/qirn-log-converter.log")" = "$diag_inode" ] ||
    fail "diagnostic log was replaced, not truncated in place"
[ ! -s "$varlog/qirn-log-converter.log" ] || fail "diagnostic log not truncated"
echo "PASS"
