// SPDX-License-Identifier: Apache-2.0
// crowd.h - objects that appear, move and disappear, as the output of a network whose boxes the
// accelerator has decoded. The same seed makes the same frames.
#ifndef TESTS_SOAK_CROWD_H
#define TESTS_SOAK_CROWD_H

#include <cstring>

#include "tests/api/list_network.h"
#include "tests/support/random.h"

constexpr QV_U32 kWidth = 640, kHeight = 384;  // of the picture and the display
constexpr int kMostObjects = 60;
constexpr int kMostTracked = kMostObjects + 3;  // with false detections
constexpr QV_U32 kRows = 128;                   // and a head for each object

class Crowd {
 public:
  explicit Crowd(Random& random) : random_(random) {}

  // Writes the next frame into the tensors of a list_network with kRows rows.
  void step(const QV_IPU_TensorVector_t& output) {
    float* tensors[5];
    for (int k = 0; k < 5; ++k) {
      tensors[k] = static_cast<float*>(output.astArrayTensors[k].ptTensorData[0]);
    }
    int rows = 0;
    const auto show = [&](const Detection& seen) {
      std::memcpy(tensors[0] + 4 * rows, &seen, 4 * sizeof(float));
      tensors[1][rows] = seen.label;
      tensors[2][rows] = seen.score;
      tensors[3][rows] = static_cast<float>(rows);
      ++rows;
    };
    wanted_ = random_.one_in(256) ? random_.below(kMostObjects + 1) : wanted_;
    for (int i = 0; i < kMostObjects; ++i) {
      const Detection seen = move(objects_[i], i < wanted_);
      if (seen.x2 > 0.f && !random_.one_in(16)) {
        show(seen);
        if (seen.label == 0.f && i % 2 == 0) {  // what confirms class 0 in strict mode
          show({seen.x1 + 4.f, seen.y1, seen.x1 + 20.f, seen.y1 + 16.f, seen.score, 6.f});
        }
      }
    }
    for (int i = random_.below(kMostTracked - kMostObjects + 1); i > 0; --i) {
      show(newcomer().box);
    }
    tensors[4][0] = static_cast<float>(rows);
  }

 private:
  struct Object {
    Detection box;
    float dx;  // pixels per frame; 0: stands still
  };

  // The place of an object that disappeared stays 0 until a new one is added.
  Detection move(Object& object, bool wanted) {
    object.box.x1 += object.dx;
    object.box.x2 += object.dx;
    if (object.box.x2 <= 0.f || object.box.x1 >= kWidth || random_.one_in(wanted ? 2048 : 64)) {
      object = wanted && random_.one_in(32) ? newcomer() : Object();
    }
    Detection seen = object.box;
    seen.score += random_.between(-0.2f, 0.2f);
    return seen;
  }

  Object newcomer() {
    const bool walks = !random_.one_in(3);
    const float width = random_.between(24.f, 96.f), height = random_.between(24.f, 120.f);
    const float x = walks ? 1.f - width : random_.between(0.f, 540.f);
    const float y = random_.between(0.f, 260.f), score = random_.between(0.3f, 0.8f);
    const float label = static_cast<float>(random_.below(6));
    return {{x, y, x + width, y + height, score, label}, walks ? random_.between(1.f, 8.f) : 0.f};
  }

  Random& random_;
  Object objects_[kMostObjects] = {};
  int wanted_ = kMostObjects / 2;
};

#endif  // TESTS_SOAK_CROWD_H
