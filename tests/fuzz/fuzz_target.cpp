// A libFuzzer target; FUZZ_ENTRY names the parser entry it drives.
#include "entries.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FUZZ_ENTRY(data, size);
    return 0;
}
