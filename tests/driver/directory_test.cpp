// Listing a directory through the driver.

#include <future>
#include <random>
#include <set>
#include <sstream>

#include "embedded/ex/probe.h"
#include "embedded/io/probe.h"
#include "embedded/verifier/probe.h"
#include "tests/driver/listing_client.h"

namespace {

using namespace test;

constexpr ULONG Classes[] = {FileDirectoryInformation, FileFullDirectoryInformation,   FileBothDirectoryInformation,
                             FileNamesInformation,     FileIdBothDirectoryInformation, FileIdFullDirectoryInformation};

TEST_F(Listing, ASubdirectoryBeginsWithItselfAndItsParentAndAVolumeRootDoesNot) {
    Provider.AddFile(u"\\srv\\vol\\d\\a.txt", "12345");
    Provider.AddFile(u"\\srv\\vol\\d\\b.txt", "");
    HANDLE Sub = OpenDirectory(u"\\srv\\vol\\d");
    EXPECT_EQ(Names(Sub), (std::vector<std::u16string>{u".", u"..", u"a.txt", u"b.txt"}));
    HANDLE Root = OpenDirectory(u"\\srv\\vol");
    EXPECT_EQ(Names(Root), (std::vector<std::u16string>{u"d"}));
    // A second open of the directory, and one that failed, leave the first one's answer as it was.
    OpenDirectory(u"\\srv\\vol\\d");
    EXPECT_EQ(Create(u"\\srv\\vol\\d", {.Options = FILE_NON_DIRECTORY_FILE}).Status, STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(Names(Sub).size(), 4u);
}

TEST_F(Listing, ADirectoryThatWasCreatedAndNotOpenedListsItselfAndNotItsParent) {
    Provider.AddFile(u"\\srv\\vol\\of-the-parent.txt", "");
    HANDLE Made = MustOpen(u"\\srv\\vol\\new", MakingADirectory);
    EXPECT_EQ(Names(Made), (std::vector<std::u16string>{u".", u".."}));
}

TEST_F(Listing, TheDotEntriesAreThereForMasksWithoutAnOrdinaryCharacter) {
    Provider.AddFile(u"\\srv\\vol\\d\\abc", "");
    Provider.AddFile(u"\\srv\\vol\\d\\a.txt", "");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    using Found = std::vector<std::u16string>;
    EXPECT_EQ(Names(Directory, u"???"), (Found{u".", u"..", u"abc"}));
    EXPECT_EQ(Names(Directory, u"*.txt"), (Found{u"a.txt"}));
    EXPECT_EQ(Names(Directory, u"<.txt"), (Found{u"a.txt"}));
    EXPECT_EQ(Names(Directory, u"<"), Names(Directory)) << "a wildcard: more than one answer";
    EXPECT_EQ(Names(Directory, u"*.*"), (Found{u"abc", u"a.txt"})) << "a full stop is an ordinary character";
    EXPECT_EQ(Names(Directory, u"\""), (Found{u"."})) << "no wildcard: one answer";
}

TEST_F(Listing, AHundredThousandEntriesAreAllListed) {
    constexpr int Count = 100'000;
    Provider.Edit([](Tree &Tree) {
        Node &Parent = *Tree.Find(u"\\srv\\vol\\d");
        for (int Index = 0; Index < Count; ++Index) {
            auto File = std::make_shared<Node>();
            const std::string Digits = std::to_string(Count + Index);
            File->Name.assign(Digits.begin(), Digits.end());
            Parent.Attach(std::move(File));
        }
    });
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    const std::vector<std::u16string> Found = Names(Directory);
    ASSERT_EQ(Found.size(), Count + 2u);
    EXPECT_EQ(Found.back(), u"199999");
    EXPECT_TRUE(std::is_sorted(Found.begin(), Found.end()));
    EXPECT_EQ(std::adjacent_find(Found.begin(), Found.end()), Found.end());
}

TEST_F(Listing, MasksReachTheProviderRewritten) {
    const struct {
        const char16_t *Mask;
        const char *Sent;
    } Cases[] = {
        {nullptr, "\"*\""},
        {u"*", "\"*\""},
        {u">>>>>>>>\">>>", "\"*\""},
        {u"*.*", "\"*.*\""},
        {u"abc*.*", "\"abc*\""},
        {u"<.txt", "\"\xEF\xA3\xBC.txt\""},
        {u">a", "\"\xEF\xA3\xBD"
                "a\""},
        {u"a\"b", "\"a\xEF\xA3\xBF"
                  "b\""},
        {u"plain", "\"plain\""},
        {u"", "\"*\""},
        {u"???", "\"???\""},
    };
    HANDLE Directory = OpenDirectory(u"\\srv\\vol");
    for (const auto &Case : Cases) {
        Provider.ClearCalls();
        Query(Directory, 4096, Case.Mask, true);
        EXPECT_NE(LastMask().find(Case.Sent), std::string::npos) << LastMask() << " for " << Case.Sent;
    }
}

TEST_F(Listing, AnExactNameAnswersOnceUntilRestartedAndIsNotLostByASmallBuffer) {
    Provider.AddFile(u"\\srv\\vol\\d\\a.txt", "x");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    EXPECT_EQ(Query(Directory, 70, u"a.txt").Status, STATUS_BUFFER_OVERFLOW);
    Answer First = Query(Directory, 4096, u"a.txt");
    EXPECT_EQ(First.Status, STATUS_SUCCESS);
    EXPECT_EQ(Unpack(First.Buffer, First.Information, FileDirectoryInformation).size(), 1u);
    EXPECT_EQ(Query(Directory, 4096, u"a.txt").Status, STATUS_NO_MORE_FILES);
    EXPECT_EQ(Query(Directory, 4096, u"a.txt", false, false, 4).Status, STATUS_NO_MORE_FILES) << "whatever the class";
    EXPECT_EQ(Query(Directory, 70, u"a.txt", true).Status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(Query(Directory, 4096, u"a.txt").Status, STATUS_SUCCESS);
    EXPECT_EQ(Query(Directory, 4096, u"none.txt", true).Status, STATUS_NO_SUCH_FILE);
    EXPECT_EQ(Query(Directory, 4096, u"none.txt").Status, STATUS_NO_MORE_FILES);
}

TEST_F(Listing, EveryBufferLengthAnswersWithWholeEntriesOrNothing) {
    Provider.AddFile(u"\\srv\\vol\\d\\ten chars.", "12");
    Provider.AddFile(u"\\srv\\vol\\d\\another one", "3");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    for (const ULONG InfoClass : Classes) {
        const ULONG Fixed = NtFsdDirEntryFixedSize(InfoClass);
        for (ULONG Length = 0; Length < 600; ++Length) {
            Answer Result = Query(Directory, Length, u"*", true, false, InfoClass);
            const ULONG FirstEntry = Fixed + 2; // "."
            EXPECT_EQ(Result.Status, Length < FirstEntry ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS) << Length;
            EXPECT_EQ(Result.Information != 0, Length >= FirstEntry);
            Unpack(Result.Buffer, Result.Information, InfoClass);
        }
    }
}

TEST_F(Listing, AnySequenceOfBuffersTellsTheSameAsOneLargeBuffer) {
    std::mt19937 Random(7);
    for (int Index = 0; Index < 400; ++Index) {
        std::u16string Name = u"\\srv\\vol\\d\\f";
        for (int Digit = 0; Digit < 4; ++Digit) {
            Name += static_cast<char16_t>(u'a' + Random() % 26);
        }
        Name += std::u16string(Random() % 60, u'x') + static_cast<char16_t>(u'0' + Index % 10);
        Provider.AddFile(Name, "1");
    }
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    const LONG64 Before = PoolBytesInUse();
    const std::vector<std::u16string> Whole = Names(Directory, u"*");
    for (int Round = 0; Round < 20; ++Round) {
        std::vector<std::u16string> Found;
        const ULONG InfoClass = Classes[Round % std::size(Classes)];
        bool Restart = true;
        for (;;) {
            if (Random() % 100 == 0) {
                Found.clear();
                Restart = true;
            }
            const ULONG Length = Random() % 2000;
            Answer Result = Query(Directory, Length, u"*", std::exchange(Restart, false), Random() % 4 == 0, InfoClass);
            EXPECT_LE(PoolBytesInUse() - Before, 12288 + 256) << "one batch and the mask";
            if (Result.Status == STATUS_BUFFER_OVERFLOW) {
                continue; // the entry stays first
            }
            if (Result.Status != STATUS_SUCCESS) {
                EXPECT_EQ(Result.Status, STATUS_NO_MORE_FILES);
                break;
            }
            AddNames(Result, Found, InfoClass);
        }
        EXPECT_EQ(Found, Whole);
    }
}

TEST_F(Listing, AFailedAllocationLosesAndDoublesNothing) {
    for (char16_t Last = u'a'; Last <= u'h'; ++Last) {
        Provider.AddFile(std::u16string(u"\\srv\\vol\\d\\") + std::u16string(200, u'x') + Last, "");
    }
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    const std::vector<std::u16string> Whole = Names(Directory);
    const RequestLog Log;
    Completed = &Log;
    bool Failed = true;
    for (ULONG64 Nth = 1; Failed; ++Nth) {
        PlannedFaults Plan({.Kinds = FaultBit(FaultKind::Pool), .Nth = Nth});
        std::vector<std::u16string> Found;
        for (bool Restart = true;;) {
            const Answer Result = Query(Directory, 1200, u"*", Restart);
            if (Result.Status == STATUS_NO_MORE_FILES) {
                break;
            }
            AddNames(Result, Found);
            Restart = Result.Status != STATUS_SUCCESS && Found.empty(); // a restart that failed is asked for again
            EXPECT_TRUE(Result.Status == STATUS_SUCCESS || Result.Status == STATUS_INSUFFICIENT_RESOURCES);
        }
        EXPECT_EQ(Found, Whole) << Nth;
        Failed = GetFaultCounts().TotalFailed() != 0;
    }
}

TEST_F(Listing, RequestsThatCannotBeServedSayWhichWay) {
    Provider.AddFile(u"\\srv\\vol\\f", "");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    std::future<void> Refused; // without waiting for the directory
    {
        ResourceHold Hold;
        ASSERT_TRUE(Hold.AcquireExclusive(&Fcb(Directory)->Resource, TRUE));
        Refused = std::async(std::launch::async, [&] {
            for (const ULONG InfoClass : {0u, 4u, 5u, 55u, 56u, 0xFFFFFFFFu}) {
                EXPECT_EQ(Query(Directory, 256, u"*", false, false, InfoClass).Status, STATUS_INVALID_INFO_CLASS);
            }
        });
        EXPECT_EQ(Refused.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    }
    Refused.get();
    IrpBuilder Builder = Plain(IRP_MJ_DIRECTORY_CONTROL, FileObject(Directory));
    Builder.MinorFunction = IRP_MN_QUERY_DIRECTORY;
    Builder.StackFlags = SL_INDEX_SPECIFIED | SL_RESTART_SCAN;
    Builder.Fill = [](PIO_STACK_LOCATION IrpSp) {
        IrpSp->Parameters.QueryDirectory.FileInformationClass = FileDirectoryInformation;
    };
    Provider.ClearCalls();
    EXPECT_THAT(SendIrp(Device(), Builder).Wait(), Ends(STATUS_NOT_IMPLEMENTED, 0));
    EXPECT_EQ(CallNames().size(), 0u);
    HANDLE File = MustOpen(u"\\srv\\vol\\f");
    EXPECT_EQ(Query(File, 4096).Status, STATUS_INVALID_PARAMETER);
    {
        const PlannedFaults NoMapping({.Kinds = FaultBit(FaultKind::Map)});
        EXPECT_EQ(Query(Directory, 4096).Status, STATUS_INSUFFICIENT_RESOURCES);
    }
    // A buffer that cannot be written to.
    IO_STATUS_BLOCK IoStatus = {};
    EXPECT_EQ(NtQueryDirectoryFile(Directory, nullptr, nullptr, nullptr, &IoStatus, reinterpret_cast<PVOID>(0x1000),
                                   4096, FileDirectoryInformation, FALSE, nullptr, FALSE),
              STATUS_ACCESS_VIOLATION);
}

TEST_F(Listing, QueriesOfOneOpenSideBySideShareItsEntriesAmongThem) {
    Start({.Switches = {{u"EnableAsyncIo", 1}}});
    for (char16_t First = u'a'; First <= u'z'; ++First) {
        for (char16_t Second = u'a'; Second <= u'z'; ++Second) {
            Provider.AddFile(std::u16string(u"\\srv\\vol\\d\\a name of some length ") + First + Second, "");
        }
    }
    HANDLE Directory = MustOpen(u"\\srv\\vol\\d", {.Access = FILE_LIST_DIRECTORY, .Options = FILE_DIRECTORY_FILE});
    std::vector<std::u16string> Found[3];
    std::vector<std::thread> Threads;
    for (auto &Mine : Found) {
        Threads.emplace_back([this, Directory, &Mine] {
            for (;;) {
                const Answer Result = Query(Directory, 1000);
                if (Result.Status == STATUS_NO_MORE_FILES) {
                    return;
                }
                AddNames(Result, Mine);
            }
        });
    }
    std::multiset<std::u16string> All;
    for (size_t Thread = 0; Thread < std::size(Found); ++Thread) {
        Threads[Thread].join();
        All.insert(Found[Thread].begin(), Found[Thread].end());
    }
    EXPECT_EQ(All.size(), 26u * 26u + 2u);
    EXPECT_EQ(std::set<std::u16string>(All.begin(), All.end()).size(), All.size());
}

TEST_F(Listing, AProvidersErrorIsTheEndButADisconnectIsToldUntilItIsOver) {
    Provider.AddFile(u"\\srv\\vol\\d\\x1", "");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    Provider.OnCall(Slot::EnumerateDirectory).Return(ProviderError(0x0101));
    EXPECT_EQ(Query(Directory, 4096, u"x*").Status, STATUS_CONNECTION_DISCONNECTED);
    EXPECT_EQ(Query(Directory, 4096).Status, STATUS_CONNECTION_DISCONNECTED);
    Provider.ClearScript();
    EXPECT_EQ(Query(Directory, 4096).Status, STATUS_SUCCESS);
    Provider.OnCall(Slot::EnumerateDirectory).Return(ProviderError(0x0006));
    EXPECT_EQ(Query(Directory, 4096, u"x*", true).Status, STATUS_NO_SUCH_FILE);
    Provider.ClearCalls();
    EXPECT_EQ(Query(Directory, 4096).Status, STATUS_NO_MORE_FILES);
    EXPECT_TRUE(CallNames().empty()) << "the end is remembered";
}

TEST_F(Listing, TheTraceFollowsAQueryToItsEnd) {
    StartTracing(0x40);
    Provider.AddFile(u"\\srv\\vol\\ab", "");
    Provider.AddFile(u"\\srv\\vol\\ac", "");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol");
    Printed.clear();
    Query(Directory, 4096, u"a*", true, false, FileNamesInformation);
    std::string Bare; // without prefixes and the two lines that hold addresses
    std::istringstream Lines(Printed);
    for (std::string Line; std::getline(Lines, Line);) {
        if (Line.find("Entries: ") == Line.npos && Line.find("Next Entry") == Line.npos) {
            Bare += Line.substr(std::string_view("[RVFSD] ").size()) + "\n";
        }
    }
    EXPECT_EQ(Bare, "   Index Specified     : FALSE\n"
                    "   Restart Scan        : TRUE\n"
                    "   Return Single Entry : FALSE\n"
                    "   Buffer Length       : 0x1000\n"
                    "   Search Initialized  : FALSE\n"
                    "   Information Class  : 12\n"
                    "   Search Mask : a*\n"
                    "   Info Count     : 0\n"
                    "   More Entries   : TRUE\n"
                    "We need more retrieve more entries for \"a*\".\n"
                    "   New Info Count : 2\n"
                    "We need more retrieve more entries for \"a*\".\n"
                    "   No more entries from RVIOM; status 0x80000006.\n"
                    "   Previous Entry      : 0x10\n"
                    "   Status              : 0x0\n"
                    "   Information         : 32\n"
                    "<<<<<<<<<<<<<NtFsdDirectoryControl() returning 0x0\n")
        << Printed;
    // What is refused before it is begun is not told as a query's end.
    Printed.clear();
    Query(Directory, 4096, nullptr, false, false, 4);
    EXPECT_TRUE(WasPrinted("Unknown DirInfo Level 0x4\n")) << Printed;
    EXPECT_FALSE(WasPrinted("   Status")) << Printed;
}

} // namespace
