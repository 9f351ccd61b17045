// A block of the framework's memory that is freed by scope.
#pragma once

#include "frame/memory.h"
#include "provider/binding.h"

// Frees a block of the framework's memory; NULL is ignored. The framework must be bound.
inline VOID NtFsdFreeRvplMemory(PVOID Pointer) {
    if (Pointer != nullptr) {
        g_pRvplInterface->Table->Free(g_pRvplInterface, Pointer);
    }
}

// The framework must be bound while one is held.
template <typename T>
class [[nodiscard]] RvplBlock : public OwnedBlock<T, NtFsdFreeRvplMemory> {
public:
    using OwnedBlock<T, NtFsdFreeRvplMemory>::OwnedBlock;

    // FALSE, and no block, when there is no memory. Must hold none yet.
    bool Allocate(SIZE_T Bytes) {
        this->Adopt(static_cast<T *>(g_pRvplInterface->Table->Allocate(g_pRvplInterface, Bytes)));
        return this->Get() != nullptr;
    }
};
