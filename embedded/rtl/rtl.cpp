#include "embedded/rtl/rtl.h"

#include "embedded/rtl/upcase.h"
#include "embedded/verifier/rules.h"

#include <algorithm>
#include <limits>
#include <string_view>

namespace {

std::u16string_view View(PCUNICODE_STRING String) {
    return {String->Buffer, String->Length / sizeof(WCHAR)};
}

} // namespace

WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter) noexcept {
    embedded::RequireIrql(embedded::IrqlRuleOf("RtlUpcaseUnicodeChar"));
    return embedded::UpcaseUnit(SourceCharacter);
}

BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                    BOOLEAN CaseInSensitive) noexcept {
    embedded::RequireIrql(embedded::IrqlRuleOf("RtlEqualUnicodeString"));
    const WCHAR *const Upcase = embedded::UpcaseTable();
    return std::ranges::equal(View(String1), View(String2), [&](WCHAR One, WCHAR Two) {
        return CaseInSensitive ? Upcase[One] == Upcase[Two] : One == Two;
    });
}

namespace {

// What the code page 1252 has from 0x80 to 0x9F; the rest of its characters have their own numbers. Five places are
// empty and stand for themselves.
constexpr WCHAR AnsiHigh[] = {0x20AC, 0x81,   0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
                              0x2039, 0x0152, 0x8D,   0x017D, 0x8F,   0x90,   0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
                              0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x9D,   0x017E, 0x0178};
static_assert(sizeof(AnsiHigh) / sizeof(WCHAR) == 32);

constexpr ULONG RtlTag = 0x20747355; // "Ust "

} // namespace

NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                            BOOLEAN AllocateDestinationString) noexcept {
    embedded::RequireIrql(embedded::IrqlRuleOf("RtlAnsiStringToUnicodeString"));
    const size_t Bytes = (size_t{SourceString->Length} + 1) * sizeof(WCHAR);
    if (Bytes > std::numeric_limits<USHORT>::max()) {
        return STATUS_INVALID_PARAMETER_2;
    }
    if (AllocateDestinationString) {
        auto *Buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, Bytes, RtlTag));
        if (Buffer == nullptr) {
            return STATUS_NO_MEMORY;
        }
        DestinationString->Buffer = Buffer;
        DestinationString->MaximumLength = static_cast<USHORT>(Bytes);
    } else if (Bytes > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    DestinationString->Length = static_cast<USHORT>(Bytes - sizeof(WCHAR));
    for (USHORT Index = 0; Index < SourceString->Length; ++Index) {
        const auto Byte = static_cast<UCHAR>(SourceString->Buffer[Index]);
        DestinationString->Buffer[Index] = Byte >= 0x80 && Byte < 0xA0 ? AnsiHigh[Byte - 0x80] : Byte;
    }
    DestinationString->Buffer[SourceString->Length] = 0;
    return STATUS_SUCCESS;
}

VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString) noexcept {
    embedded::RequireIrql(embedded::IrqlRuleOf("RtlFreeUnicodeString"));
    if (UnicodeString->Buffer != nullptr) {
        ExFreePoolWithTag(UnicodeString->Buffer, RtlTag);
        *UnicodeString = {};
    }
}
