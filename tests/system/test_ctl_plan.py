"""The command `plan`: what it predicts is what a reload then does."""

import json

import pytest
from tests.lib.appliance import SOURCES, never
from tests.lib.ctl import expect_golden

NEW = "/tmp/new"


def define(name, crontab="17 4 * * *", **more):
    return {"name": name, "user": "root", "cmd": "/bin/true", "period": "crontab", "crontab": crontab, **more}


BEFORE = [
    define("same"),
    define("drawn", "~ ~ * * *"),
    define("goes"),
    define("changes", "5 * * * *"),
    define("gains"),
    define("breaks"),
]
AFTER = [
    define("same"),
    define("drawn", "~ ~ * * *"),
    define("changes", "6 * * * *"),
    define("gains", note="new"),
    define("breaks", "61 * * * *"),
    define("comes", "30 5 * * *"),
    define("comes-drawn", "~ ~ * * *"),
    define("comes-narrow", "7~8 3 * * *"),
    define("is-refused", user="nobody-at-all"),
]


@pytest.fixture
def running(machine):
    """A daemon at Tuesday 2 June 2026, 02:10:10, whose clock stands still. It has drawn minute 17."""
    machine.clock("2026-06-02 02:10:10", rate=0)
    machine.template(maxDelay=600, schedule=machine.drawn(Minute=17, hour=3, day=4, month=5, week=6))
    machine.jobs("pkg", "app", BEFORE)
    machine.jobs("builtin", "other", [never("one")])
    machine.start_and_wait()
    return machine


def names(plan, change):
    return [job["name"] for job in plan["jobs"] if job["change"] == change]


def test_the_reload_does_what_was_planned(running, ctl):
    running.write(f"{NEW}/app", json.dumps(AFTER))
    before = ctl("list", "--json").stdout
    status, plan = ctl.json("plan", f"{NEW}/app")
    assert status == 1
    assert ctl("list", "--json").stdout == before
    running.jobs("pkg", "app", AFTER)
    result = ctl("reload", "--json")
    reload = json.loads(result.stdout)
    assert result.returncode == 1
    assert names(plan, "comes") == reload["came"] == ["pkg-app-comes", "pkg-app-comes-drawn", "pkg-app-comes-narrow"]
    assert names(plan, "goes") == reload["went"] == ["pkg-app-breaks", "pkg-app-goes"]
    assert names(plan, "changes") == reload["changed"] == ["pkg-app-changes"]
    assert plan["unchanged"] == 4 and plan["after"]["jobs"] == reload["jobs"]
    place = lambda problem: (problem["job"], problem["message"])
    assert sorted(map(place, plan["problems"])) == sorted(map(place, reload["problems"]))
    assert {problem["file"] for problem in plan["problems"]} == {f"{NEW}/app"}
    after = {job["name"]: job for job in json.loads(ctl("list", "--json").stdout)}
    for job in plan["jobs"]:
        if job["change"] != "goes":
            same = job["next"] == after[job["name"]]["next"]
            assert same or not job["is_drawn"], job
    assert [job["name"] for job in plan["jobs"] if not job["is_drawn"]] == ["pkg-app-comes-narrow"]
    # Nothing is left to do.
    status, plan = ctl.json("plan")
    assert plan["jobs"] == [] and plan["unchanged"] == reload["jobs"]


def peak(timeline):
    return max(quarter["starts"] + quarter["possible"] for quarter in timeline["load"])


def test_the_load_before_and_after(running, ctl):
    jobs = [define(f"j{number}", "45 6 * * *") for number in range(20)]
    running.write(f"{NEW}/more", json.dumps(jobs))
    status, plan = ctl.json("plan", f"{NEW}/more")
    assert status == 0
    before, after = plan["before"], plan["after"]
    assert (before["jobs"], after["jobs"]) == (7, 27)
    assert after["starts"] == before["starts"] + 20
    assert before["peak"] == peak(ctl.json("timeline")[1])
    running.jobs("pkg", "more", jobs)
    ctl("reload")
    assert after["peak"] == peak(ctl.json("timeline")[1]) > before["peak"]


def test_what_waits_for_a_reload(running, ctl):
    running.path(f"{SOURCES['pkg']}/app").unlink()
    running.jobs("builtin-dyn", "x", [define("y")])
    status, plan = ctl.json("plan")
    assert status == 0
    assert names(plan, "goes") == sorted(f"pkg-app-{job['name']}" for job in BEFORE)
    assert names(plan, "comes") == ["builtin-dyn-x-y"]


@pytest.mark.parametrize("columns", [40, 80, 120])
def test_text(running, ctl, columns):
    running.write(f"{NEW}/app", json.dumps(AFTER))
    text = ctl.on_terminal("plan", f"{NEW}/app", columns=columns, env={"NO_COLOR": "1"})
    expect_golden(f"plan.{columns}", text)
    assert all(len(line) <= columns for line in text.split("\nNot loaded:")[0].splitlines())


def test_sources(running, ctl):
    running.write(f"{NEW}/f", json.dumps([define("x")]))
    for source in ("builtin", "builtin-dyn", "pkg"):
        _, plan = ctl.json("plan", "--source", source, f"{NEW}/f")
        assert names(plan, "comes") == [f"{source}-f-x"]
    _, plan = ctl.json("plan", NEW)
    assert names(plan, "comes") == ["pkg-f-x"]
    # A file that is installed stays what it is.
    running.jobs("builtin", "g", [define("x"), define("bad", "x")])
    running.jobs("pkg_nonroot", "h", [define("x")], account="alice")
    for path in (f"{SOURCES['builtin']}/g", f"{SOURCES['pkg_nonroot']}/alice/h", SOURCES["builtin"]):
        status, plan = ctl.json("plan", path)
        assert status == (0 if "alice" in path else 1)
        assert names(plan, "comes") == ["builtin-g-x", "pkg_nonroot-alice-h-x"]
    assert ctl("plan", "--source", "pkg_nonroot", f"{NEW}/f").returncode == 2
    assert ctl("plan", "--source", "pkg", "--account", "alice", f"{NEW}/f").returncode == 2
    result = ctl("plan", "/nowhere")
    assert (result.returncode, result.stderr) == (2, "kestcronctl: /nowhere: No such file or directory\n")


def test_files_of_an_account(running, ctl):
    definition = {"name": "x", "cmd": "/bin/true", "period": "crontab", "crontab": "1 1 * * *"}
    running.write(f"{NEW}/f", json.dumps([definition]))
    status, plan = ctl.json("plan", "--account", "alice", f"{NEW}/f")
    assert (status, names(plan, "comes")) == (0, ["pkg_nonroot-alice-f-x"])
    running.jobs("pkg_nonroot", "f", [definition, {**definition, "name": "old"}], account="alice")
    running.jobs("pkg_nonroot", "g", [definition], account="alice")
    ctl("reload")
    status, plan = ctl.json("plan", "--account", "alice", f"{NEW}/f")
    assert (names(plan, "goes"), names(plan, "comes")) == (["pkg_nonroot-alice-f-old"], [])
    # Whatever the name of the directory, its owner is the account.
    running.path(f"{SOURCES['pkg_nonroot']}/alice").rename(running.path(f"{SOURCES['pkg_nonroot']}/team"))
    status, plan = ctl.json("plan", "--account", "alice", f"{NEW}/f")
    assert (names(plan, "goes"), names(plan, "comes")) == (["pkg_nonroot-alice-f-old"], [])
    running.path(f"{SOURCES['pkg_nonroot']}/team").rename(running.path(f"{SOURCES['pkg_nonroot']}/alice"))
    # The planned file and the installed ones share the quota of the account.
    running.write(f"{NEW}/big", json.dumps([{**definition, "name": f"j{number}"} for number in range(1023)]))
    status, plan = ctl.json("plan", "--account", "alice", f"{NEW}/big")
    assert (status, len(names(plan, "comes"))) == (1, 1023)
    assert names(plan, "goes") == [f"pkg_nonroot-alice-{name}" for name in ("f-old", "f-x", "g-x")]
    assert {problem["file"][-1] for problem in plan["problems"]} == {"f", "g"}
    running.chown(running.path(f"{SOURCES['pkg_nonroot']}/alice"), "bob")
    result = ctl("plan", "--account", "alice", f"{NEW}/f")
    assert result.returncode == 2 and "belongs to account bob" in result.stderr


def test_an_image_that_never_ran(machine, ctl):
    image = "/tmp/image"
    machine.write(f"{image}/etc/passwd", "root:x:0:0::/:/bin/sh\n")
    machine.write(f"{image}/bin/true", "#!/bin/true\n", mode=0o755)
    machine.write(f"{image}{SOURCES['builtin']}/f", json.dumps([define("a"), define("b", "~ 3 * * *")]))
    machine.write(f"{NEW}/f", json.dumps([define("c")]))
    result = ctl("--root", image, "plan", f"{NEW}/f", "--json")
    plan = json.loads(result.stdout)
    assert "has not run on this system" in result.stderr
    assert names(plan, "comes") == ["builtin-f-a", "builtin-f-b", "pkg-f-c"]
    assert [job["is_drawn"] for job in plan["jobs"]] == [True, False, True]
    assert plan["before"]["jobs"] == 0 and plan["after"]["jobs"] == 3


def test_hostile_files(running, ctl):
    """A file that root is asked about may be anything."""
    running.write(f"{NEW}/f", json.dumps([define("a\033[31m", "* * * * *", cmd="/bin/\u202etrue")]))
    text = ctl.on_terminal("plan", NEW, env={"NO_COLOR": "1"})
    assert "\033" not in text
    running.write(f"{NEW}/deep", "[" * 100000)
    running.path(f"{NEW}/link").symlink_to("/dev/zero")
    result = ctl("plan", NEW, "--json")
    assert result.returncode == 1 and len(json.loads(result.stdout)["problems"]) >= 2
