#include "embedded/image/format_reader.h"

namespace embedded {
namespace {

constexpr uint32_t PageBytes = 4096;
constexpr uint32_t LargestImage = 64 * 1024 * 1024;
constexpr uint16_t MachineX64 = 0x8664;
constexpr uint16_t SubsystemNative = 1;
constexpr size_t FileHeaderBytes = 24; // with the signature
constexpr size_t OptionalBytes = 112;  // without the directories
constexpr size_t ChecksumField = 64;   // in the optional header
constexpr size_t SectionHeaderBytes = 40;
constexpr uint16_t RelocationsStripped = 0x0001, ExecutableFile = 0x0002, Dll = 0x2000;
constexpr uint16_t GuardControlFlow = 0x4000;
constexpr uint32_t Executable = 0x20000000, Readable = 0x40000000, Writable = 0x80000000, Discardable = 0x02000000;

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

} // namespace

bool ImageReader::ReadHeaders() {
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

bool ImageReader::ReadOptionalHeader(uint64_t Optional, uint16_t OptionalSize) {
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

bool ImageReader::CheckDirectories() {
    constexpr struct {
        ImageDirectory Which;
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

bool ImageReader::ReadSections() {
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

bool ImageReader::ReadSection(uint64_t Header, uint64_t *NextRva) {
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
    return ImageReader(File, Format).Read();
}

} // namespace embedded
