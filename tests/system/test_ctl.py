"""kestcronctl: its output on a machine with fixed documents, and its actions."""

import json
import os
import re
import signal
import time
from pathlib import Path

import pytest

from tests.lib.appliance import PERSISTENT_FILE, RECORD, SOURCES, every_minute, never
from tests.lib.ctl import TOOL, expect_golden
from tests.lib.private_machine import wait_for

COMPLETION = Path(__file__).parents[2] / "packaging/kestcronctl.bash"
ERRORS = "kestcronctl: "


def entry(name, schedule, crontab="* * * * *", last=None, **config):
    """A job of the runtime document."""
    document = {
        "config": {
            "name": name,
            "user": "root",
            "period": "crontab",
            "crontab": crontab,
            "cmd": f"{RECORD} {name}",
            "assure_execute": 0,
            "assure_execute_action": "wait",
            "run_on_passive": False,
            **config,
        },
        "cmd_list": [f"/tmp/kestcrond/{name}", name],
        "cmd_str": f"{RECORD} {name}",
        "startup": 1780272000,
        "schedule": dict(zip(("Minute", "hour", "day", "month", "week"), schedule)),
    }
    return {**document, **({"lastExecution": last} if last else {})}


LOG = """\
2026-06-01T02:05:00+00:00 running job: pkg-app-weekly with command: {record} x as user root (state[Ready], trig[01 02:05:00], tab[5 2 -1 -1 1])
2026-06-02T01:07:10+00:00 running job: builtin-core-backup with command: {record} a b as user root (state[AssureExecute], trig[02 01:07:00], job[2/2], delay[10])
2026-06-02T01:07:11+00:00 running job: builtin-core-gone with command: /nowhere as user root (state[Ready], trig[02 01:07:00], tab[7 1 -1 -1 -1])
2026-06-02T01:07:11+00:00 running job: builtin-core-gone with command: /nowhere failed, return code: -1, error: No such file or directory
2026-06-02T02:00:00+00:00 Failed to setuid forpkg_nonroot-alice-own-report for user alice[Operation not permitted]
""".format(
    record=RECORD
)

JOBS = {
    "builtin-core-backup": entry(
        "builtin-core-backup",
        [[17], [3], [-1], [-1], [-1]],
        "~ ~ * * *",
        assure_execute=48,
        assure_execute_action="run",
    ),
    "builtin-core-gone": entry("builtin-core-gone", [[7], [1], [-1], [-1], [-1]], "7 1 * * *", cmd="/nowhere"),
    "builtin-core-hourly": entry("builtin-core-hourly", [[17], [-1], [-1], [-1], [-1]], "~ * * * *", last=1780364100),
    "builtin-core-late": entry(
        "builtin-core-late", [[0], [0], [31], [2], [-1]], "0 0 31 2 *", last=1780272000, assure_execute=24
    ),
    "builtin-core-leap": entry("builtin-core-leap", [[0], [0], [29], [2], [0]], "0 0 29 2 0"),
    "builtin-core-never": entry("builtin-core-never", [[0], [0], [31], [2], [-1]], "0 0 31 2 *"),
    "pkg-app-office": entry(
        "pkg-app-office",
        [[0, 15, 30, 45], [8, 9, 10], [-1], [-1], [1, 2, 3, 4, 5]],
        "0,15,30,45 8,9,10 * * 1,2,3,4,5",
        run_on_passive=True,
    ),
    "pkg-app-weekly": entry("pkg-app-weekly", [[17], [3], [-1], [-1], [1]], "~ ~ * * ~"),
    "pkg_nonroot-alice-own-report": entry(
        "pkg_nonroot-alice-own-report",
        [[17], [14], [-1], [-1], [-1]],
        "~ 8~17 * * *",
        user="package",
        package_username="alice",
    ),
}


@pytest.fixture
def known(machine):
    """A machine with documents and a log, but without a running daemon. Its clock stands still at Tuesday
    2 June 2026, 02:10:10."""
    machine.clock("2026-06-02 02:10:10", rate=0)
    machine.write(machine.RUNTIME_FILE, json.dumps({"jobs": JOBS}))
    os.utime(machine.path(machine.RUNTIME_FILE), (1780364100, 1780364100))
    config = {"name": "scheduleTemplate", "user": "root", "cmd": "true", "period": "crontab", "crontab": "~ ~ ~ ~ ~"}
    machine.write(
        machine.RUNTIME_TEMPLATE,
        json.dumps(
            {
                "config": config,
                "maxDelay": 600,
                "schedule": {"Minute": [17], "hour": [3], "day": [17], "month": [3], "week": [1]},
            }
        ),
    )
    machine.write(machine.LOG_FILE, LOG, mode=0o600)
    return machine


COMMANDS = {
    "list": ["list"],
    "list-pattern": ["list", "*-core-l*"],
    "next": ["next", "-n", "15"],
    "next-one": ["next", "-n", "4", "pkg-app-weekly"],
    "next-leap": ["next", "-n", "2", "leap"],
    "next-never": ["next", "never"],
    "next-at": ["next", "--at", "2026-06-03 08:20", "-n", "3", "office"],
    "next-late": ["next", "-n", "3", "late"],
    "explain": ["explain", "0,30 8 * 2,3,4 1,5"],
    "explain-remarks": ["explain", "*/20 8 13 2,3 5"],
    "status": ["status"],
    "log": ["log"],
    "log-last": ["log", "-n", "2"],
    "log-job": ["log", "--job", "core-gone"],
    "log-since": ["log", "--since", "02:00"],
    "log-failed": ["log", "--failed", "-n", "9"],
    "show": ["show", "backup"],
}


@pytest.mark.parametrize("form", ["txt", "json"])
@pytest.mark.parametrize("name", COMMANDS)
def test_output(known, ctl, name, form):
    result = ctl(*COMMANDS[name], *(["--json"] if form == "json" else []))
    assert result.returncode == (3 if name == "status" else 0)
    if name.startswith(("status", "explain", "log")):
        assert result.stderr == ""
    else:
        assert result.stderr == (
            ERRORS + "kestcrond is not running, so nothing will start; showing "
            "the state of today 01:35 from /var/run/kestcrond.config\n"
        )
    if form == "json":
        lines = result.stdout.splitlines() if name.startswith("log") else [result.stdout]
        assert lines and all(json.loads(line) is not None for line in lines)
    expect_golden(f"{name}.{form}", result.stdout)


@pytest.mark.parametrize("columns", [40, 80, 120])
@pytest.mark.parametrize("name", COMMANDS)
def test_output_fits_the_terminal(known, ctl, name, columns):
    text = ctl.on_terminal(*COMMANDS[name], columns=columns, env={"NO_COLOR": "1"})
    assert "\033" not in text
    if columns == 80 or name in ("list", "next", "show", "status"):
        expect_golden(f"{name}.{columns}", text)
    assert widest(text) <= columns


def widest(text):
    return max(len(re.sub("\033\\[[0-9;]*m", "", line)) for line in text.splitlines())


def test_long_names_fit_the_terminal(known, ctl):
    """Whatever is long, no line is wider than the terminal."""
    names = ["builtin-core-" + part for part in ("x" * 200, "-".join(["word"] * 40), "ä" * 100, "two words " * 20)]
    fields = [[0, 7, 19, 31, 44, 58], [1, 3, 5, 8, 13, 21], [1, 5, 9, 27], [1, 3, 5, 7, 12], [0, 2, 3, 5]]
    crontab = " ".join(",".join(map(str, values)) for values in fields)
    jobs = {name: entry(name, fields, crontab, cmd="/nowhere/" + "y" * 300, extra="z" * 300) for name in names}
    jobs["drawn"] = entry("builtin-core-drawn", [[17], [3], [31], [3], [1]], "~ ~ 29~31 ~ ~", assure_execute=9000)
    known.write(known.RUNTIME_FILE, json.dumps({"jobs": jobs}))
    failure = "running job: {0} with command: /nowhere failed, return code: -1, error: No such file or directory"
    started = "running job: {0} with command: /nowhere as user root (state[Ready], trig[02 01:07:00], tab[7])"
    lines = [f"2026-06-02T01:07:11+00:00 {text.format(name)}\n" for name in names for text in (started, failure)]
    known.write(known.LOG_FILE, "".join(lines), mode=0o600)
    shown = [["show", name] for name in (*names, "drawn")]
    others = (["explain", crontab], ["log", "--no-pager"])
    for columns in (20, 40, 41, 60, 80, 120):
        for command in (["list"], ["next"], ["next", "drawn"], ["status"], ["timeline"], *others, *shown):
            if command == ["timeline"] and columns < 30:
                continue  # the narrowest one
            assert widest(ctl.on_terminal(*command, columns=columns)) <= columns, (command, columns)


def test_a_reload_fits_the_terminal(machine, ctl):
    machine.jobs("pkg", "f", [never("x" * 150), never("changed")])
    machine.start_and_wait()
    machine.jobs(
        "pkg", "f", [never("y" * 150), never("changed", run_on_passive=True), every_minute("z" * 150, crontab="* *")]
    )
    text = ctl.on_terminal("reload", columns=40, env={"NO_COLOR": "1"})
    assert {line.split()[0] for line in text.splitlines()} >= {"added", "removed", "changed"}
    assert '"crontab" has 2 fields' in " ".join(text.split()) and widest(text) <= 40


def test_colours_only_on_terminals(known, ctl):
    assert "\033[33moverdue\033[0m" in ctl.on_terminal("list", columns=200)
    assert "\033[1mJOB" in ctl.on_terminal("list")
    for environment in ({"NO_COLOR": "1"}, {"TERM": "dumb"}):
        assert "\033" not in ctl.on_terminal("list", env=environment)
    assert "\033" not in ctl("list").stdout
    assert "…" not in ctl.on_terminal("list", columns=60, env={"LC_ALL": "C"})
    assert "~" in ctl.on_terminal("list", columns=60, env={"LC_ALL": "C"})


def test_draws_of_an_expression(known, ctl):
    answer = json.loads(ctl("explain", "--period", "weekly", "--json").stdout)
    assert answer["expression"] == "~ ~ * * ~"
    assert [field["text"] for field in answer["fields"]] == ["~", "~", "*", "*", "~"]
    assert answer["fields"][0] == {
        "field": "Minute",
        "text": "~",
        "words": "random from 0 to 59, redrawn every hour",
        "items": [{"text": "~", "type": "random", "from": 0, "to": 59}],
    }
    assert answer["draws"][0]["words"] == "on ~Mondays at ~03:~17"  # as in the template
    assert len(answer["draws"]) == 3
    for draw in answer["draws"]:
        schedule = draw["schedule"]
        assert schedule["day"] == schedule["month"] == [-1]
        assert 0 <= schedule["Minute"][0] < 60 and 0 <= schedule["week"][0] < 7
    assert answer["next"][0] == {
        "earliest": "2026-06-08T00:00:00+00:00",
        "latest": "2026-06-15T00:00:00+00:00",
        "undrawn": ["Minute", "hour", "week"],
        "at_most": 4,
        "overdue": False,
    }


@pytest.mark.parametrize(
    "arguments,error",
    [
        (["explain", "* * * *"], 'is not a valid crontab expression: "crontab" has 4 fields; expected: five'),
        (["explain", "1-5 * * * *"], 'minute "1-5": ranges with a dash are not supported; write: 1,2,3'),
        (["explain", "61 * * * *"], 'minute "61" is out of range; expected: 0 to 59'),
        (["explain", "--period", "yearly"], '"yearly" is not a valid period; expected: '),
        (["explain", "--period", "crontab"], '"crontab" uses the member "crontab"; write: explain'),
        (["explain"], "explain requires either"),
        (["explain", "* * * * *", "--period", "daily"], "explain requires either"),
        (["next", "bakup"], 'unknown job "bakup"; did you mean builtin-core-backup?\n'),
        (["show", "builtin-core-bakup"], "did you mean one of builtin-core-backup, "),
        (["next", "xyzzy"], 'unknown job "xyzzy"\n'),
        (["next", "--at", "noon"], '"noon" is not a valid time; expected: '),
        (["log", "--since", "noon"], '"noon" is not a valid time; expected: '),
        (["lst"], 'unknown command "lst"; did you mean "list"?'),
        (["--json", "lst"], 'unknown command "lst"; did you mean "list"?'),
        (["xyzzy"], 'unknown command "xyzzy"; see kestcronctl --help'),
        ([""], 'unknown command ""; see kestcronctl --help'),
        (["--nonsense"], 'unknown option "--nonsense"; see kestcronctl --help'),
        ([], "no command given; the commands are check, plan, list, next, explain, "),
        ([], " and reload; see kestcronctl --help\n"),
        (["--json"], "no command given; the commands are check, plan, list"),
        (["--root", "/", "--tz", "UTC"], "no command given; the commands are check, plan, list"),
        (["show"], "missing argument; see kestcronctl show --help"),
        (["--root", "/", "show"], "missing argument; see kestcronctl show --help"),
        (["show", "a", "b"], "not expected: b; see kestcronctl show --help\n"),
        (["list", "--nonsense"], "not expected: --nonsense; see kestcronctl list --help\n"),
        (["next", "-n", "0"], "-n"),
        (["next", "-n", "x"], "-n"),
        (["timeline", "--hours", "0"], "--hours"),
        (["list", "--root", "/nowhere"], "/nowhere: No such file"),
        (["list", "--root", "/etc/passwd"], "/etc/passwd: Not a directory"),
        (["list", "--root", "/usr"], "kestcrond has not run on this system"),
        (["run", "backup"], "/tmp/kestcrond/builtin-core-backup does not exist or was not staged"),
        (["run", "backup", "--root", "/"], "run works only on this system"),
        (["reload"], "kestcrond is not running"),
        (["reload", "--root", "/"], "reload works only on this system"),
    ],
)
def test_errors(known, ctl, arguments, error):
    result = ctl(*arguments)
    assert result.returncode == 2
    assert result.stdout == ""
    assert error in result.stderr
    assert all(line.startswith(ERRORS) for line in result.stderr.splitlines())


def test_help_of_every_command(machine, ctl):
    overview = ctl("--help")
    assert overview.returncode == 0
    commands = re.findall(r"^  (\w+)  ", overview.stdout.split("Subcommands:")[1], re.MULTILINE)
    assert len(commands) == 13
    for command in commands:
        result = ctl(command, "--help")
        assert result.returncode == 0
        assert f"Example: kestcronctl {command}" in result.stdout
        assert max(map(len, result.stdout.splitlines())) <= 80
    assert max(map(len, overview.stdout.splitlines())) <= 85
    assert re.fullmatch(r"kestcronctl \d+\.\d+\.\d+\n", ctl("--version").stdout)


def test_days_that_some_months_do_not_have(machine, ctl):
    machine.clock("2026-04-28 02:10:10", rate=0)
    midnight = [[0], [0], [31], [-1], [-1]]
    jobs = {
        "fixed": entry("pkg-f-fixed", midnight, "0 0 31 * *"),
        "drawn": entry("pkg-f-drawn", midnight, "0 0 29~31 * *"),
    }
    machine.write(machine.RUNTIME_FILE, json.dumps({"jobs": jobs}))
    starts = lambda job: json.loads(ctl("next", "--json", "-n", "3", job).stdout)
    days = lambda job: [(start["earliest"][:10], start["latest"][:10], start["undrawn"]) for start in starts(job)]
    assert days("fixed") == [(f"2026-{day}", f"2026-{day}", []) for day in ("05-31", "07-31", "08-31")]
    # The 31st is drawn for April.
    assert days("drawn") == [
        ("2026-05-29", "2026-05-31", ["day"]),
        ("2026-06-29", "2026-06-30", ["day"]),
        ("2026-07-29", "2026-07-31", ["day"]),
    ]
    remark = "no start if the month has no such day"
    assert [remark in line for line in ctl("next", "-n", "3", "drawn").stdout.splitlines()[1:]] == [False, True, False]
    timeline = json.loads(ctl("timeline", "--json", "--hours", "72").stdout)
    assert (timeline["jobs"], timeline["idle_jobs"]) == ([], 2)
    assert not any(quarter["starts"] or quarter["possible"] for quarter in timeline["load"])
    explained = json.loads(ctl("explain", "--json", "0 0 31 * *").stdout)
    assert explained["remarks"] == ["no run on day 31 in months with fewer days"]
    assert [start["earliest"][5:10] for start in explained["next"]] == ["05-31", "07-31", "08-31", "10-31", "12-31"]
    assert ctl("explain", "0 0 28 * *").stdout.count("Note: ") == 0


# --- Damaged files ------------------------------------------------------------------------------


def test_an_invalid_document(known, ctl):
    for text in ('{"jobs": {', "", "\0", "[" * 1000):
        known.write(known.RUNTIME_FILE, text)
        result = ctl("list")
        assert result.returncode == 2
        assert result.stderr == (ERRORS + "/var/run/kestcrond.config: is not a complete JSON document\n")


def test_invalid_entries(known, ctl):
    known.write(
        known.RUNTIME_FILE,
        json.dumps({"jobs": {"good": JOBS["builtin-core-never"], "b\nad": 7, "worse": {"config": []}}}),
    )
    result = ctl("list", "--json")
    assert [job["name"] for job in json.loads(result.stdout)] == ["builtin-core-never"]
    assert '"b\\nad" is not a valid job\n' in result.stderr and '"worse" is not a valid job\n' in result.stderr
    for jobs in (7, [], [1], None, "x"):
        known.write(known.RUNTIME_FILE, json.dumps({"jobs": jobs}))
        assert json.loads(ctl("list", "--json").stdout) == []


def test_the_saved_document(known, ctl):
    known.path(known.RUNTIME_FILE).unlink()
    assert "neither /var/run/kestcrond.config nor" in ctl("list").stderr
    known.write(PERSISTENT_FILE, json.dumps({"jobs": JOBS}))
    os.utime(known.path(PERSISTENT_FILE), (1780364100, 1780364100))
    result = ctl("list", "--json")
    assert len(json.loads(result.stdout)) == len(JOBS)
    assert "showing the state of today 01:35 from /usr/kest/etc/kestcrond.config" in result.stderr


def test_an_incomplete_log(known, ctl):
    known.write(known.LOG_FILE, LOG + "2026-06-02T02:0", mode=0o600)
    assert ctl("log").stdout == LOG + "2026-06-02T02:0\n"
    known.write(known.LOG_FILE, b"\xff\xfe\n\0\0\n" + LOG.encode(), mode=0o600)
    assert ctl("log", "--since", "2026-06-01").stdout == LOG
    known.path(known.LOG_FILE).unlink()
    result = ctl("log")
    assert result.returncode == 0 and "/var/log/kestcrond-execute.log does not exist yet" in result.stderr


def test_last_runs_after_a_rotation(known, ctl):
    log = known.path(known.LOG_FILE)
    old = log.with_name(log.name + ".1")
    before = ctl("list", "--json").stdout
    log.rename(old)
    assert ctl("list", "--json").stdout == before
    known.write(known.LOG_FILE, LOG.splitlines()[0].replace("weekly", "other") + "\n", mode=0o600)
    assert ctl("list", "--json").stdout == before
    old.unlink()
    assert ctl("list", "--json").stdout != before


def test_a_pipe_that_closes(known, ctl):
    known.write(known.LOG_FILE, LOG * 5000, mode=0o600)
    result = known.run("bash", "-c", f"{TOOL} log | head -1; echo ${{PIPESTATUS[0]}}")
    assert result.stdout.splitlines()[1:] == [str(128 + signal.SIGPIPE)]
    assert result.stderr == ""


def test_a_full_disk(known, ctl):
    result = known.run("sh", "-c", f"{TOOL} list > /dev/full")
    assert result.returncode == 2
    assert "standard output: No space left on device" in result.stderr


def test_commands_without_root(known, ctl):
    for arguments in (["list"], ["next"], ["show", "backup"], ["explain", "* * * * *"], ["timeline"], ["metrics"]):
        assert ctl(*arguments, user=2001).returncode == 0
    assert ctl("status", user=2001).returncode == 3
    result = ctl("log", user=2001)
    assert result.returncode == 2
    assert result.stderr == ERRORS + "/var/log/kestcrond-execute.log: Permission denied\n"
    assert "run requires root" in ctl("run", "backup", user=2001).stderr
    # Without the log the last run comes from the document.
    assert "last run:   unknown" in ctl("show", "backup", user=2001).stdout
    assert "last run:   today 01:07" in ctl("show", "backup").stdout


def test_another_system(known, ctl):
    """Links, accounts and the time zone are those of the other system."""
    root = known.path("/image")
    for directory in ("etc", "run", "var/log", "usr/kest/etc"):
        (root / directory).mkdir(parents=True)
    (root / "var/run").symlink_to("/run")
    (root / "etc/passwd").write_text("root:x:0:0::/:/bin/sh\n")
    (root / "etc/localtime").symlink_to("/usr/share/zoneinfo/Asia/Kolkata")
    (root / "usr/share/zoneinfo/Asia").mkdir(parents=True)
    (root / "usr/share/zoneinfo/Asia/Kolkata").write_bytes(known.path("/usr/share/zoneinfo/Asia/Kolkata").read_bytes())
    (root / "run/kestcrond.config").write_text(
        json.dumps({"jobs": {"x": entry("builtin-x-x", [[0], [0], [-1], [-1], [-1]], "0 0 * * *")}})
    )
    answer = json.loads(ctl("list", "--root", "/image", "--json").stdout)
    assert [job["name"] for job in answer] == ["builtin-x-x"]
    assert answer[0]["next"]["earliest"] == "2026-06-03T00:00:00+05:30"
    assert ctl("status", "--root", "/image").returncode == 0
    # A link with too many ".." stays within the other system.
    (root / "run/kestcrond.config").unlink()
    (root / "run/kestcrond.config").symlink_to("../../../../etc/kestcrond.config")
    known.write("/etc/kestcrond.config", "{}")
    assert "kestcrond has not run on this system" in ctl("list", "--root", "/image").stderr
    (root / "etc/kestcrond.config").symlink_to("/run/kestcrond.config")
    assert ctl("list", "--root", "/image").returncode == 2


def test_why_a_job_is_not_loaded(machine, ctl):
    machine.jobs("builtin", "f.conf", [never("x", cmd="/nowhere"), every_minute("y", crontab="* *"), never("z")])
    machine.start_and_wait()
    machine.jobs("builtin", "g.conf", [never("new")])
    errors = lambda name: ctl("show", name).stderr.splitlines()
    place = "/usr/kest/share/kestcron.d/f.conf:1:"
    lines = errors("builtin-f-x")
    assert lines[0].startswith(place) and ": the job is defined here" in lines[0]
    assert any(
        line.startswith(place) and '"/nowhere" does not exist: the daemon will not load' in line for line in lines[1:-1]
    )
    assert lines[-1].startswith(ERRORS + 'unknown job "builtin-f-x"')
    lines = errors("builtin-f-y")
    assert lines[0].endswith(": the job is defined here") and '"crontab" has 2 fields' in lines[1]
    assert errors("builtin-g-new")[0].endswith(
        "g.conf:1:11: the job is defined here, and the next reload tries to load it"
    )
    assert len(errors("builtin-f-nothing")) == 1
    assert errors("builtin-f-z") == []


# --- Files and processes of other users ---------------------------------------------------------


def test_run_refuses_programs_of_other_users(machine, ctl):
    """After a reboot, before the daemon starts, any user can create the runtime directory."""
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    machine.stop()
    machine.run("rm", "-r", "/tmp/kestcrond", check=True)
    directory = machine.path("/tmp/kestcrond")
    directory.mkdir()
    machine.write("/tmp/kestcrond/builtin-f-x", "#!/bin/sh\nid > /tmp/owned\n", 0o755)
    for owner, mode in ((2001, 0o755), (0, 0o775), (0, 0o757)):
        os.chown(directory, owner, 0)
        directory.chmod(mode)
        result = ctl("run", "x")
        assert result.returncode == 2 and "was not staged by kestcrond" in result.stderr
    directory.rename(machine.path("/tmp/elsewhere"))
    machine.path("/tmp/elsewhere").chmod(0o755)
    directory.symlink_to("elsewhere")
    assert ctl("run", "x").returncode == 2
    assert not machine.exists("/tmp/owned")


def test_a_process_that_imitates_the_daemon(machine, ctl):
    """A stale pid file names a process of another user, with an environment of his choice."""
    machine.jobs("builtin", "f", [never("x", cmd="/usr/bin/env")])
    machine.start_and_wait()
    machine.signal(signal.SIGKILL)
    wait_for(lambda: not machine.daemons())
    machine.run("cp", "/usr/bin/sleep", "/tmp/kestcrond.sleep", check=True)
    machine.path("/tmp/fake").mkdir()
    machine.path("/tmp/fake/kestcrond").symlink_to("/usr/bin/sleep")
    for user in ("2001", "0"):
        impostor = machine.popen(
            "setpriv", f"--reuid={user}", "/tmp/fake/kestcrond", "1000", env={"LD_PRELOAD": "", "TRAP": "sprung"}
        )
        wait_for(lambda: machine.daemons())
        machine.write(machine.PID_FILE, f"{machine.daemons()[0]}\n")
        assert ctl("status").returncode == 3
        assert "kestcrond is not running" in ctl("reload").stderr
        result = ctl("run", "x", env={"SECRET": "of the shell"})
        assert result.returncode == 0
        assert result.stdout.splitlines() == ["PATH=/usr/sbin:/usr/bin:/sbin:/bin"]
        machine.run("pkill", "-KILL", "-x", "kestcrond", env={"LD_PRELOAD": ""})
        impostor.wait()


TYPIST = """#!/usr/bin/python3
import fcntl, os, sys, termios
print(os.getsid(0) == os.getpid())
try:
    open("/dev/tty")
    print("has a terminal")
except OSError:
    print("has none")
"""


def test_run_has_no_controlling_terminal(machine, ctl):
    machine.write("/usr/local/bin/typist", TYPIST, 0o755)
    machine.jobs("builtin", "f", [never("x", cmd="/usr/local/bin/typist")])
    machine.start_and_wait()
    assert ctl.on_terminal("run", "x").splitlines()[-2:] == ["True", "has none"]


def test_run_is_interrupted(machine, ctl):
    machine.write("/usr/local/bin/x", "#!/bin/sh\necho begun > /tmp/begun\nsleep 100\n", 0o755)
    machine.jobs("builtin", "f", [never("x", cmd="/usr/local/bin/x")])
    machine.start_and_wait()
    tool = machine.popen(TOOL, "run", "x", env={"LD_PRELOAD": ""})
    wait_for(lambda: machine.exists("/tmp/begun"))
    machine.run("pkill", "-INT", "-x", "kestcronctl", env={"LD_PRELOAD": ""})
    assert tool.wait(30) == 128 + signal.SIGINT


def test_timeline_replaces_links(known, ctl):
    known.write("/etc/precious", "precious")
    known.path("/tmp/t.svg").symlink_to("/etc/precious")
    assert ctl("timeline", "--svg", "/tmp/t.svg").returncode == 0
    assert known.read("/etc/precious") == "precious"
    assert not known.path("/tmp/t.svg").is_symlink()
    known.path("/tmp/t.svg").chmod(0o6777)
    assert ctl("timeline", "--svg", "/tmp/t.svg").returncode == 0
    assert known.path("/tmp/t.svg").stat().st_mode & 0o7777 == 0o644


@pytest.mark.parametrize(
    "file",
    [
        "etc/passwd",
        "etc/localtime",
        "var/run/kestcrond.config",
        "var/log/kestcrond-execute.log",
        "var/run/kestcrond.st.config",
        "usr/kest/share/kestcron.d/f",
    ],
)
@pytest.mark.parametrize("kind", ["fifo", "zero", "loop", "huge"])
def test_unusual_files_in_an_image(known, ctl, file, kind):
    root = known.path("/image")
    for directory in ("etc", "var/run", "var/log", "usr/kest/share/kestcron.d"):
        (root / directory).mkdir(parents=True, exist_ok=True)
    (root / "var/run/kestcrond.config").write_text(json.dumps({"jobs": JOBS}))
    path = root / file
    path.unlink(missing_ok=True)
    if kind == "fifo":
        os.mkfifo(path)
    elif kind == "zero":
        known.run("mknod", f"/image/{file}", "c", "1", "5", check=True)
    elif kind == "loop":
        path.symlink_to(path.name)
    else:
        with path.open("w") as stream:
            stream.truncate(1 << 33)
    for command in (["list"], ["check"], ["show", "backup"], ["status"]):
        result = ctl(*command, "--root", "/image", timeout=60)
        assert result.returncode in (0, 1, 2), result.stderr


def test_names_with_control_characters_are_escaped(known, ctl):
    evil = "builtin-x-\x1b]0;owned\x07\u202e\u009b2J"
    known.write(known.RUNTIME_FILE, json.dumps({"jobs": {evil: entry(evil, [[0], [0], [-1], [-1], [-1]])}}))
    known.write(known.LOG_FILE, LOG + f"2026-06-02T02:10:00+00:00 {evil} \x1b[31m\n", 0o600)
    for command in (["list"], ["next"], ["show", evil], ["log"], ["timeline"], ["show", "no"]):
        result = ctl(*command)
        for text in (result.stdout, result.stderr):
            assert not set(text) & set("\x1b\x07\u202e\u009b"), command


def test_names_with_invalid_utf8_in_json(known, ctl):
    document = json.dumps({"jobs": {"x": entry("builtin-x-BAD", [[0], [0], [-1], [-1], [-1]])}})
    known.write(known.RUNTIME_FILE, document.encode().replace(b"BAD", b"\xff\xfe"))
    for command in (["list"], ["next", "-n", "1"], ["timeline"], ["show", "builtin-x-\udcff\udcfe"]):
        assert "builtin-x-\ufffd\ufffd" in json.dumps(json.loads(ctl(*command, "--json").stdout), ensure_ascii=False)


def test_run_does_not_count_as_a_launch(machine, ctl):
    machine.clock("2026-06-02 02:10:10", rate=0)
    machine.write("/run/kestvorld.status", "2")
    machine.jobs("builtin", "f", [never("x", assure_execute=1)])
    machine.write(
        PERSISTENT_FILE,
        json.dumps(
            {
                "jobs": {
                    "builtin-f-x": {
                        "config": never("builtin-f-x", assure_execute=1),
                        "startup": 1000,
                        "lastExecution": 1000,
                    }
                }
            }
        ),
    )
    machine.start_and_wait()
    state = lambda: json.loads(ctl("list", "--json").stdout)[0]
    assert state()["state"] == "held"
    assert ctl("run", "x").returncode == 0
    assert state()["last_run"] == "2026-06-02T02:10:10+00:00"
    assert state()["state"] == "held"
    assert 'kestcron_job_overdue{name="builtin-f-x",user="root"} 1' in ctl("metrics").stdout
    assert "the machine is held" in ctl("list").stderr


def test_forged_arguments_do_not_count_as_running(machine, ctl):
    machine.jobs("builtin", "f", [never("victim"), every_minute("deep", cmd="/usr/local/bin/deep", user="system")])
    machine.write(
        "/usr/local/bin/deep",
        "#!/usr/bin/env -S python3 -u -X dev -W ignore\n" "import time\ntime.sleep(100000)\n",
        0o755,
    )
    machine.start_and_wait()
    pretender = machine.popen(
        "setpriv",
        "--reuid=2001",
        "bash",
        "-c",
        "exec -a /tmp/kestcrond/builtin-f-victim sleep 1000",
        env={"LD_PRELOAD": ""},
    )
    state = lambda: {job["name"]: job["state"] for job in json.loads(ctl("list", "--json").stdout)}
    wait_for(lambda: state()["builtin-f-deep"] == "running")
    assert state()["builtin-f-victim"] == "waiting"
    deep = [job for job in json.loads(ctl("list", "--json").stdout) if job["name"] == "builtin-f-deep"][0]
    assert [process["pid"] for process in deep["processes"]] == [deep["pid"]]
    pretender.kill()
    pretender.wait()


def test_the_source_of_a_job(machine, ctl):
    """What the tool shows as changed is what a reload changes."""
    machine.jobs("builtin", "f", [never("first"), never("x", extra=1)])
    machine.start_and_wait()
    source = lambda: json.loads(ctl("show", "x", "--json").stdout)["source"]
    file = f"{SOURCES['builtin']}/f"
    assert source() == {
        "file": file,
        "line": 1,
        "column": source()["column"],
        "valid": True,
        "changed": [],
        "added": [],
    }
    assert f"source:     {file}:1\n            unchanged since the job was loaded\n" in ctl("show", "x").stdout

    def replace(definition):
        """Writes the file so that the daemon does not see it before the next reload."""
        machine.signal(signal.SIGSTOP)
        machine.jobs("builtin", "f", [never("first"), definition])

    def texts_of_a_reload():
        before = len(machine.texts())
        machine.signal(signal.SIGCONT)
        machine.reload()
        return machine.texts()[before:]

    replace(never("x", extra=2, assure_execute=5))
    assert (source()["changed"], source()["added"]) == (["assure_execute", "extra"], [])
    assert "kestcronctl reload applies it" in " ".join(ctl("show", "x").stdout.split())
    assert "removed modified jobs: builtin-f-x" in texts_of_a_reload()
    assert source()["changed"] == []
    replace(never("x", assure_execute=5, extra=2, more=3))
    assert (source()["changed"], source()["added"]) == ([], ["more"])
    assert "which a reload does not apply" in " ".join(ctl("show", "x").stdout.split())
    assert "removed modified jobs: builtin-f-x" not in texts_of_a_reload()
    assert source()["added"] == ["more"]
    replace(every_minute("x", crontab="bad"))
    assert source()["valid"] is False
    machine.signal(signal.SIGCONT)


def test_all_processes_of_a_job(machine, ctl):
    machine.write("/usr/local/bin/long", "#!/bin/sh\n(sleep 1000)\nsleep 1000\n", 0o755)
    machine.jobs("builtin", "f", [every_minute("long", cmd="/usr/local/bin/long")])
    machine.start_and_wait()
    job = lambda: json.loads(ctl("list", "--json").stdout)[0]
    wait_for(lambda: len(job()["processes"]) >= 3, what="three runs")
    assert {process["uid"] for process in job()["processes"]} == {0}
    count = len(job()["processes"])
    assert count <= len(machine.log_lines()), "a forked process is counted"
    assert re.search(r"running now, \d+ processes", ctl("list").stdout)
    shown = ctl("show", "long").stdout
    assert len(re.findall(r"^ +process \d+ of root for \d+ \w+$", shown, re.M)) >= count


def is_due_after_a_reload(machine, job):
    time.sleep(2)  # two minutes of this clock: a reload takes the place of a cycle
    machine.reload()
    return machine.entries()[job].get("expireTime", 0) != 0


@pytest.mark.parametrize("options, state", [((), "held"), (("--passive-mode",), "passive")])
def test_runs_that_are_kept(machine, ctl, options, state):
    """A run that became due is kept until the machine is released, or active, and shown as such."""
    if state == "held":
        machine.write("/run/kestvorld.status", "2")
    machine.jobs("builtin", "f", [every_minute("due", crontab="12 2 * * *"), never("other")])
    machine.start_and_wait(*options)
    # The clock of files is the real one.
    os.utime(machine.path("/run/kestcrond.config"), (1780366000, 1780366000))
    later = {"FAKETIME": "2026-06-02 02:20:00"}
    listed = {job["name"]: job for job in json.loads(ctl("list", "--json", env=later).stdout)}
    assert listed["builtin-f-due"]["state"] == "kept"
    assert listed["builtin-f-other"]["state"] == state
    assert (listed["builtin-f-due"]["next"]["earliest"], listed["builtin-f-due"]["next"]["waits"]) == (None, True)
    answer = ctl("next", env=later).stdout
    awaited = "the release of the machine" if state == "held" else "kestcrond without --passive-mode"
    assert re.search(rf"^as soon as it may +builtin-f-due +waits for {awaited}$", answer, re.M), answer
    assert 'kestcron_job_pending{name="builtin-f-due",user="root"} 1' in ctl("metrics", env=later).stdout
    # Before it is due.
    earlier = {"FAKETIME": "2026-06-02 02:11:00"}
    listed = {job["name"]: job for job in json.loads(ctl("list", "--json", env=earlier).stdout)}
    assert listed["builtin-f-due"]["state"] == state
    assert listed["builtin-f-due"]["next"] is None or listed["builtin-f-due"]["next"]["waits"]
    # The daemon keeps it, and launches it as soon as it may.
    wait_for(lambda: is_due_after_a_reload(machine, "builtin-f-due"), what="the minute 02:12")
    assert not machine.runs("builtin-f-due")
    if state == "held":
        machine.path("/run/kestvorld.status").unlink()
    else:
        machine.stop()
        machine.start_and_wait()
    wait_for(lambda: machine.runs("builtin-f-due"), what="the kept run")


def test_a_pattern_that_matches_no_job(known, ctl):
    result = ctl("list", "nowhere*")
    assert (result.returncode, result.stdout) == (1, "")
    assert "no job matches" in result.stderr
    assert ctl("list", "backup").returncode == 0


def listed(ctl, *options):
    done = ctl("list", *options, "--json")
    assert done.returncode == 0, done.stderr
    return [job["name"].rpartition("-")[2] for job in json.loads(done.stdout)]


def test_selected_and_sorted_jobs(known, ctl):
    assert listed(ctl, "backup", "*late") == ["backup", "late"]
    assert listed(ctl, "--state", "failed") == ["gone"]
    assert listed(ctl, "--state", "failed", "--state", "overdue") == ["gone", "late"]
    assert listed(ctl, "--sort", "state")[:2] == ["gone", "late"]
    assert listed(ctl, "--sort", "last")[:3] == ["hourly", "gone", "backup"]
    assert listed(ctl, "--sort", "next")[:3] == ["late", "hourly", "backup"]
    assert listed(ctl, "--sort", "next")[-1] == "never"
    assert ctl("list", "--state", "failed", "office").returncode == 1
    refused = ctl("list", "--sort", "size")
    assert refused.returncode == 2 and "--sort" in refused.stderr


def test_an_expression_without_quotes(known, ctl):
    result = ctl("explain", "*/5", "*", "*", "*", "*")
    assert result.returncode == 2 and "in quotes" in result.stderr
    remarks = json.loads(ctl("explain", "--period", "minutely", "--json").stdout)["remarks"]
    assert any('"minutely" is read as "monthly"' in remark for remark in remarks)
    assert any(
        "one run in 60" in remark for remark in json.loads(ctl("explain", "~ 3 * * *", "--json").stdout)["remarks"]
    )


def test_a_time_in_the_past(known, ctl):
    result = ctl("next", "--at", "2h")
    assert result.returncode == 2
    assert '"2h" is in the past' in result.stderr
    assert ctl("next", "--at", "+2h").returncode == 0


def test_the_log_of_one_job(known, ctl):
    line = LOG.splitlines()[1]
    longer = line.replace("builtin-core-backup", "builtin-core-backup-more")
    assert longer != line
    known.write(known.LOG_FILE, f"{line}\n{longer}\n", mode=0o600)
    assert len(ctl("log", "--job", "builtin-core-backup").stdout.splitlines()) == 1
    assert len(ctl("log", "--job", "backup").stdout.splitlines()) == 1
    assert len(ctl("log", "--job", "*backup*").stdout.splitlines()) == 2
    assert ctl("log", "--job", "back").stdout == ""


def test_users_learn_that_they_cannot_read_the_log(known, ctl):
    assert "not readable" not in ctl("list").stderr
    assert "kestcrond-execute.log is not readable for you, so runs since " in ctl("list", user=65534).stderr


# --- With the daemon ----------------------------------------------------------------------------


def test_status_of_a_daemon(machine, ctl):
    machine.jobs("builtin", "f", [never("a"), never("b")])
    machine.template(maxDelay=77, schedule=machine.drawn(Minute=17, hour=3, day=4, month=5, week=6))
    pid = machine.start_and_wait("--passive-mode")
    answer = json.loads(ctl("status", "--json").stdout)
    assert answer["running"] and answer["pid"] == pid and answer["passive"]
    assert not answer["held"] and answer["jobs"] == 2 and answer["max_delay"] == 77
    assert answer["document"] == "/var/run/kestcrond.config" and answer["delayed"] == 0
    assert answer["draw"] == "17 3 4 5 6"
    assert answer["redraw"]["Minute"] == "2026-06-02T03:00:00+00:00"
    assert answer["redraw"]["week"] == "2026-06-08T00:00:00+00:00"
    result = ctl("status")
    assert result.returncode == 0
    assert re.search(rf"^kestcrond:     running as process {pid} since ", result.stdout)
    assert "passive: runs only jobs" in result.stdout
    assert {job["state"] for job in json.loads(ctl("list", "--json").stdout)} == {"passive"}
    machine.write("/run/kestvorld.status", "2")
    assert json.loads(ctl("status", "--json").stdout)["held"]
    machine.stop()
    machine.start_and_wait()
    assert not json.loads(ctl("status", "--json").stdout)["passive"]
    machine.stop()
    machine.write(machine.PID_FILE, "1\n")  # the pid of another program
    assert ctl("status").returncode == 3


SLEEPER = """#!/bin/bash
trap : TERM
until [ -e /tmp/end ]; do /usr/bin/sleep 0.02; done
"""


def test_running_jobs(machine, ctl):
    machine.write("/usr/local/bin/sleeper", SLEEPER, 0o755)
    machine.template(maxDelay=0)
    machine.jobs(
        "builtin",
        "f",
        [
            every_minute("script", cmd="/usr/local/bin/sleeper", user="system"),
            every_minute("binary", cmd="/usr/bin/sleep 100000"),
            never("other"),
        ],
    )
    machine.start_and_wait()
    state = lambda: {
        job["name"]: (job["state"], job["pid"] is not None) for job in json.loads(ctl("list", "--json").stdout)
    }
    wait_for(
        lambda: state()
        == {
            "builtin-f-script": ("running", True),
            "builtin-f-binary": ("running", True),
            "builtin-f-other": ("waiting", False),
        }
    )
    pid = {job["name"]: job["pid"] for job in json.loads(ctl("list", "--json").stdout)}
    assert machine.processes()[pid["builtin-f-script"]]["name"] == "builtin-f-scrip"
    machine.write("/tmp/end", "")


def test_delayed_starts_are_counted(machine, ctl):
    machine.template(maxDelay=1000)
    machine.jobs("builtin", "f", [every_minute(name) for name in "abc"])
    machine.clock("2026-06-02 02:10:10", rate=1)
    machine.start_and_wait()
    wait_for(lambda: json.loads(ctl("status", "--json").stdout)["delayed"] == 2)
    assert "3 jobs" not in ctl("status").stdout
    assert "jobs:          3, 2 launched and waiting out their delay\n" in ctl("status").stdout


WITNESS = """#!/bin/bash
{ id; pwd; umask; env | grep -v FAKETIME_SHARED | sort; echo "[$1]" "[$2]"; cat; ls /proc/$$/fd
  grep -E "^Sig[BIC]|^Cap|^Groups|NoNewPrivs" /proc/self/status; } > /tmp/ran/$$ 2>&1
mv /tmp/ran/$$ /tmp/ran/$$.whole
echo to-output
echo to-error >&2
exit 7
"""


def test_run_matches_a_launch_by_the_daemon(machine, ctl):
    machine.clock("2026-06-02 02:12:10", rate=0)  # the daemon launches it in its first cycle only
    machine.write("/usr/local/bin/witness", WITNESS, 0o755)
    machine.jobs(
        "pkg",
        "f",
        [
            {
                "name": "own",
                "user": "package",
                "package_username": "alice",
                "period": "crontab",
                "crontab": "12 2 * * *",
                "cmd_list": ["/usr/local/bin/witness", "a b", "c"],
            }
        ],
    )
    machine.run("sh", "-c", f"umask 027; MARK='of the daemon' {machine.DAEMON}")
    results = lambda: [path.read_text() for path in machine.path("/tmp/ran").glob("*.whole")]
    wait_for(lambda: len(results()) == 1)
    by_daemon = results()[0]
    assert "(crew)" in by_daemon and "MARK=of the daemon" in by_daemon and "[a b] [c]" in by_daemon
    result = ctl("run", "own", env={"MARK": "of the caller", "SUDO_USER": "carol"})
    assert (result.returncode, result.stdout, result.stderr) == (7, "to-output\n", "to-error\n")
    assert results() == [by_daemon, by_daemon]
    assert re.search(
        r" running job: pkg-f-own with command: /usr/local/bin/witness a b c  as user alice "
        r"\(state\[Manual\], trig\[02 02:1\d:\d\d\], tab\[12 2 -1 -1 -1\], by\[carol\]\)$",
        machine.log_lines()[-1],
    )


@pytest.mark.parametrize(
    "program,status",
    [
        ("#!/bin/sh\nexit 0\n", 0),
        ("#!/bin/sh\nexit 3\n", 3),
        ("#!/bin/sh\nkill -9 $$\n", 137),
        ("#!/no/such/interpreter\n", 127),
    ],
)
def test_exit_status_of_run(machine, ctl, program, status):
    machine.write("/usr/local/bin/x", program, 0o755)
    machine.jobs("builtin", "f", [never("x", cmd="/usr/local/bin/x")])
    machine.start_and_wait()
    result = ctl("run", "x")
    assert result.returncode == status
    if status == 137:
        assert result.stderr == ERRORS + "killed by signal 9 (Killed)\n"
    if status == 127:
        assert result.stderr == ERRORS + "cannot run the command; see the execution log\n"
        assert "failed, return code: -1, error: No such file" in machine.log_lines()[-1]


def test_run_without_the_account(machine, ctl):
    machine.jobs("builtin", "f", [never("x", user="system")])
    machine.start_and_wait()
    passwd = machine.read("/etc/passwd")
    machine.path("/etc/passwd").write_text(re.sub("^system:.*\n", "", passwd, flags=re.MULTILINE))
    result = ctl("run", "x")
    assert result.returncode == 126
    assert "user system not exist" in result.stderr
    assert machine.runs("builtin-f-x") == []


def test_run_does_not_affect_the_daemon(machine, ctl):
    """It changes neither the runtime document nor the system log."""
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    before = machine.document()
    assert ctl("run", "x").returncode == 0
    assert len(machine.runs("builtin-f-x")) == 1
    assert machine.document() == before
    assert machine.texts() == []


def test_reload_lists_changes(machine, ctl):
    machine.jobs("builtin", "f", [never("stays"), never("goes"), never("changes")])
    machine.start_and_wait()
    result = ctl("reload")
    assert (result.returncode, result.stdout) == (0, "no jobs added, removed or changed; 3 jobs\n")
    machine.jobs("builtin", "f", [never("stays"), never("changes", assure_execute=5), never("new")])
    result = ctl("reload", "--json")
    assert json.loads(result.stdout) == {
        "came": ["builtin-f-new"],
        "went": ["builtin-f-goes"],
        "changed": ["builtin-f-changes"],
        "jobs": 3,
        "problems": [],
    }
    machine.jobs("builtin", "f", [never("one")])
    assert ctl("reload").stdout == (
        "added   builtin-f-one\nremoved builtin-f-changes\n" "removed builtin-f-new\nremoved builtin-f-stays\n1 job\n"
    )
    machine.jobs("builtin", "f", [])
    assert ctl("reload").stdout == "removed builtin-f-one\n0 jobs\n"
    machine.jobs("builtin", "f", [never("again")])
    assert ctl("reload").stdout == "added   builtin-f-again\n1 job\n"


def test_reload_times_out(machine, ctl):
    machine.jobs("builtin", "f", [never("x")])
    pid = machine.start_and_wait()
    machine.signal(signal.SIGSTOP, pid)
    result = ctl("reload", "--timeout", "1")
    assert result.returncode == 2
    assert result.stderr == ERRORS + "kestcrond did not reload within 1 s\n"
    machine.signal(signal.SIGCONT, pid)
    other = ctl("reload", user=2001)
    assert other.returncode == 2 and "Operation not permitted" in other.stderr


def test_a_staged_program_that_differs(machine, ctl):
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    staged_state = lambda **more: json.loads(ctl("show", "x", "--json", **more).stdout)["staged_state"]
    assert staged_state() == "same"
    assert staged_state(user=2001) == "unknown"
    machine.write(RECORD, "#!/bin/sh\n", 0o755)
    assert staged_state() == "differs"
    assert ctl("reload").returncode == 0
    assert staged_state() == "same"
    machine.path(RECORD).unlink()
    assert staged_state() == "differs"
    machine.staged("builtin-f-x").unlink()
    assert staged_state() == "missing"


def test_log_follows_rotation(known, ctl, tmp_path):
    output = tmp_path / "out"
    with output.open("w") as stream:
        follower = known.popen(TOOL, "log", "-f", "-n", "1", env={"LD_PRELOAD": ""}, stdout=stream)
    lines = lambda: output.read_text().splitlines()
    line = "2026-06-02T03:00:00+00:00 running job: a with command: b as user root"
    log = known.path(known.LOG_FILE)
    try:
        wait_for(lambda: lines() == LOG.splitlines()[-1:])
        with log.open("a") as stream:
            stream.write(line + " 1\n" + line[:30])
            stream.flush()
            wait_for(lambda: len(lines()) == 2)
            stream.write(line[30:] + " 2\n")
        wait_for(lambda: len(lines()) == 3)
        log.rename(log.with_suffix(".1"))
        with log.with_suffix(".1").open("a") as stream:
            stream.write(line + " 3\n")
        wait_for(lambda: len(lines()) == 4)
        log.write_text(f"{line} 4\n{line} 5\n")
        wait_for(lambda: len(lines()) == 6)
        with log.open("r+") as stream:  # as with copytruncate
            stream.truncate()
            stream.write(line + " 6\n")
        wait_for(lambda: len(lines()) == 7)
        assert lines()[1:] == [f"{line} {number}" for number in range(1, 7)]
    finally:
        follower.terminate()
        follower.wait()


# --- Completion ---------------------------------------------------------------------------------


def complete(machine, *words):
    script = """source /share/kestcronctl.bash
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); compopt() { :; }
_kestcronctl; printf '%s\\n' "${COMPREPLY[@]}" """
    result = machine.run("bash", "-c", script, "bash", *words, env={"LD_PRELOAD": ""})
    return result.stdout.split("\n")[:-1]


def test_completion(known, ctl):
    known.write("/share/kestcronctl.bash", COMPLETION.read_text())
    hostile = "pkg-x-$(touch /tmp/owned) `touch /tmp/owned`"
    known.write(known.RUNTIME_FILE, json.dumps({"jobs": {**JOBS, hostile: entry(hostile, [[0], [0], [0], [0], [0]])}}))
    assert complete(known, "kestcronctl", "li") == ["list"]
    assert complete(known, "kestcronctl", "show", "builtin-core-l") == ["builtin-core-late", "builtin-core-leap"]
    assert complete(known, "kestcronctl", "--root", "/", "next", "--") == ["--root", "--tz", "--json", "--help", "--at"]
    assert complete(known, "kestcronctl", "imp") == ["import"]
    assert complete(known, "kestcronctl", "plan", "--source", "built") == ["builtin", "builtin-dyn"]
    for name in ("/share/out.svg", "/share/out.txt", "/share/outer/x"):
        known.write(name, "")
    assert complete(known, "kestcronctl", "timeline", "--svg", "/share/ou") == ["/share/outer", "/share/out.svg"]
    assert complete(known, "kestcronctl", "--root", "/share/ou") == ["/share/outer"]
    assert complete(known, "kestcronctl", "import", "--a") == ["--account"]
    assert complete(known, "kestcronctl", "import", "--account", "alic") == ["alice"]
    assert complete(known, "kestcronctl", "import", "/share/kestcronctl.b") == ["/share/kestcronctl.bash"]
    assert complete(known, "kestcronctl", "log", "--job", "pkg_") == ["pkg_nonroot-alice-own-report"]
    assert complete(known, "kestcronctl", "show", "rep") == ["report"]
    assert complete(known, "kestcronctl", "run", "pkg-x") == [r"pkg-x-\$\(touch\ /tmp/owned\)\ \`touch\ /tmp/owned\`"]
    assert not known.exists("/tmp/owned")
