// The translation of Provider statuses.

#include "frame/status_translation.h"
#include "tests/driver/frame_client.h"

namespace {

using namespace test;

class StatusTranslation : public FrameFixture {
protected:
    static ULONG Translate(ULONG Raw) {
        return static_cast<ULONG>(NtFsdTranslateErrorCode(static_cast<RVSTATUS>(Raw)));
    }
    static ULONG Result(ULONG Raw) {
        return static_cast<ULONG>(NtFsdTranslateResult(static_cast<RVSTATUS>(Raw)));
    }
};

// The numbers of the statuses, from one code on; 0: the code is not known.
const std::map<ULONG, std::vector<ULONG>> Numbers = {
    {0x001, {0xC0000001, 0, 0xC0000008, 0xC000000D, 0xC000009A, 0xC0000022, 0x80000005, 0x80000022, 0x8000001A}},
    {0x00A, {0x102, 0xC0000034, 0xC0000120, 0, 0x103}},
    {0x023, {0xC000007F}},
    {0x100, {0xC00000C4, 0xC000020C, 0xC00000BF, 0, 0, 0, 0xC0000035, 0xC0000022}},
    {0x502, {0xC000000F, 0xC000003A, 0xC000011F, 0x80000006, 0xC000000F, 0xC0000098, 0xC0000102, 0xC000007F}},
    {0x50A, {0xC000014F, 0xC0000086, 0xC000007F, 0xC0000043, 0xC0000043, 0xC0000011, 0xC0000035, 0xC000000D}},
    {0x513, {0xC0000101, 0xC0000039, 0xC0000033, 0x105, 0xC000005E, 0, 0, 0xC0000017, 0x10D, 0xC00000A1}},
    {0x51D, {0xC0000044, 0xC0000054, 0xC0000055, 0xC0000103, 0xC00000BA}},
    {0x528, {0x118, 0, 0, 0, 0, 0, 0xC0000033, 0, 0, 0, 0, 0, 0xC00000D4, 0, 0, 0xC000007E}},
};

// The upper half never matters; but where the result decides over success, no error may pass for one.
TEST_F(StatusTranslation, EveryCodeHasOneStatusAndNoErrorBecomesASuccess) {
    std::vector<ULONG> Wanted(0x10000, static_cast<ULONG>(STATUS_NOT_SUPPORTED));
    Wanted[0] = 0;
    for (const auto &[First, Run] : Numbers) {
        for (size_t Nth = 0; Nth < Run.size(); ++Nth) {
            Wanted[First + Nth] = Run[Nth] != 0 ? Run[Nth] : Wanted[First + Nth];
        }
    }
    for (ULONG Code = 0; Code <= 0xFFFF; ++Code) {
        const ULONG Status = Wanted[Code];
        for (const ULONG Severity : {0u, 0x80000000u, 0xC7E70000u}) {
            const bool Passes = Severity == 0xC7E70000 && NT_SUCCESS(static_cast<NTSTATUS>(Status));
            ASSERT_EQ(Translate(Severity | Code), Status) << std::hex << Code;
            ASSERT_EQ(Result(Severity | Code), Passes ? 0xC0000001 : Status) << std::hex << Code;
        }
    }
}

TEST_F(StatusTranslation, EveryCodeButZeroIsTraced) {
    StartTracing(0x10000);
    Printed.clear();
    Translate(0xC7E70000);
    EXPECT_EQ(Printed, "");
    Translate(0xC7E70520);
    EXPECT_EQ(Printed, "[RVFSD] Traslate Error Code 0xC7E70520 --> 0xC0000103\n");
}

} // namespace
