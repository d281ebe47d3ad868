"""kestcronctl timeline, as text, SVG and JSON, and kestcronctl metrics."""

import json
import re
import stat
import xml.etree.ElementTree as ElementTree

import pytest
from tests.lib.appliance import every_minute, never
from tests.lib.ctl import expect_golden
from tests.lib.private_machine import wait_for
from prometheus_client.parser import text_string_to_metric_families

SVG = "{http://www.w3.org/2000/svg}"


@pytest.fixture
def appliance(machine):
    """A machine whose clock stands still, with a fixed draw and various jobs."""
    machine.clock("2026-06-02 02:10:10", rate=0, zone="UTC")
    machine.template(schedule={"Minute": [17], "hour": [5], "day": [9], "month": [6], "week": [3]}, maxDelay=0)
    machine.jobs(
        "pkg",
        "f.conf",
        [
            every_minute("assured", crontab="0 0 31 2 *", assure_execute=4),
            every_minute("daily", period="daily"),
            every_minute("fixed", crontab="0,30 6,18 * * *"),
            every_minute("hourly", period="hourly"),
            every_minute("minutely"),
            every_minute('<"&\\>', crontab="5 9 * * *"),
            never("never"),
        ],
    )
    return machine


@pytest.fixture
def running(appliance):
    """The same with a running daemon that has started the due jobs."""
    appliance.start_and_wait()
    wait_for(lambda: appliance.runs("pkg-f-minutely"), what="the job of every minute")
    names = lambda: [process["name"] for process in appliance.processes().values()]
    wait_for(lambda: "pkg-f-minutely" not in names(), what="the end of the job")
    return appliance


def output(ctl, *arguments, **options):
    """The standard output of a successful command."""
    done = ctl(*arguments, **options)
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout


def test_the_timeline_on_a_terminal(running, ctl):
    for columns in (40, 120, 80):
        text = ctl.on_terminal("timeline", columns=columns, env={"NO_COLOR": "1"})
        expect_golden(f"timeline.{columns}", text)
        assert max(map(len, text.splitlines())) <= columns
    coloured = ctl.on_terminal("timeline")
    assert "\033[33m▲\033[0m" in coloured
    assert re.sub("\033\\[[0-9]*m", "", coloured) == text


@pytest.mark.parametrize("hours", [1, 8, 168])
def test_the_timeline_fits(running, ctl, hours):
    for columns in (30, 57, 200):
        text = ctl.on_terminal("timeline", "--hours", hours, columns=columns, env={"NO_COLOR": "1"})
        assert len(text.splitlines()) > 5
        assert max(map(len, text.splitlines())) <= columns


def test_the_timeline_without_a_terminal(running, ctl):
    lines = output(ctl, "timeline").splitlines()
    assert max(map(len, lines)) == 100
    text = output(ctl, "timeline", env={"LC_ALL": "C"})
    assert text.isascii()
    rows = dict(line.split(maxsplit=1) for line in text.splitlines()[3:9])
    assert set(rows["pkg-f-minutely"]) == {"#"}
    assert rows["pkg-f-assured"].startswith("!")
    assert re.match("#  [.]+,+[.]+,+[.]", rows["pkg-f-hourly"])


def test_the_timeline_in_json(running, ctl):
    document = json.loads(output(ctl, "timeline", "--hours", 2, "--json"))
    assert (document["from"], document["until"]) == ("2026-06-02T02:10:00+00:00", "2026-06-02T04:10:00+00:00")
    assert document["idle_jobs"] == 5
    starts = {job["name"]: job["starts"] for job in document["jobs"]}
    assert list(starts) == ["pkg-f-hourly", "pkg-f-minutely"]
    assert starts["pkg-f-hourly"] == [
        {
            "earliest": "2026-06-02T02:17:00+00:00",
            "start_earliest": "2026-06-02T02:17:00+00:00",
            "latest": "2026-06-02T02:17:00+00:00",
            "start_latest": "2026-06-02T02:17:59+00:00",
            "undrawn": [],
            "at_most": 1,
            "overdue": False,
            "waits": False,
        },
        {
            "earliest": "2026-06-02T03:01:00+00:00",
            "start_earliest": "2026-06-02T03:01:00+00:00",
            "latest": "2026-06-02T04:00:00+00:00",
            "start_latest": "2026-06-02T04:00:59+00:00",
            "undrawn": ["Minute"],
            "at_most": 1,
            "overdue": False,
            "waits": False,
        },
        {
            "earliest": "2026-06-02T04:01:00+00:00",
            "start_earliest": "2026-06-02T04:01:00+00:00",
            "latest": "2026-06-02T05:00:00+00:00",
            "start_latest": "2026-06-02T05:00:59+00:00",
            "undrawn": ["Minute"],
            "at_most": 1,
            "overdue": False,
            "waits": False,
        },
    ]
    assert len(starts["pkg-f-minutely"]) == 119  # all but the one that has started
    assert [(entry["from"][11:16], entry["starts"], entry["possible"]) for entry in document["load"]] == [
        ("02:00", 4, 0),
        ("02:15", 16, 0),
        ("02:30", 15, 0),
        ("02:45", 15, 0),
        ("03:00", 15, 1),
        ("03:15", 15, 1),
        ("03:30", 15, 1),
        ("03:45", 15, 1),
        ("04:00", 10, 2),
    ]


def test_the_timeline_in_svg(running, ctl):
    assert output(ctl, "timeline", "--svg", "/tmp/picture.svg") == ""
    text = running.read("/tmp/picture.svg")
    assert output(ctl, "timeline", "--svg", "-") == text
    root = ElementTree.fromstring(text)
    assert root.tag == SVG + "svg"
    assert [child.tag for child in root][:2] == [SVG + "title", SVG + "desc"]
    assert root.find(SVG + "title").text == "Job starts from 2026-06-02 02:10 to 2026-06-03 02:10"
    titles = [title.text for title in root.iter(SVG + "title")]
    for title in (
        'pkg-f-<"&\\>: 2026-06-02 09:05',
        "pkg-f-fixed: 2026-06-02 18:30",
        "pkg-f-assured: 2026-06-02 06:10, overdue",
        "pkg-f-minutely: 2026-06-02 02:11 to 2026-06-03 02:09, 1439 starts",
        "pkg-f-hourly: one start between 2026-06-02 03:01 and 2026-06-02 04:00; " "not yet drawn: minute",
    ):
        assert titles.count(title) == 1, titles
    assert not list(root.iter(SVG + "script"))
    assert not re.search(r"https?://(?!www\.w3\.org/2000/svg)|@import|url\(", text)


PAST_LOG = """\
2026-06-01T02:10:09+00:00 running job: pkg-f-daily with command: c as user root (state[Ready], trig[01 02:10:09])
2026-06-01T05:20:00+00:00 running job: pkg-f-daily with command: c as user root (state[Ready], trig[01 05:17:00], job[2/2], delay[180])
2026-06-01T06:00:07+00:00 running job: pkg-f-fixed with command: c as user root (state[Ready], trig[01 06:00:07])
2026-06-01T06:00:07+00:00 running job: pkg-f-fixed with command: c failed, return code: -1, error: Exec format error
2026-06-01T12:00:00+00:00 running job: pkg-f-hourly with command: c as user root (state[Manual], trig[01 12:00:00])
2026-06-01T18:00:00+00:00 Failed to setuid forpkg-f-former for user alice[Operation not permitted]
2026-06-02T02:10:11+00:00 running job: pkg-f-daily with command: c as user root (state[Ready], trig[02 02:10:11])
cut off
"""


@pytest.fixture
def past(appliance):
    """The same after a day whose log is known, without the daemon."""
    appliance.start_and_wait()
    appliance.stop()
    appliance.write(appliance.LOG_FILE, PAST_LOG, mode=0o600)
    return appliance


def test_the_past_in_json(past, ctl):
    document = json.loads(ctl("timeline", "--past", "--json").stdout)
    assert (document["from"], document["until"]) == ("2026-06-01T02:10:10+00:00", "2026-06-02T02:10:10+00:00")
    assert (document["log_begins"], document["idle_jobs"]) == ("2026-06-01T02:10:09+00:00", 4)
    start = lambda time, manual=False, failure=None: {
        "time": f"2026-06-01T{time}+00:00",
        "by_hand": manual,
        "failed": failure is not None,
        "reason": failure,
    }
    assert {job["name"]: job["starts"] for job in document["jobs"]} == {
        "pkg-f-daily": [start("05:20:00")],
        "pkg-f-fixed": [start("06:00:07", failure="Exec format error")],
        "pkg-f-former": [start("18:00:00", failure="setuid: Operation not permitted")],
        "pkg-f-hourly": [start("12:00:00", manual=True)],
    }
    busy = {entry["from"][11:16]: entry["starts"] for entry in document["load"] if entry["starts"]}
    assert busy == {"05:15": 1, "06:00": 1, "12:00": 1, "18:00": 1}


def test_the_past_on_a_terminal(past, ctl):
    text = ctl.on_terminal("timeline", "--past", env={"NO_COLOR": "1"})
    expect_golden("timeline-past.80", text)
    coloured = ctl.on_terminal("timeline", "--past")
    assert "\033[31m×\033[0m" in coloured
    rows = dict(
        line.split(maxsplit=1)
        for line in ctl("timeline", "--past", env={"LC_ALL": "C"}).stdout.splitlines()
        if line.startswith("pkg-")
    )
    assert {name: set(row) - set(" |") for name, row in rows.items()} == {
        "pkg-f-daily": {"#"},
        "pkg-f-fixed": {"x"},
        "pkg-f-former": {"x"},
        "pkg-f-hourly": {"o"},
    }


def test_the_past_in_svg(past, ctl):
    root = ElementTree.fromstring(ctl("timeline", "--past", "--svg", "-").stdout)
    shapes = {
        (child.tag.removeprefix(SVG), child.get("class")): title.text
        for child in root
        for title in child.iter(SVG + "title")
        if child.get("class") in ("mark", "byhand", "failed")
    }
    assert shapes == {
        ("rect", "mark"): "pkg-f-daily: 2026-06-01 05:20",
        ("polygon", "byhand"): "pkg-f-hourly: 2026-06-01 12:00, by hand",
        (
            "polygon",
            "failed",
        ): "pkg-f-former: 2026-06-01 18:00, failed: setuid: Operation not permitted",
    }


def test_the_past_is_no_longer_than_the_log(past, ctl):
    text = ctl("timeline", "--past", "--hours", "48").stdout
    assert text.splitlines()[1] == "The execution log begins yesterday 02:10"
    past.path(past.LOG_FILE).rename(past.path(past.LOG_FILE + ".1"))
    past.write(past.LOG_FILE, "", mode=0o600)
    assert ctl("timeline", "--past", "--hours", "48").stdout == text
    past.path(past.LOG_FILE + ".1").unlink()
    assert "The execution log is empty\nNo job started in these hours\n" in ctl("timeline", "--past").stdout


@pytest.mark.native(reason="the emulated tool runs as another user")
def test_the_past_needs_the_log(past, ctl):
    result = ctl("timeline", "--past", user=4711)
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr.endswith(f"kestcronctl: {past.LOG_FILE}: Permission denied\n")


@pytest.mark.parametrize("options", [[], ["--past"]])
def test_the_timeline_of_some_jobs(past, ctl, options):
    shown = lambda *patterns: [
        job["name"] for job in json.loads(ctl("--json", "timeline", *options, *patterns).stdout)["jobs"]
    ]
    assert shown("fixed", "pkg-f-d*") == ["pkg-f-daily", "pkg-f-fixed"]
    assert shown("former") == (["pkg-f-former"] if options else [])
    assert json.loads(ctl("--json", "timeline", *options, "never").stdout)["idle_jobs"] == 1
    result = ctl("timeline", *options, "nothing")
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr.endswith("kestcronctl: no job matches\n")


def test_svg_replaces_the_file(running, ctl):
    running.write("/tmp/old.svg", "old", mode=0o640)
    before = running.path("/tmp/old.svg").stat().st_ino
    for path in ("/tmp/old.svg", "/tmp/new.svg"):
        output(ctl, "timeline", "--svg", path)
        assert ElementTree.fromstring(running.read(path)).tag == SVG + "svg"
        assert stat.S_IMODE(running.path(path).stat().st_mode) == 0o644
    assert running.path("/tmp/old.svg").stat().st_ino != before


def test_links_to_devices_are_not_replaced(running, ctl):
    running.path("/tmp/out").symlink_to("/dev/null")
    for option in ("--svg", "--html"):
        result = ctl("timeline", option, "/tmp/out")
        assert (result.returncode, result.stderr) == (2, "kestcronctl: /tmp/out: Invalid argument\n")
    assert running.path("/tmp/out").is_symlink()


def test_a_start_with_several_failed_steps_is_one_failure(running, ctl):
    lines = ["2026-06-01T20:00:00+00:00 running job: a with command: c as user bob (state[Ready], trig[01 20:00:00])"]
    lines += ["2026-06-01T20:00:59+00:00 running job: a with command: c as user bob (state[Ready], trig[01 20:00:59])"]
    for step in ("initgroups", "setgid", "setuid"):
        lines.append(f"2026-06-01T20:00:59+00:00 Failed to {step} fora for user bob[Operation not permitted]")
    running.write(running.LOG_FILE, "".join(line + "\n" for line in lines), mode=0o600)
    past = json.loads(output(ctl, "--json", "timeline", "--past"))["jobs"]
    starts = [job for job in past if job["name"] == "a"][0]["starts"]
    assert [(start["failed"], start["reason"]) for start in starts] == [
        (False, None),
        (True, "initgroups: Operation not permitted"),
    ]


def test_a_page_without_the_log(running, ctl):
    result = ctl("timeline", "--html", "-", user=2001)
    assert result.returncode == 0
    assert "The execution log could not be read." in result.stdout and "is empty" not in result.stdout


@pytest.mark.parametrize("options", [("--past", "--svg"), ("--html",)])
def test_only_the_owner_can_read_what_the_log_says(running, ctl, options):
    running.write("/tmp/old", "old", mode=0o644)
    output(ctl, "timeline", *options, "/tmp/old")
    assert stat.S_IMODE(running.path("/tmp/old").stat().st_mode) == 0o600


@pytest.mark.parametrize(
    "path, error",
    [
        ("/nowhere/x.svg", "No such file or directory"),
        ("/tmp", "Is a directory"),
        ("/dev/null", "Invalid argument"),
        ("/dev/full", "Invalid argument"),
    ],
)
def test_svg_cannot_be_written(running, ctl, path, error):
    before = sorted(running.path("/tmp").iterdir())
    result = ctl("timeline", "--svg", path)
    assert (result.returncode, result.stderr) == (2, f"kestcronctl: {path}: {error}\n")
    assert sorted(running.path("/tmp").iterdir()) == before


def test_a_full_disk_keeps_the_old_file(running, ctl):
    small = running.path("/mnt/small")
    small.mkdir()
    running.run("/usr/bin/mount", "-t", "tmpfs", "-o", "size=8k", "tmpfs", "/mnt/small", check=True)
    running.write("/mnt/small/x.svg", "old")
    result = ctl("timeline", "--svg", "/mnt/small/x.svg")
    assert (result.returncode, result.stderr) == (2, "kestcronctl: /mnt/small/x.svg: No space left on device\n")
    assert running.read("/mnt/small/x.svg") == "old"
    assert [entry.name for entry in small.iterdir()] == ["x.svg"]


def test_svg_and_json_together_are_refused(running, ctl):
    result = ctl("--json", "timeline", "--svg", "-")
    assert (result.returncode, result.stdout) == (2, "")
    assert "--json and --svg" in result.stderr


def test_a_timeline_without_jobs(appliance, ctl):
    appliance.path("/usr/local/etc/kestcron.d/f.conf").unlink()
    appliance.start_and_wait()
    assert output(ctl, "timeline") == ("today 02:10 to tomorrow 02:10\nNo job starts in these hours\n")
    document = json.loads(output(ctl, "--json", "timeline"))
    assert (document["jobs"], document["idle_jobs"]) == ([], 0)
    root = ElementTree.fromstring(output(ctl, "timeline", "--svg", "-"))
    assert "No job starts in these hours" in [text.text for text in root.iter(SVG + "text")]


def samples(text):
    """Parses metrics. Returns the values by name and labels."""
    families = list(text_string_to_metric_families(text))
    assert {family.type for family in families} <= {"gauge", "counter"}
    assert all(family.documentation for family in families)
    found = [
        (sample.name, tuple(sorted(sample.labels.items())), sample.value)
        for family in families
        for sample in family.samples
    ]
    values = {(name, labels): value for name, labels, value in found}
    assert len(values) == len(found)
    return values


def test_the_metrics(running, ctl):
    text = output(ctl, "metrics")
    values = samples(text)
    assert values["kestcron_start_time_seconds", ()] > 1e9
    text = re.sub(r"(?m)^(kestcron_(start_time|document_timestamp)_seconds) \d+$", r"\1 0", text)
    text = re.sub(r'version="[\d.]+"', 'version="0"', text)
    expect_golden("metrics.txt", text)
    labels = (("name", 'pkg-f-<"&\\>'), ("user", "root"))
    assert values["kestcron_job_next_run_timestamp_seconds", labels] == 1780391100
    assert values["kestcron_jobs", ()] == 7


def test_the_metrics_of_a_held_and_passive_machine(appliance, ctl):
    appliance.write("/run/kestvorld.status", "2")
    appliance.start_and_wait("--passive-mode")
    values = samples(output(ctl, "metrics"))
    assert [values[f"kestcron_{name}", ()] for name in ("up", "passive", "held")] == [1, 1, 1]
    assert not [name for name, _ in values if "next_run" in name]


def test_the_metrics_without_the_daemon(running, ctl):
    running.stop()
    result = ctl("metrics")
    assert result.returncode == 0
    assert result.stderr.startswith("kestcronctl: kestcrond is not running")
    values = samples(result.stdout)
    assert (values["kestcron_up", ()], values["kestcron_jobs", ()]) == (0, 7)
    assert ("kestcron_start_time_seconds", ()) not in values


def test_the_metrics_without_a_document(appliance, ctl):
    result = ctl("metrics")
    assert result.returncode == 0
    assert re.fullmatch("kestcronctl: neither .* exists: kestcrond has not run on this system\n", result.stderr)
    values = samples(result.stdout)
    assert (values["kestcron_up", ()], values["kestcron_jobs", ()]) == (0, 0)


def test_the_metrics_with_an_invalid_document(appliance, ctl):
    appliance.write("/run/kestcrond.config", "{")
    result = ctl("metrics")
    assert (result.returncode, result.stdout) == (2, "")
    assert "is not a complete JSON document" in result.stderr


def test_the_metrics_refuse_json(running, ctl):
    result = ctl("--json", "metrics")
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr == ("kestcronctl: metrics does not support --json; use list --json\n")
