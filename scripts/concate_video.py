#!/usr/bin/env python3
"""Joins the segments of a rolling recording into one MP4 file, without encoding anything again.

The segments of stream ID lie in /tmp/rolling/ID, two seconds each, and their numbers begin again at 00000 after 00099:
what orders them is when they were completed. Segments that "velstream record --restart" has set aside lie beside them,
in folders of their own, and belong to the recording too.
"""

import argparse
import datetime
import itertools
import json
import os
import re
import shutil
import signal
import stat
import struct
import subprocess
import sys
import tempfile
import time

PROGRAM = "concate_video.py"
ROOT = "/tmp/rolling"
SEGMENT = re.compile(r"[0-9]{5,}\.mp4")
SET_ASIDE = re.compile(r"earlier-[0-9-]+")
RING = 100  # numbers that the recorder uses
AT_ONCE = 1.0  # seconds: segments that are completed together may be so in either order
WRITTEN_LATELY = 10.0  # seconds since its last byte, for a file whose writer cannot be seen
ROOM = 1 << 20  # bytes beside the pictures themselves
ATTEMPTS = 5  # at a ring that goes on turning
DONE, FAILED, BAD_USAGE, NOTHING = 0, 1, 2, 3

EPILOG = """\
A time is 2026-11-21T14:05:00 (this machine's time; with +01:00 or Z another zone's), 14:05:00 (today) or seconds since
1970. Whole segments are taken, so the file may begin and end up to a segment's length outside the range. --last counts
back from the end of the newest complete segment, or from --end.

A segment that is still being written is left out, and so is one that is broken; each is named on standard error.

examples:
  concate_video.py --stream-id camera --last 30 --output /var/tmp/event.mp4
  concate_video.py --stream-id camera --start 14:05:00 --end 14:06:30
  concate_video.py --stream-id camera --dir /mnt/copy --json

exit status: 0 joined, 1 not joined (standard error says why), 2 wrong usage, 3 there was nothing to join.
"""


class Failure(Exception):
    """What a person can act on, and the exit status."""

    def __init__(self, text, status=FAILED):
        super().__init__(text)
        self.status = status


def say(text):
    print(f"{PROGRAM}: {text}", file=sys.stderr, flush=True)


# ---- MP4


class Broken(Exception):
    """Why a file is no complete segment."""


def boxes(data, start, end):
    """Type, begin and end of the content of each box; the last one must end where they all do."""
    while start < end:
        if end - start < 8:
            raise Broken("it ends within a box")
        size, kind = struct.unpack_from(">I4s", data, start)
        header = 8
        if size == 1:
            if end - start < 16:
                raise Broken("it ends within a box")
            (size,) = struct.unpack_from(">Q", data, start + 8)
            header = 16
        if size < header or start + size > end:
            raise Broken("it has no index")
        yield kind, start + header, start + size
        start += size


def box(data, start, end, *path):
    """The content of the first box on this path."""
    for kind, begin, stop in boxes(data, start, end):
        if kind == path[0]:
            return (begin, stop) if len(path) == 1 else box(data, begin, stop, *path[1:])
    raise Broken(f"its index has no {path[0].decode()}")


def video_media(moov):
    """The media box of the video track."""
    for kind, begin, stop in boxes(moov, 0, len(moov)):
        if kind == b"trak":
            media = box(moov, begin, stop, b"mdia")
            handler, _ = box(moov, *media, b"hdlr")
            if moov[handler + 8:handler + 12] == b"vide":
                return media
    raise Broken("it has no video")


def seconds_of(moov, media, table):
    """Sum of what every picture lasts."""
    header, _ = box(moov, *media, b"mdhd")
    (timescale,) = struct.unpack_from(">I", moov, header + (20 if moov[header] == 1 else 12))
    times, _ = box(moov, *table, b"stts")
    (count,) = struct.unpack_from(">I", moov, times + 4)
    ticks = sum(number * delta for number, delta in struct.iter_unpack(">II", moov[times + 8:times + 8 + 8 * count]))
    return ticks / timescale


def read_index(moov):
    """Frames, seconds and (codec, width, height) of the video track."""
    try:
        media = video_media(moov)
        table = box(moov, *media, b"minf", b"stbl")
        sizes, _ = box(moov, *table, b"stsz")
        (frames,) = struct.unpack_from(">I", moov, sizes + 8)
        entry, _ = box(moov, *table, b"stsd")
        codec = moov[entry + 12:entry + 16].decode("latin-1")
        width, height = struct.unpack_from(">HH", moov, entry + 40)
        seconds = seconds_of(moov, media, table)
    except (struct.error, IndexError, ZeroDivisionError) as error:
        raise Broken("its index cannot be read") from error
    if frames == 0:
        raise Broken("it has no pictures")
    return frames, seconds, (codec, width, height)


def find_index(file, size):
    """The content of the moov box of a file that is complete."""
    moov = None
    position = 0
    while position < size:
        file.seek(position)
        header = file.read(16)
        if len(header) < 8:
            raise Broken("it ends within a box")
        length, kind = struct.unpack_from(">I4s", header)
        begin = 8
        if length == 1 and len(header) == 16:
            (length,) = struct.unpack_from(">Q", header, 8)
            begin = 16
        if length < begin or position + length > size:
            raise Broken("it has no index" if moov is None else "it is cut off")
        if kind == b"moov":
            file.seek(position + begin)
            moov = file.read(length - begin)
        position += length
    if moov is None:
        raise Broken("it is empty" if size == 0 else "it has no index")
    return moov


# ---- Segments


class Segment:
    """A complete segment."""

    def __init__(self, folder, name):
        self.name = name  # below the folder
        self.path = os.path.join(folder, name)
        self.number = int(os.path.basename(name)[:-4])
        with open(self.path, "rb") as file:
            status = os.fstat(file.fileno())
            if not stat.S_ISREG(status.st_mode):
                raise Broken("it is no file")
            self.identity = identity(status)
            self.size = status.st_size
            self.end = status.st_mtime
            self.frames, self.seconds, self.form = read_index(find_index(file, self.size))

    @property
    def start(self):
        return self.end - self.seconds

    def is_unchanged(self):
        try:
            return identity(os.stat(self.path)) == self.identity
        except OSError:
            return False


def identity(status):
    return status.st_dev, status.st_ino, status.st_size, status.st_mtime_ns


def has_open_for_writing(process, status):
    for entry in os.scandir(f"/proc/{process}/fd"):
        other = entry.stat()
        if (other.st_dev, other.st_ino) == (status.st_dev, status.st_ino):
            with open(f"/proc/{process}/fdinfo/{entry.name}", encoding="ascii") as file:
                flags = re.search(r"flags:\s*([0-7]+)", file.read())
            if flags and int(flags.group(1), 8) & os.O_ACCMODE != os.O_RDONLY:
                return True
    return False


def is_being_written(path):
    """Whether a process has the file open; where that cannot be seen, whether it has changed lately."""
    try:
        status = os.stat(path)
    except OSError:
        return False
    for process in filter(str.isdigit, os.listdir("/proc")):
        try:
            if has_open_for_writing(process, status):
                return True
        except OSError:
            continue  # it has ended, or it is another user's
    return time.time() - status.st_mtime < WRITTEN_LATELY


def segment_names(folder):
    """Names below the folder, those of set-aside segments included."""
    try:
        entries = list(os.scandir(folder))
    except FileNotFoundError as error:
        raise Failure(f"{folder} is not there: nothing has been recorded, or under another id.", NOTHING) from error
    except OSError as error:
        raise Failure(f"{folder} cannot be read: {error.strerror}.") from error
    for entry in entries:
        if SEGMENT.fullmatch(entry.name):
            yield entry.name
        elif SET_ASIDE.fullmatch(entry.name) and entry.is_dir():
            yield from (f"{entry.name}/{name}" for name in os.listdir(entry.path) if SEGMENT.fullmatch(name))


def in_order(segments):
    """By the time of completion; two that were completed together by their numbers, 00000 coming after 00099."""
    ordered = sorted(segments, key=lambda segment: (segment.end, segment.number))
    for i in range(len(ordered) - 1):
        one, next_one = ordered[i], ordered[i + 1]
        is_turned = (next_one.number + 1) % RING == one.number and next_one.end - one.end < AT_ONCE
        if is_turned and os.path.dirname(one.name) == os.path.dirname(next_one.name):
            ordered[i], ordered[i + 1] = next_one, one
    return ordered


class Skipped:
    """What was left out, each named once however often the folder is read."""

    def __init__(self):
        self.reasons = {}

    def add(self, name, reason):
        if name not in self.reasons:
            say(f"{name} left out: {reason}.")
        self.reasons[name] = reason


def read_segments(folder, skipped):
    """The complete segments in their order."""
    segments = []
    for name in segment_names(folder):
        path = os.path.join(folder, name)
        try:
            segments.append(Segment(folder, name))
        except FileNotFoundError:
            pass  # the ring has turned
        except Broken as reason:
            skipped.add(name, "it is still being written" if is_being_written(path) else f"it is broken, {reason}")
        except OSError as error:
            skipped.add(name, f"it cannot be read, {error.strerror}")
    return in_order(segments)


def of_one_form(segments, skipped):
    """One file has one codec and one picture size: the newest segment's."""
    form = segments[-1].form
    for segment in segments:
        if segment.form != form:
            skipped.add(segment.name, "its pictures are {} {}x{}, ".format(*segment.form)
                        + "the newest ones {} {}x{}".format(*form))
    return [segment for segment in segments if segment.form == form]


def in_range(segments, options):
    """The segments that the options ask for."""
    if options.start is not None:
        segments = [segment for segment in segments if segment.end > options.start]
    if options.end is not None:
        segments = [segment for segment in segments if segment.start < options.end]
    if options.last is None:
        return segments
    seconds = 0.0
    for count, segment in enumerate(reversed(segments), 1):
        seconds += segment.seconds
        if seconds >= options.last - 0.001:  # two seconds may be 1.999 in a file's ticks
            return segments[-count:]
    return segments


def choose(folder, options, skipped):
    complete = read_segments(folder, skipped)
    if not complete:
        raise Failure(f"{folder} has no complete segment.", NOTHING)
    chosen = in_range(complete, options)
    if not chosen:
        raise Failure(f"no segment lies in the range; there are some from {clock(complete[0].start)} to "
                      f"{clock(complete[-1].end)}.", NOTHING)
    return of_one_form(chosen, skipped)


# ---- The file


def clock(seconds):
    return datetime.datetime.fromtimestamp(seconds).strftime("%Y-%m-%d %H:%M:%S")


def default_output(folder, segments):
    """Beside the segments' folder: what is in it is the recorder's."""
    stamp = datetime.datetime.fromtimestamp(segments[0].start).strftime("%Y%m%d-%H%M%S")
    return f"{folder.rstrip('/')}_{stamp}.mp4"


def numbered(path):
    """The path, and what further files of this name are called."""
    stem, ending = os.path.splitext(path)
    yield path
    yield from (f"{stem}-{number}{ending}" for number in itertools.count(1))


def check_room(folder, segments):
    needed = sum(segment.size for segment in segments) + ROOM
    free = shutil.disk_usage(folder).free
    if free < needed:
        raise Failure(f"{folder} has {free / 1e6:.1f} MB left and {needed / 1e6:.1f} MB are needed: make room, or take "
                      "another --output or a shorter range.")


def check_output(path, is_overwriting):
    if os.path.isdir(path):
        raise Failure(f"{path} is a folder: --output names a file.")
    if os.path.lexists(path) and not is_overwriting:
        raise Failure(f"{path} is there already: name another file, or add --overwrite.")


def run_ffmpeg(folder, segments, path):
    """Copies the pictures of the segments, one behind the other, into this file."""
    # Named from within their folder, the segments need no quoting, whatever the folder is called.
    names = "".join(f"file 'file:{segment.name}'\nduration {segment.seconds:.6f}\n" for segment in segments)
    command = ["ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "concat", "-safe", "0",
               "-protocol_whitelist", "file,pipe", "-i", "pipe:0", "-map", "0:v:0", "-c", "copy", "-f", "mp4",
               "file:" + os.path.abspath(path)]
    try:
        result = subprocess.run(command, input=names, cwd=folder, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                text=True, errors="replace", check=False)
    except FileNotFoundError as error:
        raise Failure("ffmpeg is not installed: apt-get install ffmpeg") from error
    except OSError as error:
        raise Failure(f"ffmpeg cannot be started: {error.strerror}.") from error
    return "" if result.returncode == 0 else last_line(result.stderr) or f"exit status {result.returncode}"


def last_line(text):
    lines = [line for line in text.splitlines() if line.strip()]
    return next((line for line in lines if "No space left" in line), lines[-1] if lines else "")


def frames_in(path):
    with open(path, "rb") as file:
        return read_index(find_index(file, os.fstat(file.fileno()).st_size))[0]


def trouble_with(path, segments, complaint):
    """Why the file is not what the segments make together; empty when it is."""
    if complaint:
        return complaint
    try:
        frames = frames_in(path)
    except Broken as reason:
        return str(reason)
    expected = sum(segment.frames for segment in segments)
    return "" if frames == expected else f"{frames} pictures in it, {expected} in the segments"


def join_into(path, folder, options, skipped):
    """Joins into a file that nobody looks at yet; begins again when the ring has overwritten a segment meanwhile."""
    for _ in range(ATTEMPTS):
        segments = choose(folder, options, skipped)
        check_room(os.path.dirname(os.path.abspath(path)), segments)
        complaint = run_ffmpeg(folder, segments, path)
        if all(segment.is_unchanged() for segment in segments):
            trouble = trouble_with(path, segments, complaint)
            if trouble:
                raise Failure(f"ffmpeg could not join the segments: {trouble}")
            return segments
    raise Failure("the recorder overwrites the oldest segments faster than they are joined: take a shorter range.")


def take_name(part, path):
    """Gives the finished file this name. False when another file has it, which may be another merge's of this moment."""
    try:
        os.link(part, path)
        return True
    except FileExistsError:
        return False
    except OSError:  # a file system without links
        pass
    try:
        with open(path, "xb"):
            os.replace(part, path)
    except FileExistsError:
        return False
    return True


def publish(part, output, options):
    """Gives the finished file its name, on the disk for good, and returns it: a default name is the first free one."""
    mask = os.umask(0)
    os.umask(mask)
    os.chmod(part, 0o666 & ~mask)
    with open(part, "rb") as file:
        os.fsync(file.fileno())
    if options.output and options.overwrite:
        os.replace(part, output)
        return output
    for path in [output] if options.output else numbered(output):
        if take_name(part, path):
            return path
    raise Failure(f"{output} is there already: name another file, or add --overwrite.")


class PartFile:
    """A file beside the output that goes when the object ends."""

    def __init__(self, output):
        folder, name = os.path.split(os.path.abspath(output))
        try:
            handle, self.path = tempfile.mkstemp(prefix=f".{name[:100]}.", suffix=".part", dir=folder)
        except OSError as error:
            raise Failure(f"{folder} cannot be written to: {error.strerror}.") from error
        os.close(handle)

    def __enter__(self):
        return self.path

    def __exit__(self, *_):
        try:
            os.unlink(self.path)
        except FileNotFoundError:
            pass


def join(options):
    folder = options.dir or os.path.join(ROOT, options.stream_id)
    skipped = Skipped()
    if options.output:
        check_output(options.output, options.overwrite)
    output = options.output or default_output(folder, choose(folder, options, skipped))
    with PartFile(output) as part:
        segments = join_into(part, folder, options, skipped)
        output = publish(part, output, options)
    report(options, output, segments, skipped)


def report(options, output, segments, skipped):
    frames = sum(segment.frames for segment in segments)
    seconds = sum(segment.seconds for segment in segments)
    size = os.path.getsize(output)
    if options.json:
        print(json.dumps({"stream": options.stream_id, "output": output, "segments": len(segments), "frames": frames,
                          "seconds": round(seconds, 3), "bytes": size, "start": clock(segments[0].start),
                          "end": clock(segments[-1].end), "skipped": skipped.reasons}))
    else:
        print(f"{options.stream_id}: {len(segments)} segments, {frames} frames, {seconds:.1f} s, {size / 1e6:.1f} MB, "
              f"{clock(segments[0].start)} to {clock(segments[-1].end)}: {output}")


# ---- The command line


def point_in_time(text):
    """Seconds since 1970."""
    if re.fullmatch(r"[0-9]+(\.[0-9]+)?", text):
        return float(text)
    try:
        if re.fullmatch(r"[0-9]{1,2}:[0-9]{2}(:[0-9]{2}(\.[0-9]+)?)?", text):
            moment = datetime.time.fromisoformat(text.zfill(len(text) + (text[1] == ":")))
            return datetime.datetime.combine(datetime.date.today(), moment).timestamp()
        return datetime.datetime.fromisoformat(text).timestamp()
    except (ValueError, OverflowError, OSError) as error:
        raise argparse.ArgumentTypeError(f"{text!r} is no time: 2026-11-21T14:05:00, 14:05:00 or seconds since 1970"
                                         ) from error


def positive_seconds(text):
    try:
        seconds = float(text)
    except ValueError:
        seconds = 0.0
    if not 0 < seconds < float("inf"):
        raise argparse.ArgumentTypeError(f"{text!r} is no positive number of seconds")
    return seconds


def stream_id(text):
    if not text or "\0" in text:
        raise argparse.ArgumentTypeError("it is empty")
    return text


def with_dashes(arguments):
    """An id may begin with a dash: its option takes the next word whatever it is."""
    joined = []
    for word in arguments:
        if joined and joined[-1] == "--stream-id":
            joined[-1] += f"={word}"
        else:
            joined.append(word)
    return joined


def read_options(arguments):
    parser = argparse.ArgumentParser(prog=PROGRAM, description=__doc__, epilog=EPILOG, allow_abbrev=False,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--stream-id", required=True, type=stream_id, metavar="ID", help="the recorded stream")
    parser.add_argument("--start", type=point_in_time, metavar="TIME", help="from the segment with this time on")
    parser.add_argument("--end", type=point_in_time, metavar="TIME", help="up to the segment with this time")
    parser.add_argument("--last", type=positive_seconds, metavar="SECONDS", help="the newest segments, so long together")
    parser.add_argument("--output", metavar="FILE",
                        help=f"the joined file ({ROOT}/ID_DATE-TIME.mp4, with the time of its first picture)")
    parser.add_argument("--overwrite", action="store_true", help="replace an output that is there")
    parser.add_argument("--dir", metavar="FOLDER", help=f"where the segments are ({ROOT}/ID)")
    parser.add_argument("--json", action="store_true", help="print one JSON object")
    options = parser.parse_args(with_dashes(arguments))
    if options.last is not None and options.start is not None:
        parser.error("--last counts back from the end: it goes with --end, not with --start")
    if options.start is not None and options.end is not None and options.end <= options.start:
        parser.error("--end must be later than --start")
    return options


def leave(number, _):
    """Ends like any failure, so that no unfinished file stays behind."""
    sys.exit(128 + number)


def main():
    signal.signal(signal.SIGTERM, leave)
    signal.signal(signal.SIGINT, leave)
    options = read_options(sys.argv[1:])
    try:
        join(options)
    except Failure as failure:
        say(str(failure))
        return failure.status
    except OSError as error:
        say(f"{error.filename or 'a file'}: {error.strerror}.")
        return FAILED
    return DONE


if __name__ == "__main__":
    sys.exit(main())
