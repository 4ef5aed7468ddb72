# Helpers shared by the packaging checks; sourced, not run.
#
# Tools the checks use come from the packages of scripts/install-deps
# (--ci for the checks labelled long). A missing tool makes the check exit
# with SKIP (77) instead of failing.

set -euo pipefail
# A command that fails outside a check's own tests still names itself.
set -E
trap 'echo "FAIL: \"$BASH_COMMAND\" failed (line $LINENO)" >&2' ERR

readonly SKIP=77
: "${QLC_SOURCE_DIR:?set by CTest}"
: "${QLC_BUILD_DIR:?set by CTest}"
: "${QLC_BINARY:?set by CTest}"
: "${QLC_UNIT_DIR:?set by CTest}"
: "${QLC_PACKAGE_DOCS:?set by CTest}"
# The configured configuration directory: absolute, or empty (by the prefix).
: "${QLC_SYSCONF_DIR?set by CTest}"
# The agent's binary, empty when this build has no fleet agent.
: "${QLC_AGENT_BINARY=}"

skip() {
    echo "SKIP: $*"
    exit "$SKIP"
}

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

note() {
    echo "-- $*"
}

require_tool() {
    local tool
    for tool in "$@"; do
        command -v "$tool" >/dev/null 2>&1 || skip "$tool is not installed"
    done
}

# A scratch directory removed on exit; world-readable like /var/log, so that
# tools that check directory modes (logrotate) accept it.
make_scratch() {
    SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/qlc-packaging.XXXXXX")
    chmod 0755 "$SCRATCH"
    trap 'cleanup_scratch' EXIT
}

# Processes to end before the scratch directory goes.
CLEANUP_PIDS=()

cleanup_scratch() {
    local pid
    for pid in "${CLEANUP_PIDS[@]}"; do
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$SCRATCH"
}

# Installs the build tree into $1 (a DESTDIR) with prefix $2.
install_into() {
    local destdir=$1 prefix=$2
    require_tool cmake
    [ -x "$QLC_BINARY" ] || fail "binary not built: $QLC_BINARY"
    DESTDIR="$destdir" cmake --install "$QLC_BUILD_DIR" --prefix "$prefix" >"$destdir.log" 2>&1 ||
        { cat "$destdir.log"; fail "cmake --install failed"; }
}

# The directory below the DESTDIR $1 where an install with prefix $2 put the
# units: the build's own setting (/lib/systemd/system in the package build,
# lib/systemd/system below the prefix otherwise).
unit_dir_of() {
    local destdir=$1 prefix=$2
    case $QLC_UNIT_DIR in
    /*) echo "$destdir$QLC_UNIT_DIR" ;;
    *) echo "$destdir$prefix/$QLC_UNIT_DIR" ;;
    esac
}

# The directory below the DESTDIR $1 where an install with prefix $2 put the
# configuration: the build's own setting (/etc in the package build), else
# /etc for the prefix /usr and PREFIX/etc for any other.
etc_dir_of() {
    local destdir=$1 prefix=${2%/}
    if [ -n "$QLC_SYSCONF_DIR" ]; then
        echo "$destdir$QLC_SYSCONF_DIR"
    elif [ -z "$prefix" ] || [ "$prefix" = /usr ]; then
        echo "$destdir/etc"
    else
        echo "$destdir$prefix/etc"
    fi
}

# Skips unless this process may make a private mount namespace with a bind
# mount and an overlay (root, or a container that allows it).
require_private_mounts() {
    require_tool unshare mount
    [ "$(id -u)" -eq 0 ] || skip "private mount namespaces need root"
    [ -d /var/log ] && [ -d /etc ] || skip "no /var/log or /etc to mount over"
    local probe="$SCRATCH/probe"
    mkdir -p "$probe/bind" "$probe/tmp"
    unshare --mount --propagation private -- sh -c '
        mount --bind "$1/bind" /var/log &&
        mount -t tmpfs tmpfs "$1/tmp" &&
        mkdir "$1/tmp/up" "$1/tmp/work" &&
        mount -t overlay overlay \
            -o "lowerdir=/etc,upperdir=$1/tmp/up,workdir=$1/tmp/work" /etc' \
        sh "$probe" >/dev/null 2>&1 ||
        skip "this machine does not allow a private mount namespace with an overlay"
    rm -rf "$probe"
}

# Checks the overall exposure level in a `systemd-analyze security` report
# (the file $1) against the limit $2 and sets `exposure` to it; a level above
# the limit fails with the items that raised it.
check_exposure() {
    local report=$1 limit=$2
    tail -n 1 "$report"
    exposure=$(sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\).*/\1/p' "$report")
    [ -n "$exposure" ] || { cat "$report"; fail "no exposure level in the output"; }
    awk -v e="$exposure" -v limit="$limit" 'BEGIN { exit !(e <= limit) }' || {
        grep '✗' "$report" || true
        fail "exposure $exposure is above $limit"
    }
}

# Waits up to $1 seconds (decimals allowed) until the command after it succeeds.
wait_for() {
    local timeout=$1
    shift
    local deadline=$((SECONDS + ${timeout%.*} + 1))
    while [ "$SECONDS" -lt "$deadline" ]; do
        "$@" && return 0
        sleep 0.1
    done
    "$@"
}
