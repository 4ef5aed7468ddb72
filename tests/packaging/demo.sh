#!/usr/bin/env bash
# scripts/demo runs the built binary on the shipped sample lines, shows every
# expected event and ends with the service's exit status 0.
source "$(dirname "$0")/lib.sh"
make_scratch
require_private_mounts

status=0
TZ=UTC QLC_DEMO_DELAY=0 "$QLC_SOURCE_DIR/scripts/demo" "$QLC_BINARY" >"$SCRATCH/demo.txt" 2>&1 ||
    status=$?
cat "$SCRATCH/demo.txt"
[ "$status" -eq 0 ] || fail "scripts/demo exited with $status"
while IFS= read -r event; do
    grep -qF "event  $event" "$SCRATCH/demo.txt" || fail "the demo did not show: $event"
done <"$QLC_SOURCE_DIR/examples/expected-events.log"
events=$(grep -c . "$QLC_SOURCE_DIR/examples/expected-events.log")
lines=$(grep -c . "$QLC_SOURCE_DIR/examples/sample-audit.log")
grep -qx "$lines audit lines appended, $events events written." "$SCRATCH/demo.txt" ||
    fail "the demo's totals differ"
grep -qF -- "-> ignored: unknown-event (type=QIRN_AVC, operation=read)" "$SCRATCH/demo.txt" ||
    fail "the demo did not take its reason from qirn-log-convert --explain=all"
grep -qx 'Exit status: 0' "$SCRATCH/demo.txt" || fail "no clean exit status"
echo "PASS"
