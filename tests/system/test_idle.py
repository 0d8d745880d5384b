# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests that no thread of an idle daemon ever wakes up."""
import contextlib
import time

from harness import FOREIGN_THREADS, Scene, change_route

QUIET = 10.0  # seconds of observation: only time can show that nothing happens


def own_threads(daemon):
    """Returns its threads without GLib's, which wakes half a second after its last work, and 15 seconds later ends."""
    return {number: thread for number, thread in daemon.threads().items() if thread[0] != "pool"}


def start(stack):
    scene = stack.enter_context(Scene())
    return scene, scene.start()


def start_and_work(stack):
    scene, daemon = start(stack)
    daemon.rest()
    client = scene.client()
    assert client.set_volume(30) == 0
    assert client.set_mute(True) == 0
    assert client.set_mute(False) == 0  # starts a fade-in
    client.emit("ApplyPulseAudioGain", "ii", 50, 200)
    client.get_support()  # its reply comes after the signal was handled
    daemon.rest()
    change_route(scene.tv, daemon.log, 12)
    return daemon


def start_with_clients(stack):
    scene, daemon = start(stack)
    for _ in range(3):
        scene.client().get_support()
    return daemon


def test_no_thread_wakes_up_after_the_start_or_after_work_or_for_idle_clients():
    """All three are observed at the same time."""
    with contextlib.ExitStack() as stack:
        daemons = [start(stack)[1], start_and_work(stack), start_with_clients(stack)]
        for daemon in daemons:
            daemon.rest()
        before = [(own_threads(daemon), daemon.log.end()) for daemon in daemons]
        time.sleep(QUIET)
        for daemon, (threads, lines) in zip(daemons, before):
            assert len(threads) >= 8  # main, bus, platform and six gain workers
            after = own_threads(daemon)
            assert after.keys() == threads.keys()
            woken = [name for number, (name, switches) in after.items() if switches != threads[number][1]]
            assert len(woken) <= FOREIGN_THREADS, woken
            assert daemon.log.end() == lines
