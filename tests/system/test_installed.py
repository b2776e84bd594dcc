"""The installed layout, run the way its service unit runs it.

Both nodes use zemctl and zemlanhb from the Debian package's tree, with roots
prepared by "zemctl init", and run "zemctl run" without --daemon, so zemctl
must find the installed daemon itself. node1 gets a service manager's
notification socket. It is stopped as the unit stops it: SIGTERM to zemctl
alone; its peer must take it offline from the down notices.
"""

import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time

import pytest

import zemcluster
from zemcluster import LAN_PATHS, events, wait_healthy, wait_until


@pytest.fixture(scope="module")
def tree():
    deb = os.environ.get("ZEM_DEB", "")
    if not os.path.exists(deb):
        why = f"no package at '{deb}' (built with ZEM_MANPAGES=ON by the package_build test)"
        if os.environ.get("CI"):
            pytest.fail(why, pytrace=False)
        pytest.skip(why)
    d = tempfile.mkdtemp(prefix=f"{zemcluster.PREFIX}{os.getpid()}-deb-")
    try:
        subprocess.run(["dpkg-deb", "-x", deb, d], check=True)
        yield d
    finally:
        shutil.rmtree(d, ignore_errors=True)


def start_as_service(cluster):
    notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    path = os.path.join(cluster.dir, "notify")
    notify.bind(path)
    notify.setblocking(False)
    cluster.notify = notify
    cluster[1].extra_env["NOTIFY_SOCKET"] = path
    for n in cluster.nodes:
        n.spawn([cluster.zemctl, "run"])
    for n in cluster.nodes:
        if not wait_until(n.daemon_pid, 15, 0.05):
            raise zemcluster.HarnessError(f"{n.name}: no daemon came up\n{n.output()}")


@pytest.fixture(scope="module")
def cluster(tree):
    sbin = os.path.join(tree, "usr", "sbin")
    for c in zemcluster.started(2, start=start_as_service, tag="inst",
                                zemctl=os.path.join(sbin, "zemctl"),
                                daemon=os.path.join(sbin, "zemlanhb")):
        yield c
        c.notify.close()


def notices(cluster, wanted, timeout):
    """Notification messages received until one contains wanted (or timeout)."""
    got = []

    def seen():
        try:
            while True:
                got.append(cluster.notify.recv(4096).decode())
        except BlockingIOError:
            pass
        return any(wanted in m for m in got)

    wait_until(seen, timeout, 0.05)
    return got


def test_installed_service_reports_ready_and_stops_with_down_notices(cluster):
    n1, n2 = cluster.nodes
    ready = notices(cluster, "READY=1", 15)
    assert any("READY=1" in m for m in ready), ready
    # zemctl reports ready only after the daemon told it that it is up.
    assert "is up" in n1.output(), n1.output()
    assert not wait_healthy(cluster, 20)

    t0 = time.time()
    os.kill(n1.supervisor_pid(), signal.SIGTERM)
    assert n1.wait(20) == 0, n1.output()
    assert any(line.startswith("child ") and line.endswith("exit:0")
               for line in n1.init_status()), n1.init_status()
    assert any("STOPPING=1" in m for m in notices(cluster, "STOPPING=1", 5))
    assert events(n1, "lanhb", "send downpacket : YES", t0)
    for path in LAN_PATHS:
        text = f"DOWNPACKET recv({path},{n1.name}({n1.pri}))"
        assert wait_until(lambda: events(n2, "lanhb", text, t0), 5), f"node2 never logged {text}"
    assert not events(n2, "lanhb", "**TIMEOUT(", t0)
