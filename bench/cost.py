"""What stabilizing costs.

A cost is the CPU time, user and system, of a whole process on one thread. It is taken per frame, as the difference
between a run over a clip and a run over its end, so that starting up and filling the delay line cancel out; and it is
taken less the same for a process that only passes the frames on. Everyone reads raw frames of its own pixel format
from memory and throws its output away. Rounds run the contenders in turn; figures are medians.

The cost of window lengths is that of the kernel's calls inside one process, on a made-up clip: the mapping of ever
longer delay lines is too noisy to tell a few percent from outside.
"""

import argparse
import dataclasses
import os
import re
import resource
import statistics
import subprocess
import tempfile
from pathlib import Path

from report import BUILD, say, table, verdict

PROGRAMS = ["vstabilize", "copy_clip", "floor_bench"]

SIZES = "640x480,1280x720,1920x1080,3840x2160"
DEFAULT_WINDOW = 32

DEFAULTS = "defaults"
ROTATION = "rotation, quality 3"

# What is to be reached.
TIMES_FASTER_AT_DEFAULTS = 10
TIMES_FASTER_WITH_ROTATION = 2
ROTATION_COUNTS_FROM_HEIGHT = 720
WINDOW_SPREAD = 0.05

OWN = "bgr24"
PEERS = "yuv420p"
BYTES_PER_PIXEL = {OWN: 3, PEERS: 1.5}
# The own costs are the smallest, and all others are divided by them.
TRIES_A_ROUND = {OWN: 2, PEERS: 1}


@dataclasses.dataclass(frozen=True)
class Size:
    width: int
    height: int

    def __str__(self):
        return f"{self.width}x{self.height}"

    @property
    def title(self):
        return f"{self.width}×{self.height}"


@dataclasses.dataclass(frozen=True)
class Clip:
    """Raw frames in one file a pixel format, of which short runs take the last `end` frames."""

    folder: Path
    size: Size
    frames: int
    end: int

    def path(self, pixel_format):
        return self.folder / f"clip.{pixel_format}"

    def open_at(self, frames, pixel_format):
        """The file, positioned before its last frames."""
        file = self.path(pixel_format).open("rb")
        frame_bytes = int(self.size.width * self.size.height * BYTES_PER_PIXEL[pixel_format])
        file.seek((self.frames - frames) * frame_bytes)
        return file


@dataclasses.dataclass(frozen=True)
class Contender:
    name: str
    pixel_format: str
    passes: list  # one command for each time that the clip is read


def own(clip, *settings, program="host/vstabilize"):
    return [BUILD / program, "--size", str(clip.size), *settings]


def peer(clip, video_filter):
    return [*"ffmpeg -nostdin -v error -threads 1 -filter_threads 1 -f rawvideo".split(),
            "-pixel_format", PEERS, "-video_size", str(clip.size), "-i", "pipe:0",
            "-vf", video_filter, *"-threads 1 -f null -".split()]


def contenders(clip):
    motion = clip.folder / "motion"
    pair = [f"vidstabdetect=result={motion}", f"vidstabtransform=input={motion}"]
    return [
        Contender(DEFAULTS, OWN, [own(clip)]),
        Contender(ROTATION, OWN, [own(clip, "--rotation")]),
        Contender("`deshake`", PEERS, [peer(clip, "deshake")]),
        Contender("`vidstabdetect` + `vidstabtransform`", PEERS, [peer(clip, step) for step in pair]),
    ]


def pass_through(clip, pixel_format):
    command = own(clip, program="bench/copy_clip") if pixel_format == OWN else peer(clip, "null")
    return Contender(f"{pixel_format} passed on", pixel_format, [command])


@dataclasses.dataclass(frozen=True)
class Usage:
    """CPU seconds, or milliseconds a frame, and MiB."""

    cpu: float
    peak: float


def cpu_of_children():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def run(contender, clip, frames):
    """What all passes over the clip's last frames take together, and the peak memory of the largest."""
    peak, start = 0, cpu_of_children()
    with tempfile.NamedTemporaryFile("r") as report:
        for command in contender.passes:
            with clip.open_at(frames, contender.pixel_format) as source:
                # The peak of a child of this process would count this process's own.
                subprocess.run(["/usr/bin/time", "-q", "-f", "%M", "-o", report.name, *command], check=True,
                               stdin=source, stdout=subprocess.DEVNULL, env=os.environ | {"OMP_NUM_THREADS": "1"})
            report.seek(0)
            peak = max(peak, int(report.read()) / 1024)
    return Usage(cpu_of_children() - start, peak)


def cost(contender, clip):
    """What a frame takes."""
    short, whole = run(contender, clip, clip.end), run(contender, clip, clip.frames)
    return Usage((whole.cpu - short.cpu) / (clip.frames - clip.end) * 1000, whole.peak)


def median(usages):
    return Usage(*map(statistics.median, zip(*map(dataclasses.astuple, usages))))


def measure(entrants, clip, rounds):
    """Name to what the stabilization alone takes a frame."""
    formats = dict.fromkeys(entrant.pixel_format for entrant in entrants)
    everyone = [pass_through(clip, pixel_format) for pixel_format in formats] + entrants
    found = {entrant.name: [] for entrant in everyone}
    for number in range(rounds):
        for entrant in everyone:
            say(f"{clip.size}, round {number + 1} of {rounds}: {entrant.name}")
            found[entrant.name] += [cost(entrant, clip) for _ in range(TRIES_A_ROUND[entrant.pixel_format])]
    results = {}
    for entrant in entrants:
        whole = median(found[entrant.name])
        idle = median(found[f"{entrant.pixel_format} passed on"])
        # Nothing shorter can be told from nothing.
        results[entrant.name] = Usage(max(whole.cpu - len(entrant.passes) * idle.cpu, 0.001), whole.peak)
    return results


def noise(size, scale, seed):
    return (f"color=gray:{size.width // scale}x{size.height // scale},format=gbrp,noise=alls=100:all_seed={seed},"
            f"scale={size}:flags=bicubic,trim=end_frame=1")


def shaky_scene(size):
    """A filter graph: a picture with detail at several scales, under a camera that pans, trembles and rolls."""
    margin = size.width // 20
    canvas = Size(size.width + 2 * margin, size.height + 2 * margin)
    return (f"{noise(canvas, 64, 1)}[coarse];{noise(canvas, 16, 2)}[middle];{noise(canvas, 4, 3)}[fine];"
            "[coarse][middle][fine]mix=3:weights='4 3 2',loop=-1:1,setpts=N/25/TB,"
            "rotate='0.006*sin(n/5)+0.003*sin(n*1.3)',"
            f"crop={size.width}:{size.height}:x='{margin}*(1+0.5*sin(n/17)+0.03*sin(n*1.1)+0.03*sin(n*2.3))'"
            f":y='{margin}*(1+0.4*sin(n/13)+0.03*sin(n*1.4)+0.03*sin(n*1.9))'")


def make_clip(folder, source, size, frames, end):
    say(f"{size}: making the clip")
    clip = Clip(folder, size, frames, end)
    if source:
        # A clip that is too short starts again; scaled to cover the size.
        inputs = ["-stream_loop", "-1", "-i", f"file:{source}"]
        picture = f"[0:V:0]scale={size}:force_original_aspect_ratio=increase,crop={size.width}:{size.height}"
    else:
        inputs, picture = [], shaky_scene(size)
    outputs = []
    for pixel_format in (OWN, PEERS):
        outputs += ["-map", f"[{pixel_format}]", "-frames:v", str(frames), "-pix_fmt", pixel_format,
                    "-f", "rawvideo", f"file:{clip.path(pixel_format)}"]
    subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-y", *inputs, "-filter_complex",
                    f"{picture},split[{OWN}][{PEERS}]", *outputs], check=True)
    return clip


def frames_of(size):
    """Length of a clip and of its end: about the same work at every size, the delay line full within the end."""
    end = DEFAULT_WINDOW // 2 + 4
    return end + min(max(round(60 * 1920 * 1080 / (size.width * size.height)), 28), 220), end


def compare_sizes(folder, source, sizes, rounds):
    """Size to the results of all contenders."""
    results = {}
    for size in sizes:
        clip = make_clip(folder, source, size, *frames_of(size))
        results[size] = measure(contenders(clip), clip, rounds)
    return results


def compare_windows(size, rounds):
    """Window to the CPU milliseconds that a kernel call takes with it: medians of kernels that run in turn, so that
    a short delay line stays in no cache."""
    say(f"{size}: window lengths")
    times = {4: [], 32: [], 128: []}
    for _ in range(rounds):
        table = subprocess.run([BUILD / "bench/floor_bench", str(size.width), str(size.height)], check=True,
                               capture_output=True, text=True).stdout
        for window, time in re.findall(r"^defaults(?:, window (\d+)|:.*?) {2,}([\d.]+)", table, re.MULTILINE):
            times[int(window or 32)].append(float(time))
    return {window: statistics.median(medians) for window, medians in times.items()}


def significant(value):
    """Two digits at least, three when they matter."""
    return f"{value:.{2 if value < 1 else 1 if value < 20 else 0}f}"


def peers_among(names):
    return [name for name in names if name not in (DEFAULTS, ROTATION)]


def size_tables(results):
    names = list(next(iter(results.values())))
    sizes = [size.title for size in results]

    def rows(of_names, value):
        return [[name, *(significant(value(found, name)) for found in results.values())] for name in of_names]

    lines = ["", *table(["CPU ms a frame", *sizes], rows(names, lambda found, name: found[name].cpu))]
    for base in (DEFAULTS, ROTATION):
        ratios = rows(peers_among(names), lambda found, name, base=base: found[name].cpu / found[base].cpu)
        lines += ["", *table([f"times the cost of {base}", *sizes], ratios)]
    lines += ["", *table(["peak memory, MiB", *sizes], rows(names, lambda found, name: found[name].peak))]
    return lines


def window_table(results, size):
    head = [f"window, at {size.title}", *(str(window) for window in results)]
    return ["", *table(head, [["CPU ms a frame", *(f"{milliseconds:.2f}" for milliseconds in results.values())]])]


def least_ratio(results, base):
    """The worst of all peers and sizes, and where that is."""
    ratios = [(found[name].cpu / found[base].cpu, f"{name} at {size.title}")
              for size, found in results.items() for name in peers_among(found)]
    return min(ratios, default=None)


def verdicts(by_size, by_window):
    lines = [""]
    large = {size: found for size, found in by_size.items() if size.height >= ROTATION_COUNTS_FROM_HEIGHT}
    for base, results, wanted, where in (
            (DEFAULTS, by_size, TIMES_FASTER_AT_DEFAULTS, "every size"),
            (ROTATION, large, TIMES_FASTER_WITH_ROTATION, "1280×720 and above")):
        least = least_ratio(results, base)
        if least:
            lines.append(verdict(f"{base}: at least {wanted} times faster than each at {where}",
                                 least[0] >= wanted, f"least {least[0]:.1f}, {least[1]}"))
    spread = max(by_window.values()) / min(by_window.values()) - 1
    lines.append(verdict(f"cost independent of the window within {WINDOW_SPREAD:.0%}", spread <= WINDOW_SPREAD,
                         f"{spread:.1%}"))
    return lines


def parse_size(text):
    match = re.fullmatch(r"(\d+)x(\d+)", text)
    size = Size(*map(int, match.groups())) if match else None
    if not size or min(size.width, size.height) < 64 or size.width % 2 or size.height % 2:
        raise argparse.ArgumentTypeError(f"'{text}' is not WxH, both even and 64 at least")
    return size


def add_options(parser):
    parser.add_argument("clip", nargs="?", help="a video to measure on (default a made-up shaky scene)")
    parser.add_argument("--sizes", type=lambda text: [parse_size(size) for size in text.split(",")], default=SIZES,
                        help=f"default {SIZES}")
    parser.add_argument("--rounds", type=int, default=3, help="default 3")


def compare(folder, arguments):
    window_size = Size(1920, 1080) if any(size.width >= 1920 for size in arguments.sizes) else Size(640, 480)
    by_size = compare_sizes(folder, arguments.clip, arguments.sizes, arguments.rounds)
    by_window = compare_windows(window_size, arguments.rounds)
    return [*size_tables(by_size), *window_table(by_window, window_size), *verdicts(by_size, by_window)]
