"""Staging: what is copied, who owns the copy, and what stays unchanged."""

import os

import pytest
from tests.lib.appliance import RECORD, every_minute, never
from tests.lib.private_machine import wait_for

STAGED = "/tmp/kestcrond/pkg-f-x"


def owner_and_mode(path):
    status = path.lstat()
    return status.st_uid, status.st_gid, status.st_mode & 0o7777


def run_package_job(machine, program):
    """Loads one job of alice's that runs `program`; returns the system log's errors."""
    machine.jobs("pkg", "f", [never("x", user="package", package_username="alice", cmd=program)])
    machine.start_and_wait()
    return machine.texts()


def refused(machine, program, texts):
    assert run_package_job(machine, program) == [*texts, "MoveBinaryToTmp failed."]
    assert machine.entries() == {}


def cp_failed(program, name="pkg-f-x"):
    return [f"Failed to cp [{program}][/tmp/kestcrond/{name}][0x0000 :0]"]


@pytest.mark.parametrize(
    "user,account,ids", [("root", None, (0, 0)), ("system", None, (2003, 2003)), ("package", "alice", (2001, 2001))]
)
def test_the_copy_belongs_to_the_account(machine, user, account, ids):
    machine.jobs("pkg", "f", [never("x", user=user, package_username=account)])
    machine.start_and_wait()
    assert owner_and_mode(machine.path(STAGED)) == (*ids, 0o700)
    assert machine.read(STAGED) == machine.read(RECORD)
    assert machine.entries()["pkg-f-x"]["cmd_list"] == [STAGED]
    assert owner_and_mode(machine.path("/tmp/kestcrond")) == (0, 0, 0o755)
    assert os.listdir(machine.path("/tmp/kestcrond")) == ["pkg-f-x"]


@pytest.mark.parametrize("user,account,ids", [("root", None, (0, 0)), ("package", "alice", (2001, 2001))])
@pytest.mark.parametrize("uid,gid", [(2001, 0), (0, 2001), (2001, 2001), (0, 0), (2002, 2002)])
def test_the_copy_belongs_to_the_account_whoever_owns_the_program(machine, user, account, ids, uid, gid):
    os.chown(machine.path(RECORD), uid, gid)
    machine.jobs("pkg", "f", [never("x", user=user, package_username=account)])
    machine.start_and_wait()
    assert owner_and_mode(machine.path(STAGED)) == (*ids, 0o700)
    assert owner_and_mode(machine.path(RECORD)) == (uid, gid, 0o755)


def test_a_copy_that_belongs_to_the_account_keeps_its_capability(machine):
    # A change of the owner, even to the same owner, would remove the capability.
    machine.write(RECORD, machine.path("/usr/bin/true").read_bytes(), 0o755)
    capability = bytes.fromhex("0100000200200000000000000000000000000000")
    os.setxattr(machine.path(RECORD), "security.capability", capability)
    machine.jobs("pkg", "f", [never("x")])
    machine.start_and_wait()
    assert os.getxattr(machine.path(STAGED), "security.capability") == capability


def test_a_removed_program_leaves_its_copy(machine):
    machine.jobs("pkg", "f", [never("x")])
    machine.start_and_wait()
    before = machine.path(STAGED).stat()
    machine.path(RECORD).unlink()
    machine.reload()
    assert machine.entries() == {}
    after = machine.path(STAGED).stat()
    assert (after.st_ino, after.st_mtime_ns) == (before.st_ino, before.st_mtime_ns)


def test_a_program_that_is_missing(machine):
    machine.jobs(
        "builtin",
        "f",
        [never("gone", cmd="/usr/local/bin/gone -x"), never("here"), never("blank", cmd=" x"), never("none", cmd="")],
    )
    machine.start_and_wait()
    assert machine.texts() == [
        "missing binary ",
        "MoveBinaryToTmp failed.",
        "missing binary /usr/local/bin/gone",
        "MoveBinaryToTmp failed.",
        "missing binary ",
        "MoveBinaryToTmp failed.",
    ]
    assert list(machine.entries()) == ["builtin-f-here"]
    assert {message.tag for message in machine.messages(priority="err") if message.plain().startswith("missing")} == {
        "cronjob"
    }
    assert {
        message.tag for message in machine.messages(priority="err") if message.plain() == "MoveBinaryToTmp failed."
    } == {"crondaemon"}


def test_each_reload_copies_again(machine):
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    first = machine.staged("builtin-f-x").stat().st_ino
    machine.write(RECORD, "#!/bin/sh\n# changed\n", 0o755)
    machine.reload()
    assert "# changed" in machine.staged("builtin-f-x").read_text()
    assert machine.staged("builtin-f-x").stat().st_ino != first
    assert machine.entries()["builtin-f-x"]["cmd_list"] == ["/tmp/kestcrond/builtin-f-x"]
    assert machine.texts() == []


def test_a_failed_copy_leaves_the_previous_copy(machine):
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    before = machine.staged("builtin-f-x").stat().st_ino
    machine.write("/usr/bin/cp", '#!/bin/sh\necho torn > "$3"\nexit 3\n', 0o755)
    machine.reload()
    (text,) = [text for text in machine.texts() if text.startswith("Failed to cp")]
    assert text.startswith(f"Failed to cp [{RECORD}][/tmp/kestcrond/builtin-f-x][0x0302 kestcore.cpp:")
    assert machine.staged("builtin-f-x").stat().st_ino == before
    assert os.listdir(machine.path("/tmp/kestcrond")) == ["builtin-f-x"]
    assert machine.document() == {}


def test_a_partial_copy_is_removed(machine):
    machine.write("/usr/bin/cp", '#!/bin/sh\necho half > "$3"\nexit 1\n', 0o755)
    assert run_package_job(machine, RECORD)[0].startswith(f"Failed to cp [{RECORD}][{STAGED}][0x0302")
    assert os.listdir(machine.path("/tmp/kestcrond")) == []


@pytest.mark.native(reason="the emulator does not report that a program could not be started")
def test_a_copy_program_that_is_missing_or_killed(machine):
    machine.path("/usr/bin/cp").unlink()
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    assert machine.texts()[0].startswith(f"Failed to cp [{RECORD}][/tmp/kestcrond/builtin-f-x][0x0301 kestcore.cpp:")
    machine.write("/usr/bin/cp", "#!/bin/sh\nkill -9 $$\n", 0o755)
    machine.reload()
    assert machine.texts()[-2].startswith(f"Failed to cp [{RECORD}][/tmp/kestcrond/builtin-f-x][0x0303 kestcore.cpp:")


def test_signals_to_the_name_of_the_daemon_do_not_affect_a_copy(machine):
    machine.jobs("pkg", "f", [never(f"x{i:02}") for i in range(40)])
    machine.start_and_wait()
    for _ in range(3):
        machine.run("bash", "-c", "for i in {1..100}; do pkill -HUP -x kestcrond; done", env={"LD_PRELOAD": ""})
    machine.reload()
    assert machine.texts() == []
    assert len(machine.entries()) == 40


def test_the_copy_is_made_by_cp_with_exactly_its_arguments(machine):
    machine.write("/usr/bin/cp", '#!/bin/sh\nprintf \'%s|\' "$0" "$@" > /tmp/arguments\n' 'cat "$2" > "$3"\n', 0o755)
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    assert machine.read("/tmp/arguments") == (f"/usr/bin/cp|-af|{RECORD}|/tmp/kestcrond/builtin-f-x|")


def test_jobs_that_end_while_a_copy_runs_leave_no_zombie(machine):
    machine.template(maxDelay=0)
    machine.write("/usr/bin/cp", '#!/bin/sh\nsleep 1\ncat "$2" > "$3"\n', 0o755)
    machine.jobs("builtin", "f", [every_minute("x", cmd="/usr/local/bin/wait")])
    machine.write("/usr/local/bin/wait", "#!/bin/sh\necho > /tmp/ran/started\nsleep 0.3\n", 0o755)
    machine.start_and_wait()
    wait_for(lambda: machine.runs("started"))
    machine.reload()
    pid = machine.daemon_pid()
    wait_for(
        lambda: not [p for p in machine.processes().values() if p["ppid"] == pid and p["state"] == "Z"],
        what="no zombie",
    )
    assert machine.texts() == []


@pytest.mark.parametrize("make", ["directory", "fifo", "device", "device link", "loop", "kernel file"])
def test_a_program_that_is_not_a_file(machine, make):
    program = "/usr/local/bin/odd"
    path = machine.path(program)
    path.parent.mkdir(parents=True, exist_ok=True)
    if make == "directory":
        path.mkdir()
        os.chown(path, 2001, 2001)
    elif make == "fifo":
        os.mkfifo(path)
    elif make == "device":
        program = "/dev/zero"
    elif make == "device link":
        path.symlink_to("/dev/zero")
    elif make == "kernel file":
        program = "/proc/kmsg"  # a read waits for the next message of the kernel
    else:
        path.symlink_to("odd")
    texts = [f"missing binary {program}"] if make == "loop" else cp_failed(program)
    refused(machine, program, texts)
    if make != "loop":
        error = "Is a directory" if make == "directory" else "Invalid argument"
        assert machine.messages(priority="err")[0].text.endswith(f" ({error})")
    assert os.listdir(machine.path("/tmp/kestcrond")) == []
    assert owner_and_mode(machine.path("/dev/zero")) == (0, 0, 0o666)


def test_a_program_with_a_zero_byte_in_its_path(machine):
    assert run_package_job(machine, f"{RECORD}\0x")[0].startswith(f"Failed to cp [{RECORD}][")
    assert machine.entries() == {}


def test_an_empty_program_is_copied_like_any_other(machine):
    machine.write("/usr/local/bin/empty", "", 0o755)
    assert run_package_job(machine, "/usr/local/bin/empty") == []
    assert owner_and_mode(machine.path(STAGED)) == (2001, 2001, 0o700)


@pytest.mark.parametrize("target", ["/usr/bin/id", "/etc/shadow"])
def test_a_program_that_is_a_link_leaves_its_target_alone(machine, target):
    before = owner_and_mode(machine.path(target))
    machine.path("/usr/local/bin").mkdir(parents=True, exist_ok=True)
    machine.path("/usr/local/bin/link").symlink_to(target)
    assert run_package_job(machine, "/usr/local/bin/link") == []
    assert os.readlink(machine.path(STAGED)) == target
    assert owner_and_mode(machine.path(target)) == before
    assert machine.path(target).lstat().st_uid == 0


def test_a_relative_link_that_dangles_in_the_staging_directory(machine):
    machine.path("/usr/local/bin").mkdir(parents=True, exist_ok=True)
    machine.path("/usr/local/bin/link").symlink_to("record")
    refused(
        machine,
        "/usr/local/bin/link",
        [
            f"Failed to stat [{STAGED}][No such file or directory]",
            f"Failed to chown if permissions are incorrect [{STAGED}]",
        ],
    )


def test_a_link_to_the_copy_of_another_account(machine):
    machine.jobs("builtin", "f", [never("x")])
    machine.write("/srv/builtin-f-x", "#!/bin/sh\n", 0o755)  # so that the link has a target here too
    machine.path("/srv/link").symlink_to("builtin-f-x")
    machine.template(maxDelay=0)
    machine.jobs("pkg", "f", [every_minute("x", user="package", package_username="alice", cmd="/srv/link")])
    machine.start_and_wait()
    assert os.readlink(machine.path(STAGED)) == "builtin-f-x"
    assert owner_and_mode(machine.staged("builtin-f-x")) == (0, 0, 0o700)
    wait_for(
        lambda: any(line.endswith("error: Permission denied") for line in machine.log_lines()),
        what="a refused start",
    )


def test_an_account_that_does_not_exist(machine):
    machine.jobs(
        "pkg",
        "f",
        [
            never("x", user="package", package_username="nobody-here"),
            never("y", user="somebody"),
            never("z", user="packager"),
            never("r", user="rootjob"),
        ],
    )
    machine.start_and_wait()
    end = lambda name: [
        "Unable to get user group info",
        "Failed to chown if permissions are " f"incorrect [/tmp/kestcrond/pkg-f-{name}]",
        "MoveBinaryToTmp failed.",
    ]
    assert machine.texts() == [
        "user rootjob not exist",
        *end("r"),
        "user nobody-here not exist",
        *end("x"),
        'wrong user somebody! you can only specify root/system/package in config ["pkg-f-y"]',
        "Unable to determine user",
        *end("y"),
        "you are not package! error user in config",
        "Unable to determine user",
        *end("z"),
    ]
    assert os.listdir(machine.path("/tmp/kestcrond")) == [], "a copy without an owner must not be staged"


def test_a_copy_after_a_failed_one_leaves_errno_unchanged(machine):
    """The copy of the first job still exists where the copy of the second is checked. Messages include errno."""
    machine.jobs("pkg", "f", [never(name, user="somebody") for name in "ab"])
    machine.start_and_wait()
    texts = [message.text for message in machine.messages(priority="err")]
    assert len(texts) == 10
    assert texts[5:] == [text.replace("pkg-f-a", "pkg-f-b") for text in texts[:5]]


@pytest.mark.parametrize("name", ["a/b", "../../../etc/x", "/", "a\0b"])
def test_a_name_never_leads_out_of_the_runtime_directory(machine, name):
    machine.write("/tmp/kestcrond/pkg-f-a/keep", "")
    machine.path("/tmp/kestcrond").chmod(0o755)
    machine.jobs("pkg", "f", [never(name)])
    machine.start_and_wait()
    assert machine.texts()[0].startswith(f"Failed to cp [{RECORD}][/tmp/kestcrond/pkg-f-")
    assert machine.texts()[1:] == ["MoveBinaryToTmp failed."]
    assert machine.messages(priority="err")[0].text.endswith(" (Invalid argument)")
    assert os.listdir(machine.path("/tmp/kestcrond")) == ["pkg-f-a"]
    assert os.listdir(machine.path("/tmp/kestcrond/pkg-f-a")) == ["keep"]


@pytest.mark.parametrize("plant", ["link", "directory", "hard link", "fifo"])
def test_nothing_is_written_through_an_existing_object(machine, plant):
    machine.write("/etc/victim", "precious")
    directory = machine.path("/tmp/kestcrond")
    directory.mkdir()
    staged = machine.path(STAGED)
    if plant == "link":
        staged.symlink_to("/etc/victim")
    elif plant == "hard link":
        machine.run("sh", "-c", f"echo precious > /tmp/victim; ln /tmp/victim {STAGED}")
    elif plant == "fifo":
        os.mkfifo(staged)
    else:
        machine.write(STAGED + "/deep/file", "planted", owner="alice")
        machine.chown(staged, "alice")
    assert run_package_job(machine, RECORD) == []
    assert owner_and_mode(staged) == (2001, 2001, 0o700)
    assert staged.read_text() == machine.read(RECORD)
    assert machine.read("/etc/victim") == "precious"
    assert owner_and_mode(machine.path("/etc/victim")) == (0, 0, 0o644)
    if plant == "hard link":
        assert machine.read("/tmp/victim") == "precious\n"
    assert os.listdir(directory) == ["pkg-f-x"]


@pytest.mark.parametrize("plant", ["link", "directory", "file", "own link"])
def test_a_foreign_runtime_directory_is_moved_aside(machine, plant):
    directory = machine.path("/tmp/kestcrond")
    machine.path("/var/lib/target").mkdir(parents=True)
    if "link" in plant:
        directory.symlink_to("/var/lib/target")
    elif plant == "directory":
        directory.mkdir()
        (directory / "pkg-f-x").symlink_to("/etc/shadow")
    else:
        directory.write_text("in the way")
    if plant != "own link":
        machine.chown(directory, "alice")
    assert run_package_job(machine, RECORD) == []
    assert owner_and_mode(directory) == (0, 0, 0o755)
    assert owner_and_mode(machine.path(STAGED)) == (2001, 2001, 0o700)
    assert os.listdir(machine.path("/var/lib/target")) == []
    assert machine.path("/etc/shadow").stat().st_uid == 0
    assert len(list(machine.path("/tmp").glob("kestcrond.*"))) == 1


@pytest.mark.parametrize("mode", [0o777, 0o700, 0o1777])
def test_the_runtime_directory_is_writable_by_root_only(machine, mode):
    directory = machine.path("/tmp/kestcrond")
    directory.mkdir()
    directory.chmod(mode)
    machine.start_and_wait()
    assert owner_and_mode(directory) == (0, 0, 0o755)
    directory.chmod(mode)
    machine.reload()
    assert owner_and_mode(directory) == (0, 0, 0o755)


def test_a_runtime_directory_removed_while_running_is_created_again(machine):
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    machine.run("rm", "-rf", "/tmp/kestcrond", env={"LD_PRELOAD": ""})
    machine.path("/tmp/kestcrond").mkdir(exist_ok=True)  # a cycle may have created it already
    machine.chown(machine.path("/tmp/kestcrond"), "alice")
    machine.reload()
    assert owner_and_mode(machine.path("/tmp/kestcrond")) == (0, 0, 0o755)
    count = len(machine.runs("builtin-f-x"))
    wait_for(lambda: len(machine.runs("builtin-f-x")) > count)


def test_nothing_is_staged_into_a_foreign_directory(machine):
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.jobs("builtin", "g", [never("x")])
    machine.start_and_wait()
    wait_for(lambda: machine.runs("builtin-f-x"))
    directory = machine.path("/tmp/kestcrond")
    # A mount point can be neither moved nor replaced.
    machine.run("mount", "-t", "tmpfs", "-o", "uid=2001", "tmpfs", "/tmp/kestcrond", check=True, env={"LD_PRELOAD": ""})
    machine.wait_for_text("runtime dir (/tmp/kestcrond) create failed")
    wait_for(
        lambda: sum(text.startswith(f"Failed to cp [{RECORD}][/tmp/kestcrond/builtin-") for text in machine.texts())
        >= 2
    )
    assert os.listdir(directory) == []


def test_the_copy_of_a_set_id_program_has_no_set_id_bits(machine):
    machine.write("/usr/local/bin/suid", machine.read(RECORD), 0o6755)
    machine.path("/usr/local/bin/suid").chmod(0o6755)
    assert run_package_job(machine, "/usr/local/bin/suid") == []
    assert owner_and_mode(machine.path(STAGED)) == (2001, 2001, 0o700)
