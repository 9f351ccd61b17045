// Opaque handles to objects of several kinds.
//
// A handle is a slot number with the slot's generation above it. Closing advances the generation at once, so that a
// handle that was closed never finds another object; the object itself goes with its last user. Finding an object takes
// no lock: one compare-and-swap in the slot's own cache line, and one subtraction when done.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "provider/provider_interface.h"

namespace providers::directory {

// Object: can be deleted through its own type, and tells its kind by KindMask(), one bit.
template <class Object>
class HandleTable {
    struct alignas(64) Slot {
        // Generation << 24 | users. The open handle itself is one user.
        std::atomic<uint64_t> Word{uint64_t{1} << UserBits};
        Object *Held = nullptr;
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
            return Slot_->Held;
        }
        Object &operator*() const {
            return *Slot_->Held;
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
                delete Slots[Index].Held;
            }
            delete[] Slots;
        }
    }

    // A new handle to New. 0 when the table is full; New is destroyed then.
    RVHANDLE Insert(std::unique_ptr<Object> New) {
        uint32_t Index = 0;
        {
            const std::lock_guard Hold(Mutex_);
            if (!Free_.empty()) {
                Index = Free_.back();
                Free_.pop_back();
            } else if (Used_ < ChunkSlots * ChunkCount) {
                if (Used_ % ChunkSlots == 0) {
                    // Closing must not allocate: room for every slot's return is made here.
                    Free_.reserve(Used_ + ChunkSlots);
                    Chunks_[Used_ / ChunkSlots].store(new Slot[ChunkSlots], std::memory_order_release);
                }
                Index = Used_++;
            } else {
                return 0;
            }
        }
        Slot &At = *Find(Index);
        At.Held = New.release();
        Open_.fetch_add(1, std::memory_order_relaxed);
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
        const Use Found = Acquire(Handle, Kinds);
        if (!Found) {
            return false;
        }
        const auto Index = static_cast<uint32_t>(Handle & UserMask);
        Slot &At = *Find(Index);
        uint64_t Word = At.Word.load(std::memory_order_relaxed);
        do {
            if ((Word & ~UserMask) != (Handle & ~UserMask)) {
                return false;
            }
        } while (!At.Word.compare_exchange_weak(Word, Word + (uint64_t{1} << UserBits) - 1, std::memory_order_acq_rel));
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
        return Open_.load(std::memory_order_acquire);
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
        if ((Before & UserMask) != 1) {
            return;
        }
        delete std::exchange(At.Held, nullptr);
        Open_.fetch_sub(1, std::memory_order_release);
        const std::lock_guard Hold(Mutex_);
        Free_.push_back(Index);
    }

    std::array<std::atomic<Slot *>, ChunkCount> Chunks_{};
    std::atomic<size_t> Open_ = 0;
    std::mutex Mutex_;
    std::vector<uint32_t> Free_; // guarded by Mutex_
    size_t Used_ = 0;            // guarded by Mutex_
};

} // namespace providers::directory
