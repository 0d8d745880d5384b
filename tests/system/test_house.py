# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""The rules of the house that no compiler checks: which files may include which, and the libraries that each needs."""
import fnmatch
import json
import os
import re
import subprocess
from pathlib import Path

import pytest

from harness import ROOT

BUILD = Path(os.environ["KAVREL_BUILD"])
SEAM = sorted(path.name for path in (ROOT / "platform/include").glob("*.h"))
SOURCES = sorted((ROOT / "src").glob("*.cpp"))
HEADERS = sorted((ROOT / "src").glob("*.h")) + sorted((ROOT / "include_internal").glob("*.h"))
C_HEADERS = {"assert.h", "stdbool.h", "stddef.h", "stdint.h"}
SYSTEM = {"malloc.h", "pthread.h", "unistd.h"}  # the C library beyond the standard headers


def includes_of(path):
    """Returns [(opening bracket or quote, name)]."""
    return re.findall(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', path.read_text(), re.M)


def name_of(path):
    return str(path.relative_to(ROOT))


def flags_of(*packages):
    return subprocess.run(["pkg-config", "--cflags", *packages], capture_output=True, text=True,
                          check=True).stdout.split()


def test_the_seam_is_eight_headers():
    assert SEAM == ["audio_control.h", "audio_hal.h", "dlog.h", "lwipc.h", "resource_center.h", "sound_manager.h",
                    "system_info.h", "vconf.h"]


@pytest.mark.parametrize("header", SEAM)
def test_seam_headers_include_only_standard_headers_and_are_c(header):
    path = ROOT / "platform/include" / header
    assert {name for _bracket, name in includes_of(path)} <= C_HEADERS
    subprocess.run(["gcc", "-std=c11", "-fsyntax-only", "-Wall", "-Wextra", "-Werror", "-x", "c", path], check=True)


@pytest.mark.parametrize("path", SOURCES + HEADERS, ids=name_of)
def test_the_daemon_includes_its_own_headers_the_seam_and_its_two_libraries(path):
    own = {header.name for header in HEADERS}
    for bracket, name in includes_of(path):
        if bracket == '"':
            assert name in own
        else:
            is_standard = "." not in name and "/" not in name
            assert is_standard or name in {*SEAM, *SYSTEM} or re.match(r"(glib|gio/gio)\.h|json/\w+\.h", name), name


@pytest.mark.parametrize("path", sorted((ROOT / "platform").rglob("*.[ch]*")), ids=name_of)
def test_the_platform_includes_nothing_of_the_daemon(path):
    daemon = {header.name for header in HEADERS}
    for _bracket, name in includes_of(path):
        assert name.rpartition("/")[2] not in daemon
        assert "src/" not in name and "include_internal" not in name


def test_the_sources_compile_with_three_include_paths_and_two_libraries():
    """The build has compiled them, so its commands show it. Its own folders hold no header."""
    commands = [command for command in json.loads((BUILD / "compile_commands.json").read_text())
                if command["output"].startswith("src/") and (BUILD / command["file"]).resolve() in SOURCES]
    assert len(commands) == len(SOURCES)
    allowed = {ROOT / folder for folder in ("src", "include_internal", "platform/include")} | {
        Path(flag[2:]) for flag in flags_of("gio-2.0", "jsoncpp") if flag.startswith("-I")}
    for command in commands:
        words = command["command"].split()
        folders = {(BUILD / word[2:]).resolve() for word in words if word.startswith("-I")}
        assert not [header for folder in folders - allowed for header in folder.glob("*.h")]
        assert {word for word in words if word.startswith("-D")} <= {"-D_FILE_OFFSET_BITS=64", "-D_GLIBCXX_ASSERTIONS"}
        assert "-std=c++20" in words
        assert "-include" not in words


@pytest.mark.parametrize("source", [source for source in SOURCES if source.name != "main.cpp"], ids=name_of)
def test_each_source_has_its_header(source):
    assert source.with_suffix(".h").exists()


def test_only_main_has_main():
    assert [name_of(source) for source in SOURCES if re.search(r"^int main\(", source.read_text(), re.M)] == [
        "src/main.cpp"]


def cases_of(program):
    """Returns the names of all cases of a test program."""
    suite, cases = "", []
    for line in subprocess.run([program, "--gtest_list_tests"], capture_output=True, text=True, check=True).stdout.splitlines():
        name = line.split("#")[0].rstrip()
        if name.startswith("  "):
            cases.append(suite + name.strip())
        elif name.endswith("."):
            suite = name
    return cases


def is_chosen(case, chosen):
    """Whether --gtest_filter=PATTERN:...-PATTERN:... chooses a case."""
    wanted, _, unwanted = chosen.partition("-")
    return any(fnmatch.fnmatchcase(case, pattern) for pattern in (wanted or "*").split(":")) and \
        not any(fnmatch.fnmatchcase(case, pattern) for pattern in unwanted.split(":"))


def test_each_case_of_a_test_program_belongs_to_one_test():
    described = json.loads(subprocess.run(["meson", "introspect", "--tests", BUILD], capture_output=True, check=True).stdout)
    filters = {}
    for test in described:
        for argument in test["cmd"]:
            if argument.startswith("--gtest_filter="):
                filters.setdefault(test["cmd"][0], []).append(argument.partition("=")[2])
    assert len(filters) >= 3
    for program, chosen in filters.items():
        assert {case: number for case in cases_of(program)
                if (number := sum(is_chosen(case, part) for part in chosen)) != 1} == {}, program


def test_the_tracer_logs_on_its_two_lines():
    lines = (ROOT / "include_internal/KVDebug.h").read_text().splitlines()
    assert "[IN]" in lines[53 - 1] and "[OUT]" in lines[58 - 1]


@pytest.mark.parametrize("script", ["run", "test", "bench", "lint", ".ci/run", ".ci/long", ".ci/steps.sh", "scripts/lib.sh", "scripts/install-packages",
                                    "scripts/fuzz", "scripts/test-packages", "scripts/test-sound", "scripts/coverage", "scripts/flakes"])
def test_scripts_are_valid_bash(script):
    subprocess.run(["bash", "-n", ROOT / script], check=True)
