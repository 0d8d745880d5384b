# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests which sink plays: it follows the route, and in multi-view the zone in focus; a missing sink is silent."""
import re
import signal

import pytest

from bridge import MAIN_STAGE, OUTPUTS, ROUTE, ROUTES, SINK_OF, SUB_STAGE, SUPPORT_KEYS

MODE = "settings/memory/multiscreen/info"
FOCUS = "zones/focus"


def assert_only_one_plays(recordings, playing):
    """Checks that the tone is heard on one sink, or on none, and that all others are silent."""
    if playing:
        recordings[playing].wait_until_heard(99.5)
    for sink, recording in recordings.items():
        if sink != playing:
            recording.wait_until_silent()


@pytest.fixture
def recordings(sound):
    return {sink: sound.record(sink) for sink in SINK_OF.values()}


def test_each_route_moves_what_is_heard(sound, recordings):
    sound.start()
    sound.play()
    for output in ("tv", "hdmi", "usb", "hdmi", "tv"):
        sound.switch(output)
        assert_only_one_plays(recordings, SINK_OF[output])


def test_an_output_without_a_sink_is_silent_and_supports_nothing(sound, recordings):
    sound.start()
    sound.play()
    recordings["speaker"].wait_until_heard(99.5)
    sound.tv.echo(3, ROUTE)  # Bluetooth, which has no sink
    sound.wait_for_main(None)
    assert_only_one_plays(recordings, None)
    support = "settings/memory/menu/network/screenmirroring/volume_support_bt"
    sound.tv.wait_until(support, lambda: sound.tv.has(support) and sound.tv.read(support) == "0")
    sound.switch("tv")
    assert_only_one_plays(recordings, "speaker")


def test_a_sink_that_goes_while_it_plays_is_silent_until_it_comes_back(sound, recordings):
    sound.start()
    sound.play()
    sound.switch("hdmi")
    assert_only_one_plays(recordings, "hdmi")
    support = SUPPORT_KEYS["hdmi"]
    recordings.pop("hdmi").end()
    sound.server.remove_sink("hdmi")
    sound.tv.wait_until(support, lambda: sound.tv.read(support) == "0")
    sound.wait_for_main(None)
    assert_only_one_plays(recordings, None)
    sound.server.add_sink("hdmi")
    sound.tv.wait_until(support, lambda: sound.tv.read(support) == "15")
    sound.wait_for_main("hdmi")
    assert_only_one_plays({**recordings, "hdmi": sound.record("hdmi")}, "hdmi")


def test_the_sub_output_plays_beside_the_main_output_whatever_its_route(sound):
    sound.start(*OUTPUTS, "--sub", "extra")
    sound.play()
    sub, main = sound.record("extra"), sound.record("hdmi")
    sub.wait_until_heard(99.5)
    sound.switch("hdmi")
    main.wait_until_heard(99.5)
    sub.wait_until_heard(99.5)
    assert sound.server.sink_of(SUB_STAGE) == "extra"


def test_in_multi_view_the_output_of_the_zone_in_focus_plays(sound, recordings):
    for zone, output in ((1, "tv"), (2, "hdmi")):
        sound.tv.echo(ROUTES[output], f"sound/zones/{zone}/route")
    sound.tv.echo(1, FOCUS)
    sound.tv.echo('{"mode":"on"}', MODE)
    sound.start()
    sound.play()
    assert_only_one_plays(recordings, "speaker")
    sound.tv.echo(2, FOCUS)
    assert_only_one_plays(recordings, "hdmi")
    sound.tv.echo(ROUTES["usb"], "sound/zones/2/route")
    assert_only_one_plays(recordings, "usb")
    sound.tv.echo(ROUTES["hdmi"], "sound/zones/1/route")  # a zone without the focus
    sound.tv.echo('{"mode":"off"}', MODE)
    assert_only_one_plays(recordings, "speaker")  # the route of the single view
    assert sound.server.sink_of(MAIN_STAGE) == "speaker"


def test_the_default_sink_changes_only_when_that_is_asked_for(sound):
    sound.start()
    assert sound.server.pactl("get-default-sink") == "speaker\n"
    sound.bridge.end()
    sound.start(*OUTPUTS, "--default")
    sound.server.wait_until(lambda: sound.server.pactl("get-default-sink") == "kavrel\n", "kavrel is the default sink")
    sound.bridge.end()
    sound.server.wait_until(lambda: sound.server.pactl("get-default-sink") == "speaker\n", "the default sink is back")


def test_without_options_the_default_sink_is_the_speaker(sound):
    sound.server.pactl("set-default-sink", "usb")
    sound.launch()
    sound.wait_for_main("usb")


def test_while_kavrel_is_the_default_sink_the_speaker_is_the_one_from_before(sound):
    sound.server.pactl("set-default-sink", "usb")
    for _ in range(2):  # the second bridge finds "kavrel" as the default sink
        sound.launch("--default").wait("plays on")
        sound.wait_for_main("usb")
        sound.server.wait_until(lambda: sound.server.pactl("get-default-sink") == "kavrel\n", "kavrel is the default sink")
        assert re.search("^tv +usb +the default sink; in use$", sound.command("outputs").stdout, re.MULTILINE)
        sound.bridge.end(signal.SIGKILL)
    sound.launch().wait("plays on")
    sound.bridge.end()
    sound.server.wait_until(lambda: sound.server.pactl("get-default-sink") == "usb\n", "the default sink is back")
