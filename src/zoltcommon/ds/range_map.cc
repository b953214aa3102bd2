// Ranges of bytes in a Bucketlist, keyed by their exclusive end: a new range overwrites, trims, splits or punches
// holes in those already there.
//
//   stored    [---- R ----)        [-- R --)              [-- R --)
//   new             [-- ... --)        [ )            [------------- )
//   left      [head)                [h)   [R)            gone

#include <algorithm>
#include <cstring>

#include "kab/indexes.h"

namespace kab::ds {
namespace {

constexpr uint64_t kUnmapped = ~uint64_t{0};
constexpr uint32_t kNoEntry = 2;

uint64_t StartOf(const ZOLTRangeTuple& range) { return range.end - range.length; }

// One overwrite in progress.
class Overwrite {
 public:
  Overwrite(Bucketlist* list, uint64_t start, const ZOLTRangeTuple& fresh, ZOLTRangeDisplacedFn callback,
            uint64_t callbackArg)
      : list_(list), start_(start), fresh_(fresh), callback_(callback), callbackArg_(callbackArg) {}

  uint32_t Run() {
    const Walk walk = Upper();
    if (walk == Walk::kDone) return status_;
    if (walk == Walk::kBackwards) Backwards();
    if (status_ == KAB_OK && !Removal()) Note(rewritten_.node != nullptr ? Rewrite() : Insert(fresh_));
    if (status_ == KAB_OK && head_.length != 0) Note(Insert(head_));
    return status_;
  }

 private:
  enum class Walk { kDone, kBackwards, kFinish };

  void Note(uint32_t st) {
    if (status_ == KAB_OK) status_ = st;
  }

  ZOLTRangeTuple Current() const {
    return {.end = at_.key,
            .length = at_.payload[0],
            .owner = at_.payload[1],
            .address = at_.payload[2],
            .data = at_.payload[3]};
  }

  bool Removal() const { return fresh_.owner == kUnmapped; }

  uint32_t Write(const ZOLTRangeTuple& range) {
    uint64_t tuple[BUCKETLIST_TUPLE_WORDS];
    std::memcpy(tuple, &range, sizeof range);
    return Bucketlist_IteratorWrite(list_, &at_, tuple);
  }

  // Makes the range that was kept for it the new one. Last of all: were memory to run out before everything below is
  // gone, the two would overlap.
  uint32_t Rewrite() {
    at_ = rewritten_;
    if (deleted_) {  // entries moved
      const uint32_t st = Bucketlist_LowerBound(list_, &at_, rewritten_.key);
      if (st != KAB_OK) return st;
    }
    return Write(fresh_);
  }

  uint32_t Insert(const ZOLTRangeTuple& range) {
    uint64_t tuple[BUCKETLIST_TUPLE_WORDS];
    std::memcpy(tuple, &range, sizeof range);
    return Bucketlist_Insert(list_, tuple);
  }

  void Report(const ZOLTRangeTuple& range, uint64_t from, uint64_t to) const {
    if (callback_ == nullptr) return;
    (void)callback_(range.address + (from - StartOf(range)), to - from, from, range.data, range.owner, callbackArg_);
  }

  void KeepHead(const ZOLTRangeTuple& range) {
    head_ = range;
    head_.end = start_;
    head_.length = start_ - StartOf(range);
  }

  // To the predecessor; Backwards goes on there when there is one.
  Walk StepBack() {
    const uint32_t st = Bucketlist_Predecessor(list_, &at_);
    if (st == KAB_OK) return Walk::kBackwards;
    if (st != kNoEntry) Note(st);
    return Walk::kFinish;
  }

  // The range that reaches the new end, if any, and the first one to look at on the way down.
  Walk Upper() {
    uint32_t st = Bucketlist_LowerBound(list_, &at_, fresh_.end);
    if (st == kNoEntry) {
      st = Bucketlist_End(list_, &at_);
      if (st == KAB_OK) return Walk::kBackwards;
      if (st != kNoEntry) Note(st);
      return Walk::kFinish;
    }
    if (st != KAB_OK) {
      Note(st);
      return Walk::kDone;
    }
    ZOLTRangeTuple range = Current();
    const uint64_t rangeStart = StartOf(range);
    if (rangeStart >= fresh_.end) return StepBack();

    Report(range, std::max(start_, rangeStart), std::min(range.end, fresh_.end));
    const bool reachesStart = rangeStart <= start_;
    if (range.end > fresh_.end) {
      if (rangeStart < start_) KeepHead(range);
      range.length = range.end - fresh_.end;
      range.address += fresh_.end - rangeStart;
      Note(Write(range));
    } else if (!Removal()) {
      if (rangeStart < start_) KeepHead(range);
      rewritten_ = at_;
    } else if (rangeStart == start_) {
      Note(Bucketlist_DeleteInvalidateIter(list_, &at_));
    } else if (rangeStart < start_) {
      KeepHead(range);
      Note(Write(head_));
      head_.length = 0;
    } else {
      Note(Bucketlist_DeleteTryMaintainIter(list_, &at_));
      return status_ == KAB_OK ? Walk::kBackwards : Walk::kDone;
    }
    if (status_ != KAB_OK) return Walk::kDone;
    return reachesStart ? Walk::kFinish : StepBack();  // ranges do not overlap: none before it reaches the start
  }

  // Ranges wholly inside the new one go; the first that begins before it is cut down to what lies before.
  void Backwards() {
    while (at_.node != nullptr && status_ == KAB_OK) {
      ZOLTRangeTuple range = Current();
      if (StartOf(range) >= start_) {
        Report(range, StartOf(range), range.end);
        if (rewritten_.node != nullptr || Removal()) {
          Note(Bucketlist_DeleteTryMaintainIter(list_, &at_));
          deleted_ = true;
          continue;
        }
        // The uppermost one becomes the new range: nothing lies between it and the new end.
        rewritten_ = at_;
        if (StepBack() == Walk::kFinish) return;
        continue;
      }
      if (range.end > start_) {
        Report(range, start_, std::min(range.end, fresh_.end));
        range.length = start_ - StartOf(range);
        range.end = start_;
        Note(Write(range));
      }
      return;
    }
  }

  Bucketlist* list_;
  uint64_t start_;
  ZOLTRangeTuple fresh_;
  ZOLTRangeDisplacedFn callback_;
  uint64_t callbackArg_;
  BucketlistIterator at_{};
  ZOLTRangeTuple head_{};
  BucketlistIterator rewritten_{};  // the range that becomes the new one; node null: none, it is inserted
  bool deleted_ = false;
  uint32_t status_ = KAB_OK;
};

}  // namespace
}  // namespace kab::ds

uint32_t Rangemap_Insert(Bucketlist* list, uint64_t start, uint64_t end, uint64_t owner, uint64_t address,
                         uint64_t data, ZOLTRangeDisplacedFn callback, uint64_t callbackArg) {
  if (start >= end) return KAB_OK;
  const ZOLTRangeTuple fresh{.end = end, .length = end - start, .owner = owner, .address = address, .data = data};
  return kab::ds::Overwrite(list, start, fresh, callback, callbackArg).Run();
}
