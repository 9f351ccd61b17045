#include <cstdlib>

#include "fuzz/mapping.h"
#include "text/upcase.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
    fuzz::RunMapping(Data, Size);
    // The driver ends before the tables that it looks names up with.
    text::UpcaseTable();
    static const int Registered = atexit(fuzz::StopMapping);
    return Registered;
}
