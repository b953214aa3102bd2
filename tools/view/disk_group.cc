#include "disk_group.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <strings.h>

#include "failure.h"
#include "kab/ssdlog.h"

namespace tool {

void DiskGroup::Close::operator()(KABDiskCtx* ctx) const noexcept {
  if (KABCloseDisk(ctx) == KAB_OK) KABFree(&ctx);
}

DiskGroup::Opened DiskGroup::Open(LogRelay& log, const std::string& path, bool isSsd) {
  log.Forget();
  RequireFileOrDevice(path);
  const uint8_t skip = options_.skipUnmountCheck ? 1 : 0;
  Opened disk(isSsd ? KABOpenSSD(path.c_str(), O_RDONLY, skip) : KABOpenDisk(path.c_str(), O_RDONLY, ssd_.get(), skip));
  if (disk != nullptr) return disk;
  const Exit code = log.refusedDisk() ? Exit::kNotOurs : log.outOfMemory() ? Exit::kMemory : Exit::kError;
  throw Failure(code, fmt::format("cannot open {}", path));
}

DiskGroup::DiskGroup(LogRelay& log, const std::vector<std::string>& keyFiles, const GroupOptions& options,
                     const TakeRefusal& takeRefusal)
    : options_(options), keys_(keyFiles) {
  ssd_ = Open(log, options.ssd, true);
  for (const std::string& path : options.disks) {
    try {
      owned_.push_back(Open(log, path, false));
    } catch (const Failure& failure) {
      if (!takeRefusal || failure.code() == Exit::kMemory) throw;
      const std::string& line = log.lastError();
      takeRefusal({path, line.empty() ? failure.what() : line, failure.code()});
      continue;
    }
    disks_.push_back(owned_.back().get());
  }
}

std::vector<KABDiskCtx*> DiskGroup::All() {
  std::vector<KABDiskCtx*> all = {ssd_.get()};
  all.insert(all.end(), disks_.begin(), disks_.end());
  return all;
}

KABDiskCtx* DiskGroup::Chosen() {
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

void ReplayLog(DiskGroup& group) {
  KABDiskCtx* ssd = group.ssd();
  uint32_t status = KABSSDLOGGetValidCheckPointRecord(ssd);
  if (status == KAB_OK) status = KABSSDLOGRecovPlogLog(ssd);
  if (status != KAB_OK) {
    throw Failure(ExitOfStatus(status), fmt::format("the log cannot be replayed: {}", KABErrorStr(status)));
  }
}

}  // namespace tool
