# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests who may do what, on a bus with the policy of an installed system and in the TV directory that tmpfiles makes.

Each test of the bus runs with dbus-daemon and with dbus-broker. kavreld runs as its own user.
"""
import contextlib
import grp
import json
import os
import re
import shutil
import signal
import subprocess
from pathlib import Path
from typing import NamedTuple

import pytest

from harness import KAVRELD, METHODS_PATH, NAME, PATIENCE, READY, ROOT, SIGNALS_PATH, Broker, Bus, Process
from installation import make_users, run_tmpfiles
from interface import connect, read_methods
from gi.repository import Gio, GLib

KAVRELCTL = os.environ["KAVRELCTL"]
POPUP = "org.olvane.kv_popupnoti"
PEER = "com.norvik.tv.bt.connectionmanager"  # the peer of the emulated Bluetooth speaker
DENIED = "org.freedesktop.DBus.Error.AccessDenied"

STRICT_BUS = f"""
<busconfig>
  <type>system</type>
  <listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus"/>
  </policy>
  <include>{ROOT / 'data/org.olvane.kavrel.conf'}</include>
  <policy user="root">
    <allow own="{PEER}"/>
  </policy>
</busconfig>
"""

# The user id and the options of setpriv that make a process one of these users. "audio" is a user in that group.
GROUPLESS = ["--regid=65534", "--clear-groups"]
IN_AUDIO = ["--regid=audio", "--clear-groups"]


class System:
    """An installed system: its users, its folders, and kavreld with the rights of its unit."""

    def __init__(self, scene):
        self.scene = scene
        self.root = scene.folder / "system"
        kavrel = make_users(self.root)
        with open(self.root / "etc/passwd", "a") as passwd:
            passwd.write("member:x:65533:65533:::\n")
        self.users = {"nobody": ["--reuid=65534", *GROUPLESS], "audio": ["--reuid=65533", *IN_AUDIO],
                      "kavrel": [f"--reuid={kavrel}", *IN_AUDIO], "root": []}
        self.preload = ":".join(self.copy(library) for library in [os.environ.get("KAVREL_PRELOAD")] if library)
        scene.folder.chmod(0o755)  # these users read the folder and nothing of the checkout
        if os.geteuid() == 0:
            self.run_kavreld_as_its_user()

    def copy(self, program):
        """Returns the path of a copy of a program that all users can reach."""
        return shutil.copy(program, self.scene.folder)

    def as_user(self, user, *command):
        """Returns a command that runs the command as this user; without root rights, as the present one."""
        return ["setpriv", *self.users[user], "--pdeathsig=KILL", "--", *command] if os.geteuid() == 0 else command

    def run_as(self, user, *command, umask=0o022):
        """Returns the exit status and the output."""
        done = subprocess.run(self.as_user(user, *command), env=self.scene.environment(LD_PRELOAD=self.preload),
                              text=True, timeout=PATIENCE, check=False, umask=umask, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return done.returncode, done.stdout

    def replace_bus(self, kind, config=ROOT / "scripts/private-bus.conf"):
        """Starts another bus, which knows the users."""
        self.scene.bus.end()
        (self.scene.folder / "bus").unlink(missing_ok=True)
        self.scene.bus = kind(self.scene.folder, config, LD_PRELOAD=os.environ["BUS_SURROUNDINGS"],
                              KAVREL_TEST_PASSWD=str(self.root / "etc/passwd"))
        self.scene.callback(self.scene.bus.end)

    def make_folders(self):
        run_tmpfiles(self.root, "--create")
        database, lasting = self.root / "run/kavrel/settings/db", self.root / "var/lib/kavrel"
        assert os.readlink(database) in ("/var/lib/kavrel", str(lasting))
        database.unlink()
        database.symlink_to(lasting)  # not that of this machine

    def run_kavreld_as_its_user(self):
        self.make_folders()
        self.scene.tv.path = self.root / "run/kavrel"
        self.scene.kavreld = self.as_user("kavrel", "env", f"LD_PRELOAD={self.preload}", "sh", "-c",
                                          'umask 0002; exec "$1"', "sh", self.copy(KAVRELD))


@pytest.fixture
def system(scene):
    return System(scene)


@pytest.fixture(params=[Bus, Broker])
def strict(request, system):
    """An installed system whose bus has the policy of a system bus, with that of kavrel."""
    config = system.scene.folder / "strict.conf"
    config.write_text(STRICT_BUS)
    system.replace_bus(request.param, config)
    return system


# --- messages ---------------------------------------------------------------------------------------------------------


class Message(NamedTuple):
    kind: str  # "call" or "signal"
    member: str
    body: str = "()"  # as text: "(1, true)"
    interface: str = NAME
    path: str = METHODS_PATH
    destination: str = NAME  # "" for a broadcast
    descriptors: int = 0


def call(member, body="()", **fields):
    return Message("call", member, body, **fields)


def signal_to_kavrel(member, **fields):
    return Message("signal", member, path=SIGNALS_PATH, **fields)


def broadcast(member, body="()", path=SIGNALS_PATH, **fields):
    return Message("signal", member, body, path=path, destination="", **fields)


# Sends messages; prints for each the name of the error that came back, or "". It is a text for python3 -c, because the
# users may be unable to read the checkout.
SENDER = '''
import json, sys
from gi.repository import Gio, GLib

bus = Gio.bus_get_sync(Gio.BusType.SYSTEM, None)
errors = {}  # {serial number of a message: name of its error}


def keep_error(_bus, message, incoming):
    if incoming and message.get_message_type() == Gio.DBusMessageType.ERROR:
        errors[message.get_reply_serial()] = message.get_error_name()
    return message


def message_of(kind, member, body, interface, path, destination, descriptors):
    if kind == "call":
        message = Gio.DBusMessage.new_method_call(destination, path, interface, member)
    else:
        message = Gio.DBusMessage.new_signal(path, interface, member)
        message.set_destination(destination or None)
    message.set_body(GLib.Variant.parse(None, body, None, None))
    if descriptors:
        files = Gio.UnixFDList.new()
        for _ in range(descriptors):
            files.append(0)
        message.set_unix_fd_list(files)
    return message


def send(kind, *fields):
    message = message_of(kind, *fields)
    if kind == "call":
        bus.send_message_with_reply_sync(message, Gio.DBusSendMessageFlags.NONE, -1, None)
    else:
        bus.send_message(message, Gio.DBusSendMessageFlags.NONE)
        # The bus refuses a message before it answers the next one.
        bus.call_sync("org.freedesktop.DBus", "/", "org.freedesktop.DBus.Peer", "Ping", None, None, 0, -1, None)
    return errors.get(message.get_serial(), "")


bus.add_filter(keep_error)
print(json.dumps([send(*fields) for fields in json.loads(sys.argv[1])]))
'''


def send_as(user, system, *messages):
    """Returns for each message the name of the error that came back, or ""."""
    status, output = system.run_as(user, "/usr/bin/python3", "-B", "-c", SENDER, json.dumps(messages))
    assert status == 0, output
    return json.loads(output)


REQUEST_NAME = Message("call", "RequestName", f"('{NAME}', uint32 4)", "org.freedesktop.DBus", "/org/freedesktop/DBus",
                       "org.freedesktop.DBus")

if os.geteuid() != 0:
    def test_a_user_without_rights_may_not_own_the_name(strict):
        assert send_as("nobody", strict, REQUEST_NAME) == [DENIED]

if os.geteuid() == 0:
    EVERYBODY, WRITERS, DAEMON = "nobody audio kavrel root", "audio kavrel root", "kavrel root"
    ARGUMENTS = {"": "()", "i": "(1,)", "b": "(true,)", "ii": "(1, 100)"}
    METHODS = {method.name: ARGUMENTS[method.signature] for method in read_methods()}
    INTROSPECT = call("Introspect", interface="org.freedesktop.DBus.Introspectable")
    PING = call("Ping", interface="org.freedesktop.DBus.Peer")
    CALLS = {  # {message: who may send it}
        REQUEST_NAME: DAEMON,
        INTROSPECT: EVERYBODY,
        PING: EVERYBODY,
        **{call(name, body): EVERYBODY if name.startswith("Get") else WRITERS for name, body in METHODS.items()},
        call("GetSpkVolume", interface=f"{NAME}.tv"): DAEMON,
        call("SetSpkVolume", "(1,)", interface=f"{NAME}.tv"): DAEMON,
        call("GetSpkVolume", interface=f"{PEER}.speaker", destination=PEER): DAEMON,
        call("SetSpkVolume", "(1,)", interface=f"{PEER}.speaker", destination=PEER): DAEMON,
        call("Anything", interface="org.olvane.other"): "",
        call("GetSpeakerVolume", descriptors=1): "",
        call("SetSpeakerVolume", "(1,)", descriptors=1): "",
    }
    REQUESTS = ["BudsConnected", "BudsDisconnected", "SpkDisconnected", "ApplyPulseAudioGain", "SpkVolumeChanged"]
    ANNOUNCEMENTS = ["SpeakerVolumeChanged", "SpeakerMuteChanged", "SpeakerChangeRequest"]
    SIGNALS = {**dict.fromkeys(REQUESTS, WRITERS), **dict.fromkeys(ANNOUNCEMENTS, DAEMON), "Anything": DAEMON}

    @contextlib.contextmanager
    def peer_on(bus):
        connection = connect(bus.address)
        connection.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
                             GLib.Variant("(su)", (PEER, 0)), None, Gio.DBusCallFlags.NONE, -1, None)
        yield
        connection.close_sync(None)

    def test_who_may_call_what(strict):
        """Everybody asks; root and the group audio change the sound; kavrel and root own the name and ask the peers."""
        strict.scene.start()
        with peer_on(strict.scene.bus):
            for user in strict.users:
                errors = send_as(user, strict, *CALLS)
                denied = {message: error == DENIED for message, error in zip(CALLS, errors)}
                assert denied == {message: user not in allowed for message, allowed in CALLS.items()}, user

    def test_a_call_that_is_allowed_is_answered(strict):
        strict.scene.start()
        assert set(send_as("nobody", strict, INTROSPECT, PING, *map(call, METHODS))[:2]) == {""}
        for user in ("audio", "kavrel", "root"):
            assert set(send_as(user, strict, *(call(*method) for method in METHODS.items()))) == {""}, user

    def test_who_may_send_kavrel_a_signal(strict):
        """dbus-daemon answers a refused signal with an error; dbus-broker drops it and says nothing."""
        log = strict.scene.start().log
        messages = {**{signal_to_kavrel(member): allowed for member, allowed in SIGNALS.items()},
                    signal_to_kavrel("BudsConnected", interface="org.olvane.other"): "",
                    signal_to_kavrel("BudsConnected", descriptors=1): ""}
        for user in strict.users:
            before = log.end()
            errors = send_as(user, strict, *messages)
            if isinstance(strict.scene.bus, Bus):
                assert errors == ["" if user in allowed else DENIED for allowed in messages.values()], user
            send_as("root", strict, signal_to_kavrel("Last"))
            log.wait_for_request("Last", before)
            heard = [member for _sender, member in log.requests(before)]
            assert heard == [*(message.member for message in messages if user in messages[message]), "Last"], user

    def test_who_may_broadcast_what(strict):
        """The bus drops a broadcast that is not allowed, and says nothing."""
        listener = strict.scene.client()
        listener.listen_to(POPUP)
        messages = {**{broadcast(member): allowed for member, allowed in SIGNALS.items()},
                    broadcast("PopupNoti", "('text',)", "/Org/Olvane/KVPopupNoti", interface=POPUP): DAEMON,
                    broadcast("BudsConnected", descriptors=1): ""}
        for user in strict.users:
            before = len(listener.heard)
            assert set(send_as(user, strict, *messages)) == {""}
            listener.wait_for_bus()
            assert [item[0] for item in listener.heard[before:]] == [
                message.member for message, allowed in messages.items() if user in allowed], user

    def test_kavrel_hears_the_broadcasts_of_root_and_the_group_audio(strict):
        log = strict.scene.start().log
        nobodys, audios, nobodys_second, roots, _ = REQUESTS
        for user, member in (("nobody", nobodys), ("audio", audios), ("nobody", nobodys_second), ("root", roots)):
            send_as(user, strict, broadcast(member))
        log.wait_for_request(roots)
        assert [member for _sender, member in log.requests()] == [audios, roots]

    def test_kavrelctl_says_what_the_bus_refuses(strict):
        """dbus-broker does not tell even the sender that it has dropped a signal."""
        log = strict.scene.start().log
        kavrelctl = strict.copy(KAVRELCTL)
        refused = (77, "kavrelctl: not allowed: needs root or the group audio\n")
        dropped = refused if isinstance(strict.scene.bus, Bus) else (0, "")
        for command, answer in (("volume 30", refused), ("unmute", refused), ("fade player", refused),
                                ("gain reset", refused), ("pulse 20 100", dropped), ("speaker-gone 4 x", dropped),
                                ("buds connected 7", dropped)):
            assert strict.run_as("nobody", kavrelctl, *command.split()) == answer, command
            assert strict.run_as("audio", kavrelctl, *command.split()) == (0, ""), command
        log.wait_for_request("BudsConnected")
        assert [member for _sender, member in log.requests()].count("BudsConnected") == 1
        assert strict.run_as("nobody", kavrelctl, "monitor", "--calls") == (
            77, "kavrelctl: not allowed: only root may see calls\n")

    def test_a_report_of_root_runs_no_program_of_another_user(strict):
        strict.scene.start()
        status, report = strict.run_as("root", "env", "PATH=/nowhere", strict.copy(KAVRELCTL), "report", "--timeout", str(PATIENCE))
        assert status == 0
        assert "\n  kavreld        missing: there is no program kavreld\n" in report

    def count_open_files(process):
        """Counts the kinds of files that a message may bring, and none that the process opens for an instant."""
        names = []
        for link in Path(f"/proc/{process.pid}/fd").iterdir():
            with contextlib.suppress(FileNotFoundError):
                names.append(os.readlink(link))
        return len([name for name in names if name.startswith(("socket:", "pipe:", "/dev/null"))])

    def test_a_stranger_cannot_use_up_the_descriptors_of_kavrel(strict):
        """Without the policy the filter does it: see the tests of the filter."""
        daemon = strict.scene.start()
        before = count_open_files(daemon)
        errors = send_as("nobody", strict, *256 * [call("GetSpeakerVolume", descriptors=16)], call("GetSpeakerVolume"))
        assert errors == 256 * [DENIED] + [""]
        assert count_open_files(daemon) == before

    def test_everybody_hears_that_the_volume_changed(strict):
        strict.scene.start()
        nobody = subprocess.Popen(strict.as_user("nobody", "gdbus", "monitor", "--system", "-d", NAME), text=True,
                                  stdout=subprocess.PIPE, env=strict.scene.environment(LD_PRELOAD=strict.preload),
                                  stdin=subprocess.DEVNULL)
        try:
            while "is owned by" not in nobody.stdout.readline():
                pass
            send_as("audio", strict, call("SetSpeakerVolume", "(30,)"))
            assert nobody.stdout.readline() == f"{METHODS_PATH}: {NAME}.SpeakerVolumeChanged (65535, 30)\n"
        finally:
            nobody.kill()
            nobody.communicate()

    # --- the TV directory -----------------------------------------------------------------------------------------

    @pytest.fixture
    def installed(system):
        """An installed system with a running kavreld, on a bus without a policy."""
        system.replace_bus(Bus)
        system.scene.start()
        return system

    def echo(system, user, text, value):
        """Does what a shell's `echo` does; returns its exit status."""
        return system.run_as(user, "sh", "-c", 'echo "$1" >"$2"', "sh", str(text), system.scene.tv.path / value)[0]

    def test_everybody_reads_the_tv_and_root_and_the_group_audio_write_it(installed):
        tv, client = installed.scene.tv, installed.scene.client()
        for number, (user, may_write) in enumerate({"nobody": False, "audio": True, "kavrel": True, "root": True}.items()):
            assert installed.run_as(user, "cat", tv.path / "audio/master_mute") == (0, "0\n")
            assert (echo(installed, user, 30 + number, "audio/master_volume") == 0) == may_write
            assert (echo(installed, user, 1, f"settings/memory/{user}") == 0) == may_write
            assert (echo(installed, user, 1, f"settings/db/{user}") == 0) == may_write
            assert (installed.run_as(user, "mkdir", tv.path / "sound/zones" / str(number))[0] == 0) == may_write
            if may_write:
                client.expect("SpeakerVolumeChanged", 65535, 30 + number)

    def test_what_one_of_them_makes_the_others_may_change(installed):
        """Whatever the umask of who made it: 022 here, where the unit gives kavreld 002."""
        tv, client = installed.scene.tv, installed.scene.client()
        kavrel_tv = installed.copy(os.environ["KAVREL_TV"])
        makers = ["audio", "kavrel", "root"]
        for maker in makers:
            assert installed.run_as(maker, kavrel_tv, "key", f"memory/{maker}/made/key", "1") == (0, "")
            assert installed.run_as(maker, kavrel_tv, "key", f"db/{maker}/made/key", "1") == (0, "")
            for user in makers:
                for folder in ("memory", "db"):
                    assert echo(installed, user, 2, f"settings/{folder}/{maker}/made/key") == 0
                    assert echo(installed, user, 2, f"settings/{folder}/{maker}/made/{user}") == 0
        assert installed.run_as("audio", kavrel_tv, "volume", "40") == (0, "")
        client.expect("SpeakerVolumeChanged", 65535, 40)
        assert client.set_volume(41) == 0
        assert echo(installed, "audio", 42, "audio/master_volume") == 0
        assert tv.read("audio/master_volume") == "42"

    def test_each_folder_and_value_is_open_to_the_group_and_to_no_other(installed):
        for folder, _, files in os.walk(installed.scene.tv.path):
            status = os.stat(folder)
            assert (oct(status.st_mode & 0o7777), status.st_gid) == ("0o2775", grp.getgrnam("audio").gr_gid), folder
            for name in files:
                status = os.stat(f"{folder}/{name}")
                assert (oct(status.st_mode & 0o7777), status.st_gid) == ("0o664", grp.getgrnam("audio").gr_gid), name
        assert "may write" not in installed.scene.daemons[0].log.path.read_text()

    def test_a_reboot_forgets_all_but_the_settings_of_db(installed):
        tv, [daemon] = installed.scene.tv, installed.scene.daemons
        kavrel_tv = installed.copy(os.environ["KAVREL_TV"])
        for key in ("memory/menu/kept", "db/menu/kept"):
            assert installed.run_as("audio", kavrel_tv, "key", key, "1") == (0, "")
        tv.echo(42, "audio/master_volume")
        daemon.kill()
        shutil.rmtree(tv.path)  # /run is in memory
        installed.make_folders()
        installed.scene.start()
        assert (tv.read("audio/master_volume"), tv.read("settings/db/menu/kept")) == ("10", "1")
        assert not tv.has("settings/memory/menu/kept")

    def test_a_restart_keeps_the_values(installed):
        tv, [daemon] = installed.scene.tv, installed.scene.daemons
        assert echo(installed, "audio", 42, "audio/master_volume") == 0
        assert echo(installed, "audio", 1, "settings/memory/menu") == 0
        daemon.kill()
        installed.make_folders()  # as an upgrade does
        installed.scene.start()
        assert (tv.read("audio/master_volume"), tv.read("settings/memory/menu")) == ("42", "1")

    def test_the_unit_removes_the_ready_event_with_the_rights_of_kavrel(installed):
        tv, [daemon] = installed.scene.tv, installed.scene.daemons
        daemon.kill()
        assert tv.has(READY)
        unit = Path(os.environ["KAVREL_BUILD"], "data/kavrel.service").read_text()
        [command] = re.findall("^ExecStopPost=(.*)$", unit, re.MULTILINE)
        command = command.replace("/run/kavrel", str(tv.path)).replace("%%", "%")
        assert installed.run_as("kavrel", *command.split()) == (0, "")
        assert not tv.has(READY)

    def test_kavrel_removes_what_a_killed_writer_of_another_user_left(installed):
        tv, [daemon] = installed.scene.tv, installed.scene.daemons
        writer = Process(*installed.as_user("audio", installed.copy(os.environ["KAVREL_TV"]), "devices"),
                         env=installed.scene.environment(LD_PRELOAD=installed.preload), umask=0o022, stdout=subprocess.PIPE)
        assert writer.child.stdout.readline()  # it has written
        writer.signal(signal.SIGKILL)
        writer.wait()
        writer.child.stdout.close()
        daemon.kill()
        left = set(os.listdir(tv.path / ".tmp"))
        assert any(name.startswith(f"{writer.pid}-") for name in left)
        installed.scene.start()
        assert not left & set(os.listdir(tv.path / ".tmp"))
