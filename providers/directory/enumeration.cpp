// Listing a directory: slots 16 and 37.
//
// A search takes the directory's matching names once; its resume key is the search's tag and the position in that list.
// So entries that come and go never make another entry appear twice or be missed: those that went are left out when
// their turn comes, those that came are not part of this search. A folder handle keeps its last few searches; one that
// went is answered as a lost connection, the one error that nobody takes for the end of the directory.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>

#include "providers/directory/directory_reader.h"
#include "providers/directory/names.h"
#include "providers/directory/record_memory.h"
#include "providers/directory/state.h"

namespace providers::directory {
namespace {

using State = DirectoryProvider::State;
using Sec = RV_SECURITY_CONTEXT *;

constexpr size_t KeptListings = 8;
constexpr uint8_t MaxTag = 254;
constexpr uint8_t UnkeptTag = 255; // of a search that is not kept
constexpr unsigned PositionBits = 24;
constexpr ULONG MaxPosition = (1u << PositionBits) - 1;
constexpr ULONG EndKey = 0xFFFFFFFF; // the search is over; asking again gives the same answer
constexpr USHORT CodeBufferTooSmall = 0x0007;
constexpr USHORT CodeSearchGone = 0x0101;

// The flag of a search that wants one batch and no more, as whoever counts entries does.
constexpr UCHAR FLAG_ONE_BATCH = 1;

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

// The entries that a search will give. A mask is matched against the short names too, whether or not they are given.
RVSTATUS Collect(FolderObject &Folder, PCWSTR Mask, bool WithShort, NameList &Out) {
    const std::u16string_view Wanted = Mask == nullptr ? std::u16string_view(u"*") : std::u16string_view(Mask);
    NameCache &Names = Folder.Volume->Names;
    if (Wanted.empty() || HasWildcards(Wanted)) {
        const RVSTATUS Status = Names.List(Folder.Ref(), Fold(Wanted), WithShort, Out);
        return RvIsError(Status) || Out.Pieces.size() < MaxPosition ? Status : RVSTATUS::NoMemory;
    }
    if (Wanted.find(u'\\') != Wanted.npos) {
        return Failure(CODE_NAME_INVALID);
    }
    Resolved Found;
    const RVSTATUS Status = Names.Resolve(Folder.Ref(), Wanted, Found);
    if (Status == Failure(CODE_NAME_INVALID) || Status == Failure(CODE_EXISTS)) {
        return RVSTATUS::Success; // no entry can have this name, or it is not told which has
    }
    if (!RvIsError(Status) && Found.Exists) {
        const NameFacts Facts = FactsOf(Found.Name);
        const ShortCode Short = WithShort ? ShortCodeOf(Found.Name, Facts.Hash, Facts.IsPlain) : ShortCode();
        const bool Leads = !Short.empty() && Names.LeadsTo(Folder.Ref(), Short.Text(), Found.Name);
        Out.Add(Found.Name, {.Short = Leads ? Short : ShortCode(),
                             .Type = Found.Type,
                             .Marked = Found.Marked,
                             .IsPlain = Facts.IsPlain});
    }
    return Status;
}

// Data of one entry; of what a link leads to when that can be reached. FALSE when the entry is not there any more. One
// that will not be looked at is listed all the same, with what is known: it must not keep the others from being listed.
bool EntryMetadata(const FolderObject &Folder, const char *Native, unsigned char Type, Metadata &Data) {
    const RVSTATUS Status = ReadEntryMetadata(Folder.Fd(), Native, Data);
    if (Status == Failure(CODE_NO_SUCH_FILE)) {
        return false;
    }
    if (RvIsError(Status)) {
        Data = {};
        Data.Attributes = Type == DT_DIR ? RV_ATTR_DIRECTORY : 0u;
        return true;
    }
    if (S_ISLNK(Data.Mode)) {
        const UniqueFd Target(Folder.Volume->Open(Folder.Ref(), std::string(Native), O_PATH));
        Metadata Behind;
        if (Target && !RvIsError(ReadMetadata(Target.Get(), true, Behind))) {
            Data = Behind;
        }
    }
    return true;
}

// All of a record but the name itself, which begins where the answer says.
UCHAR *WriteRecord(UCHAR *Record, const Metadata &Data, size_t Units, const ShortCode &Short, bool WithShort) {
    const size_t NameOffset = WithShort ? OFFSET_FULL_NAME : OFFSET_BASIC_NAME;
    memset(Record, 0, NameOffset);
    Put(Record, OFFSET_ATTRIBUTES, Data.Attributes);
    Put(Record, OFFSET_CREATION, Data.Creation);
    Put(Record, OFFSET_LAST_WRITE, Data.LastWrite);
    Put(Record, OFFSET_LAST_ACCESS, Data.LastAccess);
    Put(Record, OFFSET_SIZE, Data.EndOfFile);
    if (WithShort) {
        const ShortText Text = Short.Text();
        const std::u16string_view Made = Text.View();
        Put(Record, OFFSET_SHORT_LENGTH, static_cast<ULONG>(Made.size()));
        memcpy(Record + OFFSET_SHORT_NAME, Made.data(), Made.size() * sizeof(WCHAR));
        Put(Record, OFFSET_FULL_NAME_LENGTH, static_cast<ULONG>(Units));
    } else {
        Put(Record, OFFSET_BASIC_NAME_LENGTH, static_cast<ULONG>(Units));
    }
    return Record + NameOffset;
}

// The units that a plain name is served under, which are its bytes.
void WritePlainName(UCHAR *To, std::string_view Name) {
    for (size_t At = 0; At < Name.size(); ++At) {
        Put(To, At * sizeof(WCHAR), static_cast<WCHAR>(Name[At]));
    }
}

// What a caller of both slots asks for, beside the mask.
struct Request {
    bool WithShort;
    bool OneBatch; // names alone count
    ULONG *ResumeKey;
    ULONG *BufferSize;
    PVOID Buffer;
};

// Fills one batch from Position on; Position and Filled tell how far it came. Success when at least one record is in.
RVSTATUS FillBatch(const FolderObject &Folder, const Listing &From, const Request &Wanted, size_t &Position,
                   size_t &Filled) {
    auto *const Buffer = static_cast<UCHAR *>(Wanted.Buffer);
    UCHAR *Last = nullptr;
    Filled = 0;
    std::u16string Served;
    // Files that were made one after another have numbers, and most often names, that follow each other.
    ULONG64 Likely = 0;
    ULONG64 Before = 0;
    for (; Position < From.Names.Pieces.size(); ++Position) {
        const NameList::Piece &Item = From.Names.Pieces[Position];
        const std::string_view Native = From.Names.Native(Item);
        const bool IsPlain = Item.IsPlain && !Item.Marked;
        if (!IsPlain) {
            Served = From.Names.Served(Item);
        }
        const size_t Units = IsPlain ? Native.size() : Served.size();
        const size_t Start = (Filled + 7) & ~size_t{7};
        const size_t End = Start + (Wanted.WithShort ? OFFSET_FULL_NAME : OFFSET_BASIC_NAME) + Units * sizeof(WCHAR);
        if (End > *Wanted.BufferSize) {
            return Last != nullptr ? RVSTATUS::Success : Failure(CodeBufferTooSmall);
        }
        Expect(Likely);
        Metadata Data;
        if (!Wanted.OneBatch && !EntryMetadata(Folder, Native.data(), Item.Type, Data)) {
            continue;
        }
        Likely = 2 * Data.Key.Inode - Before;
        Before = Data.Key.Inode;
        UCHAR *const Name = WriteRecord(Buffer + Start, Data, Units, Item.Short, Wanted.WithShort);
        if (IsPlain) {
            WritePlainName(Name, Native);
        } else {
            memcpy(Name, Served.data(), Units * sizeof(WCHAR));
        }
        if (Last != nullptr) {
            Put(Last, OFFSET_NEXT, static_cast<ULONG>(Buffer + Start - Last));
        }
        Last = Buffer + Start;
        Filled = End;
    }
    return Last != nullptr ? RVSTATUS::Success : Failure(CODE_NO_MORE_FILES);
}

auto FindListing(FolderObject &Folder, uint8_t Tag) {
    return std::find_if(Folder.Listings.begin(), Folder.Listings.end(),
                        [Tag](const Listing &Item) { return Item.Tag == Tag; });
}

// Starts a search and makes room for it among those the handle keeps.
RVSTATUS BeginListing(FolderObject &Folder, PCWSTR Mask, bool WithShort) {
    Listing New;
    if (const RVSTATUS Status = Collect(Folder, Mask, WithShort, New.Names); RvIsError(Status)) {
        return Status;
    }
    do {
        Folder.LastTag = Folder.LastTag == MaxTag ? 1 : static_cast<uint8_t>(Folder.LastTag + 1);
    } while (FindListing(Folder, Folder.LastTag) != Folder.Listings.end());
    New.Tag = Folder.LastTag;
    if (Folder.Listings.size() == KeptListings) {
        Folder.Listings.erase(Folder.Listings.begin());
    }
    Folder.Listings.push_back(std::move(New));
    return RVSTATUS::Success;
}

// One batch of From, from Position on; size and key become what the caller gets.
RVSTATUS Serve(const FolderObject &Folder, const Listing &From, size_t Position, const Request &Wanted) {
    size_t Filled = 0;
    const RVSTATUS Status = FillBatch(Folder, From, Wanted, Position, Filled);
    *Wanted.BufferSize = static_cast<ULONG>(Filled);
    *Wanted.ResumeKey = Position == From.Names.Pieces.size()
                            ? EndKey
                            : static_cast<ULONG>(From.Tag) << PositionBits | static_cast<ULONG>(Position);
    return Status;
}

RVSTATUS Enumerate(State &Provider, RVHANDLE Directory, PCWSTR Mask, const Request &Wanted) {
    if (Wanted.ResumeKey == nullptr || Wanted.BufferSize == nullptr || Wanted.Buffer == nullptr) {
        return RVSTATUS::InvalidParameter;
    }
    const auto Found = Provider.Open.Acquire(Directory, KIND_FOLDER);
    if (!Found) {
        return RVSTATUS::InvalidHandle;
    }
    const ULONG Key = *Wanted.ResumeKey;
    if (Key == EndKey) {
        return Failure(CODE_NO_MORE_FILES);
    }
    auto &Folder = static_cast<FolderObject &>(*Found);
    if (Key == 0 && Wanted.OneBatch) {
        // Who removes a directory asks whether it is empty: it is not watched for that, nor its names kept.
        const bool AllOf = Mask == nullptr || MatchesEverything(Mask);
        if (AllOf && !Folder.Volume->Names.Knows(Folder.Ref()) && IsEmptyDirectory(Folder.Fd())) {
            return Serve(Folder, {}, 0, Wanted);
        }
        // Not kept, so that it costs no running search its place.
        Listing Once;
        Once.Tag = UnkeptTag;
        const RVSTATUS Status = Collect(Folder, Mask, Wanted.WithShort, Once.Names);
        return RvIsError(Status) ? Status : Serve(Folder, Once, 0, Wanted);
    }
    const std::lock_guard Hold(Folder.ListingMutex);
    if (Key == 0) {
        if (const RVSTATUS Status = BeginListing(Folder, Mask, Wanted.WithShort); RvIsError(Status)) {
            return Status;
        }
    }
    auto From = FindListing(Folder, Key == 0 ? Folder.LastTag : static_cast<uint8_t>(Key >> PositionBits));
    if (From == Folder.Listings.end() || (Key & MaxPosition) > From->Names.Pieces.size()) {
        return Failure(CodeSearchGone);
    }
    std::rotate(From, From + 1, Folder.Listings.end());
    From = Folder.Listings.end() - 1;
    const RVSTATUS Status = Serve(Folder, *From, Key & MaxPosition, Wanted);
    if (*Wanted.ResumeKey == EndKey) {
        Folder.Listings.erase(From);
    }
    return Status;
}

RVSTATUS NTAPI EnumerateDirectory(RVIOM_FSD *Self, Sec, RVHANDLE Directory, PCWSTR Mask, UCHAR Flag, ULONG *ResumeKey,
                                  ULONG *BufferSize, PVOID Buffer) {
    return Guarded([&] {
        return Enumerate(State::Of(Self), Directory, Mask,
                         {false, Flag == FLAG_ONE_BATCH, ResumeKey, BufferSize, Buffer});
    });
}

RVSTATUS NTAPI EnumerateDirectoryEx(RVIOM_FSD *Self, Sec, RVHANDLE Directory, PCWSTR Mask, ULONG, ULONG *ResumeKey,
                                    ULONG *BufferSize, PVOID Buffer) {
    return Guarded([&] {
        return Enumerate(State::Of(Self), Directory, Mask, {true, false, ResumeKey, BufferSize, Buffer});
    });
}

} // namespace

void FillEnumerationSlots(RVIOM_FSD_TABLE &Table) {
    Table.RVFsdEnumerateDirectory = &EnumerateDirectory;
    Table.RVFsdEnumerateDirectoryEx = &EnumerateDirectoryEx;
}

} // namespace providers::directory
