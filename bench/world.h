// A started driver over one Provider, for measuring: verifier off, running clock, nothing printed.
//
// One world at a time; the main thread makes and changes it, between benchmarks. Any thread may use it.
#pragma once

#include <string>
#include <string_view>

#include "embedded/zw.h"
#include "provider/provider_interface.h"

namespace bench {

enum class ProviderKind { Stub, Directory };

// Which driver it is and what its switches say about output. The first is the one of the program; the others are
// built apart and alike, to be compared with each other.
enum class Trace {
    Usual, // off
    BuiltOut,
    Off,
    NoMatch, // on, with a mask that no message has
};

inline constexpr ULONG TransferBytes = 4096;

// Makes the world of this kind the current one, unless it is.
void Use(ProviderKind Provider, Trace Output = Trace::Usual);
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
// A path that names the same file for the driver ("\srv\vol\...").
std::u16string FilePath(unsigned Index);
// The same file's name in the local file system, for the native calls. It has TransferBytes bytes.
std::string NativePath(unsigned Index);

// Opens an existing file through the driver; a failure ends the program.
HANDLE Open(std::u16string_view Path);
void Close(HANDLE Handle);

// A file opened by calling the Provider directly.
struct DirectFile {
    RVHANDLE Volume;
    RVHANDLE File;
};
DirectFile OpenDirect(const std::u16string &Path);
void CloseDirect(const DirectFile &File);

// Makes the Provider calls that one open, cleanup and close of an existing file cost, in the driver's order.
void CallsOfOpenAndClose(const std::u16string &Path);
// Empty when that is what the driver calls; otherwise both lists. Changes the world.
std::string DifferenceOfCalls(ProviderKind Kind);

// Closes the files that the table benchmarks left open.
void EmptyTable();

[[noreturn]] void Fail(std::string_view What);

} // namespace bench
