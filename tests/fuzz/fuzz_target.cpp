// A libFuzzer target; FUZZ_ENTRY names the parser or report entry it drives.
#include "report_entries.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FUZZ_ENTRY(data, size);
    return 0;
}
