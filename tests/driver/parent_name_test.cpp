// The parent of a path, as change notification looks it up.

#include "dir/notify.h"
#include "tests/support/driver_fixture.h"

namespace {

struct NameCase {
    std::u16string_view Path;
    std::u16string_view Parent; // empty: it has none
};

class ParentName : public test::DriverFixture, public testing::WithParamInterface<NameCase> {};

TEST_P(ParentName, IsThePathWithoutItsLastComponent) {
    Start();
    const UNICODE_STRING Path = embedded::ToUnicodeString(GetParam().Path);
    OwnedString Parent;
    const NTSTATUS Status = NtFsdGetParentName(&Path, Parent.Get());
    EXPECT_EQ(Status, GetParam().Parent.empty() ? STATUS_OBJECT_PATH_INVALID : STATUS_SUCCESS);
    EXPECT_EQ(embedded::View(Parent.Get()), GetParam().Parent);
    if (NT_SUCCESS(Status)) {
        EXPECT_EQ(Parent->Buffer[GetParam().Parent.size()], 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, ParentName,
                         testing::Values(NameCase{u"\\srv\\vol\\docs\\a.txt", u"\\srv\\vol\\docs"},
                                         NameCase{u"\\srv\\vol\\docs\\\\", u"\\srv\\vol"},
                                         NameCase{u"\\s\\v\\n", u"\\s\\v"}, NameCase{u"\\srv\\vol", u""},
                                         NameCase{u"\\srv\\vol\\", u""}, NameCase{u"\\srv", u""},
                                         NameCase{u"a\\\\b", u""}, NameCase{u"", u""}));

} // namespace
