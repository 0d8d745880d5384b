# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""The daemon's interface on the bus. Its methods are read from the XML file that the daemon is built from."""
import re
import xml.etree.ElementTree as ElementTree
from pathlib import Path
from typing import NamedTuple

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio  # noqa: E402

ROOT = Path(__file__).resolve().parents[2]
NAME = "org.olvane.kavrel"  # the name of the service and of its interface
METHODS_PATH = "/Org/Olvane/KavrelInternal"
SIGNALS_PATH = "/Org/Olvane/Kavrel"
XML_FILE = ROOT / "data/org.olvane.kavrel.xml"


class Method(NamedTuple):
    name: str
    arguments: dict  # {name: type}
    reply: str  # its signature, "(ii)"

    @property
    def signature(self):
        """The types of the arguments, without parentheses: "ii"."""
        return "".join(self.arguments.values())


def read_methods():
    interface = Gio.DBusNodeInfo.new_for_xml(XML_FILE.read_text()).lookup_interface(NAME)
    return [Method(method.name, {argument.name: argument.signature for argument in method.in_args},
                   f"({''.join(argument.signature for argument in method.out_args)})")
            for method in interface.methods]


class Signal(NamedTuple):
    path: str
    name: str
    signature: str


def signals_in(xml, sender):
    """The signals of the daemon, or of a client: the comment above each says who sends it, and on which object."""
    comments = ElementTree.TreeBuilder(insert_comments=True)
    interface = ElementTree.fromstring(xml, ElementTree.XMLParser(target=comments)).find("interface")
    found = []
    for comment, member in zip(interface, list(interface)[1:]):
        if member.tag == "signal":
            said, path = re.search(r"(daemon|client) sends this on (/\w+(?:/\w+)*)", comment.text).groups()
            if said == sender:
                types = "".join(argument.get("type") for argument in member)
                found.append(Signal(path, member.get("name"), types))
    return found


def connect(address):
    """Opens a new connection to the bus at this address."""
    flags = Gio.DBusConnectionFlags
    return Gio.DBusConnection.new_for_address_sync(
        address, flags.AUTHENTICATION_CLIENT | flags.MESSAGE_BUS_CONNECTION, None, None)
