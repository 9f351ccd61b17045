// Mapping, asking and unmapping drive letters, and an open through one against the same by its UNC name.
#include <array>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "bench/rows.h"
#include "embedded/names/logon.h"
#include "embedded/names/probe.h"
#include "embedded/ps/ps.h"
#include "embedded/rtl/counted.h"
#include "provider/class_factory.h"

namespace bench {
namespace {

constexpr ULONG Letters = 26;
constexpr unsigned Sessions = 1'000;
constexpr char Path[] = "\\\\srv\\vol\\docs";
constexpr ULONG Mapped = 7;

void Require(NTSTATUS Status, const char *What) {
    if (!NT_SUCCESS(Status)) {
        Fail(fmt::format("{}: 0x{:08X}", What, static_cast<ULONG>(Status)));
    }
}

// The mapping object of the current world, and users that act through it. Gone before the world is.
class Client {
public:
    Client() {
        PVOID Out = nullptr;
        if (DllGetClassObject(&CLSID_RvfsdMapping, &IID_IClassFactory, &Out) != RVPSTATUS::Success) {
            Fail("no class object");
        }
        const auto Factory = static_cast<RVFSD_FACTORY *>(Out);
        if (Factory->Table->CreateInstance(Factory, nullptr, &IID_RvfsdMapping, &Out) != RVPSTATUS::Success) {
            Fail("no mapping object");
        }
        Factory->Table->Release(Factory);
        Mapping_ = static_cast<RVFSD_MAPPING *>(Out);
    }
    ~Client() {
        Mapping_->Table->UnMapServer(Mapping_, 0);
        Mapping_->Table->Release(Mapping_);
        embedded::CurrentThread().Process = embedded::SystemProcess();
        for (const PEPROCESS Each : Processes_) {
            embedded::DeleteProcess(Each);
        }
        for (const embedded::TokenRef &Each : Tokens_) {
            embedded::LogOff(*Each.Get());
        }
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // A new logon session of one user, in which the calling thread acts from now on.
    void LogOn() {
        Tokens_.push_back(embedded::LogOn(500));
        Processes_.push_back(embedded::CreateProcess("client", Tokens_.back()));
        Act(Processes_.size() - 1);
    }
    void Act(size_t Session) {
        embedded::CurrentThread().Process = Processes_[Session];
    }
    void Map(ULONG Drive) {
        struct {
            ULONG Words[5];
            char Text[sizeof(Path)];
        } Request = {{Drive, 0, 0, sizeof(Path) - 1, 1}, {}};
        memcpy(Request.Text, Path, sizeof(Path));
        Require(Mapping_->Table->MapDrive(Mapping_, reinterpret_cast<const MAP_REQUEST *>(&Request)), "map");
    }
    void Query(ULONG Drive) {
        Answer_.DriveNumber = Drive;
        Require(Mapping_->Table->QueryDrive(Mapping_, &Answer_), "query");
    }
    void Unmap(ULONG Drive) {
        Require(Mapping_->Table->UnMapDrive(Mapping_, &Drive), "unmap");
    }

private:
    RVFSD_MAPPING *Mapping_;
    std::vector<embedded::TokenRef> Tokens_;
    std::vector<PEPROCESS> Processes_;
    QUERY_DRIVE Answer_;
};

// Count sessions, each with all letters but the last; the last of them is measured.
void Populate(Client &By, unsigned Count, ULONG Each) {
    for (unsigned Session = 0; Session < Count; ++Session) {
        By.LogOn();
        for (ULONG Drive = 1; Drive <= Each; ++Drive) {
            By.Map(Drive);
        }
    }
}

void MapAndUnmap(benchmark::State &State, unsigned Count, ULONG Each) {
    Use(ProviderKind::Stub);
    Client By;
    Populate(By, Count, Each);
    for (auto _ : State) {
        By.Map(Letters);
        By.Unmap(Letters);
    }
}

void QueryOne(benchmark::State &State, unsigned Count, ULONG Each) {
    Use(ProviderKind::Stub);
    Client By;
    Populate(By, Count, Each);
    for (auto _ : State) {
        By.Query(Each);
    }
}

void OpenBy(benchmark::State &State, std::u16string_view Name) {
    Use(ProviderKind::Stub);
    Client By;
    By.LogOn();
    By.Map(Mapped);
    std::u16string Text(Name);
    UNICODE_STRING ObjectName = embedded::ToUnicodeString(Text);
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &ObjectName, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    for (auto _ : State) {
        HANDLE Handle = nullptr;
        IO_STATUS_BLOCK Iosb;
        Require(NtCreateFile(&Handle, FILE_READ_DATA | SYNCHRONIZE, &Attributes, &Iosb, nullptr, 0, FILE_SHARE_READ,
                             FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0),
                "open");
        NtClose(Handle);
    }
}

} // namespace

void RegisterMappings() {
    using benchmark::RegisterBenchmark;
    RegisterBenchmark("mapping/map_and_unmap/1_of_1", MapAndUnmap, 1, 0);
    RegisterBenchmark("mapping/map_and_unmap/1_of_26", MapAndUnmap, 1, Letters - 1);
    RegisterBenchmark("mapping/map_and_unmap/1000_sessions", MapAndUnmap, Sessions, 1);
    RegisterBenchmark("mapping/query/1_of_1", QueryOne, 1, 1);
    RegisterBenchmark("mapping/query/1_of_26", QueryOne, 1, Letters);
    RegisterBenchmark("mapping/query/1000_sessions", QueryOne, Sessions, 1);
    RegisterBenchmark("mapping/open/letter", OpenBy, u"\\??\\G:\\a.txt");
    RegisterBenchmark("mapping/open/unc", OpenBy, u"\\??\\UNC\\srv\\vol\\docs\\a.txt");
}

} // namespace bench
