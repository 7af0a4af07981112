// last_output.cpp - the only tool source that reads the object behind the public handle
// (video/det/include/det_schedule.h).
#include "tools/inside/last_output.h"

#include "olvex_det.h"
#include "tools/common/command.h"
#include "video/det/include/det_schedule.h"

namespace olvex_tools {

namespace {

// The entries of the list that ALGO_DET_Run turned into boxes, in the same order: of the first
// ALGO_DET_MAX_BOXES those whose class the model does not hide.
std::vector<BoxInfo*> reported_entries(olvex::vector<BoxInfo>& list) {
  std::vector<BoxInfo*> entries;
  for (std::size_t i = 0; i < list.size() && i < ALGO_DET_MAX_BOXES; ++i) {
    if (list[i].label >= 0) {
      entries.push_back(&list[i]);
    }
  }
  return entries;
}

}  // namespace

void add_last_output(void* handle, bool has_tracks, std::vector<Detection>* detections) {
  const std::vector<BoxInfo*> entries =
      reported_entries(static_cast<DetHandle*>(handle)->mLastOutput_);
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
}

}  // namespace olvex_tools
