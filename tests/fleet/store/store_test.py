#!/usr/bin/env python3
"""The fleet store: its SQL and qirn-fleet-admin against a private
PostgreSQL 15 from the Debian 12 root (see pgstore.py).

An old kit's database with rows in it is made first and upgraded by `init`;
then every subcommand (with its refusals, which must leave nothing changed),
the host calls' semantics and errors, hostile bytes, the row-level security,
the indexes the fetch and the readers' questions use (EXPLAIN), the ship rate
against a COPY of the same rows, and the loop's fetch from a small and a big
store. The speed figures are printed, not asserted: they are the benchmark's
(QLC_STORE_BIG_ROWS=5000000 gives the big store of the fetch goal).

    store_test.py

Exit 0 when all holds, 1 when not, 77 when the machine cannot run it.
QLC_STORE_BIG_ROWS sets the big store's size (default 300,000).
"""

import hashlib
import os
import re
import shutil
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import pgstore  # noqa: E402
from pgstore import log, wait_until  # noqa: E402

CONF = "/run/qlc/store.conf"
ADMIN = "/run/qlc/kit/qirn-fleet-admin"
ZONE = "Europe/Berlin"
BIG_ROWS = int(os.environ.get("QLC_STORE_BIG_ROWS", "300000"))


class Failures:
    def __init__(self):
        self.items = []

    def check(self, ok, what, detail=""):
        if ok:
            log("ok   " + what)
        else:
            log("FAIL " + what + (": " + str(detail)[:1500] if detail else ""))
            self.items.append(what)
        return ok


def sqlstate(result):
    """The SQLSTATE of a failed psql run (VERBOSITY verbose prints it)."""
    if isinstance(result, tuple):
        m = re.search(r"ERROR:\s+([0-9A-Z]{5}):", result[1])
        return m.group(1) if m else result[1][:300]
    return None


def lit(text):
    """A dollar-quoted literal of any bytes but NUL (given as latin-1 text)."""
    return "$q$" + text + "$q$"


def line(time_written, container, event, path, status):
    return "%s,container_id=%s,Event=%s,path=%s,status=%s" % (time_written, container, event,
                                                               path, status)


def ship_sql(agent, stream, expected, offset, key, end, lines, unparsed=()):
    arr = "ARRAY[%s]::text[]" % ",".join(lit(x) for x in lines) if lines else "'{}'::text[]"
    ua = "ARRAY[%s]::bytea[]" % ",".join("'\\x%s'::bytea" % b.hex() for b, _ in unparsed) \
        if unparsed else "'{}'::bytea[]"
    ur = "ARRAY[%s]::text[]" % ",".join(lit(r) for _, r in unparsed) if unparsed else \
        "'{}'::text[]"
    return ("SELECT stored, duplicates, unparsed FROM qirn_fleet.agent_ship(%s, %s, %s, %d, %s, "
            "%d, %s, %s, %s, %s);" % (lit(agent), lit(stream), lit(expected), offset, lit(key),
                                      end, lit(ZONE), arr, ua, ur))


class StoreTest:
    def __init__(self):
        self.f = Failures()
        self.s = pgstore.Store()
        self.figures = {}
        old = os.path.join(self.s.qlc, "oldkit")
        shutil.copytree(os.path.join(pgstore.SOURCE_DIR, "tests", "fleet", "store", "old-kit"),
                        old)
        self.textfile = os.path.join(self.s.qlc, "textfile")
        os.makedirs(self.textfile)
        self.write_conf()

    def write_conf(self, **extra):
        settings = {"pghost": "/run/qlc/sock", "pgport": "5433", "sql_dir": "/run/qlc/kit/store",
                    "state_dir": "/run/qlc/state", "ca_dir": "/run/qlc/state/ca",
                    "textfile_dir": "/run/qlc/textfile", "store_host": "127.0.0.1",
                    "store_port": "5433", "partitions_ahead": "3", "retention_months": "13"}
        settings.update(extra)
        with open(self.s.path(CONF), "w") as f:
            f.write("# test settings\n")
            for k, v in settings.items():
                f.write("%s=%s\n" % (k, v))

    def admin(self, *args):
        r = self.s.chroot([ADMIN, "--config", CONF] + list(args))
        return r.returncode, r.stdout.decode(errors="replace"), r.stderr.decode(errors="replace")

    def q(self, sql, user="postgres", **kw):
        return self.s.psql(sql, user=user, **kw)

    def host_snapshot(self):
        return (self.q("SELECT name, role, retired IS NULL FROM qirn_fleet.hosts ORDER BY id"),
                self.q("SELECT rolname, rolcanlogin, rolconnlimit FROM pg_roles "
                       "WHERE rolname LIKE 'qirn_host%' ORDER BY 1", database="postgres"))

    # --- The old kit, upgraded by init ----------------------------------------

    def old_kit(self):
        s = self.s
        r = s.chroot(["psql", "-X", "-q", "-v", "ON_ERROR_STOP=1", "-h", pgstore.SOCKET, "-p",
                      pgstore.PORT, "-U", "postgres", "-d", "postgres", "-f",
                      "/run/qlc/oldkit/qirn-fleet-setup.sql"], user="postgres")
        if r.returncode != 0:
            raise RuntimeError("old kit setup failed: " + r.stderr.decode())
        self.q("""
INSERT INTO qirn_fleet.hosts (sender, role) VALUES
    ('192.0.2.10', 'qirn_host_old-web'), ('old-web.example.org', 'qirn_host_old-web');
CREATE ROLE "qirn_host_old-web" LOGIN IN ROLE qirn_hosts;
SELECT qirn_fleet.store_event('192.0.2.10', l, left(l, 15), 'c1', 'filectl', '/etc/p' || i,
       'enforcing', 'c1|/etc/p' || i || '|' || left(l, 15))
FROM generate_series(1, 50) i,
     LATERAL (SELECT 'Nov 20 10:00:' || lpad(i::text, 2, '0') ||
              ',container_id=c1,Event=filectl,path=/etc/p' || i || ',status=enforcing' AS l) x;
SELECT qirn_fleet.store_event('198.51.100.7', 'Nov 21 11:00:00,container_id=c9,Event=exectl,'
       'path=/bin/sh,status=permissive', 'Nov 21 11:00:00', 'c9', 'exectl', '/bin/sh',
       'permissive', 'c9|/bin/sh|Nov 21 11:00:00');
SELECT qirn_fleet.store_unparsed('192.0.2.10', 'hello', 'not an event line');
""")
        self.old_digests = self.q("SELECT string_agg(encode(key_digest, 'hex'), ',' ORDER BY "
                                  "key_digest) FROM qirn_fleet.events")

    def check_migrated(self):
        f = self.f
        f.check(self.q("SELECT max(version) FROM qirn_fleet.schema_version") == "1",
                "migration: schema_version records version 1")
        hosts = self.q("SELECT name, role, retired IS NULL FROM qirn_fleet.hosts ORDER BY name")
        f.check("old-web\x1fqirn_host_old-web\x1ft" in hosts and "legacy-198.51.100.7" in hosts,
                "migration: the old role became a host, an unclaimed sender a retired one", hosts)
        counts = self.q("SELECT h.name, count(*) FROM qirn_fleet.events e JOIN qirn_fleet.hosts h "
                        "ON h.id = e.host_id GROUP BY 1 ORDER BY 1")
        f.check(counts == "legacy-198.51.100.7\x1f1\nold-web\x1f50", "migration: rows kept per host",
                counts)
        digests = self.q("SELECT string_agg(encode(key_digest, 'hex'), ',' ORDER BY key_digest) "
                         "FROM qirn_fleet.events")
        f.check(digests == self.old_digests, "migration: digests computed again are the old ones")
        f.check(self.q("SELECT encode(line, 'escape') || '/' || reason FROM qirn_fleet.unparsed")
                == "hello/not an event line", "migration: unparsed rows kept as bytes")
        f.check(self.q("SELECT count(*) FROM pg_class WHERE relname LIKE 'legacy%' OR relnamespace = to_regnamespace('qirn_fleet_legacy')") == "0",
                "migration: the old tables are gone")
        role = self.q("SELECT rolconnlimit, array_to_string(rolconfig, ' ') FROM pg_roles WHERE "
                      "rolname = 'qirn_host_old-web'", database="postgres")
        f.check(role.startswith("4\x1f") and "statement_timeout=60s" in role,
                "migration: the old host role got its limits", role)
        counts = self.q("SELECT sum(events) FROM qirn_fleet.event_counts")
        f.check(counts == "51", "migration: counts per host, kind and status", counts)

    # --- Admin -------------------------------------------------------------------

    def admin_checks(self):
        f = self.f
        # As an earlier init left them: the server's pair under the state directory.
        data = self.s.path(pgstore.DATA)
        state_server = self.s.path("/run/qlc/state/server")
        os.makedirs(state_server, exist_ok=True)
        for ext in ("crt", "key"):
            shutil.move(os.path.join(data, "qirn-fleet-server." + ext),
                        os.path.join(state_server, "server." + ext))
        earlier = open(os.path.join(state_server, "server.crt")).read()
        self.q("ALTER SYSTEM SET ssl_cert_file = '/run/qlc/state/server/server.crt'; "
               "ALTER SYSTEM SET ssl_key_file = '/run/qlc/state/server/server.key'; "
               "SELECT pg_reload_conf()", database="postgres")
        rc, out, err = self.admin("init")
        f.check(rc == 0, "init again is safe", err)
        self.tls_file_checks(earlier)
        # A new server certificate: its pair out of the data directory, init again.
        for ext in ("crt", "key"):
            os.remove(os.path.join(data, "qirn-fleet-server." + ext))
        rc, out, err = self.admin("init")
        now = open(os.path.join(data, "qirn-fleet-server.crt")).read()
        f.check(rc == 0 and now != earlier and
                open(os.path.join(state_server, "server.crt")).read() == now and
                self.q("SHOW ssl_cert_file", database="postgres") ==
                pgstore.DATA + "/qirn-fleet-server.crt",
                "init makes a new server certificate when the data directory has none", err)
        hba = open(self.s.path("/run/qlc/pgdata/pg_hba.conf")).read().splitlines()
        f.check(hba[0].startswith("# BEGIN qirn-fleet-store") and
                sum(1 for x in hba if x.startswith("# BEGIN qirn-fleet-store")) == 1 and
                "local all postgres peer" in hba,
                "init: one marked pg_hba block before the lines that were there", hba[:8])
        f.check(self.q("SHOW ssl") == "on", "init: TLS on")
        rc, out, err = self.admin("migrate")
        f.check(rc == 0 and "schema at version 1, nothing to do" in out, "migrate at the newest "
                "version does nothing", out + err)
        for name, extra in (("web-01", []), ("web-02", ["--password"]), ("web-03", []),
                            ("web-04", [])):
            rc, out, err = self.admin("add-host", name, *extra)
            f.check(rc == 0 and "conninfo=host=127.0.0.1 port=5433 dbname=qirn_fleet user="
                    "qirn_host_%s" % name in out, "add-host %s %s" % (name, extra), out + err)
        out_dir = self.s.path("/run/qlc/state/hosts/web-01")
        f.check(sorted(os.listdir(out_dir)) == ["fleet-agent.crt", "fleet-agent.key", "fleet-ca.pem",
                                                "qirn-fleet-agent.conf"],
                "add-host: the files to copy", os.listdir(out_dir))
        role = self.q("SELECT rolconnlimit, array_to_string(rolconfig, ' ') FROM pg_roles WHERE "
                      "rolname = 'qirn_host_web-01'", database="postgres")
        f.check(role == "4\x1fstatement_timeout=60s idle_in_transaction_session_timeout=30s "
                "lock_timeout=10s", "add-host: connection limit and timeouts", role)
        # Refusals leave the hosts and roles as they were.
        before = self.host_snapshot()
        for args, says in ((["add-host", "Bad_Name"], "not a valid host name"),
                           (["add-host", "-x"], "usage"),
                           (["add-host", "web-01"], "exists already"),
                           (["add-host", "a" * 51], "not a valid host name"),
                           (["retire-host", "nosuch"], "no host named nosuch"),
                           (["rename-host", "nosuch", "x"], "no host named nosuch"),
                           (["rename-host", "web-01", "web-02"], "exists already"),
                           (["rename-host", "web-01", "UP"], "not a valid host name"),
                           (["retention", "--months", "0"], "at least 1"),
                           (["frobnicate"], "unknown command")):
            rc, out, err = self.admin(*args)
            f.check(rc != 0 and says in err, "refused: %s" % " ".join(args), (rc, err))
        f.check(self.host_snapshot() == before, "refusals changed nothing")
        # A role of that name made by hand: add-host fails inside its transaction.
        self.q('CREATE ROLE "qirn_host_web-09"', database="postgres")
        rc, out, err = self.admin("add-host", "web-09")
        f.check(rc != 0 and "adding host web-09 failed, nothing was changed" in err and
                self.q("SELECT count(*) FROM qirn_fleet.hosts WHERE name = 'web-09'") == "0" and
                not os.path.exists(self.s.path("/run/qlc/state/hosts/web-09")),
                "add-host failing in its transaction leaves no row and no files", err)
        self.q('DROP ROLE "qirn_host_web-09"', database="postgres")

        # TLS logins: certificate, password; wrong ones refused.
        self.tls_checks(out_dir)
        self.purge_checks()

        # The database down: a clear refusal, nothing made.
        self.s.stop()
        for args in (["status"], ["add-host", "web-05"], ["hosts"]):
            rc, out, err = self.admin(*args)
            f.check(rc != 0 and "not reachable" in err, "database down: %s refused" % args[0], err)
        rc, out, err = self.admin("metrics")
        prom = open(os.path.join(self.textfile, "qirn_fleet_store.prom")).read()
        f.check(rc != 0 and "qirn_fleet_store_up 0" in prom, "metrics with the database down", err)
        f.check(not os.path.exists(self.s.path("/run/qlc/state/hosts/web-05")),
                "database down: no files for web-05")
        self.s.start()

    def tls_file_checks(self, earlier):
        f = self.f
        data = self.s.path(pgstore.DATA)
        names = {"ssl_cert_file": "qirn-fleet-server.crt", "ssl_key_file": "qirn-fleet-server.key",
                 "ssl_ca_file": "qirn-fleet-ca.crt"}
        for setting, name in names.items():
            value = self.q("SHOW %s" % setting, database="postgres")
            f.check(value == pgstore.DATA + "/" + name,
                    "init: %s names the data directory's %s" % (setting, name), value)
            st = os.stat(os.path.join(data, name))
            f.check(st.st_uid == self.s.uid and
                    (st.st_mode & 0o777) == (0o600 if name.endswith(".key") else 0o644),
                    "init: %s owned by postgres, mode %o" % (name, st.st_mode & 0o777))
        state_server = self.s.path("/run/qlc/state/server")
        f.check(open(os.path.join(data, "qirn-fleet-server.crt")).read() == earlier,
                "init: an earlier init's server certificate moved into the data directory")
        f.check(all(open(os.path.join(data, "qirn-fleet-server." + ext), "rb").read() ==
                    open(os.path.join(state_server, "server." + ext), "rb").read()
                    for ext in ("crt", "key")) and
                os.stat(state_server).st_uid == self.s.uid and
                (os.stat(state_server).st_mode & 0o777) == 0o700,
                "init: PgBouncer's copy of the pair in the state directory is the same")
        f.check(open(os.path.join(data, "qirn-fleet-ca.crt")).read() ==
                open(self.s.path("/run/qlc/state/ca/ca.crt")).read(),
                "init: the data directory's CA file is the fleet CA")

    def connect(self, conninfo, env=None):
        r = self.s.chroot(["psql", "-X", "-A", "-t", "-d", conninfo, "-c",
                           "SELECT session_user || ' ' || (SELECT ssl FROM pg_stat_ssl WHERE "
                           "pid = pg_backend_pid())"], env=env)
        return r.returncode, r.stdout.decode().strip(), r.stderr.decode()

    def tls_checks(self, out_dir):
        f = self.f
        connect = self.connect

        base = ("host=127.0.0.1 port=5433 dbname=qirn_fleet sslmode=verify-full "
                "sslrootcert=/run/qlc/state/hosts/web-01/fleet-ca.pem")
        cert = (" sslcert=/run/qlc/state/hosts/web-01/fleet-agent.crt "
                "sslkey=/run/qlc/state/hosts/web-01/fleet-agent.key")
        rc, out, err = connect(base + " user=qirn_host_web-01" + cert)
        f.check(rc == 0 and out == "qirn_host_web-01 true", "certificate login over verify-full",
                out + err)
        rc, out, err = connect(base + " user=qirn_host_web-03" + cert)
        f.check(rc != 0, "another host's certificate is refused", out)
        rc, out, err = connect(base + " user=qirn_host_web-02 "
                               "passfile=/run/qlc/state/hosts/web-02/fleet-agent.pgpass")
        f.check(rc == 0 and out == "qirn_host_web-02 true", "password login from the passfile",
                out + err)
        rc, out, err = connect(base + " user=qirn_host_web-02 password=wrong")
        f.check(rc != 0, "a wrong password is refused", out)
        self.cert = base + cert
        self.renew_checks(base, cert)

    def subject(self, path):
        r = self.s.chroot(["openssl", "x509", "-noout", "-subject", "-nameopt", "RFC2253", "-in",
                           path])
        return r.stdout.decode().strip()

    def renew_checks(self, base, cert):
        f = self.f
        web01 = self.s.path("/run/qlc/state/hosts/web-01")
        web02 = self.s.path("/run/qlc/state/hosts/web-02")

        def files(d):
            return {n: open(os.path.join(d, n), "rb").read() for n in sorted(os.listdir(d))}

        old01, old02 = files(web01), files(web02)
        rc, out, err = self.admin("renew-host", "web-01")
        new01 = files(web01)
        f.check(rc == 0 and "conninfo=host=127.0.0.1 port=5433 dbname=qirn_fleet user="
                "qirn_host_web-01 " in out and "sslcert=/etc/qirn/fleet-agent.crt" in out and
                sorted(new01) == sorted(old01), "renew-host web-01: the certificate host's files",
                out + err)
        f.check(new01["fleet-agent.key"] != old01["fleet-agent.key"] and
                new01["fleet-agent.crt"] != old01["fleet-agent.crt"] and
                self.subject("/run/qlc/state/hosts/web-01/fleet-agent.crt") ==
                "subject=CN=qirn_host_web-01" and
                (os.stat(os.path.join(web01, "fleet-agent.key")).st_mode & 0o777) == 0o640,
                "renew-host: a new key and certificate, CN unchanged",
                self.subject("/run/qlc/state/hosts/web-01/fleet-agent.crt"))
        rc, out, err = self.connect(base + " user=qirn_host_web-01" + cert)
        f.check(rc == 0 and out == "qirn_host_web-01 true", "the renewed certificate logs in",
                out + err)
        old_password = old02["fleet-agent.pgpass"].decode().strip().split(":")[-1]
        rc, out, err = self.admin("renew-host", "web-02")
        new02 = files(web02)
        f.check(rc == 0 and "passfile=/etc/qirn/fleet-agent.pgpass" in out and
                new02["fleet-agent.pgpass"] != old02["fleet-agent.pgpass"] and
                (os.stat(os.path.join(web02, "fleet-agent.pgpass")).st_mode & 0o777) == 0o600,
                "renew-host web-02: a new password file", out + err)
        rc, out, err = self.connect(base + " user=qirn_host_web-02 "
                                    "passfile=/run/qlc/state/hosts/web-02/fleet-agent.pgpass")
        f.check(rc == 0 and out == "qirn_host_web-02 true", "the renewed password logs in",
                out + err)
        rc, out, err = self.connect(base + " user=qirn_host_web-02 password=" + old_password)
        f.check(rc != 0, "the password before the renewal is refused", out)
        # Refusals change no role and no file.
        before = self.host_snapshot(), files(web01), files(web02)
        for args, says in ((["renew-host", "nosuch"], "no host named nosuch"),
                           (["renew-host", "Web-01"], "not a valid host name"),
                           (["renew-host", "web-01", "--bogus"], "usage"),
                           (["renew-host"], "usage")):
            rc, out, err = self.admin(*args)
            f.check(rc != 0 and says in err, "refused: %s" % " ".join(args), (rc, err))
        f.check((self.host_snapshot(), files(web01), files(web02)) == before,
                "renew-host refusals changed nothing")

    def purge_checks(self):
        """The store's package purged (its state directory gone): PostgreSQL
        starts again with the TLS settings init made, and hosts log in."""
        f = self.f
        state = self.s.path("/run/qlc/state")
        self.s.stop()
        os.rename(state, state + ".purged")
        try:
            started = True
            try:
                self.s.start()
            except RuntimeError as e:
                started = False
                f.check(False, "after a purge the server starts", e)
            if started:
                f.check(self.q("SHOW ssl") == "on", "after a purge the server starts, TLS on")
                rc, out, err = self.connect(self.cert.replace("/run/qlc/state/",
                                                              "/run/qlc/state.purged/") +
                                            " user=qirn_host_web-01")
                f.check(rc == 0 and out == "qirn_host_web-01 true",
                        "after a purge a certificate login over verify-full", out + err)
                self.s.stop()
        finally:
            os.rename(state + ".purged", state)

    def admin_after_ship(self):
        f = self.f
        rc, out, err = self.admin("hosts")
        rows = {x.split("|")[0].strip(): [c.strip() for c in x.split("|")]
                for x in out.splitlines() if "|" in x}
        f.check(rc == 0 and rows.get("web-01", [""])[-1] == "no" and
                rows.get("web-04", [""])[-1] == "yes",
                "hosts: web-01 heard from, web-04 silent", out + err)
        rc, out, err = self.admin("rename-host", "web-01", "web-01b")
        n = self.q("SELECT count(*) FROM qirn_fleet.fleet_events WHERE host = 'web-01b'")
        f.check(rc == 0 and int(n) > 0, "rename-host: the rows follow the host", out + err)
        rc, out, err = self.admin("renew-host", "web-01b", "--out", "/run/qlc/renew-01b")
        f.check(rc == 0 and " user=qirn_host_web-01 " in out and
                self.subject("/run/qlc/renew-01b/fleet-agent.crt") ==
                "subject=CN=qirn_host_web-01", "renew-host of a renamed host keeps its role",
                out + err)
        self.q("UPDATE qirn_fleet.hosts SET name = 'web-01' WHERE name = 'web-01b'")
        rc, out, err = self.admin("retire-host", "web-03")
        f.check(rc == 0, "retire-host web-03", err)
        r = self.q("SELECT 1", user="qirn_host_web-03", check=False)
        f.check(isinstance(r, tuple), "a retired host cannot log in", r)
        rc, out, err = self.admin("retire-host", "web-03")
        f.check(rc != 0 and "retired already" in err, "retire-host twice is refused", err)
        web03 = self.s.path("/run/qlc/state/hosts/web-03")
        files03 = {n: open(os.path.join(web03, n), "rb").read() for n in os.listdir(web03)}
        before = self.host_snapshot()
        rc, out, err = self.admin("renew-host", "web-03")
        f.check(rc != 0 and "retired" in err and self.host_snapshot() == before and
                {n: open(os.path.join(web03, n), "rb").read() for n in os.listdir(web03)} ==
                files03, "renew-host of a retired host is refused, nothing changed", err)
        rc, out, err = self.admin("metrics")
        prom = open(os.path.join(self.textfile, "qirn_fleet_store.prom")).read()
        f.check(rc == 0 and "qirn_fleet_store_up 1" in prom and
                'qirn_fleet_host_enrolled{host="web-01"} 1' in prom and
                'qirn_fleet_host_silent{host="web-04"} 1' in prom and
                'qirn_fleet_host_silent{host="web-01"} 0' in prom and
                'host="web-03"' not in prom and
                re.search(r'qirn_fleet_host_events_total\{host="web-01",event="filectl",'
                          r'status="permissive"\} [1-9]', prom),
                "metrics: the store's textfile", prom[:3000])
        r = self.s.chroot(["sh", "-c", "promtool check metrics < /run/qlc/textfile/"
                                       "qirn_fleet_store.prom"])
        f.check(r.returncode == 0, "metrics: promtool check metrics",
                r.stdout.decode() + r.stderr.decode())
        rc, out, err = self.admin("status")
        f.check(rc == 0 and "schema version:   1" in out and "tls:              on" in out,
                "status", out + err)

    def partitions_and_retention(self):
        f = self.f
        # An event five months ahead waits in events_other until its month is made.
        ahead = self.q("SELECT to_char(now() + interval '5 months', 'Mon DD') || ' 12:00:00'")
        self.heartbeat("qirn_host_web-04", "agent-4")
        r = self.q(ship_sql("agent-4", "events", "", 0, "k4", 10,
                            [line(ahead, "c4", "netctl", "/future", "enforcing")]),
                   user="qirn_host_web-04")
        waiting = self.q("SELECT count(*) FROM qirn_fleet.events_other WHERE path = '/future'")
        before = int(self.q("SELECT count(*) FROM qirn_fleet.events_other"))
        f.check(r == "1\x1f0\x1f0" and waiting == "1", "a month not made yet: the row waits",
                (r, waiting))
        self.write_conf(partitions_ahead="6")
        rc, out, err = self.admin("partitions")
        moved = self.q("SELECT count(*) FROM qirn_fleet.events_other WHERE event_at >= "
                       "date_trunc('month', now() AT TIME ZONE 'UTC')")
        after = int(self.q("SELECT count(*) FROM qirn_fleet.events_other"))
        where = self.q("SELECT tableoid::regclass FROM qirn_fleet.events WHERE path = '/future'")
        f.check(rc == 0 and moved == "0" and after < before and
                where.startswith("qirn_fleet.events_2"),
                "partitions: the months ahead made, the waiting row moved", (out, err, where))
        self.write_conf()
        # An old month, past retention.
        self.q("SET ROLE qirn_fleet_owner; SELECT qirn_fleet.make_partitions("
               "(now() - interval '20 months')::date, 1); RESET ROLE; "
               "INSERT INTO qirn_fleet.events (host_id, event_at, time_written, container_id, "
               "event, path, status, line, key_digest) SELECT id, now() - interval '20 months', "
               "'x', 'c', 'exectl', '/old', 'enforcing', 'x', '\\x00' FROM qirn_fleet.hosts "
               "WHERE name = 'web-04'")
        before = self.q("SELECT count(*) FROM qirn_fleet.events WHERE path <> '/old'")
        rc, out, err = self.admin("retention")
        after = self.q("SELECT count(*) FROM qirn_fleet.events WHERE path <> '/old'")
        gone = self.q("SELECT count(*) FROM qirn_fleet.events WHERE path = '/old'")
        f.check(rc == 0 and "events_" in out and gone == "0" and before == after,
                "retention: the months past it dropped, the rest kept", (out, err, before, after))

    # --- The host calls ------------------------------------------------------------

    def heartbeat(self, role, agent, seconds=30):
        return self.q("SELECT qirn_fleet.agent_heartbeat(%s, %s, %d, 0, 0)" %
                      (lit(agent), lit(ZONE), seconds), user=role, check=False)

    def ship_checks(self):
        f = self.f
        a = "qirn_host_web-01"
        b = "qirn_host_web-02"
        f.check(self.heartbeat(a, "web-01:1:100") == "", "heartbeat takes the lease")
        f.check(self.q("SELECT count(*) FROM qirn_fleet.agent_position('events')", user=a) == "0",
                "no position before the first ship")
        tab = line("Nov 24 10:00:01", "c\t1", "filectl", "/a\tb", "permissive")
        esc = line("Nov 24 10:00:02", "c1", "filectl", "/a\x1b[31mred", "permissive")
        cr = line("Nov 24 10:00:03", "c1", "filectl", "/a\rb", "permissive")
        high = line("Nov 24 10:00:04", "c\xe9", "filectl", "/\x80\xff\xc3(", "permissive")
        inside = line("Nov 24 10:00:05", "c1", "exectl", "/p,status=enforcing/x", "permissive")
        long_path = "/" + "L" * 2999
        longl = line("Nov 24 10:00:06", "c1", "netctl", long_path, "enforcing")
        tricky = line("Nov 24 10:00:07", "c,Event=zzz,path=q", "filectl", "/p,Event=exectl,path=/r",
                      "enforcing")
        bad = ["garbage", "Nov 24 10:00:08,container_id=c1,Event=filectl,path=/x,status=other",
               "Feb 30 10:00:00,container_id=c1,Event=filectl,path=/x,status=enforcing"]
        lines = [tab, esc, cr, high, inside, longl, tricky] + bad
        r = self.q(ship_sql("web-01:1:100", "events", "", 0, "1:2:64:aa", 1000, lines,
                            [(b"a\x00b", "line holds a NUL byte")]), user=a)
        f.check(r == "7\x1f0\x1f4", "ship: 7 stored, 0 duplicates, 4 unparsed", r)
        stored = self.q("SELECT encode(textsend(line), 'hex') FROM qirn_fleet.events "
                        "WHERE host_id = (SELECT qirn_fleet.session_host()) ORDER BY event_at",
                        user=a).split("\n")
        f.check(stored == [x.encode("latin-1").hex() for x in lines[:7]],
                "hostile bytes stored byte-exact (tab, ESC, CR, >= 0x80, a 3,000-byte path)",
                stored[:3])
        fields = self.q("SELECT encode(textsend(container_id), 'hex'), event, "
                        "encode(textsend(path), 'hex'), status FROM qirn_fleet.events ORDER BY "
                        "event_at", user=a).split("\n")
        want = []
        for t, c, e, p, s in (("", "c\t1", "filectl", "/a\tb", "permissive"),
                              ("", "c1", "filectl", "/a\x1b[31mred", "permissive"),
                              ("", "c1", "filectl", "/a\rb", "permissive"),
                              ("", "c\xe9", "filectl", "/\x80\xff\xc3(", "permissive"),
                              ("", "c1", "exectl", "/p,status=enforcing/x", "permissive"),
                              ("", "c1", "netctl", long_path, "enforcing"),
                              ("", "c,Event=zzz,path=q", "filectl", "/p,Event=exectl,path=/r",
                               "enforcing")):
            want.append("\x1f".join([c.encode("latin-1").hex(), e, p.encode("latin-1").hex(), s]))
        f.check(fields == want, "fields found by the event line's anchors", fields[:2])
        digest = hashlib.sha256(b"c1|/p,status=enforcing/x|Nov 24 10:00:05").hexdigest()
        f.check(self.q("SELECT encode(key_digest, 'hex') FROM qirn_fleet.events WHERE "
                       "time_written = 'Nov 24 10:00:05'", user=a) == digest,
                "the store computes the key digest from the row")
        unp = self.q("SELECT reason || '=' || encode(line, 'hex') FROM qirn_fleet.unparsed ORDER "
                     "BY id", user=a).split("\n")
        f.check(unp == ["not an event line=" + b"garbage".hex(),
                        "not an event line=" + bad[1].encode().hex(),
                        "time is not a date=" + bad[2].encode().hex(),
                        "line holds a NUL byte=610062"], "unparsed lines kept with reasons", unp)
        inst = self.q("SELECT event_at, event_instant AT TIME ZONE 'UTC' FROM qirn_fleet.events "
                      "WHERE time_written = 'Nov 24 10:00:01'", user=a)
        year = self.q("SELECT extract(year FROM now())::int")
        f.check(inst == "%s-11-24 10:00:01\x1f%s-11-24 09:00:01" % (year, year) or
                not time.strftime("%m") in ("10", "11", "12"),
                "the time as written and its instant in the agent's zone", inst)
        f.check(self.q("SELECT file_key, file_offset FROM qirn_fleet.agent_position('events')",
                       user=a) == "1:2:64:aa\x1f1000", "the position moved with the rows")
        # The same lines again, from the position: all duplicates.
        r = self.q(ship_sql("web-01:1:100", "events", "1:2:64:aa", 1000, "1:2:64:aa", 2000,
                            lines[:7]), user=a)
        f.check(r == "0\x1f7\x1f0", "the same events again are duplicates", r)
        # QF001: a stale position stores nothing.
        n0 = self.q("SELECT count(*) FROM qirn_fleet.events", user=a)
        r = self.q(ship_sql("web-01:1:100", "events", "1:2:64:aa", 1000, "1:2:64:aa", 3000,
                            [line("Nov 24 11:00:00", "c1", "filectl", "/new", "enforcing")],
                            [(b"x", "y")]), user=a, check=False)
        f.check(sqlstate(r) == "QF001" and
                self.q("SELECT count(*) FROM qirn_fleet.events", user=a) == n0 and
                self.q("SELECT count(*) FROM qirn_fleet.unparsed", user=a) == "4",
                "QF001: the position moved, nothing of the call stored", r)
        r = self.q(ship_sql("web-01:1:100", "backfill", "x", 5, "k", 10, []), user=a, check=False)
        f.check(sqlstate(r) == "QF001", "QF001: a first ship must expect ('', 0)", r)
        # QF002: another agent while the lease is held; free after release.
        r = self.q(ship_sql("web-01:2:200", "events", "1:2:64:aa", 2000, "1:2:64:aa", 2100,
                            []), user=a, check=False)
        f.check(sqlstate(r) == "QF002" and "web-01:1:100" in r[1],
                "QF002: the lease holder named", r)
        r = self.heartbeat(a, "web-01:2:200")
        f.check(sqlstate(r) == "QF002", "QF002 on a heartbeat too", r)
        self.q("SELECT qirn_fleet.agent_release('web-01:1:100')", user=a)
        r = self.q(ship_sql("web-01:2:200", "events", "1:2:64:aa", 2000, "1:2:64:aa", 2100,
                            [line("Nov 24 11:00:00", "c1", "filectl", "/new", "enforcing")]),
                   user=a, check=False)
        f.check(r == "1\x1f0\x1f0", "after agent_release another agent ships", r)
        self.agent = "web-01:2:200"
        self.position = 2100
        # QF003: a role that is no active host.
        self.q("UPDATE qirn_fleet.hosts SET retired = now() WHERE name = 'web-04'")
        r = self.q("SELECT * FROM qirn_fleet.agent_position('events')", user="qirn_host_web-04",
                   check=False)
        r2 = self.heartbeat("qirn_host_web-04", "x")
        f.check(sqlstate(r) == "QF003" and sqlstate(r2) == "QF003",
                "QF003: a retired host's calls", (r, r2))
        self.q("UPDATE qirn_fleet.hosts SET retired = NULL WHERE name = 'web-04'")
        self.q('CREATE ROLE "qirn_host_ghost" LOGIN PASSWORD \'ghost-pw\' IN ROLE qirn_hosts, '
               'qirn_hosts_password', database="postgres")
        r = self.s.chroot(["psql", "-X", "-A", "-t", "-v", "VERBOSITY=verbose", "-d",
                           "host=127.0.0.1 port=5433 dbname=qirn_fleet user=qirn_host_ghost "
                           "password=ghost-pw sslmode=require", "-c",
                           "SELECT * FROM qirn_fleet.agent_position('events')"])
        f.check(r.returncode != 0 and "QF003" in r.stderr.decode(),
                "QF003: a host role that was never enrolled", r.stderr.decode())

    def year_rule_checks(self):
        """Times from 179 days back to 179 ahead, shipped: each is stored in the
        year it was made in (the nearest), as event_time reads it too."""
        f = self.f
        rc, out, err = self.admin("add-host", "web-05", "--password")
        role = "qirn_host_web-05"
        self.heartbeat(role, "web-05:1:1")
        base = time.time()
        made = [base + d * 86400 + 3600 * (d % 24) for d in range(-179, 180, 2)]
        zone_now = self.q("SELECT to_char(now() AT TIME ZONE %s, 'YYYY-MM-DD HH24:MI:SS')" %
                          lit(ZONE))
        offset = time.mktime(time.strptime(zone_now, "%Y-%m-%d %H:%M:%S")) - base
        lines, want = [], []
        for t in made:
            wall = time.localtime(t + offset)
            lines.append(line(time.strftime("%b %d %H:%M:%S", wall), "y", "exectl",
                              "/y/%d" % t, "enforcing"))
            want.append(time.strftime("%Y-%m-%d %H:%M:%S", wall))
        r = self.q(ship_sql("web-05:1:1", "events", "", 0, "k5", 1, lines), user=role)
        got = self.q("SELECT to_char(event_at, 'YYYY-MM-DD HH24:MI:SS') FROM qirn_fleet.events "
                     "WHERE container_id = 'y' ORDER BY event_at", user=role).split("\n")
        f.check(r == "%d\x1f0\x1f0" % len(lines) and got == want,
                "the year rule: times within half a year stored in their own year",
                [(g, w) for g, w in zip(got, want) if g != w][:5] or r)
        same = self.q("SELECT count(*) FROM qirn_fleet.events WHERE container_id = 'y' AND "
                      "event_at IS DISTINCT FROM qirn_fleet.event_time(time_written, "
                      "(received AT TIME ZONE %s)::timestamp)" % lit(ZONE))
        f.check(same == "0", "the ship's fast path agrees with event_time", same)
        leap = self.q("SELECT qirn_fleet.event_time('Feb 29 10:00:00', '2027-11-24'), "
                      "qirn_fleet.event_time('Feb 29 10:00:00', '2026-01-10'), "
                      "qirn_fleet.event_time('Dec 31 23:59:59', '2027-01-01 00:00:00'), "
                      "qirn_fleet.event_time('Jan 01 00:00:00', '2026-12-31 23:00:00'), "
                      "qirn_fleet.event_time('Nov 31 00:00:00', '2026-11-24')")
        f.check(leap == "2028-02-29 10:00:00\x1f\x1f2026-12-31 23:59:59\x1f2027-01-01 00:00:00",
                "the year rule at leap days and New Year", leap)

    def security_checks(self):
        f = self.f
        a = "qirn_host_web-01"
        b = "qirn_host_web-02"
        self.heartbeat(b, "web-02:1:1")
        r = self.q(ship_sql("web-02:1:1", "events", "", 0, "k2", 10,
                            [line("Nov 24 12:00:00", "b1", "exectl", "/b", "enforcing")]), user=b)
        f.check(r == "1\x1f0\x1f0", "web-02 ships its own")
        seen = self.q("SELECT count(*) FROM qirn_fleet.events WHERE container_id = 'b1'", user=a)
        f.check(seen == "0", "no host reads another's rows", seen)
        for table in ("events", "unparsed", "positions", "heartbeats", "event_counts", "hosts"):
            n = self.q("SELECT count(*) FROM qirn_fleet.%s WHERE %s <> (SELECT "
                       "qirn_fleet.session_host())" %
                       (table, "id" if table == "hosts" else "host_id"), user=b)
            f.check(n == "0", "web-02 sees no other host's %s" % table, n)
        b_id = self.q("SELECT qirn_fleet.session_host()", user=b)
        for sql in ("INSERT INTO qirn_fleet.events (host_id, event_at, time_written, container_id, "
                    "event, path, status, line, key_digest) VALUES (%s, now(), 'x', 'c', "
                    "'exectl', '/p', 'enforcing', 'x', '\\x00')" % b_id,
                    "INSERT INTO qirn_fleet.unparsed (host_id, reason, line) VALUES (%s, 'r', "
                    "'\\x00')" % b_id,
                    "UPDATE qirn_fleet.events SET status = 'permissive'",
                    "DELETE FROM qirn_fleet.events",
                    "UPDATE qirn_fleet.positions SET file_offset = 0",
                    "DELETE FROM qirn_fleet.heartbeats",
                    "UPDATE qirn_fleet.hosts SET name = 'evil'",
                    "TRUNCATE qirn_fleet.events",
                    "SELECT qirn_fleet.make_partitions(now()::date, 1)",
                    "SELECT * FROM qirn_fleet.events_other",
                    "CREATE TABLE qirn_fleet.mine (x int)"):
            r = self.q(sql, user=a, check=False)
            f.check(sqlstate(r) == "42501", "a host is refused: " + sql[:60], r)
        # The function takes the host from the session: web-01's rows are web-01's.
        owners = self.q("SELECT DISTINCT h.name FROM qirn_fleet.events e JOIN qirn_fleet.hosts h "
                        "ON h.id = e.host_id WHERE e.time_written LIKE 'Nov 24 1%'")
        f.check(sorted(owners.split("\n")) == ["web-01", "web-02"],
                "rows belong to the session's host", owners)
        # Identity across partitions: the unique index spans them.
        r = self.q("INSERT INTO qirn_fleet.events SELECT * FROM qirn_fleet.events LIMIT 1",
                   check=False)
        f.check(sqlstate(r) == "23505", "identity unique across the table", r)
        defs = self.q("SELECT prosecdef, array_to_string(proconfig, ' ') FROM pg_proc p JOIN "
                      "pg_namespace n ON n.oid = p.pronamespace WHERE nspname = 'qirn_fleet' "
                      "AND prosecdef")
        f.check(all("search_path=pg_catalog, pg_temp" in x for x in defs.split("\n")),
                "search_path pinned on every SECURITY DEFINER function", defs)
        forced = self.q("SELECT string_agg(relname, ',') FROM pg_class c JOIN pg_namespace n ON "
                        "n.oid = c.relnamespace WHERE nspname = 'qirn_fleet' AND relkind IN "
                        "('r', 'p') AND relname NOT LIKE 'events_%' AND relname <> "
                        "'schema_version' AND NOT (relrowsecurity AND relforcerowsecurity)")
        f.check(forced == "", "row-level security forced on every table", forced)

    # --- Indexes and speed ---------------------------------------------------------

    def load(self, hosts, rows, first_host_id, days):
        """Rows for hosts that exist only as ids (superuser, as a bulk store
        would hold them): spread over `days` days up to now."""
        self.q("""
INSERT INTO qirn_fleet.events (host_id, event_at, event_instant, time_written, container_id, event,
                               path, status, line, key_digest)
SELECT h, t, t AT TIME ZONE 'UTC', tw, 'c' || (i %% 997), 'filectl', '/data/f' || i, 'enforcing',
       tw || ',container_id=c' || (i %% 997) || ',Event=filectl,path=/data/f' || i ||
       ',status=enforcing', sha256(textsend('c' || (i %% 997) || '|/data/f' || i || '|' || tw))
FROM generate_series(1, %d) i,
     LATERAL (SELECT %d + i %% %d AS h,
              date_trunc('second', (now() AT TIME ZONE 'UTC') -
                         make_interval(secs => ((i::bigint * 7919) %% (%d * 86400))::integer)) AS t) x,
     LATERAL (SELECT to_char(t, 'Mon DD HH24:MI:SS') AS tw) y
ON CONFLICT DO NOTHING;
""" % (rows, first_host_id, hosts, days))
        # As autovacuum would leave it: hint bits set, statistics fresh.
        self.q("VACUUM (ANALYZE) qirn_fleet.events")

    def fetch_time(self, role):
        """The loop's fetch of its window, as the host: the best of ten (the
        machine is shared)."""
        since = self.q("SELECT to_char(now() - interval '8 days', 'YYYY-MM-DD HH24:MI:SS')")
        sql = ("\\o /dev/null\n\\timing on\n" + "\n".join(
            ["SELECT line FROM qirn_fleet.events WHERE host_id = (SELECT "
             "qirn_fleet.session_host()) AND event_at >= '%s'::timestamp;" % since] * 10))
        r = self.s.chroot(["psql", "-X", "-q", "-h", pgstore.SOCKET, "-p", pgstore.PORT, "-U", role,
                           "-d", "qirn_fleet", "-f", "-"], user="postgres", input=sql.encode())
        times = [float(x) for x in re.findall(r"Time: ([0-9.]+) ms", r.stdout.decode())]
        n = self.q("SELECT count(*) FROM qirn_fleet.events WHERE event_at >= '%s'" % since,
                   user=role)
        return min(times) if times else None, int(n)

    def scans_rows(self, plan):
        """True when every sequential scan of the plan reads a (near) empty
        table: the months made ahead hold nothing yet."""
        for name in re.findall(r"Seq Scan on (?:qirn_fleet\.)?(\w+)", plan):
            n = self.q("SELECT coalesce(max(reltuples), 0)::bigint FROM pg_class WHERE relname = "
                       "'%s'" % name)
            if int(n) > 100:
                return True
        return False

    def explain(self, sql, role=None):
        prefix = "SET ROLE %s; " % role if role else ""
        return self.q(prefix + "EXPLAIN " + sql)

    def index_and_speed(self):
        f = self.f
        host = "qirn_host_web-04"
        # web-04: 20,000 events in the window (8 days); others: 30,000.
        web04 = self.q("SELECT id FROM qirn_fleet.hosts WHERE name = 'web-04'")
        self.q("DELETE FROM qirn_fleet.events WHERE host_id = %s" % web04)
        self.load(1, 20000, int(web04), 7)
        self.load(30, 30000, 1000, 7)
        small, n = self.fetch_time(host)
        f.check(n == 20000, "the fetch reads the host's 20,000 events", n)
        plan = self.explain("SELECT line FROM qirn_fleet.events WHERE event_at >= now()::timestamp "
                            "- interval '8 days'", role='"%s"' % host)
        f.check("Index" in plan and not self.scans_rows(plan) and "SubPlan" not in plan,
                "a host's fetch (policy alone) is an index scan", plan)
        plan = self.explain("SELECT line FROM qirn_fleet.events WHERE host_id = (SELECT "
                            "qirn_fleet.session_host()) AND event_at >= now()::timestamp "
                            "- interval '8 days'", role='"%s"' % host)
        f.check("Index" in plan and not self.scans_rows(plan), "the loop's fetch is an index scan",
                plan)
        self.readers_explain()
        self.q("INSERT INTO qirn_fleet.hosts (name, role) SELECT 'bulk-' || g, 'qirn_host_bulk-' "
               "|| g FROM generate_series(1, 1) g")
        t0 = time.monotonic()
        self.load(100, BIG_ROWS - 50000, 2000, 7)
        load_s = time.monotonic() - t0
        big, n2 = self.fetch_time(host)
        total = self.q("SELECT reltuples::bigint FROM pg_class WHERE relname = 'events_other'")
        total = self.q("SELECT sum(reltuples)::bigint FROM pg_class c JOIN pg_inherits i ON "
                       "i.inhrelid = c.oid WHERE i.inhparent = 'qirn_fleet.events'::regclass")
        self.figures["fetch"] = (small, big, total, load_s)
        log("fetch of 20,000 events: %.1f ms from ~50k rows, %.1f ms from ~%s rows (%.0f s "
            "to load)" % (small, big, total, load_s))
        f.check(n2 == 20000, "the fetch from the big store reads the host's 20,000 events", n2)
        plan = self.explain("SELECT line FROM qirn_fleet.events WHERE host_id = (SELECT "
                            "qirn_fleet.session_host()) AND event_at >= now()::timestamp "
                            "- interval '8 days'", role='"%s"' % host)
        f.check("Index" in plan and not self.scans_rows(plan),
                "the loop's fetch from the big store is an index scan", plan)
        log("benchmark: the big store's fetch takes %.2f times the small one's (goal: at most 2)"
            % (big / small if small else 0))

    def readers_explain(self):
        f = self.f
        self.q("DO $$ BEGIN CREATE ROLE alice IN ROLE qirn_readers; EXCEPTION WHEN "
               "duplicate_object THEN NULL; END $$", database="postgres")
        questions = {
            "one host's events over a time range":
                "SELECT at_utc, container_id, event, path, status FROM qirn_fleet.fleet_events "
                "WHERE host = 'web-04' AND at_host >= now()::timestamp - interval '1 day' "
                "ORDER BY at_host",
            "one container fleet-wide":
                "SELECT host, at_utc, event, path, status FROM qirn_fleet.fleet_events "
                "WHERE container_id = 'c17' ORDER BY at_utc",
            "one path fleet-wide":
                "SELECT host, at_utc, container_id, event, status FROM qirn_fleet.fleet_events "
                "WHERE path = '/data/f17' ORDER BY at_utc",
            "counts per kind and status per hour":
                "SELECT * FROM qirn_fleet.fleet_hourly_counts ORDER BY 1, 2, 3",
            "the latest lines that were no event lines":
                "SELECT host, received_utc, reason, line FROM qirn_fleet.fleet_unparsed "
                "ORDER BY received DESC LIMIT 20",
        }
        for what, sql in questions.items():
            plan = self.explain(sql, role="alice")
            f.check("Index" in plan and not self.scans_rows(plan),
                    "readers: %s uses an index" % what, plan)
        n = self.q("SET ROLE alice; SELECT count(DISTINCT host) > 1 FROM qirn_fleet.fleet_events")
        f.check(n == "t", "readers read every host's rows", n)
        r = self.q("SET ROLE alice; DELETE FROM qirn_fleet.events", check=False)
        f.check(sqlstate(r) == "42501", "readers change nothing", r)

    def ship_rate(self):
        f = self.f
        role = "qirn_host_web-02"
        batches, size = 5, 10000
        self.q("INSERT INTO qirn_fleet.hosts (name, role) VALUES ('copy-target', "
               "'qirn_host_copy-target')")
        copy_id = self.q("SELECT id FROM qirn_fleet.hosts WHERE name = 'copy-target'")
        now = time.time()
        all_lines = []
        for i in range(batches * size):
            tw = time.strftime("%b %d %H:%M:%S", time.gmtime(now - 86400 - i))
            all_lines.append((tw, "ctr-%d" % (i % 50), "filectl", "/var/lib/app/file-%07d.dat" % i,
                              "permissive"))
        # Ship and COPY take turns, batch by batch, and each keeps its best
        # batch: the machine is shared, and its load comes and goes.
        copy_id_rows = []
        for tw, c, e, p, s in all_lines:
            at = self.year_rule(tw)
            copy_id_rows.append("\t".join([
                copy_id, at, at + "+00", tw, c, e, p, s, line(tw, c, e, p, s),
                "\\\\x" + hashlib.sha256(("%s|%s|%s" % (c, p, tw)).encode()).hexdigest()]))
        ship_best = copy_best = None
        offset = 10
        failed = []
        for b in range(batches):
            chunk = [line(*x) for x in all_lines[b * size:(b + 1) * size]]
            sql = "\\timing on\n" + ship_sql("web-02:1:1", "events", "k2", offset, "k2",
                                                offset + 1, chunk)
            offset += 1
            r = self.s.chroot(["psql", "-X", "-q", "-A", "-t", "-v", "ON_ERROR_STOP=1", "-h",
                               pgstore.SOCKET, "-p", pgstore.PORT, "-U", role, "-d", "qirn_fleet",
                               "-f", "-"], user="postgres", input=sql.encode("latin-1"))
            t = [float(x) for x in re.findall(r"^Time: ([0-9.]+) ms", r.stdout.decode(), re.M)]
            if r.returncode != 0 or not t:
                failed.append(r.stderr.decode()[-300:])
                continue
            ship_best = min(ship_best or t[0], t[0])
            copy = ("\\timing on\nCOPY qirn_fleet.events (host_id, event_at, event_instant, "
                    "time_written, container_id, event, path, status, line, key_digest) FROM "
                    "STDIN;\n" + "\n".join(copy_id_rows[b * size:(b + 1) * size]) + "\n\\.\n")
            r2 = self.s.chroot(["psql", "-X", "-q", "-v", "ON_ERROR_STOP=1", "-h", pgstore.SOCKET,
                                "-p", pgstore.PORT, "-U", "postgres", "-d", "qirn_fleet", "-f",
                                "-"], user="postgres", input=copy.encode())
            t = [float(x) for x in re.findall(r"^Time: ([0-9.]+) ms", r2.stdout.decode(), re.M)]
            if r2.returncode != 0 or not t:
                failed.append(r2.stderr.decode()[-300:])
                continue
            copy_best = min(copy_best or t[0], t[0])
        stored = int(self.q("SELECT count(*) FROM qirn_fleet.events WHERE path LIKE "
                            "'/var/lib/app/file-%%' AND host_id = (SELECT id FROM qirn_fleet.hosts "
                            "WHERE name = 'web-02')"))
        n = batches * size
        ship_rate = size / (ship_best / 1000) if ship_best else 0
        copy_rate = size / (copy_best / 1000) if copy_best else 0
        log("agent_ship: best of %d batches of %d lines %.0f ms = %.0f rows/s; COPY of the same "
            "rows: best %.0f ms = %.0f rows/s; ratio %.2f" %
            (batches, size, ship_best or 0, ship_rate, copy_best or 0, copy_rate,
             ship_rate / copy_rate if copy_rate else 0))
        f.check(not failed and stored == n, "agent_ship stored every row of the batches, COPY "
                "took the same rows", (stored, failed))
        self.figures["rate"] = (ship_rate, copy_rate)
        # A benchmark, reported: the goal is half of COPY's rate and 50,000
        # rows/s; the test fails only far below it (a per-row call crept in).
        for what, ok in (("half of COPY's rate", ship_rate >= 0.5 * copy_rate),
                         ("50,000 rows/s", ship_rate >= 50000)):
            if not ok:
                log("note: agent_ship below %s on this machine" % what)
        f.check(copy_rate and ship_rate >= 0.3 * copy_rate,
                "agent_ship stays within reach of COPY's rate (> 0.3)", (ship_rate, copy_rate))

    def year_rule(self, tw):
        if tw[:6] not in self.year_cache:
            self.year_cache[tw[:6]] = self.q(
                "SELECT to_char(qirn_fleet.event_time(%s, now() AT TIME ZONE 'UTC'), 'YYYY')" %
                lit(tw))
        return (self.year_cache[tw[:6]] + "-" +
                time.strftime("%m-%d", time.strptime(tw[:6], "%b %d")) + tw[6:])

    year_cache = {}

    # --------------------------------------------------------------------------

    def run(self):
        s = self.s
        s.create()
        s.start()
        started = time.monotonic()
        self.old_kit()
        rc, out, err = self.admin("init")
        if not self.f.check(rc == 0, "init upgrades the old kit's database", out + err):
            return
        self.check_migrated()
        self.admin_checks()
        self.ship_checks()
        self.security_checks()
        self.year_rule_checks()
        self.admin_after_ship()
        self.partitions_and_retention()
        self.ship_rate()
        self.index_and_speed()
        log("suite took %.0f s after the root" % (time.monotonic() - started))


def main():
    if os.geteuid() != 0:
        log("SKIP: needs root (namespaces, chroot)")
        return pgstore.SKIP
    for tool in ("unshare", "chroot", "ip", "debootstrap"):
        if not shutil.which(tool):
            log("SKIP: %s is missing" % tool)
            return pgstore.SKIP
    pgstore.enter_namespaces()
    test = StoreTest()
    try:
        test.run()
    except Exception as e:  # report, then clean up
        import traceback
        traceback.print_exc()
        test.f.items.append("exception: %s" % e)
    finally:
        if test.f.items:
            log("--- server log (tail) ---\n" + test.s.server_log()[-3000:])
        test.s.cleanup()
    if test.f.items:
        log("FAILED: %d checks: %s" % (len(test.f.items), "; ".join(test.f.items)))
        return 1
    log("PASSED")
    return 0


if __name__ == "__main__":
    sys.exit(main())
