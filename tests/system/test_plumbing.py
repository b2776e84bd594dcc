"""The harness itself: namespaces, links, PID namespaces and clean-up.

These need no daemon; they make sure a failing scenario is the daemon's
fault, not the test bed's.
"""

import os
import signal
import subprocess
import sys
import tempfile

import pytest

import zemcluster
from zemcluster import LAN4, OUTSIDER4, OUTSIDER6, Cluster, wait_until


@pytest.fixture(scope="module")
def net():
    c = Cluster(3, tag="net")
    c.build_network()
    yield c
    c.destroy()


def test_paths_connect_every_node_on_both_families(net):
    n1, n2, n3 = net.nodes
    assert net.udp_reaches(n1.ns, n1.ip4, n2.ns, n2.ip4)
    assert net.udp_reaches(n2.ns, n2.ip4, n3.ns, n3.ip4)
    assert net.udp_reaches(n3.ns, n3.ip6, n1.ns, n1.ip6)
    assert net.udp_reaches(n1.ns, n1.ip6, n3.ns, n3.ip6)
    # The bridges' own addresses: where forged datagrams come from.
    assert net.udp_reaches(net.bridge_ns, OUTSIDER4, n2.ns, n2.ip4)
    assert net.udp_reaches(net.bridge_ns, OUTSIDER6, n2.ns, n2.ip6)
    # The own heartbeat goes over the loopback of the node's namespace.
    assert net.udp_reaches(n1.ns, "127.0.0.1", n1.ns, "127.0.0.1")


def test_taking_one_link_down_cuts_only_that_path(net):
    n1, _, n3 = net.nodes
    net.set_link(n3, LAN4, up=False)
    try:
        assert not net.udp_reaches(n1.ns, n1.ip4, n3.ns, n3.ip4, seconds=1.5)
        assert net.udp_reaches(n1.ns, n1.ip6, n3.ns, n3.ip6)
    finally:
        net.set_link(n3, LAN4, up=True)
    assert net.udp_reaches(n1.ns, n1.ip4, n3.ns, n3.ip4)


def test_namespaces_are_isolated_from_the_host(net):
    # No node namespace may route anywhere but its own two subnets.
    routes = net.ns_exec(net[1].ns, ["ip", "-4", "route", "show"]).stdout
    assert "default" not in routes
    assert "198.18.0.0/24" in routes


def test_neighbour_tables_sized_for_the_cluster_and_put_back():
    def limits():
        out = {}
        for fam in ("ipv4", "ipv6"):
            for n in (2, 3):
                with open(zemcluster.NEIGH_SYSCTL.format(fam=fam, n=n)) as f:
                    out[(fam, n)] = int(f.read())
        return out

    before = limits()
    soft, hard = zemcluster.neigh_need(64)
    tables = zemcluster.NeighTables(64)
    try:
        during = limits()
        for fam in ("ipv4", "ipv6"):
            assert during[(fam, 2)] >= soft and during[(fam, 3)] >= hard, (fam, during)
        assert zemcluster.NeighTables(2).changed == [], "a small cluster lowered a limit"
    finally:
        tables.restore()
    assert limits() == before


CHILD = """
import os, sys, time
path = sys.argv[1]
for _ in range(400):
    with open(path, "a") as f:
        f.write(f"{os.getppid()}\\n")
    if os.getppid() == 1:
        sys.exit(7)
    time.sleep(0.05)
sys.exit(3)
"""


def test_orphan_in_node_namespace_sees_parent_1_and_is_reaped(net):
    node = net[2]
    ppids = os.path.join(node.root, "ppids")
    supervisor = [sys.executable, "-c",
                  "import subprocess, sys, time\n"
                  f"subprocess.Popen([sys.executable, '-c', {CHILD!r}, {ppids!r}])\n"
                  "time.sleep(60)\n"]
    node.spawn(supervisor)
    try:
        assert wait_until(lambda: os.path.exists(ppids), 10)
        first = open(ppids).read().split()[0]
        assert first != "1", "the supervisor itself must not be process 1"
        sup = node.supervisor_pid()
        assert sup is not None
        os.kill(sup, signal.SIGKILL)
        # init ends once the orphan has ended too, with the supervisor's code.
        assert node.wait(15) == 128 + signal.SIGKILL
        assert open(ppids).read().split()[-1] == "1"
        status = node.init_status()
        assert any(line.startswith("child ") and line.endswith(f"signal:{signal.SIGKILL}")
                   for line in status), status
        assert any(line.startswith("adopted ") and line.endswith("exit:7")
                   for line in status), status
    finally:
        node.kill()


def test_destroy_removes_namespaces_processes_and_files():
    c = Cluster(2, tag="gone")
    c.build_network()
    c[1].spawn(["sleep", "300"])
    assert wait_until(c[1].supervisor_pid, 10)
    pids = [c[1].proc.pid, c[1].init_pid(), c[1].supervisor_pid()]
    assert len(zemcluster.leftovers()) >= 3
    c.destroy()
    assert not [ns for ns in zemcluster.leftovers() if ns.startswith(c.prefix)]
    assert not os.path.exists(c.dir)
    assert wait_until(lambda: not any(zemcluster.pid_alive(p) for p in pids), 5)


def test_sweep_removes_only_leftovers_of_dead_owners():
    dead = subprocess.Popen(["true"])
    dead.wait()
    stale_ns = f"{zemcluster.PREFIX}{dead.pid}-x-br"
    live_ns = f"{zemcluster.PREFIX}1-x-br"          # process 1 is always alive
    stale_dir = tempfile.mkdtemp(prefix=f"{zemcluster.PREFIX}{dead.pid}-x-")
    procs = []
    try:
        for ns in (stale_ns, live_ns):
            zemcluster.run(["ip", "netns", "add", ns])
        procs.append(subprocess.Popen(["ip", "netns", "exec", stale_ns, "sleep", "300"]))
        assert wait_until(lambda: zemcluster.run(["ip", "netns", "pids", stale_ns]).stdout.strip(), 5)
        removed = zemcluster.sweep()
        assert stale_ns in removed and live_ns not in removed
        names = zemcluster._netns_list()
        assert stale_ns not in names and live_ns in names
        assert not os.path.exists(stale_dir)
        assert procs[0].wait(5) == -signal.SIGKILL
    finally:
        for p in procs:
            if p.poll() is None:
                p.kill()
                p.wait()
        zemcluster.run(["ip", "netns", "del", stale_ns], check=False)
        zemcluster.run(["ip", "netns", "del", live_ns], check=False)
        if os.path.exists(stale_dir):
            os.rmdir(stale_dir)
