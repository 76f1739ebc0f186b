// <debugfs>/dma_buf/bufinfo, as the kernel prints it (6.1; tabs between the columns):
//
//   Dma-buf Objects:
//   size    	flags   	mode    	count   	exp_name	ino     	name
//   01048576	00000002	00080007	00000002	system	00000001	lab-named
//   	write fence:drm_sched asahi_sched seq 5809165 signalled
//   	Attached Devices:
//   	soc:display-subsystem
//   Total 1 devices attached
//
//   Total 7 objects, 4161536 bytes
//
// Sizes and inodes are zero-padded decimal. Fence lines (recent kernels) and the attached
// devices are indented, so an object line is the one line of its object that starts with a
// digit. Kernels before 4.12 print no ino column; some Android 4.9 kernels print the old header
// and then a new one with ino, and the last header says what the object lines hold. The whole
// table is printed in one go under the kernel's list lock, so it is one consistent snapshot;
// without its Total line it was cut short and says nothing about the buffers after the cut.
//
// The ino column is the buffer file's inode number, printed whole ("%08lu"). Since 5.17 (and in
// the stable and Android kernels the change was carried into, with the sysfs statistics)
// dma-buf numbers its files from a 64-bit counter of its own, never reused while the system
// runs; before, they were numbered by get_next_ino(), a 32-bit counter that repeats only after
// 2^32 files. So an
// inode from 2^32 up is a buffer of its own, compared whole, and two rows with one inode are
// not something a kernel of this decade prints: were they two buffers, a process's mapping of
// that inode could be either, and the table cannot say which memory is unmapped.
#include "dmabufinfo/dmabuf_bufinfo.h"

#include <unordered_map>
#include <vector>

#include "base/file.h"
#include "base/logging.h"
#include "base/strings.h"

namespace android::dmabufinfo {

namespace {

struct Columns {
    size_t size = SIZE_MAX;
    size_t exporter = SIZE_MAX;
    size_t inode = SIZE_MAX;
};

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// The columns of a line: split at tabs when it has any (a name or exporter may hold blanks),
// each trimmed of the padding the kernel adds to the header; else at runs of blanks (a table
// copied through a terminal has lost its tabs).
std::vector<std::string_view> SplitColumns(std::string_view line) {
    std::vector<std::string_view> columns;
    if (line.find('\t') != std::string_view::npos) {
        for (;;) {
            size_t tab = line.find('\t');
            std::string_view field = line.substr(0, tab);
            while (!field.empty() && IsBlank(field.front())) field.remove_prefix(1);
            while (!field.empty() && IsBlank(field.back())) field.remove_suffix(1);
            columns.push_back(field);
            if (tab == std::string_view::npos) break;
            line.remove_prefix(tab + 1);
        }
        return columns;
    }
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && IsBlank(line[i])) i++;
        size_t start = i;
        while (i < line.size() && !IsBlank(line[i])) i++;
        if (i > start) columns.push_back(line.substr(start, i - start));
    }
    return columns;
}

// Decimal digits only, leading zeros allowed (they are padding, not octal), no overflow.
bool ParseDecimal(std::string_view text, uint64_t* value) {
    if (text.empty()) return false;
    uint64_t v = 0;
    for (char c : text) {
        if (!IsDigit(c)) return false;
        unsigned d = static_cast<unsigned>(c - '0');
        if (v > (UINT64_MAX - d) / 10) return false;
        v = v * 10 + d;
    }
    *value = v;
    return true;
}

// "Total 7 objects, 4161536 bytes"; the attachment lines "Total 1 devices attached" are not it.
bool ParseTotalLine(std::string_view line, bool* is_total, uint64_t* objects, uint64_t* bytes) {
    std::vector<std::string_view> words = SplitColumns(line);
    *is_total = words.size() >= 3 && words[0] == "Total" && words[2] == "objects,";
    if (!*is_total) return true;
    return words.size() == 5 && words[4] == "bytes" && ParseDecimal(words[1], objects) &&
           ParseDecimal(words[3], bytes);
}

}  // namespace

bool ParseDmabufBufinfo(std::string_view text, DmabufSysfsStats* stats, const std::string& source) {
    *stats = DmabufSysfsStats();
    bool have_header = false, have_total = false;
    Columns columns;
    size_t line_number = 0;
    std::unordered_map<uint64_t, size_t> line_of_inode;

    while (!text.empty()) {
        size_t newline = text.find('\n');
        std::string_view line = text.substr(0, newline);
        text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
        line_number++;
        if (line.empty() || IsBlank(line[0])) continue;  // attachments, fences, gaps

        if (base::StartsWith(line, "size")) {
            std::vector<std::string_view> names = SplitColumns(line);
            columns = Columns();
            for (size_t i = 0; i < names.size(); i++) {
                if (names[i] == "size") columns.size = i;
                if (names[i] == "exp_name") columns.exporter = i;
                if (names[i] == "ino") columns.inode = i;
            }
            if (columns.size != 0 || columns.exporter == SIZE_MAX) {
                LOG(ERROR) << "Unable to parse the header on line " << line_number << " of "
                           << source;
                return false;
            }
            have_header = true;
            continue;
        }
        if (base::StartsWith(line, "Total")) {
            bool is_total;
            uint64_t objects = 0, bytes = 0;
            if (!ParseTotalLine(line, &is_total, &objects, &bytes)) {
                LOG(ERROR) << "Unable to parse the total on line " << line_number << " of "
                           << source;
                return false;
            }
            if (!is_total) continue;
            if (objects != stats->total_count() || bytes != stats->total_size()) {
                LOG(ERROR) << source << " totals " << objects << " objects, " << bytes
                           << " bytes, but lists " << stats->total_count() << " objects, "
                           << stats->total_size() << " bytes";
                return false;
            }
            have_total = true;
            continue;
        }
        if (!IsDigit(line[0])) continue;  // "Dma-buf Objects:"

        if (!have_header || have_total) {
            LOG(ERROR) << "Unexpected object on line " << line_number << " of " << source;
            return false;
        }
        if (columns.inode == SIZE_MAX) {
            LOG(ERROR) << source << " has no ino column: its buffers cannot be matched with the "
                       << "processes' references";
            return false;
        }
        std::vector<std::string_view> fields = SplitColumns(line);
        DmabufInfo info;
        if (fields.size() <= columns.exporter || fields.size() <= columns.inode ||
            !ParseDecimal(fields[columns.size], &info.size) ||
            !ParseDecimal(fields[columns.inode], &info.inode)) {
            LOG(ERROR) << "Unable to parse the object on line " << line_number << " of " << source;
            return false;
        }
        auto [first, inserted] = line_of_inode.emplace(info.inode, line_number);
        if (!inserted) {
            LOG(ERROR) << source << " lists inode " << info.inode << " on lines " << first->second
                       << " and " << line_number
                       << ": its buffers cannot be told apart by the processes' references";
            return false;
        }
        info.exporter_name = std::string(fields[columns.exporter]);

        // The sums wrap like the kernel's own would; a table whose sizes overflow 64 bits
        // cannot agree with its Total line anyway.
        stats->AddBuffer(std::move(info));
    }
    if (!have_total) {
        LOG(ERROR) << source << " ends before its Total line";
        return false;
    }
    return true;
}

bool GetDmabufBufinfoStats(DmabufSysfsStats* stats, const std::string& path) {
    std::string text;
    if (!base::ReadFileToString(path, &text, false)) {
        PLOG(ERROR) << "Unable to access " << path;
        return false;
    }
    return ParseDmabufBufinfo(text, stats, path);
}

}  // namespace android::dmabufinfo
