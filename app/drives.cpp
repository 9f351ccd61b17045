#include "app/drives.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <unistd.h>

#include <fmt/format.h>

#include "app/text.h"
#include "embedded/names/logon.h"
#include "embedded/names/names.h"

namespace app {

namespace {

constexpr ULONG User = 500;
constexpr ULONG Stranger = 501;
constexpr ULONG ProviderFacility = 0xC7E7; // the upper half of an error of the Provider

std::string NameOf(char Letter) {
    return std::string(1, Letter) + ":";
}

ULONG NumberOf(char Letter) {
    return static_cast<ULONG>(Letter - 'A' + 1);
}

// Where a letter leads in the session of Token, whatever everybody's letters are.
bool HasLink(const embedded::TokenObject &Token, char Letter) {
    std::u16string Target;
    const std::string Name =
        fmt::format("\\Sessions\\0\\DosDevices\\{:08X}-{:08X}\\{}:", static_cast<ULONG>(Token.Session->Id.HighPart),
                    Token.Session->Id.LowPart, Letter);
    return NT_SUCCESS(embedded::QuerySymbolicLink(std::u16string(Name.begin(), Name.end()), &Target));
}

} // namespace

const std::vector<LogonName> &Logons() {
    static const std::vector<LogonName> All = {
        {"default", "the user's, where everything begins"},
        {"second", "another of the user's, by itself"},
        {"filtered", "the everyday half of an administrator's split logon"},
        {"elevated", "its elevated half, linked to it"},
        {"stranger", "another user's"},
    };
    return All;
}

RV_SECURITY_CONTEXT CallerContext() {
    static const ULONG64 User = geteuid(); // asked for with each request, and never another
    static const ULONG64 Group = getegid();
    const ULONG64 Other = embedded::CallerAccount() == Stranger ? 1 : 0;
    return {{User + Other, Group + Other}};
}

Drives::Drives(GetClassObject Export, const std::string &Logon) : Export_(Export) {
    const embedded::SplitLogon Split = embedded::LogOnSplit(User);
    for (const embedded::TokenRef &Token :
         {embedded::LogOn(User), embedded::LogOn(User), Split.Filtered, Split.Elevated, embedded::LogOn(Stranger)}) {
        Logons_.push_back({Token, embedded::CreateProcess("rvfsd", Token)});
    }
    Act(Logon);
}

Drives::~Drives() {
    if (Mapping_ != nullptr) {
        Mapping_->Table->Release(Mapping_);
    }
    embedded::CurrentThread().Process = embedded::SystemProcess();
    for (const Logon &Each : Logons_) {
        embedded::DeleteProcess(Each.Process);
    }
}

Drives::Logon &Drives::Find(const std::string &Name) {
    for (size_t Index = 0; Index < Logons_.size(); ++Index) {
        if (Name == Logons()[Index].Name) {
            return Logons_[Index];
        }
    }
    throw UsageError(fmt::format("{}: no such session; session lists them", Name));
}

const embedded::TokenObject *Drives::OtherHalf(const std::string &Logon) {
    return Logon == "filtered"   ? Find("elevated").Token.Get()
           : Logon == "elevated" ? Find("filtered").Token.Get()
                                 : nullptr;
}

void Drives::Act(const std::string &Logon) {
    embedded::CurrentThread().Process = Find(Logon).Process;
    Acting_ = Logon;
}

RVFSD_MAPPING *Drives::Object() {
    if (Mapping_ != nullptr) {
        return Mapping_;
    }
    PVOID Out = nullptr;
    RVPSTATUS Status = Export_(&CLSID_RvfsdMapping, &IID_IClassFactory, &Out);
    if (!RvpIsError(Status)) {
        const auto Factory = static_cast<RVFSD_FACTORY *>(Out);
        Status = Factory->Table->CreateInstance(Factory, nullptr, &IID_RvfsdMapping, &Out);
        Factory->Table->Release(Factory);
    }
    if (RvpIsError(Status)) {
        throw StatusError(static_cast<NTSTATUS>(Status), "the driver gives no mapping object");
    }
    Mapping_ = static_cast<RVFSD_MAPPING *>(Out);
    return Mapping_;
}

void Drives::Use(const DriveUse &Wanted) {
    const std::string &Path = Wanted.Path;
    std::vector<char> Bytes(offsetof(MAP_REQUEST, Path) + Path.size() + 1);
    const MAP_REQUEST Request = {NumberOf(Wanted.Letter), 0, Wanted.Server, static_cast<ULONG>(Path.size()), 1, {}};
    memcpy(Bytes.data(), &Request, offsetof(MAP_REQUEST, Path));
    memcpy(Bytes.data() + offsetof(MAP_REQUEST, Path), Path.data(), Path.size());
    const embedded::TokenObject *Other = OtherHalf(Acting_);
    const bool Before = Other != nullptr && HasLink(*Other, Wanted.Letter);
    const NTSTATUS Status = Object()->Table->MapDrive(Object(), reinterpret_cast<const MAP_REQUEST *>(Bytes.data()));
    if (!NT_SUCCESS(Status)) {
        throw StatusError(Explain(Status, Path), NameOf(Wanted.Letter) + " " + Path);
    }
    Uses_.push_back(Wanted);
    Uses_.back().Logon = Acting_;
    Uses_.back().Linked = Other != nullptr && !Before && HasLink(*Other, Wanted.Letter);
}

NTSTATUS Drives::Explain(NTSTATUS Status, const std::string &Path) {
    if ((static_cast<ULONG>(Status) >> 16) != ProviderFacility) {
        return Status;
    }
    const NTSTATUS Verified = Verify(Path);
    return NT_SUCCESS(Verified) ? Status : Verified;
}

void Drives::Delete(char Letter) {
    const ULONG Number = NumberOf(Letter);
    const NTSTATUS Status = Object()->Table->UnMapDrive(Object(), &Number);
    Forget();
    if (!NT_SUCCESS(Status)) {
        throw StatusError(Status, NameOf(Letter));
    }
}

void Drives::DeleteServer(uint32_t Server) {
    const NTSTATUS Status = Object()->Table->UnMapServer(Object(), Server);
    Forget();
    if (!NT_SUCCESS(Status)) {
        throw StatusError(Status, fmt::format("connection {}", Server));
    }
}

NTSTATUS Drives::Query(char Letter, QUERY_DRIVE *Answer) {
    Answer->DriveNumber = NumberOf(Letter);
    return Object()->Table->QueryDrive(Object(), Answer);
}

std::optional<std::string> Drives::Ask(char Letter) {
    const auto Answer = std::make_unique<QUERY_DRIVE>();
    const NTSTATUS Status = Query(Letter, Answer.get());
    if (Status == STATUS_RESOURCE_NOT_OWNED) {
        return std::nullopt;
    }
    if (!NT_SUCCESS(Status) && Status != STATUS_BUFFER_OVERFLOW) {
        throw StatusError(Status, NameOf(Letter));
    }
    return std::string(Answer->Path, Answer->PathLength);
}

NTSTATUS Drives::Verify(const std::string &Path) {
    return Object()->Table->VerifyPath(Object(), 0, Path.c_str());
}

std::vector<Drives::Listed> Drives::List() {
    std::vector<Listed> Found;
    const std::string Before = Acting_;
    for (const DriveUse &Each : Uses_) {
        Act(Each.Logon);
        const auto Path = Ask(Each.Letter);
        if (Path) {
            Found.push_back({Each, *Path, Each.Linked && HasLink(*OtherHalf(Each.Logon), Each.Letter)});
        }
    }
    Act(Before);
    std::stable_sort(Found.begin(), Found.end(),
                     [](const Listed &Left, const Listed &Right) { return Left.Use.Letter < Right.Use.Letter; });
    return Found;
}

void Drives::Forget() {
    const std::string Before = Acting_;
    std::erase_if(Uses_, [this](const DriveUse &Each) {
        Act(Each.Logon);
        return !Ask(Each.Letter);
    });
    Act(Before);
}

} // namespace app
