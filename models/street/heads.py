#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the street network with another head: same weights and same objects, other outputs.

    heads.py --list
    heads.py combined -o combined.onnx
    heads.py combined -o combined.onnx --variant dynamic --variant metadata
    heads.py --all -o FOLDER
    heads.py --check                 # all families over a few frames of the clip
    heads.py --check anchors priors
    heads.py --measure build/dev/bin/olvex-det         # all families over the whole clip

For proving what decodes such networks: the street's layers are decoded inside the graph and encoded again as
the family has it, so that decoding the new outputs gives the street's own boxes. --check does so with
decoders that share nothing with what writes the networks, and exits with 1 when a box differs. --measure packs
each network with olvex-det, without options, and exits with 1 when its average precision differs by more than
0.005 from that of the street's own layers, limited to what the family can express.
"""
import argparse
import functools
import os
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
NETWORK = HERE / "street.onnx"

try:
    import onnx

    import head_families
    import head_priors
    import head_variants
    from head_graph import HeadGraph
except ModuleNotFoundError as error:
    if error.name not in ("onnx", "numpy"):
        raise
    sys.exit(f"heads.py: no Python module {error.name}: apt-get install python3-onnx python3-opencv, and start it "
             "with /usr/bin/python3")

# Family: builder, and what the network's outputs are. nc: classes, N: cells of all strides, S: stride.
FAMILIES = {
    "combined": (head_families.combined, "1 x 4+nc x N: centre and size in pixels, class scores"),
    "combined-rows": (head_families.combined_rows, "the same as 1 x N x 4+nc"),
    "combined-keypoints": (head_families.combined_keypoints,
                           "1 x 4+1+3K x N: persons, with x, y, score of K points"),
    "end-to-end": (head_families.end_to_end,
                   "1 x N x 6: two corners in pixels, score, class id; all cells, not sorted"),
    "objectness": (head_families.objectness,
                   "1 x N x 5+nc: centre and size in pixels, objectness, classes; score is their product"),
    "objectness-offsets": (head_families.objectness_offsets,
                           "the same with offsets from the cell's corner and log sizes, in cells"),
    "anchors": (head_priors.anchors, "for each S 1 x A(5+nc) x H x W: logits relative to three anchors"),
    "anchors-5d": (head_priors.anchors_5d, "the same as 1 x A x H x W x 5+nc"),
    "anchors-decoded": (head_priors.anchors_decoded, "1 x A*N x 5+nc: the same in pixels, scores 0 to 1"),
    "distance-bins": (head_families.distance_bins,
                      "for each S class scores 1 x HW x nc, and 8 bins for each side's distance 1 x HW x 32"),
    "distance-bins-many": (head_families.distance_bins_many, "the same with 16 bins, 1 x HW x 64"),
    "distance-bins-joined": (head_families.distance_bins_joined, "both side by side, for each S 1 x HW x nc+32"),
    "distance-bins-joined-planes": (head_families.distance_bins_joined_planes, "the same as 1 x nc+32 x H x W"),
    "distance-bins-one-output": (head_families.distance_bins_one_output, "the same of all strides, 1 x N x nc+32"),
    "cls-obj-box-keypoints": (head_families.cls_obj_box_keypoints,
                              "for each S 1 x HW x 1, 1, 4 and 10: persons, score sqrt(cls obj), points"),
    "priors": (head_priors.priors, "1 x P x 4 relative to priors of four strides, 1 x P x 1+nc with background"),
    "priors-landmarks": (head_priors.priors_landmarks,
                         "persons: the same of three strides with two priors each, and points 1 x P x 10"),
    "priors-no-background": (head_priors.priors_no_background, "as priors, with scores 1 x P x nc"),
    "score-distance-keypoints": (head_families.score_distance_keypoints,
                                 "for each S 2HW x 1, 4 and 10: persons, two anchors at a cell's corner"),
    "own-formula": (head_families.own_formula,
                    "1 x 5+nc x H x W of stride 16: score objectness^0.6 class^0.4, tanh offset, sigmoid size"),
    "boxes-and-scores": (head_families.boxes_and_scores, "1 x N x 4, two corners as fractions; 1 x N x nc"),
    "raw": (head_families.raw, "as it is: for each S 1 x 4+nc x H x W"),
}

# What families that cannot express every box are compared with.
LIMITED = {f"raw-as-{family}": (functools.partial(head_families.raw_limited, reach=reach),
                                f"raw without the boxes that {family} cannot express")
           for family, reach in (("anchors", head_priors.anchor_reach), ("distance-bins", head_families.bin_reach),
                                 ("own-formula", head_families.own_reach))}
FAMILIES.update(LIMITED)

CHANGES = {**head_variants.VARIANTS, **head_variants.FAULTS}

# Of these the only class is the first, a person, which has key points.
PERSONS = ("combined-keypoints", "cls-obj-box-keypoints", "priors-landmarks", "score-distance-keypoints")


def reference_of(family):
    """What the family is compared with: the street's own layers, limited to the boxes that it can express."""
    if family == "distance-bins-many":
        return "raw"
    return next((name for name in LIMITED if family.startswith(name.removeprefix("raw-as-"))), "raw")


def facts_of(family):
    names = (HERE / "classes.txt").read_text(encoding="utf-8").split()
    if family in PERSONS:
        return head_variants.Facts(names[:1], len(head_families.POINTS))
    return head_variants.Facts(names, 0)


def built(family):
    graph = HeadGraph(NETWORK)
    FAMILIES[family][0](graph)
    onnx.helper.set_model_props(graph.model, head_variants.INPUT)
    return graph.model


def write(family, variants, path):
    """The file appears when it is complete; what stood there before stays until then."""
    model = built(family)
    for variant in variants:
        CHANGES[variant][0](model, facts_of(family))
    onnx.checker.check_model(model)
    partial = path.with_name(path.name + ".part")
    try:
        partial.write_bytes(model.SerializeToString())
        os.replace(partial, path)
    except OSError as error:
        partial.unlink(missing_ok=True)
        sys.exit(f"heads.py: cannot write {path}: {error.strerror}")


def listing():
    lines = [f"{name:28} {what}" for name, (_, what) in FAMILIES.items()]
    lines += ["", "Variants:"] + [f"{name:28} {what}" for name, (_, what) in CHANGES.items()]
    return "\n".join(lines)


def checked_options():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("families", nargs="*", metavar="FAMILY", help="one of --list")
    parser.add_argument("-o", "--output", type=Path, metavar="FILE", help="network to write; with --all a folder")
    parser.add_argument("--variant", action="append", default=[], choices=CHANGES,
                        help="change the network as some exporters would write it; may be given again, done in\n"
                             "that order; OpenCV 4.6 does not load all of them")
    parser.add_argument("--all", action="store_true", help="write every family, as FAMILY.onnx")
    parser.add_argument("--list", action="store_true", help="print families and variants")
    parser.add_argument("--check", action="store_true", help="decode and compare with the street's own boxes")
    parser.add_argument("--measure", type=Path, metavar="OLVEX_DET",
                        help="measure average precision over the clip, about half a minute for each family")
    options = parser.parse_args()
    unknown = [name for name in options.families if name not in FAMILIES]
    if unknown:
        parser.error(f"no family '{unknown[0]}'; --list prints them")
    reports = options.list + options.check + (options.measure is not None)
    if reports + options.all > 1:
        parser.error("--list, --all, --check and --measure exclude one another")
    if (options.check or options.measure) and options.output:
        parser.error("--check and --measure take no -o")
    if options.check and options.variant:
        parser.error("--check takes no --variant")
    if options.measure and not (options.measure.is_file() and os.access(options.measure, os.X_OK)):
        parser.error(f"--measure: {options.measure} is no program")
    if options.all and options.families:
        parser.error("--all takes no FAMILY")
    if not reports:
        if options.output is None:
            parser.error("-o says what to write")
        if not options.all and len(options.families) != 1:
            parser.error("one FAMILY, or --all")
    return options


def main():
    options = checked_options()
    if options.list:
        print(listing())
    elif options.check:
        from head_check import check
        return check({name: built(name) for name in options.families or FAMILIES}, NETWORK)
    elif options.measure:
        from head_check import measure
        families = options.families or [name for name in FAMILIES if name not in LIMITED]
        return measure(options.measure.resolve(), {name: (reference_of(name), name in PERSONS) for name in families},
                       tuple(options.variant), write)
    elif options.all:
        try:
            options.output.mkdir(parents=True, exist_ok=True)
        except OSError as error:
            sys.exit(f"heads.py: cannot make the folder {options.output}: {error.strerror}")
        for family in FAMILIES:
            write(family, options.variant, options.output / f"{family}.onnx")
    else:
        write(options.families[0], options.variant, options.output)
    return 0


if __name__ == "__main__":
    sys.exit(main())
