// What the Provider's contract needs of the kernel's declarations: the basic types and the calling convention.
// Installed in the place of the driver's header of this name, so that provider/provider_interface.h is the same file on
// both sides.
#pragma once

#include "kernel/linux/base.h"

// The share bits of RVFsdCreateFile.
#define FILE_SHARE_READ 0x00000001
#define FILE_SHARE_WRITE 0x00000002
#define FILE_SHARE_DELETE 0x00000004
