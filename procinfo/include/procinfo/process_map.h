// Reading /proc/<pid>/maps.
#pragma once

#include <stdint.h>

#include <functional>
#include <string>

namespace android::procinfo {

// One line of a maps file:
//   start-end perms offset major:minor inode   name
struct MapInfo {
    uint64_t start;
    uint64_t end;
    uint16_t flags;  // PROT_READ | PROT_WRITE | PROT_EXEC
    uint64_t offset;
    uint64_t inode;
    std::string name;  // everything after the inode column and its padding; may be empty
    bool shared;
};

// Parses one maps line (without its newline). False when the line is malformed.
bool ParseMapLine(const char* line, MapInfo* info);

// Walks content line by line, overwriting each line's newline with a NUL, and hands every
// parsed line to callback (the MapInfo is valid only during the call). An empty line ends the
// walk. False at the first malformed line; the lines before it have been handed over. A null
// content is an empty text.
bool ReadMapFileContent(char* content, const std::function<void(const MapInfo&)>& callback);

}  // namespace android::procinfo
