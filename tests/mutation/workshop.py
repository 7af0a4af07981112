"""A copy of the tree with a build of its own, where tests/mutation/run tries one change after the other."""
import collections
import functools
import hashlib
import json
import os
import pathlib
import re
import resource
import shutil
import signal
import subprocess
import time

import mutants
import scopes

ROOT = pathlib.Path(__file__).resolve().parents[2]

# A program of the test suite, a case of a test of the command line, or a ctest entry that is neither.
# limit: seconds until it counts as hanging.
Program = collections.namedtuple("Program", "name command environment passes fails limit")


class Trouble(Exception):
    """What ends the run with a message."""


def limit_resources(memory):
    """A change can make a program eat all memory, or log until the disk is full."""
    if memory:
        resource.setrlimit(resource.RLIMIT_AS, (memory, memory))
    resource.setrlimit(resource.RLIMIT_FSIZE, (64 << 20, 64 << 20))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def split_into_cases(program):
    """The cases of a test of the command line, each a program of its own."""
    script = next(word for word in program.command if word.endswith("_test.py"))
    text = pathlib.Path(script).read_text()
    (suite,) = re.findall(r"^class (\w+)\(\w*Test\w*\):", text, re.MULTILINE)
    return [program._replace(name=f"{program.name}.{case}", command=[*program.command, f"{suite}.{case}"])
            for case in re.findall(r"^    def (test_\w+)", text, re.MULTILINE)]


class Workshop:
    """A copy of the tree with a build of its own."""

    def __init__(self, folder, scope):
        self.scope, self.base = scope, folder
        self.tree, self.build = folder / "tree", folder / "build"
        self.kept, self.scratch = folder / "kept", folder / "scratch"
        self.programs, self.cases, self.left_out = [], [], []
        self.noticed_here = collections.Counter()

    def copy_tree(self, sources):
        listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=ROOT, check=True,
                                stdout=subprocess.PIPE, text=True).stdout.split("\0")
        files = {file for file in listed if file and (ROOT / file).is_file()}
        for old in [p for p in self.tree.rglob("*") if p.is_file()]:
            if old.relative_to(self.tree).as_posix() not in files:
                old.unlink()
        for file in files:
            copy = self.tree / file
            content = sources[file].encode() if file in sources else (ROOT / file).read_bytes()
            if not copy.exists() or copy.read_bytes() != content:
                copy.parent.mkdir(parents=True, exist_ok=True)
                copy.write_bytes(content)
                shutil.copymode(ROOT / file, copy)

    def prepare(self, sources):
        """Copies, configures, builds, and lets every test program show that it passes."""
        self.copy_tree(sources)
        self.call(["cmake", "-S", str(self.tree), "-B", str(self.build), "-G", "Ninja", *self.scope.options],
                  cwd=self.tree)
        self.call(["ninja", "-C", str(self.build), "-j", "1", *self.scope.targets])
        listed = json.loads(self.call(["ctest", "--show-only=json-v1"], cwd=self.build))
        usual = []
        for program in self.find_programs(listed["tests"]):
            start = time.monotonic()
            failed = self.run(program, False)
            seconds = time.monotonic() - start
            if failed:
                raise Trouble(f"{', '.join(failed)} fails without any change: mend it first")
            if seconds > self.scope.slowest:
                self.left_out.append(f"{program.name} ({seconds:.0f} s)")
            else:
                usual.append((seconds, program._replace(limit=max(10 * seconds, 10.0))))
        self.programs = [program for _, program in sorted(usual, key=lambda pair: pair[0])]
        self.original = self.fingerprints()
        shutil.rmtree(self.kept, ignore_errors=True)
        shutil.copytree(self.build, self.kept)

    def restore(self, file, source, times):
        """Puts a source back, and the build with it, times included: nothing has to be built anew."""
        (self.tree / file).write_text(source)
        os.utime(self.tree / file, ns=times)
        for kept in self.kept.rglob("*"):
            built = self.build / kept.relative_to(self.kept)
            if kept.is_file() and (not built.exists() or built.stat().st_mtime_ns != kept.stat().st_mtime_ns):
                shutil.copy2(kept, built)

    def call(self, command, cwd=None):
        result = subprocess.run(command, cwd=cwd, env=self.build_environment(), check=False,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if result.returncode != 0:
            raise Trouble(f"{' '.join(command)} failed:\n{result.stdout[-3000:]}")
        return result.stdout

    def build_environment(self):
        """Lets ccache, where it is set up, share what the copies have in common."""
        return {**os.environ, "CCACHE_BASEDIR": str(self.base)}

    def find_programs(self, tests):
        """One for all cases of a GoogleTest program, one for each case of a test of the command line, and
        one for each other test."""
        found = {}
        for test in tests:
            properties = {p["name"]: p["value"] for p in test.get("properties", [])}
            if not re.match(self.scope.tests, " ".join([*properties.get("LABELS", []), test["name"]])):
                continue
            if "command" not in test:
                raise Trouble(f"{test['name']}: this test was not built")
            command = test["command"]
            environment = dict(text.split("=", 1) for text in properties.get("ENVIRONMENT", []))
            program = Program(test["name"], command, environment,
                              properties.get("PASS_REGULAR_EXPRESSION", []),
                              properties.get("FAIL_REGULAR_EXPRESSION", []), 600.0)
            programs = [program]
            if any(word.endswith("_test.py") for word in command):
                programs = split_into_cases(program)
            elif not environment and any(word.startswith("--gtest_filter=") for word in command):
                command = [word for word in command if not word.startswith("--gtest_")]
                programs = [program._replace(name=pathlib.Path(command[-1]).name, command=command)]
            self.cases += [test["name"]] if len(programs) == 1 else [case.name for case in programs]
            for one in programs:
                found.setdefault(one.name, one)
        return found.values()

    def run(self, program, to_the_end):
        """The names of the cases that fail; of those behind a crash nothing is known."""
        shutil.rmtree(self.scratch, ignore_errors=True)
        self.scratch.mkdir(parents=True)
        environment = {k: v for k, v in os.environ.items()
                       if not k.startswith(("GTEST_", "OLVEX_", "ALGO_", "QK_ALGO_"))}
        environment.update(program.environment, TMPDIR=str(self.scratch), TEST_TMPDIR=str(self.scratch) + "/")
        if not to_the_end:
            environment["GTEST_FAIL_FAST"] = "1"
        output = self.scratch / "output"
        with output.open("wb") as sink:
            process = subprocess.Popen(program.command, cwd=self.build, env=environment, stdout=sink,
                                       stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                       start_new_session=True,
                                       preexec_fn=functools.partial(limit_resources, self.scope.memory))
            try:
                failed = process.wait(program.limit) != 0
            except subprocess.TimeoutExpired:
                failed = True
            finally:
                if process.poll() is None:
                    os.killpg(process.pid, signal.SIGKILL)
                    process.wait()
        text = output.read_text(errors="replace")
        if program.passes:
            failed = not any(re.search(expression, text) for expression in program.passes)
        if not failed and not any(re.search(expression, text) for expression in program.fails):
            return []
        cases = re.findall(r"^\[  FAILED  \] ([\w/]+\.[\w/.]+)", text, re.MULTILINE)
        cases = cases or re.findall(r"^\[ RUN      \] ([\w/.]+)", text, re.MULTILINE)[-1:]
        return sorted(set(cases)) or [program.name]

    def target_of(self, program):
        """What has to be built for a program: itself, if it is built at all."""
        paths = map(pathlib.Path, program.command)
        built = [path.relative_to(self.build).as_posix() for path in paths if self.build in path.parents]
        is_script = any(word.endswith("_test.py") for word in program.command)
        return built[0] if built and not is_script else self.scope.tool

    def builds(self, *targets):
        return subprocess.run(["ninja", "-C", str(self.build), "-j", "1", *targets], check=False,
                              env=self.build_environment(), stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL).returncode == 0

    def fingerprints(self, targets=None):
        targets = targets or sorted({*self.scope.first, *map(self.target_of, self.programs)})
        return {target: hashlib.sha1((self.build / target).read_bytes()).digest() for target in targets}

    def is_unchanged(self, targets=None):
        now = self.fingerprints(targets)
        return all(self.original[target] == now[target] for target in now)

    def order(self, file):
        """What has noticed most in this file comes first; the sort keeps quick ones before slow ones."""
        programs = [program for program in self.programs if scopes.can_notice(file, program.name)]
        return sorted(programs, key=lambda program: -self.noticed_here[file, program.name])

    def judge(self, change, source, to_the_end):
        """Sets the outcome of a change whose file has been written already."""
        file = change.mutant.file
        change.outcome = "not compiled"
        if not self.builds(*self.scope.first):
            return
        if file.endswith(".cpp") and self.is_unchanged(self.scope.first):
            change.outcome = "same code"
            return
        for program in self.order(file):
            target = self.target_of(program)
            if not self.builds(target):
                return
            if target != self.scope.tool and self.is_unchanged([*self.scope.first, target]):
                continue
            failed = self.run(program, to_the_end)
            if failed:
                self.noticed_here[file, program.name] += 1
                change.by += failed if to_the_end else [program.name]
                if not to_the_end:
                    break
        # A header may reach the tests' own code alone.
        change.outcome = "noticed" if change.by else "same code" if self.is_unchanged() else "survived"

    def try_out(self, change, source, to_the_end):
        path = self.tree / change.mutant.file
        start = time.monotonic()
        path.write_text(mutants.apply(change.mutant, source))
        self.judge(change, source, to_the_end)
        change.seconds = time.monotonic() - start
