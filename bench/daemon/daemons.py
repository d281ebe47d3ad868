"""The daemons, each on a private machine of its own: how jobs are put there, how it is started and
how one sees that it is ready."""

import json
import subprocess
import tempfile
import time
from collections import namedtuple
from pathlib import Path

from tests.lib.private_machine import PrivateMachine, wait_for

from . import programs
from .measure import Arrivals, Group, cpu_of

# `when` is a crontab expression; all jobs are root's.
Job = namedtuple("Job", "name when command", defaults=["/usr/bin/true"])

SPOOL = "/var/spool/cron/crontabs"
LIBRARIES = "/usr/lib/x86_64-linux-gnu"


def idle_jobs(count):
    """Jobs spread over the day like real ones, but on a day that never comes."""
    return [Job(f"j{number}", f"{number % 60} {number * 7 % 24} 31 2 *") for number in range(count)]


def in_files(jobs, per_file):
    """The jobs file by file; with `per_file` 0 all are in one."""
    per_file = per_file or max(len(jobs), 1)
    return [jobs[start : start + per_file] for start in range(0, len(jobs), per_file)]


def lines_of(jobs, user=""):
    return "".join(f"{job.when} {user} {job.command}\n" for job in jobs)


def tool(name):
    return Path("/share") / name


class Daemon(PrivateMachine):
    """A machine on which one daemon is started. What it takes of the CPUs from its exec on, with
    all its children, is in `group`."""

    # What each kind says of itself: the name of the process that looks at the schedules, how it is
    # started in the foreground, and how it is called in tables. It also has `write_jobs`, which
    # puts jobs into files of so many, and `add_jobs`, which adds some in one place more.
    MAIN = ""
    COMMAND = []
    TITLE = ""

    def __init__(self, binary):
        super().__init__(binary, programs.TOOLS)
        self.group = None

    def __enter__(self):
        super().__enter__()
        try:
            self.prepare()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *details):
        super().__exit__(*details)
        if self.group:
            self.group.remove()

    def prepare(self):
        """Clears away the jobs that the host has, and puts in place what the daemon needs."""
        for directory in ("/etc/cron.d", SPOOL):
            self.path(directory).mkdir(parents=True, exist_ok=True)
            for entry in self.path(directory).iterdir():
                entry.unlink()
        self.path("/etc/crontab").unlink(missing_ok=True)

    def put(self, directory, files, mode=0o644):
        """Writes many files that nobody reads yet."""
        target = self.path(directory)
        target.mkdir(parents=True, exist_ok=True)
        for name, text in files.items():
            (target / name).write_text(text)
            (target / name).chmod(mode)

    def charged(self, *command):
        """Starts a command whose time is charged to the group; returns the process."""
        self.group = self.group or Group()
        self.output = tempfile.TemporaryFile("w+", errors="replace")
        with (self.group.path / "cgroup.procs").open("w") as group:
            return self.popen(
                tool("charged"),
                "/tmp/began",
                group.fileno(),
                *command,
                pass_fds=[group.fileno()],
                stdin=subprocess.DEVNULL,
                stdout=self.output,
                stderr=self.output,
            )

    def bare(self, count, *command):
        """So many bare starts of a command, charged to the group; returns CPU time and time, in
        nanoseconds."""
        before = self.group.cpu() if self.group else 0
        process = self.charged(tool("floor"), count, *command)
        if process.wait(300) != 0:
            raise RuntimeError(f"{command[0]} failed: {self.said()}")
        return self.group.cpu() - before, int(self.said())

    def said(self):
        """What the command charged last has written."""
        self.output.seek(0)
        return self.output.read()[-500:]

    def began(self):
        """The moment of the exec, in nanoseconds of the monotonic clock."""
        return int(wait_for(lambda: self.read("/tmp/began"), what="the start"))

    def launch_daemon(self):
        self.process = self.charged(*self.COMMAND)

    def main_pid(self):
        """The pid, seen from outside, of the process that looks at the schedules."""
        for pid in self.group.pids():
            try:
                if Path(f"/proc/{pid}/comm").read_text().strip() == self.MAIN:
                    return pid
            except FileNotFoundError:
                pass
        self._drain()
        raise RuntimeError(f"{self.TITLE} has ended: {self.said()} {self._datagrams[-3:]}")

    def settle(self, quiet=0.3, seconds=120):
        """Waits until all processes have slept for a while and taken nothing of the CPUs."""
        time.sleep(0.1)
        seen = [None, time.monotonic()]

        def is_quiet():
            now = self.group.cpu() if self.group.is_asleep() else None
            if now is None or now != seen[0]:
                seen[:] = [now, time.monotonic()]
            return time.monotonic() - seen[1] > quiet

        wait_for(is_quiet, seconds, "sleep")
        self.main_pid()

    def start_ready(self):
        """Starts the daemon and waits until it has loaded its jobs and sleeps."""
        self.launch_daemon()
        self.began()
        self.settle()

    def cpu(self):
        return cpu_of(self.main_pid())


class Kestcrond(Daemon):
    DAEMON = "/usr/sbin/kestcrond"
    MAIN = "kestcrond"
    COMMAND = [DAEMON]
    TITLE = "kestcrond"
    TEMPLATE = "/usr/kest/etc/kestcrond.st.config"
    SOURCE = "/usr/local/etc/kestcron.d"

    def write_jobs(self, jobs, per_file=0):
        self.put(
            self.SOURCE,
            {f"jobs{number}.conf": self.definitions(part) for number, part in enumerate(in_files(jobs, per_file))},
        )

    def add_jobs(self, jobs):
        self.put(self.SOURCE, {"more.conf": self.definitions(jobs)})

    def staged(self, job):
        """Where the copy of the program of a job added is."""
        return self.path(f"/tmp/kestcrond/pkg-more-{job.name}")

    def definitions(self, jobs):
        return json.dumps(
            [
                {"name": job.name, "user": "root", "period": "crontab", "crontab": job.when, "cmd": job.command}
                for job in jobs
            ],
            separators=(",", ":"),
        )

    def start_at_once(self):
        """Lets all jobs of a cycle start without a delay between them."""
        config = {
            "name": "scheduleTemplate",
            "user": "root",
            "cmd": "true",
            "period": "crontab",
            "crontab": "~ ~ ~ ~ ~",
        }
        self.write(self.TEMPLATE, json.dumps({"config": config, "maxDelay": 0}))

    def timed_start(self, seconds=120):
        """Starts the daemon; returns the nanoseconds until its runtime documents were written."""
        with Arrivals(self.path("/run")) as arrivals:
            self.launch_daemon()
            began = self.began()
            ready = arrivals.wait(Path(self.RUNTIME_TEMPLATE).name, seconds, self.main_pid)
        self.settle()
        return ready - began

    def loaded(self):
        """How many jobs the daemon holds."""
        return len(json.loads(self.read(self.RUNTIME_FILE)).get("jobs", {}))


class Cron(Daemon):
    DAEMON = "/usr/sbin/cron"
    MAIN = "cron"
    COMMAND = [DAEMON, "-f"]
    TITLE = "cron"

    def prepare(self):
        super().prepare()
        self.write("/etc/pam.d/cron", (programs.PEERS / "cron/etc/pam.d/cron").read_text())

    def write_jobs(self, jobs, per_file=0):
        if per_file == 0:
            self.write("/etc/crontab", lines_of(jobs, "root"))
        else:
            self.put(
                "/etc/cron.d",
                {f"jobs{number}": lines_of(part, "root") for number, part in enumerate(in_files(jobs, per_file))},
            )

    def add_jobs(self, jobs):
        self.put("/etc/cron.d", {"more": lines_of(jobs, "root")})


class Bcron(Daemon):
    """The processes that look at schedules and run jobs. The one that copies system crontabs into
    the spool is left out: what it would write there is written here."""

    DAEMON = "/usr/sbin/bcron-start"
    MAIN = "bcron-sched"
    COMMAND = [DAEMON]
    TITLE = "bcron"

    def prepare(self):
        super().prepare()
        for program in (programs.PEERS / "bcron/usr/sbin").iterdir():
            self.write(f"/usr/sbin/{program.name}", program.read_bytes(), 0o755)
        library = next((programs.PEERS / "libbg2").rglob("libbg.so.2"))
        self.write(f"{LIBRARIES}/libbg.so.2", library.read_bytes())
        if "cron" not in self.accounts():
            self.add_account("cron", 2100)
        self.chown(self.path(SPOOL), "cron")

    def write_jobs(self, jobs, per_file=0):
        self.put(
            SPOOL,
            {
                f":etc:cron.d:jobs{number}": lines_of(part, "root")
                for number, part in enumerate(in_files(jobs, per_file))
            },
        )

    def add_jobs(self, jobs):
        self.put(SPOOL, {":etc:cron.d:more": lines_of(jobs, "root")})


class BusyBox(Daemon):
    """A crontab is an account's here, so that many files take many accounts."""

    DAEMON = "/usr/sbin/crond"
    MAIN = "crond"
    COMMAND = [DAEMON, "-f"]
    TITLE = "BusyBox crond"
    FIRST_UID = 100000

    def write_jobs(self, jobs, per_file=0):
        if per_file == 0:
            self.put(SPOOL, {"root": lines_of(jobs)}, 0o600)
            return
        parts = in_files(jobs, per_file)
        with self.path("/etc/passwd").open("a") as passwd:
            for uid in range(self.FIRST_UID, self.FIRST_UID + len(parts)):
                passwd.write(f"u{uid}:x:{uid}:{uid}::/:/bin/sh\n")
        self.put(SPOOL, {f"u{uid}": lines_of(part) for uid, part in enumerate(parts, self.FIRST_UID)}, 0o600)

    def add_jobs(self, jobs):
        with self.path(f"{SPOOL}/root").open("a") as crontab:
            crontab.write(lines_of(jobs))


PEER_BINARIES = {
    Cron: lambda: programs.PEERS / "cron/usr/sbin/cron",
    Bcron: lambda: programs.PEERS / "bcron/usr/sbin/bcron-start",
    BusyBox: lambda: programs.PEERS / "busybox/busybox",
}


def own_binary(copies):
    """The daemon as it is installed, or the one that leaves out the copying of programs."""
    return programs.BUILD / ("kestcrond" if copies else "kestcrond_nocopy")


def new(kind, copies=False):
    """A machine for a daemon of this kind, to be entered."""
    return kind(own_binary(copies) if kind is Kestcrond else PEER_BINARIES[kind]())


KINDS = [Kestcrond, *PEER_BINARIES]
