#include "app/text.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fmt/format.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include "embedded/ke/ke.h"
#include "frame/diagnostics.h"
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

namespace {

std::u16string CurrentDirectory;

// Current with Text behind it, where "." and ".." are steps; the volume's root is the top.
std::u16string Below(const std::u16string &Current, std::u16string_view Text) {
    std::u16string Path = Current;
    const size_t Root = RootLength(Current);
    if (Text.starts_with(u'\\')) {
        Path.resize(std::min(Root, Path.size()));
    }
    while (!Text.empty()) {
        const std::u16string_view Step = Text.substr(0, Text.find(u'\\'));
        Text.remove_prefix(std::min(Step.size() + 1, Text.size()));
        if (Step == u"..") {
            const size_t Last = Path.rfind(u'\\');
            Path.resize(Last == std::u16string::npos || Last < Root ? Path.size() : Last);
        } else if (!Step.empty() && Step != u".") {
            Path += u'\\';
            Path += Step;
        }
    }
    return Path;
}

std::u16string WithBackslashes(std::string_view Path) {
    std::u16string Wide = Widen(Path);
    std::replace(Wide.begin(), Wide.end(), u'/', u'\\');
    return Wide;
}

} // namespace

void SetRemoteDirectory(std::u16string Directory) {
    CurrentDirectory = std::move(Directory);
}

const std::u16string &RemoteDirectory() {
    return CurrentDirectory;
}

namespace {

// "G:", "G:\\..." or "G:/..."
bool HasLetter(std::string_view Path) {
    return Path.size() >= 2 && isalpha(static_cast<unsigned char>(Path[0])) != 0 && Path[1] == ':' &&
           (Path.size() == 2 || Path[2] == '\\' || Path[2] == '/');
}

} // namespace

std::u16string KernelName(std::u16string_view Path) {
    return (Path.starts_with(u'\\') ? u"\\??\\UNC" : u"\\??\\") + std::u16string(Path);
}

size_t RootLength(std::u16string_view Path) {
    const size_t Root = Path.starts_with(u'\\') ? Path.find(u'\\', Path.find(u'\\', 1) + 1) : 2;
    return std::min(Root, Path.size());
}

bool IsRemote(std::string_view Path) {
    return HasLetter(Path) || Path.starts_with("\\\\") || Path.starts_with("//") ||
           (!CurrentDirectory.empty() && Path.find('\\') != std::string_view::npos);
}

std::u16string RemotePath(std::string_view Path) {
    std::u16string Wide;
    if (HasLetter(Path)) {
        Wide = WithBackslashes(Path);
        Wide[0] = static_cast<char16_t>(toupper(static_cast<unsigned char>(Path[0])));
        while (Wide.ends_with(u'\\')) {
            Wide.pop_back();
        }
        return Wide;
    }
    if (Path.starts_with("\\\\") || Path.starts_with("//")) {
        Wide = Path[0] == '/' ? WithBackslashes(Path) : Widen(Path);
        Wide.erase(0, 1);
    } else if (!CurrentDirectory.empty() && !Path.empty()) {
        Wide = Below(CurrentDirectory, WithBackslashes(Path));
    } else {
        throw UsageError(fmt::format("{}: a remote path begins with \\\\server\\volume", Path));
    }
    const size_t Server = Wide.find(u'\\', 1);
    if (Wide.size() < 2 || Server == 1 || Server == std::u16string::npos || Server + 1 == Wide.size() ||
        Wide[Server + 1] == u'\\') {
        throw UsageError(fmt::format("{}: a remote path names a server and a volume, as in \\\\server\\volume", Path));
    }
    while (Wide.ends_with(u'\\')) {
        Wide.pop_back();
    }
    return Wide;
}

std::string UncPath(std::string_view Path) {
    const std::u16string Wide = RemotePath(Path);
    if (!Wide.starts_with(u'\\')) {
        throw UsageError(
            fmt::format("{}: a path with server and volume is wanted here, as in \\\\server\\volume", Path));
    }
    return ShowPath(Wide);
}

std::u16string ParentOf(const std::u16string &Path) {
    return Path.substr(0, Path.rfind(u'\\'));
}

std::u16string LastOf(const std::u16string &Path) {
    return Path.substr(Path.rfind(u'\\') + 1);
}

std::string ShowPath(std::u16string_view Path) {
    return (Path.starts_with(u'\\') ? "\\" : "") + Narrow(Path);
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

uint64_t ParseSize(std::string_view Text, uint64_t Largest) {
    std::string_view Digits = Text;
    if (!Text.starts_with("0x")) {
        for (const std::string_view Tail : {"iB", "B"}) {
            const size_t Bare = Digits.size() - std::min(Digits.size(), Tail.size());
            if (Digits.ends_with(Tail) && Bare > 0 && strchr("KMGTPkmgtp", Digits[Bare - 1]) != nullptr) {
                Digits.remove_suffix(Tail.size());
            }
        }
    }
    const std::string_view Units = "KMGTP";
    const size_t Unit = Digits.empty() || Text.starts_with("0x")
                            ? std::string_view::npos
                            : Units.find(static_cast<char>(toupper(static_cast<unsigned char>(Digits.back()))));
    unsigned Shift = 0;
    if (Unit != std::string_view::npos) {
        Shift = 10 * static_cast<unsigned>(Unit + 1);
        Digits.remove_suffix(1);
    }
    if (!Digits.starts_with("0x") && (Digits.empty() || Digits.find_first_not_of("0123456789") != Digits.npos)) {
        throw UsageError(fmt::format("{}: a size reads like 4096, 64K, 1M or 2G", Text));
    }
    const uint64_t Count = ParseNumber(Digits);
    if (Count > Largest >> Shift) {
        throw UsageError(fmt::format("{}: larger than {}", Text, Largest));
    }
    return Count << Shift;
}

LONG64 ParseTime(const std::string &Text) {
    if (Text.empty()) {
        return embedded::Clock::SystemTime();
    }
    if (Text == "-1") {
        return -1; // which leaves a time as it is, as 0 does
    }
    tm Local = {};
    const char *End = nullptr;
    for (const char *Form : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        tm Read = {};
        if (const char *Behind = strptime(Text.c_str(), Form, &Read); Behind != nullptr) {
            Local = Read;
            End = Behind;
            break;
        }
    }
    if (End == nullptr) {
        if (Text.find_first_not_of("0123456789") != std::string::npos && !Text.starts_with("0x")) {
            throw UsageError(fmt::format("{}: a time reads like 2026-02-28 or 2026-02-28 14:05:00", Text));
        }
        return static_cast<LONG64>(ParseNumber(Text, INT64_MAX));
    }
    constexpr LONG64 Second = 10'000'000;
    LONG64 Part = 0;
    if (*End == '.') {
        LONG64 Unit = Second;
        while (isdigit(static_cast<unsigned char>(*++End)) != 0) {
            Unit /= 10;
            Part += (*End - '0') * Unit;
        }
    }
    const bool Universal = *End == 'Z';
    End += Universal ? 1 : 0;
    if (*End != 0) {
        End += strspn(End, " ");
        throw UsageError(fmt::format("{}: {} does not belong to a time", Text, End));
    }
    Local.tm_isdst = -1;
    const int Day = Local.tm_mday;
    const time_t Seconds = Universal ? timegm(&Local) : mktime(&Local);
    if (Local.tm_mday != Day) {
        throw UsageError(fmt::format("{}: there is no such day", Text));
    }
    return (static_cast<LONG64>(Seconds) + 11644473600) * Second + Part;
}

namespace {

constexpr struct {
    const char *Name;
    uint32_t Bit;
} Categories[] = {{"entry", TRACE_ENTRY},
                  {"read", TRACE_READ},
                  {"start", TRACE_START},
                  {"general", TRACE_GENERAL},
                  {"create", TRACE_CREATE},
                  {"directory", TRACE_DIRECTORY},
                  {"file-info", TRACE_FILE_INFO},
                  {"volume-info", TRACE_VOLUME_INFO},
                  {"close", TRACE_CLOSE},
                  {"cleanup", TRACE_CLEANUP},
                  {"write", TRACE_WRITE},
                  {"control", TRACE_CONTROL},
                  {"ea", TRACE_EA},
                  {"flush", TRACE_FLUSH},
                  {"lock", TRACE_LOCK},
                  {"error", TRACE_ERROR},
                  {"factory", TRACE_FACTORY},
                  {"prefix-dump", TRACE_PREFIX_DUMP},
                  {"notify", TRACE_NOTIFY},
                  {"create-dump", TRACE_CREATE_DUMP},
                  {"fcb", TRACE_FCB},
                  {"read-detail", TRACE_READ_DETAIL},
                  {"async", TRACE_ASYNC},
                  {"external", TRACE_EXTERNAL},
                  {"all", 0xFFFFFFFF}};

} // namespace

uint32_t ParseCategories(std::string_view Text) {
    uint32_t Mask = 0;
    for (bool More = true; More;) {
        const std::string_view Word = Text.substr(0, Text.find(','));
        More = Word.size() < Text.size();
        Text.remove_prefix(Word.size() + (More ? 1 : 0));
        const auto Found = std::find_if(std::begin(Categories), std::end(Categories),
                                        [Word](const auto &Each) { return Word == Each.Name; });
        if (Found != std::end(Categories)) {
            Mask |= Found->Bit;
        } else if (!Word.empty() && isdigit(static_cast<unsigned char>(Word[0])) != 0) {
            Mask |= ParseWord(Word);
        } else {
            throw UsageError(fmt::format("{}: no category of messages; there are {}, and numbers", Word,
                                         ShowCategories(UINT32_MAX) + ", all"));
        }
    }
    return Mask;
}

std::string ShowCategories(uint32_t Mask) {
    std::string Names;
    for (const auto &Each : Categories) {
        if ((Each.Bit & Mask) != 0 && Each.Bit != UINT32_MAX) {
            Names += (Names.empty() ? "" : ", ") + std::string(Each.Name);
        }
    }
    return Names.empty() ? "none" : Names;
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
