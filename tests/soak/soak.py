#!/usr/bin/env python3
"""Records one camera and plays another for as long as asked for, and prints what the processes needed.

The recorded camera's server is killed three times, and the disk of the recording fills once. Fails when a process
grows, when more than 100 segments are there, when a closed segment is lost or does not decode whole, or when the log
does not say what ended a recording. Runs in a mount namespace of its own, which "./dev soak" gives it.
"""

import argparse
import json
import os
import re
import signal
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

RECORDED = Path("/tmp/rolling/recorded")
DISK_MB = 64
RING = 100
ENDED = re.compile(r"the recording of recorded has ended(.*?); again in ", re.DOTALL)  # and ": CAUSE", where one is known
BOUND = 90  # seconds for what is waited for
SETTLED = 0.3  # part of the run after which nothing may grow
GROWTH_MB, GROWTH_THREADS, GROWTH_FILES = 12, 4, 6  # what a restart may leave and a leak passes within the hour


class Failure(Exception):
    pass


class Server:
    """A camera, which is killed and comes back on its port."""

    def __init__(self, program, port=0):
        self.program = program
        self.port = port
        self.start()

    def start(self):
        self.process = subprocess.Popen([self.program, "--port", str(self.port), "play", "--live"],
                                        stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        if not line.startswith("port="):
            raise Failure("a camera did not start")
        self.port = int(line[5:])

    def kill(self):
        self.process.kill()
        self.process.wait()


class Watched:
    """A process, and what it needs over the time."""

    def __init__(self, name, command, folder, environment):
        self.name = name
        self.errors = folder / f"{name}.log"
        self.results = folder / f"{name}.json"
        with open(self.errors, "w") as errors, open(self.results, "w") as results:
            self.process = subprocess.Popen(command, stdout=results, stderr=errors, env=environment)
        self.samples = []

    def sample(self):
        root = Path(f"/proc/{self.process.pid}")
        try:
            memory = int((root / "statm").read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE") / 1e6
            self.samples.append((memory, len(os.listdir(root / "task")), len(os.listdir(root / "fd"))))
        except (FileNotFoundError, ProcessLookupError) as error:
            raise Failure(f"{self.name} has ended: {self.log()[-600:]}") from error

    def log(self):
        return self.errors.read_text(errors="replace")

    def stop(self):
        self.process.send_signal(signal.SIGINT)
        if self.process.wait(BOUND) != 0:
            raise Failure(f"{self.name} ended with status {self.process.returncode}: {self.log()[-600:]}")
        return json.loads(self.results.read_text())

    def rows(self):
        """What it needed at the end of each part; medians, so that one moment does not count."""
        settled = self.samples[int(len(self.samples) * SETTLED):]
        third = max(1, len(settled) // 3)
        limits = [("resident memory, MB", GROWTH_MB), ("threads", GROWTH_THREADS), ("open files", GROWTH_FILES)]
        for column, (name, limit) in enumerate(limits):
            values = [sample[column] for sample in settled]
            first, last = statistics.median(values[:third]), statistics.median(values[-third:])
            yield f"{self.name}: {name}", first, last, max(values), f"+{limit}", last - first <= limit


def segments():
    return [path for path in RECORDED.glob("*.mp4")] if RECORDED.exists() else []


def all_segments():
    return list(RECORDED.rglob("*.mp4")) if RECORDED.exists() else []


def trouble_in(path):
    """Why the file does not decode to its end; empty when it does."""
    # In ticks of the frame rate, which is the default, pictures that came in a heap would count as an error.
    result = subprocess.run(["nice", "-n", "19", "ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", path,
                             "-enc_time_base", "1:90000", "-f", "null", "-"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, errors="replace", check=False)
    return result.stderr.strip() or ("" if result.returncode == 0 else f"ffmpeg: status {result.returncode}")


def by_inode(paths):
    """Inode and path, the newest last. A file may be moved or deleted meanwhile."""
    found = []
    for path in paths:
        try:
            status = path.stat()
            found.append((status.st_mtime, status.st_ino, path))
        except FileNotFoundError:
            continue
    return {inode: path for _, inode, path in sorted(found)}


def closed():
    """Inodes of the present recording's complete segments: all but the newest two, one of which is being written."""
    return set(list(by_inode(segments()))[:-2])


class Soak:
    def __init__(self, options, folder):
        self.bin = Path(options.build).resolve() / "bin"
        self.seconds = options.minutes * 60
        self.folder = folder
        self.most_segments = 0
        self.numbers = set()
        self.lost = self.broken = self.joined = 0

    def wait_for(self, what, condition):
        end = time.monotonic() + BOUND
        while not condition():
            if time.monotonic() > end:
                raise Failure(f"{what} did not come. {self.recorder.log()[-600:]}")
            self.look()
        return True

    def look(self):
        for process in (self.recorder, self.player):
            process.sample()
        present = segments()
        self.most_segments = max(self.most_segments, len(present))
        self.numbers |= {path.name for path in present}
        time.sleep(0.25)

    def look_until(self, end):
        while time.monotonic() < end:
            self.look()

    def note_losses(self, known):
        """After the recording has ended and its segments are set aside."""
        present = by_inode(all_segments())
        self.lost += len(known - set(present))
        self.check([present[inode] for inode in known & set(present)])

    def check(self, paths):
        for path in paths:
            if trouble := trouble_in(path):
                self.broken += 1
                print(f"soak: {path} does not play ({path.stat().st_size} bytes): {trouble}", file=sys.stderr)

    def start(self):
        self.camera, self.other = Server(self.bin / "velstream-rtsp-peer"), Server(self.bin / "velstream-rtsp-peer")
        config = self.folder / "streams.conf"
        entry = lambda name, server: {"streamsId": name, "properties": {
            "inputType": "rtsp", "inputAddr": f"rtsp://127.0.0.1:{server.port}/test", "rollingsave": name == "recorded"}}
        config.write_text(json.dumps({"streams": [entry("recorded", self.camera), entry("played", self.other)]}))
        tool = [self.bin / "velstream"]
        common = ["--config", config, "--elements", "software", "--json"]
        environment = dict(os.environ, GST_REGISTRY=str(self.folder / "registry.bin"))
        self.recorder = Watched("record", tool + ["record", "recorded", "--restart"] + common, self.folder, environment)
        self.player = Watched("run", tool + ["run", "played"] + common, self.folder, environment)
        self.wait_for("the first segments", lambda: len(segments()) >= 3)

    def wait_for_next_recording(self, known):
        """Once the segments of the last one are set aside, their paths stay."""
        self.wait_for("the next recording",
                      lambda: len(segments()) >= 2 and not known & set(by_inode(segments())))

    def ends(self):
        """What the recorder says of each recording that has ended: ": CAUSE", or nothing."""
        return ENDED.findall(self.recorder.log())

    def wait_for_the_end(self, number):
        """Returns what is said of it."""
        self.wait_for("the recording's end", lambda: len(self.ends()) > number)
        return self.ends()[number]

    def kill_the_server(self):
        known, number = closed(), len(self.ends())
        self.camera.kill()
        cause = self.wait_for_the_end(number)
        if not re.match(r": rtspsrc\d+: \S", cause):
            raise Failure(f"the log does not say that the camera has gone, but {cause!r}")
        self.camera.start()
        self.wait_for_next_recording(known)
        self.note_losses(known)

    def fill_the_disk(self):
        known, number = closed(), len(self.ends())
        filler = RECORDED.parent / "filler"
        with open(filler, "wb", buffering=0) as file:
            try:
                while True:
                    file.write(bytes(4096))
            except OSError:
                pass
        self.wait_for_the_end(number)
        filler.unlink()
        self.wait_for_next_recording(known)
        if "No space left" not in self.recorder.log():
            raise Failure("the log does not say that the disk was full")
        self.note_losses(known)

    def join(self):
        output = self.folder / "joined.mp4"
        result = subprocess.run([self.bin / "velstream", "merge", "recorded", "--last", "10", "--json", "--overwrite",
                                 "-o", output], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                                errors="replace", check=False)
        trouble = trouble_in(output) if result.returncode == 0 else result.stderr.strip()
        self.joined += not trouble
        if trouble:
            print(f"soak: not joined: {trouble}", file=sys.stderr)

    def run(self):
        begin = time.monotonic()
        self.start()
        events = [self.kill_the_server, self.fill_the_disk, self.kill_the_server, self.kill_the_server]
        if self.seconds < 300:
            events = events[:2]
        for number, event in enumerate(events, 1):
            # The last third is left alone: what the processes need then is compared with what they needed before.
            self.look_until(begin + self.seconds * 0.6 * number / (len(events) + 1))
            event()
            self.join()
        self.look_until(begin + self.seconds)
        self.recorded, self.played = self.recorder.stop(), self.player.stop()
        self.check(segments())
        return len(events)

    def rows(self, events):
        yield from self.recorder.rows()
        yield from self.player.rows()
        yield "segments in the folder", "", "", self.most_segments, RING, self.most_segments <= RING
        yield "segment numbers used", "", "", len(self.numbers), RING, len(self.numbers) <= RING
        yield "closed segments lost", "", self.lost, "", 0, self.lost == 0
        yield "closed segments that do not play", "", self.broken, "", 0, self.broken == 0
        yield "recordings", "", self.recorded["recordings"], "", f">= {events + 1}", self.recorded["recordings"] > events
        yield "joined while recording", "", self.joined, "", events, self.joined == events
        yield "frames played", "", self.played["frames"], "", "> 0", self.played["frames"] > 0


def show(rows):
    is_well = True
    print(f"{'':36}{'before':>10}{'at the end':>12}{'most':>10}{'limit':>10}")
    for name, first, last, most, limit, is_held in rows:
        text = [f"{value:.1f}" if isinstance(value, float) else str(value) for value in (first, last, most, limit)]
        print(f"{name:36}{text[0]:>10}{text[1]:>12}{text[2]:>10}{text[3]:>10}  {'' if is_held else 'NOT HELD'}")
        is_well = is_well and is_held
    return is_well


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("minutes", nargs="?", type=float, default=10)
    parser.add_argument("--build", default="build/dev")
    options = parser.parse_args()
    RECORDED.parent.mkdir(exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={DISK_MB}m", "velstream-soak", RECORDED.parent], check=True)
    with tempfile.TemporaryDirectory() as folder:
        soak = Soak(options, Path(folder))
        try:
            is_well = show(soak.rows(soak.run()))
        except Failure as failure:
            print(f"soak: {failure}", file=sys.stderr)
            is_well = False
        finally:
            for name in ("recorder", "player"):
                if hasattr(soak, name):
                    getattr(soak, name).process.kill()
            for name in ("camera", "other"):
                if hasattr(soak, name):
                    getattr(soak, name).kill()
    return 0 if is_well else 1


if __name__ == "__main__":
    sys.exit(main())
