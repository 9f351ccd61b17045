#include "embedded/probe.h"
#include "io_fixture.h"

namespace {

using namespace embedded;
using namespace iotest;

constexpr ULONG Bytes(std::u16string_view Text) {
    return static_cast<ULONG>(Text.size() * sizeof(WCHAR));
}

class MupTest : public IoTest {
protected:
    // Counts the prefix queries and answers them as the test wants.
    void Answer(NTSTATUS Status, ULONG Claimed) {
        Handlers[IRP_MJ_DEVICE_CONTROL] = [this, Status, Claimed](PIRP Irp) {
            const auto &Control = IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceIoControl;
            EXPECT_EQ(Control.IoControlCode, ULONG{IOCTL_REDIR_QUERY_PATH_EX});
            EXPECT_EQ(Control.InputBufferLength, 80u);
            EXPECT_EQ(Control.OutputBufferLength, 4u);
            EXPECT_EQ(Irp->RequestorMode, KernelMode);
            Asked.emplace_back(View(&static_cast<PQUERY_PATH_REQUEST_EX>(Control.Type3InputBuffer)->PathName));
            static_cast<PQUERY_PATH_RESPONSE>(Irp->UserBuffer)->LengthAccepted = Claimed;
            return Complete(Irp, Status);
        };
    }
    // Opens the path and closes it again.
    NTSTATUS OpenAndClose(std::u16string_view Path) {
        const CreateResult Result = Open(Path);
        if (NT_SUCCESS(Result.Status)) {
            NtClose(Result.Handle);
        }
        return Result.Status;
    }
    std::vector<std::u16string> Asked;
};

TEST_F(MupTest, AUncOpenAsksOnceAndRemembersThePrefixForFifteenMinutes) {
    Answer(STATUS_SUCCESS, Bytes(u"\\srv\\vol"));
    EXPECT_EQ(OpenAndClose(u"\\??\\UNC\\srv\\vol\\a"), STATUS_SUCCESS);
    EXPECT_EQ(OpenAndClose(u"\\??\\UNC\\SRV\\VOL\\b"), STATUS_SUCCESS);
    EXPECT_EQ(OpenAndClose(u"\\Device\\Mup\\srv\\vol"), STATUS_SUCCESS);
    EXPECT_EQ(Asked, (std::vector<std::u16string>{u"\\srv\\vol\\a"}));
    EXPECT_EQ(CachedUncPrefixes(), (std::vector<std::u16string>{u"\\srv\\vol"}));
    EXPECT_EQ(OpenAndClose(u"\\??\\UNC\\srv\\volume2\\c"), STATUS_SUCCESS);
    EXPECT_EQ(Asked.size(), 2u) << "a prefix covers whole components only";
    Clock::Advance(15 * 60 * Clock::Second - 1);
    OpenAndClose(u"\\??\\UNC\\srv\\vol\\a");
    EXPECT_EQ(Asked.size(), 2u);
    Clock::Advance(1);
    EXPECT_TRUE(CachedUncPrefixes().empty());
    OpenAndClose(u"\\??\\UNC\\srv\\vol\\a");
    EXPECT_EQ(Asked.size(), 3u);
}

TEST_F(MupTest, WithoutAClaimTheProvidersStatusIsTheAnswer) {
    struct {
        NTSTATUS Provider;
        ULONG Claimed;
        NTSTATUS Open;
    } const Cases[] = {
        {STATUS_BAD_NETWORK_NAME, 0, STATUS_BAD_NETWORK_NAME}, {STATUS_LOGON_FAILURE, 0, STATUS_LOGON_FAILURE},
        {STATUS_BAD_NETWORK_PATH, 8, STATUS_BAD_NETWORK_PATH}, {STATUS_SUCCESS, 0, STATUS_BAD_NETWORK_PATH},
        {STATUS_SUCCESS, 7, STATUS_BAD_NETWORK_PATH},          {STATUS_SUCCESS, 5000, STATUS_BAD_NETWORK_PATH},
    };
    for (const auto &Case : Cases) {
        Answer(Case.Provider, Case.Claimed);
        Seen.clear();
        EXPECT_EQ(OpenAndClose(u"\\??\\UNC\\srv\\vol\\a"), Case.Open);
        EXPECT_EQ(Seen, (std::vector<UCHAR>{IRP_MJ_DEVICE_CONTROL})) << "no create without a claim";
        EXPECT_TRUE(CachedUncPrefixes().empty());
    }
}

TEST_F(MupTest, DeregistrationEndsClaimsNamesAndMemory) {
    Answer(STATUS_SUCCESS, Bytes(u"\\srv\\vol"));
    OpenAndClose(u"\\??\\UNC\\srv\\vol\\a");
    FsRtlDeregisterUncProvider(std::exchange(ProviderHandle, nullptr));
    EXPECT_TRUE(RegisteredUncProviders().empty());
    EXPECT_TRUE(CachedUncPrefixes().empty());
    EXPECT_EQ(OpenAndClose(u"\\??\\UNC\\srv\\vol\\a"), STATUS_BAD_NETWORK_PATH);
    EXPECT_EQ(OpenAndClose(u"\\Device\\RvFsd"), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(MupTest, TheLongestClaimWins) {
    // A second provider on the same device; both are asked, and the driver answers by turns.
    HANDLE Second = nullptr;
    UNICODE_STRING Name = ToUnicodeString(u"\\Device\\Second");
    ASSERT_EQ(FsRtlRegisterUncProviderEx(&Second, &Name, TheDevice, 0), STATUS_SUCCESS);
    int Turn = 0;
    Handlers[IRP_MJ_DEVICE_CONTROL] = [&](PIRP Irp) {
        static_cast<PQUERY_PATH_RESPONSE>(Irp->UserBuffer)->LengthAccepted =
            ++Turn == 1 ? Bytes(u"\\srv") : Bytes(u"\\srv\\vol");
        return Complete(Irp, STATUS_SUCCESS);
    };
    EXPECT_EQ(QueryPathClaim(u"\\srv\\vol\\x").BytesClaimed, Bytes(u"\\srv\\vol"));
    EXPECT_EQ(Turn, 2);
    FsRtlDeregisterUncProvider(Second);
}

} // namespace
