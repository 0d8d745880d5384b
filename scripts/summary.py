"""summary.py FOLDER...: count the test cases of test runs, each with its meson log and the XML reports of its programs.

A program without a report is one case. A skipped case is named and counts as failed, and so does finding none at all.
"""
import json
import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path


def case_failures(report):
    """For each test case of a JUnit-like report: None, or what is wrong with it."""
    for case in ElementTree.parse(report).iter("testcase"):
        name = f"{case.get('classname')}.{case.get('name')}"
        if case.find("skipped") is not None or case.get("result") in ("skipped", "suppressed"):
            yield f"skipped, so failed: {name}"
        elif case.find("failure") is not None or case.find("error") is not None:
            yield f"failed: {name}"
        else:
            yield None


def report_of(test, reports):
    stems = {Path(word).stem for word in test["command"]}
    return next((report for report in reports if report.stem in stems), None)


def failures_of_run(folder):
    log = folder / "testlog.json"
    reports = list(folder.glob("*.xml"))
    for line in log.read_text().splitlines() if log.exists() else []:
        test = json.loads(line)
        passed = test["result"] in ("OK", "EXPECTEDFAIL")
        report = report_of(test, reports)
        failures = list(case_failures(report)) if report else []
        yield from failures
        if not passed and not any(failures):
            yield f"failed: {test['name']} ({test['result']})"
        elif not failures:
            yield None


failures = [failure for folder in sys.argv[1:] for failure in failures_of_run(Path(folder))] or ["no test ran"]
failed = [failure for failure in failures if failure]
print("", *failed, sep="\n")
print(f"{failures.count(None)} passed, {len(failed)} failed")
sys.exit(bool(failed))
