#include "app/walk.h"

#include <algorithm>
#include <cstring>

#include "app/interrupt.h"
#include "app/text.h"
#include "app/verbs/verb.h"

namespace app {

OpenRequest ForListing() {
    return {.Access = FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
            .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT};
}

namespace {

// A separator at the end says that a directory is meant. What is not there, or cannot be asked, is for the verb to
// tell.
void CheckNamedAsDirectory(const std::string &Text, const std::u16string &Path) {
    if (!Text.ends_with('\\') && !Text.ends_with('/')) {
        return;
    }
    OpenRequest Question = ForListing();
    Question.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE;
    const embedded::CreateResult Opened = OpenRemote(Path, Question);
    if (NT_SUCCESS(Opened.Status)) {
        const RemoteFile Directory(Path, Opened);
    } else if (Opened.Status == STATUS_NOT_A_DIRECTORY) {
        throw StatusError(Opened.Status, ShowPath(Path));
    }
}

} // namespace

MaskedPath SplitMask(const std::string &Text) {
    constexpr auto MaskCharacters = u"*?<>\"";
    std::u16string Path = RemotePath(Text);
    const size_t Last = Path.rfind(u'\\');
    if (Path.find_first_of(MaskCharacters, Last) == std::u16string::npos) {
        CheckNamedAsDirectory(Text, Path);
        return {Path};
    }
    return {Path.substr(0, Last), Path.substr(Last + 1), true};
}

std::vector<std::u16string> Expand(const std::string &Text) {
    const MaskedPath Where = SplitMask(Text);
    if (!Where.IsMasked) {
        return {Where.Directory};
    }
    std::vector<std::u16string> Paths;
    RemoteFile Directory(Where.Directory, ForListing());
    for (const DirectoryEntry &Entry : ListDirectory(Directory, Where.Mask, LargeListing)) {
        Paths.push_back(Where.Directory + u"\\" + Entry.Name);
    }
    if (Paths.empty()) {
        throw StatusError(STATUS_NO_SUCH_FILE, ShowPath(Where.Directory + u"\\" + Where.Mask));
    }
    return Paths;
}

bool LeadsBack(RemoteFile &Directory, WayDown &Way) {
    constexpr LONG64 NoIdentifier = 0xABA00000020; // the driver's, for such volumes
    LONG64 Identifier = 0;                         // and for a file of which it could not be had
    const RemoteFile::Answer Answer = Directory.Ask(FileInternalInformation, sizeof(Identifier));
    if (NT_SUCCESS(Answer.Status)) {
        memcpy(&Identifier, Answer.Bytes.data(), sizeof(Identifier));
    }
    const bool Known = Identifier != 0 && Identifier != NoIdentifier;
    const bool Back = Known && std::find(Way.begin(), Way.end(), Identifier) != Way.end();
    Way.push_back(Identifier);
    return Back;
}

std::vector<DirectoryEntry> EntriesOn(const std::u16string &Directory, WayDown &Way) {
    RemoteFile Open(Directory, ForListing());
    return LeadsBack(Open, Way) ? std::vector<DirectoryEntry>() : ListDirectory(Open, u"*", LargeListing);
}

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

int ForEachPath(const std::vector<std::string> &Paths, const std::function<void(const std::u16string &Path)> &Action) {
    int Code = 0;
    for (const std::string &Text : Paths) {
        std::vector<std::u16string> Found;
        Code |= Guarded([&] { Found = Expand(Text); });
        for (const std::u16string &Path : Found) {
            Code |= Guarded([&] { Action(Path); });
        }
    }
    return Code;
}

} // namespace app
