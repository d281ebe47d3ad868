"""The CPU time of a cycle in which no job is due, from /proc/PID/schedstat.

The other daemons check their jobs when a minute begins, one after the other, and the first of them runs with
cold caches, because other programs ran in the minute before. kestcrond starts a cycle a minute after its load:
it is reloaded when a minute begins, so that its cycles are right before those of the others.

All daemons and sizes run at the same time, each on its own machine, by the real clock, without any interposed
library. The CPU time of each is read twice a second; the time between two sleeps is that of one cycle. Cycles
at a full hour are left out, because times are redrawn or directories are re-read there, and so is the first
of each daemon, in which BusyBox re-reads all crontabs. For bcron the process that schedules is measured.
"""

import os
import signal
import time
from contextlib import ExitStack

from . import daemons
from .daemons import idle_jobs
from .measure import Cells, cpu_of

LAYOUTS = (0, 1)  # jobs in a file; 0 is all in one
STEP = 0.5
REST = 5  # seconds without CPU time that separate two cycles


class Cycles:
    """The cycles of one daemon, derived from samples of its CPU time."""

    def __init__(self, cpu):
        self.cpu = cpu
        self.last = None  # the time of the last sample in which it had run
        self.found = []  # [time, nanoseconds]

    def add_sample(self, cpu, now):
        if cpu != self.cpu:
            if self.last is None or now - self.last > REST:
                self.found.append([now, 0])
            self.found[-1][1] += cpu - self.cpu
            self.last = now
        self.cpu = cpu

    def counted(self):
        return [cpu for moment, cpu in self.found[1:] if time.localtime(moment).tm_min != 0]


def start_all(bench, stack, cells):
    """Starts all daemons, one after the other; returns the machines by cell."""
    running = {}
    for count in bench.sizes(0, 100, 1000, 10000):
        for per_file in LAYOUTS if count else LAYOUTS[:1]:
            for kind in daemons.KINDS:
                cell = (kind.TITLE, per_file, count)

                def start():
                    machine = stack.enter_context(daemons.new(kind))
                    machine.write_jobs(idle_jobs(count), per_file)
                    machine.start_ready()
                    machine.close_system_log()
                    running[cell] = machine

                bench.attempt(cells, cell, start)
    return running


def align_cycles(running):
    time.sleep(60 - time.time() % 60)
    for machine in running.values():
        if machine.MAIN == "kestcrond":
            os.kill(machine.main_pid(), signal.SIGHUP)
    for machine in running.values():
        machine.settle()


def watch(bench, cells, running, minutes):
    pids = {cell: machine.main_pid() for cell, machine in running.items()}
    cycles = {cell: Cycles(machine.cpu()) for cell, machine in running.items()}
    end = time.monotonic() + 60 * minutes + REST
    while time.monotonic() < end:
        time.sleep(STEP)
        for cell in list(cycles):

            def sample():
                cycles[cell].add_sample(cpu_of(pids[cell]), time.time())

            if not bench.attempt(cells, cell, sample):
                del cycles[cell]
    return cycles


def measure(bench):
    cells = Cells("daemon", "per_file", "jobs")
    with ExitStack() as stack:
        running = start_all(bench, stack, cells)
        align_cycles(running)
        cycles = watch(bench, cells, running, 2 if bench.quick else 8)
        for cell, found in cycles.items():
            for cpu in found.counted():
                cells.add(cpu / 1e6, *cell)
            if not found.counted():
                cells.fail("no cycle was found besides the first and those at a full hour", *cell)
    return cells.rows()
