// Data transfers, locks and flushes of open files.
#pragma once

#include "names/fcb.h"

// The end of the longest file that a signed offset can name.
inline constexpr LONG64 LARGEST_OFFSET = 0x7FFFFFFFFFFFFFFF;

// Each completes the request and returns its status, or posts it and returns STATUS_PENDING.
NTSTATUS NtFsdCommonRead(PIRP_CONTEXT IrpContext);
NTSTATUS NtFsdCommonWrite(PIRP_CONTEXT IrpContext);
NTSTATUS NtFsdCommonLockControl(PIRP_CONTEXT IrpContext);
NTSTATUS NtFsdCommonFlush(PIRP_CONTEXT IrpContext);

// Moves the FCB's three sizes after a transfer or a size change: grows to Offset + Length, or sets exactly Offset when
// Length is 0. An end beyond LARGEST_OFFSET, which only a Provider can come to, changes nothing. The caller holds the
// FCB's Resource, exclusive when ExclusiveHeld; a shared hold may be dropped and retaken. Always STATUS_SUCCESS.
NTSTATUS RvFsdUpdateFCBFileSize(PFCB Fcb, BOOLEAN ExclusiveHeld, LONG64 Offset, ULONG64 Length);
