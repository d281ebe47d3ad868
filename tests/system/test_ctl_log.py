"""The command `log`: rotated files, the table on a terminal, the pager."""

import bz2
import gzip
import json
import lzma
import os
import re
import threading
import time

import pytest
from tests.lib.ctl import expect_golden

LOG = "/var/log/kestcrond-execute.log"
PLAIN = {"LD_PRELOAD": ""}


def start(number, job="builtin-core-backup", account="root", note="state[Ready], trig[02 01:07:00]"):
    """The start of a job in the first hours of 1 June 2026, at that minute."""
    time = f"2026-06-01T{number // 60:02}:{number % 60:02}:00+00:00"
    return f"{time} running job: {job} with command: /bin/x --as user me as user {account} ({note})\n"


def starts(first, last):
    return "".join(start(number) for number in range(first, last))


@pytest.fixture
def stopped(machine):
    """A machine whose clock stands still at Tuesday 2 June 2026, 02:10:10."""
    machine.clock("2026-06-02 02:10:10", rate=0)
    return machine


@pytest.fixture
def rotated(stopped):
    """Hours of starts in the log and five rotated files, and files of others beside them."""
    stopped.write(LOG + "-20260101.gz", gzip.compress(starts(0, 10).encode()), mode=0o600)
    stopped.write(LOG + ".10.xz", lzma.compress(starts(10, 20).encode()), mode=0o600)
    stopped.write(LOG + ".9.bz2", bz2.compress(starts(20, 30).encode()), mode=0o600)
    stopped.write(LOG + ".2.gz", gzip.compress(starts(30, 40).encode()), mode=0o600)
    stopped.write(LOG + ".1", starts(40, 50), mode=0o600)
    stopped.write(LOG, starts(50, 60), mode=0o600)
    # Of a file that is being compressed, only the plain one is read.
    stopped.write(LOG + ".1.gz", gzip.compress(starts(40, 45).encode())[:40], mode=0o600)
    for name in (".bak", ".1.old", "-notes", ".gz", "er.1", ".2.gz.part", ".-1", "."):
        stopped.write(LOG + name, start(99))
    return stopped


# --- Rotated files ------------------------------------------------------------------------------


def test_rotated_files_come_first(rotated, ctl):
    result = ctl("log")
    assert result.stderr == ""
    assert result.stdout == starts(0, 60)


@pytest.mark.parametrize("lines", [0, 1, 10, 11, 20, 25, 59, 60, 1000])
def test_the_last_lines_of_several_files(rotated, ctl, lines):
    assert ctl("log", "-n", str(lines)).stdout == starts(max(0, 60 - lines), 60)


def test_a_span_of_time(rotated, ctl):
    window = ("--since", "2026-06-01 00:25", "--until", "2026-06-01 00:44:59")
    assert ctl("log", *window).stdout == starts(25, 45)
    assert ctl("log", *window, "-n", "6").stdout == starts(39, 45)
    assert ctl("log", "--until", "2026-06-01 00:03").stdout == starts(0, 4)
    rotated.write(LOG, "no time\n" + start(59), mode=0o600)
    assert "no time" in ctl("log").stdout
    assert ctl("log", "--until", "now").stdout == starts(0, 50) + start(59)
    assert ctl("log", "--until", "noon").returncode == 2


def test_only_rotated_files(rotated, ctl):
    rotated.path(LOG).unlink()
    result = ctl("log", "-n", "2")
    assert (result.stderr, result.stdout) == ("", starts(48, 50))


def test_damaged_and_unreadable_files(rotated, ctl):
    rotated.write(LOG + ".2.gz", b"not compressed", mode=0o600)
    rotated.path(LOG + ".9.bz2").unlink()
    rotated.path(LOG + ".9.bz2").mkdir()
    result = ctl("log")
    assert result.stderr.splitlines() == [
        f"kestcronctl: {LOG}.9.bz2: Is a directory",
        f"kestcronctl: {LOG}.2.gz: gzip cannot read all of it",
    ]
    assert result.stdout == starts(0, 20) + starts(40, 60)


def test_a_cut_file_gives_what_it_has(stopped, ctl):
    whole = gzip.compress(os.urandom(30000).hex().encode() + b"\n" + starts(0, 9).encode())
    stopped.write(LOG + ".1.gz", gzip.compress(starts(0, 9).encode()) + whole[:20000], mode=0o600)
    result = ctl("log")
    assert result.stderr == f"kestcronctl: {LOG}.1.gz: gzip cannot read all of it\n"
    assert result.stdout.startswith(starts(0, 9))


def test_a_missing_decompressor(rotated, ctl):
    result = ctl("log", env={"PATH": "/nowhere"})
    assert f"kestcronctl: {LOG}.2.gz: gzip: No such file or directory\n" in result.stderr
    assert result.stdout == starts(40, 60)


def test_links_lead_to_files_of_the_image(stopped, ctl):
    stopped.write("/tmp/secret", "of the host\n")
    stopped.write("/tmp/image/tmp/other", "of the image\n")
    stopped.path(f"/tmp/image{LOG}").parent.mkdir(parents=True)
    stopped.path(f"/tmp/image{LOG}.1").symlink_to("/tmp/other")
    stopped.path(f"/tmp/image{LOG}.2").symlink_to("../../../../tmp/secret")
    assert ctl("--root", "/tmp/image", "log").stdout == "of the image\n"


def test_users_cannot_read_rotated_files(rotated, ctl):
    rotated.path(LOG).chmod(0o644)
    result = ctl("log", "-n", "15", user=2001)
    assert result.stdout == starts(50, 60)
    assert f"kestcronctl: {LOG}.1: Permission denied\n" in result.stderr


def test_each_line_once_during_rotations(stopped, ctl):
    """Rotated as by logrotate: the oldest file first; the next one is compressed."""
    kept, rotations = 6, 0
    done = threading.Event()
    path = lambda suffix: stopped.path(LOG + suffix)
    written = 0

    def rotate():
        nonlocal rotations, written
        while not done.is_set():
            for number in range(kept, 0, -1):
                suffix = ".gz" if number > 1 else ""
                if path(f".{number}{suffix}").exists():
                    path(f".{number}{suffix}").rename(path(f".{number + 1}{suffix}"))
            if path(".2").exists() or path("").exists():
                path("").rename(path(".1"))
            path("").write_text(start(written % 1440, f"job-{written}"))
            written += 1
            path(f".{kept + 1}.gz").unlink(missing_ok=True)
            if path(".2").exists():
                path(".2.gz").write_bytes(gzip.compress(path(".2").read_bytes()))
                path(".2").unlink()
            rotations += 1
            time.sleep(0.01)

    path("").write_text(start(0, "job-first"))
    thread = threading.Thread(target=rotate)
    thread.start()
    try:
        for _ in range(40):
            result = ctl("log", "--json", env=PLAIN)
            jobs = [json.loads(line)["job"] for line in result.stdout.splitlines()]
            numbers = [int(job.split("-")[1]) for job in jobs if job != "job-first"]
            assert numbers == sorted(set(numbers)), numbers
    finally:
        done.set()
        thread.join()
    assert rotations > 40


# --- Forms --------------------------------------------------------------------------------------

EVENTS = [
    start(0, "pkg-app-weekly"),
    start(67, note="state[AssureExecute], trig[01 01:07:00], job[2/2], delay[130]"),
    start(68, "builtin-core-gone", "alice", "state[Manual], trig[01 01:08:00]"),
    "2026-06-02T01:08:00+00:00 running job: builtin-core-gone with command: /nowhere failed, "
    "return code: -1, error: No such file or directory\n",
    "2026-06-02T01:09:00+00:00 Failed to setuid forpkg_nonroot-alice-a-job-with-a-long-name for user "
    "alice[Operation not permitted]\n",
    "2025-12-24T18:00:00+00:00 words \033[31m of another program\n",
    "without a time\n",
]


@pytest.fixture
def eventful(stopped):
    stopped.write(LOG, "".join(EVENTS), mode=0o600)
    return stopped


@pytest.mark.parametrize("columns", [40, 80, 120])
def test_table(eventful, ctl, columns):
    text = ctl.on_terminal("log", columns=columns, env={"NO_COLOR": "1"})
    assert max(map(len, text.splitlines())) <= columns
    expect_golden(f"log-table.{columns}", text)


def test_fields_in_json(eventful, ctl):
    lines = [json.loads(line) for line in ctl("log", "--json").stdout.splitlines()]
    fields = ("job", "account", "event", "state", "delay", "by_hand", "failed", "reason")
    assert [tuple(line[field] for field in fields) for line in lines] == [
        ("pkg-app-weekly", "root", "start", "Ready", 0, False, False, None),
        ("builtin-core-backup", "root", "start", "AssureExecute", 130, False, False, None),
        ("builtin-core-gone", "alice", "start", "Manual", 0, True, False, None),
        ("builtin-core-gone", None, "failure", None, None, False, True, "No such file or directory"),
        (
            "pkg_nonroot-alice-a-job-with-a-long-name",
            "alice",
            "failure",
            None,
            None,
            False,
            True,
            "setuid: Operation not permitted",
        ),
        (None, None, "other", None, None, False, False, None),
        (None, None, "other", None, None, False, False, None),
    ]
    assert [line["time"] for line in lines][-2:] == ["2025-12-24T18:00:00+00:00", None]


def test_raw_lines_on_a_terminal(eventful, ctl):
    text = ctl.on_terminal("log", "--raw", env={"NO_COLOR": "1"})
    assert text == "".join(EVENTS).replace("\033", "\\x1b")
    assert f"\033[31m{EVENTS[3][26:-1]}\033[0m\n" in ctl.on_terminal("log", "--raw")


def test_a_terminal_without_matching_lines(eventful, ctl):
    assert ctl.on_terminal("log", "--job", "none") == ""


def test_a_long_table_is_aligned(stopped, ctl):
    lines = [start(number % 1440, "j" * (1 + number // 100)) for number in range(2500)]
    stopped.write(LOG, "".join(lines), mode=0o600)
    text = ctl.on_terminal("log", "--no-pager", columns=200, env={"NO_COLOR": "1"}).splitlines()
    assert len(text) == 2501 and text[0].startswith("TIME")
    for first, end in ((1, 1000), (1001, 2000), (2001, 2500)):
        assert len({line.index("root") for line in text[first : end + 1]}) == 1


# --- The pager ----------------------------------------------------------------------------------


def page(ctl, *arguments, **env):
    return ctl.on_terminal("log", *arguments, env={"NO_COLOR": "1", **env})


def test_long_output_goes_through_the_pager(rotated, ctl):
    mark = {"PAGER": "sed 's/^/page: /'"}
    for form in ([], ["--raw"]):
        assert all(line.startswith("page: ") for line in page(ctl, *form, **mark).splitlines())
        for arguments in (["-n", "5"], ["--no-pager"], ["--json"]):
            assert "page: " not in page(ctl, *form, *arguments, **mark)
    assert "page: " not in ctl("log", env=mark).stdout
    for none in ("", "cat"):
        assert len(page(ctl, PAGER=none).splitlines()) == 61


def test_lines_that_wrap_count_as_several(rotated, ctl):
    assert "page: " in page(ctl, "--raw", "-n", "20", PAGER="sed 's/^/page: /'")
    assert "page: " not in page(ctl, "-n", "20", PAGER="sed 's/^/page: /'")


def test_the_pager_gives_no_privileges_away(rotated, ctl):
    """A caller who may only run `log` by sudo must not get a shell."""
    rotated.write("/pagers/less", '#!/bin/sh\nexec sed "s/^/secure=$LESSSECURE LESS=$LESS: /"\n', mode=0o755)
    path = {"PATH": "/pagers:/usr/bin:/bin"}
    assert page(ctl, **path).startswith("secure= LESS=FRSX: TIME")
    assert page(ctl, LESS="R", **path).startswith("secure= LESS=R: TIME")
    for variable in ("SUDO_UID", "DOAS_USER", "PKEXEC_UID"):
        borrowed = page(ctl, PAGER="touch /tmp/owned; cat", **{variable: "1000"}, **path)
        assert borrowed.startswith("secure=1 LESS=FRSX: TIME")
    assert not rotated.exists("/tmp/owned")


def test_a_reader_who_leaves_the_pager(rotated, ctl):
    rotated.write(LOG, starts(0, 1440) * 50, mode=0o600)
    assert page(ctl, PAGER="head -1").count("\n") == 1
    assert "nothing: not found" in ctl("log").stderr + page(ctl, PAGER="exec nothing 2>&1")


def test_the_interrupt_key_is_for_the_pager(stopped, ctl):
    """The program that decompresses is not in the process group that the terminal interrupts."""
    stopped.write(LOG + ".2.gz", gzip.compress(starts(0, 1440).encode() * 20), mode=0o600)
    script = '#!/bin/sh\necho "gzip: $(ps -o pgid= -C gzip)" "pager: $(ps -o pgid= -p $$)"\ncat\n'
    stopped.write("/pagers/less", script, mode=0o755)
    text = page(ctl, "--raw", PATH="/pagers:/usr/bin:/bin", **PLAIN)
    groups = [int(group) for group in re.findall(r": +(\d+)", text.splitlines()[0])]
    assert len(groups) == 2 and groups[0] != groups[1], text.splitlines()[0]
    assert text.count("running job") == 20 * 1440


def test_following_on_a_terminal(stopped, ctl):
    stopped.write(LOG, starts(0, 20), mode=0o600)
    text = ctl.on_terminal("log", "-f", env={**PLAIN, "NO_COLOR": "1", "PAGER": "sed s/^/page/"}, limit=3)
    assert len(text.splitlines()) == 11 and "page" not in text
