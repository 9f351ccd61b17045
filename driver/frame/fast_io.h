// Fast I/O: the table the I/O manager and the cache manager call. Nothing is cached, so every data path refuses.
#pragma once

#include "kernel/kernel.h"

// The driver's table; unchanged after start.
PFAST_IO_DISPATCH NtFsdFastIoDispatch();
