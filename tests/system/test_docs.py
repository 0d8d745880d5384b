# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Runs the commands in README.md and docs/*.md that a scene can run, and lists the others, each with its reason."""
import os
import re
import select
import signal
import subprocess
import tempfile
import time
from pathlib import Path

import pytest

from harness import PATIENCE, ROOT, TextReader

DOCUMENTS = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]
PROGRAMS = set("""adduser apt apt-get busctl cat cp dbus-daemon dbus-send debuild dpkg dpkg-buildpackage echo export gdbus git id journalctl
    kavrel-tv kavrelctl kavreld less lintian man meson newgrp ninja sudo systemctl systemd-analyze systemd-sysusers
    systemd-tmpfiles usermod""".split())

# The first words of each indented block that is no list of commands.
OTHER_BLOCKS = {
    "clients ── D-Bus": "a drawing",
    "programs -> sink": "a drawing",
    "21:04:11.124": "an output",
    "settings/<key>": "a list of files",
    "Failed to get key": "log lines",
    "<busconfig>": "a configuration file",
    "import time": "a program that test_examples.py runs",
    "#include <kavrel/kavrel.h>": "a program that test_examples.py builds and runs",
    "gdbus-codegen": "commands that test_examples.py runs",
    "kavrel() {": "a program that test_examples.py runs",
    "== src/": "a table of mutants",
    "speaker changed cb set failed.": "log lines",
    "AudioHal.AVolume": "an output",
    "#include <audio_hal.h>": "a source that test_platforms.py builds and runs",
}


def blocks_and_text(document):
    """The indented blocks of a document, each a list of lines, and the text around them. A block goes on after an empty
    line if the next line is indented, too."""
    blocks, text, inside = [], [], False
    for line in document.read_text().splitlines():
        if not line.startswith("    "):
            text.append(line)
            inside = inside and not line
            continue
        if not inside:
            blocks.append([])
        blocks[-1].append(line.strip())
        inside = True
    return blocks, "\n".join(text)


def is_command(text):
    first = text.split()[0]
    return first in PROGRAMS or first.startswith(("./", "build/"))


def commands_of(document):
    blocks, text = blocks_and_text(document)
    assert "```" not in text, "the test finds only indented blocks"
    for block in blocks:
        if not any(block[0].startswith(other) for other in OTHER_BLOCKS):
            for line in block:
                command = re.split(r"\s{2,}|\s#", line)[0]
                assert is_command(command), f"{document.name}: neither a known program nor another block: {line}"
                yield command
    for span in re.findall("`([^`]+)`", text):
        words = " ".join(span.split())
        if " " in words and is_command(words):  # the name of a program alone is no command
            yield words


COMMANDS = dict.fromkeys(command for document in DOCUMENTS for command in commands_of(document))

TV = r"TV in /dev/shm/\S+, kavreld ready\n├─ output +2 hdmi, HDMI receiver\n(.*\n)+   └─ \S+ +off\n"
STATE = r"[\d:.]+  volume   \d+\n[\d:.]+  mute     off\n[\d:.]+  support  read volume, set volume, .*\n"
STATUS = (r"volume   10\nmute     off\nsupport  read volume, set volume, read mute, set mute \(0xffff\)\n"
          r"output   tv, TV speaker \(route 0\)\n")

# The commands that the scene of one ./run, or a scene of their own, can run: each with a pattern of its whole output.
RUN = {
    "./run kavrelctl status": STATUS,
    "./run kavrel-tv play scenarios/hdmi.txt": r"(  ok  .*\n){12}",
    "./run --join kavrelctl volume 30": "",
    "./run --join kavrel-tv route hdmi": "",
    "./run --join kavrel-tv show": TV,
    "kavrel-tv --help": r"Play the rest of the TV.*\n(.*\n)+",
    "kavrelctl --help": r"Read, set and watch the TV's volume, mute and gains\.\n(.*\n)+",
    "kavrel-tv route --help": r"Switch the output of the single view\n(.*\n)+ +2  hdmi +HDMI receiver\n(.*\n)+",
    "kavrelctl report > report.txt": "",
    "busctl call org.freedesktop.DBus / org.freedesktop.DBus ListQueuedOwners s org.olvane.kavrel": r'as 1 ":1\.\d+"\n',
    "busctl --system emit /Org/Olvane/Kavrel org.olvane.kavrel ApplyPulseAudioGain ii 100 500": "",
    "kavreld --version": r"kavreld \d+\.\d+\.\d+\n",
}

# Those that Ctrl-C ends: each with a pattern of their first lines.
RUN_UNTIL_CTRL_C = {
    "./run": r"(E .*\n)+These errors are normal: .*\n\nkavreld (.*\n)+.* opens a shell .*\n\n",
    "./run --join kavrelctl monitor": STATE,
    "kavrelctl monitor --calls": STATE,
    "kavrel-tv devices": r"([\d:.]+ \S+: begins with level .*\n){6}the devices .* play until Ctrl-C\n",
    "kavrel-tv emulator bt": r"[\d:.]+ com\.norvik\.tv\.bt\.connectionmanager is here, volume \d+\n",
    "kavrel-tv record FILE.csv": r"kavrel-tv: recording until Ctrl-C\n",
}

WRITES = {
    "kavrelctl report > report.txt": ("report.txt", r"Report of kavrelctl, .*\n(.*\n)+  output +hdmi, HDMI receiver \(route 2\)\n(.*\n)+"),
    "kavrel-tv record FILE.csv": ("FILE.csv", r"seconds,main_gain,sub_gain,volume,.*\n0\.0+,100,100,30,0,hdmi,.*,start\n(.*\n)+"),
}

INSTALLED = "it needs root, and systemd as the first process; ./test packages installs and uses the packages"
SOUND = "it needs a sound server and libpulse; ./test sound runs kavrel-sound and ./run sound"
PATTERN = "a word in capital letters or brackets has to be replaced"
NOT_RUN = {
    **{command: SOUND for command in (
        "./run sound", "./run --join kavrel-sound tone", "./run --join kavrelctl mute on", "./run --join kavrelctl mute off",
        "./run --join kavrel-sound status", "./run sound --headless kavrel-tv tour", "./test sound")},
    "./run kavrel-tv tour": "it takes a minute; test_kavrel_tv_play.py plays the tour without pauses",
    "kavrel-tv tour": "it takes a minute; test_kavrel_tv_play.py plays the tour without pauses",
    "./run COMMAND": PATTERN,
    "./run --join COMMAND": PATTERN,
    "kavrel-tv key KEY VALUE": PATTERN,
    "kavrel-tv play FILE": PATTERN,
    "./test N": PATTERN,
    "./test tsan N": PATTERN,
    "./test fuzz [SECONDS]": PATTERN,
    "./test soak [SECONDS]": PATTERN,
    "./test flakes [N]": PATTERN,
    "./test mutants [NAME]": PATTERN,
    "./bench [quick]": PATTERN,
    "./lint [STEP...]": PATTERN,
    "kavrel-tv emulator": "the name of a command, without its argument",
    "kavrel-tv play": "the name of a command, without its argument",
    "./run kavrel-tv plot": "the name of a command, without its arguments; test_kavrel_tv_play.py draws plots",
    "kavrelctl wait --timeout 30 && kavrelctl monitor --json | jq --unbuffered 'select(.event == \"volume\").volume'":
        "the project does not install jq; test_kavrelctl.py runs both commands before it",
    **{command: "it would run this test" for command in ("./test", "./test asan", "./test tsan", "./test shake")},
    "./test --suite unit": "it builds and runs tests that ./test runs",
    "./test --list": "it sets a build directory up",
    "./test packages": "it takes minutes and needs root",
    "./test coverage": "it builds and runs tests that ./test runs",
    "./test fuzz": "it searches for minutes; ./test feeds the corpora to the same targets",
    "./test fuzz --planted": "it searches for minutes",
    **{f"./test mutants{more}": "it builds the tree once more and takes minutes" for more in ("", " KVUtils.cpp", " --note")},
    **{f"./bench{row}": "it takes a minute or more; test_bench.py runs the benchmark with few calls"
       for row in ("", " quick", " get set", " micro", " flood", " timeline")},
    **{command: INSTALLED for command in (
        "systemd-sysusers kavrel.conf", "systemd-tmpfiles --create kavrel.conf", "systemctl reload dbus",
        "systemctl daemon-reload", "systemctl enable --now kavrel", "systemctl restart kavrel", "sudo adduser alice audio",
        "id -nG alice", "newgrp audio",
        "meson setup --buildtype=release build/release; meson install -C build/release", "sudo systemctl mask --now kavrel",
        "systemctl --user enable --now kavrel-sound", "systemctl --user edit kavrel-sound",
        "journalctl --user -u kavrel-sound", "sudo apt install ./build/packages/kavrel-sound_*.deb",
        "sudo systemctl unmask kavrel", "sudo systemctl start kavrel",
        "sudo apt install ./build/packages/kavrel_*.deb ./build/packages/kavrel-tools_*.deb")},
    "sudo apt build-dep ./": "it needs root; ./test packages installs what a build of the packages needs",
    **{command: "test_platforms.py does this in folders of its own" for command in (
        "cp -r platform/template ~/tv", "meson setup -Dseam=$PWD/platform/include ~/tv/build ~/tv", "ninja -C ~/tv/build",
        "meson setup -Dplatform=external -Dplatform_libs=$HOME/tv/build/libtvplatform.a build/tv", "ninja -C build/tv",
        "dbus-daemon --config-file=scripts/private-bus.conf --address=unix:path=/tmp/tv-bus --nofork &",
        "export DBUS_SYSTEM_BUS_ADDRESS=unix:path=/tmp/tv-bus", "build/tv/src/kavreld &",
        "build/tv/tools/kavrelctl/kavrelctl status", "kavrelctl volume 30", "kavrelctl mute on")},
    "kavrelctl monitor": "the table names it for a platform that is being written; test_kavrelctl.py runs it",
    **{command: "it needs an adapter" for command in (
        "meson setup -Dplatform=external -Dplatform_libs=$HOME/tv/build/libtvplatform.a -Dplatform_adapter=$HOME/tv/adapter.cpp build/judged",
        "meson test -C build/judged --suite platform --print-errorlogs",
        "build/judged/platform/kit/platform-kit --list",
        "meson setup -Dplatform_libs=$HOME/tv/build/libtvplatform.a -Dplatform_adapter=$HOME/tv/adapter.cpp build/kit /usr/share/kavrel/kit",
        "meson test -C build/kit --print-errorlogs")},
    "dpkg-buildpackage -us -uc -b": "it writes beside the checkout; ./test packages makes the packages from a copy",
    "meson dist -C build/test": "it takes minutes and needs a checkout without changes",
    "systemd-analyze security kavrel.service": "test_installation.py rates the unit without installing it",
    "git log -1 --format=%ae": "a release archive has no history",
}


def test_every_command_of_the_documents_is_run_or_has_a_reason():
    known = [*RUN, *RUN_UNTIL_CTRL_C, *NOT_RUN]
    assert len(set(known)) == len(known)
    assert set(COMMANDS) - set(known) == set(), "give the new commands an output, or a reason"
    assert set(known) - set(COMMANDS) == set(), "no document has these commands any more"


class Shell:
    """A user's terminals in a folder that looks like a checkout, but where commands may leave files."""

    def __init__(self, folder):
        self.folder = Path(folder)
        for name in ("run", "scripts", "scenarios"):
            (self.folder / name).symlink_to(ROOT / name)
        (self.folder / "scenes").mkdir()
        own = {key: value for key, value in os.environ.items() if key not in ("KAVREL_TV_DIR", "DBUS_SYSTEM_BUS_ADDRESS")}
        self.environment = {**own, "KAVREL_SCENES": f"{folder}/scenes", "LD_PRELOAD": os.environ.get("KAVREL_PRELOAD", ""),
                            "PATH": f"{Path(os.environ['KAVRELD']).parent}:{own['PATH']}"}

    def start(self, command):
        words = ["bash", "-c", command] if command.startswith("./run") else ["./run", "--join", "bash", "-c", command]
        return subprocess.Popen(words, cwd=self.folder, env=self.environment, stdin=subprocess.DEVNULL, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)

    def run(self, command, pattern):
        """Runs a command until it ends by itself; its whole output must match the pattern."""
        process = self.start(command)
        output = process.communicate(timeout=PATIENCE)[0]
        assert re.fullmatch(pattern, output), output
        assert process.returncode == 0

    def begin(self, command, pattern):
        """Starts a command and returns it once its output begins with the pattern."""
        process = self.start(command)
        output, reader, deadline = "", TextReader(process.stdout.fileno()), time.monotonic() + PATIENCE
        while not re.match(pattern, output):
            ready = select.select([process.stdout], [], [], max(0, deadline - time.monotonic()))[0]
            more = reader.read() if ready else ""
            if not more:
                self.end(process)
            assert more, f"{command} printed only:\n{output}"
            output += more
        return process

    def end(self, process):
        """Ends a command as Ctrl-C does; returns its exit status and the rest of its output."""
        os.killpg(process.pid, signal.SIGINT)
        rest = process.communicate(timeout=PATIENCE)[0]
        return process.returncode, rest


@pytest.fixture(scope="module")
def shell():
    """A shell beside a plain ./run, which all commands share. The TV's volume is 30, and an HDMI receiver plays."""
    with tempfile.TemporaryDirectory(dir="/dev/shm", prefix="kavrel-test.") as folder:
        it = Shell(folder)
        daemon = it.begin("./run", RUN_UNTIL_CTRL_C["./run"])
        try:
            (it.folder / "begin.txt").write_text("call SetSpeakerVolume 30 -> 0\nroute hdmi\nexpect output hdmi\n")
            it.run("kavrel-tv play begin.txt", r"(  ok  .*\n){3}")
            yield it
        finally:
            assert it.end(daemon)[0] == 0


@pytest.mark.parametrize("command", [command for command in COMMANDS if command in {**RUN, **RUN_UNTIL_CTRL_C} and command != "./run"])
def test_command(shell, command):
    if command in RUN:
        shell.run(command, RUN[command])
    else:
        assert shell.end(shell.begin(command, RUN_UNTIL_CTRL_C[command]))[0] == 0
    if command in WRITES:
        name, pattern = WRITES[command]
        assert re.fullmatch(pattern, (shell.folder / name).read_text())


def test_a_command_in_a_new_document_is_found(tmp_path):
    document = tmp_path / "new.md"
    document.write_text("Use `kavrelctl\nstatus`, `kavrelctl` or\n\n    ./run   # starts it\n    kavrel-tv show  shows\n\n    frobnicate\n")
    found = commands_of(document)
    assert [next(found), next(found)] == ["./run", "kavrel-tv show"]
    with pytest.raises(AssertionError, match="neither a known program"):
        next(found)
    document.write_text("Use `kavrelctl\nstatus` or `kavrelctl`.\n")
    assert list(commands_of(document)) == ["kavrelctl status"]
