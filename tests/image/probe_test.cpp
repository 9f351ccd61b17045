// Exceptions, reports and the truth about a loaded driver, with the probe: an image made to raise, catch, leak and
// fail.
#include <cstdio>
#include <thread>

#include "embedded/ex/ex.h"
#include "embedded/ex/guard.h"
#include "embedded/ex/probe.h"
#include "embedded/image/symbols.h"
#include "embedded/io/objects.h"
#include "embedded/io/probe.h"
#include "embedded/kernel.h"
#include "embedded/loader/driver_image.h"
#include "embedded/ps/probe.h"
#include "embedded/ps/ps.h"
#include "tests/app/program.h"

using namespace testing;

namespace embedded {
namespace {

constexpr NTSTATUS One = static_cast<NTSTATUS>(0xE0000001), Other = static_cast<NTSTATUS>(0xE0000002);

class ImageProbe : public testing::Test {
protected:
    ImageProbe() : TheKernel(std::make_unique<Kernel>()), Image(Load()) {
        EXPECT_EQ(TheKernel->LoadDriver(*Image, u"Probe"), STATUS_SUCCESS);
    }
    ~ImageProbe() override {
        EXPECT_EQ(TheKernel->Stop(), "");
        TheKernel.reset();
    }

    static std::unique_ptr<DriverImage> Load(CallRecording Recording = CallRecording::None) {
        ImageOptions Options;
        Options.Recording = Recording;
        return std::make_unique<DriverImage>(RVFSD_IMAGE_FOLDER "/probe/probe.sys", std::move(Options));
    }

    template <typename... Args>
    NTSTATUS Call(const char *Name, Args... Values) {
        const auto Function = reinterpret_cast<NTSTATUS(NTAPI *)(Args...)>(Image->Export(Name));
        return Function(Values...);
    }
    ULONG Steps() {
        return std::exchange(*static_cast<ULONG *>(Image->Export("ProbeSteps")), 0);
    }

    std::unique_ptr<Kernel> TheKernel;
    std::unique_ptr<DriverImage> Image;
};

TEST_F(ImageProbe, TheDriverObjectTellsWhereTheImageLies) {
    const PDRIVER_OBJECT Driver = TheKernel->Driver();
    EXPECT_EQ(Driver->DriverStart, Image->Base());
    EXPECT_EQ(Driver->DriverSize, Image->Format().ImageSize);
    const auto *Section = static_cast<LoaderEntry *>(Driver->DriverSection);
    EXPECT_EQ(Section->DllBase, Image->Base());
    EXPECT_EQ(Section->EntryPoint, reinterpret_cast<void *>(Driver->DriverInit));
    EXPECT_EQ(Section->SizeOfImage, Driver->DriverSize);
    EXPECT_EQ(std::u16string_view(Section->BaseDllName.Buffer, Section->BaseDllName.Length / 2), u"probe.sys");
    EXPECT_EQ(Section->CheckSum, Image->Format().Checksum);
}

TEST_F(ImageProbe, AddressesInTheImageMovedWithIt) {
    ASSERT_NE(reinterpret_cast<uint64_t>(Image->Base()), Image->Format().PreferredBase);
    EXPECT_EQ(*static_cast<const char **>(Image->Export("ProbePointer")), Image->Export("ProbeText"));
    EXPECT_STREQ(static_cast<const char *>(Image->Export("ProbeText")), "a constant");
}

TEST_F(ImageProbe, ItsOwnHandlersTakeWhatIsRaised) {
    EXPECT_EQ(Call("ProbeCatch", One), One);
    for (const ULONG Depth : {0u, 1u, 7u, 60u}) {
        EXPECT_EQ(Call("ProbeCatchFromTheDepth", Depth, Other), Other) << Depth;
    }
    for (const ULONG Bytes : {16u, 4000u, 70000u}) {
        EXPECT_EQ(Call("ProbeMovingFrame", Bytes, One), One) << Bytes;
    }
}

TEST_F(ImageProbe, AFilterChoosesAndTheOuterHandlerTakesTheRest) {
    EXPECT_EQ(Call("ProbeFilter", One, One), One);
    EXPECT_EQ(Steps(), 12u);
    EXPECT_EQ(Call("ProbeFilter", Other, One), Other);
    EXPECT_EQ(Steps(), 13u);
}

TEST_F(ImageProbe, WhatMustRunAtTheEndRunsAfterTheFilterInnermostFirst) {
    EXPECT_EQ(Call("ProbeFinally", One, One), One);
    EXPECT_EQ(Steps(), 1456u);
}

TEST_F(ImageProbe, RegistersThatCallsPreserveSurviveACatch) {
    ULONG64 Numbers[7] = {11, 12, 13, 14, 15, 16, 0};
    double Values[7] = {0.5, 1.5, 2.5, 3.5, 4.5, 5.5, 0};
    EXPECT_EQ(Call("ProbeRegisters", Numbers, Values), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Numbers[6], 11u + 24 + 39 + 56 + 75 + 96);
    EXPECT_EQ(Values[6], 0.5 + 3 + 7.5 + 14 + 22.5 + 33);
}

TEST_F(ImageProbe, UserMemoryIsProbedAndRaisesWhatWindowsRaises) {
    constexpr NTSTATUS Misaligned = static_cast<NTSTATUS>(0x80000002);
    alignas(8) static char Good[64];
    const auto Ask = [&](const void *Address, SIZE_T Length, ULONG Alignment) {
        return Call("ProbeMemory", const_cast<void *>(Address), Length, Alignment);
    };
    EXPECT_EQ(Ask(Good, 64, 8), STATUS_SUCCESS);
    EXPECT_EQ(Ask(Good + 1, 8, 8), Misaligned);
    EXPECT_EQ(Ask(nullptr, 1, 1), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Ask(nullptr, 0, 1), STATUS_SUCCESS);
    EXPECT_EQ(Ask(Image->Base(), 1, 1), STATUS_ACCESS_VIOLATION) << "it cannot be written";
}

TEST_F(ImageProbe, AnExceptionThatNobodyTakesStopsWithTheImagesLines) {
    EXPECT_DEATH(Call("ProbeUncaught", 2u, One),
                 "STOP 0x0000001E .0x00000000E0000001.*no handler takes it\n"
                 ".*probe.sys!Deep.*probe.cpp:[^\n]*\n(.*\n)*.*probe.sys!ProbeUncaught.*probe.cpp:");
}

TEST_F(ImageProbe, AMemoryFaultStopsWithTheImagesLinesToo) {
    EXPECT_DEATH(Call("ProbeTouch", reinterpret_cast<ULONG *>(0x10)),
                 "STOP 0x00000050 .0x0000000000000010.*probe.sys touched memory at 0x10 that it cannot\n"
                 ".*in probe.sys!ProbeTouch.*probe.cpp:[0-9]+");
}

TEST_F(ImageProbe, PoolThatIsOverrunOrFreedStopsWhereItIsTouched) {
    SetPoolGuards(true);
    void *Block = nullptr;
    ASSERT_EQ(Call("ProbeAllocate", &Block), STATUS_SUCCESS); // 24 bytes, so 8 are left to the guard
    EXPECT_EQ(Call("ProbeFill", Block, SIZE_T{24}), STATUS_SUCCESS);
    EXPECT_DEATH(Call("ProbeFill", Block, SIZE_T{33}),
                 "STOP 0x00000050.*behind a block of tag Prob, 24 bytes[^\n]*\n.*in probe.sys!ProbeFill");
    EXPECT_DEATH((Call("ProbeFree", Block), Call("ProbeTouch", static_cast<ULONG *>(Block) + 2)),
                 "STOP 0x00000050.*8 bytes into a freed block of tag Prob, 24 bytes[^\n]*\n.*in probe.sys!ProbeTouch");
    EXPECT_EQ(Call("ProbeFree", Block), STATUS_SUCCESS);
    SetPoolGuards(std::getenv("RVFSD_GUARD_POOL") != nullptr);
}

TEST_F(ImageProbe, AFaultOfAServiceStopsWithTheServiceAndTheImagesLines) {
    for (const SIZE_T Bytes : {3u, 4096u}) { // in place, and by the C library
        EXPECT_DEATH(Call("ProbeFill", reinterpret_cast<void *>(0x10), Bytes),
                     "STOP 0x00000050 .0x0000000000000010.*memset touched memory at 0x10 that it cannot, called by "
                     "probe.sys\n.*in probe.sys!ProbeFill[^\n]*probe.cpp:[0-9]+");
    }
    // Also where the tracer stands between.
    EXPECT_DEATH(Image = Load(CallRecording::Traced);
                 Call("ProbeFill", reinterpret_cast<void *>(0x10), SIZE_T{4096}),
                 "memset touched memory at 0x10 that it cannot, called by probe.sys\n.*in probe.sys!ProbeFill");
}

TEST_F(ImageProbe, WhateverElseTheProcessorRefusesStopsWithTheImagesLines) {
    EXPECT_DEATH(Call("ProbeDivide", 0u), "STOP 0x0000001E .0x00000000C0000094.*probe.sys divided by zero[^\n]*\n"
                                          ".*in probe.sys!ProbeDivide[^\n]*probe.cpp:[0-9]+");
    EXPECT_DEATH(Call("ProbeTrap"), "STOP 0x0000001E .0x00000000C000001D.*\n.*in probe.sys!ProbeTrap");
    EXPECT_DEATH(Call("ProbeBreak"), "STOP 0x0000001E .0x0000000080000003.*\n.*in probe.sys!ProbeBreak");
    EXPECT_DEATH(std::thread([this] { Image = Load(), KeGetCurrentIrql(), Call("ProbeTakeStack"); }).join(),
                 "STOP 0x0000007F .0x0000000000000008.*probe.sys used up the stack, [0-9]+ bytes\n"
                 ".*in probe.sys!TakeStack");
}

TEST_F(ImageProbe, AFilterSeesThatAServicesExceptionCannotBeContinued) {
    EXPECT_EQ(Call("ProbeFlags", One), 1);
}

TEST_F(ImageProbe, AReportNamesTheLineThatAllocatedWhatIsLeft) {
    void *Block = nullptr;
    ASSERT_EQ(Call("ProbeAllocate", &Block), STATUS_SUCCESS);
    const std::string Report = DescribePool(PoolKind::Pool);
    EXPECT_THAT(Report,
                testing::ContainsRegex("tag Prob, 24 bytes, from .*probe.sys!AllocateInTheDepth[^<]*probe.cpp:[0-9]+"));
    EXPECT_THAT(Report, testing::ContainsRegex("probe.sys!ProbeAllocate[^<]*probe.cpp:[0-9]+"));
    EXPECT_THAT(Report, testing::ContainsRegex("ProbeAllocate[^<]*< [^<]*_tests")) << "and on to who called the driver";
    EXPECT_EQ(Call("ProbeFree", Block), STATUS_SUCCESS);
    EXPECT_THAT(DescribePool(PoolKind::Pool), Not(HasSubstr("Prob")));
}

TEST(ImageLines, AreNotTakenFromDebugInformationBuiltAnewSince) {
    const test::ScratchDirectory Scratch;
    for (const char *Name : {"probe.sys", "probe.pdb"}) {
        std::filesystem::copy_file(std::filesystem::path(RVFSD_IMAGE_FOLDER "/probe") / Name, Scratch.File(Name));
    }
    const DriverImage Image(Scratch.File("probe.sys"));
    EXPECT_THAT(DescribeImageAddress(Image, Image.Export("ProbeFree")), HasSubstr("probe.cpp:"));
    std::string Pdb = Scratch.Read("probe.pdb");
    const auto &Guid = Image.Format().Pdb.Guid;
    const size_t At = Pdb.find(std::string(Guid.begin(), Guid.end()));
    ASSERT_NE(At, std::string::npos);
    Pdb[At] ^= 1;
    Scratch.Write("probe.pdb", Pdb);
    EXPECT_THAT(DescribeImageAddress(Image, Image.Export("ProbeAllocate")), Not(HasSubstr("probe.cpp:")));
}

TEST_F(ImageProbe, APointerIntoTheImageIsFoundBeforeItIsUnmapped) {
    EXPECT_TRUE(PointersInto(*Image).empty());
    void *Block = nullptr;
    ASSERT_EQ(Call("ProbeAllocate", &Block), STATUS_SUCCESS);
    void *Inside = Image->Export("ProbeText");
    memcpy(static_cast<char *>(Block) + 8, &Inside, sizeof(Inside));
    const std::vector<std::string> Found = PointersInto(*Image);
    ASSERT_EQ(Found.size(), 1u);
    EXPECT_THAT(Found[0], HasSubstr("a pool block of tag Prob points to probe.sys!ProbeText"));
    EXPECT_EQ(Call("ProbeFree", Block), STATUS_SUCCESS);
}

TEST_F(ImageProbe, ARequestOrAFileThatPointsIntoTheImageIsFoundToo) {
    PDEVICE_OBJECT Device = nullptr;
    ASSERT_EQ(IoCreateDevice(TheKernel->Driver(), 0, nullptr, FILE_DEVICE_NETWORK_FILE_SYSTEM, 0, FALSE, &Device),
              STATUS_SUCCESS);
    Device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    TheKernel->Driver()->MajorFunction[IRP_MJ_READ] = reinterpret_cast<PDRIVER_DISPATCH>(Image->Export("ProbePend"));
    const PFILE_OBJECT File = CreateFileObject(Device, u"", 0, false);
    const auto Lines = [this] {
        std::vector<std::string> Found = PointersInto(*Image);
        EXPECT_THAT(Found[0], HasSubstr("1 device(s)"));
        Found.erase(Found.begin());
        return Found;
    };
    IrpBuilder Builder;
    Builder.MajorFunction = IRP_MJ_READ;
    Builder.FileObject = File;
    {
        SentIrp Sent = SendIrp(Device, Builder);
        EXPECT_THAT(Lines(),
                    testing::ElementsAre(testing::ContainsRegex("^IRP 0x.* points to probe.sys!CancelPended")));
        EXPECT_TRUE(Sent.Cancel());
        EXPECT_EQ(Sent.Wait().Status, STATUS_CANCELLED);
        EXPECT_THAT(Lines(), testing::IsEmpty());
    }
    File->FsContext = Image->Export("ProbeText");
    EXPECT_THAT(Lines(), testing::ElementsAre(testing::ContainsRegex("^file object 0x.* to probe.sys!ProbeText")));
    DereferenceFileObject(File);
    EXPECT_THAT(Lines(), testing::IsEmpty());
    IoDeleteDevice(Device);
}

// ---- The trace of calls ------------------------------------------------------------------------------------------

class ImageCalls : public ImageProbe {
protected:
    ImageCalls() {
        TheKernel->Stop();
        TheKernel = std::make_unique<Kernel>();
        Image = Load(CallRecording::Traced);
        SetCallSink([this](const std::string &Line) { Lines.push_back(Line); });
    }
    ~ImageCalls() override {
        SetCallSink({});
    }

    std::vector<std::string> Lines;
};

TEST_F(ImageCalls, HaveALineEachWithThreadLevelAndResult) {
    void *Block = nullptr;
    ASSERT_EQ(Call("ProbeAllocate", &Block), STATUS_SUCCESS);
    EXPECT_THAT(DescribePool(PoolKind::Pool), HasSubstr("< probe.sys!AllocateInTheDepth")) << "the walk sees through";
    ASSERT_EQ(Call("ProbeFree", Block), STATUS_SUCCESS);
    ASSERT_EQ(Call("ProbeCatch", One), One);
    ASSERT_EQ(Lines.size(), 3u);
    EXPECT_THAT(Lines[0], testing::ContainsRegex("^[0-9]+ thread 0x[0-9a-f]+ irql 0 "
                                                 "ExAllocatePoolWithTag\\(0x200, 0x18, 0x626f7250\\) = 0x[0-9a-f]+$"));
    EXPECT_THAT(Lines[1], testing::ContainsRegex("ExFreePoolWithTag\\(0x[0-9a-f]+, 0x0\\) = -$"));
    EXPECT_THAT(Lines[2], HasSubstr("ExRaiseStatus(0xe0000001) = raises 0xE0000001"));
    std::map<std::string, uint64_t> Counts;
    for (const auto &Record : Image->Calls()) {
        Counts[Record->Called.Name] = Record->Calls;
    }
    EXPECT_EQ(Counts["ExAllocatePoolWithTag"], 1u);
    EXPECT_EQ(Counts["ExRaiseStatus"], 1u);
    EXPECT_GE(Counts["__C_specific_handler"], 1u) << "it named the handler that took the exception";
    EXPECT_EQ(Counts["ProbeForRead"], 0u);
}

TEST_F(ImageCalls, ThatNeverReturnHaveALineToo) {
    const auto FreeTwice = [this] {
        SetCallSink([](const std::string &Line) { fprintf(stderr, "%s\n", Line.c_str()); });
        void *Block = nullptr;
        Call("ProbeAllocate", &Block);
        Call("ProbeFree", Block);
        Call("ProbeFree", Block);
    };
    EXPECT_DEATH(FreeTwice(),
                 "ExFreePoolWithTag\\(0x[0-9a-f]+, 0x0\\) = -\n(.*\n)*"
                 "[0-9]+ thread 0x[0-9a-f]+ irql 0 ExFreePoolWithTag\\(0x[0-9a-f]+, 0x0\\) = does not return\n");

    EXPECT_EQ(Call("ProbeEndThread", nullptr), STATUS_INVALID_PARAMETER) << "no system thread";
    HANDLE Thread = nullptr;
    ASSERT_EQ(PsCreateSystemThread(&Thread, 0, nullptr, nullptr, nullptr,
                                   reinterpret_cast<PKSTART_ROUTINE>(Image->Export("ProbeEndThread")), nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(JoinSystemThreads(Clock::Second), 0u);
    ZwClose(Thread);
    EXPECT_THAT(Lines, testing::ElementsAre(HasSubstr("PsTerminateSystemThread(0x0) = 0xC000000D"),
                                            HasSubstr("PsTerminateSystemThread(0x0) = does not return")));
}

TEST_F(ImageCalls, ThatWaitSaySoBeforeTheyDo) {
    KEVENT Event;
    KeInitializeEvent(&Event, NotificationEvent, TRUE);
    LARGE_INTEGER None = {};
    EXPECT_EQ(Call("ProbeWait", &Event, &None), STATUS_SUCCESS);
    ASSERT_EQ(Lines.size(), 1u);
    KeClearEvent(&Event);
    LARGE_INTEGER Soon;
    Clock::SetRunning(); // nobody else would move it
    Soon.QuadPart = -Clock::Millisecond;
    EXPECT_EQ(Call("ProbeWait", &Event, &Soon), STATUS_TIMEOUT);
    EXPECT_THAT(Lines[1], testing::ContainsRegex("KeWaitForSingleObject\\(.*\\) = waits$"));
    EXPECT_THAT(Lines[2], testing::ContainsRegex("KeWaitForSingleObject\\(.*\\) = 0x00000102$"));
}

TEST_F(ImageCalls, DoNotHideTheLineThatTookALockOrCompletedARequest) {
    KSPIN_LOCK SpinLock = 0;
    ERESOURCE Exclusive, Shared;
    ExInitializeResourceLite(&Exclusive);
    ExInitializeResourceLite(&Shared);
    KIRQL Old;
    ASSERT_EQ(Call("ProbeTakeLocks", &SpinLock, &Exclusive, &Shared, &Old), STATUS_SUCCESS);
    const std::string Held = DescribeHeldLocks(CurrentThread());
    EXPECT_THAT(Held, testing::ContainsRegex("\\(resource, exclusive\\), taken at probe.sys!ProbeTakeLocks.*\n"
                                             ".*\\(resource, shared\\), taken at probe.sys!ProbeTakeLocks.*\n"
                                             ".*\\(spin lock\\), taken at probe.sys!ProbeTakeLocks"));
    KeReleaseSpinLock(&SpinLock, Old);
    ExReleaseResourceLite(&Shared);
    ExReleaseResourceLite(&Exclusive);
    KeLeaveCriticalRegion();
    ExDeleteResourceLite(&Shared);
    ExDeleteResourceLite(&Exclusive);

    IrpBlock Block = {};
    Block.Signature = IrpBlock::SignatureValue;
    EXPECT_DEATH(Call("ProbeComplete", &Block.Irp),
                 "a request was completed twice: first from [^,]*, now from probe.sys!ProbeComplete");
}

} // namespace
} // namespace embedded
