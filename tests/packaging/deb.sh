#!/usr/bin/env bash
# cpack -G DEB builds a package with the right control fields, conffiles, no
# maintainer scripts and a stripped binary, and lintian reports no error.
source "$(dirname "$0")/lib.sh"
require_tool cpack dpkg-deb dpkg dpkg-shlibdeps lintian readelf
make_scratch

config="$QLC_BUILD_DIR/CPackConfig.cmake"
[ -f "$config" ] || fail "no $config: is packaging/CMakeLists.txt included?"
version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$config")
arch=$(dpkg --print-architecture)
deb="$SCRATCH/qirn-log-converter_${version}_${arch}.deb"

note "cpack -G DEB"
(cd "$QLC_BUILD_DIR" && cpack -G DEB --config "$config" -B "$SCRATCH") >"$SCRATCH/cpack.log" 2>&1 ||
    { cat "$SCRATCH/cpack.log"; fail "cpack failed"; }
[ -f "$deb" ] || { ls "$SCRATCH"; fail "expected $deb"; }

note "control fields (dpkg-deb -I)"
field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package)" = qirn-log-converter ] || fail "Package is $(field Package)"
[ "$(field Version)" = "$version" ] || fail "Version is $(field Version), expected $version"
[ "$(field Architecture)" = "$arch" ] || fail "Architecture is $(field Architecture)"
[ "$(field Section)" = admin ] || fail "Section is $(field Section)"
[ -n "$(field Maintainer)" ] || fail "no Maintainer"
[[ "$(field Depends)" == *libc6* ]] || fail "Depends lacks libc6: $(field Depends)"
[[ "$(field Depends)" == *libstdc++6* ]] || fail "Depends lacks libstdc++6: $(field Depends)"
[[ "$(field Description)" == "convert the QIRN security audit log"* ]] ||
    fail "unexpected Description: $(field Description)"
dpkg-deb -I "$deb"

note "conffiles, and no maintainer scripts (the unit is not enabled on install)"
mkdir "$SCRATCH/control"
dpkg-deb -e "$deb" "$SCRATCH/control"
printf '/etc/qirn/qirn-log-converter.conf\n/etc/logrotate.d/qirn-log-converter\n' |
    cmp -s - "$SCRATCH/control/conffiles" || { cat "$SCRATCH/control/conffiles"; fail "conffiles"; }
for script in preinst postinst prerm postrm config triggers; do
    [ ! -e "$SCRATCH/control/$script" ] || fail "the package has a $script script"
done

note "contents (dpkg-deb -c)"
dpkg-deb -c "$deb" | tee "$SCRATCH/contents.txt"
expected='./etc/logrotate.d/qirn-log-converter
./etc/qirn/qirn-log-converter.conf
./usr/lib/systemd/system/qirn-log-converter.service
./usr/sbin/qirn-log-converter
./usr/share/doc/qirn-log-converter/changelog.gz
./usr/share/doc/qirn-log-converter/copyright
./usr/share/doc/qirn-log-converter/examples/shipping/README.md
./usr/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-collector-tls.conf
./usr/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-collector.conf
./usr/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-forwarder-tls.conf
./usr/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-forwarder.conf
./usr/share/doc/qirn-log-converter/examples/shipping/syslog-ng/qirn-collector-tls.conf
./usr/share/doc/qirn-log-converter/examples/shipping/syslog-ng/qirn-collector.conf
./usr/share/doc/qirn-log-converter/examples/shipping/syslog-ng/qirn-forwarder-tls.conf
./usr/share/doc/qirn-log-converter/examples/shipping/syslog-ng/qirn-forwarder.conf
./usr/share/man/man8/qirn-log-converter.8.gz'
actual=$(awk '$1 !~ /^d/ {print $6}' "$SCRATCH/contents.txt" | sort)
[ "$expected" = "$actual" ] || { diff <(echo "$expected") <(echo "$actual") || true; fail "files"; }
if awk '{print $2}' "$SCRATCH/contents.txt" | grep -v '^root/root$'; then
    fail "files not owned by root/root"
fi

mkdir "$SCRATCH/root"
dpkg-deb -x "$deb" "$SCRATCH/root"
grep -qx 'ExecStart=/usr/sbin/qirn-log-converter' \
    "$SCRATCH/root/usr/lib/systemd/system/qirn-log-converter.service" ||
    fail "the packaged unit does not start /usr/sbin/qirn-log-converter"
changelog_version=$(zcat "$SCRATCH/root/usr/share/doc/qirn-log-converter/changelog.gz" |
    sed -n '1s/^qirn-log-converter (\([^)]*\)).*/\1/p')
[ "$changelog_version" = "$version" ] ||
    fail "packaging/debian/changelog starts at $changelog_version: add an entry for $version"
if readelf -S "$SCRATCH/root/usr/sbin/qirn-log-converter" | grep -q '\.debug_'; then
    fail "the packaged binary is not stripped"
fi

note "lintian"
lintian --display-info "$deb" >"$SCRATCH/lintian.txt" 2>&1 || true
cat "$SCRATCH/lintian.txt"
if grep -q '^E: ' "$SCRATCH/lintian.txt"; then
    fail "lintian reports errors"
fi
echo "PASS"
