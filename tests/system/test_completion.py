# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the completion of the tools in bash."""
import os
import re
import subprocess
from pathlib import Path

import pytest

from harness import ROOT

TOOLS = {"kavrelctl": Path(os.environ["KAVRELCTL"]), "kavrel-tv": Path(os.environ["KAVREL_TV"])}


def help_of(*command):
    tool, *arguments = command
    return subprocess.run([TOOLS[tool], *arguments, "--help"], capture_output=True, text=True, timeout=60, check=True).stdout


def commands_of(*command):
    """The commands that a help page lists."""
    return re.findall(r"^  ([a-z-]+) ", help_of(*command).partition("\nCommands:")[2].partition("\nExample")[0], re.MULTILINE)


@pytest.fixture
def complete(tmp_path):
    """Completes the last word of a command line, which may be empty."""
    for zone in ("1", "7", ".8.new"):
        (tmp_path / "sound/zones" / zone).mkdir(parents=True)
    for name in ("settings/memory/multiscreen/info", "features/com.norvik/featureconf/multiview.support", "sound/zones/1/route",
                 "some.csv"):
        (tmp_path / name).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / name).write_text("1")

    def run(*words, **changes):
        script = """
            source "$1"; shift
            COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMPREPLY=(); known=''; known=$(compgen -v)
            "$(complete -p "$1" | sed 's/.*-F \\([^ ]*\\) .*/\\1/')"
            [ "$(compgen -v)" = "$known" ] || echo "it leaves variables" >&2
            ((${#COMPREPLY[@]} == 0)) || printf '%s\n' "${COMPREPLY[@]}" """
        path = ":".join([*(str(tool.parent) for tool in TOOLS.values()), os.environ["PATH"]])
        done = subprocess.run(["bash", "--norc", "-uc", script, "bash", ROOT / "tools/common/completion.bash", *words],
                              env={**os.environ, "PATH": path, "KAVREL_TV_DIR": str(tmp_path), **changes}, cwd=tmp_path,
                              capture_output=True, text=True, timeout=60, check=True)
        assert done.stderr == ""
        return done.stdout.splitlines()

    return run


@pytest.mark.parametrize("line, offered", [
    ("kavrelctl sta", "status"), ("kavrelctl s", "status support speaker-gone"), ("kavrelctl x", ""),
    ("kavrelctl mute ", "on off toggle"), ("kavrelctl mute on ", ""), ("kavrelctl volume ", ""),
    ("kavrelctl fade p", "player"), ("kavrelctl fade player ", "main sub both"), ("kavrelctl fade unmute b", "both"),
    ("kavrelctl gain ", "reset on-mute"), ("kavrelctl gain reset m", "main"), ("kavrelctl gain on-mute ", ""),
    ("kavrelctl gain on-mute 40 ", "main sub both"), ("kavrelctl buds d", "disconnected"),
    ("kavrelctl buds connected -1 ", ""), ("kavrelctl speaker-gone -- ", ""),
    ("kavrelctl --timeout ", ""), ("kavrelctl --timeout 5 mon", "monitor"), ("kavrelctl status --timeout -", ""),
    ("kavrelctl status --timeout =", ""), ("kavrelctl --timeout = 5 mon", "monitor"), ("kavrelctl --timeout = 5", ""),
    ("kavrelctl --( sta", "status"), ("kavrelctl [ sta", "status"),
    ("kavrelctl help un", "unmute"), ("kavrelctl help gain ", "reset on-mute"), ("kavrelctl help mute ", ""),
    ("kavrelctl help help ", ""),
    ("kavrelctl help --h", "--help"), ("kavrel-tv help ro", "route"),
    ("kavrelctl status --j", "--json"), ("kavrelctl monitor --json --c", "--calls"),
    ("kavrel-tv ro", "route"), ("kavrel-tv --dir /tmp pro", "projector"), ("kavrel-tv --d", "--dir"),
    ("kavrel-tv --dir = /tmp pro", "projector"), ("kavrel-tv --dir so", "sound"), ("kavrel-tv --dir /nowhere focus ", ""),
    ("kavrel-tv --dir =", "features settings sound"), ("kavrel-tv --dir =s", "settings sound"),
    ("kavrel-tv --dir = . focus ", "1 7"),
    ("kavrel-tv route h", "hdmi hdmi-2"), ("kavrel-tv zone-route ", "1 7"), ("kavrel-tv zone-route 1 us", "usb"),
    ("kavrel-tv focus ", "1 7"), ("kavrel-tv sub-bt ", "1 7 none"), ("kavrel-tv sub-bt -1 ", ""), ("kavrel-tv zones ", "none"),
    ("kavrel-tv cable ", "in out"), ("kavrel-tv projector ", "not-ready ready"), ("kavrel-tv mute ", "off on"),
    ("kavrel-tv feature com.norvik/featureconf/m", "com.norvik/featureconf/multiview.support"),
    ("kavrel-tv feature p", "projector"), ("kavrel-tv feature i", "internal-speaker"), ("kavrel-tv feature m", "multiview"),
    ("kavrel-tv feature multiview ", "off on"),
    ("kavrel-tv key memory/", "memory/multiscreen/info"), ("kavrel-tv key memory/multiscreen/info ", ""),
    ("kavrel-tv show --", "--help --json"), ("kavrel-tv emulator ", "bt tv"), ("kavrel-tv volume ", ""),
    ("kavrel-tv devices --d", "--deaf --delay --double"), ("kavrel-tv devices --seed 5 --d", "--deaf --delay --double"),
    ("kavrel-tv devices --seed ", ""), ("kavrel-tv play fea", "features"), ("kavrel-tv plot so", "some.csv sound"),
    ("kavrel-tv plot a.csv s", "settings some.csv sound"),
    ("kavrel-tv plot --format ", "png svg"),
])
def test_completion(complete, line, offered):
    assert sorted(complete(*line.split(" "))) == sorted(offered.split())


def test_completion_without_a_tv_or_a_tool_offers_nothing(complete):
    assert complete("kavrel-tv", "focus", "", KAVREL_TV_DIR="/nowhere") == []
    assert complete("kavrelctl", "sta", PATH="/usr/bin:/bin") == [] or Path("/usr/bin/kavrelctl").exists()


def test_completion_is_that_of_all_tools():
    done = subprocess.run(["bash", "--norc", "-c", 'source "$1"; complete -p kavrelctl kavrel-tv kavrel-sound', "bash",
                           ROOT / "tools/common/completion.bash"], capture_output=True, text=True, timeout=60, check=True)
    assert {line.split()[-1] for line in done.stdout.splitlines()} == {"kavrelctl", "kavrel-tv", "kavrel-sound"}


@pytest.mark.parametrize("tool", TOOLS)
def test_completion_offers_every_command(complete, tool):
    assert len(commands_of(tool)) > 10
    assert complete(tool, "") == commands_of(tool)


@pytest.mark.parametrize("command", [[tool, *command] for tool in TOOLS for command in [[], *([name] for name in commands_of(tool))]],
                         ids=" ".join)
def test_completion_offers_every_option(complete, command):
    options = re.findall(r"^  (?:-h,)?(--[a-z-]+)", help_of(*command), re.MULTILINE)
    assert "--help" in options
    assert complete(*command, "-") == options
