#include "mapping/utf8.h"

#include "mapping/read_once.h"
#include "provider/binding.h"

namespace {

constexpr ULONG LONGEST_BYTES = 0xFFFE;
constexpr ULONG FIRST_SUPPLEMENTARY = 0x10000;
constexpr ULONG LAST_CODE_POINT = 0x10FFFF;
constexpr ULONG LONGEST_SEQUENCE = 6;

// Takes one code point off Text. FALSE at the end: the terminator (*Whole TRUE then) or a byte that is no UTF-8.
bool DecodeOne(PCSTR *Text, PULONG CodePoint, bool *Whole) {
    const auto First = static_cast<UCHAR>(ReadOnce(*Text));
    ULONG Length = 0;
    while (Length < 8 && (First & (0x80u >> Length))) {
        ++Length;
    }
    *Whole = false;
    if (Length == 1 || Length > LONGEST_SEQUENCE) {
        return false;
    }
    ULONG Value = First & (0xFFu >> (Length + 1));
    for (ULONG Index = 1; Index < Length; ++Index) {
        const auto Next = static_cast<UCHAR>(ReadOnce(*Text + Index));
        if ((Next & 0xC0) != 0x80) {
            return false;
        }
        Value = Value << 6 | (Next & 0x3Fu);
    }
    *Whole = First == 0;
    *Text += Length == 0 ? 1 : Length;
    *CodePoint = Value;
    return Value != 0;
}

bool IsPair(ULONG CodePoint) {
    return CodePoint >= FIRST_SUPPLEMENTARY && CodePoint <= LAST_CODE_POINT;
}

// The bytes that Text takes, terminator included, or more than LONGEST_BYTES.
ULONG Measure(PCSTR Text) {
    ULONG Bytes = sizeof(WCHAR);
    ULONG CodePoint;
    bool Whole;
    while (Bytes <= LONGEST_BYTES && DecodeOne(&Text, &CodePoint, &Whole)) {
        Bytes += IsPair(CodePoint) ? 2 * sizeof(WCHAR) : sizeof(WCHAR);
    }
    return Bytes;
}

} // namespace

RVPSTATUS UTF8ToUnicode(PUNICODE_STRING String, PCSTR Utf8, bool *Whole) {
    *String = {};
    const ULONG Bytes = Measure(Utf8);
    if (Bytes > LONGEST_BYTES) {
        return RVPSTATUS::NoMemory;
    }
    auto Buffer = static_cast<PWSTR>(g_pRvplInterface->Table->AllocateForText(g_pRvplInterface, Bytes));
    if (Buffer == nullptr) {
        return RVPSTATUS::NoMemory;
    }
    const ULONG Room = Bytes / sizeof(WCHAR) - 1;
    ULONG Units = 0;
    ULONG CodePoint;
    bool AtEnd;
    while (DecodeOne(&Utf8, &CodePoint, &AtEnd) && Units + (IsPair(CodePoint) ? 2 : 1) <= Room) {
        if (IsPair(CodePoint)) {
            Buffer[Units++] = static_cast<WCHAR>(((CodePoint - FIRST_SUPPLEMENTARY) >> 10) + 0xD800);
            Buffer[Units++] = static_cast<WCHAR>((CodePoint & 0x3FF) + 0xDC00);
        } else {
            Buffer[Units++] = static_cast<WCHAR>(CodePoint);
        }
    }
    Buffer[Units] = 0;
    if (Whole != nullptr) {
        *Whole = AtEnd;
    }
    String->Length = static_cast<USHORT>(Units * sizeof(WCHAR));
    String->MaximumLength = static_cast<USHORT>(Bytes);
    String->Buffer = Buffer;
    return RVPSTATUS::Success;
}
