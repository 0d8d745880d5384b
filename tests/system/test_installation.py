# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the installed files: the programs, activation, the unit, the user, and the values that a TV loses at boot."""
import configparser
import grp
import json
import os
import re
import subprocess
from pathlib import Path

import pytest

from harness import NAME, READY, ROOT
from installation import install, make_users, run_tmpfiles

PREFIX = "usr"


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    """The root folder of an installation."""
    folder = tmp_path_factory.mktemp("installed")
    install(folder)
    return folder


def unit_of(path):
    """Returns {section: [(key, value)]}, since keys may repeat."""
    sections, section = {}, None
    for line in path.read_text().splitlines():
        if line.startswith("["):
            section = sections.setdefault(line.strip("[]"), [])
        elif "=" in line and not line.startswith("#"):
            section.append(tuple(line.split("=", 1)))
    return sections


def test_each_file_is_in_its_place(installed):
    for path in ("bin/kavreld", "lib/systemd/system/kavrel.service", "lib/sysusers.d/kavrel.conf",
                 "lib/tmpfiles.d/kavrel.conf",
                 "share/dbus-1/interfaces/org.olvane.kavrel.xml", "share/dbus-1/system.d/org.olvane.kavrel.conf",
                 "share/dbus-1/system-services/org.olvane.kavrel.service"):
        assert (installed / PREFIX / path).is_file(), path


def test_the_acceptance_kit_is_a_project_that_can_be_set_up(installed, tmp_path):
    adapter = ROOT / "platform/kit/host_adapter.cpp"
    done = subprocess.run(["meson", "setup", "-Dplatform_libs=m", f"-Dplatform_adapter={adapter}", tmp_path / "kit",
                           installed / PREFIX / "share/kavrel/kit"], capture_output=True, text=True, check=False,
                          stdin=subprocess.DEVNULL)
    assert done.returncode == 0, done.stdout
    commands = json.loads((tmp_path / "kit/compile_commands.json").read_text())
    sources = {(tmp_path / "kit" / command["file"]).resolve() for command in commands}
    assert adapter in sources
    assert {source.name for source in sources} == {path.name for path in (ROOT / "platform/kit").glob("*.cpp")}
    for header in ("vconf.h", "dlog.h"):
        assert (installed / PREFIX / "share/kavrel/include" / header).is_file()


def read_elf(*arguments):
    return subprocess.run(["readelf", "--wide", *arguments], capture_output=True, text=True, check=True).stdout


@pytest.mark.parametrize("program", ["kavreld", "kavrelctl", "kavrel-tv"])
def test_the_programs_are_hardened(installed, program):
    path = installed / PREFIX / "bin" / program
    if os.environ["KAVREL_SANITIZER"] != "none":
        return  # a build with a sanitizer is never installed
    assert re.search(r"Type: +DYN", read_elf("--file-header", path))
    assert re.search(r"Flags:.* NOW PIE", read_elf("--dynamic", path))
    assert "GNU_RELRO" in read_elf("--segments", path)
    assert re.search(r"__stack_chk_fail", read_elf("--dyn-syms", path))
    if os.uname().machine == "x86_64":
        code = subprocess.run(["objdump", "--disassemble", path], capture_output=True, text=True, check=True).stdout
        assert re.search(r"<main>:\n.*endbr64", code)  # the mark of control-flow protection


def test_a_release_build_checks_buffers_and_the_stack(tmp_path):
    subprocess.run(["meson", "setup", tmp_path / "build", ROOT], check=True, capture_output=True,
                   stdin=subprocess.DEVNULL)
    commands = json.loads((tmp_path / "build/compile_commands.json").read_text())
    sources = [command for command in commands
               if (Path(command["directory"]) / command["file"]).resolve().parent == ROOT / "src"]
    assert sources
    for command in sources:
        for flag in ("-D_FORTIFY_SOURCE=2", "-fstack-protector-strong", "-fstack-clash-protection", "-Os"):
            assert flag in command["command"].split(), command["file"]


def test_the_unit_is_valid(installed):
    unit = installed / PREFIX / "lib/systemd/system/kavrel.service"
    text = unit.read_text().replace("ExecStart=/", f"ExecStart={installed}/")
    copy = installed / "kavrel.service"
    copy.write_text(text)
    done = subprocess.run(["systemd-analyze", "verify", "--man=no", "--recursive-errors=no", copy],
                          capture_output=True, text=True, check=False)
    assert (done.returncode, done.stderr) == (0, "")


def test_the_unit_starts_what_is_installed_after_the_bus_and_always_again(installed):
    unit = unit_of(installed / PREFIX / "lib/systemd/system/kavrel.service")
    service = dict(unit["Service"])
    assert service["ExecStart"] == f"/{PREFIX}/bin/kavreld"
    assert (service["Type"], service["BusName"]) == ("dbus", NAME)
    assert service["Restart"] == "always"
    assert int(service["TimeoutStartSec"]) <= 60
    assert dict(unit["Unit"])["After"] == "dbus.service"


def test_the_unit_bounds_what_kavreld_may_use_and_never_gives_up(installed):
    unit = unit_of(installed / PREFIX / "lib/systemd/system/kavrel.service")
    service = dict(unit["Service"])
    assert (service["MemoryMax"], service["LimitNOFILE"]) == ("256M", "8192")
    assert dict(unit["Unit"])["StartLimitIntervalSec"] == "0"


def test_the_unit_exposes_little(installed):
    unit = installed / PREFIX / "lib/systemd/system/kavrel.service"
    done = subprocess.run(["systemd-analyze", "security", "--offline=yes", "--threshold=15", "--no-pager", unit],
                          capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stdout


def test_the_unit_withdraws_the_ready_event_of_its_tv(installed):
    service = dict(unit_of(installed / PREFIX / "lib/systemd/system/kavrel.service")["Service"])
    tv = re.fullmatch(r"KAVREL_TV_DIR=(\S+)", service["Environment"]).group(1)
    assert service["ExecStopPost"].replace("%%", "%").split()[-1] == f"{tv}/{READY}"
    assert service["ReadWritePaths"] == tv


def test_the_unit_runs_kavreld_as_its_user_and_lets_it_see_its_callers(installed):
    service = dict(unit_of(installed / PREFIX / "lib/systemd/system/kavrel.service")["Service"])
    assert (service["User"], service["Group"], service["UMask"]) == ("kavrel", "audio", "0002")
    assert (service["StateDirectory"], service["StateDirectoryMode"]) == ("kavrel", "2775")
    assert not service.keys() & {"RuntimeDirectory", "ProtectProc", "ProcSubset", "PrivateUsers"}


def test_activation_goes_through_the_unit(installed):
    parser = configparser.ConfigParser()
    parser.optionxform = str
    parser.read(installed / PREFIX / "share/dbus-1/system-services/org.olvane.kavrel.service")
    assert dict(parser["D-BUS Service"]) == {"Name": NAME, "Exec": "/bin/false", "User": "kavrel",
                                             "SystemdService": "kavrel.service"}


@pytest.fixture
def system(tmp_path):
    """The root folder of a system with kavrel's user."""
    make_users(tmp_path)
    return tmp_path


def test_kavrel_is_a_system_user_of_the_group_audio_without_a_shell(system):
    name, _, uid, gid, _, _, shell = (system / "etc/passwd").read_text().strip().split(":")
    assert (name, int(gid), shell) == ("kavrel", grp.getgrnam("audio").gr_gid, "/usr/sbin/nologin")
    assert 0 < int(uid) < 1000


def test_a_boot_forgets_the_settings_memory_and_nothing_else(system):
    for key in ("memory/sysman/spdif", "db/usbsound/volume_level"):
        file = system / "run/kavrel/settings" / key
        file.parent.mkdir(parents=True)
        file.write_text("1\n")
    run_tmpfiles(system, "--remove")
    assert (system / "run/kavrel/settings/memory").exists()  # an upgrade keeps the settings
    run_tmpfiles(system, "--remove", "--boot")
    assert not (system / "run/kavrel/settings/memory").exists()
    assert (system / "run/kavrel/settings/db/usbsound/volume_level").exists()


def test_the_errors_of_a_plain_first_start_are_those_that_the_operators_page_lists(daemon):
    page = (ROOT / "docs/operation.md").read_text().partition("**The first start**")[2]
    listed = [line.strip() for line in page.split("\n\n")[1].splitlines()]
    daemon.settle()
    assert [line.text for line in daemon.log.lines() if line.priority in "WE"] == listed
