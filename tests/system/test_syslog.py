"""The copy of the daemon's records to the system log, on the real wire: one
daemon alone ("zemctl init", "zemctl run") in a mount and network namespace
of its own, where /run/systemd/journal/socket or /dev/log is a socket of this
test. Path lan1 carries the own heartbeat over the loopback (ONLINE, then
NORMAL); on lan2 the own address is not on the host, so every send to node2
fails to bind (an error)."""

import os
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time

import pytest

import zemcluster
from zemcluster import wait_until

CLUSTER_XML = """<?xml version="1.0"?>
<root>
  <cluster><heartbeat><timeout>2000</timeout><interval>500</interval></heartbeat></cluster>
  <heartbeat><nice>0</nice>
    <lanhb name="lan1"><priority>0</priority><device>0</device></lanhb>
    <lanhb name="lan2"><priority>1</priority><device>1</device></lanhb>
    <cnthb name="cnt1"><priority>0</priority></cnthb>
  </heartbeat>
  <lanhb><log><syslog>{copy}</syslog></log></lanhb>
  <cnthb><log><syslog>{copy}</syslog></log></cnthb>
  <server name="node1"><priority>0</priority>
    <device name="0"><info>127.0.0.1</info></device>
    <device name="1"><info>198.18.9.9</info></device>
  </server>
  <server name="node2"><priority>1</priority><device name="1"><info>198.18.9.10</info></device></server>
</root>
"""
ONLINE = " *** lan1/node(node1(0)) : ONLINE ***"

# Inside the namespaces: loopback up, an empty /run, and the test's socket
# as the journal's or as /dev/log (over a /dev of its own that keeps null).
SETUP = {
    "journal": "mount -t tmpfs tmpfs /run && mkdir -p /run/systemd/journal && "
               "mount --bind \"$SOCKDIR\" /run/systemd/journal",
    "syslog": "mount -t tmpfs tmpfs /run && mkdir \"$SOCKDIR/dev\" && touch \"$SOCKDIR/dev/null\" \"$SOCKDIR/dev/log\" && "
              "mount --bind /dev/null \"$SOCKDIR/dev/null\" && mount --bind \"$SOCKDIR/socket\" \"$SOCKDIR/dev/log\" && "
              "mount --rbind \"$SOCKDIR/dev\" /dev",
}


def journal_fields(data):
    """The fields of one native-protocol datagram: NAME=value lines, or NAME,
    a newline, a 64-bit little-endian length, the bytes and a newline."""
    fields = {}
    while data:
        nl = data.index(b"\n")
        head = data[:nl]
        if b"=" in head:
            name, value = head.split(b"=", 1)
            data = data[nl + 1:]
        else:
            size, = struct.unpack_from("<Q", data, nl + 1)
            name, value = head, data[nl + 9:nl + 9 + size]
            assert data[nl + 9 + size:nl + 10 + size] == b"\n", data
            data = data[nl + 10 + size:]
        fields.setdefault(name.decode(), value.decode())
    return fields


def receive(sock, out):
    """Appends every datagram until the socket is shut down; one passed as a
    descriptor (a big entry) is read from it."""
    while True:
        data, fds, _, _ = socket.recv_fds(sock, 1 << 16, 4)
        if not data and not fds:
            return
        for fd in fds:
            with os.fdopen(fd, "rb") as f:
                data += f.read()
        out.append(data)


def run_daemon(tools, how, copy):
    """Runs the daemon until lan1 is NORMAL and a send failed, stops it in
    order; returns the datagrams the socket got and both logs."""
    zemctl, daemon = tools
    with tempfile.TemporaryDirectory(prefix=f"{zemcluster.PREFIX}{os.getpid()}-syslog-") as tmp:
        root, sockdir = os.path.join(tmp, "root"), os.path.join(tmp, "sock")
        os.makedirs(os.path.join(root, "etc"))
        os.makedirs(sockdir)
        with open(os.path.join(root, "etc", "cluster.xml"), "w") as f:
            f.write(CLUSTER_XML.format(copy=copy))
        with open(os.path.join(root, "etc", "local.xml"), "w") as f:
            f.write("<local><hostname>node1</hostname></local>\n")
        env = dict(os.environ, ZEM_ROOT=root, SOCKDIR=sockdir)
        zemcluster.run([zemctl, "init"], env=env)
        # Drained all along: the daemon drops a copy rather than wait for
        # a reader that has fallen behind.
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        sock.bind(os.path.join(sockdir, "socket"))
        grams = []
        reader = threading.Thread(target=receive, args=(sock, grams))
        reader.start()
        logs = [os.path.join(root, "log", f"{kind}.log") for kind in ("lanhb", "cnthb")]
        script = f"ip link set lo up && {SETUP[how]} && exec \"$0\" run --daemon \"$1\""
        proc = subprocess.Popen(["unshare", "--mount", "--net", "--propagation", "private",
                                 "sh", "-c", script, zemctl, daemon], env=env,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        try:
            def text():
                return "".join(open(log).read() for log in logs if os.path.exists(log))
            seen = wait_until(lambda: " *** lan1 : NORMAL ***" in text() and "bind failed rsc=(lan2)" in text(), 20)
            proc.send_signal(signal.SIGTERM)
            out = proc.communicate(timeout=30)[0]
            assert seen and proc.returncode == 0, out + text()
            time.sleep(0.2)
            return list(grams), text()
        finally:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
            sock.shutdown(socket.SHUT_RDWR)
            reader.join()
            sock.close()


@pytest.fixture(scope="module")
def tools():
    missing = [t for t in ("unshare", "mount", "ip") if not shutil.which(t)]
    if missing:
        (pytest.fail if os.environ.get("CI") else pytest.skip)(f"missing {missing}")
    return zemcluster.find_tools()


def test_journal_gets_state_changes_errors_start_and_stop_with_their_fields(tools):
    grams, log = run_daemon(tools, "journal", 1)
    recs = [journal_fields(g) for g in grams]
    by_text = {}
    for r in recs:
        by_text.setdefault(r["MESSAGE"], []).append(r)
    # Every copy is a record of the file, word for word.
    assert all(r["MESSAGE"] in log for r in recs), [r["MESSAGE"] for r in recs if r["MESSAGE"] not in log]
    online = by_text[ONLINE][0]
    assert {k: online.get(k) for k in ("PRIORITY", "ZEM_KIND", "ZEM_PATH", "ZEM_NODE", "ZEM_NODEID", "ZEM_STATE",
                                       "ZEM_LEVEL", "SYSLOG_IDENTIFIER")} == {
        "PRIORITY": "5", "ZEM_KIND": "lanhb", "ZEM_PATH": "lan1", "ZEM_NODE": "node1", "ZEM_NODEID": "0",
        "ZEM_STATE": "ONLINE", "ZEM_LEVEL": "1", "SYSLOG_IDENTIFIER": "zemlanhb"}, online
    assert online["CODE_LINE"].isdigit() and online["CODE_FILE"].endswith(".cpp") and online["CODE_FUNC"], online
    normal = by_text[" *** lan1 : NORMAL ***"][0]
    assert (normal["PRIORITY"], normal["ZEM_PATH"], normal["ZEM_STATE"]) == ("5", "lan1", "NORMAL"), normal
    bind = [r for r in recs if r["MESSAGE"].startswith("bind failed rsc=(lan2)")]
    assert bind and all(r["PRIORITY"] == "3" for r in bind), bind
    # Written to both logs, sent once.
    for text in ("lanhb/cnthb starting", "lanhb shutting down"):
        assert [r["PRIORITY"] for r in by_text.get(text, [])] == ["6"], (text, by_text.keys())
    # Detail (level 8) stays in the file.
    assert not [r for r in recs if r["ZEM_LEVEL"] not in ("1", "2", "4")], recs


def test_syslog_gets_the_copy_where_no_journal_runs(tools):
    grams, _ = run_daemon(tools, "syslog", 1)
    lines = [g.decode() for g in grams]
    # <facility daemon (3) * 8 + notice (5)>, time stamp, tag[pid]: log: text
    online = [line for line in lines if line.endswith(": lanhb: " + ONLINE)]
    assert online and online[0].startswith("<29>") and " zemlanhb[" in online[0], lines
    assert any(line.startswith("<27>") and "bind failed rsc=(lan2)" in line for line in lines), lines


def test_key_zero_keeps_the_system_log_out(tools):
    grams, log = run_daemon(tools, "journal", 0)
    assert ONLINE in log and "lanhb shutting down" in log
    assert grams == []
