#include "providers/scripted/node.h"

#include "providers/scripted/call.h"

#include <cstring>

namespace providers {

// ---- Content -------------------------------------------------------------------------------------------------

void SparseBytes::Resize(ULONG64 Size) {
    if (Size < Size_) {
        Pieces_.erase(Pieces_.lower_bound((Size + PieceBytes - 1) / PieceBytes), Pieces_.end());
        const auto Last = Pieces_.find(Size / PieceBytes);
        if (Last != Pieces_.end()) {
            std::fill(Last->second.begin() + static_cast<ptrdiff_t>(Size % PieceBytes), Last->second.end(), 0);
        }
    }
    Size_ = Size;
}

void SparseBytes::Read(ULONG64 Offset, ULONG64 Length, UCHAR *Out) const {
    while (Length != 0) {
        const ULONG64 Start = Offset % PieceBytes;
        const ULONG64 Count = std::min(Length, PieceBytes - Start);
        const auto Piece = Pieces_.find(Offset / PieceBytes);
        if (Piece == Pieces_.end()) {
            std::memset(Out, 0, Count);
        } else {
            std::memcpy(Out, Piece->second.data() + Start, Count);
        }
        Offset += Count;
        Out += Count;
        Length -= Count;
    }
}

void SparseBytes::Write(ULONG64 Offset, ULONG64 Length, const UCHAR *In) {
    Size_ = std::max(Size_, Offset + Length);
    while (Length != 0) {
        const ULONG64 Start = Offset % PieceBytes;
        const ULONG64 Count = std::min(Length, PieceBytes - Start);
        auto &Piece = Pieces_[Offset / PieceBytes];
        Piece.resize(PieceBytes);
        std::memcpy(Piece.data() + Start, In, Count);
        Offset += Count;
        In += Count;
        Length -= Count;
    }
}

// ---- Directories ---------------------------------------------------------------------------------------------

namespace {

// An 8.3 form made from the name and the listing position, or nothing when the name is one already.
std::u16string MakeShortName(std::u16string_view Name, ULONG Order) {
    const size_t Dot = Name.rfind(u'.');
    const std::u16string Stem(Name.substr(0, Dot));
    const std::u16string Extension(Dot == std::u16string_view::npos ? u"" : Name.substr(Dot + 1));
    if (Stem.size() <= 8 && Extension.size() <= 3 && Stem.find(u'.') == std::u16string::npos) {
        return {};
    }
    const std::string Digits = std::to_string(Order % 100000);
    std::u16string Short;
    for (char16_t Unit : FoldCase(Stem)) {
        if (Unit != u'.' && Unit != u' ' && Short.size() + Digits.size() < 7) {
            Short += Unit;
        }
    }
    Short += u'~';
    Short.append(Digits.begin(), Digits.end());
    if (!Extension.empty()) {
        Short += u'.' + FoldCase(Extension).substr(0, 3);
    }
    return Short;
}

} // namespace

std::shared_ptr<Node> Node::Child(std::u16string_view Wanted) const {
    const auto Found = Children.find(FoldCase(Wanted));
    return Found == Children.end() ? nullptr : Found->second;
}

void Node::Attach(std::shared_ptr<Node> NewChild) {
    NewChild->Parent = this;
    NewChild->Home = Home;
    NewChild->Order = ++LastOrder;
    NewChild->ShortName = MakeShortName(NewChild->Name, NewChild->Order);
    Listing[NewChild->Order] = NewChild.get();
    Children[FoldCase(NewChild->Name)] = std::move(NewChild);
}

std::shared_ptr<Node> Node::Detach(Node &Child) {
    const auto Found = Children.find(FoldCase(Child.Name));
    std::shared_ptr<Node> Taken = Found->second;
    Children.erase(Found);
    Listing.erase(Taken->Order);
    Taken->Parent = nullptr;
    return Taken;
}

// ---- Listing -------------------------------------------------------------------------------------------------

namespace {

constexpr char16_t AnyRun = 0xF8FC;
constexpr char16_t AtMostOne = 0xF8FD;
constexpr char16_t DotOrEnd = 0xF8FF;
constexpr ULONG BasicNameOffset = 60;
constexpr ULONG ShortNameNameOffset = 88;
constexpr ULONG ShortNameUnits = 12;

bool MatchesFolded(std::u16string_view Mask, std::u16string_view Name) {
    if (Mask.empty()) {
        return Name.empty();
    }
    const std::u16string_view Rest = Mask.substr(1);
    switch (Mask[0]) {
    case u'*':
    case AnyRun:
        for (size_t Skip = 0; Skip <= Name.size(); Skip++) {
            if (MatchesFolded(Rest, Name.substr(Skip))) {
                return true;
            }
        }
        return false;
    case AtMostOne:
        if (Name.empty() || Name[0] == u'.') {
            return MatchesFolded(Rest, Name);
        }
        return MatchesFolded(Rest, Name.substr(1));
    case DotOrEnd:
        if (Name.empty()) {
            return MatchesFolded(Rest, Name);
        }
        return Name[0] == u'.' && MatchesFolded(Rest, Name.substr(1));
    case u'?':
        return !Name.empty() && MatchesFolded(Rest, Name.substr(1));
    default:
        return !Name.empty() && Name[0] == Mask[0] && MatchesFolded(Rest, Name.substr(1));
    }
}

template <class Field>
void Put(UCHAR *At, Field Content) {
    std::memcpy(At, &Content, sizeof(Content));
}

void PutRecord(UCHAR *At, const Node &Entry, bool ShortNames, ULONG Next) {
    Put<ULONG>(At, Next);
    Put<ULONG>(At + 4, Entry.AttributeWord());
    Put<LONG64>(At + 8, Entry.Creation);
    Put<LONG64>(At + 16, Entry.LastWrite);
    Put<LONG64>(At + 24, Entry.LastAccess);
    Put<ULONG64>(At + 32, Entry.Content.Size());
    // Nobody may read these; whoever does gets garbage.
    std::memset(At + 40, 0xCC, 16);
    const auto Units = static_cast<ULONG>(Entry.Name.size());
    ULONG NameOffset = BasicNameOffset;
    if (ShortNames) {
        NameOffset = ShortNameNameOffset;
        const ULONG Short = std::min<ULONG>(static_cast<ULONG>(Entry.ShortName.size()), ShortNameUnits);
        Put<ULONG>(At + 56, Short);
        std::memset(At + 60, 0, ShortNameUnits * 2);
        std::memcpy(At + 60, Entry.ShortName.data(), Short * 2);
    }
    Put<ULONG>(At + NameOffset - 4, Units);
    std::memcpy(At + NameOffset, Entry.Name.data(), Units * 2);
}

} // namespace

bool MatchesMask(std::u16string_view Mask, std::u16string_view Name) {
    // As everywhere on the platform, "*.*" also lists names without a full stop.
    return Mask == u"*.*" || MatchesFolded(FoldCase(Mask), FoldCase(Name));
}

RVSTATUS ListDirectory(const Node &Directory, PCWSTR Mask, bool ShortNames, ULONG *ResumeKey, ULONG *BufferSize,
                       PVOID Buffer) {
    const std::u16string_view Wanted = Mask == nullptr ? std::u16string_view(u"*") : Mask;
    const ULONG Room = *BufferSize;
    UCHAR *const Start = static_cast<UCHAR *>(Buffer);
    UCHAR *Previous = nullptr;
    ULONG Used = 0;
    for (auto At = Directory.Listing.upper_bound(*ResumeKey); At != Directory.Listing.end(); ++At) {
        const Node &Entry = *At->second;
        if (!MatchesMask(Wanted, Entry.Name)) {
            continue;
        }
        const ULONG Offset = (Used + 7) & ~7u;
        const ULONG Needed =
            (ShortNames ? ShortNameNameOffset : BasicNameOffset) + static_cast<ULONG>(Entry.Name.size()) * 2;
        if (Offset > Room || Needed > Room - Offset) {
            if (Previous == nullptr) {
                return RVSTATUS{0xC7E70007};
            }
            break;
        }
        PutRecord(Start + Offset, Entry, ShortNames, 0);
        if (Previous != nullptr) {
            Put<ULONG>(Previous, static_cast<ULONG>(Start + Offset - Previous));
        }
        Previous = Start + Offset;
        Used = Offset + Needed;
        *ResumeKey = At->first;
    }
    if (Previous == nullptr) {
        return RVSTATUS{0xC7E70505};
    }
    *BufferSize = Used;
    return RVSTATUS::Success;
}

} // namespace providers
