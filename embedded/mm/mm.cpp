#include "embedded/mm/mm.h"

#include <atomic>
#include <utility>

#include <fmt/format.h>

#include "embedded/base/process.h"
#include "embedded/base/thread.h"
#include "embedded/ex/ex.h"
#include "embedded/mm/mapping.h"
#include "embedded/mm/probe.h"
#include "embedded/verifier/faults.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"

namespace embedded {
namespace {

constexpr ULONG_PTR UserStart = 0x10000;
// Linux hands out the last 64 KiB below the end too, which Windows does not: a main thread's stack begins there when
// the address space is not randomised.
constexpr ULONG_PTR UserEnd = 0x00007FFFFFFFF000;
constexpr ULONG MdlTag = 0x206C644D; // "Mdl "

ULONG_PTR AddressOf(const void *Pointer) {
    return reinterpret_cast<ULONG_PTR>(Pointer);
}

std::atomic<MM_SYSTEMSIZE> SystemSize{MmLargeSystem};
std::atomic<PSECTION_OBJECT_POINTERS> LastClosed{nullptr};

[[noreturn]] __attribute__((noinline)) void NTAPI Stop(ULONG_PTR Which, const MDL *Mdl, const char *What) noexcept {
    BugCheck(bugcheck::Verifier, Which, AddressOf(Mdl), static_cast<USHORT>(Mdl->MdlFlags), AddressOf(Mdl->Process),
             fmt::format("{}: MDL {} of {} bytes at {}, flags 0x{:x}", What, static_cast<const void *>(Mdl),
                         Mdl->ByteCount, MdlVirtualAddress(Mdl), static_cast<USHORT>(Mdl->MdlFlags)));
}

bool InUserHalf(ULONG_PTR Start, SIZE_T Length) {
    return Start >= UserStart && Start < UserEnd && Length <= UserEnd - Start;
}

__attribute__((noinline)) PMDL NTAPI NewMdl() noexcept {
    return static_cast<PMDL>(AllocatePool(PoolKind::Mdl, NonPagedPoolNx, sizeof(MDL), MdlTag));
}

__attribute__((noinline)) void NTAPI DeleteMdl(PMDL Mdl) noexcept {
    FreePool(PoolKind::Mdl, Mdl, MdlTag);
}

// Each thread keeps the MDL that it freed last for its next transfer, out of the books as if it were freed. Under the
// verifier every MDL is a block of its own, so that its misuse shows.
void FreeSpareMdl(PMDL Mdl) noexcept {
    CountPool(CurrentThread(), sizeof(MDL), 1);
    DeleteMdl(Mdl);
}

PMDL TakeMdl() {
    KThread &Thread = CurrentThread();
    if (Thread.SpareMdl == nullptr || Verifying()) {
        return NewMdl();
    }
    CountPool(Thread, sizeof(MDL), 1);
    return std::exchange(Thread.SpareMdl, nullptr);
}

void GiveMdl(PMDL Mdl) {
    KThread &Thread = CurrentThread();
    if (Thread.SpareMdl != nullptr || Verifying()) {
        DeleteMdl(Mdl);
        return;
    }
    CountPool(Thread, -static_cast<LONG64>(sizeof(MDL)), -1);
    Thread.SpareMdl = Mdl;
    Thread.FreeSpareMdl = FreeSpareMdl;
}

} // namespace

bool ProbeUserRange(const void *Address, SIZE_T Length, bool Write) {
    if (Length == 0) {
        return true;
    }
    return InUserHalf(AddressOf(Address), Length) && !(Verifying() && IsPoolAddress(Address)) &&
           ProbeRange(Address, Length, Write);
}

void ProbeAndLockPages(PMDL Mdl, KPROCESSOR_MODE Mode, LOCK_OPERATION Operation) {
    RequireIrql(IrqlRuleOf("MmProbeAndLockPages"));
    if (Mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL)) {
        Stop(bugcheck::OwnRule + 4, Mdl, "probe and lock of an MDL that is locked already");
    }
    if (ShouldFail(FaultKind::Mdl)) {
        throw RaisedException{STATUS_WORKING_SET_QUOTA};
    }
    const bool Write = Operation != IoReadAccess;
    const PVOID Address = MdlVirtualAddress(Mdl);
    const bool Accessible =
        Mode == UserMode ? ProbeUserRange(Address, Mdl->ByteCount, Write) : ProbeRange(Address, Mdl->ByteCount, Write);
    if (!Accessible) {
        throw RaisedException{STATUS_ACCESS_VIOLATION};
    }
    Mdl->MdlFlags = static_cast<CSHORT>(Mdl->MdlFlags | MDL_PAGES_LOCKED | (Write ? MDL_WRITE_OPERATION : 0));
    if (Verifying()) {
        Mdl->Process = CurrentThread().Process;
        ++Mdl->Process->LockedMdls;
    }
}

void SetSystemSize(MM_SYSTEMSIZE Size) {
    SystemSize = Size;
}

PSECTION_OBJECT_POINTERS LastSectionClosed() {
    return LastClosed;
}

void ResetSectionCloses() {
    LastClosed = nullptr;
}

} // namespace embedded

using namespace embedded;

PMDL NTAPI IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN, PIRP Irp) noexcept {
    RequireIrql(IrqlRuleOf("IoAllocateMdl"));
    if (ShouldFail(FaultKind::Mdl)) {
        return nullptr;
    }
    const PMDL Mdl = TakeMdl();
    if (Mdl == nullptr) {
        return nullptr;
    }
    const ULONG_PTR Address = AddressOf(VirtualAddress);
    *Mdl = MDL{};
    Mdl->Size = sizeof(MDL);
    Mdl->StartVa = reinterpret_cast<PVOID>(Address & ~ULONG_PTR{PAGE_SIZE - 1});
    Mdl->ByteOffset = static_cast<ULONG>(Address & (PAGE_SIZE - 1));
    Mdl->ByteCount = Length;
    if (Irp != nullptr) {
        PMDL *Link = &Irp->MdlAddress;
        while (SecondaryBuffer && *Link != nullptr) {
            Link = &(*Link)->Next;
        }
        *Link = Mdl;
    }
    return Mdl;
}

VOID NTAPI IoFreeMdl(PMDL Mdl) noexcept {
    RequireIrql(IrqlRuleOf("IoFreeMdl"));
    // Some drivers clear the lock flag themselves after unlocking; a process in the MDL means it was never unlocked.
    if ((Mdl->MdlFlags & MDL_PAGES_LOCKED) || Mdl->Process != nullptr) {
        Stop(bugcheck::FreeLockedMdl, Mdl, "MDL freed while its pages are locked");
    }
    GiveMdl(Mdl);
}

VOID NTAPI MmUnlockPages(PMDL Mdl) noexcept {
    RequireIrql(IrqlRuleOf("MmUnlockPages"));
    if (Mdl->MdlFlags & MDL_PARTIAL) {
        Stop(bugcheck::UnlockPartial, Mdl, "unlock of a partial MDL");
    }
    if (Mdl->MdlFlags & MDL_SOURCE_IS_NONPAGED_POOL) {
        Stop(bugcheck::UnlockNonpaged, Mdl, "unlock of an MDL of nonpaged pool");
    }
    if (!(Mdl->MdlFlags & MDL_PAGES_LOCKED)) {
        Stop(bugcheck::UnlockUnlocked, Mdl, "unlock of an MDL whose pages are not locked");
    }
    if (Mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) {
        UnmapApart(Mdl);
    }
    Mdl->MdlFlags =
        static_cast<CSHORT>(Mdl->MdlFlags & ~(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA | MDL_WRITE_OPERATION));
    Mdl->MappedSystemVa = nullptr;
    if (Mdl->Process != nullptr) {
        --Mdl->Process->LockedMdls;
        Mdl->Process = nullptr;
    }
}

PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDL Mdl, KPROCESSOR_MODE, MEMORY_CACHING_TYPE, PVOID, ULONG, ULONG) noexcept {
    RequireIrql(IrqlRuleOf("MmMapLockedPagesSpecifyCache"));
    if (!(Mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_PARTIAL))) {
        Stop(bugcheck::OwnRule + 5, Mdl, "mapping of an MDL whose pages are not locked");
    }
    if (ShouldFail(FaultKind::Map)) {
        return nullptr;
    }
    if (!(Mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA)) {
        const bool Apart = Verifying() && (Mdl->MdlFlags & MDL_PAGES_LOCKED) && Mdl->Process != nullptr;
        Mdl->MappedSystemVa = Apart ? MapApart(Mdl) : MdlVirtualAddress(Mdl);
    }
    Mdl->MdlFlags = static_cast<CSHORT>(Mdl->MdlFlags | MDL_MAPPED_TO_SYSTEM_VA);
    return Mdl->MappedSystemVa;
}

MM_SYSTEMSIZE NTAPI MmQuerySystemSize() noexcept {
    return SystemSize;
}

BOOLEAN NTAPI MmForceSectionClosed(PSECTION_OBJECT_POINTERS SectionObjectPointer, BOOLEAN) noexcept {
    RequireIrql(IrqlRuleOf("MmForceSectionClosed"));
    LastClosed = SectionObjectPointer;
    return TRUE;
}
