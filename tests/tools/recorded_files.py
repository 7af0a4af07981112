# SPDX-License-Identifier: Apache-2.0
"""recorded_files.py - what the tests of replay share: recorded runs of the camera of tests/recorder, their messages,
and recordings that were changed.
"""
import os
import pathlib
import signal
import struct
import subprocess
import zlib

CAMERA, RECORDER = os.environ["OLVEX_CAMERA"], os.environ["OLVEX_RECORDER"]
MAGIC = b"\x89MCAP0\r\n"


def record(command, path, **settings):
    """Runs a command with the recorder in front; returns the bytes of the first recording."""
    environment = {name: value for name, value in os.environ.items() if not name.startswith("OLVEX_RECORDER")}
    environment.update({f"OLVEX_RECORDER_{name}": str(value) for name, value in
                        {"FILE": path, "MODE": "always", "FILES": 1, "FLOOR": 0.25, **settings}.items()})
    environment["LD_PRELOAD"] = RECORDER
    environment["ASAN_OPTIONS"] = environment.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
    code = subprocess.run(command, env=environment, stdout=subprocess.DEVNULL, timeout=600).returncode
    assert code == (-signal.SIGKILL if "kill=30" in command else 0), f"{command}: {code}"
    return pathlib.Path(f"{path}.1.mcap").read_bytes()


def chunks(data):
    """(offset, end) of each chunk's record."""
    at, found = len(MAGIC), []
    while at + 9 <= len(data) and data[at:at + 8] != MAGIC:
        number, size = struct.unpack_from("<BQ", data, at)
        at += 9 + size
        if number == 6:
            found.append((at - 9 - size, at))
    return found


def messages(data, channel):
    """(offset, end, chunk) of the data of each message of a channel."""
    found = []
    for chunk in chunks(data):
        at = chunk[0] + 49
        while at < chunk[1]:
            size, number = struct.unpack_from("<QH", data, at + 1)
            if number == channel:
                found.append((at + 31, at + 9 + size, chunk))
            at += 9 + size
    return found


def changed(data, message, offset, value):
    """The recording with other bytes in a message, and the right CRC."""
    begin, _, (start, end) = message
    data = bytearray(data)
    data[begin + offset:begin + offset + len(value)] = value
    struct.pack_into("<I", data, start + 33, zlib.crc32(data[start + 49:end]))
    return bytes(data)


def spliced(data, begin, end, between=b""):
    """The recording with something else in place of a part of its chunks, closed without a summary."""
    at = chunks(data)[-1][1]
    while data[at] == 7:
        at += 9 + struct.unpack_from("<Q", data, at + 1)[0]
    return data[:begin] + between + data[end:at] + struct.pack("<BQIBQ", 15, 4, 0, 2, 20) + bytes(20) + MAGIC


def without(data, message):
    """The recording without the chunk of a message, and the chunk's index."""
    begin, end = message[2]
    while data[end] == 7:
        end += 9 + struct.unpack_from("<Q", data, end + 1)[0]
    return spliced(data, begin, end)


def chunk(size, crc, records=b""):
    """A chunk that claims a size and CRC, with what it begins with."""
    return struct.pack("<BQQQQIIQ", 6, 40 + size, 0, 0, size, crc, 0, size) + records
