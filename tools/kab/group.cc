#include "group.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>

namespace tool {

void AddGroupOptions(CLI::App* command, GroupOptions& options) {
  command->add_option("SSD", options.ssd, "the group's cache SSD: block device or image file")->required();
  command->add_option("DISK", options.disks, "its capacity disks");
  command->add_flag("--skip-unmount-check", options.skipUnmountCheck, "open disks that were not cleanly unmounted");
}

void AddDiskChoice(CLI::App* command, GroupOptions& options) {
  command->add_option("-d,--disk", options.disk,
                      "which disk: ssd, a slot number, a UUID or a path as given (default: the only DISK, or the SSD "
                      "when it is alone)");
}

void Group::Close::operator()(KABDiskCtx* ctx) const noexcept {
  if (KABCloseDisk(ctx) == KAB_OK) KABFree(&ctx);
}

Group::Opened Group::Open(Tool& tool, const std::string& path, bool isSsd) {
  tool.log.Forget();
  RequireFileOrDevice(path);
  const uint8_t skip = options_.skipUnmountCheck ? 1 : 0;
  Opened disk(isSsd ? KABOpenSSD(path.c_str(), O_RDONLY, skip) : KABOpenDisk(path.c_str(), O_RDONLY, ssd_.get(), skip));
  if (disk != nullptr) return disk;
  const Exit code = tool.log.refusedDisk() ? Exit::kNotOurs : tool.log.outOfMemory() ? Exit::kMemory : Exit::kError;
  throw Failure(code, fmt::format("cannot open {}", path));
}

Group::Group(Tool& tool, const GroupOptions& options, const TakeRefusal& takeRefusal)
    : options_(options), keys_(tool.keyFiles) {
  ssd_ = Open(tool, options.ssd, true);
  for (const std::string& path : options.disks) {
    try {
      owned_.push_back(Open(tool, path, false));
    } catch (const Failure& failure) {
      if (!takeRefusal || failure.code() == Exit::kMemory) throw;
      const std::string& line = tool.log.lastError();
      takeRefusal({path, line.empty() ? failure.what() : line, failure.code()});
      continue;
    }
    disks_.push_back(owned_.back().get());
  }
}

std::vector<KABDiskCtx*> Group::All() {
  std::vector<KABDiskCtx*> all = {ssd_.get()};
  all.insert(all.end(), disks_.begin(), disks_.end());
  return all;
}

KABDiskCtx* Group::Chosen() {
  const std::string& wanted = options_.disk;
  if (wanted.empty()) {
    if (disks_.size() > 1) throw Failure(Exit::kUsage, "several disks given: choose one with --disk");
    return disks_.empty() ? ssd_.get() : disks_[0];
  }
  if (wanted == "ssd") return ssd_.get();
  for (KABDiskCtx* ctx : All()) {
    const bool slot = ctx->devIdx >= 0 && wanted == std::to_string(ctx->devIdx);
    if (slot || wanted == ctx->path || strcasecmp(wanted.c_str(), ctx->uuidText) == 0) return ctx;
  }
  throw Failure(Exit::kUsage, fmt::format("--disk {}: none of the disks given", wanted));
}

}  // namespace tool
