// A driver's image and its debug information, each of a few kilobytes and valid, for tests and fuzz targets to damage.
// Built from bytes: no cross compiler is needed.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace test {

// Where things lie in the image: file offsets of header fields, and Rvas of what the sections hold.
namespace small_image {

inline constexpr uint64_t PreferredBase = 0x140000000;
inline constexpr uint32_t Pe = 0x40, Optional = Pe + 24, SectionTable = Optional + 240;
inline constexpr uint32_t Code = 0x1000, Constants = 0x2000, Variables = 0x3000, Functions = 0x5000, Start = 0x6000,
                          Moves = 0x7000, End = 0x8000;

// Raises an access violation and returns what its handler has in eax; returns 0 without a handler.
inline constexpr uint32_t RaisingFunction = Code, RaisingReturn = Code + 15, RaisingTarget = Code + 0x18;
inline constexpr uint32_t HandlerJump = Code + 0x40; // to the import of the language handler
inline constexpr uint32_t IrqlFunction = Code + 0x50;
inline constexpr uint32_t FilterFunction = Code + 0x70; // takes every exception

inline constexpr uint32_t KernelSlots = Constants, ZelmSlots = Constants + 0x80;
inline constexpr uint32_t KernelNames = Constants + 0x100, ZelmNames = Constants + 0x180;
inline constexpr uint32_t ImportTable = Constants + 0x200, RaisingUnwind = Constants + 0x240;
inline constexpr uint32_t PlainUnwind = Constants + 0x270, EmptyUnwind = Constants + 0x278;
inline constexpr uint32_t RaisingScope = RaisingUnwind + 16; // begin, end, filter, target
inline constexpr uint32_t DebugTable = Constants + 0x280, DebugEntry = Constants + 0x2A0;
inline constexpr uint32_t ExportTable = Constants + 0x300, ExportAddresses = Constants + 0x330;
inline constexpr uint32_t ExportNames = Constants + 0x350, ExportOrdinals = Constants + 0x370;

inline constexpr uint32_t Pointer = Variables, Text = Variables + 0x10; // the pointer points to the text

// The file offset of the eight bytes of a data directory, or of a section's header.
constexpr uint32_t Directory(uint32_t Number) {
    return Optional + 112 + 8 * Number;
}
constexpr uint32_t Section(uint32_t Number) {
    return SectionTable + 40 * Number;
}
// In a section's header.
inline constexpr uint32_t VirtualSize = 8, VirtualAddress = 12, RawSize = 16, RawOffset = 20, Flags = 36;
// The file offset of what lies at Rva.
uint32_t FileOffset(uint32_t Rva);

} // namespace small_image

struct ImageExportOf {
    std::string Name;
    uint32_t Rva;
};

struct ImageParts {
    std::vector<std::string> KernelImports = {"ExRaiseStatus", "KeGetCurrentIrql", "__C_specific_handler"};
    std::string OtherImport = "ZelmCreateInstance";
    std::string OtherModule = "zelm.sys";
    std::vector<ImageExportOf> Exports = {{"CurrentIrql", small_image::IrqlFunction},
                                          {"Pointer", small_image::Pointer},
                                          {"Raise", small_image::RaisingFunction}};
};

std::vector<uint8_t> BuildSmallImage(const ImageParts &Parts = {});

// What lies beside it as small.pdb: it names the function Raise.
std::vector<uint8_t> BuildSmallPdb();

// A value of Width bytes at a file offset.
struct Patch {
    uint32_t Offset;
    uint64_t Value;
    uint32_t Width = 4;
};
// The file with these changes; an image has the right checksum then.
std::vector<uint8_t> Damaged(std::vector<uint8_t> File, const std::vector<Patch> &Patches, bool IsImage = true);

// Writes the right checksum into File, if that has a place for one.
void SetImageChecksum(std::span<uint8_t> File);

} // namespace test
