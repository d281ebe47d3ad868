"""Two nodes in a real cluster: corosync and pacemaker on each, joined by a network of their own.

The tests depend on each other and run in this order. `one` and `two` run two jobs that are due in every minute
of the daemon's fast clock: "alone" is for the active node only, "everywhere" is marked to run on
passive nodes too. "rare" is like "alone", but due at the full hour only, for two minutes, as
a cycle may miss one of them. The active role moves by request, the daemon of the active node
dies, then the whole active node. Throughout, a witness looks at the processes of both.
"""

import signal
import subprocess
import threading
import time

import pytest

from tests.lib.cluster_node import RECORD, Node
from tests.lib.private_machine import wait_for

ADDRESSES = {"one": "192.0.2.1", "two": "192.0.2.2"}
MONITOR_PROMOTED, MONITOR_UNPROMOTED = 10, 11  # seconds, as docs/cluster.md has them
TOKEN = 3  # seconds until corosync misses a node; what it takes without a word of ours
CLONE = f"""
<clone id="kestcrond-clone">
  <meta_attributes id="kestcrond-meta">
    <nvpair id="kestcrond-promotable" name="promotable" value="true"/>
    <nvpair id="kestcrond-promoted-max" name="promoted-max" value="1"/>
  </meta_attributes>
  <primitive id="kestcrond" class="ocf" provider="kestcrond" type="kestcrond">
    <operations>
      <op id="kestcrond-promoted" name="monitor" role="Promoted" interval="{MONITOR_PROMOTED}s"
          timeout="20s"/>
      <op id="kestcrond-unpromoted" name="monitor" role="Unpromoted"
          interval="{MONITOR_UNPROMOTED}s" timeout="20s"/>
      <op id="kestcrond-start" name="start" interval="0" timeout="60s"/>
      <op id="kestcrond-stop" name="stop" interval="0" timeout="60s"/>
      <op id="kestcrond-promote" name="promote" interval="0" timeout="60s"/>
      <op id="kestcrond-demote" name="demote" interval="0" timeout="60s"/>
    </operations>
  </primitive>
</clone>
"""
EVERY_MINUTE = {"user": "root", "period": "crontab", "crontab": "* * * * *", "cmd": RECORD}


class Witness(threading.Thread):
    """Looks at the processes of the nodes again and again and keeps when each ran an active daemon
    or a child of one."""

    def __init__(self, nodes):
        super().__init__(daemon=True)
        self.nodes = nodes
        self.active = {name: [] for name in nodes}  # of [first seen, last seen]
        self.both = []  # when there were two at once
        self.longest_gap = 0  # seconds between two looks
        self.ended = threading.Event()

    def run(self):
        active = dict.fromkeys(self.nodes, False)
        last = time.time()
        while not self.ended.is_set():
            for name, node in self.nodes.items():
                now = time.time()
                is_active = "active" in node.modes().values()
                if is_active and not active[name]:
                    self.active[name].append([now, now])
                elif is_active:
                    self.active[name][-1][1] = time.time()
                active[name] = is_active
            if all(active.values()):
                self.both.append(time.time())
            self.longest_gap = max(self.longest_gap, time.time() - last)
            last = time.time()
            self.ended.wait(0.01)


class Pair:
    def __init__(self, nodes, witness):
        self.nodes = nodes
        self.witness = witness

    def promoted(self):
        """The name of the node that the cluster takes for the active one, if it is one only."""
        for node in self.nodes.values():
            if not node.killed:
                names = [name for name, role in node.status().items() if role == "Promoted"]
                return names[0] if len(names) == 1 else None
        return None

    def wait_for_active(self, since, seconds):
        """Waits until a node that was not is seen to run an active daemon after `since`; returns
        its name and when that began."""

        def found():
            return [
                (name, first) for name, spans in self.witness.active.items() for first, _ in spans[-1:] if first > since
            ]

        return wait_for(found, seconds, "a daemon in active mode")[0]

    def wait_for_runs(self, job, *names, count=3):
        """Waits for further runs of a job on the nodes named."""
        before = {name: len(self.nodes[name].runs(job)) for name in names}
        wait_for(
            lambda: all(len(self.nodes[name].runs(job)) >= before[name] + count for name in names),
            60,
            f"runs of {job} on {names}",
        )

    def spans_of_the_agent(self, name):
        """From when to when the node was the active one by what its agent said, in seconds."""
        spans, open_since = [], None
        for at, text in self.nodes[name].agent_messages():
            if open_since is not None and text.startswith(("stopped", "started")):
                spans.append((open_since, at, name))
                open_since = None
            if text.startswith("started active"):
                open_since = at
        if open_since is not None:
            spans.append((open_since, self.nodes[name].killed or time.time(), name))
        return spans

    def starts(self, name):
        """When the daemon was started on a node, and in which mode."""
        lines = (self.nodes[name].shared / "starts").read_text().splitlines()
        return [(float(line.split()[0]), "passive" if "--passive-mode" in line else "active") for line in lines]


@pytest.fixture(scope="module")
def pair(request, tmp_path_factory):
    begin = time.time()
    nodes = {
        name: Node(request.config.getoption("--daemon"), name, tmp_path_factory.mktemp(name)) for name in ADDRESSES
    }
    with nodes["one"], nodes["two"]:
        subprocess.run(
            [
                "ip",
                "link",
                "add",
                "pair",
                "netns",
                str(nodes["one"].init),
                "type",
                "veth",
                "peer",
                "name",
                "pair",
                "netns",
                str(nodes["two"].init),
            ],
            check=True,
        )
        for name, node in nodes.items():
            node.run("/usr/sbin/ip", "address", "add", f"{ADDRESSES[name]}/24", "dev", "pair", check=True)
            node.run("/usr/sbin/ip", "link", "set", "pair", "up", check=True)
            node.set_clock("2026-06-02 02:10:10", begin)
            node.jobs(
                {**EVERY_MINUTE, "name": "alone"},
                {**EVERY_MINUTE, "name": "everywhere", "run_on_passive": True},
                {**EVERY_MINUTE, "name": "rare", "crontab": "0,1 * * * *"},
            )
            node.start_cluster(ADDRESSES, ADDRESSES.values())
        witness = Witness(nodes)
        witness.start()
        one = nodes["one"]
        wait_for(lambda: set(one.status()) == set(ADDRESSES), 90, "both nodes online")
        # Nobody to call for help: a node that is gone here was killed by the test.
        one.run("/usr/sbin/crm_attribute", "--name", "stonith-enabled", "--update", "false", check=True)
        one.run("/usr/sbin/cibadmin", "--create", "--scope", "resources", "--xml-text", CLONE, check=True)
        yield Pair(nodes, witness)
        witness.ended.set()
        witness.join()


def changes_in(names):
    return sum(before != after for before, after in zip(names, names[1:]))


@pytest.fixture
def record_figure(capsys):
    """Prints what was measured."""

    def record(what, seconds):
        with capsys.disabled():
            print(f"\n    {what}: {seconds:.2f} s", end="")

    return record


def test_one_node_becomes_the_active_one(pair):
    wait_for(lambda: sorted(pair.nodes["one"].status().values()) == ["Promoted", "Unpromoted"], 60, "a promoted node")
    active = pair.promoted()
    passive = "two" if active == "one" else "one"
    assert set(pair.nodes[active].modes().values()) == {"active"}
    assert set(pair.nodes[passive].modes().values()) == {"passive"}
    pair.wait_for_runs("alone", active)
    pair.wait_for_runs("everywhere", "one", "two")


def test_the_role_moves_by_request(pair, record_figure):
    old = pair.promoted()
    new = "two" if old == "one" else "one"
    # What came due while the new node was passive is to be seen to run there.
    wait_for(lambda: pair.nodes[old].runs("rare"), 90, "a full hour")
    assert not pair.nodes[new].runs("rare")
    begin = time.time()
    assert (
        pair.nodes[old]
        .run("/usr/sbin/crm_resource", "--resource", "kestcrond-clone", "--move", "--promoted", "--node", new)
        .returncode
        == 0
    )
    name, moved = pair.wait_for_active(begin, 60)
    assert name == new
    record_figure("move by request", moved - begin)
    wait_for(lambda: pair.promoted() == new, 60, "the cluster's word of it")
    pair.nodes[old].run("/usr/sbin/crm_resource", "--resource", "kestcrond-clone", "--clear")
    pair.wait_for_runs("alone", new)
    pair.wait_for_runs("everywhere", "one", "two")
    assert set(pair.nodes[old].modes().values()) == {"passive"}
    # It ran on the old node already, but this one does not know.
    assert pair.nodes[new].runs("rare")[0] - moved < 5


def test_a_daemon_that_dies_is_replaced(pair, record_figure):
    name = pair.promoted()
    begin = time.time()
    pair.nodes[name].signal(signal.SIGKILL)
    wait_for(lambda: not pair.nodes[name].modes(), what="the daemon's end")
    new, again = pair.wait_for_active(begin, 60)
    record_figure("new daemon after the death of the daemon", again - begin)
    assert again - begin < MONITOR_PROMOTED + 5
    wait_for(lambda: pair.promoted() == new, 60, "the cluster's word of it")
    pair.wait_for_runs("alone", new)


def test_a_node_that_dies_is_taken_over_from(pair, record_figure):
    old = pair.promoted()
    new = "two" if old == "one" else "one"
    wait_for(lambda: pair.nodes[new].status().get(new) == "Unpromoted", 60, "a passive node")
    pair.wait_for_runs("alone", old)
    pair.nodes[old].kill()
    name, taken = pair.wait_for_active(pair.nodes[old].killed, 60)
    assert name == new
    record_figure("takeover after the death of the node", taken - pair.nodes[old].killed)
    assert taken - pair.nodes[old].killed < MONITOR_PROMOTED + 2 * TOKEN
    wait_for(lambda: pair.promoted() == new, 60, "the cluster's word of it")
    pair.wait_for_runs("alone", new)


def test_at_no_moment_were_both_active(pair, record_figure):
    """Four independent sources agree: the witness of the processes, the agents, the starts of the
    daemon, and the records of the jobs."""
    witness = pair.witness
    assert not witness.both
    record_figure("longest time between two samples of the witness", witness.longest_gap)
    spans = sorted((first, last, name) for name, found in witness.active.items() for first, last in found)
    assert len(spans) >= 4 and {name for *_, name in spans} == {"one", "two"}
    for (_, end, _), (begin, _, _) in zip(spans, spans[1:]):
        assert end < begin

    said = sorted(span for name in pair.nodes for span in pair.spans_of_the_agent(name))
    assert [name for *_, name in said] == [name for *_, name in spans]
    for (_, end, _), (begin, _, _) in zip(said, said[1:]):
        assert int(end) <= begin  # the system log has whole seconds

    # Between a start in active mode and the next start on that node there is none on the other, if
    # it was not killed.
    active = set()
    for at, mode, name in sorted((at, mode, name) for name in pair.nodes for at, mode in pair.starts(name)):
        active -= {other for other, node in pair.nodes.items() if node.killed and node.killed < at}
        active = active | {name} if mode == "active" else active - {name}
        assert len(active) <= 1, (at, name)

    # A run lies in a span of its node, and the nodes take turns as the spans do.
    for job in "alone", "rare":
        for name, node in pair.nodes.items():
            for at in node.runs(job):
                assert any(first - 1 < at < last + 1 for first, last in witness.active[name]), (job, name, at, spans)
    turns = [name for _, name in sorted((at, name) for name, node in pair.nodes.items() for at in node.runs("alone"))]
    assert changes_in(turns) == changes_in([name for *_, name in spans]) >= 2


def test_the_marked_job_ran_on_both_all_the_time(pair):
    for name, node in pair.nodes.items():
        passive = [
            at
            for at in node.runs("everywhere")
            if not any(first - 1 < at < last + 1 for first, last in pair.witness.active[name])
        ]
        assert len(passive) >= 3, name
