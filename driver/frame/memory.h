// The general allocator and its owners.
#pragma once

#include "kernel/kernel.h"

inline constexpr ULONG POOL_TAG_GENERAL = 0x53465652;  // "RVFS"
inline constexpr ULONG POOL_TAG_REGISTRY = 0x53465754; // "TWFS"
inline constexpr ULONG POOL_TAG_LOG = 0x474F4C52;      // "RLOG"

// Non-paged pool, tag "RVFS", zero-filled. NULL on failure. The caller owns the block.
PVOID TwAllocMemory(SIZE_T Size);

// The same without the zeros, for buffers that are written before they are read.
PVOID TwAllocBuffer(SIZE_T Size);

// Frees a block of the general allocator; NULL is ignored.
VOID TwFreeMemory(PVOID Pointer);

// Owns one block, which Free frees; that ignores NULL.
template <typename T, VOID (*Free)(PVOID)>
class [[nodiscard]] OwnedBlock {
public:
    OwnedBlock() = default;
    // Takes Pointer over, which may be NULL.
    explicit OwnedBlock(T *Pointer) : Pointer_(Pointer) {
    }
    OwnedBlock(const OwnedBlock &) = delete;
    OwnedBlock &operator=(const OwnedBlock &) = delete;
    ~OwnedBlock() {
        Free(Pointer_);
    }
    T *Get() const {
        return Pointer_;
    }
    T *operator->() const {
        return Pointer_;
    }
    explicit operator bool() const {
        return Pointer_ != nullptr;
    }
    // Takes Pointer over; must own nothing yet.
    void Adopt(T *Pointer) {
        Pointer_ = Pointer;
    }
    // Hands the block on; the new owner frees it.
    [[nodiscard]] T *Detach() {
        T *Pointer = Pointer_;
        Pointer_ = nullptr;
        return Pointer;
    }

private:
    T *Pointer_ = nullptr;
};

// One of the general allocator.
template <typename T>
using PoolPointer = OwnedBlock<T, TwFreeMemory>;

// Runs Action when the scope ends, unless dropped.
template <typename F>
class [[nodiscard]] ScopeExit {
public:
    explicit ScopeExit(F Action) : Action_(Action) {
    }
    ScopeExit(const ScopeExit &) = delete;
    ScopeExit &operator=(const ScopeExit &) = delete;
    ~ScopeExit() {
        if (Armed_) {
            Action_();
        }
    }
    void Drop() {
        Armed_ = false;
    }

private:
    F Action_;
    bool Armed_ = true;
};

// Stops the machine where a promise of the driver's own does not hold, before more breaks.
inline void NtFsdRequire(bool Holds) {
    if (!Holds) {
        __builtin_trap();
    }
}

// Drops a status by name, with the reason in the source.
inline void Ignore(NTSTATUS, PCSTR) {
}
