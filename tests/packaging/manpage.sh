#!/usr/bin/env bash
# The manual page renders with groff's man macros without a single warning,
# and has the sections an administrator looks for.
source "$(dirname "$0")/lib.sh"
require_tool groff
make_scratch

page="$QLC_SOURCE_DIR/packaging/qirn-log-converter.8"

note "groff -man -ww -z"
groff -man -ww -z "$page" >"$SCRATCH/groff.txt" 2>&1 || { cat "$SCRATCH/groff.txt"; fail "groff failed"; }
if [ -s "$SCRATCH/groff.txt" ]; then
    cat "$SCRATCH/groff.txt"
    fail "groff warns about the manual page"
fi

note "sections"
for section in NAME SYNOPSIS DESCRIPTION ARGUMENTS CONFIGURATION FILES "OUTPUT FORMAT" \
               ROTATION SIGNALS "EXIT STATUS" DIAGNOSTICS; do
    grep -qx "\\.SH \"\\?$section\"\\?" "$page" || fail "no $section section"
done

note "the example output line is rendered literally"
# Plain text: drop the overstrike (bold and underline) sequences.
groff -man -Tutf8 -P-c -rLL=120n "$page" 2>/dev/null | sed 's/.\x08//g' >"$SCRATCH/page.txt"
grep -qF 'Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,path=/etc/passwd,status=enforcing' \
    "$SCRATCH/page.txt" || fail "the example output line is missing from the rendered page"
grep -qF 'qirn-log-converter [input [output [debug]]]' "$SCRATCH/page.txt" ||
    fail "the synopsis is missing from the rendered page"
note "the companion command's page: groff -man -ww -z, sections, every reason code"
convert_page="$QLC_SOURCE_DIR/packaging/qirn-log-convert.1"
groff -man -ww -z "$convert_page" >"$SCRATCH/groff1.txt" 2>&1 ||
    { cat "$SCRATCH/groff1.txt"; fail "groff failed on qirn-log-convert.1"; }
if [ -s "$SCRATCH/groff1.txt" ]; then
    cat "$SCRATCH/groff1.txt"
    fail "groff warns about qirn-log-convert.1"
fi
for section in NAME SYNOPSIS DESCRIPTION OPTIONS "REASON CODES" RECONCILIATION "EXIT STATUS" \
               DIAGNOSTICS ENVIRONMENT FILES "SEE ALSO"; do
    grep -qx "\\.SH \"\\?$section\"\\?" "$convert_page" || fail "qirn-log-convert.1: no $section section"
done
groff -man -Tutf8 -P-c -rLL=120n "$convert_page" 2>/dev/null | sed 's/.\x08//g' >"$SCRATCH/page1.txt"
for code in type no-container no-stamp bad-stamp no-path unknown-event unknown-status duplicate \
            too-long exception out-of-range present; do
    grep -qE "^       $code( |$)" "$SCRATCH/page1.txt" || fail "qirn-log-convert.1: reason $code not documented"
done
tr -s ' \n' ' ' <"$SCRATCH/page1.txt" | grep -qF 'one letter short' || fail "qirn-log-convert.1: the name is not explained"

note "the fleet's pages: groff -man -ww -z, sections, the synopsis"
check_fleet_page() {
    local page=$1 synopsis=$2 section
    shift 2
    groff -man -ww -z "$page" >"$SCRATCH/groff-fleet.txt" 2>&1 ||
        { cat "$SCRATCH/groff-fleet.txt"; fail "groff failed on $page"; }
    if [ -s "$SCRATCH/groff-fleet.txt" ]; then
        cat "$SCRATCH/groff-fleet.txt"
        fail "groff warns about $page"
    fi
    for section in NAME SYNOPSIS DESCRIPTION "EXIT STATUS" FILES "SEE ALSO" "$@"; do
        grep -qx "\\.SH \"\\?$section\"\\?" "$page" || fail "$page: no $section section"
    done
    groff -man -Tutf8 -P-c -rLL=120n "$page" 2>/dev/null | sed 's/.\x08//g' >"$SCRATCH/fleet-page.txt"
    grep -qF "$synopsis" "$SCRATCH/fleet-page.txt" || fail "$page: the synopsis is missing from the rendered page"
}
fleet="$QLC_SOURCE_DIR/packaging/fleet"
check_fleet_page "$fleet/qirn-fleet-agent.8" 'qirn-fleet-agent [--config file]' \
    OPTIONS CONFIGURATION "READ POSITION" METRICS SIGNALS DIAGNOSTICS
check_fleet_page "$fleet/qirn-fleet-complete.8" 'qirn-fleet-complete' ENVIRONMENT METRICS
# Every key the agent reads is documented, and shown in its configuration file.
keys=$(grep -o 'key == "[a-z_]*"' "$QLC_SOURCE_DIR/src/agent/AgentConfig.cpp" | cut -d'"' -f2)
[ -n "$keys" ] || fail "no configuration keys found in src/agent/AgentConfig.cpp"
for key in $keys; do
    grep -q "^\\.BI $key= " "$fleet/qirn-fleet-agent.8" || fail "qirn-fleet-agent.8: $key is not documented"
    grep -q "^#$key=" "$fleet/qirn-fleet-agent.conf" || fail "qirn-fleet-agent.conf does not show $key"
done
echo "PASS"
