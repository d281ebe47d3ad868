"""The execution log under logrotate: with the settings of the package no line is lost."""

import collections
import gzip
import re
import time
from pathlib import Path

import pytest
from tests.lib.appliance import every_minute
from tests.lib.private_machine import wait_for

SETTINGS = Path(__file__).resolve().parents[2] / "packaging/logrotate/kestcrond"
PLACE = "/etc/logrotate.d/kestcrond"
LINE = re.compile(
    r"2026-06-02T\d\d:\d\d:\d\d\+00:00 running job: builtin-f-(\w+) with command: "
    r"(/\S+) as user (\w+) \(state\[Ready\], trig\[([^\]]+)\], tab\[[-1 ]+\], "
    r"job\[\d+/\d+\]\)"
)
# Global settings that contradict every setting that matters here.
HOSTILE = "create 0644 bob bob\ncopytruncate\ndateext\nnodelaycompress\nifempty\n"


@pytest.fixture(autouse=True)
def installed(machine):
    machine.template(maxDelay=0)
    install(machine, SETTINGS.read_text())


def install(machine, settings):
    machine.write(PLACE, settings)
    machine.write("/etc/logrotate.conf", HOSTILE + f"include {PLACE}\n")


def rotate(machine, *options):
    done = machine.run(
        "/usr/sbin/logrotate", "-s", "/tmp/logrotate.state", *options, "/etc/logrotate.conf", env={"LD_PRELOAD": ""}
    )
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def logs(machine):
    """The log and its rotated files, newest first: suffix of the name to path outside the machine."""
    files = machine.path(machine.LOG_FILE).parent.iterdir()
    found = {path.name.removeprefix("kestcrond-execute.log"): path for path in files if path.suffix != ".lock"}
    assert all(re.fullmatch(r"(\.\d+(\.gz)?)?", name) for name in found), found
    return dict(sorted(found.items(), key=lambda item: int(re.sub(r"\D", "", item[0]) or 0)))


def text_of(path):
    return (gzip.open if path.suffix == ".gz" else open)(path, "rt").read()


def expect_root_alone(machine):
    for path in logs(machine).values():
        status = path.stat()
        assert (status.st_mode & 0o7777, status.st_uid, status.st_gid) == (0o600, 0, 0), path


def test_no_start_is_lost_or_duplicated(machine):
    # No rotated file is removed, so that all lines can be counted.
    install(machine, re.sub(r"rotate \d+", "rotate 10000", SETTINGS.read_text()))
    names = [f"j{number:02}" for number in range(100)]
    machine.write("/usr/local/bin/count", '#!/bin/sh\necho >> "/tmp/ran/${0##*/}"\n', 0o755)
    machine.jobs("builtin", "f", [every_minute(name, cmd="/usr/local/bin/count") for name in names])
    machine.clock("2026-06-02 02:10:10", rate=240)
    machine.start_and_wait()
    ran = lambda: {name: len(machine.runs("builtin-f-" + name)) for name in names}
    end = time.monotonic() + 300
    while len(logs(machine)) <= 50 or sum(ran().values()) <= 10 * len(names):
        assert time.monotonic() < end, "too few starts"
        # Rotates as soon as the starts of a minute begin, and repeatedly while they continue.
        wait_for(lambda: machine.exists(machine.LOG_FILE) and machine.path(machine.LOG_FILE).stat().st_size > 0)
        rotate(machine, "-f")
    machine.stop()
    wait_for(
        lambda: not machine.daemons()
        and not any(process["name"].startswith("builtin-f") for process in machine.processes().values()),
        what="the end of all jobs",
    )
    lines = [line for path in logs(machine).values() for line in text_of(path).splitlines()]
    found = [LINE.fullmatch(line) for line in lines]
    assert all(found), [line for line, match in zip(lines, found) if not match]
    logged = collections.Counter(match.group(1) for match in found)
    assert logged == ran()
    starts = collections.Counter((match.group(1), match.group(4)) for match in found)
    assert set(starts.values()) == {1}, "a start was logged twice"
    expect_root_alone(machine)
    assert machine.texts() == []


def has_group_of_alice(machine, pid):
    try:
        return "\nGid:\t2001" in machine.proc(pid, "status").read_text()
    except (FileNotFoundError, ProcessLookupError):
        return False  # the process has ended


def test_a_line_for_a_log_that_was_just_rotated(machine):
    # The process of the job has the log open while it takes on its account. The clock stands still,
    # so that the job starts once.
    machine.clock("2026-06-02 02:10:10", rate=0)
    machine.write("/usr/local/bin/broken", "#!/nowhere\n", 0o755)
    machine.jobs(
        "builtin", "f", [every_minute("late", user="package", package_username="alice", cmd="/usr/local/bin/broken")]
    )
    machine.start_traced("-o", "/dev/null", "-e", "inject=setuid:delay_enter=10000000")
    wait_for(
        lambda: any(has_group_of_alice(machine, pid) for pid in machine.processes()),
        what="the process that takes on its account",
    )
    rotate(machine, "-f")
    assert list(logs(machine)) == [".1"], "only the start was logged"
    assert "failed" not in text_of(logs(machine)[".1"]), "the job failed before the rotation"
    wait_for(lambda: "failed, return code" in text_of(logs(machine)[".1"]))
    machine.write(machine.LOG_FILE, "next\n", 0o600)
    rotate(machine, "-f")
    assert list(logs(machine)) == [".1", ".2.gz"]
    lines = text_of(logs(machine)[".2.gz"]).splitlines()
    assert [" failed, return code" in line for line in lines] == [False, True]
    expect_root_alone(machine)


def test_size_and_number_of_rotated_logs(machine):
    size = 512 << 10
    for number in range(1, 6):
        machine.write(machine.LOG_FILE, f"{number}".ljust(size - 1), 0o600)
        rotate(machine)
        assert text_of(logs(machine)[""]).split() == [f"{number}"], "not large enough for a rotation"
        machine.write(machine.LOG_FILE, f"{number}".ljust(size), 0o600)
        rotate(machine)
        assert "" not in logs(machine), "only the daemon creates the log"
    assert {name: text_of(path).split() for name, path in logs(machine).items()} == {
        ".1": ["5"],
        ".2.gz": ["4"],
        ".3.gz": ["3"],
    }
    expect_root_alone(machine)


def test_nothing_to_rotate(machine):
    rotate(machine)
    rotate(machine, "-f")
    assert logs(machine) == {}
    machine.write(machine.LOG_FILE, "", 0o600)
    rotate(machine, "-f")
    assert list(logs(machine)) == [""]
