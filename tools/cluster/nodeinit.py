"""Process 1 of a node's PID namespace.

Starts the node's supervisor (the command after "--"), forwards SIGTERM and
SIGINT to it, reaps every process that ends in the namespace (the supervisor,
and the daemon once it has been orphaned and adopted here) and writes one line
per reaped process to the status file:

    child <pid> <how>      the supervisor this process started
    adopted <pid> <how>    any other process, e.g. an orphaned daemon

<how> is "exit:<code>" or "signal:<number>". It exits when no process is left,
with the supervisor's exit code. Being process 1 is what lets an orphaned
daemon see parent id 1, as on a host whose supervisor died.
"""

import os
import signal
import subprocess
import sys


def _how(status):
    if os.WIFSIGNALED(status):
        return f"signal:{os.WTERMSIG(status)}"
    return f"exit:{os.WEXITSTATUS(status)}"


def main(argv):
    if len(argv) < 4 or argv[2] != "--":
        print("usage: nodeinit.py STATUSFILE -- COMMAND...", file=sys.stderr)
        return 2
    statusfile = argv[1]
    child = subprocess.Popen(argv[3:])

    def forward(signum, _frame):
        if child.returncode is None:
            try:
                os.kill(child.pid, signum)
            except ProcessLookupError:
                pass

    signal.signal(signal.SIGTERM, forward)
    signal.signal(signal.SIGINT, forward)

    code = 1
    with open(statusfile, "a", buffering=1) as out:
        out.write(f"started {child.pid}\n")
        while True:
            try:
                pid, status = os.wait()
            except ChildProcessError:
                break
            if pid == child.pid:
                # Popen must not try to reap it again.
                child.returncode = os.waitstatus_to_exitcode(status)
                code = child.returncode if child.returncode >= 0 else 128 - child.returncode
                out.write(f"child {pid} {_how(status)}\n")
            else:
                out.write(f"adopted {pid} {_how(status)}\n")
    return code


if __name__ == "__main__":
    sys.exit(main(sys.argv))
