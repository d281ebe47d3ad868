"""Input of a hostile package author. It must not stop the daemon, reach files of others, or harm the
jobs of others."""

import itertools
import json
import os
import re
import signal
import socket
import stat

import pytest
from tests.lib.appliance import PERSISTENT_FILE, PERSISTENT_TEMPLATE, RECORD, SOURCES, every_minute, never
from tests.lib.definitions import MEMBERS
from tests.lib.private_machine import wait_for

ALICE = SOURCES["pkg_nonroot"] + "/alice"

# A value of every JSON type, and numbers beyond every limit.
VALUES = [
    None,
    True,
    False,
    0,
    -1,
    1,
    2**31 - 1,
    2**31,
    -(2**31),
    -(2**31) - 1,
    2**32,
    2**63 - 1,
    2**63,
    -(2**63),
    2**64 - 1,
    2**64,
    1e300,
    -1e300,
    0.5,
    -0.0,
    "",
    "x",
    "5",
    "true",
    "root",
    "\0",
    [],
    [1],
    [None],
    [[]],
    ["x", {}],
    {},
    {"x": 1},
    {"": None},
]


@pytest.fixture(autouse=True)
def witness(machine):
    """A valid job of root, which must keep running during each test."""
    machine.template(maxDelay=0)
    machine.jobs("builtin", "t", [every_minute("tick")])


def still_works(machine):
    count = len(machine.runs("builtin-t-tick"))
    wait_for(lambda: len(machine.runs("builtin-t-tick")) > count + 1, what="a run of the other job")


def peak_memory(machine):
    """In MiB."""
    status = machine.proc(machine.daemon_pid(), "status").read_text()
    return int(re.search(r"VmHWM:\s+(\d+) kB", status)[1]) / 1024


# --- Job files ----------------------------------------------------------------------------------

NO_JSON = {
    "braces": b"[" * 200000,
    "nested objects": b'{"a":' * 5000 + b"1" + b"}" * 5000,
    "nested arrays": b"[" * 65 + b"]" * 65,
    "binary": bytes(range(256)) * 100,
    "zeros": bytes(100000),
    "zero at the end": b"[]\0",
    "half": b'[{"name":"x",',
    "two documents": b"[][]",
    "endless string": b'["' + b"x" * 500000,
    "too large": b"[" + b" " * (1 << 20) + b"]",
    "UTF-16": '[{"name":"x"}]'.encode("utf-16"),
    "no number": b"[" + b"-" * 1000 + b"]",
    "comment without end": b"/* " + b"x" * 100000,
}


@pytest.mark.parametrize("kind", NO_JSON)
def test_a_file_that_is_not_a_document(machine, kind):
    machine.jobs("pkg_nonroot", "good", [never("x")], account="alice")
    machine.write(ALICE + "/bad", NO_JSON[kind])
    machine.start_and_wait()
    assert machine.texts() == [f"JSON file read error: {ALICE}/bad"]
    assert set(machine.entries()) == {"builtin-t-tick", "pkg_nonroot-alice-good-x"}
    still_works(machine)


def test_odd_files_do_not_exhaust_memory(machine):
    machine.start_and_wait()
    before = peak_memory(machine)
    for number, content in enumerate(NO_JSON.values()):
        machine.write(f"{SOURCES['pkg']}/bad{number:02}", content)
    with machine.path(SOURCES["pkg"] + "/sparse").open("wb") as sparse:
        sparse.truncate(3 << 30)
    machine.reload()
    # The largest file that is read has 1 MiB of text.
    assert peak_memory(machine) < before + (200 if machine.is_sanitized() else 16)
    assert len(machine.texts()) == len(NO_JSON) + 1


def definition(text, name='"x"'):
    """A definition that contains this text."""
    return (
        b'[{"name":' + name.encode() + b',"user":"","period":"crontab","crontab":"0 0 31 2 *",'
        b'"cmd":"' + RECORD.encode() + b'",' + text + b"}]"
    )


@pytest.mark.parametrize(
    "content",
    [
        definition(b'"odd":"\xc3\xa9 \xf0\x9f\x98\x80"'),
        b"\xef\xbb\xbf" + definition(b'"a":1'),
        definition(b'"cmd":"' + RECORD.encode() + b'","cmd":"' + RECORD.encode() + b'"'),
        definition(b'"number":1' + b"0" * 400),
        definition(b'"number":1e400'),
        definition(b'"' + b"n" * 100000 + b'":1'),
        definition(b'"\\u0000":"\\u0000"'),
        definition(b'"a":' + b"[" * 61 + b"]" * 61),
        definition(b'"\\ud800":"\\udc00"'),
        definition(b'"%n%s%n":"%n%s%n"'),
    ],
    ids=range(10),
)
def test_an_odd_document(machine, content):
    machine.jobs("pkg_nonroot", "good", [never("x")], account="alice")
    machine.write(ALICE + "/odd", content)
    pid = machine.start_and_wait()
    assert "pkg_nonroot-alice-good-x" in machine.entries()
    odd = "pkg_nonroot-alice-odd-x" in machine.entries()
    assert odd or machine.texts() == [f"JSON file read error: {ALICE}/odd"]
    # Loaded jobs, odd ones included, keep their history over a restart.
    before = machine.entries()
    machine.stop()
    machine.start_and_wait()
    assert machine.daemon_pid() != pid
    after = machine.entries()
    after["builtin-t-tick"] = before["builtin-t-tick"]
    assert after == before
    assert not any("cleared" in text or "modified" in text for text in machine.texts())


def write_raw(machine, name, content):
    """Writes a job file of the account. Its name may contain any bytes."""
    with open(os.fsencode(machine.path(ALICE)) + b"/" + name, "wb") as file:
        file.write(content)


def test_text_that_is_not_utf_8_loses_only_its_own_history(machine):
    machine.jobs("pkg_nonroot", "good", [never("x")], account="alice")
    machine.jobs("pkg_nonroot", "f", [never("x")], account="bob")
    write_raw(machine, b"odd", definition(b'"odd":"\xff\xfe\xc0\x80"'))
    for name in (b"a\xff", b"a\xfe", b"a\xc3"):  # two of these become one name in the document
        write_raw(machine, name, definition(b'"a":1'))
    machine.start_and_wait()
    for path in ("/run/kestcrond.config", PERSISTENT_FILE):
        if path == PERSISTENT_FILE:
            machine.stop()
        text = machine.path(path).read_bytes()
        assert text.isascii(), path
        entries = json.loads(text)["jobs"]
        others = {"pkg_nonroot-alice-good-x", "pkg_nonroot-bob-f-x", "builtin-t-tick"}
        assert others < set(entries)
        assert entries["pkg_nonroot-alice-odd-x"]["config"]["odd"] == "\ufffd" * 3
        assert "pkg_nonroot-alice-a\ufffd-x" in entries
    before = entries
    machine.clock("2026-06-02 03:10:10")
    machine.start_and_wait()
    after = machine.entries()
    assert set(after) == set(before)
    assert {name for name in after if after[name]["startup"] == before[name]["startup"]} == others
    lost = sorted(text for text in machine.texts() if "cleared" in text or "modified" in text)
    assert "removed modified jobs: pkg_nonroot-alice-odd-x" in lost
    assert all("pkg_nonroot-alice-odd-x" in text or "pkg_nonroot-alice-a" in text for text in lost)
    assert len(os.listdir(machine.path("/tmp/kestcrond"))) == 7, "each has its own program"
    before = len(machine.texts())
    machine.reload()
    assert len(machine.texts()) == before, "a reload loses no history"
    still_works(machine)


@pytest.mark.parametrize(
    "name",
    [
        "a/b",
        "../../etc/passwd",
        "..",
        ".",
        "",
        "a\nb",
        "a\x1b[2J",
        "%n%s",
        "n" * 5000,
        "\0",
        "a\0b",
        "-rf",
        "'; touch /tmp/pwned; '",
        "$(touch /tmp/pwned)",
        " ",
        "\u202e",
    ],
    ids=lambda name: repr(name[:12]),
)
def test_an_odd_name(machine, name):
    machine.jobs("pkg_nonroot", "f", [never(name), never("good")], account="alice")
    machine.start_and_wait()
    assert "pkg_nonroot-alice-f-good" in machine.entries()
    assert {entry.lstat().st_uid for entry in machine.path("/tmp/kestcrond").iterdir()} <= {0, 2001}
    assert all(not entry.is_dir() for entry in machine.path("/tmp/kestcrond").iterdir())
    assert not machine.exists("/tmp/pwned")
    assert not any(set(text) & set(map(chr, range(32))) for text in machine.texts())
    assert all(machine.path(path).stat().st_uid == 0 for path in ("/", "/tmp", "/etc/passwd"))
    still_works(machine)


ODD_FILES = [
    b"a\nb",
    b"\x1b[2J",
    b"%n%s%n",
    b"\xff\xfe\xc0",
    b"-rf",
    b"a b",
    b"$(touch x)",
    b"..x",
    b"\xe2\x80\xae",
    b"n" * 200,
    b"n" * 255,
]


def test_odd_names_of_job_files(machine):
    machine.account_directory("alice")
    for name in ODD_FILES:
        with open(os.fsencode(machine.path(ALICE)) + b"/" + name, "wb") as file:
            file.write(json.dumps([never("x")]).encode())
    machine.start_and_wait()
    # One name begins with a dot, and the longest is too long for the name of a copy.
    before = machine.entries()
    assert len(before) == len(ODD_FILES) - 2 + 1
    text, last = machine.texts()
    assert text.startswith(f"Failed to cp [{RECORD}][/tmp/kestcrond/pkg_nonroot-alice-nnn")
    assert last == "MoveBinaryToTmp failed."
    machine.stop()
    machine.clock("2026-06-02 03:10:10")
    machine.start_and_wait()
    after = machine.entries()
    odd = {name for name in before if "\ufffd" in name}  # not UTF-8, so its history is lost
    assert len(odd) == 1 and set(after) == set(before)
    assert {name for name in before if after[name]["startup"] != before[name]["startup"]} == odd
    assert len(machine.texts()) == 2 * 2 + 1
    machine.path(ALICE).rename(machine.path(SOURCES["pkg_nonroot"] + "/.away"))
    machine.reload()
    cleared = machine.texts()[2 * 2 + 1 :]
    assert len(cleared) == len(before) - 1
    assert all(text.startswith("removed cleared jobs: pkg_nonroot-alice-") for text in cleared)
    assert not any(set(text) & set(map(chr, range(32))) for text in cleared)
    still_works(machine)


def test_odd_entries_among_the_accounts(machine):
    machine.jobs("pkg_nonroot", "f", [never("x")], account="bob")
    top = SOURCES["pkg_nonroot"]  # all of these entries precede that account
    os.mkfifo(machine.path(top + "/a-fifo"))
    machine.path(top + "/a-device").symlink_to("/dev/zero")
    os.mknod(machine.path(top + "/a-node"), 0o666 | stat.S_IFCHR, os.makedev(1, 5))
    machine.path(top + "/a-loop").symlink_to("a-loop")
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(machine.path(top + "/a-socket")))
        machine.start_and_wait()
    assert set(machine.entries()) == {"builtin-t-tick", "pkg_nonroot-bob-f-x"}
    no_directory = lambda name: ["open directory failed.", f"Failed to load {top}/{name} config"]
    assert machine.texts() == [
        *no_directory("a-device"),
        *no_directory("a-fifo"),
        f"stat error: {top}/a-loop",
        f"Failed to dir user: {top}/a-loop",
        *no_directory("a-node"),
        *no_directory("a-socket"),
    ]
    still_works(machine)


@pytest.mark.parametrize("source,account", [("pkg", None), ("pkg_nonroot", "alice")])
def test_each_member_with_each_value(machine, source, account):
    odd = []
    for number, (member, value) in enumerate(itertools.product(MEMBERS, VALUES)):
        job = never(f"odd{number}", cmd="/usr/bin/true")
        odd.append(
            {**job, member: value}
            if value is not None or number % 2
            else {key: kept for key, kept in job.items() if key != member}
        )
    machine.jobs(source, "f", [*odd, never("good")], account=account)
    machine.start_and_wait()
    good = f"{source}-{account}-f-good" if account else f"{source}-f-good"
    assert good in machine.entries()
    before = machine.entries()
    machine.stop()
    machine.start_and_wait()
    assert machine.entries().keys() == before.keys()
    assert not any("cleared" in text or "modified" in text for text in machine.texts())
    still_works(machine)


def test_an_account_cannot_exhaust_memory(machine):
    greedy = '[{"name":"x","user":"","period":"d","cmd":"/usr/bin/true","list":[' + "0," * 120000
    for number in range(60):
        machine.account_directory("alice")
        machine.write(f"{ALICE}/greedy{number:02}", greedy + "0]}]")
    machine.jobs("pkg_nonroot", "f", [never("x")], account="bob")
    machine.start_and_wait()
    # Each file has a quarter MiB, and more than 1 MiB in the runtime document, where the quota is 4 MiB.
    named = ", ".join(f"alice/greedy{number:02}" for number in range(4, 14))
    assert machine.texts() == [f"Quota of alice exceeded, left out: {named} and 46 more"]
    assert "pkg_nonroot-bob-f-x" in machine.entries()
    assert len(machine.entries()) == 6
    most = 2000 if machine.is_sanitized() else 500
    assert peak_memory(machine) < most
    for _ in range(3):
        saved = machine.saved()
        machine.signal(signal.SIGHUP)
        wait_for(lambda before=saved: machine.saved() != before, what="a reload")
    assert peak_memory(machine) < most


def test_an_account_cannot_delay_the_jobs_of_others(machine):
    """Each job costs a copy of its program at each load."""
    many = lambda count: json.dumps(
        [{"name": f"{number}", "user": "", "period": "d", "cmd": "/usr/bin/true"} for number in range(count)]
    )
    machine.account_directory("alice")
    machine.write(f"{ALICE}/a", many(15))
    machine.write(f"{ALICE}/b", many(15000))
    machine.write(f"{ALICE}/c", many(7))
    machine.jobs("pkg_nonroot", "f", [never("x")], account="bob")
    machine.start_and_wait()
    assert machine.texts() == ["Quota of alice exceeded, left out: alice/b"]
    assert len(machine.entries()) == 15 + 7 + 2  # those of alice, and of the others


# --- Documents of the daemon --------------------------------------------------------------------


def paths_in(value, path=()):
    """The path of each value inside a document, itself included."""
    yield path
    children = value.items() if isinstance(value, dict) else enumerate(value) if isinstance(value, list) else ()
    for key, child in children:
        yield from paths_in(child, (*path, key))


def replaced(document, path, value):
    if not path:
        return value
    copy = json.loads(json.dumps(document))
    place = copy
    for key in path[:-1]:
        place = place[key]
    place[path[-1]] = value
    return copy


@pytest.mark.parametrize("file", [PERSISTENT_FILE, PERSISTENT_TEMPLATE])
@pytest.mark.parametrize("number", range(4))
def test_a_document_of_the_daemon_with_odd_values(machine, file, number):
    machine.jobs("pkg", "f", [never("x", assure_execute=1000, extra=[1])])
    machine.start_and_wait()
    machine.stop()
    whole = machine.document(file)
    kept = machine.document(PERSISTENT_FILE)
    kept["jobs"]["builtin-t-tick"]["lastExecution"] = 5
    odd = [None, -1, 2**64, 1e300, "x", [], [[]], {}, {"x": []}]
    places = [path for path in paths_in(whole) if "builtin-t-tick" not in path]
    cases = [case for index, case in enumerate(itertools.product(places, odd)) if index % 40 == number * 10]
    assert cases
    for path, value in cases:
        machine.write(PERSISTENT_FILE, json.dumps(kept))
        base = kept if file == PERSISTENT_FILE else whole
        machine.write(file, json.dumps(replaced(base, path, value)))
        machine.start_and_wait()
        assert set(machine.entries()) <= {"builtin-t-tick", "pkg-f-x"}, (path, value)
        assert "builtin-t-tick" in machine.entries(), (path, value)
        machine.stop()
        # History is lost only with the whole document.
        if len(path) > 1 or file == PERSISTENT_TEMPLATE:
            execution = machine.document(PERSISTENT_FILE)["jobs"]["builtin-t-tick"]["lastExecution"]
            assert execution >= 5, (path, value)


# --- Programs -----------------------------------------------------------------------------------


def package_job(name="x", **members):
    return every_minute(name, user="package", package_username="alice", **members)


def test_a_program_that_is_running_is_replaced(machine):
    machine.write("/usr/local/bin/long", "#!/bin/sh\nexec /usr/bin/sleep 100\n", 0o755)
    machine.write("/usr/local/bin/binary", machine.path("/usr/bin/sleep").read_bytes(), 0o755)
    machine.jobs(
        "pkg", "f", [package_job("s", cmd="/usr/local/bin/long"), package_job("b", cmd="/usr/local/bin/binary 100")]
    )
    machine.start_and_wait()
    wait_for(lambda: "pkg-f-b" in {p["name"] for p in machine.processes().values()})
    machine.reload()
    assert set(machine.entries()) == {"builtin-t-tick", "pkg-f-s", "pkg-f-b"}
    assert machine.texts() == []


def test_a_program_that_is_replaced_while_it_is_copied(machine):
    path = "/srv/alice/program"
    machine.path("/srv/alice").mkdir(parents=True)
    machine.chown(machine.path("/srv/alice"), "alice")
    machine.write(path, "#!/bin/sh\n", 0o755, owner="alice")
    before = {name: machine.path(name).lstat() for name in ("/etc/shadow", "/usr/bin/id", "/srv")}
    swapper = machine.popen(
        "setpriv",
        "--reuid=2001",
        "--regid=2001",
        "--clear-groups",
        "bash",
        "-c",
        "cd /srv/alice; while :; do rm -rf program; ln -s /etc/shadow program; rm program; "
        "mkdir program; touch program/inside; rm -rf program; mkfifo program; rm program; "
        "ln -s /srv program; rm program; printf '#!/bin/sh\\n' > program; done 2>/dev/null",
        env={"LD_PRELOAD": ""},
    )
    machine.jobs("pkg", "f", [never(f"x{i}", user="package", package_username="alice", cmd=path) for i in range(20)])
    machine.start_and_wait()
    for _ in range(5):
        machine.reload()
        for entry in machine.path("/tmp/kestcrond").iterdir():
            assert not entry.is_dir() or entry.is_symlink()
    swapper.kill()
    for name, status in before.items():
        after = machine.path(name).lstat()
        assert (after.st_uid, after.st_mode) == (status.st_uid, status.st_mode)
    still_works(machine)


def touched_since(machine, mark):
    """The files that were created, or changed in content, owner or mode, after the file `mark`."""
    found = machine.run(
        "find",
        "/etc",
        "/usr",
        "/srv/alice",
        "/tmp",
        "/run",
        "/var/log",
        "/dev",
        "-not",
        "-type",
        "d",
        "-cnewer",
        mark,
        env={"LD_PRELOAD": ""},
    )
    return set(found.stdout.splitlines())


def test_no_other_files_of_the_system_are_changed(machine):
    machine.write("/srv/alice/program", "#!/bin/sh\n", 0o6755, owner="alice")
    machine.path("/srv/alice/link").symlink_to("/etc/shadow")
    machine.path("/srv/alice/dangling").symlink_to("../../etc/planted")
    machine.path("/srv/alice/directory").mkdir()
    programs = [
        "/etc/passwd",
        "/usr/bin/passwd",
        "/srv/alice/program",
        "/srv/alice/link",
        "/srv/alice/dangling",
        "/srv/alice/directory",
        "/dev/null",
        "/srv/alice/none",
    ]
    names = ["x", "../x", "../../etc/planted", "/etc/planted", "..", "x/../../../etc/planted"]
    machine.jobs(
        "pkg_nonroot",
        "f",
        [never(f"{name}{number}", cmd=program) for name in names for number, program in enumerate(programs)],
        account="alice",
    )
    machine.write("/run/mark", "")
    wait_for(
        lambda: machine.write("/run/later", "") or "/run/later" in touched_since(machine, "/run/mark"),
        what="a later moment by the clock of the file system",
    )
    machine.start_and_wait()
    machine.reload()
    still_works(machine)
    machine.stop()
    wait_for(lambda: not machine.daemons())
    touched = {
        path
        for path in touched_since(machine, "/run/mark")
        if not path.startswith(("/tmp/kestcrond/", "/tmp/ran/", "/dev/shm/"))
    }
    assert touched - {"/run/mark", "/run/later"} == {
        machine.LOG_FILE,
        machine.RUNTIME_FILE,
        machine.RUNTIME_TEMPLATE,
        PERSISTENT_FILE,
        PERSISTENT_TEMPLATE,
        "/run/kestcrond.lock",
        "/run/kestcrond-execute.lock",
    }
    assert not list(machine.path("/etc").glob("planted*"))


# --- Watched directories ------------------------------------------------------------------------


def test_thousands_of_changes_a_second(machine):
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    pid = machine.start_and_wait()
    vandal = machine.popen(
        "setpriv",
        "--reuid=2001",
        "--regid=2001",
        "--clear-groups",
        "/usr/bin/python3",
        "-c",
        f"import os\nos.chdir('{ALICE}')\n"
        "while True:\n"
        "    for i in range(50):\n"
        "        os.mkdir(f'd{i}'); open(f'f{i}', 'w').close()\n"
        "    for i in range(50):\n"
        "        os.rmdir(f'd{i}'); os.unlink(f'f{i}')\n",
        env={"LD_PRELOAD": ""},
    )
    before, runs = machine.loads(), len(machine.runs("builtin-t-tick"))
    descriptors = len(list(machine.proc(pid, "fd").iterdir()))
    wait_for(lambda: len(machine.runs("builtin-t-tick")) >= runs + 8)
    vandal.kill()
    vandal.wait()
    wait_for(lambda: len(list(machine.proc(pid, "fd").iterdir())) == descriptors)
    assert "pkg_nonroot-alice-f-x" in machine.entries()
    machine.stop()
    ending = {"kestcrond", "builtin-t-tick"}
    wait_for(
        lambda: not ending & {process["name"] for process in machine.processes().values()}, what="the end of all runs"
    )
    # There is at most one reload for each evaluation, however many changes there are.
    assert machine.loads() - before <= len(machine.runs("builtin-t-tick")) - runs + 2


def test_directories_that_come_and_go(machine):
    machine.account_directory("alice")
    pid = machine.start_and_wait()
    for number in range(10):
        machine.jobs("pkg_nonroot", "f", [never("x")], account="bob")
        wait_for(lambda: "pkg_nonroot-bob-f-x" in machine.entries())
        machine.run("rm", "-r", SOURCES["pkg_nonroot"] + "/bob", env={"LD_PRELOAD": ""})
        wait_for(lambda: "pkg_nonroot-bob-f-x" not in machine.entries())
    machine.reload()
    watched = sum(
        machine.read(f"/proc/{pid}/fdinfo/{entry.name}").count("inotify wd:")
        for entry in machine.proc(pid, "fdinfo").iterdir()
    )
    assert watched == 2
    still_works(machine)
