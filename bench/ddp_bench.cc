// Reads through the translation map, beside one 2 KiB pread and one decompression a block.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <lz4.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "kab/core.h"
#include "kab/ddp.h"
#include "sample/dedup_image.h"

namespace {

constexpr uint32_t kBlks = 256;
constexpr uint32_t kBlock = 4096;

// A group of one disk, every block of it compressed into one unit, in order.
struct OpenGroup {
  OpenGroup() : image({.mode = 1, .disks = 1}) {
    std::mt19937_64 random(1);
    std::vector<uint8_t> block(kBlock);
    for (uint64_t blk = 0; blk < kBlks; ++blk) {
      // Half of it comes again: about what a unit takes.
      for (size_t i = 0; i < block.size(); ++i) {
        block[i] =
            i % 64 < 18 ? static_cast<uint8_t>(random()) : static_cast<uint8_t>("log entry of component "[i % 23]);
      }
      image.Store(0, blk, block, 0);
    }
    image.Seal();
    char name[] = "/tmp/kab-bench-XXXXXX";
    if (mkdtemp(name) == nullptr) std::abort();
    paths = image.Write(name);
    KABInit(0, stderr);
    ssd = KABOpenSSD(paths.ssd.c_str(), O_RDONLY, 0);
    disk = ssd == nullptr ? nullptr : KABOpenDisk(paths.disks[0].c_str(), O_RDONLY, ssd, 0);
    std::filesystem::remove_all(name);
    if (disk == nullptr) std::abort();
    for (uint64_t blk = 0; blk < kBlks; ++blk) {
      const uint64_t unit = (image.Disk(0).Get64(image.EntryAt(blk) + 9) & 0xFFFFFFFFF) - image.Place().dataStart;
      if (image.Disk(0).Get8(image.EntryAt(blk) + 17) != 0xFF) std::abort();  // not compressed
      units.push_back(static_cast<off_t>(image.UnitAt(unit)));
    }
  }
  ~OpenGroup() {
    KABCloseDisk(disk);
    KABFree(&disk);
    KABCloseDisk(ssd);
    KABFree(&ssd);
  }
  sample::DedupImage image;
  sample::GroupPaths paths;
  KABDiskCtx* ssd = nullptr;
  KABDiskCtx* disk = nullptr;
  std::vector<off_t> units;
};

void BM_DedupRead_Kab(benchmark::State& state) {
  OpenGroup group;
  const auto blks = static_cast<uint32_t>(state.range(0));
  std::vector<uint8_t> buf(blks * kBlock);
  for (auto _ : state) {
    if (DDPRead(group.disk, buf.data(), blks * kBlock, 0) != KAB_OK) std::abort();
    benchmark::DoNotOptimize(buf.data());
  }
}
BENCHMARK(BM_DedupRead_Kab)->Arg(32)->Arg(kBlks);

void BM_DedupRead_Peer(benchmark::State& state) {
  OpenGroup group;
  const auto blks = static_cast<uint32_t>(state.range(0));
  std::vector<uint8_t> buf(blks * kBlock);
  char unit[2048];
  for (auto _ : state) {
    for (uint32_t blk = 0; blk < blks; ++blk) {
      if (pread(group.disk->fd, unit, sizeof unit, group.units[blk]) != 2048) std::abort();
      const int length = static_cast<uint8_t>(unit[2046]) | (static_cast<uint8_t>(unit[2047]) & 7) << 8;
      LZ4_decompress_safe(unit, reinterpret_cast<char*>(buf.data()) + blk * kBlock, length, kBlock);
    }
    benchmark::DoNotOptimize(buf.data());
  }
  state.counters["target"] = 1.15;
}
BENCHMARK(BM_DedupRead_Peer)->Arg(32)->Arg(kBlks);

}  // namespace
