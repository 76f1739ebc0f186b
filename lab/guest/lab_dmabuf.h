/*
 * What the lab's guest clients share: allocating DMA-BUF buffers, their inodes, handing one to
 * the kernel, and writing the lines the checks read.
 */
#ifndef LAB_DMABUF_H
#define LAB_DMABUF_H

#include <stddef.h>

/* perror(what), then exit 1: a client that cannot set up its state has nothing to show. */
void die(const char *what);
/* A buffer of len bytes from the DMA-BUF heap device at heap (e.g. /dev/dma_heap/system). */
int heap_alloc(const char *heap, size_t len);
/* The buffer's inode, as the tool and the kernel's tables name it. */
unsigned long inode_of(int fd);
/* A shared read-write mapping of the buffer. */
void *map(int fd, size_t len);
/*
 * Queues fd on a unix socket pair whose ends stay open and that nobody reads: once the caller
 * closes fd, the kernel holds the file and no process does.
 */
void park_in_socket(int fd);
/* Writes text to path.tmp and renames it to path, so a reader never sees half of it. */
void publish(const char *path, const char *text);

#endif
