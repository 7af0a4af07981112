// SPDX-License-Identifier: Apache-2.0
/* suppressed_cells.c - the library's suppression with room for error: what it would decide closely stays. */
#include "recorder/cells.h"

#include <string.h>

#define MOST_BOXES 64u /* that stay; with more, nothing is dropped */
/* The library's overlap of suppression, less and more than the arithmetic here can err. */
#define SURELY_APART 0.44f
#define SURELY_SUPPRESSED 0.46f
#define MOST_DISTANCE 30.0f

struct box {
  float left;
  float top;
  float right;
  float bottom;
  float area;
  float logit;
  uint32_t class_id;
  int is_plain; /* its edges are known */
  int is_kept;  /* surely, by the library */
};

struct candidate {
  float logit;
  uint16_t cell; /* in the list */
  uint16_t class_id;
};

/* e^x for x from -60 to 60: 2^n by its bits, and a polynomial between. Errs by less than a part in 5,000. */
static float power_of_e(float x) {
  const float y = x * 1.44269504f + 126.0f;
  const int32_t n = (int32_t)y;
  const float f = y - (float)n;
  const uint32_t bits = (uint32_t)(n + 1) << 23;
  float power;
  memcpy(&power, &bits, sizeof power);
  return power * (1.0f + f * (0.695556f + f * (0.226173f + f * 0.0781455f)));
}

/* Whether the scores of these logits differ in every arithmetic: by far more than a float's last bits. Below -88,
 * e^-x is infinite, and all scores are 0. */
static int is_surely_above(float higher, float lower) {
  const float more = higher - lower;
  const float part = more < 1.0f ? more : 1.0f;
  return more > 5e-4f && lower > -80.0f && lower < MOST_DISTANCE &&
         part * (lower > 0.0f ? power_of_e(-lower) : 1.0f) > 1e-6f;
}

/* By descending logit. */
static void sort(struct candidate* candidates, uint32_t count) {
  static const uint8_t kSteps[] = {57, 23, 10, 4, 1};
  for (uint32_t s = 0; s < sizeof kSteps; ++s) {
    const uint32_t step = kSteps[s];
    for (uint32_t k = step; k < count; ++k) {
      const struct candidate moved = candidates[k];
      uint32_t place = k;
      for (; place >= step && candidates[place - step].logit < moved.logit; place -= step) {
        candidates[place] = candidates[place - step];
      }
      candidates[place] = moved;
    }
  }
}

static struct box box_of(const struct cell_layer* layer, uint32_t index,
                         const struct candidate* candidate) {
  const float x = ((float)(index % layer->columns) + 0.5f) * (float)layer->stride;
  const float y = ((float)(index / layer->columns) + 0.5f) * (float)layer->stride;
  float sides[4];
  struct box box;
  box.logit = candidate->logit;
  box.class_id = candidate->class_id;
  box.is_plain = 1;
  for (uint32_t k = 0; k < 4; ++k) {
    const float value = cell_value(layer, index, k);
    const int is_plain = value >= -MOST_DISTANCE && value <= MOST_DISTANCE;
    const float reach = 4.0f / (1.0f + (is_plain ? power_of_e(-value) : 0.0f));
    box.is_plain = box.is_plain && is_plain;
    sides[k] = reach * reach * (float)layer->stride;
  }
  box.left = x - sides[0];
  box.top = y - sides[1];
  box.right = x + sides[2];
  box.bottom = y + sides[3];
  box.area = (box.right - box.left + 1.0f) * (box.bottom - box.top + 1.0f);
  box.is_kept = 0;
  return box;
}

/* The part of the area that both cover, of that which one of them does. */
static float overlap(const struct box* a, const struct box* b) {
  const float left = a->left > b->left ? a->left : b->left;
  const float right = a->right < b->right ? a->right : b->right;
  if (right - left <= -1.0f) {
    return 0.0f;
  }
  const float top = a->top > b->top ? a->top : b->top;
  const float bottom = a->bottom < b->bottom ? a->bottom : b->bottom;
  if (bottom - top <= -1.0f) {
    return 0.0f;
  }
  const float both = (right - left + 1.0f) * (bottom - top + 1.0f);
  return both / (a->area + b->area - both);
}

/* Whether a box that the library keeps takes this one's place. Where none does, sets whether the box is kept, by
 * suppression within classes and among all. */
static int is_suppressed(struct box* box, const struct box* boxes, uint32_t count) {
  int is_apart = box->is_plain;
  for (uint32_t k = 0; k < count; ++k) {
    const struct box* const other = &boxes[k];
    const float part = overlap(box, other);
    if (part >= SURELY_SUPPRESSED && other->is_kept && box->is_plain &&
        other->class_id == box->class_id && is_surely_above(other->logit, box->logit)) {
      return 1;
    }
    is_apart = is_apart && other->is_plain && part < SURELY_APART;
  }
  box->is_kept = is_apart;
  return 0;
}

static uint32_t list_candidates(const struct found_cells* found, const struct cell_layer layers[3],
                                const uint32_t counts[3], struct candidate* candidates) {
  uint32_t cell = 0;
  for (uint32_t layer = 0; layer < 3; ++layer) {
    for (uint32_t k = counts[layer]; k != 0; --k, ++cell) {
      uint32_t class_id;
      candidates[cell].logit = best_logit(&layers[layer], found->cell[cell].index, &class_id);
      candidates[cell].cell = (uint16_t)cell;
      candidates[cell].class_id = (uint16_t)class_id;
    }
  }
  return cell;
}

void drop_suppressed_cells(struct found_cells* found, const struct cell_layer layers[3],
                           const uint32_t counts[3]) {
  struct candidate candidates[MOST_FOUND_CELLS];
  struct box boxes[MOST_BOXES];
  uint32_t count = 0;
  const uint32_t all = list_candidates(found, layers, counts, candidates);
  int is_in_order = 1;
  sort(candidates, all);
  for (uint32_t k = 0; k < all && is_in_order; ++k) {
    const uint32_t cell = candidates[k].cell;
    const uint32_t number = cell < counts[0] ? 0 : cell < counts[0] + counts[1] ? 1 : 2;
    const struct cell_layer* const layer = &layers[number];
    struct box box = box_of(layer, found->cell[cell].index, &candidates[k]);
    if (is_suppressed(&box, boxes, count)) {
      found->cell[cell].is_dropped = 1;
    } else {
      is_in_order =
          count < MOST_BOXES && (count == 0 || is_surely_above(boxes[count - 1].logit, box.logit));
      if (is_in_order) {
        boxes[count++] = box;
      }
    }
  }
  for (uint32_t k = 0; k < all && !is_in_order; ++k) {
    found->cell[k].is_dropped = 0;
  }
}
