// A started driver over one Provider, for measuring: verifier off, running clock, nothing printed.
//
// One world at a time; the main thread makes and changes it, between benchmarks. Any thread may use it.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "embedded/zw/zw.h"
#include "provider/provider_interface.h"

namespace bench {

enum class ProviderKind { Stub, Scripted, Directory };

// Which driver it is and what its switches say about output. The first is the one of the program and the second the
// image; the others are built apart and alike, to be compared with each other.
enum class DriverKind {
    Linked, // trace off
    Image,  // trace off
    Async,  // linked in, trace off, EnableAsyncIo on
    TraceBuiltOut,
    TraceOff,
    TraceNoMatch, // on, with a mask that no message has
};

inline constexpr ULONG TransferBytes = 4096;
inline constexpr unsigned ListedEntries = 100'000;

// The file of DriverKind::Image. Told before the first world, by main.
void SetImage(const std::string &File);

// Makes the world of this kind the current one, unless it is.
void Use(ProviderKind Provider, DriverKind Driver = DriverKind::Linked);
// A fresh world whose Provider calls are recorded; too slow to be measured.
void UseRecorded(ProviderKind Kind);
// The operations called since the last time, one name a line.
std::string TakeRecordedCalls();
// Stops the current world; what is left behind ends the program.
void StopWorld();

// ---- The current world -------------------------------------------------------------------------------------------

// The Provider as the driver calls it.
RVIOM_FSD *Provider();
PDEVICE_OBJECT Device();
RV_SECURITY_CONTEXT *Security();
// A file that no benchmark writes to: nothing that changed in the last moments has to be asked for again with it.
inline constexpr unsigned NeverWritten = 63;
// A path that names the same file for the driver ("\srv\vol\...").
std::u16string FilePath(unsigned Index);
// The same file's name in the local file system, for the native calls. It has TransferBytes bytes.
std::string NativePath(unsigned Index);

// The path of a directory of ListedEntries entries below the volume, which the first call makes.
std::u16string ListedDirectory();
// The same directory's name in the local file system.
std::string NativeListedDirectory();

// Opens an existing file (directory) through the driver; a failure ends the program.
HANDLE Open(std::u16string_view Path);
HANDLE OpenToRename(std::u16string_view Path, bool Directory = false);
HANDLE OpenDirectory(std::u16string_view Path);
// For requests that may not wait.
HANDLE OpenAsynchronous(std::u16string_view Path);
void Close(HANDLE Handle);

// A file opened by calling the Provider directly.
struct DirectFile {
    RVHANDLE Volume;
    RVHANDLE File;
};
DirectFile OpenDirect(const std::u16string &Path);
void CloseDirect(const DirectFile &File);

// Make the Provider calls that one request costs, in the driver's order: the open, cleanup and close of an existing
// file; the query of a class of file information, with the identifier or without; the query of a volume's size.
void CallsOfOpenAndClose(const std::u16string &Path);
void CallsOfFileQuery(const DirectFile &File, bool WithIdentifier);
void CallsOfVolumeSize(const std::u16string &Path);
// Empty when both make the same calls in a recorded world; otherwise both lists.
std::string DifferenceBetween(const std::function<void()> &ByDriver, const std::function<void()> &Direct);

// Closes the files that the table benchmarks left open.
void EmptyTable();

[[noreturn]] void Fail(std::string_view What);

} // namespace bench
