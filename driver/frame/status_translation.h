// Provider statuses become NTSTATUS values.
#pragma once

#include "provider/provider_interface.h"

// Maps a Provider status by its low 16 bits; a code that the table does not have gives STATUS_NOT_SUPPORTED.
NTSTATUS NtFsdTranslateErrorCode(RVSTATUS ProviderStatus);

// The translation where the result decides over success: an error whose code happens to translate to success is
// STATUS_UNSUCCESSFUL.
NTSTATUS NtFsdTranslateResult(RVSTATUS ProviderStatus);
