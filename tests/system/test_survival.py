"""What the daemon must survive: sudden ends, full disks, failing writes, odd clocks and missing
services."""

import datetime
import json
import os
import random
import re
import signal
import socket
import time

import pytest
from tests.lib.appliance import PERSISTENT_FILE, PERSISTENT_TEMPLATE, RECORD, SOURCES, every_minute, never
from tests.lib.private_machine import Message, wait_for

DOCUMENTS = ["/run/kestcrond.config", PERSISTENT_FILE]
TEMPLATES = ["/run/kestcrond.st.config", PERSISTENT_TEMPLATE]


@pytest.fixture(autouse=True)
def at_once(machine):
    machine.template(maxDelay=0)


@pytest.fixture
def killing(machine):
    """Allows daemons to be killed: the leak check of the sanitizer, at the end of the starting process,
    would report that it was interrupted."""
    machine.environment["ASAN_OPTIONS"] += ":detect_leaks=0"


def kill_all(machine):
    machine.run("pkill", "-KILL", "-x", "kestcrond", env={"LD_PRELOAD": ""})
    wait_for(lambda: not machine.daemons())


# --- Sudden ends --------------------------------------------------------------------------------

OLD = [every_minute("tick"), never("same"), never("x", cmd=RECORD + " old")]
NEW = [every_minute("tick"), never("same"), never("x", cmd=RECORD + " new"), never("y")]


def expect_whole(machine):
    """Every document is either the old one or the new one, never a part."""
    for path in DOCUMENTS:
        if machine.exists(path):
            jobs = machine.document(path).get("jobs", {})
            commands = {(name, entry["cmd_str"]) for name, entry in jobs.items()}
            # A job is left out if its copy was killed.
            assert any(
                commands <= {(f"builtin-f-{job['name']}", job["cmd"]) for job in jobs} for jobs in (OLD, NEW)
            ), path
    for path in TEMPLATES:
        if machine.exists(path):
            assert machine.document(path)["config"]["name"] == "scheduleTemplate", path
    for line in machine.read(machine.LOG_FILE).splitlines(keepends=True):
        assert line.count(" running job: builtin-f-tick with command: ") == 1
        # A waiting job of the killed daemon may start while its program is copied again.
        assert line.endswith(
            (")\n", ", error: No such file or directory\n", ", error: Text file busy\n", ", error: Exec format error\n")
        )


def expect_normal_start(machine):
    machine.jobs("builtin", "f", NEW)
    machine.start_and_wait()
    runs = len(machine.runs("builtin-f-tick"))
    wait_for(lambda: len(machine.runs("builtin-f-tick")) > runs)
    assert set(machine.entries()) == {"builtin-f-tick", "builtin-f-same", "builtin-f-x", "builtin-f-y"}
    allowed = (
        "removed modified jobs: builtin-f-x",
        "removed cleared jobs: builtin-f-y",
        "Failed to select inotify",
        "Failed to cp ",
        "MoveBinaryToTmp failed.",
    )
    assert all(text.startswith(allowed) for text in machine.texts())


@pytest.mark.usefixtures("killing")
@pytest.mark.parametrize("seed", range(4))
def test_a_kill_at_any_moment(machine, seed):
    chance = random.Random(seed)
    machine.clock("2026-06-02 02:10:10", rate=600)
    for turn in range(30):
        machine.jobs("builtin", "f", NEW if turn % 2 else OLD)
        machine.start()
        if chance.random() < 0.8:
            wait_for(lambda: machine.daemon_pid())
            time.sleep(chance.random() * 0.05)
            for number in chance.choices([signal.SIGHUP, signal.SIGTERM], [3, 1], k=2):
                machine.run("pkill", f"-{int(number)}", "-x", "kestcrond", env={"LD_PRELOAD": ""})
        time.sleep(chance.random() * 0.03)
        kill_all(machine)
        expect_whole(machine)
    machine.clock("2026-06-02 02:10:10")
    expect_normal_start(machine)


@pytest.mark.usefixtures("killing")
@pytest.mark.parametrize(
    "calls", ["open,openat", "write", "rename,renameat,renameat2", "unlink", "close", "fsync", "read"]
)
@pytest.mark.parametrize("phase", ["start", "stop"])
def test_a_kill_at_each_step(machine, phase, calls):
    chance = random.Random(calls + phase)
    machine.jobs("builtin", "f", OLD)
    machine.start_and_wait()
    machine.stop()
    machine.jobs("builtin", "f", NEW)
    for number in sorted(chance.sample(range(1, 60), 8)) if calls != "fsync" else range(1, 5):
        machine.path(machine.RUNTIME_TEMPLATE).unlink(missing_ok=True)
        machine.start_with_faults(f"{calls}:signal=KILL:when={number}")
        wait_for(lambda: not machine.daemons() or machine.exists(machine.RUNTIME_TEMPLATE))
        if phase == "stop":
            machine.run("pkill", "-TERM", "-x", "kestcrond", env={"LD_PRELOAD": ""})
            wait_for(lambda: not machine.daemons())
        kill_all(machine)
        expect_whole(machine)
    expect_normal_start(machine)


# --- Disks --------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "fault",
    ["open,openat:error=ENOSPC", "write:error=ENOSPC", "fsync:error=EIO", "fchmod:error=EIO", "close:error=EIO"],
)
@pytest.mark.parametrize("file", [PERSISTENT_FILE, PERSISTENT_TEMPLATE])
def test_a_save_that_fails_keeps_the_old_document(machine, fault, file):
    machine.jobs("builtin", "f", OLD)
    machine.start_and_wait()
    machine.stop()
    before = {path: machine.read(path) for path in (PERSISTENT_FILE, PERSISTENT_TEMPLATE)}
    machine.jobs("builtin", "f", NEW)
    loads = machine.loads()
    machine.start_with_faults(fault, path=file + ".new")
    wait_for(lambda: machine.loads() > loads)
    machine.run("pkill", "-TERM", "-x", "kestcrond", env={"LD_PRELOAD": ""})
    wait_for(lambda: not machine.daemons())
    kind = "runtime" if file == PERSISTENT_FILE else "schedule template"
    assert machine.texts() == ["removed modified jobs: builtin-f-x", f"{kind} config save failed ({file})"]
    assert machine.read(file) == before[file]
    assert not machine.exists(file + ".new")
    if file == PERSISTENT_FILE:
        assert machine.read(PERSISTENT_TEMPLATE) != "", "the other one must be saved"


@pytest.mark.parametrize(
    "directory,fault",
    [
        ("/var/run", "open,openat:error=ENOSPC"),
        ("/var/run", "rename,renameat,renameat2:error=EIO"),
        # The path of a descriptor contains no links.
        ("/run", "write:error=ENOSPC"),
        ("/run", "fchmod:error=EIO"),
        ("/run", "close:error=EIO"),
    ],
)
@pytest.mark.parametrize("file", ["kestcrond.config", "kestcrond.st.config"])
def test_a_runtime_document_that_cannot_be_written_stays(machine, directory, fault, file):
    machine.jobs("builtin", "f", OLD)
    machine.start_and_wait()
    machine.stop()
    before = machine.read(f"/run/{file}")
    machine.jobs("builtin", "f", NEW)
    machine.start_with_faults(fault, path=f"{directory}/{file}.new")
    runs = len(machine.runs("builtin-f-tick"))
    wait_for(lambda: len(machine.runs("builtin-f-tick")) >= runs + 2)
    kind = "runtime" if file == "kestcrond.config" else "schedule template"
    assert machine.texts() == ["removed modified jobs: builtin-f-x", f"{kind} config save failed (/var/run/{file})"]
    assert machine.read(f"/run/{file}") == before
    assert not machine.exists(f"/run/{file}.new")


@pytest.mark.parametrize("read_only", [False, True])
def test_a_document_that_cannot_be_replaced_is_overwritten(machine, read_only):
    """A bind mount, as a machine with a read-only root has it for persistent files."""
    machine.jobs("builtin", "f", OLD)
    saved = {path: f"/srv/{path.rpartition('/')[2]}" for path in (PERSISTENT_FILE, PERSISTENT_TEMPLATE)}
    mount = lambda *options: machine.run("mount", *options, check=True, env={"LD_PRELOAD": ""})
    for path, kept in saved.items():
        machine.write(kept, machine.read(path) or json.dumps({"jobs": {}, "long": "x" * 20000}))
        machine.path(path).touch()
    if read_only:
        mount("--bind", "/usr/kest/etc", "/usr/kest/etc")
        mount("-o", "remount,bind,ro", "/usr/kest/etc")
    for path, kept in saved.items():
        mount("--bind", kept, path)
    machine.start_and_wait()
    wait_for(lambda: machine.runs("builtin-f-tick"))
    machine.stop()
    assert [text for text in machine.texts() if "save failed" in text] == []
    entries = json.loads(machine.read("/srv/kestcrond.config"))["jobs"]
    assert entries["builtin-f-tick"]["lastExecution"] > 0
    assert json.loads(machine.read("/srv/kestcrond.st.config"))["config"]
    assert not machine.exists(PERSISTENT_FILE + ".new")


def test_documents_keep_their_owner_and_group(machine):
    machine.jobs("builtin", "f", OLD)
    for path in (*DOCUMENTS, *TEMPLATES):
        content = machine.read(path) or "{}"
        machine.write(path, content, 0o640)
        os.chown(machine.path(path), 2001, 3001)
    machine.run(machine.DAEMON, check=True)
    wait_for(lambda: machine.runs("builtin-f-tick"))
    machine.stop()
    for path in (*DOCUMENTS, *TEMPLATES):
        status = machine.path(path).stat()
        assert (status.st_uid, status.st_gid, status.st_mode & 0o7777) == (2001, 3001, 0o640), path
        assert machine.document(path) != {}


# --- Documents that cannot be read --------------------------------------------------------------


@pytest.mark.parametrize("broken", ['{"jobs": {', "[]", "\xff\n"])
def test_a_document_that_cannot_be_read_is_kept(machine, ctl, broken):
    machine.jobs("builtin", "f", OLD)
    machine.write(PERSISTENT_FILE, broken)
    machine.write(PERSISTENT_TEMPLATE, broken)
    machine.start_and_wait()
    machine.stop()
    for path in (PERSISTENT_FILE, PERSISTENT_TEMPLATE):
        assert machine.read(path + ".unreadable") == broken
        assert machine.document(path)
    assert [
        text for text in machine.texts() if not text.startswith(("schedule template config load", "Failed", "crontab"))
    ] == []
    assert ctl.json("status")[1]["unreadable"] == [PERSISTENT_FILE + ".unreadable", PERSISTENT_TEMPLATE + ".unreadable"]
    assert f"{PERSISTENT_FILE}.unreadable (copy of a saved document" in ctl("status").stdout
    # The next unreadable document replaces the kept one, and a readable one does not.
    machine.start_and_wait()
    machine.stop()
    assert machine.read(PERSISTENT_FILE + ".unreadable") == broken
    machine.write(PERSISTENT_FILE, "another")
    machine.start_and_wait()
    machine.stop()
    assert machine.read(PERSISTENT_FILE + ".unreadable") == "another"


@pytest.mark.native(reason="the emulator reads /proc")
def test_without_proc_all_files_are_read(machine):
    if machine.is_sanitized():
        pytest.skip("the address sanitizer does not start without /proc")
    machine.jobs("builtin", "f", OLD)
    machine.write("/srv/job.conf", json.dumps([never("linked")]))
    machine.path(f"{SOURCES['builtin']}/link").symlink_to("/srv/job.conf")
    machine.start_and_wait()
    wait_for(lambda: machine.runs("builtin-f-tick"))
    machine.stop()
    before = machine.document(PERSISTENT_FILE)["jobs"]
    machine.clock("2026-06-02 03:10:10")
    machine.path(machine.RUNTIME_TEMPLATE).unlink()
    # The daemon has its own namespace, in which "/proc" is not mounted.
    machine.run("unshare", "--mount", "bash", "-c", f"umount -l /proc && exec {machine.DAEMON}", check=True)
    wait_for(lambda: machine.exists(machine.RUNTIME_TEMPLATE))
    after = machine.entries()
    assert set(after) == set(before) == {"builtin-f-tick", "builtin-f-same", "builtin-f-x", "builtin-link-linked"}
    for name in before:
        assert after[name]["startup"] == before[name]["startup"]
    assert not machine.exists(PERSISTENT_FILE + ".unreadable")
    assert machine.texts() == []


# --- Read-only disks ----------------------------------------------------------------------------


def test_a_start_from_a_read_only_disk(machine):
    machine.jobs("builtin-dyn", "f", [every_minute("x")])
    machine.run("mount", "--bind", "/usr/kest/etc", "/usr/kest/etc", check=True, env={"LD_PRELOAD": ""})
    machine.run("mount", "-o", "remount,bind,ro", "/usr/kest/etc", check=True, env={"LD_PRELOAD": ""})
    machine.start_and_wait()
    wait_for(lambda: len(machine.runs("builtin-dyn-f-x")) >= 2)
    assert machine.texts() == []
    machine.stop()
    assert machine.texts() == [
        f"runtime config save failed ({PERSISTENT_FILE})",
        f"schedule template config save failed ({PERSISTENT_TEMPLATE})",
    ]


@pytest.mark.parametrize("directory", ["/usr/kest/etc", "/run", "/tmp", "/var/log"])
def test_a_disk_that_becomes_read_only(machine, directory):
    machine.jobs("builtin", "f", [every_minute("tick", cmd="/usr/bin/touch /home/ran"), never("x")])
    machine.path("/home").mkdir(exist_ok=True)
    pid = machine.start_and_wait()
    machine.run("mount", "--bind", directory, directory, check=True, env={"LD_PRELOAD": ""})
    # This fails while a file there is open for writing.
    wait_for(lambda: machine.run("mount", "-o", "remount,bind,ro", directory, env={"LD_PRELOAD": ""}).returncode == 0)
    for _ in range(3):
        machine.path("/home/ran").unlink(missing_ok=True)
        wait_for(lambda: machine.exists("/home/ran"), what="a run of the job")
    loads = machine.loads()
    machine.signal(signal.SIGHUP)
    wait_for(lambda: machine.loads() > loads)
    assert machine.daemon_pid() == pid
    if directory != "/tmp":  # where programs are staged
        machine.path("/home/ran").unlink(missing_ok=True)
        wait_for(lambda: machine.exists("/home/ran"), what="a run of the job")
    machine.run("mount", "-o", "remount,bind,rw", directory, check=True, env={"LD_PRELOAD": ""})
    machine.reload()
    machine.path("/home/ran").unlink(missing_ok=True)
    wait_for(lambda: machine.exists("/home/ran"), what="a run of the job")
    machine.stop()
    assert set(machine.document(PERSISTENT_FILE)["jobs"]) == {"builtin-f-tick", "builtin-f-x"}


# --- Clocks -------------------------------------------------------------------------------------


def stamps(machine):
    return [line[:25] for line in machine.log_lines()]


@pytest.mark.parametrize(
    "moment",
    ["1970-01-01 00:00:30", "2038-01-19 03:13:30", "2106-02-07 06:27:30", "2400-02-29 23:58:30", "9999-12-31 10:00:30"],
)
def test_any_year(machine, moment):
    machine.jobs("builtin", "f", [every_minute("x"), never("over", assure_execute=1)])
    machine.clock(moment)
    machine.start_and_wait()
    wait_for(lambda: len(machine.log_lines()) >= 5)
    start = datetime.datetime.fromisoformat(moment + "+00:00")
    seen = [datetime.datetime.fromisoformat(stamp) for stamp in stamps(machine)]
    assert start <= min(seen) <= max(seen) <= start + datetime.timedelta(hours=1)
    machine.stop()
    saved = machine.document(PERSISTENT_FILE)["jobs"]["builtin-f-x"]["lastExecution"]
    assert saved >= start.timestamp()
    machine.start_and_wait()
    assert machine.texts() == []


def settable_clock(machine, moment, rate=60):
    """A clock that a test can set while programs run: a file that is read at each query."""
    machine.write("/run/clock", f"@{moment} x{rate}")
    machine.environment.update(
        FAKETIME_TIMESTAMP_FILE="/run/clock", FAKETIME_NO_CACHE="1", FAKETIME_UPDATE_TIMESTAMP_FILE="0"
    )
    machine.environment.pop("FAKETIME", None)


@pytest.mark.parametrize(
    "jump",
    ["2026-06-02 04:10:10", "2026-06-02 00:10:10", "1970-01-01 00:00:10", "2038-01-19 03:14:00", "2106-02-07 06:28:00"],
)
def test_a_clock_that_is_set(machine, jump):
    settable_clock(machine, "2026-06-02 02:10:10")
    machine.jobs("builtin", "f", [every_minute("x"), never("assured", assure_execute=1)])
    pid = machine.start_and_wait()
    wait_for(lambda: len(machine.log_lines()) >= 2)
    settable_clock(machine, jump)
    wait_for(
        lambda: any(stamp.startswith(jump[:13].replace(" ", "T")) for stamp in stamps(machine)[-3:]),
        what="runs at the new time",
    )
    seen = len(machine.log_lines())
    wait_for(lambda: len(machine.log_lines()) >= seen + 3)
    assert machine.daemon_pid() == pid
    # A job is overdue by the clock alone: after an hour without a run, only if it is set forward.
    if jump > "2026-06-02 02:10:10":
        wait_for(lambda: machine.runs("builtin-f-assured"))
    else:
        assert machine.runs("builtin-f-assured") == []
    assert machine.texts() == []


# The clock goes from 02:00 to 03:00, so the hour does not occur. A busy machine may skip minutes of the next.
@pytest.mark.parametrize("job,least,most", [("* 2 * * *", 0, 0), ("1,2,3,4,5 3 * * *", 1, 5)])
def test_an_hour_that_is_skipped(machine, job, least, most):
    machine.clock("2026-03-29 01:50:10", zone="Europe/Berlin")
    machine.jobs("builtin", "f", [every_minute("x", crontab=job), every_minute("tick")])
    machine.start_and_wait()
    wait_for(lambda: len(machine.runs("builtin-f-tick")) >= 18 and len(machine.runs("builtin-f-x")) >= least)
    assert {stamp[19:] for stamp in stamps(machine)} == {"+01:00", "+02:00"}
    assert len(machine.runs("builtin-f-x")) <= most


@pytest.mark.native(reason="a cycle is too short for an emulator")
def test_an_hour_that_is_repeated(machine):
    """The clock goes from 03:00 back to 02:00."""
    machine.clock("2026-10-25 01:57:10", rate=600, zone="Europe/Berlin")
    machine.jobs("builtin", "f", [every_minute("x", crontab="* 2 * * *"), every_minute("tick")])
    machine.start_and_wait()
    wait_for(lambda: machine.log_lines() and stamps(machine)[-1] > "2026-10-25T03:05")
    machine.stop()
    wait_for(lambda: not machine.daemons(), what="the lines of all jobs")

    def launches(job):
        """The times of the starts of the job that were launched in that hour."""
        return [
            line[11:25]
            for line in machine.log_lines()
            if f" running job: builtin-f-{job} " in line and " trig[25 02:" in line
        ]

    assert {stamp[8:] for stamp in launches("x") if stamp < "03"} == {"+02:00", "+01:00"}
    # As often as the job that is always due, except that a minute may end between evaluation and launch.
    assert abs(len(launches("x")) - len(launches("tick"))) <= 2


def test_a_leap_second_changes_nothing(machine):
    # 2016-12-31 had a leap second, which this zone counts.
    if not machine.exists("/usr/share/zoneinfo/right/UTC"):
        pytest.skip("needs the time zones that count leap seconds")
    machine.clock("2016-12-31 23:58:10", zone=":right/UTC")
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    wait_for(lambda: len(machine.log_lines()) >= 4)
    assert machine.texts() == []


def test_a_zone_file_replaced_while_running(machine):
    # Changes the time zone of the machine, as a settings page would.
    machine.write("/etc/localtime", machine.path("/usr/share/zoneinfo/UTC").read_bytes())
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    wait_for(machine.log_lines)
    machine.write("/etc/localtime", machine.path("/usr/share/zoneinfo/Asia/Kathmandu").read_bytes())
    wait_for(lambda: machine.log_lines()[-1][19:25] == "+05:45", what="the new zone")
    assert machine.texts() == []


# --- Missing services ---------------------------------------------------------------------------


def test_without_a_system_log(machine):
    machine.close_system_log()
    machine.jobs("builtin", "f", [every_minute("x"), never("bad", period="yearly")])
    machine.start_and_wait()
    wait_for(lambda: len(machine.runs("builtin-f-x")) >= 2)
    machine.open_system_log()
    machine.signal(signal.SIGHUP)
    machine.wait_for_text("error period")
    machine.stop()


def test_a_blocked_system_log(machine):
    machine.close_system_log()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as unread:
        unread.bind(str(machine.path("/dev/log")))
        # Far more messages than the socket can hold.
        machine.jobs("builtin", "f", [every_minute("x"), *[never(f"bad{i}", period="yearly") for i in range(2000)]])
        machine.start_and_wait()
        wait_for(lambda: len(machine.runs("builtin-f-x")) >= 3, what="runs of the job without a log")
        pid = machine.daemon_pid()
        machine.signal(signal.SIGTERM)
        wait_for(lambda: pid not in machine.processes())
    assert "builtin-f-x" in machine.document(PERSISTENT_FILE)["jobs"]


def read_all(log, machine, wanted, seconds=30):
    """Reads a log until it contains the message `wanted`. Returns all its messages."""
    texts = []
    log.setblocking(False)

    def more():
        try:
            while True:
                texts.append(Message(log.recv(1 << 20).decode()).plain())
        except BlockingIOError:
            return wanted in texts

    wait_for(more, seconds, wanted)
    return texts


def test_a_slow_system_log_receives_all_messages_in_order(machine):
    machine.close_system_log()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as slow:
        slow.bind(str(machine.path("/dev/log")))
        names = [f"bad{i:03}" for i in range(100)]
        machine.jobs(
            "builtin", "f", [every_minute("x"), *[every_minute(name, crontab=f"0 0 {name} * *") for name in names]]
        )
        machine.start_and_wait()
        wait_for(lambda: len(machine.runs("builtin-f-x")) >= 3, what="runs of the job without a log")
        machine.path(f"{SOURCES['builtin']}/f").unlink()
        machine.signal(signal.SIGHUP)
        wait_for(lambda: not machine.entries(), what="the reload")
        texts = read_all(slow, machine, "removed cleared jobs: builtin-f-x")
    refused = [text.split()[0] for text in texts if text.endswith(" is not a valid number")]
    assert refused == names
    assert not any("are lost" in text for text in texts)


def test_missing_messages_are_counted(machine):
    machine.close_system_log()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as slow:
        slow.bind(str(machine.path("/dev/log")))
        machine.jobs(
            "builtin",
            "f",
            [every_minute("x"), *[every_minute(f"bad{i}", crontab=f"0 0 bad{i} * *") for i in range(1000)]],
        )
        started = time.monotonic()
        machine.start_and_wait()
        assert time.monotonic() - started < 30, "waits for each message"
        wait_for(lambda: len(machine.runs("builtin-f-x")) >= 3, what="runs of the job without a log")
        machine.path(f"{SOURCES['builtin']}/f").unlink()
        machine.signal(signal.SIGHUP)
        texts = read_all(slow, machine, "removed cleared jobs: builtin-f-x")
    [missing] = [text for text in texts if "are lost" in text]
    lost = int(re.fullmatch(r"system log was busy, (\d+) messages are lost", missing)[1])
    # Two for each refused job, one for the file, one for the load, and the last one.
    received = len([text for text in texts if "are lost" not in text])
    # A start of the job may add a message.
    assert 0 <= received + lost - (2 * 1000 + 1 + 1 + 1) <= 2


def test_a_log_daemon_that_restarts(machine):
    machine.jobs("builtin", "f", [every_minute("x"), never("bad", period="yearly")])
    machine.start_and_wait()
    machine.wait_for_text("error period")
    machine.close_system_log()
    runs = len(machine.runs("builtin-f-x"))
    machine.signal(signal.SIGHUP)
    wait_for(lambda: len(machine.runs("builtin-f-x")) >= runs + 2)
    machine.open_system_log()
    machine.wait_for_text("error period", 2)


def test_messages_above_the_limit_of_the_system_log_are_cut(machine):
    machine.jobs("builtin", "f", [never(f"{i:03}", text="x" * 2000) for i in range(200)])
    machine.start_and_wait()
    [message] = machine.messages("crondaemon", "info")
    assert message.text.startswith('current runtime: {\n\t"jobs" : \n\t{\n\t\t"builtin-f-000"')
    assert message.text.endswith(" [cut]") and len(message.text) > 100000
    machine.jobs("pkg", "g", [never("x", cmd="/" + "y" * 20000)])
    machine.reload()
    [long] = [text for text in machine.texts() if text.startswith("missing binary /y")]
    assert long.endswith("yyy [cut]") and len(long) == 8191


def test_accounts_that_are_temporarily_unknown(machine):
    machine.jobs("pkg", "f", [every_minute("x", user="package", package_username="alice"), every_minute("tick")])
    machine.start_and_wait()
    wait_for(lambda: machine.runs("pkg-f-x"))
    machine.path("/etc/passwd").rename(machine.path("/etc/passwd.away"))
    machine.wait_for_text("Failed to get user group info for job [pkg-f-x]", 2)
    # A reload in the meantime leaves out jobs of unknown accounts. A later one loads them again.
    machine.reload()
    assert set(machine.entries()) <= {"pkg-f-tick"}, "root is known without the account list"
    machine.path("/etc/passwd.away").rename(machine.path("/etc/passwd"))
    machine.reload()
    assert set(machine.entries()) == {"pkg-f-x", "pkg-f-tick"}
    runs = len(machine.runs("pkg-f-x"))
    wait_for(lambda: len(machine.runs("pkg-f-x")) > runs)
