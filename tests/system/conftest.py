import os
import shutil
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "cluster"))

from zemcluster.procs import destroy_all, find_tools, install_cleanup_handlers, sweep  # noqa: E402

# Network and PID namespaces need root, ip (iproute2) and unshare (util-linux).
MISSING = ("system tests need root" if os.geteuid() != 0 else
           next((f"system tests need '{t}'" for t in ("ip", "unshare") if shutil.which(t) is None), None))


def pytest_sessionstart(session):
    if MISSING and os.environ.get("CI"):
        pytest.exit(f"FAILED: {MISSING}", returncode=1)     # in CI a skipped suite would look green
    if not MISSING:
        install_cleanup_handlers()
        sweep()


def pytest_collection_modifyitems(config, items):
    for item in items if MISSING else []:
        item.add_marker(pytest.mark.skip(reason=MISSING))


def pytest_sessionfinish(session, exitstatus):
    destroy_all()


@pytest.fixture(scope="session")
def tools():
    for what, path in zip(("zemctl", "zemlanhb"), find_tools()):
        if not path or not os.access(path, os.X_OK):
            pytest.fail(f"{what} not found at '{path}': build it and set ZEM_BUILD (or ZEM_CTL / ZEM_DAEMON)",
                        pytrace=False)
