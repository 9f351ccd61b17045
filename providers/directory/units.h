// Strings of 16-bit units, eight at a time.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include <emmintrin.h>

namespace providers::directory {

// Units before the first 0. Whole blocks of memory are read, as the library's own functions do: what is read beside the
// string is on the same page, and is not used. The sanitizers would not have it.
__attribute__((no_sanitize("address"))) __attribute__((no_sanitize("thread"))) inline size_t
LengthOf(const char16_t *Units) {
    constexpr size_t Block = sizeof(__m128i);
    const size_t Misaligned = reinterpret_cast<uintptr_t>(Units) % Block;
    const auto *At = reinterpret_cast<const __m128i *>(reinterpret_cast<uintptr_t>(Units) - Misaligned);
    const __m128i Zero = _mm_setzero_si128();
    // Bits of the bytes before the first unit are shifted out.
    unsigned Ends = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_load_si128(At), Zero))) >> Misaligned;
    if (Ends != 0) {
        return static_cast<size_t>(std::countr_zero(Ends)) / sizeof(char16_t);
    }
    do {
        ++At;
        Ends = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_load_si128(At), Zero)));
    } while (Ends == 0);
    const auto Found = reinterpret_cast<uintptr_t>(At) + static_cast<unsigned>(std::countr_zero(Ends));
    return (Found - reinterpret_cast<uintptr_t>(Units)) / sizeof(char16_t);
}

// The library's own comparison goes unit by unit.
inline bool Same(std::u16string_view Left, std::u16string_view Right) {
    return Left.size() == Right.size() && memcmp(Left.data(), Right.data(), Left.size() * sizeof(char16_t)) == 0;
}

} // namespace providers::directory
