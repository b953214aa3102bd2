// The Bucketlist: a skip list of nodes of up to 1024 tuples. Nodes are found by their min keys, tuples in a node by
// bucketlist_node; where a node's key area is kept, is bucketlist_cache's affair.

#include "kab/indexes.h"

#include <cstdlib>
#include <cstring>

#include "kab/core.h"
#include "plinth/panic.h"
#include "zoltcommon/ds/bucketlist_directory.h"
#include "zoltcommon/ds/bucketlist_node.h"
#include "zoltcommon/ds/key_areas.h"

#define PLINTH_ASSERT_TEXT(condition, text)                                                                   \
  do {                                                                                                        \
    if (!(condition)) {                                                                                       \
      kab::plinth::Panic("Failed at %s:%d -- PLINTH_ASSERT(%s)", "zoltcommon/ds/bucketlist", __LINE__, text); \
    }                                                                                                         \
  } while (false)

namespace kab::ds {
namespace {

constexpr uint32_t kNoEntry = 2;
constexpr uint32_t kLookBack = 7;
constexpr uint32_t kLevels = BUCKETLIST_LEVELS;
// Insertions that pay for one step of moving entries back, and the steps that may be saved up for; a new list has them
// all. Without a bound, keys that come in no order pass every gap on and insertions take three times as long.
constexpr uint32_t kStepPrice = 1024;
constexpr uint32_t kMaxCredit = 256 * kStepPrice;
// A node below the first width joins a neighbour when both together stay within the second.
constexpr uint32_t kSparse = 128;
constexpr uint32_t kJoined = 512;
// Steps in unsorted nodes that are searched for: a few between insertions are cheaper than sorting, a walk is not.
constexpr uint32_t kMaxUnsortedSteps = 12;

// A scan asks for payloads so many entries ahead: 1 KiB.
constexpr uint32_t kPayloadsAhead = 32;

// A reference on a node.
class Held {
 public:
  Held(Bucketlist* list, BucketlistNode* node) : list_(list), node_(node), status_(BucketlistGetNode(list, node)) {}
  ~Held() {
    if (status_ == KAB_OK) BucketlistPutNode(list_, node_);
  }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  uint32_t Status() const { return status_; }

 private:
  Bucketlist* list_;
  BucketlistNode* node_;
  uint32_t status_;
};

// What the first node's back link holds.
BucketlistNode* HeadOf(Bucketlist* list) { return reinterpret_cast<BucketlistNode*>(list); }

// The last node whose min key is at most `key`, or the first node; null in an empty list.
BucketlistNode* Candidate(Bucketlist* list, uint64_t key) {
  BucketlistNode* found = nullptr;
  if (DirectoryFind(*list, key, &found)) return found;
  BucketlistNode** links = list->levelHeads;
  for (int32_t level = list->height - 1; level >= 0; --level) {
    while (links[level] != nullptr && links[level]->minKey <= key) {
      found = links[level];
      links = found->forward;
    }
  }
  return found != nullptr ? found : list->levelHeads[0];
}

BucketlistNode* LastNode(Bucketlist* list) {
  BucketlistNode* found = nullptr;
  if (DirectoryLast(*list, &found)) return found;
  return Candidate(list, ~uint64_t{0});
}

// The links of the nodes (or the head) after which a node with this min key stands, level by level.
void Predecessors(Bucketlist* list, uint64_t key, BucketlistNode*** links, BucketlistNode** back) {
  BucketlistNode** at = list->levelHeads;
  BucketlistNode* node = HeadOf(list);
  for (int32_t level = list->height - 1; level >= 0; --level) {
    while (at[level] != nullptr && at[level]->minKey < key) {
      node = at[level];
      at = node->forward;
    }
    links[level] = at;
  }
  *back = node;
}

uint32_t DrawLevel() {
  const auto bits = static_cast<uint32_t>(std::rand());
  uint32_t level = 1;
  while (level < kLevels && (bits >> (level - 1) & 1) != 0) ++level;
  return level;
}

void LinkNode(Bucketlist* list, BucketlistNode* node) {
  BucketlistNode** links[kLevels];
  BucketlistNode* back = nullptr;
  Predecessors(list, node->minKey, links, &back);
  node->level = DrawLevel();
  for (; list->height < static_cast<int32_t>(node->level); ++list->height) links[list->height] = list->levelHeads;
  for (uint32_t level = 0; level < node->level; ++level) {
    node->forward[level] = links[level][level];
    links[level][level] = node;
  }
  node->back = back;
  if (node->forward[0] != nullptr) node->forward[0]->back = node;
  DirectoryAdd(list, node);
}

// Takes a referenced node out of the list; it is freed with its last reference.
void UnlinkNode(Bucketlist* list, BucketlistNode* node) {
  DirectoryRemove(list, node);
  BucketlistNode** links[kLevels] = {};
  BucketlistNode* back = nullptr;
  Predecessors(list, node->minKey, links, &back);
  for (uint32_t level = 0; level < node->level; ++level) {
    BucketlistNode** at = links[level];
    if (at == nullptr) break;  // only a node above the list's height, which none is
    while (at[level] != nullptr && at[level] != node) at = at[level]->forward;  // past twins with the same min key
    if (at[level] == node) at[level] = node->forward[level];
  }
  if (node->forward[0] != nullptr) node->forward[0]->back = node->back;
  node->freeOnRelease = 1;
}

// After a change of the node's smallest entry.
void RefreshMin(Bucketlist* list, BucketlistNode* node) {
  const uint64_t oldKey = node->minKey;
  RefreshFirst(node);
  DirectoryRekey(list, node, oldKey);
}

void SetMin(Bucketlist* list, BucketlistNode* node, const uint64_t* tuple) {
  const uint64_t oldKey = node->minKey;
  node->minKey = tuple[0];
  std::memset(node->firstTuple, 0, sizeof node->firstTuple);
  std::memcpy(node->firstTuple, tuple, list->tupleSize * sizeof tuple[0]);
  DirectoryRekey(list, node, oldKey);
}

// A node with one tuple, linked. Null without memory.
BucketlistNode* AddNode(Bucketlist* list, const uint64_t* tuple) {
  BucketlistNode* node = Bucketlist_AllocNode(list);
  if (node == nullptr) return nullptr;
  std::memcpy(node->firstTuple, tuple, list->tupleSize * sizeof tuple[0]);
  node->minKey = tuple[0];
  node->sortedCount = 1;
  LinkNode(list, node);
  return node;
}

bool IsFull(const BucketlistNode* node) { return Width(*node) >= kNodeEntries; }

void Load(const BucketlistNode& node, uint32_t slot, uint32_t rank, BucketlistIterator* iter) {
  iter->position = rank;
  iter->key = node.keyArea->keys[slot];
  std::memcpy(iter->payload, node.keyArea->payloads[slot], sizeof iter->payload);
}

// Whether the node's key area can be used without a reference: present, and newest in its cache or in none. Good until
// anything else runs.
bool IsAtHand(const Bucketlist& list, const BucketlistNode& node) {
  return node.keyArea != nullptr && (node.cacheIndex < 0 || list.cache->newest == node.cacheIndex);
}

// Puts a rising tuple behind the last node's run, where most go; false when it has to go another way.
bool Append(Bucketlist* list, const uint64_t* tuple) {
  BucketlistNode* node = DirectoryLastFor(*list, tuple[0]);
  if (node == nullptr || !IsAtHand(*list, *node)) return false;
  const uint32_t end = node->sortedStart + node->sortedCount;
  if (node->sortedCount == 0 || end >= kNodeEntries - node->tailCount) return false;
  BucketlistKeyArea* area = node->keyArea;
  if (tuple[0] < area->keys[end - 1]) return false;
  area->keys[end] = tuple[0];
  if (list->tupleSize == BUCKETLIST_TUPLE_WORDS) {
    std::memcpy(area->payloads[end], tuple + 1, sizeof area->payloads[end]);
  } else {
    WriteSlot(node, end, tuple, list->tupleSize);
  }
  ++node->sortedCount;
  return true;
}

// The slot of the iterator's entry in its (referenced) node; false when it is not there any more.
bool Locate(const BucketlistIterator& iter, Place* place) {
  const BucketlistNode& node = *iter.node;
  const uint64_t* keys = node.keyArea->keys;
  place->slot = node.sortedStart + iter.position;
  place->rank = iter.position;
  if (Unsorted(node) == 0 && iter.position < node.sortedCount && keys[place->slot] == iter.key) return true;
  return FindAtLeast(node, iter.key, place) && keys[place->slot] == iter.key;
}

// Moves the smallest entries of each node of a chain of full ones into its predecessor, so that `node`, `distance`
// behind the roomy one, gains room. Nothing is lost when memory runs out on the way.
uint32_t ShiftBack(Bucketlist* list, BucketlistNode* roomy, uint32_t distance) {
  const uint32_t share = (kNodeEntries - Width(*roomy)) / (distance + 1);  // the room is shared by all
  BucketlistNode* to = roomy;
  for (uint32_t step = distance; step > 0; --step) {
    BucketlistNode* from = to->forward[0];
    const Held heldTo(list, to);
    if (heldTo.Status() != KAB_OK) return heldTo.Status();
    const Held heldFrom(list, from);
    if (heldFrom.Status() != KAB_OK) return heldFrom.Status();
    MoveSmallest(from, to, share != 0 ? share * step : 1);
    RefreshMin(list, from);
    to = from;
  }
  return KAB_OK;
}

// The entries that a node keeps when it is split: half, and all twins of its min key, since a node with the same min
// key would be linked before it.
uint32_t SplitPoint(const BucketlistNode& node) {
  const uint64_t* run = node.keyArea->keys + node.sortedStart;
  uint32_t keep = kNodeEntries / 2;
  while (keep < node.sortedCount && run[keep] == node.minKey) ++keep;
  return keep < node.sortedCount ? keep : kNodeEntries / 2;
}

uint32_t Split(Bucketlist* list, BucketlistNode* node) {
  const Held held(list, node);
  if (held.Status() != KAB_OK) return held.Status();
  BucketlistNode* upper = Bucketlist_AllocNode(list);
  if (upper == nullptr) return KAB_INVALID_ARGUMENT;
  const uint32_t st = BucketlistGetNode(list, upper);
  if (st != KAB_OK) {
    Bucketlist_FreeNode(list, upper);
    return st;
  }
  SortNode(node);
  MoveUpper(node, upper, SplitPoint(*node));
  RefreshFirst(upper);
  LinkNode(list, upper);
  BucketlistPutNode(list, upper);
  return KAB_OK;
}

// Whether the tuple goes behind all entries of the last node.
uint32_t IsRising(Bucketlist* list, BucketlistNode* node, uint64_t key, bool* rising) {
  if (node->forward[0] != nullptr) return KAB_OK;
  const Held held(list, node);
  if (held.Status() != KAB_OK) return held.Status();
  Place place;
  *rising = !FindAtLeast(*node, key, &place);
  return KAB_OK;
}

// Gives a full node room, or puts a rising tuple in a node of its own and says so.
uint32_t MakeRoom(Bucketlist* list, BucketlistNode* node, const uint64_t* tuple, bool* inserted) {
  bool rising = false;
  uint32_t st = IsRising(list, node, tuple[0], &rising);
  if (st != KAB_OK) return st;
  BucketlistNode* roomy = nullptr;
  uint32_t distance = 0;
  BucketlistNode* behind = node;
  for (uint32_t i = 1; i <= kLookBack && roomy == nullptr && behind->back != HeadOf(list); ++i) {
    behind = behind->back;
    if (IsFull(behind)) continue;
    roomy = behind;
    distance = i;
  }
  if (!rising && roomy != nullptr && list->shiftCredit >= distance * kStepPrice) {
    list->shiftCredit -= distance * kStepPrice;
    return ShiftBack(list, roomy, distance);
  }
  if (rising) {
    *inserted = AddNode(list, tuple) != nullptr;
    st = *inserted ? uint32_t{KAB_OK} : uint32_t{KAB_INVALID_ARGUMENT};
  } else {
    st = Split(list, node);
  }
  // Without memory for another node, any room will do.
  return st != KAB_OK && roomy != nullptr ? ShiftBack(list, roomy, distance) : st;
}

// Moves all of `from` behind the entries of its predecessor `to` and unlinks it. Both are referenced.
void Join(Bucketlist* list, BucketlistNode* to, BucketlistNode* from) {
  UnlinkNode(list, from);
  MoveSmallest(from, to, Width(*from));
}

// Joins a node that has become sparse with a neighbour. Returns the node that went; null: none did. Only a saving:
// without memory it waits.
BucketlistNode* TryJoin(Bucketlist* list, BucketlistNode* node) {
  if (Width(*node) >= kSparse) return nullptr;
  BucketlistNode* back = node->back;
  if (back != HeadOf(list) && Width(*back) + Width(*node) <= kJoined) {
    const Held held(list, back);
    if (held.Status() != KAB_OK) return nullptr;
    Join(list, back, node);
    return node;
  }
  BucketlistNode* next = node->forward[0];
  if (next != nullptr && Width(*next) + Width(*node) <= kJoined) {
    const Held held(list, next);
    if (held.Status() != KAB_OK) return nullptr;
    Join(list, node, next);
    return next;
  }
  return nullptr;
}

// Puts the iterator on the first or last entry of a node.
uint32_t EnterNode(Bucketlist* list, BucketlistNode* node, bool atEnd, BucketlistIterator* iter) {
  const Held held(list, node);
  if (held.Status() != KAB_OK) return held.Status();
  Place place;
  if (!(atEnd ? FindAtMost(*node, ~uint64_t{0}, &place) : FindAtLeast(*node, 0, &place))) return kNoEntry;
  iter->node = node;
  Load(*node, place.slot, place.rank, iter);
  return KAB_OK;
}

uint32_t EndIterator(BucketlistIterator* iter, uint32_t st) {
  iter->node = nullptr;
  return st;
}

// Looks for the iterator's entry in the whole list: it left its node when nodes were split or filled up.
uint32_t Reseat(Bucketlist* list, BucketlistIterator* iter) {
  BucketlistIterator found;
  const uint32_t st = Bucketlist_LowerBound(list, &found, iter->key);
  if (st != KAB_OK) return st;
  if (found.key != iter->key) return kNoEntry;
  iter->node = found.node;
  iter->position = found.position;
  return KAB_OK;
}

// A step in a node with unsorted entries. False when the node has to be sorted for it: at its edges, after many
// steps, when keys are not unique, and when a split took the iterator's entry elsewhere.
bool StepUnsorted(Bucketlist* list, bool forward, const BucketlistIterator& iter, Place* place) {
  if (++list->unsortedSteps > kMaxUnsortedSteps) return false;
  const BucketlistNode& node = *iter.node;
  const BucketlistNode* next = node.forward[0];
  if (iter.key < node.minKey || (next != nullptr && iter.key >= next->minKey)) return false;
  if (forward) return FindAtLeast(node, iter.key + 1, place) && place->rank == iter.position + 1;
  if (!FindAtMost(node, iter.key - 1, place) || place->rank + 1 != iter.position) return false;
  Place first;
  FindAtLeast(node, node.keyArea->keys[place->slot], &first);
  return first.rank == place->rank;
}

enum class Step { kDone, kLeave, kAstray };

// A step inside the iterator's (referenced) node, if that is where it leads.
Step StepInside(Bucketlist* list, bool forward, BucketlistIterator* iter) {
  BucketlistNode* node = iter->node;
  Place place;
  if (Unsorted(*node) != 0) {
    if (StepUnsorted(list, forward, *iter, &place)) {
      Load(*node, place.slot, place.rank, iter);
      return Step::kDone;
    }
    SortNode(node);
  }
  if (!Locate(*iter, &place)) return Step::kAstray;
  if (forward ? place.rank + 1 >= node->sortedCount : place.rank == 0) return Step::kLeave;
  const uint32_t rank = forward ? place.rank + 1 : place.rank - 1;
  Load(*node, node->sortedStart + rank, rank, iter);
  return Step::kDone;
}

uint32_t StepOn(Bucketlist* list, bool forward, BucketlistIterator* iter) {
  BucketlistNode* node = iter->node;
  Step step = Step::kLeave;
  if (forward || iter->position != 0 || iter->key != node->minKey) {
    const Held held(list, node);
    if (held.Status() != KAB_OK) return held.Status();
    step = StepInside(list, forward, iter);
  }
  if (step == Step::kDone) return KAB_OK;
  if (step == Step::kLeave) {
    BucketlistNode* neighbour = forward ? node->forward[0] : node->back;
    if (neighbour == nullptr || neighbour == HeadOf(list)) return EndIterator(iter, kNoEntry);
    return EnterNode(list, neighbour, !forward, iter);
  }
  // The entry is in another node by now, or gone: from the next larger one, forward is there, backward is one step.
  BucketlistIterator found;
  uint32_t st = Bucketlist_LowerBound(list, &found, iter->key);
  if (st == kNoEntry && !forward) {
    st = Bucketlist_End(list, &found);
  } else if (st == KAB_OK && (!forward || found.key == iter->key)) {
    st = StepOn(list, forward, &found);
  }
  if (st == KAB_OK || st == kNoEntry) *iter = found;
  return st;
}

// Removes the iterator's entry. `gone`: the node, if any, whose entries all went to its predecessor.
uint32_t Remove(Bucketlist* list, BucketlistIterator iter, const BucketlistNode** gone) {
  for (bool reseated = false;; reseated = true) {
    BucketlistNode* node = iter.node;
    {
      const Held held(list, node);
      if (held.Status() != KAB_OK) return held.Status();
      Place place;
      if (Locate(iter, &place)) {
        RemoveSlot(node, place.slot);
        if (Width(*node) == 0) {
          UnlinkNode(list, node);
          return KAB_OK;
        }
        if (place.rank == 0) RefreshMin(list, node);
        *gone = TryJoin(list, node);
        return KAB_OK;
      }
    }
    if (reseated) return kNoEntry;
    const uint32_t st = Reseat(list, &iter);
    if (st != KAB_OK) return st;
  }
}

// Overwrites the iterator's entry in its (referenced) node.
void Overwrite(Bucketlist* list, BucketlistNode* node, const Place& place, const uint64_t* tuple) {
  const uint64_t* keys = node->keyArea->keys;
  const uint64_t oldKey = keys[place.slot];
  const uint32_t runEnd = node->sortedStart + node->sortedCount;
  WriteSlot(node, place.slot, tuple, list->tupleSize);
  if (place.slot >= node->sortedStart && place.slot < runEnd) {
    // Twins stay twins.
    for (uint32_t slot = place.slot + 1; slot < runEnd && keys[slot] <= oldKey; ++slot) {
      WriteSlot(node, slot, tuple, list->tupleSize);
    }
  }
  if (place.rank == 0 || tuple[0] < node->minKey) RefreshMin(list, node);
}

}  // namespace
}  // namespace kab::ds

using namespace kab::ds;

void Bucketlist_Init(Bucketlist* list, BucketlistCache* cache, uint32_t tupleSize) {
  *list = {};
  list->tupleSize = tupleSize;
  list->cache = cache;
  list->seed = static_cast<uint32_t>(std::rand());
  list->shiftCredit = kMaxCredit;
}

void Bucketlist_Destroy(Bucketlist* list) {
  BucketlistNode* next = nullptr;
  for (BucketlistNode* node = list->levelHeads[0]; node != nullptr; node = next) {
    next = node->forward[0];
    Bucketlist_FreeNode(list, node);
  }
  std::memset(list->levelHeads, 0, sizeof list->levelHeads);
  list->height = 0;
  DirectoryFree(list);
  FreeKeyAreas(list);
}

uint32_t Bucketlist_Insert(Bucketlist* list, const uint64_t* tuple) {
  list->unsortedSteps = 0;
  if (list->shiftCredit < kMaxCredit) ++list->shiftCredit;
  if (Append(list, tuple)) return KAB_OK;
  for (;;) {
    BucketlistNode* node = Candidate(list, tuple[0]);
    if (node == nullptr) return AddNode(list, tuple) != nullptr ? KAB_OK : KAB_INVALID_ARGUMENT;
    if (!IsFull(node)) {
      const Held held(list, node);
      if (held.Status() != KAB_OK) return held.Status();
      AddTuple(node, tuple, list->tupleSize);
      if (tuple[0] < node->minKey) SetMin(list, node, tuple);
      return KAB_OK;
    }
    // With room made, the tuple may belong to the predecessor: the search is made again.
    bool inserted = false;
    const uint32_t st = MakeRoom(list, node, tuple, &inserted);
    if (st != KAB_OK || inserted) return st;
  }
}

uint32_t Bucketlist_LowerBound(Bucketlist* list, BucketlistIterator* iter, uint64_t key) {
  for (BucketlistNode* node = Candidate(list, key); node != nullptr; node = node->forward[0]) {
    const Held held(list, node);
    if (held.Status() != KAB_OK) return EndIterator(iter, held.Status());
    Place place;
    if (!FindAtLeast(*node, key, &place)) continue;
    iter->node = node;
    Load(*node, place.slot, place.rank, iter);
    return KAB_OK;
  }
  return EndIterator(iter, kNoEntry);
}

uint32_t Bucketlist_Begin(Bucketlist* list, BucketlistIterator* iter) {
  iter->node = nullptr;
  return list->levelHeads[0] != nullptr ? EnterNode(list, list->levelHeads[0], false, iter) : kNoEntry;
}

uint32_t Bucketlist_End(Bucketlist* list, BucketlistIterator* iter) {
  iter->node = nullptr;
  return list->levelHeads[0] != nullptr ? EnterNode(list, LastNode(list), true, iter) : kNoEntry;
}

uint32_t Bucketlist_Successor(Bucketlist* list, BucketlistIterator* iter) {
  const BucketlistNode* node = iter->node;
  // The common step of a scan needs no reference: it ends before anything else can run.
  if (IsAtHand(*list, *node) && Unsorted(*node) == 0) {
    const uint32_t next = iter->position + 1;
    const BucketlistKeyArea* area = node->keyArea;
    const uint32_t slot = node->sortedStart + next;
    if (next < node->sortedCount && area->keys[slot - 1] == iter->key) {
      __builtin_prefetch(area->payloads + slot + kPayloadsAhead);
      iter->position = next;
      iter->key = area->keys[slot];
      std::memcpy(iter->payload, area->payloads[slot], sizeof iter->payload);
      return KAB_OK;
    }
  }
  return StepOn(list, true, iter);
}

uint32_t Bucketlist_Predecessor(Bucketlist* list, BucketlistIterator* iter) { return StepOn(list, false, iter); }

uint32_t Bucketlist_IteratorRead(const Bucketlist* /*list*/, uint64_t* tuple, const BucketlistIterator* iter) {
  tuple[0] = iter->key;
  std::memcpy(tuple + 1, iter->payload, sizeof iter->payload);
  return KAB_OK;
}

uint32_t Bucketlist_IteratorWrite(Bucketlist* list, BucketlistIterator* iter, const uint64_t* tuple) {
  for (bool reseated = false;; reseated = true) {
    {
      const Held held(list, iter->node);
      if (held.Status() != KAB_OK) return held.Status();
      Place place;
      if (Locate(*iter, &place)) {
        Overwrite(list, iter->node, place, tuple);
        Load(*iter->node, place.slot, place.rank, iter);
        return KAB_OK;
      }
    }
    if (reseated) return kNoEntry;
    const uint32_t st = Reseat(list, iter);
    if (st != KAB_OK) return st;
  }
}

uint32_t Bucketlist_DeleteInvalidateIter(Bucketlist* list, BucketlistIterator* iter) {
  const BucketlistNode* gone = nullptr;
  const uint32_t st = Remove(list, *iter, &gone);
  if (st == KAB_OK) iter->node = nullptr;
  return st;
}

uint32_t Bucketlist_DeleteTryMaintainIter(Bucketlist* list, BucketlistIterator* iter) {
  BucketlistIterator before = *iter;
  uint32_t st = StepOn(list, false, &before);
  if (st != KAB_OK && st != kNoEntry) return st;
  const BucketlistNode* gone = nullptr;
  st = Remove(list, *iter, &gone);
  if (st != KAB_OK) return st;
  *iter = before;
  if (gone == nullptr || iter->node != gone) return KAB_OK;
  return Bucketlist_LowerBound(list, iter, before.key);  // in the predecessor, which is in memory: it cannot fail
}

void Bucketlist_Validate(Bucketlist* list) {
  PLINTH_ASSERT_TEXT(list->height <= 24, "list->height <= 24");
  PLINTH_ASSERT_TEXT(list->height >= 0, "list->height >= 0");
  PLINTH_ASSERT_TEXT(list->tupleSize <= 5, "list->tupleSize <= 5");
  for (BucketlistNode* node = list->levelHeads[0]; node != nullptr && list->cache != nullptr; node = node->forward[0]) {
    if (node->cacheIndex < 0) continue;
    const bool inCache = static_cast<uint32_t>(node->cacheIndex) < list->cache->nodes;
    PLINTH_ASSERT_TEXT(inCache && list->cache->ownerList[node->cacheIndex] == list,
                       "list->cache->ownerList[nodeHead->cacheIndex] == list");
    PLINTH_ASSERT_TEXT(list->cache->owners[node->cacheIndex] == node,
                       "list->cache->owners[nodeHead->cacheIndex] == (BucketlistNode *)nodeHead");
  }
  uint32_t nodeCount = 0;
  uint64_t prev = 0;
  for (BucketlistNode* node = list->levelHeads[0]; node != nullptr; node = node->forward[0], ++nodeCount) {
    PLINTH_ASSERT_TEXT(Width(*node) <= 0x400, "BucketlistNodeWidth((BucketlistNode*)(node)) <= 0x400");
    PLINTH_ASSERT_TEXT(node->slack <= 0x400, "node->slack <= 0x400");
    if (BucketlistGetNode(list, node) != KAB_OK) return;
    SortNode(node);
    const uint64_t curr = node->keyArea->keys[node->sortedStart];
    PLINTH_ASSERT_TEXT(BucketlistGetMin(node) == curr, "BucketlistGetMin(node) == BucketlistKeyOffset(&curr)");
    PLINTH_ASSERT_TEXT(prev <= curr, "BucketlistKeyOffset(&prev) <= BucketlistKeyOffset(&curr)");
    prev = curr;
    BucketlistPutNode(list, node);
    PLINTH_ASSERT_TEXT(node->refCount == 0, "node->refCount == 0");
  }
  PLINTH_ASSERT_TEXT(nodeCount == list->stats.numNodes, "nodeCount == (list->stats.numNodes)");
}

uint32_t BucketlistAllocation(uint64_t size) {
  return size == BUCKETLIST_NODE_SIZE || size == BUCKETLIST_COMPRESSED_BUFFER_SIZE || size == BUCKETLIST_KEY_AREA_SIZE;
}

uint64_t BucketlistGetMin(const BucketlistNode* node) { return node->minKey; }
