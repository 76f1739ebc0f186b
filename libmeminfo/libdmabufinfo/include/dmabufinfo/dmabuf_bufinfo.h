// The debug file system's table of every exported DMA-BUF buffer, <debugfs>/dma_buf/bufinfo: the
// one list of all buffers on kernels built without the DMA-BUF sysfs statistics.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>

#include "dmabufinfo/dmabuf_sysfs_stats.h"

namespace android::dmabufinfo {

// Every buffer of the table, in the table's order (newest first), with totals per exporter and
// overall, as GetDmabufSysfsStats gives them for the sysfs tree. False when the file cannot be
// read, has no inode column (its buffers cannot be matched with the processes' references), has
// an object line that does not parse, or ends before its closing "Total N objects, M bytes" line
// or disagrees with it; the rows read before such a failure stay.
bool GetDmabufBufinfoStats(DmabufSysfsStats* stats,
                           const std::string& path = "/sys/kernel/debug/dma_buf/bufinfo");

// The same on the table's text; source names it in the log.
bool ParseDmabufBufinfo(std::string_view text, DmabufSysfsStats* stats, const std::string& source);

}  // namespace android::dmabufinfo
