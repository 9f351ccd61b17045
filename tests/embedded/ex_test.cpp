#include "embedded/ex/ex.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "embedded/ex/guard.h"
#include "embedded/ex/probe.h"
#include "embedded/ps/ps.h"
#include "embedded/verifier/faults.h"
#include "embedded/verifier/probe.h"
#include "embedded/verifier/report.h"
#include "tests/embedded/planted.h"

namespace embedded {
namespace {

constexpr ULONG Tag = MakeTag("Exec");

// A thread of its own that takes part in Settle and takes resources when told to.
class Actor {
public:
    Actor() : Host_([this] { Run(); }) {
        Ready_.wait(false);
    }
    ~Actor() {
        Do([this] { Quit_ = true; });
        Host_.join();
    }
    // Starts What; returns when it is done or blocked in the kernel.
    void Do(std::function<void()> What) {
        What_ = std::move(What);
        KeSetEvent(&Go_, 0, FALSE);
        Clock::Settle();
    }

private:
    void Run() {
        KeInitializeEvent(&Go_, SynchronizationEvent, FALSE);
        SettleWith Counting;
        Ready_ = true;
        Ready_.notify_one();
        while (!Quit_) {
            KeWaitForSingleObject(&Go_, Executive, KernelMode, FALSE, nullptr);
            What_();
        }
    }

    KEVENT Go_;
    std::function<void()> What_;
    bool Quit_ = false;
    std::atomic<bool> Ready_{false};
    std::thread Host_;
};

// What one of four actors does to a resource, and what comes of it.
struct Turn {
    int Who;
    char Does;         // s acquires it shared, x exclusively, c converts to shared, r releases it
    const char *Holds; // by actor: w waits, x exclusively, s shared, and how often
    char Free;         // what a stranger could have at once: x or s; - for neither
};
struct Play {
    const char *Name;
    ULONG Contentions;
    std::vector<Turn> Turns;
};

const Play Plays[] = {
    {"AnExclusiveHoldIsRecursiveAndCoversSharedAcquires",
     0,
     {{0, 'x', "x1 . . .", '-'},
      {0, 'x', "x2 . . .", '-'},
      {0, 's', "x3 . . .", '-'},
      {0, 'r', "x2 . . .", '-'},
      {0, 'r', "x1 . . .", '-'},
      {0, 'r', ". . . .", 'x'}}},
    {"ANewReaderWaitsBehindAWaitingWriterButAHolderDoesNot",
     2,
     {{0, 's', "s1 . . .", 's'},
      {1, 'x', "s1 w . .", '-'},
      {2, 's', "s1 w w .", '-'},
      {0, 's', "s2 w w .", '-'},
      {0, 'r', "s1 w w .", '-'},
      {0, 'r', ". x1 w .", '-'},
      {1, 'r', ". . s1 .", 's'},
      {2, 'r', ". . . .", 'x'}}},
    {"AReleaseByAWriterLetsAllWaitingReadersInBeforeTheNextWriter",
     3,
     {{0, 'x', "x1 . . .", '-'},
      {1, 's', "x1 w . .", '-'},
      {2, 'x', "x1 w w .", '-'},
      {3, 's', "x1 w w w", '-'},
      {0, 'r', ". s1 w s1", '-'},
      {1, 'r', ". . w s1", '-'},
      {3, 'r', ". . x1 .", '-'},
      {2, 'r', ". . . .", 'x'}}},
    {"ConversionLetsReadersInAndKeepsTheHold",
     1,
     {{0, 'x', "x1 . . .", '-'},
      {0, 'x', "x2 . . .", '-'},
      {1, 's', "x2 w . .", '-'},
      {0, 'c', "s2 s1 . .", 's'},
      {1, 'r', "s2 . . .", 's'},
      {0, 'r', "s1 . . .", 's'},
      {0, 'r', ". . . .", 'x'}}},
};

class ResourceTest : public testing::TestWithParam<Play> {};

TEST_P(ResourceTest, GoesToWhoseTurnItIs) {
    ResetLockOrder();
    ERESOURCE Resource;
    ASSERT_EQ(ExInitializeResourceLite(&Resource), STATUS_SUCCESS);
    std::string Holds[] = {".", ".", ".", "."};
    const auto Act = [&](int Who, char Does) {
        if (Does == 'c') {
            ExConvertExclusiveToSharedLite(&Resource);
        } else if (Does == 'r') {
            ExReleaseResourceLite(&Resource);
            KeLeaveCriticalRegion();
        } else {
            Holds[Who] = "w";
            KeEnterCriticalRegion();
            EXPECT_TRUE((Does == 'x' ? ExAcquireResourceExclusiveLite : ExAcquireResourceSharedLite)(&Resource, TRUE));
        }
        const ULONG Times = ExIsResourceAcquiredSharedLite(&Resource);
        Holds[Who] =
            Times == 0 ? "." : (ExIsResourceAcquiredExclusiveLite(&Resource) ? "x" : "s") + std::to_string(Times);
    };
    const auto IsFree = [&](auto &Acquire) {
        CriticalRegion Region;
        return Acquire(&Resource, FALSE) && (ExReleaseResourceLite(&Resource), true);
    };
    {
        Actor Actors[4];
        for (const Turn &Each : GetParam().Turns) {
            SCOPED_TRACE(Each.Holds);
            Actors[Each.Who].Do([&Act, Who = Each.Who, Does = Each.Does] { Act(Who, Does); });
            EXPECT_EQ(fmt::format("{}", fmt::join(Holds, " ")), Each.Holds);
            EXPECT_EQ(IsFree(ExAcquireResourceSharedLite), Each.Free != '-');
            EXPECT_EQ(IsFree(ExAcquireResourceExclusiveLite), Each.Free == 'x');
        }
    }
    EXPECT_EQ(Resource.ContentionCount, GetParam().Contentions);
    ExDeleteResourceLite(&Resource);
}

INSTANTIATE_TEST_SUITE_P(Ex, ResourceTest, testing::ValuesIn(Plays),
                         [](const auto &Each) { return std::string(Each.param.Name); });

TEST(PoolTest, CountsByTagAndAltogether) {
    const LONG64 Bytes = PoolBytesInUse(), Blocks = PoolBlocksInUse();
    PVOID One = ExAllocatePoolWithTag(NonPagedPool, 100, Tag);
    PVOID Two = ExAllocatePoolWithTag(PagedPool, 28, Tag);
    EXPECT_EQ(PoolBytesInUse() - Bytes, 128);
    EXPECT_EQ(PoolBlocksInUse() - Blocks, 2);
    auto Statistics = PoolStatistics();
    auto Mine = std::ranges::find(Statistics, Tag, &PoolTagUse::Tag);
    ASSERT_NE(Mine, Statistics.end());
    EXPECT_EQ(Mine->Blocks, 2u);
    EXPECT_EQ(Mine->Bytes, 128u);
    EXPECT_TRUE(IsPoolAddress(static_cast<char *>(One) + 99));
    EXPECT_FALSE(IsPoolAddress(&Blocks));
    // Freed elsewhere: the sum still fits.
    std::thread([&] { ExFreePoolWithTag(One, Tag); }).join();
    ExFreePoolWithTag(Two, 0);
    EXPECT_EQ(PoolBytesInUse(), Bytes);
    EXPECT_EQ(PoolBlocksInUse(), Blocks);
}

TEST(PoolTest, BlocksOutliveAChangeOfTheLevel) {
    const LONG64 Blocks = PoolBlocksInUse();
    PVOID Tracked = ExAllocatePoolWithTag(NonPagedPool, 64, Tag);
    SetVerifierLevel(VerifierLevel::Off);
    PVOID Plain = ExAllocatePoolWithTag(NonPagedPool, 64, Tag);
    ExFreePoolWithTag(Tracked, Tag);
    SetVerifierLevel(VerifierLevel::On);
    ExFreePoolWithTag(Plain, Tag);
    EXPECT_EQ(PoolBlocksInUse(), Blocks);
}

#if !defined(__SANITIZE_ADDRESS__)
#if !defined(__has_feature)
#define __has_feature(Feature) 0
#endif
#if !__has_feature(address_sanitizer)
// The address sanitizer reports these itself, at the access.
TEST(PoolDeathTest, OverrunUnderrunAndUseAfterFreeStop) {
    const bool ByPages = PoolGuardsOn();
    SetPoolGuards(false); // pages would stop it earlier
    auto Block = static_cast<volatile char *>(ExAllocatePoolWithTag(NonPagedPool, 33, Tag));
    auto Free = [&] { ExFreePoolWithTag(const_cast<char *>(Block), Tag); };
    EXPECT_DEATH((Block[33] = 1, Free()), "STOP 0x000000C1.*0000023.: bytes behind the block");
    EXPECT_DEATH((Block[-4] = 1, Free()), "STOP 0x000000C1.*0000024.: bytes before the block");
    EXPECT_DEATH(
        {
            Free();
            Block[3] = 1;
            // So many freed blocks push the first one out of quarantine.
            std::vector<PVOID> Others;
            for (int Round = 0; Round < 6000; ++Round) {
                Others.push_back(ExAllocatePoolWithTag(NonPagedPool, 2000, Tag));
            }
            for (PVOID Other : Others) {
                ExFreePoolWithTag(Other, Tag);
            }
        },
        "STOP 0x000000CC.*was written to at offset 3");
    Free();
    SetPoolGuards(ByPages);
}
#else
// What the sanitizer reports at the access itself.
TEST(PoolDeathTest, OverrunUseAfterFreeOverlapAndUnwoundStackStop) {
    auto Block = static_cast<volatile char *>(ExAllocatePoolWithTag(NonPagedPool, 33, Tag));
    const PVOID Start = const_cast<char *>(Block);
    volatile SIZE_T Length = 20;
    EXPECT_DEATH(Block[33] = 1, "heap-buffer-overflow");
    EXPECT_DEATH(
        {
            ExFreePoolWithTag(Start, Tag);
            Block[3] = 1;
        },
        "heap-use-after-free");
    EXPECT_DEATH(RtlCopyMemory(Start, static_cast<char *>(Start) + 4, Length), "memcpy-param-overlap");
    EXPECT_DEATH(
        {
            // A status block of a frame that has gone.
            PIO_STATUS_BLOCK(*volatile Leave)
            () = [] {
                IO_STATUS_BLOCK Local;
                PIO_STATUS_BLOCK volatile Escaped = &Local;
                return static_cast<PIO_STATUS_BLOCK>(Escaped);
            };
            Leave()->Information = 1;
        },
        "stack-use-after-return");
    ExFreePoolWithTag(Start, Tag);
}
#endif
#endif

TEST(LookasideTest, KeepsAsManyEntriesAsItsDepthAndFreesThemAtTheEnd) {
    SetLookasideCaching(LookasideCaching::Always);
    const LONG64 Blocks = PoolBlocksInUse();
    NPAGED_LOOKASIDE_LIST List;
    ExInitializeNPagedLookasideList(&List, nullptr, nullptr, 0, 168, Tag, 4);
    std::vector<PVOID> Entries;
    for (int Index = 0; Index < 6; ++Index) {
        Entries.push_back(ExAllocateFromNPagedLookasideList(&List));
    }
    EXPECT_EQ(PoolBlocksInUse() - Blocks, 6);
    for (PVOID Entry : Entries) {
        ExFreeToNPagedLookasideList(&List, Entry);
    }
    EXPECT_EQ(ExQueryDepthSList(&List.L.ListHead), 4);
    EXPECT_EQ(PoolBlocksInUse() - Blocks, 4);
    EXPECT_EQ(ExAllocateFromNPagedLookasideList(&List), Entries[3]) << "the last one in comes out first";
    ExFreeToNPagedLookasideList(&List, Entries[3]);
    EXPECT_EQ(List.L.TotalAllocates, 7u);
    EXPECT_EQ(List.L.AllocateMisses, 6u);
    EXPECT_EQ(List.L.FreeMisses, 2u);
    ExDeleteNPagedLookasideList(&List);
    EXPECT_EQ(PoolBlocksInUse(), Blocks);
    SetLookasideCaching(LookasideCaching::FollowVerifier);
}

TEST(LookasideTest, EntriesPassBetweenThreadsOnceEach) {
    SLIST_HEADER Head{};
    struct alignas(16) Entry {
        SLIST_ENTRY Link;
        int Uses;
    } Entries[8] = {};
    for (Entry &One : Entries) {
        ExpInterlockedPushEntrySList(&Head, &One.Link);
    }
    std::vector<std::jthread> Threads;
    for (int Thread = 0; Thread < 3; ++Thread) {
        Threads.emplace_back([&] {
            for (int Round = 0; Round < 3000; ++Round) {
                if (auto Mine = reinterpret_cast<Entry *>(ExpInterlockedPopEntrySList(&Head))) {
                    ++Mine->Uses;
                    ExpInterlockedPushEntrySList(&Head, &Mine->Link);
                }
            }
        });
    }
    Threads.clear(); // joins them
    int Uses = 0;
    for (const Entry &One : Entries) {
        Uses += One.Uses;
    }
    EXPECT_EQ(Uses, 9000);
    EXPECT_EQ(Head.Region, 8u);
}

TEST(TimeTest, LocalTimeFollowsTheTimezoneOfTheHost) {
    const char *Old = getenv("TZ");
    const std::string Saved = Old == nullptr ? "" : Old;
    LARGE_INTEGER Universal, Local;
    Universal.QuadPart = 133'485'408'000'000'000; // 2024-01-01
    for (auto [Zone, Hours] : {std::pair{"UTC0", 0}, {"XST-3", 3}, {"YST5", -5}}) {
        setenv("TZ", Zone, 1);
        tzset();
        ExSystemTimeToLocalTime(&Universal, &Local);
        EXPECT_EQ(Local.QuadPart - Universal.QuadPart, Hours * 3600 * Clock::Second) << Zone;
    }
    Old == nullptr ? unsetenv("TZ") : setenv("TZ", Saved.c_str(), 1);
    tzset();
}

// ---- Fault plans -------------------------------------------------------------------------------------------

// Allocates and frees four times. Returns how many failed.
int AllocateSome() {
    FaultScope Driver;
    int Failed = 0;
    for (int Round = 0; Round < 4; ++Round) {
        PVOID Block = ExAllocatePoolWithTag(NonPagedPool, 16, Tag);
        Failed += Block == nullptr;
        if (Block != nullptr) {
            ExFreePoolWithTag(Block, Tag);
        }
    }
    return Failed;
}

TEST(FaultTest, TheNthCallFailsOnceOrFromThenOn) {
    for (ULONG64 Nth = 1; Nth <= 5; ++Nth) {
        {
            PlannedFaults Planned({.How = FaultPlan::Mode::Nth, .Nth = Nth});
            EXPECT_EQ(AllocateSome(), Nth <= 4 ? 1 : 0);
            EXPECT_EQ(GetFaultCounts().TotalCalls(), 4u);
        }
        PlannedFaults Planned({.How = FaultPlan::Mode::NthAndAfter, .Nth = Nth});
        EXPECT_EQ(AllocateSome(), static_cast<int>(5 - Nth));
    }
    EXPECT_EQ(AllocateSome(), 0);
}

} // namespace
} // namespace embedded
