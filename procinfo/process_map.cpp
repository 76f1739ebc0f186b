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

// Reads a number with strtoull in base; at least one character must be consumed.
static bool ReadNumber(const char** p, int base, uint64_t* value) {
    char* end;
    *value = strtoull(*p, &end, base);
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

    if (!ReadNumber(&p, 16, &info->start) || *p++ != '-') return false;
    if (!ReadNumber(&p, 16, &info->end) || *p++ != ' ') return false;

    p = SkipBlanks(p);
    uint16_t flags = 0;
    if (p[0] == 'r') flags |= PROT_READ; else if (p[0] != '-') return false;
    if (p[1] == 'w') flags |= PROT_WRITE; else if (p[1] != '-') return false;
    if (p[2] == 'x') flags |= PROT_EXEC; else if (p[2] != '-') return false;
    if (p[3] == 's') info->shared = true;
    else if (p[3] == 'p') info->shared = false;
    else return false;
    if (p[4] != ' ') return false;
    info->flags = flags;
    p = SkipBlanks(p + 5);

    if (!ReadNumber(&p, 16, &info->offset) || *p++ != ' ') return false;

    p = SkipBlanks(p);
    if (!IsHexDigit(*p)) return false;
    while (IsHexDigit(*p)) p++;
    if (*p++ != ':' || !IsHexDigit(*p)) return false;
    while (IsHexDigit(*p)) p++;
    if (*p++ != ' ') return false;

    p = SkipBlanks(p);
    if (!ReadNumber(&p, 10, &value)) return false;
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
