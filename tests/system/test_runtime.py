"""The runtime documents: what reloads, edits and restarts keep, and what they discard."""

import json
import re

import pytest
from tests.lib.appliance import PERSISTENT_FILE, PERSISTENT_TEMPLATE, RECORD, every_minute, never
from tests.lib.private_machine import wait_for


def test_an_entry_is_the_whole_document(machine):
    machine.template("17 3 ~ ~ ~", maxDelay=0)
    machine.jobs(
        "builtin",
        "f",
        [{"name": "x", "user": "root", "period": "Daily", "cmd": f"{RECORD}  a b", "note": {"kept": [1, 2.5, None]}}],
    )
    machine.start_and_wait()
    entry = machine.entries()["builtin-f-x"]
    assert isinstance(entry.pop("startup"), int)
    schedule = entry.pop("schedule")
    assert sorted(schedule) == sorted(["Minute", "hour", "day", "month", "week"])
    assert entry == {
        "config": {
            "name": "builtin-f-x",
            "user": "root",
            "period": "Daily",
            "cmd": f"{RECORD}  a b",
            "note": {"kept": [1, 2.5, None]},
            "assure_execute": 0,
            "assure_execute_action": "wait",
            "run_on_passive": False,
        },
        "cmd_list": ["/tmp/kestcrond/builtin-f-x", "a", "b"],
        "cmd_str": f"{RECORD}  a b",
    }


def test_comments_of_an_author_are_not_saved(machine):
    machine.write(
        "/usr/local/etc/kestcron.d/f.conf",
        "// secret plans\n[/* more */" + json.dumps(never("x")) + "]\n# not here".replace("#", "//"),
    )
    machine.start_and_wait()
    assert list(machine.entries()) == ["pkg-f-x"]
    assert "secret" not in machine.read("/run/kestcrond.config")


def test_an_unchanged_reload_keeps_everything(machine):
    machine.template(maxDelay=0)
    machine.jobs(
        "builtin",
        "f",
        [
            every_minute("run"),
            never("list", cmd_list=[RECORD, "a"]),
            {"name": "d", "user": "root", "period": "daily", "cmd": RECORD},
        ],
    )
    machine.start_and_wait()
    wait_for(machine.log_lines)
    machine.reload()
    first = machine.entries()
    assert first["builtin-f-run"]["lastExecution"] > 0
    machine.reload()
    second = machine.entries()
    for entries in (first, second):
        for member in ("lastExecution", "expireTime"):
            entries["builtin-f-run"].pop(member)
    assert first == second
    assert machine.texts() == []


def test_an_unchanged_restart_keeps_everything(machine):
    machine.template(maxDelay=0)
    machine.jobs(
        "builtin",
        "f",
        [
            never("full", assure_execute=3, assure_execute_action="run", run_on_passive=True),
            never("umlaut", comment="größer \U0001F600 \x7f", numbers=[-1, 1.5, 1e300, 2**63, -(2**63)]),
            never("list", cmd_list=[RECORD, "", 5, True, None]),
            {"name": "w", "user": "root", "period": "weekly", "cmd": RECORD},
        ],
    )
    machine.write(
        "/usr/local/etc/kestcron.d/raw.conf",
        b'{"user":"root","period":"monthly","cmd":"' + RECORD.encode() + b'","odd":"\xc3\xbf\xe2\x80\xae","zero":-0.0}',
    )
    machine.start_and_wait()
    before = machine.document()
    machine.stop()
    assert machine.document(PERSISTENT_FILE) == before
    machine.start_and_wait()
    assert machine.document() == before
    assert machine.texts() == []


def test_only_a_stop_saves_the_state(machine):
    machine.template(maxDelay=0)
    machine.path(PERSISTENT_TEMPLATE).unlink()
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    wait_for(lambda: machine.runs("builtin-f-x"))
    machine.reload()
    assert machine.entries()["builtin-f-x"]["lastExecution"] > 0
    assert not machine.exists(PERSISTENT_FILE) and not machine.exists(PERSISTENT_TEMPLATE)
    # A crash loses the state: the daemon never reads the documents in "/run".
    pid = machine.daemon_pid()
    machine.signal(9)
    wait_for(lambda: pid not in machine.processes())
    saved = machine.saved()
    machine.clock("2026-06-02 02:10:10", rate=1)
    machine.start()
    wait_for(lambda: machine.saved() != saved, what="the first load")
    assert "lastExecution" not in machine.entries()["builtin-f-x"]
    wait_for(machine.is_between_cycles, what="the end of the first cycle")
    machine.stop()
    assert machine.document(PERSISTENT_FILE)["jobs"]["builtin-f-x"]["lastExecution"] > 0


def test_saved_documents_reach_the_disk(machine):
    machine.jobs("builtin", "f", [never("x")])
    machine.start_traced("-y", "-o", "/run/trace", "-e", "trace=fsync,rename,renameat,renameat2")
    wait_for(lambda: machine.exists(machine.RUNTIME_TEMPLATE))
    machine.stop()
    wait_for(lambda: "kestcrond.st.config" in machine.read("/run/trace"))
    calls = [
        re.sub(r"^\d+ +|<(.*?)>|AT_FDCWD, |, 0\)| += 0$", r"\1", line)
        for line in machine.read("/run/trace").splitlines()
        if "/usr/kest/etc" in line
    ]
    for file in (PERSISTENT_FILE, PERSISTENT_TEMPLATE):
        saved = [index for index, call in enumerate(calls) if f'"{file}.new"' in call]
        assert len(saved) == 1 and calls[saved[0]].startswith("rename")
        assert calls[saved[0] - 1].startswith("fsync") and file + ".new" in calls[saved[0] - 1]
        assert re.match(r"fsync.*/usr/kest/etc\)?$", calls[saved[0] + 1].split(" =")[0])


def test_an_added_key_keeps_the_old_definition(machine):
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    before = machine.entries()
    machine.jobs("builtin", "f", [never("x", nice=5, crontabs={"a": 1})])
    machine.reload()
    assert machine.entries() == before
    assert machine.texts() == []
    # ... until another change removes it.
    machine.jobs("builtin", "f", [never("x", nice=5, cmd=f"{RECORD} new")])
    machine.reload()
    assert machine.texts() == ["removed modified jobs: builtin-f-x"]
    assert machine.entries()["builtin-f-x"]["config"]["nice"] == 5


@pytest.mark.parametrize(
    "change",
    [
        {"cmd": f"{RECORD} b"},
        {"period": "c"},
        {"extra": [1, 2, 3]},
        {"extra": [1]},
        {"extra": {"deep": 2}},
        {"extra": None},
        {"extra": "1"},
    ],
)
def test_a_changed_job_loses_its_history(machine, change):
    machine.jobs("builtin", "f", [never("x", extra=[1, 2]), never("y")])
    machine.start_and_wait()
    machine.stop()
    document = machine.document(PERSISTENT_FILE)
    for entry in document["jobs"].values():
        entry.update(lastExecution=5, startup=6)
    machine.write(PERSISTENT_FILE, json.dumps(document))
    machine.start_and_wait()
    assert machine.entries()["builtin-f-x"]["lastExecution"] == 5
    machine.jobs("builtin", "f", [{**never("x", extra=[1, 2]), **change}, never("y")])
    machine.reload()
    entries = machine.entries()
    assert "lastExecution" not in entries["builtin-f-x"] and entries["builtin-f-x"]["startup"] > 6
    assert (entries["builtin-f-y"]["lastExecution"], entries["builtin-f-y"]["startup"]) == (5, 6)
    assert machine.texts() == ["removed modified jobs: builtin-f-x"]


def test_a_changed_job_has_its_new_definition(machine):
    """A change applies to the fields, which are drawn later, and to the settings, not only to the document."""
    machine.clock("2026-06-02 02:57:10")
    machine.template(maxDelay=0)
    machine.jobs("builtin", "t", [every_minute("tick", run_on_passive=True)])
    machine.jobs("builtin", "f", [every_minute("x"), never("y", run_on_passive=True)])
    machine.start_and_wait("--passive-mode")
    machine.jobs(
        "builtin",
        "f",
        [every_minute("x", run_on_passive=True), every_minute("y", crontab="7,9 * * * *", run_on_passive=True)],
    )
    machine.reload()
    wait_for(lambda: machine.runs("builtin-f-x"), what="a run that the old definition forbids")
    drawn = machine.saved()
    # A busy machine may have skipped the first minute of this hour, or of the next.
    wait_for(lambda: machine.saved() != drawn, 150, "the draw of an hour")
    assert machine.entries()["builtin-f-y"]["schedule"]["Minute"] == [7, 9]


def test_a_deleted_key_is_a_change(machine):
    machine.jobs("builtin", "f", [never("x", nice=1)])
    machine.start_and_wait()
    machine.jobs("builtin", "f", [never("x")])
    machine.reload()
    assert machine.texts() == ["removed modified jobs: builtin-f-x"]


def test_a_removed_file_clears_its_jobs(machine):
    machine.jobs("builtin", "f", [never("b"), never("a")])
    machine.jobs("builtin", "g", [never("c")])
    machine.start_and_wait()
    machine.path("/usr/kest/share/kestcron.d/f").unlink()
    machine.reload()
    assert list(machine.entries()) == ["builtin-g-c"]
    assert machine.texts() == ["removed cleared jobs: builtin-f-a", "removed cleared jobs: builtin-f-b"]
    machine.path("/usr/kest/share/kestcron.d/g").unlink()
    machine.reload()
    assert machine.document() == {}, 'without jobs there is no member "jobs"'


def test_jobs_that_were_removed_while_stopped_are_cleared_at_the_start(machine):
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    machine.stop()
    machine.path("/usr/kest/share/kestcron.d/f").unlink()
    machine.start_and_wait()
    assert machine.texts() == ["removed cleared jobs: builtin-f-x"]
    message = machine.messages(priority="err")[0]
    assert message.tag == "crondaemon"


@pytest.mark.parametrize(
    "content",
    ["", "{", "[]", "5", '"text"', '{"jobs":[]}', '{"jobs":5}', '{"jobs":null}', "{}", "[" * 100000],
    ids=lambda content: content[:9],
)
def test_an_invalid_saved_document_is_ignored(machine, content):
    machine.write(PERSISTENT_FILE, content)
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    assert list(machine.entries()) == ["builtin-f-x"]
    assert machine.texts() == []


@pytest.mark.parametrize("entry", [5, None, [], "x", {}, {"config": 5}, {"config": None}])
def test_an_invalid_entry_counts_as_modified(machine, entry):
    machine.jobs("builtin", "f", [never("x"), never("y")])
    machine.start_and_wait()
    machine.stop()
    document = machine.document(PERSISTENT_FILE)
    document["jobs"]["builtin-f-x"] = entry
    document["jobs"]["builtin-f-y"]["lastExecution"] = 5
    machine.write(PERSISTENT_FILE, json.dumps(document))
    machine.start_and_wait()
    assert machine.texts() == ["removed modified jobs: builtin-f-x"]
    assert sorted(machine.entries()["builtin-f-x"]["schedule"]) == sorted(machine.drawn())
    assert machine.entries()["builtin-f-y"]["lastExecution"] == 5


def test_an_entry_with_a_zero_byte_in_its_name_is_not_another(machine):
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    machine.stop()
    document = machine.document(PERSISTENT_FILE)
    document["jobs"]["builtin-f-x"]["lastExecution"] = 5
    document["jobs"]["builtin-f-x\0y"] = document["jobs"]["builtin-f-x"]
    machine.write(PERSISTENT_FILE, json.dumps(document))
    machine.start_and_wait()
    assert list(machine.entries()) == ["builtin-f-x"]
    assert machine.entries()["builtin-f-x"]["lastExecution"] == 5


def test_a_kept_entry_that_is_no_longer_a_job_is_corrupt(machine):
    # The new definition contains the old one, so the old one is kept, which has no command.
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    machine.stop()
    document = machine.document(PERSISTENT_FILE)
    document["jobs"]["builtin-f-x"]["config"].pop("cmd")
    machine.write(PERSISTENT_FILE, json.dumps(document))
    machine.start_and_wait()
    texts = machine.texts()
    assert texts[-2:] == ["crontab format error", "job corrupt."]
    assert machine.document() == {}


def test_invalid_runtime_members_count_as_absent(machine):
    machine.template(maxDelay=0)
    names = ["a", "b", "c", "d", "e", "f"]
    machine.jobs("builtin", "f", [never(name, assure_execute=1) for name in names])
    machine.jobs("builtin", "t", [every_minute("tick")])
    machine.start_and_wait()
    machine.stop()
    document = machine.document(PERSISTENT_FILE)
    broken = [
        {"lastExecution": "x"},
        {"expireTime": [1]},
        {"startup": {}},
        {"schedule": 5},
        {"schedule": {"Minute": "x", "hour": [1.5], "day": [2**40]}},
        {"lastExecution": 2**63, "expireTime": 1e300},
    ]
    for name, members in zip(names, broken):
        document["jobs"][f"builtin-f-{name}"].update(members)
    machine.write(PERSISTENT_FILE, json.dumps(document))
    machine.start_and_wait()
    wait_for(lambda: len(machine.runs("builtin-t-tick")) >= 2)
    # Only the job without a valid "startup" counts from 1970.
    wait_for(lambda: machine.runs("builtin-f-c"))
    assert {name for name in names if machine.runs(f"builtin-f-{name}")} == {"c"}
    assert machine.texts() == []
    assert machine.daemon_pid()


def test_the_current_runtime_is_logged(machine):
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    (message,) = machine.messages(priority="info")
    assert message.tag == "crondaemon"
    assert message.text.startswith("current runtime: {\n")
    logged = json.loads(message.text.removeprefix("current runtime: "))
    assert list(logged["jobs"]) == ["builtin-f-x"]


def test_documents_that_cannot_be_written(machine):
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    machine.path(PERSISTENT_FILE).mkdir()
    machine.path(PERSISTENT_TEMPLATE).mkdir()
    machine.run("rm", machine.RUNTIME_FILE, machine.RUNTIME_TEMPLATE, env={"LD_PRELOAD": ""})
    machine.run("mkdir", machine.RUNTIME_FILE, machine.RUNTIME_TEMPLATE, env={"LD_PRELOAD": ""})
    machine.signal(1)
    machine.wait_for_text("schedule template config save failed (/var/run/kestcrond.st.config)")
    wait_for(lambda: len(machine.runs("builtin-f-x")) >= 2)
    pid = machine.daemon_pid()
    machine.stop()
    assert pid not in machine.processes()
    assert machine.texts() == [
        "runtime config save failed (/var/run/kestcrond.config)",
        "schedule template config save failed (/var/run/kestcrond.st.config)",
        "runtime config save failed (/usr/kest/etc/kestcrond.config)",
        "schedule template config save failed (/usr/kest/etc/kestcrond.st.config)",
    ]
    assert not list(machine.path("/run").glob("*.new"))


def test_a_full_disk_keeps_the_old_document(machine):
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    machine.stop()
    before = machine.read(PERSISTENT_FILE)
    machine.run("mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", "/usr/kest/etc", check=True, env={"LD_PRELOAD": ""})
    machine.write(PERSISTENT_FILE, before)
    machine.start_and_wait()
    with machine.path("/usr/kest/etc/filler").open("wb", buffering=0) as filler:
        with pytest.raises(OSError):
            while True:
                filler.write(b"x" * 4096)
    machine.stop()
    assert machine.read(PERSISTENT_FILE) == before
    assert "runtime config save failed (/usr/kest/etc/kestcrond.config)" in machine.texts()


def test_documents_keep_their_mode(machine):
    machine.start_and_wait()
    assert machine.path(machine.RUNTIME_FILE).stat().st_mode & 0o7777 == 0o644
    machine.path(machine.RUNTIME_FILE).chmod(0o600)
    machine.reload()
    assert machine.path(machine.RUNTIME_FILE).stat().st_mode & 0o7777 == 0o600


def test_a_deep_definition_survives_a_restart(machine):
    deep = 1
    for _ in range(55):
        deep = {"d": [deep]} if isinstance(deep, int) else {"d": deep}
    machine.jobs("builtin", "deep", [never("x", deep=deep)])
    machine.jobs("builtin", "f", [never("x")])
    machine.start_and_wait()
    assert len(machine.entries()) == 2
    machine.stop()
    document = machine.document(PERSISTENT_FILE)
    document["jobs"]["builtin-f-x"]["lastExecution"] = 5
    machine.write(PERSISTENT_FILE, json.dumps(document))
    machine.start_and_wait()
    assert machine.entries()["builtin-f-x"]["lastExecution"] == 5
    assert machine.texts() == []
