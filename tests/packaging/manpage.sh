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
echo "PASS"
