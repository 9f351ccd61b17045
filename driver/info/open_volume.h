// The volume that an open lies in.
#pragma once

#include "names/fcb.h"
#include "provider/provider_calls.h"

inline constexpr ULONG VOLUME_IDENTIFIER_BYTES = 16;

// What the Provider says of a volume; zeros when it says nothing.
struct OPEN_VOLUME {
    ULONG Flags; // RV_VOLUME_FLAGS
    UCHAR Identifier[VOLUME_IDENTIFIER_BYTES];

    bool HasIdentifier() const {
        return (Flags & RV_VOLUME_IDENTIFIER_VALID) != 0;
    }
};

// Asks for the volume of an open: by the open's own handle, or by the volume of its path. The FCB's Resource or
// FcbTableResource is held, so that the path stays. Returns the translated status of the call that failed, *Volume
// being zeros then.
NTSTATUS NtFsdVolumeOfOpen(PRV_SECURITY Security, PFCB Fcb, PINSTANCE_CONTEXT Instance, OPEN_VOLUME *Volume);
