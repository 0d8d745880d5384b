# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""coverage.py ROOT BUILD: prints how much of src and platform/host the tests ran, and checks it.

Fails if a function of src did not run, if a directory is below its bound, if a line did not run and
tests/not-covered.txt has no reason for that, or if a line of that table did run. An entry of the table is

    FILE: the text of the line
        the reason; "sometimes, ..." allows that it did run
"""
import json
import subprocess
import sys
from collections import defaultdict
from pathlib import Path

BOUNDS = {"src": 97, "platform/host": 92}  # percent of the lines
OBJECTS = ("src", "platform/host", "tests/component/libdaemonmain.a.p")


def read_counts(root, build):
    """Returns {file: {line: how often it ran}} and {(file, function): how often it ran}."""
    lines, functions = defaultdict(lambda: defaultdict(int)), defaultdict(int)
    data = [file for folder in OBJECTS for file in (build / folder).rglob("*.gcda")]
    text = subprocess.run(["gcov", "--json-format", "--stdout", "--demangled-names", *data], check=True, cwd=build,
                          stdout=subprocess.PIPE, text=True).stdout
    for report in map(json.loads, text.splitlines()):
        for file in report["files"]:
            path = Path(build, file["file"]).resolve()
            name = str(path.relative_to(root)) if path.is_relative_to(root) else ""
            if not any(name.startswith(f"{folder}/") for folder in BOUNDS):
                continue
            for line in file["lines"]:
                lines[name][line["line_number"]] += line["count"]
            for function in file["functions"]:
                functions[name, function["start_line"], function["demangled_name"]] += function["execution_count"]
    return lines, functions


def read_table(root):
    """Returns {(file, text of the line): reason}."""
    rows = [row for row in (root / "tests/not-covered.txt").read_text().splitlines() if row and not row.startswith("#")]
    entries = {}
    for row, following in zip(rows, rows[1:] + [""]):
        if not row.startswith(" "):
            assert following.startswith("    "), f"tests/not-covered.txt: without a reason: {row}"
            entries[tuple(row.split(": ", 1))] = following.strip()
    return entries


def main(root, build):
    counts, functions = read_counts(root, build)
    table, used, complaints = read_table(root), set(), []
    for folder, bound in BOUNDS.items():
        here = {name: lines for name, lines in counts.items() if name.startswith(f"{folder}/")}
        total = sum(map(len, here.values()))
        ran = sum(count > 0 for lines in here.values() for count in lines.values())
        print(f"{folder}: {100 * ran / total:.1f} % of {total} lines ran")
        if 100 * ran < bound * total:
            complaints.append(f"{folder}: fewer than {bound} % of the lines ran")
        for name, lines in sorted(here.items()):
            texts = (root / name).read_text().splitlines()
            for number in sorted(number for number, count in lines.items() if count == 0):
                entry = name, texts[number - 1].strip()
                used.add(entry)
                if entry not in table:
                    complaints.append(f"{name}:{number} did not run: {entry[1]}")
    complaints += [f"tests/not-covered.txt: it ran: {name}: {text}" for (name, text), reason in sorted(table.items())
                   if (name, text) not in used and not reason.startswith("sometimes")]
    mine = {key: count for key, count in functions.items() if key[0].startswith("src/")}
    print(f"src: {100 * sum(count > 0 for count in mine.values()) / len(mine):.1f} % of {len(mine)} functions ran")
    complaints += [f"{name}:{line} did not run: {function}" for (name, line, function), count in sorted(mine.items())
                   if count == 0]
    print(*complaints, sep="\n")
    print(f"coverage: {len(complaints)} complaints" if complaints else
          f"coverage: each of the {len(used)} lines that did not run has its reason in tests/not-covered.txt")
    return bool(complaints)


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()))
