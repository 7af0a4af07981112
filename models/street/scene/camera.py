# SPDX-License-Identifier: Apache-2.0
"""The camera: where it hangs, and where it sees a point of the world.

World coordinates are metres: x along the street, y away from the camera's wall, z up. Picture
coordinates are pixels of the canvas, which is the video's frame with a margin on every side; the
margin is what camera shake moves the frame over. street.py cuts the frame out.
"""
import numpy as np

FRAME_WIDTH = 1024   # pixels of the video
FRAME_HEIGHT = 576
MARGIN = 6           # pixels of the canvas beyond the frame, each side
CANVAS_WIDTH = FRAME_WIDTH + 2 * MARGIN
CANVAS_HEIGHT = FRAME_HEIGHT + 2 * MARGIN
NEAREST = 1.0        # metres; what is closer to the lens is not drawn


class Camera:
    """A pinhole camera at (0, 0, height), turned by yaw, tilted down by pitch (radians)."""

    def __init__(self, height, yaw, pitch, focal):
        self.height = height
        self.focal = focal
        self.forward = np.array([np.sin(yaw) * np.cos(pitch), np.cos(yaw) * np.cos(pitch),
                                 -np.sin(pitch)])
        self.right = np.array([np.cos(yaw), -np.sin(yaw), 0.0])
        self.down = np.cross(self.forward, self.right)
        self.axes = np.stack([self.right, self.down, self.forward])
        self.position = np.array([0.0, 0.0, height])

    @staticmethod
    def random(rng):
        height = rng.uniform(4.8, 6.6)
        looked_at = rng.uniform(11.0, 13.5)  # metres to the middle of the picture, on the ground
        return Camera(height, rng.uniform(-0.3, 0.3), np.arctan2(height, looked_at),
                      rng.uniform(950.0, 1120.0))

    def project(self, points):
        """Points (N x 3) to pixels (N x 2) and depths (N); points behind the lens come out at
        NEAREST, so test the depth first."""
        seen = (np.asarray(points, float) - self.position) @ self.axes.T
        depth = seen[:, 2]
        scale = self.focal / np.maximum(depth, NEAREST)
        pixels = seen[:, :2] * scale[:, None] + (CANVAS_WIDTH / 2, CANVAS_HEIGHT / 2)
        return pixels, depth

    def ground_under(self, step):
        """Ground positions (rows x columns x 2) seen by every step-th pixel, and whether the pixel
        sees ground at all."""
        columns, rows = np.meshgrid(np.arange(0, CANVAS_WIDTH, step), np.arange(0, CANVAS_HEIGHT, step))
        rays = (self.forward + ((columns - CANVAS_WIDTH / 2) / self.focal)[..., None] * self.right +
                ((rows - CANVAS_HEIGHT / 2) / self.focal)[..., None] * self.down)
        hits = rays[..., 2] < -1e-3
        distance = self.height / np.where(hits, -rays[..., 2], 1.0)
        return rays[..., :2] * distance[..., None], hits
