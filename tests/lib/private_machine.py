"""A private machine: the real program with its real paths, without any change to the system.

A private machine is a mount and process namespace. Its root is an overlay of the root of the system, so
files written in it disappear with it; "/tmp", "/run", "/var/log" and "/dev" are empty at the start, and a
listener receives messages to "/dev/log". Needs root.
"""

import ctypes
import os
import re
import select
import shutil
import signal
import socket
import subprocess
import threading
import time
from pathlib import Path

FAKETIME_LIBRARY = "/usr/$LIB/faketime/libfaketime.so.1"  # as the loader of each program finds it
# Constants that the modules do not define.
SO_RCVBUFFORCE = 33
CLONE_NEWNET = 0x40000000

# Runs inside the new namespaces, as process 1.
SETUP = r"""
set -e
mount --make-rprivate /
mount -t tmpfs -o mode=0755 tmpfs /mnt
mkdir /mnt/upper /mnt/work /mnt/root
mount -t overlay overlay -o lowerdir=/,upperdir=/mnt/upper,workdir=/mnt/work /mnt/root
cd /mnt/root
mount -t tmpfs -o mode=1777 tmpfs tmp
mount -t tmpfs -o mode=0755 tmpfs run
mount -t tmpfs -o mode=0755 tmpfs var/log
mount -t tmpfs -o mode=0755 tmpfs dev
mount -t proc proc proc
mount -t sysfs -o ro sysfs sys
mkdir -m 1777 dev/shm
for node in 'null 1 3' 'zero 1 5' 'full 1 7' 'random 1 8' 'urandom 1 9' 'tty 5 0'; do
    set -- $node
    mknod -m 0666 "dev/$1" c "$2" "$3"
done
ln -s /proc/self/fd dev/fd
mkdir -p mnt
if [ -n "$SHARED" ]; then
    mkdir share
    mount --bind "$SHARED" share
fi
pivot_root . mnt
cd /
umount -l /mnt
exec /usr/bin/python3 -c "$REAPER"
"""

# Reaps orphans, as process 1 must, and reports that the machine is up.
REAPER = r"""
import os, signal
signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGCHLD})
print("up", flush=True)
while True:
    try:
        while os.waitpid(-1, os.WNOHANG)[0]:
            pass
    except ChildProcessError:
        pass
    signal.sigwait({signal.SIGCHLD})
"""

PRIORITIES = {3: "err", 6: "info"}
ERROR_TEXTS = {os.strerror(number) for number in range(1, 134)}


def template_config(crontab="~ ~ ~ ~ ~"):
    """The "config" of a schedule template."""
    return {"name": "scheduleTemplate", "user": "root", "cmd": "true", "period": "crontab", "crontab": crontab}


class Deadline(Exception):
    """An expected event did not happen in time."""


def wait_for(condition, seconds=60, what="the expected event"):
    """Evaluates `condition()` until it is true, and returns its value."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise Deadline(f"{what}: not within {seconds} s")
        time.sleep(0.01)


def socket_for_many():
    """A datagram socket with a long queue, so that senders do not wait on a busy machine. The length is a
    setting of the network namespace in which the socket is created."""
    made = []

    def make():
        if ctypes.CDLL(None, use_errno=True).unshare(CLONE_NEWNET) == -1:  # this thread alone
            raise OSError(ctypes.get_errno(), "no network namespace")
        Path("/proc/sys/net/unix/max_dgram_qlen").write_text("100000")
        made.append(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM))

    thread = threading.Thread(target=make)
    thread.start()
    thread.join()
    return made[0]


class Message:
    """One line of the system log: "TAG:LINE TEXT"."""

    FORM = re.compile(r"<(\d+)>(\w+ +\d+ [\d:]+) (\w+): (?:(\w+):(\d+) )?(.*)", re.DOTALL)

    def __init__(self, datagram):
        match = self.FORM.fullmatch(datagram)
        if match is None:
            raise ValueError(f"not a line of the system log: {datagram!r}")
        number, self.stamp, self.program, self.tag, line, self.text = match.groups()
        self.priority = PRIORITIES.get(int(number) % 8, int(number) % 8)
        self.facility = int(number) // 8
        self.line = int(line) if line else None

    def plain(self):
        """The text without the error in parentheses that may end it."""
        text, bracket, error = self.text.rpartition(" (")
        return text if bracket and error[:-1] in ERROR_TEXTS else self.text

    def __repr__(self):
        return f"{self.stamp} {self.priority} {self.tag}:{self.line} {self.text}"


class PrivateMachine:
    """A private machine; leaving its `with` block kills all its processes."""

    DAEMON = "/usr/sbin/kestcrond"
    PID_FILE = "/run/kestcrond.pid"
    RUNTIME_FILE = "/run/kestcrond.config"
    RUNTIME_TEMPLATE = "/run/kestcrond.st.config"
    LOG_FILE = "/var/log/kestcrond-execute.log"

    def __init__(self, daemon, shared=""):
        """`daemon` is the path of the program outside. The directory `shared`, if given, is "/share"
        inside; files written there remain."""
        self.daemon_binary = Path(daemon)
        self.shared = shared
        self.environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}
        self._log = None
        self._datagrams = []
        self._messages = []  # those of the datagrams that are parsed
        self._draining = threading.Lock()

    def __enter__(self):
        self._unshare = subprocess.Popen(
            [
                "setpriv",
                "--pdeathsig",
                "KILL",
                "unshare",
                "--mount",
                "--pid",
                "--fork",
                "--kill-child",
                "bash",
                "-c",
                SETUP,
            ],
            env={**self.environment, "REAPER": REAPER, "SHARED": str(self.shared)},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            text=True,
        )
        if self._unshare.stdout.readline() != "up\n":
            raise RuntimeError("the private machine did not come up; is this root?")
        children = Path(f"/proc/{self._unshare.pid}/task/{self._unshare.pid}/children")
        self.init = int(children.read_text().split()[0])
        self.root = Path(f"/proc/{self.init}/root")
        self.open_system_log()
        shutil.copy2(self.daemon_binary, self.path(self.DAEMON))
        return self

    def __exit__(self, *_):
        self.close_system_log()
        self._unshare.kill()
        self._unshare.wait()
        self._unshare.stdout.close()

    # --- Files -----------------------------------------------------------------------------------

    def path(self, inside):
        """The outside path of a path inside. An absolute link on the way would lead out of the machine, so
        the link /var/run, which every system has, is resolved here."""
        return self.root / re.sub("^/var/run/", "/run/", str(inside)).lstrip("/")

    def write(self, inside, content, mode=0o644, owner=None):
        """Writes a file under another name and then moves it into place."""
        path = self.path(inside)
        path.parent.mkdir(parents=True, exist_ok=True)
        fresh = path.parent / f".{path.name[:200]}.fresh"
        fresh.write_bytes(content if isinstance(content, bytes) else content.encode())
        fresh.chmod(mode)
        if owner:
            self.chown(fresh, owner)
        fresh.rename(path)

    def read(self, inside):
        """The text of a file; empty if the file is missing."""
        try:
            return self.path(inside).read_text(errors="surrogateescape")
        except FileNotFoundError:
            return ""

    def exists(self, inside):
        return os.path.lexists(self.path(inside))

    def chown(self, path, account):
        uid, gid = self.accounts()[account]
        os.chown(path, uid, gid, follow_symlinks=False)

    def accounts(self):
        """(uid, gid) by account name."""
        entries = (line.split(":") for line in self.read("/etc/passwd").splitlines())
        return {entry[0]: (int(entry[2]), int(entry[3])) for entry in entries}

    def add_account(self, name, uid, groups=()):
        """Adds an account with its own group, as a member of `groups`."""
        with self.path("/etc/passwd").open("a") as passwd:
            passwd.write(f"{name}:x:{uid}:{uid}::/nonexistent:/usr/sbin/nologin\n")
        with self.path("/etc/group").open("a") as group:
            group.write(f"{name}:x:{uid}:\n")
            for number, extra in enumerate(groups):
                group.write(f"{extra}:x:{uid + 1000 + number}:{name}\n")

    # --- Processes -------------------------------------------------------------------------------

    def run(self, *command, env=None, check=False, timeout=60, **options):
        """Runs a command inside and returns the completed process, its output captured as text."""
        return subprocess.run(
            self._inside(command, env),
            check=check,
            timeout=timeout,
            capture_output=True,
            text=True,
            errors="replace",
            stdin=subprocess.DEVNULL,
            **options,
        )

    def popen(self, *command, env=None, **options):
        return subprocess.Popen(self._inside(command, env), **options)

    def _inside(self, command, env):
        # The environment is set inside, so that the clock library is not preloaded into nsenter.
        variables = {**self.environment, **(env or {})}
        return [
            "nsenter",
            f"--target={self.init}",
            "--mount",
            "--pid",
            "--root",
            "--wd",
            "/usr/bin/env",
            "-i",
            *(f"{name}={value}" for name, value in variables.items()),
            *map(str, command),
        ]

    def processes(self):
        """{"name", "state", "ppid"} of each process inside, by pid."""
        found = {}
        for entry in (self.root / "proc").iterdir():
            if not entry.name.isdigit():
                continue
            try:
                stat = (entry / "stat").read_text()
            except (FileNotFoundError, ProcessLookupError):
                continue
            name = stat[stat.index("(") + 1 : stat.rindex(")")]
            state, ppid = stat[stat.rindex(")") + 2 :].split()[:2]
            found[int(entry.name)] = {"name": name, "state": state, "ppid": int(ppid)}
        return found

    def proc(self, pid, name):
        return self.root / "proc" / str(pid) / name

    # --- The daemon ------------------------------------------------------------------------------

    def clock(self, start, rate=60, zone=None):
        """Sets the clock of programs that are started from now on: it begins at `start` and runs `rate`
        times as fast. With rate 0 it stands still, and sleeps take their real time."""
        self.environment.update(
            LD_PRELOAD=FAKETIME_LIBRARY, NO_FAKE_STAT="1", FAKETIME=f"@{start} x{rate}" if rate else start
        )
        if zone:
            self.environment["TZ"] = zone

    def start(self, *arguments, env=None):
        """Starts the daemon; returns the exit status of the program that was started."""
        return self.run(self.DAEMON, *arguments, env=env).returncode

    def start_and_wait(self, *arguments, env=None):
        """Starts the daemon and waits until it has loaded its jobs."""
        for file in (self.RUNTIME_FILE, self.RUNTIME_TEMPLATE):
            self.path(file).unlink(missing_ok=True)
        status = self.start(*arguments, env=env)
        if status != 0:
            raise RuntimeError(f"the daemon did not start: status {status}")
        loaded = lambda: self.exists(self.RUNTIME_TEMPLATE)
        wait_for(lambda: loaded() or not self.daemons(), what="the runtime documents")
        if not loaded():
            raise RuntimeError(f"the daemon has ended: {self.messages(priority='err')[-3:]}")
        return self.daemon_pid()

    def daemons(self):
        """The pids of the daemon and of its children that do not run their program yet."""
        return [pid for pid, process in self.processes().items() if process["name"] == Path(self.DAEMON).name]

    def daemon_pid(self):
        """The inside pid of the running daemon; 0 if none runs."""
        text = self.read(self.PID_FILE).strip()
        pid = int(text) if text.isdigit() else 0
        return pid if pid in self.processes() else 0

    def signal(self, number, pid=None):
        pid = pid or self.daemon_pid()
        if not pid:
            raise RuntimeError("the daemon does not run")
        name = signal.Signals(number).name.removeprefix("SIG")
        self.run("/usr/bin/kill", "-s", name, pid, check=True, env={"LD_PRELOAD": ""})

    def stop(self, seconds=60):
        """Stops the daemon by SIGTERM and waits for its end."""
        pid = self.daemon_pid()
        self.signal(signal.SIGTERM, pid)
        wait_for(lambda: pid not in self.processes(), seconds, "the daemon's end")

    # --- The system log --------------------------------------------------------------------------

    def open_system_log(self):
        self._log = socket_for_many()
        self._log.setblocking(False)
        self._log.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 16 << 20)
        self._log.bind(str(self.path("/dev/log")))
        os.chmod(self.path("/dev/log"), 0o666)
        threading.Thread(target=self._drain_while_open, daemon=True).start()

    def close_system_log(self):
        """Removes "/dev/log"."""
        with self._draining:
            log, self._log = self._log, None
        if log is not None:
            self.path("/dev/log").unlink(missing_ok=True)
            log.close()

    def _drain_while_open(self):
        # Read continuously: the queue of the socket is limited, and programs must not wait for it.
        while self._drain():
            log = self._log
            try:
                if log is not None:
                    select.select([log], [], [], 0.05)
            except (OSError, ValueError):  # closed in the meantime
                pass

    def _drain(self):
        """Reads all waiting messages; returns False once the log is closed."""
        with self._draining:
            while self._log is not None:
                try:
                    self._datagrams.append(self._log.recv(1 << 20).decode(errors="surrogateescape"))
                except BlockingIOError:
                    return True
            return False

    def messages(self, tag=None, priority=None):
        """The messages in the system log so far, in order."""
        self._drain()
        self._messages += map(Message, self._datagrams[len(self._messages) :])
        return [
            message for message in self._messages if tag in (None, message.tag) and priority in (None, message.priority)
        ]

    def texts(self, tag=None, priority="err"):
        """The texts of messages without the error in parentheses that may end them."""
        return [message.plain() for message in self.messages(tag, priority)]

    # --- The execution log -----------------------------------------------------------------------

    def log_lines(self):
        """The complete lines; the last one may be incomplete and is then left out."""
        return self.read(self.LOG_FILE).rpartition("\n")[0].splitlines()
