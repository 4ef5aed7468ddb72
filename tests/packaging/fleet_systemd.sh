#!/usr/bin/env bash
# The fleet's packages under a real systemd: two minimal Debian 12 systems
# booted in containers (systemd-nspawn --boot), joined by a veth pair between
# two network namespaces of this test's own, with private addresses only.
#   store host  PostgreSQL 15 from Debian + qirn-fleet-store
#   agent host  qirn-log-converter + qirn-fleet-agent
# The enrolment is the page docs/run-a-fleet.md itself: each block after a
# "<!-- fleet-role: ROLE -->" line runs with bash as root in its host (store
# and reader on the store host, agent on the agent host), in the page's order,
# with only the page's values set to this test's, and the store's files copied
# to the agent host between them as the page says. The checks after it run
# against the running systems: events end to end, an agent restart and a
# store restart (no loss, no duplicate), the metrics through node_exporter,
# the completeness loop, an upgrade of both hosts, a purge of both.
#
# The packages: QLC_FLEET_DEBS=DIR (a directory of built .debs), else the ones
# packaging.deb leaves in build/.../debian-package.
# QLC_FLEET_ROOTS=DIR keeps the two debootstrap results in DIR between runs
# (default: the build directory's fleet-roots).
source "$(dirname "$0")/lib.sh"
require_tool debootstrap systemd-nspawn nsenter dpkg-deb pgrep ip
[ "$(id -u)" -eq 0 ] || skip "booting a container needs root"
make_scratch

packages=${QLC_FLEET_DEBS:-$QLC_BUILD_DIR/debian-package}
arch=$(dpkg --print-architecture)
find_deb() {
    { ls "$packages/$1"_*_"$arch".deb "$packages/$1"_*_all.deb 2>/dev/null || true; } | head -n 1
}
service_deb=$(find_deb qirn-log-converter)
agent_deb=$(find_deb qirn-fleet-agent)
store_deb=$(find_deb qirn-fleet-store)
[ -n "$service_deb" ] && [ -n "$agent_deb" ] && [ -n "$store_deb" ] ||
    fail "the three packages are not all in $packages: run packaging.deb first, or set QLC_FLEET_DEBS"
version=$(dpkg-deb -f "$agent_deb" Version)

page=$QLC_SOURCE_DIR/docs/run-a-fleet.md
[ -f "$page" ] || fail "no $page"
host_name=web01
store_name=qlc-fleet-store
store_address=10.231.28.1
agent_address=10.231.28.2
audit=/var/log/qirn_audit.log
events=/var/log/zarvo_container.log
agent_conf=/etc/qirn/qirn-fleet-agent.conf
agent_metrics=/var/lib/prometheus/node-exporter/qirn_fleet_agent.prom
readonly CHECKS=(
    check_page_store
    check_page_copy
    check_page_agent
    check_page_reader
    check_events_flow
    check_agent_restart
    check_store_restart
    check_admin_hosts_and_metrics
    check_completeness_loop
    check_upgrade_both
    check_purge_agent_host
    check_purge_store_host
)

# --- The two containers -----------------------------------------------------

roots=${QLC_FLEET_ROOTS:-$QLC_BUILD_DIR/fleet-roots}
# node_exporter on both, as the fleet's metrics expect: its textfile
# directory is where the agent and the store's timer write.
store_packages=(systemd systemd-sysv dbus postgresql-15 postgresql-client-15 openssl
    prometheus-node-exporter)
agent_packages=(systemd systemd-sysv dbus logrotate libpq5 postgresql-client-15 openssl acl
    prometheus-node-exporter)
netns_store=qlc-fleet-store-$$
netns_agent=qlc-fleet-agent-$$
declare -A nspawn_pid=() init_pid=()
store_root=$SCRATCH/store
agent_root=$SCRATCH/agent

stop_container() {
    local name=$1 pid=${nspawn_pid[$1]:-}
    [ -n "$pid" ] || return 0
    # SIGTERM asks nspawn to shut the container down in order; ending the
    # container's init ends every process of its PID namespace.
    kill -TERM "$pid" 2>/dev/null || true
    local i
    for i in $(seq 150); do
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
    done
    if kill -0 "$pid" 2>/dev/null; then
        [ -n "${init_pid[$name]:-}" ] && kill -KILL "${init_pid[$name]}" 2>/dev/null || true
        kill -KILL "$pid" 2>/dev/null || true
    fi
    wait "$pid" 2>/dev/null || true
    nspawn_pid[$name]=
}

cleanup_all() {
    stop_container store
    stop_container agent
    ip netns del "$netns_store" 2>/dev/null || true
    ip netns del "$netns_agent" 2>/dev/null || true
    cleanup_scratch
}
trap cleanup_all EXIT
# A command that fails outside a check's own tests still names itself.
set -E
trap 'echo "FAIL: ${current_check:-setup}: \"$BASH_COMMAND\" failed (line $LINENO)" >&2' ERR
trap 'exit 130' INT TERM

# Runs a command inside container $1 (store or agent), with a clean environment.
in_ct() {
    local name=$1
    shift
    nsenter -t "${init_pid[$name]}" -m -u -i -n -p -- \
        env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C SYSTEMD_PAGER= SYSTEMD_COLORS=0 \
        DEBIAN_FRONTEND=noninteractive "$@"
}
in_store() { in_ct store "$@"; }
in_agent() { in_ct agent "$@"; }

# SQL as PostgreSQL's superuser on the store host; unaligned, tuples only.
store_sql() {
    in_store runuser -u postgres -- psql -X -q -A -t -v ON_ERROR_STOP=1 -d qirn_fleet -c "$1"
}

prepare_root() {
    local name=$1 dest=$2
    shift 2
    "$QLC_SOURCE_DIR/tests/support/debian-root" "$roots/$name" "$@" >/dev/null ||
        skip "could not build the Debian 12 root for the $name host"
    cp -a "$roots/$name" "$dest"
}

note "debootstrap two minimal Debian 12 roots (cached in $roots)"
start=$SECONDS
prepare_root store "$store_root" "${store_packages[@]}"
prepare_root agent "$agent_root" "${agent_packages[@]}"
echo "roots ready in $((SECONDS - start)) s"

note "a private network: $store_name $store_address <-> $host_name $agent_address"
ip netns add "$netns_store"
ip netns add "$netns_agent"
ip link add qlcfs$$ netns "$netns_store" type veth peer name qlcfa$$ netns "$netns_agent"
ip -n "$netns_store" addr add "$store_address/24" dev qlcfs$$
ip -n "$netns_agent" addr add "$agent_address/24" dev qlcfa$$
for ns in "$netns_store" "$netns_agent"; do
    ip -n "$ns" link set lo up
done
ip -n "$netns_store" link set qlcfs$$ up
ip -n "$netns_agent" link set qlcfa$$ up
for root in "$store_root" "$agent_root"; do
    printf '127.0.0.1 localhost\n%s %s\n%s %s\n' \
        "$store_address" "$store_name" "$agent_address" "$host_name" >"$root/etc/hosts"
done
# The store's name is what add-host prints and its certificate names.
echo "$store_name" >"$store_root/etc/hostname"
echo "$host_name" >"$agent_root/etc/hostname"

boot() {
    local name=$1 root=$2 machine=$3 netns=$4
    systemd-nspawn --boot --register=no --keep-unit --console=read-only \
        --network-namespace-path="/run/netns/$netns" \
        -M "$machine" -D "$root" </dev/null >"$SCRATCH/console-$name.log" 2>&1 &
    nspawn_pid[$name]=$!
}

booted() {
    local name=$1 state
    container_init() {
        init_pid[$name]=$(pgrep -P "${nspawn_pid[$name]}" -x systemd | head -n 1)
        [ -n "${init_pid[$name]}" ]
    }
    wait_for 20 container_init || { cat "$SCRATCH/console-$name.log"; fail "no systemd child of nspawn ($name)"; }
    manager_listens() { in_ct "$name" test -S /run/systemd/private; }
    wait_for 30 manager_listens || { cat "$SCRATCH/console-$name.log"; fail "the $name container's systemd does not listen"; }
    state=$(timeout 90 nsenter -t "${init_pid[$name]}" -m -u -i -n -p -- \
        env -i PATH=/usr/bin:/bin systemctl is-system-running --wait 2>&1) || true
    case "$state" in
        running) echo "$name booted: $state" ;;
        degraded) echo "$name booted: $state ($(in_ct "$name" systemctl --failed --plain --no-legend | awk '{print $1}' | paste -sd' '))" ;;
        *) tail -n 30 "$SCRATCH/console-$name.log"; fail "the $name container did not boot: $state" ;;
    esac
}

note "booting both with systemd-nspawn"
start=$SECONDS
boot store "$store_root" "$store_name" "$netns_store"
boot agent "$agent_root" "$host_name" "$netns_agent"
booted store
booted agent
echo "booted in $((SECONDS - start)) s"
reachable() { in_agent bash -c "exec 3<>/dev/tcp/$store_address/5432" 2>/dev/null; }

# --- Helpers ----------------------------------------------------------------

RESULTS=()
observed() {
    echo "   observed: $*"
    RESULTS+=("$current_check: $*")
}

# A QIRN_AVC line for second $1 past $time_base, path $2.
time_base=1731676205
audit_line() {
    printf 'type=QIRN_AVC msg=audit(%d.123:%d): avc:  denied  { write } for  pid=1234 comm="bash" name="%s" dev="sda1" ino=5678 container_id=3f2a9c scontext=system_u:system_r:container_t tcontext=system_u:object_r:etc_t tclass=file permissive=0\n' \
        $((time_base + $1)) $((4567 + $1)) "$2"
}

# The event line the service writes for audit_line $1 $2 (the containers have
# no time zone set: UTC).
event_line() {
    printf '%s,container_id=3f2a9c,Event=filectl,path=%s,status=enforcing\n' \
        "$(TZ=UTC date -d "@$((time_base + $1))" '+%b %d %H:%M:%S')" "$2"
}

# Appends $1 audit lines (path prefix $2) on the agent host; their events are
# remembered in $SCRATCH/expected.
sequence=0
append_audit() {
    local count=$1 prefix=$2 i
    for ((i = 0; i < count; i++)); do
        sequence=$((sequence + 1))
        audit_line "$sequence" "/etc/$prefix-$sequence" >>"$agent_root$audit"
        event_line "$sequence" "/etc/$prefix-$sequence" >>"$SCRATCH/expected"
    done
}

# The store holds every expected event exactly once and nothing else.
store_lines() { store_sql "SELECT line FROM qirn_fleet.events ORDER BY line" | LC_ALL=C sort; }
store_complete() {
    store_lines >"$SCRATCH/stored"
    LC_ALL=C sort "$SCRATCH/expected" | cmp -s - "$SCRATCH/stored"
}
wait_store_complete() {
    local what=$1 timeout=${2:-30}
    if ! wait_for "$timeout" store_complete; then
        echo "expected $(wc -l <"$SCRATCH/expected") events, the store holds $(wc -l <"$SCRATCH/stored")"
        LC_ALL=C sort "$SCRATCH/expected" | diff - "$SCRATCH/stored" | head -n 20 || true
        in_agent journalctl -q -u qirn-fleet-agent --no-pager | tail -n 20 || true
        fail "$what: the store does not hold each event exactly once"
    fi
    local total distinct
    total=$(store_sql "SELECT count(*) FROM qirn_fleet.events")
    distinct=$(store_sql "SELECT count(DISTINCT line) FROM qirn_fleet.events")
    [ "$total" = "$distinct" ] || fail "$what: $total rows for $distinct lines"
    stored_count=$total
}

# The value of metric $1 in the agent's textfile (0 when it is not there).
agent_metric() {
    awk -v name="$1" '$1 == name { print $2; found = 1 } END { if (!found) print 0 }' \
        "$agent_root$agent_metrics" 2>/dev/null || echo 0
}
agent_connected() { [ "$(agent_metric qirn_fleet_agent_connected)" = 1 ]; }
# The agent writes its metrics at every heartbeat, the page's configuration's
# (the default, 30 s, unless it sets one): a wait for a figure lasts one more.
metrics_wait() {
    local seconds
    seconds=$(sed -n 's/^heartbeat_seconds=//p' "$agent_root$agent_conf" 2>/dev/null | tail -n 1)
    echo $((${seconds:-30} + 10))
}

# What Prometheus would scrape from node_exporter on host $1 (store or agent).
scrape() {
    in_ct "$1" bash -c 'exec 3<>/dev/tcp/127.0.0.1/9100 &&
        printf "GET /metrics HTTP/1.0\r\nHost: localhost\r\n\r\n" >&3 && cat <&3'
}
# node_exporter on host $1 serves a sample matching the regular expression $2.
serves() { scrape "$1" 2>/dev/null | grep -qE "$2"; }

# How many times the service has started following its input.
monitor_starts() {
    local count
    count=$(grep -c 'Monitor thread started' "$agent_root/var/log/qirn-log-converter.log" 2>/dev/null) || true
    echo "${count:-0}"
}

prop() { in_ct "$1" systemctl show -P "$2" "$3"; }
active() { [ "$(prop "$1" ActiveState "$2")" = active ]; }
main_pid_other_than() {
    local pid
    pid=$(prop "$1" MainPID "$2")
    [ "$pid" != 0 ] && [ "$pid" != "$3" ] && active "$1" "$2"
}

# The package $1 rebuilt as version $2: same contents, a newer version, and a
# dependency on a sibling at the same version follows it.
repack() {
    local deb=$1 new_version=$2 out=$3 dir
    dir=$(mktemp -d "$SCRATCH/repack.XXXXXX")
    dpkg-deb -R "$deb" "$dir"
    sed -i -e "s/^Version: .*/Version: $new_version/" \
        -e "/^\(Pre-\)\?Depends:/s/(= $version)/(= $new_version)/g" "$dir/DEBIAN/control"
    dpkg-deb -b "$dir" "$out" >/dev/null
}

# --- Checks -----------------------------------------------------------------

# The page's block for role $1: the lines between its ```sh and ``` fences.
page_block() {
    awk -v role="$1" '
        want == 2 && /^```$/ { exit }
        want == 2 { print; next }
        want == 1 && /^```sh$/ { want = 2; next }
        { want = ($0 == "<!-- fleet-role: " role " -->") }' "$page"
}

# The page's block for role $1 with the values of the page's variables named
# in $2... (VAR=VALUE) set to this test's; each must be one the block sets.
page_script() {
    local role=$1 block assignment var line
    shift
    block=$(page_block "$role")
    [ -n "$block" ] || fail "$page has no block for the role $role"
    declare -A values=()
    for assignment in "$@"; do
        var=${assignment%%=*}
        grep -q "^$var=" <<<"$block" || fail "the page's $role block sets no $var"
        values[$var]=${assignment#*=}
    done
    while IFS= read -r line; do
        var=${line%%=*}
        if [[ $line =~ ^[A-Z_]+= ]] && [ -n "${values[$var]+set}" ]; then
            printf '%s=%q\n' "$var" "${values[$var]}"
        else
            printf '%s\n' "$line"
        fi
    done <<<"$block"
}

# Runs the page's block for role $1 on host $2 as root would, each command
# shown, the first failure ending it; its output in $SCRATCH/page-$1.log.
run_page() {
    local role=$1 host=$2 script=$SCRATCH/page-$1.sh
    shift 2
    page_script "$role" "$@" >"$script"
    page_commands[$role]=$(grep -cvE '^([A-Z_]+=|#|$)' "$script")
    in_ct "$host" env HOME=/root bash -e -x -c "$(cat "$script")" </dev/null >"$SCRATCH/page-$role.log" 2>&1 || {
        cat "$SCRATCH/page-$role.log"
        fail "the page's $role block failed on the $host host (last command shown above)"
    }
}
declare -A page_commands=()
page_debs=/root/qirn-debs
page_out=/root/qirn-fleet-$host_name

check_page_store() {
    local roles
    roles=$(sed -n 's/^<!-- fleet-role: \([a-z]*\) -->$/\1/p' "$page" | paste -sd' ')
    [ "$roles" = "store agent reader" ] || fail "the page's roles, in order, are: $roles"
    # The packages, where the page's DEBS names them on each host.
    mkdir -p "$store_root$page_debs" "$agent_root$page_debs"
    cp "$service_deb" "$agent_deb" "$store_deb" "$store_root$page_debs/"
    cp "$service_deb" "$agent_deb" "$store_deb" "$agent_root$page_debs/"
    run_page store store STORE="$store_address" HOST="$host_name" OUT="$page_out" DEBS="$page_debs"
    grep -q '^store ready: database qirn_fleet, schema version ' "$SCRATCH/page-store.log" ||
        { cat "$SCRATCH/page-store.log"; fail "init did not say the store is ready"; }
    grep -q '^conninfo=' "$SCRATCH/page-store.log" ||
        { cat "$SCRATCH/page-store.log"; fail "add-host printed no conninfo= line"; }
    in_store test -f /usr/share/qirn-fleet-store/prometheus/qirn-fleet.rules.yml ||
        fail "the store's package ships no alert rules"
    # The package enabled nothing itself: the page's last command did.
    local enabled_by_package
    enabled_by_package=$(in_store sh -c 'ls -d /var/lib/systemd/deb-systemd-helper-enabled/*.wants/*qirn* 2>/dev/null; true')
    [ -z "$enabled_by_package" ] || fail "the store's package enabled $enabled_by_package"
    local timer
    for timer in qirn-fleet-store-maintain.timer qirn-fleet-store-metrics.timer; do
        active store "$timer" || fail "$timer is not active after the page's store block"
    done
    # Safe to run again: nothing changes, nothing fails.
    in_store qirn-fleet-admin init >"$SCRATCH/init2.log" 2>&1 ||
        { cat "$SCRATCH/init2.log"; fail "qirn-fleet-admin init failed when run again"; }
    store_sql "SELECT 1 FROM qirn_fleet.events LIMIT 0" >/dev/null || fail "no qirn_fleet.events after init"
    local listen
    listen=$(in_store runuser -u postgres -- psql -X -A -t -c 'SHOW listen_addresses')
    wait_for 30 reachable || fail "the agent host cannot reach $store_address:5432"
    observed "the page's store block (${page_commands[store]} commands, STORE=$store_address) on the store host;" \
        "init again ok; listen_addresses=$listen; the $host_name's conninfo: $(sed -n 's/^conninfo=//p' "$SCRATCH/page-store.log")"
}

check_page_copy() {
    # The operator's copy of OUT to the agent host (DIR), then away from the
    # store host.
    [ -d "$store_root$page_out" ] || fail "add-host wrote no $page_out"
    cp -a "$store_root$page_out" "$agent_root$page_out"
    rm -rf "$store_root$page_out"
    observed "copied $(ls "$agent_root$page_out" | paste -sd' ') from the store host's $page_out to the agent host's"
}

check_page_agent() {
    # The service's input exists before the page starts it; the events the
    # checks expect start here.
    : >"$agent_root$audit"
    : >"$SCRATCH/expected"
    run_page agent agent DIR="$page_out" DEBS="$page_debs"
    # The page's credential check: the host's role, over TLS.
    grep -qE "^ *qirn_host_$host_name +\| t$" "$SCRATCH/page-agent.log" ||
        { cat "$SCRATCH/page-agent.log"; fail "the page's credential check did not answer qirn_host_$host_name and t"; }
    local enabled_by_package
    enabled_by_package=$(in_agent sh -c 'ls -d /var/lib/systemd/deb-systemd-helper-enabled/*.wants/*qirn* 2>/dev/null; true')
    [ -z "$enabled_by_package" ] || fail "the agent host's packages enabled $enabled_by_package"
    in_agent id -nG qirn-fleet | grep -qw adm || fail "qirn-fleet is not in group adm"
    local unit
    for unit in qirn-log-converter.service qirn-fleet-agent.service qirn-fleet-complete.timer; do
        [ "$(in_agent systemctl is-enabled "$unit")" = enabled ] || fail "$unit is not enabled by the page"
        active agent "$unit" || fail "$unit is not active after the page's agent block"
    done
    local file modes
    for file in qirn-fleet-agent.conf fleet-ca.pem fleet-agent.crt fleet-agent.key; do
        modes+="$file $(in_agent stat -c '%U:%G %a' "/etc/qirn/$file"); "
    done
    [ "$(grep -c 'root:qirn-fleet 640' <<<"${modes//; /$'\n'}")" = 4 ] || fail "the host's files in /etc/qirn: $modes"
    local conninfo loop
    conninfo=$(sed -n 's/^conninfo=//p' "$agent_root$agent_conf")
    loop=$(sed -n 's/^QIRN_FLEET_CONNINFO=//p' "$agent_root/etc/default/qirn-fleet-complete")
    [ "$loop" = "\"$conninfo\"" ] || fail "the loop's QIRN_FLEET_CONNINFO is $loop, the agent's conninfo $conninfo"
    observed "the page's agent block (${page_commands[agent]} commands) on the agent host:" \
        "$(grep -E "^ *qirn_host_$host_name +\| t$" "$SCRATCH/page-agent.log" | tr -s ' ');" \
        "service, agent and loop timer enabled and active; $modes"
}

check_page_reader() {
    run_page reader store
    grep -qE "^ *$host_name +\|" "$SCRATCH/page-reader.log" ||
        { cat "$SCRATCH/page-reader.log"; fail "the reader's fleet_hosts does not list $host_name"; }
    reader=$(page_block reader | sed -n 's/^READER=//p')
    observed "the page's reader block (${page_commands[reader]} commands, READER=$reader) on the store host:" \
        "$(grep -E "^ *$host_name +\|" "$SCRATCH/page-reader.log" | tr -s ' ')"
}

check_events_flow() {
    following() { [ "$(monitor_starts)" -gt 0 ]; }
    wait_for 10 following || fail "the service does not follow $audit"
    append_audit 5 flow
    wait_store_complete "first events" 30
    wait_for "$(metrics_wait)" agent_connected || {
        ls -l "$agent_root$(dirname "$agent_metrics")" || true
        cat "$agent_root$agent_metrics" || true
        in_agent journalctl -q -u qirn-fleet-agent --no-pager | tail -n 20
        fail "the agent's metrics do not say connected"
    }
    # Through node_exporter's textfile collector, as Prometheus sees it.
    wait_for "$(metrics_wait)" serves agent '^qirn_fleet_agent_connected 1$' ||
        fail "node_exporter does not serve qirn_fleet_agent_connected 1"
    wait_for "$(metrics_wait)" serves agent '^qirn_fleet_agent_events_stored_total 5$' ||
        fail "node_exporter does not serve qirn_fleet_agent_events_stored_total 5"
    # What the page's reader sees.
    local seen
    seen=$(in_store runuser -u "$reader" -- psql -X -A -t -d qirn_fleet \
        -c "SELECT count(*) FROM qirn_fleet.fleet_events WHERE host = '$host_name'")
    [ "$seen" = 5 ] || fail "the reader $reader sees $seen events of $host_name, not 5"
    local mtime
    mtime=$(scrape agent | grep -E '^node_textfile_mtime_seconds\{file="[^"]*qirn_fleet_agent\.prom"\}' | tr -d '\r') ||
        fail "node_exporter serves no node_textfile_mtime_seconds for the agent's file"
    observed "5 audit lines -> $stored_count events in qirn_fleet.events;" \
        "agent metrics: connected=$(agent_metric qirn_fleet_agent_connected)" \
        "stored_total=$(agent_metric qirn_fleet_agent_events_stored_total); node_exporter: ${mtime%% *};" \
        "the reader $reader sees $seen in fleet_events"
}

check_agent_restart() {
    local old_pid
    old_pid=$(prop agent MainPID qirn-fleet-agent.service)
    in_agent systemctl stop qirn-fleet-agent.service
    local result
    result=$(prop agent Result qirn-fleet-agent.service)
    [ "$result" = success ] || fail "Result=$result after stopping the agent"
    # Written while the agent is away: read from the store's position on start.
    append_audit 20 agent-away
    wait_for 10 grep -qF "agent-away-$sequence," "$agent_root$events" || fail "the service did not convert"
    in_agent systemctl start qirn-fleet-agent.service
    append_audit 5 agent-back
    wait_store_complete "after an agent restart" 30
    observed "stop (Result=$result, pid $old_pid) + 20 lines + start + 5 lines: $stored_count events, each once;" \
        "duplicates_total=$(agent_metric qirn_fleet_agent_duplicates_total)"
}

check_store_restart() {
    in_store systemctl stop postgresql.service
    append_audit 10 store-away
    disconnected() { [ "$(agent_metric qirn_fleet_agent_connected)" = 0 ]; }
    local outage="connected=0 seen during the outage"
    wait_for "$(metrics_wait)" disconnected || outage="connected=0 not seen during the outage"
    in_store systemctl start postgresql.service
    append_audit 5 store-back
    # The agent's back-off is at most 30 s.
    wait_store_complete "after a store restart" 60
    wait_for "$(metrics_wait)" agent_connected || fail "the agent does not say connected after the store restart"
    active agent qirn-fleet-agent.service || fail "the agent is not running after the store restart"
    observed "PostgreSQL stopped, 10 lines, started, 5 lines: $stored_count events, each once; $outage;" \
        "errors_total=$(agent_metric qirn_fleet_agent_errors_total), NRestarts=$(prop agent NRestarts qirn-fleet-agent.service)"
}

check_admin_hosts_and_metrics() {
    in_store qirn-fleet-admin hosts >"$SCRATCH/hosts.txt" 2>&1 || { cat "$SCRATCH/hosts.txt"; fail "qirn-fleet-admin hosts failed"; }
    grep -q "$host_name" "$SCRATCH/hosts.txt" || { cat "$SCRATCH/hosts.txt"; fail "hosts does not list $host_name"; }
    # The store's metrics timer, enabled by the page: its run started now
    # rather than within the minute.
    in_store systemctl start qirn-fleet-store-metrics.service ||
        { in_store journalctl -q -u qirn-fleet-store-metrics --no-pager | tail -n 10; fail "the store's metrics run failed"; }
    local prom=$store_root/var/lib/prometheus/node-exporter/qirn_fleet_store.prom
    grep -qx 'qirn_fleet_store_up 1' "$prom" || { cat "$prom"; fail "qirn_fleet_store_up is not 1"; }
    grep -qx "qirn_fleet_host_silent{host=\"$host_name\"} 0" "$prom" ||
        { cat "$prom"; fail "$host_name is not reported as not silent"; }
    serves store "^qirn_fleet_host_silent\\{host=\"$host_name\"\\} 0" || {
        ls -l "$prom"
        scrape store | grep -E 'textfile|qirn' | awk 'NR <= 10'
        fail "node_exporter on the store host does not serve $host_name's silence"
    }
    local contact
    contact=$(sed -n "s/^qirn_fleet_host_last_contact_timestamp_seconds{host=\"$host_name\"} //p" "$prom")
    [ "${contact%.*}" -gt 0 ] 2>/dev/null || fail "no last contact for $host_name: $contact"
    observed "hosts: $(grep "$host_name" "$SCRATCH/hosts.txt" | tr -s ' ' | awk 'NR == 1');" \
        "$(grep -c '^qirn_fleet' "$prom") store samples served by node_exporter, $host_name silent=0, last contact $contact"
}

check_completeness_loop() {
    # A gap: a line written while the service is stopped is never converted,
    # since the service follows from the end. Recent, so that it lies in the
    # loop's window.
    time_base=$(($(date +%s) - sequence - 60))
    in_agent systemctl stop qirn-log-converter.service
    sequence=$((sequence + 1))
    local path="/etc/gap-$sequence" gap
    gap=$(event_line "$sequence" "$path")
    audit_line "$sequence" "$path" >>"$agent_root$audit"
    echo "$gap" >>"$SCRATCH/expected"
    local starts
    starts=$(monitor_starts)
    in_agent systemctl start qirn-log-converter.service
    # Lines written before it follows again would be a gap too.
    following_again() { [ "$(monitor_starts)" -gt "$starts" ]; }
    wait_for 10 following_again || fail "the service does not follow its input after its restart"
    append_audit 2 after-gap
    wait_for 10 grep -qF "after-gap-$sequence," "$agent_root$events" || fail "the service does not convert after its restart"
    ! grep -qxF "$gap" "$agent_root$events" || fail "the gap event reached the event log"
    # The page gave the loop its connection and enabled its timer; the
    # gap is a minute old, so the loop need not wait for it to settle.
    echo "QIRN_FLEET_SETTLE=0" >>"$agent_root/etc/default/qirn-fleet-complete"
    # What the timer starts, now rather than within 15 minutes.
    in_agent systemctl start qirn-fleet-complete.service ||
        { in_agent journalctl -q -u qirn-fleet-complete --no-pager | tail -n 10; fail "the loop's run failed"; }
    grep -qxF "$gap" "$agent_root/var/log/zarvo_container.backfill.log" || fail "the gap event is not in the backfill log"
    wait_store_complete "after the loop's run" 30
    wait_for 15 serves agent '^qirn_fleet_complete_last_run_success 1$' ||
        fail "node_exporter does not serve qirn_fleet_complete_last_run_success 1"
    serves agent '^qirn_fleet_complete_missing_events 1$' || {
        scrape agent | grep '^qirn_fleet_complete' || true
        in_agent journalctl -q -u qirn-fleet-complete --no-pager | tail -n 10
        fail "node_exporter does not serve qirn_fleet_complete_missing_events 1"
    }
    observed "gap event sent again by qirn-fleet-complete.service, shipped from the backfill log:" \
        "$stored_count events, each once; node_exporter: last_run_success 1, missing_events 1;" \
        "$(in_agent journalctl -q -u qirn-fleet-complete --no-pager -o cat | grep 'events of this host' | tail -n 1)"
}

check_upgrade_both() {
    local new_version=${version}+upgrade1 old_pid new_pid exe
    old_pid=$(prop agent MainPID qirn-fleet-agent.service)
    repack "$service_deb" "$new_version" "$agent_root/root/service-upgrade.deb"
    repack "$agent_deb" "$new_version" "$agent_root/root/agent-upgrade.deb"
    repack "$store_deb" "$new_version" "$store_root/root/store-upgrade.deb"
    in_store apt-get install -y -q --no-install-recommends /root/store-upgrade.deb \
        >"$SCRATCH/upgrade-store.log" 2>&1 || { cat "$SCRATCH/upgrade-store.log"; fail "the store's upgrade failed"; }
    in_agent apt-get install -y -q --no-install-recommends /root/service-upgrade.deb /root/agent-upgrade.deb \
        >"$SCRATCH/upgrade-agent.log" 2>&1 || { cat "$SCRATCH/upgrade-agent.log"; fail "the agent host's upgrade failed"; }
    local package
    for package in qirn-log-converter qirn-fleet-agent; do
        [ "$(in_agent dpkg-query -W -f='${Version}' "$package")" = "$new_version" ] ||
            fail "$package is not at $new_version"
    done
    [ "$(in_store dpkg-query -W -f='${Version}' qirn-fleet-store)" = "$new_version" ] ||
        fail "qirn-fleet-store is not at $new_version"
    wait_for 15 main_pid_other_than agent qirn-fleet-agent.service "$old_pid" ||
        fail "the agent's main PID is still $old_pid after the upgrade"
    new_pid=$(prop agent MainPID qirn-fleet-agent.service)
    exe=$(in_agent readlink "/proc/$new_pid/exe")
    [ "$exe" = /usr/sbin/qirn-fleet-agent ] || fail "/proc/$new_pid/exe is $exe"
    grep -q '^conninfo=' "$agent_root$agent_conf" || fail "the upgrade replaced the agent's configuration"
    in_store qirn-fleet-admin migrate >"$SCRATCH/migrate.log" 2>&1 ||
        { cat "$SCRATCH/migrate.log"; fail "qirn-fleet-admin migrate after the upgrade failed"; }
    append_audit 5 upgraded
    wait_store_complete "after the upgrade" 30
    observed "$version -> $new_version on both hosts; agent pid $old_pid -> $new_pid ($exe);" \
        "migrate ok; $stored_count events, each once"
}

# Files a package made that are left after its purge, among the places named;
# systemd's stamps of our persistent timers are checked apart. PostgreSQL's
# data directory is the database's, which outlives the package: the TLS
# files init put there keep the server working after the purge.
leftovers() {
    in_ct "$1" sh -c 'find /etc/systemd /lib/systemd/system /usr/lib/systemd/system \
        /var/lib/systemd/deb-systemd-helper-enabled /var/lib/systemd/deb-systemd-helper-masked \
        /etc/qirn /etc/default /etc/logrotate.d /etc/tmpfiles.d /usr/lib/tmpfiles.d /usr/share /usr/sbin /usr/bin \
        /var/lib /var/cache -path /var/lib/systemd/timers -prune -o -path /var/lib/postgresql -prune \
        -o -name "*qirn*" -print 2>/dev/null; true'
}
timer_stamps() {
    local stamps
    stamps=$(in_ct "$1" sh -c 'ls /var/lib/systemd/timers 2>/dev/null | grep qirn | paste -sd" "; true')
    echo "${stamps:-none}"
}

check_purge_agent_host() {
    local pid
    pid=$(prop agent MainPID qirn-fleet-agent.service)
    in_agent apt-get purge -y -q qirn-fleet-agent qirn-log-converter >"$SCRATCH/purge-agent.log" 2>&1 ||
        { cat "$SCRATCH/purge-agent.log"; fail "apt-get purge on the agent host failed"; }
    ! in_agent test -e "/proc/$pid" || fail "the agent ($pid) still runs after the purge"
    local left
    left=$(leftovers agent)
    [ -z "$left" ] || fail "left on the agent host after the purge: $left"
    ! in_agent getent passwd qirn-fleet >/dev/null || fail "the user qirn-fleet is left after the purge"
    [ "$(prop agent LoadState qirn-fleet-agent.service)" = not-found ] || fail "the agent's unit is still loaded"
    [ -f "$agent_root$events" ] || fail "the purge removed the event log"
    [ "$(timer_stamps agent)" = none ] || fail "timer stamps left after the purge: $(timer_stamps agent)"
    observed "no unit, no enablement link, no /etc/qirn, no user qirn-fleet, no metrics file," \
        "no timer stamp; event log stays"
}

# The page's block under its heading $1 (the first one after it).
page_section_block() {
    awk -v heading="$1" '
        want == 2 && /^```$/ { exit }
        want == 2 { print; next }
        want == 1 && /^```sh$/ { want = 2; next }
        $0 == heading { want = 1 }' "$page"
}

check_purge_store_host() {
    # As the page removes the store.
    local removal
    removal=$(page_section_block '### Removing the store')
    grep -q '^apt-get purge -y qirn-fleet-store$' <<<"$removal" ||
        fail "the page's removal of the store does not purge qirn-fleet-store: $removal"
    in_store env HOME=/root bash -e -x -c "$removal" </dev/null >"$SCRATCH/purge-store.log" 2>&1 ||
        { cat "$SCRATCH/purge-store.log"; fail "the page's removal of the store failed"; }
    local left
    left=$(leftovers store)
    [ -z "$left" ] || fail "left on the store host after the purge: $left"
    # The events are the operator's: the database outlives the package.
    local kept
    kept=$(store_sql "SELECT count(*) FROM qirn_fleet.events" 2>/dev/null || echo "no database")
    [ "$(timer_stamps store)" = none ] || fail "timer stamps left after the purge: $(timer_stamps store)"
    # The page's promise: PostgreSQL starts again, with the events.
    local started
    started=$(store_sql "SELECT pg_postmaster_start_time()")
    in_store systemctl restart postgresql.service ||
        { in_store journalctl -q -u postgresql@15-main --no-pager | tail -n 20; fail "PostgreSQL does not start again after the store's removal"; }
    local after
    after=$(store_sql "SELECT count(*) FROM qirn_fleet.events" 2>&1) || true
    [ "$after" = "$stored_count" ] ||
        { in_store tail -n 20 /var/log/postgresql/postgresql-15-main.log || true; fail "after PostgreSQL's restart the store answers: $after"; }
    [ "$(store_sql "SELECT pg_postmaster_start_time()")" != "$started" ] ||
        fail "PostgreSQL was not restarted (started $started)"
    observed "no unit, no /etc/qirn, no /usr/share/qirn-fleet-store, no /var/lib/qirn-fleet-store," \
        "no timer stamp; the database qirn_fleet stays with $kept events," \
        "$after after PostgreSQL's restart"
}

# --- Run --------------------------------------------------------------------

run_start=$SECONDS
for current_check in "${CHECKS[@]}"; do
    note "$current_check"
    "$current_check"
done

note "summary (packages $version, $((SECONDS - run_start)) s after boot)"
printf '%s\n' "${RESULTS[@]}"
echo "PASS"
