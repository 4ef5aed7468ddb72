#!/usr/bin/env bash
# The fleet's packages under a real systemd: two minimal Debian 12 systems
# booted in containers (systemd-nspawn --boot), joined by a veth pair between
# two network namespaces of this test's own, with private addresses only.
#   store host  PostgreSQL 15 from Debian + qirn-fleet-store
#   agent host  qirn-log-converter + qirn-fleet-agent
# The checks below run in order against the running systems: enrolment with
# qirn-fleet-admin, events end to end, an agent restart and a store restart
# (no loss, no duplicate), an upgrade of both hosts, a purge of both.
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

host_name=web01
store_name=qlc-fleet-store
store_address=10.231.28.1
agent_address=10.231.28.2
audit=/var/log/qirn_audit.log
events=/var/log/zarvo_container.log
agent_conf=/etc/qirn/qirn-fleet-agent.conf
agent_metrics=/var/lib/prometheus/node-exporter/qirn_fleet_agent.prom
readonly CHECKS=(
    check_installed_not_enabled
    check_admin_init
    check_add_host_and_copy
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

check_installed_not_enabled() {
    cp "$store_deb" "$store_root/root/"
    cp "$service_deb" "$agent_deb" "$agent_root/root/"
    in_store apt-get install -y -q --no-install-recommends "/root/$(basename "$store_deb")" \
        >"$SCRATCH/install-store.log" 2>&1 ||
        { cat "$SCRATCH/install-store.log"; fail "apt-get install of qirn-fleet-store failed"; }
    in_agent apt-get install -y -q --no-install-recommends "/root/$(basename "$service_deb")" \
        "/root/$(basename "$agent_deb")" >"$SCRATCH/install-agent.log" 2>&1 ||
        { cat "$SCRATCH/install-agent.log"; fail "apt-get install of qirn-log-converter and qirn-fleet-agent failed"; }
    local enabled
    enabled=$(in_agent systemctl is-enabled qirn-fleet-agent.service || true)
    [ "$enabled" = disabled ] || fail "after a fresh install qirn-fleet-agent.service is $enabled"
    in_agent getent passwd qirn-fleet >/dev/null || fail "no system user qirn-fleet"
    in_agent id -nG qirn-fleet | grep -qw adm || fail "qirn-fleet is not in group adm"
    in_store test -x /usr/sbin/qirn-fleet-admin || fail "no /usr/sbin/qirn-fleet-admin"
    in_store test -f /usr/share/qirn-fleet-store/prometheus/qirn-fleet.rules.yml ||
        fail "the store's package ships no alert rules"
    observed "store: qirn-fleet-store $(in_store dpkg-query -W -f='${Version}' qirn-fleet-store);" \
        "agent: qirn-fleet-agent $version ($enabled), user qirn-fleet in $(in_agent id -nG qirn-fleet)"
}

check_admin_init() {
    postgres_up() { in_store runuser -u postgres -- psql -X -q -A -t -c 'SELECT 1' >/dev/null 2>&1; }
    wait_for 60 postgres_up || { in_store systemctl status postgresql@15-main --no-pager || true; fail "PostgreSQL is not up"; }
    in_store qirn-fleet-admin init >"$SCRATCH/init.log" 2>&1 ||
        { cat "$SCRATCH/init.log"; fail "qirn-fleet-admin init failed"; }
    # Safe to run again: nothing changes, nothing fails.
    in_store qirn-fleet-admin init >"$SCRATCH/init2.log" 2>&1 ||
        { cat "$SCRATCH/init2.log"; fail "qirn-fleet-admin init failed when run again"; }
    store_sql "SELECT 1 FROM qirn_fleet.events LIMIT 0" >/dev/null || fail "no qirn_fleet.events after init"
    # Debian's PostgreSQL listens on localhost only; opening it to the
    # network is the operator's step, when init has not done it.
    local listen
    listen=$(in_store runuser -u postgres -- psql -X -A -t -c 'SHOW listen_addresses')
    if [ "$listen" = localhost ]; then
        in_store runuser -u postgres -- psql -X -q -c "ALTER SYSTEM SET listen_addresses = '*'"
        in_store systemctl restart postgresql.service
        listen="'*' (set by this test: init left localhost)"
    fi
    wait_for 30 reachable || fail "the agent host cannot reach $store_address:5432"
    observed "init twice; listen_addresses=$listen; status: $(in_store qirn-fleet-admin status 2>&1 | awk 'NR <= 3' | tr -s ' ' | paste -sd';')"
}

check_add_host_and_copy() {
    in_store qirn-fleet-admin add-host "$host_name" --out "/root/$host_name" \
        >"$SCRATCH/add-host.conf" 2>"$SCRATCH/add-host.err" ||
        { cat "$SCRATCH/add-host.err"; fail "qirn-fleet-admin add-host $host_name failed"; }
    grep -q '^conninfo=' "$SCRATCH/add-host.conf" ||
        { cat "$SCRATCH/add-host.conf"; fail "add-host printed no conninfo= line"; }
    # As the operator would: the printed configuration becomes the agent's,
    # each file the connection names is copied to where it names it.
    local conf=$agent_root$agent_conf
    mkdir -p "$(dirname "$conf")"
    grep -E '^([a-z_]+=|#|$)' "$SCRATCH/add-host.conf" >"$conf"
    echo 'heartbeat_seconds=5' >>"$conf"
    in_agent chown root:qirn-fleet "$agent_conf"
    in_agent chmod 0640 "$agent_conf"
    local copied=() key path file
    while IFS='=' read -r key path; do
        file="$store_root/root/$host_name/$(basename "$path")"
        [ -f "$file" ] || file="$store_root/root/$host_name$path"
        [ -f "$file" ] || fail "add-host named $key=$path but wrote no $(basename "$path") in --out"
        mkdir -p "$agent_root$(dirname "$path")"
        cp "$file" "$agent_root$path"
        if [ "$key" = passfile ]; then
            # libpq reads a password file of mode 0600 only: the agent's own.
            in_agent chown qirn-fleet:qirn-fleet "$path"
            in_agent chmod 0600 "$path"
        else
            in_agent chown root:qirn-fleet "$path"
            in_agent chmod 0640 "$path"
        fi
        copied+=("$path")
    done < <(sed -n 's/^conninfo=//p' "$SCRATCH/add-host.conf" | tr ' ' '\n' |
        grep -E '^(sslcert|sslkey|sslrootcert|passfile)=')
    # The credential works from the agent host, as the agent's user, over
    # TLS verified against the fleet's CA.
    local conninfo answer
    conninfo=$(sed -n 's/^conninfo=//p' "$SCRATCH/add-host.conf")
    answer=$(in_agent runuser -u qirn-fleet -- psql -X -q -A -t -v ON_ERROR_STOP=1 "$conninfo" \
        -c "SELECT current_user || ' ' || (SELECT ssl FROM pg_stat_ssl WHERE pid = pg_backend_pid())" \
        -c "SELECT count(*) FROM qirn_fleet.agent_position('events')" 2>&1 | paste -sd' ') ||
        fail "psql with the printed conninfo as qirn-fleet on the agent host: $answer"
    [ "$answer" = "qirn_host_$host_name true 0" ] || fail "the host's own connection answered: $answer"
    observed "add-host $host_name printed $(grep -c . "$SCRATCH/add-host.conf") lines;" \
        "copied ${copied[*]:-nothing}; as qirn-fleet: $answer (role, TLS, positions); conninfo: $conninfo"
}

check_events_flow() {
    : >"$agent_root$audit"
    : >"$SCRATCH/expected"
    in_agent systemctl start qirn-log-converter.service || fail "the service did not start"
    following() { [ "$(monitor_starts)" -gt 0 ]; }
    wait_for 10 following || fail "the service does not follow $audit"
    in_agent systemctl enable --now qirn-fleet-agent.service 2>/dev/null ||
        { in_agent journalctl -u qirn-fleet-agent --no-pager | tail -n 20; fail "the agent did not start"; }
    append_audit 5 flow
    wait_store_complete "first events" 30
    wait_for 15 agent_connected || {
        ls -l "$agent_root$(dirname "$agent_metrics")" || true
        cat "$agent_root$agent_metrics" || true
        in_agent journalctl -q -u qirn-fleet-agent --no-pager | tail -n 20
        fail "the agent's metrics do not say connected"
    }
    # Through node_exporter's textfile collector, as Prometheus sees it.
    wait_for 15 serves agent '^qirn_fleet_agent_connected 1$' ||
        fail "node_exporter does not serve qirn_fleet_agent_connected 1"
    wait_for 15 serves agent '^qirn_fleet_agent_events_stored_total 5$' ||
        fail "node_exporter does not serve qirn_fleet_agent_events_stored_total 5"
    local mtime
    mtime=$(scrape agent | grep -E '^node_textfile_mtime_seconds\{file="[^"]*qirn_fleet_agent\.prom"\}' | tr -d '\r') ||
        fail "node_exporter serves no node_textfile_mtime_seconds for the agent's file"
    observed "5 audit lines -> $stored_count events in qirn_fleet.events;" \
        "agent metrics: connected=$(agent_metric qirn_fleet_agent_connected)" \
        "stored_total=$(agent_metric qirn_fleet_agent_events_stored_total); node_exporter: ${mtime%% *}"
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
    wait_for 20 disconnected || outage="connected=0 not seen during the outage"
    in_store systemctl start postgresql.service
    append_audit 5 store-back
    # The agent's back-off is at most 30 s.
    wait_store_complete "after a store restart" 60
    wait_for 15 agent_connected || fail "the agent does not say connected after the store restart"
    active agent qirn-fleet-agent.service || fail "the agent is not running after the store restart"
    observed "PostgreSQL stopped, 10 lines, started, 5 lines: $stored_count events, each once; $outage;" \
        "errors_total=$(agent_metric qirn_fleet_agent_errors_total), NRestarts=$(prop agent NRestarts qirn-fleet-agent.service)"
}

check_admin_hosts_and_metrics() {
    in_store qirn-fleet-admin hosts >"$SCRATCH/hosts.txt" 2>&1 || { cat "$SCRATCH/hosts.txt"; fail "qirn-fleet-admin hosts failed"; }
    grep -q "$host_name" "$SCRATCH/hosts.txt" || { cat "$SCRATCH/hosts.txt"; fail "hosts does not list $host_name"; }
    # The store's metrics timer, enabled as an operator would, and its run
    # started now rather than within the minute.
    in_store systemctl enable --now qirn-fleet-store-metrics.timer 2>/dev/null ||
        fail "cannot enable qirn-fleet-store-metrics.timer"
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
    # The operator's step: the loop's connection, the host's credential.
    {
        echo "QIRN_FLEET_CONNINFO=\"$(sed -n 's/^conninfo=//p' "$SCRATCH/add-host.conf")\""
        echo "QIRN_FLEET_SETTLE=0"
    } >"$agent_root/etc/default/qirn-fleet-complete"
    in_agent systemctl enable --now qirn-fleet-complete.timer 2>/dev/null || fail "cannot enable the loop's timer"
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
# systemd's stamps of our persistent timers are checked apart.
leftovers() {
    in_ct "$1" sh -c 'find /etc/systemd /lib/systemd/system /usr/lib/systemd/system \
        /var/lib/systemd/deb-systemd-helper-enabled /var/lib/systemd/deb-systemd-helper-masked \
        /etc/qirn /etc/default /etc/logrotate.d /etc/tmpfiles.d /usr/lib/tmpfiles.d /usr/share /usr/sbin /usr/bin \
        /var/lib /var/cache -path /var/lib/systemd/timers -prune -o -name "*qirn*" -print 2>/dev/null; true'
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

check_purge_store_host() {
    in_store apt-get purge -y -q qirn-fleet-store >"$SCRATCH/purge-store.log" 2>&1 ||
        { cat "$SCRATCH/purge-store.log"; fail "apt-get purge on the store host failed"; }
    local left
    left=$(leftovers store)
    [ -z "$left" ] || fail "left on the store host after the purge: $left"
    # The events are the operator's: the database outlives the package.
    local kept
    kept=$(store_sql "SELECT count(*) FROM qirn_fleet.events" 2>/dev/null || echo "no database")
    [ "$(timer_stamps store)" = none ] || fail "timer stamps left after the purge: $(timer_stamps store)"
    observed "no unit, no /etc/qirn, no /usr/share/qirn-fleet-store, no /var/lib/qirn-fleet-store," \
        "no timer stamp;" \
        "the database qirn_fleet stays with $kept events"
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
