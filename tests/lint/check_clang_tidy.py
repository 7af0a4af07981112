#!/usr/bin/env python3
"""clang-tidy, with .clang-tidy's checks, over the library's own sources. Argument: a build folder with
compile_commands.json."""
import json
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
commands = json.loads((pathlib.Path(sys.argv[1]) / "compile_commands.json").read_text())
sources = sorted({c["file"] for c in commands
                  if pathlib.Path(c["file"]).is_relative_to(ROOT)
                  and pathlib.Path(c["file"]).relative_to(ROOT).parts[0] in ("base", "utils", "video")})
assert sources, "no library source in compile_commands.json"
result = subprocess.run(["clang-tidy", "--quiet", "-p", sys.argv[1], *sources], check=False,
                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
print(result.stdout)
print(f"{len(sources)} files looked at")
sys.exit(result.returncode)
