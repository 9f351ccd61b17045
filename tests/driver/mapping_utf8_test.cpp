// UTF-8 of clients becomes UTF-16, and ends where it is none.

#include "mapping/utf8.h"
#include "provider/binding.h"
#include "tests/driver/frame_client.h"

namespace {

class Utf8 : public test::FrameFixture {};

TEST_F(Utf8, IsDecodedUpToItsEndOrItsFirstFault) {
    struct {
        std::string Text;
        std::u16string Wide;
        bool Whole;
    } const Cases[] = {
        {"", u"", true},
        {"a\x7F", u"a\x7F", true},
        {"\xC2\x80\xDF\xBF", u"\u0080\u07FF", true},
        {"\xE0\xA0\x80\xEF\xBF\xBF", u"\u0800\uFFFF", true},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", u"\U00010000\U0010FFFF", true},
        {"\xED\xA0\x80", {u'\xD800'}, true},         // a surrogate
        {"\xC1\x9C\xE0\x81\x9C", u"\\\\", true},     // longer than needed
        {"\xF4\x90\x80\x81", {u'\x0001'}, true},     // beyond Unicode: its low half
        {"\xF8\x88\x80\x80\x81", {u'\x0001'}, true}, // five bytes
        {"\xFD\xBF\xBF\xBF\xBF\xBF", {u'\xFFFF'}, true},
        {"a\x80z", u"a", false},
        {"a\xBFz", u"a", false},
        {"a\xFEz", u"a", false},
        {"a\xFFz", u"a", false},
        {"a\xC3", u"a", false},
        {"a\xC3(", u"a", false},
        {"a\xE2\x82", u"a", false},
        {"a\xE2(\xA1", u"a", false},
        {"a\xF0\x90\x80", u"a", false},
        {"a\xFC\x80\x80\x80\x80", u"a", false},
        {"a\xC0\x80z", u"a", false},
        {"a\xF0\x80\x80\x80z", u"a", false},
        {std::string(32766, 'x'), std::u16string(32766, u'x'), true},
    };
    Start();
    Bind();
    for (const auto &Case : Cases) {
        UNICODE_STRING Wide;
        bool Whole = !Case.Whole;
        // The block ends with the terminator: what is read behind it is seen.
        const auto Text = std::make_unique<char[]>(Case.Text.size() + 1);
        memcpy(Text.get(), Case.Text.c_str(), Case.Text.size() + 1);
        ASSERT_EQ(UTF8ToUnicode(&Wide, Text.get(), &Whole), RVPSTATUS::Success);
        EXPECT_EQ(std::u16string_view(Wide.Buffer), Case.Wide) << Case.Text;
        EXPECT_EQ(Wide.Length, Case.Wide.size() * 2);
        EXPECT_EQ(Wide.MaximumLength, Wide.Length + 2);
        EXPECT_EQ(Whole, Case.Whole) << Case.Text;
        g_pRvplInterface->Table->Free(g_pRvplInterface, Wide.Buffer);
    }
    UNICODE_STRING Wide;
    for (const std::string &Long : {std::string(32767, 'x'), std::string(200000, 'x')}) {
        EXPECT_EQ(UTF8ToUnicode(&Wide, Long.c_str(), nullptr), RVPSTATUS::NoMemory);
    }
    Framework->FailAllocate();
    EXPECT_EQ(UTF8ToUnicode(&Wide, "x", nullptr), RVPSTATUS::NoMemory);
    EXPECT_EQ(Wide.Buffer, nullptr);
}

} // namespace
