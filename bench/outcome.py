"""The figures of one stabilizer's output for one synthetic scene."""

import dataclasses
import functools
import math
import statistics
from pathlib import Path

import camerapath
from camerapath import Pose


@dataclasses.dataclass(frozen=True)
class Film:
    """A scene's clip and its true camera path."""

    scene: str
    clip: Path
    width: int
    height: int
    truth: list  # a row a frame

    @property
    def path(self):
        return camerapath.poses_of(self.truth)

    def split(self, values):
        """Splits a list with one value a frame into a list for each shot."""
        shots = {}
        for row, value in zip(self.truth, values):
            shots.setdefault(row["shot"], []).append(value)
        return list(shots.values())

    def floor(self, taps):
        """The jitter that a kernel leaves when the motion is known without error."""
        return camerapath.jitter([camerapath.smoothed(path, taps) for path in self.split(self.path)])


@dataclasses.dataclass(frozen=True)
class Outcome:
    film: Film
    rows: list  # of the meter, a row a frame
    motion: list  # rows of the motion log, a row a frame; empty without a log

    @functools.cached_property
    def path(self):
        """The measured path, with None where the meter found no pose."""
        return [pose if row["found"] else None for pose, row in zip(camerapath.poses_of(self.rows), self.rows)]

    @functools.cached_property
    def jitter(self):
        """The jitter of all frames, and that of the frames at the ends of shots."""
        return camerapath.jitter(self.film.split(self.path))

    @property
    def bend(self):
        """The path's largest second difference, in pixels."""
        return max(map(camerapath.bend, self.film.split(self.path)))

    @property
    def corrections(self):
        """Differences of the measured path from the true one, in frames where the meter found a pose."""
        return [found - known for found, known in zip(self.path, self.film.path) if found]

    @property
    def correction_share(self):
        """The largest movement of a picture corner by any correction, as a share of the picture's side."""
        width, height = self.film.width, self.film.height
        share = 0
        for correction in self.corrections:
            roll = math.radians(abs(correction.theta))
            share = max(share, (abs(correction.x) + roll * height / 2) / width,
                        (abs(correction.y) + roll * width / 2) / height)
        return share

    @property
    def motion_error(self):
        """Root mean squares of the motion log's errors within shots."""
        # The log tells the motion of the content, which is opposite to that of the camera.
        logged = [Pose(-row["motion_x"], -row["motion_y"], -row["motion_theta"]) for row in self.motion]
        errors = []
        for known, found in zip(self.film.split(self.film.path), self.film.split(logged)):
            errors += [step - true for step, true in zip(found[1:], camerapath.steps(known))]
        return camerapath.jitter_of(errors)

    @property
    def cuts_missed(self):
        return len(cuts_of(self.film.truth) - cuts_of(self.motion))

    @property
    def cuts_invented(self):
        return len(cuts_of(self.motion) - cuts_of(self.film.truth))

    @property
    def uncovered(self):
        """Shares of the frames and of all pixels that show something outside the source frame."""
        shares = [row["uncovered"] for row in self.rows]
        return sum(share > 0 for share in shares) / len(shares), statistics.fmean(shares)

    @property
    def detail(self):
        """The variance of the Laplacian in the middle of the picture, a measure of sharpness."""
        return statistics.fmean(row["detail"] for row in self.rows)


def cuts_of(rows):
    """Numbers of the frames that begin a new shot."""
    return {frame for frame, (before, after) in enumerate(zip(rows, rows[1:]), 1) if before["shot"] != after["shot"]}
