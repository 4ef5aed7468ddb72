#!/usr/bin/env bash
# The installed reconcile unit and timer pass systemd-analyze verify, the
# unit's security exposure is 2.0 or lower, and its shell line, run against a
# private /var/log, appends exactly the missing events to the backfill log
# and leaves a checkpoint.
source "$(dirname "$0")/lib.sh"
require_tool systemd-analyze
make_scratch

root="$SCRATCH/root"
install_into "$root" /usr
unitdir=$(unit_dir_of "$root" /usr)
[ -f "$unitdir/qirn-log-reconcile.service" ] ||
    fail "no qirn-log-reconcile.service in $unitdir, where this build installs units"
bin="$root/usr/bin/qirn-log-convert"

# verify wants the command to exist: check copies pointing into the DESTDIR.
mkdir "$SCRATCH/units"
sed "s|exec /usr/bin/qirn-log-convert |exec $bin |" "$unitdir/qirn-log-reconcile.service" \
    >"$SCRATCH/units/qirn-log-reconcile.service"
cp "$unitdir/qirn-log-reconcile.timer" "$SCRATCH/units/"

note "systemd-analyze verify"
man_option=(--man=no)
if command -v man >/dev/null 2>&1; then
    export MANPATH="$root/usr/share/man"
    man_option=()
fi
export SYSTEMD_LOG_LEVEL=notice
systemd-analyze verify "${man_option[@]}" "$SCRATCH/units/qirn-log-reconcile.timer" \
    "$SCRATCH/units/qirn-log-reconcile.service" >"$SCRATCH/verify.txt" 2>&1 ||
    { cat "$SCRATCH/verify.txt"; fail "systemd-analyze verify"; }
cat "$SCRATCH/verify.txt"
if grep -q 'qirn-log-reconcile' "$SCRATCH/verify.txt"; then
    fail "systemd-analyze verify reports findings for the units"
fi

note "the timer fires every 15 minutes"
grep -qx 'OnCalendar=\*:0/15' "$unitdir/qirn-log-reconcile.timer" || fail "no 15-minute calendar"
systemd-analyze calendar --iterations=2 '*:0/15' >"$SCRATCH/calendar.txt" 2>&1 ||
    { cat "$SCRATCH/calendar.txt"; fail "the calendar expression does not parse"; }

note "systemd-analyze security --offline=yes (exposure must be 2.0 or lower)"
systemd-analyze security --offline=yes --no-pager "$unitdir/qirn-log-reconcile.service" \
    >"$SCRATCH/security.txt" 2>&1 || true
check_exposure "$SCRATCH/security.txt" 2.0

note "the unit's shell line in a private /var/log and /var/lib"
require_private_mounts
# The command as systemd would run it: the quoted script after "sh -c", with
# systemd's "$$" unescaped and the continuation lines joined.
script=$(sed -n '/^ExecStart=/,/[^\\]$/p' "$unitdir/qirn-log-reconcile.service" |
    sed -e 's/^ExecStart=\/bin\/sh -c //' -e 's/\\$//' | tr '\n' ' ' |
    sed -e "s/^ *'//" -e "s/' *$//" -e 's/\$\$/$/g' -e "s|exec /usr/bin/qirn-log-convert |exec $bin |")
varlog="$SCRATCH/varlog"
varlib="$SCRATCH/varlib"
mkdir -m 0755 "$varlog" "$varlib" "$varlib/qirn-log-converter"
line() {
    printf 'type=QIRN_AVC msg=audit(%s.000:1): avc:  denied  { write } for pid=1 name="%s" container_id=c1\n' "$1" "$2"
}
{ line 1731676205 /a; line 1731676206 /b; } >"$varlog/qirn_audit.log.1"
{ line 1731676207 /c; line 1731676208 /d; } >"$varlog/qirn_audit.log"
printf 'Nov 15 13:10:05,container_id=c1,Event=filectl,path=/a,status=enforcing\n' \
    >"$varlog/zarvo_container.log.1"
printf 'Nov 15 13:10:08,container_id=c1,Event=filectl,path=/d,status=enforcing\n' \
    >"$varlog/zarvo_container.log"
run_unit_line() {
    TZ=UTC unshare --mount --propagation private -- sh -c '
        mount --bind "$1" /var/log && mount --bind "$2" /var/lib &&
        exec sh -c "$3" >>/var/log/zarvo_container.backfill.log' \
        sh "$varlog" "$varlib" "$script"
}
run_unit_line || fail "the unit's command failed"
expected='Nov 15 13:10:06,container_id=c1,Event=filectl,path=/b,status=enforcing
Nov 15 13:10:07,container_id=c1,Event=filectl,path=/c,status=enforcing'
[ "$(cat "$varlog/zarvo_container.backfill.log")" = "$expected" ] || {
    cat "$varlog/zarvo_container.backfill.log"
    fail "the backfill log does not hold exactly the missing events"
}
[ -s "$varlib/qirn-log-converter/reconcile.checkpoint" ] || fail "no checkpoint written"
note "a second run adds nothing"
run_unit_line || fail "the unit's command failed on its second run"
[ "$(cat "$varlog/zarvo_container.backfill.log")" = "$expected" ] ||
    fail "the second run changed the backfill log"
echo "PASS (exposure $exposure)"
