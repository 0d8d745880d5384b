# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""For a conftest.py of tests that pytest runs alone, without meson: the verdict in the last line."""
import pytest


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
