# SPDX-License-Identifier: Apache-2.0
"""A scene of the street: made from a seed, rendered at any moment, with the truth about every object.

Scene(seed, mix, duration).render(time) gives the frame and a list of Truth records. The same seed gives
the same frames, bit for bit, on one version of OpenCV and numpy. generate.py writes them to files.
"""
import cv2
import numpy as np

import actors
import figures
from camera import (CANVAS_HEIGHT, CANVAS_WIDTH, FRAME_HEIGHT, FRAME_WIDTH, MARGIN, Camera)
from scenery import DAY, DUSK, NIGHT, Light, Places, paint_street
from sprite import BODY, HEAD

# Of the network's 512x288 pixels, two to a pixel of the frame.
SMALLEST = 12        # objects of a smaller area than a square of this side are to be ignored
MOST_HIDDEN = 0.6    # as are objects that are hidden, or cut off, by more than this share

_HEAD_ID = 1000000   # track ids of heads are those of their owners plus this


class Truth:
    """One object, or decoy, in one frame. Box in frame pixels, cut at the frame's edge, with its hidden
    parts."""

    def __init__(self, track_id, class_id, box, hidden, moving):
        self.track_id, self.class_id = track_id, class_id
        self.left, self.top, self.width, self.height = (int(v) for v in box)
        self.hidden = float(hidden)  # share of its pixels that others or the frame's edge hide
        self.moving = bool(moving)
        too_small = self.width * self.height < (2 * SMALLEST) ** 2
        self.ignore = too_small or hidden > MOST_HIDDEN


class Scene:
    def __init__(self, seed, mix, duration, time_of_day=None):
        rng = np.random.default_rng(seed)
        self.seed = seed
        self.camera = Camera.random(rng)
        self.time_of_day = time_of_day or str(rng.choice([DAY, DUSK, NIGHT], p=[0.55, 0.2, 0.25]))
        places = Places(self.camera)
        self._street = paint_street(rng, places)
        self._light = Light(rng, places, self.time_of_day)
        self._texture = self._make_texture(rng)
        night = self.time_of_day == NIGHT
        self._noise_level = rng.uniform(2.5, 5.0) if night else rng.uniform(1.0, 3.0)
        self._noise = rng.normal(0.0, 1.0, (CANVAS_HEIGHT + 64, CANVAS_WIDTH + 64)).astype(np.float32)
        self._blur = rng.uniform(0.35, 0.8)
        self._shake = rng.uniform(0.0, 1.0)
        self.actors = actors.populate(rng, mix, duration)

    @staticmethod
    def _make_texture(rng):
        coarse = cv2.resize(rng.uniform(170, 230, (24, 32)).astype(np.float32), (1900, 1500),
                            interpolation=cv2.INTER_LINEAR)
        return coarse.astype(np.uint8)

    def render(self, time):
        """The frame (BGR, FRAME_HEIGHT x FRAME_WIDTH) at a time in seconds, and its Truth records."""
        rng = np.random.default_rng([self.seed, int(round(time * 1000))])
        shown = self._shown(time)
        picture = self._street.copy()
        self._cast_shadows(picture, shown)
        owners = np.zeros((CANVAS_HEIGHT, CANVAS_WIDTH), np.int32)  # 0: street, else 2 x place + label
        for place, (_, _, patch) in enumerate(shown):
            _compose(picture, owners, patch, place)
        picture = self._light.apply(picture)
        if self.time_of_day == NIGHT:
            self._shine(picture, shown, owners)
        dx, dy = np.clip(np.round(rng.normal(0, self._shake, 2)).astype(int), -MARGIN, MARGIN)
        window = (MARGIN + dx, MARGIN + dy)
        frame = self._sensed(rng, picture)[window[1]:window[1] + FRAME_HEIGHT,
                                           window[0]:window[0] + FRAME_WIDTH]
        return np.ascontiguousarray(frame), _truths(shown, owners, window)

    def _shown(self, time):
        """(number, actor state and sprite, patch) of what falls on the canvas, farthest first."""
        shown = []
        for number, actor in enumerate(self.actors):
            state = actor.state(time)
            if state is None:
                continue
            sprite = actor.figure.build(*state, self.camera.position)
            patch = sprite.draw(self.camera, self._texture)
            if patch is not None:
                shown.append(((number + 1, actor), (state, sprite), patch))
        return sorted(shown, key=lambda s: -s[1][0][1])

    def _cast_shadows(self, picture, shown):
        mask = np.zeros((CANVAS_HEIGHT // 2, CANVAS_WIDTH // 2), np.uint8)
        sun = self._light.sun if self._light.sun is not None else (0.0, 0.0)
        for _, (_, sprite), _ in shown:
            strokes, faces = sprite.shadow_strokes(sun)
            ends = np.array([p for start, end, _ in strokes for p in (start, end)] or np.zeros((0, 2)))
            self._shade_strokes(mask, ends, [radius for _, _, radius in strokes])
            for face in faces:
                pixels, depths = self._on_mask(face)
                if depths.min() > 2.0:
                    cv2.fillConvexPoly(mask, cv2.convexHull(pixels.astype(np.int32)), 255)
        mask = cv2.GaussianBlur(mask, (0, 0), 1.2 if self._light.sun is not None else 3.0)
        mask = cv2.resize(mask, (CANVAS_WIDTH, CANVAS_HEIGHT), interpolation=cv2.INTER_LINEAR)
        kept = 255 - cv2.multiply(mask, 1.0, None, self._light.shadow)
        cv2.multiply(picture, cv2.merge([kept] * 3), picture, 1 / 255.0)

    def _on_mask(self, ground):
        pixels, depths = self.camera.project(np.column_stack([ground, np.zeros(len(ground))]))
        return np.clip(pixels / 2, -2000, 3000), depths

    def _shade_strokes(self, mask, ends, radii):
        if not radii:
            return
        pixels, depths = self._on_mask(ends)
        for i, radius in enumerate(radii):
            if min(depths[2 * i], depths[2 * i + 1]) > 2.0:
                thickness = max(1, int(radius * self.camera.focal / depths[2 * i]))
                start, end = pixels[2 * i].astype(int), pixels[2 * i + 1].astype(int)
                cv2.line(mask, tuple(map(int, start)), tuple(map(int, end)), 255, thickness)

    def _shine(self, picture, shown, owners):
        """Head and tail lamps that nothing hides."""
        for place, ((_, actor), (state, _), _) in enumerate(shown):
            if actor.figure.class_id not in (figures.CAR, figures.TRUCK):
                continue
            for lamp, colour in figures.lamps(actor.figure, *state[:3], self.camera.position):
                pixels, depths = self.camera.project([lamp])
                x, y = (int(v) for v in pixels[0])
                inside = 0 <= x < CANVAS_WIDTH and 0 <= y < CANVAS_HEIGHT
                if depths[0] > 2 and inside and owners[y, x] // 2 == place + 1:
                    _glow(picture, x, y, int(0.22 * self.camera.focal / depths[0]), colour)

    def _sensed(self, rng, picture):
        picture = cv2.GaussianBlur(picture, (0, 0), self._blur)
        x, y = rng.integers(0, 64, 2)
        noise = self._noise[y:y + CANVAS_HEIGHT, x:x + CANVAS_WIDTH] * self._noise_level
        return cv2.add(picture, cv2.merge([noise, noise * 0.8, noise]), dtype=cv2.CV_8U)


def _compose(picture, owners, patch, place):
    left, top = max(patch.left, 0), max(patch.top, 0)
    right = min(patch.left + patch.labels.shape[1], CANVAS_WIDTH)
    bottom = min(patch.top + patch.labels.shape[0], CANVAS_HEIGHT)
    if left >= right or top >= bottom:
        return
    part = (slice(top - patch.top, bottom - patch.top), slice(left - patch.left, right - patch.left))
    region = (slice(top, bottom), slice(left, right))
    coverage = cv2.merge([patch.coverage[part]] * 3)
    over = cv2.multiply(patch.colours[part], coverage, None, 1 / 255.0)
    under = cv2.multiply(picture[region], 255 - coverage, None, 1 / 255.0)
    picture[region] = cv2.add(over, under)
    labels = patch.labels[part]
    owners[region][labels > 0] = 2 * (place + 1) + labels[labels > 0] - BODY


def _glow(picture, x, y, radius, colour):
    radius = max(radius, 2)
    left, top = max(x - 2 * radius, 0), max(y - 2 * radius, 0)
    right, bottom = min(x + 2 * radius, CANVAS_WIDTH), min(y + 2 * radius, CANVAS_HEIGHT)
    columns, rows = np.meshgrid(np.arange(left, right), np.arange(top, bottom))
    strength = np.exp(-((columns - x) ** 2 + (rows - y) ** 2) / (0.7 * radius ** 2))
    light = (strength[..., None] * colour).astype(np.uint8)
    picture[top:bottom, left:right] = cv2.add(picture[top:bottom, left:right], light)


def _truths(shown, owners, window):
    counts = np.bincount(owners[window[1]:window[1] + FRAME_HEIGHT,
                                window[0]:window[0] + FRAME_WIDTH].ravel(),
                         minlength=2 * len(shown) + 4)
    truths = []
    for place, ((number, actor), (state, _), patch) in enumerate(shown):
        figure = actor.figure
        if figure.class_id is None:
            continue
        body, head = counts[2 * (place + 1)], counts[2 * (place + 1) + 1]
        moving = state[4] > 0
        truths.append(_truth(number, figure.class_id, patch, patch.labels, body + head, window, moving))
        if figure.class_id in (figures.PERSON, figures.BICYCLE):
            head_mask = (patch.labels == HEAD).astype(np.uint8)
            truths.append(_truth(number + _HEAD_ID, figures.HEAD_CLASS, patch, head_mask, head, window,
                                 moving))
    return [truth for truth in truths if truth is not None]


def _truth(track_id, class_id, patch, mask, visible, window, moving):
    """None when not a pixel of it is seen. mask: the pixels of the object, all of them."""
    if visible == 0:
        return None
    left, top, width, height = cv2.boundingRect(mask)
    left, top = left + patch.left - window[0], top + patch.top - window[1]
    right, bottom = min(left + width, FRAME_WIDTH), min(top + height, FRAME_HEIGHT)
    left, top = max(left, 0), max(top, 0)
    hidden = 1.0 - visible / cv2.countNonZero(mask)
    return Truth(track_id, class_id, (left, top, right - left, bottom - top), hidden, moving)
