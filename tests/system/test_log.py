"""The execution log: its content, its mode, the staging file, and failures."""

import json
import os
import re
import signal
import stat

import pytest
from tests.lib.appliance import RECORD, SOURCES, every_minute, never
from tests.lib.private_machine import wait_for

STAGING = "/tmp/kestcrond.log"


@pytest.fixture(autouse=True)
def at_once(machine):
    machine.template(maxDelay=0)


@pytest.mark.parametrize(
    "zone,offset",
    [
        ("UTC0", "+00:00"),
        ("Europe/Berlin", "+02:00"),
        ("Asia/Kathmandu", "+05:45"),
        ("XXX3:30", "-03:30"),
        ("XXX0:30", "-00:30"),
        ("XXX-14", "+14:00"),
        ("XXX12", "-12:00"),
    ],
)
def test_time_zones(machine, zone, offset):
    machine.clock("2026-06-02 02:10:10", zone=zone)
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    line = wait_for(machine.log_lines)[0]
    assert re.match(r"2026-06-02T02:\d\d:\d\d" + re.escape(offset) + " running job: builtin-f-x ", line)


def test_mode_is_set_at_every_flush(machine):
    machine.write(machine.LOG_FILE, "kept\n", 0o666)
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    wait_for(lambda: len(machine.log_lines()) >= 2)
    assert machine.log_lines()[0] == "kept"
    wait_for(lambda: machine.path(machine.LOG_FILE).stat().st_mode & 0o7777 == 0o600)
    machine.path(machine.LOG_FILE).chmod(0o644)
    machine.reload()
    wait_for(lambda: machine.path(machine.LOG_FILE).stat().st_mode & 0o7777 == 0o600)


def test_an_empty_flush(machine):
    machine.start_and_wait()
    assert not machine.exists(machine.LOG_FILE)
    machine.reload()
    wait_for(lambda: machine.exists(machine.LOG_FILE), what="the flush after a reload")
    assert machine.read(machine.LOG_FILE) == ""
    wait_for(lambda: not machine.exists(STAGING))
    machine.stop()
    assert machine.texts() == []


def test_a_stop_flushes(machine):
    machine.start_and_wait()
    machine.stop()
    status = machine.path(machine.LOG_FILE).stat()
    assert (status.st_size, status.st_mode & 0o7777) == (0, 0o600)
    assert machine.texts() == []


def test_a_log_that_cannot_be_opened(machine):
    machine.path(machine.LOG_FILE).mkdir()
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    machine.wait_for_text("Failed [!fs], err=Is a directory")
    message = machine.messages("memorylogger")[0]
    assert message.text == "Failed [!fs], err=Is a directory (Is a directory)"
    wait_for(lambda: machine.runs("builtin-f-x"), what="runs of the job without a log")
    wait_for(lambda: not machine.exists(STAGING))
    machine.path(machine.LOG_FILE).rmdir()
    wait_for(machine.log_lines)


def plant(machine, kind):
    path = machine.path(STAGING)
    machine.write("/etc/victim", "precious\n")
    if kind == "link":
        path.symlink_to("/etc/victim")
    elif kind == "dangling link":
        path.symlink_to("/etc/planted")
    elif kind == "hard link":
        machine.write("/tmp/victim", "precious\n")
        os.link(machine.path("/tmp/victim"), path)
    elif kind == "fifo":
        os.mkfifo(path, 0o666)
    elif kind == "directory":
        path.mkdir()
    elif kind == "full directory":
        machine.write(STAGING + "/file", "")
    elif kind == "foreign file":
        machine.write(STAGING, "2026-06-02T02:10:10+00:00 running job: forged\n", owner="alice")


@pytest.mark.parametrize(
    "kind", ["link", "dangling link", "hard link", "fifo", "directory", "full directory", "foreign file"]
)
def test_a_planted_staging_file(machine, kind):
    plant(machine, kind)
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    wait_for(lambda: len(machine.log_lines()) >= 2)
    assert all(" running job: builtin-f-x " in line for line in machine.log_lines())
    assert machine.read("/etc/victim") == "precious\n"
    assert machine.path("/etc/victim").stat().st_mode & 0o7777 == 0o644
    assert not machine.exists("/etc/planted")
    if kind == "hard link":
        assert machine.read("/tmp/victim") == "precious\n"
    if kind == "directory":
        wait_for(
            lambda: not list(machine.path("/tmp").glob("kestcrond.log.*")),
            what="the removal of the empty directory",
        )


def many_missed_jobs(machine, count):
    """Lets `count` assured jobs be overdue for two hours, so that the next daemon starts them in its
    first cycle. Returns their names."""
    names = [f"j{i:03}" for i in range(count)]
    machine.jobs("builtin", "f", [never(name, assure_execute=1, cmd="/usr/bin/true") for name in names])
    machine.clock("2026-06-02 02:10:10", rate=1)
    machine.start_and_wait()
    machine.stop()
    machine.template(maxDelay=0)
    machine.clock("2026-06-02 04:10:10", rate=1)
    return names


def test_a_race_for_the_staging_file_does_not_lose_lines(machine):
    names = many_missed_jobs(machine, 40)
    planters = [
        machine.popen(
            "setpriv",
            "--reuid=2001",
            "--regid=2001",
            "--clear-groups",
            "bash",
            "-c",
            f"while :; do {plant}; done 2>/dev/null",
            env={"LD_PRELOAD": ""},
        )
        for plant in (f": > {STAGING}", f": > {STAGING}; ln -s /etc/passwd {STAGING}")
    ]
    machine.start_and_wait()
    wait_for(lambda: len(machine.log_lines()) >= len(names))
    assert sorted(re.search(r"builtin-f-(\w+)", line).group(1) for line in machine.log_lines()) == names
    assert machine.texts() == []
    for planter in planters:
        planter.kill()
        planter.wait()


def test_a_staging_file_left_by_a_crash_is_moved(machine):
    machine.write(STAGING, "left behind\n", 0o600)
    machine.start_and_wait()
    machine.reload()
    wait_for(lambda: machine.read(machine.LOG_FILE) == "left behind\n")
    assert machine.texts() == []


@pytest.mark.parametrize("size,moved_early", [(1 << 20, False), ((1 << 20) + 1, True)])
def test_a_staging_file_above_its_capacity_is_moved_early(machine, size, moved_early):
    machine.write(STAGING, "x" * (size - 1) + "\n", 0o600)
    machine.start_and_wait()
    machine.reload()
    wait_for(lambda: len(machine.read(machine.LOG_FILE)) == size)
    if moved_early:
        machine.wait_for_text("Failed [!fsMem], err=No such file or directory")
    machine.stop()
    assert len(machine.texts()) == moved_early


def test_two_hundred_starts_at_once(machine):
    names = many_missed_jobs(machine, 200)
    machine.start_and_wait()
    wait_for(lambda: len(machine.log_lines()) >= 200, 60)
    line = re.compile(
        r"2026-06-02T04:1\d:\d\d\+00:00 running job: builtin-f-(j\d+) with command: "
        r"/usr/bin/true as user root "
        r"\(state\[AssureExecute\], trig\[02 04:1\d:\d\d\], job\[\d+/200\]\)"
    )
    found = [line.fullmatch(text) for text in machine.log_lines()]
    assert all(found), [text for text, match in zip(machine.log_lines(), found) if not match]
    assert sorted(match.group(1) for match in found) == names
    assert machine.texts() == []


def test_control_characters_forge_nothing(machine):
    forged = "x\n2026-06-02T02:10:10+00:00 running job: forged\r\t\x1b[31m\x7f"
    machine.jobs("builtin", "f", [every_minute(forged)])
    machine.start_and_wait()
    escaped = r"x\n2026-06-02T02:10:10+00:00 running job: forged\x0d\t\x1b[31m\x7f"
    lines = wait_for(machine.log_lines)
    assert all(f"running job: builtin-f-{escaped} with command" in line for line in lines)
    machine.path("/usr/kest/share/kestcron.d/f").unlink()
    machine.reload()
    assert f"removed cleared jobs: builtin-f-{escaped}" in machine.texts()


def test_control_characters_in_a_command_forge_nothing(machine):
    command = f"{RECORD} a\n2026-06-02T02:10:10+00:00 running job: forged\r\x1b[31m\x7f"
    machine.jobs("builtin", "f", [every_minute("x", cmd=command)])
    machine.start_and_wait()
    lines = wait_for(machine.log_lines)
    shown = rf"{RECORD} a\n2026-06-02T02:10:10+00:00 running job: forged\x0d\x1b[31m\x7f"
    assert all(f" running job: builtin-f-x with command: {shown} as user root (" in line for line in lines)


def test_a_command_above_the_kernel_limit_is_shortened_in_the_log(machine):
    # Longer than the kernel accepts, and each character is logged as four.
    definition = json.dumps([every_minute("x", cmd="/usr/bin/true " + "X" * 300000)])
    machine.write(SOURCES["builtin"] + "/f", definition.replace("X", "\1"))
    machine.jobs("builtin", "t", [every_minute("tick")])
    machine.start_and_wait()
    wait_for(lambda: len(machine.runs("builtin-t-tick")) >= 3)
    machine.stop()
    of_long = wait_for(lambda: whole_pairs(machine), what="both lines of each start")
    most = 16 * 1024
    for line in of_long:
        assert most - 64 < len(line) < most
        assert re.search(
            r" running job: builtin-f-x with command: /usr/bin/true (\\x01)+.*"
            r" \[\.\.\. \d+ bytes left out \.\.\.\] ",
            line,
        )
        assert line.endswith(("job[1/2])", "error: Argument list too long"))
    assert machine.texts() == []


def whole_pairs(machine):
    """The lines of the long command, or None until each start line is followed by its failure."""
    lines = [line for line in machine.log_lines() if " running job: builtin-f-x with " in line]
    failed = [line for line in lines if line.endswith(" failed, return code: -1, error: Argument list too long")]
    return lines if len(failed) * 2 == len(lines) > 0 else None


def test_a_rotated_log_is_created_again(machine):
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    wait_for(machine.log_lines)
    machine.path(machine.LOG_FILE).rename(machine.path(machine.LOG_FILE + ".1"))
    wait_for(machine.log_lines)
    assert machine.path(machine.LOG_FILE).stat().st_mode & 0o7777 == 0o600


# --- The lock and the staging file --------------------------------------------------------------

LOCK = "/run/kestcrond-execute.lock"


@pytest.mark.parametrize("plant", ["link", "fifo", "directory", "open"])
def test_a_planted_lock(machine, plant):
    """The daemon does not follow an object in the place of the lock, and others cannot hold the lock."""
    for path in (LOCK, machine.LOG_FILE + ".lock"):
        if plant == "link":
            machine.path(path).symlink_to("/etc/nologin")
        elif plant == "fifo":
            os.mkfifo(machine.path(path), 0o666)
        elif plant == "directory":
            machine.path(path).mkdir()
        else:
            machine.write(path, "", 0o666, owner="alice")
            machine.popen(
                "setpriv",
                "--reuid=2001",
                "--regid=2001",
                "--clear-groups",
                "flock",
                path,
                "sleep",
                "1000",
                env={"LD_PRELOAD": ""},
            )
    if plant == "open":
        names = lambda: [process["name"] for process in machine.processes().values()]
        wait_for(lambda: names().count("sleep") == 2)
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    wait_for(lambda: len(machine.log_lines()) >= 3)
    assert not machine.exists("/etc/nologin")
    status = machine.path(LOCK).lstat()
    assert stat.S_ISREG(status.st_mode) and status.st_mode & 0o7777 == 0o600 and status.st_uid == 0
    assert machine.texts() == []


def test_a_lock_that_is_never_released(machine):
    """Starts and the stop do not wait for it, and no line is lost."""
    machine.clock("2026-06-02 02:10:10", rate=0)  # one start
    machine.jobs("builtin", "f", [every_minute("x")])
    holders = []
    for path in (LOCK, machine.LOG_FILE + ".lock"):
        machine.path(path).touch(0o600)
        holders.append(machine.popen("flock", path, "sleep", "1000", env={"LD_PRELOAD": ""}))
    names = lambda: [process["name"] for process in machine.processes().values()]
    wait_for(lambda: names().count("sleep") == 2)
    pid = machine.start_and_wait()
    wait_for(lambda: machine.runs("builtin-f-x"), what="a run of the job")
    assert [" running job: builtin-f-x " in line for line in machine.log_lines()] == [True]
    machine.signal(signal.SIGTERM)
    wait_for(lambda: pid not in machine.processes(), what="the end")
    for holder in holders:
        holder.kill()


def test_a_log_in_dev_null(machine):
    machine.path(machine.LOG_FILE).symlink_to("/dev/null")
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    wait_for(lambda: len(machine.runs("builtin-f-x")) >= 2)
    machine.reload()
    assert machine.path("/dev/null").stat().st_mode == stat.S_IFCHR | 0o666
    assert machine.texts() == []


def test_a_full_staging_file_system_does_not_lose_lines(machine):
    """Every user can fill "/tmp"."""
    machine.write("/bin/count", "#!/bin/sh\necho x >> /run/ran\n", 0o755)
    machine.jobs("builtin", "f", [every_minute("x", cmd="/bin/count")])
    machine.start_and_wait()
    machine.run("mount", "-o", "remount,size=1m", "/tmp", check=True, env={"LD_PRELOAD": ""})
    machine.run(
        "setpriv",
        "--reuid=2001",
        "--regid=2001",
        "--clear-groups",
        "dd",
        "if=/dev/zero",
        "of=/tmp/full",
        "bs=4096",
        env={"LD_PRELOAD": ""},
    )
    count = lambda: len(machine.read("/run/ran").splitlines())
    before = count()
    wait_for(lambda: count() >= before + 3)
    wait_for(lambda: machine.texts())
    ran = count()
    assert len(machine.log_lines()) >= ran
    assert set(machine.texts()) == {f"Failed to write [{STAGING}]"}


def test_failure_lines_of_root_jobs_pass_through_the_staging_file(machine):
    """Failure lines pass through the staging file like start lines, so that they keep their order."""
    machine.write("/usr/local/bin/odd", "", 0o755)
    machine.jobs("builtin", "f", [every_minute("x", cmd="/usr/local/bin/odd")])
    machine.start_traced("-e", "trace=open,openat", "-o", "/tmp/calls")
    wait_for(lambda: len([line for line in machine.log_lines() if " failed, return code: -1, " in line]) >= 4)
    machine.stop()
    wait_for(lambda: not machine.daemons())
    moved = machine.read("/tmp/calls").count(f'"{STAGING}", O_RDONLY')
    assert moved >= len(machine.log_lines())
