#include <array>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include <fmt/format.h>

#include "embedded/base/process.h"
#include "embedded/base/thread.h"
#include "embedded/ob/ob.h"
#include "embedded/verifier/report.h"

namespace embedded {

// An array in chunks that never move, so that a look-up needs no lock of the table: the lowest bit of the entry's
// word is the entry's own lock, taken while the object is referenced or the entry changes hands. Indices are reused in
// the order of their release: a stale handle stays invalid for as long as possible.
class HandleTable {
public:
    // A cache line each: threads that work with handles opened one after the other must not share their words.
    struct alignas(64) Entry {
        std::atomic<ULONG_PTR> Word{0}; // the object, or 0; bit 0 is the lock
        ACCESS_MASK GrantedAccess = 0;
        bool Kernel = false;
    };

    NTSTATUS Insert(Object &Target, ACCESS_MASK GrantedAccess, bool Kernel, HANDLE *Handle) {
        std::unique_lock Lock(Mutex_);
        if (Free_.size() < ReuseDelay && Used_ < Capacity) {
            const size_t Index = Used_++;
            if (Index % ChunkSize == 0) {
                Chunks_[Index / ChunkSize].store(new std::array<Entry, ChunkSize>, std::memory_order_release);
            }
            Free_.push_front(Index);
        }
        if (Free_.empty()) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        const size_t Index = Free_.front();
        Free_.pop_front();
        ++Open_;
        Lock.unlock();

        Target.Reference();
        Target.Handles_.fetch_add(1, std::memory_order_relaxed);
        Entry &Slot = *Find(Index);
        LockEntry(Slot);
        Slot.GrantedAccess = GrantedAccess;
        Slot.Kernel = Kernel;
        Slot.Word.store(reinterpret_cast<ULONG_PTR>(&Target), std::memory_order_release);
        *Handle = ToHandle(Index, Kernel);
        return STATUS_SUCCESS;
    }

    // References the object; null when the handle is not open.
    Object *Reference(HANDLE Handle, ACCESS_MASK *GrantedAccess, bool *Kernel) noexcept {
        Entry *Slot = Find(Handle);
        if (Slot == nullptr) {
            return nullptr;
        }
        auto *Target = reinterpret_cast<Object *>(LockEntry(*Slot));
        if (Target != nullptr && Slot->Kernel != IsKernelHandle(Handle)) {
            Slot->Word.store(reinterpret_cast<ULONG_PTR>(Target), std::memory_order_release);
            return nullptr;
        }
        if (Target != nullptr) {
            Target->Reference();
            *GrantedAccess = Slot->GrantedAccess;
            *Kernel = Slot->Kernel;
        }
        Slot->Word.store(reinterpret_cast<ULONG_PTR>(Target), std::memory_order_release);
        return Target;
    }

    // Empties the entry; false when the handle is not open.
    bool Close(HANDLE Handle) noexcept {
        Entry *Slot = Find(Handle);
        if (Slot == nullptr) {
            return false;
        }
        auto *Target = reinterpret_cast<Object *>(LockEntry(*Slot));
        const bool Open = Target != nullptr && Slot->Kernel == IsKernelHandle(Handle);
        Slot->Word.store(Open ? 0 : reinterpret_cast<ULONG_PTR>(Target), std::memory_order_release);
        if (!Open) {
            return false;
        }
        {
            std::lock_guard Lock(Mutex_);
            Free_.push_back(ToIndex(Handle));
            --Open_;
        }
        if (Target->Handles_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            Target->OnLastHandleClosed();
        }
        Target->Dereference();
        return true;
    }

    size_t Open() {
        std::lock_guard Lock(Mutex_);
        return Open_;
    }

    // Calls Visit for the object of every open handle.
    template <typename F>
    void ForEach(F Visit) {
        size_t End = 0;
        {
            std::lock_guard Lock(Mutex_);
            End = Used_;
        }
        for (size_t Index = 0; Index < End; ++Index) {
            Entry &Slot = *Find(Index);
            auto *Target = reinterpret_cast<Object *>(LockEntry(Slot));
            if (Target != nullptr) {
                Visit(*Target);
            }
            Slot.Word.store(reinterpret_cast<ULONG_PTR>(Target), std::memory_order_release);
        }
    }

    size_t CloseAll(HandleSet Which) noexcept {
        size_t Closed = 0;
        size_t End = 0;
        {
            std::lock_guard Lock(Mutex_);
            End = Used_;
        }
        for (size_t Index = 0; Index < End; ++Index) {
            Closed += Close(ToHandle(Index, false)) || (Which == HandleSet::All && Close(ToHandle(Index, true)));
        }
        return Closed;
    }

    static bool IsKernelHandle(HANDLE Handle) {
        return reinterpret_cast<ULONG_PTR>(Handle) >= KernelBit;
    }

private:
    static constexpr size_t ChunkSize = 1024;
    static constexpr size_t MaximumChunks = 1024;
    static constexpr size_t Capacity = ChunkSize * MaximumChunks;
    static constexpr size_t ReuseDelay = 64;
    static constexpr ULONG_PTR KernelBit = 0xFFFFFFFF80000000;

    static HANDLE ToHandle(size_t Index, bool Kernel) {
        return reinterpret_cast<HANDLE>((Index + 1) * 4 | (Kernel ? KernelBit : 0));
    }
    static size_t ToIndex(HANDLE Handle) {
        return (reinterpret_cast<ULONG_PTR>(Handle) & ~KernelBit) / 4 - 1;
    }

    Entry *Find(size_t Index) noexcept {
        if (Index >= Capacity) {
            return nullptr;
        }
        auto *Chunk = Chunks_[Index / ChunkSize].load(std::memory_order_acquire);
        return Chunk == nullptr ? nullptr : &(*Chunk)[Index % ChunkSize];
    }
    Entry *Find(HANDLE Handle) noexcept {
        // The low two bits belong to the caller, as on the platform.
        return (reinterpret_cast<ULONG_PTR>(Handle) & ~KernelBit) < 4 ? nullptr : Find(ToIndex(Handle));
    }

    // Returns the object behind the entry; storing the word unlocks it again.
    static ULONG_PTR LockEntry(Entry &Slot) noexcept {
        for (;;) {
            ULONG_PTR Word = Slot.Word.load(std::memory_order_relaxed) & ~ULONG_PTR{1};
            if (Slot.Word.compare_exchange_weak(Word, Word | 1, std::memory_order_acquire)) {
                return Word;
            }
            if (Word & 1) {
                std::this_thread::yield();
            }
        }
    }

    std::array<std::atomic<std::array<Entry, ChunkSize> *>, MaximumChunks> Chunks_{};
    std::mutex Mutex_;
    std::deque<size_t> Free_;
    size_t Used_ = 0;
    size_t Open_ = 0;
};

namespace {

HandleTable &Table() {
    static HandleTable &Instance = *new HandleTable;
    return Instance;
}

// What the verifier says to a kernel-mode caller whose handle is no good.
void ReportBadHandle(HANDLE Handle) {
    if (!Verifying()) {
        return;
    }
    if (Handle == nullptr) {
        BugCheck(bugcheck::Verifier, 0xF5, 0, 0, 0, "a NULL handle was used in kernel mode");
    }
    BugCheck(0x93, reinterpret_cast<ULONG_PTR>(Handle), 0, 0, 0, "a handle that is not open was used in kernel mode");
}

void RequireKernelHandle(HANDLE Handle) {
    if (Verifying() && !HandleTable::IsKernelHandle(Handle)) {
        BugCheck(bugcheck::Verifier, 0xF6, reinterpret_cast<ULONG_PTR>(Handle),
                 reinterpret_cast<ULONG_PTR>(CurrentThread().Process), 0, "a user handle was used in kernel mode");
    }
}

} // namespace

KPROCESSOR_MODE PreviousMode() noexcept {
    return CurrentThread().SystemThread ? KernelMode : UserMode;
}

NTSTATUS InsertHandle(Object &Target, ACCESS_MASK GrantedAccess, ULONG Attributes, KPROCESSOR_MODE Mode,
                      HANDLE *Handle) noexcept {
    const bool Kernel =
        Mode == KernelMode && ((Attributes & OBJ_KERNEL_HANDLE) || CurrentThread().Process == SystemProcess());
    return Table().Insert(Target, GrantedAccess, Kernel, Handle);
}

NTSTATUS ReferenceHandle(HANDLE Handle, ObjectType Type, ACCESS_MASK DesiredAccess, KPROCESSOR_MODE Mode,
                         ObjectRef *Target, ACCESS_MASK *GrantedAccess) noexcept {
    ACCESS_MASK Granted = 0;
    bool Kernel = false;
    auto Found = ObjectRef::Adopt(Table().Reference(Handle, &Granted, &Kernel));
    if (!Found || (Mode == UserMode && Kernel)) {
        if (Mode == KernelMode) {
            ReportBadHandle(Handle);
        }
        return STATUS_INVALID_HANDLE;
    }
    if (Mode == KernelMode) {
        RequireKernelHandle(Handle);
    }
    if (Type != ObjectType::Any && Found->Type() != Type) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (Mode == UserMode && (DesiredAccess & ~Granted) != 0) {
        return STATUS_ACCESS_DENIED;
    }
    if (GrantedAccess != nullptr) {
        *GrantedAccess = Granted;
    }
    *Target = std::move(Found);
    return STATUS_SUCCESS;
}

NTSTATUS CloseHandle(HANDLE Handle, KPROCESSOR_MODE Mode) noexcept {
    if (Mode == UserMode && HandleTable::IsKernelHandle(Handle)) {
        return STATUS_INVALID_HANDLE;
    }
    ObjectRef Probe;
    if (const NTSTATUS Status = ReferenceHandle(Handle, ObjectType::Any, 0, Mode, &Probe); !NT_SUCCESS(Status)) {
        return Status;
    }
    return Table().Close(Handle) ? STATUS_SUCCESS : STATUS_INVALID_HANDLE;
}

size_t OpenHandleCount() noexcept {
    return Table().Open();
}

void ForEachOpenObject(const std::function<void(const Object &)> &Visit) {
    Table().ForEach(Visit);
}

std::string DescribeOpenHandles() {
    static constexpr const char *Names[] = {
        "",       "directory",    "symbolic link", "device",        "file", "key",  "event",
        "thread", "UNC provider", "UNC provider",  "system volume", "file", "token"};
    static_assert(std::size(Names) == static_cast<size_t>(ObjectType::Token) + 1);
    std::map<std::string, size_t> Counts;
    Table().ForEach([&](const Object &Each) { ++Counts[Names[static_cast<size_t>(Each.Type())]]; });
    std::string Text;
    for (const auto &[Name, Count] : Counts) {
        Text += fmt::format("{} {} handle(s) still open\n", Count, Name);
    }
    return Text;
}

size_t CloseHandles(HandleSet Which) noexcept {
    return Table().CloseAll(Which);
}

} // namespace embedded
