// Whether a driver wrote what it says it answered: buffers of the system's are handed out full of garbage, and an
// answer that counts bytes of that garbage would show a caller what the kernel had there before.
//
// A run of four such bytes is reported at once. A shorter one may be data that looks so by chance: the garbage is
// another for each request, and the same byte of the same question is reported when it bears it four times in a row.
// One mutex, innermost.
#pragma once

#include <string_view>

#include "embedded/verifier/report.h"

namespace embedded {

// Fills Size bytes; returns the number that tells which garbage it was, never 0.
ULONG FillWithGarbage(PVOID Buffer, SIZE_T Size);

// What was asked: the same question has the same numbers.
struct Question {
    UCHAR MajorFunction;
    ULONG Code;
    SIZE_T Size; // of the buffer
};

// Stops when the bytes from From up to Counted still bear the garbage numbered Which.
void CheckAnswer(const Question &Asked, const void *Buffer, SIZE_T From, SIZE_T Counted, ULONG Which,
                 std::string_view What);

} // namespace embedded
