// What the entries of a listing say, and batches of the Provider that are none.

#include "tests/driver/listing_client.h"

namespace {

using namespace test;

constexpr LONGLONG Created = 1001, Written = 2002, Accessed = 3003; // of a directory one more

TEST_F(Listing, AttributesSizesAndTimesFollowTheKindOfTheEntry) {
    Provider.AddFile(u"\\srv\\vol\\d\\plain", "123");
    Provider.AddFile(u"\\srv\\vol\\d\\readonly", "1", RV_ATTR_READONLY | RV_ATTR_CONTENT_INDEXED);
    Provider.AddDirectory(u"\\srv\\vol\\d\\sub");
    Provider.Edit([](Tree &Tree) {
        for (const char16_t *Path :
             {u"\\srv\\vol\\d", u"\\srv\\vol\\d\\plain", u"\\srv\\vol\\d\\readonly", u"\\srv\\vol\\d\\sub"}) {
            Node &Node = *Tree.Find(Path);
            Node.Creation = Created + Node.Directory;
            Node.LastWrite = Written + Node.Directory;
            Node.LastAccess = Accessed + Node.Directory;
        }
        Tree.Find(u"\\srv\\vol\\d")->Attributes = RV_ATTR_READONLY;
    });
    const struct {
        std::u16string Name;
        ULONG Attributes;
        LONGLONG Size;
        bool Directory;
    } Cases[] = {
        {u".", 0x11, 0, true},      {u"..", 0x11, 0, true},  {u"plain", FILE_ATTRIBUTE_NORMAL, 3, false},
        {u"readonly", 1, 1, false}, {u"sub", 0x10, 0, true},
    };
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    for (const ULONG InfoClass : {FileDirectoryInformation, FileBothDirectoryInformation}) {
        const Answer Result = Query(Directory, 65536, u"*", true, false, InfoClass);
        const std::vector<Entry> Found = Unpack(Result.Buffer, Result.Information, InfoClass);
        ASSERT_EQ(Found.size(), std::size(Cases));
        for (size_t Index = 0; Index < Found.size(); ++Index) {
            const auto &Case = Cases[Index];
            EXPECT_EQ(Found[Index].Name, Case.Name);
            EXPECT_EQ(Found[Index].Attributes, Case.Attributes) << Index;
            EXPECT_EQ(Found[Index].Size, Case.Size) << Index;
            EXPECT_EQ(Found[Index].Creation, Created + Case.Directory) << Index;
            EXPECT_EQ(Found[Index].LastWrite, Written + Case.Directory) << Index;
            EXPECT_EQ(Found[Index].LastAccess, Accessed + Case.Directory) << Index;
            EXPECT_EQ(Found[Index].Change, Case.Directory ? Created + 1 : 0) << Index;
        }
    }
}

TEST_F(Listing, IdentifiersAreNumberedThroughAcrossDirectories) {
    LONG64 Next = 0;
    for (const char16_t *Path : {u"\\srv\\vol\\d", u"\\srv\\vol\\e"}) {
        Provider.AddFile(std::u16string(Path) + u"\\x", "");
        HANDLE Directory = OpenDirectory(Path);
        for (const auto &[InfoClass, IdAt] :
             {std::pair{FileIdFullDirectoryInformation, 72}, {FileIdBothDirectoryInformation, 96}}) {
            Answer Result = Query(Directory, 4096, u"*", true, true, InfoClass);
            for (; Result.Status == STATUS_SUCCESS; Result = Query(Directory, 4096, nullptr, false, true, InfoClass)) {
                EXPECT_EQ(memcmp(&Result.Buffer[IdAt], &Next, sizeof(Next)), 0) << Next;
                ++Next;
            }
        }
        Close(Directory);
    }
    EXPECT_EQ(Next, 12);
}

void PutRecord(UCHAR *At, ULONG Next, ULONG NameUnits) {
    memcpy(At, &Next, sizeof(Next));
    memcpy(At + 56, &NameUnits, sizeof(NameUnits));
}

void PutRecord(UCHAR *At, ULONG Next, const std::u16string &Name) {
    PutRecord(At, Next, static_cast<ULONG>(Name.size()));
    memcpy(At + 60, Name.data(), Name.size() * 2);
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
    Provider.AddFile(u"\\srv\\vol\\d\\x1", "");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    const RequestLog Log;
    Completed = &Log;
    const struct {
        std::u16string First, Second;
        ULONG Next;
        size_t Listed;
    } Cases[] = {{u"good", u"next is far", 0xFFFFFF00, 1}, {u"good", u"", 0, 1}};
    for (const auto &Case : Cases) {
        Provider.ClearScript();
        Provider.OnCall(Slot::EnumerateDirectory).Answer([&Case](Outputs &Out) {
            auto Buffer = static_cast<UCHAR *>(Out.Buffer);
            PutRecord(Buffer, 96, Case.First);
            PutRecord(Buffer + 96, Case.Next, Case.Second);
        });
        const Answer First = Query(Directory, 4096, u"x*", true);
        EXPECT_EQ(First.Status, STATUS_UNEXPECTED_NETWORK_ERROR);
        EXPECT_EQ(Unpack(First.Buffer, First.Information, FileDirectoryInformation).size(), Case.Listed);
        // Nobody may take what came so far for the whole directory.
        EXPECT_EQ(Query(Directory, 4096).Status, STATUS_UNEXPECTED_NETWORK_ERROR);
    }
    // An exact name, whose only record is broken.
    Provider.ClearScript();
    Provider.OnCall(Slot::EnumerateDirectory).Answer([](Outputs &Out) {
        PutRecord(static_cast<UCHAR *>(Out.Buffer), 0xFFFFFF00, u"x1");
    });
    EXPECT_EQ(Query(Directory, 4096, u"x1", true).Status, STATUS_UNEXPECTED_NETWORK_ERROR);
    EXPECT_EQ(Query(Directory, 4096).Status, STATUS_UNEXPECTED_NETWORK_ERROR);
}

TEST_F(Listing, ANameThatNoOpenCouldUseHidesNoOther) {
    Provider.AddFile(u"\\srv\\vol\\d\\x1", "");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    const std::u16string Odd[] = {u"a\\b", u"../b", std::u16string(u"a\0b", 3)};
    for (const std::u16string &Name : Odd) {
        Provider.ClearScript();
        Provider.OnCall(Slot::EnumerateDirectory).Answer([&Name](Outputs &Out) {
            auto Buffer = static_cast<UCHAR *>(Out.Buffer);
            PutRecord(Buffer, 96, Name);
            PutRecord(Buffer + 96, 0, u"good");
        });
        const Answer Both = Query(Directory, 4096, u"x*", true);
        EXPECT_EQ(Both.Status, STATUS_SUCCESS);
        const auto Found = Unpack(Both.Buffer, Both.Information, FileDirectoryInformation);
        ASSERT_EQ(Found.size(), 2u);
        EXPECT_EQ(Found[0].Name, Name);
        EXPECT_EQ(Found[1].Name, u"good");
    }
}

TEST_F(Listing, ShortNamesAreAskedForUnlessLazyCloseIsOnAndTheSwitchIsReadOnce) {
    constexpr auto Key = u"\\REGISTRY\\Machine\\Software\\Veyra\\Client\\Parameters";
    Provider.AddFile(u"\\srv\\vol\\a long name.txt", "");
    for (const std::optional<ULONG> LazyClose : {std::optional<ULONG>(), {0u}, {1u}}) {
        Start();
        if (LazyClose) {
            SetRegistryDword(Key, u"Enable Lazy Close", *LazyClose);
        }
        const bool Expected = LazyClose.value_or(0) == 0;
        HANDLE Directory = OpenDirectory(u"\\srv\\vol");
        for (const ULONG InfoClass : {FileBothDirectoryInformation, FileIdBothDirectoryInformation}) {
            Provider.ClearCalls();
            const Answer Result = Query(Directory, 4096, u"a*", true, false, InfoClass);
            ASSERT_EQ(Result.Status, STATUS_SUCCESS);
            EXPECT_EQ(Provider.CountCalls(Slot::EnumerateDirectoryEx) != 0, Expected);
            EXPECT_EQ(Result.Buffer[68] != 0, Expected) << "the short name's length";
            SetRegistryDword(Key, u"Enable Lazy Close", Expected ? 1 : 0);
        }
        Close(Directory);
        Stop();
    }
}

// The record's twelve units of short name, whatever it says their number is.
TEST_F(Listing, AShortNameIsCopiedUpToItsTwelveUnits) {
    Provider.AddFile(u"\\srv\\vol\\a long name.txt", "");
    HANDLE Directory = OpenDirectory(u"\\srv\\vol");
    constexpr char16_t Units[] = u"ALONGN~1.TXT";
    for (const ULONG Claimed : {0u, 1u, 12u, 13u, 0x80000001u}) {
        Provider.ClearScript();
        Provider.OnCall(Slot::EnumerateDirectoryEx).Answer([&](Outputs &Out) {
            const auto Record = static_cast<UCHAR *>(Out.Buffer);
            memcpy(Record + 56, &Claimed, sizeof(Claimed));
            memcpy(Record + 60, Units, 24);
        });
        const size_t Bytes = std::min<size_t>(Claimed, 12) * 2;
        for (const ULONG InfoClass : {FileBothDirectoryInformation, FileIdBothDirectoryInformation}) {
            const Answer Result = Query(Directory, 4096, u"a*", true, true, InfoClass);
            ASSERT_EQ(Result.Status, STATUS_SUCCESS);
            EXPECT_EQ(Result.Buffer[68], Bytes);
            EXPECT_EQ(memcmp(&Result.Buffer[70], Units, Bytes), 0);
            EXPECT_TRUE(std::all_of(&Result.Buffer[70] + Bytes, &Result.Buffer[94], [](UCHAR Byte) { return !Byte; }));
            EXPECT_EQ(Unpack(Result.Buffer, Result.Information, InfoClass)[0].Name, u"a long name.txt");
        }
    }
}

} // namespace
