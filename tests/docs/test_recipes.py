"""The recipes of contrib/ agree with the CMake build: version, options, needed libraries, installed files, tools."""

import json
import os
import re
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).parents[2]


def text_of(pattern):
    """The text of the one file with such a name, its continued lines joined."""
    path, = ROOT.glob(pattern)
    return re.sub(r"\s*\\\n\s*", " ", path.read_text(encoding="utf-8"))


def only(pattern, text):
    found, = re.findall(pattern, text, re.MULTILINE)
    return found


CONFIG_IN = text_of("contrib/buildroot/package/*/Config.in").partition("\ncomment")[0]
RECIPES = {
    "Buildroot": text_of("contrib/buildroot/package/*/*.mk"),
    "Yocto": text_of("contrib/yocto/recipes-*/*/*.bb"),
    "OpenWrt": text_of("contrib/openwrt/*/Makefile"),
}
# What stands for a needed library in the recipes, in that order; None: every C++ program there has it.
NEEDED = {
    "libcvutils.so": ("$(call qstrip,$(BR2_PACKAGE_CVCLOUDREGISTERHANDLER_CVUTILS_PACKAGE))",
                      "${CV_CVUTILS_RECIPE}", "+$(CV_CVUTILS_PACKAGE)"),
    "libjansson.so.4": ("jansson", "jansson", "+jansson"),
    "libstdc++.so.6": ("BR2_INSTALL_LIBSTDCPP", None, "+libstdcpp"),
    "libgcc_s.so.1": (None, None, None),
    "libc.so.6": ("BR2_TOOLCHAIN_HAS_THREADS", None, "+libpthread"),
    "ld-linux-armhf.so.3": (None, None, None),
}
# What Buildroot asks for beside libraries.
TOOLS = r"host-pkgconf|BR2_TOOLCHAIN_GCC_AT_LEAST_\d+|!BR2_STATIC_LIBS"
# Below the prefix: what Buildroot removes from the target's root, and Yocto puts into the package for development.
DEVELOPMENT = ("include/", "lib/cmake/", "lib/pkgconfig")
# Stands for what the maker's package installs, and for what a recipe asks git.
VALUES = {
    "CV_HOST_INCLUDE_DIR": str(ROOT / "host/include"),
    "CV_CVUTILS_LIBRARY": os.environ["CV_CVUTILS"],
    "CV_BUILD": "a-commit",
}


def options_of(system):
    return {name: VALUES.get(name, value) for name, value in re.findall(r"-D(\w+)=(\S+)", RECIPES[system])}


@pytest.fixture(name="build", scope="module")
def fixture_build(tmp_path_factory):
    """The build tree of the library, configured as the recipes say."""
    build = tmp_path_factory.mktemp("build")
    query = build / ".cmake/api/v1/query/codemodel-v2"
    query.parent.mkdir(parents=True)
    query.touch()
    options = [f"-D{name}={value}" for name, value in options_of("Buildroot").items()]
    result = subprocess.run(["cmake", "-S", ROOT, "-B", build, "-DCMAKE_INSTALL_LIBDIR=lib", *options],
                            capture_output=True, text=True, timeout=60, check=False)
    assert (result.returncode, result.stderr) == (0, "") # An option that the project does not know is a warning.
    return build


def test_version(build):
    version = only(r"^CMAKE_PROJECT_VERSION:STATIC=(.*)", (build / "CMakeCache.txt").read_text(encoding="utf-8"))
    recipe, = ROOT.glob("contrib/yocto/recipes-*/*/*.bb")
    assert {
        "Buildroot": only(r"_VERSION = (.*)", RECIPES["Buildroot"]),
        "Yocto": recipe.stem.partition("_")[2],
        "OpenWrt": only(r"^PKG_VERSION:=(.*)", RECIPES["OpenWrt"]),
    } == dict.fromkeys(RECIPES, version)


def test_options(build):
    options = options_of("Buildroot")
    assert options_of("OpenWrt") == options
    del options["CV_BUILD"] # Yocto builds in the checkout itself, where CMake asks git.
    assert options_of("Yocto") == options
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    assert {name: only(rf"^{name}:(?!UNINITIALIZED)\w+=(.*)", cache) for name in options} == options


@pytest.mark.parametrize("system", RECIPES)
def test_needed_libraries(system):
    names = re.findall(r"^lib\S+|^ld\S+", text_of("tests/abi/needed.txt"), re.MULTILINE)
    assert names == list(NEEDED)
    dependencies = only(r"DEPEND\w+ ?:?= ?(.*)", RECIPES[system]).strip('"')
    if system == "Buildroot":
        assert only(r"^\tselect BR2_PACKAGE_(.*)", CONFIG_IN) == "JANSSON"
        wanted = re.findall(r"^\tdepends on (\S+)", CONFIG_IN, re.MULTILINE)
        dependencies = re.sub(rf"(?<!\S)({TOOLS})(?!\S)", "", " ".join([dependencies, *wanted]))
    for dependency in filter(None, (stands_for[list(RECIPES).index(system)] for stands_for in NEEDED.values())):
        assert f" {dependency} " in f" {dependencies} "
        dependencies = dependencies.replace(dependency, "", 1)
    assert dependencies.split() == []


def test_installed_files(build):
    """An image gets the handler alone; the rest goes where the systems look for what is for development."""
    installers = [installer for directory in (build / ".cmake/api/v1/reply").glob("directory-*.json")
                  for installer in json.loads(directory.read_text(encoding="utf-8"))["installers"]
                  if "destination" in installer and not installer.get("isExcludeFromAll")]
    handler, = [installer for installer in installers if installer["component"] == "handler"]
    others = [installer["destination"] for installer in installers if installer != handler]
    assert others and [name for name in others if not name.startswith(DEVELOPMENT)] == []

    place = handler["destination"]
    name = Path(handler["paths"][0]).name
    assert 'FILES:${PN} = "${libdir}/' + place.removeprefix("lib/") + '"' in RECIPES["Yocto"]
    install = only(r"^\t\$\(INSTALL_BIN\) (.*)", RECIPES["OpenWrt"])
    assert install == f"$(PKG_INSTALL_DIR)/usr/{place}/{name} $(1)/usr/{place}/"


def test_tools():
    """The oldest compiler is one that the library is built with, and every CMake that Buildroot takes is new enough."""
    built_with = re.findall(r"^    'g\+\+-(\d+) ", text_of("tests/toolchains/check"), re.MULTILINE)
    oldest = min(built_with, key=int)
    assert only(r"needs GCC (\d+) ", text_of("docs/integration.md")) == oldest
    assert only(r"BR2_TOOLCHAIN_GCC_AT_LEAST_(\d+)", CONFIG_IN) == oldest
    assert only(r"gcc >= (\d+) ", text_of("contrib/buildroot/package/*/Config.in")) == oldest
    cmake = only(r"^cmake_minimum_required\(VERSION (\d+)\.(\d+)", text_of("CMakeLists.txt"))
    assert tuple(map(int, cmake)) <= (3, 18)
