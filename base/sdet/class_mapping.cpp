// SPDX-License-Identifier: Apache-2.0
// class_mapping.cpp - DetAfModel: class ids of the model to those of the library, and the classes of the
// double check.
#include "base/sdet/sdet_model.h"

#include <string.h>

#include "utils/log/olvex_log.h"
#include "base/sdet/model_words.h"

OLVEX_LOG_CLOCK;

namespace {

const int kMaxMappedClasses = 9;
const int kMaxConfirmingClasses = 2;

struct ClassRule {
  const char* model_type;
  const char* library_type;
  int num_mapped;
  int mapped[kMaxMappedClasses][2];  // model class id, library class id
  int num_confirming;
  int confirming[kMaxConfirmingClasses];
};

// Deliberate: negative library ids are kept as labels. Such boxes confirm tracks in the double
// check and are dropped only where boxes are tracked or written out.
const ClassRule kClassRules[] = {
    // Its confirming ids are the ones before the mapping, which no box has after it.
    {"zrphf", "zrpd", 2, {{1, -1}, {2, -2}}, 2, {1, 2}},
    {"zrpcnh", "zrpcn", 1, {{6, -6}}, 1, {-6}},
    {"zrpcnf", "zrpcn", 1, {{6, -6}}, 1, {-6}},
    {"zrpcnhf", "zrpcn", 2, {{6, -6}, {7, -7}}, 2, {-6, -7}},
    {"zrpcncdhf", "zrpcncd", 2, {{8, -8}, {9, -9}}, 2, {-8, -9}},
    {"zrpcncdhf", "zrpcn", 4, {{6, -6}, {7, -7}, {8, -8}, {9, -9}}, 2, {-8, -9}},
    {"zrpcncdhf",
     "zrpcd",
     9,
     {{1, -1}, {2, -2}, {3, -3}, {4, -4}, {5, -5}, {6, 1}, {7, 2}, {8, -8}, {9, -9}},
     2,
     {-8, -9}},
};

// The first rule that one of the two words satisfies, or NULL.
//
// Deliberate: either word alone is enough, so that a new model type works with a library type that
// is known. A later rule with the same first word can only be reached through its second, and the
// sixth not at all: earlier rules have both of its words.
const ClassRule* find_class_rule(const char* model_type, const char* library_type) {
  for (const ClassRule& rule : kClassRules) {
    if (strcmp(model_type, rule.model_type) == 0 || strcmp(library_type, rule.library_type) == 0) {
      return &rule;
    }
  }
  return NULL;
}

// Value of the last pair with that key; "" when there is none.
const char* last_value(const olvex::vector<ModelKeyValue_t>& kvs, const char* key) {
  const char* value = "";
  for (size_t k = 0; k < kvs.size(); ++k) {
    if (strcmp(kvs[k].key, key) == 0) {
      value = kvs[k].value;
    }
  }
  return value;
}

}  // namespace

int DetAfModel::get_class_id_map() {
  const char* model_type = last_value(model_kvs_, kModelOutKey);
  const char* library_type = last_value(model_kvs_, kLibOutKey);
  if (model_type[0] == 0 || library_type[0] == 0) {
    return 0;
  }
  class_id_map_.clear();
  const ClassRule* rule = find_class_rule(model_type, library_type);
  if (rule != NULL) {
    for (int k = 0; k < rule->num_mapped; ++k) {
      class_id_map_.push_back(olvex::pair<int, int>(rule->mapped[k][0], rule->mapped[k][1]));
    }
  }
  return 0;
}

void DetAfModel::get_double_check_ids(olvex::vector<int>& check_with_classes,
                                      int& check_target_class) {
  const char* model_type = last_value(model_kvs_, kModelOutKey);
  const char* library_type = last_value(model_kvs_, kLibOutKey);
  if (model_type[0] == 0 || library_type[0] == 0) {
    return;
  }
  OLVEX_DEBUG_FORMAT("model_output = %s; lib_out = %s\n", model_type, library_type);
  const ClassRule* rule = find_class_rule(model_type, library_type);
  if (rule == NULL) {
    return;
  }
  check_with_classes.clear();
  for (int k = 0; k < rule->num_confirming; ++k) {
    check_with_classes.push_back(rule->confirming[k]);
  }
  check_target_class = 0;
}

void DetAfModel::map_class_id(olvex::vector<BoxInfo>& boxes) {
  if (class_id_map_.empty()) {
    return;
  }
  for (size_t i = 0; i < boxes.size(); ++i) {
    for (size_t k = 0; k < class_id_map_.size(); ++k) {
      if (class_id_map_[k].first == boxes[i].label) {
        OLVEX_DEBUG_FORMAT("map class id from %d to %d\n", boxes[i].label, class_id_map_[k].second);
        boxes[i].label = class_id_map_[k].second;
        break;
      }
    }
  }
}
