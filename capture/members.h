// The list of what a capture may hold (capture/members.txt), as the capture program reads it.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

namespace quarry::capture {

// What a capture keeps of the device's file (the KEEP column; members.txt says what each means).
enum class Keep { kAll, kDmabuf, kExpName, kLine, kHead, kExists, kInfo };

struct Member {
    std::string path;  // relative, without the trailing "/" of a folder
    uint64_t limit;    // bytes
    Keep keep;
    bool folder;
};

// The members of a list's text, in its order. False, with *error naming the line, on a line
// that is not "PATH LIMIT KEEP".
bool ParseMembers(std::string_view text, std::vector<Member>* members, std::string* error);

// Whether name fits a path component of the list: <pid>, <fd> and <inode> are decimal numbers as
// the kernel writes them (0, or 1-9 and at most 9 more digits); <name> is printable ASCII
// without "/" that does not begin with a blank. Any other component must be itself.
bool FitsComponent(std::string_view pattern, std::string_view name);
bool IsPlaceholder(std::string_view component);

}  // namespace quarry::capture
