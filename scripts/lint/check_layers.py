#!/usr/bin/env python3
"""Proves that no file includes one that it must not: KNOWN says of each folder which others it may include.

Layer 0 is platform/include, 1 utils, 2 base, 3 video/det, 4 everything else; no include goes upward. A
platform includes platform/include and itself, so that each can be exchanged for the chip maker's library. Of
the tools, common includes none of the others, frames includes common, inside both, a subcommand all three and
no other subcommand; inside alone includes the library's own headers, but for the build string in main.cpp. A folder without a rule, and an include
that names no file, are faults, too.
"""
import pathlib
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import common  # noqa: E402

INCLUDE = re.compile(r'^\s*#\s*include\s+(["<])([^">]+)[">]', re.MULTILINE)
FOLDERS = ("platform", "utils", "base", "video", "tools", "examples", "tests", "bench", "fuzz")
GENERATED = {"log_lines_text.h"}
CONTRACT = "platform/include/"
PUBLIC = ("video/det/include/olvex_det.h", "utils/records/algo_types.h", CONTRACT)
HOST = ("platform/host/host_image.h", "platform/host/qv_host.h")
LIBRARY = (CONTRACT, "utils/", "base/", "video/det/")
SUBCOMMAND = ("tools/common/", "tools/frames/", "tools/network/", "tools/heads/", "tools/inside/", *PUBLIC, *HOST)
# Path prefix of a source: prefixes of what it may include, beside its own. The longest match counts.
KNOWN = {
    CONTRACT: (),
    "utils/": (CONTRACT,),
    "base/ipu_engine/": (CONTRACT, "utils/"),
    "base/tracker/": (CONTRACT, "utils/"),
    "base/postprocess/": (CONTRACT, "utils/"),
    "base/postprocess/double_check.cpp": (CONTRACT, "utils/", "base/postprocess/", "base/tracker/"),
    "base/sdet/": (CONTRACT, "utils/", "base/ipu_engine/", "base/postprocess/"),
    "video/det/": (CONTRACT, "utils/", "base/"),
    "platform/host/": (CONTRACT,),
    "platform/scripted/": (CONTRACT,),
    "examples/": PUBLIC,
    "tools/main.cpp": ("tools/common/", "video/det/include/commit_det.h"),
    "tools/common/": (),
    "tools/frames/": ("tools/common/", *HOST),
    "tools/network/": ("tools/common/", *HOST),
    "tools/heads/": ("tools/common/", "tools/network/", *HOST),
    "tools/inside/": ("tools/common/", "tools/frames/", *HOST, *LIBRARY),
    **{f"tools/{name}/": SUBCOMMAND for name in ("compare", "doctor", "eval/coco", "eval/mot", "inspect", "pack", "run")},
    "bench/": ("platform/scripted/", "tests/support/", "utils/log/olvex_log.h",
               "base/postprocess/output_tensors.h"),
    "tests/support/": ("platform/scripted/", *LIBRARY),
    "tests/unit/": ("platform/scripted/", "tests/support/", *LIBRARY),
    "tests/api/": ("platform/scripted/", "tests/support/", "tests/unit/boxes.h", *LIBRARY),
    "tests/golden/": ("platform/scripted/", "tests/support/", CONTRACT, "utils/", "video/det/"),
    "tests/platform/": ("platform/", "tests/support/"),
    "tests/soak/": ("platform/scripted/", "tests/support/", "tests/api/", CONTRACT, "utils/", "video/det/"),
    "fuzz/": ("platform/", "tests/support/", "tests/api/list_network.h", "tools/", *LIBRARY),
}


def resolve(source, name, files):
    """The repository path that an include names, or None for one from outside."""
    for folder in ("", str(pathlib.PurePosixPath(source).parent) + "/", CONTRACT, "utils/records/",
                   "video/det/include/"):
        if folder + name in files:
            return folder + name
    return None


def fault(source, quote, name, files):
    """What is wrong with an include, or None."""
    target = resolve(source, name, files)
    rule = max((prefix for prefix in KNOWN if source.startswith(prefix)), key=len, default=None)
    if rule is None:
        return "has no rule in KNOWN"
    if target is None:
        return None if quote == "<" or name in GENERATED else f'"{name}" is not a file of this repository'
    if not target.startswith((rule, *KNOWN[rule])):
        return f"includes {target}, which {rule} must not know"
    return None


def faults(sources):
    return [f"{source}: {found}" for source, text in sorted(sources.items())
            for quote, name in INCLUDE.findall(text)
            for found in [fault(source, quote, name, sources)] if found]


def self_test():
    headers = {prefix + "x.h": "" for prefix in KNOWN if prefix.endswith("/")}
    headers.update({name: "" for name in (*PUBLIC, *HOST) if name.endswith(".h")})
    for source, text in BROKEN:
        assert len(faults({**headers, source: text})) == 1, (source, text)
    for source, text in RIGHT:
        assert not faults({**headers, source: text}), source


# Written out beside the table, so that a rule that goes missing from it is noticed.
BROKEN = (
    ("utils/log/up.cpp", '#include "base/sdet/x.h"'), ("base/sdet/up.cpp", '#include "video/det/x.h"'),
    ("base/sdet/side.cpp", '#include "base/tracker/x.h"'),
    ("base/postprocess/side.cpp", '#include "base/tracker/x.h"'),
    ("base/tracker/side.cpp", '#include "base/postprocess/x.h"'),
    ("platform/host/in.cpp", '#include "utils/x.h"'), (CONTRACT + "up.h", '#include "utils/x.h"'),
    ("platform/host/side.cpp", '#include "platform/scripted/x.h"'),
    ("examples/in.c", '# include <video/det/x.h>'), ("utils/log/gone.cpp", '#include "gone.h"'),
    ("tools/run/in.cpp", '#include "base/sdet/x.h"'), ("tools/pack/in.cpp", '#include "utils/x.h"'),
    ("tools/eval/mot/in.cpp", '#include "video/det/x.h"'), ("tools/frames/up.cpp", '#include "tools/inside/x.h"'),
    ("tools/common/up.cpp", '#include "tools/frames/x.h"'), ("tools/inside/up.cpp", '#include "tools/run/x.h"'),
    ("tools/run/side.cpp", '#include "tools/pack/x.h"'),
    ("tools/eval/coco/side.cpp", '#include "tools/eval/mot/x.h"'),
    ("tools/new/x.cpp", '#include "tools/common/x.h"'), ("tools/main.cpp", '#include "tools/inside/x.h"'),
    ("bench/in.cpp", '#include "base/sdet/x.h"'), ("bench/side.cpp", '#include "tests/unit/x.h"'),
    ("tests/support/up.cpp", '#include "tests/unit/x.h"'), ("tests/unit/side.cpp", '#include "tests/api/x.h"'),
    ("tests/platform/in.cpp", '#include "base/sdet/x.h"'), ("tests/golden/in.cpp", '#include "base/sdet/x.h"'),
    ("tests/api/side.cpp", '#include "tests/soak/x.h"'), ("tests/soak/in.cpp", '#include "base/sdet/x.h"'),
    ("fuzz/side.cpp", '#include "tests/unit/x.h"'),
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
    found = faults(sources)
    print("\n".join(found) if found else f"{len(sources)} files: each includes what it may know")
    return 1 if found else 0


if __name__ == "__main__":
    common.run_script(main)
