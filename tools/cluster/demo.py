"""The main job, run by scripts/demo: a three-node heartbeat cluster on this
machine, signing its datagrams with a cluster key, nodes 1 and 2 sharing a
disk as two block devices (loop devices over one file, where there are loop
devices), converging, losing a node to a crash, getting it back, and losing
another in an orderly stop; with what every node saw and when.

Usage: demo.py --build DIR   (DIR holds zemctl and zemlanhb)
"""

import argparse
import os
import signal
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from zemcluster.cluster import Cluster  # noqa: E402
from zemcluster.disk import LUN_SIZE, loop_missing  # noqa: E402
from zemcluster.layout import CNT, KEY_FILE, LAN4, LAN6  # noqa: E402
from zemcluster.observe import events, log_kind, node_line, problems  # noqa: E402
from zemcluster.procs import HarnessError, install_cleanup_handlers, leftovers, loops_under, sweep  # noqa: E402

PATHS = (LAN4, LAN6, CNT)
MARK = {"ONLINE": "O", "OFFLINE": "x", "UNKNOWN": "?", "UNUSED": "-"}


class Table:
    """Prints a node's view whenever it changes."""

    def __init__(self, cluster, t0):
        self.cluster = cluster
        self.t0 = t0
        self.last = {}

    def header(self):
        print("  O = ONLINE, x = OFFLINE, ? = UNKNOWN, - = UNUSED for node1 node2 node3,")
        print(f"  then the path's state; {CNT} only between node1 and node2, which share it")
        print(f"  {'time':>7}  {'view of':8} " + "".join(f"{p:18}" for p in PATHS))

    def view(self, node):
        if not node.running():
            return None
        try:
            st = node.status()
        except (HarnessError, ValueError):
            return None
        cells = []
        for path in PATHS:
            p = st[log_kind(path)].get(path)
            if p is None:
                cells.append("")
                continue
            shown = [n for n in self.cluster.nodes if path != CNT or n.idx <= 2]
            if path == CNT and node not in shown:
                cells.append("(own area)")
                continue
            marks = " ".join(MARK.get(p["nodes"].get(n.name), "?") if n in shown else " "
                             for n in self.cluster.nodes)
            cells.append(f"{marks}  {p['stat']}")
        return cells

    def poll(self):
        changed = False
        for node in self.cluster.nodes:
            cells = self.view(node)
            if cells is None:
                if self.last.get(node.name) is not None:
                    print(f"  {time.time() - self.t0:+6.2f}s  {node.name:8} (not running)")
                    self.last[node.name] = None
                continue
            if cells != self.last.get(node.name):
                self.last[node.name] = cells
                print(f"  {time.time() - self.t0:+6.2f}s  {node.name:8} "
                      + "".join(f"{c:18}" for c in cells))
                changed = True
        return changed

    def follow(self, done, timeout, after=0.0):
        """Print changes until done() holds (then `after` seconds more) or timeout.
        Returns when done() first held, or None."""
        deadline = time.time() + timeout
        ok = None
        while time.time() < deadline:
            self.poll()
            if done():
                ok = time.time()
                break
            time.sleep(0.1)
        end = time.time() + after
        while time.time() < end:
            self.poll()
            time.sleep(0.1)
        return ok


def offline_everywhere(cluster, victim, paths_for):
    def done():
        for obs in cluster.nodes:
            if obs is victim or not obs.running():
                continue
            st = obs.status()
            for path in paths_for(obs):
                if st[log_kind(path)][path]["nodes"][victim.name] != "OFFLINE":
                    return False
        return True
    return done


def report(cluster, victim, since, paths_for):
    """When every observer took victim OFFLINE, and why: the TIMEOUT or down
    notice record that goes with its OFFLINE record."""
    rows = []
    for obs in cluster.nodes:
        if obs is victim or not obs.running():
            continue
        for path in paths_for(obs):
            kind = log_kind(path)
            lines = events(obs, kind, "", since)
            off = node_line(path, victim) + "OFFLINE ***"
            at = next((i for i, (_, line) in enumerate(lines) if off in line), None)
            if at is None:
                rows.append(f"    {obs.name} {path:5} still not OFFLINE")
                continue
            notice = f"DOWNPACKET {'read' if path == CNT else 'recv'}({path},{victim.name}({victim.pri}))"
            why = ""
            for _, line in reversed(lines[:at]):
                if notice in line or "**TIMEOUT(" in line:
                    why = line.split(": ", 1)[-1].strip()
                    break
                if " : OFFLINE ***" in line:
                    break
            rows.append(f"    {obs.name} {path:5} OFFLINE after {lines[at][0] - since:5.2f} s   {why}")
    return rows


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", required=True)
    args = ap.parse_args()
    ctl = os.path.join(args.build, "zemctl")
    daemon = os.path.join(args.build, "zemlanhb")
    install_cleanup_handlers()
    signal.signal(signal.SIGINT, signal.default_int_handler)
    removed = sweep()
    if removed:
        print(f"removed leftovers of an earlier run: {' '.join(removed)}")

    no_loop = loop_missing()
    c = Cluster(3, tag="demo", hbint=500, hbto=2000, zemctl=ctl, daemon=daemon, key=True, syslog=True,
                loop=None if no_loop else 512)
    summary = []
    try:
        c.setup()
        print("Three nodes, each in its own network and PID namespace, on two LAN paths:")
        for n in c.nodes:
            area = n.area if n.area.startswith("/dev/") else os.path.basename(n.area)
            print(f"  {n.name}: {LAN4} {n.ip4}, {LAN6} {n.ip6}, controller slot {n.cntno} of {area}")
        print(f"Heartbeat interval {c.hbint} ms, time-out {c.hbto} ms. "
              f"Nodes 1 and 2 share the controller path {CNT}.")
        if c.disk:
            print(f"Shared disk: {c[1].area} and {c[2].area}, two loop devices over one file of "
                  f"{LUN_SIZE >> 20} MiB, as two hosts see one LUN; formatted once by "
                  f"'zemctl area create {c[1].area}' on node1.")
        else:
            print(f"Shared disk: a regular file, {c[1].area} ({no_loop}).")
        print(f"Cluster key: made by 'zemctl keygen' on node1 and copied to every node's "
              f"{KEY_FILE}; every LAN datagram is signed and checked.\n")

        def pair(victim):
            # Controller states count only between the two nodes that share it.
            return lambda obs: PATHS if obs.idx <= 2 and victim.idx <= 2 else (LAN4, LAN6)

        print("== start: every node runs 'zemctl run'")
        t0 = time.time()
        table = Table(c, t0)
        table.header()
        c.start_all()

        def converged():
            return not problems(c)

        t_conv = table.follow(converged, 20, after=0.5)
        if t_conv is None:
            print("the cluster did not converge within 20 s:", problems(c))
            return 1
        summary.append(f"converged {t_conv - t0:.1f} s after the start: every node ONLINE on "
                       f"{LAN4} and {LAN6}, node1 and node2 on {CNT}, all NORMAL")

        print(f"\n== the shared disk as node2 sees it: zemctl area show {c[2].area}")
        shown = c[2].zemctl("area", "show", c[2].area, check=False)
        print("\n".join(f"  {line}" for line in (shown.stdout + shown.stderr).splitlines()))

        victim = c[2]
        print(f"\n== crash: SIGKILL to {victim.name}'s daemon")
        t1 = time.time()
        table.t0 = t1
        os.kill(victim.daemon_pid(), signal.SIGKILL)
        table.follow(offline_everywhere(c, victim, pair(victim)), 15, after=0.5)
        rows = report(c, victim, t1, pair(victim))
        print("\n".join(rows))
        summary.append(f"crash of {victim.name} detected by time-out:")
        summary += rows

        print(f"\n== restart {victim.name}")
        table.t0 = time.time()
        victim.wait(10)
        victim.start()
        table.follow(converged, 20, after=0.5)

        victim = c[1]
        print(f"\n== orderly stop: SIGTERM to {victim.name}'s supervisor (down notification on)")
        t2 = time.time()
        table.t0 = t2
        victim.stop()
        table.follow(offline_everywhere(c, victim, pair(victim)), 15, after=0.5)
        rows = report(c, victim, t2, pair(victim))
        print("\n".join(rows))
        summary.append(f"orderly stop of {victim.name} announced by down packets:")
        summary += rows

        refused = c[3].refused()
        summary.append(f"datagrams node3 refused: {refused}")
        print("\n== what the cluster saw")
        print("\n".join(f"  {line}" for line in summary))
        return 0
    except KeyboardInterrupt:
        print("\ninterrupted")
        return 130
    finally:
        c.destroy()
        left = leftovers() + loops_under(c.dir)
        print("cleaned up: namespaces, processes, loop devices and files removed"
              + (f" (left: {left})" if left else ""))


if __name__ == "__main__":
    sys.exit(main())
