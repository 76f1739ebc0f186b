// Whole reports over a device tree written from the fuzzer's bytes. The tool's report code is
// linked from a build whose fixed paths all lie under QUARRY_TREE_ROOT (cmake/tree_tool.cmake),
// so each input is written there as a small /proc, /d and /sys and the reports run as on a
// device. The input is a list of files:
//     @@ proc/meminfo
//     Shmem:   1024 kB
//     @@ proc/42/maps *300        the text repeated 300 times (files beyond one read)
//     @@ proc/42/fd/3 -> ../../../dmabuf/x        a symbolic link inside the tree
//     @@ proc/43/                 a directory
#include "report_entries.h"

#include <dmabufinfo/dmabuf_sysfs_stats.h>
#include <dmabufinfo/dmabufinfo.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "kmem.h"
#include "paths.h"
#include "reserved.h"
#include "tree_paths.h"  // after paths.h: the paths as the tree-built tool uses them
#include "unmapped.h"

// A broken promise stops the run and says which one.
#define FUZZ_CHECK(cond)                                                      \
    do {                                                                      \
        if (!(cond)) {                                                        \
            fprintf(stderr, "report_entries.cpp:%d: %s fails\n", __LINE__, #cond); \
            __builtin_trap();                                                 \
        }                                                                     \
    } while (0)

namespace {

// Bounds what repetition can write per input: room for a maps file beyond one 64 KB read, and
// no more, since every byte written is parsed again by each pass of each walk.
constexpr size_t kMaxTreeBytes = 96 << 10;
constexpr unsigned long kMaxRepeat = 4096;

// Relative path components, none empty, "." or "..", of a small alphabet; false otherwise.
bool SplitPath(std::string_view path, std::vector<std::string>* parts) {
    parts->clear();
    while (!path.empty()) {
        size_t slash = path.find('/');
        std::string_view part = path.substr(0, slash);
        if (part.empty() || part == "." || part == ".." || part.size() > 64) return false;
        for (char c : part) {
            if (!isalnum(static_cast<unsigned char>(c)) && !strchr("_.:-", c)) return false;
        }
        parts->emplace_back(part);
        if (slash == std::string_view::npos) break;
        path.remove_prefix(slash + 1);
    }
    return !parts->empty() && parts->size() <= 8;
}

// A link target that, read from the link's directory, stays inside the tree.
bool TargetInTree(const std::vector<std::string>& link, std::string_view target) {
    if (target.empty() || target[0] == '/' || target.size() > 200) return false;
    size_t depth = link.size() - 1;
    while (!target.empty()) {
        size_t slash = target.find('/');
        std::string_view part = target.substr(0, slash);
        if (part == "..") {
            if (depth == 0) return false;
            depth--;
        } else if (!part.empty() && part != ".") {
            depth++;
        }
        if (slash == std::string_view::npos) break;
        target.remove_prefix(slash + 1);
    }
    return true;
}

// Everything BuildTree made for the current input, in the order it was made, so the next
// input can take it away with one call per entry, the last made first. Sweeping the tree with
// std::filesystem::remove_all costs several calls per entry and was a good part of the time
// an input took.
struct Made {
    std::string path;
    bool dir;
};
std::vector<Made> made_entries;

// made: the directories this input has made so far, so each is made once, not once per entry.
bool MakeParents(const std::string& root, const std::vector<std::string>& parts, size_t n,
                 std::set<std::string>* made) {
    std::string path = root;
    for (size_t i = 0; i < n; i++) {
        path += "/" + parts[i];
        if (made->count(path)) continue;
        if (mkdir(path.c_str(), 0755) == 0)
            made_entries.push_back({path, true});
        else if (errno != EEXIST)
            return false;
        made->insert(path);
    }
    return true;
}

void WriteFile(const std::string& path, std::string_view text, unsigned long repeat) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return;
    made_entries.push_back({path, false});  // a file written twice is removed once, then ENOENT
    std::string all;
    all.reserve(text.size() * repeat);
    for (unsigned long i = 0; i < repeat; i++) all.append(text);
    for (size_t done = 0; done < all.size();) {
        ssize_t n = write(fd, all.data() + done, all.size() - done);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    close(fd);
}

// One "@@ " header and the text after it.
void AddEntry(const std::string& root, std::string_view header, std::string_view text,
              size_t* budget, std::set<std::string>* made) {
    std::vector<std::string> parts;
    std::string_view path = header, target;
    unsigned long repeat = 1;
    size_t arrow = header.find(" -> ");
    if (arrow != std::string_view::npos) {
        path = header.substr(0, arrow);
        target = header.substr(arrow + 4);
    } else if (size_t star = header.find(" *"); star != std::string_view::npos) {
        path = header.substr(0, star);
        repeat = strtoul(std::string(header.substr(star + 2)).c_str(), nullptr, 10);
        if (repeat == 0 || repeat > kMaxRepeat) return;
    }
    bool dir_only = !path.empty() && path.back() == '/';
    if (dir_only) path.remove_suffix(1);
    if (!SplitPath(path, &parts)) return;
    if (parts[0] != "proc" && parts[0] != "d" && parts[0] != "sys") return;
    if (!MakeParents(root, parts, dir_only ? parts.size() : parts.size() - 1, made) || dir_only)
        return;
    std::string full = root + "/" + std::string(path);
    if (arrow != std::string_view::npos) {
        if (TargetInTree(parts, target) && symlink(std::string(target).c_str(), full.c_str()) == 0)
            made_entries.push_back({full, false});
        return;
    }
    if (text.size() * repeat > *budget) return;
    *budget -= text.size() * repeat;
    WriteFile(full, text, repeat);
}

// A private tmpfs at the scratch root, in a mount namespace of this process's own, so two runs
// of one target (a campaign beside a CI run, or -fork workers) never write into each other's
// tree. Without the right to mount, the shared directory is used as it is.
void MountPrivateRoot() {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr))
        return;
    std::error_code ec;
    std::filesystem::create_directories(QUARRY_TREE_ROOT, ec);
    mount("quarry-tree", QUARRY_TREE_ROOT, "tmpfs", MS_NOSUID | MS_NODEV, "mode=755");
}

void RemoveTree() {
    std::error_code ec;
    std::filesystem::remove_all(QUARRY_TREE_ROOT, ec);  // in a private mount: only what is in it
}

// Writes the tree of one input under QUARRY_TREE_ROOT, replacing the previous one; the last
// goes at exit.
void BuildTree(const uint8_t* data, size_t size) {
    static const std::string root = QUARRY_TREE_ROOT;
    static bool swept = false;  // the first input sweeps what an earlier run may have left
    static const bool cleanup = (MountPrivateRoot(), atexit(RemoveTree) == 0);
    (void)cleanup;
    for (auto it = made_entries.rbegin(); swept && it != made_entries.rend(); ++it) {
        if ((it->dir ? rmdir(it->path.c_str()) : unlink(it->path.c_str())) != 0 && errno != ENOENT)
            swept = false;
    }
    made_entries.clear();
    std::error_code ec;
    if (!swept) {
        // The root itself may be a mount point: empty it rather than remove it.
        for (auto it = std::filesystem::directory_iterator(root, ec);
             !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
            std::filesystem::remove_all(it->path(), ec);
        swept = true;
    }
    if (mkdir((root + "/proc").c_str(), 0755) == 0) made_entries.push_back({root + "/proc", true});
    std::set<std::string> made = {root + "/proc"};

    std::string_view in(reinterpret_cast<const char*>(data), size);
    size_t budget = kMaxTreeBytes;
    size_t at = in.rfind("@@ ", 0) == 0 ? 0 : in.find("\n@@ ");
    if (at != std::string_view::npos && at != 0) at++;
    while (at != std::string_view::npos) {
        size_t header_end = in.find('\n', at);
        std::string_view header = in.substr(at + 3, header_end == std::string_view::npos
                                                        ? std::string_view::npos
                                                        : header_end - at - 3);
        size_t text_start = header_end == std::string_view::npos ? in.size() : header_end + 1;
        size_t next = in.find("\n@@ ", text_start == 0 ? 0 : text_start - 1);
        size_t text_end = next == std::string_view::npos ? in.size() : next + 1;
        if (text_end < text_start) text_end = text_start;
        AddEntry(root, header, in.substr(text_start, text_end - text_start), &budget, &made);
        at = next == std::string_view::npos ? next : next + 1;
    }
}

// Standard output goes nowhere while a report runs: the reports print, the fuzzer need not
// read it. Standard error stays, so a sanitizer's report is seen.
class QuietStdout {
  public:
    QuietStdout() {
        static const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);  // kept for the run
        fflush(stdout);
        saved_ = dup(1);
        if (null >= 0) dup2(null, 1);
    }
    ~QuietStdout() {
        fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, 1);
            close(saved_);
        }
    }

  private:
    int saved_;
};

// Descriptors open now; a report must leave as many as it found.
size_t OpenFds() {
    size_t n = 0;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator("/proc/self/fd", ec);
         !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
        n++;
    return n;
}

}  // namespace

void FuzzReportReserved(const uint8_t* data, size_t size) {
    BuildTree(data, size);
    QuietStdout quiet;
    size_t fds = OpenFds();
    // As the -s and -p modes load their sources, then the report and a lookup at every edge
    // of every region and range read.
    if (parse_reserved_memory_stat() == 0 && parse_memblock(MEMBLOCK_RESERVED) == 0 &&
        parse_memblock(MEMBLOCK_MEMORY) == 0) {
        print_reserved_report();
        std::set<uint64_t> addrs = {0x7fffffff, 0x80000000, 0xffffffff, 0x100000000,
                                    0x87fffffff, 0x880000000, 0xfffffffff, 0x1000000000};
        struct list_head *pos;
        list_for_each(pos, &reserved_list) {
            auto *r = list_entry(pos, struct reserved_region, list);
            addrs.insert({r->addr - 1, r->addr, r->addr + r->size - 1, r->addr + r->size});
        }
        for (struct list_head *head : {&memblock_memory_list, &memblock_reserved_list}) {
            list_for_each(pos, head) {
                auto *m = list_entry(pos, struct memblock_entry, list);
                addrs.insert({m->base - 1, m->base, m->base + m->size - 1, m->base + m->size});
            }
        }
        for (uint64_t addr : addrs) check_physical_addr(static_cast<unsigned long>(addr));
    }
    release_region_lists();
    FUZZ_CHECK(OpenFds() == fds);
}

void FuzzReportKmem(const uint8_t* data, size_t size) {
    BuildTree(data, size);
    QuietStdout quiet;
    size_t fds = OpenFds();
    char name[] = "modem";
    parse_kernel_memory();
    show_kmodule_mem(nullptr);
    show_kmodule_mem(name);
    FUZZ_CHECK(OpenFds() == fds);
}

void FuzzReportDmabuf(const uint8_t* data, size_t size) {
    namespace dmabufinfo = android::dmabufinfo;
    BuildTree(data, size);
    QuietStdout quiet;
    size_t fds = OpenFds();
    show_unmapped_dmabuf();
    FUZZ_CHECK(OpenFds() == fds);

    // The plain walks: a held walk that succeeds has met every buffer the mapped walk met.
    std::vector<dmabufinfo::DmaBuffer> mapped, held;
    if (get_dmabufs_mapped(&mapped) == 0 && get_dmabufs_process(&held) == 0) {
        std::set<uint64_t> held_inodes;
        for (const auto &buf : held) held_inodes.insert(buf.inode());
        for (const auto &buf : mapped)
            FUZZ_CHECK(held_inodes.count(buf.inode()));
    }

    // The library's own promises, for every process of the tree on one shared list: one
    // record per inode, and references that add up per process and in total.
    const std::string proc = QUARRY_TREE_ROOT "/proc";
    std::vector<dmabufinfo::DmaBuffer> bufs;
    std::error_code ec;
    for (const auto &entry : std::filesystem::directory_iterator(proc, ec)) {
        int pid = atoi(entry.path().filename().c_str());
        if (pid <= 0) continue;
        dmabufinfo::ReadDmaBufFdRefs(pid, &bufs, proc);
        dmabufinfo::ReadDmaBufMapRefs(pid, &bufs, proc, DMABUF_SYSFS_BUFFERS);
    }
    std::set<uint64_t> inodes;
    for (const auto &buf : bufs) {
        uint64_t refs = 0;
        std::set<int> pids;
        for (const auto &[pid, n] : buf.fdrefs()) refs += n, pids.insert(pid);
        for (const auto &[pid, n] : buf.maprefs()) refs += n, pids.insert(pid);
        FUZZ_CHECK(inodes.insert(buf.inode()).second);
        FUZZ_CHECK(refs == buf.total_refs() && pids == buf.pids());
    }
    dmabufinfo::DmabufSysfsStats stats;
    uint64_t total_kb = 0;
    if (dmabufinfo::GetDmabufSysfsStats(&stats, DMABUF_SYSFS_BUFFERS) &&
        dmabufinfo::GetDmabufTotalExportedKb(&total_kb, DMABUF_SYSFS_BUFFERS))
        FUZZ_CHECK(total_kb == stats.total_size() / 1024);
}

const std::map<std::string, FuzzEntry> &ReportFuzzEntries() {
    static const std::map<std::string, FuzzEntry> entries = {
        {"report_reserved", FuzzReportReserved},
        {"report_kmem", FuzzReportKmem},
        {"report_dmabuf", FuzzReportDmabuf},
    };
    return entries;
}
