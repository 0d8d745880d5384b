# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Runs kavrel-sound for the tests: a daemon, a sound server, and the bridge between them."""
import json
import os
import subprocess

from harness import PATIENCE
from hearing import Recording, Tone
from kavrel_tv import KAVREL_TV, Running

KAVREL_SOUND = os.environ["KAVREL_SOUND"]
MAIN, SUB, BOTH = 1, 2, 3  # audio paths
MAIN_STAGE, SUB_STAGE = "kavrel-main", "kavrel-sub"  # the media names of the gain stages
MAIN_GAIN, SUB_GAIN = "audio/main_out_gain2", "audio/sub_out_gain2"
VOLUME, MUTE, ROUTE = "audio/master_volume", "audio/master_mute", "sound/route"
SUPPORT_KEYS = {
    "hdmi": "settings/memory/menu/network/screenmirroring/volume_support_hdmi",
    "usb": "settings/db/usbsound/volume_capability",
}
ROUTES = {"tv": 0, "hdmi": 2, "usb": 15}
SINK_OF = {"tv": "speaker", "hdmi": "hdmi", "usb": "usb"}
OUTPUTS = tuple(word for name, sink in SINK_OF.items() for word in ("--output", f"{name}={sink}"))


class Sound:
    """A scene with a daemon whose TV is heard on a sound server."""

    def __init__(self, scene, server):
        self.scene, self.server, self.tv = scene, server, scene.tv
        self.daemon = scene.start()
        asleep = self.daemon.log.wait("Sleep AudioGainOut")
        self.daemon.log.wait("Sleep AudioGainOut", asleep.number)  # has written the gain of the start: no test's gain is lost
        self.client = scene.client()
        self.bridge = None

    def environment(self):
        return self.scene.environment(**{key: value for key, value in self.server.environment().items()
                                         if key.startswith(("XDG_", "HOME"))}, LC_ALL="C.UTF-8", PULSE_SERVER=self.server.address)

    def launch(self, *options):
        """Starts the bridge, and waits for nothing."""
        self.bridge = Running(self.environment(), *options, program=KAVREL_SOUND)
        self.scene.callback(self.end_bridge, self.bridge)
        return self.bridge

    def start(self, *options):
        """Starts the bridge, and waits until what plays on "kavrel" goes to the output in use."""
        self.launch(*(options or OUTPUTS))
        self.wait_for_main("speaker")
        return self

    @staticmethod
    def end_bridge(bridge):
        if bridge.child.poll() is None:
            status, complaints = bridge.end()
            print("--- kavrel-sound", *bridge.lines, *complaints, sep="\n")

    def command(self, *arguments):
        """Runs another kavrel-sound to its end."""
        return subprocess.run([KAVREL_SOUND, *arguments], env=self.environment(), stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=PATIENCE, check=False)

    def kavrel_tv(self, *arguments):
        done = subprocess.run([KAVREL_TV, *arguments], env=self.environment(), stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, timeout=PATIENCE, check=False)
        assert done.returncode == 0, done.stderr
        return done.stdout

    def status(self):
        done = self.command("status", "--json")
        assert done.returncode == 0, done.stderr
        return json.loads(done.stdout)

    def wait_for_main(self, sink):
        """Waits until the main stage plays on this sink, or, for None, until there is none."""
        self.wait_for_stage(MAIN_STAGE, sink)

    def wait_for_stage(self, stage, sink):
        self.server.wait_until(lambda: len(self.server.streams(stage)) <= 1 and self.server.sink_of(stage) == sink,
                               f"{stage} plays on {sink}")

    def wait_for_volume(self, sink, volume, mute=False):
        self.server.wait_until(lambda: self.server.volume(sink) == (volume, mute), f"{sink} has {volume} %, mute {mute}")

    def play(self, sink="kavrel"):
        tone = Tone(self.server, sink)
        self.scene.callback(tone.end)
        return tone

    def record(self, sink):
        recording = Recording(self.server, sink)
        self.scene.callback(recording.end)
        return recording

    def switch(self, output):
        """Changes the route, and waits until the daemon and the main stage have followed."""
        self.tv.echo(ROUTES[output], ROUTE)
        self.wait_for_main(SINK_OF[output])
        self.daemon.settle()

    def written(self, path, after=-1):
        """Returns all gains that the daemon wrote to an output, in order."""
        prefix = f"[Path:{path:02}] gain2:"
        return [int(text.removeprefix(prefix)) for text in self.daemon.log.texts(after) if text.startswith(prefix)]
