"""A three-node cluster with a cluster key and a hostile host on its LAN:
forged, replayed and foreign-key datagrams and a junk flood change nothing,
while a crash and an orderly stop are detected as without a key.

The hostile host sits in the bridges' namespace with OUTSIDER4 and SPOOF4,
an address whose text contains node 2's (198.18.0.2).
"""

import os
import random
import signal
import time

import pytest

import zemcluster
from zemcluster import (LAN4, LAN_PATHS, OUTSIDER4, PATH_PRI, TRAILER, events, heartbeat,
                        node_line, wait_healthy, wait_until)
# The same scenarios as without a key, collected here again on the keyed cluster.
from test_cluster import (healthy, test_crash_is_detected_after_the_timeout_on_every_path,  # noqa: F401
                          test_orderly_stop_announces_the_down_at_once)

SPOOF4 = "198.18.0.20"


@pytest.fixture(scope="module")
def cluster(tools):
    for c in zemcluster.started(3, tag="key", hbint=500, hbto=2000, key=True):
        c.add_outsider(SPOOF4)
        yield c


def lan_states(obs, victim):
    st = obs.status()["lanhb"]
    return {p: st[p]["nodes"][victim.name] for p in LAN_PATHS}


def grown(before, after, reason):
    return after.get(reason, 0) - before.get(reason, 0)


def test_forged_down_packets_change_nothing(healthy):
    n1, n2, n3 = healthy.nodes
    rng = random.Random(13)
    plain = heartbeat(n2.pri, PATH_PRI[LAN4], tag=b"hbdown")
    keyed_len = plain + rng.randbytes(TRAILER)     # right length, a made-up code
    before = n1.refused()
    t0 = time.time()
    for src in (SPOOF4, OUTSIDER4):
        for dst in (n1, n3):
            healthy.send_datagrams(healthy.bridge_ns, src, dst.ip4, [plain, keyed_len] * 5)
    # From a member's own address the filter lets it through; the code stops it.
    healthy.send_datagrams(n3.ns, n3.ip4, n1.ip4, [keyed_len] * 5)
    time.sleep(1.5)
    for obs in (n1, n3):
        assert lan_states(obs, n2) == {p: "ONLINE" for p in LAN_PATHS}, obs.name
        assert not events(obs, "lanhb", "DOWNPACKET", t0), obs.name
        assert not events(obs, "lanhb", node_line(LAN4, n2) + "OFFLINE", t0), obs.name
    after = n1.refused()
    assert grown(before, after, "filter") >= 20, after
    assert grown(before, after, "code") == 5, after
    assert len(events(n1, "lanhb", f"from {n3.ip4}: code", t0)) == 1


def test_replayed_down_packet_after_restart_changes_nothing(healthy):
    n1, n2, _ = healthy.nodes
    cap = healthy.sniff_start(n1, 5)
    time.sleep(1)
    assert n2.stop() == 0
    downs = [p for src, p in healthy.sniff_result(cap) if src == n2.ip4 and p.startswith(b"hbdown")]
    assert downs, "no down packet of node2 captured"
    assert lan_states(n1, n2)[LAN4] == "OFFLINE"
    n2.start()
    assert not wait_healthy(healthy, 15)
    before = n1.refused()
    t0 = time.time()
    healthy.send_datagrams(n2.ns, n2.ip4, n1.ip4, downs)
    time.sleep(1.5)
    assert lan_states(n1, n2) == {p: "ONLINE" for p in LAN_PATHS}
    assert not events(n1, "lanhb", "DOWNPACKET", t0)
    assert grown(before, n1.refused(), "replay") == len(downs)


def test_replayed_heartbeats_do_not_keep_a_frozen_node_online(healthy):
    n1, _, n3 = healthy.nodes
    cap = healthy.sniff_start(n1, 3)
    beats = [p for src, p in healthy.sniff_result(cap) if src == n3.ip4 and p.startswith(b"lanhb")]
    assert len(beats) >= 3
    pid = n3.daemon_pid()
    os.kill(pid, signal.SIGSTOP)
    try:
        t0 = time.time()
        # Twice a second for longer than the time-out, as the node itself would.
        healthy.send_datagrams(n3.ns, n3.ip4, n1.ip4, (beats * 4)[:12], per_second=2)
        assert lan_states(n1, n3) == {p: "OFFLINE" for p in LAN_PATHS}
        assert events(n1, "lanhb", node_line(LAN4, n3) + "OFFLINE", t0)
        assert n1.refused()["replay"] >= 12
    finally:
        os.kill(pid, signal.SIGCONT)


def test_a_node_with_another_key_is_not_heard_and_says_why(healthy):
    n1, n2, n3 = healthy.nodes
    good = n3.read_key()
    n3.stop()
    n3.write_key(os.urandom(len(good)))
    before = n1.refused()
    try:
        t0 = time.time()
        n3.start()
        time.sleep(5)
        for obs, peer in ((n1, n3), (n2, n3), (n3, n1), (n3, n2)):
            assert lan_states(obs, peer) == {p: "OFFLINE" for p in LAN_PATHS}, (obs.name, peer.name)
        # Heard about ten times a path in those seconds, said once per source.
        for src in (n1.ip4, n1.ip6, n2.ip4, n2.ip6):
            assert len(events(n3, "lanhb", f"datagram(s) from {src}: code", t0)) == 1, src
        # node1 may have named node3's address within the minute already.
        assert grown(before, n1.refused(), "code") >= 10
        assert n3.refused()["code"] >= 10
    finally:
        n3.stop()
        n3.write_key(good)


def test_a_flood_from_a_non_member_causes_no_false_offline(healthy):
    n1 = healthy[1]
    rng = random.Random(20)
    keyed = len(heartbeat(1, 0)) + TRAILER
    junk = [rng.randbytes(rng.choice([1, 64, 576, keyed, keyed + 1, 1400])) for _ in range(30)]
    forged = [heartbeat(n.pri, PATH_PRI[LAN4], tag=tag) + rng.randbytes(TRAILER)
              for n in healthy.nodes for tag in (b"lanhb", b"hbdown")]
    pid = n1.daemon_pid()
    cpu0 = cpu_ticks(pid)
    before = n1.refused()
    t0 = time.time()
    sent = healthy.flood(healthy.bridge_ns, SPOOF4, n1.ip4, junk + forged, 20)
    spent = time.time() - t0
    share = (cpu_ticks(pid) - cpu0) / os.sysconf("SC_CLK_TCK") / spent
    dropped = grown(before, n1.refused(), "filter")
    print(f"\nflood: {sent} datagrams in {spent:.1f} s ({sent / spent:.0f}/s); "
          f"{dropped} dropped by node1's filter; node1's daemon used {100 * share:.1f} % of a core")
    assert sent / spent > 1000, "the flood did not get going"
    assert dropped >= sent // 2
    for obs in healthy.nodes:
        assert not events(obs, "lanhb", " : OFFLINE ***", t0), obs.name
    assert not wait_healthy(healthy, 2)


def cpu_ticks(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])


def test_a_key_is_enabled_node_by_node_without_an_offline(tools):
    """The roll-out of docs/operations.md: each node restarted in resume mode
    without down notification, first keyed but taking unsigned datagrams too,
    then keyed only. No node may lose a peer at any step."""
    hbto = 3
    for c in zemcluster.started(2, start=lambda c: c.start_all("--no-down"), tag="roll",
                                  hbto=hbto * 1000):
        n1, n2 = c.nodes
        assert not wait_healthy(c, 20)
        n1.zemctl("keygen")
        n2.write_key(n1.read_key())
        key = f"<authkey>{zemcluster.KEY_FILE}</authkey>"
        t0 = time.time()
        for node, extra in ((n1, key + "<authunsigned>1</authunsigned>"),
                            (n2, key + "<authunsigned>1</authunsigned>"), (n1, key), (n2, key)):
            node.write_cluster_xml(extra)
            node.stop()
            node.zemctl("set", "waitstat", "1")
            node.start("--no-down")
            time.sleep(hbto + 0.5)      # long enough for a time-out to show
            assert not wait_healthy(c, 2), (node.name, extra)
        for n in c.nodes:
            assert len(events(n, "lanhb", "cluster key etc/authkey", t0)) == 2, n.name
            assert not events(n, "lanhb", " : OFFLINE ***", t0), n.name
            assert not events(n, "lanhb", "**TIMEOUT(", t0), n.name
        # Keyed only at the end: an unsigned datagram from a member is refused.
        before = n1.refused()
        c.send_datagrams(n2.ns, n2.ip4, n1.ip4, [heartbeat(n2.pri, PATH_PRI[LAN4])])
        assert wait_until(lambda: grown(before, n1.refused(), "filter") == 1, 3)
