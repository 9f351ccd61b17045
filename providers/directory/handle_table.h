// Opaque handles to objects of several kinds.
//
// A handle is a slot number with the slot's generation above it. Closing advances the generation at once, so that a
// handle that was closed never finds another object; the object itself goes with its last user. No lock is taken but
// for a slot that was never used: finding an object is one compare-and-swap in the slot's own cache line and one
// subtraction when done, making a handle and closing it one in the list of free slots and one in the slot.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include "provider/provider_interface.h"

namespace providers::directory {

// Object: can be deleted through its own type, and tells its kind by KindMask(), one bit.
template <class Object>
class HandleTable {
    struct alignas(64) Slot {
        // Generation << 24 | users. The open handle itself is one user.
        std::atomic<uint64_t> Word{uint64_t{1} << UserBits};
        std::atomic<Object *> Held = nullptr; // changes while nobody uses the slot, as does Kind
        std::atomic<unsigned> Kind = 0;
        std::atomic<uint32_t> NextFree = 0; // its number + 1; of a free slot
    };

public:
    // An object in use; it is not destroyed while this lives.
    class [[nodiscard]] Use {
    public:
        Use() = default;
        Use(HandleTable *Table, uint32_t Index, Slot *At) : Table_(Table), Slot_(At), Index_(Index) {
        }
        Use(Use &&Other) noexcept
            : Table_(Other.Table_), Slot_(std::exchange(Other.Slot_, nullptr)), Index_(Other.Index_) {
        }
        Use &operator=(Use &&Other) noexcept {
            std::swap(Table_, Other.Table_);
            std::swap(Slot_, Other.Slot_);
            std::swap(Index_, Other.Index_);
            return *this;
        }
        ~Use() {
            if (Slot_ != nullptr) {
                Table_->Drop(Index_, *Slot_);
            }
        }
        explicit operator bool() const {
            return Slot_ != nullptr;
        }
        Object *operator->() const {
            return Slot_->Held.load(std::memory_order_relaxed);
        }
        Object &operator*() const {
            return *Slot_->Held.load(std::memory_order_relaxed);
        }

    private:
        HandleTable *Table_ = nullptr;
        Slot *Slot_ = nullptr;
        uint32_t Index_ = 0;
    };

    ~HandleTable() {
        for (const auto &Chunk : Chunks_) {
            Slot *Slots = Chunk.load(std::memory_order_relaxed);
            for (size_t Index = 0; Slots != nullptr && Index < ChunkSlots; ++Index) {
                delete Slots[Index].Held.load(std::memory_order_relaxed);
            }
            delete[] Slots;
        }
    }

    // A new handle to New. 0 when the table is full; New is destroyed then.
    RVHANDLE Insert(std::unique_ptr<Object> New) {
        uint32_t Index = 0;
        if (!TakeFree(Index) && !TakeUnused(Index)) {
            return 0;
        }
        Slot &At = *Find(Index);
        At.Kind.store(New->KindMask(), std::memory_order_relaxed);
        At.Held.store(New.release(), std::memory_order_relaxed);
        const uint64_t Word = At.Word.load(std::memory_order_relaxed);
        At.Word.store(Word | 1, std::memory_order_release);
        return (Word & ~UserMask) | Index;
    }

    // The object of a handle whose kind is among Kinds; empty for a handle that is not open or of another kind.
    Use Acquire(RVHANDLE Handle, unsigned Kinds) {
        const auto Index = static_cast<uint32_t>(Handle & UserMask);
        Slot *At = Find(Index);
        if (At == nullptr) {
            return {};
        }
        uint64_t Word = At->Word.load(std::memory_order_relaxed);
        do {
            if ((Word & ~UserMask) != (Handle & ~UserMask) || (Word & UserMask) == 0) {
                return {};
            }
        } while (!At->Word.compare_exchange_weak(Word, Word + 1, std::memory_order_acquire));
        Use Found(this, Index, At);
        if ((Found->KindMask() & Kinds) == 0) {
            return {};
        }
        return Found;
    }

    // Ends the handle. False when it is not open or of another kind. The object lives until its last user is done.
    bool Close(RVHANDLE Handle, unsigned Kinds) {
        const auto Index = static_cast<uint32_t>(Handle & UserMask);
        Slot *At = Find(Index);
        if (At == nullptr) {
            return false;
        }
        uint64_t Word = At->Word.load(std::memory_order_acquire);
        uint64_t Left;
        do {
            // The kind is this handle's when the word stays the same.
            if ((Word & ~UserMask) != (Handle & ~UserMask) || (Word & UserMask) == 0 ||
                (At->Kind.load(std::memory_order_relaxed) & Kinds) == 0) {
                return false;
            }
            Left = Word + (uint64_t{1} << UserBits) - 1;
        } while (!At->Word.compare_exchange_weak(Word, Left, std::memory_order_acq_rel, std::memory_order_acquire));
        if ((Left & UserMask) == 0) {
            Empty(Index, *At);
        }
        return true;
    }

    // Calls Visit(Handle, Object) for every object that is open now.
    template <class Visitor>
    void ForEach(Visitor Visit) {
        size_t Used;
        {
            const std::lock_guard Hold(Mutex_);
            Used = Used_;
        }
        for (uint32_t Index = 0; Index < Used; ++Index) {
            const uint64_t Word = Find(Index)->Word.load(std::memory_order_relaxed);
            const RVHANDLE Handle = (Word & ~UserMask) | Index;
            if (const Use Found = Acquire(Handle, ~0u)) {
                Visit(Handle, *Found);
            }
        }
    }

    // Objects that exist: open handles, and closed ones whose last operation is still under way.
    size_t Objects() const {
        size_t Count = 0;
        for (const auto &Chunk : Chunks_) {
            const Slot *Slots = Chunk.load(std::memory_order_acquire);
            for (size_t Index = 0; Slots != nullptr && Index < ChunkSlots; ++Index) {
                Count += Slots[Index].Held.load(std::memory_order_acquire) != nullptr ? 1 : 0;
            }
        }
        return Count;
    }

private:
    static constexpr unsigned UserBits = 24;
    static constexpr uint64_t UserMask = (uint64_t{1} << UserBits) - 1;
    static constexpr size_t ChunkSlots = 1024;
    static constexpr size_t ChunkCount = 4096;

    Slot *Find(uint32_t Index) {
        if (Index >= ChunkSlots * ChunkCount) {
            return nullptr;
        }
        Slot *Slots = Chunks_[Index / ChunkSlots].load(std::memory_order_acquire);
        return Slots == nullptr ? nullptr : &Slots[Index % ChunkSlots];
    }

    void Drop(uint32_t Index, Slot &At) {
        const uint64_t Before = At.Word.fetch_sub(1, std::memory_order_acq_rel);
        if ((Before & UserMask) == 1) {
            Empty(Index, At);
        }
    }

    // The last user is done.
    void Empty(uint32_t Index, Slot &At) {
        delete At.Held.load(std::memory_order_relaxed);
        At.Held.store(nullptr, std::memory_order_release);
        uint64_t Head = Free_.load(std::memory_order_relaxed);
        do {
            At.NextFree.store(static_cast<uint32_t>(Head), std::memory_order_relaxed);
        } while (!Free_.compare_exchange_weak(Head, NextHead(Head, Index + 1), std::memory_order_release,
                                              std::memory_order_relaxed));
    }

    // A slot that was used before; false when all of those are in use.
    bool TakeFree(uint32_t &Index) {
        uint64_t Head = Free_.load(std::memory_order_acquire);
        while (static_cast<uint32_t>(Head) != 0) {
            Index = static_cast<uint32_t>(Head) - 1;
            const uint32_t Next = Find(Index)->NextFree.load(std::memory_order_relaxed);
            if (Free_.compare_exchange_weak(Head, NextHead(Head, Next), std::memory_order_acquire,
                                            std::memory_order_acquire)) {
                return true;
            }
        }
        return false;
    }

    // One that never was; false when there are no more.
    bool TakeUnused(uint32_t &Index) {
        const std::lock_guard Hold(Mutex_);
        if (Used_ == ChunkSlots * ChunkCount) {
            return false;
        }
        if (Used_ % ChunkSlots == 0) {
            Chunks_[Used_ / ChunkSlots].store(new Slot[ChunkSlots], std::memory_order_release);
        }
        Index = static_cast<uint32_t>(Used_++);
        return true;
    }

    // The list's head never has the same value again, so that nobody takes an old picture of it for the present one.
    static uint64_t NextHead(uint64_t Head, uint32_t First) {
        return ((Head >> 32) + 1) << 32 | First;
    }

    std::array<std::atomic<Slot *>, ChunkCount> Chunks_{};
    std::atomic<uint64_t> Free_ = 0; // count of changes << 32 | the first free slot's number + 1
    std::mutex Mutex_;
    size_t Used_ = 0; // slots that were used ever; guarded by Mutex_
};

} // namespace providers::directory
