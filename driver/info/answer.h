// The caller's buffer of an information request, written from its start and never beyond its end.
#pragma once

#include "kernel/kernel.h"

// Counts what is left as the classes do: a structure's tail is charged as a whole, and may drive the count below zero;
// from then on nothing fits. Every byte that is counted is written: the buffer comes with whatever lay there before.
class AnswerBuffer {
public:
    AnswerBuffer(PVOID Buffer, ULONG Length)
        : At_(static_cast<UCHAR *>(Buffer)), Length_(Length), Remaining_(static_cast<LONG64>(Length)) {
    }

    bool Fits(ULONG Bytes) const {
        return Remaining_ >= static_cast<LONG64>(Bytes);
    }
    // Appends one field; FALSE, writing nothing, when it does not fit.
    template <typename T>
    bool Put(T Value) {
        return PutBytes(&Value, sizeof(Value));
    }
    bool PutBytes(const void *Bytes, ULONG Count) {
        if (!Fits(Count)) {
            return false;
        }
        RtlCopyMemory(At_, Bytes, Count);
        Advance(Count);
        return true;
    }
    // Appends what fits of Bytes; FALSE when that was not all.
    bool PutPart(const void *Bytes, ULONG Count) {
        const bool All = Fits(Count);
        const ULONG Part = All ? Count : (Remaining_ > 0 ? static_cast<ULONG>(Remaining_) : 0);
        RtlCopyMemory(At_, Bytes, Part);
        Advance(Part);
        return All;
    }
    // Charges Count bytes of no meaning, and zeroes those of them that are there.
    void PutTail(ULONG Count) {
        const LONG64 There = Remaining_ < static_cast<LONG64>(Count) ? Remaining_ : static_cast<LONG64>(Count);
        if (There > 0) {
            memset(At_, 0, static_cast<SIZE_T>(There));
        }
        Advance(Count);
    }
    LONG64 Remaining() const {
        return Remaining_;
    }
    // Bytes of the answer, once the count is settled.
    ULONG Used() const {
        return Remaining_ < 0 ? Length_ : Length_ - static_cast<ULONG>(Remaining_);
    }

private:
    void Advance(ULONG Count) {
        At_ += Count;
        Remaining_ -= Count;
    }

    UCHAR *At_;
    ULONG Length_;
    LONG64 Remaining_;
};
