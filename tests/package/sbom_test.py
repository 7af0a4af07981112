#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares what the SPDX documents of the installation's components say is linked with what the loader will look for,
by each binary's dynamic section, and with the headers with code that the sources include."""
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
# By what the file's name starts with: the package that the library is of.
PACKAGES = {"libstdc++": "libstdc++", "libgcc_s": "libgcc", "libc.so": "glibc", "libm.so": "glibc", "ld-linux": "glibc",
            "libopencv_": "opencv", "libz.so": "zlib", "libonnx": "onnx", "libprotobuf": "protobuf",
            "libolvex_det.so": "olvex_det-library", "libqv_host.so": "olvex_det-host"}
HEADERS = {"CLI": "CLI11", "nlohmann": "nlohmann_json"}
SOURCES = {"library": ("base", "utils", "video"), "recorder": ("recorder",), "host": ("platform/host",),
           "tools": ("tools", "platform/replay", "platform/host")}


def linked_by_loader(binaries):
    own = {binary.name for binary in binaries}
    needed = set()
    for binary in binaries:
        dynamic = subprocess.run([os.environ["READELF"], "-d", binary], capture_output=True, text=True, check=True)
        needed |= set(re.findall(r"\(NEEDED\).*\[(.+)\]", dynamic.stdout))
    return {next((package for start, package in PACKAGES.items() if name.startswith(start)), name)
            for name in needed - own}


def included(component):
    texts = (path.read_text() for folder in SOURCES[component] for path in (ROOT / folder).rglob("*")
             if path.suffix in (".c", ".cpp", ".h"))
    return {HEADERS[folder] for text in texts for folder in re.findall(r"#include <(\w+)/", text) if folder in HEADERS}


def is_elf(path):
    with path.open("rb") as file:
        return file.read(4) == b"\x7fELF"


class SbomTest(unittest.TestCase):
    def test_says_what_is_linked(self):
        for component in COMPONENTS:
            with self.subTest(component=component), tempfile.TemporaryDirectory() as stage:
                subprocess.run(["cmake", "--install", BUILD, "--component", component], check=True,
                               stdout=subprocess.DEVNULL, env={**os.environ, "DESTDIR": stage})
                files = [path for path in pathlib.Path(stage).rglob("*") if path.is_file() and not path.is_symlink()]
                document = json.loads(next(path for path in files if path.name.endswith(".spdx.json")).read_text())
                names = {package["SPDXID"]: package["name"] for package in document["packages"]}
                self.assertEqual("SPDX-2.3", document["spdxVersion"])
                self.assertEqual(f"olvex_det-{component}", names["SPDXRef-olvex"])
                self.assertEqual(len(document["packages"]), len(names))
                for package in document["packages"]:
                    self.assertRegex(package["SPDXID"], r"^SPDXRef-[A-Za-z0-9.-]+$")
                    self.assertRegex(package["versionInfo"], r"^\d[\d.]*$")
                links = {kind: {names[link["relatedSpdxElement"]] for link in document["relationships"]
                                if link["relationshipType"] == kind} for kind in ("DYNAMIC_LINK", "STATIC_LINK")}
                self.assertEqual(linked_by_loader([path for path in files if is_elf(path)]), links["DYNAMIC_LINK"])
                self.assertEqual(included(component), links["STATIC_LINK"])


if __name__ == "__main__":
    BUILD, *COMPONENTS = sys.argv[1:]
    unittest.main(argv=sys.argv[:1], verbosity=2)
