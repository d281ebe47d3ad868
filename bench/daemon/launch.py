"""Many jobs that are due in one minute, without a delay between them.

Each job records when it was started. The records show how many jobs were started, and the time from the first
to the last start. The total CPU time is that of the control group from just before the minute until some
seconds later: the daemon, its children, shells between them, and the jobs, which are the same small static
program for all. The part of the daemon is that of the processes that exist before and after, from
/proc/PID/schedstat.

No two daemons start jobs at the same time: those that check when the minute begins are stopped before it, and
continued one after the other within it, which changes only the time of their check. The cycle of kestcrond
depends on its start, and is when no other daemon checks. Its programs are written in place of the copies, so
that ten thousand copies need not be made. There is no system log, so that daemons that write to it at each
start do not wait for a reader.
"""

import os
import signal
import time
from collections import namedtuple
from contextlib import ExitStack

from . import daemons, programs
from .daemons import Job, Kestcrond, idle_jobs, tool
from .drift import wait_for_second
from .measure import Cells, cpu_of

BATCHES = (1, 100, 500)
OTHERS = (0, 10000)
PEER_WINDOW = 6
OWN_SECONDS = {10000: 40, 0: 51}
OWN_WINDOWS = {10000: 10.5, 0: 7}
STOP_SECOND = 58.2
BARE = "bare starts"


def batch_minutes(bench):
    """Yields the minutes in which a batch is due, in seconds since the epoch, and the size of the batch. Full hours
    are left out. There is enough time before the first minute to start all daemons."""
    minute = (int(time.time()) + 30) // 60 * 60 + 120
    for _ in range(bench.repetitions(3)):
        for batch in bench.sizes(*BATCHES):
            if time.localtime(minute).tm_min == 0:
                minute += 60
            yield minute, batch
            minute += 60


def due_jobs(batches):
    """Yields the jobs of the largest batch; the first of them are also those of the smaller batches."""
    for number in range(max(batch for _, batch in batches)):
        minutes = sorted({time.localtime(minute).tm_min for minute, batch in batches if number < batch})
        yield Job(f"due{number}", f"{','.join(map(str, minutes))} * * * *", f"{tool('stamp')} due{number}")


def prepare(kind, others, jobs, stack):
    machine = stack.enter_context(daemons.new(kind))
    machine.write_jobs(idle_jobs(others))
    machine.add_jobs(jobs)
    if kind is Kestcrond:
        machine.start_at_once()
    else:
        machine.start_ready()
        machine.close_system_log()
    return machine


def start_own(machine, jobs):
    """Starts kestcrond, and writes the programs in place of their copies."""
    machine.start_ready()
    machine.close_system_log()
    if machine.loaded() < len(jobs):
        raise RuntimeError(f"{machine.loaded()} jobs loaded")
    program = (programs.TOOLS / "stamp").read_bytes()
    for job in jobs:
        machine.staged(job).write_bytes(program)
        machine.staged(job).chmod(0o700)


def send(machine, number):
    for pid in machine.group.pids():
        os.kill(pid, number)


# The CPU time of all processes, and of those that existed before, which are the daemon's; and the time of the
# reading, in nanoseconds since the epoch.
Spent = namedtuple("Spent", "moment by_all by_daemon")


def measure_window(machine, window):
    """Continues the machine for this number of seconds; returns the CPU time spent."""
    machine.path("/tmp/starts").unlink(missing_ok=True)
    pids = machine.group.pids()
    before = machine.group.cpu(), sum(map(cpu_of, pids))
    send(machine, signal.SIGCONT)
    time.sleep(window)
    return Spent(time.time_ns(), machine.group.cpu() - before[0], sum(map(cpu_of, pids)) - before[1])


def judge(cells, title, others, batch, machine, spent):
    """Evaluates the records and the CPU time of one batch, after all jobs had time to start."""

    def add(what, value):
        cells.add(value, title, what, others, batch)

    starts = [line.split() for line in machine.read("/tmp/starts").splitlines()]
    moments = sorted(int(moment) for _, moment in starts)
    add("started", len({name for name, _ in starts}))
    add("twice", len(starts) - len({name for name, _ in starts}))
    if len(starts) != batch:
        raise RuntimeError(f"{len(starts)} of {batch} started")
    add("first to last", (moments[-1] - moments[0]) / 1e6)
    if moments[-1] > spent.moment:
        raise RuntimeError("the last was started after the CPU time was read")
    add("cpu in all", spent.by_all / 1e6)
    if spent.by_daemon is not None:
        add("cpu of the daemon", spent.by_daemon / 1e6)
        add("cpu of the daemon per start", spent.by_daemon / 1e3 / batch)


def turns(running):
    """Yields (second of the minute, duration, kind, others) for each daemon."""
    for kind, others in running:
        if kind is Kestcrond:
            yield OWN_SECONDS[others], OWN_WINDOWS[others], kind, others
        else:
            turn = OTHERS.index(others) * len(daemons.PEER_BINARIES) + list(daemons.PEER_BINARIES).index(kind)
            yield 2 + turn * (PEER_WINDOW + 0.2), PEER_WINDOW, kind, others


def run_minute(bench, cells, running, minute, batch):
    """Runs all batches of one minute; the other daemons are stopped from before it begins until their turn.
    Returns the CPU time spent, by machine."""
    spent = {}
    time.sleep(max(0, minute - 60 + STOP_SECOND - time.time()))
    for (kind, _), machine in running.items():
        if kind is not Kestcrond:
            send(machine, signal.SIGSTOP)
    for second, window, kind, others in sorted(turns(running), key=lambda turn: turn[0]):
        machine = running[kind, others]
        time.sleep(max(0, minute + second - time.time()))

        def fill():
            if time.time() > minute + second + 1:
                raise RuntimeError("the previous turn took too long")
            spent[kind, others] = measure_window(machine, window)

        bench.attempt(cells, (kind.TITLE, "first to last", others, batch), fill)
    return spent


def judge_minute(bench, cells, running, spent, batch):
    """Evaluates the minute at its end, when slow starts are complete and the next ones have not begun."""
    for (kind, others), taken in spent.items():
        machine = running[kind, others]
        bench.attempt(
            cells,
            (kind.TITLE, "first to last", others, batch),
            lambda: judge(cells, kind.TITLE, others, batch, machine, taken),
        )


def start_all(bench, cells, jobs, first, stack):
    """Starts the other daemons, and then those of kestcrond at their seconds of the minute before the first batch."""
    running = {}
    for others in OTHERS[:1] if bench.quick else OTHERS:
        for kind in daemons.KINDS:

            def prepare_one():
                running[kind, others] = prepare(kind, others, jobs, stack)

            bench.attempt(cells, (kind.TITLE, "first to last", others, 0), prepare_one)
    for others, second in OWN_SECONDS.items():
        if (Kestcrond, others) not in running:
            continue

        def start():
            if time.time() > first - 60 + second:
                raise RuntimeError("the machines were not ready in time")
            wait_for_second(second)
            start_own(running[Kestcrond, others], jobs)

        if not bench.attempt(cells, (Kestcrond.TITLE, "first to last", others, 0), start):
            del running[Kestcrond, others]
    return running


def bare_starts(cells, batch):
    """The lower bound: the same jobs, started by a loop that waits for each."""
    with daemons.new(Kestcrond) as machine:
        cpu, _ = machine.bare(batch, tool("stamp"), "due@")
        judge(cells, BARE, 0, batch, machine, Spent(time.time_ns(), cpu, None))


def measure(bench):
    cells = Cells("daemon", "what", "others", "batch")
    batches = list(batch_minutes(bench))
    jobs = list(due_jobs(batches))
    with ExitStack() as stack:
        running = start_all(bench, cells, jobs, batches[0][0], stack)
        for minute, batch in batches:
            spent = run_minute(bench, cells, running, minute, batch)
            judge_minute(bench, cells, running, spent, batch)
    for _, batch in batches:
        bench.attempt(cells, (BARE, "first to last", 0, batch), lambda: bare_starts(cells, batch))
    return cells.rows()
