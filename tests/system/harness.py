# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""The tools of the system tests: a private bus, a TV in a directory, the real kavreld, and its clients.

All waits are for events (inotify, messages of the bus, the end of a process); only settle() polls.
"""
import codecs
import contextlib
import ctypes
import os
import re
import select
import signal
import socket
import subprocess
import tempfile
import threading
import time
from pathlib import Path
from typing import NamedTuple

from interface import METHODS_PATH, NAME, ROOT, SIGNALS_PATH, connect
from gi.repository import Gio, GLib  # after interface, which selects their version

KAVRELD = os.environ["KAVRELD"]
READY = "events/%2Ftmp%2F%2Ekavrel_ready"
TV_SUPPORT = 0xFFFF  # the support word of the TV's own speakers

# ThreadSanitizer has its own thread, which wakes up now and then.
FOREIGN_THREADS = 1 if "thread" in os.environ["KAVREL_SANITIZER"] else 0
PATIENCE = 30.0  # seconds after which a wait fails, enough for a loaded machine and a sanitizer
SANITIZER_REPORT = re.compile(r"ERROR: \w+Sanitizer|WARNING: ThreadSanitizer|runtime error:")


class TextReader:
    """Reads the output of a program as it comes. A read may end inside a character; the rest of it comes with the next."""

    def __init__(self, file):
        self.file = file
        self.decoder = codecs.getincrementaldecoder("utf-8")()

    def read(self):
        """Waits for a character at least, and returns all that has come; nothing after the end."""
        while True:
            data = os.read(self.file, 65536)
            text = self.decoder.decode(data, final=not data)
            if text or not data:
                return text


class FolderWatch:
    """Waits for changes of files in some folders."""

    IN_MODIFY, IN_CLOSE_WRITE, IN_MOVED_TO, IN_CREATE, IN_DELETE = 0x2, 0x8, 0x80, 0x100, 0x200
    EVENTS = IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE
    libc = ctypes.CDLL(None, use_errno=True)

    def __init__(self, *folders):
        self.fd = self.libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        for folder in folders:
            if self.libc.inotify_add_watch(self.fd, os.fsencode(folder), self.EVENTS) < 0:
                raise OSError(ctypes.get_errno(), f"cannot watch {folder}")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self.fd)

    def wait(self, deadline, *other_fds):
        """Waits for a change, or until another file is readable; returns False if the deadline came first."""
        left = deadline - time.monotonic()
        ready = select.select([self.fd, *other_fds], [], [], max(left, 0))[0]
        if self.fd in ready:
            os.read(self.fd, 65536)
        return bool(ready)


REQUEST = r"Start sender:(\S*) (?:method|signal)_name:{}"  # with the pattern of a member


class LogLine(NamedTuple):
    number: int  # of the line in the log, counted from 0
    priority: str  # D, I, W or E
    file: str
    function: str
    line: int
    text: str

    SHAPE = re.compile(r"([DIWE]) ([\w.]+): (~?\w+)\((\d+)\) > \[(~?\w+):(\d+)\] (.*)", re.DOTALL)

    @classmethod
    def parse(cls, number, raw):
        """Returns None for a line that kavreld did not write through its log."""
        match = cls.SHAPE.fullmatch(raw)
        if not match:
            return None
        priority, file, function, line, function_again, line_again, text = match.groups()
        assert (function, line) == (function_again, line_again), f"the prefix contradicts itself: {raw}"
        return cls(number, priority, file, function, int(line), text)

    def request(self):
        """Returns (sender, member) if this line says that a request came, else None."""
        match = re.fullmatch(REQUEST.format("(.*)"), self.text)
        return match and match.groups()


class Log:
    """The log of kavreld: the file to which its standard error goes."""

    def __init__(self, path, settle):
        self.path = path
        self.settle = settle

    def raw_lines(self):
        text = self.path.read_text(errors="replace")
        return text[: text.rfind("\n") + 1].splitlines()  # without a last line that is not yet complete

    def lines(self, after=-1):
        parsed = (LogLine.parse(number, raw) for number, raw in enumerate(self.raw_lines()))
        return [line for line in parsed if line and line.number > after]

    def texts(self, after=-1):
        return [line.text for line in self.lines(after)]

    def end(self):
        """Waits until kavreld has handled everything so far; returns the number of the last line of its log."""
        self.settle()
        return len(self.raw_lines()) - 1

    def find(self, text, after=-1):
        """Returns the first line with this text, or None. A pattern must match the whole text."""
        fits = text.fullmatch if isinstance(text, re.Pattern) else text.__eq__
        return next((line for line in self.lines(after) if fits(line.text)), None)

    def wait(self, text, after=-1, timeout=PATIENCE):
        deadline = time.monotonic() + timeout
        with FolderWatch(self.path.parent) as watch:
            while (found := self.find(text, after)) is None:
                assert watch.wait(deadline), f"not logged within {timeout} s: {text}"
        return found

    def wait_matching(self, pattern, after=-1):
        return self.wait(re.compile(pattern), after)

    def requests(self, after=-1):
        """Returns the requests that have come: [(sender, member)]."""
        return [request for line in self.lines(after) if (request := line.request())]

    def wait_for_request(self, member, after=-1):
        self.wait(re.compile(REQUEST.format(member)), after)

    def wait_for_caller(self, name, program):
        """Waits until kavreld has looked up the program behind a bus name."""
        self.wait(f"Called by [{name}/{program}] size:1")

    def sanitizer_reports(self):
        return [raw for raw in self.raw_lines() if SANITIZER_REPORT.search(raw)]


class TvDirectory:
    """The directory that holds the TV's values, used as a person at a shell uses it."""

    def __init__(self, path):
        self.path = Path(path)

    def read(self, value):
        return (self.path / value).read_text().removesuffix("\n")

    def echo(self, text, value):
        """Writes into the existing file, as a shell's `echo TEXT > VALUE` does."""
        file = self.path / value
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(f"{text}\n")

    def remove(self, value):
        (self.path / value).unlink()

    def has(self, value):
        return (self.path / value).exists()

    def wait_until(self, value, condition, timeout=PATIENCE):
        """Waits until condition() is true; checks it whenever something changes in the folder of the value."""
        deadline = time.monotonic() + timeout
        while True:
            nearest = self.nearest_folder(value)
            with FolderWatch(nearest) as watch:
                if condition():
                    return
                if nearest == self.nearest_folder(value):  # no nearer one was made before the watch began
                    assert watch.wait(deadline), f"{value} is not as expected within {timeout} s"

    def nearest_folder(self, value):
        """The value's folder, or the nearest one above it that exists."""
        return next(folder for folder in (self.path / value).parents if folder.exists())


class Client:
    """A client on the bus. It keeps the signals and replies that it gets from kavrel, in the order of arrival."""

    def __init__(self, address, before_call=lambda: None):
        self.before_call = before_call
        self.connection = connect(address)
        self.name = self.connection.get_unique_name()
        self.heard = []  # ("SpeakerVolumeChanged", 65535, 30) or ("reply", 0)
        self.heard_from = []  # for each item of heard: the path, interface and signature of its message
        self.taken = 0
        self.owners = {}  # {bus name: its latest owner, "" for none}, as the bus reported
        self.news = threading.Condition()
        self.interfaces = set()  # the interfaces whose signals to keep
        self.connection.add_filter(self._hear)
        self.listen_to(NAME)
        self._call_bus("AddMatch", "s", "type='signal',member='NameOwnerChanged',sender='org.freedesktop.DBus'")

    def close(self):
        if not self.connection.is_closed():
            self.connection.close_sync(None)

    @staticmethod
    def program():
        """The program name that kavrel finds for this process."""
        first_argument = Path("/proc/self/cmdline").read_bytes().split(b"\0")[0].decode()
        return first_argument.split(" ")[0].rpartition("/")[2]

    def listen_to(self, interface):
        self.interfaces.add(interface)
        self._call_bus("AddMatch", "s", f"type='signal',interface='{interface}'")

    def _hear(self, _connection, message, incoming, *_):
        # Runs on the thread that reads the socket, so in the order of arrival.
        kind = message.get_message_type()
        body = message.get_body()
        arguments = body.unpack() if body else ()
        with self.news:
            if not incoming or message.get_sender() == self.name:
                return message
            if kind == Gio.DBusMessageType.SIGNAL and message.get_interface() in self.interfaces:
                self._keep((message.get_member(), *arguments), message)
            elif kind == Gio.DBusMessageType.SIGNAL and message.get_member() == "NameOwnerChanged":
                self.owners[arguments[0]] = arguments[2]
            elif kind == Gio.DBusMessageType.METHOD_RETURN and message.get_sender() != "org.freedesktop.DBus":
                self._keep(("reply", *arguments), message)
            self.news.notify_all()
        return message

    def _keep(self, item, message):
        self.heard.append(item)
        self.heard_from.append((message.get_path(), message.get_interface(), message.get_signature()))

    def _call_bus(self, method, signature="", *arguments):
        body = GLib.Variant(f"({signature})", arguments)
        reply = self.connection.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                          method, body, None, Gio.DBusCallFlags.NONE, -1, None)
        return reply.unpack()

    def wait_for_bus(self):
        """Waits until this client has everything that the bus has sent to it so far."""
        self._call_bus("GetId")

    def owner(self):
        """Returns the unique name of the owner of kavrel's name."""
        return self._call_bus("GetNameOwner", "s", NAME)[0]

    def owner_pid(self):
        """Returns the process id of the owner of kavrel's name, or 0 if nobody owns it."""
        try:
            return self._call_bus("GetConnectionUnixProcessID", "s", NAME)[0]
        except GLib.Error:
            return 0

    def wait_for_owner(self, process):
        """Waits until the process owns kavrel's name; returns its unique name. Fails at once if the process ends."""
        threading.Thread(target=lambda: (process.wait(None), self._wake()), daemon=True).start()
        while True:
            with self.news:
                self.owners.pop(NAME, None)
            if self.owner_pid() == process.pid:
                return self.owner()
            self._wait(lambda: NAME in self.owners or not process.is_alive(), f"{NAME} is not owned")
            assert process.is_alive(), "kavreld has ended"

    def _wake(self):
        with self.news:
            self.news.notify_all()

    def wait_until_gone(self, unique_name, timeout=PATIENCE):
        if self._call_bus("NameHasOwner", "s", unique_name)[0]:
            self._wait(lambda: self.owners.get(unique_name) == "", f"{unique_name} stays", timeout)

    def _wait(self, condition, complaint, timeout=PATIENCE):
        with self.news:
            assert self.news.wait_for(condition, timeout), f"{complaint} within {timeout} s; heard: {self.heard}"

    def call(self, method, signature="", *arguments, path=METHODS_PATH, interface=NAME, timeout=PATIENCE):
        self.before_call()
        reply = self.connection.call_sync(NAME, path, interface, method, GLib.Variant(f"({signature})", arguments),
                                          None, Gio.DBusCallFlags.NO_AUTO_START, int(timeout * 1000), None)
        return reply.unpack()

    def send(self, method, signature="", *arguments):
        """Calls without waiting for the reply, which goes to `heard`."""
        message = Gio.DBusMessage.new_method_call(NAME, METHODS_PATH, NAME, method)
        message.set_body(GLib.Variant(f"({signature})", arguments))
        self.connection.send_message(message, Gio.DBusSendMessageFlags.NONE)

    def flush(self):
        self.connection.flush_sync(None)

    def set_volume(self, volume):
        return self.call("SetSpeakerVolume", "i", volume)[0]

    def get_volume(self):
        return self.call("GetSpeakerVolume")

    def set_mute(self, mute):
        return self.call("SetSpeakerMute", "b", mute)[0]

    def get_mute(self):
        return self.call("GetSpeakerMute")

    def get_support(self):
        return self.call("GetSpeakerSupportType")

    def emit(self, member, signature="", *arguments, path=SIGNALS_PATH, interface=NAME):
        self.before_call()
        body = GLib.Variant(f"({signature})", arguments)
        self.connection.emit_signal(None, path, interface, member, body)
        self.flush()

    def signals(self):
        """Returns all signals that kavrel has sent to this client so far."""
        return [item for item in self.heard if item[0] != "reply"]

    def take(self):
        """Waits for the next signal and returns it."""
        self._wait(lambda: len(self.signals()) > self.taken, "no signal came")
        self.taken += 1
        return self.signals()[self.taken - 1]

    def expect(self, *signal):
        """Waits for the next signal and checks that it is this one."""
        assert self.take() == signal

    def forget(self):
        """Skips all signals that kavrel has sent so far."""
        self.get_support()  # its reply arrives after all of them
        self.taken = len(self.signals())

    def wait_for_reply(self, *arguments):
        """Waits for the reply to the first call of send(), and checks that no signal came before it."""
        self._wait(lambda: self.heard, "no reply")
        assert self.heard[0] == ("reply", *arguments)

    def expect_silence(self):
        """Checks that kavrel sends no signal beyond those already taken."""
        self.expect_silence_after(self.taken)

    def expect_silence_after(self, count):
        """Checks that kavrel has sent so many signals in all, and none more until it answers one more call."""
        self.get_support()
        assert self.signals()[count:] == []
        assert len(self.signals()) == count


class Process:
    """A child process, which dies with this test program."""

    def __init__(self, *command, **options):
        self.child = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "--", *command],
                                      stdin=subprocess.DEVNULL, **options)
        self.pid = self.child.pid

    def is_alive(self):
        return self.child.poll() is None

    def signal(self, number):
        self.child.send_signal(number)

    def wait(self, timeout=PATIENCE):
        """Waits for its end; returns its exit status, or minus the signal that ended it."""
        return self.child.wait(timeout)

    def end(self):
        if self.is_alive():
            self.signal(signal.SIGTERM)
        return self.wait()


class Bus(Process):
    """A private dbus-daemon, whose address only this scene knows."""

    def __init__(self, folder, config=ROOT / "scripts/private-bus.conf", **environment):
        with open(folder / "bus.log", "w") as log:
            super().__init__("dbus-daemon", f"--config-file={config}", f"--address=unix:path={folder}/bus", "--nofork",
                             "--nopidfile", "--nosyslog", "--print-address=1", stdout=subprocess.PIPE, stderr=log,
                             env={**os.environ, **environment})
        self.address = self.child.stdout.readline().decode().strip()
        self.child.stdout.close()
        assert self.address, (folder / "bus.log").read_text()


class Thread(NamedTuple):
    """A thread of kavreld at one moment."""
    name: str
    state: str  # "S" while it sleeps
    switches: int  # how often it gave the processor to another thread


class Broker(Process):
    """A private dbus-broker. Its launcher gets the listening socket as systemd would pass it."""

    def __init__(self, folder, config, **environment):
        path = folder / "bus"
        self.address = f"unix:path={path}"
        self.journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.journal.bind(str(folder / "journal"))
        self.journal_reader = threading.Thread(target=self._read_journal)
        self.journal_reader.start()
        with socket.socket(socket.AF_UNIX) as listening, open(folder / "bus.log", "w") as log:
            listening.bind(str(path))
            path.chmod(0o666)
            listening.listen()
            super().__init__(
                "bash", "-c", 'LISTEN_PID=$$ LISTEN_FDS=1 exec "${@:2}" 3<&"$1"', "bash", str(listening.fileno()),
                "dbus-broker-launch", "--scope=system", f"--config-file={config}", pass_fds=[listening.fileno()],
                stdout=log, stderr=log, env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self.address,
                                             "KAVREL_TEST_JOURNAL": str(folder / "journal"), **environment})

    def _read_journal(self):
        """Reads what the bus logs, and forgets it: the bus waits while its journal is full."""
        while self.journal.recv(65536):
            pass

    def end(self):
        status = super().end()
        self.journal.shutdown(socket.SHUT_RDWR)  # ends the reader
        self.journal_reader.join()
        self.journal.close()
        return status


# The line that each gain worker logs before it sleeps, and the beginning of its first line after it has woken.
WORKERS = [("Sleep PulseRampH", "Wake PulseRampH"), ("Sleep AudioGainOut", "AudioGainOut. Update"),
           *((f"Sleep {worker}", f"Wake {worker}.")
             for worker in ("PlayerMainOutH", "PlayerSubOutH", "UnMuteMainOutH", "UnMuteSubOutH"))]


class Kavreld(Process):
    """The real kavreld. Its log goes to a file, because a full pipe would block it."""

    def __init__(self, log_path, environment, command=(KAVRELD,)):
        with open(log_path, "a") as file:  # always appends, even after a test truncated the file
            super().__init__(*command, stdout=file, stderr=file, env=environment)
        self.log = Log(log_path, self.settle)
        self.may_be_gone = False  # set to True before a test makes it end

    def kill(self):
        self.may_be_gone = True
        self.signal(signal.SIGKILL)
        self.wait()

    def end(self):
        """Ends it and checks that nothing else ended it before."""
        was_alive = self.is_alive()
        status = super().end()
        print(f"--- {self.log.path.name} (status {status})")  # pytest shows this if the test failed
        print(*self.log.raw_lines()[-300:], sep="\n")
        assert self.log.sanitizer_reports() == []
        assert self.may_be_gone or (was_alive and status == -signal.SIGTERM), f"kavreld ended by itself: {status}"

    def settle(self):
        """Waits until all its threads sleep at once: then it has handled everything, and holds no lock of a report.

        No event announces this, so it polls the states of the threads.
        """
        deadline = time.monotonic() + PATIENCE
        while self.is_alive() and not self._sleeps():
            assert time.monotonic() < deadline, f"kavreld does not come to rest within {PATIENCE} s"
            os.sched_yield()

    def _sleeps(self):
        """Returns whether all threads slept at one moment.

        A thread that was seen asleep may be awake when the last one is seen asleep. So this looks twice: a thread that
        did not run from the first look to the second one slept all that time.
        """
        before = self._threads()
        return all(thread.state == "S" for thread in before.values()) and self._threads() == before

    def _threads(self):
        """Returns {thread id: Thread}."""
        found = {}
        for status in Path(f"/proc/{self.pid}/task").glob("*/status"):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # the thread has ended
                fields = dict(line.split(":\t", 1) for line in status.read_text().splitlines())
                switches = int(fields["voluntary_ctxt_switches"]) + int(fields["nonvoluntary_ctxt_switches"])
                found[int(status.parent.name)] = Thread(fields["Name"], fields["State"][0], switches)
        return found

    def rest(self):
        """Waits until all six gain workers wait for a request; they can miss an earlier one."""
        deadline = time.monotonic() + PATIENCE
        with FolderWatch(self.log.path.parent) as watch:
            while True:
                logged = len(self.log.raw_lines())
                if all(self._worker_sleeps(*words) for words in WORKERS):
                    # A worker logs that before it waits. If nothing is logged until all threads sleep, none has woken.
                    if self.log.end() + 1 == logged:
                        return
                else:
                    assert watch.wait(deadline), f"the gain workers do not come to rest within {PATIENCE} s"

    def _worker_sleeps(self, sleep, wake):
        words = [text for text in self.log.texts() if text == sleep or text.startswith(wake)]
        return bool(words) and words[-1] == sleep

    def threads(self):
        """Returns {thread id: (name, number of context switches)}."""
        return {number: (thread.name, thread.switches) for number, thread in self._threads().items()}


class Scene(contextlib.ExitStack):
    """One test's processes, and its folder on a tmpfs. Leaving the scene ends the processes and removes the folder."""

    def __init__(self):
        super().__init__()
        memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
        self.folder = Path(self.enter_context(tempfile.TemporaryDirectory(prefix="kavrel-test.", dir=memory)))
        self.tv = TvDirectory(self.folder / "tv")
        self.bus = Bus(self.folder)
        self.callback(self.bus.end)
        self.daemons = []
        self.kavreld = (KAVRELD,)  # the command that starts it

    def environment(self, **changes):
        return {**os.environ, "KAVREL_TV_DIR": str(self.tv.path), "DBUS_SYSTEM_BUS_ADDRESS": self.bus.address,
                "G_DEBUG": "fatal-warnings", "LD_PRELOAD": os.environ.get("KAVREL_PRELOAD", ""), **changes}

    def replace_bus(self, kind, config, **environment):
        self.bus.end()
        (self.folder / "bus").unlink(missing_ok=True)
        self.bus = kind(self.folder, config, **environment)
        self.callback(self.bus.end)

    def change_bus(self, old, new):
        """Replaces the bus by one in whose configuration a text is another one."""
        text = (ROOT / "scripts/private-bus.conf").read_text()
        assert old in text
        config = self.folder / "changed.conf"
        config.write_text(text.replace(old, new))
        self.replace_bus(Bus, config)

    def client(self):
        """Returns a client whose calls and signals wait until the daemon is at rest, as it refuses them in a report."""
        client = Client(self.bus.address, before_call=self.settle)
        self.callback(client.close)
        return client

    def settle(self):
        for daemon in self.daemons:
            daemon.settle()

    def launch(self, **changes):
        """Starts a kavreld with changes to its environment, and does not wait until it owns its name."""
        daemon = Kavreld(self.folder / f"kavreld-{len(self.daemons) + 1}.log", self.environment(**changes),
                         self.kavreld)
        self.daemons.append(daemon)
        self.callback(daemon.end)
        return daemon

    def start(self, **changes):
        """Starts a kavreld with changes to its environment, and waits until it serves."""
        daemon = self.launch(**changes)
        client = Client(self.bus.address)
        client.wait_for_owner(daemon)
        client.close()
        self.tv.wait_until(READY, lambda: self.tv.has(READY))
        return daemon

    def run(self, *command, **options):
        """Runs a command in this scene; returns its output."""
        done = subprocess.run(command, env=self.environment(), stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, timeout=PATIENCE, check=False, **options)
        assert done.returncode == 0, done.stderr
        return done.stdout


class Switches:
    """The switch files that make kavreld emulate speakers, in a folder that replaces /opt/etc."""

    def __init__(self, scene):
        self.scene = scene
        self.folder = scene.folder / "opt-etc"
        self.folder.mkdir()

    def turn_on(self, name):
        (self.folder / f".enable_{name}_spk").touch()

    def turn_off(self, name):
        (self.folder / f".enable_{name}_spk").unlink()

    def start(self):
        """Starts a kavreld that looks for its switch files in this folder."""
        preload = f"{os.environ['SWITCH_FILES']}:{os.environ.get('KAVREL_PRELOAD', '')}"
        asan_options = f"{os.environ.get('ASAN_OPTIONS', '')}:verify_asan_link_order=0"  # allows preloading
        return self.scene.start(LD_PRELOAD=preload, KAVREL_TEST_SWITCHES=str(self.folder), ASAN_OPTIONS=asan_options)


def handler_of(member):
    """Returns the function of kavreld that handles this method or signal, as its log lines name it."""
    return "_On" + {"SpkDisconnected": "SpeakerDisconnected"}.get(member, member)


def change_at_rest(tv, log, value, text):
    """Writes a value and waits until kavreld has followed. It is at rest before: a report that meets a request is lost."""
    log.settle()
    tv.echo(text, value)
    log.settle()


def change_route(tv, log, route):
    change_at_rest(tv, log, "sound/route", route)


def lines_without_workers(log, after):
    """Returns the lines as tuples, without those of the gain workers, whose threads log at any time."""
    return [(line.priority, line.file, line.function, line.text) for line in log.lines(after)
            if line.file != "KVAudioGainHandler.cpp"]
