// The memory and the mutexes of the framework's run-time library.
#include "providers/framework/framework.h"

#include <cstdlib>
#include <cstring>

#include <fmt/format.h>

namespace providers {

PVOID Framework::Allocate(SIZE_T Size, unsigned Slot) {
    std::lock_guard Hold(Books_);
    Allocations_++;
    if (FailAllocateIn_ != 0 && --FailAllocateIn_ == 0) {
        return nullptr;
    }
    PVOID Pointer = std::malloc(Size == 0 ? 1 : Size);
    if (Pointer == nullptr) {
        return nullptr;
    }
    // Nothing promises zeroed memory; a caller that counts on it must fail here.
    std::memset(Pointer, 0xA5, Size);
    Blocks_[Pointer] = {Size, Slot};
    return Pointer;
}

void Framework::Free(PVOID Pointer) {
    std::lock_guard Hold(Books_);
    const auto Found = Blocks_.find(Pointer);
    if (Found == Blocks_.end()) {
        Violations_.push_back(fmt::format("free of {}, which is not allocated", fmt::ptr(Pointer)));
        return;
    }
    std::memset(Pointer, 0xDD, Found->second.Size);
    Blocks_.erase(Found);
    std::free(Pointer);
}

RVPSTATUS Framework::CreateMutex(ULONG One, RVPL_MUTEX *Handle) {
    std::lock_guard Hold(Books_);
    if (Handle == nullptr) {
        return RVPSTATUS::BadPointer;
    }
    if (One != 1) {
        Violations_.push_back(fmt::format("mutex created with {} instead of 1", One));
    }
    RVPSTATUS Status = RVPSTATUS::Success;
    bool Store = true;
    if (!CreateMutexFaults_.empty()) {
        std::tie(Status, Store) = CreateMutexFaults_.front();
        CreateMutexFaults_.pop_front();
    }
    if (Store) {
        *Handle = ++LastMutex_;
        Mutexes_[*Handle] = std::make_shared<Mutex>();
    }
    return Status;
}

RVPSTATUS Framework::AcquireMutex(RVPL_MUTEX Handle) {
    std::shared_ptr<Mutex> Found;
    {
        std::lock_guard Hold(Books_);
        if (!AcquireMutexFaults_.empty()) {
            const RVPSTATUS Status = AcquireMutexFaults_.front();
            AcquireMutexFaults_.pop_front();
            return Status;
        }
        const auto Entry = Mutexes_.find(Handle);
        if (Entry == Mutexes_.end()) {
            Violations_.push_back(fmt::format("acquire of mutex {}, which does not exist", Handle));
            return RVPSTATUS::BadPointer;
        }
        if (Entry->second->Owner == std::this_thread::get_id()) {
            Violations_.push_back(fmt::format("mutex {} acquired twice by one thread", Handle));
            return RVPSTATUS::BadPointer;
        }
        Found = Entry->second;
    }
    Found->Lock.lock();
    std::lock_guard Hold(Books_);
    Found->Owner = std::this_thread::get_id();
    return RVPSTATUS::Success;
}

void Framework::ReleaseMutex(RVPL_MUTEX Handle) {
    std::lock_guard Hold(Books_);
    const auto Entry = Mutexes_.find(Handle);
    if (Entry == Mutexes_.end() || Entry->second->Owner != std::this_thread::get_id()) {
        Violations_.push_back(fmt::format("release of mutex {}, which this thread does not hold", Handle));
        return;
    }
    Entry->second->Owner = {};
    Entry->second->Lock.unlock();
}

void Framework::DestroyMutex(RVPL_MUTEX Handle) {
    std::lock_guard Hold(Books_);
    const auto Entry = Mutexes_.find(Handle);
    if (Entry == Mutexes_.end()) {
        Violations_.push_back(fmt::format("destruction of mutex {}, which does not exist", Handle));
        return;
    }
    if (Entry->second->Owner != std::thread::id()) {
        Violations_.push_back(fmt::format("destruction of mutex {} while it is held", Handle));
        return;
    }
    Mutexes_.erase(Entry);
}

} // namespace providers
