// The reader and the loader of driver images, with a small image built here: what is damaged, hostile or not for this
// kernel is refused with its reason, and never obeyed.

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "embedded/image/driver_image.h"
#include "embedded/image/layouts.h"
#include "embedded/image/symbols.h"
#include "embedded/image/unwind.h"
#include "embedded/ke.h"
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

// What DriverImage is handed when no test says otherwise.
NTSTATUS NTAPI CreateInstance() {
    return STATUS_SUCCESS;
}
ImageOptions Options() {
    ImageOptions Result;
    Result.Modules = {{"zelm.sys", "ZelmCreateInstance", reinterpret_cast<void *>(CreateInstance), 0}};
    return Result;
}

std::unique_ptr<DriverImage> Load(const File &Bytes, ImageOptions How = Options()) {
    return std::make_unique<DriverImage>("/no/such/folder/small.sys", Bytes, How);
}

template <typename Loading>
std::string Refusal(Loading Load) {
    try {
        Load();
    } catch (const ImageError &Refused) {
        return Refused.what();
    }
    return "loaded";
}

// ---- What the reader refuses -----------------------------------------------------------------------------------

// Fields are named by file offset; the checksum is right unless a case is about it.
struct Patch {
    uint32_t Offset;
    uint64_t Value;
    uint32_t Width = 4;
};
struct Damage {
    const char *Reason; // all that is said
    std::vector<Patch> Patches;
};

template <typename Patches>
File Damaged(File Bytes, const Patches &Changes, bool Image = true) {
    for (const Patch &Change : Changes) {
        EXPECT_LE(Change.Offset + Change.Width, Bytes.size());
        memcpy(Bytes.data() + Change.Offset, &Change.Value, Change.Width);
    }
    if (Image) {
        SetImageChecksum(Bytes);
    }
    return Bytes;
}

constexpr uint32_t Characteristics = Pe + 22, ImageSize = Optional + 56, HeaderSize = Optional + 60;
constexpr uint32_t VirtualSize = 8, VirtualAddress = 12, RawSize = 16, RawOffset = 20, Flags = 36;

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

TEST(ImageFormat, ASignedFileIsTheSameImage) {
    File Bytes = BuildSmallImage();
    const uint32_t Unsigned = static_cast<uint32_t>(Bytes.size());
    // A signature lies behind everything else, aligned to eight bytes, where the directory says: no Rva, an offset.
    constexpr uint32_t Certificate = 0x108;
    ASSERT_EQ(Unsigned % 8, 0u);
    Bytes.resize(Unsigned + Certificate, 0xA5);
    Bytes = Damaged(Bytes, std::vector<Patch>{{Directory(4), Unsigned},
                                              {Directory(4) + 4, Certificate},
                                              {Unsigned, Certificate},
                                              {Unsigned + 4, 0x00020200}});
    EXPECT_EQ(Reasons(Bytes), "");
    EXPECT_NE(Load(Bytes)->Export("Pointer"), nullptr);
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

// ---- What the loader refuses -----------------------------------------------------------------------------------

TEST(ImageLoader, AllUnresolvedImportsAreNamedAtOnce) {
    ImageParts Parts;
    Parts.KernelImports = {"NtNoSuchThing", "KeGetCurrentIrql", "ExNeitherThis"};
    Parts.OtherImport = "ZelmNoSuchThing";
    const File Bytes = BuildSmallImage(Parts);
    EXPECT_EQ(Refusal([&] { Load(Bytes); }),
              "/no/such/folder/small.sys: ntoskrnl.exe does not export NtNoSuchThing, ExNeitherThis; "
              "zelm.sys does not export ZelmNoSuchThing");
    // What is refused leaves its place free.
    ImageOptions There = Options();
    There.Base = reinterpret_cast<uintptr_t>(Load(BuildSmallImage())->Base());
    EXPECT_NE(Refusal([&] { Load(Bytes, There); }), "loaded");
    EXPECT_EQ(Refusal([&] { Load(BuildSmallImage(), There); }), "loaded");

    Parts = {};
    Parts.OtherModule = "KERNEL32.dll";
    Parts.OtherImport = "CreateFileW";
    EXPECT_EQ(Refusal([&] { Load(BuildSmallImage(Parts)); }),
              "/no/such/folder/small.sys: it imports CreateFileW from kernel32.dll, which is no module of this kernel");
}

TEST(ImageLoader, WhereSomethingLiesNothingIsMapped) {
    const auto First = Load(BuildSmallImage());
    for (const uintptr_t Base : {reinterpret_cast<uintptr_t>(First->Base()), uintptr_t{0x1234}}) {
        ImageOptions How = Options();
        How.Base = Base;
        EXPECT_THAT(Refusal([&] { Load(BuildSmallImage(), How); }), testing::HasSubstr(": cannot be mapped: "));
    }
    EXPECT_EQ(ImageOf(First->Base()), First.get());
}

TEST(ImageLoader, TheNinthImageIsOneTooMany) {
    std::vector<std::unique_ptr<DriverImage>> Images;
    std::string Why;
    while (Images.size() < 9 && Why.empty()) {
        Why = Refusal([&] { Images.push_back(Load(BuildSmallImage())); });
        Why = Why == "loaded" ? "" : Why;
    }
    EXPECT_EQ(Why, "/no/such/folder/small.sys: too many images are loaded already");
}

// A folder with files for the loader.
class ImageFiles : public testing::Test {
protected:
    void SetUp() override {
        std::string Name = (std::filesystem::temp_directory_path() / "rvfsd-image-XXXXXX").string();
        ASSERT_NE(mkdtemp(Name.data()), nullptr);
        Folder = Name;
    }
    void TearDown() override {
        std::filesystem::remove_all(Folder);
    }
    std::filesystem::path Write(const std::string &Name, const File &Bytes) const {
        std::ofstream(Folder / Name, std::ios::binary)
            .write(reinterpret_cast<const char *>(Bytes.data()), static_cast<std::streamsize>(Bytes.size()));
        return Folder / Name;
    }
    static std::string RefusalOf(const std::filesystem::path &Path) {
        const std::string Why = Refusal([&] { DriverImage(Path, Options()); });
        return Why.starts_with(Path.string() + ": ") ? Why.substr(Path.string().size() + 2) : Why;
    }

    std::filesystem::path Folder;
};

TEST_F(ImageFiles, WhatIsNoFileOfAnImageIsRefused) {
    EXPECT_EQ(RefusalOf(Folder / "none.sys"), "no such file");
    EXPECT_EQ(RefusalOf(""), "no such file");
    EXPECT_EQ(RefusalOf(Folder), "not a regular file");
    EXPECT_EQ(RefusalOf("/dev/zero"), "not a regular file");
    EXPECT_EQ(RefusalOf(Write("empty.sys", {})), "not a Windows image: it does not begin with MZ");
    EXPECT_EQ(RefusalOf(Write("elf.sys", {0x7F, 'E', 'L', 'F'})), "not a Windows image: it does not begin with MZ");
    std::filesystem::resize_file(Write("large.sys", {}), 256 * 1024 * 1024 + 1);
    EXPECT_EQ(RefusalOf(Folder / "large.sys"), "too large for a driver");
}

TEST_F(ImageFiles, ANameThatIsNoTextLoads) {
    EXPECT_EQ(RefusalOf(Write("\xFF\xFE.sys", BuildSmallImage())), "loaded");
    EXPECT_EQ(Refusal([] { DriverImage("", BuildSmallImage(), Options()); }), "loaded");
}

TEST_F(ImageFiles, DebugInformationBesideItMustBeItsOwn) {
    const auto Image = Write("small.sys", BuildSmallImage());
    File Pdb = BuildSmallPdb();
    EXPECT_TRUE(DriverImage(Image, Options()).Pdb().empty());
    Write("small.pdb", Pdb);
    {
        const DriverImage Loaded(Image, Options());
        EXPECT_EQ(Loaded.Pdb(), Folder / "small.pdb");
        EXPECT_EQ(FindImageSymbol(Loaded, "Raise"), Loaded.Export("Raise"));
        EXPECT_EQ(FindImageSymbol(Loaded, "raise"), nullptr);
    }
    Pdb[3 * 512 + 12] ^= 1;
    const std::string Beside = (Folder / "small.pdb").string();
    Write("small.pdb", Pdb);
    EXPECT_EQ(RefusalOf(Image), Beside + ": the debug information of another build than small.sys");
    Pdb[3 * 512 + 12] ^= 1;
    Pdb[3 * 512 + 8] = 7; // a change that the image does not have to know of
    Write("small.pdb", Pdb);
    EXPECT_EQ(RefusalOf(Image), "loaded");
    Pdb[4 * 512 + 8] = 2; // one that it does
    Write("small.pdb", Pdb);
    EXPECT_EQ(RefusalOf(Image), Beside + ": the debug information of another build than small.sys");
    Write("small.pdb", {});
    EXPECT_EQ(RefusalOf(Image), Beside + ": not a PDB");
    Pdb.resize(2 * 512 + 8);
    Write("small.pdb", Pdb);
    EXPECT_EQ(RefusalOf(Image), Beside + ": damaged: a block lies past its end");
}

TEST_F(ImageFiles, DebugInformationBuiltAnewSinceIsNotBelieved) {
    const auto Image = Write("small.sys", BuildSmallImage());
    Write("small.pdb", BuildSmallPdb());
    const DriverImage Loaded(Image, Options());
    File Pdb = BuildSmallPdb();
    Pdb[3 * 512 + 12] ^= 1;
    Write("small.pdb", Pdb);
    EXPECT_EQ(FindImageSymbol(Loaded, "Raise"), nullptr);
}

TEST(DebugInformation, WhatIsDamagedIsRefusedWithItsReason) {
    constexpr uint32_t Directory = 2 * 512, Symbols = 5 * 512;
    const Damage Cases[] = {
        {"not a PDB", {{0, 'm', 1}}},
        {"damaged: its first block does not make sense", {{32, 0}}},
        {"damaged: its first block does not make sense", {{32, 513}}},
        {"damaged: its first block does not make sense", {{32, 0x80000000}}},
        {"damaged: its first block does not make sense", {{44, 0xFFFFFFFF}}},
        {"damaged: it ends too early", {{44, 0}}},
        {"damaged: a block lies past its end", {{52, 0xFFFFFFFF}}},
        {"damaged: a block lies past its end", {{512, 6}}},
        {"damaged: a stream is missing", {{Directory, 1}}},
        {"damaged: a stream is missing", {{Directory, 0xFFFFFFFF}}},
        {"damaged: it ends too early", {{Directory + 4, 0xFFFFFF00}}},
        {"damaged: a stream is longer than the file", {{Directory + 8, 0xFFFFFF00}}},
        {"damaged: it ends too early", {{Directory + 8, 4 * 512}}},
        {"damaged: it has no identifier", {{Directory + 8, 27}}},
        {"damaged: a block lies past its end", {{Directory + 24, 0x800000}}},
        {"damaged: a stream is missing", {{4 * 512 + 20, 0xFFFF}}},
        {"damaged: a symbol reaches past the end", {{Symbols + 8, 0x17, 2}}},
        {"damaged: a symbol reaches past the end", {{Symbols, 0, 2}}},
    };
    for (const Damage &Each : Cases) {
        try {
            PdbSymbols Read(Damaged(BuildSmallPdb(), Each.Patches, false));
            ADD_FAILURE() << "not refused: " << Each.Reason;
        } catch (const std::runtime_error &Refused) {
            EXPECT_STREQ(Refused.what(), Each.Reason);
        }
    }
    EXPECT_THROW(ReadPdbIdentity("/no/such/file"), std::runtime_error);
}

// ---- What the loader makes of a good one -----------------------------------------------------------------------

// As the system has it: "r-xp", or nothing where nothing is mapped.
std::string PermissionsAt(const char *Address) {
    std::ifstream Maps("/proc/self/maps");
    for (std::string Line; std::getline(Maps, Line);) {
        unsigned long Low = 0, High = 0;
        char Permissions[5] = {};
        if (sscanf(Line.c_str(), "%lx-%lx %4s", &Low, &High, Permissions) == 3 &&
            reinterpret_cast<unsigned long>(Address) - Low < High - Low) {
            return Permissions;
        }
    }
    return "";
}

TEST(ImageLoader, AGoodImageIsMovedBoundAndProtected) {
    auto Image = Load(BuildSmallImage());
    char *Base = Image->Base();
    ASSERT_NE(reinterpret_cast<uint64_t>(Base), PreferredBase);
    const char *Relocated;
    memcpy(&Relocated, Base + Pointer, sizeof(Relocated));
    EXPECT_EQ(Relocated, Base + Text);
    EXPECT_STREQ(Relocated, "text");
    EXPECT_EQ(Base[Variables + 0x17FF], 0) << "what the file does not have is zero";

    void *Slots[3];
    memcpy(Slots, Base + KernelSlots, sizeof(Slots));
    EXPECT_EQ(Slots[0], RaisingGate("ExRaiseStatus"));
    EXPECT_EQ(Slots[1], reinterpret_cast<void *>(KeGetCurrentIrql));
    memcpy(Slots, Base + ZelmSlots, 8);
    EXPECT_EQ(Slots[0], reinterpret_cast<void *>(CreateInstance));
    EXPECT_EQ(reinterpret_cast<KIRQL(NTAPI *)()>(Image->Export("CurrentIrql"))(), KeGetCurrentIrql());
    EXPECT_EQ(Image->Export("Pointer"), Base + Pointer);
    EXPECT_EQ(Image->Export("NoSuchThing"), nullptr);
    EXPECT_EQ(Image->Entry()(nullptr, nullptr), STATUS_SUCCESS);

    const std::pair<uint32_t, const char *> Expected[] = {
        {0, "r--p"},         {Code, "r-xp"},  {Constants, "r--p"}, {Variables + 0x1000, "rw-p"},
        {Functions, "r--p"}, {Start, "r-xp"}, {Moves, "r--p"}};
    for (const auto &[Rva, Permissions] : Expected) {
        EXPECT_EQ(PermissionsAt(Base + Rva), Permissions) << Rva;
    }
    Image->DiscardStartSections();
    EXPECT_EQ(PermissionsAt(Base + Start), "---p");
    EXPECT_EQ(PermissionsAt(Base + Moves), "---p");
    EXPECT_EQ(PermissionsAt(Base + Functions), "r--p");

    const LoaderEntry &Section = *Image->Section();
    EXPECT_EQ(Section.DllBase, Base);
    EXPECT_EQ(Section.SizeOfImage, End);
    EXPECT_EQ(std::u16string(Section.BaseDllName.Buffer, Section.BaseDllName.Length / 2), u"small.sys");
    EXPECT_EQ(ImageOf(Base), Image.get());
    EXPECT_EQ(ImageOf(Base + End - 1), Image.get());
    EXPECT_NE(ImageOf(Base + End), Image.get());
    EXPECT_NE(ImageOf(Base - 1), Image.get());
    Image.reset();
    EXPECT_EQ(ImageOf(Base), nullptr);
    EXPECT_EQ(PermissionsAt(Base + Code), "");
}

TEST(ImageLoader, ARelocationDoesNotMoveABoundImport) {
    const std::vector<Patch> OntoItsSlot = {{FileOffset(Moves), Constants}, {FileOffset(Moves) + 8, 0xA008, 2}};
    const auto Image = Load(Damaged(BuildSmallImage(), OntoItsSlot));
    void *Slot;
    memcpy(&Slot, Image->Base() + KernelSlots + 8, sizeof(Slot));
    EXPECT_EQ(Slot, reinterpret_cast<void *>(KeGetCurrentIrql));
}

TEST(ImageLoader, OnlyWhatStaysReadableIsRead) {
    const auto Image = Load(BuildSmallImage());
    const char *Base = Image->Base();
    EXPECT_TRUE(Image->Readable(Base + Constants, 4096));
    EXPECT_FALSE(Image->Readable(Base + Constants + 1, 4096)) << "into the next section";
    EXPECT_FALSE(Image->Readable(Base, 1)) << "headers";
    EXPECT_FALSE(Image->Readable(Base + Start, 1)) << "taken away after the start";
    EXPECT_FALSE(Image->Readable(Base + End, 0));
    EXPECT_TRUE(Image->IsCode(Start));
    EXPECT_FALSE(Image->IsCode(Constants));
    EXPECT_FALSE(Image->IsCode(0xFFFFFFFF));
    const auto Unreadable = Load(Damaged(BuildSmallImage(), std::vector<Patch>{{Section(1) + Flags, 0}}));
    EXPECT_FALSE(Unreadable->Readable(Unreadable->Base() + Constants, 1));
}

// ---- Tables that the image has about itself, read while it runs ------------------------------------------------

TEST(ImageLoader, ALayoutTableIsReadNoFurtherThanTheImage) {
    constexpr uint32_t Unaligned = 0x21; // of the variables
    constexpr std::string_view Unnamed = "unnamed field is unknown to this kernel\n";
    const std::tuple<const char *, uint32_t, std::vector<Patch>, std::string_view> Cases[] = {
        {"unreadable once it has started", Start, {}, "table of record layouts has no end"},
        {"half of it in another section", Functions - 8, {}, "table of record layouts has no end"},
        {"a name outside of the image", Variables + Unaligned, {{0xC00 + Unaligned, 8}}, Unnamed},
        {"a name in the headers",
         Variables + Unaligned,
         {{0xC00 + Unaligned, PreferredBase, 8}, {FileOffset(Moves) + 8, 0xA000 + Unaligned, 2}},
         Unnamed},
        {"a name that a terminal would obey",
         Variables + Unaligned,
         {{0xC00 + Unaligned, PreferredBase + Text, 8},
          {FileOffset(Moves) + 8, 0xA000 + Unaligned, 2},
          {FileOffset(Text), 0x4A325B1B}},
         "?[2J is unknown to this kernel\n"},
    };
    for (const auto &[What, Rva, Patches, Reason] : Cases) {
        ImageParts Parts;
        Parts.Exports = {{"RVFSD_Layouts", Rva}};
        const File Bytes = Damaged(BuildSmallImage(Parts), Patches);
        EXPECT_THAT(Refusal([&] { Load(Bytes); }),
                    testing::StartsWith(fmt::format("/no/such/folder/small.sys: its {}", Reason)))
            << What;
    }
    ImageParts Empty;
    Empty.Exports = {{"RVFSD_Layouts", Functions - 16}};
    EXPECT_THAT(Refusal([&] { Load(BuildSmallImage(Empty)); }),
                testing::StartsWith("/no/such/folder/small.sys: it does not know "))
        << "an end at the section's end";
}

// Steps from just behind the raising function's call, on a stack of the test's.
bool Steps(const std::vector<Patch> &Patches, uint64_t *ReturnsTo = nullptr) {
    const auto Image = Load(Damaged(BuildSmallImage(), Patches));
    uint64_t Stack[32];
    for (uint64_t &Each : Stack) {
        Each = static_cast<uint64_t>(&Each - Stack);
    }
    UnwindContext Context = {};
    Context.Rip = reinterpret_cast<uint64_t>(Image->Base() + RaisingReturn);
    std::fill(std::begin(Context.Registers), std::end(Context.Registers), reinterpret_cast<uint64_t>(Stack));
    Context.Registers[StackPointer] = reinterpret_cast<uint64_t>(&Stack[8]);
    const bool Good = UnwindImageFrame(*Image, &Context, reinterpret_cast<uintptr_t>(Stack),
                                       reinterpret_cast<uintptr_t>(std::end(Stack)));
    if (ReturnsTo != nullptr) {
        *ReturnsTo = Context.Rip;
    }
    return Good;
}

TEST(ImageUnwinding, DamagedUnwindDataEndsTheWalk) {
    constexpr uint32_t Info = 0x600 + RaisingUnwind - Constants; // in the file
    uint64_t ReturnsTo = 0;
    EXPECT_TRUE(Steps({}, &ReturnsTo));
    EXPECT_EQ(ReturnsTo, 13u) << "28h bytes of stack, then the return address";

    const std::pair<const char *, std::vector<Patch>> Cases[] = {
        {"version 7", {{Info, 0x0F, 1}}},
        {"an unknown code", {{Info + 4, 0x0F04, 2}}},
        {"an unknown code that is not reached yet", {{Info + 4, 0x0FFF, 2}}},
        {"a code without its operand", {{Info + 4, 0x0104, 2}}},
        {"more stack than there is",
         {{Info + 2, 3, 1}, {Info + 4, 0x1104, 2}, {Info + 6, 0xFFFF, 2}, {Info + 8, 0xFFFF, 2}}},
        {"a code without its operand that is not reached yet", {{Info + 4, 0x01FF, 2}}},
        {"a frame register that points nowhere", {{Info + 3, 0xF5, 1}}},
        {"a frame that lies below", {{Info + 3, 0x05, 1}, {Info + 4, 0x0304, 2}}},
        {"a chain to itself",
         {{Info, 0x21, 1}, {Info + 8, RaisingFunction}, {Info + 12, RaisingTarget}, {Info + 16, RaisingUnwind}}},
        {"a chain out of the image", {{Info, 0x21, 1}, {Info + 16, 0xFFFFFFFC}}},
        {"a chain to an odd place", {{Info, 0x21, 1}, {Info + 16, Constants + 0x5F2}, {0x600 + 0x5F2, 1}}},
        {"a chain into the headers", {{Info, 0x21, 1}, {Info + 16, Optional}}},
        {"codes that reach into the next section, which may be taken away",
         {{Section(3) + VirtualSize, 0x1000},
          {Section(3) + RawSize, 0x1000},
          {Section(3) + RawOffset, 0x400},
          {Directory(3), Functions + 0xA00},
          {FileOffset(Functions) + 8, Start - 4},
          {0x13FC, 0x00020001}}},
    };
    for (const auto &[What, Patches] : Cases) {
        EXPECT_FALSE(Steps(Patches)) << What;
    }
}

ULONG Raise(const File &Bytes) {
    const auto Image = Load(Bytes);
    return reinterpret_cast<ULONG(NTAPI *)()>(Image->Export("Raise"))();
}

TEST(ImageUnwinding, TheHandlerOfTheSmallImageTakesItsException) {
    EXPECT_EQ(Raise(BuildSmallImage()), 0xC0000005u);
}

TEST(ImageUnwindingDeathTest, AScopeThatLeadsToNoCodeIsNotFollowed) {
    constexpr uint32_t Scope = 0x600 + RaisingScope - Constants; // in the file: begin, end, filter, target
    constexpr uint32_t Last = 0x5E0;                             // of the constants that the file has
    const std::pair<const char *, std::vector<Patch>> Cases[] = {
        {"a frame's scope leads to a place that is no code", {{Scope + 8, 0xFFFFFFF0}}},
        {"a frame's scope leads to a place that is no code", {{Scope + 8, Constants}}},
        {"a frame's scope leads to a place that is no code", {{Scope + 12, End}}},
        {"a frame's scope leads to a place that is no code", {{Scope + 12, 0x40}}},
        {"no handler takes it", {{Scope, RaisingReturn + 1}}},
        {"a frame's scopes reach past the image",
         {{FileOffset(Functions) + 8, Constants + Last},
          {0x600 + Last, 0x0000420400010409, 8},
          {0x600 + Last + 8, 0xFFFFFFFF00000000 + HandlerJump, 8}}},
        {"a frame has a language handler other than __C_specific_handler", {{Scope - 8, FilterFunction}}},
        {"a frame has a language handler other than __C_specific_handler", {{Scope - 8, 0xFFFFFFFF}}},
    };
    for (const auto &[Reason, Patches] : Cases) {
        EXPECT_DEATH(Raise(Damaged(BuildSmallImage(), Patches)), Reason);
    }
}

} // namespace
