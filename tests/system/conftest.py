"""Fixtures of the system tests: the pieces of a scene, each test with a fresh one."""
import pytest

pytest.register_assert_rewrite("harness")  # before its first import: its asserts explain themselves, too

from harness import Scene  # noqa: E402


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
