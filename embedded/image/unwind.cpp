#include "embedded/image/unwind.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "embedded/base/thread.h"
#include "embedded/image/symbols.h"

namespace embedded {
namespace {

constexpr uint8_t ExceptionHandler = 1, TerminationHandler = 2, Chained = 4;
constexpr unsigned LongestChain = 32;

struct FunctionEntry {
    uint32_t Begin;
    uint32_t End;
    uint32_t Info;
};

// One table of unwind codes, taken apart.
struct UnwindTable {
    uint8_t Flags;
    uint8_t CodeCount;
    uint8_t FrameRegister;
    uint32_t FrameOffset;
    const uint16_t *Codes;
    const uint8_t *Behind; // the codes: a chained entry, or a handler and its data
};

class Walker {
public:
    Walker(const LoadedImage &Image, uintptr_t Low, uintptr_t High) : Image_(Image), Low_(Low), High_(High) {
    }

    // To the caller of *Context's frame. *Found tells of the frame that was left.
    bool Step(UnwindContext *Context, ImageFrame *Found) const;

    template <typename T>
    std::optional<T> InImage(uint64_t Rva) const {
        T Value;
        return ReadImage(Image_, Rva, &Value) ? std::optional(Value) : std::nullopt;
    }

private:
    template <typename T>
    bool Load(uint64_t Address, T *Value) const {
        if (Address < Low_ || Address + sizeof(T) > High_ || Address + sizeof(T) < Address) {
            return false;
        }
        memcpy(Value, reinterpret_cast<const void *>(Address), sizeof(T));
        return true;
    }
    const FunctionEntry *Find(uint32_t Rva) const;
    bool Read(uint32_t Info, UnwindTable *Table) const;
    bool Apply(const UnwindTable &Table, uint32_t PrologOffset, uint64_t Base, UnwindContext *Context) const;
    bool ApplyCode(const UnwindTable &Table, unsigned Index, uint64_t Base, UnwindContext *Context) const;

    const LoadedImage &Image_;
    uintptr_t Low_;
    uintptr_t High_;
};

const FunctionEntry *Walker::Find(uint32_t Rva) const {
    const ImageFormat &Format = Image_.Format();
    const auto *First = reinterpret_cast<const FunctionEntry *>(Image_.Base() + Format.UnwindRva);
    size_t Low = 0, High = Format.UnwindBytes / sizeof(FunctionEntry);
    while (Low < High) {
        const size_t Middle = (Low + High) / 2;
        if (Rva < First[Middle].Begin) {
            High = Middle;
        } else if (Rva >= First[Middle].End) {
            Low = Middle + 1;
        } else {
            return &First[Middle];
        }
    }
    return nullptr;
}

bool Walker::Read(uint32_t Info, UnwindTable *Table) const {
    const auto Header = InImage<uint32_t>(Info);
    if (!Header || Info % 4 != 0 || (*Header & 7) != 1) {
        return false;
    }
    Table->Flags = static_cast<uint8_t>((*Header & 0xFF) >> 3);
    Table->CodeCount = static_cast<uint8_t>(*Header >> 16);
    Table->FrameRegister = static_cast<uint8_t>(*Header >> 24 & 0xF);
    Table->FrameOffset = (*Header >> 28) * 16;
    const uint32_t CodeBytes = (Table->CodeCount + 1u) / 2 * 4;
    Table->Codes = reinterpret_cast<const uint16_t *>(Image_.Base() + Info + 4);
    Table->Behind = reinterpret_cast<const uint8_t *>(Table->Codes) + CodeBytes;
    // The codes, and a chained entry or a handler with the count of its scopes.
    const bool Followed = (Table->Flags & (ExceptionHandler | TerminationHandler | Chained)) != 0;
    return Image_.Readable(Image_.Base() + Info, 4 + CodeBytes + (Followed ? sizeof(FunctionEntry) : 0));
}

// How many of the table's words the code at Index takes, with its operand; 0 when it is unknown or not all there.
unsigned CodeLength(const UnwindTable &Table, unsigned Index) {
    constexpr unsigned Lengths[] = {1, 2, 1, 1, 2, 3, 1, 1, 2, 3};
    const unsigned Operation = Table.Codes[Index] >> 8 & 0xF;
    const bool LargeOperand = Operation == 1 && Table.Codes[Index] >> 12 == 1;
    const unsigned Length = Operation < std::size(Lengths) ? Lengths[Operation] + LargeOperand : 0;
    return Length <= Table.CodeCount - Index ? Length : 0;
}

bool Walker::ApplyCode(const UnwindTable &Table, unsigned Index, uint64_t Base, UnwindContext *Context) const {
    uint64_t *Registers = Context->Registers;
    const uint16_t Code = Table.Codes[Index];
    const unsigned Operation = Code >> 8 & 0xF, Operand = Code >> 12;
    const bool LargeOperand = Operation == 1 && Operand == 1;
    const uint16_t *Next = &Table.Codes[Index + 1];
    const auto Wide = [Next] { return Next[0] | uint32_t{Next[1]} << 16; };
    switch (Operation) {
    case 0: // pushed
        Registers[StackPointer] += 8;
        return Load(Registers[StackPointer] - 8, &Registers[Operand]);
    case 1:
        Registers[StackPointer] += LargeOperand ? Wide() : uint64_t{Next[0]} * 8;
        return true;
    case 2:
        Registers[StackPointer] += Operand * 8 + 8;
        return true;
    case 3:
        Registers[StackPointer] = Registers[Table.FrameRegister] - Table.FrameOffset;
        return true;
    case 4:
        return Load(Base + uint64_t{Next[0]} * 8, &Registers[Operand]);
    case 5:
        return Load(Base + Wide(), &Registers[Operand]);
    case 8:
        return Operand >= 6 && Load(Base + uint64_t{Next[0]} * 16, &Context->Xmm[Operand - 6]);
    case 9:
        return Operand >= 6 && Load(Base + Wide(), &Context->Xmm[Operand - 6]);
    default:
        return false;
    }
}

bool Walker::Apply(const UnwindTable &Table, uint32_t PrologOffset, uint64_t Base, UnwindContext *Context) const {
    for (unsigned Index = 0; Index < Table.CodeCount;) {
        const unsigned Length = CodeLength(Table, Index);
        const bool Done = (Table.Codes[Index] & 0xFF) <= PrologOffset;
        if (Length == 0 || (Done && !ApplyCode(Table, Index, Base, Context))) {
            return false;
        }
        Index += Length;
    }
    return true;
}

bool Walker::Step(UnwindContext *Context, ImageFrame *Found) const {
    *Found = {};
    uint64_t *Registers = Context->Registers;
    const uint64_t Left = Registers[StackPointer];
    const auto Rva = static_cast<uint32_t>(Context->Rip - reinterpret_cast<uint64_t>(Image_.Base()));
    Found->Establisher = Registers[StackPointer];
    if (const FunctionEntry *Entry = Find(Rva)) {
        UnwindTable Table;
        if (!Read(Entry->Info, &Table)) {
            return false;
        }
        if (Table.Flags & (ExceptionHandler | TerminationHandler)) {
            memcpy(&Found->Handler, Table.Behind, 4);
            Found->HandlerData = Table.Behind + 4;
        }
        if (Table.FrameRegister != 0) {
            Found->Establisher = Registers[Table.FrameRegister] - Table.FrameOffset;
        }
        // Handlers run on it, and go on there.
        if (Found->Establisher < Low_ || Found->Establisher >= High_) {
            return false;
        }
        uint32_t PrologOffset = Rva - Entry->Begin;
        for (unsigned Links = 0;; ++Links) {
            if (!Apply(Table, PrologOffset, Found->Establisher, Context)) {
                return false;
            }
            if (!(Table.Flags & Chained)) {
                break;
            }
            FunctionEntry Next;
            memcpy(&Next, Table.Behind, sizeof(Next));
            if (Links == LongestChain || !Read(Next.Info, &Table)) {
                return false;
            }
            PrologOffset = UINT32_MAX;
        }
    }
    Registers[StackPointer] += 8;
    // Callers lie above: whoever walks gets to an end.
    return Registers[StackPointer] > Left && Load(Registers[StackPointer] - 8, &Context->Rip);
}

// ---- Scopes ------------------------------------------------------------------------------------------------

// As they lie in the image.
struct ScopeEntry {
    uint32_t Begin;
    uint32_t End;
    uint32_t Handler;
    uint32_t Target;
};

// What a scope leads to is called, or jumped to.
bool LeadsToCode(const LoadedImage &Image, const ScopeEntry &Each) {
    const bool Always = Each.Target != 0 && Each.Handler == 1;
    return (Always || Image.IsCode(Each.Handler)) && (Each.Target == 0 || Image.IsCode(Each.Target));
}

} // namespace

bool UnwindImageFrame(const LoadedImage &Image, UnwindContext *Context, uintptr_t Low, uintptr_t High,
                      ImageFrame *Left) {
    ImageFrame Ignored;
    return Walker(Image, Low, High).Step(Context, Left != nullptr ? Left : &Ignored);
}

const ImageImport *HandlerOf(const LoadedImage &Image, const ImageFrame &At) {
    constexpr uint16_t JumpThrough = 0x25FF;
    const ImageImport *Import = ImportThrough(Image, At.Handler, JumpThrough);
    return Import != nullptr && Import->Name == "__C_specific_handler" ? Import : nullptr;
}

const char *ReadImageScopes(const LoadedImage &Image, uint64_t Rip, const ImageFrame &At,
                            std::vector<ImageScope> *Scopes) {
    Scopes->clear();
    if (At.HandlerData == nullptr) {
        return nullptr;
    }
    if (HandlerOf(Image, At) == nullptr) {
        return "a frame has a language handler other than __C_specific_handler";
    }
    const uint64_t Base = reinterpret_cast<uint64_t>(Image.Base());
    const uint64_t DataRva = reinterpret_cast<uint64_t>(At.HandlerData) - Base;
    uint32_t Count = 0;
    if (!ReadImage(Image, DataRva, &Count) || !Image.Readable(At.HandlerData, 4 + size_t{Count} * sizeof(ScopeEntry))) {
        return "a frame's scopes reach past the image";
    }
    for (uint32_t Number = 0; Number < Count; ++Number) {
        ScopeEntry Each;
        memcpy(&Each, At.HandlerData + 4 + size_t{Number} * sizeof(Each), sizeof(Each));
        if (Rip - Base < Each.Begin || Rip - Base >= Each.End) {
            continue;
        }
        if (!LeadsToCode(Image, Each)) {
            return "a frame's scope leads to a place that is no code";
        }
        Scopes->push_back({Number, Each.Handler, Each.Target});
    }
    return nullptr;
}

const ImageImport *ImportThrough(const LoadedImage &Image, uint64_t Rva, uint16_t Opcode) {
    uint16_t Code;
    int32_t Distance;
    if (!ReadImage(Image, Rva, &Code) || Code != Opcode || !ReadImage(Image, Rva + 2, &Distance)) {
        return nullptr;
    }
    const uint64_t SlotRva = Rva + 6 + static_cast<int64_t>(Distance);
    const auto &Imports = Image.Format().Imports;
    const auto Found = std::find_if(Imports.begin(), Imports.end(),
                                    [SlotRva](const ImageImport &Each) { return Each.SlotRva == SlotRva; });
    return Found == Imports.end() ? nullptr : &*Found;
}

std::string DescribeImageFrames(const LoadedImage &Image, const UnwindContext &From, UnwindContext *Behind) {
    const KThread &Thread = CurrentThread();
    UnwindContext At = From;
    *Behind = {};
    std::string Text;
    for (unsigned Depth = 0; Depth < DeepestImageStack; ++Depth) {
        if (!Image.Contains(reinterpret_cast<void *>(At.Rip))) {
            *Behind = At;
            break;
        }
        Text += "\n  in " + DescribeImageAddress(Image, reinterpret_cast<void *>(At.Rip));
        if (!UnwindImageFrame(Image, &At, Thread.StackLow, Thread.StackHigh)) {
            break;
        }
    }
    return Text;
}

} // namespace embedded
