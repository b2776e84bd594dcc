"""The shared disk of nodes 1 and 2 as two hosts would see one LUN: a block
device each, loop devices over one backing file, with logical sectors of the
size asked for. Each device is detached as soon as the harness holds it open,
so the kernel drops it at the last close even when the harness dies;
release() and procs.sweep() detach whatever is still bound to a file of a
cluster's directory."""

import os
import shutil

from .procs import HarnessError, detach_loops, run

LUN_SIZE = 1 << 20      # bytes; the area needs 260 KiB


def loop_missing():
    """Why loop devices cannot be used here, or None when they can."""
    if os.geteuid() != 0:
        return "loop devices need root"
    if shutil.which("losetup") is None:
        return "no losetup (util-linux)"
    if not os.path.exists("/dev/loop-control"):
        return "no /dev/loop-control (loop driver missing)"
    res = run(["losetup", "-f"], check=False)
    if res.returncode != 0:
        return f"no free loop device: {res.stderr.strip()}"
    return None


class LoopDisk:
    def __init__(self, backing, sector=512):
        self.backing = backing
        self.sector = sector
        self.fds = []
        self.devices = []
        with open(backing, "wb") as f:
            f.truncate(LUN_SIZE)

    def attach(self):
        """One more block device over the backing file; returns its path."""
        dev = run(["losetup", "-f", "--show", "-b", str(self.sector), self.backing]).stdout.strip()
        try:
            self.fds.append(os.open(dev, os.O_RDWR))
        except OSError as e:
            run(["losetup", "-d", dev], check=False)
            raise HarnessError(f"{dev}: {e}")
        run(["losetup", "-d", dev])
        self.devices.append(dev)
        return dev

    def release(self):
        """Close the devices; gone once the last process using them has ended."""
        for fd in self.fds:
            os.close(fd)
        self.fds = []
        detach_loops(os.path.dirname(self.backing))
