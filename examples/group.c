/* Opens a disk group and prints its disks:  group SSD DISK...  */
#include <fcntl.h>
#include <inttypes.h>
#include <kab/kab.h>
#include <stdio.h>

static void PrintDisk(const KABDiskCtx* disk) {
  printf("%2d  %s  %12" PRIu64 " bytes%s  %s\n", disk->devIdx, disk->uuidText, disk->diskSize,
         disk->encrypted ? "  encrypted" : "", disk->path);
}

static void Close(KABDiskCtx** disk) {
  /* An SSD that still has disks attached refuses to close, and must then keep its record. */
  if (*disk != NULL && KABCloseDisk(*disk) == KAB_OK) KABFree(disk);
}

int main(int argc, char** argv) {
  if (argc < 2 || argc > 2 + KAB_DISKS_PER_GROUP) {
    fprintf(stderr, "usage: %s SSD [DISK...]\n", argv[0]);
    return 2;
  }
  KABInit(0, stderr); /* every failure below says on stderr why */
  KABDiskCtx* ssd = KABOpenSSD(argv[1], O_RDONLY, 0);
  if (ssd == NULL) return 1;
  PrintDisk(ssd);

  int failed = 0;
  KABDiskCtx* disks[KAB_DISKS_PER_GROUP] = {NULL};
  for (int i = 0; i < argc - 2; i++) {
    disks[i] = KABOpenDisk(argv[2 + i], O_RDONLY, ssd, 0);
    if (disks[i] != NULL) PrintDisk(disks[i]);
    failed |= disks[i] == NULL;
  }
  printf("%" PRIu32 " disks attached\n", ssd->openDiskCount);

  for (int i = 0; i < KAB_DISKS_PER_GROUP; i++) Close(&disks[i]); /* capacity disks before their SSD */
  Close(&ssd);
  return failed;
}
