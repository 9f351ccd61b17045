// Words in the memory of a caller, who may change them meanwhile: what was read is what counts.
#pragma once

#include "kernel/kernel.h"

template <typename T>
inline T ReadOnce(const T *From) {
    return __atomic_load_n(From, __ATOMIC_RELAXED);
}
