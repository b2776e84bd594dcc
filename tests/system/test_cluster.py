"""Three real daemons (hbint 500 ms, hbto 2000 ms) in one cluster that every
scenario shares: `healthy` restarts stopped nodes and waits for convergence
first. Nodes 1 and 2 share the controller's area, node 3 has its own."""

import os
import signal
import time

import pytest

from zemcluster.cluster import started
from zemcluster.layout import CNT, LAN4, LAN6, LAN_PATHS
from zemcluster.observe import events, log_kind, node_line, offline_times, paths_seen_by, wait_healthy
from zemcluster.procs import wait_until

HBINT, HBTO = 0.5, 2    # seconds, as configured
SLACK = 0.1             # heartbeats leave per (sleep + send) cycle on 10 ms ticks


@pytest.fixture(scope="module")
def cluster(tools):
    yield from started(3, tag="main", hbint=int(HBINT * 1000), hbto=HBTO * 1000)


@pytest.fixture
def healthy(cluster):
    for n in cluster.nodes:
        if n.running() and n.daemon_pid() is None:
            n.wait(15)          # a supervisor that lost its daemon is ending
        if not n.running():
            n.start()
    left = wait_healthy(cluster, 20)
    assert not left, f"cluster did not converge: {left}"
    return cluster


def ended(node, how, t0):
    """node's daemon exited 0 (as init reaped it: "child" or "adopted") after
    sending its down notices on the LAN and writing them to the controller."""
    return (any(line.startswith(how + " ") and line.endswith(" exit:0") for line in node.init_status())
            and events(node, "lanhb", "send downpacket : YES", t0)
            and events(node, "cnthb", "write downpacket : YES", t0))


def heard_down(obs, victim, t0, paths):
    """obs logged victim's down notice on every one of paths within 5 s."""
    texts = [(log_kind(p), f"DOWNPACKET {'read' if p == CNT else 'recv'}({p},{victim.name}({victim.pri}))")
             for p in paths]
    return wait_until(lambda: all(events(obs, kind, text, t0) for kind, text in texts), 5)


def test_crash_is_detected_after_the_timeout_on_every_path(healthy):
    victim, observers = healthy[2], [healthy[1], healthy[3]]
    t0 = time.time()
    os.kill(victim.daemon_pid(), signal.SIGKILL)
    times = {}
    for obs in observers:
        times.update(offline_times([obs], victim, paths_seen_by(obs, victim), t0, HBTO + 10))
    assert set(times) == {(o.name, p) for o in observers for p in paths_seen_by(o, victim)}, times
    low, high = HBTO - HBINT - SLACK, HBTO + HBINT + 1
    assert all(low <= dt <= high for dt in times.values()), (times, low, high)
    for obs in observers:
        st = obs.status()
        for path in paths_seen_by(obs, victim):
            p = st[log_kind(path)][path]
            assert (p["stat"], p["nodes"][victim.name]) == ("CAUTION", "OFFLINE"), (obs.name, path, p)


def test_hangup_of_run_stops_the_daemon_and_announces_the_down_at_once(healthy):
    victim, observers = healthy[2], [healthy[1], healthy[3]]
    t0 = time.time()
    os.kill(victim.supervisor_pid(), signal.SIGHUP)
    assert victim.wait(20) == 0
    assert ended(victim, "child", t0), victim.init_status()
    times = offline_times(observers, victim, LAN_PATHS, t0, 5)
    times.update(offline_times([healthy[1]], victim, [CNT], t0, 5))
    assert all(times.get((o.name, p), 99) <= 1.0 for o in observers for p in LAN_PATHS), times
    assert times.get((healthy[1].name, CNT), 99) <= 2.0, times
    for obs in observers:
        assert heard_down(obs, victim, t0, paths_seen_by(obs, victim)), obs.name
        assert not events(obs, "lanhb", "**TIMEOUT(", t0)


def test_cut_link_takes_one_path_down_heals_and_counts_each_down(healthy):
    obs, cut = healthy[1], healthy[3]

    def entry():
        path = next(p for p in obs.status_json()["lanhb"] if p["name"] == LAN4)
        return next(n for n in path["nodes"] if n["name"] == cut.name)

    def cut_off():      # on lan4 each node hears itself and, but node3, its own side
        return all(n.status()["lanhb"][LAN4] == {"stat": "CAUTION", "nodes": {
            m.name: "ONLINE" if m is n or cut not in (m, n) else "OFFLINE" for m in healthy.nodes}}
            for n in healthy.nodes)

    start = entry()["down_count"]
    t0 = time.time()
    for _ in range(2):
        healthy.set_link(cut, LAN4, up=False)
        try:
            assert wait_until(cut_off, HBTO + 10), [n.status()["lanhb"][LAN4] for n in healthy.nodes]
            e, shown = entry(), obs.zemctl("status").stdout
        finally:
            healthy.set_link(cut, LAN4, up=True)
        left = wait_healthy(healthy, 10)
        assert not left, f"did not heal: {left}"
    for n in healthy.nodes:
        lan6 = [line for _, line in events(n, "lanhb", f" *** {LAN6}", t0)]
        assert not [line for line in lan6 if "CAUTION" in line or "OFFLINE" in line], lan6
    assert e["down_count"] - start == 2, e
    downs = events(obs, "lanhb", node_line(LAN4, cut) + "OFFLINE ***", t0)
    assert len(downs) == 2, downs
    assert abs(e["changed_at_ms"] / 1000 - downs[-1][0]) < 0.5, (e, downs[-1])
    lines = shown.splitlines()
    at = lines.index(next(ln for ln in lines if ln.split()[:1] == [LAN4]))
    line = next(ln for ln in lines[at:] if ln.split()[:1] == [cut.name])
    assert "OFFLINE" in line and f"downs {e['down_count']}" in line and " since " in line, line


def test_second_run_and_hand_started_daemon_are_refused_and_change_nothing(healthy):
    node = healthy[1]
    node.zemctl("set", "down", "off")
    before = node.status_json()
    t0 = time.time()
    env = f"ZEM_ROOT={node.root}"
    again = healthy.ns_exec(node.ns, ["env", env, healthy.zemctl, "run", "--daemon", healthy.daemon],
                            check=False)
    assert again.returncode == 16, again
    assert f"pid {before['daemon']['pid']} holds run/lock" in again.stderr, again.stderr
    # By hand from a shell: refused before it would tell its parent it is up,
    # so the shell lives on; --help answers, any other argument is a usage
    # error, and neither starts anything.
    for arg, status, said in (("", 1, "holds run/lock"), ("--help", 0, "usage: zemlanhb"),
                              ("--bogus", 2, "usage: zemlanhb")):
        res = healthy.ns_exec(node.ns, ["env", env, "sh", "-c", f"{healthy.daemon} {arg}; echo shell lives: $?"],
                              check=False)
        assert f"shell lives: {status}" in res.stdout and said in res.stdout + res.stderr, (arg, res)

    def states(st):
        return {k: [(p["stat"], [(n["stat"], n["changed_at_ms"]) for n in p["nodes"]]) for p in st[k]]
                for k in ("lanhb", "cnthb")}

    after = node.status_json()
    assert after["daemon"] == before["daemon"] and states(after) == states(before), (before, after)
    assert after["cluster"]["down_notification"] is False
    assert not events(node, "lanhb", " : OFFLINE ***", t0) + events(node, "lanhb", " : ERROR ***", t0)

