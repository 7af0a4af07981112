# SPDX-License-Identifier: Apache-2.0
"""Scenery: what the empty street looks like, and its light.

Every pixel of the canvas is traced to the ground or to the house fronts; colours come from the place
that it hits there.
"""
import cv2
import numpy as np

from actors import FAR_KERB, HOUSES, LANES, NEAR_KERB

DAY, DUSK, NIGHT = "day", "dusk", "night"


class Places:
    """Where each pixel ends: x and z on the house fronts where is_house, else x and y on the ground."""

    def __init__(self, camera):
        ground, hits = camera.ground_under(1)
        self.x, self.y = ground[..., 0], ground[..., 1]
        self.is_house = ~hits | (self.y > HOUSES)
        share = np.where(self.is_house & hits, HOUSES / np.maximum(self.y, 1e-3), 1.0)
        self.z = np.where(self.is_house, camera.height * (1.0 - share), 0.0)
        self.x = np.where(self.is_house, self.x * share, self.x)
        self.y = np.minimum(self.y, HOUSES)


def _sampled(rng, places, per_metre, strength):
    """Grain that sticks to the ground: a tile of random values, repeated."""
    tile = cv2.GaussianBlur(rng.normal(0.0, 1.0, (256, 256)).astype(np.float32), (0, 0), 0.8)
    columns = (places.x * per_metre).astype(int) % 256
    rows = ((places.y + places.z) * per_metre).astype(int) % 256
    return 1.0 + strength * tile[rows, columns]


def _paint_ground(rng, places):
    asphalt = rng.uniform(70, 120)
    paving = np.array([rng.uniform(0.9, 1.05), rng.uniform(0.95, 1.05), 1.0]) * rng.uniform(120, 175)
    picture = np.empty(places.x.shape + (3,), np.float32)
    picture[:] = asphalt * np.array([1.02, 1.0, 0.98])
    pavement = (places.y < NEAR_KERB) | (places.y > FAR_KERB)
    picture[pavement] = paving
    slab = rng.uniform(0.5, 0.9)
    joints = pavement & ((places.x % slab < 0.03) | (places.y % slab < 0.03))
    picture[joints] *= 0.82
    kerbs = (np.abs(places.y - NEAR_KERB) < 0.09) | (np.abs(places.y - FAR_KERB) < 0.09)
    picture[kerbs] = rng.uniform(150, 190)
    middle = (LANES[0][0] + LANES[1][0]) / 2
    dashes = (np.abs(places.y - middle) < 0.07) & (places.x % 4.0 < 2.0)
    picture[dashes] = 215
    if rng.uniform() < 0.6:  # a zebra crossing
        x = rng.uniform(-8, 8)
        stripes = ((np.abs(places.x - x) < 1.6) & ~pavement & (places.y % 1.0 < 0.5) & ~kerbs)
        picture[stripes] = 205
    return picture


def _paint_houses(rng, places, picture):
    house = places.is_house
    left = -60.0
    while left < 60.0:
        width = rng.uniform(6.0, 13.0)
        wall = np.array([rng.uniform(60, 190), rng.uniform(70, 190), rng.uniform(80, 200)])
        part = house & (places.x >= left) & (places.x < left + width)
        picture[part] = wall
        picture[part & (places.z < 0.6)] = wall * 0.6
        period, pane = rng.uniform(1.8, 2.8), rng.uniform(0.8, 1.3)
        across = (places.x - left) % period
        up = places.z % 3.0
        picture[part & (across > 0.4) & (across < 0.4 + pane) & (up > 0.9) & (up < 2.4)] = \
            rng.uniform(30, 110)
        door = left + rng.uniform(0.5, width - 1.5)
        picture[part & (places.x > door) & (places.x < door + 1.0) & (places.z < 2.1)] = \
            np.array([rng.uniform(20, 120) for _ in range(3)])
        left += width


def paint_street(rng, places):
    """The empty street by plain white light, 8 bits, BGR."""
    picture = _paint_ground(rng, places)
    _paint_houses(rng, places, picture)
    picture *= (_sampled(rng, places, 22.0, 0.06) * _sampled(rng, places, 1.7, 0.07))[..., None]
    return np.clip(picture, 0, 255).astype(np.uint8)


class Light:
    """The light of a scene: a gain for every pixel, and the sun for shadows (ground metres per metre of
    height; None: no sun, soft shadows only)."""

    def __init__(self, rng, places, time_of_day):
        self.time_of_day = time_of_day
        self.sun = None
        gain = np.ones(places.x.shape + (3,), np.float32)
        if time_of_day == DAY:
            gain *= rng.uniform(0.85, 1.1) * np.array([rng.uniform(0.94, 1.06), 1.0,
                                                       rng.uniform(0.94, 1.06)])
            if rng.uniform() < 0.6:
                angle = rng.uniform(0, 2 * np.pi)
                self.sun = rng.uniform(0.3, 1.1) * np.array([np.cos(angle), np.sin(angle)])
        elif time_of_day == DUSK:
            gain *= rng.uniform(0.42, 0.65) * np.array([rng.uniform(0.8, 1.0), 0.95, 1.1])
            self._add_lamps(rng, places, gain, 0.25)
        else:
            gain *= rng.uniform(0.17, 0.28) * np.array([1.2, 1.0, 0.88])
            self._add_lamps(rng, places, gain, 0.5)
        self.gain = np.clip(gain * 128, 0, 255).astype(np.uint8)  # 128: as it is
        self.shadow = 0.42 if self.sun is not None else 0.25      # how dark shadows are

    @staticmethod
    def _add_lamps(rng, places, gain, strength):
        colour = np.array([0.65, 0.85, 1.0])
        first, spacing = rng.uniform(-16, -8), rng.uniform(8, 12)
        for i in range(4):
            for y in (NEAR_KERB, FAR_KERB):
                square = (places.x - first - i * spacing) ** 2 + (places.y - y) ** 2 + places.z ** 2
                gain += (strength * np.exp(-square / 22.0))[..., None] * colour

    def apply(self, picture):
        return cv2.multiply(picture, self.gain, None, 1 / 128.0)

