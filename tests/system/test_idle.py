# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests that no thread of an idle daemon ever wakes up."""
import time

from harness import FOREIGN_THREADS

QUIET = 10.0  # seconds of observation


def woken_threads(daemon):
    """Returns {thread: wake-ups} of the threads that woke up while this function observed them."""
    before = daemon.threads()
    time.sleep(QUIET)
    after = daemon.threads()
    assert after.keys() == before.keys()
    return {f"{name} ({thread})": switches - before[thread][1] for thread, (name, switches) in after.items()
            if switches != before[thread][1]}


def assert_idle(daemon):
    daemon.log.wait_for_rest()
    assert len(daemon.threads()) >= 8  # main, bus, platform and six gain workers
    before = daemon.log.end()
    woken = woken_threads(daemon)
    assert len(woken) <= FOREIGN_THREADS, woken
    assert daemon.log.end() == before


def test_no_thread_wakes_up_after_the_start(daemon):
    assert_idle(daemon)


def test_no_thread_wakes_up_after_work(daemon, client, tv):
    client.set_volume(30)
    client.set_mute(True)
    client.set_mute(False)  # starts a fade-in
    tv.echo(12, "sound/route")
    daemon.log.wait_matching(r"Speaker changed\[0->12\].*")
    client.emit("ApplyPulseAudioGain", "ii", 50, 200)
    daemon.log.wait_matching("Done Apply PulseAudioGain .*")
    assert_idle(daemon)


def test_an_idle_client_costs_the_daemon_nothing(scene, daemon):
    clients = [scene.client() for _ in range(3)]
    for client in clients:
        client.get_support()
    assert_idle(daemon)
