"""A daemon that hangs is seen: stopped with SIGSTOP, it reads "stalled" in
zemctl status (status 5, the thread and the figures in the JSON), and its
"zemctl run", under a service manager's watchdog (WATCHDOG_USEC set,
NOTIFY_SOCKET naming a datagram socket this test reads: the service
manager's own wire format), stops the keep-alives until SIGCONT. Interval
500 ms and time-out 2000 ms: a stall limit of 2.5 s."""

import json
import os
import signal
import socket
import time

import pytest

from zemcluster.cluster import started
from zemcluster.procs import wait_until

WATCHDOG_S = 2  # zemctl sends a keep-alive every second


@pytest.fixture(scope="module")
def watched(tools):
    for c in started(1, tag="stall", start=start_watched):
        yield c
        c.notify.close()


def start_watched(cluster):
    cluster.notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    cluster.notify.bind(os.path.join(cluster.dir, "notify"))
    cluster[1].extra_env.update(NOTIFY_SOCKET=os.path.join(cluster.dir, "notify"),
                                WATCHDOG_USEC=str(WATCHDOG_S * 1000000))
    cluster.start_all()


def notices(sock, seconds):
    """The notifications that arrive within seconds."""
    got, end = [], time.monotonic() + seconds
    while (left := end - time.monotonic()) > 0:
        sock.settimeout(left)
        try:
            got.append(sock.recv(4096).decode())
        except socket.timeout:
            break
    return got


def keepalives(sock, seconds):
    return sum(n.split("\n").count("WATCHDOG=1") for n in notices(sock, seconds))


def status(node):
    res = node.zemctl("status", "--json", check=False)
    st = json.loads(res.stdout)
    return res.returncode, {**st["daemon"], "threads": st["threads"]}


def test_a_stopped_daemon_reads_stalled_and_starves_the_watchdog(watched):
    n, sock = watched[1], watched.notify
    assert wait_until(lambda: any("READY=1" in m for m in notices(sock, 1)), 15, 0), n.output()
    assert keepalives(sock, 3) >= 2
    rc, d = status(n)
    assert rc == 0 and not d["stalled"] and d["stall_limit_ms"] == 2500, d

    daemon = n.daemon_pid()
    os.kill(daemon, signal.SIGSTOP)
    try:
        assert wait_until(lambda: status(n)[0] == 5, 20, 0.2), status(n)
        rc, d = status(n)
        assert d["running"] and d["stalled"] and d["stalled_for_ms"] > d["stall_limit_ms"], d
        assert d["threads"][d["stalled_thread"]]["state"] == "running", d
        line = n.zemctl("status", check=False).stdout.splitlines()[0]
        assert line.startswith("daemon running but stalled for ") and d["stalled_thread"] in line, line
        # A keep-alive sent just before status saw the stall may still come in.
        notices(sock, 0.5)
        assert keepalives(sock, 3 * WATCHDOG_S) == 0
        assert ") stalled for " in n.output(), n.output()
    finally:
        os.kill(daemon, signal.SIGCONT)

    assert wait_until(lambda: status(n)[0] == 0, 20, 0.2), status(n)
    assert keepalives(sock, 3) >= 2
    assert "makes progress again" in n.output(), n.output()
