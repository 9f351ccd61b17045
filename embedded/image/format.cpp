#include "embedded/image/format.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <optional>

#include <fmt/format.h>

namespace embedded {
namespace {

constexpr uint32_t PageBytes = 4096;
constexpr uint32_t LargestImage = 64 * 1024 * 1024;
constexpr size_t MostNames = 4096; // a driver has a few hundred: more is made to keep the loader busy
constexpr uint16_t MachineX64 = 0x8664;
constexpr uint16_t SubsystemNative = 1;
constexpr size_t FileHeaderBytes = 24; // with the signature
constexpr size_t OptionalBytes = 112;  // without the directories
constexpr size_t ChecksumField = 64;   // in the optional header
constexpr size_t SectionHeaderBytes = 40;
constexpr size_t FunctionEntryBytes = 12;
constexpr uint16_t RelocationsStripped = 0x0001, ExecutableFile = 0x0002, Dll = 0x2000;
constexpr uint16_t GuardControlFlow = 0x4000;
constexpr uint32_t Executable = 0x20000000, Readable = 0x40000000, Writable = 0x80000000, Discardable = 0x02000000;

enum Directory {
    Exports,
    Imports,
    Resources,
    Exceptions,
    Certificates,
    Relocations,
    Debug,
    Architecture,
    GlobalPointer,
    ThreadLocal,
    LoadConfig,
    BoundImports,
    ImportTable,
    DelayImports,
    ManagedCode,
    Reserved
};

struct Range {
    uint32_t Rva = 0;
    uint32_t Size = 0;

    bool Present() const {
        return Rva != 0 || Size != 0;
    }
};

// What a person may see of a name in the file.
std::string Printable(std::string_view Raw) {
    std::string Text;
    for (const char Each : Raw.substr(0, 64)) {
        Text += Each >= ' ' && Each < 0x7F ? Each : '?';
    }
    return Text;
}

// Names go into lines for people as they are: a terminal must not take them for commands.
bool IsName(std::string_view Text) {
    return !Text.empty() && std::all_of(Text.begin(), Text.end(), [](char Each) { return Each > ' ' && Each < 0x7F; });
}

const char *MachineName(uint16_t Machine) {
    switch (Machine) {
    case 0x014C:
        return "32-bit x86";
    case 0x01C0:
    case 0x01C4:
        return "32-bit ARM";
    case 0xAA64:
        return "ARM64";
    case 0x0200:
        return "Itanium";
    case 0x0EBC:
        return "EFI byte code";
    default:
        return nullptr;
    }
}

const char *SubsystemName(uint16_t Subsystem) {
    switch (Subsystem) {
    case 2:
        return "a program with windows";
    case 3:
        return "a console program";
    case 10:
    case 11:
    case 12:
    case 13:
        return "an EFI image";
    case 16:
        return "a boot application";
    default:
        return "no driver";
    }
}

class Reader {
public:
    Reader(std::span<const uint8_t> File, ImageFormat *Format) : File_(File), Format_(*Format) {
    }

    std::vector<std::string> Read() {
        // Each step stands on what the one before it has checked.
        if (ReadHeaders() && ReadSections()) {
            ReadExports();
            ReadImports();
            ReadRelocations();
            ReadUnwindTable();
            ReadDebugDirectory();
            ReadLoadConfiguration();
        }
        return std::move(Reasons_);
    }

private:
    template <typename... Args>
    bool Refuse(fmt::format_string<Args...> Format, Args &&...Values) {
        // A hostile file has room for millions of faults.
        if (Reasons_.size() < 32) {
            Reasons_.push_back(fmt::format(Format, std::forward<Args>(Values)...));
        }
        return false;
    }

    template <typename T>
    std::optional<T> At(uint64_t Offset) const {
        if (Offset > File_.size() || File_.size() - Offset < sizeof(T)) {
            return std::nullopt;
        }
        T Value;
        memcpy(&Value, File_.data() + Offset, sizeof(T));
        return Value;
    }
    // The field of a record that is known to lie in the file.
    template <typename T>
    T Field(uint64_t Offset) const {
        return At<T>(Offset).value_or(T{});
    }

    bool ReadHeaders();
    bool ReadOptionalHeader(uint64_t Optional, uint16_t OptionalSize);
    bool CheckDirectories();
    bool ReadSections();
    bool ReadSection(uint64_t Header, uint64_t *NextRva);
    void ReadExports();
    void ReadImports();
    bool ReadImportsOf(const std::string &Module, uint32_t Names, uint32_t Slots);
    void CheckSlots();
    void ReadRelocations();
    bool ReadRelocationBlock(uint32_t Page, uint64_t Offset, uint32_t Count);
    void ReadUnwindTable();
    void ReadDebugDirectory();
    void ReadLoadConfiguration();

    static bool LiesIn(const ImageSection &Section, uint64_t Rva, uint64_t Size) {
        return Rva >= Section.Rva && Rva - Section.Rva < Section.Size && Size <= Section.Size - (Rva - Section.Rva);
    }
    const ImageSection *SectionOf(uint64_t Rva, uint64_t Size) const {
        const auto Behind = std::partition_point(Format_.Sections.begin(), Format_.Sections.end(),
                                                 [Rva](const ImageSection &Each) { return Each.Rva <= Rva; });
        if (Behind == Format_.Sections.begin()) {
            return nullptr;
        }
        const ImageSection &Section = *std::prev(Behind);
        return LiesIn(Section, Rva, Size) ? &Section : nullptr;
    }
    // Where Size bytes at Rva stand in the file; nothing when they are not all there.
    std::optional<uint64_t> OffsetOf(uint64_t Rva, uint64_t Size) const {
        const ImageSection *Section = SectionOf(Rva, Size);
        if (Section == nullptr || Rva - Section->Rva > Section->FileBytes ||
            Size > Section->FileBytes - (Rva - Section->Rva)) {
            return std::nullopt;
        }
        return Section->FileOffset + (Rva - Section->Rva);
    }
    template <typename T>
    std::optional<T> AtRva(uint64_t Rva) const {
        const auto Offset = OffsetOf(Rva, sizeof(T));
        return Offset ? At<T>(*Offset) : std::nullopt;
    }
    std::optional<std::string> TextAtRva(uint64_t Rva) const {
        const ImageSection *Section = SectionOf(Rva, 1);
        if (Section == nullptr || Rva - Section->Rva >= Section->FileBytes) {
            return std::nullopt;
        }
        const auto *Begin = reinterpret_cast<const char *>(File_.data()) + Section->FileOffset + (Rva - Section->Rva);
        const size_t Room = std::min<size_t>(Section->FileBytes - (Rva - Section->Rva), 512);
        const size_t Length = strnlen(Begin, Room);
        return Length == Room ? std::nullopt : std::optional(std::string(Begin, Length));
    }

    std::span<const uint8_t> File_;
    ImageFormat &Format_;
    std::vector<std::string> Reasons_;
    uint64_t SectionTable_ = 0;
    uint16_t SectionCount_ = 0;
    uint32_t FileAlignment_ = 0;
    bool Fixed_ = false; // has no relocations
    Range Directories_[16];
};

bool Reader::ReadHeaders() {
    if (File_.size() < 2 || File_[0] != 'M' || File_[1] != 'Z') {
        return Refuse("not a Windows image: it does not begin with MZ");
    }
    const auto Pe = At<uint32_t>(0x3C);
    const uint64_t Header = Pe.value_or(0);
    // Aligned, as the header's checksum counts words.
    if (!Pe || Header % 4 != 0 || At<uint32_t>(Header) != std::optional<uint32_t>(0x00004550)) {
        return Refuse("not a Windows image: there is no PE header where the file says");
    }
    if (!At<uint8_t>(Header + FileHeaderBytes + OptionalBytes - 1)) {
        return Refuse("cut short: the file ends in its headers");
    }
    const auto Machine = Field<uint16_t>(Header + 4);
    if (Machine != MachineX64) {
        const char *Name = MachineName(Machine);
        return Name != nullptr ? Refuse("an image for {} machines, not for x64", Name)
                               : Refuse("an image for machines of kind 0x{:X}, not for x64", Machine);
    }
    SectionCount_ = Field<uint16_t>(Header + 6);
    const auto OptionalSize = Field<uint16_t>(Header + 20);
    const auto Characteristics = Field<uint16_t>(Header + 22);
    if (Characteristics & Dll) {
        return Refuse("a DLL, not a driver");
    }
    if (!(Characteristics & ExecutableFile)) {
        Refuse("not executable: the linker has not finished it");
    }
    Fixed_ = (Characteristics & RelocationsStripped) != 0;
    SectionTable_ = Header + FileHeaderBytes + OptionalSize;
    return ReadOptionalHeader(Header + FileHeaderBytes, OptionalSize) && Reasons_.empty();
}

bool Reader::ReadOptionalHeader(uint64_t Optional, uint16_t OptionalSize) {
    if (OptionalSize < OptionalBytes || Field<uint16_t>(Optional) != 0x20B) {
        return Refuse("not a 64-bit image (PE32+)");
    }
    Format_.EntryRva = Field<uint32_t>(Optional + 16);
    Format_.PreferredBase = Field<uint64_t>(Optional + 24);
    const auto SectionAlignment = Field<uint32_t>(Optional + 32);
    const auto FileAlignment = FileAlignment_ = Field<uint32_t>(Optional + 36);
    Format_.ImageSize = Field<uint32_t>(Optional + 56);
    Format_.HeaderSize = Field<uint32_t>(Optional + 60);
    Format_.Checksum = Field<uint32_t>(Optional + ChecksumField);
    const auto Subsystem = Field<uint16_t>(Optional + 68);
    if (Subsystem != SubsystemNative) {
        return Refuse("{} (subsystem {}), not a driver (subsystem 1)", SubsystemName(Subsystem), Subsystem);
    }
    if (Field<uint16_t>(Optional + 70) & GuardControlFlow) {
        Refuse("compiled for control flow guard, which this kernel does not provide");
    }
    if (SectionAlignment != PageBytes) {
        Refuse("its sections are aligned to {} bytes, not to pages of {}", SectionAlignment, PageBytes);
    }
    if (FileAlignment < 512 || FileAlignment > 65536 || (FileAlignment & (FileAlignment - 1)) != 0) {
        Refuse("its alignment in the file is {} bytes, which is none", FileAlignment);
    }
    if (Format_.ImageSize == 0 || Format_.ImageSize % PageBytes != 0 || Format_.ImageSize > LargestImage) {
        Refuse("its size in memory, {} bytes, is not a number of pages up to {} MiB", Format_.ImageSize,
               LargestImage >> 20);
    }
    if (Format_.PreferredBase % 65536 != 0) {
        Refuse("its base address 0x{:X} is not a multiple of 64 KiB", Format_.PreferredBase);
    }
    if (Format_.HeaderSize > File_.size() || Format_.HeaderSize > Format_.ImageSize ||
        SectionTable_ + SectionCount_ * SectionHeaderBytes > Format_.HeaderSize) {
        Refuse("its headers are {} bytes long, which cannot be", Format_.HeaderSize);
    }
    if (const uint32_t Right = ImageChecksum(File_, Optional + ChecksumField);
        Reasons_.empty() && Right != Format_.Checksum) {
        Refuse("its checksum is 0x{:08X} where 0x{:08X} belongs: damaged, or changed after it was linked",
               Format_.Checksum, Right);
    }
    const auto Count = Field<uint32_t>(Optional + 108);
    if (Count > 16 || OptionalBytes + 8 * static_cast<uint64_t>(Count) > OptionalSize) {
        return Refuse("it claims {} data directories, which do not fit", Count);
    }
    for (uint32_t Index = 0; Index < Count; ++Index) {
        const uint64_t Entry = Optional + OptionalBytes + 8 * Index;
        Directories_[Index] = {Field<uint32_t>(Entry), Field<uint32_t>(Entry + 4)};
    }
    return CheckDirectories();
}

bool Reader::CheckDirectories() {
    constexpr struct {
        Directory Which;
        const char *Reason;
    } Unknown[] = {{ThreadLocal, "it has thread-local storage, which a driver cannot have"},
                   {DelayImports, "it has delayed imports, which a kernel does not resolve"},
                   {ManagedCode, "it holds managed code"}};
    for (const auto &Each : Unknown) {
        if (Directories_[Each.Which].Present()) {
            Refuse("{}", Each.Reason);
        }
    }
    return true;
}

bool Reader::ReadSections() {
    if (SectionCount_ == 0 || SectionCount_ > 96) {
        return Refuse("it has {} sections; 1 to 96 can be", SectionCount_);
    }
    uint64_t NextRva = (static_cast<uint64_t>(Format_.HeaderSize) + PageBytes - 1) / PageBytes * PageBytes;
    for (uint16_t Index = 0; Index < SectionCount_; ++Index) {
        if (!ReadSection(SectionTable_ + Index * SectionHeaderBytes, &NextRva)) {
            break;
        }
    }
    if (!Reasons_.empty()) {
        return false;
    }
    const ImageSection *Entry = SectionOf(Format_.EntryRva, 1);
    if (Entry == nullptr || !Entry->Executable) {
        return Refuse("its entry point 0x{:X} lies in no section of code", Format_.EntryRva);
    }
    return true;
}

bool Reader::ReadSection(uint64_t Header, uint64_t *NextRva) {
    const auto *Raw = reinterpret_cast<const char *>(File_.data()) + Header;
    ImageSection Section;
    Section.Name = Printable({Raw, strnlen(Raw, 8)});
    const auto Virtual = Field<uint32_t>(Header + 8);
    Section.Rva = Field<uint32_t>(Header + 12);
    const auto RawBytes = Field<uint32_t>(Header + 16);
    Section.FileOffset = Field<uint32_t>(Header + 20);
    const auto Flags = Field<uint32_t>(Header + 36);
    const uint64_t Bytes = Virtual != 0 ? Virtual : RawBytes;
    const uint64_t Size = (Bytes + PageBytes - 1) / PageBytes * PageBytes;
    if (Section.Rva % PageBytes != 0 || Section.Rva < *NextRva) {
        return Refuse("section {} at 0x{:X} overlaps what lies before it", Section.Name, Section.Rva);
    }
    if (Section.Rva != *NextRva) {
        return Refuse("section {} at 0x{:X} leaves a hole behind what lies before it", Section.Name, Section.Rva);
    }
    if (Size == 0 || Section.Rva + Size > Format_.ImageSize) {
        return Refuse("section {} at 0x{:X} with {} bytes reaches past the image's end", Section.Name, Section.Rva,
                      Bytes);
    }
    if (RawBytes != 0 && (Section.FileOffset < Format_.HeaderSize || Section.FileOffset > File_.size() ||
                          RawBytes > File_.size() - Section.FileOffset)) {
        return Refuse("section {}: its {} bytes at {} are not in the file", Section.Name, RawBytes, Section.FileOffset);
    }
    // Where it is not, systems differ in what they load.
    if (RawBytes != 0 && Section.FileOffset % FileAlignment_ != 0) {
        return Refuse("section {} at {} in the file is not aligned to {} bytes", Section.Name, Section.FileOffset,
                      FileAlignment_);
    }
    Section.FileOffset = RawBytes != 0 ? Section.FileOffset : 0;
    Section.Size = static_cast<uint32_t>(Size);
    Section.FileBytes = static_cast<uint32_t>(std::min<uint64_t>(RawBytes, Bytes));
    Section.Executable = (Flags & Executable) != 0;
    Section.Writable = (Flags & Writable) != 0;
    Section.Readable = (Flags & Readable) != 0;
    Section.Discardable = (Flags & Discardable) != 0;
    *NextRva = Section.Rva + Size;
    if (Section.Executable && Section.Writable) {
        Refuse("section {} is writable and executable", Section.Name);
    }
    Format_.Sections.push_back(std::move(Section));
    return true;
}

void Reader::ReadExports() {
    const Range &Table = Directories_[Exports];
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

void Reader::ReadImports() {
    const Range &Table = Directories_[Imports];
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

bool Reader::ReadImportsOf(const std::string &Module, uint32_t Names, uint32_t Slots) {
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
void Reader::CheckSlots() {
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

void Reader::ReadRelocations() {
    const Range &Table = Directories_[Relocations];
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

bool Reader::ReadRelocationBlock(uint32_t Page, uint64_t Offset, uint32_t Count) {
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

void Reader::ReadUnwindTable() {
    const Range &Table = Directories_[Exceptions];
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

void Reader::ReadDebugDirectory() {
    constexpr uint32_t EntryBytes = 28, CodeView = 2, Rsds = 0x53445352;
    const Range &Table = Directories_[Debug];
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
void Reader::ReadLoadConfiguration() {
    constexpr struct {
        uint32_t Offset;
        uint32_t Bytes;
        const char *Reason;
    } Wishes[] = {{0x58, 8, "it has a security cookie, which this kernel does not set"},
                  {0x90, 4, "it has guard flags, which this kernel does not honour"},
                  {0xC0, 8, "it has dynamic relocations, which this kernel does not carry out"},
                  {0xE0, 4, "it has dynamic relocations, which this kernel does not carry out"}};
    const Range &Table = Directories_[LoadConfig];
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

} // namespace

uint32_t ImageChecksum(std::span<const uint8_t> File, size_t FieldOffset) {
    uint64_t Sum = 0;
    for (size_t At = 0; At < File.size(); At += 2) {
        if (At == FieldOffset || At == FieldOffset + 2) {
            continue;
        }
        Sum += File[At] | (At + 1 < File.size() ? File[At + 1] << 8 : 0);
        Sum = (Sum & 0xFFFF) + (Sum >> 16);
    }
    return static_cast<uint32_t>(Sum + File.size());
}

std::vector<std::string> ReadImageFormat(std::span<const uint8_t> File, ImageFormat *Format) {
    *Format = {};
    return Reader(File, Format).Read();
}

} // namespace embedded
