"""The cluster: its nodes, the bridges' namespace and the links to it, the
configuration every node shares, the shared disk, setting up and starting,
and destroy(), which removes every namespace, process, loop device and file
the cluster made.
started() is the life cycle the tests and benchmarks use."""

import os
import shutil
import tempfile

from . import procs
from .disk import LoopDisk
from .layout import CNT, KEY_FILE, LAN4, LAN6, MAXNODE, OUTSIDER4, OUTSIDER6, PATH_PRI, PREFIX, RECV_PORT
from .neigh import NeighTables
from .node import Node
from .procs import HarnessError, find_tools, kill_netns, loops_under, netns_list, proc_running, run
from .wire import Wire


class Cluster(Wire):
    def __init__(self, nnodes=3, tag="c", hbint=500, hbto=2000, zemctl=None, daemon=None, key=False,
                 prefixed=(), warnrate=80, loglevel=4, logsize=50000000, loop=None, syslog=False):
        ctl, dmn = find_tools()
        self.zemctl = zemctl or ctl
        self.daemon = daemon or dmn
        self.prefix = f"{PREFIX}{os.getpid()}-{tag}"
        self.bridge_ns = f"{self.prefix}-br"
        self.dir = tempfile.mkdtemp(prefix=f"{self.prefix}-")
        self.hbint = hbint
        self.hbto = hbto
        self.key = key              # one cluster key, made by node 1's "zemctl keygen"
        self.warnrate = warnrate      # delay warnings at this percentage of the time-out
        self.loglevel = loglevel      # of both logs
        self.logsize = logsize        # rotation size of both logs, bytes
        # Copies to the system log: off for tests, whose daemons share this
        # host's journal and /dev/log; the demo shows them.
        self.syslog = syslog
        self.nodes = [Node(self, i) for i in range(1, nnodes + 1)]
        self.prefixed = set(prefixed)   # nodes whose IPv4 address is written with "/24"
        # Nodes 1 and 2 share a file area, or with loop (a sector size) one
        # disk that each reaches as a loop device of its own.
        self.loop = loop
        self.disk = None
        self.neigh = None
        for node in self.nodes:
            os.makedirs(node.root, mode=0o700)
        self.namespaces = []
        self.pids = set()           # node processes seen at destroy(), for remains()
        self.reports = []           # sanitizer findings, kept by destroy()
        self.destroyed = False
        procs.register(self)

    def __getitem__(self, idx):
        """cluster[1] is node1."""
        return self.nodes[idx - 1]

    # -- network

    def _ip(self, *args):
        run(["ip", *args])

    def _add_ns(self, ns):
        self._ip("netns", "add", ns)
        self.namespaces.append(ns)
        self._ip("-n", ns, "link", "set", "lo", "up")

    def build_network(self):
        self.neigh = NeighTables(len(self.nodes))
        br = self.bridge_ns
        self._add_ns(br)
        for fam, addr in ((4, f"{OUTSIDER4}/24"), (6, f"{OUTSIDER6}/64")):
            dev = f"br{fam}"
            self._ip("-n", br, "link", "add", dev, "type", "bridge", "mcast_snooping", "0")
            self._ip("-n", br, "link", "set", dev, "up")
            if fam == 4:
                self._ip("-n", br, "addr", "add", addr, "dev", dev)
            else:
                self._ip("-n", br, "-6", "addr", "add", addr, "dev", dev, "nodad")
        for node in self.nodes:
            self._add_ns(node.ns)
            for fam, path in ((4, LAN4), (6, LAN6)):
                outer = f"v{fam}n{node.idx}"
                self._ip("-n", br, "link", "add", outer, "type", "veth",
                         "peer", "name", path, "netns", node.ns)
                self._ip("-n", br, "link", "set", outer, "master", f"br{fam}", "up")
            self._ip("-n", node.ns, "addr", "add", f"{node.ip4}/24", "dev", LAN4)
            self._ip("-n", node.ns, "-6", "addr", "add", f"{node.ip6}/64", "dev", LAN6, "nodad")
            self._ip("-n", node.ns, "link", "set", LAN4, "up")
            self._ip("-n", node.ns, "link", "set", LAN6, "up")

    # -- configuration

    def cluster_xml(self):
        """The cluster configuration every node shares."""
        servers = "".join(
            f"""
  <server name="{n.name}">
    <priority>{n.pri}</priority>
    <device name="0"><info>{n.ip4}{"/24" if n.idx in self.prefixed else ""}</info></device>
    <device name="1"><info>{n.ip6}</info></device>
  </server>""" for n in self.nodes)
        authkey = f"\n      <authkey>{KEY_FILE}</authkey>" if self.key else ""
        return f"""<?xml version="1.0"?>
<root>
  <all><num><server>{MAXNODE}</server><hbr>16</hbr></num></all>
  <cluster>
    <name>{self.prefix}</name>
    <heartbeat>
      <mismatch>0</mismatch>
      <timeout>{self.hbto}</timeout>
      <interval>{self.hbint}</interval>
      <port><recv>{RECV_PORT}</recv><send>0</send></port>{authkey}
    </heartbeat>
    <delaywarn><heartbeat>{self.warnrate}</heartbeat></delaywarn>
    <downpacket><interval>0</interval><retry>5</retry></downpacket>
  </cluster>
  <heartbeat>
    <nice>-20</nice>
    <mlock>no</mlock>
    <sched><schedule>0</schedule><priority>0</priority></sched>
    <lanhb name="{LAN4}"><priority>{PATH_PRI[LAN4]}</priority><device>0</device></lanhb>
    <lanhb name="{LAN6}"><priority>{PATH_PRI[LAN6]}</priority><device>1</device></lanhb>
    <cnthb name="{CNT}"><priority>{PATH_PRI[CNT]}</priority></cnthb>
  </heartbeat>
  <lanhb>
    <log><level>{self.loglevel}</level><size>{self.logsize}</size><syslog>{int(self.syslog)}</syslog></log>
    <watchth>1</watchth>
    <thread><stacksize>0</stacksize></thread>
    <socket><nbio>1</nbio></socket>
  </lanhb>
  <cnthb>
    <log><level>{self.loglevel}</level><size>{self.logsize}</size><syslog>{int(self.syslog)}</syslog></log>
    <watchth>0</watchth>
    <thread><stacksize>0</stacksize></thread>
    <downpacket><wait>20</wait><retry>100</retry></downpacket>
    <rwlock>0</rwlock>
  </cnthb>{servers}
</root>
"""

    def write_config(self):
        xml = self.cluster_xml()
        for n in self.nodes:
            etc = os.path.join(n.root, "etc")
            os.makedirs(etc, mode=0o700, exist_ok=True)
            with open(os.path.join(etc, "cluster.xml"), "w") as f:
                f.write(xml)
            with open(os.path.join(etc, "local.xml"), "w") as f:
                f.write(f"""<?xml version="1.0"?>
<local>
  <hostname>{n.name}</hostname>
  <storage><area>{n.area}</area><controller>{n.cntno}</controller></storage>
</local>
""")

    def setup(self):
        """Network, shared disk, configuration and fresh shared memory on every
        node; the shared disk formatted once, from node 1."""
        self.build_network()
        if self.loop:
            self.disk = LoopDisk(os.path.join(self.dir, "lun.img"), self.loop)
            for n in self.nodes[:2]:
                n.area = self.disk.attach()
        self.write_config()
        if self.key:
            first = self.nodes[0]
            first.zemctl("keygen")
            for n in self.nodes[1:]:
                n.write_key(first.read_key())
        for n in self.nodes:
            n.zemctl("init")
        if self.disk:
            self.nodes[0].zemctl("area", "create", self.nodes[0].area)

    def start_all(self, *run_args):
        for n in self.nodes:
            n.start(*run_args)

    def set_link(self, node, path, up):
        self._ip("-n", node.ns, "link", "set", path, "up" if up else "down")

    def ns_exec(self, ns, cmd, **kw):
        return run(["ip", "netns", "exec", ns, *cmd], **kw)

    def add_outsider(self, addr4):
        """One more IPv4 address of no node on the lan4 wire (in the bridges' namespace)."""
        self._ip("-n", self.bridge_ns, "addr", "add", f"{addr4}/24", "dev", "br4")

    # -- lifecycle

    def remains(self):
        """What destroy() should have removed but is still there."""
        left = [ns for ns in netns_list() if ns.startswith(self.prefix + "-")]
        left += [f"process {p}" for p in self.pids if proc_running(p)]
        left += [f"loop device {d}" for d in loops_under(self.dir)]
        if os.path.exists(self.dir) and not os.environ.get("ZEM_SYSTEM_KEEP"):
            left.append(self.dir)
        return left

    def sanitizer_reports(self):
        """Sanitizer findings the daemons and zemctl printed (sanitizer builds)."""
        marks = ("AddressSanitizer", "LeakSanitizer", "ThreadSanitizer", "runtime error:")
        found = []
        for node in self.nodes:
            for i in range(1, node.runs + 1):
                try:
                    with open(os.path.join(node.root, f"run{i}.out"), errors="replace") as f:
                        found += [f"{node.name} run {i}: {line.strip()}" for line in f
                                  if any(m in line for m in marks)]
                except OSError:
                    pass
        return found

    def destroy(self):
        if self.destroyed:
            return
        self.destroyed = True
        for node in self.nodes:
            self.pids.update(p for p in (node.init_pid(), node.supervisor_pid(), node.daemon_pid()) if p)
            node.kill()
        self.reports = self.sanitizer_reports()
        for ns in reversed(self.namespaces):
            kill_netns(ns)
        if self.disk is not None:
            self.disk.release()
        if self.neigh is not None:
            self.neigh.restore()
        if not os.environ.get("ZEM_SYSTEM_KEEP"):
            shutil.rmtree(self.dir, ignore_errors=True)
        procs.unregister(self)


def started(n, start=Cluster.start_all, **kwargs):
    """Yields a set-up cluster of n nodes, started by start(cluster), destroys
    it afterwards, and fails when anything it made was left behind or one of
    its processes printed a sanitizer report."""
    c = Cluster(n, **kwargs)
    try:
        c.setup()
        start(c)
        yield c
    finally:
        c.destroy()
    if c.remains():
        raise HarnessError(f"left behind: {c.remains()}")
    if c.reports:
        raise HarnessError("\n".join(c.reports))
