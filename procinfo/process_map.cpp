#include "procinfo/process_map.h"

#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

namespace android::procinfo {

static bool IsHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

static const char* SkipBlanks(const char* p) {
    while (*p == ' ') p++;
    return p;
}

// Digit values for bases up to 16; 99 for any other character.
static const struct DigitTable {
    unsigned char value[256];
    constexpr DigitTable() : value() {
        for (int c = 0; c < 256; c++) value[c] = 99;
        for (int c = '0'; c <= '9'; c++) value[c] = static_cast<unsigned char>(c - '0');
        for (int c = 'a'; c <= 'f'; c++) value[c] = static_cast<unsigned char>(c - 'a' + 10);
        for (int c = 'A'; c <= 'F'; c++) value[c] = static_cast<unsigned char>(c - 'A' + 10);
    }
} kDigits;

// Reads a number as strtoull in base reads it; at least one character must be consumed. The
// kernel's columns are plain digits, read here directly (every maps line of every process
// goes through this); anything strtoull treats specially (blanks, a sign, a 0x prefix, more
// digits than fit) is left to strtoull itself, so the result is the same either way.
template <unsigned kBase>
static bool ReadNumber(const char** p, uint64_t* value) {
    const unsigned char* s = reinterpret_cast<const unsigned char*>(*p);
    uint64_t v = 0;
    int digits = 0;
    for (unsigned d; (d = kDigits.value[s[digits]]) < kBase; digits++) v = v * kBase + d;
    constexpr int kMaxDigits = kBase == 16 ? 16 : 19;
    bool prefix = kBase == 16 && digits == 1 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
    if (digits > 0 && digits <= kMaxDigits && !prefix) {
        *value = v;
        *p += digits;
        return true;
    }
    char* end;
    *value = strtoull(*p, &end, kBase);
    if (end == *p) return false;
    *p = end;
    return true;
}

// The maps format is the kernel's "%08lx-%08lx %c%c%c%c %08llx %02x:%02x %lu " followed by
// padding and the name. Anything else (a tab between columns, a stray permission letter, a
// device without its colon) is not a maps line, and is reported rather than half-read.
bool ParseMapLine(const char* line, MapInfo* info) {
    const char* p = line;
    uint64_t value;

    if (!ReadNumber<16>(&p, &info->start) || *p++ != '-') return false;
    if (!ReadNumber<16>(&p, &info->end) || *p++ != ' ') return false;

    p = SkipBlanks(p);
    uint16_t flags = 0;
    if (p[0] == 'r')
        flags |= PROT_READ;
    else if (p[0] != '-')
        return false;
    if (p[1] == 'w')
        flags |= PROT_WRITE;
    else if (p[1] != '-')
        return false;
    if (p[2] == 'x')
        flags |= PROT_EXEC;
    else if (p[2] != '-')
        return false;
    if (p[3] == 's')
        info->shared = true;
    else if (p[3] == 'p')
        info->shared = false;
    else
        return false;
    if (p[4] != ' ') return false;
    info->flags = flags;
    p = SkipBlanks(p + 5);

    if (!ReadNumber<16>(&p, &info->offset) || *p++ != ' ') return false;

    p = SkipBlanks(p);
    if (!IsHexDigit(*p)) return false;
    while (IsHexDigit(*p)) p++;
    if (*p++ != ':' || !IsHexDigit(*p)) return false;
    while (IsHexDigit(*p)) p++;
    if (*p++ != ' ') return false;

    p = SkipBlanks(p);
    if (!ReadNumber<10>(&p, &value)) return false;
    info->inode = value;

    if (*p == '\0') {
        info->name.clear();
        return true;
    }
    if (*p != ' ') return false;
    info->name = SkipBlanks(p);
    return true;
}

bool ReadMapFileContent(char* content, const std::function<void(const MapInfo&)>& callback) {
    if (content == nullptr) return true;
    // Each call owns its record: a callback may itself read another maps text.
    MapInfo info;
    char* line = content;
    for (;;) {
        char* next = strchr(line, '\n');
        if (next != nullptr) *next++ = '\0';
        if (*line == '\0') return true;  // an empty line ends the text
        if (!ParseMapLine(line, &info)) return false;
        callback(info);
        if (next == nullptr) return true;
        line = next;
    }
}

}  // namespace android::procinfo
