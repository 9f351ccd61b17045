// Create: what is done for which disposition on what is there, and how it is answered.

#include <regex>
#include <sstream>

#include "tests/driver/create_client.h"
#include "tests/driver/request_log.h"

namespace {

using namespace test;

using Creates = CreateFixture;

// ---- The decision table

enum class There { File, Directory, Nothing };

struct Decision {
    There What;
    std::vector<ULONG> Flags;
    std::vector<ULONG> Dispositions;
    std::vector<std::string> Calls; // after the path was looked up
    NTSTATUS Status;
    ULONG_PTR Information;
};

const std::vector<ULONG> Any = {FILE_SUPERSEDE, FILE_OPEN,      FILE_CREATE,
                                FILE_OPEN_IF,   FILE_OVERWRITE, FILE_OVERWRITE_IF};
const std::vector<ULONG> Opening = {FILE_OPEN, FILE_OVERWRITE};
const std::vector<ULONG> OpeningOrCreating = {FILE_SUPERSEDE, FILE_OPEN_IF, FILE_OVERWRITE_IF};
const std::vector<ULONG> Replacing = {FILE_SUPERSEDE, FILE_OVERWRITE_IF};

using Names = std::vector<std::string>;

Names operator+(Names Left, const Names &Right) {
    Left.insert(Left.end(), Right.begin(), Right.end());
    return Left;
}

const Names OpenFile = {"CreateFile", "GetFileInformation"};
const Names Root = {"QueryPathForVolume", "OpenVolume", "CloseVolume"}; // the parent is looked for
const Names Ask = {"OpenDirectory", "CreateFile"};                      // what kind is it

using enum There;
constexpr NTSTATUS Good = STATUS_SUCCESS, Missing = STATUS_OBJECT_NAME_NOT_FOUND;
constexpr NTSTATUS Collides = STATUS_OBJECT_NAME_COLLISION, IsADirectory = STATUS_FILE_IS_A_DIRECTORY;
const std::vector<ULONG> Making = {FILE_CREATE, FILE_OPEN_IF, FILE_SUPERSEDE, FILE_OVERWRITE_IF};
const Names OpenAnew = {"OpenDirectory", "CreateDirectory", "OpenDirectory"};

const Decision Decisions[] = {
    {Directory, {0, D}, Opening, {"OpenDirectory"}, Good, FILE_OPENED},
    {Directory, {0, D}, {FILE_CREATE}, {"CreateDirectory"}, Collides, FILE_EXISTS},
    {Directory, {0, D}, OpeningOrCreating, {"OpenDirectory"}, Good, FILE_OPENED},
    {Directory, {N, D | N}, Any, {}, IsADirectory, FILE_DOES_NOT_EXIST},
    {File, {D | N}, Any, {}, IsADirectory, FILE_DOES_NOT_EXIST},
    {File, {D}, Opening, Names{"OpenDirectory"} + Root, STATUS_NOT_A_DIRECTORY, FILE_DOES_NOT_EXIST},
    {File, {D}, {FILE_CREATE}, {"CreateDirectory"}, Collides, FILE_EXISTS},
    {File, {D}, OpeningOrCreating, {"OpenDirectory", "CreateDirectory"}, Collides, FILE_EXISTS},
    {File, {0, N}, {FILE_OPEN, FILE_OPEN_IF}, OpenFile, Good, FILE_OPENED},
    {File, {0, N}, {FILE_CREATE}, {"CreateFile"}, Collides, FILE_EXISTS},
    {File, {0, N}, {FILE_OVERWRITE}, OpenFile, Good, FILE_OVERWRITTEN},
    {File, {0, N}, Replacing, OpenFile, Good, FILE_SUPERSEDED},
    {Nothing, {D | N}, Any, Ask, IsADirectory, FILE_DOES_NOT_EXIST},
    {Nothing, {D}, Opening, Ask + Names{"OpenDirectory"} + Root, Missing, FILE_DOES_NOT_EXIST},
    {Nothing, {D}, {FILE_CREATE}, Ask + Names{"CreateDirectory"}, Good, FILE_CREATED},
    {Nothing, {D}, OpeningOrCreating, Ask + OpenAnew, Good, FILE_CREATED},
    {Nothing, {N}, Opening, Ask + Names{"CreateFile"}, Missing, FILE_DOES_NOT_EXIST},
    {Nothing, {N}, Making, Ask + OpenFile, Good, FILE_CREATED},
    {Nothing, {0}, Making, Ask + Ask + OpenFile, Good, FILE_CREATED},
    {Nothing, {0}, Opening, Ask + Ask + Root, Missing, FILE_DOES_NOT_EXIST},
};

TEST_F(Creates, DecideByTypeFlagsEntryAndDisposition) {
    size_t Rows = 0;
    for (const Decision &Row : Decisions) {
        for (const ULONG Flags : Row.Flags) {
            for (const ULONG Disposition : Row.Dispositions) {
                SCOPED_TRACE(::testing::Message() << "entry " << static_cast<int>(Row.What) << " flags " << Flags
                                                  << " disposition " << Disposition);
                Provider.Edit([&](Tree &Tree) {
                    Tree.AddFile(u"\\srv\\vol\\x", "here");
                    if (Row.What != File) {
                        Tree.Delete(false, 0, u"\\srv\\vol\\x");
                    }
                    if (Row.What == Directory) {
                        Tree.AddDirectory(u"\\srv\\vol\\x");
                    }
                });
                Bind();
                Open Request = With({.Options = Synchronous | Flags}, Disposition);
                const CreateResult Result = Create(u"\\srv\\vol\\x", Request);
                EXPECT_THAT(Result, Ends(Row.Status, Row.Information));
                Names Expected = Row.What == File ? Names{"CreateFile", "CloseFile"} : Names{"CreateFile"};
                Expected = Expected + Names{"QueryPathForVolume", "OpenVolume"} + Row.Calls;
                if (Row.Status == STATUS_SUCCESS) {
                    const bool IsFile = Fcb(Result.Handle)->OpenType == OPEN_TYPE_FILE;
                    EXPECT_EQ(IsFile, Row.Calls.back() == "GetFileInformation");
                    EXPECT_EQ(Instance(Result.Handle)->FileHandle != 0, IsFile);
                } else {
                    Expected.push_back("CloseVolume");
                }
                EXPECT_EQ(Provider.CompareCalls(Expected), "");
                if (Result.Handle != nullptr) {
                    Close(Result.Handle);
                }
                ExpectNothingOpen("the row");
                Provider.Edit([](Tree &Tree) {
                    Tree.Delete(true, 0, u"\\srv\\vol\\x");
                    Tree.Delete(false, 0, u"\\srv\\vol\\x");
                });
                ++Rows;
            }
        }
    }
    EXPECT_EQ(Rows, 3u * 4u * 6u) << "a row of the table is missing";
}

// ---- What the Provider is given

TEST_F(Creates, HandTheProviderItsOwnEncodings) {
    struct {
        ACCESS_MASK Access;
        ULONG Options, Disposition;
        ULONG64 ProviderAccess, ProviderOptions, ProviderDisposition;
        ULONG Share = FILE_SHARE_READ | FILE_SHARE_DELETE, ProviderShare = 5;
    } constexpr Cases[] = {
        {FILE_READ_DATA, 0, FILE_OPEN, 0x2, 0, 3},
        {FILE_READ_DATA, 0, FILE_OPEN, 0x2, 0, 3, FILE_SHARE_WRITE, 2},
        // Uncached readers that share writing share reading too.
        {FILE_READ_DATA, FILE_NO_INTERMEDIATE_BUFFERING, FILE_OPEN, 0x2, 0x2, 3, FILE_SHARE_WRITE, 3},
        {FILE_WRITE_DATA, FILE_WRITE_THROUGH, FILE_SUPERSEDE, 0x4, 0x1, 2},
        {FILE_EXECUTE, FILE_NO_INTERMEDIATE_BUFFERING, FILE_OPEN_IF, 0x8, 0x2, 4},
        {DELETE, FILE_RANDOM_ACCESS, FILE_OPEN, 0x11, 0x8, 3},
        {FILE_APPEND_DATA, FILE_SEQUENTIAL_ONLY, FILE_OVERWRITE, 0x5, 0x10, 5},
        {FILE_READ_ATTRIBUTES, FILE_OPEN_FOR_BACKUP_INTENT, FILE_OVERWRITE_IF, 0x1, 0x20, 2},
        {0, 0, FILE_OPEN, 0x1, 0, 3},
        {SYNCHRONIZE, 0, FILE_OPEN, 0, 0, 3},
        {MAXIMUM_ALLOWED, 0, FILE_OPEN, 0, 0, 3},
        {FILE_READ_DATA | FILE_WRITE_DATA | FILE_EXECUTE | DELETE | FILE_APPEND_DATA, FILE_DELETE_ON_CLOSE, FILE_OPEN,
         0x1F, 0, 3},
    };
    for (const auto &Each : Cases) {
        Provider.AddFile(u"\\srv\\vol\\e.txt", "x");
        const HANDLE Handle =
            MustOpen(u"\\srv\\vol\\e.txt",
                     With({.Access = Each.Access, .Share = Each.Share, .Options = Each.Options, .Attributes = 0x1BF},
                          Each.Disposition));
        const Call Made = Last(Slot::CreateFile);
        EXPECT_EQ(Made.Number("access"), Each.ProviderAccess) << Made.Format();
        EXPECT_EQ(Made.Number("options"), Each.ProviderOptions) << Made.Format();
        EXPECT_EQ(Made.Number("disposition"), Each.ProviderDisposition) << Made.Format();
        EXPECT_EQ(Made.Number("share"), Each.ProviderShare);
        EXPECT_EQ(Made.Number("attributes"), 0x27u) << "only what may be set is passed on";
        EXPECT_EQ(Made.String("path"), u"e.txt");
        EXPECT_EQ(Made.Number("base"), Instance(Handle)->VolumeHandle);
        EXPECT_EQ(Instance(Handle)->ProviderAccess, Each.ProviderAccess);
        EXPECT_EQ(Instance(Handle)->ProviderOptions, Each.ProviderOptions);
        EXPECT_EQ(Instance(Handle)->ShareMode, Each.ProviderShare);
        EXPECT_TRUE(Each.Access != FILE_READ_DATA || Fcb(Handle)->ShareAccess.SharedRead == (Each.ProviderShare & 1));
        EXPECT_EQ((Fcb(Handle)->OpenFlags & FCB_STATE_EXECUTE_ACCESS) != 0, (Each.Access & FILE_EXECUTE) != 0);
        Provider.Edit([](Tree &Tree) { Tree.Find(u"\\srv\\vol\\e.txt")->Attributes = 0; });
        Close(Handle);
    }
}

TEST_F(Creates, TellWhatTheProviderDidByItsAction) {
    for (const auto &Each : std::map<ULONG, ULONG>{
             {0, FILE_SUPERSEDED}, {1, FILE_OPENED}, {2, FILE_CREATED}, {3, FILE_SUPERSEDED}, {77, FILE_SUPERSEDED}}) {
        Provider.OnCall(Slot::CreateFile, IsRealOpen).Answer([&](Outputs &Out) { *Out.CreateAction = Each.first; });
        ExpectOpened(u"\\srv\\vol\\a.txt", With({}, FILE_OPEN_IF), Each.second);
        ExpectOpened(u"\\srv\\vol\\a.txt", With({}, FILE_OVERWRITE), FILE_OVERWRITTEN);
        Provider.ClearScript();
    }
}

TEST_F(Creates, TakeTheSizesOfTheFileWhenTheyCanBeHad) {
    // Only an answer of exactly success counts, and no size that no offset can name.
    for (const auto &[Raw, End, Size] :
         {std::tuple{0u, 10ull, 10}, {0xC7E70102u, 10ull, 0}, {0x40000000u, 10ull, 0}, {0u, 1ull << 63, 0}}) {
        Provider.OnCall(Slot::GetFileInformation)
            .ReturnAfter(static_cast<RVSTATUS>(Raw))
            .Answer([End = End](Outputs &Out) { *Out.EndOfFile = End; });
        const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
        EXPECT_EQ(FileSize(Handle), Size);
        Close(Handle);
        Provider.ClearScript();
    }
}

// ---- Failures of the Provider

TEST_F(Creates, MapFailuresOfTheFileOpen) {
    const std::tuple<NTSTATUS, ULONG_PTR, std::vector<ULONG>> Cases[] = {
        // The code decides, whatever the severity.
        {STATUS_OBJECT_PATH_NOT_FOUND, FILE_DOES_NOT_EXIST, {0xC7E70503, 0xC0000503}},
        {STATUS_SHARING_VIOLATION, FILE_EXISTS, {0xC7E7050D, 0xC7E7050E}},
        {STATUS_ACCESS_DENIED, FILE_SUPERSEDED, {0xC7E70006, 0xC7E70107, 0x80000006}},
        // Among them pending, an error without a code, success without a handle.
        {STATUS_OBJECT_NAME_NOT_FOUND,
         FILE_DOES_NOT_EXIST,
         {0xC7E70506, 0xC7E70509, 0xC7E70510, 0xC7E7000E, 0xC7E70000, 0x00000000, 0x00000516}},
    };
    for (const auto &[Status, Information, Codes] : Cases) {
        for (const ULONG Raw : Codes) {
            SCOPED_TRACE(Raw);
            Provider.OnCall(Slot::CreateFile, IsRealOpen).Return(static_cast<RVSTATUS>(Raw));
            for (const ULONG Disposition :
                 {FILE_OPEN, FILE_OPEN_IF, FILE_OVERWRITE, FILE_SUPERSEDE, FILE_OVERWRITE_IF}) {
                ExpectRefused(u"\\srv\\vol\\a.txt", With({}, Disposition), Status, Information);
            }
            // Without a type flag a missing name is replaced, not created new.
            ExpectRefused(u"\\srv\\vol\\no", With({}, FILE_CREATE), Status, Information);
            const bool Taken = Status == STATUS_OBJECT_NAME_NOT_FOUND;
            ExpectRefused(u"\\srv\\vol\\no", With({}, FILE_CREATE, N), Taken ? STATUS_OBJECT_NAME_COLLISION : Status,
                          Taken ? static_cast<ULONG_PTR>(FILE_EXISTS) : Information);
            ExpectNothingOpen("a failed open");
            Provider.ClearScript();
        }
    }
}

TEST_F(Creates, TellAMissingParentFromAMissingName) {
    for (const bool Tells : {true, false}) {
        if (!Tells) { // then the probe of the parent decides
            Provider.OnPath(Slot::CreateFile, u"\\srv\\vol\\no\\no").Return(ProviderError(0x0506));
            Provider.OnPath(Slot::CreateFile, u"no\\no").Return(ProviderError(0x0506));
            Provider.OnPath(Slot::OpenDirectory, u"no\\no").Return(ProviderError(0x0506));
        }
        for (const ULONG Flags : {0u, D, N}) {
            for (const ULONG Disposition : {FILE_OPEN, FILE_OVERWRITE}) {
                const Open Request = With({.Options = Synchronous | Flags}, Disposition);
                ExpectRefused(u"\\srv\\vol\\docs\\no", Request, STATUS_OBJECT_NAME_NOT_FOUND);
                ExpectRefused(u"\\srv\\vol\\no\\no", Request,
                              Tells || Flags != N ? STATUS_OBJECT_PATH_NOT_FOUND : STATUS_OBJECT_NAME_NOT_FOUND);
            }
        }
        ExpectRefused(u"\\srv\\vol\\no\\no", With({.Options = D}, FILE_CREATE), STATUS_OBJECT_PATH_NOT_FOUND);
    }
}

TEST_F(Creates, OfDirectoriesAnswerTheProvidersFailure) {
    Provider.OnCall(Slot::OpenDirectory).Return(ProviderError(0x0006));
    ExpectRefused(u"\\srv\\vol\\docs", AsDirectory, STATUS_ACCESS_DENIED);
    Provider.ClearScript();
    Provider.OnCall(Slot::CreateDirectory).Return(ProviderError(0x0509));
    ExpectRefused(u"\\srv\\vol\\new", With(AsDirectory, FILE_CREATE), STATUS_DISK_FULL);
    ExpectRefused(u"\\srv\\vol\\new", With(AsDirectory, FILE_OPEN_IF), STATUS_OBJECT_NAME_COLLISION, FILE_EXISTS);
    Provider.ClearScript();
    Provider.OnCall(Slot::CreateDirectory).Return(static_cast<RVSTATUS>(0xC7E70000));
    ExpectRefused(u"\\srv\\vol\\new", With(AsDirectory, FILE_CREATE), STATUS_UNSUCCESSFUL);
    ExpectNothingOpen("failed directories");
}

TEST_F(Creates, FailWhenWhatIsThereCannotBeFoundOutAndNoTypeWasGiven) {
    Provider.OnCall(Slot::CreateFile, [](const Call &Made) { return IsQuestion(Made) && Made.Number("base") != 0; })
        .Return(ProviderError(0x0102));
    ExpectRefused(u"\\srv\\vol\\no", With({}, FILE_OPEN_IF), STATUS_NETWORK_BUSY);
    ExpectOpened(u"\\srv\\vol\\no", With({}, FILE_OPEN_IF, N), FILE_CREATED);
    // A success that says nothing of an entry.
    Provider.OnPath(Slot::CreateFile, u"\\srv\\vol\\a.txt").ReturnAfter(static_cast<RVSTATUS>(0x00000516));
    ExpectRefused(u"\\srv\\vol\\a.txt", {}, STATUS_UNSUCCESSFUL);
    Provider.ClearScript(); // the probe sees nothing, the question after it does
    Provider.OnPath(Slot::CreateFile, u"\\srv\\vol\\docs").Return(ProviderError(0x0506));
    ExpectOpened(u"\\srv\\vol\\docs", {}, FILE_OPENED);
    ExpectRefused(u"\\srv\\vol\\docs", With({}, FILE_OPEN, N), IsADirectory);
}

// ---- Directories

// Nor has one whose open fails afterwards, or answers a note.
TEST_F(Creates, ADirectoryThatWasCreatedOnlyHasNoHandleOfItsOwn) {
    for (const auto &[Disposition, Raw] :
         {std::pair{FILE_CREATE, 0u}, {FILE_OPEN_IF, 0u}, {FILE_OPEN_IF, 0xC7E70006u}, {FILE_OPEN_IF, 0x40000000u}}) {
        Provider.OnCall(Slot::OpenDirectory, [](const Call &Made) { return Made.String("path") == u"new"; })
            .Nth(3)
            .ReturnAfter(static_cast<RVSTATUS>(Raw));
        const HANDLE Handle = MustOpen(u"\\srv\\vol\\new", With(AsDirectory, Disposition));
        const bool Has = Disposition == FILE_OPEN_IF && Raw == 0;
        EXPECT_EQ(Instance(Handle)->DirHandle != 0, Has);
        EXPECT_TRUE(!Has || Instance(Handle)->RelatedHandle == Instance(Handle)->DirHandle);
        EXPECT_EQ(Fcb(Handle)->OpenType, OPEN_TYPE_DIRECTORY + 0u);
        EXPECT_EQ(Fcb(Handle)->VolumeResolved, 0);
        Close(Handle);
        Provider.ClearScript();
        Provider.Edit([](Tree &Tree) { Tree.Delete(true, 0, u"\\srv\\vol\\new"); });
        ExpectNothingOpen("the close");
    }
}

TEST_F(Creates, AVolumeRootOpensWhateverTheDisposition) {
    for (const ULONG Disposition : Any) {
        Provider.ClearCalls();
        ExpectOpened(u"\\srv\\vol", With(AsDirectory, Disposition), FILE_OPENED);
        EXPECT_EQ(
            Provider.CompareCalls({"QueryPathForVolume", "OpenVolume", "CloseVolume", "OpenVolume", "CloseVolume"}),
            "");
    }
    ExpectOpened(u"\\srv\\vol\\", AsDirectory, FILE_OPENED);
    ExpectOpened(u"\\srv\\vol", With({}, FILE_OPEN, N), FILE_OPENED);
    ExpectRefused(u"\\srv\\vol\\", With({}, FILE_OPEN, N), STATUS_FILE_IS_A_DIRECTORY);
    Open Deleting = With(AsDirectory, FILE_OPEN, FILE_DELETE_ON_CLOSE);
    Deleting.Access |= DELETE;
    ExpectRefused(u"\\srv\\vol", Deleting, STATUS_CANNOT_DELETE);
    ExpectRefused(u"\\none\\vol", AsDirectory, STATUS_BAD_NETWORK_PATH);
    Deleting.Related = MustOpen(u"\\srv\\vol", AsDirectory);
    ExpectRefused(u"", Deleting, STATUS_CANNOT_DELETE);
    EXPECT_EQ(Fcb(Deleting.Related)->VolumeResolved, 1);
}

TEST_F(Creates, ATrailingBackslashIsForDirectories) {
    ExpectOpened(u"\\srv\\vol\\docs\\", AsDirectory, FILE_OPENED);
    ExpectOpened(u"\\srv\\vol\\docs\\", {}, FILE_OPENED);
    for (const ULONG Flags : {0u, N}) {
        ExpectRefused(u"\\srv\\vol\\a.txt\\", {.Options = Synchronous | Flags}, STATUS_OBJECT_NAME_INVALID);
        ExpectRefused(u"\\srv\\vol\\no\\", With({}, FILE_OPEN_IF, Flags), STATUS_OBJECT_NAME_INVALID);
    }
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\no"));
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\new\\", With(AsDirectory, FILE_CREATE));
    EXPECT_EQ(View(Fcb(Handle)->FullPath), u"\\srv\\vol\\new");
    EXPECT_EQ(Instance(Handle)->TrailingSlash, 1);
}

// ---- Requests that no path is looked up for

TEST_F(Creates, AreRefusedBeforeTheProviderIsAskedWhenTheyCannotBeServed) {
    Bind();
    ExpectRefused(u"\\srv\\vol\\a.txt", With({}, FILE_OPEN, FILE_OPEN_BY_FILE_ID), STATUS_NOT_SUPPORTED);
    for (const ULONG Disposition : {6u, 7u, 0xFFu}) {
        ExpectRefused(u"\\srv\\vol\\a.txt", With({}, Disposition), STATUS_INVALID_PARAMETER);
        ExpectRefused(u"\\srv\\vol", With(AsDirectory, Disposition), STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(Provider.CountCalls(), 0u);
    ExpectNothingOpen("refusals");
}

// ---- The trace of the parameters

// The bits named by the lines below the line of a value. A bit that is named twice is left out, which fails the test.
ULONG BitsBehind(const std::string &Printed, const std::string &Value) {
    const std::regex Named("    ([0-9a-f]+) = [A-Z_]+$");
    std::istringstream Lines(Printed.substr(std::min(Printed.find(Value), Printed.size())));
    std::string Line;
    std::getline(Lines, Line);
    ULONG Bits = 0;
    for (std::smatch Found; std::getline(Lines, Line) && std::regex_search(Line, Found, Named);) {
        Bits ^= static_cast<ULONG>(std::stoul(Found[1], nullptr, 16));
    }
    return Bits;
}

TEST_F(Creates, ShowEveryBitOfTheirParameters) {
    StartTracing(0x100020);
    FILE_OBJECT File = {};
    IO_SECURITY_CONTEXT Security = {};
    Security.DesiredAccess = 0xF31F01FF;
    IRP Irp = {};
    IO_STACK_LOCATION IrpSp = {};
    IrpSp.FileObject = &File;
    IrpSp.Flags = 0x87;
    IrpSp.Parameters.Create.SecurityContext = &Security;
    IrpSp.Parameters.Create.Options = 0x03F7FFFF; // 0x80000 has no name
    IrpSp.Parameters.Create.FileAttributes = 0xFFF7;
    IrpSp.Parameters.Create.ShareAccess = 7;
    IRP_CONTEXT IrpContext = Context();
    IrpContext.Flags = 0x7D6;
    NtFsdDumpCreateParameters(&IrpContext, &Irp, &IrpSp);
    EXPECT_EQ(BitsBehind(Printed, "pIrpSp->Flags "), 0x87u);
    EXPECT_EQ(BitsBehind(Printed, "DesiredAccess "), 0xF31F01FFu);
    EXPECT_EQ(BitsBehind(Printed, "CreateOptions "), 0xF7FFFFu);
    EXPECT_EQ(BitsBehind(Printed, "CreateDisposition "), FILE_OPEN_IF + 0u);
    EXPECT_EQ(BitsBehind(Printed, "FileAttributes "), 0xFFF7u);
    EXPECT_EQ(BitsBehind(Printed, "ShareAccess "), 7u);
    EXPECT_EQ(BitsBehind(Printed, "pIrpContext->Flags "), 0x7D6u);
}

} // namespace
