#include "providers/scripted/call.h"

#include <algorithm>
#include <fmt/format.h>

namespace providers {

namespace {

constexpr size_t LongestText = 32767;

const Value *Find(const std::vector<Value> &Values, std::string_view Name) {
    const auto Found = std::find_if(Values.begin(), Values.end(), [&](const Value &V) { return V.Name == Name; });
    return Found == Values.end() ? nullptr : &*Found;
}

std::string Format(const Value &Shown) {
    if (const auto *Number = std::get_if<ULONG64>(&Shown.Content)) {
        return Shown.Hex && *Number > 9 ? fmt::format("{}={:#x}", Shown.Name, *Number)
                                        : fmt::format("{}={}", Shown.Name, *Number);
    }
    if (const auto *Words = std::get_if<std::u16string>(&Shown.Content)) {
        return fmt::format("{}=\"{}\"", Shown.Name, ToUtf8(*Words));
    }
    return fmt::format("{}=null", Shown.Name);
}

} // namespace

Value Decimal(const char *Name, ULONG64 Number) {
    return {Name, Number};
}

Value Bits(const char *Name, ULONG64 Number) {
    return {Name, Number, true};
}

Value Text(const char *Name, PCWSTR Text) {
    if (Text == nullptr) {
        return {Name, std::monostate{}};
    }
    size_t Units = 0;
    while (Units < LongestText && Text[Units] != 0) {
        Units++;
    }
    return {Name, std::u16string(Text, Units)};
}

Value Text(const char *Name, const UNICODE_STRING *Text) {
    if (Text == nullptr || Text->Buffer == nullptr) {
        return {Name, std::monostate{}};
    }
    return {Name, std::u16string(Text->Buffer, Text->Length / 2)};
}

std::vector<Value> Shown(const Outputs &Out) {
    std::vector<Value> Values;
    auto AddDecimal = [&](const char *Name, const auto *At) {
        if (At != nullptr) {
            Values.push_back(OptionalDecimal(Name, At));
        }
    };
    auto AddBits = [&](const char *Name, const auto *At) {
        if (At != nullptr) {
            Values.push_back(OptionalBits(Name, At));
        }
    };
    AddBits("handle", Out.Handle);
    AddDecimal("action", Out.CreateAction);
    if (Out.Path != nullptr) {
        const PWSTR End = Out.Path + RV_PATH_BUFFER_BYTES / 2;
        Values.push_back({"path", std::u16string(Out.Path, std::find(Out.Path, End, u'\0'))});
    }
    if (Out.CountedPath != nullptr) {
        Values.push_back(Text("path", Out.CountedPath));
    }
    AddBits("flags", Out.VolumeFlags);
    AddDecimal("length", Out.VolumeLength);
    AddDecimal("free", Out.Free);
    AddDecimal("allowed", Out.QuotaAllowed);
    AddDecimal("freeAfterQuota", Out.FreeAfterQuota);
    AddBits("attributes", Out.Attributes);
    AddDecimal("creation", Out.Creation);
    AddDecimal("lastWrite", Out.LastWrite);
    AddDecimal("lastAccess", Out.LastAccess);
    AddDecimal("endOfFile", Out.EndOfFile);
    AddDecimal("id", Out.FileId);
    AddBits("rights", Out.Rights);
    AddDecimal("bytes", Out.Bytes);
    AddDecimal("resume", Out.ResumeKey);
    AddDecimal("size", Out.BufferSize);
    return Values;
}

ULONG64 Call::Number(std::string_view Name) const {
    for (const auto *Values : {&Arguments, &Results}) {
        if (const Value *Found = Find(*Values, Name)) {
            if (const auto *Number = std::get_if<ULONG64>(&Found->Content)) {
                return *Number;
            }
        }
    }
    return 0;
}

std::u16string Call::String(std::string_view Name) const {
    for (const auto *Values : {&Arguments, &Results}) {
        if (const Value *Found = Find(*Values, Name)) {
            if (const auto *Words = std::get_if<std::u16string>(&Found->Content)) {
                return *Words;
            }
        }
    }
    return {};
}

std::string Call::Format() const {
    std::string Line = NameOf(Operation);
    Line += '(';
    for (const Value &Argument : Arguments) {
        if (&Argument != &Arguments.front()) {
            Line += ", ";
        }
        Line += providers::Format(Argument);
    }
    Line += ')';
    if (!Status) {
        return Line + " under way";
    }
    Line += fmt::format(" -> 0x{:08X}", static_cast<ULONG>(*Status));
    for (const Value &Result : Results) {
        Line += ' ' + providers::Format(Result);
    }
    return Line;
}

std::u16string FoldCase(std::u16string_view Text) {
    std::u16string Folded(Text);
    for (char16_t &Unit : Folded) {
        const bool Ascii = Unit >= u'a' && Unit <= u'z';
        const bool Latin = Unit >= 0xE0 && Unit <= 0xFE && Unit != 0xF7;
        const bool Greek = Unit >= 0x3B1 && Unit <= 0x3C9 && Unit != 0x3C2;
        const bool Cyrillic = Unit >= 0x430 && Unit <= 0x44F;
        if (Ascii || Latin || Greek || Cyrillic) {
            Unit = static_cast<char16_t>(Unit - 0x20);
        }
    }
    return Folded;
}

} // namespace providers
