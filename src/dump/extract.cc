// Replaying a dump onto a target. Records are written as they come, and the hash is compared at the end: the result
// tells whether the target can be trusted.

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "dump/dump_format.h"
#include "kab/core.h"
#include "kab/dump.h"
#include "plinth/path.h"
#include "plinth/sha256.h"

namespace kab::dump {
namespace {

constexpr uint32_t kPiece = 1 << 20;  // what a record's claim is believed before its bytes are there
constexpr uint64_t kProgressEvery = 10000;

// The data of one record at a time. Without a callback one block serves all records; a callback takes its block away.
class RecordBuffer {
 public:
  /// Room for `size` bytes, the first `kept` of them as they were; false when memory is exhausted.
  bool Reserve(uint32_t size, uint32_t kept) {
    if (block_ != nullptr && size <= capacity_) return true;
    auto larger = AllocBytes(size);
    if (larger == nullptr) return false;
    if (kept != 0) std::memcpy(larger.get(), block_.get(), kept);
    block_ = std::move(larger);
    capacity_ = size;
    return true;
  }
  uint8_t* data() { return block_.get(); }
  uint32_t capacity() const { return capacity_; }
  uint8_t* Release() {
    capacity_ = 0;
    return block_.release();
  }

 private:
  Owned<uint8_t[]> block_;
  uint32_t capacity_ = 0;
};

// A stream and its records for the length of one call.
class Replay {
 public:
  explicit Replay(KABCompressCtx* stream) : stream_(stream) {}
  ~Replay() {
    KABDecompressFinish(stream_);
    KABFree(&stream_->stream);
    KABFree(&stream_);
    plinth::Sha256Abandon(hash_);
  }
  Replay(const Replay&) = delete;
  Replay& operator=(const Replay&) = delete;

  bool Start() { return (hash_ = plinth::Sha256Start()) != nullptr; }

  uint32_t WriteRecord(uint32_t targetFd, KABExtractWriteFn write) {
    RecordHead head;
    uint32_t st = KABGetDecompressedData(stream_, &head, sizeof head);
    if (st != KAB_OK) return st;
    plinth::Sha256Feed(hash_, &head, sizeof head);
    const uint32_t length = head.length;
    const uint64_t offset = head.offset;
    st = TakeData(length);
    if (st != KAB_OK) return st;
    if (write != nullptr) return write(targetFd, buffer_.Release(), length, offset);
    return KABDiskWrite(targetFd, buffer_.data(), length, static_cast<int64_t>(offset));
  }

  bool HashMatches(const uint8_t expected[plinth::kSha256Size]) {
    uint8_t digest[plinth::kSha256Size];
    plinth::Sha256Finish(hash_, digest);
    hash_ = nullptr;
    return std::memcmp(digest, expected, sizeof digest) == 0;
  }

 private:
  // The buffer grows with the bytes that the stream really holds, never with what a record says.
  uint32_t TakeData(uint32_t length) {
    if (!buffer_.Reserve(std::min(length, kPiece), 0)) return KAB_OUT_OF_MEMORY;
    for (uint32_t done = 0; done < length;) {
      const uint32_t piece = std::min(length - done, kPiece);
      if (done + piece > buffer_.capacity()) {
        const uint64_t doubled = std::min<uint64_t>(2 * uint64_t{buffer_.capacity()}, length);
        if (!buffer_.Reserve(std::max(static_cast<uint32_t>(doubled), done + piece), done)) return KAB_OUT_OF_MEMORY;
      }
      const uint32_t st = KABGetDecompressedData(stream_, buffer_.data() + done, piece);
      if (st != KAB_OK) return st;
      plinth::Sha256Feed(hash_, buffer_.data() + done, piece);
      done += piece;
    }
    return KAB_OK;
  }

  KABCompressCtx* stream_;
  void* hash_ = nullptr;
  RecordBuffer buffer_;
};

}  // namespace
}  // namespace kab::dump

uint32_t KABReadDumpHeader(uint32_t dumpFd, void* buf) { return KABDiskRead(dumpFd, buf, KAB_DUMP_HEADER_READ, 0); }

uint32_t KABOpenExtractDisk(const char* path, int32_t* fdOut, uint8_t* create) {
  if (!kab::plinth::PathExists(path)) *create = 1;
  const int flags = O_RDWR | O_EXCL | O_SYNC | (*create != 0 ? O_CREAT : 0);
  const int fd = open(path, flags, 0644);
  if (fd < 0) {
    kab::Log("Error: Failed to open disk file %s : %s\n", path, strerror(errno));
    *fdOut = 0;
    return KAB_OPEN_FAILED;
  }
  *fdOut = fd;
  return KAB_OK;
}

uint32_t KABVerifyAndExtractDump(uint32_t dumpFd, uint32_t targetFd, uint8_t truncate, KABExtractWriteFn write) {
  using namespace kab::dump;
  Header header = {};
  // Kept, not acted on: what a short header lacks is zero. A dump without records ends with this status.
  uint32_t st = KABReadDumpHeader(dumpFd, &header);
  if (truncate != 0) {
    [[maybe_unused]] const int ignored = ftruncate(static_cast<int>(targetFd), static_cast<off_t>(header.diskSize));
  }
  KABCompressCtx* stream = KABDecompressInit(dumpFd, kStreamOffset);
  if (stream == nullptr) {
    kab::Log("Error: Failed to init decompression context\n");
    return st;
  }
  Replay replay(stream);
  if (!replay.Start()) return KAB_OUT_OF_MEMORY;

  const uint64_t records = header.records;
  for (uint64_t i = 0; i < records; ++i) {
    if (i % kProgressEvery == 0) {
      kab::Log("%.128s: Extracting chunk number (%lu/%lu)\n", header.deviceName, i, records);
    }
    st = replay.WriteRecord(targetFd, write);
    if (st != KAB_OK) return st;
  }
  if (!replay.HashMatches(header.sha256)) {
    kab::Log("Error: Total Hash mismatch for dump, extracted dump might not be usable\n");
    return KAB_GENERAL_FAILURE;
  }
  return st;
}

uint32_t KABExtractDumpToDisk(uint32_t dumpFd, uint32_t targetFd, uint8_t truncate, KABExtractWriteFn write) {
  const uint32_t st = KABVerifyAndExtractDump(dumpFd, targetFd, truncate, write);
  if (st != KAB_OK) {
    // A callback may return any number, the table of texts ends.
    const uint32_t known = st < KAB_STATUS_COUNT ? st : uint32_t{KAB_GENERAL_FAILURE};
    kab::Log("Error: Failed to extract all the chunks from dump file : %s\n", KABErrorStr(known));
  }
  return st;
}
