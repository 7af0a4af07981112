#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Builds libolvex_det.so twice, as it ships: in two folders, from sources of two dates, in two time zones and
languages. Both have to be the same bytes."""
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
LIBRARY = ("CMakeLists.txt", "base", "cmake", "platform", "utils", "video")
# Another project, of which it is a part, builds the library alone.
PROJECT = "cmake_minimum_required(VERSION 3.16)\nproject(whole C CXX)\nadd_subdirectory(library)\n"
TOOLCHAIN = os.environ["TOOLCHAIN"]


def build(folder, date, environment):
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
            first = build(folders[0], 1_000_000_000, {"TZ": "UTC", "LC_ALL": "C"})
            second = build(folders[1], 1_700_000_000, {"TZ": "Asia/Tokyo", "LC_ALL": "C.UTF-8"})
        self.assertGreater(len(first), 10_000)
        self.assertTrue(first == second, "the builds differ")


if __name__ == "__main__":
    unittest.main(verbosity=2)
