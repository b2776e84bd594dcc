"""Commands and processes, and the clean-up of what a run makes.

Every cluster alive is registered here; destroy_all() removes them all and
is registered for interpreter exit, and SIGTERM/SIGHUP unwind like Ctrl-C so
that it runs. sweep() removes what a run whose process is gone left behind.
"""

import atexit
import os
import shutil
import signal
import subprocess
import tempfile
import threading
import time

from .layout import NAME_RE, PREFIX


class HarnessError(RuntimeError):
    pass


def run(cmd, check=True, env=None, timeout=30, input=None):
    """Run a command; on failure raise with its output."""
    res = subprocess.run(cmd, capture_output=True, text=True, env=env,
                         timeout=timeout, input=input)
    if check and res.returncode != 0:
        raise HarnessError(f"{' '.join(cmd)} -> {res.returncode}\n{res.stdout}{res.stderr}")
    return res


def wait_until(pred, timeout, interval=0.1):
    """Poll pred until it returns something true or timeout passes; return its last value."""
    deadline = time.monotonic() + timeout
    while True:
        value = pred()
        if value or time.monotonic() >= deadline:
            return value
        time.sleep(interval)


def pid_alive(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    except PermissionError:
        return True
    return True


def proc_running(pid):
    """Whether pid exists and is not a zombie."""
    try:
        with open(f"/proc/{pid}/stat") as f:
            stat = f.read()
    except OSError:
        return False
    return stat[stat.rindex(")") + 2:].split()[0] != "Z"


def proc_children(ppid, zombies=False):
    """Global ids of the processes whose parent is ppid (zombies only if asked)."""
    out = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/stat") as f:
                stat = f.read()
        except OSError:
            continue
        fields = stat[stat.rindex(")") + 2:].split()
        if (zombies or fields[0] != "Z") and int(fields[1]) == ppid:
            out.append(int(entry))
    return sorted(out)


def proc_exe(pid):
    try:
        return os.path.basename(os.readlink(f"/proc/{pid}/exe"))
    except OSError:
        return ""


def find_tools():
    """Paths of zemctl and zemlanhb: from ZEM_CTL/ZEM_DAEMON, else from ZEM_BUILD."""
    build = os.environ.get("ZEM_BUILD", "")
    ctl = os.environ.get("ZEM_CTL") or (os.path.join(build, "zemctl") if build else "")
    daemon = os.environ.get("ZEM_DAEMON") or (os.path.join(build, "zemlanhb") if build else "")
    return ctl, daemon


# ---------------------------------------------------------------- clean-up

_live = []
_lock = threading.Lock()


def register(cluster):
    """Makes destroy_all() destroy cluster."""
    with _lock:
        _live.append(cluster)


def unregister(cluster):
    with _lock:
        if cluster in _live:
            _live.remove(cluster)


def destroy_all():
    with _lock:
        clusters = list(_live)
    for c in clusters:
        c.destroy()


_stopping = False


def _on_signal(signum, _frame):
    # Treat SIGTERM and SIGHUP like Ctrl-C: unwind, so that fixtures, finally
    # blocks and finally atexit remove the clusters. Later signals must not
    # cut that clean-up short.
    global _stopping
    if _stopping:
        return
    _stopping = True
    raise KeyboardInterrupt(f"signal {signum}")


def install_cleanup_handlers():
    atexit.register(destroy_all)
    for sig in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(sig, _on_signal)


def netns_list():
    res = run(["ip", "netns", "list"], check=False)
    return [line.split()[0] for line in res.stdout.splitlines() if line.strip()]


def kill_netns(ns):
    """SIGKILL every process in a namespace (by id) and delete the namespace."""
    for _ in range(20):
        pids = run(["ip", "netns", "pids", ns], check=False).stdout.split()
        if not pids:
            break
        for p in pids:
            try:
                os.kill(int(p), signal.SIGKILL)
            except (ProcessLookupError, ValueError):
                pass
        time.sleep(0.05)
    run(["ip", "netns", "del", ns], check=False)


def loops_under(directory):
    """Loop devices bound to a file in directory."""
    if shutil.which("losetup") is None:
        return []
    res = run(["losetup", "--list", "--noheadings", "--raw", "--output", "NAME,BACK-FILE"], check=False)
    rows = [line.split(" ", 1) for line in res.stdout.splitlines()]
    return [row[0] for row in rows if len(row) == 2 and row[1].startswith(directory.rstrip("/") + "/")]


def detach_loops(directory):
    """Detach the loop devices over files in directory (one still open goes at
    its last close); wait a moment for them to go. Returns those still there."""
    for dev in loops_under(directory):
        run(["losetup", "-d", dev], check=False)
    wait_until(lambda: not loops_under(directory), 5, 0.1)
    return loops_under(directory)


def sweep():
    """Remove namespaces, loop devices and directories left by earlier runs of
    this harness whose creating process is gone. Returns the names removed."""
    removed = []
    for ns in netns_list():
        m = NAME_RE.match(ns)
        if m and int(m.group(1)) != os.getpid() and not pid_alive(int(m.group(1))):
            kill_netns(ns)
            removed.append(ns)
    tmp = tempfile.gettempdir()
    for entry in os.listdir(tmp):
        m = NAME_RE.match(entry)
        if m and int(m.group(1)) != os.getpid() and not pid_alive(int(m.group(1))):
            detach_loops(os.path.join(tmp, entry))
            shutil.rmtree(os.path.join(tmp, entry), ignore_errors=True)
            removed.append(entry)
    return removed


def leftovers(owner=None):
    """Namespaces of this harness's naming scheme owned by `owner` (default: us)."""
    owner = os.getpid() if owner is None else owner
    return [ns for ns in netns_list() if ns.startswith(f"{PREFIX}{owner}-")]
