"""UDP helper run inside a node's network namespace.

    netprobe.py recv ADDR PORT SECONDS
        bind ADDR:PORT, print "from <addr> <len>" for the first datagram
        (or "none" when SECONDS pass), exit.
    netprobe.py send SRC DST PORT FILE [PER_SECOND]
        send the datagrams stored in FILE (each a 4-byte big-endian length,
        then the bytes) from SRC (port any) to DST:PORT, at most PER_SECOND
        of them per second (0 = as fast as possible); print the count sent.
    netprobe.py flood SRC DST PORT FILE SECONDS [FRESH]
        send the datagrams of FILE over and over, as fast as one socket can,
        for SECONDS; print the count sent. FRESH 1: the 8 bytes 40 before
        each datagram's end (a keyed datagram's sequence) are the current
        wall-clock time in ns, renewed every 256 datagrams.
    netprobe.py relay IFACE SRC DST PORT SECONDS DELAY
        for SECONDS, take the IPv4 UDP datagrams from SRC to DST:PORT seen on
        IFACE and send each again DELAY seconds later, from SRC (a raw
        socket: SRC need not be an address of this host); print the count.
    netprobe.py sniff IFACE PORT SECONDS FILE
        capture the IPv4 UDP datagrams to PORT seen on IFACE for SECONDS and
        store them in FILE as 4-byte length, 4-byte source address, payload;
        print the count.
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


def _load(path):
    with open(path, "rb") as f:
        blob = f.read()
    payloads = []
    off = 0
    while off < len(blob):
        (n,) = struct.unpack_from(">I", blob, off)
        payloads.append(blob[off + 4:off + 4 + n])
        off += 4 + n
    return payloads


def _sender(src, dst):
    s = socket.socket(_family(dst), socket.SOCK_DGRAM)
    s.bind((src, 0))
    return s


def flood(src, dst, port, path, seconds, fresh="0"):
    payloads = [bytearray(p) for p in _load(path)]
    s = _sender(src, dst)
    to = (dst, int(port))
    end = time.monotonic() + float(seconds)
    sent = 0
    while time.monotonic() < end:
        if fresh == "1":
            now = time.time_ns()
            for p in payloads:
                struct.pack_into(">Q", p, len(p) - 40, now)
        for _ in range(256 // len(payloads) + 1):
            for p in payloads:
                try:
                    s.sendto(p, to)
                    sent += 1
                except OSError:
                    pass
    print(sent, flush=True)


def _udp4(src, dst, port, payload):
    """An IPv4 header and a UDP header (no checksum) before payload."""
    total = 28 + len(payload)
    ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, total, 0, 0, 64, 17, 0, socket.inet_aton(src), socket.inet_aton(dst))
    return ip + struct.pack(">HHHH", 40000, port, 8 + len(payload), 0) + payload


def relay(iface, src, dst, port, seconds, delay):
    # All protocols: on a bridge's port only a tap for every protocol sees a
    # frame before the bridge takes it.
    ETH_P_ALL = 3
    rx = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    rx.bind((iface, 0))
    rx.settimeout(0.05)
    tx = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW)
    want = (socket.inet_aton(src), socket.inet_aton(dst), int(port))
    held = []           # (due, datagram)
    end = time.monotonic() + float(seconds)
    count = 0
    while time.monotonic() < end:
        try:
            frame = rx.recv(65536)
            ip = frame[14:]
            ihl = (ip[0] & 0xF) * 4 if ip else 0
            if (frame[12:14] == b"\x08\x00" and len(ip) >= 28 and ip[9] == 17 and (ip[12:16], ip[16:20], struct.unpack_from(">H", ip, ihl + 2)[0])
                    == want):
                payload = ip[ihl + 8:struct.unpack_from(">H", ip, 2)[0]]
                held.append((time.monotonic() + float(delay), _udp4(src, dst, int(port), payload)))
        except socket.timeout:
            pass
        while held and held[0][0] <= time.monotonic():
            tx.sendto(held.pop(0)[1], (dst, 0))
            count += 1
    print(count, flush=True)


def sniff(iface, port, seconds, path):
    ETH_P_IP = 0x0800
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_IP))
    s.bind((iface, 0))
    s.settimeout(0.2)
    end = time.monotonic() + float(seconds)
    count = 0
    with open(path, "wb") as out:
        while time.monotonic() < end:
            try:
                frame = s.recv(65536)
            except socket.timeout:
                continue
            ip = frame[14:]
            if len(ip) < 28 or ip[0] >> 4 != 4 or ip[9] != 17:
                continue
            ihl = (ip[0] & 0xF) * 4
            dport = struct.unpack_from(">H", ip, ihl + 2)[0]
            if dport != int(port):
                continue
            payload = ip[ihl + 8:struct.unpack_from(">H", ip, 2)[0]]
            out.write(struct.pack(">I", len(payload)) + ip[12:16] + payload)
            count += 1
    print(count, flush=True)


def send(src, dst, port, path, per_second="0"):
    payloads = _load(path)
    s = _sender(src, dst)
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
    {"recv": recv, "send": send, "flood": flood, "sniff": sniff, "relay": relay}[cmd](*args)
