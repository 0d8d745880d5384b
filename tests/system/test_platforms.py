# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests how the build chooses a platform, and kavreld on the template of one."""
import errno
import json
import os
import re
import shutil
import subprocess

import pytest

from harness import ROOT

EXTERNAL = "-Dplatform=external"


def run(*command):
    done = subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


def set_up(folder, *options):
    """Sets a build directory up; returns the exit status and what meson says."""
    done = subprocess.run(["meson", "setup", "--buildtype=plain", *options, folder, ROOT], capture_output=True,
                          text=True, stdin=subprocess.DEVNULL, check=False)
    return done.returncode, done.stdout


def introspect(folder, what):
    return json.loads(run("meson", "introspect", what, folder))


@pytest.mark.parametrize("options, error", [
    ([EXTERNAL], "platform=external needs the libraries to link"),
    ([EXTERNAL, "-Dplatform_libs=nothere"], '"nothere" is not found. There is neither nothere.pc in the folders of pkg-config'),
    ([EXTERNAL, "-Dplatform_libs=/nowhere/libtv.a"], 'platform_libs: there is no file "/nowhere/libtv.a"'),
    ([EXTERNAL, "-Dplatform_libs=tv/libtv.a"], 'platform_libs: "tv/libtv.a" has to be a name or an absolute path'),
    ([EXTERNAL, "-Dplatform_libs=m", "-Dplatform_adapter=tv/adapter.cpp"], f'there is no file "{ROOT}/tv/adapter.cpp"'),
    (["-Dplatform_libs=m"], "add -Dplatform=external"),
    (["-Dplatform_adapter=adapter.cpp"], "add -Dplatform=external"),
    (["-Dbenchmarks=true", "-Dtools=false"], "the benchmarks need platform=host and tools=true"),
])
def test_a_wrong_choice_of_platform_is_named(tmp_path, options, error):
    status, said = set_up(tmp_path / "build", *options)
    assert status != 0
    assert error in said


@pytest.fixture(scope="module")
def external(tmp_path_factory):
    """A build directory with an external platform, only set up."""
    folder = tmp_path_factory.mktemp("external")
    status, said = set_up(folder, EXTERNAL, "-Dplatform_libs=m", "-Dtests=true")
    assert status == 0, said
    return folder


def test_an_external_platform_leaves_out_what_needs_a_tv_in_a_directory(external):
    programs = {target["name"] for target in introspect(external, "--targets") if target["type"] == "executable"}
    assert {"kavreld", "kavrelctl"} <= programs
    assert not programs & {"kavrel-tv", "host-tests", "floor"}
    suites = {suite for test in introspect(external, "--tests") for suite in test["suite"]}
    assert {"kavrel:unit", "kavrel:component", "kavrel:fuzz"} <= suites
    assert not suites & {"kavrel:host", "kavrel:system"}


def test_the_installation_of_an_external_platform_has_no_tv_directory(external):
    installed = introspect(external, "--installed").values()
    assert "/usr/bin/kavrelctl" in installed
    assert not {"/usr/bin/kavrel-tv", "/usr/lib/tmpfiles.d/kavrel.conf"} & set(installed)
    unit = (external / "data/kavrel.service").read_text().splitlines()
    settings = [line for line in unit if not line.startswith("#")]
    assert "BusName=org.olvane.kavrel" in settings
    assert not [line for line in settings if "/run/kavrel" in line or "PrivateDevices" in line]
    assert "# Environment=KAVREL_TV_DIR=/run/kavrel" in unit


TEMPLATE = ROOT / "platform/template"
NOT_THERE = -1000 - errno.ENOSYS


@pytest.fixture(scope="module")
def project(tmp_path_factory):
    """The template's project, copied out of the tree and set up with the headers from elsewhere."""
    folder = tmp_path_factory.mktemp("tv")
    shutil.copytree(TEMPLATE, folder / "tv")
    run("meson", "setup", "--werror", f"-Dseam={ROOT}/platform/include", folder / "tv/build", folder / "tv")
    run("ninja", "-C", folder / "tv/build")
    return folder


@pytest.fixture(scope="module")
def kavreld(project):
    """A kavreld that is linked with the template, from a build without tools."""
    library = project / "tv/build/libtvplatform.a"
    status, said = set_up(project / "build", "--unity=on", "-Dtools=false", EXTERNAL, f"-Dplatform_libs={library}")
    assert status == 0, said
    assert "CLI11" not in said
    run("ninja", "-C", project / "build", "src/kavreld")
    return shutil.copy(project / "build/src/kavreld", project / "kavreld-template")


@pytest.fixture(scope="module")
def kavreld_of_the_example(project, kavreld):
    """A kavreld that is linked anew after the page's example has replaced a source of the template."""
    example, page = [], (ROOT / "docs/porting.md").read_text().splitlines()
    for line in page[page.index("    #include <audio_hal.h>"):]:
        if line and not line.startswith("    "):
            break
        example.append(line.removeprefix("    ") + "\n")
    (project / "tv/audio_hal.cpp").write_text("".join(example))
    sources = project / "tv/meson.build"
    sources.write_text(sources.read_text().replace("audio_hal.c'", "audio_hal.cpp'"))
    run("ninja", "-C", project / "tv/build")
    run("ninja", "-C", project / "build", "src/kavreld")
    return project / "build/src/kavreld"


def start(scene, kavreld, **environment):
    """Starts this kavreld in the scene; returns it and a client."""
    scene.kavreld = (kavreld,)
    daemon = scene.launch(LD_PRELOAD="", **environment)
    client = scene.client()
    client.wait_for_owner(daemon)
    return daemon, client


def test_the_template_is_c_and_cpp(tmp_path):
    warnings = ("-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only", f"-I{ROOT}/platform/include")
    sources = sorted(TEMPLATE.glob("*.c"))
    assert len(sources) == 8
    run("gcc", "-std=c11", *warnings, *sources)
    run("g++", "-std=c++20", *warnings, "-x", "c++", *sources)


def test_the_template_has_every_function_of_the_headers(project):
    declared = set()
    for header in (ROOT / "platform/include").glob("*.h"):
        declared |= set(re.findall(r"^(?:int|char\*|AudioControl\*) (\w+)\(", header.read_text(), re.M))
    symbols = run("nm", "--defined-only", "--extern-only", "--format=just-symbols", project / "tv/build/libtvplatform.a")
    assert {symbol for symbol in symbols.split("\n") if symbol and not symbol.endswith(":")} == declared


def test_kavreld_starts_on_the_template_and_names_what_is_missing(scene, kavreld):
    daemon, _client = start(scene, kavreld)
    page = (ROOT / "docs/porting.md").read_text().partition("logs these errors")[2]
    listed = [line.strip() for line in page.split("\n\n")[1].splitlines()]
    daemon.settle()
    assert [line.text for line in daemon.log.lines() if line.priority in "WE"] == listed


def test_kavreld_on_the_template_answers_every_call(scene, kavreld):
    _daemon, client = start(scene, kavreld)
    for method, signature, arguments, answer in (
            ("GetSpeakerSupportType", "", (), (0xFFFF, 0)),
            ("SetSpeakerVolume", "i", (30,), (NOT_THERE,)),
            ("SetSpeakerVolume", "i", (101,), (-2,)),
            ("GetSpeakerVolume", "", (), (0, NOT_THERE)),
            ("SetSpeakerMute", "b", (True,), (NOT_THERE,)),
            ("GetSpeakerMute", "", (), (0, NOT_THERE)),
            ("ApplyPlayerFadeIn", "i", (3,), (-1,)),
            ("ApplyUnmuteFadeIn", "i", (3,), (-1,)),
            ("ResetPlayerGain", "i", (3,), (-1,)),
            ("ResetPlayerGain", "i", (0,), (-2,)),
            ("ApplyGainOnMute", "ii", (3, 50), (-1,))):
        assert client.call(method, signature, *arguments) == answer, method
    client.expect_silence()


def test_the_example_of_the_page_makes_volume_and_mute_work(scene, kavreld_of_the_example):
    pipe = scene.folder / "remote"
    os.mkfifo(pipe)
    _daemon, client = start(scene, kavreld_of_the_example, TV_REMOTE=str(pipe))
    assert (client.get_volume(), client.get_mute()) == ((10, 0), (0, 0))
    assert client.set_volume(30) == 0
    client.expect("SpeakerVolumeChanged", 0xFFFF, 30)
    assert client.set_mute(True) == 0
    client.expect("SpeakerMuteChanged", 0xFFFF, True)
    pipe.write_text("volume 45\nmute 0\n")
    client.expect("SpeakerVolumeChanged", 0xFFFF, 45)
    client.expect("SpeakerMuteChanged", 0xFFFF, False)
    assert (client.get_volume(), client.get_mute()) == ((45, 0), (0, 0))
    client.expect_silence()
