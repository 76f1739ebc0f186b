#define _GNU_SOURCE
#include "lab_dmabuf.h"

#include <fcntl.h>
#include <linux/dma-heap.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

void die(const char *what)
{
	perror(what);
	exit(1);
}

int heap_alloc(const char *heap, size_t len)
{
	struct dma_heap_allocation_data data = { .len = len, .fd_flags = O_RDWR | O_CLOEXEC };
	int heap_fd = open(heap, O_RDONLY | O_CLOEXEC);

	if (heap_fd < 0)
		die(heap);
	if (ioctl(heap_fd, DMA_HEAP_IOCTL_ALLOC, &data) < 0)
		die("DMA_HEAP_IOCTL_ALLOC");
	close(heap_fd);
	return (int)data.fd;
}

unsigned long inode_of(int fd)
{
	struct stat st;

	if (fstat(fd, &st) < 0)
		die("fstat");
	return (unsigned long)st.st_ino;
}

void *map(int fd, size_t len)
{
	void *p = mmap(NULL, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);

	if (p == MAP_FAILED)
		die("mmap");
	return p;
}

void park_in_socket(int fd)
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

void publish(const char *path, const char *text)
{
	char tmp[256];
	FILE *out;

	snprintf(tmp, sizeof(tmp), "%s.tmp", path);
	out = fopen(tmp, "w");
	if (!out)
		die(tmp);
	fputs(text, out);
	if (fclose(out) != 0)
		die(tmp);
	if (rename(tmp, path) < 0)
		die("rename");
}
