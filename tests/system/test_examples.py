# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the examples, and the first clients in docs/integration.md, in each language. Builds those in C from an
installation alone."""
import os
import re
import subprocess
import textwrap

import pytest

from harness import NAME, ROOT, change_route
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
def build(tmp_path_factory):
    """A function that runs a command in a new folder, with the installed files in their places. It returns the folder."""
    root = tmp_path_factory.mktemp("installed")
    install(root)
    environment = {**os.environ, "PKG_CONFIG_PATH": str(pkg_config_path(root))}

    def run(files, *command):
        folder = tmp_path_factory.mktemp("client")
        for name, text in files.items():
            (folder / name).write_text(text)
        subprocess.run(command, cwd=folder, env=environment, check=True)
        return folder

    return run


@pytest.fixture(scope="module")
def examples(build):
    """The folder of the examples with the C one built."""
    files = {path.name: path.read_text() for path in (ROOT / "examples").iterdir()}
    return build(files, "make", "CFLAGS=-O1 -Wall -Wextra -Wpedantic -Werror")


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
    change_route(tv, daemon.log, WITHOUT_VOLUME)
    client.emit("BudsDisconnected", "i", 1)  # the daemon requests HDMI, but nobody switches to it
    assert bar.read_line() == NO_VOLUME
    change_route(tv, daemon.log, HDMI)
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


# --- the first clients in docs/integration.md ------------------------------------------------------------------------


def block_of(first_line):
    """Returns the indented block of the document that begins so."""
    text = (ROOT / "docs/integration.md").read_text()
    return textwrap.dedent(re.search(rf"^    {re.escape(first_line)}.*\n(    .*\n)*", text, re.MULTILINE).group())


def python_client(_build):
    return ["/usr/bin/python3", "-c", block_of("import time")]


def c_client(build):
    files = {"first.c": block_of("#include <kavrel/kavrel.h>")}
    return [build(files, "sh", "-ec", block_of("gdbus-codegen")) / "first"]


def shell_client(_build):
    return ["bash", "-c", block_of("kavrel() {")]


FIRST_CLIENTS = {
    python_client: (["(0,)", "(30, 0)", "SpeakerVolumeChanged (65535, 30)"], "SpeakerVolumeChanged (65535, 31)"),
    c_client: (["set: status 0", "volume 30, status 0", "volume 30, support word 0xffff"], "volume 31, support word 0xffff"),
    shell_client: (["i 0", "volume 30, status 0", f"Monitoring signals from all objects owned by {NAME}",
                    f"The name {NAME} is owned by :1."],
                   "/Org/Olvane/KavrelInternal: org.olvane.kavrel.SpeakerVolumeChanged (65535, 31)"),
}


@pytest.fixture(scope="module", params=FIRST_CLIENTS)
def first_client(request, build):
    """The command of the first client in one language, the lines that it prints first, and the line after a change to 31."""
    return request.param(build), *FIRST_CLIENTS[request.param]


def test_the_first_client_of_each_language_works_as_it_is_printed(first_client, scene, daemon, client):
    command, lines, changed = first_client
    program = View(scene.environment(), *command)
    scene.callback(program.end)
    for line in lines:
        assert program.read_line().startswith(line)
    client.set_volume(31)
    while not program.has_output(1):  # gdbus may say that it monitors before it hears the first signal
        client.set_volume(30)
        client.set_volume(31)
    program.read_until(f"^{re.escape(changed)}$")


def test_the_first_client_of_each_language_asks_a_busy_daemon_again(first_client, scene):
    impostor = Impostor(scene.client(), SetSpeakerVolume=[(-1,), (0,)], GetSpeakerVolume=[(0, -1), (30, 0)])
    command, lines, _changed = first_client
    program = View(scene.environment(), *command)
    scene.callback(program.end)
    assert [program.read_line(), program.read_line()] == lines[:2]
    assert impostor.calls == ["SetSpeakerVolume"] * 2 + ["GetSpeakerVolume"] * 2
