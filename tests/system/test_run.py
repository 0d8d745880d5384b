# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""./run: it sets up a scene, runs COMMAND in it, and leaves nothing behind."""
import os
import pty
import re
import select
import signal
import subprocess
import tempfile
from pathlib import Path

import pytest

from harness import PATIENCE, READY, ROOT, TextReader

RUN = str(ROOT / "run")
PIDS = """
for name in org.olvane.kavrel org.freedesktop.DBus; do
    gdbus call --system -d org.freedesktop.DBus -o / -m org.freedesktop.DBus.GetConnectionUnixProcessID $name
done
echo "TV $KAVREL_TV_DIR"
"""
GET_VOLUME = ("gdbus call --system -d org.olvane.kavrel -o /Org/Olvane/KavrelInternal "
              "-m org.olvane.kavrel.GetSpeakerVolume").split()


SCENE_VARIABLES = ("KAVREL_TV_DIR", "DBUS_SYSTEM_BUS_ADDRESS", "KAVREL_SCENES", "KAVREL_LOG")


def environment(changes):
    own = {key: value for key, value in os.environ.items() if key not in SCENE_VARIABLES}
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
    except (FileNotFoundError, ProcessLookupError):  # the latter if it ends between the opening and the reading
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
        self.reader = TextReader(self.process.stdout.fileno())

    def read_until(self, pattern):
        """Reads standard output until the pattern is in it; returns all output so far."""
        while not re.search(pattern, self.output):
            assert select.select([self.process.stdout], [], [], PATIENCE)[0], f"no {pattern} in:\n{self.output}"
            more = self.reader.read()
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
def test_run_exits_with_a_failed_commands_status_and_keeps_no_log(script, status, tmp_path):
    code, output, errors = run("sh", "-c", script, TMPDIR=str(tmp_path))
    assert (code, output) == (status, "")
    assert "./run: " not in errors
    assert list(tmp_path.iterdir()) == []


NO_COMMANDS = [("no-such-command", None), ("no=such=command", None), ("/no/such/command", None),
               ("status", "kavrelctl"), ("volume", "kavrelctl"), ("zone-route", "kavrel-tv")]


def no_command(name, tool, call):
    return f"./run: there is no command {name}" + (f"; did you mean {call} {tool} {name}?\n" if tool else "\n")


@pytest.mark.parametrize("name, tool", NO_COMMANDS)
def test_a_command_that_does_not_exist_is_refused(name, tool, tmp_path):
    assert run(name, "30", TMPDIR=str(tmp_path), KAVREL_SCENES=str(tmp_path)) == (127, "", no_command(name, tool, "./run"))
    assert list(tmp_path.iterdir()) == []


def test_a_command_that_cannot_start_is_reported():
    code, output, errors = run("/etc/passwd")
    assert (code, output) == (126, "")
    assert re.fullmatch("(./run: line 1: (exec: )?/etc/passwd: .*\n)+", errors)


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
    assert (code, errors) == (3, "")
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
    assert errors.startswith("./run: kavreld has ended (status 137). The end of its log:\n")
    assert "main.cpp: main(" in kept_log(errors)
    assert_nothing_is_left(*pids_and_tv(output))


def test_a_daemon_that_does_not_answer_a_failed_command_is_reported():
    stop = "kill -STOP $(busctl --system status org.olvane.kavrel | sed -n s/^PID=//p)"
    code, output, errors = run("sh", "-c", f"{stop}; exit 3")
    assert (code, output) == (3, "")
    assert errors.startswith("./run: kavreld does not answer\n")
    assert "main.cpp: main(" in kept_log(errors)


def test_what_the_daemon_writes_besides_its_log_is_reported(tmp_path):
    (tmp_path / "src").mkdir()
    talkative = tmp_path / "src/kavreld"
    talkative.write_text(f"#!/bin/sh\necho 'WARNING: something is wrong' >&2\nexec {os.environ['KAVRELD']}\n")
    talkative.chmod(0o755)
    (tmp_path / "tools").symlink_to(f"{os.environ['KAVREL_BUILD']}/tools")
    code, output, errors = run(*GET_VOLUME, KAVREL_BUILD=str(tmp_path))
    assert (code, output) == (0, "(10, 0)\n")
    assert errors.splitlines()[:2] == ["./run: kavreld wrote this besides its log:", "WARNING: something is wrong"]
    assert "main.cpp: main(" in kept_log(errors)


def test_a_given_tv_is_kept_after_its_memory_settings_are_removed(tmp_path):
    tv = tmp_path / "tv"
    for key in ("memory/sysman/spdif", "memory/.hidden", "db/usbsound/volume_level"):
        (tv / "settings" / key).parent.mkdir(parents=True, exist_ok=True)
        (tv / "settings" / key).write_text("1\n")
    (tv / "sound").mkdir()
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


def make_files(folder, *names):
    """Makes a file for each name, or for "LINK -> TARGET" a link."""
    for name in names:
        path, _, target = name.partition(" -> ")
        (folder / path).parent.mkdir(parents=True, exist_ok=True)
        if target:
            (folder / path).symlink_to(target)
        else:
            (folder / path).write_text("1\n")


@pytest.mark.parametrize("names", [
    (".hidden", "settings/db -> ../../database"), (".filling", "settings/db/x", "audio/master_mute")], ids=" ".join)
def test_a_given_tv_that_is_not_filled_yet_is_filled(tmp_path, names):
    (tmp_path / "database").mkdir()
    make_files(tmp_path / "tv", *names)
    code, output, _ = run(*GET_VOLUME, KAVREL_TV_DIR=str(tmp_path / "tv"))
    assert (code, output) == (0, "(10, 0)\n")
    assert (tmp_path / "tv/sound/route").read_text() == "0\n"


def state_of(folder):
    return sorted((str(path), path.lstat().st_mtime_ns) for path in [folder, *folder.rglob("*")])


@pytest.mark.parametrize("names", [
    ("settings/memory/photo",), ("notes", "settings/memory/photo"), ("settings/db -> ../..", "settings/memory/photo"),
    ("settings/db/photo",), ("settings -> ..",), (".filling/x", "settings/memory/photo"), ("settings",)], ids=" ".join)
def test_a_directory_that_is_no_tv_is_refused_and_left_as_it_is(tmp_path, names):
    folder = tmp_path / "my files"
    make_files(folder, *names)
    before = state_of(tmp_path)
    assert run("true", KAVREL_TV_DIR=str(folder)) == (
        1, "", f"./run: KAVREL_TV_DIR names a directory that is neither empty nor a TV: {folder}\n")
    assert state_of(tmp_path) == before


def test_a_file_is_refused_as_a_tv(tmp_path):
    file = tmp_path / "a file"
    file.write_text("text\n")
    assert run("true", KAVREL_TV_DIR=str(file)) == (1, "", f"./run: KAVREL_TV_DIR names no directory: {file}\n")
    assert file.read_text() == "text\n"


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


LAST_LINE = r"--join +# opens a shell .*\n\n"


def join(process, *command):
    """Runs a command in the scene of a ./run as a second terminal does; returns its standard output."""
    code, output, errors = run(f"--join={process.process.pid}", *command)
    assert (code, errors) == (0, "")
    return output


def scene_of(process):
    process.read_until(LAST_LINE)
    return pids_and_tv(join(process, "sh", "-c", PIDS))


def test_alone_it_introduces_itself_and_shows_errors_and_signals_until_ctrl_c(start):
    process = start()
    introduction = process.read_until(LAST_LINE)
    found = scene_of(process)
    assert introduction.startswith("E KVUtils.cpp: VconfGetInt(")
    assert "\nThese errors are normal: " in introduction
    assert re.search(LAST_LINE + r"\Z", introduction)

    join(process, "sh", "-c", "echo 42 > $KAVREL_TV_DIR/audio/master_volume")
    process.read_until(r"signal /Org/Olvane/KavrelInternal: org\.olvane\.kavrel\.SpeakerVolumeChanged \(65535, 42\)")
    run(f"--join={process.process.pid}", "kavrelctl", "volume", "101")
    said = process.read_until(r"E VolumeControlImpl\.cpp: .*invalid param")
    assert not re.search("^[DI] ", said, re.M)

    assert process.end(signal.SIGINT) == (0, "")
    assert_nothing_is_left(*found)


def test_verbose_shows_the_whole_log_and_signals(start):
    process = start("--verbose")
    introduction = process.read_until(LAST_LINE)
    assert re.match(r"I main\.cpp: main\(\d+\) > \[main:\d+\] Started\n", introduction)
    join(process, "kavrelctl", "volume", "42")
    process.read_until(r"I KVServer\.cpp: onVolumeChanged\(.* 42\n")
    process.read_until(r"signal /Org/Olvane/KavrelInternal: org\.olvane\.kavrel\.SpeakerVolumeChanged \(65535, 42\)")


def test_the_log_that_the_introduction_names_has_all_lines(start):
    introduction = start().read_until(LAST_LINE)
    log = Path(re.search("^The whole log is in (.*)", introduction, re.M)[1])
    assert log.read_text().startswith("I main.cpp: main(")


def test_no_log_line_is_lost_around_the_introduction(start):
    process = start("--verbose")
    log = Path(re.search("^The whole log is in (.*)", process.read_until(LAST_LINE), re.M)[1])
    join(process, "kavrelctl", "volume", "77")
    output = process.read_until(r"onVolumeChanged\(.* 77\n")
    shown = [line for line in output.rpartition("\n")[0].splitlines() if re.match("[DIWE] ", line)]
    assert shown == log.read_text().splitlines()[:len(shown)]


# --- ./run --join -------------------------------------------------------------------------------------------------


@pytest.fixture
def scenes():
    """A folder for scenes that no other test uses, so that --join finds those of this test alone."""
    with tempfile.TemporaryDirectory(dir="/dev/shm", prefix="kavrel-test.") as folder:
        yield folder


def test_the_commands_that_the_introduction_suggests_work(scenes, start):
    introduction = start(KAVREL_SCENES=scenes).read_until(LAST_LINE)
    commands = re.findall(r"^  (\./run --join.*?)(?:  +#.*)?$", introduction, re.M)
    assert len(commands) == 5
    for command in commands:
        limit = "timeout 1 " if "watch" in command else ""
        done = subprocess.run(["bash", "-c", f"{limit}{command}"], cwd=ROOT, env=environment({"KAVREL_SCENES": scenes}),
                              input="command -v kavrel-tv; cat $KAVREL_TV_DIR/sound/route", timeout=PATIENCE,
                              capture_output=True, text=True, check=False)
        assert (done.returncode, done.stderr) == (124 if limit else 0, ""), command
    assert done.stdout == f"{os.environ['KAVREL_BUILD']}/tools/kavrel-tv/kavrel-tv\n2\n"


def test_a_joined_command_has_input_folder_arguments_and_exit_status_of_its_own(scenes, start, tmp_path):
    start("sh", "-c", "echo ready; exec sleep 1000", KAVREL_SCENES=scenes).read_until("ready")
    script = 'pwd; cat; printf "%s|" "$@"; exit 5'
    assert run("--join", "sh", "-c", script, "sh", "a b", "", KAVREL_SCENES=scenes, cwd=tmp_path, input="text\n") == (
        5, f"{tmp_path}\ntext\na b||", "")


def test_a_command_that_does_not_exist_does_not_join(scenes, start):
    process = start("sh", "-c", "echo ready; exec sleep 1000", KAVREL_SCENES=scenes)
    process.read_until("ready")
    for call in ("--join", f"--join={process.process.pid}"):
        for name, tool in NO_COMMANDS:
            assert run(call, name, "30", KAVREL_SCENES=scenes) == (127, "", no_command(name, tool, f"./run {call}"))


def test_without_a_scene_there_is_nothing_to_join(scenes):
    assert run("--join", "true", KAVREL_SCENES=scenes) == (
        1, "", "./run: you have no ./run that is ready; start one in another terminal\n")


def test_among_several_scenes_the_pid_or_the_own_scene_decides(scenes, start):
    processes = [start("sh", "-c", 'echo "TV $KAVREL_TV_DIR"; exec sleep 1000', name, KAVREL_SCENES=scenes)
                 for name in ("one", "two")]
    tvs = [re.search("^TV (.*)", process.read_until("TV .*\n"), re.M)[1] for process in processes]
    show = ("sh", "-c", 'echo "$KAVREL_TV_DIR"')

    code, output, errors = run("--join", *show, KAVREL_SCENES=scenes)
    assert (code, output) == (1, "")
    said, *choices = errors.splitlines()
    assert said == "./run: there are several to join:"
    assert sorted(re.sub(" +", " ", choice) for choice in choices) == sorted(
        f' ./run --join={process.process.pid} # ./run sh -c echo "TV $KAVREL_TV_DIR"; exec sleep 1000 {name}'
        for process, name in zip(processes, ("one", "two")))

    for process, tv in zip(processes, tvs):
        assert run(f"--join={process.process.pid}", *show, KAVREL_SCENES=scenes) == (0, f"{tv}\n", "")
        assert run("--join", *show, KAVREL_SCENES=scenes, KAVREL_TV_DIR=tv) == (0, f"{tv}\n", "")
    code, _, errors = run("--join=1", *show, KAVREL_SCENES=scenes)
    assert (code, errors.splitlines()[0]) == (1, "./run: 1 is not the pid of a ./run that is ready. These are:")


def test_a_scene_whose_run_was_killed_is_not_joined(scenes, start):
    process = start("sh", "-c", "echo ready; exec sleep 1000", KAVREL_SCENES=scenes)
    process.read_until("ready")
    scene = next(Path(scenes).glob("kavrel.*"))
    for field, value in ((0, b"0"), (1, b"1")):  # no process, and another process with the same pid
        fields = (scene / "scene").read_bytes().split(b"\0")
        fields[field] = value
        left = Path(scenes) / f"kavrel.left0{field}"
        left.mkdir()
        (left / "scene").write_bytes(b"\0".join(fields))
    assert run("--join", "sh", "-c", 'echo "$KAVREL_TV_DIR"', KAVREL_SCENES=scenes) == (0, f"{scene}/tv\n", "")


def test_a_shell_that_names_a_removed_scene_gets_no_new_tv(scenes):
    tv = f"{scenes}/kavrel.gone00/tv"
    code, output, errors = run("true", KAVREL_SCENES=scenes, KAVREL_TV_DIR=tv)
    assert (code, output) == (1, "")
    assert errors.splitlines()[0] == f"./run: KAVREL_TV_DIR names the TV of a ./run that has ended: {tv}"
    assert os.listdir(scenes) == []


def test_a_tv_in_use_is_not_shared(scenes, start):
    process = start("sh", "-c", 'echo "$KAVREL_TV_DIR"; exec sleep 1000', KAVREL_SCENES=scenes)
    tv = process.read_until("\n").strip()
    code, output, errors = run("true", KAVREL_SCENES=scenes, KAVREL_TV_DIR=tv)
    assert (code, output) == (1, "")
    assert re.match(r"./run: KAVREL_TV_DIR names the TV of ./run sh .* \(pid \d+\), which is running\.\n", errors)
    assert Path(tv, "settings/memory/menu/network/screenmirroring/volume_support_hdmi").exists()


def test_alone_ctrl_c_ends_it_even_if_a_script_started_it_with_an_ampersand(start):
    process = start(ignored=signal.SIGINT)
    found = scene_of(process)
    assert process.end(signal.SIGINT) == (0, "")
    assert_nothing_is_left(*found)


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP])
def test_alone_a_signal_ends_everything(start, number):
    process = start()
    found = scene_of(process)
    assert process.end(number) == (128 + number, "")
    assert_nothing_is_left(*found)


@pytest.mark.parametrize("which, message", [(0, "./run: kavreld has ended (status 137). The end of its log:\n"),
                                            (1, "./run: the bus has ended\n")], ids=["daemon", "bus"])
def test_alone_the_end_of_one_program_ends_everything(start, which, message):
    process = start()
    found = scene_of(process)
    os.kill(found[0][which], signal.SIGKILL)
    status, errors = process.wait()
    assert status == 1
    assert message in errors
    assert "Killed" not in errors  # as bash itself would say
    assert "main.cpp: main(" in kept_log(errors)
    assert_nothing_is_left(*found)


@pytest.mark.parametrize("end, status", [("exit 3", 3), ("kill -KILL $$", 128 + 9)])
def test_a_daemon_that_does_not_start_is_reported(tmp_path, end, status):
    (tmp_path / "src").mkdir()
    broken = tmp_path / "src/kavreld"
    broken.write_text(f"#!/bin/sh\necho 'E cannot' >&2\n{end}\n")
    broken.chmod(0o755)
    code, output, errors = run("true", KAVREL_BUILD=str(tmp_path))
    assert (code, output) == (1, "")
    assert errors.startswith(f"./run: kavreld has ended (status {status}). The end of its log:\nE cannot\n")
    assert "Killed" not in errors  # as bash itself would say
    assert kept_log(errors) == "E cannot\n"


# --- the command line ---------------------------------------------------------------------------------------------


def test_help_names_the_variables():
    code, output, errors = run("--help")
    assert (code, errors) == (0, "")
    assert all(word in output for word in ("Usage: ./run", "--join", "KAVREL_TV_DIR", "KAVREL_LOG", "Example"))


@pytest.mark.parametrize("words", [["--no-such-option"], ["--join", "--no-such-option"], ["--verbose", "true"]], ids=" ".join)
def test_wrong_usage(words):
    code, output, errors = run(*words)
    assert (code, output) == (64, "")
    assert errors.endswith(", see ./run --help\n")
