# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""kavrel-tv watch: the TV live, in a terminal of 80 columns and 24 rows, and in a pipe."""
import contextlib
import json
import os
import signal
import subprocess
import time

import pytest

from kavrel_tv import KAVREL_TV, PATIENCE, assert_idle, make_tool, wait_until_asleep
from terminal import ENTER, LEAVE

LEVEL_REQUEST = "settings/memory/menu/network/screenmirroring/set_volume_level"

tool = pytest.fixture(make_tool)


def test_watch_shows_the_tv_live_in_80x24_and_leaves_the_terminal_as_it_was(tool, tv):
    for command in ("multiview on", "zones 1,2", "focus 1", "zone-route 1 hdmi"):
        tool(*command.split())
    tool.devices()
    terminal = tool.terminal("watch")
    terminal.wait_for_row("│  ├─ volume       ██░░░░░░░░░░░░░░░░░░░░░░░ 10, mute off")
    assert ENTER in terminal.output
    assert f"\033[36m██\033[0m\033[2m{'░' * 23}\033[0m \033[1m10\033[0m, mute off" in terminal.output
    for text in ("├─ output          2 hdmi, HDMI receiver, of the zone in focus", "│  └─ zone 2       0 tv, TV speaker",
                 "│  └─ sub gain     █████████████████████████ 100 %",
                 "   └─ com.norvik/featureconf/projector_feature_support    off"):
        terminal.wait_for_row(text)
    tool("volume", "40")
    terminal.wait_for_row("│  ├─ volume       ██████████░░░░░░░░░░░░░░░ 40, mute off")
    tv.echo(100, LEVEL_REQUEST)
    terminal.wait_for_row("│  ├─ level        █████████████████████████ 100, mute off")
    tool("zones", "1,2,3,4")
    terminal.wait_for_row("│  └─ zone 4       2 hdmi, HDMI receiver")
    terminal.wait_until(lambda: len(terminal.rows()) == 24)  # all of the TV, even so
    terminal.wait_for_row("   └─ com.norvik/featureconf/projector_feature_support    off")
    tool("zones", "1,2,3,4,5")
    terminal.wait_for_row("...")
    assert terminal.rows()[22:] == ["   ├─ com.norvik/featureconf/internal_speaker_supported   on", "..."]
    tool("zones", "1,2")
    terminal.wait_until(lambda: len(terminal.rows()) == 22)
    tv.remove("audio/master_volume")
    terminal.wait_for_row("│  ├─ volume       not set, mute off")
    terminal.type("\x1c")  # Ctrl-\ would leave the terminal as it is now
    terminal.type("\x03")
    assert terminal.wait_for_end() == 0
    assert terminal.output.endswith(LEAVE)
    assert terminal.modes() == terminal.modes_before


@pytest.mark.parametrize("number, status", [(signal.SIGTERM, 143), (signal.SIGHUP, 129)])
def test_watch_leaves_the_terminal_as_it_was_whatever_ends_it(tool, number, status):
    terminal = tool.terminal("watch")
    terminal.wait_for_row("├─ sound")
    terminal.type("typed")
    terminal.wait_until(lambda: terminal.unread() == len("typed"), every=0.05)
    terminal.child.send_signal(number)
    assert terminal.wait_for_end() == status
    assert terminal.output.endswith(LEAVE) and "typed" not in terminal.output
    assert terminal.modes() == terminal.modes_before and terminal.unread() == 0


def test_watch_gives_the_terminal_back_while_it_is_suspended(tool):
    terminal = tool.terminal("watch")
    terminal.wait_for_row("├─ sound")
    terminal.type("\x1a")
    terminal.wait_for_stop()
    assert terminal.output.endswith(LEAVE)
    assert terminal.modes() == terminal.modes_before
    frames = terminal.frames()
    terminal.child.send_signal(signal.SIGCONT)
    terminal.wait_until(lambda: terminal.frames() > frames)
    assert terminal.output.count(ENTER) == 2 and terminal.modes() != terminal.modes_before
    tool("volume", "80")
    terminal.wait_for_row("│  ├─ volume       ████████████████████░░░░░ 80, mute off")
    terminal.type("\x03")
    assert terminal.wait_for_end() == 0
    assert terminal.modes() == terminal.modes_before


def test_watch_of_objects_is_suspended_too(tool):
    terminal = tool.terminal("watch", "--json")
    terminal.wait_until(lambda: '"volume":10' in terminal.output)
    terminal.type("\x1a")
    terminal.wait_for_stop()
    terminal.child.send_signal(signal.SIGCONT)
    tool("volume", "11")
    terminal.wait_until(lambda: '"volume":11' in terminal.output)
    terminal.type("\x03")
    assert terminal.wait_for_end() == 0


def test_watch_follows_the_size_of_the_terminal(tool):
    terminal = tool.terminal("watch")
    terminal.wait_for_row("   └─ com.norvik/featureconf/projector_feature_support    off")
    for rows in (10, 12):
        terminal.resize(rows, 24)
        terminal.wait_until(lambda rows=rows: len(terminal.rows()) == rows and terminal.rows()[3] == "│  ├─ route        0 tv,")


def test_watch_draws_at_most_20_times_a_second_and_the_last_state_always(tool, tv):
    terminal = tool.terminal("watch")
    terminal.wait_for_row("├─ sound")
    frames, begin = terminal.frames(), time.monotonic()

    def hurry():
        for volume in range(50):
            tv.echo(volume, "audio/master_volume")
        return terminal.frames() - frames >= 10

    terminal.wait_until(hurry)
    tv.echo(96, "audio/master_volume")
    terminal.wait_for_row("│  ├─ volume       ████████████████████████░ 96, mute off")
    seconds = time.monotonic() - begin
    assert terminal.frames() - frames <= 20 * seconds + 1


def test_idle_watch_does_not_wake_up(tool):
    terminal = tool.terminal("watch")
    terminal.wait_for_row("├─ sound")
    assert_idle(terminal.child.pid)


def test_watch_without_a_terminal_prints_each_state_without_colour(tool, tv):
    watch = tool.start("watch", "--json")
    watch.wait('"volume":10')
    tool("volume", "11")
    watch.wait('"volume":11')
    assert watch.end() == (0, [])
    assert all(json.loads(line)["directory"] == str(tv.path) for line in watch.lines)
    watch = tool.start("watch")
    watch.wait("volume       ██░░")
    assert watch.end() == (0, [])
    assert not watch.said("\033")


@contextlib.contextmanager
def full_pipe():
    """Makes a full pipe, to which a write without waiting fails."""
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    with contextlib.suppress(BlockingIOError):
        while True:
            os.write(writer, b" " * 4096)
    yield reader, writer
    for end in (reader, writer):
        with contextlib.suppress(OSError):
            os.close(end)


def test_watch_shows_24_rows_where_the_terminal_has_no_rows(tool):
    terminal = tool.terminal("watch", rows=0)
    terminal.wait_until(lambda: "projector_feature_support" in terminal.output)
    terminal.type("\x03")
    assert terminal.wait_for_end() == 0


def test_watch_on_a_dumb_terminal_prints_each_state(tool):
    terminal = tool.terminal("watch", TERM="dumb")
    terminal.wait_until(lambda: "projector_feature_support" in terminal.output)
    terminal.type("\x03")
    assert terminal.wait_for_end() == 0
    assert "\033" not in terminal.output


@pytest.mark.parametrize("number, status", [(signal.SIGINT, 130), (signal.SIGTERM, 143)])
def test_watch_ends_though_its_reader_does_not_read(tool, number, status):
    tool("show")
    with full_pipe() as (_, writer), subprocess.Popen([KAVREL_TV, "watch", "--json"], env=tool.environment(), stdout=writer,
                                                      stderr=subprocess.PIPE, text=True) as watch:
        os.set_blocking(writer, True)  # for the tool, too
        wait_until_asleep(watch.pid)
        watch.send_signal(number)
        try:
            assert watch.wait(PATIENCE) == status
            assert watch.stderr.read() == "kavrel-tv: interrupted while nobody read its output\n"
        finally:
            watch.kill()


def test_output_that_does_not_block_is_waited_for(tool):
    with full_pipe() as (reader, writer):
        with subprocess.Popen([KAVREL_TV, "show"], env=tool.environment(), stdout=writer) as show:
            wait_until_asleep(show.pid)
            os.close(writer)
            with os.fdopen(os.dup(reader)) as output:
                assert "projector_feature_support" in output.read()
            assert show.wait(PATIENCE) == 0


def test_watch_is_not_ended_by_the_signal_of_a_pipe_without_a_reader(tool):
    watch = tool.start("watch", "--json")
    watch.wait("volume")
    with open(f"/proc/{watch.child.pid}/status") as status:
        ignored = next(line for line in status if line.startswith("SigIgn:")).split()[1]
    assert int(ignored, 16) & (1 << (signal.SIGPIPE - 1))


def test_watch_ends_with_its_reader(tool):
    head = subprocess.run(f"{KAVREL_TV} watch --json | head -1", shell=True, env=tool.environment(), capture_output=True,
                          text=True, timeout=PATIENCE, check=True)
    assert json.loads(head.stdout)["volume"] == 10 and head.stderr == ""
