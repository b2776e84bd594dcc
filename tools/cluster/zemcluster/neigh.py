"""The host's neighbour tables (one per address family, shared by every
namespace), raised for a cluster's size while it lives and put back by its
destroy()."""

from .procs import HarnessError

NEIGH_SYSCTL = "/proc/sys/net/{fam}/neigh/default/gc_thresh{n}"


def neigh_need(nnodes):
    """(gc_thresh2, gc_thresh3) a cluster of nnodes needs in each family's
    table: every node keeps an entry for every other node and the bridge's
    outsider, and the kernel refuses entries past gc_thresh3 (sendto then
    fails with EINVAL). Four times that, so entries on their way out and a
    neighbour cluster of the same size still fit."""
    hard = 4 * nnodes * (nnodes + 2)
    return hard // 2, hard


class NeighTables:
    """Raises both families' neighbour-table limits to what a cluster needs,
    never lowers them, and restore() puts back what it changed unless
    someone else changed the value since."""

    def __init__(self, nnodes):
        self.changed = []   # (path, old, ours)
        soft, hard = neigh_need(nnodes)
        for fam in ("ipv4", "ipv6"):
            for n, want in ((2, soft), (3, hard)):
                path = NEIGH_SYSCTL.format(fam=fam, n=n)
                try:
                    with open(path) as f:
                        old = int(f.read())
                    if old < want:
                        with open(path, "w") as f:
                            f.write(str(want))
                        self.changed.append((path, old, want))
                except OSError as e:
                    raise HarnessError(f"cannot size the neighbour table ({path}): {e}") from e

    def restore(self):
        for path, old, ours in reversed(self.changed):
            try:
                with open(path) as f:
                    if int(f.read()) != ours:
                        continue
                with open(path, "w") as f:
                    f.write(str(old))
            except OSError:
                pass
        self.changed = []
