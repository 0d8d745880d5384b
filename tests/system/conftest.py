# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Fixtures of the system tests: the pieces of a scene, each test with a fresh one."""
import signal

import pytest

pytest.register_assert_rewrite("harness")  # before its first import: its asserts explain themselves, too

from harness import Scene  # noqa: E402

# The programs under test inherit what whoever starts the tests ignores: nohup the first, a script's "&" the second.
signal.signal(signal.SIGHUP, signal.SIG_DFL)
signal.signal(signal.SIGINT, signal.default_int_handler)


@pytest.fixture
def scene():
    with Scene() as it:
        yield it


@pytest.fixture
def tv(scene):
    return scene.tv


@pytest.fixture
def daemon(scene):
    """kavreld on the default TV, serving."""
    return scene.start()


@pytest.fixture
def log(daemon):
    return daemon.log


@pytest.fixture
def client(scene):
    """A Python program on the bus."""
    return scene.client()
