// What tests look at and plant: what pool holds; guards and caches switched.
#pragma once

#include <vector>

#include "embedded/ex/ex.h"

namespace embedded {

// Bytes and blocks handed out and not yet freed, all kinds. Exact when no other thread allocates or frees.
LONG64 PoolBytesInUse();
LONG64 PoolBlocksInUse();

struct PoolTagUse {
    ULONG Tag;
    PoolKind Kind;
    SIZE_T Blocks;
    SIZE_T Bytes;
};

// Use by tag and kind of the blocks that were allocated while Verifying(), largest first.
std::vector<PoolTagUse> PoolStatistics();
// Those of one kind.
SIZE_T PoolBlocksOfKind(PoolKind Kind);

// Guards (guard.h) for the blocks that are allocated from now on, or none.
void SetPoolGuards(bool On);

// Lookaside lists keep no entries while this is on, so that use after free and failing allocations show. Follows the
// verifier unless set.
enum class LookasideCaching { FollowVerifier, Always };
void SetLookasideCaching(LookasideCaching Caching);

} // namespace embedded
