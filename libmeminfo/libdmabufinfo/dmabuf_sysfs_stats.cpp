// Each exported DMA-BUF buffer is a directory of /sys/kernel/dmabuf/buffers named by the inode
// number of its file, holding "size" (bytes) and "exporter_name", one line each.
#include "dmabufinfo/dmabuf_sysfs_stats.h"

#include <dirent.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "base/file.h"
#include "base/logging.h"
#include "base/stringprintf.h"
#include "base/strings.h"

namespace android::dmabufinfo {

using DirPtr = std::unique_ptr<DIR, int (*)(DIR*)>;

static bool IsSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool ParseSysfsUint(std::string_view text, uint64_t* value) {
    size_t i = 0;
    while (i < text.size() && IsSpace(text[i])) i++;
    std::string number(text.substr(i));
    if (number.empty() || number[0] == '-') return false;
    int base =
        (number.size() > 1 && number[0] == '0' && (number[1] == 'x' || number[1] == 'X')) ? 16 : 10;
    char* end;
    errno = 0;
    unsigned long long parsed = strtoull(number.c_str(), &end, base);
    // Nothing may follow the number, a NUL byte included.
    if (errno != 0 || end == number.c_str() || end != number.c_str() + number.size()) return false;
    *value = parsed;
    return true;
}

static bool ReadUintFromFile(const std::string& path, uint64_t* value) {
    std::string content;
    if (!base::ReadFileToString(path, &content, false)) {
        PLOG(ERROR) << "Unable to access " << path;
        return false;
    }
    uint64_t parsed;
    if (!ParseSysfsUint(base::Trim(content), &parsed)) {
        LOG(ERROR) << "Unable to parse value from " << path;
        return false;
    }
    if (value != nullptr) *value = parsed;
    return true;
}

static bool IsDotEntry(const char* name) { return !strcmp(name, ".") || !strcmp(name, ".."); }

static DirPtr OpenBuffersDir(const std::string& path) {
    DirPtr dir(opendir(path.c_str()), closedir);
    if (!dir) {
        PLOG(ERROR) << "Unable to access: " << path;
    }
    return dir;
}

void DmabufSysfsStats::AddBuffer(DmabufInfo info) {
    total_.size += info.size;
    total_.count++;
    auto [it, inserted] =
        exporter_totals_.try_emplace(info.exporter_name, DmabufTotal{info.size, 1});
    if (!inserted) {
        it->second.size += info.size;
        it->second.count++;
    }
    buffers_.push_back(std::move(info));
}

bool GetDmabufSysfsStats(DmabufSysfsStats* stats, const std::string& path) {
    DirPtr dir = OpenBuffersDir(path);
    if (!dir) return false;
    *stats = DmabufSysfsStats();

    // Entries are not filtered by type: anything in this directory stands for a buffer, and
    // one that cannot be read as such fails the walk rather than being silently left out.
    while (struct dirent* entry = readdir(dir.get())) {
        if (IsDotEntry(entry->d_name)) continue;
        std::string buf_path = base::StringPrintf("%s/%s", path.c_str(), entry->d_name);

        DmabufInfo info;
        if (!ParseSysfsUint(entry->d_name, &info.inode)) {
            LOG(ERROR) << "Unable to parse value from " << entry->d_name;
            return false;
        }
        std::string exporter_path = buf_path + "/exporter_name";
        std::string exporter;
        if (!base::ReadFileToString(exporter_path, &exporter, false)) {
            PLOG(ERROR) << "Unable to access " << exporter_path;
            return false;
        }
        info.exporter_name = base::Trim(exporter);
        if (!ReadUintFromFile(buf_path + "/size", &info.size)) return false;

        stats->AddBuffer(std::move(info));
    }
    return true;
}

bool GetDmabufTotalExportedKb(uint64_t* total_exported, const std::string& path) {
    DirPtr dir = OpenBuffersDir(path);
    if (!dir) return false;
    *total_exported = 0;
    while (struct dirent* entry = readdir(dir.get())) {
        if (IsDotEntry(entry->d_name)) continue;
        uint64_t size = 0;
        std::string size_path = base::StringPrintf("%s/%s", path.c_str(), entry->d_name) + "/size";
        if (!ReadUintFromFile(size_path, &size)) return false;
        *total_exported += size;
    }
    // Whole KB of the byte sum: rounding once, not per buffer.
    *total_exported >>= 10;
    return true;
}

bool ReadBufferExporter(unsigned int inode, std::string* exporter,
                        const std::string& dmabuf_sysfs_path) {
    std::string path = base::StringPrintf("%s/%u/exporter_name", dmabuf_sysfs_path.c_str(), inode);
    return base::ReadFileToString(path, exporter, false);
}

bool ReadBufferSize(unsigned int inode, uint64_t* size, const std::string& dmabuf_sysfs_path) {
    std::string path = base::StringPrintf("%s/%u/size", dmabuf_sysfs_path.c_str(), inode);
    return ReadUintFromFile(path, size);
}

}  // namespace android::dmabufinfo
