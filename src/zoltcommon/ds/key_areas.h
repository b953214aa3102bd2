#pragma once
// Memory for the key areas of a list without a cache. A short list allocates them one by one; a long one cuts them out
// of blocks that the kernel hands out as one huge page each, which makes up most of what a rising insertion costs.

#include "kab/types.h"

namespace kab::ds {

/// A key area with arbitrary contents; null without memory.
BucketlistKeyArea* TakeKeyArea(Bucketlist* list);

/// Keeps an area for the next node.
void PutKeyArea(Bucketlist* list, BucketlistKeyArea* area);

/// Frees all areas, those that nodes hold included.
void FreeKeyAreas(Bucketlist* list);

}  // namespace kab::ds
