# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the caller tracker with callers that are programs: the daemon looks up the program of each when idle."""
import signal
import subprocess
import sys

import pytest

from harness import METHODS_PATH, NAME


def test_a_caller_that_is_gone_by_then_has_no_name(scene, daemon, log):
    client, other = scene.client(), scene.client()
    daemon.signal(signal.SIGSTOP)  # so that it reads the call after the caller has gone
    client.send("GetSpeakerSupportType")
    client.flush()
    client.close()
    other.wait_until_gone(client.name)
    daemon.signal(signal.SIGCONT)
    log.wait_for_caller(client.name, "")


CALLER = f"""
import gi, os, signal
gi.require_version("Gio", "2.0")
from gi.repository import Gio
flags = Gio.DBusConnectionFlags
bus = Gio.DBusConnection.new_for_address_sync(os.environ["DBUS_SYSTEM_BUS_ADDRESS"],
    flags.AUTHENTICATION_CLIENT | flags.MESSAGE_BUS_CONNECTION, None, None)
bus.call_sync("{NAME}", "{METHODS_PATH}", "{NAME}", "GetSpeakerSupportType", None, None, 0, -1, None)
print(bus.get_unique_name(), flush=True)
signal.pause()
"""


@pytest.fixture
def call_as(scene, daemon):
    """Calls kavrel from a new process with this first argument, which stays; returns the process's unique name."""
    callers = []

    def call(first_argument):
        caller = subprocess.Popen([first_argument, "-c", CALLER], executable=sys.executable, text=True,
                                  env=scene.environment(), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        callers.append(caller)
        return caller.stdout.readline().strip()

    yield call
    for caller in callers:
        caller.kill()
        caller.wait()
        caller.stdout.close()


@pytest.mark.parametrize("first_argument, program", [
    ("/usr/bin/media-player", "media-player"),
    ("/opt/my tools/player", "my"),
])
def test_a_program_is_named_by_its_first_argument_up_to_a_blank_and_after_the_last_slash(
        call_as, log, first_argument, program):
    log.wait_for_caller(call_as(first_argument), program)
