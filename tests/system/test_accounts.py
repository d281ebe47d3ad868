"""Account directories: their owner, the rights with which they are read, and their quota."""

import json
import os
import re
import subprocess
import time
from datetime import datetime

import pytest
from tests.lib.appliance import SOURCES, every_minute, never
from tests.lib.private_machine import wait_for

TOP = SOURCES["pkg_nonroot"]
ALICE = TOP + "/alice"


@pytest.fixture(autouse=True)
def witness(machine):
    """A valid job of another account, which must stay loaded during each test."""
    machine.template(maxDelay=0)
    machine.jobs("pkg_nonroot", "f", [every_minute("tick")], account="bob")
    yield
    assert "pkg_nonroot-bob-f-tick" in machine.entries()


def names(machine):
    return set(machine.entries()) - {"pkg_nonroot-bob-f-tick"}


def as_alice(machine, *command, **options):
    """Starts a program as alice, with the real clock, and waits until it runs."""
    process = machine.popen(
        "setpriv", "--reuid=2001", "--regid=2001", "--clear-groups", *command, env={"LD_PRELOAD": ""}, **options
    )
    name = os.path.basename(command[0])
    wait_for(lambda: name in {one["name"] for one in machine.processes().values()}, what=name)
    return process


def end(machine, process):
    """Kills the program that as_alice() started: `process` is only its launcher outside the machine."""
    machine.run("pkill", "-KILL", "-U", "alice", env={"LD_PRELOAD": ""})
    process.wait(30)


def compiled(machine, source):
    """Compiles the C source and returns the path of the program inside the machine."""
    program = machine.path("/usr/local/bin/attack")
    subprocess.run(["cc", "-O2", "-o", program, "-x", "c", "-"], input=source, text=True, check=True)
    return "/usr/local/bin/attack"


def memory(machine, name):
    """In MiB: VmRSS, or VmHWM for the peak."""
    status = machine.proc(machine.daemon_pid(), "status").read_text()
    return int(re.search(name + r":\s+(\d+) kB", status)[1]) / 1024


# --- The owner of a directory -------------------------------------------------------------------


def test_a_link_that_its_account_redirects(machine):
    """Root linked the directory to a path that the account owns; the account redirects it to "/tmp"."""
    home = machine.path("/srv/alice")
    home.mkdir(parents=True)
    machine.chown(home, "alice")
    machine.path(ALICE).symlink_to("/srv/alice/jobs")
    machine.path("/srv/alice/jobs").symlink_to("/tmp/")
    machine.write("/tmp/f", json.dumps([every_minute("x")]), owner="alice")
    machine.start_and_wait()
    assert names(machine) == set()
    assert machine.texts() == [f"Failed to dir user: {ALICE}"]


def test_a_link_that_its_account_redirects_to_a_directory_of_root(machine):
    """The jobs in the directory of root run programs of accounts, and would run them as root."""
    home = machine.path("/srv/alice")
    home.mkdir(parents=True)
    machine.chown(home, "alice")
    machine.jobs("pkg", "f", [never("x", user="package", package_username="alice")])
    machine.account_directory("bob")
    machine.path(ALICE).symlink_to("/srv/alice/jobs")
    machine.path("/srv/alice/jobs").symlink_to(SOURCES["pkg"])
    machine.start_and_wait()
    assert names(machine) == {"pkg-f-x"}
    assert machine.texts() == [f"Failed to dir user: {ALICE}"]


def test_a_link_to_a_writable_directory_of_another_account(machine):
    """Anybody can write to the directory, and its jobs would run as its owner."""
    machine.path("/srv/bob").mkdir(parents=True)
    machine.chown(machine.path("/srv/bob"), "bob")
    machine.path("/srv/bob").chmod(0o777)
    machine.account_directory("bob")
    machine.path(ALICE).symlink_to("/srv/bob")
    machine.write("/srv/bob/f", json.dumps([never("x")]))
    machine.start_and_wait()
    assert names(machine) == set()
    assert machine.texts() == [f"Failed to dir user: {ALICE}"]


@pytest.mark.parametrize("mode", [0o775, 0o757, 0o1777])
def test_a_directory_of_root_that_others_can_write_to_is_refused(machine, mode):
    machine.write(TOP + "/open/f", json.dumps([never("x")]))
    machine.path(TOP + "/open").chmod(mode)
    machine.start_and_wait()
    assert names(machine) == set()
    assert machine.texts() == [f"Failed to dir user: {TOP}/open"]
    machine.path(TOP + "/open").chmod(0o755)
    wait_for(lambda: names(machine) == {"pkg_nonroot-root-f-x"}, what="jobs of the corrected directory")


EXCHANGE = r"""
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
int main(void) {
    for (;;)
        renameat2(AT_FDCWD, "/srv/alice/jobs", AT_FDCWD, "/srv/alice/other", RENAME_EXCHANGE);
}
"""


def test_a_link_that_is_replaced_repeatedly(machine):
    """A check of the path before it is opened may see one directory and open the other."""
    attack = compiled(machine, EXCHANGE)
    for directory, owner in [("/srv/alice", "alice"), ("/srv/alice/own", "alice"), ("/srv/of-root", "root")]:
        machine.path(directory).mkdir(parents=True)
        machine.path(directory).chmod(0o755)
        machine.chown(machine.path(directory), owner)
    machine.write("/srv/alice/own/f", json.dumps([never("x")]), owner="alice")
    machine.path(ALICE).symlink_to("/srv/alice/jobs")
    machine.path("/srv/alice/jobs").symlink_to("/srv/alice/own")
    machine.path("/srv/alice/other").symlink_to("/srv/of-root")
    machine.start_and_wait()
    racer = as_alice(machine, attack)
    seen = set()
    for _ in range(60):
        machine.reload()
        seen |= names(machine)
    end(machine, racer)
    assert seen == {"pkg_nonroot-alice-f-x"}


# --- The rights with which files are read -------------------------------------------------------


def test_files_are_read_with_the_rights_of_the_account(machine):
    machine.account_directory("alice")
    machine.write("/root/secret", json.dumps([never("secret")]), 0o600)
    machine.write("/srv/closed/file", json.dumps([never("closed")]))
    machine.path("/srv/closed").chmod(0o700)
    machine.write("/srv/crew", json.dumps([never("crew")]), 0o640)
    os.chown(machine.path("/srv/crew"), 0, 3001)  # a supplementary group of the account
    for name in ("/root/secret", "/srv/closed/file", "/srv/crew"):
        machine.path(f"{ALICE}/{name.split('/')[2]}").symlink_to(name)
    machine.write(ALICE + "/z-roots", json.dumps([never("roots")]), 0o600)
    machine.start_and_wait()
    assert names(machine) == {"pkg_nonroot-alice-crew-crew"}
    assert machine.texts() == [f"JSON file read error: {ALICE}/{name}" for name in ("closed", "secret", "z-roots")]
    for message in machine.messages(priority="err"):
        assert message.text.endswith("(Permission denied)")


def test_a_directory_without_read_permission_for_its_account(machine):
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    machine.path(ALICE).chmod(0o300)
    machine.start_and_wait()
    assert names(machine) == set()
    assert machine.texts() == ["open directory failed.", f"Failed to load {ALICE} config"]


def test_a_directory_below_one_that_is_closed_to_its_account(machine):
    """Somebody may have created the parents with access for root only."""
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    machine.path("/usr/local/etc").chmod(0o700)
    machine.start_and_wait()
    assert names(machine) == {"pkg_nonroot-alice-f-x"} and machine.texts() == []


def test_only_regular_files_are_read(machine):
    machine.account_directory("alice")
    os.mkfifo(machine.path(ALICE + "/fifo"), 0o666)
    machine.path(ALICE + "/terminal").symlink_to("/dev/tty")
    machine.path(ALICE + "/zero").symlink_to("/dev/zero")
    machine.path(ALICE + "/loop").symlink_to("loop")
    machine.path(ALICE + "/directory").mkdir()
    machine.path(ALICE + "/memory").symlink_to("/proc/self/mem")
    machine.start_and_wait()
    assert machine.texts() == [
        f"JSON file read error: {ALICE}/{name}" for name in ("directory", "fifo", "loop", "memory", "terminal", "zero")
    ]


STOP = r"""
#include <signal.h>
int main(void) {
    for (;;)
        kill(-1, SIGSTOP); /* every process of this account */
}
"""


def make_reading_slow(machine):
    """Creates many job files of the account, so that reading them leaves time for an attack."""
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    machine.run(
        "bash", "-c", f"cd {ALICE}; for i in {{1..1000}}; do echo [] > $i; done", check=True, env={"LD_PRELOAD": ""}
    )


def test_a_reader_stopped_by_its_account_is_given_up(machine):
    attack = compiled(machine, STOP)
    make_reading_slow(machine)
    machine.path(TOP + "/also").mkdir()
    machine.chown(machine.path(TOP + "/also"), "alice")
    stopper = as_alice(machine, attack)
    failures = [f"Failed to load {ALICE} config", f"Failed to load {TOP}/also config"]
    started = time.monotonic()
    machine.start_and_wait()
    for _ in range(20):
        if failures[0] in machine.texts():
            break
        # The reader ended before it could be stopped.
        started = time.monotonic()
        machine.reload()
    assert time.monotonic() - started > 5
    first, second = (
        datetime.strptime(message.stamp, "%b %d %H:%M:%S")
        for message in machine.messages()
        if message.plain() in failures
    )
    assert (second - first).total_seconds() < 5 * 60, "both directories share one deadline"
    end(machine, stopper)
    assert names(machine) == set()
    texts = machine.texts()
    assert texts[texts.index(failures[0]) :][:2] == failures and texts.count(failures[0]) == 1
    # In a load whose reader ended in time, the attacker may have stopped the process that copies.
    others = {text for text in texts if text not in failures and not text.startswith("Failed to cp ")}
    assert others <= {"MoveBinaryToTmp failed.", "removed cleared jobs: pkg_nonroot-alice-f-x"}
    assert len(texts) == len(failures) or texts[0] not in failures
    wait_for(lambda: machine.daemons() == [machine.daemon_pid()], what="the end of the reader")
    machine.reload()
    assert names(machine) == {"pkg_nonroot-alice-f-x"}


KILL = STOP.replace("SIGSTOP", "SIGKILL")


def test_a_reader_killed_by_its_account_is_reported(machine):
    attack = compiled(machine, KILL)
    make_reading_slow(machine)
    killer = as_alice(machine, attack)
    pid = machine.start_and_wait()
    for _ in range(5):
        machine.reload()
    wait_for(lambda: machine.reload() or f"Failed to load {ALICE} config" in machine.texts())
    end(machine, killer)
    assert machine.daemon_pid() == pid
    # The process that copies for the account may be killed as well.
    texts = {text for text in machine.texts() if not text.startswith("Failed to cp ")}
    assert texts <= {
        f"Failed to load {ALICE} config",
        "MoveBinaryToTmp failed.",
        "removed cleared jobs: pkg_nonroot-alice-f-x",
    }
    machine.reload()
    assert names(machine) == {"pkg_nonroot-alice-f-x"}


def test_no_reader_outlives_a_load(machine):
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    pid = machine.start_and_wait()
    before = sorted(os.readlink(entry) for entry in machine.proc(pid, "fd").iterdir())
    for _ in range(5):
        machine.reload()
    wait_for(
        lambda: not [
            process for process in machine.processes().values() if process["ppid"] == pid and process["state"] in "ZT"
        ],
        what="the end of all readers",
    )
    wait_for(
        lambda: sorted(os.readlink(entry) for entry in machine.proc(pid, "fd").iterdir()) == before,
        what="the descriptors as before",
    )


# --- The quota of an account --------------------------------------------------------------------


def test_a_hundred_thousand_empty_files(machine):
    machine.jobs("pkg_nonroot", "0-first", [never("x")], account="alice")
    machine.start_and_wait()
    before = memory(machine, "VmHWM")
    machine.stop()
    machine.run("bash", "-c", f"cd {ALICE} && touch {{00001..100000}}", check=True, env={"LD_PRELOAD": ""})
    machine.start_and_wait()
    left_out = ", ".join(f"alice/{number:06}" for number in range(1024, 1034))
    machine.wait_for_text(f"Quota of alice exceeded, left out: {left_out} and 98967 more")
    assert names(machine) == {"pkg_nonroot-alice-0-first-x"}
    assert machine.texts()[:-1] == [f"JSON file read error: {ALICE}/{number:06}" for number in range(1, 1024)]
    assert memory(machine, "VmHWM") < before + (100 if machine.is_sanitized() else 6)


def test_nested_lists_do_not_enlarge_the_document(machine):
    machine.account_directory("alice")
    text = json.dumps([never("x", lists="@")]).replace('"@"', "[" + "[[[[]]]]," * 115000 + "0]")
    assert len(text) < 1 << 20
    machine.write(ALICE + "/nested", text)
    machine.jobs("pkg_nonroot", "other", [never("x")], account="alice")
    machine.start_and_wait()
    assert names(machine) == {"pkg_nonroot-alice-other-x"}
    assert machine.texts() == ["Quota of alice exceeded, left out: alice/nested"]
    assert len(machine.read(machine.RUNTIME_FILE)) < 1 << 16


@pytest.mark.native(reason="the memory includes that of the emulator")
def test_the_text_of_deep_lists_is_limited_in_memory(machine):
    """As text in a document, each element has an indented line of its own."""
    machine.jobs("pkg_nonroot", "other", [never("x")], account="alice")
    machine.start_and_wait()
    before = memory(machine, "VmHWM")
    machine.stop()
    text = json.dumps([never("x", lists="@")]).replace('"@"', "[" * 58 + "[]" + ",[]" * 300000 + "]" * 58)
    assert len(text) < 1 << 20
    machine.write(ALICE + "/nested", text)
    machine.start_and_wait()
    assert names(machine) == {"pkg_nonroot-alice-other-x"}
    assert memory(machine, "VmHWM") < before + (400 if machine.is_sanitized() else 65)


@pytest.mark.parametrize("member,element", [("cmd", "a "), ("crontab", "1,"), ("extra", "\\u0001")])
def test_derived_members_count_towards_the_quota(machine, member, element):
    """A document holds more than its definition: the arguments of a command, the values of a schedule."""
    machine.account_directory("alice")
    value = element * (1000000 // len(element)) + {"cmd": "a", "crontab": "1 1 1 1 1"}.get(member, "")
    definition = json.dumps({**never("x"), member: "@"}).replace('"@"', f'"{value}"')
    machine.write(ALICE + "/f", f"[{definition}]")
    machine.start_and_wait()
    size = len(machine.read(machine.RUNTIME_FILE))
    assert size < (4 << 20) + 10000
    assert bool(names(machine)) != bool(machine.texts())


def test_two_directories_share_the_quota_of_their_account(machine):
    machine.account_directory("alice")
    machine.path(TOP + "/also").mkdir()
    machine.chown(machine.path(TOP + "/also"), "alice")
    many = lambda count: json.dumps([never(f"{number}", cmd="/usr/bin/true") for number in range(count)])
    machine.write(f"{TOP}/also/f", many(600))
    machine.write(f"{ALICE}/f", many(600))
    machine.write(f"{ALICE}/g", many(200))
    machine.start_and_wait()
    assert machine.texts() == ["Quota of alice exceeded, left out: also/f"]
    assert len(names(machine)) == 600 + 200


# --- Bursts of changes --------------------------------------------------------------------------


def test_a_burst_of_changes_causes_few_reloads(machine):
    """The queue of events holds 16,384 records, and each poll reads about thirty of them."""
    machine.account_directory("alice")
    machine.start_and_wait()
    before = machine.loads()
    machine.run(
        "bash",
        "-c",
        f"cd {ALICE}; for i in {{1..3000}}; do echo > .$i; done; rm .[1-9]*",
        check=True,
        env={"LD_PRELOAD": ""},
    )
    after = machine.loads()
    wait_for(lambda: machine.loads() > before, what="a reload")
    ticks = lambda: len(machine.runs("pkg_nonroot-bob-f-tick"))
    seen = ticks()
    wait_for(lambda: ticks() >= seen + 8, what="cycles after the burst")
    assert machine.loads() <= after + 2
    before = machine.loads()
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    wait_for(lambda: names(machine) == {"pkg_nonroot-alice-f-x"}, what="a change after the burst")
