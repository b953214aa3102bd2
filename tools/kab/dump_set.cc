#include "dump_set.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <set>

#include "kab/types.h"
#include "out_file.h"

namespace tool {
namespace {

constexpr const char* kSchema = "kab.dump-set";
constexpr uint64_t kVersion = 1;
constexpr uint64_t kMaxManifest = 64 << 20;
constexpr int kMaxDepth = 6;
constexpr uint64_t kMaxSlot = KAB_DISKS_PER_GROUP - 1;

// What is wrong with a manifest.
struct Bad {
  std::string reason;
};

const Json& Member(const Json& object, const char* name) {
  if (!object.is_object() || !object.contains(name)) throw Bad{fmt::format("\"{}\" is missing", name)};
  return object[name];
}

uint64_t Number(const Json& object, const char* name) {
  const Json& value = Member(object, name);
  if (!value.is_number_unsigned()) throw Bad{fmt::format("\"{}\" is not a whole number", name)};
  return value.get<uint64_t>();
}

std::string Text(const Json& object, const char* name) {
  const Json& value = Member(object, name);
  if (!value.is_string()) throw Bad{fmt::format("\"{}\" is not a text", name)};
  return value.get<std::string>();
}

bool Truth(const Json& object, const char* name) {
  const Json& value = Member(object, name);
  if (!value.is_boolean()) throw Bad{fmt::format("\"{}\" is neither true nor false", name)};
  return value.get<bool>();
}

const Json& List(const Json& object, const char* name) {
  const Json& value = Member(object, name);
  if (!value.is_array()) throw Bad{fmt::format("\"{}\" is not a list", name)};
  return value;
}

std::vector<Range> Ranges(const Json& object, const char* name, uint64_t size) {
  std::vector<Range> ranges;
  uint64_t least = 0;
  for (const Json& pair : List(object, name)) {
    if (!pair.is_array() || pair.size() != 2 || !pair[0].is_number_unsigned() || !pair[1].is_number_unsigned()) {
      throw Bad{fmt::format("\"{}\" holds something else than [offset, length]", name)};
    }
    const Range range = {pair[0].get<uint64_t>(), pair[1].get<uint64_t>()};
    if (range.length == 0 || range.offset < least || range.offset > size || range.length > size - range.offset) {
      throw Bad{fmt::format("\"{}\" holds a range that is empty, out of order or outside the disk", name)};
    }
    least = range.offset + range.length + 1;
    ranges.push_back(range);
  }
  return ranges;
}

bool IsPlainName(const std::string& name) {
  const bool plain = std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
  });
  return plain && !name.empty() && name.size() <= 128 && name[0] != '.' && name != DumpSet::kManifest;
}

bool IsHex(const std::string& text, size_t length) {
  return text.size() == length && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

bool IsUuid(const std::string& text) {
  return text.size() == 36 && text.find_first_not_of("0123456789abcdef-") == std::string::npos;
}

SetMember ParseMember(const Json& object) {
  SetMember member;
  member.file = Text(object, "file");
  if (!IsPlainName(member.file)) throw Bad{"\"file\" is not the plain name of a file of the set"};
  member.uuid = Text(object, "uuid");
  if (!IsUuid(member.uuid)) throw Bad{"\"uuid\" is not a UUID"};
  const std::string role = Text(object, "role");
  if (role != "ssd" && role != "capacity") throw Bad{"\"role\" is neither \"ssd\" nor \"capacity\""};
  member.ssd = role == "ssd";
  if (!Member(object, "slot").is_null()) {
    const uint64_t slot = Number(object, "slot");
    if (member.ssd || slot > kMaxSlot) throw Bad{"\"slot\" is not a slot of the group"};
    member.slot = static_cast<int>(slot);
  }
  member.size = Number(object, "size");
  if (member.size > INT64_MAX) throw Bad{"\"size\" is not the size of a disk"};
  member.dumpedInClear = Truth(object, "dumpedInClear");
  member.records = Number(object, "records");
  member.streamLength = Number(object, "streamLength");
  member.sha256 = Text(object, "sha256");
  if (!IsHex(member.sha256, 64)) throw Bad{"\"sha256\" is not a digest"};
  member.ranges = Ranges(object, "ranges", member.size);
  member.unreadable = Ranges(object, "unreadable", member.size);
  return member;
}

// False when there is no manifest.
bool ReadManifest(const std::string& path, std::string* text) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0 && errno == ENOENT) return false;
  if (fd < 0 && errno == ELOOP) throw Bad{"it is a symbolic link"};
  if (fd < 0) throw SystemFailure(path, errno);
  struct Close {
    int fd;
    ~Close() { close(fd); }
  } closing{fd};
  struct stat info;
  if (fstat(fd, &info) != 0) throw SystemFailure(path, errno);
  if (!S_ISREG(info.st_mode)) throw Bad{"it is not a regular file"};
  char buffer[1 << 16];
  for (;;) {
    const ssize_t count = read(fd, buffer, sizeof buffer);
    if (count < 0) throw SystemFailure(path, errno);
    if (count == 0) return true;
    text->append(buffer, static_cast<size_t>(count));
    if (text->size() > kMaxManifest) throw Bad{fmt::format("it is longer than {} bytes", kMaxManifest)};
  }
}

Json RangesJson(const std::vector<Range>& ranges) {
  Json list = Json::array();
  for (const Range& range : ranges) list.push_back({range.offset, range.length});
  return list;
}

}  // namespace

std::string SetMember::Stem() const {
  return ssd ? "ssd" : slot >= 0 ? fmt::format("disk{}", slot) : fmt::format("disk-{}", uuid);
}

Json MemberJson(const SetMember& member) {
  Json object = Json::object();
  object["file"] = member.file;
  object["uuid"] = member.uuid;
  object["role"] = member.ssd ? "ssd" : "capacity";
  object["slot"] = member.slot >= 0 ? Json(member.slot) : Json(nullptr);
  object["size"] = member.size;
  object["dumpedInClear"] = member.dumpedInClear;
  object["records"] = member.records;
  object["streamLength"] = member.streamLength;
  object["sha256"] = member.sha256;
  object["ranges"] = RangesJson(member.ranges);
  object["unreadable"] = RangesJson(member.unreadable);
  return object;
}

bool DumpSet::IsSet(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

DumpSet::DumpSet(const std::string& path) : path_(path) {
  try {
    std::string text;
    if (ReadManifest(path_ + "/" + kManifest, &text)) {
      Parse(text);
    } else {
      verdict_ = {Verdict::kUnfinished, "unfinished, or no dump set at all: no manifest was written"};
    }
  } catch (const Bad& bad) {
    members_.clear();
    verdict_ = {Verdict::kBroken, fmt::format("the manifest is broken: {}", bad.reason)};
  }
}

void DumpSet::Parse(const std::string& text) {
  const auto limitDepth = [](int depth, Json::parse_event_t, Json&) {
    if (depth > kMaxDepth) throw Bad{"it nests too deeply"};
    return true;
  };
  Json manifest = Json::object();
  try {
    manifest = Json::parse(text, limitDepth);
  } catch (const Json::exception&) {
    throw Bad{"it is not JSON"};
  }
  if (Text(manifest, "schema") != kSchema) throw Bad{"\"schema\" is not that of a dump set"};
  const uint64_t version = Number(manifest, "version");
  if (version != kVersion) {
    verdict_ = {Verdict::kForeignVersion,
                fmt::format("a dump set of version {}, which this tool does not know", version)};
    return;
  }
  std::set<std::string> names;
  for (const Json& disk : List(manifest, "disks")) {
    SetMember member = ParseMember(disk);
    // No file stands for two disks, no disk comes twice, no image is written over another.
    for (const std::string& name : {"file " + member.file, "disk " + member.uuid, "place " + member.Stem()}) {
      if (!names.insert(name).second) throw Bad{fmt::format("it names {} twice", name)};
    }
    if (names.size() > 3 * 64) throw Bad{"it names more disks than a group has"};
    members_.push_back(std::move(member));
  }
}

Verdict DumpSet::Open(const SetMember& member, std::unique_ptr<DumpFile>* dump) const {
  const std::string path = PathOf(member);
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) {
    if (errno != ENOENT) throw SystemFailure(path, errno);
    return {Verdict::kMissing, "missing: the manifest names it"};
  }
  if (!S_ISREG(info.st_mode)) return {Verdict::kBroken, "not a regular file"};
  auto opened = std::make_unique<DumpFile>(path);
  Verdict verdict = opened->JudgeHeader();
  if (verdict.kind != Verdict::kIntact) return verdict;
  const DumpHeader& header = opened->header();
  if (HexText(header.sha256.data(), header.sha256.size()) != member.sha256) {
    return {Verdict::kDigestMismatch, "the digest is not that of the manifest"};
  }
  if (header.records != member.records || header.totalLength != member.streamLength || header.diskSize != member.size) {
    return {Verdict::kBroken, "the header's counts and lengths are not those of the manifest"};
  }
  *dump = std::move(opened);
  return verdict;
}

Verdict DumpSet::Replay(Tool& tool, const SetMember& member, const DumpFile& dump, const std::string& task,
                        const DumpFile::Sink& sink) const {
  // Given ranges may overlap and come in any order, yet no more are kept than twice those of the manifest.
  const size_t most = 2 * std::max<size_t>(member.ranges.size(), 1024);
  std::vector<Range> held;
  bool foreign = false;
  Verdict verdict = dump.Replay(tool, task, [&](const void* data, uint32_t length, uint64_t offset) {
    foreign = foreign || offset > member.size || length > member.size - offset;
    if (!foreign && !held.empty() && held.back().offset + held.back().length == offset) {
      held.back().length += length;
    } else if (!foreign) {
      if (held.size() == most) held = Merged(std::move(held));
      foreign = held.size() == most;
      held.push_back({offset, length});
    }
    return !sink || sink(data, length, offset);
  });
  if (verdict.kind == Verdict::kIntact && (foreign || Merged(std::move(held)) != member.ranges)) {
    verdict.kind = Verdict::kBroken;
    verdict.reason = "its records do not cover the ranges of the manifest";
  }
  return verdict;
}

void DumpSet::Finish(const std::string& path, const Json& options, const std::vector<SetMember>& members) {
  Json manifest = Json::object();
  manifest["schema"] = kSchema;
  manifest["version"] = kVersion;
  manifest["createdMicroseconds"] =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count();
  manifest["options"] = options;
  manifest["disks"] = Json::array();
  for (const SetMember& member : members) manifest["disks"].push_back(MemberJson(member));
  const std::string text = manifest.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  if (text.size() > kMaxManifest) throw Failure(Exit::kError, "too many ranges for a manifest");
  Synchronise(path);  // the names of the dumps
  OutFile out(path + "/" + kManifest, false);
  out.Write(text.data(), text.size());
  out.Commit();
}

}  // namespace tool
