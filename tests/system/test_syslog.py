"""The copy to the system log on the real wire: one daemon in a mount and network namespace where the
journal's socket or /dev/log is this test's. lan1 goes ONLINE and NORMAL over the loopback; lan2's own
address is not on the host, so every send to node2 fails to bind (an error)."""

import os
import signal
import socket
import struct
import subprocess
import tempfile
import threading

from zemcluster.layout import PREFIX
from zemcluster.procs import find_tools, run, wait_until

CLUSTER_XML = """<root>
  <cluster><heartbeat><timeout>2000</timeout><interval>500</interval></heartbeat></cluster>
  <heartbeat><nice>0</nice><lanhb name="lan1"><priority>0</priority><device>0</device></lanhb>
    <lanhb name="lan2"><priority>1</priority><device>1</device></lanhb><cnthb name="cnt1"><priority>0</priority></cnthb>
  </heartbeat>
  <lanhb><log><syslog>{copy}</syslog></log></lanhb><cnthb><log><syslog>{copy}</syslog></log></cnthb>
  <server name="node1"><priority>0</priority><device name="0"><info>127.0.0.1</info></device>
    <device name="1"><info>198.18.9.9</info></device></server>
  <server name="node2"><priority>1</priority><device name="1"><info>198.18.9.10</info></device></server>
</root>"""
ONLINE = " *** lan1/node(node1(0)) : ONLINE ***"
# The test's socket as the journal's, or as /dev/log in a /dev of its own.
SETUP = {
    "journal": 'mkdir -p /run/systemd/journal && mount --bind "$D" /run/systemd/journal',
    "syslog": 'mkdir "$D/dev" && touch "$D/dev/null" "$D/dev/log" && mount --bind /dev/null "$D/dev/null" && '
              'mount --bind "$D/socket" "$D/dev/log" && mount --rbind "$D/dev" /dev',
}


def journal_fields(data):
    """NAME=value lines, or NAME, newline, 64-bit little-endian length, bytes, newline."""
    fields = {}
    while data:
        head, _, rest = data.partition(b"\n")
        if b"=" in head:
            name, value = head.split(b"=", 1)
        else:
            size, = struct.unpack_from("<Q", rest)
            name, value, rest = head, rest[8:8 + size], rest[8 + size:]
            assert rest[:1] == b"\n", data
            rest = rest[1:]
        fields.setdefault(name.decode(), value.decode())
        data = rest
    return fields


def run_daemon(how, copy):
    """Datagrams received (drained all along) and both logs of a run up to lan1 NORMAL and a bind failure."""
    zemctl, daemon = find_tools()
    with tempfile.TemporaryDirectory(prefix=f"{PREFIX}{os.getpid()}-syslog-") as tmp:
        root, d = os.path.join(tmp, "root"), os.path.join(tmp, "sock")
        os.makedirs(os.path.join(root, "etc"))
        os.makedirs(d)
        with open(os.path.join(root, "etc", "cluster.xml"), "w") as f:
            f.write(CLUSTER_XML.format(copy=copy))
        with open(os.path.join(root, "etc", "local.xml"), "w") as f:
            f.write("<local><hostname>node1</hostname></local>")
        env = dict(os.environ, ZEM_ROOT=root, D=d)
        run([zemctl, "init"], env=env)
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        sock.bind(os.path.join(d, "socket"))
        grams = []
        reader = threading.Thread(target=lambda: grams.extend(iter(lambda: sock.recv(1 << 16), b"")))
        reader.start()
        script = f'ip link set lo up && mount -t tmpfs tmpfs /run && {SETUP[how]} && exec "$0" run --daemon "$1"'
        proc = subprocess.Popen(["unshare", "--mount", "--net", "--propagation", "private", "sh", "-c", script,
                                 zemctl, daemon], env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        logs = [os.path.join(root, "log", f"{k}.log") for k in ("lanhb", "cnthb")]
        text = lambda: "".join(open(p).read() for p in logs if os.path.exists(p))  # noqa: E731
        try:
            seen = wait_until(lambda: " *** lan1 : NORMAL ***" in text() and "bind failed rsc=(lan2)" in text(), 20)
            proc.send_signal(signal.SIGTERM)
            out = proc.communicate(timeout=30)[0]
            assert seen and proc.returncode == 0, out + text()
            return grams, text()
        finally:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
            sock.shutdown(socket.SHUT_RDWR)
            reader.join()
            sock.close()


def test_journal_gets_errors_state_changes_start_and_stop_with_fields(tools):
    grams, log = run_daemon("journal", 1)
    recs = [journal_fields(g) for g in grams]
    assert all(r["MESSAGE"] in log for r in recs)                  # every copy is a record of the files
    online = next(r for r in recs if r["MESSAGE"] == ONLINE)
    want = dict(PRIORITY="5", ZEM_KIND="lanhb", ZEM_PATH="lan1", ZEM_NODE="node1", ZEM_NODEID="0",
                ZEM_STATE="ONLINE", ZEM_LEVEL="1", SYSLOG_IDENTIFIER="zemlanhb")
    assert {k: online.get(k) for k in want} == want
    assert online["CODE_LINE"].isdigit() and online["CODE_FILE"].endswith(".cpp") and online["CODE_FUNC"]
    normal = next(r for r in recs if r["MESSAGE"] == " *** lan1 : NORMAL ***")
    assert (normal["PRIORITY"], normal["ZEM_PATH"], normal["ZEM_STATE"]) == ("5", "lan1", "NORMAL")
    assert {r["PRIORITY"] for r in recs if r["MESSAGE"].startswith("bind failed rsc=(lan2)")} == {"3"}
    for start_stop in ("lanhb/cnthb starting", "lanhb shutting down"):   # in both logs, sent once
        assert [r["PRIORITY"] for r in recs if r["MESSAGE"] == start_stop] == ["6"], start_stop
    assert {r["ZEM_LEVEL"] for r in recs} <= {"1", "2", "4"}         # detail stays in the files


def test_syslog_gets_the_copy_where_no_journal_runs(tools):
    lines = [g.decode() for g in run_daemon("syslog", 1)[0]]
    # <daemon (3) * 8 + notice (5)>Mmm dd hh:mm:ss zemlanhb[pid]: lanhb: text; errors <27>
    assert any(s.startswith("<29>") and " zemlanhb[" in s and s.endswith(": lanhb: " + ONLINE) for s in lines), lines
    assert any(s.startswith("<27>") and "bind failed rsc=(lan2)" in s for s in lines), lines


def test_key_zero_keeps_the_system_log_out(tools):
    grams, log = run_daemon("journal", 0)
    assert ONLINE in log and "lanhb shutting down" in log and grams == []
