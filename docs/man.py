# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""man.py VERSION OUTPUT PROGRAM DOCUMENT: make a man page from a program's help pages and a Markdown document.

The help page begins with a line "Usage:" or with a description. Its sections "Options:" and "Commands:" are lists; each
command has a help page of its own, which becomes a section of the man page. lowdown makes a man page of it all.
"""
import datetime
import os
import re
import subprocess
import sys
import textwrap
from pathlib import Path

PAGES = ("kavreld(8)", "kavrelctl(1)", "kavrel-tv(1)", "kavrel-sound(1)")
# Two spaces end a name, or one if the name fills its column.
ENTRY = re.compile(r"^  (?P<name>\S.*?)(?:  +|(?<=^.{21}) )(?P<text>\S.*(?:\n {10,}\S.*)*)", re.MULTILINE)


def help_of(*command):
    return subprocess.run([*command, "--help"], check=True, capture_output=True, text=True,
                          stdin=subprocess.DEVNULL).stdout.strip()


def entries(help_page, section):
    """Returns [(name, text)] of a section of a help page, such as Commands."""
    found = re.search(rf"^{section}:\n((?:  .*\n?)+)", help_page, re.MULTILINE)
    return [(entry["name"], " ".join(entry["text"].split())) for entry in ENTRY.finditer(found[1])] if found else []


def escaped(text):
    """Returns Markdown that shows the text as it is."""
    return re.sub(r"([\\`*_{}\[\]<>#|~^=-])", r"\\\1", text)


def definitions(items):
    return "".join(f"**{escaped(name)}**\n: {escaped(text)}\n\n" for name, text in items)


def literal(text):
    return "".join(f"    {line}".rstrip() + "\n" for line in text.splitlines()) + "\n"


def command_pages(program, path):
    """Returns the help pages of all commands below a command; the option --help needs no mention on each."""
    pages = ""
    for name, _ in entries(help_of(program, *path), "Commands"):
        page = help_of(program, *path, name)
        if entries(page, "Commands"):
            pages += command_pages(program, [*path, name])
        else:
            page = re.sub(r"^  -h,--help .*\n?", "", page, flags=re.MULTILINE).replace("Options:\n\n", "")
            pages += f"## {Path(program).name} {' '.join([*path, name])}\n\n" + literal(page)
    return pages


def tables_as_lists(document):
    """Turns each table into a list, which fits on a terminal of any width."""
    def as_list(table):
        rows = [[cell.strip().replace(r"\|", "|") for cell in re.split(r"(?<!\\)\|", row)[1:-1]]
                for row in table[0].splitlines()]
        return "".join(f"{row[0]}\n: {'; '.join(cell for cell in row[1:] if cell)}\n\n" for row in rows[2:])
    return re.sub(r"^\|.*\n\|[-|]+\n(?:\|.*\n)+", as_list, document, flags=re.MULTILINE)


def body_of(document):
    """Returns a document without its title, its headings as those of a man page, its links as plain text."""
    text = tables_as_lists(document.read_text(encoding="utf-8").partition("\n")[2])
    text = re.sub(r"\[([^]\[]+)\]\([^)\s]+\)", r"\1", text)
    return re.sub(r"^## (.*)", lambda heading: f"# {heading[1].upper()}", text, flags=re.MULTILINE)


def section_of(block):
    """Returns a section of the man page: a list if the block of the help page is one, its text as it is otherwise."""
    heading, _, text = block.partition(":\n") if re.match(r".*:\n  ", block) else ("Options", "", block)
    items = entries(f"{heading}:\n{text}", heading)
    return f"# {heading.upper()}\n\n" + (definitions(items) if items else literal(textwrap.dedent(text)))


def markdown(program, page, document):
    help_page = help_of(program)
    usage = re.search(r"^Usage: (.*)", help_page, re.MULTILINE)
    blocks = re.sub(r"^Usage: .*\n*", "", help_page, flags=re.MULTILINE).split("\n\n")
    lists = [block for block in blocks if re.match(r"(.*:\n)?  ", block)]
    prose = [block for block in blocks if block not in lists]
    summary = re.split(r"[.:](?:\s|$)", " ".join(prose[0].split()))[0]
    commands = command_pages(program, [])
    return "\n".join([
        f"# NAME\n\n{page.partition('(')[0]} - {escaped(summary[0].lower() + summary[1:])}\n",
        f"# SYNOPSIS\n\n**{escaped(usage[1])}**\n",
        "# DESCRIPTION\n\n" + "\n\n".join(map(escaped, prose)) + "\n",
        *map(section_of, lists),
        "# COMMANDS IN DETAIL\n\n" + commands if commands else "",
        "# NOTES\n\n" + body_of(document),
        "# SEE ALSO\n\n" + ", ".join(f"**{other}**" for other in PAGES if other != page) +
        "; the documents in /usr/share/doc/kavrel\n",
    ])


def main(version, output, program, document):
    name, section = output.name.rsplit(".", 1)
    changed = float(os.environ.get("SOURCE_DATE_EPOCH", document.stat().st_mtime))
    date = datetime.datetime.fromtimestamp(changed, datetime.timezone.utc).date()
    about = {"title": name, "section": section, "date": date, "source": f"kavrel {version}", "volume": "kavrel"}
    done = subprocess.run(["lowdown", "-s", "-Tman", "--out-no-smarty", *(f"-M{key}={value}" for key, value in about.items())],
                          input=markdown(program, f"{name}({section})", document), check=True, capture_output=True,
                          text=True)
    # Not every reader of man pages knows the font C, which lowdown gives to code, or a paragraph right after a heading.
    page = re.sub(r"^(\.S[HS]\n.*\n)\.LP\n", r"\1", done.stdout.replace(r"\fC", r"\fB"), flags=re.MULTILINE)
    output.write_text(page, encoding="utf-8")


main(sys.argv[1], Path(sys.argv[2]), sys.argv[3], Path(sys.argv[4]))
