# SPDX-License-Identifier: Apache-2.0
"""What the scripts share: the root of the tree, calls of other programs, tables, and files that explain
what a check finds."""
import os
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
SOURCES = (".h", ".cpp", ".c")


class Failure(Exception):
    """What keeps a script from its work; the text says what to do."""


def say(text):
    print(text, file=sys.stderr, flush=True)


def run_script(main, code=1):
    """Runs main(), which returns the exit code; a failure is printed in one line and ends with `code`."""
    try:
        sys.exit(main())
    except BrokenPipeError:
        # What could not be written is not tried once more at exit.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        sys.exit(code)
    except Failure as failure:
        say(f"error: {failure}")
        sys.exit(code)
    except OSError as error:
        say(f"error: {error.filename or 'standard output'}: {error.strerror}")
        sys.exit(code)
    except KeyboardInterrupt:
        say("stopped")
        sys.exit(130)


def run(command, setup, **options):
    """Runs a program from the root of the tree; a Failure with what it printed, if that was kept, when it
    fails. setup: what tools/setup has to be given where the program is missing."""
    command = [str(word) for word in command]
    try:
        result = subprocess.run(command, check=False, text=True, **{"cwd": ROOT, **options})
    except FileNotFoundError as missing:
        raise Failure(f"{missing.filename} is missing: run tools/setup {setup}") from missing
    if result.returncode != 0:
        said = (result.stdout or "")[-3000:]
        raise Failure(f"{' '.join(command)} failed" + (f":\n{said}" if said else ": see above"))
    return result.stdout


def print_table(columns, rows):
    """A table in Markdown, each row as soon as it is known."""
    print("| " + " | ".join(columns) + " |\n" + "|---" * len(columns) + "|")
    for values in rows:
        print("| " + " | ".join(map(str, values)) + " |", flush=True)


def paths_in(folders, endings=SOURCES):
    """The files of these folders of the tree, as paths from its root, in order."""
    return sorted(path.relative_to(ROOT).as_posix() for folder in folders
                  for path in (ROOT / folder).rglob("*") if path.suffix in endings)


def line_text(file, number):
    return (ROOT / file).read_text().splitlines()[number - 1].strip()


def read_explained(path):
    """The findings that a file explains, as a set of (file, kind, text of the line). Line numbers are left
    out: they change too often. The file has blocks with an empty line between them; lines with '#' are
    comments:

        folder/file.cpp kind
            the text of the line, as it stands there
            (more lines of the file, where the same is true of them)
        Why this is no fault.
    """
    text = re.sub(r"^#.*\n", "", path.read_text(), flags=re.MULTILINE)
    found = set()
    for block in filter(str.strip, re.split(r"\n\s*\n", text)):
        head, *rest = block.strip("\n").splitlines()
        codes = [line.strip() for line in rest if line.startswith("    ")]
        if len(head.split()) != 2 or not codes or len(codes) == len(rest):
            raise Failure(f"{path}: a block needs a file and a kind, lines of the file and a reason:\n{block}")
        found |= {(*head.split(), code) for code in codes}
    return found


def judge(findings, path):
    """findings: {(file, kind, text of the line): what to print}. Prints what is wrong; 1 if anything."""
    explained = read_explained(path)
    for key in sorted(findings.keys() - explained):
        print(findings[key])
    for file, kind, code in sorted(explained - findings.keys()):
        print(f"{path}: nothing of that kind is found any more: {file} {kind}\n    {code}")
    print(f"{len(findings)} findings, {len(findings.keys() & explained)} of them explained in "
          f"{path.relative_to(ROOT)}")
    return 1 if findings.keys() ^ explained else 0
