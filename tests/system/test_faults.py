"""Failing system calls: each is reported and affects nothing else."""

import re
import signal

import pytest
from tests.lib.appliance import PERSISTENT_FILE, PERSISTENT_TEMPLATE, RECORD, every_minute, never
from tests.lib.private_machine import wait_for

LOG_FILE = "/var/log/kestcrond-execute.log"
STAGING = "/tmp/kestcrond.log"


@pytest.fixture(autouse=True)
def at_once(machine):
    machine.template(maxDelay=0)


def ticks(machine, count):
    """Waits until the job that runs in every cycle has run `count` more times."""
    before = len(machine.runs("builtin-t-tick"))
    wait_for(lambda: len(machine.runs("builtin-t-tick")) >= before + count, what="cycles")


@pytest.fixture(name="tick")
def add_tick(machine):
    machine.jobs("builtin", "t", [every_minute("tick")])
    return lambda count=2: ticks(machine, count)


# --- Start --------------------------------------------------------------------------------------


@pytest.mark.native(reason="strace shows the system calls of the emulator")
def test_a_start_without_a_process_fails(machine):
    assert machine.start_with_faults("fork,vfork,clone,clone3:error=EAGAIN") == 255
    assert machine.texts() == ["become_daemon failed"]
    assert not machine.exists(machine.PID_FILE)


@pytest.mark.parametrize(
    "file,fault,text",
    [
        ("comm", "open,openat:error=EACCES", "Unable to XLIBCProcGetByPid [1][0x0100 kestcore.cpp:"),
        ("comm", "read:retval=0", "Unable to XLIBCProcGetByPid [1][0x0100 kestcore.cpp:"),
    ],
)
def test_a_process_without_a_readable_name(machine, file, fault, text):
    machine.write(machine.PID_FILE, "1\n")
    assert machine.start_with_faults(fault, path=f"/proc/1/{file}") == 0
    wait_for(lambda: machine.daemon_pid() > 1, what="the start")
    assert machine.texts("kestcrond")[0].startswith(text)


def test_a_process_without_a_name(machine):
    # The kernel shows an empty name as a single newline.
    holder = machine.popen(
        "/usr/bin/python3",
        "-c",
        "import ctypes, time\n" "ctypes.CDLL(None).prctl(15, b'')\n" "open('/run/named', 'w').close()\ntime.sleep(600)",
        env={"LD_PRELOAD": ""},
    )
    wait_for(lambda: machine.exists("/run/named"))
    (pid,) = (pid for pid, process in machine.processes().items() if process["name"] == "")
    machine.write(machine.PID_FILE, f"{pid}\n")
    machine.start_and_wait()
    assert machine.texts("kestcrond") == [f"Unable to get cmd [{pid}][0x0000 :0]"]
    holder.kill()


@pytest.mark.native(reason="strace shows the system calls of the emulator")
def test_a_pid_file_without_a_readable_status_ends_the_start(machine):
    machine.start_with_faults("fstat,newfstatat:error=EIO", path=machine.PID_FILE)
    machine.wait_for_text("become_daemon failed")
    wait_for(lambda: not machine.daemons())


def test_a_random_source_that_is_interrupted(machine, tick):
    machine.start_with_faults("getrandom:error=EINTR:when=1..20")
    tick()
    assert machine.texts() == []


def test_an_old_kernel_draws_from_the_device(machine, tick):
    schedules = []
    for _ in range(2):
        machine.path(PERSISTENT_TEMPLATE).unlink()
        machine.start_with_faults("getrandom:error=ENOSYS")
        wait_for(lambda: machine.exists(machine.RUNTIME_TEMPLATE))
        schedules.append(machine.document(machine.RUNTIME_TEMPLATE)["schedule"])
        tick()
        machine.stop()
        machine.path(machine.RUNTIME_TEMPLATE).unlink()
    assert machine.texts() == []
    assert schedules[0] != schedules[1]


@pytest.mark.parametrize(
    "owner,fault,text",
    [
        (None, "mkdir,mkdirat:error=ENOSPC", "runtime dir (/tmp/kestcrond) create failed"),
        ("alice", "rename,renameat,renameat2:error=EROFS", "runtime dir (/tmp/kestcrond) create failed"),
        ("root", "chmod,fchmodat,fchmod:error=EROFS", "Failed to chmod [/tmp/kestcrond][Read-only file system]"),
    ],
)
def test_a_runtime_directory_that_cannot_be_prepared(machine, owner, fault, text):
    if owner:
        machine.path("/tmp/kestcrond").mkdir()
        machine.chown(machine.path("/tmp/kestcrond"), owner)
    machine.start_with_faults(fault, path="/tmp/kestcrond" if owner == "root" else None)
    machine.wait_for_text("init daemon failed")
    assert machine.texts("crondaemon") == [text]


# --- Watching and sources -----------------------------------------------------------------------


def test_changes_without_inotify_events(machine, tick):
    machine.start_with_faults("select,pselect6:error=ENOMEM")
    machine.wait_for_text("Failed to select inotify", count=2)
    tick()
    machine.account_directory("alice")
    tick()
    assert machine.loads() == 1


@pytest.mark.native(reason="strace shows the system calls of the emulator")
def test_a_signal_during_change_detection_is_not_a_failure(machine):
    machine.jobs("builtin", "f", [never("x")])
    machine.start_with_faults("select,pselect6:error=EINTR:when=1")
    wait_for(lambda: machine.exists(machine.RUNTIME_TEMPLATE))
    machine.reload()
    assert machine.texts() == []


def test_an_account_source_that_cannot_be_opened(machine, tick):
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    machine.start_with_faults("open,openat:error=EMFILE", path="/usr/local/etc/kestcron_nonroot.d")
    tick()
    assert list(machine.entries()) == ["builtin-t-tick"]
    assert machine.texts() == ["open directory failed.", "js ser job (/usr/local/etc/kestcron_nonroot.d) loaded failed"]


def test_an_account_source_that_cannot_be_watched(machine, tick):
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    machine.start_with_faults("inotify_add_watch:error=ENOSPC")
    tick()
    assert list(machine.entries()) == ["builtin-t-tick"]
    assert machine.texts() == [
        "Failed to listen /usr/local/etc/kestcron_nonroot.d",
        "Failed to register /usr/local/etc/kestcron_nonroot.d",
        "js ser job (/usr/local/etc/kestcron_nonroot.d) loaded failed",
    ]


@pytest.mark.parametrize("fault", ["open,openat:error=EACCES", "open,openat:error=EIO", "read:error=EIO"])
def test_a_job_file_that_cannot_be_read(machine, tick, fault):
    file = "/usr/local/etc/kestcron.d/unreadable"
    machine.jobs("pkg", "unreadable", [never("x")])
    machine.jobs("pkg", "zz", [never("x")])
    machine.start_with_faults(fault, path=file)
    tick()
    assert set(machine.entries()) == {"builtin-t-tick", "pkg-zz-x"}
    assert machine.texts() == [f"JSON file read error: {file}"]


# --- Staging ------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "faults,texts",
    [
        (
            ["chown,fchown,lchown,fchownat:error=EPERM"],
            [
                "Failed to chown [/tmp/kestcrond/pkg-f-x][alice][Operation not permitted]",
                "Failed to chown if permissions are incorrect [/tmp/kestcrond/pkg-f-x]",
            ],
        ),
        (
            ["chmod,fchmod,fchmodat:error=EROFS:when=2"],  # the first call is for the other job
            ["Failed to chmod [/tmp/kestcrond/pkg-f-x][Read-only file system]"],
        ),
    ],
)
def test_a_copy_whose_owner_or_mode_cannot_be_set(machine, tick, faults, texts):
    machine.jobs("pkg", "f", [never("x", user="package", package_username="alice")])
    machine.start_with_faults(*faults, path="/tmp/kestcrond/.staging/taken")
    tick()
    assert list(machine.entries()) == ["builtin-t-tick"]
    assert machine.texts() == texts + ["MoveBinaryToTmp failed."]


@pytest.mark.native(reason="the emulator does not report that a program could not be started")
def test_a_program_that_is_removed_while_it_is_checked(machine, tick):
    machine.write("/usr/local/bin/odd", "#!/bin/sh\n", 0o755)
    machine.jobs("pkg", "f", [never("x", cmd="/usr/local/bin/odd")])
    machine.start_with_faults("stat,newfstatat:error=ENOENT:when=2", path="/usr/local/bin/odd")
    tick()
    assert machine.texts() == [
        "Failed to cp [/usr/local/bin/odd][/tmp/kestcrond/pkg-f-x][0x0000 :0]",
        "MoveBinaryToTmp failed.",
    ]


# --- Execution ----------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "step,call,kept",
    [
        ("initgroups", "setgroups", "alice alice"),
        ("setgid", "setgid", "alice root"),
        ("setuid", "setuid", "root alice"),
    ],
)
def test_a_failed_change_to_the_account_is_logged(machine, step, call, kept):
    machine.clock("2026-06-02 02:10:10", rate=0)  # one start, whose lines are adjacent
    machine.jobs("pkg", "f", [every_minute("x", user="package", package_username="alice")])
    machine.start_with_faults(f"{call}:error=EPERM")
    assert wait_for(lambda: machine.runs("pkg-f-x"))[0] == f"{kept} []"
    lines = [line.split(" ", 1)[1] for line in machine.log_lines()]
    assert lines[0].startswith(f"running job: pkg-f-x with command: {RECORD} as user alice (")
    assert lines[1] == f"Failed to {step} forpkg-f-x for user alice[Operation not permitted]"


# --- The execution log --------------------------------------------------------------------------


def test_a_full_log_is_truncated_to_whole_lines(machine, tick):
    machine.run("mount", "-t", "tmpfs", "-o", "size=8k", "tmpfs", "/var/log", check=True, env={"LD_PRELOAD": ""})
    machine.write(LOG_FILE, ("x" * 99 + "\n") * 81)  # 92 bytes are free: less than a line
    before = machine.read(LOG_FILE)
    machine.start_and_wait()
    machine.wait_for_text(f"Failed to write [{LOG_FILE}]", count=2)
    tick()
    wait_for(lambda: machine.read(LOG_FILE) == before, what="whole lines")


@pytest.mark.native(reason="strace shows the system calls of the emulator")
@pytest.mark.parametrize("fault", ["fstat,newfstatat:error=EIO:when=1", "write:error=ENOSPC"])
def test_a_log_that_cannot_be_written(machine, tick, fault):
    machine.start_with_faults(fault, path=LOG_FILE)
    machine.wait_for_text(f"Failed to write [{LOG_FILE}]")
    tick()
    assert machine.log_lines() == []
    # The staging file exists until the end of the flush.
    wait_for(lambda: not machine.exists(STAGING), what="the end of a flush")


def test_a_failure_line_that_cannot_be_written(machine):
    machine.write("/usr/local/bin/odd", "", 0o755)
    machine.jobs("pkg", "f", [every_minute("x", user="package", package_username="alice", cmd="/usr/local/bin/odd")])
    machine.start_with_faults("write:error=ENOSPC:when=2", path=LOG_FILE)
    machine.wait_for_text(f"Failed to write [{LOG_FILE}]")
    assert all(" as user alice (" in line for line in machine.log_lines())


@pytest.mark.parametrize(
    "fault,text",
    [("write:error=ENOSPC", f"Failed to write [{STAGING}]"), ("read:error=EIO", f"Failed to read [{STAGING}]")],
)
def test_failures_to_write_and_to_read_the_staging_file_are_distinguished(machine, tick, fault, text):
    machine.start_with_faults(fault, path=STAGING)
    machine.wait_for_text(text)
    tick()
    assert set(machine.texts()) == {text}


def test_a_log_whose_mode_cannot_be_set(machine, tick):
    machine.start_with_faults("fchmod:error=EPERM", path=LOG_FILE)
    machine.wait_for_text("Failed [chmod(_strLogPath.c_str(), 0600)], err=Operation not permitted")
    tick()
    assert machine.log_lines()


def test_a_log_that_cannot_be_locked_is_still_written(machine, tick):
    machine.start_with_faults("flock:error=ENOLCK")
    tick(3)
    wait_for(lambda: len(machine.log_lines()) >= 3)
    assert machine.texts() == []


@pytest.mark.parametrize(
    "fault,path,text",
    [
        ("rename,renameat2:error=EROFS", None, "open memory logger failed"),
        ("open,openat:error=EMFILE", STAGING, "Failed [!fsMem], err=Too many open files"),
    ],
)
def test_a_staging_file_that_cannot_be_used(machine, tick, fault, path, text):
    machine.path("/tmp/kestcrond").mkdir()  # programs are moved into place by another system call
    machine.start_with_faults(fault, path=path)
    machine.wait_for_text(text)
    tick()
    wait_for(lambda: not list(machine.path("/tmp").glob("kestcrond.log.*")), what="the end of a flush")


# --- The clock ----------------------------------------------------------------------------------


def test_a_time_without_a_calendar(machine):
    machine.environment["FAKETIME"] = "+2500000000y x60"
    machine.jobs("builtin", "f", [never("x", assure_execute=1), never("y")])
    machine.start_and_wait()
    machine.wait_for_text("Failed to get localtime. Not regenerating.", count=3)
    machine.wait_for_text("Failed to get localtime", count=3)
    assert machine.daemon_pid()


def test_a_launch_at_a_time_without_a_calendar(machine):
    machine.start_and_wait()
    machine.stop()
    machine.jobs("builtin", "f", [never("x", assure_execute=1)])
    machine.start_and_wait()
    machine.stop()
    machine.environment["FAKETIME"] = "+2500000000y x60"
    machine.start_and_wait()
    machine.wait_for_text("Failed to get localtime. Not able to format date.")
    line = f"running job: builtin-f-x with command: {RECORD} as user root " "(state[AssureExecute], trig[])"
    wait_for(lambda: line in machine.log_lines(), what=line)


# --- Memory -------------------------------------------------------------------------------------

# Smaller than the limit of a job file, and much larger in memory.
GREEDY = '{"name":"x","user":"root","period":"daily","cmd":"true","list":[' + "0," * 500000 + "0]}"


@pytest.fixture(name="plain")
def skip_sanitizers(machine):
    """The address sanitizer reserves more address space than any limit allows."""
    if machine.is_sanitized():
        pytest.skip("needs a limit on the address space")


def limit_memory(machine, pid, megabytes):
    """Limits the address space of the process to its present size plus `megabytes`."""
    size = re.search(r"VmSize:\s+(\d+) kB", machine.proc(pid, "status").read_text())[1]
    limit = int(size) * 1024 + megabytes * 2**20
    machine.run("prlimit", "--pid", pid, f"--as={limit}", check=True, env={"LD_PRELOAD": ""})


@pytest.mark.native(reason="the memory includes that of the emulator")
@pytest.mark.usefixtures("plain")
def test_memory_that_runs_out_at_the_start(machine):
    machine.write("/usr/local/etc/kestcron.d/greedy", GREEDY)
    machine.run("prlimit", "--as=60000000", machine.DAEMON)
    machine.wait_for_text("caught a std::exception: std::bad_alloc")
    wait_for(lambda: not machine.daemons())
    assert machine.read(machine.PID_FILE).strip().isdigit(), "the pid file stays after a failed start"


@pytest.mark.native(reason="the memory includes that of the emulator")
@pytest.mark.usefixtures("plain")
def test_memory_that_runs_out_while_running(machine):
    machine.path("/usr/kest/etc/kestcrond.st.config").unlink()
    machine.jobs("builtin", "f", [never("x")])
    pid = machine.start_and_wait()
    machine.write("/usr/local/etc/kestcron.d/greedy", GREEDY)
    limit_memory(machine, pid, 40)
    machine.signal(signal.SIGHUP)
    machine.wait_for_text("caught a std::exception: std::bad_alloc")
    wait_for(lambda: not machine.daemons())
    assert not machine.exists(machine.PID_FILE)
    assert set(machine.document(PERSISTENT_FILE)["jobs"]) == {"builtin-f-x"}, "the known jobs are saved"
    assert machine.exists(PERSISTENT_TEMPLATE)


@pytest.mark.native(reason="the memory includes that of the emulator")
@pytest.mark.usefixtures("plain")
def test_memory_that_runs_out_in_a_cycle(machine):
    """At the top of the hour there is not enough memory to write the documents. With the low threshold
    each large block is allocated from the system."""
    machine.clock("2026-06-02 02:55:10")
    machine.template(maxDelay=0)
    for file in range(8):
        machine.jobs("builtin", f"g{file}", [never("large", extra="x" * 1000000)])
    machine.jobs("builtin", "f", [every_minute("tick")])
    pid = machine.start_and_wait(env={"GLIBC_TUNABLES": "glibc.malloc.mmap_threshold=65536"})
    wait_for(lambda: machine.runs("builtin-f-tick"))
    limit_memory(machine, pid, 1)
    # A busy machine may skip the first minute of an hour.
    machine.wait_for_text("caught a std::exception: std::bad_alloc", seconds=150)
    wait_for(lambda: not machine.exists(machine.PID_FILE))
    jobs = machine.document(PERSISTENT_FILE)["jobs"]
    assert len(jobs) == 9
    assert jobs["builtin-f-tick"]["lastExecution"] > 0
    assert not machine.exists(PERSISTENT_FILE + ".new")


@pytest.mark.native(reason="the memory includes that of the emulator")
@pytest.mark.usefixtures("plain")
@pytest.mark.parametrize("megabytes", range(6, 30, 3))
def test_memory_that_runs_out_during_a_load(machine, megabytes):
    machine.template(maxDelay=0)
    machine.jobs(
        "builtin", "f", [never(f"{number}", extra="x" * 10000) for number in range(100)] + [every_minute("tick")]
    )
    pid = machine.start_and_wait()
    wait_for(lambda: machine.runs("builtin-f-tick"))
    for number in range(4):
        machine.jobs("pkg", f"f{number}", [never(f"{i}", cmd="/usr/bin/true", extra="x" * 10000) for i in range(100)])
    limit_memory(machine, pid, megabytes)
    machine.signal(signal.SIGHUP)
    wait_for(lambda: not machine.daemon_pid() or len(machine.entries()) == 501 and machine.is_between_cycles())
    if machine.daemon_pid():
        machine.stop()
    jobs = machine.document(PERSISTENT_FILE)["jobs"]
    assert len(jobs) in (101, 501), "either all jobs before the load or all jobs after it"
    assert jobs["builtin-f-tick"]["lastExecution"] > 0
