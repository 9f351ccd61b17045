#include "embedded/loader/layouts.h"

#include <cstring>
#include <map>

#include <fmt/format.h>

#include "embedded/image/loaded_image.h"
#include "provider/layout.h"

#pragma GCC diagnostic ignored "-Winvalid-offsetof"

namespace embedded {
namespace {

// The DDK that images are compiled with leaves out this record's padding at the end; drivers never allocate one.
constexpr std::string_view Unaligned = "DEVICE_OBJECT";
constexpr ULONG64 UnalignedBytes = 328;

constexpr size_t LongestName = 256;
// One damaged table is told of in a few lines.
constexpr size_t MostDifferences = 64;

// The name at Address, made printable; empty when it does not lie in Image.
std::string NameIn(const LoadedImage &Image, const char *Address) {
    std::string Name;
    for (; Name.size() < LongestName && Image.Readable(Address, 1) && *Address != 0; ++Address) {
        Name += *Address > ' ' && *Address < 0x7F ? *Address : '?';
    }
    return Name;
}

} // namespace

const std::vector<Layout> &SharedLayouts() {
    static const std::vector<Layout> Layouts = {RVFSD_LAYOUT(LAYOUT_SIZE_ENTRY, LAYOUT_FIELD_ENTRY)
                                                    RVFSD_PROVIDER_LAYOUT(LAYOUT_SIZE_ENTRY, LAYOUT_FIELD_ENTRY)};
    return Layouts;
}

std::vector<std::string> CompareLayoutTable(const LoadedImage &Image, const void *Table,
                                            const std::vector<Layout> &Ours) {
    std::vector<std::string> Differences;
    std::map<std::string, ULONG64, std::less<>> Expected;
    for (const Layout &Each : Ours) {
        Expected.emplace(Each.Name, Each.Value);
    }
    for (const auto *At = static_cast<const char *>(Table); Differences.size() < MostDifferences;
         At += sizeof(Layout)) {
        if (!Image.Readable(At, sizeof(Layout))) {
            Differences.push_back("its table of record layouts has no end");
            return Differences;
        }
        Layout Entry;
        memcpy(&Entry, At, sizeof(Entry));
        if (Entry.Name == nullptr) {
            break;
        }
        const std::string Name = NameIn(Image, Entry.Name);
        const auto Found = Expected.find(Name);
        if (Found == Expected.end()) {
            Differences.push_back(
                fmt::format("its {} is unknown to this kernel", Name.empty() ? "unnamed field" : Name));
            continue;
        }
        const bool Padding = Name == Unaligned && Entry.Value == UnalignedBytes;
        if (Entry.Value != Found->second && !Padding) {
            Differences.push_back(
                fmt::format("its {} is at or has {} bytes, this kernel's {}", Name, Entry.Value, Found->second));
        }
        Expected.erase(Found);
    }
    if (Differences.size() == MostDifferences) {
        return Differences;
    }
    for (const auto &[Name, Value] : Expected) {
        Differences.push_back(fmt::format("it does not know {}, {} bytes here", Name, Value));
    }
    return Differences;
}

} // namespace embedded
