// Finding the DMA-BUF buffers a process holds (its fdinfo files) and maps (its maps file).
#include "dmabufinfo/dmabufinfo.h"

#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>

#include "base/logging.h"
#include "base/stringprintf.h"
#include "base/strings.h"
#include "dmabufinfo/dmabuf_sysfs_stats.h"
#include "fdinfo.h"
#include "procinfo/process_map.h"

namespace android::dmabufinfo {

static const char kUnknown[] = "<unknown>";  // an exporter or name not known

DmaBuffer::DmaBuffer(uint64_t inode, uint64_t size, uint64_t count, const std::string& exporter,
                     const std::string& name)
    : inode_(inode), size_(size), count_(count), total_refs_(0), exporter_(exporter), name_(name) {}

void DmaBuffer::AddRefToPidMap(pid_t pid, std::unordered_map<pid_t, int>* map) {
    auto [it, inserted] = map->insert({pid, 1});
    if (!inserted) it->second++;
    pids_.insert(pid);
}

void DmaBuffer::RecordFdRef(pid_t pid) {
    AddRefToPidMap(pid, &fdrefs_);
    total_refs_++;
}

void DmaBuffer::RecordMapRef(pid_t pid) {
    AddRefToPidMap(pid, &maprefs_);
    total_refs_++;
}

static DmaBuffer* FindBuffer(std::vector<DmaBuffer>* dmabufs, uint64_t inode) {
    for (DmaBuffer& buf : *dmabufs) {
        if (buf.inode() == inode) return &buf;
    }
    return nullptr;
}

enum FdInfoStatus { kParsed, kGone, kFailed };

static bool permission_warning_logged = false;

static void LogPermissionWarningOnce() {
    if (permission_warning_logged) return;
    LOG(ERROR) << "Failed to read fdinfo - requires either PTRACE_MODE_READ or root depending on "
                  "the device kernel";
    permission_warning_logged = true;
}

static uint64_t ReadUnsigned(const std::string& value) { return strtoull(value.c_str(), nullptr, 10); }

// Matches "key:" at the start of line; on a match *value is the rest of the line.
static bool MatchKey(const std::string& line, const char* key, std::string* value) {
    size_t len = strlen(key);
    if (strncmp(line.c_str(), key, len) != 0) return false;
    *value = line.substr(len);
    return true;
}

// DMA-BUF fdinfo, as the kernel prints it (a tab after each colon):
//   size:	1048576
//   count:	3
//   exp_name:	system
//   name:	lab-named
// plus pos/flags/mnt_id/ino lines. Only "exp_name:" marks a DMA-BUF descriptor.
void ParseFdInfoLine(const std::string& line, FdInfo* info) {
    std::string value;
    switch (line[0]) {
        case 'c':
            if (MatchKey(line, "count:", &value)) info->count = ReadUnsigned(value);
            break;
        case 'e':
            if (MatchKey(line, "exp_name:", &value)) {
                info->exporter = base::Trim(value);
                info->is_dmabuf = true;
            }
            break;
        case 'i':
            if (MatchKey(line, "ino:", &value)) info->inode = ReadUnsigned(value);
            break;
        case 'n':
            if (MatchKey(line, "name:", &value)) info->name = base::Trim(value);
            break;
        case 's':
            if (MatchKey(line, "size:", &value)) info->size = ReadUnsigned(value);
            break;
    }
}

static FdInfoStatus ReadFdInfoFile(pid_t pid, int fd, const std::string& procfs_path, FdInfo* info) {
    std::string path = base::StringPrintf("%s/%d/fdinfo/%d", procfs_path.c_str(), pid, fd);
    *info = FdInfo();
    std::ifstream in(path);
    if (!in) {
        if (errno == ENOENT) return kGone;
        PLOG(ERROR) << "Failed to open " << path;
        if (errno == EACCES) {
            LogPermissionWarningOnce();
        } else {
            LOG(ERROR) << "Failed to read fd info for pid: " << pid << ", fd: " << fd;
        }
        return kFailed;
    }
    std::string line;
    while (std::getline(in, line)) ParseFdInfoLine(line, info);
    return kParsed;
}

// A descriptor number: base 16 with a 0x prefix, else base 10; the whole name, in int range.
static bool ParseFd(const char* name, int* fd) {
    while (*name == ' ' || *name == '\t' || *name == '\n' || *name == '\v' || *name == '\f' ||
           *name == '\r')
        name++;
    int base = (name[0] == '0' && (name[1] == 'x' || name[1] == 'X')) ? 16 : 10;
    char* end;
    errno = 0;
    long long value = strtoll(name, &end, base);
    if (errno != 0 || end == name || *end != '\0' || value < INT_MIN || value > INT_MAX)
        return false;
    *fd = static_cast<int>(value);
    return true;
}

bool ReadDmaBufFdRefs(pid_t pid, std::vector<DmaBuffer>* dmabufs, const std::string& procfs_path) {
    std::string dir_path = base::StringPrintf("%s/%d/fdinfo", procfs_path.c_str(), pid);
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(dir_path.c_str()), closedir);
    if (!dir) {
        if (errno == EACCES) {
            LogPermissionWarningOnce();
        } else {
            PLOG(ERROR) << "Failed to open " << dir_path << " directory";
        }
        return false;
    }

    FdInfo info;
    while (struct dirent* entry = readdir(dir.get())) {
        int fd;
        if (!ParseFd(entry->d_name, &fd)) continue;

        switch (ReadFdInfoFile(pid, fd, procfs_path, &info)) {
            case kGone:  // closed after the directory was listed
                continue;
            case kFailed:
                return false;
            case kParsed:
                break;
        }
        if (!info.is_dmabuf) continue;

        if (info.inode == UINT64_MAX) {
            // Kernels before 5.4 print no "ino:" line; the link's target is the buffer's file.
            std::string fd_path = base::StringPrintf("%s/%d/fd/%d", procfs_path.c_str(), pid, fd);
            struct stat st;
            if (stat(fd_path.c_str(), &st) != 0) {
                if (errno == ENOENT) continue;
                PLOG(ERROR) << "Failed to stat: " << fd_path;
                return false;
            }
            info.inode = st.st_ino;
            info.size = static_cast<uint64_t>(st.st_blocks) * 512;
        }

        DmaBuffer* buf = FindBuffer(dmabufs, info.inode);
        if (buf != nullptr) {
            if (buf->name().empty() || buf->name() == kUnknown) buf->set_name(info.name);
            if (buf->exporter().empty() || buf->exporter() == kUnknown)
                buf->set_exporter(info.exporter);
            if (buf->count() == 0) buf->set_count(info.count);
        } else {
            dmabufs->emplace_back(info.inode, info.size, info.count, info.exporter, info.name);
            buf = &dmabufs->back();
        }
        buf->RecordFdRef(pid);
    }
    return true;
}

bool ReadDmaBufMapRefs(pid_t pid, std::vector<DmaBuffer>* dmabufs, const std::string& procfs_path,
                       const std::string& dmabuf_sysfs_path) {
    std::string path = base::StringPrintf("%s/%d/maps", procfs_path.c_str(), pid);
    std::ifstream in(path);
    if (!in) {
        LOG(ERROR) << "Failed to open " << path << " for pid: " << pid;
        return false;
    }

    auto on_mapping = [&](const procinfo::MapInfo& m) {
        // "/dmabuf", "/dmabuf:<name>" and "/dmabuf (deleted)" all name DMA-BUF files.
        if (!base::StartsWith(m.name, "/dmabuf")) return;
        if (DmaBuffer* buf = FindBuffer(dmabufs, m.inode)) {
            buf->RecordMapRef(pid);
            return;
        }
        // sysfs names buffers by 32-bit inode numbers.
        unsigned int sysfs_inode = static_cast<unsigned int>(m.inode);
        std::string exporter;
        uint64_t size = 0;
        bool have_exporter = ReadBufferExporter(sysfs_inode, &exporter, dmabuf_sysfs_path);
        bool have_size = have_exporter && ReadBufferSize(sysfs_inode, &size, dmabuf_sysfs_path);
        if (!have_exporter) exporter = kUnknown;
        if (!have_size) size = m.end - m.start;  // the buffer is at least this mapping
        dmabufs->emplace_back(m.inode, size, 0, exporter, kUnknown);
        dmabufs->back().RecordMapRef(pid);
    };

    // Lines are taken whole, however long (a mapped file's path has no length limit).
    std::string line;
    while (std::getline(in, line)) {
        if (!procinfo::ReadMapFileContent(line.data(), on_mapping)) {
            LOG(ERROR) << "Failed to parse " << path << " for pid: " << pid;
            return false;
        }
    }
    return true;
}

}  // namespace android::dmabufinfo
