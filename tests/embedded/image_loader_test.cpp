// The loader of driver images, with a small image: what it refuses, what it makes of a good one, and how far it goes
// with what a bad one says while it runs.

#include <memory>

#include "embedded/image/symbols.h"
#include "embedded/image/unwind.h"
#include "embedded/ke/ke.h"
#include "embedded/loader/driver_image.h"
#include "embedded/loader/layouts.h"
#include "embedded/loader/raise.h"
#include "tests/app/program.h"
#include "tests/support/small_image.h"

namespace {

using namespace embedded;
using namespace test;
using namespace test::small_image;

using File = std::vector<uint8_t>;

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
    std::filesystem::path Write(const std::string &Name, const File &Bytes) const {
        Scratch.Write(Name, {reinterpret_cast<const char *>(Bytes.data()), Bytes.size()});
        return Folder / Name;
    }
    static std::string RefusalOf(const std::filesystem::path &Path) {
        const std::string Why = Refusal([&] { DriverImage(Path, Options()); });
        return Why.starts_with(Path.string() + ": ") ? Why.substr(Path.string().size() + 2) : Why;
    }

    const ScratchDirectory Scratch;
    const std::filesystem::path Folder = Scratch.Path();
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
        EXPECT_EQ(DescribeImageAddress(Loaded, Loaded.Export("Raise")), "small.sys!Raise+0x0");
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
    EXPECT_THAT(DescribeImageAddress(Loaded, Loaded.Export("Raise")), testing::StartsWith("small.sys!0x"));
}

TEST(DebugInformation, WhatIsDamagedIsRefusedWithItsReason) {
    constexpr uint32_t Directory = 2 * 512, Symbols = 5 * 512;
    const std::pair<const char *, std::vector<Patch>> Cases[] = {
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
    for (const auto &[Reason, Patches] : Cases) {
        EXPECT_THAT([&Changes = Patches] { PdbSymbols(Damaged(BuildSmallPdb(), Changes, false)); },
                    testing::ThrowsMessage<std::runtime_error>(testing::StrEq(Reason)));
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

TEST(ImageLoader, ASignedFileIsTheSameImage) {
    File Bytes = BuildSmallImage();
    const uint32_t Unsigned = static_cast<uint32_t>(Bytes.size());
    // A signature lies behind everything else, aligned to eight bytes, where the directory says: no Rva, an offset.
    constexpr uint32_t Certificate = 0x108;
    ASSERT_EQ(Unsigned % 8, 0u);
    Bytes.resize(Unsigned + Certificate, 0xA5);
    Bytes = Damaged(Bytes, {{Directory(4), Unsigned},
                            {Directory(4) + 4, Certificate},
                            {Unsigned, Certificate},
                            {Unsigned + 4, 0x00020200}});
    EXPECT_NE(Load(Bytes)->Export("Pointer"), nullptr);
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
    const auto Unreadable = Load(Damaged(BuildSmallImage(), {{Section(1) + Flags, 0}}));
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
