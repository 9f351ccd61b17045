#include "providers/directory/directory_index.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <dirent.h>
#include <fcntl.h>

#include "providers/directory/collision_names.h"
#include "providers/directory/directory_reader.h"
#include "providers/directory/name_order.h"
#include "providers/directory/names.h"

namespace providers::directory {
namespace {

constexpr uint32_t Gone = 0xFFFFFFFF;
constexpr uint32_t None = 0xFFFFFFFF;
// Two changes closer together than this may leave one time stamp, on the coarsest of file systems.
constexpr int64_t StampGranularity = 2'100'000'000;

int64_t Nanoseconds(const timespec &Time) {
    return static_cast<int64_t>(Time.tv_sec) * 1'000'000'000 + Time.tv_nsec;
}

bool SameTime(const timespec &Left, const timespec &Right) {
    return Left.tv_sec == Right.tv_sec && Left.tv_nsec == Right.tv_nsec;
}

} // namespace

std::u16string NameList::Served(const Piece &Item) const {
    return Item.Marked ? MarkedName(Native(Item)) : ServedName(Native(Item));
}

void NameList::Add(std::string_view Name, Piece New) {
    New.At = static_cast<uint32_t>(Bytes.size());
    New.Size = static_cast<uint16_t>(Name.size());
    Pieces.push_back(New);
    Bytes.append(Name);
    Bytes.push_back('\0');
}

DirectoryIndex::DirectoryIndex(EventLog &Log, std::atomic<size_t> &Names, std::atomic<size_t> &Scans)
    : Log_(Log), Names_(Names), Scans_(Scans) {
}

DirectoryIndex::~DirectoryIndex() {
    Clear();
    if (Watch_ >= 0) {
        Log_.Unwatch(Watch_);
    }
}

void DirectoryIndex::Clear() {
    if (Known_) { // or they were not counted yet
        Names_ -= Items_.size() - Free_.size();
    }
    Items_.clear();
    Free_.clear();
    Table_.clear();
    TableUsed_ = 0;
    Bytes_.clear();
    Garbage_ = 0;
    Order_.clear();
    Shorts_.clear();
    KnowsShorts_ = false;
    Known_ = false;
    Changes_.clear();
}

// In Scratch_.
const std::u16string &DirectoryIndex::FoldedOf(const Item &Each) {
    Scratch_.clear();
    AppendFolded(NameOf(Each), Scratch_);
    return Scratch_;
}

// Calls Visit(item) for every item with that hash until it answers false.
template <class Visitor>
void DirectoryIndex::ForHash(uint32_t Hash, Visitor Visit) const {
    const size_t Mask = Table_.size() - 1;
    for (size_t At = StartOf(Hash); !Table_.empty() && Table_[At] != 0; At = (At + 1) & Mask) {
        if (Table_[At] != Gone && Items_[Table_[At] - 1].Hash == Hash && !Visit(Table_[At] - 1)) {
            return;
        }
    }
}

// Makes the table anew, for all items. One that has the name of another is left out.
void DirectoryIndex::MakeTable() {
    size_t Size = 16;
    while (Size < (Items_.size() - Free_.size()) * 2 + 2) {
        Size *= 2;
    }
    Table_.assign(Size, 0);
    TableUsed_ = 0;
    for (uint32_t Index = 0; Index < Items_.size(); ++Index) {
        Item &Each = Items_[Index];
        size_t At = StartOf(Each.Hash);
        bool Known = Each.Size == 0;
        for (; !Known && Table_[At] != 0; At = (At + 1) & (Size - 1)) {
            Item &Other = Items_[Table_[At] - 1];
            if (ShortEndingOf(Other.Hash) != ShortEndingOf(Each.Hash)) {
                continue;
            }
            Each.SharesHash = Other.SharesHash = true;
            if (Other.Hash == Each.Hash && NameOf(Other) == NameOf(Each)) {
                Known = true;
                Each.Size = 0;
                Free_.push_back(Index);
            }
        }
        if (!Known) {
            Table_[At] = Index + 1;
            ++TableUsed_;
        }
    }
}

// Each is in no table yet.
void DirectoryIndex::NoteSharing(Item &Each) {
    const size_t Mask = Table_.size() - 1;
    for (size_t At = StartOf(Each.Hash); Table_[At] != 0; At = (At + 1) & Mask) {
        if (Table_[At] != Gone && ShortEndingOf(Items_[Table_[At] - 1].Hash) == ShortEndingOf(Each.Hash)) {
            Each.SharesHash = Items_[Table_[At] - 1].SharesHash = true;
        }
    }
}

bool DirectoryIndex::HasRoomFor(std::string_view Native) const {
    return !Native.empty() && Native.size() <= UINT16_MAX && Bytes_.size() + Native.size() <= UINT32_MAX;
}

void DirectoryIndex::Add(std::string_view Native, unsigned char Type) {
    if (!HasRoomFor(Native)) {
        return;
    }
    const NameFacts Facts = FactsOf(Native);
    const uint32_t Hash = Facts.Hash;
    bool Known = false;
    ForHash(Hash, [&](uint32_t Index) {
        Known = NameOf(Items_[Index]) == Native;
        if (Known) {
            Items_[Index].Type = Type;
        }
        return !Known;
    });
    if (Known) {
        return;
    }
    const Item New = {static_cast<uint32_t>(Bytes_.size()),
                      Hash,
                      static_cast<uint16_t>(Native.size()),
                      Type,
                      Facts.IsPlain,
                      false,
                      false};
    Bytes_.append(Native);
    uint32_t Index = static_cast<uint32_t>(Items_.size());
    if (Free_.empty()) {
        Items_.push_back(New);
    } else {
        Index = Free_.back();
        Free_.pop_back();
        Items_[Index] = New;
    }
    ++Names_;
    Order_.clear();
    KnowsShorts_ = false;
    if ((TableUsed_ + 1) * 4 > Table_.size() * 3) {
        MakeTable();
        return;
    }
    NoteSharing(Items_[Index]);
    size_t At = StartOf(Hash);
    while (Table_[At] != 0 && Table_[At] != Gone) {
        At = (At + 1) & (Table_.size() - 1);
    }
    TableUsed_ += Table_[At] == 0;
    Table_[At] = Index + 1;
}

void DirectoryIndex::Remove(std::string_view Native) {
    const uint32_t Hash = FactsOf(Native).Hash;
    const size_t Mask = Table_.size() - 1;
    for (size_t At = StartOf(Hash); !Table_.empty() && Table_[At] != 0; At = (At + 1) & Mask) {
        if (Table_[At] != Gone && NameOf(Items_[Table_[At] - 1]) == Native) {
            const uint32_t Index = Table_[At] - 1;
            Garbage_ += Native.size();
            Items_[Index].Size = 0;
            Free_.push_back(Index);
            Table_[At] = Gone;
            --Names_;
            Order_.clear();
            KnowsShorts_ = false;
            return;
        }
    }
}

// Gives back the room of names that went, once it is more than that of those that are there.
void DirectoryIndex::Tidy() {
    if (Garbage_ < 4096 || Garbage_ < Bytes_.size() / 2) {
        return;
    }
    std::string Kept;
    Kept.reserve(Bytes_.size() - Garbage_);
    for (Item &Each : Items_) {
        const std::string_view Name = NameOf(Each);
        const auto At = static_cast<uint32_t>(Kept.size());
        Kept.append(Name);
        Each.At = At;
    }
    Bytes_.swap(Kept);
    Garbage_ = 0;
}

// Bytes is the directory's size, which is 20 for each entry or more where it is of any use.
RVSTATUS DirectoryIndex::Scan(int Fd, off_t Bytes) {
    constexpr off_t MostExpected = 1 << 20;
    constexpr size_t EnoughToJudge = 256;
    Clear();
    ++Scans_;
    Items_.reserve(static_cast<size_t>(std::clamp<off_t>(Bytes / 20, 0, MostExpected)));
    const int Error = ReadDirectory(Fd, [this](std::string_view Name, unsigned char Type) {
        if (HasRoomFor(Name)) {
            const NameFacts Facts = FactsOf(Name);
            Items_.push_back({static_cast<uint32_t>(Bytes_.size()), Facts.Hash, static_cast<uint16_t>(Name.size()),
                              Type, Facts.IsPlain, false, false});
            if (Bytes_.capacity() - Bytes_.size() < Name.size() && Items_.size() > EnoughToJudge) {
                // As long as they were so far, all that are expected fit.
                Bytes_.reserve(std::max(2 * Bytes_.size(), Items_.capacity() * Bytes_.size() / Items_.size()));
            }
            Bytes_.append(Name);
        }
    });
    if (Error != 0) {
        Clear();
        return StatusFromErrno(Error);
    }
    if (Items_.capacity() > 2 * Items_.size() + 16) {
        Items_.shrink_to_fit();
    }
    if (Bytes_.capacity() > Bytes_.size() + Bytes_.size() / 8 + 64) {
        Bytes_.shrink_to_fit();
    }
    MakeTable();
    Names_ += Items_.size() - Free_.size();
    Known_ = true;
    return RVSTATUS::Success;
}

// False when the directory does not tell whether a name is there, or Fd is -1 and would have to be asked.
bool DirectoryIndex::Apply(int Fd) {
    if (Fd < 0 && std::any_of(Changes_.begin(), Changes_.end(), [](const NameChange &Each) { return Each.Moved; })) {
        return false;
    }
    for (const NameChange &Each : Changes_) {
        struct stat Stat;
        if (Each.Came) {
            Add(Each.Name, Each.Type);
        } else if (!Each.Moved) {
            Remove(Each.Name);
        } else if (fstatat(Fd, Each.Name.c_str(), &Stat, AT_SYMLINK_NOFOLLOW) == 0) {
            Add(Each.Name, IFTODT(Stat.st_mode));
        } else if (errno == ENOENT) {
            Remove(Each.Name);
        } else {
            return false;
        }
    }
    if (!Changes_.empty()) {
        Changes_.clear();
        Tidy();
    }
    return true;
}

// Makes the names those of this moment.
RVSTATUS DirectoryIndex::Refresh(int Fd) {
    if (Known_ && Watch_ >= 0 && Log_.Take(Watch_, Changes_) && Apply(Fd)) {
        return RVSTATUS::Success;
    }
    if (Fd < 0) {
        return RVSTATUS::Unsuccessful;
    }
    struct stat Stat;
    if (fstat(Fd, &Stat) != 0) {
        return StatusFromErrno(errno);
    }
    const bool Settled = Nanoseconds(ScannedAt_) - Nanoseconds(Stat.st_mtim) > StampGranularity &&
                         Nanoseconds(ScannedAt_) - Nanoseconds(Stat.st_ctim) > StampGranularity;
    if (Known_ && Watch_ < 0 && Settled && SameTime(Stat.st_mtim, Modified_) && SameTime(Stat.st_ctim, Changed_)) {
        return RVSTATUS::Success;
    }
    if (Watch_ >= 0) {
        Log_.Unwatch(Watch_);
    }
    // The watch comes first: what changes during the reading is then reported and applied again.
    Watch_ = Log_.Watch(Fd);
    clock_gettime(CLOCK_REALTIME, &ScannedAt_);
    Modified_ = Stat.st_mtim;
    Changed_ = Stat.st_ctim;
    return Scan(Fd, Stat.st_size);
}

RVSTATUS DirectoryIndex::Find(int Fd, std::u16string_view Served, std::string_view Native, FoundName &Out) {
    const std::lock_guard Hold(Mutex_);
    if (Fd < 0 && Folds_.value_or(true)) {
        return RVSTATUS::Unsuccessful;
    }
    if (!Folds_) {
        Folds_ = FoldsCase(Fd);
    }
    if (*Folds_ && Served.find(u'~') == Served.npos) {
        return Failure(CODE_NO_SUCH_FILE);
    }
    if (const RVSTATUS Status = Refresh(Fd); RvIsError(Status)) {
        return Status;
    }
    const auto Take = [&](uint32_t Index, bool Marked) {
        Out = {std::string(NameOf(Items_[Index])), Items_[Index].Type, Marked, true};
        return RVSTATUS::Success;
    };
    Out.Told = true;
    const std::u16string Folded = Fold(Served);
    uint32_t First = None;
    bool Several = false;
    bool Exact = false;
    ForHash(HashOfFolded(Folded), [&](uint32_t Index) {
        Exact = NameOf(Items_[Index]) == Native;
        if (Exact || FoldedOf(Items_[Index]) == Folded) {
            Several = First != None && !Exact;
            First = Index;
        }
        return !Exact;
    });
    if (First != None) {
        return Several ? Failure(CODE_EXISTS) : Take(First, false);
    }
    if (Folded.find(u'~') == Folded.npos) {
        return Failure(CODE_NO_SUCH_FILE);
    }
    std::u16string Plain;
    std::u16string Mark;
    if (SplitMarked(Served, Plain, Mark)) {
        const auto Wanted = [&](uint32_t Index) {
            if (Items_[Index].Size != 0 && HasMarkedName(NameOf(Items_[Index]), Plain, Mark)) {
                First = Index;
            }
            return First == None;
        };
        ForHash(HashOfFolded(Plain), Wanted);
        // A name that was cut for its mark is not found by what is left of it.
        for (uint32_t Index = 0; Served.size() >= 254 && First == None && Index < Items_.size(); ++Index) {
            Wanted(Index);
        }
        if (First != None) {
            return Take(First, true);
        }
    }
    const uint32_t Short = ByShort(Folded);
    return Short != None ? Take(Short, false) : Failure(CODE_NO_SUCH_FILE);
}

// The item that has this short name; None when none has. Right while short names are known.
uint32_t DirectoryIndex::ItemOfShort(const ShortCode &Short) const {
    const size_t Mask = Table_.size() - 1;
    for (size_t At = StartOf(Short.Ending()); Table_[At] != 0; At = (At + 1) & Mask) {
        if (Table_[At] != Gone && Shorts_[Table_[At] - 1] == Short) {
            return Table_[At] - 1;
        }
    }
    return None;
}

// Makes the short names, of those that lead to one entry: one that several have, or that is somebody's own name, leads
// to none.
void DirectoryIndex::NeedShorts() {
    if (KnowsShorts_) {
        return;
    }
    Shorts_.assign(Items_.size(), {});
    for (size_t Index = 0; Index < Items_.size(); ++Index) {
        if (const Item &Each = Items_[Index]; Each.Size != 0) {
            Shorts_[Index] = ShortCodeOf(NameOf(Each), Each.Hash, Each.IsPlain);
        }
    }
    std::vector<uint32_t> Useless;
    for (uint32_t Index = 0; Index < Items_.size(); ++Index) {
        // Names of one ending follow each other in the table. The first of those that share all of it is found.
        if (Items_[Index].SharesHash && !Shorts_[Index].empty()) {
            if (const uint32_t First = ItemOfShort(Shorts_[Index]); First != Index) {
                Useless.push_back(First);
                Useless.push_back(Index);
            }
        }
    }
    // Hardly any directory has a name that looks like one that was made.
    const size_t Looking = Bytes_.find('~') != std::string::npos ? Items_.size() : 0;
    for (size_t Index = 0; Index < Looking; ++Index) {
        const Item &Each = Items_[Index];
        if (NameOf(Each).find('~') != std::string_view::npos) {
            const ShortCode Own = ShortCode::Of(FoldedOf(Each));
            if (const uint32_t Other = Own.empty() ? None : ItemOfShort(Own); Other != None) {
                Useless.push_back(Other);
            }
        }
    }
    for (const uint32_t Index : Useless) {
        Shorts_[Index] = {};
    }
    KnowsShorts_ = true;
}

// The item that this short name leads to.
uint32_t DirectoryIndex::ByShort(std::u16string_view Short) {
    const ShortCode Code = ShortCode::Of(Short);
    if (Code.empty()) {
        return None;
    }
    NeedShorts();
    return ItemOfShort(Code);
}

void DirectoryIndex::Sort() {
    if (!Order_.empty()) {
        return;
    }
    const auto Sorted = SortNames(static_cast<uint32_t>(Items_.size()), [this](uint32_t Index) {
        return NameToSort{NameOf(Items_[Index]), Items_[Index].IsPlain};
    });
    Order_.reserve(Sorted.size());
    for (const SortedName &Each : Sorted) {
        Items_[Each.Index].IsAlone = Each.IsAlone;
        Order_.push_back(Each.Index);
    }
}

RVSTATUS DirectoryIndex::List(int Fd, std::u16string_view FoldedMask, bool WithShort, NameList &Out) {
    const std::lock_guard Hold(Mutex_);
    if (const RVSTATUS Status = Refresh(Fd); RvIsError(Status)) {
        return Status;
    }
    Sort();
    Out = {};
    const bool Everything = MatchesEverything(FoldedMask);
    if (Everything) {
        Out.Pieces.reserve(Order_.size());
        Out.Bytes.reserve(Bytes_.size() - Garbage_ + Order_.size());
    }
    if (WithShort || !Everything) {
        NeedShorts();
    }
    for (const uint32_t Index : Order_) {
        const Item &Each = Items_[Index];
        const std::string_view Native = NameOf(Each);
        const ShortCode Short = WithShort || !Everything ? Shorts_[Index] : ShortCode();
        if (!Everything && !MatchesMask(FoldedMask, Fold(Each.IsAlone ? ServedName(Native) : MarkedName(Native))) &&
            (Short.empty() || !MatchesMask(FoldedMask, Short.Text()))) {
            continue;
        }
        Out.Add(Native, {.Short = Short, .Type = Each.Type, .Marked = !Each.IsAlone, .IsPlain = Each.IsPlain});
    }
    return RVSTATUS::Success;
}

} // namespace providers::directory
