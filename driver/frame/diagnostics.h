// Diagnostic output: the print routine that everything traces through, its switches, and the log buffer.
//
// Whether a line is produced, where it goes and what prefix it carries is decided by registry switches read once at
// start. A call that produces nothing costs a load and a branch; its arguments are not evaluated. Lines are cut at
// 4095 bytes. Callable at any IRQL up to DISPATCH_LEVEL.
#pragma once

#include "frame/format.h"

// Message categories. The set is open: only FsDebugLevel decides which bits produce output.
enum TRACE_MASK : ULONG {
    TRACE_ALWAYS = 0,
    TRACE_ENTRY = 1,
    TRACE_READ = 2,
    TRACE_START = 8,
    TRACE_GENERAL = 16,
    TRACE_CREATE = 32,
    TRACE_DIRECTORY = 64,
    TRACE_FILE_INFO = 128,
    TRACE_VOLUME_INFO = 256,
    TRACE_CLOSE = 512,
    TRACE_CLEANUP = 1024,
    TRACE_WRITE = 2048,
    TRACE_CONTROL = 4096,
    TRACE_EA = 8192,
    TRACE_FLUSH = 16384,
    TRACE_LOCK = 32768,
    TRACE_ERROR = 0x10000,
    TRACE_FACTORY = 0x20000,
    TRACE_PREFIX_DUMP = 0x40000,
    TRACE_NOTIFY = 0x80000,
    TRACE_CREATE_DUMP = 0x100000,
    TRACE_FCB = 0x200000,
    TRACE_READ_DETAIL = 0x800000,
    TRACE_ASYNC = 0x10000000,
    TRACE_EXTERNAL = 0x80000000,
};

extern ULONG g_uDebugFlags;         // EnableDebug: 0 turns all output off
extern BOOLEAN g_bDisplayOutput;    // FsDisplayOutput
extern ULONG g_uDebugMask;          // FsDebugLevel
extern ULONG g_uIoctlDebugMessages; // RvioctlDbgMsg
extern ULONG g_uDebugLogging;       // DebugLogging

// g_uDebugMask while output is on, otherwise 0: what a trace call tests.
extern ULONG g_uTraceGate;

// TRUE when a message of category Mask would be produced.
inline bool TraceWanted([[maybe_unused]] ULONG Mask) {
#ifdef RVFSD_NO_TRACE
    return false; // the benchmarks' measure of what silent messages cost
#else
    return Mask == TRACE_ALWAYS ? g_uDebugFlags != 0 : (g_uTraceGate & Mask) != 0;
#endif
}

// Formats one line and sends it where the switches say. The message is produced whatever its category.
void NtFsdTraceLine(PCSTR Format, const FormatArgument *Arguments, ULONG Count);

// Formats one line for DbgPrint, whatever the switches say.
void NtFsdPrintLine(PCSTR Format, const FormatArgument *Arguments, ULONG Count);

template <typename... T>
__attribute__((noinline, cold)) void NtFsdTraceArguments(PCSTR Format, T... Values) {
    WithFormatArguments([=](auto Arguments, ULONG Count) { NtFsdTraceLine(Format, Arguments, Count); }, Values...);
}

template <typename... T>
__attribute__((noinline, cold)) void NtFsdPrintArguments(PCSTR Format, T... Values) {
    WithFormatArguments([=](auto Arguments, ULONG Count) { NtFsdPrintLine(Format, Arguments, Count); }, Values...);
}

// Prints a message of category Mask. Level has no effect on the output. A macro, so that a filtered call evaluates
// nothing and a format that does not fit its arguments does not compile.
#define NtFsdDebugPrint(Mask, Level, Format, ...)                                                                      \
    do {                                                                                                               \
        static_assert(decltype(FormatTypesOf(__VA_ARGS__))::Match(Format), "format and arguments do not fit");         \
        if (TraceWanted(Mask)) {                                                                                       \
            NtFsdTraceArguments(Format __VA_OPT__(, ) __VA_ARGS__);                                                    \
        }                                                                                                              \
    } while (0)

// Prints unconditionally through DbgPrint: for the few failures that must be seen.
#define NtFsdAlwaysPrint(Format, ...)                                                                                  \
    do {                                                                                                               \
        static_assert(decltype(FormatTypesOf(__VA_ARGS__))::Match(Format), "format and arguments do not fit");         \
        NtFsdPrintArguments(Format __VA_OPT__(, ) __VA_ARGS__);                                                        \
    } while (0)

// Prints text that comes from outside the driver (category TRACE_EXTERNAL): as it is, without driver prefix, only when
// RvioctlDbgMsg is on, and only up to 4096 characters of text; longer text is dropped.
void NtFsdExternalPrint(PCSTR Text);

// Reads the switches, allocates the log buffer and, when asked for, starts the log writer. First call of DriverEntry.
void NtFsdInitDebug();

// Ends what NtFsdInitDebug started, after a failed start or a shutdown: the writer writes what is left and ends, the
// buffer is freed. Waits for the writer.
void NtFsdStopDebug();

// Adds Length bytes to the shared log buffer; drops all unwritten text when they do not fit.
void NtFsdLogAppend(PCSTR Text, ULONG Length);

// Starts the log writer when DebugLogging asks for it, deleting the old log first when its bit 0x2 does.
void NtFsdStartLogWriter();

// The log writer thread.
VOID NTAPI NtFsdLogWriter(PVOID Context);

// ---- Shared with the log writer --------------------------------------------------------------------------------

inline constexpr ULONG LOG_BUFFER_BYTES = 0x800000;

extern KSPIN_LOCK g_LogBufferLock BEHIND(BelowSpinLocks);
extern PCHAR g_pLogBuffer UNDER(g_LogBufferLock);
extern ULONG g_uLogBufferUsed UNDER(g_LogBufferLock);

inline PCSTR TrueOrFalse(bool Value) {
    return Value ? "TRUE" : "FALSE";
}

// Low half of a 64-bit handle or an address, for the messages that show it as %x.
inline ULONG LowPart(ULONG64 Value) {
    return static_cast<ULONG>(Value);
}
inline ULONG LowPart(const void *Address) {
    return LowPart(reinterpret_cast<ULONG64>(Address));
}

// A 64-bit handle, for the messages that show it as %p.
inline const void *AsAddress(ULONG64 Handle) {
    return reinterpret_cast<const void *>(Handle);
}
