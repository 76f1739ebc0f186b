#include "base/stringprintf.h"

#include <stdarg.h>
#include <stdio.h>

namespace android::base {

std::string StringPrintf(const char* fmt, ...) {
    char small[256];
    va_list ap;

    va_start(ap, fmt);
    int n = vsnprintf(small, sizeof(small), fmt, ap);
    va_end(ap);
    if (n < 0) return std::string();
    if (static_cast<size_t>(n) < sizeof(small)) return std::string(small, static_cast<size_t>(n));

    std::string out(static_cast<size_t>(n) + 1, '\0');
    va_start(ap, fmt);
    vsnprintf(out.data(), out.size(), fmt, ap);
    va_end(ap);
    out.resize(static_cast<size_t>(n));
    return out;
}

}  // namespace android::base
