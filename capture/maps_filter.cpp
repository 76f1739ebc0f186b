#include "maps_filter.h"

#include <string.h>

#include "base/strings.h"
#include "procinfo/process_map.h"

namespace quarry::capture {

bool KeepDmabufLines(char* text, size_t size, std::string* out) {
    // The reader's own parser decides, so a line it would stop at, or read differently (a NUL
    // ends its line early), is judged here exactly as it will be on replay.
    android::procinfo::MapInfo info;
    size_t pos = 0;
    while (pos < size) {
        char* newline = static_cast<char*>(memchr(text + pos, '\n', size - pos));
        size_t end = newline != nullptr ? static_cast<size_t>(newline - text) : size;
        size_t next = newline != nullptr ? end + 1 : size;
        if (end == pos) {
            pos = next;
            continue;
        }
        char saved = text[end];
        text[end] = '\0';
        bool parsed = android::procinfo::ParseMapLine(text + pos, &info);
        text[end] = saved;
        if (!parsed) {
            out->append(text + pos, next - pos);
            return true;
        }
        if (android::base::StartsWith(info.name, "/dmabuf")) out->append(text + pos, next - pos);
        pos = next;
    }
    return false;
}

}  // namespace quarry::capture
