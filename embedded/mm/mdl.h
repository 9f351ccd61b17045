// Memory descriptor lists.
#pragma once

#include "kernel/kernel.h"

namespace embedded {

inline PVOID MdlVirtualAddress(const MDL *Mdl) {
    // By number: the start may be NULL or anything else a caller made up.
    return reinterpret_cast<PVOID>(reinterpret_cast<ULONG_PTR>(Mdl->StartVa) + Mdl->ByteOffset);
}

} // namespace embedded
