"""Long runs of real clusters that print figures: stress, soak and scale.

  endurance.py stress SECONDS    three nodes while stress-ng saturates both
                                 cores with CPU and disk I/O
  endurance.py soak MINUTES      three nodes with a crash or an orderly
                                 restart of node3 every EVERY seconds
  endurance.py scale SECONDS [--nodes N]
                                 N nodes (default 32) in steady state, then a
                                 crash and an orderly stop
  endurance.py flood SECONDS     two keyed nodes; node1 flooded from node2's
                                 own address by one full-speed sender, with
                                 forged datagrams, then with a replayed one

Interval 500 ms and time-out 2 s throughout. Each run prints what it
measured and exits 1 when a false OFFLINE was seen or a figure is out of
bounds. Needs root, and ZEM_BUILD (or ZEM_CTL/ZEM_DAEMON) like the harness.
"""

from __future__ import annotations

import argparse
import contextlib
import os
import re
import shutil
import signal
import statistics
import subprocess
import sys
import time

from zemcluster.cluster import started
from zemcluster.layout import CNT, LAN4, LAN_PATHS, PATH_PRI
from zemcluster.observe import events, offline_times, paths_seen_by, problems, wait_healthy
from zemcluster.procs import install_cleanup_handlers, sweep
from zemcluster.wire import heartbeat

HBINT = 0.5
HBTO = 2.0
# A crash is seen once the time-out has passed, at the latest one check
# interval and one tick later; a bit more for a loaded machine.
CRASH_WINDOW = (HBTO - HBINT - 0.1, HBTO + HBINT + 1.0)
STOP_LIMIT = 1.0          # an announced stop, on the LAN paths
DELAY_RE = re.compile(r"\((7[1-5])\) [a-z ]+: rsc\((\S+)\) node\((\S+)\) elapsed\((\d+) ticks\) "
                      r"timeout\(\d+ sec\) clock\((\d+)\)")


class Verdict:
    """Collects failed checks; printed and turned into the exit code at the end."""

    def __init__(self):
        self.failures = []

    def check(self, ok, what):
        if not ok:
            self.failures.append(what)
            print(f"  FAILED: {what}")
        return ok

    def exit_code(self, name):
        print(f"\n{name}: {'FAILED' if self.failures else 'passed'}")
        for f in self.failures:
            print(f"  {f}")
        return 1 if self.failures else 0


@contextlib.contextmanager
def cluster(n, **kw):
    yield from started(n, hbint=int(HBINT * 1000), hbto=int(HBTO * 1000), **kw)


def offline_records(c, since, excused=()):
    """OFFLINE records at or after since on every running node, except those
    about (node name, start, end) windows in excused."""
    out = []
    for obs in c.nodes:
        for kind in ("lanhb", "cnthb"):
            for t, line in events(obs, kind, " : OFFLINE ***", since):
                if not any(f"/node({name}(" in line and start <= t <= end for name, start, end in excused):
                    out.append(f"{obs.name}: {line}")
    return out


def delay_records(c, since):
    """(message number, path, node, elapsed ms) of every delay warning at or after since."""
    out = []
    for obs in c.nodes:
        for kind in ("lanhb", "cnthb"):
            for _, line in events(obs, kind, "delay warning(", since):
                m = DELAY_RE.search(line)
                if m:
                    out.append((int(m.group(1)), m.group(2), m.group(3),
                                int(m.group(4)) * 1000 / int(m.group(5))))
    return out


def proc_sample(pid):
    """Open descriptors, threads, resident kB and CPU ticks of a process."""
    with open(f"/proc/{pid}/status") as f:
        status = dict(line.split(":", 1) for line in f if ":" in line)
    with open(f"/proc/{pid}/stat") as f:
        stat = f.read()
    fields = stat[stat.rindex(")") + 2:].split()
    return {"fds": len(os.listdir(f"/proc/{pid}/fd")), "threads": int(status["Threads"]),
            "rss": int(status["VmRSS"].split()[0]), "cpu": int(fields[11]) + int(fields[12])}


def udp_datagrams(c, node):
    """UDP datagrams (in, out) of the node's namespace so far, both families."""
    res = c.ns_exec(node.ns, ["cat", "/proc/net/snmp", "/proc/net/snmp6"])
    lines = res.stdout.splitlines()
    in_ = out = 0
    for i, line in enumerate(lines[:-1]):
        if line.startswith("Udp: ") and lines[i + 1].startswith("Udp: ") and "InDatagrams" in line:
            row = dict(zip(line.split()[1:], map(int, lines[i + 1].split()[1:])))
            in_ += row["InDatagrams"]
            out += row["OutDatagrams"]
    for line in lines:
        parts = line.split()
        if len(parts) == 2 and parts[0] in ("Udp6InDatagrams", "Udp6OutDatagrams"):
            if parts[0] == "Udp6InDatagrams":
                in_ += int(parts[1])
            else:
                out += int(parts[1])
    return in_, out


def spread(values, fmt="{:.2f}"):
    values = sorted(values)
    if not values:
        return "none"
    return (f"min {fmt.format(values[0])}  median {fmt.format(statistics.median(values))}  "
            f"max {fmt.format(values[-1])}")


def crash(c, victim, observers, v):
    """SIGKILL the victim's daemon; check every observer sees it on every path
    within the window. Returns (kill time, detection times)."""
    pid = victim.daemon_pid()
    t0 = time.time()
    os.kill(pid, signal.SIGKILL)
    paths = {o.name: paths_seen_by(o, victim) for o in observers}
    times = {}
    for o in observers:
        times.update(offline_times([o], victim, paths[o.name], t0, HBTO + 10))
    expected = sum(len(p) for p in paths.values())
    inside = [dt for dt in times.values() if CRASH_WINDOW[0] <= dt <= CRASH_WINDOW[1]]
    print(f"  crash of {victim.name}: seen on {len(times)}/{expected} (peer, path) pairs, "
          f"{spread(times.values())} s")
    v.check(len(inside) == expected,
            f"crash of {victim.name}: {expected - len(inside)} of {expected} pairs outside "
            f"[{CRASH_WINDOW[0]:.1f}, {CRASH_WINDOW[1]:.1f}] s")
    return t0, times


def orderly_stop(c, victim, observers, v):
    """Stop the victim in order; every observer must see it on the LAN paths
    within STOP_LIMIT. Returns the stop time."""
    t0 = time.time()
    v.check(victim.stop() == 0, f"orderly stop of {victim.name} did not end with 0")
    times = offline_times(observers, victim, LAN_PATHS, t0, 5)
    expected = len(observers) * len(LAN_PATHS)
    inside = [dt for dt in times.values() if dt <= STOP_LIMIT]
    print(f"  orderly stop of {victim.name}: seen on {len(times)}/{expected} (peer, LAN path) pairs, "
          f"{spread(times.values(), '{:.3f}')} s")
    v.check(len(inside) == expected,
            f"orderly stop of {victim.name}: {expected - len(inside)} of {expected} pairs not within "
            f"{STOP_LIMIT} s")
    return t0


def restart(c, node, v):
    if node.running() and node.daemon_pid() is None:
        node.wait(15)       # a supervisor whose daemon died is ending
    node.start()
    left = wait_healthy(c, 30)
    v.check(not left, f"{node.name} did not rejoin: {left[:5]}")
    return time.time()


# ------------------------------------------------------------------ stress

def stress(args):
    v = Verdict()
    if not shutil.which("stress-ng"):
        print("stress needs stress-ng (Debian package stress-ng)")
        return 1
    # Rate 30: every heartbeat gap above 600 ms is logged with its length.
    with cluster(3, tag="stress", warnrate=30) as c:
        v.check(not wait_healthy(c, 20), "not converged before the stress")
        t0 = time.time()
        cmd = ["stress-ng", "--cpu", str(os.cpu_count() or 2), "--hdd", "1", "--hdd-bytes", "256M", "--hdd-opts", "fsync",
               "--temp-path", c.dir, "--timeout", f"{args.seconds}s", "--metrics-brief"]
        print(f"stress: {' '.join(cmd)}")
        res = subprocess.run(cmd, capture_output=True, text=True, timeout=args.seconds + 120)
        v.check(res.returncode == 0, f"stress-ng ended with {res.returncode}: {res.stderr[-500:]}")
        bogo = [line for line in res.stderr.splitlines() if re.search(r"\] (cpu|hdd) ", line)]
        for line in bogo:
            print("  " + line.split("] ", 1)[-1])
        time.sleep(HBINT * 2)
        false_off = offline_records(c, t0)
        delays = delay_records(c, t0)
        gaps = [ms for no, _, _, ms in delays if no == 71]
        left = problems(c)
        print(f"  {args.seconds} s of stress-ng on {os.cpu_count()} cores, daemons at nice -20")
        print(f"  false OFFLINE: {len(false_off)}")
        print(f"  delay warnings (threshold 30% of the time-out = {HBTO * 300:.0f} ms): {len(delays)}"
              f" ({len([d for d in delays if d[0] == 71])} heartbeat gaps)")
        if gaps:
            print(f"  largest heartbeat gap: {max(gaps):.0f} ms of a {HBTO * 1000:.0f} ms time-out "
                  f"({max(gaps) / HBTO / 10:.0f}%)")
        else:
            print(f"  largest heartbeat gap: below {HBTO * 300:.0f} ms (no gap warning) "
                  f"of a {HBTO * 1000:.0f} ms time-out")
        v.check(not false_off, f"false OFFLINE: {false_off[:5]}")
        v.check(not left, f"unhealthy after the stress: {left[:5]}")
    return v.exit_code("stress")


# ------------------------------------------------------------------ soak

def log_sizes(c):
    return {f"{n.name}/{os.path.basename(p)}": os.path.getsize(p)
            for n in c.nodes for kind in ("lanhb", "cnthb") for p in n.log_files(kind)}


def soak(args):
    v = Verdict()
    logsize = args.logsize
    with cluster(3, tag="soak", loglevel=8, logsize=logsize) as c:
        v.check(not wait_healthy(c, 20), "not converged at the start")
        n1, n2, n3 = c.nodes
        start = time.time()
        end = start + args.minutes * 60
        samples = {n.name: [] for n in c.nodes}     # (minute, pid, sample)
        excused = []
        crashes = stops = 0
        next_event = start + args.every
        next_sample = start
        biggest = 0
        false_off = []
        checked = start
        while True:
            now = time.time()
            if now >= next_sample:
                minute = round((now - start) / 60)
                for n in c.nodes:
                    pid = n.daemon_pid()
                    if pid:
                        samples[n.name].append((minute, pid, proc_sample(pid)))
                # Rotation drops old records: look for false OFFLINE as we go.
                false_off += offline_records(c, checked, excused)
                checked = now
                sizes = log_sizes(c)
                biggest = max([biggest, *sizes.values()])
                over = {k: s for k, s in sizes.items() if s > logsize}
                v.check(not over, f"log files past their size {logsize}: {over}")
                next_sample += 60
            if now >= end:
                break
            if now >= next_event:
                if (crashes + stops) % 2 == 0:
                    t0, _ = crash(c, n3, [n1, n2], v)
                    crashes += 1
                else:
                    t0 = orderly_stop(c, n3, [n1, n2], v)
                    stops += 1
                excused.append((n3.name, t0, restart(c, n3, v)))
                next_event = time.time() + args.every
            time.sleep(max(0.0, min(next_sample, next_event, end) - time.time()))
        false_off += offline_records(c, checked, excused)
        print(f"\nsoak: {args.minutes} min, {crashes} crashes and {stops} orderly restarts of node3")
        print("  per daemon, sampled each minute (fds threads rss-kB):")
        for name, rows in samples.items():
            for pid in dict.fromkeys(p for _, p, _ in rows):
                mine = [(m, s) for m, p, s in rows if p == pid]
                cells = " | ".join(f"{m:2d}: {s['fds']} {s['threads']} {s['rss']}" for m, s in mine)
                print(f"  {name} pid {pid}: {cells}")
        for n in (n1, n2):          # up for the whole run
            rows = [s for _, p, s in samples[n.name]]
            if len(rows) < 3:
                continue
            settled = rows[1:]      # the first minute still fills caches
            v.check(len({s["fds"] for s in settled}) == 1, f"{n.name}: open descriptors changed")
            threads = [s["threads"] for s in settled]
            v.check(max(threads) - min(threads) <= 4, f"{n.name}: threads {threads}")
            v.check(settled[-1]["rss"] - settled[0]["rss"] <= 2048,
                    f"{n.name}: resident memory grew {settled[0]['rss']} -> {settled[-1]['rss']} kB")
        rotated = [k for k in log_sizes(c) if k.endswith(".1")]
        print(f"  logs: level 8, size {logsize} bytes; largest file seen {biggest} bytes; "
              f"rotated: {len(rotated)} of 6 logs")
        v.check(rotated, "no log rotated: the size check proved nothing")
        print(f"  false OFFLINE: {len(false_off)}")
        v.check(not false_off, f"false OFFLINE: {false_off[:5]}")
    return v.exit_code("soak")


# ------------------------------------------------------------------ scale

def scale(args):
    v = Verdict()
    n = args.nodes
    t_setup = time.time()
    with cluster(n, tag="scale") as c:
        t_up = time.time()
        left = wait_healthy(c, 120)
        print(f"scale: {n} nodes, paths {', '.join(LAN_PATHS)} (IPv4, IPv6) and {CNT}")
        print(f"  set up and started in {t_up - t_setup:.1f} s, converged {time.time() - t_up:.1f} s later")
        v.check(not left, f"not converged: {len(left)} problems, e.g. {left[:5]}")
        t0 = time.time()
        before = {m.name: (proc_sample(m.daemon_pid())["cpu"], udp_datagrams(c, m)) for m in c.nodes}
        time.sleep(args.seconds)
        t1 = time.time()
        after = {m.name: (proc_sample(m.daemon_pid())["cpu"], udp_datagrams(c, m)) for m in c.nodes}
        tck = os.sysconf("SC_CLK_TCK")
        cpu = [100 * (after[k][0] - before[k][0]) / tck / (t1 - t0) for k in before]
        rx = [(after[k][1][0] - before[k][1][0]) / (t1 - t0) for k in before]
        tx = [(after[k][1][1] - before[k][1][1]) / (t1 - t0) for k in before]
        false_off = offline_records(c, t0)
        left = problems(c)
        print(f"  steady state {t1 - t0:.0f} s:")
        print(f"    CPU per daemon (% of one core): {spread(cpu)}")
        print(f"    datagrams received per node per second: {spread(rx, '{:.0f}')}")
        print(f"    datagrams sent per node per second:     {spread(tx, '{:.0f}')}")
        print(f"    false OFFLINE: {len(false_off)}")
        v.check(not false_off, f"false OFFLINE in steady state: {false_off[:5]}")
        v.check(not left, f"unhealthy after the steady state: {left[:5]}")
        victim, stopped = c.nodes[-1], c.nodes[-2]
        crash(c, victim, c.nodes[:-1], v)
        orderly_stop(c, stopped, c.nodes[:-2], v)
    return v.exit_code("scale")


# ------------------------------------------------------------------ flood

def flood(args):
    """What no address filter can stop: datagrams from a member's own address
    at one sender's full speed. First keyed ones with a fresh sequence and a
    wrong code (each costs the receiver its code check), then one genuine
    datagram of node2 replayed. No OFFLINE and no heartbeat gap may show."""
    v = Verdict()
    with cluster(2, tag="flood", key=True) as c:
        v.check(not wait_healthy(c, 20), "not converged before the flood")
        n1, n2 = c.nodes
        got = c.sniff_result(c.sniff_start(n1, 2))
        genuine = [p for src, p in got if src == n2.ip4 and p.startswith(b"lanhb")][:1]
        forged = heartbeat(n2.pri, PATH_PRI[LAN4]) + bytes(8) + os.urandom(32)
        v.check(genuine, "no genuine datagram of node2 captured")
        print(f"flood: node1 from node2's address {n2.ip4}, {args.seconds} s each, one sender at full speed")
        for what, payloads, send in (("keyed, wrong code", [forged], c.flood_fresh),
                                     ("genuine, replayed", genuine, c.flood)):
            pid = n1.daemon_pid()
            before, cpu0, t0 = n1.refused(), proc_sample(pid)["cpu"], time.time()
            sent = send(n2.ns, n2.ip4, n1.ip4, payloads, args.seconds)
            spent = time.time() - t0
            time.sleep(HBINT * 2)
            grown = {k: n1.refused().get(k, 0) - before.get(k, 0) for k in before}
            cpu = 100 * (proc_sample(pid)["cpu"] - cpu0) / os.sysconf("SC_CLK_TCK") / spent
            taken = sum(n for k, n in grown.items() if k != "filter")
            offline = offline_records(c, t0)
            gaps = [d for d in delay_records(c, t0) if d[0] == 71]
            print(f"  {what}: sent {sent / spent:,.0f}/s; node1 refused {taken / spent:,.0f}/s "
                  f"({', '.join(f'{k} {n}' for k, n in grown.items() if n)}), daemon {cpu:.0f} % of a core; "
                  f"OFFLINE {len(offline)}, heartbeat gap warnings {len(gaps)}")
            v.check(not offline, f"{what}: OFFLINE during the flood: {offline[:5]}")
            v.check(not gaps, f"{what}: heartbeat gaps during the flood: {gaps[:5]}")
        v.check(not problems(c), f"unhealthy after the flood: {problems(c)[:5]}")
    return v.exit_code("flood")


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = ap.add_subparsers(dest="cmd", required=True)
    p = sub.add_parser("stress")
    p.add_argument("seconds", type=int)
    p = sub.add_parser("soak")
    p.add_argument("minutes", type=float)
    p.add_argument("--every", type=float, default=150, help="seconds between crash/restart events")
    p.add_argument("--logsize", type=int, default=200000, help="rotation size of the logs, bytes")
    p = sub.add_parser("scale")
    p.add_argument("seconds", type=int)
    p.add_argument("--nodes", type=int, default=32)
    p = sub.add_parser("flood")
    p.add_argument("seconds", type=int)
    args = ap.parse_args()
    install_cleanup_handlers()
    sweep()
    return {"stress": stress, "soak": soak, "scale": scale, "flood": flood}[args.cmd](args)


if __name__ == "__main__":
    sys.exit(main())
