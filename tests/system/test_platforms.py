# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests how the build chooses a platform: its options, their errors, and what it leaves out."""
import json
import subprocess

import pytest

from harness import ROOT

EXTERNAL = "-Dplatform=external"


def set_up(folder, *options):
    """Sets a build directory up; returns the exit status and what meson says."""
    done = subprocess.run(["meson", "setup", "--buildtype=debug", *options, folder, ROOT], capture_output=True,
                          text=True, stdin=subprocess.DEVNULL, check=False)
    return done.returncode, done.stdout


def introspect(folder, what):
    done = subprocess.run(["meson", "introspect", what, folder], capture_output=True, text=True, check=True)
    return json.loads(done.stdout)


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


def test_an_external_platform_leaves_out_what_needs_a_tv_in_a_directory(tmp_path):
    status, said = set_up(tmp_path / "build", EXTERNAL, "-Dplatform_libs=m", "-Dtools=false", "-Dtests=true")
    assert status == 0, said
    assert "CLI11" not in said
    programs = {target["name"] for target in introspect(tmp_path / "build", "--targets") if target["type"] == "executable"}
    assert "kavreld" in programs
    assert not programs & {"kavrelctl", "kavrel-tv", "host-tests"}
    suites = {suite for test in introspect(tmp_path / "build", "--tests") for suite in test["suite"]}
    assert {"kavrel:unit", "kavrel:component", "kavrel:fuzz"} <= suites
    assert not suites & {"kavrel:host", "kavrel:system"}


def test_the_installation_of_an_external_platform_has_no_tv_directory(tmp_path):
    status, said = set_up(tmp_path / "build", EXTERNAL, "-Dplatform_libs=m")
    assert status == 0, said
    installed = introspect(tmp_path / "build", "--installed").values()
    assert "/usr/bin/kavrelctl" in installed
    assert not {"/usr/bin/kavrel-tv", "/usr/lib/tmpfiles.d/kavrel.conf"} & set(installed)
    unit = (tmp_path / "build/data/kavrel.service").read_text().splitlines()
    settings = [line for line in unit if not line.startswith("#")]
    assert "BusName=org.olvane.kavrel" in settings
    assert not [line for line in settings if "/run/kavrel" in line or "PrivateDevices" in line]
    assert "# Environment=KAVREL_TV_DIR=/run/kavrel" in unit
