#!/usr/bin/env python3
"""Runs what a cross build's tests can show under emulation and says, level by level, how many ran and which did not.

usage: packaging/arm64_tests.py BUILD_FOLDER [CTEST_ARGUMENT...]; packaging/emulated.sh starts it.
"""
import collections
import json
import re
import subprocess
import sys
import xml.etree.ElementTree

# Every test of these levels runs. Of the others, whose time limits and peers are made for a machine ten times as fast,
# one or more of each kind of stream.
WHOLE_LEVELS = {"unit", "structure", "element"}
SAMPLES = re.compile("|".join([
    r"ub2404\.FileStream\.H26[45]Frames",                   # files
    r"ub2404\.(CameraStream\.OfH26[45]IsDelivered|NetworkInput\.Rtsp)",  # RTSP cameras
    r"ub2404\.NetworkInput\.RtmpFrames",
    r"ub2404\.UsbFrames\.ComeInOrder",
    r"ub2404\.(Mp4Output\.HoldsEveryFrame|Output\.(Mp4File|RtspRecorder)HasEveryFrame)",
    r"ub2404\.(ReencodedFile\.HoldsEveryFrame|ReencodedPush\.ReachesTheServerWhole)",
    r"SpliceFrames\.(ComeOnce|Reordered|RowsMayBePadded)",
    r"ub2404\.RecordedCamera\.OfH264Leaves",
    r"ub2404\.(SplitCamera\.BothCallbacks|SoundRelay\.FileReaches)",
    r"(CompositionDescription|EngineTasks|SpliceScan|UsbChain|ReencoderDescription|RollingDescription)\.",
    r"/(PlainScenario\.RecordsTheCanvas|OverlayScenario\.RecordsWithLogoTextAndDetection)/\"h264\"",
    r"tool\.(Tool\.RunCountsEveryFrame|SpliceTool\.CountsEveryFrame)",
]))


def tests_of(folder):
    listing = subprocess.run(["ctest", "--test-dir", folder, "--show-only=json-v1"],
                             check=True, capture_output=True, text=True).stdout
    for number, test in enumerate(json.loads(listing)["tests"], 1):
        labels = [p["value"] for p in test.get("properties", []) if p["name"] == "LABELS"]
        yield number, test["name"], labels[0][0] if labels else "none"


def is_chosen(name, level):
    return level in WHOLE_LEVELS or SAMPLES.search(name) is not None


def results_of(report):
    """Test name to "run", "fail", "notrun" or "disabled"."""
    return {case.get("name"): case.get("status") for case in xml.etree.ElementTree.parse(report).iter("testcase")}


def main():
    folder, arguments = sys.argv[1], sys.argv[2:]
    tests = list(tests_of(folder))
    selection = [str(number) for number, name, level in tests if is_chosen(name, level)]
    report = folder + "/arm64-tests.xml"
    status = subprocess.run(["ctest", "--test-dir", folder, "--output-on-failure", "-j2", "-I",
                             "0,0,0," + ",".join(selection),
                             "--output-junit", "arm64-tests.xml", *arguments]).returncode
    results = results_of(report)
    print_summary(tests, results)
    return status


def print_summary(tests, results):
    levels = collections.defaultdict(list)
    for _, name, level in tests:
        levels[level].append(name)
    print("\nLevel       ran  passed  of")
    for level, names in sorted(levels.items()):
        ran = [name for name in names if results.get(name) in ("run", "fail")]
        passed = [name for name in names if results.get(name) == "run"]
        print(f"{level:10} {len(ran):4} {len(passed):7} {len(names):3}")
    print("\nDid not run:")
    for level, names in sorted(levels.items()):
        for name in names:
            if results.get(name) not in ("run", "fail"):
                print(f"  {level}: {name}")


if __name__ == "__main__":
    sys.exit(main())
