// Opens for tests: a small tree, what a path is opened as, and the proof that a failed open left nothing.
#pragma once

#include "create/create_steps.h"
#include "create/parent_checks.h"
#include "provider/provider_calls.h"
#include "tests/support/driver_fixture.h"

namespace test {

inline constexpr ULONG D = FILE_DIRECTORY_FILE;
inline constexpr ULONG N = FILE_NON_DIRECTORY_FILE;
inline constexpr ULONG Synchronous = FILE_SYNCHRONOUS_IO_NONALERT;
inline constexpr Open AsTarget = {.Access = FILE_WRITE_DATA | SYNCHRONIZE, .StackFlags = SL_OPEN_TARGET_DIRECTORY};
inline constexpr Open ForDelete = {.Access = DELETE | FILE_READ_DATA | SYNCHRONIZE};

inline Open With(Open Request, ULONG Disposition, ULONG MoreOptions = 0) {
    Request.Disposition = Disposition;
    Request.Options |= MoreOptions;
    Request.CheckParameters = false;
    return Request;
}

// To compare records by.
inline std::string Bytes(const auto &Of) {
    return std::string(reinterpret_cast<const char *>(&Of), sizeof(Of));
}

// The open proper, not one of the questions whether something is there.
inline bool IsRealOpen(const Call &Made) {
    return Made.Operation == Slot::CreateFile && Made.Number("disposition") != RV_DISPOSITION_QUERY;
}
inline bool IsQuestion(const Call &Made) {
    return Made.Operation == Slot::CreateFile && Made.Number("disposition") == RV_DISPOSITION_QUERY;
}

class CreateFixture : public DriverFixture {
protected:
    CreateFixture() {
        Provider.AddFile(u"\\srv\\vol\\a.txt", "0123456789");
        Provider.AddFile(u"\\srv\\vol\\docs\\f.txt", "inside");
        Provider.AddDirectory(u"\\srv\\vol\\docs\\sub");
    }
    static IRP_CONTEXT Context(PFILE_OBJECT File = nullptr) {
        IRP_CONTEXT Made = {};
        Made.NodeTypeCode = NODE_TYPE_IRP_CONTEXT;
        Made.Flags = IRP_CONTEXT_FLAG_WAIT;
        Made.SecurityContext = providers::Framework::DefaultCaller;
        Made.FileObject = File;
        return Made;
    }
    // Opens and closes again what could be opened.
    CreateResult Try(std::u16string_view Path, const Open &Request = {}) {
        CreateResult Result = Create(Path, Request);
        if (Result.Handle != nullptr) {
            Close(Result.Handle);
            Result.Handle = nullptr;
        }
        return Result;
    }
    void ExpectRefused(std::u16string_view Path, const Open &Request, NTSTATUS Status,
                       ULONG_PTR Information = FILE_DOES_NOT_EXIST) {
        EXPECT_THAT(Try(Path, Request), Ends(Status, Information)) << ToUtf8(Path);
    }
    void ExpectOpened(std::u16string_view Path, const Open &Request, ULONG_PTR Information) {
        EXPECT_THAT(Try(Path, Request), Ends(STATUS_SUCCESS, Information)) << ToUtf8(Path);
    }
    // The tables of the driver and the Provider's books are as they were before the first open.
    void ExpectNothingOpen(const std::string &After) {
        EXPECT_EQ(Provider.OpenHandles(), Calls{}) << After;
        EXPECT_EQ(FcbPrefixCount, 0u) << After;
        EXPECT_EQ(FcbCount, 1u) << After; // the control device's
    }
};

} // namespace test
