// The Bucketlist beside absl::btree_map: the same 40-byte tuples in the same order, in the same run.

#include <absl/container/btree_map.h>
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <random>
#include <type_traits>
#include <vector>

#include "kab/indexes.h"

namespace {

using Payload = std::array<uint64_t, 4>;
using Peer = absl::btree_map<uint64_t, Payload>;

enum Order { kRising, kMostlyRising, kRandom };

// Mostly rising: of ten keys nine go on, one comes up to 4096 entries late.
std::vector<uint64_t> Keys(Order order, int64_t count) {
  std::mt19937_64 random(1);
  std::vector<uint64_t> keys(static_cast<size_t>(count));
  uint64_t top = uint64_t{1} << 20;
  for (auto& key : keys) {
    switch (order) {
      case kRising:
        key = top += 16;
        break;
      case kMostlyRising:
        key = random() % 10 != 0 ? top += 16 : top - random() % 65536;
        break;
      case kRandom:
        key = random();
        break;
    }
  }
  return keys;
}

size_t HeapBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// What a list maps beside the heap.
size_t MappedBytes(const Bucketlist& list) { return size_t{list.stats.mappedBlocks} << 21; }

struct KabList {
  KabList() { Bucketlist_Init(&list, nullptr, 5); }
  ~KabList() { Bucketlist_Destroy(&list); }
  void Insert(uint64_t key) {
    const uint64_t tuple[5] = {key, key + 1, key + 2, key + 3, key + 4};
    benchmark::DoNotOptimize(Bucketlist_Insert(&list, tuple));
  }
  uint64_t LowerBound(uint64_t key) {
    BucketlistIterator iter;
    return Bucketlist_LowerBound(&list, &iter, key) == 0 ? iter.payload[3] : 0;
  }
  uint64_t Scan() {
    uint64_t sum = 0;
    BucketlistIterator iter;
    for (uint32_t st = Bucketlist_Begin(&list, &iter); st == 0; st = Bucketlist_Successor(&list, &iter)) {
      sum += iter.key + iter.payload[3];
    }
    return sum;
  }
  size_t Mapped() const { return MappedBytes(list); }
  Bucketlist list;
};

struct PeerList {
  static size_t Mapped() { return 0; }
  void Insert(uint64_t key) { map.insert({key, Payload{key + 1, key + 2, key + 3, key + 4}}); }
  uint64_t LowerBound(uint64_t key) {
    const auto at = map.lower_bound(key);
    return at != map.end() ? at->second[3] : 0;
  }
  uint64_t Scan() {
    uint64_t sum = 0;
    for (const auto& [key, payload] : map) sum += key + payload[3];
    return sum;
  }
  Peer map;
};

template <class List>
void Insert(benchmark::State& state, Order order, double target, double bytesTarget = 0) {
  const auto keys = Keys(order, state.range(0));
  size_t bytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    malloc_trim(0);  // each run begins with fresh pages
    const size_t before = HeapBytes();
    auto list = std::make_unique<List>();
    state.ResumeTiming();
    for (const uint64_t key : keys) list->Insert(key);
    state.PauseTiming();
    bytes = HeapBytes() - before + list->Mapped();
    list.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["bytes_per_entry"] = static_cast<double>(bytes) / static_cast<double>(state.range(0));
  state.counters["target"] = target;
  if (bytesTarget != 0 && std::is_same_v<List, KabList>) state.counters["bytes_target"] = bytesTarget;
}

template <class List>
void LowerBound(benchmark::State& state) {
  const auto keys = Keys(kRandom, state.range(0));
  List list;
  for (const uint64_t key : keys) list.Insert(key);
  std::mt19937_64 random(2);
  std::vector<uint64_t> wanted(1 << 20);
  for (auto& key : wanted) key = random();
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(list.LowerBound(wanted[i++ & (wanted.size() - 1)]));
  state.counters["target"] = 0.75;
}

template <class List>
void Scan(benchmark::State& state, Order order, double target) {
  List list;
  for (const uint64_t key : Keys(order, state.range(0))) list.Insert(key);
  for (auto _ : state) benchmark::DoNotOptimize(list.Scan());
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["target"] = target;
}

#define KAB_BENCH_PAIR(name, call, ...)                                                                \
  void BM_##name##_Kab(benchmark::State& state) { call<KabList>(state __VA_OPT__(, ) __VA_ARGS__); }   \
  void BM_##name##_Peer(benchmark::State& state) { call<PeerList>(state __VA_OPT__(, ) __VA_ARGS__); } \
  BENCHMARK(BM_##name##_Kab)->Arg(1000000)->Arg(10000000)->Unit(benchmark::kMillisecond);              \
  BENCHMARK(BM_##name##_Peer)->Arg(1000000)->Arg(10000000)->Unit(benchmark::kMillisecond)

KAB_BENCH_PAIR(BucketlistInsertRising, Insert, kRising, 0.40, 48);
KAB_BENCH_PAIR(BucketlistInsertMostlyRising, Insert, kMostlyRising, 0.30);
KAB_BENCH_PAIR(BucketlistInsertRandom, Insert, kRandom, 0.25, 66);
KAB_BENCH_PAIR(BucketlistScanRising, Scan, kRising, 1.0);
KAB_BENCH_PAIR(BucketlistScanMostlyRising, Scan, kMostlyRising, 0.5);

void BM_BucketlistLowerBound_Kab(benchmark::State& state) { LowerBound<KabList>(state); }
void BM_BucketlistLowerBound_Peer(benchmark::State& state) { LowerBound<PeerList>(state); }
BENCHMARK(BM_BucketlistLowerBound_Kab)->Arg(1000000)->Arg(10000000);
BENCHMARK(BM_BucketlistLowerBound_Peer)->Arg(1000000)->Arg(10000000);

// Ten million ranges as a replay enters them, over a cache of 128 nodes: what stays in memory.
void BM_BucketlistCachedInsert_Kab(benchmark::State& state) {
  size_t bytes = 0;
  for (auto _ : state) {
    std::mt19937_64 random(1);
    const size_t before = HeapBytes();
    BucketlistCache cache;
    Bucketlist list;
    if (Bucketlist_CacheInit(&cache, 128) != 0) std::abort();
    Bucketlist_Init(&list, &cache, 5);
    uint64_t end = 0;
    uint64_t address = 0;
    for (uint64_t lsn = 1; lsn <= static_cast<uint64_t>(state.range(0)); ++lsn) {
      const uint64_t length = (1 + random() % 64) * 4096;
      end += length + random() % 4 * 65536;
      const uint64_t tuple[5] = {end, length, lsn, address += length, 0};
      benchmark::DoNotOptimize(Bucketlist_Insert(&list, tuple));
    }
    bytes = HeapBytes() - before + MappedBytes(list);
    Bucketlist_Destroy(&list);
    Bucketlist_CacheDestroy(&cache);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["bytes_per_entry"] = static_cast<double>(bytes) / static_cast<double>(state.range(0));
  state.counters["bytes_target"] = 20;
}
BENCHMARK(BM_BucketlistCachedInsert_Kab)->Arg(1000000)->Arg(10000000)->Unit(benchmark::kMillisecond);

}  // namespace
