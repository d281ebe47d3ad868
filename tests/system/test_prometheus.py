"""The metrics as Prometheus reads them: names, counters, alert rules and the dashboard."""

import gzip
import json
import re
import subprocess
from pathlib import Path

import pytest
from tests.lib.private_machine import wait_for

PROMETHEUS = Path(__file__).resolve().parents[2] / "packaging/prometheus"
RULES = PROMETHEUS / "kestcron.rules.yml"
DASHBOARD = json.loads((PROMETHEUS / "kestcron.dashboard.json").read_text())
LOG = "/var/log/kestcrond-execute.log"
COUNTS = "/var/run/kestcronctl.counts"


def promtool(*arguments, text=None):
    """Returns what promtool prints; it must be content."""
    done = subprocess.run(
        ["promtool", *map(str, arguments)], input=text, capture_output=True, text=True, timeout=60, check=False
    )
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout + done.stderr


def metrics_in(expression):
    return set(re.findall(r"\bkestcron_\w+", expression))


# --- The text -----------------------------------------------------------------------------------


@pytest.fixture
def busy(machine):
    """Jobs in several states, one of them with characters that must be quoted, and files with faults."""
    define = lambda name, crontab, **more: {
        "name": name,
        "user": "root",
        "cmd": "/bin/true",
        "period": "crontab",
        "crontab": crontab,
        **more,
    }
    machine.jobs(
        "builtin",
        "f",
        [
            define('a"\\b', "* * * * *"),
            define("gone", "* * * * *", cmd="/usr/local/bin/gone"),
            define("late", "0 0 1 1 *", assure_execute=1),
            define("never", "0 0 31 2 *"),
            define("bad", "61 * * * *"),
            {"name": "also bad"},
        ],
    )
    machine.write("/usr/local/bin/gone", "#!/nowhere\n", mode=0o755)
    machine.write("/usr/local/etc/kestcron.d/broken", "{")
    machine.start_and_wait()
    return machine


def test_promtool_accepts_the_metrics(busy, ctl):
    wait_for(lambda: "starts_total" in ctl("metrics").stdout)
    assert promtool("check", "metrics", text=ctl("metrics").stdout) == ""


def test_promtool_finds_faults():
    """The test above can fail."""
    with pytest.raises(AssertionError, match="_total"):
        promtool("check", "metrics", text="# HELP a Text.\n# TYPE a counter\na 1\n")


def value(ctl, name):
    found = re.search(rf"(?m)^{re.escape(name)} (\S+)$", ctl("metrics").stdout)
    return int(found[1]) if found else None


def test_refused_jobs_and_files(busy, ctl):
    assert value(ctl, "kestcron_refused_jobs") == 2
    assert value(ctl, "kestcron_refused_files") == 1
    busy.path("/usr/local/etc/kestcron.d/broken").unlink()
    assert value(ctl, "kestcron_refused_files") == 0


def test_programs_that_cannot_be_run(busy, ctl):
    sample = 'kestcron_job_failed{name="builtin-f-gone",user="root"}'
    wait_for(lambda: value(ctl, sample) == 1)
    assert value(ctl, 'kestcron_job_start_failures_total{name="builtin-f-gone",user="root"}') >= 1
    assert value(ctl, 'kestcron_job_failed{name="builtin-f-late",user="root"}') == 0


def test_the_time_of_the_document(busy, ctl):
    seconds = int(busy.path("/run/kestcrond.config").stat().st_mtime)
    assert value(ctl, "kestcron_document_timestamp_seconds") == seconds


# --- Counters -----------------------------------------------------------------------------------


@pytest.fixture
def counted(machine, ctl):
    """A machine with two jobs that never start, and a log that begins with the daemon."""
    never = {"user": "root", "cmd": "/bin/true", "period": "crontab", "crontab": "0 0 31 2 *"}
    machine.jobs("builtin", "f", [{"name": name, **never} for name in ("a", "b")])
    machine.start_and_wait()
    return Counted(machine, ctl)


class Counted:
    def __init__(self, machine, ctl):
        self.machine, self.ctl = machine, ctl
        self.minute = 0

    def path(self, suffix=""):
        return self.machine.path(LOG + suffix)

    def start(self, job="a", *, failed=False, day="2030-01-01"):
        self.minute += 1
        time = f"{day}T{self.minute // 60:02}:{self.minute % 60:02}:00+00:00 "
        text = f"running job: builtin-f-{job} with command: /bin/true"
        end = " failed, return code: -1, error: x" if failed else " as user root (state[Ready], trig[01 00:00:00])"
        with self.path().open("a") as log:
            log.write(time + text + end + "\n")

    def rotate(self, keep=3):
        for number in range(keep, 0, -1):
            if self.path(f".{number}").exists():
                self.path(f".{number}").rename(self.path(f".{number + 1}"))
        self.path().rename(self.path(".1"))

    def starts(self, job="a"):
        return value(self.ctl, f'kestcron_job_starts_total{{name="builtin-f-{job}",user="root"}}')

    def failures(self, job="a"):
        return value(self.ctl, f'kestcron_job_start_failures_total{{name="builtin-f-{job}",user="root"}}')


def test_counters_begin_with_the_daemon(counted):
    counted.start(day="2020-01-01")
    counted.start()
    assert (counted.starts(), counted.starts("b"), counted.failures()) == (1, 0, 0)
    counted.start(failed=True)
    counted.start("b")
    assert (counted.starts(), counted.starts("b"), counted.failures()) == (1, 1, 1)
    assert (counted.starts(), counted.starts("b"), counted.failures()) == (1, 1, 1)


def test_counters_survive_rotations(counted):
    total = 0

    def start(number=1):
        nonlocal total
        for _ in range(number):
            counted.start()
        total += number

    start()
    assert counted.starts() == total
    start()  # in the file that becomes .1
    counted.rotate()
    assert counted.starts() == total - 1  # without a new file, nothing is counted yet
    start()
    assert counted.starts() == total
    start()
    for _ in range(2):
        counted.rotate()
        start(2)
    assert counted.starts() == total
    for name in (".1", ".2", ".3", ".4"):
        counted.path(name).unlink(missing_ok=True)
    assert counted.starts() == total
    start()
    assert counted.starts() == total


def test_counters_after_a_compression(counted):
    """The file with the counted place was compressed before the next call."""
    counted.start()
    assert counted.starts() == 1
    counted.start()
    counted.rotate()
    counted.path(".1.gz").write_bytes(gzip.compress(counted.path(".1").read_bytes()))
    counted.path(".1").unlink()
    counted.start()
    assert counted.starts() == 3
    counted.start()
    assert counted.starts() == 4


def test_counters_after_a_truncation(counted):
    for _ in range(3):
        counted.start()
    assert counted.starts() == 3
    counted.path().write_text("")
    assert counted.starts() == 3
    counted.start()
    assert counted.starts() == 4


def test_counters_wait_for_complete_lines(counted):
    counted.start()
    text = counted.path().read_text()
    counted.path().write_text(text + text[:60])
    assert counted.starts() == 1
    counted.path().write_text(text + text)
    assert counted.starts() == 2


def test_a_clock_that_is_set_back(counted):
    counted.start()
    assert counted.starts() == 1
    counted.start(day="2029-01-01")
    assert counted.starts() == 2


def test_jobs_that_come_and_go(counted):
    counted.start("b")
    counted.start("c")
    assert (counted.starts("b"), counted.starts("c")) == (1, None)
    assert set(json.loads(counted.machine.read(COUNTS))["jobs"]) == {"builtin-f-a", "builtin-f-b"}


@pytest.mark.parametrize(
    "damage",
    ["", "{", "[]", '"x"', '{"jobs": 3}', '{"jobs": {"builtin-f-a": {"starts": -5}}, "offset": -1, "inode": "x"}'],
)
def test_a_damaged_file_of_counts(counted, damage):
    counted.start()
    assert counted.starts() == 1
    counted.machine.write(COUNTS, damage)
    assert counted.starts() in (0, 1)
    counted.start()
    assert counted.starts() in (1, 2)
    assert counted.machine.path(COUNTS).stat().st_mode & 0o777 == 0o600


def test_counters_only_for_root(counted):
    counted.start()
    assert counted.starts() == 1
    result = counted.ctl("metrics", user=2001)
    assert result.returncode == 0 and "_total" not in result.stdout and "kestcron_jobs 2" in result.stdout


def test_counts_that_cannot_be_kept(counted):
    counted.machine.path(COUNTS).mkdir()
    counted.start()
    result = counted.ctl("metrics")
    assert f"kestcronctl: {COUNTS}: " in result.stderr
    assert result.returncode == 0 and "_total" not in result.stdout


# --- Alert rules --------------------------------------------------------------------------------


def test_promtool_accepts_the_rules():
    assert "SUCCESS: 9 rules found" in promtool("check", "rules", RULES)


LABELS = '{instance="m",name="j",user="root"}'
ALERTS = {
    "KestcrondDown": ('kestcron_up{instance="m"}', "1 0x20", "3m", "10m"),
    "KestcronJobFailed": (f"kestcron_job_failed{LABELS}", "0x5 1x20", "4m", "8m"),
    "KestcronJobFailsRepeatedly": (f"kestcron_job_start_failures_total{LABELS}", "0 1x60 2x60 4x60", "115m", "140m"),
    "KestcronJobOverdue": (f"kestcron_job_overdue{LABELS}", "0 1x100", "70m", "80m"),
    "KestcronJobKept": (f"kestcron_job_pending{LABELS}", "0 1x2000", "1400m", "1450m"),
    "KestcronJobsRefused": ('kestcron_refused_files{instance="m"}', "0 2x20", "8m", "12m"),
    "KestcronJobRunsLong": (f"kestcron_job_running{LABELS}", "0 1x2000", "1400m", "1450m"),
    "KestcronMetricsOld": ('kestcron_metrics_timestamp_seconds{instance="m"}', "0x40", "14m", "16m"),
    "KestcronMetricsMissing": ("other", "0x60", "10m", "20m"),
}


@pytest.mark.parametrize("alert", ALERTS)
def test_alerts(alert, tmp_path):
    """Silent at the first moment, raised at the second."""
    series, values, silent, raised = ALERTS[alert]
    rule = re.search(rf"(?ms)^      - alert: {alert}\n(.*?)(?=^      -|\Z)", RULES.read_text())[1]
    severity = re.search(r"severity: (\w+)", rule)[1]
    labels = {**dict(re.findall(r'(\w+)="(\w+)"', series)), "severity": severity}

    def at(moment, alerts):
        return {"eval_time": moment, "alertname": alert, "exp_alerts": alerts}

    text = {"machine": '"m"', "job": "j"}
    fill = (
        lambda found: found[1]
        .replace('\\"', '"')
        .replace("{{ $labels.instance }}", "m")
        .replace("{{ $labels.name }}", text["job"])
        .replace("{{ $value }}", "2")
    )
    annotations = {name: fill(re.search(rf'{name}: "(.*)"\n', rule)) for name in ("summary", "description")}
    case = {
        "rule_files": [str(RULES)],
        "evaluation_interval": "1m",
        "tests": [
            {
                "interval": "1m",
                "input_series": [{"series": series, "values": values}],
                "alert_rule_test": [
                    at(silent, []),
                    at(raised, [{"exp_labels": labels, "exp_annotations": annotations}]),
                ],
            }
        ],
    }
    file = tmp_path / "test.yml"
    file.write_text(json.dumps(case))
    promtool("test", "rules", file)


# --- Agreement ----------------------------------------------------------------------------------


def expressions():
    yield from re.findall(r"expr: (.*)", RULES.read_text())
    for panel in DASHBOARD["panels"]:
        yield from (target["expr"] for target in panel["targets"])
    for variable in DASHBOARD["templating"]["list"]:
        yield variable["query"]


def test_rules_and_dashboard_use_metrics_that_exist(busy, ctl):
    wait_for(lambda: "last_run" in ctl("metrics").stdout)
    known = set(re.findall(r"# TYPE (\w+)", ctl("metrics").stdout))
    used = set().union(*map(metrics_in, expressions()))
    assert len(used) > 10
    assert used <= known, used - known


def test_the_expressions_of_the_dashboard(tmp_path):
    rules = [
        {"record": f"dashboard:{number}", "expr": target["expr"].replace("$instance", ".*").replace("$job", ".*")}
        for number, target in enumerate(target for panel in DASHBOARD["panels"] for target in panel["targets"])
    ]
    file = tmp_path / "rules.yml"
    file.write_text(json.dumps({"groups": [{"name": "dashboard", "rules": rules}]}))
    assert f"SUCCESS: {len(rules)} rules found" in promtool("check", "rules", file)


def test_the_layout_of_the_dashboard():
    cells = set()
    for panel in DASHBOARD["panels"]:
        place = panel["gridPos"]
        assert place["x"] + place["w"] <= 24 and panel["title"] and panel["description"]
        own = {
            (x, y)
            for x in range(place["x"], place["x"] + place["w"])
            for y in range(place["y"], place["y"] + place["h"])
        }
        assert not own & cells, panel["title"]
        cells |= own
    assert len({panel["id"] for panel in DASHBOARD["panels"]}) == len(DASHBOARD["panels"])
