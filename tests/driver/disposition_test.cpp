// The delete disposition: who may ask for it, who is refused, and who carries it out.

#include <numeric>

#include "embedded/verifier/probe.h"
#include "tests/driver/set_client.h"

namespace {

using namespace test;

constexpr RVSTATUS Warning = static_cast<RVSTATUS>(0x87E70102);

// Both switches in both positions.
class Disposition : public SetFixture, public testing::WithParamInterface<std::tuple<bool, bool>> {
protected:
    static bool FailsInUse() {
        return std::get<0>(GetParam());
    }
    static bool DefersTheCheck() {
        return std::get<1>(GetParam());
    }
    void SetUp() override {
        Start({.Switches = {{u"FailDeleteInUseWorkaround", FailsInUse()},
                            {u"Defer Windows DELETE Access Check", DefersTheCheck()}}});
    }
    bool IsSet(HANDLE Handle) {
        const bool InFcb = Fcb(Handle)->OpenFlags & FCB_STATE_DELETE_DISPOSITION;
        EXPECT_EQ(InFcb, FileObject(Handle)->DeletePending != 0);
        return InFcb;
    }
    bool IsReserved(HANDLE Handle) {
        return (Instance(Handle)->ProviderOptions & RV_OPTION_RESERVE_DELETE) != 0;
    }
    HANDLE OpenFile() {
        return MustOpen(u"\\srv\\vol\\a.txt", ForChange);
    }
    HANDLE OpenDirectory() {
        return MustOpen(u"\\srv\\vol\\d", DirectoryForChange);
    }
    // Expects the refusal, and that it left nothing behind.
    void ExpectRefused(HANDLE Handle, NTSTATUS Status) {
        EXPECT_EQ(SetDisposition(Handle, true), Status);
        EXPECT_FALSE(IsSet(Handle));
    }
};

INSTANTIATE_TEST_SUITE_P(Switches, Disposition, testing::Combine(testing::Bool(), testing::Bool()),
                         [](const auto &Info) {
                             return std::string(std::get<0>(Info.param) ? "FailsInUse" : "IgnoresInUse") +
                                    (std::get<1>(Info.param) ? "Deferred" : "Checked");
                         });

TEST_P(Disposition, OfAFileIsReservedAtTheServerOnceTakenBackAndCarriedOutAtTheClose) {
    const HANDLE Handle = OpenFile();
    struct {
        bool Set;
        Calls Asked;
    } const Steps[] = {{false, {}},
                       {true, {"RVFsdGetFileInformation", "RVFsdModifyFileAccess"}},
                       {true, {}},
                       {false, {"RVFsdModifyFileAccess"}},
                       {true, {"RVFsdGetFileInformation", "RVFsdModifyFileAccess"}}};
    for (const auto &Step : Steps) {
        Provider.ClearCalls();
        EXPECT_EQ(SetDisposition(Handle, Step.Set), STATUS_SUCCESS);
        EXPECT_EQ(CallNames(), Step.Asked);
        EXPECT_EQ(IsSet(Handle), Step.Set);
        EXPECT_EQ(IsReserved(Handle), Step.Set);
        if (!Step.Asked.empty()) {
            const Call Modified = Last(Slot::ModifyFileAccess);
            EXPECT_EQ(Modified.Number("access"), Instance(Handle)->ProviderAccess);
            EXPECT_EQ(Modified.Number("share"), Instance(Handle)->ShareMode);
            EXPECT_EQ(Modified.Number("options"), Step.Set ? RV_OPTION_RESERVE_DELETE + 0u : 0u);
        }
    }
    EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\a.txt"));
    Close(Handle);
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\a.txt"));
}

TEST_P(Disposition, AnotherOpenOfTheFileForbidsItUnlessDeletingIsShared) {
    constexpr Open Reader = {.Access = ForChange.Access & ~DELETE, .Share = FILE_SHARE_READ | FILE_SHARE_WRITE};
    const HANDLE First = MustOpen(u"\\srv\\vol\\a.txt", Reader);
    const HANDLE Second = MustOpen(u"\\srv\\vol\\A.TXT", Reader);
    Provider.ClearCalls();
    const UCHAR Delete = 1; // sent to the driver itself: the I/O manager would not let this handle delete
    EXPECT_EQ(Send(First, FileDispositionInformation, &Delete, 1), STATUS_CANNOT_DELETE);
    EXPECT_FALSE(IsSet(First));
    EXPECT_EQ(CallNames(), Calls{});
    Close(Second);
    Close(First);
    const HANDLE One = OpenFile();
    OpenFile();
    EXPECT_EQ(SetDisposition(One, true), STATUS_SUCCESS);
}

TEST_P(Disposition, AReadOnlyFileIsRefusedUnlessItsAttributesAreUnknown) {
    Provider.AddFile(u"\\srv\\vol\\r.txt", "x", RV_ATTR_READONLY);
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\r.txt", {.Access = DELETE | FILE_READ_DATA | SYNCHRONIZE});
    Provider.ClearCalls();
    ExpectRefused(Handle, STATUS_CANNOT_DELETE);
    EXPECT_EQ(CallNames(), Calls{"RVFsdGetFileInformation"});
    Provider.OnCall(Slot::GetFileInformation).ReturnAfter(ProviderError(0x0102)).Times(1);
    EXPECT_EQ(SetDisposition(Handle, true), STATUS_SUCCESS);
}

// Whoever defers the check leaves it to the server, which is not asked here either; otherwise the open has asked.
TEST_P(Disposition, NeverDeniesForWantOfTheEraseRight) {
    const HANDLE File = OpenFile();
    const HANDLE Directory = OpenDirectory();
    Provider.Edit([](Tree &Tree) {
        Tree.Find(u"\\srv\\vol\\a.txt")->Rights = 0;
        Tree.Find(u"\\srv\\vol\\d")->Rights = 0;
    });
    Provider.ClearCalls();
    EXPECT_EQ(SetDisposition(File, true), STATUS_SUCCESS);
    EXPECT_EQ(SetDisposition(Directory, true), STATUS_SUCCESS);
    EXPECT_EQ(Provider.CountCalls(Slot::GetEffectiveRights), 0u);
    Close(File);
    Close(Directory);
    EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\a.txt"));
    EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\d"));
}

// Of the reservation and of its undoing.
TEST_P(Disposition, ARefusalOfTheServerCountsOnlyWithTheWorkaround) {
    for (const RVSTATUS Refusal : {ProviderError(0x050D), RVSTATUS::AccessDenied, Warning}) {
        Provider.AddFile(u"\\srv\\vol\\a.txt", "0123456789");
        const HANDLE Handle = OpenFile();
        Provider.OnCall(Slot::ModifyFileAccess).Return(Refusal).Times(1);
        EXPECT_EQ(SetDisposition(Handle, true), FailsInUse() ? STATUS_SHARING_VIOLATION : STATUS_SUCCESS);
        EXPECT_EQ(IsSet(Handle), !FailsInUse());
        EXPECT_FALSE(IsReserved(Handle));
        EXPECT_EQ(SetDisposition(Handle, false), STATUS_SUCCESS);
        EXPECT_EQ(SetDisposition(Handle, true), STATUS_SUCCESS);
        EXPECT_TRUE(IsReserved(Handle));
        const bool Refused = RvIsError(Refusal);
        Provider.OnCall(Slot::ModifyFileAccess).Times(1).ReturnAfter(Refusal);
        const bool Counts = Refused && FailsInUse();
        EXPECT_EQ(SetDisposition(Handle, false), Counts ? STATUS_ACCESS_DENIED : STATUS_SUCCESS);
        EXPECT_EQ(IsSet(Handle), Counts);
        EXPECT_EQ(IsReserved(Handle), Refused); // the server was not told otherwise
        Close(Handle);
        EXPECT_EQ(Provider.Exists(u"\\srv\\vol\\a.txt"), !Counts);
        Provider.ClearScript();
    }
}

TEST_P(Disposition, OnlyTheHandleThatAskedTakesItBack) {
    const HANDLE Asks = OpenFile();
    const HANDLE Other = OpenFile();
    EXPECT_EQ(SetDisposition(Asks, true), STATUS_SUCCESS);
    EXPECT_EQ(SetDisposition(Other, false), STATUS_SUCCESS);
    EXPECT_TRUE(Fcb(Asks)->OpenFlags & FCB_STATE_DELETE_DISPOSITION);
    EXPECT_EQ(Create(u"\\srv\\vol\\a.txt", ForChange).Status, STATUS_DELETE_PENDING);
    EXPECT_EQ(SetDisposition(Asks, false), STATUS_SUCCESS);
    Close(OpenFile());
}

// Three opens, each may be the one that asks, in every order of their closes: the file goes with the last one.
TEST_P(Disposition, IsCarriedOutByWhicheverCloseComesLast) {
    for (ULONG Asking = 0; Asking < 3; ++Asking) {
        std::vector<ULONG> Order = {0, 1, 2};
        do {
            Provider.AddFile(u"\\srv\\vol\\a.txt", "x");
            const HANDLE Handles[] = {OpenFile(), OpenFile(), OpenFile()};
            EXPECT_EQ(SetDisposition(Handles[Asking], true), STATUS_SUCCESS);
            for (ULONG Nth : Order) {
                EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\a.txt"));
                Close(Handles[Nth]);
            }
            EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\a.txt"));
            EXPECT_EQ(FcbPrefixCount, 0u);
        } while (std::next_permutation(Order.begin(), Order.end()));
    }
}

// ---- Directories

TEST_P(Disposition, OfAnEmptyDirectoryLooksIntoItOnce) {
    const HANDLE Handle = OpenDirectory();
    Provider.ClearCalls();
    EXPECT_EQ(SetDisposition(Handle, true), STATUS_SUCCESS);
    EXPECT_EQ(CallNames(), (Calls{"RVFsdEnumerateDirectory", "RVFsdGetDirectoryInformation"}));
    const std::string Listing = Provider.Calls()[0];
    EXPECT_NE(Listing.find("mask=null, flag=1, resume=0, size=576"), std::string::npos) << Listing;
    EXPECT_TRUE(IsSet(Handle));
    Provider.ClearCalls();
    EXPECT_EQ(SetDisposition(Handle, false), STATUS_SUCCESS);
    EXPECT_EQ(CallNames(), Calls{}); // the server was not told of it
    EXPECT_FALSE(IsSet(Handle));
    EXPECT_EQ(SetDisposition(Handle, true), STATUS_SUCCESS);
    Close(Handle);
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\d"));
}

TEST_P(Disposition, OfADirectoryIsRefusedWhenAnythingStandsAgainstIt) {
    const HANDLE Handle = OpenDirectory();
    const HANDLE Other = OpenDirectory();
    Provider.ClearCalls();
    ExpectRefused(Handle, STATUS_CANNOT_DELETE);
    EXPECT_EQ(CallNames(), Calls{});
    Close(Other);

    Provider.AddFile(u"\\srv\\vol\\d\\inside.txt");
    ExpectRefused(Handle, STATUS_DIRECTORY_NOT_EMPTY);
    Provider.AddFile(u"\\srv\\vol\\d\\" + std::u16string(250, u'n')); // longer than the batch has room for
    ExpectRefused(Handle, STATUS_DIRECTORY_NOT_EMPTY);
    Close(Handle);

    Provider.AddDirectory(u"\\srv\\vol\\e");
    Provider.Edit([](Tree &Tree) { Tree.Find(u"\\srv\\vol\\e")->Attributes = RV_ATTR_READONLY; });
    const HANDLE ReadOnly = MustOpen(u"\\srv\\vol\\e", DirectoryForChange);
    ExpectRefused(ReadOnly, STATUS_CANNOT_DELETE);
    Provider.OnCall(Slot::GetDirectoryInformation).ReturnAfter(ProviderError(0x0102)).Times(1);
    EXPECT_EQ(SetDisposition(ReadOnly, true), STATUS_SUCCESS);
    EXPECT_EQ(SetDisposition(ReadOnly, false), STATUS_SUCCESS);
    // No memory for the listing.
    const UCHAR Delete = 1;
    const PlannedFaults NoMemory({.How = FaultPlan::Mode::NthAndAfter, .Kinds = FaultBit(FaultKind::Pool)});
    EXPECT_EQ(Send(ReadOnly, FileDispositionInformation, &Delete, 1), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_FALSE(IsSet(ReadOnly));
}

// What the listing answers decides whether a directory counts as empty; in doubt it does not.
TEST_P(Disposition, TheAnswerOfTheListingDecides) {
    const std::vector<std::pair<RVSTATUS, NTSTATUS>> Answers = {
        {ProviderError(0x0505), STATUS_SUCCESS},
        {ProviderError(0x0502), STATUS_SUCCESS},
        {ProviderError(0x0506), STATUS_SUCCESS},
        {ProviderError(0x0009), STATUS_SUCCESS},
        {RVSTATUS::Success, STATUS_SUCCESS}, // and nothing filled
        {ProviderError(0x0007), STATUS_DIRECTORY_NOT_EMPTY},
        {ProviderError(0x0101), STATUS_CONNECTION_DISCONNECTED},
        {ProviderError(0x000A), STATUS_UNSUCCESSFUL}, // would be a success, were it passed on
        {ProviderError(0x0000), STATUS_UNSUCCESSFUL},
    };
    const HANDLE Handle = OpenDirectory();
    for (const auto &[Answer, Status] : Answers) {
        Provider.ClearScript();
        Provider.OnCall(Slot::EnumerateDirectory).Return(Answer);
        EXPECT_EQ(SetDisposition(Handle, true), Status) << std::hex << static_cast<ULONG>(Answer);
        EXPECT_EQ(IsSet(Handle), Status == STATUS_SUCCESS);
        EXPECT_EQ(SetDisposition(Handle, false), STATUS_SUCCESS);
    }
    Provider.ClearScript();
    Provider.OnCall(Slot::EnumerateDirectory).ReturnAfter(RVSTATUS::Success).Answer([](Outputs &Out) {
        memset(Out.Buffer, 0xEE, 576);
    });
    ExpectRefused(Handle, STATUS_DIRECTORY_NOT_EMPTY);
}

} // namespace
