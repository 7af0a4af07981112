# SPDX-License-Identifier: Apache-2.0
"""How much faster the shipped library has to be: the one table of required ratios.

The plain library has the plain version of six routines and shares all else with the shipped one. Its bounds are
three quarters of what was measured; where nearly all work is shared, the bound keeps the shipped one from being
slower.

Each ratio is the time of one benchmark over the time of another. "at least" rows compare the plain
library, or OpenCV, with the shipped one; "at most" rows compare the shipped one with a floor."""
import dataclasses


@dataclasses.dataclass(frozen=True)
class Requirement:
    work: str
    upper: str  # benchmark above the line of the ratio
    lower: str  # and below
    bound: float
    at_least: bool = True

    def is_met(self, ratio):
        return ratio >= self.bound if self.at_least else ratio <= self.bound


def faster_than_plain(work, name, bound):
    return Requirement(work, f"{name}/plain", f"{name}/shipped", bound)


def close_to_floor(work, name, floor, bound):
    return Requirement(work, f"{name}/shipped", f"{name}/{floor}", bound, at_least=False)


REQUIREMENTS = [
    *(faster_than_plain(f"decode FP32, {classes} classes, {kept} kept",
                        f"decode_fp32/classes:{classes}/kept:{kept}", bound)
      for classes, bounds in ((3, (6, 5, 1.7, 0.7)), (80, (6, 7, 4.5, 0.9)))
      for kept, bound in zip((0, 20, 200, "all"), bounds)),
    *(faster_than_plain(f"decode INT16, {classes} classes, 20 kept",
                        f"decode_int16/classes:{classes}/kept:20", bound)
      for classes, bound in ((3, 4.5), (80, 16))),
    *(faster_than_plain(f"decode FP32, 17 key points, {kept} kept",
                        f"decode_keypoints/points:17/kept:{kept}", bound)
      for kept, bound in ((20, 1.2), (200, 0.8))),
    *(close_to_floor(f"scan against reading, {classes} classes", f"scan/classes:{classes}", "lines", bound)
      for classes, bound in ((3, 1.6), (8, 1.9), (80, 1.8))),
    *(faster_than_plain(f"sort and suppression, {boxes} boxes", f"sort_nms/boxes:{boxes}", bound)
      for boxes, bound in ((20, 1.1), (200, 2.7), (5000, 2.9))),
    *(Requirement(f"sort and suppression against OpenCV, {boxes} boxes",
                  f"sort_nms_any_class/boxes:{boxes}/opencv",
                  f"sort_nms_any_class/boxes:{boxes}/shipped", bound)
      for boxes, bound in ((20, 1.5), (200, 5), (5000, 5))),
    *(faster_than_plain(f"accelerator-decoded {work}, 200 rows", f"ipu_decode_{name}/rows:200", 2)
      for work, name in (("FP32", "fp32/layout:B"), ("FP32 with 17 key points", "fp32/layout:C"),
                         ("INT16", "int16/layout:B"))),
    *(faster_than_plain(f"tracking, {objects} objects", f"track/objects:{objects}", bound)
      for objects, bound in ((10, 0.9), (50, 3.6), (200, 5.8))),
    *(faster_than_plain(f"log line {work} to {place}", f"{name}/to:{to}", 8)
      for place, to in (("/dev/null", "null"), ("a pipe", "pipe"))
      for work, name in (("with a text", "log_text"), ("with a number", "log_count"))),
    faster_than_plain("whole run, 20 boxes, log to /dev/null", "run/boxes:20/log:null", 4.7),
]
