#include "zoltcommon/ds/key_areas.h"

#include <sys/mman.h>

#include "core/frame/memory.h"

namespace {

constexpr uint64_t kHugePage = uint64_t{2} << 20;
constexpr uint32_t kBlockAreas = kHugePage / sizeof(BucketlistKeyArea);
// Areas that are allocated one by one: a list that never outgrows them leaves nothing of a huge page unused.
constexpr uint32_t kSingleAreas = kBlockAreas;

struct Block {
  Block* next;
  BucketlistKeyArea* areas;
  bool mapped;
};

// A huge page's worth of memory, on the boundary that huge pages have. Null when there is none.
void* MapHugePage() {
  void* mapped = mmap(nullptr, 2 * kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) return nullptr;
  auto* start = static_cast<uint8_t*>(mapped);
  const uint64_t before = (0 - reinterpret_cast<uintptr_t>(start)) % kHugePage;
  if (before != 0) munmap(start, before);
  munmap(start + before + kHugePage, kHugePage - before);
  madvise(start + before, kHugePage, MADV_HUGEPAGE);  // refused, these are pages like any others
  return start + before;
}

}  // namespace

struct BucketlistKeyAreas {
  Block* blocks;            // the newest first
  BucketlistKeyArea* kept;  // free areas, chained through their first keys
  uint32_t left;            // areas of the newest block that were never taken
  uint32_t singles;
};

namespace kab::ds {
namespace {

bool AddBlock(Bucketlist* list) {
  BucketlistKeyAreas* areas = list->keyAreas;
  Owned<Block> block = AllocRecord<Block>();
  if (block == nullptr) return false;
  if (areas->singles == kSingleAreas) block->areas = static_cast<BucketlistKeyArea*>(MapHugePage());
  block->mapped = block->areas != nullptr;
  if (!block->mapped) block->areas = static_cast<BucketlistKeyArea*>(KABAlloc(sizeof(BucketlistKeyArea)));
  if (block->areas == nullptr) return false;
  if (block->mapped) {
    ++list->stats.mappedBlocks;
  } else if (areas->singles < kSingleAreas) {
    ++areas->singles;
  }
  areas->left = block->mapped ? kBlockAreas : 1;
  block->next = areas->blocks;
  areas->blocks = block.release();
  return true;
}

}  // namespace

BucketlistKeyArea* TakeKeyArea(Bucketlist* list) {
  if (list->keyAreas == nullptr) list->keyAreas = AllocRecord<BucketlistKeyAreas>().release();
  BucketlistKeyAreas* areas = list->keyAreas;
  if (areas == nullptr) return nullptr;
  if (areas->kept != nullptr) {
    BucketlistKeyArea* area = areas->kept;
    areas->kept = reinterpret_cast<BucketlistKeyArea*>(area->keys[0]);
    return area;
  }
  if (areas->left == 0 && !AddBlock(list)) return nullptr;
  return areas->blocks->areas + --areas->left;
}

void PutKeyArea(Bucketlist* list, BucketlistKeyArea* area) {
  area->keys[0] = reinterpret_cast<uintptr_t>(list->keyAreas->kept);
  list->keyAreas->kept = area;
}

void FreeKeyAreas(Bucketlist* list) {
  if (list->keyAreas == nullptr) return;
  while (Block* block = list->keyAreas->blocks) {
    list->keyAreas->blocks = block->next;
    if (block->mapped) {
      munmap(block->areas, kHugePage);
      --list->stats.mappedBlocks;
    } else {
      KABFree(&block->areas);
    }
    KABFree(&block);
  }
  KABFree(&list->keyAreas);
}

}  // namespace kab::ds
