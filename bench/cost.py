"""The cost of stabilizing: CPU time and peak memory.

A cost is the CPU time (user and system) of a process on one thread. It is measured over a clip and over the clip's
beginning; the difference, divided by the frames between, is free of start-up and of filling the delay line. The same
difference for a process that only passes the frames on is subtracted. All programs read uncompressed frames from
memory and discard their output. Each round runs all rows in turn. Figures are medians over the rounds.

The cost of window lengths is measured on the engine's calls inside one process, with a synthetic clip. A program of its
own would keep the few frames of a short window in the cache, which hides the engine's cost.

A job stabilizes a whole file, from H.264 to H.264, with as many threads as the programs choose.
"""

import argparse
import dataclasses
import math
import os
import re
import resource
import statistics
import subprocess
import tempfile
import time
from pathlib import Path

from report import BUILD, say, table, verdict

PROGRAMS = ["vstabilize", "stabilize", "copy_clip", "make_scene", "floor_bench", "precise_bench"]

SD, HD, FULL_HD, UHD = SIZES = ["640x480", "1280x720", "1920x1080", "3840x2160"]
BGR, YUV, YUV10 = "bgr24", "yuv420p", "yuv420p10le"

OWN = "{build}/host/vstabilize --quiet"
COPY = "{build}/bench/copy_clip"
PAIR = ["vidstabdetect=result={folder}/motion", "vidstabtransform=input={folder}/motion"]
PAIR_TITLE = "the pair"


def ffmpeg(video_filter):
    return ("ffmpeg -nostdin -v error -threads 1 -filter_threads 1 -f yuv4mpegpipe -i pipe:0 "
            f"-vf {video_filter} -threads 1 -f null -")


def ffmpeg_job(video_filter, output="-c:v libx264 -preset medium -crf 18 {folder}/steady.mp4"):
    return f"ffmpeg -nostdin -v error -y -i {{folder}}/job.mp4 -vf {video_filter} {output}"


@dataclasses.dataclass(frozen=True)
class Row:
    title: str
    commands: list  # one for each pass over the clip
    idle: str  # command that only passes the frames on
    pixel_format: str = YUV
    once: bool = False  # measured at one size only
    delay: int = 16  # upper limit of the frames in the delay line

    @property
    def is_own(self):
        return self.idle.startswith(COPY)


def precise(title, options="", **more):
    return Row(title, [f"{OWN} {options}"], COPY, **more)


def classic(title, options="", **more):
    return Row(f"classic, {title}", [f"{OWN} --size {{size}} {options}"], f"{COPY} --size {{size}}", BGR, **more)


def peer(title, *filters):
    return Row(title, list(map(ffmpeg, filters)), ffmpeg("null"))


ROWS = {
    "bicubic": precise("bicubic, `--crop 0`", "--crop 0"),
    "bilinear": precise("bilinear, `--crop 0`", "--crop 0 --interpolation bilinear"),
    "defaults": precise("defaults", delay=32),
    "10-bits": precise("bicubic, `--crop 0`, 10 bits", "--crop 0", pixel_format=YUV10, once=True),
    "classic": classic("defaults"),
    "classic-rotation": classic("rotation, quality 3", "--rotation"),
    "classic-finest": classic("rotation, quality 1", "--rotation --quality 1"),
    "deshake": peer("`deshake`", "deshake"),
    "pair": peer(PAIR_TITLE, *PAIR),
}
PEERS = ["deshake", "pair"]

# Limits: a row may cost at most this share of another row's cost, at these sizes.
ANY = None
LIMITS = [
    ("bicubic", "pair", 1 / 6, [SD]),
    ("bicubic", "pair", 1 / 9, [HD]),
    ("bicubic", "pair", 1 / 14, [FULL_HD, UHD]),
    ("bilinear", "pair", 1 / 18, [FULL_HD, UHD]),
    ("defaults", "pair", 1 / 10, [FULL_HD]),
    ("10-bits", "bicubic", 1.6, ANY),
    *(("classic", name, 1 / 10, ANY) for name in PEERS),
    *(("classic-rotation", name, 1 / 2, [HD, FULL_HD, UHD]) for name in PEERS),
]

# The program that measures an engine with several windows, and the limit of the highest cost over the lowest.
WINDOWS = {
    "defaults": ("{build}/bench/precise_bench --benchmark_filter=WholeFrame/window --benchmark_repetitions=8 "
                 "--benchmark_min_time=0.2 --benchmark_enable_random_interleaving=true", 1.1),
    "classic, defaults": ("{build}/bench/floor_bench 1920 1080", 1.05),
}

def own_job(settings=""):
    return ("{build}/video/stabilize {folder}/job.mp4 {folder}/steady.mp4 --force --quiet --codec libx264 "
            f"--preset medium --crf 18 {settings}")


JOBS = {
    "ffmpeg without a filter": [ffmpeg_job("null")],
    "`stabilize`": [own_job()],
    "`stabilize --crop 0`": [own_job("--crop 0")],
    "`stabilize --engine kernel --rotation --quality 1`": [own_job("--engine kernel --rotation --quality 1")],
    "`deshake`": [ffmpeg_job("deshake")],
    PAIR_TITLE: [ffmpeg_job(PAIR[0], "-f null -"), ffmpeg_job(PAIR[1])],
}
JOB_FRAMES = 150

ALL_ROWS = [*ROWS, "windows", "jobs"]


@dataclasses.dataclass(frozen=True)
class Usage:
    """Wall and CPU time in seconds (for a cost: milliseconds a frame), and peak memory in MiB."""

    wall: float
    cpu: float
    peak: float


def cpu_of_children():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def words(command, **places):
    return [word.format(build=BUILD, **places) for word in command.split()]


def run(commands, folder, size, source=Path(os.devnull), **environment):
    """The total time of all commands, each of which reads the source, and the largest peak memory among them."""
    peak, cpu, wall = 0, cpu_of_children(), time.perf_counter()
    with tempfile.NamedTemporaryFile("r") as report:
        for command in commands:
            with source.open("rb") as file:
                # A direct child would inherit the peak of this process.
                subprocess.run(["/usr/bin/time", "-q", "-f", "%M", "-o", report.name,
                                *words(command, folder=folder, size=size)], check=True, stdin=file,
                               stdout=subprocess.DEVNULL, env=os.environ | environment)
            report.seek(0)
            peak = max(peak, int(report.read()) / 1024)
    return Usage(time.perf_counter() - wall, cpu_of_children() - cpu, peak)


def median(usages):
    return Usage(*map(statistics.median, zip(*map(dataclasses.astuple, usages))))


def film(folder, source, size, frames, outputs):
    """Has ffmpeg write the outputs, each a list of options, from the source or, without one, a synthetic scene."""
    say(f"{size}: making the clip")
    scene = folder / "scene.y4m"
    if not source:
        with scene.open("wb") as file:
            subprocess.run([BUILD / "bench/make_scene", f"plain_{size}@{frames}"], check=True, stdout=file)
    # A short clip is repeated, and the picture is scaled to cover the size. The fixed rate fixes the default window.
    picture = f"scale={size}:force_original_aspect_ratio=increase,crop={size.replace('x', ':')},setfield=prog"
    subprocess.run(["ffmpeg", *"-nostdin -v error -y -stream_loop -1 -r 30".split(), "-i", f"file:{source or scene}",
                    *(word for output in outputs for word in ("-map", "0:V:0", "-vf", picture, *output))], check=True)
    scene.unlink(missing_ok=True)


def clip_file(folder, pixel_format, frames):
    return folder / f"{frames}.{pixel_format}"


def make_clips(folder, source, size, rows):
    """Writes two clips for each pixel format and returns their numbers of frames. The shorter clip is the beginning of
    the longer one and just fills the delay line. The longer clip takes about the same work at every size."""
    beginning = max(row.delay for row in rows) + 4
    frames = round(60 * 1920 * 1080 / math.prod(map(int, size.split("x"))))
    lengths = beginning, beginning + min(max(frames, 20), 220)
    film(folder, source, size, lengths[1], [
        ["-frames:v", str(frames), "-pix_fmt", pixel_format, "-strict", "-1",
         "-f", "rawvideo" if pixel_format == BGR else "yuv4mpegpipe", f"file:{clip_file(folder, pixel_format, frames)}"]
        for pixel_format in dict.fromkeys(row.pixel_format for row in rows) for frames in lengths])
    return lengths


def cost(row, folder, size, lengths):
    """The usage of one frame."""
    short, whole = (run(row.commands, folder, size, clip_file(folder, row.pixel_format, frames), OMP_NUM_THREADS="1")
                    for frames in lengths)
    milliseconds = 1000 / (lengths[1] - lengths[0])
    return Usage((whole.wall - short.wall) * milliseconds, (whole.cpu - short.cpu) * milliseconds, whole.peak)


def measure_size(folder, source, size, rows, rounds):
    """Maps each row's name to the usage of one frame, without that of passing frames on."""
    idle = {(row.idle, row.pixel_format): Row("frames passed on", [row.idle], row.idle, row.pixel_format)
            for row in rows.values()}
    found = {name: [] for name in idle | rows}
    with tempfile.TemporaryDirectory(dir=folder) as clips:
        lengths = make_clips(Path(clips), source, size, rows.values())
        for number in range(rounds):
            for name, row in (idle | rows).items():
                say(f"{size}, round {number + 1} of {rounds}: {row.title}")
                # Three times for our own rows: their costs are the smallest and the divisors of all ratios.
                found[name] += [cost(row, Path(clips), size, lengths) for _ in range(3 if row.is_own else 1)]
    results = {}
    for name, row in rows.items():
        whole, passing = median(found[name]), median(found[row.idle, row.pixel_format])
        # A cost below the noise must not become zero or negative.
        results[name] = dataclasses.replace(whole, cpu=max(whole.cpu - len(row.commands) * passing.cpu, 0.001))
    return results


def measure_windows(rounds):
    """Maps each engine to a map from window length to milliseconds a frame."""
    results = {}
    for engine, (command, _) in WINDOWS.items():
        say(f"windows: {engine}")
        found = {}
        for _ in range(rounds):
            output = subprocess.run(words(command), check=True, capture_output=True, text=True).stdout
            for window, milliseconds in re.findall(r"window (\d+)(?:/\S*_median +\S+ ms)? +([\d.]+)", output):
                found.setdefault(window, []).append(float(milliseconds))
        results[engine] = {window: statistics.median(found[window]) for window in sorted(found, key=int)}
    return results


def measure_jobs(folder, source, size, rounds):
    film(folder, source, size, JOB_FRAMES,
         [["-frames:v", str(JOB_FRAMES), "-pix_fmt", YUV, "-crf", "18", f"file:{folder / 'job.mp4'}"]])
    found = {title: [] for title in JOBS}
    for number in range(rounds):
        for title, commands in JOBS.items():
            say(f"{size}, round {number + 1} of {rounds}: job of {title}")
            found[title].append(run(commands, folder, size))
    return {title: median(usages) for title, usages in found.items()}


def significant(value):
    """Rounds to two or three significant digits."""
    return f"{value:.{2 if value < 1 else 1 if value < 20 else 0}f}"


def grid(title, names, results, value):
    """A table with a line for each name and a column for each size."""
    return ["", *table([title, *(size.replace("x", "×") for size in results)],
                       [[ROWS[name].title, *(significant(value(found, name)) if name in found else "–"
                                             for found in results.values())] for name in names])]


def size_tables(results):
    names = [name for name in ROWS if any(name in found for found in results.values())]
    own = [name for name in names if ROWS[name].is_own and not ROWS[name].once]
    lines = grid("CPU ms a frame", names, results, lambda found, name: found[name].cpu)
    for base in PEERS:
        if base in names:
            lines += grid(f"{ROWS[base].title}: times the cost of", own, results,
                          lambda found, name, base=base: found[base].cpu / found[name].cpu)
    return lines + grid("peak memory, MiB", names, results, lambda found, name: found[name].peak)


def window_table(windows):
    head = ["CPU ms a frame of 1920×1080", *(f"window {window}" for window in next(iter(windows.values())))]
    return ["", *table(head, [[engine, *map(significant, found.values())] for engine, found in windows.items()])]


def job_table(jobs, size):
    return ["", *table([f"job, {JOB_FRAMES} frames of {size.replace('x', '×')}", "seconds", "CPU seconds", "MiB"],
                       [[title, *map(significant, dataclasses.astuple(usage))] for title, usage in jobs.items()])]


def share(value):
    return f"1/{1 / value:.3g}" if value < 1 else f"{value:.3g}"


def verdicts(results, windows):
    ratios = [(f"{ROWS[name].title}, at {size.replace('x', '×')}: at most {share(limit)} times the cost of "
               f"{ROWS[base].title}", limit, found[name].cpu / found[base].cpu)
              for name, base, limit, sizes in LIMITS for size, found in results.items()
              if name in found and base in found and (sizes is ANY or size in sizes)]
    ratios += [(f"{engine}: the dearest window at most {share(WINDOWS[engine][1])} times the cost of the cheapest",
                WINDOWS[engine][1], max(found.values()) / min(found.values())) for engine, found in windows.items()]
    return ["", *(verdict(what, ratio <= limit, share(ratio)) for what, limit, ratio in ratios)]


def parse_sizes(text):
    for size in text.split(","):
        match = re.fullmatch(r"(\d+)x(\d+)", size)
        if not match or any(int(side) < 64 or int(side) % 2 for side in match.groups()):
            raise argparse.ArgumentTypeError(f"'{size}' is not WxH, both even and 64 at least")
    return text.split(",")


def parse_rows(text):
    for name in text.split(","):
        if name not in ALL_ROWS:
            raise argparse.ArgumentTypeError(f"there is no row '{name}', only {', '.join(ALL_ROWS)}")
    return text.split(",")


def add_options(parser):
    parser.add_argument("clip", nargs="?", help="a video to measure with (default a synthetic scene)")
    parser.add_argument("--sizes", type=parse_sizes, default=SIZES, help=f"default {','.join(SIZES)}")
    parser.add_argument("--rows", type=parse_rows, default=ALL_ROWS,
                        help=f"some of {','.join(ALL_ROWS)} (default all); rows that their limits refer to are added")
    parser.add_argument("--rounds", type=int, default=3, help="default 3")


def compare(folder, arguments):
    wanted = {*arguments.rows, *(base for name, base, *_ in LIMITS if name in arguments.rows)}
    main = FULL_HD if FULL_HD in arguments.sizes else arguments.sizes[0]
    lines, results, windows = [], {}, {}
    for size in arguments.sizes:
        rows = {name: row for name, row in ROWS.items() if name in wanted and (size == main or not row.once)}
        if rows:
            results[size] = measure_size(folder, arguments.clip, size, rows, arguments.rounds)
    if results:
        lines += size_tables(results)
    if "windows" in wanted:
        windows = measure_windows(arguments.rounds)
        lines += window_table(windows)
    if "jobs" in wanted:
        lines += job_table(measure_jobs(folder, arguments.clip, main, arguments.rounds), main)
    return [*lines, *verdicts(results, windows)]
