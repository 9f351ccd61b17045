// The open of a target's parent directory, as it comes before a rename or a link.

#include "tests/driver/create_client.h"

namespace {

using namespace test;

class TargetOpens : public CreateFixture {
protected:
    std::u16string NameOf(HANDLE Handle) {
        return View(FileObject(Handle)->FileName);
    }
    Open Below(HANDLE Related) {
        Open Request = AsTarget;
        Request.Related = Related;
        return Request;
    }
};

TEST_F(TargetOpens, OpenTheParentAndKeepTheName) {
    struct {
        std::u16string_view Path, Parent, FinalName;
        ULONG_PTR Information;
        std::u16string_view PathLeft;
    } constexpr Cases[] = {
        {u"\\srv\\vol\\docs\\new", u"\\srv\\vol\\docs", u"new", FILE_DOES_NOT_EXIST, u"docs"},
        {u"\\srv\\vol\\docs\\f.txt", u"\\srv\\vol\\docs", u"f.txt", FILE_EXISTS, u"docs"},
        {u"\\srv\\vol\\docs\\sub", u"\\srv\\vol\\docs", u"sub", FILE_EXISTS, u"docs"},
        {u"\\srv\\vol\\docs\\new\\", u"\\srv\\vol\\docs", u"new", FILE_DOES_NOT_EXIST, u"docs"},
        {u"\\srv\\vol\\new", u"\\srv\\vol", u"new", FILE_DOES_NOT_EXIST, u""},
        {u"\\srv\\vol\\a.txt", u"\\srv\\vol", u"a.txt", FILE_EXISTS, u""},
    };
    Bind();
    for (const auto &Each : Cases) {
        SCOPED_TRACE(ToUtf8(Each.Path));
        Provider.ClearCalls();
        const CreateResult Result = Create(Each.Path, AsTarget);
        ASSERT_THAT(Result, Ends(STATUS_SUCCESS, Each.Information));
        if (Each.Path == Cases[0].Path) {
            EXPECT_EQ(Provider.CompareCalls(
                          {"CreateFile", "CreateFile", "QueryPathForVolume", "OpenVolume", "OpenDirectory"}),
                      "");
            EXPECT_EQ(Provider.CallRecords()[0].String("path"), Each.Path);
            EXPECT_EQ(Provider.CallRecords()[1].String("path"), Each.Parent);
        }
        EXPECT_EQ(NameOf(Result.Handle), Each.FinalName);
        const PFCB Parent = Fcb(Result.Handle);
        const PINSTANCE_CONTEXT Made = Instance(Result.Handle);
        EXPECT_EQ(View(Parent->FullPath), Each.Parent);
        EXPECT_EQ(Parent->OpenType, OPEN_TYPE_DIRECTORY + 0u);
        EXPECT_EQ(Made->TargetMissing, Each.Information == FILE_DOES_NOT_EXIST ? 1 : 0);
        EXPECT_EQ(Made->TrailingSlash, Each.Path.back() == u'\\' ? 1 : 0);
        EXPECT_NE(Made->DirHandle, 0u);
        EXPECT_EQ(Made->RelatedHandle, Made->DirHandle);
        EXPECT_EQ(std::u16string(Made->PathLeft), Each.PathLeft);
        EXPECT_EQ(Parent->VolumeResolved, Each.PathLeft.empty() ? 1 : 0);
        EXPECT_EQ(Parent->ShareAccess.Writers, 1u);
        EXPECT_EQ(Last(Slot::OpenDirectory).Number("base"), Made->VolumeHandle);
        Close(Result.Handle);
        ExpectNothingOpen("the close");
    }
}

TEST_F(TargetOpens, AreComposedWithTheRelatedDirectoryAndLeaveItsStateAlone) {
    const HANDLE Directory = MustOpen(u"\\srv\\vol\\docs", AsDirectory);
    const std::string Before = Bytes(Fcb(Directory)->ShareAccess);
    // An empty name is the related object itself, which has no room for its name.
    for (const auto &[Name, Parent, FinalName] : {std::tuple{u"sub\\new", u"\\srv\\vol\\docs\\sub", u"new"},
                                                  {u"f.txt", u"\\srv\\vol\\docs", u"f.txt"},
                                                  {u"", u"\\srv\\vol", u""}}) {
        const HANDLE Handle = MustOpen(Name, Below(Directory));
        EXPECT_EQ(View(Fcb(Handle)->FullPath), Parent);
        EXPECT_EQ(NameOf(Handle), FinalName);
        const bool IsDirect = Fcb(Handle) == Fcb(Directory);
        EXPECT_EQ(IsDirect, std::u16string_view(Name) == u"f.txt");
        EXPECT_EQ(Fcb(Directory)->OpenCount, IsDirect ? 2u : 1u);
        EXPECT_EQ(Fcb(Directory)->VolumeResolved, 0) << "its listings keep their dot entries";
        EXPECT_EQ(Bytes(Fcb(Directory)->ShareAccess), Before);
        Close(Handle);
        EXPECT_EQ(Bytes(Fcb(Directory)->ShareAccess), Before);
    }
}

TEST_F(TargetOpens, NeverDeleteTheParent) {
    Provider.AddDirectory(u"\\srv\\vol\\empty");
    for (const ACCESS_MASK Access : {ACCESS_MASK{FILE_WRITE_DATA}, ACCESS_MASK{FILE_WRITE_DATA | DELETE}}) {
        Open Deleting = With(AsTarget, FILE_OPEN, FILE_DELETE_ON_CLOSE);
        Deleting.Access = Access | SYNCHRONIZE;
        const HANDLE Handle = MustOpen(u"\\srv\\vol\\empty\\new", Deleting);
        EXPECT_FALSE(Fcb(Handle)->OpenFlags & FCB_STATE_DELETE_ON_CLOSE);
        Close(Handle);
        EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\empty"));
    }
}

TEST_F(TargetOpens, CutANameThatDoesNotFitIntoItsFileObject) {
    const HANDLE Directory = MustOpen(u"\\srv\\vol\\docs", AsDirectory);
    // An empty name opens the directory as the target: its own name is longer than the room of the empty one.
    for (const USHORT Room : {0, 2, 4, 5, 8, 9, 10, 64}) {
        const OwnedFile File(Device(), u"");
        std::u16string Buffer(64, u'#');
        const UNICODE_STRING Old = File->FileName;
        File->FileName = {0, Room, Buffer.data()};
        File->RelatedFileObject = FileObject(Directory);
        EXPECT_THAT(SendIrpAndWait(Device(), CreateOf(File, SL_OPEN_TARGET_DIRECTORY)),
                    Ends(STATUS_SUCCESS, FILE_EXISTS));
        const size_t Units = std::min<size_t>(4, Room / 2);
        EXPECT_EQ(View(File->FileName), std::u16string(u"docs").substr(0, Units));
        EXPECT_EQ(Buffer[Units], Room / 2u > Units ? u'\0' : u'#') << Room;
        EXPECT_EQ(Buffer[Units + 1], u'#') << Room;
        for (const UCHAR Ending : {IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
            EXPECT_EQ(SendIrpAndWait(Device(), Plain(Ending, File)).Status, STATUS_SUCCESS);
        }
        File->RelatedFileObject = nullptr;
        File->FileName = Old;
    }
}

TEST_F(TargetOpens, WithoutTheirParentAreRefusedWhenTheProbeSaysSo) {
    ExpectRefused(u"\\srv\\vol\\no\\new", AsTarget, STATUS_OBJECT_PATH_NOT_FOUND);
    // A Provider that does not tell: the parent is opened as something that is not there.
    Provider.OnPath(Slot::CreateFile, u"\\srv\\vol\\no\\new").Return(ProviderError(0x0506));
    ExpectOpened(u"\\srv\\vol\\no\\new", AsTarget, FILE_DOES_NOT_EXIST);
    ExpectNothingOpen("missing parents");
}

TEST_F(TargetOpens, BelowAFileOpenWithoutADirectoryHandle) {
    Provider.OnPath(Slot::CreateFile, u"\\srv\\vol\\a.txt\\new").Return(ProviderError(0x0506));
    Open Request = AsTarget;
    Request.Access = FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_WRITE_DATA | SYNCHRONIZE;
    const CreateResult Result = Create(u"\\srv\\vol\\a.txt\\new", Request);
    ASSERT_THAT(Result, Ends(STATUS_SUCCESS, FILE_EXISTS));
    EXPECT_EQ(Instance(Result.Handle)->DirHandle, 0u);
    EXPECT_EQ(Fcb(Result.Handle)->OpenType, OPEN_TYPE_FILE + 0u);
    // It has no handle that the Provider could be asked with.
    Provider.ClearCalls();
    char Byte = 0;
    LARGE_INTEGER End = {};
    LARGE_INTEGER Id = {};
    IO_STATUS_BLOCK IoStatus;
    EXPECT_EQ(Read(Result.Handle, &Byte, 1, 0).Status, STATUS_INVALID_HANDLE);
    EXPECT_EQ(Write(Result.Handle, &Byte, 1, 0).Status, STATUS_INVALID_HANDLE);
    EXPECT_EQ(NtFlushBuffersFile(Result.Handle, &IoStatus), STATUS_INVALID_HANDLE);
    EXPECT_EQ(NtSetInformationFile(Result.Handle, &IoStatus, &End, sizeof(End), FileEndOfFileInformation),
              STATUS_INVALID_HANDLE);
    EXPECT_EQ(NtQueryInformationFile(Result.Handle, &IoStatus, &Id, sizeof(Id), FileInternalInformation),
              STATUS_INVALID_HANDLE);
    EXPECT_TRUE(Provider.Calls().empty());
    // One that was open before keeps its locks, and reads.
    const HANDLE File = MustOpen(u"\\srv\\vol\\a.txt");
    LARGE_INTEGER Length = {.QuadPart = 4};
    ASSERT_EQ(NtLockFile(File, nullptr, nullptr, nullptr, &IoStatus, &End, &Length, 0, TRUE, TRUE), STATUS_SUCCESS);
    ExpectOpened(u"\\srv\\vol\\a.txt\\new", AsTarget, FILE_EXISTS);
    EXPECT_NE(FsRtlGetNextFileLock(&Fcb(File)->FileLock, TRUE), nullptr);
    EXPECT_EQ(ReadAll(File), "0123456789");
    EXPECT_EQ(Fcb(File)->OpenType, OPEN_TYPE_FILE + 0u);
    Close(Result.Handle);
    Close(File);
    ExpectNothingOpen("the closes");
}

TEST_F(TargetOpens, WithoutTheFrameworksMemoryForTheNameAreRefused) {
    Bind();
    Frame().FailAllocate();
    ExpectRefused(u"\\srv\\vol\\docs\\new", AsTarget, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Provider.CountCalls(), 1u);
    ExpectOpened(u"\\srv\\vol\\docs\\new", AsTarget, FILE_DOES_NOT_EXIST);
}

} // namespace
