#!/usr/bin/env python3
"""Runs what is compared side by side and prints one table of ratios.

Each round runs every program of a row once, one after the other; a ratio is taken within its round, and the table shows
the median of the rounds. So a machine that is busy with other things slows both sides alike.
"""

import argparse
import datetime
import json
import os
import platform
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "bench"
MEDIA = ROOT / "out" / "bench"
DOCUMENT = ROOT / "docs" / "benchmarks.md"
BEGIN, END = "<!-- figures -->", "<!-- end of figures -->"

FRAMES = 300  # of each file
BOUND = 120  # seconds that one program may take
STREAMS = BUILD / "bin" / "velstream_stream_bench"
CAPTURE = BUILD / "bin" / "velstream_capture_bench"
H264, H264_720, H265 = MEDIA / "1080p.mp4", MEDIA / "720p.mp4", MEDIA / "1080p.h265"


# ---- Media


def generate(path, size, *codec):
    """Moving test picture with noise: easy pictures decode so fast that the ratio says nothing."""
    if path.exists():
        return
    print(f"Making {path.relative_to(ROOT)}", file=sys.stderr)
    part = path.with_name("part-" + path.name)
    source = f"testsrc2=size={size}:rate=25,noise=alls=24:allf=t+u"
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", source, "-frames:v", str(FRAMES),
                    "-pix_fmt", "yuv420p", "-g", "50", *codec, str(part)], check=True)
    part.rename(path)


def generate_all(is_recording_only):
    MEDIA.mkdir(parents=True, exist_ok=True)
    x264 = ["-c:v", "libx264", "-preset", "superfast", "-b:v"]
    generate(H264, "1920x1080", *x264, "10M")
    if is_recording_only:
        return
    generate(H264_720, "1280x720", *x264, "5M")
    generate(H265, "1920x1080", "-c:v", "libx265", "-preset", "ultrafast", "-x265-params", "log-level=none:bframes=0",
             "-b:v", "8M")


# ---- Programs


def launch(description, frames=FRAMES):
    return [STREAMS, "launch", description, str(frames)]


def decode(rest, file=H264):
    return launch(f"filesrc location={file} ! qtdemux ! h264parse ! {rest}")


def picture(frames, width=1920, height=1080, form="NV12"):
    """Frames that cost next to nothing to make."""
    return (f"videotestsrc num-buffers=1 pattern=smpte ! video/x-raw,format={form},width={width},height={height},"
            f"framerate=25/1 ! imagefreeze num-buffers={frames}")


def convert(element, form, to, size=(1920, 1080), frames=400):
    width, height = size
    caps = f"video/x-raw,format={to},width={width},height={height}"
    return launch(f"{picture(frames, form=form)} ! {element} ! {caps} ! fakesink", frames)


def compose(element, place, frames=200):
    tiles = [(x, y) for y in (0, 540) for x in (0, 960)]
    pads = " ".join(place(f"sink_{i}", x, y) for i, (x, y) in enumerate(tiles))
    inputs = " ".join(f"{picture(frames, 1280, 720)} ! mixer.sink_{i}" for i in range(len(tiles)))
    caps = "video/x-raw,format=NV12,width=1920,height=1080,framerate=25/1"
    return launch(f"{element} name=mixer {pads} ! {caps} ! fakesink {inputs}", frames)


def place_own(pad, x, y):
    return f"{pad}::position=<{x},{y}> {pad}::dimensions=<960,540>"


def place_stock(pad, x, y):
    return f"{pad}::xpos={x} {pad}::ypos={y} {pad}::width=960 {pad}::height=540"


def split(element, branch, frames=300):
    """One 1080p stream into 720p RGB and 360p NV12."""
    sizes = ["format=RGB,width=1280,height=720", "format=NV12,width=640,height=360"]
    branches = " ".join(f"parts. ! queue ! {branch}video/x-raw,{size} ! fakesink" for size in sizes)
    return launch(f"{picture(frames)} ! {element} name=parts {branches}", frames)


# What v4l2h264enc sets for a stream of 240 frames a second; the bit rate is its default for the size.
X264 = ("x264enc tune=zerolatency speed-preset=superfast threads=1 key-int-max=480 bframes=0 rc-lookahead=0 "
        "sync-lookahead=0 mb-tree=false vbv-buf-capacity=1000 bitrate={} ! h264parse ! mp4mux ! "
        "filesink location={}")


def reencode(height, frames=300):
    return [STREAMS, "reencode", "1280", str(height), str(frames), MEDIA / "reencoded.mp4"]


def chain(height, frames=300):
    bits = 1280 * height * 120 // 10000
    encoder = X264.format(bits, MEDIA / "chain.mp4")
    return [STREAMS, "chain", "1280", str(height), str(frames),
            f"videoconvert ! video/x-raw,format=I420 ! {encoder}"]


class Row:
    """`measure` is "rate" (frames a second: more is better) or "cpu" (CPU seconds a frame: less is better)."""

    def __init__(self, name, other, measure, target=""):
        self.name, self.other, self.measure, self.target = name, other, measure, target


def decode_alone():
    return decode("avdec_h264 ! fakesink")


# Programs that take turns: the first one is ours, the rows compare it with the others.
GROUPS = [
    ({"ours": [STREAMS, "callback", H264],
      "decode": decode_alone(),
      "chain": decode("avdec_h264 ! videoconvert ! video/x-raw,format=RGB ! "
                      "appsink sync=false max-buffers=4 drop=true wait-on-eos=false"),
      "ffmpeg": ["ffmpeg", "-v", "error", "-y", "-i", H264, "-f", "rawvideo", "-pix_fmt", "rgb24", "/dev/null"],
      "opencv": [CAPTURE, H264]},
     [Row("MP4 to callback: frames a second, against decoding alone", "decode", "rate", ">= 0.90"),
      Row("MP4 to callback: CPU seconds a frame, against decoding alone", "decode", "cpu", "<= 1.20"),
      Row("MP4 to callback: frames a second, against videoconvert ! RGB ! appsink", "chain", "rate", ">= 1.3"),
      Row("MP4 to callback: CPU seconds a frame, against videoconvert ! RGB ! appsink", "chain", "cpu"),
      Row("MP4 to callback: frames a second, against ffmpeg to rgb24", "ffmpeg", "rate", ">= 1.0"),
      Row("MP4 to callback: CPU seconds a frame, against ffmpeg to rgb24", "ffmpeg", "cpu"),
      Row("MP4 to callback: frames a second, against OpenCV's VideoCapture", "opencv", "rate", ">= 1.3"),
      Row("MP4 to callback: CPU seconds a frame, against OpenCV's VideoCapture", "opencv", "cpu")]),
    ({"ours": [STREAMS, "splice", H265, str(FRAMES)],
      "ffmpeg": ["ffmpeg", "-v", "error", "-i", H265, "-f", "null", "-"],
      "single": ["ffmpeg", "-v", "error", "-threads", "1", "-i", H265, "-f", "null", "-"],
      "slices": ["ffmpeg", "-v", "error", "-thread_type", "slice", "-i", H265, "-f", "null", "-"]},
     [Row("Pushed H.265: frames a second, against ffmpeg -f null", "ffmpeg", "rate", ">= 0.9"),
      Row("Pushed H.265: CPU seconds a frame, against ffmpeg -f null", "ffmpeg", "cpu"),
      Row("Pushed H.265: frames a second, against ffmpeg without frame threads", "slices", "rate"),
      Row("Pushed H.265: frames a second, against ffmpeg with one thread", "single", "rate")]),
    ({"ours": reencode(704), "chain": chain(704)},
     [Row("Re-encoding 1280x704: frames a second, against appsrc ! videoconvert ! x264enc", "chain", "rate", ">= 0.95"),
      Row("Re-encoding 1280x704: CPU seconds a frame, against the same", "chain", "cpu")]),
    ({"ours": reencode(720), "chain": chain(720)},
     [Row("Re-encoding 1280x720, which is encoded as 736 rows: frames a second, against the same", "chain", "rate")]),
    ({"ours": decode("qtivdec ! fakesink"),
      "chain": decode("avdec_h264 ! videoconvert ! video/x-raw,format=NV12 ! fakesink"),
      "decode": decode_alone()},
     [Row("qtivdec: frames a second, against avdec_h264 ! videoconvert ! NV12", "chain", "rate"),
      Row("qtivdec: CPU seconds a frame, against avdec_h264 ! videoconvert ! NV12", "chain", "cpu"),
      Row("qtivdec: CPU seconds a frame, against avdec_h264 alone", "decode", "cpu")]),
    ({"ours": convert("qtivtransform", "NV12", "RGB"), "stock": convert("videoconvert", "NV12", "RGB")},
     [Row("qtivtransform, 1080p NV12 to RGB: CPU, against videoconvert", "stock", "cpu")]),
    ({"ours": convert("qtivtransform", "RGB", "NV12"), "stock": convert("videoconvert", "RGB", "NV12")},
     [Row("qtivtransform, 1080p RGB to NV12: CPU, against videoconvert", "stock", "cpu")]),
    ({"ours": convert("qtivtransform", "NV12", "RGB", (1280, 720)),
      "stock": convert("videoconvertscale", "NV12", "RGB", (1280, 720))},
     [Row("qtivtransform, 1080p NV12 to 720p RGB: CPU, against videoconvertscale", "stock", "cpu")]),
    ({"ours": compose("qtivcomposer", place_own), "stock": compose("compositor", place_stock)},
     [Row("qtivcomposer, 4 x 720p into 1080p: CPU, against compositor", "stock", "cpu", "<= 0.8"),
      Row("qtivcomposer, 4 x 720p into 1080p: frames a second, against compositor", "stock", "rate")]),
    ({"ours": split("qtivsplit", ""), "stock": split("tee", "videoconvertscale ! ")},
     [Row("qtivsplit, 1080p into 720p RGB and 360p NV12: CPU, against tee and videoconvertscale", "stock", "cpu")]),
    ({"ours": decode("avdec_h264 ! v4l2h264enc ! fakesink", H264_720),
      "stock": decode("avdec_h264 ! x264enc tune=zerolatency speed-preset=superfast threads=1 key-int-max=50 bframes=0 "
                      "rc-lookahead=0 sync-lookahead=0 mb-tree=false vbv-buf-capacity=1000 bitrate=2304 ! fakesink", H264_720)},
     [Row("v4l2h264enc, 720p decoded before: CPU, against x264enc with the same settings", "stock", "cpu")]),
]


# ---- Measuring


class Run:
    def __init__(self, frames, seconds, cpu):
        self.values = {"rate": frames / seconds, "cpu": cpu / frames}


class Timed:
    """A run as the process itself timed it, without its start, and the whole process."""

    def __init__(self, whole, own=None):
        self.whole, self.own = whole, own


def values(runs, others, measure):
    """Like is compared with like: a program that does not time itself is compared with the whole process."""
    both = all(one.own for one in runs + others)
    return [[(one.own if both else one.whole).values[measure] for one in side] for side in (runs, others)]


def run(command, environment):
    command = [str(part) for part in command]
    start = time.monotonic()
    with tempfile.TemporaryFile("w+") as output:
        process = subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        watchdog = threading.Timer(BOUND, process.kill)
        watchdog.start()
        _, status, usage = os.wait4(process.pid, 0)
        watchdog.cancel()
        seconds = time.monotonic() - start
        process.returncode = os.waitstatus_to_exitcode(status)
        output.seek(0)
        text = output.read()
    if process.returncode != 0:
        sys.exit(f"run_bench: {' '.join(command)} failed\n{text[-2000:]}")
    said = dict(re.findall(r"\b(frames|seconds|cpu|kilobytes|threads) ([\d.]+)", text))
    if "kilobytes" in said:
        return int(said["kilobytes"]), int(said["threads"])
    frames = int(said.get("frames", FRAMES))
    own = Run(frames, float(said["seconds"]), float(said["cpu"])) if "cpu" in said else None
    return Timed(Run(frames, seconds, usage.ru_utime + usage.ru_stime), own)


def verdict(value, target):
    if not target:
        return ""
    relation, limit = target.split()[:2]
    return "yes" if (value >= float(limit) if relation == ">=" else value <= float(limit)) else "**no**"


def pipelines(rounds, environment):
    for programs, rows in GROUPS:
        runs = {name: [] for name in programs}
        for _ in range(rounds):
            for name, command in programs.items():
                runs[name].append(run(command, environment))
        for row in rows:
            ours, other = values(runs["ours"], runs[row.other], row.measure)
            ratios = sorted(a / b for a, b in zip(ours, other))
            value = statistics.median(ratios)
            unit = (lambda v: f"{v:.0f}/s") if row.measure == "rate" else (lambda v: f"{v * 1000:.2f} ms")
            yield (row.name, f"{value:.2f}", f"{ratios[0]:.2f} to {ratios[-1]:.2f}",
                   f"{unit(statistics.median(ours))}, {unit(statistics.median(other))}", row.target,
                   verdict(value, row.target))


def memory(rounds, environment):
    more = []
    for _ in range(rounds):
        one, five = (run([STREAMS, "several", H264_720, str(count)], environment) for count in (1, 5))
        more.append(((five[0] - one[0]) / 4 / 1024, (five[1] - one[1]) / 4))
    size = statistics.median(size for size, _ in more)
    threads = statistics.median(threads for _, threads in more)
    yield ("A further 720p stream from a file: memory", f"{size:.1f} MB",
           f"{min(size for size, _ in more):.1f} to {max(size for size, _ in more):.1f}", "", "", "")
    yield ("A further 720p stream from a file: threads", f"{threads:g}", "", "", "", "")


RECORDING_NAME = "Recording 1080p H.264 over RTSP: CPU seconds a minute, against ffmpeg -c copy -f segment"
PEER = ROOT / "build" / "dev" / "bin" / "velstream-rtsp-peer"
SETTLING, RECORDED = 5, 20  # seconds: of both recorders before the measurement, and of it


def cpu_of(process):
    fields = Path(f"/proc/{process.pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def record_both(url, folder, environment):
    """CPU seconds of both recorders at once, on the same stream for the same time."""
    name = f"bench-{os.getpid()}"
    config = folder / "streams.conf"
    config.write_text(json.dumps({"streams": [{"streamsId": name, "properties": {
        "inputType": "rtsp", "inputAddr": url, "rollingsave": True}}]}))
    commands = [[BUILD / "bin" / "velstream", "record", name, "--config", config],
                ["ffmpeg", "-v", "error", "-nostdin", "-rtsp_transport", "tcp", "-i", url, "-c", "copy", "-f", "segment",
                 "-segment_time", "2", "-segment_wrap", "100", folder / "%05d.mp4"]]
    recorders = [subprocess.Popen(command, env=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                 for command in commands]
    time.sleep(SETTLING)
    before = [cpu_of(recorder) for recorder in recorders]
    time.sleep(RECORDED)
    after = [cpu_of(recorder) for recorder in recorders]
    for recorder in recorders:
        recorder.send_signal(signal.SIGINT)
        recorder.wait(BOUND)
    segments = [len(list(place.glob("*.mp4"))) for place in (Path("/tmp/rolling") / name, folder)]
    shutil.rmtree(Path("/tmp/rolling") / name, ignore_errors=True)
    if min(segments) < RECORDED // 2:
        sys.exit(f"run_bench: the recorders have written {segments} segments")
    return [b - a for a, b in zip(before, after)]


def recording(rounds, environment):
    server = subprocess.Popen([PEER, "play", "--file", H264, "--loop"], stdout=subprocess.PIPE, text=True)
    try:
        url = f"rtsp://127.0.0.1:{int(server.stdout.readline().removeprefix('port='))}/test"
        pairs = []
        for _ in range(rounds):
            with tempfile.TemporaryDirectory() as folder:
                pairs.append(record_both(url, Path(folder), environment))
    finally:
        server.kill()
    ratios = sorted(ours / other for ours, other in pairs)
    value = statistics.median(ratios)
    minute = [60 / RECORDED * statistics.median(side) for side in zip(*pairs)]
    yield (RECORDING_NAME, f"{value:.2f}", f"{ratios[0]:.2f} to {ratios[-1]:.2f}", f"{minute[0]:.2f} s, {minute[1]:.2f} s",
           "<= 1.5", verdict(value, "<= 1.5"))


def micro(program, repetitions, environment):
    """Google Benchmark's medians, by name; the repetitions of the program's benchmarks are shuffled."""
    command = [BUILD / "bin" / program, "--benchmark_format=json", f"--benchmark_repetitions={repetitions}",
               "--benchmark_enable_random_interleaving=true", "--benchmark_min_time=0.05"]
    output = subprocess.run(command, env=environment, check=True, stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL).stdout
    samples = {}
    for entry in json.loads(output)["benchmarks"]:
        if entry["run_type"] == "iteration":
            samples.setdefault(entry["run_name"].removesuffix("/real_time"), []).append(entry)
    return samples


def functions(rounds, environment):
    median = lambda entries, key: statistics.median(entry[key] for entry in entries)
    scan = micro("velstream_scan_bench", rounds, environment)
    for name in [name for name in scan if name.startswith("scan/")]:
        ours = median(scan[name], "bytes_per_second") / 1e9
        plain = median(scan[name.replace("scan/", "plain/")], "bytes_per_second") / 1e9
        target = ">= 4 GB/s" if "long_unit" in name else ""
        yield (f"parse_hevc_au_info_splice, {name.removeprefix('scan/')} bytes", f"{ours:.1f} GB/s", "",
               f"{ours / plain:.1f} times the plain scan's {plain:.1f} GB/s", target, verdict(ours, target))
    draw = micro("velstream_draw_bench", rounds, environment)
    for name in [name for name in draw if name.startswith("draw_picture")]:
        percent = name.rsplit("/", 1)[1]
        ours = median(draw[name], "cpu_time")
        plain = median(draw["plain_loop_1080p/" + percent], "cpu_time")
        yield (f"draw_picture at 1080p, {percent} % transparent: time, against the plain loop", f"{ours / plain:.2f}",
               "", f"{ours:.2f} ms, {plain:.2f} ms", "<= 1.00", verdict(ours / plain, "<= 1.00"))
    for name, entries in micro("velstream_tap_bench", rounds, environment).items():
        value = median(entries, "cpu_time") / 1000
        yield (f"Frame tap at 1080p, log level error, {name.removeprefix('tap/')}", f"{value:.2f} us", "", "",
               "<= 5 us", verdict(value, "<= 5 us"))


# ---- The table


def version(command, pattern):
    text = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False).stdout
    found = re.search(pattern, text)
    return found.group(1) if found else "unknown"


def machine(environment, load):
    model = version(["lscpu"], r"Model name:\s*(.+)")
    system = platform.freedesktop_os_release().get("PRETTY_NAME", platform.system())
    memory_gb = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 1e9
    return [f"- {datetime.date.today()}; {model}, {os.cpu_count()} processors, {memory_gb:.0f} GB; load before the run "
            f"{load:.1f}",
            f"- {system}, Linux {platform.release()}; GStreamer "
            + version(["gst-launch-1.0", "--version"], r"GStreamer ([\d.]+)")
            + ", ffmpeg " + version(["ffmpeg", "-version"], r"ffmpeg version (\S+)")
            + ", OpenCV " + version(["pkg-config", "--modversion", "opencv4"], r"([\d.]+)")
            + ", " + version(["c++", "--version"], r"(.+)")]


def table(rows):
    yield "| figure | median | range | ours, the other | target | held |"
    yield "|---|---|---|---|---|---|"
    for row in rows:
        yield "| " + " | ".join(cell or " " for cell in row) + " |"


def merged(lines, former):
    """The former table with these rows in place of its own."""
    name = lambda line: line.split(" | ")[0]
    fresh = {name(line): line for line in lines if line.startswith("| ")}
    known = {name(line) for line in former}
    return [fresh.get(name(line), line) for line in former] + [line for key, line in fresh.items() if key not in known]


def write_document(lines):
    text = DOCUMENT.read_text()
    before, rest = text.split(BEGIN)
    after = rest.split(END)[1]
    DOCUMENT.write_text(before + "\n".join([BEGIN, "", *lines, "", END]) + after)


def main():
    parser = argparse.ArgumentParser(description="Measures the library beside the usual ways.")
    parser.add_argument("--rounds", type=int, default=7, help="of each row (7)")
    parser.add_argument("--only", default="", help="rows whose name has this text")
    parser.add_argument("--write", action="store_true", help="puts the table into docs/benchmarks.md; with --only, its rows")
    options = parser.parse_args()
    load = os.getloadavg()[0]
    if options.only:
        GROUPS[:] = [group for group in GROUPS if any(options.only in row.name for row in group[1])]
    generate_all(is_recording_only=not GROUPS)
    environment = dict(os.environ, GST_PLUGIN_PATH=str(BUILD / "lib" / "velstream-gst" / "gstreamer-1.0"),
                       GST_REGISTRY=str(MEDIA / "registry.bin"))
    subprocess.run(["gst-inspect-1.0", "qtivdec"], env=environment, check=True, stdout=subprocess.DEVNULL)  # the registry
    lines = machine(environment, load) + [f"- medians of {options.rounds} rounds", ""]
    rows = []
    sources = [pipelines] if options.only else [functions, pipelines, memory]
    if options.only in RECORDING_NAME:
        sources.append(recording)
    for source in sources:
        for row in source(options.rounds, environment):
            print(" | ".join(cell for cell in row if cell), flush=True)
            rows.append(row)
    lines += table(rows)
    figures = MEDIA / "figures.md"
    if options.only and figures.exists():
        lines = merged(lines, figures.read_text().splitlines())
    figures.write_text("\n".join(lines) + "\n")
    if options.write:
        write_document(lines)
    print("\n".join(["", *lines]) if not options.only else "")


if __name__ == "__main__":
    main()
