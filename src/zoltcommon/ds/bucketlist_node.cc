#include "zoltcommon/ds/bucketlist_node.h"

#include <cstring>

#include "zoltcommon/ds/key_search.h"

namespace kab::ds {
namespace {

constexpr uint32_t kBlockPays = 8;  // entries of the run for each one merged in
constexpr uint32_t kPayloadWords = BUCKETLIST_TUPLE_WORDS - 1;

struct Payload {
  uint64_t words[kPayloadWords];
};

// Moves within one key area, which may overlap.
void MoveSlots(BucketlistKeyArea* area, uint32_t to, uint32_t from, uint32_t count) {
  std::memmove(area->keys + to, area->keys + from, count * sizeof area->keys[0]);
  std::memmove(area->payloads + to, area->payloads + from, count * sizeof area->payloads[0]);
}

void CopySlots(BucketlistKeyArea* to, uint32_t toSlot, const BucketlistKeyArea* from, uint32_t fromSlot,
               uint32_t count) {
  std::memcpy(to->keys + toSlot, from->keys + fromSlot, count * sizeof to->keys[0]);
  std::memcpy(to->payloads + toSlot, from->payloads + fromSlot, count * sizeof to->payloads[0]);
}

// The unsorted entries of a node, lifted out in order.
struct Lifted {
  uint32_t count;
  uint64_t keys[kNodeEntries];
  Payload payloads[kNodeEntries];

  void Lift(BucketlistNode* node) {
    const BucketlistKeyArea* area = node->keyArea;
    count = Unsorted(*node);
    uint64_t arrived[kNodeEntries];
    std::memcpy(arrived, area->keys, node->bufferCount * sizeof arrived[0]);
    bool ascending = true;
    for (uint32_t j = 0; j < node->tailCount; ++j) arrived[node->bufferCount + j] = area->keys[kNodeEntries - 1 - j];
    for (uint32_t i = 1; i < count; ++i) ascending &= arrived[i - 1] <= arrived[i];
    uint16_t order[kNodeEntries];
    if (ascending) {
      for (uint32_t i = 0; i < count; ++i) order[i] = static_cast<uint16_t>(i);
    } else {
      kKeySearch.sort(arrived, count, order);
    }
    for (uint32_t i = 0; i < count; ++i) {
      const uint32_t at = order[i];
      const uint32_t slot = at < node->bufferCount ? at : kNodeEntries - 1 - (at - node->bufferCount);
      keys[i] = arrived[at];
      std::memcpy(&payloads[i], area->payloads[slot], sizeof payloads[i]);
    }
    node->bufferCount = 0;
    node->tailCount = 0;
    node->slack = 0;
  }

  void Put(BucketlistKeyArea* area, uint32_t slot) const {
    std::memcpy(area->keys + slot, keys, count * sizeof keys[0]);
    std::memcpy(area->payloads + slot, payloads, count * sizeof payloads[0]);
  }
};

uint32_t RunEnd(const BucketlistNode& node) { return node.sortedStart + node.sortedCount; }

void MoveRun(BucketlistNode* node, uint32_t to) {
  if (to == node->sortedStart) return;
  MoveSlots(node->keyArea, to, node->sortedStart, node->sortedCount);
  node->sortedStart = to;
}

// Merges from the largest down; the run grows at its end. Of equal keys, those of the run come first.
void MergeIn(BucketlistNode* node, const Lifted& lifted) {
  BucketlistKeyArea* area = node->keyArea;
  const uint64_t* keys = area->keys;
  uint32_t run = RunEnd(*node);
  uint32_t to = run + lifted.count;
  const uint32_t start = node->sortedStart;
  // Few arrivals: what lies between two of them moves at once.
  const bool inBlocks = uint64_t{lifted.count} * kBlockPays < node->sortedCount;
  for (uint32_t left = lifted.count; left > 0; --left) {
    const uint64_t key = lifted.keys[left - 1];
    if (inBlocks && key != ~uint64_t{0}) {
      const uint32_t above = run - start - kKeySearch.lowerBound(keys + start, run - start, key + 1);
      run -= above;
      to -= above;
      MoveSlots(area, to, run, above);
    }
    while (run > start && keys[run - 1] > key) {
      --run;
      --to;
      area->keys[to] = area->keys[run];
      std::memcpy(area->payloads[to], area->payloads[run], sizeof(Payload));
    }
    --to;
    area->keys[to] = key;
    std::memcpy(area->payloads[to], &lifted.payloads[left - 1], sizeof(Payload));
  }
}

}  // namespace

bool FindAtLeast(const BucketlistNode& node, uint64_t key, Place* place) {
  const uint64_t* keys = node.keyArea->keys;
  const uint32_t inRun = kKeySearch.lowerBound(keys + node.sortedStart, node.sortedCount, key);
  bool found = inRun < node.sortedCount;
  place->slot = node.sortedStart + inRun;
  place->rank = inRun;
  const auto look = [&](uint32_t from, uint32_t count) {
    if (count == 0) return;
    const Scan scan = kKeySearch.atLeast(keys + from, count, key);
    place->rank += scan.counted;
    if (scan.slot == count || (found && keys[place->slot] <= keys[from + scan.slot])) return;
    place->slot = from + scan.slot;
    found = true;
  };
  look(0, node.bufferCount);
  look(kNodeEntries - node.tailCount, node.tailCount);
  return found;
}

bool FindAtMost(const BucketlistNode& node, uint64_t key, Place* place) {
  const uint64_t* keys = node.keyArea->keys;
  uint32_t notAbove = node.sortedCount;
  if (key != ~uint64_t{0}) notAbove = kKeySearch.lowerBound(keys + node.sortedStart, node.sortedCount, key + 1);
  bool found = notAbove > 0;
  place->slot = node.sortedStart + notAbove - 1;
  const auto look = [&](uint32_t from, uint32_t count) {
    if (count == 0) return;
    const Scan scan = kKeySearch.atMost(keys + from, count, key);
    notAbove += scan.counted;
    if (scan.slot == count || (found && keys[place->slot] >= keys[from + scan.slot])) return;
    place->slot = from + scan.slot;
    found = true;
  };
  look(0, node.bufferCount);
  look(kNodeEntries - node.tailCount, node.tailCount);
  place->rank = notAbove - 1;
  return found;
}

void SortNode(BucketlistNode* node) {
  if (Unsorted(*node) == 0) return;
  Lifted lifted;
  lifted.Lift(node);
  BucketlistKeyArea* area = node->keyArea;
  const uint32_t start = node->sortedStart;
  if (node->sortedCount == 0) {
    node->sortedStart = 0;
    lifted.Put(area, 0);
  } else if (lifted.keys[lifted.count - 1] < area->keys[start]) {
    // All of them go before the run. Keys fall: the run keeps to the end, with room before it.
    if (start < lifted.count) MoveRun(node, kNodeEntries - node->sortedCount);
    node->sortedStart -= lifted.count;
    lifted.Put(area, node->sortedStart);
  } else {
    if (RunEnd(*node) + lifted.count > kNodeEntries) MoveRun(node, 0);
    if (lifted.keys[0] >= area->keys[RunEnd(*node) - 1]) {
      lifted.Put(area, RunEnd(*node));
    } else {
      MergeIn(node, lifted);
    }
  }
  node->sortedCount += lifted.count;
}

void WriteSlot(BucketlistNode* node, uint32_t slot, const uint64_t* tuple, uint32_t words) {
  Payload payload{};
  std::memcpy(&payload, tuple + 1, (words - 1) * sizeof tuple[0]);
  node->keyArea->keys[slot] = tuple[0];
  std::memcpy(node->keyArea->payloads[slot], &payload, sizeof payload);
}

void AddTuple(BucketlistNode* node, const uint64_t* tuple, uint32_t words) {
  const uint64_t* keys = node->keyArea->keys;
  const uint64_t key = tuple[0];
  if (node->sortedCount == 0 && Unsorted(*node) == 0) node->sortedStart = 0;
  const uint32_t end = RunEnd(*node);
  const bool roomBehind = end < kNodeEntries - node->tailCount;
  const bool roomBefore = node->sortedStart > node->bufferCount;
  if (roomBehind && (node->sortedCount == 0 || key >= keys[end - 1])) {
    ++node->sortedCount;
    return WriteSlot(node, end, tuple, words);
  }
  if (roomBefore && key < keys[node->sortedStart]) {
    --node->sortedStart;
    ++node->sortedCount;
    return WriteSlot(node, node->sortedStart, tuple, words);
  }
  if (roomBefore) {
    WriteSlot(node, node->bufferCount++, tuple, words);
  } else {
    WriteSlot(node, kNodeEntries - ++node->tailCount, tuple, words);
  }
  if (Unsorted(*node) > kMaxUnsorted) SortNode(node);
}

void RemoveSlot(BucketlistNode* node, uint32_t slot) {
  BucketlistKeyArea* area = node->keyArea;
  if (slot < node->bufferCount) {
    MoveSlots(area, slot, --node->bufferCount, 1);
  } else if (slot >= kNodeEntries - node->tailCount) {
    MoveSlots(area, slot, kNodeEntries - node->tailCount, 1);
    --node->tailCount;
  } else {
    const uint32_t before = slot - node->sortedStart;
    const uint32_t behind = node->sortedCount - before - 1;
    if (before < behind) {
      MoveSlots(area, node->sortedStart + 1, node->sortedStart, before);
      ++node->sortedStart;
    } else {
      MoveSlots(area, slot, slot + 1, behind);
    }
    if (--node->sortedCount == 0) SortNode(node);
  }
}

void MoveRunToFront(BucketlistNode* node) {
  SortNode(node);
  MoveRun(node, 0);
}

void MoveSmallest(BucketlistNode* from, BucketlistNode* to, uint32_t count) {
  SortNode(from);
  if (RunEnd(*to) + count > kNodeEntries - to->tailCount) MoveRunToFront(to);
  CopySlots(to->keyArea, RunEnd(*to), from->keyArea, from->sortedStart, count);
  to->sortedCount += count;
  from->sortedStart += count;
  from->sortedCount -= count;
}

void MoveUpper(BucketlistNode* from, BucketlistNode* to, uint32_t keep) {
  SortNode(from);
  to->sortedStart = 0;
  to->sortedCount = from->sortedCount - keep;
  CopySlots(to->keyArea, 0, from->keyArea, from->sortedStart + keep, to->sortedCount);
  from->sortedCount = keep;
}

void RefreshFirst(BucketlistNode* node) {
  Place place;
  if (!FindAtLeast(*node, 0, &place)) return;
  node->minKey = node->keyArea->keys[place.slot];
  node->firstTuple[0] = node->minKey;
  std::memcpy(node->firstTuple + 1, node->keyArea->payloads[place.slot], sizeof(Payload));
}

}  // namespace kab::ds
