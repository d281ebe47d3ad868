"""Attacks by a user with a shell or with the directory of an account. Each of them succeeded once.
The programs that provoke races are written in C, in `attacks/`."""

import os
import signal
import subprocess
import time
from pathlib import Path

import pytest
from tests.lib.appliance import PERSISTENT_FILE, RECORD, SOURCES, every_minute, never
from tests.lib.private_machine import wait_for

NOBODY = 2999
ALICE = 2001
ALICES = SOURCES["pkg_nonroot"] + "/alice"


@pytest.fixture(scope="session")
def compiled(tmp_path_factory):
    """Compiles a program of `attacks/` and returns its path."""
    directory = tmp_path_factory.mktemp("attacks")

    def compile_attack(name):
        program = directory / name
        if not program.exists():
            source = Path(__file__).parent / "attacks" / f"{name}.c"
            subprocess.run(["gcc", "-O2", "-Wall", "-Wextra", "-Werror", "-static", "-o", program, source], check=True)
        return program

    return compile_attack


@pytest.fixture
def attack(machine, compiled):
    """Starts a program of `attacks/` in the machine as `uid`, and waits until it is ready."""
    started = []

    def start(name, *arguments, uid=NOBODY):
        machine.write(f"/srv/attacks/{name}", compiled(name).read_bytes(), 0o755)
        process = machine.popen(
            "setpriv",
            f"--reuid={uid}",
            f"--regid={uid}",
            "--clear-groups",
            f"/srv/attacks/{name}",
            *arguments,
            env={"LD_PRELOAD": ""},
            stdout=subprocess.PIPE,
            text=True,
        )
        started.append(process)
        assert process.stdout.readline() == "ready\n"
        return process

    yield start
    for process in started:
        end(machine, process)


def end(machine, process):
    """Kills all programs of `attacks/`, which are children of their launchers, and returns the output of
    this one."""
    machine.run("pkill", "-KILL", "-f", "^/srv/attacks/", env={"LD_PRELOAD": ""})
    return process.communicate(timeout=30)[0]


def findings(machine, process):
    """Ends all attacks and returns what this observer has seen."""
    return end(machine, process).splitlines()


def reload_often(machine, times=3):
    for _ in range(times):
        machine.reload()


# --- Gaining the rights of root -----------------------------------------------------------------


def test_a_removed_runtime_directory_is_not_used_by_others(machine, attack):
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    wait_for(lambda: machine.runs("builtin-f-x"))
    attack("take_directory")
    machine.run("rm", "-rf", "/tmp/kestcrond", env={"LD_PRELOAD": ""})
    owner = lambda: machine.run("stat", "-c", "%u", "/tmp/kestcrond", env={"LD_PRELOAD": ""}).stdout
    wait_for(lambda: owner() == "0\n" and len(machine.runs("builtin-f-x")) >= 3, what="root to own the directory again")
    assert machine.read("/tmp/ran/taken") == ""


def test_a_mount_over_tmp_does_not_let_others_replace_programs(machine, attack):
    machine.jobs("builtin", "f", [every_minute("x", cmd="/usr/local/bin/log")])
    machine.write("/usr/local/bin/log", "#!/bin/sh\nid -un >> /srv/ran\n", 0o755)
    machine.start_and_wait()
    wait_for(lambda: machine.read("/srv/ran"))
    machine.path("/srv/empty").mkdir()
    machine.run("mount", "-t", "tmpfs", "-o", "mode=1777", "tmpfs", "/tmp", check=True, env={"LD_PRELOAD": ""})
    machine.path("/tmp/ran").mkdir()
    machine.path("/tmp/ran").chmod(0o1777)
    attack("take_directory")
    before = len(machine.read("/srv/ran"))
    wait_for(lambda: len(machine.read("/srv/ran")) > before, what="a run of the job's own program")
    assert machine.read("/tmp/ran/taken") == ""


def test_a_waiting_start_refuses_a_planted_program(machine):
    """The runtime directory is removed, and another user creates it with a program for a waiting start."""
    machine.template(maxDelay=1200)
    machine.jobs("builtin", "f", [every_minute("a"), every_minute("x")])
    machine.start_and_wait()
    wait_for(lambda: machine.runs("builtin-f-a"))
    machine.signal(signal.SIGKILL)
    machine.run("rm", "-rf", "/tmp/kestcrond", env={"LD_PRELOAD": ""})
    machine.path("/tmp/kestcrond").mkdir()
    machine.write("/tmp/kestcrond/builtin-f-x", "#!/bin/sh\nid -un >> /tmp/ran/taken\n", 0o755, owner="alice")
    machine.chown(machine.path("/tmp/kestcrond"), "alice")
    failed = "running job: builtin-f-x with command: /usr/local/bin/record failed, return code: -1"
    line = wait_for(
        lambda: next((line for line in machine.log_lines() if failed in line), None), 90, "the failure of the start"
    )
    assert line.endswith("error: Operation not permitted")
    assert machine.read("/tmp/ran/taken") == ""


@pytest.mark.parametrize("source,account", [("pkg", None), ("pkg_nonroot", "alice")])
def test_a_copy_never_has_set_id_bits(machine, attack, source, account):
    machine.path("/media").mkdir(exist_ok=True)
    machine.run("mount", "-t", "tmpfs", "-o", "nosuid", "tmpfs", "/media", check=True, env={"LD_PRELOAD": ""})
    machine.write("/media/program", machine.path("/usr/bin/id").read_bytes(), 0o6755)
    machine.path("/media/program").chmod(0o6755)
    machine.jobs(
        source,
        "f",
        [never(f"x{i}", user="package", package_username="alice", cmd="/media/program") for i in range(40)],
        account=account,
    )
    observer = attack("observe")
    machine.start_and_wait()
    reload_often(machine)
    assert len(machine.entries()) == 40
    assert findings(machine, observer) == []


@pytest.mark.parametrize("source,account", [("pkg", None), ("pkg_nonroot", "alice")])
def test_a_copy_is_never_a_device(machine, attack, source, account):
    """The directory of the program is replaced between its check and its copy."""
    machine.write("/srv/alice/a/null", "#!/bin/sh\n", 0o755, owner="alice")
    machine.path("/srv/alice/d").symlink_to("/srv/alice/a")
    os.chown(machine.path("/srv/alice"), ALICE, ALICE)
    machine.jobs(
        source,
        "f",
        [never(f"x{i:03}", user="package", package_username="alice", cmd="/srv/alice/d/null") for i in range(100)],
        account=account,
    )
    observer = attack("observe")
    attack("swap", "/srv/alice/d", "/srv/alice/a", "/dev", uid=ALICE)
    machine.start_and_wait()
    reload_often(machine, 5)
    assert findings(machine, observer) == []


def test_the_copy_of_a_program_in_a_closed_directory_is_unreadable(machine, attack):
    machine.write("/root/closed/program", "#!/bin/sh\n# secret\n", 0o755)
    machine.path("/root/closed").chmod(0o700)
    machine.jobs("builtin", "f", [never(f"x{i}", cmd="/root/closed/program") for i in range(40)])
    observer = attack("observe")
    machine.start_and_wait()
    reload_often(machine)
    assert len(machine.entries()) == 40
    assert findings(machine, observer) == []


def test_an_account_gets_no_copy_of_a_file_that_it_cannot_read(machine):
    machine.write("/etc/secret", "root's own\n", 0o600)
    machine.write("/root/closed/program", "#!/bin/sh\n", 0o755)
    machine.path("/root/closed").chmod(0o700)
    machine.jobs(
        "pkg_nonroot",
        "f",
        [never("a", cmd="/etc/secret"), never("b", cmd="/root/closed/program"), never("c")],
        account="alice",
    )
    machine.start_and_wait()
    name = "/tmp/kestcrond/pkg_nonroot-alice-f-"
    assert machine.texts() == [
        f"Failed to cp [/etc/secret][{name}a][0x0000 :0]",
        "MoveBinaryToTmp failed.",
        f"Failed to cp [/root/closed/program][{name}b][0x0000 :0]",
        "MoveBinaryToTmp failed.",
    ]
    assert os.listdir(machine.path("/tmp/kestcrond")) == ["pkg_nonroot-alice-f-c"]


def test_an_account_runs_a_program_that_it_can_execute_but_not_read(machine):
    machine.template(maxDelay=0)
    machine.write("/usr/local/bin/closed", machine.path("/usr/bin/touch").read_bytes(), 0o711)
    machine.jobs("pkg_nonroot", "f", [every_minute("x", cmd="/usr/local/bin/closed /tmp/ran/ran")], account="alice")
    machine.start_and_wait()
    assert os.readlink(machine.staged("pkg_nonroot-alice-f-x")) == "/usr/local/bin/closed"
    assert machine.staged("pkg_nonroot-alice-f-x").lstat().st_uid == ALICE
    wait_for(lambda: machine.exists("/tmp/ran/ran"), what="the job to run")
    assert machine.path("/tmp/ran/ran").stat().st_uid == ALICE


def test_an_account_reads_programs_with_all_its_groups(machine):
    machine.write("/usr/local/bin/crew", machine.read(RECORD), 0o750)
    os.chown(machine.path("/usr/local/bin/crew"), 0, 3001)
    machine.jobs("pkg_nonroot", "f", [never("x", cmd="/usr/local/bin/crew")], account="alice")
    machine.jobs("pkg_nonroot", "f", [never("x", cmd="/usr/local/bin/crew")], account="bob")
    machine.start_and_wait()
    assert list(machine.entries()) == ["pkg_nonroot-alice-f-x"]


# --- Denial of service and loss of history ------------------------------------------------------


def test_leased_programs_do_not_delay_a_load(machine, attack):
    programs = [f"/srv/alice/p{i}" for i in range(3)]
    for program in programs:
        machine.write(program, "#!/bin/sh\n", 0o755, owner="alice")
    machine.jobs(
        "pkg_nonroot", "f", [never(f"x{i}", cmd=program) for i, program in enumerate(programs)], account="alice"
    )
    machine.jobs("pkg", "g", [never("y", cmd=programs[0], user="package", package_username="alice"), never("z")])
    attack("lease", *programs, uid=ALICE)
    begin = time.monotonic()
    machine.start_and_wait()
    assert time.monotonic() - begin < 10
    assert list(machine.entries()) == ["pkg-g-z"]
    assert sum(text.startswith("Failed to cp [/srv/alice/p") for text in machine.texts()) == 4


def hanging_copies(machine):
    """Replaces cp by a program that hangs when it copies /usr/local/bin/slow."""
    machine.write("/usr/local/bin/slow", "#!/bin/sh\n", 0o755)
    machine.write(
        "/usr/bin/cp", '#!/bin/sh\n[ "$2" = /usr/local/bin/slow ] && exec sleep 100000\n' 'cat "$2" > "$3"\n', 0o755
    )


def test_a_copy_takes_ten_seconds_at_most(machine):
    hanging_copies(machine)
    machine.jobs("builtin", "f", [never("a", cmd="/usr/local/bin/slow"), never("b")])
    begin = time.monotonic()
    machine.start_and_wait()
    assert 8 < time.monotonic() - begin < 20
    assert list(machine.entries()) == ["builtin-f-b"]
    message = machine.messages("cronjob", "err")[0]
    assert message.text.startswith("Failed to cp [/usr/local/bin/slow]")
    assert "[0x0304 kestcore.cpp:" in message.text
    assert message.text.endswith(" (Connection timed out)")
    wait_for(lambda: not [p for p in machine.processes().values() if p["name"] == "sleep"])


def test_a_stop_does_not_wait_for_a_load(machine):
    machine.jobs("builtin", "f", [never("a"), every_minute("b"), never("c")])
    machine.start_and_wait()
    wait_for(machine.log_lines)
    machine.reload()
    before = machine.entries()
    assert before["builtin-f-b"]["lastExecution"]
    hanging_copies(machine)
    machine.jobs("builtin", "g", [never(f"x{i:02}", cmd="/usr/local/bin/slow") for i in range(20)])
    pid = machine.daemon_pid()
    machine.signal(signal.SIGHUP)
    wait_for(lambda: [p for p in machine.processes().values() if p["name"] == "sleep"])
    begin = time.monotonic()
    machine.stop()
    assert time.monotonic() - begin < 10
    assert pid not in machine.processes()
    wait_for(lambda: not [p for p in machine.processes().values() if p["name"] == "sleep"])
    saved = machine.document(PERSISTENT_FILE)["jobs"]
    assert len(saved) == 23
    for name, entry in before.items():
        assert saved[name]["startup"] == entry["startup"]
        assert saved[name].get("lastExecution", 0) >= entry.get("lastExecution", 0)
    assert not machine.exists("/tmp/kestcrond/.staging")


@pytest.mark.native(reason="strace shows the system calls of the emulator")
def test_a_stop_before_the_first_copy_loses_nothing(machine):
    machine.jobs("builtin", "f", [never("a")])
    loads = machine.loads()
    machine.start_with_faults("unshare:delay_enter=5000000")
    wait_for(lambda: machine.loads() > loads)
    machine.run("pkill", "-TERM", "-x", "kestcrond", env={"LD_PRELOAD": ""})
    wait_for(lambda: not machine.daemons())
    assert machine.texts() == []
    assert list(machine.document(PERSISTENT_FILE)["jobs"]) == ["builtin-f-a"]


def test_a_stop_during_the_first_load_loses_nothing(machine):
    machine.template(maxDelay=0)
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.jobs("pkg_nonroot", "f", [every_minute("x")], account="alice")
    machine.start_and_wait()
    wait_for(lambda: len(machine.log_lines()) >= 2)
    machine.stop()
    before = machine.document(PERSISTENT_FILE)
    assert all(entry["lastExecution"] for entry in before["jobs"].values())
    # The daemon is stopped before it reads the account's directory, which may take long.
    machine.start_with_faults("read:signal=TERM:when=1", path="/usr/kest/share/kestcron.d/f")
    wait_for(lambda: not machine.daemons())
    assert machine.document(PERSISTENT_FILE) == before


def test_an_account_that_stops_its_copies_harms_only_itself(machine, attack):
    machine.jobs("pkg_nonroot", "f", [never(f"x{i}") for i in range(10)], account="alice")
    machine.jobs("pkg_nonroot", "f", [never("y")], account="bob")
    attack("stop_copies", uid=ALICE)
    begin = time.monotonic()
    machine.start_and_wait()
    assert time.monotonic() - begin < 25
    assert "pkg_nonroot-bob-f-y" in machine.entries()
    wait_for(lambda: not [p for p in machine.processes().values() if p["name"] == "kestcrond-stage"])


def test_files_left_in_a_work_directory_do_not_stop_a_load(machine, attack):
    """An account can reach its own work directory through the process that copies its programs."""
    machine.write("/usr/bin/cp", "#!/bin/sh\n[ $(id -u) = 0 ] || /usr/bin/sleep 120\n" 'cat "$2" > "$3"\n', 0o755)
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    machine.jobs("pkg_nonroot", "f", [never("x")], account="bob")
    attacker = attack("nest", uid=ALICE)
    machine.start_and_wait()
    assert attacker.stdout.readline() == "nested\n"
    for _ in range(2):
        assert "pkg_nonroot-bob-f-x" in machine.entries()
        machine.reload()
    end(machine, attacker)
    machine.reload()
    assert not [name for name in os.listdir(machine.path("/tmp/kestcrond")) if name.startswith(".")]


def test_an_account_may_use_a_quarter_of_the_file_system(machine):
    machine.path("/tmp/kestcrond").mkdir()
    machine.run(
        "mount", "-t", "tmpfs", "-o", "mode=755,size=4m", "tmpfs", "/tmp/kestcrond", check=True, env={"LD_PRELOAD": ""}
    )
    machine.write("/usr/local/bin/half", b"#!/bin/sh\n" + bytes(400 << 10), 0o755)
    machine.write("/usr/local/bin/more", b"#!/bin/sh\n" + bytes(2 << 20), 0o755)
    machine.jobs(
        "pkg_nonroot",
        "f",
        [
            never("a", cmd="/usr/local/bin/half"),
            never("b", cmd="/usr/local/bin/half"),
            never("c", cmd="/usr/local/bin/half"),
            never("d", cmd="/usr/local/bin/more"),
        ],
        account="alice",
    )
    machine.jobs("pkg_nonroot", "f", [never("a", cmd="/usr/local/bin/half")], account="bob")
    machine.jobs("pkg", "f", [never("d", cmd="/usr/local/bin/more")])
    machine.start_and_wait()
    assert list(machine.entries()) == [
        "pkg-f-d",
        "pkg_nonroot-alice-f-a",
        "pkg_nonroot-alice-f-b",
        "pkg_nonroot-bob-f-a",
    ]
    message = next(m for m in machine.messages("cronjob") if "alice-f-c" in m.text)
    assert message.text.endswith("(Disk quota exceeded)")


def test_a_failed_copy_is_retried_in_the_next_hour(machine):
    machine.clock("2026-06-02 02:55:10")
    machine.write("/usr/bin/cp", "#!/bin/sh\nexit 1\n", 0o755)
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    assert machine.entries() == {}
    machine.write("/usr/bin/cp", '#!/bin/sh\ncat "$2" > "$3"\n', 0o755)
    # A busy machine may skip the first minute of an hour.
    wait_for(lambda: list(machine.entries()) == ["builtin-f-x"], 150, "the next hour")


def test_waiting_starts_of_an_account_are_bounded(machine):
    machine.jobs(
        "pkg_nonroot", "f", [every_minute(f"x{i:03}", cmd="/usr/bin/true") for i in range(1000)], account="alice"
    )
    machine.jobs("builtin", "a", [every_minute("tick")])
    machine.start_and_wait()
    wait_for(lambda: machine.texts().count("Failed to fork()") > 1500, 120, "refused launches")
    # Each cycle adds one start of the other job, which waits least. The first start never waits.
    assert len(machine.daemons()) < 1000 + 50
    message = next(m for m in machine.messages("cronjob") if "fork" in m.text)
    assert message.text == "Failed to fork() (Resource temporarily unavailable)"
    before = len(machine.runs("builtin-a-tick"))
    wait_for(lambda: len(machine.runs("builtin-a-tick")) > before + 1, what="runs of the other job")


def test_a_full_runtime_directory_does_not_lose_history(machine):
    machine.path("/tmp/kestcrond").mkdir()
    mount = ["mount", "-t", "tmpfs", "-o", "mode=755,size=1m", "tmpfs", "/tmp/kestcrond"]
    machine.run(*mount, check=True, env={"LD_PRELOAD": ""})
    machine.write("/usr/local/bin/large", b"#!/bin/sh\nexit 0\n" + bytes(500000), 0o755)
    machine.jobs("builtin", "f", [every_minute("x", cmd="/usr/local/bin/large")])
    machine.start_and_wait()
    wait_for(machine.log_lines)
    machine.reload()
    before = machine.entries()["builtin-f-x"]
    assert before["lastExecution"]
    machine.run("sh", "-c", "cat /dev/zero > /tmp/kestcrond/filling", env={"LD_PRELOAD": ""})
    machine.reload()
    assert machine.entries() == {}
    assert machine.texts()[0].startswith("Failed to cp [/usr/local/bin/large]")
    machine.reload()
    machine.stop()
    saved = machine.document(PERSISTENT_FILE)["jobs"]["builtin-f-x"]
    assert saved["startup"] == before["startup"] and saved["lastExecution"] >= before["lastExecution"]
    machine.path("/tmp/kestcrond/filling").unlink()
    machine.start_and_wait()
    assert machine.entries()["builtin-f-x"]["startup"] == before["startup"]
    assert not any(text.startswith("removed") for text in machine.texts())


def test_programs_of_renamed_jobs_are_removed(machine):
    machine.jobs("pkg", "f", [never("x")])
    for number in range(3):
        machine.jobs("pkg_nonroot", "f", [never(f"x{number}{i}") for i in range(20)], account="alice")
        machine.reload() if number else machine.start_and_wait()
    assert sorted(os.listdir(machine.path("/tmp/kestcrond"))) == sorted(
        ["pkg-f-x", *(f"pkg_nonroot-alice-f-x2{i}" for i in range(20))]
    )


def test_the_program_of_a_waiting_start_is_kept(machine):
    machine.template(maxDelay=900)
    machine.jobs("pkg_nonroot", "f", [every_minute("a"), every_minute("b")], account="alice")
    machine.start_and_wait()
    wait_for(lambda: machine.runs("pkg_nonroot-alice-f-a"))
    machine.jobs("pkg_nonroot", "f", [never("c")], account="alice")
    machine.reload()
    assert set(os.listdir(machine.path("/tmp/kestcrond"))) >= {"pkg_nonroot-alice-f-b", "pkg_nonroot-alice-f-c"}
    wait_for(lambda: machine.runs("pkg_nonroot-alice-f-b"), 60, "the waiting start")

    def removed_by_a_reload():
        machine.reload()
        return os.listdir(machine.path("/tmp/kestcrond")) == ["pkg_nonroot-alice-f-c"]

    # Programs are kept for half a second after their start: an interpreter has to open its script.
    wait_for(removed_by_a_reload)


@pytest.mark.parametrize("arguments", [(), ("again",)], ids=["keeps it", "returns it"])
def test_every_start_of_the_daemon_takes_the_runtime_directory(machine, attack, arguments):
    attack("take_directory", *arguments)
    for _ in range(8):
        machine.start_and_wait()
        status = machine.path("/tmp/kestcrond").lstat()
        assert (status.st_uid, status.st_mode & 0o7777) == (0, 0o755)
        machine.stop()
        machine.run("rm", "-rf", "/tmp/kestcrond", env={"LD_PRELOAD": ""})
    assert machine.texts() == []


# --- Without a mount namespace ------------------------------------------------------------------


def test_without_a_namespace_the_directory_is_closed_while_programs_are_copied(machine, attack):
    machine.template(maxDelay=0)
    machine.write("/root/closed/program", "#!/bin/sh\n# secret\n", 0o755)
    machine.path("/root/closed").chmod(0o700)
    machine.jobs(
        "builtin", "f", [every_minute("tick"), *(never(f"x{i}", cmd="/root/closed/program") for i in range(20))]
    )
    machine.jobs("pkg_nonroot", "f", [every_minute("y"), *(never(f"x{i}") for i in range(20))], account="alice")
    observer = attack("observe")
    machine.start_with_faults("unshare:error=EPERM")
    wait_for(lambda: len(machine.entries()) == 42)
    reload_often(machine)
    for name, uid in (("builtin-f-tick", 0), ("pkg_nonroot-alice-f-y", ALICE)):
        status = machine.staged(name).lstat()
        assert (status.st_uid, status.st_gid, status.st_mode & 0o7777) == (uid, uid, 0o700)
        assert machine.runs(name) or wait_for(lambda n=name: machine.runs(n))
    status = machine.path("/tmp/kestcrond").lstat()
    assert (status.st_uid, status.st_gid, status.st_mode & 0o7777) == (0, 0, 0o755)
    assert not machine.exists("/tmp/kestcrond/.staging")
    assert machine.texts() == []
    assert findings(machine, observer) == []


def test_without_a_namespace_starts_wait_for_the_load(machine):
    machine.clock("2026-06-02 02:10:57", rate=1)
    machine.template(maxDelay=1)
    machine.write("/usr/bin/cp", '#!/bin/sh\n/usr/bin/sleep 3\ncat "$2" > "$3"\n', 0o755)
    machine.jobs("builtin", "f", [every_minute("a", crontab="11 2 * * *"), every_minute("b", crontab="11 2 * * *")])
    machine.start_with_faults("unshare:error=EPERM")
    wait_for(lambda: machine.entries())
    wait_for(machine.is_between_cycles, what="the cycle that launches both")
    machine.signal(signal.SIGHUP)
    wait_for(lambda: len(machine.runs("builtin-f-b")) == 1, 90)
