// Volumes that are directories of others.
#include <algorithm>

#include <fmt/format.h>

#include "providers/directory/names.h"
#include "providers/directory/state.h"
#include "providers/wide_text.h"

namespace providers::directory {
namespace {

// A path as its two names and what follows, without separators at its ends.
struct Split {
    std::u16string Server;
    std::u16string Volume;
    std::u16string Rest;

    bool IsSameVolume(const auto &Other) const {
        return FoldsTo(Server, Fold(Other.Server)) && FoldsTo(Volume, Fold(Other.Volume));
    }
};

// One of the links that are to be added.
struct Wanted {
    Split Name;
    Split Target;
    std::string Shown; // how a message names it
};

std::string ShownVolume(const Split &Path) {
    return fmt::format("\\\\{}\\{}", ToUtf8(Path.Server), ToUtf8(Path.Volume));
}

void AppendPath(std::u16string &Path, std::u16string_view More) {
    if (!Path.empty() && !More.empty()) {
        Path.push_back(u'\\');
    }
    Path.append(More);
}

// Returns what is wrong with Text as a path; empty when nothing is.
std::string Parse(std::u16string_view Text, Split &Out) {
    Out.Server = TakeComponent(Text);
    Out.Volume = TakeComponent(Text);
    if (std::string Fault = FaultOfNames(Out.Server, Out.Volume); !Fault.empty()) {
        return Fault;
    }
    for (std::u16string_view Name; !(Name = TakeComponent(Text)).empty();) {
        if (Name == u"." || Name == u"..") {
            return "a target has no \".\" or \"..\" in it";
        }
        AppendPath(Out.Rest, Name);
    }
    return {};
}

std::string ParseLink(const ExportLink &Given, Wanted &Out) {
    Out.Shown = fmt::format("cannot link {} to {}", ToUtf8(Given.Name), ToUtf8(Given.Target));
    std::string Fault = Parse(Given.Name, Out.Name);
    if (Fault.empty() && !Out.Name.Rest.empty()) {
        Fault = "the name must be \\\\server\\volume, without a path after it";
    }
    return Fault.empty() ? Parse(Given.Target, Out.Target) : Fault;
}

// Whether the directory is there; empty when it is.
std::string FaultOfDirectory(const Link &Made) {
    Place At;
    At.Volume = Made.Target;
    At.Ref = Made.Target->RootRef;
    At.Path = Made.Path;
    std::unique_ptr<Object> Opened;
    const RVSTATUS Status = OpenFolder(At, KIND_VOLUME, Opened);
    if (!RvIsError(Status)) {
        return {};
    }
    switch (RvCode(Status)) {
    case CODE_NO_SUCH_FILE:
    case RVFS_PATH_NOT_FOUND:
        return "there is no such directory";
    case RVFS_NOT_A_DIRECTORY:
        return "it is not a directory";
    default:
        return fmt::format("it cannot be opened (0x{:08X})", static_cast<ULONG>(Status));
    }
}

// The links of one AddLinks, against what is served already.
class Adding {
public:
    explicit Adding(const ServedVolumes &Served) : Exports_(Served.Exports), Links_(Served.Links) {
    }

    // Returns why one of Given cannot be added; otherwise all are in Out.
    std::string Resolve(const std::vector<ExportLink> &Given, std::vector<std::unique_ptr<const Link>> &Out) {
        for (const ExportLink &One : Given) {
            Wanted Next;
            std::string Fault = ParseLink(One, Next);
            if (Fault.empty() && IsTaken(Next.Name)) {
                Fault = "the name is taken";
            }
            if (!Fault.empty()) {
                return Next.Shown + ": " + Fault;
            }
            All_.push_back(std::move(Next));
        }
        for (const Wanted &One : All_) {
            Link Made{One.Name.Server, One.Name.Volume, Fold(One.Name.Server), Fold(One.Name.Volume), nullptr, {}};
            std::string Fault = Follow(One, Made);
            if (Fault.empty()) {
                Fault = FaultOfDirectory(Made);
            }
            if (!Fault.empty()) {
                return One.Shown + ": " + Fault;
            }
            Out.push_back(std::make_unique<const Link>(std::move(Made)));
        }
        return {};
    }

private:
    template <class Pointers>
    static auto Find(const Pointers &Among, const Split &Name) {
        return std::find_if(Among.begin(), Among.end(), [&](const auto &Each) { return Name.IsSameVolume(*Each); });
    }
    const Wanted *FindWanted(const Split &Name) const {
        const auto At =
            std::find_if(All_.begin(), All_.end(), [&](const Wanted &Each) { return Name.IsSameVolume(Each.Name); });
        return At == All_.end() ? nullptr : &*At;
    }
    bool IsTaken(const Split &Name) const {
        return Find(Exports_, Name) != Exports_.end() || Find(Links_, Name) != Links_.end() ||
               FindWanted(Name) != nullptr;
    }

    // From link to link until a directory is reached; more steps than there are links lead round in a circle.
    std::string Follow(const Wanted &First, Link &Made) const {
        Split Now = First.Target;
        for (size_t Step = 0; Step <= All_.size(); ++Step) {
            if (const auto At = Find(Exports_, Now); At != Exports_.end()) {
                Made.Target = *At;
                Made.Path = Now.Rest;
                return {};
            }
            if (const auto At = Find(Links_, Now); At != Links_.end()) {
                Made.Target = (*At)->Target;
                Made.Path = (*At)->Path;
                AppendPath(Made.Path, Now.Rest);
                return {};
            }
            const Wanted *Next = FindWanted(Now);
            if (Next == nullptr) {
                return fmt::format("nothing is exported as {}", ShownVolume(Now));
            }
            Split Further = Next->Target;
            AppendPath(Further.Rest, Now.Rest);
            Now = std::move(Further);
        }
        return "the links lead round in a circle";
    }

    const std::vector<Export *> &Exports_;
    const std::vector<const Link *> &Links_;
    std::vector<Wanted> All_;
};

} // namespace

std::u16string Link::Physical() const {
    std::u16string Whole = u"\\" + Target->Server + u"\\" + Target->Volume;
    AppendPath(Whole, Path);
    return Whole;
}

RVSTATUS OpenLinked(const Link &Through, std::unique_ptr<Object> &Opened) {
    Place At;
    At.Volume = Through.Target;
    At.Ref = Through.Target->RootRef;
    At.Path = Through.Path;
    const RVSTATUS Status = OpenFolder(At, KIND_VOLUME, Opened);
    return Status == Failure(CODE_NO_SUCH_FILE) ? Failure(RVFS_PATH_NOT_FOUND) : Status;
}

} // namespace providers::directory

namespace providers {

std::string DirectoryProvider::AddLinks(const std::vector<ExportLink> &Links) {
    const std::lock_guard Hold(State_->ExportsMutex);
    std::vector<std::unique_ptr<const directory::Link>> Made;
    std::string Fault = directory::Adding(*State_->Served.load()).Resolve(Links, Made);
    if (Fault.empty()) {
        std::move(Made.begin(), Made.end(), std::back_inserter(State_->Links));
        State_->PublishVolumes();
    }
    return Fault;
}

} // namespace providers
