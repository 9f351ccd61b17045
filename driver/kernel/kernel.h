// The one header of kernel declarations that driver files include.
//
// In the Windows build it is the DDK with its fix-ups (ddk.h); in the Linux build the same names, fields and
// calling convention, implemented by the embedded kernel. One list of layout assertions holds in both
// (layout.h). No other driver file may ask which platform it is compiled for.
#pragma once

#ifdef _WIN32
#include "kernel/ddk.h"
#else
#include "kernel/linux/base.h"
#include "kernel/linux/information.h"
#include "kernel/linux/objects.h"
#include "kernel/linux/security.h"
#include "kernel/linux/services.h"
#include "kernel/linux/status.h"
#endif

#include "kernel/layout.h"
#include "kernel/lock_rules.h"
#include "kernel/seam.h"
