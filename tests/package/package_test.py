#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Builds the library as an SDK's maker would, installs it by component, moves it, and builds applications outside
the tree against it: by pkg-config, by a plain compiler line, by CMake, shared and static, in C and C++. Then by the
Makefile of docs/target.md, and over musl. Then what must be refused: headers that differ. Then its binary interface
against the committed description."""
import os
import pathlib
import platform
import re
import shutil
import subprocess
import tempfile
import unittest

FOLDER = pathlib.Path(__file__).resolve().parent
ROOT = FOLDER.parents[1]
SDK = FOLDER / "sdk"
EMULATOR = os.environ["EMULATOR"].split()
TOOLCHAIN = os.environ["TOOLCHAIN"]
CROSS = [f"-DCMAKE_TOOLCHAIN_FILE={ROOT / TOOLCHAIN}"] if TOOLCHAIN else []
CC, CXX = os.environ["CC"], os.environ["CXX"]
CHIP = FOLDER / "one_picture_platform.c"
EXPORTED = sorted(re.findall(r"ALGO_DET_\w+", (ROOT / "cmake" / "olvex_det.map").read_text()))
BOXES = ["class 2 score 0.75 at 60,135 size 240x270", "class 1 score 0.62 at 750,168 size 375x337"]

CMAKE_PROJECT = """
cmake_minimum_required(VERSION 3.16)
project(outside C CXX)
find_package(olvex_det 1.0 REQUIRED COMPONENTS det det_static)
find_package(olvex_det QUIET COMPONENTS nothing)
if(olvex_det_FOUND)
  message(FATAL_ERROR "a component that does not exist was found")
endif()
add_library(chip SHARED "{root}/tests/package/one_picture_platform.c")
target_include_directories(chip PUBLIC "{sdk}")
add_executable(c_shared "{root}/examples/smallest.c")
target_link_libraries(c_shared PRIVATE olvex::det chip)
add_executable(cxx_shared "{root}/examples/track_frames.cpp")
target_link_libraries(cxx_shared PRIVATE olvex::det chip)
add_executable(c_static "{root}/examples/smallest.c" "{root}/tests/package/one_picture_platform.c")
target_include_directories(c_static PRIVATE "{sdk}")
target_link_libraries(c_static PRIVATE olvex::det_static)
"""
SUBPROJECT = """
cmake_minimum_required(VERSION 3.16)
project(whole C CXX)
add_subdirectory("{root}" det)
add_executable(application "{root}/examples/smallest.c")
target_link_libraries(application PRIVATE olvex::det)
"""


def run(*command, **options):
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False, **options)
    if result.returncode != 0:
        raise AssertionError(f"{command}: exit {result.returncode}\n{result.stdout[-4000:]}{result.stderr[-4000:]}")
    return result.stdout


def refused(*command):
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False)
    assert result.returncode != 0, command
    return result.stdout + result.stderr


class PackageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.holder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.holder.cleanup)
        cls.folder = pathlib.Path(cls.holder.name)
        cls.build = cls.folder / "build"
        run("cmake", "-S", ROOT, "-B", cls.build, "-G", "Ninja", *CROSS, f"-DCMAKE_C_COMPILER={CC}",
            f"-DCMAKE_CXX_COMPILER={CXX}", f"-DCMAKE_CXX_COMPILER_LAUNCHER={os.environ['LAUNCHER']}",
            "-DOLVEX_STATIC=ON", "-DOLVEX_BUILD_TESTS=OFF", "-DOLVEX_BUILD_HOST=OFF", "-DOLVEX_BUILD_TOOLS=OFF",
            "-DOLVEX_BUILD_RECORDER=OFF", f"-DOLVEX_PLATFORM_INCLUDE={SDK}", "-DCMAKE_INSTALL_PREFIX=/usr",
            "-DCMAKE_INSTALL_LIBDIR=lib/here", "-DCMAKE_CXX_FLAGS=-O1 -g -pedantic-errors",
            "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON")
        run("ninja", "-C", cls.build, "olvex_det", "olvex_det_archive")
        cls.lists = {}
        for component in ("library", "platform-headers", "docs"):
            stage = cls.folder / component
            run("cmake", "--install", cls.build, "--component", component, env={**os.environ, "DESTDIR": str(stage)})
            cls.lists[component] = sorted(str(path.relative_to(stage)) for path in stage.rglob("*")
                                          if not path.is_dir())
        # Moved, and without the platform's headers: an SDK's own are used.
        shutil.move(cls.folder / "library" / "usr", cls.folder / "moved")
        cls.installed = cls.folder / "moved"
        cls.libraries = cls.installed / "lib" / "here"
        (cls.folder / "model").write_bytes(b"model_out:zrpcd\nQTNX0123456789ab")
        (cls.folder / "frame").write_bytes(bytes(256 * 128))

    def check_runs(self, program, *folders):
        environment = {**os.environ, "LD_LIBRARY_PATH": ":".join(map(str, (self.libraries, *folders)))}
        emulator = [*EMULATOR, "-E", f"LD_LIBRARY_PATH={environment['LD_LIBRARY_PATH']}"] if EMULATOR else []
        result = subprocess.run([*emulator, program, self.folder / "model", self.folder / "frame"], text=True,
                                capture_output=True, check=False, env=os.environ if EMULATOR else environment)
        self.assertEqual(0, result.returncode, result.stderr)
        for box in BOXES if program.name != "cxx_shared" else ():
            self.assertIn(box, result.stderr)

    def test_components_hold_what_they_say_and_need_no_other(self):
        library = [name for name in self.lists["library"] if "cmake/" not in name]
        self.assertEqual(["usr/include/olvex/algo_types.h", "usr/include/olvex/olvex_det.h",
                          "usr/include/olvex/olvex_layout.h", "usr/lib/here/libolvex_det.a",
                          "usr/lib/here/libolvex_det.so", "usr/lib/here/libolvex_det.so.1",
                          "usr/lib/here/libolvex_det.so.1.0.0", "usr/lib/here/olvex_det-1/olvex_det-library.spdx.json",
                          "usr/lib/here/pkgconfig/olvex_det.pc"], library)
        self.assertEqual([f"usr/include/olvex/platform/qv_{name}.h" for name in ("ipu", "sys", "types")],
                         self.lists["platform-headers"])
        self.assertIn("usr/share/doc/olvex_det/platform.md", self.lists["docs"])

    def test_flags_of_the_sdk_win(self):
        commands = (self.build / "compile_commands.json").read_text()
        self.assertIn("-O1", commands)
        self.assertEqual([], re.findall(r" -O[02-9sg]", commands))

    def test_the_archive_shows_the_public_functions_alone(self):
        symbols = run(os.environ["NM"], "--extern-only", "--defined-only", self.libraries / "libolvex_det.a")
        names = re.findall(r" [A-Z] (\S+)", symbols)
        self.assertEqual(EXPORTED, sorted(names))

    def test_pkg_config_and_plain_compiler_lines(self):
        environment = {**os.environ, "PKG_CONFIG_PATH": str(self.libraries / "pkgconfig")}
        def flags(*options):
            return run("pkg-config", *options, "olvex_det", env=environment).split()
        chip = (f"-I{SDK}", CHIP)
        strict = ("-std=c99", "-pedantic", "-Wall", "-Wextra", "-Werror")
        for name, command in (
                ("smallest", (CC, *strict, *chip, ROOT / "examples" / "smallest.c", *flags("--cflags", "--libs"))),
                ("smallest_static", (CC, *strict, *chip, ROOT / "examples" / "smallest.c", *flags("--cflags"),
                                     self.libraries / "libolvex_det.a", "-lstdc++", "-lm", "-pthread")),
                ("smallest_plain", (CC, *chip, ROOT / "examples" / "smallest.c",
                                    f"-I{self.installed}/include/olvex", f"-L{self.libraries}", "-lolvex_det"))):
            with self.subTest(name=name):
                run(*command, "-o", self.folder / name)
                self.check_runs(self.folder / name)
        self.assertEqual("1.0.0\n", run("pkg-config", "--modversion", "olvex_det", env=environment))
        header = (ROOT / "video/det/include/olvex_det.h").read_text()
        self.assertEqual(["1", "0", "0"], re.findall(r"#define OLVEX_DET_VERSION_\w+ (\d+)", header))
        self.assertIn("[libolvex_det.so.1]",
                      run(os.environ["READELF"], "-d", self.libraries / "libolvex_det.so"))

    def make(self, name, *arguments):
        """Builds by the Makefile of the page in a folder of that name, and returns it."""
        folder = self.folder / name
        folder.mkdir()
        page = (ROOT / "docs" / "target.md").read_text()
        (folder / "Makefile").write_text(re.search(r"^```make\n(.*?)^```", page, re.DOTALL | re.MULTILINE)[1])
        run("make", "-j2", "-C", folder, f"DET={ROOT}", f"SDK={SDK}", f"PLATFORM=-I{SDK} {CHIP}", f"CC={CC}",
            *(f"{tool}={os.environ[tool]}" for tool in ("AR", "OBJCOPY", "CPUFLAGS")), *arguments)
        return folder

    def test_plain_makefile(self):
        folder = self.make("plain", f"CXX={os.environ['LAUNCHER']} {CXX}")
        shown = run(os.environ["NM"], "--dynamic", "--defined-only", folder / "libolvex_det.so.1")
        self.assertEqual(EXPORTED, sorted(set(re.findall(r" T (\w+)", shown))))
        for name in ("application", "application_static"):
            with self.subTest(name=name):
                self.check_runs(folder / name, folder)

    @unittest.skipUnless(shutil.which("musl-gcc") and not TOOLCHAIN and "clang" not in CXX, "for musl-gcc and g++")
    def test_over_musl(self):
        musl = ("musl-gcc", "-std=c99", "-Wall", "-Wextra", "-Werror", "-O1", f"-I{SDK}", f"-I{ROOT}",
                *(f"-I{ROOT / folder}" for folder in ("platform/contract", "utils/records", "video/det/include")))
        check = self.folder / "accel_check_musl"
        run(*musl, "-static", "-pthread", *(ROOT / "platform/check").glob("*.c"), CHIP, "-o", check)
        self.assertIn("proven      static information without a device",
                      refused(check, "--other-model", "--cycles", "10", self.folder / "model"))
        recorder = self.folder / "recorder_musl.so"
        run(*musl, "-shared", "-fPIC", "-D_GNU_SOURCE", *(ROOT / "recorder").glob("*.c"), "-o", recorder)
        self.assertEqual(["libc.so"], re.findall(r"NEEDED.*\[(.*)\]", run("readelf", "-d", recorder)))

        # Debian has no C++ runtime for musl. The one for glibc asks for a function that no other C library has.
        version, machine, own = (run(CXX, option).strip() for option in
                                 ("-dumpversion", "-print-multiarch", "-print-file-name=include"))
        headers = (f"/usr/include/{machine.split('-')[0]}-linux-musl", f"/usr/include/c++/{version}",
                   f"/usr/include/{machine}/c++/{version}", own)
        folder = self.make("musl", "libolvex_det.a", " ".join((
            f"CXX={os.environ['LAUNCHER']} {CXX} -nostdinc '-D__GLIBC_PREREQ(a,b)=0'",
            *(f"-isystem {header}" for header in headers))))
        (folder / "find.c").write_text("int _dl_find_object(void* a, void* b) { return a == b ? -1 : -2; }\n")
        program = folder / "smallest"
        run(*musl, "-static", folder / "find.c", ROOT / "examples" / "smallest.c", CHIP, folder / "libolvex_det.a",
            run(CXX, "-print-file-name=libsupc++.a").strip(), "-o", program)
        self.check_runs(program)

    def test_cmake_package(self):
        outside = self.folder / "outside"
        outside.mkdir()
        (outside / "CMakeLists.txt").write_text(CMAKE_PROJECT.format(root=ROOT, sdk=SDK))
        run("cmake", "-S", outside, "-B", outside / "b", "-G", "Ninja", *CROSS, f"-DCMAKE_C_COMPILER={CC}",
            f"-DCMAKE_CXX_COMPILER={CXX}", f"-Dolvex_det_DIR={self.libraries / 'cmake' / 'olvex_det'}")
        run("ninja", "-C", outside / "b")
        for name in ("c_shared", "cxx_shared", "c_static"):
            with self.subTest(name=name):
                self.check_runs(outside / "b" / name, outside / "b")

    def test_a_part_of_another_project_is_the_library_alone(self):
        whole = self.folder / "whole"
        whole.mkdir()
        (whole / "CMakeLists.txt").write_text(SUBPROJECT.format(root=ROOT))
        run("cmake", "-S", whole, "-B", whole / "b", "-G", "Ninja", *CROSS, f"-DCMAKE_C_COMPILER={CC}",
            f"-DCMAKE_CXX_COMPILER={CXX}")
        targets = run("ninja", "-C", whole / "b", "-t", "targets", "all")
        self.assertIn("libolvex_det.so", targets)
        for absent in ("qv_scripted", "olvex_recorder", "gtest", "track_frames"):
            self.assertNotIn(absent, targets)

    def test_headers_that_differ_are_named(self):
        differing = self.folder / "differing"
        for header, before, after, message in (
                ("qv_ipu.h", "QV_IPU_FORMAT_INT32,", "", "QV_IPU_FORMAT_INT8 is not 4"),
                ("qv_ipu.h", "char name[QV_IPU_TENSOR_NAME_SIZE]", "char name[128]",
                 "QV_IPU_TensorDesc_t.u32InnerMostStride is not at byte 304"),
                ("qv_ipu.h", "QV_IPU_MAX_TENSORS 60", "QV_IPU_MAX_TENSORS 64",
                 "sizeof(QV_IPU_SubNet_InputOutputDesc_t) is not 41288"),
                ("qv_sys.h", "QV_U64 u64Pts", "QV_U32 u32Pts, u64Pts", "QV_SYS_BufInfo_s.u64Pts is not at byte 0"),
                ("qv_types.h", "unsigned long long QV_PHY", "unsigned int QV_PHY", "sizeof(QV_PHY) is not 8"),
                ("qv_types.h", "unsigned char QV_BOOL", "signed char QV_BOOL", "QV_BOOL is signed")):
            with self.subTest(message=message):
                shutil.rmtree(differing, ignore_errors=True)
                shutil.copytree(SDK, differing)
                text = (differing / header).read_text()
                self.assertIn(before, text)
                (differing / header).write_text(text.replace(before, after, 1))
                # In C the system's records are not looked at: an SDK may have their tags alone.
                for compiler in ((CC, "-std=c11", "-xc"), (CXX, "-std=c++11", "-xc++"))[header == "qv_sys.h":]:
                    said = refused(*compiler, "-fsyntax-only", f"-I{differing}",
                                   ROOT / "platform/contract/olvex_platform.h")
                    self.assertIn(f"platform headers: {message}", said)
        (differing / "qv_ipu.h").unlink()
        self.assertIn("has no qv_ipu.h. It must name", " ".join(refused(
            "cmake", "-S", ROOT, "-B", self.folder / "no", f"-DOLVEX_PLATFORM_INCLUDE={differing}").split()))

    @unittest.skipIf("clang" in CXX, "the description is of g++'s debug information")
    def test_the_binary_interface_is_the_described_one(self):
        name = {"x86_64": "x86_64", "armv7l": "armhf"}.get(os.environ["PROCESSOR"], platform.machine())
        description = FOLDER / f"olvex_det.{name}.abi"
        library = self.libraries / "libolvex_det.so"
        if os.environ.get("OLVEX_GOLDEN_UPDATE"):
            run("abidw", "--exported-interfaces-only", "--no-corpus-path", "--no-comp-dir-path", "--no-show-locs",
                "--type-id-style", "hash", "--out-file", description, library)
            description.write_text(re.sub(r"path='[^']*/(video/det/src/)", r"path='\1", description.read_text()))
        run("abidiff", "--harmless", "--exported-interfaces-only", "--no-show-locs", description, library)
        changed = self.folder / "changed.abi"
        changed.write_text(description.read_text().replace("name='score'", "name='certainty'"))
        self.assertIn("certainty", refused("abidiff", "--harmless", "--exported-interfaces-only", changed, library))


if __name__ == "__main__":
    unittest.main(verbosity=2)
