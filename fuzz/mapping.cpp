#include "fuzz/mapping.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "embedded/kernel.h"
#include "embedded/names/logon.h"
#include "embedded/names/names.h"
#include "embedded/se/se.h"
#include "fuzz/require.h"
#include "mapping/utf8.h"
#include "provider/binding.h"
#include "provider/class_factory.h"
#include "providers/framework/framework.h"
#include "providers/stub/stub_provider.h"
#include "tests/support/driver_under_test.h"

namespace fuzz {

namespace {

struct World {
    World() : Framework(&Provider) {
        Require(NT_SUCCESS(test::LoadDriverUnderTest(Kernel)), "the driver starts");
        PVOID Out = nullptr;
        Require(DllGetClassObject(&CLSID_RvfsdMapping, &IID_IClassFactory, &Out) == RVPSTATUS::Success, "a factory");
        const auto Factory = static_cast<RVFSD_FACTORY *>(Out);
        Require(Factory->Table->CreateInstance(Factory, nullptr, &IID_RvfsdMapping, &Out) == RVPSTATUS::Success,
                "a mapping object");
        Factory->Table->Release(Factory);
        Mapping = static_cast<RVFSD_MAPPING *>(Out);
        embedded::SetRegistryDword(embedded::kSystemPolicyKey, u"EnableLinkedConnections", 1);
    }
    ~World() {
        Mapping->Table->Release(Mapping);
        Kernel.Stop();
    }

    providers::StubProvider Provider;
    embedded::Kernel Kernel{embedded::KernelOptions{.ResetDriverImage = test::ResetDriverUnderTest}};
    providers::Framework Framework;
    embedded::TokenRef User = embedded::LogOnSplit(500).Filtered;
    RVFSD_MAPPING *Mapping = nullptr;
};

std::unique_ptr<World> Running;

// What is mapped is what the request said, as far as it is text; and goes again.
void Map(const uint8_t *Data, size_t Size) {
    if (Size < offsetof(MAP_REQUEST, Path)) {
        return;
    }
    // The block ends with the input: a length that goes on behind it is cut to what there is.
    const auto Block = std::make_unique<uint8_t[]>(Size);
    memcpy(Block.get(), Data, Size);
    auto *Request = reinterpret_cast<MAP_REQUEST *>(Block.get());
    const auto Room = static_cast<ULONG>(Size - offsetof(MAP_REQUEST, Path));
    Request->PathLength = Request->PathLength < Room ? Request->PathLength : Room;
    Request->DriveNumber %= 32;
    RVFSD_MAPPING *Mapping = Running->Mapping;
    const NTSTATUS Status = Mapping->Table->MapDrive(Mapping, Request);
    Require(NT_SUCCESS(Status) == (g_uMappedDeviceCount == 1), "a record if, and only if, it succeeds");
    if (!NT_SUCCESS(Status)) {
        Require(embedded::DescribeDriversLinks().empty(), "no link after a failure");
        return;
    }
    Require(Request->DriveNumber >= 1 && Request->DriveNumber <= 26, "a letter");
    const auto Answer = std::make_unique<QUERY_DRIVE>();
    Answer->DriveNumber = Request->DriveNumber;
    const NTSTATUS Asked = Mapping->Table->QueryDrive(Mapping, Answer.get());
    const size_t Length = strnlen(Request->Path, Request->PathLength);
    Require(Asked == (Length > LONGEST_QUERIED_PATH ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS), "the query's status");
    Require(Answer->PathLength == (Length < LONGEST_QUERIED_PATH ? Length : LONGEST_QUERIED_PATH) &&
                memcmp(Answer->Path, Request->Path, Answer->PathLength) == 0,
            "the path as it was sent");
    std::u16string Target;
    const std::u16string Name = {u'\\', u'?', u'?', u'\\', static_cast<char16_t>(0x40 + Request->DriveNumber), u':'};
    Require(NT_SUCCESS(embedded::QuerySymbolicLink(Name, &Target)) && Target.starts_with(u"\\Device\\RvFsd\\") &&
                Target.find(u"\\\\") == Target.npos && Target.find(u'\0') == Target.npos && !Target.ends_with(u'\\'),
            "a link that leads below the device");
    Require(Mapping->Table->UnMapDrive(Mapping, &Request->DriveNumber) == STATUS_SUCCESS, "it goes");
    Require(g_uMappedDeviceCount == 0 && embedded::DescribeDriversLinks().empty(), "nothing is left");
}

void Decode(const uint8_t *Data, size_t Size) {
    const auto Text = std::make_unique<char[]>(Size + 1);
    memcpy(Text.get(), Data, Size);
    Text[Size] = 0;
    UNICODE_STRING Wide;
    bool Whole = false;
    if (UTF8ToUnicode(&Wide, Text.get(), &Whole) == RVPSTATUS::Success) {
        Require(Wide.Length + sizeof(WCHAR) == Wide.MaximumLength && Wide.Buffer[Wide.Length / sizeof(WCHAR)] == 0,
                "a terminated string of its length");
        Require(Wide.Length <= 2 * strlen(Text.get()), "no more units than bytes");
        g_pRvplInterface->Table->Free(g_pRvplInterface, Wide.Buffer);
    } else {
        Require(Size >= 32767, "room for what is short");
    }
    Running->Mapping->Table->VerifyPath(Running->Mapping, 0, Text.get());
}

} // namespace

void RunMapping(const uint8_t *Data, size_t Size) {
    if (Running == nullptr) {
        Running = std::make_unique<World>();
    }
    const embedded::Impersonate Client(Running->User);
    Map(Data, Size);
    Decode(Data, Size);
}

void StopMapping() {
    Running.reset();
}

} // namespace fuzz
