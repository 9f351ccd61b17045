#include "embedded/rtl/counted.h"
#include "embedded/rtl/rtl.h"

#include "embedded/ob/ob.h"
#include "embedded/rtl/upcase.h"

#include <gtest/gtest.h>
#include <string_view>

namespace embedded {
namespace {

TEST(Upcase, FoldsUnitsOneToOneAndLeavesTheRestAlone) {
    const struct {
        WCHAR Unit, Upper;
        const char *Why;
    } Cases[] = {
        {u'a', u'A', "small letter"},
        {u'z', u'Z', "last small letter"},
        {u'Z', u'Z', "capital"},
        {u'{', u'{', "just behind z"},
        {u'`', u'`', "just before a"},
        {u'\\', u'\\', "separator"},
        {0x00E9, 0x00C9, "e with acute"},
        {0x00FF, 0x0178, "to another page"},
        {0x00DF, 0x00DF, "sharp s has no one-unit capital"},
        {0x0131, 0x0131, "dotless i is not I"},
        {0x017F, 0x017F, "long s is not S"},
        {0x03C2, 0x03A3, "final sigma"},
        {0xFFFF, 0xFFFF, "last unit"},
    };
    for (const auto &Case : Cases) {
        EXPECT_EQ(UpcaseUnit(Case.Unit), Case.Upper) << Case.Why;
    }
    for (unsigned Unit = 0; Unit <= 0xFFFF; ++Unit) {
        const WCHAR Upper = UpcaseUnit(static_cast<WCHAR>(Unit));
        EXPECT_EQ(UpcaseUnit(Upper), Upper) << Unit;
        EXPECT_EQ(Upper < 0x80, Unit < 0x80) << Unit << ": nothing beyond ASCII folds onto ASCII";
    }
}

TEST(RtlEqualUnicodeString, ComparesWholeStringsWithOrWithoutCase) {
    const struct {
        std::u16string_view One, Two;
        bool Equal, EqualIgnoringCase;
    } Cases[] = {
        {u"", u"", true, true},
        {u"\\srv\\vol", u"\\SRV\\Vol", false, true},
        {u"\\srv\\vol", u"\\srv\\vo", false, false},
        {u"\\srv\\vol", u"\\srv\\vox", false, false},
        {u"gr\u00FCn", u"GR\u00DCN", false, true},
        {u"file", u"f\u0131le", false, false},
    };
    for (const auto &Case : Cases) {
        UNICODE_STRING One = ToUnicodeString(Case.One), Two = ToUnicodeString(Case.Two);
        EXPECT_EQ(RtlEqualUnicodeString(&One, &Two, FALSE), Case.Equal);
        EXPECT_EQ(RtlEqualUnicodeString(&One, &Two, TRUE), Case.EqualIgnoringCase);
    }
}

TEST(RtlTimeToTimeFields, SplitsTimes) {
    constexpr LONGLONG Day = 864'000'000'000;
    const struct {
        LONGLONG Time;
        TIME_FIELDS Fields;
    } Cases[] = {
        {0, {1601, 1, 1, 0, 0, 0, 0, 1}},
        {Day - 10'000, {1601, 1, 1, 23, 59, 59, 999, 1}},
        {116'444'736'000'000'000, {1970, 1, 1, 0, 0, 0, 0, 4}},
        {125'963'424'000'000'000, {2000, 3, 1, 0, 0, 0, 0, 3}},
        {125'963'424'000'000'000 - Day, {2000, 2, 29, 0, 0, 0, 0, 2}},
    };
    for (const auto &Case : Cases) {
        LARGE_INTEGER Time = {.QuadPart = Case.Time};
        TIME_FIELDS Fields{};
        RtlTimeToTimeFields(&Time, &Fields);
        EXPECT_EQ(memcmp(&Fields, &Case.Fields, sizeof(Fields)), 0) << Case.Time;
    }
}

} // namespace
} // namespace embedded
