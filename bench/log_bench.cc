// The SSD log: its checksum, its replay, and reads along a fragmented table.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kab/kab.h"
#include "sample/log_image.h"
#include "ssdlog/mix_checksum.h"

namespace {

using sample::kDataOffset;
using sample::kLogBlock;
using sample::LogChain;
using sample::LogImage;

constexpr uint64_t kStart = 16;

// Writes a group into a folder of its own; the files are unlinked at the end.
struct Folder {
  Folder() {
    char path[] = "/tmp/kab-bench-XXXXXX";
    if (mkdtemp(path) == nullptr) std::abort();
    name = path;
  }
  ~Folder() {
    for (const char* file : {"/ssd.img", "/disk0.img"}) unlink((name + file).c_str());
    rmdir(name.c_str());
  }
  std::string name;
};

struct OpenedGroup {
  explicit OpenedGroup(const sample::GroupPaths& paths) {
    KABInit(0, stderr);
    ssd = KABOpenSSD(paths.ssd.c_str(), O_RDONLY, 0);
    if (ssd == nullptr || KABSSDLOGGetValidCheckPointRecord(ssd) != 0) std::abort();
    disk = KABOpenDisk(paths.disks[0].c_str(), O_RDONLY, ssd, 0);
    if (disk == nullptr) std::abort();
  }
  ~OpenedGroup() {
    KABCloseDisk(disk);
    KABFree(&disk);
    KABCloseDisk(ssd);
    KABFree(&ssd);
  }
  KABDiskCtx* ssd;
  KABDiskCtx* disk;
};

// ---- Checksum: no faster than its chain of steps, each of which waits for the one before.

void BM_LogBlockChecksum_Kab(benchmark::State& state) {
  std::vector<uint8_t> block(kLogBlock, 0x5A);
  for (auto _ : state) benchmark::DoNotOptimize(kab::ssdlog::BlockChecksum(block.data()));
}
BENCHMARK(BM_LogBlockChecksum_Kab);

void BM_LogBlockChecksum_Peer(benchmark::State& state) {
  uint64_t a = 42, b = 42, c = 0x9E3779B97F4A7C13;
  for (auto _ : state) {
    for (int i = 0; i < 171; i++) {
      a -= b, a -= c, a ^= c >> 43;
      b -= c, b -= a, b ^= a << 9;
      c -= a, c -= b, c ^= b >> 8;
      a -= b, a -= c, a ^= c >> 38;
      b -= c, b -= a, b ^= a << 23;
      c -= a, c -= b, c ^= b >> 5;
      a -= b, a -= c, a ^= c >> 35;
      b -= c, b -= a, b ^= a << 49;
      c -= a, c -= b, c ^= b >> 11;
      a -= b, a -= c, a ^= c >> 12;
      b -= c, b -= a, b ^= a << 18;
      c -= a, c -= b, c ^= b >> 22;
    }
    benchmark::DoNotOptimize(c);
  }
  state.counters["target"] = 1.05;
}
BENCHMARK(BM_LogBlockChecksum_Peer);

// ---- Replay of a contiguous chain, one write a block, against reading and checking its blocks one by one.

struct ReplayLog {
  static constexpr uint64_t kBlocks = 8192;
  ReplayLog() : group(1, kDataOffset + (kStart + 2 * kBlocks) * kLogBlock + sample::kGptSize) {
    LogChain chain(1);
    for (uint64_t i = 0; i < kBlocks; i++) {
      chain.Add(sample::WriteEntry(group.Disk(0).uuid(), i + 1, i * 4096, 4096, {{(kStart + kBlocks + i) * 8, 8}}));
      chain.EndBlock();
    }
    LogImage(group.Ssd(), kStart, 2 * kBlocks).Write(chain);
    paths = group.Write(folder.name);
  }
  Folder folder;
  sample::GroupImage group;
  sample::GroupPaths paths;
};

void BM_PlogReplayContiguous_Kab(benchmark::State& state) {
  const ReplayLog log;
  for (auto _ : state) {
    state.PauseTiming();
    auto* opened = new OpenedGroup(log.paths);
    state.ResumeTiming();
    if (KABSSDLOGRecovPlogLog(opened->ssd) != 0) std::abort();
    state.PauseTiming();
    delete opened;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * ReplayLog::kBlocks));
}
BENCHMARK(BM_PlogReplayContiguous_Kab)->Unit(benchmark::kMicrosecond);

void BM_PlogReplayContiguous_Peer(benchmark::State& state) {
  const ReplayLog log;
  const int fd = open(log.paths.ssd.c_str(), O_RDONLY);
  alignas(64) uint8_t block[kLogBlock];
  for (auto _ : state) {
    for (uint64_t i = 0; i < ReplayLog::kBlocks; i++) {
      if (pread(fd, block, kLogBlock, static_cast<off_t>(LogImage::BlkOffset(kStart + i))) != kLogBlock) std::abort();
      benchmark::DoNotOptimize(kab::ssdlog::BlockChecksum(block));
    }
  }
  close(fd);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * ReplayLog::kBlocks));
  state.counters["target"] = 0.45;
}
BENCHMARK(BM_PlogReplayContiguous_Peer)->Unit(benchmark::kMicrosecond);

// ---- Reads of 1 MiB in which every second 4 KiB lies in the write buffer.

struct FragmentedLog {
  static constexpr uint64_t kPieces = 256;
  FragmentedLog() : group(1, kDataOffset + (kStart + 2048) * kLogBlock + sample::kGptSize) {
    LogChain chain(1);
    for (uint64_t i = 0; i < kPieces / 2; i++) {
      chain.Add(sample::WriteEntry(group.Disk(0).uuid(), i + 1, i * 8192, 4096, {{(kStart + 256 + i * 3) * 8, 8}}));
    }
    LogImage(group.Ssd(), kStart, 2048).Write(chain);
    group.Disk(0).FillNoise(kDataOffset, kPieces * 4096, 1);
    group.Ssd().FillNoise(LogImage::BlkOffset(kStart + 256), 1024 * kLogBlock, 2);
    paths = group.Write(folder.name);
  }
  Folder folder;
  sample::GroupImage group;
  sample::GroupPaths paths;
};

void BM_PlogReadFragmented1M_Kab(benchmark::State& state) {
  const FragmentedLog log;
  OpenedGroup opened(log.paths);
  if (KABSSDLOGRecovPlogLog(opened.ssd) != 0) std::abort();
  std::vector<uint8_t> buf(FragmentedLog::kPieces * 4096);
  for (auto _ : state) {
    if (KABPlogRead(opened.disk, buf.data(), static_cast<uint32_t>(buf.size()), 0) != 0) std::abort();
  }
}
BENCHMARK(BM_PlogReadFragmented1M_Kab)->Unit(benchmark::kMicrosecond);

void BM_PlogReadFragmented1M_Peer(benchmark::State& state) {
  const FragmentedLog log;
  const int ssd = open(log.paths.ssd.c_str(), O_RDONLY);
  const int disk = open(log.paths.disks[0].c_str(), O_RDONLY);
  std::vector<uint8_t> buf(FragmentedLog::kPieces * 4096);
  for (auto _ : state) {
    for (uint64_t i = 0; i < FragmentedLog::kPieces; i++) {
      const uint64_t at = i % 2 == 0 ? LogImage::BlkOffset(kStart + 256 + i / 2 * 3) : kDataOffset + i * 4096;
      if (pread(i % 2 == 0 ? ssd : disk, &buf[i * 4096], 4096, static_cast<off_t>(at)) != 4096) std::abort();
    }
  }
  close(ssd);
  close(disk);
  state.counters["target"] = 1.2;
}
BENCHMARK(BM_PlogReadFragmented1M_Peer)->Unit(benchmark::kMicrosecond);

// ---- A log of 1 GiB, eight entries a block, with the memory that its replay takes.

void PutLittle(std::vector<uint8_t>& block, size_t at, uint64_t value) {
  std::memcpy(&block[at], &value, sizeof value);
}

sample::GroupPaths WriteLargeLog(const std::string& folder, uint64_t blocks) {
  sample::GroupImage group(1, kDataOffset + (kStart + 2 * blocks) * kLogBlock + sample::kGptSize);
  LogChain chain(1);
  chain.Add(sample::BareEntry(group.Disk(0).uuid(), 9));
  LogImage(group.Ssd(), kStart, 2 * blocks).Write(chain);
  const sample::GroupPaths paths = group.Write(folder);
  // Streamed, since the builder keeps what it writes. The first block is the builder's.
  const int fd = open(paths.ssd.c_str(), O_RDWR);
  std::vector<uint8_t> block = group.Ssd().GetBytes(LogImage::BlkOffset(kStart), kLogBlock);
  uint64_t sum = sample::MixBlock(block);
  uint64_t lsn = 1;
  for (uint64_t i = 1; i < blocks; i++) {
    PutLittle(block, 16, kStart + i + 1);
    PutLittle(block, 24, kStart + i - 1);
    PutLittle(block, 32, sum);
    size_t at = 64;
    for (int k = 0; k < 7; k++, lsn++) {
      const uint64_t lba =
          lsn % 3 == 0 ? lsn * 4096 : lsn * 7919 % (1 << 22) * 4096;  // a stream, and rewrites elsewhere
      const auto entry =
          sample::WriteEntry(group.Disk(0).uuid(), lsn, lba, 4096, {{(kStart + blocks) * 8 + lsn % 1000000, 8}});
      std::memcpy(&block[at], entry.data(), entry.size());
      at += entry.size();
    }
    const auto entry = sample::ReleaseEntry(group.Disk(0).uuid(), {lsn > 50000 ? lsn - 50000 : 0});
    std::memcpy(&block[at], entry.data(), entry.size());
    block[12] = 8;
    sum = kab::ssdlog::BlockChecksum(block.data());
    PutLittle(block, 56, sum);
    if (pwrite(fd, block.data(), kLogBlock, static_cast<off_t>(LogImage::BlkOffset(kStart + i))) != kLogBlock)
      std::abort();
  }
  close(fd);
  return paths;
}

// The highest resident size since it was last reset, in MiB; a reset where the system allows it.
double PeakMiB(bool reset) {
  if (reset) {
    if (FILE* file = std::fopen("/proc/self/clear_refs", "w")) {
      std::fputs("5", file);
      std::fclose(file);
    }
  }
  double kib = 0;
  if (FILE* file = std::fopen("/proc/self/status", "r")) {
    char line[256];
    while (std::fgets(line, sizeof line, file) != nullptr) {
      if (std::sscanf(line, "VmHWM: %lf", &kib) == 1) break;
    }
    std::fclose(file);
  }
  return kib / 1024;
}

void BM_PlogReplay1GiB(benchmark::State& state) {
  const Folder folder;
  constexpr uint64_t kBlocks = (uint64_t{1} << 30U) / kLogBlock;
  const sample::GroupPaths paths = WriteLargeLog(folder.name, kBlocks);
  double before = 0;
  double peak = 0;
  for (auto _ : state) {
    OpenedGroup opened(paths);
    before = PeakMiB(true);
    if (KABSSDLOGRecovPlogLog(opened.ssd) != 0) std::abort();
    peak = PeakMiB(false);
    state.counters["lsns"] = opened.disk->plogState->writeEntries;
  }
  state.counters["peak_MiB"] = peak - before;
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBlocks * kLogBlock));
}
BENCHMARK(BM_PlogReplay1GiB)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
