# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests that the daemon survives a TV directory that is missing or full of junk, and many clients."""
import errno
import shutil
import threading

import pytest

from harness import READY, change_at_rest, change_route

DEFAULT_TV = {
    "audio/main_out_gain2": "100",
    "audio/master_mute": "0",
    "audio/master_volume": "10",
    "audio/sub_out_gain2": "100",
    "features/com.norvik/featureconf/internal_speaker_supported": "true",
    "features/com.norvik/featureconf/multiview.support": "true",
    "features/com.norvik/featureconf/projector_feature_support": "false",
    "sound/route": "0",
}


def start_on_what_is_there(scene, client):
    """Starts a kavreld and waits until it answers, but not for the ready event, which such a TV may fail to store."""
    daemon = scene.launch()
    client.wait_for_owner(daemon)
    client.get_support()
    return daemon


def test_a_missing_tv_is_made_with_the_default_values(scene, tv):
    assert not tv.path.exists()
    scene.start()
    values = {str(file.relative_to(tv.path)): file.read_text().removesuffix("\n")
              for file in tv.path.rglob("*") if file.is_file()}
    assert DEFAULT_TV.items() <= values.items()
    assert not [name for name in values if "zones" in name]


def test_an_empty_tv_is_filled_with_the_default_values(scene, tv):
    tv.path.mkdir()
    scene.start()
    assert {value: tv.read(value) for value in DEFAULT_TV} == DEFAULT_TV


def test_a_tv_with_values_is_left_as_it_is(scene, tv, client):
    tv.echo(55, "audio/master_volume")
    start_on_what_is_there(scene, client)
    assert client.get_volume() == (55, 0)
    assert not tv.has("audio/master_mute")
    assert client.get_mute() == (0, -1000 - errno.ENOENT)


def test_nothing_is_written_outside_the_tv(scene, tv, client):
    scene.start()
    client.set_volume(30)
    assert sorted(path.name for path in scene.folder.iterdir()) == ["bus", "bus.log", "kavreld-1.log", "tv"]


def test_a_tv_that_is_a_file_is_survived(scene, tv, client):
    tv.path.write_text("no folder\n")
    daemon = start_on_what_is_there(scene, client)
    not_a_folder = -1000 - errno.ENOTDIR
    assert client.get_volume() == (0, not_a_folder)
    assert client.get_mute() == (0, not_a_folder)
    assert client.set_volume(30) == not_a_folder
    assert client.set_mute(True) == not_a_folder
    assert daemon.is_alive()
    assert tv.path.read_text() == "no folder\n"


def test_a_tv_that_vanishes_is_survived_and_comes_back_with_the_next_set(scene, daemon, client, tv):
    shutil.rmtree(tv.path)
    assert client.get_volume() == (0, -1000 - errno.ENOENT)
    assert client.set_volume(30) == 0
    assert client.get_volume() == (30, 0)


@pytest.mark.parametrize("junk", [b"", b"\n", b"junk\n", b"\0\0\0\0", b"9" * 100, b"\xff\xfe\n", b"[1, 2]\n",
                                  b'{"mode": 5}\n', b"-\n", b"1e3\n", b"x" * (2 << 20)],
                         ids=lambda junk: repr(junk[:10]))
def test_a_tv_full_of_junk_is_survived(scene, tv, client, junk):
    scene.start().kill()
    files = [file for file in tv.path.rglob("*") if file.is_file()]
    for file in files:
        file.write_bytes(junk)
    daemon = start_on_what_is_there(scene, client)
    assert client.get_support() == (0xFFFF, 0)  # the support word of the default output
    assert client.set_volume(30) == 0
    assert client.get_volume() == (30, 0)
    assert client.set_mute(True) == 0
    assert client.get_mute() == (1, 0)
    assert daemon.is_alive()


def test_folders_in_the_place_of_values_are_survived(scene, tv, client):
    scene.start().kill()
    for file in [file for file in tv.path.rglob("*") if file.is_file()]:
        file.unlink()
        file.mkdir()
    daemon = start_on_what_is_there(scene, client)
    volume, status = client.get_volume()
    assert (volume, status) == (0, -1000 - errno.EISDIR)
    assert client.set_volume(30) <= -1000
    assert daemon.is_alive()


@pytest.mark.parametrize("info", ["", "{", "null", "[]", "5", '"on"', '["on"]', '{"mode": 1}', '{"mode": ["on"]}',
                                  '{"mode": {"mode": "on"}}', '{"mode": "ON"}', "{}", "x" * 100000],
                         ids=lambda info: info[:20])
def test_multi_view_information_that_does_not_say_on_is_off(scene, tv, client, info):
    tv.echo(15, "settings/memory/menu/network/screenmirroring/volume_support_hdmi")
    log = scene.start().log
    change_at_rest(tv, log, "settings/memory/multiscreen/info", info)
    change_route(tv, log, 2)  # in multi-view the daemon would ignore this route
    assert client.get_support() == (15, 0)


def test_many_clients_at_once_are_all_served(scene, daemon, client):
    clients = [scene.client() for _ in range(8)]
    failures = []

    def hammer(number, one):
        for turn in range(100):
            statuses = [one.call("SetSpeakerVolume", "i", (turn * 8 + number) % 101)[0], one.call("GetSpeakerVolume")[1],
                        one.call("SetSpeakerMute", "b", turn % 2 == 0)[0], one.call("GetSpeakerMute")[1],
                        one.call("GetSpeakerSupportType")[1]]
            if any(statuses):
                failures.append(statuses)

    threads = [threading.Thread(target=hammer, args=pair) for pair in enumerate(clients)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == []  # one thread serves all clients, so none is refused as busy
    assert client.set_volume(30) == 0
    assert client.get_volume() == (30, 0)


def test_the_ready_event_of_a_killed_daemon_is_raised_anew(scene, tv):
    scene.start().kill()
    assert tv.has(READY)  # the killed daemon could not withdraw it; the service unit does that
    tv.remove(READY)
    scene.start()
    assert tv.has(READY)
