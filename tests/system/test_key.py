"""A keyed three-node cluster with a hostile host in the bridges' namespace
(SPOOF4, whose text contains node 2's address): forged, replayed and delayed
datagrams and a junk flood change nothing, while a crash and a stop are
detected as without a key; a clock set ahead and back costs its node the
window, not a lockout."""

import os
import random
import signal
import struct
import time

import pytest

from zemcluster.cluster import started
from zemcluster.layout import KEY_FILE, LAN4, LAN_PATHS, PATH_PRI, TRAILER
from zemcluster.observe import events, node_line, wait_healthy
from zemcluster.procs import run, wait_until
from zemcluster.wire import heartbeat
# The same scenarios as without a key, collected here again on the keyed cluster.
from test_cluster import (healthy, test_crash_is_detected_after_the_timeout_on_every_path,  # noqa: F401
                          test_hangup_of_run_stops_the_daemon_and_announces_the_down_at_once)

SPOOF4 = "198.18.0.20"
WINDOW = 2      # seconds: the freshness window is the time-out by default


@pytest.fixture(scope="module")
def cluster(tools):
    for c in started(3, tag="key", hbint=500, hbto=2000, key=True):
        c.add_outsider(SPOOF4)
        yield c


def lan_states(obs, victim):
    st = obs.status()["lanhb"]
    return {p: st[p]["nodes"][victim.name] for p in LAN_PATHS}


def grown(before, node, reason):
    return node.refused().get(reason, 0) - before.get(reason, 0)


ONLINE, OFFLINE = ({p: s for p in LAN_PATHS} for s in ("ONLINE", "OFFLINE"))


def test_forged_datagrams_and_a_flood_change_nothing(healthy):
    n1, _, n3 = healthy.nodes
    rng = random.Random(20)
    keyed = len(heartbeat(1, 0)) + TRAILER
    junk = [rng.randbytes(rng.choice([1, 64, 576, keyed, keyed + 1, 1400])) for _ in range(30)]
    before = n1.refused()
    t0 = time.time()
    # Heartbeats and down notices of every member, unsigned and with a fresh
    # sequence under a made-up code: dated a second ahead, inside the window,
    # so that no genuine heartbeat sent meanwhile makes them replays instead.
    fresh = struct.pack(">Q", time.time_ns() + 10**9)
    forged = [heartbeat(n.pri, PATH_PRI[LAN4], tag=tag) + tail for n in healthy.nodes
              for tag in (b"lanhb", b"hbdown") for tail in (b"", fresh + rng.randbytes(TRAILER - 8))]
    # From a member's own address the filter lets it through; the code stops it.
    healthy.send_datagrams(n3.ns, n3.ip4, n1.ip4, [forged[-1]] * 5)
    t1 = time.time()
    sent = healthy.flood(healthy.bridge_ns, SPOOF4, n1.ip4, junk + forged, 20)
    assert sent / (time.time() - t1) > 1000, "the flood did not get going"
    assert grown(before, n1, "filter") >= sent // 2 and grown(before, n1, "code") == 5, n1.refused()
    assert len(events(n1, "lanhb", f"from {n3.ip4}: code", t0)) == 1
    assert not [obs.name for obs in healthy.nodes
                if events(obs, "lanhb", "DOWNPACKET", t0) + events(obs, "lanhb", " : OFFLINE", t0)]
    assert not wait_healthy(healthy, 2)


def test_replayed_down_packets_and_heartbeats_are_refused(healthy):
    n1, n2, n3 = healthy.nodes
    cap = healthy.sniff_start(n1, 5)
    time.sleep(1)
    assert n2.stop() == 0
    got = healthy.sniff_result(cap)
    downs = [p for src, p in got if src == n2.ip4 and p.startswith(b"hbdown")]
    beats = [p for src, p in got if src == n3.ip4 and p.startswith(b"lanhb")]
    assert downs and len(beats) >= 3, "too little of node2's and node3's traffic captured"
    assert lan_states(n1, n2)[LAN4] == "OFFLINE"
    n2.start()
    assert not wait_healthy(healthy, 15)
    # node2's down notice of its last run, replayed after its restart.
    before = n1.refused()
    t0 = time.time()
    healthy.send_datagrams(n2.ns, n2.ip4, n1.ip4, downs)
    time.sleep(1.5)
    assert lan_states(n1, n2) == ONLINE and not events(n1, "lanhb", "DOWNPACKET", t0)
    assert grown(before, n1, "replay") == len(downs)
    # node3 frozen, its heartbeats replayed twice a second for longer than the time-out.
    pid = n3.daemon_pid()
    os.kill(pid, signal.SIGSTOP)
    try:
        t0 = time.time()
        healthy.send_datagrams(n3.ns, n3.ip4, n1.ip4, (beats * 4)[:12], per_second=2)
        assert lan_states(n1, n3) == OFFLINE
        assert events(n1, "lanhb", node_line(LAN4, n3) + "OFFLINE", t0)
        assert grown(before, n1, "replay") >= len(downs) + 12
    finally:
        os.kill(pid, signal.SIGCONT)

    # node1 restarted in resume mode (its peers' states taken over) while node3
    # is frozen: node2's old down notice takes nobody OFFLINE, node3's old
    # heartbeats (before the new receiver's start: stale) keep it alive no longer.
    assert not wait_healthy(healthy, 15)
    os.kill(pid, signal.SIGSTOP)
    try:
        assert n1.stop() == 0
        n1.zemctl("set", "waitstat", "1")
        t0 = time.time()
        n1.start()
        assert wait_until(lambda: events(n1, "lanhb", "recv thread initialized", t0), 10)
        before = n1.refused()
        healthy.send_datagrams(n2.ns, n2.ip4, n1.ip4, downs)
        healthy.send_datagrams(n3.ns, n3.ip4, n1.ip4, (beats * 4)[:12], per_second=2)
        assert lan_states(n1, n2) == ONLINE and lan_states(n1, n3) == OFFLINE
        assert not events(n1, "lanhb", "DOWNPACKET", t0)
        stale = grown(before, n1, "stale")      # node2's downs: stale, or older than its news
        assert stale >= 12 and stale + grown(before, n1, "replay") == len(downs) + 12, n1.refused()
    finally:
        os.kill(pid, signal.SIGCONT)
        n1.zemctl("set", "waitstat", "0")


def test_a_delay_line_beyond_the_window_keeps_no_node_alive(healthy):
    """node2's lan4 datagrams reach node1 only through a relay in the bridges'
    namespace, twice the window late: node2 stays OFFLINE there."""
    n1, n2, _ = healthy.nodes
    br, ports = healthy.bridge_ns, ("v4n1", "v4n2")
    # The bridge keeps the two apart; node2 keeps node1's hardware address.
    mac1 = run(["ip", "-n", n1.ns, "-br", "link", "show", LAN4]).stdout.split()[2]
    run(["ip", "-n", n2.ns, "neigh", "replace", n1.ip4, "lladdr", mac1, "dev", LAN4, "nud", "permanent"])
    for port in ports:
        run(["bridge", "-n", br, "link", "set", "dev", port, "isolated", "on"])
    before, t0 = n1.refused(), time.time()
    relay = healthy.relay_start(br, "v4n2", n2.ip4, n1.ip4, 9, 2 * WINDOW)
    try:
        assert wait_until(lambda: lan_states(n1, n2)[LAN4] == "OFFLINE", WINDOW + 3)
        while time.time() < t0 + 8.5:       # relayed from t0 + 4 s on
            assert lan_states(n1, n2)[LAN4] == "OFFLINE"
            time.sleep(0.25)
        resent = healthy.relay_result(relay, 10)
    finally:
        relay.kill()
        for port in ports:
            run(["bridge", "-n", br, "link", "set", "dev", port, "isolated", "off"])
        run(["ip", "-n", n2.ns, "neigh", "del", n1.ip4, "dev", LAN4])
    assert resent >= 6 and grown(before, n1, "stale") == resent, (resent, n1.refused())
    assert events(n1, "lanhb", f"{LAN4}/node({n2.name}({n2.pri})) : datagram dated -", t0)


def test_a_clock_set_ahead_and_back_costs_its_node_the_window_not_a_lockout(healthy):
    """node2's processes see their wall clock a day ahead for 5 s, through a
    preloaded shim (the machine's clock stays). Last of the module: node2's
    log holds records dated a day ahead from then on."""
    n1, n2, _ = healthy.nodes
    shim, shift = os.path.join(healthy.dir, "clockshift.so"), os.path.join(healthy.dir, "clockshift")
    run(["cc", "-shared", "-fPIC", "-O2", "-o", shim, os.path.join(os.path.dirname(__file__), "clockshift.c"), "-ldl"])

    def set_shift(seconds):     # in place: node2's processes map the file
        with open(shift, "r+b" if os.path.exists(shift) else "wb") as f:
            f.write(struct.pack("<q", seconds * 10**9))

    set_shift(0)
    assert n2.stop() == 0
    asan = os.environ.get("ASAN_OPTIONS", "")   # the preload comes before the sanitizer's runtime
    n2.extra_env = {"LD_PRELOAD": shim, "ZEM_CLOCKSHIFT": shift, "ASAN_OPTIONS": f"{asan}:verify_asan_link_order=0"}
    try:
        n2.start()
        assert not wait_healthy(healthy, 15)
        before, t0 = n1.refused(), time.time()
        set_shift(86400)
        time.sleep(5)
        set_shift(0)
        # Heard again at once, without a restart: its sender follows its clock back.
        assert wait_until(lambda: lan_states(n1, n2) == ONLINE, WINDOW + 1), lan_states(n1, n2)
        assert grown(before, n1, "stale") >= 8
        assert events(n1, "lanhb", f"{LAN4}/node({n2.name}({n2.pri})) : datagram dated +864000", t0)
        assert n2.stop() == 0       # and after its next ordinary restart
        n2.start()
        assert not wait_healthy(healthy, 15)
    finally:
        n2.extra_env = {}


def test_a_key_is_enabled_node_by_node_without_an_offline(tools):
    """The roll-out of docs/operations.md: each node restarted in resume mode
    without down notification, keyed but taking unsigned datagrams too, then
    keyed only. No node may lose a peer at any step."""
    hbto = 3
    for c in started(2, start=lambda c: c.start_all("--no-down"), tag="roll", hbto=hbto * 1000):
        n1, n2 = c.nodes
        assert not wait_healthy(c, 20)
        n1.zemctl("keygen")
        n2.write_key(n1.read_key())
        key = f"<authkey>{KEY_FILE}</authkey>"
        both = key + "<authunsigned>1</authunsigned>"
        t0 = time.time()
        for node, extra in ((n1, both), (n2, both), (n1, key), (n2, key)):
            node.write_cluster_xml(extra)
            node.stop()
            node.zemctl("set", "waitstat", "1")
            node.start("--no-down")
            time.sleep(hbto + 0.5)      # long enough for a time-out to show
            assert not wait_healthy(c, 2), (node.name, extra)
        for n in c.nodes:
            assert len(events(n, "lanhb", "cluster key etc/authkey", t0)) == 2, n.name
            assert not events(n, "lanhb", " : OFFLINE ***", t0) + events(n, "lanhb", "**TIMEOUT(", t0)
        # Keyed only at the end: an unsigned datagram from a member is refused.
        before = n1.refused()
        c.send_datagrams(n2.ns, n2.ip4, n1.ip4, [heartbeat(n2.pri, PATH_PRI[LAN4])])
        assert wait_until(lambda: grown(before, n1, "filter") == 1, 3)
