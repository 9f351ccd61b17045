// Pool and the registry of objects that must not be in freed memory.
#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <deque>
#include <map>
#include <unordered_set>

#include <fmt/format.h>

#include "embedded/ex/ex.h"
#include "embedded/ex/guard.h"
#include "embedded/ex/live.h"
#include "embedded/ex/probe.h"
#include "embedded/verifier/faults.h"
#include "embedded/verifier/leaks.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/stack.h"

#if defined(__SANITIZE_ADDRESS__)
#define EMBEDDED_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define EMBEDDED_ASAN 1
#endif
#endif

namespace embedded {
namespace {

#ifdef EMBEDDED_ASAN
// The sanitizer watches the bytes behind a block and freed blocks better than canaries and a quarantine would.
constexpr bool Guarded = false;
#else
constexpr bool Guarded = true;
#endif

constexpr ULONG LiveMagic = 0x6C6F6F50;
constexpr UCHAR FreedByte = 0xDD;
constexpr ULONG64 CanarySeed = 0xC0FFEE5EA1ED5EEDull;
constexpr SIZE_T CanarySize = Guarded ? sizeof(ULONG64) : 0;
constexpr SIZE_T LargestQuarantined = 64 * 1024;
constexpr SIZE_T QuarantineBytes = 512 * 1024; // per shard
constexpr SIZE_T FreedRemembered = 1024;       // per shard

struct PoolHeader {
    ULONG Magic;
    ULONG Tag;
    ULONG64 Size : 48;
    ULONG64 Kind : 8;
    ULONG64 Tracked : 8;
};
static_assert(sizeof(PoolHeader) == 16);

struct PoolRecord {
    SIZE_T Size;
    ULONG Tag;
    PoolKind Kind;
    POOL_TYPE Type;
    const KThread *Owner;
    bool Guarded; // by pages
    size_t FrameCount;
    std::array<PVOID, 8> Frames;
};

struct QuarantinedBlock {
    PoolHeader *Header;
    SIZE_T Size;
    ULONG Tag;
};

struct Shard {
    std::mutex Mutex;
    std::map<ULONG_PTR, PoolRecord> Live;
    std::unordered_set<ULONG_PTR> Freed; // addresses whose last event was a free
    std::deque<ULONG_PTR> FreedOrder;
    std::deque<QuarantinedBlock> Quarantine;
    SIZE_T Quarantined = 0;
};

constexpr SIZE_T ShardCount = 16;

std::array<Shard, ShardCount> &Shards() {
    static auto &Instance = *new std::array<Shard, ShardCount>;
    return Instance;
}

// Blocks were allocated unverified at some time: an unknown address may be one of them.
std::atomic<bool> AnyUntracked{false};

ULONG_PTR AddressOf(const void *Pointer) {
    return reinterpret_cast<ULONG_PTR>(Pointer);
}

Shard &ShardOf(const void *Block) {
    return Shards()[(AddressOf(Block) >> 4) * 0x9E3779B97F4A7C15ull >> 60];
}

void Count(LONG64 Bytes, LONG64 Blocks) {
    CountPool(CurrentThread(), Bytes, Blocks);
}

ULONG64 CanaryOf(const void *Block) {
    return CanarySeed ^ AddressOf(Block);
}

bool CanaryIntact(const void *Block, SIZE_T Size) {
    ULONG64 Found = 0;
    memcpy(&Found, static_cast<const char *>(Block) + Size, CanarySize);
    return !Guarded || Found == CanaryOf(Block);
}

const char *KindName(PoolKind Kind) {
    constexpr const char *Names[] = {"pool", "IRP", "MDL", "object"};
    return Names[static_cast<int>(Kind)];
}

std::string DescribeRecord(ULONG_PTR Block, const PoolRecord &Record) {
    std::string Text = fmt::format("{} block 0x{:x}, tag {}, {} bytes, from", KindName(Record.Kind), Block,
                                   TagText(Record.Tag), Record.Size);
    for (size_t Index = 0; Index < Record.FrameCount; ++Index) {
        Text += fmt::format("{} {}", Index == 0 ? "" : " <", DescribeAddress(Record.Frames[Index]));
    }
    return Text + "\n";
}

PVOID AllocateTracked(PoolKind Kind, POOL_TYPE Type, SIZE_T Size, ULONG Tag) {
    // With pages behind it a block needs no canary, which would keep it away from them.
    void *Room = PoolGuardsOn() ? AllocateGuarded(sizeof(PoolHeader) + Size, sizeof(PoolHeader), Tag) : nullptr;
    const bool ByPages = Room != nullptr;
    auto Header = static_cast<PoolHeader *>(ByPages ? Room : std::malloc(sizeof(PoolHeader) + Size + CanarySize));
    if (Header == nullptr) {
        return nullptr;
    }
    *Header = {LiveMagic, Tag, Size, static_cast<ULONG64>(Kind), 1};
    PVOID Block = Header + 1;
    if (Guarded) {
        // What was there before must not pass for zeros.
        memset(Block, 0xCD, Size);
    }
    if (Guarded && !ByPages) {
        ULONG64 Canary = CanaryOf(Block);
        memcpy(static_cast<char *>(Block) + Size, &Canary, sizeof(Canary));
    }
    PoolRecord Record{Size, Tag, Kind, Type, &CurrentThread(), ByPages, 0, {}};
    Record.FrameCount = CaptureStack(Record.Frames.data(), Record.Frames.size());
    Shard &Place = ShardOf(Block);
    std::lock_guard Guard(Place.Mutex);
    Place.Freed.erase(AddressOf(Block));
    Place.Live.emplace(AddressOf(Block), Record);
    return Block;
}

void VerifyAllocate(POOL_TYPE Type, SIZE_T Size) {
    const KIRQL Irql = CurrentThread().Irql;
    auto Stop = [&](ULONG_PTR Which, const char *What) {
        BugCheck(bugcheck::Verifier, Which, Irql, static_cast<ULONG_PTR>(Type), Size, What);
    };
    if (Size == 0) {
        Stop(bugcheck::ZeroBytes, "pool allocation of zero bytes");
    }
    if (Irql > DispatchLevel) {
        Stop(bugcheck::AllocateAboveDispatch, "pool allocation above DISPATCH_LEVEL");
    }
    if (Type == PagedPool && Irql > ApcLevel) {
        Stop(bugcheck::AllocateAboveApc, "paged pool allocation above APC_LEVEL");
    }
}

void VerifyRecord(const void *Block, const PoolRecord &Record, PoolKind Kind, ULONG Tag) {
    const KIRQL Irql = CurrentThread().Irql;
    auto Stop = [&](ULONG Code, ULONG_PTR P1, ULONG_PTR P4, const char *What) {
        BugCheck(Code, P1, AddressOf(Block), Irql, P4,
                 fmt::format("{}: {}", What, DescribeRecord(AddressOf(Block), Record)));
    };
    if (Record.Kind != Kind) {
        Stop(bugcheck::Verifier, Record.Kind == PoolKind::Irp ? bugcheck::IrpFreedAsPool : bugcheck::FreeWrongTag,
             static_cast<ULONG_PTR>(Kind), "freed by the routine of another kind of block");
    }
    if (Tag != 0 && Tag != Record.Tag) {
        Stop(bugcheck::Verifier, bugcheck::FreeWrongTag, Tag, "freed with another tag");
    }
    if (Irql > DispatchLevel) {
        Stop(bugcheck::Verifier, bugcheck::FreeAboveDispatch, 0, "pool freed above DISPATCH_LEVEL");
    }
    if (Record.Type == PagedPool && Irql > ApcLevel) {
        Stop(bugcheck::Verifier, bugcheck::FreeAboveApc, 0, "paged pool freed above APC_LEVEL");
    }
    const PoolHeader *Header = static_cast<const PoolHeader *>(Block) - 1;
    if (Header->Magic != LiveMagic || Header->Size != Record.Size || Header->Tag != Record.Tag) {
        Stop(bugcheck::BadPoolCaller, AddressOf(Block), 0x24, "bytes before the block were overwritten");
    }
    if (!Record.Guarded && !CanaryIntact(Block, Record.Size)) {
        Stop(bugcheck::BadPoolCaller, AddressOf(Block), 0x23, "bytes behind the block were overwritten");
    }
}

void VerifyStillPoisoned(const QuarantinedBlock &Old) {
    auto Bytes = reinterpret_cast<const UCHAR *>(Old.Header + 1);
    auto Changed = std::find_if(Bytes, Bytes + Old.Size, [](UCHAR Byte) { return Byte != FreedByte; });
    if (Changed != Bytes + Old.Size) {
        BugCheck(bugcheck::FreedMemoryTouched, AddressOf(Changed), 1, AddressOf(Bytes), 0,
                 fmt::format("freed block {} of tag {}, {} bytes, was written to at offset {}",
                             static_cast<const void *>(Bytes), TagText(Old.Tag), Old.Size, Changed - Bytes));
    }
}

// Takes the block out of the live map and remembers its address; the shard is locked.
void ForgetLive(Shard &Place, ULONG_PTR Block) {
    Place.Live.erase(Block);
    Place.Freed.insert(Block);
    Place.FreedOrder.push_back(Block);
    if (Place.FreedOrder.size() > FreedRemembered) {
        Place.Freed.erase(Place.FreedOrder.front());
        Place.FreedOrder.pop_front();
    }
}

// Gives the memory back, by way of the quarantine; the shard is locked.
void ReleaseTracked(Shard &Place, PoolHeader *Header, const PoolRecord &Record) {
    Header->Magic = 0;
    if (Record.Guarded) {
        FreeGuarded(Header);
        return;
    }
    if (!Guarded || Record.Size > LargestQuarantined) {
        std::free(Header);
        return;
    }
    memset(Header + 1, FreedByte, Record.Size);
    Place.Quarantine.push_back({Header, Record.Size, Record.Tag});
    Place.Quarantined += Record.Size;
    while (Place.Quarantined > QuarantineBytes) {
        VerifyStillPoisoned(Place.Quarantine.front());
        Place.Quarantined -= Place.Quarantine.front().Size;
        std::free(Place.Quarantine.front().Header);
        Place.Quarantine.pop_front();
    }
}

// TRUE if the block was a tracked one. Stops for what is wrong with it.
bool FreeTracked(PoolKind Kind, PVOID Block, ULONG Tag) {
    Shard &Place = ShardOf(Block);
    std::unique_lock Lock(Place.Mutex);
    auto Found = Place.Live.find(AddressOf(Block));
    if (Found == Place.Live.end()) {
        // An address freed once may have come back as a block allocated unverified.
        const PoolHeader *Header = static_cast<const PoolHeader *>(Block) - 1;
        const bool Twice = Place.Freed.contains(AddressOf(Block)) &&
                           !(AnyUntracked && Header->Magic == LiveMagic && Header->Tracked == 0);
        if (!Twice && AnyUntracked) {
            return false;
        }
        BugCheck(bugcheck::Verifier, Twice ? bugcheck::FreeTwice : bugcheck::FreeBadAddress, AddressOf(Block), Tag, 0,
                 Twice ? "block freed twice" : "free of an address that is no block");
    }
    const PoolRecord Record = Found->second;
    Lock.unlock();
    VerifyRecord(Block, Record, Kind, Tag);
    VerifyNoLiveObject(Block, Record.Size);
    ForgetLocksIn(Block, Record.Size);
    Count(-static_cast<LONG64>(Record.Size), -1);
    Lock.lock();
    ForgetLive(Place, AddressOf(Block));
    ReleaseTracked(Place, static_cast<PoolHeader *>(Block) - 1, Record);
    return true;
}

template <class Visitor>
void ForEachBlock(Visitor &&Visit) {
    for (Shard &Place : Shards()) {
        std::lock_guard Guard(Place.Mutex);
        for (const auto &[Block, Record] : Place.Live) {
            Visit(Block, Record);
        }
    }
}

} // namespace

PVOID AllocatePool(PoolKind Kind, POOL_TYPE Type, SIZE_T Size, ULONG Tag) {
    PVOID Block;
    if (Verifying()) {
        VerifyAllocate(Type, Size);
        Block = AllocateTracked(Kind, Type, Size, Tag);
    } else {
        if (!AnyUntracked.load(std::memory_order_relaxed)) {
            AnyUntracked = true;
        }
        auto Header = static_cast<PoolHeader *>(std::malloc(sizeof(PoolHeader) + Size));
        if (Header == nullptr) {
            return nullptr;
        }
        *Header = {LiveMagic, Tag, Size, static_cast<ULONG64>(Kind), 0};
        Block = Header + 1;
    }
    if (Block != nullptr) {
        Count(static_cast<LONG64>(Size), 1);
    }
    return Block;
}

void FreePool(PoolKind Kind, PVOID Block, ULONG Tag) {
    if (Block == nullptr) {
        BugCheck(bugcheck::Verifier, bugcheck::FreeBadAddress, 0, Tag, 0, "free of NULL");
    }
    if (Verifying() && FreeTracked(Kind, Block, Tag)) {
        return;
    }
    PoolHeader *Header = static_cast<PoolHeader *>(Block) - 1;
    if (Header->Magic != LiveMagic) {
        BugCheck(0xC2, 7, Header->Magic, Tag, AddressOf(Block), "free of a block that is not allocated");
    }
    if (Header->Tracked) {
        FreeTracked(Kind, Block, Tag);
        return;
    }
    Count(-static_cast<LONG64>(Header->Size), -1);
    Header->Magic = 0;
    std::free(Header);
}

LONG64 PoolBytesInUse() {
    LONG64 Sum = 0;
    ForEachThread([](KThread &Thread, void *Context) { *static_cast<LONG64 *>(Context) += Thread.PoolBytes; }, &Sum);
    return Sum;
}

LONG64 PoolBlocksInUse() {
    LONG64 Sum = 0;
    ForEachThread([](KThread &Thread, void *Context) { *static_cast<LONG64 *>(Context) += Thread.PoolBlocks; }, &Sum);
    return Sum;
}

std::vector<PoolTagUse> PoolStatistics() {
    std::map<std::pair<ULONG, PoolKind>, PoolTagUse> ByTag;
    ForEachBlock([&](ULONG_PTR, const PoolRecord &Record) {
        PoolTagUse &Use =
            ByTag.try_emplace({Record.Tag, Record.Kind}, PoolTagUse{Record.Tag, Record.Kind, 0, 0}).first->second;
        ++Use.Blocks;
        Use.Bytes += Record.Size;
    });
    std::vector<PoolTagUse> Result;
    for (const auto &[Key, Use] : ByTag) {
        Result.push_back(Use);
    }
    std::ranges::sort(Result, [](const PoolTagUse &A, const PoolTagUse &B) { return A.Bytes > B.Bytes; });
    return Result;
}

std::string DescribePool(PoolKind Kind) {
    std::string Text;
    ForEachBlock([&](ULONG_PTR Block, const PoolRecord &Record) {
        if (Record.Kind == Kind) {
            Text += DescribeRecord(Block, Record);
        }
    });
    return Text;
}

std::vector<std::string> PoolPointersInto(const void *Low, const void *High) {
    std::vector<std::string> Lines;
    ForEachBlock([&](ULONG_PTR Block, const PoolRecord &Record) {
        for (const void *Word : PointersWithin(reinterpret_cast<const void *>(Block), Record.Size, Low, High)) {
            Lines.push_back(fmt::format("a {} block of tag {} points to {}", KindName(Record.Kind), TagText(Record.Tag),
                                        DescribeAddress(Word)));
        }
    });
    return Lines;
}

SIZE_T PoolBlocksOfKind(PoolKind Kind) {
    SIZE_T Blocks = 0;
    ForEachBlock([&](ULONG_PTR, const PoolRecord &Record) { Blocks += Record.Kind == Kind; });
    return Blocks;
}

bool IsPoolAddress(const void *Address) {
    for (Shard &Place : Shards()) {
        std::lock_guard Guard(Place.Mutex);
        auto Next = Place.Live.upper_bound(AddressOf(Address));
        if (Next != Place.Live.begin()) {
            const auto &[Block, Record] = *std::prev(Next);
            if (AddressOf(Address) < Block + Record.Size) {
                return true;
            }
        }
    }
    return false;
}

void FreePoolOfThread(const KThread &Thread) {
    std::vector<ULONG_PTR> Blocks;
    ForEachBlock([&](ULONG_PTR Block, const PoolRecord &Record) {
        if (Record.Owner == &Thread && Record.Kind == PoolKind::Pool) {
            Blocks.push_back(Block);
        }
    });
    for (ULONG_PTR Block : Blocks) {
        FreePool(PoolKind::Pool, reinterpret_cast<PVOID>(Block), 0);
    }
}

std::string TagText(ULONG Tag) {
    std::string Text;
    for (int Index = 0; Index < 4; ++Index) {
        auto Letter = static_cast<UCHAR>(Tag >> (8 * Index));
        Text += std::isprint(Letter) ? static_cast<char>(Letter) : '.';
    }
    return Text;
}

// Registered when the program starts; leaks are looked for long after.
[[maybe_unused]] const bool LeakChecksRegistered = [] {
    RegisterLeakCheck("pool", [] {
        return DescribePool(PoolKind::Pool) + DescribePool(PoolKind::Irp) + DescribePool(PoolKind::Mdl) +
               DescribePool(PoolKind::Object);
    });
    RegisterLeakCheck("resources and lookaside lists", [] {
        std::string Text;
        if (SIZE_T Count = LiveObjects(LiveKind::Resource)) {
            Text += fmt::format("{} resources not deleted\n", Count);
        }
        if (SIZE_T Count = LiveObjects(LiveKind::Lookaside)) {
            Text += fmt::format("{} lookaside lists not deleted\n", Count);
        }
        return Text;
    });
    return true;
}();

} // namespace embedded

using namespace embedded;

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) noexcept {
    if (ShouldFail(FaultKind::Pool)) {
        return nullptr;
    }
    return AllocatePool(PoolKind::Pool, PoolType, NumberOfBytes, Tag);
}

VOID NTAPI ExFreePoolWithTag(PVOID Pointer, ULONG Tag) noexcept {
    FreePool(PoolKind::Pool, Pointer, Tag);
}
