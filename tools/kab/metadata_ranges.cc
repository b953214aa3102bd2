#include "metadata_ranges.h"

#include <algorithm>

namespace tool {

std::vector<Range> MetadataRanges(const KABDiskCtx& ctx) {
  // The Arvo block, with both encryption blocks inside it, and the head of the data area, where every layout that
  // can lie there keeps its superblocks.
  return {{ctx.metaOffset, KAB_META_BLOCK_SIZE}, {ctx.dataOffset, std::min<uint64_t>(ctx.metaReserve, ctx.usableSize)}};
}

}  // namespace tool
