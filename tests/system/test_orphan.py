"""Two nodes with hbint 3000: the sender gives up after 18 start-up polls
(500 ms each) that no longer see the parent it started with: parent id 1,
or a child subreaper that took it over. node1's IPv4 address is written
with its prefix, "198.18.0.1/24": its peer must hear it all the same."""

import os
import signal
import sys
import time

import pytest

from zemcluster.cluster import started
from zemcluster.layout import CNT, LAN_PATHS
from zemcluster.observe import events, log_kind, wait_healthy
from zemcluster.procs import proc_children, proc_running, wait_until
from test_cluster import ended, heard_down

POLLS, POLL, SLACK = 18, 0.5, 0.1


@pytest.fixture(scope="module")
def slow(tools):
    yield from started(2, tag="orph", hbint=3000, hbto=10000, prefixed=(1,))


def test_orphaned_daemon_stops_itself_and_announces_its_down(slow):
    n1, n2 = slow.nodes
    assert not wait_healthy(slow, 20)
    n2.zemctl("set", "down", "on")
    supervisor, daemon = n2.supervisor_pid(), n2.daemon_pid()
    t0 = time.time()
    os.kill(supervisor, signal.SIGKILL)
    assert wait_until(lambda: not proc_running(daemon), POLLS * POLL + 15), "daemon still running"
    selfdown = events(n2, "lanhb", f"lanhb self down. countover1={POLLS}", t0)
    assert len(selfdown) == 1, selfdown
    # The first poll that sees parent id 1 comes within one poll of the kill.
    assert (POLLS - 1) * POLL - SLACK <= selfdown[0][0] - t0 <= POLLS * POLL + 2, selfdown[0][0] - t0

    # Shut down in order, as reaped by the namespace's init.
    assert n2.wait(10) == 128 + signal.SIGKILL
    assert ended(n2, "adopted", t0), n2.init_status()
    lines = [line for _, line in events(n2, "lanhb", "", t0)]
    order = ["lanhb self down", "send downpacket : YES", "lanhb shutting down"]
    at = [next((i for i, line in enumerate(lines) if text in line), -1) for text in order]
    assert -1 not in at and at == sorted(at), list(zip(order, at))

    # The peer took it offline from the down notices, not by time-out (10 s).
    def offline_on_peer():
        st = n1.status()
        return all(st[log_kind(p)][p]["nodes"][n2.name] == "OFFLINE" for p in (*LAN_PATHS, CNT))

    assert wait_until(offline_on_peer, 5), n1.status()
    assert heard_down(n1, n2, t0, [*LAN_PATHS, CNT])
    assert not events(n1, "lanhb", "**TIMEOUT(", t0) + events(n1, "cnthb", "**TIMEOUT(", t0)


# A service manager of its own: a child subreaper (PR_SET_CHILD_SUBREAPER, 36)
# that starts the command and reaps whatever ends below it.
SUBREAPER = """import ctypes, os, subprocess, sys
ctypes.CDLL(None).prctl(36, 1)
subprocess.Popen(sys.argv[1:])
while True:
    try:
        os.wait()
    except ChildProcessError:
        break
"""


def child(pid):
    kids = proc_children(pid) if pid else []
    return kids[0] if kids else None


def test_daemon_orphaned_under_a_subreaper_stops_itself_with_the_down_notice_its_start_asked(slow):
    n1, n2 = slow.nodes
    n2.wait(15)
    n2.zemctl("set", "down", "off")     # left by an earlier stop: "zemctl run" sets it anew
    n2.spawn([sys.executable, "-c", SUBREAPER, slow.zemctl, "run", "--daemon", slow.daemon])
    supervisor = wait_until(lambda: child(n2.supervisor_pid()), 10)
    daemon = wait_until(lambda: child(supervisor), 10)
    assert supervisor and daemon and not wait_healthy(slow, 20)
    t0 = time.time()
    os.kill(supervisor, signal.SIGKILL)
    assert wait_until(lambda: not proc_running(daemon), POLLS * POLL + 15), "daemon still running"
    assert events(n2, "lanhb", f"lanhb self down. countover1={POLLS}", t0)
    assert events(n2, "lanhb", "send downpacket : YES", t0) and heard_down(n1, n2, t0, [*LAN_PATHS, CNT])
