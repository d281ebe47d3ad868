"""The operator's tool on a private machine; tests use it through the fixture `ctl`."""

import fcntl
import json
import os
import shutil
import struct
import subprocess
import termios
from pathlib import Path

TOOL = "/usr/bin/kestcronctl"
GOLDEN = Path(__file__).resolve().parents[1] / "system/golden"


class Ctl:
    """Runs kestcronctl: `ctl("list", pattern)` returns the completed process."""

    def __init__(self, machine, binary):
        self._machine = machine
        shutil.copy2(binary, machine.path(TOOL))

    def __call__(self, *arguments, user=None, env=None, timeout=300, **options):
        """`user` is a user ID to run as, without supplementary groups. It implies the real clock, because
        the simulated clock has files that only root can open."""
        become = ["/usr/bin/setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"]
        clock = {"LD_PRELOAD": ""} if user else {}
        return self._machine.run(
            *(become if user else []),
            TOOL,
            *arguments,
            env={"LC_ALL": "C.UTF-8", **clock, **(env or {})},
            timeout=timeout,
            **options,
        )

    def json(self, *arguments, **options):
        """Returns the exit status and the JSON output. Standard error must be empty."""
        done = self(*arguments, "--json", **options)
        assert done.stderr == "", done.stderr
        return done.returncode, json.loads(done.stdout)

    def on_terminal(self, *arguments, columns=80, env=None, limit=None):
        """Returns the output on a terminal of that width. After `limit` seconds the tool is terminated."""
        ours, theirs = os.openpty()
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 25, columns, 0, 0))
        process = self._machine.popen(
            *(["/usr/bin/timeout", str(limit)] if limit else []),
            TOOL,
            *arguments,
            env={"LC_ALL": "C.UTF-8", "TERM": "linux", **(env or {})},
            stdin=subprocess.DEVNULL,
            stdout=theirs,
            stderr=subprocess.PIPE,
        )
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


def expect_golden(name, text):
    """Compares the text with the golden file."""
    assert text == (GOLDEN / name).read_text(), f"{name} differs; the text is:\n{text}"
