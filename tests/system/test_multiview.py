# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests multi-view, in which the daemon follows the route of the zone with the focus."""
import re

import pytest

from harness import change

MULTIVIEW = "features/com.norvik/featureconf/multiview.support"
MODE_KEY = "memory/multiscreen/info"
MODE = f"settings/{MODE_KEY}"
FOCUS = "zones/focus"
SPDIF = "settings/memory/sysman/spdif"
SUB_ZONE = "settings/memory/org.olvane.btapp/sub_audio_zoneid"
MIRRORING = "settings/memory/menu/network/screenmirroring"
MISSING = -1002  # the platform's result for a missing file

ON, OFF = '{"mode":"on"}', '{"mode":"off"}'

ALSO_ON = [
    '{"mode":"on","zones":[{"id":1},{"id":2}]}',
    ' { "other": null, "mode" : "on" } ',
    '{"mode":"off","mode":"on"}',
    '{"mode":"\\u006fn"}',
]
OTHER_MODES = {  # {a text that means "off": the mode in the log}
    OFF: "off",
    '{"mode":"ON"}': "ON",
    '{"mode":"on "}': "on ",
    '{"mode":""}': "",
    '{"Mode":"on"}': "",
    "{}": "",
    "null": "",
    '{"mode":null}': "",
    '{"mode":1}': "1",
    '{"mode":true}': "true",
    '{"mode":{"mode":"on"}}': "error",
    '{"mode":["on"]}': "error",
    "": "error",
    "on": "error",
    '"on"': "error",
    "1": "error",
    "[]": "error",
    '[{"mode":"on"}]': "error",
    "{": "error",
    '{"mode":"on"': "error",
    '{"mode":on}': "error",
    "\N{SNOWMAN}": "error",
    "[" * 100000: "error",
    '{"mode":' * 100000 + "1" + "}" * 100000: "error",
    '{"mode":"on","deep":' + "[" * 5000 + "]" * 5000 + "}": "error",
}


# The line after a change of focus. Before it, the daemon may still read a route that the test sets next.
ROUTE_READ = r"(zoneID:-?\d+ )?route:-?\d+|get current speaker type failed"


def show(text):
    return text if len(text) < 40 else f"{text[:20]}... {len(text)}"


def put_zones(tv, **routes):
    """Sets the routes of zones; zone_1=2 gives zone 1 the route 2."""
    for zone, route in routes.items():
        tv.echo(route, f"sound/zones/{zone.removeprefix('zone_')}/route")


def publish(tv, output, support=15, level=7, mute=0):
    """Publishes the state of a device: "hdmi" (route 2), "mlr" (Wi-Fi, 4), "bt" (3, 5) or another."""
    tv.echo(support, f"{MIRRORING}/volume_support_{output}")
    tv.echo(level, f"{MIRRORING}/get_volume_level_{output}")
    tv.echo(mute, f"{MIRRORING}/get_volume_mute_{output}")


def change_mode(tv, log, text, logged):
    return change(tv, log, MODE, text, f"MSmode:{logged}")


def change_focus(tv, log, zone, previous):
    found = change(tv, log, FOCUS, zone, f"Focus ({previous}->{zone})")
    log.wait_matching(ROUTE_READ, found.number)
    return found


def change_zone(tv, log, zone, route, previous):
    return change(tv, log, f"sound/zones/{zone}/route", route, f"Zone:{zone} Type({previous}->{route})")


def lines(log, after):
    """Returns the lines of the volume control object, the speaker factory and the server."""
    files = ("VolumeControlImpl.cpp", "ISpeaker.cpp", "KVServer.cpp")
    return [(line.priority, line.function, line.text) for line in log.lines(after) if line.file in files]


def texts(log, after):
    return [text for _, _, text in lines(log, after)]


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


# --- whether there is multi-view -------------------------------------------------------------------------------------


def test_at_the_start_the_focused_zone_and_its_route_are_the_ones_in_use(scene, tv, client):
    scene.start().kill()
    put_zones(tv, zone_1=0, zone_2=2)
    publish(tv, "hdmi", level=33)
    tv.echo(2, FOCUS)
    tv.echo(ON, MODE)
    log = scene.start().log
    steps = ["Multi-screen View supported :1", "zoneID:2 route:2", "Create HDMI Speaker"]
    assert [text for text in log.texts() if text in steps] == steps
    assert int(re.fullmatch(r"zoneId:2 focusID:(\d+)", log.find(re.compile("zoneId:.*")).text)[1]) > 0
    assert client.get_volume() == (33, 0)


def test_at_the_start_without_a_focus_the_route_is_the_single_one(scene, tv):
    scene.start().kill()
    put_zones(tv, zone_1=2)
    tv.echo(12, "sound/route")
    tv.echo(ON, MODE)
    log = scene.start().log
    failed = log.find(f"Failed to get zoneID. ret:{MISSING}")
    assert (failed.priority, failed.function) == ("E", "_InitMSViewSoundCallback")
    ended = log.find("Multiview is terminated, call sound_manager_get_speaker_selection")  # although there is no zone 0
    assert (ended.priority, ended.function) == ("W", "_GetOutputRoute")
    assert log.find("zoneID:0 route:12", ended.number)


@pytest.mark.parametrize("supported", ["false", None])
def test_without_the_feature_multi_view_is_ignored(scene, tv, supported):
    scene.start().kill()
    if supported:
        tv.echo(supported, MULTIVIEW)
    else:
        tv.remove(MULTIVIEW)
    put_zones(tv, zone_1=2)
    tv.echo(1, FOCUS)
    tv.echo(ON, MODE)
    log = scene.start().log
    if supported:
        assert log.find("Multi-screen View supported :0").priority == "I"
    else:
        assert log.find(f"Failed to get system info key com.norvik/featureconf/multiview.support. ret:{MISSING}"
                        ).priority == "E"
    before = log.end()
    tv.echo(OFF, MODE)
    tv.echo(2, FOCUS)
    tv.echo(4, "sound/zones/1/route")
    tv.echo(12, "sound/route")  # arrives after the other changes
    log.wait(re.compile(r"Speaker changed\[0->12\].*"), before)
    assert texts(log, before)[0] == "Type(0->12)"


# --- the mode --------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("text", [ON, *ALSO_ON], ids=show)
def test_the_mode_is_on(daemon, tv, text):
    put_zones(tv, zone_7=0)
    tv.echo(7, FOCUS)
    before = daemon.log.end()
    change_mode(tv, daemon.log, text, "on")
    line = daemon.log.wait("zoneId:7", before)
    assert (line.priority, line.function) == ("I", "MSViewModeChangedCallback")


@pytest.mark.parametrize("text, logged", OTHER_MODES.items(), ids=show)
def test_any_other_mode_is_off(log, tv, client, text, logged):
    change_mode(tv, log, text, logged)
    before = log.end()
    tv.echo(2, FOCUS)
    line = log.wait("For single view. not this cb", before)
    assert (line.priority, line.function) == ("E", "FocusChangedCallback")
    assert client.get_volume() == (10, 0)
    change_mode(tv, log, ON, "on")


@pytest.mark.parametrize("text", OTHER_MODES, ids=show)
def test_any_other_mode_from_before_the_start_is_off(scene, tv, client, text):
    scene.start().kill()
    put_zones(tv, zone_1=2)
    tv.echo(1, FOCUS)
    tv.echo(text, MODE)
    tv.echo(12, "sound/route")
    log = scene.start().log
    assert log.find("route:12")
    assert client.get_support() == (0xFFFF, 0)


def test_a_missing_mode_is_off(scene, tv):
    scene.start().kill()
    tv.remove(MODE)
    log = scene.start().log
    assert log.find(f"Failed to get vconf {MODE_KEY}").priority == "E"
    assert log.find("route:0")


def test_a_mode_of_more_than_a_megabyte_cannot_be_read_and_changes_nothing(log, tv):
    tv.echo('{"mode":"off","filler":"' + "x" * 2**20 + '"}', MODE)
    change_focus(tv, log, 2, previous=1)  # still in multi-view, although no mode can be read
    assert not any(text.startswith("MSmode") for text in log.texts())


def test_the_mode_alone_leaves_the_speaker_as_it_is(scene, tv):
    scene.start().kill()
    put_zones(tv, zone_1=2)
    publish(tv, "hdmi")
    tv.echo(1, FOCUS)
    log = scene.start().log
    before = log.end()
    change_mode(tv, log, ON, "on")
    log.wait("zoneId:1", before)
    change_mode(tv, log, OFF, "off")
    assert not any(text.startswith("Create") for text in texts(log, before))


def test_the_mode_turned_on_without_a_focus_keeps_the_zone_known(daemon, tv):
    log = daemon.log
    put_zones(tv, zone_2=0)
    tv.echo(12, "sound/zones/2/route")
    log.wait("Zone:2 Type(0->12)")  # the daemon does not know a zone yet, so it accepts this report and takes its zone
    before = log.end()
    change_mode(tv, log, ON, "on")
    failed = log.wait(f"Failed to get zoneID. ret:{MISSING}", before)
    assert (failed.priority, failed.function) == ("E", "MSViewModeChangedCallback")
    put_zones(tv, zone_1=12)
    change_focus(tv, log, 1, previous=2)


@pytest.mark.parametrize("route", [3, 5])
def test_leaving_multi_view_on_bluetooth_brings_the_gain_back(log, tv, client, route):
    publish(tv, "bt")
    change_zone(tv, log, 1, route, previous=0)
    assert client.call("ApplyGainOnMute", "ii", 3, 40) == (0,)
    before = log.end()
    change_mode(tv, log, OFF, "off")
    recovered = log.wait("View mode changed. Recover gain", before)
    assert (recovered.priority, recovered.function) == ("I", "MSViewModeChangedCallback")
    assert (tv.read("audio/main_out_gain2"), tv.read("audio/sub_out_gain2")) == ("100", "100")


@pytest.mark.parametrize("route", [0, 12])
def test_leaving_multi_view_on_another_output_leaves_the_gain(log, tv, client, route):
    if route != 0:
        change_zone(tv, log, 1, route, previous=0)
    assert client.call("ApplyGainOnMute", "ii", 3, 40) == (0,)
    change_mode(tv, log, OFF, "off")
    client.get_support()  # waits until the signal was handled
    assert tv.read("audio/main_out_gain2") == "40"
    assert log.find("View mode changed. Recover gain") is None


def test_leaving_multi_view_forgets_the_zone(log, tv):
    change_mode(tv, log, OFF, "off")
    tv.remove(FOCUS)
    before = log.end()
    change_mode(tv, log, ON, "on")
    log.wait(f"Failed to get zoneID. ret:{MISSING}", before)
    change_focus(tv, log, 2, previous=0)


# --- routes of zones -------------------------------------------------------------------------------------------------


def test_a_route_change_of_the_focused_zone_replaces_the_speaker_and_is_announced(log, tv, client):
    before = log.end()
    tv.echo(2, "sound/zones/1/route")
    log.wait("Speaker changed[0->2]. mode:0x000f, gainMax(ret:0)", before)
    assert lines(log, before) == [
        ("I", "MSViewSpeakerChangedCallback", "Zone:1 Type(0->2)"),
        ("I", "CreateSpeaker", "Create HDMI Speaker"),
        ("I", "_NotifyVolumeEvent", "event: [SPEAKER_CHANGED]"),
        ("I", "onSpeakerChanged", "Speaker changed[0->2]. mode:0x000f, gainMax(ret:0)"),
    ]
    tv.echo(44, f"{MIRRORING}/get_volume_level_hdmi")
    client.expect("SpeakerVolumeChanged", 15, 44)


def test_a_route_change_of_another_zone_is_not_for_the_focused_one(log, tv, client):
    before = log.end()
    change_zone(tv, log, 2, 4, previous=0)
    line = log.wait("Focus:1 Speaker Changed. not for 2", before)
    assert (line.priority, line.function) == ("I", "MSViewSpeakerChangedCallback")
    assert len(lines(log, before)) == 2
    assert client.get_support() == (0xFFFF, 0)


def test_the_route_already_in_use_changes_nothing(log, tv):
    before = log.end()
    tv.echo(0, "sound/zones/2/route")
    tv.echo(12, "sound/zones/1/route")  # arrives after that change
    log.wait(re.compile(r"Speaker changed\[0->12\].*"), before)
    assert texts(log, before)[:3] == ["Zone:2 Type(0->0)", "Zone:1 Type(0->12)", "Create TV Speaker"]


@pytest.mark.parametrize("focus", [0, -1, -2**31])
def test_while_no_zone_is_known_the_zone_of_a_change_becomes_the_focused_one(log, tv, focus):
    change_focus(tv, log, focus, previous=1)
    before = log.end()
    tv.echo(12, "sound/zones/2/route")
    log.wait(re.compile(r"Speaker changed\[0->12\].*"), before)
    change_zone(tv, log, 1, 13, previous=12)
    log.wait("Focus:2 Speaker Changed. not for 1", before)


def test_a_zone_that_appears_is_reported(log, tv):
    before = log.end()
    put_zones(tv, zone_3=4)
    log.wait("Zone:3 Type(0->4)", before)
    log.wait("Focus:1 Speaker Changed. not for 3", before)


def test_a_route_change_of_the_whole_tv_forgets_the_zone(log, tv):
    before = log.end()
    tv.echo(12, "sound/route")
    log.wait(re.compile(r"Speaker changed\[0->12\].*"), before)
    change_focus(tv, log, 2, previous=0)


def test_an_unreadable_route_of_a_zone_changes_nothing(log, tv):
    before = log.end()
    tv.echo("loud", "sound/zones/1/route")
    change_zone(tv, log, 1, 12, previous=0)
    assert [text for text in log.texts(before) if text.startswith("Zone:")] == ["Zone:1 Type(0->12)"]


# --- the focus -------------------------------------------------------------------------------------------------------


def test_the_focus_moving_to_another_output_replaces_the_speaker_silently(log, tv, client):
    before = log.end()
    change_focus(tv, log, 2, previous=1)
    log.wait("Create HDMI Speaker", before)
    assert client.get_support() == (15, 0)
    assert client.get_volume() == (7, 0)
    assert [line for line in lines(log, before) if line[1] != "methodCallHandler"] == [
        ("I", "FocusChangedCallback", "Focus (1->2)"),
        ("I", "_GetOutputRoute", "zoneID:2 route:2"),
        ("I", "CreateSpeaker", "Create HDMI Speaker"),
    ]
    client.expect_silence()
    tv.echo(44, f"{MIRRORING}/get_volume_level_hdmi")
    client.expect("SpeakerVolumeChanged", 15, 44)


def test_the_focus_moving_to_the_same_output_keeps_the_speaker(log, tv):
    put_zones(tv, zone_3=0)
    before = log.end()
    change_focus(tv, log, 3, previous=1)
    log.wait("zoneID:3 route:0", before)
    change_focus(tv, log, 1, previous=3)
    assert not any(text.startswith("Create") for text in texts(log, before))


def test_a_focus_change_does_not_touch_the_previous_output(log, tv, client):
    publish(tv, "mlr")
    change_zone(tv, log, 1, 4, previous=0)  # from here on the previous route is 0
    change_focus(tv, log, 2, previous=1)
    before = log.end()
    client.emit("SpkDisconnected", "is", 2, "bar")
    log.wait("Speaker(type:2):bar disconnected. Connect to previous(type:0)", before)


def test_the_gain_of_a_silent_change_is_not_reset(log, tv, client):
    assert client.call("ApplyGainOnMute", "ii", 3, 40) == (0,)
    change_focus(tv, log, 2, previous=1)
    client.get_support()  # waits until the signal was handled
    assert tv.read("audio/main_out_gain2") == "40"


def test_the_focus_on_a_zone_that_has_ended_asks_for_the_single_route(log, tv, client):
    tv.echo(12, "sound/route")
    log.wait(re.compile(r"Speaker changed\[0->12\].*"))
    change_zone(tv, log, 2, 4, previous=12)
    before = log.end()
    change_focus(tv, log, 9, previous=2)
    log.wait("Create TV Speaker", before)
    assert lines(log, before) == [
        ("I", "FocusChangedCallback", "Focus (2->9)"),
        ("W", "_GetOutputRoute", "Multiview is terminated, call sound_manager_get_speaker_selection"),
        ("I", "_GetOutputRoute", "zoneID:9 route:12"),
        ("I", "CreateSpeaker", "Create TV Speaker"),
    ]
    assert client.get_support() == (0xFFFF, 0)


@pytest.mark.parametrize("route", ["", "loud", None])
def test_the_focus_on_a_zone_without_a_readable_route_takes_the_default_output(log, tv, client, route):
    change_zone(tv, log, 1, 2, previous=0)
    if route is None:
        (tv.path / "sound/zones/3").mkdir()
    else:
        put_zones(tv, zone_3=route)
    before = log.end()
    change_focus(tv, log, 3, previous=1)
    failed = log.wait("get current speaker type failed", before)
    assert (failed.priority, failed.function) == ("E", "_GetOutputRoute")
    assert client.get_support() == (0xFFFF, 0)


def test_a_focus_change_in_single_view_changes_nothing(daemon, tv):
    log = daemon.log
    put_zones(tv, zone_1=0)
    before = log.end()
    tv.echo(1, FOCUS)
    line = log.wait("For single view. not this cb", before)
    assert (line.priority, line.function) == ("E", "FocusChangedCallback")
    tv.echo(12, "sound/route")  # arrives after that change
    log.wait(re.compile(r"Speaker changed\[0->12\].*"), before)
    assert not any(text.startswith("Focus") for text in texts(log, before))


# --- routes set by the daemon ----------------------------------------------------------------------------------------


def routes(tv):
    return {zone.name: zone.joinpath("route").read_text().strip() for zone in (tv.path / "sound/zones").iterdir()
            if zone.joinpath("route").exists()}


def test_a_route_is_set_zone_by_zone_in_ascending_order(log, tv, client):
    put_zones(tv, zone_10=4, **{"zone_-3": 4})
    (tv.path / "sound/zones/attic").mkdir()  # not a zone
    before = log.end()
    client.emit("SpkDisconnected", "is", 2, "bar")
    log.wait("Set Speaker Output(0)", before)
    assert [text for text in log.texts(before) if text.startswith("[Zone:")] == [
        f"[Zone:{zone:2}] Speaker Output(0). ret:0" for zone in (-3, 1, 2, 10)]
    assert routes(tv) == {"-3": "0", "1": "0", "2": "0", "10": "0"}
    assert tv.read("sound/route") == "0"


def test_the_zone_of_the_sub_bluetooth_output_keeps_its_route(log, tv, client):
    tv.echo(2, SUB_ZONE)
    before = log.end()
    client.emit("SpkDisconnected", "is", 2, "bar")
    log.wait("Set Speaker Output(0)", before)
    assert [text for text in log.texts(before) if text.startswith("[Zone:")] == [
        "[Zone: 1] Speaker Output(0). ret:0", "[Zone: 2] SubBT is connected. Skip current zone"]
    assert routes(tv) == {"1": "0", "2": "2"}


def test_a_zone_that_cannot_be_set_does_not_stop_the_others(log, tv, client):
    (tv.path / "sound/zones/0/route/in-the-way").mkdir(parents=True)
    before = log.end()
    client.emit("SpkDisconnected", "is", 2, "bar")
    log.wait("Set Speaker Output(0)", before)
    failed, *others = [text for text in log.texts(before) if text.startswith("[Zone:")]
    assert re.fullmatch(r"\[Zone: 0\] Speaker Output\(0\)\. ret:-1\d{3}", failed)
    assert others == ["[Zone: 1] Speaker Output(0). ret:0", "[Zone: 2] Speaker Output(0). ret:0"]


def test_without_zones_no_route_is_set(daemon, tv, client):
    log = daemon.log
    before = log.end()
    change_mode(tv, log, ON, "on")
    client.emit("SpkDisconnected", "is", 2, "bar")
    log.wait("Set Speaker Output(0)", before)
    assert not any(text.startswith("[Zone:") for text in log.texts(before))
    assert tv.read("sound/route") == "0"


# --- the optical cable in multi-view ---------------------------------------------------------------------------------


@pytest.fixture
def sub_zone_focused(two_zones, log, tv):
    """A kavreld in multi-view: zone 2 has the focus and the sub Bluetooth output, the optical cable is connected."""
    tv.echo(2, SUB_ZONE)
    tv.echo(1, SPDIF)
    return two_zones


def unplug(tv, log):
    before = log.end()
    tv.echo(0, SPDIF)
    return log.wait(re.compile(r"Spdif cable is disconnected\. route:-?\d+"), before)


def test_pulling_the_cable_in_the_focused_zone_sets_all_zones_to_the_default_output(log, tv):
    tv.echo(1, SPDIF)
    publish(tv, "optical")
    change_zone(tv, log, 1, 1, previous=0)
    before = log.end()
    assert unplug(tv, log).text == "Spdif cable is disconnected. route:1"
    log.wait("Set Speaker Output(0)", before)
    assert routes(tv) == {"1": "0", "2": "0"}


def test_pulling_the_cable_while_the_sub_bluetooth_zone_listens_leaves_it_alone(sub_zone_focused, log, tv):
    publish(tv, "optical")
    change_zone(tv, log, 1, 1, previous=0)
    change_zone(tv, log, 1, 12, previous=1)  # makes the optical output the previous one
    change_focus(tv, log, 2, previous=1)
    before = log.end()
    unplug(tv, log)
    line = log.wait("Prev:1->0", before)
    assert (line.priority, line.function) == ("I", "SpdifChangedCallback")
    assert routes(tv) == {"1": "0", "2": "2"}
    assert log.find("[Zone: 2] SubBT is connected. Skip current zone", before)

    tv.echo(1, SPDIF)
    sub_zone_focused.settle()  # kavreld logs nothing when the cable is connected
    before = log.end()
    unplug(tv, log)
    log.wait("Skip. Prev:0", before)  # the daemon has forgotten the optical output


def test_pulling_the_cable_while_the_sub_bluetooth_zone_listens_and_nothing_was_optical(sub_zone_focused, log, tv):
    change_focus(tv, log, 2, previous=1)
    before = log.end()
    unplug(tv, log)
    line = log.wait("Skip. Prev:0", before)
    assert (line.priority, line.function) == ("E", "SpdifChangedCallback")
    assert routes(tv) == {"1": "0", "2": "2"}
    assert not any(text.startswith("Set Speaker") for text in log.texts(before))


def test_pulling_the_cable_while_another_zone_listens_goes_by_that_zones_route(sub_zone_focused, log, tv):
    before = log.end()
    assert unplug(tv, log).text == "Spdif cable is disconnected. route:0"
    log.wait("Skip. Curr:0 Prev:0", before)
    assert routes(tv) == {"1": "0", "2": "2"}
