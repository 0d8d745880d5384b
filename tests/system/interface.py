# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""The daemon's interface on the bus. Its methods are read from the XML file that the daemon is built from."""
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


def connect(address):
    """Opens a new connection to the bus at this address."""
    flags = Gio.DBusConnectionFlags
    return Gio.DBusConnection.new_for_address_sync(
        address, flags.AUTHENTICATION_CLIENT | flags.MESSAGE_BUS_CONNECTION, None, None)
