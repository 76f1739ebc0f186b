// The kernel's DMA-BUF sysfs statistics: /sys/kernel/dmabuf/buffers/<inode>/{size,exporter_name}.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace android::dmabufinfo {

struct DmabufInfo {
    uint64_t inode;
    std::string exporter_name;
    uint64_t size;  // bytes
};

struct DmabufTotal {
    uint64_t size;  // bytes
    unsigned int count;
};

class DmabufSysfsStats {
  public:
    const std::vector<DmabufInfo>& buffer_stats() const { return buffers_; }
    const std::unordered_map<std::string, DmabufTotal>& exporter_info() const {
        return exporter_totals_;
    }
    uint64_t total_size() const { return total_.size; }
    unsigned int total_count() const { return total_.count; }

  private:
    // Appends a row and counts it into its exporter's total and the overall one.
    void AddBuffer(DmabufInfo info);

    std::vector<DmabufInfo> buffers_;
    std::unordered_map<std::string, DmabufTotal> exporter_totals_;
    DmabufTotal total_ = {0, 0};

    friend bool GetDmabufSysfsStats(DmabufSysfsStats* stats, const std::string& path);
    friend bool ParseDmabufBufinfo(std::string_view text, DmabufSysfsStats* stats,
                                   const std::string& source);
};

// Every exported buffer, in directory order, with totals per exporter and overall.
bool GetDmabufSysfsStats(DmabufSysfsStats* stats,
                         const std::string& path = "/sys/kernel/dmabuf/buffers");
// The sizes of all exported buffers, summed in bytes and then given in whole KB.
bool GetDmabufTotalExportedKb(uint64_t* total_exported,
                              const std::string& path = "/sys/kernel/dmabuf/buffers");
// One buffer's exporter_name, as read (its newline kept).
bool ReadBufferExporter(unsigned int inode, std::string* exporter,
                        const std::string& dmabuf_sysfs_path = "/sys/kernel/dmabuf/buffers");
bool ReadBufferSize(unsigned int inode, uint64_t* size,
                    const std::string& dmabuf_sysfs_path = "/sys/kernel/dmabuf/buffers");

// The number rule of sysfs attributes and buffer directory names: optional leading white space,
// no sign, "0x"/"0X" for hexadecimal else decimal (a leading 0 is not octal), no overflow, at
// least one digit and nothing after the number.
bool ParseSysfsUint(std::string_view text, uint64_t* value);

}  // namespace android::dmabufinfo
