# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""kavreld with arguments: it answers and ends, and touches neither the bus nor the TV."""
import os
import subprocess

import pytest

from harness import ROOT


@pytest.fixture
def kavreld(tmp_path):
    def run(*arguments):
        environment = {**os.environ, "KAVREL_TV_DIR": str(tmp_path / "tv"),
                       "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={tmp_path}/no-bus"}
        done = subprocess.run([os.environ["KAVRELD"], *arguments], env=environment, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=60, check=False)
        assert not (tmp_path / "tv").exists()
        return done.returncode, done.stdout, done.stderr
    return run


def test_help_is_shown_on_standard_output(kavreld):
    status, output, errors = kavreld("--help")
    assert (status, errors) == (0, "")
    assert output.startswith("Usage: kavreld [--help | --version]\n")


def test_version_is_the_projects(kavreld):
    assert kavreld("--version") == (0, f"kavreld {(ROOT / 'VERSION').read_text().strip()}\n", "")


@pytest.mark.parametrize("arguments", [["--nonsense"], ["start"], [""], ["--help", "--version"], ["--version", "x"]])
def test_anything_else_is_one_line_on_standard_error_and_status_64(kavreld, arguments):
    assert kavreld(*arguments) == (64, "", "kavreld: it takes no argument except --help or --version\n")


@pytest.mark.parametrize("argument", ["--help", "--version"])
def test_an_answer_that_cannot_be_written_fails(argument):
    with open("/dev/full", "wb") as full:
        assert subprocess.run([os.environ["KAVRELD"], argument], stdout=full, timeout=60, check=False).returncode == 1
