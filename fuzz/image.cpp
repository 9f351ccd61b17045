#include "fuzz/image.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "embedded/image/symbols.h"
#include "embedded/image/unwind.h"
#include "embedded/loader/driver_image.h"
#include "fuzz/require.h"
#include "tests/support/small_image.h"

namespace fuzz {

namespace {

using namespace embedded;

bool IsInASection(const ImageFormat &Format, uint64_t Rva, uint64_t Bytes) {
    return std::any_of(Format.Sections.begin(), Format.Sections.end(), [=](const ImageSection &Each) {
        return Rva >= Each.Rva && Rva + Bytes <= uint64_t{Each.Rva} + Each.Size;
    });
}

void CheckFormat(const ImageFormat &Format, size_t FileBytes) {
    uint64_t Next = Format.HeaderSize;
    for (const ImageSection &Each : Format.Sections) {
        Require(Each.Rva >= Next && Each.Size != 0, "sections lie behind each other");
        Require(Each.FileBytes <= Each.Size, "a section's bytes have room in memory");
        Require(uint64_t{Each.FileOffset} + Each.FileBytes <= FileBytes, "a section's bytes lie in the file");
        Require(!Each.Executable || !Each.Writable, "code is not writable");
        Next = uint64_t{Each.Rva} + Each.Size;
    }
    Require(Next <= Format.ImageSize && Format.HeaderSize <= FileBytes, "everything lies in the image");
    for (const uint32_t Rva : Format.Relocations) {
        Require(IsInASection(Format, Rva, 8), "relocations lie in sections");
    }
    for (const ImageImport &Each : Format.Imports) {
        Require(IsInASection(Format, Each.SlotRva, 8), "imports lie in sections");
    }
    for (const ImageExport &Each : Format.Exports) {
        Require(IsInASection(Format, Each.Rva, 1), "exports lie in sections");
    }
    Require(Format.UnwindBytes == 0 || IsInASection(Format, Format.UnwindRva, Format.UnwindBytes),
            "the unwind table lies in a section");
}

void CheckScopes(const LoadedImage &Image, uint64_t Rip, const ImageFrame &At) {
    std::vector<ImageScope> Scopes;
    if (ReadImageScopes(Image, Rip, At, &Scopes) != nullptr) {
        return;
    }
    for (const ImageScope &Each : Scopes) {
        Require(Image.IsCode(Each.Target != 0 ? Each.Target : Each.Handler), "a scope leads to code");
        Require(Each.Handler == 1 || Image.IsCode(Each.Handler), "a filter is code");
        Require(&Each == &Scopes[0] || Each.Number > (&Each)[-1].Number, "scopes come in the table's order");
    }
}

// From Rip up a stack whose words lead into the image, and to the stack itself.
void Walk(const LoadedImage &Image, uint64_t Rip) {
    alignas(16) uint64_t Stack[128];
    const auto Low = reinterpret_cast<uintptr_t>(Stack), High = reinterpret_cast<uintptr_t>(std::end(Stack));
    for (size_t Index = 0; Index < std::size(Stack); ++Index) {
        Stack[Index] = Index % 4 == 3 ? Low + 8 * Index : Rip + Index;
    }
    UnwindContext Context = {};
    Context.Rip = Rip;
    std::fill(std::begin(Context.Registers), std::end(Context.Registers), Low + 256);
    Context.Registers[StackPointer] = Low;
    for (size_t Frames = 0; Image.Contains(reinterpret_cast<void *>(Context.Rip)); ++Frames) {
        const uint64_t Before = Context.Registers[StackPointer], Place = Context.Rip;
        ImageFrame Left;
        if (!UnwindImageFrame(Image, &Context, Low, High, &Left)) {
            return;
        }
        CheckScopes(Image, Place, Left);
        const uint64_t Now = Context.Registers[StackPointer];
        Require(Now > Before && Now <= High, "a walk goes up its stack");
        Require(Frames < std::size(Stack), "a walk has an end");
    }
}

void WalkAll(const LoadedImage &Image) {
    // The places of a large table are much alike.
    constexpr uint32_t EntryBytes = 12, MostEntries = 256;
    const ImageFormat &Format = Image.Format();
    for (uint32_t At = 0; At < std::min(Format.UnwindBytes, MostEntries * EntryBytes); At += EntryBytes) {
        uint32_t Bounds[2];
        memcpy(Bounds, Image.Base() + Format.UnwindRva + At, sizeof(Bounds));
        for (const uint32_t Rva : {Bounds[0], Bounds[0] + 3, Bounds[0] + 40, Bounds[1] - 1, Bounds[1]}) {
            Walk(Image, reinterpret_cast<uint64_t>(Image.Base()) + Rva);
        }
    }
}

} // namespace

void RunImage(const uint8_t *Data, size_t Size) {
    std::vector<uint8_t> Bytes(Data, Data + Size);
    test::SetImageChecksum(Bytes);
    ImageFormat Format;
    const auto Reasons = ReadImageFormat(Bytes, &Format);
    for (const std::string &Reason : Reasons) {
        Require(!Reason.empty() && Reason.find_first_of("\n\r\x1B") == std::string::npos, "a reason is one line");
    }
    if (!Reasons.empty()) {
        return;
    }
    CheckFormat(Format, Bytes.size());
    ImageOptions Options;
    Options.Modules = {{"zelm.sys", "ZelmCreateInstance", reinterpret_cast<void *>(&RunImage), 4}};
    Options.Recording = Size % 2 == 0 ? CallRecording::None : CallRecording::Counted;
    try {
        DriverImage Image("/no/such/folder/fuzzed.sys", Bytes, Options);
        WalkAll(Image);
        Image.DiscardStartSections();
        WalkAll(Image);
        for (const uint64_t Rva : {uint64_t{0}, uint64_t{Format.EntryRva}, uint64_t{Format.ImageSize} - 1}) {
            Require(ImageOf(Image.Base() + Rva) == &Image, "an image is found by its addresses");
            DescribeImageAddress(Image, Image.Base() + Rva);
        }
    } catch (const ImageError &) {
        // An import or a layout that this kernel does not have.
    }
}

void RunDebugInformation(const uint8_t *Data, size_t Size) {
    try {
        const PdbSymbols Symbols(std::vector<uint8_t>(Data, Data + Size));
        for (const auto &[Name, Place] : Symbols.Publics()) {
            Require(Name.size() <= Size, "a name lies in the file");
        }
    } catch (const std::runtime_error &) {
        // The reason, for people.
    }
}

} // namespace fuzz
