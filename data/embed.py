#!/usr/bin/env python3
# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""embed.py SYMBOL INPUT OUTPUT: write a text file as a zero-terminated C++ character array."""
import sys

symbol, source, target = sys.argv[1:]
with open(source, encoding="utf-8") as file:
    text = file.read()
with open(target, "w", encoding="utf-8") as file:
    file.write(f'extern "C" {{\nextern const char {symbol}[];\nconst char {symbol}[] = R"embedded({text})embedded";\n}}\n')
