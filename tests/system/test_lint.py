# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""./lint: its command line, the files that it checks, and its search for words."""
import shutil
import subprocess

import pytest

from harness import ROOT


def lint(*arguments):
    return subprocess.run([ROOT / "lint", *arguments], capture_output=True, text=True, check=False,
                          stdin=subprocess.DEVNULL)


def test_help_names_every_step():
    done = lint("--help")
    assert (done.returncode, done.stderr) == (0, "")
    assert all(f"  {step} " in done.stdout for step in ("words", "format", "shell", "clang", "guard", "tidy"))


def test_an_unknown_step_is_wrong_usage():
    done = lint("words", "spelling")
    assert (done.returncode, done.stdout, done.stderr) == (64, "", "./lint: unknown step spelling, see ./lint --help\n")


def test_without_git_it_passes_over_what_a_build_leaves(tmp_path):
    kept = {"src/main.cpp", "debian/kavrel.install", "debian/source/files", "scripts/lib.sh", ".gitignore"}
    left = {"build/a", "build-2/a", "obj-x86_64-linux-gnu/a.o", "debian/kavrel/usr/bin/kavreld", "debian/kavrel-tv/a",
            "debian/.debhelper/a", "debian/kavrel.substvars", "debian/files", "src/__pycache__/a.pyc"}
    for name in kept | left:
        (tmp_path / name).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / name).touch()
    for name in (".gitignore", "scripts/lib.sh"):
        shutil.copy(ROOT / name, tmp_path / name)

    def files(*patterns):
        return subprocess.run(["bash", "-c", 'source scripts/lib.sh; files "$@"', "files", *patterns], cwd=tmp_path,
                              capture_output=True, text=True, check=True).stdout.splitlines()

    assert sorted(files()) == sorted(kept)
    assert files("*.cpp") == ["src/main.cpp"]


@pytest.fixture
def search(tmp_path):
    """Searches one file for the phrases "pet word" and "^Thus"; returns the exit status and the findings."""
    (tmp_path / "words.txt").write_text("# a comment\npet word\n^Thus\n")

    def run(name, text):
        (tmp_path / name).parent.mkdir(exist_ok=True)
        (tmp_path / name).write_text(text, errors="surrogateescape")
        done = subprocess.run(["/usr/bin/python3", "-B", ROOT / "scripts/words.py", "words.txt"], input=f"{name}\n",
                              cwd=tmp_path, capture_output=True, text=True, check=False)
        assert done.stderr == ""
        return done.returncode, done.stdout.splitlines()

    return run


@pytest.mark.parametrize("name, text, line", [
    ("a.md", "one\n\nA pet word.\n", 3),
    ("a.md", "A pet\nword.\n", 1),
    ("a.sh", "say 'Pet word'\n", 1),
    ("a.cpp", "int a;\n// A pet\n// word.\n", 2),
    ("a.h", "/** One.\n *  A pet word. */\n", 2),
    ("tools/a.cpp", 'Print("a pet word");\n', 1),
    ("tools/a.cpp", 'Print(R"(\na pet word)");\n', 2),
    ("tools/a.cpp", 'Print("a pet "\n      "word");\n', 1),
    ("a.py", '"""One.\n\nA pet word."""\n', 3),
    ("a.py", 'def f():\n    """A pet word."""\n', 2),
    ("a.py", "a = 1\nb = 2  # a pet word\n", 2),
])
def test_a_phrase_is_found(search, name, text, line):
    status, findings = search(name, text)
    assert status == 1
    assert [finding.lower() for finding in findings] == [f"{name}:{line}: pet word"]


@pytest.mark.parametrize("name, text", [
    ("a.md", "A pet wordy one.\n"),
    ("src/a.cpp", 'int pet; word w; Log("a pet word");\n'),
    ("a.cpp", 'char quote = \'"\'; pet word; char other = \'"\';\n'),
    ("a.py", 'a = "a pet word"\n'),
])
def test_code_and_other_words_are_not_found(search, name, text):
    assert search(name, text) == (0, [])


def test_the_first_word_of_a_line_is_found_only_there(search):
    assert search("a.cpp", "// Thus it is.\n") == (1, ["a.cpp:1: Thus"])
    assert search("a.cpp", "// It is Thus.\n// thus it is\n") == (0, [])


def test_a_file_that_is_no_text_is_a_finding(search):
    assert search("a.out", "\x7fELF\udcff") == (1, ["a.out: not a text in UTF-8"])
