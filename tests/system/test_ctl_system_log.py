"""The tool reports errors on standard error only, never in the system log."""

import json
import signal

import pytest

from tests.lib.appliance import PERSISTENT_FILE, PERSISTENT_TEMPLATE, SOURCES, every_minute, never
from tests.lib.private_machine import wait_for

ERRORS = "kestcronctl: "

# The beginning of the daemon's first message about each definition.
REPORTED = {
    'Failed [!_jsJob.isMember("config") || !jsConf.isObject()], err=': 7,
    'Failed [!jsConf.isMember("user") || !jsConf["user"].isString()], err=': every_minute("a", user=7),
    'Failed [0 == _jsJob["cmd_list"].size()], err=': every_minute("b", cmd_list=[]),
    "error period": every_minute("c", period="yearly"),
    "x is not a valid number": every_minute("d", crontab="x * * * *"),
    "range.from[9] cannot greater than range.to[3]": every_minute("e", crontab="9~3 * * * *"),
    "you are not package! error user in config": never("f", user="packages", package_username=None),
    'wrong user nobody! you can only specify root/system/package in config ["builtin-broken-g"]': never(
        "g", user="nobody"
    ),
    "user roots not exist": never("h", user="roots"),
}
CLASSES = ("crontab format error", "parse error")
TEMPLATE = {"config": {**every_minute("scheduleTemplate"), "crontab": "~ ~ ~ ~"}}

COMMANDS = [
    ["list"],
    ["next"],
    ["timeline"],
    ["status"],
    ["show", "whole"],
    ["metrics"],
    ["log"],
    ["check"],
    ["explain", "x 9~3 * * 7"],
    ["explain", "* *"],
    ["explain", "~ * * * *"],
    ["reload"],
    ["run", "whole"],
    ["run", "nowhere"],
]


def errors(machine):
    """The errors in the system log. Waits for a message that is written after all of them."""
    machine.run(
        "/usr/bin/python3",
        "-c",
        "import syslog; syslog.openlog('witness'); syslog.syslog('now')",
        env={"LD_PRELOAD": ""},
        check=True,
    )
    wait_for(lambda: any(message.program == "witness" for message in machine.messages()))
    return machine.texts()


def test_damaged_files(machine, ctl):
    """The tool writes nothing to the system log. The daemon logs each of the faults afterwards."""
    machine.write(f"{SOURCES['builtin']}/broken", json.dumps(list(REPORTED.values())))
    machine.write(f"{SOURCES['builtin']}/default", json.dumps({"name": 7}))
    machine.write(f"{SOURCES['builtin']}/text", "no JSON")
    machine.write(PERSISTENT_TEMPLATE, json.dumps(TEMPLATE))
    machine.write("/run/kestvorld.status", "?")
    entries = {f"broken{i}": {"config": definition} for i, definition in enumerate(REPORTED.values())}
    machine.write(
        PERSISTENT_FILE,
        json.dumps({"jobs": {**entries, "number": 7, "empty": {}, "whole": {"config": never("whole")}}}),
    )
    for command in COMMANDS:
        ctl(*command)
        ctl(*command, "--json")
    ctl("list", "--root", "/.")
    assert errors(machine) == []
    machine.start_and_wait()
    machine.wait_for_text("Fail to KESTVorldStatusGet()")  # of the first cycle
    reported = machine.texts()
    for text in (
        *REPORTED,
        *CLASSES,
        "Fail to KESTVorldStatusGet()",
        f"Failed to parse schedule template from [{PERSISTENT_TEMPLATE}]",
    ):
        assert any(one.startswith(text) for one in reported), text


@pytest.fixture
def left(machine):
    """A machine whose daemon was killed, so that its programs are still staged."""
    machine.jobs("builtin", "f", [never("x", user="system"), never("y", cmd="/usr/local/bin/y")])
    machine.write("/usr/local/bin/y", "#!/no/such/interpreter\n", 0o755)
    machine.start_and_wait()
    machine.signal(signal.SIGKILL)
    wait_for(lambda: not machine.daemons())
    return machine


@pytest.mark.parametrize(
    "members,reasons",
    [
        ({"user": "systems"}, ["user systems not exist"]),
        (
            {"user": "nobody"},
            [
                "wrong user nobody! you can only specify root/system/package in config " '["builtin-f-x"]',
                "Unable to determine user",
            ],
        ),
        (
            {"user": "package", "package_username": 7},
            ["you are not package! error user in config", "Unable to determine user"],
        ),
        ({"user": "system\0"}, [r"user system\x00 not exist"]),
    ],
)
def test_run_without_an_account(left, ctl, members, reasons):
    document = left.document()
    document["jobs"]["builtin-f-x"]["config"].update(members)
    left.write(left.RUNTIME_FILE, json.dumps(document))
    result = ctl("run", "x")
    assert result.returncode == 126
    assert result.stderr.splitlines()[1:] == [
        ERRORS + reason for reason in (*reasons, "Failed to get user group info for job [builtin-f-x]")
    ]
    assert errors(left) == []
    assert left.runs("builtin-f-x") == []
    assert left.log_lines() == []


@pytest.mark.parametrize("log,error", [("directory", "Is a directory"), ("/dev/full", "No space left on device")])
def test_run_cannot_write_the_log(left, ctl, log, error):
    path = left.path(left.LOG_FILE)
    path.unlink(missing_ok=True)
    path.mkdir() if log == "directory" else path.symlink_to(log)
    assert ctl("run", "x").returncode == 0
    assert len(left.runs("builtin-f-x")) == 1
    result = ctl("run", "y")
    assert result.returncode == 127
    assert result.stderr.splitlines()[1:] == [
        ERRORS + "cannot run the command; see the execution log",
        f"{ERRORS}/var/log/kestcrond-execute.log: {error}",
    ]
    assert errors(left) == []
