// Where the link of a mapped drive leads.
#pragma once

#include "frame/driver.h"
#include "names/strings.h"

// The driver's device followed by Path, in a block of its own.
class LinkTarget {
public:
    LinkTarget() = default;
    // Of a path that a link leads to already. Without memory only its length is known.
    explicit LinkTarget(PCWSTR Path) {
        const UNICODE_STRING View = {static_cast<USHORT>(WideLength(Path, 0x7FFF) * sizeof(WCHAR)), 0,
                                     const_cast<PWSTR>(Path)};
        if (!NT_SUCCESS(Build(&View))) {
            String_.Length = static_cast<USHORT>(BytesFor(&View) - sizeof(WCHAR));
        }
    }
    // STATUS_NAME_TOO_LONG, STATUS_INSUFFICIENT_RESOURCES. Must be empty yet.
    NTSTATUS Build(PCUNICODE_STRING Path) {
        if (BytesFor(Path) > 0xFFFE) {
            return STATUS_NAME_TOO_LONG;
        }
        const auto Bytes = static_cast<USHORT>(BytesFor(Path));
        Buffer_.Adopt(static_cast<PWSTR>(TwAllocBuffer(Bytes)));
        if (!Buffer_) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        String_ = {static_cast<USHORT>(Bytes - sizeof(WCHAR)), Bytes, Buffer_.Get()};
        RtlCopyMemory(String_.Buffer, DEVICE_NAME.Buffer, DEVICE_NAME.Length);
        RtlCopyMemory(String_.Buffer + DEVICE_NAME.Length / sizeof(WCHAR), Path->Buffer, Path->Length);
        String_.Buffer[String_.Length / sizeof(WCHAR)] = 0;
        return STATUS_SUCCESS;
    }
    static ULONG BytesFor(PCUNICODE_STRING Path) {
        return ULONG{DEVICE_NAME.Length} + Path->Length + sizeof(WCHAR);
    }
    PUNICODE_STRING Get() const {
        return const_cast<PUNICODE_STRING>(&String_);
    }

private:
    PoolPointer<WCHAR> Buffer_;
    UNICODE_STRING String_ = {0, 0, nullptr};
};
