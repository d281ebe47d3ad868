"""The process: arguments, the one instance, what a running daemon looks like, how it ends."""

import errno
import os
import re
import signal
import time

import pytest
from conftest import every_minute, never
from private_machine import wait_for


def status_field(machine, pid, field):
    return re.search(rf"^{field}:\s*(\S+)", machine.proc(pid, "status").read_text(), re.M).group(1)


def signals(machine, pid, field):
    mask = int(status_field(machine, pid, field), 16)
    return {number for number in range(1, 65) if mask >> (number - 1) & 1}


def test_a_running_daemon_is_detached(machine):
    machine.run("bash", "-c", f"cd /usr; exec {machine.DAEMON}", check=True)
    wait_for(lambda: machine.exists(machine.RUNTIME_TEMPLATE))
    pid = machine.daemon_pid()
    assert machine.read(machine.PID_FILE) == f"{pid}\n"
    assert machine.processes()[pid]["ppid"] == 1
    assert machine.run("readlink", f"/proc/{pid}/cwd").stdout == "/\n"
    stat = machine.proc(pid, "stat").read_text().rsplit(")", 1)[1].split()
    assert stat[4] == "0", "no controlling terminal"
    session = int(stat[3])
    assert session != 0
    for descriptor in "012":
        target = machine.run("readlink", f"/proc/{pid}/fd/{descriptor}").stdout
        assert target == "/dev/null\n"


def test_signal_dispositions(machine):
    pid = machine.start_and_wait()
    handled = signals(machine, pid, "SigCgt")
    assert {signal.SIGINT, signal.SIGTERM, signal.SIGHUP} <= handled
    assert {signal.SIGPIPE, signal.SIGCHLD} <= signals(machine, pid, "SigIgn")
    assert not {signal.SIGPIPE, signal.SIGCHLD} & handled
    assert signals(machine, pid, "SigBlk") == set()


def test_starter_descriptors_are_not_kept(machine):
    pid = int(machine.run(
        "bash", "-c", f"exec 7</etc/passwd 9>/tmp/starter; {machine.DAEMON}; sleep 0.2; "
        f"cat {machine.PID_FILE}", env={"LD_PRELOAD": ""}).stdout)
    targets = machine.run("bash", "-c", f"readlink /proc/{pid}/fd/*").stdout.split()
    assert "/etc/passwd" not in targets and "/tmp/starter" not in targets
    assert sorted(set(targets)) == sorted(
        {"/dev/null", "anon_inode:inotify", "/run/kestcrond.pid"} |
        {target for target in targets if target.startswith("socket:")})


def test_blocked_signals_of_the_starter_do_not_count(machine):
    machine.run("/usr/bin/python3", "-c",
                "import os, signal; signal.pthread_sigmask(signal.SIG_BLOCK, {15, 1, 2});"
                f"os.execv('{machine.DAEMON}', ['kestcrond'])")
    wait_for(machine.daemon_pid, what="the daemon")
    machine.stop()


@pytest.mark.parametrize("arguments", [
    ["--help"], ["-h"], ["--debug"], ["word"], [""], ["--passive-mode", "--help"],
    ["--help", "--passive-mode"], ["--passive-mode="], ["--Passive-Mode"]])
def test_any_other_argument_stops_the_start(machine, arguments):
    result = machine.run(machine.DAEMON, *arguments)
    assert result.returncode == 255
    assert result.stdout == result.stderr == ""
    assert [message.plain() for message in machine.messages("kestcrond", "err")] == [
        "parse_arguments failed"]
    assert not machine.exists(machine.PID_FILE)
    assert machine.daemon_pid() == 0
    assert machine.daemons() == []


def test_the_one_instance_is_looked_for_before_anything_else(machine):
    machine.start_and_wait()
    machine.path("/dev/null").unlink()
    assert machine.start("--help") == 255
    assert machine.texts("kestcrond") == ["Daemon is running"]


def test_streams_are_closed_before_arguments_are_read(machine):
    machine.path("/dev/null").unlink()
    machine.start("--help")
    assert machine.texts("kestcrond") == ["Close stdio failed"]


def test_streams_that_the_starter_closed_lead_nowhere(machine):
    machine.run("bash", "-c", f"exec 0<&- 1>&- 2>&-; exec {machine.DAEMON}")
    pid = wait_for(machine.daemon_pid, what="the daemon")
    for descriptor in "012":
        target = machine.run("readlink", f"/proc/{pid}/fd/{descriptor}").stdout
        assert target == "/dev/null\n"


# Starts the daemon and collects all that comes of it: a line for each exit status.
COLLECTOR = """
import ctypes, os
PR_SET_CHILD_SUBREAPER = 36
ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1)
if os.fork() == 0:
    os.execv("/usr/sbin/kestcrond", ["kestcrond"])
with open("/run/statuses", "w", buffering=1) as statuses:
    for _ in range(2):
        print(os.waitstatus_to_exitcode(os.wait()[1]), file=statuses)
"""


def collect(machine):
    machine.popen("/usr/bin/python3", "-c", COLLECTOR)


def status_of_daemon(machine):
    """The exit status of the daemon itself, after that of its starter."""
    statuses = wait_for(lambda: len(lines := machine.read("/run/statuses").splitlines()) == 2
                        and lines, what="the daemon's end")
    assert statuses[0] == "0", "the starter has gone before"
    return int(statuses[1])


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_stop_is_a_success(machine, number):
    collect(machine)
    wait_for(lambda: machine.exists(machine.RUNTIME_TEMPLATE))
    machine.signal(number)
    assert status_of_daemon(machine) == 0


def test_a_stop_without_a_pid_file_is_a_success(machine):
    collect(machine)
    wait_for(lambda: machine.exists(machine.RUNTIME_TEMPLATE))
    pid = machine.daemon_pid()
    machine.path(machine.PID_FILE).unlink()
    machine.signal(signal.SIGTERM, pid)
    assert status_of_daemon(machine) == 0


@pytest.mark.parametrize("obstacle", ["/tmp/kestcrond", "/run/kestcrond.pid"])
def test_a_start_that_fails_is_a_failure(machine, obstacle):
    if obstacle.endswith("pid"):
        machine.path(obstacle).mkdir()
    else:
        machine.write(obstacle, "in the way")
    collect(machine)
    assert status_of_daemon(machine) == 255


@pytest.mark.parametrize("arguments,passive", [
    ([], False), (["--passive-mode"], True), (["--passive-mode", "--passive-mode"], True)])
def test_passive_mode(machine, arguments, passive):
    machine.template(maxDelay=0)
    machine.jobs("builtin", "f", [every_minute("local"),
                                  every_minute("everywhere", run_on_passive=True)])
    machine.start_and_wait(*arguments)
    wait_for(lambda: len(machine.runs("builtin-f-everywhere")) >= 3)
    assert bool(machine.runs("builtin-f-local")) == (not passive)


def test_a_second_instance_is_refused(machine):
    pid = machine.start_and_wait()
    assert machine.start() == 255
    assert machine.texts("kestcrond") == ["Daemon is running"]
    assert machine.read(machine.PID_FILE) == f"{pid}\n"
    assert machine.daemon_pid() == pid


def test_of_many_starts_at_once_one_survives(machine):
    machine.run("bash", "-c", f"for i in $(seq 20); do {machine.DAEMON} & done; wait")
    wait_for(lambda: machine.exists(machine.RUNTIME_FILE))
    wait_for(lambda: machine.daemons() == [machine.daemon_pid()], what="a single daemon")
    refusals = machine.texts("kestcrond")
    assert set(refusals) <= {"Daemon is running", "become_daemon failed"}
    assert len(refusals) == 19


@pytest.mark.parametrize("content", ["", "0\n", "-5\n", "nonsense", "999999\n",
                                     "99999999999999999999\n"])
def test_a_stale_pid_file_is_replaced(machine, content):
    machine.write(machine.PID_FILE, content)
    pid = machine.start_and_wait()
    assert machine.read(machine.PID_FILE) == f"{pid}\n"
    assert machine.texts("kestcrond") == []


@pytest.mark.parametrize("name", ["sleep", "kestcrond2", "akestcrond", "kestcron", "Kestcrond",
                                  "x"])
def test_a_pid_file_of_another_program_is_replaced(machine, name):
    machine.write(f"/tmp/{name}", machine.path("/usr/bin/sleep").read_bytes(), 0o755)
    other = machine.popen(f"/tmp/{name}", "100", env={"LD_PRELOAD": ""})
    wait_for(lambda: name in {p["name"] for p in machine.processes().values()})
    pid_of_other = next(p for p, process in machine.processes().items()
                        if process["name"] == name)
    machine.write(machine.PID_FILE, f"{pid_of_other}\n")
    pid = machine.start_and_wait()
    assert machine.read(machine.PID_FILE) == f"{pid}\n"
    assert machine.texts() == []
    other.kill()


def test_a_pid_file_that_names_the_starter_itself_is_no_other_instance(machine):
    machine.run("bash", "-c", f"echo $BASHPID > {machine.PID_FILE}; exec {machine.DAEMON}",
                check=True, env={"LD_PRELOAD": ""})
    wait_for(machine.daemon_pid, what="the daemon")
    assert machine.texts("kestcrond") == []


def test_init_failure_leaves_the_pid_file(machine):
    machine.write("/tmp/kestcrond", "in the way")
    assert machine.start() == 0, "the starter has gone before"
    machine.wait_for_text("init daemon failed")
    wait_for(lambda: not machine.daemon_pid())
    assert machine.texts("crondaemon") == ["runtime dir (/tmp/kestcrond) create failed"]
    assert machine.read(machine.PID_FILE).strip().isdigit()
    machine.path("/tmp/kestcrond").unlink()
    machine.start_and_wait()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_stop_saves_and_removes_the_pid_file(machine, number):
    machine.jobs("builtin", "f", [never("x")])
    pid = machine.start_and_wait()
    machine.signal(number)
    wait_for(lambda: pid not in machine.processes())
    assert not machine.exists(machine.PID_FILE)
    assert list(machine.document("/usr/kest/etc/kestcrond.config")["jobs"]) == ["builtin-f-x"]
    assert machine.exists("/usr/kest/etc/kestcrond.st.config")
    assert machine.texts() == []


def test_a_sleep_is_cut_short_by_a_stop(machine):
    machine.clock("2026-06-02 02:00:10", rate=1)
    pid = machine.start_and_wait()
    started = time.monotonic()
    machine.stop()
    assert time.monotonic() - started < 20, "not the rest of the minute"
    assert pid not in machine.processes()


def test_other_signals_do_nothing(machine):
    machine.jobs("builtin", "f", [never("x")])
    pid = machine.start_and_wait()
    for number in (signal.SIGPIPE, signal.SIGCHLD, signal.SIGWINCH, signal.SIGURG):
        machine.signal(number)
    assert machine.daemon_pid() == pid
    assert machine.loads() == 1


def test_a_missing_pid_file_at_the_end_is_reported(machine):
    machine.start_and_wait()
    pid = machine.daemon_pid()
    machine.path(machine.PID_FILE).unlink()
    machine.signal(signal.SIGTERM, pid)
    machine.wait_for_text("Unable to clean pid file No such file or directory")
    message = machine.messages("kestcrond")[-1]
    assert message.text == ("Unable to clean pid file No such file or directory "
                            "(No such file or directory)")
    assert message.priority == "err" and message.program == "kestcrond"
    assert message.facility == 1, "user messages"


def test_close_stdio_failure(machine):
    machine.path("/dev/null").unlink()
    result = machine.run("bash", "-c", f"{machine.DAEMON}; echo $? > /tmp/status")
    assert machine.read("/tmp/status") == "255\n", result
    assert machine.texts("kestcrond") == ["Close stdio failed"]


def test_a_pid_file_that_cannot_be_made_ends_the_start(machine):
    machine.path(machine.PID_FILE).mkdir()
    assert machine.start() == 0, "the starter has gone before"
    machine.wait_for_text("become_daemon failed")
    wait_for(lambda: not machine.daemons())


def test_messages_lead_to_the_source(machine):
    machine.start_and_wait()
    machine.start()
    source = (os.path.dirname(__file__) + "/../../daemon/kestcrond.cpp")
    message = machine.messages("kestcrond")[0]
    with open(source, encoding="utf-8") as file:
        line = file.read().splitlines()[message.line - 1]
    assert '"Daemon is running"' in line


def test_messages_do_not_tell_errors_of_things_that_went_well(machine):
    machine.jobs("builtin", "f", [never("x", period="yearly")])
    machine.start_and_wait()
    machine.reload()
    messages = machine.messages(priority="err")
    assert [message.plain() for message in messages] == 2 * [
        "error period", "parse error", "Job JSON format error: /usr/kest/share/kestcron.d/f"]
    # What a preloaded clock or a sanitizer left behind is theirs: ours would be a directory that was
    # missing and has been made, and the sleep that the reload's signal has ended.
    own = (os.strerror(errno.ENOENT), os.strerror(errno.EINTR))
    assert not [message for message in messages if message.text.endswith(tuple(f"({e})" for e in own))]
