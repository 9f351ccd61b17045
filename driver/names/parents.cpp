#include "names/fcb.h"

// The directories below which FCBs are in the prefix table, directly or deeper, so that one walk down a path tells
// whether a directory may be renamed. Each counts the FCBs and the records directly below it and goes with the last of
// them. Volumes, which are never renamed, and what is above them have no record.
//
// A record is found by the one above it and its own name, so that a path costs what it is long, however deep it is. The
// records that one FCB adds are one block: the highest first, each directory below it next, and behind them the text of
// which all names are parts. The highest is the last of them to go, and the block with it.
struct PARENT_RECORD {
    PARENT_RECORD *NextInBucket UNDER(FcbTableResource);
    UNICODE_STRING Name; // a view into the block's text; below a volume itself the whole path
    PARENT_RECORD *Parent;
    ULONG Below UNDER(FcbTableResource);
    BOOLEAN BeginsBlock;
};

namespace {

constexpr ULONG FIRST_BUCKET_BITS = 6;

// The chains of records by the hash of parent and name. Their array doubles when there are more than two records for
// each, and is the first one again when the last record has gone, as it has by the end of teardown.
DRIVER_GLOBAL PARENT_RECORD *FirstBuckets[1u << FIRST_BUCKET_BITS] UNDER(FcbTableResource) = {};
DRIVER_GLOBAL PARENT_RECORD **Buckets UNDER(FcbTableResource) = FirstBuckets;
DRIVER_GLOBAL ULONG BucketBits UNDER(FcbTableResource) = FIRST_BUCKET_BITS;
DRIVER_GLOBAL ULONG RecordCount UNDER(FcbTableResource) = 0;

// Goes down the directories of a path that lie below its volume.
class DirectoryWalk {
public:
    explicit DirectoryWalk(const UNICODE_STRING &Path)
        : Path_(Path), VolumeEnd_(NtFsdFindVolume(Path).End), End_(VolumeEnd_) {
    }
    // FALSE behind the last one.
    bool Next() {
        if (End_ + 1 >= UnitsOf(Path_)) {
            return false;
        }
        Start_ = End_ == VolumeEnd_ ? 0 : End_ + 1;
        for (++End_; End_ < UnitsOf(Path_) && Path_.Buffer[End_] != SEPARATOR; ++End_) {
        }
        return true;
    }
    // As its record bears it, in Text, which begins as the path does.
    UNICODE_STRING NameIn(PWSTR Text) const {
        return ViewOf(Text + Start_, End_ - Start_);
    }
    UNICODE_STRING Name() const {
        return NameIn(Path_.Buffer);
    }

private:
    UNICODE_STRING Path_;
    ULONG VolumeEnd_;
    ULONG Start_ = 0;
    ULONG End_;
};

WCHAR FoldUnit(WCHAR Unit) {
    if (Unit < 0x80) {
        return Unit >= WTEXT('a') && Unit <= WTEXT('z') ? static_cast<WCHAR>(Unit - 0x20) : Unit;
    }
    return RtlUpcaseUnicodeChar(Unit);
}

PARENT_RECORD **BucketOf(const PARENT_RECORD *Parent, const UNICODE_STRING &Name) HOLDING(FcbTableResource) {
    ULONG64 Hash = reinterpret_cast<ULONG64>(Parent);
    for (ULONG At = 0; At < UnitsOf(Name); ++At) {
        Hash = (Hash ^ FoldUnit(Name.Buffer[At])) * 0x9E3779B97F4A7C15ull;
    }
    return &Buckets[Hash >> (64 - BucketBits)];
}

void Link(PARENT_RECORD *Record) HOLDING(FcbTableResource) {
    PARENT_RECORD **const Bucket = BucketOf(Record->Parent, Record->Name);
    Record->NextInBucket = *Bucket;
    *Bucket = Record;
}

// Without memory the array stays as it is: the chains are longer until a later record finds some.
void GrowBuckets() HOLDING(FcbTableResource) {
    const auto Larger = static_cast<PARENT_RECORD **>(TwAllocMemory(sizeof(PARENT_RECORD *) << (BucketBits + 1)));
    if (Larger == nullptr) {
        return;
    }
    PARENT_RECORD **const Old = Buckets;
    const ULONG OldCount = 1u << BucketBits;
    Buckets = Larger;
    ++BucketBits;
    for (ULONG At = 0; At < OldCount; ++At) {
        for (PARENT_RECORD *Record = Old[At]; Record != nullptr;) {
            PARENT_RECORD *const Next = Record->NextInBucket;
            Link(Record);
            Record = Next;
        }
        Old[At] = nullptr;
    }
    if (Old != FirstBuckets) {
        TwFreeMemory(Old);
    }
}

void DropGrownBuckets() HOLDING(FcbTableResource) {
    if (Buckets != FirstBuckets) {
        TwFreeMemory(Buckets);
        Buckets = FirstBuckets;
        BucketBits = FIRST_BUCKET_BITS;
    }
}

PARENT_RECORD *FindRecord(const PARENT_RECORD *Parent, const UNICODE_STRING &Name) HOLDING(FcbTableResource) {
    PARENT_RECORD *Record = *BucketOf(Parent, Name);
    while (Record != nullptr && !(Record->Parent == Parent && RtlEqualUnicodeString(&Record->Name, &Name, TRUE))) {
        Record = Record->NextInBucket;
    }
    return Record;
}

void Unlink(PARENT_RECORD *Record) HOLDING(FcbTableResource) {
    PARENT_RECORD **Link = BucketOf(Record->Parent, Record->Name);
    while (*Link != Record) {
        Link = &(*Link)->NextInBucket;
    }
    *Link = Record->NextInBucket;
    if (--RecordCount == 0) {
        DropGrownBuckets();
    }
}

// Adds the Count directories that Walk is at and goes on to, below Above (NULL: below the volume). Returns the deepest,
// whose count already includes the caller's FCB, or NULL when no memory can be had; nothing has changed then.
PARENT_RECORD *MakeRecords(const UNICODE_STRING &Directory, DirectoryWalk Walk, ULONG Count, PARENT_RECORD *Above)
    HOLDING(FcbTableResource) {
    const auto Block = static_cast<PARENT_RECORD *>(TwAllocMemory(Count * sizeof(PARENT_RECORD) + Directory.Length));
    if (Block == nullptr) {
        return nullptr;
    }
    const auto Text = reinterpret_cast<PWSTR>(Block + Count);
    RtlCopyMemory(Text, Directory.Buffer, Directory.Length);
    Block->BeginsBlock = TRUE;
    if (Above != nullptr) {
        ++Above->Below;
    }
    for (ULONG Made = 0; Made < Count; ++Made, Walk.Next()) {
        PARENT_RECORD *const Record = &Block[Made];
        Record->Name = Walk.NameIn(Text);
        Record->Parent = Made == 0 ? Above : Record - 1;
        Record->Below = 1; // the next, or the FCB
        Link(Record);
    }
    RecordCount += Count;
    if (RecordCount > 2ull << BucketBits) {
        GrowBuckets();
    }
    return &Block[Count - 1];
}

} // namespace

NTSTATUS NtFsdHoldParent(PCUNICODE_STRING Path, PARENT_RECORD **Parent) {
    *Parent = nullptr;
    const UNICODE_STRING Directory = NtFsdSplitPath(*Path).Front;
    PARENT_RECORD *Deepest = nullptr;
    for (DirectoryWalk Walk(Directory); Walk.Next();) {
        PARENT_RECORD *const Record = FindRecord(Deepest, Walk.Name());
        if (Record == nullptr) {
            ULONG Missing = 1;
            for (DirectoryWalk Rest = Walk; Rest.Next();) {
                ++Missing;
            }
            *Parent = MakeRecords(Directory, Walk, Missing, Deepest);
            return *Parent != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
        }
        Deepest = Record;
    }
    if (Deepest != nullptr) {
        ++Deepest->Below;
    }
    *Parent = Deepest;
    return STATUS_SUCCESS;
}

VOID NtFsdReleaseParent(PARENT_RECORD *Parent) {
    while (Parent != nullptr && --Parent->Below == 0) {
        PARENT_RECORD *const Above = Parent->Parent;
        Unlink(Parent);
        if (Parent->BeginsBlock) {
            TwFreeMemory(Parent);
        }
        Parent = Above;
    }
}

bool NtFsdHasFcbBelow(PCUNICODE_STRING Path) {
    const PARENT_RECORD *Record = nullptr;
    for (DirectoryWalk Walk(*Path); Walk.Next();) {
        Record = FindRecord(Record, Walk.Name());
        if (Record == nullptr) {
            return false;
        }
    }
    return Record != nullptr;
}
