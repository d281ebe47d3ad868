"""Jobs: their identity, what they inherit, what is logged, and failures to start."""

import os
import re
import signal

import pytest
from tests.lib.appliance import RECORD, every_minute
from tests.lib.private_machine import wait_for


@pytest.fixture(autouse=True)
def at_once(machine):
    machine.template(maxDelay=0)


def once(machine):
    """Stops the clock, so that each job is started once, by the first cycle. The next cycle follows a
    real minute later."""
    machine.clock("2026-06-02 02:10:10", rate=0)


def report(machine, user, script, **members):
    """Runs a shell script as a job of `user` and returns its output."""
    once(machine)
    machine.write(
        "/usr/local/bin/job",
        f"#!/bin/sh\nexec > /tmp/ran/out.$$\n{script}\n" "mv /tmp/ran/out.$$ /tmp/ran/out\n",
        0o755,
    )
    members = {"cmd": "/usr/local/bin/job", **members}
    machine.jobs("pkg", "f", [every_minute("x", user=user, package_username="alice", **members)])
    machine.start_and_wait()
    return wait_for(lambda: machine.read("/tmp/ran/out"), what="the output of the job")


@pytest.mark.parametrize(
    "user,line",
    [("root", "root 0 0 0"), ("system", "system 2003 2003 2003"), ("package", "alice 2001 2001 2001 3001 3002")],
)
def test_identity(machine, user, line):
    assert report(machine, user, "echo $(id -un) $(id -u) $(id -g) $(id -G)") == line + "\n"


def test_real_effective_and_saved_ids(machine):
    text = report(machine, "package", "grep -E '^(Uid|Gid)' /proc/self/status")
    assert text.split() == ["Uid:", *["2001"] * 4, "Gid:", *["2001"] * 4]


@pytest.mark.parametrize("user", ["root", "package"])
def test_what_a_job_inherits(machine, user):
    # Uses the real clock, because a preloaded clock opens a file of its own in every program. The
    # shell executes the program that reads, because it blocks signals while it has a child.
    machine.write(
        "/usr/local/bin/job",
        "#!/bin/sh\nexec > /tmp/ran/out\npwd\n" "readlink /proc/$$/fd/*\nexec cat /proc/self/status\n",
        0o755,
    )
    machine.jobs("pkg", "f", [every_minute("x", user=user, package_username="alice", cmd="/usr/local/bin/job")])
    # Signals that the starting process ignored are not ignored by the job.
    machine.run(
        "/usr/bin/python3",
        "-c",
        "import os, signal\n"
        "for number in (1, 3, 10, 13, 17, 20, 34): signal.signal(number, signal.SIG_IGN)\n"
        f"os.execv('{machine.DAEMON}', ['kestcrond'])",
        env={"LD_PRELOAD": ""},
    )
    text = wait_for(
        lambda: "ctxt_switches" in machine.read("/tmp/ran/out") and machine.read("/tmp/ran/out"),
        what="the output of the job",
    )
    lines = text.splitlines()
    assert lines[0] == "/"
    assert sorted(line for line in lines[1:] if line.startswith("/")) == [
        "/dev/null",
        "/dev/null",
        "/tmp/kestcrond/pkg-f-x",
        "/tmp/ran/out",
    ], "the script and the report only"
    assert not [line for line in lines if "socket" in line or "inotify" in line]
    masks = {line[:6]: int(line.split()[1], 16) for line in lines if line[:6] in ("SigBlk", "SigIgn", "SigCgt")}
    assert masks == {"SigBlk": 0, "SigIgn": 0, "SigCgt": 0}


def test_arguments(machine):
    once(machine)
    machine.jobs(
        "pkg",
        "f",
        [
            every_minute("split", cmd=f"{RECORD}   a  b "),
            every_minute("list", cmd_list=[RECORD, "a  b", "", "$HOME;*", "é"], cmd="ignored"),
            every_minute("types", cmd_list=[RECORD, 5, True, None, -1.5]),
        ],
    )
    machine.start_and_wait()
    runs = {name: wait_for(lambda n=name: machine.runs(f"pkg-f-{n}"))[0] for name in ("split", "list", "types")}
    assert runs == {
        "split": "root root [a b ]",
        "list": "root root [a  b  $HOME;* é]",
        "types": "root root [5 true  -1.5]",
    }
    commands = {
        re.search(r"pkg-f-(\w+)", line).group(1): re.search(r"with command: (.*) as user", line).group(1)
        for line in machine.log_lines()
    }
    assert commands == {
        "split": f"{RECORD}   a  b ",
        "list": f"{RECORD} a  b  $HOME;* é ",
        "types": f"{RECORD} 5 true  -1.5 ",
    }


@pytest.mark.parametrize("user", ["root", "package"])
@pytest.mark.parametrize(
    "content,error",
    [
        ("echo no interpreter line\n", "Exec format error"),
        ("", "Exec format error"),
        ("#!/no/such/interpreter\n", "No such file or directory"),
    ],
)
def test_a_command_that_cannot_be_started(machine, user, content, error):
    once(machine)
    machine.write("/usr/local/bin/broken", content, 0o755)
    machine.jobs("pkg", "f", [every_minute("x", user=user, package_username="alice", cmd="/usr/local/bin/broken a")])
    machine.start_and_wait()
    wait_for(lambda: len(machine.log_lines()) >= 2)
    account = "alice" if user == "package" else "root"
    start, failure = machine.log_lines()[:2]
    assert f"running job: pkg-f-x with command: /usr/local/bin/broken a as user {account} (" in start
    assert re.fullmatch(
        r"2026-06-02T02:10:10\+00:00 running job: pkg-f-x with command: "
        r"/usr/local/bin/broken a failed, return code: -1, error: " + error,
        failure,
    )
    assert machine.path(machine.LOG_FILE).stat().st_mode & 0o7777 == 0o600
    assert machine.texts() == []
    wait_for(lambda: not machine.exists("/tmp/kestcrond.log"))


def test_an_account_that_is_removed_before_the_launch(machine):
    machine.jobs("pkg", "f", [every_minute("x", user="package", package_username="bob"), every_minute("y")])
    machine.start_and_wait()
    wait_for(lambda: machine.runs("pkg-f-x"))
    passwd = machine.read("/etc/passwd")
    machine.write("/etc/passwd", "".join(line + "\n" for line in passwd.splitlines() if not line.startswith("bob:")))
    machine.wait_for_text("Failed to get user group info for job [pkg-f-x]")
    machine.wait_for_text("user bob not exist")
    count = len(machine.runs("pkg-f-y"))
    wait_for(lambda: len(machine.runs("pkg-f-y")) >= count + 2)
    pid = machine.daemon_pid()
    assert pid and machine.exists(machine.PID_FILE)
    # The child that failed ended, and did not continue as a second scheduler.
    wait_for(lambda: machine.daemons() == [pid])


def waiting_child(machine):
    """The child that waits to run the second of two jobs."""
    once(machine)
    machine.template(maxDelay=3600)
    machine.jobs("pkg", "f", [every_minute("a"), every_minute("b")])
    daemon = machine.start_and_wait()
    wait_for(lambda: machine.runs("pkg-f-a"))
    return wait_for(lambda: next((pid for pid in machine.daemons() if pid != daemon), None))


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGTERM, signal.SIGINT])
def test_a_signal_does_not_make_a_waiting_child_start_early(machine, number):
    child = waiting_child(machine)
    daemon = machine.daemon_pid()
    machine.signal(number, child)
    if number == signal.SIGHUP:
        seen = len(machine.runs("pkg-f-a"))
        machine.reload()
        assert child in machine.processes(), seen
    else:
        wait_for(lambda: child not in machine.processes())
    assert machine.runs("pkg-f-b") == []
    assert machine.daemon_pid() == daemon


@pytest.mark.native(reason="the emulator blocks signals")
def test_waiting_children_keep_nothing_of_the_daemon(machine):
    child = waiting_child(machine)
    wait_for(lambda: sorted(os.listdir(machine.proc(child, "fd"))) == ["0", "1", "2"])
    status = machine.proc(child, "status").read_text()
    ignored = int(re.search(r"SigIgn:\s*(\w+)", status).group(1), 16)
    caught = int(re.search(r"SigCgt:\s*(\w+)", status).group(1), 16)
    bit = lambda number: 1 << number - 1
    assert ignored & bit(signal.SIGHUP) and not ignored & bit(signal.SIGPIPE)
    assert not caught & (bit(signal.SIGHUP) | bit(signal.SIGTERM) | bit(signal.SIGINT))
    # The child outlives the daemon.
    machine.stop()
    assert child in machine.processes()
    assert not machine.exists(machine.PID_FILE)


def test_a_job_may_be_started_again_while_it_runs(machine):
    machine.write("/usr/local/bin/long", "#!/bin/sh\necho >> /tmp/ran/long\nexec sleep 1000\n", 0o755)
    machine.jobs("pkg", "f", [every_minute("x", cmd="/usr/local/bin/long")])
    machine.start_and_wait()
    wait_for(lambda: len([p for p in machine.processes().values() if p["name"] == "sleep"]) >= 3)


def test_no_zombies(machine):
    machine.jobs("pkg", "f", [every_minute(f"j{i}") for i in range(10)])
    machine.start_and_wait()
    wait_for(lambda: len(machine.runs("pkg-f-j9")) >= 3)
    pid = machine.daemon_pid()
    wait_for(lambda: not [p for p in machine.processes().values() if p["ppid"] == pid and p["state"] == "Z"])


def test_fork_failure_is_reported_and_the_cycle_continues(machine):
    machine.jobs("pkg", "f", [every_minute("x")])
    pid = machine.start_and_wait()
    wait_for(lambda: machine.runs("pkg-f-x"))
    # A control group in which no process is allowed beside the daemon.
    machine.run(
        "sh",
        "-ec",
        "mount -t cgroup -o pids none /mnt || { mount -t cgroup2 none /mnt; "
        "echo +pids > /mnt/cgroup.subtree_control; }; mkdir -p /mnt/alone; "
        f"echo 1 > /mnt/alone/pids.max; echo {pid} > /mnt/alone/cgroup.procs",
        check=True,
        env={"LD_PRELOAD": ""},
    )
    try:
        machine.wait_for_text("Failed to fork()", count=2)
    finally:
        machine.path("/mnt/alone/pids.max").write_text("max")
    message = next(m for m in machine.messages("cronjob") if "fork" in m.text)
    assert message.text == "Failed to fork() (Resource temporarily unavailable)"
    count = len(machine.runs("pkg-f-x"))
    wait_for(lambda: len(machine.runs("pkg-f-x")) > count)
    machine.stop()
    machine.run("rmdir", "/mnt/alone", env={"LD_PRELOAD": ""})


def test_a_program_that_cannot_run_is_logged_at_once(machine):
    """A start waits only for a copy in progress, and for a minute at most."""
    machine.clock("2026-06-02 02:10:10", rate=1)
    machine.write("/usr/local/bin/x", "#!/no/such/interpreter\n", 0o755)
    machine.jobs("builtin", "f", [every_minute("x", cmd="/usr/local/bin/x")])
    machine.start_and_wait()
    wait_for(lambda: "failed, return code: -1" in "".join(machine.log_lines()), 30)


def test_a_start_does_not_wait_forever_for_an_interrupted_copy(machine):
    machine.write("/usr/local/bin/x", "#!/no/such/interpreter\n", 0o755)
    machine.jobs("builtin", "f", [every_minute("x", cmd="/usr/local/bin/x")])
    machine.start_and_wait()
    machine.write("/tmp/kestcrond/.previous", "")
    failures = lambda: len([line for line in machine.log_lines() if "return code: -1" in line])
    before = failures()
    wait_for(lambda: failures() > before + 3)


def test_a_signal_to_the_process_group_of_a_job_reaches_only_the_job(machine):
    machine.template(maxDelay=3600)
    machine.write("/usr/local/bin/rude", "#!/bin/sh\necho x >> /tmp/ran/rude\nkill -9 0\n", 0o755)
    machine.jobs("builtin", "f", [every_minute("a", cmd="/usr/local/bin/rude"), every_minute("b")])
    pid = machine.start_and_wait()
    wait_for(lambda: len(machine.read("/tmp/ran/rude").splitlines()) >= 2, what="two runs of the job")
    assert machine.daemon_pid() == pid
    wait_for(lambda: machine.runs("builtin-f-b"), 90, "a job that was waiting for its turn")
