# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Fixtures of the system tests. Each test gets its own scene."""
import signal

import pytest

pytest.register_assert_rewrite("harness")  # before its first import, so that its failed asserts show their values

from harness import Scene  # noqa: E402

# The programs under test must not ignore these signals. They would inherit that from nohup, which ignores the first, or
# from a shell script's "&", which ignores the second.
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
    """A kavreld that serves on the default TV."""
    return scene.start()


@pytest.fixture
def log(daemon):
    return daemon.log


@pytest.fixture
def client(scene):
    """A client on the bus, in this process."""
    return scene.client()
