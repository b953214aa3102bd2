// Writes a dump of records that the input makes up, extracts it and compares every byte. The first byte may ask for a
// flipped byte in the file or a cut of it, which the extractor must notice.
//
//    | choice | where 4 | record: offset 3, length 2, seed 1 | ...

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "demand.h"
#include "kab/core.h"
#include "kab/dump.h"

namespace {

enum Choice : uint8_t {
  kFlip = 1,
  kCut = 2,
  kTruncate = 4,  // the target is resized
  kNoise = 8,     // data that does not compress
  kNotClosed = 16
};

constexpr size_t kWhereSize = 5;
constexpr size_t kRecordSize = 6;
constexpr size_t kMostRecords = 200;
constexpr uint64_t kDigestAt = 40;
constexpr uint32_t kDigestSize = 32;
constexpr uint64_t kDiskSize = 1 << 24;

struct File {
  File() : fd(memfd_create("file", MFD_CLOEXEC)) { KAB_DEMAND(fd >= 0); }
  ~File() { close(fd); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  uint64_t Size() const {
    struct stat info;
    KAB_DEMAND(fstat(fd, &info) == 0);
    return static_cast<uint64_t>(info.st_size);
  }
  int fd;
};

std::vector<uint8_t> MakeData(size_t length, uint8_t seed, bool noise) {
  std::vector<uint8_t> data(length, seed);
  uint32_t state = seed + 1U;
  for (size_t i = 0; noise && i < length; ++i) {
    state = state * 1664525 + 1013904223;
    data[i] = static_cast<uint8_t>(state >> 24U);
  }
  return data;
}

// In a folder of its own that the process leaves behind empty: the writer insists on making its file.
std::string FreshPath() {
  static const std::string folder = [] {
    std::string name = std::filesystem::temp_directory_path() / "round_trip_XXXXXX";
    KAB_DEMAND(mkdtemp(name.data()) != nullptr);
    return name;
  }();
  return folder + "/dump";
}

void Copy(const std::string& path, const File& to) {
  const int from = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  KAB_DEMAND(from >= 0);
  std::vector<uint8_t> piece(1 << 16);
  for (ssize_t got; (got = read(from, piece.data(), piece.size())) > 0;) {
    KAB_DEMAND(write(to.fd, piece.data(), static_cast<size_t>(got)) == got);
  }
  close(from);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint32_t ready = KABInit(0, std::fopen("/dev/null", "w"));
  KAB_DEMAND(ready == KAB_OK);
  const uint8_t choice = size == 0 ? 0 : *data;
  uint32_t where = 0;
  if (size >= kWhereSize) std::memcpy(&where, data + 1, sizeof where);

  const std::string path = FreshPath();
  KABDumpCtx* dump = KABInitDumpFile(path.c_str(), "/dev/source", kDiskSize);
  KAB_DEMAND(dump != nullptr);
  std::vector<uint8_t> picture;
  size_t left = kMostRecords;
  for (size_t at = kWhereSize; at + kRecordSize <= size && left > 0; at += kRecordSize, --left) {
    uint32_t offset = 0;
    uint16_t length = 0;
    std::memcpy(&offset, data + at, 3);
    std::memcpy(&length, data + at + 3, 2);
    const auto bytes = MakeData(length, data[at + 5], (choice & kNoise) != 0);
    KAB_DEMAND(KABAddBufferToDump(dump, bytes.data(), length, offset) == KAB_OK);
    if (length == 0) continue;
    picture.resize(std::max<size_t>(picture.size(), offset + bytes.size()));
    std::copy(bytes.begin(), bytes.end(), picture.begin() + offset);
  }
  File file;
  if ((choice & kNotClosed) != 0) Copy(path, file);  // what a crash would leave
  KAB_DEMAND(KABCloseDumpFile(dump) == KAB_OK);
  KABFree(&dump);
  if ((choice & kNotClosed) == 0) Copy(path, file);
  unlink(path.c_str());

  if ((choice & kNotClosed) != 0) {
    uint8_t header[KAB_DUMP_HEADER_READ] = {};
    (void)KABReadDumpHeader(static_cast<uint32_t>(file.fd), header);
    KAB_DEMAND(std::all_of(std::begin(header), std::end(header), [](uint8_t byte) { return byte == 0; }));
    return 0;
  }
  const uint64_t whole = file.Size();
  const bool cut = (choice & kCut) != 0;
  const bool flipped = !cut && (choice & kFlip) != 0;
  if (cut) {
    KAB_DEMAND(ftruncate(file.fd, static_cast<off_t>(KAB_DUMP_HEADER_SIZE + where % (whole - KAB_DUMP_HEADER_SIZE))) ==
               0);
  } else if (flipped) {
    const auto at = static_cast<off_t>(kDigestAt + where % kDigestSize);
    uint8_t byte = 0;
    KAB_DEMAND(pread(file.fd, &byte, 1, at) == 1);
    byte = static_cast<uint8_t>(byte ^ 1U << (where >> 8U) % 8U);
    KAB_DEMAND(pwrite(file.fd, &byte, 1, at) == 1);
  }

  File target;
  const uint32_t st = KABExtractDumpToDisk(static_cast<uint32_t>(file.fd), static_cast<uint32_t>(target.fd),
                                           (choice & kTruncate) != 0 ? 1 : 0, nullptr);
  KAB_DEMAND(flipped ? st != KAB_OK : cut || st == KAB_OK);
  if (st != KAB_OK) return 0;  // a cut that took the stream's own checksum alone leaves every record whole
  KAB_DEMAND(target.Size() ==
             ((choice & kTruncate) != 0 ? std::max<uint64_t>(kDiskSize, picture.size()) : picture.size()));
  std::vector<uint8_t> written(picture.size());
  KAB_DEMAND(pread(target.fd, written.data(), written.size(), 0) == static_cast<ssize_t>(written.size()));
  KAB_DEMAND(written == picture);
  return 0;
}
