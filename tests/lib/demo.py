"""The demonstration: the real daemon on a private machine whose clock runs 60 times as fast.

Everything shown is read from the daemon's documents and logs and from what the jobs wrote. The exit
status is 0 if all CHECKS passed.

Usage: python3 -m tests.lib.demo DAEMON
"""

import json
import os
import re
import signal
import shutil
import subprocess
import sys
import textwrap
import time
from collections import Counter
from pathlib import Path
from typing import NamedTuple

from tests.lib.private_machine import Deadline, PrivateMachine, wait_for

PASSIVE_START = "2026-05-24 10:30:20"
ACTIVE_START = "2026-06-02 01:55:20"
TOP_OF_HOUR = "02:00"
LAST_MINUTE = "02:20"
MAX_DELAY = 5  # seconds between two starts; with more, the starts of two minutes would overlap

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
DROPPED_IN = "usr/local/etc/kestcron_nonroot.d/weather/storm.conf"
DROPPED_IN_JOB = "pkg_nonroot-weather-storm-default"
PASSIVE_JOB = "pkg-vault-mirror"
ASSURED_JOB = "pkg-vault-verify"
ACCOUNTS = {"system": 901, "vault": 2001, "photos": 2002, "weather": 2003}
OWNERS = {
    "/usr/local/etc/kestcron_nonroot.d/photos": "photos",
    "/usr/local/etc/kestcron_nonroot.d/weather": "weather",
    "/usr/local/var/photos": "photos",
    "/usr/local/var/vault": "vault",
}

JOB_LOG = "/var/log/jobs.log"
PERSISTENT_FILE = "/usr/kest/etc/kestcrond.config"
PERSISTENT_TEMPLATE = "/usr/kest/etc/kestcrond.st.config"

CHECKS = {
    "passive": "on the passive machine, only the job marked run_on_passive started",
    "kept": "the drawn times survived the restart",
    "assured": "the overdue assured job ran once, without being due",
    "redrawn": "the minutes were redrawn at the full hour",
    "dropped": "the added job file was loaded and its job ran",
    "shown": "kestcronctl showed every job and the running daemon",
    "stopped": "clean stop: process ended, pid file removed, documents saved",
    "root": "jobs of the class root ran as root",
    "system": "jobs of the class system ran as system",
    "package": "jobs of the class package ran as their packages' accounts",
    "recorded": "every start in the execution log is a run that a program recorded",
    "silent": "no failure in the execution log, no error in the system log",
}


# --- The terminal --------------------------------------------------------------------------------

COLOUR = sys.stdout.isatty() and not os.environ.get("NO_COLOR")
BOLD, DIM, RED, GREEN, YELLOW = 1, 2, 31, 32, 33


def paint(code, text):
    return f"\033[{code}m{text}\033[0m" if COLOUR else text


def heading(text):
    print("\n" + paint(BOLD, f"── {text} ".ljust(79, "─")))


# --- The logs -----------------------------------------------------------------------------------

START_FORM = re.compile(r"\d+-\d+-\d+T([\d:]{8})\S+ running job: (\S+) with command: .* as user (\S+) \((.*)\)")


class Start(NamedTuple):
    """A start in the execution log."""

    clock: str
    job: str
    account: str
    note: dict  # such as {"state": "Ready", "trig": "02 01:55:20", "job": "2/3", "delay": "5"}

    @classmethod
    def from_line(cls, line):
        """None for any other line."""
        match = START_FORM.fullmatch(line)
        return match and cls(*match.groups()[:3], dict(re.findall(r"(\w+)\[([^]]*)\]", match[4])))

    def is_last(self):
        """Whether this is the last of the jobs that were launched together."""
        rank, launched = self.note.get("job", "1/1").split("/")
        return rank == launched

    def show(self):
        note = self.note["state"]
        note += f" {self.note['job']}" if "job" in self.note else ""
        note += f" +{self.note['delay']} s" if "delay" in self.note else ""
        colour = DIM if self.note["state"] == "Ready" else YELLOW
        print(f"  {self.clock}  {self.job:<34} {self.account:<8} {paint(colour, note)}")


class Record(NamedTuple):
    """A line that a job's program wrote."""

    clock: str
    job: str
    account: str
    text: str


# --- Schedules in words --------------------------------------------------------------------------

FIELDS = ("Minute", "hour", "day", "month", "week")
WEEKDAYS = ("Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat")
EVERY = -1


def in_words(schedule):
    minutes, hours, days, months, weekdays = (schedule[key] for key in FIELDS)
    words = [WEEKDAYS[day] for day in weekdays if day != EVERY]
    words += [f"day {day}" for day in days if day != EVERY]
    words += [f"month {month}" for month in months if month != EVERY]
    return " ".join(words + [time_in_words(minutes, hours, daily=not words)])


def time_in_words(minutes, hours, daily):
    if EVERY in hours:
        return minutes_in_words(minutes)
    if EVERY in minutes:
        return "every minute of hour " + " ".join(map(str, hours))
    times = (f"{hour:02}:{minute:02}" for hour in hours for minute in minutes)
    return ("daily at " if daily else "at ") + " ".join(times)


def minutes_in_words(minutes):
    if EVERY in minutes:
        return "every minute"
    step = 60 // len(minutes)
    if len(minutes) > 1 and minutes == list(range(0, 60, step)):
        return f"every {step} minutes"
    return "every hour at " + " ".join(f":{minute:02}" for minute in minutes)


def is_drawn(config):
    return config["period"][0] != "c" or "~" in config["crontab"]


def shares_minute(config):
    """Whether the job runs in the minute of the schedule template."""
    return config["period"][0] != "c" or config["crontab"].startswith("~ ")


def account_of(config):
    return config["package_username"] if config["user"] == "package" else config["user"]


# --- The appliance -------------------------------------------------------------------------------


class Appliance(PrivateMachine):
    """A machine with the example jobs and one clock for all processes."""

    def set_up(self):
        for name, uid in ACCOUNTS.items():
            self.add_account(name, uid)
        for source in sorted(EXAMPLES.glob("usr/**/*")):
            inside = str(source.relative_to(EXAMPLES))
            if source.is_file() and inside != DROPPED_IN:
                self.install(inside)
        for directory, owner in OWNERS.items():
            self.run("chown", "-R", owner, directory, check=True)
        self.write(JOB_LOG, "", 0o666)
        shutil.copy2(self.daemon_binary.with_name("kestcronctl"), self.path("/usr/bin/kestcronctl"))

    def install(self, inside):
        source = EXAMPLES / inside
        self.write(inside, source.read_bytes(), source.stat().st_mode & 0o777)

    def set_clock(self, start):
        """Starts a clock that the daemon and all jobs share, whatever their accounts."""
        self.clock(start)
        for name in ("FAKETIME_SHARED", "FAKETIME_DONT_RESET"):
            self.environment.pop(name, None)
        shared_memory = self.path("/dev/shm")
        before = set(shared_memory.iterdir())
        nothing = {name: subprocess.DEVNULL for name in ("stdin", "stdout", "stderr")}
        self.popen("sleep", "infinity", **nothing)  # keeps the clock
        pair = wait_for(lambda: len(new := set(shared_memory.iterdir()) - before) == 2 and new, what="the clock")
        for file in pair:
            file.chmod(0o666)
        memory, semaphore = sorted(file.name.removeprefix("sem.") for file in pair)[::-1]
        self.environment.update(FAKETIME_SHARED=f"/{semaphore} /{memory}", FAKETIME_DONT_RESET="1")

    def time_of_day(self):
        return self.run("date", "+%H:%M:%S", check=True).stdout.strip()

    def document(self, inside):
        return json.loads(self.read(inside) or "{}")

    def jobs(self, inside=PrivateMachine.RUNTIME_FILE):
        return self.document(inside).get("jobs", {})

    def version(self, inside):
        """A value that changes whenever the file is replaced; None if the file is missing."""
        if not self.exists(inside):
            return None
        status = self.path(inside).stat()
        return status.st_ino, status.st_mtime_ns

    def starts(self):
        return [start for line in self.log_lines() if (start := Start.from_line(line))]

    def failures(self):
        lines = [line for line in self.log_lines() if not Start.from_line(line)]
        return lines + [repr(message) for message in self.messages(priority="err")]

    def records(self):
        return [Record(*line.split(" ", 3)) for line in self.read(JOB_LOG).splitlines()]


# --- The demonstration --------------------------------------------------------------------------


class Show:
    def __init__(self, appliance):
        self.appliance = appliance
        self.came_true = dict.fromkeys(CHECKS, False)
        self.starts = []

    def follow(self, condition, seconds, what):
        """Shows new starts until `condition()` is true, and returns its value."""
        end = time.monotonic() + seconds
        while not (value := condition()):
            self.show_new_starts()
            if not self.appliance.daemon_pid():
                raise Deadline("the daemon has ended unexpectedly")
            if time.monotonic() > end:
                raise Deadline(f"{what}: not within {seconds} seconds")
            time.sleep(0.02)
        self.show_new_starts()
        return value

    def show_new_starts(self):
        new = self.appliance.starts()[len(self.starts) :]
        self.starts += new
        for start in new:
            start.show()

    def event(self, text):
        self.show_new_starts()
        print(paint(YELLOW, f"  {self.appliance.time_of_day()}  » {text}"))

    def run(self):
        self.appliance.set_up()
        self.run_passive()
        self.start()
        self.pass_the_hour()
        self.drop_a_file_in()
        self.follow(
            lambda: self.starts[-1].clock > LAST_MINUTE and self.starts[-1].is_last(), 45, f"the minute {LAST_MINUTE}"
        )
        self.show_tool()
        self.stop()
        self.await_last_jobs()

    def run_passive(self):
        heading(f"{PASSIVE_START[:10]}: a new machine is passive (--passive-mode)")
        self.appliance.set_clock(PASSIVE_START)
        self.appliance.start_and_wait("--passive-mode")
        self.follow(lambda: self.starts, 10, "the start of a job")
        self.appliance.stop()
        # A start has no rank when nothing else was launched with it.
        self.came_true["passive"] = all(start.job == PASSIVE_JOB and "job" not in start.note for start in self.starts)
        print(paint(DIM, "  Stopped. The machine is then off for nine days."))

    def start(self):
        heading(f"{ACTIVE_START[:10]}: the machine becomes active, its clock runs fast")
        template = self.appliance.document(PERSISTENT_TEMPLATE)
        self.appliance.write(PERSISTENT_TEMPLATE, json.dumps({**template, "maxDelay": MAX_DELAY}))
        jobs = self.appliance.jobs(PERSISTENT_FILE)
        self.appliance.set_clock(ACTIVE_START)
        self.appliance.start_and_wait()
        self.came_true["kept"] = self.draws() == {
            "template": template["schedule"],
            **{name: job["schedule"] for name, job in jobs.items()},
        }
        self.show_jobs()
        heading("starts: time, job, account, state, rank, delay")
        print(
            paint(
                DIM,
                "  Ready: the job is due. AssureExecute: the job is overdue.\n"
                f"  2/5: the second of five jobs launched together, which start {MAX_DELAY} s apart.\n",
            )
        )

    def draws(self):
        template = self.appliance.document(self.appliance.RUNTIME_TEMPLATE)
        jobs = self.appliance.jobs()
        return {"template": template.get("schedule"), **{name: job["schedule"] for name, job in jobs.items()}}

    def show_jobs(self):
        for name, job in self.appliance.jobs().items():
            mark = "~" if is_drawn(job["config"]) else " "
            print(f"  {name:<34} {account_of(job['config']):<8} {mark} {in_words(job['schedule'])}")
        shared = {key: values[0] for key, values in self.draws()["template"].items()}
        print(
            paint(
                DIM,
                "  ~ drawn at random. Jobs share the drawn values where possible: minute {Minute},\n"
                "    hour {hour}, day {day}, month {month}, weekday {0}.".format(WEEKDAYS[shared["week"]], **shared),
            )
        )

    def pass_the_hour(self):
        appliance = self.appliance
        before, version = self.draws(), appliance.version(appliance.RUNTIME_TEMPLATE)
        self.follow(
            lambda: appliance.version(appliance.RUNTIME_TEMPLATE) != version, 30, "the redraw at the top of the hour"
        )
        clock = appliance.time_of_day()
        after = self.draws()
        minutes = {name: (before[name]["Minute"], after[name]["Minute"]) for name in before}
        old, new = minutes.pop("template")
        self.event(f"the minute is redrawn: {old[0]} → {new[0]}")
        for name, (job_old, job_new) in minutes.items():
            if job_old != job_new:
                print(f"            {name:<34} {' '.join(map(str, job_old))} → " f"{' '.join(map(str, job_new))}")
        shared = all(
            after[name]["Minute"] == new for name, job in appliance.jobs().items() if shares_minute(job["config"])
        )
        # A single redraw yields the same minute in one of sixty cases; all of them together hardly ever do.
        self.came_true["redrawn"] = clock[:5] == TOP_OF_HOUR and before != after and shared

    def drop_a_file_in(self):
        self.event("added: " + DROPPED_IN.removeprefix("usr/local/etc/"))
        self.appliance.install(DROPPED_IN)
        self.follow(lambda: DROPPED_IN_JOB in self.appliance.jobs(), 15, "the new job's loading")
        job = self.appliance.jobs()[DROPPED_IN_JOB]
        self.event(f"loaded: {DROPPED_IN_JOB}, {in_words(job['schedule'])}")
        self.follow(lambda: self.starts_of(DROPPED_IN_JOB), 15, "the new job's start")

    def show_tool(self):
        """Shows the output of kestcronctl at this moment."""
        shown = {}
        for command in ("status", "list", "next -n 8", "timeline --hours 6", "log -n 3"):
            result = self.appliance.run("kestcronctl", *command.split(), env={"LC_ALL": "C.UTF-8"})
            shown[command] = result.stdout
            print(paint(YELLOW, f"\n  $ kestcronctl {command}"))
            print(textwrap.indent(result.stdout, "  "), end="")
        print()
        self.came_true["shown"] = "running as process" in shown["status"] and all(
            job in shown["list"] for job in self.appliance.jobs()
        )

    def starts_of(self, job):
        return [start for start in self.starts if start.job == job]

    def stop(self):
        appliance = self.appliance
        documents = (PERSISTENT_FILE, PERSISTENT_TEMPLATE)
        before = [appliance.version(document) for document in documents]
        self.event("SIGTERM")
        appliance.stop()
        written = all(appliance.version(document) != version for document, version in zip(documents, before))
        kept = appliance.jobs(PERSISTENT_FILE)
        complete = kept.keys() == appliance.jobs().keys() and DROPPED_IN_JOB in kept
        gone = not appliance.exists(appliance.PID_FILE)
        self.event(
            f"ended; pid file {'removed' if gone else 'still present'}, {len(kept)} jobs saved for the next start"
        )
        self.came_true["stopped"] = written and complete and gone

    def await_last_jobs(self):
        prefixes = ("kestcrond", "builtin-", "pkg-", "pkg_nonroot-")
        wait_for(
            lambda: not any(process["name"].startswith(prefixes) for process in self.appliance.processes().values()),
            10,
            "the end of the last jobs",
        )
        self.show_new_starts()

    def check_runs(self):
        appliance = self.appliance
        jobs = {name: job["config"] for name, job in appliance.jobs(PERSISTENT_FILE).items()}
        records = appliance.records()
        for user in ("root", "system", "package"):
            ran = [record for record in records if jobs.get(record.job, {}).get("user") == user]
            self.came_true[user] = bool(ran) and all(record.account == account_of(jobs[record.job]) for record in ran)
        recorded = Counter((record.job, record.account) for record in records)
        self.came_true["recorded"] = bool(records) and recorded == Counter(
            (start.job, start.account) for start in self.starts
        )
        self.came_true["assured"] = recorded.keys() >= {(ASSURED_JOB, "vault")} and [
            start.note["state"] for start in self.starts_of(ASSURED_JOB)
        ] == ["AssureExecute"]
        self.came_true["dropped"] = (DROPPED_IN_JOB, "weather") in recorded
        self.came_true["silent"] = bool(records) and not appliance.failures()

    def summarise(self):
        self.check_runs()
        heading("output of the programs: runs, job, account (id -un), last line")
        latest = {record.job: record for record in self.appliance.records()}
        runs = Counter(record.job for record in self.appliance.records())
        for name, record in sorted(latest.items()):
            print(f"  {runs[name]:>3}  {name:<34} {record.account:<8} {record.text}")
        heading("summary")
        for line in self.appliance.failures():
            print(paint(RED, f"  {line}"))
        for check, true in self.came_true.items():
            mark = paint(GREEN, "✓") if true else paint(RED, "✗")
            print(f"  {mark} {CHECKS[check]}")


def main():
    sys.stdout.reconfigure(encoding="utf-8", line_buffering=True)
    for number in (signal.SIGTERM, signal.SIGINT):  # end the private machine too
        signal.signal(number, lambda *_: sys.exit("demo: ended early"))
    with Appliance(sys.argv[1]) as appliance:
        show = Show(appliance)
        try:
            show.run()
        except Exception as error:  # the summary shows how far the demonstration got
            print(paint(RED, f"  ✗ {type(error).__name__}: {error}"))
        show.summarise()
        return 0 if all(show.came_true.values()) else 1


if __name__ == "__main__":
    sys.exit(main())
