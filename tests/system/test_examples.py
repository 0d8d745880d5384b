# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the examples: builds the C one from an installation alone, and runs the volume bar of each language."""
import os
import shutil
import subprocess

import pytest

from harness import ROOT, change_route
from impostor import Impostor
from installation import install, pkg_config_path
from view import View

LANGUAGES = {"python": ["/usr/bin/python3", "volume-bar.py"], "c": ["./volume-bar"], "shell": ["bash", "volume-bar.sh"]}

OPTICAL, HDMI, WITHOUT_VOLUME = 1, 2, 16
HDMI_STATE = {"volume_support_hdmi": 15, "get_volume_level_hdmi": 40, "get_volume_mute_hdmi": 0}
MIRRORING = "settings/memory/menu/network/screenmirroring"
ABSENT = "kavreld is not on the bus"
NO_VOLUME = "this output has no volume"
UNSUPPORTED = "volume unknown: the output does not support it (-4)"
REFUSED = "volume unknown: the TV refuses it (-1002)"
BUSY = "volume unknown: it failed, or the daemon was busy (-1)"
UNPUBLISHED = "volume unknown: the output has published none"


def bar_line(volume, suffix=""):
    blocks = volume // 5 * "#"
    return f"[{blocks:.<20}] {volume:3}%{suffix}"


@pytest.fixture(scope="module")
def examples(tmp_path_factory):
    """A copy of the examples with the C one built."""
    root = tmp_path_factory.mktemp("installed")
    install(root)
    folder = root / "examples"
    shutil.copytree(ROOT / "examples", folder)
    subprocess.run(["make", "CFLAGS=-O1 -Wall -Wextra -Wpedantic -Werror"], cwd=folder, check=True,
                   env={**os.environ, "PKG_CONFIG_PATH": str(pkg_config_path(root))})
    return folder


@pytest.fixture(params=LANGUAGES)
def start_bar(request, examples, scene):
    """Starts the volume bar of one language."""
    def start():
        bar = View(scene.environment(), *LANGUAGES[request.param], cwd=examples)
        scene.callback(bar.end)
        return bar

    return start


def test_a_bar_follows_volume_mute_outputs_and_restarts(start_bar, scene, tv, client):
    bar = start_bar()
    assert bar.read_line() == ABSENT
    daemon = scene.start()
    assert bar.read_line() == bar_line(10)

    client.set_volume(30)
    assert bar.read_line() == bar_line(30)
    client.set_mute(True)
    assert bar.read_line() == bar_line(30, " muted")
    client.set_mute(False)
    assert bar.read_line() == bar_line(30)

    for key, value in HDMI_STATE.items():
        tv.echo(value, f"{MIRRORING}/{key}")
    change_route(tv, daemon.log, HDMI)
    change_route(tv, daemon.log, WITHOUT_VOLUME, previous=HDMI)
    client.emit("BudsDisconnected", "i", 1)  # the daemon requests HDMI, but nobody switches to it
    assert bar.read_line() == NO_VOLUME
    change_route(tv, daemon.log, HDMI, previous=WITHOUT_VOLUME)
    tv.echo(41, f"{MIRRORING}/get_volume_level_hdmi")
    assert bar.read_line() == bar_line(41)

    daemon.kill()
    assert bar.read_line() == ABSENT
    tv.echo(OPTICAL, "sound/route")
    scene.start()
    assert bar.read_line() == UNSUPPORTED


def test_a_bar_asks_a_busy_daemon_again_and_gives_up(start_bar, scene):
    impostor = Impostor(scene.client(), GetSpeakerVolume=[(0, -1), Impostor.TOO_MUCH, (30, 0), (0, -1002)] + [(0, -1)] * 6,
                        GetSpeakerMute=[(0, -1), (1, 0)], GetSpeakerSupportType=[(0, -1), (15, 0)])
    bar = start_bar()
    assert bar.read_line() == bar_line(30, " muted")
    impostor.emit("SpeakerVolumeChanged", "(ii)", 15, -1)
    assert bar.read_line() == UNPUBLISHED
    impostor.emit("SpeakerVolumeChanged", "(ii)", 3, 50)
    assert bar.read_line() == REFUSED
    impostor.emit("SpeakerVolumeChanged", "(ii)", 3, 50)
    assert bar.read_line() == BUSY
    assert impostor.calls == (["GetSpeakerVolume"] * 3 + ["GetSpeakerMute"] * 2 + ["GetSpeakerSupportType"] * 2
                              + ["GetSpeakerVolume"] * 7)
