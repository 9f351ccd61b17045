// stat, df, vol: what an open file and its volume say of themselves.

#include <cstring>

#include <fmt/format.h>

#include "app/remote_file.h"
#include "app/text.h"
#include "app/verbs/verbs.h"

namespace app {

namespace {

constexpr ULONG LongestAnswer = 66 * 1024;

OpenRequest ForAttributes() {
    return {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE};
}

template <typename T>
T At(const RemoteFile::Answer &Answer, size_t Offset) {
    T Value = {};
    if (Offset + sizeof(T) <= Answer.Bytes.size()) {
        memcpy(&Value, Answer.Bytes.data() + Offset, sizeof(T));
    }
    return Value;
}

std::string TextAt(const RemoteFile::Answer &Answer, size_t Offset, size_t Bytes) {
    std::u16string Text(Bytes / sizeof(WCHAR), u'\0');
    if (Offset + Bytes <= Answer.Bytes.size()) {
        memcpy(Text.data(), Answer.Bytes.data() + Offset, Bytes);
    }
    return Narrow(Text);
}

void ShowFile(RemoteFile &File) {
    const RemoteFile::Answer All = File.Query(FileAllInformation, LongestAnswer);
    const RemoteFile::Answer Open = File.Query(FileNetworkOpenInformation, 56);
    const RemoteFile::Answer Tag = File.Query(FileAttributeTagInformation, 8);
    const RemoteFile::Answer Alternate = File.Query(FileAlternateNameInformation, LongestAnswer);
    fmt::print("{}\n", "\\" + TextAt(All, 100, At<ULONG>(All, 96)));
    fmt::print("  FileBasicInformation          created {}  accessed {}\n"
               "                                written {}  changed {}\n"
               "                                attributes {} (0x{:x})\n",
               ShowTime(At<LONG64>(All, 0)), ShowTime(At<LONG64>(All, 8)), ShowTime(At<LONG64>(All, 16)),
               ShowTime(At<LONG64>(All, 24)), ShowAttributes(At<ULONG>(All, 32)), At<ULONG>(All, 32));
    fmt::print("  FileStandardInformation       size {}  allocated {}  links {}  delete pending {}  directory {}\n",
               At<LONG64>(All, 48), At<LONG64>(All, 40), At<ULONG>(All, 56), At<UCHAR>(All, 60) ? "yes" : "no",
               At<UCHAR>(All, 61) ? "yes" : "no");
    fmt::print("  FileInternalInformation       index 0x{:016x}\n", At<ULONG64>(All, 64));
    fmt::print("  FileEaInformation             size {}\n", At<ULONG>(All, 72));
    fmt::print("  FileAccessInformation         access 0x{:08x} (as the all class tells it)\n", At<ULONG>(All, 76));
    fmt::print("  FilePositionInformation       offset {}\n", At<LONG64>(All, 80));
    fmt::print("  FileModeInformation           mode 0x{:x} (as the all class tells it)\n", At<ULONG>(All, 88));
    fmt::print("  FileNetworkOpenInformation    size {}  attributes {}\n", At<LONG64>(Open, 40),
               ShowAttributes(At<ULONG>(Open, 48)));
    fmt::print("  FileAttributeTagInformation   attributes {} (0x{:x})  reparse tag {}\n",
               ShowAttributes(At<ULONG>(Tag, 0)), At<ULONG>(Tag, 0), At<ULONG>(Tag, 4));
    fmt::print("  FileAlternateNameInformation  {}\n", "\\" + TextAt(Alternate, 4, At<ULONG>(Alternate, 0)));
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
int ShowRaw(RemoteFile &File, ULONG InfoClass, ULONG Length) {
    const RemoteFile::Answer Raw = File.Ask(InfoClass, Length);
    fmt::print("{}\nInformation {}\n", ShowStatus(Raw.Status), Raw.Information);
    HexDump(Raw.Bytes.data(), std::min<size_t>(Raw.Information, Raw.Bytes.size()));
    if (NT_SUCCESS(Raw.Status)) {
        return 0;
    }
    Complain(fmt::format("{}: {}", ShowStatus(Raw.Status), ShowPath(File.Path())));
    return 1;
}

std::string Size(ULONG64 Units, ULONG64 UnitBytes) {
    return fmt::format("{}", Units * UnitBytes);
}

void ShowSpace(const std::string &Path) {
    RemoteFile File(RemotePath(Path), ForAttributes());
    const RemoteFile::Answer Full = File.QueryVolume(FileFsFullSizeInformation, 32);
    const RemoteFile::Answer Attributes = File.QueryVolume(FileFsAttributeInformation, 256);
    const ULONG64 Unit = ULONG64{At<ULONG>(Full, 24)} * At<ULONG>(Full, 28);
    const ULONG64 Total = At<ULONG64>(Full, 0);
    const ULONG64 Available = At<ULONG64>(Full, 8);
    constexpr ULONG VolumeQuotas = 0x20;
    fmt::print("{:<32} {:>16} {:>16} {:>16}  {}\n", ShowPath(File.Path()), Size(Total, Unit),
               Size(Total - std::min(Total, Available), Unit), Size(Available, Unit),
               (At<ULONG>(Attributes, 0) & VolumeQuotas) ? "quota" : "");
}

void ShowVolume(const std::string &Path) {
    RemoteFile File(RemotePath(Path), ForAttributes());
    const RemoteFile::Answer Volume = File.QueryVolume(FileFsVolumeInformation, 1024);
    const RemoteFile::Answer Label = File.AskVolume(FileFsLabelInformation, 1024);
    const RemoteFile::Answer Sizes = File.QueryVolume(FileFsSizeInformation, 24);
    const RemoteFile::Answer Device = File.QueryVolume(FileFsDeviceInformation, 8);
    const RemoteFile::Answer Attributes = File.QueryVolume(FileFsAttributeInformation, 1024);
    const RemoteFile::Answer Full = File.QueryVolume(FileFsFullSizeInformation, 32);
    fmt::print("{}\n", ShowPath(File.Path()));
    fmt::print("  FileFsVolumeInformation       label \"{}\"  serial number {:08X}  created {}\n",
               TextAt(Volume, 18, At<ULONG>(Volume, 12)), At<ULONG>(Volume, 8), ShowTime(At<LONG64>(Volume, 0)));
    // The system lets no caller ask for this class alone.
    fmt::print("  FileFsLabelInformation        {}\n",
               NT_SUCCESS(Label.Status) ? '"' + TextAt(Label, 4, At<ULONG>(Label, 0)) + '"' : ShowStatus(Label.Status));
    fmt::print("  FileFsSizeInformation         {} units in all, {} available, {} sectors of {} bytes a unit\n",
               At<ULONG64>(Sizes, 0), At<ULONG64>(Sizes, 8), At<ULONG>(Sizes, 16), At<ULONG>(Sizes, 20));
    fmt::print("  FileFsDeviceInformation       type {}  characteristics 0x{:x}\n", At<ULONG>(Device, 0),
               At<ULONG>(Device, 4));
    fmt::print("  FileFsAttributeInformation    attributes 0x{:x}  longest component {}  file system \"{}\"\n",
               At<ULONG>(Attributes, 0), At<ULONG>(Attributes, 4), TextAt(Attributes, 12, At<ULONG>(Attributes, 8)));
    fmt::print("  FileFsFullSizeInformation     {} units in all, {} for the caller, {} in fact\n", At<ULONG64>(Full, 0),
               At<ULONG64>(Full, 8), At<ULONG64>(Full, 16));
}

} // namespace

void AddInfoVerbs(CLI::App &App, Command &Chosen) {
    struct StatOptions {
        std::vector<std::string> Paths;
        int Class = 0;
        uint32_t Length = 1024;
    };
    auto *StatVerb = App.add_subcommand("stat", "every class of file information, decoded");
    auto Stat = std::make_shared<StatOptions>();
    StatVerb->add_option("PATH", Stat->Paths)->required();
    StatVerb->add_option("--class", Stat->Class, "ask one class and show what came");
    StatVerb->add_option("--length", Stat->Length, "buffer length for --class")
        ->capture_default_str()
        ->check(CLI::Range(0u, 1u << 20));
    StatVerb->callback([&Chosen, Stat] {
        Chosen = [Stat](Session &) {
            int Code = 0;
            for (const std::string &Path : Stat->Paths) {
                Code |= Guarded([&] {
                    RemoteFile File(RemotePath(Path), ForAttributes());
                    if (Stat->Class != 0) {
                        Code |= ShowRaw(File, static_cast<ULONG>(Stat->Class), Stat->Length);
                    } else {
                        ShowFile(File);
                    }
                });
            }
            return Code;
        };
    });

    auto *SpaceVerb = App.add_subcommand("df", "space of the volumes behind paths (all exports without a path)");
    auto Paths = std::make_shared<std::vector<std::string>>();
    SpaceVerb->add_option("PATH", *Paths);
    SpaceVerb->callback([&Chosen, Paths] {
        Chosen = [Paths](Session &Running) {
            std::vector<std::string> Volumes = *Paths;
            if (Volumes.empty()) {
                for (const Export &One : Running.Exports()) {
                    Volumes.push_back(One.Name);
                }
            }
            fmt::print("{:<32} {:>16} {:>16} {:>16}\n", "volume", "bytes", "used", "available");
            int Code = 0;
            for (const std::string &Path : Volumes) {
                Code |= Guarded([&] { ShowSpace(Path); });
            }
            return Code;
        };
    });

    auto *VolumeVerb = App.add_subcommand("vol", "every class of volume information, decoded");
    auto Path = std::make_shared<std::string>();
    VolumeVerb->add_option("PATH", *Path)->required();
    VolumeVerb->callback(
        [&Chosen, Path] { Chosen = [Path](Session &) { return Guarded([&] { ShowVolume(*Path); }); }; });
}

} // namespace app
