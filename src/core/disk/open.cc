// Making a disk context: the common open, then what an SSD or a capacity disk adds.

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include "core/frame/bytes.h"
#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "core/frame/uuid_text.h"
#include "core/io/arvo_meta_format.h"
#include "kab/core.h"
#include "kab/ddp.h"
#include "kab/ssdlog.h"
#include "plinth/lock.h"

namespace kab {
namespace {

constexpr const char* kLockName = "kab-diskctx-lck";
constexpr uint32_t kLockRank = 0xfeffffff;
constexpr uint64_t kNoLogPosition48 = 0xFFFFFFFFFFFF;
constexpr uint64_t kNoLogPosition = ~uint64_t{0};
constexpr uint32_t kReserveVersion0 = 1048576;
constexpr uint32_t kReserve = 4194304;
constexpr uint8_t kNewestFormatVersion = 20;

// An SSD that still has disks attached refuses to close, and must then keep its record.
struct CloseDisk {
  void operator()(KABDiskCtx* ctx) const noexcept {
    if (KABCloseDisk(ctx) == KAB_OK) FreeBlock{}(ctx);
  }
};
using OpenedDisk = std::unique_ptr<KABDiskCtx, CloseDisk>;

// fstat tells the size of a file, but reports 0 for a block device on Linux.
bool DiskSize(int fd, uint64_t* size) {
  struct stat info;
  if (fstat(fd, &info) != 0) return false;
  if (S_ISBLK(info.st_mode)) return ioctl(fd, BLKGETSIZE64, size) == 0;
  *size = static_cast<uint64_t>(info.st_size);
  return true;
}

// The reserve in front of component data, by the disk's format version.
bool SetMetaReserve(KABDiskCtx* ctx) {
  const uint8_t version = ctx->meta[meta::kFormatVersion];
  if (version > kNewestFormatVersion) {
    Log("%s: Error: Unknown disk format version %u on disk\n", ctx->uuidText, version);
    return false;
  }
  ctx->metaReserve = version == 0 ? kReserveVersion0 : kReserve;
  return true;
}

OpenedDisk OpenCommon(const char* path, uint32_t flags, uint8_t skipUnmountCheck) {
  OpenedDisk ctx(static_cast<KABDiskCtx*>(KABAlloc(sizeof(KABDiskCtx))));
  if (ctx == nullptr) {
    Log("Error: Failed to allocate disk context for %s\n", path);
    return nullptr;
  }
  ctx->fd = -1;
  ctx->devIdx = -1;

  ctx->fd = open(path, static_cast<int>(flags) | O_SYNC | O_EXCL);
  if (ctx->fd < 0) {
    Log("Error: Failed to open device %s: %s\n", path, strerror(errno));
    return nullptr;
  }

  ctx->dataOffset = kDataOffset;
  if (KABReadArvoMeta(ctx.get(), ctx->meta, &ctx->metaOffset) != KAB_OK) {
    Log("Error: Failed to read arvo metadata from disk %s\n", path);
    return nullptr;
  }
  const bool type11 = IsType11(ctx->meta);
  if (type11) FormatUuid(ctx->meta + meta::kAltUuid11, ctx->altUuidText);
  if (MountState(ctx->meta) == 0) {
    if (skipUnmountCheck == 0) {
      Log("Error: Failing open request as device %s is not unmounted\n", path);
      return nullptr;
    }
    Log("Error: Skipping unmount check, opening mounted disk %s\n", path);
  }
  FormatUuid(ctx->meta + (type11 ? meta::kUuid11 : meta::kUuid), ctx->uuidText);
  ctx->path = path;

  if (KABUpdateDiskEncryptionInfo(ctx.get(), path) != KAB_OK) {
    Log("Error: Failed to get decryption info for disk %s\n", path);
    return nullptr;
  }

  uint64_t size = 0;
  if (!DiskSize(ctx->fd, &size)) {
    Log("Error: Failed to get disk size for %s: %s\n", path, strerror(errno));
    return nullptr;
  }
  if (size <= kSecondaryGptSize + ctx->dataOffset) {
    Log("Error: Disk: %s is too small to be usable for Arvo\n", path);
    return nullptr;
  }
  ctx->diskSize = size;
  ctx->usableSize = size - ctx->dataOffset - kSecondaryGptSize;

  ctx->lock = plinth::LockCreate(kLockName, kLockRank);
  if (ctx->lock == nullptr) {
    Log("Error: Failed to create exclusive lock for disk %s\n", path);
    return nullptr;
  }
  ctx->sectorSize = 512;
  ctx->sectorShift = 9;
  if (!SetMetaReserve(ctx.get())) return nullptr;
  ctx->logState = &ctx->logStateArea;
  return ctx;
}

// A placeholder that replay left in the slot hands its PLOG state over to the disk it stood for; a disk that shares
// its group's state has no use for another.
void TakePlogState(KABDiskCtx* ctx, KABDiskCtx* group, KABDiskCtx* placeholder) {
  const bool shares = DedupMode(ctx->meta) == 2;
  if (shares) ctx->plogState = group->plogState;
  if (placeholder == nullptr) return;
  if (!shares) {
    ctx->plogState = placeholder->plogState;
    if (ctx->plogState != nullptr) ctx->plogState->owner = ctx;
  } else if (placeholder->plogState != nullptr && placeholder->plogState != group->plogState) {
    KABFreePlogState(&placeholder->plogState);
  }
  KABFree(&placeholder);
}

bool AttachToGroup(KABDiskCtx* ctx, KABDiskCtx* group) {
  if (group->openDiskCount > KAB_DISKS_PER_GROUP - 1) {
    Log("%s: Error: Too many open disk requests for Diskgroup %s\n", ctx->uuidText, group->uuidText);
    return false;
  }
  const uint8_t* uuid = ctx->meta + meta::kUuid;
  const int32_t devIdx = KABGetDevIdx(group->meta, Load<uint64_t>(uuid), Load<uint64_t>(uuid + 8));
  if (devIdx < 0) {
    Log("%s: Error: Disk %s is not part of given diskgroup\n", ctx->uuidText, ctx->path);
    return false;
  }
  KABDiskCtx*& slot = group->disks[devIdx];
  if (slot != nullptr && slot->placeholder == 0) {
    Log("%s: Error: Disk %s is already open in this diskgroup\n", ctx->uuidText, ctx->path);
    return false;
  }

  ctx->devIdx = devIdx;
  ctx->group = group;
  TakePlogState(ctx, group, slot);
  slot = ctx;
  ctx->logPositions[0] = kNoLogPosition48;
  ++group->openDiskCount;
  return true;
}

}  // namespace
}  // namespace kab

KABDiskCtx* KABOpenSSD(const char* path, uint32_t flags, uint8_t skipUnmountCheck) {
  kab::OpenedDisk ctx = kab::OpenCommon(path, flags, skipUnmountCheck);
  if (ctx == nullptr) return nullptr;
  ctx->logPositions[0] = kab::kNoLogPosition48;
  for (int i = 1; i < 4; ++i) ctx->logPositions[i] = kab::kNoLogPosition;
  return ctx.release();
}

KABDiskCtx* KABOpenDisk(const char* path, uint32_t flags, KABDiskCtx* group, uint8_t skipUnmountCheck) {
  kab::OpenedDisk ctx = kab::OpenCommon(path, flags, skipUnmountCheck);
  if (ctx == nullptr || kab::IsType11(ctx->meta)) return ctx.release();

  const uint32_t mode = kab::DedupMode(ctx->meta);
  if ((mode == 1 || mode == 2) && DDPInitDiskCTX(ctx.get(), path) != KAB_OK) {
    kab::Log("%s: Error: Failed to init dedupe context for disk %s\n", ctx->uuidText, path);
    return nullptr;
  }
  if (group == nullptr) {
    kab::Log("Diskgroup info not provided, opening %s with reduced functionality\n", path);
    return ctx.release();
  }
  if (!kab::AttachToGroup(ctx.get(), group)) return nullptr;
  return ctx.release();
}
