#include "providers/directory/directory_provider.h"

#include <atomic>
#include <set>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

#include "provider/framework.h"
#include "tests/providers/directory_fixture.h"
#include "tests/support/without_override.h"

namespace providers::directory {
namespace {

TEST(DirectoryStatus, EveryErrorNumberGivesAnError) {
    EXPECT_EQ(StatusFromErrno(0), Done);
    // Codes whose translation is informational or a warning: an operation that failed would look done.
    const std::set<USHORT> Mild = {0x0000, 0x0007, 0x0008, 0x0009, 0x000A, 0x000E, 0x0505, 0x0516, 0x051B, 0x0528};
    for (int Error = 1; Error < 4096; ++Error) {
        for (const RVSTATUS Status : {StatusFromErrno(Error), StatusFromLookup(Error)}) {
            EXPECT_TRUE(RvIsError(Status)) << Error;
            EXPECT_FALSE(Mild.contains(RvCode(Status))) << Error;
        }
    }
    const struct {
        int Error;
        ULONG Status;
    } Cases[] = {{ENOENT, 0xC7E70506},    {EACCES, 0xC7E70006}, {EROFS, 0xC7E70006},  {ENOSPC, 0xC7E70509},
                 {EDQUOT, 0xC7E7051D},    {EEXIST, 0xC7E70510}, {EISDIR, 0xC7E70521}, {ENOTDIR, 0xC7E70520},
                 {ENOTEMPTY, 0xC7E70513}, {EMFILE, 0xC7E70504}, {EXDEV, 0xC7E70534},  {ENOMEM, 0xC7E70005},
                 {EBADF, 0xC7E70003},     {EINVAL, 0xC7E70004}, {4095, 0xC7E70001}};
    for (const auto &Case : Cases) {
        EXPECT_EQ(static_cast<ULONG>(StatusFromErrno(Case.Error)), Case.Status) << Case.Error;
    }
    EXPECT_EQ(StatusFromLookup(EXDEV), RVSTATUS::AccessDenied);
}

TEST(DirectoryExports, SayWhyADirectoryCannotBeServed) {
    DirectoryProvider Provider;
    EXPECT_EQ(Provider.AddExport(u"\\\\s\\v", "/tmp"), "");
    EXPECT_EQ(Provider.AddExport(u"S", u"V", "/"), "cannot export /: its volume name already serves /tmp");
    EXPECT_EQ(Provider.AddExport(u"\\\\s\\w", "/no/such"), "cannot export /no/such: No such file or directory");
    EXPECT_EQ(Provider.AddExport(u"\\\\s\\w", "/etc/passwd"), "cannot export /etc/passwd: Not a directory");
    EXPECT_EQ(Provider.AddExport(u"\\\\s\\w\\x", "/tmp"),
              "cannot export /tmp: the name must be \\\\server\\volume, without a path after it");
    EXPECT_NE(Provider.AddExport(u"\\\\s", "/tmp"), "");
    EXPECT_EQ(Provider.Exports().size(), 1u);
}

TEST_F(DirectoryProviderTest, InterfaceCountsItsReferences) {
    const auto Query = reinterpret_cast<decltype(RVP_OBJECT_TABLE::QueryInterface)>(Table->QueryInterface);
    PVOID Second = nullptr;
    EXPECT_EQ(Query(reinterpret_cast<RVP_OBJECT *>(Fsd), &IID_Rvpl, &Second), RVPSTATUS::NoSuchClass);
    EXPECT_EQ(Query(reinterpret_cast<RVP_OBJECT *>(Fsd), &IID_Provider, &Second), RVPSTATUS::Success);
    EXPECT_EQ(Second, Fsd);
    EXPECT_EQ(Table->Release(Fsd), 1u);
}

TEST_F(DirectoryProviderTest, VolumesAreFoundByNameIgnoringCase) {
    const struct {
        const char16_t *Path;
        ULONG Status;
    } Cases[] = {
        {u"\\srv\\Vol\\dir\\file", 0},    {u"\\SRV\\VOL", 0},     {u"\\\\srv\\vol", 0}, {u"\\other\\vol", 0xC7E70517},
        {u"\\srv\\other\\x", 0xC7E7050A}, {u"\\srv", 0xC7E7050A}, {u"", 0xC7E70517}};
    for (const auto &Case : Cases) {
        char16_t Buffer[RV_PATH_BUFFER_BYTES / 2];
        EXPECT_EQ(static_cast<ULONG>(Table->RVFsdQueryPathForVolume(Fsd, nullptr, Case.Path, Buffer)), Case.Status);
        if (Case.Status == 0) {
            EXPECT_EQ(std::u16string(Buffer), u"\\srv\\Vol");
        }
    }
    RVHANDLE Handle = 1;
    EXPECT_EQ(Table->RVFsdOpenVolume(Fsd, nullptr, u"\\srv\\vol\\dir", &Handle), Failure(0x050A));
    EXPECT_EQ(Handle, 0u);
    EXPECT_EQ(Table->RVFsdGetDFSPhysicalPath(Fsd, nullptr, 0, nullptr, nullptr), RVSTATUS::InvalidParameter);
}

TEST_F(DirectoryProviderTest, VolumeFiguresAgreeWithTheFileSystem) {
    ULONG Flags = 0;
    UCHAR First[16];
    UCHAR Second[16];
    EXPECT_EQ(Table->RVFsdGetVolumeInformation(Fsd, nullptr, Volume, &Flags, First, nullptr, nullptr), Done);
    EXPECT_EQ(Flags, RV_VOLUME_IDENTIFIER_VALID);
    DirectoryProvider Again;
    ASSERT_EQ(Again.AddExport(u"x", u"y", Root), "");
    RVIOM_FSD *Other = Again.Interface();
    RVHANDLE Handle = 0;
    ASSERT_EQ(Other->Table->RVFsdOpenVolume(Other, nullptr, u"\\x\\y", &Handle), Done);
    EXPECT_EQ(Other->Table->RVFsdGetVolumeInformation(Other, nullptr, Handle, &Flags, Second, nullptr, nullptr), Done);
    EXPECT_EQ(memcmp(First, Second, 16), 0) << "the identifier must survive a restart";
    ULONG64 Length, Free, Allowed, After;
    EXPECT_EQ(Table->RVFsdGetVolumeSize(Fsd, nullptr, Volume, &Length, &Free, &Allowed, &After), Done);
    EXPECT_GT(Length, Free);
    EXPECT_EQ(Free, After) << "without a quota the plain free space";
}

TEST_F(DirectoryProviderTest, OutcomesOfOpening) {
    Write("file", "text");
    fs::create_directory(Root / "dir");
    fs::create_symlink("nowhere", Root / "dangling");
    ASSERT_EQ(mkfifo((Root / "pipe").c_str(), 0600), 0);
    const struct {
        const char16_t *Path;
        ULONG Disposition;
        ULONG Status;
        ULONG Action;
    } Cases[] = {
        {u"file", 0, 0, 1},
        {u"FILE", 3, 0, 1},
        {u"file", 1, 0xC7E70510, 0},
        {u"File", 4, 0, 1},
        {u"missing", 0, 0xC7E70506, 0},
        {u"missing", 3, 0xC7E70506, 0},
        {u"missing", 5, 0xC7E70506, 0},
        {u"nodir\\missing", 0, 0xC7E70503, 0},
        {u"nodir\\missing", 1, 0xC7E70503, 0},
        {u"file\\below", 3, 0xC7E70503, 0},
        {u"dir", 0, 0xC7E70521, 0},
        {u"dir", 3, 0xC7E70521, 0},
        {u"dir", 2, 0xC7E70521, 0},
        {u"dir", 1, 0xC7E70510, 0},
        {u"", 0, 0xC7E70521, 0},
        {u"dir\\..\\file", 3, 0xC7E70503, 0},
        {u"..", 0, 0xC7E70515, 0},
        {u"bad:name", 4, 0xC7E70515, 0},
        {u"dangling", 3, 0xC7E70506, 0},
        {u"dangling", 0, 0, 1},
        {u"dangling", 4, 0xC7E70510, 0},
        {u"pipe", 3, 0xC7E70006, 0},
        {u"pipe", 0, 0, 1},
        {u"file", 6, 0xC7E70004, 0},
        {u"new1", 1, 0, 2},
        {u"new2", 2, 0, 2},
        {u"new4", 4, 0, 2},
        {u"NEW4", 5, 0, 3},
        {u"new2", 2, 0, 3},
    };
    for (const auto &Case : Cases) {
        const auto What = testing::PrintToString(Case.Path) + " " + std::to_string(Case.Disposition);
        const RVSTATUS Status = Try(Case.Path, RV_ACCESS_READ, Case.Disposition);
        if (Case.Path == std::u16string(u"dir\\..\\file")) {
            EXPECT_TRUE(RvIsError(Status)) << What;
            continue;
        }
        EXPECT_EQ(static_cast<ULONG>(Status), Case.Status) << What;
        EXPECT_EQ(Action, Case.Action) << What;
    }
    RVHANDLE Folder = 0;
    EXPECT_EQ(OpenFolder(u"file", Folder), Failure(0x0520));
    EXPECT_EQ(OpenFolder(u"missing", Folder), Failure(0x0506));
    EXPECT_EQ(OpenFolder(u"nodir\\x", Folder), Failure(0x0503));
    EXPECT_EQ(MakeFolder(u"DIR"), Failure(0x0510));
    EXPECT_EQ(MakeFolder(u"nodir\\x"), Failure(0x0503));
    EXPECT_EQ(Try(u"\\srv\\vol\\file"), Failure(0x0503)) << "with a base handle a path is relative";
}

TEST_F(DirectoryProviderTest, DataGoesWhereItIsToldAndSizesFollow) {
    RVHANDLE Handle = 0;
    ASSERT_EQ(Open(u"data", Handle, ReadWrite, RV_DISPOSITION_CREATE_NEW), Done);
    ULONG64 Bytes = 0;
    EXPECT_EQ(WriteAt(Handle, 10, "hello", &Bytes), Done);
    EXPECT_EQ(Bytes, 5u);
    std::string Text;
    EXPECT_EQ(ReadAt(Handle, 8, 100, Text), Done);
    EXPECT_EQ(Text, std::string("\0\0hello", 7));
    EXPECT_EQ(ReadAt(Handle, 15, 100, Text), Done) << "a read at the end succeeds with nothing";
    EXPECT_EQ(Text, "");
    EXPECT_EQ(SetSize(Handle, 12), Done);
    ULONG64 Size = 0;
    EXPECT_EQ(Table->RVFsdGetFileSize(Fsd, nullptr, Handle, &Size), Done);
    EXPECT_EQ(Size, 12u);
    EXPECT_EQ(WriteAt(Handle, -1, "x"), RVSTATUS::InvalidParameter);
    EXPECT_EQ(WriteAt(Handle, INT64_MAX, "xy"), RVSTATUS::InvalidParameter);
    EXPECT_EQ(RvIsError(SetSize(Handle, INT64_MAX)), truncate((Root / "data").c_str(), INT64_MAX) != 0)
        << "what the file system can hold";
    EXPECT_EQ(SetSize(Handle, 12), Done);
    EXPECT_EQ(Table->RVFsdFlushFile(Fsd, nullptr, Handle), Done);
    // The length argument counts, whatever the byte count holds before the call.
    LONG64 Offset = 10;
    char Buffer[2] = {'-', '-'};
    Bytes = 1000;
    EXPECT_EQ(Table->RVFsdReadFile(Fsd, nullptr, Handle, &Offset, 1, Buffer, &Bytes), Done);
    EXPECT_EQ(Bytes, 1u);
    EXPECT_EQ(std::string_view(Buffer, 2), "h-");
    EXPECT_EQ(Offset, 10);
    Close(Handle);
    ASSERT_EQ(Open(u"data", Handle, RV_ACCESS_READ), Done);
    EXPECT_EQ(WriteAt(Handle, 0, "x"), RVSTATUS::AccessDenied);
    Close(Handle);
    ASSERT_EQ(Open(u"data", Handle, RV_ACCESS_ATTRIBUTES, RV_DISPOSITION_QUERY), Done);
    EXPECT_EQ(ReadAt(Handle, 0, 1, Text), RVSTATUS::AccessDenied);
    Close(Handle);
}

TEST_F(DirectoryProviderTest, ClosedAndForeignHandlesAreRefused) {
    Write("file", "text");
    RVHANDLE File = 0;
    RVHANDLE Folder = 0;
    ASSERT_EQ(Open(u"file", File), Done);
    ASSERT_EQ(OpenFolder(u"", Folder), Done);
    std::string Text;
    EXPECT_EQ(ReadAt(Folder, 0, 1, Text), RVSTATUS::InvalidHandle);
    EXPECT_EQ(Table->RVFsdCloseFile(Fsd, nullptr, Volume), RVSTATUS::InvalidHandle);
    EXPECT_EQ(Table->RVFsdCloseDirectory(Fsd, nullptr, Volume), RVSTATUS::InvalidHandle);
    EXPECT_EQ(Table->RVFsdCloseVolume(Fsd, nullptr, Folder), RVSTATUS::InvalidHandle);
    EXPECT_EQ(Table->RVFsdGetDirectoryInformation(Fsd, nullptr, File, nullptr, nullptr, nullptr, nullptr),
              RVSTATUS::InvalidHandle);
    ASSERT_EQ(Provider.ListOpenHandles().size(), 3u);
    EXPECT_EQ(Provider.ListOpenHandles()[1].Kind, "file");
    EXPECT_EQ(Provider.ListOpenHandles()[1].Path, (Root / "file").string());
    Close(File);
    EXPECT_EQ(Table->RVFsdCloseDirectory(Fsd, nullptr, Folder), Done);
    for (int Round = 0; Round < 100; ++Round) {
        RVHANDLE Next = 0;
        ASSERT_EQ(Open(u"file", Next), Done);
        EXPECT_NE(Next, File);
        EXPECT_EQ(ReadAt(File, 0, 1, Text), RVSTATUS::InvalidHandle) << "must not reach the new file";
        EXPECT_EQ(Table->RVFsdCloseFile(Fsd, nullptr, File), RVSTATUS::InvalidHandle);
        Close(Next);
    }
    for (const RVHANDLE Made : {RVHANDLE{0}, RVHANDLE{1}, RVHANDLE{~0ull}, RVHANDLE{0xFFFFFF}}) {
        EXPECT_EQ(Table->RVFsdCloseFile(Fsd, nullptr, Made), RVSTATUS::InvalidHandle);
    }
}

// Counted in directories read: an exact name asks for none, what one entry costs does not depend on the others.
TEST_F(DirectoryProviderTest, ADirectoryIsReadOnlyForWhatItsNamesDoNotTellThemselves) {
    fs::create_directory(Root / "many");
    for (int Index = 0; Index < 300; ++Index) {
        Write("many/Name" + std::to_string(Index), "");
    }
    fs::create_symlink("nowhere", Root / "many" / "dangling");
    const auto Scans = [&] { return Provider.Exports()[0].DirectoryScans; };
    EXPECT_EQ(Try(u"many\\Name7"), Done);
    EXPECT_EQ(Try(u"many\\dangling"), Failure(CODE_NO_SUCH_FILE));
    EXPECT_EQ(Scans(), 0u);
    for (int Round = 0; Round < 50; ++Round) {
        EXPECT_EQ(Try(u"many\\missing"), Failure(CODE_NO_SUCH_FILE));
        EXPECT_EQ(Try(u"many\\DANGLING"), Failure(CODE_NO_SUCH_FILE));
        Write("many/nAME7", "a collision");
        EXPECT_EQ(Try(u"many\\new", ReadWrite, RV_DISPOSITION_CREATE_NEW), Done);
        EXPECT_EQ(Delete(u"many\\NEW"), Done);
        fs::remove(Root / "many" / "nAME7");
        EXPECT_EQ(Try(u"many\\NAME7"), Done);
    }
    EXPECT_EQ(Scans(), 1u);
}

TEST_F(DirectoryProviderTest, AttributesAndTimesAreKept) {
    RVHANDLE Handle = 0;
    ASSERT_EQ(Open(u"file", Handle, ReadWrite, RV_DISPOSITION_CREATE_NEW, 7,
                   RV_ATTR_READONLY | RV_ATTR_HIDDEN | RV_ATTR_ARCHIVE),
              Done);
    EXPECT_EQ(WriteAt(Handle, 0, "x"), Done) << "the creating open may write what will be read-only";
    LONG64 Creation = 125'000'000'001'234'567, LastWrite = 126'000'000'007'654'321, LastAccess = -1, Zero = 0;
    EXPECT_EQ(Table->RVFsdSetFileInformation(Fsd, nullptr, Handle, nullptr, &Creation, &LastWrite, &LastAccess), Done);
    EXPECT_EQ(Table->RVFsdSetFileInformation(Fsd, nullptr, Handle, nullptr, &Zero, &Zero, &Zero), Done);
    Close(Handle);
    EXPECT_EQ(Try(u"file", RV_ACCESS_WRITE), RVSTATUS::AccessDenied);
    EXPECT_EQ(Delete(u"file"), RVSTATUS::AccessDenied);
    ASSERT_EQ(Open(u"file", Handle, 0), Done);
    ULONG Attributes = 0;
    LONG64 Times[3];
    ULONG64 Size = 0;
    UCHAR Bytes[5] = {9, 9, 9, 9, 9};
    EXPECT_EQ(Table->RVFsdGetFileInformation(Fsd, nullptr, Handle, &Attributes, &Times[0], &Times[1], &Times[2], &Size,
                                             nullptr, &Bytes[0], &Bytes[1], &Bytes[2], &Bytes[3], &Bytes[4]),
              Done);
    EXPECT_EQ(Attributes, ULONG{RV_ATTR_READONLY | RV_ATTR_HIDDEN | RV_ATTR_ARCHIVE});
    EXPECT_EQ(Times[0], Creation);
    EXPECT_EQ(Times[1], LastWrite);
    EXPECT_GT(Times[2], LastWrite);
    EXPECT_EQ(Size, 1u);
    EXPECT_EQ(Bytes[4], 0);
    ULONG None = 0;
    EXPECT_EQ(Table->RVFsdSetFileInformation(Fsd, nullptr, Handle, &None, nullptr, nullptr, nullptr), Done);
    EXPECT_EQ(Table->RVFsdGetBasicFileInformation(Fsd, nullptr, Handle, &Attributes, nullptr, nullptr, nullptr), Done);
    EXPECT_EQ(Attributes, 0u);
    Close(Handle);
    EXPECT_EQ(Delete(u"file"), Done);
}

TEST_F(DirectoryProviderTest, VolumeHandlesServeAsDirectories) {
    ULONG Attributes = 0;
    EXPECT_EQ(Table->RVFsdGetDirectoryInformation(Fsd, nullptr, Volume, &Attributes, nullptr, nullptr, nullptr), Done);
    EXPECT_EQ(Attributes, ULONG{RV_ATTR_DIRECTORY});
    ULONG Hidden = RV_ATTR_HIDDEN | RV_ATTR_DIRECTORY;
    EXPECT_EQ(Table->RVFsdSetDirectoryInformation(Fsd, nullptr, Volume, &Hidden, nullptr, nullptr, nullptr), Done);
    EXPECT_EQ(Table->RVFsdGetDirectoryInformation(Fsd, nullptr, Volume, &Attributes, nullptr, nullptr, nullptr), Done);
    EXPECT_EQ(Attributes, Hidden);
    ULONG64 Id = 0;
    struct stat Stat;
    ASSERT_EQ(stat(Root.c_str(), &Stat), 0);
    EXPECT_EQ(Table->RVFsdGetFileId(Fsd, nullptr, Volume, &Id), Done);
    EXPECT_EQ(Id, Stat.st_ino);
    USHORT Rights = 0xFFFF;
    EXPECT_EQ(Table->RVFsdGetEffectiveRights(Fsd, nullptr, Volume, &Rights), Done);
    EXPECT_EQ(Rights, RV_RIGHT_ERASE) << "names in the root may be erased";
    EXPECT_TRUE(Names(Volume).empty());
}

TEST_F(DirectoryProviderTest, DeletingAndMoving) {
    fs::create_directories(Root / "dir" / "sub");
    Write("file", "f");
    Write("Other", "o");
    EXPECT_EQ(DeleteFolder(u"dir"), Failure(0x0513));
    EXPECT_EQ(DeleteFolder(u"file"), Failure(0x0520));
    EXPECT_EQ(Delete(u"dir"), Failure(0x0521));
    EXPECT_EQ(Delete(u"none"), Failure(0x0506));
    EXPECT_EQ(Delete(u"none\\x"), Failure(0x0503));
    EXPECT_EQ(DeleteFolder(u""), RVSTATUS::AccessDenied);
    EXPECT_EQ(Move(u"file", u"OTHER"), Failure(0x0510));
    EXPECT_EQ(Read("Other"), "o");
    EXPECT_EQ(Move(u"none", u"x"), Failure(0x0506));
    EXPECT_EQ(Move(u"dir", u"x"), Failure(0x0521));
    EXPECT_EQ(Move(u"file", u"bad:"), Failure(0x0515));
    EXPECT_EQ(Move(u"file", u"FILE"), Done) << "only the case changes";
    EXPECT_TRUE(fs::exists(Root / "FILE"));
    EXPECT_FALSE(fs::exists(Root / "file"));
    RVHANDLE Folder = 0;
    ASSERT_EQ(OpenFolder(u"DIR", Folder), Done);
    EXPECT_EQ(Table->RVFsdMoveFile(Fsd, nullptr, Volume, u"file", Folder, u"in"), Done);
    EXPECT_EQ(Read("dir/in"), "f");
    EXPECT_EQ(Table->RVFsdMoveDirectory(Fsd, nullptr, Volume, u"dir", Folder, u"loop"), RVSTATUS::InvalidParameter);
    EXPECT_EQ(Table->RVFsdMoveDirectory(Fsd, nullptr, Folder, u"SUB", Volume, u"up"), Done);
    EXPECT_EQ(Table->RVFsdMoveDirectory(Fsd, nullptr, Folder, u"in", Volume, u"up2"), Failure(0x0520));
    EXPECT_EQ(Table->RVFsdCloseDirectory(Fsd, nullptr, Folder), Done);
    EXPECT_EQ(DeleteFolder(u"UP"), Done);
    ASSERT_EQ(Provider.AddExport(u"srv", u"second", Outer), "");
    RVHANDLE Second = 0;
    ASSERT_EQ(Table->RVFsdOpenVolume(Fsd, nullptr, u"\\srv\\second", &Second), Done);
    EXPECT_EQ(Table->RVFsdMoveFile(Fsd, nullptr, Volume, u"other", Second, u"x"), Failure(0x0534));
    EXPECT_EQ(Table->RVFsdCloseVolume(Fsd, nullptr, Second), Done);
}

TEST_F(DirectoryProviderTest, ConcurrentCallsKeepTheirPromises) {
    std::atomic<int> Created = 0;
    std::atomic<int> Broken = 0;
    std::vector<std::thread> Threads;
    for (int Thread = 0; Thread < 4; ++Thread) {
        Threads.emplace_back([&, Thread] {
            for (int Round = 0; Round < 300; ++Round) {
                // The same names in different cases: each is created once.
                std::u16string Name = Thread % 2 != 0 ? u"shared" : u"SHARED";
                Name += ServedNumber(Round);
                RVHANDLE Handle = 0;
                ULONG Did = 0;
                const RVSTATUS Status = Table->RVFsdCreateFile(Fsd, nullptr, Volume, Name.c_str(), ReadWrite, 7,
                                                               RV_DISPOSITION_CREATE_NEW, 0, 0, &Handle, &Did);
                if (Status == Done) {
                    ++Created;
                    LONG64 Offset = 0;
                    char Buffer[16] = "written";
                    ULONG64 Bytes = 0;
                    Broken += Table->RVFsdWriteFile(Fsd, nullptr, Handle, &Offset, 7, Buffer, &Bytes) != Done;
                    std::thread Closer([&] { Table->RVFsdCloseFile(Fsd, nullptr, Handle); });
                    const RVSTATUS Late = Table->RVFsdReadFile(Fsd, nullptr, Handle, &Offset, 7, Buffer, &Bytes);
                    Broken += Late != Done && Late != RVSTATUS::InvalidHandle;
                    Closer.join();
                } else {
                    Broken += Status != Failure(CODE_EXISTS);
                }
            }
        });
    }
    for (std::thread &Thread : Threads) {
        Thread.join();
    }
    EXPECT_EQ(Created, 300);
    EXPECT_EQ(Broken, 0);
    EXPECT_EQ(Names(Volume).size(), 300u);
}

class ReadOnlyExportTest : public DirectoryProviderTest {
    ExportOptions Options() const override {
        return {.ReadOnly = true};
    }
};

TEST_F(ReadOnlyExportTest, NothingCanBeChanged) {
    Write("file", "text");
    fs::create_directory(Root / "dir");
    EXPECT_EQ(Content(u"file"), "text");
    EXPECT_EQ(Try(u"file", RV_ACCESS_WRITE), RVSTATUS::AccessDenied);
    EXPECT_EQ(Try(u"file", RV_ACCESS_READ, RV_DISPOSITION_OVERWRITE_EXISTING), RVSTATUS::AccessDenied);
    EXPECT_EQ(Try(u"new", RV_ACCESS_READ, RV_DISPOSITION_OPEN_OR_CREATE), RVSTATUS::AccessDenied);
    EXPECT_EQ(MakeFolder(u"new"), RVSTATUS::AccessDenied);
    EXPECT_EQ(Delete(u"file"), RVSTATUS::AccessDenied);
    EXPECT_EQ(DeleteFolder(u"dir"), RVSTATUS::AccessDenied);
    EXPECT_EQ(Move(u"file", u"new"), RVSTATUS::AccessDenied);
    RVHANDLE Handle = 0;
    ASSERT_EQ(Open(u"file", Handle), Done);
    ULONG Hidden = RV_ATTR_HIDDEN;
    EXPECT_EQ(Table->RVFsdSetFileInformation(Fsd, nullptr, Handle, &Hidden, nullptr, nullptr, nullptr),
              RVSTATUS::AccessDenied);
    EXPECT_EQ(Table->RVFsdModifyFileAccess(Fsd, nullptr, Handle, ReadWrite, 7, 0), RVSTATUS::AccessDenied);
    Close(Handle);
    EXPECT_EQ(Read("file"), "text");
}

class DirectoryQuotaTest : public DirectoryProviderTest {
    ExportOptions Options() const override {
        return {.QuotaBytes = 1000};
    }
};

TEST_F(DirectoryQuotaTest, GrowthIsChargedAndGivenBack) {
    const auto Left = [&] {
        ULONG64 Allowed = 0, After = 0;
        EXPECT_EQ(Table->RVFsdGetVolumeSize(Fsd, nullptr, Volume, nullptr, nullptr, &Allowed, &After), Done);
        EXPECT_EQ(Allowed, 1000u);
        return After;
    };
    RVHANDLE Handle = 0;
    ASSERT_EQ(Open(u"file", Handle, ReadWrite, RV_DISPOSITION_CREATE_NEW), Done);
    EXPECT_EQ(WriteAt(Handle, 0, std::string(600, 'x')), Done);
    EXPECT_EQ(WriteAt(Handle, 100, std::string(500, 'y')), Done) << "writing over what is there costs nothing";
    EXPECT_EQ(Left(), 400u);
    EXPECT_EQ(WriteAt(Handle, 600, std::string(401, 'x')), Failure(0x051D));
    EXPECT_EQ(SetSize(Handle, 1001), Failure(0x051D));
    EXPECT_EQ(WriteAt(Handle, 600, std::string(400, 'x')), Done);
    EXPECT_EQ(Left(), 0u);
    EXPECT_EQ(SetSize(Handle, 300), Done);
    EXPECT_EQ(Left(), 700u);
    Close(Handle);
    EXPECT_EQ(Try(u"file", RV_ACCESS_READ, RV_DISPOSITION_CREATE_OR_REPLACE), Done);
    EXPECT_EQ(Left(), 1000u);
    // What cannot be counted is not served with a quota, and without one it is.
    fs::permissions(Outer, fs::perms(0755));
    fs::create_directories(Root / "open" / "closed");
    fs::permissions(Root / "open" / "closed", fs::perms::none);
    test::WithoutOverride([&] {
        EXPECT_EQ(Provider.AddExport(u"srv", u"counted", Root, {.QuotaBytes = 1000}),
                  "cannot export " + Root.string() + ": its quota cannot be counted: open/closed: Permission denied");
        EXPECT_EQ(Provider.AddExport(u"srv", u"free", Root), "");
    });
    EXPECT_EQ(Provider.Exports().size(), 2u);
    fs::permissions(Root / "open" / "closed", fs::perms::owner_all);
}

} // namespace
} // namespace providers::directory
