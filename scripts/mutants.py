# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""./test mutants: plants small mistakes, and looks for a test that notices each.

tests/mutants/*.txt state the mistakes; docs/testing.md explains their form. A copy of the tree in build/mutants gets
all of them as switches: CHOSEN_MUTANT=17 makes the programs of that build choose the changed text of mutant 17. So all
mutants cost one build, and each one a run of the tests up to the first that fails.
"""
import argparse
import concurrent.futures
import json
import os
import re
import signal
import subprocess
import sys
import threading
import time
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
TABLES = ROOT / "tests/mutants"
TREE = ROOT / "build/mutants/tree"
BUILD = ROOT / "build/mutants/build"

# These look at the files of the source tree, measure speed, or run no code that has mutants: none changes their outcome.
NOT_RUN = {"bench", "docs", "host-headers", "house", "installation", "kit", "lint", "mutants", "release", "run", "scripts", "storm"}
# The suites, the likeliest first.
SUITES = {"src": ["unit", "component", "fuzz", "system"], "include_internal": ["unit", "component", "system"],
          "platform": ["host", "platform", "system"], "tools": ["unit", "system"], "data": ["component", "system"]}
LIMIT = {"system": 240}  # seconds for one test; more is a hang, and noticed
USUAL_LIMIT = 75
NO_SUCH_CASE = {4, 5}  # exit statuses of pytest: a noted case may have another name today

# A switch costs no line, so that log lines keep their line numbers. CHOSEN_MUTANT is read once.
HEADER = """#pragma once
#include <stdlib.h>
/** Whether this mutant is chosen. */
inline bool mutant(int number) {
    static const int chosen = getenv("CHOSEN_MUTANT") ? atoi(getenv("CHOSEN_MUTANT")) : 0;
    return chosen == number;
}
/** A mutex that guards nothing. */
template <class Mutex>
Mutex& NoMutex() {
    thread_local Mutex mutex;
    return mutex;
}
"""
# The first line of a script that has mutants.
CHOICE = 'if [ -e "${BASH_SOURCE[0]}.${CHOSEN_MUTANT-}" ]; then source "${BASH_SOURCE[0]}.$CHOSEN_MUTANT"; return; fi'


@dataclass(eq=False)  # each is itself: a key of dictionaries
class Mutant:
    name: str
    file: str
    scope: str
    where: str  # the line of the table
    original: list = field(default_factory=list)
    changed: list = field(default_factory=list)
    tests: list = field(default_factory=list)  # to try first
    case: str = ""  # the test case that noticed it last
    equivalent: str = ""  # why no test can notice it
    number: int = 0
    span: tuple = (0, 0)
    line: int = 0

    def __str__(self):
        return f"{self.number} {self.file}:{self.line} {self.name}"


class TableError(Exception):
    pass


def read_tables(folder=TABLES):
    mutants = []
    for table in sorted(folder.glob("*.txt")):
        file = scope = ""
        first = []  # the tests to try first for the mutants of a file
        for number, line in enumerate(table.read_text().splitlines(), 1):
            mark, _, rest = line.partition(" ")
            where = f"{table.name}:{number}"
            if mark == "==":
                file, scope, first = rest, "", []
            elif mark == "?":
                first = rest.split()
            elif mark == "@":
                scope = rest
            elif mark == "*":
                mutants.append(Mutant(rest, file, scope, where, tests=first))
            elif mark in ("-", "+", "!", "=") and mutants:
                add_line(mutants[-1], mark, rest)
            elif line and mark != "#":
                raise TableError(f"{where}: no line of a table: {line}")
    for number, mutant in enumerate(mutants, 1):
        mutant.number = number
    return mutants


def add_line(mutant, mark, text):
    if mark == "-":
        mutant.original.append(text)
    elif mark == "+":
        mutant.changed.append(text)
    elif mark == "!":
        mutant.case = text
    else:
        mutant.equivalent += text


def scope_of(text, mutant):
    """The part of a source in which a mutant's original text is unique: from the scope's text to the end of the function."""
    if not mutant.scope:
        return 0, len(text)
    found = [match.start() for match in re.finditer(pattern_of(mutant.scope), text)]
    if len(found) != 1:
        raise TableError(f'{mutant.where}: "{mutant.name}": {mutant.file} has the scope {len(found)} times: {mutant.scope}')
    end = re.compile(r"^\}|\Z", re.MULTILINE).search(text, found[0])
    return found[0], end.end()


def pattern_of(text):
    """Blanks and line ends in a table stand for any."""
    return r"\s+".join(re.escape(word) for word in text.split())


def pattern_of_original(text):
    """The group is what changes: all of it, or the part between [[ and ]]."""
    before, brackets, rest = text.partition("[[")
    if not brackets:
        return f"({pattern_of(text)})"
    part, _, after = rest.partition("]]")
    return rf"{pattern_of(before)}\s*({pattern_of(part)})\s*{pattern_of(after)}"


def locate(mutants, root=ROOT):
    """Finds each mutant's text in today's sources."""
    sources, names = {}, set()
    for mutant in mutants:
        if mutant.name in names:
            raise TableError(f'{mutant.where}: the name "{mutant.name}" is taken')
        names.add(mutant.name)
        if mutant.file not in sources:
            sources[mutant.file] = (root / mutant.file).read_text()
        text = sources[mutant.file]
        start, end = scope_of(text, mutant)
        found = list(re.compile(pattern_of_original(" ".join(mutant.original))).finditer(text, start, end))
        if len(found) != 1 or not mutant.original or not mutant.changed:
            raise TableError(f'{mutant.where}: "{mutant.name}": {mutant.file} has this text {len(found)} times: '
                             + " ".join(mutant.original))
        mutant.span = found[0].span(1)
        mutant.line = text.count("\n", 0, mutant.span[0]) + 1
    return sources


def without_texts(expression):
    return re.sub(r'"(\\.|[^"\\])*"|\'(\\.|[^\'\\])\'', "", expression)


def depths(expression):
    """Each sign outside of texts, with the number of brackets around what follows it."""
    depth = 0
    for sign in without_texts(expression):
        depth += (sign in "([{") - (sign in ")]}")
        yield sign, depth


def has_comma(expression):
    """Whether a comma outside of all brackets makes several expressions of it."""
    return (",", 0) in depths(expression)


def has_half_bracket(expression):
    """Whether a bracket ends that does not begin in it, or begins and does not end."""
    found = [depth for _, depth in depths(expression)] or [0]
    return min(found) < 0 or found[-1] > 0


def switch(mutant, original):
    changed = " ".join(mutant.changed)
    if has_half_bracket(original) or has_half_bracket(changed):
        raise TableError(f'{mutant.where}: "{mutant.name}": a bracket begins or ends outside of the text that changes')
    if original.endswith(";") or original.endswith("}") and ";" in original:
        return f"if (mutant({mutant.number})) {{ {changed} }} else {{ {original} }}"
    if has_comma(original) or has_comma(changed):
        raise TableError(f'{mutant.where}: "{mutant.name}": one switch cannot choose between lists: mark one item with [[...]]')
    if changed in ("true", "false"):
        original = f"bool({original})"
    return f"(mutant({mutant.number}) ? ({changed}) : ({original}))"


def planted(text, mutants):
    """The source with a switch for each mutant. One mutant's text may lie within another's."""
    def render(start, end, inner):
        pieces, at = [], start
        while inner:
            outer = inner.pop(0)
            within = [other for other in inner if other.span[0] < outer.span[1]]
            inner = inner[len(within):]
            for other in within:
                if other.span[1] > outer.span[1]:
                    raise TableError(f'{other.where}: "{other.name}" overlaps "{outer.name}"')
            pieces += [text[at:outer.span[0]], switch(outer, render(*outer.span, within))]
            at = outer.span[1]
        return "".join([*pieces, text[at:end]])

    text = text_without_constexpr(text, mutants)
    return render(0, len(text), sorted(mutants, key=lambda mutant: (mutant.span[0], -mutant.span[1])))


def text_without_constexpr(text, mutants):
    """A switch is no constant expression: a constant that has one is made at the start of the program."""
    for mutant in mutants:
        start = max(text.rfind(";\n", 0, mutant.span[0]), text.rfind("\n\n", 0, mutant.span[0]))
        head = text[start:mutant.span[0]]
        if re.search(r"\bconstexpr\b", head):
            head = re.sub(r"\bconstexpr(\s+const char\* )", r"         \1", head)
            text = text[:start] + head.replace("constexpr", "const    ") + text[mutant.span[0]:]
    return text


def has_content(path, content):
    return path.is_file() and path.read_bytes() == content


def write_if_new(path, content):
    if not has_content(path, content):
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)


def is_script(name):
    return name.endswith(".bash")


def mutated(name, mutants, sources):
    """A source with its mutants, as {name of a file: content}. A line for the choice takes the place of the first line, a
    comment. A mutant of a script has a file of its own."""
    mine, text = [mutant for mutant in mutants if mutant.file == name], sources[name]
    if is_script(name):
        files = {f"{name}.{mutant.number}": text[:mutant.span[0]] + " ".join(mutant.changed) + text[mutant.span[1]:]
                 for mutant in mine}
        files[name] = CHOICE + text[text.index("\n"):]
    else:
        text = planted(text, mine)
        files = {name: f'#include "{TREE.parent}/mutant.h"{text[text.index(chr(10)):]}'}
    return {name: content.encode() for name, content in files.items()}


def all_mutated(mutants, sources):
    return {file: content for name in sources for file, content in mutated(name, mutants, sources).items()}


def plant(mutants, sources, files):
    write_if_new(TREE.parent / "mutant.h", HEADER.encode())
    changed = all_mutated(mutants, sources)
    for name in files:
        write_if_new(TREE / name, (ROOT / name).read_bytes() if name not in changed else changed[name])
        (TREE / name).chmod((ROOT / name).stat().st_mode)
    for name in changed.keys() - set(files):
        write_if_new(TREE / name, changed[name])
    wanted = {TREE / name for name in {*files, *changed}}
    for path in [path for path in TREE.rglob("*") if path.is_file() and path not in wanted]:
        path.unlink()


def build():
    if not (BUILD / "build.ninja").exists():
        subprocess.run(["meson", "setup", "--buildtype=debug", "-Dtests=true", "-Dcpp_args=-D_GLIBCXX_ASSERTIONS -Wno-all",
                        BUILD, TREE], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["ninja", "-k0", "-C", BUILD], check=True, stdout=subprocess.DEVNULL if not sys.stdout.isatty() else None)


@dataclass
class Test:
    name: str
    suite: str
    command: list
    environment: dict

    @property
    def is_pytest(self):
        return self.suite == "system"

    @property
    def is_gtest(self):
        return self.suite in ("unit", "component", "host") or self.name == "fuzz"


def all_tests():
    described = json.loads(subprocess.run(["meson", "introspect", "--tests", BUILD], check=True, capture_output=True).stdout)
    tests = [Test(test["name"], test["suite"][0].split(":")[-1], test["cmd"], test["env"]) for test in described]
    return [test for test in tests if test.name not in NOT_RUN]


def order_for(mutant, tests):
    """The tests for a mutant, the likeliest first; with None or the pattern of one case to run."""
    stem = Path(mutant.file).stem.lower()
    area = mutant.file.split("/")[0]
    suites = SUITES[area]

    def rank(test):
        first = mutant.tests.index(test.name) if test.name in mutant.tests else len(mutant.tests)
        return (first, suites.index(test.suite), stem not in test.name.lower())

    fit = sorted((test for test in tests if test.suite in suites and (not is_script(mutant.file) or test.name in mutant.tests)),
                 key=rank)
    known = [(test, mutant.case) for test in fit if mutant.case and has_case(test, mutant.case)]
    return known + [(test, None) for test in fit]


def has_case(test, case):
    if test.is_pytest:
        return case.startswith(f"test_{test.name}.py::")
    if not test.is_gtest:
        return case == test.name
    chosen = next((part.partition("=")[2] for part in test.command if part.startswith("--gtest_filter=")), None)
    if chosen is None:  # a program of its own
        return "." in case and test.name.lower() in case.lower()
    wanted, _, unwanted = chosen.partition("-")

    def fits(patterns):
        return any(re.fullmatch(re.escape(pattern).replace(r"\*", ".*"), case) for pattern in patterns.split(":"))

    return "." in case and (not wanted or fits(wanted)) and not fits(unwanted)


class Runs:
    """The processes of the tests that run now."""

    def __init__(self):
        self.lock = threading.Lock()
        self.alive = set()

    def start(self, command, environment):
        process = subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, text=True, errors="replace", start_new_session=True)
        with self.lock:
            self.alive.add(process)
        return process

    def end(self, process):
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        with self.lock:
            self.alive.discard(process)

    def end_all(self):
        for process in list(self.alive):
            self.end(process)


RUNS = Runs()


def run_test(test, number, case=None):
    """Runs a test, or one case of it. @return None if it passed, otherwise the name of the case that failed"""
    command = list(test.command)
    if test.is_gtest:
        command += ["--gtest_fail_fast"] + ([f"--gtest_filter={case}"] if case else [])
    elif test.is_pytest:
        command += ["-x", "-q"]
        if case:
            file = next(part for part in command if part.endswith(f"test_{test.name}.py"))
            command[command.index(file)] = str(Path(file).parent / case)
    environment = {**os.environ, **test.environment, "CHOSEN_MUTANT": str(number)}
    process = RUNS.start(command, environment)
    try:
        output = process.communicate(timeout=LIMIT.get(test.suite, USUAL_LIMIT))[0]
    except subprocess.TimeoutExpired:
        RUNS.end(process)
        output = process.communicate()[0]
    finally:
        RUNS.end(process)
    is_gone = case and ("Running 0 tests " in output if test.is_gtest else process.returncode in NO_SUCH_CASE)
    return None if process.returncode == 0 or is_gone else failed_case(test, output)


def failed_case(test, output):
    if not test.is_gtest and not test.is_pytest:
        return test.name
    found = re.findall(r"^\[ +(?:RUN|FAILED) +\] (\S+?),?(?: .*)?$", output, re.MULTILINE) if test.is_gtest else \
        re.findall(r"^(?:\S*/)?(\S+::.+?) (?:FAILED|ERROR)\b", output, re.MULTILINE) or \
        re.findall(r"^(?:FAILED|ERROR) (?:\S*/)?(\S+::.+?)(?: - .*)?$", output, re.MULTILINE)
    return found[-1] if found and test.is_gtest else found[0] if found else test.name


def try_mutant(mutant, tests):
    """@return the case that noticed it, or None"""
    for test, case in order_for(mutant, tests):
        noticed = run_test(test, mutant.number, case)
        # A case that fails among others may do so for another reason: it has to fail alone, too.
        if noticed and (case or run_test(test, mutant.number, noticed if noticed != test.name else None)):
            return noticed
    return None


def note_cases(noticed):
    """Writes into the tables which case noticed each mutant."""
    for table in TABLES.glob("*.txt"):
        lines, mine = [], {mutant.name: case for mutant, case in noticed.items() if mutant.where.startswith(table.name)}
        current = None
        for line in table.read_text().splitlines():
            if line.startswith("* ") or line.startswith("@") or line.startswith("=="):
                current = line[2:] if line.startswith("* ") else None
            if line.startswith("! ") and current in mine:
                continue
            lines.append(line)
            if line.startswith("+") and current in mine:
                while len(lines) >= 2 and lines[-2].startswith("! "):
                    lines.pop(-2)
                lines.append(f"! {mine[current]}")
        table.write_text("\n".join(lines) + "\n")


def chosen_of(mutants, wanted):
    if not wanted:
        return [mutant for mutant in mutants if not mutant.equivalent]
    numbers = set()
    for word in wanted:
        first, dash, last = word.partition("-")
        if first.isdigit():
            numbers.update(range(int(first), int(last) + 1 if dash and last.isdigit() else int(first) + 1))
        else:
            fit = [mutant for mutant in mutants if word.lower() in mutant.name.lower() or word in mutant.file]
            if not fit:
                raise TableError(f"no mutant has this name or file: {word}")
            # A mutant that no test can notice runs all tests. So a word chooses it only if it fits no other one.
            noticeable = [mutant for mutant in fit if not mutant.equivalent]
            numbers |= {mutant.number for mutant in noticeable or fit}
    return [mutant for mutant in mutants if mutant.number in numbers]


def run_unchanged(tests, jobs):
    """@return the tests that fail with no mutant chosen"""
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        return [case for case in pool.map(lambda test: run_test(test, 0), tests) if case]


def run(mutants, tests, jobs):
    """@return the case that noticed each mutant, or None, by mutant"""
    started, results = time.monotonic(), {}
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        waiting = {pool.submit(try_mutant, mutant, tests): mutant for mutant in mutants}
        for future in concurrent.futures.as_completed(waiting):
            mutant = waiting[future]
            results[mutant] = future.result()
            left = (time.monotonic() - started) / len(results) * (len(mutants) - len(results))
            outcome = f"noticed by {results[mutant]}" if results[mutant] else "SURVIVED"
            print(f"[{len(results)}/{len(mutants)}, {left / 60:.0f} min left] {mutant}: {outcome}", flush=True)
    return results


def main():
    parser = argparse.ArgumentParser(prog="./test mutants", description="Plants small mistakes, one at a time, and looks for "
                                     "a test that notices each. Exit status 1: one survived.")
    parser.add_argument("wanted", nargs="*", metavar="NAME|FILE|NUMBER|FROM-TO", help="only these mutants")
    parser.add_argument("--check", action="store_true", help="only check that the tables fit the sources")
    parser.add_argument("--list", action="store_true", help="only list the mutants")
    parser.add_argument("--note", action="store_true", help="write into the tables which test case noticed each mutant")
    parser.add_argument("--suite", action="append", help="use only the tests of this suite")
    parser.add_argument("--as-built", action="store_true", help="use the build of the last run as it is")
    parser.add_argument("--skip", default="$^", metavar="PATTERN", help="do not use the tests with such a name")
    parser.add_argument("--jobs", type=int, default=(os.cpu_count() or 1) + 2, help="mutants at a time (default %(default)s)")
    options = parser.parse_args()
    mutants = read_tables()
    sources = locate(mutants)
    all_mutated(mutants, sources)  # or an error
    if options.list:
        print(*mutants, sep="\n")
    counted = [mutant for mutant in mutants if not mutant.equivalent]
    if options.check or options.list:
        print(f"{len(counted)} mutants, and {len(mutants) - len(counted)} that no test can notice")
        return 0
    chosen = chosen_of(mutants, options.wanted)
    if options.as_built:
        if not all(has_content(TREE / name, content) for name, content in all_mutated(mutants, sources).items()):
            raise TableError("the build is older than the tables or the sources: leave --as-built out")
    else:
        plant(mutants, sources, sys.stdin.read().split("\n")[:-1])
        build()
    tests = [test for test in all_tests() if (not options.suite or test.suite in options.suite)
             and not re.search(options.skip, test.name)]
    started = time.monotonic()
    if not options.wanted and (failed := run_unchanged(tests, options.jobs)):
        print("These tests fail without a mutant:", *failed, sep="\n")
        return 2
    results = run(chosen, tests, options.jobs)
    if options.note:
        note_cases({mutant: case for mutant, case in results.items() if case and case != mutant.case})
    survivors = sorted((mutant for mutant, case in results.items() if not case), key=lambda mutant: mutant.number)
    print("", *(f"survived: {mutant}" for mutant in survivors), sep="\n")
    print(f"{len(results) - len(survivors)} of {len(results)} mutants noticed in {(time.monotonic() - started) / 60:.1f} min")
    return 1 if survivors else 0


def interrupt(*_):
    RUNS.end_all()
    os._exit(130)  # without waiting for the threads


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, interrupt)
    signal.signal(signal.SIGINT, interrupt)
    try:
        sys.exit(main())
    except TableError as error:
        sys.exit(f"./test mutants: {error}")
