"""The fleet's hosts, store and agents on one machine, for the agent's end-to-end
test and for bench/fleet-bench.

Reuses the shipping harness (tests/shipping): network namespaces as hosts
joined by a veth pair, each with private mount and UTS namespaces and its own
/var/log; a throw-away Debian 12 root for the engines; the real
qirn-log-converter on the agent host; the private PostgreSQL 15 of the store
test, here set up by the kit's own `qirn-fleet-admin init` and `add-host`;
PgBouncer from the same root with the kit's example configuration. Agents
run as this machine's processes inside a host's namespaces, each with its own
configuration file, as the package runs them.

Every event carries a sequence number in its path (/data/fNNNNNNN), so what
the store holds is counted per event against what was called for.
"""

import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "shipping"))
import shipping_e2e as base  # noqa: E402
from shipping_e2e import log, run, wait_until  # noqa: E402

SKIP = 77
SOURCE_DIR = base.SOURCE_DIR
BUILD_DIR = base.BUILD_DIR
BINARY = base.BINARY
AGENT = os.environ.get("QLC_AGENT") or next(
    (p for p in (os.path.join(BUILD_DIR, "src", "agent", "qirn-fleet-agent"),
                 os.path.join(BUILD_DIR, "qirn-fleet-agent")) if os.path.exists(p)),
    os.path.join(BUILD_DIR, "src", "agent", "qirn-fleet-agent"))
CONVERT = os.environ.get("QLC_CONVERT", os.path.join(BUILD_DIR, "qirn-log-convert"))
FLEET = os.path.join(SOURCE_DIR, "packaging", "fleet")
ADMIN = os.path.join(FLEET, "qirn-fleet-admin")
LOOP = os.path.join(FLEET, "qirn-fleet-complete")
PGBOUNCER_KIT = os.path.join(FLEET, "pgbouncer")
RELAY = os.path.join(SOURCE_DIR, "tests", "shipping", "delay_relay.py")

PACKAGES = ["iproute2", "openssl", "pgbouncer", "postgresql-15", "postgresql-client-15",
            "prometheus"]
PG_BIN = "/usr/lib/postgresql/15/bin"
PG_PORT = "5433"
PG_SOCKET = "/run/qlc/pgsock"
PG_DATA = "/run/qlc/pgdata"
BOUNCER_PORT = "6432"
# Seen from inside the root on the store host: its spool, private to it.
STORE_LIB = "/var/lib/qirn-fleet-store"
ROOT_ENV = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C", "TZ": base.TZ}

# An event's audit time is BASE_SECONDS plus its sequence number: four days
# back, all in the past (the loop leaves out what is newer than its settle
# time) and inside its seven-day window.
BASE_SECONDS = int(time.time()) - 4 * 86400
base.BASE_SECONDS = BASE_SECONDS

SEQ_SQL = "substring(e.line FROM '/data/f([0-9]{7})')::integer"


def expected_line(seq):
    """The event line the service writes for the event `seq`."""
    e = base.event_of(seq)[1]
    return "%s,container_id=%s,Event=%s,path=%s,status=%s" % (
        e["time"], e["container_id"], e["event"], e["path"], e["status"])


def append(path, data):
    """One append of `data` (bytes), as a writer with O_APPEND does it."""
    fd = os.open(path, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o640)
    try:
        while data:
            data = data[os.write(fd, data):]
    finally:
        os.close(fd)


class StoreDatabase:
    """A private PostgreSQL 15 from the Debian root, in the store host's
    namespaces: data directory and socket in its /run/qlc, its own port."""

    def __init__(self, test):
        self.test = test
        self.host = test.collector
        self.process = None

    def user_ids(self):
        for line in open(os.path.join(self.test.root, "etc", "passwd")):
            fields = line.split(":")
            if fields[0] == "postgres":
                return int(fields[2]), int(fields[3])
        raise RuntimeError("the Debian root has no postgres user")

    def as_postgres(self, args, output):
        return self.host.spawn(["chroot", "--userspec=postgres:postgres", self.test.root] + args,
                               output, env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C",
                                            "TZ": base.TZ})

    def create(self):
        uid, gid = self.user_ids()
        for name in ("pgdata", "pgsock"):
            path = os.path.join(self.host.run, name)
            os.makedirs(path, mode=0o700)
            os.chown(path, uid, gid)
        output = os.path.join(self.host.dir, "initdb.console")
        status = self.as_postgres([PG_BIN + "/initdb", "-D", PG_DATA, "-U", "postgres",
                                   "-A", "trust", "--no-sync"], output).wait(120)
        if status != 0:
            raise RuntimeError("initdb failed: " + open(output).read()[-2000:])
        with open(os.path.join(self.host.run, "pgdata", "postgresql.auto.conf"), "a") as f:
            f.write("listen_addresses = '%s'\nport = %s\nunix_socket_directories = '%s'\n"
                    "logging_collector = off\nmax_connections = 20\n"
                    "shared_buffers = 64MB\n" % (self.host.address, PG_PORT, PG_SOCKET))
        # The socket is for the collector's own programs; the network only
        # with a password (the completeness loop's host role).
        with open(os.path.join(self.host.run, "pgdata", "pg_hba.conf"), "w") as f:
            subnet = self.host.address.rsplit(".", 1)[0] + ".0/24"
            f.write("local all all trust\n"
                    "host qirn_fleet all %s scram-sha-256\n" % subnet)

    def start(self):
        self.process = self.as_postgres([PG_BIN + "/postgres", "-D", PG_DATA],
                                        os.path.join(self.host.dir, "postgres.console"))
        if not wait_until(lambda: self.process.poll() is not None or
                          self.test.psql("SELECT 1", database="postgres", check=False) == "1",
                          60, 0.2) or self.process.poll() is not None:
            raise RuntimeError("PostgreSQL did not start")

    def stop(self, signum=signal.SIGINT):
        """SIGINT: PostgreSQL's fast shutdown (what pg_ctl stop does)."""
        if self.process and self.process.poll() is None:
            self.process.send_signal(signum)
            self.process.wait(60)
        self.process = None


class Database(StoreDatabase):
    """The private PostgreSQL of the store test, sized for a crowd of agents
    behind PgBouncer, with commit times kept (latency is measured to the
    COMMIT)."""

    def create(self):
        super().create()
        with open(os.path.join(self.host.run, "pgdata", "postgresql.auto.conf"), "a") as f:
            f.write("max_connections = 60\ntrack_commit_timestamp = on\n"
                    "listen_addresses = '%s'\n" % self.host.address)


class Agent:
    """One qirn-fleet-agent with its own configuration file, in a host's
    namespaces."""

    def __init__(self, test, host, name, conninfo, **settings):
        self.test = test
        self.host = host
        self.name = name
        self.process = None
        self.config = os.path.join(host.dir, "agent-%s.conf" % name)
        self.output = os.path.join(host.dir, "agent-%s.console" % name)
        self.textfile = os.path.join(host.dir, "textfile-%s" % name)
        os.makedirs(self.textfile, exist_ok=True)
        self.settings = {"conninfo": conninfo, "event_log": "/var/log/zarvo_container.log",
                         "backfill_log": "/var/log/zarvo_container.backfill.log",
                         "heartbeat_seconds": "2", "textfile_dir": self.textfile,
                         "lock_file": os.path.join(host.dir, "agent-%s.lock" % name)}
        self.settings.update({k: str(v) for k, v in settings.items()})
        self.write_config()

    def write_config(self):
        with open(self.config, "w") as f:
            f.write("# written by the fleet test\n")
            for key, value in self.settings.items():
                f.write("%s=%s\n" % (key, value))

    def start(self, hostname=None):
        """`hostname`: as another machine would run it (a UTS namespace of
        its own with that name), the same files and credential."""
        command = ["env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "TZ=" + base.TZ,
                   "LC_ALL=C", AGENT, "--config", self.config]
        if hostname:
            command = ["unshare", "--uts", "sh", "-c", 'hostname "$0" && exec "$@"',
                       hostname] + command
        before = os.path.getsize(self.output) if os.path.exists(self.output) else 0
        self.process = self.host.spawn(command, self.output)
        # Up when it has said what it ships (or ended): a signal sent before
        # would meet a program that has not yet set up its handling.
        wait_until(lambda: self.process.poll() is not None or
                   os.path.getsize(self.output) > before, 10, 0.02)
        return self

    def running(self):
        return self.process is not None and self.process.poll() is None

    def stop(self, signum=signal.SIGTERM, timeout=30):
        """Returns the exit status (negative: the signal that ended it)."""
        if self.process is None:
            return None
        if self.process.poll() is None:
            self.process.send_signal(signum)
        try:
            status = self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            status = self.process.wait()
            self.test.failures.append("agent %s did not end %d s after signal %d" %
                                      (self.name, timeout, signum))
        self.process = None
        return status

    def said(self):
        try:
            return open(self.output, errors="replace").read()
        except OSError:
            return ""

    def metrics(self):
        try:
            return open(os.path.join(self.textfile, "qirn_fleet_agent.prom")).read()
        except OSError:
            return ""


class FleetTest(base.ShippingTest):
    """Two hosts: "agent" (the service, the agent, the loop) and "collector"
    (the store: PostgreSQL and PgBouncer)."""

    def __init__(self, short, subnet):
        self.engine_name = "fleet"
        self.engine = {"packages": PACKAGES, "short": short, "subnet": subnet,
                       "spool": STORE_LIB}
        self.short = short
        self.recommended = True
        self.processes = []
        self.netns = []
        self.next_seq = 1
        self.results = []
        self.failures = []
        self.figures = {}
        self.agents = []
        self.credentials = {}

    # --- Root, network, store ---------------------------------------------

    def prepare_root(self):
        root = os.environ.get("QLC_FLEET_ROOT") or os.path.join(BUILD_DIR, "shipping-roots",
                                                                 "fleet")
        os.makedirs(os.path.dirname(root), exist_ok=True)
        started = time.monotonic()
        result = run([os.path.join(SOURCE_DIR, "tests", "support", "debian-root"), root] +
                     PACKAGES, check=False)
        if result.returncode != 0:
            raise RuntimeError("could not build the Debian root: " + result.stdout[-3000:])
        self.root = root
        for path in ("run/qlc", STORE_LIB.lstrip("/")):
            os.makedirs(os.path.join(root, path), exist_ok=True)
        log("-- Debian 12 root with %s ready in %.0f s" % (" ".join(PACKAGES),
                                                           time.monotonic() - started))

    def setup(self):
        self.prepare_root()
        self.scratch = tempfile.mkdtemp(prefix="qlc-fleet-%s." % self.short)
        os.chmod(self.scratch, 0o755)
        self.make_network()
        self.store = self.collector
        # The store's spool is its /var/lib/qirn-fleet-store: the CA lives
        # there, PostgreSQL and PgBouncer read its server key.
        uid, gid = self.postgres_ids()
        os.chown(self.store.spool, uid, gid)
        self.database = Database(self)
        self.database.create()
        self.database.start()
        self.admin("init")
        log("-- private PostgreSQL 15 on %s:%s, set up by qirn-fleet-admin init" %
            (self.store.address, PG_PORT))

    def postgres_ids(self):
        for line in open(os.path.join(self.root, "etc", "passwd")):
            fields = line.split(":")
            if fields[0] == "postgres":
                return int(fields[2]), int(fields[3])
        raise RuntimeError("the Debian root has no postgres user")

    def admin(self, *args, check=True):
        """qirn-fleet-admin on the store host, as root in the root, pointed
        at the private instance by its configuration file."""
        conf = os.path.join(self.store.run, "qirn-fleet-store.conf")
        if not os.path.exists(conf):
            with open(conf, "w") as f:
                f.write("# the test's private instance\npghost=%s\npgport=%s\n"
                        "sql_dir=/run/qlc/store\nstore_host=%s\nstore_port=%s\n" %
                        (PG_SOCKET, PG_PORT, self.store.address, PG_PORT))
            shutil.copy(ADMIN, os.path.join(self.store.run, "qirn-fleet-admin"))
            shutil.copytree(os.path.join(FLEET, "store"), os.path.join(self.store.run, "store"))
        output = os.path.join(self.store.dir, "admin.console")
        start = os.path.getsize(output) if os.path.exists(output) else 0
        status = self.store.in_root(
            ["/bin/bash", "/run/qlc/qirn-fleet-admin"] + list(args), output,
            {"QIRN_FLEET_STORE_CONF": "/run/qlc/qirn-fleet-store.conf"}).wait(300)
        said = open(output, errors="replace").read()[start:]
        if check and status != 0:
            raise RuntimeError("qirn-fleet-admin %s failed (%d): %s" %
                               (" ".join(args), status, said[-3000:]))
        return status, said

    def add_host(self, name, password=False):
        """Enrols host `name`; returns its credential files' folder as seen
        from this machine (the agent's side) and the printed configuration."""
        out_in_root = "/run/qlc/hosts/%s" % name
        os.makedirs(os.path.join(self.store.run, "hosts"), exist_ok=True)
        args = ["add-host", name, "--out", out_in_root]
        if password:
            args.insert(2, "--password")
        status, said = self.admin(*args)
        folder = os.path.join(self.store.run, "hosts", name)
        self.credentials[name] = {"dir": folder, "said": said, "password": password}
        # The same files for programs in the root on the agent host (psql,
        # the loop): its /run/qlc/store-files.
        files = os.path.join(self.agent.run, "store-files", "hosts", name)
        shutil.copytree(folder, files)
        # libpq ignores a password file that its group may read: as the
        # operator installs it, for the one user that reads it.
        for where in (folder, files):
            for entry in os.listdir(where):
                if entry.endswith(".pgpass"):
                    os.chmod(os.path.join(where, entry), 0o600)
        return folder, said

    def conninfo(self, name, port=PG_PORT, inside=False):
        """The libpq connection string of host `name` as add-host printed
        it, its files where add-host wrote them: as this machine sees them,
        or (`inside`) as a program in the root on the agent host does."""
        folder = self.credentials[name]["dir"]
        conf = open(os.path.join(folder, "qirn-fleet-agent.conf")).read()
        conninfo = re.search(r"(?m)^conninfo=(.*)$", conf).group(1)
        if inside:
            folder = "/run/qlc/store-files/hosts/%s" % name
        conninfo = conninfo.replace("/etc/qirn/", folder + "/")
        conninfo = re.sub(r"\bport=\d+", "port=%s" % port, conninfo)
        return conninfo + " connect_timeout=5"

    # --- The database, as its superuser or a role ------------------------

    def psql(self, query, user="postgres", database="qirn_fleet", check=True, conninfo=None,
             host=None):
        """psql from the root: as the superuser over the store's socket, or
        with a host's connection string from `host`'s namespaces."""
        host = host or self.store
        target = conninfo or "host=%s port=%s dbname=%s user=%s" % (PG_SOCKET, PG_PORT,
                                                                     database, user)
        command = ["nsenter", "--target", str(host.holder.pid), "--mount", "--uts", "--net",
                   "--", "chroot", self.root, "psql", "-X", "-q", "-A", "-t", "-F", "\x1f",
                   "-v", "ON_ERROR_STOP=1", "-d", target, "-c", query]
        result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                text=True, errors="replace", env=ROOT_ENV)
        if result.returncode != 0:
            if check:
                raise RuntimeError("psql failed: %s\n%s" % (query[:300], result.stderr))
            return ("ERROR", result.stderr.strip())
        return result.stdout.strip()

    def rows_of_range(self, first, last):
        """(seq, host name, line) of every stored event of the range, of
        any host."""
        out = self.psql("SELECT %s, h.name, e.line FROM qirn_fleet.events e JOIN "
                        "qirn_fleet.hosts h ON h.id = e.host_id WHERE e.line ~ '/data/f[0-9]{7}'"
                        " AND %s BETWEEN %d AND %d" % (SEQ_SQL, SEQ_SQL, first, last))
        rows = []
        for line in out.splitlines() if out else []:
            seq, host, text = line.split("\x1f", 2)
            rows.append((int(seq), host, text))
        return rows

    def count_range(self, first, last, host="agent"):
        out = self.psql("SELECT count(*) FROM qirn_fleet.events e JOIN qirn_fleet.hosts h ON "
                        "h.id = e.host_id WHERE h.name = '%s' AND e.line ~ '/data/f[0-9]{7}' "
                        "AND %s BETWEEN %d AND %d" % (host, SEQ_SQL, first, last), check=False)
        return int(out) if isinstance(out, str) and out.isdigit() else -1

    def count_host(self, host):
        out = self.psql("SELECT count(*) FROM qirn_fleet.events e JOIN qirn_fleet.hosts h ON "
                        "h.id = e.host_id WHERE h.name = '%s'" % host, check=False)
        return int(out) if isinstance(out, str) and out.isdigit() else -1

    def wait_quiet(self, count, wanted, quiet=8, timeout=600):
        """Polls `count()` until it reaches `wanted` or stays the same for
        `quiet` seconds; returns the last count."""
        progress = [time.monotonic(), -1]

        def done():
            have = count()
            if have != progress[1]:
                progress[:] = [time.monotonic(), have]
            return have >= wanted or time.monotonic() - progress[0] > quiet
        wait_until(done, timeout, 0.3)
        return max(progress[1], 0)

    def server_connections(self):
        """Backends of host roles: what PgBouncer holds open to the store."""
        out = self.psql("SELECT count(*) FROM pg_stat_activity WHERE usename LIKE 'qirn_host_%'",
                        check=False)
        return int(out) if isinstance(out, str) and out.isdigit() else -1

    # --- PgBouncer ----------------------------------------------------------

    def start_pgbouncer(self, **overrides):
        """The kit's example, its paths pointed at the private instance and
        the store host's spool; `overrides` replace settings by name."""
        text = open(os.path.join(PGBOUNCER_KIT, "qirn-fleet-pgbouncer.ini")).read()
        text = text.replace("/etc/pgbouncer/", "/run/qlc/pgbouncer/")
        text = text.replace("/var/run/postgresql", PG_SOCKET)
        text = re.sub(r"(?m)^(\s*qirn_fleet\s*=.*\bport=)\d+", r"\g<1>%s" % PG_PORT, text)
        text = re.sub(r"(?m)^logfile\s*=.*$", "", text)
        text = re.sub(r"(?m)^pidfile\s*=.*$", "pidfile = /run/qlc/pgbouncer/pgbouncer.pid", text)
        text = re.sub(r"(?m)^unix_socket_dir\s*=.*$", "unix_socket_dir = /run/qlc/pgbouncer",
                      text)
        for name, value in overrides.items():
            text, n = re.subn(r"(?m)^%s\s*=.*$" % name, "%s = %s" % (name, value), text)
            if not n:
                text = text.replace("[pgbouncer]\n", "[pgbouncer]\n%s = %s\n" % (name, value))
        folder = os.path.join(self.store.run, "pgbouncer")
        os.makedirs(folder, exist_ok=True)
        uid, gid = self.postgres_ids()
        os.chown(folder, uid, gid)
        with open(os.path.join(folder, "qirn-fleet-pgbouncer.ini"), "w") as f:
            f.write(text)
        for name in ("qirn-fleet-pgbouncer.hba", "qirn-fleet-userlist.txt"):
            shutil.copy(os.path.join(PGBOUNCER_KIT, name), folder)
        self.bound = int(re.search(r"(?m)^max_db_connections\s*=\s*(\d+)", text).group(1))
        self.pgbouncer = self.store.spawn(
            ["chroot", "--userspec=postgres:postgres", self.root, "/usr/sbin/pgbouncer",
             "/run/qlc/pgbouncer/qirn-fleet-pgbouncer.ini"],
            os.path.join(self.store.dir, "pgbouncer.console"), env=ROOT_ENV)
        if not wait_until(lambda: self.pgbouncer.poll() is not None or os.path.exists(
                os.path.join(folder, ".s.PGSQL.%s" % BOUNCER_PORT)), 30) or \
                self.pgbouncer.poll() is not None:
            raise RuntimeError("PgBouncer did not start: " + open(os.path.join(
                self.store.dir, "pgbouncer.console"), errors="replace").read()[-2000:])
        log("-- PgBouncer (the kit's example) on %s:%s, at most %d server connections" %
            (self.store.address, BOUNCER_PORT, self.bound))

    def pools(self):
        """SHOW POOLS on PgBouncer's console: server connections (active,
        idle, used, tested, login) summed over the host pools."""
        command = ["nsenter", "--target", str(self.store.holder.pid), "--mount", "--uts",
                   "--net", "--", "chroot", "--userspec=postgres:postgres", self.root, "psql",
                   "-X", "-q", "-A", "-F", "\x1f", "-d",
                   "host=/run/qlc/pgbouncer port=%s dbname=pgbouncer user=postgres" %
                   BOUNCER_PORT, "-c", "SHOW POOLS"]
        result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                text=True, errors="replace", env=ROOT_ENV)
        if result.returncode != 0:
            return -1
        lines = result.stdout.strip().splitlines()
        if not lines:
            return -1
        header = lines[0].split("\x1f")
        total = 0
        for line in lines[1:]:
            row = dict(zip(header, line.split("\x1f")))
            if row.get("database") != "qirn_fleet":
                continue
            for key in ("sv_active", "sv_idle", "sv_used", "sv_tested", "sv_login"):
                total += int(row.get(key, 0) or 0)
        return total

    # --- Agents and the service ---------------------------------------------

    def agent_on(self, host, name, conninfo, **settings):
        agent = Agent(self, host, name, conninfo, **settings)
        self.agents.append(agent)
        return agent

    def run_loop(self, name="agent", expect_success=True):
        """The completeness loop of the agent host, with the host's role."""
        run_dir = self.agent.run
        if not os.path.exists(os.path.join(run_dir, "qirn-fleet-complete")):
            shutil.copy(CONVERT, os.path.join(run_dir, "qirn-log-convert"))
            shutil.copy(LOOP, os.path.join(run_dir, "qirn-fleet-complete"))
            for sub in ("loop-textfile", "loop-state"):
                os.makedirs(os.path.join(run_dir, sub), exist_ok=True)
        # The credential as the loop's chroot sees it.
        conninfo = self.conninfo(name, inside=True)
        output = os.path.join(self.agent.dir, "loop.console")
        start = os.path.getsize(output) if os.path.exists(output) else 0
        status = self.agent.in_root(["/bin/sh", "/run/qlc/qirn-fleet-complete"], output, {
            "QIRN_FLEET_CONNINFO": conninfo,
            "QIRN_FLEET_CONVERT": "/run/qlc/qirn-log-convert",
            "QIRN_FLEET_STATE_DIR": "/run/qlc/loop-state",
            "QIRN_FLEET_TEXTFILE_DIR": "/run/qlc/loop-textfile"}).wait(300)
        said = open(output, errors="replace").read()[start:].strip()
        log("   loop: %s (exit %d)" % (said[-400:], status))
        if expect_success and status != 0:
            raise RuntimeError("the completeness loop failed: " + said[-2000:])
        return status, said

    def write_events(self, path, first, count):
        """Event lines as the service writes them, straight into `path`
        (a file of a host's /var/log, seen from this machine)."""
        data = "".join(expected_line(seq) + "\n" for seq in range(first, first + count))
        append(path, data.encode())

    def cleanup(self):
        for agent in self.agents:
            if agent.running():
                agent.process.kill()
        if getattr(self, "database", None):
            try:
                self.database.stop()
            except Exception:  # noqa: BLE001 - cleanup goes on
                pass
        super().cleanup()

    def dump(self):
        for host in (getattr(self, "agent", None), getattr(self, "collector", None)):
            if host is None:
                continue
            for name in sorted(os.listdir(host.dir)):
                if name.endswith(".console"):
                    text = open(os.path.join(host.dir, name), errors="replace").read()
                    log("--- %s/%s (last lines)\n%s" % (host.name, name, text[-2500:]))


def preflight(need):
    """77 when the machine cannot run the test, 1 when a program or a file
    of the kit is missing, None when all is there."""
    status = base.preflight(need)
    if status is not None:
        return status
    for path in (ADMIN, os.path.join(PGBOUNCER_KIT, "qirn-fleet-pgbouncer.ini")):
        if not os.path.exists(path):
            log("FAIL: the kit has no " + path)
            return 1
    return None
