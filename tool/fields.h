/* Cutting fields out of kernel text lines into small fixed buffers. */
#pragma once

#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

/* The tool reads kernel text files in fgets() pieces of this size: a longer line arrives as
 * pieces of at most 127 characters, and each piece is handled as a line. */
#define LINE_BUF_SIZE 128

/* Copies the text [from, to) into buf, zeroed first. A text that does not fit its buffer
 * (with the terminating NUL), or whose end stands before its start, counts as absent:
 * -1. Cutting it short would read a different number or name than the kernel wrote, so
 * callers treat such a line exactly like one that lacks the field. */
static inline int copy_field(char *buf, size_t size, const char *from, const char *to)
{
    memset(buf, 0, size);
    if (to < from || static_cast<size_t>(to - from) >= size)
        return -1;
    memcpy(buf, from, static_cast<size_t>(to - from));
    return 0;
}

/* After a reading loop: a stream that stopped on an error rather than at its end (a directory
 * where a file belongs, an I/O error) is named on standard error, so a short report is not
 * mistaken for a whole one. */
static inline void report_read_error(FILE *fp, const char *path)
{
    if (ferror(fp))
        fprintf(stderr, "quarrystat: cannot read %s: %s\n", path, strerror(errno));
}
