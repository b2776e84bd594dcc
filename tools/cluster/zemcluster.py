"""A heartbeat cluster of N nodes on one machine.

Every node lives in a network namespace of its own; one more namespace holds
two bridges, one per LAN path: "lan4" carries IPv4 (198.18.0.0/24) and "lan6"
carries IPv6 (2001:db8::/64). Each node is linked to both bridges by a veth
pair and has its own ZEM_ROOT (local.xml, shared memory, logs) with the same
cluster.xml. Nodes 1 and 2 share one heartbeat-area file for the controller
path (controller numbers 0 and 1); every further node gets an area of its own.
A node runs "zemctl run" under nodeinit.py, which is process 1 of a PID
namespace of the node's own.

The host's neighbour tables (one per address family, shared by every
namespace) are raised for the cluster's size while it lives and put back
by destroy().

Everything is named "zst<pid>-..." after the creating process, so parallel
runs never collide and sweep() can remove what a crashed run left behind.
destroy() removes every namespace, process and file a cluster made; it is
registered for interpreter exit and for SIGTERM/SIGHUP as well.
"""

from __future__ import annotations

import atexit
import datetime
import json
import os
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
NETPROBE = os.path.join(HERE, "netprobe.py")
PREFIX = "zst"
NAME_RE = re.compile(rf"^{PREFIX}(\d+)-")

LAN4 = "lan4"
LAN6 = "lan6"
CNT = "cnt1"
LAN_PATHS = (LAN4, LAN6)
PATH_PRI = {LAN4: 0, LAN6: 1, CNT: 0}
RECV_PORT = 29002
MAXNODE = 32
KEY_FILE = "etc/authkey"      # under each node's root, named in cluster.xml
TRAILER = 40                  # sequence and code after a keyed datagram

# Where the bridges' own addresses sit: an outsider on both wires. The
# receiver matches an IPv4 peer inside the IPv4-mapped text of the source
# address as a substring, so the outsider's address must not contain a node's
# (198.18.0.254 would pass for 198.18.0.2).
OUTSIDER4 = "198.18.0.99"
OUTSIDER6 = "2001:db8::fe"


class HarnessError(RuntimeError):
    pass


def run(cmd, check=True, env=None, timeout=30, input=None):
    """Run a command; on failure raise with its output."""
    res = subprocess.run(cmd, capture_output=True, text=True, env=env,
                         timeout=timeout, input=input)
    if check and res.returncode != 0:
        raise HarnessError(f"{' '.join(cmd)} -> {res.returncode}\n{res.stdout}{res.stderr}")
    return res


def wait_until(pred, timeout, interval=0.1):
    """Poll pred until it returns something true or timeout passes; return its last value."""
    deadline = time.monotonic() + timeout
    while True:
        value = pred()
        if value or time.monotonic() >= deadline:
            return value
        time.sleep(interval)


def pid_alive(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    except PermissionError:
        return True
    return True


def proc_running(pid):
    """Whether pid exists and is not a zombie."""
    try:
        with open(f"/proc/{pid}/stat") as f:
            stat = f.read()
    except OSError:
        return False
    return stat[stat.rindex(")") + 2:].split()[0] != "Z"


def proc_children(ppid, zombies=False):
    """Global ids of the processes whose parent is ppid (zombies only if asked)."""
    out = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/stat") as f:
                stat = f.read()
        except OSError:
            continue
        fields = stat[stat.rindex(")") + 2:].split()
        if (zombies or fields[0] != "Z") and int(fields[1]) == ppid:
            out.append(int(entry))
    return sorted(out)


def proc_exe(pid):
    try:
        return os.path.basename(os.readlink(f"/proc/{pid}/exe"))
    except OSError:
        return ""


def find_tools():
    """Paths of zemctl and zemlanhb: from ZEM_CTL/ZEM_DAEMON, else from ZEM_BUILD."""
    build = os.environ.get("ZEM_BUILD", "")
    ctl = os.environ.get("ZEM_CTL") or (os.path.join(build, "zemctl") if build else "")
    daemon = os.environ.get("ZEM_DAEMON") or (os.path.join(build, "zemlanhb") if build else "")
    return ctl, daemon


# ---------------------------------------------------------------- clean-up

_live: list["Cluster"] = []
_lock = threading.Lock()


def destroy_all():
    with _lock:
        clusters = list(_live)
    for c in clusters:
        c.destroy()


_stopping = False


def _on_signal(signum, _frame):
    # Treat SIGTERM and SIGHUP like Ctrl-C: unwind, so that fixtures, finally
    # blocks and finally atexit remove the clusters. Later signals must not
    # cut that clean-up short.
    global _stopping
    if _stopping:
        return
    _stopping = True
    raise KeyboardInterrupt(f"signal {signum}")


def install_cleanup_handlers():
    atexit.register(destroy_all)
    for sig in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(sig, _on_signal)


def _netns_list():
    res = run(["ip", "netns", "list"], check=False)
    return [line.split()[0] for line in res.stdout.splitlines() if line.strip()]


def _kill_netns(ns):
    """SIGKILL every process in a namespace (by id) and delete the namespace."""
    for _ in range(20):
        pids = run(["ip", "netns", "pids", ns], check=False).stdout.split()
        if not pids:
            break
        for p in pids:
            try:
                os.kill(int(p), signal.SIGKILL)
            except (ProcessLookupError, ValueError):
                pass
        time.sleep(0.05)
    run(["ip", "netns", "del", ns], check=False)


def sweep():
    """Remove namespaces and directories left by earlier runs of this harness
    whose creating process is gone. Returns the names removed."""
    removed = []
    for ns in _netns_list():
        m = NAME_RE.match(ns)
        if m and int(m.group(1)) != os.getpid() and not pid_alive(int(m.group(1))):
            _kill_netns(ns)
            removed.append(ns)
    tmp = tempfile.gettempdir()
    for entry in os.listdir(tmp):
        m = NAME_RE.match(entry)
        if m and int(m.group(1)) != os.getpid() and not pid_alive(int(m.group(1))):
            shutil.rmtree(os.path.join(tmp, entry), ignore_errors=True)
            removed.append(entry)
    return removed


def leftovers(owner=None):
    """Namespaces of this harness's naming scheme owned by `owner` (default: us)."""
    owner = os.getpid() if owner is None else owner
    return [ns for ns in _netns_list() if ns.startswith(f"{PREFIX}{owner}-")]


# ---------------------------------------------------------------- neighbour tables

NEIGH_SYSCTL = "/proc/sys/net/{fam}/neigh/default/gc_thresh{n}"


def neigh_need(nnodes):
    """(gc_thresh2, gc_thresh3) a cluster of nnodes needs in each family's
    table: every node keeps an entry for every other node and the bridge's
    outsider, and the kernel refuses entries past gc_thresh3 (sendto then
    fails with EINVAL). Four times that, so entries on their way out and a
    neighbour cluster of the same size still fit."""
    hard = 4 * nnodes * (nnodes + 2)
    return hard // 2, hard


class NeighTables:
    """Raises both families' neighbour-table limits to what a cluster needs,
    never lowers them, and restore() puts back what it changed unless
    someone else changed the value since."""

    def __init__(self, nnodes):
        self.changed = []   # (path, old, ours)
        soft, hard = neigh_need(nnodes)
        for fam in ("ipv4", "ipv6"):
            for n, want in ((2, soft), (3, hard)):
                path = NEIGH_SYSCTL.format(fam=fam, n=n)
                try:
                    with open(path) as f:
                        old = int(f.read())
                    if old < want:
                        with open(path, "w") as f:
                            f.write(str(want))
                        self.changed.append((path, old, want))
                except OSError as e:
                    raise HarnessError(f"cannot size the neighbour table ({path}): {e}") from e

    def restore(self):
        for path, old, ours in reversed(self.changed):
            try:
                with open(path) as f:
                    if int(f.read()) != ours:
                        continue
                with open(path, "w") as f:
                    f.write(str(old))
            except OSError:
                pass
        self.changed = []


# ---------------------------------------------------------------- the cluster

class Node:
    def __init__(self, cluster, idx):
        self.cluster = cluster
        self.idx = idx
        self.name = f"node{idx}"
        self.pri = idx
        self.ns = f"{cluster.prefix}-n{idx}"
        self.root = os.path.join(cluster.dir, self.name)
        self.ip4 = f"198.18.0.{idx}"
        self.ip6 = f"2001:db8::{idx}"
        if idx <= 2:
            self.area = os.path.join(cluster.dir, "hbarea-shared")
            self.cntno = idx - 1
        else:
            self.area = os.path.join(cluster.dir, f"hbarea-{self.name}")
            self.cntno = 0
        self.proc = None          # "ip netns exec ... unshare ..." (unshare's pid)
        self.statusfile = os.path.join(self.root, "init.status")
        self.runs = 0
        self.extra_env = {}       # more environment for the node's processes

    def __repr__(self):
        return f"<{self.name} {self.ns}>"

    @property
    def env(self):
        env = dict(os.environ)
        env["ZEM_ROOT"] = self.root
        env.update(self.extra_env)
        return env

    # -- processes

    def init_pid(self):
        if self.proc is None or self.proc.poll() is not None:
            return None
        kids = proc_children(self.proc.pid)
        return kids[0] if kids else None

    def supervisor_pid(self):
        """The process nodeinit.py started, while it lives."""
        init = self.init_pid()
        if init is None:
            return None
        daemon = os.path.basename(self.cluster.daemon)
        return next((p for p in proc_children(init) if proc_exe(p) != daemon), None)

    def daemon_pid(self):
        """The daemon's global id, whether still supervised or adopted by init."""
        init = self.init_pid()
        daemon = os.path.basename(self.cluster.daemon)
        if init is None or not daemon:
            return None
        # A supervisor that has just died is a zombie whose child is not yet adopted.
        kids = proc_children(init, zombies=True)
        for pid in list(kids):
            kids += proc_children(pid)
        return next((p for p in kids if proc_exe(p) == daemon and proc_running(p)), None)

    def running(self):
        return self.proc is not None and self.proc.poll() is None

    def spawn(self, cmd):
        """Run cmd under nodeinit.py as process 2 of a fresh PID namespace inside
        the node's network namespace."""
        if self.running():
            raise HarnessError(f"{self.name} is already running")
        self.runs += 1
        out = open(os.path.join(self.root, f"run{self.runs}.out"), "w")
        full = ["ip", "netns", "exec", self.ns,
                "unshare", "--pid", "--fork", "--kill-child",
                sys.executable, os.path.join(HERE, "nodeinit.py"), self.statusfile, "--", *cmd]
        self.proc = subprocess.Popen(full, env=self.env, stdout=out, stderr=subprocess.STDOUT,
                                     stdin=subprocess.DEVNULL, start_new_session=True)
        out.close()

    def start(self, *run_args, wait_daemon=True):
        """Start "zemctl run RUN_ARGS" as the node's supervisor."""
        self.spawn([self.cluster.zemctl, "run", "--daemon", self.cluster.daemon, *run_args])
        if wait_daemon and not wait_until(self.daemon_pid, 15, 0.05):
            raise HarnessError(f"{self.name}: no daemon came up\n{self.output()}")

    def output(self):
        """What the supervisor printed in its latest run."""
        try:
            with open(os.path.join(self.root, f"run{self.runs}.out")) as f:
                return f.read()
        except OSError:
            return ""

    def init_status(self):
        try:
            with open(self.statusfile) as f:
                return f.read().splitlines()
        except OSError:
            return []

    def stop(self, timeout=20):
        """Orderly stop: SIGTERM to the supervisor (through init); wait for the namespace to empty."""
        init = self.init_pid()
        if init is not None:
            os.kill(init, signal.SIGTERM)
        return self.wait(timeout)

    def wait(self, timeout=20):
        """Wait until every process of the node has ended; return unshare's exit code."""
        if self.proc is None:
            return None
        try:
            return self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            raise HarnessError(f"{self.name} did not stop within {timeout} s\n{self.output()}")

    def kill(self):
        """Remove the node's processes at once: killing init ends the PID namespace."""
        if self.proc is None:
            return
        init = self.init_pid()
        if init is not None:
            try:
                os.kill(init, signal.SIGKILL)
            except ProcessLookupError:
                pass
        try:
            self.proc.kill()
        except ProcessLookupError:
            pass
        try:
            self.proc.wait(10)
        except subprocess.TimeoutExpired:
            pass

    # -- platform tool

    def zemctl(self, *args, check=True):
        return run([self.cluster.zemctl, *args], env=self.env, check=check)

    def status_json(self):
        """zemctl status --json as printed; status 3 (no daemon attached) is an answer too."""
        res = self.zemctl("status", "--json", check=False)
        if res.returncode not in (0, 3):
            raise HarnessError(f"zemctl status --json -> {res.returncode}\n{res.stdout}{res.stderr}")
        return json.loads(res.stdout)

    def status(self):
        """zemctl status --json of this node, as {kind: {path: {"stat":..., "nodes": {name: stat}}}}."""
        raw = self.status_json()
        out = {}
        for kind in ("lanhb", "cnthb"):
            out[kind] = {}
            for path in raw.get(kind, []):
                out[kind][path["name"]] = {
                    "stat": path["stat"],
                    "nodes": {n["name"]: n["stat"] for n in path["nodes"]},
                }
        return out

    # -- cluster key

    def key_path(self):
        return os.path.join(self.root, KEY_FILE)

    def read_key(self):
        with open(self.key_path(), "rb") as f:
            return f.read()

    def write_cluster_xml(self, heartbeat_extra=""):
        """This node's cluster.xml: the cluster's, with heartbeat_extra added to
        /root/cluster/heartbeat (a node in the middle of a change)."""
        xml = self.cluster.cluster_xml().replace("\n    </heartbeat>", heartbeat_extra + "\n    </heartbeat>", 1)
        with open(os.path.join(self.root, "etc", "cluster.xml"), "w") as f:
            f.write(xml)

    def write_key(self, data):
        path = self.key_path()
        if os.path.exists(path):
            os.unlink(path)
        fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
        with os.fdopen(fd, "wb") as f:
            f.write(data)

    def refused(self):
        """The receiver's refusal counters as zemctl status --json shows them."""
        return self.status_json().get("refused", {})

    # -- logs

    def log_path(self, kind):
        return os.path.join(self.root, "log", f"{kind}.log")

    def log_files(self, kind):
        """The log's files that exist, oldest rotated generation first."""
        base = self.log_path(kind)
        names = [f"{base}.{g}" for g in (3, 2, 1)] + [base]
        return [p for p in names if os.path.exists(p)]

    def log_lines(self, kind):
        """Every record still kept, rotated generations included, oldest first."""
        out = []
        for path in self.log_files(kind):
            try:
                with open(path, errors="replace") as f:
                    out += f.read().splitlines()
            except OSError:
                pass
        return out


class Cluster:
    def __init__(self, nnodes=3, tag="c", hbint=500, hbto=2000, zemctl=None, daemon=None, key=False,
                 prefixed=(), warnrate=80, loglevel=4, logsize=50000000):
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
        self.nodes = [Node(self, i) for i in range(1, nnodes + 1)]
        self.prefixed = set(prefixed)   # nodes whose IPv4 address is written with "/24"
        self.neigh = None
        for node in self.nodes:
            os.makedirs(node.root, mode=0o700)
        self.namespaces = []
        self.pids = set()           # node processes seen at destroy(), for remains()
        self.reports = []           # sanitizer findings, kept by destroy()
        self.destroyed = False
        with _lock:
            _live.append(self)

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
    <log><level>{self.loglevel}</level><size>{self.logsize}</size></log>
    <watchth>1</watchth>
    <thread><stacksize>0</stacksize></thread>
    <socket><nbio>1</nbio></socket>
  </lanhb>
  <cnthb>
    <log><level>{self.loglevel}</level><size>{self.logsize}</size></log>
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
        """Network, configuration and fresh shared memory on every node."""
        self.build_network()
        self.write_config()
        if self.key:
            first = self.nodes[0]
            first.zemctl("keygen")
            for n in self.nodes[1:]:
                n.write_key(first.read_key())
        for n in self.nodes:
            n.zemctl("init")

    def start_all(self, *run_args):
        for n in self.nodes:
            n.start(*run_args)

    def set_link(self, node, path, up):
        self._ip("-n", node.ns, "link", "set", path, "up" if up else "down")

    def ns_exec(self, ns, cmd, **kw):
        return run(["ip", "netns", "exec", ns, *cmd], **kw)

    def _probe_send(self, ns, how, src, dst, payloads, port, arg, timeout):
        path = os.path.join(self.dir, f"dgrams-{time.monotonic_ns()}")
        with open(path, "wb") as f:
            for p in payloads:
                f.write(struct.pack(">I", len(p)) + p)
        try:
            res = self.ns_exec(ns, [sys.executable, NETPROBE, how, src, dst, str(port), path, str(arg)],
                               timeout=timeout)
        finally:
            os.unlink(path)
        return int(res.stdout.strip() or 0)

    def send_datagrams(self, ns, src, dst, payloads, port=RECV_PORT, per_second=0, timeout=60):
        """Send payloads from address src inside namespace ns; return how many went out."""
        return self._probe_send(ns, "send", src, dst, payloads, port, per_second, timeout)

    def flood(self, ns, src, dst, payloads, seconds, port=RECV_PORT):
        """Send payloads over and over, as fast as one socket can, for seconds; return the count."""
        return self._probe_send(ns, "flood", src, dst, payloads, port, seconds, seconds + 30)

    def add_outsider(self, addr4):
        """One more IPv4 address of no node on the lan4 wire (in the bridges' namespace)."""
        self._ip("-n", self.bridge_ns, "addr", "add", f"{addr4}/24", "dev", "br4")

    def sniff_start(self, node, seconds, path=LAN4):
        """Start capturing the IPv4 heartbeat datagrams that reach node on path."""
        out = os.path.join(self.dir, f"sniff-{time.monotonic_ns()}")
        proc = subprocess.Popen(["ip", "netns", "exec", node.ns, sys.executable, NETPROBE, "sniff", path,
                                 str(RECV_PORT), str(seconds), out], stdout=subprocess.PIPE, text=True)
        return proc, out, seconds

    @staticmethod
    def sniff_result(handle):
        """[(source address, payload)] of a capture started by sniff_start."""
        proc, out, seconds = handle
        proc.communicate(timeout=seconds + 10)
        got = []
        try:
            with open(out, "rb") as f:
                blob = f.read()
        finally:
            if os.path.exists(out):
                os.unlink(out)
        off = 0
        while off < len(blob):
            (n,) = struct.unpack_from(">I", blob, off)
            src = ".".join(str(b) for b in blob[off + 4:off + 8])
            got.append((src, blob[off + 8:off + 8 + n]))
            off += 8 + n
        return got

    def udp_reaches(self, src_ns, src, dst_ns, dst, port=40000, seconds=3.0):
        """Whether a datagram from src (in src_ns) arrives at dst (in dst_ns) within seconds."""
        rx = subprocess.Popen(["ip", "netns", "exec", dst_ns, sys.executable, NETPROBE, "recv",
                               dst, str(port), str(seconds)], stdout=subprocess.PIPE, text=True)
        path = os.path.join(self.dir, f"probe-{time.monotonic_ns()}")
        with open(path, "wb") as f:
            for _ in range(int(seconds * 10)):
                f.write(struct.pack(">I", 5) + b"probe")
        tx = subprocess.Popen(["ip", "netns", "exec", src_ns, sys.executable, NETPROBE, "send",
                               src, dst, str(port), path, "10"],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            out, _ = rx.communicate(timeout=seconds + 10)
        finally:
            tx.kill()
            tx.wait()
            os.unlink(path)
        return out.startswith(f"from {src} ") or out.startswith(f"from ::ffff:{src} ")

    # -- lifecycle

    def remains(self):
        """What destroy() should have removed but is still there."""
        left = [ns for ns in _netns_list() if ns.startswith(self.prefix + "-")]
        left += [f"process {p}" for p in self.pids if proc_running(p)]
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
            _kill_netns(ns)
        if self.neigh is not None:
            self.neigh.restore()
        if not os.environ.get("ZEM_SYSTEM_KEEP"):
            shutil.rmtree(self.dir, ignore_errors=True)
        with _lock:
            if self in _live:
                _live.remove(self)


# ---------------------------------------------------------------- observing

LOG_TIME_RE = re.compile(r"^(\d{4}-\d{2}-\d{2}[ T]\d{2}:\d{2}:\d{2}\.\d{3})")


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


def log_time(line):
    """Wall-clock time (seconds since the epoch) of one log record, or None."""
    m = LOG_TIME_RE.match(line)
    if not m:
        return None
    stamp = m.group(1).replace("T", " ")
    return datetime.datetime.strptime(stamp, "%Y-%m-%d %H:%M:%S.%f").timestamp()


def node_line(path, node):
    """The state-change text of one node on one path, up to the state."""
    return f" *** {path}/node({node.name}({node.pri})) : "


def log_kind(path):
    return "cnthb" if path == CNT else "lanhb"


def events(node, kind, text, since=0.0):
    """(time, line) of every record of the node's log containing text, at or after since."""
    out = []
    for line in node.log_lines(kind):
        if text in line:
            t = log_time(line)
            if t is not None and t >= since:
                out.append((t, line))
    return out


def offline_times(observers, victim, paths, since, timeout):
    """For every (observer, path): the time of the first OFFLINE record of victim
    at or after since, waiting up to timeout seconds for all of them."""
    found = {}

    def all_seen():
        for obs in observers:
            for path in paths:
                if (obs.name, path) not in found:
                    ev = events(obs, log_kind(path), node_line(path, victim) + "OFFLINE ***", since)
                    if ev:
                        found[(obs.name, path)] = ev[0][0] - since
        return len(found) == len(observers) * len(paths)

    wait_until(all_seen, timeout, 0.1)
    return found


def paths_seen_by(obs, victim):
    """Paths on which obs can judge victim: both LAN paths, and the controller
    path when both are of the controller-sharing pair."""
    return list(LAN_PATHS) + ([CNT] if obs.idx <= 2 and victim.idx <= 2 else [])


def problems(cluster, expect=None):
    """Differences between what every running node shows and a healthy cluster.

    Healthy: on both LAN paths every running node ONLINE and the path NORMAL;
    on nodes 1 and 2, which share the controller, both ONLINE on the
    controller path and the path NORMAL. Empty when all is as expected."""
    running = [n for n in cluster.nodes if n.running()]
    pair = [n for n in running if n.idx <= 2]
    out = []
    for n in running:
        try:
            st = n.status()
        except (HarnessError, ValueError) as e:
            out.append(f"{n.name}: status failed: {e}")
            continue
        checks = [("lanhb", p, running) for p in LAN_PATHS]
        if n in pair and len(pair) == 2:
            checks.append(("cnthb", CNT, pair))
        for kind, path, peers in checks:
            p = st[kind].get(path)
            if p is None:
                out.append(f"{n.name}: no path {path}")
                continue
            if p["stat"] != "NORMAL":
                out.append(f"{n.name}: {path} {p['stat']}")
            for m in peers:
                if p["nodes"].get(m.name) != "ONLINE":
                    out.append(f"{n.name}: {path}/{m.name} {p['nodes'].get(m.name)}")
    return out


def wait_healthy(cluster, timeout=15):
    """Wait until problems() is empty; return the problems left (empty on success)."""
    left = []

    def ok():
        nonlocal left
        left = problems(cluster)
        return not left

    wait_until(ok, timeout, 0.2)
    return left


# ---------------------------------------------------------------- datagrams

def heartbeat(nodepri, rscpri, tag=b"lanhb", maxnode=MAXNODE, rscstat=0):
    """A LAN heartbeat datagram as a node with priority nodepri sends it on the
    path with priority rscpri."""
    buf = bytearray(320 + 8 * maxnode)
    buf[0:len(tag)] = tag
    buf[8:15] = b"unknown"
    buf[24:31] = b"unknown"
    struct.pack_into(">iiiiii", buf, 296, int(time.time()) & 0x7FFFFFFF, nodepri, rscpri,
                     rscstat, 0, 8 * maxnode)
    return bytes(buf)
