// kab log: what the SSD log says, entry by entry, and where and why it ends.

#include <fmt/format.h>

#include <cstring>
#include <memory>

#include "commands.h"
#include "findings.h"
#include "group.h"
#include "kab/ssdlog.h"
#include "load.h"
#include "log_walk.h"
#include "orlo_registry.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Shows both checkpoint records and which of them counts, then every entry of the PLOG and the LLOG from the first\n"
    "block on, and where and why each log ends. Offsets are bytes from the start of the SSD; an extent is shown as\n"
    "SSD offset+length, \"zero\" stands for data that was written as zeros.\n\n"
    "Examples:\n"
    "  kab log ssd.img\n"
    "  kab log --json --only plog ssd.img\n";

constexpr uint64_t kBlock = 4096;
constexpr size_t kRecordSize = 140;
constexpr uint64_t kInvalidBlk = 0xFFFFFFFFFF5FF;
constexpr uint64_t kReservedFirst = 0xFFFFFEFFFF5FF;
constexpr uint64_t kReservedSecond = 0xFFFFFF07FF5FF;
constexpr uint64_t kLsnMask = (uint64_t{1} << 55) - 1;
constexpr uint32_t kPrefixLength = 48;
constexpr uint32_t kWriteLength = 76;
constexpr uint32_t kReleaseLength = 60;

struct Options {
  GroupOptions group;
  std::string only;
};

Json BlkOrNull(uint64_t blkNo) { return blkNo == kInvalidBlk ? Json(nullptr) : Json(blkNo); }

struct Copy {
  bool readable = false;
  bool valid = false;  // by every rule
  bool chosen = false;
  uint8_t record[kRecordSize] = {};
};

// Both copies, and the library's choice. False when there is none.
bool ReadCheckpoints(KABDiskCtx* ssd, Copy (&copies)[2]) {
  for (uint64_t i = 0; i < 2; ++i) {
    uint8_t block[kBlock];
    copies[i].readable = KABReadSSDLOGBlk(ssd, i, block, nullptr) == KAB_OK;
    if (!copies[i].readable) continue;
    std::memcpy(copies[i].record, block, kRecordSize);
    copies[i].valid = KABSSDLOGCheckCPR(ssd, block) != 0;
  }
  if (KABSSDLOGGetValidCheckPointRecord(ssd) != KAB_OK) return false;
  const bool second = std::memcmp(ssd->logState->checkpoint, copies[1].record, kRecordSize) == 0;
  copies[second ? 1 : 0].chosen = true;
  return true;
}

Json CheckpointJson(const KABDiskCtx& ssd, const Copy& copy, uint64_t index) {
  Json object = Json::object();
  object["copy"] = index + 1;
  object["offset"] = ssd.dataOffset + index * kBlock;
  object["readable"] = copy.readable;
  object["valid"] = copy.valid;
  object["chosen"] = copy.chosen;
  if (!copy.readable) return object;
  object["generation"] = Load<uint64_t>(copy.record + 12);
  object["writeBufferStart"] = Load<uint64_t>(copy.record + 20);
  object["writeBufferLength"] = Load<uint64_t>(copy.record + 28);
  object["llogFirst"] = BlkOrNull(Load<uint64_t>(copy.record + 36));
  object["llogLast"] = BlkOrNull(Load<uint64_t>(copy.record + 44));
  object["plogFirst"] = BlkOrNull(Load<uint64_t>(copy.record + 60));
  object["plogLast"] = BlkOrNull(Load<uint64_t>(copy.record + 68));
  return object;
}

std::string CheckpointText(const Json& object) {
  const std::string head =
      fmt::format("checkpoint record {} at {}: ", object["copy"].get<uint64_t>(), object["offset"].get<uint64_t>());
  if (!object["readable"].get<bool>()) return head + "unreadable\n";
  const auto blk = [&object](const char* name) { return object[name].is_null() ? "none" : object[name].dump(); };
  return head + fmt::format("{}{}, generation {}, write buffer {} blocks from {}, PLOG {} to {}, LLOG {} to {}\n",
                            object["valid"].get<bool>() ? "valid" : "invalid",
                            object["chosen"].get<bool>() ? ", chosen" : "", object["generation"].get<uint64_t>(),
                            object["writeBufferLength"].get<uint64_t>(), object["writeBufferStart"].get<uint64_t>(),
                            blk("plogFirst"), blk("plogLast"), blk("llogFirst"), blk("llogLast"));
}

const char* PlogTypeName(uint32_t type) {
  switch (type) {
    case 1:
    case 4:
      return "write";
    case 2:
      return "release";
    case 3:
      return "gc checkpoint";
    default:
      return "unknown";
  }
}

// The extents of an entry's map: SSD byte offset (none for a reserved address) and length in bytes.
Json Extents(KABDiskCtx* ssd, const uint8_t* entry) {
  void* map = nullptr;
  const uint32_t status = SSDLOG_UnpackAllocMapFromEntry(ssd, entry, &map);
  ThrowIfNoMemory(status);
  if (status != KAB_OK) return KABErrorStr(status);
  Json extents = Json::array();
  const auto* bytes = static_cast<const uint8_t*>(map);
  const uint32_t count = map != nullptr ? Load<uint16_t>(bytes) : 0;
  const uint64_t start = Load<uint64_t>(ssd->logState->checkpoint + 20);
  for (uint32_t i = 0; i < count; ++i) {
    const uint64_t sector = Load<uint64_t>(bytes + 2 + 10 * size_t{i});
    const uint64_t length = Load<uint16_t>(bytes + 10 + 10 * size_t{i}) * uint64_t{512};
    Json extent = Json::object();
    if (sector == (start + kReservedFirst) * 8) {
      extent["reserved"] = "zero";
    } else if (sector == (start + kReservedSecond) * 8) {
      extent["reserved"] = "removed";
    } else {
      extent["offset"] = ssd->dataOffset + sector * 512;
    }
    extent["length"] = length;
    extents.push_back(std::move(extent));
  }
  KABFree(&map);
  return extents;
}

void AddPlogFields(Json& object, KABDiskCtx* ssd, const uint8_t* entry, uint32_t length) {
  if (length < kPrefixLength + 8) return;
  const auto type = Load<uint32_t>(entry + 52);
  object["type"] = PlogTypeName(type);
  object["typeCode"] = type;
  if ((type == 1 || type == 4) && length >= kWriteLength) {
    object["lsn"] = Load<uint64_t>(entry + 56) & kLsnMask;
    object["lba"] = Load<uint64_t>(entry + 64);
    object["length"] = Load<uint32_t>(entry + 72);
    object["extents"] = Extents(ssd, entry);
  } else if (type == 2 && length >= kReleaseLength) {
    const uint64_t count = std::min<uint64_t>(Load<uint32_t>(entry + 56), (length - kReleaseLength) / 8);
    object["lsns"] = Json::array();
    for (uint64_t i = 0; i < count; ++i) object["lsns"].push_back(Load<uint64_t>(entry + kReleaseLength + 8 * i));
  }
}

std::string EntryText(const Json& entry) {
  std::string text = fmt::format("{:>12} {:>4} {:<13} {}", entry["offset"].get<uint64_t>(),
                                 entry["slot"].is_null() ? "-" : entry["slot"].dump(), entry["type"].get<std::string>(),
                                 entry["uuid"].get<std::string>());
  if (entry.contains("lsn")) {
    text += fmt::format(" lsn {} lba {} length {}", entry["lsn"].get<uint64_t>(), entry["lba"].get<uint64_t>(),
                        entry["length"].get<uint64_t>());
    if (entry["extents"].is_string()) text += " map: " + entry["extents"].get<std::string>();
    for (const Json& extent : entry["extents"].is_array() ? entry["extents"] : Json::array()) {
      text += extent.contains("offset")
                  ? fmt::format(" {}+{}", extent["offset"].get<uint64_t>(), extent["length"].get<uint64_t>())
                  : fmt::format(" {}+{}", extent["reserved"].get<std::string>(), extent["length"].get<uint64_t>());
    }
  }
  for (const Json& lsn : entry.value("lsns", Json::array())) text += " " + lsn.dump();
  return text + "\n";
}

// The entries of one log, and how it ends. Damage is told and the walk goes on where it can.
Exit ShowLog(Tool& tool, KABDiskCtx* ssd, LogKind kind) {
  Exit code = Exit::kClean;
  if (!tool.json) Tool::Print(fmt::format("{}\n", LogName(kind)));
  const LogEnd end = WalkLog(ssd, kind, [&](const uint8_t* block, uint64_t blockOffset, uint64_t) {
    LogEntry broken{};
    const auto take = [&](const LogEntry& at) {
      const uint8_t* entry = block + at.at;
      Json object = Json::object();
      object["log"] = LogName(kind);
      object["block"] = (blockOffset - ssd->dataOffset) / kBlock;
      object["offset"] = blockOffset + at.at;
      object["entry"] = at.index;
      object["uuid"] = UuidText(entry);
      const int32_t slot = KABGetDevIdx(ssd->meta, Load<uint64_t>(entry), Load<uint64_t>(entry + 8));
      object["slot"] = slot >= 0 ? Json(slot) : Json(nullptr);
      object["entryLength"] = at.length;
      object["payloadLength"] = Load<uint32_t>(entry + 16);
      object["type"] = "entry";
      if (kind == LogKind::kPlog) AddPlogFields(object, ssd, entry, at.length);
      if (tool.json) {
        Tool::PrintJson(object);
      } else {
        Tool::Print(EntryText(object));
      }
    };
    if (ForEachEntry(block, take, &broken)) return;
    code = Exit::kDamage;
    tool.log.Line(fmt::format("kab: {} entry {} at {}: a length of {} leaves its block", LogName(kind), broken.index,
                              blockOffset + broken.at, broken.length));
  });
  if (end.status != KAB_END_OF_LOG) code = Exit::kDamageIncomplete;
  if (tool.json) {
    Json object = Json::object();
    object["log"] = LogName(kind);
    object["end"] = end.reason;
    object["blocks"] = end.blocks;
    object["lastOffset"] = end.lastOffset ? Json(*end.lastOffset) : Json(nullptr);
    Tool::PrintJson(object);
  } else {
    Tool::Print(fmt::format("  ends after {} blocks: {}\n", end.blocks, end.reason));
  }
  return code;
}

Exit Run(Tool& tool, const Options& options) {
  Group group(tool, options.group);
  KABDiskCtx* ssd = group.ssd();
  Copy copies[2];
  const bool chosen = ReadCheckpoints(ssd, copies);
  const Json records[2] = {CheckpointJson(*ssd, copies[0], 0), CheckpointJson(*ssd, copies[1], 1)};
  if (tool.json) {
    Json header = Tool::Header("log");
    header["ssd"] = ssd->uuidText;
    header["checkpoints"] = {records[0], records[1]};
    Tool::PrintJson(header);
  } else {
    Tool::Print(CheckpointText(records[0]) + CheckpointText(records[1]));
  }
  if (!chosen) return Exit::kDamageIncomplete;
  Exit code = copies[0].valid && copies[1].valid ? Exit::kClean : Exit::kDamage;
  if (options.only != "llog") code = Worse(code, ShowLog(tool, ssd, LogKind::kPlog));
  if (options.only != "plog") code = Worse(code, ShowLog(tool, ssd, LogKind::kLlog));
  return code;
}

}  // namespace

void AddLog(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<Options>();
  CLI::App* command = AddCommand(app, tool, "log", "List the entries of the SSD log", kDetails,
                                 [&tool, options] { return Run(tool, *options); });
  command->add_option("--only", options->only, "plog or llog")
      ->type_name("LOG")
      ->check(CLI::IsMember({"plog", "llog"}));
  AddGroupOptions(command, options->group);
}

}  // namespace tool
