#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Proves that no file includes one that it must not: KNOWN says of each folder which others it may include.

Layer 0 is platform/include and platform/contract, 1 utils, 2 base, 3 video/det, 4 everything else; no include
goes upward. A platform includes these two and itself, so that each can be exchanged for the chip maker's library. Of
the tools, common and codecs include none of the others, frames both, network common, heads also network, inside
all of these, a subcommand those that it uses and no other subcommand; inside alone includes the library's own
headers, but for the build string in main.cpp. The recorder includes what both its sides include, and what reads
recordings knows of it the format alone. A folder without a rule, an include that names no file, and a
permission that no file uses are faults, too.
"""
import pathlib
import posixpath
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import common  # noqa: E402

INCLUDE = re.compile(r'^\s*#\s*include\s+(["<])([^">]+)[">]', re.MULTILINE)
FOLDERS = ("platform", "utils", "base", "video", "tools", "examples", "recorder", "tests", "bench",
           "fuzz")
GENERATED = {"log_lines_text.h"}
CHIP = "platform/include/"
CONTRACT = "platform/contract/"
PUBLIC = "video/det/include/olvex_det.h"
IMAGE = "platform/host/host_image.h"
HOST = "platform/host/qv_host.h"
# Path prefix of a source: prefixes of what it may include, beside its own. The longest match counts.
KNOWN = {
    CHIP: (),
    CONTRACT: (CHIP,),
    "utils/": (CHIP, CONTRACT),
    "base/ipu_engine/": (CONTRACT, "utils/"),
    "base/tracker/": (CHIP, "utils/"),
    "base/postprocess/": (CHIP, "utils/"),
    "base/postprocess/double_check.cpp": ("utils/", "base/postprocess/", "base/tracker/"),
    "base/sdet/": (CHIP, CONTRACT, "utils/", "base/ipu_engine/", "base/postprocess/"),
    "video/det/": (CHIP, CONTRACT, "utils/", "base/"),
    "platform/host/": (CHIP, CONTRACT),
    "platform/scripted/": (CONTRACT,),
    "platform/replay/": (CONTRACT,),
    "platform/check/": (CHIP, CONTRACT),
    "examples/": (PUBLIC,),
    "recorder/": (CHIP, CONTRACT, PUBLIC),
    "tools/recordings/": ("recorder/recording_format.h", "tools/common/"),
    "tools/record/": ("tools/common/", "tools/frames/", "tools/recordings/"),
    "tools/replay/": ("tools/common/", "tools/frames/", "tools/inside/", "tools/recordings/", "platform/replay/",
                      PUBLIC),
    "tools/main.cpp": ("tools/common/", "video/det/include/commit_det.h"),
    "tools/common/": (),
    "tools/codecs/": (),
    "tools/manual/": ("tools/common/",),
    "tools/frames/": ("tools/common/", "tools/codecs/", IMAGE),
    "tools/network/": ("tools/common/",),
    "tools/heads/": ("tools/common/", "tools/network/", IMAGE),
    "tools/inside/": ("tools/common/", "tools/frames/", "tools/network/", "tools/heads/", IMAGE, HOST, CHIP,
                      "platform/replay/qv_replay.h", "base/sdet/", "video/det/"),
    "tools/compare/": ("tools/common/", "tools/frames/"),
    "tools/doctor/": ("tools/common/", "tools/frames/", "tools/network/", "tools/inside/", IMAGE, HOST, PUBLIC),
    "tools/eval/coco/": ("tools/common/", "tools/frames/"),
    "tools/eval/mot/": ("tools/common/", "tools/frames/"),
    "tools/inspect/": ("tools/common/", "tools/frames/", "tools/network/", "tools/inside/", IMAGE),
    "tools/merge/": ("tools/common/",),
    "tools/pack/": ("tools/common/", "tools/frames/", "tools/network/", "tools/heads/", "tools/inside/", IMAGE,
                    HOST),
    "tools/run/": ("tools/common/", "tools/frames/", "tools/inside/", IMAGE, HOST, PUBLIC),
    "bench/": ("platform/scripted/", "tests/support/", "utils/log/olvex_log.h",
               "base/postprocess/output_tensors.h"),
    "tests/support/": ("platform/scripted/", "utils/", "base/", "video/det/"),
    "tests/unit/": ("tests/support/", CHIP, "utils/", "base/", "video/det/"),
    "tests/api/": ("platform/scripted/", "tests/support/", "tests/unit/boxes.h", "base/sdet/", "video/det/"),
    "tests/golden/": ("platform/scripted/", "tests/support/", "video/det/"),
    "tests/platform/": ("platform/", "tests/support/"),
    "tests/package/": (CHIP,),
    "tests/recorder/": ("platform/scripted/", "recorder/", "tests/support/", "tests/api/list_network.h",
                        "tools/recordings/", "tools/replay/", "base/", "video/det/"),
    "tests/examples/": ("platform/scripted/", "tests/api/list_network.h"),
    "tests/tools/": ("tools/common/", "tools/recordings/"),
    "tests/soak/": ("tests/support/", "tests/api/", "video/det/"),
    "fuzz/": ("platform/", "tests/support/", "tests/api/list_network.h", "tools/", "utils/", "base/sdet/",
              "video/det/"),
}


def resolve(source, name, files):
    """The repository path that an include names, or None for one from outside."""
    for folder in ("", str(pathlib.PurePosixPath(source).parent) + "/", CHIP, CONTRACT, "utils/records/",
                   "video/det/include/"):
        path = posixpath.normpath(folder + name)
        if path in files:
            return path
    return None


def rule_of(source):
    return max((prefix for prefix in KNOWN if source.startswith(prefix)), key=len, default=None)


def fault(source, quote, name, files):
    """What is wrong with an include, or None."""
    target = resolve(source, name, files)
    rule = rule_of(source)
    if rule is None:
        return "has no rule in KNOWN of scripts/lint/check_layers.py: add its folder, with what it may include"
    if target is None:
        return None if quote == "<" or name in GENERATED else f'"{name}" is not a file of this repository'
    if not target.startswith((rule, *KNOWN[rule])):
        return f"includes {target}, which {rule} must not know"
    return None


def faults(sources):
    return [f"{source}: {found}" for source, text in sorted(sources.items())
            for quote, name in INCLUDE.findall(text)
            for found in [fault(source, quote, name, sources)] if found]


def unused(sources):
    """The permissions of KNOWN that no include needs."""
    used = {(rule_of(source), resolve(source, name, sources))
            for source, text in sources.items() for _, name in INCLUDE.findall(text)}
    return [f"{rule} includes nothing of {prefix}: take it from KNOWN" for rule, prefixes in KNOWN.items()
            for prefix in prefixes
            if not any(of == rule and (target or "").startswith(prefix) for of, target in used)]


def self_test():
    names = [name if name.endswith((".h", ".cpp")) else name + "x.h" for name in KNOWN]
    headers = {name: "" for name in (*names, PUBLIC, IMAGE, HOST)}
    for source, text in BROKEN:
        assert len(faults({**headers, source: text})) == 1, (source, text)
    for source, text in RIGHT:
        assert not faults({**headers, source: text}), source
    count = sum(map(len, KNOWN.values()))
    assert len(unused(headers)) == count
    assert len(unused({**headers, "tools/run/x.cpp": f'#include "{PUBLIC}"'})) == count - 1


# Written out beside the table, so that a rule that goes missing from it is noticed.
BROKEN = (
    ("utils/log/up.cpp", '#include "base/sdet/x.h"'), ("base/sdet/up.cpp", '#include "video/det/x.h"'),
    ("base/sdet/side.cpp", '#include "base/tracker/x.h"'),
    ("base/postprocess/side.cpp", '#include "base/tracker/x.h"'),
    ("base/tracker/side.cpp", '#include "base/postprocess/x.h"'),
    ("platform/host/in.cpp", '#include "utils/x.h"'), (CHIP + "up.h", '#include "utils/x.h"'),
    ("platform/check/in.c", '#include "utils/x.h"'),
    ("platform/host/side.cpp", '#include "platform/scripted/x.h"'),
    ("examples/in.c", '# include <video/det/x.h>'), ("utils/log/gone.cpp", '#include "gone.h"'),
    ("tools/run/in.cpp", '#include "base/sdet/x.h"'), ("tools/pack/in.cpp", '#include "utils/x.h"'),
    ("tools/eval/mot/in.cpp", '#include "video/det/x.h"'), ("tools/frames/up.cpp", '#include "tools/inside/x.h"'),
    ("tools/common/up.cpp", '#include "tools/frames/x.h"'), ("tools/inside/up.cpp", '#include "tools/run/x.h"'),
    ("tools/run/side.cpp", '#include "tools/pack/x.h"'),
    ("tools/eval/coco/side.cpp", '#include "tools/eval/mot/x.h"'),
    ("tools/network/up.cpp", '#include "tools/frames/x.h"'),
    ("tools/compare/in.cpp", '#include "tools/inside/x.h"'), ("tools/inspect/in.cpp", f'#include "{HOST}"'),
    ("tools/new/x.cpp", '#include "tools/common/x.h"'), ("tools/main.cpp", '#include "tools/inside/x.h"'),
    ("bench/in.cpp", '#include "base/sdet/x.h"'), ("bench/side.cpp", '#include "tests/unit/x.h"'),
    ("tests/support/up.cpp", '#include "tests/unit/x.h"'), ("tests/unit/side.cpp", '#include "tests/api/x.h"'),
    ("tests/platform/in.cpp", '#include "base/sdet/x.h"'), ("tests/golden/in.cpp", '#include "base/sdet/x.h"'),
    ("tests/api/side.cpp", '#include "tests/soak/x.h"'), ("tests/soak/in.cpp", '#include "base/sdet/x.h"'),
    ("fuzz/side.cpp", '#include "tests/unit/x.h"'), ("recorder/in.c", '#include "utils/x.h"'),
    ("tools/recordings/in.cpp", '#include "recorder/x.h"'),
)
RIGHT = (
    ("base/postprocess/double_check.cpp", '#include "base/tracker/x.h"'),
    ("video/det/down.cpp", '#include "base/sdet/x.h"\n#include <x.h>\n#include <vector>'),
    ("tools/inside/down.cpp", '#include "base/sdet/x.h"\n#include "tools/frames/x.h"'),
    ("tools/run/down.cpp", '#include "tools/inside/x.h"\n#include "olvex_det.h"'),
)


def main():
    if "--self-test" in sys.argv:
        self_test()
        print(f"the check finds each of {len(BROKEN)} faults")
        return 0
    sources = {path: (common.ROOT / path).read_text() for path in common.paths_in(FOLDERS)}
    found = faults(sources) + unused(sources)
    print("\n".join(found) if found else f"{len(sources)} files: each includes what it may know")
    return 1 if found else 0


if __name__ == "__main__":
    common.run_script(main)
