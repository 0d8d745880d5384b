# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Follows single calls from thread to thread with the kernel's tracer, and prints where their time goes. Needs root."""
import argparse
import contextlib
import dataclasses
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile

from scene import MEASURE, PATIENCE, PROGRAMS, BenchError, Server, with_parent

HANDLER = {"floor": "OnCall", "memory": "KVServer::methodCallHandler", "daemon": "KVServer::methodCallHandler"}
PLATFORM = {"get": "audio_get_master_volume", "set": "audio_set_master_volume"}
REPORT = "TVSpeaker::VolumeChangedCallback"
SYSTEM_CALLS = ("sys_enter_write", "sys_exit_write", "sys_enter_sendmsg", "sys_exit_recvmsg")
CALLS = 1000
LEAST = 100  # calls that are followed from one end to the other

STEPS = (
    "client: GDBus thread woken, message sent",
    "bus: woken, message read",
    "bus: message forwarded",
    "server: GDBus thread woken",
    "server: message parsed, main thread woken",
    "server: handler, until it hands over the reply",
    "server: GDBus thread woken, reply sent",
    "bus: woken, reply read",
    "bus: reply forwarded",
    "client: GDBus thread woken",
    "client: reply parsed, main thread woken",
)
HANDLER_STEP = 5
PARTS = (
    "the platform, without its report",
    "system calls that write log lines",
    "all else",
)


class Tracer:
    """An instance of the kernel's tracer with the probes of one server, while it is entered."""

    def __init__(self, kind, what):
        self._kind, self._what = kind, what
        self._stack = contextlib.ExitStack()

    def __enter__(self):
        with contextlib.ExitStack() as stack:
            self._tracing = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="kavrel-tracing.")))
            run("mount", "-t", "tracefs", "none", self._tracing)
            stack.callback(run, "umount", self._tracing)
            self._instance = self._tracing / f"instances/kavrel-{os.getpid()}"
            self._instance.mkdir()
            stack.callback(self._instance.rmdir)
            (self._instance / "buffer_size_kb").write_text("16384")
            (self._instance / "options/event-fork").write_text("1")  # threads made later are followed, too
            gio = library_of(PROGRAMS[self._kind], "libgio-2.0")
            self._probe(stack, "handler", PROGRAMS[self._kind], HANDLER[self._kind])
            self._probe(stack, "send", gio, "g_dbus_connection_send_message")
            if self._kind != "floor":
                self._probe(stack, "platform", PROGRAMS[self._kind], PLATFORM[self._what], both=True)
                self._probe(stack, "report", PROGRAMS[self._kind], REPORT, both=True)
            for event in SYSTEM_CALLS:
                (self._instance / f"events/syscalls/{event}/enable").write_text("1")
            stack.callback(lambda: (self._instance / "events/enable").write_text("0"))
            self._stack = stack.pop_all()
        return self

    def __exit__(self, *_exception):
        self._stack.close()

    def _probe(self, stack, name, program, function, both=False):
        offset = offset_of(program, function)
        for kind, suffix in (("p", ""), ("r", "_end"))[:2 if both else 1]:
            event = f"kavrel/{name}{suffix}"
            self._define(f"{kind}:{event} {program}:{offset:#x}")
            stack.callback(self._define, f"-:{event}")
            (self._instance / f"events/{event}/enable").write_text("1")
            stack.callback((self._instance / f"events/{event}/enable").write_text, "0")

    def _define(self, line):
        append(self._tracing / "uprobe_events", line)

    def follow(self, threads):
        (self._instance / "set_event_pid").write_text(" ".join(map(str, threads)))

    def follow_me(self):
        """For the child process that becomes the client."""
        append(self._instance / "set_event_pid", str(os.getpid()))

    def events(self):
        """[Event], in the order of their times"""
        lines = (self._instance / "trace").read_text(errors="replace").splitlines()
        found = (re.match(r".*-(\d+) +\[\d+\] \S+ +(\d+\.\d+): (\w+) ?(->|:|\()? ?(.*)", line) for line in lines)
        return [Event(int(match[1]), float(match[2]) * 1e6, match[3] + (" done" if match[4] == "->" else ""), match[5])
                for match in found if match]


@dataclasses.dataclass
class Event:
    thread: int
    time: float  # microseconds
    what: str  # a probe's name, or a system call and, at its end, " done"
    detail: str


class Call:
    """The events of one call, from its beginning to that of the next one."""

    def __init__(self, events, end, threads):
        self._events = events
        self._end = end
        self._threads = threads

    def _first(self, role, what, after):
        """The time of the first such event that is not before `after`. @throws StopIteration"""
        return next(event.time for event in self._events if event.time >= after and self._is(event, role, what))

    def _last(self, role, what):
        return next(event.time for event in reversed(self._events) if self._is(event, role, what))

    def _is(self, event, role, what):
        failed = event.what == "sys_recvmsg done" and event.detail.startswith("0xf")
        return event.what == what and self._threads.get(event.thread, "client's GDBus") == role and not failed

    def moments(self):
        """The times between which the steps lie. @throws StopIteration if it was not all seen"""
        called = self._events[0].time
        sent = self._first("client's GDBus", "sys_sendmsg", called)
        at_bus = self._first("bus", "sys_recvmsg done", sent)
        forwarded = self._first("bus", "sys_sendmsg", at_bus)
        at_server = self._first("server's GDBus", "sys_recvmsg done", forwarded)
        handled = self._first("server", "handler", at_server)
        replied = self._last("server", "send")
        reply_sent = self._last("server's GDBus", "sys_sendmsg")
        reply_at_bus = self._first("bus", "sys_recvmsg done", reply_sent)
        reply_forwarded = self._last("bus", "sys_sendmsg")
        at_client = self._first("client's GDBus", "sys_recvmsg done", reply_forwarded)
        return [called, sent, at_bus, forwarded, at_server, handled, replied, reply_sent, reply_at_bus,
                reply_forwarded, at_client, self._end]

    def steps(self):
        """Microseconds of each step; None if the call was not seen from one end to the other."""
        try:
            moments = self.moments()
        except StopIteration:
            return None
        steps = [after - before for before, after in zip(moments, moments[1:])]
        return steps if min(steps) >= 0 else None

    def parts(self):
        """Microseconds of the parts of the handler, until it hands over the reply."""
        start, replied = self._last("server", "handler"), self._last("server", "send")
        platform = self._between("platform", "platform_end") - self._between("report", "report_end")
        log = self._between("sys_write", "sys_write done", start, replied, "fd: 2,")
        return [platform, log, replied - start - platform - log]

    def _between(self, begin, finish, start=0, until=float("inf"), detail=""):
        """The sum of the times between the pairs of such events on the server's main thread."""
        total, opened = 0, None
        for event in self._events:
            if not start <= event.time <= until or self._threads.get(event.thread) != "server":
                continue
            if event.what == begin and event.detail.startswith(detail):
                opened = event.time
            elif event.what == finish and opened is not None:
                total, opened = total + event.time - opened, None
        return total


def follow_calls(kind, what):
    """[mean microseconds of each step], [the same of each part of the handler]: of the middle half of the calls."""
    with Server(kind) as server, Tracer(kind, what) as tracer:
        workers = [int(name) for name in os.listdir(f"/proc/{server.pid}/task") if int(name) != server.pid]
        tracer.follow([server.pid, server.bus_pid, *workers])
        client = subprocess.Popen(with_parent(MEASURE, what, "--calls", CALLS, server.address),
                                  stdout=subprocess.DEVNULL, preexec_fn=tracer.follow_me)
        client.wait(PATIENCE)
        events = tracer.events()
        threads = {server.pid: "server", server.bus_pid: "bus", client.pid: "client",
                   **{worker: "server's GDBus" for worker in workers}}
    starts = [i for i, event in enumerate(events) if event.thread == client.pid and event.what == "sys_write"]
    calls = [Call(events[start:stop], events[stop].time, threads) for start, stop in zip(starts, starts[1:])]
    followed = sorted((call for call in calls if call.steps()), key=lambda call: sum(call.steps()))
    if len(followed) < LEAST:
        raise BenchError(f"only {len(followed)} calls could be followed")
    middle = followed[len(followed) // 4:len(followed) * 3 // 4]
    return ([statistics.mean(column) for column in zip(*(call.steps() for call in middle))],
            [statistics.mean(column) for column in zip(*(call.parts() for call in middle))])


def append(path, text):
    """The tracer's files cannot seek, as a Python file that is opened to append does."""
    file = os.open(path, os.O_WRONLY | os.O_APPEND)
    try:
        os.write(file, text.encode())
    finally:
        os.close(file)


def library_of(program, name):
    return re.search(rf"{re.escape(name)}\S* => (\S+)", run("ldd", program))[1]


def offset_of(program, function):
    """The place in the file at which a probe of the function costs least. The files' code is mapped at that place, too."""
    for options in (["-C"], ["-C", "-D"]):
        for line in run("nm", *options, program).splitlines():
            match = re.match(rf"(\w+) [Tt] (?:.*::)?{re.escape(function)}(?:\(.*)?$", line)
            if match and "[clone" not in line:
                return behind_endbr64(program, int(match[1], 16))
    raise BenchError(f"{program} has no function {function}")


def behind_endbr64(program, offset):
    """The kernel has to execute this instruction on its own, which would take ten times as long as the probe itself."""
    with open(program, "rb") as file:
        file.seek(offset)
        return offset + 4 if file.read(4) == b"\xf3\x0f\x1e\xfa" else offset


def run(*command):
    return subprocess.run([str(word) for word in command], capture_output=True, text=True, check=True).stdout


def print_line(name, values):
    print(f"{name:50}" + "".join(f"{value:>9.1f}" for value in values), flush=True)


def print_timeline(what, kinds):
    steps, parts = zip(*(follow_calls(kind, what) for kind in kinds))
    print(f"{'microseconds of one ' + what:50}" + "".join(f"{kind:>9}" for kind in kinds))
    for i, name in enumerate(STEPS):
        print_line(name, [column[i] for column in steps])
        if i == HANDLER_STEP:
            for j, part in enumerate(PARTS):
                print_line("  of this: " + part, [column[j] for column in parts])
    print_line("all", [sum(column) for column in steps])
    print()


def main():
    parser = argparse.ArgumentParser(prog="./bench timeline", description=__doc__)
    parser.parse_args(sys.argv[1:])
    for what in PLATFORM:
        print_timeline(what, HANDLER)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(130)
    except (BenchError, OSError, subprocess.SubprocessError) as error:
        sys.exit(f"./bench timeline: {error}")
