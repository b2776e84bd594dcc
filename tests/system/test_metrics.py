"""A real metrics server scrapes "zemctl metrics --listen" of node1 of a
two-node cluster every second: a crash of node2 reads back through its
query API as zemlanhb_node_up going from 1 to 0 on every path, and a crash
of node1's own daemon as zemlanhb_daemon_up 0 while the endpoint goes on
serving. promtool accepts what "zemctl metrics" prints. Both servers listen
on free ports of this host's loopback; node1's shared memory is reached
through its root."""

import json
import os
import shutil
import signal
import socket
import subprocess
import urllib.parse
import urllib.request

import pytest

from zemcluster.cluster import started
from zemcluster.layout import CNT, LAN4, LAN6
from zemcluster.procs import wait_until

PATHS = {LAN4: "lanhb", LAN6: "lanhb", CNT: "cnthb"}


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


@pytest.fixture(scope="module")
def scraped(tools):
    if shutil.which("prometheus") is None or shutil.which("promtool") is None:
        why = "the metrics tests need prometheus and promtool (Debian package prometheus)"
        pytest.fail(why) if os.environ.get("CI") else pytest.skip(why)
    for c in started(2, tag="met"):
        procs = []
        try:
            node, mport, pport = c[1], free_port(), free_port()
            procs.append(subprocess.Popen([c.zemctl, "metrics", "--listen", f"127.0.0.1:{mport}"], env=node.env,
                                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
            with open(os.path.join(c.dir, "prometheus.yml"), "w") as f:
                f.write("global: {scrape_interval: 1s, scrape_timeout: 1s, evaluation_interval: 1s}\n"
                        "scrape_configs:\n"
                        f"  - job_name: zemlanhb\n    static_configs: [{{targets: ['127.0.0.1:{mport}']}}]\n")
            with open(os.path.join(c.dir, "prometheus.log"), "w") as log:
                procs.append(subprocess.Popen(
                    ["prometheus", f"--config.file={c.dir}/prometheus.yml", f"--storage.tsdb.path={c.dir}/tsdb",
                     f"--web.listen-address=127.0.0.1:{pport}"], stdout=log, stderr=subprocess.STDOUT))
            c.query = lambda q: query(pport, q)
            assert wait_until(lambda: c.query("up") == {(): 1.0}, 60, 0.5), "prometheus never scraped the endpoint"
            yield c
        finally:
            for p in procs:
                p.send_signal(signal.SIGTERM)
            for p in procs:
                p.wait(30)


def query(port, promql):
    """The instant vector of promql as {label values but job, instance and __name__: value}; {} on failure."""
    url = f"http://127.0.0.1:{port}/api/v1/query?" + urllib.parse.urlencode({"query": promql})
    try:
        with urllib.request.urlopen(url, timeout=5) as r:
            res = json.load(r)["data"]["result"]
    except OSError:
        return {}
    skip = ("job", "instance", "__name__")
    return {tuple(v for k, v in sorted(s["metric"].items()) if k not in skip): float(s["value"][1]) for s in res}


def node_up(c, node):
    return {path: c.query(f'zemlanhb_node_up{{kind="{kind}",path="{path}",node="{node}"}}').get((kind, node, path))
            for path, kind in PATHS.items()}


def test_promtool_accepts_the_exposition(scraped):
    res = subprocess.run(["promtool", "check", "metrics"], input=scraped[1].zemctl("metrics").stdout,
                         capture_output=True, text=True)
    assert res.returncode == 0, res.stdout + res.stderr


def test_a_crash_reads_back_as_node_down_and_daemon_down(scraped):
    c = scraped
    assert wait_until(lambda: node_up(c, "node2") == {p: 1.0 for p in PATHS}, 30, 0.5), node_up(c, "node2")
    for counter in ("accepted", "sent"):
        assert c.query(f'zemlanhb_{counter}_datagrams_total{{node="node2"}} > 0').keys() == {("node2", LAN4),
                                                                                            ("node2", LAN6)}, counter
    assert c.query("zemlanhb_received_datagrams_total > 0")
    assert c.query("zemlanhb_daemon_up") == {(): 1.0}

    os.kill(c[2].daemon_pid(), signal.SIGKILL)
    assert wait_until(lambda: node_up(c, "node2") == {p: 0.0 for p in PATHS}, 30, 0.5), node_up(c, "node2")
    assert node_up(c, "node1") == {p: 1.0 for p in PATHS}
    ages = lambda: c.query('zemlanhb_heartbeat_age_seconds{node="node2"} > 2')  # noqa: E731
    assert wait_until(lambda: len(ages()) == len(PATHS), 30, 0.5), ages()

    os.kill(c[1].daemon_pid(), signal.SIGKILL)
    assert wait_until(lambda: c.query("zemlanhb_daemon_up") == {(): 0.0}, 30, 0.5), c.query("zemlanhb_daemon_up")
    assert c.query("up") == {(): 1.0}
