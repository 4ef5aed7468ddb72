#!/usr/bin/env bash
# The fleet's alert rules under Debian 12's promtool: `promtool check rules`
# on the shipped file, then `promtool test rules` on its unit tests. promtool
# runs chrooted into a throw-away Debian root (never installed here), on
# copies of the two files in a tmpfs of a private mount namespace.
#
# QLC_PROMTOOL_ROOT=DIR uses an existing Debian root with promtool as it is;
# otherwise tests/support/debian-root builds one in the build directory.
# Exits 77 (a skip) when no root can be had.
set -euo pipefail

: "${QLC_SOURCE_DIR:?set by CTest}"
: "${QLC_BUILD_DIR:?set by CTest}"
readonly SKIP=77
rules_rel=packaging/fleet/prometheus/qirn-fleet.rules.yml
tests_rel=tests/fleet/prometheus/qirn-fleet.rules.test.yml

skip() {
    echo "SKIP: $*"
    exit "$SKIP"
}

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

[ "$(id -u)" -eq 0 ] || skip "chroot and a private mount namespace need root"
for tool in unshare chroot mount; do
    command -v "$tool" >/dev/null 2>&1 || skip "$tool is not installed"
done

if [ -n "${QLC_PROMTOOL_ROOT:-}" ]; then
    root=$QLC_PROMTOOL_ROOT
else
    # The fleet tests' one root (same path and package list as fleet.store),
    # so that a run builds it once.
    root="$QLC_BUILD_DIR/shipping-roots/fleet"
    "$QLC_SOURCE_DIR/tests/support/debian-root" "$root" postgresql-15 postgresql-client-15 \
        pgbouncer prometheus openssl iproute2 >/dev/null ||
        skip "could not build a Debian 12 root with prometheus"
fi
[ -x "$root/usr/bin/promtool" ] || skip "$root has no /usr/bin/promtool"
chroot "$root" promtool --version 2>&1 | head -n 1

# Every alert carries what an operator needs to route and read it; promtool
# checks the syntax, not this.
awk '
    /^ *- alert: / { if (name != "") check(); name = $3; f = s = sum = d = 0; next }
    /^ *for: /         { f = 1 }
    /^ *severity: (critical|warning)$/ { s = 1 }
    /^ *summary: /     { sum = 1 }
    /^ *description: / { d = 1 }
    function check() {
        if (!(f && s && sum && d)) { print name ": needs for:, a severity, a summary and a description"; bad = 1 }
    }
    END { if (name != "") check(); exit bad }' "$QLC_SOURCE_DIR/$rules_rel" ||
    fail "an alert rule is incomplete"

# Each alert is shown firing and shown not firing at some time.
for alert in $(sed -n 's/^ *- alert: //p' "$QLC_SOURCE_DIR/$rules_rel"); do
    grep -A 2 "alertname: $alert\$" "$QLC_SOURCE_DIR/$tests_rel" | grep -q 'exp_alerts:$' ||
        fail "no test shows $alert firing"
    grep -E "alertname: $alert(,|\$)" -A 1 "$QLC_SOURCE_DIR/$tests_rel" | grep -q 'exp_alerts: \[\]' ||
        fail "no test shows $alert quiet"
done

# Every metric the rules read is one the agreement or the loop publishes: a
# renamed metric would leave its alert silent forever.
for metric in $(grep -oP 'qirn_fleet_[a-z_]+(?![a-z_.\[])' "$QLC_SOURCE_DIR/$rules_rel" | sort -u); do
    grep -qE "\`$metric(\`|\{)" "$QLC_SOURCE_DIR/docs/fleet.md" ||
        grep -qE "echo \"$metric " "$QLC_SOURCE_DIR/packaging/fleet/qirn-fleet-complete" ||
        fail "the rules read $metric, which neither docs/fleet.md nor qirn-fleet-complete publishes"
done

# The files keep their relative places: the tests name the rules by a
# relative path, which promtool resolves from the test file's directory.
unshare --mount --propagation private -- bash -euo pipefail -c '
    root=$1 src=$2 rules=$3 tests=$4
    mount -t tmpfs tmpfs "$root/tmp"
    mkdir -p "$root/tmp/qlc/$(dirname "$rules")" "$root/tmp/qlc/$(dirname "$tests")"
    cp "$src/$rules" "$root/tmp/qlc/$rules"
    cp "$src/$tests" "$root/tmp/qlc/$tests"
    chroot "$root" sh -c "cd /tmp/qlc && promtool check rules $rules && promtool test rules $tests"
' bash "$root" "$QLC_SOURCE_DIR" "$rules_rel" "$tests_rel" ||
    fail "promtool rejected the alert rules or their tests"
echo "PASS: $rules_rel passes promtool check rules and its unit tests"
