# SPDX-License-Identifier: Apache-2.0
"""Sprites: coloured solids in world coordinates, drawn to a patch of pixels with a label mask.

A sprite collects balls, limbs and faces. draw() projects them, sorts them by depth and fills a patch;
composing patches into a picture, nearest last, is street.py's work.
"""
import cv2
import numpy as np

from camera import CANVAS_HEIGHT, CANVAS_WIDTH, NEAREST

BODY = 1  # labels of the mask
HEAD = 2

_SHIFT = 4                     # binary places of sub-pixel coordinates
_ONE = 1 << _SHIFT
_OUTSIDE = 420                 # pixels beyond the canvas that are still drawn, to count what is cut off


class Patch:
    """What a sprite looks like: left and top on the canvas, colours, coverage (0 to 255) and labels,
    all of the same size."""

    def __init__(self, left, top, colours, coverage, labels):
        self.left, self.top = left, top
        self.colours, self.coverage, self.labels = colours, coverage, labels


class Sprite:
    def __init__(self):
        self._points = []      # world positions
        self._shapes = []      # (kind, indices of points, sizes in metres, colour, label, nearer)

    def _add(self, *points):
        first = len(self._points)
        self._points.extend(points)
        return list(range(first, first + len(points)))

    def ball(self, centre, width, height, colour, label=BODY, nearer=0.0):
        """An upright ellipsoid of the given half extents. nearer moves it forward in the order of
        drawing, in metres."""
        self._shapes.append(("ball", self._add(centre), (width, height), colour, label, nearer))

    def limb(self, start, end, start_radius, end_radius, colour, label=BODY, nearer=0.0):
        """A rounded rod."""
        self._shapes.append(("limb", self._add(start, end), (start_radius, end_radius), colour, label,
                             nearer))

    def face(self, points, colour, nearer=0.0):
        """A flat convex polygon, seen from both sides."""
        self._shapes.append(("face", self._add(*points), (), colour, BODY, nearer))

    def ring(self, points, radius, colour, nearer=0.0):
        """A closed thin tube through the points."""
        self._shapes.append(("ring", self._add(*points), (radius,), colour, BODY, nearer))

    def shadow_strokes(self, sun):
        """Each limb and ball as (start, end, radius) on the ground, thrown along sun = (dx, dy) per
        metre of height; each face as its points on the ground."""
        points = np.array(self._points)
        ground = points[:, :2] + points[:, 2:] * np.asarray(sun)
        strokes, faces = [], []
        for kind, index, sizes, _, _, _ in self._shapes:
            if kind == "ball":
                strokes.append((ground[index[0]], ground[index[0]], sizes[0]))
            elif kind == "limb":
                strokes.append((ground[index[0]], ground[index[1]], max(sizes)))
            elif kind == "face":
                faces.append(ground[index])
        return strokes, faces

    def draw(self, camera, texture):
        """A Patch, or None when nothing of the sprite can fall on the canvas. texture is a grey
        picture that the colours are multiplied by, 200 = as they are."""
        pixels, depths = camera.project(self._points)
        if depths.min() < NEAREST:
            return None
        scale = camera.focal / depths
        reach = max(max(sizes, default=0.0) for _, _, sizes, _, _, _ in self._shapes) * scale.max() + 3
        left, top = np.floor(pixels.min(0) - reach).astype(int)
        right, bottom = np.ceil(pixels.max(0) + reach).astype(int)
        if right < 0 or bottom < 0 or left >= CANVAS_WIDTH or top >= CANVAS_HEIGHT:
            return None
        left, top = max(left, -_OUTSIDE), max(top, -_OUTSIDE)
        right = min(right, CANVAS_WIDTH + _OUTSIDE)
        bottom = min(bottom, CANVAS_HEIGHT + _OUTSIDE)
        size = (bottom - top, right - left)
        patch = Patch(left, top, np.zeros(size + (3,), np.uint8), np.zeros(size, np.uint8),
                      np.zeros(size, np.uint8))
        fixed = np.round((pixels - (left, top)) * _ONE).astype(np.int32)
        order = sorted(self._shapes, key=lambda s: s[5] - depths[s[1]].mean())
        for kind, index, sizes, colour, label, _ in order:
            near = scale[index] if kind == "limb" else np.full(2, scale[index[0]])
            _fill(patch, kind, fixed[index], [r * s for r, s in zip(sizes, near)], colour, label)
        rows, columns = texture.shape
        if size[0] <= rows and size[1] <= columns:
            tile = texture[:size[0], :size[1]]
            cv2.multiply(patch.colours, cv2.merge([tile] * 3), patch.colours, 1 / 200.0)
        return patch


def _fill(patch, kind, points, radii, colour, label):
    targets = ((patch.colours, colour, cv2.LINE_8), (patch.coverage, 255, cv2.LINE_AA),
               (patch.labels, label, cv2.LINE_8))
    for target, value, line in targets:
        if kind == "face":
            cv2.fillConvexPoly(target, points, value, line, _SHIFT)
        elif kind == "ring":
            thickness = max(1, int(round(2 * radii[0])))
            cv2.polylines(target, [points], True, value, thickness, line, _SHIFT)
        elif kind == "ball":
            axes = (int(radii[0] * _ONE), int(radii[1] * _ONE))
            cv2.ellipse(target, _pair(points[0]), axes, 0, 0, 360, value, -1, line, _SHIFT)
        else:
            _fill_limb(target, points, radii, value, line)


def _fill_limb(target, points, radii, value, line):
    (x0, y0), (x1, y1) = points
    for point, radius in zip(points, radii):
        cv2.circle(target, _pair(point), max(int(radius * _ONE), _ONE // 2), value, -1, line, _SHIFT)
    length = np.hypot(x1 - x0, y1 - y0)
    if length < 1:
        return
    nx, ny = (y0 - y1) / length * _ONE, (x1 - x0) / length * _ONE
    quad = np.array([[x0 + nx * radii[0], y0 + ny * radii[0]], [x1 + nx * radii[1], y1 + ny * radii[1]],
                     [x1 - nx * radii[1], y1 - ny * radii[1]], [x0 - nx * radii[0], y0 - ny * radii[0]]])
    cv2.fillConvexPoly(target, np.round(quad).astype(np.int32), value, line, _SHIFT)


def _pair(point):
    return int(point[0]), int(point[1])
