// Kernel objects and records with their x64 Windows layouts, for the Linux build, by subject.
//
// Only what the driver and the embedded kernel touch is named; layout.h asserts sizes and offsets.
#pragma once

#include "kernel/linux/csq.h"
#include "kernel/linux/executive.h"
#include "kernel/linux/fast_io.h"
#include "kernel/linux/file_codes.h"
#include "kernel/linux/fsrtl.h"
#include "kernel/linux/io_codes.h"
#include "kernel/linux/io_objects.h"
#include "kernel/linux/io_request.h"
#include "kernel/linux/memory.h"
#include "kernel/linux/system.h"
