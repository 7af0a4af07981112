// SPDX-License-Identifier: Apache-2.0
// mot_clip.cpp - merges two files by frame and takes ignored truth out.
#include "tools/eval/mot/mot.h"

#include <algorithm>
#include <map>

namespace olvex_tools {

namespace {

using Rows = std::vector<MotRow>;

std::map<long, std::size_t> index_of_ids(const Rows& rows) {
  std::map<long, std::size_t> indices;
  for (const MotRow& row : rows) {
    indices.emplace(row.id, 0);
  }
  std::size_t next = 0;
  for (auto& [id, index] : indices) {
    index = next++;
  }
  return indices;
}

std::vector<Box> boxes_of(const std::vector<ClipBox>& boxes) {
  std::vector<Box> places;
  places.reserve(boxes.size());
  for (const ClipBox& box : boxes) {
    places.push_back(box.box);
  }
  return places;
}

// Truths (rows) and results (columns) that overlap, where those may match.
template <typename MayMatch>
std::vector<WeightedPair> pairs_that(const ClipFrame& frame, MayMatch may_match) {
  std::vector<WeightedPair> pairs =
      overlaps_between(boxes_of(frame.truths), boxes_of(frame.results));
  const auto end = std::remove_if(pairs.begin(), pairs.end(), [&](const WeightedPair& pair) {
    return !may_match(pair.row, pair.column);
  });
  pairs.erase(end, pairs.end());
  return pairs;
}

bool is_one_class(const ClipFrame& frame, std::size_t truth, std::size_t result) {
  return frame.truths[truth].class_id == frame.results[result].class_id;
}

// Which results show a truth that is to be ignored.
std::vector<bool> shows_ignored(const ClipFrame& frame, const std::vector<bool>& ignored) {
  const auto pairs = matching_pairs(pairs_that(frame, [&](std::size_t i, std::size_t j) {
    return ignored[i] || is_one_class(frame, i, j);
  }));
  std::vector<bool> shows(frame.results.size(), false);
  for (const WeightedPair& pair :
       best_assignment(frame.truths.size(), frame.results.size(), pairs)) {
    shows[pair.column] = ignored[pair.row];
  }
  return shows;
}

void remove_where(std::vector<ClipBox>* boxes, const std::vector<bool>& unwanted) {
  std::vector<ClipBox> kept;
  for (std::size_t i = 0; i < boxes->size(); ++i) {
    if (!unwanted[i]) {
      kept.push_back((*boxes)[i]);
    }
  }
  *boxes = std::move(kept);
}

void remove_ignored(ClipFrame* frame, const std::vector<bool>& ignored) {
  if (std::find(ignored.begin(), ignored.end(), true) != ignored.end()) {
    remove_where(&frame->results, shows_ignored(*frame, ignored));
    remove_where(&frame->truths, ignored);
  }
}

template <typename Box>
std::vector<Box> with_classes(const std::vector<Box>& boxes, const std::set<int>& classes) {
  std::vector<Box> kept;
  std::copy_if(boxes.begin(), boxes.end(), std::back_inserter(kept),
               [&](const Box& box) { return classes.count(box.class_id) > 0; });
  return kept;
}

}  // namespace

void extend_spans(std::vector<FrameSpan>* spans, long frame) {
  if (!spans->empty() && spans->back().last + 1 == frame) {
    spans->back().last = frame;
  } else {
    spans->push_back({frame, frame});
  }
}

MotClip make_mot_clip(const MotFile& truth, const MotFile& result) {
  MotClip clip;
  const std::map<long, std::size_t> objects = index_of_ids(truth.rows);
  const std::map<long, std::size_t> tracks = index_of_ids(result.rows);
  clip.objects.resize(objects.size());
  for (const auto& track : tracks) {
    clip.result_ids.push_back(track.first);
  }
  for (const MotRow& row : result.rows) {
    clip.result_classes.insert(row.class_id);
  }
  auto truth_row = truth.rows.begin();
  auto result_row = result.rows.begin();
  while (truth_row != truth.rows.end() || result_row != result.rows.end()) {
    ClipFrame frame;
    frame.number = result_row == result.rows.end() ||
                           (truth_row != truth.rows.end() && truth_row->frame < result_row->frame)
                       ? truth_row->frame
                       : result_row->frame;
    std::vector<bool> ignored;
    for (; truth_row != truth.rows.end() && truth_row->frame == frame.number; ++truth_row) {
      const std::size_t index = objects.at(truth_row->id);
      ClipObject& object = clip.objects[index];
      object.id = truth_row->id;
      // Of the rows that count, if there are any.
      if (!truth_row->ignored || object.present.empty()) {
        object.class_id = truth_row->class_id;
      }
      extend_spans(truth_row->ignored ? &object.ignored : &object.present, frame.number);
      frame.truths.push_back({index, truth_row->class_id, truth_row->box});
      ignored.push_back(truth_row->ignored);
    }
    for (; result_row != result.rows.end() && result_row->frame == frame.number; ++result_row) {
      frame.results.push_back({tracks.at(result_row->id), result_row->class_id, result_row->box});
    }
    remove_ignored(&frame, ignored);
    clip.frames.push_back(std::move(frame));
  }
  return clip;
}

MotClip restricted_to(const MotClip& clip, const std::set<int>& classes) {
  MotClip part;
  part.result_ids = clip.result_ids;
  part.result_classes = clip.result_classes;
  std::vector<std::size_t> new_index(clip.objects.size(), 0);
  for (std::size_t i = 0; i < clip.objects.size(); ++i) {
    if (classes.count(clip.objects[i].class_id) > 0) {
      new_index[i] = part.objects.size();
      part.objects.push_back(clip.objects[i]);
    }
  }
  for (const ClipFrame& frame : clip.frames) {
    part.frames.push_back(
        {frame.number, with_classes(frame.truths, classes), with_classes(frame.results, classes)});
    for (ClipBox& box : part.frames.back().truths) {
      box.track = new_index[box.track];
    }
  }
  return part;
}

std::set<int> classes_of(const MotClip& clip) {
  std::set<int> classes;
  for (const ClipFrame& frame : clip.frames) {
    for (const auto* boxes : {&frame.truths, &frame.results}) {
      for (const ClipBox& box : *boxes) {
        classes.insert(box.class_id);
      }
    }
  }
  return classes;
}

std::vector<WeightedPair> overlapping_pairs(const ClipFrame& frame) {
  return pairs_that(frame, [&](std::size_t i, std::size_t j) { return is_one_class(frame, i, j); });
}

}  // namespace olvex_tools
