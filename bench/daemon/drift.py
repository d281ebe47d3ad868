"""What a look takes on top of its 60 seconds, seen from outside.

A job that is due in every minute notes the real time at which it runs, beside jobs that never are
due. kestcrond sleeps 60 seconds after each look, so that the time from one note to the next is 60
seconds and what the look took: the timer's lateness, the work, the start of the one job. The other
daemons sleep until the minute begins; for them each note tells how late in its minute it came. The
notes hold the way from fork to the job too, which is about the same each time: it is in the
lateness of the others, not in the drift. A program that does nothing but sleep 60 seconds again
and again shows what the machine's timers add by themselves.
"""

import time
from contextlib import ExitStack

from . import daemons
from .daemons import Job, Kestcrond, idle_jobs, tool
from .measure import Cells

WITNESS = Job("witness", "* * * * *", f"{tool('stamp')} witness")
# The other daemons all look when the minute begins; ours looks when it was started.
OWN_SECONDS = {100: 20, 1000: 40}
SLEEPER = "bare sleep"
SLEEPER_SECOND = 50
MINUTE = 60 * 10**9


def wait_for_second(second):
    """Until the clock's minute is at that second."""
    time.sleep((second - time.time()) % 60)


def plan(bench):
    """(kind, jobs): the others with one size only, as they would be in one another's way."""
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


def notes(machine):
    """The moments noted, in nanoseconds since the epoch."""
    lines = machine.read("/tmp/starts").splitlines()
    return sorted(int(line.split()[1]) for line in lines)


def judge_drift(cells, title, count, moments):
    """From one note to the next, and over the whole time, in milliseconds. The first note is left
    out: it is made right after the load, when nothing has to be woken up."""
    if len(moments) < 3:
        raise RuntimeError(f"{len(moments)} notes came")
    moments = moments[1:]
    for earlier, later in zip(moments, moments[1:]):
        cells.add((later - earlier - MINUTE) / 1e6, title, "drift", count)
    mean = (moments[-1] - moments[0]) / (len(moments) - 1) - MINUTE
    cells.add(mean / 1e6, title, "mean drift", count)


def judge_lateness(cells, title, count, moments):
    """How late in its minute each note came, in milliseconds."""
    if not moments:
        raise RuntimeError("no note came")
    for moment in moments:
        cells.add(moment % MINUTE / 1e6, title, "late", count)


def start_all(bench, cells, stack):
    """Cell to machine and how to judge it."""
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
            bench.attempt(cells, (title, "drift", count), lambda: judge(cells, title, count, notes(machine)))
    return cells.rows()
