"""A private machine on which several daemons run through the same script, one after the other. The clock stands
still until the script advances it (clock.cpp). Everything that the daemon does visibly is added to a record, and
the records of two daemons can be compared."""

import ctypes
import hashlib
import mmap
import os
import re
import select
import shutil
import signal
import stat
import struct
import subprocess
import time
from pathlib import Path

from tests.lib.appliance import PERSISTENT_FILE, PERSISTENT_TEMPLATE, Appliance
from tests.lib.private_machine import Deadline

CLOCK_LIBRARY = "/opt/clock.so"
WITNESS = "/usr/local/bin/witness"
RAN = "/dev/ran"
LONGEST_STEP = 30  # seconds of real time

# Directories that are listed after a step and emptied before the next run.
TREES = ["/tmp", "/run", "/var/log", "/usr/kest", "/usr/local/etc", "/srv"]
DOCUMENTS = ["/run/kestcrond.config", "/run/kestcrond.st.config", PERSISTENT_FILE, PERSISTENT_TEMPLATE]

# The source line of a message may change.
SOURCE_LINE = re.compile(r"^(<\d+>\w+ +\d+ [\d:]+ \w+: \w+):\d+ ")
# The digits of that line number change the place where a long message is cut.
CUT_SIGN = " [cut]"
LONGEST_COMPARED = 7900
PLATFORM_LINE = re.compile(r"(0x[0-9A-F]{4} \w+\.cpp):\d+")
RANDOM_NAME = re.compile(r"(/tmp/kestcrond(?:\.log)?)\.\w{6}(?=/|$)")
KERNEL_NUMBER = re.compile(r"(socket|pipe|anon_inode):\[\w+\]")


class World:
    """The memory that the preloaded library shares; its layout is that of World in clock.cpp."""

    HEAD = struct.Struct("=qqQii")
    SLEEPER = struct.Struct("=qii")
    SIZE = HEAD.size + 65535 * SLEEPER.size
    ASLEEP, AWAKE = 1, 2
    FUTEX = {"x86_64": 202, "aarch64": 98}[os.uname().machine]
    WAKE = 1

    def __init__(self, path):
        with path.open("w+b") as file:
            file.truncate(self.SIZE)
            self.memory = mmap.mmap(file.fileno(), self.SIZE)
        path.chmod(0o666)
        self._first = ctypes.addressof(ctypes.c_char.from_buffer(self.memory))
        self._system = ctypes.CDLL(None, use_errno=True).syscall

    def begin(self, now):
        self.now, self.steady, self.seed = now, 1000, 0
        self._seen, self._sleepers = 0, {}
        for number in range(self.HEAD.unpack_from(self.memory)[3]):
            self.SLEEPER.pack_into(self.memory, self.offset_of(number), 0, 0, 0)
        self.HEAD.pack_into(self.memory, 0, self.now, self.steady, self.seed, 0, 0)

    def offset_of(self, sleeper):
        return self.HEAD.size + sleeper * self.SLEEPER.size

    def set(self, now, steady, seed=None):
        self.now, self.steady = now, steady
        struct.pack_into("=qq", self.memory, 0, now, steady)
        if seed is not None:
            struct.pack_into("=Q", self.memory, 16, seed)

    def sleepers(self):
        """The times on the steady clock at which sleeps end, by number of the sleeper."""
        count = self.HEAD.unpack_from(self.memory)[3]
        while self._seen < count:
            until, state, _ = self.SLEEPER.unpack_from(self.memory, self.offset_of(self._seen))
            if state != self.ASLEEP:
                break
            self._sleepers[self._seen] = until
            self._seen += 1
        return self._sleepers

    def wake(self, number):
        del self._sleepers[number]
        place = self.offset_of(number) + 8
        struct.pack_into("=i", self.memory, place, self.AWAKE)
        self._system(
            ctypes.c_long(self.FUTEX),
            ctypes.c_void_p(self._first + place),
            ctypes.c_int(self.WAKE),
            ctypes.c_int(1),
            None,
            None,
            ctypes.c_int(0),
        )


class SteppedMachine(Appliance):
    """The machine. `record` is the record of the present run, as lines."""

    def __init__(self, daemons, library, witness):
        """`daemons` are the programs by name."""
        super().__init__(next(iter(daemons.values())))
        self.programs = daemons
        self.library, self.witness = library, witness

    def __enter__(self):
        super().__enter__()
        for name, program in self.programs.items():
            self.path(f"/opt/{name}").mkdir(parents=True)
            shutil.copy2(program, self.path(f"/opt/{name}/kestcrond"))
        shutil.copy2(self.library, self.path(CLOCK_LIBRARY))
        shutil.copy2(self.witness, self.path(WITNESS))
        self.world = World(self.path("/dev/clock"))
        self.path(RAN).touch()
        self.path(RAN).chmod(0o666)
        self.pipes = {}
        for name in ("go", "waits"):
            os.mkfifo(self.path(f"/dev/{name}"))
            self.pipes[name] = os.open(self.path(f"/dev/{name}"), os.O_RDWR | os.O_NONBLOCK)
        self.process = None
        self.account_files = {path: self.read(path) for path in ("/etc/passwd", "/etc/group")}
        return self

    # --- A run ----------------------------------------------------------------------------------

    def begin(self, name, now, zone):
        """Restores the initial state of the machine, for the daemon of this name."""
        self.end()
        for tree in TREES:
            self.path(tree).mkdir(exist_ok=True)
            self.clear(self.path(tree))
        self.set_accounts([])
        self.path(RAN).write_bytes(b"")
        self.world.begin(now)
        self.drain()
        self.program = f"/opt/{name}/kestcrond"
        self.environment.update(LD_PRELOAD=CLOCK_LIBRARY, TZ=zone)
        self.record = []
        self.counts = {"steps": 0, "messages": 0, "starts": 0, "cycles": 0}
        self.seen = {}
        self.read_of = {self.LOG_FILE: 0, RAN: 0}

    def set_accounts(self, names):
        """Restores the initial accounts and adds these."""
        for path, content in self.account_files.items():
            self.write(path, content)
        for number, name in enumerate(names):
            self.add_account(name, 2100 + number)

    @staticmethod
    def clear(directory):
        for entry in list(os.scandir(directory)):
            if entry.is_dir(follow_symlinks=False):
                shutil.rmtree(entry.path)
            else:
                os.unlink(entry.path)

    def end(self):
        """Kills all processes of a run."""
        deadline = time.monotonic() + LONGEST_STEP
        while self.process or self.children():
            parents = [self.init, *self.daemons(), *([self.process.pid] if self.process else [])]
            for parent in parents:
                for pid in children_of(parent):
                    signal_child(parent, pid, signal.SIGKILL)
            if self.process and self.process.poll() is not None:
                self.process = None
            if time.monotonic() > deadline:
                raise Deadline("processes that cannot be killed")
            time.sleep(0.0005)
        for pipe in self.pipes.values():
            try:
                os.read(pipe, 65536)
            except BlockingIOError:
                pass

    def children(self):
        """The outside pids of all processes but the daemon and process 1."""
        return [pid for parent in [self.init, *self.daemons()] for pid in children_of(parent)]

    def daemons(self):
        """A list of the outside pid of the daemon; empty while it does not run."""
        if self.process and not self.daemon:
            self.daemon = next(iter(children_of(self.process.pid)), 0)
        return [self.daemon] if self.process and self.daemon else []

    # --- Steps -----------------------------------------------------------------------------------

    def step(self, text):
        self.counts["steps"] += 1
        self.record.append(f"=== {self.counts['steps']}: {text}")

    def start_daemon(self, seed, *arguments):
        """Starts the daemon and waits for the end of its first cycle."""
        self.world.set(self.world.now, self.world.steady, seed)
        self.process = subprocess.Popen(
            self._inside((self.program, *arguments), None),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        self.daemon = 0
        self.await_daemon()

    def start_another(self):
        """Starts a second daemon, which should end at once."""
        another = self.run(self.program)
        self.record.append(f"the other daemon has ended: {another.returncode}")
        self.record_news()

    def cycle(self, seconds):
        """Lets time pass until the next cycle, and waits for its end."""
        self.pass_time(seconds)
        if self.process:
            self.counts["cycles"] += 1
            os.write(self.pipes["go"], b"x")
            self.await_daemon()

    def signal_daemon(self, number):
        """Sends a signal and waits until the daemon has handled it."""
        for daemon in self.daemons():
            signal_child(self.process.pid, daemon, number)
            self.await_daemon()

    def set_clock(self, seconds):
        """Sets the clock forward or back, as an operator would."""
        self.world.set(self.world.now + seconds, self.world.steady)

    def pass_time(self, seconds):
        """Lets time pass; sleeps that end in this time end one after another."""
        end = self.world.steady + seconds
        while sleepers := {number: until for number, until in self.world.sleepers().items() if until <= end}:
            number = min(sleepers, key=lambda number: (sleepers[number], number))
            passed = max(sleepers[number] - self.world.steady, 0)
            self.world.set(self.world.now + passed, self.world.steady + passed)
            self.world.wake(number)
            self.settle()
            self.record_news()
        self.world.set(self.world.now + end - self.world.steady, end)

    def await_daemon(self):
        """Waits until the daemon waits for its next cycle or has ended, and records its output."""
        deadline = time.monotonic() + LONGEST_STEP
        while True:
            ready = select.select([self.pipes["waits"], self._log], [], [], 0.02)[0]
            self._drain()
            if self.pipes["waits"] in ready:
                self.record_wait(struct.unpack("=q", os.read(self.pipes["waits"], 8))[0])
                break
            if self.process.poll() is not None:
                self.record.append(f"the daemon has ended: {self.process.returncode}")
                self.process = None
                break
            if time.monotonic() > deadline:
                raise Deadline("the daemon does not end its cycle")
        self.settle()
        self.record_news()

    def record_wait(self, seconds):
        if seconds != 60:
            self.record.append(f"waits {seconds} s")

    def settle(self):
        """Waits until all processes but the daemon are asleep or have ended."""
        deadline = time.monotonic() + LONGEST_STEP
        while len(self.children()) != len(self.world.sleepers()):
            if time.monotonic() > deadline:
                raise Deadline("processes that do not end")
            time.sleep(0.0002)

    # --- The record ------------------------------------------------------------------------------

    def drain(self):
        """The messages since the last call."""
        self._drain()
        with self._draining:
            datagrams, self._datagrams = self._datagrams, []
        return datagrams

    def record_news(self):
        """Records what is new: messages, lines of logs, and documents."""
        for datagram in self.drain():
            self.counts["messages"] += 1
            text = SOURCE_LINE.sub(r"\1 ", datagram)
            if text.endswith(CUT_SIGN):
                text = text[:LONGEST_COMPARED]
            text = PLATFORM_LINE.sub(r"\1", text)
            self.add("message", RANDOM_NAME.sub(r"\1.XXXXXX", text))
        for line in self.fresh_lines(self.LOG_FILE):
            self.add("log", line)
        for line in self.fresh_lines(RAN):
            self.counts["starts"] += 1
            self.add("start", KERNEL_NUMBER.sub(r"\1", line))
        for document in DOCUMENTS:
            self.record_document(document)

    def add(self, kind, text):
        """Records a text, which may have several lines."""
        first, *rest = map(printable, text.split("\n"))
        self.record += [f"{kind}: {first}", *(f"    {line}" for line in rest)]

    def fresh_lines(self, path):
        """The lines that were added to a file since the last call."""
        try:
            with self.path(path).open("rb") as file:
                if os.fstat(file.fileno()).st_size < self.read_of[path]:
                    self.read_of[path] = 0
                file.seek(self.read_of[path])
                content = file.read()
        except OSError:
            return []
        self.read_of[path] += len(content)
        return content.decode(errors="surrogateescape").splitlines()

    def record_document(self, document):
        """Records a document if it has changed since the last call."""
        try:
            status = os.stat(self.path(document))
        except OSError:
            identity = None
        else:
            identity = (status.st_ino, status.st_mtime_ns, status.st_size)
        if identity != self.seen.get(document):
            self.seen[document] = identity
            self.add("document", f"{document}\n{self.read(document)}" if identity else f"{document} is gone")

    def record_trees(self):
        """Records all files, without the contents of the pid file."""
        for tree in TREES:
            for line in sorted(self.listing(self.path(tree), tree)):
                self.add("file", line)

    def listing(self, directory, name):
        for entry in os.scandir(directory):
            path = f"{name}/{entry.name}"
            status = entry.stat(follow_symlinks=False)
            line = (
                RANDOM_NAME.sub(r"\1.XXXXXX", path)
                + f" {stat.filemode(status.st_mode)} {status.st_uid} {status.st_gid}"
            )
            if stat.S_ISLNK(status.st_mode):
                line += f" to {os.readlink(entry.path)}"
            elif stat.S_ISREG(status.st_mode) and path != self.PID_FILE:
                line += f" {status.st_nlink} {status.st_size} {digest(entry.path, status)}"
            yield line
            if stat.S_ISDIR(status.st_mode):
                yield from self.listing(entry.path, path)


def printable(line):
    """The line, quoted if it contains characters that cannot be printed."""
    return line if line.replace("\t", "").isprintable() else repr(line)


def children_of(pid):
    try:
        return [int(child) for child in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]
    except (FileNotFoundError, ProcessLookupError):
        return []


def signal_child(parent, pid, number):
    """Sends a signal to the process `pid` if it is still a child of `parent`."""
    try:
        descriptor = os.pidfd_open(pid)
    except ProcessLookupError:
        return
    try:
        if pid in children_of(parent):
            signal.pidfd_send_signal(descriptor, number)
    except ProcessLookupError:
        pass
    finally:
        os.close(descriptor)


def digest(path, status, known={}):
    key = (status.st_dev, status.st_ino, status.st_size, status.st_mtime_ns, status.st_ctime_ns)
    if key not in known:
        known[key] = hashlib.sha1(Path(path).read_bytes()).hexdigest()[:8]
    return known[key]
