"""A node of a cluster: a private machine with its own network and host name, on which corosync, Pacemaker
and the resource agent can run."""

import contextlib
import ctypes
import json
import os
import re
import subprocess
import time
from pathlib import Path

TOP = Path(__file__).resolve().parents[2]
from tests.lib.private_machine import FAKETIME_LIBRARY, PrivateMachine, template_config, wait_for

AGENT = TOP / "packaging/ocf/kestcrond"
INSTALLED_AGENT = "/usr/lib/ocf/resource.d/kestcrond/kestcrond"
CLONE_NEWUTS, CLONE_NEWNET = 0x04000000, 0x40000000
RATE = 60  # the daemon's clock runs 60 times as fast; the cluster uses real time

# Installed in place of the daemon: records the real time of each start and starts the daemon with a fast
# clock, which continues across restarts.
STARTER = """#!/bin/sh
now=$(date +%s.%N)
echo "$now $*" >>/share/starts
clock=$(date -d "@$(({clock} + (${{now%.*}} - {begin}) * {rate}))" '+%F %T')
export LD_PRELOAD='{library}' NO_FAKE_STAT=1 FAKETIME="@$clock x{rate}"
exec {daemon} "$@"
"""

# The program of the jobs: appends the real time of its run to a file named after the job.
RECORD = "/usr/local/bin/record"
RECORD_PROGRAM = """#!/bin/sh
unset LD_PRELOAD FAKETIME
date +%s.%N >>"/share/${0##*/}"
"""

COROSYNC = """
totem {{
    version: 2
    cluster_name: pair
    transport: knet
    crypto_cipher: none
    crypto_hash: none
}}
nodelist {{
{nodes}}}
quorum {{
    provider: corosync_votequorum
    two_node: 1
}}
system {{
    allow_knet_handle_fallback: yes
}}
logging {{
    to_syslog: no
    to_logfile: yes
    logfile: /var/log/corosync.log
}}
"""


@contextlib.contextmanager
def fresh_namespaces():
    """Processes started in this context have their own network and host name."""
    libc = ctypes.CDLL(None, use_errno=True)
    before = [os.open(f"/proc/thread-self/ns/{kind}", os.O_RDONLY) for kind in ("net", "uts")]
    if libc.unshare(CLONE_NEWNET | CLONE_NEWUTS) == -1:
        raise OSError(ctypes.get_errno(), "unshare")
    try:
        yield
    finally:
        for descriptor in before:
            if libc.setns(descriptor, 0) == -1:
                raise OSError(ctypes.get_errno(), "setns")
            os.close(descriptor)


class Node(PrivateMachine):
    """A node called `name`; its jobs write their records to the directory `shared`."""

    # The process has the name of this file. The path STARTED belongs to STARTER.
    DAEMON = "/usr/local/sbin/kestcrond"
    STARTED = "/usr/sbin/kestcrond"

    def __init__(self, daemon, name, shared):
        super().__init__(daemon, shared)
        self.name = name
        self.killed = None  # the time of kill()

    def __enter__(self):
        with fresh_namespaces():
            super().__enter__()
        self.run("/usr/bin/hostname", self.name, check=True)
        self.run("/usr/sbin/ip", "link", "set", "lo", "up", check=True)
        self.write(INSTALLED_AGENT, AGENT.read_bytes(), 0o755)
        self.write(RECORD, RECORD_PROGRAM, 0o755)
        self.set_clock("2026-06-02 02:10:10", time.time())
        return self

    def _inside(self, command, env):
        nsenter, *rest = super()._inside(command, env)
        return [nsenter, "--net", "--uts", *rest]

    def set_clock(self, clock, begin):
        """Sets the clock of the daemon: it shows `clock` at the real time `begin`."""
        seconds = int(subprocess.check_output(["date", "-d", clock, "+%s"]))
        self.write(
            self.STARTED,
            STARTER.format(library=FAKETIME_LIBRARY, clock=seconds, begin=int(begin), rate=RATE, daemon=self.DAEMON),
            0o755,
        )

    def jobs(self, *definitions, max_delay=0):
        self.write("/usr/local/etc/kestcron.d/pair.conf", json.dumps(definitions))
        self.write(
            "/usr/kest/etc/kestcrond.st.config", json.dumps({"config": template_config(), "maxDelay": max_delay})
        )

    def runs(self, job):
        """The real times at which the job ran on this node."""
        try:
            return [float(line) for line in (Path(self.shared) / f"pkg-pair-{job}").open()]
        except FileNotFoundError:
            return []

    def agent(self, action, timeout=20, **meta):
        """Runs an action of the agent as a cluster would; returns its exit code."""
        variables = {f"OCF_RESKEY_CRM_meta_{key}": value for key, value in meta.items()}
        return self.run(
            INSTALLED_AGENT,
            action,
            env={
                "OCF_ROOT": "/usr/lib/ocf",
                "OCF_RESOURCE_INSTANCE": "kestcrond",
                "OCF_RESKEY_CRM_meta_timeout": timeout * 1000,
                **variables,
            },
        ).returncode

    def start_by_hand(self, *options):
        self.run(self.STARTED, *options, check=True)
        wait_for(self.daemon_pid, what="the daemon")

    def agent_messages(self):
        """The messages of the agent in the system log: (second, text)."""
        self._drain()
        form = re.compile(r"<\d+>(\w+ +\d+ [\d:]+) kestcrond\(kestcrond\)\[\d+\]: +\w+: (.*)")
        lines = [form.match(datagram) for datagram in list(self._datagrams)]
        year = time.strftime("%Y ")
        return [(time.mktime(time.strptime(year + line[1], "%Y %b %d %H:%M:%S")), line[2]) for line in lines if line]

    def modes(self):
        """The mode of the daemon and of each of its children, by pid."""
        modes = {}
        try:
            for entry in os.listdir(self.root / "proc"):
                with contextlib.suppress(OSError):
                    if entry.isdigit() and self.proc(entry, "comm").read_text() == "kestcrond\n":
                        words = self.proc(entry, "cmdline").read_bytes().split(b"\0")
                        if words[0].decode() == self.DAEMON:
                            passive = b"--passive-mode" in words
                            modes[int(entry)] = "passive" if passive else "active"
        except OSError:
            pass  # the machine has ended
        return modes

    # --- The cluster -----------------------------------------------------------------------------

    def start_cluster(self, names, addresses):
        nodes = "".join(
            f"    node {{\n        ring0_addr: {address}\n        name: {name}\n" f"        nodeid: {number}\n    }}\n"
            for number, (name, address) in enumerate(zip(names, addresses), 1)
        )
        self.write("/etc/corosync/corosync.conf", COROSYNC.format(nodes=nodes))
        self.run(
            "/usr/bin/install",
            "-d",
            "-o",
            "hacluster",
            "-g",
            "haclient",
            "-m",
            "0770",
            "/var/log/pacemaker",
            "/run/crm",
            check=True,
        )
        self.run("/bin/sh", "-c", "rm -f /var/lib/pacemaker/cib/* /var/lib/corosync/*", check=True)
        quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        self.popen("/usr/sbin/corosync", "-f", **quiet)
        self.popen("/bin/sh", "-c", "until corosync-cfgtool -s; do sleep 0.2; done; " "exec pacemakerd", **quiet)

    def cluster(self, *command):
        """Runs a command of the cluster and returns its output; an empty text if it fails."""
        result = self.run(*command)
        return result.stdout if result.returncode == 0 else ""

    def status(self):
        """The role of the daemon on each node that is online: "Promoted", "Unpromoted" or another."""
        text = self.cluster("/usr/sbin/crm_mon", "--one-shot", "--output-as=xml")
        online = re.findall(r'<node name="(\w+)"[^>]* online="true"', text)
        roles = dict.fromkeys(online, "")
        for role, inner in re.findall(
            r'<resource id="kestcrond"[^>]* role="(\w+)"[^>]*>(.*?)' r"</resource>", text, re.DOTALL
        ):
            for name in re.findall(r'<node name="(\w+)"', inner):
                roles[name] = role
        return roles

    def kill(self):
        """Kills all processes of the node at once."""
        self.killed = time.time()
        os.kill(self.init, 9)
        self._unshare.wait()
