"""kestcronctl timeline --html: the page in a real browser."""

import base64
import hashlib
import html
import json
import re
import subprocess

import pytest
from tests.lib.appliance import every_minute, never

EVIL = "<script>document.title='hostile'</script>"
NAMES = [EVIL, "\"' onmouseover='document.title=1' x=\"", "</script><img src=x onerror=alert(1)>", "&lt;b&gt;"]
LOG = """\
2026-06-01T05:20:00+00:00 running job: pkg-f-daily with command: c as user root (state[Ready], trig[01 05:17:00])
2026-06-01T06:00:07+00:00 running job: pkg-f-fixed with command: c as user root (state[Ready], trig[01 06:00:07])
2026-06-01T06:00:07+00:00 running job: pkg-f-fixed with command: c failed, return code: -1, error: <img src=y>
2026-06-01T12:00:00+00:00 running job: pkg-f-hourly with command: c as user root (state[Manual], trig[01 12:00:00])
"""

# A frame may be narrower than a window of the browser.
FRAME = """<!DOCTYPE html>
<script>addEventListener("message", (event) => document.body.setAttribute("data-probe", event.data));</script>
<body><iframe src="page.html{fragment}" width="{width}" height="844" style="border: 0"></iframe></body>
"""

# Reports what the browser made of the page.
PROBE = """
addEventListener("load", () => {
    const shown = (selector) => Array.from(document.querySelectorAll(selector)).filter((e) => e.offsetParent !== null);
    const scroll = document.querySelector(".scroll");
    const before = scroll.scrollWidth;
    document.querySelector(".in").click();
    const root = document.documentElement;
    const report = {
        width: root.clientWidth,
        overflow: root.scrollWidth - root.clientWidth,
        zoom: scroll.scrollWidth > before,
        title: document.title,
        foreign: document.querySelectorAll("img, iframe, object, link, [src], [href], [onmouseover]").length,
        scripts: document.scripts.length,
        resources: performance.getEntriesByType("resource").length,
        jobs: shown("tbody tr").map((row) => row.dataset.job),
        rows: shown(".picture .row[data-job]").length,
        filter: document.getElementById("filter").offsetParent !== null,
    };
    parent.postMessage(JSON.stringify(report), "*");
});
"""


@pytest.fixture
def page(machine, ctl):
    """The text of the page about jobs with hostile names."""
    machine.clock("2026-06-02 02:10:10", rate=0, zone="UTC")
    machine.jobs(
        "pkg",
        "f.conf",
        [
            every_minute("daily", period="daily"),
            every_minute("fixed", crontab="0,30 6,18 * * *"),
            every_minute("hourly", period="hourly"),
            every_minute("minutely"),
            never("a-name-that-is-as-long-as-the-names-of-jobs-with-several-words-tend-to-be"),
            *(every_minute(name.replace("/", "\u2044"), crontab="5 9 * * *") for name in NAMES),
        ],
    )
    machine.start_and_wait()
    machine.stop()
    machine.write(machine.LOG_FILE, LOG, mode=0o600)
    assert ctl("timeline", "--html", "/tmp/page.html").returncode == 0
    return machine.read("/tmp/page.html")


def browse(tmp_path, text, width=1440, fragment=""):
    """Opens the page with the probe. Returns its report and the messages of the console."""
    probe_hash = base64.b64encode(hashlib.sha256(PROBE.encode()).digest()).decode()
    text = text.replace("script-src ", f"script-src 'sha256-{probe_hash}' ", 1)
    (tmp_path / "page.html").write_text(text.replace("</body>", f"<script>{PROBE}</script></body>"))
    frame = tmp_path / "frame.html"
    frame.write_text(FRAME.format(fragment=fragment, width=width))
    done = subprocess.run(
        [
            *("chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-background-networking"),
            *("--no-first-run", "--enable-logging=stderr", "--dump-dom"),
            *(f"--user-data-dir={tmp_path}/profile", "--virtual-time-budget=3000"),
            f"--window-size={width + 40},900",
            f"file://{frame}",
        ],
        capture_output=True,
        text=True,
        timeout=60,
    )
    found = re.search('data-probe="([^"]*)"', done.stdout)
    assert found, done.stderr
    console = [line for line in done.stderr.splitlines() if "CONSOLE" in line]
    return json.loads(html.unescape(found[1])), console


@pytest.mark.parametrize("width", [390, 1440])
def test_the_page_in_a_browser(page, tmp_path, width):
    report, console = browse(tmp_path, page, width)
    assert console == []
    assert 0 <= width - report["width"] <= 20  # a scroll bar
    assert report["overflow"] == 0
    assert report["zoom"] and report["filter"]
    assert report["resources"] == 0
    assert len(report["jobs"]) == 9
    assert report["rows"] > 9  # of both days


def test_hostile_names_are_harmless(page, tmp_path):
    report, console = browse(tmp_path, page)
    assert console == []
    assert report["title"].startswith("Jobs")
    assert (report["foreign"], report["scripts"]) == (0, 2)
    assert {f"pkg-f-{name}".replace("/", "\u2044") for name in NAMES} <= set(report["jobs"])


def test_the_filter(page, tmp_path):
    report, _ = browse(tmp_path, page, fragment="#filter=F-DAILY")
    assert report["jobs"] == ["pkg-f-daily"]
    assert report["rows"] == 2
    report, _ = browse(tmp_path, page, fragment="#filter=%3Cscript")
    assert len(report["jobs"]) == 1


def test_the_page_refers_to_nothing(page):
    assert not re.search(r"https?:|//[a-z]|@import|url\(|\b(src|href|style)=[^y]", html_without_names(page))
    policy = re.search('Content-Security-Policy" content="([^"]*)"', page)[1]
    assert policy.startswith("default-src 'none'; style-src 'sha256-")
    for kind in ("style", "script"):
        content = re.search(f"<{kind}>(.*?)</{kind}>", page, re.S)[1]
        digest = base64.b64encode(hashlib.sha256(content.encode()).digest()).decode()
        assert f"{kind}-src 'sha256-{digest}'" in policy
    assert page.count("<script") == page.count("</script") == 1


def html_without_names(page):
    """The page without escaped text of jobs, whose names look like attributes."""
    return re.sub(r"(onmouseover|src|style)=", "", re.sub("&[a-z0-9#]+;[^<]*", "", page))


def test_the_page_without_script(page):
    text = re.sub("<script>.*?</script>", "", page, flags=re.S)
    for part in ("Problems", "Last failures", "pkg-f-hourly: 2026-06-01 12:00, by hand", "failed: &lt;img src=y&gt;"):
        assert part in text


def test_html_and_other_formats_are_refused(page, ctl):
    for options, error in (
        (["--json"], "--json and --html"),
        (["--past"], "--past and --html"),
        (["--svg", "-"], "svg"),
    ):
        result = ctl("timeline", "--html", "-", *options)
        assert (result.returncode, result.stdout) == (2, "")
        assert error in result.stderr
