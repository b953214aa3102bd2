#include "dump_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>

#include "kab/core.h"
#include "kab/dump.h"

namespace tool {
namespace {

uint64_t Little(const uint8_t* bytes, size_t count) {
  uint64_t value = 0;
  for (size_t i = count; i-- > 0;) value = value << 8 | bytes[i];
  return value;
}

// The library's callback carries no argument of the caller's.
struct Running {
  const DumpFile::Sink* sink;
  Progress* progress;
  uint64_t records = 0;
  uint64_t dataBytes = 0;
  bool sinkFailed = false;
  int sinkError = 0;
  std::exception_ptr thrown{};  // by the sink: nothing is thrown through the library
};
Running* running = nullptr;

uint32_t OnRecord(uint32_t /*targetFd*/, void* data, uint32_t length, uint64_t offset) {
  struct FreeBlock {
    void operator()(void* block) const noexcept { KABFree(&block); }
  };
  const std::unique_ptr<void, FreeBlock> owned(data);
  if (Interrupted()) return KAB_GENERAL_FAILURE;
  try {
    errno = 0;
    if (*running->sink && !(*running->sink)(data, length, offset)) {
      running->sinkFailed = true;
      running->sinkError = errno != 0 ? errno : ENOSPC;  // a short write that did not say why
      return KAB_IO_ERROR;
    }
  } catch (...) {
    running->thrown = std::current_exception();
    return KAB_GENERAL_FAILURE;
  }
  running->records++;
  running->dataBytes += length;
  running->progress->Add(uint64_t{length} + 12);
  return KAB_OK;
}

}  // namespace

const char* VerdictName(Verdict::Kind kind) {
  switch (kind) {
    case Verdict::kIntact:
      return "intact";
    case Verdict::kUnfinished:
      return "unfinished";
    case Verdict::kNotADump:
      return "not-a-dump";
    case Verdict::kForeignVersion:
      return "foreign-version";
    case Verdict::kBroken:
      return "broken";
    case Verdict::kDigestMismatch:
      return "digest-mismatch";
    case Verdict::kMissing:
      return "missing";
  }
  return "broken";
}

Exit ExitOf(const Verdict& verdict) {
  if (verdict.kind == Verdict::kIntact) return Exit::kClean;
  return verdict.kind == Verdict::kDigestMismatch ? Exit::kDigest : Exit::kDamage;
}

DumpFile::DumpFile(const std::string& path) : path_(path) {
  RequireFileOrDevice(path);
  fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) throw SystemFailure(path, errno);
  uint8_t raw[KAB_DUMP_HEADER_READ] = {};
  if (KABReadDumpHeader(static_cast<uint32_t>(fd_), raw) != KAB_OK) {
    struct stat info;
    short_ = fstat(fd_, &info) == 0 && info.st_size < KAB_DUMP_HEADER_READ;
    if (!short_) {
      close(fd_);
      throw Failure(Exit::kError, fmt::format("{}: cannot read the header", path));
    }
  }
  header_.magic = static_cast<uint32_t>(Little(raw, 4));
  header_.version = static_cast<uint32_t>(Little(raw + 4, 4));
  header_.records = Little(raw + 8, 8);
  header_.diskSize = Little(raw + 16, 8);
  header_.totalLength = Little(raw + 24, 8);
  header_.createdMicroseconds = Little(raw + 32, 8);
  std::copy_n(raw + 40, header_.sha256.size(), header_.sha256.begin());
  const auto* name = reinterpret_cast<const char*>(raw + 72);
  header_.device.assign(name, strnlen(name, 128));
  // The name goes to terminals: what a foreign file says there is not to be obeyed by one.
  std::replace_if(
      header_.device.begin(), header_.device.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
}

DumpFile::~DumpFile() { close(fd_); }

Verdict DumpFile::JudgeHeader() const {
  if (header_.magic == 0) return {Verdict::kUnfinished, "unfinished, or no dump at all: no header was written"};
  if (short_) return {Verdict::kNotADump, "too short for a dump"};
  if (header_.magic != KAB_DUMP_MAGIC) return {Verdict::kNotADump, "not a dump: no dump's magic number"};
  if (header_.version != KAB_DUMP_VERSION) {
    return {Verdict::kForeignVersion,
            fmt::format("a dump of version {}, which this tool does not know", header_.version)};
  }
  return {};
}

Verdict DumpFile::Replay(Tool& tool, const std::string& task, const Sink& sink) const {
  Verdict verdict = JudgeHeader();
  if (verdict.kind != Verdict::kIntact) return verdict;

  Progress progress(tool, task, header_.totalLength);
  Running state{&sink, &progress};
  running = &state;
  tool.log.Forget();
  const uint32_t status = KABVerifyAndExtractDump(static_cast<uint32_t>(fd_), UINT32_MAX, 0, OnRecord);
  std::fflush(tool.log.stream());
  running = nullptr;
  verdict.records = state.records;
  verdict.dataBytes = state.dataBytes;

  StopIfInterrupted();
  if (state.thrown) std::rethrow_exception(state.thrown);
  if (state.sinkFailed) throw SystemFailure("writing the target", state.sinkError);
  // Without a decompression context nothing is replayed, and yet the status may say success.
  if (status == KAB_OUT_OF_MEMORY || tool.log.outOfMemory()) throw Failure(Exit::kMemory, "out of memory");
  if (tool.log.inputFailed()) throw Failure(Exit::kError, fmt::format("{}: cannot be read", path_));

  if (tool.log.hashMismatch()) {
    verdict.kind = Verdict::kDigestMismatch;
    verdict.reason = "the digest does not match the records";
  } else if (status != KAB_OK || state.records != header_.records) {
    verdict.kind = Verdict::kBroken;
    verdict.reason = fmt::format("broken after {} of {} records", state.records, header_.records);
  } else if (state.dataBytes + 12 * state.records != header_.totalLength) {
    verdict.kind = Verdict::kBroken;
    verdict.reason = fmt::format("the header states {} bytes, the records hold {}", header_.totalLength,
                                 state.dataBytes + 12 * state.records);
  } else {
    progress.Finish();
  }
  return verdict;
}

void AddHeader(Json& object, const DumpHeader& header) {
  object["device"] = header.device;
  object["diskSize"] = header.diskSize;
  object["records"] = header.records;
  object["streamLength"] = header.totalLength;
  object["createdMicroseconds"] = header.createdMicroseconds;
  object["sha256"] = HexText(header.sha256.data(), header.sha256.size());
}

std::string HexText(const uint8_t* bytes, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; i++) text += fmt::format("{:02x}", bytes[i]);
  return text;
}

std::string TimeText(uint64_t microseconds) {
  const auto seconds = static_cast<time_t>(microseconds / 1000000);
  tm utc = {};
  char text[64];
  if (gmtime_r(&seconds, &utc) == nullptr || strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc) == 0) return "?";
  return text;
}

}  // namespace tool
