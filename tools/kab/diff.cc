// kab diff DUMP DISK...: which dumped ranges does a disk no longer hold?

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>

#include "commands.h"
#include "dump_file.h"
#include "dump_set.h"
#include "kab/core.h"
#include "keys.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Compares what a dump holds with what stands at the same places of a disk now, in sectors of 512 bytes. DUMP is a\n"
    "dump file and DISK one disk, or DUMP is a set, a folder, and every DISK is compared with its own dump by UUID.\n"
    "An encrypted disk is compared in clear. With --raw the bytes of DISK are taken as they are, whatever it is: for "
    "a\n"
    "disk that can no longer be opened.\n\n"
    "The dump is verified first; with --no-verify it is read once only.\n\n"
    "Exit status: 0 when the disk still holds all that was dumped; 3 when it differs; 4 when a part of it could not "
    "be\n"
    "compared, or the dump is broken or unfinished; 6 when the dump's digest does not match; 5 for a disk of which "
    "the\n"
    "set holds no dump.\n\n"
    "Examples:\n"
    "  kab diff disk0.kabdump disk0.img\n"
    "  kab diff before ssd.img disk0.img disk1.img\n";

constexpr uint32_t kPiece = 1 << 20;
constexpr uint64_t kSector = 512;

struct Options {
  std::string dump;
  std::vector<std::string> disks;
  bool raw = false;
  bool noVerify = false;
  bool skipUnmountCheck = false;
};

// A disk to compare with: opened as one of a group's, or as bytes.
class Disk {
 public:
  Disk(Tool& tool, const std::string& path, const Options& options) : path_(path) {
    RequireFileOrDevice(path);
    if (options.raw) {
      OpenRaw();
      return;
    }
    tool.log.Forget();
    // A capacity disk opens this way too: nothing but its bytes is asked for.
    ctx_.reset(KABOpenSSD(path.c_str(), O_RDONLY, options.skipUnmountCheck ? 1 : 0));
    if (ctx_ != nullptr) return;
    throw Failure(tool.log.refusedDisk()   ? Exit::kNotOurs
                  : tool.log.outOfMemory() ? Exit::kMemory
                                           : Exit::kError,
                  fmt::format("cannot open {}; --raw compares it as it is", path));
  }
  ~Disk() {
    if (fd_ >= 0) close(fd_);
  }
  Disk(const Disk&) = delete;
  Disk& operator=(const Disk&) = delete;

  const std::string& path() const { return path_; }
  uint64_t size() const {
    const KABDiskCtx* ctx = ctx_.get();
    return ctx != nullptr ? ctx->diskSize : size_;
  }
  /// Empty for a disk taken as bytes.
  std::string uuid() const {
    const KABDiskCtx* ctx = ctx_.get();
    return ctx != nullptr ? ctx->uuidText : "";
  }
  bool Read(void* buffer, uint32_t length, uint64_t offset) const {
    const auto at = static_cast<int64_t>(offset);
    return (ctx_ != nullptr ? KABRead(ctx_.get(), buffer, length, at)
                            : KABDiskRead(static_cast<uint32_t>(fd_), buffer, length, at)) == KAB_OK;
  }

 private:
  struct Close {
    void operator()(KABDiskCtx* ctx) const noexcept {
      if (KABCloseDisk(ctx) == KAB_OK) KABFree(&ctx);
    }
  };

  void OpenRaw() {
    fd_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    const off_t end = fd_ >= 0 ? lseek(fd_, 0, SEEK_END) : -1;
    if (end < 0) throw SystemFailure(path_, errno);
    size_ = static_cast<uint64_t>(end);
  }

  std::string path_;
  std::unique_ptr<KABDiskCtx, Close> ctx_;
  int fd_ = -1;
  uint64_t size_ = 0;
};

enum Result { kSame, kDiffers, kUnreadable, kBehindEnd, kResults };
constexpr const char* kNames[kResults] = {"same", "differs", "unreadable", "behind-end"};
constexpr const char* kTexts[kResults] = {"same", "differs", "cannot be read", "lies behind the disk's end"};

// Compares record after record and shows each stretch of one result as soon as it has ended.
class Comparison {
 public:
  Comparison(Tool& tool, const Disk& disk) : tool_(tool), disk_(disk), buffer_(kPiece) {}

  void Take(const void* data, uint64_t length, uint64_t offset) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    while (length != 0) {
      StopIfInterrupted();
      uint64_t piece = std::min<uint64_t>(length, kPiece);
      if (offset >= disk_.size()) {
        Note(kBehindEnd, {offset, piece});
      } else {
        piece = std::min(piece, disk_.size() - offset);
        Compare(bytes, static_cast<uint32_t>(piece), offset);
      }
      bytes += piece;
      offset += piece;
      length -= piece;
    }
  }

  void Finish() {
    if (result_ != kSame && stretch_.length != 0) Show();
    stretch_.length = 0;
  }

  uint64_t bytes(Result result) const { return bytes_[result]; }
  Exit exit() const {
    if (bytes_[kUnreadable] != 0) return Exit::kDamageIncomplete;
    return bytes_[kDiffers] + bytes_[kBehindEnd] != 0 ? Exit::kDamage : Exit::kClean;
  }

 private:
  void Compare(const uint8_t* bytes, uint32_t length, uint64_t offset) {
    if (disk_.Read(buffer_.data(), length, offset)) {
      if (std::memcmp(bytes, buffer_.data(), length) == 0) return Note(kSame, {offset, length});
    } else if (length > kSector) {  // the readable rest of it can still be compared
      for (uint32_t done = 0; done < length;) {
        StopIfInterrupted();
        const uint32_t sector = SectorAt(offset + done, length - done);
        Compare(bytes + done, sector, offset + done);
        done += sector;
      }
      return;
    } else {
      return Note(kUnreadable, {offset, length});
    }
    for (uint32_t done = 0; done < length;) {
      const uint32_t sector = SectorAt(offset + done, length - done);
      const bool same = std::memcmp(bytes + done, buffer_.data() + done, sector) == 0;
      Note(same ? kSame : kDiffers, {offset + done, sector});
      done += sector;
    }
  }

  // The bytes from `offset` to the end of its sector, at most `most`.
  static uint32_t SectorAt(uint64_t offset, uint32_t most) {
    return static_cast<uint32_t>(std::min<uint64_t>(kSector - offset % kSector, most));
  }

  void Note(Result result, Range range) {
    bytes_[result] += range.length;
    if (result == result_ && stretch_.offset + stretch_.length == range.offset) {
      stretch_.length += range.length;
      return;
    }
    Finish();
    result_ = result;
    stretch_ = range;
  }

  void Show() const {
    if (tool_.json) {
      Tool::PrintJson({{"disk", disk_.path()},
                       {"offset", stretch_.offset},
                       {"length", stretch_.length},
                       {"result", kNames[result_]}});
    } else {
      Tool::Print(fmt::format("{}: {}+{} {}\n", disk_.path(), stretch_.offset, stretch_.length, kTexts[result_]));
    }
  }

  Tool& tool_;
  const Disk& disk_;
  std::vector<uint8_t> buffer_;
  Result result_ = kSame;
  Range stretch_{0, 0};
  uint64_t bytes_[kResults] = {};
};

void Require(const Verdict& verdict, const std::string& dump) {
  if (verdict.kind == Verdict::kIntact) return;
  throw Failure(verdict.kind == Verdict::kDigestMismatch ? Exit::kDigest : Exit::kDamageIncomplete,
                fmt::format("{}: {}", dump, verdict.reason));
}

void Begin(Tool& tool, const std::string& dump, const Disk& disk) {
  if (!tool.json) return;
  Json object = Tool::Header("diff");
  object["dump"] = dump;
  object["disk"] = disk.path();
  object["uuid"] = disk.uuid().empty() ? Json(nullptr) : Json(disk.uuid());
  Tool::PrintJson(object);
}

void Summarise(Tool& tool, const Disk& disk, const Comparison& result) {
  const uint64_t differing = result.bytes(kDiffers) + result.bytes(kBehindEnd);
  const uint64_t compared = differing + result.bytes(kSame);
  if (tool.json) {
    Tool::PrintJson({{"disk", disk.path()},
                     {"same", result.exit() == Exit::kClean},
                     {"comparedBytes", compared},
                     {"differingBytes", differing},
                     {"unreadableBytes", result.bytes(kUnreadable)}});
  } else if (!tool.quiet) {
    std::string text = fmt::format("{}: {} of {} dumped bytes differ", disk.path(), differing, compared);
    if (result.bytes(kUnreadable) != 0) text += fmt::format(", {} cannot be read", result.bytes(kUnreadable));
    Tool::Print(text + "\n");
  }
}

using Replay = std::function<Verdict(const std::string& task, const DumpFile::Sink& sink)>;

Exit Compare(Tool& tool, const Options& options, const std::string& dump, const Disk& disk, const Replay& replay) {
  if (!options.noVerify) Require(replay("verify", {}), dump);
  Begin(tool, dump, disk);
  Comparison comparison(tool, disk);
  Require(replay("diff",
                 [&comparison](const void* data, uint32_t length, uint64_t offset) {
                   comparison.Take(data, length, offset);
                   return true;
                 }),
          dump);
  comparison.Finish();
  Summarise(tool, disk, comparison);
  return comparison.exit();
}

Exit DiffFile(Tool& tool, const Options& options) {
  const DumpFile dump(options.dump);
  if (options.disks.size() != 1) throw Failure(Exit::kUsage, "a dump file is compared with one disk");
  Require(dump.JudgeHeader(), options.dump);
  const Disk disk(tool, options.disks[0], options);
  return Compare(tool, options, options.dump, disk,
                 [&](const std::string& task, const DumpFile::Sink& sink) { return dump.Replay(tool, task, sink); });
}

Exit DiffSet(Tool& tool, const Options& options) {
  if (options.raw) throw Failure(Exit::kUsage, "--raw: a set finds its dumps by UUID; give one of them");
  const DumpSet set(options.dump);
  Require(set.verdict(), options.dump);
  Exit worst = Exit::kClean;
  for (const std::string& path : options.disks) {
    const Disk disk(tool, path, options);
    const auto member = std::find_if(set.members().begin(), set.members().end(),
                                     [&disk](const SetMember& each) { return each.uuid == disk.uuid(); });
    if (member == set.members().end()) {
      throw Failure(Exit::kNotOurs, fmt::format("{}: the set holds no dump of disk {}", path, disk.uuid()));
    }
    const std::string name = set.PathOf(*member);
    std::unique_ptr<DumpFile> dump;
    Require(set.Open(*member, &dump), name);
    worst = Worse(worst, Compare(tool, options, name, disk, [&](const std::string& task, const DumpFile::Sink& sink) {
                    return set.Replay(tool, *member, *dump, task, sink);
                  }));
  }
  return worst;
}

Exit Run(Tool& tool, const Options& options) {
  const KeyFiles keys(tool.keyFiles);
  return DumpSet::IsSet(options.dump) ? DiffSet(tool, options) : DiffFile(tool, options);
}

}  // namespace

void AddDiff(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<Options>();
  CLI::App* command = AddCommand(app, tool, "diff", "Compare a dump with the disk as it is now", kDetails,
                                 [&tool, options] { return Run(tool, *options); });
  command->add_option("DUMP", options->dump, "the dump file, or a folder that holds a set")->required();
  command->add_option("DISK", options->disks, "the disk, or disks of the set's group")->required();
  command->add_flag("--raw", options->raw, "compare the bytes of DISK as they are");
  command->add_flag("--no-verify", options->noVerify, "do not read the dump once before comparing");
  command->add_flag("--skip-unmount-check", options->skipUnmountCheck, "open disks that were not cleanly unmounted");
}

}  // namespace tool
