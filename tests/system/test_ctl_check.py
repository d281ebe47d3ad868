"""kestcronctl check: its output, and that it refuses exactly what the daemon refuses."""

import json
import os
import random
import re
import shutil
from pathlib import Path

import pytest
from tests.lib.appliance import RECORD, SOURCES, every_minute
from tests.lib.ctl import TOOL
from tests.lib.definitions import GOOD, Definitions, damaged_files
from tests.lib.private_machine import wait_for

PKG = SOURCES["pkg"]
ACCOUNTS = SOURCES["pkg_nonroot"]
PREFIX = "JSON file read error: "


def files_of_a_fixed_tree(machine):
    """Creates valid and invalid files in all sources. Returns the output of a check."""
    machine.write(PKG + "/good.conf", json.dumps([GOOD]))
    machine.write(
        PKG + "/period.conf",
        """[
    {
        "name": "x",
        "user": "root",
        "period": "yearly",
        "cmd": "/usr/local/bin/record"
    }
]
""",
    )
    machine.write(PKG + "/syntax.conf", '[{"name": "x"\n  "user": "root"}]')
    machine.write(PKG + "/empty.conf", "")
    machine.path(PKG + "/deeper").mkdir()
    machine.write(PKG + "/.hidden.conf", "not read")
    machine.write(SOURCES["builtin"] + "/dyn-a.conf", json.dumps([{**GOOD, "name": "b"}]))
    machine.write(SOURCES["builtin-dyn"] + "/a.conf", json.dumps([{**GOOD, "name": "b"}]))
    machine.write(
        SOURCES["builtin-dyn"] + "/times.conf",
        """[
    {"name": "both", "user": "root", "period": "crontab", "cmd": "/usr/local/bin/record",
     "crontab": "*/20 3 1 * 1"},
    {"name": "dash", "user": "root", "period": "crontab", "cmd": "/usr/local/bin/record",
     "crontab": "0 8-9 * * 7"}
]
""",
    )
    machine.account_directory("alice")
    machine.write(
        ACCOUNTS + "/alice/one.conf",
        """{
    "name": "x", "user": "root", "perod": "hourly", "period": "monday",
    "cmd": "/usr/local/bin/record > /dev/null"
}
""",
    )
    machine.path(ACCOUNTS + "/stranger").mkdir()
    os.chown(machine.path(ACCOUNTS + "/stranger"), 4711, 4711)
    return """\
/usr/kest/etc/kestcron.d/times.conf:3:18: warning: builtin-dyn-times-both: minute "*/20" is read \
as "*", every minute; write: 0,20,40
/usr/kest/etc/kestcron.d/times.conf:3:29: warning: builtin-dyn-times-both: day "1" and weekday "1" \
must match on the same day; write: "*" for one of the two
/usr/kest/etc/kestcron.d/times.conf:5:20: error: builtin-dyn-times-dash: hour "8-9": ranges \
with a dash are not supported; write: 8,9 for all values, 8~9 for one random value
/usr/kest/etc/kestcron.d/times.conf:5:28: error: builtin-dyn-times-dash: weekday "7" is out of \
range; expected: 0 (Sunday) to 6, a random value such as 0~6, "~" or "*"
/usr/kest/share/kestcron.d/dyn-a.conf:1:11: warning: builtin-dyn-a-b: replaced by the job with \
the same full name in /usr/kest/etc/kestcron.d/a.conf:1, which is read later; expected: one job for \
each full name
/usr/local/etc/kestcron.d/deeper:1:1: error: is a directory; expected: a regular file
/usr/local/etc/kestcron.d/empty.conf:1:1: error: the file is empty; expected: one JSON document
/usr/local/etc/kestcron.d/period.conf:5:19: error: pkg-period-x: "period" is invalid: "yearly"; \
expected: "hourly", "daily", "weekly", "monthly" or "crontab"
/usr/local/etc/kestcron.d/syntax.conf:2:3: error: invalid JSON: Missing ',' or '}' in object \
declaration
/usr/local/etc/kestcron_nonroot.d/alice/one.conf:2:13: warning: pkg_nonroot-alice-one-default: \
"name" is ignored: the job of a file without an array is named "default"; write: an array around the \
definition
/usr/local/etc/kestcron_nonroot.d/alice/one.conf:2:26: warning: pkg_nonroot-alice-one-default: \
"user" is ignored: all jobs in this directory run as "alice"
/usr/local/etc/kestcron_nonroot.d/alice/one.conf:2:34: warning: pkg_nonroot-alice-one-default: \
unknown member "perod" is ignored; write: "period"
/usr/local/etc/kestcron_nonroot.d/alice/one.conf:2:63: warning: pkg_nonroot-alice-one-default: \
"period" "monday" is read as "monthly": only its first letter counts; expected: "hourly", "daily", \
"weekly", "monthly" or "crontab"
/usr/local/etc/kestcron_nonroot.d/alice/one.conf:3:35: warning: pkg_nonroot-alice-one-default: ">" \
is passed to the program as it is: "cmd" is split at blanks, without a shell and without quoting; \
write: "cmd_list" for arguments with blanks, a script for shell syntax
/usr/local/etc/kestcron_nonroot.d/stranger:1:1: error: is owned by user ID 4711, which has no \
account; expected: a directory owned by the account of its jobs
"""


def test_output(machine, ctl):
    expected = files_of_a_fixed_tree(machine)
    done = ctl("check")
    assert done.stdout == expected
    assert done.stderr == "kestcronctl: 9 files, 7 jobs: 7 errors, 8 warnings\n"
    assert done.returncode == 1
    # No colours without a terminal.
    assert ctl("check", env={"TERM": "xterm"}).stdout == expected


def test_json_output(machine, ctl):
    expected = files_of_a_fixed_tree(machine).splitlines()
    status, answer = ctl.json("check")
    assert status == 1
    assert {key: answer[key] for key in ("files", "jobs", "errors", "warnings")} == {
        "files": 9,
        "jobs": 7,
        "errors": 7,
        "warnings": 8,
    }
    lines = []
    for problem in answer["problems"]:
        assert sorted(problem) == ["allowed", "column", "file", "found", "job", "line", "member", "message", "severity"]
        lines.append(
            "{file}:{line}:{column}: {severity}: ".format(**problem)
            + (f"{problem['job']}: " if problem["job"] else "")
            + problem["message"]
            + (f"; {problem['allowed']}" if problem["allowed"] else "")
        )
    assert lines == [re.sub("; (?:expected|write): ", "; ", line) for line in expected]
    dash = next(problem for problem in answer["problems"] if "8-9" in problem["message"])
    assert (dash["member"], dash["found"]) == ("crontab", '"8-9"')
    empty = next(problem for problem in answer["problems"] if "empty.conf" in problem["file"])
    assert (empty["job"], empty["member"], empty["found"]) == (None, None, None)


def test_errors_only(machine, ctl):
    expected = files_of_a_fixed_tree(machine)
    done = ctl("check", "--errors-only")
    assert done.stdout.splitlines() == [line for line in expected.splitlines() if ": error: " in line]
    assert done.stderr == "kestcronctl: 9 files, 7 jobs: 7 errors\n"
    assert done.returncode == 1
    only_warned = ctl("check", "--errors-only", ACCOUNTS + "/alice")
    assert (only_warned.returncode, only_warned.stdout) == (0, "")


def test_no_problems(machine, ctl):
    machine.write(PKG + "/good.conf", json.dumps([GOOD, {**GOOD, "name": "y"}]))
    machine.write(PKG + "/one", json.dumps({key: GOOD[key] for key in ("user", "period", "cmd")}))
    done = ctl("check")
    assert (done.returncode, done.stdout) == (0, "")
    assert done.stderr == "kestcronctl: 2 files, 3 jobs: no problems\n"


def test_no_sources(machine, ctl):
    machine.run("rm", "-rf", *SOURCES.values())
    done = ctl("check")
    assert (done.returncode, done.stdout) == (0, "")
    assert done.stderr == "kestcronctl: 0 files, 0 jobs: no problems\n"


def refused_jobs(answer):
    return [problem["job"] for problem in answer["problems"] if problem["severity"] == "error" and problem["job"]]


def test_paths_in_and_outside_the_sources(machine, ctl):
    bad = json.dumps([{**GOOD, "period": "yearly"}])
    machine.account_directory("alice")
    for path in (PKG + "/f", ACCOUNTS + "/alice/f", "/tmp/build/f.conf", "/tmp/build/.g"):
        machine.write(path, bad)
    for paths, names in [
        ([PKG], ["pkg-f-x"]),
        ([PKG + "/f"], ["pkg-f-x"]),
        ([PKG + "//./f"], ["pkg-f-x"]),
        (["/usr/local/bin/.." + PKG.removeprefix("/usr/local") + "/"], ["pkg-f-x"]),
        ([ACCOUNTS], ["pkg_nonroot-alice-f-x"]),
        ([ACCOUNTS + "/alice/"], ["pkg_nonroot-alice-f-x"]),
        ([ACCOUNTS + "/alice/f"], ["pkg_nonroot-alice-f-x"]),
        (["/tmp/build"], ["f-x"]),
        (["tmp/build/f.conf"], ["f-x"]),
        (["/tmp/build/.g"], [".g-x"]),
        ([PKG, PKG + "/f", "/tmp/build"], ["f-x", "pkg-f-x"]),
    ]:
        status, answer = ctl.json("check", *paths)
        assert (status, refused_jobs(answer)) == (1, names), paths
    # Paths are printed as given, so that editors find them.
    assert ctl("check", "tmp/build//f.conf").stdout.startswith("tmp/build//f.conf:1:")
    assert ctl("check", "tmp/build/").stdout.startswith("tmp/build/f.conf:1:")


def test_a_link_to_an_account_directory(machine, ctl):
    machine.account_directory("alice")
    machine.run("mv", ACCOUNTS + "/alice", "/tmp/elsewhere", check=True)
    machine.path(ACCOUNTS + "/linked").symlink_to("/tmp/elsewhere")
    machine.write("/tmp/elsewhere/f", json.dumps([{**GOOD, "period": "yearly"}]))
    for path in (ACCOUNTS, ACCOUNTS + "/linked", ACCOUNTS + "/linked/f"):
        assert refused_jobs(ctl.json("check", path)[1]) == ["pkg_nonroot-alice-f-x"]
    assert refused_jobs(ctl.json("check", "/tmp/elsewhere/f")[1]) == ["f-x"]


@pytest.mark.parametrize("arguments", [["/nowhere"], [PKG, "/nowhere"], [""], ["--nonsense"]])
def test_errors(machine, ctl, arguments):
    done = ctl("check", *arguments)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr


def test_files_that_the_caller_may_not_read(machine, ctl):
    machine.write("/tmp/build/bad", "no JSON")
    machine.write("/tmp/build/secret", json.dumps([GOOD]), mode=0o600)
    machine.path("/tmp/locked").mkdir(mode=0o700)
    done = ctl("check", "/tmp/build", user=2001)
    assert done.returncode == 2
    assert done.stdout.startswith("/tmp/build/bad:1:1: error: ")
    assert len(done.stdout.splitlines()) == 1, "unreadable files are not errors"
    assert done.stderr.endswith("kestcronctl: /tmp/build/secret: Permission denied\n")
    assert ctl("check", "/tmp/locked", user=2001).returncode == 2
    assert ctl("check", "/tmp/locked").returncode == 0


def test_refused_directories_and_files(machine, ctl):
    machine.run("rm", "-rf", PKG)
    machine.write(PKG, "in the way")
    machine.account_directory("alice")
    machine.write(ACCOUNTS + "/file", "[]", owner="bob")
    machine.path(ACCOUNTS + "/dangling").symlink_to("nowhere")
    os.mkfifo(machine.path(ACCOUNTS + "/alice/fifo"))
    machine.path(ACCOUNTS + "/alice/dangling").symlink_to("nowhere")
    _, answer = ctl.json("check")
    assert [(problem["file"], problem["message"]) for problem in answer["problems"]] == [
        (PKG, "is not a directory"),
        (ACCOUNTS + "/alice/dangling", "cannot be read: No such file or directory"),
        (ACCOUNTS + "/alice/fifo", "is neither a regular file nor a link to one"),
        (ACCOUNTS + "/dangling", "cannot be read: No such file or directory"),
        (ACCOUNTS + "/file", "is not a directory"),
    ]


def test_another_appliance(machine, ctl):
    root = "/tmp/other"
    machine.write(
        root + "/etc/passwd", "root:x:0:0::/:/bin/sh\ncarol:x:1234:1234::/:/bin/sh\ndora:x:1234:1::/:/bin/sh\n"
    )
    machine.write(root + "/opt/real", "#!/bin/sh\n", mode=0o755)
    machine.write(
        root + PKG + "/f.conf",
        json.dumps(
            [
                {**GOOD, "user": "package", "package_username": "carol", "cmd": "/opt/real"},
                {**GOOD, "name": "y", "user": "package", "package_username": "alice", "cmd": RECORD},
                {**GOOD, "name": "z", "cmd": "/opt/link"},
                {**GOOD, "name": "w", "user": "package", "package_username": "dora", "cmd": "/opt/real"},
            ]
        ),
    )
    machine.path(root + "/opt/link").symlink_to("/opt/real")
    machine.path(root + PKG + "/g.conf").symlink_to(PKG + "/f.conf")
    directory = machine.path(root + ACCOUNTS + "/whatever")
    directory.mkdir(parents=True)
    os.chown(directory, 1234, 1234)
    machine.write(root + ACCOUNTS + "/whatever/f", json.dumps([{**GOOD, "cmd": "/opt/none"}]))
    _, answer = ctl.json("--root", root, "check")
    expected = [
        (PKG + "/f.conf", "pkg-f-y", 'account "alice" does not exist: the daemon will not load this job'),
        (PKG + "/f.conf", "pkg-f-y", f'program "{RECORD}" does not exist: the daemon will not load this job'),
        (
            PKG + "/f.conf",
            "pkg-f-z",
            'program "/opt/link" is a link to "/opt/real": the daemon runs the link target, not a copy',
        ),
    ]
    expected += [(PKG + "/g.conf", job.replace("-f-", "-g-"), text) for _, job, text in expected]
    expected += [
        (
            ACCOUNTS + "/whatever/f",
            "pkg_nonroot-carol-f-x",
            '"user" is ignored: all jobs in this directory run as "carol"',
        ),
        (
            ACCOUNTS + "/whatever/f",
            "pkg_nonroot-carol-f-x",
            'program "/opt/none" does not exist: the daemon will not load this job',
        ),
    ]
    assert sorted(
        (problem["file"].removeprefix(root), problem["job"], problem["message"]) for problem in answer["problems"]
    ) == sorted(expected)


def test_program_directories_that_others_can_write_to(machine, ctl):
    machine.account_directory("alice")
    for path, mode, owner in [
        ("/opt/a", 0o755, "root"),
        ("/opt/b", 0o777, "root"),
        ("/opt/c", 0o1777, "root"),
        ("/opt/d", 0o755, "alice"),
        ("/opt/b/e", 0o755, "root"),
        ("/opt/c/f", 0o755, "root"),
    ]:
        machine.path(path).mkdir(parents=True)
        machine.write(path + "/p", "#!/bin/sh\n", mode=0o755)
        machine.path(path).chmod(mode)
        machine.chown(machine.path(path), owner)
    machine.write(
        PKG + "/f",
        json.dumps(
            [
                {**GOOD, "name": name, "cmd": f"/opt/{name.replace('-', '/')}/p"}
                for name in ("a", "b", "c", "d", "b-e", "c-f")
            ]
        ),
    )
    machine.write(
        ACCOUNTS + "/alice/f",
        json.dumps([{"name": name, "period": "daily", "cmd": f"/opt/{name}/p"} for name in ("a", "b", "d")]),
    )
    _, answer = ctl.json("check")
    assert {problem["job"]: problem["message"].split("write to ")[1] for problem in answer["problems"]} == {
        "pkg-f-b": '"/opt/b"',
        "pkg-f-c": '"/opt/c"',
        "pkg-f-d": '"/opt/d"',
        "pkg-f-b-e": '"/opt/b"',
        "pkg_nonroot-alice-f-b": '"/opt/b"',
    }


def test_job_files_that_others_can_change(machine, ctl):
    for name, mode, owner in [("fine", 0o644, "root"), ("of-bob", 0o644, "bob"), ("open", 0o666, "root")]:
        machine.write(f"{PKG}/{name}", json.dumps([GOOD]), mode, owner=owner)
    machine.write("/srv/bob/real", json.dumps([GOOD]), 0o644, owner="bob")
    machine.path(PKG + "/to-bob").symlink_to("/srv/bob/real")
    machine.account_directory("alice")
    for name, mode, owner in [
        ("fine", 0o664, "alice"),
        ("of-bob", 0o644, "bob"),
        ("open", 0o666, "alice"),
        ("of-root", 0o644, "root"),
    ]:
        machine.write(f"{ACCOUNTS}/alice/{name}", json.dumps([GOOD]), mode, owner=owner)
    for name in ("linked", "shared"):
        machine.path(f"/srv/{name}").mkdir()
        machine.chown(machine.path(f"/srv/{name}"), "alice")
    machine.write("/srv/linked/f", json.dumps([GOOD]), owner="alice")
    machine.path(ACCOUNTS + "/linked").symlink_to("/srv/linked")
    machine.path("/srv/shared").rename(machine.path(ACCOUNTS + "/shared"))
    machine.write(ACCOUNTS + "/shared/f", json.dumps([GOOD]), owner="alice")
    machine.path(ACCOUNTS + "/shared").chmod(0o777)
    machine.path("/usr/local").chmod(0o777)
    machine.path(PKG).chmod(0o1777)
    _, answer = ctl.json("check")
    found = {
        (problem["file"], problem["message"])
        for problem in answer["problems"]
        if "users other than" in problem["message"] or "is a link" in problem["message"]
    }
    below = "users other than root can change this directory and the job files below it"
    both = 'users other than root and "alice" can '
    assert found == {
        ("/usr/local", below),
        (PKG, "users other than root can add job files to this directory"),
        *((f"{PKG}/{name}", "users other than root can change this file") for name in ("of-bob", "open", "to-bob")),
        *((f"{ACCOUNTS}/alice/{name}", both + "change this file") for name in ("of-bob", "open")),
        (
            ACCOUNTS + "/linked",
            'is a link to "/srv/linked": whoever can replace the target determines ' "the account of the jobs",
        ),
        (ACCOUNTS + "/shared", both + "add job files to this directory"),
    }
    assert all(problem["severity"] == "warning" for problem in answer["problems"])


# --- Agreement with the daemon ------------------------------------------------------------------


def test_jobs_that_the_daemon_does_not_load(machine, ctl):
    machine.path("/usr/local/bin/relative").symlink_to("record")
    machine.path("/usr/local/bin/absolute").symlink_to(RECORD)
    machine.path("/usr/local/bin/directory").mkdir()
    definitions = {
        "good": {},
        "relative-path": {"cmd": RECORD[1:]},
        "absolute-link": {"cmd": "/usr/local/bin/absolute"},
        "packages": {"user": "packages", "package_username": "alice"},
        "control\x1b": {},
        "superfluous": {"package_username": "alice"},
        "nobody": {"user": "nobody"},
        "rootless": {"user": "rootless"},
        "package": {"user": "package", "package_username": 5},
        "missing-account": {"user": "package", "package_username": "carol"},
        "a/b": {},
        "zero\x00byte": {},
        "n" * 250: {},
        "m" * 249: {},
        "missing": {"cmd": "/missing"},
        "directory": {"cmd": "/usr/local/bin/directory"},
        "device": {"cmd_list": ["/dev/null"]},
        "blank": {"cmd": " " + RECORD},
        "no-path": {"cmd": "record"},
        "relative-link": {"cmd": "/usr/local/bin/relative"},
        "nothing": {"cmd_list": [None]},
    }
    machine.write(PKG + "/f", json.dumps([{**GOOD, "name": name, **members} for name, members in definitions.items()]))
    _, answer = ctl.json("check")
    machine.start_and_wait()
    names = {f"pkg-f-{name}" for name in definitions}
    assert set(refused_jobs(answer)) == names - set(machine.entries())
    assert len(set(refused_jobs(answer))) == 14
    done = ctl("reload")
    assert done.returncode == 1
    errors = [line for line in done.stdout.splitlines() if ": error: " in line]
    assert len(errors) == answer["errors"] and all("the daemon will not load this job" in line for line in errors)
    assert [problem["job"] for problem in json.loads(ctl("reload", "--json").stdout)["problems"]] == refused_jobs(
        answer
    )


def elf_for_another_system():
    """The header of a program for S390, where no test runs."""
    header = bytearray(64)
    header[:6] = b"\x7fELF\x02\x02"
    header[16:20] = (2).to_bytes(2, "big") + (22).to_bytes(2, "big")
    return bytes(header)


# Programs in /opt, their mode, and why each cannot be started, if so.
PROGRAMS = {
    "script": (b"#!/bin/sh\n", 0o755, None),
    "options": (b"#! /bin/sh -e\n", 0o755, None),
    "not-executable": (b"#!/bin/sh\n", 0o644, None),
    "of-script": (b"#!/opt/script\n", 0o755, None),
    "text": (b"echo\n", 0o755, 'it begins neither with "#!" nor as an ELF program'),
    "bytes": (bytes(range(256)), 0o755, 'it begins neither with "#!" nor as an ELF program'),
    "blank": (b"#! \n", 0o755, "the kernel finds no interpreter in its first line"),
    "missing": (b"#!/bin/none\n", 0o755, 'its interpreter "/bin/none" does not exist'),
    "dos": (b"#!/bin/sh\r\n", 0o755, r'its interpreter "/bin/sh\r" does not exist'),
    "directory": (b"#!/bin\n", 0o755, 'its interpreter "/bin" is not a regular file'),
    "plain": (b"#!/opt/not-executable\n", 0o755, 'its interpreter "/opt/not-executable" is not executable'),
    "of-text": (b"#!/opt/text\n", 0o755, 'its interpreter "/opt/text" cannot be started'),
    "elf": (elf_for_another_system(), 0o755, "it is for S390, 64 bits, big-endian, and the system is "),
    "part-of-elf": (elf_for_another_system()[:17], 0o755, "it is an ELF file, but not a program"),
}


@pytest.mark.native(reason="the programs of the machine are not those of the emulated system")
def test_programs_that_cannot_be_started(machine, ctl):
    machine.template(maxDelay=0)
    expected = {}
    for name, (content, mode, fault) in PROGRAMS.items():
        machine.write("/opt/" + name, content, mode)
        if fault:
            expected["pkg-f-" + name] = f'program "/opt/{name}" cannot be started: {fault}'
    machine.path("/opt/link").symlink_to("/opt/script")
    machine.path("/opt/plain-link").symlink_to("/opt/not-executable")
    expected[
        "pkg-f-plain-link"
    ] = 'program "/opt/plain-link" cannot be started: the target of the link is not executable'
    names = [*PROGRAMS, "link", "plain-link"]
    definitions = [every_minute(name, cmd="/opt/" + name) for name in names]
    machine.jobs("pkg", "f", [*definitions, every_minute("program", cmd=TOOL)])
    _, answer = ctl.json("check")
    assert answer["errors"] == 0
    warned = {p["job"]: p["message"] for p in answer["problems"] if "cannot be started" in p["message"]}
    assert warned.keys() == expected.keys()
    assert all(warned[job].startswith(text) for job, text in expected.items()), warned
    assert "cannot be started" not in ctl("check", "--portable", PKG).stdout
    machine.start_and_wait()
    log = machine.log_lines

    def launches(name):
        return sum(f" running job: pkg-f-{name} " in line and " failed, " not in line for line in log())

    wait_for(lambda: all(launches(name) > 1 for name in [*names, "program"]), what="two starts of each job")
    wait_for(lambda: expected.keys() <= failed_jobs(log()), what="the failures")
    assert failed_jobs(log()) == expected.keys()
    failed = json.loads(ctl("status", "--json").stdout)["failed_starts"]
    assert {start["job"] for start in failed} == expected.keys()


def failed_jobs(lines):
    return {line.split(" running job: ")[1].split()[0] for line in lines if " failed, return code: " in line}


def test_programs_of_another_appliance(machine, ctl):
    root = "/tmp/other"
    for name, (content, mode, _) in PROGRAMS.items():
        machine.write(f"{root}/opt/{name}", content, mode)
    machine.write(root + PKG + "/f", json.dumps([{**GOOD, "name": name, "cmd": "/opt/" + name} for name in PROGRAMS]))

    def unable():
        _, answer = ctl.json("--root", root, "check")
        return {problem["job"].removeprefix("pkg-f-") for problem in answer["problems"]}

    # The interpreters and the architecture are unknown in a part of a system.
    of_themselves = {"text", "bytes", "blank", "part-of-elf"}
    assert unable() == of_themselves
    # A system of the same architecture as the one program.
    machine.path(root + "/bin").mkdir()
    machine.path(root + "/usr").joinpath("bin").mkdir()
    machine.write(root + "/usr/bin/real-sh", elf_for_another_system(), 0o755)
    machine.path(root + "/bin/sh").symlink_to("/usr/bin/real-sh")
    assert unable() == of_themselves | {"missing", "dos", "directory", "plain", "of-text"}
    # A system of another one.
    machine.write(root + "/usr/bin/real-sh", elf_for_another_system()[:18] + b"\0\x08" + bytes(44), 0o755)
    assert unable() == of_themselves | {"missing", "dos", "directory", "plain", "of-text", "elf"}


def test_duplicate_names(machine, ctl):
    def put(source, file, *names_and_arguments):
        machine.jobs(
            source,
            file,
            [
                {**GOOD, "name": name, "cmd": f"{RECORD} {argument}", **({} if argument != "bad" else {"period": "x"})}
                for name, argument in names_and_arguments
            ],
        )

    put("pkg", "same", ("x", 1), ("x", 2), ("x", "bad"))
    put("pkg", "a", ("x", 3))
    put("pkg", "a.conf", ("x", 4))
    put("pkg", "a.conf.conf", ("x", 5))
    put("builtin", "dyn-x.conf", ("y", 6))
    put("builtin-dyn", "x.conf", ("y", 7))
    # Deliberately in the wrong order.
    _, answer = ctl.json("check", *reversed([SOURCES[label] for label in ("builtin", "builtin-dyn", "pkg")]))
    machine.start_and_wait()
    winners = {}
    for problem in answer["problems"]:
        if "replaced" in problem["message"]:
            winners.setdefault(problem["job"], set()).add(problem["message"].split(" in ")[1].split(":")[0])
    arguments = {name: entry["cmd_str"].split()[1] for name, entry in machine.entries().items()}
    assert winners == {
        "pkg-same-x": {PKG + "/same"},
        "pkg-a-x": {PKG + "/a.conf.conf"},
        "builtin-dyn-x-y": {SOURCES["builtin-dyn"] + "/x.conf"},
    }
    assert arguments == {"pkg-same-x": "2", "pkg-a-x": "5", "builtin-dyn-x-y": "7"}
    # Outside the sources only files of the same directory are compared.
    for path in ("/tmp/one/f", "/tmp/two/f"):
        machine.write(path, json.dumps([GOOD]))
    assert ctl("check", "/tmp/one", "/tmp/two").returncode == 0


def read_errors(machine):
    return sorted(text.removeprefix(PREFIX) for text in machine.texts() if text.startswith(PREFIX))


def left_out(machine):
    """The paths that exceeded a quota, if there are only a few."""
    matches = [re.fullmatch("Quota of alice exceeded, left out: (.*)", text) for text in machine.texts()]
    return [f"{ACCOUNTS}/{name}" for match in matches if match for name in match[1].split(", ")]


def expect_left_out(machine, ctl, *names):
    """The daemon and the tool must leave out exactly these files of alice."""
    machine.start_and_wait()
    paths = [f"{ACCOUNTS}/{name}" for name in names]
    assert left_out(machine) == paths
    assert len(machine.texts()) == 1
    _, answer = ctl.json("check", "--errors-only")
    assert [problem["file"] for problem in answer["problems"]] == paths
    assert all('quota of account "alice"' in problem["message"] for problem in answer["problems"])
    for path in paths:
        assert ctl("check", "--errors-only", path).returncode == 1


def test_files_of_an_account_share_its_quota(machine, ctl):
    machine.account_directory("alice")
    for name, size in [("a", 400 << 10), (".hidden", 400 << 10), ("b", 400 << 10), ("c", 300 << 10), ("d", 100 << 10)]:
        machine.write(f"{ACCOUNTS}/alice/{name}", json.dumps([{**GOOD, "name": name}]) + " " * size)
        machine.write(f"{PKG}/{name}", json.dumps([{**GOOD, "name": name}]) + " " * size)
    expect_left_out(machine, ctl, "alice/c")
    assert ctl("check", "--errors-only", ACCOUNTS + "/alice/d").returncode == 0
    assert ctl("check", ACCOUNTS + "/alice/.hidden").returncode == 1


def test_jobs_of_an_account_share_its_quota(machine, ctl):
    machine.account_directory("alice")
    for name, count in [("a", 400), ("b", 625), ("c", 100)]:
        machine.write(f"{ACCOUNTS}/alice/{name}", json.dumps([{**GOOD, "name": name}] * count))
    expect_left_out(machine, ctl, "alice/b")


def test_directories_of_an_account_share_its_quota(machine, ctl):
    machine.account_directory("alice")
    machine.path(ACCOUNTS + "/also").mkdir()
    machine.chown(machine.path(ACCOUNTS + "/also"), "alice")
    for name, size in [("alice/a", 600 << 10), ("also/a", 600 << 10), ("also/b", 300 << 10)]:
        machine.write(f"{ACCOUNTS}/{name}", json.dumps([GOOD]) + " " * size)
    expect_left_out(machine, ctl, "also/a")


def test_documents_of_an_account_share_its_quota(machine, ctl):
    machine.account_directory("alice")
    for name, count in [("a", 50000), ("b", 50000), ("c", 1000)]:
        machine.write(
            f"{ACCOUNTS}/alice/{name}", json.dumps([{**GOOD, "extra": [[[[[]]]]] * count}], separators=(",", ":"))
        )
    expect_left_out(machine, ctl, "alice/b")


def test_too_many_files_for_a_quota(machine, ctl):
    machine.account_directory("alice")
    machine.run(
        "bash",
        "-c",
        f"cd {ACCOUNTS}/alice; for i in {{0001..1100}}; do echo [] > $i; done",
        check=True,
        env={"LD_PRELOAD": ""},
    )
    _, answer = ctl.json("check", "--errors-only")
    assert answer["files"] == 1100
    # Each of the first ten is a problem, as the daemon names each of them in a message.
    assert [problem["file"][-4:] for problem in answer["problems"]] == [str(number) for number in range(1025, 1036)]
    assert answer["problems"][-1]["message"].endswith(", and 65 more")


def test_files_that_the_account_may_not_read(machine, ctl):
    machine.account_directory("alice")
    machine.write(ACCOUNTS + "/alice/f", json.dumps([GOOD]), 0o600)
    machine.start_and_wait()
    assert read_errors(machine) == [ACCOUNTS + "/alice/f"]
    _, answer = ctl.json("check", "--errors-only")
    assert [(problem["file"], problem["message"]) for problem in answer["problems"]] == [
        (ACCOUNTS + "/alice/f", "cannot be read: Permission denied")
    ]


def test_a_directory_of_root_that_others_can_write_to(machine, ctl):
    machine.write(ACCOUNTS + "/open/f", json.dumps([GOOD]))
    machine.path(ACCOUNTS + "/open").chmod(0o777)
    _, answer = ctl.json("check", "--errors-only")
    assert [(problem["file"], problem["message"]) for problem in answer["problems"]] == [
        (ACCOUNTS + "/open", "is owned by root, and others can write to it")
    ]


def test_random_bytes(machine, ctl):
    special = damaged_files(7)
    for number, content in enumerate(special):
        machine.write(f"{PKG}/{number:03}", content)
    machine.start_and_wait()
    done = ctl("check", "--json", env={"LC_ALL": "C.UTF-8"})
    assert done.returncode == 1 and done.stderr == ""
    answer = json.loads(done.stdout)
    refused = sorted(
        problem["file"] for problem in answer["problems"] if problem["job"] is None and problem["severity"] == "error"
    )
    assert refused == read_errors(machine)
    assert 50 < len(refused) < len(special) - 50
    assert ctl("check").returncode == 1
    assert ctl("check", "/dev/null").returncode == 1


@pytest.mark.native(reason="too slow for its deadline when emulated")
@pytest.mark.parametrize(
    "item,count,end",
    [("~x,", 200000, "1 1 1 1 1"), ("x,", 250000, "1 1 1 1 1"), ("* ", 400000, ""), ("*/1,", 200000, "1 1 1 1")],
)
def test_many_problems_in_one_file(machine, ctl, item, count, end):
    machine.write("/tmp/f", json.dumps([{**GOOD, "period": "crontab", "crontab": item * count + end}]))
    done = ctl("check", "/tmp/f")
    assert done.returncode == 1 and done.stdout.startswith("/tmp/f:1:")
    assert "exception" not in done.stderr and len(done.stderr) < 100


def test_random_definitions(machine, ctl):
    # The clock stands still, so that no job runs.
    machine.clock("2026-06-02 02:10:10", rate=0)
    machine.template(maxDelay=0)
    definitions = Definitions(20260602)
    machine.account_directory("alice")
    by_position = {}  # file and line of each definition to its full name
    for number in range(120):
        label = random.Random(number).choice(list(SOURCES))
        directory = ACCOUNTS + "/alice" if label == "pkg_nonroot" else SOURCES[label]
        prefix = f"{label}-alice" if label == "pkg_nonroot" else label
        path = f"{directory}/f{number:03}.conf"
        if number % 10 == 0:
            names = ["default"]
            lines = [json.dumps(definitions.one("x"))]
            text = lines[0]
            if not text.startswith("{"):
                continue
        else:
            names = [f"n{i}" for i in range(12)]
            lines = [json.dumps(definitions.one(name)) for name in names]
            text = "[" + ",\n".join(lines) + "]"
        machine.write(path, text)
        for line, name in enumerate(names, 1):
            by_position[path, line] = f"{prefix}-f{number:03}-{name}"
    assert len(by_position) > 1000
    machine.start_and_wait()
    loaded = set(machine.entries())
    _, answer = ctl.json("check")
    refused = {(problem["file"], problem["line"]) for problem in answer["problems"] if problem["severity"] == "error"}
    assert answer["jobs"] == len(by_position)
    assert {name for position, name in by_position.items() if position not in refused} == loaded
    assert refused <= set(by_position)
    assert 300 < len(loaded) < len(by_position) - 300, "too few valid or invalid definitions"


def test_a_file_for_another_system(machine, ctl):
    definition = {**GOOD, "user": "package", "package_username": "carol", "cmd": "/opt/carol/run"}
    machine.write("/tmp/build/f", json.dumps([definition]))
    answer = ctl.json("check", "/tmp/build")[1]
    assert (answer["errors"], answer["warnings"]) == (2, 0)
    assert ctl.json("check", "--portable", "/tmp/build")[0] == 0
    # Faults of the definition are found all the same.
    machine.write("/tmp/build/f", json.dumps([{**definition, "cmd": "carol/run"}, {**definition, "name": "a/b"}]))
    answer = ctl.json("check", "--portable", "/tmp/build")[1]
    assert [(problem["member"], problem["severity"]) for problem in answer["problems"]] == [
        ("cmd", "warning"),
        ("name", "error"),
    ]


def test_a_system_without_accounts(machine, ctl):
    machine.write("/tmp/tree" + PKG + "/f", json.dumps([{**GOOD, "user": "package", "package_username": "carol"}]))
    machine.write("/tmp/tree" + RECORD, "#!/bin/sh\n", 0o755)
    assert ctl.json("--root", "/tmp/tree", "check")[1]["problems"] == []
    machine.write("/tmp/tree/etc/passwd", "root:x:0:0::/:/bin/sh\n")
    (problem,) = ctl.json("--root", "/tmp/tree", "check")[1]["problems"]
    assert problem["member"] == "package_username"


# --- Files of an account outside its directory --------------------------------------------------

OF_AN_ACCOUNT = {key: GOOD[key] for key in ("name", "period", "cmd")}
EXAMPLES = Path(__file__).parents[2] / "examples"


def problems_of(ctl, *arguments):
    """Job, severity and message of each problem."""
    done = ctl("check", "--json", *arguments)
    return [
        (problem["job"], problem["severity"], problem["message"]) for problem in json.loads(done.stdout)["problems"]
    ]


def test_files_of_an_account_before_they_are_installed(machine, ctl):
    """Their problems are those of the same files in the directory of the account, where the daemon has the
    last word."""
    machine.account_directory("alice")
    for directory in (ACCOUNTS + "/alice", "/tmp/build"):
        machine.write(directory + "/a", json.dumps([{**GOOD, "user": "root"}, {**GOOD, "name": "y", "period": "x"}]))
        machine.write(directory + "/b", json.dumps([OF_AN_ACCOUNT]))
        machine.write(directory + "/c", json.dumps([{**GOOD, "name": "n" * 240}]))
        machine.write(directory + "/d", json.dumps([{**OF_AN_ACCOUNT, "name": f"n{i}"} for i in range(1022)]))
        machine.write(directory + "/e", json.dumps([OF_AN_ACCOUNT]) + " " * 2000)
        machine.write(directory + "/.hidden", json.dumps([GOOD]))
        machine.path(directory + "/sub").mkdir()
    installed = problems_of(ctl, ACCOUNTS + "/alice")
    assert problems_of(ctl, "--account", "alice", "/tmp/build") == installed
    messages = [message for _, _, message in installed]
    assert any('"user" is ignored: all jobs in this directory run as "alice"' in message for message in messages)
    assert any('exceeds the quota of account "alice"' in message for message in messages)
    assert any("has 260 bytes: the daemon will not load this job" in message for message in messages)
    machine.start_and_wait()
    refused = {job for job, severity, _ in installed if severity == "error" and job}
    assert refused == {"pkg_nonroot-alice-a-y", "pkg_nonroot-alice-c-" + "n" * 240}
    assert machine.entries().keys() == {"pkg_nonroot-alice-a-x", "pkg_nonroot-alice-b-x", "pkg_nonroot-alice-e-x"}
    # Files that are named share the quota with each other only.
    assert problems_of(ctl, "--account", "alice", "/tmp/build/d") == []
    assert len(problems_of(ctl, "--account", "alice", "/tmp/build/d", "/tmp/build/b", "/tmp/build/e")) == 1
    assert problems_of(ctl, "--account", "alice", "/tmp/build/.hidden")[0][2] == "the daemon ignores hidden files"
    # The same files elsewhere have other problems.
    assert problems_of(ctl, "/tmp/build/b") != []


def test_the_account_of_files(machine, ctl):
    machine.write("/tmp/build/f", json.dumps([OF_AN_ACCOUNT]))
    assert problems_of(ctl, "--account", "carol", "/tmp/build") == [
        ("pkg_nonroot-carol-f-x", "error", 'account "carol" does not exist: the daemon will not load this job')
    ]
    assert problems_of(ctl, "--portable", "--account", "carol", "/tmp/build") == []
    for arguments, error in [
        (["--account", "alice"], "--account requires the files or directories of the account"),
        (["--account", "", "/tmp/build"], "--account requires the name of an account"),
        (["--account", "alice", "/tmp/nothing"], "/tmp/nothing: No such file or directory"),
    ]:
        done = ctl("check", *arguments)
        assert (done.returncode, done.stdout, done.stderr) == (2, "", f"kestcronctl: {error}\n")


def test_the_accounts_of_a_tree_without_accounts(machine, ctl):
    tree = machine.path("/tmp/tree")
    shutil.copytree(EXAMPLES, tree)
    for path in [tree, *tree.rglob("*")]:
        os.chown(path, 4711, 4711)
    _, answer = ctl.json("--root", "/tmp/tree", "check")
    top = "/tmp/tree" + ACCOUNTS
    assert [(p["file"], p["severity"], p["allowed"]) for p in answer["problems"]] == [
        (f"{top}/{name}", "warning", f"check --account NAME {top}/{name}") for name in ("photos", "weather")
    ]
    assert all("the account of its jobs is unknown" in problem["message"] for problem in answer["problems"])
    for problem, files in zip(answer["problems"], (1, 2)):
        words = problem["allowed"].replace("NAME", problem["file"].rpartition("/")[2]).split()
        done = ctl("--root", "/tmp/tree", *words)
        assert (done.returncode, done.stdout) == (0, "")
        assert f"{files} file" in done.stderr
