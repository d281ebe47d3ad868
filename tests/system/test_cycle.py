"""The cycle: states, launch spacing and notes, the held status, redraws, stops."""

import datetime
import json
import re
import signal

import pytest
from tests.lib.appliance import FIELDS, PERSISTENT_FILE, RECORD, every_minute, never
from tests.lib.private_machine import wait_for

LINE = re.compile(r"(\S+) running job: (\S+) with command: (.*) as user (\w+)(?: \((.*)\))?")


def starts(machine):
    """The start lines of the execution log as (time, job, command, account, note)."""
    return [LINE.fullmatch(line).groups() for line in machine.log_lines()]


def note_of(machine, job):
    return next((note for _, name, _, _, note in starts(machine) if name == job), None)


def history(machine, *definitions, **members):
    """Lets a first daemon normalise and save the jobs, then changes their saved entries."""
    machine.jobs("builtin", "f", list(definitions))
    machine.start_and_wait()
    machine.stop()
    document = machine.document(PERSISTENT_FILE)
    for entry in document["jobs"].values():
        entry.update(members)
    machine.write(PERSISTENT_FILE, json.dumps(document))


def test_one_launch(machine):
    machine.jobs("builtin", "f", [every_minute("x"), never("y")])
    machine.start_and_wait()
    wait_for(lambda: machine.log_lines())
    assert re.fullmatch(
        r"2026-06-02T02:\d\d:\d\d\+00:00 running job: builtin-f-x with command: "
        + RECORD
        + r" as user root \(state\[Ready\], trig\[02 02:\d\d:\d\d\], tab\[-1 -1 -1 -1 -1\]\)",
        machine.log_lines()[0],
    )


def test_two_launches_are_maxdelay_apart(machine):
    machine.jobs("builtin", "f", [every_minute("a"), every_minute("b")])
    machine.start_and_wait()
    wait_for(lambda: note_of(machine, "builtin-f-b"))
    assert ", job[1/2]" in note_of(machine, "builtin-f-a")
    assert "delay" not in note_of(machine, "builtin-f-a")
    assert note_of(machine, "builtin-f-b").endswith(", job[2/2], delay[300]")
    # The job starts after its delay: 5 minutes by the machine's clock.
    first = next(start for start in starts(machine) if start[1] == "builtin-f-b")
    triggered = re.search(r"trig\[02 ([\d:]+)\]", first[4]).group(1)
    waited = (
        datetime.datetime.fromisoformat(first[0]) - datetime.datetime.fromisoformat(f"2026-06-02T{triggered}+00:00")
    ).total_seconds()
    assert 300 <= waited < 600


@pytest.mark.parametrize("max_delay,delays", [(600, [0, 600, 1200]), (2000, [0, 1800, 3600]), (0, [0, 0, 0])])
def test_three_launches(machine, max_delay, delays):
    # The jobs are overdue, so that they run once, whatever minute the fast clock shows.
    history(machine, *[never(name, assure_execute=1000) for name in "abc"], lastExecution=5)
    machine.template(maxDelay=max_delay)
    machine.clock("2026-06-02 02:10:05", rate=600)
    machine.start_and_wait()
    wait_for(lambda: len(machine.log_lines()) == 3)
    for rank, (name, delay) in enumerate(zip("abc", delays), 1):
        suffix = f"], job[{rank}/3]" + (f", delay[{delay}]" if delay else "")
        assert note_of(machine, f"builtin-f-{name}").endswith(suffix)


def test_a_hundred_launches_spread_over_an_hour(machine):
    history(machine, *[never(f"j{i:03}", assure_execute=1000) for i in range(100)], lastExecution=5)
    machine.template(maxDelay=3600)
    machine.clock("2026-06-02 02:10:05", rate=600)
    machine.start_and_wait()
    wait_for(lambda: len(machine.log_lines()) == 100, 60)
    assert note_of(machine, "builtin-f-j000").endswith("], job[1/100]")
    for i in range(1, 100):
        assert note_of(machine, f"builtin-f-j{i:03}").endswith(f"], job[{i + 1}/100], delay[{36 * i}]")
    assert len({re.search(r"trig\[.*?\]", note)[0] for *_, note in starts(machine)}) == 1


def test_only_launches_count_for_delays(machine):
    machine.jobs("builtin", "f", [never("a"), every_minute("b"), never("c"), every_minute("d")])
    machine.start_and_wait()
    wait_for(lambda: note_of(machine, "builtin-f-d"))
    assert note_of(machine, "builtin-f-b").endswith("], job[1/2]")
    assert note_of(machine, "builtin-f-d").endswith("], job[2/2], delay[300]")


def triggers(machine):
    """The times of the cycles that launched a job, in minutes and seconds of their day."""
    return [
        datetime.datetime.strptime(re.search(r"trig\[\d\d (.*?)\]", note)[1], "%H:%M:%S")
        for *_, note in starts(machine)
    ]


def test_a_cycle_takes_a_minute(machine):
    machine.template(maxDelay=0)
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.clock("2026-06-02 02:10:10", rate=20)
    machine.start_and_wait()

    def gaps():
        times = sorted(triggers(machine))
        return [(later - earlier).total_seconds() for earlier, later in zip(times, times[1:])]

    # A busy machine prolongs some cycles, but not all.
    wait_for(lambda: gaps().count(60) >= 2, 120)
    assert min(gaps()) == 60


@pytest.mark.parametrize("stamp", [5, -1, 2**32])
def test_a_waiting_start_survives_a_restart(machine, stamp):
    machine.template(maxDelay=0)
    history(machine, never("x"), expireTime=stamp)
    machine.jobs("pkg", "clock", [every_minute("tick")])
    machine.start_and_wait()
    wait_for(lambda: len(machine.runs("pkg-clock-tick")) >= 3 and machine.runs("builtin-f-x"))
    assert len(machine.runs("builtin-f-x")) == 1
    assert "tab[" not in note_of(machine, "builtin-f-x"), "it was not due since the restart"
    assert note_of(machine, "builtin-f-x").startswith("state[Ready], ")


def test_held_defers_a_due_run(machine):
    machine.write("/run/kestvorld.status", "2\n")
    machine.jobs("builtin", "f", [every_minute("x", crontab="10 2 * * *")])
    machine.clock("2026-06-02 02:10:00", rate=6)  # slow enough for the daemon to start within 02:10
    machine.start_and_wait()
    # Only evaluation cycles detect changes: after two of them 02:10 is over.
    for account in ("alice", "bob"):
        before = machine.loads()
        machine.account_directory(account)
        wait_for(lambda seen=before: machine.loads() > seen, what="a reload")
    # The deferred run is only in memory until the next write: a reload writes it.
    machine.reload()
    assert machine.entries()["builtin-f-x"]["expireTime"] != 0
    assert machine.log_lines() == []
    machine.write("/run/kestvorld.status", "1\n")
    wait_for(machine.log_lines)
    assert note_of(machine, "builtin-f-x").startswith("state[Ready], ")
    machine.reload()
    assert machine.entries()["builtin-f-x"]["expireTime"] == 0


@pytest.mark.parametrize("action,state", [("run", "AssureExecuteRun"), ("wait", None), ("Run", None)])
def test_overdue_while_held(machine, action, state):
    history(machine, never("x", assure_execute=1, assure_execute_action=action), lastExecution=1780000000)
    machine.write("/run/kestvorld.status", "2")
    machine.start_and_wait()
    if state:
        wait_for(machine.log_lines)
        assert note_of(machine, "builtin-f-x").startswith(f"state[{state}], trig[")
        assert "tab[" not in note_of(machine, "builtin-f-x")
        return
    machine.jobs("pkg", "clock", [every_minute("tick")])
    loads = machine.loads()
    for _ in range(2):
        machine.reload()
    assert machine.loads() == loads + 2
    assert machine.log_lines() == []
    machine.write("/run/kestvorld.status", "0")
    wait_for(lambda: note_of(machine, "builtin-f-x"))
    assert note_of(machine, "builtin-f-x").startswith("state[AssureExecute], ")


def test_overdue_runs_once(machine):
    history(machine, never("x", assure_execute=2), lastExecution=1780000000)
    machine.jobs("pkg", "clock", [every_minute("tick")])
    machine.template(maxDelay=0)
    machine.start_and_wait()
    wait_for(lambda: len(machine.runs("pkg-clock-tick")) >= 4 and machine.runs("builtin-f-x"))
    assert len(machine.runs("builtin-f-x")) == 1
    assert note_of(machine, "builtin-f-x").startswith("state[AssureExecute], ")


@pytest.mark.parametrize("age,overdue", [(7200, False), (7201, True)])
def test_overdue_to_the_second(machine, age, overdue):
    history(machine, never("x", assure_execute=2), lastExecution=1780366210 - age)
    machine.jobs("pkg", "clock", [every_minute("tick")])
    machine.template(maxDelay=0)
    machine.clock("2026-06-02 02:10:10", rate=0)
    machine.start_and_wait()
    wait_for(lambda: machine.runs("pkg-clock-tick"))
    if overdue:
        wait_for(lambda: machine.runs("builtin-f-x"))
    assert len(machine.log_lines()) == 1 + overdue
    assert machine.runs("builtin-f-x") == ["root root []"] * overdue


def test_a_job_without_a_run_is_overdue_counting_from_startup(machine):
    machine.template(maxDelay=0)
    machine.jobs("builtin", "f", [never("x", assure_execute=1)])
    machine.clock("2026-06-02 02:10:10", rate=1200)
    machine.start_and_wait()
    startup = machine.entries()["builtin-f-x"]["startup"]
    wait_for(machine.log_lines)
    stamp = machine.log_lines()[0][:19]
    ran = datetime.datetime.fromisoformat(stamp + "+00:00").timestamp()
    assert ran > startup + 3600
    assert note_of(machine, "builtin-f-x").startswith("state[AssureExecute]")


def test_passive_overdue_job_does_not_run(machine):
    history(machine, never("x", assure_execute=1), lastExecution=5)
    machine.jobs("pkg", "clock", [every_minute("tick", run_on_passive=True)])
    machine.template(maxDelay=0)
    machine.start_and_wait("--passive-mode")
    wait_for(lambda: len(machine.runs("pkg-clock-tick")) >= 3)
    assert machine.runs("builtin-f-x") == []


@pytest.mark.parametrize("content", ["two", "", "2 2", "99999999999", "0" * 64 + "2"])
def test_an_unreadable_controller_status_does_not_hold(machine, content):
    machine.write("/run/kestvorld.status", content)
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    wait_for(lambda: machine.runs("builtin-f-x"))
    machine.wait_for_text("Fail to KESTVorldStatusGet()")
    assert {message.tag for message in machine.messages(priority="err")} == {"utils"}


def test_the_controller_is_queried_even_without_jobs(machine):
    machine.write("/run/kestvorld.status", "?")
    machine.start_and_wait()
    machine.wait_for_text("Fail to KESTVorldStatusGet()", count=2)


def test_the_controller_is_queried_once_in_a_cycle(machine):
    machine.template(maxDelay=0)
    machine.write("/run/kestvorld.status", "?")
    machine.jobs("builtin", "f", [every_minute(name) for name in "abcde"])
    machine.start_and_wait()
    wait_for(lambda: len(machine.log_lines()) >= 10)
    machine.stop()
    wait_for(lambda: not machine.daemons(), what="the lines of all jobs")
    assert len(machine.texts()) <= len(machine.log_lines()) // 5 + 1


@pytest.mark.parametrize("status", ["0", "1", "3", "-2", "22", "0" * 63 + "1"])
def test_only_one_status_holds(machine, status):
    machine.write("/run/kestvorld.status", status)
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    wait_for(lambda: machine.runs("builtin-f-x"))
    assert machine.texts() == []


def test_a_missing_controller_is_not_a_failure(machine):
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    wait_for(lambda: machine.runs("builtin-f-x"))
    assert machine.texts() == []


def test_a_reload_cycle_launches_nothing(machine):
    machine.template(maxDelay=0)
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.clock("2026-06-02 02:10:10", rate=10)  # slow enough for a reload to end within the minute
    machine.start_and_wait()
    wait_for(lambda: starts(machine))
    machine.reload()
    count = len(starts(machine))
    for _ in range(5):
        machine.reload()
    # The cycle after each reload began at once, and none of them was an evaluation.
    assert len(starts(machine)) <= count + 1
    wait_for(lambda: len(starts(machine)) > count + 1)


REDRAWS = [
    ("2026-06-10 10:00:10", {"Minute"}),  # an ordinary hour
    ("2026-06-01 10:00:10", {"Minute"}),  # ... of a 1st and a Monday
    ("2026-06-10 00:00:10", {"Minute", "hour"}),  # an ordinary midnight
    ("2026-06-08 00:00:10", {"Minute", "hour", "week"}),  # to a Monday
    ("2026-09-01 00:00:10", {"Minute", "hour", "day"}),  # to the 1st, a Tuesday
    ("2026-06-01 00:00:10", {"Minute", "hour", "day", "week"}),  # to the 1st, a Monday
    ("2026-01-01 00:00:10", {"Minute", "hour", "day", "month"}),  # to 1 January, a Thursday
    ("2029-01-01 00:00:10", set(FIELDS)),  # to 1 January, a Monday
]


@pytest.mark.parametrize("start,fields", REDRAWS)
def test_redraw(machine, start, fields):
    # The values are impossible draws, so they show which fields were not redrawn.
    marked = {"Minute": [70], "hour": [71], "day": [72], "month": [73], "week": [74]}
    jobs = [every_minute(name, crontab="~ ~ ~ ~ ~") for name in ("x", "y")]
    jobs.append(every_minute("z", crontab="5 1~4 * * *"))
    machine.template(maxDelay=0)
    history(machine, *jobs, schedule=marked)
    machine.template(schedule=marked)
    machine.clock(start, rate=0)  # the first cycle is in the first minute of the hour, and it redraws
    machine.start_and_wait()
    drawn_template = lambda: machine.document(machine.RUNTIME_TEMPLATE)["schedule"]
    wait_for(lambda: drawn_template()["Minute"] != marked["Minute"], what="the redraw")
    drawn, template = machine.entries()["builtin-f-x"]["schedule"], drawn_template()
    assert {key for key in FIELDS if drawn[key] != marked[key]} == fields
    assert {key for key in FIELDS if template[key] != marked[key]} == fields
    assert drawn == template, "the job shares the draw of the template"
    assert machine.entries()["builtin-f-y"]["schedule"] == drawn, "and so does every other job"
    other = machine.entries()["builtin-f-z"]["schedule"]
    (hour,) = other["hour"]
    assert hour in range(1, 5) if "hour" in fields else hour == 71
    assert template["hour"] == [hour] or "hour" not in fields or template["hour"][0] not in range(1, 5)
    expected = {"Minute": [5], "hour": [hour], "day": [-1], "month": [-1], "week": [-1]}
    assert all(other[key] == (expected[key] if key in fields else marked[key]) for key in FIELDS)


def test_the_old_minute_is_matched_before_the_redraw(machine):
    machine.template(schedule=machine.drawn(Minute=0))
    history(machine, every_minute("x", period="hourly"), schedule=machine.drawn(Minute=0))
    machine.template(maxDelay=0, schedule=machine.drawn(Minute=0))
    machine.clock("2026-06-02 03:00:10", rate=0)  # the first cycle launches, and redraws
    machine.start_and_wait()
    wait_for(machine.log_lines)
    assert "tab[0 -1 -1 -1 -1]" in machine.log_lines()[0]


def test_no_redraw_outside_minute_0(machine):
    machine.jobs("builtin", "f", [every_minute("x", period="hourly"), every_minute("tick")])
    machine.start_and_wait()
    saved, schedule = machine.saved(), machine.entries()["builtin-f-x"]["schedule"]
    wait_for(lambda: len(machine.log_lines()) >= 4)
    assert machine.saved() == saved
    assert machine.entries()["builtin-f-x"]["schedule"] == schedule


def test_without_jobs_fields_are_redrawn_and_changes_detected(machine):
    machine.clock("2026-06-02 01:58:10")
    machine.start_and_wait()
    saved = machine.saved()
    # A busy machine may skip the first minute of an hour.
    wait_for(lambda: machine.saved() != saved, 150, "the redraw")
    assert machine.loads() == 1
    machine.account_directory("alice")
    wait_for(lambda: machine.loads() >= 2, what="the reload")


def test_a_reload_redraws_nothing(machine):
    machine.clock("2029-01-01 00:00:10", rate=0)  # a Monday: a cycle would redraw all fields
    machine.jobs("builtin", "f", [every_minute("x")])
    machine.start_and_wait()
    wait_for(machine.log_lines)
    machine.reload()
    template = machine.document(machine.RUNTIME_TEMPLATE)["schedule"]
    machine.reload()
    assert machine.document(machine.RUNTIME_TEMPLATE)["schedule"] == template


def copy_slowly(machine, meanwhile="/usr/bin/sleep 1"):
    """Replaces cp by a program that appends a line to "/tmp/copies" and waits before it copies."""
    machine.path("/usr/bin/cp").rename(machine.path("/usr/bin/cp.real"))
    machine.write("/usr/bin/cp", f"#!/bin/sh\necho >> /tmp/copies\n{meanwhile}\n" 'exec /usr/bin/cp.real "$@"\n', 0o755)


def test_stop_during_the_first_load_is_served(machine):
    machine.clock("2026-06-02 02:10:10", rate=1)
    copy_slowly(machine)
    machine.jobs("builtin", "f", [every_minute(f"j{i:03}") for i in range(200)])
    machine.start()
    wait_for(lambda: machine.exists("/tmp/copies"), what="the first copy")
    machine.stop()
    assert len(machine.document(PERSISTENT_FILE)["jobs"]) == 200
    assert machine.log_lines() == []


@pytest.mark.parametrize("microseconds", [50000, 800000])
def test_a_reload_right_after_a_launch_lets_the_jobs_start(machine, microseconds):
    machine.clock("2026-06-02 02:10:10", rate=1)
    machine.template(maxDelay=0)
    machine.account_directory("alice")
    names = [f"j{i}" for i in range(8)]
    machine.jobs("builtin", "f", [every_minute(name) for name in names])
    copy_slowly(machine, "until /usr/bin/sleep 0.1; [ -e /tmp/changed ]; do :; done")
    # A job takes this long to start, so that some start while programs are copied.
    machine.start_with_faults(f"setgid:delay_enter={microseconds}")
    # A change during the first load: the first cycle launches all jobs and detects it.
    wait_for(lambda: machine.exists("/tmp/copies"), what="the first copy")
    machine.account_directory("bob")
    machine.write("/tmp/changed", "")
    wait_for(lambda: machine.loads() >= 2, what="the reload")
    wait_for(lambda: all(machine.runs(f"builtin-f-{name}") for name in names))
    assert len(machine.log_lines()) == len(names)


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGTERM])
def test_a_signal_during_a_reload_is_served_at_once(machine, number):
    machine.clock("2026-06-02 02:10:10", rate=1)
    machine.jobs("builtin", "f", [never("x")])
    pid = machine.start_and_wait()
    copy_slowly(machine)
    machine.signal(signal.SIGHUP)
    wait_for(lambda: machine.exists("/tmp/copies"), what="the first copy")
    machine.jobs("builtin", "g", [never("y")])
    machine.signal(number)
    if number == signal.SIGTERM:
        wait_for(lambda: pid not in machine.processes(), 20)
    else:
        wait_for(lambda: "builtin-g-y" in machine.entries(), 20)
    assert machine.texts() == []


def test_hup_storm(machine):
    machine.jobs("builtin", "f", [never(f"j{i:02}") for i in range(20)])
    pid = machine.start_and_wait()
    machine.run("bash", "-c", f"for i in $(seq 500); do kill -HUP {pid}; done", env={"LD_PRELOAD": ""})
    machine.reload()
    assert len(machine.entries()) == 20
    assert machine.daemon_pid() == pid
    assert set(machine.texts()) == set()
    machine.stop()
