// The layouts of kernel/layout.h as a table, for a test build of the image to export and the embedded kernel to
// compare.
#pragma once

#include "kernel/kernel.h"
#include "kernel/layout.h"

// One size of a record ("IRP") or offset of a field ("IRP.MdlAddress"). A table ends with a null name.
typedef struct _LAYOUT_ENTRY {
    PCSTR Name;
    ULONG64 Value; // bytes
} LAYOUT_ENTRY;

#define LAYOUT_SIZE_ENTRY(Type, Bytes) {#Type, sizeof(Type)},
#define LAYOUT_FIELD_ENTRY(Type, Member, Offset) {#Type "." #Member, offsetof(Type, Member)},
