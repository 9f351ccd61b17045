// The file format of Windows images (PE32+): reads the bytes of a driver's file and says what stands in it, or why it
// cannot be loaded.
//
// The bytes come from outside: nothing in them is believed before it was compared with the size of the file and of the
// image. Nothing is mapped, allocated for the image or run here. Safe for any input; time is linear in its length.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace embedded {

// Everything below is in bytes; an Rva is an offset from where the image is mapped.
struct ImageSection {
    std::string Name; // made printable
    uint32_t Rva;
    uint32_t Size;       // in memory, rounded up to pages
    uint32_t FileOffset; // of FileBytes bytes; the rest of the section is zero
    uint32_t FileBytes;
    bool Executable;
    bool Writable;
    bool Readable;
    bool Discardable; // needed only while the driver starts
};

struct ImageImport {
    std::string Module; // in lower case
    std::string Name;
    uint32_t SlotRva; // of the eight bytes that receive the address
};

struct ImageExport {
    std::string Name;
    uint32_t Rva;
};

// Which build debug information belongs to.
struct PdbIdentity {
    std::array<uint8_t, 16> Guid = {};
    uint32_t Age = 0; // of one identifier, grows with each change that an image has to know

    auto operator<=>(const PdbIdentity &) const = default;
};

struct ImageFormat {
    uint64_t PreferredBase = 0;
    uint32_t ImageSize = 0;
    uint32_t HeaderSize = 0;
    uint32_t EntryRva = 0;
    uint32_t Checksum = 0;
    std::vector<ImageSection> Sections; // ascending, one behind the other
    std::vector<uint32_t> Relocations;  // of 64-bit addresses, each wholly inside one section
    std::vector<ImageImport> Imports;   // in the order of the file
    std::vector<ImageExport> Exports;   // by name
    uint32_t UnwindRva = 0;             // table of function entries, sorted, checked
    uint32_t UnwindBytes = 0;
    PdbIdentity Pdb;     // of the debug information the image was linked with
    std::string PdbName; // empty: none
};

// Reads File into *Format and returns why it cannot be loaded, one line a reason, without a trailing period; empty when
// it can. *Format is complete only then. Later reasons are left out where they would follow from an earlier one.
std::vector<std::string> ReadImageFormat(std::span<const uint8_t> File, ImageFormat *Format);

// The checksum that belongs into a header whose checksum field stands at FieldOffset: the file's 16-bit words added up
// with end-around carry, the field taken as zero, plus the length.
uint32_t ImageChecksum(std::span<const uint8_t> File, size_t FieldOffset);

} // namespace embedded
