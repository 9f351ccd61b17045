// Opens that share an FCB: share access, what a second open may do, opens that fail while others wait.

#include "tests/driver/create_client.h"
#include "tests/driver/request_log.h"

namespace {

using namespace test;

constexpr ULONG ShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

class SharedOpens : public CreateFixture {
protected:
    SharedOpens() {
        // The server has no opinion of its own here.
        Provider.Edit([](Tree &Tree) { Tree.SetSharing(false); });
    }
};

// Bit 0: reading, 1: writing, 2: deleting; for accesses and for share modes. Executing is reading, appending writing.
constexpr ULONG Kinds = 8;

ACCESS_MASK AccessOf(ULONG Kind, ULONG Read, ULONG Write) {
    return FILE_READ_ATTRIBUTES | SYNCHRONIZE | (Kind & 1 ? Read : 0) | (Kind & 2 ? Write : 0) |
           (Kind & 4 ? DELETE : 0);
}

// Two opens get along when each wants only what the other allows; who wants nothing meets nobody.
bool Compatible(ULONG Access1, ULONG Share1, ULONG Access2, ULONG Share2) {
    return Access1 == 0 || Access2 == 0 || ((Access2 & ~Share1) == 0 && (Access1 & ~Share2) == 0);
}

TEST_F(SharedOpens, GetAlongExactlyWhenTheirAccessAndSharingDo) {
    Provider.SetRecording(false);
    for (ULONG First = 0; First < Kinds * Kinds; First++) {
        const HANDLE Held =
            MustOpen(u"\\srv\\vol\\a.txt",
                     {.Access = AccessOf(First % Kinds, FILE_READ_DATA, FILE_WRITE_DATA), .Share = First / Kinds});
        const SHARE_ACCESS Before = Fcb(Held)->ShareAccess;
        for (ULONG Second = 0; Second < Kinds * Kinds; Second++) {
            const CreateResult Result =
                Create(u"\\srv\\vol\\a.txt",
                       {.Access = AccessOf(Second % Kinds, FILE_EXECUTE, FILE_APPEND_DATA), .Share = Second / Kinds});
            const bool Fits = Compatible(First % Kinds, First / Kinds, Second % Kinds, Second / Kinds);
            ASSERT_EQ(Result.Status, Fits ? STATUS_SUCCESS : STATUS_SHARING_VIOLATION) << First << " " << Second;
            if (Fits) {
                ASSERT_EQ(Fcb(Held)->ShareAccess.OpenCount, Before.OpenCount + (Second % Kinds != 0 ? 1 : 0));
                Close(Result.Handle);
            } else {
                ASSERT_EQ(Result.Information, static_cast<ULONG_PTR>(FILE_DOES_NOT_EXIST));
            }
            ASSERT_TRUE(Bytes(Fcb(Held)->ShareAccess) == Bytes(Before)) << First << " " << Second;
            ASSERT_EQ(Fcb(Held)->OpenCount, 1u);
            ASSERT_EQ(Fcb(Held)->UncleanCount, 1u);
        }
        Close(Held);
    }
}

TEST_F(SharedOpens, ThatReplaceContentNeedTheAccessForIt) {
    for (const ULONG Disposition : {FILE_OPEN, FILE_OPEN_IF, FILE_OVERWRITE, FILE_OVERWRITE_IF, FILE_SUPERSEDE}) {
        const bool Supersedes = Disposition == FILE_SUPERSEDE;
        const bool Replaces = Disposition != FILE_OPEN && Disposition != FILE_OPEN_IF;
        for (const ULONG Share : {ULONG{FILE_SHARE_READ}, ULONG{FILE_SHARE_READ | FILE_SHARE_WRITE}, ShareAll}) {
            const HANDLE Held = MustOpen(u"\\srv\\vol\\a.txt", {.Share = Share});
            const CreateResult Result = Create(u"\\srv\\vol\\a.txt", With({}, Disposition));
            const bool Fits = Supersedes ? Share == ShareAll : !Replaces || Share != FILE_SHARE_READ;
            EXPECT_EQ(Result.Status, Fits ? STATUS_SUCCESS : STATUS_SHARING_VIOLATION) << Disposition << " " << Share;
            if (Fits) {
                EXPECT_EQ(Result.Information, static_cast<ULONG_PTR>(Replaces ? FILE_OVERWRITTEN : FILE_OPENED));
                EXPECT_EQ(Fcb(Held)->ShareAccess.Writers, Replaces ? 1u : 0u);
                // Overwriting an existing file is checked for the access; it is not opened with it.
                const ULONG Adds = Supersedes ? 0x15 : Disposition == FILE_OVERWRITE_IF ? 0x4 : 0;
                EXPECT_EQ(Instance(Result.Handle)->ProviderAccess, RV_ACCESS_READ | Adds);
                Close(Result.Handle);
            }
            EXPECT_EQ(Fcb(Held)->ShareAccess.Writers, 0u);
            Close(Held);
        }
    }
}

TEST_F(SharedOpens, SayWhatIsIncompatibleWithTheShareModeThatWasAskedFor) {
    StartTracing(32);
    MustOpen(u"\\srv\\vol\\a.txt", {.Access = FILE_READ_DATA | SYNCHRONIZE, .Share = 0});
    ExpectRefused(u"\\srv\\vol\\a.txt",
                  {.Access = FILE_READ_DATA | SYNCHRONIZE,
                   .Share = FILE_SHARE_WRITE,
                   .Options = FILE_NO_INTERMEDIATE_BUFFERING | Synchronous},
                  STATUS_SHARING_VIOLATION);
    EXPECT_TRUE(WasPrinted("ERROR : Incompatible sharing mode detected: DesiredAccess 00100001\t, DesiredShareAccess "
                           "00000002\t,  Error c0000043\n"));
}

TEST_F(SharedOpens, SucceedWithoutAClaimWhenTheClaimIsRefusedAtTheEnd) {
    const HANDLE Held = MustOpen(u"\\srv\\vol\\a.txt");
    const PFCB Shared = Fcb(Held);
    const SHARE_ACCESS Before = Shared->ShareAccess;
    Provider.OnCall(Slot::CreateFile, IsRealOpen).Do([&](const Call &) { Shared->ShareAccess.SharedRead = 0; });
    const HANDLE Second = MustOpen(u"\\srv\\vol\\a.txt");
    EXPECT_TRUE(WasPrinted("[RVFSD] ERROR : IoCheckShareAccess failed for DesiredAccess 0x100001 ShareAccess 0x7 for "
                           "FCB ShareAccess 0x6; status 0xC0000043 on \"\\srv\\vol\\a.txt\".\n"));
    EXPECT_FALSE(FileObject(Second)->ReadAccess);
    Shared->ShareAccess = Before;
    Close(Second);
    EXPECT_TRUE(Bytes(Shared->ShareAccess) == Bytes(Before)) << "nothing was taken that had not been added";
}

TEST_F(SharedOpens, AreWhatTheFirstOneWas) {
    // The objects change places at the server; who has them open still has what he opened.
    const HANDLE File = MustOpen(u"\\srv\\vol\\a.txt");
    const HANDLE Directory = MustOpen(u"\\srv\\vol\\docs\\sub", AsDirectory);
    Provider.Edit([](Tree &Tree) {
        Tree.Delete(false, 0, u"\\srv\\vol\\a.txt");
        Tree.AddDirectory(u"\\srv\\vol\\a.txt");
        Tree.Delete(true, 0, u"\\srv\\vol\\docs\\sub");
        Tree.AddFile(u"\\srv\\vol\\docs\\sub");
    });
    ExpectRefused(u"\\srv\\vol\\a.txt", With({.Options = D}, FILE_OPEN), STATUS_NOT_A_DIRECTORY, FILE_EXISTS);
    ExpectRefused(u"\\srv\\vol\\a.txt", With({.Options = D}, FILE_OPEN_IF), STATUS_NOT_A_DIRECTORY, FILE_EXISTS);
    ExpectRefused(u"\\srv\\vol\\a.txt", {}, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Fcb(File)->OpenType, OPEN_TYPE_FILE + 0u);
    ExpectRefused(u"\\srv\\vol\\docs\\sub", {}, STATUS_NOT_A_DIRECTORY);
    ExpectRefused(u"\\srv\\vol\\docs\\sub", With({}, FILE_OPEN, N), STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(Fcb(Directory)->OpenType, OPEN_TYPE_DIRECTORY + 0u);
    EXPECT_EQ(Fcb(Directory)->VolumeResolved, 0);
    Close(File);
    Close(Directory);
    ExpectNothingOpen("the closes");
}

TEST_F(SharedOpens, OfAFileWhosePathBecameAVolumesAreRefused) {
    const HANDLE File = MustOpen(u"\\srv\\vol\\a.txt");
    RVHANDLE Volume = 0;
    Provider.Edit([&](Tree &Tree) { Tree.OpenVolume(u"\\srv\\vol", &Volume); });
    Provider.OnCall(Slot::QueryPathForVolume).AnswerPath(u"\\srv\\vol\\a.txt");
    Provider.OnCall(Slot::OpenVolume).ReturnAfter(RVSTATUS::Success).AnswerHandle(Volume);
    ExpectRefused(u"\\srv\\vol\\a.txt", {}, STATUS_NOT_A_DIRECTORY, FILE_EXISTS);
    EXPECT_EQ(Fcb(File)->OpenType, OPEN_TYPE_FILE + 0u);
    Close(File);
    ExpectNothingOpen("the close");
}

TEST_F(SharedOpens, OfARootWhoseVolumeCannotBeOpenedLeaveItARoot) {
    const HANDLE Root = MustOpen(u"\\srv\\vol", AsDirectory);
    Provider.OnCall(Slot::OpenVolume).Nth(2).Return(ProviderError(0x0006)); // the first one is the probe's
    const HANDLE Second = MustOpen(u"\\srv\\vol", AsDirectory);
    EXPECT_EQ(Instance(Second)->VolumeHandle, 0u);
    EXPECT_EQ(Fcb(Root)->VolumeResolved, 1) << "its listings have no dot entries";
}

// The first create hangs at the Provider and fails; the second has found its FCB and waits for it.
class ConcurrentCreates : public SharedOpens {
protected:
    CreateResult SecondWhileFirstFails(const Open &First, const Open &Second) {
        Rule &Gate = Provider.OnCall(Slot::CreateFile, IsRealOpen).Times(1).Block();
        Gate.Return(ProviderError(0x0006));
        Provider.ClearCalls();
        std::thread Failing([&] { EXPECT_EQ(Create(u"\\srv\\vol\\a.txt", First).Status, STATUS_ACCESS_DENIED); });
        EXPECT_TRUE(Gate.WaitUntilBlocked());
        CreateResult Result;
        std::thread Waiting([&] { Result = Create(u"\\srv\\vol\\a.txt", Second); });
        while (Provider.CountCalls(Slot::CloseFile) < 2) { // its probe; what it waits for next is the FCB
            std::this_thread::yield();
        }
        for (int Turns = 0; Turns < 1000; Turns++) {
            std::this_thread::yield();
        }
        Gate.Release();
        Failing.join();
        Waiting.join();
        Provider.ClearScript();
        return Result;
    }
};

TEST_F(ConcurrentCreates, TheOneThatWaitedForAFailingFirstOpenIsTheFirst) {
    Start();
    for (int Round = 0; Round < 20; Round++) {
        const CreateResult Result =
            SecondWhileFirstFails({.Access = FILE_WRITE_DATA | SYNCHRONIZE, .Share = 0}, {.Share = FILE_SHARE_READ});
        ASSERT_THAT(Result, Ends(STATUS_SUCCESS, FILE_OPENED));
        const PFCB Found = Fcb(Result.Handle);
        EXPECT_EQ(Found->OpenCount, 1u);
        EXPECT_EQ(Found->UncleanCount, 1u);
        EXPECT_EQ(Found->OpenType, OPEN_TYPE_FILE + 0u);
        EXPECT_EQ(Found->ShareAccess.OpenCount, 1u);
        EXPECT_EQ(Found->ShareAccess.Writers, 0u);
        ExpectRefused(u"\\srv\\vol\\a.txt", {.Access = FILE_WRITE_DATA | SYNCHRONIZE}, STATUS_SHARING_VIOLATION);
        Close(Result.Handle);
        ExpectNothingOpen("the round");
    }
}

TEST_F(ConcurrentCreates, OpensAndClosesOfNestedNamesDoNotDisturbEachOther) {
    Start({.Switches = {{u"EnableDirectoryNotify", 1}}});
    Provider.SetRecording(false);
    constexpr int Threads = 4;
    constexpr int Rounds = 60;
    const std::u16string_view Paths[] = {u"\\srv\\vol\\docs\\f.txt", u"\\SRV\\vol\\DOCS\\F.txt",
                                         u"\\srv\\vol\\docs",        u"\\srv\\vol",
                                         u"\\srv\\vol\\docs\\sub",   u"\\srv\\vol\\docs\\none"};
    std::vector<std::jthread> Workers;
    for (int Index = 0; Index < Threads; Index++) {
        Workers.emplace_back([&, Index] {
            const std::u16string Own = u"own" + std::u16string(1, static_cast<char16_t>(u'0' + Index));
            for (int Round = 0; Round < Rounds; Round++) {
                Try(Paths[(Round + Index) % std::size(Paths)]);
                const HANDLE Parent = MustOpen(u"\\srv\\vol\\docs", AsDirectory);
                Open Below = With(ForDelete, FILE_OPEN_IF, N | (Round % 2 ? FILE_DELETE_ON_CLOSE : 0));
                Below.Related = Parent;
                const HANDLE Child = MustOpen(Own, Below);
                // Everybody opens everybody's: it is there or not, but nothing else may happen.
                const NTSTATUS Other = Try(u"\\srv\\vol\\docs\\own0", With(ForDelete, FILE_OPEN, N)).Status;
                EXPECT_TRUE(Other == STATUS_SUCCESS || Other == STATUS_OBJECT_NAME_NOT_FOUND) << std::hex << Other;
                if (Round % 3) {
                    Close(Parent);
                    EXPECT_EQ(Instance(Child)->BaseHandle, 0u);
                    Close(Child);
                } else {
                    Close(Child);
                    Close(Parent);
                }
            }
        });
    }
    Workers.clear(); // joins them
    ExpectNothingOpen("all threads");
}

} // namespace
