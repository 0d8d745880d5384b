# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Many processes change all values that the daemon follows while many clients call it. Afterwards all must agree again.

KAVREL_STORM_SECONDS sets the length of the storm.
"""
import os
import subprocess
import time
from pathlib import Path

from harness import PATIENCE, TV_SUPPORT, change_at_rest, change_route

SECONDS = float(os.environ.get("KAVREL_STORM_SECONDS", 5))
CLIENTS = 8
CHANGES_A_SECOND = 50  # the least that must be reached
LOG_BYTES = 16 * 2**20  # the size at which the log is emptied

PROGRAM = Path(__file__).with_name("storm.py")
MIRRORING = "settings/memory/menu/network/screenmirroring"
MODE, FOCUS, SPDIF = "settings/memory/multiscreen/info", "zones/focus", "settings/memory/sysman/spdif"
LEVEL, MUTE = f"{MIRRORING}/get_volume_level_hdmi", f"{MIRRORING}/get_volume_mute_hdmi"
ON, OFF = '{"mode":"on"}', '{"mode":"off"}'

CHANGES = {  # {value: its texts in turn, the first of which is also the last}
    "sound/route": [0, 2, 12, 3, 15, 7, 1, 6, 19, 4],
    "sound/zones/1/route": [0, 2, 0, 5],
    "sound/zones/2/route": [12, 4, 1],
    FOCUS: [1, 2, 3],
    SPDIF: [1, 0],
    MODE: [ON, OFF, ON, "junk"],
}


def put_devices(tv):
    for output in ("hdmi", "optical", "mlr", "bt", "auracast"):
        tv.echo(15, f"{MIRRORING}/volume_support_{output}")
        tv.echo(7, f"{MIRRORING}/get_volume_level_{output}")
        tv.echo(0, f"{MIRRORING}/get_volume_mute_{output}")
    for key, value in [("volume_capability", 15), ("volume_level", 7), ("volume_mute_status", 0)]:
        tv.echo(value, f"settings/db/usbsound/{key}")


class Storm:
    """Runs the programs of the storm, and keeps the daemon's log short meanwhile."""

    def __init__(self, scene, daemon):
        self.scene, self.daemon = scene, daemon
        self.writers = {value: self._start("change", scene.tv.path / value, SECONDS, *texts)
                        for value, texts in CHANGES.items()}
        self.clients = [self._start("call", seed, SECONDS) for seed in range(CLIENTS)]

    def _start(self, *arguments):
        program = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "--", "/usr/bin/python3", PROGRAM,
                                    *map(str, arguments)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                                   env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self.scene.bus.address})
        self.scene.callback(program.kill)
        return program

    def wait(self):
        """Waits for the end; returns {value: number of changes} and a list of the numbers of calls of each client."""
        return {value: self._end(program) for value, program in self.writers.items()}, [
            self._end(program) for program in self.clients]

    def _end(self, program):
        deadline = time.monotonic() + SECONDS + 4 * PATIENCE
        while True:
            try:
                output, _ = program.communicate(timeout=0.2)
                break
            except subprocess.TimeoutExpired:
                assert time.monotonic() < deadline, "the storm does not end"
                assert self.daemon.is_alive(), "kavreld has ended"
                self._shorten_log()
        assert program.returncode == 0
        return int(output)

    def _shorten_log(self):
        # This loses no sanitizer report, because the daemon dies when it writes one.
        if self.daemon.log.path.stat().st_size > LOG_BYTES:
            os.truncate(self.daemon.log.path, 0)


def change_volume(tv, client, value, support, *volumes):
    for volume in volumes:
        tv.echo(volume, value)
        client.expect("SpeakerVolumeChanged", support, volume)
        assert client.get_volume() == (volume, 0)


def turn_mute_over(tv, log, client, value, support):
    """Toggles mute three times and expects a signal for the last two: a report lost in the storm may hide the first."""
    mute = 1 - int(tv.read(value))
    change_at_rest(tv, log, value, mute)
    client.forget()
    for mute in (1 - mute, mute):
        tv.echo(mute, value)
        client.expect("SpeakerMuteChanged", support, bool(mute))
        assert client.get_mute() == (mute, 0)


def agree_on_a_tv_speaker_in_single_view(tv, log, client):
    change_at_rest(tv, log, MODE, OFF)
    change_at_rest(tv, log, FOCUS, 2)
    change_route(tv, log, 13)
    client.forget()  # disconnected earbuds may have muted the TV during the storm
    assert client.get_support() == (TV_SUPPORT, 0)

    change_volume(tv, client, "audio/master_volume", TV_SUPPORT, 77, 78)
    turn_mute_over(tv, log, client, "audio/master_mute", TV_SUPPORT)
    mute = 1 - int(tv.read("audio/master_mute"))
    assert client.set_mute(bool(mute)) == 0
    client.expect("SpeakerMuteChanged", TV_SUPPORT, bool(mute))
    assert client.set_mute(False) == 0
    if mute:
        client.expect("SpeakerMuteChanged", TV_SUPPORT, False)
    assert client.set_volume(79) == 0
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 79)
    assert (tv.read("audio/master_volume"), tv.read("audio/master_mute")) == ("79", "0")
    assert (client.get_volume(), client.get_mute()) == ((79, 0), (0, 0))
    client.expect_silence()


def agree_on_an_external_output_in_multi_view(tv, log, client):
    change_at_rest(tv, log, MODE, ON)
    change_at_rest(tv, log, FOCUS, 1)
    change_at_rest(tv, log, "sound/zones/1/route", 8)
    assert client.get_support() == (15, 0)

    change_volume(tv, client, LEVEL, 15, 60, 61)
    turn_mute_over(tv, log, client, MUTE, 15)
    assert client.set_volume(55) == 0
    assert tv.read(f"{MIRRORING}/set_volume_level") == "55"
    client.expect_silence()


def test_after_a_storm_answers_signals_and_the_tv_agree(scene, tv, capsys):
    scene.start().kill()
    put_devices(tv)
    for value, texts in CHANGES.items():
        tv.echo(texts[0], value)
    daemon = scene.start()
    changes, calls = Storm(scene, daemon).wait()
    assert all(count >= CHANGES_A_SECOND * SECONDS for count in changes.values()), changes
    assert all(calls)
    with capsys.disabled():
        rate = min(changes.values()) / SECONDS
        print(f" [{SECONDS:g} s: {rate:.0f} changes a second of each value, {sum(calls)} calls]", end=" ")

    daemon.settle()
    os.truncate(daemon.log.path, 0)
    client = scene.client()
    agree_on_a_tv_speaker_in_single_view(tv, daemon.log, client)
    agree_on_an_external_output_in_multi_view(tv, daemon.log, client)
