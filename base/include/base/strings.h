// Small string helpers.
#pragma once

#include <string>
#include <string_view>

namespace android::base {

// s without leading and trailing white space (blank, \t, \n, \v, \f, \r).
std::string Trim(std::string_view s);
bool StartsWith(std::string_view s, std::string_view prefix);

}  // namespace android::base
