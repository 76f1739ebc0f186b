// The copy itself: every file of the member list that the device has, read as the list says,
// into the archive.
#pragma once

#include <string>
#include <vector>

#include "archive.h"
#include "members.h"

namespace quarry::capture {

struct WalkOptions {
    std::string root;   // "" on a device; a test's tree otherwise
    bool full = false;  // whole maps files
};

// What the walk saw, for the checks of a complete capture.
struct WalkResult {
    std::vector<std::string> nonempty;  // the members written with at least one byte
    bool device_maps = false;           // some process's maps file had text (before the cut)
    std::vector<std::string> notes;     // files left out for a reason a user should hear
};

// Writes the members into out. A file that cannot be opened or read (gone with its process,
// not readable) is left out; a process or buffer folder gone by the time its files were read is
// left out whole, as the tool would no longer find it. False only when the archive could not be
// written (out->error() says why).
bool Walk(const std::vector<Member>& members, const WalkOptions& options, TarGzWriter* out,
          WalkResult* result);

}  // namespace quarry::capture
