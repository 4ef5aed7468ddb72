#!/usr/bin/env bash
# dpkg-buildpackage builds the three Debian packages from a scratch copy of
# the tree (qirn-log-converter, qirn-fleet-agent, qirn-fleet-store); each
# carries the right fields, conffiles, debhelper's systemd maintainer scripts
# for every unit it ships, stripped hardened binaries with their symbols in
# -dbgsym; the service's package does not depend on libpq; lintian has no
# error and no warning. The packages stay in $QLC_BUILD_DIR/debian-package
# for the booted-systemd checks.
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
agent_deb="$out/qirn-fleet-agent_${version}_${arch}.deb"
agent_dbgsym="$out/qirn-fleet-agent-dbgsym_${version}_${arch}.deb"
store_deb="$out/qirn-fleet-store_${version}_all.deb"
changes="$out/qirn-log-converter_${version}_${arch}.changes"
note "three packages, a -dbgsym for each architecture-dependent one"
for file in "$deb" "$dbgsym" "$agent_deb" "$agent_dbgsym" "$store_deb" "$changes"; do
    [ -f "$file" ] || { ls "$out"; fail "expected $file"; }
    echo "${file##*/}"
done
[ ! -e "$out/qirn-fleet-store-dbgsym_${version}_all.deb" ] || fail "a -dbgsym package for qirn-fleet-store"

# Unpacks package $1 into $SCRATCH/$2/{control,root}.
unpack() {
    mkdir -p "$SCRATCH/$2/control" "$SCRATCH/$2/root"
    dpkg-deb -e "$1" "$SCRATCH/$2/control"
    dpkg-deb -x "$1" "$SCRATCH/$2/root"
}

# Checks field $2 of package $1 with the shell pattern $3.
field_is() {
    local value
    value=$(dpkg-deb -f "$1" "$2")
    # shellcheck disable=SC2053
    [[ "$value" == $3 ]] || fail "$(basename "$1"): $2 is \"$value\", expected $3"
}

# The conffiles of unpacked package $1 are exactly its files in /etc.
check_conffiles() {
    local dir=$SCRATCH/$1 expected
    note "$1: conffiles"
    cat "$dir/control/conffiles"
    expected=$(cd "$dir/root" && find etc -type f -printf '/%p\n' | sort)
    [ "$(sort "$dir/control/conffiles")" = "$expected" ] ||
        fail "$1: conffiles differ from the files in /etc: $expected"
}

# Every unit of unpacked package $1 is in /lib/systemd/system and handled by
# debhelper's maintainer scripts: restarted on upgrade, stopped on removal,
# not enabled on install but its enablement tracked and purged.
check_units() {
    local dir=$SCRATCH/$1 units unit
    note "$1: units in /lib/systemd/system, each handled by debhelper's maintainer scripts"
    units=$(cd "$dir/root/lib/systemd/system" 2>/dev/null && ls)
    echo "$units"
    [ -n "$units" ] || fail "$1: no unit in /lib/systemd/system"
    [ ! -e "$dir/root/usr/lib/systemd/system" ] || fail "$1: units in /usr/lib/systemd/system too"
    for script in postinst prerm postrm; do
        grep -q '^# Automatically added by dh_installsystemd/' "$dir/control/$script" ||
            fail "$1: $script carries no dh_installsystemd snippet"
    done
    for unit in $units; do
        grep "deb-systemd-invoke \$_dh_action" "$dir/control/postinst" | grep -q "'$unit'" ||
            fail "$1: postinst does not restart $unit on upgrade"
        grep "deb-systemd-invoke stop" "$dir/control/prerm" | grep -q "'$unit'" ||
            fail "$1: prerm does not stop $unit on remove"
        grep -q '^\[Install\]' "$dir/root/lib/systemd/system/$unit" || continue
        grep -q "if deb-systemd-helper debian-installed '$unit'" "$dir/control/postinst" ||
            fail "$1: postinst enables $unit on a fresh install (dh_installsystemd without --no-enable?)"
        grep -q "deb-systemd-helper update-state '$unit'" "$dir/control/postinst" ||
            fail "$1: postinst does not track the enablement of $unit"
        grep "deb-systemd-helper purge" "$dir/control/postrm" | grep -q "'$unit'" ||
            fail "$1: postrm does not purge the enablement of $unit"
    done
}

# Package $1 (unpacked as $2) holds every path after them, files owned by
# root/root, and its copyright in the machine-readable format.
check_contents() {
    local deb=$1 name=$2 path
    shift 2
    note "$name: contents (dpkg-deb -c)"
    dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $1, $2, $6}'
    for path in "$@"; do
        [ -f "$SCRATCH/$name/root/$path" ] || fail "$name lacks /$path"
    done
    if dpkg-deb -c "$deb" | awk '{print $2}' | grep -v '^root/root$'; then
        fail "$name: files not owned by root/root"
    fi
    head -n 1 "$SCRATCH/$name/root/usr/share/doc/$name/copyright" |
        grep -q '^Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/' ||
        fail "$name: copyright is not in the machine-readable format"
    [ -f "$SCRATCH/$name/root/usr/share/doc/$name/changelog.gz" ] || fail "$name has no changelog.gz"
}

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

# Every program of unpacked package $1 that is an ELF file is stripped, has
# its symbols in the -dbgsym package $2 and is hardened; prints their number.
check_programs() {
    local name=$1 dbgsym=$2 programs program binary build_id elves=0
    dpkg-deb -c "$dbgsym" >"$SCRATCH/$name-dbgsym.txt"
    programs=$(cd "$SCRATCH/$name/root" && find usr/bin usr/sbin -type f 2>/dev/null | sort) || true
    for program in $programs; do
        binary="$SCRATCH/$name/root/$program"
        [ "$(head -c 4 "$binary")" = $'\x7fELF' ] || continue
        elves=$((elves + 1))
        note "/$program: stripped, symbols in $(basename "$dbgsym"), hardened"
        if readelf -S "$binary" | grep -q '\.debug_'; then
            fail "/$program is not stripped"
        fi
        build_id=$(readelf -n "$binary" | sed -n 's/.*Build ID: \([0-9a-f]*\)/\1/p')
        [ -n "$build_id" ] || fail "/$program has no build id"
        grep -q "/usr/lib/debug/.build-id/${build_id:0:2}/${build_id:2}.debug" "$SCRATCH/$name-dbgsym.txt" ||
            fail "the -dbgsym package has no /usr/lib/debug/.build-id/${build_id:0:2}/${build_id:2}.debug"
        echo "build id $build_id"
        check_hardening "$binary"
    done >&2
    echo "$elves"
}

# --- qirn-log-converter ------------------------------------------------------
note "qirn-log-converter: control fields (dpkg-deb -I)"
dpkg-deb -I "$deb"
field_is "$deb" Package qirn-log-converter
field_is "$deb" Version "$version"
field_is "$deb" Architecture "$arch"
field_is "$deb" Section admin
field_is "$deb" Depends '*libc6*'
field_is "$deb" Depends '*libstdc++6*'
field_is "$deb" Recommends logrotate
# The fleet agent links libpq; the service's package never depends on it.
[[ "$(dpkg-deb -f "$deb" Depends)" != *libpq* ]] || fail "Depends names libpq: $(dpkg-deb -f "$deb" Depends)"

unpack "$deb" qirn-log-converter
check_conffiles qirn-log-converter
grep -qx /etc/qirn/qirn-log-converter.conf "$SCRATCH/qirn-log-converter/control/conffiles" || fail "conffiles"
grep -qx /etc/logrotate.d/qirn-log-converter "$SCRATCH/qirn-log-converter/control/conffiles" || fail "conffiles"
check_units qirn-log-converter
grep -qx 'ExecStart=/usr/sbin/qirn-log-converter' \
    "$SCRATCH/qirn-log-converter/root/lib/systemd/system/qirn-log-converter.service" ||
    fail "the packaged unit does not start /usr/sbin/qirn-log-converter"
check_contents "$deb" qirn-log-converter \
    usr/sbin/qirn-log-converter etc/qirn/qirn-log-converter.conf \
    etc/logrotate.d/qirn-log-converter usr/share/man/man8/qirn-log-converter.8.gz \
    usr/bin/qirn-log-convert usr/share/man/man1/qirn-log-convert.1.gz \
    lib/systemd/system/qirn-log-reconcile.service lib/systemd/system/qirn-log-reconcile.timer \
    usr/share/doc/qirn-log-converter/examples/shipping/README.md \
    usr/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-forwarder.conf \
    usr/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-collector.conf \
    usr/share/doc/qirn-log-converter/examples/shipping/syslog-ng/qirn-forwarder.conf \
    usr/share/doc/qirn-log-converter/examples/shipping/syslog-ng/qirn-collector.conf
if dpkg-deb -c "$deb" | grep -E 'qirn-fleet-(agent|admin|loader)|qirn-fleet-complete|postgresql'; then
    fail "the service's package carries fleet programs"
fi
[ "$(check_programs qirn-log-converter "$dbgsym")" = 2 ] || fail "qirn-log-converter: expected 2 programs"
note "hardening-check --nocfprotection on the release build's binary"
check_hardening "$QLC_BINARY"

# --- qirn-fleet-agent --------------------------------------------------------
note "qirn-fleet-agent: control fields (dpkg-deb -I)"
dpkg-deb -I "$agent_deb"
field_is "$agent_deb" Architecture "$arch"
field_is "$agent_deb" Version "$version"
field_is "$agent_deb" Depends '*libpq5*'
field_is "$agent_deb" Depends "*qirn-log-converter (= $version)*"
field_is "$agent_deb" Depends '*postgresql-client-15 | postgresql-client*'
field_is "$agent_deb" Depends '*adduser*'
field_is "$agent_deb" Depends '*acl*'
unpack "$agent_deb" qirn-fleet-agent
check_conffiles qirn-fleet-agent
for conffile in /etc/qirn/qirn-fleet-agent.conf /etc/default/qirn-fleet-complete; do
    grep -qx "$conffile" "$SCRATCH/qirn-fleet-agent/control/conffiles" || fail "$conffile is no conffile"
done
check_units qirn-fleet-agent
check_contents "$agent_deb" qirn-fleet-agent \
    usr/sbin/qirn-fleet-agent usr/sbin/qirn-fleet-complete \
    etc/qirn/qirn-fleet-agent.conf etc/default/qirn-fleet-complete \
    lib/systemd/system/qirn-fleet-agent.service lib/systemd/system/qirn-fleet-complete.service \
    lib/systemd/system/qirn-fleet-complete.timer usr/lib/tmpfiles.d/qirn-fleet-agent.conf \
    usr/share/man/man8/qirn-fleet-agent.8.gz usr/share/man/man8/qirn-fleet-complete.8.gz
grep -qx 'ExecStart=/usr/sbin/qirn-fleet-agent' \
    "$SCRATCH/qirn-fleet-agent/root/lib/systemd/system/qirn-fleet-agent.service" ||
    fail "the packaged unit does not start /usr/sbin/qirn-fleet-agent"
note "qirn-fleet-agent: maintainer scripts (user, overrides, tmpfiles.d, purge)"
postinst=$SCRATCH/qirn-fleet-agent/control/postinst
postrm=$SCRATCH/qirn-fleet-agent/control/postrm
tr -d '\\\n' <"$postinst" | grep -q 'adduser --system --group [^;]* qirn-fleet *adduser' ||
    fail "postinst makes no system user qirn-fleet"
grep -q 'adduser --quiet qirn-fleet adm' "$postinst" || fail "postinst does not put qirn-fleet in group adm"
grep -q 'dpkg-statoverride --update --add root qirn-fleet 0640 "$conf"' "$postinst" ||
    fail "postinst does not make the agent's configuration root:qirn-fleet 0640"
grep -q '^# Automatically added by dh_installtmpfiles/' "$postinst" || fail "postinst does not apply tmpfiles.d"
# The user exists before debhelper's snippets (tmpfiles.d names it).
[ "$(grep -n 'adduser --system' "$postinst" | cut -d: -f1)" -lt \
  "$(grep -n '^# Automatically added by dh_installtmpfiles/' "$postinst" | cut -d: -f1)" ] ||
    fail "postinst applies tmpfiles.d before it makes the user"
for what in 'deluser --quiet --system qirn-fleet' 'dpkg-statoverride --remove "$conf"' \
        'qirn_fleet_agent.prom' 'setfacl -x u:qirn-fleet'; do
    grep -qF "$what" "$postrm" || fail "postrm does not purge: $what"
done
[ "$(check_programs qirn-fleet-agent "$agent_dbgsym")" = 1 ] || fail "qirn-fleet-agent: expected 1 program"
note "qirn-fleet-agent's program needs libpq, the service's do not"
readelf -d "$SCRATCH/qirn-fleet-agent/root/usr/sbin/qirn-fleet-agent" | grep -q 'NEEDED.*libpq\.so' ||
    fail "qirn-fleet-agent does not link libpq"
for program in usr/sbin/qirn-log-converter usr/bin/qirn-log-convert; do
    if readelf -d "$SCRATCH/qirn-log-converter/root/$program" | grep 'NEEDED.*libpq'; then
        fail "/$program links libpq"
    fi
done

# --- qirn-fleet-store --------------------------------------------------------
note "qirn-fleet-store: control fields (dpkg-deb -I)"
dpkg-deb -I "$store_deb"
field_is "$store_deb" Architecture all
field_is "$store_deb" Version "$version"
field_is "$store_deb" Depends '*postgresql-client-15 | postgresql-client*'
field_is "$store_deb" Depends '*openssl*'
field_is "$store_deb" Recommends '*postgresql-15*'
field_is "$store_deb" Recommends '*pgbouncer*'
[[ "$(dpkg-deb -f "$store_deb" Depends)" != *libpq* ]] || fail "qirn-fleet-store depends on libpq"
unpack "$store_deb" qirn-fleet-store
check_conffiles qirn-fleet-store
check_units qirn-fleet-store
store_paths=(usr/sbin/qirn-fleet-admin usr/share/man/man8/qirn-fleet-admin.8.gz
    etc/qirn/qirn-fleet-store.conf
    lib/systemd/system/qirn-fleet-store-maintain.service lib/systemd/system/qirn-fleet-store-maintain.timer
    lib/systemd/system/qirn-fleet-store-metrics.service lib/systemd/system/qirn-fleet-store-metrics.timer)
# The alert rules, where the tree has them.
[ ! -e "$QLC_SOURCE_DIR/packaging/fleet/prometheus/qirn-fleet.rules.yml" ] ||
    store_paths+=(usr/share/qirn-fleet-store/prometheus/qirn-fleet.rules.yml)
for sql in "$QLC_SOURCE_DIR"/packaging/fleet/store/*.sql; do
    store_paths+=("usr/share/qirn-fleet-store/${sql##*/}")
done
if [ -d "$QLC_SOURCE_DIR/packaging/fleet/pgbouncer" ]; then
    while IFS= read -r example; do
        store_paths+=("usr/share/doc/qirn-fleet-store/examples/pgbouncer/$example")
    done < <(cd "$QLC_SOURCE_DIR/packaging/fleet/pgbouncer" && find . -type f -printf '%P\n')
else
    fail "no PgBouncer example in packaging/fleet/pgbouncer"
fi
check_contents "$store_deb" qirn-fleet-store "${store_paths[@]}"

note "lintian on the .changes (all three packages)"
lintian --display-info --fail-on error,warning "$changes" >"$SCRATCH/lintian.txt" 2>&1 ||
    { cat "$SCRATCH/lintian.txt"; fail "lintian reports errors or warnings"; }
cat "$SCRATCH/lintian.txt"
if grep -q '^[EW]: ' "$SCRATCH/lintian.txt"; then
    fail "lintian reports errors or warnings"
fi
echo "PASS"
