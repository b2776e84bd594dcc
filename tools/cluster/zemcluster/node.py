"""One node of a cluster: its namespace, root and addresses, the processes
it runs under nodeinit.py (init, supervisor, daemon), its zemctl, its
cluster key and its logs."""

import json
import os
import signal
import subprocess
import sys

from .layout import KEY_FILE, NODEINIT
from .procs import HarnessError, proc_children, proc_exe, proc_running, run, wait_until


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
                sys.executable, NODEINIT, self.statusfile, "--", *cmd]
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
