#!/usr/bin/env python3
"""The daemon's CPU share under a junk flood, with the socket filter (keyed
cluster) and without it (no key: the receiver refuses junk itself).

Needs root and built tools (ZEM_BUILD, or ZEM_CTL and ZEM_DAEMON). For each
mode a two-node namespace cluster is started and node1 is flooded for
SECONDS (default 10) from one non-member as fast as one sender goes; prints
the flood rate, what node1 refused and its daemon's share of one core.

    ZEM_BUILD=build/release sudo -E bench/flood.py [SECONDS]
"""

import os
import random
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools", "cluster"))

from zemcluster.cluster import started  # noqa: E402
from zemcluster.layout import OUTSIDER4, TRAILER  # noqa: E402
from zemcluster.observe import problems, wait_healthy  # noqa: E402
from zemcluster.procs import install_cleanup_handlers  # noqa: E402
from zemcluster.wire import heartbeat  # noqa: E402


def cpu_ticks(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])


def run(keyed, seconds):
    rng = random.Random(1)
    size = len(heartbeat(1, 0))
    junk = [rng.randbytes(rng.choice([64, size, size + TRAILER, 1400])) for _ in range(20)]
    for c in started(2, tag="flood", key=keyed):
        if wait_healthy(c, 20):
            sys.exit("cluster did not converge")
        n1 = c[1]
        pid = n1.daemon_pid()
        cpu0, t0 = cpu_ticks(pid), time.time()
        sent = c.flood(c.bridge_ns, OUTSIDER4, n1.ip4, junk, seconds)
        spent = time.time() - t0
        share = (cpu_ticks(pid) - cpu0) / os.sysconf("SC_CLK_TCK") / spent
        refused = n1.refused()
        healthy = not problems(c)
        print(f"{'with filter (keyed)' if keyed else 'without filter (no key)':26} "
              f"{sent / spent:10.0f} datagrams/s  daemon {100 * share:5.1f} % of a core  "
              f"refused {refused}  cluster {'healthy' if healthy else 'NOT healthy'}", flush=True)


if __name__ == "__main__":
    secs = float(sys.argv[1]) if len(sys.argv) > 1 else 10
    install_cleanup_handlers()
    for keyed in (False, True):
        run(keyed, secs)
