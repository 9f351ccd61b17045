// A block of the framework's memory that is freed by scope.
#pragma once

#include "provider/binding.h"

// The framework must be bound while one is held.
template <typename T>
class [[nodiscard]] RvplBlock {
public:
    RvplBlock() = default;
    // Takes Pointer over, which may be NULL.
    explicit RvplBlock(T *Pointer) : Pointer_(Pointer) {
    }
    RvplBlock(const RvplBlock &) = delete;
    RvplBlock &operator=(const RvplBlock &) = delete;
    ~RvplBlock() {
        if (Pointer_ != nullptr) {
            g_pRvplInterface->Table->Free(g_pRvplInterface, Pointer_);
        }
    }
    // FALSE, and no block, when there is no memory. Must hold none yet.
    bool Allocate(SIZE_T Bytes) {
        Pointer_ = static_cast<T *>(g_pRvplInterface->Table->Allocate(g_pRvplInterface, Bytes));
        return Pointer_ != nullptr;
    }
    T *Get() const {
        return Pointer_;
    }
    explicit operator bool() const {
        return Pointer_ != nullptr;
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
