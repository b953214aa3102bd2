// The range map beside a std::map that splits ranges by hand, and beside Boost.ICL: the same overwrites in the same
// run.

#include <benchmark/benchmark.h>

#include <boost/icl/interval_map.hpp>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "kab/indexes.h"

namespace {

struct Write {
  uint64_t start, end;
};

// One million writes of 4 to 256 KiB at random places.
std::vector<Write> Writes(int64_t space) {
  std::mt19937_64 random(1);
  std::vector<Write> writes(1000000);
  for (auto& write : writes) {
    write.start = random() % (static_cast<uint64_t>(space) / 4096) * 4096;
    write.end = write.start + (1 + random() % 64) * 4096;
  }
  return writes;
}

class StdRanges {
 public:
  void Put(uint64_t start, uint64_t end, uint64_t owner, uint64_t address) {
    auto at = ranges_.upper_bound(start);  // the first that ends above the start
    if (at != ranges_.end() && at->first - at->second.length < start) {
      const uint64_t rangeStart = at->first - at->second.length;
      Value head = at->second;
      head.length = start - rangeStart;
      ranges_.emplace_hint(at, start, head);
    }
    while (at != ranges_.end() && at->first <= end) at = ranges_.erase(at);
    if (at != ranges_.end()) {
      const uint64_t rangeStart = at->first - at->second.length;
      if (rangeStart < end) {
        at->second.address += end - rangeStart;
        at->second.length = at->first - end;
      }
    }
    ranges_.emplace_hint(at, end, Value{end - start, owner, address, 0});
  }
  size_t Size() const { return ranges_.size(); }

 private:
  struct Value {
    uint64_t length, owner, address, data;
  };
  std::map<uint64_t, Value> ranges_;  // by end
};

void BM_RangeMapOverwrite_Kab(benchmark::State& state) {
  const auto writes = Writes(state.range(0));
  for (auto _ : state) {
    ZOLTLbaTable table;
    if (ZOLTLbaTable_Init(&table, nullptr, 5) != 0) std::abort();
    uint64_t lsn = 0;
    for (const Write& write : writes) {
      ++lsn;
      Rangemap_Insert(table.list, write.start, write.end, lsn, lsn << 20, 0, nullptr, 0);
    }
    state.PauseTiming();
    uint64_t count = 0;
    ZOLTLbaTableCursor cursor;
    for (auto* r = ZOLTLbaTable_First(&table, &cursor); r != nullptr; r = ZOLTLbaTable_Next(&table, &cursor)) ++count;
    state.counters["ranges"] = static_cast<double>(count);
    ZOLTLbaTable_Destroy(&table);
    state.ResumeTiming();
  }
  state.counters["target"] = state.range(0) > int64_t{1} << 35 ? 0.5 : 0.8;
}
BENCHMARK(BM_RangeMapOverwrite_Kab)->Arg(int64_t{1} << 40)->Arg(1 << 30)->Unit(benchmark::kMillisecond);

void BM_RangeMapOverwrite_Peer(benchmark::State& state) {
  const auto writes = Writes(state.range(0));
  for (auto _ : state) {
    auto ranges = std::make_unique<StdRanges>();
    uint64_t lsn = 0;
    for (const Write& write : writes) {
      ++lsn;
      ranges->Put(write.start, write.end, lsn, lsn << 20);
    }
    state.PauseTiming();
    state.counters["ranges"] = static_cast<double>(ranges->Size());
    ranges.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_RangeMapOverwrite_Peer)->Arg(int64_t{1} << 40)->Arg(1 << 30)->Unit(benchmark::kMillisecond);

// Boost.ICL holds one value a range and does not follow addresses: less work than the others, shown for comparison.
void BM_RangeMapOverwriteIcl(benchmark::State& state) {
  const auto writes = Writes(state.range(0));
  for (auto _ : state) {
    boost::icl::interval_map<uint64_t, uint64_t> ranges;
    uint64_t lsn = 0;
    for (const Write& write : writes) {
      ranges.set({boost::icl::interval<uint64_t>::right_open(write.start, write.end), ++lsn});
    }
    benchmark::DoNotOptimize(ranges);
  }
}
BENCHMARK(BM_RangeMapOverwriteIcl)->Arg(int64_t{1} << 40)->Arg(1 << 30)->Unit(benchmark::kMillisecond);

}  // namespace
