"""The library alone, built as a firmware builds it: what it is configured with, what is wrong with that, what it installs."""

import json
import os
import shlex
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).parents[2]
CVUTILS = Path(os.environ["CV_CVUTILS"])
HEADERS = ROOT / "host/include"
LIBRARY = {"CV_BUILD_SANDBOX": "OFF", "BUILD_TESTING": "OFF", "CV_HOST_INCLUDE_DIR": HEADERS, "CV_CVUTILS_LIBRARY": CVUTILS}


def run(*command, **options):
    return subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False, timeout=120,
                          **options)


def configure(directory, **variables):
    return run("cmake", "-G", "Ninja", "-S", ROOT, "-B", directory,
               *(f"-D{name}={value}" for name, value in {**LIBRARY, **variables}.items() if value is not None))


def flags_of(directory, **variables):
    """The compiler's flags for a source of the library."""
    result = configure(directory, **variables)
    assert result.returncode == 0, result.stderr
    commands = json.loads((directory / "compile_commands.json").read_text(encoding="utf-8"))
    return shlex.split(next(entry["command"] for entry in commands if "callbacks" in entry["file"]))


@pytest.mark.parametrize("variables, flags, without", [
    ({}, ["-O2", "-g", "-std=c++17", "-D_FORTIFY_SOURCE=2"], ["-Werror", "-O3", "-DNDEBUG"]),
    ({"CV_WERROR": "ON"}, ["-Werror"], []),
    ({"CMAKE_CXX_STANDARD": 20}, ["-std=c++20"], ["-std=c++17"]),
    ({"CMAKE_CXX_FLAGS_RELEASE": "-Os"}, ["-Os", "-D_FORTIFY_SOURCE=2"], ["-O2"]),
    ({"CMAKE_BUILD_TYPE": "Debug"}, ["-fstack-protector-strong"], ["-D_FORTIFY_SOURCE=2"]),
    ({"CMAKE_BUILD_TYPE": "Own", "CMAKE_CXX_FLAGS_OWN": "-O0 -Og"}, ["-D_FORTIFY_SOURCE=2"], []),
    ({"CMAKE_CXX_FLAGS": "-D_FORTIFY_SOURCE=3"}, ["-D_FORTIFY_SOURCE=3"], ["-D_FORTIFY_SOURCE=2"]),
])
def test_flags(tmp_path, variables, flags, without):
    found = flags_of(tmp_path / "build", **variables)
    assert [flag for flag in flags if flag not in found] == []
    assert [flag for flag in without if flag in found] == []


def headers_without(directory, name):
    """Headers of the maker's that lack one."""
    for header in HEADERS.rglob("*.h"):
        path = directory / header.relative_to(HEADERS)
        path.parent.mkdir(parents=True, exist_ok=True)
        if header.name != name:
            path.symlink_to(header)
    return directory


def for_another_processor(directory):
    """A libcvutils that is an ELF file of another machine."""
    library = bytearray(CVUTILS.read_bytes())
    library[18] ^= 1
    (directory / "libcvutils.so").write_bytes(library)
    return directory / "libcvutils.so"


def no_library(directory):
    (directory / "libcvutils.so").touch()
    return directory / "libcvutils.so"


@pytest.mark.parametrize("variables, words", [
    ({"CV_HOST_INCLUDE_DIR": lambda path: headers_without(path / "maker", "network.h")},
     ["CV_HOST_INCLUDE_DIR is {path}/maker", "no cvutils/network.h"]),
    ({"CV_HOST_INCLUDE_DIR": None}, ["CV_HOST_INCLUDE_DIR is not set", f"{CVUTILS}"]),
    ({"CV_CVUTILS_LIBRARY": for_another_processor}, ["CV_CVUTILS_LIBRARY is {path}/libcvutils.so", "cannot link it"]),
    ({"CV_CVUTILS_LIBRARY": no_library}, ["CV_CVUTILS_LIBRARY is {path}/libcvutils.so", "no cv::log::print"]),
    ({"CV_CVUTILS_LIBRARY": "/no/libcvutils.so"}, ["CV_CVUTILS_LIBRARY is /no/libcvutils.so", "no such file"]),
    ({"CV_CVUTILS_LIBRARY": "libcvutils.so"}, ["CV_CVUTILS_LIBRARY is 'libcvutils.so'", "whole path"]),
    ({"CV_CVUTILS_LIBRARY": None}, ["CV_CVUTILS_LIBRARY is 'cvutils'", "whole path"]),
    ({"CV_HOST_INCLUDE_DIR": None, "CV_CVUTILS_LIBRARY": None},
     ["CV_HOST_INCLUDE_DIR and CV_CVUTILS_LIBRARY are not set", "CV_BUILD_SANDBOX"]),
    ({"CMAKE_CXX_STANDARD": 14}, ["CMAKE_CXX_STANDARD is 14", "17 or later"]),
    ({"CV_BUILD": 'a"b'}, ["CV_BUILD is 'a\"b'", "letters"]),
])
def test_what_is_wrong_is_said_in_one_sentence(tmp_path, variables, words):
    values = {name: value(tmp_path) if callable(value) else value for name, value in variables.items()}
    result = configure(tmp_path / "build", **values)
    assert result.returncode == 1
    assert result.stderr.count("CMake Error") == 1
    # CMake breaks the lines.
    message = "".join(result.stderr.partition("Call Stack")[0].split())
    assert [word for word in words if "".join(word.format(path=tmp_path).split()) not in message] == []


def test_an_image_gets_four_kinds_of_files(tmp_path):
    build = tmp_path / "build"
    assert configure(build, CMAKE_INSTALL_LIBDIR="lib").returncode == 0
    built = run("cmake", "--build", build, "--verbose")
    assert built.returncode == 0, built.stdout
    assert "python" not in built.stdout and "scripts/" not in built.stdout
    for prefix, environment, top in (("/usr", {"DESTDIR": str(tmp_path / "image")}, tmp_path / "image/usr"),
                                     (str(tmp_path / "opt"), {}, tmp_path / "opt")):
        assert run("cmake", "--install", build, "--prefix", prefix, env={**os.environ, **environment}).returncode == 0
        assert sorted(str(file.relative_to(top)) for file in top.rglob("*") if file.is_file()) == sorted([
            *(f"include/cvcloudregisterhandler/{header.relative_to(HEADERS)}" for header in HEADERS.rglob("*.h")),
            "lib/cmake/cvcloudregisterhandler/cvcloudregisterhandler-config-version.cmake",
            "lib/cmake/cvcloudregisterhandler/cvcloudregisterhandler-config.cmake",
            "lib/cvcloudd/handlers/libcvcloudregisterhandler.so",
            "lib/pkgconfig/cvcloudregisterhandler.pc",
        ])
        variables = (top / "lib/pkgconfig/cvcloudregisterhandler.pc").read_text(encoding="utf-8").splitlines()
        assert variables[0] == f"prefix={prefix}"
