// Look-ups among 1,000 and 1,000,000 open files, opens beside them, and renames of them. Registered in the order in
// which the table grows, so that a run fills it once.
#include <random>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "bench/rows.h"
#include "names/fcb.h"

namespace bench {
namespace {

constexpr unsigned Few = 1'000;
constexpr unsigned Many = 1'000'000;
constexpr unsigned Sample = 4'096; // names looked up; the large table takes more of them
constexpr unsigned Hot = 1'000;
constexpr unsigned NeverOpen = 2'000'000; // names from here on are not in the table

std::vector<HANDLE> &Population() {
    static std::vector<HANDLE> Handles;
    return Handles;
}

void Populate(unsigned Count) {
    Use(ProviderKind::Stub);
    while (Population().size() < Count) {
        Population().push_back(OpenToRename(FilePath(static_cast<unsigned>(Population().size()))));
    }
}

// The names one after the other in memory, in the order of their use.
class Names {
public:
    Names(unsigned Count, unsigned First, unsigned End) {
        std::minstd_rand Random(1);
        std::uniform_int_distribution<unsigned> Any(First, End - 1);
        for (unsigned Index = 0; Index < Count; ++Index) {
            const std::u16string Path = FilePath(Any(Random));
            Units_ = Path.size();
            Text_ += Path;
        }
        Count_ = Count;
    }
    UNICODE_STRING Next() {
        const auto Bytes = static_cast<USHORT>(Units_ * sizeof(WCHAR));
        const UNICODE_STRING Name = {Bytes, Bytes, Text_.data() + At_ * Units_};
        At_ = At_ + 1 == Count_ ? 0 : At_ + 1;
        return Name;
    }

private:
    std::u16string Text_;
    size_t Units_ = 0;
    size_t Count_ = 0;
    size_t At_ = 0;
};

void Find(benchmark::State &State, unsigned Population, Names Wanted, bool IsThere) {
    for (auto _ : State) {
        UNICODE_STRING Name = Wanted.Next();
        UNICODE_STRING Remaining;
        const PFCB Found = NtFsdFindFcb(&Name, &Remaining);
        if ((Found != nullptr) != IsThere) {
            Fail(fmt::format("a look-up among {} files went wrong", Population));
        }
    }
}

void FindRandom(benchmark::State &State, unsigned Count) {
    Populate(Count);
    // At the small size each name comes up anyway; at the large one every look-up must be to another name.
    Find(State, Count, Names(Count > Few ? 64 * Sample : Sample, 0, Count), true);
}

void FindHot(benchmark::State &State, unsigned Count) {
    Populate(Count);
    Find(State, Count, Names(Hot, 0, Count), true);
}

void FindMissing(benchmark::State &State, unsigned Count) {
    Populate(Count);
    Find(State, Count, Names(Count > Few ? 64 * Sample : Sample, NeverOpen, NeverOpen + Count), false);
}

void OpenAndClose(benchmark::State &State, unsigned Count) {
    Populate(Count);
    std::vector<std::u16string> Paths;
    for (unsigned Index = 0; Index < Sample; ++Index) {
        Paths.push_back(FilePath(NeverOpen + Index));
    }
    size_t At = 0;
    for (auto _ : State) {
        Close(Open(Paths[At]));
        At = At + 1 == Paths.size() ? 0 : At + 1;
    }
}

// Replaces what is there.
void Rename(HANDLE Handle, std::u16string_view Path) {
    struct {
        UCHAR ReplaceIfExists = 1;
        HANDLE RootDirectory = nullptr;
        ULONG NameLength = 0;
        WCHAR Name[128];
    } Information;
    constexpr std::u16string_view Device = u"\\Device\\RvFsd";
    const size_t Units = Device.size() + Path.size();
    if (Units > std::size(Information.Name)) {
        Fail("a path is too long to be renamed to");
    }
    Information.NameLength = static_cast<ULONG>(Units * sizeof(WCHAR));
    Device.copy(Information.Name, Device.size());
    Path.copy(Information.Name + Device.size(), Path.size());
    IO_STATUS_BLOCK Iosb;
    const NTSTATUS Status =
        NtSetInformationFile(Handle, &Iosb, &Information, sizeof(Information), FileRenameInformation);
    if (!NT_SUCCESS(Status)) {
        Fail(fmt::format("a rename failed: 0x{:08X}", static_cast<ULONG>(Status)));
    }
}

// A name that the stub has not, and back: every file is found under its own name afterwards.
void RenameThereAndBack(benchmark::State &State, unsigned Count) {
    Populate(Count);
    std::minstd_rand Random(1);
    std::uniform_int_distribution<unsigned> Any(0, Count - 1);
    for (auto _ : State) {
        const unsigned Index = Any(Random);
        const std::u16string Own = FilePath(Index);
        std::u16string Other = Own;
        Other[Own.rfind(u'\\') + 1] = u'!';
        Rename(Population()[Index], Other);
        Rename(Population()[Index], Own);
    }
}

// Nothing that is open may lie below a directory that is renamed.
void RenameDirectory(benchmark::State &State, unsigned Count) {
    Populate(Count);
    const HANDLE Handle = OpenToRename(u"\\srv\\vol\\documents\\drafts", true);
    bool Second = false;
    for (auto _ : State) {
        Rename(Handle, Second ? u"\\srv\\vol\\documents\\!two" : u"\\srv\\vol\\documents\\!one");
        Second = !Second;
    }
    Close(Handle);
}

} // namespace

void RegisterTables() {
    using benchmark::RegisterBenchmark;
    for (const unsigned Count : {Few, Many}) {
        const std::string Size = fmt::format("/{}", Count);
        RegisterBenchmark(("table/hit" + Size).c_str(), FindRandom, Count);
        RegisterBenchmark(("table/hot" + Size).c_str(), FindHot, Count);
        RegisterBenchmark(("table/miss" + Size).c_str(), FindMissing, Count);
        RegisterBenchmark(("table/open" + Size).c_str(), OpenAndClose, Count);
        RegisterBenchmark(("table/rename_there_and_back" + Size).c_str(), RenameThereAndBack, Count);
        RegisterBenchmark(("table/rename_directory" + Size).c_str(), RenameDirectory, Count);
    }
}

void EmptyTable() {
    for (const HANDLE Handle : Population()) {
        Close(Handle);
    }
    Population().clear();
}

} // namespace bench
