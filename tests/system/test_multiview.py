# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests multi-view, in which the daemon follows the route of the zone with the focus."""
import pytest

from harness import TV_SUPPORT, change_route
from harness import change_at_rest as change

FEATURE = "features/com.norvik/featureconf/multiview.support"
MODE = "settings/memory/multiscreen/info"
FOCUS = "zones/focus"
SPDIF = "settings/memory/sysman/spdif"
SUB_ZONE = "settings/memory/org.olvane.btapp/sub_audio_zoneid"
MIRRORING = "settings/memory/menu/network/screenmirroring"
MAIN_GAIN, SUB_GAIN = "audio/main_out_gain2", "audio/sub_out_gain2"
HDMI_SUPPORT = 15

ON, OFF = '{"mode":"on"}', '{"mode":"off"}'


def put_zones(tv, **routes):
    """Sets the routes of zones; zone_1=2 gives zone 1 the route 2."""
    for zone, route in routes.items():
        tv.echo(route, f"sound/zones/{zone.removeprefix('zone_')}/route")


def routes(tv):
    return {zone.name: zone.joinpath("route").read_text().strip() for zone in (tv.path / "sound/zones").iterdir()
            if zone.joinpath("route").is_file()}


def publish(tv, output, support=15, level=7, mute=0):
    """Publishes the state of a device: "hdmi" (route 2), "bt" (3, 5) or another."""
    tv.echo(support, f"{MIRRORING}/volume_support_{output}")
    tv.echo(level, f"{MIRRORING}/get_volume_level_{output}")
    tv.echo(mute, f"{MIRRORING}/get_volume_mute_{output}")


def gain_on_mute(client, tv, gain):
    assert client.call("ApplyGainOnMute", "ii", 3, gain) == (0,)
    assert (tv.read(MAIN_GAIN), tv.read(SUB_GAIN)) == (str(gain), str(gain))


@pytest.fixture
def two_zones(scene, tv):
    """A TV in multi-view: zone 1 has the focus and plays on the TV speaker, zone 2 on HDMI."""
    scene.start().kill()
    put_zones(tv, zone_1=0, zone_2=2)
    publish(tv, "hdmi")
    tv.echo(1, FOCUS)
    tv.echo(ON, MODE)
    return scene.start()


@pytest.fixture
def log(two_zones):
    return two_zones.log


def test_at_the_start_the_focused_zone_and_its_route_are_the_ones_in_use(scene, two_zones, tv, client):
    two_zones.kill()
    tv.echo(2, FOCUS)
    scene.start()
    assert client.get_support() == (HDMI_SUPPORT, 0)
    assert client.get_volume() == (7, 0)


@pytest.mark.parametrize("turn_off", [lambda tv: tv.echo("false", FEATURE), lambda tv: tv.remove(FEATURE)],
                         ids=["false", "missing"])
def test_without_the_feature_multi_view_is_ignored(scene, two_zones, tv, client, turn_off):
    two_zones.kill()
    turn_off(tv)
    tv.echo(2, FOCUS)
    log = scene.start().log
    change(tv, log, "sound/zones/2/route", 4)
    change(tv, log, FOCUS, 1)
    change(tv, log, FOCUS, 2)
    assert client.get_support() == (TV_SUPPORT, 0)
    change_route(tv, log, 2)
    assert client.get_support() == (HDMI_SUPPORT, 0)


def test_the_focus_is_followed_only_while_the_mode_is_on(log, tv, client):
    change(tv, log, MODE, OFF)
    change(tv, log, FOCUS, 2)
    assert client.get_support() == (TV_SUPPORT, 0)
    change(tv, log, FOCUS, 1)
    change(tv, log, MODE, ' {"zones": [{"id": 2}], "mode": "on"} ')
    assert client.get_support() == (TV_SUPPORT, 0)
    change(tv, log, FOCUS, 2)
    assert client.get_support() == (HDMI_SUPPORT, 0)


def test_a_mode_of_more_than_a_megabyte_cannot_be_read_and_is_no_change(log, tv, client):
    change(tv, log, MODE, '{"mode":"off","filler":"' + "x" * 2**20 + '"}')
    change(tv, log, "sound/zones/2/route", 12)
    assert client.get_support() == (TV_SUPPORT, 0)
    change(tv, log, "sound/zones/1/route", 2)  # of the zone in focus
    assert client.get_support() == (HDMI_SUPPORT, 0)


@pytest.mark.parametrize("route, gain", [(3, "100"), (12, "40")])
def test_leaving_multi_view_brings_the_gain_back_on_bluetooth_only(log, tv, client, route, gain):
    publish(tv, "bt")
    change(tv, log, "sound/zones/1/route", route)
    gain_on_mute(client, tv, 40)
    change(tv, log, MODE, OFF)
    assert (tv.read(MAIN_GAIN), tv.read(SUB_GAIN)) == (gain, gain)


def test_a_route_change_of_the_focused_zone_replaces_the_speaker_and_that_of_another_zone_does_not(log, tv, client):
    change(tv, log, "sound/zones/2/route", 4)
    assert client.get_support() == (TV_SUPPORT, 0)
    gain_on_mute(client, tv, 40)
    change(tv, log, "sound/zones/1/route", 2)
    assert client.get_support() == (HDMI_SUPPORT, 0)
    assert tv.read(MAIN_GAIN) == "100"  # a change of output brings it back
    tv.echo(44, f"{MIRRORING}/get_volume_level_hdmi")
    client.expect("SpeakerVolumeChanged", HDMI_SUPPORT, 44)
    client.expect_silence()


def test_a_zone_that_appears_is_followed_once_it_has_the_focus(log, tv, client):
    change(tv, log, "sound/zones/3/route", 12)
    change(tv, log, FOCUS, 3)
    change(tv, log, "sound/zones/3/route", "loud")  # cannot be read, so it is no change
    assert client.get_support() == (TV_SUPPORT, 0)
    change(tv, log, "sound/zones/3/route", 2)
    assert client.get_support() == (HDMI_SUPPORT, 0)


def test_the_focus_moving_to_another_output_replaces_the_speaker_silently(log, tv, client):
    gain_on_mute(client, tv, 40)
    change(tv, log, FOCUS, 2)
    assert client.get_support() == (HDMI_SUPPORT, 0)
    assert client.get_volume() == (7, 0)
    assert tv.read(MAIN_GAIN) == "40"
    client.expect_silence()
    tv.echo(44, f"{MIRRORING}/get_volume_level_hdmi")
    client.expect("SpeakerVolumeChanged", HDMI_SUPPORT, 44)


def test_the_focus_on_a_zone_that_has_ended_takes_the_single_route(log, tv, client):
    change_route(tv, log, 2)
    change(tv, log, "sound/zones/2/route", 12)  # of the TV speaker again; its zone is taken for the focused one
    assert client.get_support() == (TV_SUPPORT, 0)
    change(tv, log, FOCUS, 9)
    assert client.get_support() == (HDMI_SUPPORT, 0)


# --- routes set by the daemon ----------------------------------------------------------------------------------------


def test_a_route_is_set_in_every_zone_but_that_of_the_sub_bluetooth_output(log, tv, client):
    put_zones(tv, zone_10=4, **{"zone_-3": 4})
    (tv.path / "sound/zones/attic").mkdir()  # not a zone
    (tv.path / "sound/zones/0/route/in-the-way").mkdir(parents=True)  # cannot be set
    tv.echo(2, SUB_ZONE)
    client.emit("SpkDisconnected", "is", 2, "bar")
    client.get_support()  # its reply comes after the signal was handled
    assert routes(tv) == {"-3": "0", "1": "0", "2": "2", "10": "0"}
    assert tv.read("sound/route") == "0"


@pytest.mark.parametrize("focus, left", [(1, {"1": "0", "2": "0"}), (2, {"1": "1", "2": "2"})])
def test_pulling_the_cable_sets_all_zones_unless_the_sub_bluetooth_zone_listens(log, tv, focus, left):
    publish(tv, "optical")
    tv.echo(1, SPDIF)
    change(tv, log, "sound/zones/1/route", 1)
    if focus == 2:
        tv.echo(2, SUB_ZONE)
        change(tv, log, FOCUS, 2)
    change(tv, log, SPDIF, 0)
    assert routes(tv) == left
