/*
 * Lab client for the before/after comparison: holds DMA-BUF buffers, and on SIGUSR1 changes
 * them the way a use case that leaks and frees would, so two captures differ in known ways.
 *
 *   before SIGUSR1                    after SIGUSR1
 *   freed:   held, unmapped           closed: gone from the device
 *   unmap:   held and mapped          unmapped, still held: now an unmapped buffer
 *   park:    held, unmapped           its only reference queued in a unix socket: held by the kernel
 *   leak:    (none)                   allocated and held, never mapped
 *
 * It writes "<name> <inode> <size>" lines to the file given as argument once the first state is
 * set up, and the same for the second state to that name with ".after" appended, then waits.
 *
 *   leak_client --every SECONDS COUNT FILE
 * is the slow leak a recording watches: every SECONDS it allocates one more buffer from the
 * system heap, names it "lab-leak" and holds it unmapped, COUNT times, rewriting FILE with one "leak <inode> <size>"
 * line per buffer so far after each; then it waits.
 */
#define _GNU_SOURCE
#include <linux/dma-buf.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "lab_dmabuf.h"

#define SYSTEM_HEAP "/dev/dma_heap/system"

static int leak_slowly(const char *every, const char *count, const char *path)
{
	const size_t leak_len = 256 * 1024;
	int seconds = atoi(every), n = atoi(count), i;
	char text[4096];
	size_t used = 0;

	/* A recording of a few minutes at most: more would outgrow the lines' buffer. */
	if (seconds < 1 || n < 1 || n > 64)
		return 2;
	for (i = 0; i < n; i++) {
		int fd = heap_alloc(SYSTEM_HEAP, leak_len);

		/* Named, as a real leak's buffers usually are by the code that allocates them. */
		if (ioctl(fd, DMA_BUF_SET_NAME, "lab-leak") < 0)
			die("DMA_BUF_SET_NAME");
		used += snprintf(text + used, sizeof(text) - used, "leak %lu %zu\n", inode_of(fd),
				 leak_len);
		publish(path, text);
		if (i + 1 < n)
			sleep(seconds);
	}
	for (;;)
		pause();
}

int main(int argc, char **argv)
{
	const size_t freed_len = 64 * 1024, unmap_len = 128 * 1024, park_len = 32 * 1024,
		     leak_len = 256 * 1024;
	char text[512], path[256];
	int freed, unmap, park, leak, sig;
	sigset_t usr1;
	void *p;

	if (argc == 5 && strcmp(argv[1], "--every") == 0)
		return leak_slowly(argv[2], argv[3], argv[4]);
	if (argc != 2)
		return 2;
	sigemptyset(&usr1);
	sigaddset(&usr1, SIGUSR1);
	sigprocmask(SIG_BLOCK, &usr1, NULL);

	freed = heap_alloc(SYSTEM_HEAP, freed_len);
	unmap = heap_alloc(SYSTEM_HEAP, unmap_len);
	p = map(unmap, unmap_len);
	park = heap_alloc(SYSTEM_HEAP, park_len);
	snprintf(text, sizeof(text), "freed %lu %zu\nunmap %lu %zu\npark %lu %zu\n", inode_of(freed),
		 freed_len, inode_of(unmap), unmap_len, inode_of(park), park_len);
	publish(argv[1], text);

	if (sigwait(&usr1, &sig) != 0)
		die("sigwait");
	close(freed);
	munmap(p, unmap_len);
	park_in_socket(park);
	close(park);
	leak = heap_alloc(SYSTEM_HEAP, leak_len);
	snprintf(text, sizeof(text), "leak %lu %zu\n", inode_of(leak), leak_len);
	snprintf(path, sizeof(path), "%s.after", argv[1]);
	publish(path, text);
	for (;;)
		pause();
}
