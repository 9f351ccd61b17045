#include "providers/directory/directory_provider.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <set>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "provider/framework.h"
#include "providers/directory/beneath.h"
#include "providers/directory/names.h"
#include "tests/providers/directory_fixture.h"

namespace providers::directory {
namespace {

namespace fs = std::filesystem;

constexpr ULONG ReadWrite = RV_ACCESS_READ | RV_ACCESS_WRITE;
constexpr RVSTATUS Done = RVSTATUS::Success;

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
    EXPECT_EQ(Provider.InterfaceReferences(), 1u);
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

TEST_F(DirectoryProviderTest, AbsolutePathsWorkWithoutABase) {
    Write("file", "text");
    RVHANDLE Handle = 0;
    EXPECT_EQ(Table->RVFsdCreateFile(Fsd, nullptr, 0, u"\\SRV\\Vol\\FILE", 1, 7, 0, 0, 0, &Handle, &Action), Done);
    Close(Handle);
    EXPECT_EQ(Table->RVFsdCreateFile(Fsd, nullptr, 0, u"\\nosrv\\Vol\\FILE", 1, 7, 0, 0, 0, &Handle, &Action),
              Failure(0x0517));
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
    EXPECT_TRUE(RvIsError(SetSize(Handle, INT64_MAX))) << "beyond what the file system can hold";
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

TEST_F(DirectoryProviderTest, NamesAreFoundInAnyCaseAndKeptAsTheyAre) {
    fs::create_directories(Root / "Straße" / "ÄÖ");
    Write("Straße/ÄÖ/Read Me.TXT", "umlaut");
    EXPECT_EQ(Content(u"straße\\äö\\READ me.txt"), "umlaut");
    EXPECT_EQ(Try(u"straße\\äö\\read me.txt", ReadWrite, RV_DISPOSITION_CREATE_NEW), Failure(0x0510));
    EXPECT_EQ(Try(u"straße\\äö\\NEW Name", ReadWrite, RV_DISPOSITION_CREATE_NEW), Done);
    EXPECT_TRUE(fs::exists(Root / "Straße" / "ÄÖ" / "NEW Name"));
}

TEST_F(DirectoryProviderTest, ChangesMadeElsewhereAreSeenAtOnce) {
    fs::create_directory(Root / "Dir");
    for (int Round = 0; Round < 50; ++Round) {
        EXPECT_EQ(Try(u"dir\\FILE"), Failure(0x0506));
        Write("Dir/File", "now");
        EXPECT_EQ(Content(u"dir\\FILE"), "now");
        fs::rename(Root / "Dir" / "File", Root / "Dir" / "fILE");
        EXPECT_EQ(Content(u"dir\\FILE"), "now");
        fs::rename(Root / "Dir", Root / "Other");
        EXPECT_EQ(Try(u"dir\\FILE"), Failure(0x0503));
        fs::create_directory(Root / "dir");
        EXPECT_EQ(Try(u"DIR\\file"), Failure(0x0506));
        fs::remove(Root / "dir");
        fs::rename(Root / "Other", Root / "Dir");
        fs::remove(Root / "Dir" / "fILE");
    }
}

TEST_F(DirectoryProviderTest, KnownDirectoriesAreNotReadAgain) {
    fs::create_directories(Root / "a" / "b");
    for (int Index = 0; Index < 200; ++Index) {
        EXPECT_EQ(Try(u"A\\B\\file" + ServedNumber(Index), ReadWrite, RV_DISPOSITION_CREATE_NEW), Done);
        EXPECT_EQ(Try(u"a\\b\\FILE" + ServedNumber(Index)), Done);
    }
    EXPECT_EQ(Provider.Exports()[0].DirectoryScans, 3u);
}

TEST_F(DirectoryProviderTest, NamesThatDifferOnlyInCaseAreAllServedAndNeverMixed) {
    const std::string Long(250, 'l');
    const std::string Natives[] = {"readme.txt", "Readme.txt", "README.txt", Long + ".html", Long + ".HTML"};
    for (const std::string &Native : Natives) {
        Write(Native, Native);
        EXPECT_EQ(Content({Native.begin(), Native.end()}), Native) << "an exact spelling is that very entry";
    }
    EXPECT_EQ(Content(u"rEADME.tXT"), "failed 1296") << "one spelling of several names is none of them";
    EXPECT_EQ(Try(u"rEADME.tXT", ReadWrite, RV_DISPOSITION_OPEN_OR_CREATE), Failure(CODE_EXISTS));
    const std::vector<std::u16string> Listed = Names(Volume);
    std::map<std::string, std::u16string> Marked;
    for (const std::u16string &Name : Listed) {
        EXPECT_LE(Name.size(), 255u);
        Marked[Content(Name)] = Name;
        EXPECT_EQ(Names(Volume, Name.c_str()), std::vector{Name});
    }
    ASSERT_EQ(Marked.size(), std::size(Natives)) << "each leads to another entry";
    // A name that was handed out names its file whatever goes and comes beside it, and nothing when that is gone.
    for (const std::string &Native : Natives) {
        fs::remove(Root / Native);
        EXPECT_EQ(Delete(Marked[Native]), Failure(CODE_NO_SUCH_FILE));
        for (const auto &[Other, Name] : Marked) {
            if (fs::exists(Root / Other)) {
                EXPECT_EQ(Content(Name), Other);
            }
        }
    }
    Write("readme.txt", "alone again");
    EXPECT_EQ(Names(Volume), std::vector<std::u16string>{u"readme.txt"});
    EXPECT_EQ(Delete(Marked["readme.txt"]), Done);
    EXPECT_FALSE(fs::exists(Root / "readme.txt"));
}

// A deletion comes after its handle was closed and by name alone.
TEST_F(DirectoryProviderTest, APendingDeletionTakesTheFileThatWasOpenedOrNone) {
    for (const bool Replaced : {true, false}) {
        for (const bool AtOpen : {true, false}) {
            Write("file", "opened");
            RVHANDLE Handle = 0;
            const ULONG Reserve = RV_OPTION_RESERVE_DELETE;
            ASSERT_EQ(Open(u"FILE", Handle, RV_ACCESS_DELETE, 3, 7, 0, AtOpen ? Reserve : 0), Done);
            if (!AtOpen) {
                EXPECT_EQ(Table->RVFsdModifyFileAccess(Fsd, nullptr, Handle, RV_ACCESS_DELETE, 7, Reserve), Done);
            }
            EXPECT_EQ(Move(u"file", u"moved"), Done);
            if (Replaced) {
                Write("other", "other");
                fs::rename(Root / "other", Root / "moved");
            }
            Close(Handle);
            EXPECT_EQ(Delete(u"Moved"), Replaced ? Failure(CODE_NO_SUCH_FILE) : Done);
            EXPECT_EQ(fs::exists(Root / "moved"), Replaced);
            fs::remove(Root / "moved");
        }
        fs::create_directory(Root / "dir");
        RVHANDLE Folder = 0;
        ASSERT_EQ(OpenFolder(u"dir", Folder), Done);
        if (Replaced) {
            fs::rename(Root / "dir", Root / "away");
            fs::create_directory(Root / "dir");
        }
        EXPECT_EQ(Table->RVFsdCloseDirectory(Fsd, nullptr, Folder), Done);
        EXPECT_EQ(DeleteFolder(u"dir"), Replaced ? Failure(RVFS_PATH_NOT_FOUND) : Done);
    }
}

TEST_F(DirectoryProviderTest, WhatIsNoFileIsNeverOpenedAndCanBeNamed) {
    fs::create_directory(Root / "dir");
    fs::create_symlink("nowhere", Root / "dangling");
    fs::create_symlink("loop", Root / "loop");
    fs::create_symlink("/etc/passwd", Root / "outward");
    fs::create_symlink("pipe", Root / "toPipe");
    ASSERT_EQ(mkfifo((Root / "pipe").c_str(), 0600), 0);
    ASSERT_EQ(mknod((Root / "socket").c_str(), S_IFSOCK | 0600, 0), 0);
    // Whoever opened the pipe for reading would let this open for writing succeed.
    const auto PipeIsOpened = [&]() -> bool {
        const UniqueFd Writer(open((Root / "pipe").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        return static_cast<bool>(Writer);
    };
    const std::vector<std::u16string> All = {u"dangling", u"dir", u"loop", u"outward", u"pipe", u"socket", u"toPipe"};
    EXPECT_EQ(Names(Volume), All);
    for (const std::u16string &Name : All) {
        if (Name == u"dir") {
            continue;
        }
        for (const ULONG Access :
             {ULONG{RV_ACCESS_READ}, ULONG{RV_ACCESS_WRITE}, ReadWrite, ULONG{RV_ACCESS_EXECUTE}}) {
            EXPECT_TRUE(RvIsError(Try(Name, Access))) << testing::PrintToString(Name);
        }
        EXPECT_EQ(Try(Name, RV_ACCESS_ATTRIBUTES, RV_DISPOSITION_QUERY), Done) << testing::PrintToString(Name);
        EXPECT_EQ(Try(Name, RV_ACCESS_DELETE | RV_ACCESS_ATTRIBUTES), Done) << testing::PrintToString(Name);
        RVHANDLE Handle = 0;
        ASSERT_EQ(Open(Name, Handle, RV_ACCESS_DELETE), Done);
        EXPECT_FALSE(PipeIsOpened());
        EXPECT_TRUE(RvIsError(Table->RVFsdModifyFileAccess(Fsd, nullptr, Handle, ReadWrite, 7, 0)));
        EXPECT_FALSE(PipeIsOpened());
        EXPECT_EQ(Table->RVFsdModifyFileAccess(Fsd, nullptr, Handle, RV_ACCESS_DELETE, 7, RV_OPTION_RESERVE_DELETE),
                  Done);
        EXPECT_EQ(Table->RVFsdModifyFileAccess(Fsd, nullptr, Handle, RV_ACCESS_DELETE, 7, 0), Done);
        Close(Handle);
        EXPECT_EQ(Move(Name, u"moved"), Done) << testing::PrintToString(Name);
        EXPECT_EQ(Move(u"MOVED", Name), Done) << testing::PrintToString(Name);
    }
    for (const std::u16string &Name : All) {
        EXPECT_EQ(Name == u"dir" ? DeleteFolder(Name) : Delete(Name), Done) << testing::PrintToString(Name);
    }
    EXPECT_TRUE(fs::is_empty(Root));
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

TEST_F(DirectoryProviderTest, NamesForbiddenOnThePlatformAreReachable) {
    const std::string Natives[] = {"a:b",   "tail.",         "tail ",    "q?*\"<>|",     "back\\slash",
                                   "\x01x", "latin\xE9.txt", "\xFF\xFE", "\xED\xA0\x80", "\xEF\x80\xAA"};
    for (const std::string &Native : Natives) {
        Write(Native, Native);
    }
    const std::vector<Listed> Entries = List(Volume);
    ASSERT_EQ(Entries.size(), std::size(Natives));
    std::set<std::string> Seen;
    for (const Listed &Entry : Entries) {
        Seen.insert(Content(Entry.Name));
    }
    EXPECT_EQ(Seen, std::set<std::string>(std::begin(Natives), std::end(Natives)));
}

TEST_F(DirectoryProviderTest, ShareModesHoldBetweenOpensOfOneFile) {
    Write("file", "text");
    fs::create_hard_link(Root / "file", Root / "link");
    const struct {
        ULONG FirstAccess, FirstShare, SecondAccess, SecondShare;
        bool Granted;
    } Cases[] = {
        {2, 7, 2, 7, true},    {2, 0, 2, 7, false}, {2, 1, 2, 1, true},  {2, 1, 4, 7, false},
        {4, 7, 2, 1, false},   {4, 7, 2, 3, true},  {8, 1, 2, 0, false}, {2, 3, 0x11, 7, false},
        {2, 7, 0x11, 7, true}, {1, 0, 6, 0, true},  {6, 0, 1, 0, true},  {0, 0, 2, 0, true},
    };
    for (const auto &Case : Cases) {
        RVHANDLE First = 0;
        ASSERT_EQ(Open(u"file", First, Case.FirstAccess, 3, Case.FirstShare), Done);
        const RVSTATUS Status = Try(u"link", Case.SecondAccess, 3, Case.SecondShare);
        EXPECT_EQ(Status, Case.Granted ? Done : Failure(0x050D))
            << Case.FirstAccess << " " << Case.FirstShare << " " << Case.SecondAccess << " " << Case.SecondShare;
        EXPECT_EQ(Try(u"file", RV_ACCESS_ATTRIBUTES, RV_DISPOSITION_QUERY, 0), Done) << "queries never conflict";
        Close(First);
        EXPECT_EQ(Try(u"file", ReadWrite, 3, 0), Done) << "nothing may be left of a refused open";
    }
    RVHANDLE Reader = 0;
    ASSERT_EQ(Open(u"file", Reader, RV_ACCESS_READ, 3, 1), Done);
    EXPECT_EQ(Try(u"file", RV_ACCESS_READ, RV_DISPOSITION_OVERWRITE_EXISTING), Failure(0x050D));
    EXPECT_EQ(Read("file"), "text") << "a refused overwrite must not empty the file";
    EXPECT_EQ(Delete(u"file"), Failure(0x050D));
    Close(Reader);
    EXPECT_EQ(Delete(u"file"), Done);
}

TEST_F(DirectoryProviderTest, AccessOfAnOpenFileCanBeChanged) {
    Write("file", "text");
    RVHANDLE Handle = 0;
    RVHANDLE Other = 0;
    ASSERT_EQ(Open(u"file", Handle, RV_ACCESS_READ), Done);
    EXPECT_EQ(Table->RVFsdModifyFileAccess(Fsd, nullptr, Handle, ReadWrite, 7, 0), Done);
    EXPECT_EQ(WriteAt(Handle, 0, "T"), Done);
    EXPECT_EQ(Table->RVFsdModifyFileAccess(Fsd, nullptr, Handle, RV_ACCESS_READ, 3, 0), Done);
    EXPECT_EQ(WriteAt(Handle, 0, "x"), RVSTATUS::AccessDenied);
    EXPECT_EQ(Table->RVFsdModifyFileAccess(Fsd, nullptr, Handle, 0x12, 3, RV_OPTION_RESERVE_DELETE), Done)
        << "the reserving open itself need not share deletion";
    EXPECT_EQ(Table->RVFsdModifyFileAccess(Fsd, nullptr, Handle, RV_ACCESS_READ, 7, 0), Done);
    ASSERT_EQ(Open(u"file", Other, RV_ACCESS_READ, 3, 3), Done);
    EXPECT_EQ(Table->RVFsdModifyFileAccess(Fsd, nullptr, Handle, 0x2, 7, RV_OPTION_RESERVE_DELETE), Failure(0x050D));
    Close(Other);
    Close(Handle);
    EXPECT_EQ(Read("file"), "Text") << "a reservation deletes nothing by itself";
}

TEST_F(DirectoryProviderTest, ByteRangeLocks) {
    Write("file", "0123456789");
    RVHANDLE One = 0;
    RVHANDLE Two = 0;
    ASSERT_EQ(Open(u"file", One, ReadWrite), Done);
    ASSERT_EQ(Open(u"FILE", Two, ReadWrite), Done);
    const auto Lock = [&](RVHANDLE Handle, bool Exclusive, ULONG64 At, ULONG64 Length) {
        return Table->RVFsdLockFile(Fsd, nullptr, Handle, Exclusive, At, Length);
    };
    const auto Unlock = [&](RVHANDLE Handle, ULONG64 At, ULONG64 Length) {
        return Table->RVFsdUnlockFile(Fsd, nullptr, Handle, At, Length);
    };
    std::string Text;
    EXPECT_EQ(Lock(One, true, 2, 3), Done);
    EXPECT_EQ(Lock(Two, false, 4, 1), Failure(0x051F));
    EXPECT_EQ(Lock(Two, true, 5, 1), Done);
    EXPECT_EQ(Lock(One, false, 2, 3), Done) << "shared over one's own exclusive lock";
    EXPECT_EQ(Lock(One, true, 2, 3), Failure(0x051F));
    EXPECT_EQ(ReadAt(Two, 0, 10, Text), Failure(0x051E));
    EXPECT_EQ(ReadAt(Two, 0, 2, Text), Done);
    EXPECT_EQ(ReadAt(One, 2, 3, Text), Done);
    EXPECT_EQ(WriteAt(Two, 3, "x"), Failure(0x051E));
    EXPECT_EQ(Unlock(Two, 2, 3), Failure(0x0537));
    EXPECT_EQ(Unlock(One, 2, 2), Failure(0x0537));
    EXPECT_EQ(Unlock(One, 2, 3), Done);
    EXPECT_EQ(Unlock(One, 2, 3), Done);
    EXPECT_EQ(Unlock(One, 2, 3), Failure(0x0537));
    EXPECT_EQ(Lock(One, true, UINT64_MAX, 1), Done);
    EXPECT_EQ(Lock(Two, true, UINT64_MAX, 1), Failure(0x051F));
    EXPECT_EQ(Lock(Two, true, UINT64_MAX, 2), RVSTATUS::InvalidParameter);
    Close(One);
    EXPECT_EQ(Lock(Two, true, UINT64_MAX, 1), Done) << "locks go with their handle";
    Close(Two);
}

// A second Provider over the directory stands for a second process: an open of its own sees the locks of the others.
TEST_F(DirectoryProviderTest, LocksAndDenialsAreSeenByOtherServersOfTheDirectory) {
    Write("file", "0123456789");
    DirectoryProvider Second;
    ASSERT_EQ(Second.AddExport(u"srv", u"Vol", Root), "");
    RVIOM_FSD *There = Second.Interface();
    const auto OpenThere = [&](ULONG Access, ULONG Share, RVHANDLE &Handle) {
        return There->Table->RVFsdCreateFile(There, nullptr, 0, u"\\srv\\vol\\file", Access, Share, 3, 0, 0, &Handle,
                                             &Action);
    };
    RVHANDLE One = 0;
    RVHANDLE Two = 0;
    ASSERT_EQ(Open(u"file", One, ReadWrite), Done);
    ASSERT_EQ(OpenThere(ReadWrite, 7, Two), Done);
    const auto Here = [&](bool Exclusive, ULONG64 At, ULONG64 Length) {
        return Table->RVFsdLockFile(Fsd, nullptr, One, Exclusive, At, Length);
    };
    const auto LocksThere = [&](ULONG64 At, bool Exclusive = true) {
        const RVSTATUS Status = There->Table->RVFsdLockFile(There, nullptr, Two, Exclusive, At, 1);
        if (Status == Done) {
            EXPECT_EQ(There->Table->RVFsdUnlockFile(There, nullptr, Two, At, 1), Done);
        }
        return Status == Done;
    };
    EXPECT_EQ(Here(true, 2, 6), Done);
    EXPECT_EQ(Here(false, 4, 6), Done) << "a shared one over its own takes nothing away";
    EXPECT_EQ(Here(true, INT64_MAX, 2), Done) << "beyond what the file system can name";
    EXPECT_EQ(Here(true, 100, UINT64_MAX - 100), Failure(CODE_LOCK_NOT_GRANTED));
    // Byte by byte: - free, s shared, x exclusive.
    const auto Map = [&] {
        std::string Seen;
        for (ULONG64 At = 0; At < 12; ++At) {
            Seen += LocksThere(At) ? '-' : LocksThere(At, false) ? 's' : 'x';
        }
        return Seen;
    };
    EXPECT_EQ(Map(), "--xxxxxxss--");
    EXPECT_EQ(Table->RVFsdModifyFileAccess(Fsd, nullptr, One, ReadWrite | RV_ACCESS_EXECUTE, 7, 0), Done);
    EXPECT_EQ(Table->RVFsdUnlockFile(Fsd, nullptr, One, 2, 6), Done);
    EXPECT_EQ(Map(), "----ssssss--");
    EXPECT_EQ(Table->RVFsdUnlockFile(Fsd, nullptr, One, 4, 6), Done);
    EXPECT_EQ(Map(), "------------");
    EXPECT_EQ(There->Table->RVFsdLockFile(There, nullptr, Two, true, 5, 1), Done);
    EXPECT_EQ(Here(true, 0, 10), Failure(CODE_LOCK_NOT_GRANTED));
    EXPECT_EQ(There->Table->RVFsdCloseFile(There, nullptr, Two), Done);
    EXPECT_EQ(Here(true, 0, 10), Done);
    Close(One);
    // What is denied here is refused there, and no longer when it is closed.
    ASSERT_EQ(Open(u"file", One, RV_ACCESS_READ, 3, 1), Done);
    EXPECT_EQ(OpenThere(ReadWrite, 7, Two), Failure(CODE_SHARING_VIOLATION));
    ASSERT_EQ(OpenThere(RV_ACCESS_READ, 1, Two), Done);
    EXPECT_EQ(There->Table->RVFsdCloseFile(There, nullptr, Two), Done);
    Close(One);
    ASSERT_EQ(OpenThere(ReadWrite, 0, Two), Done);
    EXPECT_EQ(Try(u"file"), Failure(CODE_SHARING_VIOLATION));
    EXPECT_EQ(There->Table->RVFsdCloseFile(There, nullptr, Two), Done);
    EXPECT_EQ(There->Table->Release(There), 0u);
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

TEST_F(DirectoryProviderTest, ErasingRightsFollowTheName) {
    Write("file", "");
    RVHANDLE Handle = 0;
    ASSERT_EQ(Open(u"file", Handle, 1, RV_DISPOSITION_QUERY), Done);
    USHORT Rights = 0;
    EXPECT_EQ(Table->RVFsdGetEffectiveRights(Fsd, nullptr, Handle, &Rights), Done);
    EXPECT_EQ(Rights, RV_RIGHT_ERASE);
    fs::rename(Root / "file", Root / "gone");
    Write("file", "another");
    EXPECT_EQ(Table->RVFsdGetEffectiveRights(Fsd, nullptr, Handle, &Rights), Failure(0x0506));
    Close(Handle);
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

TEST_F(DirectoryProviderTest, ListingsAreCompleteWhileEntriesComeAndGo) {
    for (int Index = 0; Index < 300; ++Index) {
        Write("name" + std::to_string(Index), std::string(static_cast<size_t>(Index), 'x'));
    }
    ULONG Key = 0;
    std::vector<Listed> Entries;
    std::vector<Listed> Count;
    for (int Round = 0;; ++Round) {
        const size_t Before = Entries.size();
        if (RvIsError(Batch(Volume, u"*", Key, Entries, Round % 2 != 0, 576))) {
            break;
        }
        // What was listed goes at once, new names come, and other searches run on the same handle.
        for (size_t Index = Before; Index < Entries.size(); ++Index) {
            EXPECT_EQ(Delete(Entries[Index].Name), Done);
            Write("aaa" + std::to_string(Index), "");
        }
        ULONG Other = 0;
        EXPECT_EQ(Batch(Volume, nullptr, Other, Count, false, 576), Done);
    }
    EXPECT_EQ(Key, 0xFFFFFFFFu);
    EXPECT_EQ(Batch(Volume, u"*", Key, Entries), Failure(0x0505)) << "asked again after the end";
    std::set<std::u16string> Distinct;
    for (const Listed &Entry : Entries) {
        EXPECT_TRUE(Distinct.insert(Entry.Name).second) << "listed twice";
        EXPECT_EQ(std::to_string(Entry.Size), std::string(Entry.Name.begin() + 4, Entry.Name.end()));
    }
    EXPECT_EQ(Distinct.size(), 300u);
    EXPECT_EQ(Names(Volume, u"AAA1?").size(), 10u);
    EXPECT_EQ(Names(Volume, u"aaa299"), std::vector<std::u16string>{u"aaa299"});
    EXPECT_TRUE(Names(Volume, u"nothing").empty());
    Key = 0x12000001;
    EXPECT_EQ(Batch(Volume, u"*", Key, Count), Failure(0x0101)) << "not a key that anybody got";
    Key = 0;
    EXPECT_EQ(Batch(Volume, u"*", Key, Count, false, 60), Failure(0x0007));
}

TEST_F(DirectoryProviderTest, ShortNamesLeadBackToTheirFiles) {
    Write("a rather long name.html", "long");
    Write("PLAIN.TXT", "plain");
    const std::vector<Listed> Entries = List(Volume, u"*", true);
    ASSERT_EQ(Entries.size(), 2u);
    const std::u16string Short = Entries[0].Short;
    EXPECT_EQ(Content(Short), "long");
    EXPECT_EQ(Entries[1].Short, u"");
    // A mask meets it in either form of the records, with and without wildcards.
    const std::vector<std::u16string> Long = {u"a rather long name.html"};
    for (const std::u16string &Mask : {Short, Short.substr(0, 6) + u"*", u"*~?" + Short.substr(8)}) {
        EXPECT_EQ(Names(Volume, Mask.c_str()), Long);
        EXPECT_EQ(List(Volume, Mask.c_str(), true)[0].Short, Short);
    }
    // A file of that very name takes it away, and gives it back.
    Write(std::string(Short.begin(), Short.end()), "other");
    EXPECT_EQ(List(Volume, u"a r*", true)[0].Short, u"");
    EXPECT_EQ(Content(Short), "other");
    EXPECT_EQ(Delete(Short), Done);
    EXPECT_EQ(List(Volume, u"a r*", true)[0].Short, Short);
    EXPECT_EQ(Delete(Short), Done);
    EXPECT_EQ(Content(Short), "failed 1286");
}

TEST_F(DirectoryProviderTest, ShortNamesAreUniqueInTheirDirectoryAndStayWhatTheyAre) {
    const auto Native = [](int Index) { return "one of many long names " + std::to_string(Index) + ".text"; };
    // A few hundred names, and pairs whose short names would be the same.
    std::set<int> Indices;
    std::map<std::u16string, int> Made;
    for (int Index = 0; Index < 40000; ++Index) {
        const std::string Name = Native(Index);
        const auto [First, New] =
            Made.try_emplace(providers::directory::ShortName(std::u16string(Name.begin(), Name.end())), Index);
        if (Index < 500 || !New) {
            Indices.insert({First->second, Index});
        }
    }
    ASSERT_GT(Indices.size(), 500u) << "some must collide, or this shows nothing";
    for (const int Index : Indices) {
        Write(Native(Index), Native(Index));
    }
    std::map<std::u16string, std::u16string> ByShort;
    size_t Without = 0;
    for (const Listed &Entry : List(Volume, u"*", true)) {
        Without += Entry.Short.empty();
        EXPECT_TRUE(Entry.Short.empty() || ByShort.emplace(Entry.Short, Entry.Name).second);
    }
    EXPECT_GT(Without, 0u);
    EXPECT_LT(Without, Indices.size() - 400);
    for (const int Index : Indices) {
        if (Index % 2 == 0) {
            fs::remove(Root / Native(Index));
        }
    }
    for (const Listed &Entry : List(Volume, u"*", true)) {
        if (!Entry.Short.empty()) {
            EXPECT_EQ(ByShort.try_emplace(Entry.Short, Entry.Name).first->second, Entry.Name);
            EXPECT_EQ(Content(Entry.Short), std::string(Entry.Name.begin(), Entry.Name.end()));
        }
    }
}

TEST_F(DirectoryProviderTest, LongPathsAreReached) {
    std::u16string Path;
    for (int Level = 0; Level < 40; ++Level) {
        Path += (Level == 0 ? u"" : u"\\") + std::u16string(200, u'd');
        ASSERT_EQ(MakeFolder(Path), Done) << Level;
    }
    EXPECT_EQ(Try(Path + u"\\file", ReadWrite, RV_DISPOSITION_CREATE_NEW), Done);
    EXPECT_EQ(Try(Path + u"\\FILE"), Done);
    EXPECT_EQ(Delete(Path + u"\\file"), Done);
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
}

class DirectoryTimeStampTest : public DirectoryProviderTest {
    ExportOptions Options() const override {
        return {.UseNotifications = false};
    }
};

TEST_F(DirectoryTimeStampTest, ChangesMadeElsewhereAreSeenWithoutNotifications) {
    fs::create_directory(Root / "Dir");
    for (int Round = 0; Round < 50; ++Round) {
        EXPECT_EQ(Try(u"dir\\FILE"), Failure(0x0506));
        Write("Dir/File", "now");
        EXPECT_EQ(Content(u"dir\\FILE"), "now");
        fs::remove(Root / "Dir" / "File");
    }
}

} // namespace
} // namespace providers::directory
