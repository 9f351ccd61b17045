#include "embedded/ex/guard.h"

#include <atomic>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <sys/mman.h>

#include <fmt/format.h>

#include "embedded/ex/ex.h"
#include "embedded/ex/probe.h"

namespace embedded {
namespace {

// The host gives a process some 65,000 mappings; a live block takes two.
constexpr size_t MostLive = 12000;
constexpr size_t MostFreed = 4096;

struct GuardedRoom {
    SIZE_T Pages; // bytes of them, without the guard
    ULONG_PTR Block;
    SIZE_T Size;
    ULONG Tag;
    bool Freed;
};

struct GuardedRooms {
    std::mutex Mutex;
    std::map<ULONG_PTR, GuardedRoom> Rooms; // by the first page
    std::deque<ULONG_PTR> Freed;
};

GuardedRooms &All() {
    static GuardedRooms &Instance = *new GuardedRooms;
    return Instance;
}

std::atomic<bool> &Switch() {
    static std::atomic<bool> On{std::getenv("RVFSD_GUARD_POOL") != nullptr};
    return On;
}

ULONG_PTR PageOf(ULONG_PTR Address) {
    return Address & ~ULONG_PTR{PAGE_SIZE - 1};
}

void *At(ULONG_PTR Address) {
    return reinterpret_cast<void *>(Address);
}

} // namespace

bool PoolGuardsOn() {
    return Switch().load(std::memory_order_relaxed);
}

void SetPoolGuards(bool On) {
    Switch() = On;
}

void *AllocateGuarded(SIZE_T Bytes, SIZE_T Offset, ULONG Tag) {
    const SIZE_T Pages = PageOf(Bytes + PAGE_SIZE - 1);
    GuardedRooms &Place = All();
    std::lock_guard Guard(Place.Mutex);
    if (Place.Rooms.size() - Place.Freed.size() >= MostLive) {
        return nullptr;
    }
    void *Mapped = mmap(nullptr, Pages + PAGE_SIZE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (Mapped == MAP_FAILED) {
        return nullptr;
    }
    if (mprotect(Mapped, Pages, PROT_READ | PROT_WRITE) != 0) {
        munmap(Mapped, Pages + PAGE_SIZE);
        return nullptr;
    }
    const auto First = reinterpret_cast<ULONG_PTR>(Mapped);
    const ULONG_PTR Start = (First + Pages - Bytes) & ~ULONG_PTR{15};
    Place.Rooms.insert_or_assign(First, GuardedRoom{Pages, Start + Offset, Bytes - Offset, Tag, false});
    return At(Start);
}

void FreeGuarded(void *Start) {
    GuardedRooms &Place = All();
    std::lock_guard Guard(Place.Mutex);
    const ULONG_PTR First = PageOf(reinterpret_cast<ULONG_PTR>(Start));
    const auto Found = Place.Rooms.find(First);
    Found->second.Freed = true;
    // Gives the memory back, keeps the addresses.
    static_cast<void>(mmap(At(First), Found->second.Pages, PROT_NONE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1, 0));
    Place.Freed.push_back(First);
    if (Place.Freed.size() > MostFreed) {
        const auto Oldest = Place.Rooms.find(Place.Freed.front());
        munmap(At(Oldest->first), Oldest->second.Pages + PAGE_SIZE);
        Place.Rooms.erase(Oldest);
        Place.Freed.pop_front();
    }
}

std::string DescribeGuarded(const void *Address) {
    GuardedRooms &Place = All();
    const auto Value = reinterpret_cast<ULONG_PTR>(Address);
    std::unique_lock Lock(Place.Mutex, std::try_to_lock);
    if (!Lock) {
        return {};
    }
    auto Found = Place.Rooms.upper_bound(Value);
    if (Found == Place.Rooms.begin()) {
        return {};
    }
    const auto &[First, Room] = *--Found;
    if (Value >= First + Room.Pages + PAGE_SIZE) {
        return {};
    }
    return Room.Freed ? fmt::format(", {} bytes into a freed block of tag {}, {} bytes", Value - Room.Block,
                                    TagText(Room.Tag), Room.Size)
                      : fmt::format(", behind a block of tag {}, {} bytes at 0x{:x}", TagText(Room.Tag), Room.Size,
                                    Room.Block);
}

} // namespace embedded
