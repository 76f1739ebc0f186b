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
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <linux/dma-heap.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

static void die(const char *what)
{
	perror(what);
	exit(1);
}

static int heap_alloc(size_t len)
{
	struct dma_heap_allocation_data data = { .len = len, .fd_flags = O_RDWR | O_CLOEXEC };
	int heap_fd = open("/dev/dma_heap/system", O_RDONLY | O_CLOEXEC);

	if (heap_fd < 0)
		die("/dev/dma_heap/system");
	if (ioctl(heap_fd, DMA_HEAP_IOCTL_ALLOC, &data) < 0)
		die("DMA_HEAP_IOCTL_ALLOC");
	close(heap_fd);
	return (int)data.fd;
}

static unsigned long inode_of(int fd)
{
	struct stat st;

	if (fstat(fd, &st) < 0)
		die("fstat");
	return (unsigned long)st.st_ino;
}

/* Queues fd on a socket pair that nobody reads: the kernel keeps the file alive. */
static void park_in_socket(int fd)
{
	char byte = 0;
	char control[CMSG_SPACE(sizeof(int))];
	struct iovec iov = { .iov_base = &byte, .iov_len = 1 };
	struct msghdr msg = { .msg_iov = &iov, .msg_iovlen = 1, .msg_control = control,
			      .msg_controllen = sizeof(control) };
	struct cmsghdr *cmsg = CMSG_FIRSTHDR(&msg);
	int sv[2];

	if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) < 0)
		die("socketpair");
	cmsg->cmsg_level = SOL_SOCKET;
	cmsg->cmsg_type = SCM_RIGHTS;
	cmsg->cmsg_len = CMSG_LEN(sizeof(int));
	memcpy(CMSG_DATA(cmsg), &fd, sizeof(int));
	if (sendmsg(sv[0], &msg, 0) < 0)
		die("sendmsg");
}

/* Written aside and renamed, so a reader never sees half of it. */
static void publish(const char *path, const char *text)
{
	char tmp[256];
	FILE *out;

	snprintf(tmp, sizeof(tmp), "%s.tmp", path);
	out = fopen(tmp, "w");
	if (!out)
		die(tmp);
	fputs(text, out);
	fclose(out);
	if (rename(tmp, path) < 0)
		die("rename");
}

int main(int argc, char **argv)
{
	const size_t freed_len = 64 * 1024, unmap_len = 128 * 1024, park_len = 32 * 1024,
		     leak_len = 256 * 1024;
	char text[512], path[256];
	int freed, unmap, park, leak, sig;
	sigset_t usr1;
	void *p;

	if (argc != 2)
		return 2;
	sigemptyset(&usr1);
	sigaddset(&usr1, SIGUSR1);
	sigprocmask(SIG_BLOCK, &usr1, NULL);

	freed = heap_alloc(freed_len);
	unmap = heap_alloc(unmap_len);
	p = mmap(NULL, unmap_len, PROT_READ | PROT_WRITE, MAP_SHARED, unmap, 0);
	if (p == MAP_FAILED)
		die("mmap");
	park = heap_alloc(park_len);
	snprintf(text, sizeof(text), "freed %lu %zu\nunmap %lu %zu\npark %lu %zu\n", inode_of(freed),
		 freed_len, inode_of(unmap), unmap_len, inode_of(park), park_len);
	publish(argv[1], text);

	if (sigwait(&usr1, &sig) != 0)
		die("sigwait");
	close(freed);
	munmap(p, unmap_len);
	park_in_socket(park);
	close(park);
	leak = heap_alloc(leak_len);
	snprintf(text, sizeof(text), "leak %lu %zu\n", inode_of(leak), leak_len);
	snprintf(path, sizeof(path), "%s.after", argv[1]);
	publish(path, text);
	for (;;)
		pause();
}
