#!/usr/bin/env bash
# The Debian package under a real systemd: a minimal Debian 12 booted in a
# container (systemd-nspawn --boot, its own private network), the package
# installed with apt-get, then the checks below, in order, each against the
# running system. The packages come from packaging.deb (build/.../debian-package).
#
# Checks are functions named in CHECKS; to add one, write check_something
# (fail on a wrong observation, `observed TEXT` for the report) and list it.
#
# QLC_DEBIAN_ROOT_CACHE=DIR keeps the debootstrap result in DIR between runs
# (for development; CI always builds a fresh root).
source "$(dirname "$0")/lib.sh"
require_tool debootstrap systemd-nspawn nsenter dpkg-deb pgrep
[ "$(id -u)" -eq 0 ] || skip "booting a container needs root"
make_scratch

packages="$QLC_BUILD_DIR/debian-package"
arch=$(dpkg --print-architecture)
deb=$(ls "$packages"/qirn-log-converter_*_"$arch".deb 2>/dev/null | head -n 1)
[ -n "$deb" ] || fail "no package in $packages: run packaging.deb first"
version=$(dpkg-deb -f "$deb" Version)

unit=qirn-log-converter.service
audit=/var/log/qirn_audit.log
events=/var/log/zarvo_container.log
diag=/var/log/qirn-log-converter.log
RESTART_SEC=
readonly CHECKS=(
    check_installed_not_enabled
    check_start_converts
    check_logs_root_adm_0640
    check_error_reaches_journal
    check_stop_is_clean
    check_kill_restarts
    check_no_audit_log_retries
    check_upgrade_restarts_new_binary
    check_security_exposure
    check_reconcile_timer_fills_gap
    check_remove_stops
    check_purge_leaves_nothing
)

# --- The container ----------------------------------------------------------

root=$SCRATCH/root
machine=qlc-systemd-$$
nspawn_pid=
init_pid=

stop_container() {
    [ -n "$nspawn_pid" ] || return 0
    # SIGTERM asks nspawn to shut the container down in order; ending the
    # container's init ends every process of its PID namespace.
    kill -TERM "$nspawn_pid" 2>/dev/null || true
    local i
    for i in $(seq 150); do
        kill -0 "$nspawn_pid" 2>/dev/null || break
        sleep 0.1
    done
    if kill -0 "$nspawn_pid" 2>/dev/null; then
        [ -n "$init_pid" ] && kill -KILL "$init_pid" 2>/dev/null || true
        kill -KILL "$nspawn_pid" 2>/dev/null || true
    fi
    wait "$nspawn_pid" 2>/dev/null || true
    nspawn_pid=
}
trap 'stop_container; cleanup_scratch' EXIT
# A command that fails outside a check's own tests still names itself.
set -E
trap 'echo "FAIL: ${current_check:-setup}: \"$BASH_COMMAND\" failed (line $LINENO)" >&2' ERR
trap 'exit 130' INT TERM

# Runs a command inside the container, with a clean environment.
in_ct() {
    nsenter -t "$init_pid" -m -u -i -n -p -- \
        env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C SYSTEMD_PAGER= SYSTEMD_COLORS=0 \
        DEBIAN_FRONTEND=noninteractive "$@"
}

note "debootstrap a minimal Debian 12 root"
start=$SECONDS
base=${QLC_DEBIAN_ROOT_CACHE:-$SCRATCH/base}
"$QLC_SOURCE_DIR/tests/support/debian-root" "$base" systemd systemd-sysv dbus logrotate >/dev/null
if [ "$base" != "$SCRATCH/base" ]; then
    cp -a "$base" "$root"
else
    mv "$base" "$root"
fi
echo "root ready in $((SECONDS - start)) s"

note "booting it with systemd-nspawn"
start=$SECONDS
systemd-nspawn --boot --register=no --keep-unit --private-network --console=read-only \
    -M "$machine" -D "$root" </dev/null >"$SCRATCH/console.log" 2>&1 &
nspawn_pid=$!
container_init() {
    init_pid=$(pgrep -P "$nspawn_pid" -x systemd | head -n 1)
    [ -n "$init_pid" ]
}
wait_for 20 container_init || { cat "$SCRATCH/console.log"; fail "no systemd child of nspawn"; }
manager_listens() { in_ct test -S /run/systemd/private; }
wait_for 30 manager_listens || { cat "$SCRATCH/console.log"; fail "the container's systemd does not listen"; }
state=$(timeout 60 nsenter -t "$init_pid" -m -u -i -n -p -- \
    env -i PATH=/usr/bin:/bin systemctl is-system-running --wait 2>&1) || true
echo "booted in $((SECONDS - start)) s: $state"
case "$state" in
    running | degraded) ;;
    *) tail -n 30 "$SCRATCH/console.log"; fail "the container did not boot: $state" ;;
esac

# --- Helpers ----------------------------------------------------------------

RESULTS=()
observed() {
    echo "   observed: $*"
    RESULTS+=("$current_check: $*")
}

prop() { in_ct systemctl show -P "$1" "$unit"; }

# A QIRN_AVC line for second $1 past a fixed time, path $2, decision $3.
audit_line() {
    printf 'type=QIRN_AVC msg=audit(%d.123:%d): avc:  %s  { write } for  pid=1234 comm="bash" name="%s" dev="sda1" ino=5678 container_id=3f2a9c scontext=system_u:system_r:container_t tcontext=system_u:object_r:etc_t tclass=file permissive=0\n' \
        $((1731676205 + $1)) $((4567 + $1)) "${3:-denied}" "$2"
}

# The event line the service writes for audit_line $1 $2 (the container
# has no time zone set: UTC).
event_line() {
    printf '%s,container_id=3f2a9c,Event=filectl,path=%s,status=enforcing\n' \
        "$(TZ=UTC date -d "@$((1731676205 + $1))" '+%b %d %H:%M:%S')" "$2"
}

# Appends a fresh audit line and waits for its event in the event log; the
# event is left in $event.
sequence=0
event=
converts() {
    sequence=$((sequence + 1))
    local path="/etc/check-$sequence"
    event=$(event_line "$sequence" "$path")
    audit_line "$sequence" "$path" >>"$root$audit"
    wait_for 10 grep -qxF "$event" "$root$events" ||
        { tail -n 20 "$root$diag"; fail "no event for $path in $events"; }
}

# How many times the service has started following its input.
monitor_starts() {
    local count
    count=$(grep -c 'Monitor thread started' "$root$diag" 2>/dev/null) || true
    echo "${count:-0}"
}
following_since() { [ "$(monitor_starts)" -gt "$1" ]; }

active() { [ "$(prop ActiveState)" = active ]; }
main_pid_other_than() {
    local pid
    pid=$(prop MainPID)
    [ "$pid" != 0 ] && [ "$pid" != "$1" ] && active
}

# --- Checks -----------------------------------------------------------------

check_installed_not_enabled() {
    cp "$deb" "$root/root/"
    in_ct apt-get install -y -q "/root/$(basename "$deb")" >"$SCRATCH/install.log" 2>&1 ||
        { cat "$SCRATCH/install.log"; fail "apt-get install of the package failed"; }
    local enabled state
    enabled=$(in_ct systemctl is-enabled "$unit" || true)
    state=$(prop ActiveState)
    [ "$enabled" = disabled ] || fail "after a fresh install the unit is $enabled"
    [ "$state" = inactive ] || fail "after a fresh install the unit is $state"
    observed "apt-get install ./$(basename "$deb"): is-enabled=$enabled, ActiveState=$state"
    RESTART_SEC=$(prop RestartUSec)
    RESTART_SEC=${RESTART_SEC%s}
    [[ "$RESTART_SEC" =~ ^[0-9]+$ ]] || fail "unexpected RestartUSec: $(prop RestartUSec)"
}

check_start_converts() {
    : >"$root$audit"
    local before
    before=$(monitor_starts)
    in_ct systemctl start "$unit" || fail "systemctl start failed"
    wait_for 10 following_since "$before" || { in_ct systemctl status "$unit" || true; fail "not following"; }
    active || fail "the unit is $(prop ActiveState) after start"
    converts
    observed "ActiveState=active SubState=$(prop SubState) Type=$(prop Type); event: $event"
}

check_logs_root_adm_0640() {
    local file attributes
    for file in "$events" "$diag"; do
        attributes=$(stat -c '%U:%G %a' "$root$file")
        [ "$attributes" = "root:adm 640" ] || fail "$file is $attributes"
        observed "$file $attributes"
    done
}

check_error_reaches_journal() {
    sequence=$((sequence + 1))
    audit_line "$sequence" /etc/check-error granted >>"$root$audit"
    local text='Unexpected status word (neither denied nor detect): granted'
    in_journal() { in_ct journalctl -q -u "$unit" --no-pager | grep -qF "$text"; }
    wait_for 10 in_journal || { in_ct journalctl -u "$unit" --no-pager | tail; fail "no ERROR line in the journal"; }
    grep -qF "[ERROR] $text" "$root$diag" || fail "the ERROR line is not in the diagnostic log"
    observed "journal: $(in_ct journalctl -q -u "$unit" --no-pager -o cat | grep -F "$text" | head -n 1 | cut -c1-80)..."
}

check_stop_is_clean() {
    in_ct systemctl stop "$unit" || fail "systemctl stop failed"
    local result status
    result=$(prop Result)
    status=$(prop ExecMainStatus)
    [ "$result" = success ] || fail "Result=$result after stop"
    [ "$status" = 0 ] || fail "ExecMainStatus=$status after stop"
    in_ct journalctl -q -u "$unit" --no-pager | grep -q 'Shutdown complete' ||
        fail "no \"Shutdown complete\" in the journal"
    observed "Result=$result ExecMainStatus=$status; journal: $(in_ct journalctl -q -u "$unit" --no-pager -o cat |
        grep 'Shutdown complete' | tail -n 1)"
}

check_kill_restarts() {
    local before pid start started elapsed
    before=$(monitor_starts)
    in_ct systemctl start "$unit"
    wait_for 10 following_since "$before" || fail "not following after start"
    pid=$(prop MainPID)
    before=$(monitor_starts)
    start=$(date +%s%N)
    in_ct sh -c "kill -KILL $pid"  # the shell's kill: minbase has no procps
    wait_for $((RESTART_SEC + 5)) main_pid_other_than "$pid" || fail "no new main process after kill -9"
    # Measured with systemd's own start time of the new process, so that
    # the polling above adds nothing (the container shares the host's clock).
    started=$(in_ct systemctl show --timestamp=us -P ExecMainStartTimestamp "$unit")
    elapsed=$((($(date -d "$started" +%s%N) - start) / 1000000))
    [ "$elapsed" -le $(((RESTART_SEC + 1) * 1000)) ] ||
        fail "the new main process came after $elapsed ms (RestartSec=$RESTART_SEC)"
    wait_for 10 following_since "$before" || fail "the new process does not follow its input"
    converts
    observed "kill -9 $pid: new MainPID $(prop MainPID) after $elapsed ms, NRestarts=$(prop NRestarts); event: $event"
}

check_no_audit_log_retries() {
    in_ct systemctl stop "$unit"
    rm -f "$root$audit"
    in_ct systemctl reset-failed "$unit" 2>/dev/null || true
    local restarts before start
    restarts=$(prop NRestarts)
    before=$(monitor_starts)
    start=$SECONDS
    in_ct systemctl start "$unit"
    retried() { [ "$(prop NRestarts)" -gt "$restarts" ]; }
    wait_for $((30 + RESTART_SEC + 15)) retried || fail "no retry without an audit log"
    local waited=$((SECONDS - start))
    in_ct journalctl -q -u "$unit" --no-pager >"$SCRATCH/journal-retry.txt"
    grep -q 'ERROR: Failed to start monitoring input file' "$SCRATCH/journal-retry.txt" ||
        fail "no start-up failure in the journal"
    grep -q 'Main process exited, code=exited, status=1/FAILURE' "$SCRATCH/journal-retry.txt" ||
        fail "the service did not exit with status 1"
    # The retry finds the audit log once it is there.
    : >"$root$audit"
    wait_for 15 following_since "$before" || fail "the retried service does not follow the new audit log"
    converts
    observed "exit status 1 after ${waited} s without $audit, NRestarts $restarts -> $(prop NRestarts); then event: $event"
}

check_upgrade_restarts_new_binary() {
    local old_pid new_version=${version}+upgrade1 repack="$SCRATCH/repack"
    active || fail "the service is not running before the upgrade"
    old_pid=$(prop MainPID)
    dpkg-deb -R "$deb" "$repack"
    sed -i "s/^Version: .*/Version: $new_version/" "$repack/DEBIAN/control"
    dpkg-deb -b "$repack" "$root/root/upgrade.deb" >/dev/null
    in_ct apt-get install -y -q /root/upgrade.deb >"$SCRATCH/upgrade.log" 2>&1 ||
        { cat "$SCRATCH/upgrade.log"; fail "the upgrade failed"; }
    [ "$(in_ct dpkg-query -W -f='${Version}' qirn-log-converter)" = "$new_version" ] ||
        fail "the upgrade did not install $new_version"
    wait_for 10 main_pid_other_than "$old_pid" || fail "the main PID is still $old_pid after the upgrade"
    local new_pid exe
    new_pid=$(prop MainPID)
    exe=$(in_ct readlink "/proc/$new_pid/exe")
    [ "$exe" = /usr/sbin/qirn-log-converter ] || fail "/proc/$new_pid/exe is $exe"
    observed "$version -> $new_version: MainPID $old_pid -> $new_pid, /proc/$new_pid/exe -> $exe"
}

check_security_exposure() {
    local exposure
    in_ct systemd-analyze security --no-pager "$unit" >"$SCRATCH/security.txt"
    check_exposure "$SCRATCH/security.txt" 1.0
    observed "$(tail -n 1 "$SCRATCH/security.txt")"
}

check_reconcile_timer_fills_gap() {
    local timer=qirn-log-reconcile.timer backfill=/var/log/zarvo_container.backfill.log
    in_ct systemctl enable --now "$timer" 2>/dev/null || fail "systemctl enable --now $timer failed"
    local timer_state next
    timer_state=$(in_ct systemctl show -P ActiveState "$timer")
    next=$(in_ct systemctl show -P NextElapseUSecRealtime "$timer")
    [ "$timer_state" = active ] || fail "$timer is $timer_state after enable --now"
    # A gap: a line appended while the service is stopped is never read,
    # since following starts at the end of the file.
    in_ct systemctl stop "$unit"
    sequence=$((sequence + 1))
    local path="/etc/check-gap-$sequence" gap before
    gap=$(event_line "$sequence" "$path")
    audit_line "$sequence" "$path" >>"$root$audit"
    before=$(monitor_starts)
    in_ct systemctl start "$unit"
    wait_for 10 following_since "$before" || fail "not following after restart"
    converts
    ! grep -qxF "$gap" "$root$events" || fail "the gap event reached the event log"
    # What the timer starts, started now rather than in up to 15 minutes.
    in_ct systemctl start "qirn-log-reconcile.service" ||
        { in_ct journalctl -u qirn-log-reconcile.service --no-pager | tail; fail "the reconcile run failed"; }
    grep -qxF "$gap" "$root$backfill" ||
        { cat "$root$backfill" 2>/dev/null; fail "the gap event is not in $backfill"; }
    local lines
    lines=$(wc -l <"$root$backfill")
    [ "$lines" = 1 ] || fail "$backfill holds $lines lines, expected only the gap event"
    in_ct test -f /var/lib/qirn-log-converter/reconcile.checkpoint || fail "no checkpoint written"
    observed "$timer active, next run $next; gap event backfilled: $gap; $backfill has $lines line"
}

check_remove_stops() {
    # Enabled first, so that the purge below has enablement to clean up.
    in_ct systemctl enable "$unit" 2>/dev/null || fail "systemctl enable failed"
    local pid
    pid=$(prop MainPID)
    in_ct apt-get remove -y -q qirn-log-converter >"$SCRATCH/remove.log" 2>&1 ||
        { cat "$SCRATCH/remove.log"; fail "apt-get remove failed"; }
    local state
    state=$(in_ct systemctl is-active "$unit" || true)
    [ "$state" = inactive ] || fail "the unit is $state after remove"
    ! in_ct test -e "/proc/$pid" || fail "process $pid still runs after remove"
    observed "enabled, then apt-get remove: is-active=$state, process $pid gone"
}

check_purge_leaves_nothing() {
    in_ct apt-get purge -y -q qirn-log-converter >"$SCRATCH/purge.log" 2>&1 ||
        { cat "$SCRATCH/purge.log"; fail "apt-get purge failed"; }
    local left
    left=$(in_ct sh -c 'find /etc/systemd /lib/systemd/system /usr/lib/systemd/system \
            /var/lib/systemd/deb-systemd-helper-enabled /var/lib/systemd/deb-systemd-helper-masked \
            /etc/qirn /etc/logrotate.d /var/lib/qirn-log-converter -name "*qirn*" 2>/dev/null; true')
    [ -z "$left" ] || fail "left after purge: $left"
    local load
    load=$(prop LoadState)
    [ "$load" = not-found ] || fail "LoadState=$load after purge"
    [ -z "$(in_ct dpkg-query -W -f='${Status}' qirn-log-converter 2>/dev/null)" ] ||
        fail "dpkg still knows the package"
    [ -f "$root$events" ] && [ -f "$root$diag" ] || fail "purge removed the logs in /var/log"
    observed "no unit, no enablement link, no /etc/qirn, no logrotate snippet (LoadState=$load); logs stay: $(cd "$root/var/log" && ls zarvo_container.log qirn-log-converter.log | paste -sd' ')"
}

# --- Run --------------------------------------------------------------------

for current_check in "${CHECKS[@]}"; do
    note "$current_check"
    "$current_check"
done

note "summary (package $version, RestartSec=$RESTART_SEC)"
printf '%s\n' "${RESULTS[@]}"
echo "PASS"
