# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Headless sound servers for one test each: real ones, in folders of their own, with a null sink for each output.

They use no sound card, and neither see nor touch the sound server and the files of the user.
"""
import contextlib
import json
import os
import select
import socket
import subprocess
import time

from harness import PATIENCE, Process

SINKS = ("speaker", "hdmi", "usb", "extra")  # those of a new server; the first one is the default sink
NULL_SINK = ("module-null-sink", "rate=48000", "format=float32le", "channels=2", "norewinds=1")


def listens(path):
    with socket.socket(socket.AF_UNIX) as client:
        return client.connect_ex(str(path)) == 0


class Server:
    """The common part of both servers. A test may end the server and start it again."""

    def __init__(self, scene):
        self.scene = scene
        self.folder = scene.folder / "sound"
        self.processes = []
        for name in ("home", "run", "config", "state", "cache", "data"):
            (self.folder / name).mkdir(parents=True, mode=0o700)
        scene.callback(self.kill)

    @property
    def address(self):
        return f"unix:{self.path}"

    def environment(self):
        """The variables that keep a server and its clients within its own folder."""
        foreign = ("PULSE_", "PIPEWIRE_", "WIREPLUMBER_", "DBUS_", "DISPLAY", "WAYLAND_DISPLAY")
        own = {key: value for key, value in os.environ.items() if not key.startswith(foreign)}
        folders = {f"XDG_{key}": str(self.folder / name)
                   for key, name in (("RUNTIME_DIR", "run"), ("CONFIG_HOME", "config"), ("STATE_HOME", "state"),
                                     ("CACHE_HOME", "cache"), ("DATA_HOME", "data"))}
        return {**own, **folders, "HOME": str(self.folder / "home"), "DBUS_SESSION_BUS_ADDRESS": self.scene.bus.address,
                "DBUS_SYSTEM_BUS_ADDRESS": self.scene.bus.address}

    def start(self):
        """Starts the server, and waits until it answers and has its sinks."""
        self._start()
        for name in SINKS:
            self.add_sink(name)
        self.pactl("set-default-sink", SINKS[0])
        return self

    def _launch(self, *command):
        with open(self.folder / f"{command[0]}.log", "a") as log:
            process = Process(*command, stdout=log, stderr=log, env=self.environment())
        self.processes.append(process)

    def _wait_for(self, path):
        """Waits until a server listens at the path. No event says that it has gone from binding to listening."""
        deadline = time.monotonic() + PATIENCE
        while not listens(path):
            assert all(process.is_alive() for process in self.processes), self.logs()
            assert time.monotonic() < deadline, f"nobody listens at {path} within {PATIENCE} s: {self.logs()}"
            time.sleep(0.01)

    def logs(self):
        return "\n".join(path.read_text(errors="replace")[-2000:] for path in self.folder.glob("*.log"))

    def kill(self):
        """Ends the server at once, without a farewell to its clients."""
        for process in reversed(self.processes):
            with contextlib.suppress(ProcessLookupError):
                process.signal(9)
            process.wait()
        self.processes.clear()
        with contextlib.suppress(FileNotFoundError):
            self.path.unlink()

    def pactl(self, *arguments):
        """Runs pactl on this server; returns its output."""
        done = subprocess.run(["pactl", f"--server={self.address}", *arguments], env=self.environment(), timeout=PATIENCE,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        assert done.returncode == 0, f"pactl {arguments}: {done.stderr}\n{self.logs()}"
        return done.stdout

    def list(self, kind):
        """Returns the server's list of sinks, sink-inputs, modules or another kind."""
        text = self.pactl("--format=json", "list", kind)
        return json.loads(text) if text.strip() else []

    def add_sink(self, name):
        """Makes a null sink; returns the number of its module."""
        number = int(self.pactl("load-module", *NULL_SINK, f"sink_name={name}"))
        assert self.sink(name), f"no sink {name}"
        return number

    def remove_sink(self, name):
        self.pactl("unload-module", str(self.sink(name)["owner_module"]))

    def sink(self, name):
        """Returns the entry of a sink, or None."""
        return next((sink for sink in self.list("sinks") if sink["name"] == name), None)

    def volume(self, name):
        """Returns the volume of a sink as pactl shows it, and its mute: (40, False)."""
        sink = self.sink(name)
        shown = {int(channel["value_percent"].rstrip("%")) for channel in sink["volume"].values()}
        assert len(shown) == 1, sink["volume"]
        return shown.pop(), sink["mute"]

    def streams(self, media_name):
        """Returns the entries of the sink inputs with this media name."""
        return [stream for stream in self.list("sink-inputs") if stream["properties"].get("media.name") == media_name]

    def sink_of(self, media_name):
        """Returns the name of the sink of the only stream with this media name, or None without such a stream."""
        sinks = {sink["index"]: sink["name"] for sink in self.list("sinks")}
        found = [sinks.get(stream["sink"]) for stream in self.streams(media_name)]
        assert len(found) <= 1, f"several streams {media_name}"
        return found[0] if found else None

    def inventory(self):
        """Returns everything that a client can leave behind: modules, sinks, sources and streams."""
        modules = sorted((module["name"], module.get("argument") or "") for module in self.list("modules"))
        names = {kind: sorted(item["name"] for item in self.list(kind)) for kind in ("sinks", "sources")}
        counts = {kind: len(self.list(kind)) for kind in ("sink-inputs", "source-outputs")}
        return {"modules": modules, **names, **counts}

    def wait_until(self, condition, what):
        """Waits until condition() is true; checks it whenever the server reports an event."""
        listener = Process("pactl", f"--server={self.address}", "subscribe", stdout=subprocess.PIPE,
                           stderr=subprocess.DEVNULL, env=self.environment())
        try:
            deadline = time.monotonic() + PATIENCE
            while not condition():
                # The first look may come before the subscription, so an event alone is not waited for.
                assert time.monotonic() < deadline, f"not within {PATIENCE} s: {what}\n{self.logs()}"
                assert listener.is_alive(), "the server has gone"
                wait_for_output(listener.child.stdout, 0.2)
        finally:
            listener.signal(9)
            listener.wait()
            listener.child.stdout.close()


def wait_for_output(stream, seconds):
    """Waits until the stream has output, and takes it; not longer than so many seconds."""
    if select.select([stream], [], [], seconds)[0]:
        os.read(stream.fileno(), 65536)


class PulseAudio(Server):
    """With the modules that restore volumes and rescue streams, as a desktop has them."""

    name = "PulseAudio"
    MODULES = ("module-stream-restore", "module-rescue-streams")

    @property
    def path(self):
        return self.folder / "native"

    def _start(self):
        lines = [*(f"load-module {module}" for module in self.MODULES),
                 f"load-module module-native-protocol-unix socket={self.path} auth-anonymous=1"]
        script = self.folder / "script"
        script.write_text("\n".join(lines) + "\n")
        self._launch("pulseaudio", "-n", "-F", str(script), "--daemonize=no", "--use-pid-file=no", "--exit-idle-time=-1",
                     "--disallow-exit", "--realtime=no", "--high-priority=no", "--log-target=stderr")
        self._wait_for(self.path)


class PipeWire(Server):
    """With WirePlumber and pipewire-pulse. It looks for no devices."""

    name = "PipeWire"
    NO_DEVICES = {
        "main.lua.d": "alsa_monitor.enabled = false\nv4l2_monitor.enabled = false\nlibcamera_monitor.enabled = false\n",
        "bluetooth.lua.d": "bluez_monitor.enabled = false\n",
    }

    def __init__(self, scene):
        super().__init__(scene)
        for folder, text in self.NO_DEVICES.items():
            path = self.folder / "config/wireplumber" / folder
            path.mkdir(parents=True)
            (path / "90-no-devices.lua").write_text(text)

    @property
    def path(self):
        return self.folder / "run/pulse/native"

    def _start(self):
        self._launch("pipewire")
        self._wait_for(self.folder / "run/pipewire-0")
        self._launch("wireplumber")
        self._launch("pipewire-pulse")
        self._wait_for(self.path)

    def kill(self):
        super().kill()
        for name in ("pipewire-0", "pipewire-0.lock"):
            (self.folder / "run" / name).unlink(missing_ok=True)


SERVERS = {"pulseaudio": PulseAudio, "pipewire": PipeWire}
