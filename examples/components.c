/* Opens a disk group and prints the components that its disks list:  components SSD DISK...  */
#include <fcntl.h>
#include <kab/kab.h>
#include <stdio.h>
#include <string.h>

static uint32_t PrintComponents(KABDiskCtx* disk) {
  const int v6 = disk->meta[468] == 6; /* format version 6 has shorter entries */
  const uint64_t size = v6 ? ORLO_VDISK_ENTRY_SIZE_V6 : ORLO_VDISK_ENTRY_SIZE;
  uint8_t block0[ORLO_BLOCK0_SIZE], entry[ORLO_VDISK_ENTRY_SIZE];
  uint64_t registry;
  uint32_t count = 0;
  uint32_t status = OrloReadBlock0(disk, block0, NULL);
  memcpy(&registry, block0 + 48, sizeof registry); /* integers on a disk are little-endian */
  if (status == KAB_OK) status = OrloReadData(disk, &count, sizeof count, registry + 36);
  for (uint64_t i = 0; i < count && status == KAB_OK; i++) {
    status = OrloReadData(disk, entry, (uint32_t)size, registry + 52 + i * size);
    const uint8_t* u = entry + (v6 ? 20 : 24);
    if (status != KAB_OK) break;
    printf("disk %d  %02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x\n", disk->devIdx, u[0], u[1],
           u[2], u[3], u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11], u[12], u[13], u[14], u[15]);
  }
  return status;
}

int main(int argc, char** argv) {
  if (argc < 3 || argc > 2 + KAB_DISKS_PER_GROUP) return 2;
  KABInit(0, stderr); /* every failure below says on stderr why */
  KABDiskCtx *disks[KAB_DISKS_PER_GROUP] = {NULL}, *ssd = KABOpenSSD(argv[1], O_RDONLY, 0);
  if (ssd == NULL) return 1;
  int opened = 0;
  while (opened < argc - 2 && (disks[opened] = KABOpenDisk(argv[2 + opened], O_RDONLY, ssd, 0)) != NULL) opened++;

  /* The newest bytes of a disk may still lie in the SSD's log. */
  uint32_t status = opened < argc - 2 ? KAB_OPEN_FAILED : KABSSDLOGGetValidCheckPointRecord(ssd);
  if (status == KAB_OK) status = KABSSDLOGRecovPlogLog(ssd);
  for (int i = 0; i < opened && status == KAB_OK; i++) status = PrintComponents(disks[i]);

  for (int i = 0; i < opened; i++) /* capacity disks before their SSD */
    if (KABCloseDisk(disks[i]) == KAB_OK) KABFree(&disks[i]);
  if (KABCloseDisk(ssd) == KAB_OK) KABFree(&ssd);
  return status != KAB_OK;
}
