# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests what happens when the server, the stages or other programs fail or interfere, and what is left at the end."""
import json
import os
import signal
from pathlib import Path

import pytest

from bridge import MAIN, MAIN_GAIN, MAIN_STAGE, MUTE, OUTPUTS, ROUTES, SINK_OF, SUB_STAGE, SUPPORT_KEYS, VOLUME
from harness import PATIENCE

ROUNDS = 210  # of ten changes: about as many as in an hour of use
FIRST = 60  # the round after which everything has been made once; as ROUNDS, it ends on the TV speaker, not muted


def wait_for_support(sound, word):
    for key in SUPPORT_KEYS.values():
        sound.tv.wait_until(key, lambda key=key: sound.tv.has(key) and sound.tv.read(key) == str(word))


def test_a_server_that_dies_in_the_middle_of_a_fade_gets_everything_again(sound):
    sound.start()
    sound.client.set_volume(60)
    sound.wait_for_volume("speaker", 60)
    after = sound.daemon.log.end()
    assert sound.client.call("ApplyPlayerFadeIn", "i", MAIN) == (0,)
    sound.daemon.log.wait_matching(r"\[Path:01\] gain2:(5|10|15|20|25|30|35|40)", after)
    sound.server.kill()
    wait_for_support(sound, 0)  # nobody could answer a request
    sound.daemon.log.wait("handlerGainType:2, LastGain:100", after)  # the daemon does not wait for the server
    assert sound.client.set_volume(45) == 0
    assert sound.client.call("ApplyGainOnMute", "ii", MAIN, 50) == (0,)
    sound.server.start()
    sound.wait_for_main("speaker")
    sound.wait_for_volume("speaker", 45)
    wait_for_support(sound, 15)
    sound.play()
    recording = sound.record("speaker")
    recording.wait_until(lambda amplitude: abs(amplitude - 4.556) < 0.1, "volume 45 and gain 50 are not heard")
    assert sound.tv.read(VOLUME) == "45"


def test_a_server_that_is_absent_at_the_start_is_waited_for(sound):
    sound.server.kill()
    sound.launch(*OUTPUTS)
    sound.bridge.wait_for_complaint("waiting for a sound server: Connection refused", program="kavrel-sound")
    wait_for_support(sound, 0)
    assert sound.client.set_volume(33) == 0
    sound.server.start()
    sound.wait_for_main("speaker")
    waited = [complaint for complaint in sound.bridge.complaints if "a sound server" in complaint]
    assert len(waited) == 1  # however often it tried


def test_a_sink_that_is_absent_at_the_start_is_waited_for(sound):
    sound.server.remove_sink("hdmi")
    sound.start()
    sound.tv.echo(ROUTES["hdmi"], "sound/route")
    sound.wait_for_main(None)
    sound.server.add_sink("hdmi")
    sound.wait_for_main("hdmi")


def test_a_stage_that_somebody_unloads_comes_back_once(sound):
    sound.start(*OUTPUTS, "--sub", "extra")
    for stage, sink in ((MAIN_STAGE, "speaker"), (SUB_STAGE, "extra")):
        sound.wait_for_stage(stage, sink)
        old, = sound.server.streams(stage)
        sound.server.pactl("unload-module", str(old["owner_module"]))
        sound.server.wait_until(lambda stage=stage, old=old: [stream["index"] for stream in sound.server.streams(stage)]
                                not in ([], [old["index"]]), f"another {stage}")
        sound.wait_for_stage(stage, sink)


def test_a_stage_that_somebody_moves_in_the_middle_of_a_fade_comes_back(sound):
    sound.start()
    after = sound.daemon.log.end()
    assert sound.client.call("ApplyPlayerFadeIn", "i", MAIN) == (0,)
    sound.daemon.log.wait_matching(r"\[Path:01\] gain2:(5|10|15|20|25|30|35|40)", after)
    old, = sound.server.streams(MAIN_STAGE)
    sound.server.pactl("move-sink-input", str(old["index"]), "usb")
    if sound.server.name == "PipeWire":  # there the move comes after its confirmation, and another stage takes the place
        sound.server.wait_until(lambda: [stream["index"] for stream in sound.server.streams(MAIN_STAGE)]
                                not in ([], [old["index"]]), f"another {MAIN_STAGE}")
    sound.wait_for_main("speaker")


def test_the_programs_of_a_sink_that_somebody_unloads_are_moved_back(sound):
    sound.start()
    sound.play()
    recording = sound.record("speaker")
    recording.wait_until_heard(99.5)
    assert sound.server.sink_of("tone") == "kavrel"
    sound.server.remove_sink("kavrel")
    sound.server.wait_until(lambda: sound.server.sink("kavrel") is not None and sound.server.sink_of("tone") == "kavrel",
                            "kavrel is back, and the tone on it")
    sound.wait_for_main("speaker")
    recording.wait_until_heard(99.5)
    recording.wait_for(0.5)  # long enough for a second stage, which would double the level
    assert max(moment.amplitude for moment in recording.moments()[-200:]) < 101


def test_the_stages_and_the_sink_of_a_killed_bridge_are_adopted(sound):
    sound.start()
    before = sound.server.inventory()
    sound.bridge.end(signal.SIGKILL)
    sound.server.pactl("load-module", "module-loopback", "source=kavrel.monitor", "sink=speaker",
                       f"sink_input_properties=media.name={MAIN_STAGE}")  # a second stage
    sound.start()
    sound.server.wait_until(lambda: len(sound.server.streams(MAIN_STAGE)) == 1, "one main stage")
    after = sound.server.inventory()
    assert after["sinks"] == before["sinks"]
    assert [name for name, _ in after["modules"]] == [name for name, _ in before["modules"]]


@pytest.mark.parametrize("is_own, is_muted", [(True, False), (False, True)], ids=["its own mute", "a person's mute"])
def test_of_the_mutes_on_kavrel_that_a_killed_bridge_leaves_only_its_own_goes(sound, is_own, is_muted):
    sound.start()
    sound.bridge.end(signal.SIGKILL)
    notes = json.loads(sound.tv.read(".sound"))
    assert notes["guarding"] is False
    (sound.tv.path / ".sound").write_text(json.dumps({**notes, "guarding": is_own}))  # killed while the stages had no gain
    sound.server.pactl("set-sink-mute", "kavrel", "1")
    sound.launch(*OUTPUTS).wait("plays on")
    sound.server.wait_until(lambda: json.loads(sound.tv.read(".sound"))["guarding"] is False, "nothing is guarded")
    sound.wait_for_volume("kavrel", 100, is_muted)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM], ids=["Ctrl-C", "SIGTERM"])
def test_after_a_regular_end_the_server_is_as_before(sound, number):
    before = sound.server.inventory()
    sound.start(*OUTPUTS, "--sub", "extra")
    sound.wait_for_stage(SUB_STAGE, "extra")
    assert sound.server.inventory() != before
    status, complaints = sound.bridge.end(number)
    assert (status, complaints) == (0 if number == signal.SIGINT else 143, [])
    assert sound.server.inventory() == before


def test_without_its_tv_directory_it_ends_and_leaves_the_server_as_before(sound):
    before = sound.server.inventory()
    link, nowhere = (sound.tv.path.with_name(name) for name in ("link", "nowhere"))
    link.symlink_to(sound.tv.path)
    sound.start(*OUTPUTS, "--dir", str(link))
    nowhere.symlink_to("nothing")
    nowhere.rename(link)  # the directory goes; no write makes it again through this link
    sound.tv.echo(40, VOLUME)
    assert sound.bridge.child.wait(PATIENCE) == 2
    _status, complaints = sound.bridge.end()
    assert complaints[-1] == f"kavrel-sound: the TV directory {link} has gone"
    assert sound.server.inventory() == before


def test_a_second_bridge_on_the_same_tv_is_refused(sound):
    sound.start()
    done = sound.command(*OUTPUTS)
    assert (done.returncode, done.stdout, done.stderr) == (
        1, "", f"kavrel-sound: another kavrel-sound (process {sound.bridge.child.pid}) plays this TV already\n")
    assert sound.server.sink_of(MAIN_STAGE) == "speaker"


def test_a_restarted_daemon_finds_the_sound_as_it_was(sound):
    sound.start()
    sound.client.set_volume(35)
    sound.wait_for_volume("speaker", 35)
    sound.daemon.kill()
    sound.scene.start()
    assert sound.server.volume("speaker") == (35, False)
    assert sound.tv.read(VOLUME) == "35"


def use_of(pid):
    """Returns the number of descriptors, and the memory of its own in kB."""
    memory = Path(f"/proc/{pid}/smaps_rollup").read_text()
    return len(os.listdir(f"/proc/{pid}/fd")), sum(int(line.split()[1]) for line in memory.splitlines()
                                                  if line.startswith("Private_"))


def change_everything(sound, number):
    """Makes a round of changes from both sides, and waits until they have arrived."""
    level, output = 20 + number % 80, ("tv", "hdmi", "usb")[number % 3]
    sound.tv.echo(ROUTES[output], "sound/route")
    sound.tv.echo(number % 2, MUTE)
    for gain in (0, 30, 60, 80, 100):
        sound.tv.echo(gain, MAIN_GAIN)
    sound.server.pactl("set-sink-volume", "hdmi", f"{level}%")
    sound.tv.echo(level, VOLUME)
    sound.server.pactl("set-sink-volume", "usb", f"{level}%")
    if number % 15 == 0:
        sound.wait_for_main(SINK_OF[output])
        sound.wait_for_volume("speaker", level, bool(number % 2))


def test_an_hour_of_changes_leaks_nothing(sound, say):
    sound.start()
    pid = sound.bridge.child.pid
    inventory = uses = None
    for number in range(ROUNDS + 1):
        change_everything(sound, number)
        if number == FIRST:
            inventory, uses = sound.server.inventory(), use_of(pid)
    end = use_of(pid)
    assert sound.server.inventory() == inventory
    assert end[0] == uses[0], "descriptors"
    assert end[1] < uses[1] + 512, "kB"
    say(f"{10 * (ROUNDS - FIRST)} changes: {uses[0]} descriptors before and {end[0]} after, {uses[1]} kB and {end[1]} kB")
