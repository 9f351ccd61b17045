#include "providers/directory/record_memory.h"

#include <array>
#include <atomic>
#include <ctime>

namespace providers::directory {
namespace {

constexpr size_t Sets = 1u << 16;
constexpr size_t Ways = 4;
// Two changes closer together than this may leave one time, on the coarsest of file systems.
constexpr int64_t Granularity = 2'100'000'000;
constexpr uint32_t MaxWriteBits = 0xFFF;

struct Entry {
    std::atomic<uint64_t> Check;
    std::atomic<uint64_t> Bits;
    std::atomic<uint64_t> Creation;
};
std::array<std::array<Entry, Ways>, Sets> Table; // all zero: pages that nobody uses are not there

uint64_t Mix(uint64_t Value) {
    Value = (Value ^ (Value >> 30)) * 0xBF58476D1CE4E5B9u;
    Value = (Value ^ (Value >> 27)) * 0x94D049BB133111EBu;
    return Value ^ (Value >> 31);
}

uint64_t NameOf(const ObjectKey &Key, int64_t Changed) {
    return Mix(Mix(Key.Inode) ^ Mix(Key.Device + 0x9E3779B97F4A7C15u) ^ static_cast<uint64_t>(Changed));
}

uint64_t CheckOf(uint64_t Name, uint64_t Bits, uint64_t Creation) {
    return Mix(Name + Mix(Bits + Mix(Creation + 1))) | 1;
}

std::array<Entry, Ways> &SetOf(const ObjectKey &Key) {
    // Numbers given one after another, as in a directory that was filled at once, lie side by side.
    return Table[(Key.Inode ^ Key.Inode >> 16 ^ Key.Inode >> 32) % Sets];
}

} // namespace

bool Recall(const ObjectKey &Key, int64_t Changed, KeptAttributes &Out) {
    const uint64_t Name = NameOf(Key, Changed);
    for (const Entry &Each : SetOf(Key)) {
        const uint64_t Bits = Each.Bits.load(std::memory_order_relaxed);
        const uint64_t Creation = Each.Creation.load(std::memory_order_relaxed);
        if (Each.Check.load(std::memory_order_relaxed) == CheckOf(Name, Bits, Creation)) {
            Out.Attributes = static_cast<uint32_t>(Bits);
            Out.WriteBits = static_cast<uint32_t>(Bits >> 32) & MaxWriteBits;
            Out.HasCreation = Bits >> 63 != 0;
            Out.Creation = static_cast<int64_t>(Creation);
            return true;
        }
    }
    return false;
}

int64_t TimeOfReading() {
    timespec Now;
    clock_gettime(CLOCK_REALTIME_COARSE, &Now);
    return Now.tv_sec * 1'000'000'000 + Now.tv_nsec;
}

void Forget(const ObjectKey &Key) {
    for (Entry &Each : SetOf(Key)) {
        Each.Check.store(0, std::memory_order_relaxed);
    }
}

void Remember(const ObjectKey &Key, int64_t Changed, int64_t Began, const KeptAttributes &Read) {
    // A file system without change times says 0.
    if (Changed <= 0 || Began - Changed < Granularity || Read.WriteBits > MaxWriteBits) {
        return;
    }
    const uint64_t Name = NameOf(Key, Changed);
    const uint64_t Bits =
        uint64_t{Read.Attributes} | uint64_t{Read.WriteBits} << 32 | (Read.HasCreation ? uint64_t{1} << 63 : 0);
    const auto Creation = static_cast<uint64_t>(Read.Creation);
    std::array<Entry, Ways> &Set = SetOf(Key);
    size_t Way = Name % Ways;
    for (size_t Each = 0; Each < Ways; ++Each) {
        if (Set[Each].Check.load(std::memory_order_relaxed) == 0) {
            Way = Each;
            break;
        }
    }
    Set[Way].Bits.store(Bits, std::memory_order_relaxed);
    Set[Way].Creation.store(Creation, std::memory_order_relaxed);
    Set[Way].Check.store(CheckOf(Name, Bits, Creation), std::memory_order_relaxed);
}

} // namespace providers::directory
