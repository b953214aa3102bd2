// kab component: the components on a group's Orlo disks.

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "commands.h"
#include "component.h"
#include "group.h"
#include "kab/orlo.h"
#include "out_file.h"
#include "progress.h"
#include "view.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Works on the components of Orlo disks (format versions 6 and 7), after a replay of the log:\n\n"
    "  list   every component that a registry names: disk, allocated bytes, whether its superblock is valid\n"
    "  info   one of them, by --uuid\n"
    "  map    its extents: logical offset, length, and the byte offset on the disk, or hole\n"
    "  read   its bytes from the superblock on, to a file (sparse) or, with -o -, to stdout\n\n"
    "Offsets are bytes of the component's address space, its 4 MiB superblock area included.\n\n"
    "Examples:\n"
    "  kab component list ssd.img disk0.img\n"
    "  kab component read --uuid UUID -o component.bin ssd.img disk0.img\n";

struct Options {
  GroupOptions group;
  std::string action;
  std::string uuid;
  std::string out;
  bool force = false;
};

struct Facts {
  uint64_t allocated = 0;  // bytes that have a place on the disk
  uint64_t end = 0;        // bytes up to the last run's end
  uint32_t extents = 0;
  bool mapWhole = true;
  bool superblockValid = false;
};

Facts FactsOf(const Component& found) {
  Facts facts;
  const uint32_t status = ForEachExtent(found, [&facts](const OrloExtent& extent) {
    StopIfInterrupted();
    const uint64_t length = extent.sectorCount * 512;
    if (extent.physicalSectors != ~uint64_t{0}) facts.allocated += length;
    facts.end = extent.logicalSectors * 512 + length;
    ++facts.extents;
  });
  facts.mapWhole = status == KAB_OK;
  if (!found.vdisk.present) return facts;
  std::vector<uint8_t> superblock(ORLO_SUPERBLOCK_SIZE);
  const uint32_t read = OrloReadWriteComponentSuperBlock(found.disk, found.vdisk.mapBlock, superblock.data(), 1);
  ThrowIfNoMemory(read);
  facts.superblockValid = read == KAB_OK && KABIsZOLTCompSblkValid(superblock.data()) != 0;
  return facts;
}

Json FoundJson(const Component& found, const Facts& facts) {
  Json object = Json::object();
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

Exit Judge(const Component& found, const Facts& facts) {
  if (!facts.mapWhole) return Exit::kDamageIncomplete;
  return found.vdisk.present && !facts.superblockValid ? Exit::kDamage : Exit::kClean;
}

void Show(Tool& tool, const Component& found, const Facts& facts) {
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
  const auto unreadable = [&](const KABDiskCtx& disk) {
    tool.log.Line(fmt::format("kab: cannot read the registry of disk {}", disk.uuidText));
    code = Worse(code, Exit::kDamageIncomplete);
  };
  for (const Component& found : FindComponents(group, unreadable)) {
    StopIfInterrupted();
    const Facts facts = FactsOf(found);
    Show(tool, found, facts);
    code = Worse(code, Judge(found, facts));
  }
  return code;
}

Exit Map(Tool& tool, const Component& found) {
  if (tool.json) {
    Json header = Tool::Header("component map");
    header["uuid"] = found.vdisk.uuid;
    header["disk"] = found.disk->uuidText;
    Tool::PrintJson(header);
  }
  const uint32_t status = ForEachExtent(found, [&](const OrloExtent& extent) {
    StopIfInterrupted();
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

// What has no place stays a hole of the file.
Exit ReadAll(Tool& tool, Group& group, const Component& found, const Options& options) {
  if (options.out.empty()) throw Failure(Exit::kUsage, "component read: needs -o FILE, or -o - for stdout");
  RefuseInput(options.out, options.group.Paths());
  const std::unique_ptr<View> view = ViewOfComponent(group, found);
  OutFile out(options.out, options.force);
  Progress progress(tool, "read", view->size());
  std::vector<uint8_t> buffer(1 << 20);
  const bool sparse = out.pending();
  const auto put = [&](uint64_t offset, uint64_t length) {
    if (!sparse) {
      out.Write(buffer.data(), length);
      return;
    }
    for (uint64_t done = 0; done < length;) {
      const ssize_t count = pwrite(out.fd(), buffer.data() + done, length - done, static_cast<off_t>(offset + done));
      if (count <= 0) throw SystemFailure(options.out, errno);
      done += static_cast<uint64_t>(count);
    }
  };
  // A range that cannot be read stays zero; the exit status and the library's line tell of it.
  Exit code = view->whole() ? Exit::kClean : Exit::kDamageIncomplete;
  const auto bad = [&code](uint64_t, uint64_t, uint32_t status) {
    ThrowIfNoMemory(status);
    code = Exit::kDamageIncomplete;
  };
  view->ForEachRun(0, view->size(), [&](const View::Run& run) {
    if (run.beyond) {
      code = Exit::kDamageIncomplete;
      tool.log.Line(fmt::format("kab: component {}: {} bytes at {} lie beyond the end of disk {}", found.vdisk.uuid,
                                run.length, run.offset, found.disk->uuidText));
    }
    const bool zeros = run.hole || run.beyond;
    for (uint64_t done = 0; done < run.length && !(zeros && sparse);) {
      StopIfInterrupted();
      const uint64_t piece = std::min<uint64_t>(buffer.size(), run.length - done);
      if (zeros) {
        std::fill_n(buffer.begin(), piece, uint8_t{0});
      } else {
        ReadAround(*view, buffer.data(), piece, run.offset + done, bad);
      }
      put(run.offset + done, piece);
      done += piece;
    }
    progress.Add(run.length);
  });
  if (sparse && ftruncate(out.fd(), static_cast<off_t>(view->size())) != 0) throw SystemFailure(options.out, errno);
  out.Commit();
  progress.Finish();
  return code;
}

Exit Run(Tool& tool, const Options& options) {
  Group group(tool, options.group);
  ReplayLog(group);
  if (options.action == "list") return List(tool, group);
  if (options.uuid.empty()) throw Failure(Exit::kUsage, fmt::format("component {}: needs --uuid", options.action));
  const Component found = FindComponent(group, options.uuid);
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
  command->add_option("-u,--uuid", options->uuid, "the component")->type_name("UUID");
  command->add_option("-o,--output", options->out, "for read: where to write, - for stdout")->type_name("FILE");
  command->add_flag("-f,--force", options->force, "replace an existing output file");
  AddGroupOptions(command, options->group);
}

}  // namespace tool
