#include "providers/directory/names.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <iterator>
#include <type_traits>
#include <vector>

#include <emmintrin.h>
#include <unicode/umachine.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include "text/upcase.h"

namespace providers::directory {
namespace {

constexpr char16_t PrivateBase = 0xF000;
constexpr char16_t MaskStar = 0xF8FC;
constexpr char16_t MaskQuestion = 0xF8FD;
constexpr char16_t MaskDot = 0xF8FF;
constexpr size_t MaxNameBytes = 255;

constexpr bool IsForbidden(UChar32 Character) {
    return (Character > 0 && Character < 0x20) || Character == '"' || Character == '*' || Character == ':' ||
           Character == '<' || Character == '>' || Character == '?' || Character == '\\' || Character == '|';
}

constexpr bool IsForbiddenAtEnd(UChar32 Character) {
    return Character == '.' || Character == ' ';
}

// The units that stand for one byte. Others of the block stay ordinary private-use characters.
constexpr bool StandsForByte(UChar32 Character) {
    if (Character < PrivateBase || Character > PrivateBase + 0xFF) {
        return false;
    }
    const UChar32 Byte = Character - PrivateBase;
    return Byte >= 0x80 || IsForbidden(Byte) || IsForbiddenAtEnd(Byte);
}

// Private-use characters that cannot be served as themselves: those above, and what a mask takes for wildcards.
constexpr bool IsReserved(UChar32 Character) {
    return StandsForByte(Character) || Character == MaskStar || Character == MaskQuestion || Character == MaskDot;
}

// What an 8.3 name is made of.
constexpr auto ShortUnits = [] {
    std::array<bool, 128> Fit{};
    for (size_t Unit = 0x21; Unit < 0x7F; ++Unit) {
        Fit[Unit] = !IsForbidden(static_cast<UChar32>(Unit)) &&
                    std::string_view(".+,;=[]/").find(static_cast<char>(Unit)) == std::string_view::npos;
    }
    return Fit;
}();

// Letters, digits and the like, whose two forms are the same; a full stop or blank among them, but not at the end. In
// upper case, as the platform's table has it; 0 = none of them.
constexpr auto PlainUnits = [] {
    std::array<char, 256> Plain{};
    for (UChar32 Unit = ' '; Unit < 0x7F; ++Unit) {
        if (!IsForbidden(Unit) && Unit != '/') {
            Plain[static_cast<size_t>(Unit)] = static_cast<char>(Unit >= 'a' && Unit <= 'z' ? Unit - 'a' + 'A' : Unit);
        }
    }
    return Plain;
}();

// The same by bytes, a bit that no unit has for those that are not plain.
constexpr uint16_t NotPlain = 0x8000;
constexpr auto FoldedUnits = [] {
    std::array<uint16_t, 256> Folded{};
    for (size_t Byte = 0; Byte < Folded.size(); ++Byte) {
        Folded[Byte] = PlainUnits[Byte] != 0 ? static_cast<uint16_t>(PlainUnits[Byte]) : NotPlain;
    }
    return Folded;
}();

constexpr char PlainUnit(char16_t Unit) {
    return Unit < PlainUnits.size() ? PlainUnits[Unit] : '\0';
}
constexpr char PlainUnit(char Byte) {
    return PlainUnits[static_cast<unsigned char>(Byte)];
}

template <class View>
bool IsPlain(View Name) {
    return !Name.empty() && !IsForbiddenAtEnd(Name.back()) &&
           std::all_of(Name.begin(), Name.end(), [](auto Unit) { return PlainUnit(Unit) != 0; });
}

template <class Char>
bool FitsShort(Char Unit) {
    return static_cast<char16_t>(Unit) < ShortUnits.size() && ShortUnits[static_cast<size_t>(Unit)];
}

// The first units of From that an 8.3 name keeps, in upper case.
template <class View, size_t Count>
void KeepUnits(View From, char (&Out)[Count]) {
    const char16_t *Upcase = text::UpcaseTable();
    size_t Kept = 0;
    for (size_t At = 0; At < From.size() && Kept < Count; ++At) {
        if (FitsShort(From[At]) && From[At] != '~') {
            Out[Kept++] = static_cast<char>(Upcase[static_cast<size_t>(From[At])]);
        }
    }
}

// The 8.3 name of a served name, or of a plain one in bytes, whose folded form has that hash.
template <class View>
ShortCode ShortOf(View Name, uint32_t Hash) {
    using Char = typename View::value_type;
    const size_t Dot = Name.rfind(Char('.'));
    const size_t Stem = Dot == View::npos || Dot == 0 ? Name.size() : Dot;
    const View Base = Name.substr(0, Stem);
    const View Extension = Stem == Name.size() ? View() : Name.substr(Stem + 1);
    const auto AllFit = [](View Part) { return std::all_of(Part.begin(), Part.end(), FitsShort<Char>); };
    if (Base.size() <= 8 && Extension.size() <= 3 && (Stem == Name.size() || !Extension.empty()) && AllFit(Base) &&
        AllFit(Extension)) {
        return {};
    }
    char KeptBase[2] = {};
    char KeptExtension[3] = {};
    KeepUnits(Base, KeptBase);
    KeepUnits(Extension, KeptExtension);
    return {KeptBase, KeptExtension, ShortEndingOf(Hash)};
}

constexpr std::u16string_view EndingDigits = u"0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";

static_assert(std::endian::native == std::endian::little);

// The hash of a folded name, which is given four units at a time.
class HashState {
public:
    static constexpr size_t Units = sizeof(uint64_t) / sizeof(char16_t);

    // The first unit lowest, zeros behind the last one.
    void Add(uint64_t Next) {
        Hash_ = (Hash_ ^ Next) * 0xC2B2AE3D27D4EB4Fu;
        Hash_ ^= Hash_ >> 29;
    }
    uint32_t Value() const {
        return static_cast<uint32_t>(Hash_ * 0x9E3779B97F4A7C15u >> 32);
    }

private:
    uint64_t Hash_ = 0x9E3779B97F4A7C15u;
};

void AppendCharacter(std::u16string &Out, UChar32 Character) {
    if (Character > 0xFFFF) {
        Out.push_back(U16_LEAD(Character));
        Out.push_back(U16_TRAIL(Character));
    } else {
        Out.push_back(static_cast<char16_t>(Character));
    }
}

void AppendBytes(std::string &Out, UChar32 Character) {
    char Bytes[U8_MAX_LENGTH];
    int Count = 0;
    U8_APPEND_UNSAFE(Bytes, Count, Character);
    Out.append(Bytes, static_cast<size_t>(Count));
}

} // namespace

bool IsServedAsItIs(std::string_view Native) {
    return IsPlain(Native);
}

std::u16string ServedName(std::string_view Native) {
    if (IsPlain(Native)) {
        return {Native.begin(), Native.end()};
    }
    std::u16string Served;
    Served.reserve(Native.size());
    const auto *Bytes = reinterpret_cast<const uint8_t *>(Native.data());
    const auto Size = static_cast<int32_t>(Native.size());
    for (int32_t Index = 0; Index < Size;) {
        const int32_t Start = Index;
        UChar32 Character = 0;
        U8_NEXT(Bytes, Index, Size, Character);
        if (Character < 0 || IsReserved(Character)) {
            for (int32_t Byte = Start; Byte < Index; ++Byte) {
                Served.push_back(static_cast<char16_t>(PrivateBase + Bytes[Byte]));
            }
        } else if (IsForbidden(Character) || (Index == Size && IsForbiddenAtEnd(Character))) {
            Served.push_back(static_cast<char16_t>(PrivateBase + Character));
        } else {
            AppendCharacter(Served, Character);
        }
    }
    return Served;
}

std::optional<std::string> NativeName(std::u16string_view Served) {
    if (IsPlain(Served) && Served.size() <= MaxNameBytes) {
        return std::string(Served.begin(), Served.end());
    }
    std::string Native;
    Native.reserve(Served.size() + 8);
    for (size_t Index = 0; Index < Served.size();) {
        UChar32 Character = 0;
        U16_NEXT(Served.data(), Index, Served.size(), Character);
        if (U_IS_SURROGATE(Character) || Character == '/' || Character == 0) {
            return std::nullopt;
        }
        if (StandsForByte(Character)) {
            Native.push_back(static_cast<char>(Character - PrivateBase));
        } else {
            AppendBytes(Native, Character);
        }
    }
    if (Native.empty() || Native.size() > MaxNameBytes || Native == "." || Native == "..") {
        return std::nullopt;
    }
    // Two spellings must never lead to one entry: only the one that a listing gives is a name.
    if (ServedName(Native) != Served) {
        return std::nullopt;
    }
    return Native;
}

namespace {

// Sixteen units of a path, as bytes and as what they are. One that is no byte is odd.
struct PathBlock {
    __m128i Bytes; // with the other separator
    unsigned Odd;  // a bit for each: no plain unit and no separator
    unsigned Separators;
    unsigned BadEnds; // what no component ends with, as none is empty

    explicit PathBlock(const char16_t *From) {
        const auto *Units = reinterpret_cast<const __m128i *>(From);
        // Greater ones become 0xFF, and those from 0x8000 on become 0.
        Bytes = _mm_packus_epi16(_mm_loadu_si128(Units), _mm_loadu_si128(Units + 1));
        const __m128i IsSeparator = Is('\\');
        Separators = Bits(IsSeparator);
        BadEnds = Separators | Bits(_mm_or_si128(Is('.'), Is(' ')));
        // Compared with their signs: bytes from 0x80 on are less than a blank.
        __m128i IsOdd = _mm_or_si128(_mm_cmplt_epi8(Bytes, _mm_set1_epi8(0x20)), Is(0x7F));
        for (const char Forbidden : {'"', '*', '/', ':', '<', '>', '?', '|'}) {
            IsOdd = _mm_or_si128(IsOdd, Is(Forbidden));
        }
        Odd = Bits(IsOdd);
        Bytes = _mm_xor_si128(Bytes, _mm_and_si128(IsSeparator, _mm_set1_epi8('\\' ^ '/')));
    }
    __m128i Is(char Byte) const {
        return _mm_cmpeq_epi8(Bytes, _mm_set1_epi8(Byte));
    }
    static unsigned Bits(__m128i Each) {
        return static_cast<unsigned>(_mm_movemask_epi8(Each));
    }
};

// Makes Path of plain components with one separator between two of them, as nearly all are; false for others.
bool PlainPath(std::u16string_view Served, std::string &Path) {
    constexpr size_t Units = sizeof(__m128i);
    if (Served.size() < Units || Served.size() > MaxNameBytes || Served.back() == u'\\' ||
        IsForbiddenAtEnd(Served.back())) {
        return false;
    }
    char Bytes[MaxNameBytes];
    const size_t Last = Served.size() - Units;
    unsigned Odd = 0;
    bool AfterBadEnd = true; // before the first component, too
    for (size_t At = 0;; At = std::min(At + Units, Last)) {
        const PathBlock Block(Served.data() + At);
        Odd |= Block.Odd | (Block.Separators & (Block.BadEnds << 1 | static_cast<unsigned>(AfterBadEnd)));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(Bytes + At), Block.Bytes);
        if (At == Last) {
            break;
        }
        // The last block may begin within this one.
        AfterBadEnd = (Block.BadEnds >> (std::min(Units, Last - At) - 1) & 1) != 0;
    }
    if (Odd == 0) {
        Path.assign(Bytes, Served.size());
    }
    return Odd == 0;
}

} // namespace

std::optional<std::string> NativePath(std::u16string_view Served) {
    Served.remove_prefix(std::min(Served.find_first_not_of(u'\\'), Served.size()));
    std::string Path;
    if (PlainPath(Served, Path)) {
        return Path;
    }
    Path.resize(Served.size());
    size_t Size = 0;  // bytes of Path that are made
    size_t Start = 0; // where the component begins in Path
    for (size_t At = 0; At <= Served.size(); ++At) {
        const char16_t *From = Served.data() + At;
        const char16_t *const End = Served.data() + Served.size();
        char *Made = Path.data() + Size;
        for (; From != End && PlainUnit(*From) != 0; ++From) {
            *Made++ = static_cast<char>(*From);
        }
        Size = static_cast<size_t>(Made - Path.data());
        At = static_cast<size_t>(From - Served.data());
        const char16_t Unit = At < Served.size() ? Served[At] : u'\\';
        if (Unit == u'\\' && Size == Start) {
            continue; // one separator after another
        }
        if (Unit == u'\\' && !IsForbiddenAtEnd(Path[Size - 1]) && Size - Start <= MaxNameBytes) {
            if (At < Served.size()) {
                Path[Size++] = '/';
            }
            Start = Size;
            continue;
        }
        // A component that is not plain.
        const size_t Begin = At - (Size - Start);
        const size_t Behind = std::min(Served.find(u'\\', At), Served.size());
        const std::optional<std::string> Native = NativeName(Served.substr(Begin, Behind - Begin));
        if (!Native) {
            return std::nullopt;
        }
        Path.resize(Start);
        Path += *Native;
        Size = Path.size();
        Path.resize(Size + (Served.size() - Behind));
        if (Behind < Served.size()) {
            Path[Size++] = '/';
        }
        Start = Size;
        At = Behind;
    }
    if (Size != 0 && Path[Size - 1] == '/') {
        --Size;
    }
    Path.resize(Size);
    return Path;
}

std::u16string Fold(std::u16string_view Name) {
    std::u16string Folded(Name);
    const char16_t *Upcase = text::UpcaseTable();
    for (char16_t &Unit : Folded) {
        Unit = Upcase[Unit];
    }
    return Folded;
}

bool FoldsTo(std::u16string_view Name, std::u16string_view Folded) {
    const char16_t *Upcase = text::UpcaseTable();
    return Name.size() == Folded.size() &&
           std::equal(Name.begin(), Name.end(), Folded.begin(),
                      [Upcase](char16_t Unit, char16_t Wanted) { return Upcase[Unit] == Wanted; });
}

void AppendFolded(std::string_view Native, std::u16string &Out) {
    const size_t Before = Out.size();
    Out.resize(Before + Native.size());
    char16_t *const To = Out.data() + Before;
    const char *const From = Native.data();
    const size_t Size = Native.size();
    int Others = 0; // negative when one was not plain
    for (size_t At = 0; At < Size; ++At) {
        const int Folded = PlainUnit(From[At]);
        Others |= Folded - 1;
        To[At] = static_cast<char16_t>(Folded);
    }
    if (Others < 0 || Native.empty() || IsForbiddenAtEnd(Native.back())) {
        Out.resize(Before);
        Out += Fold(ServedName(Native));
    }
}

uint32_t HashOfFolded(std::u16string_view Folded) {
    HashState State;
    const char16_t *At = Folded.data();
    for (size_t Left = Folded.size(); Left != 0;) {
        const size_t Count = std::min<size_t>(Left, HashState::Units);
        uint64_t Units = 0;
        memcpy(&Units, At, Count * sizeof(char16_t));
        State.Add(Units);
        At += Count;
        Left -= Count;
    }
    return State.Value();
}

NameFacts FactsOf(std::string_view Native) {
    HashState State;
    uint64_t All = 0;
    const char *At = Native.data();
    size_t Left = Native.size();
    const auto Unit = [&](size_t Which) {
        return uint64_t{FoldedUnits[static_cast<unsigned char>(At[Which])]} << 16 * Which;
    };
    for (; Left >= HashState::Units; Left -= HashState::Units, At += HashState::Units) {
        const uint64_t Units = Unit(0) | Unit(1) | Unit(2) | Unit(3);
        All |= Units;
        State.Add(Units);
    }
    if (Left != 0) {
        const uint64_t Units = Unit(0) | (Left > 1 ? Unit(1) : 0) | (Left > 2 ? Unit(2) : 0);
        All |= Units;
        State.Add(Units);
    }
    const bool OnlyPlain = (All & uint64_t{NotPlain} * 0x0001000100010001u) == 0;
    if (OnlyPlain && !Native.empty() && !IsForbiddenAtEnd(Native.back())) {
        return {State.Value(), true};
    }
    return {HashOfFolded(Fold(ServedName(Native))), false};
}

ShortCode::ShortCode(const char (&Base)[2], const char (&Extension)[3], uint32_t Ending) {
    memcpy(Base_, Base, sizeof Base_);
    memcpy(Extension_, Extension, sizeof Extension_);
    ++Ending;
    for (unsigned char &Byte : Ending_) {
        Byte = static_cast<unsigned char>(Ending);
        Ending >>= 8;
    }
}

// Up to two units, four letters or digits, "~" and a digit before the extension. An editor's copies have a "~" too, and
// are none.
ShortCode ShortCode::Of(std::u16string_view Folded) {
    const size_t Dot = std::min(Folded.find(u'.'), Folded.size());
    const std::u16string_view Stem = Folded.substr(0, Dot);
    if (Stem.size() < 6 || Stem.size() > 8 || Stem[Stem.size() - 2] != u'~' || Stem.back() < u'1' ||
        Stem.back() > u'9') {
        return {};
    }
    uint32_t Ending = Stem.back() - u'1';
    for (size_t Digit = 0; Digit < 4; ++Digit) {
        const size_t Value = EndingDigits.find(Stem[Stem.size() - 3 - Digit]);
        if (Value == EndingDigits.npos) {
            return {};
        }
        Ending = Ending * 36 + static_cast<uint32_t>(Value);
    }
    char Base[2] = {};
    char Extension[3] = {};
    KeepUnits(Stem.substr(0, Stem.size() - 6), Base);
    KeepUnits(Folded.substr(std::min(Dot + 1, Folded.size())), Extension);
    const ShortCode Code(Base, Extension, Ending);
    return Code.Text().View() == Folded ? Code : ShortCode();
}

ShortText ShortCode::Text() const {
    ShortText Short;
    if (empty()) {
        return Short;
    }
    const auto Append = [&Short](char Unit) {
        if (Unit != 0) {
            Short.push_back(static_cast<char16_t>(Unit));
        }
    };
    std::for_each(std::begin(Base_), std::end(Base_), Append);
    // Some 15 million endings: of 100,000 names that begin alike a few hundred share theirs.
    uint32_t Rest = Ending();
    for (int Digit = 0; Digit < 4; ++Digit) {
        Short.push_back(EndingDigits[Rest % 36]);
        Rest /= 36;
    }
    Short.push_back(u'~');
    Short.push_back(static_cast<char16_t>(u'1' + Rest));
    if (Extension_[0] != 0) {
        Short.push_back(u'.');
        std::for_each(std::begin(Extension_), std::end(Extension_), Append);
    }
    return Short;
}

ShortCode ShortCodeOf(std::string_view Native, uint32_t Hash, bool IsPlain) {
    return IsPlain ? ShortOf(Native, Hash) : ShortOf(std::u16string_view(ServedName(Native)), Hash);
}

ShortText ShortName(std::string_view Native) {
    const NameFacts Facts = FactsOf(Native);
    return ShortCodeOf(Native, Facts.Hash, Facts.IsPlain).Text();
}

bool HasWildcards(std::u16string_view Mask) {
    constexpr char16_t Wildcards[] = {u'*', u'?', MaskStar, MaskQuestion, MaskDot};
    return Mask.find_first_of(std::u16string_view(Wildcards, std::size(Wildcards))) != std::u16string_view::npos;
}

bool MatchesEverything(std::u16string_view Mask) {
    return Mask.empty() || Mask == u"*" || Mask == u"*.*";
}

// A set of mask positions is carried along the name, so that the time is bounded by mask times name, whatever the
// number of stars.
bool MatchesMask(std::u16string_view Mask, std::u16string_view Name) {
    if (MatchesEverything(Mask)) {
        return true;
    }
    // The platform's "<" takes anything but the last full stop.
    const size_t LastDot = Name.rfind(u'.');
    std::vector<char> Now(Mask.size() + 1);
    std::vector<char> Next(Mask.size() + 1);
    // Positions that are reached without taking a unit of the name.
    const auto Skip = [&](std::vector<char> &Set, bool AtEnd, bool AtDot) {
        for (size_t At = 0; At < Mask.size(); ++At) {
            const bool Free = Mask[At] == u'*' || Mask[At] == MaskStar ||
                              (Mask[At] == MaskQuestion && (AtEnd || AtDot)) || (Mask[At] == MaskDot && AtEnd);
            if (Set[At] != 0 && Free) {
                Set[At + 1] = 1;
            }
        }
    };
    Now[0] = 1;
    for (size_t Position = 0; Position < Name.size(); ++Position) {
        const char16_t Unit = Name[Position];
        const bool IsDot = Unit == u'.';
        Skip(Now, false, IsDot);
        std::fill(Next.begin(), Next.end(), 0);
        for (size_t At = 0; At < Mask.size(); ++At) {
            if (Now[At] == 0) {
                continue;
            }
            const char16_t Wanted = Mask[At];
            if (Wanted == u'*' || (Wanted == MaskStar && Position != LastDot)) {
                Next[At] = 1;
            } else if (Wanted == u'?' || (Wanted == MaskQuestion && !IsDot) || (Wanted == MaskDot && IsDot) ||
                       Wanted == Unit) {
                Next[At + 1] = 1;
            }
        }
        Now.swap(Next);
    }
    Skip(Now, true, false);
    return Now[Mask.size()] != 0;
}

} // namespace providers::directory
