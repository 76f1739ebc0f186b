// Live load for the -u / -n benchmark:  loadgen N M READY_FILE
// Starts N processes that each make M distinct mappings (alternating protections, so the
// kernel cannot merge them, some of them of a file with a long path) and hold a few dozen
// descriptors (files, pipes, sockets). Writes the children's pids to READY_FILE when all are
// set up, then waits; on SIGTERM or SIGINT it kills exactly those pids and reaps them.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

static volatile sig_atomic_t stop;
static void OnSignal(int) { stop = 1; }

static void Child(int maps, const std::string& file, int ready_fd) {
    long page = sysconf(_SC_PAGESIZE);
    char* area = static_cast<char*>(mmap(nullptr, page * maps, PROT_READ | PROT_WRITE,
                                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    if (area == MAP_FAILED) _exit(1);
    int fd = open(file.c_str(), O_RDONLY);
    for (int i = 1; i < maps; i += 2) {
        // Every tenth odd page becomes a mapping of the file, the rest read-only anonymous.
        if (fd >= 0 && i % 20 == 1) {
            mmap(area + i * page, page, PROT_READ, MAP_SHARED | MAP_FIXED, fd, (i % 16) * page);
        } else {
            mprotect(area + i * page, page, PROT_READ);
        }
    }
    for (int i = 0; i < 8; i++) {
        int p[2], s[2];
        if (pipe(p) || socketpair(AF_UNIX, SOCK_STREAM, 0, s)) break;
        open("/dev/null", O_RDONLY);
        open(file.c_str(), O_RDONLY);
    }
    char c = 1;
    if (write(ready_fd, &c, 1) != 1) _exit(1);
    close(ready_fd);
    for (;;) pause();
}

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: loadgen N M READY_FILE\n");
        return 2;
    }
    int n = atoi(argv[1]), maps = atoi(argv[2]);
    std::string dir = "/tmp/quarry-bench-load.";
    dir += std::to_string(getpid());
    std::string file =
        dir + "/" + std::string(120, 'l') + "/vendor/lib64/libsynthetic_long_name.so";
    if (mkdir(dir.c_str(), 0755) || mkdir((dir + "/" + std::string(120, 'l')).c_str(), 0755) ||
        mkdir((dir + "/" + std::string(120, 'l') + "/vendor").c_str(), 0755) ||
        mkdir((dir + "/" + std::string(120, 'l') + "/vendor/lib64").c_str(), 0755))
        return 1;
    int f = open(file.c_str(), O_CREAT | O_WRONLY, 0644);
    if (f < 0 || ftruncate(f, 16 * sysconf(_SC_PAGESIZE))) return 1;
    close(f);

    signal(SIGTERM, OnSignal);
    signal(SIGINT, OnSignal);
    int ready[2];
    if (pipe(ready)) return 1;
    std::vector<pid_t> pids;
    for (int i = 0; i < n && !stop; i++) {
        pid_t pid = fork();
        if (pid == 0) {
            close(ready[0]);
            signal(SIGTERM, SIG_DFL);
            signal(SIGINT, SIG_DFL);
            Child(maps, file, ready[1]);
        }
        if (pid < 0) break;
        pids.push_back(pid);
    }
    close(ready[1]);
    char c;
    size_t up = 0;
    while (up < pids.size() && read(ready[0], &c, 1) == 1) up++;

    FILE* out = fopen(argv[3], "w");
    for (pid_t pid : pids) fprintf(out, "%d\n", pid);
    fclose(out);
    while (!stop) pause();

    for (pid_t pid : pids) kill(pid, SIGKILL);
    for (pid_t pid : pids) waitpid(pid, nullptr, 0);
    unlink(file.c_str());
    for (std::string d = file.substr(0, file.rfind('/')); d.size() > dir.size();
         d = d.substr(0, d.rfind('/')))
        rmdir(d.c_str());
    rmdir(dir.c_str());
    return up == pids.size() ? 0 : 1;
}
