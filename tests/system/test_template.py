"""The schedule template: its file, its draw, and how jobs share it."""

import json
from collections import Counter

import pytest
from tests.lib.appliance import FIELDS, PERSISTENT_FILE, PERSISTENT_TEMPLATE, RECORD, every_minute, never
from tests.lib.private_machine import wait_for


def template(machine):
    return machine.document(machine.RUNTIME_TEMPLATE)


def schedule(machine, job):
    return [machine.entries()[job]["schedule"][key] for key in FIELDS]


def test_the_built_in_template(machine):
    machine.start_and_wait()
    document = template(machine)
    drawn = document.pop("schedule")
    assert isinstance(document.pop("startup"), int)
    assert document == {
        "config": {
            "name": "scheduleTemplate",
            "user": "root",
            "cmd": "true",
            "period": "crontab",
            "crontab": "~ ~ ~ ~ ~",
            "assure_execute": 0,
            "assure_execute_action": "wait",
            "run_on_passive": False,
        },
        "cmd_list": ["true"],
        "cmd_str": "true",
    }
    bounds = {"Minute": (0, 59), "hour": (0, 23), "day": (1, 28), "month": (1, 12), "week": (0, 6)}
    for key, (low, high) in bounds.items():
        (value,) = drawn[key]
        assert low <= value <= high
    assert machine.texts() == []


def test_periods_share_the_draw(machine):
    machine.template(schedule={"Minute": [17], "hour": [3], "day": [9], "month": [5], "week": [2]})
    machine.jobs("pkg", "f", [{"name": letter, "user": "root", "period": letter, "cmd": RECORD} for letter in "hdwm"])
    machine.start_and_wait()
    assert {letter: schedule(machine, f"pkg-f-{letter}") for letter in "hdwm"} == {
        "h": [[17], [-1], [-1], [-1], [-1]],
        "d": [[17], [3], [-1], [-1], [-1]],
        "w": [[17], [3], [-1], [-1], [2]],
        "m": [[17], [3], [9], [-1], [-1]],
    }


def test_ranges_share_the_draw_if_it_is_within_them(machine):
    machine.template(schedule={"Minute": [17], "hour": [3], "day": [30], "month": [5], "week": [2]})
    machine.jobs(
        "pkg",
        "f",
        [
            every_minute("fits", crontab="10~17 3~9 25~31 5~5 ~"),
            every_minute("fits not", crontab="18~19 0~2 ~ 6~6 3~3"),
            every_minute("items", crontab="1,~,5~20,*,17,40~41 * * * *"),
        ],
    )
    machine.start_and_wait()
    assert schedule(machine, "pkg-f-fits") == [[17], [3], [30], [5], [2]]
    minute, hour, day, month, week = schedule(machine, "pkg-f-fits not")
    assert minute[0] in (18, 19) and hour[0] in (0, 1, 2) and 1 <= day[0] <= 28
    assert (month, week) == ([6], [3])
    minutes = schedule(machine, "pkg-f-items")[0]
    assert minutes[:5] == [1, 17, 17, -1, 17] and minutes[5] in (40, 41)


def test_a_template_with_several_values_is_not_shared(machine):
    machine.template(schedule={"Minute": [17, 17], "hour": [], "day": [99], "month": ["5"], "week": 2})
    machine.jobs("pkg", "f", [every_minute(f"j{i:02}", crontab="~ ~ ~ ~ ~") for i in range(40)])
    machine.start_and_wait()
    for column, values in enumerate(zip(*(schedule(machine, f"pkg-f-j{i:02}") for i in range(40)))):
        assert len(set(map(tuple, values))) > 1, FIELDS[column]


def test_a_fixed_template_pins_the_jobs(machine):
    machine.template("0 3 * * *", maxDelay=0)
    machine.jobs("pkg", "f", [every_minute("x", crontab="~ ~ ~ ~ ~")])
    machine.clock("2026-06-02 01:58:10")
    machine.start_and_wait()
    saved = machine.saved()
    # A busy machine may skip the first minute of an hour.
    wait_for(lambda: machine.saved() != saved, 150, "the redraw")
    assert schedule(machine, "pkg-f-x")[0] == [0]
    assert template(machine)["schedule"]["Minute"] == [0]


@pytest.mark.parametrize("max_delay,kept", [(0, 0), (200, 200), (301, 301), (2**31 - 1, 2**31 - 1), (5.0, 5)])
def test_maxdelay_is_kept(machine, max_delay, kept):
    machine.template(maxDelay=max_delay)
    machine.start_and_wait()
    assert template(machine)["maxDelay"] == kept
    machine.stop()
    assert machine.document(PERSISTENT_TEMPLATE)["maxDelay"] == kept
    assert machine.texts() == []


@pytest.mark.parametrize("max_delay", [300, -5, 2**31, 1.5, "100", None, [1], True, 1e300])
def test_maxdelay_of_the_default_is_not_written(machine, max_delay):
    machine.template(maxDelay=max_delay)
    machine.start_and_wait()
    assert "maxDelay" not in template(machine)
    assert machine.texts() == []


def test_a_restart_keeps_the_draw(machine):
    machine.start_and_wait()
    before = template(machine)
    machine.stop()
    machine.start_and_wait()
    assert template(machine) == before


@pytest.mark.parametrize(
    "content,texts",
    [
        ("", []),
        ("{", []),
        ("[" * 100000, []),
        (
            "{}",
            [
                'Failed [!_jsJob.isMember("config") || !jsConf.isObject()], err=',
                "crontab format error",
                "Failed to parse schedule template from " "[/usr/kest/etc/kestcrond.st.config]",
            ],
        ),
        (
            "[]",
            [
                'Failed [!_jsJob.isMember("config") || !jsConf.isObject()], err=',
                "crontab format error",
                "Failed to parse schedule template from " "[/usr/kest/etc/kestcrond.st.config]",
            ],
        ),
        (
            json.dumps({"maxDelay": 7, "config": never("t", period="yearly")}),
            [
                "error period",
                "parse error",
                "Failed to parse schedule template from " "[/usr/kest/etc/kestcrond.st.config]",
            ],
        ),
    ],
    ids=lambda value: str(value)[:9],
)
def test_an_invalid_file_leaves_the_built_in_template(machine, content, texts):
    machine.write(PERSISTENT_TEMPLATE, content)
    machine.start_and_wait()
    logged = machine.texts()
    assert logged.pop() == ("schedule template config load failed " "(/usr/kest/etc/kestcrond.st.config)")
    assert len(logged) == len(texts)
    assert all(text.startswith(expected) for text, expected in zip(logged, texts))
    assert template(machine)["config"]["name"] == "scheduleTemplate"
    assert "maxDelay" not in template(machine)
    assert [message.tag for message in machine.messages(priority="err")][-1] == "crondaemon"


def test_a_job_without_values_is_never_due(machine):
    machine.jobs("pkg", "f", [never("x"), never("y"), every_minute("tick")])
    machine.template(maxDelay=0)
    machine.start_and_wait()
    machine.stop()
    document = machine.document(PERSISTENT_FILE)
    document["jobs"]["pkg-f-x"]["schedule"] = {**machine.drawn(), "hour": [2, "x"]}
    document["jobs"]["pkg-f-y"]["schedule"] = {**machine.drawn(), "hour": [2]}
    machine.write(PERSISTENT_FILE, json.dumps(document))
    machine.start_and_wait()
    wait_for(lambda: len(machine.runs("pkg-f-y")) >= 3)
    assert machine.runs("pkg-f-x") == []


@pytest.mark.parametrize(
    "crontab,due",
    [
        ("10~29 2 * * *", True),
        ("10~29 3 * * *", False),
        ("* * 2 6 2", True),
        ("* * 2 * 1", False),
        ("* * 3 * 2", False),
        ("* * * 5 *", False),
        ("* * * * 2,3", True),
    ],
)
def test_all_fields_must_match(machine, crontab, due):
    machine.template(maxDelay=0, schedule=machine.drawn())
    if "~" in crontab:
        crontab = crontab.replace("10~29", ",".join(map(str, range(10, 30))))
    machine.jobs("pkg", "f", [every_minute("x", crontab=crontab), every_minute("tick")])
    machine.start_and_wait()
    wait_for(lambda: len(machine.runs("pkg-f-tick")) >= 3 and (not due or machine.runs("pkg-f-x")))
    assert bool(machine.runs("pkg-f-x")) == due
    if due:
        expected = crontab.replace("*", "-1")
        assert f"tab[{expected}]" in next(line for line in machine.log_lines() if "f-x" in line)


def test_draws_of_several_daemons_differ_and_are_even(machine):
    # Many daemons start in the same second, because the clock stands still.
    machine.clock("2026-06-02 02:10:10", rate=0)
    draws = []
    for _ in range(60):
        machine.start_and_wait()
        draws.append(tuple(template(machine)["schedule"][key][0] for key in FIELDS))
        machine.signal(9)
        wait_for(lambda: not machine.daemon_pid())
        machine.path(machine.PID_FILE).unlink()
    assert len(set(draws)) >= 59, "two pairs of equal draws are very unlikely"
    weeks = Counter(draw[4] for draw in draws)
    # Chi-square over 7 weekdays exceeds 22.46 once in a thousand runs, 27.9 once in ten thousand, and
    # 35 less than once in a hundred thousand.
    expected = len(draws) / 7
    assert sum((weeks[day] - expected) ** 2 / expected for day in range(7)) < 35
