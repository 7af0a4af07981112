#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Every source, script or page that a comment or a page of documentation names exists in the repository.

A name is a word with one of ENDINGS, with folders before it or without: some file has to end so. A word that
starts with a folder of the root and '/' has to be a path; a part of it in capitals is any name.

And no two headers of the tools, which share a namespace, define a type of the same name: the program would take
the code of one for the other.
"""
import pathlib
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import common  # noqa: E402

ENDINGS = ("c", "h", "cpp", "py", "cmake", "md", "supp")
NAME = re.compile(rf"(?<![\w./*<>$}}%-])((?:\.\./)*[\w-][\w./-]*\.(?:{'|'.join(ENDINGS)}))(?![\w*]|\.\w)")
# Comments of C and C++, of everything else, and the texts at the start of Python files and functions.
C_COMMENT = re.compile(r'"(?:[^"\\\n]|\\.)*"|//[^\n]*|/\*.*?\*/', re.DOTALL)
HASH_COMMENT = re.compile(r'''"""(?:.|\n)*?"""|"(?:[^"\\\n]|\\.)*"|\'(?:[^\'\\\n]|\\.)*\'|(?<![\w$])#[^\n]*''')
TYPE = re.compile(r"^(?:struct|class|enum(?: class)?) (\w+)[^;\n]*\{", re.MULTILINE)
STANDS_FOR_ANY = re.compile(r"(?:^|/)[A-Z]+(?=[./_]|$)")
OUTSIDE = {"build", "demo-output", ".git", "__pycache__"}
# Names that stand for any file, and those of the system.
EXAMPLES = {"folder/file.cpp", "x.cpp", "x.h", "x_plain.cpp", "OpenCVConfig.cmake"}


def comments_of(name, text):
    if name.endswith(".md"):
        return text
    is_c = name.endswith((".c", ".h", ".cpp", ".h.in"))
    found = (match[0] for match in (C_COMMENT if is_c else HASH_COMMENT).finditer(text))
    return "\n".join(text for text in found if text.startswith(("/", "#", '"""')))


def faults(files):
    """files: {path: text, or None where it is not read}. What is named and not there."""
    paths = [path.removesuffix(".in") for path in files]
    endings = {"/".join(parts[k:]) for parts in (path.split("/") for path in paths) for k in range(len(parts))}
    known = {str(parent) for path in files for parent in (path, *pathlib.PurePosixPath(path).parents)}
    below_root = re.compile(rf"(?<![\w./<-])((?:{'|'.join({path.split('/')[0] for path in files if '/' in path})})"
                            r"/[\w./-]*\w)")
    found = []
    for path, text in sorted(files.items()):
        comments = "" if text is None else comments_of(path, text)
        gone = {name for name in NAME.findall(comments) if name.replace("../", "") not in endings | EXAMPLES}
        gone |= {name for name in below_root.findall(comments) if name not in known}
        found += [f"{path}: {name} is not in the repository" for name in sorted(gone)
                  if not STANDS_FOR_ANY.search(name)]
    return found


def types_defined_twice(files):
    headers = {}
    for path, text in sorted(files.items()):
        if path.startswith("tools/") and path.endswith(".h"):
            for name in TYPE.findall(text):
                headers.setdefault(name, []).append(path)
    return [f"{name} is defined in {' and '.join(paths)}" for name, paths in headers.items() if len(paths) > 1]


def read(path):
    try:
        return path.read_text()
    except UnicodeDecodeError:
        return None


def self_test():
    files = {"utils/a.h": "", "docs/b.md": "", "tools/run/c.py": "", "text.h.in": ""}
    right = {"x.cpp": '// a.h, utils/a.h, tools/run and text.h\n"gone.h" /* docs/B.md */',
             "r.md": "(../docs/b.md) tools/run/c.py",
             "s.py": "print('gone.py')  # c.py <name>_gone.py tools/NAME"}
    wrong = {"x.cpp": "f();  // see gone.cpp", "y.h": "/* other/a.h */", "CMakeLists.txt": "# gone.cmake",
             "s.py": '"""utils/b"""', "run": "# tools/run/gone", "r.md": "`gone.py`"}
    assert not faults({**files, **right}), faults({**files, **right})
    for path, text in wrong.items():
        assert len(faults({**files, path: text})) == 1, path
    declared = {"tools/a.h": "struct Box {\n  double x;\n};\nclass Other;", "tools/b.h": "class Other : public Box {};"}
    assert not types_defined_twice(declared)
    assert len(types_defined_twice({**declared, "tools/c/d.h": "class Box {};"})) == 1


def main():
    if "--self-test" in sys.argv:
        self_test()
        print("the check finds each kind of fault")
        return 0
    files = {path.relative_to(common.ROOT).as_posix(): read(path) for top in common.ROOT.iterdir()
             if top.name not in OUTSIDE for path in (top.rglob("*") if top.is_dir() else [top])
             if path.is_file() and not OUTSIDE.intersection(path.parts[len(common.ROOT.parts):])}
    found = faults(files) + types_defined_twice(files)
    print("\n".join(found) if found else f"{len(files)} files: what their comments name is there")
    return 1 if found else 0


if __name__ == "__main__":
    common.run_script(main)
