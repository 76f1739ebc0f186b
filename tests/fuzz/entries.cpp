#include "entries.h"

#include <base/logging.h>
#include <dmabufinfo/dmabuf_bufinfo.h>
#include <dmabufinfo/dmabuf_sysfs_stats.h>
#include <procinfo/process_map.h>
#include <string.h>

#include <string>
#include <string_view>

#include "fdinfo.h"
#include "fields.h"
#include "kmem.h"
#include "reserved.h"

namespace {

// Hands the input to fn as the tool's fgets() loop would: pieces of at most 127 characters,
// each ending at a newline or at the buffer's end, as NUL-terminated strings.
template <typename Fn>
void ForEachPiece(const uint8_t* data, size_t size, Fn fn) {
    char piece[LINE_BUF_SIZE];
    size_t i = 0;
    while (i < size) {
        size_t n = 0;
        while (i < size && n < sizeof(piece) - 1) {
            piece[n++] = static_cast<char>(data[i++]);
            if (piece[n - 1] == '\n') break;
        }
        piece[n] = '\0';
        fn(piece);
    }
}

}  // namespace

void FuzzMaps(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    size_t lines = 1;
    for (char c : text) lines += c == '\n';
    size_t parsed = 0;
    android::procinfo::ReadMapFileContent(text.data(), [&](const android::procinfo::MapInfo& m) {
        // Three protection bits; a name is the rest of one line and never starts with padding.
        if (m.flags > 7 || m.name.find('\n') != std::string::npos ||
            (!m.name.empty() && m.name[0] == ' ') || ++parsed > lines)
            __builtin_trap();
    });
}

// The sysfs number rule written out digit by digit: white space, no minus, "0x" for base 16
// (else an optional plus and base 10), one digit at least, nothing after, no overflow.
static bool ReferenceSysfsUint(std::string_view s, uint64_t* value) {
    size_t i = 0;
    while (i < s.size() && strchr(" \t\n\v\f\r", s[i]) != nullptr && s[i] != '\0') i++;
    unsigned base = 10;
    if (s.substr(i, 2) == "0x" || s.substr(i, 2) == "0X") {
        base = 16;
        i += 2;
    } else if (i < s.size() && s[i] == '+') {
        i++;
    }
    if (i == s.size()) return false;
    uint64_t v = 0;
    for (; i < s.size(); i++) {
        char c = s[i];
        unsigned d = c >= '0' && c <= '9'   ? c - '0'
                     : c >= 'a' && c <= 'f' ? c - 'a' + 10
                     : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                            : 99;
        if (d >= base || v > (UINT64_MAX - d) / base) return false;
        v = v * base + d;
    }
    *value = v;
    return true;
}

void FuzzSysfsNumber(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    uint64_t value = 0, want = 0;
    bool ok = android::dmabufinfo::ParseSysfsUint(text, &value);
    if (ok != ReferenceSysfsUint(text, &want) || (ok && value != want)) __builtin_trap();
}

void FuzzFdInfo(const uint8_t* data, size_t size) {
    android::dmabufinfo::FdInfo info;
    std::string_view text(reinterpret_cast<const char*>(data), size);
    while (!text.empty()) {
        size_t end = text.find('\n');
        android::dmabufinfo::ParseFdInfoLine(std::string(text.substr(0, end)).c_str(), &info);
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
}

void FuzzReservedStat(const uint8_t* data, size_t size) {
    ForEachPiece(data, size, [](const char* line) {
        reserved_region region;
        long kb;
        if (parse_region_line(line, &region) == 0 && (strlen(region.name) >= sizeof(region.name) ||
                                                      strlen(region.type) >= sizeof(region.type)))
            __builtin_trap();
        parse_size_kb(line, &kb);
    });
}

void FuzzMemblock(const uint8_t* data, size_t size) {
    ForEachPiece(data, size, [](const char* line) {
        uint64_t start, end;
        parse_memblock_line(line, &start, &end);
    });
}

void FuzzIomem(const uint8_t* data, size_t size) {
    ForEachPiece(data, size, [](const char* line) {
        uint64_t start, end;
        // A range is only cut from a line that has a blank, then a '-', then a ':'.
        const char* blank = strchr(line, ' ');
        if (parse_iomem_line(line, &start, &end) == 0 &&
            !(blank && strchr(blank, '-') && strchr(strchr(line, '-'), ':')))
            __builtin_trap();
    });
}

void FuzzMeminfo(const uint8_t* data, size_t size) {
    ForEachPiece(data, size, [](const char* line) {
        char key[MEMINFO_FIELD_BUF];
        long kb;
        if (parse_meminfo_line(line, key, &kb) >= 0 && strlen(key) >= sizeof(key)) __builtin_trap();
    });
}

void FuzzKmodule(const uint8_t* data, size_t size) {
    ForEachPiece(data, size, [](const char* line) {
        char column[KMODULE_COLUMN_BUF];
        if (kmodule_first_column(line, column) && strlen(column) > KMODULE_COLUMN_BUF - 2 + 1)
            __builtin_trap();
    });
}

// A table that parses is one whose rows add up to its totals, per exporter and overall.
void FuzzBufinfo(const uint8_t* data, size_t size) {
    android::dmabufinfo::DmabufSysfsStats stats;
    auto old = android::base::SetMinimumLogSeverity(android::base::FATAL_WITHOUT_ABORT);
    bool ok = android::dmabufinfo::ParseDmabufBufinfo(
        std::string_view(reinterpret_cast<const char*>(data), size), &stats, "fuzz");
    android::base::SetMinimumLogSeverity(old);
    uint64_t bytes = 0, exporter_bytes = 0;
    unsigned exporter_count = 0;
    for (const auto& row : stats.buffer_stats()) bytes += row.size;
    for (const auto& [name, total] : stats.exporter_info()) {
        exporter_bytes += total.size;
        exporter_count += total.count;
    }
    if (bytes != stats.total_size() || exporter_bytes != bytes ||
        exporter_count != stats.buffer_stats().size() ||
        stats.total_count() != stats.buffer_stats().size() || (ok && size == 0))
        __builtin_trap();
}

const std::map<std::string, FuzzEntry>& FuzzEntries() {
    static const std::map<std::string, FuzzEntry> entries = {
        {"maps", FuzzMaps},         {"sysfs_number", FuzzSysfsNumber},
        {"fdinfo", FuzzFdInfo},     {"reserved", FuzzReservedStat},
        {"memblock", FuzzMemblock}, {"iomem", FuzzIomem},
        {"meminfo", FuzzMeminfo},   {"kmodule", FuzzKmodule},
        {"bufinfo", FuzzBufinfo},
    };
    return entries;
}
