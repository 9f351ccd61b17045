#include "embedded/dbg.h"

#include <cstdio>
#include <cstring>
#include <mutex>

#include "embedded/verifier/rules.h"

namespace embedded {
namespace {

struct Sink {
    std::mutex Mutex;
    std::function<void(std::string_view)> Write;
};

Sink &Output() {
    static Sink &Instance = *new Sink;
    return Instance;
}

// One conversion: %[flags][width][.precision][size]letter.
struct Conversion {
    std::string Flags;
    int Width = -1;
    int Precision = -1;
    int Bytes = 4;     // of an integer
    bool Wide = false; // w or l before a string
    char Letter = 0;
};

class Arguments {
public:
    explicit Arguments(__builtin_ms_va_list List) : Next_(reinterpret_cast<const char *>(List)) {
    }
    // Every argument takes eight bytes.
    ULONG64 Take() {
        ULONG64 Value;
        memcpy(&Value, Next_, sizeof(Value));
        Next_ += sizeof(Value);
        return Value;
    }

private:
    const char *Next_;
};

int ParseNumber(const char *&Text, Arguments &List) {
    if (*Text == '*') {
        ++Text;
        return static_cast<int>(List.Take());
    }
    int Value = 0;
    while (*Text >= '0' && *Text <= '9') {
        Value = Value * 10 + (*Text++ - '0');
    }
    return Value;
}

void ParseSize(const char *&Text, Conversion &Directive) {
    static constexpr struct {
        std::string_view Prefix;
        int Bytes;
        bool Wide;
    } Sizes[] = {{"I64", 8, false}, {"I32", 4, false}, {"ll", 8, false}, {"hh", 1, false},
                 {"l", 4, true},    {"h", 2, false},   {"w", 4, true},   {"I", 8, false}};
    for (const auto &Size : Sizes) {
        if (strncmp(Text, Size.Prefix.data(), Size.Prefix.size()) == 0) {
            Text += Size.Prefix.size();
            Directive.Bytes = Size.Bytes;
            Directive.Wide = Size.Wide;
            return;
        }
    }
}

// Text stands behind the '%'; moves it behind the conversion.
Conversion Parse(const char *&Text, Arguments &List) {
    Conversion Directive;
    while (*Text != 0 && strchr("-+ #0", *Text) != nullptr) {
        Directive.Flags += *Text++;
    }
    if (*Text == '*' || (*Text >= '0' && *Text <= '9')) {
        Directive.Width = ParseNumber(Text, List);
    }
    if (*Text == '.') {
        ++Text;
        Directive.Precision = ParseNumber(Text, List);
    }
    ParseSize(Text, Directive);
    Directive.Letter = *Text;
    if (*Text != 0) {
        ++Text;
    }
    return Directive;
}

void AppendUtf8(std::string &Out, char32_t Code) {
    if (Code < 0x80) {
        Out += static_cast<char>(Code);
        return;
    }
    const int Extra = Code < 0x800 ? 1 : Code < 0x10000 ? 2 : 3;
    constexpr int Leads[] = {0, 0xC0, 0xE0, 0xF0};
    Out += static_cast<char>(Leads[Extra] | static_cast<int>(Code >> (6 * Extra)));
    for (int Shift = 6 * (Extra - 1); Shift >= 0; Shift -= 6) {
        Out += static_cast<char>(0x80 | (static_cast<int>(Code >> Shift) & 0x3F));
    }
}

std::string Narrow(const WCHAR *Text, SIZE_T Length) {
    std::string Out;
    for (SIZE_T Index = 0; Index < Length; ++Index) {
        char32_t Code = Text[Index];
        if (Code >= 0xD800 && Code < 0xDC00 && Index + 1 < Length && (Text[Index + 1] & 0xFC00) == 0xDC00) {
            Code = 0x10000 + ((Code - 0xD800) << 10) + (Text[++Index] - 0xDC00u);
        } else if ((Code & 0xF800) == 0xD800) {
            Code = 0xFFFD;
        }
        AppendUtf8(Out, Code);
    }
    return Out;
}

std::string NarrowString(const WCHAR *Text, SIZE_T Limit) {
    if (Text == nullptr) {
        return "(null)";
    }
    SIZE_T Length = 0;
    while (Length < Limit && Text[Length] != 0) {
        ++Length;
    }
    return Narrow(Text, Length);
}

std::string StringArgument(const Conversion &Directive, ULONG64 Value) {
    const SIZE_T Limit = Directive.Precision < 0 ? SIZE_MAX : static_cast<SIZE_T>(Directive.Precision);
    if (Directive.Letter == 'Z') {
        auto Counted = reinterpret_cast<PCUNICODE_STRING>(Value);
        if (Counted == nullptr || Counted->Buffer == nullptr) {
            return "(null)";
        }
        // The narrow counted string has the same layout.
        return Directive.Wide ? Narrow(Counted->Buffer, Counted->Length / sizeof(WCHAR))
                              : std::string(reinterpret_cast<const char *>(Counted->Buffer), Counted->Length);
    }
    if (Directive.Wide || Directive.Letter == 'S') {
        return NarrowString(reinterpret_cast<const WCHAR *>(Value), Limit);
    }
    auto Text = reinterpret_cast<const char *>(Value);
    return Text == nullptr ? "(null)" : std::string(Text, strnlen(Text, Limit));
}

void AppendPadded(std::string &Out, const Conversion &Directive, const std::string &Text) {
    const SIZE_T Width = Directive.Width < 0 ? 0 : static_cast<SIZE_T>(Directive.Width);
    const std::string Padding(Width > Text.size() ? Width - Text.size() : 0, ' ');
    const bool Left = Directive.Flags.find('-') != std::string::npos;
    Out += Left ? Text + Padding : Padding + Text;
}

std::string NumberArgument(const Conversion &Directive, ULONG64 Value) {
    const int Unused = 64 - 8 * Directive.Bytes;
    const bool Signed = Directive.Letter == 'd' || Directive.Letter == 'i';
    Value = Signed ? static_cast<ULONG64>(static_cast<LONG64>(Value << Unused) >> Unused) : Value << Unused >> Unused;
    std::string Format = "%" + Directive.Flags;
    if (Directive.Width >= 0) {
        Format += std::to_string(Directive.Width);
    }
    if (Directive.Precision >= 0) {
        Format += "." + std::to_string(Directive.Precision);
    }
    Format += std::string("ll") + Directive.Letter;
    char Buffer[512];
    int Length = snprintf(Buffer, sizeof(Buffer), Format.c_str(), Value);
    return std::string(Buffer, std::min<size_t>(static_cast<size_t>(Length), sizeof(Buffer) - 1));
}

void AppendConversion(std::string &Out, const Conversion &Directive, Arguments &List) {
    switch (Directive.Letter) {
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
    case 'o':
        Out += NumberArgument(Directive, List.Take());
        break;
    case 'p': {
        char Buffer[17];
        snprintf(Buffer, sizeof(Buffer), "%016llX", static_cast<unsigned long long>(List.Take()));
        AppendPadded(Out, Directive, Buffer);
        break;
    }
    case 'c':
    case 'C':
        AppendPadded(Out, Directive, std::string(1, static_cast<char>(List.Take())));
        break;
    case 's':
    case 'S':
    case 'Z':
        AppendPadded(Out, Directive, StringArgument(Directive, List.Take()));
        break;
    default:
        // "%%", and what is no conversion, stands for itself.
        if (Directive.Letter != 0) {
            Out += Directive.Letter;
        }
    }
}

ULONG Print(PCSTR Format, __builtin_ms_va_list List) {
    const std::string Text = FormatMessage(Format, List);
    OnHostStack([&] {
        std::lock_guard Guard(Output().Mutex);
        if (Output().Write) {
            Output().Write(Text);
        } else {
            fwrite(Text.data(), 1, Text.size(), stderr);
        }
    });
    return STATUS_SUCCESS;
}

} // namespace

void SetDebugSink(std::function<void(std::string_view)> New) {
    std::lock_guard Guard(Output().Mutex);
    Output().Write = std::move(New);
}

std::string FormatMessage(PCSTR Format, __builtin_ms_va_list List) {
    std::string Out;
    Arguments Values(List);
    while (*Format != 0) {
        if (*Format != '%') {
            Out += *Format++;
            continue;
        }
        ++Format;
        AppendConversion(Out, Parse(Format, Values), Values);
    }
    return Out;
}

} // namespace embedded

using namespace embedded;

ULONG NTAPI DbgPrint(PCSTR Format, ...) noexcept {
    RequireIrql(IrqlRuleOf("DbgPrint"));
    __builtin_ms_va_list List;
    __builtin_ms_va_start(List, Format);
    ULONG Status = Print(Format, List);
    __builtin_ms_va_end(List);
    return Status;
}

ULONG NTAPI DbgPrintEx(ULONG, ULONG, PCSTR Format, ...) noexcept {
    RequireIrql(IrqlRuleOf("DbgPrintEx"));
    __builtin_ms_va_list List;
    __builtin_ms_va_start(List, Format);
    ULONG Status = Print(Format, List);
    __builtin_ms_va_end(List);
    return Status;
}
