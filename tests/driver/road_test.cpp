// The road of one request, end to end.

#include "embedded/mup.h"
#include "tests/support/driver_fixture.h"

namespace {

using Road = test::DriverFixture;

TEST_F(Road, AFileIsClaimedOpenedReadAndClosed) {
    Provider.AddDirectory(u"\\srv\\vol\\docs");
    Provider.AddFile(u"\\srv\\vol\\docs\\a.txt", "hello, server");
    Start();

    const embedded::PathClaim Claim = embedded::QueryPathClaim(u"\\srv\\vol\\docs\\a.txt");
    EXPECT_EQ(Claim.Status, STATUS_SUCCESS);
    EXPECT_EQ(Claim.BytesClaimed, 16u); // \srv\vol

    const embedded::CreateResult Opened = Create(u"\\srv\\vol\\docs\\a.txt");
    ASSERT_EQ(Opened.Status, STATUS_SUCCESS);
    EXPECT_EQ(Opened.Information, static_cast<ULONG_PTR>(FILE_OPENED));
    EXPECT_EQ(ReadAll(Opened.Handle), "hello, server");
    EXPECT_EQ(Close(Opened.Handle), STATUS_SUCCESS);
}

} // namespace
