// Views of counted strings, which own nothing.
#pragma once

#include "kernel/kernel.h"

inline constexpr WCHAR SEPARATOR = 0x005C;

// A counted view of a literal. The buffer is read-only by convention.
template <SIZE_T N>
constexpr UNICODE_STRING ConstantString(const WCHAR (&Text)[N]) {
    return {static_cast<USHORT>((N - 1) * sizeof(WCHAR)), static_cast<USHORT>(N * sizeof(WCHAR)),
            const_cast<PWSTR>(Text)};
}

inline ULONG UnitsOf(const UNICODE_STRING &Text) {
    return Text.Length / sizeof(WCHAR);
}

// A counted view of Units units at Text.
inline UNICODE_STRING ViewOf(PWSTR Text, ULONG Units) {
    const USHORT Bytes = static_cast<USHORT>(Units * sizeof(WCHAR));
    return {Bytes, Bytes, Text};
}

// Number of units before the terminating zero, at most Limit.
inline ULONG WideLength(PCWSTR Text, ULONG Limit) {
    ULONG Length = 0;
    while (Length < Limit && Text[Length] != 0) {
        ++Length;
    }
    return Length;
}
