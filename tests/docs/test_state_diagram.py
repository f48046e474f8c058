"""The diagram of states in docs/architecture.md has the transitions of testing/model/transitions.def, all of them and no
other. That table in turn is held against the transitions that the module takes, by state_transitions_test.cpp."""

import re
from pathlib import Path

import pytest

ROOT = Path(__file__).parents[2]
PAGE = ROOT / "docs" / "architecture.md"
TABLE = ROOT / "testing" / "model" / "transitions.def"

START = "[*]"


def name_of(path):
    return path.relative_to(ROOT) if path.is_relative_to(ROOT) else path


def transitions_of_diagram(page):
    """{(from, event, to): place} of the page's state diagram; the place is file and line."""
    found = {}
    in_diagram = False
    for number, line in enumerate(page.read_text(encoding="utf-8").splitlines(), 1):
        if line.strip() == "stateDiagram-v2":
            in_diagram = True
        elif line.startswith("```"):
            in_diagram = False
        elif in_diagram:
            place = f"{name_of(page)}:{number}"
            edge = re.fullmatch(r"\s*(\S+) --> (\w+): (\w+(?:, \w+)*)", line)
            assert edge, f"{place}: an edge is FROM --> TO: EVENT, EVENT..., not {line.strip()}"
            for event in edge[3].split(", "):
                transition = (edge[1], event, edge[2])
                assert transition not in found, f"{place}: {show(transition)} is drawn before, at {found[transition]}"
                found[transition] = place
    return found


def transitions_of_table(table):
    found = {}
    for number, line in enumerate(table.read_text(encoding="utf-8").splitlines(), 1):
        if row := re.fullmatch(r"TRANSITION\((\w+), (\w+), (\w+)\)", line):
            found[row.groups()] = f"{name_of(table)}:{number}"
    return found


def show(transition):
    return f"{transition[0]} --> {transition[2]}: {transition[1]}"


def differences(page, table):
    """A line for each transition that only one side has."""
    drawn, taken = transitions_of_diagram(page), transitions_of_table(table)
    # init() resets: the first state is the one that a reset leads to from everywhere.
    taken.update({(START, event, to): place for (_, event, to), place in taken.items() if event == "RESET"})
    return [f"{place}: the diagram of {page.name} lacks {show(transition)}"
            for transition, place in taken.items() if transition not in drawn] + [
            f"{place}: {table.name} has no transition {show(transition)}"
            for transition, place in drawn.items() if transition not in taken]


def test_diagram_and_module_have_the_same_transitions():
    assert len(transitions_of_table(TABLE)) == TABLE.read_text(encoding="utf-8").count("\nTRANSITION(") >= 20
    if told := differences(PAGE, TABLE):
        pytest.fail("\n".join(told), pytrace=False)


def test_every_event_is_explained():
    events = {event for _, event, _ in transitions_of_table(TABLE)}
    rows = PAGE.read_text(encoding="utf-8").partition("\n| Event |")[2].partition("\n\n")[0].splitlines()
    explained = [event for row in rows for event in re.findall(r"`([A-Z_]+)`", row.split("|")[1])]
    assert sorted(explained) == sorted(events)


GOOD_TABLE = """TRANSITION(LOGIN, SENT, LOGIN)
TRANSITION(LOGIN, OUT_OF_TRIES, FAIL)
TRANSITION(FAIL, RESET, LOGIN)
"""
GOOD_PAGE = """```mermaid
stateDiagram-v2
    [*] --> LOGIN: RESET
    LOGIN --> LOGIN: SENT
    LOGIN --> FAIL: OUT_OF_TRIES
    FAIL --> LOGIN: RESET
```
"""


@pytest.mark.parametrize("old, new, told", [
    ("", "", []),
    ("    LOGIN --> FAIL: OUT_OF_TRIES\n", "",
     ["transitions.def:2: the diagram of page.md lacks LOGIN --> FAIL: OUT_OF_TRIES"]),
    ("LOGIN: SENT", "LOGIN: SENT, RESET", ["page.md:4: transitions.def has no transition LOGIN --> LOGIN: RESET"]),
    ("[*] --> LOGIN", "[*] --> FAIL",
     ["transitions.def:3: the diagram of page.md lacks [*] --> LOGIN: RESET",
      "page.md:3: transitions.def has no transition [*] --> FAIL: RESET"]),
])
def test_an_edge_too_few_or_too_many_is_told(tmp_path, old, new, told):
    page, table = tmp_path / "page.md", tmp_path / "transitions.def"
    page.write_text(GOOD_PAGE.replace(old, new), encoding="utf-8")
    table.write_text(GOOD_TABLE, encoding="utf-8")
    assert differences(page, table) == [f"{tmp_path}/{line}" for line in told]


@pytest.mark.parametrize("old, new, problem", [
    ("FAIL: OUT_OF_TRIES", "FAIL", "page.md:5: an edge is FROM --> TO: EVENT, EVENT..., not LOGIN --> FAIL"),
    ("LOGIN: SENT", "LOGIN: SENT, SENT", "page.md:4: LOGIN --> LOGIN: SENT is drawn before, at "),
])
def test_a_line_that_is_no_edge_is_told(tmp_path, old, new, problem):
    page = tmp_path / "page.md"
    page.write_text(GOOD_PAGE.replace(old, new), encoding="utf-8")
    with pytest.raises(AssertionError, match=re.escape(problem)):
        transitions_of_diagram(page)
