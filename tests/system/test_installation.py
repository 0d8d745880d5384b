# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the installed files: the bus policy, activation, the service unit, and the values that a TV loses at boot."""
import configparser
import contextlib
import json
import os
import re
import subprocess
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest

from harness import METHODS_PATH, NAME, PATIENCE, READY, ROOT, SIGNALS_PATH, Bus

PREFIX = "usr"


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    """The root folder of an installation."""
    folder = tmp_path_factory.mktemp("installed")
    subprocess.run(["meson", "install", "-C", os.environ["KAVREL_BUILD"], "--no-rebuild", "--destdir", folder,
                    "--quiet"], check=True, stdin=subprocess.DEVNULL, capture_output=True)
    return folder


def unit_of(path):
    """Returns {section: [(key, value)]}, since keys may repeat."""
    sections, section = {}, None
    for line in path.read_text().splitlines():
        if line.startswith("["):
            section = sections.setdefault(line.strip("[]"), [])
        elif "=" in line and not line.startswith("#"):
            section.append(tuple(line.split("=", 1)))
    return sections


def test_each_file_is_in_its_place(installed):
    for path in ("bin/kavreld", "lib/systemd/system/kavrel.service", "lib/sysusers.d/kavrel.conf",
                 "lib/tmpfiles.d/kavrel.conf",
                 "share/dbus-1/interfaces/org.olvane.kavrel.xml", "share/dbus-1/system.d/org.olvane.kavrel.conf",
                 "share/dbus-1/system-services/org.olvane.kavrel.service"):
        assert (installed / PREFIX / path).is_file(), path


def read_elf(*arguments):
    return subprocess.run(["readelf", "--wide", *arguments], capture_output=True, text=True, check=True).stdout


@pytest.mark.parametrize("program", ["kavreld", "kavrelctl", "kavrel-tv"])
def test_the_programs_are_hardened(installed, program):
    path = installed / PREFIX / "bin" / program
    if os.environ["KAVREL_SANITIZER"] != "none":
        return  # a build with a sanitizer is never installed
    assert re.search(r"Type: +DYN", read_elf("--file-header", path))
    assert re.search(r"Flags:.* NOW PIE", read_elf("--dynamic", path))
    assert "GNU_RELRO" in read_elf("--segments", path)
    assert re.search(r"__stack_chk_fail", read_elf("--dyn-syms", path))
    if os.uname().machine == "x86_64":
        code = subprocess.run(["objdump", "--disassemble", path], capture_output=True, text=True, check=True).stdout
        assert re.search(r"<main>:\n.*endbr64", code)  # the mark of control-flow protection


def test_a_release_build_checks_buffers_and_the_stack(tmp_path):
    subprocess.run(["meson", "setup", tmp_path / "build", ROOT], check=True, capture_output=True,
                   stdin=subprocess.DEVNULL)
    commands = json.loads((tmp_path / "build/compile_commands.json").read_text())
    sources = [command for command in commands
               if (Path(command["directory"]) / command["file"]).resolve().parent == ROOT / "src"]
    assert sources
    for command in sources:
        for flag in ("-D_FORTIFY_SOURCE=2", "-fstack-protector-strong", "-fstack-clash-protection", "-Os"):
            assert flag in command["command"].split(), command["file"]


def test_the_installed_interface_is_the_one_compiled_in(installed, daemon, scene):
    file = (installed / PREFIX / "share/dbus-1/interfaces/org.olvane.kavrel.xml").read_text()
    shown = scene.run("gdbus", "introspect", "--system", "--xml", "-d", NAME, "-o", METHODS_PATH)

    def arguments(xml):
        node = ElementTree.fromstring(xml).find(f"interface[@name='{NAME}']")
        return [(method.get("name"), [tuple(sorted(arg.items())) for arg in method]) for method in node]

    assert arguments(shown) == arguments(file)


def test_the_unit_is_valid(installed):
    unit = installed / PREFIX / "lib/systemd/system/kavrel.service"
    text = unit.read_text().replace("ExecStart=/", f"ExecStart={installed}/")
    copy = installed / "kavrel.service"
    copy.write_text(text)
    done = subprocess.run(["systemd-analyze", "verify", "--man=no", "--recursive-errors=no", copy],
                          capture_output=True, text=True, check=False)
    assert (done.returncode, done.stderr) == (0, "")


def test_the_unit_starts_what_is_installed_after_the_bus_and_always_again(installed):
    unit = unit_of(installed / PREFIX / "lib/systemd/system/kavrel.service")
    service = dict(unit["Service"])
    assert service["ExecStart"] == f"/{PREFIX}/bin/kavreld"
    assert (service["Type"], service["BusName"]) == ("dbus", NAME)
    assert service["Restart"] == "always"
    assert int(service["TimeoutStartSec"]) <= 60
    assert dict(unit["Unit"])["After"] == "dbus.service"


def test_the_unit_bounds_what_kavreld_may_use_and_never_gives_up(installed):
    unit = unit_of(installed / PREFIX / "lib/systemd/system/kavrel.service")
    service = dict(unit["Service"])
    assert (service["MemoryMax"], service["LimitNOFILE"]) == ("256M", "8192")
    assert dict(unit["Unit"])["StartLimitIntervalSec"] == "0"


def test_the_unit_exposes_little(installed):
    unit = installed / PREFIX / "lib/systemd/system/kavrel.service"
    done = subprocess.run(["systemd-analyze", "security", "--offline=yes", "--threshold=15", "--no-pager", unit],
                          capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stdout


def test_the_unit_withdraws_the_ready_event_of_its_tv(installed):
    service = dict(unit_of(installed / PREFIX / "lib/systemd/system/kavrel.service")["Service"])
    tv = re.fullmatch(r"KAVREL_TV_DIR=(\S+)", service["Environment"]).group(1)
    assert service["ExecStopPost"].replace("%%", "%").split()[-1] == f"{tv}/{READY}"
    assert service["ReadWritePaths"] == tv


def test_the_unit_runs_kavreld_as_its_user_and_lets_it_see_its_callers(installed):
    service = dict(unit_of(installed / PREFIX / "lib/systemd/system/kavrel.service")["Service"])
    assert (service["User"], service["Group"], service["UMask"]) == ("kavrel", "audio", "0002")
    assert (service["StateDirectory"], service["StateDirectoryMode"]) == ("kavrel", "2775")
    assert not service.keys() & {"RuntimeDirectory", "ProtectProc", "ProcSubset", "PrivateUsers"}


def test_activation_goes_through_the_unit(installed):
    parser = configparser.ConfigParser()
    parser.optionxform = str
    parser.read(installed / PREFIX / "share/dbus-1/system-services/org.olvane.kavrel.service")
    assert dict(parser["D-BUS Service"]) == {"Name": NAME, "Exec": "/bin/false", "User": "kavrel",
                                             "SystemdService": "kavrel.service"}


@pytest.fixture
def system(tmp_path):
    """The root folder of a system with kavrel's user, made from the installed sysusers file; returns the folder."""
    (tmp_path / "etc").mkdir()
    (tmp_path / "etc/group").write_text("audio:x:29:\n")
    subprocess.run(["systemd-sysusers", f"--root={tmp_path}", ROOT / "data/kavrel.sysusers"], check=True,
                   capture_output=True)
    return tmp_path


def test_kavrel_is_a_system_user_of_the_group_audio_without_a_shell(system):
    name, _, uid, gid, _, _, shell = (system / "etc/passwd").read_text().strip().split(":")
    assert (name, gid, shell) == ("kavrel", "29", "/usr/sbin/nologin")
    assert 0 < int(uid) < 1000


def make_files_as_at_boot(system, *options):
    subprocess.run(["systemd-tmpfiles", *options, f"--root={system}", ROOT / "data/kavrel.tmpfiles"], check=True)


def test_a_boot_forgets_the_settings_memory_and_nothing_else(system):
    for key in ("memory/sysman/spdif", "db/usbsound/volume_level"):
        file = system / "run/kavrel/settings" / key
        file.parent.mkdir(parents=True)
        file.write_text("1\n")
    make_files_as_at_boot(system, "--remove")
    assert (system / "run/kavrel/settings/memory").exists()  # an upgrade keeps the settings
    make_files_as_at_boot(system, "--remove", "--boot")
    assert not (system / "run/kavrel/settings/memory").exists()
    assert (system / "run/kavrel/settings/db/usbsound/volume_level").exists()


if os.geteuid() == 0:
    def test_the_folders_belong_to_kavrel_and_the_group_audio(system):
        make_files_as_at_boot(system, "--create")
        uid = int((system / "etc/passwd").read_text().split(":")[2])
        for folder in ("run/kavrel", "run/kavrel/settings", "var/lib/kavrel"):
            status = (system / folder).stat()
            assert (status.st_uid, status.st_gid, oct(status.st_mode & 0o7777)) == (uid, 29, "0o2775"), folder
        assert os.readlink(system / "run/kavrel/settings/db") == "/var/lib/kavrel"


# --- the policy ---------------------------------------------------------------------------------------------------

STRICT_BUS = """
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
  {include}
</busconfig>
"""


@pytest.fixture
def strict(scene):
    """A scene whose bus has the policy of an installed system bus, with that of kavrel."""
    scene.bus.end()
    (scene.folder / "bus").unlink(missing_ok=True)
    config = scene.folder / "strict.conf"
    config.write_text(STRICT_BUS.format(include=f"<include>{ROOT / 'data/org.olvane.kavrel.conf'}</include>"))
    scene.folder.chmod(0o755)
    scene.bus = Bus(scene.folder, config)
    scene.callback(scene.bus.end)
    return scene


# A program's text, because nobody may be unable to read the checkout.
HOSTILE_SENDER = '''
import os, sys
from gi.repository import Gio, GLib

NAME, METHODS, SIGNALS = "org.olvane.kavrel", "/Org/Olvane/KavrelInternal", "/Org/Olvane/Kavrel"
bus = Gio.bus_get_sync(Gio.BusType.SYSTEM, None)
kind, interface = sys.argv[1], (sys.argv[2:] or [NAME])[0]


def with_descriptors(message, count):
    files = Gio.UnixFDList.new()
    for _ in range(count):
        files.append(0)
    message.set_unix_fd_list(files)
    return message


def call():
    return Gio.DBusMessage.new_method_call(NAME, METHODS, NAME, "GetSpeakerVolume")


def signal(path, interface, name, body, destination=None):
    message = Gio.DBusMessage.new_signal(path, interface, name)
    message.set_body(body)
    if destination:
        message.set_destination(destination)
    return message


errors = []
# The bus answers a refused message with an error, also one that asks for no reply; a ping of the bus comes after it.
bus.add_filter(lambda _bus, message, incoming: message if not incoming or message.get_message_type() !=
               Gio.DBusMessageType.ERROR else errors.append(message.get_error_name()))
number = GLib.Variant("(i)", (1,))
messages = {
    "call-with-descriptor": lambda: [with_descriptors(call(), 1)],
    "signal-with-descriptor": lambda: [with_descriptors(signal(SIGNALS, NAME, "BudsConnected", number), 1)],
    "signal-to-kavrel": lambda: [signal(SIGNALS, interface, "BudsConnected", number, NAME)],
    "popup": lambda: [signal("/Org/Olvane/KVPopupNoti", "org.olvane.kv_popupnoti", "PopupNoti",
                             GLib.Variant("(s)", (interface,)))],
    "many-descriptors": lambda: [with_descriptors(call(), 16) for _ in range(64)],
}[kind]()
for message in messages:
    bus.send_message(message, Gio.DBusSendMessageFlags.NONE)
bus.call_sync("org.freedesktop.DBus", "/", "org.freedesktop.DBus.Peer", "Ping", None, None, 0, -1, None)
print(errors[0] if errors else "no error")
'''


def run_as(user, scene, *command):
    """Runs a command as a user (without root rights: as the present one); returns its status and standard error."""
    as_user = {
        "root": [],
        "nobody": ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"],
        "audio": ["setpriv", "--reuid=65534", "--regid=audio", "--groups=audio"],
    }[user] if os.geteuid() == 0 else []
    done = subprocess.run([*as_user, *command], env=scene.environment(LD_PRELOAD=""), capture_output=True, text=True,
                          timeout=PATIENCE, check=False, stdin=subprocess.DEVNULL)
    return done.returncode, done.stderr


def call_as(user, scene, method, *arguments):
    return run_as(user, scene, "gdbus", "call", "--system", "-d", NAME, "-o", METHODS_PATH, "-m", f"{NAME}.{method}",
                  *arguments)


def send_as(user, scene, *arguments):
    """Sends what hostile_sender.py knows by this name; returns its status and what the bus answered."""
    as_user = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if user == "nobody" else [
        "setpriv", "--reuid=65534", "--regid=audio", "--groups=audio"] if user == "audio" else []
    done = subprocess.run([*as_user, "/usr/bin/python3", "-B", "-c", HOSTILE_SENDER, *arguments],
                          env=scene.environment(LD_PRELOAD=""), capture_output=True, text=True, timeout=PATIENCE,
                          check=False, stdin=subprocess.DEVNULL)
    return done.returncode, done.stdout.strip() or done.stderr


def count_open_files(process):
    """Counts the kinds of files that a message may bring, and none that the process opens for an instant."""
    names = []
    for link in Path(f"/proc/{process.pid}/fd").iterdir():
        with contextlib.suppress(FileNotFoundError):
            names.append(os.readlink(link))
    return len([name for name in names if name.startswith(("socket:", "pipe:", "/dev/null"))])


def test_a_user_without_rights_may_not_be_kavrel(strict):
    status, errors = run_as("nobody", strict, "busctl", "--system", "call", "org.freedesktop.DBus", "/",
                            "org.freedesktop.DBus", "RequestName", "su", NAME, "0")
    assert status != 0
    assert "Access denied" in errors


GETTERS = ["GetSpeakerSupportType", "GetSpeakerVolume", "GetSpeakerMute"]
CHANGES = [("SetSpeakerVolume", "30"), ("SetSpeakerMute", "true"), ("ApplyPlayerFadeIn", "1"),
           ("ApplyUnmuteFadeIn", "1"), ("ResetPlayerGain", "1"), ("ApplyGainOnMute", "1", "100")]

if os.geteuid() == 0:
    def test_everyone_may_ask(strict):
        strict.start()
        for user in ("nobody", "audio", "root"):
            for method in GETTERS:
                assert call_as(user, strict, method) == (0, "")
            assert run_as(user, strict, "gdbus", "introspect", "--system", "-d", NAME, "-o", METHODS_PATH) == (0, "")

    def test_only_root_and_the_group_audio_may_change_the_sound(strict):
        strict.start()
        for change in CHANGES:
            status, errors = call_as("nobody", strict, *change)
            assert status != 0 and "AccessDenied" in errors
            assert call_as("audio", strict, *change) == (0, "")
            assert call_as("root", strict, *change) == (0, "")

    def test_only_root_and_the_group_audio_may_send_the_signals(strict):
        log = strict.start().log
        for reason, user in enumerate(("nobody", "audio", "nobody", "root")):
            run_as(user, strict, "gdbus", "emit", "--system", "-o", SIGNALS_PATH, "-s", f"{NAME}.BudsConnected",
                   str(reason))
        log.wait("Buds Connected. reason:3")
        assert [text for text in log.texts() if text.startswith("Buds Connected")] == [
            "Buds Connected. reason:1", "Buds Connected. reason:3"]

    @pytest.mark.parametrize("user", ["nobody", "audio", "root"])
    def test_no_message_with_a_descriptor_gets_through(strict, user):
        log = strict.start().log
        status, output = send_as(user, strict, "call-with-descriptor")
        assert (status, output) == (0, "org.freedesktop.DBus.Error.AccessDenied")
        send_as(user, strict, "signal-with-descriptor")
        call_as("root", strict, "GetSpeakerVolume")
        assert not [text for text in log.texts() if "BudsConnected" in text]

    def test_nobody_may_send_a_signal_to_kavrel_alone(strict):
        strict.start()
        for interface in (NAME, "org.olvane.other"):
            assert send_as("nobody", strict, "signal-to-kavrel", interface) == (
                0, "org.freedesktop.DBus.Error.AccessDenied")

    def test_only_the_user_of_kavrel_sends_the_popup(strict):
        listener = strict.client()
        listener.listen_to("org.olvane.kv_popupnoti")
        for user, text in (("nobody", "not allowed"), ("audio", "not allowed either"), ("root", "allowed")):
            assert send_as(user, strict, "popup", text) == (0, "no error")  # the bus drops a broadcast in silence
        assert listener.take() == ("PopupNoti", "allowed")  # the first one

    def test_a_stranger_cannot_use_up_the_descriptors_of_kavrel(strict):
        """Without the policy the filter does it: see the tests of the filter."""
        daemon = strict.start()
        before = count_open_files(daemon)
        for _attempt in range(4):
            send_as("nobody", strict, "many-descriptors")
        assert call_as("nobody", strict, "GetSpeakerVolume") == (0, "")
        assert count_open_files(daemon) == before

    def test_everyone_receives_change_signals(strict):
        strict.start()
        nobody = subprocess.Popen(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "gdbus", "monitor",
                                   "--system", "-d", NAME], stdout=subprocess.PIPE, text=True,
                                  env=strict.environment(LD_PRELOAD=""), stdin=subprocess.DEVNULL)
        try:
            while "is owned by" not in nobody.stdout.readline():
                pass
            call_as("root", strict, "SetSpeakerVolume", "30")
            assert nobody.stdout.readline() == f"{METHODS_PATH}: {NAME}.SpeakerVolumeChanged (65535, 30)\n"
        finally:
            nobody.kill()
            nobody.communicate()
