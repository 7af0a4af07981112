# SPDX-License-Identifier: Apache-2.0
"""manual_test.py - pages for man and scripts of completion: shells and groff take them, and they hold every option
of every subcommand. See tool_test.py for the usage.
"""
import re
import subprocess

from tool_test import TOOL, ToolTest, main

COMPLETE = """source share/bash-completion/completions/olvex-det
while read -r -a COMP_WORDS; do
  [[ ${COMP_WORDS[-1]} == _ ]] && COMP_WORDS[-1]=""
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  _olvex-det 2> errors
  echo "${COMPREPLY[*]}"
done"""


class ManualTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.tool("manual", "--write", "share")

    def test_pages_and_scripts_hold_every_option(self):
        pages = {path.stem: path.read_text() for path in (self.folder / "share/man/man1").iterdir()}
        scripts = {kind: (self.folder / "share" / path).read_text() for kind, path in
                   (("bash", "bash-completion/completions/olvex-det"), ("zsh", "zsh/site-functions/_olvex-det"))}
        self.assertGreater(len(pages), 12)
        for name, page in pages.items():
            words = next(text for text in re.findall(r"\.B (olvex\\-det.*)", page)).replace("\\", "").split()[1:]
            self.assertEqual(page, self.tool("manual", *words).stdout)
            warnings = subprocess.run(["groff", "-ww", "-man", "-Tutf8"], input=page, capture_output=True, text=True, check=True)
            self.assertEqual("", warnings.stderr, name)
            options = set(re.findall(r"^  (?:-\w,)?(--[\w-]+)", self.tool(*words, "--help").stdout, re.M))
            self.assertTrue(options)
            for option in options:
                for text in (page.replace("\\", ""), *scripts.values()):
                    self.assertIn(option, text)
        for shell, script in scripts.items():
            self.assertEqual(script, self.tool("completion", shell).stdout)
            subprocess.run([shell, "-n"], input=script, text=True, check=True)
        self.assertEqual("", subprocess.run([TOOL, "manual", "record", "cup"], capture_output=True, text=True).stdout)
        self.tool("manual", "record", "cup", code=2, said=["has no subcommand \"cup\". Did you mean cut?"])
        self.tool("manual", "--write", "/dev/null/x", code=4, said=["cannot make the folder"])

    def test_bash_completes_words(self):
        for line, wanted in (("olvex-det re", "replay record"), ("olvex-det eval _", "coco mot -h --help"),
                             ("olvex-det eval mot --cla", None), ("olvex-det run --picture-format _", "png jpg"),
                             ("olvex-det run --picture-format = j", "jpg"), ("olvex-det run run.qtm --sk", "--skip"),
                             ("olvex-det run run.qtm _", ""), ("olvex-det run --threshold _", ""),
                             ("olvex-det completion z", "zsh"), ("olvex-det --v", "--version")):
            result = subprocess.run(["bash", "-c", COMPLETE], input=line + "\n", text=True, cwd=self.folder,
                                    capture_output=True, check=True)
            if wanted is None:
                self.assertTrue(result.stdout.split(), line)
                self.assertTrue(all(word.startswith("--cla") for word in result.stdout.split()), line)
            else:
                self.assertEqual(wanted + "\n", result.stdout, line)

    def test_help_of_an_unknown_subcommand_is_an_error(self):
        for words, said in ((["rnu", "--help"], "\"rnu\". Did you mean run?"), (["--help", "cat"], "subcommand \"cat\"\n"),
                            (["eval", "cooc", "--help"], "Did you mean coco?"), (["eval", "mot", "--overlap"], "--overlap\"\n")):
            self.tool(*words, code=2, said=[said])


if __name__ == "__main__":
    main()
