"""Change detection: which changes make the daemon reload, and which do not."""

import datetime
import os
import re

import pytest
from tests.lib.appliance import SOURCES, every_minute, never
from tests.lib.private_machine import wait_for

TOP = SOURCES["pkg_nonroot"]

# From <sys/inotify.h>.
IN_MODIFY, IN_ATTRIB, IN_CLOSE_WRITE = 0x2, 0x4, 0x8
IN_MOVED_FROM, IN_MOVED_TO = 0x40, 0x80
IN_CREATE, IN_DELETE, IN_DELETE_SELF, IN_MOVE_SELF = 0x100, 0x200, 0x400, 0x800


@pytest.fixture(autouse=True)
def clock_job(machine):
    """A job whose runs show that evaluation cycles continue."""
    machine.template(maxDelay=0)
    machine.jobs("builtin", "clock", [every_minute("tick")])


def cycles(machine, count):
    """Waits for `count` evaluation cycles to pass."""
    seen = len(machine.log_lines())
    wait_for(lambda: len(machine.log_lines()) >= seen + count, what="evaluation cycles")


def quiet(machine):
    """Whether the daemon soon stops reloading. The counted runs may lag behind its cycles."""
    cycles(machine, 2)
    for _ in range(4):
        before = machine.loads()
        cycles(machine, 3)
        if machine.loads() == before:
            return True
    return False


CHANGES = {
    "new file": lambda m: m.jobs("pkg_nonroot", "new.conf", [never("n")], account="alice"),
    "modified in place": lambda m: m.path(TOP + "/alice/f.conf").write_text("[]"),
    "removed": lambda m: m.path(TOP + "/alice/f.conf").unlink(),
    "moved away": lambda m: m.path(TOP + "/alice/f.conf").rename(m.path(TOP + "/../away")),
    "mode": lambda m: m.path(TOP + "/alice/f.conf").chmod(0o600),
    "touched": lambda m: m.path(TOP + "/alice/f.conf").touch(),
    "new account": lambda m: m.account_directory("bob"),
    "written": lambda m: m.path(TOP + "/alice/f.conf").open("r+").close(),
    "link made": lambda m: m.path(TOP + "/alice/link").symlink_to("nowhere"),
    "moved in": lambda m: m.path("/usr/local/etc/other").rename(m.path(TOP + "/alice/other")),
    "account emptied and removed": lambda m: m.path(TOP + "/empty").rmdir(),
    "all moved away": lambda m: m.path(TOP).rename(m.path(TOP + ".away")),
    "account removed": lambda m: m.run("rm", "-r", TOP + "/alice", env={"LD_PRELOAD": ""}),
}


@pytest.mark.parametrize("change", CHANGES)
def test_a_change_causes_a_reload(machine, change):
    machine.jobs("pkg_nonroot", "f.conf", [never("x")], account="alice")
    machine.path(TOP + "/empty").mkdir()
    machine.write("/usr/local/etc/other", "[]")
    machine.start_and_wait()
    assert quiet(machine)
    before = machine.loads()
    CHANGES[change](machine)
    wait_for(lambda: machine.loads() > before, what="a reload")
    assert quiet(machine), "one change must not cause endless reloads"
    assert machine.loads() <= before + 3


def test_a_file_that_is_still_being_written_causes_a_reload(machine):
    machine.jobs("pkg_nonroot", "f.conf", [never("x")], account="alice")
    machine.start_and_wait()
    assert quiet(machine)
    before = machine.loads()
    with machine.path(TOP + "/alice/f.conf").open("a", buffering=1) as file:
        file.write("\n")
        wait_for(lambda: machine.loads() > before, what="a reload")


def watches(machine):
    """The event masks of all watches of the daemon."""
    pid = machine.daemon_pid()
    infos = [machine.read(f"/proc/{pid}/fdinfo/{entry.name}") for entry in machine.proc(pid, "fdinfo").iterdir()]
    return [int(mask, 16) for info in infos for mask in re.findall(r"^inotify .* mask:(\w+)", info, re.MULTILINE)]


def test_what_is_watched(machine):
    machine.account_directory("alice")
    machine.account_directory("bob")
    machine.path(TOP + "/nobody").mkdir()
    os.chown(machine.path(TOP + "/nobody"), 4711, 4711)
    machine.start_and_wait()
    changes = (
        IN_MODIFY
        | IN_ATTRIB
        | IN_CLOSE_WRITE
        | IN_MOVED_FROM
        | IN_MOVED_TO
        | IN_CREATE
        | IN_DELETE
        | IN_DELETE_SELF
        | IN_MOVE_SELF
    )
    assert [mask & 0xFFF for mask in watches(machine)] == [changes] * 3
    before = machine.loads()
    machine.path(TOP + "/alice").rename(machine.path("/usr/local/etc/alice"))
    wait_for(lambda: machine.loads() > before, what="a reload")
    assert quiet(machine)
    assert len(watches(machine)) == 2, "a reload must replace all watches"
    before = machine.loads()
    machine.write("/usr/local/etc/alice/f", "[]")
    cycles(machine, 3)
    assert machine.loads() == before


def test_a_source_that_was_moved_away_is_not_watched(machine):
    machine.account_directory("alice")
    machine.start_and_wait()
    machine.path(TOP).rename(machine.path(TOP + ".away"))
    wait_for(lambda: machine.exists(TOP), what="a new directory")
    assert quiet(machine)
    assert len(watches(machine)) == 1
    before = machine.loads()
    machine.write(TOP + ".away/file", "")
    cycles(machine, 3)
    assert machine.loads() == before


def triggers(machine):
    """The times of the cycles that launched the job, in order."""
    found = re.findall(r"^(\S{8}).* trig\[(\d\d) ([\d:]+)\]", "\n".join(machine.log_lines()), re.M)
    return sorted(
        datetime.datetime.fromisoformat(f"{month}{day}T{time}+00:00").timestamp() for month, day, time in found
    )


def test_the_cycle_after_a_change_begins_at_once(machine):
    machine.clock("2026-06-02 02:10:10", rate=10)
    machine.account_directory("alice")
    machine.start_and_wait()
    assert quiet(machine)
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    wait_for(lambda: "pkg_nonroot-alice-f-x" in machine.entries())
    loaded = machine.entries()["pkg_nonroot-alice-f-x"]["startup"]
    following = wait_for(lambda: next((cycle for cycle in triggers(machine) if cycle > loaded), None))
    last = max(cycle for cycle in triggers(machine) if cycle <= loaded)
    assert loaded - last < 40, "the reload must not wait for the next cycle"
    assert following - loaded >= 59, "the next cycle must have its full length"


def test_a_new_account_is_watched_too(machine):
    machine.start_and_wait()
    machine.jobs("pkg_nonroot", "f", [never("x")], account="bob")
    wait_for(lambda: "pkg_nonroot-bob-f-x" in machine.entries())
    machine.jobs("pkg_nonroot", "g", [never("y")], account="bob")
    wait_for(lambda: "pkg_nonroot-bob-g-y" in machine.entries())


def test_reading_is_not_a_change(machine):
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    machine.start_and_wait()
    assert quiet(machine)
    before = machine.loads()
    machine.run("sh", "-c", f"cat {TOP}/alice/f; ls -lR {TOP}", check=True, env={"LD_PRELOAD": ""})
    cycles(machine, 3)
    assert machine.loads() == before


def test_changes_in_other_directories_are_not_detected(machine):
    machine.start_and_wait()
    for source in ("builtin", "builtin-dyn", "pkg"):
        machine.jobs(source, "new", [never("x")])
    machine.write(TOP + "/../unrelated", "")
    cycles(machine, 3)
    assert machine.loads() == 1


def test_a_reload_does_not_cause_the_next(machine):
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    machine.start_and_wait()
    for _ in range(3):
        machine.reload()
    before = machine.loads()
    cycles(machine, 3)
    assert machine.loads() == before


def test_a_burst_of_changes(machine):
    machine.account_directory("alice")
    machine.start_and_wait()
    for i in range(10):
        machine.jobs("pkg_nonroot", f"file-with-a-longer-name-{i}", [never("x")], account="alice")
    wait_for(lambda: len(machine.entries()) == 11)
    # More events than one cycle reads: the rest may cause more reloads, but only a few.
    wait_for(lambda: quiet(machine), 60)
    assert machine.texts() == []


def test_more_accounts_than_watches(machine):
    machine.run(
        "bash",
        "-c",
        f"mkdir -p {TOP}/a{{0001..1100}}; chmod 755 {TOP}; " f"chown alice {TOP}/a*",
        check=True,
        env={"LD_PRELOAD": ""},
    )
    for name in ("a0001", "a1023", "a1024", "a1100"):
        machine.write(f"{TOP}/{name}/{name}", '[{"name":"x","user":"","period":"m",' '"cmd":"/usr/bin/true"}]')
    machine.start_and_wait()
    assert set(machine.entries()) == {"builtin-clock-tick", "pkg_nonroot-alice-a0001-x", "pkg_nonroot-alice-a1023-x"}
    texts = wait_for(lambda: len(texts := machine.texts()) >= 2 * 77 and texts, what="all messages")
    assert texts[:2] == [f"Failed to listen {TOP}/a1024", f"Failed to register {TOP}/a1024"]
    assert len(texts) == 2 * 77
    cycles(machine, 2)
    machine.reload()
    assert len(machine.texts()) == 4 * 77


@pytest.mark.native(reason="strace shows the system calls of the emulator")
def test_without_inotify_everything_still_loads(machine):
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    machine.start_with_faults("inotify_init1:error=EMFILE")
    wait_for(lambda: machine.exists(machine.RUNTIME_TEMPLATE))
    assert machine.texts() == ["inotify init failed"]
    assert set(machine.entries()) == {"builtin-clock-tick", "pkg_nonroot-alice-f-x"}
    cycles(machine, 2)
    machine.reload()
    machine.stop()
    assert machine.texts() == ["inotify init failed"]
