"""kestcronctl import: what it writes passes a check, and its jobs do what the classic lines do."""

import json
import os
import re

import pytest
from tests.lib.appliance import SOURCES
from tests.lib.private_machine import wait_for

PKG = SOURCES["pkg"]
PROGRAM = "/usr/local/bin/show-itself"

# Shows what differs between a job of this system and one of a classic crontab.
SHOW_ITSELF = """#!/bin/sh
cd_was=$(pwd)
exec >"/tmp/ran-$1" 2>&1
echo "$cd_was"
echo "$0" "$@"
env -u PWD -u OLDPWD -u SHLVL -u _ | sort
cat
"""


def import_to(machine, ctl, text, *arguments):
    """Writes the crontab and its translation. Returns the completed process."""
    machine.write("/tmp/tab", text)
    result = ctl("import", "/tmp/tab", *arguments)
    machine.write(PKG + "/tab.conf", result.stdout)
    return result


def test_jobs_run_as_the_lines_did(machine, ctl):
    machine.write(PROGRAM, SHOW_ITSELF, 0o755)
    machine.path("/srv").mkdir(exist_ok=True)
    machine.path("/nonexistent").mkdir()
    tab = r"""SHELL=/bin/bash
PATH=/usr/local/bin:/usr/bin:/bin
GREETING = " hello  world "
12 2 * * * alice	show-itself "one  two" $((1+1)) "$GREETING" '\%' [[ %first line%second \% line
HOME=/srv
12 2 2 * 5 root show-itself root; [[ -t 0 ]] || echo shell >> /tmp/ran-root
HOME=/missing
12 2 * * * root show-itself lost%last line
"""
    machine.path("/etc/passwd").write_text(
        re.sub("^(alice:.*:)[^:]*(:[^:]*)$", r"\1/nonexistent\2", machine.read("/etc/passwd"), flags=re.M)
    )
    result = import_to(machine, ctl, tab, "--system")
    assert (result.returncode, result.stderr) == (0, "")
    check = ctl("check", PKG + "/tab.conf")
    assert (check.returncode, check.stdout) == (0, "")
    assert check.stderr == "kestcronctl: 1 file, 4 jobs: no problems\n"
    machine.start_and_wait()
    ran = lambda name: machine.read(f"/tmp/ran-{name}") if machine.exists(f"/tmp/ran-{name}") else ""
    wait_for(lambda: ran("one  two").endswith("line\n") and ran("root").endswith("shell\n"))
    wait_for(lambda: ran("lost").endswith("last line\n"))
    assert ran("one  two").splitlines() == [
        "/nonexistent",
        PROGRAM + " one  two 2  hello  world  % [[",
        "GREETING= hello  world ",
        "HOME=/nonexistent",
        "LOGNAME=alice",
        "PATH=/usr/local/bin:/usr/bin:/bin",
        "SHELL=/bin/bash",
        "first line",
        "second % line",
    ]
    assert ran("lost").startswith("/\n")
    assert ran("root").splitlines() == [
        "/srv",
        PROGRAM + " root",
        "GREETING= hello  world ",
        "HOME=/srv",
        "LOGNAME=root",
        "PATH=/usr/local/bin:/usr/bin:/bin",
        "SHELL=/bin/bash",
        "shell",
    ]


def test_warnings_and_exit_status(machine, ctl):
    tab = "MAILTO=ops\n@reboot x\n0 3 * * * /opt/\x1b[2J\n0 3 * * * y\n"
    result = import_to(machine, ctl, tab)
    assert result.returncode == 1
    assert result.stderr == (
        "/tmp/tab:1:1: warning: MAILTO: the output of a job is dropped, not sent by mail\n"
        '/tmp/tab:2:1: warning: no job: "@reboot": jobs do not start at boot; expected: a unit of the service manager\n'
        '/tmp/tab:3:16: warning: no job: a control character "\\x1b"; expected: printable characters\n'
    )
    assert "\x1b" not in result.stdout
    assert '    // warning: no job: "@reboot"' in result.stdout
    check = ctl("check", PKG + "/tab.conf")
    assert (check.returncode, check.stderr) == (0, "kestcronctl: 1 file, 1 job: no problems\n")


@pytest.mark.parametrize("text", ["", "# nothing\n", "not a line\n", "@reboot x\n"])
def test_crontabs_without_jobs(machine, ctl, text):
    machine.write("/tmp/crontab", text)
    machine.write("/tmp/imported.conf", ctl("import", "/tmp/crontab").stdout)
    result = ctl("check", "/tmp/imported.conf")
    assert (result.returncode, result.stdout) == (0, "")


def test_json_output(machine, ctl):
    machine.write("/tmp/tab", "0 3 * * * y\n@reboot x\n")
    status, answer = ctl.json("import", "/tmp/tab")
    assert status == 1
    assert answer["jobs"] == [
        {
            "name": "y",
            "user": "root",
            "period": "crontab",
            "crontab": "0 3 * * *",
            "cmd_list": [
                *("/usr/bin/env", "-i", "HOME=/root", "LOGNAME=root", "PATH=/usr/bin:/bin", "SHELL=/bin/sh"),
                *("/bin/sh", "-c", 'cd; exec "$SHELL" -c "$0"', "y"),
            ],
        }
    ]
    assert [(problem["line"], problem["severity"]) for problem in answer["problems"]] == [(2, "warning")]


def test_accounts(machine, ctl):
    machine.write("/tmp/tab", "0 3 * * * y\n")
    account = lambda result: re.search('"package_username": "(.*)"', result.stdout)[1]
    assert account(ctl("import", "/tmp/tab", "--account", "alice")) == "alice"
    uid = machine.accounts()["alice"][0]
    assert account(ctl("import", "/tmp/tab", user=uid)) == "alice"
    result = ctl("import", "/tmp/tab", "--account", "nobody-known")
    assert result.returncode == 1
    assert result.stderr == (
        '/tmp/tab:1:11: warning: no job: account "nobody-known" does not exist; expected: an account of the system\n'
    )
    result = ctl("import", "/tmp/tab", user=4711)
    assert (result.returncode, result.stderr) == (
        2,
        "kestcronctl: user ID 4711 has no account; use --account\n",
    )
    assert ctl("import", "/tmp/tab", "--system", "--account", "alice").returncode == 2


def test_another_system(machine, ctl):
    machine.write("/image/etc/passwd", "root:x:0:0::/img-root:/bin/sh\nweather:x:900:900::/img-weather:/bin/sh\n")
    machine.path("/image/usr/bin").mkdir(parents=True)
    machine.path("/image/usr/bin/env").symlink_to("busybox")
    machine.write("/tmp/tab", "0 3 * * * weather y\n0 3 * * * alice y\n")
    result = ctl("import", "--root", "/image", "--system", "/tmp/tab")
    assert result.returncode == 1
    assert "HOME=/img-weather" in result.stdout
    assert result.stderr == (
        '/usr/bin/env:1:1: warning: is a link to "busybox": the jobs cannot run a copy of it\n'
        '/tmp/tab:2:11: warning: no job: account "alice" does not exist; expected: an account of the system\n'
    )


def test_standard_input(machine, ctl):
    result = machine.run("sh", "-c", "printf '0 3 * * * y\\n@reboot x\\n' | kestcronctl import -")
    assert result.returncode == 1
    assert json.loads(re.sub("//.*", "", result.stdout))[0]["name"] == "y"
    assert result.stderr.startswith("<stdin>:2:1: warning: no job: ")
    result = machine.run("sh", "-c", "yes '# comment' | head -c 1048577 | kestcronctl import -")
    assert (result.returncode, result.stderr) == (2, "kestcronctl: standard input: File too large\n")


@pytest.mark.parametrize(
    "kind,message",
    [
        ("missing", "No such file or directory"),
        ("directory", "Is a directory"),
        ("pipe", "not a regular file; - reads standard input"),
        ("large", "File too large"),
    ],
)
def test_unusable_files(machine, ctl, kind, message):
    path = machine.path("/tmp/tab")
    if kind == "directory":
        path.mkdir()
    if kind == "pipe":
        os.mkfifo(path)
    if kind == "large":
        path.write_bytes(b"#" * (1 << 20) + b"\n")
    result = ctl("import", "/tmp/tab")
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr == f"kestcronctl: /tmp/tab: {message}\n"


@pytest.mark.parametrize(
    "content",
    [
        b"x\n" * (1 << 19),
        b"\n" * (1 << 20),
        b"@daily x\n" * 100000,
        b"".join(b"V%d=\n" % i for i in range(100000)),
        b"A=" + b"x" * 8190 + b"\n" + b"@daily x\n" * 100000,
        b"*," * (1 << 19),
        b"\0" * (1 << 20),
        b"* " * (1 << 19),
        bytes(range(256)) * 4096,
    ],
    ids=["faults", "blank", "jobs", "variables", "large", "list", "zeros", "stars", "bytes"],
)
def test_hostile_files_take_little(machine, ctl, content):
    machine.path("/tmp/tab").write_bytes(content)
    # With --root, the time and the memory of the tool are limited.
    result = ctl("import", "--root", "/", "/tmp/tab", timeout=20)
    assert result.returncode in (0, 1, 2)
    assert not re.search(r"[\x00-\x08\x0b-\x1f\x7f]", result.stdout + result.stderr)
    assert "limit" not in result.stderr and "memory" not in result.stderr


def test_times_of_lines_with_day_or_weekday(machine, ctl):
    import_to(machine, ctl, "0 0 13 * 5 x\n")
    times = []
    for expression in re.findall('"crontab": "(.*)"', machine.read(PKG + "/tab.conf")):
        status, answer = ctl.json("explain", expression)
        assert status == 0
        times += [start["earliest"][:10] for start in answer["next"]]
    # June 2026 begins on a Monday.
    assert {"2026-06-05", "2026-06-12", "2026-06-13", "2026-06-19", "2026-07-13"} <= set(times)
    assert len(times) == len(set(times))
