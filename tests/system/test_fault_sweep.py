"""Each system call of a start, a cycle, a reload and a stop fails, or kills the daemon. The tests try
a sample that depends on a seed; `scripts/fault-sweep` tries all."""

import collections
import json
import random
import re
import signal
from pathlib import Path

import pytest
from tests.lib.appliance import PERSISTENT_FILE, PERSISTENT_TEMPLATE, Appliance, every_minute, never
from tests.lib.private_machine import Deadline, wait_for

ERRORS = ["EIO", "ENOSPC", "ENOMEM", "EMFILE", "EINTR", "EACCES"]
EFFECTS = [*(f"error={error}" for error in ERRORS), "signal=KILL"]
# These do not return or cannot fail: the C library ends a program if they do.
LEFT_OUT = {
    "exit",
    "exit_group",
    "rt_sigreturn",
    "restart_syscall",
    "futex",
    "rt_sigprocmask",
    "rt_sigaction",
    "arch_prctl",
    "set_tid_address",
    "set_robust_list",
    "rseq",
}
WITNESSES = ["/etc/passwd", "/etc/shadow", "/usr/local/bin/record", "/usr/bin/cp", "/srv/witness"]
TICK = "builtin-f-tick"
HISTORY = {"startup": 1700000000, "lastExecution": 1780000000}

pytestmark = pytest.mark.native(reason="strace shows the system calls of the emulator")


def pytest_generate_tests(metafunc):
    """One test for each line of the file of faults, or for each draw."""
    if "fault" in metafunc.fixturenames:
        file = metafunc.config.getoption("--faults")
        count = metafunc.config.getoption("--sweep")
        faults = Path(file).read_text().splitlines() if file else range(count)
        metafunc.parametrize("fault", faults)


def prepare(machine):
    """Creates jobs of root and of an account, and the saved document of an earlier run with one of them."""
    machine.template(maxDelay=0)
    machine.jobs("builtin", "f", [every_minute("tick"), never("other")])
    machine.jobs("pkg_nonroot", "f", [every_minute("hers")], account="alice")
    config = {
        **every_minute("tick"),
        "name": TICK,
        "assure_execute": 0,
        "assure_execute_action": "wait",
        "run_on_passive": False,
    }
    machine.write(
        PERSISTENT_FILE,
        json.dumps({"jobs": {TICK: {"config": config, "schedule": machine.drawn(), "expireTime": 0, **HISTORY}}}),
    )
    machine.write("/srv/witness", "untouched")


def states(machine):
    """What identifies the content, owner and mode of each witness."""
    found = {}
    for path in WITNESSES:
        status = machine.path(path).stat()
        found[path] = (status.st_ino, status.st_uid, status.st_mode, status.st_mtime_ns)
    return found


def within(condition, seconds):
    """Whether the condition became true in time. Some faults prevent it."""
    try:
        wait_for(condition, seconds)
        return True
    except Deadline:
        return False


def daemon_of(machine):
    """The pid of the daemon itself, or 0 if it has ended. Its pid file may be missing."""
    parents = machine.processes()
    return next(
        (
            pid
            for pid, process in parents.items()
            if process["name"] == "kestcrond" and parents.get(process["ppid"], {}).get("name") != "kestcrond"
        ),
        0,
    )


def leftovers(machine):
    names = {"kestcrond", "kestcrond-stage", "cp"}
    return [process for process in machine.processes().values() if process["name"] in names and process["state"] != "Z"]


def live(machine, *options):
    """Runs the daemon under strace: a start, a cycle, a reload and a stop."""
    machine.start_traced("-o", "/srv/trace", *options)
    if within(lambda: machine.exists(machine.RUNTIME_TEMPLATE) or not daemon_of(machine), 20):
        within(lambda: machine.runs(TICK) or not daemon_of(machine), 5)
        for number in (signal.SIGHUP, signal.SIGTERM):
            before = machine.loads()
            if pid := daemon_of(machine):
                machine.run("/usr/bin/kill", "-s", number.name[3:], pid, env={"LD_PRELOAD": ""})
            if number == signal.SIGHUP:
                within(lambda: machine.loads() > before or not daemon_of(machine), 5)
    wait_for(lambda: not leftovers(machine), 40, f"the end of all processes: {leftovers(machine)}")


def calls_of_a_run(daemon):
    """The system calls of such a run, with the number of times that one process makes each."""
    with Appliance(Path(daemon).resolve()) as machine:
        machine.clock("2026-06-02 02:10:10")
        prepare(machine)
        live(machine)
        found = re.findall(r"^(\d+) +(\w+)\(", machine.read("/srv/trace"), re.MULTILINE)
    counts = collections.Counter()
    for (_, call), count in collections.Counter(found).items():
        if call not in LEFT_OUT:
            counts[call] = max(counts[call], count)
    missing = {"unshare", "mount", "setresuid", "renameat", "openat"} - counts.keys()
    assert not missing, missing
    return sorted(counts.items())


def all_faults(daemon):
    """Every call of a run with every effect, as arguments of an injection."""
    return [
        f"{call}:{effect}:when={number}"
        for call, count in calls_of_a_run(daemon)
        for number in range(1, count + 1)
        for effect in EFFECTS
    ]


@pytest.fixture(scope="session")
def calls(request):
    if not request.config.getoption("--faults"):
        return calls_of_a_run(request.config.getoption("--daemon"))
    return None


def drawn_fault(calls, draw, seed):
    """Draws a fault. Each system call is equally likely, however often it is made."""
    chance = random.Random(f"{seed} {draw}")
    call, count = chance.choice(calls)
    return f"{call}:{chance.choice(EFFECTS)}:when={chance.randint(1, count)}"


def check_document(machine, path):
    text = machine.read(path)
    if text:
        json.loads(text)


def check_history(machine):
    """The history of the job is still saved, or the system log names the job."""
    named = any(TICK in text or "read error" in text or "loaded failed" in text for text in machine.texts())
    copies = [machine.read(PERSISTENT_FILE), machine.read(PERSISTENT_FILE + ".unreadable")]
    entries = [json.loads(text).get("jobs", {}).get(TICK, {}) for text in copies if text]
    assert named or any(
        entry.get("startup") == HISTORY["startup"] and entry.get("lastExecution", 0) >= HISTORY["lastExecution"]
        for entry in entries
    ), (entries, machine.texts())


def test_a_fault(machine, calls, fault, request):
    if calls is not None:
        fault = drawn_fault(calls, fault, request.config.getoption("--seed"))
    print(fault)
    prepare(machine)
    before = states(machine)
    live(machine, "-e", f"trace={fault.split(':')[0]}", "-e", f"inject={fault}")
    trace = machine.read("/srv/trace")
    assert not re.search("--- SIG(SEGV|ABRT|BUS|ILL|FPE) ", trace), trace[-2000:]
    assert states(machine) == before
    documents = (machine.RUNTIME_FILE, machine.RUNTIME_TEMPLATE, PERSISTENT_FILE, PERSISTENT_TEMPLATE)
    for path in documents:
        check_document(machine, path)
    check_history(machine)
    for path in documents[:2]:
        machine.path(path).unlink(missing_ok=True)
    machine.start_and_wait()
    assert {TICK, "builtin-f-other", "pkg_nonroot-alice-f-hers"} == set(machine.entries())
    machine.stop()
