"""The JSON output of kestcronctl: the answers of all commands are as the schema describes them."""

import json
import os
import re
from pathlib import Path

import pytest
from jsonschema import Draft202012Validator
from tests.lib.appliance import SOURCES, every_minute, never
from tests.lib.private_machine import wait_for

PROJECT = Path(__file__).resolve().parents[2]
SCHEMA = json.loads((PROJECT / "packaging/kestcronctl.schema.json").read_text())
FIELD_KEYS = {"Minute", "hour", "day", "month", "week"}


def expanded(schema):
    """The schema without references and combinations, and without additional members: later versions may
    add members, but not without the schema."""
    if isinstance(schema, list):
        return [expanded(part) for part in schema]
    if not isinstance(schema, dict):
        return schema
    whole = {name: expanded(part) for name, part in schema.items()}
    if "$ref" in whole:
        whole = {**expanded(SCHEMA["$defs"][whole.pop("$ref").removeprefix("#/$defs/")]), **whole}
    for part in whole.pop("allOf", []):
        for keyword in ("properties", "required"):
            whole[keyword] = (
                {**whole.get(keyword, {}), **part[keyword]}
                if keyword == "properties"
                else whole.get(keyword, []) + part[keyword]
            )
    if "properties" in whole:
        whole["additionalProperties"] = False
    return whole


ANSWERS = {
    part["$anchor"]: Draft202012Validator(expanded(part)) for part in SCHEMA["$defs"].values() if "$anchor" in part
}


def objects(schema):
    """The parts of the schema that describe members."""
    for inner in schema.values() if isinstance(schema, dict) else schema if isinstance(schema, list) else []:
        yield from objects(inner)
    if isinstance(schema, dict) and isinstance(schema.get("properties"), dict):
        yield schema


# --- The schema itself --------------------------------------------------------------------------


def test_the_schema_is_valid():
    assert SCHEMA["$schema"] == Draft202012Validator.META_SCHEMA["$id"]
    Draft202012Validator.check_schema(SCHEMA)
    assert [choice["$ref"] for choice in SCHEMA["anyOf"]] == [f"#/$defs/{name}" for name in ANSWERS]


def test_members_are_always_there_and_named_in_one_style():
    described = list(objects(SCHEMA["$defs"]))
    assert len(described) > 20
    for part in described:
        names = list(part["properties"])
        assert part["required"] == names
        assert set(names) == FIELD_KEYS or all(re.fullmatch("[a-z]+(_[a-z]+)*", name) for name in names)


def test_the_schema_has_every_command(machine, ctl):
    commands = re.findall(r"^  (\w+)  ", ctl("--help").stdout.split("Subcommands:")[1], re.MULTILINE)
    without = {"metrics", "run"}
    assert set(commands) == set(ANSWERS) | without
    assert "--json" in ctl("metrics", "--json").stderr


def test_a_member_more_or_less_is_an_error():
    answer = {"came": [], "went": [], "changed": [], "jobs": 1, "problems": []}
    assert ANSWERS["reload"].is_valid(answer)
    assert not ANSWERS["reload"].is_valid({**answer, "more": 1})
    assert not ANSWERS["reload"].is_valid({name: value for name, value in answer.items() if name != "went"})


# --- The answers --------------------------------------------------------------------------------


@pytest.fixture
def running(machine, ctl):
    """A machine with jobs in different states."""
    machine.template(maxDelay=0)
    machine.write("/opt/gone", "#!/bin/none\n", 0o755)
    machine.write("/opt/sleep", "#!/bin/sh\ncat /tmp/pipe\n", 0o755)
    machine.jobs(
        "pkg",
        "f",
        [
            every_minute("gone", cmd="/opt/gone"),
            every_minute("sleeps", cmd="/opt/sleep"),
            every_minute("draws", crontab="~ ~ ~ ~ ~", assure_execute=24, assure_execute_action="run"),
            never("never"),
            every_minute("refused", crontab="* *"),
        ],
    )
    machine.jobs("pkg_nonroot", "f", [every_minute("x")], account="alice")
    machine.write("/tmp/crontab", "@reboot x\n*/5 * * * * true\n0 3 1 * 1 true\n")
    machine.write("/tmp/planned/f", json.dumps([never("never", run_on_passive=True), every_minute("x", crontab="* *")]))
    machine.write("/tmp/empty", "")
    os.mkfifo(machine.path("/tmp/pipe"))
    machine.start_and_wait()
    states = lambda: [job["state"] for job in json.loads(ctl("list", "--json").stdout)]
    wait_for(lambda: "running" in states() and "failed" in states(), what="the states of the jobs")
    wait_for(lambda: machine.runs("pkg_nonroot-alice-f-x"), what="a run")
    wait_for(lambda: any("pkg-f-gone" in line and " failed, " in line for line in machine.log_lines()))
    return machine


COMMANDS = [
    ["check"],
    ["check", "--portable", SOURCES["pkg"]],
    ["plan"],
    ["plan", "/tmp/planned"],
    ["import", "/tmp/crontab"],
    ["import", "--account", "root", "/tmp/empty"],
    ["list"],
    ["list", "--sort", "state", "nothing-like-this"],
    ["next", "-n", "100"],
    ["next", "never"],
    ["explain", "0,30 8~17 * 2,3 ~"],
    ["explain", "0 0 31 2 *"],
    ["explain", "--period", "monthly"],
    ["status"],
    ["log"],
    ["show", "gone"],
    ["show", "sleeps"],
    ["show", "draws"],
    ["show", "never"],
    ["timeline"],
    ["timeline", "--hours", "1"],
    ["reload"],
]


def expect_valid(name, text):
    documents = text.splitlines() if name == "log" else [text]
    assert documents
    for document in documents:
        ANSWERS[name].validate(json.loads(document))
    return json.loads(documents[0])


def test_answers_of_a_running_daemon(running, ctl):
    answers = {}
    for command in COMMANDS:
        done = ctl(*command, "--json")
        assert done.returncode in (0, 1), done.stderr
        answers.setdefault(command[0], expect_valid(command[0], done.stdout))
    assert answers.keys() == ANSWERS.keys()
    # The answers are not empty.
    assert {job["state"] for job in answers["list"]} >= {"failed", "running"}
    assert [failed["job"] for failed in answers["status"]["failed_starts"]] == ["pkg-f-gone"]
    assert answers["status"]["failed_starts"][0]["reason"] == "No such file or directory"
    assert answers["show"]["failure_time"] is not None and answers["show"]["source"] is not None
    assert answers["reload"]["problems"] and answers["check"]["problems"] and answers["import"]["jobs"]
    assert answers["plan"]["unchanged"]
    assert answers["next"] and any(start["undrawn"] for start in answers["explain"]["next"])


def test_answers_without_a_daemon(running, ctl):
    running.stop()
    os.chmod(running.path(running.LOG_FILE), 0o600)
    for command in COMMANDS:
        if command[0] not in ("reload", "log", "plan"):
            expect_valid(command[0], ctl(*command, "--json", user=2001).stdout)
    assert json.loads(ctl("status", "--json", user=2001).stdout)["failed_starts"] is None


def test_answers_about_a_machine_that_is_held(machine, ctl):
    machine.write("/run/kestvorld.status", "2")
    machine.jobs("pkg", "f", [every_minute("x"), every_minute("y", assure_execute=1)])
    machine.start_and_wait()
    wait_for(lambda: json.loads(ctl("list", "--json").stdout)[0]["state"] == "kept", what="a run that is kept")
    for command in (["list"], ["next"], ["show", "x"], ["status"], ["timeline"]):
        expect_valid(command[0], ctl(*command, "--json").stdout)


def test_answers_about_another_system(machine, ctl):
    machine.path("/tmp/tree" + SOURCES["pkg_nonroot"] + "/alice").mkdir(parents=True)
    machine.path("/tmp/tree/run").mkdir()
    for command in (["check"], ["status"]):
        expect_valid(command[0], ctl("--root", "/tmp/tree", *command, "--json").stdout)
