// The translation of Provider statuses.

#include "frame/status_translation.h"
#include "tests/driver/frame_client.h"

namespace {

using namespace test;

class StatusTranslation : public FrameFixture {
protected:
    static NTSTATUS Translate(ULONG Raw) {
        return NtFsdTranslateErrorCode(static_cast<RVSTATUS>(Raw));
    }
    static NTSTATUS Result(ULONG Raw) {
        return NtFsdTranslateResult(static_cast<RVSTATUS>(Raw));
    }
};

// Which code means what stands in the driver, once: whoever changes an entry has to mean it. What callers rely on by
// name their own tests tell.
TEST_F(StatusTranslation, NoEntryChangesUnnoticed) {
    ULONG Known = 0;
    ULONG64 Digest = 0xCBF29CE484222325;
    for (ULONG Code = 0; Code <= 0xFFFF; ++Code) {
        Known += Translate(Code) != STATUS_NOT_SUPPORTED;
        Digest = (Digest ^ static_cast<ULONG>(Translate(Code))) * 0x100000001B3;
    }
    EXPECT_EQ(Known, 52u);
    EXPECT_EQ(Digest, 2666192858698841429u);
}

TEST_F(StatusTranslation, EveryCodeButZeroIsTraced) {
    StartTracing(0x10000);
    Printed.clear();
    Translate(0xC7E70000);
    EXPECT_EQ(Printed, "");
    Translate(0xC7E70520);
    EXPECT_EQ(Printed, "[RVFSD] Traslate Error Code 0xC7E70520 --> 0xC0000103\n");
}

// Where the result decides over success, no error of the Provider's may pass for one.
TEST_F(StatusTranslation, TheUpperHalfNeverMattersButAnErrorNeverBecomesASuccess) {
    for (ULONG Code = 0; Code <= 0xFFFF; ++Code) {
        const NTSTATUS Plain = Translate(Code);
        ASSERT_EQ(Translate(0xC7E70000 | Code), Plain) << std::hex << Code;
        ASSERT_EQ(Translate(0x80000000 | Code), Plain) << std::hex << Code;
        ASSERT_EQ(Result(Code), Plain) << "no error: as it is translated";
        ASSERT_FALSE(NT_SUCCESS(Result(0xC7E70000 | Code))) << std::hex << Code;
    }
    EXPECT_EQ(Result(0xC7E70000), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Result(0xC7E7000E), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Result(0xC7E70520), STATUS_NOT_A_DIRECTORY);
}

} // namespace
