"""A daemon whose supervisor dies stops itself, in order.

A cluster of its own, since the self-down count depends on the interval:
with hbint 3000 the sender gives up after 18 start-up polls (500 ms each)
that see parent id 1.
"""

import os
import signal
import time

import pytest

import zemcluster
from zemcluster import CNT, LAN_PATHS, events, node_line, wait_healthy, wait_until

POLLS = 18
POLL = 0.5
SLACK = 0.1


@pytest.fixture(scope="module")
def slow(tools):
    yield from zemcluster.started(2, tag="orph", hbint=3000, hbto=10000)


def test_orphaned_daemon_stops_itself_and_announces_its_down(slow):
    n1, n2 = slow.nodes
    left = wait_healthy(slow, 20)
    assert not left, left
    n2.zemctl("set", "down", "on")
    supervisor = n2.supervisor_pid()
    daemon = n2.daemon_pid()
    assert supervisor and daemon
    t0 = time.time()
    os.kill(supervisor, signal.SIGKILL)

    assert wait_until(lambda: not zemcluster.proc_running(daemon), POLLS * POLL + 15), \
        "daemon still running"
    selfdown = events(n2, "lanhb", f"lanhb self down. countover1={POLLS}", t0)
    assert len(selfdown) == 1, selfdown
    dt = selfdown[0][0] - t0
    print(f"\nself down {dt:.2f} s after the supervisor was killed")
    # The first poll that sees parent id 1 comes within one poll of the kill.
    assert (POLLS - 1) * POLL - SLACK <= dt <= POLLS * POLL + 2

    # Shut down in order: exit status 0, as reaped by the namespace's init.
    assert n2.wait(10) == 128 + signal.SIGKILL
    assert any(line.startswith("adopted ") and line.endswith(" exit:0")
               for line in n2.init_status()), n2.init_status()
    lines = [line for _, line in events(n2, "lanhb", "", t0)]
    order = ["lanhb self down", "send downpacket : YES", "lanhb shutting down"]
    at = [next((i for i, line in enumerate(lines) if text in line), -1) for text in order]
    assert -1 not in at and at == sorted(at), list(zip(order, at))
    assert events(n2, "cnthb", "write downpacket : YES", t0)

    # The peer took it offline from the down notices, not by time-out (10 s).
    def offline_on_peer():
        st = n1.status()
        return (all(st["lanhb"][p]["nodes"][n2.name] == "OFFLINE" for p in LAN_PATHS)
                and st["cnthb"][CNT]["nodes"][n2.name] == "OFFLINE")

    assert wait_until(offline_on_peer, 5), n1.status()
    for path in LAN_PATHS:
        assert events(n1, "lanhb", f"DOWNPACKET recv({path},{n2.name}({n2.pri}))", t0)
        assert events(n1, "lanhb", node_line(path, n2) + "OFFLINE ***", t0)
    assert events(n1, "cnthb", f"DOWNPACKET read({CNT},{n2.name}({n2.pri}))", t0)
    assert not events(n1, "lanhb", "**TIMEOUT(", t0)
    assert not events(n1, "cnthb", "**TIMEOUT(", t0)
