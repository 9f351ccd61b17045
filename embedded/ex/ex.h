// Executive: pool, resources, lookaside lists.
//
// Pool blocks have a 16-byte header; while Verifying() they are also entered in sharded maps (own mutexes, innermost)
// with the stack that allocated them, end in a canary, and are poisoned and quarantined when freed. Resources live in
// the driver's 104 bytes; waits go through buckets of waiters by address.
#pragma once

#include <string>
#include <vector>

#include "embedded/ke/ke.h"
#include "embedded/verifier/locks.h"

namespace embedded {

// Who owns a block: a block is freed by the routine of its own kind only.
enum class PoolKind : UCHAR { Pool, Irp, Mdl, Object };

// Allocates for one of the kernel's rooms, without fault injection. Not zeroed, 16-byte aligned. NULL when the host
// has no memory. IRQL <= DISPATCH.
PVOID AllocatePool(PoolKind Kind, POOL_TYPE Type, SIZE_T Size, ULONG Tag);
// Frees a block of that kind; Tag 0 fits every tag.
void FreePool(PoolKind Kind, PVOID Block, ULONG Tag);

// Enters blocks of the unverified kind into the thread's books, or takes them out.
inline void CountPool(KThread &Thread, LONG64 Bytes, LONG64 Blocks) {
    Thread.PoolBytes.store(Thread.PoolBytes.load(std::memory_order_relaxed) + Bytes, std::memory_order_relaxed);
    Thread.PoolBlocks.store(Thread.PoolBlocks.load(std::memory_order_relaxed) + Blocks, std::memory_order_relaxed);
}

// The live blocks of a kind with their allocating stacks; one line each.
std::string DescribePool(PoolKind Kind);

// TRUE if Address lies in a block that was allocated while Verifying().
bool IsPoolAddress(const void *Address);

// A line for each aligned word of a live block, allocated while Verifying(), that points between Low and High.
std::vector<std::string> PoolPointersInto(const void *Low, const void *High);

// Frees what a thread that was stopped in a delay had allocated while Verifying().
void FreePoolOfThread(const KThread &Thread);

// "RVFS" from the tag's bytes.
std::string TagText(ULONG Tag);

// Objects that must not be in memory that is freed: resources, lookaside lists.
enum class LiveKind : UCHAR { Resource, Lookaside };
SIZE_T LiveObjects(LiveKind Kind);

inline constexpr ULONG MakeTag(const char (&Text)[5]) {
    return static_cast<ULONG>(static_cast<UCHAR>(Text[0])) | static_cast<ULONG>(static_cast<UCHAR>(Text[1])) << 8 |
           static_cast<ULONG>(static_cast<UCHAR>(Text[2])) << 16 |
           static_cast<ULONG>(static_cast<UCHAR>(Text[3])) << 24;
}

} // namespace embedded
