#include "embedded/rtl.h"

#include "embedded/upcase.h"
#include "embedded/verifier/rules.h"

#include <algorithm>
#include <limits>
#include <string_view>

namespace {

std::u16string_view View(PCUNICODE_STRING String) {
    return {String->Buffer, String->Length / sizeof(WCHAR)};
}

} // namespace

VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) noexcept {
    *DestinationString = {};
    if (SourceString == nullptr) {
        return;
    }
    // The length is a 16-bit byte count that must leave room for the terminator.
    constexpr size_t LongestUnits = (std::numeric_limits<USHORT>::max() - 1) / sizeof(WCHAR) - 1;
    size_t Units = std::min(std::u16string_view(SourceString).size(), LongestUnits);
    DestinationString->Length = static_cast<USHORT>(Units * sizeof(WCHAR));
    DestinationString->MaximumLength = static_cast<USHORT>(DestinationString->Length + sizeof(WCHAR));
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
}

LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                   BOOLEAN CaseInSensitive) noexcept {
    std::u16string_view One = View(String1);
    std::u16string_view Two = View(String2);
    const WCHAR *Upcase = embedded::UpcaseTable();
    size_t Common = std::min(One.size(), Two.size());
    for (size_t Index = 0; Index < Common; ++Index) {
        WCHAR Left = CaseInSensitive ? Upcase[One[Index]] : One[Index];
        WCHAR Right = CaseInSensitive ? Upcase[Two[Index]] : Two[Index];
        if (Left != Right) {
            return static_cast<LONG>(Left) - static_cast<LONG>(Right);
        }
    }
    return static_cast<LONG>(One.size()) - static_cast<LONG>(Two.size());
}

WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter) noexcept {
    embedded::RequireIrql(embedded::IrqlRuleOf("RtlUpcaseUnicodeChar"));
    return embedded::UpcaseUnit(SourceCharacter);
}

BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                    BOOLEAN CaseInSensitive) noexcept {
    embedded::RequireIrql(embedded::IrqlRuleOf("RtlEqualUnicodeString"));
    if (String1->Length != String2->Length) {
        return FALSE;
    }
    return RtlCompareUnicodeString(String1, String2, CaseInSensitive) == 0;
}

NTSTATUS NTAPI RtlCreateSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Revision) noexcept {
    if (Revision != SECURITY_DESCRIPTOR_REVISION) {
        return STATUS_UNKNOWN_REVISION;
    }
    auto *Descriptor = static_cast<SECURITY_DESCRIPTOR *>(SecurityDescriptor);
    *Descriptor = {};
    Descriptor->Revision = SECURITY_DESCRIPTOR_REVISION;
    return STATUS_SUCCESS;
}
