# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Runs a program in a pseudo terminal and reads its screen."""
import fcntl
import os
import pty
import re
import select
import struct
import subprocess
import termios
import time

from harness import PATIENCE, TextReader

ENTER, LEAVE = "\033[?1049h\033[?25l", "\033[?25h\033[?1049l"  # what a full-screen program writes first and last


class Terminal:
    """The program leads its session, so that it gets the signals of Ctrl-C and Ctrl-Z."""

    def __init__(self, command, environment, rows, columns):
        self.master, self.slave = pty.openpty()
        self.reader = TextReader(self.master)
        self._set_size(rows, columns)
        self.modes_before = self.modes()
        self.child = subprocess.Popen(command, env=environment, stdin=self.slave, stdout=self.slave, stderr=self.slave,
                                      start_new_session=True,
                                      preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))

    def close(self):
        if self.child.poll() is None:
            self.child.kill()
            self.child.wait(PATIENCE)
        os.close(self.master)
        os.close(self.slave)

    def resize(self, rows, columns):
        self._read_rest()
        self._set_size(rows, columns)

    def _set_size(self, rows, columns):
        self.row_count, self.columns = rows, columns
        self.output = ""  # the earlier output had another size
        fcntl.ioctl(self.slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def modes(self):
        return termios.tcgetattr(self.slave)

    def type(self, keys):
        os.write(self.master, keys.encode())

    def unread(self):
        """Returns the number of typed bytes that nobody has read."""
        return struct.unpack("i", fcntl.ioctl(self.slave, termios.FIONREAD, bytes(4)))[0]

    def _read(self, timeout):
        """Reads available output; returns False if none comes in time."""
        if not select.select([self.master], [], [], timeout)[0]:
            return False
        self.output += self.reader.read()
        return True

    def _read_rest(self):
        """Reads all that the program wrote, which the kernel hands over a moment later: up to a mark that follows it."""
        os.write(self.slave, b"\0")
        while "\0" not in self.output:
            assert self._read(PATIENCE), "the terminal hands nothing over"
        self.output = self.output.replace("\0", "")

    def wait_until(self, condition, every=PATIENCE):
        """Waits until condition() is true; checks it after each output, and at least every so many seconds."""
        deadline = time.monotonic() + PATIENCE
        while not condition():
            self._read(min(every, max(0, deadline - time.monotonic())))
            assert time.monotonic() < deadline, "on the screen: " + "\n".join(self.rows())

    def wait_for_row(self, text):
        self.wait_until(lambda: text in self.rows())

    def wait_for_end(self):
        """Waits for the end and reads all output; returns the exit status."""
        while self.child.poll() is None:
            self._read(0.05)
        self._read_rest()
        return self.child.returncode

    def wait_for_stop(self):
        deadline = time.monotonic() + PATIENCE
        while not os.WIFSTOPPED(os.waitpid(self.child.pid, os.WUNTRACED | os.WNOHANG)[1] or 0):
            assert time.monotonic() < deadline, "it does not stop"
            self._read(0.05)
        self._read_rest()

    def run(self):
        """Waits until the program ends by itself; returns all its output."""
        assert self.wait_for_end() == 0, self.output
        return re.sub(r"\r*\n", "\n", self.output)

    def frames(self):
        return self.output.count("\033[H")

    def rows(self):
        """Returns the rows of the screen after the last frame. Fails if a row is wider than the terminal."""
        rows, at = [], 0
        whole = re.sub(r"(\r+|\033(\[[?\d]*)?)\Z", "", self.output)  # the last read may end inside a newline or a code
        for text in re.split(r"(\033\[[?\d]*[a-zA-Z]|\r*\n)", whole):
            if text == "\033[H":
                at = 0
            elif text.endswith("\n"):
                at += 1
                assert at < self.row_count or ENTER not in self.output, "the full screen scrolls"
            elif text in ("\033[K", "\033[J"):
                del rows[at if text == "\033[J" else len(rows):]
                if at < len(rows):
                    rows[at] = ""
            elif text and not text.startswith("\033"):
                rows.extend([""] * (at + 1 - len(rows)))
                rows[at] += text
                assert len(rows[at]) <= self.columns, f"wider than the terminal: {rows[at]}"
        assert len(rows) <= self.row_count, "higher than the terminal"
        return [row.rstrip() for row in rows]
