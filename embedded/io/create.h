// What an open asks for and what comes of it.
#pragma once

#include "kernel/kernel.h"

namespace embedded {

// Everything that an open can ask for.
struct CreateParameters {
    POBJECT_ATTRIBUTES ObjectAttributes = nullptr;
    ACCESS_MASK DesiredAccess = 0;
    PLARGE_INTEGER AllocationSize = nullptr;
    ULONG FileAttributes = 0;
    ULONG ShareAccess = 0;
    ULONG Disposition = FILE_OPEN;
    ULONG Options = 0;
    PVOID EaBuffer = nullptr;
    ULONG EaLength = 0;
    KPROCESSOR_MODE Mode = UserMode;
    // Further flags of the stack location: SL_OPEN_TARGET_DIRECTORY, SL_OPEN_PAGING_FILE, SL_FORCE_ACCESS_CHECK.
    UCHAR StackFlags = 0;
    // The checks of arguments that the I/O manager makes for callers in user mode; off, every combination reaches the
    // driver.
    bool CheckParameters = true;
};

struct CreateResult {
    NTSTATUS Status = STATUS_UNSUCCESSFUL;
    ULONG_PTR Information = 0; // what the driver completed with, also on failure
    HANDLE Handle = nullptr;
    bool Asked = false; // the driver was asked: a refusal is its own
};

} // namespace embedded
