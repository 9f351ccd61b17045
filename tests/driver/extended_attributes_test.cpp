// Extended attributes: there are none, and a set stores nothing.

#include "tests/support/driver_fixture.h"

namespace {

using namespace test;

class ExtendedAttributes : public DriverFixture {};

TEST_F(ExtendedAttributes, AQueryFindsNoneAndASetIsAcceptedOnEveryKindOfOpen) {
    StartTracing(1);
    Provider.AddFile(u"\\srv\\vol\\d\\f", "");
    for (const std::u16string_view Path : {u"\\srv\\vol\\d\\f", u"\\srv\\vol\\d", u"\\srv\\vol", u""}) {
        HANDLE Open = MustOpen(Path, {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
        Provider.ClearCalls();
        for (const UCHAR MajorFunction : {IRP_MJ_QUERY_EA, IRP_MJ_SET_EA, IRP_MJ_QUERY_EA}) {
            IrpBuilder Builder = Plain(MajorFunction, FileObject(Open));
            Builder.Fill = [](PIO_STACK_LOCATION IrpSp) { IrpSp->Parameters.QueryEa.Length = 64; };
            SentIrp Request = SendIrp(Device(), Builder);
            EXPECT_THAT(Request.Wait(),
                        Ends(MajorFunction == IRP_MJ_SET_EA ? STATUS_SUCCESS : STATUS_NO_EAS_ON_FILE, 0));
            EXPECT_EQ(Request.PriorityBoost(), IO_DISK_INCREMENT);
        }
        EXPECT_TRUE(CallNames().empty()) << "the Provider is not asked";
        ExpectPrintedInOrder({"<<<NtFsdQueryEa() entered\n", "<<<NtFsdSetEa() entered\n"});
        Printed.clear();
        Close(Open);
    }
}

} // namespace
