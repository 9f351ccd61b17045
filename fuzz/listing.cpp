#include "fuzz/listing.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "dir/directory.h"
#include "embedded/kernel.h"
#include "embedded/zw/zw.h"
#include "fuzz/require.h"
#include "providers/framework/framework.h"
#include "providers/stub/stub_provider.h"
#include "tests/support/driver_under_test.h"

namespace fuzz {

namespace {

// The input, taken from the front.
struct Input {
    const uint8_t *Data;
    size_t Size;

    uint8_t Byte() {
        if (Size == 0) {
            return 0;
        }
        --Size;
        return *Data++;
    }
    uint16_t Word() {
        const uint8_t Low = Byte();
        return static_cast<uint16_t>(Low | Byte() << 8);
    }
};

Input *Current;

// Answers a batch with whatever is left of the input, and an error once nothing is.
RVSTATUS AnswerBatch(PVOID Buffer, ULONG *ResumeKey, ULONG BufferSize) {
    if (Current->Size == 0) {
        return static_cast<RVSTATUS>(0xC7E70505);
    }
    const size_t Wanted = Current->Word() % (BufferSize + 1);
    const size_t Bytes = Wanted < Current->Size ? Wanted : Current->Size;
    memcpy(Buffer, Current->Data, Bytes);
    Current->Data += Bytes;
    Current->Size -= Bytes;
    ++*ResumeKey;
    return RVSTATUS::Success;
}

RVSTATUS NTAPI Enumerate(RVIOM_FSD *, RV_SECURITY_CONTEXT *, RVHANDLE, PCWSTR, UCHAR, ULONG *ResumeKey,
                         ULONG *BufferSize, PVOID Buffer) {
    return AnswerBatch(Buffer, ResumeKey, *BufferSize);
}

RVSTATUS NTAPI EnumerateEx(RVIOM_FSD *, RV_SECURITY_CONTEXT *, RVHANDLE, PCWSTR, ULONG, ULONG *ResumeKey,
                           ULONG *BufferSize, PVOID Buffer) {
    return AnswerBatch(Buffer, ResumeKey, *BufferSize);
}

// One started driver whose Provider lists what the input says.
class Driver {
public:
    Driver() {
        Table_ = *Stub_.Table;
        Table_.RVFsdEnumerateDirectory = Enumerate;
        Table_.RVFsdEnumerateDirectoryEx = EnumerateEx;
        Stub_.Table = &Table_;
        embedded::KernelOptions Options;
        Options.ResetDriverImage = test::ResetDriverUnderTest;
        Kernel_ = std::make_unique<embedded::Kernel>(std::move(Options));
        Framework_ = std::make_unique<providers::Framework>(&Stub_);
        Require(NT_SUCCESS(test::LoadDriverUnderTest(*Kernel_)), "the driver starts");
    }
    ~Driver() {
        Require(Kernel_->Stop().empty(), "nothing is left");
    }

    HANDLE Open() {
        std::u16string Name = u"\\Device\\RvFsd\\srv\\vol\\dir";
        UNICODE_STRING ObjectName = {static_cast<USHORT>(Name.size() * 2), static_cast<USHORT>(Name.size() * 2),
                                     Name.data()};
        OBJECT_ATTRIBUTES Attributes;
        InitializeObjectAttributes(&Attributes, &ObjectName, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        IO_STATUS_BLOCK IoStatus = {};
        HANDLE Directory = nullptr;
        Require(NT_SUCCESS(NtOpenFile(&Directory, FILE_LIST_DIRECTORY | SYNCHRONIZE, &Attributes, &IoStatus,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT)),
                "the directory opens");
        return Directory;
    }

private:
    providers::StubProvider Stub_;
    RVIOM_FSD_TABLE Table_;
    std::unique_ptr<embedded::Kernel> Kernel_;
    std::unique_ptr<providers::Framework> Framework_;
};

std::unique_ptr<Driver> TheDriver;

// Walks a packed answer as a caller would.
void CheckEntries(const std::vector<UCHAR> &Buffer, ULONG_PTR Information, ULONG InfoClass) {
    const ULONG Fixed = NtFsdDirEntryFixedSize(InfoClass);
    for (ULONG_PTR At = 0; Information != 0;) {
        Require(At + Fixed <= Information, "an entry's fixed part lies inside");
        ULONG Next;
        ULONG NameBytes;
        memcpy(&Next, Buffer.data() + At, sizeof(Next));
        memcpy(&NameBytes, Buffer.data() + At + (InfoClass == FileNamesInformation ? 8 : 60), sizeof(NameBytes));
        Require(At + Fixed + NameBytes <= Information, "an entry's name lies inside");
        Require(NameBytes != 0, "an entry has a name");
        if (Next == 0) {
            Require(At + Fixed + NameBytes == Information, "the answer ends with its last entry");
            return;
        }
        Require(Next % 8 == 0 && Next >= Fixed, "entries start at 8 bytes, behind each other");
        At += Next;
    }
}

void QueryOnce(HANDLE Directory, Input &In, std::u16string &Mask) {
    constexpr ULONG Classes[] = {FileDirectoryInformation,       FileFullDirectoryInformation,
                                 FileBothDirectoryInformation,   FileNamesInformation,
                                 FileIdBothDirectoryInformation, FileIdFullDirectoryInformation};
    constexpr UCHAR Pattern = 0xA5;
    const uint8_t Choice = In.Byte();
    const ULONG InfoClass = Classes[Choice % 6];
    const ULONG Length = In.Word() % 4096;
    std::vector<UCHAR> Buffer(Length + 16, Pattern);
    UNICODE_STRING Name = {static_cast<USHORT>(Mask.size() * 2), static_cast<USHORT>(Mask.size() * 2), Mask.data()};
    IO_STATUS_BLOCK IoStatus = {};
    NtQueryDirectoryFile(Directory, nullptr, nullptr, nullptr, &IoStatus, Buffer.data(), Length, InfoClass,
                         (Choice & 0x40) != 0, &Name, (Choice & 0x80) != 0);
    Require(IoStatus.Information <= Length, "no more is reported than there is room");
    for (size_t At = IoStatus.Information; At < Buffer.size(); ++At) {
        Require(Buffer[At] == Pattern, "bytes beyond the answer stay as they were");
    }
    CheckEntries(Buffer, IoStatus.Information, InfoClass);
}

} // namespace

void RunListing(const uint8_t *Data, size_t Size) {
    if (TheDriver == nullptr) {
        TheDriver = std::make_unique<Driver>();
        atexit(StopListing);
    }
    Input In = {Data, Size};
    Current = &In;
    std::u16string Mask(In.Byte() % 16, u'\0');
    for (char16_t &Unit : Mask) {
        Unit = In.Word();
    }
    const int Queries = 1 + In.Byte() % 6;
    HANDLE Directory = TheDriver->Open();
    for (int Query = 0; Query < Queries; ++Query) {
        QueryOnce(Directory, In, Mask);
    }
    NtClose(Directory);
    Current = nullptr;
}

void StopListing() {
    TheDriver.reset();
}

} // namespace fuzz
