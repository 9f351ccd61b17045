// What the Provider answers for each error number of the operating system.
#pragma once

#include "provider/provider_interface.h"

namespace providers::directory {

// A Provider error with the given code (its low 16 bits).
constexpr RVSTATUS Failure(USHORT Code) {
    return static_cast<RVSTATUS>(0xC7E70000u | Code);
}

// Codes that the operations answer themselves.
inline constexpr USHORT CODE_NOT_SUPPORTED = 0x0002; // no row in the driver's table: becomes its "not supported"
inline constexpr USHORT CODE_NO_MORE_FILES = 0x0505;
inline constexpr USHORT CODE_NO_SUCH_FILE = 0x0506;
inline constexpr USHORT CODE_SHARING_VIOLATION = 0x050D;
inline constexpr USHORT CODE_EXISTS = 0x0510;
inline constexpr USHORT CODE_NAME_INVALID = 0x0515;
inline constexpr USHORT CODE_QUOTA_EXCEEDED = 0x051D;
inline constexpr USHORT CODE_LOCK_CONFLICT = 0x051E;
inline constexpr USHORT CODE_LOCK_NOT_GRANTED = 0x051F;
inline constexpr USHORT CODE_IS_A_DIRECTORY = 0x0521;
inline constexpr USHORT CODE_NOT_SAME_VOLUME = 0x0534;
inline constexpr USHORT CODE_RANGE_NOT_LOCKED = 0x0537;

// The Provider status for an errno value: Success for 0, Unsuccessful for a number without a row. Every other answer
// is an error whose translation is an error too, never one of the informational codes.
RVSTATUS StatusFromErrno(int Error);

// The same for a failed look-up inside an export, where "crosses a device" is the kernel's word for leaving the export.
RVSTATUS StatusFromLookup(int Error);

} // namespace providers::directory
