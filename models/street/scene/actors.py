# SPDX-License-Identifier: Apache-2.0
"""Actors: figures with a path through the street, and the population of a scene.

The street runs along x. From the camera outwards: near pavement, parked cars, two lanes, far pavement,
houses. populate() fills it so that actors do not walk through each other.
"""
import numpy as np

from figures import (Bicycle, Bin, Car, Cat, CoatStand, Dog, Person, Post, Poster, Tree, Truck)

NEAR_PAVEMENT = (6.9, 9.3)  # metres from the camera's wall
NEAR_KERB = 9.6
PARKED_LANE = 10.7
LANES = ((12.8, 0.0), (15.6, np.pi))  # y and heading
CYCLE_LANES = ((11.75, 0.0), (16.75, np.pi))
FAR_KERB = 17.4
FAR_PAVEMENT = (17.9, 20.6)
HOUSES = 21.5
END = 23.0                  # actors come from x = -END or END and leave there
SLOWEST = 0.05              # metres per second; what is slower stands

# Actors per minute of street time, or in all where a figure stands for good.
STREET = {
    "walk": 12, "cross": 3, "stop": 3.5, "stand": 0.8, "cycle": 4.5, "drive": 5, "drive_stop": 1,
    "truck": 2, "truck_parked": 0.2, "parked": 1.2, "dog": 3.5, "dog_stop": 1, "cat": 3.5,
    "cat_stop": 1, "animal_stand": 0.4, "decoy": 0.3, "post": 1.5, "tree": 0.7}
# More of everything, so that each picture teaches much.
BUSY = {
    "walk": 30, "cross": 12, "stop": 12, "stand": 1.5, "cycle": 22, "drive": 26, "drive_stop": 5,
    "truck": 15, "truck_parked": 0.5, "parked": 1.0, "dog": 20, "dog_stop": 7, "cat": 20,
    "cat_stop": 10, "animal_stand": 1.2, "decoy": 0.0, "post": 1.5, "tree": 0.7}
# The same with decoys: some for measuring, many to learn what a head is.
BUSY_WITH_DECOYS = dict(BUSY, decoy=0.4)
LOOKALIKES = dict(BUSY, decoy=5.0)
# People, walking and standing, among decoys: for strict mode.
DECOYS = dict(STREET, stand=2.0, decoy=4.0, drive=2, truck=0, parked=0.5)
# A little of everything, for the clip that is shown.
SHOWN = dict(STREET, walk=14, stand=1.5, decoy=2.5, parked=1.0)
# Much that stands for the whole time: for the static filter and the stabiliser.
STANDING = dict(STREET, walk=8, stand=3.0, parked=2.0, truck_parked=0.3, animal_stand=2.0, truck=0.7)


class Actor:
    """A figure on a path of (time, x, y) points; stands where two points are equal. idle_heading is
    where it looks while standing, unless it has walked before."""

    def __init__(self, figure, points, idle_heading=-np.pi / 2):
        self.figure = figure
        self.times = np.array([p[0] for p in points], float)
        self.places = np.array([p[1:] for p in points], float)
        steps = np.diff(self.places, axis=0)
        self.lengths = np.hypot(steps[:, 0], steps[:, 1])
        self.walked = np.concatenate([[0.0], np.cumsum(self.lengths)])
        self.headings = []
        heading = idle_heading
        for step, length in zip(steps, self.lengths):
            heading = np.arctan2(step[1], step[0]) if length > 1e-6 else heading
            self.headings.append(heading)

    def state(self, time):
        """(x, y, heading, phase of the gait, speed), or None when it is not there."""
        if not self.times[0] <= time < self.times[-1]:
            return None
        i = int(np.searchsorted(self.times, time, side="right")) - 1
        share = (time - self.times[i]) / (self.times[i + 1] - self.times[i])
        x, y = self.places[i] + share * (self.places[i + 1] - self.places[i])
        walked = self.walked[i] + share * self.lengths[i]
        speed = self.lengths[i] / (self.times[i + 1] - self.times[i])
        phase = 2 * np.pi * walked / self.figure.stride if hasattr(self.figure, "stride") else 0.0
        if speed < SLOWEST:
            return x, y, self.headings[i], 1.3 * time, 0.0
        return x, y, self.headings[i], phase, speed


def _pavement_y(rng):
    low, high = NEAR_PAVEMENT if rng.uniform() < 0.6 else FAR_PAVEMENT
    return rng.uniform(low, high)


def _along(rng, y, speed, duration, heading=None, stop=False):
    """Along the street from one end to the other, started at any time so that the street is as busy at
    the first moment as later; perhaps with a stop."""
    direction = (1 if rng.uniform() < 0.5 else -1) if heading is None else (1 if heading == 0.0 else -1)
    crossing_time = 2 * END / speed
    start = rng.uniform(-crossing_time, duration)
    begin, end = -END * direction, END * direction
    if not stop:
        return [(start, begin, y), (start + crossing_time, end, y)]
    middle = rng.uniform(-8.0, 8.0)
    arrival = start + abs(middle - begin) / speed
    leaving = arrival + rng.uniform(2.0, 12.0)
    return [(start, begin, y), (arrival, middle, y), (leaving, middle, y),
            (leaving + abs(end - middle) / speed, end, y)]


def _cross(rng, speed, duration):
    """From one pavement to the other, coming and going along them."""
    near, far = rng.uniform(*NEAR_PAVEMENT), rng.uniform(*FAR_PAVEMENT)
    first, last = (near, far) if rng.uniform() < 0.5 else (far, near)
    x = rng.uniform(-9.0, 9.0)
    begin, end = rng.choice([-END, END], 2)
    places = [(begin, first), (x, first), (x + rng.uniform(-1.5, 1.5), last), (end, last)]
    time = rng.uniform(-25.0, duration)
    points = [(time,) + places[0]]
    for (x0, y0), (x1, y1) in zip(places, places[1:]):
        time += np.hypot(x1 - x0, y1 - y0) / speed
        points.append((time, x1, y1))
    return points


def _stand(x, y, duration):
    return [(-1.0, x, y), (duration + 1.0, x, y)]


def _make(kind, rng, duration):
    """An actor of the kind, at random."""
    if kind in ("walk", "stop"):
        return Actor(Person(rng), _along(rng, _pavement_y(rng), rng.uniform(0.9, 1.7), duration,
                                         stop=kind == "stop"))
    if kind == "cross":
        return Actor(Person(rng), _cross(rng, rng.uniform(0.9, 1.6), duration))
    if kind == "stand":
        return Actor(Person(rng), _stand(rng.uniform(-7, 7), _pavement_y(rng), duration),
                     rng.uniform(-np.pi, np.pi))
    if kind == "cycle":
        y, heading = CYCLE_LANES[rng.integers(2)]
        return Actor(Bicycle(rng), _along(rng, y + rng.uniform(-0.25, 0.25), rng.uniform(2.8, 5.0),
                                          duration, heading))
    if kind in ("drive", "drive_stop", "truck"):
        y, heading = LANES[rng.integers(2)]
        figure = Truck(rng) if kind == "truck" else Car(rng)
        return Actor(figure, _along(rng, y + rng.uniform(-0.2, 0.2), rng.uniform(4.5, 9.0), duration,
                                    heading, stop=kind == "drive_stop"))
    if kind in ("parked", "truck_parked"):
        figure = Truck(rng) if kind == "truck_parked" else Car(rng)
        return Actor(figure, _stand(rng.uniform(-9, 9), PARKED_LANE, duration),
                     0.0 if rng.uniform() < 0.8 else np.pi)
    if kind in ("dog", "dog_stop", "cat", "cat_stop"):
        figure, speed = ((Dog(rng), rng.uniform(0.8, 2.0)) if kind.startswith("dog") else
                         (Cat(rng), rng.uniform(0.5, 1.3)))
        y = rng.uniform(*NEAR_PAVEMENT) if rng.uniform() < 0.75 else rng.uniform(*FAR_PAVEMENT)
        if rng.uniform() < 0.25:
            return Actor(figure, _cross(rng, speed, duration))
        return Actor(figure, _along(rng, y, speed, duration, stop=kind.endswith("stop")))
    if kind == "animal_stand":
        figure = Dog(rng) if rng.uniform() < 0.5 else Cat(rng)
        return Actor(figure, _stand(rng.uniform(-6, 6), rng.uniform(*NEAR_PAVEMENT), duration),
                     rng.uniform(-np.pi, np.pi))
    if kind == "decoy":
        figure = (CoatStand, CoatStand, Poster, Bin)[rng.integers(4)](rng)
        return Actor(figure, _stand(rng.uniform(-7, 7), _pavement_y(rng), duration),
                     rng.uniform(-np.pi, np.pi))
    if kind == "post":
        y = (NEAR_KERB, FAR_KERB)[rng.integers(2)]
        return Actor(Post(rng, rng.choice([0.9, 2.5, 6.0])), _stand(rng.uniform(-12, 12), y, duration))
    return Actor(Tree(rng), _stand(rng.uniform(-12, 12), FAR_KERB + 0.3, duration))


def _extents(figure):
    return figure.radius, getattr(figure, "half_width", min(figure.radius, 0.4))


def _positions(actor, moments):
    """Positions at the moments, far away when it is not there."""
    places = np.full((len(moments), 2), 1e6)
    for i, moment in enumerate(moments):
        state = actor.state(moment)
        if state is not None:
            places[i] = state[:2]
    return places


def populate(rng, mix, duration):
    """The actors of a scene of that many seconds: standing ones first, so that others avoid them."""
    standing = ("post", "tree", "decoy", "parked", "truck_parked", "stand", "animal_stand")
    moments = np.arange(0.0, duration + 0.25, 0.4)
    actors, taken = [], []
    for kind in sorted(mix, key=lambda k: (k not in standing, k)):
        expected = mix[kind] if kind in standing else mix[kind] * (duration + 15.0) / 60.0
        for _ in range(rng.poisson(expected)):
            for _ in range(12):  # tries before it is left out
                actor = _make(kind, rng, duration)
                places = _positions(actor, moments)
                if not _collides(actor, places, taken):
                    actors.append(actor)
                    taken.append((actor, places))
                    break
    return actors


def _collides(actor, places, taken):
    width, depth = _extents(actor.figure)
    for other, other_places in taken:
        other_width, other_depth = _extents(other.figure)
        apart = np.abs(places - other_places)
        here = places[:, 0] < 1e5
        if np.any(here & (apart[:, 0] < width + other_width) & (apart[:, 1] < depth + other_depth)):
            return True
    return False

