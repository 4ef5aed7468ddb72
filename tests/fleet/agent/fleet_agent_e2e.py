#!/usr/bin/env python3
"""The fleet agent end to end: the real service, qirn-fleet-agent, a real
PostgreSQL 15 store set up by qirn-fleet-admin, faults.

    fleet_agent_e2e.py faults|crowd

faults: one agent host (the service, the agent with its certificate, the
completeness loop) and the store host. Each fault case prints the events
called for, those stored before the loop, those stored after one loop run,
duplicates and rows nobody called for. The cases the agent alone must get
exactly right fail on any loss or duplicate before the loop; the others on
any loss after one loop run, or any duplicate at any point. Then hostile
bytes, an event log replaced by a file with the old inode, a second agent
for the same host, and the store's security as the hosts' roles see it.

crowd: 100 agents (processes in one namespace, each its own host role and
event log) through the kit's PgBouncer example: every line stored once, and
the store's server connections never above PgBouncer's bound.

Exit 0 when all holds, 1 when not, 77 when the machine cannot run it.
QLC_FLEET_ONLY=TEXT[,TEXT...] runs only the cases whose name holds one of
them; QLC_KEEP_SCRATCH=1 keeps the hosts' directories; QLC_FLEET_ROOT names
an already built Debian root.
"""

import json
import os
import signal
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import fleet_harness as fh  # noqa: E402
from fleet_harness import base, log, run, wait_until  # noqa: E402

# Nothing new stored for this long: what is missing stays missing. Longer
# than an agent restarted after a kill waits for its predecessor's lease (3 x
# heartbeat_seconds, 2 here) plus its back-off.
QUIET = 15
LINK_DOWN_SECONDS = 30
# The longest the agent may take to store again once the link is up.
LINK_RECOVERY = 90
CROWD = int(os.environ.get("QLC_FLEET_CROWD", "100"))
CROWD_LINES = 1000


def hexed(data):
    return data.hex()


class FaultsTest(fh.FleetTest):
    def __init__(self):
        super().__init__("fa", "10.231.20")

    def selected(self, name):
        only = os.environ.get("QLC_FLEET_ONLY")
        return not only or any(part in name for part in only.split(","))

    # --- Set-up -----------------------------------------------------------

    def start_all(self):
        self.setup()
        self.add_host("agent")
        self.add_host("other", password=True)
        self.main_agent = self.agent_on(self.agent, "main", self.conninfo("agent"))
        self.service = base.Service(self.agent)
        open(os.path.join(self.agent.varlog, "qirn_audit.log"), "w").close()
        self.service.start()
        self.main_agent.start()
        # The backfill log is followed too; a line that is no event line is
        # kept as unparsed with its reason.
        fh.append(os.path.join(self.agent.varlog, "zarvo_container.backfill.log"),
                  b"not an event line, status=enforcing\n")
        if not wait_until(lambda: self.psql(
                "SELECT count(*) FROM qirn_fleet.unparsed u JOIN qirn_fleet.hosts h ON "
                "h.id = u.host_id WHERE h.name = 'agent' AND position("
                "'not an event line'::bytea IN u.line) > 0", check=False) == "1", 60, 0.3):
            raise RuntimeError("the backfill log's line did not reach the store:\n" +
                               self.main_agent.said()[-2000:])
        log("-- the agent ships; a line that is no event line is in unparsed")

    # --- Cases ------------------------------------------------------------

    def written_lines(self):
        lines = set()
        for name in os.listdir(self.agent.varlog):
            if name.startswith("zarvo_container.") and not name.endswith(".gz"):
                with open(os.path.join(self.agent.varlog, name), "rb") as f:
                    for line in f:
                        if b"/data/f" in line:
                            lines.add(line.rstrip(b"\n").decode("utf-8", "replace"))
        return lines

    def tally(self, first, last):
        rows = self.rows_of_range(first, last)
        copies, wrong = {}, []
        for seq, host, line in rows:
            if host == "agent" and line == fh.expected_line(seq):
                copies[seq] = copies.get(seq, 0) + 1
            else:
                wrong.append((seq, host, line))
        if wrong:
            # A line the service itself wrote in two pieces (a poll that saw
            # half an audit line) is stored as written: not a store fault.
            written = self.written_lines()
            wrong = [w for w in wrong if not (w[1] == "agent" and w[2] in written)]
        return copies, wrong

    def case(self, name, body, exact_before):
        """Runs `body`, counts, runs the loop once, counts again."""
        if not self.selected(name):
            return
        first = self.next_seq
        started = time.monotonic()
        log("== %s" % name)
        body()
        last = self.next_seq - 1
        called = last - first + 1
        written = {s for s in base.written_seqs(self.agent.varlog) if first <= s <= last}
        self.wait_quiet(lambda: self.count_range(first, last), len(written), QUIET)
        copies, wrong = self.tally(first, last)
        before = len(copies)
        dups_before = sum(n - 1 for n in copies.values())
        missing_before = sorted(written - set(copies))
        status, said = self.run_loop()
        self.wait_quiet(lambda: self.count_range(first, last), called, QUIET)
        copies, wrong = self.tally(first, last)
        result = {
            "case": name, "called": called, "written": len(written), "before": before,
            "after": len(copies),
            "duplicates": max(dups_before, sum(n - 1 for n in copies.values())),
            "foreign": len(wrong), "exact_before": exact_before,
            "seconds": round(time.monotonic() - started, 1),
        }
        self.results.append(result)
        log("   called for %(called)d (the service wrote %(written)d), stored before the loop "
            "%(before)d, after one loop run %(after)d, duplicates %(duplicates)d, rows nobody "
            "called for %(foreign)d (%(seconds)s s)" % result)
        if exact_before and (missing_before or dups_before):
            self.failures.append("%s: before any loop run %d of the %d events written stored, "
                                 "%d duplicated (first missing %s)" %
                                 (name, before, len(written), dups_before, missing_before[:5]))
        if result["after"] != called or result["duplicates"] or wrong:
            missing = sorted(set(range(first, last + 1)) - set(copies))[:5]
            self.failures.append("%s: after the loop %d of %d stored, %d duplicated, %d not "
                                 "called for (first missing %s, first foreign %s)" %
                                 (name, result["after"], called, result["duplicates"],
                                  len(wrong), missing, wrong[:2]))

    def mid_flow(self, first, fault):
        last = self.next_seq - 1
        threshold = (last - first + 1) // 5
        if not wait_until(lambda: self.count_range(first, last) >= threshold, 60, 0.05):
            raise RuntimeError("no flow before the fault:\n" + self.main_agent.said()[-2000:])
        log("   %s with %d of the %d events written so far stored" %
            (fault, self.count_range(first, last), last - first + 1))

    def agent_says(self, agent, text, since, timeout):
        return wait_until(lambda: text.lower() in agent.said()[since:].lower(), timeout, 0.2)

    def rotate(self, copytruncate=False):
        if copytruncate:
            text = open(os.path.join(fh.SOURCE_DIR, "packaging",
                                     "qirn-log-converter.logrotate")).read()
            text = text.replace("/var/log/", self.agent.varlog + "/")
            stanza = text[text.index(self.agent.varlog + "/zarvo_container.log {"):]
            stanza = stanza[:stanza.index("}") + 1].replace("create 0640 root adm",
                                                            "copytruncate")
            conf = os.path.join(self.scratch, "logrotate-copytruncate.conf")
            with open(conf, "w") as f:
                f.write(stanza + "\n")
            return subprocess.Popen(["logrotate", "-f", "-s", os.path.join(
                self.scratch, "logrotate.state"), conf], stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT, text=True)
        return self.start_logrotate()

    def rotate_now(self, copytruncate=False):
        rotation = self.rotate(copytruncate)
        if rotation.wait(60) != 0:
            raise RuntimeError("logrotate failed: " + rotation.stdout.read())

    def run_cases(self):
        agent = self.main_agent
        varlog = self.agent.varlog

        def steady():
            self.flow(2, 2000)

        def agent_killed():
            # The burst waits in the event log while the agent is held; let
            # go, it is killed as soon as its first commit is seen.
            first = self.next_seq
            agent.process.send_signal(signal.SIGSTOP)
            self.flow(8, base.PIECE)
            last = self.next_seq - 1
            agent.process.send_signal(signal.SIGCONT)
            wait_until(lambda: self.count_range(first, last) > 0, 30, 0.005)
            agent.stop(signal.SIGKILL)
            log("   agent SIGKILL with %d of the %d events of the burst stored" %
                (self.count_range(first, last), last - first + 1))
            agent.start()

        def database_restarted():
            first = self.next_seq
            self.flow(3, 2000)
            self.mid_flow(first, "database fast stop")
            since = len(agent.said())
            self.database.stop()
            self.flow(2, 2000)
            # Down until the agent has noticed (bounded).
            wait_until(lambda: len(agent.said()) > since, 15, 0.2)
            self.database.start()
            self.flow(1, 2000)

        def link_down():
            first = self.next_seq
            self.flow(2, 2000)
            self.mid_flow(first, "link down")
            since = len(agent.said())
            run(["ip", "-n", self.agent.netns, "link", "set", self.agent.veth, "down"])
            down = time.monotonic()
            self.flow(2, 2000)
            # The fault's length, not a wait for something to happen.
            time.sleep(max(0.0, LINK_DOWN_SECONDS - (time.monotonic() - down)))
            run(["ip", "-n", self.agent.netns, "link", "set", self.agent.veth, "up"])
            up = time.monotonic()
            self.flow(1, 2000)
            # How long the agent takes to notice that its connection is
            # gone is its own business (keepalives, timeouts), up to a bound.
            last = self.next_seq - 1
            written = {s for s in base.written_seqs(varlog) if first <= s <= last}
            if wait_until(lambda: self.count_range(first, last) >= len(written),
                          LINK_RECOVERY, 0.5):
                log("   all stored %.1f s after the link came up" % (time.monotonic() - up))
                self.figures["seconds from link up to all stored"] = round(
                    time.monotonic() - up)
            else:
                log("   not all stored %d s after the link came up" % LINK_RECOVERY)
            # Said once that the store was lost, once that it answers again.
            for line in agent.said()[since:].splitlines():
                log("   agent: " + line)

        def disk_full():
            # The events' partition of this case moves to a tablespace on a
            # small tmpfs that has room for a few thousand rows more.
            first = self.next_seq
            self.flow(1, 500)
            if not wait_until(lambda: self.count_range(first, self.next_seq - 1) > 0, 30):
                raise RuntimeError("nothing stored before the disk fills")
            part = self.psql("SELECT e.tableoid::regclass FROM qirn_fleet.events e WHERE "
                             "e.line LIKE '%%/data/f%07d%%' LIMIT 1" % first)
            size = int(self.psql("SELECT pg_relation_size('%s')" % part))
            mount = os.path.join(self.root, "run", "qlc", "smallfs")
            uid, gid = self.postgres_ids()
            os.makedirs(os.path.join(self.store.run, "smallfs"), exist_ok=True)
            room = size + 1536 * 1024
            run(["nsenter", "--target", str(self.store.holder.pid), "--mount", "--", "mount",
                 "-t", "tmpfs", "-o", "size=%d,uid=%d,gid=%d,mode=0700" % (room, uid, gid),
                 "tmpfs", mount])
            self.psql("CREATE TABLESPACE small LOCATION '/run/qlc/smallfs'")
            self.psql("ALTER TABLE %s SET TABLESPACE small" % part)
            log("   %s (%d kB) moved to a %d kB file system" % (part, size // 1024,
                                                               room // 1024))
            since = len(agent.said())
            self.flow(4, 3000)
            full = wait_until(lambda: "space" in agent.said()[since:].lower(), 60, 0.2)
            log("   the agent %s" % ("says the disk is full" if full else
                                     "never said the disk is full"))
            run(["nsenter", "--target", str(self.store.holder.pid), "--mount", "--", "mount",
                 "-o", "remount,size=1g", mount])
            self.flow(1, 2000)

        def stopped_rotated_once():
            self.flow(1, 3000)
            agent.stop(signal.SIGTERM)
            self.flow(1, 2000)
            self.rotate_now()
            self.flow(1, 2000)
            agent.start()
            self.flow(1, 2000)

        def stopped_rotated_twice():
            self.flow(1, 2000)
            status = agent.stop(signal.SIGTERM)
            if status != 0:
                self.failures.append("the agent's exit on SIGTERM: %s" % status)
            since = len(agent.said())
            self.flow(1, 2000)
            self.rotate_now()
            self.flow(1, 2000)
            self.rotate_now()
            self.flow(1, 2000)
            agent.start()
            self.flow(1, 2000)
            if not self.agent_says(agent, "rotation outran the agent", since, 20):
                self.failures.append("the agent did not say the rotation outran it")
            wait_until(lambda: "qirn_fleet_agent_lost_files_total 1" in agent.metrics(), 10)
            if "qirn_fleet_agent_lost_files_total 1" not in agent.metrics():
                self.failures.append("qirn_fleet_agent_lost_files_total is not 1: %r" %
                                     [m for m in agent.metrics().splitlines()
                                      if "lost" in m])

        def copytruncate():
            first = self.next_seq
            self.flow(2, 2000)
            self.mid_flow(first, "copytruncate")
            rotation = self.rotate(copytruncate=True)
            self.flow(2, 2000)
            if rotation.wait(60) != 0:
                raise RuntimeError("logrotate failed: " + rotation.stdout.read())
            self.flow(1, 2000)

        def service_gap():
            self.flow(1, 2000)
            self.service.stop()
            first = self.next_seq
            self.next_seq += 1500
            fh.append(os.path.join(varlog, "qirn_audit.log"), "".join(
                base.event_of(seq)[0] + "\n" for seq in range(first, self.next_seq)).encode())
            self.service.start()
            self.flow(1, 2000)

        def big_piece():
            first = self.next_seq
            self.next_seq += 12000
            fh.append(os.path.join(varlog, "qirn_audit.log"), "".join(
                base.event_of(seq)[0] + "\n" for seq in range(first, self.next_seq)).encode())
            last = "/data/f%07d" % (self.next_seq - 1)

            def caught_up():
                with open(os.path.join(varlog, "zarvo_container.log"), "rb") as f:
                    f.seek(0, os.SEEK_END)
                    f.seek(max(0, f.tell() - 4096))
                    return last.encode() in f.read()
            # The service may leave the rest of a big piece until the file
            # grows again: a gap the loop fills.
            wait_until(caught_up, 15, 0.05)

        self.case("steady flow", steady, True)
        self.case("agent killed (SIGKILL) in the middle of a 40000-event burst", agent_killed,
                  True)
        self.case("database fast stop and start during a flow", database_restarted, True)
        self.case("agent's link down for %d s, then up" % LINK_DOWN_SECONDS, link_down, True)
        self.case("the store's disk full, then freed", disk_full, True)
        self.case("agent stopped, event log rotated once, agent started", stopped_rotated_once,
                  True)
        self.case("agent stopped, event log rotated twice, agent started",
                  stopped_rotated_twice, False)
        self.case("event log copytruncated during a flow", copytruncate, False)
        self.case("service stopped, audit lines appended, service started", service_gap,
                  False)
        self.case("12000 audit lines in one piece", big_piece, False)

    # --- The event log replaced by a file with the old inode ---------------

    def same_inode(self):
        name = "event log replaced by a new file that gets the old inode"
        if not self.selected("inode"):
            return
        log("== " + name)
        agent = self.main_agent
        live = os.path.join(self.agent.varlog, "zarvo_container.log")
        self.service.stop()
        agent.stop(signal.SIGTERM)
        old = os.stat(live)
        # A file system hands a freed inode out again when it likes; the
        # test makes it happen: the old inode's content is replaced from its
        # first byte by a longer file of new events, so device and inode
        # match the agent's position and its first bytes do not.
        first = self.next_seq
        data = b""
        while len(data) <= old.st_size:
            data += (fh.expected_line(self.next_seq) + "\n").encode()
            self.next_seq += 1
        fd = os.open(live, os.O_WRONLY)
        try:
            written = 0
            while written < len(data):
                written += os.pwrite(fd, data[written:], written)
        finally:
            os.close(fd)
        how = "replaced in place"
        new = os.stat(live)
        log("   old inode %d, %d bytes; new file inode %d, %d bytes (%s)" %
            (old.st_ino, old.st_size, new.st_ino, new.st_size, how))
        agent.start()
        last = self.next_seq - 1
        stored = self.wait_quiet(lambda: self.count_range(first, last), last - first + 1, QUIET)
        copies, wrong = self.tally(first, last)
        result = {"case": name + (" (same inode)" if new.st_ino == old.st_ino else
                                  " (another inode)"),
                  "called": last - first + 1, "written": last - first + 1,
                  "before": len(copies), "after": len(copies),
                  "duplicates": sum(n - 1 for n in copies.values()), "foreign": len(wrong),
                  "exact_before": True}
        self.results.append(result)
        log("   called for %d, stored %d, duplicates %d" % (last - first + 1, stored,
                                                           result["duplicates"]))
        if len(copies) != last - first + 1 or result["duplicates"] or wrong:
            self.failures.append("%s: %d of %d stored, %d duplicated" %
                                 (name, len(copies), last - first + 1, result["duplicates"]))
        self.service.start()

    # --- Hostile bytes --------------------------------------------------------

    def hostile(self):
        if not self.selected("hostile"):
            return
        log("== hostile bytes")
        when = base.event_of(self.next_seq)[1]["time"].encode()
        self.next_seq += 1

        def line(path, status=b"enforcing"):
            return (when + b",container_id=hostile,Event=filectl,path=" + path +
                    b",status=" + status)
        cases = [
            ("tab", line(b"/h/01/tab\there"), None),
            ("ESC", line(b"/h/02/esc\x1b[31mred"), None),
            ("CR", line(b"/h/03/cr\rback"), None),
            ("non-UTF-8", line(b"/h/04/\xff\xfe\x80\xc3("), None),
            (",status=enforcing inside a path",
             line(b"/h/05/x,status=enforcing", b"permissive"), None),
            ("a 3000-byte path", line(b"/h/06/" + b"p" * 2994), None),
            ("NUL", line(b"/h/07/nul\x00byte"), "line holds a NUL byte"),
        ]
        self.service.stop()
        fh.append(os.path.join(self.agent.varlog, "zarvo_container.log"),
                  b"".join(c[1] + b"\n" for c in cases))
        self.service.start()

        def stored():
            out = self.psql("SELECT encode(convert_to(e.line, 'SQL_ASCII'), 'hex') FROM "
                            "qirn_fleet.events e JOIN qirn_fleet.hosts h ON h.id = e.host_id "
                            "WHERE h.name = 'agent' AND e.line LIKE '%%container_id=hostile%%'",
                            check=False)
            events = set(out.split()) if isinstance(out, str) else set()
            out = self.psql("SELECT encode(u.line, 'hex') || ' ' || encode(convert_to("
                            "u.reason, 'SQL_ASCII'), 'hex') FROM qirn_fleet.unparsed u JOIN "
                            "qirn_fleet.hosts h ON h.id = u.host_id WHERE h.name = 'agent' AND "
                            "position('container_id=hostile'::bytea IN u.line) > 0",
                            check=False)
            unparsed = {}
            for row in out.splitlines() if isinstance(out, str) else []:
                data, reason = row.split(" ")
                unparsed.setdefault(data, []).append(bytes.fromhex(reason).decode(
                    "utf-8", "replace"))
            return events, unparsed
        wait_until(lambda: sum(map(len, stored())) >= len(cases), 30, 0.3)
        events, unparsed = stored()
        for label, data, reason in cases:
            in_events = hexed(data) in events
            in_unparsed = unparsed.get(hexed(data), [])
            if reason is None:
                ok = in_events and not in_unparsed
                how = "stored byte-exact" if in_events else (
                    "in unparsed: %s" % in_unparsed if in_unparsed else "missing")
            else:
                ok = in_unparsed == [reason] and not in_events
                how = "in unparsed: %s" % in_unparsed if in_unparsed else (
                    "stored as an event" if in_events else "missing")
            log("   %s %s: %s" % ("ok  " if ok else "FAIL", label, how))
            if not ok:
                self.failures.append("hostile bytes, %s: %s" % (label, how))
        fields = self.psql("SELECT e.path || '|' || e.status FROM qirn_fleet.events e WHERE "
                           "e.line LIKE '%%/h/05/%%'", check=False)
        ok = fields == "/h/05/x,status=enforcing|permissive"
        log("   %s ,status=enforcing inside a path read by the anchors: %r" %
            ("ok  " if ok else "FAIL", fields))
        if not ok:
            self.failures.append("the path holding ,status=enforcing stored as %r" % (fields,))

    # --- A second agent for the same host ---------------------------------------

    def second_agent(self):
        name = "a second agent for the same host"
        if not self.selected("second"):
            return
        log("== " + name)
        first_agent = self.main_agent
        # On the same machine with the same configuration: refused at once
        # by the lock file, saying whose it is.
        same = self.agent_on(self.agent, "same-config", first_agent.settings["conninfo"],
                             lock_file=first_agent.settings["lock_file"])
        same.start()
        try:
            status = same.process.wait(20)
        except subprocess.TimeoutExpired:
            status = None
            same.stop(signal.SIGTERM)
        said = same.said().strip().splitlines()[-1:] or [""]
        ok = status is not None and status != 0 and "lock" in said[0]
        log("   %s a second agent of the same configuration: exit %s, %r" %
            ("ok  " if ok else "FAIL", status, said[0]))
        if not ok:
            self.failures.append("a second agent of the same configuration: exit %s, %r" %
                                 (status, said[0]))
        same.process = None
        # Another machine with the same credential (a clone given its own
        # hostname) and, here, the same files: waits for the lease, saying
        # whose it is, and takes over when the first is gone.
        second = self.agent_on(self.agent, "clone", first_agent.settings["conninfo"])
        first = self.next_seq
        second.start(hostname="agent-clone")
        said = wait_until(lambda: "lease" in second.said().lower(), 20, 0.2)
        log("   %s the clone says why it waits: %s" % (
            "ok  " if said else "FAIL", (second.said().strip().splitlines()[-1:] or [""])[0]))
        if not said:
            self.failures.append("the clone did not say why it waits: %r" %
                                 second.said()[-500:])
        self.flow(2, 2000)
        self.mid_flow(first, "first agent SIGKILL")
        first_agent.stop(signal.SIGKILL)
        self.flow(2, 2000)
        last = self.next_seq - 1
        written = {s for s in base.written_seqs(self.agent.varlog) if first <= s <= last}
        self.wait_quiet(lambda: self.count_range(first, last), len(written), QUIET + 8)
        copies, wrong = self.tally(first, last)
        dups = sum(n - 1 for n in copies.values())
        self.results.append({"case": name + " (a clone; the first killed)",
                             "called": last - first + 1, "written": len(written),
                             "before": len(copies), "after": len(copies), "duplicates": dups,
                             "foreign": len(wrong), "exact_before": True})
        log("   called for %d, stored %d by the two, duplicates %d" %
            (len(written), len(copies), dups))
        if dups or written - set(copies) or wrong:
            self.failures.append("%s: %d of %d stored, %d duplicated" %
                                 (name, len(copies), len(written), dups))
        second.stop(signal.SIGTERM)
        first_agent.start()

    # --- Security -------------------------------------------------------------

    def security(self):
        if not self.selected("security"):
            return
        log("== security, as the hosts' roles see the store")
        own = dict(conninfo=self.conninfo("agent", inside=True), host=self.agent, check=False)
        other = dict(conninfo=self.conninfo("other", inside=True), host=self.agent,
                     check=False)
        checks = []

        def expect(name, result, wanted):
            ok = wanted(result)
            checks.append(ok)
            shown = result if not isinstance(result, tuple) else result[1][:160]
            log("   %s %s: %s" % ("ok  " if ok else "FAIL", name, str(shown)[:160]))
            if not ok:
                self.failures.append("security: %s (%s)" % (name, shown))

        def denied(r):
            return isinstance(r, tuple) and ("permission denied" in r[1] or
                                             "must be" in r[1])
        theirs = self.count_host("agent")
        expect("a host reads its own rows", self.psql(
            "SELECT count(*) FROM qirn_fleet.events", **own),
            lambda r: r == str(self.count_host("agent")))
        expect("another host reads none of them", self.psql(
            "SELECT count(*) FROM qirn_fleet.events", **other),
            lambda r: r == str(self.count_host("other")))
        for table in ("events", "unparsed", "positions", "heartbeats", "hosts"):
            expect("no INSERT into %s" % table, self.psql(
                "INSERT INTO qirn_fleet.%s OVERRIDING SYSTEM VALUE SELECT * FROM qirn_fleet.%s "
                "LIMIT 0" % (table, table),
                **other), denied)
        expect("no UPDATE of events", self.psql(
            "UPDATE qirn_fleet.events SET line = line", **own), denied)
        expect("no DELETE of events", self.psql("DELETE FROM qirn_fleet.events", **own), denied)
        expect("no UPDATE of positions", self.psql(
            "UPDATE qirn_fleet.positions SET file_offset = 0", **own), denied)
        expect("no DELETE of positions", self.psql(
            "DELETE FROM qirn_fleet.positions", **own), denied)
        expect("no taking another host's role", self.psql(
            "SET ROLE qirn_host_agent", **other), denied)
        # A ship by the other host stores for the other host, whatever the
        # line says: nothing a host sends names a host.
        when = base.event_of(1)[1]["time"]
        line = "%s,container_id=agent,Event=exectl,path=/security/from-other,status=enforcing" % \
            when
        out = self.psql("SELECT stored FROM qirn_fleet.agent_ship('test:1:1', 'backfill', '', 0, "
                        "'security-test', %d, 'UTC', ARRAY['%s'], ARRAY[]::bytea[], "
                        "ARRAY[]::text[])" % (len(line) + 1, line), **other)
        owner = self.psql("SELECT h.name FROM qirn_fleet.events e JOIN qirn_fleet.hosts h ON "
                          "h.id = e.host_id WHERE e.line LIKE '%/security/from-other%'")
        expect("a ship is stored for the session's host only", (out, owner),
               lambda r: r == ("1", "other"))
        expect("the store's rows of the agent unchanged", self.count_host("agent"),
               lambda r: r == theirs)
        # Refused credentials.
        wrong = self.conninfo("other", inside=True).replace("passfile=", "passfile=/nonexistent-")
        expect("a wrong password is refused", self.psql(
            "SELECT 1", conninfo=wrong + " password=wrong", host=self.agent, check=False),
            lambda r: isinstance(r, tuple) and "authentication failed" in r[1])
        fake = os.path.join(self.agent.run, "fake")
        os.makedirs(fake, exist_ok=True)
        run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
             "-nodes", "-days", "2", "-subj", "/CN=qirn_host_agent", "-keyout",
             os.path.join(fake, "host.key"), "-out", os.path.join(fake, "host.pem")])
        os.chmod(os.path.join(fake, "host.key"), 0o600)
        forged = " ".join(p for p in self.conninfo("agent", inside=True).split()
                          if not p.startswith(("sslcert=", "sslkey="))) + \
            " sslcert=/run/qlc/fake/host.pem sslkey=/run/qlc/fake/host.key"
        expect("a certificate not from the fleet's CA is refused", self.psql(
            "SELECT 1", conninfo=forged, host=self.agent, check=False),
            lambda r: isinstance(r, tuple))
        self.add_host("ghost", password=True)
        ghost = self.conninfo("ghost", inside=True)
        before_retire = self.psql("SELECT count(*) FROM qirn_fleet.agent_position('events')",
                                  conninfo=ghost, host=self.agent, check=False)
        self.admin("retire-host", "ghost")
        after = self.psql("\\set VERBOSITY verbose\nSELECT * FROM "
                          "qirn_fleet.agent_position('events')", conninfo=ghost,
                          host=self.agent, check=False)
        after = self.psql("SELECT * FROM qirn_fleet.agent_position('events')", conninfo=ghost,
                          host=self.agent, check=False) if after == "" else after
        expect("a retired host's credential is refused (enrolled it could: %r)" %
               (before_retire,), after,
               lambda r: before_retire == "0" and isinstance(r, tuple) and (
                   "QF003" in r[1] or "not enrolled" in r[1] or "retired" in r[1] or
                   "not permitted to log in" in r[1] or "authentication" in r[1]))
        # One host opening connections in a loop leaves the others storing.
        log("   the other host opens 20 sessions at once while the agent ships")
        hogs = []
        for _ in range(20):
            hogs.append(subprocess.Popen(
                ["nsenter", "--target", str(self.agent.holder.pid), "--mount", "--uts", "--net",
                 "--", "chroot", self.root, "psql", "-X", "-q", "-d",
                 self.conninfo("other", inside=True),
                 "-c", "SELECT pg_sleep(30)"], stdout=subprocess.DEVNULL,
                stderr=subprocess.PIPE, text=True, env=fh.ROOT_ENV))
            self.processes.append(hogs[-1])
        wait_until(lambda: sum(1 for h in hogs if h.poll() is not None) >= 16, 20, 0.2)
        sessions = self.psql("SELECT count(*) FROM pg_stat_activity WHERE usename = "
                             "'qirn_host_other'")
        first = self.next_seq
        self.flow(2, 2000)
        last = self.next_seq - 1
        written = {s for s in base.written_seqs(self.agent.varlog) if first <= s <= last}
        stored = self.wait_quiet(lambda: self.count_range(first, last), len(written), QUIET)
        refused = [h.stderr.read().strip() for h in hogs if h.poll() is not None]
        for h in hogs:
            if h.poll() is None:
                h.kill()
                h.wait()
        expect("the other host held at most its limit (%s sessions; %d refused, e.g. %r)" %
               (sessions, len(refused), refused[0][-80:] if refused else ""), sessions,
               lambda r: int(r) <= 4)
        expect("meanwhile the agent stored all %d events" % len(written), stored,
               lambda r: r == len(written))
        self.figures["security checks"] = "%d of %d passed" % (sum(checks), len(checks))

    # --- Main -------------------------------------------------------------

    def main(self):
        started = time.monotonic()
        try:
            self.start_all()
            self.run_cases()
            self.same_inode()
            self.hostile()
            self.second_agent()
            self.security()
            status = self.main_agent.stop(signal.SIGTERM)
            if status != 0:
                self.failures.append("the agent's exit status on SIGTERM: %s" % status)
            self.service.stop()
        except Exception:
            self.dump()
            raise
        finally:
            self.cleanup()
        return self.report(time.monotonic() - started)

    def report(self, seconds):
        log("")
        log("%-62s %7s %7s %7s %7s %5s %7s" % ("case", "called", "written", "before", "after",
                                               "dups", "foreign"))
        for r in self.results:
            log("%-62s %7d %7d %7d %7d %5d %7d" % (r["case"][:62], r["called"], r["written"],
                                                   r["before"], r["after"], r["duplicates"],
                                                   r["foreign"]))
        for name, value in self.figures.items():
            log("%s: %s" % (name, value))
        log("wall time %.0f s" % seconds)
        with open(os.path.join(fh.BUILD_DIR, "fleet-agent-faults.json"), "w") as f:
            json.dump({"results": self.results, "figures": self.figures,
                       "failures": self.failures, "seconds": round(seconds)}, f, indent=1)
        for failure in self.failures:
            log("FAIL: " + failure)
        if not self.failures:
            log("PASS")
        return 1 if self.failures else 0


class CrowdTest(fh.FleetTest):
    """CROWD agents, each its own host, through PgBouncer."""

    def __init__(self):
        super().__init__("fc", "10.231.21")

    def enrol(self, count):
        names = ["crowd%03d" % i for i in range(1, count + 1)]
        started = time.monotonic()
        # One after the other: add-host signs with the CA's serial file.
        for name in names:
            self.add_host(name)
        log("-- %d hosts enrolled in %.0f s" % (count, time.monotonic() - started))
        return names

    def main(self):
        started = time.monotonic()
        try:
            self.setup()
            self.start_pgbouncer()
            names = self.enrol(CROWD)
            agents = []
            for name in names:
                folder = os.path.join(self.agent.varlog, name)
                os.makedirs(folder)
                agents.append(self.agent_on(
                    self.agent, name, self.conninfo(name, port=fh.BOUNCER_PORT),
                    event_log="/var/log/%s/events.log" % name,
                    backfill_log="/var/log/%s/backfill.log" % name, heartbeat_seconds=5))
            samples = []
            stop = threading.Event()

            def sample():
                while not stop.is_set():
                    samples.append((self.server_connections(), self.pools()))
                    stop.wait(0.5)
            sampler = threading.Thread(target=sample)
            sampler.start()
            for agent in agents:
                agent.start()
            # Half before and half after the agents came up.
            for half in range(2):
                for name in names:
                    self.write_events(os.path.join(self.agent.varlog, name, "events.log"),
                                      1 + half * CROWD_LINES // 2, CROWD_LINES // 2)
            wanted = CROWD * CROWD_LINES
            total = lambda: int(self.psql("SELECT count(*) FROM qirn_fleet.events"))  # noqa
            shipped_at = time.monotonic()
            have = self.wait_quiet(total, wanted, 20, 300)
            seconds = time.monotonic() - shipped_at
            stop.set()
            sampler.join()
            per_host = self.psql("SELECT h.name, count(*), count(DISTINCT e.line) FROM "
                                 "qirn_fleet.hosts h LEFT JOIN qirn_fleet.events e ON "
                                 "e.host_id = h.id WHERE h.name LIKE 'crowd%' GROUP BY h.name")
            short = []
            for row in per_host.splitlines():
                name, count, distinct = row.split("\x1f")
                if int(count) != CROWD_LINES or int(distinct) != CROWD_LINES:
                    short.append((name, int(count), int(distinct)))
            failed = [a.name for a in agents if not a.running()]
            peak_server = max(s[0] for s in samples) if samples else -1
            peak_pools = max(s[1] for s in samples) if samples else -1
            for agent in agents:
                status = agent.stop(signal.SIGTERM)
                if status != 0:
                    failed.append("%s exit %s" % (agent.name, status))
            self.figures = {"agents": CROWD, "events called for": wanted, "stored": have,
                            "seconds to store": round(seconds, 1),
                            "server connections, peak (pg_stat_activity)": peak_server,
                            "server connections, peak (SHOW POOLS)": peak_pools,
                            "bound (max_db_connections)": self.bound}
            for key, value in self.figures.items():
                log("   %s: %s" % (key, value))
            if have != wanted or short:
                self.failures.append("%d of %d lines stored; hosts not exactly %d: %s" %
                                     (have, wanted, CROWD_LINES, short[:5]))
            if peak_server > self.bound or peak_pools > self.bound:
                self.failures.append("server connections above the bound %d: %d / %d" %
                                     (self.bound, peak_server, peak_pools))
            if failed:
                self.failures.append("agents ended or exited badly: %s" % failed[:5])
        except Exception:
            self.dump()
            raise
        finally:
            self.cleanup()
        log("wall time %.0f s" % (time.monotonic() - started))
        with open(os.path.join(fh.BUILD_DIR, "fleet-agent-crowd.json"), "w") as f:
            json.dump({"figures": self.figures, "failures": self.failures}, f, indent=1)
        for failure in self.failures:
            log("FAIL: " + failure)
        if not self.failures:
            log("PASS")
        return 1 if self.failures else 0


def main():
    if len(sys.argv) != 2 or sys.argv[1] not in ("faults", "crowd"):
        log("usage: fleet_agent_e2e.py faults|crowd")
        return 2
    status = fh.preflight([fh.BINARY, fh.AGENT, fh.CONVERT])
    if status is not None:
        return status
    return (FaultsTest() if sys.argv[1] == "faults" else CrowdTest()).main()


if __name__ == "__main__":
    sys.exit(main())
