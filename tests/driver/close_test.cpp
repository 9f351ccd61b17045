// The end of an open. What goes with the last handle of a file object: claims and locks, but neither FCB nor Provider
// handles; and with the close: its Provider handles, a pending delete, its FCB.

#include "embedded/fsrtl/fsrtl.h"
#include "embedded/io/probe.h"
#include "embedded/verifier/probe.h"
#include "tests/driver/lock_client.h"
#include "tests/driver/request_log.h"

namespace {

using namespace test;

constexpr Open Deleting = {.Access = DELETE | FILE_READ_DATA | SYNCHRONIZE};
constexpr Open Directory = {.Access = DELETE | FILE_LIST_DIRECTORY | SYNCHRONIZE,
                            .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT};

class Cleanup : public LockFixture {
protected:
    // Closes the handle but keeps the file object, so that its close is yet to come.
    PFILE_OBJECT CleanUp(HANDLE Handle) {
        PFILE_OBJECT Kept = FileObjectFromHandle(Handle);
        EXPECT_EQ(Close(Handle), STATUS_SUCCESS);
        return Kept;
    }
};

TEST_F(Cleanup, OfOneOfTwoOpensGivesItsShareClaimBackOnceAndThatOfTheLastLeavesIt) {
    const HANDLE Stays = MustOpen(u"\\srv\\vol\\a.txt");
    const PFILE_OBJECT Goes = CleanUp(MustOpen(u"\\srv\\vol\\a.txt", Writer));
    EXPECT_EQ(Fcb(Stays)->UncleanCount, 1u);
    EXPECT_EQ(Fcb(Stays)->ShareAccess.OpenCount, 1u);
    EXPECT_EQ(Fcb(Stays)->ShareAccess.Writers, 0u);
    DereferenceFileObject(Goes);
    EXPECT_EQ(Fcb(Stays)->ShareAccess.OpenCount, 1u);
    Provider.ClearCalls();
    const PFILE_OBJECT Last = CleanUp(Stays);
    const FCB &File = *static_cast<PFCB>(Last->FsContext);
    EXPECT_EQ(File.UncleanCount, 0u);
    EXPECT_EQ(File.OpenCount, 1u);
    EXPECT_EQ(File.ShareAccess.OpenCount, 1u);
    EXPECT_TRUE(Last->Flags & FO_CLEANUP_COMPLETE);
    EXPECT_EQ(CallNames(), Calls{});
    DereferenceFileObject(Last);
}

TEST_F(Cleanup, ReleasesEveryLockOfTheHandleWhoeverTookItAndNoOther) {
    const HANDLE Stays = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    const HANDLE Goes = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    EXPECT_EQ(Lock(Stays, 0, 1), STATUS_SUCCESS);
    EXPECT_EQ(Lock(Goes, 10, 1, 3), STATUS_SUCCESS);
    EXPECT_EQ(Lock(Goes, 20, 1, 4), STATUS_SUCCESS);
    const PEPROCESS Other = CreateProcess("other");
    {
        const AttachProcess Attached(Other);
        EXPECT_EQ(Lock(Goes, 30, 1, 4), STATUS_SUCCESS);
    }
    Provider.ClearCalls();
    Close(Goes);
    EXPECT_EQ(ServerLocks(), (Calls{"unlock 10+1", "unlock 20+1", "unlock 30+1"}));
    ASSERT_EQ(LocalLocks(Stays).size(), 1u);
    EXPECT_EQ(LocalLocks(Stays)[0].FileObject, FileObject(Stays));
    DeleteProcess(Other);
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
        Fcb(Handle)->OpenFlags |= Each.Raw == 0 ? FCB_STATE_DELETED + 0u : 0u; // which changes nothing
        Provider.OnCall(Slot::UnlockFile).Nth(Each.Nth).ReturnAfter(static_cast<RVSTATUS>(Each.Raw));
        Provider.ClearCalls();
        const RequestLog Log;
        Close(Handle);
        EXPECT_EQ(ServerLocks(), (Calls{"unlock 10+1", "unlock 20+1"}));
        EXPECT_EQ(Log.Of(IRP_MJ_CLEANUP), std::vector<NTSTATUS>{Each.Status});
        Provider.ClearScript();
    }
}

// Its completion is the last of its file object, and the close that follows takes other locks first.
TEST_F(Cleanup, AWaiterWhoseGrantFailsIsCompletedUnderNoLock) {
    const HANDLE Owner = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    const HANDLE Closed = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    EXPECT_EQ(Lock(Owner, 0, 10), STATUS_SUCCESS);
    SentIrp Waiting = Wait(Closed, 2);
    const PFILE_OBJECT Kept = CleanUp(Closed);
    const PERESOURCE Resource = &Fcb(Owner)->Resource;
    std::vector<BOOLEAN> Held;
    SetIoObserver([&](const CompletedRequest &Request) {
        if (Request.MajorFunction == IRP_MJ_LOCK_CONTROL) {
            Held.push_back(ExIsResourceAcquiredExclusiveLite(Resource));
            DereferenceFileObject(Kept);
        }
    });
    {
        const PlannedFaults Faults({.How = FaultPlan::Mode::NthAndAfter, .Kinds = FaultBit(FaultKind::Pool)});
        Close(Owner);
    }
    SetIoObserver({});
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
        const PlannedFaults NoMemory({.How = FaultPlan::Mode::NthAndAfter, .Kinds = FaultBit(FaultKind::Pool)});
        Close(Handle);
    }
    EXPECT_EQ(Provider.CountCalls(Slot::UnlockFile), 100u);
}

class CloseOfAnOpen : public LockFixture {
protected:
    // Closes and returns what the close request was completed with.
    NTSTATUS CloseStatus(HANDLE Handle) {
        const RequestLog Log;
        Close(Handle);
        const std::vector<NTSTATUS> Statuses = Log.Of(IRP_MJ_CLOSE);
        return Statuses.size() == 1 ? Statuses[0] : STATUS_INTERNAL_ERROR;
    }
};

// A failure is its answer, unless a delete follows: then what that means.
TEST_F(CloseOfAnOpen, AsksTheProviderInThisOrderAndAnswersItsFailure) {
    constexpr std::u16string_view A = u"\\srv\\vol\\a.txt", R = u"\\srv\\vol\\r.txt", Docs = u"\\srv\\vol\\docs";
    const Calls Closed = {"CloseFile", "CloseVolume"};
    const Calls FileGone = {"GetFileInformation", "CloseFile", "DeleteFile", "CloseVolume"};
    const Calls DirectoryGone = {"GetDirectoryInformation", "CloseDirectory", "DeleteDirectory", "CloseVolume"};
    struct {
        std::u16string_view Path;
        bool Deletes;
        Calls Asked;
        Slot Fails = Slot::Any; // which one: none
        USHORT Code = 0;
        NTSTATUS Status = STATUS_SUCCESS;
        bool Gone = false;
    } const Cases[] = {
        {A, false, Closed},
        {R,
         true,
         {"GetFileInformation", "SetFileInformation", "CloseFile", "DeleteFile", "CloseVolume"},
         Slot::Any,
         0,
         STATUS_SUCCESS,
         true},
        {u"\\srv\\vol", true, {"CloseVolume"}},                                     // a root is never deleted
        {Docs, true, DirectoryGone, Slot::DeleteDirectory, 0x0502, STATUS_SUCCESS}, // somebody else was faster
        {A, true, FileGone, Slot::DeleteFile, 0x0502, STATUS_NO_SUCH_FILE},
        {Docs, true, DirectoryGone, Slot::DeleteDirectory, 0x0503, STATUS_SHARING_VIOLATION},
        {A, true, FileGone, Slot::DeleteFile, 0x0503, STATUS_SHARING_VIOLATION},
        {Docs, true, DirectoryGone, Slot::DeleteDirectory, 0x0513, STATUS_DIRECTORY_NOT_EMPTY},
        {A, true, FileGone, Slot::DeleteFile, 0x0000, STATUS_UNSUCCESSFUL}, // an error without a code
        {A, false, Closed, Slot::CloseFile, 0x0101, STATUS_CONNECTION_DISCONNECTED},
        {A, false, Closed, Slot::CloseVolume, 0x0102, STATUS_NETWORK_BUSY},
        {A, true, FileGone, Slot::CloseFile, 0x0101, STATUS_SUCCESS, true},
        {A, true, FileGone, Slot::GetFileInformation, 0x0102, STATUS_SUCCESS, true},
        {Docs, true, DirectoryGone, Slot::Any, 0, STATUS_SUCCESS, true},
    };
    for (const auto &Each : Cases) {
        SCOPED_TRACE(testing::Message() << ToUtf8(Each.Path) << " " << NameOf(Each.Fails) << std::hex << Each.Code);
        Provider.AddFile(A, "x");
        Provider.AddFile(R, "x", RV_ATTR_READONLY | RV_ATTR_ARCHIVE);
        const HANDLE Handle = MustOpen(Each.Path, Each.Path == A || Each.Path == R ? Deleting : Directory);
        Fcb(Handle)->OpenFlags |= Each.Deletes ? FCB_STATE_DELETE_DISPOSITION + 0u : 0u;
        if (Each.Fails != Slot::Any) {
            Provider.OnCall(Each.Fails).Return(ProviderError(Each.Code));
        }
        Provider.ClearCalls();
        EXPECT_EQ(CloseStatus(Handle), Each.Status);
        EXPECT_EQ(Provider.CompareCalls(Each.Asked), "");
        EXPECT_EQ(Provider.Exists(Each.Path), !Each.Gone);
        EXPECT_EQ(FcbPrefixCount, 0u);
        Provider.ClearScript();
    }
}

// Whoever closes last: the deletion is asked for, and prepared, by whose wish it is.
TEST_F(CloseOfAnOpen, ADeletionIsMadeInTheNameOfItsOwner) {
    Close(MustOpen(u"\\srv\\vol\\a.txt")); // binds the framework
    const auto As = [this](ULONG64 Who) { Framework->SetCaller([Who] { return RV_SECURITY_CONTEXT{{Who, ~Who}}; }); };
    constexpr UCHAR Delete = TRUE;
    // Whether the first open deletes on close and the second one sets the disposition.
    for (const auto &[OnClose, Sets] : {std::pair{true, false}, {true, true}, {false, true}}) {
        const ULONG64 Owner = Sets ? 2 : 1;
        Provider.AddFile(u"\\srv\\vol\\x.txt", "x");
        Open Request = Deleting;
        Request.Options |= OnClose ? FILE_DELETE_ON_CLOSE : 0;
        As(1);
        const HANDLE First = MustOpen(u"\\srv\\vol\\x.txt", Request);
        As(2);
        const HANDLE Second = MustOpen(u"\\srv\\vol\\x.txt", Deleting);
        const HANDLE Third = MustOpen(u"\\srv\\vol\\x.txt", Deleting);
        As(3);
        if (Sets) {
            IO_STATUS_BLOCK IoStatus;
            EXPECT_EQ(
                NtSetInformationFile(Second, &IoStatus, const_cast<UCHAR *>(&Delete), 1, FileDispositionInformation),
                STATUS_SUCCESS);
        }
        Close(First);
        Close(Second);
        Provider.ClearCalls();
        Close(Third);
        for (const Call &Made : Provider.CallRecords()) {
            const bool IsDeletion = Made.Operation == Slot::DeleteFile || Made.Operation == Slot::GetFileInformation;
            EXPECT_EQ(Made.Security.Words[0], IsDeletion ? Owner : 3) << static_cast<int>(Made.Operation);
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
            EXPECT_EQ(Send(Plain(IRP_MJ_CLOSE, &Odd)).Status, STATUS_SUCCESS);
            EXPECT_EQ(Odd.FsContext2, nullptr);
        }
    }
    EXPECT_EQ(Fcb(Handle)->OpenCount, 1u);
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
            const PlannedFaults Busy({.Kinds = FaultBit(FaultKind::TryAcquire), .Nth = Which});
            SentIrp Posted = SendIrp(Device(), Plain(IRP_MJ_CLOSE, File));
            EXPECT_EQ(Posted.Returned(), STATUS_PENDING);
            EXPECT_EQ(Posted.Wait().Status, STATUS_SUCCESS);
        }
        EXPECT_EQ(Fcb(Which == 3 ? Parent : Stays)->OpenCount, 1u);
        EXPECT_TRUE(Borrower == nullptr || Instance(Borrower)->BaseHandle == 0);
        Close(Goes); // its file object has no contexts any more
    }
}

} // namespace
