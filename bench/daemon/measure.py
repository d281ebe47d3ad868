"""Measures CPU time of a process and of all its children, memory, and the times of events."""

import ctypes
import itertools
import os
import re
import select
import statistics
import struct
import time
from pathlib import Path

from tests.lib.private_machine import Deadline, wait_for

libc = ctypes.CDLL(None, use_errno=True)
IN_MOVED_TO = 0x80


def cpu_of(pid):
    """The CPU time of the main thread of a process, in nanoseconds."""
    return int(Path(f"/proc/{pid}/schedstat").read_text().split()[0])


def memory_of(pid):
    """Resident, proportional and private memory in KiB."""
    sizes = dict(re.findall(r"(?m)^(\w+): +(\d+) kB", Path(f"/proc/{pid}/smaps_rollup").read_text()))
    return {
        "resident": int(sizes["Rss"]),
        "proportional": int(sizes["Pss"]),
        "private": int(sizes["Private_Clean"]) + int(sizes["Private_Dirty"]),
    }


def state_of(pid):
    return Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2][0]


class Group:
    """A control group, which counts the CPU time of its processes, including ended ones."""

    NAME = "kestcron-bench"
    numbers = itertools.count()

    def __init__(self):
        self.path = self.root() / f"{self.NAME}-{os.getpid()}-{next(self.numbers)}"
        self.path.mkdir()

    @staticmethod
    def root():
        for line in Path("/proc/mounts").read_text().splitlines():
            _, place, kind, *_ = line.split()
            if kind == "cgroup2":
                return Path(place)
        raise RuntimeError("no control groups of version 2 are mounted")

    @classmethod
    def remove_stale(cls):
        """Removes the groups of killed runs."""
        for path in cls.root().glob(f"{cls.NAME}-*"):
            if not Path("/proc", path.name.split("-")[-2]).exists():
                path.rmdir()

    def cpu(self):
        """The CPU time in nanoseconds, with a resolution of a microsecond."""
        return int(re.search(r"usage_usec (\d+)", (self.path / "cpu.stat").read_text())[1]) * 1000

    def pids(self):
        return [int(pid) for pid in (self.path / "cgroup.procs").read_text().split()]

    def is_asleep(self):
        try:
            return all(state_of(pid) == "S" for pid in self.pids())
        except (FileNotFoundError, ProcessLookupError):
            return False

    def remove(self):
        """Removes the group after all its processes have ended."""
        try:
            wait_for(lambda: not self.pids(), 10, "the end of a control group")
            self.path.rmdir()
        except (Deadline, OSError):
            pass  # a remaining empty group does no harm


class Arrivals:
    """Detects without polling when a file is moved into a directory."""

    def __init__(self, directory):
        self.descriptor = libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        if libc.inotify_add_watch(self.descriptor, str(directory).encode(), IN_MOVED_TO) < 0:
            raise OSError(ctypes.get_errno(), "no watch", str(directory))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self.descriptor)

    def wait(self, name, seconds, check):
        """Returns the time, in nanoseconds of the monotonic clock, at which `name` was moved in. Calls `check`
        every second, which raises an exception if this cannot happen any more."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if not select.select([self.descriptor], [], [], 1)[0]:
                check()
                continue
            moment = time.monotonic_ns()
            records, offset = os.read(self.descriptor, 1 << 16), 0
            while offset < len(records):
                size = struct.unpack_from("iIII", records, offset)[3]
                if records[offset + 16 : offset + 16 + size].rstrip(b"\0") == name.encode():
                    return moment
                offset += 16 + size
        raise Deadline(f"{name}: not within {seconds} s")


def reason_of(fault):
    """The reason of a failure, in one line."""
    kind = f"{type(fault).__name__}: " if isinstance(fault, Exception) else ""
    return kind + " ".join(str(fault).split())


class Cells:
    """The results: for each cell, identified by the values of `keys`, a list of figures or the reason of a
    failure."""

    def __init__(self, *keys):
        self.keys = keys
        self.values = {}
        self.faults = {}

    def add(self, value, *cell):
        self.values.setdefault(cell, []).append(value)

    def fail(self, fault, *cell):
        self.faults[cell] = reason_of(fault)

    def rows(self):
        cells = dict.fromkeys([*self.values, *self.faults])
        return [
            {
                **dict(zip(self.keys, cell)),
                **summary(self.values.get(cell, [])),
                **({"fault": self.faults[cell]} if cell in self.faults else {}),
            }
            for cell in cells
        ]


def summary(values):
    """The median, the lowest and the highest of the values, and all values."""
    if not values:
        return {"values": []}
    return {"median": statistics.median(values), "low": min(values), "high": max(values), "values": values}
