/* Which DMA-BUF buffers no process maps: the process walks, the unmapped total of the kernel
 * memory report (-n) and the per-buffer report (-u). */
#pragma once

#include <dmabufinfo/dmabufinfo.h>

#include <vector>

/* Collects every buffer some process maps. 0, or -1 when a process's maps could not be read;
 * exits the program with status 1 when /proc cannot be opened. */
int get_dmabufs_mapped(std::vector<android::dmabufinfo::DmaBuffer> *dmabufs);
/* Collects every buffer some process holds open or maps. 0, or -1 on any failure. */
int get_dmabufs_process(std::vector<android::dmabufinfo::DmaBuffer> *dmabufs);
/* The held walk in bounded passes, as the -u report runs it; what could not be read is named
 * on standard error. */
void collect_held_dmabufs(std::vector<android::dmabufinfo::DmaBuffer> *held);
/* Prints the ION or DMA-BUF unmapped line and returns its figure in KB. Out of memory, it names
 * what it could not allocate on standard error and lets std::bad_alloc through. */
long get_unmapped_buf_total();
/* The -u report. 0, or -ENOMEM (after a message on standard error) when memory runs out. */
int show_unmapped_dmabuf();

/* True when the process has exited: its directory under the procfs root is gone. */
bool process_exited(const char *proc_root, int pid);

/* One read of sysfs statistics from the directory path into out: true when it succeeded. */
typedef bool (*sysfs_read)(void *out, const char *path);
/* Runs read until it succeeds, each time from scratch, at most a fixed number of times: the
 * attempt that succeeded (1 for the first), or -1. */
int read_with_retries(sysfs_read read, void *out, const char *path);
