"""Job sources: which files are read, the names of jobs, and the messages about failures."""

import json
import os
import socket
import stat
import time

import pytest
from tests.lib.appliance import PERSISTENT_FILE, PERSISTENT_TEMPLATE, RECORD, SOURCES, every_minute, never
from tests.lib.private_machine import wait_for


def names(machine):
    return sorted(machine.entries())


def test_missing_sources_are_created(machine):
    machine.run("rm", "-rf", "/usr/kest", *SOURCES.values())
    machine.start_and_wait()
    modes = {label: machine.path(path).stat().st_mode & 0o7777 for label, path in SOURCES.items()}
    assert modes == {"builtin": 0o750, "builtin-dyn": 0o750, "pkg": 0o750, "pkg_nonroot": 0o755}
    assert {machine.path(path).stat().st_uid for path in SOURCES.values()} == {0}
    assert machine.path("/usr/kest").stat().st_mode & 0o7777 == 0o755
    assert machine.texts() == []
    assert machine.document() == {}


def test_existing_sources_keep_their_mode(machine):
    machine.path(SOURCES["pkg"]).mkdir(parents=True)
    machine.path(SOURCES["pkg"]).chmod(0o700)
    machine.start_and_wait()
    assert machine.path(SOURCES["pkg"]).stat().st_mode & 0o7777 == 0o700


def test_full_names_of_a_tricky_tree(machine):
    machine.jobs("builtin", "x.conf", never("n"))
    machine.jobs("builtin", "noext", [never("a"), never("b")])
    machine.jobs("builtin", "my.config", [never("a")])
    machine.jobs("builtin", "job.json", [never("a")])
    machine.jobs("builtin", "a.conf.conf", [never("twice")])
    machine.jobs("builtin", ".conf.x", [never("hidden")])
    machine.jobs("builtin", ".hidden.conf", [never("hidden")])
    machine.jobs("builtin-dyn", "foo.conf", [never("bar"), never("")])
    machine.jobs("pkg", "foo.conf", [never("bar"), never("b a-r")])
    machine.jobs("pkg_nonroot", "foo.conf", [never("bar")], account="alice")
    machine.jobs("pkg_nonroot", "one.conf", never("bar"), account="bob")
    machine.path(SOURCES["pkg_nonroot"] + "/bob/deeper").mkdir()
    machine.write(SOURCES["pkg_nonroot"] + "/bob/deeper/x.conf", json.dumps([never("deep")]))
    machine.path(SOURCES["pkg_nonroot"] + "/.alice").mkdir()
    machine.start_and_wait()
    assert names(machine) == sorted(
        [
            "builtin-x-default",
            "builtin-noext-a",
            "builtin-noext-b",
            "builtin-myig-a",
            "builtin-job.json-a",
            "builtin-a-twice",
            "builtin-dyn-foo-bar",
            "builtin-dyn-foo-",
            "pkg-foo-bar",
            "pkg-foo-b a-r",
            "pkg_nonroot-alice-foo-bar",
            "pkg_nonroot-bob-one-default",
        ]
    )
    # A directory inside the directory of an account is an entry that cannot be read as a file.
    assert machine.texts() == ["JSON file read error: /usr/local/etc/kestcron_nonroot.d/bob/deeper"]


def test_package_jobs_run_as_the_owner_of_the_directory(machine):
    machine.template(maxDelay=0)
    machine.jobs("pkg_nonroot", "f", [every_minute("r", user="root", package_username="bob")], account="alice")
    machine.start_and_wait()
    config = machine.entries()["pkg_nonroot-alice-f-r"]["config"]
    assert (config["user"], config["package_username"]) == ("package", "alice")
    wait_for(lambda: machine.runs("pkg_nonroot-alice-f-r"))
    assert machine.runs("pkg_nonroot-alice-f-r")[0] == "alice alice []"


def test_the_account_is_the_owner_not_the_name(machine):
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    machine.path(SOURCES["pkg_nonroot"] + "/alice").rename(machine.path(SOURCES["pkg_nonroot"] + "/something"))
    machine.start_and_wait()
    assert names(machine) == ["pkg_nonroot-alice-f-x"]


def test_ties(machine):
    machine.jobs("pkg", "same", [never("x", cmd=f"{RECORD} first"), never("x", cmd=f"{RECORD} last")])
    machine.jobs("pkg", "a", [never("x", cmd=f"{RECORD} a")])
    machine.jobs("pkg", "a.conf", [never("x", cmd=f"{RECORD} a.conf")])
    machine.jobs("pkg", "a.conf.conf", [never("x", cmd=f"{RECORD} a.conf.conf")])
    machine.jobs("builtin", "dyn-x.conf", [never("y", cmd=f"{RECORD} builtin")])
    machine.jobs("builtin-dyn", "x.conf", [never("y", cmd=f"{RECORD} builtin-dyn")])
    machine.start_and_wait()
    commands = {name: entry["cmd_str"].split()[1] for name, entry in machine.entries().items()}
    assert commands == {"pkg-same-x": "last", "pkg-a-x": "a.conf.conf", "builtin-dyn-x-y": "builtin-dyn"}


@pytest.mark.parametrize(
    "content",
    [
        b"",
        b"{",
        b"[",
        b"nonsense",
        b"[{}] trailing",
        b"[1,]",
        b"\x00\x01\x02",
        b"[" * 200000,
        b'{"a":' * 5000 + b"1" + b"}" * 5000,
    ],
    ids=lambda content: content[:9].decode(),
)
def test_a_file_that_is_not_json(machine, content):
    machine.write(SOURCES["pkg"] + "/bad.conf", content)
    machine.jobs("pkg", "good.conf", [never("x")])
    machine.start_and_wait()
    assert names(machine) == ["pkg-good-x"]
    assert machine.texts() == ["JSON file read error: /usr/local/etc/kestcron.d/bad.conf"]


@pytest.mark.parametrize("content", ["5", '"text"', "null", "true", "[]", "1.5"])
def test_a_document_without_definitions_is_silent(machine, content):
    machine.write(SOURCES["pkg"] + "/odd.conf", content)
    machine.start_and_wait()
    assert machine.texts() == [] and machine.document() == {}


def test_entries_that_are_not_files(machine):
    directory = SOURCES["pkg"]
    machine.jobs("pkg", "good", [never("x")])
    os.mkfifo(machine.path(directory + "/fifo"))
    machine.path(directory + "/directory").mkdir()
    machine.path(directory + "/device").symlink_to("/dev/zero")
    os.mknod(machine.path(directory + "/node"), 0o666 | stat.S_IFCHR, os.makedev(1, 5))
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(machine.path(directory + "/socket")))
    machine.path(directory + "/loop").symlink_to("loop")
    machine.path(directory + "/dangling").symlink_to("nowhere")
    machine.path(directory + "/secret").symlink_to("/etc/shadow")
    machine.path(directory + "/link.conf").symlink_to("good")
    with machine.path(directory + "/sparse").open("wb") as sparse:
        sparse.truncate(3 << 30)
    machine.start_and_wait()
    assert names(machine) == ["pkg-good-x", "pkg-link-x"]
    assert machine.texts() == [
        f"JSON file read error: {directory}/{name}"
        for name in ["dangling", "device", "directory", "fifo", "loop", "node", "secret", "socket", "sparse"]
    ]


@pytest.mark.parametrize("kernel_file", ["/proc/kmsg", "/proc/self/mem", "/proc/version"])
def test_kernel_files_are_not_job_files(machine, kernel_file):
    # Some of them block their reader forever.
    machine.path(SOURCES["pkg"]).mkdir(parents=True)
    machine.path(SOURCES["pkg"] + "/k").symlink_to(kernel_file)
    machine.jobs("pkg", "good", [never("x")])
    machine.start_and_wait()
    assert machine.texts() == [f"JSON file read error: {SOURCES['pkg']}/k"]
    assert names(machine) == ["pkg-good-x"]


def test_a_leased_file_is_not_waited_for(machine):
    machine.clock("2026-06-02 02:10:10", rate=1)
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    machine.jobs("pkg_nonroot", "leased", [never("y")], account="alice")
    path = SOURCES["pkg_nonroot"] + "/alice/leased"
    machine.chown(machine.path(path), "alice")
    holder = machine.popen(
        "setpriv",
        "--reuid=2001",
        "--regid=2001",
        "--clear-groups",
        "/usr/bin/python3",
        "-c",
        "import fcntl, os, signal, time\n"
        "signal.signal(signal.SIGIO, signal.SIG_IGN)\n"
        f"fcntl.fcntl(os.open('{path}', os.O_RDWR), fcntl.F_SETLEASE, fcntl.F_WRLCK)\n"
        "open('/tmp/ran/leased', 'w').close()\ntime.sleep(100)",
        env={"LD_PRELOAD": ""},
    )
    wait_for(lambda: machine.exists("/tmp/ran/leased"))
    started = time.monotonic()
    machine.start_and_wait()
    assert time.monotonic() - started < 20, "the kernel would break the lease after 45 seconds"
    assert machine.texts() == [f"JSON file read error: {path}"]
    assert names(machine) == ["pkg_nonroot-alice-f-x"]
    holder.kill()
    holder.wait()


def test_invalid_names_are_rejected(machine):
    machine.jobs(
        "pkg",
        "f.conf",
        [
            {"user": "root", "period": "daily", "cmd": RECORD},
            never(5),
            never(None),
            never(["x"]),
            7,
            "text",
            None,
            [],
            never("good"),
        ],
    )
    machine.start_and_wait()
    assert names(machine) == ["pkg-f-good"]
    texts = machine.texts()
    assert texts[:8] == ["Job (f) must have a name!"] * 8
    rule_of_name = 'Failed [!jsConf.isMember("name") || !jsConf["name"].isString()], err='
    rule_of_config = 'Failed [!_jsJob.isMember("config") || !jsConf.isObject()], err='
    failed = [text for text in texts[8:] if text.startswith("Failed")]
    assert [text[: len(rule_of_name)] for text in failed[:4]] == [rule_of_name] * 4
    assert [text[: len(rule_of_config)] for text in failed[4:]] == [rule_of_config] * 4
    assert texts.count("crontab format error") == 8
    assert texts[-1] == "Job JSON format error: /usr/local/etc/kestcron.d/f.conf"


def test_a_rejected_job_does_not_affect_its_neighbours(machine):
    machine.jobs("builtin", "f.conf", [never("a"), never("b", period="yearly"), never("c")])
    machine.start_and_wait()
    assert names(machine) == ["builtin-f-a", "builtin-f-c"]
    assert machine.texts() == [
        "error period",
        "parse error",
        "Job JSON format error: /usr/kest/share/kestcron.d/f.conf",
    ]
    assert [message.tag for message in machine.messages(priority="err")] == ["cronjob", "cronjob", "crondaemon"]


def test_an_owner_without_an_account(machine):
    machine.jobs("pkg_nonroot", "f", [never("x")], account="alice")
    machine.path(SOURCES["pkg_nonroot"] + "/stranger").mkdir()
    os.chown(machine.path(SOURCES["pkg_nonroot"] + "/stranger"), 4711, 4711)
    machine.start_and_wait()
    assert names(machine) == ["pkg_nonroot-alice-f-x"]
    assert machine.texts() == ["get uid error: 4711", "Failed to dir user: /usr/local/etc/kestcron_nonroot.d/stranger"]


def test_a_dangling_link_among_the_accounts(machine):
    machine.jobs("pkg_nonroot", "f", [never("x")], account="bob")
    machine.path(SOURCES["pkg_nonroot"] + "/alice").symlink_to("nowhere")
    machine.start_and_wait()
    assert names(machine) == ["pkg_nonroot-bob-f-x"]
    assert machine.texts() == [
        "stat error: /usr/local/etc/kestcron_nonroot.d/alice",
        "Failed to dir user: /usr/local/etc/kestcron_nonroot.d/alice",
    ]


def test_a_plain_file_among_the_accounts(machine):
    machine.account_directory("alice")
    machine.write(SOURCES["pkg_nonroot"] + "/file", "[]", owner="bob")
    machine.start_and_wait()
    assert machine.texts() == ["open directory failed.", "Failed to load /usr/local/etc/kestcron_nonroot.d/file config"]


@pytest.mark.parametrize(
    "label,word", [("builtin", "built-in job"), ("builtin-dyn", "built-in dynamic job"), ("pkg", "pkg job")]
)
def test_a_source_that_is_not_a_directory(machine, label, word):
    machine.write(SOURCES[label], "in the way")
    machine.jobs("builtin" if label == "pkg" else "pkg", "f", [never("x")])
    machine.start_and_wait()
    assert len(names(machine)) == 1, "the other sources must be loaded"
    assert machine.texts() == ["open directory failed.", f"js {word} ({SOURCES[label]}) loaded failed"]


def test_the_order_of_reading(machine):
    machine.account_directory("alice")
    files = [
        SOURCES["builtin"] + "/f",
        SOURCES["builtin-dyn"] + "/f",
        SOURCES["pkg"] + "/f",
        SOURCES["pkg_nonroot"] + "/alice/f",
    ]
    for file in [*files, PERSISTENT_TEMPLATE]:
        machine.write(file, "no JSON")
    machine.start_and_wait()
    assert machine.texts() == [
        *(f"JSON file read error: {file}" for file in files),
        f"schedule template config load failed ({PERSISTENT_TEMPLATE})",
    ]


def test_an_account_source_that_cannot_be_created(machine):
    machine.write(SOURCES["pkg_nonroot"], "in the way")
    machine.jobs("pkg", "f", [never("x")])
    machine.start_and_wait()
    assert names(machine) == ["pkg-f-x"]
    assert machine.texts() == [
        "create directory failed.",
        "js ser job (/usr/local/etc/kestcron_nonroot.d) loaded failed",
    ]


def test_a_source_that_fails_loses_its_jobs_at_a_reload(machine):
    machine.jobs("pkg", "f", [never("x")])
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    machine.run("mv", SOURCES["pkg"], SOURCES["pkg"] + ".away")
    machine.write(SOURCES["pkg"], "in the way")
    machine.reload()
    assert names(machine) == ["builtin-f-x"]
    assert machine.texts() == [
        "open directory failed.",
        "js pkg job (/usr/local/etc/kestcron.d) loaded failed",
        "removed cleared jobs: pkg-f-x",
    ]


def test_unwatched_sources_change_at_the_next_reload(machine):
    machine.jobs("builtin", "tick", [every_minute("x")])
    machine.start_and_wait()
    machine.jobs("pkg", "f", [never("x")])
    seen = len(machine.log_lines())
    wait_for(lambda: len(machine.log_lines()) >= seen + 2)
    assert machine.loads() == 1
    machine.reload()
    assert "pkg-f-x" in names(machine)
    machine.stop()
    assert "pkg-f-x" in machine.document(PERSISTENT_FILE)["jobs"]
