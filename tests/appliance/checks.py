"""Checks the package on emulated boards: with a real kernel and a real init, at normal speed.

Each check prints a line "ok: ..." or "FAILED: ...". Two boards run at the same time: one with the release
that the package is built for, and one whose system supports dates after 2038.

Usage: checks.py DIRECTORY    with the files that scripts/appliance creates
"""

import concurrent.futures
import contextlib
import datetime
import json
import pathlib
import re
import shlex
import sys
import threading
import time
from collections.abc import Callable, Iterator

import image
from board import Board, Silence

RUNTIME, TEMPLATE = "/var/run/kestcrond.config", "/var/run/kestcrond.st.config"
KEPT, KEPT_TEMPLATE = "/usr/kest/etc/kestcrond.config", "/usr/kest/etc/kestcrond.st.config"
LOG = "/var/log/kestcrond-execute.log"
PKG, BUILTIN = "/usr/local/etc/kestcron.d", "/usr/kest/share/kestcron.d"
NONROOT = "/usr/local/etc/kestcron_nonroot.d"
MINUTELY = "* * * * *"
CYCLES = 200  # seconds; enough for a reload and the next cycle on a slow board
LIMIT = 2**31
START_OF_2040 = 2208988800

RECORD = """\
#!/bin/sh
echo "$$ $(date +%s) $(id -un) $(id -gn) $(id -Gn | tr ' ' ,)" >>/var/lib/ran/$1
"""
LONG = """\
#!/bin/sh
echo "$$ begins" >>/var/lib/ran/long
sleep 60
echo "$$ ends" >>/var/lib/ran/long
"""


class Checks:
    """Runs checks and counts the results. The checks after a failed one run nevertheless."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self.passed, self.failed = 0, 0

    @contextlib.contextmanager
    def check(self, name: str) -> Iterator[list[str]]:
        """A named check; the texts that the body appends to the list are printed after the name."""
        details: list[str] = []
        try:
            yield details
        except (AssertionError, LookupError, ValueError) as error:
            self._print(False, f"{name}: {type(error).__name__} {error}")
        except Silence as error:
            self._print(False, f"{name}: {error}")
            raise
        else:
            self._print(True, name + (f" ({', '.join(details)})" if details else ""))

    def aborted(self, board: str, error: BaseException) -> None:
        self._print(False, f"the checks on the board with {board} were aborted: {error!r}")

    def _print(self, good: bool, text: str) -> None:
        with self._lock:
            self.passed += good
            self.failed += not good
            print("ok:" if good else "FAILED:", text, flush=True)


def job(name: str, command: str, crontab: str = MINUTELY, **more: object) -> dict:
    return {"name": name, "user": "root", "period": "crontab", "crontab": crontab, "cmd": command} | more


TOOLS = [
    job("root", "/usr/local/bin/record root"),
    job("system", "/usr/local/bin/record system", user="system"),
    job("package", "/usr/local/bin/record package", user="package", package_username="reports"),
]
# "user" has no effect in the directory of an account.
METERS = [job("read", "/usr/local/bin/record meters", user="root")]
DRAWS = [
    job("daily", "/usr/local/bin/record daily", "~ ~ * * *"),
    job("weekly", "/usr/local/bin/record weekly", "~ ~ * * ~"),
    job("range", "/usr/local/bin/record range", "10~20,40~50 20~23 25~28 * *"),
    job("assured", "/usr/local/bin/record assured", "0 0 29 2 *", assure_execute=24),
]
SLOW = [job("a-long", "/usr/local/bin/long"), job("b-late", "/usr/local/bin/record late")]
HUNGRY = [job("hungry", "/usr/bin/tail /dev/zero")]


class Appliance:
    """Shortcuts for the checks."""

    def __init__(self, board: Board) -> None:
        self.board = board
        self.output, self.run, self.wait_until = board.output, board.run, board.wait_until

    def jobs(self, path: str, definitions: list[dict]) -> None:
        self.board.write(path, json.dumps(definitions, indent=1))

    def read(self, path: str) -> dict:
        return json.loads(self.output(f"cat {path}"))

    def main_pid(self) -> int:
        return int(self.output("systemctl show -P MainPID kestcrond"))

    def prepare(self) -> None:
        """Creates the accounts and programs of the jobs."""
        for account in ("system", "reports", "meters"):
            self.output(f"useradd --system --user-group {account}")
        self.output("groupadd scanners && usermod -aG scanners reports")
        for name, text in (("record", RECORD), ("long", LONG)):
            self.board.write(f"/usr/local/bin/{name}", text)
        self.output("chmod 755 /usr/local/bin/*; install -d -m 1777 /var/lib/ran")

    def space_starts(self, seconds: int, *, meanwhile: str = "true") -> None:
        """Restarts the daemon with this "maxDelay". `meanwhile` runs before the start."""
        self.output("systemctl stop kestcrond")
        self.output(meanwhile)
        template = self.read(KEPT_TEMPLATE)
        self.board.write(KEPT_TEMPLATE, json.dumps(template | {"maxDelay": seconds}))
        self.output("systemctl start kestcrond")

    def reload(self) -> None:
        """Reloads the daemon and waits until it has replaced the runtime document."""
        before = self.output(f"stat -c %i.%y {RUNTIME}")
        self.output("systemctl reload kestcrond")
        self.wait_until(f'[ "$(stat -c %i.%y {RUNTIME})" != "{before}" ]', timeout=60)

    def last(self, job_name: str, document: dict | None = None) -> int:
        return (document or self.read(RUNTIME))["jobs"][job_name].get("lastExecution", 0)

    def wait_for_start(self, pattern: str, *, timeout: float = CYCLES) -> None:
        """Waits for a line in the execution log."""
        self.wait_until(f"grep -q {shlex.quote(pattern)} {LOG}", timeout=timeout)

    def count(self, pattern: str) -> int:
        return int(self.run(f"grep -c {shlex.quote(pattern)} {LOG}")[1])

    def wait_for_run(self, name: str) -> None:
        """Waits until a job's program has recorded one more run."""
        self.run(f"touch /var/lib/ran/{name}")
        lines = int(self.output(f"wc -l </var/lib/ran/{name}"))
        self.wait_until(f"[ $(wc -l </var/lib/ran/{name}) -gt {lines} ]", timeout=CYCLES)

    def schedules(self, path: str) -> dict:
        return {name: entry["schedule"] for name, entry in self.read(path)["jobs"].items()}


def check_start(checks: Checks, board: Appliance, release: str, took: float) -> None:
    with checks.check(f"{release}: systemd has started, and no unit failed") as details:
        status, state = board.run("systemctl is-system-running --wait", timeout=600)
        assert state == "running", state + "\n" + board.run("systemctl --failed --no-pager")[1]
        details += [f"console after {took:.0f} s", board.output("uname -r")]
    with checks.check(
        f"{release}: the service is active on 32-bit ARM, and its main process is the one in the pid file"
    ):
        assert board.output("uname -m") == "armv7l"
        assert board.output("systemctl is-active kestcrond") == "active"
        assert board.main_pid() == int(board.output("cat /run/kestcrond.pid")) > 1
        assert board.output(f"cat /proc/{board.main_pid()}/comm") == "kestcrond"


def check_accounts(checks: Checks, board: Appliance) -> None:
    board.space_starts(2)
    board.output(f"install -d -o meters -g meters {NONROOT}/meters")
    board.jobs(f"{NONROOT}/meters/flow.conf", METERS)
    with checks.check("a job file in the directory of an account takes effect without a reload"):
        board.wait_until(f"grep -q pkg_nonroot-meters-flow-read {RUNTIME}", timeout=CYCLES)
    board.jobs(f"{PKG}/tools.conf", TOOLS)
    board.jobs(f"{BUILTIN}/board.conf", DRAWS)
    names = sorted(
        [f"builtin-board-{draw['name']}" for draw in DRAWS]
        + [f"pkg-tools-{tool['name']}" for tool in TOOLS]
        + ["pkg_nonroot-meters-flow-read"]
    )
    with checks.check("files in the other directories take effect after systemctl reload"):
        assert "pkg-tools-root" not in board.read(RUNTIME)["jobs"]
        board.reload()
        assert sorted(board.read(RUNTIME)["jobs"]) == names, board.read(RUNTIME)["jobs"].keys()
    for record, name, identity in (
        ("root", "pkg-tools-root", "root root root"),
        ("system", "pkg-tools-system", "system system system"),
        ("package", "pkg-tools-package", "reports reports reports,scanners"),
        ("meters", "pkg_nonroot-meters-flow-read", "meters meters meters"),
    ):
        account = identity.split()[0]
        with checks.check(
            f"the job of {account} runs as {account}, with its groups and a line in " "the execution log"
        ):
            board.wait_until(f"[ -s /var/lib/ran/{record} ]", timeout=CYCLES)
            line = board.output(f"tail -n 1 /var/lib/ran/{record}").split(None, 2)
            assert line[2] == identity, line
            board.wait_for_start(f" running job: {name} with command: .* as user {account} " "(state\\[Ready\\]")
            staged = board.output(f"stat -c '%U %G %a' /tmp/kestcrond/{name}")
            assert staged == " ".join(identity.split()[:2] + ["700"]), staged
    with checks.check("kestcronctl check, list and status show these jobs"):
        text = board.output("kestcronctl check --errors-only")
        assert "3 files, 8 jobs" in text, text
        # Expected: "user" is "root" in the file of the account.
        text = board.run("kestcronctl check")[1]
        assert '"user" is ignored: all jobs in this directory run as "meters"' in text, text
        listed = board.output("kestcronctl list")
        assert all(name in listed for name in names), listed
        status = board.output("kestcronctl status")
        assert f"running as process {board.main_pid()}" in status and "max delay:     2 s" in status, status
    with checks.check("the daemon with eight jobs has less than 4 MiB of anonymous memory") as details:
        memory = board.output(f"grep -E '^(VmRSS|RssAnon):' /proc/{board.main_pid()}/status")
        details += [" ".join(line.split()) for line in memory.splitlines()]
        assert int(re.search(r"RssAnon:\s+(\d+)", memory).group(1)) < 4096


def alive(board: Appliance, *pids: int) -> bool:
    return board.run(" && ".join(f"kill -0 {pid}" for pid in pids))[0] == 0


def wait_for_long_job(board: Appliance) -> int:
    """Waits for the start of the long job; returns its pid."""
    board.wait_until("grep -q begins /var/lib/ran/long", timeout=60)
    return int(board.output("grep begins /var/lib/ran/long | head -n 1").split()[0])


def start_slow_jobs(board: Appliance) -> tuple[int, int]:
    """Restarts the daemon with a job that runs and one that waits out its delay; returns both pids."""
    waiting = set(board.run("pgrep -x kestcrond")[1].split())  # includes processes of the previous daemon
    board.space_starts(50, meanwhile="rm -f /var/lib/ran/long /var/lib/ran/late")
    long = wait_for_long_job(board)
    late = set(board.output("pgrep -x kestcrond").split()) - waiting - {str(board.main_pid())}
    assert len(late) == 1, late
    return long, int(late.pop())


def check_both_continue(board: Appliance, long: int, late: int) -> None:
    assert alive(board, long, late)
    board.wait_until(f"grep -q '^{late} .* root root' /var/lib/ran/late", timeout=CYCLES)
    board.wait_until(f"grep -q '^{long} ends' /var/lib/ran/long", timeout=CYCLES)


def check_service(checks: Checks, board: Appliance) -> None:
    board.output(f"rm {PKG}/tools.conf {NONROOT}/meters/flow.conf")
    board.jobs(f"{PKG}/slow.conf", SLOW)
    with checks.check("systemctl restart: the running job and the waiting one continue"):
        long, late = start_slow_jobs(board)
        before = board.main_pid()
        board.output("systemctl restart kestcrond")
        assert board.output("systemctl is-active kestcrond") == "active"
        assert board.main_pid() != before
        check_both_continue(board, long, late)
    with checks.check("SIGKILL: the service is restarted, and both jobs continue"):
        long, late = start_slow_jobs(board)
        before = board.main_pid()
        restarts = int(board.output("systemctl show -P NRestarts kestcrond"))
        board.output(f"kill -KILL {before}")
        board.wait_until(
            f"[ $(systemctl show -P NRestarts kestcrond) -gt {restarts} ] && " "systemctl is-active --quiet kestcrond",
            timeout=90,
        )
        assert board.main_pid() not in (0, before)
        assert board.main_pid() == int(board.output("cat /run/kestcrond.pid"))
        check_both_continue(board, long, late)
    with checks.check("a job killed by a memory shortage ends neither the service nor another job") as details:
        board.jobs(f"{PKG}/slow.conf", SLOW[:1])
        board.jobs(f"{PKG}/hungry.conf", HUNGRY)
        board.output("systemctl set-property --runtime kestcrond MemoryMax=64M")
        killed = "dmesg | grep 'Memory cgroup out of memory: Killed process'"
        board.space_starts(0, meanwhile="rm -f /var/lib/ran/long")
        daemon = board.main_pid()
        restarts = board.output("systemctl show -P NRestarts kestcrond")
        long = wait_for_long_job(board)
        board.wait_until(f"{killed} | grep -q .", timeout=CYCLES)
        assert alive(board, long, daemon)
        assert board.output("systemctl is-active kestcrond") == "active"
        assert board.main_pid() == daemon
        assert board.output("systemctl show -P NRestarts kestcrond") == restarts
        board.wait_until(f"grep -q '^{long} ends' /var/lib/ran/long", timeout=CYCLES)
        details.append(board.output(f"{killed} | head -n 1").split("Killed process ")[1].split(",")[0])
    board.output(f"rm {PKG}/slow.conf {PKG}/hungry.conf")
    board.run("systemctl revert kestcrond")
    board.space_starts(2)


def check_reboot(checks: Checks, board: Appliance, witness: str) -> None:
    """A reboot keeps all draws and last runs. `witness` is a job that runs every minute."""
    year = board.output("date +%Y")
    # Avoid the redraw at a full hour.
    board.wait_until("[ $(date +%-M) -ge 1 ] && [ $(date +%-M) -lt 50 ]", timeout=900)
    board.wait_for_run("root")
    board.reload()
    before, template = board.read(RUNTIME), board.read(TEMPLATE)["schedule"]
    lines = int(board.output(f"wc -l <{LOG}"))
    boot = board.output("cat /proc/sys/kernel/random/boot_id")
    took = board.board.reboot()
    with checks.check(f"{year}: a reboot keeps the draws of each job and of the template") as details:
        assert board.output("cat /proc/sys/kernel/random/boot_id") != boot
        board.wait_until("systemctl is-active --quiet kestcrond", timeout=120)
        drawn = {name: entry["schedule"] for name, entry in before["jobs"].items()}
        assert board.schedules(RUNTIME) == drawn, drawn
        assert board.read(TEMPLATE)["schedule"] == template
        details += [f"{len(drawn)} jobs", f"console again after {took:.0f} s"]
    with checks.check(f"{year}: a reboot keeps the last run of each job") as details:
        after, kept = board.read(RUNTIME), board.read(KEPT)
        for name in before["jobs"]:
            # The job may have run once more before the stop; the saved document then has that run.
            assert board.last(name, after) == board.last(name, kept), name
            assert board.last(name, after) >= board.last(name, before), name
        assert board.last(witness, after) > 0
        details.append(f"{witness}: {board.last(witness, after)}")
        assert int(board.output(f"wc -l <{LOG}")) >= lines
    with checks.check(f"{year}: jobs continue to run after the reboot"):
        board.wait_for_run("root")


def check_unit_tests(checks: Checks, board: Appliance) -> None:
    with checks.check("all unit tests pass on the board") as details:
        board.wait_until("! systemctl is-active --quiet unit-tests", timeout=3000)
        text = board.output("cat /root/unit_tests.out")
        assert "[  PASSED  ]" in text and "[  FAILED  ]" not in text, text[-3000:]
        count = int(re.search(r"\[==========\] (\d+) tests", text).group(1))
        skipped = re.search(r"\[  SKIPPED \] (\d+) test", text)
        details += [f"{count} tests", f"{skipped.group(1) if skipped else 0} skipped"]
    with checks.check("so do those that fail under user-mode emulation: programs that end or are missing"):
        text = board.output("/root/unit_tests --gtest_filter='XLIBCExecTest.*'", timeout=300)
        assert "XLIBCExecTest.ReturnsTheExitStatusOrAnError" in text
        assert "XLIBCExecTest.BlocksTerminationSignalsInTheProgram" in text
        assert "FAILED" not in text and "SKIPPED" not in text, text


def check_memory(checks: Checks, board: Appliance, result: pathlib.Path) -> None:
    """Writes the memory of the daemon with 0, 100 and 1,000 jobs to `result`, for scripts/footprint."""
    sizes = {}
    with checks.check("the memory of the daemon grows with its jobs and stays below 64 MiB") as details:
        for count in (0, 100, 1000):
            board.output("systemctl stop kestcrond")
            board.output(f"rm -rf {KEPT} {BUILTIN}/* {NONROOT}/* {PKG}/* /tmp/kestcrond")
            one = '{"name":"j%04d","user":"root","period":"daily","cmd":"/usr/bin/true -v"}'
            board.output(
                f"{{ echo '['; for i in $(seq {count}); do printf ',{one}\\n' $i; done "
                f"| sed '1s/,//'; echo ']'; }} >{PKG}/many.conf"
            )
            board.output("systemctl start kestcrond")
            board.wait_until(
                f"[ $(ls /tmp/kestcrond | wc -l) = {count} ] && " f"[ {TEMPLATE} -nt {PKG}/many.conf ]", timeout=900
            )
            rollup = board.output(f"cat /proc/{board.main_pid()}/smaps_rollup")
            pages = dict(re.findall(r"(\w+): +(\d+) kB", rollup))
            sizes[str(count)] = {
                "Rss": int(pages["Rss"]),
                "Pss": int(pages["Pss"]),
                "Private": int(pages["Private_Clean"]) + int(pages["Private_Dirty"]),
            }
            details.append(f"{count} jobs: {sizes[str(count)]['Rss']} KiB resident")
        result.write_text(json.dumps(sizes))
        assert sizes["0"]["Rss"] < sizes["100"]["Rss"] < sizes["1000"]["Rss"] < 65536


def check_purge(checks: Checks, board: Appliance) -> None:
    with checks.check("a purge removes all files of the package and keeps job files of others"):
        board.output(f"rm -rf {BUILTIN}/* {NONROOT}/*")
        board.output("dpkg -P kestcrond", timeout=300)
        left = board.run(
            "find / /run -xdev -name '*kestcron*' ! -path '/root/*'; " "ls -d /usr/kest 2>/dev/null; pgrep -x kestcrond"
        )[1]
        assert left == PKG, left
        assert json.loads(board.output(f"cat {PKG}/tools.conf")) == TOOLS
        assert board.run("systemctl cat kestcrond")[0] != 0
    with checks.check("after a new installation on the running board, the service starts at once"):
        board.output("dpkg -i /root/kestcrond.deb", timeout=300)
        board.wait_until("systemctl is-active --quiet kestcrond", timeout=60)
        assert board.main_pid() == int(board.output("cat /run/kestcrond.pid"))


def run_board_checks(checks: Checks, board: Appliance, release: str) -> None:
    """The board with the release that the package is built for."""
    took = board.board.power_on(datetime.datetime(2026, 6, 2, 2, 2))
    check_start(checks, board, release, took)
    # These take long and run in the background.
    board.output("systemd-run --unit=unit-tests -p StandardOutput=truncate:/root/unit_tests.out " "/root/unit_tests")
    board.prepare()
    check_accounts(checks, board)
    check_service(checks, board)
    board.jobs(f"{PKG}/tools.conf", TOOLS)
    board.jobs(f"{NONROOT}/meters/flow.conf", METERS)
    board.reload()
    check_unit_tests(checks, board)
    check_reboot(checks, board, "pkg-tools-root")
    check_memory(checks, board, board.board.place.parent / "memory.json")
    board.jobs(f"{PKG}/tools.conf", TOOLS)
    board.output(f"rm {PKG}/many.conf")
    check_purge(checks, board)


def run_late_board_checks(checks: Checks, board: Appliance, release: str) -> None:
    """The board whose system supports dates after 2038: at the limit of 32-bit times, and two years later."""
    took = board.board.power_on(datetime.datetime(2038, 1, 19, 3, 2))
    check_start(checks, board, release, took)
    board.prepare()
    board.jobs(f"{PKG}/tools.conf", TOOLS)
    board.jobs(f"{BUILTIN}/board.conf", DRAWS)
    board.space_starts(2)
    with checks.check("2038: jobs run before and after 03:14:08 on 19 January"):
        board.wait_for_start("^2038-01-19T03:0.*running job: pkg-tools-root ")
        board.output("date -s '2038-01-19 03:13:00'")
        board.wait_for_start("^2038-01-19T03:1[5-9].*running job: pkg-tools-root ")
        minutes = board.output(f"grep pkg-tools-root {LOG} | cut -c12-16").split()
        assert "03:13" in minutes and "03:14" in minutes, minutes
    with checks.check("2038: the last run is saved as a number above 2^31") as details:
        board.reload()
        assert board.last("pkg-tools-root") > LIMIT
        details.append(str(board.last("pkg-tools-root")))
    board.board.power_off()

    board.board.power_on(datetime.datetime(2040, 6, 5, 10, 2))
    with checks.check("2040: the service starts at boot, and jobs run as their accounts"):
        assert board.output("date +%Y") == "2040"
        board.wait_until("systemctl is-active --quiet kestcrond", timeout=120)
        assert board.main_pid() == int(board.output("cat /run/kestcrond.pid"))
        for name, account in (("root", "root"), ("system", "system"), ("package", "reports")):
            board.wait_for_start(f"^2040-06-05T.*running job: pkg-tools-{name} .*as user {account} " "(state\\[Ready")
            # The line is written just before the program starts.
            recorded = f"tail -n 1 /var/lib/ran/{name}"
            board.wait_until(f"[ $({recorded} | cut -d' ' -f2) -ge {START_OF_2040} ]", timeout=60)
            assert board.output(recorded).split()[2] == account
    with checks.check("2040: the assured job, overdue by two years, runs once"):
        board.wait_for_start("^2040-.*running job: builtin-board-assured .*state\\[AssureExecute\\]")
        board.wait_for_run("root")
        assert board.count("^2040-.*builtin-board-assured") == 1
        board.reload()
        assert board.last("builtin-board-assured") > LIMIT
    with checks.check("2040: kestcronctl shows last and next runs in that year") as details:
        entries = json.loads(board.output("kestcronctl --json list"))
        listed = {entry["name"]: entry for entry in entries}
        last = listed["pkg-tools-root"]["last_run"]
        assert last.startswith("2040-06-05T"), last
        coming = json.loads(board.output("kestcronctl --json next -n 3 pkg-tools-root"))
        assert all(start["earliest"].startswith("2040-06-05T") for start in coming), coming
        details += [f"last {last}", f"next {coming[0]['earliest']}"]
    check_reboot(checks, board, "pkg-tools-root")
    with checks.check("2040: after the reboot the assured job is not overdue again"):
        assert board.count("^2040-.*builtin-board-assured") == 1


def make_boards(place: pathlib.Path) -> list[tuple[str, Callable, Board]]:
    kernel, initramfs = next((place / "kernel/boot").glob("vmlinuz-*")), place / "initramfs"
    image.make_initramfs(initramfs, place / "kernel")
    boards = []
    for name, run_checks in (("board", run_board_checks), ("late-board", run_late_board_checks)):
        own = place / name
        image.prepare_root(own / "root")
        image.make_disk(own / "disk", own / "root", 1024)
        (own / "transcript").unlink(missing_ok=True)
        release = (own / "release").read_text().strip()
        boards.append((release, run_checks, Board(kernel, initramfs, own / "disk", own / "transcript")))
    return boards


def main() -> int:
    checks = Checks()
    start = time.monotonic()
    boards = make_boards(pathlib.Path(sys.argv[1]))

    def run_board(release: str, run_checks: Callable, board: Board) -> None:
        try:
            run_checks(checks, Appliance(board), release)
            board.power_off()
        except Exception as error:  # the other board continues in any case
            checks.aborted(release, error)
        finally:
            board.pull_the_plug()

    with concurrent.futures.ThreadPoolExecutor() as pool:
        list(pool.map(lambda board: run_board(*board), boards))
    print(
        f"{checks.passed} checks passed, {checks.failed} failed, "
        f"{(time.monotonic() - start) / 60:.0f} minutes on the boards"
    )
    return 1 if checks.failed else 0


if __name__ == "__main__":
    sys.exit(main())
