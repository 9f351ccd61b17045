// cat, put, get, cp: the bytes of files.

#include <cstdio>
#include <unistd.h>

#include <fmt/format.h>

#include "app/text.h"
#include "app/tree_copy.h"
#include "app/verbs/verbs.h"
#include "app/walk.h"

namespace app {

namespace {

struct CopyWords {
    std::vector<std::string> Paths;
    bool Recursive = false;
    bool Archive = false;
    CopyOptions How;
};

std::vector<Parameter> CopyParameters(CopyWords &Words, const char *Shown, const char *Help) {
    return {Parameter{"PATH", Help, &Words.Paths}.Needed().As(Shown),
            {"-r,-R,--recursive", "directories with all below", &Words.Recursive},
            {"-f,--force", "replace files that are there: each stays whole until its new bytes are all written",
             &Words.How.Force},
            {"--inplace",
             "with --force: write into files that are there, which keeps their identity and needs no space "
             "for both",
             &Words.How.InPlace},
            {"-p,--preserve", "keep times and attributes", &Words.How.Preserve},
            {"-a,--archive", "the same as -rp", &Words.Archive},
            {"-v,--verbose", "tell each file that is copied", &Words.How.Tell}};
}

// Sources to one target; several need a directory.
int CopyAll(Session &Running, const std::vector<Place> &Sources, const Place &To, CopyWords Words) {
    Words.Recursive |= Words.Archive;
    Words.How.Preserve |= Words.Archive;
    if (Sources.size() > 1 && To.WhatIsThere() != Kind::Directory) {
        throw UsageError(fmt::format("{}: several files are copied into a directory only", To.Show()));
    }
    int Code = 0;
    for (const Place &From : Sources) {
        Code |= Guarded([&] {
            if (!Words.Recursive && From.WhatIsThere() == Kind::Directory) {
                throw std::runtime_error(fmt::format("{}: a directory; -r copies directories", From.Show()));
            }
            Code |= CopyTree(Running, From, TargetOf(From, To), Words.Recursive, Words.How);
        });
    }
    return Code;
}

// The places that Texts name; masks of remote ones stand for what matches. What matches nothing is told in Code.
std::vector<Place> Sources(const std::vector<std::string> &Texts, int &Code) {
    std::vector<Place> Places;
    for (const std::string &Text : Texts) {
        if (!IsRemote(Text)) {
            Places.push_back(Place::Of(Text));
            continue;
        }
        Code |= Guarded([&] {
            for (std::u16string &Path : Expand(Text)) {
                Places.push_back({true, std::move(Path), {}});
            }
        });
    }
    return Places;
}

int Copy(Session &Running, const CopyWords &Words) {
    if (Words.Paths.size() < 2) {
        throw UsageError("cp: where to? cp SOURCE... TARGET");
    }
    int Code = 0;
    const std::vector<Place> From = Sources({Words.Paths.begin(), Words.Paths.end() - 1}, Code);
    return (From.empty() ? 0 : CopyAll(Running, From, Place::Of(Words.Paths.back()), Words)) | Code;
}

Verb CatVerb() {
    const auto Paths = std::make_shared<std::vector<std::string>>();
    return {.Name = "cat",
            .Group = "files",
            .Summary = "print files",
            .Parameters = {Parameter{"PATH", "files; the last component may be a mask", Paths.get()}.Needed()},
            .Run = [Paths](Session &) { return ForEachPath(*Paths, CopyToOutput); },
            .Examples = {R"(cat '\\demo\files\docs\a.txt')"}};
}

int Put(Session &Running, const CopyWords &Words) {
    const std::string To = Words.Paths.size() > 1 ? Words.Paths.back() : Narrow(RemoteDirectory()).insert(0, "\\");
    if (Words.Paths.size() < 2 && RemoteDirectory().empty()) {
        throw UsageError("put: where to? put FILE... PATH");
    }
    if (IsRemote(Words.Paths.front()) && !IsRemote(To)) {
        throw UsageError(fmt::format("put: the target comes last: put {} {}", To, Words.Paths.front()));
    }
    const Place Target = Place::Of(To, true);
    if (Words.Paths.front() == "-") {
        return Guarded([&] {
            if (Target.IsNamedAsDirectory || Target.WhatIsThere() == Kind::Directory) {
                throw StatusError(STATUS_FILE_IS_A_DIRECTORY, Target.Show() + "; name the file in it");
            }
            LocalFile Input(STDIN_FILENO, "standard input");
            CopyIn(Running, Input, Target.Path, Words.How);
        });
    }
    std::vector<Place> From;
    for (size_t Index = 0; Index + (Words.Paths.size() > 1 ? 1 : 0) < Words.Paths.size(); ++Index) {
        From.push_back(Place::Of(Words.Paths[Index], false));
    }
    return CopyAll(Running, From, Target, Words);
}

Verb PutVerb() {
    const auto Words = std::make_shared<CopyWords>();
    return {.Name = "put",
            .Group = "files",
            .Summary = "write files from local ones or from standard input",
            .Parameters = CopyParameters(*Words, "FILE... PATH",
                                         "local files, - for standard input; then the file or directory to write"),
            .Run = [Words](Session &Running) { return Put(Running, *Words); },
            .Examples = {R"(put report.txt '\\demo\files\docs')", R"(put - '\\demo\files\now.txt')"}};
}

int Get(Session &Running, const CopyWords &Words) {
    const bool Named = Words.Paths.size() > 1 && !IsRemote(Words.Paths.back());
    if (Named && Words.Paths.back() == "-") {
        return ForEachPath({Words.Paths.begin(), Words.Paths.end() - 1}, CopyToOutput);
    }
    std::vector<std::string> Texts = Words.Paths;
    if (Named) {
        Texts.pop_back();
    }
    std::vector<std::u16string> Found;
    int Code = 0;
    for (const std::string &Text : Texts) {
        Code |= Guarded([&] {
            for (std::u16string &Path : Expand(Text)) {
                Found.push_back(std::move(Path));
            }
        });
    }
    std::vector<Place> From;
    for (std::u16string &Path : Found) {
        From.push_back({true, std::move(Path), {}});
    }
    return (From.empty() ? 0 : CopyAll(Running, From, Place::Of(Named ? Words.Paths.back() : ".", false), Words)) |
           Code;
}

Verb GetVerb() {
    const auto Words = std::make_shared<CopyWords>();
    return {.Name = "get",
            .Group = "files",
            .Summary = "fetch files into local ones",
            .Parameters = CopyParameters(
                *Words, "PATH... [FILE]",
                "remote files, masks too; then the local file or directory, . when left out, or - for standard "
                "output"),
            .Run = [Words](Session &Running) { return Get(Running, *Words); },
            .Examples = {R"(get '\\demo\files\docs\*.txt' /tmp)"}};
}

Verb CopyVerb() {
    const auto Words = std::make_shared<CopyWords>();
    return {.Name = "cp",
            .Group = "files",
            .Summary = "copy files in, out, or from server to server",
            .Parameters =
                CopyParameters(*Words, "SOURCE... TARGET", "one side at least is remote; a directory takes copies in"),
            .Run = [Words](Session &Running) { return Copy(Running, *Words); },
            .Examples = {R"(cp '\\demo\files\docs\a.txt' .)", R"(cp -r tree '\\demo\files')"}};
}

} // namespace

void AddFileVerbs(VerbList &List) {
    List.push_back(CatVerb());
    List.push_back(PutVerb());
    List.push_back(GetVerb());
    List.push_back(CopyVerb());
}

} // namespace app
