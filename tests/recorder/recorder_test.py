#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the camera with the recorder attached in each way, and reads what it wrote with a reader of its own: magic,
record lengths, CRC of each chunk, index, and the messages. What happens to the run when the recorder fails, or
when the process is killed, is tried as well."""
import hashlib
import os
import pathlib
import resource
import signal
import struct
import subprocess
import tempfile
import time
import unittest
import zlib

MAGIC = b"\x89MCAP0\r\n"
CAMERAS = {"preload": os.environ["PLAIN"], "front": os.environ["FRONT"], "wrap": os.environ["WRAP"]}
EMULATOR = os.environ["EMULATOR"].split()
SANITIZERS = os.environ["SANITIZERS"]
KINDS = ("fp32", "int16", "points", "list")


class Cursor:
    def __init__(self, data, at=0):
        self.data, self.at = data, at

    def take(self, layout):
        values = struct.unpack_from("<" + layout, self.data, self.at)
        self.at += struct.calcsize("<" + layout)
        return values if len(values) > 1 else values[0]

    def bytes(self, size):
        assert self.at + size <= len(self.data), "cut"
        self.at += size
        return self.data[self.at - size:self.at]

    def string(self):
        return self.bytes(self.take("I"))

    def array(self, layout):
        return [self.take(layout) for _ in range(self.take("I"))]


def records(data, start=0):
    """(number, bytes, position) of each whole record from start on, without the magic at the end."""
    at = start
    while at + 9 <= len(data) and data[at:at + 8] != MAGIC:
        number, size = struct.unpack_from("<BQ", data, at)
        if at + 9 + size > len(data):
            return
        yield number, data[at + 9:at + 9 + size], at
        at += 9 + size


def messages_of(chunk):
    cursor = Cursor(chunk)
    _, _, size, crc = cursor.take("QQQI")
    assert cursor.string() == b""
    contents = cursor.bytes(cursor.take("Q"))
    assert len(contents) == size and zlib.crc32(contents) == crc, "damaged chunk"
    return [(struct.unpack_from("<H", message)[0], message[22:], at) for _, message, at in records(contents)]


class Recording:
    def __init__(self, path_or_data):
        data = path_or_data if isinstance(path_or_data, bytes) else pathlib.Path(path_or_data).read_bytes()
        assert data[:8] == MAGIC
        self.by_channel = {channel: [] for channel in range(1, 9)}
        self.numbers = []
        self.is_whole = data.endswith(MAGIC) and len(data) > 8
        self.chunks, self.chunk_indexes = {}, {}
        index = None
        for number, content, at in records(data, 8):
            self.numbers.append(number)
            if number == 6:
                index = {(channel, place) for channel, _, place in messages_of(content)}
                self.chunks[at] = set(index)
                for channel, message, _ in messages_of(content):
                    self.by_channel[channel].append(message)
            elif number == 7:
                cursor = Cursor(content)
                channel, size = cursor.take("HI")
                self.chunks[max(self.chunks)] -= {
                    (channel, place) for _, place in struct.iter_unpack("<QQ", cursor.bytes(size))}
            elif number == 8:
                start, length = struct.unpack_from("<QQ", content, 16)
                self.chunk_indexes[start] = length

    def frames(self):
        return [frame_of(message) for message in self.by_channel[5]]

    def calls(self):
        return [call_of(message) for message in self.by_channel[4]]

    def events(self):
        return [event_of(message) for message in self.by_channel[7]]


def frame_of(message):
    cursor = Cursor(message)
    names = "number call handle thread flags result begin duration pts size crc lost floor empty".split()
    frame = dict(zip(names, cursor.take("IIHHBiQIQIIIfI")))
    frame["calls"] = cursor.array("BiIII")
    frame["outputs"] = [(cursor.take("B"), cursor.take("B"), cursor.string()) for _ in range(cursor.take("I"))]
    frame["boxes"] = cursor.array("HHHHBf") + cursor.array("IIIIIf")
    assert cursor.at == len(message)
    return frame


def call_of(message):
    cursor = Cursor(message)
    names = "function flags thread call outer handle channel frames result begin end".split()
    call = dict(zip(names, cursor.take("BBHIIIIIiQQ")))
    call["words"] = cursor.array("I")
    call["texts"] = [cursor.string() for _ in range(cursor.take("I"))]
    assert cursor.at == len(message)
    return call


def event_of(message):
    cursor = Cursor(message)
    names = "kind time lost_frames lost_calls failures".split()
    return {**dict(zip(names, cursor.take("BQQQI"))), "text": cursor.string().decode()}


def text_of(frame):
    """A frame as the camera writes it."""
    boxes = "".join(f" {b[4]:.9g} {b[0]:.9g} {b[1]:.9g} {b[2]:.9g} {b[3]:.9g} {b[5]:.9g};" for b in frame["boxes"])
    return f"run {frame['result']}:{boxes}\n"


class InstallationTest(unittest.TestCase):
    def test_the_component_has_what_recording_takes(self):
        with tempfile.TemporaryDirectory() as prefix:
            subprocess.run([os.environ["CMAKE"], "--install", os.environ["BUILD"], "--component", "recorder",
                            "--strip", "--prefix", prefix], check=True, stdout=subprocess.DEVNULL)
            files = {path.name: path for path in pathlib.Path(prefix).rglob("*") if path.is_file()}
            self.assertEqual({"libolvex_recorder.so", "libolvex_recorder_wrap.a", "olvex_recorder_wrap.args",
                              "olvex_recorder.h", "olvex_det-recorder.spdx.json"}, set(files))
            symbols = subprocess.run([os.environ["NM"], "--defined-only", files["libolvex_recorder_wrap.a"]],
                                     check=True, stdout=subprocess.PIPE, text=True).stdout.split()
            wrapped = {symbol.removeprefix("__wrap_") for symbol in symbols if symbol.startswith("__wrap_")}
            arguments = files["olvex_recorder_wrap.args"].read_text().split()
            self.assertEqual(sorted(f"-Wl,--wrap={name}" for name in wrapped), sorted(arguments))
            self.assertEqual(22, len(arguments))


class RecorderTest(unittest.TestCase):
    def setUp(self):
        holder = tempfile.TemporaryDirectory()
        self.addCleanup(holder.cleanup)
        self.folder = pathlib.Path(holder.name)

    def start(self, way, arguments=(), limits=None, **settings):
        """Starts the camera with these settings of the recorder."""
        environment = {name: value for name, value in os.environ.items() if not name.startswith("OLVEX")}
        preload = os.environ["RECORDER"] if way == "preload" else ""
        command = [CAMERAS[way if way in CAMERAS else "preload"], str(self.folder / "results"), *arguments]
        if way != "none":
            settings = {"FILE": self.folder / "out", **settings}
            environment.update({f"OLVEX_RECORDER_{name}": str(value) for name, value in settings.items()})
        if EMULATOR:
            command = [*EMULATOR, *(["-E", f"LD_PRELOAD={preload}"] if preload else []), *command]
        elif preload:
            environment["LD_PRELOAD"] = preload
            if "address" in SANITIZERS or "thread" in SANITIZERS:
                environment["ASAN_OPTIONS"] = environment.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        self.errors = self.folder / "errors"
        with open(self.errors, "wb") as errors:
            return subprocess.Popen(command, env=environment, stdout=subprocess.DEVNULL, stderr=errors,
                                    preexec_fn=limits, close_fds=False)

    def go_on_after(self, frames, process):
        """Lets a camera that waits go on once so many frames are in the file, however late the writer runs."""
        path = self.folder / "out.1.mcap"
        while process.poll() is None and (not path.exists() or path.stat().st_size < len(MAGIC)
                                          or len(Recording(path).frames()) < frames):
            time.sleep(0.05)
        (self.folder / "results.go").touch()

    def run_camera(self, way, *arguments, limits=None, frames_before_going_on=0, **settings):
        process = self.start(way, arguments, limits, **settings)
        if frames_before_going_on:
            self.go_on_after(frames_before_going_on, process)
        self.assertEqual(0, process.wait(), self.said())
        return (self.folder / "results").read_text()

    def said(self):
        return self.errors.read_text()

    def file(self, number=1):
        return Recording(self.folder / f"out.{number}.mcap")

    @staticmethod
    def read_what_is_there(descriptor):
        data = b""
        try:
            while part := os.read(descriptor, 65536):
                data += part
        except BlockingIOError:
            pass
        return data

    def check_container(self, recording):
        self.assertTrue(recording.is_whole)
        self.assertEqual(set(recording.chunks), set(recording.chunk_indexes))
        self.assertFalse(any(recording.chunks.values()), "a message without an index")

    def test_each_way_and_kind_records_the_run_and_leaves_it_as_it_is(self):
        for kind in KINDS:
            arguments = (f"kind={kind}", "frames=50", "fail=49")
            plain = self.run_camera("none", *arguments)
            self.assertIn("run 77:", plain)
            for way in CAMERAS:
                with self.subTest(kind=kind, way=way):
                    self.assertEqual(plain, self.run_camera(way, *arguments, MODE="always", FILES=1))
                    self.assertEqual("", self.said())
                    recording = self.file()
                    self.check_container(recording)
                    frames = recording.frames()
                    self.assertEqual(plain, "".join(map(text_of, frames)))
                    self.assertEqual(list(range(1, 51)), [frame["number"] for frame in frames])
                    self.assertEqual({8}, {frame["flags"] for frame in frames[:-1]})
                    self.assertEqual([(30, 0), (29, 77), (25, 0)],
                                     [(call[0], call[1]) for call in frames[-1]["calls"]])
                    self.assertEqual([1, 23, 21, 24, 26, 27, 5, 3, 8, 28, 25, 22, 11],
                                     [call["function"] for call in recording.calls()])
                    sparse = [output[0] for frame in frames[:-1] for output in frame["outputs"]]
                    self.assertEqual({0 if kind == "list" else 1}, set(sparse))

    def test_empty_frames_are_counted(self):
        for kind in KINDS[:3]:
            self.run_camera("preload", f"kind={kind}", "frames=30", MODE="always", FILES=1)
            counts = [frame["empty"] for frame in self.file().frames()]
            self.assertEqual([0] * 10 + list(range(1, 15)) + [0] * 6, counts)

    def test_handles_in_threads(self):
        arguments = ("handles=3", "frames=100")  # what fits the ring is not lost, however late its thread runs
        plain = self.run_camera("none", *arguments)
        self.assertEqual(plain, self.run_camera("preload", *arguments, MODE="always", RING_MB=8, ANNOTATIONS=0))
        self.assertLess((self.folder / "out.1.mcap").stat().st_size, 6 << 20)
        frames = self.file().frames()
        ordered = sorted(frames, key=lambda frame: (frame["handle"], frame["pts"]))
        self.assertEqual(plain, "".join(map(text_of, ordered)))
        self.assertEqual([0] * 300, [frame["lost"] for frame in frames])

    def test_a_threshold_below_the_floor_lowers_it(self):
        for threshold, floor in (("0.4", 0.25), ("0.02", 0.02), ("0", 0.0), ("nan", 0.25)):
            plain = self.run_camera("none", f"threshold={threshold}", "frames=3", "threshold_at=2")
            self.assertEqual(plain, self.run_camera("preload", f"threshold={threshold}", "frames=3",
                                                    "threshold_at=2", MODE="always", FLOOR="0.25", FILES=1))
            floors = [frame["floor"] for frame in self.file().frames()]
            self.assertEqual([floor, floor, 0.01], [round(value, 6) for value in floors])

    def test_whole_outputs_and_pictures_as_asked(self):
        self.run_camera("preload", "frames=9", MODE="always", WHOLE=3, PICTURES=4, INPUT_CRC=1, ANNOTATIONS=0)
        recording = self.file()
        sizes = [[len(data) for _, _, data in frame["outputs"]] for frame in recording.frames()[2::3]]
        self.assertEqual([[16 * 32 * 28, 8 * 16 * 28, 4 * 8 * 28]] * 3, sizes)
        self.assertEqual([struct.pack("<IIIIIII", number, 0, 0, 256, 128, 9, 32768) + b"\x07" * 32768
                          for number in (4, 8)], recording.by_channel[8])
        self.assertEqual({zlib.crc32(b"\x07" * 32768)}, {frame["crc"] for frame in recording.frames()})
        self.assertEqual([], recording.by_channel[6])

    def test_pictures_are_cut_and_made_grey(self):
        luma = bytes(k % 251 for k in range(288 * 192))
        for crop, grey, area in (("11,5,20,30", 0, (10, 4, 21, 31)), ("250,100,20,90", 1, (250, 100, 6, 28)),
                                 (None, 0, (0, 0, 256, 128)), ("256,0,1,1", 0, None)):
            settings = {"PICTURES_CROP": crop} if crop else {}
            self.run_camera("preload", "frames=2", "input=nv12", MODE="always", FILES=1, PICTURES=2,
                            PICTURES_GREY=grey, **settings)
            expected = []
            if area:
                x, y, width, height = area
                rows = [luma[288 * row + x:288 * row + x + width] for row in range(y, y + height)]
                if not grey:
                    rows += [luma[288 * row + x:288 * row + x + width + width % 2]
                             for row in range(128 + y // 2, 128 + y // 2 + (height + 1) // 2)]
                data = b"".join(rows)
                expected = [struct.pack("<IIIIIII", 2, *area, 9 if grey else 1, len(data)) + data]
            self.assertEqual(expected, self.file().by_channel[8], crop)

    def test_pictures_around_a_trigger(self):
        self.run_camera("preload", "frames=40", "trigger=20", PICTURES=8, PICTURES_AFTER=1, AFTER_S=86400)
        self.assertEqual([8, 16, *range(21, 41)],
                         [struct.unpack_from("<I", picture)[0] for picture in self.file().by_channel[8]])

    def test_pictures_that_do_not_fit_cost_no_frame(self):
        self.run_camera("preload", "frames=9", "input=argb", MODE="always", PICTURES=3, RING_MB=2)
        recording = self.file()
        self.assertEqual([0] * 9, [frame["lost"] for frame in recording.frames()])
        self.assertEqual([], recording.by_channel[8])
        self.assertEqual(3, recording.events()[-1]["failures"])
        self.assertEqual("olvex_recorder: pictures do not fit OLVEX_RECORDER_RING_MB\n", self.said())

    def test_triggers(self):
        for arguments, settings, reason in (
                (("trigger=20",), {}, "application: as asked"),
                (("signal=20",), {"SIGNAL": "USR2"}, "signal"),
                (("fail=20", "frames=21"), {"ON_ERROR": "77"}, "error"),
                ((), {"NO_BOXES": "8"}, "no boxes"),
                ((), {"MANY_BOXES": "1,5"}, "too many boxes"),
                (("invocation=300", "frames=3"), {"LATENCY_MS": "250"}, "latency"),
                (("wait=10",), {"TRIGGER_FILE": self.folder / "now"}, "file")):
            with self.subTest(reason=reason):
                (self.folder / "results.go").unlink(missing_ok=True)
                process = self.start("front", ("frames=40", *arguments), FILES=1, **settings)
                while reason == "file" and process.poll() is None and not (self.folder / "out.1.mcap").exists():
                    # Long enough away and there for the recorder to see both.
                    time.sleep(0.2)
                    (self.folder / "now").touch()
                    time.sleep(0.2)
                    (self.folder / "now").unlink()
                (self.folder / "results.go").touch()
                self.assertEqual(0, process.wait(), self.said())
                recording = self.file()
                self.check_container(recording)
                self.assertEqual(reason, recording.events()[0]["text"])
                self.assertEqual(1, recording.frames()[0]["number"])
                (self.folder / "out.1.mcap").unlink()
        self.run_camera("front", "frames=5", LATENCY_MS=1000000)
        self.assertFalse((self.folder / "out.1.mcap").exists())

    def test_what_is_before_and_after_a_trigger_with_the_calls_in_force(self):
        self.run_camera("preload", "pause=50", "frames=170", "trigger=50", BEFORE_S=1, AFTER_S=1)
        recording = self.file()
        numbers = [frame["number"] for frame in recording.frames()]
        self.assertEqual(list(range(numbers[0], numbers[0] + len(numbers))), numbers)
        self.assertGreater(numbers[0], 5)
        self.assertLess(numbers[-1], 170)
        carried = [call["function"] for call in recording.calls() if call["flags"] == 1]
        self.assertEqual([1, 23, 21, 24, 26, 27, 5, 3, 8], carried)

    def test_the_ring_keeps_the_last_frames_and_the_calls_in_force(self):
        self.run_camera("preload", "frames=400", "trigger=395", RING_MB=2, WHOLE=1, FILE_MB=1, FILES=9)
        first = self.file()
        self.assertGreater(first.frames()[0]["number"], 200)
        self.assertEqual([1, 23, 21, 24, 26, 27, 5, 8],
                         [call["function"] for call in first.calls() if call["flags"] == 1])
        numbers = [frame["number"] for part in (1, 2) for frame in self.file(part).frames()]
        self.assertEqual(list(range(numbers[0], numbers[-1] + 1)), numbers)
        self.assertEqual([1, 23, 21, 24, 26, 27, 5, 8],
                         [call["function"] for call in self.file(2).calls() if call["flags"] == 1])

    def test_every_frame_that_is_missing_is_counted_over_all_parts(self):
        """Also where the thread that writes begins when the ring has been full for long."""
        for late in (0, 500000):
            os.environ["CAMERA_LATE_THREAD_US"] = str(late)
            self.addCleanup(os.environ.pop, "CAMERA_LATE_THREAD_US", None)
            self.run_camera("front", "frames=1500", MODE="always", WHOLE=1, RING_MB=2, FILE_MB=1, FILES=60)
            frames, parts = [], 0
            while (self.folder / f"out.{parts + 1}.mcap").exists():
                parts += 1
                frames += self.file(parts).frames()
                (self.folder / f"out.{parts}.mcap").unlink()
            self.assertGreater(parts, 1)
            self.assertEqual(1, frames[0]["number"])
            numbers = [0] + [frame["number"] for frame in frames]
            self.assertEqual([later - earlier - 1 for earlier, later in zip(numbers, numbers[1:])],
                             [frame["lost"] for frame in frames])

    def test_outputs_of_bytes_are_not_read_beyond_their_end(self):
        self.assertEqual("run 0:\n" * 2, self.run_camera("preload", "kind=bytes", "frames=2", MODE="always"))
        sizes = [[len(data) for _, _, data in frame["outputs"]] for frame in self.file().frames()]
        self.assertEqual([[16 * 32 * 7, 8 * 16 * 7, 4 * 8 * 7]] * 2, sizes)

    def test_models_are_identified(self):
        for setting, has_hash in ((0, False), (1, True)):
            self.run_camera("preload", "frames=1", MODE="always", FILES=1, MODEL_HASH=setting)
            file = (self.folder / "results.model").read_bytes()
            cursor = Cursor(self.file().by_channel[2][0], 4)
            self.assertEqual(len(file), cursor.take("Q"))
            self.assertEqual(hashlib.sha256(file).digest() if has_hash else b"", cursor.string())
            self.assertEqual(b"model_out:zrpcd\n", cursor.string())

    def test_files_are_rotated_and_private(self):
        for run in range(1, 4):
            self.run_camera("preload", f"frames={run}", MODE="always", FILES=2)
        self.assertEqual([3, 2], [len(self.file(number).frames()) for number in (1, 2)])
        self.assertEqual(0o600, (self.folder / "out.1.mcap").stat().st_mode & 0o777)

    def test_a_fifo_and_a_descriptor_get_a_stream(self):
        fifo = self.folder / "fifo"
        os.mkfifo(fifo)
        reader = os.open(fifo, os.O_RDONLY | os.O_NONBLOCK)
        process = self.start("preload", ("frames=30", "pause=20"), FILE=fifo, MODE="always")
        data = b""
        while process.poll() is None:
            data += self.read_what_is_there(reader)
            time.sleep(0.01)
        recording = Recording(data + self.read_what_is_there(reader))
        os.close(reader)
        self.assertEqual(0, process.returncode, self.said())
        self.assertTrue(recording.is_whole)
        self.assertTrue(recording.frames())
        # A reader that is late makes the recorder leave out frames, and count them.
        self.assertEqual(30, len(recording.frames()) + event_of(recording.by_channel[7][-1])["lost_frames"])
        with open(self.folder / "stream", "wb") as stream:
            os.set_inheritable(stream.fileno(), True)
            self.run_camera("wrap", "frames=30", FILE=f"fd:{stream.fileno()}", MODE="always")
        self.assertEqual(30, len(Recording(self.folder / "stream").frames()))

    def test_a_killed_process_leaves_what_was_written(self):
        process = self.start("preload", ("frames=40", "wait=30", "kill=30"), MODE="always")
        self.go_on_after(21, process)
        self.assertEqual(-signal.SIGKILL if not EMULATOR else process.wait(), process.wait())
        data = (self.folder / "out.1.mcap").read_bytes()
        frames = Recording(data).frames()
        self.assertGreater(len(frames), 20)
        for cut in range(len(data) - 900, len(data), 7):
            part = Recording(data[:cut]).frames()
            self.assertEqual(part, frames[:len(part)])
            self.assertGreaterEqual(len(part), len(frames) - 3)

    def test_a_failing_recorder_leaves_the_run_as_it_is(self):
        plain = self.run_camera("none", "frames=120", "pause=5")
        def file_limit():
            resource.setrlimit(resource.RLIMIT_FSIZE, (100_000, 100_000))
        def memory_limit():
            resource.setrlimit(resource.RLIMIT_AS, (7_000_000, 7_000_000))
        for name, arguments, settings, limits, text in (
                ("full disk", (), {"FILE": "fd:9"}, lambda: os.dup2(os.open("/dev/full", os.O_WRONLY), 9),
                 "cannot write to the file of OLVEX_RECORDER_FILE: No space left on device"),
                ("size limit", (), {}, file_limit,
                 "cannot write to the file of OLVEX_RECORDER_FILE: File too large"),
                ("no folder", (), {"FILE": self.folder / "none/out"}, None,
                 "cannot open the file of OLVEX_RECORDER_FILE: No such file or directory"),
                ("closed", ("wait=60", "close=60"), {"frames_before_going_on": 6}, None,
                 "cannot write to the file of OLVEX_RECORDER_FILE: Bad file descriptor"),
                ("wrong setting", (), {"RING_MB": "3"}, None,
                 "nothing is recorded, see docs/recordings.md for OLVEX_RECORDER_RING_MB")):
            with self.subTest(name=name):
                results = self.run_camera("front", "frames=120", "pause=5", *arguments, limits=limits,
                                          MODE="always", FILES=1, **settings)
                self.assertEqual(plain, results)
                self.assertEqual(f"olvex_recorder: {text}\n", self.said())
                if name in ("size limit", "closed"):
                    self.assertGreater(len(self.file().frames()), 5)
                if name == "size limit":
                    self.assertTrue(self.file().is_whole)
        if not EMULATOR and not SANITIZERS:
            self.assertEqual(plain, self.run_camera("wrap", "frames=120", "pause=5", limits=memory_limit, RING_MB=8))
            self.assertEqual("olvex_recorder: nothing is recorded: no memory for OLVEX_RECORDER_RING_MB: "
                             "Cannot allocate memory\n", self.said())

    def test_a_child_writes_nothing(self):
        self.run_camera("preload", "frames=40", "pause=5", "fork=20", MODE="always")
        self.assertEqual(list(range(1, 41)), [frame["number"] for frame in self.file().frames()])


if __name__ == "__main__":
    unittest.main(verbosity=2)
