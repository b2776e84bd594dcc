"""What the nodes of a cluster saw: the records of their logs with their
times, when each observer took a victim OFFLINE, and whether every node
shows a healthy cluster."""

import datetime
import re

from .layout import CNT, LAN_PATHS
from .procs import HarnessError, wait_until

LOG_TIME_RE = re.compile(r"^(\d{4}-\d{2}-\d{2}[ T]\d{2}:\d{2}:\d{2}\.\d{3})")


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
