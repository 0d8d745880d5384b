# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""The version is in the file VERSION; everything else that states it agrees."""
import os
import re
import subprocess

import pytest

from harness import ROOT

VERSION = (ROOT / "VERSION").read_text().rstrip("\n")


def first(pattern, path):
    return re.search(pattern, (ROOT / path).read_text(), re.MULTILINE)[1]


def test_the_version_is_three_numbers():
    assert re.fullmatch(r"\d+\.\d+\.\d+", VERSION)


@pytest.mark.parametrize("program", ["KAVRELD", "KAVRELCTL", "KAVREL_TV"])
def test_each_program_has_the_version(program):
    path = os.environ[program]
    printed = subprocess.run([path, "--version"], capture_output=True, text=True, check=True).stdout
    assert printed == f"{os.path.basename(path)} {VERSION}\n"


def test_the_newest_entries_of_both_changelogs_are_of_the_version():
    assert first(r"^## .*?(\d+\.\d+\.\d+)", "CHANGELOG.md") == VERSION
    assert first(r"^kavrel \((.*)\)", "debian/changelog") == VERSION
