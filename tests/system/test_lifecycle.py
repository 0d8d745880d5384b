# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the daemon's life from outside: start, name, ready event, a second instance, the end of the bus."""
import signal

import pytest
from gi.repository import GLib

from harness import NAME, READY


def test_ready_event_appears_with_the_name(scene, tv, client):
    assert not tv.has(READY)
    daemon = scene.launch()
    client.wait_for_owner(daemon)
    tv.wait_until(READY, lambda: tv.has(READY))


def test_volume_control_stands_before_the_first_call(scene, daemon, client):
    assert client.get_support() == (0xFFFF, 0)
    assert [line.function for line in daemon.log.lines()].count("CreateSpeaker") == 1


def test_no_signal_is_handled_so_a_supervisor_ends_it_at_once(daemon):
    daemon.may_be_gone = True
    daemon.signal(signal.SIGTERM)
    assert daemon.wait() == -signal.SIGTERM
    assert [line.function for line in daemon.log.lines()].count("main") == 1  # it logs its start, and no end


def test_end_of_the_bus_ends_the_daemon(scene, daemon):
    daemon.may_be_gone = True
    scene.bus.end()
    assert daemon.wait() == -signal.SIGTERM


def test_without_a_bus_it_idles(scene, tv):
    daemon = scene.launch(DBUS_SYSTEM_BUS_ADDRESS=f"unix:path={scene.folder}/nobody")
    line = daemon.log.wait("Connection is NULL")
    assert (line.priority, line.file, line.function) == ("E", "KVServer.cpp", "onNameLost")
    assert daemon.is_alive()
    assert not tv.has(READY)


def test_without_a_bus_the_tv_is_followed_all_the_same(scene, tv):
    daemon = scene.launch(DBUS_SYSTEM_BUS_ADDRESS=f"unix:path={scene.folder}/nobody")
    lost = daemon.log.wait("Connection is NULL")
    tv.echo(42, "audio/master_volume")
    refused = daemon.log.wait("Connection is NULL", after=lost.number)
    assert refused.function == "onVolumeChanged"


@pytest.fixture
def second(scene, daemon, tv):
    """A second kavreld, which waits for the name of the first and has handled that it did not get the name."""
    second = scene.launch()
    tv.wait_until(READY, lambda: not tv.has(READY))
    return second


def test_second_instance_withdraws_the_ready_event_and_stays(second, daemon, client):
    assert second.is_alive()
    assert client.owner_pid() == daemon.pid


def test_second_instance_announces_nothing(second, daemon, client, tv):
    tv.echo(42, "audio/master_volume")
    client.expect("SpeakerVolumeChanged", 0xFFFF, 42)
    refused = second.log.wait("Connection is NULL")
    assert refused.function == "onVolumeChanged"
    client.expect_silence()


def test_second_instance_takes_over_name_and_announcements_but_not_the_methods(second, daemon, client, tv):
    daemon.kill()
    client.wait_for_owner(second)
    tv.wait_until(READY, lambda: tv.has(READY))

    with pytest.raises(GLib.Error, match="UnknownMethod"):
        client.get_volume()

    tv.echo(43, "audio/master_volume")
    client.expect("SpeakerVolumeChanged", 0xFFFF, 43)


def test_restart_serves_again(scene, daemon, client, tv):
    assert client.set_volume(30) == 0
    daemon.kill()
    scene.start()
    assert client.get_volume() == (30, 0)


def test_name_is_the_documented_one(daemon, scene):
    assert f"{NAME} " in scene.run("busctl", "--system", "--no-legend", "list", "--unique", "--acquired")
