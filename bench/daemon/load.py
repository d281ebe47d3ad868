"""From the start and from SIGHUP until the daemon is ready: CPU time and elapsed time.

kestcrond is ready when its runtime documents are written and it sleeps. The CPU time is that of the control
group since the exec, so it includes the dynamic loader and the starting process. For the other daemons it is
the CPU time from the exec until no process of theirs has run for 0.3 seconds.

Without copies, an empty file replaces each copy; the CPU time of making these files alone is subtracted.
"""

import os
import signal
import time
from pathlib import Path

from . import daemons
from .daemons import Kestcrond, idle_jobs, tool
from .measure import Arrivals, Cells

LAYOUTS = (1, 100)  # jobs in a file


def reload(machine):
    """Reloads the daemon; returns CPU time and elapsed time in nanoseconds."""
    before = machine.group.cpu()
    with Arrivals(machine.path("/run")) as arrivals:
        requested = time.monotonic_ns()
        os.kill(machine.main_pid(), signal.SIGHUP)
        ready = arrivals.wait(Path(machine.RUNTIME_TEMPLATE).name, 300, machine.main_pid)
    machine.settle()
    return machine.group.cpu() - before, ready - requested


def stub_of_copies(machine, count):
    """The CPU time in nanoseconds of making this number of empty files."""
    return int(machine.run(tool("entries"), count, "/tmp/entries").stdout)


def load_own(cells, count, per_file, copies):
    with daemons.new(Kestcrond, copies) as machine:
        machine.write_jobs(idle_jobs(count), per_file)
        wall = machine.timed_start(300)
        if machine.loaded() != count:
            raise RuntimeError(f"{machine.loaded()} jobs loaded, not {count}")
        name = "kestcrond" if copies else "kestcrond, no copies"
        stub = 0 if copies else stub_of_copies(machine, count)
        cells.add((machine.group.cpu() - stub) / 1e6, name, "start", "cpu", per_file, count)
        cells.add(wall / 1e6, name, "start", "wall", per_file, count)
        again, wall = reload(machine)
        cells.add((again - stub) / 1e6, name, "reload", "cpu", per_file, count)
        cells.add(wall / 1e6, name, "reload", "wall", per_file, count)


def load_peer(cells, kind, count, per_file):
    with daemons.new(kind) as machine:
        machine.write_jobs(idle_jobs(count), per_file)
        machine.start_ready()
        cells.add(machine.group.cpu() / 1e6, kind.TITLE, "start", "cpu", per_file, count)


def bare_copies(cells, count):
    """Starts the copy program for each job, without a daemon: without existing copies, as at a start, and over
    existing ones, as at a reload."""
    with daemons.new(Kestcrond) as machine:
        machine.path("/tmp/copies").mkdir()
        for what in ("start", "reload"):
            cpu, wall = machine.bare(count, "/usr/bin/cp", "-af", "/usr/bin/true", "/tmp/copies/@")
            cells.add(cpu / 1e6, "bare copies", what, "cpu", 1, count)
            cells.add(wall / 1e6, "bare copies", what, "wall", 1, count)


def steps(bench, cells):
    """Yields the cells of one repetition, each with the function that measures it."""
    for count in bench.sizes(100, 1000, 10000):
        for per_file in LAYOUTS:
            yield ("kestcrond, no copies", "start", "cpu", per_file, count), lambda: load_own(
                cells, count, per_file, copies=False
            )
            for kind in daemons.PEER_BINARIES:
                yield (kind.TITLE, "start", "cpu", per_file, count), lambda: load_peer(cells, kind, count, per_file)
    for count in bench.sizes(100, 1000):
        yield ("kestcrond", "start", "cpu", 1, count), lambda: load_own(cells, count, 1, copies=True)
        yield ("bare copies", "start", "cpu", 1, count), lambda: bare_copies(cells, count)


def measure(bench):
    cells = Cells("daemon", "what", "kind", "per_file", "jobs")
    for _ in range(bench.repetitions(5)):
        for cell, fill in steps(bench, cells):
            bench.attempt(cells, cell, fill)
    return cells.rows()
