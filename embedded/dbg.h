// Debug output: where DbgPrint and DbgPrintEx go.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "embedded/ke/ke.h"

namespace embedded {

// Where the text goes; an empty function brings stderr back. The sink is called under the room's mutex.
void SetDebugSink(std::function<void(std::string_view)> Sink);

// Formats with the kernel's extensions (%wZ %Z %ws %ls %S %I64 %p as 16 digits). Arguments is a list of the Windows
// calling convention: eight bytes each.
std::string FormatMessage(PCSTR Format, __builtin_ms_va_list Arguments);

} // namespace embedded
