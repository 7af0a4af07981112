// SPDX-License-Identifier: Apache-2.0
// ring_test.cpp - the recorder's ring at the places of its positions that a run reaches after hours.
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include "recorder/ring.h"
}

namespace {

constexpr std::uint32_t kSize = 4096;

void let_go(const ring* /*ring*/, std::uint32_t /*position*/, const ring_entry* /*entry*/) {}

void put(ring& ring, std::uint32_t bytes) {
  const std::vector<unsigned char> data(bytes, 7);
  ring_begin(&ring, RING_FRAME, 1);
  ring_put(&ring, data.data(), bytes);
  EXPECT_EQ(0, ring_commit(&ring));
}

TEST(Ring, KnowsAPositionOfLongAgoFromOneThatItHolds) {
  std::vector<std::uint64_t> memory(kSize / sizeof(std::uint64_t));
  for (const std::uint32_t start : {0x80000100u, 0xffffff00u}) {
    ring ring;
    ring_start(&ring, memory.data(), kSize, let_go);
    ring.head = ring.tail = ring.evicting = start;
    for (int k = 0; k < 20; ++k) {
      put(ring, 400);
    }
    std::uint32_t oldest = 0;
    ASSERT_EQ(0, ring_pin(&ring, &oldest));
    EXPECT_TRUE(ring_holds(&ring, oldest, oldest));
    EXPECT_TRUE(ring_holds(&ring, oldest, ring.head));
    for (const std::uint32_t position : {0u, start, oldest - 16, ring.head + 16}) {
      EXPECT_FALSE(ring_holds(&ring, oldest, position)) << position;
    }
  }
}

}  // namespace
