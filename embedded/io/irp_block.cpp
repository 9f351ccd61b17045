// The blocks that requests live in: making, keeping and counting them.
#include <array>
#include <mutex>

#include <fmt/format.h>

#if defined(__SANITIZE_ADDRESS__)
#define IO_POISONS_IRPS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define IO_POISONS_IRPS 1
#endif
#endif
#ifdef IO_POISONS_IRPS
#include <sanitizer/asan_interface.h>
#endif

#include "embedded/ex/ex.h"
#include "embedded/image/calls.h"
#include "embedded/io/objects.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/stack.h"

namespace embedded {
namespace {

std::atomic<IrpBlock *> AllBlocks{nullptr};

constexpr size_t GuardedBytes = sizeof(IrpBlock) - offsetof(IrpBlock, Irp);

__attribute__((noinline)) void NTAPI OverwriteIrp(IrpBlock &Block) noexcept {
    memset(static_cast<void *>(&Block.Irp), 0xF1, sizeof(IRP) + 2 * sizeof(IO_STACK_LOCATION));
}

void UnpoisonIrp([[maybe_unused]] IrpBlock &Block) {
#ifdef IO_POISONS_IRPS
    ASAN_UNPOISON_MEMORY_REGION(&Block.Irp, GuardedBytes);
#endif
    static_assert(GuardedBytes >= sizeof(IRP) + 2 * sizeof(IO_STACK_LOCATION));
}

// The free blocks of one thread. The newest goes out first while it is warm; under the verifier the oldest, so that a
// freed block stays recognisable for a while. What a thread leaves goes to a common depot.
class IrpCache {
public:
    ~IrpCache() {
        std::lock_guard Lock(DepotMutex());
        while (Count_ > 0) {
            Depot().push_back(Take(true));
        }
    }

    IrpBlock *Allocate() {
        const bool Verify = Verifying();
        if (Count_ > (Verify ? HeldBack : 0)) {
            return Take(Verify);
        }
        {
            std::lock_guard Lock(DepotMutex());
            if (!Depot().empty()) {
                IrpBlock *Block = Depot().back();
                Depot().pop_back();
                return Block;
            }
        }
        auto *Block = new IrpBlock;
        Block->NextOfAll = AllBlocks.load(std::memory_order_relaxed);
        while (!AllBlocks.compare_exchange_weak(Block->NextOfAll, Block, std::memory_order_release)) {
        }
        return Block;
    }

    void Free(IrpBlock *Block) {
        if (Count_ == Ring_.size()) {
            std::lock_guard Lock(DepotMutex());
            Depot().push_back(Take(true));
        }
        Ring_[(First_ + Count_++) % Ring_.size()] = Block;
    }

private:
    static constexpr size_t HeldBack = 16;

    static std::mutex &DepotMutex() {
        static std::mutex &Mutex = *new std::mutex;
        return Mutex;
    }
    static std::vector<IrpBlock *> &Depot() {
        static auto &Blocks = *new std::vector<IrpBlock *>;
        return Blocks;
    }
    IrpBlock *Take(bool Oldest) {
        --Count_;
        if (!Oldest) {
            return Ring_[(First_ + Count_) % Ring_.size()];
        }
        IrpBlock *Block = Ring_[First_];
        First_ = (First_ + 1) % Ring_.size();
        return Block;
    }

    std::array<IrpBlock *, 32> Ring_{};
    size_t First_ = 0;
    size_t Count_ = 0;
};

IrpCache &ThreadCache() {
    static thread_local IrpCache Cache;
    return Cache;
}

} // namespace

[[noreturn]] void ReportIrp(ULONG_PTR Rule, const IrpBlock &Block, ULONG_PTR P3, std::string_view What) {
    BugCheck(bugcheck::IoVerifier, Rule, reinterpret_cast<ULONG_PTR>(&Block.Irp), P3, 0, What);
}

void NTAPI PoisonIrp(IrpBlock &Block) noexcept {
    if (Verifying()) {
        OverwriteIrp(Block);
    }
#ifdef IO_POISONS_IRPS
    ASAN_POISON_MEMORY_REGION(&Block.Irp, GuardedBytes);
#endif
}

IrpBlock *AllocateIrp(DeviceObject &Device, bool Filter) noexcept {
    const auto StackCount = static_cast<CCHAR>(Device.Nt.StackSize + (Filter ? 1 : 0));
    if (Device.Nt.StackSize < 1 || Device.Nt.StackSize > MaximumStackSize) {
        BugCheck(bugcheck::IoVerifier, bugcheck::OwnRule, reinterpret_cast<ULONG_PTR>(&Device.Nt),
                 static_cast<ULONG_PTR>(Device.Nt.StackSize), 0, "a device's StackSize must be 1 to 7 here");
    }
    IrpBlock *Block = ThreadCache().Allocate();
    UnpoisonIrp(*Block);
    Block->State.store(IrpBlock::InUse, std::memory_order_relaxed);
    Block->Asynchronous = false;
    Block->File = nullptr;
    Block->UserEvent = nullptr;
    Block->Iosb = nullptr;
    Block->CallersMdl = nullptr;
    Block->MustWait = false;
    Block->Process = CurrentThread().Process;
    Block->SystemBuffer = nullptr;
    Block->Garbage = 0;
    Block->CopyTo = nullptr;
    Block->MarkedPending = false;
    Block->CompletedFrom = nullptr;

    IRP &Irp = Block->Irp;
    memset(static_cast<void *>(&Irp), 0, sizeof(IRP) + static_cast<size_t>(StackCount) * sizeof(IO_STACK_LOCATION));
    Irp.Type = IO_TYPE_IRP;
    Irp.Size = static_cast<USHORT>(sizeof(IRP) + static_cast<size_t>(StackCount) * sizeof(IO_STACK_LOCATION));
    Irp.StackCount = StackCount;
    Irp.CurrentLocation = static_cast<CHAR>(Device.Nt.StackSize);
    Irp.Tail.Overlay.CurrentStackLocation = &Block->Stack[Device.Nt.StackSize - 1];
    Irp.Tail.Overlay.Thread = &CurrentThread();
    InitializeListHead(&Irp.ThreadListEntry);
    Irp.Tail.Overlay.CurrentStackLocation->DeviceObject = &Device.Nt;
    return Block;
}

void FreeIrp(IrpBlock *Block) noexcept {
    const uint32_t State = Block->State.load(std::memory_order_relaxed);
    if (!(State & IrpBlock::InUse)) {
        ReportIrp(0x01, *Block, 0, "an IRP was freed twice");
    }
    if ((State & IrpBlock::Dispatched) && !(State & IrpBlock::Completed)) {
        ReportIrp(0x20A, *Block, 0, "an IRP was freed while the driver still had it");
    }
    if (Block->SystemBuffer != nullptr) {
        FreePool(PoolKind::Object, Block->SystemBuffer, 0);
    }
    if (!(State & IrpBlock::Completed)) {
        PoisonIrp(*Block);
    }
    Block->State.store(0, std::memory_order_relaxed);
    ThreadCache().Free(Block);
}

std::string DescribeIrps() {
    std::string Text;
    for (const IrpBlock *Block = AllBlocks.load(std::memory_order_acquire); Block != nullptr;
         Block = Block->NextOfAll) {
        const uint32_t State = Block->State.load(std::memory_order_acquire);
        if (State & IrpBlock::InUse) {
            Text += fmt::format("IRP {} {}\n", static_cast<const void *>(&Block->Irp),
                                State & IrpBlock::Completed    ? "completed, but not freed"
                                : State & IrpBlock::Dispatched ? "in a driver's hands, never completed"
                                                               : "allocated, never sent");
        }
    }
    return Text;
}

std::vector<std::string> IrpPointersInto(const void *Low, const void *High) {
    std::vector<std::string> Lines;
    for (const IrpBlock *Block = AllBlocks.load(std::memory_order_acquire); Block != nullptr;
         Block = Block->NextOfAll) {
        const uint32_t State = Block->State.load(std::memory_order_acquire);
        // What stands in a completed one is nobody's any more.
        if (!(State & IrpBlock::InUse) || (State & IrpBlock::Completed)) {
            continue;
        }
        const size_t Bytes = sizeof(IRP) + static_cast<size_t>(Block->Irp.StackCount) * sizeof(IO_STACK_LOCATION);
        static_assert(offsetof(IrpBlock, Stack) == offsetof(IrpBlock, Irp) + sizeof(IRP));
        for (const void *Word : PointersWithin(&Block->Irp, Bytes, Low, High)) {
            Lines.push_back(
                fmt::format("IRP {} points to {}", static_cast<const void *>(&Block->Irp), DescribeAddress(Word)));
        }
    }
    return Lines;
}

} // namespace embedded
