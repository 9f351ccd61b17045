#include "app/completion.h"

#include <algorithm>
#include <filesystem>

#include "app/remote_file.h"
#include "app/text.h"
#include "app/verbs/verbs.h"
#include "app/walk.h"

namespace app {

namespace {

std::vector<std::string> Words() {
    std::vector<std::string> Names(std::begin(ConsoleWords), std::end(ConsoleWords));
    for (const Verb &Each : Verbs()) {
        if (!Each.Hidden) {
            Names.push_back(Each.Name);
        }
    }
    return Names;
}

std::vector<std::string> OptionsOf(const std::string &Name) {
    std::vector<std::string> Names;
    const VerbList List = Verbs();
    if (const Verb *Found = FindVerb(List, Name); Found != nullptr) {
        for (const Parameter &Each : Found->Parameters) {
            const size_t At = Each.Names.find("--");
            if (At != std::string::npos && !Each.Hidden) {
                Names.push_back(Each.Names.substr(At));
            }
        }
    }
    return Names;
}

// The entries of the directory that Word names up to its last separator, in the spelling of Word.
std::vector<std::string> RemoteNames(Session &Running, const std::string &Word) {
    std::vector<std::string> Names;
    const char Separator = Word[0];
    for (const Export &One : Running.Exports()) {
        std::string Name = One.Name + "\\";
        std::replace(Name.begin(), Name.end(), '\\', Separator);
        Names.push_back(std::move(Name));
    }
    try {
        const std::string Directory = Word.substr(0, Word.rfind(Separator));
        RemoteFile Open(RemotePath(Directory), {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE,
                                                .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT});
        for (const DirectoryEntry &Entry : ListDirectory(Open, u"*", LargeListing)) {
            std::string Name = Directory + Separator + Narrow(Entry.Name);
            if (Entry.Attributes & FILE_ATTRIBUTE_DIRECTORY) {
                Name += Separator;
            }
            Names.push_back(std::move(Name));
        }
    } catch (const UsageError &) {
        // no server and volume yet: the exports are the names there are
    } catch (const StatusError &) {
        // nothing to be listed there
    }
    return Names;
}

// The same for a word that is relative to the console's directory.
std::vector<std::string> RelativeNames(const std::string &Word) {
    const size_t Last = Word.rfind('\\');
    const std::string Prefix = Last == std::string::npos ? "" : Word.substr(0, Last + 1);
    std::vector<std::string> Names;
    try {
        RemoteFile Open(RemotePath(Prefix.empty() ? "." : Prefix), ForListing());
        for (const DirectoryEntry &Entry : ListDirectory(Open, u"*", LargeListing)) {
            Names.push_back(Prefix + Narrow(Entry.Name) + (IsDirectory(Entry) ? "\\" : ""));
        }
    } catch (const StatusError &) {
        // nothing to be listed there
    }
    return Names;
}

std::vector<std::string> LocalNames(const std::string &Word) {
    const size_t Last = Word.rfind('/');
    const std::string Prefix = Last == std::string::npos ? "" : Word.substr(0, Last + 1);
    std::vector<std::string> Names;
    std::error_code Error;
    std::filesystem::directory_iterator Next(Prefix.empty() ? "." : Prefix, Error);
    for (; !Error && Next != std::filesystem::directory_iterator(); Next.increment(Error)) {
        std::error_code Unknown;
        Names.push_back(Prefix + Next->path().filename().string() + (Next->is_directory(Unknown) ? "/" : ""));
    }
    return Names;
}

bool TakesLocalPaths(std::string_view Verb) {
    constexpr std::string_view Some[] = {"put", "get", "cp", "report", "check-provider", "mount", "stats", "monitor"};
    return std::find(std::begin(Some), std::end(Some), Verb) != std::end(Some);
}

} // namespace

LastWord FindLastWord(std::string_view Line) {
    LastWord Word;
    Word.Start = Line.size();
    bool Open = false;
    for (size_t At = 0; At < Line.size(); ++At) {
        const char Byte = Line[At];
        const bool Blank = Word.Quote == 0 && (Byte == ' ' || Byte == '\t');
        if (Blank) {
            Word = {Line.size(), "", 0};
            Open = false;
            continue;
        }
        if (!Open) {
            Word.Start = At;
            Open = true;
        }
        if (Word.Quote == 0 && (Byte == '"' || Byte == '\'')) {
            Word.Quote = Byte;
        } else if (Word.Quote == Byte) {
            Word.Quote = 0;
        } else {
            Word.Text += Byte;
        }
    }
    return Word;
}

std::string Respell(const std::string &Full, const LastWord &Word, size_t Cursor, bool Closed) {
    const bool Blanks = Full.find_first_of(" \t") != std::string::npos;
    if (Word.Quote != 0) {
        // The editor's word begins behind the mark or behind a blank: what stands before that stays.
        const size_t Kept = Cursor > Word.Start + 1 ? Cursor - Word.Start - 1 : 0;
        return Full.substr(std::min(Kept, Full.size())) + (Closed ? std::string(1, Word.Quote) : "");
    }
    return Blanks && Cursor == Word.Start ? '"' + Full + (Closed ? "\"" : "") : Full;
}

std::vector<std::string> Completions(Session &Running, std::string_view Before, const std::string &Word) {
    const size_t First = Before.find_first_not_of(" \t");
    const std::string_view Verb =
        First == Before.npos ? "" : Before.substr(First, Before.find_first_of(" \t", First) - First);
    std::vector<std::string> Names;
    if (Verb.empty()) {
        Names = Words();
    } else if (Word.starts_with('-')) {
        Names = OptionsOf(std::string(Verb));
    } else if (IsRemote(Word) && (Word[0] == '\\' || Word[0] == '/')) {
        Names = RemoteNames(Running, Word);
    } else {
        if (TakesLocalPaths(Verb)) {
            Names = LocalNames(Word);
        }
        if (!RemoteDirectory().empty()) {
            const std::vector<std::string> Relative = RelativeNames(Word);
            Names.insert(Names.end(), Relative.begin(), Relative.end());
        }
        if (Word.empty()) {
            const std::vector<std::string> Remote = RemoteNames(Running, "\\");
            Names.insert(Names.end(), Remote.begin(), Remote.end());
        }
    }
    std::erase_if(Names, [&Word](const std::string &Name) { return !Name.starts_with(Word); });
    return Names;
}

} // namespace app
