"""A fully emulated 32-bit ARM board, and the shell on its serial console."""

import contextlib
import datetime
import itertools
import pathlib
import re
import shlex
import socket
import subprocess
import time


class Silence(Exception):
    """The board did not print the expected output in time."""


class Board:
    """The emulated board. A boot ends when the shell is ready."""

    def __init__(
        self, kernel: pathlib.Path, initramfs: pathlib.Path, disk: pathlib.Path, transcript: pathlib.Path
    ) -> None:
        self._kernel, self._initramfs, self._disk = kernel, initramfs, disk
        self._transcript = transcript.open("ab", buffering=0)
        self.place = transcript.parent
        self._emulator: subprocess.Popen | None = None
        self._console: socket.socket | None = None
        self._clock_ahead = datetime.timedelta()  # ahead of the clock of this machine
        self._output = b""
        self._numbers = itertools.count(1)

    def power_on(self, clock: datetime.datetime, *, timeout: float = 900) -> float:
        """Starts the board with its clock at a UTC time. Returns the duration of the boot in seconds."""
        self._clock_ahead = clock - datetime.datetime.now()
        return self._start(timeout)

    def reboot(self, *, timeout: float = 900) -> float:
        """Reboots by `systemctl reboot`. Returns the seconds until the shell was ready again.

        The emulator ends when the kernel restarts the board, and a new one continues with the disk and
        the clock: after a long run the emulator does not restart reliably by itself.
        """
        start = time.monotonic()
        self._note("reboot")
        self._send("systemctl reboot </dev/null 2>&1")
        self._read_until(rb"reboot: Restarting system", timeout)
        self._emulator.wait(60)
        self.pull_the_plug()
        self._start(timeout)
        return time.monotonic() - start

    def _start(self, timeout: float) -> float:
        path = self.place / "console"
        path.unlink(missing_ok=True)
        start = time.monotonic()
        self._output = b""
        clock = (datetime.datetime.now() + self._clock_ahead).isoformat(timespec="seconds")
        self._note(f"power on, the clock at {clock}")
        with socket.socket(socket.AF_UNIX) as line:
            line.bind(str(path))
            line.listen(1)
            line.settimeout(60)
            # Debian's kernel for this board does not support memory or devices above 4 GiB.
            self._emulator = subprocess.Popen(
                [
                    "qemu-system-arm",
                    "-machine",
                    "virt,highmem=off",
                    "-cpu",
                    "cortex-a15",
                    "-smp",
                    "2",
                    "-m",
                    "512",
                    "-no-reboot",
                    "-nodefaults",
                    "-display",
                    "none",
                    "-nic",
                    "none",
                    "-kernel",
                    self._kernel,
                    "-initrd",
                    self._initramfs,
                    "-append",
                    "console=ttyAMA0 loglevel=4 systemd.show_status=false panic=10",
                    "-drive",
                    f"if=none,id=disk,format=raw,file={self._disk}",
                    "-device",
                    "virtio-blk-device,drive=disk",
                    "-rtc",
                    f"base={clock}",
                    "-serial",
                    f"unix:{path}",
                ]
            )
            try:
                self._console = line.accept()[0]
            except TimeoutError:
                raise Silence("the emulator did not start") from None
        self._await_shell(timeout)
        return time.monotonic() - start

    def power_off(self, *, timeout: float = 300) -> None:
        """Shuts down the system, if it runs, and ends the emulator."""
        self._note("power off")
        if self._emulator is None:
            return
        with contextlib.suppress(OSError):
            self._send("systemctl poweroff </dev/null")
        with contextlib.suppress(Silence):
            self._read_until(rb"(?!)", timeout)  # until the console closes
        self.pull_the_plug()

    def pull_the_plug(self) -> None:
        if self._emulator is not None:
            self._emulator.kill()
            self._emulator.wait()
            self._emulator = None
        if self._console is not None:
            self._console.close()
            self._console = None

    def run(self, command: str, *, timeout: float = 180) -> tuple[int, str]:
        """Runs shell commands on the board. Returns the exit status of the last, and the output of all."""
        number = next(self._numbers)
        # The command may have several lines. The shell assembles the mark, so that the echo of the command
        # does not contain it.
        self._send(
            f"{{ eval {shlex.quote(command)}\n}} </dev/null 2>&1; " f"status=$?; echo; echo \"<<$status\":{number}'>>'"
        )
        mark = self._read_until(rb"\n<<(\d+):%d>>\n" % number, timeout)
        text = mark.string[: mark.start()].decode(errors="replace")
        return int(mark.group(1)), text.strip("\n")

    def output(self, command: str, *, timeout: float = 180) -> str:
        """Runs commands, the last of which must succeed, and returns their output."""
        status, text = self.run(command, timeout=timeout)
        if status:
            raise AssertionError(f"{command}: status {status}: {text}")
        return text

    def wait_until(self, condition: str, *, timeout: float, what: str = "") -> None:
        """Waits until the condition, a shell command, succeeds on the board."""
        loop = shlex.quote(f"until {condition}; do sleep 0.5; done")
        status, _ = self.run(f"timeout {timeout:.0f} sh -c {loop} 2>/dev/null", timeout=timeout + 120)
        if status:
            raise AssertionError(f"{what or condition}: not within {timeout:.0f} s")

    def write(self, path: str, text: str) -> None:
        """Writes a file under a name that is not a job file's, and then renames it."""
        new = str(pathlib.PurePath(path).with_name(".new"))
        self.output(f"printf %s {shlex.quote(text)} >{new} && mv {new} {path}")

    def _await_shell(self, timeout: float) -> None:
        self._read_until(rb"<<shell>>\n", timeout)
        self.run("dmesg -n 1")

    def _send(self, line: str) -> None:
        self._note(line)
        self._console.sendall(line.encode() + b"\n")

    def _note(self, text: str) -> None:
        self._transcript.write(f"\n[{time.strftime('%H:%M:%S')}] > {text}\n".encode())

    def _read_until(self, pattern: bytes, timeout: float) -> re.Match:
        """Reads until the pattern matches; the rest of the output is kept for the next call."""
        deadline = time.monotonic() + timeout
        expression = re.compile(pattern)
        while True:
            found = expression.search(self._output)
            if found:
                self._output = self._output[found.end() :]
                return found
            left = deadline - time.monotonic()
            if left <= 0:
                raise Silence(f"no output matched {pattern!r} within {timeout:.0f} s")
            self._console.settimeout(left)
            try:
                received = self._console.recv(65536)
            except TimeoutError:
                continue
            if not received:
                raise Silence("the board has ended")
            self._transcript.write(received.replace(b"\r", b""))
            self._output += received.replace(b"\r", b"")
