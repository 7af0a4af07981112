#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""clang-tidy, with .clang-tidy's checks, over the library's own sources. Argument: a build folder with
compile_commands.json."""
import json
import pathlib
import re
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import common  # noqa: E402

# The library's own targets: others compile the same sources, with other headers. What takes the place of a
# source is in the plain library.
TARGETS = re.compile(r"olvex_det(_core)?\.dir/|olvex_det_plain\.dir/.*_plain\.cpp$")


def main():
    commands = json.loads((pathlib.Path(sys.argv[1]) / "compile_commands.json").read_text())
    commands = [c for c in commands if TARGETS.search(c["command"])]
    sources = sorted({c["file"] for c in commands})
    if not sources:
        raise common.Failure("no library source in compile_commands.json")
    with tempfile.TemporaryDirectory() as folder:
        (pathlib.Path(folder) / "compile_commands.json").write_text(json.dumps(commands))
        result = subprocess.run(["clang-tidy", "--quiet", "-p", folder, *sources], check=False,
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    print(result.stdout)
    print(f"{len(sources)} files looked at")
    return result.returncode


if __name__ == "__main__":
    common.run_script(main)
