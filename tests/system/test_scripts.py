# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the parts that ./run, ./test and ./bench share: installing packages, counting tests."""
import json
import os
import re
import shutil
import subprocess

import pytest

from harness import ROOT

LIB = ROOT / "scripts/lib.sh"
SUMMARY = ROOT / "scripts/summary.py"


@pytest.fixture
def shell(tmp_path):
    """Runs a script that has sourced lib.sh, with stand-ins for the commands of a machine first on its PATH."""
    commands = tmp_path / "commands"
    commands.mkdir()

    def stand_in(name, script):
        (commands / name).write_text(f'#!/bin/sh\necho "{name} $*" >>{tmp_path}/calls\n{script}\n')
        (commands / name).chmod(0o755)

    def run(script, **stand_ins):
        for name, text in {"id": "echo 1000", "apt-get": "", "dpkg": "", "dpkg-query": "", **stand_ins}.items():
            stand_in(name.replace("_", "-"), text)
        done = subprocess.run(["bash", "-c", f"source {LIB}; {script}", "./run"], capture_output=True, text=True,
                              stdin=subprocess.DEVNULL, timeout=60, check=False,
                              env={**os.environ, "PATH": f"{commands}:{os.environ['PATH']}", "HERE": str(tmp_path)})
        calls = (tmp_path / "calls").read_text().splitlines() if (tmp_path / "calls").exists() else []
        return done, calls

    return run


SUDO = '[ "$1" != -n ] || shift; exec "$@"'
MISSING = 'proof[one]="$HERE/one"; proof[two]=no-such-command; proof[three]=sh; need one two three'
INSTALL = "apt-get update && apt-get install -y --no-install-recommends one two"


def test_where_nothing_is_missing_nothing_is_asked(shell):
    done, calls = shell('need "${to_run[@]}" "${to_test[@]}"')
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert calls == []


def test_without_root_the_missing_packages_and_the_line_that_installs_them_are_named(shell):
    done, calls = shell(MISSING, sudo="exit 1")
    assert done.returncode == 1
    assert done.stdout == ""
    assert done.stderr.splitlines() == ["./run: these Debian packages are missing: one two",
                                        f"./run: as root, this installs them: {INSTALL}"]
    assert not any(call.startswith("apt-get") for call in calls)


def test_with_sudo_the_missing_packages_are_installed_and_named(shell):
    done, calls = shell(f'{MISSING} && echo "needs met"', sudo=SUDO,
                        apt_get='case $1 in install) touch "$HERE/one"; ln -s /bin/true "$HERE/commands/no-such-command";; esac')
    assert done.returncode == 0, done.stderr
    assert done.stdout == "needs met\n"
    assert done.stderr.splitlines()[0] == "./run: installing the Debian packages one two"
    assert [call for call in calls if call.startswith("apt-get")] == [
        "apt-get update", "apt-get install -y --no-install-recommends one two"]


def test_what_the_installation_prints_is_no_output_of_run(shell):
    done, _ = shell(MISSING, sudo=SUDO,
                    apt_get='echo Reading; touch "$HERE/one"; ln -sf /bin/true "$HERE/commands/no-such-command"')
    assert done.stdout == ""
    assert "Reading" in done.stderr


def test_a_failed_installation_ends_it(shell):
    done, _ = shell(f"{MISSING}; echo went on", sudo=SUDO, apt_get="exit 100")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.splitlines()[-1] == f"./run: the packages could not be installed; as root, this installs them: {INSTALL}"


def test_an_installation_that_brings_nothing_is_noticed(shell):
    done, _ = shell(MISSING, sudo=SUDO)
    assert done.returncode == 1
    assert done.stderr.splitlines()[-1] == "./run: still not there after the installation: one two"


def test_a_command_can_install_a_package_of_its_own(shell):
    done, calls = shell(f"{ROOT}/scripts/install-packages gnuplot-nox")
    assert (done.returncode, done.stdout, done.stderr, calls) == (0, "", "", [])
    done, calls = shell(f"{ROOT}/scripts/install-packages no-such-package")
    assert (done.returncode, done.stderr, calls) == (
        1, "install-packages: lib.sh does not know the package no-such-package\n", [])


def test_run_needs_the_fewest_packages(shell):
    done, _ = shell('echo "${#to_run[@]} ${#to_test[@]} ${#to_bench[@]}"; for p in "${to_run[@]}"; do '
                    'case " ${to_test[*]} ${to_bench[*]} " in *" $p "*" $p "*) ;; *) echo "$p";; esac; done')
    counts, *unshared = done.stdout.splitlines()
    run, test, bench = map(int, counts.split())
    assert run < test and run < bench
    assert unshared == []


MESON = 'mkdir -p "$HERE/build/release" "$HERE/build/test"; echo noise; exit ${FAILS-0}'


def test_a_first_build_says_how_long_it_takes_and_shows_progress(shell):
    done, _ = shell('root=$HERE; build_release', meson=MESON, ninja='echo "[1/70] a step"')
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "./run: first build: about a minute\n[1/70] a step\n")
    done, _ = shell('root=$HERE; mkdir -p "$root/build/release/src"; touch "$root/build/release/src/kavreld"; build_release',
                    meson=MESON, ninja='echo "[1/70] a step"')
    assert (done.returncode, done.stderr) == (0, "[1/70] a step\n")


def test_meson_speaks_only_when_it_fails(shell):
    done, _ = shell('root=$HERE; export FAILS=1; build test', meson=MESON)
    assert (done.returncode, done.stdout) == (1, "")
    assert re.fullmatch(r"./run: meson could not set up \S+/build/test: noise\n", done.stderr)


def test_what_lists_the_tests_builds_nothing(shell):
    done, calls = shell('root=$HERE; set_up test', meson=MESON, ninja="echo a step")
    assert done.returncode == 0, done.stderr
    assert [re.sub(r"-j \d+", "-j N", call) for call in calls if call.startswith("ninja")] == [
        "ninja -n build.ninja", "ninja -j N build.ninja"]


# --- many runs, and long ones ------------------------------------------------------------------------------------

@pytest.fixture
def copy(tmp_path):
    """Runs a script of this tree in a copy that has stand-ins for ./test and ./lint."""
    for folder in (".ci", "scripts"):
        shutil.copytree(ROOT / folder, tmp_path / folder)
    (tmp_path / "docs").mkdir()

    def run(script, *arguments, **stand_ins):
        for name, text in stand_ins.items():
            (tmp_path / name).write_text(f"#!/bin/sh\n{text}\n")
            (tmp_path / name).chmod(0o755)
        environment = {name: value for name, value in os.environ.items() if name != "KAVREL_SHAKE"}
        return subprocess.run([tmp_path / script, *arguments], capture_output=True, text=True, timeout=60, check=False,
                              env=environment, stdin=subprocess.DEVNULL)

    run.root = tmp_path
    return run


AGAIN = 'echo "$KAVREL_SHAKE $(nproc) $*" | sed "s/^[0-9][0-9]* /SEED /" >>"${0%/*}/calls"; echo "3 passed, 0 failed"'


def test_flakes_takes_turns_between_its_ways(copy):
    done = copy("scripts/flakes", "4", "unit", test=AGAIN)
    assert (done.returncode, done.stderr) == (0, "")
    assert [re.sub(r"\d+ s$", "N s", line) for line in done.stdout.splitlines()] == [
        "1 of 4, shaken: 3 passed, 0 failed, N s", "2 of 4, under load: 3 passed, 0 failed, N s",
        "3 of 4, on one processor: 3 passed, 0 failed, N s", "4 of 4, shaken: 3 passed, 0 failed, N s", "4 of 4 runs passed"]
    all_processors = len(os.sched_getaffinity(0))
    assert (copy.root / "calls").read_text().splitlines() == [
        f"SEED {all_processors} shake unit", f" {all_processors} plain unit", " 1 plain unit", f"SEED {all_processors} shake unit"]


def test_flakes_names_what_failed_and_goes_on(copy):
    failing = 'echo "failed: a test"; echo "2 passed, 1 failed"; [ "$1" = plain ]'
    done = copy("scripts/flakes", "2", test=failing)
    assert done.returncode == 1
    assert [re.sub(r"\d+ s$", "N s", line) for line in done.stdout.splitlines()] == [
        "1 of 2, shaken: 2 passed, 1 failed, N s", "failed: a test", "2 of 2, under load: 2 passed, 1 failed, N s",
        "failed: a test", "1 of 2 runs passed"]


def test_the_long_proofs_go_on_after_a_failure_and_note_their_results(copy):
    table = copy.root / "docs/testing.md"
    table.write_text("before\n| `lint` | not run | | | |\n| `soak` | not run | | | |\nafter\n")
    done = copy(".ci/long", "--note", "lint", "soak", lint="echo lint: a finding; exit 1", test='echo "$*"; echo verdict: fine')
    assert done.returncode == 1
    lines = table.read_text().splitlines()
    assert re.fullmatch(r"\| `lint` \| FAILED \| lint: a finding \| \d+ min \| no clone, \d{4}-\d\d-\d\d \|", lines[1])
    assert re.fullmatch(r"\| `soak` \| passed \| verdict: fine \| \d+ min \| no clone, \d{4}-\d\d-\d\d \|", lines[2])
    assert (lines[0], lines[3:]) == ("before", ["after"])
    assert done.stdout.splitlines()[-2:] == lines[1:3]
    assert (copy.root / "build/long/soak.log").read_text().splitlines()[1] == "soak 600"


def test_the_long_proofs_refuse_a_step_that_they_do_not_have(copy):
    done = copy(".ci/long", "everything")
    assert (done.returncode, done.stdout) == (64, "")
    assert done.stderr == ".ci/long: there is no step everything; see .ci/long --help\n"


# --- the summary --------------------------------------------------------------------------------------------------

GTEST = """\
[ RUN      ] ATest.Passes
[       OK ] ATest.Passes (0 ms)
[ RUN      ] ATest.Other
{other}
[  PASSED  ] 1 test.
"""


@pytest.fixture
def summary(tmp_path):
    def run(*tests):
        log = tmp_path / "log.json"
        log.write_text("".join(json.dumps({"name": name, "result": result, "stdout": text}) + "\n"
                               for name, result, text in tests))
        done = subprocess.run(["/usr/bin/python3", "-B", SUMMARY, log], capture_output=True, text=True, check=False)
        return done.returncode, done.stdout.split("\n")[1:-1]

    return run


def test_cases_are_counted_over_all_programs(summary):
    pytest_output = "test_a.py::test_one PASSED [ 50%]\ntest_a.py::test_two[a b] PASSED [100%]\n"
    assert summary(("unit", "OK", GTEST.format(other="[       OK ] ATest.Other (1 ms)")),
                   ("system", "OK", pytest_output), ("plain", "OK", "")) == (0, ["5 passed, 0 failed"])


def test_failed_cases_are_named(summary):
    assert summary(("unit", "FAIL", GTEST.format(other="[  FAILED  ] ATest.Other (1 ms)")),
                   ("system", "FAIL", "test_a.py::test_one FAILED [ 50%]\ntest_a.py::test_two ERROR [100%]\n")) == (
        1, ["failed: ATest.Other", "failed: test_a.py::test_one", "error: test_a.py::test_two", "1 passed, 3 failed"])


def test_skipped_cases_count_as_failed(summary):
    assert summary(("unit", "OK", GTEST.format(other="[  SKIPPED ] ATest.Other (0 ms)")),
                   ("system", "OK", "test_a.py::test_one SKIPPED (why) [100%]\n"), ("plain", "SKIP", "")) == (
        1, ["skipped: ATest.Other", "skipped: test_a.py::test_one", "failed: plain (skip)", "1 passed, 3 failed"])


def test_a_program_that_ends_badly_after_its_cases_is_one_more_failure(summary):
    assert summary(("unit", "FAIL", GTEST.format(other="[       OK ] ATest.Other (1 ms)")),
                   ("slow", "TIMEOUT", "")) == (1, ["failed: unit (fail)", "failed: slow (timeout)", "2 passed, 2 failed"])


def test_no_test_at_all_is_a_failure(summary):
    assert summary() == (1, ["no test ran", "0 passed, 1 failed"])
