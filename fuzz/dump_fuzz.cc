// Extracts a dump that the input makes up. Its first byte chooses how much of the dump is forged.

#include <fcntl.h>
#include <openssl/sha.h>
#include <sys/mman.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kab/core.h"
#include "kab/dump.h"

namespace {

constexpr size_t kStreamAt = 4096;

enum Choice : uint8_t {
  kSeal = 1,      // the rest is the stream before compression: it is compressed, hashed and counted correctly
  kTruncate = 2,  // the target is resized first
  kCallback = 4   // records are handed to a callback
};

void Put64(std::vector<uint8_t>& file, size_t at, uint64_t value) { std::memcpy(&file[at], &value, sizeof value); }

struct Records {
  uint64_t count;
  bool whole;  // the last one ends where the bytes end
};

/// The records that the bytes hold: a head each, and as much data as it says and there is.
Records FindRecords(const uint8_t* data, size_t size) {
  Records found = {0, true};
  size_t at = 0;
  for (; size - at >= 12; ++found.count) {
    uint32_t length;
    std::memcpy(&length, data + at + 8, sizeof length);
    at += 12;
    found.whole = length <= size - at;
    at += std::min<size_t>(length, size - at);
  }
  found.whole = found.whole && at == size;
  return found;
}

std::vector<uint8_t> Seal(const uint8_t* data, size_t size, const Records& records) {
  std::vector<uint8_t> file(kStreamAt + compressBound(size));
  uLongf packed = file.size() - kStreamAt;
  compress2(&file[kStreamAt], &packed, data, size, 1);
  file.resize(kStreamAt + packed);
  const uint32_t head[2] = {KAB_DUMP_MAGIC, KAB_DUMP_VERSION};
  std::memcpy(file.data(), head, sizeof head);
  Put64(file, 8, records.count);
  Put64(file, 16, 1 << 20);
  Put64(file, 24, size);
  SHA256(data, size, &file[40]);
  std::memset(&file[72], 'n', 128);
  return file;
}

uint32_t Take(uint32_t fd, void* data, uint32_t length, uint64_t offset) {
  const uint32_t st = KABDiskWrite(fd, data, length, static_cast<int64_t>(offset & 0xFFFFFF));
  KABFree(&data);
  return st;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint32_t ready = KABInit(0, std::fopen("/dev/null", "w"));
  const uint8_t choice = size == 0 ? 0 : *data;
  if (size != 0) ++data, --size;
  const bool sealed = (choice & kSeal) != 0;
  const Records records = FindRecords(data, size);
  const auto file = sealed ? Seal(data, size, records) : std::vector<uint8_t>(data, data + size);
  const int dump = memfd_create("dump", MFD_CLOEXEC);
  const int target = memfd_create("target", MFD_CLOEXEC);
  if (ready != KAB_OK || dump < 0 || target < 0) std::abort();
  if (write(dump, file.data(), file.size()) != static_cast<ssize_t>(file.size())) std::abort();
  const uint32_t st = KABExtractDumpToDisk(static_cast<uint32_t>(dump), static_cast<uint32_t>(target),
                                           (choice & kTruncate) != 0, (choice & kCallback) != 0 ? Take : nullptr);
  // Half a record must not pass. A whole dump must, unless the target cannot take an offset.
  if (sealed && (choice & kCallback) != 0 && (st == KAB_OK) != records.whole) std::abort();
  close(dump);
  close(target);
  return 0;
}
