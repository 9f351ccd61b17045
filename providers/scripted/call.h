// One recorded Provider call: what came in, from whom, and what went out.
#pragma once

#include "provider/provider_interface.h"
#include "providers/slots.h"
#include "providers/wide_text.h"

#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <variant>
#include <vector>

namespace providers {

// A named argument or result. Absent (a null pointer) prints as "null".
struct Value {
    const char *Name;
    std::variant<std::monostate, ULONG64, std::u16string> Content;
    bool Hex = false;
};

Value Decimal(const char *Name, ULONG64 Number);
Value Bits(const char *Name, ULONG64 Number);
// Text is NUL-terminated and may be nullptr; at most 32767 units are taken.
Value Text(const char *Name, PCWSTR Text);
Value Text(const char *Name, const UNICODE_STRING *Text);

template <class Number>
Value OptionalDecimal(const char *Name, const Number *At) {
    return At == nullptr ? Value{Name, std::monostate{}} : Decimal(Name, static_cast<ULONG64>(*At));
}
template <class Number>
Value OptionalBits(const char *Name, const Number *At) {
    return At == nullptr ? Value{Name, std::monostate{}} : Bits(Name, static_cast<ULONG64>(*At));
}

// Where the caller wants its answers; nullptr for what the operation does not give or the caller does not want.
struct Outputs {
    RVHANDLE *Handle = nullptr;
    ULONG *CreateAction = nullptr;
    PWSTR Path = nullptr; // of RV_PATH_BUFFER_BYTES
    PUNICODE_STRING CountedPath = nullptr;
    ULONG *VolumeFlags = nullptr;
    UCHAR *Identifier = nullptr; // of 16 bytes
    ULONG64 *VolumeLength = nullptr;
    ULONG64 *Free = nullptr;
    ULONG64 *QuotaAllowed = nullptr;
    ULONG64 *FreeAfterQuota = nullptr;
    ULONG *Attributes = nullptr;
    LONG64 *Creation = nullptr;
    LONG64 *LastWrite = nullptr;
    LONG64 *LastAccess = nullptr;
    ULONG64 *EndOfFile = nullptr;
    ULONG64 *FileId = nullptr;
    USHORT *Rights = nullptr;
    ULONG64 *Bytes = nullptr;
    PVOID Buffer = nullptr; // of a read, or of directory records
    ULONG *ResumeKey = nullptr;
    ULONG *BufferSize = nullptr;
};
std::vector<Value> Shown(const Outputs &Out);

struct Call {
    Slot Operation = Slot::Any;
    std::vector<Value> Arguments;
    RV_SECURITY_CONTEXT Security = {};
    std::thread::id Thread;
    std::optional<RVSTATUS> Status; // empty while the call is under way
    std::vector<Value> Results;     // empty when Status is an error

    // The numeric (text) argument or result of that name; 0 (empty) when there is none.
    ULONG64 Number(std::string_view Name) const;
    std::u16string String(std::string_view Name) const;
    // RVFsdOpenDirectory(base=1, path="docs") -> 0x00000000 handle=2
    std::string Format() const;
};

// Folds letter case for comparing names: ASCII, Latin-1, Greek and Cyrillic, which is what test names use.
std::u16string FoldCase(std::u16string_view Text);

} // namespace providers
