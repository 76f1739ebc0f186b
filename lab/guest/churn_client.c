/*
 * Lab motion client: keeps the device moving while quarrystat reads it, as a busy phone does.
 *
 * Every TICK_MS it allocates BURST short-lived buffers from the system heap (every other one
 * mapped) and frees as many of the oldest it keeps; every PROCESS_EVERY ticks it starts a process that
 * allocates, maps and holds a buffer of its own, then exits after CHILD_MS. So buffers appear
 * and vanish under /sys/kernel/dmabuf/buffers and processes holding them start and exit under
 * /proc throughout a run of the tool.
 *
 *   churn_client STATS_FILE
 * On SIGTERM (or after MAX_SECONDS) it stops, waits for its processes and writes
 *   <processes started> <buffers allocated> <milliseconds>
 * to STATS_FILE.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/dma-heap.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define TICK_MS 40		/* 25 ticks a second */
#define BURST 4			/* a camera frame's worth: 100 buffers allocated and freed a second */
#define PROCESS_EVERY 4		/* about 6 processes started a second */
#define CHILD_MS 300		/* how long a started process holds its buffer */
#define KEPT 16			/* short-lived buffers alive at once */
#define MAX_SECONDS 240		/* the guest is long gone by then; never runs forever */
#define BUF_SIZE (64 * 1024)

static volatile sig_atomic_t stop;

static void on_term(int sig)
{
	(void)sig;
	stop = 1;
}

static double now_ms(void)
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

static void sleep_ms(long ms)
{
	struct timespec ts = { .tv_sec = ms / 1000, .tv_nsec = (ms % 1000) * 1000000L };

	while (nanosleep(&ts, &ts) < 0 && errno == EINTR && !stop)
		;
}

/* A buffer from the system heap, or -1 (the heap may be briefly exhausted: skip the tick). */
static int heap_alloc(size_t len)
{
	struct dma_heap_allocation_data data = { .len = len, .fd_flags = O_RDWR | O_CLOEXEC };
	int heap_fd = open("/dev/dma_heap/system", O_RDONLY | O_CLOEXEC);
	int ret;

	if (heap_fd < 0)
		return -1;
	ret = ioctl(heap_fd, DMA_HEAP_IOCTL_ALLOC, &data);
	close(heap_fd);
	return ret < 0 ? -1 : (int)data.fd;
}

static void child(void)
{
	int fd = heap_alloc(BUF_SIZE);

	if (fd >= 0 && mmap(NULL, BUF_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) == MAP_FAILED)
		_exit(1);
	sleep_ms(CHILD_MS);
	_exit(0);
}

int main(int argc, char **argv)
{
	struct sigaction sa = { .sa_handler = on_term };
	int kept[KEPT], next = 0;
	void *maps[KEPT];
	long processes = 0, buffers = 0, tick = 0;
	double start = now_ms();
	FILE *out;

	if (argc != 2)
		return 2;
	sigaction(SIGTERM, &sa, NULL);
	for (int i = 0; i < KEPT; i++) {
		kept[i] = -1;
		maps[i] = MAP_FAILED;
	}
	while (!stop && now_ms() - start < MAX_SECONDS * 1e3) {
		/* Free the oldest short-lived buffers, then make new ones in their place. */
		for (int b = 0; b < BURST; b++) {
			if (maps[next] != MAP_FAILED)
				munmap(maps[next], BUF_SIZE);
			if (kept[next] >= 0)
				close(kept[next]);
			maps[next] = MAP_FAILED;
			kept[next] = heap_alloc(BUF_SIZE);
			if (kept[next] >= 0) {
				buffers++;
				if (b % 2)
					maps[next] = mmap(NULL, BUF_SIZE, PROT_READ, MAP_SHARED,
							  kept[next], 0);
			}
			next = (next + 1) % KEPT;
		}
		if (tick % PROCESS_EVERY == 0) {
			pid_t pid = fork();

			if (pid == 0)
				child();
			if (pid > 0)
				processes++;
		}
		while (waitpid(-1, NULL, WNOHANG) > 0)
			;
		tick++;
		sleep_ms(TICK_MS);
	}
	for (int i = 0; i < KEPT; i++) {
		if (maps[i] != MAP_FAILED)
			munmap(maps[i], BUF_SIZE);
		if (kept[i] >= 0)
			close(kept[i]);
	}
	while (wait(NULL) > 0)
		;
	out = fopen(argv[1], "w");
	if (!out)
		return 1;
	fprintf(out, "%ld %ld %.0f\n", processes, buffers, now_ms() - start);
	fclose(out);
	return 0;
}
