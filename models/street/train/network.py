# SPDX-License-Identifier: Apache-2.0
"""The network: a small convolutional backbone, a feature pyramid, and one head for three strides.

Output per stride: 4 + 7 channels for each cell, which libolvex_det decodes on the CPU: the distances from
the cell's centre to the left, top, right and bottom side as (4 sigmoid(v))^2 strides, then a logit for
each class.
"""
import copy

import torch
from torch import nn

CLASSES = 7
STRIDES = (8, 16, 32)
_PYRAMID = 48  # channels


class Unit(nn.Module):
    """3x3 (or 1x1) convolution, normalisation, rectifier; optionally added to its input."""

    def __init__(self, inputs, outputs, stride=1, kernel=3, residual=False):
        super().__init__()
        self.convolution = nn.Conv2d(inputs, outputs, kernel, stride, kernel // 2, bias=False)
        self.norm = nn.BatchNorm2d(outputs, eps=1e-3, momentum=0.03)
        self.residual = residual

    def forward(self, x):
        y = self.norm(self.convolution(x))
        return torch.relu(x + y if self.residual else y)


class Context(nn.Module):
    """Widens the view by repeated pooling: K. He et al., "Spatial Pyramid Pooling in Deep Convolutional
    Networks for Visual Recognition", ECCV 2014, with equal pools one after the other."""

    def __init__(self, channels):
        super().__init__()
        self.reduce = Unit(channels, channels // 2, kernel=1)
        self.pool = nn.MaxPool2d(5, 1, 2)
        self.merge = Unit(channels // 2 * 4, channels, kernel=1)

    def forward(self, x):
        features = [self.reduce(x)]
        for _ in range(3):
            features.append(self.pool(features[-1]))
        return self.merge(torch.cat(features, 1))


class Tower(nn.Module):
    """One 3x3 convolution for all strides, with a normalisation for each: the strides' features differ in
    mean and spread, and one set of running statistics would fit none of them."""

    def __init__(self, channels):
        super().__init__()
        self.convolution = nn.Conv2d(channels, channels, 3, 1, 1, bias=False)
        self.norms = nn.ModuleList([nn.BatchNorm2d(channels, eps=1e-3, momentum=0.03) for _ in STRIDES])

    def forward(self, x, level):
        return torch.relu(self.norms[level](self.convolution(x)))


class StreetNet(nn.Module):
    def __init__(self):
        super().__init__()
        self.stride4 = nn.Sequential(Unit(3, 16, 2), Unit(16, 32, 2), Unit(32, 32, residual=True))
        self.stride8 = nn.Sequential(Unit(32, 48, 2), Unit(48, 48, residual=True),
                                     Unit(48, 48, residual=True))
        self.stride16 = nn.Sequential(Unit(48, 72, 2), Unit(72, 72, residual=True),
                                      Unit(72, 72, residual=True))
        self.stride32 = nn.Sequential(Unit(72, 72, 2), Unit(72, 72, residual=True), Context(72))
        # T.-Y. Lin et al., "Feature Pyramid Networks for Object Detection", CVPR 2017.
        self.lateral = nn.ModuleList([Unit(c, _PYRAMID, kernel=1) for c in (48, 72, 72)])
        self.smooth = nn.ModuleList([Unit(_PYRAMID, _PYRAMID) for _ in range(2)])
        self.class_tower = Tower(_PYRAMID)
        self.box_tower = Tower(_PYRAMID)
        self.classes = nn.ModuleList([nn.Conv2d(_PYRAMID, CLASSES, 1) for _ in STRIDES])
        self.boxes = nn.ModuleList([nn.Conv2d(_PYRAMID, 4, 1) for _ in STRIDES])
        for layer in self.classes:
            nn.init.constant_(layer.bias, -4.6)  # scores start at 0.01

    def forward(self, x):
        """Three maps N x (4 + CLASSES) x H x W, stride 8 first."""
        features = [self.stride8(self.stride4(x))]
        features.append(self.stride16(features[0]))
        features.append(self.stride32(features[1]))
        levels = [lateral(f) for lateral, f in zip(self.lateral, features)]
        for i in (1, 0):
            larger = nn.functional.interpolate(levels[i + 1], scale_factor=2, mode="nearest")
            levels[i] = self.smooth[i](levels[i] + larger)
        return [torch.cat([self.boxes[i](self.box_tower(level, i)),
                           self.classes[i](self.class_tower(level, i))], 1)
                for i, level in enumerate(levels)]


def folded(network):
    """A copy for inference: where it can be, normalisation is part of the convolutions."""
    network = copy.deepcopy(network).to(memory_format=torch.contiguous_format).eval()
    for module in network.modules():
        if isinstance(module, Unit):
            module.convolution = torch.nn.utils.fusion.fuse_conv_bn_eval(module.convolution, module.norm)
            module.norm = nn.Identity()
    return network


def weight_count(network):
    """Numbers that the network for inference is made of."""
    return sum(values.numel() for values in folded(network).state_dict().values()
               if values.dtype.is_floating_point)
