#include "providers/directory/names.h"

#include <random>
#include <set>

#include <gtest/gtest.h>

#include "kernel/kernel.h"

namespace providers::directory {
namespace {

TEST(DirectoryNames, WhatCannotStandInAServedNameIsWrittenWithPrivateUnits) {
    const struct {
        const char *Native;
        const char16_t *Served;
    } Cases[] = {
        {"plain.txt", u"plain.txt"},
        {"a:b", u"a\uF03Ab"},
        {"a\\b|c", u"a\uF05Cb\uF07Cc"},
        {"\"*<>?", u"\uF022\uF02A\uF03C\uF03E\uF03F"},
        {"end.", u"end\uF02E"},
        {"end ", u"end\uF020"},
        {"in .the middle", u"in .the middle"},
        {"\x01\x1F", u"\uF001\uF01F"},
        {"caf\xE9", u"caf\uF0E9"},               // Latin-1
        {"\xED\xA0\x80", u"\uF0ED\uF0A0\uF080"}, // a lone surrogate's encoding
        {"\xC0\xAF", u"\uF0C0\uF0AF"},           // an overlong slash
        {"\xEF\x80\xAA", u"\uF0EF\uF080\uF0AA"}, // U+F02A itself, which would read back as an asterisk
        {"\xEF\x81\xA1", u"\uF061"},             // U+F061, which stands for nothing else
        {"\xF0\x9F\x98\x80", u"\xD83D\xDE00"},
        {"con", u"con"},
    };
    for (const auto &Case : Cases) {
        EXPECT_EQ(ServedName(Case.Native), Case.Served) << Case.Native;
        EXPECT_EQ(NativeName(Case.Served), std::string(Case.Native)) << Case.Native;
    }
}

TEST(DirectoryNames, NamesThatNoListingGivesAreRefused) {
    const std::u16string Cases[] = {
        u"",
        u".",
        u"..",
        u"\uF02E",
        u".\uF02E",
        u"a/b",
        u"a\\b",
        u"a:b",
        u"a*",
        u"a?",
        u"end.",
        u"end ",
        u"\x01",
        std::u16string(1, u'\0'),
        u"\xD800",
        u"x\xDC00",
        u"\uF02Ex",
        u"\uF0C3\uF0A9", // bytes that are valid UTF-8 together
        std::u16string(256, u'n'),
        std::u16string(86, u'\u20AC'),
    };
    for (const std::u16string &Case : Cases) {
        EXPECT_FALSE(NativeName(Case).has_value()) << testing::PrintToString(Case);
    }
    EXPECT_TRUE(NativeName(std::u16string(255, u'n')).has_value());
    EXPECT_TRUE(NativeName(std::u16string(85, u'\u20AC')).has_value());
}

TEST(DirectoryNames, AnyBytesComeBackFromTheirServedName) {
    std::mt19937 Random(20240607);
    const unsigned char Interesting[] = {0xEF, 0x80, 0x81, 0x82, 0x83, 0xAA, 0xC3, 0xA9, 0xED, 0xA0, 0xF0, 0x9F, '.',
                                         ' ',  ':',  'a',  'A',  0x01, 0xFF, 0xBF, 0xA3, 0xBC, 0xBD, '*',  '?',  '<'};
    for (int Round = 0; Round < 200'000; ++Round) {
        std::string Native(1 + Random() % 12, '\0');
        for (char &Byte : Native) {
            do {
                Byte = static_cast<char>(Random() % 2 != 0 ? Interesting[Random() % std::size(Interesting)] : Random());
            } while (Byte == 0 || Byte == '/');
        }
        if (Native == "." || Native == "..") {
            continue;
        }
        const std::u16string Served = ServedName(Native);
        EXPECT_EQ(Served.find_first_of(u"\"*/:<>?\\|"), Served.npos);
        EXPECT_FALSE(HasWildcards(Served)) << "no name is a mask: " << testing::PrintToString(Native);
        ASSERT_EQ(NativeName(Served), Native) << testing::PrintToString(Native);
    }
}

TEST(DirectoryNames, AnyAcceptedServedNameComesBackFromItsBytes) {
    std::mt19937 Random(7);
    int Accepted = 0;
    for (int Round = 0; Round < 200'000; ++Round) {
        std::u16string Served(1 + Random() % 5, u'\0');
        for (char16_t &Unit : Served) {
            Unit = static_cast<char16_t>(Random() % 2 != 0 ? 0xF000 + Random() % 0x100 : Random());
        }
        if (const auto Native = NativeName(Served)) {
            ++Accepted;
            ASSERT_EQ(ServedName(*Native), Served);
        }
    }
    EXPECT_GT(Accepted, 10'000);
}

// A path is its components one by one, however many are taken at a time.
TEST(DirectoryNames, APathIsMadeOfItsNames) {
    std::mt19937 Random(11);
    constexpr char16_t Interesting[] = u"\\\\\\. aZ~/:*?<>|\"\u007F\u001F\u0080\u00FF\u0100\u5C41\u8041\uFF5C\uF02E";
    for (int Round = 0; Round < 50'000; ++Round) {
        std::u16string Served(Random() % 70, u'\0');
        for (char16_t &Unit : Served) {
            Unit = Random() % 24 != 0 ? static_cast<char16_t>(u'a' + Random() % 26)
                                      : Interesting[Random() % (std::size(Interesting) - 1)];
        }
        std::optional<std::string> Wanted = "";
        for (std::u16string_view Rest = Served; Wanted && !Rest.empty();) {
            const std::u16string_view Name = Rest.substr(0, Rest.find(u'\\'));
            Rest.remove_prefix(std::min(Name.size() + 1, Rest.size()));
            if (const auto Native = NativeName(Name); !Name.empty() && Native) {
                *Wanted += (Wanted->empty() ? "" : "/") + *Native;
            } else if (!Name.empty()) {
                Wanted.reset();
            }
        }
        ASSERT_EQ(NativePath(Served), Wanted) << testing::PrintToString(Served);
    }
}

TEST(DirectoryNames, EveryUnitIsFoldedAsThePlatformFoldsIt) {
    EXPECT_EQ(Fold(u"straße Ärger éÿ ωσς ıſ"), u"STRAßE ÄRGER ÉŸ ΩΣΣ ıſ");
    for (unsigned Unit = 0; Unit < 0x10000; ++Unit) {
        const auto Own = static_cast<WCHAR>(Unit);
        ASSERT_EQ(Fold({&Own, 1})[0], RtlUpcaseUnicodeChar(Own)) << Unit;
    }
}

TEST(DirectoryNames, MasksMatchAsOnThePlatform) {
    const struct {
        const char16_t *Mask;
        const char16_t *Name;
        bool Matches;
    } Cases[] = {
        {u"*", u"ANY.THING", true},
        {u"*.*", u"NODOT", true},
        {u"*.TXT", u"A.TXT", true},
        {u"*.TXT", u"A.TXTX", false},
        {u"A*B*C", u"AXXBYYC", true},
        {u"A*B*C", u"AXXBYY", false},
        {u"?", u"A", true},
        {u"?", u"AB", false},
        {u"A?", u"A", false},
        {u"A\uF8FD", u"A", true},
        {u"A\uF8FD\uF8FD.B", u"A.B", true},
        {u"A\uF8FD", u"ABC", false},
        {u"\uF8FC.TXT", u"A.B.TXT", true},
        {u"\uF8FC", u"A.TXT", false},
        {u"\uF8FC", u"NODOT", true},
        {u"A\uF8FF", u"A", true},
        {u"A\uF8FFB", u"A.B", true},
        {u"EXACT", u"EXACT", true},
        {u"*A*A*A*A*A*A*A*B", u"AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA", false},
    };
    for (const auto &Case : Cases) {
        EXPECT_EQ(MatchesMask(Case.Mask, Case.Name), Case.Matches)
            << testing::PrintToString(Case.Mask) << " " << testing::PrintToString(Case.Name);
    }
}

TEST(DirectoryNames, ShortNamesAreMadeOnlyWhereNeeded) {
    for (const char *Plain : {"README.TXT", "a", "12345678.123", "x_y-z"}) {
        EXPECT_EQ(ShortName(Plain).View(), u"") << Plain;
    }
    for (const char *Long : {"a long name.html", "123456789", ".profile", "a.b.c",
                             "\xC3\xBCn\xC3\xAF"
                             "code",
                             "...", "\x80"}) {
        const std::u16string Short(ShortName(Long).View());
        EXPECT_FALSE(Short.empty());
        EXPECT_LE(Short.size(), 12u);
        EXPECT_EQ(Short, Fold(Short));
        EXPECT_EQ(ShortName(std::string(Short.begin(), Short.end())).View(), u"") << "a short name must be one itself";
        EXPECT_EQ(ShortCode::Of(Short).Text().View(), Short);
    }
    EXPECT_EQ(ShortName("a long name.html").View(), u"ALCOB6~1.HTM") << "programs keep them";
    for (const char16_t *None :
         {u"AB1234~", u"AB1234~0", u"ABC1234~1", u"234~1", u"AB1234~1.", u"AB1234~1.TEXT", u"AB1234~1.A.B", u"AB12.4~1",
          u"A\u00C41234~1", u"A 1234~1", u"ab1234~1", u"AB12-4~1", u"AB1234~1.\u0100", u""}) {
        EXPECT_TRUE(ShortCode::Of(None).empty()) << testing::PrintToString(std::u16string(None));
    }
}

TEST(DirectoryNames, OneWalkFindsWhatTheFoldedNameSays) {
    for (const std::string End : {"", "z", "{", "\x7F", ".", "\xC3\xA9", "\xFF", ":"}) {
        for (size_t Size = 0; Size < 10; ++Size) {
            const std::string Native = std::string("mixedCase").substr(0, Size) + End;
            const NameFacts Facts = FactsOf(Native);
            EXPECT_EQ(Facts.Hash, HashOfFolded(Fold(ServedName(Native)))) << Native;
            EXPECT_EQ(Facts.IsPlain, !Native.empty() && (End.empty() || End == "z" || End == "{")) << Native;
        }
    }
}

} // namespace
} // namespace providers::directory
