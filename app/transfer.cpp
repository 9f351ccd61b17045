#include "app/transfer.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "app/file_access.h"
#include "app/interrupt.h"
#include "app/progress.h"
#include "app/remote_file.h"
#include "app/text.h"
#include "embedded/io/io.h"

namespace app {

namespace {

constexpr size_t BufferBytes = 1 << 20;

using Source = std::function<size_t(LONG64 Offset, void *Buffer, size_t Length)>;
using Sink = std::function<void(LONG64 Offset, const void *Buffer, size_t Length)>;

void Pump(const Source &From, const Sink &To, Progress &Shown) {
    const auto Buffer = std::make_unique<char[]>(BufferBytes);
    LONG64 Offset = 0;
    while (const size_t Got = From(Offset, Buffer.get(), BufferBytes)) {
        To(Offset, Buffer.get(), Got);
        Offset += static_cast<LONG64>(Got);
        Shown.Show(Offset);
    }
    CheckInterrupt(); // an end that came with the signal is no end of the data
}

RemoteFile OpenForReading(const std::u16string &Path) {
    return RemoteFile(Path, {.Options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT | FILE_SEQUENTIAL_ONLY});
}

OpenRequest ForNewFile() {
    return {.Access = FILE_WRITE_DATA | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | DELETE | SYNCHRONIZE,
            .Share = FILE_SHARE_READ,
            .Disposition = FILE_CREATE,
            .Options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT};
}

LONG64 RemoteSize(RemoteFile &File) {
    const RemoteFile::Answer Standard = File.Query(FileStandardInformation, sizeof(FILE_STANDARD_INFORMATION));
    FILE_STANDARD_INFORMATION Record;
    memcpy(&Record, Standard.Bytes.data(), sizeof(Record));
    return Record.EndOfFile.QuadPart;
}

void RenameOpen(RemoteFile &File, const std::u16string &To, bool Replace) {
    const std::u16string Target = KernelName(To);
    // FILE_RENAME_INFORMATION: replace at 0, root directory at 8, length of the name at 16, the name at 20.
    constexpr size_t NameOffset = 20;
    std::vector<UCHAR> Record(NameOffset + Target.size() * sizeof(WCHAR));
    Record[0] = Replace ? 1 : 0;
    const ULONG NameBytes = static_cast<ULONG>(Target.size() * sizeof(WCHAR));
    memcpy(Record.data() + 16, &NameBytes, sizeof(NameBytes));
    memcpy(Record.data() + NameOffset, Target.data(), NameBytes);
    File.Set(FileRenameInformation, Record.data(), static_cast<ULONG>(Record.size()));
}

// A name beside Path that nobody else gives: hidden from listings of *.txt and the like, and told apart by the process.
std::u16string Beside(const std::u16string &Path) {
    constexpr size_t Longest = 255;
    const std::u16string Tail = Widen(fmt::format(".{}.part", getpid()));
    return ParentOf(Path) + u"\\" + LastOf(Path).substr(0, Longest - Tail.size()) + Tail;
}

// A file to be written. Until it is kept it can vanish again: a new one does, and one that replaces another is written
// beside that.
class RemoteTarget {
public:
    RemoteTarget(Session &Running, const std::u16string &Path, const CopyOptions &Options)
        : Running_(Running), Path_(Path) {
        if (!Options.Force || !FindOld()) {
            try {
                File_.emplace(Path, ForNewFile());
            } catch (const StatusError &Refused) {
                if (Refused.Status != STATUS_OBJECT_NAME_COLLISION || Options.Force) {
                    throw;
                }
                throw StatusError(Refused.Status, ShowPath(Path) + "; --force replaces a file");
            }
            Made_ = true;
        } else if (Options.InPlace) {
            OpenRequest Request = ForNewFile();
            Request.Disposition = FILE_OVERWRITE_IF;
            File_.emplace(Path, Request);
            Made_ = File_->CreateInformation() == FILE_CREATED;
        } else {
            File_.emplace(Beside(Path), ForNewFile());
            Made_ = true;
            Replaces_ = true;
            try {
                GiveAccess(); // before there are bytes that not everybody may see
            } catch (...) {
                RemovePart();
                throw;
            }
        }
    }
    RemoteFile &File() {
        return *File_;
    }
    // The data is all there and stays: an error of the close is told, and takes nothing away.
    void Keep(const FILE_BASIC_INFORMATION *Facts) {
        File_->Flush();
        if (Replaces_) {
            if (!GiveAccess()) {
                Complain(ShowPath(Path_) + ": its owner or group is another now");
            }
            FILE_BASIC_INFORMATION Record = Facts != nullptr ? *Facts : FILE_BASIC_INFORMATION{};
            if (Record.FileAttributes == 0) {
                Record.FileAttributes = Old_.FileAttributes;
            }
            if (Record.CreationTime.QuadPart == 0) {
                Record.CreationTime = Old_.CreationTime;
            }
            // Read-only comes last: until it has its name, the part must be one that can be deleted.
            const ULONG Attributes = Record.FileAttributes;
            Record.FileAttributes &= ~static_cast<ULONG>(FILE_ATTRIBUTE_READONLY);
            Record.FileAttributes |= Record.FileAttributes == 0 ? FILE_ATTRIBUTE_NORMAL : 0;
            SetBasic(*File_, Record);
            try {
                RenameOpen(*File_, Path_, true);
            } catch (const StatusError &Refused) {
                if (!IsThere(Path_)) {
                    // The old file goes before the new one takes its name: the part may be all that there is.
                    Kept_ = true;
                    throw StatusError(Refused.Status,
                                      ShowPath(Path_) + " may be gone; the new data is in " + ShowPath(File_->Path()));
                }
                throw StatusError(Refused.Status, ShowPath(Path_) + " cannot be replaced; --inplace writes into it");
            }
            Kept_ = true;
            if (Attributes != Record.FileAttributes) {
                SetBasic(*File_, {.FileAttributes = Attributes});
            }
        } else if (Facts != nullptr) {
            SetBasic(*File_, *Facts);
        }
        Kept_ = true;
        File_->End();
    }
    ~RemoteTarget() {
        if (!Kept_ && Made_ && File_) {
            RemovePart();
        }
    }

private:
    // Whether a file is seen under this name.
    static bool IsThere(const std::u16string &Path) {
        const embedded::CreateResult Found =
            OpenRemote(Path, {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE, .Options = FILE_SYNCHRONOUS_IO_NONALERT});
        if (!NT_SUCCESS(Found.Status)) {
            return Found.Status == STATUS_SHARING_VIOLATION;
        }
        static_cast<void>(RemoteFile(Path, Found));
        return true;
    }
    // TRUE when there is a file to be replaced; its facts are kept.
    bool FindOld() {
        const embedded::CreateResult Found =
            OpenRemote(Path_, {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                               .Options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT});
        if (Found.Status == STATUS_OBJECT_NAME_NOT_FOUND) {
            return false;
        }
        if (!NT_SUCCESS(Found.Status)) {
            throw StatusError(Found.Status, ShowPath(Path_));
        }
        RemoteFile Old(Path_, Found);
        Old_ = Basic(Old);
        if ((Old_.FileAttributes & FILE_ATTRIBUTE_READONLY) != 0) {
            throw StatusError(STATUS_ACCESS_DENIED, ShowPath(Path_) + " is read-only; attrib -r changes that");
        }
        struct stat Status = {};
        if (const int Descriptor = DescriptorOf(Old);
            Descriptor >= 0 && fstat(Descriptor, &Status) == 0 && S_ISREG(Status.st_mode)) {
            Access_.emplace(Descriptor, ShowPath(Path_));
        }
        return true;
    }
    // Gives the part what the file that it replaces has. False when its owner is another.
    bool GiveAccess() {
        return !Access_ || Access_->GiveTo(DescriptorOf(*File_), ShowPath(Path_));
    }
    int DescriptorOf(RemoteFile &File) const {
        const RemoteFile::Answer Id = File.Ask(FileInternalInformation, sizeof(ULONG64));
        ULONG64 FileId;
        memcpy(&FileId, Id.Bytes.data(), sizeof(FileId));
        return NT_SUCCESS(Id.Status) ? Running_.DescriptorOf(FileId) : -1;
    }
    void RemovePart() {
        static_cast<void>(File_->Close()); // whatever came of data that is not kept
        const std::u16string &Name = File_->Path();
        const embedded::CreateResult Part = OpenRemote(
            Name, {.Access = DELETE | SYNCHRONIZE,
                   .Options = FILE_NON_DIRECTORY_FILE | FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT});
        const NTSTATUS Status = NT_SUCCESS(Part.Status) ? embedded::CloseHandleTelling(Part.Handle) : Part.Status;
        const bool Gone = Status == STATUS_OBJECT_NAME_NOT_FOUND || Status == STATUS_OBJECT_PATH_NOT_FOUND;
        if (!NT_SUCCESS(Status) && !Gone) {
            Complain(fmt::format("{}: a part of the data stays in {}", ShowStatus(Status), ShowPath(Name)));
        }
    }

    Session &Running_;
    std::u16string Path_;
    std::optional<RemoteFile> File_;
    FILE_BASIC_INFORMATION Old_ = {};
    std::optional<FileAccess> Access_; // of the file that is replaced, where a directory serves it
    bool Made_ = false;
    bool Replaces_ = false;
    bool Kept_ = false;
};

// The local files that serve Path, found without changing anything: what must not be overwritten by itself.
std::vector<std::filesystem::path> FilesBehind(Session &Running, const std::u16string &Path) {
    try {
        const RemoteFile Probe(Path, {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
        return Running.OpenFiles();
    } catch (const StatusError &) {
        return {}; // nothing is there, or the open that follows says what is wrong
    }
}

void RefuseSame(const std::vector<std::filesystem::path> &Sources, const std::vector<std::filesystem::path> &Targets,
                const std::u16string &Target) {
    for (const std::filesystem::path &From : Sources) {
        if (IsOneOf(From, Targets)) {
            throw std::runtime_error(fmt::format("{}: source and target are the same file", ShowPath(Target)));
        }
    }
}

// What --preserve keeps of a remote file.
FILE_BASIC_INFORMATION FactsOf(RemoteFile &File) {
    FILE_BASIC_INFORMATION Facts = Basic(File);
    Facts.ChangeTime.QuadPart = 0;
    return Facts;
}

} // namespace

FILE_BASIC_INFORMATION Basic(RemoteFile &File) {
    const RemoteFile::Answer Answer = File.Query(FileBasicInformation, sizeof(FILE_BASIC_INFORMATION));
    FILE_BASIC_INFORMATION Record;
    memcpy(&Record, Answer.Bytes.data(), sizeof(Record));
    return Record;
}

void SetBasic(RemoteFile &File, const FILE_BASIC_INFORMATION &Record) {
    File.Set(FileBasicInformation, &Record, sizeof(Record));
}

Kind KindOf(const std::u16string &Path) {
    const embedded::CreateResult Found = OpenRemote(Path, {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
    if (!NT_SUCCESS(Found.Status)) {
        return Kind::Missing;
    }
    RemoteFile File(Path, Found);
    return (Basic(File).FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? Kind::Directory : Kind::File;
}

void CopyIn(Session &Running, LocalFile &From, const std::u16string &To, const CopyOptions &Options) {
    if (Options.Force) {
        RefuseSame({From.Name()}, FilesBehind(Running, To), To);
    }
    RemoteTarget Target(Running, To, Options);
    Progress Shown(From.Name(), From.Size());
    Pump([&](LONG64, void *Buffer, size_t Length) { return From.Read(Buffer, Length); },
         [&](LONG64 Offset, const void *Buffer, size_t Length) { Target.File().Write(Offset, Buffer, Length); }, Shown);
    Shown.Wait("flushing");
    FILE_BASIC_INFORMATION Facts = {};
    Facts.LastWriteTime.QuadPart = Options.Preserve ? From.WriteTime() : 0;
    Target.Keep(Facts.LastWriteTime.QuadPart != 0 ? &Facts : nullptr);
}

void CopyOut(Session &Running, const std::u16string &From, const std::string &To, const CopyOptions &Options) {
    RemoteFile File = OpenForReading(From);
    LocalTarget Target(To, Options.Force, Options.InPlace, Running.OpenFiles());
    Progress Shown(Narrow(LastOf(From)), RemoteSize(File));
    Pump([&](LONG64 Offset, void *Buffer, size_t Length) { return File.Read(Offset, Buffer, Length); },
         [&](LONG64, const void *Buffer, size_t Length) { Target.Write(Buffer, Length); }, Shown);
    Shown.Wait("flushing");
    Target.Keep(Options.Preserve ? Basic(File).LastWriteTime.QuadPart : 0);
}

void CopyAcross(Session &Running, const std::u16string &From, const std::u16string &To, const CopyOptions &Options) {
    const std::vector<std::filesystem::path> Targets = FilesBehind(Running, To);
    RemoteFile File = OpenForReading(From);
    if (Options.Force) {
        RefuseSame(Running.OpenFiles(), Targets, To);
    }
    RemoteTarget Target(Running, To, Options);
    Progress Shown(Narrow(LastOf(From)), RemoteSize(File));
    Pump([&](LONG64 Offset, void *Buffer, size_t Length) { return File.Read(Offset, Buffer, Length); },
         [&](LONG64 Offset, const void *Buffer, size_t Length) { Target.File().Write(Offset, Buffer, Length); }, Shown);
    Shown.Wait("flushing");
    const FILE_BASIC_INFORMATION Facts = FactsOf(File);
    Target.Keep(Options.Preserve ? &Facts : nullptr);
}

void CopyToOutput(const std::u16string &From) {
    RemoteFile File = OpenForReading(From);
    LocalFile Out(STDOUT_FILENO, "standard output");
    const auto Buffer = std::make_unique<char[]>(BufferBytes);
    LONG64 Offset = 0;
    while (const size_t Got = File.Read(Offset, Buffer.get(), BufferBytes)) {
        Out.Write(Buffer.get(), Got);
        Offset += static_cast<LONG64>(Got);
    }
}

bool SameBytes(const std::u16string &One, const std::u16string &Other) {
    RemoteFile First = OpenForReading(One);
    RemoteFile Second = OpenForReading(Other);
    if (RemoteSize(First) != RemoteSize(Second)) {
        return false;
    }
    const auto Left = std::make_unique<char[]>(BufferBytes);
    const auto Right = std::make_unique<char[]>(BufferBytes);
    for (LONG64 Offset = 0;;) {
        const size_t Got = First.Read(Offset, Left.get(), BufferBytes);
        size_t Had = 0;
        while (Had < Got) {
            const size_t More = Second.Read(Offset + static_cast<LONG64>(Had), Right.get() + Had, Got - Had);
            if (More == 0) {
                return false;
            }
            Had += More;
        }
        if (memcmp(Left.get(), Right.get(), Got) != 0) {
            return false;
        }
        if (Got == 0) {
            return Second.Read(Offset, Right.get(), 1) == 0;
        }
        Offset += static_cast<LONG64>(Got);
    }
}

void Rename(const std::u16string &From, const std::u16string &To, bool Replace) {
    RemoteFile File(From, {.Access = DELETE | FILE_READ_ATTRIBUTES | SYNCHRONIZE});
    RenameOpen(File, To, Replace);
    File.End();
}

void Remove(const std::u16string &Path, ULONG Kind, bool Force) {
    ULONG Old = 0;
    const auto SetAttributes = [&Path](ULONG Attributes) {
        RemoteFile File(Path, {.Access = FILE_WRITE_ATTRIBUTES | SYNCHRONIZE});
        FILE_BASIC_INFORMATION Record = {};
        Record.FileAttributes = Attributes != 0 ? Attributes : FILE_ATTRIBUTE_NORMAL; // 0 would mean: leave it
        SetBasic(File, Record);
        File.End();
    };
    if (Force) {
        RemoteFile File(Path,
                        {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE, .Options = Kind | FILE_SYNCHRONOUS_IO_NONALERT});
        Old = Basic(File).FileAttributes;
    }
    const bool Cleared = (Old & FILE_ATTRIBUTE_READONLY) != 0;
    if (Cleared) {
        SetAttributes(Old & ~static_cast<ULONG>(FILE_ATTRIBUTE_READONLY));
    }
    try {
        RemoteFile File(Path, {.Access = DELETE | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                               .Options = Kind | FILE_SYNCHRONOUS_IO_NONALERT});
        const UCHAR Delete = 1;
        File.Set(FileDispositionInformation, &Delete, sizeof(Delete));
        File.End(); // which carries the deletion out
    } catch (const StatusError &) {
        if (Cleared) {
            SetAttributes(Old);
        }
        throw;
    }
}

void MakeDirectory(const std::u16string &Path) {
    RemoteFile(Path, {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE,
                      .Disposition = FILE_CREATE,
                      .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT})
        .End();
}

} // namespace app
