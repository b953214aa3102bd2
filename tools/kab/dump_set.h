#pragma once
// A dump set: a folder with one dump file a disk and a manifest, which is written last, so that a set without one is
// known as unfinished.
//
// manifest.json, all sizes and offsets in bytes:
//   {"schema": "kab.dump-set", "version": 1, "createdMicroseconds": ..., "options": {...}, "disks": [
//     {"file": "disk0.kabdump", "uuid": "...", "role": "ssd" or "capacity", "slot": 0 or null, "size": ...,
//      "dumpedInClear": false, "records": ..., "streamLength": ..., "sha256": "... of the records",
//      "ranges": [[offset, length], ...], "unreadable": [[offset, length], ...]}]}

#include <memory>
#include <string>
#include <vector>

#include "dump_file.h"
#include "ranges.h"

namespace tool {

struct SetMember {
  std::string file;  // within the folder
  std::string uuid;
  bool ssd = false;
  int slot = -1;  // capacity disks only, -1 for none
  uint64_t size = 0;
  bool dumpedInClear = false;
  uint64_t records = 0;
  uint64_t streamLength = 0;
  std::string sha256;
  std::vector<Range> ranges;      // what the dump holds, merged
  std::vector<Range> unreadable;  // what it should have held, merged

  /// "ssd", "disk0" or, for a disk without a slot, "disk-UUID".
  std::string Stem() const;
};

Json MemberJson(const SetMember& member);

class DumpSet {
 public:
  static constexpr const char* kManifest = "manifest.json";

  /// Whether a path is to be taken as a set: a folder.
  static bool IsSet(const std::string& path);

  /// Reads and judges the manifest; a Failure when that cannot be done.
  explicit DumpSet(const std::string& path);

  /// Unfinished, of a foreign version, broken or, as far as the manifest tells, intact.
  const Verdict& verdict() const { return verdict_; }
  const std::vector<SetMember>& members() const { return members_; }
  std::string PathOf(const SetMember& member) const { return path_ + "/" + member.file; }

  /// Judges a member's file without its records: there, a regular file, the header that the manifest tells of. With
  /// an intact verdict `dump` is open.
  Verdict Open(const SetMember& member, std::unique_ptr<DumpFile>* dump) const;
  /// Replays a member's records into `sink`, which may be empty, and compares them with the manifest.
  Verdict Replay(Tool& tool, const SetMember& member, const DumpFile& dump, const std::string& task,
                 const DumpFile::Sink& sink) const;

  /// Writes the manifest of a folder whose dumps are all on stable storage, and synchronises it and the folder.
  static void Finish(const std::string& path, const Json& options, const std::vector<SetMember>& members);

 private:
  void Parse(const std::string& text);

  std::string path_;
  Verdict verdict_;
  std::vector<SetMember> members_;
};

}  // namespace tool
