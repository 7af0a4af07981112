# SPDX-License-Identifier: Apache-2.0
"""What moves and stands in the street: each figure builds a sprite for a position, heading and time.

Figures take their looks (sizes, colours, habits) from one random generator. build() depends on nothing
but those and its arguments: position, heading, phase of the gait in radians, speed in metres per second,
and the camera's position (eye), for the sides of a vehicle that are seen. Lengths are metres, headings
radians from the x axis. actors.py moves the figures.
"""
import colorsys

import numpy as np

from sprite import HEAD, Sprite

PERSON, CAR, TRUCK, BICYCLE, DOG, CAT, HEAD_CLASS = range(7)
DECOY = -1      # class id of what is no object but may be taken for one; None: furniture
CLASS_NAMES = ["person", "car", "truck", "bicycle", "dog", "cat", "head"]

_UP = np.array([0.0, 0.0, 1.0])
_SKIN = [(175, 205, 235), (150, 185, 225), (110, 150, 200), (75, 110, 160), (50, 75, 115)]
_HAIR = [(25, 25, 30), (35, 50, 75), (60, 95, 135), (110, 160, 190), (150, 150, 155), (30, 40, 90)]
_FUR = [(40, 45, 50), (60, 90, 135), (120, 165, 200), (205, 215, 220), (90, 95, 100), (50, 75, 120)]


def _colour(rng, saturation=(0.1, 0.9), value=(0.15, 0.95)):
    r, g, b = colorsys.hsv_to_rgb(rng.uniform(), rng.uniform(*saturation), rng.uniform(*value))
    return (255 * b, 255 * g, 255 * r)


def _shade(colour, factor):
    return tuple(min(255.0, c * factor) for c in colour)


def _pick(rng, choices):
    return choices[rng.integers(len(choices))]


def _axes(heading):
    forward = np.array([np.cos(heading), np.sin(heading), 0.0])
    side = np.array([-np.sin(heading), np.cos(heading), 0.0])
    return forward, side


class Person:
    class_id = PERSON
    radius = 0.35        # metres of ground that it keeps free
    stride = 1.4         # metres walked per cycle of the legs

    def __init__(self, rng):
        child = rng.uniform() < 0.1
        self.height = rng.uniform(1.15, 1.4) if child else rng.uniform(1.55, 1.95)
        self.width = rng.uniform(0.85, 1.25)
        self.top, self.bottom = _colour(rng), _colour(rng, (0.0, 0.7), (0.1, 0.75))
        self.shoes = _colour(rng, (0.0, 0.3), (0.05, 0.9))
        self.skin, self.hair = _pick(rng, _SKIN), _pick(rng, _HAIR)
        self.sleeves = self.top if rng.uniform() < 0.75 else self.skin
        self.long_hair = rng.uniform() < 0.35
        self.hat = _colour(rng) if rng.uniform() < 0.12 else None
        self.skirt = rng.uniform() < 0.2
        self.coat = rng.uniform() < 0.2
        self.bag = _colour(rng) if rng.uniform() < 0.3 else None
        self.phone = rng.uniform() < 0.25

    def build(self, x, y, heading, phase, speed, eye):
        sprite = Sprite()
        forward, side = _axes(heading)
        swing = 0.5 * min(speed, 1.4) / 1.4
        bob = 0.012 * self.height * abs(np.cos(phase)) if speed > 0 else 0.0
        sway = 0.006 * np.sin(phase * 0.7) if speed == 0 else 0.0
        base = np.array([x, y, bob]) + sway * side
        self._add_legs(sprite, base, forward, side, phase, swing)
        self._add_trunk(sprite, base, forward, side)
        self._add_arms(sprite, base, forward, side, phase, swing)
        self.add_head(sprite, base + 0.925 * self.height * _UP + 0.012 * self.height * forward,
                      forward, self.height)
        return sprite

    def _add_legs(self, sprite, base, forward, side, phase, swing):
        h = self.height
        for sign in (-1, 1):
            angle = swing * np.sin(phase + (np.pi if sign > 0 else 0.0))
            bend = 1.1 * swing * max(0.0, np.cos(phase + (np.pi if sign > 0 else 0.0)))
            hip = base + 0.5 * h * _UP + sign * 0.05 * h * self.width * side
            knee = hip + 0.245 * h * (np.sin(angle) * forward - np.cos(angle) * _UP)
            ankle = knee + 0.235 * h * (np.sin(angle - bend) * forward - np.cos(angle - bend) * _UP)
            lower = self.skin if self.skirt else self.bottom
            sprite.limb(hip, knee, 0.05 * h * self.width, 0.038 * h, self.bottom)
            sprite.limb(knee, ankle, 0.036 * h, 0.025 * h, lower)
            sprite.limb(ankle, ankle + 0.075 * h * forward - 0.012 * h * _UP, 0.022 * h, 0.018 * h,
                        self.shoes)

    def _add_trunk(self, sprite, base, forward, side):
        h, w = self.height, self.width
        for sign in (-1, 1):
            hip = base + 0.5 * h * _UP + sign * 0.042 * h * w * side
            shoulder = base + 0.785 * h * _UP + sign * 0.068 * h * w * side
            sprite.limb(hip, shoulder, 0.056 * h * w, 0.05 * h * w, self.top)
        waist = base + 0.55 * h * _UP
        if self.skirt or self.coat:
            hem = 0.3 if self.coat else 0.34
            sprite.limb(waist, base + hem * h * _UP, 0.07 * h * w, 0.095 * h * w,
                        self.top if self.coat else self.bottom, nearer=0.05)
        if self.bag is not None:
            sprite.ball(base + 0.68 * h * _UP - 0.1 * h * forward, 0.085 * h, 0.12 * h, self.bag)

    def _add_arms(self, sprite, base, forward, side, phase, swing):
        h = self.height
        for sign in (-1, 1):
            angle = -0.8 * swing * np.sin(phase + (np.pi if sign > 0 else 0.0))
            shoulder = base + 0.8 * h * _UP + sign * 0.115 * h * self.width * side
            elbow = shoulder + 0.165 * h * (np.sin(angle) * forward - np.cos(angle) * _UP)
            raised = 2.0 if self.phone and sign > 0 else angle + 0.25
            hand = elbow + 0.15 * h * (np.sin(raised) * forward - np.cos(raised) * _UP)
            sprite.limb(shoulder, elbow, 0.034 * h, 0.028 * h, self.top)
            sprite.limb(elbow, hand, 0.026 * h, 0.021 * h, self.sleeves)
            sprite.ball(hand, 0.022 * h, 0.022 * h, self.skin)

    def add_head(self, sprite, centre, forward, h):
        sprite.limb(centre - 0.085 * h * _UP, centre, 0.027 * h, 0.027 * h, self.skin)
        sprite.ball(centre, 0.048 * h, 0.066 * h, self.skin, HEAD)
        crown = self.hat if self.hat is not None else self.hair
        sprite.ball(centre - 0.018 * h * forward + 0.022 * h * _UP, 0.05 * h, 0.055 * h, crown, HEAD)
        if self.long_hair:
            sprite.ball(centre - 0.03 * h * forward - 0.02 * h * _UP, 0.05 * h, 0.075 * h, self.hair,
                        HEAD)


class Bicycle:
    class_id = BICYCLE
    radius = 0.8
    stride = 5.0

    def __init__(self, rng):
        self.rider = Person(rng)
        self.rider.height = max(self.rider.height, 1.5)
        self.frame = _colour(rng)
        self.lean = rng.uniform(0.25, 0.6)
        self.basket = rng.uniform() < 0.4

    def build(self, x, y, heading, phase, speed, eye):
        sprite = Sprite()
        forward, side = _axes(heading)
        base = np.array([x, y, 0.0])
        angles = np.linspace(0, 2 * np.pi, 20, endpoint=False)
        for offset in (-0.52, 0.52):
            hub = base + offset * forward + 0.34 * _UP
            rim = [hub + 0.33 * (np.cos(a) * forward + np.sin(a) * _UP) for a in angles]
            sprite.ring(rim, 0.028, (30, 30, 32))
        crank = base + 0.02 * forward + 0.3 * _UP
        seat = base - 0.2 * forward + 0.88 * _UP
        bars = base + 0.42 * forward + 1.0 * _UP
        rear, front = base - 0.52 * forward + 0.34 * _UP, base + 0.52 * forward + 0.34 * _UP
        for start, end in ((rear, crank), (rear, seat), (crank, seat), (crank, bars), (seat, bars),
                           (front, bars)):
            sprite.limb(start, end, 0.022, 0.022, self.frame)
        if self.basket:
            sprite.ball(bars + 0.15 * forward - 0.1 * _UP, 0.17, 0.14, (60, 90, 120))
        self._add_rider(sprite, crank, seat, bars, forward, side, phase)
        return sprite

    def _add_rider(self, sprite, crank, seat, bars, forward, side, phase):
        rider, h = self.rider, self.rider.height
        shoulder = seat + 0.3 * h * (np.sin(self.lean) * forward + np.cos(self.lean) * _UP)
        for sign in (-1, 1):
            turn = phase + (np.pi if sign > 0 else 0.0)
            hip = seat + sign * 0.055 * h * side
            foot = crank + 0.16 * (np.cos(turn) * forward + np.sin(turn) * _UP) + sign * 0.1 * side
            middle = (hip + foot) / 2
            reach = max(0.05, (0.24 * h) ** 2 - np.sum((foot - hip) ** 2) / 4) ** 0.5
            knee = middle + min(reach, 0.3) * forward
            sprite.limb(hip, knee, 0.05 * h, 0.038 * h, rider.bottom)
            sprite.limb(knee, foot, 0.036 * h, 0.026 * h, rider.bottom)
            sprite.ball(foot, 0.045 * h, 0.024 * h, rider.shoes)
            sprite.limb(hip, shoulder + sign * 0.07 * h * side, 0.055 * h, 0.052 * h, rider.top)
            sprite.limb(shoulder + sign * 0.11 * h * side, bars + sign * 0.22 * side, 0.032 * h,
                        0.024 * h, rider.sleeves)
        rider.add_head(sprite, shoulder + 0.13 * h * _UP + 0.05 * h * forward, forward, h)


class _Animal:
    def _add_body(self, sprite, base, forward, side, phase, swing):
        length, shoulder, r = self.length, self.shoulder, self.girth
        rear = base - 0.5 * length * forward + (shoulder - r) * _UP
        chest = base + 0.5 * length * forward + (shoulder - r) * _UP
        sprite.limb(rear, chest, 0.9 * r, r, self.fur)
        for end, shift in ((rear, 0.0), (chest, np.pi / 2)):
            for sign in (-1, 1):
                angle = swing * np.sin(phase + shift + (np.pi if sign > 0 else 0.0))
                top = end + sign * 0.55 * r * side
                paw = top + (shoulder - r) * (np.sin(angle) * forward - np.cos(angle) * _UP)
                paw[2] = max(paw[2], 0.02)
                sprite.limb(top, paw, 0.42 * r, 0.25 * r, self.socks)
        return rear, chest


class Dog(_Animal):
    class_id = DOG
    radius = 0.45
    stride = 0.8

    def __init__(self, rng):
        self.shoulder = rng.uniform(0.42, 0.68)
        self.length = self.shoulder * rng.uniform(1.0, 1.25)
        self.girth = self.shoulder * rng.uniform(0.2, 0.27)
        self.fur = _shade(_pick(rng, _FUR), rng.uniform(0.8, 1.2))
        self.socks = self.fur if rng.uniform() < 0.7 else _shade(self.fur, 1.5)
        self.ears = _shade(self.fur, 0.6)

    def build(self, x, y, heading, phase, speed, eye):
        sprite = Sprite()
        forward, side = _axes(heading)
        base = np.array([x, y, 0.0])
        rear, chest = self._add_body(sprite, base, forward, side, phase, 0.45 if speed > 0 else 0.0)
        r = self.girth
        head = chest + 0.28 * self.shoulder * _UP + 0.22 * self.shoulder * forward
        sprite.limb(chest, head, 0.8 * r, 0.65 * r, self.fur)
        sprite.ball(head, 0.8 * r, 0.75 * r, self.fur)
        sprite.limb(head, head + 1.5 * r * forward - 0.25 * r * _UP, 0.5 * r, 0.33 * r, self.fur)
        for sign in (-1, 1):
            sprite.limb(head + 0.6 * r * sign * side + 0.4 * r * _UP, head + 0.85 * r * sign * side -
                        0.3 * r * _UP, 0.25 * r, 0.25 * r, self.ears)
        wag = 0.12 * np.sin(2.1 * phase) * side
        sprite.limb(rear, rear - 0.32 * self.shoulder * forward + 0.2 * self.shoulder * _UP + wag,
                    0.35 * r, 0.15 * r, self.fur)
        return sprite


class Cat(_Animal):
    class_id = CAT
    radius = 0.35
    stride = 0.5

    def __init__(self, rng):
        self.shoulder = rng.uniform(0.25, 0.31)
        self.length = rng.uniform(0.34, 0.42)
        self.girth = rng.uniform(0.075, 0.095)
        self.fur = _shade(_pick(rng, _FUR), rng.uniform(0.8, 1.2))
        self.socks = self.fur if rng.uniform() < 0.6 else (225, 230, 235)
        self.tail = rng.uniform(0.28, 0.38)

    def build(self, x, y, heading, phase, speed, eye):
        sprite = Sprite()
        forward, side = _axes(heading)
        base = np.array([x, y, 0.0])
        rear, chest = self._add_body(sprite, base, forward, side, phase, 0.4 if speed > 0 else 0.0)
        r = self.girth
        head = chest + 1.0 * r * _UP + 0.9 * r * forward
        sprite.ball(head, 0.95 * r, 0.85 * r, self.fur)
        for sign in (-1, 1):
            ear = head + 0.6 * r * sign * side + 0.6 * r * _UP
            sprite.limb(ear, ear + 0.5 * r * _UP, 0.3 * r, 0.08 * r, self.fur)
        middle = rear - 0.12 * forward + 0.45 * self.tail * _UP
        tip = rear + self.tail * _UP + 0.05 * np.sin(phase) * side
        sprite.limb(rear, middle, 0.3 * r, 0.28 * r, self.fur)
        sprite.limb(middle, tip, 0.28 * r, 0.22 * r, self.fur)
        return sprite


# ---- Vehicles: prisms with a side profile ---------------------------------------------------------

_LIGHT = np.array([-0.35, -0.55, 0.75])  # where most light comes from, for the shades of faces


def _prism(sprite, base, forward, side, profile, half_width, colours, eye, nearer=0.0):
    """Faces of a prism that an eye sees. profile: (along, up) pairs, counter-clockwise seen from the
    left; colours: one for the sides, then one for each strip between two profile points."""
    left = [base + a * forward + u * _UP + half_width * side for a, u in profile]
    right = [base + a * forward + u * _UP - half_width * side for a, u in profile]
    faces = [(left, side, colours[0]), (right, -side, colours[0])]
    for i in range(len(profile)):
        j = (i + 1) % len(profile)
        (a0, u0), (a1, u1) = profile[i], profile[j]
        normal = (u0 - u1) * forward + (a1 - a0) * _UP
        normal = -normal / np.linalg.norm(normal)
        faces.append(([left[i], left[j], right[j], right[i]], normal, colours[1 + i]))
    for points, normal, colour in faces:
        if np.dot(eye - np.mean(points, 0), normal) > 0:
            sprite.face(points, _shade(colour, 0.72 + 0.34 * max(0.0, float(np.dot(normal, _LIGHT)))),
                        nearer)


def _wheels(sprite, base, forward, side, half_width, radius, places, eye, nearer):
    angles = np.linspace(0, 2 * np.pi, 16, endpoint=False)
    for sign in (-1, 1):
        if np.dot(eye - (base + sign * half_width * side), sign * side) <= 0:
            continue
        for place in places:
            hub = base + place * forward + radius * _UP + sign * 1.01 * half_width * side
            for scale, colour in ((1.0, (28, 28, 30)), (0.55, (150, 150, 152))):
                sprite.face([hub + scale * radius * (np.cos(a) * forward + np.sin(a) * _UP)
                             for a in angles], colour, nearer + (0.1 if scale < 1 else 0.0))


class Car:
    class_id = CAR
    radius = 2.3
    stride = 2.0

    def __init__(self, rng):
        self.length, self.half_width = rng.uniform(3.7, 4.8), rng.uniform(0.82, 0.92)
        self.paint = _colour(rng, (0.0, 0.85), (0.12, 0.95))
        self.roof = rng.uniform(1.4, 1.85)
        self.waist = 0.55 * self.roof
        self.boxy = rng.uniform()
        self.glass = _shade((95, 80, 70), rng.uniform(0.4, 1.0))

    def build(self, x, y, heading, phase, speed, eye):
        sprite = Sprite()
        forward, side = _axes(heading)
        base = np.array([x, y, 0.0])
        h = self.length / 2
        bumper = 0.28
        body = [(-h, bumper), (h, bumper), (h, 0.8 * self.waist), (0.5 * h, self.waist),
                (-0.95 * h, self.waist), (-h, 0.85 * self.waist)]
        p = self.paint
        _prism(sprite, base, forward, side, body, self.half_width,
               [p, _shade(p, 0.5), p, p, p, p, p], eye, nearer=-20.0)
        _wheels(sprite, base, forward, side, self.half_width, 0.33, (-0.62 * h, 0.62 * h), eye, -10.0)
        rear_glass = -0.92 * h + 0.25 * h * (1 - self.boxy)
        rear_roof = rear_glass + 0.15 * h
        cabin = [(rear_glass, self.waist), (0.45 * h, self.waist), (0.1 * h, self.roof),
                 (rear_roof, self.roof)]
        _prism(sprite, base, forward, side, cabin, 0.88 * self.half_width,
               [self.glass, p, self.glass, p, self.glass], eye)
        for place, colour in ((h, (200, 235, 245)), (-h, (40, 40, 200))):
            for sign in (-1, 1):
                lamp = base + place * 1.005 * forward + sign * 0.65 * self.half_width * side
                if np.dot(eye - lamp, np.sign(place) * forward) > 0:
                    sprite.ball(lamp + 0.65 * self.waist * _UP, 0.1, 0.07, colour, nearer=30.0)
        return sprite


class Truck:
    class_id = TRUCK
    radius = 3.7
    stride = 3.0

    def __init__(self, rng):
        self.length, self.half_width = rng.uniform(5.8, 7.6), rng.uniform(1.05, 1.2)
        self.cab = _colour(rng, (0.0, 0.9), (0.25, 0.95))
        self.cargo = _colour(rng, (0.0, 0.5), (0.35, 0.95))
        self.top = rng.uniform(2.6, 3.3)
        self.cab_top = rng.uniform(2.1, 2.5)
        self.open_bed = rng.uniform() < 0.25

    def build(self, x, y, heading, phase, speed, eye):
        sprite = Sprite()
        forward, side = _axes(heading)
        base = np.array([x, y, 0.0])
        h = self.length / 2
        split = h - 1.7
        top = 1.5 if self.open_bed else self.top
        cargo = [(-h, 0.75), (split - 0.15, 0.75), (split - 0.15, top), (-h, top)]
        cab = [(split, 0.45), (h, 0.45), (h, 0.6 * self.cab_top), (h - 0.35, self.cab_top),
               (split, self.cab_top)]
        cab_nearer = np.dot(eye - base, forward) > 0
        glass = (70, 62, 55)
        c, b = self.cargo, self.cab
        _prism(sprite, base, forward, side, cargo, self.half_width, [c, _shade(c, 0.4), c, c, c], eye,
               nearer=0.0 if cab_nearer else 20.0)
        _prism(sprite, base, forward, side, cab, self.half_width * 0.95,
               [b, _shade(b, 0.4), b, glass, b, b], eye, nearer=20.0 if cab_nearer else 0.0)
        chassis = [(-h + 0.2, 0.45), (split, 0.45), (split, 0.75), (-h + 0.2, 0.75)]
        _prism(sprite, base, forward, side, chassis, 0.8 * self.half_width, [(40, 40, 42)] * 5, eye, -30.0)
        _wheels(sprite, base, forward, side, self.half_width, 0.45, (-h + 1.2, h - 1.0), eye, 40.0)
        for sign in (-1, 1):  # side windows of the cab
            if np.dot(eye - base, sign * side) > 0:
                pane = [(split + 0.5, 0.62), (h - 0.15, 0.62), (h - 0.4, 0.92), (split + 0.5, 0.92)]
                sprite.face([base + a * forward + u * self.cab_top * _UP +
                             sign * 0.96 * self.half_width * side for a, u in pane], glass, 60.0)
        return sprite


def lamps(figure, x, y, heading, eye):
    """Where a vehicle's lamps shine towards the eye, and in which colour."""
    forward, side = _axes(heading)
    shining = []
    for place, colour in ((figure.length / 2, (190, 225, 255)), (-figure.length / 2, (20, 20, 160))):
        for sign in (-1, 1):
            lamp = (np.array([x, y, 0.65]) + place * forward + sign * 0.65 * figure.half_width * side)
            if np.dot(eye - lamp, np.sign(place) * forward) > 0:
                shining.append((lamp, colour))
    return shining


# ---- Decoys: what looks like a person but has no head ------------------------------------------------

class CoatStand:
    class_id = DECOY
    radius = 0.4

    def __init__(self, rng):
        self.person = Person(rng)
        self.person.coat = rng.uniform() < 0.6
        self.pole = _pick(rng, [(40, 60, 90), (40, 40, 42), (90, 95, 100)])

    def build(self, x, y, heading, phase, speed, eye):
        sprite = Sprite()
        forward, side = _axes(heading)
        base = np.array([x, y, 0.0])
        p = self.person
        sprite.limb(base, base + 0.86 * p.height * _UP, 0.02, 0.02, self.pole)
        for sign in (-1, 1):
            sprite.limb(base + sign * 0.25 * side, base + 0.12 * _UP, 0.02, 0.02, self.pole)
            trousers = base + 0.5 * p.height * _UP + sign * 0.05 * p.height * side
            sprite.limb(trousers, trousers - 0.42 * p.height * _UP, 0.05 * p.height, 0.04 * p.height,
                        p.bottom)
        p._add_trunk(sprite, base, forward, side)
        for sign in (-1, 1):
            shoulder = base + 0.8 * p.height * _UP + sign * 0.115 * p.height * p.width * side
            sprite.limb(shoulder, shoulder - 0.3 * p.height * _UP, 0.036 * p.height, 0.03 * p.height,
                        p.top)
        return sprite


class Bin:
    class_id = DECOY
    radius = 0.45

    def __init__(self, rng):
        self.height, self.half = rng.uniform(0.95, 1.3), rng.uniform(0.24, 0.32)
        self.paint = _colour(rng, (0.2, 0.8), (0.15, 0.6))
        self.lid = _colour(rng, (0.0, 0.9), (0.2, 0.9))

    def build(self, x, y, heading, phase, speed, eye):
        sprite = Sprite()
        forward, side = _axes(heading)
        base = np.array([x, y, 0.0])
        box = [(-self.half, 0.05), (self.half, 0.05), (self.half, self.height), (-self.half, self.height)]
        _prism(sprite, base, forward, side, box, self.half, [self.paint] * 5, eye, -5.0)
        lid = [(-1.1 * self.half, self.height), (1.1 * self.half, self.height),
               (self.half, self.height + 0.12), (-self.half, self.height + 0.12)]
        _prism(sprite, base, forward, side, lid, 1.1 * self.half, [self.lid] * 5, eye, 5.0)
        return sprite


class Poster:
    class_id = DECOY
    radius = 0.6

    def __init__(self, rng):
        self.person = Person(rng)
        self.paper = _shade((215, 220, 225), rng.uniform(0.6, 1.05))

    def build(self, x, y, heading, phase, speed, eye):
        sprite = Sprite()
        _, side = _axes(-np.pi / 2)  # boards face the camera's wall
        base = np.array([x, y, 0.0])
        p, h = self.person, self.person.height
        board = [base + a * side + u * _UP for a, u in ((-0.5, 0.1), (0.5, 0.1), (0.5, 1.75), (-0.5, 1.75))]
        sprite.face(board, self.paper, -5.0)
        front = base + np.array([0.0, -0.02, 0.12])
        for sign in (-1, 1):
            hip = front + 0.47 * h * _UP + sign * 0.05 * h * side
            shoulder = front + 0.77 * h * _UP + sign * 0.07 * h * side
            sprite.limb(hip, hip - 0.42 * h * _UP, 0.05 * h, 0.035 * h, p.bottom)
            sprite.limb(hip, shoulder, 0.056 * h, 0.05 * h, p.top)
            sprite.limb(shoulder + sign * 0.05 * h * side, shoulder + sign * 0.07 * h * side -
                        0.28 * h * _UP, 0.033 * h, 0.025 * h, p.sleeves)
        return sprite


# ---- Street furniture, for occlusion -----------------------------------------------------------------

class Post:
    """A lamp post, a sign post or a bollard."""
    class_id = None
    radius = 0.3

    def __init__(self, rng, height):
        self.height = height
        self.paint = _pick(rng, [(60, 62, 60), (70, 90, 70), (120, 122, 125)])

    def build(self, x, y, heading, phase, speed, eye):
        sprite = Sprite()
        base = np.array([x, y, 0.0])
        sprite.limb(base, base + self.height * _UP, 0.07, 0.05, self.paint)
        sprite.ball(base + 0.1 * _UP, 0.12, 0.1, self.paint)
        return sprite


class Tree:
    class_id = None
    radius = 0.5

    def __init__(self, rng):
        self.height = rng.uniform(2.8, 4.0)
        self.crown = _shade((45, 105, 60), rng.uniform(0.6, 1.3))
        self.lobes = rng.uniform(-0.6, 0.6, (5, 3))

    def build(self, x, y, heading, phase, speed, eye):
        sprite = Sprite()
        base = np.array([x, y, 0.0])
        sprite.limb(base, base + self.height * _UP, 0.14, 0.1, (45, 60, 80))
        for lobe in self.lobes:
            sprite.ball(base + (self.height + 0.6) * _UP + lobe, 0.75, 0.6,
                        _shade(self.crown, 1 + 0.3 * lobe[2]))
        return sprite
