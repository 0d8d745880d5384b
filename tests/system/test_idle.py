# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""A daemon with nothing to do uses nothing: no thread is ever woken."""
import os
import time

QUIET = 10.0  # seconds of watching
# ThreadSanitizer brings a thread of its own, which wakes up now and then.
FOREIGN_THREADS = 1 if "thread" in os.environ["KAVREL_SANITIZER"] else 0


def woken_threads(daemon):
    """{thread: wake-ups} of those that ran in the watched time."""
    before = daemon.threads()
    time.sleep(QUIET)
    after = daemon.threads()
    assert after.keys() == before.keys()
    return {f"{name} ({thread})": switches - before[thread][1] for thread, (name, switches) in after.items()
            if switches != before[thread][1]}


def assert_idle(daemon):
    daemon.log.wait_for_rest()
    assert len(daemon.threads()) >= 8  # main, the bus's, the platform's, six gain workers
    before = daemon.log.end()
    woken = woken_threads(daemon)
    assert len(woken) <= FOREIGN_THREADS, woken
    assert daemon.log.end() == before


def test_no_thread_wakes_up_after_the_start(daemon):
    assert_idle(daemon)


def test_no_thread_wakes_up_after_work(daemon, client, tv):
    client.set_volume(30)
    client.set_mute(True)
    client.set_mute(False)  # fades in
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
