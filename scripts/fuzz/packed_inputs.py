#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Many inputs of a fuzzer in one file: fuzz/corpus/FUZZER.inputs. Those of past faults of all fuzzers are in
fuzz/regressions.inputs, FUZZER.FAULT each.

  scripts/fuzz/packed_inputs.py list FILE           # number, bytes and name of each
  scripts/fuzz/packed_inputs.py unpack FILE FOLDER  # a file for each
  scripts/fuzz/packed_inputs.py pack FOLDER FILE    # and back
  scripts/fuzz/packed_inputs.py random FOLDER       # writes the random inputs that replay adds
  scripts/fuzz/packed_inputs.py replay FILE PROGRAM # runs a fuzzer, by its absolute path, over them
  scripts/fuzz/packed_inputs.py one FILE NAME PROGRAM  # over one of them alone
  scripts/fuzz/packed_inputs.py self-test           # damaged files are refused

The file: a line "olvex inputs 1"; a line with the number of inputs and the CRC-32, in hexadecimal, of all
that follows; then of each input, in the order of their names, a line "SIZE NAME" and its SIZE bytes. The
name "-" stands for the SHA-1 of the bytes, which is the name that libFuzzer gives.
"""
import argparse
import hashlib
import os
import pathlib
import random
import re
import subprocess
import sys
import tempfile
import zlib

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import common  # noqa: E402

HEAD = re.compile(rb"olvex inputs 1\n(\d+) ([0-9a-f]{8})\n")
ENTRY = re.compile(rb"(\d+) (\S+)\n")


class Damaged(common.Failure):
    """A packed file that does not hold what it says."""

    def __init__(self, path):
        super().__init__(f"{path} is damaged: take it from the repository again")


def read(path):
    """{name: bytes} of a packed file, in its order."""
    packed = path.read_bytes()
    head = HEAD.match(packed)
    if not head or zlib.crc32(packed[head.end():]) != int(head[2], 16):
        raise Damaged(path)
    inputs, at = {}, head.end()
    while at < len(packed):
        entry = ENTRY.match(packed, at)
        if not entry or entry.end() + int(entry[1]) > len(packed):
            raise Damaged(path)
        at = entry.end() + int(entry[1])
        content = packed[entry.end():at]
        inputs[hashlib.sha1(content).hexdigest() if entry[2] == b"-" else entry[2].decode()] = content
    if len(inputs) != int(head[1]):
        raise Damaged(path)
    return inputs


def write(path, inputs):
    """Replaces a packed file by these inputs: it is the old one or the new one, whatever happens."""
    entries = b""
    for name, content in sorted(inputs.items()):
        kept = "-" if name == hashlib.sha1(content).hexdigest() else name
        entries += f"{len(content)} {kept}\n".encode() + content
    partial = path.with_name(path.name + ".partial")
    partial.write_bytes(f"olvex inputs 1\n{len(inputs)} {zlib.crc32(entries):08x}\n".encode() + entries)
    os.replace(partial, path)


def unpack(path, folder):
    folder.mkdir(parents=True, exist_ok=True)
    for name, content in read(path).items():
        (folder / name).write_bytes(content)


def pack(folder, path):
    inputs = {file.name: file.read_bytes() for file in folder.iterdir()}
    if any(re.search(r"\s", name) for name in inputs):
        raise common.Failure(f"{folder}: the name of an input may hold no blank")
    write(path, inputs)


def show(path):
    for number, (name, content) in enumerate(read(path).items(), 1):
        print(f"{number} {len(content)} {name}")


def write_random(folder):
    """200 inputs of growing length, the same each time. Returns their names."""
    folder.mkdir(parents=True, exist_ok=True)
    for seed in range(200):
        (folder / f"random_{seed}").write_bytes(random.Random(seed).randbytes(seed * seed // 20))
    return [f"random_{seed}" for seed in range(200)]


def run_over(path, folder, names, program):
    """Runs a program, given with its first arguments, over inputs in a folder."""
    status = subprocess.run([*program, *names], cwd=folder, check=False).returncode
    if status != 0:
        raise common.Failure(f"the program ended with {status}; the last input named above is to blame: unpack "
                             f"writes those of {path}, random those named random_*")


def replay(path, program):
    """Over all inputs of a packed file, one file each, in their order, and over random ones."""
    with tempfile.TemporaryDirectory() as folder:
        unpack(path, pathlib.Path(folder))
        run_over(path, folder, [*read(path), *write_random(pathlib.Path(folder))], program)


def replay_one(path, name, program):
    inputs = read(path)
    if name not in inputs:
        raise common.Failure(f"{path} holds no input {name}: list shows which it holds")
    with tempfile.TemporaryDirectory() as folder:
        (pathlib.Path(folder) / name).write_bytes(inputs[name])
        run_over(path, folder, [name], program)


def refuses(path):
    try:
        read(path)
    except Damaged:
        return True
    return False


def self_test():
    inputs = {"named": b"text\n2 -\n", "zero": b"", hashlib.sha1(b"\0\xff").hexdigest(): b"\0\xff"}
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder) / "test.inputs"
        write(path, inputs)
        assert list(read(path).items()) == sorted(inputs.items()) and not refuses(path)
        whole = path.read_bytes()
        damages = [whole[:size] for size in range(len(whole))] + [whole + b"x"]
        damages += [whole[:k] + bytes([whole[k] ^ 1]) + whole[k + 1:] for k in range(len(whole))]
        for head, tail in ((b"4", b""), (b"2", b""), (b"1", b"9 -\nshort"), (b"1", b"18446744073709551615 -\n")):
            entries = tail or whole[HEAD.match(whole).end():]
            damages.append(b"olvex inputs 1\n" + head + b" %08x\n" % zlib.crc32(entries) + entries)
        for damage in damages:
            path.write_bytes(damage)
            assert refuses(path), damage
    print(f"{len(damages)} damaged files are refused")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="command", required=True)
    for name, call, operands in (("list", show, ["FILE"]), ("unpack", unpack, ["FILE", "FOLDER"]),
                                 ("pack", pack, ["FOLDER", "FILE"]), ("random", write_random, ["FOLDER"]),
                                 ("replay", replay, ["FILE", "PROGRAM"]),
                                 ("one", replay_one, ["FILE", "NAME", "PROGRAM"]),
                                 ("self-test", self_test, [])):
        command = commands.add_parser(name)
        command.set_defaults(call=call, operands=operands)
        for operand in operands:
            if operand == "PROGRAM":
                command.add_argument(operand, nargs=argparse.REMAINDER)
            elif operand == "NAME":
                command.add_argument(operand)
            else:
                command.add_argument(operand, type=pathlib.Path)
    arguments = parser.parse_args()
    arguments.call(*(getattr(arguments, operand) for operand in arguments.operands))


if __name__ == "__main__":
    common.run_script(main)
