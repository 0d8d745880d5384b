# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the files that kavrel-sound installs: the program, the unit of a user, and the completion."""
import configparser
import os
import subprocess

import pytest


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    folder = tmp_path_factory.mktemp("installed")
    subprocess.run(["meson", "install", "-C", os.environ["KAVREL_BUILD"], "--no-rebuild", "--destdir", folder, "--quiet"],
                   check=True, stdin=subprocess.DEVNULL, capture_output=True)
    return folder / "usr"


def unit_of(installed):
    unit = configparser.ConfigParser(strict=False, interpolation=None)
    unit.optionxform = str
    unit.read(installed / "lib/systemd/user/kavrel-sound.service")
    return unit


def test_each_file_is_in_its_place(installed):
    for path in ("bin/kavrel-sound", "lib/systemd/user/kavrel-sound.service", "share/bash-completion/completions/kavrel-sound",
                 "share/doc/kavrel/sound.md"):
        assert (installed / path).is_file(), path


def test_the_unit_is_valid(installed, tmp_path):
    text = (installed / "lib/systemd/user/kavrel-sound.service").read_text()
    copy = tmp_path / "kavrel-sound.service"
    copy.write_text(text.replace("ExecStart=/usr/", f"ExecStart={installed}/"))
    (tmp_path / "run").mkdir(mode=0o700)
    done = subprocess.run(["systemd-analyze", "--user", "verify", "--man=no", "--recursive-errors=no", copy], check=False,
                          env={**os.environ, "XDG_RUNTIME_DIR": str(tmp_path / "run")}, capture_output=True, text=True)
    assert (done.returncode, done.stderr) == (0, "")


def test_the_unit_starts_the_program_with_the_options_of_the_user(installed):
    service = unit_of(installed)["Service"]
    assert service["ExecStart"] == "/usr/bin/kavrel-sound $KAVREL_SOUND_OPTIONS"
    assert service["Environment"] == "KAVREL_SOUND_OPTIONS="


def test_the_unit_starts_it_again_unless_that_would_not_help(installed):
    service = unit_of(installed)["Service"]
    assert (service["Restart"], service["RestartPreventExitStatus"]) == ("on-failure", "64 77")


def test_a_stop_is_a_success(installed):
    assert unit_of(installed)["Service"]["SuccessExitStatus"] == "143"  # after SIGTERM; see the test of a regular end


def test_the_program_prints_its_version(installed):
    shown = subprocess.run([installed / "bin/kavrel-sound", "--version"], check=True, capture_output=True, text=True)
    assert shown.stdout.startswith("kavrel-sound ")
