// Object manager: reference-counted objects and the handle table.
//
// Owns the handle table (each entry has its own lock bit, so that a look-up costs two atomic operations). Nothing here
// blocks except on those locks. Closing the last handle or dropping the last reference calls into the object with no
// lock held.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "kernel/kernel.h"

namespace embedded {

enum class ObjectType : uint8_t {
    Any,
    Directory,
    SymbolicLink,
    Device,
    File,
    Key,
    Event,
    Thread,
    UncProvider,
    Mup,
    SystemVolume,
    SystemFile,
    Token,
};

// What every object of the kernel starts with. Born with one reference, which its creator holds.
class Object {
public:
    explicit Object(ObjectType Type) noexcept : Type_(Type) {
    }
    Object(const Object &) = delete;
    Object &operator=(const Object &) = delete;

    ObjectType Type() const noexcept {
        return Type_;
    }

    // The caller holds a reference already: raising the count from 0 is bug check 0xC4 (0x3F).
    void Reference() noexcept;
    // Drops one reference; the last one calls OnLastReference. Dropping one too many is bug check 0x18.
    void Dereference() noexcept;

    LONG References() const noexcept {
        return References_.load(std::memory_order_relaxed);
    }
    LONG Handles() const noexcept {
        return Handles_.load(std::memory_order_relaxed);
    }

protected:
    virtual ~Object() = default;

    // Runs in the thread that closes the last handle, which still holds a reference; no lock is held.
    virtual void OnLastHandleClosed() noexcept {
    }
    // Runs in the thread that drops the last reference; frees the object.
    virtual void OnLastReference() noexcept {
        delete this;
    }

private:
    friend class HandleTable;

    std::atomic<LONG> References_{1};
    std::atomic<LONG> Handles_{0};
    const ObjectType Type_;
};

// Owns one reference to an object.
template <class T>
class Ref {
public:
    Ref() noexcept = default;
    // Takes over the reference that the caller holds.
    static Ref Adopt(T *Target) noexcept {
        Ref Result;
        Result.Target_ = Target;
        return Result;
    }
    // Takes a reference of its own.
    static Ref Share(T *Target) noexcept {
        if (Target != nullptr) {
            Target->Reference();
        }
        return Adopt(Target);
    }
    Ref(Ref &&Other) noexcept : Target_(std::exchange(Other.Target_, nullptr)) {
    }
    Ref(const Ref &Other) noexcept : Ref(Share(Other.Target_)) {
    }
    Ref &operator=(Ref Other) noexcept {
        std::swap(Target_, Other.Target_);
        return *this;
    }
    ~Ref() {
        Reset();
    }

    void Reset() noexcept {
        if (T *Target = std::exchange(Target_, nullptr); Target != nullptr) {
            Target->Dereference();
        }
    }
    // Hands the reference to the caller.
    [[nodiscard]] T *Release() noexcept {
        return std::exchange(Target_, nullptr);
    }
    // The same reference, seen as a derived class whose type the caller has checked.
    template <class U>
    Ref<U> As() &&noexcept {
        return Ref<U>::Adopt(static_cast<U *>(Release()));
    }
    T *Get() const noexcept {
        return Target_;
    }
    T *operator->() const noexcept {
        return Target_;
    }
    explicit operator bool() const noexcept {
        return Target_ != nullptr;
    }

private:
    T *Target_ = nullptr;
};

using ObjectRef = Ref<Object>;

// ---- Handles -----------------------------------------------------------------------------------------------

// KernelMode in system threads, UserMode elsewhere: what a Nt service takes as the mode of its caller. A Zw service
// always runs for KernelMode.
KPROCESSOR_MODE PreviousMode() noexcept;

// Opens a handle (a multiple of 4) that references Target. Opened in KernelMode it is a kernel handle when Attributes
// has OBJ_KERNEL_HANDLE or the thread acts for the system process. STATUS_INSUFFICIENT_RESOURCES when the table is
// full.
NTSTATUS InsertHandle(Object &Target, ACCESS_MASK GrantedAccess, ULONG Attributes, KPROCESSOR_MODE Mode,
                      HANDLE *Handle) noexcept;

// References the object behind Handle. Type Any accepts every type. STATUS_INVALID_HANDLE,
// STATUS_OBJECT_TYPE_MISMATCH, or STATUS_ACCESS_DENIED when UserMode asks for access that the handle lacks. In
// KernelMode access is not checked, and a handle that is not open is bug check 0x93, a NULL handle 0xC4 (0xF5), a user
// handle used as a kernel one 0xC4 (0xF6), when the verifier is on. GrantedAccess may be null.
NTSTATUS ReferenceHandle(HANDLE Handle, ObjectType Type, ACCESS_MASK DesiredAccess, KPROCESSOR_MODE Mode,
                         ObjectRef *Target, ACCESS_MASK *GrantedAccess = nullptr) noexcept;

// Closes Handle; statuses and bug checks as above.
NTSTATUS CloseHandle(HANDLE Handle, KPROCESSOR_MODE Mode) noexcept;

// The number of handles that are open, all kinds together.
size_t OpenHandleCount() noexcept;

// Visits the object of every open handle; Visit opens and closes none.
void ForEachOpenObject(const std::function<void(const Object &)> &Visit);

// What is open, by type: "2 token handle(s)"; empty when nothing is.
std::string DescribeOpenHandles();

// Closes every open user handle, as when the processes exit, or the kernel's own as well, and returns how many there
// were.
enum class HandleSet { User, All };
size_t CloseHandles(HandleSet Which) noexcept;

} // namespace embedded
