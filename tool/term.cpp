#include "term.h"

#include <stdio.h>
#include <unistd.h>

std::string escape_controls(const std::string &text)
{
    std::string out;
    char hex[5];

    out.reserve(text.size());
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f) {
            snprintf(hex, sizeof(hex), "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string term_safe(const std::string &text)
{
    /* Asked for each name: one ioctl, and no state kept for the run. */
    return isatty(STDOUT_FILENO) ? escape_controls(text) : text;
}
