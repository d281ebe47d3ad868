"""Life at length: simulated days in which jobs come, change and go and the daemon is reloaded and
restarted. scripts/soak runs it for two months."""

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


# In a world this fast, the half second that a reload leaves launched jobs to open their programs is
# over at once.
MISSED = re.compile(
    r".* failed, return code: -1, error: (No such file or directory|Text file busy|"
    "Permission denied|Exec format error)"
)


class Job:
    """A job whose minutes are as plain to us as to the daemon."""

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
    """Jobs whose runs tell, in binary, the minute in which they were looked at."""
    return [
        every_minute(
            f"{label}{bit}",
            cmd="/usr/bin/true",
            crontab=",".join(str(minute) for minute in range(60) if minute >> bit & 1) + " * * * *",
        )
        for bit in range(6)
    ]


class Life:
    """What happens on the machine: 49 jobs in seven files, one of them changed now and then. A job
    that is due in every minute tells when the daemon looked, and those before and after all others
    tell the minutes in which that began and ended: the clock is so fast that these may differ."""

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

    def go_on(self):
        """One thing that an operator or a package does."""
        deed = self.chance.choice(["edit", "edit", "reload", "reload", "restart"])
        if deed == "edit":
            file = self.chance.randrange(7)
            self.versions[file] += 1
            self.write(file)
        elif deed == "reload":
            self.machine.signal(signal.SIGHUP)
        else:
            self.machine.stop()
            self.start_again()

    def start_again(self):
        # Time went on while the daemon was away, and its clock does not know.
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
    """The moment of a trigger, which does not tell its month."""
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
    """Per trigger, how many times each job was launched by it."""
    found = collections.defaultdict(collections.Counter)
    for line in machine.log_lines():
        if MISSED.fullmatch(line):
            continue
        match = START.fullmatch(line)
        assert match, line
        stamp, name, *trigger = match.groups()
        found[moment(stamp, *trigger)][name.rpartition("-")[2]] += 1
    return found


def test_days_without_a_fault(machine, request):
    days = request.config.getoption("--days")
    life = Life(machine, random.Random(1))
    machine.clock("2026-06-02 02:10:10", rate=RATE)
    machine.start_and_wait()
    wait_for(machine.log_lines)
    sizes, open_at_first = [], descriptors(machine)
    end = time.monotonic() + days * DAY
    # On a slow machine a day has fewer looks: on until there are enough to judge by.
    while time.monotonic() < end or len(whole_looks(machine)) < 200:
        assert time.monotonic() < end + 300, "the daemon looks too seldom"
        time.sleep(min(DAY / 8, 10))
        life.go_on()
        wait_for(machine.daemon_pid)
        sizes.append(memory(machine))
    wait_for(lambda: descriptors(machine) == open_at_first, what="the descriptors of the start")
    pid = machine.daemon_pid()
    wait_for(lambda: not [p for p in machine.processes().values() if p["ppid"] == pid and p["state"] == "Z"])
    machine.stop()
    wait_for(lambda: not machine.daemons())
    print(f"{len(sizes)} deeds, resident memory {min(sizes)} to {max(sizes)} KiB")
    assert machine.is_sanitized() or max(sizes) < 1.3 * sizes[0] + 1024
    check_launches(machine, life)
    assert all(text.startswith("removed modified jobs: pkg_nonroot-alice-") for text in machine.texts())


def told_minute(names, label):
    return sum(1 << bit for bit in range(6) if f"{label}{bit}" in names)


def whole_looks(machine):
    """The launches that began and ended within the minute of their trigger."""
    return {
        trigger: names
        for trigger, names in launches(machine).items()
        if told_minute(names, "first") == told_minute(names, "last") == trigger.minute
    }


def check_launches(machine, life):
    """Each job ran exactly once by each trigger in whose minute it was due, and else never."""
    found, looks = launches(machine), whole_looks(machine)
    launched = sum(sum(names.values()) for names in found.values())
    print(f"{len(found)} looks, {len(looks)} of them within a minute, {launched} launches")
    assert len(looks) >= 200
    for trigger, names in looks.items():
        due = {job.name for job in life.jobs if job.is_due(trigger.hour, trigger.minute)}
        told = {name for name in names if name.startswith(("first", "last"))}
        assert names == collections.Counter({"tick", *told, *due}), trigger
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
