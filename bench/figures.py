# SPDX-License-Identifier: Apache-2.0
"""What the scripts of this folder share: building the benchmarks, running them one by one, medians."""
import argparse
import json
import math
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
NANOSECONDS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
MANUAL = "/manual_time"
# Google Benchmark takes its options from there as well.
ENVIRONMENT = {name: value for name, value in os.environ.items() if not name.startswith("BENCHMARK_")}


class Failure(Exception):
    """What keeps a script from its work; the text says what to do."""


def run_script(main):
    """Runs main(), which returns the exit code, with failures as one line."""
    code, fault = 1, None
    try:
        code = main()
    except SystemExit as end:  # argparse has printed its help or an error
        code = end.code
    except Failure as failure:
        complain(failure)
    except KeyboardInterrupt:
        code = 130
    except OSError as error:
        fault = error
    try:
        print(end="", flush=True)
    except OSError as error:
        fault = fault or error
        # What could not be written is not tried once more at exit.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    if fault and not isinstance(fault, BrokenPipeError):
        complain(f"{fault.filename or 'standard output'}: {fault.strerror}")
    sys.exit(1 if fault else code)


def complain(text):
    print(f"{pathlib.Path(sys.argv[0]).name}: {text}", file=sys.stderr)


def seconds(text):
    """An argument that says how long something takes."""
    value = float(text)
    if not 0 < value < math.inf:
        raise argparse.ArgumentTypeError("must be positive and finite")
    return value


def pattern(text):
    """An argument that is a regular expression."""
    try:
        re.compile(text)
    except (re.error, OverflowError) as error:
        raise argparse.ArgumentTypeError(f"no regular expression: {error}") from error
    return text


def read(path, advice):
    """The text of a file; a Failure with the advice when there is none."""
    try:
        return path.read_text(encoding="utf-8")
    except OSError as error:
        raise Failure(f"{path}: {error.strerror}; {advice}") from error
    except UnicodeDecodeError as error:
        raise Failure(f"{path} is no text in UTF-8; {advice}") from error


def call(command, **options):
    """Standard output of a command; a Failure with what it printed when it fails."""
    command = [str(part) for part in command]
    try:
        done = subprocess.run(command, check=False, capture_output=True, text=True, errors="replace",
                              env=ENVIRONMENT, **options)
    except OSError as error:
        advice = "; run tools/setup bench" if isinstance(error, FileNotFoundError) else ""
        raise Failure(f"cannot start {command[0]}: {error.strerror}{advice}") from error
    if done.returncode != 0:
        tail = "\n".join((done.stdout + done.stderr).splitlines()[-20:])
        raise Failure(f"failed with {done.returncode}: {' '.join(command)}\n{tail}")
    return done.stdout


def build(preset, target="all"):
    """Configures and builds a preset; returns its folder."""
    call(["cmake", "--preset", preset], cwd=ROOT)
    call(["cmake", "--build", ROOT / "build" / preset, "--parallel", os.cpu_count() or 1, "--target", target])
    return ROOT / "build" / preset


def program_of(folder, name="olvex_bench"):
    program = pathlib.Path(folder) / "bin" / name
    if not program.is_file():
        raise Failure(f"{program} is missing: configure with -DOLVEX_BUILD_BENCH=ON and build {folder}")
    return program


def benchmark_names(program, pattern):
    """Names of the program's benchmarks that the regular expression finds a part of."""
    names = call([program, "--benchmark_list_tests"]).split()
    chosen = [name for name in names if re.search(pattern, name)]
    if not chosen:
        raise Failure(f"{program}: no benchmark's name matches {pattern!r}")
    return chosen


def measure(program, name, min_time):
    """One benchmark in a separate process, so that none depends on what ran before it. Returns
    Google Benchmark's JSON."""
    output = call([program, f"--benchmark_filter=^{name}$", f"--benchmark_min_time={min_time}",
                   "--benchmark_format=json"])
    result = results_in(output, program)
    entries, context = result["benchmarks"], result.get("context")
    if [entry["name"] for entry in entries] != [name] or not isinstance(context, dict):
        raise Failure(f"{program} printed something else than the time of {name}: build it again")
    return result


def results_in(text, source):
    """Google Benchmark's JSON, each entry with a name and a time; a Failure that names the source when
    it is something else."""
    try:
        result = json.loads(text)
        for entry in result["benchmarks"]:
            if entry.get("error_occurred"):
                raise Failure(f"{source}: {entry['name']}: {entry.get('error_message')}")
            times = [nanoseconds(entry), entry["real_time"], entry["cpu_time"], entry["iterations"]]
            if not all(0 < time < math.inf for time in times):
                raise ValueError(f"{entry['name']} has no positive time")
    except (ValueError, TypeError, KeyError, AttributeError, OverflowError) as error:
        raise Failure(f"{source}: not the results of benchmarks: {error!r}") from error
    return result


def work_of(name):
    return name.removesuffix(MANUAL)


def nanoseconds(entry):
    """Processor time of the measuring thread; with manual timing that is what was set."""
    time = entry["real_time"] if entry["name"].endswith(MANUAL) else entry["cpu_time"]
    return time * NANOSECONDS[entry["time_unit"]]


def rounds_of(entries):
    """Nanoseconds by benchmark, round by round."""
    rounds = {}
    for entry in entries:
        rounds.setdefault(work_of(entry["name"]), []).append(nanoseconds(entry))
    return rounds


def medians(entries):
    """Nanoseconds by benchmark: the median of its rounds."""
    return {name: statistics.median(times) for name, times in rounds_of(entries).items()}


def median_ratio(upper, lower):
    """The median of the ratios within each round."""
    return statistics.median(above / below for above, below in zip(upper, lower))


def median_text(times):
    return time_text(statistics.median(times))


def time_text(ns):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= size:
            return f"{ns / size:.3g} {unit}"
    return f"{ns:.3g} ns"


def processor_name():
    try:
        text = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8")
    except OSError:
        text = ""
    model = re.search(r"^(?:model name|Model|Hardware)\s*:\s*(.+)$", text, re.MULTILINE)
    return model.group(1).strip() if model else platform.machine()


def machine_name():
    """A short name for a folder: the processor's, without marks and clock rate."""
    name = re.sub(r"\((?:r|tm)\)|@.*|\bcpu\b|\bprocessor\b", " ", processor_name().lower())
    return re.sub(r"[^a-z0-9]+", "-", name).strip("-")


def show_progress(text):
    if sys.stderr.isatty():
        print(f"\r{text[:100]:100}", end="", file=sys.stderr, flush=True)


def end_progress():
    show_progress("")
    if sys.stderr.isatty():
        print("\r", end="", file=sys.stderr)
