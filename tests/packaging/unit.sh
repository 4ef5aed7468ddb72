#!/usr/bin/env bash
# The installed systemd unit passes systemd-analyze verify and its security
# exposure is 2.0 or lower.
source "$(dirname "$0")/lib.sh"
require_tool systemd-analyze
make_scratch

root="$SCRATCH/root"
install_into "$root" /usr
unit="$(unit_dir_of "$root" /usr)/qirn-log-converter.service"
[ -f "$unit" ] || fail "no $unit, where this build installs units"

# verify wants ExecStart to name an executable and the unit file's name to be
# the unit's name: check a copy whose ExecStart points into the DESTDIR.
mkdir "$SCRATCH/units"
sed "s|^ExecStart=/usr/sbin/|ExecStart=$root/usr/sbin/|" "$unit" \
    >"$SCRATCH/units/qirn-log-converter.service"
grep -q "^ExecStart=$root/usr/sbin/qirn-log-converter\$" "$SCRATCH/units/qirn-log-converter.service" ||
    fail "could not point ExecStart at the installed binary"

note "systemd-analyze verify"
# Documentation=man:qirn-log-converter(8) is looked up with man(1), against
# the manual page installed in the DESTDIR.
man_option=(--man=no)
if command -v man >/dev/null 2>&1; then
    export MANPATH="$root/usr/share/man"
    man_option=()
fi
export SYSTEMD_LOG_LEVEL=notice
systemd-analyze verify "${man_option[@]}" "$SCRATCH/units/qirn-log-converter.service" \
    >"$SCRATCH/verify.txt" 2>&1 || { cat "$SCRATCH/verify.txt"; fail "systemd-analyze verify"; }
cat "$SCRATCH/verify.txt"
# verify exits 0 on some warnings; any line about our unit is a finding.
if grep -q 'qirn-log-converter' "$SCRATCH/verify.txt"; then
    fail "systemd-analyze verify reports findings for the unit"
fi

note "systemd-analyze security --offline=yes (exposure must be 2.0 or lower)"
systemd-analyze security --offline=yes --no-pager "$unit" >"$SCRATCH/security.txt" 2>&1 || true
check_exposure "$SCRATCH/security.txt" 2.0
echo "PASS (exposure $exposure)"
