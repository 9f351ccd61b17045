// Data transfers: what reaches the Provider, what comes back, and what becomes of sizes and byte offsets.

#include "embedded/mm/mm.h"
#include "embedded/verifier/probe.h"
#include "io/io.h"
#include "tests/driver/frame_client.h"

namespace {

using namespace test;

constexpr LONGLONG EndOfFileMarker = -1;

class Data : public FrameFixture {
protected:
    HANDLE Handle = nullptr;
    char Buffer[64] = {};

    void OpenFile(const Open &Request = Writer) {
        Handle = MustOpen(u"\\srv\\vol\\a.txt", Request);
        Provider.ClearCalls();
    }

    LONGLONG Position() {
        return FileObject(Handle)->CurrentByteOffset.QuadPart;
    }
    bool Modified() {
        return (FileObject(Handle)->Flags & FO_FILE_MODIFIED) != 0;
    }
    // A read or write as a raw request.
    IrpBuilder Raw(UCHAR MajorFunction, ULONG Length, LONGLONG Offset) {
        IrpBuilder Builder = Plain(MajorFunction, FileObject(Handle));
        Builder.UserBuffer = Buffer;
        Builder.Fill = [=](PIO_STACK_LOCATION Stack) {
            Stack->Parameters.Read.Length = Length;
            Stack->Parameters.Read.ByteOffset.QuadPart = Offset;
        };
        return Builder;
    }
};

TEST_F(Data, AReadGetsWhatTheServerHas) {
    struct {
        ULONG Length;
        LONGLONG Offset;
        NTSTATUS Status;
        std::string_view Text;
        LONGLONG Position;
    } constexpr Cases[] = {
        {0, 3, STATUS_SUCCESS, "", 0}, // of nothing: the position stays
        {4, 0, STATUS_SUCCESS, "0123", 4},   {8, 6, STATUS_SUCCESS, "6789", 10},
        {1, 10, STATUS_END_OF_FILE, "", 10}, {5, 1000, STATUS_END_OF_FILE, "", 1000},
    };
    OpenFile();
    for (const auto &Each : Cases) {
        const Transfer Result = Read(Handle, Buffer, Each.Length, Each.Offset);
        EXPECT_EQ(Result.Status, Each.Status) << Each.Offset;
        EXPECT_EQ(std::string_view(Buffer, Result.Information), Each.Text) << Each.Offset;
        EXPECT_EQ(Position(), Each.Position) << Each.Offset;
    }
}

TEST_F(Data, TransfersOfNothingDoNotReachTheProvider) {
    OpenFile();
    EXPECT_EQ(Read(Handle, Buffer, 0, 3).Status, STATUS_SUCCESS);
    EXPECT_EQ(Write(Handle, Buffer, 0, 7).Status, STATUS_SUCCESS);
    EXPECT_EQ(CallNames(), Lines{});
    EXPECT_EQ(Position(), 7); // the write's, not the read's
    EXPECT_EQ(Send(Raw(IRP_MJ_WRITE, 0, EndOfFileMarker)).Status, STATUS_SUCCESS);
    EXPECT_EQ(Send(Raw(IRP_MJ_WRITE, 0, -5)).Status, STATUS_SUCCESS);
    EXPECT_EQ(Position(), 7); // the end of file was not asked, and the other is no offset
    EXPECT_FALSE(Modified());
}

TEST_F(Data, AWriteBeyondTheEndGrowsTheFileAndOneInsideDoesNot) {
    OpenFile();
    EXPECT_THAT(Write(Handle, "abcdef", 6, 8), Ends(STATUS_SUCCESS, 6));
    EXPECT_EQ(FileSize(Handle), 14);
    EXPECT_EQ(Position(), 14);
    EXPECT_TRUE(Modified());
    EXPECT_EQ(Write(Handle, "x", 1, 0).Status, STATUS_SUCCESS);
    EXPECT_EQ(FileSize(Handle), 14);
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\a.txt"), "x1234567abcdef");
}

TEST_F(Data, AnAppendGoesWhereTheServerSaysTheFileEndsAndWithoutAnAnswerNowhere) {
    OpenFile();
    Provider.AddFile(u"\\srv\\vol\\a.txt", "0123456789ABC"); // somebody else's three
    Provider.ClearCalls();
    EXPECT_EQ(Send(Raw(IRP_MJ_WRITE, 2, EndOfFileMarker)).Information, 2u);
    EXPECT_EQ(CallNames(), (Lines{"RVFsdGetFileSize", "RVFsdWriteFile"}));
    EXPECT_EQ(Position(), FileSize(Handle));
    Provider.OnCall(Slot::GetFileSize).Return(ProviderError(0x0102));
    EXPECT_THAT(Send(Raw(IRP_MJ_WRITE, 2, EndOfFileMarker)), Ends(STATUS_NETWORK_BUSY, 0));
    Provider.ClearScript();
    Provider.OnCall(Slot::GetFileSize).Answer([](Outputs &Out) { *Out.EndOfFile = INT64_MAX - 1; });
    EXPECT_THAT(Send(Raw(IRP_MJ_WRITE, 2, EndOfFileMarker)), Ends(STATUS_INVALID_PARAMETER, 0));
    EXPECT_EQ(Provider.CountCalls(Slot::WriteFile), 1u);
}

TEST_F(Data, PagingTransfersLeaveTheFileObjectAlone) {
    OpenFile();
    IrpBuilder Paging = Raw(IRP_MJ_READ, 4, 0);
    Paging.IrpFlags = IRP_PAGING_IO;
    EXPECT_EQ(Send(Paging).Information, 4u);
    Paging = Raw(IRP_MJ_WRITE, 4, 20);
    Paging.IrpFlags = IRP_PAGING_IO;
    EXPECT_EQ(Send(Paging).Information, 4u);
    EXPECT_EQ(Position(), 0);
    EXPECT_FALSE(Modified());
    EXPECT_EQ(FileSize(Handle), 24);
}

TEST_F(Data, AsynchronousFilesHaveNoPosition) {
    OpenFile(Asynchronous);
    {
        const std::jthread Reading([&] {
            for (int Round = 0; Round < 20; ++Round) {
                char Bytes[4];
                EXPECT_EQ(Read(Handle, Bytes, 4, 0).Status, STATUS_SUCCESS);
            }
        });
        EXPECT_EQ(Send(Raw(IRP_MJ_WRITE, 4, 0)).Information, 4u);
    }
    EXPECT_EQ(Position(), 0);
    EXPECT_TRUE(Modified());
}

TEST_F(Data, RangesThatNoOffsetCanNameAreRefusedBeforeTheProvider) {
    OpenFile();
    for (const auto &[MajorFunction, Length, Offset] :
         {std::tuple{IRP_MJ_READ, 1, -1ll}, {IRP_MJ_WRITE, 1, -2ll}, {IRP_MJ_WRITE, 2, INT64_MAX - 1ll}}) {
        EXPECT_EQ(Send(Raw(static_cast<UCHAR>(MajorFunction), static_cast<ULONG>(Length), Offset)).Status,
                  STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(CallNames(), Lines{});
}

TEST_F(Data, AReadThatWouldEndBeyondTheLargestOffsetIsCutThere) {
    OpenFile();
    EXPECT_EQ(Send(Raw(IRP_MJ_READ, 4, INT64_MAX - 1ll)).Status, STATUS_END_OF_FILE);
    EXPECT_EQ(Send(Raw(IRP_MJ_READ, 4, INT64_MAX)).Status, STATUS_END_OF_FILE);
    ASSERT_EQ(Provider.CountCalls(Slot::ReadFile), 1u);
    EXPECT_EQ(Provider.CallRecords().at(0).Number("length"), 1u);
    EXPECT_EQ(Position(), INT64_MAX);
}

// Warnings and a Provider that calls the transfer pending are failures: nothing is reported, nothing moves.
TEST_F(Data, AnswersThatAreFailuresReportNothing) {
    OpenFile();
    for (const auto &[Answer, Status] : {std::pair{0xC7E7051Eu, STATUS_FILE_LOCK_CONFLICT},
                                         {0x87E70007u, STATUS_BUFFER_OVERFLOW},
                                         {0x0000000Eu, STATUS_UNSUCCESSFUL},
                                         {0xC7E70000u, STATUS_UNSUCCESSFUL}}) {
        Provider.OnCall(Slot::ReadFile).ReturnAfter(static_cast<RVSTATUS>(Answer));
        Provider.OnCall(Slot::WriteFile).Return(static_cast<RVSTATUS>(Answer));
        for (const IO_STATUS_BLOCK &Result : {Send(Raw(IRP_MJ_READ, 4, 2)), Send(Raw(IRP_MJ_WRITE, 40, 2))}) {
            EXPECT_THAT(Result, Ends(Status, 0)) << std::hex << Answer;
        }
        Provider.ClearScript();
    }
    EXPECT_EQ(Position(), 0);
    EXPECT_EQ(FileSize(Handle), 10);
    EXPECT_FALSE(Modified());
}

TEST_F(Data, WhatMovedNothingDoesNotShrinkTheFileAndMoreThanWasAskedForIsNeverReported) {
    OpenFile();
    Provider.OnCall(Slot::WriteFile).AnswerBytes(0);
    EXPECT_THAT(Write(Handle, "xyz", 3, 2), Ends(STATUS_SUCCESS, 0));
    EXPECT_EQ(FileSize(Handle), 10);
    EXPECT_FALSE(Modified());
    Provider.ClearScript();
    Provider.OnCall(Slot::ReadFile).AnswerBytes(4000);
    Provider.OnCall(Slot::WriteFile).AnswerBytes(4000);
    EXPECT_LE(Send(Raw(IRP_MJ_READ, 4, 0)).Information, 4u);
    EXPECT_LE(Send(Raw(IRP_MJ_WRITE, 4, 0)).Information, 4u);
}

// ---- Buffers

class CallersMdl {
public:
    CallersMdl(void *Address, ULONG Length) : Mdl(IoAllocateMdl(Address, Length, FALSE, FALSE, nullptr)) {
        EXPECT_EQ(KernelProbeAndLockPages(Mdl, KernelMode, IoWriteAccess), STATUS_SUCCESS);
    }
    ~CallersMdl() {
        EXPECT_TRUE(Mdl->MdlFlags & MDL_PAGES_LOCKED) << "the driver unlocked pages of its caller";
        MmUnlockPages(Mdl);
        IoFreeMdl(Mdl);
    }
    const PMDL Mdl;
};

TEST_F(Data, ACallersMdlDecidesHowMuchIsReadAndATooShortOneWritesNothing) {
    OpenFile();
    const CallersMdl Short(Buffer, 3);
    for (const UCHAR MajorFunction : {IRP_MJ_READ, IRP_MJ_WRITE}) {
        IrpBuilder Builder = Raw(MajorFunction, 8, 0);
        Builder.Mdl = Short.Mdl;
        EXPECT_THAT(Send(Builder), Ends(MajorFunction == IRP_MJ_READ ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER,
                                        MajorFunction == IRP_MJ_READ ? 3u : 0u));
    }
    EXPECT_STREQ(Buffer, "012");
    EXPECT_EQ(CallNames(), Lines{"RVFsdReadFile"});
    EXPECT_EQ(Provider.CallRecords().at(0).Number("length"), 3u);
    IrpBuilder Exact = Raw(IRP_MJ_WRITE, 3, 0);
    Exact.Mdl = Short.Mdl;
    EXPECT_EQ(Send(Exact).Information, 3u);
}

TEST_F(Data, AnAddressThatIsNotTheCallersIsReportedAndNothingIsTransferred) {
    OpenFile();
    for (UCHAR MajorFunction : {IRP_MJ_READ, IRP_MJ_WRITE}) {
        IrpBuilder Builder = Raw(MajorFunction, 8, 0);
        Builder.UserBuffer = reinterpret_cast<PVOID>(ULONG_PTR{0x1000});
        Builder.RequestorMode = UserMode;
        EXPECT_EQ(Send(Builder).Status, STATUS_ACCESS_VIOLATION);
    }
    EXPECT_EQ(CallNames(), Lines{});
}

TEST_F(Data, WithoutAnMdlOrItsMappingNothingIsTransferred) {
    OpenFile();
    for (const FaultKind Kind : {FaultKind::Mdl, FaultKind::Map}) {
        for (const UCHAR MajorFunction : {IRP_MJ_READ, IRP_MJ_WRITE}) {
            const PlannedFaults Faults({.Kinds = FaultBit(Kind)});
            EXPECT_THAT(Send(Raw(MajorFunction, 8, 0)), Ends(STATUS_INSUFFICIENT_RESOURCES, 0));
        }
    }
    EXPECT_EQ(CallNames(), Lines{});
    EXPECT_EQ(Read(Handle, Buffer, 4, 0).Information, 4u); // nothing is left held
}

TEST_F(Data, TransfersOnADirectoryAreRefused) {
    Handle = MustOpen(u"\\srv\\vol", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE});
    EXPECT_EQ(Send(Raw(IRP_MJ_READ, 4, 0)).Status, STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(Send(Raw(IRP_MJ_WRITE, 4, 0)).Status, STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(Send(Raw(IRP_MJ_FLUSH_BUFFERS, 0, 0)).Status, STATUS_INVALID_PARAMETER);
}

// ---- The disk-full latch

TEST_F(Data, AClockThatWasSetBackEndsTheRefusals) {
    OpenFile();
    Instance(Handle)->DiskFullLatched = TRUE;
    Instance(Handle)->DiskFullTime = Clock::SystemTime() + 3600 * Clock::Second;
    EXPECT_EQ(Write(Handle, "abcde", 5, 16).Status, STATUS_SUCCESS);
    EXPECT_FALSE(Instance(Handle)->DiskFullLatched);
}

// ---- Sizes

TEST_F(Data, SizesGrowWithTransfersAndAreSetByALengthOfZero) {
    // Offset, length and size, which is 10 before.
    using Case = std::tuple<LONG64, ULONG64, LONGLONG>;
    OpenFile();
    const PFCB File = Fcb(Handle);
    for (const auto &[Offset, Length, Size] :
         {Case{8, 6, 14}, Case{2, 3, 10}, Case{4, 0, 4}, Case{99, 0, 99}, Case{10, 0, 10},
          // What no offset can name is no size.
          Case{INT64_MIN, 0, 10}, Case{INT64_MAX, 1, 10}, Case{8, ~0ull, 10}, Case{INT64_MAX, 0, INT64_MAX}}) {
        // An exclusive holder keeps its hold, whatever it says of itself.
        NtFsdAcquireExclusive(&File->Resource, TRUE);
        NtFsdAcquireShared(&File->Resource, TRUE);
        RvFsdUpdateFCBFileSize(File, FALSE, 10, 0);
        EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&File->Resource));
        NtFsdReleaseResource(&File->Resource);
        NtFsdReleaseResource(&File->Resource);
        EXPECT_EQ(FileSize(Handle), 10);
        // A shared one gets it back shared.
        NtFsdAcquireShared(&File->Resource, TRUE);
        RvFsdUpdateFCBFileSize(File, FALSE, Offset, Length);
        EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&File->Resource));
        EXPECT_EQ(ExIsResourceAcquiredSharedLite(&File->Resource), 1u);
        NtFsdReleaseResource(&File->Resource);
        EXPECT_EQ(FileSize(Handle), Size);
    }
    // Who has two shared holds does not wait for itself.
    NtFsdAcquireShared(&File->Resource, TRUE);
    NtFsdAcquireShared(&File->Resource, TRUE);
    RvFsdUpdateFCBFileSize(File, FALSE, 99, 0);
    NtFsdReleaseResource(&File->Resource);
    NtFsdReleaseResource(&File->Resource);
    EXPECT_EQ(FileSize(Handle), INT64_MAX);
}

// ---- Flush

TEST_F(Data, AFlushAsksTheProviderAndReportsItsAnswer) {
    OpenFile();
    IO_STATUS_BLOCK IoStatus = {};
    EXPECT_EQ(NtFlushBuffersFile(Handle, &IoStatus), STATUS_SUCCESS);
    EXPECT_EQ(CallNames(), Lines{"RVFsdFlushFile"});
    Provider.OnCall(Slot::FlushFile).Return(ProviderError(0x0509));
    EXPECT_EQ(NtFlushBuffersFile(Handle, &IoStatus), STATUS_DISK_FULL);
    EXPECT_EQ(IoStatus.Information, 0u);
}

} // namespace
