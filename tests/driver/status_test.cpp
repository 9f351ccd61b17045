// The translation of Provider statuses.

#include "frame/status_translation.h"
#include "tests/driver/frame_client.h"

namespace {

class StatusTranslation : public test::FrameFixture {
protected:
    static NTSTATUS Translate(ULONG Raw) {
        return NtFsdTranslateErrorCode(static_cast<RVSTATUS>(Raw));
    }
    static NTSTATUS Result(ULONG Raw) {
        return NtFsdTranslateResult(static_cast<RVSTATUS>(Raw));
    }
};

TEST_F(StatusTranslation, TheUpperHalfNeverMatters) {
    for (ULONG Code = 0; Code <= 0xFFFF; ++Code) {
        const NTSTATUS Plain = Translate(Code);
        ASSERT_EQ(Translate(0xC7E70000 | Code), Plain) << std::hex << Code;
        ASSERT_EQ(Translate(0x80000000 | Code), Plain) << std::hex << Code;
    }
}

TEST_F(StatusTranslation, FiftyTwoCodesHaveAStatusOfTheirOwn) {
    ULONG Known = 0;
    for (ULONG Code = 0; Code <= 0xFFFF; ++Code) {
        Known += Translate(Code) != STATUS_NOT_SUPPORTED;
    }
    EXPECT_EQ(Known, 52u);
}

struct Row {
    USHORT Code;
    NTSTATUS Status;
};

// What callers rely on: the ends of the table, the neighbours of its gaps, the codes that are no errors.
TEST_F(StatusTranslation, KnownCodes) {
    constexpr Row Rows[] = {
        {0x0000, STATUS_SUCCESS},           {0x0001, STATUS_UNSUCCESSFUL},
        {0x0003, STATUS_INVALID_HANDLE},    {0x0006, STATUS_ACCESS_DENIED},
        {0x0007, STATUS_BUFFER_OVERFLOW},   {0x0008, STATUS_NO_DATA_DETECTED},
        {0x0009, STATUS_NO_MORE_ENTRIES},   {0x000A, STATUS_TIMEOUT},
        {0x000C, STATUS_CANCELLED},         {0x000E, STATUS_PENDING},
        {0x0107, STATUS_ACCESS_DENIED},     {0x0503, STATUS_OBJECT_PATH_NOT_FOUND},
        {0x0505, STATUS_NO_MORE_FILES},     {0x050F, STATUS_END_OF_FILE},
        {0x0511, STATUS_INVALID_PARAMETER}, {0x0513, STATUS_DIRECTORY_NOT_EMPTY},
        {0x0516, STATUS_MORE_ENTRIES},      {0x0517, STATUS_NO_LOGON_SERVERS},
        {0x051A, STATUS_NO_MEMORY},         {0x051B, STATUS_NO_QUOTAS_FOR_ACCOUNT},
        {0x0520, STATUS_NOT_A_DIRECTORY},   {0x0521, STATUS_FILE_IS_A_DIRECTORY},
        {0x0528, STATUS_REPARSE_OBJECT},    {0x052E, STATUS_OBJECT_NAME_INVALID},
        {0x0534, STATUS_NOT_SAME_DEVICE},   {0x0537, STATUS_RANGE_NOT_LOCKED},
    };
    for (const Row &Each : Rows) {
        EXPECT_EQ(Translate(Each.Code), Each.Status) << std::hex << Each.Code;
    }
}

TEST_F(StatusTranslation, GapsAreNotSupported) {
    for (const ULONG Code : {0x0002u, 0x000Du, 0x000Fu, 0x0103u, 0x0501u, 0x0512u, 0x0518u, 0x0519u, 0x0522u, 0x0527u,
                             0x0529u, 0x052Du, 0x052Fu, 0x0533u, 0x0535u, 0x0536u, 0x0538u, 0xFFFFu}) {
        EXPECT_EQ(Translate(Code), STATUS_NOT_SUPPORTED) << std::hex << Code;
    }
}

TEST_F(StatusTranslation, SeveralCodesShareAStatus) {
    constexpr USHORT Shared[][2] = {{0x0502, 0x0506}, {0x0509, 0x050C}, {0x0509, 0x0023}, {0x050D, 0x050E},
                                    {0x0106, 0x0510}, {0x0515, 0x052E}, {0x0006, 0x0107}, {0x0004, 0x0511}};
    for (const auto &[One, Other] : Shared) {
        EXPECT_EQ(Translate(One), Translate(Other)) << std::hex << One << " " << Other;
        EXPECT_NE(Translate(One), STATUS_NOT_SUPPORTED);
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

// Where the result decides over success, no error of the Provider's may pass for one.
TEST_F(StatusTranslation, AnErrorNeverBecomesASuccess) {
    for (ULONG Code = 0; Code <= 0xFFFF; ++Code) {
        ASSERT_FALSE(NT_SUCCESS(Result(0xC7E70000 | Code))) << std::hex << Code;
        ASSERT_EQ(Result(Code), Translate(Code)) << "no error: as it is translated";
    }
    EXPECT_EQ(Result(0xC7E70000), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Result(0xC7E7000E), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Result(0xC7E70520), STATUS_NOT_A_DIRECTORY);
}

} // namespace
