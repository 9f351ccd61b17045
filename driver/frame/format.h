// Bounded formatting of trace lines, with the formats checked against their arguments when the code is compiled.
//
// A format is printf's with the kernel's extensions: %wZ and %Z (PCUNICODE_STRING), %ws and %ls (16-bit text), %I64
// (64-bit integers), %h and %l integers as on the platform (%l is 32 bits). Text is data: whatever a string argument
// holds is copied, never interpreted. 16-bit text is written as UTF-8. Works at any IRQL up to DISPATCH_LEVEL.
#pragma once

#include "kernel/kernel.h"

// 16-bit text with a length, for text that is not terminated. A NULL Text prints as nothing.
struct WideText {
    PCWSTR Text;
    ULONG Units;
};

enum class FormatKind : UCHAR {
    Integer32,
    Integer64,
    Pointer,
    Text,
    Wide,        // NUL-terminated
    CountedWide, // WideText
    Unicode,     // PCUNICODE_STRING
};

struct FormatArgument {
    FormatKind Kind;
    ULONG Units; // of CountedWide
    union {
        ULONG64 Bits;
        const void *Address;
    };
};

constexpr FormatKind FormatKindOf(int) {
    return FormatKind::Integer32;
}
constexpr FormatKind FormatKindOf(unsigned) {
    return FormatKind::Integer32;
}
constexpr FormatKind FormatKindOf(long) {
    return sizeof(long) == 4 ? FormatKind::Integer32 : FormatKind::Integer64;
}
constexpr FormatKind FormatKindOf(unsigned long) {
    return sizeof(long) == 4 ? FormatKind::Integer32 : FormatKind::Integer64;
}
constexpr FormatKind FormatKindOf(long long) {
    return FormatKind::Integer64;
}
constexpr FormatKind FormatKindOf(unsigned long long) {
    return FormatKind::Integer64;
}
constexpr FormatKind FormatKindOf(const char *) {
    return FormatKind::Text;
}
constexpr FormatKind FormatKindOf(PCWSTR) {
    return FormatKind::Wide;
}
constexpr FormatKind FormatKindOf(PCUNICODE_STRING) {
    return FormatKind::Unicode;
}
constexpr FormatKind FormatKindOf(WideText) {
    return FormatKind::CountedWide;
}
constexpr FormatKind FormatKindOf(const volatile void *) {
    return FormatKind::Pointer;
}

template <typename T>
inline FormatArgument MakeFormatArgument(T Value) {
    FormatArgument Argument = {};
    Argument.Kind = FormatKindOf(Value);
    if constexpr (requires { Value.Units; }) {
        Argument.Units = Value.Units;
        Argument.Address = Value.Text;
    } else if constexpr (
        requires { *Value; } || requires { static_cast<const volatile void *>(Value); }) {
        Argument.Address = const_cast<const void *>(static_cast<const volatile void *>(Value));
    } else {
        Argument.Bits = static_cast<ULONG64>(Value);
    }
    return Argument;
}

// One conversion of a format, as ParseConversion finds it.
struct FormatConversion {
    bool LeftAlign;
    bool ZeroPad;
    bool Alternate;
    bool HasPrecision;
    bool PrecisionFromArgument;
    ULONG Width;
    ULONG Precision;
    bool Is64;
    bool IsWide;
    char Letter; // d i u x X p s Z c %
};

// Parses the conversion that starts after a '%' at Text and advances Text past it. Letter is 0 when it is none.
constexpr FormatConversion ParseConversion(const char *&Text) {
    FormatConversion C = {};
    for (;; ++Text) {
        if (*Text == '-') {
            C.LeftAlign = true;
        } else if (*Text == '0') {
            C.ZeroPad = true;
        } else if (*Text == '#') {
            C.Alternate = true;
        } else {
            break;
        }
    }
    while (*Text >= '0' && *Text <= '9') {
        C.Width = C.Width * 10 + static_cast<ULONG>(*Text++ - '0');
    }
    if (*Text == '.') {
        ++Text;
        C.HasPrecision = true;
        if (*Text == '*') {
            C.PrecisionFromArgument = true;
            ++Text;
        }
        while (*Text >= '0' && *Text <= '9') {
            C.Precision = C.Precision * 10 + static_cast<ULONG>(*Text++ - '0');
        }
    }
    if (Text[0] == 'I' && Text[1] == '6' && Text[2] == '4') {
        C.Is64 = true;
        Text += 3;
    } else if (*Text == 'w' || *Text == 'l') {
        C.IsWide = true;
        ++Text;
    } else if (*Text == 'h') {
        ++Text;
    }
    C.Letter = *Text;
    if (*Text != '\0') {
        ++Text;
    }
    return C;
}

constexpr bool FormatTakes(const FormatConversion &C, FormatKind Kind) {
    switch (C.Letter) {
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
        return Kind == (C.Is64 ? FormatKind::Integer64 : FormatKind::Integer32);
    case 'c':
        return Kind == FormatKind::Integer32;
    case 'p':
        return Kind == FormatKind::Pointer || Kind == FormatKind::Wide || Kind == FormatKind::Text ||
               Kind == FormatKind::Unicode;
    case 's':
        return C.IsWide ? (Kind == FormatKind::Wide || Kind == FormatKind::CountedWide) : Kind == FormatKind::Text;
    case 'Z':
        return Kind == FormatKind::Unicode;
    default:
        return false;
    }
}

// TRUE when the conversions of Format take exactly the arguments of the given kinds, in order.
constexpr bool FormatMatches(const char *Format, const FormatKind *Kinds, SIZE_T Count) {
    SIZE_T Next = 0;
    while (*Format != '\0') {
        if (*Format++ != '%') {
            continue;
        }
        if (*Format == '%') {
            ++Format;
            continue;
        }
        const FormatConversion C = ParseConversion(Format);
        if (C.PrecisionFromArgument && (Next == Count || Kinds[Next++] != FormatKind::Integer32)) {
            return false;
        }
        if (Next == Count || !FormatTakes(C, Kinds[Next++])) {
            return false;
        }
    }
    return Next == Count;
}

template <typename... T>
struct FormatTypes {
    static constexpr bool Match(const char *Format) {
        const FormatKind Kinds[] = {FormatKindOf(T{})..., FormatKind::Integer32};
        return FormatMatches(Format, Kinds, sizeof...(T));
    }
};

// Only ever named in an unevaluated context: the arguments of a trace call are not computed to check their types.
template <typename... T>
FormatTypes<T...> FormatTypesOf(T...);

// Writes Format with its arguments to Buffer of Size bytes (at least 1): cut at Size - 1 bytes and always terminated.
// Returns the bytes written, terminator not counted.
ULONG FormatBounded(char *Buffer, ULONG Size, PCSTR Format, const FormatArgument *Arguments, ULONG Count);

// Calls Use with Values as an array of arguments and its length.
template <typename F, typename... T>
auto WithFormatArguments(F Use, T... Values) {
    const FormatArgument Arguments[] = {MakeFormatArgument(Values)..., FormatArgument{}};
    return Use(Arguments, static_cast<ULONG>(sizeof...(T)));
}

// FormatBounded with the arguments themselves.
template <typename... T>
ULONG FormatText(char *Buffer, ULONG Size, PCSTR Format, T... Values) {
    return WithFormatArguments([=](const FormatArgument *Arguments,
                                   ULONG Count) { return FormatBounded(Buffer, Size, Format, Arguments, Count); },
                               Values...);
}
