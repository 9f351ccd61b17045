#include "app/tree_copy.h"

#include <fmt/format.h>

#include "app/output.h"
#include "app/text.h"
#include "app/verbs/verb.h"
#include "app/walk.h"

namespace app {

namespace {

struct Item {
    std::string Name;
    bool IsDirectory;
};

std::vector<Item> ItemsIn(const Place &Directory, WayDown &Way) {
    std::vector<Item> Items;
    if (Directory.Remote) {
        for (const DirectoryEntry &Entry : EntriesOn(Directory.Path, Way)) {
            Items.push_back({Narrow(Entry.Name), IsDirectory(Entry)});
        }
        return Items;
    }
    std::error_code Error;
    std::filesystem::directory_iterator Next(Directory.Local, Error);
    for (; !Error && Next != std::filesystem::directory_iterator(); Next.increment(Error)) {
        std::error_code Unknown;
        // A link to a directory is followed no further: it may lead round.
        const bool Link = Next->is_symlink(Unknown);
        if (Link && Next->is_directory(Unknown)) {
            Complain(fmt::format("{}: a link to a directory is not followed", Next->path().string()));
            continue;
        }
        Items.push_back({Next->path().filename().string(), Next->is_directory(Unknown)});
    }
    if (Error) {
        throw std::runtime_error(fmt::format("{}: {}", Directory.Show(), Error.message()));
    }
    return Items;
}

void CopyFile(Session &Running, const Place &From, const Place &To, const CopyOptions &Options) {
    if (From.Remote && To.Remote) {
        CopyAcross(Running, From.Path, To.Path, Options);
    } else if (From.Remote) {
        CopyOut(Running, From.Path, To.Local.string(), Options);
    } else {
        LocalFile Source = LocalFile::OpenForReading(From.Local.string());
        CopyIn(Running, Source, To.Path, Options);
    }
    if (Options.Tell && WantsJson()) {
        PrintRecord({{"from", From.Show()}, {"to", To.Show()}});
    } else if (Options.Tell) {
        fmt::print("{} -> {}\n", From.Show(), To.Show());
    }
}

void MakePlace(const Place &Directory) {
    if (Directory.Remote) {
        MakeDirectory(Directory.Path);
        return;
    }
    std::error_code Error;
    if (!std::filesystem::create_directory(Directory.Local, Error) && Error) {
        throw std::runtime_error(fmt::format("{}: {}", Directory.Show(), Error.message()));
    }
}

// A directory's times and attributes, as far as the other side has them.
void KeepFacts(const Place &From, const Place &To) {
    FILE_BASIC_INFORMATION Facts = {};
    if (From.Remote) {
        RemoteFile Source(From.Path, {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
        Facts = Basic(Source);
        Facts.ChangeTime.QuadPart = 0;
        Facts.FileAttributes &= ~static_cast<ULONG>(FILE_ATTRIBUTE_DIRECTORY);
    } else {
        Facts.LastWriteTime.QuadPart = WriteTimeOf(From.Local);
    }
    if (!To.Remote) {
        SetWriteTime(To.Local, Facts.LastWriteTime.QuadPart);
        return;
    }
    RemoteFile Target(To.Path, {.Access = FILE_WRITE_ATTRIBUTES | SYNCHRONIZE});
    SetBasic(Target, Facts);
    Target.End();
}

int CopyBelow(Session &Running, const Place &From, const Place &To, const CopyOptions &Options, WayDown Way) {
    // What is there now is copied: not what the copy itself adds.
    const std::vector<Item> Items = ItemsIn(From, Way);
    if (To.WhatIsThere() != Kind::Directory) {
        MakePlace(To);
    }
    int Code = 0;
    for (const Item &Each : Items) {
        const Place Source = From.Child(Each.Name);
        const Place Target = To.Child(Each.Name);
        Code |= Guarded([&] {
            if (Each.IsDirectory) {
                Code |= CopyBelow(Running, Source, Target, Options, Way);
            } else {
                CopyFile(Running, Source, Target, Options);
            }
        });
    }
    if (Options.Preserve) {
        KeepFacts(From, To);
    }
    return Code;
}

// The local directory that Where is in the end, when it can be told.
std::filesystem::path Behind(Session &Running, const Place &Where) {
    std::error_code Unknown;
    if (!Where.Remote) {
        return std::filesystem::weakly_canonical(Where.Local, Unknown);
    }
    try {
        const RemoteFile Probe(Where.Path, ForListing());
        const std::vector<std::filesystem::path> Open = Running.OpenDirectories();
        return Open.size() == 1 ? std::filesystem::weakly_canonical(Open.front(), Unknown) : std::filesystem::path();
    } catch (const StatusError &) {
        return {};
    }
}

// The driver has no notion of the links that a local directory may hold: the files behind it are asked.
bool IsServedLink(Session &Running, const std::u16string &Directory) {
    std::vector<std::filesystem::path> Before = Running.OpenDirectories(); // of waits that go on
    const RemoteFile Probe(Directory, ForListing());
    for (const std::filesystem::path &Open : Running.OpenDirectories()) {
        const auto Other = std::find(Before.begin(), Before.end(), Open);
        std::error_code Unknown;
        if (Other != Before.end()) {
            Before.erase(Other);
        } else if (std::filesystem::is_symlink(Open, Unknown)) {
            return true;
        }
    }
    return false;
}

void RefuseInside(Session &Running, const Place &From, const Place &To) {
    const std::filesystem::path Source = Behind(Running, From);
    const Place Parent = To.Remote ? Place{true, ParentOf(To.Path), {}} : Place{false, {}, To.Local.parent_path()};
    const std::filesystem::path Target = Behind(Running, To.WhatIsThere() == Kind::Directory ? To : Parent);
    const auto [Rest, End] = std::mismatch(Source.begin(), Source.end(), Target.begin(), Target.end());
    if (!Source.empty() && !Target.empty() && Rest == Source.end()) {
        throw std::runtime_error(fmt::format("{}: a directory is not copied into itself", To.Show()));
    }
}

} // namespace

Place Place::Of(const std::string &Text) {
    return Of(Text, IsRemote(Text));
}

Place Place::Of(const std::string &Text, bool Remote) {
    Place Result;
    Result.Remote = Remote;
    Result.IsNamedAsDirectory = Text.ends_with('/') || (Remote && Text.ends_with('\\'));
    if (Result.Remote) {
        Result.Path = RemotePath(Text);
    } else {
        Result.Local = Text;
    }
    return Result;
}

std::string Place::Show() const {
    return Remote ? ShowPath(Path) : Local.string();
}

std::string Place::LastName() const {
    if (Remote) {
        return Narrow(LastOf(Path));
    }
    const std::filesystem::path Name = Local.has_filename() ? Local.filename() : Local.parent_path().filename();
    return Name == "." || Name == ".." ? std::filesystem::absolute(Local).lexically_normal().filename().string()
                                       : Name.string();
}

Place Place::Child(const std::string &Name) const {
    return Remote ? Place{true, Path + u"\\" + Widen(Name), {}} : Place{false, {}, Local / Name};
}

Kind Place::WhatIsThere() const {
    if (Remote) {
        return KindOf(Path);
    }
    std::error_code Unknown; // the open that follows says what is wrong
    return std::filesystem::is_directory(Local, Unknown) ? Kind::Directory
           : std::filesystem::exists(Local, Unknown)     ? Kind::File
                                                         : Kind::Missing;
}

Place TargetOf(const Place &From, const Place &To) {
    if (To.WhatIsThere() == Kind::Directory) {
        return To.Child(From.LastName());
    }
    if (To.IsNamedAsDirectory && From.WhatIsThere() == Kind::File) {
        throw std::runtime_error(fmt::format("{}: there is no such directory", To.Show()));
    }
    return To;
}

int CopyTree(Session &Running, const Place &From, const Place &To, bool Recursive, const CopyOptions &Options) {
    if (!From.Remote && !To.Remote) {
        throw UsageError("one side at least is remote (\\\\server\\volume\\...)");
    }
    if (Recursive && From.WhatIsThere() == Kind::Directory) {
        RefuseInside(Running, From, To);
        return CopyBelow(Running, From, To, Options, {});
    }
    CopyFile(Running, From, To, Options);
    return 0;
}

int RemoveTree(Session &Running, const std::u16string &Directory, bool Force) {
    try {
        Remove(Directory, FILE_DIRECTORY_FILE, Force);
        return 0;
    } catch (const StatusError &Refused) {
        if (Refused.Status != STATUS_DIRECTORY_NOT_EMPTY) {
            throw;
        }
    }
    if (IsServedLink(Running, Directory)) {
        throw std::runtime_error(
            fmt::format("{}: a link to a directory, which is neither entered nor deleted", ShowPath(Directory)));
    }
    int Code = 0;
    WayDown Way;
    for (const DirectoryEntry &Entry : EntriesOn(Directory, Way)) {
        const std::u16string Path = Directory + u"\\" + Entry.Name;
        Code |= Guarded([&] {
            if (IsDirectory(Entry)) {
                Code |= RemoveTree(Running, Path, Force);
            } else {
                Remove(Path, FILE_NON_DIRECTORY_FILE, Force);
            }
        });
    }
    if (Code == 0) {
        Remove(Directory, FILE_DIRECTORY_FILE, Force);
    }
    return Code;
}

} // namespace app
