// Runs a command several times and prints its fastest and median wall time, its least CPU time
// and its peak resident memory:  qbench [--chroot DIR] RUNS COMMAND [ARGS...]
// With --chroot the command runs inside DIR (the harness must be root), so the tool's own
// process is the one measured, without a shell or chroot(1) in between.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

static double Now() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

int main(int argc, char** argv) {
    const char* root = nullptr;
    int i = 1;
    if (argc > 2 && !strcmp(argv[1], "--chroot")) {
        root = argv[2];
        i = 3;
    }
    if (argc - i < 2) {
        fprintf(stderr, "usage: qbench [--chroot DIR] RUNS COMMAND [ARGS...]\n");
        return 2;
    }
    int runs = atoi(argv[i]);
    char** cmd = argv + i + 1;
    std::vector<double> times;
    double min_cpu = 1e30;
    long peak_kb = 0;
    for (int r = 0; r < runs; r++) {
        double start = Now();
        pid_t pid = fork();
        if (pid == 0) {
            int null = open("/dev/null", O_WRONLY);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
            if (root && (chroot(root) != 0 || chdir("/") != 0)) _exit(126);
            execv(cmd[0], cmd);
            _exit(127);
        }
        int status;
        struct rusage ru;
        if (wait4(pid, &status, 0, &ru) != pid) return 1;
        times.push_back(Now() - start);
        // CPU time of the command itself: steadier than wall time on a shared machine.
        double cpu = ru.ru_utime.tv_sec + ru.ru_utime.tv_usec / 1e6 + ru.ru_stime.tv_sec +
                     ru.ru_stime.tv_usec / 1e6;
        min_cpu = std::min(min_cpu, cpu);
        peak_kb = std::max(peak_kb, ru.ru_maxrss);
        if (!WIFEXITED(status) || WEXITSTATUS(status) >= 126) {
            fprintf(stderr, "qbench: %s failed (status %d)\n", cmd[0], status);
            return 1;
        }
    }
    std::sort(times.begin(), times.end());
    printf("min %.3f s  median %.3f s  cpu %.3f s  peak RSS %.1f MiB\n", times.front(),
           times[times.size() / 2], min_cpu, peak_kb / 1024.0);
    return 0;
}
