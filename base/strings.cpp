#include "base/strings.h"

namespace android::base {

static bool IsSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::string Trim(std::string_view s) {
    size_t begin = 0, end = s.size();
    while (begin < end && IsSpace(s[begin])) begin++;
    while (end > begin && IsSpace(s[end - 1])) end--;
    return std::string(s.substr(begin, end - begin));
}

bool StartsWith(std::string_view s, std::string_view prefix) {
    return s.substr(0, prefix.size()) == prefix;
}

}  // namespace android::base
