// The caller's buffer of an information request, written from its start and never beyond its end.
#pragma once

#include "kernel/kernel.h"

// Counts what is left as the classes do: a structure's unwritten tail may be charged as well, and drive the count below
// zero; from then on nothing fits.
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
        Skip(Count);
        return true;
    }
    // Appends what fits of Bytes; FALSE when that was not all.
    bool PutPart(const void *Bytes, ULONG Count) {
        const bool All = Fits(Count);
        const ULONG Part = All ? Count : (Remaining_ > 0 ? static_cast<ULONG>(Remaining_) : 0);
        RtlCopyMemory(At_, Bytes, Part);
        Skip(Part);
        return All;
    }
    // Charges bytes that are not written.
    void Skip(ULONG Count) {
        At_ += Count;
        Remaining_ -= Count;
    }
    LONG64 Remaining() const {
        return Remaining_;
    }
    // Bytes of the answer, once the count is settled.
    ULONG Used() const {
        return Remaining_ < 0 ? Length_ : Length_ - static_cast<ULONG>(Remaining_);
    }

private:
    UCHAR *At_;
    ULONG Length_;
    LONG64 Remaining_;
};
