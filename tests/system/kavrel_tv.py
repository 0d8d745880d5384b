# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Runs kavrel-tv for the tests, to its end or in the background."""
import contextlib
import json
import os
import signal
import subprocess
import threading
import time

from harness import FOREIGN_THREADS, PATIENCE, SANITIZER_REPORT
from terminal import Terminal

KAVREL_TV = os.environ["KAVREL_TV"]
COMMANDS = ["show", "watch", "route", "multiview", "zones", "focus", "zone-route", "cable", "mobile", "projector", "sub-bt",
            "feature", "popup", "volume", "mute", "key", "devices", "emulator", "play", "tour", "record", "plot", "help"]



class Running:
    """A kavrel-tv or another program in the background, and the lines that it has printed so far."""

    def __init__(self, environment, *arguments, program=KAVREL_TV):
        self.child = subprocess.Popen([program, *arguments], env=environment, stdin=subprocess.PIPE,
                                      stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, bufsize=1)
        self.lines, self.complaints = [], []
        self.news = threading.Condition()
        self.readers = [threading.Thread(target=self._read, args=to, daemon=True)
                        for to in ((self.child.stdout, self.lines), (self.child.stderr, self.complaints))]
        for reader in self.readers:
            reader.start()

    def _read(self, stream, lines):
        with stream:
            for line in stream:
                with self.news:
                    lines.append(line.rstrip("\n"))
                    self.news.notify_all()

    def said(self, text):
        return sum(text in line for line in self.lines)

    def wait(self, text, times=1, patience=PATIENCE):
        with self.news:
            assert self.news.wait_for(lambda: self.said(text) >= times, patience), \
                f"not said {times} times: {text}; said: {self.lines}"

    def wait_for_complaint(self, text, program="kavrel-tv"):
        with self.news:
            assert self.news.wait_for(lambda: f"{program}: {text}" in self.complaints, PATIENCE), self.complaints

    def type(self, line):
        self.child.stdin.write(line + "\n")

    def end(self, number=signal.SIGINT):
        """Ends it; returns its exit status and the lines on its standard error."""
        if self.child.poll() is None:
            self.child.send_signal(number)
        status = self.child.wait(PATIENCE)
        for reader in self.readers:
            reader.join(PATIENCE)
        self.child.stdin.close()
        assert not SANITIZER_REPORT.search("\n".join(self.complaints))
        return status, self.complaints


class KavrelTv:
    def __init__(self, scene):
        self.scene = scene

    def environment(self, **changes):
        return self.scene.environment(**{"LC_ALL": "C.UTF-8", "TERM": "xterm", "NO_COLOR": "", **changes})

    def run(self, *arguments, before=(), **changes):
        """Runs it to its end; `before` is a command that runs it, such as setpriv."""
        return subprocess.run([*before, KAVREL_TV, *arguments], env=self.environment(**changes), stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=PATIENCE, check=False)

    def __call__(self, *arguments):
        """Runs it, checks that it succeeded, and returns its output."""
        done = self.run(*arguments)
        assert (done.returncode, done.stderr) == (0, "")
        return done.stdout

    def show(self):
        text = self("show", "--json")
        assert text.count("\n") == 1 and text.endswith("\n")
        return json.loads(text)

    def start(self, *arguments):
        running = Running(self.environment(), *arguments)
        self.scene.callback(lambda: running.child.poll() is None and running.end())
        return running

    def devices(self, *options):
        """Starts the devices and waits until they play."""
        running = self.start("devices", *options)
        running.wait("auracast: begins with level")
        return running

    def terminal(self, *arguments, rows=24, columns=80, **changes):
        terminal = Terminal([KAVREL_TV, *arguments], self.environment(**changes), rows, columns)
        self.scene.callback(terminal.close)
        return terminal


def make_tool(scene):
    """Returns kavrel-tv for a scene without a daemon; its first run creates the default TV."""
    scene.tv.path.mkdir()
    return KavrelTv(scene)


def refused(done):
    """Checks that a command printed only one line of error; returns the line without the program's name."""
    assert done.stdout == ""
    assert done.stderr.count("\n") == 1 and done.stderr.startswith("kavrel-tv: "), done.stderr
    return done.stderr.removeprefix("kavrel-tv: ").removesuffix("\n")


def wait_until_asleep(pid):
    """Waits until the process sleeps, because it waits for an event and has nothing else to do.

    There is no event for it: a process that slept at five looks in a row has come there.
    """
    deadline = time.monotonic() + PATIENCE
    asleep = 0
    while asleep < 5:
        assert time.monotonic() < deadline
        time.sleep(0.01)
        with open(f"/proc/{pid}/stat") as stat:
            asleep = asleep + 1 if stat.read().rsplit(")", 1)[1].split()[0] == "S" else 0


def assert_idle(pid):
    def switches():
        found = {}
        for task in os.listdir(f"/proc/{pid}/task"):
            with (contextlib.suppress(FileNotFoundError, ProcessLookupError),  # the thread has ended
                  open(f"/proc/{pid}/task/{task}/status") as status):
                found[task] = [line for line in status if "ctxt_switches" in line]
        return found

    deadline = time.monotonic() + PATIENCE
    while True:  # it may still finish its start
        before = switches()
        time.sleep(2)  # only time can show that nothing happens
        after = switches()
        woken = [task for task in before.keys() | after.keys() if before.get(task) != after.get(task)]
        if len(woken) <= FOREIGN_THREADS:
            return
        assert time.monotonic() < deadline, f"it never rests: {before}, {after}"
