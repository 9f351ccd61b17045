// The end of an open. What goes with the last handle of a file object: claims and locks, but neither FCB nor Provider
// handles; and with the close: its Provider handles, a pending delete, its FCB.

#include "embedded/faults.h"
#include "embedded/fsrtl.h"
#include "embedded/ps.h"
#include "tests/driver/lock_client.h"
#include "tests/driver/request_log.h"

namespace {

using providers::ProviderError;
using providers::Slot;
using test::Open;

constexpr Open Deleting = {.Access = DELETE | FILE_READ_DATA | SYNCHRONIZE};
constexpr Open Directory = {.Access = DELETE | FILE_LIST_DIRECTORY | SYNCHRONIZE,
                            .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT};

class Cleanup : public test::LockFixture {
protected:
    // Closes the handle but keeps the file object, so that its close is yet to come.
    PFILE_OBJECT CleanUp(HANDLE Handle) {
        PFILE_OBJECT Kept = embedded::FileObjectFromHandle(Handle);
        EXPECT_EQ(Close(Handle), STATUS_SUCCESS);
        return Kept;
    }
    static PFCB FcbOf(PFILE_OBJECT File) {
        return static_cast<PFCB>(File->FsContext);
    }
};

TEST_F(Cleanup, OfTheOnlyOpenLeavesItsShareClaim) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    Provider.ClearCalls();
    const PFILE_OBJECT File = CleanUp(Handle);
    EXPECT_EQ(FcbOf(File)->UncleanCount, 0u);
    EXPECT_EQ(FcbOf(File)->OpenCount, 1u);
    EXPECT_EQ(FcbOf(File)->ShareAccess.OpenCount, 1u);
    EXPECT_TRUE(File->Flags & FO_CLEANUP_COMPLETE);
    EXPECT_EQ(CallNames(), Calls{});
    embedded::DereferenceFileObject(File);
}

TEST_F(Cleanup, OfOneOfTwoOpensGivesItsShareClaimBackOnce) {
    const HANDLE Stays = MustOpen(u"\\srv\\vol\\a.txt");
    const PFILE_OBJECT Goes = CleanUp(MustOpen(u"\\srv\\vol\\a.txt", Writer));
    EXPECT_EQ(Fcb(Stays)->UncleanCount, 1u);
    EXPECT_EQ(Fcb(Stays)->ShareAccess.OpenCount, 1u);
    EXPECT_EQ(Fcb(Stays)->ShareAccess.Writers, 0u);
    embedded::DereferenceFileObject(Goes);
    EXPECT_EQ(Fcb(Stays)->ShareAccess.OpenCount, 1u);
}

TEST_F(Cleanup, ReleasesEveryLockOfTheHandleAndNoOther) {
    const HANDLE Stays = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    const HANDLE Goes = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    EXPECT_EQ(Lock(Stays, 0, 1), STATUS_SUCCESS);
    EXPECT_EQ(Lock(Goes, 10, 1, 3), STATUS_SUCCESS);
    EXPECT_EQ(Lock(Goes, 20, 1, 4), STATUS_SUCCESS);
    EXPECT_EQ(Lock(Goes, 30, 1, 4), STATUS_SUCCESS);
    Provider.ClearCalls();
    const PFILE_OBJECT File = CleanUp(Goes);
    EXPECT_EQ(ServerLocks(), (Calls{"unlock 10+1", "unlock 20+1", "unlock 30+1"}));
    ASSERT_EQ(LocalLocks(Stays).size(), 1u);
    EXPECT_EQ(LocalLocks(Stays)[0].FileObject, FileObject(Stays));
    embedded::DereferenceFileObject(File);
}

TEST_F(Cleanup, ReleasesALockThatAnotherProcessTookThroughTheHandle) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    PEPROCESS Other = embedded::CreateProcess("other");
    {
        const embedded::AttachProcess Attached(Other);
        EXPECT_EQ(Lock(Handle, 10, 1), STATUS_SUCCESS);
    }
    Close(Handle);
    EXPECT_EQ(ServerLocks(), (Calls{"lock 10+1", "unlock 10+1"}));
    embedded::DeleteProcess(Other);
}

// The last unlock's own status is the cleanup's, untranslated, unless no finished request can have it; one that fails
// does not stop the walk.
TEST_F(Cleanup, AnswersTheRawStatusOfTheLastUnlock) {
    struct {
        unsigned Nth;
        ULONG Raw;
        NTSTATUS Status;
    } constexpr Cases[] = {
        {2, 0, STATUS_SUCCESS},          {2, 0xC7E70537, static_cast<NTSTATUS>(0xC7E70537)},
        {2, 0x103, STATUS_UNSUCCESSFUL}, {2, 0xFFFFFFFF, STATUS_UNSUCCESSFUL},
        {1, 0xC7E70102, STATUS_SUCCESS},
    };
    for (const auto &Each : Cases) {
        const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", Writer);
        EXPECT_EQ(Lock(Handle, 10, 1), STATUS_SUCCESS);
        EXPECT_EQ(Lock(Handle, 20, 1), STATUS_SUCCESS);
        Provider.OnCall(Slot::UnlockFile).Nth(Each.Nth).ReturnAfter(static_cast<RVSTATUS>(Each.Raw));
        Provider.ClearCalls();
        const test::RequestLog Log;
        Close(Handle);
        EXPECT_EQ(ServerLocks(), (Calls{"unlock 10+1", "unlock 20+1"}));
        EXPECT_EQ(Log.Of(IRP_MJ_CLEANUP), std::vector<NTSTATUS>{Each.Status});
        Provider.ClearScript();
    }
}

TEST_F(Cleanup, ALockGrantedAfterTheCleanupOfItsHandleIsGivenBack) {
    const HANDLE Owner = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    const HANDLE Goes = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    EXPECT_EQ(Lock(Owner, 0, 10), STATUS_SUCCESS);
    LARGE_INTEGER Length = {.QuadPart = 4};
    embedded::SentIrp Waiting = Wait(Goes, 2, &Length);
    const PFILE_OBJECT File = CleanUp(Goes);
    EXPECT_EQ(Unlock(Owner, 0, 10), STATUS_SUCCESS);
    EXPECT_EQ(Waiting.Wait().Status, STATUS_CANCELLED);
    EXPECT_TRUE(LocalLocks(Owner).empty());
    EXPECT_EQ(ServerLocks(), (Calls{"lock 0+10", "unlock 0+10"}));
    embedded::DereferenceFileObject(File);
}

TEST_F(Cleanup, AWaiterOfTheHandleItselfGetsNothingAndTheServerHearsNothingOfIt) {
    const HANDLE Stays = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    const HANDLE Goes = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    EXPECT_EQ(Lock(Goes, 0, 10), STATUS_SUCCESS);
    LARGE_INTEGER Length = {.QuadPart = 4};
    embedded::SentIrp Own = Wait(Goes, 2, &Length);
    embedded::SentIrp Other = Wait(Stays, 2, &Length);
    Close(Goes);
    EXPECT_EQ(Own.Wait().Status, STATUS_CANCELLED);
    EXPECT_EQ(Other.Wait().Status, STATUS_SUCCESS);
    EXPECT_EQ(ServerLocks(), (Calls{"lock 0+10", "unlock 0+10", "lock 2+4"}));
}

// Its completion is the last of its file object, and the close that follows takes other locks first.
TEST_F(Cleanup, AWaiterWhoseGrantFailsIsCompletedUnderNoLock) {
    const HANDLE Owner = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    const HANDLE Closed = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    EXPECT_EQ(Lock(Owner, 0, 10), STATUS_SUCCESS);
    LARGE_INTEGER Length = {.QuadPart = 4};
    embedded::SentIrp Waiting = Wait(Closed, 2, &Length);
    const PFILE_OBJECT Kept = CleanUp(Closed);
    const PERESOURCE Resource = &Fcb(Owner)->Resource;
    std::vector<BOOLEAN> Held;
    embedded::SetIoObserver([&](const embedded::CompletedRequest &Request) {
        if (Request.MajorFunction == IRP_MJ_LOCK_CONTROL) {
            Held.push_back(ExIsResourceAcquiredExclusiveLite(Resource));
            embedded::DereferenceFileObject(Kept);
        }
    });
    {
        const embedded::PlannedFaults Faults(
            {.How = embedded::FaultPlan::Mode::NthAndAfter, .Kinds = embedded::FaultBit(embedded::FaultKind::Pool)});
        Close(Owner);
    }
    embedded::SetIoObserver({});
    EXPECT_EQ(Waiting.Wait().Status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Held, std::vector<BOOLEAN>{FALSE});
    EXPECT_EQ(ServerLocks(), (Calls{"lock 0+10", "unlock 0+10"}));
}

TEST_F(Cleanup, WithoutMemoryReleasesEveryLockAllTheSame) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    for (LONGLONG At = 0; At < 100; ++At) {
        EXPECT_EQ(Lock(Handle, At, 1), STATUS_SUCCESS);
    }
    {
        const embedded::PlannedFaults NoMemory(
            {.How = embedded::FaultPlan::Mode::NthAndAfter, .Kinds = embedded::FaultBit(embedded::FaultKind::Pool)});
        Close(Handle);
    }
    EXPECT_EQ(Provider.CountCalls(Slot::UnlockFile), 100u);
}

TEST_F(Cleanup, OfADeletedFileIsAFullCleanup) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    EXPECT_EQ(Lock(Handle, 10, 1), STATUS_SUCCESS);
    Fcb(Handle)->OpenFlags |= FCB_STATE_DELETED;
    const test::RequestLog Log;
    Close(Handle);
    EXPECT_EQ(ServerLocks(), (Calls{"lock 10+1", "unlock 10+1"}));
    EXPECT_EQ(Log.Of(IRP_MJ_CLEANUP), std::vector<NTSTATUS>{STATUS_SUCCESS});
}

// ---- Close

class CloseOfAnOpen : public test::LockFixture {
protected:
    // As the disposition request marks it.
    void MarkForDeletion(HANDLE Handle) {
        Fcb(Handle)->OpenFlags |= FCB_STATE_DELETE_DISPOSITION;
    }
    // Closes and returns what the close request was completed with.
    NTSTATUS CloseStatus(HANDLE Handle) {
        const test::RequestLog Log;
        Close(Handle);
        const std::vector<NTSTATUS> Statuses = Log.Of(IRP_MJ_CLOSE);
        return Statuses.size() == 1 ? Statuses[0] : STATUS_INTERNAL_ERROR;
    }
    std::u16string DeletedPath(Slot Operation) {
        for (const providers::Call &Each : Provider.CallRecords()) {
            if (Each.Operation == Operation) {
                return Each.String("path");
            }
        }
        return u"(none)";
    }
};

TEST_F(CloseOfAnOpen, ClosesFileAndVolumeInThisOrder) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    Provider.ClearCalls();
    EXPECT_EQ(CloseStatus(Handle), STATUS_SUCCESS);
    EXPECT_EQ(CallNames(), (Calls{"RVFsdCloseFile", "RVFsdCloseVolume"}));
}

TEST_F(CloseOfAnOpen, AReadOnlyFileLosesTheAttributeBeforeItIsClosedAndDeleted) {
    Provider.AddFile(u"\\srv\\vol\\r.txt", "x", RV_ATTR_READONLY | RV_ATTR_ARCHIVE);
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\r.txt", Deleting);
    MarkForDeletion(Handle);
    Provider.ClearCalls();
    EXPECT_EQ(CloseStatus(Handle), STATUS_SUCCESS);
    EXPECT_EQ(CallNames(), (Calls{"RVFsdGetFileInformation", "RVFsdSetFileInformation", "RVFsdCloseFile",
                                  "RVFsdDeleteFile", "RVFsdCloseVolume"}));
    EXPECT_EQ(DeletedPath(Slot::DeleteFile), u"r.txt");
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\r.txt"));
}

TEST_F(CloseOfAnOpen, AFailedAttributeQueryWritesNothingAndDeletesAllTheSame) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", Deleting);
    MarkForDeletion(Handle);
    Provider.OnCall(Slot::GetFileInformation).Return(ProviderError(0x0102));
    EXPECT_EQ(CloseStatus(Handle), STATUS_SUCCESS);
    EXPECT_EQ(Provider.CountCalls(Slot::SetFileInformation), 0u);
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\a.txt"));
}

TEST_F(CloseOfAnOpen, OnlyTheLastOpenDeletes) {
    const HANDLE First = MustOpen(u"\\srv\\vol\\a.txt", Deleting);
    const HANDLE Second = MustOpen(u"\\srv\\vol\\a.txt", Deleting);
    MarkForDeletion(First);
    EXPECT_EQ(CloseStatus(First), STATUS_SUCCESS);
    EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\a.txt"));
    EXPECT_EQ(Fcb(Second)->OpenCount, 1u);
    EXPECT_TRUE(Fcb(Second)->OpenFlags & FCB_STATE_DELETE_DISPOSITION);
    EXPECT_EQ(CloseStatus(Second), STATUS_SUCCESS);
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\a.txt"));
}

// Whoever closes last: the deletion is asked for, and prepared, by whose wish it is.
TEST_F(CloseOfAnOpen, ADeletionIsMadeInTheNameOfItsOwner) {
    Close(MustOpen(u"\\srv\\vol\\a.txt")); // binds the framework
    const auto As = [this](ULONG64 Who) { Framework->SetCaller([Who] { return RV_SECURITY_CONTEXT{{Who, ~Who}}; }); };
    constexpr UCHAR Delete = TRUE;
    struct Case {
        bool FirstOnClose, SecondSets;
        ULONG64 Owner;
    };
    for (const Case &Each : {Case{true, false, 1}, Case{true, true, 2}, Case{false, true, 2}}) {
        Provider.AddFile(u"\\srv\\vol\\x.txt", "x");
        Open Request = Deleting;
        Request.Options |= Each.FirstOnClose ? FILE_DELETE_ON_CLOSE : 0;
        As(1);
        const HANDLE First = MustOpen(u"\\srv\\vol\\x.txt", Request);
        As(2);
        const HANDLE Second = MustOpen(u"\\srv\\vol\\x.txt", Deleting);
        const HANDLE Third = MustOpen(u"\\srv\\vol\\x.txt", Deleting);
        As(3);
        if (Each.SecondSets) {
            IO_STATUS_BLOCK IoStatus;
            EXPECT_EQ(
                NtSetInformationFile(Second, &IoStatus, const_cast<UCHAR *>(&Delete), 1, FileDispositionInformation),
                STATUS_SUCCESS);
        }
        Close(First);
        Close(Second);
        Provider.ClearCalls();
        Close(Third);
        for (const providers::Call &Made : Provider.CallRecords()) {
            const bool IsDeletion = Made.Operation == Slot::DeleteFile || Made.Operation == Slot::GetFileInformation;
            EXPECT_EQ(Made.Security.Words[0], IsDeletion ? Each.Owner : 3) << static_cast<int>(Made.Operation);
            EXPECT_EQ(Made.Security.Words[1], ~Made.Security.Words[0]);
        }
        EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\x.txt"));
    }
    Framework->SetCaller(nullptr);
}

// A file object whose contexts are no open's: its close ends nothing and takes nothing along.
TEST_F(CloseOfAnOpen, WithoutALinkedInstanceTouchesNothing) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    INSTANCE_CONTEXT Unlinked = {};
    for (INSTANCE_CONTEXT *Context : {static_cast<INSTANCE_CONTEXT *>(nullptr), &Unlinked}) {
        for (const bool HasFcb : {true, false}) {
            FILE_OBJECT Odd = *FileObject(Handle);
            Odd.FsContext = HasFcb ? Odd.FsContext : nullptr;
            Odd.FsContext2 = Context;
            embedded::IrpBuilder Builder;
            Builder.MajorFunction = IRP_MJ_CLOSE;
            Builder.FileObject = &Odd;
            EXPECT_EQ(embedded::SendIrpAndWait(Device(), Builder).Status, STATUS_SUCCESS);
            EXPECT_EQ(Odd.FsContext2, nullptr);
        }
    }
    EXPECT_EQ(Fcb(Handle)->OpenCount, 1u);
}

TEST_F(CloseOfAnOpen, AnswersWhatItsDeleteMeans) {
    struct {
        bool IsDirectory;
        USHORT Code;
        NTSTATUS Status;
    } constexpr Cases[] = {
        {true, 0x0502, STATUS_SUCCESS}, // somebody else was faster
        {false, 0x0502, STATUS_NO_SUCH_FILE},
        {true, 0x0503, STATUS_SHARING_VIOLATION},
        {false, 0x0503, STATUS_SHARING_VIOLATION},
        {true, 0x0513, STATUS_DIRECTORY_NOT_EMPTY},
        {false, 0x0000, STATUS_UNSUCCESSFUL}, // an error without a code
    };
    for (const auto &Each : Cases) {
        const HANDLE Handle =
            Each.IsDirectory ? MustOpen(u"\\srv\\vol\\docs", Directory) : MustOpen(u"\\srv\\vol\\a.txt", Deleting);
        MarkForDeletion(Handle);
        Provider.OnCall(Each.IsDirectory ? Slot::DeleteDirectory : Slot::DeleteFile).Return(ProviderError(Each.Code));
        EXPECT_EQ(CloseStatus(Handle), Each.Status) << std::hex << Each.Code;
        Provider.ClearScript();
    }
}

TEST_F(CloseOfAnOpen, ADirectoryIsClosedAndDeletedByBaseAndPath) {
    Provider.AddDirectory(u"\\srv\\vol\\d");
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\d", Directory);
    MarkForDeletion(Handle);
    Provider.ClearCalls();
    EXPECT_EQ(CloseStatus(Handle), STATUS_SUCCESS);
    EXPECT_EQ(CallNames(), (Calls{"RVFsdGetDirectoryInformation", "RVFsdCloseDirectory", "RVFsdDeleteDirectory",
                                  "RVFsdCloseVolume"}));
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\d"));
}

TEST_F(CloseOfAnOpen, ADirectoryThatWasCreatedButNotOpenedIsStillDeleted) {
    Open Creating = Directory;
    Creating.Disposition = FILE_CREATE;
    Creating.Options |= FILE_DELETE_ON_CLOSE;
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\new", Creating);
    ASSERT_TRUE(Provider.Exists(u"\\srv\\vol\\new"));
    EXPECT_EQ(CloseStatus(Handle), STATUS_SUCCESS);
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\new"));
}

TEST_F(CloseOfAnOpen, AVolumeRootIsNeverDeleted) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol", Directory);
    MarkForDeletion(Handle);
    EXPECT_EQ(CloseStatus(Handle), STATUS_SUCCESS);
    EXPECT_EQ(Provider.CountCalls(Slot::DeleteDirectory) + Provider.CountCalls(Slot::DeleteFile), 0u);
}

TEST_F(CloseOfAnOpen, AFailedFileCloseIsTheAnswerUnlessADeleteFollows) {
    HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", Deleting);
    Provider.OnCall(Slot::CloseFile).Return(ProviderError(0x0101));
    EXPECT_EQ(CloseStatus(Handle), STATUS_CONNECTION_DISCONNECTED);
    Handle = MustOpen(u"\\srv\\vol\\a.txt", Deleting);
    MarkForDeletion(Handle);
    EXPECT_EQ(CloseStatus(Handle), STATUS_SUCCESS);
}

TEST_F(CloseOfAnOpen, AFailedVolumeCloseIsTheAnswerAndTheOpenEndsAllTheSame) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    Provider.OnCall(Slot::CloseVolume).Return(ProviderError(0x0102));
    EXPECT_EQ(CloseStatus(Handle), STATUS_NETWORK_BUSY);
    EXPECT_EQ(FcbPrefixCount, 0u);
}

// A directory's handle is what names below it are relative to; it goes with the directory's own open.
TEST_F(CloseOfAnOpen, AFileOpenedBelowADirectoryIsDeletedByFullPathOnceTheDirectoryIsClosed) {
    Provider.AddFile(u"\\srv\\vol\\d\\f.txt", "x");
    const HANDLE Parent = MustOpen(u"\\srv\\vol\\d", Directory);
    Open Below = Deleting;
    Below.Related = Parent;
    const HANDLE Child = MustOpen(u"f.txt", Below);
    EXPECT_NE(Instance(Child)->BaseHandle, 0u);
    EXPECT_EQ(CloseStatus(Parent), STATUS_SUCCESS);
    EXPECT_EQ(Instance(Child)->BaseHandle, 0u);
    MarkForDeletion(Child);
    Provider.ClearCalls();
    EXPECT_EQ(CloseStatus(Child), STATUS_SUCCESS);
    EXPECT_EQ(DeletedPath(Slot::DeleteFile), u"\\srv\\vol\\d\\f.txt");
}

TEST_F(CloseOfAnOpen, OfABusyFileIsPendingAndDone) {
    Start({.Switches = {{u"EnableAsyncIo", 1}}});
    const HANDLE Stays = MustOpen(u"\\srv\\vol\\a.txt");
    const HANDLE Parent = MustOpen(u"\\srv\\vol\\docs", Directory);
    Provider.AddFile(u"\\srv\\vol\\docs\\f.txt");
    for (ULONG64 Which : {1, 2, 3}) { // the table, the FCB, that of who borrows the handle
        const HANDLE Goes =
            Which == 3 ? MustOpen(u"\\srv\\vol\\docs", {.Access = FILE_LIST_DIRECTORY, .Options = FILE_DIRECTORY_FILE})
                       : MustOpen(u"\\srv\\vol\\a.txt", {.Access = FILE_READ_DATA, .Options = 0});
        const HANDLE Borrower = Which == 3 ? MustOpen(u"f.txt", {.Related = Goes}) : nullptr;
        const PFILE_OBJECT File = FileObject(Goes);
        EXPECT_EQ(Send(Plain(IRP_MJ_CLEANUP, File)).Status, STATUS_SUCCESS);
        {
            const embedded::PlannedFaults Busy(
                {.Kinds = embedded::FaultBit(embedded::FaultKind::TryAcquire), .Nth = Which});
            embedded::SentIrp Posted = embedded::SendIrp(Device(), Plain(IRP_MJ_CLOSE, File));
            EXPECT_EQ(Posted.Returned(), STATUS_PENDING);
            EXPECT_EQ(Posted.Wait().Status, STATUS_SUCCESS);
        }
        EXPECT_EQ(Fcb(Which == 3 ? Parent : Stays)->OpenCount, 1u);
        EXPECT_TRUE(Borrower == nullptr || Instance(Borrower)->BaseHandle == 0);
        Close(Goes); // its file object has no contexts any more
    }
}

} // namespace
