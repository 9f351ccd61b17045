// Volumes that are directories of others, as distributed paths.

#include <fcntl.h>
#include <sys/stat.h>

#include "tests/providers/directory_fixture.h"

namespace providers::directory {
namespace {

// Lets \srv\link and \dfs\deep lead into the export \srv\Vol.
class Links : public DirectoryProviderTest {
protected:
    void SetUp() override {
        DirectoryProviderTest::SetUp();
        fs::create_directories(Root / "Dir" / "Sub");
        Write("Dir/in", "inside");
        Write("out", "outside");
        // In an order in which the first leads through one that comes later.
        ASSERT_EQ(
            Provider.AddLinks({{u"\\\\dfs\\Deep", u"\\\\srv\\LINK\\sub"}, {u"\\\\srv\\link", u"\\\\SRV\\vol\\dir\\"}}),
            "");
        ASSERT_EQ(Table->RVFsdOpenVolume(Fsd, nullptr, u"\\Srv\\Link", &Link), Done);
    }
    void TearDown() override {
        EXPECT_EQ(Table->RVFsdCloseVolume(Fsd, nullptr, Link), Done);
        DirectoryProviderTest::TearDown();
    }

    RVSTATUS Physical(std::u16string Path, std::u16string &Answer, USHORT Room = RV_PATH_BUFFER_BYTES) {
        std::vector<WCHAR> Buffer(RV_PATH_BUFFER_BYTES / sizeof(WCHAR) + 8, u'#');
        const auto Bytes = static_cast<USHORT>(Path.size() * sizeof(WCHAR));
        UNICODE_STRING Asked = {Bytes, Bytes, Path.data()};
        UNICODE_STRING Given = {0, Room, Buffer.data()};
        const RVSTATUS Status = Table->RVFsdGetDFSPhysicalPath(Fsd, nullptr, 0, &Asked, &Given);
        EXPECT_EQ(Buffer[Room / sizeof(WCHAR)], u'#') << "written beyond the buffer";
        Answer.assign(Given.Buffer, Given.Length / sizeof(WCHAR));
        if (!RvIsError(Status)) {
            EXPECT_EQ(Given.Buffer[Answer.size()], 0) << "not terminated";
        }
        return Status;
    }

    RVHANDLE Link = 0;
};

TEST_F(Links, AreResolvedByThePhysicalPathOperationAndNothingElseIs) {
    const struct {
        const char16_t *Path;
        RVSTATUS Status;
        const char16_t *Physical;
    } Cases[] = {
        {u"\\srv\\link", Done, u"\\srv\\Vol\\dir"},
        {u"\\SRV\\LINK\\in", Done, u"\\srv\\Vol\\dir\\in"},
        {u"\\srv\\link\\not\\there", Done, u"\\srv\\Vol\\dir\\not\\there"}, // a name, not a file
        {u"\\dfs\\deep\\x", Done, u"\\srv\\Vol\\dir\\sub\\x"},
        {u"\\srv\\vol\\dir", RVSTATUS::NotDistributedPath, u""},
        {u"\\srv\\other", RVSTATUS::NotDistributedPath, u""},
        {u"\\nobody\\link", RVSTATUS::NotDistributedPath, u""},
        {u"\\", RVSTATUS::NotDistributedPath, u""},
    };
    for (const auto &Each : Cases) {
        std::u16string Answer;
        EXPECT_EQ(Physical(Each.Path, Answer), Each.Status);
        EXPECT_EQ(Answer, Each.Physical);
    }
}

TEST_F(Links, PhysicalPathsAreNeverLongerThanTheirBuffer) {
    const std::u16string Path = u"\\srv\\link\\" + std::u16string(100, u'n');
    std::u16string Answer;
    ASSERT_EQ(Physical(Path, Answer), Done);
    const auto Needed = static_cast<USHORT>((Answer.size() + 1) * sizeof(WCHAR));
    EXPECT_EQ(Physical(Path, Answer, Needed), Done);
    EXPECT_TRUE(RvIsError(Physical(Path, Answer, Needed - 2)));
}

// The driver splits a path at the length of its volume path.
TEST_F(Links, KeepTheirOwnNameAsVolumePath) {
    WCHAR Path[RV_PATH_BUFFER_BYTES / sizeof(WCHAR)];
    ASSERT_EQ(Table->RVFsdQueryPathForVolume(Fsd, nullptr, u"\\SRV\\LINK\\in", Path), Done);
    EXPECT_EQ(std::u16string(Path), u"\\srv\\link");
    ASSERT_EQ(Table->RVFsdQueryPathForVolume(Fsd, nullptr, u"\\dfs\\deep", Path), Done);
    EXPECT_EQ(std::u16string(Path), u"\\dfs\\Deep");
    RVHANDLE None = 0;
    EXPECT_EQ(Table->RVFsdOpenVolume(Fsd, nullptr, u"\\dfs\\nothing", &None), Failure(RVFS_UNRECOGNIZED_VOLUME));
}

TEST_F(Links, ShowWhatIsInTheirDirectoryUnderBothNames) {
    EXPECT_EQ(Names(Link), (std::vector<std::u16string>{u"in", u"Sub"}));
    RVHANDLE File = 0;
    ASSERT_EQ(Table->RVFsdCreateFile(Fsd, nullptr, Link, u"new", RV_ACCESS_WRITE, 7, RV_DISPOSITION_CREATE_NEW, 0, 0,
                                     &File, &Action),
              Done);
    EXPECT_EQ(WriteAt(File, 0, "through the link"), Done);
    Close(File);
    EXPECT_EQ(Content(u"dir\\new"), "through the link");
    // By an absolute path too, and through a link to a link.
    ASSERT_EQ(Table->RVFsdCreateDirectory(Fsd, nullptr, 0, u"\\dfs\\deep\\made"), Done);
    EXPECT_TRUE(fs::is_directory(Root / "Dir" / "Sub" / "made"));
    EXPECT_EQ(Table->RVFsdMoveFile(Fsd, nullptr, Link, u"new", 0, u"\\dfs\\deep\\moved"), Done);
    EXPECT_EQ(Read("Dir/Sub/moved"), "through the link");
    EXPECT_EQ(Table->RVFsdMoveFile(Fsd, nullptr, Link, u"in", Volume, u"OUT"), Failure(CODE_EXISTS));
    EXPECT_EQ(Read("out"), "outside");
    EXPECT_EQ(Table->RVFsdDeleteFile(Fsd, nullptr, 0, u"\\srv\\link\\sub\\moved"), Done);
    EXPECT_FALSE(fs::exists(Root / "Dir" / "Sub" / "moved"));
}

TEST_F(Links, AreVolumesWithTheFiguresOfTheirExport) {
    ULONG Flags[2] = {};
    UCHAR Identifiers[2][16] = {};
    ULONG64 Files[2] = {};
    RVHANDLE Folder = 0;
    ASSERT_EQ(OpenFolder(u"dir", Folder), Done);
    for (const auto &[Handle, At] : {std::pair{Volume, 0}, {Link, 1}}) {
        EXPECT_EQ(Table->RVFsdGetVolumeInformation(Fsd, nullptr, Handle, &Flags[At], Identifiers[At], nullptr, nullptr),
                  Done);
        ULONG64 Sizes[4] = {};
        EXPECT_EQ(Table->RVFsdGetVolumeSize(Fsd, nullptr, Handle, &Sizes[0], &Sizes[1], &Sizes[2], &Sizes[3]), Done);
        EXPECT_NE(Sizes[0], 0u);
    }
    EXPECT_EQ(Flags[0], Flags[1]);
    EXPECT_EQ(memcmp(Identifiers[0], Identifiers[1], 16), 0);
    EXPECT_EQ(Table->RVFsdGetFileId(Fsd, nullptr, Folder, &Files[0]), Done);
    EXPECT_EQ(Table->RVFsdGetFileId(Fsd, nullptr, Link, &Files[1]), Done);
    EXPECT_EQ(Files[0], Files[1]);
    USHORT Rights = 0;
    EXPECT_EQ(Table->RVFsdGetEffectiveRights(Fsd, nullptr, Link, &Rights), Done);
    EXPECT_EQ(Rights, RV_RIGHT_ERASE) << "names in its root may be erased";
    EXPECT_EQ(Table->RVFsdCloseDirectory(Fsd, nullptr, Folder), Done);
}

// The root of a volume is no entry of anything.
TEST_F(Links, CannotBeDeletedOrMovedThemselves) {
    EXPECT_EQ(Table->RVFsdDeleteDirectory(Fsd, nullptr, Link, u""), RVSTATUS::AccessDenied);
    EXPECT_EQ(Table->RVFsdDeleteDirectory(Fsd, nullptr, 0, u"\\dfs\\deep"), RVSTATUS::AccessDenied);
    EXPECT_EQ(Table->RVFsdMoveDirectory(Fsd, nullptr, 0, u"\\dfs\\deep", Volume, u"x"), RVSTATUS::AccessDenied);
    EXPECT_TRUE(fs::is_directory(Root / "Dir" / "Sub"));
}

TEST_F(Links, WhoseDirectoryWentAwayLeadNowhere) {
    fs::remove(Root / "Dir" / "Sub");
    RVHANDLE Gone = 0;
    EXPECT_EQ(Table->RVFsdOpenVolume(Fsd, nullptr, u"\\dfs\\deep", &Gone), Failure(RVFS_PATH_NOT_FOUND));
    EXPECT_EQ(Table->RVFsdCreateDirectory(Fsd, nullptr, 0, u"\\dfs\\deep\\x"), Failure(RVFS_PATH_NOT_FOUND));
    Write("Dir/Sub", "a file by now");
    EXPECT_EQ(Table->RVFsdOpenVolume(Fsd, nullptr, u"\\dfs\\deep", &Gone), Failure(RVFS_NOT_A_DIRECTORY));
    fs::remove(Root / "Dir" / "Sub");
    fs::create_directory(Root / "Dir" / "Sub");
    EXPECT_EQ(Table->RVFsdCreateDirectory(Fsd, nullptr, 0, u"\\dfs\\deep\\x"), Done) << "it is back";
}

TEST_F(Links, AreRefusedWithAReasonAndAddNothing) {
    const struct {
        std::vector<ExportLink> Given;
        const char *Reason;
    } Cases[] = {
        {{{u"\\\\s\\l", u"\\\\no\\such"}}, "cannot link \\\\s\\l to \\\\no\\such: nothing is exported as \\\\no\\such"},
        {{{u"\\\\s\\l", u"\\\\srv\\none\\x"}},
         "cannot link \\\\s\\l to \\\\srv\\none\\x: nothing is exported as \\\\srv\\none"},
        {{{u"\\\\s\\l", u"\\\\S\\L"}}, "cannot link \\\\s\\l to \\\\S\\L: the links lead round in a circle"},
        {{{u"\\\\s\\a", u"\\\\s\\b\\x"}, {u"\\\\s\\b", u"\\\\s\\a"}},
         "cannot link \\\\s\\a to \\\\s\\b\\x: the links lead round in a circle"},
        {{{u"\\\\s\\l", u"\\\\srv\\vol\\dir\\.."}},
         "cannot link \\\\s\\l to \\\\srv\\vol\\dir\\..: a target has no \".\" or \"..\" in it"},
        {{{u"\\\\s\\l", u"\\\\srv\\vol\\gone"}},
         "cannot link \\\\s\\l to \\\\srv\\vol\\gone: there is no such directory"},
        {{{u"\\\\s\\l", u"\\\\srv\\vol\\gone\\x"}},
         "cannot link \\\\s\\l to \\\\srv\\vol\\gone\\x: there is no such directory"},
        {{{u"\\\\s\\l", u"\\\\srv\\vol\\out"}}, "cannot link \\\\s\\l to \\\\srv\\vol\\out: it is not a directory"},
        {{{u"\\\\SRV\\VOL", u"\\\\srv\\vol\\dir"}}, "cannot link \\\\SRV\\VOL to \\\\srv\\vol\\dir: the name is taken"},
        {{{u"\\\\srv\\LINK", u"\\\\srv\\vol"}}, "cannot link \\\\srv\\LINK to \\\\srv\\vol: the name is taken"},
        {{{u"\\\\s\\l\\x", u"\\\\srv\\vol"}},
         "cannot link \\\\s\\l\\x to \\\\srv\\vol: the name must be \\\\server\\volume, without a path after it"},
        {{{u"\\\\s\\l", u"\\\\srv"}},
         "cannot link \\\\s\\l to \\\\srv: a server and a volume name are needed, as in \\\\server\\volume"},
    };
    for (const auto &Each : Cases) {
        std::vector<ExportLink> Given = Each.Given;
        Given.insert(Given.begin(), {u"\\\\fine\\link", u"\\\\srv\\vol"});
        EXPECT_EQ(Provider.AddLinks(Given), Each.Reason);
    }
    RVHANDLE None = 0;
    EXPECT_EQ(Table->RVFsdOpenVolume(Fsd, nullptr, u"\\fine\\link", &None), Failure(RVFS_UNKNOWN_SERVER));
    EXPECT_EQ(Provider.AddExport(u"dfs", u"deep", Outer),
              "cannot export " + Outer.string() + ": its volume name is a link already");
}

// A time that the file system cannot keep is not taken for the nearest one that it can. Some keep all that there are.
TEST_F(DirectoryProviderTest, TimesOutOfRangeLeaveTheFileAsItWas) {
    Write("file", "");
    const timespec Far[2] = {{900'000'000'000, 0}, {900'000'000'000, 0}};
    struct stat Kept {};
    EXPECT_EQ(utimensat(AT_FDCWD, (Root / "file").c_str(), Far, 0), 0);
    EXPECT_EQ(stat((Root / "file").c_str(), &Kept), 0);
    const LONG64 TooLate = Kept.st_mtim.tv_sec == Far[1].tv_sec ? INT64_MIN : INT64_MAX;
    RVHANDLE Handle = 0;
    ASSERT_EQ(Open(u"file", Handle, RV_ACCESS_WRITE), Done);
    LONG64 Creation = 0;
    LONG64 LastWrite = 132000000000000001;
    LONG64 LastAccess = 131000000000000002;
    ULONG None = 0;
    ASSERT_EQ(Table->RVFsdSetFileInformation(Fsd, nullptr, Handle, nullptr, nullptr, &LastWrite, &LastAccess), Done);
    for (LONG64 Bad : {TooLate, LONG64{-2}, INT64_MIN}) {
        ULONG Hidden = RV_ATTR_HIDDEN;
        EXPECT_EQ(Table->RVFsdSetFileInformation(Fsd, nullptr, Handle, &Hidden, nullptr, &Bad, nullptr),
                  RVSTATUS::InvalidParameter)
            << Bad;
        EXPECT_EQ(Table->RVFsdSetFileInformation(Fsd, nullptr, Handle, &Hidden, nullptr, nullptr, &Bad),
                  RVSTATUS::InvalidParameter)
            << Bad;
    }
    LONG64 Written = 0;
    LONG64 Accessed = 0;
    EXPECT_EQ(Table->RVFsdGetBasicFileInformation(Fsd, nullptr, Handle, &None, &Creation, &Written, &Accessed), Done);
    EXPECT_EQ(Written, LastWrite);
    EXPECT_EQ(Accessed, LastAccess);
    EXPECT_EQ(None & RV_ATTR_HIDDEN, 0u);
    Close(Handle);
}

} // namespace
} // namespace providers::directory
