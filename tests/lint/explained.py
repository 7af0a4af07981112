"""What a check of the sources finds and somebody has explained.

A file of explanations has blocks with an empty line between them; lines with '#' say nothing:

    folder/file.cpp kind
        the text of the line, as it stands there
        (more lines of the file, where the same is true of them)
    Why this is no fault.

A finding is a file, a kind and the text of a line. Line numbers are left out: they change too often.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]


def read(path):
    """The findings explained in a file, as a set. Ends the program when the file is not understood."""
    text = re.sub(r"^#.*\n", "", path.read_text(), flags=re.MULTILINE)
    found = set()
    for block in filter(str.strip, re.split(r"\n\s*\n", text)):
        head, *rest = block.strip("\n").splitlines()
        codes = [line.strip() for line in rest if line.startswith("    ")]
        if len(head.split()) != 2 or not codes or len(codes) == len(rest):
            sys.exit(f"{path}: a block needs a file and a kind, lines of the file and a reason:\n{block}")
        found |= {(*head.split(), code) for code in codes}
    return found


def line_text(file, number):
    return (ROOT / file).read_text().splitlines()[number - 1].strip()


def judge(findings, path):
    """findings: {(file, kind, text of the line): what to print}. Prints what is wrong; 1 if anything."""
    explained = read(path)
    for key in sorted(findings.keys() - explained):
        print(findings[key])
    for file, kind, code in sorted(explained - findings.keys()):
        print(f"{path}: nothing of that kind is found any more: {file} {kind}\n    {code}")
    wrong = findings.keys() ^ explained
    print(f"{len(findings)} findings, {len(findings.keys() & explained)} of them explained in "
          f"{path.relative_to(ROOT)}")
    return 1 if wrong else 0
