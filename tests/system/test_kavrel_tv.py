# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""kavrel-tv shows the TV and changes it; kavreld hears of that as of a TV's own changes."""
import json
import os
import re

import pytest

from harness import TV_SUPPORT
from kavrel_tv import COMMANDS, make_tool, refused

MIRRORING = "settings/memory/menu/network/screenmirroring"
FEATURES = "features/com.norvik/featureconf"

tool = pytest.fixture(make_tool)


def state_of(folder):
    """Returns {path: text, or None for a folder} of a folder, without the folders in which writers make their files."""
    return {str(path.relative_to(folder)): path.read_text() if path.is_file() else None for path in folder.rglob("*")
            if ".tmp" not in path.parts}


# --- show

def test_show_draws_the_whole_tv_with_what_its_values_mean(tool, tv):
    assert tool("show") == f"""\
TV in {tv.path}, kavreld not ready
├─ output          0 tv, TV speaker
├─ sound
│  ├─ route        0 tv, TV speaker
│  ├─ volume       10, mute off
│  ├─ main gain    100 %
│  └─ sub gain     100 %
├─ multi-view      off, no zones
├─ connections
│  ├─ cable        not set (S/PDIF)
│  ├─ mobile       not set (TV to mobile)
│  ├─ sub-bt       none
│  ├─ projector    not set
│  └─ popup        off
└─ features        (kavreld reads them when it starts)
   ├─ com.norvik/featureconf/internal_speaker_supported   on
   ├─ com.norvik/featureconf/multiview.support            on
   └─ com.norvik/featureconf/projector_feature_support    off
"""


def test_show_tells_of_zones_focus_and_the_device_in_use(tool, tv):
    for command in ("zones 1,2,3", "focus 2", "zone-route 2 hdmi", "sub-bt 3", "cable in",
                    "mobile on", "projector ready", "popup on", "mute on",
                    "key memory/menu/network/screenmirroring/volume_support_hdmi 7",
                    "key memory/menu/network/screenmirroring/get_volume_level_hdmi 42",
                    "key memory/menu/network/screenmirroring/get_volume_mute_hdmi 2"):
        tool(*command.split())
    assert tool.show()["output"]["zone"] is None  # the focus counts in multi-view alone
    tool("multiview", "on")
    tv.echo("45", "audio/main_out_gain2")
    tv.echo("55", "audio/sub_out_gain2")
    assert (tool.show()["main_gain"], tool.show()["sub_gain"]) == (45, 55)
    tv.echo("99", "sound/zones/3/route")
    lines = tool("show").splitlines()
    assert lines[1:] == """\
├─ output          2 hdmi, HDMI receiver, of the zone in focus
│  ├─ level        42, mute on
│  └─ can          read volume, set volume, read mute; not: set mute (0x0007)
├─ sound
│  ├─ route        0 tv, TV speaker
│  ├─ volume       10, mute on
│  ├─ main gain    45 %
│  └─ sub gain     55 %
├─ multi-view      on
│  ├─ zone 1       0 tv, TV speaker
│  ├─ zone 2       2 hdmi, HDMI receiver, focus
│  └─ zone 3       99 unknown, sub Bluetooth
├─ connections
│  ├─ cable        in (S/PDIF)
│  ├─ mobile       on (TV to mobile)
│  ├─ sub-bt       zone 3
│  ├─ projector    ready
│  └─ popup        on
└─ features        (kavreld reads them when it starts)
   ├─ com.norvik/featureconf/internal_speaker_supported   on
   ├─ com.norvik/featureconf/multiview.support            on
   └─ com.norvik/featureconf/projector_feature_support    off""".splitlines()
    tv.echo("9", "zones/focus")
    tool("sub-bt", "none")
    lines = tool("show").splitlines()
    assert "├─ multi-view      on, focus on zone 9" in lines and "│  ├─ sub-bt       none" in lines
    assert tool.show()["sub_bt"] is None
    tv.remove("zones/focus")
    assert "├─ multi-view      on, focus not set" in tool("show").splitlines()
    tv.echo("2", "sound/zones/0/route")
    assert "│  ├─ zone 0       2 hdmi, HDMI receiver" in tool("show").splitlines()


def test_show_as_json_says_the_same(tool, tv):
    assert tool.show() == {
        "directory": str(tv.path), "ready": False, "output": {"route": {"code": 0, "name": "tv"}, "zone": None, "device": None},
        "route": {"code": 0, "name": "tv"}, "multiview": False, "zones": [], "focus": None, "volume": 10, "mute": False,
        "main_gain": 100, "sub_gain": 100, "cable": None, "mobile": None, "projector": None, "sub_bt": None, "popup": False,
        "features": {"com.norvik/featureconf/internal_speaker_supported": True,
                     "com.norvik/featureconf/multiview.support": True,
                     "com.norvik/featureconf/projector_feature_support": False}}
    for command in ("multiview on", "zones 1,5", "focus 5", "zone-route 5 usb", "sub-bt 1", "cable out", "mobile off",
                    "projector not-ready", "popup on", "key db/usbsound/volume_level 3", "volume 77"):
        tool(*command.split())
    shown = tool.show()
    assert shown["output"] == {"route": {"code": 15, "name": "usb"}, "zone": 5,
                               "device": {"kind": "usb", "support": None, "level": 3, "mute": None}}
    assert shown["zones"] == [{"id": 1, "route": {"code": 0, "name": "tv"}}, {"id": 5, "route": {"code": 15, "name": "usb"}}]
    assert (shown["multiview"], shown["focus"], shown["sub_bt"], shown["volume"]) == (True, 5, 1, 77)
    assert (shown["cable"], shown["mobile"], shown["projector"], shown["popup"]) == (False, False, False, True)


def test_show_sees_the_daemon_come_and_what_it_plays(scene, tv, tool):
    scene.start()
    assert tool.show()["ready"] is True
    assert tool("show").splitlines()[0].endswith(", kavreld ready")
    assert tool.terminal("show", columns=200).run().splitlines()[0].endswith("kavreld \033[32mready\033[0m")


@pytest.mark.parametrize("file, key, good", [
    ("sound/route", "route", 0), ("audio/master_volume", "volume", 10), ("audio/master_mute", "mute", 0),
    ("audio/main_out_gain2", "main_gain", 100), ("settings/memory/sysman/spdif", "cable", 0), ("zones/focus", "focus", 1)])
def test_show_calls_junk_unreadable(tool, tv, file, key, good):
    tool("show")
    tv.echo(good, file)
    assert "unreadable" not in tool("show")
    for junk in ("loud", "", "99999999999"):
        tv.echo(junk, file)
        done = tool.run("show")
        assert (done.returncode, done.stderr) == (0, "")
        assert "unreadable" in done.stdout
        assert tool.show()[key] is None


def test_show_survives_hostile_names_and_texts(tool, tv):
    tool("show")
    tv.echo("true", f"features/evil\033[31m\n{chr(0xFFFD)}")
    tv.echo("maybe", "features/odd")
    tv.echo("true", "features/.new")
    tv.echo('["mode"]', "settings/memory/multiscreen/info")
    (tv.path / "sound/zones/1").mkdir()
    (tv.path / "sound/zones/junk").mkdir()
    shown = tool("show")
    assert "\033" not in shown and "evil?[31m??" in shown
    assert "zone 1       not set" in shown and "junk" not in shown
    assert re.search(r" odd +unreadable\n", shown) and ".new" not in shown
    for command in ("multiview on", "focus 1"):
        tool(*command.split())
    assert tool.show()["output"] == {"route": {"code": 0, "name": "tv"}, "zone": None, "device": None}


@pytest.mark.parametrize("code, name", [(-1, "unknown"), (7, "other-7"), (20, "unknown"), (2**31 - 1, "unknown")])
def test_show_names_every_code(tool, tv, code, name):
    tool("show")
    tv.echo(code, "sound/route")
    assert tool.show()["route"] == {"code": code, "name": name}


def test_show_draws_in_ascii_where_the_locale_is_not_utf8(tool):
    shown = tool.run("show", LC_ALL="C").stdout
    assert shown.isascii() and "\n|- sound\n|  |- route        0 tv, TV speaker\n" in shown


def test_colours_are_for_a_terminal_without_no_color(tool, tv):
    assert "\033" not in tool("show")
    plain = tool.terminal("show", NO_COLOR="1").run()
    coloured = tool.terminal("show").run()
    assert "\033" not in plain
    assert re.sub(r"\033\[\d*m", "", coloured) == plain
    for piece in ("\033[1mTV\033[0m", "kavreld \033[33mnot ready\033[0m\n", "\n\033[2m├─ \033[0moutput", "\033[1m10\033[0m, mute off\n",
                  "\033[2mnot set\033[0m\n", "\033[32mon\033[0m\n"):
        assert piece in coloured, piece
    tool("mute", "on")
    tv.echo("loud", "audio/sub_out_gain2")
    coloured = tool.terminal("show").run()
    assert "mute \033[33mon\033[0m\n" in coloured and "\033[31munreadable\033[0m\n" in coloured


def test_show_cuts_its_lines_at_the_edge_of_the_terminal(tool):
    narrow = tool.terminal("show", columns=30, NO_COLOR="1").run().splitlines()
    assert max(map(len, narrow)) == 30
    assert tool.terminal("show", rows=0, columns=0, NO_COLOR="1").run() == tool("show")  # 80 columns are enough for it


# --- The verbs

GOOD = [
    ("route 2", {"sound/route": "2"}),
    ("route hdmi", {"sound/route": "2"}),
    ("multiview on", {"settings/memory/multiscreen/info": '{"mode":"on"}'}),
    ("multiview off", {"settings/memory/multiscreen/info": '{"mode":"off"}'}),
    ("zones 3,1", {"sound/zones/1/route": "0", "sound/zones/3/route": "0"}),
    ("cable in", {"settings/memory/sysman/spdif": "1"}),
    ("cable out", {"settings/memory/sysman/spdif": "0"}),
    ("mobile on", {f"{MIRRORING}/smsrc_status": "1"}),
    ("mobile off", {f"{MIRRORING}/smsrc_status": "0"}),
    ("projector ready", {"settings/memory/projector/status/ready": "1"}),
    ("projector not-ready", {"settings/memory/projector/status/ready": "0"}),
    ("sub-bt 2", {"settings/memory/org.olvane.btapp/sub_audio_zoneid": "2"}),
    ("sub-bt none", {"settings/memory/org.olvane.btapp/sub_audio_zoneid": "-1"}),
    ("feature internal-speaker off", {f"{FEATURES}/internal_speaker_supported": "false"}),
    ("feature multiview off", {f"{FEATURES}/multiview.support": "false"}),
    ("feature projector on", {f"{FEATURES}/projector_feature_support": "true"}),
    ("feature new/one on", {"features/new/one": "true"}),
    ("popup on", {"events/FadeInPopup": "done"}),
    ("volume 0", {"audio/master_volume": "0"}),
    ("volume 100", {"audio/master_volume": "100"}),
    ("mute on", {"audio/master_mute": "1"}),
    ("mute off", {"audio/master_mute": "0"}),
    ("key db/some/text hello", {"settings/db/some/text": "hello"}),
]


@pytest.mark.parametrize("command, written", GOOD, ids=[command for command, _ in GOOD])
def test_a_verb_writes_its_value_and_nothing_else(tool, tv, command, written):
    tool("show")
    before = state_of(tv.path)
    tool(*command.split())
    after = state_of(tv.path)
    new_files = {path: text for path, text in after.items() if text is not None and before.get(path) != text}
    assert new_files == {path: f"{text}\n" for path, text in written.items() if before.get(path) != f"{text}\n"}
    assert set(before) <= set(after)
    assert {path: after[path] for path in written} == {path: f"{text}\n" for path, text in written.items()}


ROUTE_WORDS = ["TV speaker", "optical receiver", "HDMI receiver", "Bluetooth speaker", "Wi-Fi speaker", "Bluetooth earbuds",
               "several outputs at once", "output without volume control", "HDMI receiver", "optical receiver", "Wi-Fi speaker",
               "TV speaker and optical receiver", *["TV speaker"] * 3, "USB speaker", *["output without volume control"] * 3,
               "Auracast speaker"]
ROUTE_NAMES = ["tv", "optical", "hdmi", "bt", "wifi", "bt-buds", "multi-output", "other-7", "hdmi-2", "optical-2", "wifi-2",
               "tv-optical", "tv-2", "tv-3", "tv-4", "usb", "other-16", "other-17", "other-18", "auracast"]


def test_every_route_has_a_name_which_the_help_lists(tool, tv):
    listed = re.findall(r"^ +(\d+)  (\S+) +(.*)$", tool("route", "--help"), re.MULTILINE)
    assert listed == [(str(code), *texts) for code, texts in enumerate(zip(ROUTE_NAMES, ROUTE_WORDS))]
    for code, name in enumerate(ROUTE_NAMES):
        tool("route", name)
        assert tv.read("sound/route") == str(code)


def test_an_unknown_route_is_refused_with_the_known_ones(tool, tv):
    known = ", ".join(f"{code} {name}" for code, name in enumerate(ROUTE_NAMES))
    tool("zones", "1")
    before = state_of(tv.path)
    for command in ("route 20", "route -1", "route 4294967296", "route HDMY", "zone-route 1 20"):
        done = tool.run(*command.split())
        verb, *_, route = command.split()
        assert (done.returncode, refused(done)) == (
            64, f'ROUTE: "{route}" is neither the code nor the name of a route: {known}; see kavrel-tv {verb} --help')
    assert state_of(tv.path) == before


BAD = ["", "foo", "--foo", "show x", "watch x", "route", "route hdmy", "route 1.5", "route 20", "route -1",
       "route 1 2", "multiview", "multiview yes", "multiview 1", "zones", "zones 1,x", "zones 1,,2", "zones ,", "focus", "focus x", "focus 1 2",
       "zone-route", "zone-route 1", "zone-route x 1", "zone-route 1 x", "zone-route 1 20", "cable", "cable on", "mobile", "mobile in", "projector",
       "projector on", "sub-bt", "sub-bt nobody", "feature", "feature multiview", "feature multiview yes", "feature ../x on",
       "feature /x on", "popup", "popup done", "volume", "volume -1", "volume 101", "volume loud", "mute", "mute toggle", "key",
       "key a//b", "key ../x", "key .x 1", "key a b c", "devices x", "devices --delay", "devices --delay x", "devices --delay -1",
       "devices --jitter x", "devices --delay 60001", "devices --support loud", "devices --support -1", "devices --support 15x", "devices --support 4294967296", "devices --fail 101", "devices --rounding 0",
       "devices --vanish-after 0", "devices --seed x", "record /dev/null --seconds nan", "record /dev/null --seconds 0",
       "record /dev/null --seconds x", "record /dev/null --seconds 86401", "emulator", "emulator usb", "emulator bt --volume x", "--dir"]


def test_a_bad_argument_gives_one_clear_line_and_changes_nothing(tool, tv):
    tool("show")
    before = state_of(tv.path)
    for command in BAD:
        done = tool.run(*command.split())
        assert done.returncode == 64, command
        words = command.split()
        about = f" {words[0]}" if words and words[0] in COMMANDS else ""
        assert refused(done).endswith(f"; see kavrel-tv{about} --help"), command
        assert state_of(tv.path) == before, command


def test_zones_come_with_the_route_in_force_and_go(tool, tv):
    tool("route", "hdmi")
    tool("zones", "1,2")
    tool("zone-route", "1", "usb")
    tool("route", "wifi")
    tool("zones", "1,7")
    assert {zone["id"]: zone["route"]["name"] for zone in tool.show()["zones"]} == {1: "usb", 7: "wifi"}
    assert sorted(path.name for path in (tv.path / "sound/zones").iterdir()) == ["1", "7"]
    (tv.path / "sound/zones/.7.gone/old").mkdir(parents=True)  # as one that was killed leaves it
    tool("zones", "none")
    assert list((tv.path / "sound/zones").iterdir()) == []


def test_the_focus_leaves_a_zone_that_goes(tool, tv):
    tool("zones", "1,2,3")
    tool("focus", "2")
    assert tool("zones", "1,2") == ""
    assert tv.read("zones/focus") == "2"
    assert tool("zones", "1,3") == "the focus is on zone 1 now\n"
    assert tv.read("zones/focus") == "1"
    tool("zones", "none")
    assert not tv.has("zones/focus")


@pytest.mark.parametrize("command", ["focus 4", "zone-route 4 hdmi"])
def test_a_zone_that_is_not_there_is_refused(tool, tv, command):
    tool("zones", "1,2")
    before = state_of(tv.path)
    done = tool.run(*command.split())
    assert done.returncode == 1
    assert refused(done) == "there is no zone 4; kavrel-tv zones makes some"
    assert state_of(tv.path) == before


def test_multiview_keeps_what_else_its_setting_holds(tool, tv):
    tool("key", "memory/multiscreen/info", '{"layout":"2x1","mode":"off"}')
    tool("multiview", "on")
    assert json.loads(tv.read("settings/memory/multiscreen/info")) == {"layout": "2x1", "mode": "on"}


@pytest.mark.parametrize("junk", ["junk", "", '["mode"]', '{"mode":', "[" * 5000])
def test_multiview_is_off_while_its_setting_is_junk(tool, tv, junk):
    tool("key", "memory/multiscreen/info", junk)
    assert tool.show()["multiview"] is False
    tool("multiview", "on")
    assert tv.read("settings/memory/multiscreen/info") == '{"mode":"on"}'
    assert tool.show()["multiview"] is True


def test_what_does_not_work_by_itself_is_said(tool, tv):
    assert "no zones" in tool("multiview", "on")
    assert tool("multiview", "off") == ""
    assert "reads the features only when it starts" in tool("feature", "multiview", "off")
    assert "feature multiview on" in tool("multiview", "on")
    assert tool.show()["multiview"] is False
    assert tool("multiview", "off") == ""
    tv.remove(f"{FEATURES}/multiview.support")
    assert "feature multiview on" in tool("multiview", "on")
    assert "feature projector on" in tool("projector", "ready")
    tool("feature", "projector", "on")
    assert tool("projector", "ready") == ""


def test_key_prints_what_stands_there(tool, tv):
    text = "two\nlines, a blank at the end "
    tool("key", "db/some/text", text)
    assert tool("key", "db/some/text") == text + "\n"
    tool("key", "db/some/text", "")
    assert tool("key", "db/some/text") == "\n"
    done = tool.run("key", "db/other")
    assert done.returncode == 1 and refused(done) == "db/other is not set"
    done = tool.run("key", "db/some")
    assert done.returncode == 1 and refused(done) == f"Cannot read {tv.path}/settings/db/some: Is a directory"


def test_popup_off_takes_the_event_back(tool, tv):
    tool("popup", "on")
    assert tv.has("events/FadeInPopup")
    tool("popup", "off")
    tool("popup", "off")
    assert not tv.has("events/FadeInPopup")


def test_a_value_that_cannot_be_written_is_one_line_too(tool, tv):
    tool("show")
    tv.remove("audio/master_volume")
    (tv.path / "audio/master_volume/in the way").mkdir(parents=True)
    done = tool.run("volume", "5")
    assert done.returncode == 1
    assert refused(done) == f"Cannot write {tv.path}/audio/master_volume: Is a directory"


def test_a_zone_that_cannot_be_made_is_one_line_too(tool, scene):
    other = scene.folder / "o\033ther\n"
    other.mkdir()
    tool("--dir", str(other), "zones", "none")
    (other / "sound/zones/3").write_text("in the way")
    done = tool.run("--dir", str(other), "zones", "3")
    assert done.returncode == 1 and refused(done).startswith("filesystem error: cannot rename: ")
    assert "/o?ther /sound" in done.stderr


@pytest.fixture
def read_only(tool, tv):
    """A TV directory that nobody may write, except a root with all its rights."""
    tool("show")
    folders = [tv.path, *(path for path in tv.path.rglob("*") if path.is_dir())]
    for folder in folders:
        folder.chmod(0o555)
    yield
    for folder in folders:
        folder.chmod(0o755)


WITHOUT_RIGHTS = ["setpriv", "--bounding-set=-dac_override,-dac_read_search",
                  "--inh-caps=-dac_override,-dac_read_search", "--"] if os.geteuid() == 0 else []


def test_a_tv_that_this_user_may_not_read_is_named(tool, tv):
    tv.path.chmod(0)
    done = tool.run("show", before=WITHOUT_RIGHTS)
    tv.path.chmod(0o755)
    assert done.returncode == 2 and refused(done) == f"cannot read {tv.path}: Permission denied"


def test_a_tv_that_cannot_be_filled_is_named(tool, tv):
    tv.path.chmod(0o555)
    done = tool.run("show", before=WITHOUT_RIGHTS)
    tv.path.chmod(0o755)
    assert done.returncode == 2 and refused(done) == f"Cannot make {tv.path}/.filling: Permission denied"


@pytest.mark.parametrize("command", ["volume 5", "zones 1", "devices"])
def test_a_tv_that_this_user_may_not_write_is_one_line_with_a_status_of_its_own(read_only, tool, tv, command):
    before = state_of(tv.path)
    done = tool.run(*command.split(), before=WITHOUT_RIGHTS)
    assert done.returncode == 77
    assert re.fullmatch(rf"not allowed: needs root or the group audio: Cannot \w+ {tv.path}/.*: Permission denied", refused(done))
    assert state_of(tv.path) == before


def test_dir_names_another_tv(tool, scene):
    other = scene.folder / "other"
    other.mkdir()
    tool("--dir", str(other), "volume", "33")
    tool("route", "usb", "--dir", str(other))
    assert (other / "audio/master_volume").read_text() == "33\n"
    assert tool.show()["volume"] == 10
    assert json.loads(tool("--dir", str(other), "show", "--json"))["route"]["code"] == 15


@pytest.mark.parametrize("files", [[".hidden"], [".filling", "half"]], ids=["hidden", "filling"])
def test_a_directory_that_is_empty_or_not_yet_full_is_a_tv(tool, scene, files):
    other = scene.folder / "other"
    other.mkdir()
    for name in files:
        (other / name).touch()
    tool("--dir", str(other), "volume", "33")
    assert (other / "audio/master_volume").read_text() == "33\n" and (other / "sound/route").read_text() == "0\n"


def test_the_tv_is_that_of_the_system_by_default(tool):
    command = "--help" if os.path.exists("/run/kavrel") else "show"  # a test leaves the system's own TV alone
    done = tool.run(command, before=["env", "-u", "KAVREL_TV_DIR"])
    assert "/run/kavrel" in done.stdout + done.stderr


@pytest.mark.parametrize("command", [[name] for name in COMMANDS if name in ("show", "watch", "devices")] + [["volume", "5"]])
def test_without_a_tv_directory_it_makes_none(tool, scene, command):
    nowhere = scene.folder / "nowhere"
    done = tool.run("--dir", str(nowhere), *command)
    assert done.returncode == 2
    assert refused(done) == f"there is no TV directory {nowhere}; ./run makes one, --dir names another"
    assert not nowhere.exists()
    nowhere.mkdir()
    (nowhere / "somebody's file").write_text("mine")
    done = tool.run("--dir", str(nowhere), *command)
    assert done.returncode == 2 and refused(done) == f"{nowhere} is not a TV directory"
    assert [path.name for path in nowhere.iterdir()] == ["somebody's file"]


def test_help_has_an_example_and_fits_the_terminal(tool):
    for command in ["", *COMMANDS]:
        text = tool(*command.split(), "--help")
        assert re.search(rf"^  kavrel-tv {command}", text, re.MULTILINE), command
        assert [line for line in text.splitlines() if len(line) > 80] == []


def test_the_list_of_commands_is_complete(tool):
    commands = tool("--help").split("\nCommands:\n")[1].split("\n\n")[0]
    listed = re.findall(r"^  ([a-z-]+) ", commands, re.MULTILINE)
    assert listed == COMMANDS


# --- How the daemon follows

def test_the_daemon_hears_every_verb(scene, tv, tool, client):
    tool("feature", "projector", "on")
    log = scene.start().log

    def does(command, heard):
        before = log.end()
        tool(*command.split())
        log.settle()
        assert heard in [f"{line.priority} {line.function}" for line in log.lines(before)], command

    does("route tv-2", "I SpeakerChangedCallback")
    does("route 0", "I SpeakerChangedCallback")
    tool("cable", "in")
    does("cable out", "I SpdifChangedCallback")
    does("mobile on", "E Tv2MobileChangedCallback")
    does("mobile off", "E Tv2MobileChangedCallback")
    does("projector ready", "I AudioGainControlChangedCb")
    does("sub-bt 2", "I SubBTChangedCb")
    does("sub-bt none", "I SubBTChangedCb")
    tool("zones", "1,2")
    tool("focus", "1")
    does("multiview on", "I MSViewModeChangedCallback")
    does("zone-route 1 tv-3", "I MSViewSpeakerChangedCallback")
    does("focus 2", "I FocusChangedCallback")
    does("multiview off", "I MSViewModeChangedCallback")
    tool("volume", "42")
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 42)
    tool("mute", "on")
    client.expect("SpeakerMuteChanged", TV_SUPPORT, True)


def test_popup_on_makes_the_daemon_announce_a_finished_fade(scene, tool, client):
    tool("popup", "on")
    scene.start()
    client.listen_to("org.olvane.kv_popupnoti")
    client.call("ApplyPlayerFadeIn", "i", 1)
    member, text = client.take()
    assert member == "PopupNoti"
    assert "PlayerMainOutH" in text
