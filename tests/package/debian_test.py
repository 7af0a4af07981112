#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Builds the Debian packages twice, for this machine, and the library's for ARM: both builds are the same bytes, lintian
finds nothing, and what is unpacked from them into an empty root runs the street network as the build tree does. After
their removal the root is empty again."""
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PACKAGES = ("libolvex-det-dev", "libolvex-det1", "olvex-det-doc", "olvex-det-tools")


def run(*command, **options):
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False, **options)
    if result.returncode != 0:
        raise AssertionError(f"{command}: exit {result.returncode}\n{result.stdout[-6000:]}{result.stderr[-6000:]}")
    return result.stdout


def build_packages(output, *options, **environment):
    """The packages by name; the build's own folder is below `output`, too."""
    work = output / "work"
    work.mkdir(parents=True)
    run(ROOT / "scripts" / "packages", "--output", output, *options,
        env={**os.environ, "TMPDIR": str(work), **environment})
    assert not list(work.iterdir()), "the build left something behind"
    return {path.name.split("_")[0]: path for path in output.glob("*.deb")}


class DebianTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        holder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(holder.cleanup)
        cls.folder = pathlib.Path(holder.name)
        cls.tree = run("git", "-C", ROOT, "status", "--porcelain", "--ignored")
        cls.packages = build_packages(cls.folder / "one")

    def lint(self, folder):
        run("lintian", "--allow-root", "--fail-on", "error,warning", *(self.folder / folder).glob("*.changes"))

    def test_packages_are_the_same_bytes_again_and_clean(self):
        self.assertEqual(sorted(PACKAGES), sorted(self.packages))
        self.lint("one")
        again = build_packages(self.folder / "another/deeper", TZ="Asia/Tokyo", LC_ALL="C.UTF-8")
        for name, path in self.packages.items():
            with self.subTest(name=name):
                self.assertTrue(path.read_bytes() == again[name].read_bytes(), "the builds differ")
        self.assertEqual(self.tree, run("git", "-C", ROOT, "status", "--porcelain", "--ignored"))

    def test_installed_run_and_removed(self):
        root = self.folder / "root"
        (root / "var/lib/dpkg/info").mkdir(parents=True)
        (root / "var/lib/dpkg/updates").mkdir()
        (root / "var/lib/dpkg/status").touch()
        # The root has none of the system's packages; what they hold comes from this machine's own.
        dpkg = ("dpkg", f"--root={root}", "--force-depends,not-root,script-chrootless",
                "--log=/dev/null")
        run(*dpkg, "--install", *self.packages.values())
        libraries = next((root / "usr/lib").glob("*-linux-*"))
        for name, program, environment in (("installed", root / "usr/bin/olvex-det", {"LD_LIBRARY_PATH": str(libraries)}),
                                           ("built", OLVEX_DET, {})):
            run(program, "run", IMAGE, CLIP, "--quiet", "--threshold", "0.5", "--track", "--limit", "40", "--mot",
                self.folder / name, env={**os.environ, **environment})
        boxes = (self.folder / "installed").read_text()
        self.assertGreater(boxes.count("\n"), 40)
        self.assertEqual((self.folder / "built").read_text(), boxes)
        run(*dpkg, "--purge", *PACKAGES)
        left = [path for path in root.rglob("*") if not path.is_dir() and "var" not in path.relative_to(root).parts]
        self.assertEqual([], left)

    def test_library_for_arm(self):
        packages = build_packages(self.folder / "armhf", "--host", "armhf")
        self.assertEqual(["libolvex-det-dev", "libolvex-det1"], sorted(packages))
        self.lint("armhf")
        needs = run("dpkg-deb", "--field", packages["libolvex-det1"], "Architecture", "Depends")
        self.assertRegex(needs, r"Architecture: armhf\nDepends: libc6 \(>= [\d.]+\), libgcc-s1 [^,]*, libstdc\+\+6")
        run("dpkg-deb", "--extract", packages["libolvex-det1"], self.folder / "arm")
        library = next((self.folder / "arm").rglob("libolvex_det.so.1.*"))
        self.assertIn("ARM", run("readelf", "--file-header", library))


if __name__ == "__main__":
    OLVEX_DET, IMAGE, CLIP = sys.argv[1:]
    unittest.main(argv=sys.argv[:1], verbosity=2)
