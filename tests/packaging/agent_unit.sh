#!/usr/bin/env bash
# The fleet agent's units as installed: the agent's unit, the loop's unit and
# timer pass systemd-analyze verify; the agent's unit runs as qirn-fleet in
# group adm, restarts on failure and its security exposure is 2.0 or lower;
# its tmpfiles.d file makes the backfill log root:adm 0640 and its setfacl
# gives the agent's user its entry on node_exporter's textfile directory.
source "$(dirname "$0")/lib.sh"
require_tool systemd-analyze systemd-tmpfiles
[ -n "$QLC_AGENT_BINARY" ] || skip "this build has no fleet agent (QLC_BUILD_FLEET=OFF)"
make_scratch

root="$SCRATCH/root"
install_into "$root" /usr
unitdir=$(unit_dir_of "$root" /usr)
unit="$unitdir/qirn-fleet-agent.service"
[ -f "$unit" ] || fail "no $unit, where this build installs units"

# verify wants ExecStart to name an executable: copies pointing into the DESTDIR.
mkdir "$SCRATCH/units"
sed "s|^ExecStart=/usr/sbin/|ExecStart=$root/usr/sbin/|" "$unit" >"$SCRATCH/units/qirn-fleet-agent.service"
sed "s|^ExecStart=/usr/sbin/|ExecStart=$root/usr/sbin/|" "$unitdir/qirn-fleet-complete.service" \
    >"$SCRATCH/units/qirn-fleet-complete.service"
cp "$unitdir/qirn-fleet-complete.timer" "$SCRATCH/units/"
grep -q "^ExecStart=$root/usr/sbin/qirn-fleet-agent\$" "$SCRATCH/units/qirn-fleet-agent.service" ||
    fail "could not point ExecStart at the installed agent"

note "systemd-analyze verify"
man_option=(--man=no)
if command -v man >/dev/null 2>&1; then
    export MANPATH="$root/usr/share/man"
    man_option=()
fi
export SYSTEMD_LOG_LEVEL=notice
systemd-analyze verify "${man_option[@]}" "$SCRATCH/units/qirn-fleet-agent.service" \
    "$SCRATCH/units/qirn-fleet-complete.timer" "$SCRATCH/units/qirn-fleet-complete.service" \
    >"$SCRATCH/verify.txt" 2>&1 || { cat "$SCRATCH/verify.txt"; fail "systemd-analyze verify"; }
cat "$SCRATCH/verify.txt"
if grep -q 'qirn-fleet' "$SCRATCH/verify.txt"; then
    fail "systemd-analyze verify reports findings for the units"
fi

note "identity, restart, what it may write"
for line in User=qirn-fleet SupplementaryGroups=adm Restart=on-failure \
        ProtectSystem=strict ReadWritePaths=-/var/lib/prometheus/node-exporter \
        'ExecStartPre=+/bin/systemd-tmpfiles --create qirn-fleet-agent.conf' \
        'ExecStartPre=-+/usr/bin/setfacl -m u:qirn-fleet:rwx /var/lib/prometheus/node-exporter'; do
    grep -qxF "$line" "$unit" || fail "the agent's unit lacks $line"
done
if grep -E '^(ReadWritePaths|StateDirectory|LogsDirectory|RuntimeDirectory)=' "$unit" |
    grep -vxF -e 'ReadWritePaths=-/var/lib/prometheus/node-exporter' -e 'RuntimeDirectory=qirn-fleet-agent'; then
    fail "the agent's unit may write more than its textfile directory and lock file"
fi
grep -q '^\[Install\]' "$SCRATCH/units/qirn-fleet-complete.timer" || fail "the loop's timer has no [Install]"

note "systemd-analyze security --offline=yes (exposure must be 2.0 or lower)"
systemd-analyze security --offline=yes --no-pager "$unit" >"$SCRATCH/security.txt" 2>&1 || true
check_exposure "$SCRATCH/security.txt" 2.0
agent_exposure=$exposure

note "tmpfiles.d: the backfill log root:adm 0640; setfacl: the textfile directory's ACL"
tmpfiles="$root/usr/lib/tmpfiles.d/qirn-fleet-agent.conf"
target="$SCRATCH/target"
mkdir -p "$target/var/log" "$target/var/lib/prometheus/node-exporter" "$target/etc"
# The ACL names the agent's user, which the package makes; here a user this
# machine has stands in for it.
stand_in=$(getent passwd nobody | cut -d: -f1)
[ -n "$stand_in" ] || skip "no user nobody to stand in for qirn-fleet"
sed "s/u:qirn-fleet:/u:$stand_in:/" "$tmpfiles" >"$SCRATCH/tmpfiles.conf"
# systemd-tmpfiles --root looks users and groups up in the root's files.
getent passwd root "$stand_in" >"$target/etc/passwd"
getent group root adm >"$target/etc/group" || fail "this machine has no group adm"
umask 077
: >"$target/var/log/zarvo_container.backfill.log"
umask 022
systemd-tmpfiles --root="$target" --create "$SCRATCH/tmpfiles.conf" >"$SCRATCH/tmpfiles.txt" 2>&1 ||
    { cat "$SCRATCH/tmpfiles.txt"; fail "systemd-tmpfiles --create failed"; }
if [ -s "$SCRATCH/tmpfiles.txt" ]; then
    cat "$SCRATCH/tmpfiles.txt"
    fail "systemd-tmpfiles complains about the file"
fi
attributes=$(stat -c '%U:%G %a' "$target/var/log/zarvo_container.backfill.log")
[ "$attributes" = "root:adm 640" ] || fail "the backfill log is $attributes after systemd-tmpfiles"
# The unit's own setfacl line, for the stand-in user and below the target.
if command -v setfacl >/dev/null; then
    acl_line=$(sed -n 's/^ExecStartPre=-+//p' "$unit" | grep '^/usr/bin/setfacl ')
    acl_line=${acl_line//u:qirn-fleet:/u:$stand_in:}
    acl_line=${acl_line// \/var\/lib\/prometheus/ $target\/var\/lib\/prometheus}
    $acl_line || fail "the unit's setfacl failed: $acl_line"
    # A directory with an ACL shows its mask as the group bits: rwx for the entry.
    [ "$(stat -c %A "$target/var/lib/prometheus/node-exporter")" = drwxrwxr-x ] ||
        fail "no ACL entry on the textfile directory: $(stat -c %A "$target/var/lib/prometheus/node-exporter")"
    if [ "$(id -u)" -eq 0 ] && command -v setpriv >/dev/null; then
        uid=$(id -u "$stand_in")
        chmod 0755 "$SCRATCH" "$target" "$target/var" "$target/var/lib" "$target/var/lib/prometheus"
        setpriv --reuid "$uid" --regid "$(id -g "$stand_in")" --clear-groups \
            touch "$target/var/lib/prometheus/node-exporter/qirn_fleet_agent.prom" ||
            fail "the agent's user cannot write into the textfile directory"
    fi
else
    echo "setfacl is not installed (package acl): the textfile directory's ACL is not checked"
fi
rm -rf "$target/var/lib/prometheus"
systemd-tmpfiles --root="$target" --create "$SCRATCH/tmpfiles.conf" >"$SCRATCH/tmpfiles.txt" 2>&1 ||
    { cat "$SCRATCH/tmpfiles.txt"; fail "systemd-tmpfiles fails without node_exporter"; }
[ ! -e "$target/var/lib/prometheus" ] || fail "systemd-tmpfiles made node_exporter's directory"
echo "PASS (exposure $agent_exposure)"
