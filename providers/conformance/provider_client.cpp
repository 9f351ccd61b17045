#include "providers/conformance/provider_client.h"

#include <cstring>

#include <fmt/format.h>

#include "providers/wide_text.h"

namespace providers::conformance {

namespace {

constexpr UCHAR Untouched = 0xA5;
constexpr size_t GuardBytes = 64;
constexpr size_t MostBatches = 100'000;
constexpr USHORT CodeNoMoreFiles = 0x0505;
constexpr size_t BasicNameOffset = 60;
constexpr size_t ShortFormNameOffset = 88;
constexpr ULONG MostShortUnits = 12;

// A value that no answer has.
template <typename Number>
Number Unwritten() {
    Number Value;
    memset(&Value, Untouched, sizeof(Value));
    return Value;
}

ULONG WordAt(const UCHAR *At) {
    ULONG Value;
    memcpy(&Value, At, sizeof(Value));
    return Value;
}

} // namespace

RVSTATUS Client::Checked(const char *Name, RVSTATUS Status) {
    const ULONG Raw = static_cast<ULONG>(Status);
    if (!RvIsError(Status) && Raw != 0) {
        Fault(fmt::format("{} answered 0x{:08X}, which counts as success: an error has both top bits set", Name, Raw));
    }
    return Status;
}

RVSTATUS Client::Opened(const char *Name, RVSTATUS Status, RVHANDLE Handle) {
    if (!RvIsError(Status) && Handle == 0) {
        Fault(fmt::format("{} handed out handle 0, which names no object", Name));
        return RVSTATUS::Unsuccessful;
    }
    return Status;
}

RVSTATUS Client::OpenVolume(const std::u16string &Path, RVHANDLE &Out) {
    Out = 0;
    const RVSTATUS Status = Call(&RVIOM_FSD_TABLE::RVFsdOpenVolume, "RVFsdOpenVolume", Path.c_str(), &Out);
    return Opened("RVFsdOpenVolume", Status, Out);
}

RVSTATUS Client::OpenDirectory(RVHANDLE Base, const std::u16string &Path, RVHANDLE &Out) {
    Out = 0;
    const RVSTATUS Status = Call(&RVIOM_FSD_TABLE::RVFsdOpenDirectory, "RVFsdOpenDirectory", Base, Path.c_str(), &Out);
    return Opened("RVFsdOpenDirectory", Status, Out);
}

RVSTATUS Client::OpenFile(RVHANDLE Base, const std::u16string &Path, ULONG Disposition, RVHANDLE &Out, ULONG &Action) {
    const bool IsQuestion = Disposition == RV_DISPOSITION_QUERY;
    const ULONG Access = IsQuestion ? ULONG{RV_ACCESS_ATTRIBUTES} : RV_ACCESS_ATTRIBUTES | RV_ACCESS_READ;
    const bool Writes = !IsQuestion && Disposition != RV_DISPOSITION_OPEN_EXISTING;
    Out = 0;
    Action = Unwritten<ULONG>();
    const RVSTATUS Answer =
        Call(&RVIOM_FSD_TABLE::RVFsdCreateFile, "RVFsdCreateFile", Base, Path.c_str(),
             Access | (Writes ? RV_ACCESS_WRITE : 0u), ULONG{FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE},
             Disposition, ULONG{0}, ULONG{0}, &Out, &Action);
    const RVSTATUS Status = Opened("RVFsdCreateFile", Answer, Out);
    if (!RvIsError(Status) && Action == Unwritten<ULONG>()) {
        Fault("RVFsdCreateFile did not write the create action");
    }
    return Status;
}

void Client::CloseVolume(RVHANDLE Handle) {
    if (RvIsError(Call(&RVIOM_FSD_TABLE::RVFsdCloseVolume, "RVFsdCloseVolume", Handle))) {
        Fault("RVFsdCloseVolume refused an open handle");
    }
}
void Client::CloseDirectory(RVHANDLE Handle) {
    if (RvIsError(Call(&RVIOM_FSD_TABLE::RVFsdCloseDirectory, "RVFsdCloseDirectory", Handle))) {
        Fault("RVFsdCloseDirectory refused an open handle");
    }
}
void Client::CloseFile(RVHANDLE Handle) {
    if (RvIsError(Call(&RVIOM_FSD_TABLE::RVFsdCloseFile, "RVFsdCloseFile", Handle))) {
        Fault("RVFsdCloseFile refused an open handle");
    }
}

RVSTATUS Client::VolumePath(const std::u16string &Path, std::u16string &Out) {
    constexpr size_t Units = RV_PATH_BUFFER_BYTES / sizeof(WCHAR);
    std::vector<WCHAR> Buffer(Units + GuardBytes, u'\uA5A5');
    Buffer[0] = 0;
    const RVSTATUS Status =
        Call(&RVIOM_FSD_TABLE::RVFsdQueryPathForVolume, "RVFsdQueryPathForVolume", Path.c_str(), Buffer.data());
    if (RvIsError(Status)) {
        return Status;
    }
    const std::u16string_view Within(Buffer.data(), Units);
    Out = Within.substr(0, Within.find(u'\0'));
    if (Out.size() == Units) {
        Fault("RVFsdQueryPathForVolume left its answer without a terminator within 8192 bytes");
        return RVSTATUS::Unsuccessful;
    }
    if (Buffer[Units] != u'\uA5A5') {
        Fault("RVFsdQueryPathForVolume wrote behind its buffer");
    }
    if (Out.empty()) {
        Fault("RVFsdQueryPathForVolume answered an empty path");
        return RVSTATUS::Unsuccessful;
    }
    return Status;
}

namespace {

// Asks for each of the answers of Out with the others null, then for all of them; both must agree.
template <typename Ask>
RVSTATUS AskForTimes(Client &Of, const char *Name, FileAnswer &Out, const Ask &Query) {
    Out = Unwritten<FileAnswer>();
    const RVSTATUS Status = Query(&Out.Attributes, &Out.Times[0], &Out.Times[1], &Out.Times[2]);
    if (RvIsError(Status)) {
        return Status;
    }
    for (const auto &[What, Written] : {std::pair{"the attributes", Out.Attributes != Unwritten<ULONG>()},
                                        {"the creation time", Out.Times[0] != Unwritten<LONG64>()},
                                        {"the last write time", Out.Times[1] != Unwritten<LONG64>()},
                                        {"the last access time", Out.Times[2] != Unwritten<LONG64>()}}) {
        if (!Written) {
            Of.Fault(fmt::format("{} did not write {}", Name, What));
        }
    }
    ULONG Alone = Unwritten<ULONG>();
    if (RvIsError(Query(&Alone, nullptr, nullptr, nullptr)) || Alone != Out.Attributes) {
        Of.Fault(fmt::format("{} answers otherwise when only the attributes are asked", Name));
    }
    return Status;
}

} // namespace

RVSTATUS Client::DirectoryAnswer(RVHANDLE Directory, FileAnswer &Out) {
    constexpr const char *Name = "RVFsdGetDirectoryInformation";
    return AskForTimes(*this, Name, Out, [&](ULONG *Attributes, LONG64 *Creation, LONG64 *Write, LONG64 *Access) {
        return Call(&RVIOM_FSD_TABLE::RVFsdGetDirectoryInformation, Name, Directory, Attributes, Creation, Write,
                    Access);
    });
}

RVSTATUS Client::BasicAnswer(RVHANDLE File, FileAnswer &Out) {
    constexpr const char *Name = "RVFsdGetBasicFileInformation";
    return AskForTimes(*this, Name, Out, [&](ULONG *Attributes, LONG64 *Creation, LONG64 *Write, LONG64 *Access) {
        return Call(&RVIOM_FSD_TABLE::RVFsdGetBasicFileInformation, Name, File, Attributes, Creation, Write, Access);
    });
}

RVSTATUS Client::AllAnswer(RVHANDLE File, FileAnswer &Out) {
    constexpr const char *Name = "RVFsdGetFileInformation";
    ULONG64 EndOfFile = 0;
    const RVSTATUS Status =
        AskForTimes(*this, Name, Out, [&](ULONG *Attributes, LONG64 *Creation, LONG64 *Write, LONG64 *Access) {
            EndOfFile = Unwritten<ULONG64>();
            constexpr ULONG64 *NoValue = nullptr;
            constexpr UCHAR *NoByte = nullptr;
            return Call(&RVIOM_FSD_TABLE::RVFsdGetFileInformation, Name, File, Attributes, Creation, Write, Access,
                        &EndOfFile, NoValue, NoByte, NoByte, NoByte, NoByte, NoByte);
        });
    Out.EndOfFile = EndOfFile;
    if (!RvIsError(Status) && EndOfFile == Unwritten<ULONG64>()) {
        Fault("RVFsdGetFileInformation did not write the end of file");
    }
    return Status;
}

RVSTATUS Client::Size(RVHANDLE File, ULONG64 &Out) {
    Out = Unwritten<ULONG64>();
    const RVSTATUS Status = Call(&RVIOM_FSD_TABLE::RVFsdGetFileSize, "RVFsdGetFileSize", File, &Out);
    if (!RvIsError(Status) && Out == Unwritten<ULONG64>()) {
        Fault("RVFsdGetFileSize did not write the size");
    }
    return Status;
}

RVSTATUS Client::FileId(RVHANDLE Handle, ULONG64 &Out) {
    Out = Unwritten<ULONG64>();
    const RVSTATUS Status = Call(&RVIOM_FSD_TABLE::RVFsdGetFileId, "RVFsdGetFileId", Handle, &Out);
    if (!RvIsError(Status) && Out == Unwritten<ULONG64>()) {
        Fault("RVFsdGetFileId did not write the identifier");
    }
    return Status;
}

RVSTATUS Client::Read(RVHANDLE File, LONG64 Offset, std::string &Data) {
    const size_t Wanted = Data.size();
    std::vector<UCHAR> Buffer(Wanted + GuardBytes, Untouched);
    ULONG64 Bytes = Wanted;
    const RVSTATUS Status = Call(&RVIOM_FSD_TABLE::RVFsdReadFile, "RVFsdReadFile", File, &Offset, ULONG64{Wanted},
                                 static_cast<PVOID>(Buffer.data()), &Bytes);
    if (std::vector<UCHAR>(Buffer.begin() + static_cast<ptrdiff_t>(Wanted), Buffer.end()) !=
        std::vector<UCHAR>(GuardBytes, Untouched)) {
        Fault("RVFsdReadFile wrote behind its buffer");
    }
    if (!RvIsError(Status) && Bytes > Wanted) {
        Fault(fmt::format("RVFsdReadFile counts {} bytes of {} that were asked for", Bytes, Wanted));
        Bytes = Wanted;
    }
    Data.assign(reinterpret_cast<const char *>(Buffer.data()), RvIsError(Status) ? 0 : Bytes);
    return Status;
}

RVSTATUS Client::Write(RVHANDLE File, LONG64 Offset, const std::string &Data, ULONG64 &Bytes) {
    std::string Copy = Data;
    Bytes = 0;
    const RVSTATUS Status = Call(&RVIOM_FSD_TABLE::RVFsdWriteFile, "RVFsdWriteFile", File, &Offset,
                                 ULONG64{Copy.size()}, static_cast<PVOID>(Copy.data()), &Bytes);
    if (Copy != Data) {
        Fault("RVFsdWriteFile changed the buffer that it writes from");
    }
    if (!RvIsError(Status) && Bytes > Data.size()) {
        Fault(fmt::format("RVFsdWriteFile counts {} bytes of {} that it was given", Bytes, Data.size()));
    }
    return Status;
}

RVSTATUS Client::SetSize(RVHANDLE File, LONG64 Size) {
    ULONG64 Bytes = 0;
    return Call(&RVIOM_FSD_TABLE::RVFsdWriteFile, "RVFsdWriteFile", File, &Size, ULONG64{0}, PVOID{nullptr}, &Bytes);
}

// The records of one batch. False when they are none to go on with.
bool Client::Walk(const std::vector<UCHAR> &Batch, ULONG BufferBytes, bool WithShortNames, std::vector<Record> &Out) {
    const size_t NameOffset = WithShortNames ? ShortFormNameOffset : BasicNameOffset;
    for (size_t At = 0;;) {
        if (At + NameOffset > BufferBytes) {
            Fault("a directory record lies outside its batch");
            return false;
        }
        const UCHAR *Bytes = Batch.data() + At;
        const size_t Units = WordAt(Bytes + NameOffset - sizeof(ULONG));
        if (Units == 0 || Units > (BufferBytes - At - NameOffset) / sizeof(WCHAR)) {
            Fault(fmt::format("a directory record has a name of {} characters, which its batch does not hold", Units));
            return false;
        }
        if (WithShortNames && WordAt(Bytes + 56) > MostShortUnits) {
            Fault(fmt::format("a short name has {} characters; there is room for 12", WordAt(Bytes + 56)));
        }
        Record One;
        One.Name.resize(Units);
        memcpy(One.Name.data(), Bytes + NameOffset, Units * sizeof(WCHAR));
        One.Attributes = WordAt(Bytes + 4);
        memcpy(&One.Size, Bytes + 32, sizeof(One.Size));
        if (One.Name == u"." || One.Name == u".." ||
            One.Name.find_first_of(std::u16string_view(u"\\\0", 2)) != One.Name.npos) {
            Fault(fmt::format("a listing holds the name '{}': the driver adds . and .. itself, and no name has a "
                              "separator",
                              ToUtf8(One.Name)));
        }
        Out.push_back(std::move(One));
        const ULONG Distance = WordAt(Bytes);
        if (Distance == 0) {
            return true;
        }
        if (Distance < NameOffset + Units * sizeof(WCHAR)) {
            Fault("a directory record leads into itself");
            return false;
        }
        At += Distance;
    }
}

RVSTATUS Client::List(RVHANDLE Directory, const char16_t *Mask, bool WithShortNames, ULONG BufferBytes,
                      std::vector<Record> &Out) {
    ULONG Key = 0;
    for (size_t Batches = 0; Batches < MostBatches; Batches++) {
        std::vector<UCHAR> Batch(BufferBytes + GuardBytes, Untouched);
        ULONG Size = BufferBytes;
        const ULONG Before = Key;
        const RVSTATUS Status = WithShortNames
                                    ? Call(&RVIOM_FSD_TABLE::RVFsdEnumerateDirectoryEx, "RVFsdEnumerateDirectoryEx",
                                           Directory, Mask, ULONG{0}, &Key, &Size, static_cast<PVOID>(Batch.data()))
                                    : Call(&RVIOM_FSD_TABLE::RVFsdEnumerateDirectory, "RVFsdEnumerateDirectory",
                                           Directory, Mask, UCHAR{0}, &Key, &Size, static_cast<PVOID>(Batch.data()));
        if (Batch[BufferBytes] != Untouched) {
            Fault("an enumeration wrote behind its buffer");
        }
        if (RvIsError(Status)) {
            // The end is remembered: who asks again is told the same.
            ULONG Again = Key;
            Size = BufferBytes;
            if (RvCode(Status) == CodeNoMoreFiles && Batches != 0 && !WithShortNames &&
                !RvIsError(Call(&RVIOM_FSD_TABLE::RVFsdEnumerateDirectory, "RVFsdEnumerateDirectory", Directory, Mask,
                                UCHAR{0}, &Again, &Size, static_cast<PVOID>(Batch.data())))) {
                Fault("a search that was over gives entries when it is asked again");
            }
            return Status;
        }
        if (Key == Before) {
            Fault("an enumeration gave a batch and did not move its resume key on: it would never end");
            return RVSTATUS::Unsuccessful;
        }
        if (!Walk(Batch, BufferBytes, WithShortNames, Out)) {
            return RVSTATUS::Unsuccessful;
        }
    }
    Fault("a search does not come to its end");
    return RVSTATUS::Unsuccessful;
}

} // namespace providers::conformance
