#include "frame/diagnostics.h"

#include "frame/configuration.h"
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

bool EndsLine(PCSTR Text) {
    const size_t Length = strlen(Text);
    return Length != 0 && Text[Length - 1] == '\n';
}

// Gives a line of Length bytes that was cut its end back, or the next one would stand behind it. Returns its length.
ULONG RestoreEnd(PCHAR Line, ULONG Length) {
    if (Length == 0 || Line[Length - 1] != '\n') {
        Line[Length++] = '\n';
        Line[Length] = '\0';
    }
    return Length;
}

// Formats a line of at most Size - 1 bytes and its end.
ULONG FormatLine(PCHAR Line, ULONG Size, PCSTR Format, const FormatArgument *Arguments, ULONG Count) {
    const ULONG Length = FormatBounded(Line, Size - 1, Format, Arguments, Count);
    return EndsLine(Format) ? RestoreEnd(Line, Length) : Length;
}

ULONG AppendPrefixes(PCHAR Line) {
    ULONG Length = 0;
    if (g_uDebugFlags & PREFIX_THREAD) {
        Length = FormatText(Line, LINE_BYTES, "[TID - 0x%I64X] ", reinterpret_cast<ULONG64>(KeGetCurrentThread()));
    }
    if (g_uDebugFlags & PREFIX_PROCESS) {
        Length += FormatText(Line + Length, LINE_BYTES - Length, "[PID - 0x%I64X] ",
                             reinterpret_cast<ULONG64>(IoGetCurrentProcess()));
    }
    return Length;
}

void SendLine(PCSTR Line, ULONG Length) {
    if (g_bDisplayOutput) {
        DbgPrintEx(DEBUG_COMPONENT, 0xFFFFFFFF, "%s", Line);
    }
    NtFsdLogAppend(Line, Length);
}

} // namespace

void NtFsdTraceLine(PCSTR Format, const FormatArgument *Arguments, ULONG Count) {
    PoolPointer<CHAR> Line(static_cast<PCHAR>(TwAllocBuffer(LINE_BYTES)));
    if (!Line) {
        return;
    }
    ULONG Length = AppendPrefixes(Line.Get());
    Length += FormatText(Line.Get() + Length, LINE_BYTES - Length, "[RVFSD] ");
    Length += FormatLine(Line.Get() + Length, LINE_BYTES - Length, Format, Arguments, Count);
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
    const bool Ends = EndsLine(Text);
    Length += FormatText(Line.Get() + Length, LINE_BYTES - Length - (Ends ? 1 : 0), "%s", Text);
    if (Ends) {
        Length = RestoreEnd(Line.Get(), Length);
    }
    SendLine(Line.Get(), Length);
}

void NtFsdPrintLine(PCSTR Format, const FormatArgument *Arguments, ULONG Count) {
    // These lines report that memory ran out: they must not need any.
    char Line[512];
    FormatLine(Line, sizeof(Line), Format, Arguments, Count);
    DbgPrint("%s", Line);
}

void NtFsdLogAppend(PCSTR Text, ULONG Length) {
    if (g_uDebugFlags == 0) {
        return;
    }
    // Shutdown takes the buffer away while refused requests still trace.
    SpinLockHold Hold(g_LogBufferLock);
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
    NtFsdNobodyElse(g_LogBufferLock);
    g_uLogBufferUsed = 0;
    g_pLogBuffer = static_cast<PCHAR>(TwAllocMemory(LOG_BUFFER_BYTES));

    const ULONG Flags = NtFsdReadSwitch(WTEXT("EnableDebug"), 0);
    if (Flags == 0) {
        return;
    }
    g_bDisplayOutput = NtFsdReadSwitch(WTEXT("FsDisplayOutput"), 0) != 0;
    g_uDebugMask = NtFsdReadSwitch(WTEXT("FsDebugLevel"), 0);
    g_uIoctlDebugMessages = NtFsdReadSwitch(WTEXT("RvioctlDbgMsg"), 0);
    g_uDebugLogging = NtFsdReadSwitch(WTEXT("DebugLogging"), 0);
    g_uDebugFlags = Flags;
    g_uTraceGate = g_uDebugMask;
    NtFsdStartLogWriter();
}
