// kab extract DUMP TARGET: lay a dump's ranges onto an image or a device, a set's onto a folder of images.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <optional>

#include "commands.h"
#include "dump_file.h"
#include "dump_set.h"
#include "kab/core.h"
#include "kab/dump.h"
#include "out_file.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "A new image is as long as the dumped disk, holds the dumped ranges, and is empty elsewhere. It is written under\n"
    "another name and gets its own when it is whole. --force replaces an existing image the same way; --in-place\n"
    "writes the ranges onto an existing image or device and leaves the rest alone.\n\n"
    "Of a set, a folder, TARGET is a new folder with ssd.img, disk0.img ... as they sit in the group's slots. It gets\n"
    "its name when all of them are whole.\n\n"
    "The dump is verified first, before anything is written. With --no-verify it is read once only; a digest that\n"
    "turns out wrong still keeps a new image from appearing.\n\n"
    "A dump holds the data of an encrypted disk in clear, and it is written as it is. Onto a disk that says it is\n"
    "encrypted that is refused unless --force is given; an image that says so afterwards is warned of: readers would\n"
    "decipher it once more.\n\n"
    "Exit status: 0; 6 when the digest does not match; 4 when the dump is broken or unfinished.\n\n"
    "Examples:\n"
    "  kab extract disk0.kabdump disk0-copy.img\n"
    "  kab extract --in-place disk0.kabdump /dev/sdx\n"
    "  kab extract before group-copy\n";

struct Options {
  std::string dump;
  std::string target;
  bool noVerify = false;
  bool force = false;
  bool inPlace = false;
};

// A dump that is not intact ends the command; `extent` says what that means for the target.
void Require(const Verdict& verdict, const std::string& dump, const std::string& extent) {
  if (verdict.kind == Verdict::kIntact) return;
  throw Failure(verdict.kind == Verdict::kDigestMismatch ? Exit::kDigest : Exit::kDamageIncomplete,
                fmt::format("{}: {}; {}", dump, verdict.reason, extent));
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }
  void CloseSynced(const std::string& path) {
    const int synced = fsync(fd_);
    const int error = errno;
    const int closed = close(fd_);
    fd_ = -1;
    if (synced != 0) throw SystemFailure(path, error);
    if (closed != 0) throw SystemFailure(path, errno);
  }

 private:
  int fd_;
};

DumpFile::Sink WriteTo(int fd) {
  return [fd](const void* data, uint32_t length, uint64_t offset) {
    return KABDiskWrite(static_cast<uint32_t>(fd), data, length, static_cast<int64_t>(offset)) == KAB_OK;
  };
}

// Where the flag lies by which a disk says that its data is encrypted.
struct Flag {
  off_t at;
  unsigned bit;
};

// No flag when the disk does not say so.
std::optional<Flag> EncryptedFlag(const std::string& path) {
  constexpr off_t kTypeAt = 1048584;
  constexpr uint8_t kType11 = 11;
  constexpr Flag kFlag11 = {1048585, 3};
  constexpr Flag kFlag = {1049608, 0};
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  uint8_t type = 0;
  uint8_t flags = 0;
  if (pread(file.get(), &type, 1, kTypeAt) != 1) return {};
  const Flag flag = type == kType11 ? kFlag11 : kFlag;
  if (pread(file.get(), &flags, 1, flag.at) != 1 || (flags >> flag.bit & 1) == 0) return {};
  return flag;
}

void WarnIfEncrypted(Tool& tool, const std::string& path) {
  const std::optional<Flag> flag = EncryptedFlag(path);
  if (!flag) return;
  tool.Note(fmt::format("kab: warning: {} is in clear, yet says that it is encrypted (bit {} of byte {})", path,
                        flag->bit, flag->at));
}

using Replay = std::function<Verdict(const DumpFile::Sink& sink)>;

// Makes `file`, which is `name` to people.
Verdict WriteImage(const std::string& file, const std::string& name, uint64_t size, const Replay& replay) {
  Descriptor image(open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (image.get() < 0) throw SystemFailure(name, errno);
  if (size > INT64_MAX || ftruncate(image.get(), static_cast<off_t>(size)) != 0) {
    throw SystemFailure(fmt::format("{}: sizing it to {} bytes", name, size), size > INT64_MAX ? EFBIG : errno);
  }
  Verdict verdict = replay(WriteTo(image.get()));
  if (verdict.kind == Verdict::kIntact) image.CloseSynced(name);
  return verdict;
}

Verdict ExtractNew(Tool& tool, const Options& options, const DumpFile& dump) {
  PendingName pending(options.target, options.force);
  Verdict verdict = WriteImage(pending.name(), options.target, dump.header().diskSize,
                               [&](const DumpFile::Sink& sink) { return dump.Replay(tool, "extract", sink); });
  Require(verdict, options.dump, fmt::format("{} was not made", options.target));
  pending.Commit();
  return verdict;
}

Verdict ExtractInPlace(Tool& tool, const Options& options, const DumpFile& dump) {
  uint8_t create = 0;
  int32_t fd = 0;
  tool.log.Forget();
  if (KABOpenExtractDisk(options.target.c_str(), &fd, &create) != KAB_OK) {
    std::fflush(tool.log.stream());
    throw Failure(tool.log.refusedDisk() ? Exit::kNotOurs : Exit::kError,
                  fmt::format("cannot open {}", options.target));
  }
  Descriptor file(fd);
  const std::string extent = fmt::format("{} was written to and is not to be trusted", options.target);
  try {
    Verdict verdict = dump.Replay(tool, "extract", WriteTo(file.get()));
    Require(verdict, options.dump, extent);
    file.CloseSynced(options.target);
    return verdict;
  } catch (const Failure& failure) {
    const std::string what = failure.what();
    if (what.find(extent) != std::string::npos) throw;
    throw Failure(failure.code(), fmt::format("{}; {}", what, extent));
  }
}

Exit ExtractFile(Tool& tool, const Options& options) {
  struct stat info;
  const bool exists = stat(options.target.c_str(), &info) == 0;
  const bool device = exists && S_ISBLK(info.st_mode);
  if (exists && !device && !S_ISREG(info.st_mode)) {
    throw Failure(Exit::kUsage, fmt::format("{}: neither a regular file nor a block device", options.target));
  }
  if (options.inPlace && !exists) throw Failure(Exit::kUsage, fmt::format("{}: no such target", options.target));
  const bool inPlace = options.inPlace || (device && options.force);
  if (inPlace && !options.force && EncryptedFlag(options.target)) {
    throw Failure(Exit::kUsage,
                  fmt::format("{} says that it is encrypted, and a dump is in clear; --force writes it all the same",
                              options.target));
  }
  if (!inPlace) {
    if (exists && !options.force) {
      throw Failure(Exit::kUsage,
                    fmt::format("{} exists; --force replaces it, --in-place writes onto it", options.target));
    }
  }

  const DumpFile dump(options.dump);
  Require(dump.JudgeHeader(), options.dump, fmt::format("{} was not touched", options.target));
  if (!options.noVerify) {
    Require(dump.Replay(tool, "verify", {}), options.dump, fmt::format("{} was not touched", options.target));
  }
  const Verdict verdict = inPlace ? ExtractInPlace(tool, options, dump) : ExtractNew(tool, options, dump);
  WarnIfEncrypted(tool, options.target);

  if (tool.json) {
    Json object = Tool::Header("extract");
    object["dump"] = options.dump;
    object["target"] = options.target;
    object["inPlace"] = inPlace;
    object["recordsWritten"] = verdict.records;
    object["dataBytes"] = verdict.dataBytes;
    AddHeader(object, dump.header());
    Tool::PrintJson(object);
  } else if (!tool.quiet) {
    Tool::Print(fmt::format("{}: {} records, {} of {} written\n", options.target, verdict.records,
                            HumanBytes(verdict.dataBytes), dump.header().device));
  }
  return Exit::kClean;
}

// A set with its dumps open, every one of them as the manifest says by its header.
class OpenSet {
 public:
  OpenSet(const std::string& path, const std::string& extent) : set_(path) {
    Require(set_.verdict(), path, extent);
    for (const SetMember& member : set_.members()) {
      dumps_.emplace_back();
      Require(set_.Open(member, &dumps_.back()), set_.PathOf(member), extent);
    }
  }

  /// Calls `take` for every dump; one that is not intact ends the command.
  void ForEach(Tool& tool, const std::string& task, const std::string& extent,
               const std::function<Verdict(const SetMember&, const Replay&)>& take) const {
    for (size_t i = 0; i < dumps_.size(); ++i) {
      const SetMember& member = set_.members()[i];
      const Verdict verdict =
          take(member, [&](const DumpFile::Sink& sink) { return set_.Replay(tool, member, *dumps_[i], task, sink); });
      Require(verdict, set_.PathOf(member), extent);
    }
  }

 private:
  DumpSet set_;
  std::vector<std::unique_ptr<DumpFile>> dumps_;
};

Exit ExtractSet(Tool& tool, const Options& options) {
  if (options.inPlace || options.force) {
    throw Failure(Exit::kUsage, "a set is extracted to a new folder: --in-place and --force are for its single dumps");
  }
  if (Exists(options.target)) throw Failure(Exit::kUsage, fmt::format("{} exists", options.target));
  const std::string extent = fmt::format("{} was not made", options.target);
  const OpenSet set(options.dump, extent);
  if (!options.noVerify) {
    set.ForEach(tool, "verify", extent, [](const SetMember&, const Replay& replay) { return replay({}); });
  }
  PendingName pending(options.target, false);
  if (mkdir(pending.name().c_str(), 0777) != 0) throw SystemFailure(options.target, errno);
  Json images = Json::array();
  std::string text;
  set.ForEach(tool, "extract", extent, [&](const SetMember& member, const Replay& replay) {
    const std::string name = member.Stem() + ".img";
    Verdict verdict = WriteImage(pending.name() + "/" + name, options.target + "/" + name, member.size, replay);
    images.push_back({{"target", options.target + "/" + name},
                      {"uuid", member.uuid},
                      {"size", member.size},
                      {"recordsWritten", verdict.records},
                      {"dataBytes", verdict.dataBytes}});
    text += fmt::format("{}/{}: {} records, {} of disk {} written\n", options.target, name, verdict.records,
                        HumanBytes(verdict.dataBytes), member.uuid);
    return verdict;
  });
  Synchronise(pending.name());
  pending.Commit();
  for (const Json& image : images) WarnIfEncrypted(tool, image["target"].get<std::string>());
  if (tool.json) {
    Json object = Tool::Header("extract");
    object["dump"] = options.dump;
    object["target"] = options.target;
    object["images"] = std::move(images);
    Tool::PrintJson(object);
  } else if (!tool.quiet) {
    Tool::Print(text);
  }
  return Exit::kClean;
}

Exit Run(Tool& tool, const Options& options) {
  RefuseInput(options.target, {options.dump});
  return DumpSet::IsSet(options.dump) ? ExtractSet(tool, options) : ExtractFile(tool, options);
}

}  // namespace

void AddExtract(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<Options>();
  CLI::App* command = AddCommand(app, tool, "extract", "Write a dump's ranges onto an image or a device", kDetails,
                                 [&tool, options] { return Run(tool, *options); });
  command->add_option("DUMP", options->dump, "the dump file, or a folder that holds a set")->required();
  command
      ->add_option("TARGET", options->target, "the image or folder to make, or with --in-place the disk to write onto")
      ->required();
  command->add_flag("--no-verify", options->noVerify, "do not read the dump once before writing");
  command->add_flag("-f,--force", options->force,
                    "replace an existing image; write onto a device, or onto a disk that says it is encrypted");
  command->add_flag("--in-place", options->inPlace, "write onto what TARGET holds, keeping the rest of it");
}

}  // namespace tool
