#include "embedded/image/symbols.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <vector>

#include <cxxabi.h>
#include <fmt/format.h>

#include "embedded/image/loaded_image.h"

extern char **environ;

namespace embedded {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes ReadFile(const std::filesystem::path &File) {
    constexpr uintmax_t LargestFile = 1024 * 1024 * 1024;
    std::error_code Error;
    const uintmax_t Size = std::filesystem::file_size(File, Error);
    if (Error || Size > LargestFile) {
        throw std::runtime_error(Error ? "cannot be read" : "too large for debug information");
    }
    Bytes Content(Size);
    std::ifstream Stream(File, std::ios::binary);
    if (!Stream.read(reinterpret_cast<char *>(Content.data()), static_cast<std::streamsize>(Size))) {
        throw std::runtime_error("cannot be read");
    }
    return Content;
}

// The multi-stream file a PDB is: streams of blocks, found through a directory that is itself one.
class StreamFile {
public:
    explicit StreamFile(Bytes Content) : File_(std::move(Content)) {
        constexpr char Magic[] = "Microsoft C/C++ MSF 7.00\r\n\x1A\x44\x53\0\0";
        if (File_.size() < 56 || memcmp(File_.data(), Magic, 32) != 0) {
            throw std::runtime_error("not a PDB");
        }
        BlockBytes_ = Word(File_, 32);
        const uint32_t DirectoryBytes = Word(File_, 44);
        if (BlockBytes_ < 512 || BlockBytes_ > 65536 || !std::has_single_bit(BlockBytes_) ||
            DirectoryBytes > File_.size()) {
            throw std::runtime_error("damaged: its first block does not make sense");
        }
        const size_t Blocks = (size_t{DirectoryBytes} + BlockBytes_ - 1) / BlockBytes_;
        const Bytes Map = Gather({Word(File_, 52)}, std::min<size_t>(Blocks * 4, BlockBytes_));
        std::vector<uint32_t> Numbers;
        for (size_t At = 0; At + 4 <= Map.size(); At += 4) {
            Numbers.push_back(Word(Map, At));
        }
        Directory_ = Gather(Numbers, DirectoryBytes);
    }

    Bytes Stream(uint32_t Number) const {
        const uint32_t Count = Word(Directory_, 0);
        if (Number >= Count || Count > Directory_.size() / 4) {
            throw std::runtime_error("damaged: a stream is missing");
        }
        size_t At = 4 + size_t{Count} * 4;
        const auto BlocksOf = [&](uint32_t Each) -> size_t {
            const uint32_t Size = Word(Directory_, 4 + size_t{Each} * 4);
            return Size == UINT32_MAX ? 0 : (size_t{Size} + BlockBytes_ - 1) / BlockBytes_;
        };
        for (uint32_t Each = 0; Each < Number; ++Each) {
            At += 4 * BlocksOf(Each);
        }
        const size_t Blocks = BlocksOf(Number);
        if (Blocks > File_.size() / BlockBytes_ + 1) {
            throw std::runtime_error("damaged: a stream is longer than the file");
        }
        std::vector<uint32_t> Numbers(Blocks);
        for (size_t Index = 0; Index < Blocks; ++Index) {
            Numbers[Index] = Word(Directory_, At + 4 * Index);
        }
        return Blocks == 0 ? Bytes() : Gather(Numbers, Word(Directory_, 4 + size_t{Number} * 4));
    }

    static uint32_t Word(const Bytes &From, size_t At) {
        uint32_t Value;
        if (From.size() < 4 || At > From.size() - 4) {
            throw std::runtime_error("damaged: it ends too early");
        }
        memcpy(&Value, From.data() + At, 4);
        return Value;
    }

private:
    Bytes Gather(const std::vector<uint32_t> &Numbers, size_t Length) const {
        Bytes Result;
        for (const uint32_t Number : Numbers) {
            const size_t Begin = size_t{Number} * BlockBytes_;
            const size_t Part = std::min<size_t>(BlockBytes_, Length - Result.size());
            if (Begin > File_.size() || File_.size() - Begin < Part) {
                throw std::runtime_error("damaged: a block lies past its end");
            }
            Result.insert(Result.end(), File_.begin() + static_cast<ptrdiff_t>(Begin),
                          File_.begin() + static_cast<ptrdiff_t>(Begin + Part));
        }
        if (Result.size() != Length) {
            throw std::runtime_error("damaged: a stream has too few blocks");
        }
        return Result;
    }

    Bytes File_;
    uint32_t BlockBytes_ = 0;
    Bytes Directory_;
};

PdbIdentity IdentityOf(const StreamFile &Streams) {
    constexpr size_t GuidAt = 12, AgeAt = 8;
    PdbIdentity Identity;
    const Bytes Information = Streams.Stream(1);
    if (Information.size() < GuidAt + Identity.Guid.size()) {
        throw std::runtime_error("damaged: it has no identifier");
    }
    memcpy(Identity.Guid.data(), Information.data() + GuidAt, Identity.Guid.size());
    // Not the age beside the identifier: that also grows with changes that leave the image as it is.
    Identity.Age = StreamFile::Word(Streams.Stream(3), AgeAt);
    return Identity;
}

// What a program prints; empty when it cannot be run.
std::string OutputOf(std::vector<std::string> Words) {
    int Pipe[2];
    if (pipe2(Pipe, O_CLOEXEC) != 0) {
        return {};
    }
    posix_spawn_file_actions_t Actions;
    posix_spawn_file_actions_init(&Actions);
    posix_spawn_file_actions_adddup2(&Actions, Pipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&Actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&Actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char *> Arguments;
    for (std::string &Word : Words) {
        Arguments.push_back(Word.data());
    }
    Arguments.push_back(nullptr);
    pid_t Child = -1;
    const int Failed = posix_spawnp(&Child, Arguments[0], &Actions, nullptr, Arguments.data(), environ);
    posix_spawn_file_actions_destroy(&Actions);
    close(Pipe[1]);
    std::string Text;
    char Part[4096];
    for (ssize_t Got; Failed == 0 && (Got = TEMP_FAILURE_RETRY(read(Pipe[0], Part, sizeof(Part)))) > 0;) {
        Text.append(Part, static_cast<size_t>(Got));
    }
    close(Pipe[0]);
    int Status = -1;
    if (Failed == 0) {
        TEMP_FAILURE_RETRY(waitpid(Child, &Status, 0));
    }
    return Status == 0 ? Text : std::string();
}

// "Function file:line" and the functions that the compiler merged it into, from the symbolizer's pairs of lines; empty
// when it does not know the place.
std::string LinesOf(const std::string &Output) {
    std::vector<std::string> Lines;
    for (size_t At = 0; At < Output.size();) {
        const size_t End = std::min(Output.find('\n', At), Output.size());
        if (End > At) {
            Lines.push_back(Output.substr(At, End - At));
        }
        At = End + 1;
    }
    std::string Text;
    for (size_t Index = 0; Index + 1 < Lines.size(); Index += 2) {
        std::string Place = Lines[Index + 1];
        Place.erase(std::min(Place.rfind(':'), Place.size())); // the column
        if (!Place.starts_with("??")) {
            Text += fmt::format("{}{} {}", Text.empty() ? "" : ", merged into ", Lines[Index], Place);
        }
    }
    return Text;
}

// The names come out of a file, and go to a terminal.
std::string Printable(std::string Text) {
    const auto Control = [](unsigned char Each) { return Each < ' ' || Each == 0x7F; };
    std::replace_if(Text.begin(), Text.end(), Control, '?');
    return Text;
}

struct Cache {
    std::mutex Lock;
    std::map<std::filesystem::path, std::shared_ptr<const PdbSymbols>> Symbols;
    std::map<std::tuple<std::string, PdbIdentity, uint64_t>, std::string> Lines;
};

Cache &Known() {
    static auto &Instance = *new Cache;
    return Instance;
}

std::shared_ptr<const PdbSymbols> SymbolsOf(const LoadedImage &Image) {
    if (Image.Pdb().empty()) {
        return nullptr;
    }
    const std::lock_guard Hold(Known().Lock);
    auto &Found = Known().Symbols[Image.Pdb()];
    if (Found == nullptr || Found->Identity() != Image.Format().Pdb) {
        try {
            Found = std::make_shared<const PdbSymbols>(Image.Pdb());
        } catch (const std::runtime_error &) {
            // It was readable when the image was loaded: names are a courtesy from here on.
            return nullptr;
        }
    }
    // Built anew since: what it says is not about this image.
    return Found->Identity() == Image.Format().Pdb ? Found : nullptr;
}

// The file beside the image is still the one of its build: the symbolizer reads it anew, and does not compare.
bool IsPdbStillItsOwn(const LoadedImage &Image) {
    try {
        return ReadPdbIdentity(Image.Pdb()) == Image.Format().Pdb;
    } catch (const std::runtime_error &) {
        return false;
    }
}

std::optional<uint32_t> RvaOf(const LoadedImage &Image, const PdbSymbols::Place &Place) {
    const auto &Sections = Image.Format().Sections;
    if (Place.Segment == 0 || Place.Segment > Sections.size()) {
        return std::nullopt;
    }
    const ImageSection &Section = Sections[Place.Segment - 1u];
    return Place.Offset < Section.Size ? std::optional(Section.Rva + Place.Offset) : std::nullopt;
}

std::string Readable(const std::string &Name) {
    int Status = 0;
    char *Plain = abi::__cxa_demangle(Name.c_str(), nullptr, nullptr, &Status);
    std::string Text = Status == 0 ? Plain : Name;
    free(Plain);
    return Text;
}

// Whether Rva lies in a function and is not its first byte.
bool IsInsideFunction(const LoadedImage &Image, uint32_t Rva) {
    const char *Table = Image.Base() + Image.Format().UnwindRva;
    for (uint32_t At = 0; At < Image.Format().UnwindBytes; At += 12) {
        uint32_t Bounds[2];
        memcpy(Bounds, Table + At, sizeof(Bounds));
        if (Rva > Bounds[0] && Rva <= Bounds[1]) {
            return true;
        }
    }
    return false;
}

// The function before Rva, with the distance.
std::string NearestSymbol(const LoadedImage &Image, uint32_t Rva) {
    const auto Symbols = SymbolsOf(Image);
    if (Symbols == nullptr) {
        return fmt::format("0x{:x}", Rva);
    }
    const std::string *Best = nullptr;
    uint32_t BestRva = 0;
    for (const auto &[Name, Place] : Symbols->Publics()) {
        const auto Found = RvaOf(Image, Place);
        if (Found && *Found <= Rva && (Best == nullptr || *Found > BestRva)) {
            Best = &Name;
            BestRva = *Found;
        }
    }
    return Best == nullptr ? fmt::format("0x{:x}", Rva) : fmt::format("{}+0x{:x}", Readable(*Best), Rva - BestRva);
}

} // namespace

PdbIdentity ReadPdbIdentity(const std::filesystem::path &File) {
    return IdentityOf(StreamFile(ReadFile(File)));
}

PdbSymbols::PdbSymbols(const std::filesystem::path &File) : PdbSymbols(ReadFile(File)) {
}

PdbSymbols::PdbSymbols(std::vector<uint8_t> Bytes) {
    constexpr size_t PublicSymbol = 0x110E;
    const StreamFile Streams(std::move(Bytes));
    Identity_ = IdentityOf(Streams);
    const uint32_t Records = StreamFile::Word(Streams.Stream(3), 20) & 0xFFFF;
    const auto Symbols = Streams.Stream(Records);
    for (size_t At = 0; At + 4 <= Symbols.size();) {
        const uint32_t Head = StreamFile::Word(Symbols, At);
        const size_t Length = (Head & 0xFFFF) + 2;
        if (Length < 4 || Length > Symbols.size() - At) {
            throw std::runtime_error("damaged: a symbol reaches past the end");
        }
        if (Head >> 16 == PublicSymbol && Length > 14) {
            const auto *Name = reinterpret_cast<const char *>(Symbols.data()) + At + 14;
            const Place Where = {static_cast<uint16_t>(Symbols[At + 12] | Symbols[At + 13] << 8),
                                 StreamFile::Word(Symbols, At + 8)};
            Publics_.emplace(std::string(Name, strnlen(Name, Length - 14)), Where);
        }
        At += Length;
    }
}

std::string DescribeImageAddress(const LoadedImage &Image, const void *Address) {
    const auto Rva = static_cast<uint32_t>(static_cast<const char *>(Address) - Image.Base());
    const std::string Module = Image.File().filename().string() + "!";
    if (!Image.Pdb().empty()) {
        // Where a call returns to may belong to the next line, or to the next function.
        const uint32_t Place = IsInsideFunction(Image, Rva) ? Rva - 1 : Rva;
        const std::string File = Image.File().string();
        const uint64_t Asked = Image.Format().PreferredBase + Place;
        const std::lock_guard Hold(Known().Lock);
        auto [Found, New] = Known().Lines.try_emplace({File, Image.Format().Pdb, Asked});
        if (New && IsPdbStillItsOwn(Image)) {
            Found->second =
                LinesOf(OutputOf({"llvm-symbolizer", "--obj=" + File, "--inlines", fmt::format("0x{:x}", Asked)}));
        }
        if (!Found->second.empty()) {
            return Module + Printable(Found->second);
        }
    }
    return Module + Printable(NearestSymbol(Image, Rva));
}

} // namespace embedded
