#include "orlo_map.h"

#include "kab/orlo.h"
#include "load.h"
#include "orlo_registry.h"
#include "tool.h"

namespace tool {
namespace {

constexpr uint64_t kNowhere = ~uint64_t{0};
constexpr uint64_t kBlockMask = (uint64_t{1} << 45) - 1;
constexpr uint32_t kCountMask = (1U << 26) - 1;
constexpr size_t kKeysAt = 18;
// Where a map block keeps its records or children, by the disk's format version.
constexpr size_t kRecordsAt6 = 1374;
constexpr size_t kRecordsAt = 1034;
constexpr size_t kChildrenAt6 = 2054;
constexpr size_t kChildrenAt = 1374;

struct Record {
  uint64_t key;       // logical block
  uint64_t physical;  // block of the data area, all ones for a hole
  uint64_t count;     // blocks
};

Record RecordOf(const OrloBTreeCursor& cursor) {
  const uint8_t* block = cursor.top->block;
  const uint64_t i = cursor.top->index;
  const uint64_t key = Load<uint32_t>(block + kKeysAt + 4 * i);
  if (cursor.version == 6) {
    const uint8_t* record = block + kRecordsAt6 + 8 * i;
    const auto physical = Load<uint32_t>(record);
    return {key, physical == ~uint32_t{0} ? kNowhere : physical, Load<uint32_t>(record + 4) & kCountMask};
  }
  const uint8_t* record = block + kRecordsAt + 12 * i;
  return {key, Load<uint64_t>(record), Load<uint32_t>(record + 8) & kCountMask};
}

bool IsLeaf(const uint8_t* block) { return (block[17] & 0x80) != 0; }

uint64_t ChildOf(const OrloBTreeCursor& cursor, const OrloBTreeFrame& frame) {
  return cursor.version == 6 ? Load<uint32_t>(frame.block + kChildrenAt6 + 4 * frame.index)
                             : Load<uint64_t>(frame.block + kChildrenAt + 8 * frame.index);
}

uint64_t OffsetOf(uint64_t block) { return (block & kBlockMask) * ORLO_MAP_BLOCK_SIZE; }

struct Cursor : OrloBTreeCursor {
  ~Cursor() { OrloBTree_Clear(this); }
};

}  // namespace

uint32_t WalkOrloMap(KABDiskCtx* disk, uint64_t root, const std::function<void(uint64_t offset)>& takeNode,
                     const std::function<void(const OrloRun& run)>& takeRun) {
  Cursor cursor{};
  cursor.root = root;
  cursor.version = FormatVersion(*disk);
  cursor.disk = disk;
  if (root != kNowhere) takeNode(OffsetOf(root));
  for (uint64_t least = 0;;) {
    StopIfInterrupted();
    const uint32_t status = OrloBTree_StepNext(&cursor);
    ThrowIfNoMemory(status);
    const OrloBTreeFrame* top = cursor.top;
    if (status != KAB_OK && top != nullptr && !IsLeaf(top->block)) takeNode(OffsetOf(ChildOf(cursor, *top)));
    if (status == KAB_OK && top == nullptr) return KAB_OK;
    if (status != KAB_OK || top->index == 0) {  // a leaf just entered, and perhaps nodes above it
      for (const OrloBTreeFrame* frame = top == nullptr ? nullptr : top->below; frame != nullptr;
           frame = frame->below) {
        takeNode(OffsetOf(ChildOf(cursor, *frame)));
        if (frame->index != 0) break;  // what lies above was taken on the way to the child before
      }
    }
    if (status != KAB_OK) return status;
    const Record record = RecordOf(cursor);
    if (record.key < least) return KAB_BLOCK_INVALID;
    least = record.key + (record.count != 0 ? record.count : 1);
    if (record.physical == kNowhere) continue;
    takeRun({record.key * ORLO_MAP_BLOCK_SIZE, OffsetOf(record.physical), record.count * ORLO_MAP_BLOCK_SIZE});
  }
}

}  // namespace tool
