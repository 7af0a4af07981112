#!/usr/bin/env python3
"""Proves that no include goes upward: lower floors never know upper ones.

Floor 0 is platform/include, 1 utils, 2 base, 3 video/det, 4 everything else. Inside base, ipu_engine and
tracker know no sibling, postprocess knows tracker from double_check.cpp only, and sdet knows ipu_engine
and postprocess. Each platform knows platform/include and itself. Examples know the public header alone,
and of the tools only last_output.cpp and what asks the library's own routines look inside it.
"""
import pathlib
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import common  # noqa: E402

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)
FLOORS = [("platform/include/", 0), ("utils/", 1), ("base/", 2), ("video/det/", 3)]
PUBLIC = {"olvex_det.h", "algo_types.h", "qv_types.h", "qv_sys.h", "qv_ipu.h"}
SIBLINGS = {
    "base/ipu_engine/": (),
    "base/tracker/": (),
    "base/postprocess/": (),
    "base/sdet/": ("base/ipu_engine/", "base/postprocess/"),
}
EXTRA = {"base/postprocess/double_check.cpp": ("base/tracker/",)}


def floor_of(path):
    return next((floor for prefix, floor in FLOORS if path.startswith(prefix)), 4)


def resolve(source, name, files):
    """The repository path that an include names, or None for one from outside."""
    for folder in ("", str(pathlib.PurePosixPath(source).parent) + "/", "platform/include/",
                   "utils/records/", "video/det/include/"):
        if folder + name in files:
            return folder + name
    return None


def room_fault(source, target):
    for room, known in SIBLINGS.items():
        if source.startswith(room) and target.startswith("base/"):
            allowed = (room,) + known + EXTRA.get(source, ())
            if not target.startswith(allowed):
                return "rooms of base/ that do not know each other"
    if source.startswith("platform/") and floor_of(source) == 4:
        own = "/".join(source.split("/")[:2]) + "/"
        if not target.startswith(("platform/include/", own)):
            return "a platform knows platform/include and itself only"
    if source.startswith("examples/") and pathlib.PurePosixPath(target).name not in PUBLIC:
        return "examples use the public headers alone"
    return None


def faults(sources):
    found = []
    for source, text in sorted(sources.items()):
        for name in INCLUDE.findall(text):
            target = resolve(source, name, sources)
            if target is None:
                if floor_of(source) < 4:
                    found.append(f'{source}: "{name}" is not a file of this repository')
            elif floor_of(target) > floor_of(source):
                found.append(f"{source}: includes {target}, which is on a higher floor")
            elif room_fault(source, target):
                found.append(f"{source}: includes {target}: {room_fault(source, target)}")
    return found


def read_sources():
    folders = ("platform", "utils", "base", "video", "tools", "examples", "tests", "bench", "fuzz")
    return {path: (common.ROOT / path).read_text() for path in common.paths_in(folders)}


def self_test():
    files = {"utils/log/a.h": "", "base/sdet/s.h": "", "base/tracker/t.h": "", "video/det/v.h": "",
             "platform/include/qv.h": ""}
    wrong = {"utils/log/up.cpp": '#include "base/sdet/s.h"', "base/sdet/up.cpp": '#include "video/det/v.h"',
             "base/sdet/side.cpp": '#include "base/tracker/t.h"',
             "base/postprocess/side.cpp": '#include "base/tracker/t.h"',
             "platform/host/in.cpp": '#include "utils/log/a.h"',
             "platform/include/up.h": '#include "utils/log/a.h"',
             "examples/in.c": '#include "video/det/v.h"', "utils/log/gone.cpp": '#include "gone.h"'}
    right = {"base/postprocess/double_check.cpp": '#include "base/tracker/t.h"',
             "video/det/down.cpp": '#include "base/sdet/s.h"\n#include "qv.h"'}
    for name, text in wrong.items():
        assert len(faults({**files, name: text})) == 1, name
    assert not faults({**files, **right})


if "--self-test" in sys.argv:
    self_test()
    print("the check finds each kind of fault")
    sys.exit(0)
all_sources = read_sources()
result = faults(all_sources)
print("\n".join(result) if result else f"{len(all_sources)} files: no include goes upward")
sys.exit(1 if result else 0)
