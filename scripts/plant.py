# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""plant.py ROOT COPY TARGET: plants the mistake of a fuzz target in a copy of the sources, and no other one."""
import sys
from pathlib import Path

root, copy, target = Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3]
lines = [line for line in (root / "tests/fuzz/planted.txt").read_text().splitlines()
         if line and not line.startswith("#")]
texts = {}  # {file: its text in the copy}
for name, file, right, wrong in zip(*[iter(lines)] * 4):
    text = texts.setdefault(file, (root / file).read_text())
    assert text.count(right.strip()) == 1, f"{file} does not have exactly once: {right.strip()}"
    if name == target:
        texts[file] = text.replace(right.strip(), wrong.strip())
for file, text in texts.items():
    if (copy / file).read_text() != text:
        (copy / file).write_text(text)
