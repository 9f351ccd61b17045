#include "embedded/mm/faults.h"
#include "embedded/mm/mm.h"

#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "embedded/ex/ex.h"
#include "embedded/ex/probe.h"
#include "embedded/ps/ps.h"
#include "embedded/verifier/faults.h"

namespace embedded {
namespace {

// Four pages: writable, read-only, none, writable.
class Pages {
public:
    Pages() {
        Start_ = static_cast<char *>(
            mmap(nullptr, 4 * PAGE_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(Start_ + PAGE_SIZE, PAGE_SIZE, PROT_READ);
        mprotect(Start_ + 2 * PAGE_SIZE, PAGE_SIZE, PROT_NONE);
    }
    ~Pages() {
        munmap(Start_, 4 * PAGE_SIZE);
    }
    Pages(const Pages &) = delete;
    Pages &operator=(const Pages &) = delete;
    char *At(SIZE_T Offset) const {
        return Start_ + Offset;
    }

private:
    char *Start_;
};

NTSTATUS LockAndUnlock(PVOID Address, ULONG Length, KPROCESSOR_MODE Mode, LOCK_OPERATION Operation) {
    PMDL Mdl = IoAllocateMdl(Address, Length, FALSE, FALSE, nullptr);
    const CSHORT Before = Mdl->MdlFlags;
    NTSTATUS Status = KernelProbeAndLockPages(Mdl, Mode, Operation);
    if (NT_SUCCESS(Status)) {
        EXPECT_TRUE(Mdl->MdlFlags & MDL_PAGES_LOCKED);
        MmUnlockPages(Mdl);
    }
    EXPECT_EQ(Mdl->MdlFlags, Before);
    IoFreeMdl(Mdl);
    return Status;
}

TEST(ProbeTest, EachPageOfTheBufferDecides) {
    constexpr NTSTATUS Good = STATUS_SUCCESS, Bad = STATUS_ACCESS_VIOLATION;
    constexpr ULONG Page = PAGE_SIZE;
    const struct {
        const char *Name;
        SIZE_T Offset;
        ULONG Length;
        NTSTATUS Read, Write;
    } Cases[] = {
        {"a page", 0, Page, Good, Good},
        {"a byte", 17, 1, Good, Good},
        {"nothing", 2 * Page, 0, Good, Good},
        {"up to the read-only page", 100, Page - 100, Good, Good},
        {"one byte into the read-only page", 100, Page - 99, Good, Bad},
        {"read-only", Page, Page, Good, Bad},
        {"one byte into nothing", Page, Page + 1, Bad, Bad},
        {"nothing in the middle", 0, 4 * Page, Bad, Bad},
        {"behind nothing", 3 * Page, Page, Good, Good},
        {"last byte of nothing", 3 * Page - 1, 2, Bad, Bad},
    };
    Pages Memory;
    memset(Memory.At(0), 0xA5, PAGE_SIZE);
    for (const auto &Case : Cases) {
        SCOPED_TRACE(Case.Name);
        for (KPROCESSOR_MODE Mode : {KernelMode, UserMode}) {
            EXPECT_EQ(LockAndUnlock(Memory.At(Case.Offset), Case.Length, Mode, IoReadAccess), Case.Read);
            EXPECT_EQ(LockAndUnlock(Memory.At(Case.Offset), Case.Length, Mode, IoWriteAccess), Case.Write);
        }
    }
    EXPECT_EQ(std::count(Memory.At(0), Memory.At(PAGE_SIZE), '\xA5'), PAGE_SIZE) << "a probe changes nothing";
}

TEST(ProbeTest, WhatNoUserHasIsRefused) {
    for (ULONG_PTR Address : {0x0ull, 0x10ull, 0xFFFFull, 0x800000000000ull, 0x8000000000000000ull,
                              0xFFFF800000000000ull, 0xFFFFFFFFFFFFF000ull, 0xFFFFFFFFFFFFFFFFull}) {
        SCOPED_TRACE(Address);
        for (KPROCESSOR_MODE Mode : {KernelMode, UserMode}) {
            EXPECT_EQ(LockAndUnlock(reinterpret_cast<PVOID>(Address), 2 * PAGE_SIZE, Mode, IoReadAccess),
                      STATUS_ACCESS_VIOLATION);
        }
    }
    EXPECT_FALSE(ProbeUserRange(reinterpret_cast<PVOID>(0x20000), ~SIZE_T{0}, false));
    EXPECT_FALSE(ProbeRange(reinterpret_cast<PVOID>(0x20000), ~SIZE_T{0}, false));
    PVOID Block = ExAllocatePoolWithTag(NonPagedPool, 64, MakeTag("User"));
    EXPECT_EQ(LockAndUnlock(Block, 64, KernelMode, IoWriteAccess), STATUS_SUCCESS);
    EXPECT_EQ(LockAndUnlock(Block, 64, UserMode, IoWriteAccess), STATUS_ACCESS_VIOLATION);
    ExFreePoolWithTag(Block, 0);
}

TEST(ProbeTest, ATruncatedFileMappingIsRefusedToo) {
    char Name[] = "/tmp/embedded-mm-XXXXXX";
    int File = mkstemp(Name);
    ASSERT_GE(File, 0);
    unlink(Name);
    ASSERT_EQ(ftruncate(File, PAGE_SIZE), 0);
    void *View = mmap(nullptr, PAGE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, File, 0);
    EXPECT_EQ(LockAndUnlock(View, 10, UserMode, IoWriteAccess), STATUS_SUCCESS);
    ASSERT_EQ(ftruncate(File, 0), 0);
    EXPECT_EQ(LockAndUnlock(View, 10, UserMode, IoReadAccess), STATUS_ACCESS_VIOLATION);
    munmap(View, PAGE_SIZE);
    close(File);
}

TEST(ProbeDeathTest, OtherFaultsStillEndTheProcess) {
    EXPECT_DEATH(
        {
            ProbeRange(nullptr, 1, false);
            raise(SIGSEGV);
        },
        "");
}

TEST(MdlTest, AMappingIsAnotherAddressUntilTheUnlockBringsItsBytes) {
    static char Buffer[3 * PAGE_SIZE];
    PMDL Mdl = IoAllocateMdl(Buffer, sizeof(Buffer), FALSE, FALSE, nullptr);
    ASSERT_EQ(KernelProbeAndLockPages(Mdl, UserMode, IoWriteAccess), STATUS_SUCCESS);
    EXPECT_EQ(SystemProcess()->LockedMdls, 1);
    auto Map = [Mdl] {
        return static_cast<char *>(
            MmMapLockedPagesSpecifyCache(Mdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority));
    };
    Buffer[7] = 'b';
    char *const Mapped = Map();
    EXPECT_TRUE(Mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA);
    EXPECT_EQ(Mdl->MappedSystemVa, Mapped);
    EXPECT_EQ(Map(), Mapped) << "mapped once";
    EXPECT_NE(Mapped, Buffer);
    EXPECT_EQ((Mapped - Buffer) % PAGE_SIZE, 0);
    EXPECT_EQ(Mapped[7], 'b');
    Mapped[sizeof(Buffer) - 1] = 'd';
    Buffer[8] = 'c'; // what only the caller writes stays
    MmUnlockPages(Mdl);
    EXPECT_EQ(Buffer[sizeof(Buffer) - 1], 'd');
    EXPECT_EQ(Buffer[8], 'c');
    EXPECT_EQ(Mdl->MdlFlags, 0);
    EXPECT_EQ(SystemProcess()->LockedMdls, 0);
    IoFreeMdl(Mdl);
    EXPECT_EQ(PoolBlocksOfKind(PoolKind::Mdl), 0u);
}

} // namespace
} // namespace embedded
