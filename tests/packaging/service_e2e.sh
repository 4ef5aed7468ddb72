#!/usr/bin/env bash
# The service works as installed: the tree is installed with prefix /usr into
# a temporary root, and the installed binary runs from there in a private
# mount namespace (a temporary /var/log, an overlay on /etc whose upper layer
# holds the installed example configuration). An appended QIRN_AVC line comes
# out converted, and SIGTERM ends the service with status 0.
source "$(dirname "$0")/lib.sh"
make_scratch
require_private_mounts

root=$SCRATCH/root
note "installing with prefix /usr into $root"
install_into "$root" /usr
binary=$root/usr/sbin/qirn-log-converter
[ -x "$binary" ] || fail "no installed binary at $binary"
[ -f "$root/etc/qirn/qirn-log-converter.conf" ] || fail "no installed configuration"

varlog=$SCRATCH/varlog
mkdir -m 0755 "$varlog" "$SCRATCH/etc"
: >"$varlog/qirn_audit.log"

note "starting $binary in a private namespace"
unshare --mount --propagation private -- /bin/sh -c '
    set -e
    mount --bind "$1" /var/log
    mount -t tmpfs -o mode=0755 tmpfs "$2"
    mkdir -p "$2/up/qirn" "$2/work"
    cp "$3/etc/qirn/qirn-log-converter.conf" "$2/up/qirn/"
    mount -t overlay overlay -o "lowerdir=/etc,upperdir=$2/up,workdir=$2/work" /etc
    exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin TZ=UTC LC_ALL=C "$3/usr/sbin/qirn-log-converter"' \
    sh "$varlog" "$SCRATCH/etc" "$root" </dev/null >"$SCRATCH/console.txt" 2>&1 &
pid=$!
CLEANUP_PIDS+=("$pid")

monitoring() { grep -qs 'Monitor thread started for /var/log/qirn_audit.log' "$varlog/qirn-log-converter.log"; }
wait_for 10 monitoring || { cat "$SCRATCH/console.txt"; fail "the service did not start following its input"; }
grep -qx 'Loaded configuration from /etc/qirn/qirn-log-converter.conf' "$SCRATCH/console.txt" ||
    { cat "$SCRATCH/console.txt"; fail "the installed example configuration was not read"; }
grep -qx '  Input:  /var/log/qirn_audit.log' "$SCRATCH/console.txt" ||
    fail "the example configuration changed the default input"

note "appending a QIRN_AVC line"
printf '%s\n' 'type=QIRN_AVC msg=audit(1731676205.123:4567): avc:  denied  { write } for  pid=1234 comm="bash" name="/etc/passwd" dev="sda1" ino=5678 container_id=3f2a9c scontext=system_u:system_r:container_t tcontext=system_u:object_r:etc_t tclass=file permissive=0' \
    >>"$varlog/qirn_audit.log"
converted() { [ -s "$varlog/zarvo_container.log" ]; }
wait_for 10 converted || { cat "$varlog/qirn-log-converter.log"; fail "no converted line"; }
expected='Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,path=/etc/passwd,status=enforcing'
[ "$(cat "$varlog/zarvo_container.log")" = "$expected" ] ||
    { cat "$varlog/zarvo_container.log"; fail "unexpected output"; }

note "SIGTERM"
kill -TERM "$pid"
status=0
wait "$pid" || status=$?
CLEANUP_PIDS=()
[ "$status" -eq 0 ] || { cat "$SCRATCH/console.txt"; fail "exit status $status after SIGTERM"; }
grep -q '\[INFO\] Total lines processed: 1$' "$varlog/qirn-log-converter.log" ||
    { cat "$varlog/qirn-log-converter.log"; fail "no shutdown total in the diagnostic log"; }
echo "PASS"
