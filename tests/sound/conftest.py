# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Fixtures of the tests with real sound. Each test gets a scene and a sound server of its own, once for each server."""
import sys
from pathlib import Path

import pytest

for folder in ("support", "system"):
    sys.path.insert(0, str(Path(__file__).resolve().parents[1] / folder))
pytest.register_assert_rewrite("harness", "servers", "hearing", "bridge")

from harness import Scene  # noqa: E402
from servers import SERVERS  # noqa: E402
from verdict import pytest_sessionfinish, pytest_unconfigure  # noqa: E402, F401

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
