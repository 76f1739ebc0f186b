// printf-style formatting into a std::string.
#pragma once

#include <string>

namespace android::base {

std::string StringPrintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace android::base
