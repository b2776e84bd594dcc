"""UDP helper run inside a node's network namespace.

    netprobe.py recv ADDR PORT SECONDS
        bind ADDR:PORT, print "from <addr> <len>" for the first datagram
        (or "none" when SECONDS pass), exit.
    netprobe.py send SRC DST PORT FILE [PER_SECOND]
        send the datagrams stored in FILE (each a 4-byte big-endian length,
        then the bytes) from SRC (port any) to DST:PORT, at most PER_SECOND
        of them per second (0 = as fast as possible); print the count sent.
"""

import socket
import struct
import sys
import time


def _family(addr):
    return socket.AF_INET6 if ":" in addr else socket.AF_INET


def recv(addr, port, seconds):
    s = socket.socket(_family(addr), socket.SOCK_DGRAM)
    s.bind((addr, int(port)))
    s.settimeout(float(seconds))
    try:
        data, src = s.recvfrom(65536)
        print(f"from {src[0]} {len(data)}", flush=True)
    except socket.timeout:
        print("none", flush=True)


def send(src, dst, port, path, per_second="0"):
    with open(path, "rb") as f:
        blob = f.read()
    payloads = []
    off = 0
    while off < len(blob):
        (n,) = struct.unpack_from(">I", blob, off)
        payloads.append(blob[off + 4:off + 4 + n])
        off += 4 + n
    s = socket.socket(_family(dst), socket.SOCK_DGRAM)
    s.bind((src, 0))
    rate = float(per_second)
    start = time.monotonic()
    sent = 0
    for i, p in enumerate(payloads):
        if rate > 0:
            due = start + i / rate
            delay = due - time.monotonic()
            if delay > 0:
                time.sleep(delay)
        try:
            s.sendto(p, (dst, int(port)))
            sent += 1
        except OSError:
            # A full socket buffer only thins the flood out.
            pass
    print(sent, flush=True)


if __name__ == "__main__":
    cmd, args = sys.argv[1], sys.argv[2:]
    {"recv": recv, "send": send}[cmd](*args)
