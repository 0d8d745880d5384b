# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""An installation in a folder, and the user and the folders that it makes."""
import grp
import os
import subprocess

from interface import ROOT


def install(root):
    """Installs the build below the root folder."""
    subprocess.run(["meson", "install", "-C", os.environ["KAVREL_BUILD"], "--no-rebuild", "--destdir", root, "--quiet"],
                   check=True, stdin=subprocess.DEVNULL, capture_output=True)


def pkg_config_path(root):
    """Returns a folder with kavrel.pc as if the root folder were the machine's."""
    folder = root / "pkg-config"
    folder.mkdir(exist_ok=True)
    text = (root / "usr/share/pkgconfig/kavrel.pc").read_text()
    (folder / "kavrel.pc").write_text(text.replace("prefix=/usr\n", f"prefix={root}/usr\n"))
    return folder


def make_users(root):
    """Makes the user kavrel in the etc/passwd of the root folder; returns its user id. Its group is the machine's audio."""
    (root / "etc").mkdir(parents=True)
    (root / "etc/group").write_text(f"audio:x:{grp.getgrnam('audio').gr_gid}:\n")
    subprocess.run(["systemd-sysusers", f"--root={root}", ROOT / "data/kavrel.sysusers"], check=True,
                   capture_output=True)
    return int((root / "etc/passwd").read_text().split(":")[2])


def run_tmpfiles(root, *options):
    subprocess.run(["systemd-tmpfiles", *options, f"--root={root}", ROOT / "data/kavrel.tmpfiles"], check=True)
