# SPDX-License-Identifier: Apache-2.0
"""tool_test.py - what the tests of the command line share: the program, networks, schema checks, and
the comparison of whole texts and pictures with those in data/.

usage: <test>.py OLVEX_DET MAKE_TEST_NETWORK SCHEMA_FOLDER [unittest options]
data/TEST.txt holds the texts of a test, each behind a line "=== NAME". To accept an intended change run the
test with OLVEX_GOLDEN_UPDATE=1 in the environment and read the difference. Of a session, a transcript whose
commands are run from it, add the "$ olvex-det ..." line first.
"""
import json
import os
import pathlib
import re
import shlex
import signal
import struct
import subprocess
import sys
import tempfile
import unittest
import zlib

import jsonschema

TOOL, MAKE_NETWORK, SCHEMAS = (str(pathlib.Path(path).resolve()) for path in sys.argv[1:4])
# For sessions: runs the program with the first text and each of the others in turn.
EACH = """() { for more in "${@:2}"; do echo "> $more"; eval "olvex-det $1 $more" || echo "exit code $?"; done 2>&1; }"""
STRIDE = int(os.environ.get("OLVEX_CASE_STRIDE", "1"))  # of long tables only every n-th case
DATA = pathlib.Path(__file__).resolve().parent / "data"
KEPT = DATA / f"{pathlib.Path(sys.argv[0]).stem.removesuffix('_test')}.txt"
UPDATE = "OLVEX_GOLDEN_UPDATE" in os.environ


def kept_texts():
    """{name: text} of this test's texts in data/."""
    parts = re.split(r"^=== (.+)\n", KEPT.read_bytes().decode(), flags=re.MULTILINE)
    return dict(zip(parts[1::2], parts[2::2]))


def png_content(png):
    """Size, kind and the filtered rows: everything but how well they are compressed."""
    rows, at = b"", 8
    while at < len(png):
        size, kind = struct.unpack(">I4s", png[at:at + 8])
        rows += png[at + 8:at + 8 + size] if kind == b"IDAT" else b""
        at += size + 12
    return png[16:29], zlib.decompress(rows)


class ToolTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.transcript = ""
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def tool(self, *arguments, code=0, said=(), environment=None, **options):
        """Runs the program in the test's folder; checks its exit code and what its errors say."""
        result = self.transcribe([TOOL, *map(str, arguments)], shlex.join(["olvex-det", *map(str, arguments)]),
                           **{"env": {**os.environ, **(environment or {})}, **options})
        self.assertEqual(result.returncode, code, f"{arguments}: {result.stderr}")
        for text in said:
            self.assertIn(text, result.stderr)
        return result

    def transcribe(self, command, name, **options):
        """Runs a command in the test's folder and adds what it prints and its exit code to the transcript."""
        result = subprocess.run(command, timeout=600, encoding="utf-8", cwd=self.folder,
                                **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})
        printed = "{...}\n" if str(result.stdout).startswith("{") else result.stdout or ""
        if "--help" in name and result.returncode == 0:
            self.assertEqual(result.stderr or "", "", name)
        elif 2 <= result.returncode <= 70:
            self.assertNotIn("olvex-det ", result.stdout or "", "an error belongs to standard error")
        ended = f"exit code {result.returncode}\n" if result.returncode else ""
        self.transcript += f"$ {name}\n{printed}{result.stderr or ''}{ended}"
        return result

    def assert_session_kept(self, name, after_each=lambda: None):
        """Runs every line of a transcript that begins with "$ ", as a shell takes it; what follows has to
        be the same again."""
        path = os.pathsep.join((str(pathlib.Path(TOOL).parent), os.environ["PATH"]))
        session = kept_texts()[name]
        self.assertIn("\n$ ", "\n" + session, f"{name} holds no command")
        for line in session.splitlines():
            if line.startswith("# "):
                self.transcript += f"{line}\n"
            elif line.startswith("$ "):
                self.transcribe(["bash", "-c", line[2:]], line[2:], env={**os.environ, "PATH": path, "BASH_FUNC_each%%": EACH})
                after_each()
        self.assert_transcript_kept(name)

    def assert_kept(self, name, text):
        """Compares with the text of that name in data/."""
        if UPDATE:
            texts = sorted({**kept_texts(), name: text}.items())
            KEPT.write_bytes("".join(f"=== {name}\n{text}" for name, text in texts).encode())
        self.assertEqual(text, kept_texts().get(name), f"{name} of {KEPT.name}")

    def assert_picture_kept(self, name, png):
        """Compares with the file of that name in data/."""
        if UPDATE:
            (DATA / name).write_bytes(png)
        self.assertTrue(png_content(png) == png_content((DATA / name).read_bytes()), name)

    def assert_transcript_kept(self, name):
        """Compares all that was printed so far but JSON, times, names of temporary files, and what the JSON
        parser says itself."""
        text = self.transcript.replace(str(self.folder), "FOLDER")
        for unsure, sure in ((r"(is not JSON: \[?\w+).*", r"\1..."), (r"\d+\.\d ms", "... ms"),
                             (r"\.qtm\.partial\.\w{6}", ".qtm.partial.XXXXXX")):
            text = re.sub(unsure, sure, text)
        # Equal scores may change places on another processor.
        text = re.sub(r"(generated gradient: ).*\n( +class .*\n)*", r"\1...\n", text)
        self.assert_kept(name, re.sub(r"[^\n -~]", lambda match: ascii(match[0])[1:-1], text))

    def assert_fits_schema(self, value, name):
        # A reader has to accept more fields than the schema names; the program has to write no others.
        schema = json.loads((pathlib.Path(SCHEMAS) / f"{name}.schema.json").read_text(),
                            object_hook=lambda node: {"additionalProperties": False, **node}
                            if "properties" in node else node)
        faults = jsonschema.Draft202012Validator(schema).iter_errors(value)
        self.assertEqual([f"{fault.json_path}: {fault.message}" for fault in faults], [])


def make_network(path, kind, *numbers):
    subprocess.run([MAKE_NETWORK, kind, path, *map(str, numbers)], check=True)


def write_gray(path, width, height, level=96):
    path.write_bytes(b"P5 %d %d 255\n" % (width, height) + bytes([level]) * (width * height))


def write_cells(path, width, height, cells):
    """Black but for cells of 8 pixels: {(column, row): (red, green, blue)}."""
    rows = (b"".join(bytes(cells.get((column, row), (0, 0, 0))) * 8 for column in range(width // 8)) * 8
            for row in range(height // 8))
    path.write_bytes(b"P6 %d %d 255\n" % (width, height) + b"".join(rows))


def main():
    # A background shell ignores some signals, and the program would inherit that.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
        signal.signal(number, signal.SIG_DFL)
    unittest.main(argv=[sys.argv[0], *sys.argv[4:]])
