#include "embedded/image/format_reader.h"

#include <cctype>

namespace embedded {
namespace {

constexpr size_t MostNames = 4096; // a driver has a few hundred: more is made to keep the loader busy
constexpr size_t FunctionEntryBytes = 12;

} // namespace

void ImageReader::ReadExports() {
    const ImageRange &Table = Directories_[Exports];
    if (!Table.Present()) {
        return;
    }
    const auto Offset = OffsetOf(Table.Rva, 40);
    if (!Offset) {
        Refuse("its table of exports is not in the image");
        return;
    }
    const auto Functions = Field<uint32_t>(*Offset + 20), Names = Field<uint32_t>(*Offset + 24);
    const auto AddressRva = Field<uint32_t>(*Offset + 28), NameRva = Field<uint32_t>(*Offset + 32);
    const auto OrdinalRva = Field<uint32_t>(*Offset + 36);
    if (Names > MostNames) {
        Refuse("it has {} exports; up to {} can be", Names, MostNames);
        return;
    }
    for (uint32_t Index = 0; Index < Names; ++Index) {
        const auto Name = AtRva<uint32_t>(NameRva + 4 * static_cast<uint64_t>(Index));
        const auto Ordinal = AtRva<uint16_t>(OrdinalRva + 2 * static_cast<uint64_t>(Index));
        const auto Text = Name ? TextAtRva(*Name) : std::nullopt;
        const uint32_t Number = Ordinal ? *Ordinal : UINT32_MAX;
        const auto Rva = AtRva<uint32_t>(AddressRva + 4 * uint64_t{Number});
        if (!Text || !IsName(*Text) || Number >= Functions || !Rva || SectionOf(*Rva, 1) == nullptr) {
            Refuse("its table of exports is damaged at entry {}", Index);
            return;
        }
        if (*Rva >= Table.Rva && *Rva - Table.Rva < Table.Size) {
            Refuse("it forwards {} to another module", *Text);
            return;
        }
        Format_.Exports.push_back({*Text, *Rva});
    }
}

void ImageReader::ReadImports() {
    const ImageRange &Table = Directories_[Imports];
    if (!Table.Present()) {
        return;
    }
    size_t Modules = 0;
    for (uint64_t At = Table.Rva;; At += 20) {
        const auto Names = AtRva<uint32_t>(At), NameRva = AtRva<uint32_t>(At + 12), Slots = AtRva<uint32_t>(At + 16);
        if (!Names || !NameRva || !Slots) {
            Refuse("its table of imports is not in the image");
            return;
        }
        if (*NameRva == 0) {
            CheckSlots();
            return;
        }
        auto Module = TextAtRva(*NameRva);
        if (!Module || !IsName(*Module)) {
            Refuse("the name of a module it imports from is {}",
                   Module ? "none: " + Printable(*Module) : "not in the image");
            return;
        }
        if (++Modules > MostNames) {
            Refuse("it imports from more than {} modules", MostNames);
            return;
        }
        std::transform(Module->begin(), Module->end(), Module->begin(),
                       [](unsigned char Each) { return static_cast<char>(tolower(Each)); });
        if (!ReadImportsOf(*Module, *Names != 0 ? *Names : *Slots, *Slots)) {
            return;
        }
    }
}

bool ImageReader::ReadImportsOf(const std::string &Module, uint32_t Names, uint32_t Slots) {
    for (uint64_t Index = 0;; ++Index) {
        const auto Name = AtRva<uint64_t>(Names + 8 * Index);
        const uint64_t Slot = Slots + 8 * Index;
        if (!Name) {
            return Refuse("its imports from {} are not in the image", Module);
        }
        if (*Name == 0) {
            return true;
        }
        if (*Name >> 63) {
            return Refuse("it imports number {} from {}; only names are resolved", *Name & 0xFFFF, Module);
        }
        const auto Text = *Name <= UINT32_MAX ? TextAtRva(*Name + 2) : std::nullopt;
        const ImageSection *Section = SectionOf(Slot, 8);
        if (!Text || Section == nullptr) {
            return Refuse("its import {} from {} is not in the image", Index, Module);
        }
        if (!IsName(*Text)) {
            return Refuse("the name of its import {} from {} is none: {}", Index, Module, Printable(*Text));
        }
        if (Section->Executable) {
            return Refuse("the address of {} would be written into its code", *Text);
        }
        if (Format_.Imports.size() >= MostNames) {
            return Refuse("it has more than {} imports", MostNames);
        }
        Format_.Imports.push_back({Module, *Text, static_cast<uint32_t>(Slot)});
    }
}

// Each import has eight bytes of its own: the loader writes there.
void ImageReader::CheckSlots() {
    std::vector<uint32_t> Slots;
    for (const ImageImport &Each : Format_.Imports) {
        Slots.push_back(Each.SlotRva);
    }
    std::sort(Slots.begin(), Slots.end());
    const auto Shared =
        std::adjacent_find(Slots.begin(), Slots.end(), [](uint32_t Left, uint32_t Right) { return Right - Left < 8; });
    if (Shared != Slots.end()) {
        Refuse("two of its imports share the address 0x{:X}", *Shared);
    }
}

void ImageReader::ReadRelocations() {
    const ImageRange &Table = Directories_[Relocations];
    if (Fixed_ || Table.Size == 0) {
        Refuse("it cannot be moved: it has no relocations");
        return;
    }
    uint64_t At = Table.Rva;
    const uint64_t End = At + Table.Size;
    while (At < End) {
        const auto Page = AtRva<uint32_t>(At), Bytes = AtRva<uint32_t>(At + 4);
        const auto Offset = OffsetOf(At, Bytes.value_or(0));
        if (!Page || !Bytes || *Bytes < 8 || *Bytes % 2 != 0 || *Bytes > End - At || !Offset) {
            Refuse("its relocations are damaged at 0x{:X}", At);
            return;
        }
        if (!ReadRelocationBlock(*Page, *Offset + 8, (*Bytes - 8) / 2)) {
            return;
        }
        At += *Bytes;
    }
}

bool ImageReader::ReadRelocationBlock(uint32_t Page, uint64_t Offset, uint32_t Count) {
    constexpr unsigned Absolute = 0, Dir64 = 10;
    // A block's places mostly lie in one section, and there may be millions of them.
    const ImageSection *Section = SectionOf(Page, 1);
    for (uint32_t Index = 0; Index < Count; ++Index) {
        uint16_t Entry;
        memcpy(&Entry, &File_[Offset + 2 * uint64_t{Index}], sizeof(Entry));
        const unsigned Kind = Entry >> 12;
        const uint64_t Rva = Page + uint64_t{Entry & 0xFFFu};
        if (Kind == Absolute) {
            continue;
        }
        if (Kind != Dir64) {
            return Refuse("it has a relocation of kind {}, which x64 does not know", Kind);
        }
        if ((Section == nullptr || !LiesIn(*Section, Rva, 8)) && SectionOf(Rva, 8) == nullptr) {
            return Refuse("its relocation of 0x{:X} lies outside its sections", Rva);
        }
        Format_.Relocations.push_back(static_cast<uint32_t>(Rva));
    }
    return true;
}

void ImageReader::ReadUnwindTable() {
    const ImageRange &Table = Directories_[Exceptions];
    if (!Table.Present()) {
        return;
    }
    const auto Offset = OffsetOf(Table.Rva, Table.Size);
    if (!Offset || Table.Rva % 4 != 0 || Table.Size % FunctionEntryBytes != 0) {
        Refuse("its unwind table is not in the image");
        return;
    }
    // Read for as long as the image is loaded.
    if (const ImageSection *Section = SectionOf(Table.Rva, 1); !Section->Readable || Section->Discardable) {
        Refuse("its unwind table lies in section {}, which is not kept readable", Section->Name);
        return;
    }
    uint32_t Last = 0;
    for (uint32_t At = 0; At < Table.Size; At += FunctionEntryBytes) {
        const auto Begin = Field<uint32_t>(*Offset + At), End = Field<uint32_t>(*Offset + At + 4);
        const auto Info = Field<uint32_t>(*Offset + At + 8);
        const ImageSection *Code = SectionOf(Begin, 1);
        if (Begin < Last || End <= Begin || Code == nullptr || !Code->Executable || !SectionOf(Begin, End - Begin) ||
            Info % 4 != 0 || !OffsetOf(Info, 4)) {
            Refuse("its unwind table is damaged at entry {}", At / FunctionEntryBytes);
            return;
        }
        Last = End;
    }
    Format_.UnwindRva = Table.Rva;
    Format_.UnwindBytes = Table.Size;
}

void ImageReader::ReadDebugDirectory() {
    constexpr uint32_t EntryBytes = 28, CodeView = 2, Rsds = 0x53445352;
    const ImageRange &Table = Directories_[Debug];
    for (uint64_t At = 0; At + EntryBytes <= Table.Size && At < 16 * EntryBytes; At += EntryBytes) {
        const auto Kind = AtRva<uint32_t>(Table.Rva + At + 12), Rva = AtRva<uint32_t>(Table.Rva + At + 20);
        if (!Kind || !Rva || *Kind != CodeView || AtRva<uint32_t>(*Rva) != std::optional<uint32_t>(Rsds)) {
            continue;
        }
        const auto Guid = AtRva<std::array<uint8_t, 16>>(*Rva + uint64_t{4});
        const auto Age = AtRva<uint32_t>(*Rva + uint64_t{20});
        const auto Name = TextAtRva(*Rva + uint64_t{24});
        const auto Control = [](char Each) { return static_cast<unsigned char>(Each) < ' ' || Each == 0x7F; };
        if (Name && std::any_of(Name->begin(), Name->end(), Control)) {
            Refuse("the name of its debug information is none: {}", Printable(*Name));
        } else if (Guid && Age && Name) {
            Format_.Pdb = {*Guid, *Age};
            Format_.PdbName = *Name;
        }
        return;
    }
}

// What it asks of its loader, each of which would be missed only when it matters.
void ImageReader::ReadLoadConfiguration() {
    constexpr struct {
        uint32_t Offset;
        uint32_t Bytes;
        const char *Reason;
    } Wishes[] = {{0x58, 8, "it has a security cookie, which this kernel does not set"},
                  {0x90, 4, "it has guard flags, which this kernel does not honour"},
                  {0xC0, 8, "it has dynamic relocations, which this kernel does not carry out"},
                  {0xE0, 4, "it has dynamic relocations, which this kernel does not carry out"}};
    const ImageRange &Table = Directories_[LoadConfig];
    if (!Table.Present()) {
        return;
    }
    // As long as it says itself; what it does not have is zero.
    const auto Bytes = AtRva<uint32_t>(Table.Rva);
    if (!Bytes || !OffsetOf(Table.Rva, *Bytes)) {
        Refuse("its load configuration is not in the image");
        return;
    }
    for (const auto &Each : Wishes) {
        const bool Has = Each.Offset + Each.Bytes <= *Bytes;
        const auto Low = Has ? AtRva<uint32_t>(Table.Rva + uint64_t{Each.Offset}) : std::nullopt;
        const auto High = Has ? AtRva<uint32_t>(Table.Rva + uint64_t{Each.Offset} + Each.Bytes - 4) : std::nullopt;
        if (Low.value_or(0) != 0 || High.value_or(0) != 0) {
            Refuse("{}", Each.Reason);
        }
    }
}

} // namespace embedded
