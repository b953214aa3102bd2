// Streams over a file: what they write, what they deliver, and what they say when something is wrong.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "dump_file.h"
#include "kab/core.h"
#include "kab/dump.h"
#include "support/fault_shim.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using kab_test::Blob;
using kab_test::Deflate;
using kab_test::File;
using kab_test::Inflate;
using kab_test::Noise;

constexpr uint64_t kStart = 4096;

struct ReleaseCompress {
  void operator()(KABCompressCtx* ctx) const {
    if (ctx->stream->buffer != nullptr) {
      deflateEnd(&ctx->stream->zlib);
      KABFree(&ctx->stream->buffer);
    }
    KABFree(&ctx->stream);
    KABFree(&ctx);
  }
};
using Compressor = std::unique_ptr<KABCompressCtx, ReleaseCompress>;

struct ReleaseDecompress {
  void operator()(KABCompressCtx* ctx) const {
    KABDecompressFinish(ctx);
    KABFree(&ctx->stream);
    KABFree(&ctx);
  }
};
using Decompressor = std::unique_ptr<KABCompressCtx, ReleaseDecompress>;

class StreamTest : public testing::Test {
 protected:
  ~StreamTest() override { KabFaultPlan(nullptr, nullptr); }
  Blob Written() { return kab_test::ReadFile(dir_.File("stream")); }
  /// A file with a stream at kStart.
  std::string Put(const Blob& stream) {
    Blob file(kStart + stream.size());
    std::copy(stream.begin(), stream.end(), file.begin() + kStart);
    kab_test::WriteFile(dir_.File("stream"), file);
    return dir_.File("stream");
  }
  kab_test::TempDir dir_;
  kab_test::LogCapture log_;
};

TEST_F(StreamTest, DeliversWhatWasAppendedInAnyPieces) {
  std::mt19937_64 random(20);
  Blob all = Noise(9 << 20, 1);  // more than one buffer of output
  all.resize(all.size() + (3 << 20), 0x55);
  {
    const File file(dir_.File("stream"));
    const Compressor stream(KABCompressInit(file.fd(), kStart));
    ASSERT_NE(stream, nullptr);
    for (size_t at = 0; at < all.size();) {
      const size_t piece = std::min<size_t>(all.size() - at, random() % 3 == 0 ? random() % 20 : random() % 900000);
      ASSERT_EQ(KABCompressAppend(stream.get(), all.data() + at, static_cast<uint32_t>(piece)), KAB_OK);
      at += piece;
    }
    ASSERT_EQ(KABCompressFinish(stream.get()), KAB_OK);
    EXPECT_EQ(stream->fileOffset, Written().size());
  }
  const Blob file = Written();
  EXPECT_EQ(Blob(file.begin(), file.begin() + kStart), Blob(kStart));
  EXPECT_EQ(kab_test::Get(file, kStart, 2), 0x9C78u);  // default window, default level
  EXPECT_TRUE(Inflate(file, kStart) == all);

  const File source(dir_.File("stream"));
  const Decompressor stream(KABDecompressInit(source.fd(), kStart));
  Blob back(all.size());
  for (size_t at = 0; at < all.size();) {
    const size_t piece = std::min<size_t>(all.size() - at, random() % 3 == 0 ? random() % 20 : random() % 900000);
    ASSERT_EQ(KABGetDecompressedData(stream.get(), back.data() + at, static_cast<uint32_t>(piece)), KAB_OK);
    at += piece;
  }
  EXPECT_TRUE(back == all);
  EXPECT_EQ(stream->stream->totalOut, all.size());
  EXPECT_EQ(stream->fileOffset, file.size());
  EXPECT_EQ(log_.Text(), "");
}

// Lengths handed to the output check, which the recorder passes on.
std::vector<uint32_t> handed;
uint32_t RecordOutput(KABCompressCtx* ctx, uint32_t length, uint8_t advance) {
  handed.push_back(length);
  return KABCompressCheckOutput(ctx, length, advance);
}

TEST_F(StreamTest, WritesWholeBuffersAndTheRest) {
  // Noise whose stream is exactly two buffers long: its size grows byte by byte but for the heads of stored blocks.
  size_t length = 2 * KAB_STREAM_BUFFER_SIZE - 2600;
  const Blob noise = Noise(2 * KAB_STREAM_BUFFER_SIZE, 7);
  for (int round = 0; round < 20; ++round) {
    const size_t packed = Deflate(Blob(noise.begin(), noise.begin() + static_cast<ptrdiff_t>(length))).size();
    if (packed == 2 * KAB_STREAM_BUFFER_SIZE) break;
    length += 2 * KAB_STREAM_BUFFER_SIZE - packed;
  }
  constexpr uint32_t kWhole = KAB_STREAM_BUFFER_SIZE;
  const struct {
    const char* name;
    size_t length;
    std::vector<uint32_t> handed;
  } cases[] = {
      {"Nothing", 0, {8}}, {"TwoBuffers", length, {kWhole, kWhole}}, {"OneMore", length + 1, {kWhole, kWhole, 1}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    handed.clear();
    unlink(dir_.File("stream").c_str());
    const File file(dir_.File("stream"));
    const Compressor stream(KABCompressInit(file.fd(), kStart));
    stream->stream->callback.checkOutput = RecordOutput;
    EXPECT_EQ(KABCompressAppend(stream.get(), noise.data(), static_cast<uint32_t>(c.length)), KAB_OK);
    EXPECT_EQ(KABCompressFinish(stream.get()), KAB_OK);
    EXPECT_EQ(handed, c.handed);
    EXPECT_TRUE(Inflate(Written(), kStart) == Blob(noise.begin(), noise.begin() + static_cast<ptrdiff_t>(c.length)));
  }
  EXPECT_EQ(log_.Text(), "");
}

TEST_F(StreamTest, NothingAppendedWritesNothing) {
  const File file(dir_.File("stream"));
  const Compressor stream(KABCompressInit(file.fd(), kStart));
  EXPECT_EQ(KABCompressAppend(stream.get(), nullptr, 0), KAB_OK);
  EXPECT_EQ(Written().size(), 0u);
  stream->stream->zlib.avail_out = 0;
  EXPECT_EQ(KABCompressAppend(stream.get(), "x", 1), KAB_GENERAL_FAILURE);
  EXPECT_EQ(KABCompressAppend(stream.get(), "x", 0), KAB_GENERAL_FAILURE);
  EXPECT_EQ(log_.Text(), "");
}

TEST_F(StreamTest, AFailedWriteMovesTheOffsetAllTheSame) {
  const File file(dir_.File("stream"));
  const Compressor stream(KABCompressInit(file.fd(), kStart));
  const Blob noise = Noise(9 << 20, 3);
  KabFaultPlan("pwrite@1=short", nullptr);
  EXPECT_EQ(KABCompressAppend(stream.get(), noise.data(), static_cast<uint32_t>(noise.size())), KAB_GENERAL_FAILURE);
  EXPECT_EQ(stream->fileOffset, kStart + KAB_STREAM_BUFFER_SIZE);
  EXPECT_EQ(log_.Text(),
            "Error: Failed to write compressed data to file: IO Error\n"
            "Error: KABCompressCheckOutput failed: General failure\n");
  log_.Clear();
  KabFaultPlan("pwrite@1+=ENOSPC", nullptr);
  EXPECT_EQ(KABCompressCheckOutput(stream.get(), 5, 0), KAB_IO_ERROR);
  EXPECT_EQ(stream->fileOffset, kStart + KAB_STREAM_BUFFER_SIZE);
  EXPECT_EQ(KABCompressCheckOutput(stream.get(), 5, 1), KAB_IO_ERROR);
  EXPECT_EQ(stream->fileOffset, kStart + KAB_STREAM_BUFFER_SIZE + 5);
}

TEST_F(StreamTest, AFailedFinishReleasesItsBuffer) {
  const File file(dir_.File("stream"));
  const Compressor stream(KABCompressInit(file.fd(), kStart));
  KabFaultPlan("pwrite@1=ENOSPC", nullptr);
  EXPECT_EQ(KABCompressAppend(stream.get(), "abc", 3), KAB_OK);
  EXPECT_EQ(KABCompressFinish(stream.get()), KAB_GENERAL_FAILURE);
  EXPECT_EQ(stream->stream->buffer, nullptr);
  EXPECT_EQ(log_.Text(),
            "Error: Failed to write compressed data to file: IO Error\n"
            "Error: KABCompressCheckOutput failed: General failure\n");
  log_.Clear();
  EXPECT_EQ(KABCompressFinish(stream.get()), KAB_GENERAL_FAILURE);
  EXPECT_EQ(KABCompressClear(stream->stream), KAB_GENERAL_FAILURE);
  EXPECT_EQ(log_.Text(), "Error: deflateEnd failure: stream error.\n");
}

TEST_F(StreamTest, BrokenStateIsTold) {
  const File file(dir_.File("stream"));
  const Compressor stream(KABCompressInit(file.fd(), kStart));
  z_stream& zlib = stream->stream->zlib;
  ASSERT_EQ(deflateEnd(&zlib), Z_OK);
  EXPECT_EQ(KABCompressAppend(stream.get(), "abc", 3), KAB_GENERAL_FAILURE);
  EXPECT_EQ(log_.Text(), "Error: deflate failure: stream error \n");
  log_.Clear();
  EXPECT_EQ(KABCompressFinish(stream.get()), KAB_GENERAL_FAILURE);
  EXPECT_EQ(log_.Text(), "Error: deflate failure: stream error\nError: deflateEnd failure: stream error.\n");
}

TEST_F(StreamTest, AskingBeyondTheEndFails) {
  const Blob data = Noise(1000, 4);
  const Blob whole = Deflate(data);
  Blob cut = whole;
  cut.resize(cut.size() - 2);
  Blob badAdler = whole;
  badAdler.back() ^= 1;
  Blob followed = whole;
  followed.resize(followed.size() + 100, 0x11);
  const Blob dictionary = {0x78, 0xBB, 0, 0, 0, 1, 1, 2, 3};
  const Blob garbage(64, 0xEE);
  const struct {
    const char* name;
    Blob stream;
    uint32_t first;  // asked for at once
    uint32_t firstStatus;
    uint32_t secondStatus;  // of one more byte
    const char* log;        // of the second request
  } cases[] = {
      {"EndAndThenMore", whole, 1000, 0, 2, "Error: Hit postponed error 1.\n"},
      {"EndInARequest", whole, 1001, 2, 2, "Error: Hit postponed error 1.\n"},
      {"BytesBehindTheEnd", followed, 1001, 2, 2, "Error: Hit postponed error 1.\n"},
      {"BadTrailerBehindARequest", badAdler, 1000, 0, 2, "Error: Hit postponed error -3.\n"},
      {"BadTrailerInARequest", badAdler, 1001, 2, 2, ""},
      {"CutWithinTheTrailer", cut, 1001, 2, 2, ""},
      {"WantsADictionary", dictionary, 1, 2, 2, ""},
      {"NoStream", garbage, 1, 2, 2, ""},
      {"NoByte", {}, 1, 2, 2, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const File file(Put(c.stream));
    const Decompressor stream(KABDecompressInit(file.fd(), kStart));
    Blob out(2000);
    EXPECT_EQ(KABGetDecompressedData(stream.get(), out.data(), 0), KAB_OK);
    EXPECT_EQ(KABGetDecompressedData(stream.get(), out.data(), c.first), c.firstStatus);
    if (c.first > 1) {
      EXPECT_TRUE(std::equal(data.begin(), data.end(), out.begin()));
    }
    EXPECT_EQ(log_.Text(), "");
    EXPECT_EQ(KABGetDecompressedData(stream.get(), out.data(), 1), c.secondStatus);
    EXPECT_EQ(log_.Text(), c.log);
    EXPECT_EQ(stream->stream->totalOut, c.firstStatus == KAB_OK ? 1000u : 0u);
    log_.Clear();
  }
}

TEST_F(StreamTest, RefillsInShortReadsAndZeroesTheRest) {
  const Blob stored = Noise(100000, 5);
  const File file(Put(stored));
  const Decompressor stream(KABDecompressInit(file.fd(), kStart));
  uint8_t* buffer = stream->stream->buffer;
  std::memset(buffer, 0xFF, KAB_STREAM_BUFFER_SIZE);
  KabFaultPlan("pread@1=short", nullptr);  // asks for more than there is: the second read ends it
  uint64_t filled = 1;
  EXPECT_EQ(KABDecompressInput(stream.get(), &filled), KAB_OK);
  EXPECT_EQ(filled, stored.size());
  EXPECT_TRUE(std::equal(stored.begin(), stored.end(), buffer));
  EXPECT_TRUE(std::all_of(buffer + filled, buffer + KAB_STREAM_BUFFER_SIZE, [](uint8_t b) { return b == 0; }));
  EXPECT_EQ(KABDecompressInput(stream.get(), &filled), KAB_OK);
  EXPECT_EQ(filled, 0u);

  KabFaultPlan("pread@1=EIO", nullptr);
  uint8_t byte = 0;
  EXPECT_EQ(KABGetDecompressedData(stream.get(), &byte, 1), KAB_GENERAL_FAILURE);
  EXPECT_EQ(log_.Text(), "Error: Failed to populate input for decompress\n");
}

TEST_F(StreamTest, NoMemoryGivesNoStream) {
  const File file(dir_.File("stream"));
  for (int nth = 1; nth <= 20; ++nth) {
    log_.Clear();
    KabFaultPlan(("calloc@" + std::to_string(nth) + "=ENOMEM").c_str(), nullptr);
    const Compressor stream(KABCompressInit(file.fd(), kStart));
    if (stream != nullptr) {
      EXPECT_GT(nth, 4);
      break;
    }
    EXPECT_EQ(log_.Text(), nth <= 3 ? "" : "Error: deflateInit failure.\n");
    ASSERT_LT(nth, 20);
  }
  for (int nth = 1; nth <= 20; ++nth) {
    log_.Clear();
    KabFaultPlan(("calloc@" + std::to_string(nth) + "=ENOMEM").c_str(), nullptr);
    const Decompressor stream(KABDecompressInit(file.fd(), kStart));
    EXPECT_EQ(log_.Text(), "");
    if (stream != nullptr) break;
    ASSERT_LT(nth, 20);
  }
}

}  // namespace
