#!/usr/bin/env bash
# cmake --install into a temporary DESTDIR lays out exactly the expected files
# of the three packages (the fleet agent's when this build has it), with
# configuration in /etc for the prefix /usr and below any other prefix, and
# ExecStart naming the installed binary. The units, the configuration and the
# changelog and copyright go where this build was configured to put them (the
# package build: /lib/systemd/system, /etc, and no changelog or copyright,
# which debhelper installs).
source "$(dirname "$0")/lib.sh"

make_scratch

# Lists "mode path" for every file and link below $1, sorted.
tree_of() {
    (cd "$1" && find . \( -type f -o -type l \) -printf '%m %P\n' | sort -k2)
}

# "mode path" lines of the fleet's files for prefix $1, units in $2, the
# configuration directory $3 (all without the leading slash).
fleet_files() {
    local prefix=$1 units=$2 etc=$3 file
    if [ -n "$QLC_AGENT_BINARY" ]; then
        cat <<EOF
755 $prefix/sbin/qirn-fleet-agent
755 $prefix/sbin/qirn-fleet-complete
640 $etc/qirn/qirn-fleet-agent.conf
600 $etc/default/qirn-fleet-complete
644 $units/qirn-fleet-agent.service
644 $units/qirn-fleet-complete.service
644 $units/qirn-fleet-complete.timer
644 $prefix/lib/tmpfiles.d/qirn-fleet-agent.conf
644 $prefix/share/man/man8/qirn-fleet-agent.8.gz
644 $prefix/share/man/man8/qirn-fleet-complete.8.gz
EOF
    fi
    # The store's files, as far as the tree has them.
    local fleet=$QLC_SOURCE_DIR/packaging/fleet
    for file in "$fleet"/store/*.sql; do
        [ ! -e "$file" ] || echo "644 $prefix/share/qirn-fleet-store/${file##*/}"
    done
    [ ! -e "$fleet/qirn-fleet-admin" ] || echo "755 $prefix/sbin/qirn-fleet-admin"
    [ ! -e "$fleet/qirn-fleet-admin.8" ] || echo "644 $prefix/share/man/man8/qirn-fleet-admin.8.gz"
    [ ! -e "$fleet/qirn-fleet-store.conf" ] || echo "644 $etc/qirn/qirn-fleet-store.conf"
    for file in qirn-fleet-store-maintain.service qirn-fleet-store-maintain.timer \
        qirn-fleet-store-metrics.service qirn-fleet-store-metrics.timer; do
        [ ! -e "$fleet/$file" ] || echo "644 $units/$file"
    done
    [ ! -e "$fleet/prometheus/qirn-fleet.rules.yml" ] ||
        echo "644 $prefix/share/qirn-fleet-store/prometheus/qirn-fleet.rules.yml"
    if [ -d "$fleet/pgbouncer" ]; then
        (cd "$fleet/pgbouncer" &&
            find . -type f -printf "644 $prefix/share/doc/qirn-fleet-store/examples/pgbouncer/%P\n")
    fi
}

check_tree() {
    local root=$1 prefix=$2 expected actual units docs etc
    units=$(unit_dir_of "" "$prefix")
    units=${units#/}
    etc=$(etc_dir_of "" "$prefix")
    etc=${etc#/}
    docs=""
    if [ "$QLC_PACKAGE_DOCS" = 1 ]; then
        docs="644 ${prefix#/}/share/doc/qirn-log-converter/copyright
644 ${prefix#/}/share/doc/qirn-log-converter/changelog.gz"
    fi
    expected=$(grep -v '^$' <<EOF | sort -k2
644 $etc/logrotate.d/qirn-log-converter
644 $etc/qirn/qirn-log-converter.conf
755 ${prefix#/}/sbin/qirn-log-converter
755 ${prefix#/}/bin/qirn-log-convert
644 $units/qirn-log-converter.service
644 $units/qirn-log-reconcile.service
644 $units/qirn-log-reconcile.timer
644 ${prefix#/}/share/man/man8/qirn-log-converter.8.gz
644 ${prefix#/}/share/man/man1/qirn-log-convert.1.gz
$docs
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/README.md
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-collector-tls.conf
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-collector.conf
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-forwarder-tls.conf
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-forwarder.conf
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/syslog-ng/qirn-collector-tls.conf
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/syslog-ng/qirn-collector.conf
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/syslog-ng/qirn-forwarder-tls.conf
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/syslog-ng/qirn-forwarder.conf
$(fleet_files "${prefix#/}" "$units" "$etc")
EOF
)
    actual=$(tree_of "$root")
    if [ "$expected" != "$actual" ]; then
        diff <(echo "$expected") <(echo "$actual") || true
        fail "installed tree for prefix $prefix differs (< expected, > installed)"
    fi

    local unit="$root/$units/qirn-log-converter.service"
    grep -qx "ExecStart=${prefix}/sbin/qirn-log-converter" "$unit" ||
        fail "ExecStart of $unit does not name ${prefix}/sbin/qirn-log-converter"
    local reconcile="$root/$units/qirn-log-reconcile.service"
    grep -q "exec ${prefix}/bin/qirn-log-convert " "$reconcile" ||
        fail "the reconcile unit of $reconcile does not run ${prefix}/bin/qirn-log-convert"
    cmp -s "$root/$units/qirn-log-reconcile.timer" \
        "$QLC_SOURCE_DIR/packaging/qirn-log-reconcile.timer" ||
        fail "installed timer differs from the source"
    cmp -s "$root/$etc/qirn/qirn-log-converter.conf" \
        "$QLC_SOURCE_DIR/packaging/qirn-log-converter.conf" ||
        fail "installed configuration differs from packaging/qirn-log-converter.conf"
    cmp -s "$root/$etc/logrotate.d/qirn-log-converter" \
        "$QLC_SOURCE_DIR/packaging/qirn-log-converter.logrotate" ||
        fail "installed logrotate snippet differs from the source"
    cmp -s "$root${prefix}/sbin/qirn-log-converter" "$QLC_BINARY" ||
        fail "installed binary differs from the build's"

    local gz
    local gzipped=("$root${prefix}/share/man/man8/qirn-log-converter.8.gz"
                   "$root${prefix}/share/man/man1/qirn-log-convert.1.gz")
    if [ "$QLC_PACKAGE_DOCS" = 1 ]; then
        gzipped+=("$root${prefix}/share/doc/qirn-log-converter/changelog.gz")
    fi
    for gz in "${gzipped[@]}"; do
        gzip -t "$gz" || fail "$gz is not a valid gzip file"
        # gzip -n: no stored name and a zero time stamp (bytes 4-7).
        [ "$(od -An -tx1 -j4 -N4 "$gz" | tr -d ' \n')" = 00000000 ] ||
            fail "$gz carries a time stamp (not made with gzip -n)"
    done
    zcat "$root${prefix}/share/man/man8/qirn-log-converter.8.gz" |
        cmp -s - "$QLC_SOURCE_DIR/packaging/qirn-log-converter.8" ||
        fail "installed manual page differs from the source"
    zcat "$root${prefix}/share/man/man1/qirn-log-convert.1.gz" |
        cmp -s - "$QLC_SOURCE_DIR/packaging/qirn-log-convert.1" ||
        fail "installed manual page of the companion command differs from the source"
}

# The agent's files: units naming the installed programs, the programs and
# the files as built, a configuration that sets nothing.
check_fleet_tree() {
    local root=$1 prefix=$2 units etc
    [ -n "$QLC_AGENT_BINARY" ] || return 0
    units=$(unit_dir_of "$root" "$prefix")
    etc=$(etc_dir_of "$root" "$prefix")
    grep -qx "ExecStart=${prefix}/sbin/qirn-fleet-agent" "$units/qirn-fleet-agent.service" ||
        fail "ExecStart of the agent's unit does not name ${prefix}/sbin/qirn-fleet-agent"
    grep -qx "ExecStart=${prefix}/sbin/qirn-fleet-complete" "$units/qirn-fleet-complete.service" ||
        fail "ExecStart of the loop's unit does not name ${prefix}/sbin/qirn-fleet-complete"
    cmp -s "$units/qirn-fleet-complete.timer" "$QLC_SOURCE_DIR/packaging/fleet/qirn-fleet-complete.timer" ||
        fail "installed loop timer differs from the source"
    cmp -s "$root$prefix/sbin/qirn-fleet-agent" "$QLC_AGENT_BINARY" ||
        fail "installed agent differs from the build's"
    cmp -s "$root$prefix/sbin/qirn-fleet-complete" "$QLC_SOURCE_DIR/packaging/fleet/qirn-fleet-complete" ||
        fail "installed loop differs from the source"
    cmp -s "$root$prefix/lib/tmpfiles.d/qirn-fleet-agent.conf" \
        "$QLC_SOURCE_DIR/packaging/fleet/qirn-fleet-agent.tmpfiles" ||
        fail "installed tmpfiles.d file differs from the source"
    cmp -s "$etc/default/qirn-fleet-complete" "$QLC_SOURCE_DIR/packaging/fleet/qirn-fleet-complete.default" ||
        fail "installed loop settings differ from the source"
    if grep -n '^[^#].*=' "$etc/qirn/qirn-fleet-agent.conf"; then
        fail "the agent's example configuration has active settings"
    fi
    local page
    for page in qirn-fleet-agent.8 qirn-fleet-complete.8; do
        zcat "$root$prefix/share/man/man8/$page.gz" | cmp -s - "$QLC_SOURCE_DIR/packaging/fleet/$page" ||
            fail "installed $page differs from the source"
    done
}

# qirn-fleet-admin finds its SQL and configuration below the prefix; for
# /usr it is the source itself.
check_store_tree() {
    local root=$1 prefix=$2 admin etc
    admin="$root$prefix/sbin/qirn-fleet-admin"
    [ -e "$QLC_SOURCE_DIR/packaging/fleet/qirn-fleet-admin" ] || return 0
    etc=$(etc_dir_of "" "$prefix")
    if [ "$prefix" = /usr ] && [ "$etc" = /etc ]; then
        cmp -s "$admin" "$QLC_SOURCE_DIR/packaging/fleet/qirn-fleet-admin" ||
            fail "installed qirn-fleet-admin differs from the source"
        return 0
    fi
    if grep -qx 'sql_dir=/usr/share/qirn-fleet-store' "$QLC_SOURCE_DIR/packaging/fleet/qirn-fleet-admin"; then
        grep -qx "sql_dir=$prefix/share/qirn-fleet-store" "$admin" ||
            fail "qirn-fleet-admin installed with prefix $prefix does not read its SQL from there"
    fi
    if grep -qxF 'config=${QIRN_FLEET_STORE_CONF:-/etc/qirn/qirn-fleet-store.conf}' \
        "$QLC_SOURCE_DIR/packaging/fleet/qirn-fleet-admin"; then
        grep -qxF "config=\${QIRN_FLEET_STORE_CONF:-$etc/qirn/qirn-fleet-store.conf}" "$admin" ||
            fail "qirn-fleet-admin installed with prefix $prefix does not read $etc/qirn/qirn-fleet-store.conf"
    fi
}

note "prefix /usr"
install_into "$SCRATCH/usr-root" /usr
check_tree "$SCRATCH/usr-root" /usr
check_fleet_tree "$SCRATCH/usr-root" /usr
check_store_tree "$SCRATCH/usr-root" /usr

note "prefix /usr/local (the default of a source build)"
install_into "$SCRATCH/local-root" /usr/local
check_tree "$SCRATCH/local-root" /usr/local
check_fleet_tree "$SCRATCH/local-root" /usr/local
check_store_tree "$SCRATCH/local-root" /usr/local

note "the example configuration sets nothing: every key=value line is commented out"
usr_etc=$(etc_dir_of "$SCRATCH/usr-root" /usr)
if grep -n '^[^#].*=' "$usr_etc/qirn/qirn-log-converter.conf"; then
    fail "the example configuration has active settings"
fi
for key in input_log=/var/log/qirn_audit.log output_log=/var/log/zarvo_container.log debug=false; do
    grep -qx "#$key" "$usr_etc/qirn/qirn-log-converter.conf" ||
        fail "the example configuration does not show the default #$key"
done

note "nothing was installed outside DESTDIR"
for path in /etc/qirn/qirn-log-converter.conf /usr/local/sbin/qirn-log-converter; do
    if [ -e "$path" ] && [ "$path" -nt "$SCRATCH" ]; then
        fail "$path was written during this test"
    fi
done
echo "PASS"
