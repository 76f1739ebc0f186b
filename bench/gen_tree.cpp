// Writes a synthetic device tree for the -u / -n benchmark:  gen_tree DIR SCALE [bufinfo]
// At scale 1: 1000 processes, each with 3000 maps lines (10 of them /dmabuf mappings) and 64
// descriptors (8 of them DMA-BUF), and 2000 exported buffers; SCALE multiplies the processes
// and the buffers (a fraction, such as 0.02, makes a small tree for tests). Line shapes follow
// real Android maps and DMA-BUF fdinfo files. The buffers are sysfs directories, or with
// "bufinfo" the debug file system's table of a kernel without the sysfs statistics
// (d/dma_buf/bufinfo, the 6.1 layout).
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

static void Mkdirs(const std::string& path) {
    std::string partial;
    for (size_t i = 1; i <= path.size(); i++) {
        if (i == path.size() || path[i] == '/') {
            partial = path.substr(0, i);
            if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
                perror(partial.c_str());
                exit(1);
            }
        }
    }
}

static void WriteFile(const std::string& path, const std::string& content) {
    FILE* f = fopen(path.c_str(), "w");
    if (!f || fwrite(content.data(), 1, content.size(), f) != content.size() || fclose(f) != 0) {
        perror(path.c_str());
        exit(1);
    }
}

static const char kOdex[] =
    "/data/app/~~Xk3P2dQz1m9V_fLw8a7JbA==/com.example.messenger-7rYbq1XnC2Wp0sZt4uVdKg==/oat/arm64/"
    "base.odex";

static const char* const kNames[] = {
    "[anon:dalvik-main space (region space)]",
    "/system/lib64/libc.so",
    "/apex/com.android.art/lib64/libart.so",
    kOdex,
    "[anon:scudo:primary]",
    "/dev/ashmem/shared_memory/2f7a9c1e (deleted)",
    "/system/framework/arm64/boot-framework.oat",
    "",
    "[anon:.bss]",
    "/vendor/lib64/hw/android.hardware.graphics.mapper@4.0-impl-qti-display.so",
};

int main(int argc, char** argv) {
    if (argc != 3 && !(argc == 4 && strcmp(argv[3], "bufinfo") == 0)) {
        fprintf(stderr, "usage: gen_tree DIR SCALE [bufinfo]\n");
        return 2;
    }
    const bool bufinfo = argc == 4;
    std::string root = argv[1];
    double scale = atof(argv[2]);
    const int procs = static_cast<int>(1000 * scale), buffers = static_cast<int>(2000 * scale);
    if (procs < 1) {
        fprintf(stderr, "gen_tree: SCALE %s makes no process\n", argv[2]);
        return 2;
    }
    const int maps_lines = 3000, dmabuf_maps = 10, fds = 64, dmabuf_fds = 8;
    const unsigned long first_inode = 40000;
    char line[512];

    std::string sysfs = root + "/sys/kernel/dmabuf/buffers";
    std::string table =
        "\nDma-buf Objects:\nsize    \tflags   \tmode    \tcount   \texp_name\tino     \tname\n";
    unsigned long table_bytes = 0;
    for (int b = buffers - 1; b >= 0; b--) {  // the table lists the newest buffer first
        unsigned long size = 4096UL << (b % 9);
        const char* exporter = b % 5 ? "system" : "qcom,system-uncached";
        if (bufinfo) {
            snprintf(line, sizeof(line),
                     "%08lu\t00000002\t00080007\t00000003\t%s\t%08lu\t<none>\n"
                     "\tAttached Devices:\nTotal 0 devices attached\n\n",
                     size, exporter, first_inode + b);
            table += line;
            table_bytes += size;
            continue;
        }
        std::string dir = sysfs + "/" + std::to_string(first_inode + b);
        Mkdirs(dir);
        WriteFile(dir + "/size", std::to_string(size) + "\n");
        WriteFile(dir + "/exporter_name", std::string(exporter) + "\n");
    }
    if (bufinfo) {
        snprintf(line, sizeof(line), "\nTotal %d objects, %lu bytes\n", buffers, table_bytes);
        Mkdirs(root + "/d/dma_buf");
        WriteFile(root + "/d/dma_buf/bufinfo", table + line);
    }

    for (int p = 0; p < procs; p++) {
        int pid = 1000 + p;
        std::string dir = root + "/proc/" + std::to_string(pid);
        Mkdirs(dir + "/fdinfo");
        WriteFile(dir + "/comm", "app." + std::to_string(pid) + "\n");

        std::string maps;
        maps.reserve(maps_lines * 120);
        unsigned long addr = 0x12c00000UL;
        for (int m = 0; m < maps_lines; m++) {
            unsigned long len = 0x1000UL * (1 + m % 7);
            if (m % (maps_lines / dmabuf_maps) == 0) {
                int k = m / (maps_lines / dmabuf_maps);
                unsigned long inode = first_inode + (p * 3 + k * 7) % buffers;
                snprintf(line, sizeof(line), "%lx-%lx rw-s 00000000 00:0a %-26lu /dmabuf:\n", addr,
                         addr + len, inode);
            } else {
                const char* name = kNames[m % 10];
                const char* perms = (m % 3 == 0) ? "r-xp" : (m % 3 == 1) ? "r--p" : "rw-p";
                snprintf(line, sizeof(line), "%lx-%lx %s %08lx fd:05 %-26lu %s\n", addr, addr + len,
                         perms, (unsigned long)(m % 50) * 0x1000, *name ? 1234567UL + m % 97 : 0UL,
                         name);
            }
            maps += line;
            addr += len + 0x1000;
        }
        WriteFile(dir + "/maps", maps);

        for (int fd = 0; fd < fds; fd++) {
            std::string info;
            if (fd >= 10 && fd < 10 + dmabuf_fds) {
                unsigned long inode = first_inode + (p * 5 + fd * 11) % buffers;
                snprintf(
                    line, sizeof(line),
                    "pos:\t0\nflags:\t02000002\nmnt_id:\t15\nino:\t%lu\nsize:\t%lu\ncount:\t3\n"
                    "exp_name:\tsystem\nname:\tgralloc\n",
                    inode, 4096UL << ((inode - first_inode) % 9));
            } else {
                snprintf(line, sizeof(line), "pos:\t0\nflags:\t0%o\nmnt_id:\t%d\nino:\t%d\n",
                         02000002, 20 + fd % 4, 5000 + fd);
            }
            WriteFile(dir + "/fdinfo/" + std::to_string(fd), line);
        }
    }
    WriteFile(
        root + "/proc/meminfo",
        "MemTotal:        7833664 kB\nShmem:             52440 kB\nSUnreclaim:       183204 kB\n"
        "KernelStack:       49760 kB\nPageTables:       131020 kB\nVmallocUsed:      244176 kB\n");
    // gzopen() reads a file that is not compressed as it is.
    WriteFile(root + "/proc/config.gz", "CONFIG_VMAP_STACK=y\n");
    return 0;
}
