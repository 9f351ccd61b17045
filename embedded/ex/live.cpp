#include "embedded/ex/live.h"

#include <map>

#include <fmt/format.h>

#include "embedded/verifier/report.h"

namespace embedded {
namespace {

struct LiveEntry {
    LiveKind Kind;
    SIZE_T Size;
};

struct Registry {
    std::mutex Mutex;
    std::map<const void *, LiveEntry> Objects;
};

Registry &Live() {
    static Registry &Instance = *new Registry;
    return Instance;
}

const char *NameOf(LiveKind Kind) {
    return Kind == LiveKind::Resource ? "resource" : "lookaside list";
}

} // namespace

void EnterLiveObject(LiveKind Kind, const void *Object, SIZE_T Size) {
    std::lock_guard Guard(Live().Mutex);
    if (!Live().Objects.try_emplace(Object, LiveEntry{Kind, Size}).second) {
        BugCheck(bugcheck::Verifier, bugcheck::InitializedTwice, reinterpret_cast<ULONG_PTR>(Object), 0, 0,
                 fmt::format("{} {} initialised twice", NameOf(Kind), Object));
    }
}

void LeaveLiveObject(const void *Object) {
    std::lock_guard Guard(Live().Mutex);
    Live().Objects.erase(Object);
}

std::vector<std::string> LiveObjectsIn(const void *Low, const void *High) {
    std::lock_guard Guard(Live().Mutex);
    std::vector<std::string> Lines;
    for (auto At = Live().Objects.lower_bound(Low); At != Live().Objects.end() && At->first < High; ++At) {
        Lines.push_back(fmt::format("a {} at {} lies in it", NameOf(At->second.Kind), At->first));
    }
    return Lines;
}

void VerifyNoLiveObject(const void *Block, SIZE_T Size) {
    std::lock_guard Guard(Live().Mutex);
    auto Found = Live().Objects.lower_bound(Block);
    if (Found == Live().Objects.end() || Found->first >= static_cast<const char *>(Block) + Size) {
        return;
    }
    const LiveKind Kind = Found->second.Kind;
    BugCheck(bugcheck::Verifier, Kind == LiveKind::Resource ? bugcheck::FreedResource : bugcheck::FreedLookaside,
             reinterpret_cast<ULONG_PTR>(Found->first), reinterpret_cast<ULONG_PTR>(Block), Size,
             fmt::format("pool freed with a live {} in it", NameOf(Kind)));
}

SIZE_T LiveObjects(LiveKind Kind) {
    std::lock_guard Guard(Live().Mutex);
    SIZE_T Count = 0;
    for (const auto &[Object, Entry] : Live().Objects) {
        Count += Entry.Kind == Kind;
    }
    return Count;
}

} // namespace embedded
