"""The predictions of `kestcronctl next` against the starts in the execution log."""

import datetime
import json
import re
import signal

import pytest
from tests.lib.appliance import every_minute, never
from tests.lib.private_machine import wait_for

SECOND = datetime.timedelta(seconds=1)
MINUTE = 60 * SECOND
START = re.compile(r"(\S+) running job: (\S+) with command: .* \(state\[(\w+)\], " r"trig\[\d\d (\d\d):(\d\d):(\d\d)\]")

JOBS = {
    "hourly": "~ * * * *",
    "daily": "~ ~ * * *",
    "weekly": "~ ~ * * ~",
    "monthly": "~ ~ ~ * *",
    "office": "0,20,40 8~17 * * *",
    "quarter": "0,15,30,45 * * * *",
    "night": "30 23 * * *",
    "midnight": "0 0 * * *",
    "monday": "~ 5 * * 1",
    "first": "7 ~ 1 * *",
    "both": "5,~ 6~7 * * *",
    "whole": "* 3 * * *",
    "window": "10~20 * * * *",
    "mixed": "5 ~,12 * * *",
    "tuesday": "1 1 * * 2",
    "halves": "0~29,30~59 * * * *",
    "beside": "30,~ * * * *",
}


def minute_of(text):
    return datetime.datetime.fromisoformat(text).replace(second=0)


def started(machine):
    """The launches of each job: by its schedule, and for being overdue."""
    found = {}, {}
    for line in machine.log_lines():
        match = START.match(line)
        time, job, state = match.group(1, 2, 3)
        when = minute_of(time).replace(hour=int(match[4]), minute=int(match[5]))
        if when > minute_of(time):  # launched before midnight
            when -= datetime.timedelta(days=1)
        when = when.replace(second=int(match[6]))
        found[state != "Ready"].setdefault(job, []).append(when)
    return found


# A job that is due at the end of a minute may be launched at the beginning of the next one.
SURE = 40  # from this second on a launch is in the due minute, at the rate of this clock


def minutes_of(moment):
    """The minutes in which a job that was launched at `moment` may have been due."""
    minute = moment.replace(second=0)
    return [minute] if moment.second >= SURE else [minute, minute - MINUTE]


def check_predictions(predictions, since, launched, overdue, evaluated):
    """All launches were predicted, no more than at most, and all certain predictions came true."""
    end = max(evaluated)
    # The number of predictions is limited, and the daemon may run beyond the last one.
    last = max(minute_of(prediction["earliest"]) for prediction in predictions)
    for job, moments in launched.items():
        mine = [prediction for prediction in predictions if prediction["job"] == job]
        known = [moment for moment in moments if since + 2 * MINUTE < moment < last]
        # Those that are sure to be in the span of each prediction, so that no other one allows them.
        for prediction in mine:
            first, latest = minute_of(prediction["earliest"]), minute_of(prediction["latest"])
            inside = [moment for moment in known if first + MINUTE < moment < latest]
            allowed = sum(
                other["at_most"]
                for other in mine
                if minute_of(other["earliest"]) <= latest and minute_of(other["latest"]) >= first
            )
            assert len(inside) <= allowed, (job, prediction, inside)
        for moment in known:
            assert any(
                minute_of(prediction["earliest"]) <= minute <= minute_of(prediction["latest"])
                for minute in minutes_of(moment)
                for prediction in mine
                if not prediction["overdue"]
            ), (job, moment, since)
    links = 0
    for prediction in predictions:
        minute = minute_of(prediction["earliest"])
        links += prediction["overdue"]
        if prediction["undrawn"] or not since < minute < end - 2 * MINUTE:
            continue
        if prediction["overdue"]:
            # The job is launched in the first cycle in which it is overdue, counted from the launch
            # before. The log records a launch when the process starts, which may be a minute later.
            launches = overdue.get(prediction["job"], [])
            assert any(minute - MINUTE <= launch <= minute + (2 * links + 1) * MINUTE for launch in launches), (
                prediction,
                since,
                launches,
            )
        elif minute in evaluated:
            assert minute in (moment.replace(second=0) for moment in launched.get(prediction["job"], [])), (
                prediction,
                since,
            )


@pytest.mark.native(reason="too slow for its deadline when emulated")
def test_over_a_day_with_redraws(machine, ctl):
    """The day begins on Sunday, 31 May 2026, 22:50, so that all fields but the month are redrawn at midnight."""
    machine.clock("2026-05-31 22:50:00", rate=1200)
    machine.template(maxDelay=0)
    machine.jobs(
        "builtin",
        "f",
        [
            every_minute("tick"),
            never("assured", assure_execute=5),
            *(every_minute(name, crontab=crontab) for name, crontab in JOBS.items()),
        ],
    )
    machine.start_and_wait()
    snapshots = []

    def take_at(hour):
        """Records the predictions after the redraw of that hour of the day."""
        wait_for(lambda: any(minute.hour == hour and minute.minute > 2 for minute in ticks()), 120, f"{hour} o'clock")
        now = machine.log_lines()[-1].split()[0]
        clock = {"FAKETIME": now[:19].replace("T", " ")}  # stands still during the command
        later = (minute_of(now) + 5 * 60 * MINUTE).isoformat()
        for start, options in ((now, []), (later, ["--at", later])):
            predictions = json.loads(ctl("next", "-n", "3000", *options, "--json", env=clock).stdout)
            # Launches during the command are neither in the log before nor predicted.
            snapshots.append((max(minute_of(start), *ticks()), predictions))

    ticks = lambda: started(machine)[0].get("builtin-f-tick", [])
    for hour in (22, 0, 3, 9):
        take_at(hour)
    evening = datetime.datetime(2026, 6, 1, 20, tzinfo=datetime.timezone.utc)
    wait_for(lambda: ticks() and max(ticks()) >= evening, 120, "the evening")
    machine.stop()
    launched, overdue = started(machine)
    cycles = launched["builtin-f-tick"]
    evaluated = {moment.replace(second=0) for moment in cycles if moment.second >= SURE}
    # A slow machine skips many minutes, but not all of them.
    assert len(cycles) > 400 and len(evaluated) > 50
    assert set(launched) >= {f"builtin-f-{name}" for name in ("hourly", "quarter", "whole", "window", "halves")}
    assert len(overdue["builtin-f-assured"]) >= 3
    for since, predictions in snapshots:
        assert len(predictions) == 3000
        check_predictions(predictions, since, launched, overdue, evaluated)


def start_of(machine, job):
    """When the process of the job started, by the log; None before."""
    for line in machine.log_lines():
        match = START.match(line)
        if match and match[2] == job:
            return datetime.datetime.fromisoformat(match[1])
    return None


def frozen_at(moment):
    """A clock that stands still."""
    return {"FAKETIME": moment.strftime("%Y-%m-%d %H:%M:%S")}


# The process of a delayed start and the test need their time, at the rate of the clock.
LATE = datetime.timedelta(seconds=90)


@pytest.mark.native(reason="too slow for its deadline when emulated")
def test_delayed_starts(machine, ctl):
    machine.clock("2026-06-02 02:10:10", rate=60)
    machine.template(maxDelay=240)
    crontabs = {"a": "15 * * * *", "b": "15 * * * *", "c": "16 * * * *", "d": "15 2 * * *", "e": "10~20 2 * * *"}
    machine.jobs("builtin", "f", [every_minute(name, crontab=crontab) for name, crontab in crontabs.items()])
    machine.start_and_wait()
    before = datetime.datetime(2026, 6, 2, 2, 11, tzinfo=datetime.timezone.utc)
    predictions = {}
    for prediction in json.loads(ctl("next", "-n", "50", "--json", env=frozen_at(before)).stdout):
        predictions.setdefault(prediction["job"], prediction)
    wait_for(lambda: start_of(machine, "builtin-f-a"), what="the first start")
    now = start_of(machine, "builtin-f-a") + datetime.timedelta(seconds=20)
    listed = {job["name"]: job for job in json.loads(ctl("list", "--json", env=frozen_at(now)).stdout)}
    # Kill the daemon: the starts outlive it, and are known without it.
    machine.signal(signal.SIGKILL)
    wait_for(lambda: not machine.daemon_pid(), what="the end of the daemon")
    status = json.loads(ctl("status", "--json", env=frozen_at(now)).stdout)
    assert status["delayed"] in (2, 3)  # the job with a random minute may be one of them
    wait_for(lambda: all(start_of(machine, name) for name in ("builtin-f-b", "builtin-f-d")), what="the last start")
    for name in ("builtin-f-a", "builtin-f-b", "builtin-f-d"):
        start = start_of(machine, name)
        prediction = predictions[name]
        earliest, latest = (
            datetime.datetime.fromisoformat(prediction["start_" + end]) for end in ("earliest", "latest")
        )
        assert earliest <= start <= latest + LATE, (name, prediction, start)
        assert prediction["earliest"] == prediction["latest"] == "2026-06-02T02:15:00+00:00"
    for name in ("builtin-f-b", "builtin-f-d"):
        job = listed[name]
        assert job["state"] == "launched", job
        promised = datetime.datetime.fromisoformat(job["delayed_start"])
        assert promised - 2 * SECOND <= start_of(machine, name) <= promised + LATE, (job, start_of(machine, name))
        assert job["last_run"] is None
    assert listed["builtin-f-a"]["state"] != "launched"


@pytest.mark.native(reason="too slow for its deadline when emulated")
def test_the_time_zone_is_that_of_the_daemon(machine, ctl):
    machine.clock("2026-06-02 02:10:10", rate=60, zone="Asia/Kolkata")
    machine.jobs("builtin", "f", [every_minute("x", crontab="12 2 * * *")])
    machine.start_and_wait()
    # The same moment on the clock of the caller.
    caller = {"TZ": "America/New_York", "FAKETIME": "2026-06-01 16:40:30"}
    done = ctl("next", "-n", "1", "--json", env=caller)
    (prediction,) = json.loads(done.stdout)
    assert prediction["earliest"] == prediction["latest"] == "2026-06-02T02:12:00+05:30"
    assert "times are those of the time zone of kestcrond, not of TZ=America/New_York" in done.stderr
    chosen = ctl("--tz", "Europe/Berlin", "next", "-n", "1", "--json", env=caller)
    assert json.loads(chosen.stdout)[0]["earliest"] == "2026-06-02T02:12:00+02:00" and chosen.stderr == ""
    wait_for(lambda: start_of(machine, "builtin-f-x"), what="the start")
    launched = start_of(machine, "builtin-f-x").replace(second=0)
    assert launched.isoformat() == prediction["earliest"]


def test_zones_that_do_not_exist(machine, ctl):
    for zone in ("Nowhere", "../../../etc/passwd", "/etc/localtime", "Europe"):
        done = ctl("--tz", zone, "list")
        assert (done.returncode, f'"{zone}" is not a known time zone' in done.stderr) == (2, True), zone
