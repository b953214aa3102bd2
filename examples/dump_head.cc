// Dumps the first bytes of a disk into a compressed, hashed file and verifies the file:  dump_head DISK DUMP LENGTH
#include <fcntl.h>
#include <kab/kab.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

struct CloseDisk {
  void operator()(KABDiskCtx* ctx) const {
    if (KABCloseDisk(ctx) == KAB_OK) KABFree(&ctx);
  }
};
using Disk = std::unique_ptr<KABDiskCtx, CloseDisk>;

// Takes the place of the extractor's write: the records are read and hashed, and written nowhere.
uint32_t Discard(uint32_t, void* data, uint32_t, uint64_t) {
  KABFree(&data);
  return KAB_OK;
}

uint32_t WriteDump(const char* dumpPath, KABDiskCtx& disk, uint32_t length) {
  KABDumpCtx* dump = KABInitDumpFile(dumpPath, disk.path, disk.diskSize);
  if (dump == nullptr) return KAB_CREATE_FAILED;
  const uint32_t added = KABAddChunkToDump(dump, &disk, length, 0);
  const uint32_t closed = KABCloseDumpFile(dump);
  KABFree(&dump);
  return added != KAB_OK ? added : closed;
}

uint32_t Verify(const char* dumpPath) {
  const int fd = open(dumpPath, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return KAB_OPEN_FAILED;
  const uint32_t status = KABVerifyAndExtractDump(static_cast<uint32_t>(fd), 0, 0, Discard);
  close(fd);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s DISK DUMP LENGTH\n", argv[0]);
    return 2;
  }
  KABInit(0, stderr);
  const Disk disk(KABOpenDisk(argv[1], O_RDONLY, nullptr, 0));
  if (!disk) return 1;
  uint32_t status = WriteDump(argv[2], *disk, static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 0)));
  if (status == KAB_OK) status = Verify(argv[2]);
  std::printf("%s: %s\n", argv[2], KABErrorStr(status));
  return status == KAB_OK ? 0 : 1;
}
