// The conformance list: a sound Provider passes it, and each planted fault is told.

#include <cstring>
#include <tuple>

#include "providers/conformance/conformance.h"
#include "providers/directory/directory_provider.h"
#include "providers/scripted/scripted_provider.h"
#include "tests/app/program.h"

namespace {

using providers::CheckProvider;
using namespace testing;

using Table = RVIOM_FSD_TABLE;

const Table *Real; // the sound Provider's own
constexpr RVSTATUS Warning{0x00000506};

template <auto Slot, typename Body, typename... Args>
RVSTATUS NTAPI Instead(Args... Given) {
    std::tuple<Args...> All(Given...);
    return Body()(All, [&] { return std::apply(Real->*Slot, All); });
}
template <auto Slot, typename Body, typename... Args>
void Replace(Table &Broken, RVSTATUS(NTAPI *)(Args...)) {
    Broken.*Slot = Instead<Slot, Body, Args...>;
}
// Replaces a slot of the table by a body that has the arguments, counted from the interface on, and the sound call.
template <auto Slot, typename Body>
auto Plant(Body) {
    return [](Table &Broken) { Replace<Slot, Body>(Broken, Broken.*Slot); };
}

using std::get;

const struct Fault {
    const char *Told; // a part of the line
    void (*Plant)(Table &);
} Faults[] = {
    {"counts as success: an error has both top bits set", Plant<&Table::RVFsdDeleteFile>([](auto &, auto Sound) {
         const RVSTATUS Status = Sound();
         return RvIsError(Status) ? Warning : Status;
     })},
    {"RVFsdOpenDirectory handed out handle 0", Plant<&Table::RVFsdOpenDirectory>([](auto &A, auto) {
         *get<4>(A) = 0;
         return RVSTATUS::Success;
     })},
    {"an open of a missing name, answers 0xC7E70503", Plant<&Table::RVFsdCreateFile>([](auto &, auto Sound) {
         const RVSTATUS Status = Sound();
         return RvCode(Status) == 0x0506 ? RVSTATUS{0xC7E70503} : Status;
     })},
    {"did not write the create action", Plant<&Table::RVFsdCreateFile>([](auto &A, auto Sound) {
         ULONG Lost;
         get<10>(A) = &Lost;
         return Sound();
     })},
    {"RVFsdQueryPathForVolume of an unknown server succeeds", Plant<&Table::RVFsdQueryPathForVolume>([](auto &A, auto) {
         memcpy(get<3>(A), get<2>(A), 9 * sizeof(WCHAR));
         get<3>(A)[9] = 0;
         return RVSTATUS::Success;
     })},
    {"without a terminator within 8192 bytes", Plant<&Table::RVFsdQueryPathForVolume>([](auto &A, auto) {
         memset(get<3>(A), 0x41, RV_PATH_BUFFER_BYTES);
         return RVSTATUS::Success;
     })},
    {"exchanged the buffer", Plant<&Table::RVFsdGetDFSPhysicalPath>([](auto &A, auto) {
         get<4>(A)->Buffer = nullptr;
         return RVSTATUS::NotDistributedPath;
     })},
    {"refused an open handle", Plant<&Table::RVFsdCloseFile>([](auto &, auto Sound) {
         Sound();
         return RVSTATUS::InvalidHandle;
     })},
    {"the driver would refuse every file that grows", Plant<&Table::RVFsdGetVolumeSize>([](auto &A, auto Sound) {
         const RVSTATUS Status = Sound();
         *get<6>(A) = 0;
         return Status;
     })},
    {"did not write the last access time", Plant<&Table::RVFsdGetBasicFileInformation>([](auto &A, auto Sound) {
         get<6>(A) = nullptr;
         return Sound();
     })},
    {"RVFsdReadFile wrote behind its buffer", Plant<&Table::RVFsdReadFile>([](auto &A, auto Sound) {
         static_cast<UCHAR *>(get<5>(A))[get<4>(A)] = 0;
         return Sound();
     })},
    {"bytes of 10 that were asked for", Plant<&Table::RVFsdReadFile>([](auto &A, auto Sound) {
         const RVSTATUS Status = Sound();
         *get<6>(A) = get<4>(A) + 1;
         return Status;
     })},
    {"which sets the size,: 0xC7E70004", Plant<&Table::RVFsdWriteFile>([](auto &A, auto Sound) {
         return get<5>(A) == nullptr ? RVSTATUS::InvalidParameter : Sound();
     })},
    {"setting a time changes the attributes", Plant<&Table::RVFsdSetFileInformation>([](auto &A, auto Sound) {
         ULONG ReadOnly = RV_ATTR_READONLY;
         get<3>(A) = get<3>(A) == nullptr ? &ReadOnly : get<3>(A);
         return Sound();
     })},
    {"did not move its resume key on", Plant<&Table::RVFsdEnumerateDirectoryEx>([](auto &A, auto Sound) {
         ULONG Key = 0;
         get<5>(A) = &Key;
         return Sound();
     })},
    {"which its batch does not hold", Plant<&Table::RVFsdEnumerateDirectory>([](auto &A, auto) {
         memset(get<7>(A), 0, 60);
         static_cast<UCHAR *>(get<7>(A))[58] = 1; // 65536 characters
         ++*get<5>(A);
         return RVSTATUS::Success;
     })},
    {"RVFsdEnumerateDirectory, at its end, answers 0xC7E70006",
     Plant<&Table::RVFsdEnumerateDirectory>([](auto &, auto Sound) {
         const RVSTATUS Status = Sound();
         return RvIsError(Status) ? RVSTATUS::AccessDenied : Status;
     })},
    {"RVFsdOpenDirectory of a file answers 0xC7E70506, which the driver does not take for 'not a directory'",
     Plant<&Table::RVFsdOpenDirectory>([](auto &, auto Sound) {
         const RVSTATUS Status = Sound();
         return RvIsError(Status) ? RVSTATUS{0xC7E70506} : Status;
     })},
    {"RVFsdUnlockFile: 0xC7E70001",
     Plant<&Table::RVFsdUnlockFile>([](auto &, auto) { return RVSTATUS::Unsuccessful; })},
};

class Conformance : public testing::Test {
protected:
    Conformance() {
        EXPECT_EQ(Sound_.AddExport(u"\\\\srv\\vol", Scratch_.Path(), {}), "");
        Scratch_.Write("a.txt", "a");
        Real = Sound_.Interface()->Table;
    }
    ~Conformance() override {
        Sound_.Interface()->Table = Real;
    }
    std::vector<std::string> Failures() {
        return CheckProvider(*Sound_.Interface(), u"\\srv\\vol").Failures;
    }

    test::ScratchDirectory Scratch_;
    providers::DirectoryProvider Sound_;
};

TEST_F(Conformance, ASoundProviderPassesAndKeepsNothing) {
    EXPECT_THAT(Failures(), ElementsAre());
    EXPECT_TRUE(Sound_.ListOpenHandles().empty());
    EXPECT_THAT(std::vector<std::filesystem::path>(std::filesystem::directory_iterator(Scratch_.Path()), {}),
                ElementsAre(Scratch_.Path() / "a.txt"));
}

TEST(ScriptedConformance, TheTestsOwnProviderPassesToo) {
    providers::ScriptedProvider Scripted;
    Scripted.AddFile(u"\\srv\\vol\\a.txt", "a");
    EXPECT_THAT(CheckProvider(Scripted, u"\\srv\\vol").Failures, ElementsAre());
    EXPECT_TRUE(Scripted.OpenHandles().empty());
}

TEST_F(Conformance, EveryPlantedFaultIsTold) {
    for (const Fault &Each : Faults) {
        Table Broken = *Real;
        Each.Plant(Broken);
        Sound_.Interface()->Table = &Broken;
        EXPECT_THAT(Failures(), Contains(HasSubstr(Each.Told)));
        Sound_.Interface()->Table = Real;
    }
}

} // namespace
