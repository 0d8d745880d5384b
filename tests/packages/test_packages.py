# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""The packages: what they hold, and what happens on a fresh Debian from their installation to their removal.

The tests on the machine run in the order of this file, as an operator goes on: install, use, install again, start the
machine again, remove, purge.
"""
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from machine import host, wait_until

ROOT = Path(__file__).resolve().parents[2]
NAME = "org.olvane.kavrel"
METHODS_PATH, SIGNALS_PATH = "/Org/Olvane/KavrelInternal", "/Org/Olvane/Kavrel"
UNIT = "/lib/systemd/system/kavrel.service"
SOUND_UNIT = "/usr/lib/systemd/user/kavrel-sound.service"
DENIED = "org.freedesktop.DBus.Error.AccessDenied"

FILES = {
    "kavrel": {UNIT, "/usr/bin/kavreld", "/usr/lib/sysusers.d/kavrel.conf", "/usr/lib/tmpfiles.d/kavrel.conf",
               f"/usr/share/dbus-1/system-services/{NAME}.service", f"/usr/share/dbus-1/system.d/{NAME}.conf",
               "/usr/share/man/man8/kavreld.8.gz"},
    "kavrel-tools": {"/usr/bin/kavrelctl", "/usr/share/bash-completion/completions/kavrelctl",
                     "/usr/share/man/man1/kavrelctl.1.gz"},
    "kavrel-tv": {"/usr/bin/kavrel-tv", "/usr/share/bash-completion/completions/kavrel-tv",
                  "/usr/share/man/man1/kavrel-tv.1.gz"},
    "kavrel-sound": {"/usr/bin/kavrel-sound", "/usr/lib/systemd/user/kavrel-sound.service",
                     "/usr/share/bash-completion/completions/kavrel-sound", "/usr/share/man/man1/kavrel-sound.1.gz"},
    "kavrel-dev": {f"/usr/share/dbus-1/interfaces/{NAME}.xml", "/usr/include/kavrel/kavrel.h",
                   "/usr/share/pkgconfig/kavrel.pc",
                   *(f"/usr/share/kavrel/include/{path.name}" for path in (ROOT / "platform/include").iterdir()),
                   *(f"/usr/share/kavrel/template/{path.name}" for path in (ROOT / "platform/template").iterdir()),
                   *(f"/usr/share/kavrel/kit/{path.name}"
                     for folder in ("kit", "kit/standalone") for path in (ROOT / "platform" / folder).iterdir() if path.is_file())},
}
DOCUMENTS = {
    "kavrel": {"fade.svg"} | {path.name for path in (ROOT / "docs").glob("*.md")},
    "kavrel-tools": set(),
    "kavrel-tv": {f"examples/{path.name}" for path in (ROOT / "scenarios").glob("*.txt")},
    "kavrel-sound": set(),
    "kavrel-dev": {"integration.md", "operation.md", "porting.md", "security.md",
                   *(f"examples/{path.name}" for path in (ROOT / "examples").iterdir())},
}
PAGES = {"kavreld.8": "kavrel", "kavrelctl.1": "kavrel-tools", "kavrel-tv.1": "kavrel-tv",
         "kavrel-sound.1": "kavrel-sound"}


# --- what the packages hold ---------------------------------------------------------------------------------------


def file_of(packages, name):
    return next(packages.glob(f"{name}_*.deb"))


@pytest.fixture(scope="session")
def unpacked(packages, tmp_path_factory):
    """A folder with the files of all packages."""
    folder = tmp_path_factory.mktemp("unpacked")
    for name in FILES:
        host("dpkg-deb", "--extract", file_of(packages, name), folder)
    return folder


@pytest.mark.parametrize("name", FILES)
def test_each_package_holds_its_files(packages, name):
    listed = [re.split(r"\s+", line, maxsplit=5)[5].removeprefix(".")
              for line in host("dpkg-deb", "--contents", file_of(packages, name)).splitlines()]
    files = {path for path in listed if not path.endswith("/")}
    about = f"/usr/share/doc/{name}"
    assert files - {f"/usr/share/lintian/overrides/{name}"} == FILES[name] | {
        f"{about}/{document}"
        for document in {"changelog.gz", "copyright"} | DOCUMENTS[name]}


@pytest.mark.parametrize("name", ["kavrel", "kavrel-dev"])
def test_each_link_in_a_document_leads_to_a_file_of_the_same_package(packages, name, tmp_path):
    host("dpkg-deb", "--extract", file_of(packages, name), tmp_path)
    links = [(document, link) for document in tmp_path.glob("usr/share/doc/**/*.md")
             for link in re.findall(r"\]\(([^)#]+)", document.read_text())]
    assert links
    assert [(document.name, link) for document, link in links if not (document.parent / link).is_file()] == []


def test_lintian_finds_nothing(packages):
    done = subprocess.run(["lintian", "--fail-on=error,warning", "--allow-root", next(packages.glob("*.changes"))],
                          capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout) == (0, "")


def test_each_override_of_lintian_has_its_reason():
    overrides = list((ROOT / "debian").glob("*.lintian-overrides"))
    assert overrides
    for path in overrides:
        blocks = re.split(r"^#.*\n", path.read_text(), flags=re.MULTILINE)
        assert blocks[0] == "" and all(blocks[1:]), path


@pytest.mark.parametrize("page", PAGES)
def test_the_man_pages_are_well_formed(unpacked, page):
    path = unpacked / f"usr/share/man/man{page[-1]}/{page}.gz"
    shown = subprocess.run(["man", "--warnings", "--local-file", path], capture_output=True, text=True, check=True,
                           env={"LC_ALL": "C.UTF-8", "MANWIDTH": "80", "PATH": "/usr/bin:/bin"})
    assert shown.stderr == ""
    for section in ("NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "NOTES", "SEE ALSO"):
        assert re.search(f"^{section}$", shown.stdout, re.MULTILINE), section
    lint = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", path], capture_output=True, text=True, check=False)
    assert lint.stdout == ""


@pytest.mark.parametrize("program", ["kavrelctl", "kavrel-tv", "kavrel-sound"])
def test_the_man_page_of_a_tool_shows_each_of_its_commands(unpacked, program):
    commands = re.search(r"^Commands:\n((?:  .*\n)+)", host(unpacked / f"usr/bin/{program}", "--help"), re.MULTILINE)
    page = host("mandoc", "-T", "ascii", "-O", "width=100", unpacked / f"usr/share/man/man1/{program}.1.gz")
    headings = re.sub(r".\x08", "", page).splitlines()
    names = re.findall(r"^  (\S+)", commands[1], re.MULTILINE)
    assert names
    for name in names:
        assert any(line.startswith(f"   {program} {name}") for line in headings), name


# --- a fresh Debian -----------------------------------------------------------------------------------------------

VOLATILE = ("/proc", "/sys", "/dev", "/tmp", "/var/cache", "/var/log", "/var/lib/apt", "/var/lib/dpkg")


def everything_on(machine):
    """Returns each path but those that any installation changes."""
    prune = [part for folder in VOLATILE for part in ("-path", folder, "-prune", "-o")]
    return set(machine.must_run("find", "/", *prune, "-print").splitlines())


@pytest.fixture(scope="session")
def before(machine, packages):
    """Everything on the machine after the packages that ours depend on, and before ours."""
    depends = [host("dpkg-deb", "--field", file_of(packages, name), "Depends").strip() for name in FILES]
    machine.apt("satisfy", ", ".join(filter(None, depends)))
    return everything_on(machine)


def install(machine, packages, *options):
    for name in FILES:
        shutil.copy(file_of(packages, name), machine.path(f"var/cache/{name}.deb"))
    machine.apt("install", *options, *(f"/var/cache/{name}.deb" for name in FILES))


@pytest.fixture(scope="session")
def installed(machine, packages, before):
    """The machine, whose bus was already running when the packages came."""
    install(machine, packages)
    return machine


@pytest.fixture(scope="session")
def running(installed):
    installed.start_daemon()
    return installed


def test_the_unit_is_valid_and_exposes_little(installed):
    assert installed.must_run("systemd-analyze", "verify", "--man=no", "--recursive-errors=no", UNIT) == ""
    done = installed.run("systemd-analyze", "security", "--offline=true", "--threshold=15", "--no-pager", UNIT)
    assert done.returncode == 0, done.stdout


def test_the_unit_of_a_user_is_valid_and_off(installed):
    verified = installed.run("env", "XDG_RUNTIME_DIR=/run", "systemd-analyze", "--user", "verify", "--man=no",
                             "--recursive-errors=no", SOUND_UNIT)
    assert (verified.returncode, verified.stdout, verified.stderr) == (0, "", "")
    assert installed.run("systemctl", "--global", "is-enabled", "kavrel-sound.service").stdout == "disabled\n"


def test_the_unit_is_enabled(installed):
    assert installed.must_run("systemctl", "is-enabled", "kavrel.service") == "enabled\n"


def modes_below(machine, folder, kind):
    return set(machine.must_run("find", folder, "-type", kind, "-printf", "%m %G:%g\n").splitlines())


def test_the_folders_belong_to_kavrel_and_the_group_audio(installed):
    for folder in ("/run/kavrel", "/run/kavrel/settings", "/var/lib/kavrel"):
        assert installed.must_run("stat", "--format=%a %U:%G", folder) == "2775 kavrel:audio\n", folder
    assert installed.must_run("readlink", "/run/kavrel/settings/db") == "/var/lib/kavrel\n"


def test_the_daemon_runs_as_kavrel_and_fills_the_directory(running):
    assert running.must_run("stat", "--format=%U:%G", "/run/kavrel/audio/master_volume") == "kavrel:audio\n"
    assert running.must_run("kavrelctl", "status")


# --- the bus ------------------------------------------------------------------------------------------------------

ASK = [("GetSpeakerSupportType",), ("GetSpeakerVolume",), ("GetSpeakerMute",)]
CHANGE = [("SetSpeakerVolume", "int32:30"), ("SetSpeakerMute", "boolean:false"), ("ApplyPlayerFadeIn", "int32:1"),
          ("ApplyUnmuteFadeIn", "int32:1"), ("ResetPlayerGain", "int32:1"),
          ("ApplyGainOnMute", "int32:1", "int32:100")]


def called(machine, user, method, *arguments, destination=NAME, path=METHODS_PATH, interface=NAME):
    """Returns how the bus or the program answers a call: "done", or the name of the error."""
    done = machine.run("dbus-send", "--system", "--print-reply", f"--dest={destination}", path, f"{interface}.{method}",
                       *arguments, user=user)
    return "done" if done.returncode == 0 else re.match(r"Error (\S+?):?\s", done.stderr)[1]


@pytest.mark.parametrize("user", ["root", "viewer", "nobody"])
@pytest.mark.parametrize("call", ASK, ids=lambda call: call[0])
def test_everybody_may_ask(running, user, call):
    assert called(running, user, *call) == "done"


@pytest.mark.parametrize("user", ["root", "viewer"])
@pytest.mark.parametrize("call", CHANGE, ids=lambda call: call[0])
def test_root_and_the_group_audio_may_change_the_sound(running, user, call):
    assert called(running, user, *call) == "done"


@pytest.mark.parametrize("call", CHANGE, ids=lambda call: call[0])
def test_others_may_not_change_the_sound(running, call):
    assert called(running, "nobody", *call) == DENIED


@pytest.mark.parametrize("user, answer", [("root", "done"), ("kavrel", "done"), ("viewer", DENIED), ("nobody", DENIED)])
def test_only_kavrel_and_root_may_own_the_name(running, user, answer):
    assert called(running, user, "RequestName", f"string:{NAME}", "uint32:4", destination="org.freedesktop.DBus",
                  path="/org/freedesktop/DBus", interface="org.freedesktop.DBus") == answer


def test_the_signals_of_root_and_the_group_audio_reach_the_daemon_and_no_others(running):
    for reason, user in ((1, "nobody"), (2, "viewer"), (3, "nobody"), (4, "root")):
        running.must_run("busctl", "--system", "emit", SIGNALS_PATH, NAME, "BudsConnected", "i", str(reason), user=user)
        wait_until(lambda: reason % 2 or f"Buds Connected. reason:{reason}" in running.log.read_text(),
                   f"kavreld takes the signal {reason}")
    assert sorted(re.findall(r"Buds Connected\. reason:\d", running.log.read_text())) == [
        "Buds Connected. reason:2", "Buds Connected. reason:4"]


def emit_as_the_daemon(machine, user, number):
    machine.must_run("busctl", "--system", "emit", METHODS_PATH, NAME, "SpeakerVolumeChanged", "ii", "0", str(number),
                     user=user)
    machine.must_run("busctl", "--system", "emit", "/Org/Olvane/KVPopupNoti", "org.olvane.kv_popupnoti", "PopupNoti",
                     "s", str(number), user=user)


@pytest.mark.parametrize("number, impostor, entitled", [(901, "nobody", "kavrel"), (903, "viewer", "root")])
def test_only_kavrel_and_root_can_send_the_signals_of_the_daemon(running, number, impostor, entitled):
    with running.listener("nobody", NAME, "org.olvane.kv_popupnoti") as signals:
        emit_as_the_daemon(running, impostor, number)
        emit_as_the_daemon(running, entitled, number + 1)
        assert {next(signals), next(signals)} == {f"SpeakerVolumeChanged (0, {number + 1})",
                                                  f"PopupNoti ('{number + 1}',)"}


# --- clients ------------------------------------------------------------------------------------------------------

EXAMPLES = "/usr/share/doc/kavrel-dev/examples"
CLIENTS = {"python": "python3 -B volume-bar.py", "c": "./volume-bar", "shell": "./volume-bar.sh"}


@pytest.fixture(scope="session")
def clients(running, before):
    """A folder with the examples, built with the packages that their README.md names."""
    rows = re.findall(r"^\| `.*\| (.*) \|$", running.must_run("cat", f"{EXAMPLES}/README.md"), re.MULTILINE)
    without = everything_on(running)
    running.apt("install", *sorted(set(", ".join(rows).split(", ")) - set(FILES)))
    before |= everything_on(running) - without
    running.must_run("sh", "-ec", f"cp -r {EXAMPLES} /tmp/clients && make -C /tmp/clients", user="viewer")
    return "/tmp/clients"


@pytest.mark.parametrize("language, volume", [("python", 60), ("c", 70), ("shell", 80)])
def test_a_client_in_each_language_follows_the_volume(running, clients, language, volume):
    running.must_run("kavrelctl", "volume", "50", user="viewer")
    with running.view("nobody", "sh", "-c", f"cd {clients} && exec {CLIENTS[language]}") as lines:
        assert next(lines) == "[##########..........]  50%"
        running.must_run("kavrelctl", "volume", str(volume), user="viewer")
        assert next(lines) == f"[{volume // 5 * '#':.<20}]  {volume}%"


# --- the directory ------------------------------------------------------------------------------------------------

VOLUME_FILE = "/run/kavrel/audio/master_volume"


@pytest.mark.parametrize("user", ["root", "viewer", "nobody"])
def test_everybody_reads_the_directory(running, user):
    files = running.must_run("find", "-L", "/run/kavrel", "-name", ".?*", "-prune", "-o", "-type", "f", "-print").split()
    assert VOLUME_FILE in files
    running.must_run("cat", *files, user=user)
    running.must_run("kavrel-tv", "show", user=user)


@pytest.mark.parametrize("user, volume", [("viewer", 41), ("root", 42), ("viewer", 43)])
def test_root_and_the_group_audio_write_files_in_turns(running, user, volume):
    running.must_run("sh", "-c", f"echo {volume} >{VOLUME_FILE}", user=user)
    assert running.must_run("kavrelctl", "volume", user="nobody") == f"{volume}\n"
    running.must_run("kavrelctl", "volume", str(volume + 10), user=user)
    assert running.must_run("cat", VOLUME_FILE, user="nobody") == f"{volume + 10}\n"


@pytest.mark.parametrize("user", ["viewer", "root"])
def test_root_and_the_group_audio_play_the_tv(running, user):
    for key in ("memory", "db"):
        running.must_run("kavrel-tv", "key", f"{key}/test/{user}", "7", user=user)
    running.must_run("kavrel-tv", "volume", "20", user=user)
    assert running.must_run("kavrelctl", "volume", user="nobody") == "20\n"
    assert running.must_run("cat", f"/var/lib/kavrel/test/{user}", user="nobody") == "7\n"


def test_others_may_not_write_the_directory(running):
    before = running.must_run("cat", VOLUME_FILE)
    done = running.run("sh", "-c", f"echo 99 >{VOLUME_FILE}", user="nobody")
    assert done.returncode != 0 and "Permission denied" in done.stderr
    for command in (["volume", "98"], ["key", "db/test/nobody", "1"], ["key", "memory/test/nobody", "1"]):
        done = running.run("kavrel-tv", *command, user="nobody")
        assert done.returncode == 77 and "not allowed: needs root or the group audio" in done.stderr, command
    assert running.must_run("cat", VOLUME_FILE) == before


# Below .tmp each process writes in a folder of its own, before it moves the file to its place.
def test_the_group_audio_may_write_all_that_was_made(running):
    for folder in ("/run/kavrel", "/var/lib/kavrel"):
        found = running.must_run("find", folder, "-path", "*/.tmp/*", "-prune", "-o", "-not", "-type", "l", "-not", "(",
                                 "-group", "audio", "-perm", "-020", "-not", "-perm", "-002", ")", "-print")
        assert found == ""


# --- upgrade, restart of the machine, removal ---------------------------------------------------------------------

# Debian notes here that the unit is enabled, for the next installation.
ENABLED = ("/etc/systemd/system/multi-user.target.wants", "/var/lib/systemd/deb-systemd-helper-enabled",
           "/var/lib/systemd/deb-systemd-user-helper-enabled")
SETTING = "/run/kavrel/settings/{}/test/viewer"


def test_an_installation_over_the_same_version_keeps_settings_and_volume(running, packages):
    owners = running.must_run("stat", "--format=%n %a %U:%G", "/run/kavrel", "/run/kavrel/settings", "/var/lib/kavrel")
    install(running, packages, "--reinstall")
    for key in ("memory", "db"):
        assert running.must_run("cat", SETTING.format(key)) == "7\n"
    assert running.must_run("stat", "--format=%n %a %U:%G", "/run/kavrel", "/run/kavrel/settings",
                            "/var/lib/kavrel") == owners
    running.end_daemon()
    running.start_daemon()
    assert running.must_run("kavrelctl", "volume") == "20\n"


def test_a_restart_of_the_machine_keeps_the_lasting_settings_alone(running):
    running.shut_down()
    running.boot()
    running.must_run("systemd-tmpfiles", "--create", "--remove", "--boot", "kavrel.conf")
    running.start_daemon()
    assert running.must_run("cat", SETTING.format("db")) == "7\n"
    assert running.run("cat", SETTING.format("memory")).returncode == 1
    assert called(running, "viewer", "SetSpeakerVolume", "int32:31") == "done"
    assert called(running, "nobody", "SetSpeakerVolume", "int32:32") == DENIED


def test_a_removal_leaves_the_settings_and_the_state_of_the_tv(running, before):
    running.end_daemon()
    running.apt("remove", *FILES)
    left = everything_on(running) - before
    assert SETTING.format("db").replace("/run/kavrel/settings/db", "/var/lib/kavrel") in left
    assert {path for path in left if not path.startswith(("/run/kavrel", "/var/lib/kavrel", *ENABLED))} == set()


def test_a_purge_empties_a_folder_that_is_a_mount(running):
    # Without --no-mtab, mount makes /run/mount.
    running.must_run("mount", "--no-mtab", "--bind", "/run/kavrel", "/run/kavrel")
    assert running.must_run("ls", "-A", "/run/kavrel")
    running.apt("purge", "kavrel", "kavrel-sound")  # a removal leaves nothing of the packages without a unit
    assert running.must_run("ls", "-A", "/run/kavrel") == ""
    running.must_run("umount", "--no-mtab", "/run/kavrel")
    running.must_run("rmdir", "/run/kavrel")


def test_a_purge_leaves_only_the_user(running, before):
    after = everything_on(running)
    assert after - before == set()
    assert {path for path in before - after if not path.startswith("/run/")} == set()  # /run was empty after the restart
    assert running.must_run("getent", "passwd", "kavrel").startswith("kavrel:")
    assert called(running, "nobody", "GetSpeakerVolume") == "org.freedesktop.DBus.Error.ServiceUnknown"
