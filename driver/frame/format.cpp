#include "frame/format.h"

namespace {

// Where formatted bytes go: counts what fits, drops the rest.
class Output {
public:
    Output(char *Buffer, ULONG Size) : Buffer_(Buffer), Room_(Size - 1) {
    }

    void Put(char Byte) {
        if (Length_ < Room_) {
            Buffer_[Length_++] = Byte;
        } else {
            Room_ = Length_; // a line is cut once: nothing shorter may follow what was dropped
        }
    }
    // Whole sequences only, so that a cut never splits a character.
    void Put(const char *Bytes, ULONG Count) {
        if (Length_ + Count <= Room_) {
            memcpy(Buffer_ + Length_, Bytes, Count);
            Length_ += Count;
        } else {
            Room_ = Length_;
        }
    }
    void Pad(char Byte, ULONG Count) {
        while (Count-- != 0 && !Full()) {
            Put(Byte);
        }
    }
    bool Full() const {
        return Length_ == Room_;
    }
    ULONG Finish() {
        if (Full()) {
            DropSplitCharacter();
        }
        Buffer_[Length_] = '\0';
        return Length_;
    }

private:
    // Narrow text is put byte by byte; a cut may have left the first bytes of a UTF-8 sequence.
    void DropSplitCharacter() {
        ULONG Start = Length_;
        ULONG Following = 0;
        while (Start != 0 && Following < 3 && (Buffer_[Start - 1] & 0xC0) == 0x80) {
            --Start;
            ++Following;
        }
        const UCHAR Lead = Start != 0 ? static_cast<UCHAR>(Buffer_[Start - 1]) : 0;
        const ULONG Wanted = Lead >= 0xF0 ? 3 : Lead >= 0xE0 ? 2 : Lead >= 0xC0 ? 1 : 0;
        if (Following < Wanted) {
            Length_ = Start - 1;
        }
    }

    char *Buffer_;
    ULONG Room_;
    ULONG Length_ = 0;
};

constexpr bool IsLeadSurrogate(WCHAR Unit) {
    return Unit >= 0xD800 && Unit <= 0xDBFF;
}
constexpr bool IsTrailSurrogate(WCHAR Unit) {
    return Unit >= 0xDC00 && Unit <= 0xDFFF;
}

// Stands for half of a surrogate pair, which UTF-8 has no form for, and for control characters: a zero would end the
// line early and a line end would begin one that the driver never wrote.
constexpr ULONG REPLACEMENT_CHARACTER = 0xFFFD;

constexpr bool IsControl(WCHAR Unit) {
    return Unit < 0x20 || Unit == 0x7F;
}

// Writes one character of 16-bit text as UTF-8; returns the units it took.
ULONG PutCharacter(Output &Out, PCWSTR Text, ULONG Units) {
    ULONG Code = Text[0];
    ULONG Taken = 1;
    if (IsLeadSurrogate(Text[0]) && Units > 1 && IsTrailSurrogate(Text[1])) {
        Code = 0x10000 + ((Code - 0xD800) << 10) + (Text[1] - 0xDC00u);
        Taken = 2;
    } else if (IsLeadSurrogate(Text[0]) || IsTrailSurrogate(Text[0]) || IsControl(Text[0])) {
        Code = REPLACEMENT_CHARACTER;
    }
    char Bytes[4];
    ULONG Count = 0;
    if (Code < 0x80) {
        Bytes[Count++] = static_cast<char>(Code);
    } else if (Code < 0x800) {
        Bytes[Count++] = static_cast<char>(0xC0 | (Code >> 6));
        Bytes[Count++] = static_cast<char>(0x80 | (Code & 0x3F));
    } else if (Code < 0x10000) {
        Bytes[Count++] = static_cast<char>(0xE0 | (Code >> 12));
        Bytes[Count++] = static_cast<char>(0x80 | ((Code >> 6) & 0x3F));
        Bytes[Count++] = static_cast<char>(0x80 | (Code & 0x3F));
    } else {
        Bytes[Count++] = static_cast<char>(0xF0 | (Code >> 18));
        Bytes[Count++] = static_cast<char>(0x80 | ((Code >> 12) & 0x3F));
        Bytes[Count++] = static_cast<char>(0x80 | ((Code >> 6) & 0x3F));
        Bytes[Count++] = static_cast<char>(0x80 | (Code & 0x3F));
    }
    Out.Put(Bytes, Count);
    return Taken;
}

// No line shows more of a text than this; it bounds the walk over one.
constexpr ULONG MAXIMUM_TEXT_UNITS = 0x8000;

ULONG WideUnits(PCWSTR Text, ULONG Limit) {
    ULONG Units = 0;
    while (Units < Limit && Text[Units] != 0) {
        ++Units;
    }
    return Units;
}

void PutWide(Output &Out, const FormatConversion &C, PCWSTR Text, ULONG Units) {
    ULONG Left = C.HasPrecision && C.Precision < Units ? C.Precision : Units;
    const ULONG Padding = C.Width > Left ? C.Width - Left : 0;
    if (!C.LeftAlign) {
        Out.Pad(' ', Padding);
    }
    while (Left != 0 && !Out.Full()) {
        const ULONG Taken = PutCharacter(Out, Text, Left);
        Text += Taken;
        Left -= Taken;
    }
    if (C.LeftAlign) {
        Out.Pad(' ', Padding);
    }
}

void PutText(Output &Out, const FormatConversion &C, PCSTR Text) {
    ULONG Length = 0;
    while ((!C.HasPrecision || Length < C.Precision) && Text[Length] != '\0') {
        ++Length;
    }
    const ULONG Padding = C.Width > Length ? C.Width - Length : 0;
    if (!C.LeftAlign) {
        Out.Pad(' ', Padding);
    }
    for (ULONG Index = 0; Index < Length && !Out.Full(); ++Index) {
        Out.Put(Text[Index]);
    }
    if (C.LeftAlign) {
        Out.Pad(' ', Padding);
    }
}

void PutInteger(Output &Out, const FormatConversion &C, ULONG64 Bits) {
    bool Negative = false;
    ULONG64 Value = C.Is64 ? Bits : (Bits & 0xFFFFFFFFu);
    if (C.Letter == 'd' || C.Letter == 'i') {
        const LONG64 Signed = C.Is64 ? static_cast<LONG64>(Bits) : static_cast<LONG>(Bits);
        Negative = Signed < 0;
        Value = Negative ? 0 - static_cast<ULONG64>(Signed) : static_cast<ULONG64>(Signed);
    }
    const bool Hexadecimal = C.Letter == 'x' || C.Letter == 'X';
    const char *Alphabet = C.Letter == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
    const ULONG Base = Hexadecimal ? 16 : 10;
    char Digits[24];
    ULONG Count = 0;
    do {
        Digits[Count++] = Alphabet[Value % Base];
        Value /= Base;
    } while (Value != 0);
    ULONG Zeros = C.HasPrecision && C.Precision > Count ? C.Precision - Count : 0;
    const ULONG Used = Count + Zeros + (Negative ? 1 : 0);
    const ULONG Padding = C.Width > Used ? C.Width - Used : 0;
    if (C.ZeroPad && !C.HasPrecision && !C.LeftAlign) {
        Zeros += Padding;
    } else if (!C.LeftAlign) {
        Out.Pad(' ', Padding);
    }
    if (Negative) {
        Out.Put('-');
    }
    Out.Pad('0', Zeros);
    while (Count != 0) {
        Out.Put(Digits[--Count]);
    }
    if (C.LeftAlign) {
        Out.Pad(' ', Padding);
    }
}

void PutPointer(Output &Out, const void *Address) {
    FormatConversion C = {};
    C.Letter = 'X';
    C.Is64 = true;
    C.ZeroPad = true;
    C.Width = 16;
    PutInteger(Out, C, reinterpret_cast<ULONG_PTR>(Address));
}

void PutArgument(Output &Out, const FormatConversion &C, const FormatArgument &Argument) {
    switch (C.Letter) {
    case 'p':
        PutPointer(Out, Argument.Address);
        break;
    case 'c':
        Out.Put(static_cast<char>(Argument.Bits));
        break;
    case 's':
    case 'Z':
        if (Argument.Address == nullptr) {
            PutText(Out, C, "");
        } else if (Argument.Kind == FormatKind::Text) {
            PutText(Out, C, static_cast<PCSTR>(Argument.Address));
        } else if (Argument.Kind == FormatKind::Wide) {
            auto Text = static_cast<PCWSTR>(Argument.Address);
            PutWide(Out, C, Text, WideUnits(Text, C.HasPrecision ? C.Precision : MAXIMUM_TEXT_UNITS));
        } else if (Argument.Kind == FormatKind::CountedWide) {
            PutWide(Out, C, static_cast<PCWSTR>(Argument.Address), Argument.Units);
        } else {
            auto String = static_cast<PCUNICODE_STRING>(Argument.Address);
            PutWide(Out, C, String->Buffer, String->Buffer != nullptr ? String->Length / sizeof(WCHAR) : 0);
        }
        break;
    default:
        PutInteger(Out, C, Argument.Bits);
        break;
    }
}

} // namespace

ULONG FormatBounded(char *Buffer, ULONG Size, PCSTR Format, const FormatArgument *Arguments, ULONG Count) {
    Output Out(Buffer, Size);
    ULONG Next = 0;
    while (*Format != '\0' && !Out.Full()) {
        if (*Format != '%') {
            Out.Put(*Format++);
            continue;
        }
        ++Format;
        if (*Format == '%') {
            Out.Put(*Format++);
            continue;
        }
        FormatConversion C = ParseConversion(Format);
        if (C.PrecisionFromArgument && Next < Count) {
            const LONG Precision = static_cast<LONG>(Arguments[Next++].Bits);
            C.Precision = Precision > 0 ? static_cast<ULONG>(Precision) : 0;
        }
        if (Next < Count) {
            PutArgument(Out, C, Arguments[Next++]);
        }
    }
    return Out.Finish();
}
