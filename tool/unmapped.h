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
/* Prints the ION or DMA-BUF unmapped line and returns its figure in KB. */
long get_unmapped_buf_total();
/* The -u report. */
void show_unmapped_dmabuf();
