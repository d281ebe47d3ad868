"""The operator's tool on a private machine: import the fixture `ctl` beside `machine`."""

import fcntl
import json
import os
import shutil
import struct
import subprocess
import termios
from pathlib import Path

import pytest

TOOL = "/usr/bin/kestcronctl"
GOLDEN = Path(__file__).parent / "golden"


class Ctl:
    """Runs the tool: `ctl("list", pattern)` returns the completed process."""

    def __init__(self, machine, binary):
        self._machine = machine
        shutil.copy2(binary, machine.path(TOOL))

    def __call__(self, *arguments, user=None, env=None, timeout=300, **options):
        """With `user`, a number, as that account without further groups, and with the real clock,
        because the other one keeps files of root's."""
        become = ["/usr/bin/setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"]
        clock = {"LD_PRELOAD": ""} if user else {}
        return self._machine.run(*(become if user else []), TOOL, *arguments,
                                 env={"LC_ALL": "C.UTF-8", **clock, **(env or {})}, timeout=timeout, **options)

    def json(self, *arguments, **options):
        """The exit status and the answer in JSON; nothing else may be said."""
        done = self(*arguments, "--json", **options)
        assert done.stderr == "", done.stderr
        return done.returncode, json.loads(done.stdout)

    def on_terminal(self, *arguments, columns=80, env=None):
        """What the tool writes on a terminal of that width."""
        ours, theirs = os.openpty()
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 25, columns, 0, 0))
        process = self._machine.popen(
            TOOL, *arguments, env={"LC_ALL": "C.UTF-8", "TERM": "linux", **(env or {})},
            stdin=subprocess.DEVNULL, stdout=theirs, stderr=subprocess.PIPE)
        os.close(theirs)
        text = b""
        while True:
            try:
                part = os.read(ours, 65536)
            except OSError:  # the other side is closed
                break
            if not part:
                break
            text += part
        os.close(ours)
        process.communicate(timeout=60)
        return text.decode().replace("\r\n", "\n")


@pytest.fixture
def ctl(machine, request):
    """The tool that lies beside the daemon under test, installed on the appliance. Whatever it is
    asked, it writes nothing to the system log."""
    yield Ctl(machine, Path(request.config.getoption("--daemon")).resolve().parent / "kestcronctl")
    assert [message for message in machine.messages() if message.program == "kestcronctl"] == []


def expect_golden(name, text):
    """The text must be the one in the file of that name."""
    assert text == (GOLDEN / name).read_text(), f"see {name}; now it is:\n{text}"
