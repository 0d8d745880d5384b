# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
import os
import sys
import tempfile
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))

from machine import Machine  # noqa: E402
from verdict import pytest_sessionfinish, pytest_unconfigure  # noqa: E402, F401


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
