# SPDX-License-Identifier: Apache-2.0
"""What scripts/mutation/run can change: parts of the tree, each with its build and the tests that try it."""
import collections
import re

LIBRARY = "lib/libolvex_det.so"
TOOL = "bin/olvex-det"
FLAGS = ["-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -DNDEBUG",
         "-DOLVEX_BUILD_BENCH=OFF"]
NATIVE = ["-DCMAKE_C_COMPILER=gcc", "-DCMAKE_CXX_COMPILER=g++"]
NO_TOOLS = ["-DOLVEX_BUILD_HOST=OFF", "-DOLVEX_BUILD_TOOLS=OFF"]

# folders: where the sources stand. arm_only: whether only what 32-bit ARM alone compiles is changed;
# otherwise all but that is. targets: what is built at first, everything if none. first: what holds all the
# code that is changed, built before anything else. tool: what a test needs that is no program of the build.
# tests: a pattern of the labels and the name of a test, and of a case of a test of the command line.
# environment: what the tests get. slowest: seconds; what takes longer is not run for every change.
# required: percent to notice. memory: bytes that a test may map, None without limit: the emulator reserves
# all that the emulated processor could reach.
Scope = collections.namedtuple(
    "Scope", "help folders arm_only options targets first tool tests environment slowest required memory")

SCOPES = {
    "library": Scope(
        "base, utils and video; all tests of the library",
        ("base", "utils", "video"), False, [*FLAGS, *NATIVE, *NO_TOOLS], [], [LIBRARY], LIBRARY,
        r"(?!lint|platform|bench|models|tools)", {}, 20, 95.0, 2 << 30),
    "tools": Scope(
        "tools; the tests of the command line, but not those that take minutes",
        ("tools",), False, [*FLAGS, *NATIVE],
        [TOOL, "make_test_network", "sweep_preload", "camera_plain", "olvex_recorder", "probe_platform"],
        [TOOL], TOOL,
        r"tools tools\.(?!run_sweep\.test_every_failure)", {}, 180, 85.0, 4 << 30),
    "host": Scope(
        "platform/host; its own tests, then those of pack, inspect and run",
        ("platform/host",), False, [*FLAGS, *NATIVE],
        [TOOL, "make_test_network", "host_accelerator_test", "accel_check_host", "accel_check_probe",
         "host_image_test"],
        ["lib/libqv_host.so", "bin/host_image_test"], TOOL,
        r"platform (Host|accel_check)|tools tools\.(pack|run(\.|$))", {}, 120, 85.0, 4 << 30),
    "arm": Scope(
        "what only 32-bit ARM compiles of base, utils and video; under the emulator",
        ("base", "utils", "video"), True,
        [*FLAGS, *NO_TOOLS, "--toolchain", "cmake/armhf.toolchain.cmake"],
        [LIBRARY, "base_test", "golden_test", "log_test", "plain_comparison_test", "simplestl_test"],
        [LIBRARY], LIBRARY,
        r"(unit|golden) ", {"OLVEX_ROUNDS": "10"}, 120, 85.0, None),
}

# Of the tests of the command line, those that can notice a change, beside the one of all help texts: a
# pattern of the source, then patterns of the tests' names, the likeliest first. The first source that fits
# counts; a source without one may show in all.
LIKELY_TESTS = (
    (r"tools/eval/coco/(?!coco_worst)", "eval_coco"),
    (r"tools/eval/coco/", "annotation", "eval_coco"),
    (r"tools/eval/mot/", "eval_mot"),
    (r"tools/eval/", "eval"),
    (r"tools/compare/", "compare", "annotation"),
    (r"tools/doctor/", "doctor"),
    (r"tools/heads/", "written", r"network\.", "heads", "pack"),
    (r"tools/network/", "written", r"network\.", "heads", "network_trial"),
    (r"tools/inside/network_head", "written", r"network\.", "heads", "pack"),
    (r"tools/inside/network_trial", "network_trial", ""),
    (r"tools/inside/foreign_platform", "platform"),
    (r"tools/inside/(library_model|model_)", "pack", "doctor", "written", r"run\."),
    (r"tools/inspect/", "pack", r"network\.", "network_trial"),
    (r"tools/(record|recordings|replay)/", "replay"),
    (r"tools/pack/", "pack", "written", r"network\.", "heads"),
    (r"tools/(merge/|run/(run_inputs|frame_reader|stages|run_trace))", "run_inputs", r"run\."),
    (r"tools/frames/(video|mp4|live|file_parts|capture)", "run_inputs", "run_sweep", r"run\.", ""),
    (r"tools/(run/|inside/last_output|frames/frame_conversion)", r"run\.", "run_inputs", "annotation", "run_sweep"),
    (r"tools/frames/(whole|file_source)", "run_sweep", r"run\.", ""),
    (r"tools/frames/annotation", "annotation", r"run\.", "compare"),
)


def likelihood(file, name):
    """How likely the test of that name notices a change of the file: the smaller the likelier; None if it
    cannot."""
    tests = next((tests for source, *tests in LIKELY_TESTS if re.match(source, file)), [""])
    if not name.startswith("tools."):
        return 0
    fitting = (rank for rank, pattern in enumerate([*tests, r"pack\.test_help"])
               if re.match(rf"tools\.{pattern}", name))
    return next(fitting, None)


def arm_only_lines(source):
    """The numbers of the lines that only 32-bit ARM compiles."""
    lines, conditions = set(), []
    for number, line in enumerate(source.splitlines(), 1):
        directive = re.match(r"\s*#\s*(if\w*|else|endif)\b(.*)", line)
        if not directive:
            if "arm" in conditions:
                lines.add(number)
        elif directive[1] == "else":
            conditions[-1] = {"arm": "other", "other": "arm"}.get(conditions[-1])
        elif directive[1] == "endif":
            conditions.pop()
        else:
            conditions.append("arm" if "__arm__" in line else "other" if "__SSE2__" in line else None)
    return lines
