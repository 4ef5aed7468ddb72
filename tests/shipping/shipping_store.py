#!/usr/bin/env python3
"""The fleet's event store end to end: real engines, a real database, faults.

The two-namespace harness of shipping_e2e.py (agent and collector, the real
qirn-log-converter on the agent, rsyslog from a throw-away Debian 12 root),
with the store mode of the kit: on the collector a private PostgreSQL 15 from
the same root (its own data directory, port and socket, inside the
collector's namespaces), set up with the kit's SQL, and rsyslog's imrelp
handing every line to qirn-fleet-loader through omprog; on the agent the
forwarder and the completeness loop (packaging/fleet/qirn-fleet-complete),
which reads the store with the host's own role.

First the loader alone, fed as omprog feeds it: its answers, what reaches
the store, a database restart under the running loader, the year rule.
Then every case counts, by the sequence number in each event's path: the events
the audit log called for, those stored before the loop, and those stored
after one run of the loop. After the loop every one must be stored exactly
once, with the right fields and the agent's address as its host, and nothing
else may be stored in the case's range, or the test fails. Then the
throughput of a 20,000-event burst, direct and through a relay that delays
each direction by 25 ms, the database's own insert rate, the security checks
of the roles, and the loop's metrics file checked by promtool.

    shipping_store.py

Exit 0 when all holds, 1 when not, 77 when the machine cannot run it.
QLC_SHIPPING_ONLY=TEXT[,TEXT...] runs only the cases whose name holds one
of them ("throughput" for the throughput); QLC_KEEP_SCRATCH=1 keeps the
hosts' directories. For the comparison of collector paths,
QLC_STORE_COLLECTOR_CONF names another collector configuration (compare/)
and QLC_OMPGSQL the ompgsql module taken from Debian's rsyslog-pgsql.
"""

import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import shipping_e2e as base  # noqa: E402
from shipping_e2e import log, run, wait_until  # noqa: E402

SKIP = 77
KIT = base.KIT
BUILD_DIR = base.BUILD_DIR
LOADER = os.environ.get("QLC_LOADER", os.path.join(BUILD_DIR, "qirn-fleet-loader"))
CONVERT = os.environ.get("QLC_CONVERT", os.path.join(BUILD_DIR, "qirn-log-convert"))
LOOP = os.path.join(base.SOURCE_DIR, "packaging", "fleet", "qirn-fleet-complete")
RELAY = os.path.join(os.path.dirname(os.path.abspath(__file__)), "delay_relay.py")

PG_BIN = "/usr/lib/postgresql/15/bin"
PG_PORT = "5433"
PG_SOCKET = "/run/qlc/pgsock"
PG_DATA = "/run/qlc/pgdata"
AGENT_PASSWORD = "agent-secret-for-this-test"
# The forwarder's queue is made small for the test, so that one case can
# fill it past its size with a few pieces.
TEST_QUEUE = {"queue.size": "10000", "queue.highWatermark": "8000",
              "queue.lowWatermark": "2000"}
# Nothing new stored for this long: what is missing stays missing.
QUIET = 8
BURST = 20000
RELAY_DELAY_MS = 25
RELAY_PORT = "2600"
WANTED_RATE = 5000


class StoreRsyslog(base.Rsyslog):
    """rsyslog with the kit's store-mode configurations."""

    target = None  # (address, port) of the forwarder's collector

    def install(self):
        if self.role == "collector":
            conf = open(os.environ.get("QLC_STORE_COLLECTOR_CONF") or
                        os.path.join(KIT, "rsyslog", "qirn-collector-store.conf")).read()
            conf = conf.replace(
                "/usr/libexec/qirn-log-converter/qirn-fleet-loader dbname=qirn_fleet "
                "user=qirn_collector",
                "/run/qlc/qirn-fleet-loader host=%s port=%s dbname=qirn_fleet "
                "user=qirn_collector" % (PG_SOCKET, PG_PORT))
        else:
            conf = open(os.path.join(KIT, "rsyslog", "qirn-forwarder.conf")).read()
            address, port = self.target or (self.test.collector.address, "2514")
            conf = conf.replace('target="collector.example.org" port="2514"',
                                'target="%s" port="%s"' % (address, port))
            for name, value in TEST_QUEUE.items():
                conf = re.sub(r'%s="\d+"' % re.escape(name), '%s="%s"' % (name, value), conf)
        with open(os.path.join(self.host.run, "qirn-%s.conf" % self.role), "w") as f:
            f.write(conf)
        with open(os.path.join(self.host.run, "rsyslog.conf"), "w") as f:
            f.write('global(workDirectory="/var/spool/rsyslog" net.enableDNS="off")\n'
                    'include(file="/run/qlc/qirn-%s.conf")\n' % self.role)


class Database:
    """A private PostgreSQL 15 from the Debian root, in the collector's
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


class StoreTest(base.ShippingTest):
    def __init__(self):
        super().__init__("rsyslog", True)
        self.engine = dict(base.ENGINES["rsyslog"], subnet="10.231.18", short="st")
        self.short = "st"
        self.results = []
        self.failures = []
        self.figures = {}

    # --- The database, as its superuser or a role ------------------------

    def psql(self, query, user="postgres", database="qirn_fleet", check=True, network=False,
             password=None, host=None):
        host = host or self.collector
        env = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C", "TZ": base.TZ}
        if password:
            env["PGPASSWORD"] = password
        server = self.collector.address if network else PG_SOCKET
        command = ["nsenter", "--target", str(host.holder.pid), "--mount", "--uts", "--net",
                   "--", "chroot", self.root, "psql", "-X", "-q", "-A", "-t", "-F", "\x1f",
                   "-v", "ON_ERROR_STOP=1", "-h", server, "-p", PG_PORT, "-U", user,
                   "-d", database, "-c", query]
        result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                text=True, errors="replace", env=env)
        if result.returncode != 0:
            if check:
                raise RuntimeError("psql failed: %s\n%s" % (query[:200], result.stderr))
            return ("ERROR", result.stderr.strip())
        return result.stdout.strip()

    def stored_count(self, first, last):
        """Distinct events of the range stored for the agent (a cheap poll)."""
        out = self.psql("SELECT count(*) FROM qirn_fleet.events WHERE host = '%s' AND "
                        "substring(path FROM '^/data/f([0-9]{7})')::integer BETWEEN %d AND %d" %
                        (self.agent.address, first, last), check=False)
        return int(out) if isinstance(out, str) and out.isdigit() else -1

    def stored_rows(self, first, last):
        """Every stored row of the range, of any host: (seq, host, fields)."""
        out = self.psql("SELECT host, time_written, container_id, event, path, status "
                        "FROM qirn_fleet.events WHERE "
                        "substring(path FROM '^/data/f([0-9]{7})')::integer BETWEEN %d AND %d" %
                        (first, last))
        rows = []
        for line in out.splitlines() if out else []:
            host, time_written, container, event, path, status = line.split("\x1f")
            seq = int(base.SEQ_IN_PATH.match(path).group(1))
            rows.append((seq, host, {"time": time_written, "container_id": container,
                                     "event": event, "path": path, "status": status}))
        return rows

    def wait_stored(self, first, last):
        wanted = last - first + 1
        progress = [time.monotonic(), -1]

        def done():
            have = self.stored_count(first, last)
            if have != progress[1]:
                progress[:] = [time.monotonic(), have]
            return have == wanted or time.monotonic() - progress[0] > QUIET
        wait_until(done, 600, 0.3)
        return max(progress[1], 0)

    def selected(self, name):
        """QLC_SHIPPING_ONLY: comma-separated parts of the names to run."""
        only = os.environ.get("QLC_SHIPPING_ONLY")
        return not only or any(part in name for part in only.split(","))

    # --- Set-up -----------------------------------------------------------

    def setup_store(self):
        self.database = Database(self)
        self.database.create()
        self.database.start()
        sql = os.path.join(self.collector.run, "sql")
        shutil.copytree(os.path.join(KIT, "postgresql"), sql)
        output = os.path.join(self.collector.dir, "setup.console")
        env = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C"}
        psql = ["psql", "-X", "-h", PG_SOCKET, "-p", PG_PORT, "-U", "postgres"]
        # The kit's one command, then a host for the agent and one for a
        # second host whose rows the agent must not see.
        steps = [psql + ["-v", "ON_ERROR_STOP=1", "-f", "/run/qlc/sql/qirn-fleet-setup.sql"],
                 psql + ["-d", "qirn_fleet", "-v", "ON_ERROR_STOP=1", "-v", "host=agent", "-v",
                         "sender=" + self.agent.address, "-f",
                         "/run/qlc/sql/qirn-fleet-add-host.sql"],
                 psql + ["-d", "qirn_fleet", "-v", "ON_ERROR_STOP=1", "-v", "host=other", "-v",
                         "sender=" + OTHER_SENDER, "-f", "/run/qlc/sql/qirn-fleet-add-host.sql"]]
        for step in steps:
            status = self.collector.in_root(step, output, env).wait(120)
            if status != 0:
                raise RuntimeError("the kit's SQL failed: " + open(output).read()[-3000:])
        self.psql("ALTER ROLE qirn_host_agent PASSWORD '%s'" % AGENT_PASSWORD)
        self.psql("ALTER ROLE qirn_host_other PASSWORD 'other-secret'")

        shutil.copy(LOADER, os.path.join(self.collector.run, "qirn-fleet-loader"))
        if os.environ.get("QLC_OMPGSQL"):
            # For the comparison with Debian's ompgsql (compare/).
            shutil.copy(os.environ["QLC_OMPGSQL"], os.path.join(self.collector.run,
                                                                "ompgsql.so"))
        log("-- private PostgreSQL 15 on %s:%s, the kit's schema and roles applied" %
            (self.collector.address, PG_PORT))

    def setup_loop(self):
        run_dir = self.agent.run
        shutil.copy(CONVERT, os.path.join(run_dir, "qirn-log-convert"))
        shutil.copy(LOOP, os.path.join(run_dir, "qirn-fleet-complete"))
        # The host's credential: a password file readable by root only.
        pgpass = os.path.join(run_dir, "agent.pgpass")
        with open(pgpass, "w") as f:
            f.write("%s:%s:qirn_fleet:qirn_host_agent:%s\n" %
                    (self.collector.address, PG_PORT, AGENT_PASSWORD))
        os.chmod(pgpass, 0o600)
        for name in ("textfile", "loop-state"):
            os.makedirs(os.path.join(run_dir, name))
        self.loop_runs = 0

    def run_loop(self, expect_success=True):
        self.loop_runs += 1
        output = os.path.join(self.agent.dir, "loop.console")
        env = {
            "QIRN_FLEET_CONNINFO": "host=%s port=%s dbname=qirn_fleet user=qirn_host_agent "
                                   "passfile=/run/qlc/agent.pgpass connect_timeout=5" %
                                   (self.collector.address, PG_PORT),
            "QIRN_FLEET_CONVERT": "/run/qlc/qirn-log-convert",
            "QIRN_FLEET_STATE_DIR": "/run/qlc/loop-state",
            "QIRN_FLEET_TEXTFILE_DIR": "/run/qlc/textfile",
        }
        start = os.path.getsize(output) if os.path.exists(output) else 0
        status = self.agent.in_root(["/bin/sh", "/run/qlc/qirn-fleet-complete"], output,
                                    env).wait(300)
        said = open(output, errors="replace").read()[start:].strip()
        log("   loop: %s (exit %d)" % (said, status))
        if expect_success and status != 0:
            raise RuntimeError("the completeness loop failed: " + said)
        return status, said

    # --- The loader on its own ----------------------------------------------

    def loader_protocol(self):
        """The loader fed by this test as omprog would feed it: answers,
        what reaches the store, and a database restart under a running
        loader."""
        if not self.selected("loader"):
            return
        log("== store: the loader's protocol")
        command = ["nsenter", "--target", str(self.collector.holder.pid), "--mount", "--uts",
                   "--net", "--", "chroot", self.root, "/run/qlc/qirn-fleet-loader",
                   "host=%s" % PG_SOCKET, "port=%s" % PG_PORT, "dbname=qirn_fleet",
                   "user=qirn_collector"]
        loader = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL, text=True, bufsize=1)
        self.processes.append(loader)
        sender = "192.0.2.50"
        event = ("Nov 16 10:00:00,container_id=pod a,b=c:d,Event=filectl,"
                 "path=/loader/f,x y=1:2,status=permissive,status=enforcing")
        other = "Nov 16 10:00:01,container_id=c,Event=netctl,path=/loader/g,status=permissive"

        def say(line):
            loader.stdin.write(line + "\n")
            loader.stdin.flush()
            return loader.stdout.readline().rstrip("\n")

        answers = [loader.stdout.readline().rstrip("\n")]
        answers += [say("%s %s" % (sender, event)), say("%s %s" % (sender, event))]
        answers += [say("BEGIN TRANSACTION"), say("%s %s" % (sender, other)),
                    say("%s %s" % (sender, event)), say("%s no event line" % sender),
                    say("COMMIT TRANSACTION")]
        wanted = ["OK", "OK", "OK", "OK", "DEFER_COMMIT", "DEFER_COMMIT", "DEFER_COMMIT", "OK"]
        rows = self.psql("SELECT container_id || '|' || path || '|' || status FROM "
                         "qirn_fleet.events WHERE host = '%s' ORDER BY path" % sender)
        unparsed = self.psql("SELECT count(*) FROM qirn_fleet.unparsed WHERE host = '%s'" %
                             sender)
        self.check("the loader's answers", answers, wanted)
        self.check("an event line stored once, fields by anchors", rows,
                   "pod a,b=c:d|/loader/f,x y=1:2,status=permissive|enforcing\n"
                   "c|/loader/g|permissive")
        self.check("a line that is no event line stored as unparsed", unparsed, "1")
        # The database away under the running loader: a refusal (rsyslog
        # keeps the line), then, once it is back, the same loader stores.
        self.database.stop()
        refused = [say("%s %s" % (sender, other.replace("/g", "/h"))),
                   say("BEGIN TRANSACTION"), say("%s %s" % (sender, other.replace("/g", "/i"))),
                   say("COMMIT TRANSACTION")]
        self.database.start()
        again = [say("%s %s" % (sender, other.replace("/g", "/h"))),
                 say("BEGIN TRANSACTION"), say("%s %s" % (sender, other.replace("/g", "/i"))),
                 say("COMMIT TRANSACTION")]
        self.check("refused while the database is away",
                   [refused[0][:6], refused[1], refused[2], refused[3][:6]],
                   ["Error:", "OK", "DEFER_COMMIT", "Error:"])
        self.check("stored by the same loader once it is back", again,
                   ["OK", "OK", "DEFER_COMMIT", "OK"])
        self.check("nothing of the refused batch stored twice",
                   self.psql("SELECT count(*) FROM qirn_fleet.events WHERE host = '%s'" % sender),
                   "4")
        loader.stdin.close()
        loader.wait(30)
        # The year: the one nearest to the moment the store first sees the
        # line, across New Year both ways, 29 February in a leap year.
        years = self.psql("SELECT qirn_fleet.event_time('Dec 31 23:59:59', "
                          "'2027-01-02 00:10:00+00') || '|' || "
                          "qirn_fleet.event_time('Jan 01 00:00:01', '2026-12-31 23:00:00+00') "
                          "|| '|' || qirn_fleet.event_time('Feb 29 10:00:00', "
                          "'2027-03-01 00:00:00+00') || '|' || "
                          "coalesce(qirn_fleet.event_time('Nov 31 10:00:00', now())::text, "
                          "'none')")
        self.check("the year nearest to the first sight", years,
                   "2026-12-31 23:59:59|2027-01-01 00:00:01|2028-02-29 10:00:00|none")
        self.psql("DELETE FROM qirn_fleet.events WHERE host = '%s'; DELETE FROM "
                  "qirn_fleet.unparsed WHERE host = '%s'" % (sender, sender))

    def check(self, name, got, wanted):
        ok = got == wanted
        log("   %s %s" % ("ok  " if ok else "FAIL", name))
        if not ok:
            self.failures.append("%s: got %r, wanted %r" % (name, got, wanted))

    # --- Cases ------------------------------------------------------------

    def case(self, name, body, causes=None):
        if not self.selected(name):
            return
        first = self.next_seq
        started = time.monotonic()
        log("== store: %s" % name)
        body()
        last = self.next_seq - 1
        called = last - first + 1
        before = self.wait_stored(first, last)
        self.run_loop()
        self.wait_stored(first, last)
        rows = self.stored_rows(first, last)
        copies = {}
        wrong = []
        for seq, host, fields in rows:
            expected = dict(base.event_of(seq)[1])
            del expected["host"]
            if host == self.agent.address and fields == expected:
                copies[seq] = copies.get(seq, 0) + 1
            else:
                wrong.append((seq, host, fields))
        # A row that differs from the generated event is the service's own
        # when it wrote exactly that line (a poll that saw half an audit
        # line hands on two lines, by design): reported, not a store fault.
        written = {tuple(sorted(f.items())) for f in base.written_events(self.agent.varlog)}
        service_split = [w for w in wrong
                         if tuple(sorted(dict(w[2], host="agent").items())) in written]
        foreign = [w for w in wrong if w not in service_split]
        result = {
            "case": name, "called": called, "before": before, "after": len(copies),
            "duplicates": sum(n - 1 for n in copies.values()), "foreign": len(foreign),
            "service_split": len(service_split),
            "seconds": round(time.monotonic() - started, 1),
        }
        self.results.append(result)
        log("   called for %(called)d, stored before the loop %(before)d, after %(after)d, "
            "duplicates %(duplicates)d, not called for %(foreign)d (%(seconds)s s)" % result)
        if service_split:
            log("   (%d rows as the service wrote an audit line it read in two pieces)" %
                len(service_split))
        if result["after"] != called or result["duplicates"] or foreign:
            missing = sorted(set(range(first, last + 1)) - set(copies))[:5]
            self.failures.append("%s: after the loop %d of %d stored, %d duplicated, %d not "
                                 "called for (first missing %s, first foreign %s)" %
                                 (name, result["after"], called, result["duplicates"],
                                  len(foreign), missing, foreign[:2]))

    def append_big_piece(self, count):
        """`count` audit lines in one write, more than one piece."""
        first = self.next_seq
        self.next_seq += count
        data = "".join(base.event_of(seq)[0] + "\n" for seq in range(first, self.next_seq))
        with open(os.path.join(self.agent.varlog, "qirn_audit.log"), "a") as f:
            f.write(data)
        last = "/data/f%07d" % (self.next_seq - 1)
        event_log = os.path.join(self.agent.varlog, "zarvo_container.log")

        def caught_up():
            try:
                with open(event_log, "rb") as f:
                    f.seek(0, os.SEEK_END)
                    f.seek(max(0, f.tell() - 4096))
                    return last.encode() in f.read()
            except OSError:
                return False
        # The service hands on at most so many lines per read and may leave
        # the rest until the file grows again: a gap the loop fills.
        wait_until(caught_up, 15, 0.05)

    def mid_flow(self, first, fault):
        last = self.next_seq - 1
        threshold = (last - first + 1) // 5
        if not wait_until(lambda: self.stored_count(first, last) >= threshold, 60, 0.1):
            raise RuntimeError("no flow before the fault")
        log("   %s with %d of the %d events written so far stored" %
            (fault, self.stored_count(first, last), last - first + 1))

    def run_cases(self):
        self.forwarder = StoreRsyslog(self, self.agent, "forwarder")
        self.collecting = StoreRsyslog(self, self.collector, "collector")
        for engine in (self.forwarder, self.collecting):
            engine.install()
        self.service = base.Service(self.agent)
        open(os.path.join(self.agent.varlog, "qirn_audit.log"), "w").close()
        self.service.start()
        self.collecting.start()
        self.forwarder.start()

        # A line that is no event line reaches the unparsed table, with the
        # agent as its host.
        with open(os.path.join(self.agent.varlog, "zarvo_container.backfill.log"), "a") as f:
            f.write("not an event line, status=enforcing\n")
        # (Lines that are no events have no identity: one sent twice, as a
        # forwarder does after a broken session, is kept twice.)
        if not wait_until(lambda: self.psql(
                "SELECT count(*) > 0 FROM qirn_fleet.unparsed WHERE host = '%s' AND line = "
                "'not an event line, status=enforcing'" % self.agent.address,
                check=False) == "t", 60, 0.3):
            raise RuntimeError("the unparsed line did not reach the store")
        log("-- a line that is no event line is in the unparsed table")

        service = self.service

        def database_restarted():
            first = self.next_seq
            self.flow(2, 2000)
            self.mid_flow(first, "database stopped (fast shutdown)")
            self.database.stop()
            down = time.monotonic()
            self.flow(2, 2000)
            time.sleep(max(0.0, 5 - (time.monotonic() - down)))
            self.database.start()
            self.flow(1, 2000)

        def forwarder_stopped_rotated():
            self.flow(1, 3000)
            self.forwarder.stop(signal.SIGTERM)
            self.flow(1, 2000)
            rotation = self.start_logrotate()
            if rotation.wait(60) != 0:
                raise RuntimeError("logrotate failed: " + rotation.stdout.read())
            self.flow(1, 2000)
            self.forwarder.start()
            self.flow(1, 2000)

        def service_gap():
            self.flow(1, 2000)
            service.stop()
            # Lines the service never sees: only the loop can store them.
            first = self.next_seq
            self.next_seq += 1500
            with open(os.path.join(self.agent.varlog, "qirn_audit.log"), "a") as f:
                f.write("".join(base.event_of(seq)[0] + "\n"
                                for seq in range(first, self.next_seq)))
            service.start()
            self.flow(1, 2000)

        def queue_filled():
            self.collecting.stop(signal.SIGTERM)
            # Three pieces: more than the forwarder's queue holds in memory.
            self.flow(3, base.PIECE)
            self.collecting.start()
            self.flow(1, 2000)

        def big_piece():
            self.append_big_piece(12000)

        for name, body in self.common_faults():
            self.case(name, body)
        self.case("database stopped and started during a flow", database_restarted)
        self.case("forwarder stopped, event log rotated, forwarder started",
                  forwarder_stopped_rotated)
        self.case("service stopped, audit lines appended, service started", service_gap)
        self.case("forwarder's queue filled past its size (%s lines)" % TEST_QUEUE["queue.size"],
                  queue_filled)
        self.case("12000 audit lines in one piece", big_piece)

    # --- Throughput -------------------------------------------------------

    def burst_rate(self, label):
        """A burst of BURST events waits in the event log while the
        forwarder is stopped; the rate is from its start until the last
        event is stored."""
        self.forwarder.stop(signal.SIGTERM)
        first = self.next_seq
        self.flow(BURST // base.PIECE, base.PIECE)
        last = self.next_seq - 1
        written = len({s for s in base.written_seqs(self.agent.varlog) if first <= s <= last})
        started = time.monotonic()
        self.forwarder.start()
        wait_until(lambda: self.stored_count(first, last) >= written, 300, 0.1)
        seconds = time.monotonic() - started
        stored = self.stored_count(first, last)
        rate = stored / seconds
        log("   %s: %d events stored in %.2f s: %.0f events/s" % (label, stored, seconds, rate))
        self.figures[label] = round(rate)
        return rate, stored, written

    def throughput(self):
        if not self.selected("throughput"):
            return
        log("== store: throughput, a burst of %d events" % BURST)
        self.burst_rate("no delay")
        # Through the relay in the agent's namespace: 25 ms each way.
        self.forwarder.stop(signal.SIGTERM)
        relay = self.agent.spawn([sys.executable, RELAY, "127.0.0.1", RELAY_PORT,
                                  self.collector.address, "2514", str(RELAY_DELAY_MS)],
                                 os.path.join(self.agent.dir, "relay.console"))
        wait_until(lambda: "relaying" in open(os.path.join(self.agent.dir, "relay.console")).read(),
                   10)
        StoreRsyslog.target = ("127.0.0.1", RELAY_PORT)
        self.forwarder.install()
        self.forwarder.start()
        rate, stored, written = self.burst_rate("through the relay, %d ms each way" %
                                                RELAY_DELAY_MS)
        if rate < WANTED_RATE or stored != written:
            self.failures.append("through the %d ms relay %d of %d events stored at %.0f "
                                 "events/s (wanted all, at %d at least)" %
                                 (RELAY_DELAY_MS, stored, written, rate, WANTED_RATE))
        relay.kill()
        StoreRsyslog.target = None
        self.forwarder.stop(signal.SIGTERM)
        self.forwarder.install()
        self.forwarder.start()
        self.database_rates()

    def database_rates(self):
        """The database's own insert rate: the store function called for
        BURST new events in one statement, and the loader fed the same
        number of lines straight from a pipe, one commit per line as in the
        collector."""
        statement = ("SELECT count(qirn_fleet.store_event('192.0.2.1', 'line ' || i, "
                     "'Nov 16 10:00:00', 'bench', 'filectl', '/bench/' || i, 'permissive', "
                     "'bench|/bench/' || i || '|Nov 16 10:00:00')) "
                     "FROM generate_series(1, %d) AS i" % BURST)
        started = time.monotonic()
        self.psql(statement, user="qirn_collector")
        seconds = time.monotonic() - started
        self.figures["database, one statement"] = round(BURST / seconds)
        lines = "".join("192.0.2.2 Nov 16 10:00:00,container_id=bench,Event=filectl,"
                        "path=/bench/%d,status=permissive\n" % i for i in range(BURST))
        feed = os.path.join(self.collector.run, "bench.lines")
        with open(feed, "w") as f:
            f.write(lines)
        output = os.path.join(self.collector.dir, "bench.console")
        started = time.monotonic()
        status = self.collector.in_root(
            ["/bin/sh", "-c", "/run/qlc/qirn-fleet-loader host=%s port=%s dbname=qirn_fleet "
             "user=qirn_collector </run/qlc/bench.lines >/dev/null" % (PG_SOCKET, PG_PORT)],
            output).wait(300)
        seconds = time.monotonic() - started
        self.figures["loader from a pipe, a commit per line"] = round(BURST / seconds)
        log("   the database's own rate: %d events/s in one statement, %d events/s through "
            "the loader from a pipe (a commit per line, exit %d)" %
            (self.figures["database, one statement"],
             self.figures["loader from a pipe, a commit per line"], status))
        self.psql("DELETE FROM qirn_fleet.events WHERE host IN ('192.0.2.1', '192.0.2.2')")

    # --- Security and metrics --------------------------------------------

    def security(self):
        log("== store: roles and row-level security")
        # A row of another host and one of the agent, stored by the
        # collector's role like any other.
        for sender, path in ((OTHER_SENDER, "/other/path"), (self.agent.address, "/own/path")):
            self.psql("SELECT qirn_fleet.store_event('%s', 'a line', 'Nov 16 10:00:00', "
                      "'container', 'exectl', '%s', 'enforcing', "
                      "'container|%s|Nov 16 10:00:00')" % (sender, path, path),
                      user="qirn_collector")
        agent = dict(user="qirn_host_agent", network=True, password=AGENT_PASSWORD,
                     host=self.agent, check=False)
        checks = []

        def expect(name, result, wanted):
            ok = wanted(result)
            checks.append((name, ok, result))
            log("   %s %s: %s" % ("ok  " if ok else "FAIL", name,
                                   result if not isinstance(result, tuple) else result[1][:120]))
            if not ok:
                self.failures.append("security: %s (%s)" % (name, result))

        denied = lambda r: isinstance(r, tuple) and "permission denied" in r[1]  # noqa: E731
        expect("the agent reads its own rows over the network with its password",
               self.psql("SELECT count(*) FROM qirn_fleet.events WHERE path = '/own/path'",
                         **agent), lambda r: r == "1")
        expect("the agent sees no row of another host",
               self.psql("SELECT count(*) FROM qirn_fleet.events WHERE host <> '%s'" %
                         self.agent.address, **agent), lambda r: r == "0")
        expect("the agent cannot read the other host's row by its path",
               self.psql("SELECT count(*) FROM qirn_fleet.events WHERE path = '/other/path'",
                         **agent), lambda r: r == "0")
        expect("the agent cannot delete its own rows",
               self.psql("DELETE FROM qirn_fleet.events", **agent), denied)
        expect("the agent cannot change its own rows",
               self.psql("UPDATE qirn_fleet.events SET status = 'permissive'", **agent), denied)
        expect("the agent cannot insert",
               self.psql("INSERT INTO qirn_fleet.unparsed (host, reason, line) VALUES "
                         "('x', 'x', 'x')", **agent), denied)
        expect("the agent's wrong password is refused",
               self.psql("SELECT 1", **dict(agent, password="wrong")),
               lambda r: isinstance(r, tuple) and "password authentication failed" in r[1])
        collector = dict(user="qirn_collector", check=False)
        expect("the collector cannot delete",
               self.psql("DELETE FROM qirn_fleet.events", **collector), denied)
        expect("the collector cannot update",
               self.psql("UPDATE qirn_fleet.events SET path = 'x'", **collector), denied)
        expect("the collector cannot read",
               self.psql("SELECT count(*) FROM qirn_fleet.events", **collector), denied)
        # The security team's questions, as the kit's README gives them, run
        # by a member of qirn_readers; each uses its index.
        readme = open(os.path.join(KIT, "README.md")).read()
        start = readme.index("### Questions a security team asks")
        block = readme[start:readme.index("`event_at` is the host", start)]
        queries = "\n".join(line[4:] for line in block.splitlines() if line.startswith("    "))
        self.psql("CREATE ROLE security_team LOGIN IN ROLE qirn_readers")
        answer = self.psql(queries, user="security_team", check=False)
        expect("the README's queries run for a member of qirn_readers", answer,
               lambda r: isinstance(r, str) and "/data/f" in r)
        plans = self.psql("SET enable_seqscan = off; EXPLAIN SELECT count(*) FROM "
                          "qirn_fleet.events WHERE path = '/data/f0000001'")
        expect("one path fleet-wide is found by its index", plans,
               lambda r: "events_path" in r)
        self.figures["security_checks"] = "%d of %d passed" % (
            sum(1 for c in checks if c[1]), len(checks))

    def loop_failure_and_metrics(self):
        log("== store: the loop with the store away, and its metrics")
        backfill = os.path.join(self.agent.varlog, "zarvo_container.backfill.log")
        size = os.path.getsize(backfill)
        self.database.stop()
        status, said = self.run_loop(expect_success=False)
        self.database.start()
        if status == 0 or "nothing was sent again" not in said or \
                os.path.getsize(backfill) != size:
            self.failures.append("the loop with the store away: exit %d, %r, backfill %d -> %d" %
                                 (status, said, size, os.path.getsize(backfill)))
        metrics = os.path.join(self.agent.run, "textfile", "qirn_fleet_complete.prom")
        text = open(metrics).read()
        for name, wanted in (("qirn_fleet_complete_failures_total", "1"),
                             ("qirn_fleet_complete_last_run_success", "0")):
            if not re.search(r"^%s %s$" % (name, wanted), text, re.M):
                self.failures.append("metrics: %s is not %s after a failed run" % (name, wanted))
        self.run_loop()
        output = os.path.join(self.agent.dir, "promtool.console")
        open(output, "w").close()
        status = self.agent.in_root(["/bin/sh", "-c", "promtool check metrics "
                                     "</run/qlc/textfile/qirn_fleet_complete.prom"],
                                    output).wait(60)
        said = open(output, errors="replace").read().strip()
        log("   promtool check metrics: exit %d %s" % (status, said))
        if status != 0:
            self.failures.append("promtool check metrics: " + said)
        log("   " + " ".join(line for line in open(metrics).read().splitlines()
                             if not line.startswith("#")))

    # --- Main -------------------------------------------------------------

    def main(self):
        started = time.monotonic()
        base.BASE_SECONDS = BASE_SECONDS
        self.prepare_root()
        self.scratch = tempfile.mkdtemp(prefix="qlc-shipping-st.")
        os.chmod(self.scratch, 0o755)
        self.Engine = StoreRsyslog
        try:
            self.make_network()
            self.setup_store()
            self.setup_loop()
            self.loader_protocol()
            self.run_cases()
            self.throughput()
            self.security()
            self.loop_failure_and_metrics()
            self.service.stop()
        except Exception:
            self.dump()
            raise
        finally:
            if getattr(self, "database", None):
                try:
                    self.database.stop()
                except Exception:  # noqa: BLE001 - cleanup goes on
                    pass
            self.cleanup()
        return self.report(time.monotonic() - started)

    def dump(self):
        super().dump()
        for host in (getattr(self, "agent", None), getattr(self, "collector", None)):
            if host is None:
                continue
            for name in ("qirn-fleet-loader.log",):
                path = os.path.join(host.varlog, name)
                if os.path.exists(path):
                    log("--- %s/%s (last lines)\n%s" % (host.name, name,
                                                        open(path).read()[-3000:]))

    def report(self, seconds):
        log("")
        log("%-62s %7s %7s %7s %5s %7s" % ("case", "called", "before", "after", "dups",
                                           "foreign"))
        for r in self.results:
            log("%-62s %7d %7d %7d %5d %7d" % (r["case"][:62], r["called"], r["before"],
                                               r["after"], r["duplicates"], r["foreign"]))
        for name, value in self.figures.items():
            log("%s: %s" % (name, value))
        log("wall time %.0f s" % seconds)
        import json
        with open(os.path.join(BUILD_DIR, "shipping-store.json"), "w") as f:
            json.dump({"results": self.results, "figures": self.figures,
                       "failures": self.failures, "seconds": round(seconds)}, f, indent=1)
        for failure in self.failures:
            log("FAIL: " + failure)
        if not self.failures:
            log("PASS")
        return 1 if self.failures else 0


OTHER_SENDER = "10.231.18.99"
# An event's audit time is BASE_SECONDS plus its sequence number, one second
# apart: starting four days back, the test's 200,000 or so events all lie in
# the past (the loop leaves out what is newer than its settle time) and inside
# its window of seven days, in a year the store infers without doubt.
BASE_SECONDS = int(time.time()) - 4 * 86400


def main():
    os.environ["TZ"] = base.TZ
    time.tzset()
    signal.signal(signal.SIGTERM, lambda signum, frame: sys.exit(128 + signum))
    if os.geteuid() != 0:
        log("SKIP: needs root (namespaces, chroot)")
        return SKIP
    for tool in ("ip", "unshare", "nsenter", "debootstrap", "logrotate", "chroot"):
        if shutil.which(tool) is None:
            log("SKIP: %s is not installed" % tool)
            return SKIP
    for program in (base.BINARY, LOADER, CONVERT):
        if not os.access(program, os.X_OK):
            log("FAIL: no program at " + program)
            return 1
    return StoreTest().main()


if __name__ == "__main__":
    sys.exit(main())
