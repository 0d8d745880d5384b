# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""The sources on a 32-bit machine: a fresh Debian of the architecture i386, which an amd64 kernel runs, too."""
import shutil
import subprocess
import tempfile
from pathlib import Path

import pytest

from machine import APT_PATIENCE, configured_debian, network_options

NEEDED = ("dbus-daemon", "g++", "libcli11-dev", "libglib2.0-dev", "libgmock-dev", "libgtest-dev", "libjsoncpp-dev",
          "libpulse-dev", "meson", "ninja-build", "pkg-config", "python3-gi", "python3-pytest")
PROGRAMS = ("src/kavreld", "tools/kavrelctl/kavrelctl", "tools/kavrel-tv/kavrel-tv", "tools/kavrel-sound/kavrel-sound")
BUILD_PATIENCE = 1200  # seconds


class Machine32:
    """Holds a copy of the sources in /kavrel."""

    def __init__(self, root):
        self.root = root

    def install_debian(self, sources):
        """Uses the release alone, because its updates change nothing here and may not be complete for i386."""
        release = configured_debian().splitlines()[0]
        subprocess.run(["mmdebstrap", "--quiet", "--mode=root", "--variant=apt", "--architectures=i386",
                        f"--include={','.join(NEEDED)}", *network_options(), release.split()[2], self.root, "-"],
                       input=release, check=True, text=True, timeout=APT_PATIENCE)
        shutil.copytree(sources, self.root / "kavrel", symlinks=True, ignore=shutil.ignore_patterns("obj-*"))

    def must_run(self, *command):
        done = subprocess.run(["unshare", "--mount", "--pid", "--fork", "--kill-child", f"--mount-proc={self.root}/proc",
                               "chroot", self.root, "env", "-i", "PATH=/usr/bin:/bin", "LC_ALL=C.UTF-8", "linux32",
                               *command], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=BUILD_PATIENCE, check=False)
        assert done.returncode == 0, done.stdout + done.stderr
        return done.stdout


@pytest.fixture(scope="module")
def i386(packages):
    with tempfile.TemporaryDirectory(prefix="kavrel-i386.") as folder:
        machine = Machine32(Path(folder) / "root")
        machine.install_debian(packages / "source")
        yield machine


def test_the_sources_compile_without_warnings_and_the_unit_tests_pass(i386):
    i386.must_run("meson", "setup", "--werror", "--buildtype=debug", "-Dtests=true", "-Dsound=enabled", "/build", "/kavrel")
    i386.must_run("ninja", "-C", "/build", *PROGRAMS)
    assert "ELF32" in i386.must_run("readelf", "--file-header", "/build/src/kavreld")
    said = i386.must_run("meson", "test", "-C", "/build", "--suite", "unit", "--print-errorlogs")  # builds them first
    assert "Fail:               0" in said
