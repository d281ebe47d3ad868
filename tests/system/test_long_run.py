"""Long runs: simulated days in which jobs change and the daemon is reloaded and restarted.
scripts/soak simulates two months."""

import collections
import datetime
import random
import re
import signal
import time

import pytest
from tests.lib.appliance import every_minute
from tests.lib.private_machine import wait_for

RATE = 3000  # a simulated day is half a minute, a cycle 20 ms
DAY = 86400 / RATE

START = re.compile(
    r"(\S{19})\S+ running job: (\S+) with command: .* as user \w+ "
    r"\(state\[Ready\], trig\[(\d\d) (\d\d):(\d\d):(\d\d)\], tab\[.*\]\)"
)


# A reload leaves launched jobs half a second to open their programs. At this rate of the clock that is
# too short.
MISSED = re.compile(
    r".* failed, return code: -1, error: (No such file or directory|Text file busy|"
    "Permission denied|Exec format error)"
)


class Job:
    """A job with a schedule that the test can evaluate."""

    def __init__(self, name, chance):
        self.name = name
        self.minutes = chance.choice([[chance.randrange(60)], [0, 15, 30, 45], range(0, 60, 10)])
        self.hours = chance.choice([None, None, [chance.randrange(24)], [0, 6, 12, 18]])

    def definition(self, version):
        text = lambda values: "*" if values is None else ",".join(map(str, values))
        return every_minute(
            self.name, cmd=f"/usr/bin/true {version}", crontab=f"{text(self.minutes)} {text(self.hours)} * * *"
        )

    def is_due(self, hour, minute):
        return minute in self.minutes and (self.hours is None or hour in self.hours)


def minute_bits(label):
    """Jobs whose runs encode, in binary, the minute in which the daemon evaluated them."""
    return [
        every_minute(
            f"{label}{bit}",
            cmd="/usr/bin/true",
            crontab=",".join(str(minute) for minute in range(60) if minute >> bit & 1) + " * * * *",
        )
        for bit in range(6)
    ]


class Life:
    """The activity on the machine: 49 jobs in seven files, one of which is changed at times. A job that
    is due in every minute marks each cycle. The first and the last jobs encode the minutes in which
    the cycle began and ended, which may differ because the clock is so fast."""

    def __init__(self, machine, chance):
        self.machine = machine
        self.chance = chance
        self.jobs = [Job(f"j{number:02}", chance) for number in range(49)]
        self.versions = collections.Counter()
        machine.template(maxDelay=0)
        machine.jobs("builtin", "t", [every_minute("tick", cmd="/usr/bin/true")])
        machine.jobs("builtin", "a", minute_bits("first"))
        machine.jobs("pkg_nonroot", "z", minute_bits("last"), account="alice")
        for file in range(7):
            self.write(file)

    def write(self, file):
        self.machine.jobs(
            "pkg_nonroot",
            f"f{file}",
            [job.definition(self.versions[file]) for job in self.jobs[file::7]],
            account="alice",
        )

    def act(self):
        """Does one thing that an operator or a package does."""
        action = self.chance.choice(["edit", "edit", "reload", "reload", "restart"])
        if action == "edit":
            file = self.chance.randrange(7)
            self.versions[file] += 1
            self.write(file)
        elif action == "reload":
            self.machine.signal(signal.SIGHUP)
        else:
            self.machine.stop()
            self.start_again()

    def start_again(self):
        # The clock of the new daemon must continue after the last line of the log.
        last = self.machine.read(self.machine.LOG_FILE).rsplit("\n", 2)[-2][:19]
        later = datetime.datetime.fromisoformat(last) + datetime.timedelta(minutes=2)
        self.machine.clock(later.strftime("%Y-%m-%d %H:%M:%S"), rate=RATE)
        self.machine.start_and_wait()


def memory(machine):
    """Resident, in KiB."""
    status = machine.proc(machine.daemon_pid(), "status").read_text()
    return int(re.search(r"VmRSS:\s+(\d+) kB", status)[1])


def descriptors(machine):
    pid = machine.daemon_pid()
    return sorted(
        re.sub(r"\[\d+\]", "", str((machine.proc(pid, "fd") / entry.name).readlink()))
        for entry in machine.proc(pid, "fd").iterdir()
    )


def moment(stamp, day, *clock):
    """The time of a trigger, which does not include its month."""
    logged = datetime.datetime.fromisoformat(stamp)
    for back in range(2):
        month = (logged.replace(day=1) - datetime.timedelta(days=1)) if back else logged
        try:
            triggered = month.replace(day=int(day)).replace(
                hour=int(clock[0]), minute=int(clock[1]), second=int(clock[2])
            )
        except ValueError:
            continue
        if triggered <= logged:
            return triggered
    raise ValueError(stamp)


def launches(machine):
    """The number of launches of each job by each trigger."""
    found = collections.defaultdict(collections.Counter)
    for line in machine.log_lines():
        if MISSED.fullmatch(line):
            continue
        match = START.fullmatch(line)
        assert match, line
        stamp, name, *trigger = match.groups()
        found[moment(stamp, *trigger)][name.rpartition("-")[2]] += 1
    return found


def test_simulated_days(machine, request):
    days = request.config.getoption("--days")
    life = Life(machine, random.Random(1))
    machine.clock("2026-06-02 02:10:10", rate=RATE)
    machine.start_and_wait()
    wait_for(machine.log_lines)
    sizes, open_at_first = [], descriptors(machine)
    end = time.monotonic() + days * DAY
    # On a slow machine a day has fewer cycles: continue until there are enough of them.
    while time.monotonic() < end or len(cycles_within_a_minute(machine)) < 200:
        assert time.monotonic() < end + 300, "too few cycles"
        time.sleep(min(DAY / 8, 10))
        life.act()
        wait_for(machine.daemon_pid)
        sizes.append(memory(machine))
    wait_for(lambda: descriptors(machine) == open_at_first, what="the descriptors of the start")
    pid = machine.daemon_pid()
    wait_for(lambda: not [p for p in machine.processes().values() if p["ppid"] == pid and p["state"] == "Z"])
    machine.stop()
    wait_for(lambda: not machine.daemons())
    print(f"{len(sizes)} actions, resident memory {min(sizes)} to {max(sizes)} KiB")
    assert machine.is_sanitized() or max(sizes) < 1.3 * sizes[0] + 1024
    check_launches(machine, life)
    assert all(text.startswith("removed modified jobs: pkg_nonroot-alice-") for text in machine.texts())


def minute_of_bits(names, label):
    return sum(1 << bit for bit in range(6) if f"{label}{bit}" in names)


def cycles_within_a_minute(machine):
    """The launches of the cycles that began and ended within the minute of their trigger."""
    return {
        trigger: names
        for trigger, names in launches(machine).items()
        if minute_of_bits(names, "first") == minute_of_bits(names, "last") == trigger.minute
    }


def check_launches(machine, life):
    """Each job was launched exactly once by each trigger in whose minute it was due, and never otherwise."""
    found, cycles = launches(machine), cycles_within_a_minute(machine)
    launched = sum(sum(names.values()) for names in found.values())
    print(f"{len(found)} cycles, {len(cycles)} of them within a minute, {launched} launches")
    assert len(cycles) >= 200
    for trigger, names in cycles.items():
        due = {job.name for job in life.jobs if job.is_due(trigger.hour, trigger.minute)}
        markers = {name for name in names if name.startswith(("first", "last"))}
        assert names == collections.Counter({"tick", *markers, *due}), trigger
    assert all(count == 1 for names in found.values() for count in names.values())


def test_no_leak(machine, request):
    if not request.config.getoption("--valgrind"):
        pytest.skip("takes valgrind and some minutes: scripts/soak")
    life = Life(machine, random.Random(2))
    machine.clock("2026-06-02 02:10:10", rate=60)
    command = [
        "/usr/bin/valgrind",
        "--leak-check=full",
        "--show-leak-kinds=definite,possible",
        "--suppressions=/run/suppressions",
        "--log-file=/tmp/valgrind.%p",
        machine.DAEMON,
    ]
    machine.write("/run/suppressions", "{\nclock\nMemcheck:Cond\nobj:*libfaketime*\n}\n")
    assert machine.run(*command).returncode == 0
    wait_for(lambda: len(launches(machine)) >= 3, 120)
    pid = machine.daemon_pid()
    for _ in range(10):
        seen = len(launches(machine))
        life.write(0)
        machine.signal(signal.SIGHUP)
        wait_for(lambda count=seen: len(launches(machine)) >= count + 10, 300)
    machine.signal(signal.SIGTERM)
    wait_for(lambda: pid not in machine.processes(), 60)
    report = machine.read(f"/tmp/valgrind.{pid}")
    assert "ERROR SUMMARY: 0 errors" in report, report
    assert "definitely lost: 0 bytes" in report or "no leaks are possible" in report, report
