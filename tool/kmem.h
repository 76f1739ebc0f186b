/* The kernel's own memory: its total (-n) and the per-module table (-k). */
#pragma once

/* Prints the five kernel counters of /proc/meminfo, the unmapped DMA-BUF line and the total.
 * 0, or -EEXIST when /proc/meminfo or /proc/config.gz cannot be opened. */
int parse_kernel_memory();
/* Prints the line of one module (name given) or the first column of every line (name null).
 * 0, or -EEXIST when the module table cannot be opened. */
int show_kmodule_mem(char *name);
