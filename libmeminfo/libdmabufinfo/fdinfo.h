// What one /proc/<pid>/fdinfo/<fd> file says about a DMA-BUF descriptor. Internal to the
// library; the fd reader fills it line by line.
#pragma once

#include <stdint.h>

#include <string>

namespace android::dmabufinfo {

struct FdInfo {
    uint64_t inode = UINT64_MAX;  // no "ino:" line (kernels before 5.4)
    uint64_t size = 0;
    uint64_t count = 0;
    std::string exporter = "<unknown>";
    std::string name = "<unknown>";
    bool is_dmabuf = false;  // an "exp_name:" line was seen
};

// Takes one NUL-terminated line (without its newline) into info; a later line of the same key
// wins.
void ParseFdInfoLine(const char* line, FdInfo* info);

}  // namespace android::dmabufinfo
