import os
import shutil
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "cluster"))

import zemcluster  # noqa: E402


def _missing_prerequisites():
    if os.geteuid() != 0:
        return "system tests need root (network and PID namespaces)"
    for tool in ("ip", "unshare"):
        if shutil.which(tool) is None:
            return f"system tests need '{tool}' (packages iproute2, util-linux)"
    return None


def pytest_sessionstart(session):
    why = _missing_prerequisites()
    if why:
        if os.environ.get("CI"):
            # In CI a skipped system suite would look green: refuse instead.
            pytest.exit(f"FAILED: {why}", returncode=1)
        return
    zemcluster.install_cleanup_handlers()
    removed = zemcluster.sweep()
    if removed:
        print(f"\nremoved leftovers of earlier runs: {' '.join(removed)}")


def pytest_collection_modifyitems(config, items):
    why = _missing_prerequisites()
    if why:
        for item in items:
            item.add_marker(pytest.mark.skip(reason=why))


def pytest_sessionfinish(session, exitstatus):
    zemcluster.destroy_all()


@pytest.fixture(scope="session")
def tools():
    ctl, daemon = zemcluster.find_tools()
    for what, path in (("zemctl", ctl), ("zemlanhb", daemon)):
        if not path or not os.access(path, os.X_OK):
            pytest.fail(f"{what} not found at '{path}': build it and set ZEM_BUILD "
                        f"(or ZEM_CTL / ZEM_DAEMON)", pytrace=False)
    return ctl, daemon
