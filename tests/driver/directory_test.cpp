// Listing a directory through the driver.

#include <map>
#include <random>

#include "dir/directory.h"
#include "tests/support/driver_fixture.h"

namespace {

using test::Open;

struct Entry {
    std::u16string Name;
    std::u16string ShortName;
    ULONG Attributes;
    LONGLONG Size;

    bool operator==(const Entry &) const = default;
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
        if (InfoClass == FileBothDirectoryInformation) {
            Found.ShortName.resize(Buffer[At + 68] / 2);
            memcpy(Found.ShortName.data(), Buffer.data() + At + 70, Buffer[At + 68]);
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
        Result.Information = IoStatus.Information;
        EXPECT_LE(Result.Information, Length);
        for (ULONG_PTR At = Result.Information; At < Length; ++At) {
            EXPECT_EQ(Result.Buffer[At], Pattern) << "byte " << At << " is beyond what was reported";
        }
        return Result;
    }

    std::vector<std::u16string> Names(HANDLE Directory, const char16_t *Mask = nullptr) {
        std::vector<std::u16string> Found;
        Answer Result = Query(Directory, 65536, Mask, true);
        while (Result.Status == STATUS_SUCCESS) {
            for (const Entry &One : Unpack(Result.Buffer, Result.Information, FileDirectoryInformation)) {
                Found.push_back(One.Name);
            }
            Result = Query(Directory, 65536);
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
    const std::vector<std::u16string> Whole = Names(Directory, u"*");
    for (int Round = 0; Round < 20; ++Round) {
        std::vector<std::u16string> Found;
        bool Restart = true;
        for (;;) {
            const ULONG Length = Random() % 2000;
            Answer Result = Query(Directory, Length, u"*", Restart, Random() % 4 == 0);
            if (Result.Status == STATUS_BUFFER_OVERFLOW) {
                Restart = false; // the search is set up; the entry stays first
                continue;
            }
            Restart = false;
            if (Result.Status != STATUS_SUCCESS) {
                EXPECT_EQ(Result.Status, STATUS_NO_MORE_FILES);
                break;
            }
            for (const Entry &One : Unpack(Result.Buffer, Result.Information, FileDirectoryInformation)) {
                Found.push_back(One.Name);
            }
        }
        EXPECT_EQ(Found, Whole);
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

TEST_F(Listing, AProvidersErrorEndsTheListingAndADisconnectIsToldAsSuch) {
    Provider.AddDirectory(u"\\srv\\vol\\d");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    Provider.OnCall(providers::Slot::EnumerateDirectory).Return(test::RvError(0x0101));
    EXPECT_EQ(Query(Directory, 4096, u"x*").Status, STATUS_CONNECTION_DISCONNECTED);
    Provider.ClearScript();
    Provider.OnCall(providers::Slot::EnumerateDirectory).Return(test::RvError(0x0006));
    EXPECT_EQ(Query(Directory, 4096, u"x*", true).Status, STATUS_NO_SUCH_FILE);
    Close(Directory);
}

// ---- The batch is data from outside
// -----------------------------------------------------------------------------------

std::vector<UCHAR> Record(ULONG Next, ULONG NameUnits) {
    std::vector<UCHAR> Bytes(60 + 2 * NameUnits + 8);
    memcpy(Bytes.data(), &Next, 4);
    memcpy(Bytes.data() + 56, &NameUnits, 4);
    return Bytes;
}

TEST(DirectoryRecord, OnlyWhatLiesInsideTheBatchIsARecord) {
    const struct {
        const char *What;
        ULONG Bytes, Offset, Next, NameUnits;
        bool Valid;
    } Cases[] = {
        {"the last record", 80, 0, 0, 10, true},
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
        std::vector<UCHAR> Batch(std::max<ULONG>(Case.Bytes, 4096));
        const std::vector<UCHAR> One = Record(Case.Next, Case.NameUnits < 100 ? Case.NameUnits : 0);
        memcpy(Batch.data(), One.data(), One.size());
        memcpy(Batch.data() + 56, &Case.NameUnits, 4);
        Batch.resize(Case.Bytes); // so that a read beyond it is found
        Batch.shrink_to_fit();
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
        const std::vector<UCHAR> Good = Record(80, 10);
        const std::vector<UCHAR> Bad = Record(0xFFFFFF00, 10);
        memcpy(Buffer, Good.data(), 80);
        memcpy(Buffer + 80, Bad.data(), 80);
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
    const struct {
        const char *What;
        std::optional<ULONG> LazyClose;
        bool ShortNames;
    } Cases[] = {{"absent", std::nullopt, true}, {"0", 0, true}, {"1", 1, false}};
    for (const auto &Case : Cases) {
        Start();
        if (Case.LazyClose) {
            embedded::SetRegistryDword(Key, u"Enable Lazy Close", *Case.LazyClose);
        }
        Provider.AddFile(u"\\srv\\vol\\a long name.txt", "");
        HANDLE Directory = OpenDirectory(u"\\srv\\vol");
        Provider.ClearCalls();
        Answer Result = Query(Directory, 4096, u"*", false, false, FileBothDirectoryInformation);
        ASSERT_EQ(Result.Status, STATUS_SUCCESS);
        EXPECT_EQ(Provider.CountCalls(providers::Slot::EnumerateDirectoryEx) != 0, Case.ShortNames) << Case.What;
        for (const Entry &One : Unpack(Result.Buffer, Result.Information, FileBothDirectoryInformation)) {
            EXPECT_EQ(One.ShortName.empty(), !Case.ShortNames) << Case.What;
        }
        embedded::SetRegistryDword(Key, u"Enable Lazy Close", Case.ShortNames ? 1u : 0u);
        Provider.ClearCalls();
        Query(Directory, 4096, u"*", true, false, FileBothDirectoryInformation);
        EXPECT_EQ(Provider.CountCalls(providers::Slot::EnumerateDirectoryEx) != 0, Case.ShortNames) << Case.What;
        Close(Directory);
        Stop();
    }
}

} // namespace
