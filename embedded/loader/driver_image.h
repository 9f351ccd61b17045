// A driver's image, loaded: mapped with its protections, moved to where it lies, its imports bound to this kernel.
//
// One object owns one mapping. Load and the destructor are called while no driver code runs. Reports name addresses
// inside a loaded image by function, file and line (symbols.h).
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "embedded/image/calls.h"
#include "embedded/image/loaded_image.h"
#include "kernel/kernel.h"

namespace embedded {

// Why a file was refused: what() has the file's name and one reason a line.
class ImageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What a module other than the kernel exports to drivers.
struct ModuleExport {
    std::string Module; // in lower case
    std::string Name;
    void *Address;
    uint8_t Arguments; // those shown in a trace of calls
};

struct ImageOptions {
    std::vector<ModuleExport> Modules;
    // Where it must lie, page-aligned and free; 0 lets the system choose.
    uintptr_t Base = 0;
    CallRecording Recording = CallRecording::None;
};

// The record behind DRIVER_OBJECT.DriverSection, of the loader's list of modules (x64).
struct LoaderEntry {
    LIST_ENTRY InLoadOrderLinks;
    PVOID ExceptionTable;
    ULONG ExceptionTableSize;
    PVOID GpValue;
    PVOID NonPagedDebugInfo;
    PVOID DllBase;
    PVOID EntryPoint;
    ULONG SizeOfImage;
    UNICODE_STRING FullDllName;
    UNICODE_STRING BaseDllName;
    ULONG Flags;
    USHORT LoadCount;
    USHORT SignatureInfo;
    PVOID SectionPointer;
    ULONG CheckSum;
};
static_assert(offsetof(LoaderEntry, DllBase) == 0x30 && offsetof(LoaderEntry, SizeOfImage) == 0x40 &&
              offsetof(LoaderEntry, BaseDllName) == 0x58 && offsetof(LoaderEntry, CheckSum) == 0x78);

class DriverImage final : public LoadedImage {
public:
    // Reads, checks, maps and binds File. Throws ImageError when it cannot be read, is none, needs what this kernel
    // does not have (all unresolved imports are named in one line), when its table of record layouts differs from
    // this kernel's, or when the debug information beside it is another build's.
    explicit DriverImage(const std::filesystem::path &File, ImageOptions Options = {});
    // The same for the bytes of File, which is not read: its name is for reports, and for what lies beside it.
    DriverImage(const std::filesystem::path &File, std::span<const uint8_t> Bytes, const ImageOptions &Options);
    // Unmaps it, unless something still points into it: then the memory stays as it is.
    ~DriverImage();

    PDRIVER_INITIALIZE Entry() const {
        return reinterpret_cast<PDRIVER_INITIALIZE>(Base_ + Format_.EntryRva);
    }
    LoaderEntry *Section() {
        return &Section_;
    }
    // The driver has started: sections that only the start needs are taken away.
    void DiscardStartSections();
    // One line for people: name, version of the format, checksum, identifier of the build.
    std::string Describe() const;

private:
    void Map(std::span<const uint8_t> Bytes, uintptr_t Base);
    void DescribeToDriver();
    void Relocate();
    void Bind(const ImageOptions &Options);
    void Protect();
    void FindPdb();
    void CompareLayouts();

    std::u16string Name_;
    LoaderEntry Section_ = {};
};

// A line for each thing of this kernel that still points into Image: threads, devices, requests, files, callbacks,
// locks, tables. Called when the kernel has stopped.
std::vector<std::string> PointersInto(const DriverImage &Image);

} // namespace embedded
