// The byte hash against a form that assembles every word byte by byte.

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <vector>

#include "kab/checksum.h"

namespace {

uint64_t Slow(const std::vector<uint8_t>& bytes) {
  uint64_t w[3] = {42, 42, 0x9E3779B97F4A7C13};
  const auto mix = [&w] {
    constexpr int kShifts[12] = {43, 9, 8, 38, 23, 5, 35, 49, 11, 12, 18, 22};
    for (int i = 0; i < 12; ++i) {
      const uint64_t previous = w[(i + 2) % 3];
      // Of every three steps the second shifts to the left.
      w[i % 3] =
          (w[i % 3] - w[(i + 1) % 3] - previous) ^ (i % 3 == 1 ? previous << kShifts[i] : previous >> kShifts[i]);
    }
  };
  size_t at = 0;
  for (; bytes.size() - at >= 24; at += 24) {
    for (size_t i = 0; i < 24; ++i) w[i / 8] += uint64_t{bytes[at + i]} << (8 * (i % 8));
    mix();
  }
  w[2] += bytes.size();
  for (size_t i = 0; at + i < bytes.size(); ++i) {
    w[i / 8] += uint64_t{bytes[at + i]} << (8 * (i < 16 ? i % 8 : i % 8 + 1));
  }
  mix();
  return w[2];
}

TEST(ByteHash, AgreesAtEveryLengthAndAlignment) {
  std::mt19937 random(2);
  for (uint32_t length = 1; length < 130; ++length) {
    std::vector<uint8_t> bytes(length);
    for (auto& byte : bytes) byte = static_cast<uint8_t>(random());
    const uint64_t expected = Slow(bytes);
    alignas(8) std::array<uint8_t, 160> room{};
    for (size_t shift = 0; shift < 8; ++shift) {
      std::copy(bytes.begin(), bytes.end(), room.begin() + static_cast<std::ptrdiff_t>(shift));
      uint64_t hash = 0;
      ASSERT_EQ(plinth_HashBytes(room.data() + shift, length, &hash), 0U);
      ASSERT_EQ(hash, expected) << length << " at " << shift;
    }
  }
}

TEST(ByteHash, RefusesWhatHasNoHash) {
  uint64_t hash = 5;
  const uint8_t byte = 1;
  EXPECT_EQ(plinth_HashBytes(&byte, 0, &hash), 0xBAD0007U);
  EXPECT_EQ(plinth_HashBytes(nullptr, 1, &hash), 0xBAD0007U);
  EXPECT_EQ(plinth_HashBytes(&byte, 1, nullptr), 0xBAD0007U);
  EXPECT_EQ(hash, 5U);
}

}  // namespace
