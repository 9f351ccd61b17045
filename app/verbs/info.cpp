// stat, df, vol: what an open file and its volume say of themselves.

#include <algorithm>
#include <cstring>
#include <optional>
#include <span>

#include <fmt/format.h>

#include "app/output.h"
#include "app/remote_file.h"
#include "app/text.h"
#include "app/verbs/verbs.h"

namespace app {

namespace {

using Answer = RemoteFile::Answer;

constexpr ULONG LongestAnswer = 66 * 1024;

OpenRequest ForAttributes() {
    return {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE};
}

template <typename T>
T At(const Answer &From, size_t Offset) {
    T Value = {};
    if (Offset + sizeof(T) <= From.Bytes.size()) {
        memcpy(&Value, From.Bytes.data() + Offset, sizeof(T));
    }
    return Value;
}

// A name of Bytes bytes behind its length.
std::string NameAt(const Answer &From, size_t LengthOffset, size_t Offset) {
    const size_t Bytes = At<ULONG>(From, LengthOffset);
    std::u16string Text(Bytes / sizeof(WCHAR), u'\0');
    if (Offset + Bytes <= From.Bytes.size()) {
        memcpy(Text.data(), From.Bytes.data() + Offset, Bytes);
    }
    return Narrow(Text);
}

// ---- Flags

struct Flag {
    ULONG Bit;
    const char *Name;
};

constexpr Flag AttributeFlags[] = {{0x1, "READONLY"},
                                   {0x2, "HIDDEN"},
                                   {0x4, "SYSTEM"},
                                   {0x10, "DIRECTORY"},
                                   {0x20, "ARCHIVE"},
                                   {0x80, "NORMAL"},
                                   {0x100, "TEMPORARY"},
                                   {0x400, "REPARSE_POINT"},
                                   {0x800, "COMPRESSED"},
                                   {0x1000, "OFFLINE"},
                                   {0x2000, "NOT_CONTENT_INDEXED"}};
constexpr Flag AccessFlags[] = {{0x1, "READ_DATA"},       {0x2, "WRITE_DATA"},       {0x4, "APPEND_DATA"},
                                {0x8, "READ_EA"},         {0x10, "WRITE_EA"},        {0x20, "EXECUTE"},
                                {0x40, "DELETE_CHILD"},   {0x80, "READ_ATTRIBUTES"}, {0x100, "WRITE_ATTRIBUTES"},
                                {0x10000, "DELETE"},      {0x20000, "READ_CONTROL"}, {0x40000, "WRITE_DAC"},
                                {0x80000, "WRITE_OWNER"}, {0x100000, "SYNCHRONIZE"}};
constexpr Flag ModeFlags[] = {
    {0x2, "WRITE_THROUGH"},         {0x4, "SEQUENTIAL_ONLY"},          {0x8, "NO_INTERMEDIATE_BUFFERING"},
    {0x10, "SYNCHRONOUS_IO_ALERT"}, {0x20, "SYNCHRONOUS_IO_NONALERT"}, {0x1000, "DELETE_ON_CLOSE"}};
constexpr Flag FileSystemFlags[] = {{0x1, "CASE_SENSITIVE_SEARCH"},
                                    {0x2, "CASE_PRESERVED_NAMES"},
                                    {0x4, "UNICODE_ON_DISK"},
                                    {0x20, "VOLUME_QUOTAS"},
                                    {0x80, "SUPPORTS_REPARSE_POINTS"}};
constexpr Flag DeviceFlags[] = {{0x10, "REMOTE_DEVICE"}, {0x20, "DEVICE_IS_MOUNTED"}};

// "0x21 READONLY ARCHIVE"; bits without a name show in the number alone.
std::string ShowFlags(ULONG Value, std::span<const Flag> Known) {
    std::string Text = fmt::format("0x{:x}", Value);
    for (const Flag &One : Known) {
        if ((Value & One.Bit) != 0) {
            Text += fmt::format(" {}", One.Name);
        }
    }
    return Text;
}

// ---- The classes

struct InfoClass {
    ULONG Number;
    const char *Name;
    ULONG Length; // of the buffer that it is asked with
    std::string (*Decode)(const Answer &From);
    void (*Facts)(const Answer &From,
                  std::vector<Field> &Record) = nullptr; // what a record says of it; null: nothing more
};

// Fields of records of flags: the names of those that are set.
std::vector<std::string> FlagNames(ULONG Value, std::span<const Flag> Known) {
    std::vector<std::string> Names;
    for (const Flag &One : Known) {
        if ((Value & One.Bit) != 0) {
            Names.emplace_back(One.Name);
        }
    }
    return Names;
}

std::string DecodeBasic(const Answer &From) {
    return fmt::format("created {}  accessed {}\n{:32}written {}  changed {}\n{:32}attributes {}",
                       ShowTime(At<LONG64>(From, 0)), ShowTime(At<LONG64>(From, 8)), "", ShowTime(At<LONG64>(From, 16)),
                       ShowTime(At<LONG64>(From, 24)), "", ShowFlags(At<ULONG>(From, 32), AttributeFlags));
}

std::string DecodeStandard(const Answer &From) {
    return fmt::format("size {}  allocated {}  links {}  delete pending {}  directory {}", At<LONG64>(From, 8),
                       At<LONG64>(From, 0), At<ULONG>(From, 16), At<UCHAR>(From, 20) ? "yes" : "no",
                       At<UCHAR>(From, 21) ? "yes" : "no");
}

std::string DecodeAll(const Answer &From) {
    return fmt::format("{} bytes: the others, with access {}\n{:32}and mode {}", From.Information,
                       ShowFlags(At<ULONG>(From, 76), AccessFlags), "", ShowFlags(At<ULONG>(From, 88), ModeFlags));
}

std::string DecodeNetworkOpen(const Answer &From) {
    return fmt::format("size {}  allocated {}  attributes {}", At<LONG64>(From, 40), At<LONG64>(From, 32),
                       ShowFlags(At<ULONG>(From, 48), AttributeFlags));
}

std::string DecodeTag(const Answer &From) {
    return fmt::format("attributes {}  reparse tag {}", ShowFlags(At<ULONG>(From, 0), AttributeFlags),
                       At<ULONG>(From, 4));
}

std::string DecodeName(const Answer &From) {
    return "\\" + NameAt(From, 0, 4);
}

// Access, mode and alignment are the system's own to tell: it does not ask the driver for these alone.
constexpr InfoClass FileClasses[] = {
    {FileBasicInformation, "FileBasicInformation", 40, DecodeBasic,
     [](const Answer &From, std::vector<Field> &Record) {
         Record.push_back({"created", JsonTime(At<LONG64>(From, 0))});
         Record.push_back({"accessed", JsonTime(At<LONG64>(From, 8))});
         Record.push_back({"written", JsonTime(At<LONG64>(From, 16))});
         Record.push_back({"changed", JsonTime(At<LONG64>(From, 24))});
         Record.push_back({"attributes", FlagNames(At<ULONG>(From, 32), AttributeFlags)});
     }},
    {FileStandardInformation, "FileStandardInformation", 24, DecodeStandard,
     [](const Answer &From, std::vector<Field> &Record) {
         Record.push_back({"size", int64_t{At<LONG64>(From, 8)}});
         Record.push_back({"allocated", int64_t{At<LONG64>(From, 0)}});
         Record.push_back({"links", uint64_t{At<ULONG>(From, 16)}});
         Record.push_back({"delete_pending", At<UCHAR>(From, 20) != 0});
         Record.push_back({"directory", At<UCHAR>(From, 21) != 0});
     }},
    {FileInternalInformation, "FileInternalInformation", 8,
     [](const Answer &From) { return fmt::format("index 0x{:016x}", At<ULONG64>(From, 0)); },
     [](const Answer &From, std::vector<Field> &Record) {
         Record.push_back({"index", fmt::format("0x{:016x}", At<ULONG64>(From, 0))});
     }},
    {FileEaInformation, "FileEaInformation", 4,
     [](const Answer &From) { return fmt::format("size {}", At<ULONG>(From, 0)); },
     [](const Answer &From, std::vector<Field> &Record) {
         Record.push_back({"ea_size", uint64_t{At<ULONG>(From, 0)}});
     }},
    {FileAccessInformation, "FileAccessInformation", 4,
     [](const Answer &From) { return "access " + ShowFlags(At<ULONG>(From, 0), AccessFlags); }},
    {FileNameInformation, "FileNameInformation", LongestAnswer, DecodeName},
    {FilePositionInformation, "FilePositionInformation", 8,
     [](const Answer &From) { return fmt::format("offset {}", At<LONG64>(From, 0)); }},
    {FileModeInformation, "FileModeInformation", 4,
     [](const Answer &From) { return "mode " + ShowFlags(At<ULONG>(From, 0), ModeFlags); }},
    {FileAlignmentInformation, "FileAlignmentInformation", 4,
     [](const Answer &From) { return fmt::format("requirement {}", At<ULONG>(From, 0)); }},
    {FileAllInformation, "FileAllInformation", LongestAnswer, DecodeAll},
    {FileAlternateNameInformation, "FileAlternateNameInformation", LongestAnswer, DecodeName},
    {FileStreamInformation, "FileStreamInformation", LongestAnswer, DecodeName},
    {FileNetworkOpenInformation, "FileNetworkOpenInformation", 56, DecodeNetworkOpen},
    {FileAttributeTagInformation, "FileAttributeTagInformation", 8, DecodeTag},
};

std::string ShowUnits(ULONG64 Units, const Answer &From, size_t SectorsOffset) {
    const ULONG64 UnitBytes = ULONG64{At<ULONG>(From, SectorsOffset)} * At<ULONG>(From, SectorsOffset + 4);
    return fmt::format("{} ({} bytes)", Units, Units * UnitBytes);
}

std::string DecodeVolume(const Answer &From) {
    return fmt::format("label \"{}\"  serial number {:08X}  created {}", NameAt(From, 12, 18), At<ULONG>(From, 8),
                       ShowTime(At<LONG64>(From, 0)));
}

std::string DecodeSize(const Answer &From) {
    return fmt::format("units {}  available {}\n{:32}of {} sectors of {} bytes",
                       ShowUnits(At<ULONG64>(From, 0), From, 16), ShowUnits(At<ULONG64>(From, 8), From, 16), "",
                       At<ULONG>(From, 16), At<ULONG>(From, 20));
}

std::string DecodeFullSize(const Answer &From) {
    return fmt::format("units {}  to the caller {}\n{:32}in fact {}  of {} sectors of {} bytes",
                       ShowUnits(At<ULONG64>(From, 0), From, 24), ShowUnits(At<ULONG64>(From, 8), From, 24), "",
                       ShowUnits(At<ULONG64>(From, 16), From, 24), At<ULONG>(From, 24), At<ULONG>(From, 28));
}

std::string DecodeDevice(const Answer &From) {
    return fmt::format("type {}  characteristics {}", At<ULONG>(From, 0), ShowFlags(At<ULONG>(From, 4), DeviceFlags));
}

std::string DecodeFileSystem(const Answer &From) {
    return fmt::format("file system \"{}\"  longest component {}\n{:32}attributes {}", NameAt(From, 8, 12),
                       At<ULONG>(From, 4), "", ShowFlags(At<ULONG>(From, 0), FileSystemFlags));
}

// The system lets no caller ask for the label alone.
constexpr InfoClass VolumeClasses[] = {
    {FileFsVolumeInformation, "FileFsVolumeInformation", 1024, DecodeVolume,
     [](const Answer &From, std::vector<Field> &Record) {
         Record.push_back({"label", NameAt(From, 12, 18)});
         Record.push_back({"serial", fmt::format("{:08X}", At<ULONG>(From, 8))});
         Record.push_back({"created", JsonTime(At<LONG64>(From, 0))});
     }},
    {FileFsLabelInformation, "FileFsLabelInformation", 1024,
     [](const Answer &From) { return '"' + NameAt(From, 0, 4) + '"'; }},
    {FileFsSizeInformation, "FileFsSizeInformation", 24, DecodeSize},
    {FileFsDeviceInformation, "FileFsDeviceInformation", 8, DecodeDevice,
     [](const Answer &From, std::vector<Field> &Record) {
         Record.push_back({"device_type", uint64_t{At<ULONG>(From, 0)}});
         Record.push_back({"characteristics", FlagNames(At<ULONG>(From, 4), DeviceFlags)});
     }},
    {FileFsAttributeInformation, "FileFsAttributeInformation", 1024, DecodeFileSystem,
     [](const Answer &From, std::vector<Field> &Record) {
         Record.push_back({"file_system", NameAt(From, 8, 12)});
         Record.push_back({"longest_component", uint64_t{At<ULONG>(From, 4)}});
         Record.push_back({"file_system_attributes", FlagNames(At<ULONG>(From, 0), FileSystemFlags)});
     }},
    {FileFsFullSizeInformation, "FileFsFullSizeInformation", 32, DecodeFullSize,
     [](const Answer &From, std::vector<Field> &Record) {
         const uint64_t Unit = uint64_t{At<ULONG>(From, 24)} * At<ULONG>(From, 28);
         Record.push_back({"unit_bytes", Unit});
         Record.push_back({"bytes", uint64_t{At<ULONG64>(From, 0) * Unit}});
         Record.push_back({"available_to_caller", uint64_t{At<ULONG64>(From, 8) * Unit}});
         Record.push_back({"available", uint64_t{At<ULONG64>(From, 16) * Unit}});
     }},
};

using Question = Answer (RemoteFile::*)(ULONG InfoClass, ULONG Length);

// One record of everything: each fact once, the classes that were refused by name.
void PrintFacts(RemoteFile &File, std::span<const InfoClass> Classes, Question Ask) {
    std::vector<Field> Record = {{"path", ShowPath(File.Path())}};
    std::vector<std::string> Refused;
    for (const InfoClass &One : Classes) {
        const Answer Given = (File.*Ask)(One.Number, One.Length);
        if (!NT_SUCCESS(Given.Status)) {
            Refused.push_back(std::string(One.Name) + " " + StatusName(Given.Status));
        } else if (One.Facts != nullptr) {
            One.Facts(Given, Record);
        }
    }
    Record.push_back({"refused", Refused});
    PrintRecord(Record);
}

// Each class as it is answered, or the status of its refusal.
void ShowClasses(RemoteFile &File, std::span<const InfoClass> Classes, Question Ask) {
    if (WantsJson()) {
        PrintFacts(File, Classes, Ask);
        return;
    }
    fmt::print("{}\n", ShowPath(File.Path()));
    for (const InfoClass &One : Classes) {
        const Answer Given = (File.*Ask)(One.Number, One.Length);
        fmt::print("  {:<30}{}\n", One.Name, NT_SUCCESS(Given.Status) ? One.Decode(Given) : ShowStatus(Given.Status));
    }
}

void HexDump(const UCHAR *Bytes, size_t Count) {
    for (size_t Row = 0; Row < Count; Row += 16) {
        std::string Hex;
        std::string Text;
        for (size_t Index = Row; Index < Row + 16; ++Index) {
            Hex += Index < Count ? fmt::format("{:02x} ", Bytes[Index]) : "   ";
            if (Index < Count) {
                Text += Bytes[Index] >= 0x20 && Bytes[Index] < 0x7F ? static_cast<char>(Bytes[Index]) : '.';
            }
        }
        fmt::print("{:04x}  {} {}\n", Row, Hex, Text);
    }
}

// One class with one buffer length, as it came.
int ShowRaw(RemoteFile &File, const Answer &Raw) {
    fmt::print("{}\nInformation {}\n", ShowStatus(Raw.Status), Raw.Information);
    HexDump(Raw.Bytes.data(), std::min<size_t>(Raw.Information, Raw.Bytes.size()));
    if (NT_SUCCESS(Raw.Status)) {
        return 0;
    }
    Complain(fmt::format("{}: {}", ShowStatus(Raw.Status), ShowPath(File.Path())));
    return 1;
}

void ShowSpace(const std::string &Path, bool Human) {
    RemoteFile File(RemotePath(Path), ForAttributes());
    const Answer Full = File.QueryVolume(FileFsFullSizeInformation, 32);
    const Answer Attributes = File.QueryVolume(FileFsAttributeInformation, 256);
    const ULONG64 Unit = ULONG64{At<ULONG>(Full, 24)} * At<ULONG>(Full, 28);
    const ULONG64 Total = At<ULONG64>(Full, 0);
    const ULONG64 Available = At<ULONG64>(Full, 8);
    const ULONG64 Used = Total - std::min(Total, Available);
    constexpr ULONG VolumeQuotas = 0x20;
    const bool Quota = (At<ULONG>(Attributes, 0) & VolumeQuotas) != 0;
    if (WantsJson()) {
        PrintRecord({{"path", ShowPath(File.Path())},
                     {"bytes", uint64_t{Total * Unit}},
                     {"used", uint64_t{Used * Unit}},
                     {"available", uint64_t{Available * Unit}},
                     {"quota", Quota}});
        return;
    }
    fmt::print("{:<32} {:>16} {:>16} {:>16}{}\n", ShowPath(File.Path()), ShowBytes(Total * Unit, Human),
               ShowBytes(Used * Unit, Human), ShowBytes(Available * Unit, Human), Quota ? "  quota" : "");
}

// ---- The verbs

// A verb that shows every class, or one with a buffer length of the caller's choice.
Verb ClassVerb(const char *Name, const char *What, std::span<const InfoClass> Classes, Question Ask) {
    struct Words {
        std::vector<std::string> Paths;
        std::optional<uint32_t> Class;
        std::optional<uint32_t> Length;
    };
    const auto Given = std::make_shared<Words>();
    return {.Name = Name,
            .Group = "information",
            .Summary = What,
            .Parameters =
                {Parameter{"PATH", "files and directories", &Given->Paths}.Needed(),
                 Parameter{"--class", "ask one class, by its number, and show what came", &Given->Class}.As("NUMBER"),
                 Parameter{"--length", "buffer length for --class; 1024 when left out", &Given->Length}.As("BYTES")},
            .Run = [Given, Classes, Ask](Session &) {
                constexpr uint32_t Longest = 1 << 20;
                if (Given->Length && (!Given->Class || *Given->Length > Longest)) {
                    throw UsageError(fmt::format("--length: at most {}, and with --class only", Longest));
                }
                int Code = 0;
                for (const std::string &Path : Given->Paths) {
                    Code |= Guarded([&] {
                        RemoteFile File(RemotePath(Path), ForAttributes());
                        if (Given->Class) {
                            Code |= ShowRaw(File, (File.*Ask)(*Given->Class, Given->Length.value_or(1024)));
                        } else {
                            ShowClasses(File, Classes, Ask);
                        }
                    });
                }
                return Code;
            }};
}

Verb SpaceVerb() {
    const auto Paths = std::make_shared<std::vector<std::string>>();
    const auto Human = std::make_shared<bool>(false);
    return {.Name = "df",
            .Group = "information",
            .Summary = "space of the volumes behind paths (all exports without a path)",
            .Parameters = {Parameter{"PATH", "files and directories", Paths.get()}.As("[PATH...]"),
                           {"-h,--human", "sizes for people", Human.get()}},
            .Run = [Paths, Human](Session &Running) {
                std::vector<std::string> Volumes = *Paths;
                if (Volumes.empty()) {
                    for (const Export &One : Running.Exports()) {
                        Volumes.push_back(One.Name);
                    }
                }
                if (!WantsJson()) {
                    fmt::print("{:<32} {:>16} {:>16} {:>16}\n", "volume", *Human ? "size" : "bytes", "used",
                               "available");
                }
                int Code = 0;
                for (const std::string &Path : Volumes) {
                    Code |= Guarded([&] { ShowSpace(Path, *Human); });
                }
                return Code;
            }};
}

} // namespace

void AddInfoVerbs(VerbList &List) {
    List.push_back(ClassVerb("stat", "every class of file information, decoded", FileClasses, &RemoteFile::Ask));
    List.push_back(SpaceVerb());
    List.push_back(
        ClassVerb("vol", "every class of volume information, decoded", VolumeClasses, &RemoteFile::AskVolume));
}

} // namespace app
