#include "providers/directory/directory_provider.h"

#include <functional>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "providers/directory/beneath.h"
#include "providers/directory/last_look.h"
#include "tests/providers/directory_fixture.h"
#include "tests/support/without_override.h"

namespace providers::directory {
namespace {

// A deletion comes after its handle was closed and by name alone.
TEST_F(DirectoryProviderTest, APendingDeletionTakesTheFileThatWasOpenedOrNone) {
    for (const bool Replaced : {true, false}) {
        for (const char *When : {"at the open", "before the move", "after it"}) {
            const bool AtOpen = When == std::string_view("at the open");
            const bool After = When == std::string_view("after it");
            Write("file", "opened");
            RVHANDLE Handle = 0;
            const ULONG Reserve = RV_OPTION_RESERVE_DELETE;
            ASSERT_EQ(Open(u"FILE", Handle, RV_ACCESS_DELETE, 3, 7, 0, AtOpen ? Reserve : 0), Done);
            for (const bool Moves : {After, !After}) {
                if (Moves) {
                    EXPECT_EQ(Move(u"file", u"FILE"), Done);
                    EXPECT_EQ(Move(u"file", u"moved"), Done);
                } else if (!AtOpen) {
                    EXPECT_EQ(Table->RVFsdModifyFileAccess(Fsd, nullptr, Handle, RV_ACCESS_DELETE, 7, Reserve), Done);
                }
            }
            if (Replaced) {
                Write("other", "other");
                fs::rename(Root / "other", Root / "moved");
            }
            Close(Handle);
            EXPECT_EQ(Delete(u"Moved"), Replaced ? Failure(CODE_NO_SUCH_FILE) : Done);
            EXPECT_EQ(fs::exists(Root / "moved"), Replaced) << When;
            fs::remove(Root / "moved");
            Write("file", "another one");
            EXPECT_EQ(Delete(u"file"), Done) << When;
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
        fs::remove(Root / "dir");
        fs::remove(Root / "away");
        // A file that has the name of a directory that was closed is no part of that deletion.
        fs::create_directory(Root / "dir");
        ASSERT_EQ(OpenFolder(u"dir", Folder), Done);
        EXPECT_EQ(Table->RVFsdCloseDirectory(Fsd, nullptr, Folder), Done);
        fs::rename(Root / "dir", Root / "away");
        Write("dir", "");
        EXPECT_EQ(Delete(u"dir"), Done);
        fs::remove(Root / "away");
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
    const auto PipeIsOpened = [&](const char *Name = "pipe") -> bool {
        const UniqueFd Writer(open((Root / Name).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        return static_cast<bool>(Writer);
    };
    std::vector<std::u16string> All = {u"dangling", u"dir", u"loop", u"outward", u"pipe", u"socket", u"toPipe"};
    if (mknod((Root / "device").c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0) {
        All.insert(All.begin() + 1, u"device");
    }
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
    // Nor when it takes a file's place between the question what is there and the open.
    Write("file", "");
    EXPECT_EQ(Try(u"file", RV_ACCESS_ATTRIBUTES, RV_DISPOSITION_QUERY), Done);
    fs::rename(Root / "pipe", Root / "file");
    RVHANDLE Handle = 0;
    static_cast<void>(Open(u"file", Handle));
    EXPECT_FALSE(PipeIsOpened("file"));
    EXPECT_TRUE(Handle == 0 || Table->RVFsdCloseFile(Fsd, nullptr, Handle) == Done);
    fs::rename(Root / "file", Root / "pipe");
    for (const std::u16string &Name : All) {
        EXPECT_EQ(Name == u"dir" ? DeleteFolder(Name) : Delete(Name), Done) << testing::PrintToString(Name);
    }
    EXPECT_TRUE(fs::is_empty(Root));
}

// The clock of looks stands still but for what a test adds.
class Looks : public DirectoryProviderTest {
protected:
    static inline int64_t Time = 1;
    const decltype(LookClock) Real = std::exchange(LookClock, [] { return Time; });
    ~Looks() override {
        LookClock = Real;
    }

    static constexpr int64_t Longest = 500'000;
    // What a query open finds: by the whole path, or below the volume.
    RVSTATUS Ask(const std::u16string &Path, bool Whole = true) {
        RVHANDLE Handle = 0;
        const RVSTATUS Status =
            Table->RVFsdCreateFile(Fsd, nullptr, Whole ? 0 : Volume, ((Whole ? u"\\srv\\vol\\" : u"") + Path).c_str(),
                                   RV_ACCESS_ATTRIBUTES, 7, RV_DISPOSITION_QUERY, 0, 0, &Handle, &Action);
        EXPECT_EQ(Handle != 0, Status == Done);
        if (Handle != 0) {
            Close(Handle);
        }
        return Status;
    }
    // As an open does between its questions; one that fails closes the volume again.
    void OpenAnotherVolume(bool AndClose = false) {
        RVHANDLE Handle = 0;
        EXPECT_EQ(Table->RVFsdOpenVolume(Fsd, nullptr, u"\\srv\\vol", &Handle), Done);
        if (AndClose) {
            EXPECT_EQ(Table->RVFsdCloseVolume(Fsd, nullptr, Handle), Done);
        } else {
            Volumes.push_back(Handle);
        }
    }
    void TearDown() override {
        for (const RVHANDLE Each : Volumes) {
            EXPECT_EQ(Table->RVFsdCloseVolume(Fsd, nullptr, Each), Done);
        }
        DirectoryProviderTest::TearDown();
    }
    std::vector<RVHANDLE> Volumes;
};

// An open takes what its first question found. What was changed here since is seen all the same, and by what is another
// open, all.
TEST_F(Looks, WhatIsOpenedIsWhatTheOpenFoundFirst) {
    const auto Exchange = [&] { fs::rename(Root / "other", Root / "file"); };
    const auto IsThere = [&](const char16_t *Name) { EXPECT_EQ(Ask(Name), Done); };
    const struct {
        std::function<void()> Change;
        std::string_view Content; // of "FILE" afterwards
    } Cases[] = {
        {[] {}, "text"},
        {Exchange, "text"},
        {[&] { Time += Longest, Exchange(); }, "text"},
        {[&] { Time += Longest + 1, Exchange(); }, "other"},
        {[&] { OpenAnotherVolume(), Exchange(), IsThere(u"FILE"); }, "text"},
        {[&] { OpenAnotherVolume(), Time += Longest + 1, Exchange(), IsThere(u"FILE"); }, "other"},
        {[&] { OpenAnotherVolume(true), Exchange(), IsThere(u"FILE"); }, "other"},
        {[&] { OpenAnotherVolume(true), Exchange(); }, "other"},
        {[&] { Exchange(), IsThere(u"FILE"); }, "other"},
        {[&] { IsThere(u"other"), Exchange(); }, "other"},
        {[&] { EXPECT_EQ(Delete(u"file"), Done); }, "failed 1286"},
        {[&] { std::thread([&] { EXPECT_EQ(Delete(u"file"), Done); }).join(); }, "failed 1286"},
        {[&] { EXPECT_EQ(Move(u"file", u"moved"), Done); }, "failed 1286"},
        {[&] {
             Write("FILE", "exact");
             EXPECT_EQ(Move(u"file", u"moved"), Done);
         },
         "exact"},
    };
    std::vector<UniqueFd> Inodes; // kept, so that none is met again under the name and counts as known
    for (const auto &Case : Cases) {
        Write("file", "text");
        Write("other", "other");
        Inodes.emplace_back(open((Root / "file").c_str(), O_PATH | O_CLOEXEC));
        EXPECT_EQ(Ask(u"FILE"), Done);
        Case.Change();
        EXPECT_EQ(Content(u"FILE"), Case.Content) << &Case - Cases;
        for (const char *Name : {"file", "FILE", "moved", "other"}) {
            fs::remove(Root / Name);
        }
    }
    // The same goes for a directory.
    for (const bool Again : {false, true}) {
        fs::create_directory(Root / "dir");
        EXPECT_EQ(Ask(u"DIR"), Failure(CODE_IS_A_DIRECTORY));
        fs::rename(Root / "dir", Root / "away");
        RVHANDLE Folder = 0;
        OpenAnotherVolume(Again);
        EXPECT_EQ(OpenFolder(u"DIR", Folder), Again ? Failure(CODE_NO_SUCH_FILE) : Done);
        EXPECT_TRUE(Folder == 0 || Table->RVFsdCloseDirectory(Fsd, nullptr, Folder) == Done);
        fs::remove(Root / "away");
    }
    // READONLY that was set meanwhile forbids writing.
    Write("file", "text");
    RVHANDLE Handle = 0;
    ULONG ReadOnly = RV_ATTR_READONLY;
    ASSERT_EQ(Open(u"file", Handle, RV_ACCESS_ATTRIBUTES), Done);
    EXPECT_EQ(Ask(u"\\file\\", false), Done);
    EXPECT_EQ(Table->RVFsdSetFileInformation(Fsd, nullptr, Handle, &ReadOnly, nullptr, nullptr, nullptr), Done);
    EXPECT_EQ(Try(u"file", RV_ACCESS_WRITE), RVSTATUS::AccessDenied);
    Close(Handle);
}

// What a question by the whole path did not find is not looked for again below the volume, until it came through here,
// and its directory not at all.
TEST_F(Looks, WhatIsMissingIsSeenWhenItComes) {
    const RVSTATUS Missing = Failure(CODE_NO_SUCH_FILE);
    const struct {
        std::function<void()> Make;
        RVSTATUS AtOnce; // below the volume
    } Cases[] = {
        {[&] { EXPECT_EQ(Try(u"Dir\\NAME", RV_ACCESS_WRITE, RV_DISPOSITION_CREATE_NEW), Done); }, Done},
        {[&] { std::thread([&] { EXPECT_EQ(MakeFolder(u"Dir\\Name"), Done); }).join(); }, Failure(CODE_IS_A_DIRECTORY)},
        {[&] { EXPECT_EQ(Move(u"Dir\\other", u"Dir\\name"), Done); }, Done},
        {[&] { Write("Dir/NAME", ""); }, Missing},
        {[&] { Write("Dir/NAME", ""), Time += Longest + 1; }, Done},
        {[&] { Write("Dir/NAME", ""), OpenAnotherVolume(true); }, Done},
        // One that came after the question is met by a create, whichever way it is spelled.
        {[&] {
             Write("Dir/NAME", "");
             EXPECT_EQ(Try(u"Dir\\name", RV_ACCESS_WRITE, RV_DISPOSITION_CREATE_NEW), Failure(CODE_EXISTS));
         },
         Done},
        {[&] {
             Write("Dir/name", "");
             EXPECT_EQ(Try(u"Dir\\name", RV_ACCESS_WRITE, RV_DISPOSITION_CREATE_NEW), Failure(CODE_EXISTS));
         },
         Done},
    };
    for (const auto &Case : Cases) {
        fs::create_directory(Root / "Dir");
        Write("Dir/other", "");
        EXPECT_EQ(Ask(u"Dir\\name"), Missing);
        EXPECT_EQ(Ask(u"Dir\\name", false), Missing);
        EXPECT_EQ(Ask(u"Dir\\other", false), Done);
        Case.Make();
        EXPECT_EQ(Ask(u"Dir\\name", false), Case.AtOnce) << &Case - Cases;
        EXPECT_NE(Ask(u"Dir\\name"), Missing) << &Case - Cases;
        EXPECT_NE(Ask(u"Dir\\name", false), Missing) << &Case - Cases;
        fs::remove_all(Root / "Dir");
    }
    for (const bool Again : {false, true}) {
        fs::create_directory(Root / "Dir");
        EXPECT_EQ(Ask(u"Dir\\name"), Missing);
        OpenAnotherVolume(Again);
        fs::remove(Root / "Dir");
        EXPECT_EQ(Ask(u"Dir"), Again ? Missing : Failure(CODE_IS_A_DIRECTORY));
        EXPECT_EQ(Ask(u"Di"), Missing);
    }
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

// What a user may do natively is what may be done here, no more and no less; and what is made is the user's.
TEST_F(DirectoryProviderTest, PermissionsAreThoseOfTheUserWhoServes) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "files of two users are needed";
    }
    fs::permissions(Outer, fs::perms(0755));
    // Directories: whose they are, and their mode. In each: a file of root's and one of the user's, of one mode.
    const struct {
        const char *Directory;
        bool Own;
        unsigned Mode;
        unsigned FileMode;
        // In this order: read root's, write root's, read own, hide root's, hide own, find root's in another case,
        // create, rename root's, delete root's, delete own. 1 = allowed.
        std::string_view User;
    } Cases[] = {
        {"own", true, 0755, 0644, "1010111111"},         {"private", true, 0700, 0600, "0010101111"},
        {"root's", false, 0755, 0644, "1010110000"},     {"closed", false, 0700, 0666, "0000000000"},
        {"sticky", false, 01777, 0666, "1111111001"},    {"unlisted", false, 0711, 0666, "1111100000"},
        {"unsearched", false, 0744, 0666, "0000000000"},
    };
    for (const auto &Case : Cases) {
        for (const bool AsRoot : {false, true}) {
            const fs::path Where = Root / Case.Directory;
            const auto Served = [&](const char *Name) {
                const std::string Path = std::string(Case.Directory) + "\\" + Name;
                return std::u16string(Path.begin(), Path.end());
            };
            fs::create_directory(Where);
            for (const char *Name : {"root", "mine"}) {
                Write(std::string(Case.Directory) + "/" + Name, "text");
                ASSERT_EQ(chmod((Where / Name).c_str(), Case.FileMode), 0);
            }
            ASSERT_EQ(chown((Where / "mine").c_str(), test::AnotherUser, test::AnotherUser), 0);
            ASSERT_EQ(chown(Where.c_str(), Case.Own ? test::AnotherUser : 0, 0), 0);
            ASSERT_EQ(chmod(Where.c_str(), Case.Mode), 0);
            std::string May;
            const auto Hide = [&](const char *Name) {
                RVHANDLE Handle = 0;
                ULONG Hidden = RV_ATTR_HIDDEN;
                RVSTATUS Status = Open(Served(Name), Handle, RV_ACCESS_ATTRIBUTES);
                if (Status == Done) {
                    Status = Table->RVFsdSetFileInformation(Fsd, nullptr, Handle, &Hidden, nullptr, nullptr, nullptr);
                    Close(Handle);
                }
                return Status;
            };
            const auto Ask = [&] {
                const auto Note = [&](RVSTATUS Status) { May += Status == Done ? '1' : '0'; };
                Note(Try(Served("root")));
                Note(Try(Served("root"), RV_ACCESS_WRITE));
                Note(Try(Served("mine"), ReadWrite));
                Note(Hide("root"));
                Note(Hide("mine"));
                Note(Try(Served("ROOT")));
                Note(Try(Served("new"), ReadWrite, RV_DISPOSITION_CREATE_NEW));
                Note(Move(Served("root"), Served("moved")));
                Note(Delete(Served(May.back() == '1' ? "moved" : "root")));
                Note(Delete(Served("mine")));
            };
            AsRoot ? Ask() : test::AsAnotherUser(Ask);
            EXPECT_EQ(May, AsRoot ? "1111111111" : Case.User) << Case.Directory;
            struct stat New = {};
            if (stat((Where / "new").c_str(), &New) == 0) {
                EXPECT_EQ(New.st_uid, AsRoot ? 0 : test::AnotherUser);
            }
            fs::remove_all(Where);
        }
    }
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

} // namespace
} // namespace providers::directory
