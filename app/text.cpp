#include "app/text.h"

#include <charconv>
#include <cstdio>
#include <ctime>

#include <fmt/format.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include "providers/wide_text.h"

namespace app {

StatusError::StatusError(NTSTATUS Failure, const std::string &What)
    : std::runtime_error(ShowStatus(Failure) + ": " + What), Status(Failure) {
}

std::u16string Widen(std::string_view Text) {
    std::u16string Wide(Text.size(), u'\0');
    int32_t Length = 0;
    UErrorCode Error = U_ZERO_ERROR;
    u_strFromUTF8(Wide.data(), static_cast<int32_t>(Wide.size()), &Length, Text.data(),
                  static_cast<int32_t>(Text.size()), &Error);
    if (Error == U_INVALID_CHAR_FOUND) {
        throw UsageError("an argument is not valid UTF-8");
    }
    Wide.resize(static_cast<size_t>(Length));
    return Wide;
}

std::string Narrow(std::u16string_view Text) {
    return providers::ToUtf8(Text);
}

bool IsRemote(std::string_view Path) {
    return Path.starts_with("\\\\") || Path.starts_with("//");
}

std::u16string RemotePath(std::string_view Path) {
    if (!IsRemote(Path)) {
        throw UsageError(fmt::format("{}: a remote path begins with \\\\server\\volume", Path));
    }
    std::u16string Wide = Widen(Path);
    if (Path[0] == '/') {
        for (char16_t &Unit : Wide) {
            Unit = Unit == u'/' ? u'\\' : Unit;
        }
    }
    Wide.erase(0, 1);
    const size_t Server = Wide.find(u'\\', 1);
    if (Wide.size() < 2 || Server == 1 || Server == std::u16string::npos || Server + 1 == Wide.size() ||
        Wide[Server + 1] == u'\\') {
        throw UsageError(fmt::format("{}: a remote path names a server and a volume, as in \\\\server\\volume", Path));
    }
    return Wide;
}

std::string ShowPath(std::u16string_view Path) {
    return "\\" + Narrow(Path);
}

std::string StatusName(NTSTATUS Status) {
    switch (static_cast<ULONG>(Status)) {
#define STATUS_CASE(Name, Value)                                                                                       \
    case Value:                                                                                                        \
        return #Name;
        NTSTATUS_LIST(STATUS_CASE)
#undef STATUS_CASE
    default:
        return "NTSTATUS";
    }
}

std::string ShowStatus(NTSTATUS Status) {
    return fmt::format("{} (0x{:08X})", StatusName(Status), static_cast<ULONG>(Status));
}

std::string InformationName(ULONG_PTR Information) {
    constexpr const char *Names[] = {"FILE_SUPERSEDED",  "FILE_OPENED", "FILE_CREATED",
                                     "FILE_OVERWRITTEN", "FILE_EXISTS", "FILE_DOES_NOT_EXIST"};
    return Information < std::size(Names) ? Names[Information] : fmt::format("{}", Information);
}

uint64_t ParseNumber(std::string_view Text, uint64_t Largest) {
    const bool Hexadecimal = Text.starts_with("0x") || Text.starts_with("0X");
    const std::string_view Digits = Hexadecimal ? Text.substr(2) : Text;
    uint64_t Value = 0;
    const auto Result = std::from_chars(Digits.data(), Digits.data() + Digits.size(), Value, Hexadecimal ? 16 : 10);
    if (Digits.empty() || Result.ec != std::errc() || Result.ptr != Digits.data() + Digits.size()) {
        throw UsageError(fmt::format("{}: not a number", Text));
    }
    if (Value > Largest) {
        throw UsageError(fmt::format("{}: larger than {}", Text, Largest));
    }
    return Value;
}

uint32_t ParseWord(std::string_view Text) {
    return static_cast<uint32_t>(ParseNumber(Text, UINT32_MAX));
}

void Complain(std::string_view Message) noexcept {
    fflush(stdout);
    fwrite(Message.data(), 1, Message.size(), stderr);
    fputc('\n', stderr);
}

std::string ShowTime(LONG64 Time) {
    if (Time == 0) {
        return "-";
    }
    constexpr LONG64 Epoch = 116444736000000000; // 1970 in 100-ns units since 1601
    const time_t Seconds = static_cast<time_t>((Time - Epoch) / 10000000);
    tm Local = {};
    localtime_r(&Seconds, &Local);
    char Text[64];
    strftime(Text, sizeof(Text), "%Y-%m-%d %H:%M:%S", &Local);
    return fmt::format("{}.{:07}", Text, ((Time - Epoch) % 10000000 + 10000000) % 10000000);
}

std::string ShowAttributes(ULONG Attributes) {
    constexpr struct {
        ULONG Bit;
        char Letter;
    } Letters[] = {{FILE_ATTRIBUTE_DIRECTORY, 'd'},
                   {FILE_ATTRIBUTE_READONLY, 'r'},
                   {FILE_ATTRIBUTE_HIDDEN, 'h'},
                   {FILE_ATTRIBUTE_SYSTEM, 's'},
                   {FILE_ATTRIBUTE_ARCHIVE, 'a'}};
    std::string Text;
    for (const auto &One : Letters) {
        Text += (Attributes & One.Bit) ? One.Letter : '-';
    }
    return Text;
}

} // namespace app
