// Plays a stream of operations on a Bucketlist against std::map, and on an LBA table against an array of units. The
// first byte chooses the words a tuple and the size of the cache.
//
//    | choice | operation 1, key 2, argument 2 | ...

#include <array>
#include <cstring>
#include <map>
#include <vector>

#include "demand.h"
#include "kab/indexes.h"

namespace {

using Tuple = std::array<uint64_t, 5>;

constexpr uint32_t kNoEntry = 2;
constexpr size_t kOperationSize = 5;
constexpr size_t kMostOperations = 400;
constexpr uint32_t kLongestRun = 1500;  // more than a node holds

struct Operation {
  uint8_t what;
  uint16_t key;
  uint16_t argument;
};

Operation OperationAt(const uint8_t* data) {
  Operation operation{*data, 0, 0};
  std::memcpy(&operation.key, data + 1, 2);
  std::memcpy(&operation.argument, data + 3, 2);
  return operation;
}

class List {
 public:
  List(BucketlistCache* cache, uint32_t words) : words_(words) { Bucketlist_Init(&list_, cache, words); }
  ~List() {
    Compare();
    Bucketlist_Destroy(&list_);
    KAB_DEMAND(list_.stats.numNodes == 0 && list_.stats.compressedBuffers == 0);
  }
  List(const List&) = delete;
  List& operator=(const List&) = delete;

  void Run(const Operation& op) {
    const uint64_t key = uint64_t{op.key} * 1024 + op.argument % 7;
    switch (op.what % 6) {
      case 0:
        return Insert(key, op.argument);
      case 1:
        return InsertRun(key, op.argument);
      case 2:
        return Walk(key, op.argument);
      case 3:
        return Write(key, op.argument);
      case 4:
        return Delete(key, op.argument);
      default:
        return Bucketlist_Validate(&list_);
    }
  }

 private:
  using Place = std::map<uint64_t, Tuple>::iterator;

  void Insert(uint64_t key, uint64_t payload) {
    Tuple tuple{key};
    for (uint32_t i = 1; i < words_; ++i) tuple[i] = payload * (i + 1);
    if (model_.emplace(key, tuple).second) KAB_DEMAND(Bucketlist_Insert(&list_, tuple.data()) == KAB_OK);
  }

  // Rising, falling or scattered, as the argument's low bits say.
  void InsertRun(uint64_t key, uint16_t argument) {
    const uint32_t count = argument % kLongestRun;
    for (uint32_t i = 0; i < count; ++i) {
      const uint32_t step = argument % 3 == 2 ? i * 7919 % count : i;
      Insert(argument % 3 == 1 ? key + 8 * (count - step) : key + 8 * step, step);
    }
  }

  Place Seat(BucketlistIterator* iter, uint64_t key) {
    const Place at = model_.lower_bound(key);
    KAB_DEMAND(Bucketlist_LowerBound(&list_, iter, key) == (at == model_.end() ? kNoEntry : uint32_t{KAB_OK}));
    Expect(*iter, at);
    return at;
  }

  void Walk(uint64_t key, uint16_t argument) {
    BucketlistIterator iter{};
    Place at = Seat(&iter, key);
    for (uint32_t bit = 0; bit < 16 && at != model_.end(); ++bit) {
      const bool up = (argument >> bit & 1U) != 0;
      const bool leaves = up ? std::next(at) == model_.end() : at == model_.begin();
      const uint32_t st = up ? Bucketlist_Successor(&list_, &iter) : Bucketlist_Predecessor(&list_, &iter);
      KAB_DEMAND(st == (leaves ? kNoEntry : uint32_t{KAB_OK}));
      at = leaves ? model_.end() : up ? std::next(at) : std::prev(at);
      Expect(iter, at);
    }
  }

  // A new payload, and a key lowered within the gap below it.
  void Write(uint64_t key, uint16_t argument) {
    BucketlistIterator iter{};
    const Place at = Seat(&iter, key);
    if (at == model_.end()) return;
    const uint64_t floor = at == model_.begin() ? 0 : std::prev(at)->first + 1;
    Tuple tuple = at->second;
    tuple[0] -= argument % (tuple[0] - floor + 1);
    for (uint32_t i = 1; i < words_; ++i) tuple[i] ^= argument;
    KAB_DEMAND(Bucketlist_IteratorWrite(&list_, &iter, tuple.data()) == KAB_OK);
    model_.erase(at);
    Expect(iter, model_.emplace(tuple[0], tuple).first);
  }

  void Delete(uint64_t key, uint16_t argument) {
    BucketlistIterator iter{};
    Place at = Seat(&iter, key);
    for (uint32_t i = argument % kLongestRun; i > 0 && at != model_.end(); --i) {
      if (argument % 2 != 0) {
        KAB_DEMAND(Bucketlist_DeleteInvalidateIter(&list_, &iter) == KAB_OK);
        const uint64_t gone = at->first;
        model_.erase(at);
        at = Seat(&iter, gone);
      } else {
        KAB_DEMAND(Bucketlist_DeleteTryMaintainIter(&list_, &iter) == KAB_OK);
        const Place next = model_.erase(at);
        at = next == model_.begin() ? model_.end() : std::prev(next);
        Expect(iter, at);
      }
    }
  }

  void Expect(const BucketlistIterator& iter, Place at) const {
    KAB_DEMAND((iter.node == nullptr) == (at == model_.end()));
    if (iter.node == nullptr) return;
    Tuple read;
    KAB_DEMAND(Bucketlist_IteratorRead(&list_, read.data(), &iter) == KAB_OK);
    KAB_DEMAND(read == at->second);
  }

  void Compare() {
    Bucketlist_Validate(&list_);
    BucketlistIterator iter{};
    uint32_t st = Bucketlist_Begin(&list_, &iter);
    for (Place at = model_.begin(); at != model_.end(); ++at) {
      KAB_DEMAND(st == KAB_OK);
      Expect(iter, at);
      st = Bucketlist_Successor(&list_, &iter);
    }
    KAB_DEMAND(st == kNoEntry);
  }

  Bucketlist list_;
  uint32_t words_;
  std::map<uint64_t, Tuple> model_;
};

class Ranges {
 public:
  explicit Ranges(BucketlistCache* cache) : units_(kUnits) {
    KAB_DEMAND(ZOLTLbaTable_Init(&table_, cache, 5) == KAB_OK);
  }
  ~Ranges() {
    Compare();
    ZOLTLbaTable_Destroy(&table_);
  }
  Ranges(const Ranges&) = delete;
  Ranges& operator=(const Ranges&) = delete;

  void Run(const Operation& op) {
    const uint64_t start = op.key % kUnits;
    uint64_t end = std::min<uint64_t>(start + op.argument % 97, kUnits);
    displaced_ = 0;
    uint64_t expected = 0;
    switch (op.what % 3) {
      case 0:
        ++owner_;
        expected = Paint(start, end, {owner_, owner_ << 20U});
        KAB_DEMAND(Rangemap_Insert(table_.list, start, end, owner_, owner_ << 20U, 0, Count, Self()) == KAB_OK);
        break;
      case 1:
        expected = Paint(start, end, {});
        KAB_DEMAND(ZOLTLbaTable_RemoveRangeExact(&table_, start, end, Count, Self()) == KAB_OK);
        break;
      default: {
        ZOLTLbaTableCursor cursor;
        const ZOLTLbaRange* range = ZOLTLbaTable_Find(&table_, start, &cursor);
        uint64_t unit = start;
        while (unit < kUnits && units_[unit].owner == 0) ++unit;
        KAB_DEMAND((range == nullptr) == (unit == kUnits));
        if (range != nullptr) {
          KAB_DEMAND(range->owner == units_[unit].owner && std::max(range->start, start) == unit);
        }
        break;
      }
    }
    KAB_DEMAND(displaced_ == expected);
  }

 private:
  static constexpr uint64_t kUnits = 3000;
  struct Unit {
    uint64_t owner;
    uint64_t address;
    bool operator==(const Unit&) const = default;
  };

  static uint64_t Count(uint64_t /*address*/, uint64_t length, uint64_t /*start*/, uint64_t /*data*/,
                        uint64_t /*owner*/, uint64_t self) {
    reinterpret_cast<Ranges*>(self)->displaced_ += length;
    return 0;
  }
  uint64_t Self() { return reinterpret_cast<uint64_t>(this); }

  // How much was mapped there before.
  uint64_t Paint(uint64_t start, uint64_t end, Unit unit) {
    uint64_t gone = 0;
    for (uint64_t i = start; i < end; ++i) {
      gone += units_[i].owner != 0 ? 1 : 0;
      units_[i] = unit;
      if (unit.owner != 0) units_[i].address += i - start;
    }
    return gone;
  }

  void Compare() {
    Bucketlist_Validate(table_.list);
    std::vector<Unit> found(kUnits);
    ZOLTLbaTableCursor cursor;
    for (const auto* r = ZOLTLbaTable_First(&table_, &cursor); r != nullptr; r = ZOLTLbaTable_Next(&table_, &cursor)) {
      KAB_DEMAND(r->start < kUnits && r->length <= kUnits - r->start);
      for (uint64_t i = 0; i < r->length; ++i) {
        KAB_DEMAND(found[r->start + i].owner == 0);
        found[r->start + i] = {r->owner, r->address + i};
      }
    }
    KAB_DEMAND(found == units_);
  }

  ZOLTLbaTable table_{};
  std::vector<Unit> units_;
  uint64_t owner_ = 0;
  uint64_t displaced_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint32_t choice = size == 0 ? 0 : *data;
  BucketlistCache cache{};
  const uint32_t nodes = choice / 5 % 4;  // 0: no cache; else 2, 3 or 4
  if (nodes != 0) KAB_DEMAND(Bucketlist_CacheInit(&cache, nodes + 1) == KAB_OK);
  {
    BucketlistCache* shared = nodes != 0 ? &cache : nullptr;
    List list(shared, 1 + choice % 5);
    Ranges ranges(shared);
    size_t left = kMostOperations;
    for (size_t at = 1; at + kOperationSize <= size && left > 0; at += kOperationSize, --left) {
      const Operation operation = OperationAt(data + at);
      if ((operation.what & 0x80U) != 0) {
        ranges.Run({static_cast<uint8_t>(operation.what & 0x7FU), operation.key, operation.argument});
      } else {
        list.Run(operation);
      }
    }
  }
  Bucketlist_CacheDestroy(&cache);
  return 0;
}
