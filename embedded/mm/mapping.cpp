#include "embedded/mm/mapping.h"

#include <sys/mman.h>

#include "embedded/mm/faults.h"
#include "embedded/mm/gone_mappings.h"
#include "embedded/mm/mdl.h"

namespace embedded {
namespace {

constexpr SIZE_T MostBytes = 16 * 1024 * 1024; // larger ones are mapped as themselves
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
    GiveBackMapping(reinterpret_cast<void *>(Start), Bytes);
}

} // namespace embedded
