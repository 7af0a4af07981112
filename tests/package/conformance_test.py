#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the commands of docs/conformance.md that only read the sources, and looks whether the others name tests,
scripts and files that are there; a row that is met needs one of them."""
import pathlib
import re
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
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
    unittest.main(verbosity=2)
