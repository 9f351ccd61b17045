#include "providers/directory/last_look.h"

#include <ctime>

#include "providers/directory/state.h"
#include "providers/directory/units.h"

namespace providers::directory {
namespace {

constexpr int64_t LongestUse = 500'000; // nanoseconds: less than a tick

struct Seen {
    uint64_t Query = 0; // 0 = nothing is kept
    bool VolumeOpened = false;
    uint64_t Export = 0;
    uint64_t Changes = 0;
    int64_t At = 0;
    std::u16string Path; // as it was asked for
    std::string FromRoot;
    Looked There; // without a descriptor until the query open is closed
};
thread_local Seen Last;

struct Missed {
    bool Holds = false;
    bool VolumeOpened = false;
    uint64_t Export = 0;
    uint64_t Changes = 0; // when it was looked for, as At
    int64_t At = 0;
    std::u16string Path;
};
thread_local Missed NotThere;

struct SeenStatus {
    uint64_t Of = 0; // 0 = nothing is kept
    uint64_t Changes = 0;
    uint32_t Writes = 0;
    int64_t At = 0;
    struct statx Status {};
};
thread_local SeenStatus LastStatus;

// Without separators at its ends.
std::u16string_view Bare(std::u16string_view Path) {
    while (!Path.empty() && Path.front() == u'\\') {
        Path.remove_prefix(1);
    }
    while (!Path.empty() && Path.back() == u'\\') {
        Path.remove_suffix(1);
    }
    return Path;
}

// Of no other query of any thread, nor 0.
uint64_t NextQuery() {
    constexpr uint64_t Block = 1u << 20; // taken at a time, so that threads seldom meet
    static std::atomic<uint64_t> Taken = 0;
    static thread_local uint64_t Next = 0;
    if (Next % Block == 0) {
        Next = Taken.fetch_add(Block) + 1;
    }
    return Next++;
}

// A file system that is mounted inside the export is not held on to.
bool MayKeep(const Place &At, const Looked &There) {
    return IsBelowRoot(At) && There.Error == 0 && There.Stat.st_dev == At.Volume->RootRef.Key.Device;
}

// Whether what is known to be missing can be answered from for this export.
bool MissingHolds(const Place &At) {
    return NotThere.Holds && NotThere.Export == At.Volume->Serial && IsBelowRoot(At) &&
           NotThere.Changes == At.Volume->ChangeCount.load() && LookClock() - NotThere.At <= LongestUse;
}

} // namespace

int64_t (*LookClock)() = [] {
    timespec Time;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &Time);
    return int64_t{Time.tv_sec} * 1'000'000'000 + Time.tv_nsec;
};

void ForgetLook() {
    LastStatus.Of = 0;
    Last.There.Fd = {};
    Last.There.Handle = {};
    Last.Query = 0;
    Last.VolumeOpened = false;
}

void BeginQuery(const Place &At) {
    ForgetLook();
    Last.Export = At.Volume->Serial;
    Last.Changes = At.Volume->ChangeCount.load();
    Last.At = LookClock();
    if (!At.Base) {
        NotThere.Holds = false;
        NotThere.VolumeOpened = false;
        NotThere.Export = Last.Export;
        NotThere.Changes = Last.Changes;
        NotThere.At = Last.At;
    }
}

void NoteQuery(const Place &At, const Looked &There, FileObject &File) {
    if (MayKeep(At, There) && S_ISREG(There.Stat.st_mode)) {
        Last.Path = Bare(At.Path);
        Last.There.Stat = There.Stat;
        Last.There.Handle = {};
        Last.Query = NextQuery();
        File.Query = Last.Query;
    }
}

void NoteDirectory(const Place &At, Looked &There, std::string FromRoot) {
    if (MayKeep(At, There)) {
        Last.Path = Bare(At.Path);
        Last.There = std::move(There);
        Last.FromRoot = std::move(FromRoot);
        Last.Query = NextQuery();
    }
}

void NoteVolumeOpened() {
    Last.VolumeOpened = true;
    NotThere.VolumeOpened = true;
}

void NoteVolumeClosed() {
    ForgetLook();
    NotThere.Holds = false;
}

void KeepLook(FileObject &File) {
    if (File.Query == Last.Query) {
        Last.There.Fd = std::move(File.Own);
        Last.There.Handle = File.Handle;
        Last.FromRoot = std::move(File.FromRoot);
    }
}

bool TakeLook(const Place &At, bool Again, Looked &There, std::string &FromRoot) {
    if (Last.Query == 0) {
        return false;
    }
    const bool Holds = (Last.There.Fd || Last.There.Handle) && (!Again || Last.VolumeOpened) &&
                       Last.Export == At.Volume->Serial && IsBelowRoot(At) && Same(Last.Path, Bare(At.Path)) &&
                       Last.Changes == At.Volume->ChangeCount.load() && LookClock() - Last.At <= LongestUse;
    if (Holds) {
        There = std::move(Last.There);
        FromRoot = std::move(Last.FromRoot);
    }
    ForgetLook();
    return Holds;
}

RVSTATUS ReadAndKeepStatus(FileObject &File, const struct statx *&Status) {
    SeenStatus &Mine = LastStatus;
    Mine.Changes = File.Volume->ChangeCount.load();
    Mine.Writes = File.Node->Writes();
    Mine.At = LookClock();
    const RVSTATUS Read = ReadStatus(File.Fd(), Mine.Status);
    Mine.Of = RvIsError(Read) ? 0 : NextQuery();
    File.Status = Mine.Of;
    Status = &Mine.Status;
    return Read;
}

const struct statx *TakeStatus(FileObject &File) {
    SeenStatus &Mine = LastStatus;
    const bool Holds = Mine.Of != 0 && Mine.Of == File.Status && Mine.Changes == File.Volume->ChangeCount.load() &&
                       Mine.Writes == File.Node->Writes() && LookClock() - Mine.At <= LongestUse;
    Mine.Of = 0;
    return Holds ? &Mine.Status : nullptr;
}

void NoteMissing(const Place &At) {
    if (!At.Base && IsBelowRoot(At)) {
        NotThere.Path = Bare(At.Path);
        NotThere.Holds = true;
    }
}

bool WasMissing(const Place &At) {
    return NotThere.Holds && At.Base && Same(NotThere.Path, Bare(At.Path)) && MissingHolds(At);
}

bool TakeMissing(const Place &At) {
    const bool Was = WasMissing(At);
    NotThere.Holds = NotThere.Holds && !Was;
    return Was;
}

bool IsAboveMissing(const Place &At) {
    if (!NotThere.Holds || !NotThere.VolumeOpened || At.Base) {
        return false;
    }
    const std::u16string_view Path = NotThere.Path;
    const size_t Above = Path.find_last_not_of(u'\\', Path.rfind(u'\\'));
    return Path.find(u'\\') != Path.npos && Same(Path.substr(0, Above + 1), Bare(At.Path)) && MissingHolds(At);
}

} // namespace providers::directory
