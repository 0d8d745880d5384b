# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the installed files for authors of clients, against the daemon: interface description, C header, pkg-config."""
import re
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest
from gi.repository import Gio, GLib

from harness import METHODS_PATH, NAME, PATIENCE, ROOT, SIGNALS_PATH, handler_of
from installation import install, pkg_config_path
from interface import XML_FILE, Signal, connect, signals_in

INTERFACES = "usr/share/dbus-1/interfaces"
HEADER = "usr/include/kavrel/kavrel.h"


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    """The root folder of an installation."""
    folder = tmp_path_factory.mktemp("installed")
    install(folder)
    return folder


@pytest.fixture(scope="module")
def description(installed):
    """The text of the installed interface description."""
    return (installed / INTERFACES / f"{NAME}.xml").read_text()


# --- the interface description ---------------------------------------------------------------------------------------


def methods_in(xml):
    """Each method and its arguments, with all that the XML says of them, in order."""
    interface = ElementTree.fromstring(xml).find(f"interface[@name='{NAME}']")
    return [(method.attrib, [argument.attrib for argument in method]) for method in interface.iter("method")]


def test_the_methods_are_those_that_the_daemon_shows(description, daemon, scene):
    shown = scene.run("gdbus", "introspect", "--system", "--xml", "-d", NAME, "-o", METHODS_PATH)
    methods = methods_in(description)
    assert len(methods) == 9
    assert methods == methods_in(XML_FILE.read_text())
    assert methods == methods_in(shown)


def test_the_comment_of_each_member_describes_each_argument(description):
    comments = ElementTree.TreeBuilder(insert_comments=True)
    interface = ElementTree.fromstring(description, ElementTree.XMLParser(target=comments)).find("interface")
    members = [(comment, member) for comment, member in zip(interface, list(interface)[1:])
               if member.tag in ("method", "signal")]
    assert len(members) == 16
    for comment, member in members:
        assert comment.text.split()[0] == f"{member.get('name')}:"
        assert re.findall(r"@(\w+): \w", comment.text) == [argument.get("name") for argument in member]


def test_the_daemon_sends_the_described_signals(description, daemon, client):
    client.set_volume(30)
    client.set_mute(True)
    client.emit("BudsDisconnected", "i", 1)
    client.take(), client.take(), client.take()
    sent = [Signal(path, name[0], signature)
            for name, (path, _interface, signature) in zip(client.heard, client.heard_from) if name[0] != "reply"]
    assert sent[:3] == signals_in(description, "daemon")


def refuses(client, log, member, signature):
    """Sends a signal with a body of this type; returns whether the daemon's handler of the signal logs an error."""
    before = log.end()
    client.emit(member, signature, *({"i": 1, "s": "box"}[kind] for kind in signature))
    client.get_support()  # its answer comes after the signal was handled
    assert (client.name, member) in log.requests(before)
    return handler_of(member) in [line.function for line in log.lines(before) if line.priority == "E"]


def test_the_daemon_listens_to_the_described_signals(description, daemon, client, log):
    signals = signals_in(description, "client")
    assert log.find(f"Add {len(signals)} signal events")
    assert {signal.path for signal in signals} == {SIGNALS_PATH}
    for signal in signals:
        assert not refuses(client, log, signal.name, signal.signature)
        assert refuses(client, log, signal.name, f"{signal.signature}i")


def test_a_dynamic_proxy_calls_and_hears_the_daemon(description, scene, daemon):
    info = Gio.DBusNodeInfo.new_for_xml(description).lookup_interface(NAME)
    heard = []
    bus = connect(scene.bus.address)
    proxies = [Gio.DBusProxy.new_sync(bus, Gio.DBusProxyFlags.NONE, info, NAME, path, NAME, None)
               for path in (METHODS_PATH, SIGNALS_PATH)]
    for proxy in proxies:
        proxy.connect("g-signal", lambda _proxy, _sender, name, body: heard.append((name, body.unpack())))
    assert proxies[0].call_sync("SetSpeakerVolume", GLib.Variant("(i)", (30,)), 0, -1, None).unpack() == (0,)
    daemon.settle()
    bus.emit_signal(NAME, SIGNALS_PATH, NAME, "BudsDisconnected", GLib.Variant("(i)", (1,)))
    deadline = GLib.timeout_add_seconds(int(PATIENCE), lambda: heard.extend(["too late"] * 2))
    while len(heard) < 2:
        GLib.MainContext.default().iteration(True)
    GLib.source_remove(deadline)
    bus.close_sync(None)
    assert heard == [("SpeakerVolumeChanged", (0xFFFF, 30)), ("SpeakerChangeRequest", (0, 1))]


# --- the C header ----------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("compiler, language, standard", [
    ("gcc", "c", "c11"), ("g++", "c++", "c++98"), ("g++", "c++", "c++20")])
def test_the_header_is_c_and_cpp_without_warnings(installed, tmp_path, compiler, language, standard):
    source = tmp_path / "source"
    source.write_text('#include <kavrel/kavrel.h>\nint main(void) { return KAVREL_DONE; }\n')
    subprocess.run([compiler, "-x", language, f"-std={standard}", "-Wall", "-Wextra", "-Wpedantic", "-Werror",
                    "-fsyntax-only", f"-I{installed}/usr/include", source], check=True)


def test_the_header_names_each_object_method_and_signal(installed, description):
    defined = dict(re.findall(r'#define (KAVREL_\w+) "(.*?)"', (installed / HEADER).read_text()))
    assert (defined.pop("KAVREL_BUS_NAME"), defined.pop("KAVREL_INTERFACE")) == (NAME, NAME)
    assert (defined.pop("KAVREL_OBJECT_PATH"), defined.pop("KAVREL_PUBLIC_PATH")) == (METHODS_PATH, SIGNALS_PATH)
    assert list(defined.values()) == re.findall(r'<(?:method|signal) name="(\w+)"', description)
    assert all(key == "KAVREL" + re.sub("([A-Z])", r"_\1", name).upper() for key, name in defined.items())


# --- pkg-config ------------------------------------------------------------------------------------------------------


def ask_pkg_config(installed, *options):
    return subprocess.run(["pkg-config", *options, "kavrel"], capture_output=True, text=True, check=True,
                          env={"PKG_CONFIG_PATH": str(pkg_config_path(installed))}).stdout.strip()


def test_pkg_config_finds_the_header_and_the_interface_description(installed):
    assert ask_pkg_config(installed, "--modversion") == (ROOT / "VERSION").read_text().strip()
    assert ask_pkg_config(installed, "--cflags") == f"-I{installed}/usr/include"
    assert ask_pkg_config(installed, "--variable=interfaces_dir") == f"{installed}/{INTERFACES}"
    assert ask_pkg_config(installed, "--libs") == ""
