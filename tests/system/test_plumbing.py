"""The harness cleans up after itself: a failing scenario must never leave
namespaces, processes or files behind for the next run."""

import os

from zemcluster.cluster import Cluster
from zemcluster.procs import leftovers, pid_alive, wait_until


def test_destroy_removes_namespaces_processes_and_files():
    c = Cluster(2, tag="gone")
    c.build_network()
    c[1].spawn(["sleep", "300"])
    assert wait_until(c[1].supervisor_pid, 10)
    pids = [c[1].proc.pid, c[1].init_pid(), c[1].supervisor_pid()]
    assert len(leftovers()) >= 3
    c.destroy()
    assert not [ns for ns in leftovers() if ns.startswith(c.prefix)]
    assert not os.path.exists(c.dir)
    assert wait_until(lambda: not any(pid_alive(p) for p in pids), 5)
