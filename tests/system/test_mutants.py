# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the tables of mistakes (tests/mutants) and the script that plants them, without building anything."""
import os
import subprocess
import sys

import pytest

from harness import ROOT

sys.path.insert(0, str(ROOT / "scripts"))
import mutants  # noqa: E402  pylint: disable=wrong-import-position

SOURCE = """#include "a.h"

constexpr int MOST = 5;

int Twice(int number) {
    Check(number);
    return 2 * number;
}

int Thrice(int number) {
    Check(number);
    return 3 *
           number;
}
"""


@pytest.fixture
def planted(tmp_path):
    """Plants a table in a source, and returns the outcome."""
    (tmp_path / "a.cpp").write_text(SOURCE)

    def plant(table):
        (tmp_path / "table.txt").write_text("== a.cpp\n" + table)
        found = mutants.read_tables(tmp_path)
        return mutants.planted(mutants.locate(found, tmp_path)["a.cpp"], found)

    return plant


def test_each_text_of_the_tables_stands_once_in_the_sources():
    found = mutants.read_tables()
    sources = mutants.locate(found)
    for name, text in sources.items():
        with_switches = mutants.mutated(name, found, sources)[name].decode()
        assert with_switches.count("\n") == text.count("\n"), "a switch would move the lines of the log"


def test_each_mutant_of_a_script_can_be_parsed():
    found = mutants.read_tables()
    sources = mutants.locate(found)
    scripts = [content for name in sources if mutants.is_script(name) for content in mutants.mutated(name, found, sources).values()]
    assert len(scripts) > 40
    for content in scripts:
        subprocess.run(["bash", "-n"], input=content, check=True)


@pytest.mark.parametrize("folder, least", [("src", 130), ("platform/host", 80), ("tools", 150)])
def test_there_are_enough_mutants(folder, least):
    assert sum(mutant.file.startswith(folder + "/") and not mutant.equivalent for mutant in mutants.read_tables()) >= least


def test_the_tests_to_try_first_are_those_of_a_file(tmp_path):
    (tmp_path / "table.txt").write_text("== a.cpp\n? One Two\n* a\n- 5\n+ 6\n== b.cpp\n* b\n- 5\n+ 6\n")
    assert [mutant.tests for mutant in mutants.read_tables(tmp_path)] == [["One", "Two"], []]


def test_a_file_means_its_mutants_that_a_test_can_notice(tmp_path):
    (tmp_path / "table.txt").write_text("== a.cpp\n* other\n- 5\n+ 6\n* same\n- 3\n+ 03\n= it is the same number\n")
    found = mutants.read_tables(tmp_path)
    assert [mutant.name for mutant in mutants.chosen_of(found, ["a.cpp"])] == ["other"]
    assert [mutant.name for mutant in mutants.chosen_of(found, ["same"])] == ["same"]


def test_a_statement_becomes_a_branch(planted):
    assert "if (mutant(1)) {  } else { Check(number); }" in planted("@ int Twice(\n* no check\n- Check(number);\n+\n")


def test_an_expression_becomes_a_choice_on_its_lines(planted):
    text = planted("* wrong factor\n- 3 * number\n+ 4 * number\n")
    assert "return (mutant(1) ? (4 * number) : (3 *\n           number));" in text


def test_a_choice_may_contain_commas_in_brackets_or_texts(planted):
    assert "return (mutant(1) ? (Larger(2, ',') + \", \"[0]) : (2 * number));" in planted(
        "* a\n- 2 * number\n+ Larger(2, ',') + \", \"[0]\n")


def test_a_part_in_brackets_is_what_changes(planted):
    assert "return (mutant(1) ? (4) : (2)) * number;" in planted("* wrong factor\n- return [[2]] * number\n+ 4\n")


def test_mutants_of_one_text_are_planted_in_each_other(planted):
    text = planted("@ int Twice(\n* nothing\n- return 2 * number;\n+ return 0;\n* one\n- [[2]] * number\n+ 1\n")
    assert "if (mutant(1)) { return 0; } else { return (mutant(2) ? (1) : (2)) * number; }" in text


def test_a_constant_with_a_mutant_is_made_at_the_start(planted):
    assert "const     int MOST = (mutant(1) ? (6) : (5));" in planted("* more\n- MOST = [[5]];\n+ 6\n")


def test_a_script_has_a_file_for_each_mutant(tmp_path):
    (tmp_path / "a.bash").write_text("# A comment.\necho one\necho two\n")
    (tmp_path / "table.txt").write_text("== a.bash\n* none\n- echo one\n+ :\n* other\n- echo [[two]]\n+ three\n")
    found = mutants.read_tables(tmp_path)
    for name, content in mutants.mutated("a.bash", found, mutants.locate(found, tmp_path)).items():
        (tmp_path / name).write_bytes(content)

    def output(**chosen):
        return subprocess.run(["bash", "-c", 'source "$1"', "bash", tmp_path / "a.bash"], env={**os.environ, **chosen},
                              capture_output=True, text=True, check=True).stdout.split()

    assert output() == output(CHOSEN_MUTANT="0") == ["one", "two"]
    assert output(CHOSEN_MUTANT="1") == ["two"] and output(CHOSEN_MUTANT="2") == ["one", "three"]


@pytest.mark.parametrize("table, says", [
    ("* gone\n- Chek(number);\n+\n", '"gone": a.cpp has this text 0 times: Chek(number);'),
    ("* both\n- Check(number);\n+\n", '"both": a.cpp has this text 2 times: Check(number);'),
    ("@ int Nothing(\n* lost\n- Check(number);\n+\n", '"lost": a.cpp has the scope 0 times: int Nothing('),
    ("* a\n- 5\n+ 6\n* a\n- 3\n+ 4\n", 'the name "a" is taken'),
    ("* a\n- MOST = 5\n+ MOST = 6\n* b\n- = 5;\n+ = 7;\n", '"b" overlaps "a"'),
    ("* list\n- 2 * number\n+ 2, number\n", '"list": one switch cannot choose between lists: mark one item with [[...]]'),
    ("@ int Twice(\n* half\n- Check[[(number]]);\n+ (1\n", '"half": a bracket begins or ends outside of the text'),
    ("@ int Twice(\n* one half\n- Check([[number]]);\n+ 1) + (2\n", '"one half": a bracket begins or ends outside of the text'),
    ("nonsense\n", "table.txt:2: no line of a table: nonsense"),
])
def test_a_table_that_does_not_fit_is_an_error_that_names_the_mutant(planted, table, says):
    with pytest.raises(mutants.TableError) as error:
        planted(table)
    assert says in str(error.value)
