"""The installed layout, run the way its service unit runs it: zemctl and
zemlanhb from the package's tree, roots made by "zemctl init", "zemctl run"
without --daemon (zemctl must find the installed daemon itself), node1 with a
service manager's notification socket, stopped by SIGTERM to zemctl alone."""

import os
import signal
import socket
import subprocess
import tempfile
import time

import pytest

from zemcluster.cluster import started
from zemcluster.layout import PREFIX
from zemcluster.observe import events, paths_seen_by, wait_healthy
from zemcluster.procs import HarnessError, wait_until
from test_cluster import ended, heard_down


@pytest.fixture(scope="module")
def cluster():
    deb = os.environ.get("ZEM_DEB", "")
    if not os.path.exists(deb):
        why = f"no package at '{deb}' (a build with ZEM_MANPAGES=ON makes it)"
        (pytest.fail if os.environ.get("CI") else pytest.skip)(why)
    with tempfile.TemporaryDirectory(prefix=f"{PREFIX}{os.getpid()}-deb-") as tree:
        subprocess.run(["dpkg-deb", "-x", deb, tree], check=True)
        sbin = os.path.join(tree, "usr", "sbin")
        for c in started(2, start=start_as_service, tag="inst",
                                    zemctl=os.path.join(sbin, "zemctl"), daemon=os.path.join(sbin, "zemlanhb")):
            yield c
            c.notify.close()


def start_as_service(cluster):
    cluster.notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    cluster.notify.bind(os.path.join(cluster.dir, "notify"))
    cluster.notify.settimeout(15)
    cluster[1].extra_env["NOTIFY_SOCKET"] = os.path.join(cluster.dir, "notify")
    for n in cluster.nodes:
        n.spawn([cluster.zemctl, "run"])
    for n in cluster.nodes:
        if not wait_until(n.daemon_pid, 15, 0.05):
            raise HarnessError(f"{n.name}: no daemon came up\n{n.output()}")


def wait_notice(cluster, wanted):
    """Reads notifications until one says wanted (socket.timeout after 15 s without one)."""
    while wanted not in cluster.notify.recv(4096).decode():
        pass


def test_installed_service_reports_ready_and_stops_with_down_notices(cluster):
    n1, n2 = cluster.nodes
    wait_notice(cluster, "READY=1")
    # zemctl reports ready only after the daemon told it that it is up.
    assert "is up" in n1.output(), n1.output()
    assert not wait_healthy(cluster, 20)
    t0 = time.time()
    os.kill(n1.supervisor_pid(), signal.SIGTERM)
    assert n1.wait(20) == 0, n1.output()
    wait_notice(cluster, "STOPPING=1")
    assert ended(n1, "child", t0), n1.init_status()
    assert heard_down(n2, n1, t0, paths_seen_by(n2, n1))
    assert not events(n2, "lanhb", "**TIMEOUT(", t0)
