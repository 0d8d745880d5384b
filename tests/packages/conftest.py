# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
import os
import tempfile
from pathlib import Path

import pytest

from machine import Machine


@pytest.fixture(scope="session")
def packages():
    """The folder with the packages."""
    return Path(os.environ["PACKAGES"])


@pytest.fixture(scope="session")
def machine():
    """A fresh Debian whose bus is running."""
    with tempfile.TemporaryDirectory(prefix="kavrel-packages.") as folder:
        Path(folder).chmod(0o755)
        machine = Machine(Path(folder))
        machine.install_debian()
        machine.boot()
        yield machine
        machine.shut_down()


@pytest.hookimpl(trylast=True)
def pytest_unconfigure(config):
    """The last line says how many test cases passed and failed; a skipped one is a failed one."""
    reporter = config.pluginmanager.get_plugin("terminalreporter")
    if reporter is None:
        return
    passed, failed = (sum(len(reporter.stats.get(kind, [])) for kind in kinds)
                      for kinds in (["passed"], ["failed", "error", "skipped", "xfailed", "xpassed"]))
    print(f"{passed} passed, {failed} failed")


def pytest_sessionfinish(session):
    if session.config.pluginmanager.get_plugin("terminalreporter").stats.get("skipped"):
        session.exitstatus = 1
