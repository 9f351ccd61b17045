#include "app/completion.h"

#include <algorithm>
#include <filesystem>

#include "app/remote_file.h"
#include "app/text.h"
#include "app/verbs/verbs.h"

namespace app {

namespace {

constexpr ULONG ListingBytes = 65536;

std::vector<std::string> Verbs() {
    CLI::App App;
    Command Chosen;
    AddVerbs(App, Chosen);
    std::vector<std::string> Names(std::begin(ConsoleWords), std::end(ConsoleWords));
    for (const CLI::App *Verb : App.get_subcommands({})) {
        Names.push_back(Verb->get_name());
    }
    return Names;
}

std::vector<std::string> OptionsOf(const std::string &Verb) {
    CLI::App App;
    Command Chosen;
    AddVerbs(App, Chosen);
    std::vector<std::string> Names;
    if (const CLI::App *Found = FindVerb(App, Verb); Found != nullptr) {
        for (const CLI::Option *Option : Found->get_options()) {
            for (const std::string &Name : Option->get_lnames()) {
                Names.push_back("--" + Name);
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
        for (const DirectoryEntry &Entry : ListDirectory(Open, u"*", ListingBytes)) {
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

} // namespace

std::vector<std::string> Completions(Session &Running, std::string_view Before, const std::string &Word) {
    const size_t First = Before.find_first_not_of(" \t");
    std::vector<std::string> Names;
    if (First == std::string_view::npos) {
        Names = Verbs();
    } else if (Word.starts_with('-')) {
        Names = OptionsOf(std::string(Before.substr(First, Before.find_first_of(" \t", First) - First)));
    } else {
        Names = IsRemote(Word) ? RemoteNames(Running, Word) : LocalNames(Word);
        if (Word.empty()) {
            const std::vector<std::string> Remote = RemoteNames(Running, "\\");
            Names.insert(Names.end(), Remote.begin(), Remote.end());
        }
    }
    std::erase_if(Names, [&Word](const std::string &Name) {
        return !Name.starts_with(Word) || Name.find_first_of(" \t") != std::string::npos;
    });
    return Names;
}

} // namespace app
