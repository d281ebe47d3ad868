"""The measured daemons, each on its own private machine: how jobs are installed, how the daemon is started, and
how to detect that it is ready."""

import json
import subprocess
import tempfile
import time
from collections import namedtuple
from pathlib import Path

from tests.lib.private_machine import PrivateMachine, template_config, wait_for

from . import programs
from .measure import Arrivals, Group, cpu_of

# `when` is a crontab expression; all jobs run as root.
Job = namedtuple("Job", "name when command", defaults=["/usr/bin/true"])

SPOOL = "/var/spool/cron/crontabs"
LIBRARIES = "/usr/lib/x86_64-linux-gnu"


def idle_jobs(count):
    """Jobs that are spread over the day like real ones, but on a day that does not exist."""
    return [Job(f"j{number}", f"{number % 60} {number * 7 % 24} 31 2 *") for number in range(count)]


def in_files(jobs, per_file):
    """The jobs in lists, one for each file; with `per_file` 0 all are in one file."""
    per_file = per_file or max(len(jobs), 1)
    return [jobs[start : start + per_file] for start in range(0, len(jobs), per_file)]


def lines_of(jobs, user=""):
    return "".join(f"{job.when} {user} {job.command}\n" for job in jobs)


def tool(name):
    return Path("/share") / name


class Daemon(PrivateMachine):
    """A machine for one daemon. `group` counts the CPU time of the daemon since its exec, with all its children."""

    # Each kind defines the name of the process that checks the schedules, the command that starts it in the
    # foreground, and its name in tables. It also defines `write_jobs`, which writes jobs to files with
    # `per_file` jobs each, and `add_jobs`, which adds jobs in a separate file.
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
        """Removes the jobs of the host, and installs what the daemon needs."""
        for directory in ("/etc/cron.d", SPOOL):
            self.path(directory).mkdir(parents=True, exist_ok=True)
            for entry in self.path(directory).iterdir():
                entry.unlink()
        self.path("/etc/crontab").unlink(missing_ok=True)

    def put(self, directory, files, mode=0o644):
        """Writes files directly; the daemon must not run yet."""
        target = self.path(directory)
        target.mkdir(parents=True, exist_ok=True)
        for name, text in files.items():
            (target / name).write_text(text)
            (target / name).chmod(mode)

    def charged(self, *command):
        """Starts a command in the control group, which counts its CPU time; returns the process."""
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
        """Starts a command `count` times in the control group, without a daemon. Returns CPU time and elapsed
        time in nanoseconds."""
        before = self.group.cpu() if self.group else 0
        process = self.charged(tool("floor"), count, *command)
        if process.wait(300) != 0:
            raise RuntimeError(f"{command[0]} failed: {self.last_output()}")
        return self.group.cpu() - before, int(self.last_output())

    def last_output(self):
        """The end of the output of the command that charged() started last."""
        self.output.seek(0)
        return self.output.read()[-500:]

    def exec_time(self):
        """The time of the exec, in nanoseconds of the monotonic clock."""
        return int(wait_for(lambda: self.read("/tmp/began"), what="the start"))

    def launch_daemon(self):
        self.process = self.charged(*self.COMMAND)

    def main_pid(self):
        """The outside pid of the process that checks the schedules."""
        for pid in self.group.pids():
            try:
                if Path(f"/proc/{pid}/comm").read_text().strip() == self.MAIN:
                    return pid
            except FileNotFoundError:
                pass
        self._drain()
        raise RuntimeError(f"{self.TITLE} has ended: {self.last_output()} {self._datagrams[-3:]}")

    def settle(self, quiet=0.3, seconds=120):
        """Waits until all processes have been asleep for `quiet` seconds without using CPU time."""
        time.sleep(0.1)
        seen = [None, time.monotonic()]

        def is_quiet():
            now = self.group.cpu() if self.group.is_asleep() else None
            if now is None or now != seen[0]:
                seen[:] = [now, time.monotonic()]
            return time.monotonic() - seen[1] > quiet

        wait_for(is_quiet, seconds, "the end of all activity")
        self.main_pid()

    def start_ready(self):
        """Starts the daemon and waits until it has loaded its jobs and sleeps."""
        self.launch_daemon()
        self.exec_time()
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
        """The path of the staged program of a job that add_jobs() added."""
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
        """Sets "maxDelay" to 0, so that all jobs of a cycle start at once."""
        self.write(self.TEMPLATE, json.dumps({"config": template_config(), "maxDelay": 0}))

    def timed_start(self, seconds=120):
        """Starts the daemon; returns the nanoseconds until its runtime documents were written."""
        with Arrivals(self.path("/run")) as arrivals:
            self.launch_daemon()
            began = self.exec_time()
            ready = arrivals.wait(Path(self.RUNTIME_TEMPLATE).name, seconds, self.main_pid)
        self.settle()
        return ready - began

    def loaded(self):
        """The number of loaded jobs."""
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
    """The processes that check schedules and run jobs. The one that copies system crontabs to the spool is not
    started: the files are written to the spool directly."""

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
    """Each crontab belongs to an account: many files need many accounts."""

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
    """The daemon itself, or the variant that does not copy programs."""
    return programs.BUILD / ("kestcrond" if copies else "kestcrond_nocopy")


def new(kind, copies=False):
    """A machine for a daemon of this kind, for a `with` statement."""
    return kind(own_binary(copies) if kind is Kestcrond else PEER_BINARIES[kind]())


KINDS = [Kestcrond, *PEER_BINARIES]
