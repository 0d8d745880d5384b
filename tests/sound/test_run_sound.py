# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests ./run sound on a headless server, and on the server of a machine, which it leaves as it found it."""
import os
import subprocess

import pytest

from harness import ROOT

PATIENCE = 180  # seconds, for the tour


def run(*command, **changes):
    foreign = ("KAVREL_TV_DIR", "DBUS_SYSTEM_BUS_ADDRESS", "KAVREL_SCENES", "KAVREL_LOG", "PULSE_SERVER")
    own = {key: value for key, value in os.environ.items() if key not in foreign}
    return subprocess.run([str(ROOT / "run"), "sound", *command], env={**own, **changes}, stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=PATIENCE, check=False)


def test_the_tour_passes_on_a_headless_server():
    done = run("--headless", "kavrel-tv", "tour", "--fast")
    assert done.returncode == 0, done.stdout + done.stderr
    assert "  ok  " in done.stdout and "failed" not in done.stdout


def test_a_command_finds_the_tools_and_the_headless_server(tmp_path):
    done = run("--headless", "sh", "-c", "pactl get-default-sink; kavrel-sound outputs; echo $PULSE_SERVER; echo $PULSE_COOKIE",
               HOME=str(tmp_path), XDG_CONFIG_HOME=str(tmp_path))
    assert done.returncode == 0, done.stderr
    lines = done.stdout.splitlines()
    assert lines[0] == "kavrel"
    assert lines[-2].startswith("unix:") and not os.path.exists(lines[-1])
    assert os.listdir(tmp_path) == []  # not even a cookie of libpulse


def test_without_a_server_it_says_so_and_takes_a_headless_one(tmp_path):
    done = run("true", PULSE_SERVER=f"unix:{tmp_path}/none")
    assert done.returncode == 0, done.stderr
    assert done.stderr.splitlines()[0] == "./run: this machine has no sound server; a headless one plays to nobody"


@pytest.mark.parametrize("status", [0, 3])
def test_the_server_of_the_machine_is_left_as_it_was(server, status):
    before = server.inventory()
    done = run("sh", "-c", f"pactl list short sinks; exit {status}", **server.environment(), PULSE_SERVER=server.address)
    assert done.returncode == status, done.stderr
    assert "\tkavrel\t" in done.stdout
    assert server.inventory() == before
