/* The kernel's own memory: its total (-n) and the per-module table (-k). */
#pragma once

/* Prints the five kernel counters of /proc/meminfo, the unmapped DMA-BUF line and the total.
 * 0, -EEXIST when /proc/meminfo or /proc/config.gz cannot be opened, or -ENOMEM when the
 * unmapped figure ran out of memory. */
int parse_kernel_memory();
/* Prints the line of one module (name given) or the first column of every line (name null).
 * 0, or -EEXIST when the module table cannot be opened. */
int show_kmodule_mem(char *name);

#define MEMINFO_FIELD_BUF 40
#define KMODULE_COLUMN_BUF 64

enum { MEMINFO_NOT_COUNTED = -1, MEMINFO_MALFORMED = -2 };

/* For a /proc/meminfo line that starts with a counted key: its index in the counted keys, the
 * key without its colon and the value in kB. MEMINFO_NOT_COUNTED for any other line,
 * MEMINFO_MALFORMED for a counted line without a readable number. */
int parse_meminfo_line(const char *line, char key[MEMINFO_FIELD_BUF], long *kb);
/* The text before the first '|' of a module table line, ended by a newline instead of the
 * bar. False when the line has no bar or the column does not fit. */
bool kmodule_first_column(const char *line, char column[KMODULE_COLUMN_BUF]);
