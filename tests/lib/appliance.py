"""The appliance that system tests run on: a private machine with accounts, a program that records its
runs, and shortcuts to install jobs and templates."""

import json
import platform
import signal
import subprocess

from tests.lib.private_machine import PrivateMachine, template_config, wait_for

SOURCES = {
    "builtin": "/usr/kest/share/kestcron.d",
    "builtin-dyn": "/usr/kest/etc/kestcron.d",
    "pkg": "/usr/local/etc/kestcron.d",
    "pkg_nonroot": "/usr/local/etc/kestcron_nonroot.d",
}
PERSISTENT_FILE = "/usr/kest/etc/kestcrond.config"
PERSISTENT_TEMPLATE = "/usr/kest/etc/kestcrond.st.config"
RECORD = "/usr/local/bin/record"
FIELDS = ["Minute", "hour", "day", "month", "week"]

PSELECT = {"x86_64": "270", "aarch64": "72"}[platform.machine()]  # system call number

# Appends a line with its user, group and arguments to a file named after the job.
RECORD_PROGRAM = """#!/bin/sh
echo "$(id -un) $(id -gn) [$*]" >> "/tmp/ran/${0##*/}"
"""


def is_arm(program):
    """Whether this is a program for 32-bit ARM, which runs under emulation."""
    return program.read_bytes()[16:20] == b"\x03\0\x28\0"


class Appliance(PrivateMachine):
    def __enter__(self):
        super().__enter__()
        self.add_account("alice", 2001, groups=["crew", "media"])
        self.add_account("bob", 2002)
        self.add_account("system", 2003)
        self.write(RECORD, RECORD_PROGRAM, 0o755)
        self.path("/tmp/ran").mkdir()
        self.path("/tmp/ran").chmod(0o1777)
        if is_arm(self.daemon_binary):
            clock = self.daemon_binary.parent / "tests/arm/clock.so"
            self.write("/usr/lib/arm-linux-gnueabihf/faketime/libfaketime.so.1", clock.read_bytes())
        self.environment.update(
            ASAN_OPTIONS="verify_asan_link_order=0:log_path=/tmp/sanitizer",
            UBSAN_OPTIONS="print_stacktrace=1:log_path=/tmp/sanitizer",
        )
        return self

    def is_sanitized(self):
        """Whether the daemon is built with the address sanitizer, which needs additional memory."""
        return b"__asan_init" in self.daemon_binary.read_bytes()

    def jobs(self, source, file, definitions, account=None):
        """Writes a job file to a source; the source "pkg_nonroot" needs an account, which gets a directory."""
        directory = SOURCES[source]
        if account:
            directory += "/" + account
            self.account_directory(account)
        self.write(f"{directory}/{file}", json.dumps(definitions))

    def account_directory(self, account):
        path = self.path(f"{SOURCES['pkg_nonroot']}/{account}")
        path.mkdir(parents=True, exist_ok=True)
        path.parent.chmod(0o755)
        self.chown(path, account)

    def template(self, crontab="~ ~ ~ ~ ~", **members):
        """Writes a saved schedule template."""
        self.write(PERSISTENT_TEMPLATE, json.dumps({"config": template_config(crontab), **members}))

    def drawn(self, **fields):
        """A schedule as documents contain it; fields that are not given have the value -1 for "every"."""
        return {key: [fields.get(key, -1)] for key in FIELDS}

    def document(self, path="/run/kestcrond.config"):
        """A JSON document; None if the file is missing."""
        text = self.read(path)
        return json.loads(text) if text else None

    def entries(self):
        """The job entries of the runtime document."""
        return (self.document() or {}).get("jobs", {})

    def runs(self, job):
        """The lines that the runs of a job recorded."""
        return self.read(f"/tmp/ran/{job}").splitlines()

    def wait_for_text(self, text, count=1, seconds=60):
        """Waits until the system log holds an error with exactly this text `count` times."""
        wait_for(lambda: self.texts().count(text) >= count, seconds, f"{text!r} in {self.texts()}")

    def start_with_faults(self, *faults, path=None):
        """Starts the daemon with failing system calls, also in its children. A fault has the form
        "CALL[,CALL]:error=NAME[:when=EXPRESSION]"; with a path, only calls on this path fail.
        Returns the exit status of the program that was started."""
        options = [word for fault in faults for word in ("-e", f"inject={fault}")]
        return self.start_traced("-o", "/dev/null", *options, *(["-P", path] if path else []))

    def start_traced(self, *options):
        """Starts the daemon under strace with these options; returns the same as start()."""
        variables = [f"--env={name}={value}" for name, value in self.environment.items()]
        # With -D the tracer is not the parent of the daemon. Leak detection is off: it needs ptrace itself.
        return self.popen(
            "/usr/bin/strace",
            "-D",
            "-f",
            "-qq",
            *options,
            *variables,
            f"--env=ASAN_OPTIONS={self.environment['ASAN_OPTIONS']}:detect_leaks=0",
            self.DAEMON,
            env={"LD_PRELOAD": ""},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        ).wait(60)

    def reload(self):
        """Requests a reload and waits for its end."""
        # A load that was caused by a change may have read the files before they were complete.
        wait_for(self.is_between_cycles, what="the end of a cycle")
        before = self.loads(), self.saved()
        self.signal(signal.SIGHUP)
        wait_for(lambda: self.loads() > before[0] and self.saved() != before[1], what="a reload")
        # This may have been a reload caused by a change; the requested one then follows.
        wait_for(self.is_between_cycles, what="the end of the reload")

    def is_between_cycles(self):
        """Whether the daemon waits for its next cycle, which is its only use of pselect()."""
        try:
            return self.proc(self.daemon_pid(), "syscall").read_text().split()[0] == PSELECT
        except (FileNotFoundError, ProcessLookupError):
            return False  # it has ended

    def loads(self):
        """The number of loads so far."""
        return len(self.messages("crondaemon", "info"))

    def saved(self):
        """A value that differs after each save of the runtime documents, because a save creates new files."""
        return self.path(self.RUNTIME_TEMPLATE).stat().st_ino

    def staged(self, job):
        return self.path(f"/tmp/kestcrond/{job}")


def every_minute(name, **members):
    """A definition that is due in every minute."""
    return {"name": name, "user": "root", "period": "crontab", "crontab": "* * * * *", "cmd": RECORD, **members}


def never(name, **members):
    """A definition that is never due: on 31 February."""
    return every_minute(name, crontab="0 0 31 2 *", **members)
