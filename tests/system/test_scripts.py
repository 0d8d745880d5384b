# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""What ./run, ./test and ./bench share: installing what is missing, and counting what was tested."""
import json
import os
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
