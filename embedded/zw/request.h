// One request of a file service, shared by the files of the system services.
#pragma once

#include "embedded/io/objects.h"

namespace embedded {

inline constexpr LONGLONG UseFilePointer = static_cast<LONGLONG>(0xFFFFFFFF'00000000 | FILE_USE_FILE_POINTER_POSITION);
inline constexpr LONGLONG WriteToEndOfFile = -1;

// Flags of file objects and stack locations that only the I/O manager sets.
inline constexpr ULONG FileOpenedCaseSensitive = 0x00040000;
inline constexpr ULONG FileRandomAccess = 0x00100000;
inline constexpr UCHAR StackWriteThrough = 0x04;

// One request of a service on a file that the caller has a handle for. Begin references the file, takes the file's
// own lock when it is synchronous and makes the IRP; Run calls the driver.
class FileRequest {
public:
    FileRequest() = default;
    FileRequest(const FileRequest &) = delete;
    FileRequest &operator=(const FileRequest &) = delete;
    ~FileRequest();

    // Access: any of these bits is enough for a UserMode caller; 0 asks for none.
    NTSTATUS Begin(HANDLE Handle, ACCESS_MASK Access, KPROCESSOR_MODE Mode, UCHAR MajorFunction,
                   UCHAR MinorFunction = IRP_MN_NORMAL) noexcept;

    // Allocates the system buffer of the request, filled from Input; the request frees it. With CopyTo, Information
    // bytes, at most CopyLimit, are copied back unless the request fails.
    NTSTATUS UseSystemBuffer(ULONG Size, const void *Input, ULONG InputLength, PVOID CopyTo, ULONG CopyLimit) noexcept;

    // Calls the driver and waits. Writes Iosb.
    NTSTATUS RunToEnd(PIO_STATUS_BLOCK Iosb) noexcept;
    // The same for a synchronous file; for an asynchronous one the request goes on by itself after STATUS_PENDING and
    // then writes Iosb and sets the event, which may be null.
    NTSTATUS Run(HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PIO_STATUS_BLOCK Iosb) noexcept;

    FileObject &File() noexcept {
        return *File_.Get();
    }
    ACCESS_MASK GrantedAccess() const noexcept {
        return Granted_;
    }
    IrpBlock &Block() noexcept {
        return *Block_;
    }
    IRP &Irp() noexcept {
        return Block_->Irp;
    }
    IO_STACK_LOCATION &Stack() noexcept {
        return *Block_->Irp.Tail.Overlay.CurrentStackLocation;
    }

private:
    Ref<FileObject> File_;
    IrpHolder Block_;
    ACCESS_MASK Granted_ = 0;
    KPROCESSOR_MODE Mode_ = UserMode;
    bool Locked_ = false;
};

} // namespace embedded
