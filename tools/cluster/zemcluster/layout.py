"""Names, paths, priorities and addresses every node of a cluster shares,
and where the harness's helper scripts are."""

import os
import re

HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
NETPROBE = os.path.join(HERE, "netprobe.py")
NODEINIT = os.path.join(HERE, "nodeinit.py")
PREFIX = "zst"
NAME_RE = re.compile(rf"^{PREFIX}(\d+)-")

LAN4 = "lan4"
LAN6 = "lan6"
CNT = "cnt1"
LAN_PATHS = (LAN4, LAN6)
PATH_PRI = {LAN4: 0, LAN6: 1, CNT: 0}
RECV_PORT = 29002
MAXNODE = 32
KEY_FILE = "etc/authkey"      # under each node's root, named in cluster.xml
TRAILER = 40                  # sequence and code after a keyed datagram

# Where the bridges' own addresses sit: an outsider on both wires. The
# receiver matches an IPv4 peer inside the IPv4-mapped text of the source
# address as a substring, so the outsider's address must not contain a node's
# (198.18.0.254 would pass for 198.18.0.2).
OUTSIDER4 = "198.18.0.99"
OUTSIDER6 = "2001:db8::fe"
