#include "embedded/cm.h"
#include "embedded/rtl/counted.h"

#include <cstring>

#include <gtest/gtest.h>

#include "embedded/kernel.h"
#include "embedded/ob/ob.h"
#include "embedded/probe.h"

namespace {

using namespace embedded;

class CmTest : public ::testing::Test {
protected:
    // Opens the service key as a driver does, queries Name with Length bytes of room.
    NTSTATUS Query(std::u16string_view Name, ULONG Length) {
        UNICODE_STRING Key = ToUnicodeString(u"\\REGISTRY\\Machine\\SYSTEM\\CurrentControlSet\\Services\\rvfsd\\");
        OBJECT_ATTRIBUTES Attributes;
        InitializeObjectAttributes(&Attributes, &Key, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        HANDLE Handle = nullptr;
        NTSTATUS Status = ZwOpenKey(&Handle, MAXIMUM_ALLOWED, &Attributes);
        if (!NT_SUCCESS(Status)) {
            return Status;
        }
        UNICODE_STRING Value = ToUnicodeString(Name);
        memset(Buffer, 0xEE, sizeof(Buffer));
        Status = ZwQueryValueKey(Handle, &Value, KeyValuePartialInformation, Buffer, Length, &ResultLength);
        EXPECT_EQ(ZwClose(Handle), STATUS_SUCCESS);
        return Status;
    }
    const KEY_VALUE_PARTIAL_INFORMATION &Result() const {
        return *reinterpret_cast<const KEY_VALUE_PARTIAL_INFORMATION *>(Buffer);
    }

    Kernel Running;
    alignas(8) UCHAR Buffer[64];
    ULONG ResultLength = 0;
};

TEST_F(CmTest, TooLittleRoomIsSaidInTwoWays) {
    SetRegistryValue(kServiceKey, u"Eight", REG_BINARY, std::as_bytes(std::span("1234567", 8)));
    struct {
        ULONG Length;
        NTSTATUS Status;
    } const Cases[] = {
        {0, STATUS_BUFFER_TOO_SMALL}, {11, STATUS_BUFFER_TOO_SMALL}, {12, STATUS_BUFFER_OVERFLOW},
        {19, STATUS_BUFFER_OVERFLOW}, {20, STATUS_SUCCESS},
    };
    for (const auto &Case : Cases) {
        EXPECT_EQ(Query(u"Eight", Case.Length), Case.Status) << Case.Length;
        EXPECT_EQ(ResultLength, 20u);
        EXPECT_EQ(Buffer[Case.Length], 0xEE) << "bytes beyond the room were touched";
        if (Case.Status == STATUS_BUFFER_OVERFLOW) {
            EXPECT_EQ(Result().DataLength, 8u);
        }
    }
}

TEST_F(CmTest, MissingNamesAreNotFound) {
    EXPECT_EQ(Query(u"Nothing", 20), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_TRUE(DeleteRegistryKey(kServiceKey));
    EXPECT_FALSE(DeleteRegistryKey(kServiceKey));
    EXPECT_EQ(Query(u"Nothing", 20), STATUS_OBJECT_NAME_NOT_FOUND);
}

using CmDeathTest = CmTest;

TEST_F(CmDeathTest, AStringOfOddLengthStops) {
    WCHAR Text[] = u"\\REGISTRY";
    UNICODE_STRING Key{5, 20, Text};
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &Key, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE Handle = nullptr;
    EXPECT_DEATH(static_cast<void>(ZwOpenKey(&Handle, MAXIMUM_ALLOWED, &Attributes)), "0x000000C4.*0*E4");
    Key = {20, 10, Text};
    EXPECT_DEATH(static_cast<void>(ZwOpenKey(&Handle, MAXIMUM_ALLOWED, &Attributes)), "0x000000C4.*0*E4");
}

} // namespace
