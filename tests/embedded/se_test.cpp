// Logon sessions, tokens, and symbolic links under them.

#include <thread>

#include <gtest/gtest.h>

#include "embedded/kernel.h"
#include "embedded/names/logon.h"
#include "embedded/names/names.h"
#include "embedded/names/probe.h"
#include "embedded/ps/ps.h"
#include "embedded/rtl/counted.h"
#include "embedded/verifier/faults.h"
#include "embedded/zw/zw.h"

namespace {

using namespace embedded;

class SeTest : public testing::Test {
protected:
    // What a service that takes a link's name answers.
    static OBJECT_ATTRIBUTES Named(UNICODE_STRING *Name, ULONG Attributes = 0,
                                   PSECURITY_DESCRIPTOR Descriptor = nullptr) {
        OBJECT_ATTRIBUTES Result;
        InitializeObjectAttributes(&Result, Name, OBJ_CASE_INSENSITIVE | Attributes, nullptr, Descriptor);
        return Result;
    }
    static NTSTATUS Make(std::u16string_view Path, ULONG Attributes, HANDLE *Handle, bool Kernel = false,
                         PSECURITY_DESCRIPTOR Descriptor = nullptr) {
        UNICODE_STRING Name = ToUnicodeString(Path), Target = ToUnicodeString(u"\\Device\\Target");
        OBJECT_ATTRIBUTES As = Named(&Name, Attributes, Descriptor);
        return Kernel ? ZwCreateSymbolicLinkObject(Handle, GENERIC_READ, &As, &Target)
                      : NtCreateSymbolicLinkObject(Handle, GENERIC_READ, &As, &Target);
    }
    static NTSTATUS Open(std::u16string_view Path, ACCESS_MASK Access, HANDLE *Handle) {
        UNICODE_STRING Name = ToUnicodeString(Path);
        OBJECT_ATTRIBUTES As = Named(&Name);
        return NtOpenSymbolicLinkObject(Handle, Access, &As);
    }
    static NTSTATUS Try(std::u16string_view Path, ACCESS_MASK Access) {
        HANDLE Handle = nullptr;
        const NTSTATUS Status = Open(Path, Access, &Handle);
        if (NT_SUCCESS(Status)) {
            NtClose(Handle);
        }
        return Status;
    }
    // Where a link leads; empty when there is none.
    static std::u16string TargetOf(std::u16string_view Path) {
        std::u16string Target;
        return NT_SUCCESS(QuerySymbolicLink(Path, &Target)) ? Target : u"";
    }
    static bool Exists(std::u16string_view Path) {
        return !TargetOf(Path).empty();
    }

    Kernel Kernel_;
};

TEST_F(SeTest, DosDevicesAreTheSessionsAndBehindThemEverybodys) {
    const TokenRef One = LogOn(500, Elevation::Default, LUID{0xABC, 2}), Other = LogOn(500);
    ASSERT_EQ(CreateSymbolicLink(u"\\??\\Z:", u"\\Device\\Global"), STATUS_SUCCESS);
    HANDLE Link = nullptr;
    {
        const Impersonate Client(One);
        EXPECT_EQ(Make(u"\\DosDevices\\Z:", 0, &Link), STATUS_SUCCESS) << "a name of everybody's is hidden";
        EXPECT_EQ(Make(u"\\??\\z:", 0, &Link), STATUS_OBJECT_NAME_COLLISION);
        EXPECT_EQ(TargetOf(u"\\??\\Z:"), u"\\Device\\Target");
        EXPECT_EQ(TargetOf(u"\\??\\Global\\Z:"), u"\\Device\\Global");
        EXPECT_TRUE(Exists(u"\\??\\UNC"));
    }
    EXPECT_TRUE(Exists(u"\\Sessions\\0\\DosDevices\\00000002-00000abc\\Z:"));
    for (const bool System : {true, false}) {
        const Impersonate Client(System ? LogOn(0) : Other);
        EXPECT_EQ(TargetOf(u"\\??\\Z:"), u"\\Device\\Global");
    }
    // Impersonation is one thread's.
    std::thread([] { EXPECT_EQ(TargetOf(u"\\??\\Z:"), u"\\Device\\Global"); }).join();
    LogOff(*One.Get());
    EXPECT_FALSE(Exists(u"\\Sessions\\0\\DosDevices\\00000002-00000ABC\\Z:"));
    NtClose(Link);
}

TEST_F(SeTest, ALinkLivesAsLongAsItsHandlesOrForGood) {
    const Impersonate Client(LogOn(500));
    HANDLE Link = nullptr, Again = nullptr;
    EXPECT_EQ(Make(u"\\??\\G:", OBJ_PERMANENT, &Link), STATUS_PRIVILEGE_NOT_HELD);
    ASSERT_EQ(Make(u"\\??\\G:", 0, &Link), STATUS_SUCCESS);
    ASSERT_EQ(Open(u"\\??\\g:", SYMBOLIC_LINK_QUERY, &Again), STATUS_SUCCESS);
    NtClose(Link);
    EXPECT_TRUE(Exists(u"\\??\\G:")) << "another handle is open";
    WCHAR Text[14];
    UNICODE_STRING Target = {0, 26, Text};
    ULONG Length = 0;
    EXPECT_EQ(NtQuerySymbolicLinkObject(Again, &Target, &Length), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Length, 30u);
    Target.MaximumLength = 28;
    EXPECT_EQ(NtQuerySymbolicLinkObject(Again, &Target, &Length), STATUS_SUCCESS);
    EXPECT_EQ(View(&Target), u"\\Device\\Target");
    EXPECT_EQ(NtMakeTemporaryObject(Again), STATUS_ACCESS_DENIED) << "it was opened for asking alone";
    NtClose(Again);
    EXPECT_FALSE(Exists(u"\\??\\G:"));

    ASSERT_EQ(Make(u"\\??\\G:", OBJ_PERMANENT | OBJ_KERNEL_HANDLE, &Link, true), STATUS_SUCCESS);
    ZwClose(Link);
    EXPECT_TRUE(Exists(u"\\??\\G:"));
    ASSERT_EQ(Open(u"\\??\\G:", DELETE, &Link), STATUS_SUCCESS);
    EXPECT_EQ(NtMakeTemporaryObject(Link), STATUS_SUCCESS);
    EXPECT_TRUE(Exists(u"\\??\\G:"));
    NtClose(Link);
    EXPECT_FALSE(Exists(u"\\??\\G:"));
}

TEST_F(SeTest, WhatALinkAndADirectoryDoNotGiveIsDenied) {
    const SplitLogon Split = LogOnSplit(500);
    const TokenRef Stranger = LogOn(501);
    const std::u16string Mine = u"\\Sessions\\0\\DosDevices\\00000000-00010001\\";
    HANDLE Link = nullptr;
    const auto MakeAs = [&](const TokenRef &Who, const char16_t *Name, const std::vector<std::byte> *Dacl = nullptr) {
        const Impersonate Client(Who);
        SECURITY_DESCRIPTOR Descriptor;
        RtlCreateSecurityDescriptor(&Descriptor, 1);
        if (Dacl != nullptr) {
            RtlSetDaclSecurityDescriptor(&Descriptor, TRUE,
                                         const_cast<PACL>(reinterpret_cast<const ACL *>(Dacl->data())), FALSE);
        }
        ASSERT_EQ(Make(Mine + Name, OBJ_PERMANENT | OBJ_KERNEL_HANDLE, &Link, true, Dacl ? &Descriptor : nullptr),
                  STATUS_SUCCESS);
        ZwClose(Link);
    };
    const std::vector<std::byte> Denies = MakeAcl({{false, DELETE, UserSid(500)}, {true, GENERIC_ALL, UserSid(500)}});
    const std::vector<std::byte> Nobody = MakeAcl({});
    MakeAs(Split.Filtered, u"F");
    MakeAs(Split.Elevated, u"E");
    MakeAs(Split.Filtered, u"D", &Denies);
    MakeAs(Split.Filtered, u"N", &Nobody);
    struct {
        const char16_t *Name;
        const TokenRef *Who;
        ACCESS_MASK Access;
        bool Given;
    } const Cases[] = {
        {u"F", &Split.Filtered, DELETE | SYMBOLIC_LINK_QUERY, true},
        {u"F", &Split.Elevated, GENERIC_READ, true},
        {u"F", &Stranger, GENERIC_READ, false},
        {u"E", &Split.Elevated, DELETE, true},
        {u"E", &Split.Filtered, GENERIC_READ, false},
        {u"E", &Stranger, DELETE, false},
        {u"D", &Split.Filtered, SYMBOLIC_LINK_QUERY, true},
        {u"D", &Split.Filtered, DELETE, false},
        {u"N", &Split.Filtered, SYMBOLIC_LINK_QUERY, false},
    };
    for (const auto &Case : Cases) {
        const Impersonate Client(*Case.Who);
        EXPECT_EQ(Try(Mine + Case.Name, Case.Access), Case.Given ? STATUS_SUCCESS : STATUS_ACCESS_DENIED)
            << static_cast<char>(Case.Name[0]) << " for " << Case.Access;
    }
    {
        const Impersonate Client(Stranger);
        EXPECT_EQ(Make(Mine + u"S", 0, &Link), STATUS_ACCESS_DENIED) << "another user's directory";
        EXPECT_EQ(Make(u"\\GLOBAL??\\S", 0, &Link), STATUS_ACCESS_DENIED);
    }
    // What is no list of access is refused, not believed.
    std::vector<std::byte> Broken = Denies;
    Broken[sizeof(ACL) + 2] = std::byte{0xFF};
    SECURITY_DESCRIPTOR Descriptor;
    RtlCreateSecurityDescriptor(&Descriptor, 1);
    RtlSetDaclSecurityDescriptor(&Descriptor, TRUE, reinterpret_cast<PACL>(Broken.data()), FALSE);
    EXPECT_EQ(Make(Mine + u"B", 0, &Link, true, &Descriptor), STATUS_INVALID_PARAMETER);
    for (const char16_t *Name : {u"F", u"E", u"D", u"N"}) {
        RemoveName(Mine + Name);
    }
}

using SeDeathTest = SeTest;

TEST_F(SeDeathTest, LinksAndTokensThatADriverLeavesStop) {
    const PEPROCESS Client = CreateProcess("client", LogOn(500));
    const AttachProcess Attached(Client);
    HANDLE Handle = nullptr;
    EXPECT_DEATH(
        {
            Make(u"\\??\\G:", OBJ_PERMANENT | OBJ_KERNEL_HANDLE, &Handle, true);
            ZwClose(Handle);
            Kernel_.Stop();
        },
        "0x000000C4.*62.*\n.*symbolic links: the link .Sessions.0.DosDevices.00000000-00010001.G: is left");
    EXPECT_DEATH(
        {
            ZwOpenProcessTokenEx(NtCurrentProcess(), GENERIC_READ, OBJ_KERNEL_HANDLE, &Handle);
            Kernel_.Stop();
        },
        "1 token handle");
    EXPECT_DEATH(
        {
            ZwOpenProcessTokenEx(NtCurrentProcess(), GENERIC_READ, 0, &Handle);
            ZwClose(Handle);
        },
        "0x000000C4.*F6");
}

} // namespace
