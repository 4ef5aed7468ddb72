#!/usr/bin/env bash
# cmake --install into a temporary DESTDIR lays out exactly the expected files,
# with /etc absolute whatever the prefix and ExecStart naming the installed
# binary. The units and the changelog and copyright go where this build was
# configured to put them (the package build: /lib/systemd/system, and no
# changelog or copyright, which debhelper installs).
source "$(dirname "$0")/lib.sh"

make_scratch

# Lists "mode path" for every file and link below $1, sorted.
tree_of() {
    (cd "$1" && find . \( -type f -o -type l \) -printf '%m %P\n' | sort -k2)
}

check_tree() {
    local root=$1 prefix=$2 expected actual units docs
    units=$(unit_dir_of "" "$prefix")
    units=${units#/}
    docs=""
    if [ "$QLC_PACKAGE_DOCS" = 1 ]; then
        docs="644 ${prefix#/}/share/doc/qirn-log-converter/copyright
644 ${prefix#/}/share/doc/qirn-log-converter/changelog.gz"
    fi
    expected=$(grep -v '^$' <<EOF | sort -k2
644 etc/logrotate.d/qirn-log-converter
644 etc/qirn/qirn-log-converter.conf
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
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-collector-store.conf
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-collector-store-tls.conf
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/rsyslog/qirn-collector-store-direct.conf
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/postgresql/qirn-fleet-setup.sql
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/postgresql/qirn-fleet-roles.sql
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/postgresql/qirn-fleet-schema.sql
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/postgresql/qirn-fleet-add-host.sql
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/fleet/qirn-fleet-complete
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/fleet/qirn-fleet-complete.default
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/fleet/qirn-fleet-complete.service
644 ${prefix#/}/share/doc/qirn-log-converter/examples/shipping/fleet/qirn-fleet-complete.timer
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
    cmp -s "$root/etc/qirn/qirn-log-converter.conf" \
        "$QLC_SOURCE_DIR/packaging/qirn-log-converter.conf" ||
        fail "installed configuration differs from packaging/qirn-log-converter.conf"
    cmp -s "$root/etc/logrotate.d/qirn-log-converter" \
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

note "prefix /usr"
install_into "$SCRATCH/usr-root" /usr
check_tree "$SCRATCH/usr-root" /usr

note "prefix /usr/local (the default of a source build)"
install_into "$SCRATCH/local-root" /usr/local
check_tree "$SCRATCH/local-root" /usr/local

note "the example configuration sets nothing: every key=value line is commented out"
if grep -n '^[^#].*=' "$SCRATCH/usr-root/etc/qirn/qirn-log-converter.conf"; then
    fail "the example configuration has active settings"
fi
for key in input_log=/var/log/qirn_audit.log output_log=/var/log/zarvo_container.log debug=false; do
    grep -qx "#$key" "$SCRATCH/usr-root/etc/qirn/qirn-log-converter.conf" ||
        fail "the example configuration does not show the default #$key"
done

note "nothing was installed outside DESTDIR"
for path in /etc/qirn/qirn-log-converter.conf /usr/local/sbin/qirn-log-converter; do
    if [ -e "$path" ] && [ "$path" -nt "$SCRATCH" ]; then
        fail "$path was written during this test"
    fi
done
echo "PASS"
