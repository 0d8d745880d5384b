# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Fixtures of the tests with real sound. Each test gets a scene and a sound server of its own, once for each server."""
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "system"))
pytest.register_assert_rewrite("harness", "servers", "hearing", "bridge")

from harness import Scene  # noqa: E402
from servers import SERVERS  # noqa: E402

MEASURED = []  # (test, text)


@pytest.fixture
def scene():
    with Scene() as it:
        yield it


@pytest.fixture
def tv(scene):
    return scene.tv


@pytest.fixture(params=SERVERS)
def server(request, scene):
    """A sound server that runs."""
    return SERVERS[request.param](scene).start()


@pytest.fixture
def sound(scene, server):
    """A daemon beside the sound server; its bridge is not started yet."""
    from bridge import Sound
    return Sound(scene, server)


@pytest.fixture
def say(request):
    """Keeps a line for the end of the run."""
    return lambda text: MEASURED.append(f"{request.node.name}: {text}")


def pytest_terminal_summary(terminalreporter):
    terminalreporter.section("measured")
    for line in MEASURED:
        terminalreporter.write_line(line)


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
