// CRC-32C and its combinations against a bitwise CRC of the test's own.

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "kab/checksum.h"
#include "kab/core.h"

namespace {

uint32_t BitwiseCrc(uint32_t polynomial, uint32_t state, const uint8_t* data, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    state ^= data[i];
    for (int bit = 0; bit < 8; ++bit) state = (state & 1) != 0 ? (state >> 1) ^ polynomial : state >> 1;
  }
  return state;
}

uint32_t Crc32c(const std::vector<uint8_t>& data) { return ~BitwiseCrc(0x82F63B78, ~0U, data.data(), data.size()); }

std::vector<uint8_t> RandomBytes(std::mt19937_64& random, size_t length) {
  std::vector<uint8_t> bytes(length);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  return bytes;
}

class Crc32cTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { KABInit(0, nullptr); }
  std::mt19937_64 random_{42};
};

TEST_F(Crc32cTest, ComputesAndContinues) {
  EXPECT_EQ(ARVOCrc32_Compute(0, "", 0), 0U);
  EXPECT_EQ(ARVOCrc32_Compute(0, "\0", 1), 0x527D5351U);
  for (const size_t length : {1, 7, 64, 511, 4096, 131072}) {
    const auto bytes = RandomBytes(random_, length);
    EXPECT_EQ(ARVOCrc32_Compute(0, bytes.data(), static_cast<uint32_t>(length)), Crc32c(bytes)) << length;
    const auto cut = static_cast<uint32_t>(length / 3);
    const uint32_t head = ARVOCrc32_Compute(0, bytes.data(), cut);
    EXPECT_EQ(ARVOCrc32_Compute(head, bytes.data() + cut, static_cast<uint32_t>(length) - cut), Crc32c(bytes));
  }
}

TEST_F(Crc32cTest, AdjustsToTheBlockSize) {
  const std::vector<uint8_t> zeros(131072);
  EXPECT_EQ(ARVO_ComputeCRC32(zeros.data(), 4096, 4096), 0U);
  EXPECT_EQ(ARVO_ComputeCRC32(zeros.data(), 131072, 0x20000), 0U);
  EXPECT_EQ(ARVO_ComputeCRC32(zeros.data(), 4096, 512), 0x98F94189U);

  const uint8_t small[] = {0x89, 0x41, 0xF9, 0x98};
  const uint8_t large[] = {0x4F, 0x81, 0x87, 0x5D};
  for (const uint32_t crc : {0U, 0x12345678U}) {
    EXPECT_EQ(ARVO_FakeCRC32(crc, 0x20000), ARVOCrc32_Compute(crc, large, 4));
    EXPECT_EQ(ARVO_FakeCRC32(crc, 4096), ARVOCrc32_Compute(crc, small, 4));
    EXPECT_EQ(ARVO_FakeCRC32(crc, 512), ARVOCrc32_Compute(crc, small, 4));  // unlike the real one
  }
}

TEST_F(Crc32cTest, CombinesWithoutTheData) {
  const auto a = RandomBytes(random_, 1000);
  const uint32_t crcA = Crc32c(a);
  for (const uint32_t length : {0U, 1U, 2U, 3U, 4U, 5U, 511U, 512U, 4096U, 70000U}) {
    const auto b = RandomBytes(random_, length);
    auto both = a;
    both.insert(both.end(), b.begin(), b.end());
    const uint32_t second = length == 0 ? 0xDEADBEEF : Crc32c(b);  // ignored for a length of 0
    EXPECT_EQ(ARVO_CombineCRC32(crcA, second, length), Crc32c(both)) << length;
  }
  for (uint32_t zeros = 1; zeros <= 511; ++zeros) {
    auto both = a;
    both.resize(a.size() + zeros);
    ASSERT_EQ(ARVO_CombineCRC32_Zero(crcA, zeros), Crc32c(both)) << zeros;
    ASSERT_EQ(ARVO_CombineCRC32_Zero(0, zeros), Crc32c(std::vector<uint8_t>(zeros))) << zeros;
  }
  for (uint8_t sectors = 1; sectors <= 8; ++sectors) {
    const auto b = RandomBytes(random_, 512U * sectors);
    auto both = a;
    both.insert(both.end(), b.begin(), b.end());
    EXPECT_EQ(ARVO_CombineCRC32_Sector(crcA, Crc32c(b), sectors), Crc32c(both)) << int{sectors};
  }
}

TEST_F(Crc32cTest, MapBlockRegisterTakesWholeWords) {
  const auto bytes = RandomBytes(random_, 4096);
  for (const size_t length : {4, 8, 100, 4096}) {
    EXPECT_EQ(VBTMB_CRC32(0xFFFFFFFF, bytes.data(), length), BitwiseCrc(0xEDB88320, ~0U, bytes.data(), length));
  }
  EXPECT_EQ(VBTMB_CRC32(7, bytes.data() + 1, 7), VBTMB_CRC32(7, bytes.data() + 1, 4));
  EXPECT_EQ(VBTMB_CRC32(7, bytes.data(), 3), 7U);
  EXPECT_EQ(VBTMB_CRC32(7, nullptr, 4096), 7U);
}

}  // namespace
