"""Datagrams on a cluster's wires: heartbeats forged as a node would send
them, and netprobe.py run inside a namespace to send, flood and capture
datagrams or to see whether one gets through."""

import os
import struct
import subprocess
import sys
import time

from .layout import LAN4, MAXNODE, NETPROBE, RECV_PORT


def heartbeat(nodepri, rscpri, tag=b"lanhb", maxnode=MAXNODE, rscstat=0):
    """A LAN heartbeat datagram as a node with priority nodepri sends it on the
    path with priority rscpri."""
    buf = bytearray(320 + 8 * maxnode)
    buf[0:len(tag)] = tag
    buf[8:15] = b"unknown"
    buf[24:31] = b"unknown"
    struct.pack_into(">iiiiii", buf, 296, int(time.time()) & 0x7FFFFFFF, nodepri, rscpri,
                     rscstat, 0, 8 * maxnode)
    return bytes(buf)


class Wire:
    """What a cluster sends and captures on its wires; the cluster gives the
    scratch directory (dir) and ns_exec()."""

    def _probe_send(self, ns, how, src, dst, payloads, port, arg, timeout):
        path = os.path.join(self.dir, f"dgrams-{time.monotonic_ns()}")
        with open(path, "wb") as f:
            for p in payloads:
                f.write(struct.pack(">I", len(p)) + p)
        try:
            res = self.ns_exec(ns, [sys.executable, NETPROBE, how, src, dst, str(port), path, str(arg)],
                               timeout=timeout)
        finally:
            os.unlink(path)
        return int(res.stdout.strip() or 0)

    def send_datagrams(self, ns, src, dst, payloads, port=RECV_PORT, per_second=0, timeout=60):
        """Send payloads from address src inside namespace ns; return how many went out."""
        return self._probe_send(ns, "send", src, dst, payloads, port, per_second, timeout)

    def flood(self, ns, src, dst, payloads, seconds, port=RECV_PORT):
        """Send payloads over and over, as fast as one socket can, for seconds; return the count."""
        return self._probe_send(ns, "flood", src, dst, payloads, port, seconds, seconds + 30)

    def flood_fresh(self, ns, src, dst, payloads, seconds, port=RECV_PORT):
        """flood() of keyed datagrams whose sequence is kept at the current time; return the count."""
        path = os.path.join(self.dir, f"dgrams-{time.monotonic_ns()}")
        with open(path, "wb") as f:
            for p in payloads:
                f.write(struct.pack(">I", len(p)) + p)
        try:
            res = self.ns_exec(ns, [sys.executable, NETPROBE, "flood", src, dst, str(port), path, str(seconds), "1"],
                               timeout=seconds + 30)
        finally:
            os.unlink(path)
        return int(res.stdout.strip() or 0)

    def relay_start(self, ns, iface, src, dst, seconds, delay, port=RECV_PORT):
        """Start a delay line in namespace ns: each datagram from src to dst seen on
        iface is sent again, from src, delay seconds later. relay_result() waits for it."""
        return subprocess.Popen(["ip", "netns", "exec", ns, sys.executable, NETPROBE, "relay", iface, src, dst,
                                 str(port), str(seconds), str(delay)], stdout=subprocess.PIPE, text=True)

    @staticmethod
    def relay_result(proc, timeout):
        """How many datagrams the delay line sent again."""
        out, _ = proc.communicate(timeout=timeout)
        return int(out.strip() or 0)

    def sniff_start(self, node, seconds, path=LAN4):
        """Start capturing the IPv4 heartbeat datagrams that reach node on path."""
        out = os.path.join(self.dir, f"sniff-{time.monotonic_ns()}")
        proc = subprocess.Popen(["ip", "netns", "exec", node.ns, sys.executable, NETPROBE, "sniff", path,
                                 str(RECV_PORT), str(seconds), out], stdout=subprocess.PIPE, text=True)
        return proc, out, seconds

    @staticmethod
    def sniff_result(handle):
        """[(source address, payload)] of a capture started by sniff_start."""
        proc, out, seconds = handle
        proc.communicate(timeout=seconds + 10)
        got = []
        try:
            with open(out, "rb") as f:
                blob = f.read()
        finally:
            if os.path.exists(out):
                os.unlink(out)
        off = 0
        while off < len(blob):
            (n,) = struct.unpack_from(">I", blob, off)
            src = ".".join(str(b) for b in blob[off + 4:off + 8])
            got.append((src, blob[off + 8:off + 8 + n]))
            off += 8 + n
        return got

    def udp_reaches(self, src_ns, src, dst_ns, dst, port=40000, seconds=3.0):
        """Whether a datagram from src (in src_ns) arrives at dst (in dst_ns) within seconds."""
        rx = subprocess.Popen(["ip", "netns", "exec", dst_ns, sys.executable, NETPROBE, "recv",
                               dst, str(port), str(seconds)], stdout=subprocess.PIPE, text=True)
        path = os.path.join(self.dir, f"probe-{time.monotonic_ns()}")
        with open(path, "wb") as f:
            for _ in range(int(seconds * 10)):
                f.write(struct.pack(">I", 5) + b"probe")
        tx = subprocess.Popen(["ip", "netns", "exec", src_ns, sys.executable, NETPROBE, "send",
                               src, dst, str(port), path, "10"],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            out, _ = rx.communicate(timeout=seconds + 10)
        finally:
            tx.kill()
            tx.wait()
            os.unlink(path)
        return out.startswith(f"from {src} ") or out.startswith(f"from ::ffff:{src} ")
