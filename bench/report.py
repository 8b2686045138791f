"""What the comparisons share: the build, the machine, tables."""

import os
import platform
import re
import statistics
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build/native"


def say(message):
    print(f"compare: {message}", file=sys.stderr, flush=True)


def build(programs):
    for command in ([ROOT / "tools/setup", "build", "tests", "video", "stabilize", "compare"],
                    ["cmake", "--preset", "native"],
                    ["cmake", "--build", "--preset", "native", "--target", *programs]):
        subprocess.run(command, cwd=ROOT, check=True, stdout=sys.stderr)
    filters = subprocess.run(["ffmpeg", "-v", "error", "-filters"], check=True, capture_output=True, text=True).stdout
    for name in ("deshake", "vidstabdetect", "vidstabtransform"):
        if f" {name} " not in filters:
            sys.exit(f"compare: this ffmpeg has no filter {name}")


def copy_bandwidth():
    """CPU seconds to copy a 1920x1080 frame within a ring of 34, which no cache holds; and bytes a second."""
    frame_bytes = 1920 * 1080 * 3
    ring = [memoryview(bytearray(frame_bytes)) for _ in range(34)]
    for view in ring:
        view[::4096] = bytes(len(view[::4096]))
    times = []
    for number in range(5 * len(ring)):
        start = time.process_time()
        ring[number % len(ring)][:] = ring[(number + len(ring) // 2) % len(ring)]
        times.append(time.process_time() - start)
    seconds = statistics.median(times)
    return seconds, frame_bytes / seconds


def first_line(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines()[0]


def machine():
    processor = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text(encoding="utf-8"))
    compiler = re.search(r"CMAKE_CXX_COMPILER:\w+=(.*)", (BUILD / "CMakeCache.txt").read_text(encoding="utf-8"))
    seconds, bandwidth = copy_bandwidth()
    return [
        f"- {time.strftime('%Y-%m-%d')}, {processor[1] if processor else platform.machine()}, {os.cpu_count()} cores",
        f"- {first_line(compiler[1], '--version')}",
        f"- {first_line('ffmpeg', '-version')}",
        f"- `memcpy` between cold frames of 1920×1080: {bandwidth / 1e9:.1f} GB/s; four of them take "
        f"{seconds * 4000:.2f} ms",
    ]


def table(head, rows):
    lines = [[*head], ["---"] * len(head), *rows]
    return ["| " + " | ".join(line) + " |" for line in lines]


def verdict(what, reached, found):
    return f"- {'pass' if reached else 'miss'}: {what} ({found})"


def has_misses(lines):
    return any(line.startswith("- miss: ") for line in lines)
