// What the driver prints, where it goes, and the log file.

#include "embedded/probe.h"
#include "embedded/system_volume.h"
#include "embedded/verifier/probe.h"
#include "frame/diagnostics.h"
#include "tests/app/program.h"
#include "tests/driver/frame_client.h"

namespace {

using namespace test;

class Diagnostics : public FrameFixture {
protected:
    // What one message of category Mask produces.
    std::string Trace(ULONG Mask) {
        Printed.clear();
        NtFsdDebugPrint(Mask, 0, "line %d\n", 7);
        return Printed;
    }
    static std::string Buffered() {
        return {g_pLogBuffer, g_uLogBufferUsed};
    }

    const std::string Thread = fmt::format("[TID - 0x{:X}] ", reinterpret_cast<ULONG_PTR>(KeGetCurrentThread()));
    const std::string Process = fmt::format("[PID - 0x{:X}] ", reinterpret_cast<ULONG_PTR>(IoGetCurrentProcess()));
};

TEST_F(Diagnostics, AMessageIsProducedWhenItsMaskSharesABitAndHasThreadProcessDriverInFront) {
    const std::string Line = "[RVFSD] line 7\n";
    const struct {
        ULONG EnableDebug, Level, Mask;
        std::string Wanted;
    } Cases[] = {
        {1, 0x41, 0x40, Line},     {1, 0x41, 0x1, Line},     {1, 0x41, 0x60, Line},
        {1, 0x41, 0x20, ""},       {1, 0, 0x40, ""},         {1, 0, 0, Line}, // mask 0: whatever the level
        {0, 0xFFFFFFFF, 0x40, ""}, {0, 0xFFFFFFFF, 0, ""},   {1, 0x2000000, 0x2000000, Line},
        {2, 0, 0, Process + Line}, {4, 0, 0, Thread + Line}, {6, 0, 0, Thread + Process + Line},
    };
    for (const auto &Each : Cases) {
        StartTracing(Each.Level, Each.EnableDebug);
        EXPECT_EQ(Trace(Each.Mask), Each.Wanted)
            << std::hex << Each.EnableDebug << " " << Each.Level << " " << Each.Mask;
        Stop();
    }
}

TEST_F(Diagnostics, AFilteredMessageEvaluatesNoArgument) {
    StartTracing(0x40);
    int Evaluated = 0;
    const auto Count = [&] { return ++Evaluated; };
    NtFsdDebugPrint(0x20, 0, "%d\n", Count());
    EXPECT_EQ(Evaluated, 0);
    NtFsdDebugPrint(0x40, 0, "%d\n", Count());
    EXPECT_EQ(Evaluated, 1);
}

TEST_F(Diagnostics, WithoutEnableDebugTheOtherSwitchesAreNotRead) {
    Start(
        {.Switches = {{u"FsDisplayOutput", 1}, {u"FsDebugLevel", 0xFF}, {u"RvioctlDbgMsg", 1}, {u"DebugLogging", 1}}});
    EXPECT_EQ(g_uDebugFlags, 0u);
    EXPECT_EQ(g_bDisplayOutput, FALSE);
    EXPECT_EQ(g_uDebugMask, 0u);
    EXPECT_EQ(g_uIoctlDebugMessages, 0u);
    EXPECT_EQ(g_uDebugLogging, 0u);
    EXPECT_NE(g_pLogBuffer, nullptr);
    NtFsdLogAppend("text", 4);
    EXPECT_EQ(g_uLogBufferUsed, 0u);
}

TEST_F(Diagnostics, WithoutDisplayOutputLinesGoToTheLogBufferOnly) {
    Start({.Switches = {{u"EnableDebug", 1}, {u"FsDebugLevel", 0x40}}});
    EXPECT_EQ(Trace(0x40), "");
    EXPECT_EQ(Buffered(), "[RVFSD] line 7\n");
}

TEST_F(Diagnostics, ALineIsCutAt4095Bytes) {
    StartTracing(0x40);
    Printed.clear();
    const std::string Long(5000, 'x');
    NtFsdDebugPrint(0x40, 0, "%s\n", Long.c_str());
    EXPECT_EQ(Printed, "[RVFSD] " + Long.substr(0, 4095 - 8 - 1) + "\n") << "and keeps its end";
    Printed.clear();
    NtFsdDebugPrint(0x40, 0, "%s\n", Long.substr(0, 4095 - 8 - 1).c_str());
    NtFsdDebugPrint(0x40, 0, "%s", "no end");
    EXPECT_EQ(Printed, "[RVFSD] " + Long.substr(0, 4095 - 8 - 1) + "\n[RVFSD] no end");
}

TEST_F(Diagnostics, ALineWithoutMemoryIsDropped) {
    StartTracing(0x40);
    const PlannedFaults NoMemory({.Kinds = FaultBit(FaultKind::Pool)});
    const FaultScope AsTheDriver;
    EXPECT_EQ(Trace(0x40), "");
    EXPECT_EQ(Trace(0x40), "[RVFSD] line 7\n");
}

TEST_F(Diagnostics, WhatIsAlwaysPrintedNeedsNeitherSwitchNorMemory) {
    Start();
    const PlannedFaults NoMemory({.How = FaultPlan::Mode::NthAndAfter});
    const FaultScope AsTheDriver;
    NtFsdAlwaysPrint("[RVFSD] %u bytes, %s\n", 12u, "100%s");
    EXPECT_EQ(Printed, "[RVFSD] 12 bytes, 100%s\n");
    Printed.clear();
    NtFsdAlwaysPrint("%s\n", std::string(600, 'x').c_str());
    EXPECT_EQ(Printed, std::string(510, 'x') + "\n") << "cut, and with its end";
}

// ---- Text from outside

TEST_F(Diagnostics, ExternalTextIsDataAndHasItsOwnSwitch) {
    const std::string Longest(4096, 'y');
    const struct {
        ULONG EnableDebug, Messages;
        std::string Text, Wanted;
    } Cases[] = {
        {6, 1, "text\n", Thread + Process + "text\n"}, // and not the driver's name
        {1, 1, "100%s%n%wZ\n", "100%s%n%wZ\n"},
        {1, 0, "text\n", ""},
        {0, 1, "text\n", ""},
        {1, 1, "", ""},
        {1, 1, Longest + "y", ""},
        {1, 1, Longest, Longest.substr(0, 4095)},
        {1, 1, Longest.substr(1) + "\n", Longest.substr(2) + "\n"},
    };
    for (const auto &Each : Cases) {
        Start({.Switches = {{u"EnableDebug", Each.EnableDebug},
                            {u"FsDisplayOutput", 1},
                            {u"FsDebugLevel", 0},
                            {u"RvioctlDbgMsg", Each.Messages}}});
        Printed.clear();
        NtFsdExternalPrint(Each.Text.c_str());
        EXPECT_EQ(Printed, Each.Wanted);
        Stop();
    }
}

// ---- The log buffer

TEST_F(Diagnostics, TextThatDoesNotFitEmptiesTheBufferFirst) {
    StartTracing(0);
    g_uLogBufferUsed = LOG_BUFFER_BYTES - 8;
    NtFsdLogAppend("12345678", 8);
    EXPECT_EQ(g_uLogBufferUsed, LOG_BUFFER_BYTES);
    g_uLogBufferUsed = LOG_BUFFER_BYTES - 8;
    g_pLogBuffer[20] = 'x';
    NtFsdLogAppend("123456789", 9);
    EXPECT_EQ(Buffered(), "123456789");
    EXPECT_EQ(g_pLogBuffer[20], 0);
}

TEST_F(Diagnostics, ADriverWithoutALogBufferTracesToTheDebugger) {
    Start({.Switches = {{u"EnableDebug", 1}, {u"FsDisplayOutput", 1}, {u"FsDebugLevel", 0x40}, {u"DebugLogging", 1}},
           .StartsTheDriver = false});
    {
        const PlannedFaults NoBuffer({.Kinds = FaultBit(FaultKind::Pool)});
        ASSERT_EQ(Load(), STATUS_SUCCESS);
    }
    EXPECT_EQ(g_pLogBuffer, nullptr);
    EXPECT_EQ(Trace(0x40), "[RVFSD] line 7\n");
    Clock::Advance(Clock::Second);
}

// ---- The log file

constexpr const char16_t *LogName = u"\\Rvfsd.log";
// The kernel's clock starts there, and so does its system.
const std::string Banner = "Twfs Log starting Wed Jan 1, 2025 00:00:00\n"
                           "System Boot Time(0x1db5be019ba4000) Wed Jan 1, 2025 00:00:00\n";

class LogFile : public Diagnostics {
protected:
    void Boot(ULONG DebugLogging, std::optional<std::filesystem::path> Volume = {}) {
        Start({.Switches = {{u"EnableDebug", 1}, {u"FsDebugLevel", 0x40}, {u"DebugLogging", DebugLogging}},
               .StartsTheDriver = false,
               .SystemVolume = std::move(Volume)});
    }
    void MustLoad() {
        ASSERT_EQ(Load(), STATUS_SUCCESS);
        Clock::Settle();
    }
    static std::string Log() {
        Clock::Settle();
        return ReadSystemFile(LogName).value_or("(none)");
    }
    static void Pass100ms(unsigned Times = 1) {
        Clock::Advance(Times * 100 * Clock::Millisecond);
    }
    static void Append(std::string_view Text) {
        NtFsdLogAppend(Text.data(), static_cast<ULONG>(Text.size()));
    }
    // Appends and lets the writer look, as it does every 100 ms.
    static void Write(std::string_view Text) {
        Append(Text);
        Pass100ms();
    }
};

TEST_F(LogFile, BeginsWithTwoBannerLinesAndHasNoHoleWhereABlockWasLost) {
    Boot(1);
    MustLoad();
    EXPECT_EQ(Log(), Banner);
    Append("later\n");
    EXPECT_EQ(Log(), Banner) << "the writer looks every 100 ms";
    Pass100ms();
    EXPECT_EQ(Log(), Banner + "later\n");
    FailNext(VolumeOperation::Write, STATUS_DISK_FULL);
    Write("lost\n");
    EXPECT_EQ(Log(), Banner + "later\n");
    Write("next\n");
    EXPECT_EQ(Log(), Banner + "later\nnext\n");
}

TEST_F(LogFile, IsOverwrittenFromItsStartOrDeletedFirst) {
    const std::string Old(Banner.size() + 4, 'o');
    for (const auto &[DebugLogging, Wanted] :
         std::map<ULONG, std::string>{{1, Banner + "oooo"}, {3, Banner}, {2, Banner}}) {
        Boot(DebugLogging);
        WriteSystemFile(LogName, Old);
        MustLoad();
        EXPECT_EQ(Log(), Wanted) << "DebugLogging " << DebugLogging;
        Stop();
    }
}

TEST_F(LogFile, AnOpenOrABannerThatFailsIsTriedAgainEvery100ms) {
    for (const auto &[Operation, Failure] : {std::pair{VolumeOperation::Write, STATUS_FILE_INVALID},
                                             {VolumeOperation::Write, STATUS_DISK_FULL},
                                             {VolumeOperation::Create, STATUS_ACCESS_DENIED}}) {
        Boot(1);
        FailNext(Operation, Failure, 2);
        MustLoad();
        Write("kept\n");
        EXPECT_EQ(Log(), Operation == VolumeOperation::Create ? "(none)" : "");
        Pass100ms();
        EXPECT_EQ(Log().substr(0, 42), Banner.substr(0, 42));
        Pass100ms();
        EXPECT_TRUE(Log().ends_with("kept\n"));
        Stop();
    }
}

TEST_F(LogFile, AWriterWithoutMemoryEndsAndShutdownDoesNotWaitForIt) {
    Boot(0);
    MustLoad();
    g_uDebugLogging = 1;
    {
        const PlannedFaults NoBuffer({.Kinds = FaultBit(FaultKind::Pool)});
        NtFsdStartLogWriter();
        Clock::Settle();
        EXPECT_EQ(GetFaultCounts().TotalFailed(), 1u);
    }
    EXPECT_EQ(Kernel().SendShutdown(), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(Log(), "(none)");
}

TEST_F(LogFile, ShutdownWritesTheRest) {
    Boot(1);
    MustLoad();
    Append("the last line\n");
    EXPECT_EQ(Kernel().SendShutdown(), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(Log(), Banner + "the last line\n");
    EXPECT_EQ(g_pLogBuffer, nullptr);
    NtFsdDebugPrint(0x40, 0, "nobody writes this\n");
    EXPECT_EQ(Log(), Banner + "the last line\n");
}

TEST_F(LogFile, ShutdownEndsAWriterThatCannotOpenItsFile) {
    Boot(1);
    FailNext(VolumeOperation::Create, STATUS_ACCESS_DENIED, ~0u);
    MustLoad();
    EXPECT_EQ(Kernel().SendShutdown(), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(Log(), "(none)");
}

TEST_F(LogFile, AfterHalfAGigabyteTheNextTextStandsAtTheStart) {
    const ScratchDirectory Folder;
    Boot(1, Folder.Path());
    MustLoad();
    const auto Head = [&] {
        Clock::Settle();
        std::string Start(64, '\0');
        std::ifstream(Folder.File("Rvfsd.log"), std::ios::binary).read(Start.data(), 64);
        return Start;
    };
    const auto Size = [&] {
        Clock::Settle();
        return std::filesystem::file_size(Folder.File("Rvfsd.log"));
    };
    // Blocks of the whole buffer until one more does not fit below 500 MiB; that one is still written behind them.
    const std::string Block(LOG_BUFFER_BYTES, 'b');
    const unsigned Fit = static_cast<unsigned>((0x1F400000 - Banner.size()) / Block.size());
    for (unsigned Written = 0; Written < Fit; ++Written) {
        Write(Block);
    }
    EXPECT_EQ(Size(), Banner.size() + Fit * Block.size());
    EXPECT_EQ(Head(), Banner.substr(0, 64));
    // A block that is lost wraps nothing.
    FailNext(VolumeOperation::Write, STATUS_DISK_FULL);
    Write(Block);
    EXPECT_EQ(Size(), Banner.size() + Fit * Block.size());
    EXPECT_EQ(Head(), Banner.substr(0, 64));
    Write(Block);
    EXPECT_EQ(Size(), Banner.size() + (Fit + 1) * Block.size());
    EXPECT_EQ(Head(), "*** End of Log ***" + Banner.substr(18, 64 - 18));
    Write("round again\n");
    EXPECT_EQ(Head(), "round again\n*** End of Log ***" + Banner.substr(30, 64 - 30));
    Write("and on\n");
    EXPECT_EQ(Head(), "round again\nand on\n*** End of Log ***" + Banner.substr(37, 64 - 37));
    Stop();
}

} // namespace
