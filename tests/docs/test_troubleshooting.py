"""docs/troubleshooting.md lists the texts of the module's log and replies, all of them and no other; and both pages for
those outside know every error that a reply can name.

The texts are read from the sources: the formats of CV_LOG, the titles of log_json, and the reasons that
build_error_response is given, directly or through the functions that pass a reason on. What is put into a text counts
as "…", on the page as in the code."""

import json
import re
from pathlib import Path
from typing import NamedTuple

import pytest

ROOT = Path(__file__).parents[2]
MODULE = ROOT / "libs" / "cvcloudregisterhandler"
SOURCES = sorted([*MODULE.glob("src/*.cpp"), *MODULE.glob("include/*.h")])
PAGE = ROOT / "docs" / "troubleshooting.md"

REASON_FUNCTIONS = ("build_error_response", "refuse", "missing_value_error")
LITERAL = r'"(?:[^"\\\n]|\\.)*"'


class Text(NamedTuple):
    kind: str
    # The level of a line, the results of a reason.
    head: str
    text: str


class DocumentError(Exception):
    """A text that cannot be read; one line with file and line."""


def place(path, source, position):
    name = path.relative_to(ROOT) if path.is_relative_to(ROOT) else path
    return f"{name}:{source.count(chr(10), 0, position) + 1}"


def without_comments(source):
    """The same lines without the texts of comments."""
    def blank(match):
        return match[0] if match[0].startswith('"') else re.sub(r"[^\n]", " ", match[0])
    return re.sub(rf"{LITERAL}|//[^\n]*|/\*.*?\*/", blank, source, flags=re.DOTALL)


def calls(source, function):
    """(position, arguments) of each call."""
    for match in re.finditer(rf"\b{function}\(", source):
        if re.search(r"\b(?!return\b|else\b)\w+[ *&]+$", source[:match.start()]):
            continue  # A declaration, behind its type, or the macro's own.
        arguments, depth, begin = [], 0, match.end()
        for token in re.finditer(rf"{LITERAL}|[(){{}}\[\],]", source[match.end():]):
            if token[0] in "([{":
                depth += 1
            elif token[0] in ")]}" and depth:
                depth -= 1
            elif token[0] in "),;" and not depth:
                arguments.append(source[begin:match.end() + token.start()].strip())
                begin = match.end() + token.end()
                if token[0] == ")":
                    break
        yield match.start(), arguments


def text_of(expression):
    """The text of an expression of literals and what is put between them; None when it has no literal."""
    if not re.search(LITERAL, expression):
        return None
    text = ""
    for piece in re.findall(rf"{LITERAL}|[^\"]+", expression):
        if piece.startswith('"'):
            text += re.sub(r"\\(.)", r"\1", piece[1:-1])
        elif re.sub(r"std::string\($|\.c_str\(\)|[\s+()]", "", piece):
            text += "…"
    return text


def texts_of_sources(sources):
    """{Text: place} of all that the module logs and replies; raises DocumentError."""
    found = {}
    for path in sources:
        source = without_comments(path.read_text(encoding="utf-8"))

        def add(kind, head, text, position):
            found.setdefault(Text(kind, head, text), place(path, source, position))

        for position, arguments in calls(source, "CV_LOG"):
            form = text_of(arguments[1]) if len(arguments) > 1 else None
            if form is None or not arguments[0].isdigit():
                raise DocumentError(f"{place(path, source, position)}: CV_LOG without a number and a text")
            add("line", arguments[0], re.sub(r"%(\.\*)?[a-z]", "…", form), position)
        for position, arguments in calls(source, "log_json"):
            title = text_of(arguments[1])
            if title is None:
                raise DocumentError(f"{place(path, source, position)}: log_json without a title")
            add("line", arguments[0], f"{title.rstrip()} …", position)
        for function in REASON_FUNCTIONS:
            for position, arguments in calls(source, function):
                reason = text_of(arguments[-1])
                if reason is None:
                    # Handed on from a caller, or the cloud's own words.
                    if not re.search(r"\breason$", arguments[-1]):
                        raise DocumentError(f"{place(path, source, position)}: {function} with the reason "
                                            f"{arguments[-1]}, which is no text")
                    continue
                results = arguments[-2]
                if not results.startswith("error_"):
                    # The latest value that the name was given.
                    results = (re.findall(rf"\bErrorId {results} = ([^;]*);", source[:position]) or [""])[-1]
                results = sorted(re.findall(r"\berror_\w+", results))
                if not results:
                    raise DocumentError(f"{place(path, source, position)}: {function} with a result that is not known")
                add("reason", ", ".join(results), reason, position)
    return found


def tables(path):
    """(line, header, row) of each row of the page's tables, as lists of cells."""
    header = None
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if not line.startswith("|"):
            header = None
            continue
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if header is None:
            header = cells
        elif not set(line) <= set("|-: "):
            yield number, header, cells


def texts_of_page(path):
    """{Text: place} of all that the page lists; raises DocumentError."""
    found = {}
    for number, header, cells in tables(path):
        if header[:2] == ["Level", "Line"]:
            kind, head = "line", cells[0]
        elif header[:2] == ["Result", "Reason"]:
            kind, head = "reason", ", ".join(sorted(re.findall(r"`([^`]+)`", cells[0])))
        else:
            continue
        name = path.relative_to(ROOT) if path.is_relative_to(ROOT) else path
        code = re.fullmatch(r"`([^`]+)`", cells[1])
        if not code:
            raise DocumentError(f"{name}:{number}: the second column has no text")
        text = Text(kind, head, code[1])
        if text in found:
            raise DocumentError(f"{name}:{number}: {code[1]} is listed before, at {found[text]}")
        found[text] = f"{name}:{number}"
    return found


def is_special_case(text, coded):
    """Whether a row explains one value of what is put into a reason of the module, such as one status."""
    return any(text.kind == general.kind == "reason" and text.head == general.head and "…" in general.text and
               re.fullmatch(re.escape(general.text).replace("…", ".+"), text.text) for general in coded)


def differences(sources, page):
    """A line for each text that only one side has."""
    coded, listed = texts_of_sources(sources), texts_of_page(page)
    what = {"line": "a line at level", "reason": "a reason of"}
    return [f"{at}: {page.name} does not list {what[text.kind]} {text.head}: {text.text}"
            for text, at in coded.items() if text not in listed] + [
            f"{at}: the module has no such text: {what[text.kind]} {text.head}: {text.text}"
            for text, at in listed.items() if text not in coded and not is_special_case(text, coded)]


def test_the_page_lists_every_text_and_no_other():
    assert texts_of_sources(SOURCES)
    told = differences(SOURCES, PAGE)
    assert not told, "\n".join(told)


def changed(tmp_path, path, old, new):
    """A copy of a file with a text replaced."""
    text = path.read_text(encoding="utf-8")
    assert text.count(old) == 1
    copy = tmp_path / path.name
    copy.write_text(text.replace(old, new), encoding="utf-8")
    return copy


@pytest.mark.parametrize("name, old, new, problem", [
    ("cvregistration_utils.cpp", "memory alloc error", "no memory", "a reason of error_internal: no memory"),
    ("cvregistration_thread.cpp", "read returned %d", "read gave %d", "a line at level 0: read gave …"),
    ("cvregistration_thread.cpp", 'CV_LOG(2, "stopping', 'CV_LOG(1, "stopping',
     "a line at level 1: stopping registration thread..."),
    ("cvregistration_callbacks.cpp", '"register_box response: "', '"box response: "',
     "a line at level 2: box response: …"),
    ("cvregistration_callbacks.cpp", 'error_cvnc, "Empty response"', 'error_other, "Empty response"',
     "a reason of error_other: Empty response"),
    ("cvcloudregisterhandler.cpp", '"empty token_type"', '"no token_type"',
     "a reason of error_invalid_arguments: no token_type"),
    ("cvregistration_callbacks.cpp", '"device_id not found"', '"no device_id"',
     "a reason of error_register_box: no device_id"),
])
def test_a_changed_text_of_the_module_is_told_from_both_sides(tmp_path, name, old, new, problem):
    path = MODULE / "src" / name
    copy = changed(tmp_path, path, old, new)
    source = path.read_text(encoding="utf-8")
    told = differences([copy if source_path == path else source_path for source_path in SOURCES], PAGE)
    assert len(told) == 2
    assert told[0] == f"{place(copy, source, source.index(old))}: troubleshooting.md does not list {problem}"
    assert re.match(r"docs/troubleshooting\.md:\d+: the module has no such text: ", told[1])


def test_a_row_too_many_is_told(tmp_path):
    row = "| 0 | `read returned …` |"
    page = changed(tmp_path, PAGE, row, f"| 0 | `wrote nothing` | never | |\n{row}")
    told, = differences(SOURCES, page)
    assert told.endswith(": the module has no such text: a line at level 0: wrote nothing")


def test_a_reason_that_cannot_be_read_is_told(tmp_path):
    copy = changed(tmp_path, MODULE / "src" / "cvregistration_callbacks.cpp", '"Empty response"', "some_text()")
    with pytest.raises(DocumentError, match=r"\.cpp:\d+: build_error_response with the reason some_text\(\)"):
        texts_of_sources([copy])


def test_the_texts_of_the_desk_are_its_own():
    sources = "".join(path.read_text(encoding="utf-8") for folder in ("cvcloudd", "cloud")
                      for path in (ROOT / "sandbox" / folder).glob("*.cpp"))
    listed = [cells[1].strip("`").removeprefix("cvcloudd: ") for _, header, cells in tables(PAGE)
              if header[1] in ("The cloud's reason", "Line of the daemon")]
    assert len(listed) == 13
    for part in (part.strip() for text in listed for part in text.split("…")):
        assert part in sources


def test_both_pages_know_every_error():
    header = (MODULE / "include" / "cvregistration_utils.h").read_text(encoding="utf-8")
    errors = re.findall(r"\berror_\w+", without_comments(re.search(r"enum ErrorId[^}]*}", header)[0]))
    assert errors

    schema = json.loads((ROOT / "docs" / "schemas" / "error_reply.json").read_text(encoding="utf-8"))
    assert schema["properties"]["result"]["enum"] == errors
    told = [cells[0].strip("`") for _, head, cells in tables(ROOT / "docs" / "messages.md") if head[0] == "Result"]
    assert [result for result in told if result.startswith("error_")] == errors
