// What the embedded kernel does when a driver breaks a rule of the platform: it stops.
//
// Every violation ends the process with a report that carries the numbers Driver Verifier would show, so that one
// line means one thing in both worlds. Nothing here blocks.
#pragma once

#include <atomic>
#include <string>
#include <string_view>

#include "embedded/base/level.h"
#include "kernel/kernel.h"

namespace embedded {

// Bug check codes, and first parameters of 0xC4 and 0xC9, that more than one room uses.
namespace bugcheck {
inline constexpr ULONG ApcIndexMismatch = 0x01;
inline constexpr ULONG MultipleIrpComplete = 0x44;
inline constexpr ULONG BadPoolCaller = 0xC1; // special pool: pattern or free check
inline constexpr ULONG Verifier = 0xC4;
inline constexpr ULONG IoVerifier = 0xC9;
inline constexpr ULONG LeftLockedPages = 0xCB;
inline constexpr ULONG FreedMemoryTouched = 0xCC;

inline constexpr ULONG_PTR ZeroBytes = 0x00;
inline constexpr ULONG_PTR AllocateAboveApc = 0x01;
inline constexpr ULONG_PTR AllocateAboveDispatch = 0x02;
inline constexpr ULONG_PTR FreeBadAddress = 0x10;
inline constexpr ULONG_PTR FreeAboveApc = 0x11;
inline constexpr ULONG_PTR FreeAboveDispatch = 0x12;
inline constexpr ULONG_PTR FreeTwice = 0x13;
inline constexpr ULONG_PTR FreeWrongTag = 0x16;
inline constexpr ULONG_PTR RaiseToLower = 0x30;
inline constexpr ULONG_PTR LowerToHigher = 0x31;
inline constexpr ULONG_PTR SpinReleaseIrql = 0x32;
inline constexpr ULONG_PTR ResourceApcsOn = 0x37;
inline constexpr ULONG_PTR ResourceReleaseApcsOn = 0x38;
inline constexpr ULONG_PTR RegionNotEntered = 0x3E;
inline constexpr ULONG_PTR ReferenceFromZero = 0x3F;
inline constexpr ULONG_PTR SpinAcquireIrql = 0x40;
inline constexpr ULONG_PTR LeakAtUnload = 0x62;
inline constexpr ULONG_PTR UnlockUnlocked = 0x7C;
inline constexpr ULONG_PTR UnlockNonpaged = 0x7D;
inline constexpr ULONG_PTR UnlockPartial = 0xB4;
inline constexpr ULONG_PTR FreeLockedMdl = 0xB8;
inline constexpr ULONG_PTR FreedLookaside = 0xCC;
inline constexpr ULONG_PTR FreedResource = 0xD2;
inline constexpr ULONG_PTR UserAddress = 0xE0;      // given to a routine of the kernel
inline constexpr ULONG_PTR UserAddressInIrp = 0xE2; // of a request from the kernel
inline constexpr ULONG_PTR UserAddressToZw = 0xE3;
inline constexpr ULONG_PTR MalformedString = 0xE4;
inline constexpr ULONG_PTR IrpFreedAsPool = 0x105;
inline constexpr ULONG_PTR WaitAtDispatch = 0x120;
inline constexpr ULONG_PTR WaitAboveDispatch = 0x121;
inline constexpr ULONG_PTR DelayAboveApc = 0x122;
inline constexpr ULONG_PTR UserWaitOnStack = 0x123;
inline constexpr ULONG_PTR SelfDeadlock = 0x1000;
inline constexpr ULONG_PTR LockOrder = 0x1001;
inline constexpr ULONG_PTR Uninitialized = 0x1002;
inline constexpr ULONG_PTR ReleaseOutOfOrder = 0x1003;
inline constexpr ULONG_PTR WrongThread = 0x1004;
inline constexpr ULONG_PTR InitializedTwice = 0x1005;
inline constexpr ULONG_PTR NotAcquired = 0x1007;
inline constexpr ULONG_PTR ThreadEndedHolding = 0x100A;
inline constexpr ULONG_PTR DeletedInUse = 0x100B;
inline constexpr ULONG_PTR WrongIrql = 0x00020002; // a routine of the table below, called too high
inline constexpr ULONG_PTR OwnRule = 0x000F0000;   // rules of this kernel that Windows has no number for
} // namespace bugcheck

// Prints "*** STOP 0x000000C4 (0x...,0x...,0x...,0x...): What" and the calling stack to stderr and aborts.
[[noreturn]] void BugCheck(ULONG Code, ULONG_PTR P1, ULONG_PTR P2, ULONG_PTR P3, ULONG_PTR P4, std::string_view What);

// Adds lines to every report, when set.
inline std::atomic<std::string (*)()> ReportNote{nullptr};

} // namespace embedded
