// How the bytes of an image's file are read: what format.cpp and format_directories.cpp share.
#pragma once

#include <algorithm>
#include <cstring>
#include <optional>

#include <fmt/format.h>

#include "embedded/image/format.h"

namespace embedded {

// The data directories, by their place in the header.
enum ImageDirectory {
    Exports,
    Imports,
    Resources,
    Exceptions,
    Certificates,
    Relocations,
    Debug,
    Architecture,
    GlobalPointer,
    ThreadLocal,
    LoadConfig,
    BoundImports,
    ImportTable,
    DelayImports,
    ManagedCode,
    Reserved
};

// What a directory says of its table.
struct ImageRange {
    uint32_t Rva = 0;
    uint32_t Size = 0;

    bool Present() const {
        return Rva != 0 || Size != 0;
    }
};

// What a person may see of a name in the file.
inline std::string Printable(std::string_view Raw) {
    std::string Text;
    for (const char Each : Raw.substr(0, 64)) {
        Text += Each >= ' ' && Each < 0x7F ? Each : '?';
    }
    return Text;
}

// Names go into lines for people as they are: a terminal must not take them for commands.
inline bool IsName(std::string_view Text) {
    return !Text.empty() && std::all_of(Text.begin(), Text.end(), [](char Each) { return Each > ' ' && Each < 0x7F; });
}

// Reads one file: headers and sections first (format.cpp), then what the data directories lead to
// (format_directories.cpp). Each refusal is a reason; each step stands on what the one before it has checked.
class ImageReader {
public:
    ImageReader(std::span<const uint8_t> File, ImageFormat *Format) : File_(File), Format_(*Format) {
    }

    std::vector<std::string> Read() {
        if (ReadHeaders() && ReadSections()) {
            ReadExports();
            ReadImports();
            ReadRelocations();
            ReadUnwindTable();
            ReadDebugDirectory();
            ReadLoadConfiguration();
        }
        return std::move(Reasons_);
    }

private:
    template <typename... Args>
    bool Refuse(fmt::format_string<Args...> Format, Args &&...Values) {
        // A hostile file has room for millions of faults.
        if (Reasons_.size() < 32) {
            Reasons_.push_back(fmt::format(Format, std::forward<Args>(Values)...));
        }
        return false;
    }

    template <typename T>
    std::optional<T> At(uint64_t Offset) const {
        if (Offset > File_.size() || File_.size() - Offset < sizeof(T)) {
            return std::nullopt;
        }
        T Value;
        memcpy(&Value, File_.data() + Offset, sizeof(T));
        return Value;
    }
    // The field of a record that is known to lie in the file.
    template <typename T>
    T Field(uint64_t Offset) const {
        return At<T>(Offset).value_or(T{});
    }

    bool ReadHeaders();
    bool ReadOptionalHeader(uint64_t Optional, uint16_t OptionalSize);
    bool CheckDirectories();
    bool ReadSections();
    bool ReadSection(uint64_t Header, uint64_t *NextRva);
    void ReadExports();
    void ReadImports();
    bool ReadImportsOf(const std::string &Module, uint32_t Names, uint32_t Slots);
    void CheckSlots();
    void ReadRelocations();
    bool ReadRelocationBlock(uint32_t Page, uint64_t Offset, uint32_t Count);
    void ReadUnwindTable();
    void ReadDebugDirectory();
    void ReadLoadConfiguration();

    static bool LiesIn(const ImageSection &Section, uint64_t Rva, uint64_t Size) {
        return Rva >= Section.Rva && Rva - Section.Rva < Section.Size && Size <= Section.Size - (Rva - Section.Rva);
    }
    const ImageSection *SectionOf(uint64_t Rva, uint64_t Size) const {
        const auto Behind = std::partition_point(Format_.Sections.begin(), Format_.Sections.end(),
                                                 [Rva](const ImageSection &Each) { return Each.Rva <= Rva; });
        if (Behind == Format_.Sections.begin()) {
            return nullptr;
        }
        const ImageSection &Section = *std::prev(Behind);
        return LiesIn(Section, Rva, Size) ? &Section : nullptr;
    }
    // Where Size bytes at Rva stand in the file; nothing when they are not all there.
    std::optional<uint64_t> OffsetOf(uint64_t Rva, uint64_t Size) const {
        const ImageSection *Section = SectionOf(Rva, Size);
        if (Section == nullptr || Rva - Section->Rva > Section->FileBytes ||
            Size > Section->FileBytes - (Rva - Section->Rva)) {
            return std::nullopt;
        }
        return Section->FileOffset + (Rva - Section->Rva);
    }
    template <typename T>
    std::optional<T> AtRva(uint64_t Rva) const {
        const auto Offset = OffsetOf(Rva, sizeof(T));
        return Offset ? At<T>(*Offset) : std::nullopt;
    }
    std::optional<std::string> TextAtRva(uint64_t Rva) const {
        const ImageSection *Section = SectionOf(Rva, 1);
        if (Section == nullptr || Rva - Section->Rva >= Section->FileBytes) {
            return std::nullopt;
        }
        const auto *Begin = reinterpret_cast<const char *>(File_.data()) + Section->FileOffset + (Rva - Section->Rva);
        const size_t Room = std::min<size_t>(Section->FileBytes - (Rva - Section->Rva), 512);
        const size_t Length = strnlen(Begin, Room);
        return Length == Room ? std::nullopt : std::optional(std::string(Begin, Length));
    }

    std::span<const uint8_t> File_;
    ImageFormat &Format_;
    std::vector<std::string> Reasons_;
    uint64_t SectionTable_ = 0;
    uint16_t SectionCount_ = 0;
    uint32_t FileAlignment_ = 0;
    bool Fixed_ = false; // has no relocations
    ImageRange Directories_[16];
};

} // namespace embedded
