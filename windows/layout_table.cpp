// The test build's one addition to the driver: its table of layouts, for whoever loads it to compare with his own.
#include "kernel/layout_table.h"
#include "provider/layout.h"

#pragma GCC diagnostic ignored "-Winvalid-offsetof"

extern "C" const LAYOUT_ENTRY RVFSD_Layouts[] = {RVFSD_LAYOUT(
    LAYOUT_SIZE_ENTRY, LAYOUT_FIELD_ENTRY) RVFSD_PROVIDER_LAYOUT(LAYOUT_SIZE_ENTRY, LAYOUT_FIELD_ENTRY){nullptr, 0}};
