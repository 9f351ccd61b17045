// The bounded formatting of trace lines.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frame/format.h"

namespace {

template <typename... T>
std::string Cut(ULONG Size, PCSTR Format, T... Values) {
    const FormatArgument Arguments[] = {MakeFormatArgument(Values)..., FormatArgument{}};
    std::string Buffer(Size + 8, '#');
    const ULONG Length = FormatBounded(Buffer.data(), Size, Format, Arguments, sizeof...(T));
    EXPECT_LT(Length, Size);
    EXPECT_EQ(Buffer[Length], '\0');
    EXPECT_EQ(Buffer.substr(Size), "########") << "bytes behind the buffer were written";
    return Buffer.substr(0, Length);
}

template <typename... T>
std::string Formatted(PCSTR Format, T... Values) {
    return Cut(1024, Format, Values...);
}

UNICODE_STRING Counted(const char16_t *Text, ULONG Units) {
    const auto Bytes = static_cast<USHORT>(Units * sizeof(WCHAR));
    return {Bytes, Bytes, const_cast<PWSTR>(Text)};
}

struct Line {
    std::string Got, Wanted;
};

void ExpectAll(const std::vector<Line> &Lines) {
    for (const Line &Each : Lines) {
        EXPECT_EQ(Each.Got, Each.Wanted);
    }
}

TEST(Format, IntegersHaveSignBaseWidthAndPrecision) {
    ExpectAll({
        {Formatted("%d %i", -5, 7), "-5 7"},
        {Formatted("%d", static_cast<int>(0x80000000)), "-2147483648"},
        {Formatted("%u", 0xFFFFFFFFu), "4294967295"},
        {Formatted("%x %X", 0xABCDEFu, 0xABCDEFu), "abcdef ABCDEF"},
        {Formatted("0x%08X", 0x1Fu), "0x0000001F"},
        {Formatted("%8X|%-8X|", 0x1Fu, 0x1Fu), "      1F|1F      |"},
        {Formatted("%0.2d:%0.2d", 7, 12), "07:12"},
        {Formatted("%05d", -42), "-0042"},
        {Formatted("%ld %lu %08lx %hu", -1, 1u, 255u, 65535u), "-1 1 000000ff 65535"},
        {Formatted("%x", 0), "0"},
        // A negative number must not spread into the upper half, nor a 64-bit one lose it.
        {Formatted("%X", static_cast<NTSTATUS>(0xC0000001)), "C0000001"},
        {Formatted("%I64X", 0x123456789ABCDEF0ull), "123456789ABCDEF0"},
        {Formatted("%I64x", -1ll), "ffffffffffffffff"},
        {Formatted("%I64d", static_cast<LONG64>(0x8000000000000000ull)), "-9223372036854775808"},
        {Formatted("%I64u", ~0ull), "18446744073709551615"},
        // Pointers are sixteen digits.
        {Formatted("0x%p", reinterpret_cast<PVOID>(0xFFFF8000DEADBEEFull)), "0xFFFF8000DEADBEEF"},
        {Formatted("%p", static_cast<PVOID>(nullptr)), "0000000000000000"},
    });
}

TEST(Format, NarrowTextHasWidthAndPrecision) {
    ExpectAll({
        {Formatted("<%s>", "text"), "<text>"},
        {Formatted("<%6s><%-6s>", "text", "text"), "<  text><text  >"},
        {Formatted("<%.2s>", "text"), "<te>"},
        {Formatted("<%s>", static_cast<PCSTR>(nullptr)), "<>"},
        {Formatted("%c%c", 'o', 'k'), "ok"},
        {Formatted("100%%"), "100%"},
        {Formatted("caf\xE9: %s", "caf\xE9"), "caf\xE9: caf\xE9"}, // no UTF-8: as it is, when it fits
    });
}

TEST(Format, WideTextIsWrittenAsUtf8) {
    const UNICODE_STRING Name = Counted(u"\\srv\\größe", 10);
    const UNICODE_STRING Half = Counted(u"\\srv\\größe", 4);
    const UNICODE_STRING Odd = {7, 8, const_cast<PWSTR>(u"abcd")};
    const UNICODE_STRING Nothing = {12, 12, nullptr};
    ExpectAll({
        {Formatted("%ws|%ls", u"é€", u"\U0001F600\U0010FFFF"), "é€|\U0001F600\U0010FFFF"},
        {Formatted("\"%wZ\" \"%wZ\"", &Name, &Half), "\"\\srv\\größe\" \"\\srv\""},
        {Formatted("%wZ", &Odd), "abc"},
        {Formatted("<%wZ>", &Nothing), "<>"},
        {Formatted("<%wZ>", static_cast<PCUNICODE_STRING>(nullptr)), "<>"},
        {Formatted("<%ws>", static_cast<PCWSTR>(nullptr)), "<>"},
        {Formatted("<%ws>", WideText{nullptr, 5}), "<>"},
        {Formatted("<%ws>", WideText{u"unterminated", 2}), "<un>"},
        {Formatted("<%6ws><%-6ws>", u"é", u"é"), "<     é><é     >"},
    });
}

TEST(Format, HalfASurrogatePairBecomesTheReplacementCharacter) {
    const UNICODE_STRING Controls = Counted(u"a\0b\nc\x7F"
                                            "d",
                                            7);
    const WCHAR Lead[] = {u'a', 0xD83D, 0};
    const WCHAR Trail[] = {0xDE00, u'b', 0};
    ExpectAll({
        {Formatted("%ws", Lead), "a\uFFFD"},
        {Formatted("%wZ|", &Controls), "a\uFFFDb\uFFFDc\uFFFDd|"}, // nothing of a name ends or begins a line
        {Formatted("%ws", Trail), "\uFFFDb"},
        {Formatted("%.1ws", u"\U0001F600"), "\uFFFD"}, // a precision in the middle of a pair
    });
}

TEST(Format, AStarTakesThePrecisionOfWideText) {
    ExpectAll({
        {Formatted("\"%.*ws\" (%u)", 4u, u"\\srv\\vol", 8u), "\"\\srv\" (8)"},
        {Formatted("\"%.*ws\"", 0u, u"\\srv"), "\"\""},
        {Formatted("\"%.*ws\"", -3, u"\\srv"), "\"\""},
        {Formatted("\"%.*ws\"", 9u, WideText{u"\\srv", 2}), "\"\\s\""}, // shorter than was asked for
        {Formatted("\"%.*ws\"", 9u, WideText{nullptr, 0}), "\"\""},
        {Formatted("\"%.*s\"", 2u, "text"), "\"te\""},
    });
    // A wide text with a precision need not end anywhere.
    std::vector<WCHAR> Exactly(3, u'x');
    EXPECT_EQ(Formatted("%.*ws", 3u, static_cast<PCWSTR>(Exactly.data())), "xxx");
}

TEST(Format, TextIsDataWhateverItHolds) {
    const UNICODE_STRING Name = Counted(u"%n%s%wZ", 7);
    EXPECT_EQ(Formatted("%s %wZ %ws", "%s%n%p", &Name, u"100%"), "%s%n%p %n%s%wZ 100%");
}

TEST(Format, ACutLineIsAPrefixThatSplitsNoCharacter) {
    const UNICODE_STRING Name = Counted(u"ä€\U0001F600z", 5);
    const auto Line = [&](ULONG Size) {
        return Cut(Size, "a%wZ|%s|%08X|%6ws|%I64u", &Name, "ü€\U0001F601", 0xABCu, u"ö", 12345678901ull);
    };
    const std::string Whole = Line(256);
    for (ULONG Size = 1; Size <= Whole.size() + 2; ++Size) {
        const std::string Got = Line(Size);
        EXPECT_EQ(Whole.compare(0, Got.size(), Got), 0) << "size " << Size;
        EXPECT_TRUE(Got.size() == Whole.size() || (Whole[Got.size()] & 0xC0) != 0x80) << "split at size " << Size;
        EXPECT_GE(Got.size() + 3, std::min<size_t>(Size - 1, Whole.size())) << "cut too short at size " << Size;
    }
    EXPECT_EQ(Line(static_cast<ULONG>(Whole.size()) + 1), Whole);
    EXPECT_EQ(Cut(5, "%ws%s", u"abc€", "x"), "abc"); // the "x" would fit where the euro sign did not
}

template <typename... T>
constexpr bool Fits(const char *Format) {
    return FormatTypes<T...>::Match(Format);
}

static_assert(Fits<>("nothing, and 100%%\n"));
static_assert(Fits<ULONG, PCSTR>("%08X %s"));
static_assert(Fits<NTSTATUS>("0x%x") && Fits<UCHAR>("%u") && Fits<USHORT>("%hu") && Fits<BOOLEAN>("%d"));
static_assert(Fits<ULONG64>("%I64X") && Fits<LONG64>("%I64d"));
static_assert(Fits<PVOID>("%p") && Fits<PIRP>("%p") && Fits<PCSTR>("%p") && Fits<PCWSTR>("%p"));
static_assert(Fits<PUNICODE_STRING>("%wZ") && Fits<PCUNICODE_STRING>("%Z"));
static_assert(Fits<PWSTR>("%ws") && Fits<PCWSTR>("%ls") && Fits<WideText>("%ws"));
static_assert(Fits<ULONG, WideText, PUNICODE_STRING, ULONG>("%.*ws of \"%wZ\" (%u bytes)"));

static_assert(!Fits<>("%d"), "an argument is missing");
static_assert(!Fits<ULONG>("no conversion"), "an argument too many");
static_assert(!Fits<ULONG64>("%x") && !Fits<ULONG>("%I64x"), "a wrong size");
static_assert(!Fits<PVOID>("%x") && !Fits<PIRP>("%s") && !Fits<ULONG>("%p"), "a number is no pointer");
static_assert(!Fits<PCWSTR>("%s") && !Fits<PCSTR>("%ws") && !Fits<PCSTR>("%wZ") && !Fits<PCWSTR>("%wZ"));
static_assert(!Fits<PUNICODE_STRING>("%ws") && !Fits<PUNICODE_STRING>("%s"));
static_assert(!Fits<PCWSTR>("%.*ws") && !Fits<ULONG64, PCWSTR>("%.*ws"), "the precision is an argument of 32 bits");
static_assert(!Fits<ULONG>("%n") && !Fits<ULONG>("%q") && !Fits<ULONG>("%"), "no such conversion");

} // namespace
