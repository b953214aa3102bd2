#pragma once
// Dump files as verify and extract see them: the header judged, the records replayed.

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "progress.h"
#include "tool.h"

namespace tool {

struct DumpHeader {
  uint32_t magic = 0;
  uint32_t version = 0;
  uint64_t records = 0;
  uint64_t diskSize = 0;     // bytes
  uint64_t totalLength = 0;  // bytes of the stream: each record's head and data
  uint64_t createdMicroseconds = 0;
  std::array<uint8_t, 32> sha256{};
  std::string device;
};

struct Verdict {
  enum Kind { kIntact, kUnfinished, kNotADump, kForeignVersion, kBroken, kDigestMismatch, kMissing };
  Kind kind = kIntact;
  std::string reason;      // for people
  uint64_t records = 0;    // replayed
  uint64_t dataBytes = 0;  // in them
};

const char* VerdictName(Verdict::Kind kind);
/// 0, 6 for a digest that does not match, 3 for any other damage.
Exit ExitOf(const Verdict& verdict);

class DumpFile {
 public:
  /// Opens and reads the header; a Failure when that cannot be done.
  explicit DumpFile(const std::string& path);
  ~DumpFile();
  DumpFile(const DumpFile&) = delete;
  DumpFile& operator=(const DumpFile&) = delete;

  const DumpHeader& header() const { return header_; }
  /// Magic and version.
  Verdict JudgeHeader() const;

  /// Writes a record's data; false with errno set when it could not. What it throws ends the replay.
  using Sink = std::function<bool(const void* data, uint32_t length, uint64_t offset)>;
  /// Judges the header, then every record and the digest. `sink` may be empty. Throws a Failure for errors that tell
  /// nothing about the dump: reading it, the sink, memory, an interruption.
  Verdict Replay(Tool& tool, const std::string& task, const Sink& sink) const;

 private:
  std::string path_;
  int fd_ = -1;
  bool short_ = false;  // too short for a header
  DumpHeader header_;
};

/// A header's facts as JSON members.
void AddHeader(Json& object, const DumpHeader& header);
std::string HexText(const uint8_t* bytes, size_t count);
/// UTC, to the second.
std::string TimeText(uint64_t microseconds);

}  // namespace tool
