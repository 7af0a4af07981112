// SPDX-License-Identifier: Apache-2.0
// last_output.cpp - the only tool source that reads the object behind the public handle
// (video/det/include/det_schedule.h).
#include "tools/inside/last_output.h"

#include <algorithm>

#include "olvex_det.h"
#include "tools/common/command.h"
#include "video/det/include/det_schedule.h"

namespace olvex_tools {

namespace {

// The entries from begin up to end whose class the model does not hide, in the list's order.
std::vector<BoxInfo*> shown_entries(olvex::vector<BoxInfo>& list, std::size_t begin,
                                    std::size_t end) {
  std::vector<BoxInfo*> entries;
  for (std::size_t i = begin; i < end; ++i) {
    if (list[i].label >= 0) {
      entries.push_back(&list[i]);
    }
  }
  return entries;
}

}  // namespace

std::size_t add_last_output(void* handle, bool has_tracks, std::vector<Detection>* detections) {
  olvex::vector<BoxInfo>& list = static_cast<DetHandle*>(handle)->mLastOutput_;
  // ALGO_DET_Run turns no others into boxes.
  const std::size_t examined = std::min<std::size_t>(list.size(), ALGO_DET_MAX_BOXES);
  const std::vector<BoxInfo*> entries = shown_entries(list, 0, examined);
  if (entries.size() != detections->size()) {
    throw ToolError(kCheckFailed,
                    "the library and this tool were built from different sources: "
                    "they disagree on the last frame's boxes. Build both again");
  }
  for (std::size_t i = 0; i < entries.size(); ++i) {
    BoxInfo& entry = *entries[i];
    Detection& detection = (*detections)[i];
    detection.corners = {entry.x1, entry.y1, entry.x2, entry.y2};
    if (has_tracks) {
      detection.track_id = entry.track_id;
    }
    for (std::size_t k = 0; k < entry.keypts.size(); ++k) {
      detection.key_points.push_back({entry.keypts[k].x, entry.keypts[k].y, entry.keypts[k].score});
    }
  }
  return shown_entries(list, examined, list.size()).size();
}

}  // namespace olvex_tools
