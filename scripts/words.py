# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""words.py WORDS: print where the files named on standard input use a phrase of the list WORDS.

Each line of WORDS is a regular expression. A space in it also matches a line break, "^" the first word of a line, and small
letters also capital ones. The search covers comments of C and C++ and, in the tools, string literals; comments and
docstrings of Python; the whole text of all other files. Exits with 1 if it found a phrase, or a file that is no text.
"""
import io
import re
import sys
import tokenize
from pathlib import Path

READ_BY_PEOPLE = ("tools/", "platform/host/", "benchmarks/")  # C++ with messages and help in its string literals

CPP = re.compile(r"""
    (?P<comment> //[^\n]* | /\*.*?\*/ )
  | (?P<string> R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)" | "(?:\\.|[^"\\\n])*" )
  | '(?:\\.|[^'\\\n])+'
""", re.VERBOSE | re.DOTALL)
COMMENT_MARKS = re.compile(r"^[ \t]*(?://+|/?\*+/?|\#+)|[\"]", re.MULTILINE)


def blank(text):
    """Spaces instead of the text, with its line breaks, so that the rest of the file keeps its line numbers."""
    return re.sub(r"[^\n]", " ", text)


def cpp_prose(text, with_strings):
    prose, end = [], 0
    for token in CPP.finditer(text):
        read = token["comment"] or (with_strings and token["string"])
        prose += [blank(text[end:token.start()]), token[0] if read else blank(token[0])]
        end = token.end()
    return "".join([*prose, blank(text[end:])])


def python_prose(text):
    lines = text.splitlines(keepends=True)
    starts = [sum(map(len, lines[:row])) for row in range(len(lines) + 1)]
    prose = list(blank(text))
    statement_begins = True
    for token in tokenize.generate_tokens(io.StringIO(text).readline):
        docstring = token.type == tokenize.STRING and statement_begins
        if docstring or token.type == tokenize.COMMENT:
            start, end = (starts[row - 1] + column for row, column in (token.start, token.end))
            prose[start:end] = text[start:end]
        if token.type not in (tokenize.COMMENT, tokenize.NL):
            statement_begins = token.type in (tokenize.NEWLINE, tokenize.INDENT, tokenize.DEDENT)
    return "".join(prose)


def prose_of(path, text):
    if path.endswith((".c", ".cpp", ".h")):
        text = cpp_prose(text, path.startswith(READ_BY_PEOPLE))
    elif path.endswith(".py"):
        text = python_prose(text)
    return COMMENT_MARKS.sub(lambda mark: blank(mark[0]), text)


def pattern_of(phrase):
    body = phrase.removeprefix("^").replace(" ", r"[ \t]*(?:[ \t]|\n)[ \t]*")
    begin = r"^[ \t]*" if phrase.startswith("^") else r"(?<!\w)"
    flags = "" if phrase != phrase.lower() else "i"
    return f"{begin}(?{flags}:{body})" + r"(?!\w)"


def patterns_in(path):
    lines = Path(path).read_text(encoding="utf-8").splitlines()
    return re.compile("|".join(pattern_of(line) for line in lines if line and line[0] != "#"), re.MULTILINE)


def findings(path, pattern):
    try:
        text = Path(path).read_text(encoding="utf-8")
    except UnicodeDecodeError:
        yield f"{path}: not a text in UTF-8"
        return
    prose = prose_of(path, text)
    for use in pattern.finditer(prose):
        line = prose.count("\n", 0, use.start()) + 1
        yield f"{path}:{line}: {' '.join(use[0].split())}"


def main(words):
    pattern = patterns_in(words)
    found = [finding for path in sys.stdin.read().splitlines() if path != words for finding in findings(path, pattern)]
    print(*found, sep="\n", end="\n" * bool(found))
    return int(bool(found))


sys.exit(main(sys.argv[1]))
