"""What the boards must show: the package on a real kernel, under a real init, for real minutes.

Each check writes a line, "ok: ..." or "FAILED: ...". Two boards live side by side: one of the
release that the package is built for, and one whose system itself knows dates after 2038.

Usage: checks.py DIRECTORY    which holds what scripts/appliance has put there
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
CYCLES = 200  # seconds for what comes with the next look at most: a reload, a look, and slowness
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
    """The results. One that fails does not keep the others from being looked at."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self.passed, self.failed = 0, 0

    @contextlib.contextmanager
    def check(self, name: str) -> Iterator[list[str]]:
        """A named check; what the body appends to the list is told beside the name."""
        told: list[str] = []
        try:
            yield told
        except (AssertionError, LookupError, ValueError) as error:
            self._tell(False, f"{name}: {type(error).__name__} {error}")
        except Silence as error:
            self._tell(False, f"{name}: {error}")
            raise
        else:
            self._tell(True, name + (f" ({', '.join(told)})" if told else ""))

    def broken_off(self, board: str, error: BaseException) -> None:
        self._tell(False, f"the checks on the board of {board} broke off: {error!r}")

    def _tell(self, good: bool, text: str) -> None:
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
# The account's directory decides, whatever the file says.
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
    """The short cuts that the checks share."""

    def __init__(self, board: Board) -> None:
        self.board = board
        self.ask, self.run, self.wait_until = board.ask, board.run, board.wait_until

    def jobs(self, path: str, definitions: list[dict]) -> None:
        self.board.write(path, json.dumps(definitions, indent=1))

    def read(self, path: str) -> dict:
        return json.loads(self.ask(f"cat {path}"))

    def main_pid(self) -> int:
        return int(self.ask("systemctl show -P MainPID kestcrond"))

    def prepare(self) -> None:
        """The accounts and programs of the jobs, and the space between two starts."""
        for account in ("system", "reports", "meters"):
            self.ask(f"useradd --system --user-group {account}")
        self.ask("groupadd scanners && usermod -aG scanners reports")
        for name, text in (("record", RECORD), ("long", LONG)):
            self.board.write(f"/usr/local/bin/{name}", text)
        self.ask("chmod 755 /usr/local/bin/*; install -d -m 1777 /var/lib/ran")

    def space_starts(self, seconds: int, *, meanwhile: str = "true") -> None:
        """Sets "maxDelay", which the daemon reads at its start only. Starts it."""
        self.ask("systemctl stop kestcrond")
        self.ask(meanwhile)
        template = self.read(KEPT_TEMPLATE)
        self.board.write(KEPT_TEMPLATE, json.dumps(template | {"maxDelay": seconds}))
        self.ask("systemctl start kestcrond")

    def reload(self) -> None:
        """Reloads, and waits for the end of it: the runtime document is another file then."""
        before = self.ask(f"stat -c %i.%y {RUNTIME}")
        self.ask("systemctl reload kestcrond")
        self.wait_until(f'[ "$(stat -c %i.%y {RUNTIME})" != "{before}" ]', timeout=60)

    def last(self, job_name: str, document: dict | None = None) -> int:
        return (document or self.read(RUNTIME))["jobs"][job_name].get("lastExecution", 0)

    def started(self, pattern: str, *, timeout: float = CYCLES) -> None:
        """Waits for a line of the execution log."""
        self.wait_until(f"grep -q {shlex.quote(pattern)} {LOG}", timeout=timeout)

    def count(self, pattern: str) -> int:
        return int(self.run(f"grep -c {shlex.quote(pattern)} {LOG}")[1])

    def ran_again(self, name: str) -> None:
        """Waits until a job's program has recorded one more run."""
        self.run(f"touch /var/lib/ran/{name}")
        lines = int(self.ask(f"wc -l </var/lib/ran/{name}"))
        self.wait_until(f"[ $(wc -l </var/lib/ran/{name}) -gt {lines} ]", timeout=CYCLES)

    def schedules(self, path: str) -> dict:
        return {name: entry["schedule"] for name, entry in self.read(path)["jobs"].items()}


def check_start(checks: Checks, board: Appliance, release: str, took: float) -> None:
    with checks.check(f"{release}: systemd has started, and no unit failed") as told:
        status, state = board.run("systemctl is-system-running --wait", timeout=600)
        assert state == "running", state + "\n" + board.run("systemctl --failed --no-pager")[1]
        told += [f"console after {took:.0f} s", board.ask("uname -r")]
    with checks.check(
        f"{release}: the service is active on 32-bit ARM, and its main process is " "that of the pid file"
    ):
        assert board.ask("uname -m") == "armv7l"
        assert board.ask("systemctl is-active kestcrond") == "active"
        assert board.main_pid() == int(board.ask("cat /run/kestcrond.pid")) > 1
        assert board.ask(f"cat /proc/{board.main_pid()}/comm") == "kestcrond"


def check_accounts(checks: Checks, board: Appliance) -> None:
    board.space_starts(2)
    board.ask(f"install -d -o meters -g meters {NONROOT}/meters")
    board.jobs(f"{NONROOT}/meters/flow.conf", METERS)
    with checks.check("a job file in an account's directory is noticed without a reload"):
        board.wait_until(f"grep -q pkg_nonroot-meters-flow-read {RUNTIME}", timeout=CYCLES)
    board.jobs(f"{PKG}/tools.conf", TOOLS)
    board.jobs(f"{BUILTIN}/board.conf", DRAWS)
    names = sorted(
        [f"builtin-board-{draw['name']}" for draw in DRAWS]
        + [f"pkg-tools-{tool['name']}" for tool in TOOLS]
        + ["pkg_nonroot-meters-flow-read"]
    )
    with checks.check("files of the other directories count after systemctl reload"):
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
            line = board.ask(f"tail -n 1 /var/lib/ran/{record}").split(None, 2)
            assert line[2] == identity, line
            board.started(f" running job: {name} with command: .* as user {account} " "(state\\[Ready\\]")
            staged = board.ask(f"stat -c '%U %G %a' /tmp/kestcrond/{name}")
            assert staged == " ".join(identity.split()[:2] + ["700"]), staged
    with checks.check("kestcronctl check, list and status tell of it"):
        text = board.ask("kestcronctl check --errors-only")
        assert "3 files, 8 jobs" in text, text
        # The warning is meant: the account's file says "root".
        text = board.run("kestcronctl check")[1]
        assert '"user" is ignored: all jobs in this directory run as "meters"' in text, text
        listed = board.ask("kestcronctl list")
        assert all(name in listed for name in names), listed
        told = board.ask("kestcronctl status")
        assert f"running as process {board.main_pid()}" in told and "max delay:   2 s" in told, told
    with checks.check("figures of the daemon with eight jobs") as told:
        memory = board.ask(f"grep -E '^(VmRSS|RssAnon):' /proc/{board.main_pid()}/status")
        told += [" ".join(line.split()) for line in memory.splitlines()]
        assert int(re.search(r"RssAnon:\s+(\d+)", memory).group(1)) < 4096


def alive(board: Appliance, *pids: int) -> bool:
    return board.run(" && ".join(f"kill -0 {pid}" for pid in pids))[0] == 0


def begun(board: Appliance) -> int:
    """The process of the long job, once it runs."""
    board.wait_until("grep -q begins /var/lib/ran/long", timeout=60)
    return int(board.ask("grep begins /var/lib/ran/long | head -n 1").split()[0])


def begin_slow(board: Appliance) -> tuple[int, int]:
    """Starts the daemon anew with a job that runs and one that waits: the processes of both."""
    waiting = set(board.run("pgrep -x kestcrond")[1].split())  # of the daemon before, too
    board.space_starts(50, meanwhile="rm -f /var/lib/ran/long /var/lib/ran/late")
    long = begun(board)
    late = set(board.ask("pgrep -x kestcrond").split()) - waiting - {str(board.main_pid())}
    assert len(late) == 1, late
    return long, int(late.pop())


def both_go_on(board: Appliance, long: int, late: int) -> None:
    assert alive(board, long, late)
    board.wait_until(f"grep -q '^{late} .* root root' /var/lib/ran/late", timeout=CYCLES)
    board.wait_until(f"grep -q '^{long} ends' /var/lib/ran/long", timeout=CYCLES)


def check_service(checks: Checks, board: Appliance) -> None:
    board.ask(f"rm {PKG}/tools.conf {NONROOT}/meters/flow.conf")
    board.jobs(f"{PKG}/slow.conf", SLOW)
    with checks.check("systemctl restart: the job that runs and the one that waits go on"):
        long, late = begin_slow(board)
        before = board.main_pid()
        board.ask("systemctl restart kestcrond")
        assert board.ask("systemctl is-active kestcrond") == "active"
        assert board.main_pid() != before
        both_go_on(board, long, late)
    with checks.check("SIGKILL: the service is started again, and both jobs go on"):
        long, late = begin_slow(board)
        before = board.main_pid()
        restarts = int(board.ask("systemctl show -P NRestarts kestcrond"))
        board.ask(f"kill -KILL {before}")
        board.wait_until(
            f"[ $(systemctl show -P NRestarts kestcrond) -gt {restarts} ] && " "systemctl is-active --quiet kestcrond",
            timeout=90,
        )
        assert board.main_pid() not in (0, before)
        assert board.main_pid() == int(board.ask("cat /run/kestcrond.pid"))
        both_go_on(board, long, late)
    with checks.check("a job killed for want of memory ends neither the service nor another " "job") as told:
        board.jobs(f"{PKG}/slow.conf", SLOW[:1])
        board.jobs(f"{PKG}/hungry.conf", HUNGRY)
        board.ask("systemctl set-property --runtime kestcrond MemoryMax=64M")
        killed = "dmesg | grep 'Memory cgroup out of memory: Killed process'"
        board.space_starts(0, meanwhile="rm -f /var/lib/ran/long")
        daemon = board.main_pid()
        restarts = board.ask("systemctl show -P NRestarts kestcrond")
        long = begun(board)
        board.wait_until(f"{killed} | grep -q .", timeout=CYCLES)
        assert alive(board, long, daemon)
        assert board.ask("systemctl is-active kestcrond") == "active"
        assert board.main_pid() == daemon
        assert board.ask("systemctl show -P NRestarts kestcrond") == restarts
        board.wait_until(f"grep -q '^{long} ends' /var/lib/ran/long", timeout=CYCLES)
        told.append(board.ask(f"{killed} | head -n 1").split("Killed process ")[1].split(",")[0])
    board.ask(f"rm {PKG}/slow.conf {PKG}/hungry.conf")
    board.run("systemctl revert kestcrond")
    board.space_starts(2)


def check_reboot(checks: Checks, board: Appliance, witness: str) -> None:
    """A true reboot keeps what was drawn and what ran; `witness` is a job that runs each minute."""
    year = board.ask("date +%Y")
    # The top of an hour would draw anew.
    board.wait_until("[ $(date +%-M) -ge 1 ] && [ $(date +%-M) -lt 50 ]", timeout=900)
    board.ran_again("root")
    board.reload()
    before, template = board.read(RUNTIME), board.read(TEMPLATE)["schedule"]
    lines = int(board.ask(f"wc -l <{LOG}"))
    boot = board.ask("cat /proc/sys/kernel/random/boot_id")
    took = board.board.reboot()
    with checks.check(f"{year}: a reboot keeps all that was drawn, of each job and of the " "template") as told:
        assert board.ask("cat /proc/sys/kernel/random/boot_id") != boot
        board.wait_until("systemctl is-active --quiet kestcrond", timeout=120)
        drawn = {name: entry["schedule"] for name, entry in before["jobs"].items()}
        assert board.schedules(RUNTIME) == drawn, drawn
        assert board.read(TEMPLATE)["schedule"] == template
        told += [f"{len(drawn)} jobs", f"console again after {took:.0f} s"]
    with checks.check(f"{year}: a reboot keeps when each job ran last") as told:
        after, kept = board.read(RUNTIME), board.read(KEPT)
        for name in before["jobs"]:
            # One more run may lie between the reading and the stop, and that is in the copy kept.
            assert board.last(name, after) == board.last(name, kept), name
            assert board.last(name, after) >= board.last(name, before), name
        assert board.last(witness, after) > 0
        told.append(f"{witness}: {board.last(witness, after)}")
        assert int(board.ask(f"wc -l <{LOG}")) >= lines
    with checks.check(f"{year}: jobs run on after the reboot"):
        board.ran_again("root")


def check_unit_tests(checks: Checks, board: Appliance) -> None:
    with checks.check("the unit tests of this machine pass on the board, every one") as told:
        board.wait_until("! systemctl is-active --quiet unit-tests", timeout=3000)
        text = board.ask("cat /root/unit_tests.out")
        assert "[  PASSED  ]" in text and "[  FAILED  ]" not in text, text[-3000:]
        count = int(re.search(r"\[==========\] (\d+) tests", text).group(1))
        skipped = re.search(r"\[  SKIPPED \] (\d+) test", text)
        told += [f"{count} tests", f"{skipped.group(1) if skipped else 0} skipped"]
    with checks.check("among them those of programs that end or are missing, which user emulation " "cannot show"):
        text = board.ask("/root/unit_tests --gtest_filter='XLIBCExecTest.*'", timeout=300)
        assert "XLIBCExecTest.ReturnsTheExitStatusOrAnError" in text
        assert "XLIBCExecTest.BlocksTerminationSignalsInTheProgram" in text
        assert "FAILED" not in text and "SKIPPED" not in text, text


def check_memory(checks: Checks, board: Appliance, result: pathlib.Path) -> None:
    """What the daemon takes with more and more jobs, for scripts/footprint."""
    sizes = {}
    with checks.check("the daemon's memory grows with its jobs, and is bounded") as told:
        for count in (0, 100, 1000):
            board.ask("systemctl stop kestcrond")
            board.ask(f"rm -rf {KEPT} {BUILTIN}/* {NONROOT}/* {PKG}/* /tmp/kestcrond")
            one = '{"name":"j%04d","user":"root","period":"daily","cmd":"/usr/bin/true -v"}'
            board.ask(
                f"{{ echo '['; for i in $(seq {count}); do printf ',{one}\\n' $i; done "
                f"| sed '1s/,//'; echo ']'; }} >{PKG}/many.conf"
            )
            board.ask("systemctl start kestcrond")
            board.wait_until(
                f"[ $(ls /tmp/kestcrond | wc -l) = {count} ] && " f"[ {TEMPLATE} -nt {PKG}/many.conf ]", timeout=900
            )
            rollup = board.ask(f"cat /proc/{board.main_pid()}/smaps_rollup")
            pages = dict(re.findall(r"(\w+): +(\d+) kB", rollup))
            sizes[str(count)] = {
                "Rss": int(pages["Rss"]),
                "Pss": int(pages["Pss"]),
                "Private": int(pages["Private_Clean"]) + int(pages["Private_Dirty"]),
            }
            told.append(f"{count} jobs: {sizes[str(count)]['Rss']} KiB resident")
        result.write_text(json.dumps(sizes))
        assert sizes["0"]["Rss"] < sizes["100"]["Rss"] < sizes["1000"]["Rss"] < 65536


def check_purge(checks: Checks, board: Appliance) -> None:
    with checks.check("a purge leaves nothing of the package, but the job file of somebody else"):
        board.ask(f"rm -rf {BUILTIN}/* {NONROOT}/*")
        board.ask("dpkg -P kestcrond", timeout=300)
        left = board.run(
            "find / /run -xdev -name '*kestcron*' ! -path '/root/*'; " "ls -d /usr/kest 2>/dev/null; pgrep -x kestcrond"
        )[1]
        assert left == PKG, left
        assert json.loads(board.ask(f"cat {PKG}/tools.conf")) == TOOLS
        assert board.run("systemctl cat kestcrond")[0] != 0
    with checks.check("installed again on the running board, the service starts at once"):
        board.ask("dpkg -i /root/kestcrond.deb", timeout=300)
        board.wait_until("systemctl is-active --quiet kestcrond", timeout=60)
        assert board.main_pid() == int(board.ask("cat /run/kestcrond.pid"))


def the_board(checks: Checks, board: Appliance, release: str) -> None:
    """The board of the release that the package is built for."""
    took = board.board.power_on(datetime.datetime(2026, 6, 2, 2, 2))
    check_start(checks, board, release, took)
    # They take long and are in nobody's way.
    board.ask("systemd-run --unit=unit-tests -p StandardOutput=truncate:/root/unit_tests.out " "/root/unit_tests")
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
    board.ask(f"rm {PKG}/many.conf")
    check_purge(checks, board)


def the_late_board(checks: Checks, board: Appliance, release: str) -> None:
    """The board whose system knows dates after 2038: over the edge, and far behind it."""
    took = board.board.power_on(datetime.datetime(2038, 1, 19, 3, 2))
    check_start(checks, board, release, took)
    board.prepare()
    board.jobs(f"{PKG}/tools.conf", TOOLS)
    board.jobs(f"{BUILTIN}/board.conf", DRAWS)
    board.space_starts(2)
    with checks.check("2038: jobs run on over 19 January, 03:14:08"):
        board.started("^2038-01-19T03:0.*running job: pkg-tools-root ")
        board.ask("date -s '2038-01-19 03:13:00'")
        board.started("^2038-01-19T03:1[5-9].*running job: pkg-tools-root ")
        minutes = board.ask(f"grep pkg-tools-root {LOG} | cut -c12-16").split()
        assert "03:13" in minutes and "03:14" in minutes, minutes
    with checks.check("2038: the last run is kept as a number beyond 2^31") as told:
        board.reload()
        assert board.last("pkg-tools-root") > LIMIT
        told.append(str(board.last("pkg-tools-root")))
    board.board.power_off()

    board.board.power_on(datetime.datetime(2040, 6, 5, 10, 2))
    with checks.check("2040: a boot in that year starts the service, and jobs run as their " "accounts"):
        assert board.ask("date +%Y") == "2040"
        board.wait_until("systemctl is-active --quiet kestcrond", timeout=120)
        assert board.main_pid() == int(board.ask("cat /run/kestcrond.pid"))
        for name, account in (("root", "root"), ("system", "system"), ("package", "reports")):
            board.started(f"^2040-06-05T.*running job: pkg-tools-{name} .*as user {account} " "(state\\[Ready")
            # The line is written just before the program starts.
            recorded = f"tail -n 1 /var/lib/ran/{name}"
            board.wait_until(f"[ $({recorded} | cut -d' ' -f2) -ge {START_OF_2040} ]", timeout=60)
            assert board.ask(recorded).split()[2] == account
    with checks.check("2040: the assured job, overdue by two years, runs once"):
        board.started("^2040-.*running job: builtin-board-assured .*state\\[AssureExecute\\]")
        board.ran_again("root")
        assert board.count("^2040-.*builtin-board-assured") == 1
        board.reload()
        assert board.last("builtin-board-assured") > LIMIT
    with checks.check("2040: kestcronctl tells of last and next runs in that year") as told:
        entries = json.loads(board.ask("kestcronctl --json list"))
        listed = {entry["name"]: entry for entry in entries}
        last = listed["pkg-tools-root"]["last_run"]
        assert last.startswith("2040-06-05T"), last
        coming = json.loads(board.ask("kestcronctl --json next -n 3 pkg-tools-root"))
        assert all(start["earliest"].startswith("2040-06-05T") for start in coming), coming
        told += [f"last {last}", f"next {coming[0]['earliest']}"]
    check_reboot(checks, board, "pkg-tools-root")
    with checks.check("2040: after the reboot the assured job is not overdue again"):
        assert board.count("^2040-.*builtin-board-assured") == 1


def make_boards(place: pathlib.Path) -> list[tuple[str, Callable, Board]]:
    kernel, initramfs = next((place / "kernel/boot").glob("vmlinuz-*")), place / "initramfs"
    image.make_initramfs(initramfs, place / "kernel")
    boards = []
    for name, life in (("board", the_board), ("late-board", the_late_board)):
        own = place / name
        image.furnish(own / "root")
        image.make_disk(own / "disk", own / "root", 1024)
        (own / "transcript").unlink(missing_ok=True)
        release = (own / "release").read_text().strip()
        boards.append((release, life, Board(kernel, initramfs, own / "disk", own / "transcript")))
    return boards


def main() -> int:
    checks = Checks()
    start = time.monotonic()
    boards = make_boards(pathlib.Path(sys.argv[1]))

    def live(release: str, life: Callable, board: Board) -> None:
        try:
            life(checks, Appliance(board), release)
            board.power_off()
        except Exception as error:  # whatever it was, the other board goes on
            checks.broken_off(release, error)
        finally:
            board.pull_the_plug()

    with concurrent.futures.ThreadPoolExecutor() as pool:
        list(pool.map(lambda board: live(*board), boards))
    print(
        f"{checks.passed} checks passed, {checks.failed} failed, "
        f"{(time.monotonic() - start) / 60:.0f} minutes on the boards"
    )
    return 1 if checks.failed else 0


if __name__ == "__main__":
    sys.exit(main())
