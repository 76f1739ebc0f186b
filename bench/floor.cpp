// The floor of the -u and -n benchmarks: reads the files quarrystat reads, as often and in the
// same order, and parses nothing, so its time is what the kernel (or the file system) costs.
//   floor -u | -n
// A walk over /proc that meets a process it cannot read is run again, up to four passes, as
// the tool's walks are.
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

static char buf[1 << 16];
static unsigned long long bytes_read;

// Reads the whole file; false when it cannot be opened.
static bool Slurp(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) bytes_read += n;
    close(fd);
    return true;
}

static std::vector<int> Pids() {
    std::vector<int> pids;
    DIR* dir = opendir("/proc");
    if (!dir) exit(1);
    while (struct dirent* e = readdir(dir)) {
        int pid = atoi(e->d_name);
        if (e->d_type == DT_DIR && pid) pids.push_back(pid);
    }
    closedir(dir);
    return pids;
}

static bool ReadFdinfo(int pid) {
    std::string dir_path = "/proc/" + std::to_string(pid) + "/fdinfo";
    DIR* dir = opendir(dir_path.c_str());
    if (!dir) return false;
    while (struct dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        Slurp(dir_path + "/" + e->d_name);
    }
    closedir(dir);
    return true;
}

// One walk: every process's maps (and, for the held walk, its fdinfo first). As in the tool,
// three passes stop at the first process that cannot be read; a fourth skips such processes.
static void Walk(bool held) {
    for (int pass = 0; pass < 4; pass++) {
        bool strict = pass < 3, failed = false;
        for (int pid : Pids()) {
            bool ok = (!held || ReadFdinfo(pid)) && Slurp("/proc/" + std::to_string(pid) + "/maps");
            if (!ok) {
                failed = true;
                if (strict) break;
            }
        }
        if (!failed || !strict) return;
    }
}

static void ReadSysfs(bool exporters) {
    const char* path = "/sys/kernel/dmabuf/buffers";
    DIR* dir = opendir(path);
    if (!dir) return;
    while (struct dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        std::string base = std::string(path) + "/" + e->d_name;
        if (exporters) Slurp(base + "/exporter_name");
        Slurp(base + "/size");
    }
    closedir(dir);
}

int main(int argc, char** argv) {
    if (argc != 2 || (strcmp(argv[1], "-u") && strcmp(argv[1], "-n"))) {
        fprintf(stderr, "usage: floor -u | -n\n");
        return 2;
    }
    if (!strcmp(argv[1], "-u")) {
        Walk(false);
        Walk(true);
        ReadSysfs(true);
    } else {
        Slurp("/proc/meminfo");
        Slurp("/proc/config.gz");
        Slurp("/sys/kernel/ion/total_heaps_kb");
        Slurp("/sys/kernel/ion/total_pools_kb");
        Walk(false);
        ReadSysfs(false);
    }
    printf("%llu bytes\n", bytes_read);
    return 0;
}
