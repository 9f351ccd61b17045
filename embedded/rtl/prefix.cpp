// Unicode prefix tables over a hash index.
//
//   table.NextPrefixTree ---> PrefixIndex { slots: key -> root entry }
//   root.CaseMatch ---> entries equal ignoring case, a ring
//   entry.Links.LeftChild / RightChild: all entries of the table, in order of insertion
//   entry.Links.Parent: the key under which the entry was filed
//
// A name can be the prefix of another only where a component ends, so one pass over a full name yields the keys of
// all its possible prefixes. The index knows at which depths names exist at all, and only those keys are looked up,
// from the longest down. A key holds 48 bits of hash and the name's length; a slot also holds the name's buffer, so
// that a hit costs one slot and one buffer, and reads the entry only to choose between names that differ in case.

#include "embedded/rtl/rtl.h"
#include "embedded/verifier/faults.h"

#include "embedded/rtl/prefix_index.h"
#include "embedded/verifier/leaks.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <mutex>
#include <new>

namespace embedded {
namespace {

using Entry = UNICODE_PREFIX_TABLE_ENTRY;
using Table = UNICODE_PREFIX_TABLE;

// All indexes, so that those of tables whose memory was given up can be counted, and freed when a table is set up
// again in the same place.
class IndexRegistry {
public:
    PrefixIndex *Create(const Table *Owner) {
        auto *Index = new (std::nothrow) PrefixIndex(Owner);
        if (Index != nullptr) {
            std::lock_guard Hold(Lock_);
            Index->Older = Newest_;
            (Newest_ != nullptr ? Newest_->Newer : Newest_) = Index;
            Newest_ = Index;
            ++Count_;
        }
        return Index;
    }

    void Destroy(PrefixIndex *Index) {
        {
            std::lock_guard Hold(Lock_);
            UnlinkLocked(Index);
        }
        delete Index;
    }

    void DestroyLeftBy(const Table *Owner) {
        std::lock_guard Hold(Lock_);
        for (PrefixIndex *Index = Newest_; Index != nullptr;) {
            PrefixIndex *Older = Index->Older;
            if (Index->Owner == Owner) {
                UnlinkLocked(Index);
                delete Index;
            }
            Index = Older;
        }
    }

    size_t Count() {
        std::lock_guard Hold(Lock_);
        return Count_;
    }

private:
    void UnlinkLocked(PrefixIndex *Index) {
        if (Index->Older != nullptr) {
            Index->Older->Newer = Index->Newer;
        }
        (Index->Newer != nullptr ? Index->Newer->Older : Newest_) = Index->Older;
        --Count_;
    }

    std::mutex Lock_;
    PrefixIndex *Newest_ = nullptr;
    size_t Count_ = 0;
};

constinit IndexRegistry Registry;

PrefixIndex *IndexOf(const Table *PrefixTable) {
    return reinterpret_cast<PrefixIndex *>(PrefixTable->NextPrefixTree);
}

// ---- Entries -----------------------------------------------------------------------------------------------

Entry *FromLinks(PRTL_SPLAY_LINKS Links) {
    return Links == nullptr ? nullptr : CONTAINING_RECORD(Links, Entry, Links);
}

PRTL_SPLAY_LINKS LinksOf(Entry *Of) {
    return Of == nullptr ? nullptr : &Of->Links;
}

void SetFiledKey(Entry *Of, uint64_t Key) {
    Of->Links.Parent = reinterpret_cast<PRTL_SPLAY_LINKS>(Key);
}

uint64_t FiledKey(const Entry *Of) {
    return reinterpret_cast<uint64_t>(Of->Links.Parent);
}

void AppendToList(PrefixIndex &Index, Entry *New) {
    New->Links.LeftChild = LinksOf(Index.Last);
    New->Links.RightChild = nullptr;
    if (Index.Last != nullptr) {
        Index.Last->Links.RightChild = &New->Links;
    } else {
        Index.First = New;
    }
    Index.Last = New;
}

void RemoveFromList(PrefixIndex &Index, Entry *Old) {
    Entry *Previous = FromLinks(Old->Links.LeftChild);
    Entry *Next = FromLinks(Old->Links.RightChild);
    if (Previous != nullptr) {
        Previous->Links.RightChild = LinksOf(Next);
    } else {
        Index.First = Next;
    }
    if (Next != nullptr) {
        Next->Links.LeftChild = LinksOf(Previous);
    } else {
        Index.Last = Previous;
    }
}

void JoinRing(Entry *Root, Entry *New) {
    New->NodeTypeCode = PrefixCaseMatchNode;
    New->CaseMatch = Root->CaseMatch;
    Root->CaseMatch = New;
}

// Takes Old out of its ring; if it stood in the index for the ring, the next member does so from now on.
void LeaveRing(Entry *Old, Slot *FiledIn) {
    Entry *Before = Old;
    while (Before->CaseMatch != Old) {
        Before = Before->CaseMatch;
    }
    Entry *Heir = Old->CaseMatch;
    Before->CaseMatch = Heir;
    if (Old->NodeTypeCode == PrefixRootNode) {
        Heir->NodeTypeCode = PrefixRootNode;
        FiledIn->Root = Heir;
        FiledIn->Buffer = Heir->Prefix->Buffer;
    }
}

// Of the names in Root's ring one that is spelled exactly as Name, else one whose first ExactUnits units are;
// nullptr when there is neither.
Entry *ChooseByCase(Entry *Root, const WCHAR *Name, size_t Units, size_t ExactUnits) {
    Entry *Choice = nullptr;
    Entry *Member = Root;
    do {
        const WCHAR *Spelling = Member->Prefix->Buffer;
        if (EqualUnits(Spelling, Name, Units)) {
            return Member;
        }
        if (Choice == nullptr && EqualUnits(Spelling, Name, std::min(Units, ExactUnits))) {
            Choice = Member;
        }
        Member = Member->CaseMatch;
    } while (Member != Root);
    return Choice;
}

struct Candidate {
    uint64_t Key;
    size_t Units;
};

Entry *FindAt(PrefixIndex &Index, Candidate At, const WCHAR *Name, size_t ExactUnits) {
    Slot *Found = Index.Find(At.Key, Name, At.Units);
    if (Found == nullptr) {
        return nullptr;
    }
    // Most names are asked for as they were filed; the entry then need not be read at all.
    if (EqualUnits(Found->Buffer, Name, At.Units)) {
        return Found->Root;
    }
    return ChooseByCase(Found->Root, Name, At.Units, ExactUnits);
}

Entry *FindLongest(PrefixIndex &Index, const WCHAR *Name, size_t Units, size_t ExactUnits) {
    std::array<Candidate, DepthLimit + 2> Candidates;
    size_t Count = 0;
    Entry *Deepest = nullptr;
    VisitPrefixes(Name, Units, [&](uint64_t Key, size_t PrefixUnits, size_t Depth) {
        if (!Index.HasNamesAtDepth(Depth)) {
            return;
        }
        if (Depth < DepthLimit) {
            Candidates[Count++] = {Key, PrefixUnits};
        } else if (Entry *Found = FindAt(Index, {Key, PrefixUnits}, Name, ExactUnits)) {
            Deepest = Found;
        }
    });
    if (Deepest != nullptr || Count == 0) {
        return Deepest;
    }
    if (Entry *Found = FindAt(Index, Candidates[--Count], Name, ExactUnits)) {
        return Found;
    }
    // The shorter prefixes are asked for together, so that their cache misses overlap.
    for (size_t Rest = 0; Rest < Count; ++Rest) {
        Index.Prefetch(Candidates[Rest].Key);
    }
    while (Count > 0) {
        if (Entry *Found = FindAt(Index, Candidates[--Count], Name, ExactUnits)) {
            return Found;
        }
    }
    return nullptr;
}

[[noreturn]] void PrefixMisuse(const Entry *Of, const char *Text) {
    BugCheck(bugcheck::Verifier, bugcheck::OwnRule, reinterpret_cast<ULONG_PTR>(Of), 0, 0, Text);
}

// An entry can be taken out only of the table that it is in, under the name that it was inserted with.
void VerifyRemoval(const Table *PrefixTable, const Entry *Old) {
    if (IndexOf(PrefixTable) == nullptr ||
        (Old->NodeTypeCode != PrefixRootNode && Old->NodeTypeCode != PrefixCaseMatchNode)) {
        PrefixMisuse(Old, "RtlRemoveUnicodePrefix: the entry is not in the table");
    }
    if (Verifying() && WholeNameKey(Old->Prefix).Key != FiledKey(Old)) {
        PrefixMisuse(Old, "RtlRemoveUnicodePrefix: the name of the entry changed while it was in the table");
    }
}

} // namespace

// Registered when the program starts; leaks are looked for long after.
[[maybe_unused]] const bool LeakCheckRegistered = [] {
    RegisterLeakCheck("prefix tables", [] {
        size_t Left = PrefixTablesInUse();
        return Left == 0 ? std::string() : fmt::format("{} prefix table(s) that still hold names\n", Left);
    });
    return true;
}();

size_t PrefixTablesInUse() {
    return Registry.Count();
}

} // namespace embedded

using namespace embedded;

VOID NTAPI RtlInitializeUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable) noexcept {
    RequireIrql(IrqlRuleOf("RtlInitializeUnicodePrefix"));
    Registry.DestroyLeftBy(PrefixTable);
    *PrefixTable = {};
    PrefixTable->NodeTypeCode = PrefixTableNode;
}

BOOLEAN NTAPI RtlInsertUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable, PUNICODE_STRING Prefix,
                                     PUNICODE_PREFIX_TABLE_ENTRY PrefixTableEntry) noexcept {
    RequireIrql(IrqlRuleOf("RtlInsertUnicodePrefix"));
    if (ShouldFail(FaultKind::Prefix)) {
        return FALSE;
    }
    PrefixIndex *Index = IndexOf(PrefixTable);
    if (Index == nullptr) {
        Index = Registry.Create(PrefixTable);
        if (Index == nullptr) {
            return FALSE;
        }
        PrefixTable->NextPrefixTree = reinterpret_cast<Entry *>(Index);
    }
    NameKey Name = WholeNameKey(Prefix);
    Slot *Existing = Index->Find(Name.Key, Prefix->Buffer, UnitsOf(Prefix));
    if (Existing != nullptr) {
        Entry *Twin = ChooseByCase(Existing->Root, Prefix->Buffer, UnitsOf(Prefix), UnitsOf(Prefix));
        if (Twin != nullptr) {
            return FALSE;
        }
    } else if (!Index->Reserve()) {
        return FALSE;
    }
    *PrefixTableEntry = {};
    PrefixTableEntry->NodeTypeCode = PrefixRootNode;
    PrefixTableEntry->NameLength = static_cast<CSHORT>(Name.Depth);
    PrefixTableEntry->CaseMatch = PrefixTableEntry;
    PrefixTableEntry->Prefix = Prefix;
    SetFiledKey(PrefixTableEntry, Name.Key);
    if (Existing != nullptr) {
        JoinRing(Existing->Root, PrefixTableEntry);
    } else {
        Index->Add(Name, PrefixTableEntry);
    }
    AppendToList(*Index, PrefixTableEntry);
    return TRUE;
}

VOID NTAPI RtlRemoveUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable,
                                  PUNICODE_PREFIX_TABLE_ENTRY PrefixTableEntry) noexcept {
    RequireIrql(IrqlRuleOf("RtlRemoveUnicodePrefix"));
    Entry *Old = PrefixTableEntry;
    VerifyRemoval(PrefixTable, Old);
    PrefixIndex *Index = IndexOf(PrefixTable);
    Slot *FiledIn = nullptr;
    if (Old->NodeTypeCode == PrefixRootNode) {
        FiledIn = Index->FindRoot(FiledKey(Old), Old);
        if (FiledIn == nullptr) {
            PrefixMisuse(Old, "RtlRemoveUnicodePrefix: the entry is in another table");
        }
        if (Verifying() && FiledIn->Buffer != Old->Prefix->Buffer) {
            PrefixMisuse(Old, "RtlRemoveUnicodePrefix: the name of the entry moved while it was in the table");
        }
    }
    if (PrefixTable->LastNextEntry == Old) {
        PrefixTable->LastNextEntry = FromLinks(Old->Links.LeftChild);
    }
    RemoveFromList(*Index, Old);
    if (Old->CaseMatch != Old) {
        LeaveRing(Old, FiledIn);
    } else {
        Index->Remove(FiledIn, static_cast<size_t>(Old->NameLength));
    }
    *Old = {};
    if (Index->Empty()) {
        PrefixTable->NextPrefixTree = nullptr;
        Registry.Destroy(Index);
    }
}

PUNICODE_PREFIX_TABLE_ENTRY NTAPI RtlFindUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable, PUNICODE_STRING FullName,
                                                       ULONG CaseInsensitiveIndex) noexcept {
    RequireIrql(IrqlRuleOf("RtlFindUnicodePrefix"));
    PrefixIndex *Index = IndexOf(PrefixTable);
    if (Index == nullptr) {
        return nullptr;
    }
    return FindLongest(*Index, FullName->Buffer, UnitsOf(FullName), CaseInsensitiveIndex);
}

PUNICODE_PREFIX_TABLE_ENTRY NTAPI RtlNextUnicodePrefix(PUNICODE_PREFIX_TABLE PrefixTable, BOOLEAN Restart) noexcept {
    RequireIrql(IrqlRuleOf("RtlNextUnicodePrefix"));
    PrefixIndex *Index = IndexOf(PrefixTable);
    if (Index == nullptr) {
        return nullptr;
    }
    Entry *Last = PrefixTable->LastNextEntry;
    Entry *Next = Restart || Last == nullptr ? Index->First : FromLinks(Last->Links.RightChild);
    if (Next != nullptr) {
        PrefixTable->LastNextEntry = Next;
    }
    return Next;
}
