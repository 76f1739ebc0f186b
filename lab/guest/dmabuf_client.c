/*
 * Lab test client: holds DMA-BUF buffers in known states while quarrystat runs.
 *
 *   parent holds:   sys-mapped-held (mapped, named "lab-named"), sys-held-only (two fds),
 *                   cma-held (shared with the child, inherited across fork)
 *   parent maps:    sys-mapped-only (twice, no fd)
 *   child holds:    cma-held, udmabuf-child
 *   child maps:     child-mapped (no fd)
 *   no process:     kernel-only (its only reference is in flight in a unix socket)
 *
 * When everything is set up it writes one line per buffer to the file given as argument:
 *   <name> <inode> <size> <expected owner pids, comma separated, or "kernel"> <mapped 0|1>
 * and then waits to be killed.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <linux/dma-buf.h>
#include <linux/udmabuf.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "lab_dmabuf.h"

static int udmabuf_alloc(size_t len)
{
	struct udmabuf_create create = { 0 };
	int memfd = memfd_create("lab-udmabuf", MFD_ALLOW_SEALING);
	int dev = open("/dev/udmabuf", O_RDWR | O_CLOEXEC);
	int fd;

	if (memfd < 0 || dev < 0)
		die("udmabuf setup");
	if (ftruncate(memfd, len) < 0 || fcntl(memfd, F_ADD_SEALS, F_SEAL_SHRINK) < 0)
		die("memfd");
	create.memfd = memfd;
	create.size = len;
	fd = ioctl(dev, UDMABUF_CREATE, &create);
	if (fd < 0)
		die("UDMABUF_CREATE");
	close(dev);
	close(memfd);
	return fd;
}

int main(int argc, char **argv)
{
	const size_t MiB = 1024 * 1024;
	int report[2], held, held2, mapped_only, cma, kernel_only, named;
	char line[256], text[1024];
	int len;
	pid_t parent = getpid(), child;

	if (argc != 2)
		return 2;
	named = heap_alloc("/dev/dma_heap/system", MiB);
	if (ioctl(named, DMA_BUF_SET_NAME, "lab-named") < 0)
		die("DMA_BUF_SET_NAME");
	map(named, MiB);
	held = heap_alloc("/dev/dma_heap/system", 64 * 1024);
	held2 = dup(held);
	mapped_only = heap_alloc("/dev/dma_heap/system", 256 * 1024);
	map(mapped_only, 256 * 1024);
	map(mapped_only, 256 * 1024);
	cma = heap_alloc("/dev/dma_heap/linux,cma", 2 * MiB);
	fcntl(cma, F_SETFD, 0);
	kernel_only = heap_alloc("/dev/dma_heap/system", 32 * 1024);

	if (pipe(report) < 0)
		die("pipe");
	child = fork();
	if (child < 0)
		die("fork");
	if (child == 0) {
		int udma = udmabuf_alloc(128 * 1024);
		int cmapped = heap_alloc("/dev/dma_heap/system", 512 * 1024);

		map(cmapped, 512 * 1024);
		close(named);
		close(held);
		close(held2);
		close(mapped_only);
		close(kernel_only);
		snprintf(line, sizeof(line), "udmabuf-child %lu %u %d 0\nchild-mapped %lu %u - 1\n",
			 inode_of(udma), 128 * 1024, getpid(), inode_of(cmapped), 512 * 1024);
		close(cmapped);
		if (write(report[1], line, strlen(line)) < 0)
			die("write");
		close(report[1]);
		for (;;)
			pause();
	}
	close(report[1]);

	len = snprintf(text, sizeof(text),
		       "sys-mapped-held %lu %u %d 1\n"
		       "sys-held-only %lu %u %d 0\n"
		       "sys-mapped-only %lu %u - 1\n"
		       "cma-held %lu %u %d,%d 0\n"
		       "kernel-only %lu %u kernel 0\n",
		       inode_of(named), (unsigned)MiB, parent, inode_of(held), 64 * 1024, parent,
		       inode_of(mapped_only), 256 * 1024, inode_of(cma), 2 * (unsigned)MiB, parent,
		       child, inode_of(kernel_only), 32 * 1024);
	park_in_socket(kernel_only);
	close(kernel_only);
	close(mapped_only);
	{
		ssize_t n = read(report[0], line, sizeof(line) - 1);

		if (n <= 0)
			die("child report");
		line[n] = '\0';
	}
	snprintf(text + len, sizeof(text) - len, "%s", line);
	publish(argv[1], text);
	for (;;)
		pause();
}
