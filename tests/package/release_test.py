#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What is said of a release is so. ReproducibleTest builds libolvex_det.so twice, as it ships: in two folders, from
sources of two dates, in two time zones and languages; both have to be the same bytes. SbomTest compares what the SPDX
documents of the installation's components say is linked with what the loader will look for, by each binary's dynamic
section, and with the headers with code that the sources include. ConformanceTest runs the commands of
docs/conformance.md that only read the sources, and looks whether the others name tests, scripts and files that are
there; a row that is met needs one of them.

usage: release_test.py CLASS [BUILD COMPONENT...]
"""
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD, COMPONENTS = "".join(sys.argv[2:3]), sys.argv[3:]

# ---- ReproducibleTest

LIBRARY = ("CMakeLists.txt", "base", "cmake", "platform", "utils", "video")
# Another project, of which it is a part, builds the library alone.
PROJECT = "cmake_minimum_required(VERSION 3.16)\nproject(whole C CXX)\nadd_subdirectory(library)\n"
TOOLCHAIN = os.environ["TOOLCHAIN"]


def build_library(folder, date, environment):
    """The library of a copy of the sources in this folder."""
    (folder / "library").mkdir(parents=True)
    (folder / "CMakeLists.txt").write_text(PROJECT)
    for name in LIBRARY:
        copy = shutil.copytree if (ROOT / name).is_dir() else shutil.copy
        copy(ROOT / name, folder / "library" / name)
    for path in folder.rglob("*"):
        os.utime(path, (date, date))
    cross = [f"-DCMAKE_TOOLCHAIN_FILE={folder / 'library/cmake' / pathlib.Path(TOOLCHAIN).name}"] if TOOLCHAIN else []
    for command in (
            ("cmake", "-S", folder, "-B", folder / "b", "-G", "Ninja", *cross, "-DCMAKE_BUILD_TYPE=Release",
             f"-DCMAKE_C_COMPILER={os.environ['CC']}", f"-DCMAKE_CXX_COMPILER={os.environ['CXX']}"),
            ("ninja", "-C", folder / "b", "olvex_det")):
        result = subprocess.run(command, capture_output=True, text=True, check=False,
                                env={**os.environ, "CCACHE_DISABLE": "1", **environment})
        if result.returncode != 0:
            raise AssertionError(f"{command}: exit {result.returncode}\n{result.stdout[-4000:]}{result.stderr[-4000:]}")
    return (folder / "b/library/lib" / "libolvex_det.so").read_bytes()


class ReproducibleTest(unittest.TestCase):
    def test_two_builds_are_the_same_bytes(self):
        with tempfile.TemporaryDirectory() as holder:
            folders = [pathlib.Path(holder) / name for name in ("one", "another/deeper folder")]
            first = build_library(folders[0], 1_000_000_000, {"TZ": "UTC", "LC_ALL": "C"})
            second = build_library(folders[1], 1_700_000_000, {"TZ": "Asia/Tokyo", "LC_ALL": "C.UTF-8"})
        self.assertGreater(len(first), 10_000)
        self.assertTrue(first == second, "the builds differ")


# ---- SbomTest

# By what the file's name starts with: the package that the library is of.
PACKAGES = {"libstdc++": "libstdc++", "libgcc_s": "libgcc", "libc.so": "glibc", "libm.so": "glibc", "ld-linux": "glibc",
            "libopencv_": "opencv", "libz.so": "zlib", "libonnx": "onnx", "libprotobuf": "protobuf",
            "libolvex_det.so": "olvex_det-library", "libqv_host.so": "olvex_det-host"}
HEADERS = {"CLI": "CLI11", "nlohmann": "nlohmann_json"}
SOURCES = {"library": ("base", "utils", "video"), "recorder": ("recorder",), "host": ("platform/host",),
           "tools": ("tools", "platform/replay", "platform/host")}


def linked_by_loader(binaries):
    own = {binary.name for binary in binaries}
    needed = set()
    for binary in binaries:
        dynamic = subprocess.run([os.environ["READELF"], "-d", binary], capture_output=True, text=True, check=True)
        needed |= set(re.findall(r"\(NEEDED\).*\[(.+)\]", dynamic.stdout))
    return {next((package for start, package in PACKAGES.items() if name.startswith(start)), name)
            for name in needed - own}


def included(component):
    texts = (path.read_text() for folder in SOURCES[component] for path in (ROOT / folder).rglob("*")
             if path.suffix in (".c", ".cpp", ".h"))
    return {HEADERS[folder] for text in texts for folder in re.findall(r"#include <(\w+)/", text) if folder in HEADERS}


def is_elf(path):
    with path.open("rb") as file:
        return file.read(4) == b"\x7fELF"


class SbomTest(unittest.TestCase):
    def test_says_what_is_linked(self):
        for component in COMPONENTS:
            with self.subTest(component=component), tempfile.TemporaryDirectory() as stage:
                subprocess.run(["cmake", "--install", BUILD, "--component", component], check=True,
                               stdout=subprocess.DEVNULL, env={**os.environ, "DESTDIR": stage})
                files = [path for path in pathlib.Path(stage).rglob("*") if path.is_file() and not path.is_symlink()]
                document = json.loads(next(path for path in files if path.name.endswith(".spdx.json")).read_text())
                names = {package["SPDXID"]: package["name"] for package in document["packages"]}
                self.assertEqual("SPDX-2.3", document["spdxVersion"])
                self.assertEqual(f"olvex_det-{component}", names["SPDXRef-olvex"])
                self.assertEqual(len(document["packages"]), len(names))
                for package in document["packages"]:
                    self.assertRegex(package["SPDXID"], r"^SPDXRef-[A-Za-z0-9.-]+$")
                    self.assertRegex(package["versionInfo"], r"^\d[\d.]*$")
                links = {kind: {names[link["relatedSpdxElement"]] for link in document["relationships"]
                                if link["relationshipType"] == kind} for kind in ("DYNAMIC_LINK", "STATIC_LINK")}
                self.assertEqual(linked_by_loader([path for path in files if is_elf(path)]), links["DYNAMIC_LINK"])
                self.assertEqual(included(component), links["STATIC_LINK"])


# ---- ConformanceTest

ROWS = re.findall(r"^\| ([^|]+) \| (met|gap) \| (.+) \|$", (ROOT / "docs/conformance.md").read_text(), re.MULTILINE)


class ConformanceTest(unittest.TestCase):
    def test_commands_show_what_they_say(self):
        self.assertIn("met", {state for _, state, _ in ROWS})
        for subject, state, shown in ROWS:
            with self.subTest(subject=subject):
                commands = re.findall(r"`([^`]+)`", shown)
                if state == "met":
                    self.assertTrue(commands)
                for command in commands:
                    if command.startswith(("grep ", "sed ", "cat ", "python3 ")):
                        said = subprocess.run(command, shell=True, cwd=ROOT, capture_output=True, text=True, check=False)
                        self.assertEqual(0, said.returncode, command)
                        self.assertTrue(said.stdout.strip(), command)
                    elif re.match(r"\.?\w*/", command):
                        self.assertTrue((ROOT / command.split()[0]).exists(), command)
                    elif test := re.match(r"ctest .*-R (\w+)$", command):
                        found = subprocess.run(["grep", "-rlE", rf"\b{test[1]}\b", "--include=CMakeLists.txt", "tests"],
                                               cwd=ROOT, check=False, capture_output=True)
                        self.assertEqual(0, found.returncode, command)
                    elif preset := re.match(r"(?:ctest|cmake --workflow) --preset (\w+)(?: -L (\w+))?$", command):
                        self.assertIn(f'"name": "{preset[1]}"', (ROOT / "CMakePresets.json").read_text())
                        self.assertTrue(preset[2] is None or (ROOT / "scripts" / preset[2]).is_dir(), command)
                    else:
                        self.assertEqual("olvex-det --help", command)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:2], verbosity=2)
