"""The time by which the interval of cycles exceeds 60 seconds, measured from outside.

A job that is due in every minute records the real time of its runs; all other jobs are never due. kestcrond
sleeps for 60 seconds after each cycle, so the interval between two records is 60 seconds plus the duration of
the cycle: the lateness of the timer, the work, and the start of the job. The other daemons sleep until the
minute begins; for them each record shows the delay within its minute. The records include the time from the
fork to the job, which is about constant: it is part of the delay of the others but not of the drift. A program
that only sleeps for 60 seconds repeatedly shows the lateness of the timers of the machine.
"""

import time
from contextlib import ExitStack

from . import daemons
from .daemons import Job, Kestcrond, idle_jobs, tool
from .measure import Cells

WITNESS = Job("witness", "* * * * *", f"{tool('stamp')} witness")
# The cycles of the other daemons are at the beginning of the minute; those of ours depend on its start.
OWN_SECONDS = {100: 20, 1000: 40}
SLEEPER = "bare sleep"
SLEEPER_SECOND = 50
MINUTE = 60 * 10**9


def wait_for_second(second):
    """Waits for this second of a minute."""
    time.sleep((second - time.time()) % 60)


def plan(bench):
    """Yields (kind, jobs). The others run with one size only, because their checks are at the same time."""
    counts = bench.sizes(100, 1000)
    yield from ((kind, counts[-1]) for kind in daemons.PEER_BINARIES)
    yield from ((Kestcrond, count) for count in counts)


def start(kind, count, stack):
    machine = stack.enter_context(daemons.new(kind, copies=True))
    machine.write_jobs([*idle_jobs(count), WITNESS])
    if kind is Kestcrond:
        wait_for_second(OWN_SECONDS[count])
    machine.start_ready()
    machine.close_system_log()
    return machine


def start_sleeper(stack):
    machine = stack.enter_context(daemons.new(Kestcrond))
    wait_for_second(SLEEPER_SECOND)
    machine.charged(tool("sleeper"))
    return machine


def recorded_times(machine):
    """The recorded times, in nanoseconds since the epoch."""
    lines = machine.read("/tmp/starts").splitlines()
    return sorted(int(line.split()[1]) for line in lines)


def judge_drift(cells, title, count, moments):
    """Adds the drift between two records, and over the whole time, in milliseconds. The first record is left out:
    it is written right after the load, without a wake-up."""
    if len(moments) < 3:
        raise RuntimeError(f"only {len(moments)} records were written")
    moments = moments[1:]
    for earlier, later in zip(moments, moments[1:]):
        cells.add((later - earlier - MINUTE) / 1e6, title, "drift", count)
    mean = (moments[-1] - moments[0]) / (len(moments) - 1) - MINUTE
    cells.add(mean / 1e6, title, "mean drift", count)


def judge_lateness(cells, title, count, moments):
    """Adds the delay of each record within its minute, in milliseconds."""
    if not moments:
        raise RuntimeError("no record was written")
    for moment in moments:
        cells.add(moment % MINUTE / 1e6, title, "late", count)


def start_all(bench, cells, stack):
    """Starts all daemons; returns the machine and the function that evaluates it, by cell."""
    running = {}
    for kind, count in plan(bench):
        judge = judge_drift if kind is Kestcrond else judge_lateness

        def add():
            running[kind.TITLE, count] = start(kind, count, stack), judge

        bench.attempt(cells, (kind.TITLE, "drift", count), add)

    def add_sleeper():
        running[SLEEPER, 0] = start_sleeper(stack), judge_drift

    bench.attempt(cells, (SLEEPER, "drift", 0), add_sleeper)
    return running


def measure(bench):
    cells = Cells("daemon", "what", "jobs")
    with ExitStack() as stack:
        running = start_all(bench, cells, stack)
        time.sleep(60 * (2 if bench.quick else 10) + 5)
        for (title, count), (machine, judge) in running.items():
            bench.attempt(cells, (title, "drift", count), lambda: judge(cells, title, count, recorded_times(machine)))
    return cells.rows()
