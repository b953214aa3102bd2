// Makes a dedup group of a shape that kab sample does not offer.
//
//   dedup_shape FOLDER MODE MDR MAP_BITMAPS HASH_MAP EXPANSION

#include <cstdio>
#include <cstdlib>

#include "sample/dedup_image.h"
#include "sample/log_image.h"

int main(int argc, char** argv) {
  if (argc != 7) return 2;
  const auto number = [argv](int i) { return static_cast<uint32_t>(std::strtoul(argv[i], nullptr, 10)); };
  sample::DedupImage image({.mode = number(2),
                            .disks = 3,
                            .mdr = number(3) != 0,
                            .mapBitmaps = number(4) != 0,
                            .hashMap = number(5) != 0,
                            .expansion = number(6)});
  // Blocks at both ends of the map: its last ones lie in the expansion.
  image.StoreMixture(400, 5);
  const uint64_t entries = image.Place().xmapFull * 225;
  for (uint32_t disk = 0; disk < 3; disk++) {
    for (uint64_t blk = entries - 60; blk < entries; blk++) {
      std::array<uint8_t, 4096> block{};
      block[0] = static_cast<uint8_t>(blk);
      block[1] = static_cast<uint8_t>(disk + 1);
      image.Store(disk, blk, block, disk);
    }
  }
  image.Seal();
  sample::DiskImage& ssd = image.Group().Ssd();
  sample::LogImage(ssd, 16, 500).Write(sample::LogChain(1));
  image.Write(argv[1]);
  return 0;
}
