#!/usr/bin/env python3
"""Cost of the daemon on namespace clusters: wake-ups, orderly leave, idle CPU.

Run by hand as root, with the build to measure in ZEM_BUILD:

    ZEM_BUILD=build/release bench/bench_cluster.py [wakeups|leave|idle ...]
        [--label NAME] [--before FILE] [--save FILE]

--save writes the figures as JSON; --before prints each figure beside the
one saved from an earlier build (for example the tree before a change).

- wakeups: voluntary context switches per second of the daemon's threads on
  an idle one-node cluster with one LAN and one controller path, at
  interval 500 and 3000 (30 s each, after 5 s of settling). Worker threads
  of the controller live for one call and are not seen; the figure counts
  the long-lived threads.
- leave: SIGTERM to node2's "zemctl run" until node1 logs
  "DOWNPACKET recv(...)", on a two-node cluster, 10 trials (ms).
- idle: CPU time (user + system) per 60 s of each daemon of a three-node
  cluster at interval 3000, one 60 s window after 5 s of settling.
- idle-late: the same after the start-up stretch (about ten minutes in
  which every poller runs every 500 ms whatever the interval); not run
  unless named.

wakeups, leave and idle run within the start-up stretch.
"""

import argparse
import json
import os
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools", "cluster"))
from zemcluster.cluster import Cluster  # noqa: E402
from zemcluster.layout import LAN4, LAN6  # noqa: E402
from zemcluster.observe import events, wait_healthy  # noqa: E402
from zemcluster.procs import HarnessError, install_cleanup_handlers, wait_until  # noqa: E402


class OneLanCluster(Cluster):
    """The harness's cluster with the IPv6 LAN path left out."""

    def cluster_xml(self):
        return "".join(line for line in super().cluster_xml().splitlines(keepends=True)
                       if f'name="{LAN6}"' not in line)


def switches(pid):
    total = 0
    for tid in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{tid}/status") as f:
                for line in f:
                    if line.startswith("voluntary_ctxt_switches:"):
                        total += int(line.split()[1])
        except OSError:
            pass
    return total


def cputime(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def bench_wakeups():
    out = {}
    for hbint in (500, 3000):
        c = OneLanCluster(1, tag=f"w{hbint}", hbint=hbint, hbto=max(2000, 3 * hbint))
        try:
            c.setup()
            c.start_all()
            pid = c[1].daemon_pid()
            time.sleep(5)
            s0, t0 = switches(pid), time.monotonic()
            time.sleep(30)
            out[f"wakeups/s at interval {hbint}"] = (switches(pid) - s0) / (time.monotonic() - t0)
        finally:
            c.destroy()
    return out


def bench_leave(trials=10):
    times = []
    c = Cluster(2, tag="lv")
    try:
        c.setup()
        c.start_all()
        for _ in range(trials):
            if wait_healthy(c, 20):
                raise HarnessError("cluster not healthy")
            observer, victim = c[1], c[2]
            text = f"DOWNPACKET recv({LAN4},{victim.name}({victim.pri}))"
            seen = len(events(observer, "lanhb", text))
            t0 = time.time()
            victim.stop()
            got = wait_until(lambda: events(observer, "lanhb", text)[seen:], 10, 0.05)
            if not got:
                raise HarnessError("no down packet seen")
            times.append((got[0][0] - t0) * 1000)
            victim.start()
    finally:
        c.destroy()
    times.sort()
    return {"leave ms min": times[0], "leave ms median": statistics.median(times), "leave ms max": times[-1]}


STRETCH_S = 1201 * 0.5 + 5  # the start-up stretch of 500 ms polls, and a margin


def bench_idle(window=60, after_stretch=False):
    c = Cluster(3, tag="id", hbint=3000, hbto=9000)
    try:
        c.setup()
        c.start_all()
        pids = [n.daemon_pid() for n in c.nodes]
        time.sleep(STRETCH_S if after_stretch else 5)
        before = [cputime(p) for p in pids]
        t0 = time.monotonic()
        time.sleep(window)
        scale = 60 / (time.monotonic() - t0)
        per = [(cputime(p) - b) * scale for p, b in zip(pids, before)]
    finally:
        c.destroy()
    what = "after the stretch" if after_stretch else "in the stretch"
    return {f"idle CPU s per 60 s {what}, max node": max(per),
            f"idle CPU s per 60 s {what}, mean node": sum(per) / len(per)}


BENCHES = {"wakeups": bench_wakeups, "leave": bench_leave, "idle": bench_idle,
           "idle-late": lambda: bench_idle(after_stretch=True)}


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("which", nargs="*", default=["wakeups", "leave", "idle"])
    ap.add_argument("--label", default=os.environ.get("ZEM_BUILD", "this build"))
    ap.add_argument("--before", help="JSON figures of an earlier build, printed beside")
    ap.add_argument("--save", help="write the figures here as JSON")
    args = ap.parse_args()
    install_cleanup_handlers()
    before = {}
    if args.before:
        with open(args.before) as f:
            before = json.load(f)
    figures = {}
    for name in args.which:
        figures.update(BENCHES[name]())
    print(f"{'figure':40} {'before':>10} {args.label:>12}")
    for key, value in figures.items():
        old = before.get(key)
        print(f"{key:40} {'' if old is None else f'{old:10.3f}':>10} {value:12.3f}")
    if args.save:
        with open(args.save, "w") as f:
            json.dump(figures, f, indent=1)


if __name__ == "__main__":
    main()
