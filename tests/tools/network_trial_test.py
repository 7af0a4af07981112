# SPDX-License-Identifier: Apache-2.0
"""network_trial_test.py - networks that crash, exhaust or never leave the network engine: pack,
inspect and run say so in one sentence, leave nothing behind, and can be interrupted meanwhile.

See tool_test.py for the usage and harmful_network in tests/support/tiny_onnx.h for the networks.
"""
import json
import math
import os
import pathlib
import re
import signal
import struct
import subprocess
import time
import zlib

from tool_test import TOOL, ToolTest, main, make_network

LAYERS = ["--raw", "pixels0", "pixels1", "pixels2"]
SANITIZED = re.search(rb"__(a|t)san_init", pathlib.Path(TOOL).read_bytes())
HARMS = {  # network: width and height, factor of the limits, what is said
    "crash": (64, "1", r"crashed while loading or running it \(.+\); .* export it again"),
    "never-ends": (1024, "0.04", r"did not finish .* in \d+ seconds.*OLVEX_DET_LIMITS=10"),
    "memory": (64, "0.1", r"needs more than \d+ MiB of memory .*OLVEX_DET_LIMITS=10")}
if SANITIZED:
    del HARMS["memory"]  # which is not limited there


def write_image(path, network, size):
    """A model image of any network, which pack would refuse."""
    layers = [{"name": name, "layout": "NCHW", "scale": 1} for name in LAYERS[1:]]
    description = json.dumps({"input": {"width": size, "height": size, "format": "NV12"},
                              "outputs": {"kind": "raw", "format": "FP32", "layers": layers}})
    body = description.encode() + network
    path.write_bytes(b"QTNX" + struct.pack("<IIIQ", 1, len(description), zlib.crc32(body),
                                           len(network)) + body)


def child_of(process):
    children = pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children")
    while not children.read_text():
        time.sleep(0.01)
    return int(children.read_text().split()[0])


def has_ended(pid):
    try:
        state = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0]
    except FileNotFoundError:
        return True
    return state in "ZX"


class NetworkTrialTest(ToolTest):
    def make(self, harm):
        size, factor, said = HARMS[harm]
        network = self.folder / f"{harm}.onnx"
        make_network(network, harm, size, size)
        write_image(self.folder / f"{harm}.qtm", network.read_bytes(), size)
        return {"OLVEX_DET_LIMITS": factor}, said

    def test_harm_becomes_one_sentence_that_names_the_file(self):
        for harm in HARMS:
            environment, said = self.make(harm)
            commands = [["inspect", f"{harm}.qtm"], ["run", f"{harm}.qtm", "none", "--memory"],
                        ["pack", f"{harm}.onnx", "-o", "out.qtm", *LAYERS]]
            before = sorted(self.folder.iterdir())
            for command in commands[:1] if harm == "never-ends" else commands:
                result = self.tool(*command, code=3, environment=environment)
                self.assertRegex(result.stderr,
                                 rf"^olvex-det {command[0]}: {command[1]}: .*{said}[^\n]*\n$")
                self.assertEqual(result.stdout, "")
                self.assertEqual(sorted(self.folder.iterdir()), before)
        if not SANITIZED:
            # Which limit is reached first, and how the engine crashed, differs from machine to machine.
            self.transcript = re.sub(r"\d+ seconds( of processor time)?|\d+ (?=MiB)|\(.+\)(?=; it is damaged)", "N ", self.transcript)
            self.assert_transcript_kept("network_trial")

    def test_a_signal_ends_the_trial_too(self):
        self.make("never-ends")
        before = sorted(self.folder.iterdir())
        pack = ["pack", "never-ends.onnx", "-o", "out.qtm", *LAYERS]
        for number, command, code in ((signal.SIGINT, pack, 130),
                                      (signal.SIGINT, ["inspect", "never-ends.qtm"], -2),
                                      (signal.SIGKILL, ["run", "never-ends.qtm", "none"], -9)):
            process = subprocess.Popen([TOOL, *command], cwd=self.folder)
            while command is pack and sorted(self.folder.iterdir()) == before:  # it reads the network first
                time.sleep(0.01)
            child = child_of(process)
            process.send_signal(number)
            self.assertEqual(process.wait(timeout=60), code)
            while not has_ended(child):  # or the test's time runs out
                time.sleep(0.01)
            self.assertEqual(sorted(self.folder.iterdir()), before)

    def test_the_trial_has_its_limits_and_each_end_of_it_is_told(self):
        self.make("never-ends")
        size = (self.folder / "never-ends.qtm").stat().st_size
        memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGESIZE")
        for number, factor in ((signal.SIGINT, .5), (signal.SIGTERM, 2), (signal.SIGHUP, 1), (signal.SIGQUIT, 1), (signal.SIGKILL, 1), (signal.SIGXCPU, 1),
                               (signal.SIGALRM, 1), (signal.SIGSEGV, 1)):
            process = subprocess.Popen([TOOL, "inspect", "never-ends.qtm"], cwd=self.folder, env={**os.environ, "OLVEX_DET_LIMITS": str(factor), "ASAN_OPTIONS": "handle_segv=0"},
                                       stderr=subprocess.PIPE, encoding="utf-8")
            self.addCleanup(process.kill)
            child = pathlib.Path(f"/proc/{child_of(process)}")
            limits = {}
            while limits.get("Max cpu time") != str(math.ceil((120 + 2 * size / 2**20) * factor)):  # or the test's time runs out
                time.sleep(0.01)
                limits = {line[:26].strip(): line[26:].split()[0] for line in (child / "limits").read_text().splitlines()}
            if not SANITIZED:
                page = 4096  # what the kernel rounds to
                self.assertEqual(int(limits["Max data size"]) // page, int(min(8 * 2**30 + 16 * size, memory) * factor) // page)
            self.assertEqual((limits["Max core file size"], (child / "oom_score_adj").read_text()), ("0", "1000\n"))
            os.kill(int(child.name), number)
            said = process.communicate()[1]
            self.transcript += f"{number.name}: exit code {process.returncode}, {said}"
        self.assert_transcript_kept("network_trial_ends")

    def test_the_factor_of_the_limits_is_a_number(self):
        make_network(self.folder / "sound.onnx", "decoded", 64, 32)
        write = ["pack", "sound.onnx", "-o", "out.qtm", "--boxes", "boxes", "--scores", "scores"]
        for factor in ("x", "1x", "0", "0.0009", "nan", "1001"):
            self.tool(*write, code=2, said=["OLVEX_DET_LIMITS", "0.001 to 1000"],
                      environment={"OLVEX_DET_LIMITS": factor})
        for factor in ("1.5", "1000"):
            self.tool(*write, environment={"OLVEX_DET_LIMITS": factor})
        self.assert_transcript_kept("network_trial_limits")

    def test_a_stricter_limit_of_the_shell_is_named(self):
        self.make("never-ends")
        result = subprocess.run(["bash", "-c", 'ulimit -S -t 2; "$0" inspect never-ends.qtm', TOOL],
                                cwd=self.folder, capture_output=True, encoding="utf-8", check=False)
        self.assertEqual(result.returncode, 3)
        self.assertRegex(result.stderr, "in 2 seconds of processor time; .* shell, see ulimit")


if __name__ == "__main__":
    main()
