// ION allocator totals in sysfs, in KB.
#pragma once

#include <stdint.h>

#include <string>

namespace android::meminfo {

bool ReadIonHeapsSizeKb(uint64_t* size, const std::string& path = "/sys/kernel/ion/total_heaps_kb");
bool ReadIonPoolsSizeKb(uint64_t* size, const std::string& path = "/sys/kernel/ion/total_pools_kb");

}  // namespace android::meminfo
