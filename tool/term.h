/* Names that processes choose, made harmless for a terminal. */
#pragma once

#include <string>

/* text with every control character (below 0x20, and 0x7f) written as \xHH. */
std::string escape_controls(const std::string &text);
/* text as read when standard output is a file or a pipe; escape_controls(text) when it is a
 * terminal, where a process's name could otherwise send escape sequences to the root shell. */
std::string term_safe(const std::string &text);
