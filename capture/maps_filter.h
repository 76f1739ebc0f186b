// What a capture keeps of a maps file: the lines the reports read.
#pragma once

#include <stddef.h>

#include <string>

namespace quarry::capture {

// Appends to *out the lines of the maps text text[0, size) that the tool's maps reader would
// count or stop at: lines whose name begins with "/dmabuf", whole however long, and the first
// line it cannot parse (it stops there and names the file, so the replay must stop there too;
// nothing after it is kept). Empty lines, which the reader passes over, are dropped. text must
// have room for one byte more than size: each line is parsed in place as a C string. True when
// it stopped at a line it cannot parse (text after it, read later, is not to be kept either).
bool KeepDmabufLines(char* text, size_t size, std::string* out);

}  // namespace quarry::capture
