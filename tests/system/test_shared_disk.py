"""The controller path on one disk that nodes 1 and 2 reach through a loop
device each, as two hosts see one LUN; two such clusters side by side, on
512- and 4096-byte logical sectors: converging, a quiet minute, a crash seen
by time-out, an orderly stop seen by the down notice."""

import contextlib
import json
import os
import signal
import time

import pytest

from zemcluster.cluster import started
from zemcluster.disk import loop_missing
from zemcluster.layout import CNT, LAN_PATHS
from zemcluster.observe import events, offline_times, wait_healthy
from zemcluster.procs import run
from test_cluster import HBINT, HBTO, SLACK, heard_down

SECTORS = (512, 4096)
PATHS = (*LAN_PATHS, CNT)


@pytest.fixture(scope="module")
def clusters(tools):
    why = loop_missing()
    if why and os.environ.get("CI"):
        pytest.fail(f"CI must run the shared-disk test: {why}", pytrace=False)
    if why:
        pytest.skip(why)
    with contextlib.ExitStack() as stack:
        yield [stack.enter_context(contextlib.contextmanager(started)(
            2, tag=f"d{s}", hbint=int(HBINT * 1000), hbto=HBTO * 1000, loop=s)) for s in SECTORS]


def test_both_converge_and_stay_quiet_for_a_minute(clusters):
    for c, sector in zip(clusters, SECTORS):
        assert not wait_healthy(c, 20), sector
        assert [run(["blockdev", "--getss", n.area]).stdout.strip() for n in c.nodes] == [str(sector)] * 2
        # Each node's writes are seen through the other node's device.
        for n in c.nodes:
            shown = json.loads(n.zemctl("area", "show", "--interval", "1", "--json").stdout)
            assert (shown["block_device"], shown["direct_io"], shown["cluster"]) == (True, True, c.prefix)
            assert [(r["slot"], r["tag"], r["changed"]) for r in shown["records"]] == \
                [(0, "cnthb", True), (1, "cnthb", True)], shown
    t0 = time.time()
    time.sleep(60)
    for c in clusters:
        for n in c.nodes:
            for kind in ("lanhb", "cnthb"):
                assert not events(n, kind, " : OFFLINE ***", t0) + events(n, kind, "**TIMEOUT(", t0), (c.prefix, n)
        assert not wait_healthy(c, 1)


def test_a_crash_is_seen_by_time_out(clusters):
    t0 = time.time()
    for c in clusters:
        os.kill(c[2].daemon_pid(), signal.SIGKILL)
    low, high = HBTO - HBINT - SLACK, HBTO + HBINT + 1
    for c in clusters:
        times = offline_times([c[1]], c[2], PATHS, t0, HBTO + 10)
        assert set(times) == {(c[1].name, p) for p in PATHS} and all(low <= t <= high for t in times.values()), \
            (c.prefix, times, low, high)
        assert events(c[1], "cnthb", "**TIMEOUT(", t0), c.prefix


def test_an_orderly_stop_is_seen_by_the_down_notice(clusters):
    for c in clusters:
        c[2].wait(15)
        c[2].start()
    for c in clusters:
        assert not wait_healthy(c, 20), c.prefix
    for c in clusters:
        t0 = time.time()
        assert c[1].stop() == 0, c[1].output()
        assert heard_down(c[2], c[1], t0, [CNT]), c.prefix
        times = offline_times([c[2]], c[1], [CNT], t0, 5)
        assert times.get((c[2].name, CNT), 99) <= 2.0, (c.prefix, times)
        assert not events(c[2], "cnthb", "**TIMEOUT(", t0), c.prefix
