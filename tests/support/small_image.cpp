#include "tests/support/small_image.h"

#include <cstring>

#include "embedded/image/format.h"

namespace test {

namespace {

using namespace small_image;

constexpr uint32_t FileAlignment = 512;

struct SectionPlan {
    const char *Name;
    uint32_t Rva, MemoryBytes, FileBytes, FileOffset, Flags;
};

constexpr uint32_t Readable = 0x40000000, Writable = 0x80000000, Executable = 0x20000000, Discardable = 0x02000000;
constexpr SectionPlan Plans[] = {{".text", Code, 0x80, 0x200, 0x400, Executable | Readable},
                                 {".rdata", Constants, 0x600, 0x600, 0x600, Readable},
                                 {".data", Variables, 0x1800, 0x200, 0xC00, Readable | Writable},
                                 {".pdata", Functions, 36, 0x200, 0xE00, Readable},
                                 {"INIT", Start, 3, 0x200, 0x1000, Executable | Readable | Discardable},
                                 {".reloc", Moves, 12, 0x200, 0x1200, Readable | Discardable}};
constexpr uint32_t FileBytes = 0x1400;

class Builder {
public:
    Builder() : Bytes_(FileBytes) {
    }

    template <typename T>
    void Put(uint32_t Offset, T Value) {
        memcpy(&Bytes_.at(Offset + sizeof(T) - 1) - (sizeof(T) - 1), &Value, sizeof(T));
    }
    void PutWords(uint32_t Rva, std::initializer_list<uint32_t> Values) {
        for (uint32_t Offset = FileOffset(Rva); const uint32_t Value : Values) {
            Put(Offset, Value);
            Offset += 4;
        }
    }
    void PutBytes(uint32_t Offset, std::initializer_list<int> Values) {
        for (const int Value : Values) {
            Put(Offset++, static_cast<uint8_t>(Value));
        }
    }
    // Where the text came to lie.
    uint32_t PutText(const std::string &Text) {
        const uint32_t Rva = NextText_;
        memcpy(&Bytes_.at(FileOffset(Rva) + Text.size()) - Text.size(), Text.c_str(), Text.size() + 1);
        NextText_ += static_cast<uint32_t>(Text.size() + 2) & ~1u;
        return Rva;
    }
    uint32_t PutHintAndText(const std::string &Text) {
        NextText_ += 2;
        return PutText(Text) - 2;
    }
    // The four bytes that lead from the instruction that ends behind them to Rva.
    void PutDistance(uint32_t At, uint32_t Rva) {
        Put(FileOffset(At), Rva - (At + 4));
    }
    std::vector<uint8_t> Take() {
        return std::move(Bytes_);
    }

private:
    std::vector<uint8_t> Bytes_;
    uint32_t NextText_ = Constants + 0x380;
};

void PutHeaders(Builder &File) {
    File.PutBytes(0, {'M', 'Z'});
    File.Put(0x3C, Pe);
    File.PutBytes(Pe, {'P', 'E', 0, 0, 0x64, 0x86, std::size(Plans), 0});
    File.Put(Pe + 20, uint16_t{240});
    File.Put(Pe + 22, uint16_t{0x22});
    File.Put(Optional, uint16_t{0x20B});
    File.Put(Optional + 16, Start);
    File.Put(Optional + 24, PreferredBase);
    File.Put(Optional + 32, uint32_t{4096});
    File.Put(Optional + 36, FileAlignment);
    File.Put(Optional + 56, End);
    File.Put(Optional + 60, uint32_t{0x400});
    File.Put(Optional + 68, uint16_t{1});
    File.Put(Optional + 108, uint32_t{16});
    constexpr struct {
        uint32_t Number, Rva, Bytes;
    } Directories[] = {
        {0, ExportTable, 40}, {1, ImportTable, 60}, {3, Functions, 36}, {5, Moves, 12}, {6, DebugTable, 28}};
    for (const auto &Each : Directories) {
        File.Put(Directory(Each.Number), Each.Rva);
        File.Put(Directory(Each.Number) + 4, Each.Bytes);
    }
    uint32_t Header = SectionTable;
    for (const SectionPlan &Plan : Plans) {
        for (uint32_t At = 0; Plan.Name[At] != 0; ++At) {
            File.Put(Header + At, Plan.Name[At]);
        }
        File.Put(Header + 8, Plan.MemoryBytes);
        File.Put(Header + 12, Plan.Rva);
        File.Put(Header + 16, Plan.FileBytes);
        File.Put(Header + 20, Plan.FileOffset);
        File.Put(Header + 36, Plan.Flags);
        Header += 40;
    }
}

void PutCode(Builder &File) {
    // sub rsp, 28h; mov ecx, C0000005h; call [ExRaiseStatus]; xor eax, eax; add rsp, 28h; ret
    File.PutBytes(FileOffset(RaisingFunction), {0x48, 0x83, 0xEC, 0x28, 0xB9, 5, 0, 0, 0xC0, 0xFF, 0x15});
    File.PutDistance(RaisingFunction + 11, KernelSlots);
    File.PutBytes(FileOffset(RaisingReturn), {0x31, 0xC0, 0x48, 0x83, 0xC4, 0x28, 0xC3});
    // add rsp, 28h; ret
    File.PutBytes(FileOffset(RaisingTarget), {0x48, 0x83, 0xC4, 0x28, 0xC3});
    // jmp [__C_specific_handler]
    File.PutBytes(FileOffset(HandlerJump), {0xFF, 0x25});
    File.PutDistance(HandlerJump + 2, KernelSlots + 16);
    // sub rsp, 28h; call [KeGetCurrentIrql]; add rsp, 28h; ret
    File.PutBytes(FileOffset(IrqlFunction), {0x48, 0x83, 0xEC, 0x28, 0xFF, 0x15});
    File.PutDistance(IrqlFunction + 6, KernelSlots + 8);
    File.PutBytes(FileOffset(IrqlFunction) + 10, {0x48, 0x83, 0xC4, 0x28, 0xC3});
    // mov eax, 1; ret
    File.PutBytes(FileOffset(FilterFunction), {0xB8, 1, 0, 0, 0, 0xC3});
    // xor eax, eax; ret
    File.PutBytes(FileOffset(Start), {0x31, 0xC0, 0xC3});
}

void PutUnwindData(Builder &File) {
    File.PutWords(Functions, {RaisingFunction, RaisingTarget + 5, RaisingUnwind, IrqlFunction, IrqlFunction + 15,
                              PlainUnwind, Start, Start + 3, EmptyUnwind});
    // version 1; prolog of 4 bytes; one code: 28h bytes of stack
    File.PutWords(RaisingUnwind, {0x00010409, 0x00004204, HandlerJump, 1, RaisingFunction + 9, RaisingReturn + 1,
                                  FilterFunction, RaisingTarget});
    File.PutWords(PlainUnwind, {0x00010401, 0x00004204});
    File.PutWords(EmptyUnwind, {0x00000001});
}

void PutImports(Builder &File, const ImageParts &Parts) {
    for (uint32_t Index = 0; Index < Parts.KernelImports.size(); ++Index) {
        const uint32_t Name = File.PutHintAndText(Parts.KernelImports[Index]);
        File.Put(FileOffset(KernelNames) + 8 * Index, uint64_t{Name});
        File.Put(FileOffset(KernelSlots) + 8 * Index, uint64_t{Name});
    }
    const uint32_t Name = File.PutHintAndText(Parts.OtherImport);
    File.Put(FileOffset(ZelmNames), uint64_t{Name});
    File.Put(FileOffset(ZelmSlots), uint64_t{Name});
    File.PutWords(ImportTable, {KernelNames, 0, 0, File.PutText("NTOSKRNL.exe"), KernelSlots, ZelmNames, 0, 0,
                                File.PutText(Parts.OtherModule), ZelmSlots});
}

void PutExports(Builder &File, const ImageParts &Parts) {
    const auto Count = static_cast<uint32_t>(Parts.Exports.size());
    File.PutWords(ExportTable,
                  {0, 0, 0, File.PutText("small.sys"), 1, Count, Count, ExportAddresses, ExportNames, ExportOrdinals});
    for (uint32_t Index = 0; Index < Count; ++Index) {
        File.Put(FileOffset(ExportAddresses) + 4 * Index, Parts.Exports[Index].Rva);
        File.Put(FileOffset(ExportNames) + 4 * Index, File.PutText(Parts.Exports[Index].Name));
        File.Put(FileOffset(ExportOrdinals) + 2 * Index, static_cast<uint16_t>(Index));
    }
}

constexpr std::initializer_list<int> Guid = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

} // namespace

uint32_t small_image::FileOffset(uint32_t Rva) {
    for (const SectionPlan &Plan : Plans) {
        if (Rva >= Plan.Rva && Rva - Plan.Rva < Plan.FileBytes) {
            return Plan.FileOffset + (Rva - Plan.Rva);
        }
    }
    return FileBytes;
}

std::vector<uint8_t> BuildSmallImage(const ImageParts &Parts) {
    Builder File;
    PutHeaders(File);
    PutCode(File);
    PutUnwindData(File);
    PutImports(File, Parts);
    PutExports(File, Parts);
    File.PutWords(DebugTable, {0, 0, 0, 2, 34, DebugEntry, FileOffset(DebugEntry)});
    File.PutBytes(FileOffset(DebugEntry), {'R', 'S', 'D', 'S'});
    File.PutBytes(FileOffset(DebugEntry) + 4, Guid);
    File.Put(FileOffset(DebugEntry) + 20, uint32_t{1}); // the age
    File.PutBytes(FileOffset(DebugEntry) + 24,
                  {'C', ':', '\\', 'x', '\\', 's', 'm', 'a', 'l', 'l', '.', 'p', 'd', 'b', 0});
    File.Put(FileOffset(Pointer), PreferredBase + Text);
    File.PutBytes(FileOffset(Text), {'t', 'e', 'x', 't', 0});
    // One block: the pointer, and an entry that fills it up.
    File.PutWords(Moves, {Variables, 12, 0xA000 | (Pointer - Variables)});
    std::vector<uint8_t> Bytes = File.Take();
    SetImageChecksum(Bytes);
    return Bytes;
}

std::vector<uint8_t> BuildSmallPdb() {
    constexpr uint32_t Block = 512, Map = Block, Directory = 2 * Block, Information = 3 * Block, Debug = 4 * Block,
                       Symbols = 5 * Block, SymbolBytes = 32;
    constexpr char Magic[] = "Microsoft C/C++ MSF 7.00\r\n\x1A\x44\x53\0\0";
    Builder File;
    for (uint32_t At = 0; At < 32; ++At) {
        File.Put(At, Magic[At]);
    }
    const auto PutWords = [&File](uint32_t Offset, std::initializer_list<uint32_t> Values) {
        for (const uint32_t Value : Values) {
            File.Put(Offset, Value);
            Offset += 4;
        }
    };
    PutWords(32, {Block, 1, 6, 9 * 4, 0, Map / Block});
    PutWords(Map, {Directory / Block});
    // Five streams, their lengths, and the block of each that has one.
    PutWords(Directory, {5, 0, 28, 0, 64, SymbolBytes, Information / Block, Debug / Block, Symbols / Block});
    PutWords(Information, {20000404, 0, 1});
    File.PutBytes(Information + 12, Guid);
    PutWords(Debug, {0xFFFFFFFF, 19990903, 1, 0, 0, 4});
    // A record of another kind, then a public symbol: kind, flags, offset, segment, name.
    PutWords(Symbols, {0x11250006, 0});
    PutWords(Symbols + 8, {0x110E0016, 2, small_image::RaisingFunction - Code});
    File.PutBytes(Symbols + 20, {1, 0, 'R', 'a', 'i', 's', 'e', 0});
    std::vector<uint8_t> Bytes = File.Take();
    Bytes.resize(6 * Block);
    return Bytes;
}

std::vector<uint8_t> Damaged(std::vector<uint8_t> File, const std::vector<Patch> &Patches, bool IsImage) {
    for (const Patch &Change : Patches) {
        memcpy(&File.at(Change.Offset + Change.Width - 1) - (Change.Width - 1), &Change.Value, Change.Width);
    }
    if (IsImage) {
        SetImageChecksum(File);
    }
    return File;
}

void SetImageChecksum(std::span<uint8_t> File) {
    uint32_t Header = 0;
    if (File.size() >= 0x40) {
        memcpy(&Header, File.data() + 0x3C, sizeof(Header));
    }
    const uint64_t Field = uint64_t{Header} + 24 + 64;
    if (Header == 0 || Field + 4 > File.size()) {
        return;
    }
    const uint32_t Checksum = embedded::ImageChecksum(File, Field);
    memcpy(File.data() + Field, &Checksum, sizeof(Checksum));
}

} // namespace test
