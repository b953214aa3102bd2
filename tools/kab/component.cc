// kab component: the components on a group's Orlo disks.

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "as_group.h"
#include "commands.h"
#include "kab/indexes.h"
#include "kab/orlo.h"
#include "kab/ssdlog.h"
#include "kab/zolt.h"
#include "orlo_registry.h"
#include "out_file.h"
#include "progress.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Works on the components of Orlo disks (format versions 6 and 7), after a replay of the log:\n\n"
    "  list          every component that a registry names: disk, allocated bytes, whether its superblock is valid\n"
    "  info UUID     one of them\n"
    "  map UUID      its extents: logical offset, length, and the byte offset on the disk, or hole\n"
    "  read UUID     its bytes from the superblock on, to a file (sparse) or, with -o -, to stdout\n\n"
    "Offsets are bytes of the component's address space, its 4 MiB superblock area included.\n\n"
    "Examples:\n"
    "  kab component list ssd.img disk0.img\n"
    "  kab component read --uuid UUID -o component.bin ssd.img disk0.img\n";

constexpr uint64_t kBlock = 4096;
constexpr uint64_t kBlockSpace = uint64_t{1} << 32;  // logical block numbers are 32 bits wide
constexpr uint32_t kRunsAtOnce = 1 << 20;            // blocks a look-up may hand out
constexpr uint32_t kReadMode = 1;

struct Options {
  GroupOptions group;
  std::string action;
  std::string uuid;
  std::string out;
  bool force = false;
};

struct Found {
  KABDiskCtx* disk;
  Vdisk vdisk;
};

struct FreeExtents {
  void operator()(OrloExtent* extent) const {
    while (extent != nullptr) {
      OrloExtent* next = extent->next;
      KABFree(&extent);
      extent = next;
    }
  }
};
using Extents = std::unique_ptr<OrloExtent, FreeExtents>;

/// Every component of the group; damage is told by the library and in the result.
std::vector<Found> FindAll(Group& group, Exit& code) {
  std::vector<Found> all;
  for (KABDiskCtx* disk : group.disks()) {
    if (disk->group == nullptr || !IsOrlo(*disk)) continue;
    Registry registry;
    uint32_t status = ReadRegistry(disk, &registry);
    if (status == KAB_OK) {
      status = ForEachVdisk(disk, registry, [&](const Vdisk& vdisk) { all.push_back({disk, vdisk}); });
    }
    if (status != KAB_OK) code = Worse(code, Exit::kDamageIncomplete);
  }
  return all;
}

Found FindOne(Group& group, const std::string& uuid) {
  Exit code = Exit::kClean;
  for (const Found& found : FindAll(group, code)) {
    if (found.vdisk.uuid == uuid) return found;
  }
  throw Failure(code == Exit::kClean ? Exit::kNotOurs : code, fmt::format("no component {}", uuid));
}

/// Calls `take` for every extent in order. A status of the library; 9 also for extents that do not rise.
uint32_t ForEachExtent(const Found& found, const std::function<void(const OrloExtent&)>& take) {
  if (!found.vdisk.present) return KAB_OK;
  OrloBTreeCursor cursor{};
  cursor.root = found.vdisk.mapBlock;
  cursor.version = found.disk->meta[468];
  cursor.disk = found.disk;
  for (uint64_t block = 0; block < kBlockSpace;) {
    StopIfInterrupted();
    OrloExtent* list = nullptr;
    const uint32_t status = OrloMapLookup(&cursor, block, kBlockSpace, kRunsAtOnce, &list, kReadMode);
    const Extents extents(list);
    if (status != KAB_OK) return status;
    if (extents == nullptr) break;
    uint64_t end = block;
    for (const OrloExtent* extent = extents.get(); extent != nullptr; extent = extent->next) {
      take(*extent);
      end = (extent->logicalSectors + extent->sectorCount) * 512 / kBlock;
    }
    if (end <= block) return KAB_BLOCK_INVALID;
    block = end;
  }
  return KAB_OK;
}

struct Facts {
  uint64_t allocated = 0;  // bytes that have a place on the disk
  uint64_t end = 0;        // bytes up to the last run's end
  uint32_t extents = 0;
  bool mapWhole = true;
  bool superblockValid = false;
};

Facts FactsOf(const Found& found) {
  Facts facts;
  const uint32_t status = ForEachExtent(found, [&facts](const OrloExtent& extent) {
    const uint64_t length = extent.sectorCount * 512;
    if (extent.physicalSectors != ~uint64_t{0}) facts.allocated += length;
    facts.end = extent.logicalSectors * 512 + length;
    ++facts.extents;
  });
  facts.mapWhole = status == KAB_OK;
  if (!found.vdisk.present) return facts;
  std::vector<uint8_t> superblock(ORLO_SUPERBLOCK_SIZE);
  facts.superblockValid =
      OrloReadWriteComponentSuperBlock(found.disk, found.vdisk.mapBlock, superblock.data(), 1) == KAB_OK &&
      KABIsZOLTCompSblkValid(superblock.data()) != 0;
  return facts;
}

Json FoundJson(const Found& found, const Facts& facts) {
  Json object;
  object["uuid"] = found.vdisk.uuid;
  object["disk"] = found.disk->uuidText;
  object["slot"] = found.disk->devIdx;
  object["id"] = found.vdisk.id;
  object["hasSuperblock"] = found.vdisk.present;
  object["superblockValid"] = facts.superblockValid;
  object["mapBlock"] = found.vdisk.mapBlock;
  object["mapWhole"] = facts.mapWhole;
  object["extents"] = facts.extents;
  object["allocated"] = facts.allocated;
  object["end"] = facts.end;
  return object;
}

Exit Judge(const Found& found, const Facts& facts) {
  if (!facts.mapWhole) return Exit::kDamageIncomplete;
  return found.vdisk.present && !facts.superblockValid ? Exit::kDamage : Exit::kClean;
}

void Show(Tool& tool, const Found& found, const Facts& facts) {
  if (tool.json) {
    Tool::PrintJson(FoundJson(found, facts));
    return;
  }
  Tool::Print(fmt::format("{}  disk {}  {} in {} extents, ends at {}, {}{}\n", found.vdisk.uuid, found.disk->devIdx,
                          HumanBytes(facts.allocated), facts.extents, facts.end,
                          !found.vdisk.present    ? "no superblock"
                          : facts.superblockValid ? "superblock valid"
                                                  : "superblock invalid",
                          facts.mapWhole ? "" : ", map broken"));
}

Exit List(Tool& tool, Group& group) {
  Exit code = Exit::kClean;
  if (tool.json) Tool::PrintJson(Tool::Header("component list"));
  for (const Found& found : FindAll(group, code)) {
    StopIfInterrupted();
    const Facts facts = FactsOf(found);
    Show(tool, found, facts);
    code = Worse(code, Judge(found, facts));
  }
  return code;
}

Exit Map(Tool& tool, const Found& found) {
  if (tool.json) {
    Json header = Tool::Header("component map");
    header["uuid"] = found.vdisk.uuid;
    header["disk"] = found.disk->uuidText;
    Tool::PrintJson(header);
  }
  const uint32_t status = ForEachExtent(found, [&](const OrloExtent& extent) {
    const uint64_t offset = extent.logicalSectors * 512;
    const uint64_t length = extent.sectorCount * 512;
    const bool hole = extent.physicalSectors == ~uint64_t{0};
    const uint64_t place = found.disk->dataOffset + extent.physicalSectors * 512;
    if (tool.json) {
      Tool::PrintJson({{"offset", offset},
                       {"length", length},
                       {"type", extent.type},
                       {"place", hole ? Json(nullptr) : Json(place)}});
    } else {
      Tool::Print(fmt::format("{:>14} {:>10}  {}\n", offset, length, hole ? "hole" : fmt::format("at {}", place)));
    }
  });
  return status == KAB_OK ? Exit::kClean : ExitOfStatus(status);
}

struct CloseComponent {
  void operator()(KABComponentHandle* handle) const { KABComponentClose(handle); }
};
using OpenedComponent = std::unique_ptr<KABComponentHandle, CloseComponent>;

// A handle stands only on complete replays of both logs: a component must never be read stale.
OpenedComponent OpenComponent(Group& group, const std::string& uuid) {
  const uint32_t status = KABSSDLOGRecovLlogLog(group.ssd());
  if (status != KAB_OK) {
    throw Failure(ExitOfStatus(status), "the LLOG cannot be replayed: the component's newest writes would be missing");
  }
  OpenedComponent handle(KABComponentOpen(group.ssd(), uuid.c_str()));
  if (handle == nullptr) throw Failure(Exit::kError, fmt::format("cannot open component {}", uuid));
  return handle;
}

// Extents are read where they lie; what has no place stays a hole of the file.
Exit ReadAll(Tool& tool, Group& group, const Found& found, const Options& options) {
  if (options.out.empty()) throw Failure(Exit::kUsage, "component read: needs -o FILE, or -o - for stdout");
  RefuseInput(options.out, options.group.Paths());
  const OpenedComponent handle = OpenComponent(group, found.vdisk.uuid);
  if (handle->compState != nullptr && options.out == "-") {
    throw Failure(Exit::kUsage,
                  "component read: the log holds parts of this component, which needs a file to write to");
  }
  OutFile out(options.out, options.force);
  const Facts facts = FactsOf(found);
  Progress progress(tool, "read", facts.end);
  std::vector<uint8_t> buffer(1 << 20);
  const std::vector<uint8_t> zeros(1 << 20);
  const bool sparse = out.pending();
  uint64_t at = 0;  // bytes of the component that stand in the output
  const auto pad = [&](uint64_t to) {
    if (sparse) {
      at = std::max(at, to);
      return;
    }
    while (at < to) {
      const uint64_t piece = std::min<uint64_t>(zeros.size(), to - at);
      out.Write(zeros.data(), piece);
      at += piece;
    }
  };
  const auto put = [&](uint64_t offset, uint64_t length) {
    if (!sparse) {
      out.Write(buffer.data(), length);
    } else {
      for (uint64_t done = 0; done < length;) {
        const ssize_t count = pwrite(out.fd(), buffer.data() + done, length - done, static_cast<off_t>(offset + done));
        if (count <= 0) throw SystemFailure(options.out, errno);
        done += static_cast<uint64_t>(count);
      }
    }
    at = offset + length;
  };
  uint32_t failed = KAB_OK;
  const uint32_t status = ForEachExtent(found, [&](const OrloExtent& extent) {
    const uint64_t offset = extent.logicalSectors * 512;
    const uint64_t length = extent.sectorCount * 512;
    pad(offset);
    // A run that leaves the disk is not read piece by piece: its length may be gigabytes.
    const uint64_t place = extent.physicalSectors * 512;
    const uint64_t room = found.disk->usableSize - std::min(found.disk->usableSize, place);
    const uint64_t there = extent.physicalSectors == ~uint64_t{0} ? 0 : std::min(length, room);
    if (there < length && extent.physicalSectors != ~uint64_t{0}) {
      failed = KAB_BLOCK_INVALID;
      tool.log.Line(fmt::format("kab: component {}: {} bytes at {} lie beyond the end of disk {}", found.vdisk.uuid,
                                length - there, offset + there, found.disk->uuidText));
    }
    for (uint64_t done = 0; done < there;) {
      StopIfInterrupted();
      const uint64_t piece = std::min<uint64_t>(buffer.size(), there - done);
      const uint32_t st = OrloReadData(found.disk, buffer.data(), static_cast<uint32_t>(piece), place + done);
      if (st != KAB_OK) {
        // The range stays zero; the exit status and the library's line tell of it.
        failed = st;
        std::fill_n(buffer.begin(), piece, uint8_t{0});
      }
      put(offset + done, piece);
      progress.Add(piece);
      done += piece;
    }
    pad(offset + length);
  });
  // What the log holds of the component is newer than its map.
  if (handle->compState != nullptr) {
    ZOLTLbaTable* table = &handle->compState->lbaTable;
    ZOLTLbaTableCursor cursor;
    for (const ZOLTLbaRange* range = ZOLTLbaTable_First(table, &cursor); range != nullptr;
         range = ZOLTLbaTable_Next(table, &cursor)) {
      for (uint64_t done = 0; done < range->length;) {
        const uint64_t piece = std::min<uint64_t>(buffer.size(), range->length - done);
        const uint32_t st = KABRead(group.ssd(), buffer.data(), static_cast<uint32_t>(piece),
                                    static_cast<int64_t>(group.ssd()->dataOffset + range->address + done));
        if (st != KAB_OK) throw Failure(ExitOfStatus(st), "the write buffer cannot be read");
        const uint64_t end = std::max(at, range->start + done + piece);
        put(range->start + done, piece);
        at = end;
        done += piece;
      }
    }
  }
  if (sparse && ftruncate(out.fd(), static_cast<off_t>(at)) != 0) throw SystemFailure(options.out, errno);
  out.Commit();
  progress.Finish();
  return status == KAB_OK && failed == KAB_OK ? Exit::kClean : Exit::kDamageIncomplete;
}

Exit Run(Tool& tool, const Options& options) {
  Group group(tool, options.group);
  ReplayLog(group);
  if (options.action == "list") return List(tool, group);
  if (options.uuid.empty()) throw Failure(Exit::kUsage, fmt::format("component {}: needs --uuid", options.action));
  const Found found = FindOne(group, options.uuid);
  if (options.action == "map") return Map(tool, found);
  if (options.action == "read") return ReadAll(tool, group, found, options);
  const Facts facts = FactsOf(found);
  if (tool.json) {
    Json object = Tool::Header("component info");
    object.update(FoundJson(found, facts));
    Tool::PrintJson(object);
  } else {
    Show(tool, found, facts);
  }
  return Judge(found, facts);
}

}  // namespace

void AddComponent(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<Options>();
  CLI::App* command = AddCommand(app, tool, "component", "List, map and read components", kDetails,
                                 [&tool, options] { return Run(tool, *options); });
  command->add_option("ACTION", options->action, "list, info, map or read")
      ->required()
      ->check(CLI::IsMember({"list", "info", "map", "read"}));
  command->add_option("-u,--uuid", options->uuid, "the component");
  command->add_option("-o,--output", options->out, "for read: where to write, - for stdout");
  command->add_flag("-f,--force", options->force, "replace an existing output file");
  AddGroupOptions(command, options->group);
}

}  // namespace tool
