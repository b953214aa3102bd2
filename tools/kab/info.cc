// kab info: a disk group at a glance.

#include <fmt/format.h>

#include <algorithm>
#include <memory>

#include "commands.h"
#include "group.h"
#include "progress.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Shows every disk given: role, slot, UUID, sizes, format version, mount state, dedup mode and encryption, and "
    "which\n"
    "slots of the group the SSD knows.\n\n"
    "Example:\n"
    "  kab info ssd.img disk0.img disk1.img\n";

// Offsets in the Arvo metadata block, which the context holds as read.
constexpr size_t kTypeAt = 8;
constexpr size_t kModesAt = 11;
constexpr size_t kModes11At = 9;
constexpr size_t kTableAt = 60;
constexpr size_t kVersionAt = 468;
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
  if (type == kType11) return {type, meta[kVersionAt], static_cast<uint8_t>(meta[kModes11At] & 7), 0};
  return {type, meta[kVersionAt], static_cast<uint8_t>(meta[kModesAt] >> 5),
          static_cast<uint8_t>(meta[kModesAt] >> 2 & 3)};
}

std::string SlotUuid(const KABDiskCtx& ssd, size_t slot) {
  const uint8_t* uuid = ssd.meta + kTableAt + 16 * slot;
  if (std::all_of(uuid, uuid + 16, [](uint8_t byte) { return byte == 0; })) return {};
  std::string text;
  for (size_t i = 0; i < 16; i++) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += fmt::format("{:02x}", uuid[i]);
  }
  return text;
}

Json DiskJson(const KABDiskCtx& ctx) {
  const DiskFacts facts = FactsOf(ctx);
  Json object;
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

Exit Run(Tool& tool, const GroupOptions& options) {
  Group group(tool, options);
  const KABDiskCtx& ssd = *group.ssd();
  if (tool.json) {
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
    Tool::PrintJson(object);
    return Exit::kClean;
  }

  PrintDisk("SSD", ssd);
  for (const KABDiskCtx* ctx : group.disks()) PrintDisk("Disk", *ctx);
  std::string text = "Slots\n";
  bool any = false;
  for (size_t slot = 0; slot < KAB_DISKS_PER_GROUP; slot++) {
    const std::string uuid = SlotUuid(ssd, slot);
    if (uuid.empty()) continue;
    any = true;
    text += fmt::format("  {} {} {}\n", slot, uuid, ssd.disks[slot] != nullptr ? ssd.disks[slot]->path : "not given");
  }
  if (any) Tool::Print(text);
  return Exit::kClean;
}

}  // namespace

void AddInfo(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<GroupOptions>();
  CLI::App* command = AddCommand(app, tool, "info", "Show a disk group at a glance", kDetails,
                                 [&tool, options] { return Run(tool, *options); });
  AddGroupOptions(command, *options);
}

}  // namespace tool
