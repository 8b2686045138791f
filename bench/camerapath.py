"""Camera paths of clips, and their jitter."""

import csv
import dataclasses
import math

# The slow part of a path is what a low-pass filter of fourth order with this standard deviation (in frames) passes.
SIGMA = 6
REACH = 4 * SIGMA
END = 16  # frames that count as a shot's beginning or end


@dataclasses.dataclass(frozen=True)
class Pose:
    """The camera's pose in a frame: x to the right and y upward in pixels, theta counterclockwise in degrees."""

    x: float
    y: float
    theta: float

    def __sub__(self, other):
        return Pose(self.x - other.x, self.y - other.y, self.theta - other.theta)


@dataclasses.dataclass(frozen=True)
class Jitter:
    """Root mean squares: of the length of shifts, and of rolls."""

    pixels: float
    degrees: float


def read_csv(lines):
    return [{name: float(value) for name, value in row.items()} for row in csv.DictReader(lines)]


def poses_of(rows):
    return [Pose(row["x"], row["y"], row["theta"]) for row in rows]


def intercept_weights(offsets, sigma=SIGMA):
    """Weights of the values at these offsets in the local quadratic regression at offset 0, with Gaussian weights. Far
    from any end they are the Gaussian kernel of fourth order, (3/2 - x^2 / (2 sigma^2)) times the Gaussian. At an end,
    where offsets are missing, they reproduce quadratics as well (W. S. Cleveland, "Robust locally weighted regression
    and smoothing scatterplots", Journal of the American Statistical Association 74, 1979)."""
    gauss = [math.exp(-(x / sigma) ** 2 / 2) for x in offsets]
    s0, s1, s2, s3, s4 = (sum(g * x ** power for g, x in zip(gauss, offsets)) for power in range(5))
    minors = (s2 * s4 - s3 * s3, s2 * s3 - s1 * s4, s1 * s3 - s2 * s2)
    determinant = s0 * minors[0] + s1 * minors[1] + s2 * minors[2]
    return [g * (minors[0] + minors[1] * x + minors[2] * x * x) / determinant for g, x in zip(gauss, offsets)]


def tremble(path):
    """One shot's path minus its slow part. Poses that are None do not count, and stay None."""
    known = [frame for frame, pose in enumerate(path) if pose]
    left = []
    for frame, pose in enumerate(path):
        near = [other for other in known if abs(other - frame) <= REACH]
        if not pose or len(near) < 5:
            left.append(None)
            continue
        weights = intercept_weights([other - frame for other in near])
        slow = Pose(*(sum(weight * getattr(path[other], axis) for weight, other in zip(weights, near))
                      for axis in ("x", "y", "theta")))
        left.append(pose - slow)
    return left


def root_mean_square(values):
    values = list(values)
    return math.sqrt(sum(value * value for value in values) / len(values)) if values else math.nan


def jitter_of(left):
    left = [pose for pose in left if pose]
    return Jitter(root_mean_square(math.hypot(pose.x, pose.y) for pose in left),
                  root_mean_square(pose.theta for pose in left))


def jitter(shots):
    """The jitter of all frames of these shots, and that of their first and last `END` frames."""
    trembles = [tremble(path) for path in shots]
    return (jitter_of(sum(trembles, [])),
            jitter_of(sum((left[:END] + left[max(END, len(left) - END):] for left in trembles), [])))


def gaussian(sigma, reach):
    """A Gaussian kernel: its taps from the centre outward."""
    return [math.exp(-(distance / sigma) ** 2 / 2) for distance in range(reach + 1)]


def kaiser(shape, reach):
    """A Kaiser window: its taps from the centre outward (J. F. Kaiser, R. W. Schafer, "On the use of the I0-sinh
    window for spectrum analysis", IEEE Transactions on Acoustics, Speech, and Signal Processing 28, 1980)."""
    def bessel(x):
        return sum((x / 2) ** (2 * k) / math.factorial(k) ** 2 for k in range(20))

    return [bessel(shape * math.sqrt(1 - (distance / (reach + 1)) ** 2)) for distance in range(reach + 1)]


def smoothed(path, taps):
    """One shot's path, convolved with a symmetric kernel given by its taps from the centre outward. Point reflection
    extends the path beyond its ends."""
    def at(frame, axis):
        last = len(path) - 1
        inside = min(max(frame, 0), last)
        mirrored = min(max(2 * inside - frame, 0), last)
        here, there = getattr(path[inside], axis), getattr(path[mirrored], axis)
        return here if frame == inside else 2 * here - there

    def average(frame, axis):
        whole = taps[0] + 2 * sum(taps[1:])
        return (taps[0] * at(frame, axis) + sum(tap * (at(frame - reach, axis) + at(frame + reach, axis))
                                                for reach, tap in enumerate(taps[1:], 1))) / whole

    return [Pose(*(average(frame, axis) for axis in ("x", "y", "theta"))) for frame in range(len(path))]


def bend(path):
    """The largest second difference of one shot's path, in pixels."""
    return max((math.hypot(a.x - 2 * b.x + c.x, a.y - 2 * b.y + c.y)
                for a, b, c in zip(path, path[1:], path[2:]) if a and b and c), default=math.nan)


def steps(path):
    """One shot's motion from frame to frame, along the axes of a picture halfway between the two."""
    found = []
    for before, after in zip(path, path[1:]):
        shift = after - before
        roll = math.radians((before.theta + after.theta) / 2)
        found.append(Pose(math.cos(roll) * shift.x + math.sin(roll) * shift.y,
                          math.cos(roll) * shift.y - math.sin(roll) * shift.x, shift.theta))
    return found
