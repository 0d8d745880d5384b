# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""A program that prints lines until a test ends it."""
import json
import os
import re
import select
import subprocess
import time

from harness import PATIENCE, Process, TextReader


class View(Process):
    """A program that stays, and the lines that it prints."""

    def __init__(self, environment, *command, **options):
        self.lines = []
        self.rest = ""
        self.reader, writer = os.pipe()
        self.output = TextReader(self.reader)
        super().__init__(*command, env=environment, stdout=writer, stderr=subprocess.PIPE, **options)
        os.close(writer)

    def has_output(self, timeout):
        """Whether there is something to read, now or within some seconds."""
        return "\n" in self.rest or bool(select.select([self.reader], [], [], timeout)[0])

    def read_line(self, timeout=PATIENCE):
        """Returns the next line, without its newline; None after the last one."""
        deadline = time.monotonic() + timeout
        while "\n" not in self.rest:
            assert select.select([self.reader], [], [], max(0, deadline - time.monotonic()))[0], \
                f"no line within {timeout} s after {self.lines}"
            read = self.output.read()
            if not read:
                assert self.rest == "", "the last line has no end"
                return None
            self.rest += read
        line, self.rest = self.rest.split("\n", 1)
        self.lines.append(line)
        return line

    def read_until(self, pattern):
        """Returns all lines up to the first one that contains the pattern."""
        lines = []
        while not lines or not re.search(pattern, lines[-1]):
            line = self.read_line()
            assert line is not None, f"no {pattern} in {lines}"
            lines.append(line)
        return lines

    def read_events(self, event):
        """Returns all JSON objects up to the first one of this event."""
        return [json.loads(line) for line in self.read_until(f'"event":"{event}"')]

    def errors(self):
        return self.child.stderr.read().decode()

    def close_output(self):
        os.close(self.reader)
        self.reader = None

    def end(self):
        status = super().end()
        self.child.stderr.close()
        if self.reader is not None:
            self.close_output()
        return status
