"""Resident, proportional and private memory from /proc/PID/smaps_rollup, with all jobs in one file.

Only one daemon runs at a time, because shared libraries would otherwise count in part only. The memory of
several processes of a daemon is added.
"""

from . import daemons
from .daemons import idle_jobs
from .measure import Cells, memory_of


def measure_one(cells, kind, count):
    with daemons.new(kind) as machine:
        machine.write_jobs(idle_jobs(count))
        machine.start_ready()
        each = [memory_of(pid) for pid in machine.group.pids()]
        for sort in each[0]:
            cells.add(sum(memory[sort] for memory in each), kind.TITLE, sort, count)


def measure(bench):
    cells = Cells("daemon", "sort", "jobs")
    for _ in range(bench.repetitions(3)):
        for count in bench.sizes(0, 100, 1000, 10000):
            for kind in daemons.KINDS:
                bench.attempt(cells, (kind.TITLE, "proportional", count), lambda: measure_one(cells, kind, count))
    return cells.rows()
