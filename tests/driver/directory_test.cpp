// Listing a directory through the driver.

#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "dir/directory.h"
#include "embedded/ex.h"
#include "embedded/faults.h"
#include "tests/support/driver_fixture.h"

namespace {

using test::Open;

struct Entry {
    std::u16string Name;
    ULONG Attributes;
    LONGLONG Size;
};

// Reads the entries of a packed buffer and checks that it is packed as callers rely on.
std::vector<Entry> Unpack(const std::vector<UCHAR> &Buffer, ULONG_PTR Information, ULONG InfoClass) {
    std::vector<Entry> Entries;
    const ULONG Fixed = NtFsdDirEntryFixedSize(InfoClass);
    for (ULONG_PTR At = 0; Information != 0;) {
        EXPECT_EQ(At % 8, 0u);
        ULONG Next;
        memcpy(&Next, Buffer.data() + At, sizeof(Next));
        ULONG NameBytes;
        const ULONG LengthAt = InfoClass == FileNamesInformation ? 8 : 60;
        memcpy(&NameBytes, Buffer.data() + At + LengthAt, sizeof(NameBytes));
        Entry Found = {};
        Found.Name.resize(NameBytes / 2);
        memcpy(Found.Name.data(), Buffer.data() + At + Fixed, NameBytes);
        if (InfoClass != FileNamesInformation) {
            memcpy(&Found.Attributes, Buffer.data() + At + 56, sizeof(ULONG));
            memcpy(&Found.Size, Buffer.data() + At + 40, sizeof(LONGLONG));
        }
        Entries.push_back(Found);
        if (Next == 0) {
            EXPECT_EQ(Information, At + Fixed + NameBytes) << "Information ends with the last entry";
            break;
        }
        At += Next;
    }
    return Entries;
}

class Listing : public test::DriverFixture {
protected:
    struct Answer {
        NTSTATUS Status;
        ULONG_PTR Information;
        std::vector<UCHAR> Buffer;
    };

    HANDLE OpenDirectory(std::u16string_view Path) {
        return MustOpen(Path, {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE,
                               .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT});
    }

    // One query. The bytes that Information does not cover must come back as they went in.
    Answer Query(HANDLE Directory, ULONG Length, const char16_t *Mask = nullptr, bool Restart = false,
                 bool Single = false, ULONG InfoClass = FileDirectoryInformation) {
        constexpr UCHAR Pattern = 0xA5;
        Answer Result = {STATUS_UNSUCCESSFUL, 0, std::vector<UCHAR>(Length, Pattern)};
        std::u16string Text = Mask != nullptr ? Mask : u"";
        UNICODE_STRING Name = {static_cast<USHORT>(Text.size() * 2), static_cast<USHORT>(Text.size() * 2), Text.data()};
        IO_STATUS_BLOCK IoStatus = {};
        Result.Status = NtQueryDirectoryFile(Directory, nullptr, nullptr, nullptr, &IoStatus, Result.Buffer.data(),
                                             Length, InfoClass, Single, Mask != nullptr ? &Name : nullptr, Restart);
        if (Result.Status == STATUS_PENDING) {
            Result.Status = IoStatus.Status; // a posted query is over when it returns
        }
        Result.Information = IoStatus.Information;
        EXPECT_LE(Result.Information, Length);
        for (ULONG_PTR At = Result.Information; At < Length; ++At) {
            EXPECT_EQ(Result.Buffer[At], Pattern) << "byte " << At << " is beyond what was reported";
        }
        return Result;
    }

    static void AddNames(const Answer &Result, std::vector<std::u16string> &Names) {
        for (const Entry &One : Unpack(Result.Buffer, Result.Information, FileDirectoryInformation)) {
            Names.push_back(One.Name);
        }
    }
    std::vector<std::u16string> Names(HANDLE Directory, const char16_t *Mask = nullptr) {
        std::vector<std::u16string> Found;
        Answer Result = Query(Directory, 65536, Mask, true);
        for (; Result.Status == STATUS_SUCCESS; Result = Query(Directory, 65536)) {
            AddNames(Result, Found);
        }
        EXPECT_TRUE(Result.Status == STATUS_NO_MORE_FILES || Result.Status == STATUS_NO_SUCH_FILE);
        return Found;
    }

    std::string LastMask() {
        for (const auto &Line : Provider.Calls()) {
            if (Line.find("EnumerateDirectory") != std::string::npos) {
                return Line;
            }
        }
        return "";
    }
};

TEST_F(Listing, ASubdirectoryBeginsWithItselfAndItsParentAndAVolumeRootDoesNot) {
    Provider.AddDirectory(u"\\srv\\vol\\d");
    Provider.AddFile(u"\\srv\\vol\\d\\a.txt", "12345");
    Provider.AddFile(u"\\srv\\vol\\d\\b.txt", "");
    HANDLE Sub = OpenDirectory(u"\\srv\\vol\\d");
    EXPECT_EQ(Names(Sub), (std::vector<std::u16string>{u".", u"..", u"a.txt", u"b.txt"}));
    HANDLE Root = OpenDirectory(u"\\srv\\vol");
    EXPECT_EQ(Names(Root), (std::vector<std::u16string>{u"d"}));
    // A second open of the directory, and one that failed, leave the first one's answer as it was.
    HANDLE Again = OpenDirectory(u"\\srv\\vol\\d");
    EXPECT_EQ(Create(u"\\srv\\vol\\d", {.Options = FILE_NON_DIRECTORY_FILE}).Status, STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(Names(Sub).size(), 4u);
    Close(Again);
    Close(Root);
    Close(Sub);
}

TEST_F(Listing, ADirectoryThatWasCreatedAndNotOpenedListsItselfAndNotItsParent) {
    Provider.AddFile(u"\\srv\\vol\\of-the-parent.txt", "");
    HANDLE Made = MustOpen(u"\\srv\\vol\\new", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE,
                                                .Disposition = FILE_CREATE,
                                                .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT});
    EXPECT_EQ(Names(Made), (std::vector<std::u16string>{u".", u".."}));
    Close(Made);
}

TEST_F(Listing, MasksReachTheProviderRewritten) {
    Provider.AddDirectory(u"\\srv\\vol\\d");
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
    };
    HANDLE Directory = OpenDirectory(u"\\srv\\vol");
    for (const auto &Case : Cases) {
        Provider.ClearCalls();
        Query(Directory, 4096, Case.Mask, true);
        EXPECT_NE(LastMask().find(Case.Sent), std::string::npos) << LastMask() << " for " << Case.Sent;
    }
    Close(Directory);
}

TEST_F(Listing, AnExactNameAnswersOnceUntilRestartedAndIsNotLostByASmallBuffer) {
    Provider.AddDirectory(u"\\srv\\vol\\d");
    Provider.AddFile(u"\\srv\\vol\\d\\a.txt", "x");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    EXPECT_EQ(Query(Directory, 70, u"a.txt").Status, STATUS_BUFFER_OVERFLOW);
    Answer First = Query(Directory, 4096, u"a.txt");
    EXPECT_EQ(First.Status, STATUS_SUCCESS);
    EXPECT_EQ(Unpack(First.Buffer, First.Information, FileDirectoryInformation).size(), 1u);
    EXPECT_EQ(Query(Directory, 4096, u"a.txt").Status, STATUS_NO_MORE_FILES);
    EXPECT_EQ(Query(Directory, 4096, u"a.txt", false, false, 4).Status, STATUS_NO_MORE_FILES) << "whatever the class";
    EXPECT_EQ(Query(Directory, 4096, u"a.txt", true).Status, STATUS_SUCCESS);
    EXPECT_EQ(Query(Directory, 4096, u"none.txt", true).Status, STATUS_NO_SUCH_FILE);
    EXPECT_EQ(Query(Directory, 4096, u"none.txt").Status, STATUS_NO_MORE_FILES);
    Close(Directory);
}

TEST_F(Listing, EveryBufferLengthAnswersWithWholeEntriesOrNothing) {
    Provider.AddDirectory(u"\\srv\\vol\\d");
    Provider.AddFile(u"\\srv\\vol\\d\\ten chars.", "12");
    Provider.AddFile(u"\\srv\\vol\\d\\another one", "3");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    for (const ULONG InfoClass :
         {FileDirectoryInformation, FileFullDirectoryInformation, FileBothDirectoryInformation, FileNamesInformation,
          FileIdBothDirectoryInformation, FileIdFullDirectoryInformation}) {
        const ULONG Fixed = NtFsdDirEntryFixedSize(InfoClass);
        for (ULONG Length = 0; Length < 600; ++Length) {
            Answer Result = Query(Directory, Length, u"*", true, false, InfoClass);
            const ULONG FirstEntry = Fixed + 2; // "."
            EXPECT_EQ(Result.Status, Length < FirstEntry ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS) << Length;
            EXPECT_EQ(Result.Information != 0, Length >= FirstEntry);
            Unpack(Result.Buffer, Result.Information, InfoClass);
        }
    }
    Close(Directory);
}

TEST_F(Listing, AnySequenceOfBuffersTellsTheSameAsOneLargeBuffer) {
    Provider.AddDirectory(u"\\srv\\vol\\d");
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
    const LONG64 Before = embedded::PoolBytesInUse();
    const std::vector<std::u16string> Whole = Names(Directory, u"*");
    for (int Round = 0; Round < 20; ++Round) {
        std::vector<std::u16string> Found;
        bool Restart = true;
        for (;;) {
            const ULONG Length = Random() % 2000;
            Answer Result = Query(Directory, Length, u"*", std::exchange(Restart, false), Random() % 4 == 0);
            EXPECT_LE(embedded::PoolBytesInUse() - Before, 12288 + 256) << "one batch and the mask";
            if (Result.Status == STATUS_BUFFER_OVERFLOW) {
                continue; // the entry stays first
            }
            if (Result.Status != STATUS_SUCCESS) {
                EXPECT_EQ(Result.Status, STATUS_NO_MORE_FILES);
                break;
            }
            AddNames(Result, Found);
        }
        EXPECT_EQ(Found, Whole);
    }
    Close(Directory);
}

TEST_F(Listing, AFailedAllocationLosesAndDoublesNothing) {
    Provider.AddDirectory(u"\\srv\\vol\\d");
    for (char16_t Last = u'a'; Last <= u'h'; ++Last) {
        Provider.AddFile(std::u16string(u"\\srv\\vol\\d\\") + std::u16string(200, u'x') + Last, "");
    }
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    const std::vector<std::u16string> Whole = Names(Directory);
    bool Failed = true;
    for (ULONG64 Nth = 1; Failed; ++Nth) {
        embedded::PlannedFaults Plan({.Kinds = embedded::FaultBit(embedded::FaultKind::Pool), .Nth = Nth});
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
        Failed = embedded::GetFaultCounts().TotalFailed() != 0;
    }
    Close(Directory);
}

TEST_F(Listing, AttributesSizesAndTimesFollowTheKindOfTheEntry) {
    Provider.AddDirectory(u"\\srv\\vol\\d");
    Provider.AddFile(u"\\srv\\vol\\d\\plain", "123");
    Provider.AddFile(u"\\srv\\vol\\d\\readonly", "1", RV_ATTR_READONLY);
    Provider.AddDirectory(u"\\srv\\vol\\d\\sub");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    Answer Result = Query(Directory, 65536, u"*");
    std::map<std::u16string, Entry> ByName;
    for (const Entry &One : Unpack(Result.Buffer, Result.Information, FileDirectoryInformation)) {
        ByName[One.Name] = One;
    }
    EXPECT_EQ(ByName[u"plain"].Attributes, static_cast<ULONG>(FILE_ATTRIBUTE_NORMAL));
    EXPECT_EQ(ByName[u"plain"].Size, 3);
    EXPECT_EQ(ByName[u"readonly"].Attributes, static_cast<ULONG>(FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ(ByName[u"sub"].Attributes & FILE_ATTRIBUTE_DIRECTORY, static_cast<ULONG>(FILE_ATTRIBUTE_DIRECTORY));
    EXPECT_EQ(ByName[u"sub"].Size, 0);
    EXPECT_EQ(ByName[u"."].Attributes & FILE_ATTRIBUTE_DIRECTORY, static_cast<ULONG>(FILE_ATTRIBUTE_DIRECTORY));
    Close(Directory);
}

TEST_F(Listing, RequestsThatCannotBeServedSayWhichWay) {
    Provider.AddDirectory(u"\\srv\\vol\\d");
    Provider.AddFile(u"\\srv\\vol\\f", "");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    for (const ULONG InfoClass : {0u, 4u, 5u, 55u, 56u, 0xFFFFFFFFu}) {
        IO_STATUS_BLOCK IoStatus = {};
        UCHAR Buffer[256];
        const NTSTATUS Status = NtQueryDirectoryFile(Directory, nullptr, nullptr, nullptr, &IoStatus, Buffer,
                                                     sizeof(Buffer), InfoClass, FALSE, nullptr, FALSE);
        EXPECT_EQ(Status, STATUS_INVALID_INFO_CLASS) << InfoClass;
    }
    HANDLE File = MustOpen(u"\\srv\\vol\\f");
    EXPECT_EQ(Query(File, 4096).Status, STATUS_INVALID_PARAMETER);
    // A buffer that cannot be written to.
    IO_STATUS_BLOCK IoStatus = {};
    EXPECT_EQ(NtQueryDirectoryFile(Directory, nullptr, nullptr, nullptr, &IoStatus, reinterpret_cast<PVOID>(0x1000),
                                   4096, FileDirectoryInformation, FALSE, nullptr, FALSE),
              STATUS_ACCESS_VIOLATION);
    Close(File);
    Close(Directory);
}

TEST_F(Listing, QueriesOfOneOpenSideBySideShareItsEntriesAmongThem) {
    Start({.Switches = {{u"EnableAsyncIo", 1}}});
    Provider.AddDirectory(u"\\srv\\vol\\d");
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
    Close(Directory);
}

TEST_F(Listing, AProvidersErrorIsTheEndButADisconnectIsToldUntilItIsOver) {
    Provider.AddDirectory(u"\\srv\\vol\\d");
    Provider.AddFile(u"\\srv\\vol\\d\\x1", "");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    Provider.OnCall(providers::Slot::EnumerateDirectory).Return(test::RvError(0x0101));
    EXPECT_EQ(Query(Directory, 4096, u"x*").Status, STATUS_CONNECTION_DISCONNECTED);
    EXPECT_EQ(Query(Directory, 4096).Status, STATUS_CONNECTION_DISCONNECTED);
    Provider.ClearScript();
    EXPECT_EQ(Query(Directory, 4096).Status, STATUS_SUCCESS);
    Provider.OnCall(providers::Slot::EnumerateDirectory).Return(test::RvError(0x0006));
    EXPECT_EQ(Query(Directory, 4096, u"x*", true).Status, STATUS_NO_SUCH_FILE);
    Provider.ClearCalls();
    EXPECT_EQ(Query(Directory, 4096).Status, STATUS_NO_MORE_FILES);
    EXPECT_TRUE(CallNames().empty()) << "the end is remembered";
    Close(Directory);
}

TEST_F(Listing, TheTraceFollowsAQueryToItsEnd) {
    Start({.Switches = {{u"EnableDebug", 1}, {u"FsDisplayOutput", 1}, {u"FsDebugLevel", 0x40}}});
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
    EXPECT_NE(Printed.find("Unknown DirInfo Level 0x4\n"), std::string::npos) << Printed;
    EXPECT_EQ(Printed.find("   Status"), std::string::npos) << Printed;
    Close(Directory);
}

// ---- The batch is data from outside
// -----------------------------------------------------------------------------------

void PutRecord(UCHAR *At, ULONG Next, ULONG NameUnits) {
    memcpy(At, &Next, 4);
    memcpy(At + 56, &NameUnits, 4);
}

TEST(DirectoryRecord, OnlyWhatLiesInsideTheBatchIsARecord) {
    const struct {
        const char *What;
        ULONG Bytes, Offset, Next, NameUnits;
        bool Valid;
    } Cases[] = {
        {"a name up to the end", 80, 0, 0, 10, true},
        {"a name beyond the end", 79, 0, 0, 10, false},
        {"a name of 2 GiB", 4096, 0, 0, 0x40000000, false},
        {"a name too long for 16 bits", 0x20000, 0, 0, 0x8000, false},
        {"no room for the head", 59, 0, 0, 0, false},
        {"a next record behind this one", 4096, 0, 80, 10, true},
        {"a next record inside this one", 4096, 0, 62, 10, false},
        {"a next record at an odd place", 4096, 0, 81, 10, false},
        {"a next record at the end", 160, 0, 160, 10, false},
        {"a next record beyond the end", 160, 0, 0xFFFFFFF0, 10, false},
        {"an offset beyond the end", 80, 81, 0, 0, false},
    };
    for (const auto &Case : Cases) {
        std::vector<UCHAR> Batch(std::max<ULONG>(Case.Bytes, 60));
        PutRecord(Batch.data(), Case.Next, Case.NameUnits);
        Batch.resize(Case.Bytes);
        Batch.shrink_to_fit(); // a read beyond it is found
        DIR_RECORD Parsed;
        EXPECT_EQ(NtFsdParseDirRecord(Batch.data(), Case.Bytes, Case.Offset, false, &Parsed), Case.Valid) << Case.What;
    }
}

TEST_F(Listing, ABatchThatBreaksEndsAfterItsGoodRecordsWithAClearStatus) {
    Provider.AddDirectory(u"\\srv\\vol\\d");
    Provider.AddFile(u"\\srv\\vol\\d\\x1", "");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    Provider.OnCall(providers::Slot::EnumerateDirectory).Answer([](providers::Outputs &Out) {
        auto Buffer = static_cast<UCHAR *>(Out.Buffer);
        PutRecord(Buffer, 80, 10);
        PutRecord(Buffer + 80, 0xFFFFFF00, 10);
    });
    Answer First = Query(Directory, 4096, u"x*");
    EXPECT_EQ(First.Status, STATUS_UNEXPECTED_NETWORK_ERROR);
    EXPECT_EQ(Unpack(First.Buffer, First.Information, FileDirectoryInformation).size(), 1u);
    // Nobody may take what came so far for the whole directory.
    EXPECT_EQ(Query(Directory, 4096).Status, STATUS_UNEXPECTED_NETWORK_ERROR);
    Close(Directory);
}

TEST_F(Listing, ShortNamesAreAskedForUnlessLazyCloseIsOnAndTheSwitchIsReadOnce) {
    constexpr auto Key = u"\\REGISTRY\\Machine\\Software\\Veyra\\Client\\Parameters";
    Provider.AddFile(u"\\srv\\vol\\a long name.txt", "");
    for (const std::optional<ULONG> LazyClose : {std::optional<ULONG>(), {0u}, {1u}}) {
        Start();
        if (LazyClose) {
            embedded::SetRegistryDword(Key, u"Enable Lazy Close", *LazyClose);
        }
        const bool Expected = LazyClose.value_or(0) == 0;
        HANDLE Directory = OpenDirectory(u"\\srv\\vol");
        for (const ULONG InfoClass : {FileBothDirectoryInformation, FileIdBothDirectoryInformation}) {
            Provider.ClearCalls();
            const Answer Result = Query(Directory, 4096, u"*", true, false, InfoClass);
            ASSERT_EQ(Result.Status, STATUS_SUCCESS);
            EXPECT_EQ(Provider.CountCalls(providers::Slot::EnumerateDirectoryEx) != 0, Expected);
            EXPECT_EQ(Result.Buffer[68] != 0, Expected) << "the short name's length";
            embedded::SetRegistryDword(Key, u"Enable Lazy Close", Expected ? 1 : 0);
        }
        Close(Directory);
        Stop();
    }
}

} // namespace
