"""How steady the stabilized picture is.

Made-up scenes whose camera path is known (make_scene) go through everyone with the same look-ahead. Where the output's
camera points is measured on the output's pixels, frame by frame against the noise-free canvas (measure_path). Jitter is
what is left of that path without its slow part, a low-pass of fourth order with a standard deviation of 6 frames: the
root mean square of the length of the shift at the picture's centre, in output pixels, and of the roll.
"""

import argparse
import concurrent.futures
import contextlib
import dataclasses
import io
import math
import os
import statistics
import subprocess
from pathlib import Path

import camerapath
from camerapath import Pose
from report import BUILD, say, table, verdict

PROGRAMS = ["vstabilize", "make_scene", "measure_path"]
PROGRAM = BUILD / "host/vstabilize"

WINDOW = 32
REACH = WINDOW // 2
BACKGROUND = "00FF00"

INPUT = "unstabilized"
FREE = "`--crop 0`"
DEFAULTS = "defaults"
CLASSIC = "classic"
DESHAKE = "`deshake`"
PAIR = "the pair"

NOISE_FREE = ("plain", "plain-240", "plain-720", "plain-1080", "shift", "pan")
TEXTURED = (*NOISE_FREE, "noise", "exposure")
CROP = 0.05

# Standard deviations of Gaussian kernels: that of the pair, and one that leaves little of these scenes' tremble.
NARROW, WIDE = 8 / math.sqrt(2), 10

# What is to be reached.
JITTER_TO_PAIR = 0.5
JITTER_AT_ENDS = 1.5
JITTER_FAINT_NOISE = 0.1
JITTER_BY_CROP = 0.03
CORRECTION_WITHIN = 0.04
MOTION_PIXELS, MOTION_DEGREES, MOTION_FOREGROUND = 0.05, 0.005, 0.1
WHIP_BEND = 2
SHARPNESS = 0.9


@dataclasses.dataclass(frozen=True)
class Contender:
    name: str
    pipeline: list  # commands from YUV4MPEG2 to YUV4MPEG2
    preparation: list = ()  # commands that read the clip first
    zoom: float = 1
    motion: Path = None


@dataclasses.dataclass(frozen=True)
class Film:
    name: str
    clip: Path
    width: int
    height: int
    truth: list  # a row a frame

    def split(self, values):
        """One list a shot."""
        shots = {}
        for row, value in zip(self.truth, values):
            shots.setdefault(row["shot"], []).append(value)
        return list(shots.values())


@dataclasses.dataclass(frozen=True)
class Outcome:
    """What a contender made of a scene."""

    film: Film
    rows: list    # the meter's, a row a frame
    motion: list  # the motion log's, or none

    @property
    def path(self):
        """In output pixels; None where a frame shows too little."""
        return [Pose(row["x"] * row["zoom"], row["y"] * row["zoom"], row["theta"])
                if row["found"] else None
                for row in self.rows]

    @property
    def jitter(self):
        return camerapath.jitter(self.film.split(self.path))


def ffmpeg(inputs, outputs):
    return ["ffmpeg", *"-nostdin -v error -threads 1 -filter_threads 1".split(), *inputs, *outputs.split()]


def filtered(video_filter, outputs="-f yuv4mpegpipe -"):
    return ffmpeg(["-f", "yuv4mpegpipe", "-i", "pipe:0"], f"-vf {video_filter} -threads 1 {outputs}")


def has_precise():
    return "YUV4MPEG2" in subprocess.run([PROGRAM, "--help"], check=True, capture_output=True, text=True).stdout


def contenders(folder, film, settings):
    motion = {name: folder / f"{film.name}.{name}" for name in ("free", "defaults", "pair")}
    size = f"{film.width}x{film.height}"

    def precise(name, *options):
        return [PROGRAM, "--quiet", "--window", str(WINDOW), "--background", BACKGROUND, "--motion", motion[name],
                "--force", *options, *settings]

    classic = [filtered("null", "-pix_fmt bgr24 -f rawvideo -"),
               [PROGRAM, "--quiet", "--size", size, "--window", str(WINDOW), "--rotation", "--quality", "1",
                "--background", BACKGROUND],
               ffmpeg(["-f", "rawvideo", "-pixel_format", "bgr24", "-video_size", size, "-i", "pipe:0"],
                      "-pix_fmt yuv420p -f yuv4mpegpipe -")]
    pair = f"vidstabtransform=input={motion['pair']}:smoothing={REACH}:crop=black:optzoom=0:zoom=0"
    ours = [
        Contender(FREE, [precise("free", "--crop", "0")], motion=motion["free"]),
        Contender(DEFAULTS, [precise("defaults")], zoom=1 / (1 - 2 * CROP), motion=motion["defaults"]),
    ] if has_precise() else []
    return [
        Contender(INPUT, []),
        *ours,
        Contender(CLASSIC, classic),
        Contender(DESHAKE, [filtered("deshake=edge=blank")]),
        Contender(PAIR, [filtered(pair)], [filtered(f"vidstabdetect=result={motion['pair']}", "-f null -")]),
    ]


def run(pipeline, clip):
    """What the last of these commands prints, the first of which reads the clip."""
    with contextlib.ExitStack() as stack:
        source = stack.enter_context(clip.open("rb"))
        processes = []
        for command in pipeline:
            process = stack.enter_context(subprocess.Popen(command, stdin=source, stdout=subprocess.PIPE,
                                                           env=os.environ | {"OMP_NUM_THREADS": "1"}))
            # Only the processes may hold a pipe, so that all end when one of them does.
            source.close()
            source = process.stdout
            processes.append(process)
        output = processes[-1].stdout.read()
    for process in processes:
        if process.wait() != 0:
            raise subprocess.CalledProcessError(process.returncode, process.args)
    return output.decode()


def make_film(folder, name):
    say(f"{name}: filming")
    clip, path = folder / f"{name}.y4m", folder / f"{name}.csv"
    with clip.open("wb") as output:
        subprocess.run([BUILD / "bench/make_scene", name, path], check=True, stdout=output)
    with clip.open("rb") as file:
        _, width, height, *_ = file.readline().decode().split()
    return Film(name, clip, int(width[1:]), int(height[1:]), camerapath.read_csv(path.open()))


def measure(film, contender):
    say(f"{film.name}: {contender.name}")
    for command in contender.preparation:
        run([command], film.clip)
    meter = [BUILD / "bench/measure_path", film.name, str(contender.zoom)]
    rows = camerapath.read_csv(io.StringIO(run([*contender.pipeline, meter], film.clip)))
    return Outcome(film, rows, camerapath.read_csv(contender.motion.open()) if contender.motion else [])


def compare_scene(folder, name, settings):
    """Contender's name to its outcome."""
    film = make_film(folder, name)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        entrants = contenders(folder, film, settings)
        outcomes = dict(zip((entrant.name for entrant in entrants),
                            pool.map(lambda entrant: measure(film, entrant), entrants)))
    film.clip.unlink()
    return outcomes


def truth(film):
    return camerapath.poses_of(film.truth)


def meter_error(outcome):
    """Of the measured path of the unstabilized clip, against the known one: root mean squares, frames not measured."""
    errors = [found - known for found, known in zip(outcome.path, truth(outcome.film)) if found]
    return camerapath.jitter_of(errors), len(outcome.rows) - len(errors)


def motion_error(outcome):
    """Of the motion log: root mean squares of the errors a frame, within shots."""
    film, errors = outcome.film, []
    logged = [Pose(row["motion_x"], row["motion_y"], row["motion_theta"]) for row in outcome.motion]
    for known, found in zip(film.split(truth(film)), film.split(logged)):
        errors += [a - b for a, b in zip(found[1:], camerapath.steps(known))]
    return camerapath.jitter_of(errors)


def correction_share(outcome):
    """How far the correction moves any corner, at most, as a share of the side."""
    film = outcome.film
    share = 0
    for found, known in zip(outcome.path, truth(film)):
        if found:
            off = found - known
            roll = math.radians(abs(off.theta))
            share = max(share, (abs(off.x) + roll * film.height / 2) / film.width,
                        (abs(off.y) + roll * film.width / 2) / film.height)
    return share


def cuts_of(rows):
    return {frame for frame, (before, after) in enumerate(zip(rows, rows[1:]), 1) if before["shot"] != after["shot"]}


def uncovered(outcome):
    """Shares of the frames and of all pixels that show background."""
    shares = [row["uncovered"] for row in outcome.rows]
    return sum(share > 0 for share in shares) / len(shares), sum(shares) / len(shares)


def sharpness(outcome, original):
    return statistics.fmean(row["detail"] for row in outcome.rows) / statistics.fmean(
        row["detail"] for row in original.rows)


def floor(film, taps):
    return camerapath.jitter([camerapath.smoothed(path, taps) for path in film.split(truth(film))])


def gauss(sigma):
    return [math.exp(-(reach / sigma) ** 2 / 2) for reach in range(REACH + 1)]


def jitter_tables(results, taps):
    """Floors first: what these kernels leave when motion is known without error."""
    names = list(next(iter(results.values())))
    head = ["scene", "floor, narrow", "floor, wide", *names]
    lines = []
    for unit, digits in (("pixels", 3), ("degrees", 4)):
        rows = []
        for scene, outcomes in results.items():
            film = outcomes[INPUT].film
            found = [floor(film, gauss(NARROW)), floor(film, taps), *(outcome.jitter for outcome in outcomes.values())]
            rows.append([scene, *(f"{getattr(whole, unit):.{digits}f}" for whole, _ in found)])
        lines += ["", f"Jitter, {unit}:", "", *table(head, rows)]
    rows = [[scene, *(f"{outcome.jitter[1].pixels:.3f}" for outcome in outcomes.values())]
            for scene, outcomes in results.items()]
    return [*lines, "", f"Jitter of the first and last {camerapath.END} frames of a shot, pixels:", "",
            *table(["scene", *names], rows)]


def other_tables(results):
    names = list(next(iter(results.values())))
    lines = ["", "Share of frames, and of all pixels, that show background:", ""]
    lines += table(["scene", *names], [
        [scene, *("{:.0%}, {:.2%}".format(*uncovered(outcome)) for outcome in outcomes.values())]
        for scene, outcomes in results.items()])
    sharp = [[scene, *(f"{sharpness(outcome, outcomes[INPUT]):.2f}" for outcome in outcomes.values())]
             for scene, outcomes in results.items() if scene in NOISE_FREE]
    lines += ["", "Sharpness, variance of the Laplacian in the middle against the original's:", "",
              *table(["scene", *names], sharp)]
    return lines


def meter_table(results):
    rows = []
    for scene, outcomes in results.items():
        error, lost = meter_error(outcomes[INPUT])
        rows.append([scene, f"{error.pixels:.4f}", f"{error.degrees:.5f}", f"{lost}"])
    return ["", "The meter's own error, on the unstabilized scenes:", "",
            *table(["scene", "pixels", "degrees", "frames not measured"], rows)]


def add_options(parser):
    parser.add_argument("--scenes", type=lambda text: text.split(","), help="default all; make_scene lists them")
    parser.add_argument("--taps", type=lambda text: [float(tap) for tap in text.split(",")],
                        default=gauss(WIDE),
                        help="the kernel of the second floor, from its centre outward")
    parser.add_argument("--settings", type=str.split, default=[], help="more settings of the precise engine")


def compare(folder, arguments):
    names = arguments.scenes or run_listing()
    results = {name: compare_scene(folder, name, arguments.settings) for name in names}
    return [*meter_table(results), *jitter_tables(results, arguments.taps), *other_tables(results)]


def run_listing():
    return subprocess.run([BUILD / "bench/make_scene"], check=True, capture_output=True, text=True).stdout.split()
