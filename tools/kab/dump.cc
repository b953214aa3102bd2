// kab dump: copy ranges of one disk into a dump file, or of all disks into a set.

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <optional>

#include "commands.h"
#include "dump_file.h"
#include "dump_plan.h"
#include "dump_set.h"
#include "group.h"
#include "kab/dump.h"
#include "out_file.h"
#include "ranges.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "What is dumped, of the disk that --disk names or, with --all-disks, of every disk:\n\n"
    "  --metadata        every metadata region and no data (the default): Arvo block; checkpoint records and log\n"
    "                    blocks; dedup area up to its data; block 0, registry, maps and component superblocks\n"
    "  --log             the SSD's Arvo block, checkpoint records and the blocks of both logs\n"
    "  --component UUID  all that a component is read from; repeatable. With --all-disks also the log that it needs\n"
    "  --range OFF:LEN   bytes, 0x... or with K, M, G, T (powers of 1024) or s (sectors of 512); an empty LEN goes to\n"
    "                    the disk's end; repeatable\n\n"
    "--all-disks makes the folder FILE, a dump a disk and manifest.json, which is written last: a set that was\n"
    "interrupted has none and is known as unfinished. A dump that is interrupted or cannot be finished keeps an empty\n"
    "header. Blocks that cannot be read are left out and counted. The data of an encrypted disk is dumped in clear.\n\n"
    "Exit status: 0; 4 when something could not be read or found; 1 when the dump could not be written.\n\n"
    "Examples:\n"
    "  kab dump -o ssd.kabdump ssd.img\n"
    "  kab dump -o disk1.kabdump --disk 1 --range 3M:1M --range 1M:4K ssd.img disk0.img disk1.img\n"
    "  kab dump -o before --all-disks ssd.img disk0.img disk1.img\n";

constexpr uint64_t kPiece = KAB_DUMP_MAX_PIECE;
constexpr uint64_t kSmallPiece = 4096;           // what is given up for one unreadable spot
constexpr uint64_t kMaxUnreadable = 4ULL << 20;  // a disk that is gone altogether is not worth more lines

struct Options {
  GroupOptions group;
  std::string out;
  bool metadata = false;
  bool log = false;
  std::vector<std::string> components;
  std::vector<std::string> ranges;
  bool allDisks = false;
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

// Adds ranges and keeps what came of them.
class RangeDumper {
 public:
  RangeDumper(KABDumpCtx* dump, KABDiskCtx* ctx, Progress& progress) : dump_(dump), ctx_(ctx), progress_(progress) {}

  void Add(Range range) { AddPieces(range, kPiece); }
  std::vector<Range> held() const { return Merged(held_); }
  std::vector<Range> unreadable() const { return Merged(unreadable_); }

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
        Keep(status == KAB_OK ? held_ : unreadable_, {range.offset, piece});
        if (TotalLength(unreadable_) > kMaxUnreadable) {
          throw Failure(Exit::kError, "too much of the disk cannot be read");
        }
        progress_.Add(piece);
      }
      range.offset += piece;
      range.length -= piece;
    }
  }

  static void Keep(std::vector<Range>& ranges, Range range) {
    if (!ranges.empty() && ranges.back().offset + ranges.back().length == range.offset) {
      ranges.back().length += range.length;
    } else {
      ranges.push_back(range);
    }
  }

  KABDumpCtx* dump_;
  KABDiskCtx* ctx_;
  Progress& progress_;
  std::vector<Range> held_;
  std::vector<Range> unreadable_;
};

SetMember Describe(const KABDiskCtx& ctx, bool ssd) {
  SetMember member;
  member.uuid = ctx.uuidText;
  member.ssd = ssd;
  member.slot = ctx.devIdx;
  member.size = ctx.diskSize;
  member.dumpedInClear = ctx.encrypted != 0;
  member.file = member.Stem() + ".kabdump";
  return member;
}

// Writes one dump file, to stable storage, and notes what is in it.
void WriteDump(Tool& tool, const std::string& path, const DiskRanges& wanted, Progress& progress, SetMember& member) {
  if (wanted.disk->encrypted != 0) {
    tool.Note(fmt::format("kab: warning: disk {} is encrypted, and the dump holds its data in clear", member.uuid));
  }
  OpenDump dump(tool, path, *wanted.disk);
  RangeDumper dumper(dump.get(), wanted.disk, progress);
  for (const Range& range : wanted.ranges) dumper.Add(range);
  dump.Close();
  Synchronise(path);
  const DumpHeader header = DumpFile(path).header();
  member.records = header.records;
  member.streamLength = header.totalLength;
  member.sha256 = HexText(header.sha256.data(), header.sha256.size());
  member.ranges = dumper.held();
  member.unreadable = dumper.unreadable();
}

uint64_t FileSize(const std::string& path) {
  struct stat info = {};
  stat(path.c_str(), &info);
  return static_cast<uint64_t>(info.st_size);
}

// Tells of what could not be read; the exit status of the whole command.
Exit Judge(Tool& tool, const DumpPlan& plan, uint64_t unreadable) {
  if (unreadable != 0) {
    tool.log.Line(fmt::format("kab: {} bytes could not be read and are not in the dump", unreadable));
  }
  return unreadable == 0 && plan.complete() ? Exit::kClean : Exit::kDamageIncomplete;
}

void ReportFile(Tool& tool, const Options& options, const DiskRanges& wanted, uint64_t unreadable) {
  const DumpHeader header = DumpFile(options.out).header();
  const KABDiskCtx& ctx = *wanted.disk;
  if (tool.json) {
    Json object = Tool::Header("dump");
    object["path"] = options.out;
    object["disk"] = ctx.uuidText;
    object["dumpedInClear"] = ctx.encrypted != 0;
    object["ranges"] = Json::array();
    for (const Range& range : wanted.ranges) {
      object["ranges"].push_back({{"offset", range.offset}, {"length", range.length}});
    }
    object["unreadableBytes"] = unreadable;
    object["fileSize"] = FileSize(options.out);
    AddHeader(object, header);
    Tool::PrintJson(object);
  } else if (!tool.quiet) {
    Tool::Print(fmt::format("{}: {} of disk {} in {} records, {} on disk\n", options.out,
                            HumanBytes(TotalLength(wanted.ranges) - unreadable), ctx.uuidText, header.records,
                            HumanBytes(FileSize(options.out))));
  }
}

Exit DumpToFile(Tool& tool, const Options& options, const DumpPlan& plan, const DiskRanges& wanted) {
  // A dump that is replaced stays until the new one is whole.
  std::optional<PendingName> pending;
  if (Exists(options.out)) pending.emplace(options.out, true);
  const std::string name = pending ? pending->name() : options.out;
  SetMember member = Describe(*wanted.disk, false);
  try {
    Progress progress(tool, "dump", TotalLength(wanted.ranges));
    WriteDump(tool, name, wanted, progress, member);
    progress.Finish();
  } catch (const Failure& failure) {
    const std::string left = pending        ? fmt::format("{} is as it was", options.out)
                             : Exists(name) ? fmt::format("{} is unfinished", options.out)
                                            : "no dump was made";
    throw Failure(failure.code(), fmt::format("{}; {}", failure.what(), left));
  }
  if (pending) pending->Commit();
  const uint64_t unreadable = TotalLength(member.unreadable);
  ReportFile(tool, options, wanted, unreadable);
  return Judge(tool, plan, unreadable);
}

Json OptionsJson(const Options& options) {
  Json object = Json::object();
  object["metadata"] = options.metadata;
  object["log"] = options.log;
  object["components"] = options.components;
  object["ranges"] = options.ranges;
  return object;
}

void ReportSet(Tool& tool, const Options& options, const std::vector<SetMember>& members) {
  if (tool.json) {
    Json object = Tool::Header("dump");
    object["path"] = options.out;
    object["options"] = OptionsJson(options);
    object["disks"] = Json::array();
    for (const SetMember& member : members) {
      Json disk = MemberJson(member);
      disk["fileSize"] = FileSize(options.out + "/" + member.file);
      object["disks"].push_back(std::move(disk));
    }
    Tool::PrintJson(object);
    return;
  }
  for (const SetMember& member : members) {
    if (tool.quiet) break;
    const std::string path = options.out + "/" + member.file;
    Tool::Print(fmt::format("{}: {} of disk {} in {} records, {} on disk\n", path,
                            HumanBytes(TotalLength(member.ranges)), member.uuid, member.records,
                            HumanBytes(FileSize(path))));
  }
}

// The folder must be new or empty: an old dump must never pass for one of this set.
void MakeFolder(const std::string& path) {
  if (mkdir(path.c_str(), 0777) == 0) return;
  if (errno != EEXIST) throw SystemFailure(path, errno);
  std::error_code error;
  if (!std::filesystem::is_empty(path, error) || error) {
    throw Failure(Exit::kUsage, fmt::format("{} exists and is not an empty folder", path));
  }
}

Exit DumpToSet(Tool& tool, const Options& options, const DumpPlan& plan, Group& group,
               const std::vector<DiskRanges>& disks) {
  uint64_t total = 0;
  for (const DiskRanges& wanted : disks) total += TotalLength(wanted.ranges);
  MakeFolder(options.out);
  std::vector<SetMember> members;
  uint64_t unreadable = 0;
  try {
    Progress progress(tool, "dump", total);
    for (const DiskRanges& wanted : disks) {
      SetMember member = Describe(*wanted.disk, wanted.disk == group.ssd());
      WriteDump(tool, options.out + "/" + member.file, wanted, progress, member);
      unreadable += TotalLength(member.unreadable);
      members.push_back(std::move(member));
    }
    StopIfInterrupted();
    DumpSet::Finish(options.out, OptionsJson(options), members);
    progress.Finish();
  } catch (const Failure& failure) {
    throw Failure(failure.code(), fmt::format("{}; {} is unfinished", failure.what(), options.out));
  }
  ReportSet(tool, options, members);
  return Judge(tool, plan, unreadable);
}

void FillPlan(DumpPlan& plan, Group& group, const Options& options) {
  if (options.metadata || !options.ranges.empty()) {
    const std::vector<KABDiskCtx*> disks = options.allDisks ? group.All() : std::vector<KABDiskCtx*>{group.Chosen()};
    for (KABDiskCtx* disk : disks) {
      plan.AddGiven(disk, RangeArguments(options.ranges, disk->diskSize));
      if (options.metadata) plan.AddMetadata(disk);
    }
  }
  for (const std::string& uuid : options.components) plan.AddComponent(uuid);
  if (options.log || (options.allDisks && !options.components.empty())) plan.AddLog();
}

// The one disk that a dump file is about.
const DiskRanges& OnlyDisk(Tool& tool, const Options& options, Group& group, const std::vector<DiskRanges>& disks) {
  const bool chosen = options.metadata || !options.ranges.empty() || !options.group.disk.empty();
  KABDiskCtx* disk = chosen ? group.Chosen() : disks[0].disk;
  const auto only =
      std::find_if(disks.begin(), disks.end(), [disk](const DiskRanges& ranges) { return ranges.disk == disk; });
  if (only == disks.end()) throw Failure(Exit::kUsage, fmt::format("disk {} holds nothing of that", disk->uuidText));
  if (disks.size() > 1 && (options.log || !options.components.empty())) {
    throw Failure(Exit::kUsage, "that lies on several disks, and a dump file holds one: --all-disks makes a set");
  }
  if (disks.size() > 1) tool.Note("kab: newer metadata of the disk lies on other disks: --all-disks dumps it too");
  return *only;
}

Exit Run(Tool& tool, Options options) {
  if (options.out == "-") {
    throw Failure(Exit::kUsage, "-o -: a dump's header is written last, which stdout cannot do");
  }
  if (options.allDisks && options.force) {
    throw Failure(Exit::kUsage, "--force does not replace a set: remove the folder, or choose another");
  }
  if (options.ranges.empty() && !options.log && options.components.empty()) options.metadata = true;
  RefuseInput(options.out, options.group.Paths());
  if (!options.allDisks) {
    RefuseSpecial(options.out);
    RefuseExisting(options.out, options.force);
  }
  Group group(tool, options.group);
  DumpPlan plan(tool, group);
  FillPlan(plan, group, options);
  const std::vector<DiskRanges> disks = plan.Disks();
  if (tool.log.lackedMemory()) throw std::bad_alloc();  // the plan may lack what is there
  if (options.allDisks) return DumpToSet(tool, options, plan, group, disks);
  return DumpToFile(tool, options, plan, OnlyDisk(tool, options, group, disks));
}

}  // namespace

void AddDump(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<Options>();
  CLI::App* command = AddCommand(app, tool, "dump", "Copy metadata or other ranges of disks into dump files", kDetails,
                                 [&tool, options] { return Run(tool, *options); });
  command->add_option("-o,--output", options->out, "the dump file or, with --all-disks, the folder to make")
      ->type_name("FILE")
      ->required();
  command->add_flag("--metadata", options->metadata, "the metadata of the disk");
  command->add_flag("--log", options->log, "the SSD's log without the data in it");
  command->add_option("--component", options->components, "UUID, a component to dump; repeatable")
      ->allow_extra_args(false);
  command->add_option("-r,--range", options->ranges, "OFF:LEN, a range to dump; repeatable")->allow_extra_args(false);
  command->add_flag("-f,--force", options->force, "replace an existing dump once the new one is whole");
  AddDiskChoice(command, options->group);
  CLI::Option* disk = command->get_option("--disk");
  command->add_flag("--all-disks", options->allDisks, "make a set: a folder with a dump a disk")->excludes(disk);
  AddGroupOptions(command, options->group);
}

}  // namespace tool
