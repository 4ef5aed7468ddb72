#!/usr/bin/env bash
# `cmake --install BUILD --prefix DIR`, without DESTDIR, writes nothing
# outside DIR: configuration goes to DIR/etc (only the prefix /usr means
# /etc). Run in a private mount namespace whose /etc, /usr, /var and /opt are
# overlays, so that a stray file lands in a scratch layer, never on the
# machine; every file of the install manifest must be below DIR, and the
# overlays' upper layers must stay empty.
source "$(dirname "$0")/lib.sh"
require_tool cmake unshare
make_scratch

case $QLC_UNIT_DIR in /*) skip "this build puts its units in $QLC_UNIT_DIR by design (a package build)" ;; esac
[ -z "$QLC_SYSCONF_DIR" ] ||
    skip "this build puts its configuration in $QLC_SYSCONF_DIR by design (a package build)"
require_private_mounts

prefix="$SCRATCH/prefix"
layers="$SCRATCH/layers"
dirs=(/etc /usr /var)
[ -d /opt ] && dirs+=(/opt)
mkdir -p "$prefix" "$layers"

note "cmake --install $QLC_BUILD_DIR --prefix $prefix, with ${dirs[*]} overlaid"
unshare --mount --propagation private -- bash -c '
    set -e
    layers=$1 build=$2 prefix=$3
    shift 3
    mount -t tmpfs tmpfs "$layers"
    for dir in "$@"; do
        name=${dir#/}
        mkdir "$layers/$name.up" "$layers/$name.work"
        mount -t overlay overlay \
            -o "lowerdir=$dir,upperdir=$layers/$name.up,workdir=$layers/$name.work" "$dir"
    done
    status=0
    cmake --install "$build" --prefix "$prefix" >"$prefix.log" 2>&1 || status=$?
    # What landed outside the prefix, kept for the check below.
    for dir in "$@"; do
        name=${dir#/}
        (cd "$layers/$name.up" && find . -mindepth 1 -printf "$dir/%P\n")
    done >"$prefix.stray"
    exit $status
' sh "$layers" "$QLC_BUILD_DIR" "$prefix" "${dirs[@]}" ||
    { cat "$prefix.log"; fail "cmake --install --prefix failed"; }

if [ -s "$prefix.stray" ]; then
    cat "$prefix.stray"
    fail "the install wrote outside $prefix (above)"
fi
manifest="$QLC_BUILD_DIR/install_manifest.txt"
[ -s "$manifest" ] || fail "no $manifest"
if grep -v "^$prefix/" "$manifest"; then
    fail "the install manifest names files outside $prefix (above)"
fi
echo "$(wc -l <"$manifest") files, all below $prefix"

note "configuration below the prefix"
for file in etc/qirn/qirn-log-converter.conf etc/logrotate.d/qirn-log-converter; do
    [ -f "$prefix/$file" ] || fail "no $prefix/$file"
done
if [ -n "$QLC_AGENT_BINARY" ]; then
    for file in etc/qirn/qirn-fleet-agent.conf etc/default/qirn-fleet-complete; do
        [ -f "$prefix/$file" ] || fail "no $prefix/$file"
    done
fi
grep -qx "ExecStart=$prefix/sbin/qirn-log-converter" "$prefix/lib/systemd/system/qirn-log-converter.service" ||
    fail "the unit does not start $prefix/sbin/qirn-log-converter"
echo "PASS"
