// Byte-range locks for tests: by handle through the system services, and as raw requests.
#pragma once

#include <list>

#include "embedded/io/probe.h"
#include "tests/driver/frame_client.h"

namespace test {

class LockFixture : public FrameFixture {
protected:
    NTSTATUS Lock(HANDLE Handle, LONGLONG Offset, LONGLONG Length, ULONG Key = 0, bool Exclusive = true) {
        IO_STATUS_BLOCK IoStatus = {};
        LARGE_INTEGER At = {.QuadPart = Offset};
        LARGE_INTEGER Bytes = {.QuadPart = Length};
        return NtLockFile(Handle, nullptr, nullptr, nullptr, &IoStatus, &At, &Bytes, Key, TRUE, Exclusive);
    }
    NTSTATUS Unlock(HANDLE Handle, LONGLONG Offset, LONGLONG Length, ULONG Key = 0) {
        IO_STATUS_BLOCK IoStatus = {};
        LARGE_INTEGER At = {.QuadPart = Offset};
        LARGE_INTEGER Bytes = {.QuadPart = Length};
        return NtUnlockFile(Handle, &IoStatus, &At, &Bytes, Key);
    }

    // A request of the lock kind as the I/O manager sends it; Length must stay until it is completed.
    IrpBuilder Request(HANDLE Handle, UCHAR MinorFunction, LONGLONG Offset, LARGE_INTEGER *Length, ULONG Key = 0,
                       UCHAR StackFlags = SL_EXCLUSIVE_LOCK) {
        IrpBuilder Builder = Plain(IRP_MJ_LOCK_CONTROL, FileObject(Handle));
        Builder.MinorFunction = MinorFunction;
        Builder.StackFlags = StackFlags;
        Builder.Fill = [=](PIO_STACK_LOCATION Stack) {
            Stack->Parameters.LockControl.ByteOffset.QuadPart = Offset;
            Stack->Parameters.LockControl.Length = Length;
            Stack->Parameters.LockControl.Key = Key;
        };
        return Builder;
    }
    // A lock that may wait.
    SentIrp Wait(HANDLE Handle, LONGLONG Offset, LONGLONG Length = 4) {
        Lengths_.push_back({.QuadPart = Length});
        return SendIrp(Device(), Request(Handle, IRP_MN_LOCK, Offset, &Lengths_.back()));
    }

    // The locks of the file's table.
    std::vector<FILE_LOCK_INFO> LocalLocks(HANDLE Handle) {
        std::vector<FILE_LOCK_INFO> Locks;
        PFILE_LOCK Table = &Fcb(Handle)->FileLock;
        for (auto Each = FsRtlGetNextFileLock(Table, TRUE); Each != nullptr;
             Each = FsRtlGetNextFileLock(Table, FALSE)) {
            Locks.push_back(*Each);
        }
        return Locks;
    }
    // "lock 10+5", "unlock 10+5": what the server was told, in order.
    Calls ServerLocks() {
        Calls Told;
        for (const Call &Each : Provider.CallRecords()) {
            const bool IsLock = Each.Operation == Slot::LockFile;
            if (IsLock || Each.Operation == Slot::UnlockFile) {
                Told.push_back(std::string(IsLock ? "lock " : "unlock ") + std::to_string(Each.Number("offset")) + "+" +
                               std::to_string(Each.Number("length")));
            }
        }
        return Told;
    }

private:
    std::list<LARGE_INTEGER> Lengths_; // of locks that wait
};

} // namespace test
