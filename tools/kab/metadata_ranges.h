#pragma once
// Which ranges of a disk are its metadata: what `kab dump` takes when no range is named.

#include <vector>

#include "kab/types.h"
#include "ranges.h"

namespace tool {

std::vector<Range> MetadataRanges(const KABDiskCtx& ctx);

}  // namespace tool
