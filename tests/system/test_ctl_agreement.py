"""What `kestcronctl next` promised is what the log shows."""

import datetime
import json
import re

import pytest
from conftest import every_minute, never
from ctl import ctl  # noqa: F401
from private_machine import wait_for

MINUTE = datetime.timedelta(minutes=1)
START = re.compile(r"(\S+) running job: (\S+) with command: .* \(state\[(\w+)\], "
                   r"trig\[\d\d (\d\d):(\d\d):(\d\d)\]")

JOBS = {
    "hourly": "~ * * * *", "daily": "~ ~ * * *", "weekly": "~ ~ * * ~", "monthly": "~ ~ ~ * *",
    "office": "0,20,40 8~17 * * *", "quarter": "0,15,30,45 * * * *", "night": "30 23 * * *",
    "midnight": "0 0 * * *", "monday": "~ 5 * * 1", "first": "7 ~ 1 * *", "both": "5,~ 6~7 * * *",
    "whole": "* 3 * * *", "window": "10~20 * * * *", "mixed": "5 ~,12 * * *", "tuesday": "1 1 * * 2",
}


def minute_of(text):
    return datetime.datetime.fromisoformat(text).replace(second=0)


def started(machine):
    """Job to the moments at which it was launched by its schedule, and those for being overdue."""
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


# What is found due at the end of a minute is launched a moment later, and that is what is told.
SURE = 40  # from this second on it is the same minute, with a clock as fast as this


def minutes_of(moment):
    """The minutes in which what was launched then may have been due."""
    minute = moment.replace(second=0)
    return [minute] if moment.second >= SURE else [minute, minute - MINUTE]


def check_promises(promises, since, launched, overdue, looked):
    """All that was launched was promised, and all that was promised for sure was launched."""
    end = max(looked)
    # Only so many starts were asked for: a machine that could not be stopped soon went on.
    last = max(minute_of(promise["earliest"]) for promise in promises)
    for job, moments in launched.items():
        mine = [promise for promise in promises if promise["job"] == job]
        for moment in (moment for moment in moments if since + 2 * MINUTE < moment < last):
            assert any(minute_of(promise["earliest"]) <= minute <= minute_of(promise["latest"])
                       for minute in minutes_of(moment)
                       for promise in mine if not promise["overdue"]), (job, moment, since)
    links = 0
    for promise in promises:
        minute = minute_of(promise["earliest"])
        links += promise["overdue"]
        if promise["undrawn"] or not since < minute < end - 2 * MINUTE:
            continue
        if promise["overdue"]:
            # At the first look at which it is, as long after the one before. The log tells of that
            # one when its process has started, which may already be the next minute.
            looks = overdue.get(promise["job"], [])
            assert any(minute - MINUTE <= look <= minute + (2 * links + 1) * MINUTE
                       for look in looks), (promise, since, looks)
        elif minute in looked:
            assert minute in (moment.replace(second=0) for moment in
                              launched.get(promise["job"], [])), (promise, since)


@pytest.mark.native(reason="too slow for its deadline when emulated")
def test_over_a_day_with_redraws(machine, ctl):  # noqa: F811
    """From Sunday, 31 May 2026, 22:50, so that all but the month is drawn anew at midnight."""
    machine.clock("2026-05-31 22:50:00", rate=1200)
    machine.template(maxDelay=0)
    machine.jobs("builtin", "f", [
        every_minute("tick"), never("assured", assure_execute=5),
        *(every_minute(name, crontab=crontab) for name, crontab in JOBS.items())])
    machine.start_and_wait()
    snapshots = []

    def take_at(hour):
        """What is promised once the draws of that hour of the day are made."""
        wait_for(lambda: any(minute.hour == hour and minute.minute > 2 for minute in ticks()), 120,
                 f"{hour} o'clock")
        now = machine.log_lines()[-1].split()[0]
        clock = {"FAKETIME": now[:19].replace("T", " ")}  # stands still while we ask
        later = (minute_of(now) + 5 * 60 * MINUTE).isoformat()
        for start, ask in ((now, []), (later, ["--at", later])):
            promises = json.loads(ctl("next", "-n", "3000", *ask, "--json", env=clock).stdout)
            # What was launched while we asked is told by nobody.
            snapshots.append((max(minute_of(start), *ticks()), promises))

    ticks = lambda: started(machine)[0].get("builtin-f-tick", [])
    for hour in (22, 0, 3, 9):
        take_at(hour)
    evening = datetime.datetime(2026, 6, 1, 20, tzinfo=datetime.timezone.utc)
    wait_for(lambda: ticks() and max(ticks()) >= evening, 120, "the evening")
    machine.stop()
    launched, overdue = started(machine)
    looks = launched["builtin-f-tick"]
    looked = {moment.replace(second=0) for moment in looks if moment.second >= SURE}
    # A slow machine steps over many minutes, but not over all of a job that has many.
    assert len(looks) > 400 and len(looked) > 50
    assert set(launched) >= {f"builtin-f-{name}" for name in (
        "hourly", "quarter", "whole", "window")}
    assert len(overdue["builtin-f-assured"]) >= 3
    for since, promises in snapshots:
        assert len(promises) == 3000
        check_promises(promises, since, launched, overdue, looked)
