#!/usr/bin/env bash
# dpkg-buildpackage builds the Debian package from a scratch copy of the
# tree; the package carries the right fields, conffiles, debhelper's systemd
# maintainer scripts for every unit it ships, a stripped hardened binary with
# its symbols in -dbgsym, and lintian has no error and no warning. The
# packages stay in $QLC_BUILD_DIR/debian-package for the booted-systemd check.
source "$(dirname "$0")/lib.sh"
require_tool dpkg-buildpackage dh dpkg-deb dpkg-parsechangelog lintian hardening-check readelf tar
make_scratch

out="$QLC_BUILD_DIR/debian-package"
rm -rf "$out"
mkdir -p "$out/src"

note "scratch copy of the tree in $out/src"
# Tracked and new files as they are in the working tree, without build output.
if git -C "$QLC_SOURCE_DIR" rev-parse --git-dir >/dev/null 2>&1; then
    (cd "$QLC_SOURCE_DIR" &&
        git ls-files -z --cached --others --exclude-standard |
        while IFS= read -r -d '' file; do [ -e "$file" ] && printf '%s\0' "$file"; done |
        tar --null -cf - -T -) | tar -xf - -C "$out/src"
else
    tar -C "$QLC_SOURCE_DIR" --exclude=./build --exclude='./build-*' --exclude=./.git -cf - . |
        tar -xf - -C "$out/src"
fi

# With its test suite on, as Debian's build machines build it: dh_auto_test
# runs every test except those labelled long.
note "dpkg-buildpackage -b -us -uc (tests on)"
(cd "$out/src" && DEB_BUILD_OPTIONS="parallel=2" dpkg-buildpackage -b -us -uc) \
    >"$out/build.log" 2>&1 || {
    grep -E '(\*\*\*Failed|\*\*\*Timeout|\*\*\*Exception)' "$out/build.log" || true
    tail -n 60 "$out/build.log"
    fail "dpkg-buildpackage failed (log: $out/build.log)"
}
grep -E '^ *dh_' "$out/build.log" | sed 's/^ */   /' | cut -c1-100 | sort -u | head -n 40

note "the test suite ran inside the package build, without the long checks"
summary=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests failed out of [0-9]+$' "$out/build.log") ||
    fail "dh_auto_test ran no test suite (built with nocheck?)"
echo "$summary"
[[ "$summary" == "100% tests passed, 0 tests failed out of "* ]] || fail "tests failed: $summary"
sed -n '/^The following tests did not run:/,/^$/p' "$out/build.log"
if grep -E '^ +Start +[0-9]+: (packaging\.(deb|systemd)|shipping\.)' "$out/build.log"; then
    fail "a check labelled long ran inside the package build"
fi

version=$(dpkg-parsechangelog -l "$QLC_SOURCE_DIR/debian/changelog" -S Version)
project_version=$(sed -n 's/^project(qirn-log-converter VERSION \([0-9.]*\).*/\1/p' \
    "$QLC_SOURCE_DIR/CMakeLists.txt")
[ "$version" = "$project_version" ] ||
    fail "debian/changelog is at $version, CMakeLists.txt at $project_version: add a changelog entry"
arch=$(dpkg --print-architecture)
deb="$out/qirn-log-converter_${version}_${arch}.deb"
dbgsym="$out/qirn-log-converter-dbgsym_${version}_${arch}.deb"
changes="$out/qirn-log-converter_${version}_${arch}.changes"
for file in "$deb" "$dbgsym" "$changes"; do
    [ -f "$file" ] || { ls "$out"; fail "expected $file"; }
done

note "control fields (dpkg-deb -I)"
dpkg-deb -I "$deb"
field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package)" = qirn-log-converter ] || fail "Package is $(field Package)"
[ "$(field Version)" = "$version" ] || fail "Version is $(field Version), expected $version"
[ "$(field Architecture)" = "$arch" ] || fail "Architecture is $(field Architecture)"
[ "$(field Section)" = admin ] || fail "Section is $(field Section)"
[[ "$(field Depends)" == *libc6* ]] || fail "Depends lacks libc6: $(field Depends)"
[[ "$(field Depends)" == *libstdc++6* ]] || fail "Depends lacks libstdc++6: $(field Depends)"
[ "$(field Recommends)" = logrotate ] || fail "Recommends is $(field Recommends)"
# The fleet's loader links libpq; it is never part of the service's package.
[[ "$(field Depends)" != *libpq* ]] || fail "Depends names libpq: $(field Depends)"

note "conffiles"
mkdir "$SCRATCH/control" "$SCRATCH/root"
dpkg-deb -e "$deb" "$SCRATCH/control"
dpkg-deb -x "$deb" "$SCRATCH/root"
cat "$SCRATCH/control/conffiles"
expected_conffiles=$(cd "$SCRATCH/root" && find etc -type f -printf '/%p\n' | sort)
[ "$(sort "$SCRATCH/control/conffiles")" = "$expected_conffiles" ] ||
    fail "conffiles differ from the files in /etc: $expected_conffiles"
grep -qx /etc/qirn/qirn-log-converter.conf "$SCRATCH/control/conffiles" || fail "conffiles"
grep -qx /etc/logrotate.d/qirn-log-converter "$SCRATCH/control/conffiles" || fail "conffiles"

note "units in /lib/systemd/system, each handled by debhelper's maintainer scripts"
units=$(cd "$SCRATCH/root/lib/systemd/system" 2>/dev/null && ls)
echo "$units"
[[ "$units" == *qirn-log-converter.service* ]] || fail "no qirn-log-converter.service in /lib/systemd/system"
[ ! -e "$SCRATCH/root/usr/lib/systemd/system" ] || fail "units in /usr/lib/systemd/system too"
for script in postinst prerm postrm; do
    grep -q '^# Automatically added by dh_installsystemd/' "$SCRATCH/control/$script" ||
        fail "$script carries no dh_installsystemd snippet"
done
for unit in $units; do
    # Started again on upgrade when running, stopped on remove.
    grep "deb-systemd-invoke \$_dh_action" "$SCRATCH/control/postinst" | grep -q "'$unit'" ||
        fail "postinst does not restart $unit on upgrade"
    grep "deb-systemd-invoke stop" "$SCRATCH/control/prerm" | grep -q "'$unit'" ||
        fail "prerm does not stop $unit on remove"
    grep -q '^\[Install\]' "$SCRATCH/root/lib/systemd/system/$unit" || continue
    # Not enabled on install (--no-enable: enablement is only renewed for a
    # unit already installed), but its state is tracked and purged.
    grep -q "if deb-systemd-helper debian-installed '$unit'" "$SCRATCH/control/postinst" ||
        fail "postinst enables $unit on a fresh install (dh_installsystemd without --no-enable?)"
    grep -q "deb-systemd-helper update-state '$unit'" "$SCRATCH/control/postinst" ||
        fail "postinst does not track the enablement of $unit"
    grep "deb-systemd-helper purge" "$SCRATCH/control/postrm" | grep -q "'$unit'" ||
        fail "postrm does not purge the enablement of $unit"
done
grep -qx 'ExecStart=/usr/sbin/qirn-log-converter' \
    "$SCRATCH/root/lib/systemd/system/qirn-log-converter.service" ||
    fail "the packaged unit does not start /usr/sbin/qirn-log-converter"

note "contents (dpkg-deb -c)"
dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $1, $2, $6}'
for path in usr/sbin/qirn-log-converter etc/qirn/qirn-log-converter.conf \
        etc/logrotate.d/qirn-log-converter usr/share/man/man8/qirn-log-converter.8.gz \
        usr/share/doc/qirn-log-converter/changelog.gz usr/share/doc/qirn-log-converter/copyright \
        usr/bin/qirn-log-convert usr/share/man/man1/qirn-log-convert.1.gz \
        lib/systemd/system/qirn-log-reconcile.service lib/systemd/system/qirn-log-reconcile.timer \
        usr/share/doc/qirn-log-converter/examples/shipping/README.md \
        usr/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-forwarder.conf \
        usr/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-collector.conf \
        usr/share/doc/qirn-log-converter/examples/shipping/syslog-ng/qirn-forwarder.conf \
        usr/share/doc/qirn-log-converter/examples/shipping/syslog-ng/qirn-collector.conf \
        usr/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-collector-store.conf \
        usr/share/doc/qirn-log-converter/examples/shipping/postgresql/qirn-fleet-setup.sql \
        usr/share/doc/qirn-log-converter/examples/shipping/fleet/qirn-fleet-complete \
        usr/share/doc/qirn-log-converter/examples/shipping/fleet/qirn-fleet-complete.service; do
    [ -f "$SCRATCH/root/$path" ] || fail "the package lacks /$path"
done
if dpkg-deb -c "$deb" | awk '{print $2}' | grep -v '^root/root$'; then
    fail "files not owned by root/root"
fi
head -n 1 "$SCRATCH/root/usr/share/doc/qirn-log-converter/copyright" |
    grep -q '^Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/' ||
    fail "copyright is not in the machine-readable format"

# --nocfprotection: no Debian 12 binary passes that line, since the C start
# files carry no control-flow marks. "unknown" for stack clash protection
# means no frame needed a probe.
check_hardening() {
    local report
    report=$(hardening-check --nocfprotection "$1" 2>&1) || { echo "$report"; fail "hardening-check: $1"; }
    echo "$report"
    if grep -v '(ignored)' <<<"$report" | grep -q ': no'; then
        fail "hardening-check reports a \"no\" for $1"
    fi
}

dpkg-deb -c "$dbgsym" >"$SCRATCH/dbgsym.txt"
programs=$(cd "$SCRATCH/root" && find usr/bin usr/sbin -type f 2>/dev/null | sort) || true
[[ "$programs" == *usr/sbin/qirn-log-converter* ]] || fail "no /usr/sbin/qirn-log-converter"
for program in $programs; do
    binary="$SCRATCH/root/$program"
    note "/$program: stripped, symbols in the -dbgsym package, hardened"
    if readelf -S "$binary" | grep -q '\.debug_'; then
        fail "/$program is not stripped"
    fi
    build_id=$(readelf -n "$binary" | sed -n 's/.*Build ID: \([0-9a-f]*\)/\1/p')
    [ -n "$build_id" ] || fail "/$program has no build id"
    grep -q "/usr/lib/debug/.build-id/${build_id:0:2}/${build_id:2}.debug" "$SCRATCH/dbgsym.txt" ||
        fail "the -dbgsym package has no /usr/lib/debug/.build-id/${build_id:0:2}/${build_id:2}.debug"
    echo "build id $build_id: symbols in $(basename "$dbgsym")"
    check_hardening "$binary"
done
note "hardening-check --nocfprotection on the release build's binary"
check_hardening "$QLC_BINARY"

note "lintian on the .changes"
lintian --display-info --fail-on error,warning "$changes" >"$SCRATCH/lintian.txt" 2>&1 ||
    { cat "$SCRATCH/lintian.txt"; fail "lintian reports errors or warnings"; }
cat "$SCRATCH/lintian.txt"
if grep -q '^[EW]: ' "$SCRATCH/lintian.txt"; then
    fail "lintian reports errors or warnings"
fi
echo "PASS"
