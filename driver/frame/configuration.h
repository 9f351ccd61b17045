// What the service key configures, and the reading of its values.
#pragma once

#include "kernel/kernel.h"

// Switches, read once by DriverEntry.
extern BOOLEAN g_bEnableDirectoryNotify;
extern BOOLEAN g_bEnableAsyncIo;
extern BOOLEAN g_bUNCPathFilterBehavior;
extern BOOLEAN g_bFailDeleteInUseWorkaround;
extern BOOLEAN g_bDeferDeleteAccessCheck;

// Reads a value of at most 4 bytes from the service key into Buffer, which keeps its default when the read fails. Type
// and Size are not used. ResultLength receives the value's length when the value exists. IRQL PASSIVE_LEVEL.
NTSTATUS NtFsdReadServiceValue(PCWSTR ValueName, ULONG Type, ULONG Size, PVOID Buffer, PULONG ResultLength);

// A 32-bit switch of the service key; Default when it cannot be read.
inline ULONG NtFsdReadSwitch(PCWSTR Name, ULONG Default) {
    ULONG Value = Default;
    ULONG Length = 0;
    // A failed read leaves the default in force.
    static_cast<void>(NtFsdReadServiceValue(Name, REG_DWORD, sizeof(Value), &Value, &Length));
    return Value;
}
