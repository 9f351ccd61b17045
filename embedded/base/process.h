// Processes as the embedded kernel knows them: records with a name.
#pragma once

#include <atomic>
#include <string>

#include "kernel/kernel.h"

namespace embedded {

class TokenObject;

inline constexpr ULONG_PTR SystemProcessId = 4;

} // namespace embedded

struct _EPROCESS {
    ULONG_PTR UniqueProcessId;
    std::string Name;
    std::atomic<LONG64> LockedMdls;         // counted while Verifying()
    embedded::TokenObject *Token = nullptr; // null: SYSTEM's. Referenced by the process
};

namespace embedded {

// The process of the kernel itself; threads that never attached act for it. Lives for ever.
inline PEPROCESS SystemProcess() {
    static _EPROCESS &System = *new _EPROCESS{SystemProcessId, "System", 0};
    return &System;
}

} // namespace embedded
