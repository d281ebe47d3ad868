"""The process: its arguments, the single instance, the state of a running daemon, and its end."""

import errno
import os
import re
import signal
import subprocess
import time

import pytest
from tests.lib.appliance import every_minute, never
from tests.lib.private_machine import wait_for


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
    wait_for(lambda: signals(machine, pid, "SigBlk") == set(), what="unblocked signals")


def test_inherited_descriptors_are_closed(machine):
    machine.run(
        "bash", "-c", f"exec 7</etc/passwd 9>/tmp/starter; exec {machine.DAEMON}", env={"LD_PRELOAD": ""}, check=True
    )
    pid = wait_for(machine.daemon_pid, what="the daemon")
    wait_for(machine.is_between_cycles, what="the end of the first cycle")
    targets = machine.run("bash", "-c", f"readlink /proc/{pid}/fd/*").stdout.split()
    assert "/etc/passwd" not in targets and "/tmp/starter" not in targets
    assert sorted(set(targets)) == sorted(
        {"/dev/null", "anon_inode:inotify", "/run/kestcrond.pid", "/run/kestcrond.lock"}
    )


def test_inherited_blocked_signals_are_unblocked(machine):
    machine.run(
        "/usr/bin/python3",
        "-c",
        "import os, signal; signal.pthread_sigmask(signal.SIG_BLOCK, {15, 1, 2});"
        f"os.execv('{machine.DAEMON}', ['kestcrond'])",
    )
    wait_for(machine.daemon_pid, what="the daemon")
    machine.stop()


@pytest.mark.parametrize(
    "arguments",
    [
        ["--help"],
        ["-h"],
        ["--debug"],
        ["word"],
        [""],
        ["--passive-mode", "--help"],
        ["--help", "--passive-mode"],
        ["--passive-mode="],
        ["--Passive-Mode"],
    ],
)
def test_any_other_argument_prevents_the_start(machine, arguments):
    result = machine.run(machine.DAEMON, *arguments)
    assert result.returncode == 255
    assert result.stdout == result.stderr == ""
    assert [message.plain() for message in machine.messages("kestcrond", "err")] == ["parse_arguments failed"]
    assert not machine.exists(machine.PID_FILE)
    assert machine.daemon_pid() == 0
    assert machine.daemons() == []


def test_a_running_instance_is_detected_before_anything_else(machine):
    machine.start_and_wait()
    machine.path("/dev/null").unlink()
    assert machine.start("--help") == 255
    assert machine.texts("kestcrond") == ["Daemon is running"]


def test_streams_are_closed_before_arguments_are_read(machine):
    machine.path("/dev/null").unlink()
    machine.start("--help")
    assert machine.texts("kestcrond") == ["Close stdio failed"]


def test_closed_standard_streams_lead_to_dev_null(machine):
    machine.run("bash", "-c", f"exec 0<&- 1>&- 2>&-; exec {machine.DAEMON}")
    pid = wait_for(machine.daemon_pid, what="the daemon")
    for descriptor in "012":
        target = machine.run("readlink", f"/proc/{pid}/fd/{descriptor}").stdout
        assert target == "/dev/null\n"


# Starts the daemon and waits for all its processes. Prints a line for each exit status.
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
    """The exit status of the daemon itself, which follows that of the starting process."""
    statuses = wait_for(
        lambda: len(lines := machine.read("/run/statuses").splitlines()) == 2 and lines, what="the end of the daemon"
    )
    assert statuses[0] == "0", "the starting process has already ended"
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


@pytest.mark.parametrize(
    "arguments,passive", [([], False), (["--passive-mode"], True), (["--passive-mode", "--passive-mode"], True)]
)
def test_passive_mode(machine, arguments, passive):
    machine.template(maxDelay=0)
    machine.jobs("builtin", "f", [every_minute("local"), every_minute("everywhere", run_on_passive=True)])
    machine.start_and_wait(*arguments)
    wait_for(lambda: len(machine.runs("builtin-f-everywhere")) >= 3 and (passive or machine.runs("builtin-f-local")))
    assert bool(machine.runs("builtin-f-local")) == (not passive)


def test_a_second_instance_is_refused(machine):
    pid = machine.start_and_wait()
    assert machine.start() == 255
    assert machine.texts("kestcrond") == ["Daemon is running"]
    assert machine.read(machine.PID_FILE) == f"{pid}\n"
    assert machine.daemon_pid() == pid


def test_one_of_many_simultaneous_starts_succeeds(machine):
    machine.run("bash", "-c", f"for i in $(seq 20); do {machine.DAEMON} & done; wait")
    wait_for(lambda: machine.exists(machine.RUNTIME_FILE))
    wait_for(lambda: machine.daemons() == [machine.daemon_pid()], what="a single daemon")
    refusals = machine.texts("kestcrond")
    assert set(refusals) <= {"Daemon is running", "become_daemon failed"}
    assert len(refusals) == 19


@pytest.mark.parametrize("content", ["", "0\n", "-5\n", "nonsense", "999999\n", "99999999999999999999\n"])
def test_a_stale_pid_file_is_replaced(machine, content):
    machine.write(machine.PID_FILE, content)
    pid = machine.start_and_wait()
    assert machine.read(machine.PID_FILE) == f"{pid}\n"
    assert machine.texts("kestcrond") == []


@pytest.mark.parametrize("name", ["sleep", "kestcrond2", "akestcrond", "kestcron", "Kestcrond", "x"])
def test_a_pid_file_of_another_program_is_replaced(machine, name):
    machine.write(f"/tmp/{name}", machine.path("/usr/bin/sleep").read_bytes(), 0o755)
    other = machine.popen(f"/tmp/{name}", "100", env={"LD_PRELOAD": ""})
    wait_for(lambda: name in {p["name"] for p in machine.processes().values()})
    pid_of_other = next(p for p, process in machine.processes().items() if process["name"] == name)
    machine.write(machine.PID_FILE, f"{pid_of_other}\n")
    pid = machine.start_and_wait()
    assert machine.read(machine.PID_FILE) == f"{pid}\n"
    assert machine.texts() == []
    other.kill()


SLEEPER = """
#include <sys/prctl.h>
#include <unistd.h>
int main(void) { prctl(PR_SET_DUMPABLE, 0); sleep(1000); return 0; }
"""


@pytest.mark.parametrize("mode", [0o755, 0o4755])
def test_a_process_of_an_account_is_not_another_instance(machine, tmp_path, mode):
    """A process of the account has the pid and the name of a dead daemon and hides its owner, or it
    runs a set-id program of root under that name."""
    (tmp_path / "sleeper.c").write_text(SLEEPER)
    subprocess.run(["gcc", "-o", tmp_path / "sleeper", tmp_path / "sleeper.c"], check=True)
    machine.write("/usr/local/bin/kestcrond", (tmp_path / "sleeper").read_bytes(), mode)
    other = machine.popen(
        "setpriv", "--reuid=2001", "--regid=2001", "--clear-groups", "/usr/local/bin/kestcrond", env={"LD_PRELOAD": ""}
    )
    [stranger] = wait_for(machine.daemons, what="the account's process")
    machine.write(machine.PID_FILE, f"{stranger}\n")
    assert machine.start_and_wait() != stranger
    assert machine.texts() == []
    other.kill()
    other.wait()


def test_a_daemon_without_its_pid_file_is_still_the_instance(machine):
    pid = machine.start_and_wait()
    machine.path(machine.PID_FILE).unlink()
    assert machine.start() == 255
    assert machine.texts("kestcrond") == ["Daemon is running"]
    assert machine.daemons() == [pid]
    assert not machine.exists(machine.PID_FILE)


def test_the_lock_of_the_instance_is_released_when_it_ends(machine):
    pid = machine.start_and_wait()
    machine.signal(signal.SIGKILL, pid)
    wait_for(lambda: pid not in machine.processes())
    machine.path(machine.PID_FILE).unlink()
    machine.start_and_wait()
    assert machine.texts() == []


def test_a_waiting_job_does_not_hold_the_lock_of_the_instance(machine):
    machine.template(maxDelay=3600)
    machine.jobs("builtin", "f", [every_minute("x"), every_minute("y")])
    pid = machine.start_and_wait()
    wait_for(lambda: machine.runs("builtin-f-x"), what="a child that does not wait")
    waiting = wait_for(lambda: [child for child in machine.daemons() if child != pid])
    machine.stop()
    assert set(waiting) & set(machine.daemons())
    machine.path(machine.PID_FILE).unlink(missing_ok=True)
    machine.start_and_wait()
    assert machine.texts() == []


def test_a_pid_file_with_the_own_pid_is_not_another_instance(machine):
    machine.run(
        "bash", "-c", f"echo $BASHPID > {machine.PID_FILE}; exec {machine.DAEMON}", check=True, env={"LD_PRELOAD": ""}
    )
    wait_for(machine.daemon_pid, what="the daemon")
    assert machine.texts("kestcrond") == []


def test_init_failure_leaves_the_pid_file(machine):
    machine.write("/tmp/kestcrond", "in the way")
    assert machine.start() == 0, "the starting process has already ended"
    machine.wait_for_text("init daemon failed")
    wait_for(lambda: not machine.daemon_pid())
    assert machine.texts("crondaemon") == ["runtime dir (/tmp/kestcrond) create failed"]
    assert machine.read(machine.PID_FILE).strip().isdigit()
    machine.path("/tmp/kestcrond").unlink()
    machine.start_and_wait()


def limits(machine, pid):
    """Name to (soft, hard) limit of a process."""
    lines = machine.proc(pid, "limits").read_text().splitlines()[1:]
    return {line[:26].strip(): tuple(line[26:].split()[:2]) for line in lines}


def test_inherited_limits_are_reset(machine):
    machine.template(maxDelay=0)
    machine.write(
        "/usr/local/bin/limits",
        "#!/bin/sh\ncat /proc/self/limits > /tmp/ran/limits.new\n" "mv /tmp/ran/limits.new /tmp/ran/limits\n",
        0o755,
    )
    machine.jobs("builtin", "f", [every_minute("x", cmd="/usr/local/bin/limits")])
    machine.run(
        "bash", "-c", f"ulimit -S -f 0 -n 20; ulimit -S -c unlimited; exec {machine.DAEMON}", env={"LD_PRELOAD": ""}
    )  # the preloaded clock writes to a file of its own
    pid = wait_for(machine.daemon_pid, what="the daemon")
    found = limits(machine, pid)
    assert found["Max file size"] == ("unlimited", "unlimited")
    assert found["Max core file size"][0] == "0"
    assert int(found["Max open files"][0]) >= 1024 and int(found["Max open files"][1]) >= 4096
    assert signal.SIGXFSZ in signals(machine, pid, "SigIgn")
    job = wait_for(lambda: machine.read("/tmp/ran/limits"), what="the limits that the job prints")
    for name, (soft, hard) in found.items():
        assert re.search(rf"^{name} +{soft} +{hard} ", job, re.M), name


def test_a_file_size_limit_does_not_end_the_daemon(machine):
    """A write beyond the limit fails as on a full disk."""
    pid = machine.start_and_wait()
    machine.run("prlimit", f"--pid={pid}", "--fsize=10:10", check=True, env={"LD_PRELOAD": ""})
    machine.signal(signal.SIGHUP)
    machine.wait_for_text("schedule template config save failed (/var/run/kestcrond.st.config)")
    assert machine.daemon_pid() == pid


@pytest.mark.native(reason="strace shows the system calls of the emulator")
def test_the_daemon_never_waits_for_random_numbers(machine):
    """Early in the boot of a board it may be long until the kernel can supply random numbers."""
    machine.jobs("builtin", "f", [{"name": "x", "user": "root", "period": "d", "cmd": "/usr/bin/true"}])
    machine.start_traced("-e", "trace=getrandom", "-o", "/tmp/calls")
    wait_for(lambda: machine.exists(machine.RUNTIME_TEMPLATE))
    calls = [line for line in machine.read("/tmp/calls").splitlines() if "getrandom(" in line]
    assert calls and all("GRND_NONBLOCK" in call or "GRND_INSECURE" in call for call in calls)


def test_boards_without_random_numbers_still_draw(machine):
    machine.start_with_faults("getrandom:error=EAGAIN")
    wait_for(lambda: machine.exists(machine.RUNTIME_TEMPLATE))
    first = machine.document(machine.RUNTIME_TEMPLATE)["schedule"]
    machine.stop()
    machine.path(machine.RUNTIME_TEMPLATE).unlink()
    machine.path("/usr/kest/etc/kestcrond.st.config").unlink()
    machine.write("/etc/machine-id", "0123456789abcdef0123456789abcdef\n")
    machine.start_with_faults("getrandom:error=EAGAIN")
    wait_for(lambda: machine.exists(machine.RUNTIME_TEMPLATE))
    assert machine.document(machine.RUNTIME_TEMPLATE)["schedule"] != first
    assert machine.texts() == []


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


def test_a_stop_ends_the_wait_between_cycles(machine):
    machine.clock("2026-06-02 02:00:10", rate=1)
    pid = machine.start_and_wait()
    started = time.monotonic()
    machine.stop()
    assert time.monotonic() - started < 20, "must not take the rest of the minute"
    assert pid not in machine.processes()


# Sends the signal right before the wait, when the daemon has already decided to wait.
LATE_SIGNAL = """
#define _GNU_SOURCE
#include <dlfcn.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/select.h>
#include <unistd.h>
static void send_once(void) {
    static int count;
    if (++count == 1)
        kill(getpid(), SIGTERM);
}
unsigned sleep(unsigned seconds) {
    send_once();
    return ((unsigned (*)(unsigned))dlsym(RTLD_NEXT, "sleep"))(seconds);
}
int pselect(int count, fd_set *readable, fd_set *writable, fd_set *exceptional,
            const struct timespec *timeout, const sigset_t *mask) {
    send_once();
    return ((int (*)(int, fd_set *, fd_set *, fd_set *, const struct timespec *, const sigset_t *))
            dlsym(RTLD_NEXT, "pselect"))(count, readable, writable, exceptional, timeout, mask);
}
"""


@pytest.mark.native(reason="the preloaded library is built for the host")
def test_a_signal_right_before_the_wait_is_not_lost(machine, tmp_path):
    (tmp_path / "late.c").write_text(LATE_SIGNAL)
    subprocess.run(["gcc", "-shared", "-fPIC", "-o", tmp_path / "late.so", tmp_path / "late.c"], check=True)
    machine.write("/usr/local/lib/late.so", (tmp_path / "late.so").read_bytes(), 0o755)
    machine.clock("2026-06-02 02:10:10", rate=1)
    clock = machine.environment["LD_PRELOAD"]
    machine.start_and_wait(env={"LD_PRELOAD": "/usr/local/lib/late.so:" + clock})
    wait_for(lambda: not machine.daemons(), 30, "the daemon to end before a whole minute has passed")


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
    assert message.text == ("Unable to clean pid file No such file or directory " "(No such file or directory)")
    assert message.priority == "err" and message.program == "kestcrond"
    assert message.facility == 1, "user messages"


def test_close_stdio_failure(machine):
    machine.path("/dev/null").unlink()
    result = machine.run("bash", "-c", f"{machine.DAEMON}; echo $? > /tmp/status")
    assert machine.read("/tmp/status") == "255\n", result
    assert machine.texts("kestcrond") == ["Close stdio failed"]


def test_a_pid_file_that_cannot_be_created_ends_the_start(machine):
    machine.path(machine.PID_FILE).mkdir()
    assert machine.start() == 0, "the starting process has already ended"
    machine.wait_for_text("become_daemon failed")
    wait_for(lambda: not machine.daemons())


def test_messages_name_their_source_line(machine):
    machine.start_and_wait()
    machine.start()
    source = os.path.dirname(__file__) + "/../../src/daemon/kestcrond.cpp"
    message = machine.messages("kestcrond")[0]
    with open(source, encoding="utf-8") as file:
        line = file.read().splitlines()[message.line - 1]
    assert '"Daemon is running"' in line


def test_messages_contain_no_stale_errors(machine):
    machine.jobs("builtin", "f", [never("x", period="yearly")])
    machine.start_and_wait()
    machine.reload()
    messages = machine.messages(priority="err")
    assert [message.plain() for message in messages] == 2 * [
        "error period",
        "parse error",
        "Job JSON format error: /usr/kest/share/kestcron.d/f",
    ]
    # A preloaded clock or a sanitizer may leave other errors. Errors of the daemon itself would be
    # that of a missing directory which it created, and of the sleep that the signal interrupted.
    own = (os.strerror(errno.ENOENT), os.strerror(errno.EINTR))
    assert not [message for message in messages if message.text.endswith(tuple(f"({e})" for e in own))]
