"""The check of the appliance's declarations, against copies of host/include with one thing changed."""

import os
import re
import shlex
import shutil
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).parents[2]
HEADERS = ROOT / "host/include"
COMPILER = shlex.split(os.environ["CV_COMPILER"])
OTHER_TYPES = [
    (r"\bunsigned int\b", "unsigned long"),
    (r"\bbool\b", "int"),
    (r"(?<!unsigned )\bint\b", "long"),
    (r"\bconst char\*", "char*"),
    (r"(?<!const )\bchar\*", "const char*"),
    (r"\bvoid\*", "char*"),
    (r"\bstd::uint32_t\b", "std::int32_t"),
    (r"\bstd::int32_t\b", "std::uint32_t"),
    (r"\bstd::uint64_t\b", "std::int64_t"),
    (r"\bstd::size_t\b", "unsigned short"),
    (r"\bconst std::string&", "std::string"),
    (r"\bconst Message\*", "Message*"),
    (r"\bconst json_t\*", "json_t*"),
    (r"(?<!const )\bjson_t\*", "const json_t*"),
    (r"\[260\]", "[256]"),
    (r"(?<=const std::vector<std::string>)&", ""),
    (r"^    std::string\b", "    const char*"),
    (r"\bvirtual\b", ""),
]
# Not the library's business.
ELSEWHERE = re.compile(r"^\s*(///?|#|static_assert)|reserved|daemon_operation")


def changed_types():
    """Every place of a declaration where another type could stand: its file, line, and the line with that type."""
    for path in sorted(HEADERS.rglob("*.h")):
        lines = path.read_text(encoding="utf-8").partition("private:")[0].splitlines()
        for number, line in enumerate(lines):
            code = line.partition("///")[0]
            for pattern, other in OTHER_TYPES if not ELSEWHERE.search(line) else []:
                for match in re.finditer(pattern, code):
                    changed = line[:match.start()] + other + line[match.end():]
                    yield pytest.param(path.relative_to(HEADERS), number, changed.replace(" = 0;", ";")
                                       if other == "" and "virtual" in line else changed,
                                       id=f"{path.name}:{number + 1}:{changed.strip()}")


@pytest.fixture
def headers(tmp_path):
    return Path(shutil.copytree(HEADERS, tmp_path / "include"))


def check(headers):
    return subprocess.run([ROOT / "tests/abi/check_host_interface.py", headers, *COMPILER],
                          capture_output=True, text=True, check=False, timeout=60)


def test_the_headers_and_the_library(headers):
    result = subprocess.run([ROOT / "tests/abi/check_host_interface.py", "--library", os.environ["CV_LIBRARY"], headers,
                             *COMPILER], capture_output=True, text=True, check=False, timeout=60)
    assert (result.returncode, result.stderr) == (0, "")


@pytest.mark.parametrize("path, number, line", changed_types())
def test_another_type(headers, path, number, line):
    lines = (headers / path).read_text(encoding="utf-8").splitlines()
    lines[number] = line
    (headers / path).write_text("\n".join(lines) + "\n", encoding="utf-8")
    result = check(headers)
    assert result.returncode == 1
    assert "differ from what the library needs" in result.stderr or "is not virtual" in result.stderr


def declaration(name):
    """The text of a virtual operation's declaration."""
    return re.compile(rf"    virtual [^;{{}}]*\b{name}\([^;{{}}]*(?:;|\{{\}})\n")


@pytest.mark.parametrize("header, name", [("cloud", name) for name in (
    "release_response", "build_request", "publish_message", "daemon_operation", "send_response")] + [
    ("handler", name) for name in ("subscribe_for_cmds", "uninit", "handle", "handle_cmd")])
def test_another_slot(headers, header, name):
    path = headers / f"cvcloud/cv{header}_api.h"
    text = path.read_text(encoding="utf-8")
    moved = declaration(name).search(text)[0]
    text = text.replace(moved, "").replace("public:\n", "public:\n" + moved, 1)
    path.write_text(text, encoding="utf-8")
    result = check(headers)
    assert result.returncode == 1
    assert "order" in result.stderr


def test_data_of_the_handler(headers):
    path = headers / "cvcloud/cvhandler_api.h"
    path.write_text(path.read_text(encoding="utf-8").replace("protected:", "    int data;\nprotected:"), encoding="utf-8")
    assert "CvHandlerAPI has data members" in check(headers).stderr
