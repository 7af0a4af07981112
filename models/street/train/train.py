#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Trains the street network and exports it to ONNX. One command, a fixed seed, no graphics card:

    models/street/train/train.py

Needs Debian's python3-torch, python3-opencv and python3-numpy. Pictures, checkpoints and the log go to
the work folder (build/street-training); the network and the log's figures go to models/street.
"""
import argparse
import copy
import json
import math
import os
import queue
import sys
import threading
import time
from pathlib import Path

import numpy as np
import torch

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

import pictures  # noqa: E402  (finds actors and split too)
import actors  # noqa: E402
from loss import cell_centres, detection_loss  # noqa: E402
from network import STRIDES, StreetNet, folded, weight_count  # noqa: E402
from split import LOOKALIKES, TRAINING, VALIDATION  # noqa: E402

SEED = 7
BATCH = 16
WEIGHT_DECAY = 0.02
AVERAGE = 0.998            # of the exponential moving average of weights, which is what is exported


class Stage:
    """A part of the training, with its own pictures. It goes on from the averaged weights of the
    stage before."""

    def __init__(self, name, seeds, mix, epochs, peak_rate, last_rate, warm_up):
        self.name, self.seeds, self.mix, self.epochs = name, seeds, mix, epochs
        self.peak_rate, self.last_rate = peak_rate, last_rate
        self.warm_up = warm_up  # iterations

    def learning_rate(self, iteration, total):
        if iteration < self.warm_up:
            return self.peak_rate * (iteration + 1) / self.warm_up
        done = (iteration - self.warm_up) / max(1, total - self.warm_up)
        return self.last_rate + (self.peak_rate - self.last_rate) * (1 + math.cos(math.pi * done)) / 2


STAGES = [Stage("training", TRAINING, actors.BUSY, 12, 2e-3, 2e-5, 400),
          Stage("lookalikes", LOOKALIKES, actors.LOOKALIKES, 6, 4e-4, 1e-5, 100)]


def prepare(batch, rng=None):
    """Network input (N x 3 x H x W, 0 to 1) and objects; changed at random when there is a generator."""
    some, objects = batch
    x = torch.from_numpy(some).permute(0, 3, 1, 2).to(memory_format=torch.channels_last).float() / 255
    objects = torch.from_numpy(objects)
    if rng is not None:
        if rng.uniform() < 0.5:
            x = x.flip(3)
            left, right = objects[..., 1].clone(), objects[..., 3].clone()
            objects[..., 1], objects[..., 3] = pictures.WIDTH - right, pictures.WIDTH - left
        gain = torch.from_numpy(rng.uniform(0.8, 1.2, (len(x), 1, 1, 1)) *
                                rng.uniform(0.93, 1.07, (len(x), 3, 1, 1))).float()
        x = (x * gain + torch.from_numpy(rng.uniform(-0.04, 0.04, (len(x), 1, 1, 1))).float()).clamp(0, 1)
    most = max(1, int((objects[..., 0] >= 0).sum(1).max()))
    return x, objects[:, :most]


def batches(data, order):
    """Batches in the given order, read ahead by a thread."""
    ahead = queue.Queue(4)

    def read():
        for start in range(0, len(order) - BATCH + 1, BATCH):
            index = np.sort(order[start:start + BATCH])
            ahead.put((data[0][index], data[1][index].copy()))
        ahead.put(None)

    threading.Thread(target=read, daemon=True).start()
    while (batch := ahead.get()) is not None:
        yield batch


def parameter_groups(network):
    """Weight decay acts on weights, not on biases and normalisation."""
    weights = [p for p in network.parameters() if p.dim() > 1]
    others = [p for p in network.parameters() if p.dim() <= 1]
    return [{"params": weights, "weight_decay": WEIGHT_DECAY}, {"params": others, "weight_decay": 0.0}]


def update_average(average, network, iteration):
    share = min(AVERAGE, (1 + iteration) / (10 + iteration))
    for mine, new in zip(average.state_dict().values(), network.state_dict().values()):
        if mine.dtype.is_floating_point:
            mine.mul_(share).add_(new, alpha=1 - share)
        else:
            mine.copy_(new)


@torch.no_grad()
def validate(network, data, cells):
    network.eval()
    losses = [detection_loss(network(x), objects, *cells)[1:]
              for x, objects in map(prepare, batches(data, np.arange(len(data[1]))))]
    return np.mean(losses, 0)


def train_epoch(stage, network, average, optimiser, data, cells, rng, epoch, total):
    network.train()
    started, sums, order = time.time(), np.zeros(2), rng.permutation(len(data[1]))
    count = len(order) // BATCH
    for i, batch in enumerate(batches(data, order)):
        iteration = epoch * count + i
        for group in optimiser.param_groups:
            group["lr"] = stage.learning_rate(iteration, total)
        x, objects = prepare(batch, rng)
        with torch.autocast("cpu", dtype=torch.bfloat16):
            maps = network(x)
        loss, *parts = detection_loss(maps, objects, *cells)
        optimiser.zero_grad(set_to_none=True)
        loss.backward()
        torch.nn.utils.clip_grad_norm_(network.parameters(), 10.0)
        optimiser.step()
        update_average(average, network, iteration)
        sums += parts
        if i % 10 == 9:
            print(f"\r{stage.name}, epoch {epoch + 1}: {i + 1} of {count}, scores {sums[0] / (i + 1):.3f}, boxes "
                  f"{sums[1] / (i + 1):.3f}, {BATCH * (i + 1) / (time.time() - started):.0f} pictures/s ",
                  end="", file=sys.stderr, flush=True)
    print(file=sys.stderr)
    return sums / count


def export(network, path):
    example = torch.zeros(1, 3, pictures.HEIGHT, pictures.WIDTH)
    # PRESERVE: the exporter would fold the towers' normalisation too, into a copy of the shared weights
    # for each stride.
    torch.onnx.export(folded(network), example, str(path), opset_version=11, input_names=["picture"],
                      output_names=[f"stride{s}" for s in STRIDES],
                      training=torch.onnx.TrainingMode.PRESERVE, do_constant_folding=False)


def train_stage(number, network, validation, cells, work):
    """Trains the network, which becomes its average; returns the log's figures."""
    stage, started = STAGES[number], time.time()
    cpu_started, rng = time.process_time(), np.random.default_rng(SEED + number)
    data = pictures.load(work, stage.name, stage.seeds, stage.mix)
    average = copy.deepcopy(network).eval()
    for parameter in average.parameters():
        parameter.requires_grad_(False)
    optimiser = torch.optim.AdamW(parameter_groups(network), lr=stage.peak_rate)
    total = stage.epochs * (len(data[1]) // BATCH)
    epochs = []
    for epoch in range(stage.epochs):
        scores, boxes = train_epoch(stage, network, average, optimiser, data, cells, rng, epoch, total)
        validated = validate(average, validation, cells)
        epochs.append({"epoch": epoch + 1, "score_loss": round(scores, 4), "box_loss": round(boxes, 4),
                       "validation_score_loss": round(float(validated[0]), 4),
                       "validation_box_loss": round(float(validated[1]), 4),
                       "minutes": round((time.time() - started) / 60, 1),
                       "cpu_minutes": round((time.process_time() - cpu_started) / 60, 1)})
        print(json.dumps(epochs[-1]), flush=True)
    network.load_state_dict(average.state_dict())
    return {"stage": stage.name, "pictures": len(data[1]), "iterations": total, "epochs": epochs}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("--work", type=Path, default=HERE.parent.parent.parent / "build/street-training",
                        help="folder for pictures and for what each stage leaves")
    parser.add_argument("--output", type=Path, default=HERE.parent / "street.onnx", help="the network")
    parser.add_argument("--resume", action="store_true", help="go on after the last complete stage")
    options = parser.parse_args()

    torch.set_num_threads(os.cpu_count())
    torch.manual_seed(SEED)
    network = StreetNet().to(memory_format=torch.channels_last)
    print(f"{weight_count(network)} weights")
    validation = pictures.load(options.work, "validation", VALIDATION, actors.BUSY)
    cells = cell_centres(pictures.WIDTH, pictures.HEIGHT)
    stages = []
    for number, stage in enumerate(STAGES):
        weights = options.work / f"{stage.name}.pt"
        figures = options.work / f"{stage.name}.json"
        if options.resume and weights.exists() and figures.exists():
            network.load_state_dict(torch.load(weights))
            stages.append(json.loads(figures.read_text()))
            continue
        stages.append(train_stage(number, network, validation, cells, options.work))
        torch.save(network.state_dict(), weights)
        figures.write_text(json.dumps(stages[-1]))
    export(network.eval(), options.output)
    log = {"seed": SEED, "weights": weight_count(network), "batch": BATCH, "torch": torch.__version__,
           "threads": torch.get_num_threads(), "validation_pictures": len(validation[1]),
           "stages": stages}
    options.output.with_suffix(".log.json").write_text(json.dumps(log, indent=1) + "\n")
    minutes = sum(stage["epochs"][-1]["minutes"] for stage in stages)
    print(f"{options.output}: trained in {minutes:.0f} minutes")


if __name__ == "__main__":
    main()
