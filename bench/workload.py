#!/usr/bin/env python3
"""Seeded generator of realistic audit logs, and an independent model of the
conversion that the service performs, used to state the expected output.

As a program it writes a workload file (and, on request, the expected
conversion of it):

    bench/workload.py --lines 600000 --seed 1 --out /tmp/audit.log \
        --expected /tmp/expected.log --tz Europe/Berlin

Lines are 200 to 400 bytes long. Most are ordinary kernel audit records
(SYSCALL, PATH, CWD, PROCTITLE, EXECVE, the kernel's own AVC, user-space PAM
records ...); a configurable share (default 10%) are QIRN_AVC and QIRN_NETCTL
records that convert to an output event. A further small share are QIRN
records that the converter rejects late (operations it does not classify, no
container_id), so that the rejected path is not only the audit-type filter.
Events are unique by default (no two share container, path and second);
--repeat-share makes that share of the events repeat an event of the same
second, as an audit system does when one denial fires several times.
"""

import argparse
import os
import random
import sys
import time

# ---------------------------------------------------------------------------
# Model of the conversion, written from the service's documented behaviour.
# ---------------------------------------------------------------------------

C_SPACE = " \t\n\v\f\r"
CACHE_LIMIT = 1000
MILLISECONDS_THRESHOLD = 10000000000
INT64_MAX = 2**63 - 1
INT64_MIN = -(2**63)


def _audit_type(line):
    marker = line.find("type=")
    if marker < 0:
        return None
    start = marker + 5
    end = line.find(" ", start)
    return line[start:] if end < 0 else line[start:end]


def _field_value(line, key):
    marker = line.find(key + "=")
    if marker < 0:
        return ""
    start = marker + len(key) + 1
    if start >= len(line):
        return ""
    if line[start] == '"':
        start += 1
        if start >= len(line):
            return ""
        closing = line.find('"', start)
        return "" if closing < 0 else line[start:closing]
    end = start
    while end < len(line) and line[end] not in " \t,:":
        end += 1
    return line[start:end]


def _stamp(line):
    marker = line.find("audit(")
    if marker < 0:
        return None
    start = marker + 6
    if start >= len(line):
        return None
    end = line.find(":", start)
    if end < 0:
        end = line.find(")", start)
    if end < 0:
        return None
    stamp = line[start:end]
    return stamp or None


def _leading_integer(text):
    i = 0
    while i < len(text) and text[i] in C_SPACE:
        i += 1
    sign = 1
    if i < len(text) and text[i] in "+-":
        sign = -1 if text[i] == "-" else 1
        i += 1
    j = i
    while j < len(text) and "0" <= text[j] <= "9":
        j += 1
    if j == i:
        return None
    value = sign * int(text[i:j])
    if value > INT64_MAX or value < INT64_MIN:
        return None
    return value


_time_cache = {}


def format_time(seconds):
    """Local time as "%b %d %H:%M:%S" in the process's TZ (C locale)."""
    text = _time_cache.get(seconds)
    if text is None:
        try:
            text = time.strftime("%b %d %H:%M:%S", time.localtime(seconds))
        except (OverflowError, OSError, ValueError):
            text = ""
        _time_cache[seconds] = text
    return text


def _convert_stamp(stamp):
    seconds = _leading_integer(stamp)
    if seconds is None:
        return ""
    if seconds > MILLISECONDS_THRESHOLD:
        seconds = int(seconds / 1000)  # truncating, like C++ integer division
    return format_time(seconds)


def _name_value(line):
    marker = line.find("name=")
    if marker < 0:
        return ""
    start = marker + 5
    if start >= len(line):
        return ""
    if line[start] == '"':
        closing = line.find('"', start + 1)
        return "" if closing < 0 else line[start + 1:closing]
    end = line.find(" ", start)
    return line[start:] if end < 0 else line[start:end]


def _operation(line):
    opening = line.find("{")
    if opening < 0:
        return ""
    closing = line.find("}", opening + 1)
    if closing < 0:
        return ""
    return "".join(c.lower() for c in line[opening + 1:closing] if c not in C_SPACE)


def _event_word(audit_type, operation):
    lowered = audit_type.lower()
    if lowered == "qirn_netctl":
        return "netctl"
    if lowered == "qirn_avc":
        if "exec" in operation or "interpret" in operation:
            return "exectl"
        for word in ("write", "truncate", "setattr", "unlink", "rename"):
            if word in operation:
                return "filectl"
    return None


def _status_word(line):
    marker = line.find("avc:")
    if marker < 0:
        return None
    start = marker + 4
    while start < len(line) and line[start] in " \t":
        start += 1
    end = start
    while end < len(line) and line[end] not in " \t:":
        end += 1
    word = line[start:end].lower()
    if "denied" in word:
        return "enforcing"
    if "detect" in word:
        return "permissive"
    return None


def parse(line):
    """(key, output line) for a line the service converts, else None."""
    audit_type = _audit_type(line)
    if audit_type not in ("QIRN_AVC", "QIRN_NETCTL"):
        return None
    container = _field_value(line, "container_id")
    if not container:
        return None
    stamp = _stamp(line)
    if stamp is None:
        return None
    timestamp = _convert_stamp(stamp)
    if not timestamp:
        return None
    if audit_type == "QIRN_AVC":
        path = _name_value(line)
    else:
        path = _field_value(line, "proc_path")
    if not path:
        return None
    event = _event_word(audit_type, _operation(line))
    if event is None:
        return None
    status = _status_word(line)
    if status is None:
        return None
    key = container + "|" + path + "|" + timestamp[:16]
    output = (timestamp + ",container_id=" + container + ",Event=" + event + ",path=" + path +
              ",status=" + status)
    return key, output


class Converter:
    """Conversion with the service's duplicate cache: a set of keys emptied
    all at once when it grows past 1000 keys."""

    def __init__(self):
        self.cache = set()

    def convert(self, line):
        parsed = parse(line)
        if parsed is None:
            return None
        key, output = parsed
        if key in self.cache:
            return None
        self.cache.add(key)
        if len(self.cache) > CACHE_LIMIT:
            self.cache.clear()
        return output


def set_time_zone(tz):
    os.environ["TZ"] = tz
    time.tzset()
    _time_cache.clear()


# ---------------------------------------------------------------------------
# Generator.
# ---------------------------------------------------------------------------

MIN_LENGTH = 200
MAX_LENGTH = 400
SAFE_WORDS = ("app", "data", "cache", "lib", "srv", "share", "run", "config", "logs", "tmp",
              "build", "node", "python3.11", "site-packages", "worker", "reports", "assets",
              "static", "venv", "bin", "releases", "current", "shared", "db", "spool")
EXECUTABLES = ("/usr/bin/bash", "/usr/bin/python3", "/usr/bin/curl", "/usr/sbin/nginx",
               "/usr/bin/node", "/usr/local/bin/app-server", "/usr/bin/wget", "/usr/bin/sh",
               "/usr/lib/jvm/java-17/bin/java", "/usr/bin/perl", "/usr/bin/ssh", "/usr/bin/tar")
SENSITIVE_PATHS = ("/etc/passwd", "/etc/shadow", "/etc/hosts", "/etc/resolv.conf",
                   "/etc/sudoers", "/etc/ssh/sshd_config", "/root/.bashrc",
                   "/root/.ssh/authorized_keys",
                   "/usr/bin/python3", "/usr/bin/perl", "/usr/bin/sh", "/tmp/payload.sh",
                   "/var/run/docker.sock", "/proc/sys/kernel/core_pattern", "/etc/crontab",
                   "/etc/ld.so.preload", "/usr/lib/x86_64-linux-gnu/libc.so.6", "/bin/busybox",
                   "/dev/shm/x", "/var/lib/app/state.db", "/opt/app/config/app.yaml",
                   "/home/app/.profile", "/etc/pam.d/common-auth", "/etc/group")
SPACED_PATHS = ("/tmp/my file.txt", "/srv/app/Upload Folder/report 2024.pdf",
                "/home/app/Documents/notes v2.md")
FILE_OPERATIONS = ("write", "unlink", "rename", "truncate", "setattr", "read write",
                   "write append")
EXEC_OPERATIONS = ("exec", "execute", "interpret", "execmod")
REJECTED_OPERATIONS = ("read", "getattr", "open", "ioctl", "append")
CONTEXT_TYPES = ("etc_t", "shadow_t", "bin_t", "tmp_t", "var_lib_t", "user_home_t", "proc_t",
                 "container_file_t", "lib_t", "shell_exec_t")


class Generator:
    def __init__(self, seed, match_share, repeat_share, reject_share, audit_rate, start_time):
        self.rng = random.Random(seed)
        self.match_share = match_share
        self.repeat_share = repeat_share
        self.reject_share = reject_share
        self.audit_rate = audit_rate
        self.start_time = start_time
        self.serial = 1000
        self.containers = ["%012x" % self.rng.getrandbits(48) for _ in range(40)]
        # Keys already used in the current audit second, and the events of it.
        self.second = None
        self.used_keys = set()
        self.second_events = []
        self.events = 0
        self.rejected = 0

    # -- helpers -----------------------------------------------------------

    def _slug(self, length):
        """Path-like filler of exactly `length` characters from harmless words."""
        parts = []
        size = 0
        while size < length:
            word = self.rng.choice(SAFE_WORDS)
            parts.append("/" + word)
            size += len(word) + 1
        return "".join(parts)[:length]

    def _hex(self, length):
        return "%0*X" % (length, self.rng.getrandbits(4 * length))

    def _words(self, length):
        """Like _slug, without the leading "/"."""
        return self._slug(length + 1)[1:]

    def _pad(self, head, tail, flex):
        """head + flex(n) + tail with a total length drawn from 200 to 400."""
        target = self.rng.randint(MIN_LENGTH, MAX_LENGTH)
        room = max(target - len(head) - len(tail), 1)
        return head + flex(room) + tail

    def _stamp(self, seconds):
        self.serial += 1
        return "msg=audit(%d.%03d:%d):" % (seconds, self.rng.randrange(1000), self.serial)

    def _context(self, kind):
        if kind == "t":
            role, domain = "object_r", self.rng.choice(CONTEXT_TYPES)
        else:
            role, domain = "system_r", "container_t"
        return "system_u:%s:%s:s0:c%d,c%d" % (role, domain, self.rng.randrange(1024),
                                              self.rng.randrange(1024))

    # -- kernel records ------------------------------------------------------

    def _syscall(self, s):
        exe = self.rng.choice(EXECUTABLES)
        head = ("type=SYSCALL %s arch=c000003e syscall=%d success=%s exit=%d a0=ffffff9c "
                "a1=7ffd%08x a2=241 a3=1b6 items=1 ppid=%d pid=%d auid=1000 uid=0 gid=0 euid=0 "
                "suid=0 fsuid=0 egid=0 sgid=0 fsgid=0 tty=pts0 ses=3 comm=\"%s\" exe=\"%s\" "
                "subj=system_u:system_r:container_t:s0 key=\"" % (
                    self._stamp(s), self.rng.choice((2, 59, 257, 87, 82, 90)),
                    self.rng.choice(("yes", "no")), self.rng.choice((0, -13, 3)),
                    self.rng.getrandbits(32), self.rng.randrange(1, 30000),
                    self.rng.randrange(1, 30000), os.path.basename(exe)[:15], exe))
        return self._pad(head, "\"", self._words)

    def _path(self, s):
        head = "type=PATH %s item=%d name=\"" % (self._stamp(s), self.rng.randrange(3))
        tail = ("\" inode=%d dev=08:01 mode=0100644 ouid=0 ogid=0 rdev=00:00 obj=%s "
                "nametype=NORMAL cap_fp=0 cap_fi=0 cap_fe=0 cap_fver=0 cap_frootid=0" % (
                    self.rng.randrange(10**7), self._context("t")))
        return self._pad(head, tail, self._slug)

    def _cwd(self, s):
        head = "type=CWD %s cwd=\"/var/lib/containers/storage/overlay/%064x/merged" % (
            self._stamp(s), self.rng.getrandbits(256))
        return self._pad(head, "\"", self._slug)

    def _proctitle(self, s):
        head = "type=PROCTITLE %s proctitle=" % self._stamp(s)
        return self._pad(head, "", self._hex)

    def _execve(self, s):
        head = "type=EXECVE %s argc=3 a0=\"%s\" a1=\"-c\" a2=\"" % (
            self._stamp(s), os.path.basename(self.rng.choice(EXECUTABLES)))
        return self._pad(head, "\"", self._words)

    def _kernel_avc(self, s):
        # The kernel's own access-vector record: close to, but not, a QIRN one.
        head = ("type=AVC %s avc:  denied  { %s } for  pid=%d comm=\"%s\" name=\"" % (
            self._stamp(s), self.rng.choice(("read", "write", "open")),
            self.rng.randrange(1, 30000), self.rng.choice(("bash", "nginx", "python3"))))
        tail = "\" dev=\"sda1\" ino=%d scontext=%s tcontext=%s tclass=file permissive=0" % (
            self.rng.randrange(10**6), self._context("s"), self._context("t"))
        return self._pad(head, tail, self._slug)

    def _user_record(self, s):
        kind = self.rng.choice(("USER_ACCT", "CRED_ACQ", "USER_START", "USER_END", "CRED_DISP"))
        head = ("type=%s %s pid=%d uid=0 auid=1000 ses=%d subj=unconfined_u:unconfined_r:"
                "unconfined_t:s0 msg='op=PAM:%s grantors=pam_unix acct=\"root\" "
                "exe=\"/usr/sbin/sshd\" hostname=" % (
                    kind, self._stamp(s), self.rng.randrange(1, 30000), self.rng.randrange(100),
                    self.rng.choice(("accounting", "setcred", "session_open"))))
        tail = " addr=10.0.%d.%d terminal=ssh res=success'" % (self.rng.randrange(256),
                                                              self.rng.randrange(256))
        return self._pad(head, tail, lambda n: ("host" + self._slug(n).replace("/", "-"))[:n])

    def _kernel_line(self, s):
        kinds = (self._syscall, self._syscall, self._path, self._path, self._cwd,
                 self._proctitle, self._proctitle, self._execve, self._kernel_avc,
                 self._user_record)
        return self.rng.choice(kinds)(s)

    # -- QIRN records --------------------------------------------------------

    def _container_field(self, container):
        return ("container_id=\"%s\"" if self.rng.random() < 0.1 else "container_id=%s") % container

    def _avc(self, s, container_field, path, operation, decision):
        quoted = " " in path or self.rng.random() < 0.7
        name = ("name=\"%s\"" if quoted else "name=%s") % path
        head = ("type=QIRN_AVC %s avc:  %s  { %s } for  pid=%d comm=\"%s\" %s dev=\"sda1\" "
                "ino=%d %s scontext=%s tcontext=%s tclass=file permissive=%d exe=\"" % (
                    self._stamp(s), decision, operation, self.rng.randrange(1, 30000),
                    self.rng.choice(("bash", "sh", "python3", "node", "java")), name,
                    self.rng.randrange(10**6), container_field, self._context("s"),
                    self._context("t"), int(decision == "detected")))
        return self._pad(head, "\"", self._slug)

    def _netctl(self, s, container, proc_path, decision):
        fields = ["proc_path=%s" % proc_path, self._container_field(container)]
        self.rng.shuffle(fields)
        head = ("type=QIRN_NETCTL %s avc:  %s  { %s } for pid=%d %s %s saddr=10.88.0.%d "
                "daddr=%d.%d.%d.%d dport=%d proto=tcp scontext=%s cmdline=\"" % (
                    self._stamp(s), decision, self.rng.choice(("connect", "bind", "sendmsg")),
                    self.rng.randrange(1, 30000), fields[0], fields[1], self.rng.randrange(256),
                    self.rng.randrange(1, 224), self.rng.randrange(256), self.rng.randrange(256),
                    self.rng.randrange(1, 256), self.rng.choice((443, 80, 53, 8080, 6443)),
                    self._context("s")))
        return self._pad(head, "\"", self._words)

    def _new_event(self, s):
        for _ in range(1000):
            container = self.rng.choice(self.containers)
            if self.rng.random() < 0.25:
                path = self.rng.choice(EXECUTABLES)
                kind = "netctl"
            else:
                kind = "avc"
                spaced = self.rng.random() < 0.05
                path = self.rng.choice(SPACED_PATHS if spaced else SENSITIVE_PATHS)
            if (container, path) not in self.used_keys:
                self.used_keys.add((container, path))
                return container, path, kind
        raise SystemExit("audit rate too high for unique events; raise --audit-rate")

    def _event_line(self, s):
        decision = self.rng.choice(("denied", "detected"))
        if self.second_events and self.rng.random() < self.repeat_share:
            container, path, kind = self.rng.choice(self.second_events)
        else:
            container, path, kind = self._new_event(s)
            self.second_events.append((container, path, kind))
        self.events += 1
        if kind == "netctl":
            return self._netctl(s, container, path, decision)
        operation = self.rng.choice(EXEC_OPERATIONS if self.rng.random() < 0.3 else FILE_OPERATIONS)
        return self._avc(s, self._container_field(container), path, operation, decision)

    def _rejected_line(self, s):
        self.rejected += 1
        path = self.rng.choice(SENSITIVE_PATHS)
        if self.rng.random() < 0.7:
            container_field = self._container_field(self.rng.choice(self.containers))
            return self._avc(s, container_field, path, self.rng.choice(REJECTED_OPERATIONS),
                             "denied")
        # A host process: no container_id at all.
        return self._avc(s, "ctx=host", path, "write", "denied")

    def line(self, index):
        s = self.start_time + index // self.audit_rate
        if s != self.second:
            self.second = s
            self.used_keys = set()
            self.second_events = []
        draw = self.rng.random()
        if draw < self.match_share:
            return self._event_line(s)
        if draw < self.match_share + self.reject_share:
            return self._rejected_line(s)
        return self._kernel_line(s)


def generate(count, seed=1, match_share=0.10, repeat_share=0.0, reject_share=0.02,
             audit_rate=1000, start_time=1731676205):
    """The workload as a list of lines (without newlines), and the generator."""
    generator = Generator(seed, match_share, repeat_share, reject_share, audit_rate, start_time)
    return [generator.line(i) for i in range(count)], generator


def expected_output(lines, converter=None):
    converter = converter or Converter()
    result = []
    for line in lines:
        output = converter.convert(line)
        if output is not None:
            result.append(output)
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--lines", type=int, default=600000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--match-share", type=float, default=0.10,
                        help="share of lines that convert to an event (default 0.10)")
    parser.add_argument("--repeat-share", type=float, default=0.0,
                        help="share of events that repeat one of the same second (default 0)")
    parser.add_argument("--reject-share", type=float, default=0.02,
                        help="share of QIRN lines that the converter rejects late (default 0.02)")
    parser.add_argument("--audit-rate", type=int, default=1000,
                        help="audit lines per second of audit time (default 1000)")
    parser.add_argument("--start-time", type=int, default=1731676205)
    parser.add_argument("--out", required=True, help="workload file to write")
    parser.add_argument("--expected", help="file for the expected conversion")
    parser.add_argument("--tz", default="UTC", help="time zone of the expected conversion")
    args = parser.parse_args()

    lines, generator = generate(args.lines, args.seed, args.match_share, args.repeat_share,
                                args.reject_share, args.audit_rate, args.start_time)
    with open(args.out, "w", encoding="ascii") as out:
        out.write("\n".join(lines) + "\n")
    summary = "%d lines, %d events, %d late-rejected QIRN lines" % (
        len(lines), generator.events, generator.rejected)
    if args.expected:
        set_time_zone(args.tz)
        expected = expected_output(lines)
        with open(args.expected, "w", encoding="ascii") as out:
            out.write("".join(line + "\n" for line in expected))
        summary += ", %d expected output lines" % len(expected)
    print(summary, file=sys.stderr)


if __name__ == "__main__":
    main()
