#include "meminfo/sysmeminfo.h"

#include <limits.h>
#include <stdlib.h>

#include "base/file.h"
#include "base/logging.h"

namespace android::meminfo {

// Lenient on purpose: ION's totals are read as strtoull reads them (empty or text gives 0);
// only the overflow value, which -1 also produces, is refused.
static bool ReadSysfsFile(const std::string& path, uint64_t* value) {
    std::string content;
    if (!base::ReadFileToString(path, &content, false)) {
        LOG(ERROR) << "Can't open file: " << path;
        return false;
    }
    *value = strtoull(content.c_str(), nullptr, 10);
    if (*value == ULLONG_MAX) {
        PLOG(ERROR) << "Invalid file format: " << path;
        return false;
    }
    return true;
}

bool ReadIonHeapsSizeKb(uint64_t* size, const std::string& path) {
    return ReadSysfsFile(path, size);
}

bool ReadIonPoolsSizeKb(uint64_t* size, const std::string& path) {
    return ReadSysfsFile(path, size);
}

}  // namespace android::meminfo
