#include "embedded/loader/driver_image.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sys/mman.h>

#include <fmt/format.h>

#include "embedded/ex/live.h"
#include "embedded/fsrtl/fsrtl.h"
#include "embedded/image/symbols.h"
#include "embedded/io/objects.h"
#include "embedded/loader/layouts.h"
#include "embedded/loader/services.h"
#include "embedded/mm/faults.h"
#include "embedded/mup.h"
#include "embedded/ps/ps.h"
#include "embedded/rtl/rtl.h"

// For debuggers: where the driver's image lies and which file it came from; null when there is none. A breakpoint on
// the function stops whenever they have changed.
extern "C" {
char *EmbeddedImageBase;
const char *EmbeddedImageFile;
__attribute__((noinline, used)) void EmbeddedImageChanged() {
    asm volatile("");
}
}

namespace embedded {
namespace {

[[noreturn]] void Refuse(const std::filesystem::path &File, const std::vector<std::string> &Reasons) {
    std::string Text;
    for (const std::string &Reason : Reasons) {
        Text += fmt::format("{}{}: {}", Text.empty() ? "" : "\n", File.string(), Reason);
    }
    throw ImageError(Text);
}

std::vector<uint8_t> ReadFile(const std::filesystem::path &File) {
    std::error_code Error;
    if (!std::filesystem::exists(File, Error)) {
        Refuse(File, {"no such file"});
    }
    if (!std::filesystem::is_regular_file(File, Error)) {
        Refuse(File, {"not a regular file"});
    }
    constexpr uintmax_t LargestFile = 256 * 1024 * 1024;
    const uintmax_t Size = std::filesystem::file_size(File, Error);
    if (Error || Size > LargestFile) {
        Refuse(File, {Error ? Error.message() : "too large for a driver"});
    }
    std::vector<uint8_t> Bytes(Size);
    std::ifstream Stream(File, std::ios::binary);
    if (!Stream.read(reinterpret_cast<char *>(Bytes.data()), static_cast<std::streamsize>(Size))) {
        Refuse(File, {"cannot be read"});
    }
    return Bytes;
}

int ProtectionOf(const ImageSection &Section) {
    return (Section.Readable || Section.Executable ? PROT_READ : 0) | (Section.Writable ? PROT_READ | PROT_WRITE : 0) |
           (Section.Executable ? PROT_EXEC : 0);
}

// The name for the driver to see. A name of bytes that are no text is a name for the host alone.
std::u16string WideName(const std::filesystem::path &File) {
    try {
        return File.filename().u16string();
    } catch (const std::filesystem::filesystem_error &) {
        return u"driver.sys";
    }
}

std::filesystem::path Absolute(const std::filesystem::path &File) {
    std::error_code Error;
    std::filesystem::path Whole = std::filesystem::absolute(File, Error);
    return Error ? File : Whole;
}

constexpr const char *KernelModule = "ntoskrnl.exe";

bool IsModule(const std::string &Name, const ImageOptions &Options) {
    return Name == KernelModule || std::any_of(Options.Modules.begin(), Options.Modules.end(),
                                               [&](const ModuleExport &Each) { return Each.Module == Name; });
}

// What an import is bound to; without an address when there is nothing.
Service ServiceFor(const ImageImport &Import, const ImageOptions &Options) {
    if (Import.Module == KernelModule) {
        const Service *Found = FindKernelService(Import.Name);
        return Found == nullptr ? Service{} : *Found;
    }
    for (const ModuleExport &Each : Options.Modules) {
        if (Each.Module == Import.Module && Each.Name == Import.Name) {
            return {Each.Name.c_str(), Each.Address, ResultKind::Status, Each.Arguments, false, {}};
        }
    }
    return {};
}

UNICODE_STRING Counted(const std::u16string &Text) {
    const auto Bytes = static_cast<USHORT>(Text.size() * sizeof(WCHAR));
    return {Bytes, Bytes, const_cast<PWSTR>(Text.data())};
}

} // namespace

DriverImage::DriverImage(const std::filesystem::path &File, ImageOptions Options)
    : DriverImage(File, ReadFile(File), Options) {
}

DriverImage::DriverImage(const std::filesystem::path &File, std::span<const uint8_t> Bytes, const ImageOptions &Options)
    : LoadedImage(Absolute(File)), Name_(WideName(File)) {
    if (const auto Reasons = ReadImageFormat(Bytes, &Format_); !Reasons.empty()) {
        Refuse(File, Reasons);
    }
    WatchFaults();
    FindPdb();
    Map(Bytes, Options.Base);
    try {
        Relocate();
        Bind(Options);
        Protect();
        CompareLayouts();
    } catch (...) {
        munmap(Base_, Format_.ImageSize);
        throw;
    }
    DescribeToDriver();
    if (Enter()) {
        EmbeddedImageBase = Base_;
        EmbeddedImageFile = File_.c_str();
        EmbeddedImageChanged();
        return;
    }
    munmap(Base_, Format_.ImageSize);
    Refuse(File, {"too many images are loaded already"});
}

void DriverImage::DescribeToDriver() {
    Section_.InLoadOrderLinks = {&Section_.InLoadOrderLinks, &Section_.InLoadOrderLinks};
    Section_.ExceptionTable = Format_.UnwindBytes == 0 ? nullptr : Base_ + Format_.UnwindRva;
    Section_.ExceptionTableSize = Format_.UnwindBytes;
    Section_.DllBase = Base_;
    Section_.EntryPoint = Base_ + Format_.EntryRva;
    Section_.SizeOfImage = Format_.ImageSize;
    Section_.FullDllName = Section_.BaseDllName = Counted(Name_);
    Section_.LoadCount = 1;
    Section_.CheckSum = Format_.Checksum;
}

DriverImage::~DriverImage() {
    Leave();
    if (EmbeddedImageBase == Base_) {
        EmbeddedImageBase = nullptr;
        EmbeddedImageFile = nullptr;
        EmbeddedImageChanged();
    }
    if (PointersInto(*this).empty()) {
        munmap(Base_, Format_.ImageSize);
    } else {
        // What still runs in it calls the kernel through the stubs, which know the imports' names.
        static auto &Kept = *new std::vector<std::pair<std::unique_ptr<CallStubs>, std::vector<ImageImport>>>;
        Kept.emplace_back(std::move(Stubs_), std::move(Format_.Imports));
    }
}

void DriverImage::Map(std::span<const uint8_t> Bytes, uintptr_t Base) {
    // Where any place will do, one near the kernel's code: processors predict branches into the distance less well.
    constexpr uintptr_t Distance = 256 * 1024 * 1024;
    const uintptr_t Code = reinterpret_cast<uintptr_t>(&EmbeddedImageChanged) / 4096 * 4096;
    const uintptr_t Near = Code > Distance ? Code - Distance : 0;
    void *Mapped = mmap(reinterpret_cast<void *>(Base != 0 ? Base : Near), Format_.ImageSize, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | (Base != 0 ? MAP_FIXED_NOREPLACE : 0), -1, 0);
    if (Mapped == MAP_FAILED) {
        Refuse(File_, {fmt::format("cannot be mapped: {}", strerror(errno))});
    }
    // Kernels before 4.17 do not know the flag and take the address for a wish.
    if (Base != 0 && Mapped != reinterpret_cast<void *>(Base)) {
        munmap(Mapped, Format_.ImageSize);
        Refuse(File_, {fmt::format("cannot be mapped: 0x{:x} is not free", Base)});
    }
    Base_ = static_cast<char *>(Mapped);
    memcpy(Base_, Bytes.data(), Format_.HeaderSize);
    for (const ImageSection &Section : Format_.Sections) {
        memcpy(Base_ + Section.Rva, Bytes.data() + Section.FileOffset, Section.FileBytes);
    }
}

void DriverImage::Relocate() {
    const uint64_t Moved = reinterpret_cast<uint64_t>(Base_) - Format_.PreferredBase;
    for (const uint32_t Rva : Format_.Relocations) {
        uint64_t Value;
        memcpy(&Value, Base_ + Rva, sizeof(Value));
        Value += Moved;
        memcpy(Base_ + Rva, &Value, sizeof(Value));
    }
}

void DriverImage::Bind(const ImageOptions &Options) {
    std::vector<std::string> Modules; // in the order of the file
    std::map<std::string, std::string> Missing;
    Stubs_ = std::make_unique<CallStubs>(Options.Recording, Format_.Imports.size());
    for (const ImageImport &Import : Format_.Imports) {
        Service Called = ServiceFor(Import, Options);
        if (Called.Address == nullptr) {
            auto [Names, New] = Missing.try_emplace(Import.Module);
            if (New) {
                Modules.push_back(Import.Module);
            }
            Names->second += (New ? "" : ", ") + Import.Name;
            continue;
        }
        Called.Name = Import.Name.c_str();
        void *Address = Stubs_->Add(Import.Module, Called);
        memcpy(Base_ + Import.SlotRva, &Address, sizeof(Address));
    }
    std::string Text;
    for (const std::string &Module : Modules) {
        Text += Text.empty() ? "" : "; ";
        Text += IsModule(Module, Options)
                    ? fmt::format("{} does not export {}", Module, Missing[Module])
                    : fmt::format("it imports {} from {}, which is no module of this kernel", Missing[Module], Module);
    }
    if (!Text.empty()) {
        Refuse(File_, {Text});
    }
    Stubs_->Seal();
}

void DriverImage::Protect() {
    bool Good = mprotect(Base_, Format_.ImageSize, PROT_NONE) == 0 &&
                mprotect(Base_, (Format_.HeaderSize + 4095) / 4096 * 4096, PROT_READ) == 0;
    for (const ImageSection &Section : Format_.Sections) {
        Good = Good && mprotect(Base_ + Section.Rva, Section.Size, ProtectionOf(Section)) == 0;
    }
    if (!Good) {
        Refuse(File_, {fmt::format("its sections cannot be protected: {}", strerror(errno))});
    }
}

void DriverImage::DiscardStartSections() {
    for (const ImageSection &Section : Format_.Sections) {
        if (Section.Discardable && mprotect(Base_ + Section.Rva, Section.Size, PROT_NONE) != 0) {
            Refuse(File_, {fmt::format("section {} cannot be taken away: {}", Section.Name, strerror(errno))});
        }
    }
}

// The debug information beside the image must be its own: names from another build would be lies.
void DriverImage::FindPdb() {
    const std::filesystem::path Beside =
        File_.parent_path() / std::filesystem::path(Format_.PdbName.substr(Format_.PdbName.find_last_of("\\/") + 1));
    std::error_code Error;
    if (Format_.PdbName.empty() || !std::filesystem::exists(Beside, Error)) {
        return;
    }
    if (!std::filesystem::is_regular_file(Beside, Error)) {
        Refuse(Beside, {"not a regular file"});
    }
    try {
        if (ReadPdbIdentity(Beside) != Format_.Pdb) {
            Refuse(Beside, {fmt::format("the debug information of another build than {}", File_.filename().string())});
        }
    } catch (const ImageError &) {
        throw;
    } catch (const std::runtime_error &Problem) {
        Refuse(Beside, {Problem.what()});
    }
    Pdb_ = Beside;
}

void DriverImage::CompareLayouts() {
    const auto Compare = [this](std::string_view Name, const std::vector<Layout> &Ours) {
        if (void *Table = Export(Name)) {
            if (const auto Differences = CompareLayoutTable(*this, Table, Ours); !Differences.empty()) {
                Refuse(File_, Differences);
            }
        }
    };
    Compare("RVFSD_Layouts", SharedLayouts());
}

std::string DriverImage::Describe() const {
    std::string Build;
    for (const uint8_t Byte : Format_.Pdb.Guid) {
        Build += fmt::format("{:02x}", Byte);
    }
    return fmt::format("{}, {} bytes in memory, checksum 0x{:08X}, build {}{}", File_.string(), Format_.ImageSize,
                       Format_.Checksum, Format_.PdbName.empty() ? "unknown" : Build,
                       Pdb_.empty() ? ", without debug information" : "");
}

std::vector<std::string> PointersInto(const DriverImage &Image) {
    std::vector<std::string> Found;
    const char *Low = Image.Base();
    const char *High = Low + Image.Format().ImageSize;
    const auto Note = [&](size_t Count, const char *What) {
        if (Count != 0) {
            Found.push_back(fmt::format("{} {}", Count, What));
        }
    };
    Note(RunningSystemThreads(), "system thread(s) still run in it");
    Note(LiveDevices(), "device(s) have its entry points");
    Note(RegisteredUncProviders().size(), "registration(s) as UNC provider");
    Note(PrefixTablesInUse(), "prefix table(s) hold entries");
    const FsRtlCounts Counts = CountFsRtl();
    Note(Counts.LockTables, "lock table(s) in use");
    Note(Counts.NotifySyncs, "notify synchronisation(s)");
    for (const auto Search : {LiveObjectsIn, PoolPointersInto, IrpPointersInto, FilePointersInto}) {
        for (std::string &Line : Search(Low, High)) {
            Found.push_back(std::move(Line));
        }
    }
    return Found;
}

} // namespace embedded
