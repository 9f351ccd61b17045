// Waiting for changes in a directory.

#include "dir/notify.h"
#include "embedded/io/probe.h"
#include "embedded/verifier/probe.h"
#include "tests/support/driver_fixture.h"

namespace {

using namespace test;

class Watching : public DriverFixture {
protected:
    void SetUp() override {
        Provider.AddDirectory(u"\\srv\\vol\\d");
        Start({.Switches = {{u"EnableDirectoryNotify", 1}}});
    }

    HANDLE Watch(std::u16string_view Path) {
        return MustOpen(Path, {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE, .Options = FILE_DIRECTORY_FILE});
    }

    SentIrp WaitOn(PFILE_OBJECT Directory, ULONG Filter, UCHAR Flags = 0, PIO_COMPLETION_ROUTINE Completion = nullptr,
                   PVOID Context = nullptr) {
        IrpBuilder Builder = Plain(IRP_MJ_DIRECTORY_CONTROL, Directory);
        Builder.MinorFunction = IRP_MN_NOTIFY_CHANGE_DIRECTORY;
        Builder.StackFlags = Flags;
        Builder.CompletionRoutine = Completion;
        Builder.CompletionContext = Context;
        Builder.Fill = [Filter](PIO_STACK_LOCATION IrpSp) {
            IrpSp->Parameters.NotifyDirectory.CompletionFilter = Filter;
        };
        return SendIrp(Device(), Builder);
    }
    SentIrp Wait(HANDLE Directory, ULONG Filter, UCHAR Flags = 0, PIO_COMPLETION_ROUTINE Completion = nullptr) {
        return WaitOn(FileObject(Directory), Filter, Flags, Completion, Directory);
    }

    void MakeFile(std::u16string_view Path) {
        Close(MustOpen(Path, {.Access = FILE_WRITE_DATA | SYNCHRONIZE,
                              .Disposition = FILE_CREATE,
                              .Options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT}));
    }
};

// A file that is made, one that is deleted, a directory that is made.
constexpr std::pair<std::u16string_view, Open> Changes[] = {
    {u"\\srv\\vol\\d\\new", {.Access = FILE_WRITE_DATA | SYNCHRONIZE, .Disposition = FILE_CREATE}},
    {u"\\srv\\vol\\d\\old",
     {.Access = DELETE | SYNCHRONIZE, .Options = FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT}},
    {u"\\srv\\vol\\d\\sub",
     {.Disposition = FILE_CREATE, .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT}},
};

TEST_F(Watching, IsListedByTheDumpOfTheTableWhileItLasts) {
    Stop();
    Start(
        {.Switches = {
             {u"EnableDirectoryNotify", 1}, {u"EnableDebug", 1}, {u"FsDisplayOutput", 1}, {u"FsDebugLevel", 0x40000}}});
    const auto IsListed = [this] {
        Printed.clear();
        Close(Watch(u"\\srv\\vol"));
        return WasPrinted(" - \\srv\\vol\\d\n");
    };
    const HANDLE Directory = Watch(u"\\srv\\vol\\d");
    EXPECT_FALSE(IsListed());
    const std::function<void()> Ends[] = {[&] { MakeFile(u"\\srv\\vol\\d\\new"); },
                                          [&] { Close(Watch(u"\\srv\\vol\\d")); }};
    for (const auto &End : Ends) {
        const SentIrp Waits = Wait(Directory, FILE_NOTIFY_CHANGE_FILE_NAME);
        EXPECT_TRUE(IsListed());
        End();
        EXPECT_FALSE(IsListed());
    }
}

TEST_F(Watching, WhatIsMadeOrDeletedEndsTheWaitsForFileNamesAndTheTreeBelowIsNotWatched) {
    Provider.AddFile(u"\\srv\\vol\\d\\old", "");
    Provider.AddDirectory(u"\\srv\\vol\\d\\deep");
    HANDLE Directory = Watch(u"\\srv\\vol\\d");
    HANDLE Root = Watch(u"\\srv\\vol");
    SentIrp Above = Wait(Root, FILE_NOTIFY_CHANGE_FILE_NAME, SL_WATCH_TREE);
    SentIrp Directories = Wait(Directory, FILE_NOTIFY_CHANGE_DIR_NAME);
    for (const auto &[Path, Change] : Changes) {
        SentIrp Names = Wait(Directory, FILE_NOTIFY_CHANGE_FILE_NAME);
        EXPECT_EQ(Names.Returned(), STATUS_PENDING);
        EXPECT_FALSE(Names.IsCompleted());
        Close(MustOpen(Path, Change));
        ASSERT_TRUE(Names.IsCompleted());
        EXPECT_EQ(Names.Wait().Status, STATUS_NOTIFY_ENUM_DIR);
        EXPECT_EQ(Names.Wait().Information, 0u);
    }
    SentIrp Near = Wait(Directory, FILE_NOTIFY_CHANGE_FILE_NAME);
    Provider.AddFile(u"\\srv\\vol\\d\\old", "");
    Provider.OnCall(Slot::DeleteFile).Return(ProviderError(0x0006));
    Close(MustOpen(Changes[1].first, Changes[1].second)); // which is not deleted
    MakeFile(u"\\srv\\vol\\d\\deep\\far.txt");
    EXPECT_FALSE(Above.IsCompleted() || Near.IsCompleted() || Directories.IsCompleted());
    Close(Directory);
    EXPECT_EQ(Directories.Wait().Status, STATUS_SUCCESS);
    MakeFile(u"\\srv\\vol\\near.txt");
    EXPECT_TRUE(Above.IsCompleted());
}

TEST_F(Watching, TheCleanupOfAnyHandleEndsAllWaitsAndLaterOnesDoNotBegin) {
    HANDLE First = Watch(u"\\srv\\vol\\d");
    HANDLE Second = Watch(u"\\srv\\vol\\d");
    PFILE_OBJECT Kept = FileObject(First);
    ReferenceFileObject(Kept);
    {
        SentIrp OnFirst = Wait(First, FILE_NOTIFY_CHANGE_FILE_NAME);
        SentIrp OnSecond = Wait(Second, FILE_NOTIFY_CHANGE_FILE_NAME);
        Close(First);
        EXPECT_EQ(OnFirst.Wait().Status, STATUS_SUCCESS);
        EXPECT_EQ(OnSecond.Wait().Status, STATUS_SUCCESS);
    }
    EXPECT_EQ(WaitOn(Kept, FILE_NOTIFY_CHANGE_FILE_NAME).Wait().Status, STATUS_NOTIFY_CLEANUP);
    DereferenceFileObject(Kept);
}

TEST_F(Watching, AShutdownCancelsTheWaits) {
    HANDLE Directory = Watch(u"\\srv\\vol\\d");
    SentIrp Request = Wait(Directory, FILE_NOTIFY_CHANGE_FILE_NAME);
    EXPECT_FALSE(Request.IsCompleted());
    Kernel().SendShutdown();
    EXPECT_TRUE(Request.IsCompleted());
    EXPECT_EQ(Request.Wait().Status, STATUS_CANCELLED);
}

NTSTATUS NTAPI CloseWatched(PDEVICE_OBJECT, PIRP Irp, PVOID Directory) {
    IoMarkIrpPending(Irp);
    EXPECT_EQ(NtClose(static_cast<HANDLE>(Directory)), STATUS_SUCCESS);
    return STATUS_SUCCESS;
}

TEST_F(Watching, TheCompletionOfAWaitMayCloseTheDirectoryWhateverMadeTheChange) {
    Provider.AddFile(u"\\srv\\vol\\d\\old", "");
    for (const auto &[Path, Change] : Changes) {
        HANDLE Directory = Watch(u"\\srv\\vol\\d");
        SentIrp Request = Wait(Directory, FILE_NOTIFY_CHANGE_FILE_NAME, 0, CloseWatched);
        Close(MustOpen(Path, Change));
        EXPECT_EQ(Request.Wait().Status, STATUS_NOTIFY_ENUM_DIR);
    }
}

TEST_F(Watching, WithoutMemoryTheRequestIsRefusedAndNothingWaits) {
    HANDLE Directory = Watch(u"\\srv\\vol\\d");
    for (ULONG64 Nth = 1;; ++Nth) {
        PlannedFaults Plan({.Kinds = FaultBit(FaultKind::Pool), .Nth = Nth});
        SentIrp Request = Wait(Directory, FILE_NOTIFY_CHANGE_FILE_NAME);
        if (GetFaultCounts().TotalFailed() == 0) {
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

// Each thread watches a directory and its parent, makes and deletes entries in both, and closes.
TEST_F(Watching, ConcurrentWatchersCreatorsAndClosersOfParentAndChild) {
    std::vector<std::jthread> Threads;
    for (int Thread = 0; Thread < 3; ++Thread) {
        Threads.emplace_back([this, Thread] {
            for (int Round = 0; Round < 40; ++Round) {
                HANDLE Parent = Watch(u"\\srv\\vol");
                HANDLE Child = Watch(u"\\srv\\vol\\d");
                SentIrp OnParent = Wait(Parent, FILE_NOTIFY_CHANGE_FILE_NAME);
                SentIrp OnChild = Wait(Child, FILE_NOTIFY_CHANGE_FILE_NAME);
                for (const std::u16string_view Where : {u"\\srv\\vol\\d\\t", u"\\srv\\vol\\t"}) {
                    Close(MustOpen(std::u16string(Where) + std::u16string(1 + Thread, u'x'),
                                   {.Access = DELETE | SYNCHRONIZE,
                                    .Disposition = FILE_CREATE,
                                    .Options = FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT}));
                }
                Close(Round % 2 == 0 ? Child : Parent);
                Close(Round % 2 == 0 ? Parent : Child);
                for (SentIrp *Request : {&OnParent, &OnChild}) {
                    const NTSTATUS Status = Request->Wait().Status;
                    EXPECT_TRUE(Status == STATUS_SUCCESS || Status == STATUS_NOTIFY_ENUM_DIR);
                }
            }
        });
    }
    Threads.clear(); // joins them
}

TEST_F(Watching, TheParentIsThePathWithoutItsLastComponent) {
    const struct {
        std::u16string_view Path, Parent; // no parent: empty
    } Cases[] = {{u"\\srv\\vol\\docs\\a.txt", u"\\srv\\vol\\docs"},
                 {u"\\srv\\vol\\docs\\\\", u"\\srv\\vol"},
                 {u"\\s\\v\\n", u"\\s\\v"},
                 {u"\\srv\\vol", u""},
                 {u"\\srv\\vol\\", u""},
                 {u"\\srv", u""},
                 {u"a\\\\b", u""},
                 {u"", u""}};
    for (const auto &Case : Cases) {
        const UNICODE_STRING Path = ToUnicodeString(Case.Path);
        OwnedString Parent;
        EXPECT_EQ(NtFsdGetParentName(&Path, Parent.Get()),
                  Case.Parent.empty() ? STATUS_OBJECT_PATH_INVALID : STATUS_SUCCESS);
        EXPECT_EQ(View(Parent.Get()), Case.Parent);
        EXPECT_TRUE(Case.Parent.empty() || Parent->Buffer[Case.Parent.size()] == 0);
    }
}

TEST_F(Watching, IsNotImplementedWhenItIsSwitchedOff) {
    Stop();
    HANDLE Directory = Watch(u"\\srv\\vol\\d");
    EXPECT_EQ(Wait(Directory, FILE_NOTIFY_CHANGE_FILE_NAME).Wait().Status, STATUS_NOT_IMPLEMENTED);
}

} // namespace
