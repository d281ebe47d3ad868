"""The resource agent on one node without a cluster: each action from each state, with its exit
code, and the result of the test tool of the agents' standard."""

import signal
import time

import pytest

from tests.lib.cluster_node import INSTALLED_AGENT, RECORD
from tests.lib.private_machine import wait_for

SUCCESS, ERR_GENERIC, ERR_UNIMPLEMENTED, ERR_PERM, ERR_INSTALLED, ERR_CONFIGURED = 0, 1, 3, 4, 5, 6
NOT_RUNNING, RUNNING_PROMOTED, FAILED_PROMOTED = 7, 8, 9
MONITOR = {
    "passive": SUCCESS,
    "active": RUNNING_PROMOTED,
    "none": NOT_RUNNING,
    "killed passive": NOT_RUNNING,
    "killed active": FAILED_PROMOTED,
}


def bring(node, state):
    """Brings the daemon into a state by way of the agent."""
    if state != "none":
        assert node.agent("start") == SUCCESS
    if state.endswith("active"):
        assert node.agent("promote") == SUCCESS
    if state.startswith("killed"):
        pid = node.daemon_pid()
        node.signal(signal.SIGKILL)
        wait_for(lambda: pid not in node.processes(), what="the daemon's end")


def test_the_standards_tool_finds_nothing(node):
    result = node.run("/usr/sbin/ocf-tester", "-n", "kestcrond", INSTALLED_AGENT)
    said = result.stdout + result.stderr
    assert result.returncode == 0 and "passed all tests" in said, said
    # It takes a missing action for an optional one.
    for action in ("demote", "promote", "reload"):
        assert f"does not support the {action}" not in said, said


@pytest.mark.parametrize("state", MONITOR)
@pytest.mark.parametrize(
    "action, code, after",
    [
        ("start", SUCCESS, ["passive"]),
        ("demote", SUCCESS, ["passive"]),
        ("promote", SUCCESS, ["active"]),
        ("stop", SUCCESS, []),
    ],
)
def test_an_action_leads_to_its_role_from_every_state(node, state, action, code, after):
    bring(node, state)
    before = node.daemon_pid()
    assert node.agent("monitor") == MONITOR[state]
    if action == "promote" and not before:
        code, after = NOT_RUNNING, []  # nobody is promoted who does not run
    assert node.agent(action) == code
    assert list(node.modes().values()) == after
    if [state] == after:
        assert node.daemon_pid() == before  # one that is as it should be is left alone
    else:
        assert before not in node.processes()
    if after:
        assert node.agent("monitor") == MONITOR[after[0]]
    elif action == "stop":
        assert node.agent("monitor") == NOT_RUNNING


def test_what_was_demoted_does_not_fail_as_promoted(node):
    bring(node, "active")
    assert node.agent("demote") == SUCCESS
    bring(node, "killed passive")
    assert node.agent("monitor") == NOT_RUNNING


def test_a_start_ends_when_the_jobs_are_loaded(node):
    node.jobs(*({"name": f"job-{i}", "user": "root", "period": "daily", "cmd": RECORD} for i in range(300)))
    for action in "start", "promote":
        node.path(node.RUNTIME_FILE).unlink(missing_ok=True)
        assert node.agent(action) == SUCCESS
        assert node.read(node.RUNTIME_FILE).count('"startup"') == 300


def test_a_mode_chosen_by_hand_is_seen(node):
    """Whoever starts the daemon: the mode is that of the process."""
    for options, code in (["--passive-mode"], SUCCESS), ([], RUNNING_PROMOTED):
        node.start_by_hand(*options)
        assert node.agent("monitor") == code
        assert node.agent("stop") == SUCCESS


@pytest.mark.parametrize("pid_file", ["", "\n", "0", "-1", "x", "4194304999", "1"])
def test_what_stands_in_a_stale_pid_file_is_not_believed(node, pid_file):
    node.write(node.PID_FILE, pid_file)
    assert node.agent("monitor") == NOT_RUNNING
    assert node.agent("stop") == SUCCESS
    assert 1 in node.processes()


LOCK = """
import fcntl, os, time
file = open("/run/kestcrond.pid", "r+")
if "lock" in os.environ:
    fcntl.lockf(file, fcntl.LOCK_EX)
open("/tmp/ready", "w")
time.sleep(1000)
"""


@pytest.mark.parametrize(
    "name, user, lock, believed",
    [
        ("kestcrond", "root", True, True),
        ("kestcrond", "root", False, False),
        ("kestcrond", "nobody", True, False),
        ("other", "root", True, False),
    ],
)
def test_who_is_believed_to_be_the_daemon(node, name, user, lock, believed):
    """One of that name, of root's, that holds the pid file."""
    node.write(f"/tmp/{name}", node.path("/usr/bin/python3").resolve().read_bytes(), 0o755)
    node.write(node.PID_FILE, "", 0o666)
    node.popen(
        "/usr/bin/setpriv",
        "--reuid",
        user,
        "--clear-groups",
        f"/tmp/{name}",
        "-c",
        LOCK,
        env={"PYTHONHOME": "/usr", **({"lock": "1"} if lock else {})},
    )
    wait_for(lambda: node.exists("/tmp/ready"), what="the impostor")
    pid = next(pid for pid, process in node.processes().items() if process["name"] == name)
    node.path(node.PID_FILE).write_text(f"{pid}\n")
    assert node.agent("monitor") == (RUNNING_PROMOTED if believed else NOT_RUNNING)
    assert node.agent("stop") == SUCCESS
    assert (pid in node.processes()) != believed


def test_stop_waits_for_the_end_and_kills_what_does_not_end(node):
    bring(node, "active")
    pid = node.daemon_pid()
    node.signal(signal.SIGSTOP)
    begin = time.monotonic()
    assert node.agent("stop", timeout=6) == SUCCESS
    assert 2 <= time.monotonic() - begin < 6  # half of the time is for an orderly end
    assert pid not in node.processes()
    assert node.agent("monitor") == NOT_RUNNING


def test_an_orderly_stop_saves(node):
    bring(node, "active")
    assert node.agent("stop") == SUCCESS
    assert node.exists("/usr/kest/etc/kestcrond.config") and not node.exists(node.PID_FILE)


def test_what_was_launched_goes_on(node):
    """A job that runs and one that waits out its delay outlive the change of role."""
    node.write("/usr/local/bin/long", "#!/bin/sh\nexec sleep 600\n", 0o755)
    every = {"user": "root", "period": "crontab", "crontab": "* * * * *"}
    # To the daemon's clock 300 seconds are five real ones.
    node.jobs(
        {**every, "name": "a-long", "cmd": "/usr/local/bin/long"},
        {**every, "name": "b-late", "cmd": RECORD},
        max_delay=300,
    )
    bring(node, "active")
    running = lambda: [pid for pid, process in node.processes().items() if process["name"] == "sleep"]
    wait_for(running, what="a run")
    waiting = wait_for(lambda: set(node.daemons()) - {node.daemon_pid()}, what="a delayed launch")
    assert node.agent("demote") == SUCCESS
    assert running() and waiting & set(node.daemons()) and not node.runs("b-late")
    wait_for(lambda: node.runs("b-late"), what="the run of the delayed job")


def test_reload_makes_new_jobs_known(node):
    bring(node, "passive")
    pid = node.daemon_pid()
    node.jobs({"name": "new", "user": "root", "period": "daily", "cmd": RECORD})
    assert node.agent("reload") == SUCCESS
    wait_for(lambda: "pkg-pair-new" in node.read(node.RUNTIME_FILE), what="the new job")
    assert node.daemon_pid() == pid
    assert node.agent("stop") == SUCCESS
    assert node.agent("reload") == NOT_RUNNING


def test_a_start_that_fails_is_reported(node):
    """The starter has long ended with success when the daemon finds that it cannot be."""
    node.write("/tmp/kestcrond", "stands where its directory is to be")
    assert node.agent("start") == ERR_GENERIC
    assert node.agent("monitor") == NOT_RUNNING


def test_validation(node):
    assert node.agent("validate-all") == SUCCESS
    assert node.agent("validate-all", promoted_max=1) == SUCCESS
    for action in ("validate-all", "start", "promote"):
        assert node.agent(action, promoted_max=2) == ERR_CONFIGURED
    assert node.agent("fly") == ERR_UNIMPLEMENTED
    user = ["/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
    environment = {"OCF_ROOT": "/usr/lib/ocf", "OCF_RESOURCE_INSTANCE": "kestcrond"}
    nobody = node.run(*user, INSTALLED_AGENT, "validate-all", env=environment)
    assert nobody.returncode == ERR_PERM
    node.path(node.STARTED).unlink()
    assert node.agent("start") == ERR_INSTALLED
    assert node.agent("monitor") == NOT_RUNNING
    assert node.agent("stop") == SUCCESS
