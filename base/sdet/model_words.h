// SPDX-License-Identifier: Apache-2.0
// model_words.h - the words by which the pairs in front of a model say what it outputs: the one table of
// them. output_type.cpp and class_mapping.cpp read the pairs; the tools and tests read the table, too.
#ifndef BASE_SDET_MODEL_WORDS_H
#define BASE_SDET_MODEL_WORDS_H

#include <stddef.h>
#include <string.h>

// Keys of the pairs: what the model outputs, and what the library is to make of it.
const char kModelOutKey[] = "model_out";
const char kLibOutKey[] = "lib_out";

struct ModelWord {
  const char* word;
  int num_classes;
  int num_keypoints;
};

const ModelWord kModelWords[] = {
    {"zrpd", 1, 0},   {"zrfd", 1, 0},   {"zrlpd", 1, 4},   {"zrhgd", 1, 21},     {"zrhpd", 1, 17},
    {"zrfl", 1, 5},   {"zrfsd", 2, 0},  {"zrpcd", 3, 0},   {"zrphf", 3, 0},      {"zrpcn", 6, 0},
    {"zrpcnh", 7, 0}, {"zrpcnf", 7, 0}, {"zrpcncd", 8, 0}, {"zrpcncdhf", 10, 0},
};

// NULL for a word that is not in the table.
inline const ModelWord* find_model_word(const char* word) {
  for (const ModelWord& known : kModelWords) {
    if (strcmp(word, known.word) == 0) {
      return &known;
    }
  }
  return NULL;
}

#endif  // BASE_SDET_MODEL_WORDS_H
