// The reader of driver images, with a small image: what is damaged, hostile or not for this kernel is refused with its
// reason.

#include <cstring>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>

#include "embedded/image/format.h"
#include "tests/support/small_image.h"

namespace {

using namespace embedded;
using namespace test;
using namespace test::small_image;

using File = std::vector<uint8_t>;

void Put(File &Bytes, size_t Offset, uint64_t Value, size_t Width) {
    ASSERT_LE(Offset + Width, Bytes.size());
    memcpy(Bytes.data() + Offset, &Value, Width);
}

std::string Reasons(const File &Bytes) {
    ImageFormat Format;
    return fmt::format("{}", fmt::join(ReadImageFormat(Bytes, &Format), "\n"));
}

struct Damage {
    const char *Reason; // all that is said
    std::vector<Patch> Patches;
};

constexpr uint32_t Characteristics = Pe + 22, ImageSize = Optional + 56, HeaderSize = Optional + 60;

constexpr uint32_t LoadConfigRva = Variables + 0x40, LoadConfig = 0xC00 + 0x40; // nothing else lies there
constexpr Patch LoadConfigAt = {Directory(10), LoadConfigRva | uint64_t{0x108} << 32, 8};

const Damage Damages[] = {
    {"not a Windows image: it does not begin with MZ", {{0, 'Z', 1}}},
    {"not a Windows image: there is no PE header where the file says", {{0x3C, 0xFFFFFFFC}}},
    {"not a Windows image: there is no PE header where the file says", {{0x3C, Pe + 2}}},
    {"not a Windows image: there is no PE header where the file says", {{Pe, 0x4550, 1}, {Pe + 1, 0, 1}}},
    {"an image for 32-bit x86 machines, not for x64", {{Pe + 4, 0x14C, 2}}},
    {"an image for ARM64 machines, not for x64", {{Pe + 4, 0xAA64, 2}}},
    {"an image for machines of kind 0x1234, not for x64", {{Pe + 4, 0x1234, 2}}},
    {"not a 64-bit image (PE32+)", {{Optional, 0x10B, 2}}},
    {"not a 64-bit image (PE32+)", {{Pe + 20, 96, 2}}},
    {"a DLL, not a driver", {{Characteristics, 0x2022, 2}}},
    {"not executable: the linker has not finished it", {{Characteristics, 0x20, 2}}},
    {"a program with windows (subsystem 2), not a driver (subsystem 1)", {{Optional + 68, 2, 2}}},
    {"a console program (subsystem 3), not a driver (subsystem 1)", {{Optional + 68, 3, 2}}},
    {"an EFI image (subsystem 11), not a driver (subsystem 1)", {{Optional + 68, 11, 2}}},
    {"compiled for control flow guard, which this kernel does not provide", {{Optional + 70, 0x4000, 2}}},
    {"its sections are aligned to 64 bytes, not to pages of 4096", {{Optional + 32, 64}}},
    {"its alignment in the file is 0 bytes, which is none", {{Optional + 36, 0}}},
    {"its alignment in the file is 768 bytes, which is none", {{Optional + 36, 768}}},
    {"its size in memory, 32769 bytes, is not a number of pages up to 64 MiB", {{ImageSize, End + 1}}},
    {"its size in memory, 4294963200 bytes, is not a number of pages up to 64 MiB", {{ImageSize, 0xFFFFF000}}},
    {"its base address 0x140001000 is not a multiple of 64 KiB", {{Optional + 24, PreferredBase + 4096, 8}}},
    {"its headers are 4294967295 bytes long, which cannot be", {{HeaderSize, 0xFFFFFFFF}}},
    {"its headers are 512 bytes long, which cannot be", {{HeaderSize, 512}}},
    {"it claims 17 data directories, which do not fit", {{Optional + 108, 17}}},
    {"it claims 4294967295 data directories, which do not fit", {{Optional + 108, 0xFFFFFFFF}}},
    {"it has thread-local storage, which a driver cannot have", {{Directory(9) + 4, 40}}},
    {"it has thread-local storage, which a driver cannot have", {{Directory(9), Constants}}},
    {"it has delayed imports, which a kernel does not resolve", {{Directory(13), Constants}, {Directory(13) + 4, 32}}},
    {"it holds managed code", {{Directory(14), Constants}, {Directory(14) + 4, 72}}},
    {"its load configuration is not in the image", {{Directory(10), End - 2}, {Directory(10) + 4, 320}}},
    {"its load configuration is not in the image", {{LoadConfig, 0x1000}, LoadConfigAt}},
    {"it has a security cookie, which this kernel does not set",
     {{LoadConfig, 0x108}, LoadConfigAt, {LoadConfig + 0x5C, 1}}},
    {"it has guard flags, which this kernel does not honour",
     {{LoadConfig, 0x94}, LoadConfigAt, {LoadConfig + 0x90, 0x100}}},
    {"it has dynamic relocations, which this kernel does not carry out",
     {{LoadConfig, 0x108}, LoadConfigAt, {LoadConfig + 0xC0, 1}}},
    {"it has dynamic relocations, which this kernel does not carry out",
     {{LoadConfig, 0x108}, LoadConfigAt, {LoadConfig + 0xE0, 1}}},
    {"", {{LoadConfig, 0x90}, LoadConfigAt, {LoadConfig + 0x90, 0x100}}}, // behind its end

    {"it has 0 sections; 1 to 96 can be", {{Pe + 6, 0, 2}}},
    {"its headers are 1024 bytes long, which cannot be", {{Pe + 6, 0xFFFF, 2}}},
    {"section .rdata at 0x1000 overlaps what lies before it", {{Section(1) + VirtualAddress, Code}}},
    {"section .text at 0x0 overlaps what lies before it", {{Section(0) + VirtualAddress, 0}}},
    {"section .rdata at 0x2000 overlaps what lies before it", {{Section(0) + VirtualSize, 0x1001}}},
    {"section .reloc at 0xFFFFF000 leaves a hole behind what lies before it",
     {{Section(5) + VirtualAddress, 0xFFFFF000}}},
    {"section .reloc at 0x7800 overlaps what lies before it", {{Section(5) + VirtualAddress, 0x7800}}},
    {"section .reloc at 0x7000 with 4294967295 bytes reaches past the image's end",
     {{Section(5) + VirtualSize, 0xFFFFFFFF}}},
    {"section .reloc at 0x7000 with 0 bytes reaches past the image's end",
     {{Section(5) + VirtualSize, 0}, {Section(5) + RawSize, 0}}},
    {"section .reloc: its 512 bytes at 5120 are not in the file", {{Section(5) + RawOffset, 0x1400}}},
    {"section .reloc: its 512 bytes at 4294966784 are not in the file", {{Section(5) + RawOffset, 0xFFFFFE00}}},
    {"section .reloc: its 4294966784 bytes at 4608 are not in the file", {{Section(5) + RawSize, 0xFFFFFE00}}},
    {"section .reloc: its 512 bytes at 0 are not in the file", {{Section(5) + RawOffset, 0}}},
    {"section .reloc at 4352 in the file is not aligned to 512 bytes", {{Section(5) + RawOffset, 0x1100}}},
    {"section .text is writable and executable", {{Section(0) + Flags, 0xE0000000}}},
    {"section ?[2J is writable and executable",
     {{Section(0), 0x4A325B1B}, {Section(0) + 4, 0}, {Section(0) + Flags, 0xE0000000}}},
    {"its entry point 0x0 lies in no section of code", {{Optional + 16, 0}}},
    {"its entry point 0x2000 lies in no section of code", {{Optional + 16, Constants}}},
    {"its entry point 0xFFFFFFFF lies in no section of code", {{Optional + 16, 0xFFFFFFFF}}},

    {"its table of exports is not in the image", {{Directory(0), 0xFFFFFFF0}}},
    {"its table of exports is not in the image", {{Directory(0), End - 8}, {Directory(0) + 4, 0}}},
    {"it has 4294967295 exports; up to 4096 can be", {{FileOffset(ExportTable) + 24, 0xFFFFFFFF}}},
    {"its table of exports is damaged at entry 0", {{FileOffset(ExportTable) + 28, 0xFFFFFFFC}}},
    {"its table of exports is damaged at entry 0", {{FileOffset(ExportTable) + 32, 0xFFFFFFFC}}},
    {"its table of exports is damaged at entry 0", {{FileOffset(ExportTable) + 36, 0xFFFFFFFC}}},
    {"its table of exports is damaged at entry 1", {{FileOffset(ExportOrdinals) + 2, 3, 2}}},
    {"its table of exports is damaged at entry 1", {{FileOffset(ExportAddresses) + 4, End}}},
    {"its table of exports is damaged at entry 1", {{FileOffset(ExportAddresses) + 4, 0x80}}},
    {"its table of exports is damaged at entry 2", {{FileOffset(ExportNames) + 8, 0xFFFFFFFF}}},
    {"its table of exports is damaged at entry 2", {{FileOffset(ExportNames) + 8, Pointer}}},
    {"it forwards Raise to another module", {{FileOffset(ExportAddresses) + 8, ExportTable + 8}}},

    {"its table of imports is not in the image", {{Directory(1), 0xFFFFFFF0}}},
    {"its table of imports is not in the image", {{Directory(1), End - 8}, {Directory(1) + 4, 0}}},
    {"the name of a module it imports from is not in the image", {{FileOffset(ImportTable) + 12, 0xFFFFFFFF}}},
    {"the name of a module it imports from is none: @?@",
     {{FileOffset(ImportTable) + 12, Text}, {FileOffset(Text), 0x400740}}},
    {"its imports from ntoskrnl.exe are not in the image", {{FileOffset(ImportTable), 0xFFFFFFF8}}},
    {"its import 0 from ntoskrnl.exe is not in the image", {{FileOffset(ImportTable) + 16, 0xFFFFFFF8}}},
    {"its import 0 from ntoskrnl.exe is not in the image", {{FileOffset(ImportTable) + 16, 0x200}}},
    {"its import 2 from ntoskrnl.exe is not in the image", {{FileOffset(KernelNames) + 16, 0x100000000 + Text, 8}}},
    {"its import 2 from ntoskrnl.exe is not in the image", {{FileOffset(KernelNames) + 16, End, 8}}},
    {"it imports number 17 from ntoskrnl.exe; only names are resolved",
     {{FileOffset(KernelNames) + 8, 0x8000000000000011, 8}}},
    {"the name of its import 1 from ntoskrnl.exe is none: ?[2J",
     {{FileOffset(KernelNames) + 8, Text - 2, 8}, {FileOffset(Text), 0x4A325B1B}, {FileOffset(Text) + 4, 0}}},
    {"the address of ExRaiseStatus would be written into its code", {{FileOffset(ImportTable) + 16, RaisingFunction}}},
    {"two of its imports share the address 0x2010", {{FileOffset(ImportTable) + 36, KernelSlots + 20}}},

    {"it cannot be moved: it has no relocations", {{Characteristics, 0x23, 2}}},
    {"it has a relocation of kind 3, which x64 does not know", {{FileOffset(Moves) + 8, 0x3000, 2}}},
    {"its relocation of 0x0 lies outside its sections", {{FileOffset(Moves), 0}}},
    {"its relocation of 0xFFFFFFFF lies outside its sections",
     {{FileOffset(Moves), 0xFFFFF000}, {FileOffset(Moves) + 8, 0xAFFF, 2}}},
    {"its relocation of 0x4FFC lies outside its sections", {{FileOffset(Moves), 0x4FFC}}},
    {"its relocations are damaged at 0x7000", {{FileOffset(Moves) + 4, 0}}},
    {"its relocations are damaged at 0x7000", {{FileOffset(Moves) + 4, 11}}},
    {"its relocations are damaged at 0x7000", {{FileOffset(Moves) + 4, 14}}},
    {"its relocations are damaged at 0x7000", {{FileOffset(Moves) + 4, 0xFFFFFFFE}}},
    {"its relocations are damaged at 0x7000", {{Directory(5) + 4, 10}}},
    {"its relocations are damaged at 0xFFFFFFF8", {{Directory(5), 0xFFFFFFF8}}},

    {"its unwind table is not in the image", {{Directory(3), 0xFFFFFFF4}}},
    {"its unwind table is not in the image", {{Directory(3) + 4, 0xFFFFFFFC}}},
    {"its unwind table is not in the image", {{Directory(3) + 4, 30}}},
    {"its unwind table is not in the image", {{Directory(3), Functions + 2}, {Directory(3) + 4, 24}}},
    {"its unwind table lies in section .reloc, which is not kept readable",
     {{Directory(3), Moves}, {Directory(3) + 4, 12}}},
    {"its unwind table lies in section .pdata, which is not kept readable", {{Section(3) + Flags, 0}}},
    {"its unwind table is damaged at entry 0", {{FileOffset(Functions), Constants}}},
    {"its unwind table is damaged at entry 0", {{FileOffset(Functions) + 4, RaisingFunction}}},
    {"its unwind table is damaged at entry 0", {{FileOffset(Functions) + 8, 0xFFFFFFFC}}},
    {"its unwind table is damaged at entry 0", {{FileOffset(Functions) + 8, RaisingUnwind + 2}}},
    {"its unwind table is damaged at entry 1", {{FileOffset(Functions) + 12, RaisingFunction}}},
    {"its unwind table is damaged at entry 2", {{FileOffset(Functions) + 28, 0xFFFFFFFF}}},
    {"the name of its debug information is none: C:\\x\\s?all.pdb", {{FileOffset(DebugEntry) + 30, 0x1B, 1}}},
};

TEST(ImageFormat, WhatIsDamagedIsRefusedWithItsReason) {
    for (const Damage &Each : Damages) {
        EXPECT_EQ(Reasons(Damaged(BuildSmallImage(), Each.Patches)), Each.Reason);
    }
}

TEST(ImageFormat, AHeaderIsAligned) {
    for (const uint32_t Distance : {4u, 2u}) {
        File Bytes = BuildSmallImage();
        memmove(&Bytes[Pe + Distance], &Bytes[Pe], Section(6) - Pe);
        Bytes[0x3C] += static_cast<uint8_t>(Distance);
        SetImageChecksum(Bytes);
        EXPECT_EQ(Reasons(Bytes),
                  Distance == 4 ? "" : "not a Windows image: there is no PE header where the file says");
    }
}

TEST(ImageFormat, TheChecksumMustBeRight) {
    File Bytes = BuildSmallImage();
    uint32_t Right;
    memcpy(&Right, Bytes.data() + Optional + 64, sizeof(Right));
    for (const uint32_t Wrong : {0u, Right + 1}) {
        Put(Bytes, Optional + 64, Wrong, 4);
        EXPECT_EQ(
            Reasons(Bytes),
            fmt::format("its checksum is 0x{:08X} where 0x{:08X} belongs: damaged, or changed after it was linked",
                        Wrong, Right));
    }
    Put(Bytes, Optional + 64, Right, 4);
    EXPECT_EQ(Reasons(Bytes), "");
    for (const size_t At : {size_t{0x20}, Bytes.size() - 1}) {
        File Changed = Bytes;
        Changed[At] ^= 1;
        EXPECT_THAT(Reasons(Changed), testing::StartsWith("its checksum is ")) << At;
    }
    Bytes.push_back(0); // a length of its own
    EXPECT_THAT(Reasons(Bytes), testing::StartsWith("its checksum is "));
}

TEST(ImageFormat, CutShortAnywhereItIsRefused) {
    const File Whole = BuildSmallImage();
    const auto CutTo = [&Whole](size_t Length) {
        File Bytes(Whole.begin(), Whole.begin() + static_cast<ptrdiff_t>(Length));
        SetImageChecksum(Bytes);
        return Reasons(Bytes);
    };
    for (size_t Length = 0; Length < Whole.size(); ++Length) {
        EXPECT_NE(CutTo(Length), "") << Length;
    }
    EXPECT_EQ(CutTo(0), "not a Windows image: it does not begin with MZ");
    EXPECT_EQ(CutTo(0x3F), "not a Windows image: there is no PE header where the file says");
    EXPECT_EQ(CutTo(Optional + 111), "cut short: the file ends in its headers");
    EXPECT_EQ(CutTo(0x3FF), "its headers are 1024 bytes long, which cannot be");
    EXPECT_EQ(CutTo(0x13FF), "section .reloc: its 512 bytes at 4608 are not in the file");
}

TEST(ImageFormat, AHostileFileIsToldOfInAFewLines) {
    File Bytes = BuildSmallImage();
    for (uint32_t Number = 0; Number < 6; ++Number) {
        Put(Bytes, Section(Number) + Flags, 0xE0000000, 4);
    }
    SetImageChecksum(Bytes);
    ImageFormat Format;
    EXPECT_EQ(ReadImageFormat(Bytes, &Format).size(), 6u);

    ImageParts Parts;
    Parts.Exports.clear();
    Bytes = BuildSmallImage(Parts);
    EXPECT_EQ(Reasons(Bytes), "") << "no export is no fault";
}

TEST(ImageFormat, TheGoodImageIsReadWhole) {
    ImageFormat Format;
    ASSERT_THAT(ReadImageFormat(BuildSmallImage(), &Format), testing::IsEmpty());
    EXPECT_EQ(Format.PreferredBase, PreferredBase);
    EXPECT_EQ(Format.ImageSize, End);
    EXPECT_EQ(Format.EntryRva, Start);
    EXPECT_THAT(Format.Relocations, testing::ElementsAre(Pointer));
    ASSERT_EQ(Format.Sections.size(), 6u);
    EXPECT_EQ(Format.Sections[2].Size, 0x2000u);
    EXPECT_EQ(Format.Sections[2].FileBytes, 0x200u);
    std::vector<std::string> Imports;
    for (const ImageImport &Each : Format.Imports) {
        Imports.push_back(fmt::format("{} {} {:x}", Each.Module, Each.Name, Each.SlotRva));
    }
    EXPECT_THAT(Imports,
                testing::ElementsAre("ntoskrnl.exe ExRaiseStatus 2000", "ntoskrnl.exe KeGetCurrentIrql 2008",
                                     "ntoskrnl.exe __C_specific_handler 2010", "zelm.sys ZelmCreateInstance 2080"));
    EXPECT_EQ(Format.PdbName, "C:\\x\\small.pdb");
    EXPECT_EQ(Format.Pdb.Guid[15], 16);
    EXPECT_EQ(Format.Pdb.Age, 1u);
    EXPECT_EQ(Format.UnwindBytes, 36u);
}

} // namespace
