# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""summary.py LOG.json...: count the test cases in meson's logs of its test runs.

GoogleTest and `pytest -v` print a line for each case; a program that prints no such line is one case. A skipped case is
named and is a failure, and a run without any case is a failure, too.
"""
import json
import re
import sys
from pathlib import Path

CASE = re.compile(r"""
    ^\[\s*(?P<gtest>OK|FAILED|SKIPPED)\s*\]\ (?P<gtest_name>\S+?),?\ .*\(\d+\ ms\)$
  | ^(?P<pytest_name>\S+::.+?)\ (?P<pytest>PASSED|FAILED|ERROR|SKIPPED)\b
""", re.VERBOSE | re.MULTILINE)


def failures_of(test):
    """For each case of a meson test: None if it passed, otherwise a text with the reason."""
    failures = []
    for case in CASE.finditer(test.get("stdout", "")):
        outcome = case["gtest"] or case["pytest"]
        name = case["gtest_name"] or case["pytest_name"]
        failures.append(None if outcome in ("OK", "PASSED") else f"{outcome.lower()}: {name}")
    if test["result"] != "OK" and not any(failures):
        return [*failures, f"failed: {test['name']} ({test['result'].lower()})"]
    return failures or [None]


tests = [json.loads(line) for log in sys.argv[1:] if Path(log).exists() for line in Path(log).read_text().splitlines()]
cases = [failure for test in tests for failure in failures_of(test)] or ["no test ran"]
failed = [failure for failure in cases if failure]
print("", *failed, sep="\n")
print(f"{cases.count(None)} passed, {len(failed)} failed")
sys.exit(bool(failed))
