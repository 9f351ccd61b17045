// Names for addresses inside loaded images, from the debug information beside them.
//
// Function and line come from llvm-symbolizer, asked once an address; without it, and for addresses by name, the PDB's
// public symbols are read here. Everything may block (files, a child process); nothing is called while a lock of the
// kernel is held by the caller except to report a fault.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "embedded/image/format.h"

namespace embedded {

class LoadedImage;

// Which build the PDB in File belongs to. Throws std::runtime_error with the reason when it is none.
PdbIdentity ReadPdbIdentity(const std::filesystem::path &File);

// The public symbols of a PDB: segment (from 1) and offset by name.
class PdbSymbols {
public:
    // Reads File; nothing is believed that was not compared with its length. Throws std::runtime_error with the reason
    // when it is no PDB.
    explicit PdbSymbols(const std::filesystem::path &File);
    // The same for the bytes of a file.
    explicit PdbSymbols(std::vector<uint8_t> Bytes);

    const PdbIdentity &Identity() const {
        return Identity_;
    }
    struct Place {
        uint16_t Segment;
        uint32_t Offset;
    };
    const std::map<std::string, Place, std::less<>> &Publics() const {
        return Publics_;
    }

private:
    PdbIdentity Identity_;
    std::map<std::string, Place, std::less<>> Publics_;
};

// "RVFSD.sys!NtFsdCommonRead driver\io\read.cpp:68", or with less where less is known:
// "RVFSD.sys!NtFsdCommonRead+0x1c", "RVFSD.sys!0x1234". Address lies in Image; one behind the first byte of a function
// is taken for where a call returns to.
std::string DescribeImageAddress(const LoadedImage &Image, const void *Address);

} // namespace embedded
