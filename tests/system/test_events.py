"""What a subscriber hears of two real nodes (hbint 500 ms, hbto 2000 ms):
"zemctl watch --json" on node2 tells its own daemon's life; "zemctl notify"
on node1 runs the hooks of its etc/notify.d for every event, node2's crash,
stop and restarts among them, with their causes, behind a slow hook and
past one killed over its time limit. The example hook logs to a /dev/log
that is this test's socket (notify in a mount namespace, as in test_syslog)."""

import json
import os
import signal
import socket
import subprocess
import threading
import time

import pytest

from zemcluster.cluster import started
from zemcluster.layout import CNT, LAN4, LAN6
from zemcluster.observe import wait_healthy
from zemcluster.procs import pid_alive, wait_until
from test_syslog import SETUP

HOOKS = {
    # Every event's environment, one line each, and its JSON line.
    "10-record": "env | grep '^ZEM_' | sort | paste -sd '\\t' >>\"$OUT/hooks.env\"; cat >>\"$OUT/hooks.json\"",
    "20-slow": "sleep 0.3",  # far longer than the spacing of one change's events
    # Over the time limit (2 s) once, at the first down notice heard.
    "30-stuck": '[ "$ZEM_CAUSE" != down ] || [ -e "$OUT/stuck" ] || { echo $$ >"$OUT/stuck"; exec sleep 60; }',
}
EXAMPLE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples", "notify-logger")


def text(c, name):
    path = os.path.join(c.dir, name)
    return open(path).read() if os.path.exists(path) else ""


def watched(c):
    return [json.loads(line) for line in text(c, "watch.out").splitlines()]


def hook_records(c):
    """(environment, JSON line) of every event the hooks got, in order."""
    envs = [dict(kv.split("=", 1) for kv in line.split("\t")) for line in text(c, "hooks.env").splitlines()]
    return list(zip(envs, map(json.loads, text(c, "hooks.json").splitlines())))


@pytest.fixture(scope="module")
def pair(tools):
    for c in started(2, tag="ev", hbint=500, hbto=2000):
        hooks = os.path.join(c[1].root, "etc", "notify.d")
        os.makedirs(hooks, mode=0o755)
        for name, body in {**HOOKS, "40-logger": open(EXAMPLE).read()}.items():
            with open(os.path.join(hooks, name), "w") as f:
                f.write(body if body.startswith("#!") else "#!/bin/sh\n" + body + "\n")
            os.chmod(os.path.join(hooks, name), 0o755)
        os.makedirs(os.path.join(c.dir, "log"))
        c.syslog = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        c.syslog.bind(os.path.join(c.dir, "log", "socket"))
        c.logged = []  # drained all along: a full socket would hold the logger
        reader = threading.Thread(target=lambda: c.logged.extend(iter(lambda: c.syslog.recv(1 << 16), b"")))
        reader.start()
        assert not wait_healthy(c, 20)
        run = lambda name, node, cmd, env: subprocess.Popen(  # noqa: E731
            cmd, env={**node.env, **env}, stdout=open(os.path.join(c.dir, name), "w"), stderr=subprocess.STDOUT)
        notify = run("notify.out", c[1], ["unshare", "--mount", "--propagation", "private", "sh", "-c",
                                          SETUP["syslog"] + ' && exec "$0" notify --hook-timeout 2', c.zemctl],
                     {"OUT": c.dir, "D": os.path.join(c.dir, "log")})
        watch = run("watch.out", c[2], [c.zemctl, "watch", "--json"], {})
        try:
            assert wait_until(lambda: hook_records(c) and watched(c), 15), text(c, "notify.out")
            yield c
        finally:
            for p in (notify, watch):
                p.terminate()
                p.wait(15)
            c.syslog.shutdown(socket.SHUT_RDWR)
            reader.join()
        # Stopped in order; and in a sanitizer build, without a report.
        said = text(c, "notify.out") + text(c, "watch.out")
        assert notify.returncode == 0 and "zemctl notify: stopped; " in said, said
        assert "Sanitizer" not in said and "runtime error:" not in said, said


def restart(node):
    if node.running():
        node.wait(15)  # the supervisor of a killed daemon is ending
    node.start()


def test_watch_tells_the_daemons_stall_resume_stop_start_and_disappearance(pair):
    n2 = pair[2]
    first = watched(pair)[0]
    assert (first["event"], first["daemon"]["state"], [p["name"] for p in first["lanhb"]]) == \
        ("start", "running", [LAN4, LAN6]), first
    daemon = lambda: [(e["from"], e["to"], e["cause"]) for e in watched(pair) if e["event"] == "daemon"]  # noqa
    pid = n2.daemon_pid()
    for act, want in ((lambda: os.kill(pid, signal.SIGSTOP), ("running", "stalled", "stall")),
                      (lambda: os.kill(pid, signal.SIGCONT), ("stalled", "running", "resume")),
                      (n2.stop, ("running", "stopped", "detach")),
                      (lambda: restart(n2), ("stopped", "running", "attach")),
                      (lambda: os.kill(n2.daemon_pid(), signal.SIGKILL), ("running", "vanished", "vanish")),
                      (lambda: restart(n2), ("vanished", "running", "attach"))):
        seen = len(daemon())
        act()
        assert wait_until(lambda: daemon()[seen:] == [want], 20, 0.2), daemon()[seen:]
    stall = next(e for e in watched(pair) if e["event"] == "daemon" and e["cause"] == "stall")
    assert stall["stalled_for_ms"] > stall["stall_limit_ms"] == 2500, stall
    assert {(e["host"], e["cluster_name"]) for e in watched(pair)} == {(n2.name, pair.prefix)}
    assert not wait_healthy(pair, 20)


def test_hooks_get_every_event_with_its_cause_in_order_and_a_stuck_one_is_killed(pair):
    n1, n2 = pair[1], pair[2]
    t0 = time.time() * 1000  # events are stamped when seen, however late the hooks get them
    phases = [(lambda: os.kill(n2.daemon_pid(), signal.SIGKILL), "OFFLINE", "timeout"),
              (lambda: restart(n2), "ONLINE", "heartbeat"),
              (n2.stop, "OFFLINE", "down"),
              (lambda: restart(n2), "ONLINE", "heartbeat")]
    for act, to, _ in phases:
        act()
        assert wait_until(lambda: all(p["nodes"][n2.name] == to for k in n1.status().values() for p in k.values()),
                          20, 0.2), n1.status()

    def of_peer(path):
        return [(e, j) for e, j in hook_records(pair) if j["time_ms"] >= t0 and e.get("ZEM_NODE") == n2.name and
                e["ZEM_EVENT"] == "node" and e["ZEM_PATH"] == path]

    # The slow and the stuck hook hold the later events back; all arrive.
    want = [(to, cause) for _, to, cause in phases]
    got = lambda: {p: [(e["ZEM_TO"], e["ZEM_CAUSE"]) for e, _ in of_peer(p)] for p in (LAN4, LAN6, CNT)}  # noqa
    assert wait_until(lambda: all(v == want for v in got().values()), 60, 0.5), got()
    records = hook_records(pair)
    assert not [e for e, _ in records if e["ZEM_EVENT"] == "dropped"]
    assert [j["time_ms"] for _, j in records] == sorted(j["time_ms"] for _, j in records)
    env, line = of_peer(LAN4)[0]
    env = {k: v for k, v in env.items() if k not in n1.env or k == "ZEM_ROOT"}  # the event's, not the harness's
    assert env == {"ZEM_EVENT": "node", "ZEM_KIND": "lanhb", "ZEM_PATH": LAN4, "ZEM_NODE": n2.name,
                   "ZEM_FROM": "ONLINE", "ZEM_TO": "OFFLINE", "ZEM_CAUSE": "timeout",
                   "ZEM_DOWNS": str(line["down_count"]), "ZEM_HOST": n1.name, "ZEM_CLUSTER": pair.prefix,
                   "ZEM_SETTING": "", "ZEM_PID": "", "ZEM_ROOT": n1.root}, env
    paths = {e["ZEM_PATH"] for e, j in records if j["time_ms"] >= t0 and e["ZEM_EVENT"] == "path" and
             e["ZEM_TO"] == "CAUTION" and e["ZEM_CAUSE"] == "timeout"}
    assert paths == {LAN4, LAN6, CNT}, records
    # The example hook's line of the same event: a warning (4) of the daemon facility (3).
    logged = [g.decode(errors="replace") for g in pair.logged]
    said = f"zemlanhb-notify: {pair.prefix}/{n1.name}: lanhb {LAN4} node {n2.name}: ONLINE -> OFFLINE " \
           f"(timeout, downs {line['down_count']})"
    assert [g for g in logged if g.startswith("<28>") and g.endswith(said)], logged
    said = text(pair, "notify.out")
    assert "hook 30-stuck (" in said and "killed: still running after 2 s" in said, said
    assert wait_until(lambda: not pid_alive(int(text(pair, "stuck"))), 5)
