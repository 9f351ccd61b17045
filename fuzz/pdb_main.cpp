#include "fuzz/image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
    fuzz::RunDebugInformation(Data, Size);
    return 0;
}
