#include "embedded/mm/mapping.h"

#include <atomic>
#include <mutex>
#include <sys/mman.h>

namespace embedded {
namespace {

constexpr SIZE_T MostBytes = 16 * 1024 * 1024; // larger ones are mapped as themselves
constexpr size_t GoneMappings = 64;

struct Region {
    std::atomic<ULONG_PTR> Start{0};
    std::atomic<SIZE_T> Bytes{0};
};

std::mutex GoneMutex;
Region Gone[GoneMappings];
size_t NextGone = 0;

// A mapping, and behind it the bytes as they were, which tell what was written.
SIZE_T BytesOfPages(const MDL *Mdl) {
    return (SIZE_T{Mdl->ByteOffset} + Mdl->ByteCount + PAGE_SIZE - 1) & ~SIZE_T{PAGE_SIZE - 1};
}

bool IsApart(const MDL *Mdl) {
    return Mdl->MappedSystemVa != nullptr && Mdl->MappedSystemVa != MdlVirtualAddress(Mdl);
}

// Bytes of anybody's: a buffer may be longer than the object that a sanitizer knows there.
void CopyRaw(void *To, const void *From, SIZE_T Count) {
    asm volatile("rep movsb" : "+D"(To), "+S"(From), "+c"(Count) : : "memory");
}

} // namespace

PVOID MapApart(const MDL *Mdl) {
    const PVOID Address = MdlVirtualAddress(Mdl);
    if (Mdl->ByteCount == 0 || Mdl->ByteCount > MostBytes) {
        return Address;
    }
    const SIZE_T Pages = BytesOfPages(Mdl);
    void *Start = mmap(nullptr, 2 * Pages, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (Start == MAP_FAILED) {
        return Address;
    }
    char *Mapped = static_cast<char *>(Start) + Mdl->ByteOffset;
    // Locked pages stay when their owner unmaps the buffer meanwhile. Here their content is lost then.
    if (ProbeRange(Address, Mdl->ByteCount, false)) {
        CopyRaw(Mapped, Address, Mdl->ByteCount);
    }
    CopyRaw(Mapped + Pages, Mapped, Mdl->ByteCount);
    return Mapped;
}

__attribute__((no_sanitize("address", "thread"))) void WriteBack(const MDL *Mdl) {
    if (!IsApart(Mdl) || !(Mdl->MdlFlags & MDL_WRITE_OPERATION)) {
        return;
    }
    // A caller that has unmapped its buffer meanwhile loses the data, as it would when its process ended.
    if (!ProbeRange(MdlVirtualAddress(Mdl), Mdl->ByteCount, true)) {
        return;
    }
    auto *Mapped = static_cast<volatile char *>(Mdl->MappedSystemVa);
    auto *Before = Mapped + BytesOfPages(Mdl);
    auto *Buffer = static_cast<volatile char *>(MdlVirtualAddress(Mdl));
    for (SIZE_T Index = 0; Index < Mdl->ByteCount; ++Index) {
        if (Mapped[Index] != Before[Index]) {
            const char Written = Mapped[Index];
            Buffer[Index] = Written;
            Before[Index] = Written;
        }
    }
}

void UnmapApart(const MDL *Mdl) {
    if (!IsApart(Mdl)) {
        return;
    }
    WriteBack(Mdl);
    const SIZE_T Bytes = 2 * BytesOfPages(Mdl);
    const ULONG_PTR Start = reinterpret_cast<ULONG_PTR>(Mdl->MappedSystemVa) - Mdl->ByteOffset;
    // Gives the memory back, keeps the addresses.
    static_cast<void>(mmap(reinterpret_cast<void *>(Start), Bytes, PROT_NONE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1, 0));
    std::lock_guard Guard(GoneMutex);
    Region &Oldest = Gone[NextGone++ % GoneMappings];
    const ULONG_PTR OldStart = Oldest.Start.exchange(0);
    if (OldStart != 0) {
        munmap(reinterpret_cast<void *>(OldStart), Oldest.Bytes);
    }
    Oldest.Bytes = Bytes;
    Oldest.Start = Start;
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
