// The log writer: drains the shared log buffer into the log file, which wraps at about 500 MiB.

#include "frame/diagnostics.h"
#include "frame/locks.h"
#include "frame/memory.h"
#include "names/strings.h"

namespace {

DRIVER_GLOBAL KEVENT WriterStop = {};
DRIVER_GLOBAL PVOID WriterThread = nullptr; // referenced

constexpr UNICODE_STRING LOG_FILE_NAME = ConstantString(WTEXT("\\??\\C:\\Rvfsd.log"));
constexpr LONG64 LOG_WRAP_BYTES = 0x1F400000;
constexpr ULONG LOGGING_DELETE_OLD = 0x2;
constexpr ACCESS_MASK LOG_ACCESS = 0xC012019F;
constexpr char END_MARKER[] = "*** End of Log ***";
constexpr ULONG END_MARKER_BYTES = sizeof(END_MARKER) - 1;
static_assert(END_MARKER_BYTES == 18);

constexpr LONG64 PAUSE_UNITS = 1000000; // 100 ms

// Waits Units of 100 ns; FALSE as soon as the writer has to end.
bool Pause(LONG64 Units) {
    LARGE_INTEGER Interval;
    Interval.QuadPart = -Units;
    return KeWaitForSingleObject(&WriterStop, Executive, KernelMode, FALSE, &Interval) == STATUS_TIMEOUT;
}

// The open log file and where the next text goes.
struct LOG_FILE {
    HANDLE Handle;
    LARGE_INTEGER Position;
    bool Wrapped;
};

// Writes at the current position without advancing it.
NTSTATUS WriteAt(LOG_FILE &Log, PCSTR Text, ULONG Length, PULONG_PTR Written) {
    IO_STATUS_BLOCK IoStatus = {};
    LARGE_INTEGER Offset = Log.Position;
    const NTSTATUS Status = ZwWriteFile(Log.Handle, nullptr, nullptr, nullptr, &IoStatus, const_cast<PCHAR>(Text),
                                        Length, &Offset, nullptr);
    *Written = NT_SUCCESS(Status) ? IoStatus.Information : 0;
    return Status;
}

NTSTATUS OpenLog(LOG_FILE &Log) {
    UNICODE_STRING Name = LOG_FILE_NAME;
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &Name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK IoStatus = {};
    Log.Position.QuadPart = 0;
    Log.Wrapped = false;
    return ZwCreateFile(&Log.Handle, LOG_ACCESS, &Attributes, &IoStatus, nullptr, FILE_ATTRIBUTE_NORMAL,
                        FILE_SHARE_READ, FILE_OPEN_IF, FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, nullptr,
                        0);
}

struct DATE_TEXT {
    PCSTR Weekday;
    PCSTR Month;
    TIME_FIELDS Fields;
};

DATE_TEXT LocalDate(LARGE_INTEGER SystemTime) {
    static constexpr PCSTR Weekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr PCSTR Months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    LARGE_INTEGER Local;
    ExSystemTimeToLocalTime(&SystemTime, &Local);
    DATE_TEXT Date = {};
    RtlTimeToTimeFields(&Local, &Date.Fields);
    Date.Weekday = Weekdays[Date.Fields.Weekday % 7];
    Date.Month = Months[(Date.Fields.Month + 11) % 12];
    return Date;
}

NTSTATUS WriteBannerLine(LOG_FILE &Log, PCSTR Line, ULONG Length) {
    ULONG_PTR Written = 0;
    const NTSTATUS Status = WriteAt(Log, Line, Length, &Written);
    Log.Position.QuadPart += static_cast<LONG64>(Written);
    return Status;
}

NTSTATUS WriteBanner(LOG_FILE &Log) {
    LARGE_INTEGER Now;
    KeQuerySystemTimePrecise(&Now);
    SYSTEM_TIMEOFDAY_INFORMATION TimeOfDay = {};
    static_assert(sizeof(TimeOfDay) == 48);
    LARGE_INTEGER Boot = Now;
    if (NT_SUCCESS(ZwQuerySystemInformation(SystemTimeOfDayInformation, &TimeOfDay, sizeof(TimeOfDay), nullptr))) {
        Boot = TimeOfDay.BootTime;
    }

    char Line[128];
    const DATE_TEXT Start = LocalDate(Now);
    ULONG Length =
        FormatText(Line, sizeof(Line), "Twfs Log starting %s %s %d, %d %0.2d:%0.2d:%0.2d\n", Start.Weekday, Start.Month,
                   Start.Fields.Day, Start.Fields.Year, Start.Fields.Hour, Start.Fields.Minute, Start.Fields.Second);
    const NTSTATUS Status = WriteBannerLine(Log, Line, Length);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    const DATE_TEXT Booted = LocalDate(Boot);
    Length = FormatText(Line, sizeof(Line), "System Boot Time(0x%I64x) %s %s %d, %d %0.2d:%0.2d:%0.2d\n", Boot.QuadPart,
                        Booted.Weekday, Booted.Month, Booted.Fields.Day, Booted.Fields.Year, Booted.Fields.Hour,
                        Booted.Fields.Minute, Booted.Fields.Second);
    return WriteBannerLine(Log, Line, Length);
}

// Opens the log and writes its banner, however often it takes. Every retry is paced. FALSE when the writer must stop.
bool StartLog(LOG_FILE &Log) {
    do {
        if (NT_SUCCESS(OpenLog(Log))) {
            if (NT_SUCCESS(WriteBanner(Log))) {
                return true;
            }
            ZwClose(Log.Handle);
        }
    } while (Pause(PAUSE_UNITS));
    return false;
}

// Takes the text out of the shared buffer.
ULONG TakeText(PCHAR Buffer) {
    SpinLockHold Hold(g_LogBufferLock);
    const ULONG Length = g_uLogBufferUsed;
    if (g_pLogBuffer != nullptr) {
        RtlCopyMemory(Buffer, g_pLogBuffer, Length);
        g_pLogBuffer[0] = 0;
    }
    g_uLogBufferUsed = 0;
    return Length;
}

// Writes what the shared buffer holds; FALSE when it was empty.
bool Drain(LOG_FILE &Log, PCHAR Buffer) {
    const ULONG Length = TakeText(Buffer);
    if (Length == 0) {
        return false;
    }
    // A block that would pass the wrap size still goes behind the text; what comes next goes to the start.
    const bool WrapsNow = Log.Position.QuadPart + Length > LOG_WRAP_BYTES;
    ULONG_PTR Written = 0;
    if (!NT_SUCCESS(WriteAt(Log, Buffer, Length, &Written))) {
        // The block is lost. The file is as it was, so that it keeps no hole and wraps with the next block.
        return true;
    }
    Log.Wrapped = Log.Wrapped || WrapsNow;
    Log.Position.QuadPart = WrapsNow ? 0 : Log.Position.QuadPart + static_cast<LONG64>(Written);
    if (Log.Wrapped) {
        Ignore(WriteAt(Log, END_MARKER, END_MARKER_BYTES, &Written), "the marker is rewritten with the next text");
    }
    return true;
}

NTSTATUS RunWriter() {
    PCHAR Buffer = static_cast<PCHAR>(ExAllocatePoolWithTag(NonPagedPoolNx, LOG_BUFFER_BYTES, POOL_TAG_LOG));
    if (Buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ScopeExit FreeBuffer([Buffer] { ExFreePoolWithTag(Buffer, POOL_TAG_LOG); });
    LOG_FILE Log = {};
    if (!StartLog(Log)) {
        return STATUS_SUCCESS;
    }
    // Also a stream of text that never ends must not keep the writer from ending.
    while (Pause(Drain(Log, Buffer) ? 0 : PAUSE_UNITS)) {
    }
    Drain(Log, Buffer); // what came between the last look and the end
    ZwClose(Log.Handle);
    return STATUS_SUCCESS;
}

} // namespace

VOID NTAPI NtFsdLogWriter(PVOID Context) {
    UNREFERENCED_PARAMETER(Context);
    PsTerminateSystemThread(RunWriter());
}

void NtFsdStartLogWriter() {
    if (g_uDebugLogging == 0) {
        return;
    }
    if (g_uDebugLogging & LOGGING_DELETE_OLD) {
        UNICODE_STRING Name = LOG_FILE_NAME;
        OBJECT_ATTRIBUTES Attributes;
        InitializeObjectAttributes(&Attributes, &Name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        Ignore(ZwDeleteFile(&Attributes), "there may be no old log");
    }
    KeInitializeEvent(&WriterStop, NotificationEvent, FALSE);
    HANDLE Thread = nullptr;
    if (!NT_SUCCESS(PsCreateSystemThread(&Thread, 0, nullptr, nullptr, nullptr, NtFsdLogWriter, nullptr))) {
        return;
    }
    PVOID Object = nullptr;
    if (NT_SUCCESS(ObReferenceObjectByHandle(Thread, 0, nullptr, KernelMode, &Object, nullptr))) {
        __atomic_store_n(&WriterThread, Object, __ATOMIC_RELEASE);
    } else {
        KeSetEvent(&WriterStop, IO_NO_INCREMENT, FALSE); // nobody could wait for it: rather no log
    }
    ZwClose(Thread);
}

void NtFsdStopDebug() {
    // Waits for the thread itself: after a failed start its code goes with the image.
    const PVOID Writer = __atomic_exchange_n(&WriterThread, nullptr, __ATOMIC_ACQ_REL);
    if (Writer != nullptr) {
        KeSetEvent(&WriterStop, IO_NO_INCREMENT, FALSE);
        KeWaitForSingleObject(Writer, Executive, KernelMode, FALSE, nullptr);
        ObfDereferenceObject(Writer);
    }
    PCHAR Buffer;
    {
        SpinLockHold Hold(g_LogBufferLock);
        Buffer = g_pLogBuffer;
        g_pLogBuffer = nullptr;
        g_uLogBufferUsed = 0;
    }
    TwFreeMemory(Buffer);
}
