#include "frame/diagnostics.h"

#include "frame/driver.h"
#include "frame/locks.h"
#include "frame/memory.h"

DRIVER_GLOBAL ULONG g_uDebugFlags = 0;
DRIVER_GLOBAL BOOLEAN g_bDisplayOutput = 0;
DRIVER_GLOBAL ULONG g_uDebugMask = 0;
DRIVER_GLOBAL ULONG g_uIoctlDebugMessages = 0;
DRIVER_GLOBAL ULONG g_uDebugLogging = 0;
DRIVER_GLOBAL ULONG g_uTraceGate = 0;
DRIVER_GLOBAL PCHAR g_pLogBuffer = nullptr;
DRIVER_GLOBAL ULONG g_uLogBufferUsed = 0;
DRIVER_GLOBAL KSPIN_LOCK g_LogBufferLock = 0;

namespace {

constexpr ULONG LINE_BYTES = 4096;
constexpr ULONG PREFIX_PROCESS = 0x2;
constexpr ULONG PREFIX_THREAD = 0x4;
constexpr ULONG DEBUG_COMPONENT = 80; // that the lines are printed under

// Appends formatted text to a line of LINE_BYTES.
template <typename... T>
ULONG Append(PCHAR Line, ULONG Length, PCSTR Format, T... Values) {
    const FormatArgument Arguments[] = {MakeFormatArgument(Values)..., FormatArgument{}};
    return Length + FormatBounded(Line + Length, LINE_BYTES - Length, Format, Arguments, sizeof...(T));
}

ULONG AppendPrefixes(PCHAR Line) {
    ULONG Length = 0;
    if (g_uDebugFlags & PREFIX_THREAD) {
        Length = Append(Line, Length, "[TID - 0x%I64X] ", reinterpret_cast<ULONG64>(KeGetCurrentThread()));
    }
    if (g_uDebugFlags & PREFIX_PROCESS) {
        Length = Append(Line, Length, "[PID - 0x%I64X] ", reinterpret_cast<ULONG64>(IoGetCurrentProcess()));
    }
    return Length;
}

bool EndsLine(PCSTR Format) {
    const size_t Length = strlen(Format);
    return Length != 0 && Format[Length - 1] == '\n';
}

void SendLine(PCSTR Line, ULONG Length) {
    if (g_bDisplayOutput) {
        DbgPrintEx(DEBUG_COMPONENT, 0xFFFFFFFF, "%s", Line);
    }
    NtFsdLogAppend(Line, Length);
}

// A 32-bit switch; a value that cannot be read gives 0.
bool ReadSwitch(PCWSTR Name, PULONG Value) {
    ULONG Length = 0;
    ULONG Read = 0;
    const NTSTATUS Status = NtFsdReadServiceValue(Name, REG_DWORD, sizeof(Read), &Read, &Length);
    *Value = NT_SUCCESS(Status) ? Read : 0;
    return NT_SUCCESS(Status);
}

} // namespace

void NtFsdTraceLine(PCSTR Format, const FormatArgument *Arguments, ULONG Count) {
    PoolPointer<CHAR> Line(static_cast<PCHAR>(TwAllocBuffer(LINE_BYTES)));
    if (!Line) {
        return;
    }
    ULONG Length = AppendPrefixes(Line.Get());
    Length = Append(Line.Get(), Length, "[RVFSD] ");
    // A line that is cut keeps its end, or the next one would stand behind it.
    Length += FormatBounded(Line.Get() + Length, LINE_BYTES - 1 - Length, Format, Arguments, Count);
    if (EndsLine(Format) && Line.Get()[Length - 1] != '\n') {
        Line.Get()[Length++] = '\n';
        Line.Get()[Length] = '\0';
    }
    SendLine(Line.Get(), Length);
}

void NtFsdExternalPrint(PCSTR Text) {
    if (g_uIoctlDebugMessages == 0 || g_uDebugFlags == 0) {
        return;
    }
    ULONG TextLength = 0;
    while (Text[TextLength] != '\0') {
        if (++TextLength > LINE_BYTES) {
            return;
        }
    }
    PoolPointer<CHAR> Line(static_cast<PCHAR>(TwAllocBuffer(LINE_BYTES)));
    if (!Line) {
        return;
    }
    ULONG Length = AppendPrefixes(Line.Get());
    Length = Append(Line.Get(), Length, "%s", Text);
    SendLine(Line.Get(), Length);
}

void NtFsdPrintLine(PCSTR Format, const FormatArgument *Arguments, ULONG Count) {
    // These lines report that memory ran out: they must not need any.
    char Line[512];
    FormatBounded(Line, sizeof(Line), Format, Arguments, Count);
    DbgPrint("%s", Line);
}

void NtFsdLogAppend(PCSTR Text, ULONG Length) {
    if (g_uDebugFlags == 0) {
        return;
    }
    // Shutdown takes the buffer away while refused requests still trace.
    SpinLockHold Hold(&g_LogBufferLock);
    if (g_pLogBuffer == nullptr) {
        return;
    }
    if (Length > LOG_BUFFER_BYTES - g_uLogBufferUsed) {
        RtlZeroMemory(g_pLogBuffer, LOG_BUFFER_BYTES);
        g_uLogBufferUsed = 0;
    }
    RtlCopyMemory(g_pLogBuffer + g_uLogBufferUsed, Text, Length);
    g_uLogBufferUsed += Length;
}

void NtFsdInitDebug() {
    g_uLogBufferUsed = 0;
    g_pLogBuffer = static_cast<PCHAR>(TwAllocMemory(LOG_BUFFER_BYTES));

    ULONG Flags = 0;
    if (!ReadSwitch(WTEXT("EnableDebug"), &Flags) || Flags == 0) {
        return;
    }
    ULONG Display = 0;
    ULONG Mask = 0;
    ReadSwitch(WTEXT("FsDisplayOutput"), &Display);
    ReadSwitch(WTEXT("FsDebugLevel"), &Mask);
    ReadSwitch(WTEXT("RvioctlDbgMsg"), &g_uIoctlDebugMessages);
    ReadSwitch(WTEXT("DebugLogging"), &g_uDebugLogging);
    g_bDisplayOutput = Display != 0;
    g_uDebugMask = Mask;
    g_uDebugFlags = Flags;
    g_uTraceGate = Mask;
    NtFsdStartLogWriter();
}
