// Drive letters: mapping, asking, unmapping, verifying, as a client of the published class.

#include <sys/mman.h>

#include "mapping/utf8.h"
#include "provider/binding.h"
#include "tests/driver/mapping_client.h"

namespace {

using namespace test;

class DriveMapping : public MappingFixture {};

TEST_F(DriveMapping, ALetterStandsForItsPathUntilItIsUnmapped) {
    StartMapping();
    const TokenRef &User = Logons->Third;
    ASSERT_EQ(Map(User, {.Path = Docs, .ConnectionId = 5, .Options = 0x1234}), STATUS_SUCCESS);
    EXPECT_EQ(Provider.CompareCalls({"OpenDirectory"}), "");
    EXPECT_EQ(LinkOf(User), "\\Device\\RvFsd\\srv\\vol\\docs");
    const MAPPED_DEVICE *Record = FirstRecord();
    ASSERT_NE(Record, nullptr);
    EXPECT_EQ(std::u16string(Record->pVolumePath), u"\\srv\\vol\\docs");
    EXPECT_STREQ(Record->pPathData, Docs);
    EXPECT_NE(Record->DirHandle, 0u);
    EXPECT_EQ(Record->VolumeHandle, 0u);
    EXPECT_EQ(Record->SecurityContext.Words[1], 500u);
    EXPECT_EQ(Record->LinkedSessionLink, 0u);
    EXPECT_TRUE(Record->LogonId == User->Session->Id);

    QUERY_DRIVE Answer;
    memset(&Answer, 0xCC, sizeof(Answer));
    EXPECT_EQ(Query(User, 7, &Answer), STATUS_SUCCESS);
    EXPECT_EQ(Answer.DriveNumber, 7u);
    EXPECT_EQ(Answer.Reserved, 0u);
    EXPECT_EQ(Answer.PathLength, 14u);
    EXPECT_EQ(Answer.MappingOptions, 0x1234u);
    EXPECT_STREQ(Answer.Path, Docs);

    {
        const Impersonate Client(User);
        UNICODE_STRING Name = ToUnicodeString(u"\\??\\g:\\new.txt");
        OBJECT_ATTRIBUTES Attributes;
        InitializeObjectAttributes(&Attributes, &Name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        HANDLE File = nullptr;
        IO_STATUS_BLOCK Iosb;
        EXPECT_EQ(NtCreateFile(&File, FILE_WRITE_DATA | SYNCHRONIZE, &Attributes, &Iosb, nullptr, 0, 0, FILE_CREATE,
                               FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0),
                  STATUS_SUCCESS);
        NtClose(File);
    }
    EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\docs\\new.txt"));

    EXPECT_EQ(Map(User, {.Path = Docs}), STATUS_OBJECT_NAME_COLLISION) << "the letter is taken";
    for (const ULONG Other : {0u, 6u, 8u, 27u, 256u + 7u}) {
        EXPECT_EQ(Query(User, Other), STATUS_RESOURCE_NOT_OWNED);
        EXPECT_EQ(Unmap(User, Other), STATUS_RESOURCE_NOT_OWNED);
    }
    EXPECT_EQ(Unmap(User), STATUS_SUCCESS);
    ExpectNothingLeft();
    EXPECT_EQ(Query(User), STATUS_RESOURCE_NOT_OWNED);
    EXPECT_EQ(Unmap(User), STATUS_RESOURCE_NOT_OWNED);
}

struct Request {
    const char *What;
    MapRequest Sent;
    NTSTATUS Status;
    unsigned ProviderCalls = 0;
    const char *Link = ""; // below the device, when it is mapped
    size_t Sized = 0;      // the path is filled up with 'x' to this many bytes
};

constexpr const char *Served = "\\\\srv\\vol\\docs";
constexpr NTSTATUS Good = STATUS_SUCCESS;
const Request Requests[] = {
    {"no letter", {.Drive = 0, .Path = Served}, STATUS_INVALID_PARAMETER},
    {"behind Z", {.Drive = 27, .Path = Served}, STATUS_INVALID_PARAMETER},
    {"a letter in the low byte", {.Drive = 0x107, .Path = Served}, STATUS_INVALID_PARAMETER},
    {"one backslash", {.Path = "\\srv\\vol\\docs"}, Good, 1, "\\srv\\vol\\docs"},
    {"three backslashes", {.Path = "\\\\\\srv\\vol\\docs"}, STATUS_OBJECT_NAME_INVALID},
    {"no backslash", {.Path = "srv\\vol\\docs"}, STATUS_BAD_NETWORK_PATH},
    {"nothing", {.Path = ""}, STATUS_BAD_NETWORK_PATH},
    {"backslashes alone", {.Path = "\\\\"}, STATUS_BAD_NETWORK_PATH},
    {"a backslash at the end", {.Path = "\\\\srv\\vol\\docs\\"}, Good, 1, "\\srv\\vol\\docs"},
    {"an empty component", {.Path = "\\\\srv\\\\vol"}, STATUS_OBJECT_NAME_INVALID},
    {"a length beyond the terminator", {.Path = Served, .Length = 4096}, Good, 1, "\\srv\\vol\\docs"},
    {"all lengths there are", {.Path = Served, .Length = 0xFFFFFFFF}, Good, 1, "\\srv\\vol\\docs"},
    {"a length before it", {.Path = "\\\\srv\\vol\\docs\\deeper", .Length = 14}, Good, 1, "\\srv\\vol\\docs"},
    {"no length", {.Path = Served, .Length = 0}, STATUS_BAD_NETWORK_PATH},
    {"a zero within", {.Path = std::string("\\\\srv\\vol\\docs\0x", 16)}, Good, 1, "\\srv\\vol\\docs"},
    {"a bad continuation", {.Path = "\\\\srv\\vol\\docs\xC3("}, STATUS_OBJECT_NAME_INVALID},
    {"a cut sequence", {.Path = "\\\\srv\\vol\\docs\xE2\x82"}, STATUS_OBJECT_NAME_INVALID},
    {"no first byte", {.Path = "\\\\srv\\vol\\docs\x80"}, STATUS_OBJECT_NAME_INVALID},
    {"a zero in two bytes", {.Path = "\\\\srv\\vol\\docs\xC0\x80"}, STATUS_OBJECT_NAME_INVALID},
    {"a zero beyond Unicode", {.Path = "\\\\srv\\vol\\docs\xF4\x90\x80\x80x"}, STATUS_OBJECT_NAME_INVALID},
    {"a name in UTF-8", {.Path = "\\\\srv\\vol\\\xC3\xA9t\xC3\xA9"}, Good, 1, "\\srv\\vol\\\xE9t\xE9"},
    {"the same by code page", {.Path = "\\\\srv\\vol\\\xE9t\xE9", .Utf8 = 0}, Good, 1, "\\srv\\vol\\\xE9t\xE9"},
    {"a file", {.Path = "\\\\srv\\vol\\a.txt"}, static_cast<NTSTATUS>(0xC7E7050A), 2},
    {"a server that is not there", {.Path = "\\\\nobody\\vol"}, static_cast<NTSTATUS>(0xC7E70517), 2},
    {"4,095 bytes", {.Path = "\\\\srv\\vol\\"}, Good, 1, "\\srv\\vol\\", 4095},
    {"4,096 bytes", {.Path = "\\\\srv\\vol\\"}, Good, 1, "\\srv\\vol\\", 4096},
    {"as long as a link can lead", {.Path = "\\\\srv\\vol\\"}, Good, 1, "\\srv\\vol\\", 32754},
    {"longer", {.Path = "\\\\srv\\vol\\"}, STATUS_NAME_TOO_LONG, 0, "", 32755},
    {"32,767 bytes", {.Path = "\\\\srv\\vol\\"}, STATUS_NAME_TOO_LONG, 0, "", 32767},
    {"too long for a string", {.Path = "\\\\srv\\vol\\"}, STATUS_INSUFFICIENT_RESOURCES, 0, "", 32768},
    {"too long for a string", {.Path = "\\\\srv\\vol\\", .Utf8 = 0}, STATUS_INVALID_PARAMETER_2, 0, "", 32768},
    {"too long, by code page", {.Path = "\\\\srv\\vol\\", .Utf8 = 0}, STATUS_NAME_TOO_LONG, 0, "", 65537},
    {"endless", {.Path = "\\\\srv\\vol\\"}, STATUS_NAME_TOO_LONG, 0, "", 300000},
};

TEST_F(DriveMapping, TakesNoMoreOfARequestThanItSaysAndRefusesWhatNoLinkCanLeadTo) {
    StartMapping();
    Provider.AddDirectory(u"\\srv\\vol\\\u00E9t\u00E9");
    for (const Request &Each : Requests) {
        MapRequest Sent = Each.Sent;
        if (Each.Sized != 0) {
            Sent.Path.resize(Each.Sized, 'x');
            const std::string Wide = Sent.Path.substr(1);
            Provider.AddDirectory(std::u16string(Wide.begin(), Wide.end()));
        }
        Provider.ClearCalls();
        EXPECT_EQ(Map(Logons->Third, Sent), Each.Status) << Each.What;
        EXPECT_EQ(Provider.CountCalls(), Each.ProviderCalls) << Each.What;
        if (NT_SUCCESS(Each.Status)) {
            std::string Link = std::string("\\Device\\RvFsd") + Each.Link;
            Link.resize(Link.size() + (Each.Sized == 0 ? 0 : Each.Sized - Each.Sent.Path.size()), 'x');
            EXPECT_EQ(LinkOf(Logons->Third), Link) << Each.What;
            const auto Answer = std::make_unique<QUERY_DRIVE>();
            const size_t Length = strlen(FirstRecord()->pPathData);
            EXPECT_EQ(Query(Logons->Third, 7, Answer.get()), Length > 4095 ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS)
                << Each.What;
            EXPECT_EQ(Answer->PathLength, std::min<size_t>(Length, 4095)) << Each.What;
            EXPECT_EQ(Answer->Path, Sent.Path.substr(0, Answer->PathLength)) << Each.What;
            EXPECT_EQ(Unmap(Logons->Third), STATUS_SUCCESS) << Each.What;
        }
        ExpectNothingLeft(Each.What);
    }
    EXPECT_EQ(As(Logons->Third, [this] { return Mapping->Table->MapDrive(Mapping, nullptr); }),
              STATUS_INVALID_PARAMETER);
}

TEST_F(DriveMapping, ReadsNoByteBehindARequestWithoutATerminator) {
    StartMapping();
    const long Page = sysconf(_SC_PAGESIZE);
    auto *Pages =
        static_cast<char *>(mmap(nullptr, 2 * Page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(Pages, MAP_FAILED);
    ASSERT_EQ(mprotect(Pages + Page, Page, PROT_NONE), 0);
    std::vector<char> Bytes = MapRequest{.Path = "\\\\srv\\vol\\abc"}.Bytes(); // 20 + 13: ends at a word with the pad
    Provider.AddDirectory(u"\\srv\\vol\\ab");
    Provider.AddDirectory(u"\\srv\\vol\\abc");
    Bytes.pop_back();
    for (const ULONG Utf8 : {0u, 1u}) {
        char *At = Pages + Page - Bytes.size() + 1; // the last byte of the path is behind the end, and not counted
        memcpy(At, Bytes.data(), Bytes.size() - 1);
        auto *Request = reinterpret_cast<MAP_REQUEST *>(At);
        Request->PathLength = 12;
        Request->Utf8 = Utf8;
        EXPECT_EQ(As(Logons->Third, [&] { return Mapping->Table->MapDrive(Mapping, Request); }), STATUS_SUCCESS);
        EXPECT_EQ(LinkOf(Logons->Third), "\\Device\\RvFsd\\srv\\vol\\ab");
        EXPECT_EQ(Unmap(Logons->Third), STATUS_SUCCESS);
    }
    munmap(Pages, 2 * Page);
}

// ---- What the Provider answers

TEST_F(DriveMapping, WhatIsNoDirectoryIsTriedAsAVolume) {
    constexpr auto Warning = static_cast<RVSTATUS>(0x87E70001);
    struct {
        const char *What;
        RVSTATUS Directory, Volume;
        NTSTATUS Status;
        const char *Told;
    } const Cases[] = {
        {"a volume", ProviderError(RVFS_NOT_A_DIRECTORY), RVSTATUS::Success, STATUS_SUCCESS,
         "status 0xC7E70520 (RVFS_NOT_A_DIRECTORY); retrying as volume.\n"},
        {"a directory with a warning", Warning, RVSTATUS::Success, STATUS_SUCCESS,
         "status 0x87E70001; retrying as volume.\n"},
        {"neither", ProviderError(6), ProviderError(0x503), static_cast<NTSTATUS>(0xC7E70503),
         "failed; status 0xC7E70503.\n"},
        {"a volume with a warning", ProviderError(6), Warning, static_cast<NTSTATUS>(Warning),
         "failed; status 0x87E70001.\n"},
        {"a volume with a note", ProviderError(6), static_cast<RVSTATUS>(0x40000001), STATUS_UNSUCCESSFUL,
         "failed; status 0x40000001.\n"},
    };
    StartMapping(0x80);
    for (const auto &Case : Cases) {
        Printed.clear();
        Provider.ClearScript();
        Provider.OnCall(Slot::OpenDirectory).ReturnAfter(Case.Directory);
        if (Case.Volume != RVSTATUS::Success) {
            Provider.OnCall(Slot::OpenVolume).ReturnAfter(Case.Volume);
        }
        EXPECT_EQ(Map(Logons->Third, {.Path = "\\\\srv\\vol"}), Case.Status) << Case.What;
        EXPECT_TRUE(WasPrinted(Case.Told)) << Case.What << ":\n" << Printed;
        if (NT_SUCCESS(Case.Status)) {
            EXPECT_EQ(FirstRecord()->DirHandle, 0u) << Case.What;
            EXPECT_NE(FirstRecord()->VolumeHandle, 0u) << Case.What;
            EXPECT_EQ(Unmap(Logons->Third), STATUS_SUCCESS);
            EXPECT_TRUE(WasPrinted("FreeMappedDeviceRecord RVFsdCloseVolume \"\\srv\\vol\" status 0x00000000"));
        }
        ExpectNothingLeft(Case.What);
    }
    EXPECT_FALSE(WasPrinted("UTF8ToUnicode status"));
    EXPECT_EQ(Map(Logons->Third, {.Path = "\\\\srv\\vol\\\x80"}), STATUS_OBJECT_NAME_INVALID);
    EXPECT_TRUE(WasPrinted("UTF8ToUnicode status 0xC0000033.\n")) << Printed;
}

TEST_F(DriveMapping, AServerIsUnmappedWithAllThatCarryItsConnection) {
    StartMapping();
    const TokenRef &One = Logons->Third, Other = LogOn(500);
    for (ULONG Drive = 1; Drive <= 26; ++Drive) {
        ASSERT_EQ(Map(Drive % 2 == 0 ? One : Other, {.Drive = Drive, .Path = Docs, .ConnectionId = Drive % 3}),
                  STATUS_SUCCESS);
    }
    ASSERT_EQ(Map(Logons->Stranger, {.Path = Docs, .ConnectionId = 2}), STATUS_SUCCESS);
    MakeLink(One, u"\\Device\\Foreign"); // G is mapped in the other session: this is somebody else's
    EXPECT_EQ(UnmapServer(One, 7), STATUS_SUCCESS) << "nobody's";
    EXPECT_EQ(g_uMappedDeviceCount, 27u);
    EXPECT_EQ(UnmapServer(One, 2), STATUS_SUCCESS);
    EXPECT_EQ(g_uMappedDeviceCount, 18u);
    for (ULONG Drive = 1; Drive <= 26; ++Drive) {
        const TokenRef &Of = Drive % 2 == 0 ? One : Other;
        const bool Left = Drive % 3 != 2;
        EXPECT_EQ(Query(Of, Drive), Left ? STATUS_SUCCESS : STATUS_RESOURCE_NOT_OWNED) << Drive;
        EXPECT_EQ(LinkOf(Of, static_cast<char>(0x40 + Drive)).empty(), !Left) << Drive;
    }
    EXPECT_EQ(Query(Logons->Stranger), STATUS_SUCCESS);
    EXPECT_EQ(UnmapServer(Other, 0), STATUS_SUCCESS);
    EXPECT_EQ(UnmapServer(One, 1), STATUS_SUCCESS);
    EXPECT_EQ(UnmapServer(Logons->Stranger, 2), STATUS_SUCCESS);
    EXPECT_EQ(LinkOf(One), "\\Device\\Foreign");
    ExpectNothingLeft();
}

// ---- Verifying

TEST_F(DriveMapping, VerifiesWhatCanBeOpened) {
    struct {
        const char *Path;
        NTSTATUS Status;
        unsigned Calls;
        const char *Told;
    } const Cases[] = {
        {"\\\\srv\\vol\\docs", STATUS_SUCCESS, 2, ""},
        {"\\srv\\vol\\docs", STATUS_SUCCESS, 2, ""},
        {"\\\\srv\\vol", STATUS_SUCCESS, 3, ""},
        {"\\\\srv\\vol\\", STATUS_SUCCESS, 3, ""},
        {"\\\\srv", STATUS_BAD_NETWORK_PATH, 0, "RvxVerifyPath: unable to parse path \"\\\\srv\"\n"},
        {"\\\\", STATUS_BAD_NETWORK_PATH, 0, "unable to parse path"},
        {"", STATUS_BAD_NETWORK_PATH, 0, "RvxVerifyPath: \"\" (1).\n"},
        {"\\\\srv\\nope", STATUS_BAD_NETWORK_PATH, 1,
         "RvxVerifyPath: RVFsdQueryPathForVolume for \"\\\\srv\\nope\" failed"},
        {"\\\\srv\\vol\\nope", STATUS_NO_SUCH_FILE, 1,
         "RvxVerifyPath: RVFsdOpenDirectory for \"\\\\srv\\vol\\nope\" failed"},
        {"\\\\srv\\vol\\docs\xC3(", STATUS_SUCCESS, 2, ""},
    };
    StartMapping(0x20000);
    for (const auto &Case : Cases) {
        Printed.clear();
        Provider.ClearCalls();
        EXPECT_EQ(Verify(Case.Path), Case.Status) << Case.Path;
        EXPECT_EQ(Provider.CountCalls(), Case.Calls) << Case.Path;
        EXPECT_TRUE(WasPrinted(Case.Told)) << Printed;
    }
    Provider.OnCall(Slot::OpenVolume).Return(ProviderError(6));
    EXPECT_EQ(Verify("\\\\srv\\vol"), STATUS_BAD_NETWORK_PATH);
    EXPECT_EQ(Verify(std::string(40000, '\\')), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(WasPrinted("RvxVerifyPath: UTF8ToUnicode failed.\n"));
    EXPECT_EQ(As(Logons->Third, [this] { return Mapping->Table->VerifyPath(Mapping, 0, nullptr); }),
              STATUS_INVALID_PARAMETER);
    ExpectNothingLeft();
}

TEST_F(DriveMapping, TextOfOthersIsPrintedAsItIs) {
    for (const ULONG External : {0u, 1u}) {
        StartMapping(0x10, External);
        Printed.clear();
        EXPECT_EQ(Mapping->Table->TraceMessage(Mapping, "100%s %n\n"), STATUS_SUCCESS);
        EXPECT_EQ(Mapping->Table->TraceMessage(Mapping, std::string(4097, 'x').c_str()), STATUS_SUCCESS);
        EXPECT_EQ(Mapping->Table->TraceMessage(Mapping, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(Printed, External ? "100%s %n\n" : "");
        StopMapping();
    }
}

// ---- Text

using Utf8 = FrameFixture;

TEST_F(Utf8, IsDecodedUpToItsEndOrItsFirstFault) {
    struct Utf8Case {
        std::string Text;
        std::u16string Wide;
        bool Whole = true;
    };
    std::vector<Utf8Case> Cases = {
        {"", u""},
        {"a\x7F", u"a\x7F"},
        {"\xC2\x80\xDF\xBF", u"\u0080\u07FF"},
        {"\xE0\xA0\x80\xEF\xBF\xBF", u"\u0800\uFFFF"},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", u"\U00010000\U0010FFFF"},
        {"\xED\xA0\x80", {u'\xD800'}},         // a surrogate
        {"\xC1\x9C\xE0\x81\x9C", u"\\\\"},     // longer than needed
        {"\xF4\x90\x80\x81", {u'\x0001'}},     // beyond Unicode: its low half
        {"\xF8\x88\x80\x80\x81", {u'\x0001'}}, // five bytes
        {"\xFD\xBF\xBF\xBF\xBF\xBF", {u'\xFFFF'}},
        {std::string(32766, 'x'), std::u16string(32766, u'x')},
    };
    for (const char *Faulty : {"a\x80z", "a\xBFz", "a\xFEz", "a\xFFz", "a\xC3", "a\xC3(", "a\xE2\x82", "a\xE2(\xA1",
                               "a\xF0\x90\x80", "a\xFC\x80\x80\x80\x80", "a\xC0\x80z", "a\xF0\x80\x80\x80z"}) {
        Cases.push_back({Faulty, u"a", false});
    }
    Start();
    Bind();
    for (const auto &Case : Cases) {
        UNICODE_STRING Wide;
        bool Whole = !Case.Whole;
        // The block ends with the terminator: what is read behind it is seen.
        const auto Text = std::make_unique<char[]>(Case.Text.size() + 1);
        memcpy(Text.get(), Case.Text.c_str(), Case.Text.size() + 1);
        ASSERT_EQ(UTF8ToUnicode(&Wide, Text.get(), &Whole), RVPSTATUS::Success);
        EXPECT_EQ(std::u16string_view(Wide.Buffer), Case.Wide) << Case.Text;
        EXPECT_EQ(Wide.Length, Case.Wide.size() * 2);
        EXPECT_EQ(Wide.MaximumLength, Wide.Length + 2);
        EXPECT_EQ(Whole, Case.Whole) << Case.Text;
        g_pRvplInterface->Table->Free(g_pRvplInterface, Wide.Buffer);
    }
    UNICODE_STRING Wide;
    for (const std::string &Long : {std::string(32767, 'x'), std::string(200000, 'x')}) {
        EXPECT_EQ(UTF8ToUnicode(&Wide, Long.c_str(), nullptr), RVPSTATUS::NoMemory);
    }
    Frame().FailAllocate();
    EXPECT_EQ(UTF8ToUnicode(&Wide, "x", nullptr), RVPSTATUS::NoMemory);
    EXPECT_EQ(Wide.Buffer, nullptr);
}

} // namespace
