// Waiting for changes in a directory.

#include <thread>

#include "embedded/faults.h"
#include "tests/support/driver_fixture.h"

namespace {

using embedded::IrpBuilder;
using embedded::SendIrp;
using embedded::SentIrp;

class Watching : public test::DriverFixture {
protected:
    void SetUp() override {
        Provider.AddDirectory(u"\\srv\\vol\\d");
        Start({.Switches = {{u"EnableDirectoryNotify", 1}}});
    }

    HANDLE Watch(std::u16string_view Path) {
        return MustOpen(Path, {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE, .Options = FILE_DIRECTORY_FILE});
    }

    SentIrp Wait(HANDLE Directory, ULONG Filter, UCHAR Flags = 0) {
        IrpBuilder Builder;
        Builder.MajorFunction = IRP_MJ_DIRECTORY_CONTROL;
        Builder.MinorFunction = IRP_MN_NOTIFY_CHANGE_DIRECTORY;
        Builder.FileObject = FileObject(Directory);
        Builder.StackFlags = Flags;
        Builder.Fill = [Filter](PIO_STACK_LOCATION IrpSp) {
            IrpSp->Parameters.NotifyDirectory.CompletionFilter = Filter;
        };
        return SendIrp(Device(), Builder);
    }

    void MakeFile(std::u16string_view Path) {
        Close(MustOpen(Path, {.Access = FILE_WRITE_DATA | SYNCHRONIZE,
                              .Disposition = FILE_CREATE,
                              .Options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT}));
    }
};

TEST_F(Watching, ACreatedFileEndsOnlyTheWaitsForFileNames) {
    HANDLE Directory = Watch(u"\\srv\\vol\\d");
    {
        SentIrp Names = Wait(Directory, FILE_NOTIFY_CHANGE_FILE_NAME);
        SentIrp Directories = Wait(Directory, FILE_NOTIFY_CHANGE_DIR_NAME);
        EXPECT_EQ(Names.Returned(), STATUS_PENDING);
        EXPECT_FALSE(Names.IsCompleted());
        MakeFile(u"\\srv\\vol\\d\\new.txt");
        ASSERT_TRUE(Names.IsCompleted());
        const IO_STATUS_BLOCK Answer = Names.Wait();
        EXPECT_EQ(Answer.Status, STATUS_NOTIFY_ENUM_DIR);
        EXPECT_EQ(Answer.Information, 0u);
        EXPECT_FALSE(Directories.IsCompleted());
        Close(Directory);
        EXPECT_EQ(Directories.Wait().Status, STATUS_SUCCESS);
    }
}

TEST_F(Watching, ADeletedFileAndACreatedDirectoryAreChangesTooAndTheTreeBelowIsNot) {
    Provider.AddFile(u"\\srv\\vol\\d\\old.txt", "");
    Provider.AddDirectory(u"\\srv\\vol\\d\\deep");
    HANDLE Directory = Watch(u"\\srv\\vol\\d");
    HANDLE Root = Watch(u"\\srv\\vol");
    {
        SentIrp Above = Wait(Root, FILE_NOTIFY_CHANGE_FILE_NAME, SL_WATCH_TREE);
        SentIrp First = Wait(Directory, FILE_NOTIFY_CHANGE_FILE_NAME);
        Close(MustOpen(u"\\srv\\vol\\d\\old.txt", {.Access = DELETE | SYNCHRONIZE,
                                                   .Options = FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT}));
        ASSERT_TRUE(First.IsCompleted());
        EXPECT_EQ(First.Wait().Status, STATUS_NOTIFY_ENUM_DIR);
        SentIrp Second = Wait(Directory, FILE_NOTIFY_CHANGE_FILE_NAME);
        Close(MustOpen(u"\\srv\\vol\\d\\sub",
                       {.Disposition = FILE_CREATE, .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT}));
        ASSERT_TRUE(Second.IsCompleted());
        MakeFile(u"\\srv\\vol\\d\\deep\\far.txt");
        EXPECT_FALSE(Above.IsCompleted());
        MakeFile(u"\\srv\\vol\\near.txt");
        EXPECT_TRUE(Above.IsCompleted());
    }
    Close(Root);
    Close(Directory);
}

TEST_F(Watching, TheCleanupOfAnyHandleEndsAllWaitsAndLaterOnesDoNotBegin) {
    HANDLE First = Watch(u"\\srv\\vol\\d");
    HANDLE Second = Watch(u"\\srv\\vol\\d");
    PFILE_OBJECT Kept = FileObject(First);
    embedded::ReferenceFileObject(Kept);
    {
        SentIrp OnFirst = Wait(First, FILE_NOTIFY_CHANGE_FILE_NAME);
        SentIrp OnSecond = Wait(Second, FILE_NOTIFY_CHANGE_FILE_NAME);
        Close(First);
        EXPECT_EQ(OnFirst.Wait().Status, STATUS_SUCCESS);
        EXPECT_EQ(OnSecond.Wait().Status, STATUS_SUCCESS);
    }
    IrpBuilder Late;
    Late.MajorFunction = IRP_MJ_DIRECTORY_CONTROL;
    Late.MinorFunction = IRP_MN_NOTIFY_CHANGE_DIRECTORY;
    Late.FileObject = Kept;
    EXPECT_EQ(embedded::SendIrpAndWait(Device(), Late).Status, STATUS_NOTIFY_CLEANUP);
    embedded::DereferenceFileObject(Kept);
    Close(Second);
}

TEST_F(Watching, WithoutMemoryTheRequestIsRefusedAndNothingWaits) {
    HANDLE Directory = Watch(u"\\srv\\vol\\d");
    for (ULONG64 Nth = 1;; ++Nth) {
        embedded::PlannedFaults Plan({.Kinds = embedded::FaultBit(embedded::FaultKind::Pool), .Nth = Nth});
        SentIrp Request = Wait(Directory, FILE_NOTIFY_CHANGE_FILE_NAME);
        if (embedded::GetFaultCounts().TotalFailed() == 0) {
            EXPECT_FALSE(Request.IsCompleted());
            Close(Directory);
            break;
        }
        if (Request.IsCompleted()) {
            EXPECT_EQ(Request.Wait().Status, STATUS_INSUFFICIENT_RESOURCES);
        } else {
            MakeFile(u"\\srv\\vol\\d\\f" + std::u16string(Nth, u'x')); // the context came from pool after all
        }
    }
}

TEST_F(Watching, ConcurrentWatchersCreatorsAndClosersOfParentAndChild) {
    std::vector<std::thread> Threads;
    for (int Thread = 0; Thread < 3; ++Thread) {
        Threads.emplace_back([this, Thread] {
            for (int Round = 0; Round < 40; ++Round) {
                HANDLE Directory = Watch(u"\\srv\\vol\\d");
                SentIrp Request = Wait(Directory, FILE_NOTIFY_CHANGE_FILE_NAME);
                MakeFile(u"\\srv\\vol\\d\\t" + std::u16string(1 + Thread, u'x') + std::u16string(1 + Round, u'y'));
                Close(Directory);
                const NTSTATUS Status = Request.Wait().Status;
                EXPECT_TRUE(Status == STATUS_SUCCESS || Status == STATUS_NOTIFY_ENUM_DIR);
            }
        });
    }
    for (std::thread &Thread : Threads) {
        Thread.join();
    }
}

TEST(WatchingSwitchedOff, IsNotImplemented) {
    struct Fixture : test::DriverFixture {
        void TestBody() override {
            Provider.AddDirectory(u"\\srv\\vol\\d");
            HANDLE Directory =
                MustOpen(u"\\srv\\vol\\d", {.Access = FILE_LIST_DIRECTORY, .Options = FILE_DIRECTORY_FILE});
            IrpBuilder Builder;
            Builder.MajorFunction = IRP_MJ_DIRECTORY_CONTROL;
            Builder.MinorFunction = IRP_MN_NOTIFY_CHANGE_DIRECTORY;
            Builder.FileObject = FileObject(Directory);
            EXPECT_EQ(embedded::SendIrpAndWait(Device(), Builder).Status, STATUS_NOT_IMPLEMENTED);
            Close(Directory);
            TearDown();
        }
    } Off;
    Off.TestBody();
}

} // namespace
