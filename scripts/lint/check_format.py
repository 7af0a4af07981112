#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Every C and C++ source is laid out as .clang-format says, without blanks at line ends.
With --fix it lays them out so."""
import argparse
import pathlib
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import common  # noqa: E402

FOLDERS = ("platform", "utils", "base", "video", "tools", "examples", "recorder", "tests", "bench",
           "fuzz")
# Hand-aligned comment columns of the C headers are part of their manual.
HAND_LAID = {"olvex_det.h", "algo_types.h", "qv_types.h", "qv_sys.h", "qv_ipu.h", "qv_host.h"}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--fix", action="store_true", help="lay the sources out")
    paths = [path for path in common.paths_in(FOLDERS) if pathlib.PurePath(path).name not in HAND_LAID]
    if parser.parse_args().fix:
        common.run(["clang-format", "-i", *paths], "test")
        return 0
    result = subprocess.run(["clang-format", "--dry-run", "-Werror", *paths], cwd=common.ROOT, check=False)
    blanks = [f"{path}:{number}: blanks at the end of the line" for path in paths
              for number, line in enumerate((common.ROOT / path).read_text().splitlines(), 1)
              if line != line.rstrip()]
    print("\n".join(blanks) if blanks else f"{len(paths)} files looked at")
    return 1 if blanks or result.returncode else 0


if __name__ == "__main__":
    common.run_script(main)
