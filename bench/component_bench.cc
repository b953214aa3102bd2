// A component read through a map of three levels, beside the reads that it needs.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "kab/core.h"
#include "kab/orlo.h"
#include "sample/group_image.h"
#include "sample/orlo_image.h"

namespace {

constexpr uint32_t kLength = 1 << 20;
constexpr uint64_t kFirst = 4 << 20;  // bytes, behind the superblock's area
constexpr uint64_t kBlock = 4096;

// One component of 16-block runs, eight records a leaf, four children a node.
struct OpenGroup {
  OpenGroup() : images(1, 8 << 20, 64 << 20), orlo(images.Disk(0), 7) {
    std::vector<sample::OrloRun> runs = {{.logical = 0, .count = 4}};
    for (uint32_t i = 0; i < 100; ++i) runs.push_back({.logical = 1024 + 16 * i, .count = 16});
    orlo.AddVdisk(sample::MakeUuid(7), runs, {8, 4});
    char name[] = "/tmp/kab-bench-XXXXXX";
    if (mkdtemp(name) == nullptr) std::abort();
    paths = images.Write(name);
    KABInit(0, stderr);
    ssd = KABOpenSSD(paths.ssd.c_str(), O_RDONLY, 0);
    disk = ssd == nullptr ? nullptr : KABOpenDisk(paths.disks[0].c_str(), O_RDONLY, ssd, 0);
    std::filesystem::remove_all(name);
    if (disk == nullptr) std::abort();
    ssd->plogRecoveryComplete = 1;  // as after the replay of an empty log
    component = OrloOpenComponent(ssd, sample::UuidText(sample::MakeUuid(7)).c_str());
    if (component == nullptr || orlo.vdisks()[0].levels < 3) std::abort();
  }
  ~OpenGroup() {
    OrloCloseComponent(component);
    KABCloseDisk(disk);
    KABFree(&disk);
    KABCloseDisk(ssd);
    KABFree(&ssd);
  }
  sample::GroupImage images;
  sample::OrloImage orlo;
  sample::GroupPaths paths;
  KABDiskCtx* ssd = nullptr;
  KABDiskCtx* disk = nullptr;
  OrloComponent* component = nullptr;
};

void BM_ComponentRead1M_Kab(benchmark::State& state) {
  OpenGroup group;
  std::vector<uint8_t> buf(kLength);
  for (auto _ : state) {
    if (OrloReadComponent(group.component, buf.data(), kFirst, kLength) != KAB_OK) std::abort();
  }
}
BENCHMARK(BM_ComponentRead1M_Kab);

// The map blocks on the way and the leaves in the range, then the runs.
void BM_ComponentRead1M_Peer(benchmark::State& state) {
  OpenGroup group;
  const sample::OrloVdisk& vdisk = group.orlo.vdisks()[0];
  std::vector<uint8_t> buf(kLength);
  std::vector<off_t> maps;
  for (size_t i = 0; i < 5; ++i) {
    maps.push_back(static_cast<off_t>(sample::OrloImage::BlockAt(vdisk.mapBlocks[vdisk.mapBlocks.size() - 1 - i])));
  }
  for (auto _ : state) {
    uint8_t map[kBlock];
    for (const off_t at : maps) {
      if (pread(group.disk->fd, map, sizeof map, at) != static_cast<ssize_t>(sizeof map)) std::abort();
    }
    uint64_t done = 0;
    for (const sample::OrloRun& run : vdisk.runs) {
      if (run.logical * kBlock < kFirst || done == kLength) continue;
      const uint64_t length = run.count * kBlock;
      const auto at = static_cast<off_t>(sample::OrloImage::BlockAt(run.physical));
      if (pread(group.disk->fd, buf.data() + done, length, at) != static_cast<ssize_t>(length)) std::abort();
      done += length;
    }
    benchmark::DoNotOptimize(buf.data());
  }
  state.counters["target"] = 1.2;
}
BENCHMARK(BM_ComponentRead1M_Peer);

}  // namespace
