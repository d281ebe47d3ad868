"""The options and fixtures of the system tests."""

from pathlib import Path

import pytest

from tests.lib.appliance import Appliance, is_arm
from tests.lib.ctl import Ctl
from tests.lib.private_machine import wait_for


def pytest_addoption(parser):
    parser.addoption("--daemon", default="build/dev/kestcrond", help="the program to test")
    parser.addoption("--days", default=1, type=float, help="how long the long run is")
    parser.addoption("--sweep", default=24, type=int, help="how many faults are drawn")
    parser.addoption("--seed", default="1", help="which ones are drawn")
    parser.addoption("--faults", default="", help="a file of faults, one to a line, to try instead")
    parser.addoption("--valgrind", action="store_true", help="also check for memory leaks")
    parser.addoption("--coverage", default="", help="the build directory that takes line counts")


def pytest_configure(config):
    config.addinivalue_line("markers", "native(reason): cannot be seen when the daemon is emulated")


def pytest_runtest_setup(item):
    mark = item.get_closest_marker("native")
    if mark and is_arm(Path(item.config.getoption("--daemon"))):
        pytest.skip(mark.kwargs["reason"])


@pytest.fixture
def machine(request):
    """A fresh appliance. Its clock starts on Tuesday 2 June 2026 at 02:10:10, away from the top of
    the hour with its redraw, and a minute takes a second."""
    daemon = Path(request.config.getoption("--daemon")).resolve()
    counts = request.config.getoption("--coverage")
    with Appliance(daemon, Path(counts).resolve() if counts else "") as appliance:
        if counts:
            appliance.environment.update(
                GCOV_PREFIX="/share", GCOV_PREFIX_STRIP=str(len(Path(counts).resolve().parts) - 1)
            )
        appliance.clock("2026-06-02 02:10:10")
        yield appliance
        if counts:
            for pid in appliance.daemons():  # a killed program writes no counts
                appliance.run("/usr/bin/kill", pid, env={"LD_PRELOAD": ""})
            wait_for(lambda: not appliance.daemons(), what="the end of all daemons")
        reports = sorted(appliance.path("/tmp").glob("sanitizer*"))
        assert not reports, reports[0].read_text(errors="replace")


@pytest.fixture
def ctl(machine, request):
    """The tool from the directory of the daemon under test, installed on the appliance. At the end
    the fixture checks that the tool wrote nothing to the system log."""
    yield Ctl(machine, Path(request.config.getoption("--daemon")).resolve().parent / "kestcronctl")
    assert [message for message in machine.messages() if message.program == "kestcronctl"] == []
