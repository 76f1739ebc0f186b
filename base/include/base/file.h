// Whole-file reads.
#pragma once

#include <string>

namespace android::base {

// Reads the whole file at path into *content. With follow_symlinks false a symbolic link at the
// end of the path is not followed (the open fails), so a planted link cannot redirect the read.
bool ReadFileToString(const std::string& path, std::string* content, bool follow_symlinks = false);

}  // namespace android::base
