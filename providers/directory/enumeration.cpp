// Listing a directory: slots 16 and 37.
//
// A search takes the directory's matching names once; its resume key is the search's tag and the position in that list.
// So entries that come and go never make another entry appear twice or be missed: those that went are left out when
// their turn comes, those that came are not part of this search. A folder handle keeps its last few searches.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>

#include "providers/directory/names.h"
#include "providers/directory/state.h"

namespace providers::directory {
namespace {

using State = DirectoryProvider::State;
using Sec = RV_SECURITY_CONTEXT *;

constexpr size_t KeptListings = 8;
constexpr uint8_t MaxTag = 254;
constexpr unsigned PositionBits = 24;
constexpr ULONG MaxPosition = (1u << PositionBits) - 1;
constexpr ULONG EndKey = 0xFFFFFFFF; // the search is over; asking again gives the same answer
constexpr size_t ShortNameUnits = 12;
constexpr USHORT CodeBufferTooSmall = 0x0007;

// Where a record keeps what; records start on 8-byte boundaries.
enum OFFSET : size_t {
    OFFSET_NEXT = 0,
    OFFSET_ATTRIBUTES = 4,
    OFFSET_CREATION = 8,
    OFFSET_LAST_WRITE = 16,
    OFFSET_LAST_ACCESS = 24,
    OFFSET_SIZE = 32,
    OFFSET_BASIC_NAME_LENGTH = 56,
    OFFSET_BASIC_NAME = 60,
    OFFSET_SHORT_LENGTH = 56,
    OFFSET_SHORT_NAME = 60,
    OFFSET_FULL_NAME_LENGTH = 84,
    OFFSET_FULL_NAME = 88,
};

template <class Type>
void Put(UCHAR *Record, size_t Offset, Type Value) {
    memcpy(Record + Offset, &Value, sizeof Value);
}

// A mask is matched against the short names too, whether or not they are given.
RVSTATUS CollectWildcard(FolderObject &Folder, std::u16string_view Mask, bool WithShort, Listing &Out) {
    const std::u16string Folded = Fold(Mask);
    const bool Everything = MatchesEverything(Folded);
    const RVSTATUS Status = Folder.Volume->Names.List(
        Folder.Ref(), WithShort || !Everything,
        [&](std::u16string_view Name, std::u16string_view Short) {
            return Everything || MatchesMask(Folded, Name) || (!Short.empty() && MatchesMask(Folded, Short));
        },
        Out.Names);
    if (RvIsError(Status)) {
        return Status;
    }
    return Out.Names.size() < MaxPosition ? RVSTATUS::Success : RVSTATUS::NoMemory;
}

// The entries that a search will give.
RVSTATUS Collect(FolderObject &Folder, PCWSTR Mask, bool WithShort, Listing &Out) {
    const std::u16string_view Wanted = Mask == nullptr ? std::u16string_view(u"*") : std::u16string_view(Mask);
    if (Wanted.empty() || HasWildcards(Wanted)) {
        return CollectWildcard(Folder, Wanted, WithShort, Out);
    }
    if (Wanted.find(u'\\') != Wanted.npos) {
        return Failure(CODE_NAME_INVALID);
    }
    Resolved Found;
    const RVSTATUS Status = Folder.Volume->Names.Resolve(Folder.Ref(), Wanted, Found);
    if (Status == Failure(CODE_NAME_INVALID)) {
        return RVSTATUS::Success; // no entry can have this name
    }
    if (!RvIsError(Status) && Found.Exists) {
        std::u16string Short = WithShort ? ShortName(Found.Served) : std::u16string();
        Resolved Back;
        const bool Leads = !Short.empty() && !RvIsError(Folder.Volume->Names.Resolve(Folder.Ref(), Short, Back)) &&
                           Back.Exists && Back.Name == Found.Name;
        Out.Names.push_back({Found.Served, Found.Name, Leads ? std::move(Short) : std::u16string()});
    }
    return Status;
}

// Data of one entry; of what a link leads to when that can be reached.
RVSTATUS EntryMetadata(const FolderObject &Folder, const std::string &Native, Metadata &Data) {
    if (const RVSTATUS Status = ReadEntryMetadata(Folder.Fd.Get(), Native.c_str(), Data); RvIsError(Status)) {
        return Status;
    }
    if (S_ISLNK(Data.Mode)) {
        const UniqueFd Target(Folder.Volume->Open(Folder.Ref(), Native, O_PATH));
        Metadata Behind;
        if (Target && !RvIsError(ReadMetadata(Target.Get(), Behind))) {
            Data = Behind;
        }
    }
    return RVSTATUS::Success;
}

size_t RecordSize(const ListedName &Item, bool WithShort) {
    return (WithShort ? OFFSET_FULL_NAME : OFFSET_BASIC_NAME) + Item.Served.size() * sizeof(WCHAR);
}

void WriteRecord(UCHAR *Record, const Metadata &Data, const ListedName &Item, bool WithShort) {
    const size_t NameOffset = WithShort ? OFFSET_FULL_NAME : OFFSET_BASIC_NAME;
    memset(Record, 0, NameOffset);
    Put(Record, OFFSET_ATTRIBUTES, Data.Attributes);
    Put(Record, OFFSET_CREATION, Data.Creation);
    Put(Record, OFFSET_LAST_WRITE, Data.LastWrite);
    Put(Record, OFFSET_LAST_ACCESS, Data.LastAccess);
    Put(Record, OFFSET_SIZE, Data.EndOfFile);
    if (WithShort) {
        const size_t Units = std::min(Item.Short.size(), ShortNameUnits);
        Put(Record, OFFSET_SHORT_LENGTH, static_cast<ULONG>(Units));
        memcpy(Record + OFFSET_SHORT_NAME, Item.Short.data(), Units * sizeof(WCHAR));
        Put(Record, OFFSET_FULL_NAME_LENGTH, static_cast<ULONG>(Item.Served.size()));
    } else {
        Put(Record, OFFSET_BASIC_NAME_LENGTH, static_cast<ULONG>(Item.Served.size()));
    }
    memcpy(Record + NameOffset, Item.Served.data(), Item.Served.size() * sizeof(WCHAR));
}

// Fills one batch from Position on; Position and Filled tell how far it came. Success when at least one record is in.
RVSTATUS FillBatch(const FolderObject &Folder, const Listing &From, bool WithShort, size_t &Position, UCHAR *Buffer,
                   size_t Capacity, size_t &Filled) {
    UCHAR *Last = nullptr;
    Filled = 0;
    for (; Position < From.Names.size(); ++Position) {
        const ListedName &Item = From.Names[Position];
        const size_t Start = (Filled + 7) & ~size_t{7};
        if (Start + RecordSize(Item, WithShort) > Capacity) {
            return Last != nullptr ? RVSTATUS::Success : Failure(CodeBufferTooSmall);
        }
        Metadata Data;
        const RVSTATUS Status = EntryMetadata(Folder, Item.Native, Data);
        if (Status == Failure(CODE_NO_SUCH_FILE)) {
            continue;
        }
        if (RvIsError(Status)) {
            // What is in the batch is good; the error comes with the next one.
            return Last != nullptr ? RVSTATUS::Success : Status;
        }
        WriteRecord(Buffer + Start, Data, Item, WithShort);
        if (Last != nullptr) {
            Put(Last, OFFSET_NEXT, static_cast<ULONG>(Buffer + Start - Last));
        }
        Last = Buffer + Start;
        Filled = Start + RecordSize(Item, WithShort);
    }
    return Last != nullptr ? RVSTATUS::Success : Failure(CODE_NO_MORE_FILES);
}

// Starts a search and makes room for it among those the handle keeps.
RVSTATUS BeginListing(FolderObject &Folder, PCWSTR Mask, bool WithShort) {
    Listing New;
    if (const RVSTATUS Status = Collect(Folder, Mask, WithShort, New); RvIsError(Status)) {
        return Status;
    }
    Folder.LastTag = Folder.LastTag == MaxTag ? 1 : static_cast<uint8_t>(Folder.LastTag + 1);
    New.Tag = Folder.LastTag;
    if (Folder.Listings.size() == KeptListings) {
        Folder.Listings.erase(Folder.Listings.begin());
    }
    Folder.Listings.push_back(std::move(New));
    return RVSTATUS::Success;
}

RVSTATUS Enumerate(State &Provider, RVHANDLE Directory, PCWSTR Mask, bool WithShort, ULONG *ResumeKey,
                   ULONG *BufferSize, PVOID Buffer) {
    if (ResumeKey == nullptr || BufferSize == nullptr || Buffer == nullptr) {
        return RVSTATUS::InvalidParameter;
    }
    const auto Found = Provider.Open.Acquire(Directory, KIND_FOLDER);
    if (!Found) {
        return RVSTATUS::InvalidHandle;
    }
    if (*ResumeKey == EndKey) {
        return Failure(CODE_NO_MORE_FILES);
    }
    auto &Folder = static_cast<FolderObject &>(*Found);
    const std::lock_guard Hold(Folder.ListingMutex);
    size_t Position = *ResumeKey & MaxPosition;
    auto Tag = static_cast<uint8_t>(*ResumeKey >> PositionBits);
    if (*ResumeKey == 0) {
        if (const RVSTATUS Status = BeginListing(Folder, Mask, WithShort); RvIsError(Status)) {
            return Status;
        }
        Tag = Folder.LastTag;
    }
    auto From = std::find_if(Folder.Listings.begin(), Folder.Listings.end(),
                             [Tag](const Listing &Item) { return Item.Tag == Tag; });
    if (From == Folder.Listings.end() || Position > From->Names.size()) {
        return RVSTATUS::InvalidParameter; // not a key that this handle gave out and still keeps
    }
    std::rotate(From, From + 1, Folder.Listings.end());
    From = Folder.Listings.end() - 1;
    size_t Filled = 0;
    const RVSTATUS Status =
        FillBatch(Folder, *From, WithShort, Position, static_cast<UCHAR *>(Buffer), *BufferSize, Filled);
    *BufferSize = static_cast<ULONG>(Filled);
    const bool Over = Position == From->Names.size();
    *ResumeKey = Over ? EndKey : static_cast<ULONG>(Tag) << PositionBits | static_cast<ULONG>(Position);
    if (Over) {
        Folder.Listings.erase(From);
    }
    return Status;
}

RVSTATUS NTAPI EnumerateDirectory(RVIOM_FSD *Self, Sec, RVHANDLE Directory, PCWSTR Mask, UCHAR, ULONG *ResumeKey,
                                  ULONG *BufferSize, PVOID Buffer) {
    return Guarded([&] { return Enumerate(State::Of(Self), Directory, Mask, false, ResumeKey, BufferSize, Buffer); });
}

RVSTATUS NTAPI EnumerateDirectoryEx(RVIOM_FSD *Self, Sec, RVHANDLE Directory, PCWSTR Mask, ULONG, ULONG *ResumeKey,
                                    ULONG *BufferSize, PVOID Buffer) {
    return Guarded([&] { return Enumerate(State::Of(Self), Directory, Mask, true, ResumeKey, BufferSize, Buffer); });
}

} // namespace

void FillEnumerationSlots(RVIOM_FSD_TABLE &Table) {
    Table.RVFsdEnumerateDirectory = &EnumerateDirectory;
    Table.RVFsdEnumerateDirectoryEx = &EnumerateDirectoryEx;
}

} // namespace providers::directory
