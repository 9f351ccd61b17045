#include "providers/directory/record_memory.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <ctime>

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace providers::directory {
namespace {

constexpr size_t Sets = 1u << 16;
constexpr size_t Ways = 4;
// Two changes closer together than this may leave one time, on the coarsest of file systems.
constexpr int64_t Granularity = 2'100'000'000;
constexpr uint32_t MaxWriteBits = 0xFFF;

// The objects that share a place. What tells one from another lies together, in one line of the processor's cache.
struct Set {
    std::array<std::atomic<uint64_t>, Ways> Check;
    std::array<std::atomic<uint64_t>, Ways> Bits;
    std::array<std::atomic<uint64_t>, Ways> Creation;
};
alignas(64) std::array<Set, Sets> Table; // all zero: pages that nobody uses are not there

uint64_t Mix(uint64_t Value) {
    Value = (Value ^ (Value >> 30)) * 0xBF58476D1CE4E5B9u;
    Value = (Value ^ (Value >> 27)) * 0x94D049BB133111EBu;
    return Value ^ (Value >> 31);
}

uint64_t NameOf(const ObjectKey &Key, int64_t Changed) {
    return Mix(Mix(Key.Inode) ^ Mix(Key.Device + 0x9E3779B97F4A7C15u) ^ static_cast<uint64_t>(Changed));
}

// Half of it is the name's, so that most entries of others are told by that alone.
bool MayBeOf(uint64_t Name, uint64_t Check) {
    return (Name ^ Check) >> 32 == 0;
}
uint64_t CheckOf(uint64_t Name, uint64_t Bits, uint64_t Creation) {
    return (Name & ~uint64_t{UINT32_MAX}) |
           static_cast<uint32_t>(Mix(Name + Mix(Bits + 1) + Creation * 0xC2B2AE3D27D4EB4Fu)) | 1;
}

Set &SetOf(uint64_t Inode) {
    // Numbers given one after another, as in a directory that was filled at once, lie side by side.
    return Table[(Inode ^ Inode >> 16 ^ Inode >> 32) % Sets];
}

// File systems whose change times are exact under a kernel that keeps changes apart.
constexpr std::array<unsigned, 4> ExactFileSystems = {0xEF53 /* ext */, 0x58465342 /* xfs */, 0x9123683E /* btrfs */,
                                                      0x01021994 /* tmpfs */};

// Those that are served; 0 = none. More are not exact.
std::array<std::atomic<dev_t>, 16> ExactDevices{};

// Since Linux 6.13 a change after a look at the change time gets a time of its own, however soon it comes. A file in
// memory shows it: without that, all of this falls into one tick of the clock, or at most two.
bool KernelKeepsChangesApart() {
    const UniqueFd File(memfd_create("rvfsd", MFD_CLOEXEC));
    struct stat Before;
    struct stat After;
    bool Apart = fstat(File.Get(), &Before) == 0;
    for (const mode_t Mode : {0600, 0644, 0600, 0644}) {
        Apart = Apart && fchmod(File.Get(), Mode) == 0 && fstat(File.Get(), &After) == 0 &&
                (Before.st_ctim.tv_nsec != After.st_ctim.tv_nsec || Before.st_ctim.tv_sec != After.st_ctim.tv_sec);
        Before = After;
    }
    return Apart;
}

} // namespace

void Expect(uint64_t Inode) {
    const Set &In = SetOf(Inode);
    __builtin_prefetch(&In.Check);
    __builtin_prefetch(&In.Creation);
}

bool Recall(const ObjectKey &Key, int64_t Changed, KeptAttributes &Out) {
    const uint64_t Name = NameOf(Key, Changed);
    const Set &In = SetOf(Key.Inode);
    for (size_t Way = 0; Way < Ways; ++Way) {
        const uint64_t Check = In.Check[Way].load(std::memory_order_relaxed);
        if (!MayBeOf(Name, Check)) {
            continue;
        }
        const uint64_t Bits = In.Bits[Way].load(std::memory_order_relaxed);
        const uint64_t Creation = In.Creation[Way].load(std::memory_order_relaxed);
        if (Check == CheckOf(Name, Bits, Creation)) {
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
    for (std::atomic<uint64_t> &Check : SetOf(Key.Inode).Check) {
        Check.store(0, std::memory_order_relaxed);
    }
}

void NoteFileSystem(int Fd) {
    static const bool OfKernel = KernelKeepsChangesApart();
    struct statfs Info;
    struct stat Stat;
    if (!OfKernel || fstatfs(Fd, &Info) != 0 || fstat(Fd, &Stat) != 0) {
        return;
    }
    const bool Exact = std::find(ExactFileSystems.begin(), ExactFileSystems.end(),
                                 static_cast<unsigned>(Info.f_type)) != ExactFileSystems.end();
    // The number may have been another file system's.
    dev_t Before = Stat.st_dev;
    for (std::atomic<dev_t> &Each : ExactDevices) {
        if (Each.compare_exchange_strong(Before, Exact ? Stat.st_dev : 0)) {
            return;
        }
        Before = Stat.st_dev;
    }
    for (std::atomic<dev_t> &Each : ExactDevices) {
        dev_t Free = 0;
        if (Exact && Each.compare_exchange_strong(Free, Stat.st_dev)) {
            return;
        }
    }
}

void Remember(const ObjectKey &Key, int64_t Changed, int64_t Began, const KeptAttributes &Read) {
    // A file system without change times says 0, and one that keeps whole seconds is not exact.
    const bool Exact = Changed % 1'000'000'000 != 0 &&
                       std::any_of(ExactDevices.begin(), ExactDevices.end(), [&Key](const std::atomic<dev_t> &Each) {
                           return Each.load(std::memory_order_relaxed) == Key.Device;
                       });
    const bool Sure = Exact || Began - Changed >= Granularity;
    if (Changed <= 0 || !Sure || Read.WriteBits > MaxWriteBits) {
        return;
    }
    const uint64_t Name = NameOf(Key, Changed);
    const uint64_t Bits =
        uint64_t{Read.Attributes} | uint64_t{Read.WriteBits} << 32 | (Read.HasCreation ? uint64_t{1} << 63 : 0);
    const auto Creation = static_cast<uint64_t>(Read.Creation);
    Set &In = SetOf(Key.Inode);
    size_t Way = Name % Ways;
    for (size_t Each = 0; Each < Ways; ++Each) {
        if (In.Check[Each].load(std::memory_order_relaxed) == 0) {
            Way = Each;
            break;
        }
    }
    In.Bits[Way].store(Bits, std::memory_order_relaxed);
    In.Creation[Way].store(Creation, std::memory_order_relaxed);
    In.Check[Way].store(CheckOf(Name, Bits, Creation), std::memory_order_relaxed);
}

} // namespace providers::directory
