// kab dump -o FILE: copy ranges of one disk into a dump file.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>

#include "commands.h"
#include "dump_file.h"
#include "group.h"
#include "kab/dump.h"
#include "metadata_ranges.h"
#include "out_file.h"
#include "ranges.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Without --range the disk's metadata is dumped. OFF and LEN are bytes, 0x... or with K, M, G, T (powers of 1024)\n"
    "or s (sectors of 512); an empty LEN goes to the disk's end. The data of an encrypted disk is dumped in clear.\n\n"
    "A dump that is interrupted or cannot be finished keeps an empty header, by which it is known as unfinished.\n"
    "Blocks that cannot be read are left out and counted.\n\n"
    "Exit status: 0; 4 when blocks could not be read; 1 when the dump could not be written.\n\n"
    "Examples:\n"
    "  kab dump -o ssd.kabdump ssd.img\n"
    "  kab dump -o disk1.kabdump --disk 1 --range 3M:1M --range 1M:4K ssd.img disk0.img disk1.img\n";

constexpr uint64_t kPiece = KAB_DUMP_MAX_PIECE;
constexpr uint64_t kSmallPiece = 4096;           // what is given up for one unreadable spot
constexpr uint64_t kMaxUnreadable = 4ULL << 20;  // a disk that is gone altogether is not worth more lines

struct Options {
  GroupOptions group;
  std::string out;
  std::vector<std::string> ranges;
  bool force = false;
};

// A dump being written; given up, it keeps its empty header.
class OpenDump {
 public:
  OpenDump(Tool& tool, const std::string& path, const KABDiskCtx& ctx) {
    tool.log.Forget();
    dump_ = KABInitDumpFile(path.c_str(), ctx.path, ctx.diskSize);
    if (dump_ != nullptr) return;
    std::fflush(tool.log.stream());
    throw Failure(tool.log.outOfMemory() ? Exit::kMemory : Exit::kError, fmt::format("cannot write {}", path));
  }
  ~OpenDump() {
    if (dump_ == nullptr) return;
    dump_->failed = 1;
    KABCloseDumpFile(dump_);
    KABFree(&dump_);
  }
  OpenDump(const OpenDump&) = delete;
  OpenDump& operator=(const OpenDump&) = delete;

  KABDumpCtx* get() { return dump_; }

  void Close() {
    const uint32_t status = KABCloseDumpFile(dump_);
    if (status != KAB_OK) throw Failure(ExitOfStatus(status), "finishing the dump failed");
    KABFree(&dump_);
  }

 private:
  KABDumpCtx* dump_ = nullptr;
};

// Adds one range. Returns the bytes that could not be read.
class RangeDumper {
 public:
  RangeDumper(KABDumpCtx* dump, KABDiskCtx* ctx, Progress& progress) : dump_(dump), ctx_(ctx), progress_(progress) {}

  void Add(Range range) { AddPieces(range, kPiece); }
  uint64_t unreadable() const { return unreadable_; }

 private:
  void AddPieces(Range range, uint64_t pieceSize) {
    while (range.length > 0) {
      StopIfInterrupted();
      const uint64_t piece = std::min(range.length, pieceSize);
      const uint32_t status = KABAddChunkToDump(dump_, ctx_, static_cast<uint32_t>(piece), range.offset);
      if (status == KAB_OUT_OF_MEMORY) throw Failure(Exit::kMemory, "out of memory");
      if (status != KAB_OK && dump_->failed != 0) throw Failure(Exit::kError, "writing the dump failed");
      if (status != KAB_OK && piece > kSmallPiece) {
        AddPieces({range.offset, piece}, kSmallPiece);  // the readable rest of it is worth having
      } else {
        if (status != KAB_OK) unreadable_ += piece;
        if (unreadable_ > kMaxUnreadable) throw Failure(Exit::kError, "too much of the disk cannot be read");
        progress_.Add(piece);
      }
      range.offset += piece;
      range.length -= piece;
    }
  }

  KABDumpCtx* dump_;
  KABDiskCtx* ctx_;
  Progress& progress_;
  uint64_t unreadable_ = 0;
};

uint64_t WriteDump(Tool& tool, const std::string& path, KABDiskCtx* ctx, const std::vector<Range>& ranges) {
  OpenDump dump(tool, path, *ctx);
  Progress progress(tool, "dump", TotalLength(ranges));
  RangeDumper dumper(dump.get(), ctx, progress);
  for (const Range& range : ranges) dumper.Add(range);
  dump.Close();
  progress.Finish();
  return dumper.unreadable();
}

void Synchronise(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw SystemFailure(path, errno);
  const int result = fsync(fd);
  const int error = errno;
  close(fd);
  if (result != 0) throw SystemFailure(path, error);
}

void Report(Tool& tool, const Options& options, const KABDiskCtx& ctx, const std::vector<Range>& ranges,
            uint64_t unreadable) {
  const DumpHeader header = DumpFile(options.out).header();
  struct stat info = {};
  stat(options.out.c_str(), &info);
  if (tool.json) {
    Json object = Tool::Header("dump");
    object["path"] = options.out;
    object["disk"] = ctx.uuidText;
    object["dumpedInClear"] = ctx.encrypted != 0;
    object["ranges"] = Json::array();
    for (const Range& range : ranges) object["ranges"].push_back({{"offset", range.offset}, {"length", range.length}});
    object["unreadableBytes"] = unreadable;
    object["fileSize"] = info.st_size;
    AddHeader(object, header);
    Tool::PrintJson(object);
  } else if (!tool.quiet) {
    Tool::Print(fmt::format("{}: {} of disk {} in {} records, {} on disk\n", options.out,
                            HumanBytes(TotalLength(ranges) - unreadable), ctx.uuidText, header.records,
                            HumanBytes(static_cast<uint64_t>(info.st_size))));
  }
}

Exit Run(Tool& tool, const Options& options) {
  if (options.out == "-") {
    throw Failure(Exit::kUsage, "-o -: a dump's header is written last, which stdout cannot do");
  }
  RefuseInput(options.out, options.group.Paths());
  RefuseExisting(options.out, options.force);
  Group group(tool, options.group);
  KABDiskCtx* ctx = group.Chosen();
  const std::vector<Range> ranges =
      options.ranges.empty() ? MetadataRanges(*ctx) : RangeArguments(options.ranges, ctx->diskSize);
  if (ctx->encrypted != 0) {
    tool.Note(fmt::format("kab: warning: disk {} is encrypted, and the dump holds its data in clear", ctx->uuidText));
  }

  // A dump that is replaced stays until the new one is whole.
  std::optional<PendingName> pending;
  if (Exists(options.out)) pending.emplace(options.out, true);
  const std::string name = pending ? pending->name() : options.out;
  uint64_t unreadable = 0;
  try {
    unreadable = WriteDump(tool, name, ctx, ranges);
    Synchronise(name);
  } catch (const Failure& failure) {
    const std::string left = pending        ? fmt::format("{} is as it was", options.out)
                             : Exists(name) ? fmt::format("{} is unfinished", options.out)
                                            : "no dump was made";
    throw Failure(failure.code(), fmt::format("{}; {}", failure.what(), left));
  }
  if (pending) pending->Commit();
  Report(tool, options, *ctx, ranges, unreadable);
  if (unreadable == 0) return Exit::kClean;
  tool.log.Line(fmt::format("kab: {} bytes could not be read and are not in the dump", unreadable));
  return Exit::kDamageIncomplete;
}

}  // namespace

void AddDump(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<Options>();
  CLI::App* command = AddCommand(app, tool, "dump", "Copy ranges of a disk into a dump file", kDetails,
                                 [&tool, options] { return Run(tool, *options); });
  command->add_option("-o,--output", options->out, "the dump file to make")->type_name("FILE")->required();
  command->add_option("-r,--range", options->ranges, "OFF:LEN, a range to dump; repeatable")->allow_extra_args(false);
  command->add_flag("-f,--force", options->force, "replace an existing dump once the new one is whole");
  AddDiskChoice(command, options->group);
  AddGroupOptions(command, options->group);
}

}  // namespace tool
