// Counted strings: copies, components, composed paths.

#include "names/strings.h"
#include "tests/support/driver_fixture.h"

namespace {

using namespace test;

constexpr ULONG LongestText = 65532; // bytes; with its terminator the largest even 16-bit size

std::u16string View(PCUNICODE_STRING Text) {
    return {Text->Buffer, Text->Length / sizeof(WCHAR)};
}

class Strings : public DriverFixture {
protected:
    void SetUp() override {
        Start({.Switches = {}, .StartsTheDriver = false});
    }
};

TEST_F(Strings, ACopyIsTerminatedAndReusesABufferThatIsLargeEnough) {
    OwnedString Copy;
    struct {
        const char16_t *Text;
        USHORT Bytes;
        USHORT Room; // of the copy afterwards
    } constexpr Cases[] = {{nullptr, 0, 2},       {u"12345678", 16, 18}, {u"1", 2, 18}, {u"", 0, 18},
                           {u"87654321", 16, 18}, {u"abc", 5, 18}, // half a character at the end is dropped
                           {u"123456789", 18, 20}};
    for (const auto &Each : Cases) {
        const UNICODE_STRING Source = {Each.Bytes, Each.Bytes, const_cast<PWSTR>(Each.Text)};
        const UNICODE_STRING Before = *Copy.Get();
        ASSERT_EQ(NtFsdUpdateUnicodeString(Copy.Get(), &Source), STATUS_SUCCESS);
        EXPECT_EQ(View(Copy.Get()), std::u16string(Each.Text != nullptr ? Each.Text : u"", Each.Bytes / 2));
        EXPECT_EQ(Copy->Buffer[Each.Bytes / 2], 0);
        EXPECT_EQ(Copy->MaximumLength, Each.Room);
        EXPECT_EQ(Copy->Buffer == Before.Buffer, Each.Room == Before.MaximumLength);
        EXPECT_NE(Copy->Buffer, Source.Buffer);
    }
}

TEST_F(Strings, ACopyThatGetsNoMemoryIsEmptyAndSaysSo) {
    OwnedString Copy;
    UNICODE_STRING Source = ToUnicodeString(u"ab");
    ASSERT_EQ(NtFsdUpdateUnicodeString(Copy.Get(), &Source), STATUS_SUCCESS);
    Source = ToUnicodeString(u"abc");
    {
        const PlannedFaults NoMemory({});
        const FaultScope InDriver;
        EXPECT_EQ(NtFsdUpdateUnicodeString(Copy.Get(), &Source), STATUS_INSUFFICIENT_RESOURCES);
    }
    EXPECT_EQ(Copy->Buffer, nullptr);
    EXPECT_EQ(Copy->Length, 0);
    EXPECT_EQ(Copy->MaximumLength, 0);
    EXPECT_TRUE(WasPrinted("[RVFSD] NtFsdUpdateUnicodeString alloc for 8 bytes failed.\n"));
}

TEST_F(Strings, ACopyBeyondASixteenBitSizeIsRefusedBeforeItTouchesTheDestination) {
    const std::u16string Text(0x8000, u'x');
    for (const USHORT Bytes : {65531, 65532, 65533, 65534, 65535}) {
        const bool Fits = Bytes < 65534;
        OwnedString Copy;
        const UNICODE_STRING Old = ToUnicodeString(u"old");
        ASSERT_EQ(NtFsdUpdateUnicodeString(Copy.Get(), &Old), STATUS_SUCCESS);
        const UNICODE_STRING Source = {Bytes, Bytes, const_cast<PWSTR>(Text.data())};
        EXPECT_EQ(NtFsdUpdateUnicodeString(Copy.Get(), &Source), Fits ? STATUS_SUCCESS : STATUS_NAME_TOO_LONG);
        EXPECT_EQ(View(Copy.Get()), Fits ? Text.substr(0, Bytes / 2) : u"old") << Bytes;
    }
}

TEST_F(Strings, AFreedStringIsEmptyAndMayBeFreedAgain) {
    UNICODE_STRING Copy = {0, 0, nullptr};
    const UNICODE_STRING Source = ToUnicodeString(u"text");
    ASSERT_EQ(NtFsdUpdateUnicodeString(&Copy, &Source), STATUS_SUCCESS);
    for (int Times = 0; Times < 2; Times++) {
        NtFsdFreeUnicodeString(&Copy);
        EXPECT_EQ(Copy.Buffer, nullptr);
        EXPECT_EQ(Copy.Length, 0);
        EXPECT_EQ(Copy.MaximumLength, 0);
    }
}

TEST(Components, AreCountedBetweenBackslashes) {
    struct {
        std::u16string_view Path;
        ULONG Count;
    } constexpr Cases[] = {
        {u"", 0},
        {u"\\", 0},
        {u"\\\\\\", 0},
        {u"\\server", 1},
        {u"server", 1},
        {u"\\server\\", 1},
        {u"\\\\server", 1},
        {u"\\server\\volume", 2},
        {u"\\server\\volume\\", 2},
        {u"\\server\\volume\\a\\b", 4},
        {u"a\\\\b", 3},
        {u"a\\\\", 2}, // the empty component counts, the end does not
        {std::u16string_view(u"\\a\0\\b", 5), 1},
        {std::u16string_view(u"\\\0a", 3), 0},
        {std::u16string_view(u"\\a\\\0b", 5), 1},
    };
    for (const auto &Each : Cases) {
        const UNICODE_STRING Path = ToUnicodeString(Each.Path);
        EXPECT_EQ(NtFsdCountPathComponents(&Path), Each.Count) << ToUtf8(Each.Path);
    }
    const UNICODE_STRING Half = {7, 7, const_cast<PWSTR>(u"\\a\\b")}; // of its last character
    EXPECT_EQ(NtFsdCountPathComponents(&Half), 1u);
}

TEST_F(Strings, AComposedPathHasOneSeparator) {
    struct {
        const char16_t *Base; // nullptr: none
        std::u16string_view Name, Path;
    } constexpr Cases[] = {
        {nullptr, u"\\srv\\vol", u"\\srv\\vol"},
        {nullptr, u"", u""},
        {u"\\srv\\vol", u"a", u"\\srv\\vol\\a"},
        {u"\\srv\\vol\\", u"a", u"\\srv\\vol\\a"},
        {u"\\srv\\vol", u"", u"\\srv\\vol\\"},
        {u"\\srv\\vol\\", u"", u"\\srv\\vol\\"},
        {u"", u"a", u"\\a"},
        {u"\\srv", u"\\a", u"\\srv\\\\a"},
    };
    for (const auto &Each : Cases) {
        const UNICODE_STRING Base = ToUnicodeString(Each.Base != nullptr ? Each.Base : u"");
        const UNICODE_STRING Name = ToUnicodeString(Each.Name);
        OwnedString Path;
        ULONG Bytes = 0;
        ASSERT_EQ(NtFsdComposePath(Each.Base != nullptr ? &Base : nullptr, &Name, Path.Get(), &Bytes), STATUS_SUCCESS);
        EXPECT_EQ(View(Path.Get()), Each.Path);
        EXPECT_EQ(Path->Buffer[Path->Length / 2], 0);
        EXPECT_EQ(Path->MaximumLength, Path->Length + sizeof(WCHAR));
        EXPECT_EQ(Bytes, Path->MaximumLength);
    }
}

TEST_F(Strings, AComposedPathBeyondASixteenBitSizeIsRefused) {
    const std::u16string Base(16000, u'b');
    const UNICODE_STRING BaseString = ToUnicodeString(Base);
    for (const ULONG TextBytes : {LongestText - 2, LongestText, LongestText + 2, LongestText + 4}) {
        const std::u16string Name(TextBytes / 2 - Base.size() - 1, u'n');
        const UNICODE_STRING NameString = ToUnicodeString(Name);
        OwnedString Path;
        const NTSTATUS Status = NtFsdComposePath(&BaseString, &NameString, Path.Get(), nullptr);
        EXPECT_EQ(Status, TextBytes <= LongestText ? STATUS_SUCCESS : STATUS_OBJECT_NAME_INVALID) << TextBytes;
        EXPECT_EQ(Path->Length, TextBytes <= LongestText ? TextBytes : 0u);
    }
}

TEST_F(Strings, AComposedPathThatGetsNoMemoryTellsHowMuchItWanted) {
    const UNICODE_STRING Name = ToUnicodeString(u"\\srv");
    OwnedString Path;
    ULONG Bytes = 0;
    const PlannedFaults NoMemory({});
    const FaultScope InDriver;
    EXPECT_EQ(NtFsdComposePath(nullptr, &Name, Path.Get(), &Bytes), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Bytes, 10u);
    EXPECT_EQ(Path->Buffer, nullptr);
}

} // namespace
