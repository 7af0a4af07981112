# SPDX-License-Identifier: Apache-2.0
"""Which seeds are for which purpose. Training must never see a scene that anything is measured on, so each
purpose has its own range of seeds.
"""
import hashlib
from pathlib import Path

TRAINING = range(100000, 101600)    # pictures to train on
LOOKALIKES = range(150000, 150600)  # pictures with decoys, for the second stage of training
VALIDATION = range(200000, 200060)  # pictures to watch the training with
CALIBRATION = range(100000, 100030)  # of the training scenes, one picture each: for the INT16 scales
TEST = range(300000, 300260)        # pictures for average precision
CLIPS = range(400000, 400012)       # clips for tracking
DECOY_CLIPS = range(500000, 500020) # clips for strict mode
STANDING_CLIPS = range(600000, 600010) # clips for the static filter and the stabiliser
DEMO = 700005                       # the clip that is kept beside the network, 30 s of a day

PICTURES_PER_SCENE = 8
SCENE_SECONDS = 20.0                # of scenes that pictures are taken of
CLIP_SECONDS = 40.0
CLIP_RATE = 10                      # frames per second


def code_of_scenes():
    """A word that changes with the code that renders, so that nothing rendered before is used again."""
    folder = Path(__file__).resolve().parent / "scene"
    code = b"".join(path.read_bytes() for path in sorted(folder.glob("*.py")))
    return hashlib.sha256(code).hexdigest()[:16]
