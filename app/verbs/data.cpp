// cat, put, cp: the bytes of files.

#include <cstdio>
#include <cstring>
#include <memory>

#include <unistd.h>

#include <fmt/format.h>

#include "app/interrupt.h"
#include "app/local_file.h"
#include "app/remote_file.h"
#include "app/text.h"
#include "app/verbs/verbs.h"
#include "embedded/io.h"

namespace app {

namespace {

constexpr size_t BufferBytes = 1 << 20;

// A bar on a terminal, nothing elsewhere.
class Progress {
public:
    explicit Progress(LONG64 Total) : Total_(Total), Shown_(isatty(STDERR_FILENO) != 0 && Total > 0) {
    }
    ~Progress() {
        if (Shown_) {
            fputs("\n", stderr);
        }
    }
    void Show(LONG64 Done) {
        if (!Shown_) {
            return;
        }
        constexpr int Width = 40;
        Done = std::min(Done, Total_); // the file may have grown meanwhile
        const int Filled = static_cast<int>(Done * Width / Total_);
        if (Filled != Last_ || Done == Total_) {
            Last_ = Filled;
            const std::string Bar = fmt::format("\r[{:<{}}] {:3}%", std::string(static_cast<size_t>(Filled), '#'),
                                                Width, Done * 100 / Total_);
            fputs(Bar.c_str(), stderr);
            fflush(stderr);
        }
    }

private:
    LONG64 Total_;
    bool Shown_;
    int Last_ = -1;
};

using Source = std::function<size_t(LONG64 Offset, void *Buffer, size_t Length)>;
using Sink = std::function<void(LONG64 Offset, const void *Buffer, size_t Length)>;

LONG64 Copy(const Source &From, const Sink &To, LONG64 Total) {
    const auto Buffer = std::make_unique<char[]>(BufferBytes);
    Progress Bar(Total);
    LONG64 Offset = 0;
    while (const size_t Got = From(Offset, Buffer.get(), BufferBytes)) {
        To(Offset, Buffer.get(), Got);
        Offset += static_cast<LONG64>(Got);
        Bar.Show(Offset);
    }
    CheckInterrupt(); // an end that came with the signal is no end of the data
    return Offset;
}

RemoteFile OpenForReading(const std::string &Path) {
    return RemoteFile(RemotePath(Path),
                      {.Options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT | FILE_SEQUENTIAL_ONLY});
}

// A file to be written. One that this open created is removed again unless it is kept.
class RemoteTarget {
public:
    RemoteTarget(const std::string &Path, bool Replace)
        : File_(RemotePath(Path), {.Access = FILE_WRITE_DATA | DELETE | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                                   .Share = FILE_SHARE_READ,
                                   .Disposition = static_cast<ULONG>(Replace ? FILE_OVERWRITE_IF : FILE_CREATE),
                                   .Options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT}) {
    }
    RemoteFile &File() {
        return File_;
    }
    // The data is all there and stays: an error of the close is told, and takes nothing away.
    void Keep() {
        File_.Flush();
        Kept_ = true;
        File_.End();
    }
    ~RemoteTarget() {
        if (!Kept_ && File_.CreateInformation() == FILE_CREATED) {
            RemovePart();
        }
    }

private:
    void RemovePart() {
        static_cast<void>(File_.Close()); // whatever came of data that is not kept
        const embedded::CreateResult Part = OpenRemote(
            File_.Path(), {.Access = DELETE | SYNCHRONIZE,
                           .Options = FILE_NON_DIRECTORY_FILE | FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT});
        const NTSTATUS Status = NT_SUCCESS(Part.Status) ? embedded::CloseHandleTelling(Part.Handle) : Part.Status;
        const bool Gone = Status == STATUS_OBJECT_NAME_NOT_FOUND || Status == STATUS_OBJECT_PATH_NOT_FOUND;
        if (!NT_SUCCESS(Status) && !Gone) {
            Complain(fmt::format("{}: a part of the data stays in {}", ShowStatus(Status), ShowPath(File_.Path())));
        }
    }

    RemoteFile File_;
    bool Kept_ = false;
};

LONG64 RemoteSize(RemoteFile &File) {
    const RemoteFile::Answer Standard = File.Query(FileStandardInformation, sizeof(FILE_STANDARD_INFORMATION));
    FILE_STANDARD_INFORMATION Record;
    memcpy(&Record, Standard.Bytes.data(), sizeof(Record));
    return Record.EndOfFile.QuadPart;
}

void Cat(const std::string &Path) {
    RemoteFile File = OpenForReading(Path);
    LocalFile Out(STDOUT_FILENO, "standard output");
    Copy([&](LONG64 Offset, void *Buffer, size_t Length) { return File.Read(Offset, Buffer, Length); },
         [&](LONG64, const void *Buffer, size_t Length) { Out.Write(Buffer, Length); }, -1);
}

// The local files that serve Path, found without changing anything: what must not be overwritten by itself.
std::vector<std::filesystem::path> FilesBehind(Session &Running, const std::string &Path) {
    try {
        const RemoteFile Probe(RemotePath(Path), {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
        return Running.OpenFiles();
    } catch (const StatusError &) {
        return {}; // nothing is there, or the open that follows says what is wrong
    }
}

void RefuseSame(const std::vector<std::filesystem::path> &Sources, const std::vector<std::filesystem::path> &Targets,
                const std::string &Target) {
    for (const std::filesystem::path &Source : Sources) {
        if (IsOneOf(Source, Targets)) {
            throw std::runtime_error(fmt::format("{}: source and target are the same file", Target));
        }
    }
}

void CopyIn(Session &Running, LocalFile &From, const std::string &Path, bool Replace) {
    if (Replace) {
        RefuseSame({From.Name()}, FilesBehind(Running, Path), Path);
    }
    RemoteTarget Target(Path, Replace);
    Copy([&](LONG64, void *Buffer, size_t Length) { return From.Read(Buffer, Length); },
         [&](LONG64 Offset, const void *Buffer, size_t Length) { Target.File().Write(Offset, Buffer, Length); },
         From.Size());
    Target.Keep();
}

void CopyOut(Session &Running, const std::string &Path, const std::string &To, bool Replace) {
    RemoteFile File = OpenForReading(Path);
    LocalTarget Target(To, Replace, Running.OpenFiles());
    Copy([&](LONG64 Offset, void *Buffer, size_t Length) { return File.Read(Offset, Buffer, Length); },
         [&](LONG64, const void *Buffer, size_t Length) { Target.Write(Buffer, Length); }, RemoteSize(File));
    Target.Keep();
}

void CopyAcross(Session &Running, const std::string &From, const std::string &To, bool Replace) {
    const std::vector<std::filesystem::path> Targets = FilesBehind(Running, To);
    RemoteFile File = OpenForReading(From);
    if (Replace) {
        RefuseSame(Running.OpenFiles(), Targets, To);
    }
    RemoteTarget Target(To, Replace);
    Copy([&](LONG64 Offset, void *Buffer, size_t Length) { return File.Read(Offset, Buffer, Length); },
         [&](LONG64 Offset, const void *Buffer, size_t Length) { Target.File().Write(Offset, Buffer, Length); },
         RemoteSize(File));
    Target.Keep();
}

std::string LastComponent(const std::string &Path) {
    return Path.substr(Path.find_last_of(IsRemote(Path) ? "\\/" : "/") + 1);
}

// Where a copy to To goes: a directory takes it in under the last component of From.
std::string CopyTarget(const std::string &From, const std::string &To) {
    if (!IsRemote(To)) {
        std::error_code Unknown; // the open that follows says what is wrong
        const bool Into = std::filesystem::is_directory(To, Unknown);
        return Into ? (std::filesystem::path(To) / LastComponent(From)).string() : To;
    }
    const embedded::CreateResult Directory =
        OpenRemote(RemotePath(To), {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                                    .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT});
    if (!NT_SUCCESS(Directory.Status)) {
        return To;
    }
    NtClose(Directory.Handle);
    return (To.ends_with('\\') || To.ends_with('/') ? To : To + '\\') + LastComponent(From);
}

void CopyAny(Session &Running, const std::string &From, const std::string &Target, bool Replace) {
    const std::string To = CopyTarget(From, Target);
    if (IsRemote(From) && IsRemote(To)) {
        CopyAcross(Running, From, To, Replace);
    } else if (IsRemote(From)) {
        CopyOut(Running, From, To, Replace);
    } else if (IsRemote(To)) {
        LocalFile Source = LocalFile::OpenForReading(From);
        CopyIn(Running, Source, To, Replace);
    } else {
        throw UsageError("cp: one side at least is remote (\\\\server\\volume\\...)");
    }
}

} // namespace

int Guarded(const std::function<void()> &Action) {
    try {
        Action();
        return 0;
    } catch (const UsageError &) {
        throw;
    } catch (const Interrupted &) {
        throw;
    } catch (const std::exception &Error) {
        Complain(Error.what());
        return 1;
    }
}

void AddDataVerbs(CLI::App &App, Command &Chosen) {
    auto *CatVerb = App.add_subcommand("cat", "print files");
    auto Paths = std::make_shared<std::vector<std::string>>();
    CatVerb->add_option("PATH", *Paths, "\\\\server\\volume\\file")->required();
    CatVerb->callback([&Chosen, Paths] {
        Chosen = [Paths](Session &) {
            int Code = 0;
            for (const std::string &Path : *Paths) {
                Code |= Guarded([&Path] { Cat(Path); });
            }
            return Code;
        };
    });

    struct PutOptions {
        std::string Path;
        std::string From = "-";
        bool Force = false;
    };
    auto *PutVerb = App.add_subcommand("put", "write a file from a local one or from standard input");
    auto Put = std::make_shared<PutOptions>();
    PutVerb->add_option("PATH", Put->Path, "\\\\server\\volume\\file")->required();
    PutVerb->add_option("FILE", Put->From, "local file; - is standard input")->capture_default_str();
    PutVerb->add_flag("--force", Put->Force, "replace a file that is there");
    PutVerb->callback([&Chosen, Put] {
        Chosen = [Put](Session &Running) {
            if (!IsRemote(Put->Path) && IsRemote(Put->From)) {
                throw UsageError(fmt::format("put: the target comes first: put {} {}", Put->From, Put->Path));
            }
            return Guarded([&] {
                LocalFile From =
                    Put->From == "-" ? LocalFile(STDIN_FILENO, "standard input") : LocalFile::OpenForReading(Put->From);
                CopyIn(Running, From, Put->Path, Put->Force);
            });
        };
    });

    struct CopyOptions {
        std::string From;
        std::string To;
        bool Force = false;
    };
    auto *CopyVerb = App.add_subcommand("cp", "copy a file in, out, or from server to server");
    auto Copying = std::make_shared<CopyOptions>();
    CopyVerb->add_option("SOURCE", Copying->From)->required();
    CopyVerb->add_option("TARGET", Copying->To, "a file, or the directory to copy into")->required();
    CopyVerb->add_flag("--force", Copying->Force, "replace a file that is there");
    CopyVerb->callback([&Chosen, Copying] {
        Chosen = [Copying](Session &Running) {
            return Guarded([&] { CopyAny(Running, Copying->From, Copying->To, Copying->Force); });
        };
    });
}

} // namespace app
