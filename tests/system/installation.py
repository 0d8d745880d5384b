# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""The user and the folders that an installation makes."""
import grp
import subprocess

from interface import ROOT


def make_users(root):
    """Makes the user kavrel in the etc/passwd of the root folder; returns its user id. Its group is the machine's audio."""
    (root / "etc").mkdir(parents=True)
    (root / "etc/group").write_text(f"audio:x:{grp.getgrnam('audio').gr_gid}:\n")
    subprocess.run(["systemd-sysusers", f"--root={root}", ROOT / "data/kavrel.sysusers"], check=True,
                   capture_output=True)
    return int((root / "etc/passwd").read_text().split(":")[2])


def run_tmpfiles(root, *options):
    subprocess.run(["systemd-tmpfiles", *options, f"--root={root}", ROOT / "data/kavrel.tmpfiles"], check=True)
