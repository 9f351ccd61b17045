#include "embedded/mm/gone_mappings.h"

#include <atomic>
#include <mutex>
#include <sys/mman.h>

namespace embedded {
namespace {

constexpr size_t GoneMappings = 64;

struct Region {
    std::atomic<ULONG_PTR> Start{0};
    std::atomic<SIZE_T> Bytes{0};
};

std::mutex GoneMutex;
Region Gone[GoneMappings];
size_t NextGone = 0;

} // namespace

void GiveBackMapping(void *Start, SIZE_T Bytes) {
    static_cast<void>(mmap(Start, Bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1, 0));
    std::lock_guard Guard(GoneMutex);
    Region &Oldest = Gone[NextGone++ % GoneMappings];
    const ULONG_PTR OldStart = Oldest.Start.exchange(0);
    if (OldStart != 0) {
        munmap(reinterpret_cast<void *>(OldStart), Oldest.Bytes);
    }
    Oldest.Bytes = Bytes;
    Oldest.Start = reinterpret_cast<ULONG_PTR>(Start);
}

bool IsGoneMapping(const void *Address) {
    const auto Value = reinterpret_cast<ULONG_PTR>(Address);
    for (const Region &Each : Gone) {
        const ULONG_PTR Start = Each.Start.load();
        if (Start != 0 && Value >= Start && Value < Start + Each.Bytes.load()) {
            return true;
        }
    }
    return false;
}

} // namespace embedded
