# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""./run: it sets up a scene, runs COMMAND in it, and leaves nothing behind."""
import os
import pty
import re
import select
import signal
import subprocess
from pathlib import Path

import pytest

from harness import PATIENCE, READY, ROOT

RUN = str(ROOT / "run")
PIDS = """
for name in org.olvane.kavrel org.freedesktop.DBus; do
    gdbus call --system -d org.freedesktop.DBus -o / -m org.freedesktop.DBus.GetConnectionUnixProcessID $name
done
echo "TV $KAVREL_TV_DIR"
"""
GET_VOLUME = ("gdbus call --system -d org.olvane.kavrel -o /Org/Olvane/KavrelInternal "
              "-m org.olvane.kavrel.GetSpeakerVolume").split()


def environment(changes):
    own = {key: value for key, value in os.environ.items() if key not in ("KAVREL_TV_DIR", "DBUS_SYSTEM_BUS_ADDRESS")}
    return {**own, "LD_PRELOAD": os.environ.get("KAVREL_PRELOAD", ""), **changes}


def run(*command, **changes):
    """Runs ./run; returns its exit status, standard output and standard error."""
    options = {"stdin": subprocess.DEVNULL} | {key: changes.pop(key) for key in ("input", "cwd") if key in changes}
    if "input" in options:
        del options["stdin"]
    done = subprocess.run([RUN, *command], env=environment(changes), capture_output=True, text=True,
                          timeout=PATIENCE, check=False, **options)
    return done.returncode, done.stdout, done.stderr


def kept_log(stderr):
    """Removes the log that ./run kept, and returns its text."""
    path = Path(re.search(r"log is kept in (\S+)", stderr).group(1))
    text = path.read_text()
    path.unlink()
    return text


def pids_and_tv(output):
    return [int(pid) for pid in re.findall(r"\(uint32 (\d+),\)", output)], Path(re.search("^TV (.*)", output, re.M)[1])


def is_running(pid):
    try:
        return Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] not in "ZX"
    except FileNotFoundError:
        return False


def assert_nothing_is_left(pids, tv):
    assert len(pids) == 2
    assert [pid for pid in pids if is_running(pid)] == []
    assert not tv.exists()
    assert not tv.parent.exists()


class Started:
    """A ./run in the background, for tests that watch it run."""

    def __init__(self, *command, terminal=True, ignored=None, **changes):
        self.process = subprocess.Popen(
            [RUN, *command], env=environment(changes), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, start_new_session=not terminal,
            preexec_fn=lambda: ignored and signal.signal(ignored, signal.SIG_IGN))
        self.output = ""

    def read_until(self, pattern):
        """Reads standard output until the pattern is in it; returns all output so far."""
        while not re.search(pattern, self.output):
            assert select.select([self.process.stdout], [], [], PATIENCE)[0], f"no {pattern} in:\n{self.output}"
            more = os.read(self.process.stdout.fileno(), 65536).decode()
            assert more, f"ended without {pattern}:\n{self.output}\n{self.process.stderr.read().decode()}"
            self.output += more
        return self.output

    def end(self, number):
        """Sends the signal; returns the exit status and the unread rest of standard error."""
        self.process.send_signal(number)
        return self.wait()

    def wait(self):
        _, stderr = self.process.communicate(timeout=PATIENCE)
        return self.process.returncode, stderr.decode()


@pytest.fixture
def start():
    started = []

    def begin(*command, **options):
        started.append(Started(*command, **options))
        return started[-1]

    yield begin
    for each in started:
        if each.process.poll() is None:
            each.end(signal.SIGTERM)


# --- ./run COMMAND ------------------------------------------------------------------------------------------------


def test_command_reaches_the_daemon_and_nothing_else_writes_to_standard_output():
    assert run(*GET_VOLUME) == (0, "(10, 0)\n", "")


def test_command_finds_the_tv_and_the_ready_event():
    status, output, _ = run("sh", "-c", 'cat "$KAVREL_TV_DIR/audio/master_volume"; ls "$KAVREL_TV_DIR/events"')
    assert (status, output) == (0, f"10\n{READY.removeprefix('events/')}\n")


def test_the_tv_is_on_a_tmpfs():
    assert run("sh", "-c", 'stat -f -c %T "$KAVREL_TV_DIR"')[1] == "tmpfs\n"


def test_the_bus_is_private():
    address = run("sh", "-c", 'echo "$DBUS_SYSTEM_BUS_ADDRESS"')[1]
    assert address.startswith("unix:path=/dev/shm/kavrel.")


def test_the_projects_tools_are_on_the_path():
    for tool in ("kavrelctl", "kavrel-tv"):
        assert run("sh", "-c", f"command -v {tool}")[1] == f"{os.environ['KAVREL_BUILD']}/tools/{tool}/{tool}\n"


def test_the_external_outputs_have_published_their_support_words():
    support = "settings/memory/menu/network/screenmirroring/volume_support_hdmi"
    assert run("sh", "-c", f'cat "$KAVREL_TV_DIR/{support}"')[:2] == (0, "15\n")


def test_command_keeps_its_input():
    assert run("cat", input="some text\n") == (0, "some text\n", "")


def test_command_keeps_its_folder(tmp_path):
    assert run("pwd", cwd=tmp_path) == (0, f"{tmp_path}\n", "")


def test_command_gets_its_arguments_unchanged():
    arguments = ["a b", "", "*", "$HOME", "-x", "--", "\\n"]
    assert run("printf", "%s|", *arguments)[1] == "".join(f"{argument}|" for argument in arguments)


@pytest.mark.parametrize("script, status", [("exit 1", 1), ("exit 77", 77), ("exit 255", 255),
                                            ("kill -TERM $$", 128 + 15), ("kill -KILL $$", 128 + 9)])
def test_run_exits_with_a_failed_commands_status_and_keeps_the_log(script, status):
    code, output, errors = run("sh", "-c", script)
    assert (code, output) == (status, "")
    assert f"sh ended with status {status}" in errors
    assert "main.cpp: main(" in kept_log(errors)


@pytest.mark.parametrize("name, status", [("no-such-command", 127), ("no=such=command", 127), ("/etc/passwd", 126)])
def test_a_command_that_cannot_start_is_reported(name, status):
    code, output, errors = run(name)
    assert (code, output) == (status, "")
    assert re.match(f"./run: line 1: (exec: )?{name}: ", errors)
    kept_log(errors)


def test_the_devices_never_block_on_their_output():
    """So many requests make them print more than a pipe holds."""
    level = "settings/memory/menu/network/screenmirroring/get_volume_level_hdmi"
    script = f"""kavrel-tv route hdmi
        for i in $(seq 1200); do
            echo $((i % 100)) > "$KAVREL_TV_DIR/settings/memory/menu/network/screenmirroring/set_volume_level"
        done
        kavrel-tv key memory/menu/network/screenmirroring/set_volume_level 77
        timeout {PATIENCE} sh -c 'until [ "$(cat "$KAVREL_TV_DIR/{level}")" = 77 ]; do sleep 0.1; done'"""
    assert run("bash", "-c", script)[0] == 0


def test_nothing_is_left_after_a_success():
    code, output, _ = run("sh", "-c", PIDS)
    assert code == 0
    assert_nothing_is_left(*pids_and_tv(output))


def test_nothing_is_left_after_a_failure():
    code, output, errors = run("sh", "-c", f"{PIDS}\nexit 3")
    kept_log(errors)
    assert code == 3
    assert_nothing_is_left(*pids_and_tv(output))


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP])
def test_a_signal_to_run_ends_the_command_and_the_scene(start, number):
    process = start("sh", "-c", f"{PIDS}\nexec sleep 1000")
    found = pids_and_tv(process.read_until("TV .*\n"))
    assert process.end(number)[0] == 128 + number
    assert_nothing_is_left(*found)


def test_ctrl_c_to_run_without_a_terminal_is_passed_on(start):
    process = start("sh", "-c", f"{PIDS}\nexec sleep 1000", terminal=False)
    found = pids_and_tv(process.read_until("TV .*\n"))
    assert process.end(signal.SIGINT) == (128 + signal.SIGINT, "")
    assert_nothing_is_left(*found)


def test_the_end_of_the_daemon_is_reported_and_run_exits_with_the_commands_status():
    code, output, errors = run("sh", "-c", f"{PIDS}\nkill -KILL $(busctl --system status org.olvane.kavrel |"
                                           " sed -n s/^PID=//p); gdbus wait --system --timeout 1 nobody.owns.this; exit 5")
    assert code == 5
    assert "kavreld has ended (status 137). The end of its log:" in errors
    assert "main.cpp: main(" in kept_log(errors)
    assert_nothing_is_left(*pids_and_tv(output))


def test_a_given_tv_is_kept_after_its_memory_settings_are_removed(tmp_path):
    tv = tmp_path / "tv"
    for key in ("memory/sysman/spdif", "memory/.hidden", "db/usbsound/volume_level"):
        (tv / "settings" / key).parent.mkdir(parents=True, exist_ok=True)
        (tv / "settings" / key).write_text("1\n")
    (tv / "audio").mkdir()
    (tv / "audio/master_volume").write_text("77\n")
    code, output, _ = run(*GET_VOLUME, KAVREL_TV_DIR=str(tv))
    assert (code, output) == (0, "(77, 0)\n")
    assert (tv / "settings/db/usbsound/volume_level").read_text() == "1\n"
    assert not (tv / "settings/memory/sysman/spdif").exists()
    assert not (tv / "settings/memory/.hidden").exists()


def test_a_given_tv_that_does_not_exist_is_made(tmp_path):
    code, output, _ = run(*GET_VOLUME, KAVREL_TV_DIR="a tv", cwd=tmp_path)
    assert (code, output) == (0, "(10, 0)\n")
    assert (tmp_path / "a tv/audio/master_volume").read_text() == "10\n"


def test_two_at_once_share_nothing(start):
    first = start("sh", "-c", f"{PIDS}\nexec sleep 1000")
    second = start("sh", "-c", f"{PIDS}\nexec sleep 1000")
    found = [pids_and_tv(process.read_until("TV .*\n")) for process in (first, second)]
    assert not set(found[0][0]) & set(found[1][0])
    assert found[0][1] != found[1][1]


def test_ctrl_c_reaches_the_command_on_its_terminal_and_run_waits_for_it():
    pid, terminal = pty.fork()
    if pid == 0:
        signal.signal(signal.SIGINT, signal.SIG_DFL)
        os.execve(RUN, [RUN, "sh", "-c", "trap 'echo interrupted; exit 5' INT; echo ready; while :; do read line; done"],
                  environment({}))
    status, said = None, b""
    try:
        while True:
            assert select.select([terminal], [], [], PATIENCE)[0], said
            said += os.read(terminal, 4096)
            if b"ready" in said and b"\x03" not in said:
                os.write(terminal, b"\x03")
                said += b"\x03"
    except OSError:  # the terminal of a session that has ended
        status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
    finally:
        if status is None:
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
        os.close(terminal)
    assert status == 5
    assert b"interrupted" in said


# --- ./run alone --------------------------------------------------------------------------------------------------


def in_a_second_terminal(introduction, command):
    """Runs a command with the variables that the introduction suggests for a second terminal."""
    exports = "\n".join(re.findall("^  (export .*)$", introduction, re.M))
    done = subprocess.run(["bash", "-ec", f"{exports}\n{command}"], capture_output=True, text=True, timeout=PATIENCE,
                          check=False, env=environment({}))
    assert done.returncode == 0, done.stderr
    return done.stdout


def test_alone_it_explains_how_to_join_and_shows_log_and_signals_until_ctrl_c(start):
    process = start()
    introduction = process.read_until("Ctrl-C")
    found = pids_and_tv(in_a_second_terminal(introduction, PIDS))
    process.read_until(r"I main\.cpp: main\(\d+\) > \[main:\d+\] Started")

    in_a_second_terminal(introduction, "echo 42 > $KAVREL_TV_DIR/audio/master_volume")
    process.read_until("Send dbus signal VolumeChanged : 42")
    process.read_until(r"signal /Org/Olvane/KavrelInternal: org\.olvane\.kavrel\.SpeakerVolumeChanged \(65535, 42\)")

    assert process.end(signal.SIGINT) == (0, "")
    assert_nothing_is_left(*found)


def test_a_second_terminal_finds_the_tools(start):
    introduction = start().read_until("Ctrl-C")
    assert in_a_second_terminal(introduction, "kavrelctl volume; kavrel-tv key memory/no/such/key || true") == "10\n"


def test_the_five_commands_that_it_suggests_work(start):
    introduction = start().read_until("Ctrl-C")
    commands = re.findall(r"^  ((?:gdbus|busctl) .*)$", introduction, re.M)
    assert len(commands) == 5
    for command in commands:
        patience = "timeout 1 " if " monitor " in command else ""
        in_a_second_terminal(introduction, f"{patience}{command} || [ $? = 124 ]")
    assert in_a_second_terminal(introduction, "cat $KAVREL_TV_DIR/audio/master_mute") == "1\n"


def test_alone_ctrl_c_ends_it_even_if_a_script_started_it_with_an_ampersand(start):
    process = start(ignored=signal.SIGINT)
    found = pids_and_tv(in_a_second_terminal(process.read_until("Ctrl-C"), PIDS))
    assert process.end(signal.SIGINT) == (0, "")
    assert_nothing_is_left(*found)


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP])
def test_alone_a_signal_ends_everything(start, number):
    process = start()
    found = pids_and_tv(in_a_second_terminal(process.read_until("Ctrl-C"), PIDS))
    assert process.end(number) == (128 + number, "")
    assert_nothing_is_left(*found)


@pytest.mark.parametrize("which, message", [(0, "kavreld has ended (status 137). The end of its log:"),
                                            (1, "./run: the bus has ended\n")], ids=["daemon", "bus"])
def test_alone_the_end_of_one_program_ends_everything(start, which, message):
    process = start()
    found = pids_and_tv(in_a_second_terminal(process.read_until("Ctrl-C"), PIDS))
    os.kill(found[0][which], signal.SIGKILL)
    status, errors = process.wait()
    assert status == 1
    assert message in errors
    assert "main.cpp: main(" in kept_log(errors)
    assert_nothing_is_left(*found)


def test_a_daemon_that_does_not_start_is_reported(tmp_path):
    (tmp_path / "src").mkdir()
    broken = tmp_path / "src/kavreld"
    broken.write_text("#!/bin/sh\necho 'E cannot' >&2\nexit 3\n")
    broken.chmod(0o755)
    code, output, errors = run("true", KAVREL_BUILD=str(tmp_path))
    assert (code, output) == (1, "")
    assert "kavreld has ended (status 3)" in errors
    assert kept_log(errors) == "E cannot\n"


# --- the command line ---------------------------------------------------------------------------------------------


def test_help_names_the_variables():
    code, output, errors = run("--help")
    assert (code, errors) == (0, "")
    assert all(word in output for word in ("Usage: ./run", "KAVREL_TV_DIR", "KAVREL_LOG", "Example"))


def test_an_unknown_option_is_wrong_usage():
    assert run("--no-such-option")[0] == 64
