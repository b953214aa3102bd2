// The Bucketlist against a sorted vector, in every order of keys that log replay knows, with and without a cache, and
// under failing allocations.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kab/indexes.h"
#include "zoltcommon/ds/failing_alloc.h"

namespace {

using Tuple = std::array<uint64_t, 5>;
using kab_test::FailAllocationAt;
using kab_test::FailAllocations;

constexpr uint32_t kNoEntry = 2;
constexpr uint32_t kNoMemory = 12;

enum class Order { kRising, kFalling, kMostlyRising, kClustered, kRandom };

struct ModelCase {
  const char* name;
  Order order;
  uint32_t tupleSize;
  uint32_t cacheNodes;  // 0: no cache
  uint32_t failEvery;   // every n-th allocation fails; 0: none
  uint32_t operations;
};

// By name: not every byte of a case is a field.
void PrintTo(const ModelCase& c, std::ostream* out) { *out << c.name; }

constexpr ModelCase kCases[] = {
    {"Rising", Order::kRising, 5, 0, 0, 30000},
    {"Falling", Order::kFalling, 4, 0, 0, 30000},
    {"MostlyRising", Order::kMostlyRising, 5, 0, 0, 60000},
    {"Clustered", Order::kClustered, 2, 0, 0, 60000},
    {"Random", Order::kRandom, 5, 0, 0, 60000},
    {"KeysOnly", Order::kRandom, 1, 0, 0, 20000},
    {"RandomShortOfMemory", Order::kRandom, 5, 0, 2, 40000},
    {"ClusteredShortOfMemory", Order::kClustered, 5, 0, 3, 40000},
    {"CachedRising", Order::kRising, 5, 2, 0, 20000},
    {"CachedMostlyRising", Order::kMostlyRising, 4, 3, 0, 12000},
    {"CachedRandom", Order::kRandom, 5, 4, 0, 12000},
    {"CachedShortOfMemory", Order::kRandom, 5, 2, 2, 12000},
    {"CachedClusteredShortOfMemory", Order::kClustered, 3, 3, 5, 12000},
};

class KeySource {
 public:
  KeySource(Order order, uint64_t seed) : order_(order), random_(seed) {}

  uint64_t Next() {
    switch (order_) {
      case Order::kRising:
        return top_ += 1 + random_() % 1000;
      case Order::kFalling:
        return bottom_ -= 1 + random_() % 1000;
      case Order::kMostlyRising:
        if (random_() % 10 != 0) return top_ += 1 + random_() % 1000;
        return top_ - random_() % std::min<uint64_t>(top_, 400000);
      case Order::kClustered:
        if (random_() % 64 == 0) cluster_ = random_() % 40 << 40;
        return cluster_ + random_() % 20000;
      case Order::kRandom:
        break;
    }
    return random_() % 8 == 0 ? random_() % 3 - 1 : random_();  // the ends of the key space, too
  }

 private:
  Order order_;
  std::mt19937_64 random_;
  uint64_t top_ = 1000;
  uint64_t bottom_ = ~uint64_t{0} - 1000;
  uint64_t cluster_ = 0;
};

// A Bucketlist and a sorted vector that are told the same.
class Pair {
 public:
  explicit Pair(const ModelCase& c) : case_(c) {
    if (c.cacheNodes != 0) {
      EXPECT_EQ(Bucketlist_CacheInit(&cache_, c.cacheNodes), 0U);
    }
    Bucketlist_Init(&list_, c.cacheNodes != 0 ? &cache_ : nullptr, c.tupleSize);
  }
  ~Pair() {
    Bucketlist_Destroy(&list_);
    EXPECT_EQ(list_.stats.numNodes, 0U);
    EXPECT_EQ(list_.stats.cachedNodes, 0U);
    EXPECT_EQ(list_.stats.compressedBuffers, 0U);
    Bucketlist_CacheDestroy(&cache_);
  }

  Tuple Made(uint64_t key) {
    Tuple tuple{key};
    for (uint32_t i = 1; i < case_.tupleSize; ++i) tuple[i] = random_() >> random_() % 64;
    return tuple;
  }

  void Insert(uint64_t key) {
    const auto at = LowerBound(key);
    if (at != model_.end() && (*at)[0] == key) return;
    const Tuple tuple = Made(key);
    const uint32_t st = Bucketlist_Insert(&list_, tuple.data());
    if (st == kNoMemory && case_.failEvery != 0) return;  // as it was: the next comparison tells
    ASSERT_EQ(st, 0U);
    model_.insert(at, tuple);
  }

  // Looks a key up, steps both ways and comes back.
  void Look(uint64_t key) {
    BucketlistIterator iter{};
    if (!Seat(&iter, key)) return;
    const auto at = LowerBound(key);
    for (const int64_t step : {1, -1, -1, 1}) {
      if (iter.node == nullptr || !Tell(&iter, at, step)) return;
      moved_ += step;
    }
    moved_ = 0;
  }

  // Writes payloads, and keys lowered within the gap to their predecessor.
  void Write(uint64_t key) {
    BucketlistIterator iter{};
    if (!Seat(&iter, key) || iter.node == nullptr) return;
    const auto at = LowerBound(key);
    const uint64_t floor = at == model_.begin() ? 0 : (*(at - 1))[0] + 1;
    Tuple tuple = Made((*at)[0]);
    if (random_() % 2 == 0) tuple[0] -= random_() % std::max<uint64_t>((*at)[0] - floor, 1);
    const uint32_t st = Bucketlist_IteratorWrite(&list_, &iter, tuple.data());
    if (st == kNoMemory && case_.failEvery != 0) return;
    ASSERT_EQ(st, 0U);
    *at = tuple;
    ExpectAt(iter, tuple);
  }

  // Deletes a few entries, walking down, or up with a new look-up each.
  void Delete(uint64_t key, bool down, uint64_t count) {
    BucketlistIterator iter{};
    if (!Seat(&iter, key)) return;
    while (count-- > 0 && iter.node != nullptr) {
      const auto at = LowerBound(iter.key);
      const uint32_t st =
          down ? Bucketlist_DeleteTryMaintainIter(&list_, &iter) : Bucketlist_DeleteInvalidateIter(&list_, &iter);
      if (st == kNoMemory && case_.failEvery != 0) {
        if (iter.node != nullptr) ExpectAt(iter, *at);
        return;
      }
      ASSERT_EQ(st, 0U);
      const uint64_t gone = (*at)[0];
      const auto next = model_.erase(at);
      if (!down) {
        ASSERT_EQ(iter.node, nullptr);
        if (!Seat(&iter, gone)) return;
      } else if (next == model_.begin()) {
        ASSERT_EQ(iter.node, nullptr);
      } else {
        ExpectAt(iter, *(next - 1));
      }
    }
  }

  // Both walks over everything, and the list's own check.
  void Compare() {
    FailAllocations(0);
    Bucketlist_Validate(&list_);
    BucketlistIterator iter{};
    uint32_t st = Bucketlist_Begin(&list_, &iter);
    for (const Tuple& tuple : model_) {
      ASSERT_EQ(st, 0U);
      ExpectAt(iter, tuple);
      st = Bucketlist_Successor(&list_, &iter);
    }
    ASSERT_EQ(st, kNoEntry);
    ASSERT_EQ(iter.node, nullptr);
    st = Bucketlist_End(&list_, &iter);
    for (auto at = model_.rbegin(); at != model_.rend(); ++at) {
      ASSERT_EQ(st, 0U);
      ExpectAt(iter, *at);
      st = Bucketlist_Predecessor(&list_, &iter);
    }
    ASSERT_EQ(st, kNoEntry);
    if (case_.cacheNodes != 0) {
      ASSERT_LE(list_.stats.cachedNodes, case_.cacheNodes);
    }
    FailAllocations(case_.failEvery);
  }

  uint64_t KnownKey() { return model_.empty() ? 0 : model_[random_() % model_.size()][0]; }
  size_t Size() const { return model_.size(); }

 private:
  std::vector<Tuple>::iterator LowerBound(uint64_t key) {
    return std::lower_bound(model_.begin(), model_.end(), key,
                            [](const Tuple& tuple, uint64_t bound) { return tuple[0] < bound; });
  }

  // False when memory was short.
  bool Seat(BucketlistIterator* iter, uint64_t key) {
    const uint32_t st = Bucketlist_LowerBound(&list_, iter, key);
    if (st == kNoMemory && case_.failEvery != 0) return false;
    const auto at = LowerBound(key);
    EXPECT_EQ(st, at == model_.end() ? kNoEntry : 0U);
    if (st == 0) {
      ExpectAt(*iter, *at);
    } else {
      EXPECT_EQ(iter->node, nullptr);
    }
    return true;
  }

  bool Tell(BucketlistIterator* iter, std::vector<Tuple>::iterator from, int64_t step) {
    const int64_t place = from - model_.begin() + moved_ + step;
    const BucketlistIterator before = *iter;
    const uint32_t st = step > 0 ? Bucketlist_Successor(&list_, iter) : Bucketlist_Predecessor(&list_, iter);
    if (st == kNoMemory && case_.failEvery != 0) {
      EXPECT_EQ(iter->key, before.key);
      moved_ = 0;
      return false;
    }
    const bool inside = place >= 0 && place < static_cast<int64_t>(model_.size());
    EXPECT_EQ(st, inside ? 0U : kNoEntry);
    if (st != 0) {
      EXPECT_EQ(iter->node, nullptr);
      moved_ = 0;
      return false;
    }
    ExpectAt(*iter, model_[static_cast<size_t>(place)]);
    return true;
  }

  void ExpectAt(const BucketlistIterator& iter, const Tuple& tuple) {
    Tuple read;
    ASSERT_EQ(Bucketlist_IteratorRead(&list_, read.data(), &iter), 0U);
    ASSERT_EQ(read, tuple);
  }

  ModelCase case_;
  BucketlistCache cache_{};
  Bucketlist list_;
  std::vector<Tuple> model_;
  std::mt19937_64 random_{99};
  int64_t moved_ = 0;
};

class BucketlistModel : public testing::TestWithParam<ModelCase> {};

TEST_P(BucketlistModel, AgreesWithASortedVector) {
  const ModelCase& c = GetParam();
  Pair pair(c);
  KeySource keys(c.order, 17);
  std::mt19937_64 random(23);
  FailAllocations(c.failEvery);
  for (uint32_t i = 0; i < c.operations && !testing::Test::HasFatalFailure() && !testing::Test::HasFailure(); ++i) {
    // Two phases of growth with a phase of decline between them.
    const bool declining = i > c.operations / 2 && i < c.operations * 3 / 4;
    const uint64_t dice = random() % 100;
    if (dice < (declining ? 10U : 72U)) {
      pair.Insert(keys.Next());
    } else if (dice < 82) {
      pair.Look(random() % 2 == 0 ? pair.KnownKey() : pair.KnownKey() + 1);
    } else if (dice < 92) {
      pair.Write(pair.KnownKey());
    } else {
      pair.Delete(pair.KnownKey(), random() % 2 == 0, declining ? 40 : 1 + random() % 3);
    }
    if (i % (c.operations / 12) == 0) pair.Compare();
  }
  pair.Compare();
  while (pair.Size() > 0 && !testing::Test::HasFailure()) {
    FailAllocations(0);
    pair.Delete(pair.KnownKey(), true, 1000000);
  }
  pair.Compare();
  FailAllocations(0);
}

INSTANTIATE_TEST_SUITE_P(Orders, BucketlistModel, testing::ValuesIn(kCases),
                         [](const auto& c) { return c.param.name; });

void Fill(Bucketlist* list, uint64_t from, uint64_t count) {
  for (uint64_t key = from; key < from + count; ++key) {
    const Tuple tuple{key, key + 1, key + 2, key + 3, key + 4};
    ASSERT_EQ(Bucketlist_Insert(list, tuple.data()), 0U);
  }
}

TEST(Bucketlist, RisingKeysFillTheirNodes) {
  Bucketlist list;
  Bucketlist_Init(&list, nullptr, 5);
  Fill(&list, 1, 1024);
  EXPECT_EQ(list.stats.numNodes, 1U);
  Fill(&list, 1025, 1);
  EXPECT_EQ(list.stats.numNodes, 2U);
  Bucketlist_Validate(&list);
  EXPECT_EQ(list.levelHeads[0]->back, reinterpret_cast<BucketlistNode*>(&list));
  EXPECT_EQ(list.levelHeads[0]->forward[0]->back, list.levelHeads[0]);
  EXPECT_EQ(BucketlistGetMin(list.levelHeads[0]->forward[0]), 1025U);
  Bucketlist_Destroy(&list);
}

TEST(Bucketlist, AFullNodeFindsRoomWithinSevenPredecessors) {
  for (const uint32_t distance : {1U, 7U, 8U}) {
    Bucketlist list;
    Bucketlist_Init(&list, nullptr, 5);
    for (uint64_t key = 0; key < 1024 * 9; ++key) Fill(&list, key * 2, 1);
    ASSERT_EQ(list.stats.numNodes, 9U);
    BucketlistIterator iter;
    ASSERT_EQ(Bucketlist_LowerBound(&list, &iter, (8 - distance) * 2048 + 10), 0U);
    ASSERT_EQ(Bucketlist_DeleteInvalidateIter(&list, &iter), 0U);
    Fill(&list, 8 * 2048 + 7, 1);
    EXPECT_EQ(list.stats.numNodes, distance <= 7 ? 9U : 10U) << distance;
    Bucketlist_Validate(&list);
    Bucketlist_Destroy(&list);
  }
}

TEST(Bucketlist, MovesEntriesBackAgainAndAgain) {
  Bucketlist list;
  Bucketlist_Init(&list, nullptr, 5);
  for (uint64_t key = 0; key < 1024 * 4; ++key) Fill(&list, key * 64, 1);
  for (uint64_t i = 0; i < 60; ++i) {
    BucketlistIterator iter;
    ASSERT_EQ(Bucketlist_LowerBound(&list, &iter, i * 64), 0U);
    ASSERT_EQ(Bucketlist_DeleteInvalidateIter(&list, &iter), 0U);
    Fill(&list, 64 * 4000 + 1 + i, 1);
    ASSERT_EQ(list.stats.numNodes, 4U) << i;
  }
  Bucketlist_Validate(&list);
  Bucketlist_Destroy(&list);
}

TEST(Bucketlist, IteratorsOutliveInsertions) {
  // A node of even keys splits under the iterators; then odd keys make either half wide again, and unsorted.
  for (const uint64_t parked : {300U, 512U, 513U, 550U, 600U, 638U, 1000U}) {
    for (const uint64_t from : {1U, 1801U}) {
      Bucketlist list;
      Bucketlist_Init(&list, nullptr, 5);
      for (uint64_t key = 0; key < 1024; ++key) Fill(&list, key * 2, 1);
      BucketlistIterator iter;
      ASSERT_EQ(Bucketlist_LowerBound(&list, &iter, parked * 2), 0U);
      for (uint64_t odd = from; odd < from + 200; odd += 2) {
        Fill(&list, odd, 1);
        const auto isThere = [&](uint64_t key) { return key % 2 == 0 || (key >= from && key <= odd); };
        BucketlistIterator down = iter;
        ASSERT_EQ(Bucketlist_Predecessor(&list, &down), 0U);
        ASSERT_EQ(down.key, isThere(iter.key - 1) ? iter.key - 1 : iter.key - 2) << parked << " with " << odd;
        BucketlistIterator up = iter;
        ASSERT_EQ(Bucketlist_Successor(&list, &up), 0U);
        ASSERT_EQ(up.key, isThere(iter.key + 1) ? iter.key + 1 : iter.key + 2) << parked << " with " << odd;
      }
      Bucketlist_Destroy(&list);
    }
  }
}

TEST(Bucketlist, ManyTwinsOfAMinKeyKeepTheOrder) {
  Bucketlist list;
  Bucketlist_Init(&list, nullptr, 5);
  for (uint64_t i = 0; i < 1025; ++i) Fill(&list, i < 600 ? 5 : 6, 1);  // the last one splits the node
  Bucketlist_Validate(&list);
  BucketlistIterator iter;
  uint64_t last = 0;
  uint32_t count = 0;
  for (uint32_t st = Bucketlist_Begin(&list, &iter); st == 0; st = Bucketlist_Successor(&list, &iter), ++count) {
    ASSERT_LE(last, iter.key);
    last = iter.key;
  }
  EXPECT_EQ(count, 1025U);
  ASSERT_EQ(Bucketlist_LowerBound(&list, &iter, 6), 0U);
  EXPECT_EQ(iter.key, 6U);
  Bucketlist_Destroy(&list);
}

TEST(Bucketlist, EqualKeysStayTogether) {
  Bucketlist list;
  Bucketlist_Init(&list, nullptr, 2);
  for (const uint64_t key : {5U, 3U, 5U, 9U, 5U, 1U}) {
    const Tuple tuple{key, 100};
    ASSERT_EQ(Bucketlist_Insert(&list, tuple.data()), 0U);
  }
  Bucketlist_Validate(&list);
  BucketlistIterator iter;
  ASSERT_EQ(Bucketlist_LowerBound(&list, &iter, 5), 0U);
  const Tuple lowered{4, 7};
  ASSERT_EQ(Bucketlist_IteratorWrite(&list, &iter, lowered.data()), 0U);
  std::vector<std::pair<uint64_t, uint64_t>> found;
  for (uint32_t st = Bucketlist_Begin(&list, &iter); st == 0; st = Bucketlist_Successor(&list, &iter)) {
    found.emplace_back(iter.key, iter.payload[0]);
  }
  EXPECT_EQ(found, (std::vector<std::pair<uint64_t, uint64_t>>{{1, 100}, {3, 100}, {4, 7}, {4, 7}, {4, 7}, {9, 100}}));
  Bucketlist_Destroy(&list);
}

TEST(Bucketlist, LongListsCutKeyAreasOutOfMappedBlocks) {
  constexpr uint64_t kSingle = 51 * 1024;  // entries of the nodes whose key areas are allocated one by one
  Bucketlist list;
  Bucketlist_Init(&list, nullptr, 5);
  Fill(&list, 0, kSingle + 1);
  EXPECT_EQ(list.stats.mappedBlocks, 0U);
  const Tuple next{kSingle + 1};
  FailAllocationAt(1);  // the block of the last node's key area
  EXPECT_EQ(Bucketlist_Insert(&list, next.data()), kNoMemory);
  EXPECT_EQ(list.stats.mappedBlocks, 0U);
  FailAllocations(0);
  Fill(&list, kSingle + 1, kSingle - 1);
  EXPECT_EQ(list.stats.mappedBlocks, 1U);
  // Key areas of nodes that went are used again.
  BucketlistIterator iter;
  ASSERT_EQ(Bucketlist_End(&list, &iter), 0U);
  while (iter.key > 100) ASSERT_EQ(Bucketlist_DeleteTryMaintainIter(&list, &iter), 0U);
  EXPECT_EQ(list.stats.numNodes, 1U);
  Fill(&list, 101, 2 * kSingle - 101);
  EXPECT_EQ(list.stats.mappedBlocks, 1U);
  Bucketlist_Validate(&list);
  uint64_t key = 0;
  for (uint32_t st = Bucketlist_Begin(&list, &iter); st == 0; st = Bucketlist_Successor(&list, &iter), ++key) {
    ASSERT_EQ(iter.key, key);
    ASSERT_EQ(iter.payload[3], key + 4);
  }
  EXPECT_EQ(key, 2 * kSingle);
  Bucketlist_Destroy(&list);
  EXPECT_EQ(list.stats.mappedBlocks, 0U);
}

TEST(Bucketlist, ListsShareACache) {
  BucketlistCache cache;
  EXPECT_EQ(Bucketlist_CacheInit(&cache, 1), kNoMemory);
  std::vector<BucketlistKeyArea> slab(6);
  ASSERT_EQ(Bucketlist_CacheInitWithSlab(&cache, 6, slab.data()), 0U);
  Bucketlist lists[2];
  Bucketlist plain;
  Bucketlist_Init(&lists[0], &cache, 5);
  Bucketlist_Init(&lists[1], &cache, 2);
  Bucketlist_Init(&plain, nullptr, 5);
  for (uint64_t i = 0; i < 20; ++i) {
    Fill(&lists[0], i * 3000, 1000);
    Fill(&lists[1], i * 500, 500);
    Fill(&plain, i * 3000, 1000);
  }
  EXPECT_EQ(lists[0].stats.cachedNodes + lists[1].stats.cachedNodes, 6U);
  EXPECT_EQ(cache.used, 6U);
  BucketlistIterator iter;
  BucketlistIterator expected;
  uint32_t st = Bucketlist_Begin(&lists[0], &iter);
  ASSERT_EQ(Bucketlist_Begin(&plain, &expected), 0U);
  do {
    ASSERT_EQ(st, 0U);
    ASSERT_EQ(iter.key, expected.key);
    ASSERT_TRUE(std::equal(iter.payload, iter.payload + 4, expected.payload));
    st = Bucketlist_Successor(&lists[0], &iter);
  } while (Bucketlist_Successor(&plain, &expected) == 0);
  EXPECT_EQ(st, kNoEntry);
  // A narrow list's words beyond its tuple size are zero, whoever had the slot before.
  for (st = Bucketlist_Begin(&lists[1], &iter); st == 0; st = Bucketlist_Successor(&lists[1], &iter)) {
    ASSERT_EQ(iter.payload[0], iter.key + 1);
    ASSERT_EQ(iter.payload[1] | iter.payload[2] | iter.payload[3], 0U);
  }
  for (auto& list : lists) {
    Bucketlist_Validate(&list);
    Bucketlist_Destroy(&list);
  }
  EXPECT_EQ(cache.used, 0U);
  Bucketlist_Destroy(&plain);
  Bucketlist_CacheDestroy(&cache);
}

TEST(Bucketlist, TheCacheEvictsWhatWasUsedLongestAgo) {
  BucketlistCache cache;
  ASSERT_EQ(Bucketlist_CacheInit(&cache, 3), 0U);
  Bucketlist list;
  Bucketlist_Init(&list, &cache, 5);
  Fill(&list, 0, 3 * 1024);
  BucketlistNode* first = list.levelHeads[0];
  BucketlistNode* second = first->forward[0];
  BucketlistIterator iter;
  ASSERT_EQ(Bucketlist_LowerBound(&list, &iter, 1500), 0U);
  ASSERT_EQ(Bucketlist_LowerBound(&list, &iter, 7), 0U);
  ASSERT_EQ(BucketlistGetNode(&list, second), 0U);  // in use, and used longest ago but for the third
  ASSERT_EQ(Bucketlist_LowerBound(&list, &iter, 2500), 0U);
  ASSERT_EQ(Bucketlist_LowerBound(&list, &iter, 8), 0U);
  ASSERT_EQ(Bucketlist_LowerBound(&list, &iter, 2501), 0U);
  Fill(&list, 3 * 1024, 2);
  EXPECT_EQ(Bucketlist_NodeCBufCount(first), 1U);
  EXPECT_EQ(first->cacheIndex, -1);
  EXPECT_GE(second->cacheIndex, 0);
  EXPECT_EQ(first->firstTuple[1], 1U);
  BucketlistPutNode(&list, second);
  Bucketlist_Validate(&list);
  Bucketlist_Destroy(&list);
  Bucketlist_CacheDestroy(&cache);
}

TEST(BucketlistDeathTest, BrokenInvariantsEndTheProcess) {
  BucketlistCache cache;
  ASSERT_EQ(Bucketlist_CacheInit(&cache, 4), 0U);
  Bucketlist list;
  Bucketlist_Init(&list, &cache, 5);
  Fill(&list, 10, 1100);
  const auto broken = [&list](auto spoil) {
    spoil(&list, list.levelHeads[0]);
    Bucketlist_Validate(&list);
  };
  const struct {
    void (*spoil)(Bucketlist*, BucketlistNode*);
    const char* text;
  } kFaults[] = {
      {[](Bucketlist* l, BucketlistNode*) { l->height = 25; }, "list->height <= 24"},
      {[](Bucketlist* l, BucketlistNode*) { l->height = -1; }, "list->height >= 0"},
      {[](Bucketlist* l, BucketlistNode*) { l->tupleSize = 6; }, "list->tupleSize <= 5"},
      {[](Bucketlist* l, BucketlistNode* n) { l->cache->ownerList[n->cacheIndex] = nullptr; },
       "list->cache->ownerList\\[nodeHead->cacheIndex\\] == list"},
      {[](Bucketlist* l, BucketlistNode* n) { l->cache->owners[n->cacheIndex] = n->forward[0]; },
       "list->cache->owners\\[nodeHead->cacheIndex\\] == \\(BucketlistNode \\*\\)nodeHead"},
      {[](Bucketlist*, BucketlistNode* n) { n->sortedCount = 0x401; },
       "BucketlistNodeWidth\\(\\(BucketlistNode\\*\\)\\(node\\)\\) <= 0x400"},
      {[](Bucketlist*, BucketlistNode* n) { n->slack = n->tailCount = 0x401; }, "node->slack <= 0x400"},
      {[](Bucketlist*, BucketlistNode* n) { --n->minKey; }, "BucketlistGetMin\\(node\\) == BucketlistKeyOffset"},
      {[](Bucketlist*, BucketlistNode* n) { n->minKey = n->keyArea->keys[n->sortedStart] = 5000; },
       "BucketlistKeyOffset\\(&prev\\) <= BucketlistKeyOffset\\(&curr\\)"},
      {[](Bucketlist*, BucketlistNode* n) { ++n->refCount; }, "node->refCount == 0"},
      {[](Bucketlist* l, BucketlistNode*) { ++l->stats.numNodes; }, "nodeCount == \\(list->stats.numNodes\\)"},
  };
  for (const auto& fault : kFaults) {
    EXPECT_DEATH(broken(fault.spoil),
                 std::string("Failed at zoltcommon/ds/bucketlist:[0-9]+ -- PLINTH_ASSERT\\(") + fault.text);
  }
  Bucketlist_Destroy(&list);
  Bucketlist_CacheDestroy(&cache);
}

}  // namespace
