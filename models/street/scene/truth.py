# SPDX-License-Identifier: Apache-2.0
"""Truth files: COCO JSON for pictures and frames, MOT text for clips and for the decoys in them.

COCO: image ids are picture numbers from 1; annotations have, beside COCO's own members, "ignore" (1: too
small or too much hidden), "occluded" (hidden share), "moving" and "track_id". MOT rows are
frame,id,left,top,width,height,consider,class,visibility,moving with frames from 1; consider is 0 for
what is to be ignored. Boxes are in frame pixels; category ids are the library's class ids, and -1 for
decoys, which have a separate MOT file.
"""
import json

from camera import FRAME_HEIGHT, FRAME_WIDTH
from figures import CLASS_NAMES, DECOY


def _image(number, file_name):
    return {"id": number, "file_name": file_name, "width": FRAME_WIDTH, "height": FRAME_HEIGHT}


def _annotation(number, image, truth):
    return {"id": number, "image_id": image, "category_id": truth.class_id,
            "bbox": [truth.left, truth.top, truth.width, truth.height],
            "area": truth.width * truth.height, "iscrowd": 0, "ignore": int(truth.ignore),
            "occluded": round(truth.hidden, 3), "moving": int(truth.moving), "track_id": truth.track_id}


def write_coco(path, frames):
    """frames: (file name, Truth records), in order."""
    images, annotations = [], []
    for i, (file_name, truths) in enumerate(frames):
        images.append(_image(i + 1, file_name))
        for truth in (t for t in truths if t.class_id != DECOY):
            annotations.append(_annotation(len(annotations) + 1, i + 1, truth))
    categories = [{"id": i, "name": name} for i, name in enumerate(CLASS_NAMES)]
    parts = {"images": images, "annotations": annotations, "categories": categories}
    with open(path, "w", encoding="utf-8") as file:  # one record per line, to be read and compared
        file.write("{\n" + ",\n".join(
            f'"{name}": [\n' + ",\n".join(json.dumps(item) for item in items) + "\n]"
            for name, items in parts.items()) + "\n}\n")


def write_mot(path, frames, decoys=False):
    """frames: (file name, Truth records), in order. decoys: those instead of the objects."""
    with open(path, "w", encoding="utf-8") as file:
        for i, (_, truths) in enumerate(frames):
            for t in (t for t in truths if (t.class_id == DECOY) == decoys):
                file.write(f"{i + 1},{t.track_id},{t.left},{t.top},{t.width},{t.height},"
                           f"{int(not t.ignore)},{t.class_id},{1 - t.hidden:.3f},{int(t.moving)}\n")
