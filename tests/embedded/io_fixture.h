// A driver of the tests' own: one device with a UNC provider name, whose requests go to handlers that a test sets.
#pragma once

#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "embedded/io/io.h"
#include "embedded/kernel.h"
#include "embedded/mup.h"
#include "embedded/rtl/counted.h"
#include "embedded/zw/zw.h"

namespace iotest {

using Handler = std::function<NTSTATUS(PIRP)>;

inline std::array<Handler, IRP_MJ_MAXIMUM_FUNCTION + 1> Handlers;
inline std::vector<UCHAR> Seen; // major functions in the order of their arrival
inline PDEVICE_OBJECT TheDevice = nullptr;
inline HANDLE ProviderHandle = nullptr;
inline ULONG DeviceFlags = 0;

inline NTSTATUS Complete(PIRP Irp, NTSTATUS Status, ULONG_PTR Information = 0) {
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = Information;
    IofCompleteRequest(Irp, IO_NETWORK_INCREMENT);
    return Status;
}

inline NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT, PIRP Irp) {
    const UCHAR Major = IoGetCurrentIrpStackLocation(Irp)->MajorFunction;
    Seen.push_back(Major);
    if (Handlers[Major]) {
        return Handlers[Major](Irp);
    }
    return Complete(Irp, STATUS_SUCCESS, Major == IRP_MJ_CREATE ? FILE_OPENED : 0);
}

inline void DeleteEverything() {
    if (ProviderHandle != nullptr) {
        FsRtlDeregisterUncProvider(std::exchange(ProviderHandle, nullptr));
    }
    if (TheDevice != nullptr) {
        IoDeleteDevice(std::exchange(TheDevice, nullptr));
    }
}

inline NTSTATUS NTAPI Shutdown(PDEVICE_OBJECT, PIRP Irp) {
    Complete(Irp, STATUS_SUCCESS);
    DeleteEverything();
    return STATUS_SUCCESS;
}

inline NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT Driver, PUNICODE_STRING) {
    for (PDRIVER_DISPATCH &Entry : Driver->MajorFunction) {
        Entry = Dispatch;
    }
    Driver->MajorFunction[IRP_MJ_SHUTDOWN] = Shutdown;
    NTSTATUS Status = IoCreateDevice(Driver, 64, nullptr, FILE_DEVICE_NETWORK_FILE_SYSTEM, 0, FALSE, &TheDevice);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    TheDevice->StackSize = 2;
    TheDevice->Flags |= DeviceFlags;
    UNICODE_STRING Name = embedded::ToUnicodeString(u"\\Device\\RvFsd");
    Status = FsRtlRegisterUncProviderEx(&ProviderHandle, &Name, TheDevice, 0);
    if (!NT_SUCCESS(Status)) {
        DeleteEverything();
    }
    return Status;
}

class IoTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::testing::FLAGS_gtest_death_test_style = "fast";
        Handlers = {};
        DeviceFlags = 0;
        TheKernel = std::make_unique<embedded::Kernel>();
        ASSERT_EQ(TheKernel->LoadDriver(DriverEntry, u"RVFSD"), STATUS_SUCCESS);
        Seen.clear();
    }
    void TearDown() override {
        TheKernel.reset();
    }

    // Answers a prefix query by claiming Bytes of any path.
    static void ClaimBytes(ULONG Bytes) {
        Handlers[IRP_MJ_DEVICE_CONTROL] = [Bytes](PIRP Irp) {
            static_cast<PQUERY_PATH_RESPONSE>(Irp->UserBuffer)->LengthAccepted = Bytes;
            return Complete(Irp, STATUS_SUCCESS);
        };
    }

    static embedded::CreateResult Open(std::u16string_view Path, ULONG Options = FILE_SYNCHRONOUS_IO_NONALERT,
                                       ACCESS_MASK Access = FILE_ALL_ACCESS, HANDLE Root = nullptr) {
        UNICODE_STRING Name = embedded::ToUnicodeString(Path);
        OBJECT_ATTRIBUTES Attributes;
        InitializeObjectAttributes(&Attributes, &Name, OBJ_CASE_INSENSITIVE, Root, nullptr);
        embedded::CreateParameters Parameters;
        Parameters.ObjectAttributes = &Attributes;
        Parameters.DesiredAccess = Access;
        Parameters.Options = Options;
        return embedded::CreateFile(Parameters);
    }

    std::unique_ptr<embedded::Kernel> TheKernel;
};

} // namespace iotest
