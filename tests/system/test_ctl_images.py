"""Crafted images of other systems: each command ends within its time and memory limits."""

import json
import os
import struct

import pytest

ROOT = "/tmp/image"
MIB = 1 << 20

COMMANDS = [
    ("list",),
    ("next",),
    ("next", "-n", "10000"),
    ("timeline",),
    ("status",),
    ("show", "a"),
    ("log",),
    ("log", "--failed"),
    ("metrics",),
    ("check",),
]


def job(name, **members):
    return {
        "config": {
            "name": name,
            "user": "root",
            "period": "crontab",
            "crontab": "* * * * *",
            "cmd": "/bin/true",
            **members,
        },
        "startup": 1,
        "schedule": {field: [-1] for field in ("Minute", "hour", "day", "month", "week")},
    }


def document(machine, text):
    machine.write(ROOT + "/var/run/kestcrond.config", text)


def with_extra(text):
    """A document with one job whose definition has an additional member with this JSON text."""
    return json.dumps({"jobs": {"a": job("a", extra="@")}}).replace('"@"', text)


def hostile_zone():
    """A time zone whose offset from UTC changes every two hours for decades."""

    def block(form, first, count):
        times = b"".join(struct.pack(form, first + 7200 * i) for i in range(count))
        numbers = bytes(i % 2 for i in range(count))
        types = struct.pack(">iBBiBB", 0, 0, 0, 90000, 1, 4)
        header = b"TZif2" + bytes(15) + struct.pack(">6i", 0, 0, 0, count, 2, 8)
        return header + times + numbers + types + b"AAA\0BBB\0"

    return block(">i", 1_700_000_000, 60000) + block(">q", 1_700_000_000, 60000) + b"\nAAA0\n"


def many_with_a_zone(machine):
    machine.write(ROOT + "/etc/localtime", hostile_zone())
    crontab = {"crontab": "0 0 29 2 1", "assure_execute": 1}
    document(machine, json.dumps({"jobs": {f"b{i}": job(f"b{i}", **crontab) for i in range(2000)}}))


def long_log(machine):
    document(machine, json.dumps({"jobs": {"a": job("a")}}))
    line = "2026-06-02T02:10:10+00:00 a running job: a with command: /bin/true (state[Ready], " "trig[02 02:10:10])\n"
    machine.write(ROOT + "/var/log/kestcrond-execute.log", line * 3_000_000)


def long_account_list(machine):
    document(machine, json.dumps({"jobs": {"a": job("a")}}))
    machine.write(ROOT + "/etc/passwd", "".join(f"u{i}:x:{i}:{i}::/:/bin/sh\n" for i in range(1_000_000)))


def pipes_everywhere(machine):
    for path in (
        "/var/run/kestcrond.config",
        "/usr/kest/etc/kestcrond.st.config",
        "/etc/localtime",
        "/etc/passwd",
        "/var/log/kestcrond-execute.log",
        "/usr/local/etc/kestcron.d/f",
        "/var/run/kestcrond.pid",
        "/var/run/kestvorld.status",
    ):
        machine.path(ROOT + path).parent.mkdir(parents=True, exist_ok=True)
        os.mkfifo(machine.path(ROOT + path))


def dense_job_files(machine):
    for number in range(30):
        machine.write(f"{ROOT}/usr/local/etc/kestcron.d/f{number}", "[" + ",".join(["[]"] * 340000) + "]")


IMAGES = {
    "lists": lambda m: document(m, with_extra("[" + "[]," * (8 * MIB // 3) + "0]")),
    "numbers": lambda m: document(m, with_extra("[" + "1," * (4 * MIB) + "0]")),
    "objects": lambda m: document(m, with_extra("[" + '{"":{}},' * MIB + "0]")),
    "many jobs": lambda m: document(m, json.dumps({"jobs": {f"j{i}": job(f"j{i}") for i in range(20000)}})),
    "zone": many_with_a_zone,
    "log": long_log,
    "accounts": long_account_list,
    "pipes": pipes_everywhere,
    "job files": dense_job_files,
}


@pytest.mark.native(reason="an emulator needs time and memory of its own")
@pytest.mark.parametrize("image", IMAGES)
def test_time_and_memory_limits(machine, ctl, image):
    if machine.is_sanitized():
        pytest.skip("the address sanitizer needs time and memory of its own")
    machine.path(ROOT).mkdir()
    IMAGES[image](machine)
    path = machine.path(ROOT + "/var/run/kestcrond.config")
    size = path.stat().st_size if path.is_file() else 0
    for command in COMMANDS:
        # In kibibytes and seconds of processor time.
        done = machine.run(
            "/usr/bin/python3",
            "-c",
            "import resource, subprocess, sys\n"
            "status = subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL).returncode\n"
            "used = resource.getrusage(resource.RUSAGE_CHILDREN)\n"
            "print(status, used.ru_utime + used.ru_stime, used.ru_maxrss)",
            "/usr/bin/kestcronctl",
            "--root",
            ROOT,
            *command,
            timeout=60,
            env={"LD_PRELOAD": ""},
        )
        status, seconds, memory = done.stdout.split()
        assert int(status) in (0, 1, 2, 3), (command, done.stderr)
        assert float(seconds) < 5, command
        assert int(memory) * 1024 < max(10 * size, 64 * MIB) + 16 * MIB, command
        if status == "2":
            assert done.stderr.startswith("kestcronctl: ") and len(done.stderr) < 200


def test_a_document_that_is_too_large(machine, ctl):
    machine.path(ROOT).mkdir()
    document(machine, with_extra('"' + "x" * (32 * MIB) + '"'))
    done = ctl("--root", ROOT, "list")
    assert done.returncode == 2 and done.stdout == ""
    assert done.stderr == (f"kestcronctl: {ROOT}/var/run/kestcrond.config: is larger than 32 MiB\n")
    document(machine, with_extra('"' + "x" * (31 * MIB) + '"'))
    assert ctl("--root", ROOT, "list").returncode == 0


def test_an_entry_with_many_faults(machine, ctl):
    """Parsing stops at the first fault."""
    machine.path(ROOT).mkdir()
    document(machine, json.dumps({"jobs": {"a": job("a"), "b": job("b", crontab="x," * 400000 + "1 * * * *")}}))
    done = ctl("--root", ROOT, "list")
    assert done.returncode == 0 and '"b" is not a valid job' in done.stderr


def test_limits_allow_documents_of_the_daemon(machine, ctl):
    """A document that the daemon wrote itself can be read with many jobs."""
    if machine.is_sanitized():
        pytest.skip("the address sanitizer needs time and memory of its own")
    entry = {
        "cmd_list": ["/tmp/kestcrond/x", "--all"],
        "cmd_str": "/usr/bin/backup.sh --all",
        "config": {
            "assure_execute": 0,
            "assure_execute_action": "wait",
            "name": "",
            "cmd": "/usr/bin/backup.sh --all",
            "period": "daily",
            "run_on_passive": False,
            "user": "root",
        },
        "expireTime": 0,
        "lastExecution": 1780000000,
        "startup": 1780000000,
        "schedule": {"Minute": [17], "hour": [3], "day": [-1], "month": [-1], "week": [-1]},
    }
    jobs = {}
    for number in range(10000):
        name = f"builtin-core-job{number}"
        jobs[name] = {**entry, "config": {**entry["config"], "name": name}}
    machine.path(ROOT).mkdir()
    document(machine, json.dumps({"jobs": jobs}, indent="\t", separators=(",", " : ")))
    for command in ("list", "status", "next", "timeline"):
        done = ctl("--root", ROOT, command)
        assert done.returncode in (0, 1, 3) and "memory" not in done.stderr, (command, done.stderr)
