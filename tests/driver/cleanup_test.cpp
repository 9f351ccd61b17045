// What goes with the last handle of a file object: claims and locks, but neither FCB nor Provider handles.

#include "embedded/faults.h"
#include "embedded/fsrtl.h"
#include "embedded/ps.h"
#include "tests/driver/lock_client.h"
#include "tests/driver/request_log.h"

namespace {

using providers::ProviderError;
using providers::Slot;

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

TEST_F(Cleanup, AClaimThatItsCleanupLeftGoesWithTheClose) {
    const PFILE_OBJECT Dead = CleanUp(MustOpen(u"\\srv\\vol\\a.txt"));
    const HANDLE Next = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    embedded::DereferenceFileObject(Dead);
    EXPECT_EQ(Fcb(Next)->ShareAccess.OpenCount, 1u);
    EXPECT_EQ(Fcb(Next)->ShareAccess.Writers, 1u);
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

// The last unlock's own status is the cleanup's, untranslated, unless no finished request can have it.
TEST_F(Cleanup, AnswersTheRawStatusOfTheLastUnlock) {
    for (const auto &[Raw, Status] : {std::pair{0u, STATUS_SUCCESS},
                                      {0xC7E70537u, static_cast<NTSTATUS>(0xC7E70537)},
                                      {0x103u, STATUS_UNSUCCESSFUL},
                                      {0xFFFFFFFFu, STATUS_UNSUCCESSFUL}}) {
        const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", Writer);
        EXPECT_EQ(Lock(Handle, 10, 1), STATUS_SUCCESS);
        EXPECT_EQ(Lock(Handle, 20, 1), STATUS_SUCCESS);
        Provider.OnCall(Slot::UnlockFile).Nth(2).ReturnAfter(static_cast<RVSTATUS>(Raw));
        const test::RequestLog Log;
        Close(Handle);
        EXPECT_EQ(Log.Of(IRP_MJ_CLEANUP), std::vector<NTSTATUS>{Status});
        Provider.ClearScript();
    }
}

TEST_F(Cleanup, AFailedUnlockDoesNotStopTheWalkAndOnlyTheLastOneCounts) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    EXPECT_EQ(Lock(Handle, 10, 1), STATUS_SUCCESS);
    EXPECT_EQ(Lock(Handle, 20, 1), STATUS_SUCCESS);
    Provider.OnCall(Slot::UnlockFile).Nth(1).ReturnAfter(ProviderError(0x0102));
    Provider.ClearCalls();
    const test::RequestLog Log;
    Close(Handle);
    EXPECT_EQ(ServerLocks(), (Calls{"unlock 10+1", "unlock 20+1"}));
    EXPECT_EQ(Log.Of(IRP_MJ_CLEANUP), std::vector<NTSTATUS>{STATUS_SUCCESS});
}

TEST_F(Cleanup, AWaiterGetsTheRangeAfterTheServerHeardOfTheUnlock) {
    const HANDLE Stays = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    const HANDLE Goes = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    EXPECT_EQ(Lock(Goes, 0, 10), STATUS_SUCCESS);
    LARGE_INTEGER Length = {.QuadPart = 4};
    embedded::SentIrp Waiting = Wait(Stays, 2, &Length);
    EXPECT_EQ(Waiting.Returned(), STATUS_PENDING);
    Close(Goes);
    EXPECT_EQ(Waiting.Wait().Status, STATUS_SUCCESS);
    EXPECT_EQ(ServerLocks(), (Calls{"lock 0+10", "unlock 0+10", "lock 2+4"}));
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

TEST_F(Cleanup, OfADeletedFileIsAFullCleanup) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    EXPECT_EQ(Lock(Handle, 10, 1), STATUS_SUCCESS);
    Fcb(Handle)->OpenFlags |= FCB_STATE_DELETED;
    const test::RequestLog Log;
    Close(Handle);
    EXPECT_EQ(ServerLocks(), (Calls{"lock 10+1", "unlock 10+1"}));
    EXPECT_EQ(Log.Of(IRP_MJ_CLEANUP), std::vector<NTSTATUS>{STATUS_SUCCESS});
}

} // namespace
