# SPDX-License-Identifier: Apache-2.0
"""What training minimises: which cell predicts which object, and how wrong the prediction is.

Cells are chosen by how well they predict already (C. Feng et al., "TOOD: Task-aligned One-stage Object
Detection", ICCV 2021); boxes are judged by their complete overlap (Z. Zheng et al., "Distance-IoU Loss",
AAAI 2020). Rows of objects are those of pictures.py.
"""
import math

import torch

from network import CLASSES, STRIDES

_CELLS_PER_OBJECT = 10
_SCORE_POWER, _OVERLAP_POWER = 0.5, 4.0
_BOX_WEIGHT = 5.0
_LEAST_BOX_SHARE = 0.2  # of a chosen cell in the box loss, however badly it predicts yet


def cell_centres(width, height):
    """Centres of all cells (A x 2) in network pixels and their strides (A), stride 8 first."""
    centres, strides = [], []
    for stride in STRIDES:
        rows, columns = torch.meshgrid(torch.arange(height // stride), torch.arange(width // stride),
                                       indexing="ij")
        centres.append((torch.stack([columns, rows], -1).reshape(-1, 2) + 0.5) * stride)
        strides.append(torch.full((rows.numel(),), float(stride)))
    return torch.cat(centres), torch.cat(strides)


def flatten(maps):
    """The network's maps as one N x A x (4 + CLASSES) tensor of 32-bit floats."""
    return torch.cat([m.float().flatten(2).transpose(1, 2) for m in maps], 1)


def decode_boxes(values, centres, strides):
    """Left, top, right, bottom in network pixels."""
    distances = (4 * torch.sigmoid(values)) ** 2 * strides[:, None]
    return torch.cat([centres - distances[..., :2], centres + distances[..., 2:]], -1)


def overlaps(a, b):
    """Intersection over union of boxes, over all dimensions but the last."""
    extent = (torch.minimum(a[..., 2:], b[..., 2:]) - torch.maximum(a[..., :2], b[..., :2])).clamp(min=0)
    intersection = extent[..., 0] * extent[..., 1]
    area_a = (a[..., 2] - a[..., 0]) * (a[..., 3] - a[..., 1])
    area_b = (b[..., 2] - b[..., 0]) * (b[..., 3] - b[..., 1])
    return intersection / (area_a + area_b - intersection + 1e-7)


def complete_overlap_loss(predicted, wanted):
    iou = overlaps(predicted, wanted)
    hull = torch.maximum(predicted[..., 2:], wanted[..., 2:]) - torch.minimum(predicted[..., :2],
                                                                            wanted[..., :2])
    diagonal = (hull ** 2).sum(-1) + 1e-7
    apart = ((predicted[..., :2] + predicted[..., 2:] - wanted[..., :2] - wanted[..., 2:]) ** 2).sum(-1) / 4
    shapes = []
    for box in (predicted, wanted):
        size = (box[..., 2:] - box[..., :2]).clamp(min=1e-3)
        shapes.append(torch.atan(size[..., 0] / size[..., 1]))
    difference = 4 / math.pi ** 2 * (shapes[1] - shapes[0]) ** 2
    with torch.no_grad():
        share = difference / (1 - iou + difference + 1e-7)
    return 1 - iou + apart / diagonal + share * difference


class Assignment:
    """For each picture and cell: target scores per class, the box to predict, how much it counts, and
    where class scores are not looked at."""

    @torch.no_grad()
    def __init__(self, boxes, scores, objects, centres, strides):
        labels = objects[..., 0].long()
        real = labels >= 0
        wanted = objects[..., 1:5]
        clear = real & (objects[..., 5] > 0.5)
        inside = self._inside(wanted, centres, strides)                        # N x M x A
        overlap = overlaps(wanted[:, :, None], boxes[:, None])
        own_scores = torch.gather(scores.transpose(1, 2), 1,
                                  labels.clamp(min=0)[..., None].expand(-1, -1, scores.shape[1]))
        fit = own_scores ** _SCORE_POWER * (overlap + 1e-6) ** _OVERLAP_POWER
        fit = fit * (inside & clear[..., None])
        best = torch.topk(fit, _CELLS_PER_OBJECT, -1)
        chosen = torch.zeros_like(fit).scatter_(-1, best.indices, (best.values > 0).float())
        # A cell that several objects choose is assigned to the one that it overlaps most.
        owner = (overlap * chosen).argmax(1)                                   # N x A
        chosen = chosen * torch.nn.functional.one_hot(owner, fit.shape[1]).transpose(1, 2)
        fit = fit * chosen
        most_fit = fit.amax(-1, keepdim=True)
        most_overlap = (overlap * chosen).amax(-1, keepdim=True)
        quality = (fit / (most_fit + 1e-12) * most_overlap).amax(1)            # N x A
        self.positive = chosen.sum(1) > 0
        owner_labels = torch.gather(labels.clamp(min=0), 1, owner)
        self.scores = torch.nn.functional.one_hot(owner_labels, CLASSES) * (
            quality * self.positive)[..., None]
        self.boxes = torch.gather(wanted, 1, owner[..., None].expand(-1, -1, 4))
        self.share = quality.clamp(min=_LEAST_BOX_SHARE) * self.positive
        unclear = (inside & (real & ~clear)[..., None]).float()                # N x M x A
        per_class = torch.nn.functional.one_hot(labels.clamp(min=0), CLASSES).float()
        ignored = torch.einsum("nma,nmc->nac", unclear, per_class) > 0
        self.looked_at = ~ignored | self.positive[..., None]

    @staticmethod
    def _inside(wanted, centres, strides):
        x, y = centres[:, 0], centres[:, 1]
        left, top, right, bottom = (wanted[..., i, None] for i in range(4))
        inside = (x > left) & (x < right) & (y > top) & (y < bottom)
        # Objects smaller than a cell may lie between the centres: the nearest cell is chosen.
        half = STRIDES[0] / 2
        near = ((x - (left + right) / 2).abs() <= half) & ((y - (top + bottom) / 2).abs() <= half)
        return inside | (near & (strides == STRIDES[0]))


def detection_loss(maps, objects, centres, strides):
    """The loss of a batch, and its two parts (scores, boxes) as numbers."""
    values = flatten(maps)
    boxes = decode_boxes(values[..., :4], centres, strides)
    logits = values[..., 4:]
    target = Assignment(boxes.detach(), torch.sigmoid(logits.detach()), objects, centres, strides)
    total = target.scores.sum().clamp(min=1.0)
    score_loss = torch.nn.functional.binary_cross_entropy_with_logits(logits, target.scores.float(),
                                                                      reduction="none")
    score_loss = (score_loss * target.looked_at).sum() / total
    positive = target.positive
    box_loss = complete_overlap_loss(boxes[positive], target.boxes[positive])
    box_loss = (box_loss * target.share[positive]).sum() / total
    return score_loss + _BOX_WEIGHT * box_loss, float(score_loss), float(box_loss)
