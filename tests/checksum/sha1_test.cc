// SHA-1 against OpenSSL's, over every form of the block function that this processor can run.

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <array>
#include <cstring>
#include <random>
#include <vector>

#include "checksum/sha1_blocks.h"
#include "kab/checksum.h"

namespace {

using Digest = std::array<uint8_t, 20>;
using Message = std::vector<uint8_t>;

Digest Reference(const Message& message) {
  Digest digest;
  unsigned size = 0;
  EVP_Digest(message.data(), message.size(), digest.data(), &size, EVP_sha1(), nullptr);
  return digest;
}

Message RandomMessage(std::mt19937_64& random, size_t size) {
  Message message(size);
  for (uint8_t& byte : message) byte = static_cast<uint8_t>(random());
  return message;
}

TEST(Sha1Test, PiecesOfAnySizeGiveOneDigestAndLeaveNothingBehind) {
  std::mt19937_64 random(1);
  for (size_t size = 0; size < 300; ++size) {
    const Message message = RandomMessage(random, size);
    for (const size_t piece : {size_t{1}, size_t{55}, size_t{63}, size_t{64}, size_t{65}, size_t{300}}) {
      DDPSHA1Ctx ctx;
      DDPSHA1Init(&ctx);
      for (size_t at = 0; at < size; at += piece) DDPSHA1Update(&ctx, message.data() + at, std::min(piece, size - at));
      Digest digest;
      DDPSHA1Final(digest.data(), &ctx);
      ASSERT_EQ(digest, Reference(message)) << size << " in pieces of " << piece;
      const DDPSHA1Ctx clear{};
      ASSERT_EQ(std::memcmp(&ctx, &clear, sizeof ctx), 0);
    }
  }
}

TEST(Sha1Test, TheBitCountCarriesIntoItsHighWord) {
  DDPSHA1Ctx ctx;
  DDPSHA1Init(&ctx);
  ctx.bitCount[0] = 0xFFFFFE00;  // 64 bytes short of the carry
  const Message block(128, 7);
  DDPSHA1Update(&ctx, block.data(), block.size());
  EXPECT_EQ(ctx.bitCount[0], 0x200U);
  EXPECT_EQ(ctx.bitCount[1], 1U);
}

TEST(Sha1Test, SeveralBuffersAreEachHashedAfterThePrefix) {
  std::mt19937_64 random(2);
  const uint32_t sizes[] = {0, 1, 20, 55, 56, 63, 64, 65, 119, 120, 128, 1000, 4096};
  const uint32_t prefixSizes[] = {0, 1, 8, 44, 63, 64, 65, 128, 200};
  for (const uint32_t count : {0U, 1U, 2U, 3U, 5U, 6U, 15U, 16U, 17U, 40U}) {
    for (const uint32_t size : sizes) {
      for (const uint32_t prefixSize : prefixSizes) {
        const Message prefix = RandomMessage(random, prefixSize);
        std::vector<Message> messages;
        std::vector<const void*> buffers;
        std::vector<Digest> found(count);
        std::vector<uint8_t*> digests;
        for (uint32_t i = 0; i < count; ++i) {
          messages.push_back(RandomMessage(random, size));
          digests.push_back(found[i].data());
        }
        for (const Message& message : messages) buffers.push_back(message.data());
        DDPSHA1MultiBuffer(count, size, prefixSize == 0 ? nullptr : prefix.data(), prefixSize, buffers.data(),
                           digests.data());
        for (uint32_t i = 0; i < count; ++i) {
          Message whole = prefix;
          whole.insert(whole.end(), messages[i].begin(), messages[i].end());
          ASSERT_EQ(found[i], Reference(whole)) << i << " of " << count << ", " << prefixSize << " + " << size;
        }
      }
    }
  }
}

TEST(Sha1Test, EveryBlockFunctionMovesTheStateAlike) {
  using namespace kab::checksum;
  std::mt19937_64 random(3);
  constexpr uint64_t kBlocks = 5;
  std::array<Message, 16> messages;
  uint32_t expected[16][5];
  uint32_t pairs[16][5];
  uint32_t lanes[5][16];
  const uint8_t* data[16];
  for (size_t lane = 0; lane < 16; ++lane) {
    messages[lane] = RandomMessage(random, kBlocks * 64);
    data[lane] = messages[lane].data();
    for (size_t i = 0; i < 5; ++i) {
      expected[lane][i] = pairs[lane][i] = lanes[i][lane] = static_cast<uint32_t>(random());
    }
    Sha1BlocksPlain(expected[lane], data[lane], kBlocks);
  }
  if (HasSha1Instructions()) {
    uint32_t single[5];
    std::memcpy(single, pairs[0], sizeof single);
    Sha1BlocksNi(single, data[0], kBlocks);
    EXPECT_EQ(std::memcmp(single, expected[0], sizeof single), 0);
    for (size_t lane = 0; lane < 16; lane += 2) Sha1BlocksNi2(pairs + lane, data + lane, kBlocks);
    EXPECT_EQ(std::memcmp(pairs, expected, sizeof pairs), 0);
  }
  if (HasSixteenLanes()) {
    Sha1BlocksLanes16(lanes, data, kBlocks);
    for (size_t lane = 0; lane < 16; ++lane) {
      for (size_t i = 0; i < 5; ++i) EXPECT_EQ(lanes[i][lane], expected[lane][i]) << lane << " " << i;
    }
  }
}

}  // namespace
