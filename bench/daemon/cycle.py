"""The daemon's CPU time for a look at its jobs of which none is due, by /proc/PID/schedstat.

The others look when a minute begins, one after the other, and the first of them finds the kernel's
code as cold as a minute of other programs has left it. Ours looks a minute after it has loaded,
whenever that was: it is told to load again when a minute begins, and looks just before them then.

All daemons and sizes run at the same time, each on a machine of its own, by the real clock: nothing
stands between a daemon and its system calls. Twice a second the time of each is read; what it took
between two stretches of sleep is one look. Left out are looks at a full hour, when times are drawn
or directories are read again, and each daemon's first, at which BusyBox reads all crontabs again.
Of bcron it is the process that schedules.
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
REST = 5  # seconds of sleep between two looks


class Looks:
    """The looks of one daemon, told from what it took so far at one moment after the other."""

    def __init__(self, cpu):
        self.cpu = cpu
        self.last = None  # when it was last seen to have run
        self.found = []  # [moment, nanoseconds]

    def see(self, cpu, now):
        if cpu != self.cpu:
            if self.last is None or now - self.last > REST:
                self.found.append([now, 0])
            self.found[-1][1] += cpu - self.cpu
            self.last = now
        self.cpu = cpu

    def usual(self):
        return [cpu for moment, cpu in self.found[1:] if time.localtime(moment).tm_min != 0]


def start_all(bench, stack, cells):
    """Starts one daemon after the other; returns cell to machine."""
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


def look_together(running):
    time.sleep(60 - time.time() % 60)
    for machine in running.values():
        if machine.MAIN == "kestcrond":
            os.kill(machine.main_pid(), signal.SIGHUP)
    for machine in running.values():
        machine.settle()


def watch(bench, cells, running, minutes):
    pids = {cell: machine.main_pid() for cell, machine in running.items()}
    looks = {cell: Looks(machine.cpu()) for cell, machine in running.items()}
    end = time.monotonic() + 60 * minutes + REST
    while time.monotonic() < end:
        time.sleep(STEP)
        for cell in list(looks):

            def see():
                looks[cell].see(cpu_of(pids[cell]), time.time())

            if not bench.attempt(cells, cell, see):
                del looks[cell]
    return looks


def measure(bench):
    cells = Cells("daemon", "per_file", "jobs")
    with ExitStack() as stack:
        running = start_all(bench, stack, cells)
        look_together(running)
        looks = watch(bench, cells, running, 2 if bench.quick else 8)
        for cell, seen in looks.items():
            for cpu in seen.usual():
                cells.add(cpu / 1e6, *cell)
            if not seen.usual():
                cells.fail("no look was seen but the first and those at a full hour", *cell)
    return cells.rows()
