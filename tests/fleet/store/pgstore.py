"""A private PostgreSQL 15 from the fleet's Debian 12 root, for the store's
tests: the whole test runs in a network and mount namespace of its own
(loopback only, mounts private), the server's data directory, socket and
files live in a scratch directory bound over the root's /run, and every
engine program runs chrooted into the root. Nothing of this machine's /etc,
/var or network is touched."""

import os
import shutil
import subprocess
import sys
import tempfile
import time

SKIP = 77
SOURCE_DIR = os.environ.get("QLC_SOURCE_DIR") or os.path.abspath(
    os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", ".."))
BUILD_DIR = os.environ.get("QLC_BUILD_DIR", os.path.join(SOURCE_DIR, "build", "release"))
PACKAGES = ["postgresql-15", "postgresql-client-15", "pgbouncer", "prometheus", "openssl",
            "iproute2"]
PG_BIN = "/usr/lib/postgresql/15/bin"
PORT = "5433"
SOCKET = "/run/qlc/sock"
DATA = "/run/qlc/pgdata"
ENV = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C", "TZ": "UTC", "HOME": "/run/qlc"}


def log(text):
    print(text, flush=True)


def wait_until(check, timeout, step=0.1):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if check():
            return True
        time.sleep(step)
    return check()


def enter_namespaces():
    """Re-runs this program in new network and mount namespaces (once)."""
    if os.environ.get("QLC_STORE_NS") == "1":
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        return
    env = dict(os.environ, QLC_STORE_NS="1")
    os.execvpe("unshare", ["unshare", "--net", "--mount", "--propagation", "private", "--",
                           sys.executable] + sys.argv, env)


def prepare_root():
    root = os.environ.get("QLC_FLEET_ROOT") or os.path.join(BUILD_DIR, "shipping-roots", "fleet")
    result = subprocess.run([os.path.join(SOURCE_DIR, "tests", "support", "debian-root"), root] +
                            PACKAGES, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if result.returncode != 0:
        raise RuntimeError("could not build the Debian root: " + result.stdout[-3000:])
    return root


class Store:
    def __init__(self):
        self.root = prepare_root()
        self.scratch = tempfile.mkdtemp(prefix="qlc-store-")
        os.chmod(self.scratch, 0o755)
        self.run_dir = os.path.join(self.scratch, "run")
        os.makedirs(os.path.join(self.run_dir, "qlc"))
        os.chmod(os.path.join(self.run_dir, "qlc"), 0o755)
        self.qlc = os.path.join(self.run_dir, "qlc")
        r = self.root
        # A private /run, /tmp, /dev and /proc inside the root, this namespace only.
        subprocess.run(["mount", "--bind", self.run_dir, r + "/run"], check=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=1777", "tmpfs", r + "/tmp"],
                       check=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=0755", "tmpfs", r + "/dev"],
                       check=True)
        for node in ("null", "zero", "random", "urandom"):
            open(r + "/dev/" + node, "w").close()
            subprocess.run(["mount", "--bind", "/dev/" + node, r + "/dev/" + node], check=True)
        os.symlink("/proc/self/fd", r + "/dev/fd")
        subprocess.run(["mount", "-t", "proc", "proc", r + "/proc"], check=True)
        # The kit, where the admin command looks for its SQL.
        kit = os.path.join(self.qlc, "kit")
        shutil.copytree(os.path.join(SOURCE_DIR, "packaging", "fleet"), kit)
        self.kit = "/run/qlc/kit"
        self.process = None
        self.uid, self.gid = self.user_ids()

    def user_ids(self):
        for line in open(os.path.join(self.root, "etc", "passwd")):
            f = line.split(":")
            if f[0] == "postgres":
                return int(f[2]), int(f[3])
        raise RuntimeError("the Debian root has no postgres user")

    def path(self, inside):
        """This machine's path of a path inside the root's /run."""
        assert inside.startswith("/run/")
        return os.path.join(self.run_dir, inside[len("/run/"):])

    def chroot(self, args, user=None, env=None, input=None, check=False):
        command = ["chroot"]
        if user:
            command.append("--userspec=%s:%s" % (user, user))
        e = dict(ENV)
        e.update(env or {})
        result = subprocess.run(command + [self.root] + args, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, env=e, input=input)
        if check and result.returncode != 0:
            raise RuntimeError("%s failed: %s" % (args, result.stderr.decode(errors="replace")))
        return result

    def create(self):
        for name in ("pgdata", "sock"):
            p = os.path.join(self.qlc, name)
            os.makedirs(p, mode=0o700)
            os.chown(p, self.uid, self.gid)
        self.chroot([PG_BIN + "/initdb", "-D", DATA, "-U", "postgres", "-A", "peer",
                     "--no-sync", "-E", "SQL_ASCII", "--locale=C"], user="postgres", check=True)
        with open(os.path.join(self.qlc, "pgdata", "postgresql.auto.conf"), "a") as f:
            f.write("listen_addresses = '127.0.0.1'\nport = %s\nunix_socket_directories = '%s'\n"
                    "logging_collector = off\nmax_connections = 40\nshared_buffers = 128MB\n"
                    "fsync = off\nsynchronous_commit = off\nfull_page_writes = off\n"
                    % (PORT, SOCKET))
        # Debian's shape: peer for the superuser, then the rest.
        with open(os.path.join(self.qlc, "pgdata", "pg_hba.conf"), "w") as f:
            f.write("# Debian-like\nlocal all postgres peer\nlocal all all peer\n"
                    "host all all 127.0.0.1/32 scram-sha-256\n")

    def start(self):
        out = open(os.path.join(self.scratch, "postgres.log"), "ab")
        e = dict(ENV)
        self.process = subprocess.Popen(
            ["chroot", "--userspec=postgres:postgres", self.root, PG_BIN + "/postgres", "-D",
             DATA], stdout=out, stderr=subprocess.STDOUT, env=e)
        out.close()
        if not wait_until(lambda: self.process.poll() is not None or
                          self.psql("SELECT 1", database="postgres", check=False) == "1", 60, 0.2):
            raise RuntimeError("PostgreSQL did not start: " + self.server_log()[-2000:])

    def server_log(self):
        return open(os.path.join(self.scratch, "postgres.log"), errors="replace").read()

    def stop(self):
        if self.process and self.process.poll() is None:
            self.process.send_signal(2)
            self.process.wait(60)
        self.process = None

    def psql(self, sql, user="postgres", database="qirn_fleet", check=True, raw=False,
             options=None, env=None):
        """Runs `sql` as OS user postgres, as database role `user` over the
        socket (peer, through the store's map for host roles). Returns the
        output text, or ("ERROR", sqlstate-bearing message) when check is off."""
        args = ["psql", "-X", "-q", "-A", "-t", "-F", "\x1f", "-v", "ON_ERROR_STOP=1",
                "-v", "VERBOSITY=verbose", "-h", SOCKET, "-p", PORT, "-U", user, "-d", database]
        args += options or []
        e = {"PGOPTIONS": ""}
        e.update(env or {})
        result = self.chroot(args + ["-f", "-"], user="postgres", env=e,
                             input=sql.encode("latin-1") if isinstance(sql, str) else sql)
        if result.returncode != 0:
            if check:
                raise RuntimeError("psql failed: %s\n%s" % (str(sql)[:300],
                                                            result.stderr.decode(errors="replace")))
            return ("ERROR", result.stderr.decode(errors="replace"))
        return result.stdout if raw else result.stdout.decode("latin-1").strip()

    def cleanup(self):
        self.stop()
        for m in ("/proc", "/dev/null", "/dev/zero", "/dev/random", "/dev/urandom", "/dev",
                  "/tmp", "/run"):
            subprocess.run(["umount", "-l", self.root + m], stderr=subprocess.DEVNULL)
        if os.environ.get("QLC_KEEP_SCRATCH") != "1":
            shutil.rmtree(self.scratch, ignore_errors=True)
        else:
            log("scratch kept: " + self.scratch)
