// kab info: a disk group at a glance.

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "commands.h"
#include "dedup_fill.h"
#include "findings.h"
#include "group.h"
#include "kab/ssdlog.h"
#include "load.h"
#include "log_walk.h"
#include "orlo_registry.h"
#include "progress.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Shows every disk given: role, slot, UUID, sizes, format version, mount state, dedup mode and encryption; which\n"
    "slots of the group the SSD knows; where the logs begin and end; how full the dedup layer is; the components. "
    "--scan\n"
    "reads the translation maps as well, for the dedup ratio as it is.\n\n"
    "Example:\n"
    "  kab info ssd.img disk0.img disk1.img\n";

// Offsets in the Arvo metadata block, which the context holds as read.
constexpr size_t kTypeAt = 8;
constexpr size_t kModesAt = 11;
constexpr size_t kModes11At = 9;
constexpr size_t kTableAt = 60;
constexpr uint8_t kType11 = 11;

struct DiskFacts {
  uint8_t type;
  uint8_t formatVersion;
  uint8_t mountState;
  uint8_t dedupMode;
};

DiskFacts FactsOf(const KABDiskCtx& ctx) {
  const uint8_t* meta = ctx.meta;
  const uint8_t type = meta[kTypeAt];
  if (type == kType11) return {type, FormatVersion(ctx), static_cast<uint8_t>(meta[kModes11At] & 7), 0};
  return {type, FormatVersion(ctx), static_cast<uint8_t>(meta[kModesAt] >> 5),
          static_cast<uint8_t>(meta[kModesAt] >> 2 & 3)};
}

std::string SlotUuid(const KABDiskCtx& ssd, size_t slot) {
  const uint8_t* uuid = ssd.meta + kTableAt + 16 * slot;
  return std::all_of(uuid, uuid + 16, [](uint8_t byte) { return byte == 0; }) ? "" : UuidText(uuid);
}

Json DiskJson(const KABDiskCtx& ctx) {
  const DiskFacts facts = FactsOf(ctx);
  Json object = Json::object();
  object["path"] = ctx.path;
  object["uuid"] = ctx.uuidText;
  object["alternateUuid"] = ctx.altUuidText[0] != '\0' ? Json(ctx.altUuidText) : Json(nullptr);
  object["slot"] = ctx.devIdx >= 0 ? Json(ctx.devIdx) : Json(nullptr);
  object["type"] = facts.type;
  object["size"] = ctx.diskSize;
  object["usableSize"] = ctx.usableSize;
  object["dataOffset"] = ctx.dataOffset;
  object["formatVersion"] = facts.formatVersion;
  object["metaReserve"] = ctx.metaReserve;
  object["mountState"] = facts.mountState;
  object["dedupMode"] = facts.dedupMode;
  object["encrypted"] = ctx.encrypted != 0;
  return object;
}

void PrintDisk(const char* role, const KABDiskCtx& ctx) {
  const DiskFacts facts = FactsOf(ctx);
  std::string text = fmt::format("{} {}\n", role, ctx.uuidText);
  const auto line = [&text](const char* name, const std::string& value) {
    text += fmt::format("  {:<15} {}\n", name, value);
  };
  line("path", ctx.path);
  if (ctx.devIdx >= 0) line("slot", std::to_string(ctx.devIdx));
  if (ctx.altUuidText[0] != '\0') line("second UUID", ctx.altUuidText);
  line("size", fmt::format("{} ({} bytes)", HumanBytes(ctx.diskSize), ctx.diskSize));
  line("data area", fmt::format("{} from {}", HumanBytes(ctx.usableSize), ctx.dataOffset));
  line("type", std::to_string(facts.type));
  line("format version", std::to_string(facts.formatVersion));
  line("mount state", facts.mountState == 0 ? "0, not cleanly unmounted" : std::to_string(facts.mountState));
  line("dedup mode", facts.dedupMode == 0 ? "none" : std::to_string(facts.dedupMode));
  line("encrypted", ctx.encrypted != 0 ? "yes" : "no");
  Tool::Print(text);
}

struct Options {
  GroupOptions group;
  bool scan = false;
};

// What cannot be told is null; this says why.
class Gaps {
 public:
  explicit Gaps(Tool& tool) : tool_(tool) {}
  void Add(const std::string& what, const KABDiskCtx& disk, LineTrap& trap) {
    tool_.log.Line(fmt::format("kab: {} of disk {}{}", what, disk.uuidText, trap.TakeReason(disk.uuidText)));
    code_ = Exit::kDamageIncomplete;
  }
  void AddDedup() { code_ = Exit::kDamageIncomplete; }  // its own text tells
  Exit code() const { return code_; }

 private:
  Tool& tool_;
  Exit code_ = Exit::kClean;
};

// The chosen checkpoint record; null when there is no log.
Json LogJson(KABDiskCtx* ssd, Gaps& gaps) {
  LineTrap trap;
  const uint32_t status = KABSSDLOGGetValidCheckPointRecord(ssd);
  if (status == KAB_IO_ERROR) {
    gaps.Add("cannot read the checkpoint records", *ssd, trap);
  } else if (status != KAB_OK && HadLog(ssd)) {
    gaps.Add("cannot use the checkpoint records", *ssd, trap);
  }
  if (status != KAB_OK) return nullptr;
  const uint8_t* record = ssd->logState->checkpoint;
  const auto number = [record](size_t at) { return Json(Load<uint64_t>(record + at)); };
  const auto block = [record](size_t at) {
    const auto value = Load<uint64_t>(record + at);
    return value == KAB_INVALID_BLK ? Json(nullptr) : Json(value);
  };
  return {{"generation", number(12)}, {"writeBufferStart", number(20)}, {"writeBufferLength", number(28)},
          {"plogFirst", block(60)},   {"plogLast", block(68)},          {"llogFirst", block(36)},
          {"llogLast", block(44)}};
}

// What the dedup layers hold; null when no disk has one. Units and blocks are added up over the disks.
Json DedupJson(Tool& tool, Group& group, bool scan, Gaps& gaps) {
  std::vector<DedupArea> areas;
  uint64_t mapBytes = 0;
  for (KABDiskCtx* disk : group.disks()) {
    if (disk->dedupCtx.superBlk == nullptr) continue;
    areas.emplace_back(disk);
    for (const DedupRegion& region : areas.back().regions()) {
      if (region.type == DDP_BLK_XMAP && areas.back().Fits(region)) mapBytes += region.size * kDedupBlock;
    }
  }
  if (areas.empty()) return nullptr;
  DedupFill all;
  DedupMapped mapped;
  Json object = Json::object();
  object["disks"] = Json::array();
  Progress progress(tool, "info", scan ? mapBytes : 0);
  for (const DedupArea& area : areas) {
    const DedupFill fill = CountUnits(area);
    all.units += fill.units;
    all.inUse += fill.inUse;
    all.complete = all.complete && fill.complete;
    object["disks"].push_back({{"uuid", area.disk()->uuidText},
                               {"configuredRatio", area.ratio()},
                               {"units", fill.units},
                               {"unitsInUse", fill.inUse}});
    if (!scan) continue;
    const DedupMapped own = CountMapped(area, [&progress](uint64_t bytes) { progress.Add(bytes); });
    mapped.blocks += own.blocks;
    mapped.complete = mapped.complete && own.complete;
  }
  if (scan) progress.Finish();
  object["units"] = all.units;
  object["unitsInUse"] = all.inUse;
  object["fill"] = all.units != 0 ? static_cast<double>(all.inUse) / static_cast<double>(all.units) : 0.0;
  object["logicalBlocks"] = scan ? Json(mapped.blocks) : Json(nullptr);
  object["ratio"] = scan && all.inUse != 0
                        ? Json(static_cast<double>(mapped.blocks * 2) / static_cast<double>(all.inUse))
                        : Json(nullptr);
  object["complete"] = all.complete && mapped.complete;
  if (!all.complete || !mapped.complete) gaps.AddDedup();
  return object;
}

// Null when there is no Orlo disk, or when the log that must be replayed first cannot be.
Json ComponentsJson(Group& group, Gaps& gaps) {
  const bool any = std::any_of(group.disks().begin(), group.disks().end(),
                               [](const KABDiskCtx* disk) { return disk->group != nullptr && IsOrlo(*disk); });
  LineTrap trap;
  if (!any) return nullptr;
  if (KABSSDLOGRecovPlogLog(group.ssd()) != KAB_OK) {
    gaps.Add("cannot replay the PLOG", *group.ssd(), trap);
    return nullptr;
  }
  Json components = Json::array();
  for (KABDiskCtx* disk : group.disks()) {
    if (disk->group == nullptr || !IsOrlo(*disk)) continue;
    Registry registry;
    uint32_t status = ReadRegistry(disk, &registry);
    if (status == KAB_OK) {
      status = ForEachVdisk(disk, registry, [&](const Vdisk& vdisk) {
        components.push_back({{"uuid", vdisk.uuid}, {"slot", disk->devIdx}, {"hasSuperblock", vdisk.present}});
      });
    }
    if (status != KAB_OK) gaps.Add("cannot read the registry", *disk, trap);
  }
  return components;
}

Json InfoJson(Tool& tool, Group& group, bool scan, Gaps& gaps) {
  const KABDiskCtx& ssd = *group.ssd();
  Json object = Tool::Header("info");
  object["ssd"] = DiskJson(ssd);
  object["disks"] = Json::array();
  for (const KABDiskCtx* ctx : group.disks()) object["disks"].push_back(DiskJson(*ctx));
  object["slots"] = Json::array();
  for (size_t slot = 0; slot < KAB_DISKS_PER_GROUP; slot++) {
    const std::string uuid = SlotUuid(ssd, slot);
    object["slots"].push_back(
        {{"slot", slot}, {"uuid", uuid.empty() ? Json(nullptr) : Json(uuid)}, {"open", ssd.disks[slot] != nullptr}});
  }
  object["log"] = LogJson(group.ssd(), gaps);
  object["dedup"] = DedupJson(tool, group, scan, gaps);
  object["components"] = ComponentsJson(group, gaps);
  return object;
}

std::string Line(const char* name, const std::string& value) { return fmt::format("  {:<15} {}\n", name, value); }

std::string LogText(const Json& log) {
  if (log.is_null()) return "";
  const auto blocks = [&log](const char* first, const char* last) {
    return log[first].is_null() ? std::string("empty")
                                : fmt::format("blocks {} to {}", log[first].dump(), log[last].dump());
  };
  return "Log\n" + Line("generation", log["generation"].dump()) +
         Line("write buffer",
              fmt::format("{} blocks from {}", log["writeBufferLength"].dump(), log["writeBufferStart"].dump())) +
         Line("PLOG", blocks("plogFirst", "plogLast")) + Line("LLOG", blocks("llogFirst", "llogLast"));
}

std::string DedupText(const Json& dedup) {
  if (dedup.is_null()) return "";
  std::string text = "Dedup\n";
  text += Line("in use",
               fmt::format("{} of {} ({:.1f} %)", HumanBytes(dedup["unitsInUse"].get<uint64_t>() * kDedupUnit),
                           HumanBytes(dedup["units"].get<uint64_t>() * kDedupUnit), dedup["fill"].get<double>() * 100));
  if (!dedup["logicalBlocks"].is_null()) {
    text += Line("logical", HumanBytes(dedup["logicalBlocks"].get<uint64_t>() * kDedupBlock));
  }
  if (!dedup["ratio"].is_null()) text += Line("ratio", fmt::format("{:.2f}", dedup["ratio"].get<double>()));
  for (const Json& disk : dedup["disks"]) {
    text += Line("configured", fmt::format("{} logical blocks a block on {}", disk["configuredRatio"].dump(),
                                           disk["uuid"].get<std::string>()));
  }
  if (!dedup["complete"].get<bool>()) text += "  blocks of the maps are damaged or unreadable: kab check tells which\n";
  return text;
}

std::string ComponentsText(const Json& components) {
  if (components.is_null()) return "";
  std::string text = "Components\n";
  for (const Json& component : components) {
    text += fmt::format("  {} {}{}\n", component["slot"].dump(), component["uuid"].get<std::string>(),
                        component["hasSuperblock"].get<bool>() ? "" : "  no superblock");
  }
  return text;
}

std::string SlotsText(const KABDiskCtx& ssd) {
  std::string text;
  for (size_t slot = 0; slot < KAB_DISKS_PER_GROUP; slot++) {
    const std::string uuid = SlotUuid(ssd, slot);
    if (uuid.empty()) continue;
    text += fmt::format("  {} {} {}\n", slot, uuid, ssd.disks[slot] != nullptr ? ssd.disks[slot]->path : "not given");
  }
  return text.empty() ? text : "Slots\n" + text;
}

Exit Run(Tool& tool, const Options& options) {
  Group group(tool, options.group);
  const std::string slots = SlotsText(*group.ssd());  // before a replay makes placeholders
  Gaps gaps(tool);
  const Json info = InfoJson(tool, group, options.scan, gaps);
  if (tool.json) {
    Tool::PrintJson(info);
    return gaps.code();
  }
  PrintDisk("SSD", *group.ssd());
  for (const KABDiskCtx* ctx : group.disks()) PrintDisk("Disk", *ctx);
  Tool::Print(slots + LogText(info["log"]) + DedupText(info["dedup"]) + ComponentsText(info["components"]));
  return gaps.code();
}

}  // namespace

void AddInfo(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<Options>();
  CLI::App* command = AddCommand(app, tool, "info", "Show a disk group at a glance", kDetails,
                                 [&tool, options] { return Run(tool, *options); });
  AddGroupOptions(command, options->group);
  command->add_flag("--scan", options->scan, "read the translation maps, for the dedup ratio as it is");
}

}  // namespace tool
