"""The steadiness of the stabilized picture.

All contenders stabilize the same synthetic scenes, whose camera path is known (make_scene). Those with a smoothing
window use one of the same length. The camera path of an output is measured from its pixels, frame by frame against the
noise-free canvas (measure_path). Jitter is that path minus its slow part, which a low-pass filter of fourth order with a
standard deviation of 6 frames passes: the root mean square of the shift's length at the picture's centre, in pixels of
the source, and of the roll.
"""

import concurrent.futures
import contextlib
import dataclasses
import io
import math
import os
import re
import statistics
import subprocess
from pathlib import Path

import camerapath
from outcome import Film, Outcome
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

# Smoothing kernels over the window: the pair's and the precise engine's.
PAIR_TAPS = camerapath.gaussian(8 / math.sqrt(2), REACH)
OWN_TAPS = camerapath.kaiser(3, REACH)

# Limits.
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


def ffmpeg(inputs, outputs):
    return ["ffmpeg", *"-nostdin -v error -threads 1 -filter_threads 1".split(), *inputs, *outputs.split()]


def filtered(video_filter, outputs="-f yuv4mpegpipe -"):
    return ffmpeg(["-f", "yuv4mpegpipe", "-i", "pipe:0"], f"-vf {video_filter} -threads 1 {outputs}")


def contenders(folder, film):
    motion = {name: folder / f"{film.scene}.{name}" for name in ("free", "defaults", "pair")}
    size = f"{film.width}x{film.height}"

    def precise(name, *options):
        return [PROGRAM, "--quiet", "--window", str(WINDOW), "--background", BACKGROUND, "--motion", motion[name],
                "--force", *options]

    classic = [filtered("null", "-pix_fmt bgr24 -f rawvideo -"),
               [PROGRAM, "--quiet", "--size", size, "--window", str(WINDOW), "--rotation", "--quality", "1",
                "--background", BACKGROUND],
               ffmpeg(["-f", "rawvideo", "-pixel_format", "bgr24", "-video_size", size, "-i", "pipe:0"],
                      "-pix_fmt yuv420p -f yuv4mpegpipe -")]
    pair = f"vidstabtransform=input={motion['pair']}:smoothing={REACH}:crop=black:optzoom=0:zoom=0"
    return [
        Contender(INPUT, []),
        Contender(FREE, [precise("free", "--crop", "0")], motion=motion["free"]),
        Contender(DEFAULTS, [precise("defaults")], zoom=1 / (1 - 2 * CROP), motion=motion["defaults"]),
        Contender(CLASSIC, classic),
        Contender(DESHAKE, [filtered("deshake=edge=blank")]),
        Contender(PAIR, [filtered(pair)], [filtered(f"vidstabdetect=result={motion['pair']}", "-f null -")]),
    ]


def run(pipeline, clip):
    """Runs the commands as a pipeline. The first reads the clip; the output of the last is returned."""
    with contextlib.ExitStack() as stack:
        source = stack.enter_context(clip.open("rb"))
        processes = []
        for command in pipeline:
            process = stack.enter_context(subprocess.Popen(command, stdin=source, stdout=subprocess.PIPE,
                                                           env=os.environ | {"OMP_NUM_THREADS": "1"}))
            # Only the processes keep the pipe open, so all of them end when one does.
            source.close()
            source = process.stdout
            processes.append(process)
        output = processes[-1].stdout.read()
    # The last failure first: a process that stops reading makes those before it fail, too.
    for process in reversed(processes):
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
    say(f"{film.scene}: {contender.name}")
    for command in contender.preparation:
        run([command], film.clip)
    meter = [BUILD / "bench/measure_path", film.scene, str(contender.zoom)]
    rows = camerapath.read_csv(io.StringIO(run([*contender.pipeline, meter], film.clip)))
    return Outcome(film, rows, camerapath.read_csv(contender.motion.open()) if contender.motion else [])


def compare_scene(folder, name):
    """Maps each contender's name to its outcome."""
    film = make_film(folder, name)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        entrants = contenders(folder, film)
        outcomes = dict(zip((entrant.name for entrant in entrants),
                            pool.map(lambda entrant: measure(film, entrant), entrants)))
    film.clip.unlink()
    return outcomes


def base(scene):
    """The scene's name without size and number of frames."""
    return re.split("[_@]", scene)[0]


def grid(title, results, cell):
    """A table with a line for each scene and a column for each contender. `cell` makes an entry from the contender's
    outcome and the unstabilized one."""
    names = list(next(iter(results.values()), {}))
    return ["", f"{title}:", "", *table(["scene", *names], [
        [scene, *(cell(outcome, outcomes[INPUT]) for outcome in outcomes.values())]
        for scene, outcomes in results.items()])]


def median_table(results):
    """Median and range over the scenes for each contender."""
    names = list(next(iter(results.values()), {}))

    def row(title, form, figure, scenes):
        def cell(name):
            values = [figure(outcomes[name], outcomes[INPUT]) for outcomes in scenes.values()]
            return "{} ({} – {})".format(*(form.format(pick(values)) for pick in (statistics.median, min, max)))

        return [title, *map(cell, names)]

    rows = [row("jitter, pixels", "{:.3f}", lambda outcome, _: outcome.jitter[0].pixels, results),
            row("jitter, degrees", "{:.4f}", lambda outcome, _: outcome.jitter[0].degrees, results),
            row("frames that show an edge", "{:.0%}", lambda outcome, _: outcome.uncovered[0], results)]
    sharp = within(results, NOISE_FREE)
    if sharp:
        rows.append(row("sharpness", "{:.2f}", lambda outcome, original: outcome.detail / original.detail, sharp))
    return ["", *table(["median (range) over scenes", *names], rows)]


def within(results, scenes):
    return {scene: outcomes for scene, outcomes in results.items() if base(scene) in scenes}


def scene_table(results, taps):
    """For each scene, the meter's error, and the jitter that the kernels leave of the true path."""
    rows = []
    for scene, outcomes in results.items():
        original = outcomes[INPUT]
        error = camerapath.jitter_of(original.corrections)
        unknown = sum(pose is None for pose in original.path)
        floors = [original.film.floor(kernel)[0] for kernel in (PAIR_TAPS, taps)]
        rows.append([scene, f"{error.pixels:.4f}", f"{error.degrees:.5f}", str(unknown),
                     *(f"{found.pixels:.3f}" for found in floors), *(f"{found.degrees:.4f}" for found in floors)])
    head = ["scene", "meter's error, pixels", "degrees", "frames without a pose",
            "floor by the pair's kernel, pixels", "by ours", "by the pair's, degrees", "by ours"]
    return ["", *table(head, rows)]


def motion_table(results):
    rows = []
    for scene, outcomes in results.items():
        ours = outcomes[FREE]
        rows.append([scene, f"{ours.motion_error.pixels:.4f}", f"{ours.motion_error.degrees:.5f}",
                     str(ours.cuts_missed), str(ours.cuts_invented)])
    return ["", "Motion log: root mean square errors of the motion between frames, and cuts:", "",
            *table(["scene", "pixels", "degrees", "cuts missed", "cuts invented"], rows)]


def jitter_verdicts(results):
    lines = []
    for unit in ("pixels", "degrees"):
        ratios = {scene: getattr(outcomes[FREE].jitter[0], unit) / getattr(outcomes[PAIR].jitter[0], unit)
                  for scene, outcomes in results.items()}
        worst = max(ratios, key=ratios.get)
        middle = statistics.median(ratios.values())
        lines.append(verdict(f"jitter in {unit} at most {JITTER_TO_PAIR} times the pair's, median over scenes",
                             middle <= JITTER_TO_PAIR, f"{middle:.2f}"))
        lines.append(verdict(f"jitter in {unit} nowhere above the pair's", ratios[worst] <= 1,
                             f"{ratios[worst]:.2f} times, {worst}"))
    return lines


def worst_verdict(what, limit, figures, form="{:.3f}"):
    """Whether the largest figure over the scenes keeps the limit. Empty without scenes."""
    if not figures:
        return []
    worst = max(figures, key=figures.get)
    return [verdict(what, figures[worst] <= limit, f"{form.format(figures[worst])}, {worst}")]


def verdicts(results):
    def each(contender, figure, scenes=tuple(map(base, results))):
        return {scene: figure(outcomes[contender]) for scene, outcomes in within(results, scenes).items()}

    by_crop = {scene: outcomes[DEFAULTS].jitter[0].pixels - outcomes[FREE].jitter[0].pixels
               for scene, outcomes in results.items() if outcomes[FREE].correction_share <= CORRECTION_WITHIN}
    blur = {scene: 1 - outcomes[FREE].detail / outcomes[INPUT].detail
            for scene, outcomes in within(results, NOISE_FREE).items()}
    return [
        "", *jitter_verdicts(results),
        *worst_verdict(f"jitter at a shot's ends at most {JITTER_AT_ENDS} times the whole shot's", JITTER_AT_ENDS,
                       each(FREE, lambda ours: ours.jitter[1].pixels / ours.jitter[0].pixels), "{:.2f}"),
        *worst_verdict(f"jitter at most {JITTER_FAINT_NOISE} px with low contrast and noise", JITTER_FAINT_NOISE,
                       each(FREE, lambda ours: ours.jitter[0].pixels, ["faint-noise"])),
        *worst_verdict(f"motion within {MOTION_PIXELS} px a frame on textured scenes", MOTION_PIXELS,
                       each(FREE, lambda ours: ours.motion_error.pixels, TEXTURED)),
        *worst_verdict(f"motion within {MOTION_DEGREES} degrees a frame on textured scenes", MOTION_DEGREES,
                       each(FREE, lambda ours: ours.motion_error.degrees, TEXTURED), "{:.4f}"),
        *worst_verdict(f"motion within {MOTION_FOREGROUND} px a frame behind a moving object", MOTION_FOREGROUND,
                       each(FREE, lambda ours: ours.motion_error.pixels, ["foreground"])),
        *worst_verdict("no pixel uncovered with the default margins", 0,
                       each(DEFAULTS, lambda ours: ours.uncovered[1]), "{:.4%} of the pixels"),
        *worst_verdict(f"second difference below {WHIP_BEND} px in the whip pan", WHIP_BEND,
                       each(DEFAULTS, lambda ours: ours.bend, ["whip"]), "{:.2f}"),
        *worst_verdict(f"margins cost at most {JITTER_BY_CROP} px of jitter where corrections stay within "
                       f"{CORRECTION_WITHIN:.0%}", JITTER_BY_CROP, by_crop),
        *worst_verdict(f"at most {1 - SHARPNESS:.0%} of the sharpness lost", 1 - SHARPNESS, blur, "{:.1%}"),
        *worst_verdict("no cut missed", 0, each(FREE, lambda ours: ours.cuts_missed), "{}"),
        *worst_verdict("no cut invented", 0, each(FREE, lambda ours: ours.cuts_invented), "{}"),
    ]


def add_options(parser):
    parser.add_argument("--scenes", type=lambda text: text.split(","),
                        help="default all that make_scene lists; NAME@FRAMES has another length, NAME_WxH another size")
    parser.add_argument("--taps", type=lambda text: [float(tap) for tap in text.split(",")], default=OWN_TAPS,
                        help="kernel of our floor, from its centre outward (default a Kaiser window of shape 3)")


def all_scenes():
    return subprocess.run([BUILD / "bench/make_scene"], check=True, capture_output=True, text=True).stdout.split()


def compare(folder, arguments):
    results = {scene: compare_scene(folder, scene) for scene in arguments.scenes or all_scenes()}
    lines = [
        *median_table(results),
        *scene_table(results, arguments.taps),
        *grid("Jitter, pixels", results, lambda outcome, _: f"{outcome.jitter[0].pixels:.3f}"),
        *grid("Jitter, degrees", results, lambda outcome, _: f"{outcome.jitter[0].degrees:.4f}"),
        *grid(f"Jitter of the first and last {camerapath.END} frames of shots, pixels", results,
              lambda outcome, _: f"{outcome.jitter[1].pixels:.3f}"),
        *grid("Share of the frames and of all pixels that show something outside the source frame", results,
              lambda outcome, _: "{:.0%}, {:.2%}".format(*outcome.uncovered)),
    ]
    sharp = within(results, NOISE_FREE)
    if sharp:
        lines += grid("Sharpness: variance of the Laplacian in the picture's middle, relative to the original's", sharp,
                      lambda outcome, original: f"{outcome.detail / original.detail:.2f}")
    return [*lines, *motion_table(results), *verdicts(results)]
