// SPDX-License-Identifier: Apache-2.0
// coco_files.cpp - the members of COCO's files, and the ids that tie them together.
#include "tools/eval/coco/coco.h"

#include <algorithm>
#include <set>

#include "tools/common/command.h"
#include "tools/common/json_reader.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

// A truth box as long as the lists of pictures and classes may still be incomplete.
struct PendingBox {
  TruthBox box;
  std::int64_t image_id = 0;
  std::int64_t category_id = 0;
};

CocoPicture read_picture(const JsonItem& item) {
  CocoPicture picture;
  picture.id = item.integer("id");
  picture.width = item.optional_number("width").value_or(0);
  picture.height = item.optional_number("height").value_or(0);
  picture.file_name = item.optional_text("file_name");
  if (picture.width < 0 || picture.height < 0) {
    item.refuse("\"width\" and \"height\" must not be negative");
  }
  return picture;
}

PendingBox read_truth_box(const JsonItem& item) {
  PendingBox pending;
  pending.image_id = item.integer("image_id");
  pending.category_id = item.integer("category_id");
  TruthBox& box = pending.box;
  box.id = item.optional_integer("id");
  box.box = item.box("bbox");
  const std::optional<double> area = item.optional_number("area");
  if (area && *area < 0) {
    item.refuse("\"area\" must not be negative");
  }
  box.area = area.value_or(box.box.width * box.box.height);
  box.crowd = item.optional_flag("iscrowd");
  box.ignored = item.optional_flag("ignore") || box.crowd;
  return pending;
}

template <typename Element>
void sort_by_id(const std::string& path, const std::string& list, std::vector<Element>* elements) {
  std::sort(elements->begin(), elements->end(),
            [](const Element& left, const Element& right) { return left.id < right.id; });
  const auto twice = std::adjacent_find(
      elements->begin(), elements->end(),
      [](const Element& left, const Element& right) { return left.id == right.id; });
  if (twice != elements->end()) {
    refuse_input(path, list + " has the id " + std::to_string(twice->id) + " twice");
  }
}

void require_different_names(const std::string& path, const std::vector<CocoCategory>& categories) {
  std::set<std::string> names;
  for (const CocoCategory& category : categories) {
    if (!names.insert(category.name).second) {
      refuse_input(path, "categories has the name \"" + category.name + "\" twice");
    }
  }
}

template <typename Element>
std::size_t known_index(const std::string& path, const std::string& list,
                        const std::vector<Element>& elements, std::size_t annotation,
                        std::int64_t id) {
  const std::optional<std::size_t> index = index_of_id(elements, id);
  if (!index) {
    refuse_input(path, "annotations [" + std::to_string(annotation) + "] belongs to id " +
                           std::to_string(id) + ", which " + list + " does not have");
  }
  return *index;
}

std::size_t find_class(const CocoTruth& truth, const std::string& wanted) {
  std::vector<std::string> names;
  for (std::size_t i = 0; i < truth.categories.size(); ++i) {
    const CocoCategory& category = truth.categories[i];
    if (wanted == category.name || wanted == std::to_string(category.id)) {
      return i;
    }
    names.push_back(category.name);
  }
  refuse_usage("--classes " + wanted + ": the truth has no such class id or name" +
               did_you_mean(wanted, names));
}

}  // namespace

CocoTruth read_coco_truth(const std::string& path) {
  CocoTruth truth;
  std::vector<PendingBox> pending;
  const JsonListsKind kind = {
      "is not a COCO instances file, an object with images, annotations and "
      "categories. Give the truth first, then the results",
      "; is it a COCO instances file?"};
  read_json_lists(
      path, kind,
      {{"images", [&](const JsonItem& item) { truth.pictures.push_back(read_picture(item)); }},
       {"annotations", [&](const JsonItem& item) { pending.push_back(read_truth_box(item)); }},
       {"categories", [&](const JsonItem& item) {
          truth.categories.push_back({item.integer("id"), item.text("name")});
        }}});
  sort_by_id(path, "images", &truth.pictures);
  sort_by_id(path, "categories", &truth.categories);
  require_different_names(path, truth.categories);
  for (std::size_t i = 0; i < pending.size(); ++i) {
    TruthBox box = pending[i].box;
    box.picture = known_index(path, "images", truth.pictures, i, pending[i].image_id);
    box.category = known_index(path, "categories", truth.categories, i, pending[i].category_id);
    truth.boxes.push_back(box);
  }
  return truth;
}

std::vector<CocoResult> read_coco_results(const std::string& path) {
  std::vector<CocoResult> results;
  const JsonListsKind kind = {
      "is not a list of results. Give the truth first, then the results of olvex-det run --coco",
      ""};
  read_json_lists(path, kind,
                  {{"", [&](const JsonItem& item) {
                      results.push_back({item.integer("image_id"), item.integer("category_id"),
                                         item.box("bbox"), item.number("score")});
                    }}});
  return results;
}

CocoTruth restricted_to(const CocoTruth& truth, const std::vector<std::string>& classes) {
  std::set<std::size_t> kept;
  for (const std::string& wanted : classes) {
    kept.insert(find_class(truth, wanted));
  }
  CocoTruth part;
  part.pictures = truth.pictures;
  std::vector<std::size_t> new_index(truth.categories.size());
  for (const std::size_t category : kept) {
    new_index[category] = part.categories.size();
    part.categories.push_back(truth.categories[category]);
  }
  for (TruthBox box : truth.boxes) {
    if (kept.count(box.category) > 0) {
      box.category = new_index[box.category];
      part.boxes.push_back(box);
    }
  }
  return part;
}

std::vector<ResultBox> known_results(const CocoTruth& truth, const std::vector<CocoResult>& results,
                                     const std::string& path) {
  std::vector<ResultBox> known;
  for (std::size_t i = 0; i < results.size(); ++i) {
    const CocoResult& result = results[i];
    const std::optional<std::size_t> picture = index_of_id(truth.pictures, result.image_id);
    if (!picture) {
      refuse_input(path, "result [" + std::to_string(i) + "] is of picture " +
                             std::to_string(result.image_id) +
                             ", which the truth's images do not have. Evaluate results of the same "
                             "pictures as the truth's");
    }
    const std::optional<std::size_t> category = index_of_id(truth.categories, result.category_id);
    if (category) {
      known.push_back({*picture, *category, result.box, result.score});
    }
  }
  return known;
}

}  // namespace olvex_tools
