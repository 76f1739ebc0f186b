/* Unmapped DMA-BUF accounting: which buffers no process maps, and who still holds them.
 *
 * Processes come and go while /proc is walked, so a walk that meets a process it cannot read
 * fails as a whole and is run again from an empty list; one that has exited in the meantime
 * (its /proc directory is gone) is simply no longer there. Buffers come and go under
 * /sys/kernel/dmabuf/buffers too: a read of the statistics that meets a freed buffer is made
 * again from scratch. */
#include "unmapped.h"

#include <base/logging.h>
#include <base/stringprintf.h>
#include <dirent.h>
#include <dmabufinfo/dmabuf_bufinfo.h>
#include <dmabufinfo/dmabuf_sysfs_stats.h>
#include <errno.h>
#include <inttypes.h>
#include <meminfo/sysmeminfo.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <new>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "paths.h"
#include "term.h"
#include "wrap.h"

using android::dmabufinfo::DmaBuffer;
using android::dmabufinfo::DmaBufferList;

/* Full passes a failing walk gets before the last, forgiving one. A process that exits during
 * a pass is gone by the next; one that fails three times in a row is not going to be read. */
#ifndef WALK_STRICT_PASSES
#define WALK_STRICT_PASSES 3
#endif

/* Reads of the DMA-BUF sysfs statistics before giving up. A buffer freed between the listing
 * and the read of its files fails one read and is gone from the next listing; a tree that
 * fails this many reads in a row is damaged, not moving. Between reads the tool waits, 1 ms
 * and then twice as long each time, so that a free caught halfway (its thread preempted on a
 * busy device) can finish: a damaged tree costs half a second in all. The build that runs
 * reports over written trees (fuzzing) makes three reads without pauses, and one strict pass
 * of each walk: its trees never move, so what fails once fails again. */
#ifndef SYSFS_READ_ATTEMPTS
#define SYSFS_READ_ATTEMPTS 10
#endif
#ifndef SYSFS_RETRY_FIRST_PAUSE_US
#define SYSFS_RETRY_FIRST_PAUSE_US 1000
#endif

/* A walk that skips the processes it cannot read instead of failing records them here. */
struct walk_skips {
    std::vector<int> pids;
};

typedef int (*process_walk)(std::vector<DmaBuffer> *dmabufs, struct walk_skips *skips);

/* One process's step of a walk: true when its entries could be read. */
typedef bool (*process_step)(int pid, DmaBufferList *dmabufs);

static bool is_process_entry(const struct dirent *entry, int *pid)
{
    if (entry->d_type != DT_DIR)
        return false;
    *pid = atoi(entry->d_name);
    return *pid != 0;
}

bool process_exited(const char *proc_root, int pid)
{
    struct stat st;

    return stat(android::base::StringPrintf("%s/%d", proc_root, pid).c_str(), &st) != 0 &&
           errno == ENOENT;
}

/* Runs step for every process under /proc on a list emptied first. Without skips the walk
 * stops at the first process that fails (-1); with skips it notes that process and goes on.
 * The records are gathered in a list indexed by inode, which the walk owns and drops when it
 * hands them over. A process that failed because it exited during the walk fails nothing:
 * what it held went with it. */
static int walk_processes(DIR *dir, std::vector<DmaBuffer> *dmabufs, process_step step,
                          struct walk_skips *skips)
{
    DmaBufferList list;
    struct dirent *entry;
    int pid, ret = 0;

    while ((entry = readdir(dir))) {
        if (!is_process_entry(entry, &pid) || step(pid, &list) || process_exited(PROC_ROOT, pid))
            continue;
        if (!skips) {
            ret = -1;
            break;
        }
        skips->pids.push_back(pid);
    }
    closedir(dir);
    *dmabufs = list.Release();
    return ret;
}

static bool mapped_step(int pid, DmaBufferList *dmabufs)
{
    return android::dmabufinfo::ReadDmaBufMapRefs(pid, dmabufs, PROC_ROOT, DMABUF_SYSFS_BUFFERS);
}

static bool held_step(int pid, DmaBufferList *dmabufs)
{
    if (!android::dmabufinfo::ReadDmaBufFdRefs(pid, dmabufs, PROC_ROOT)) {
        fprintf(stderr, "Failed to read dmabuf fd references for pid %d\n", pid);
        return false;
    }
    if (!android::dmabufinfo::ReadDmaBufMapRefs(pid, dmabufs, PROC_ROOT, DMABUF_SYSFS_BUFFERS)) {
        fprintf(stderr, "Failed to read dmabuf map references for pid %d\n", pid);
        return false;
    }
    return true;
}

static int walk_mapped(std::vector<DmaBuffer> *dmabufs, struct walk_skips *skips)
{
    dmabufs->clear();
    DIR *dir = opendir(PROC_ROOT);
    if (!dir) {
        perror("opendir");
        exit(1);
    }
    return walk_processes(dir, dmabufs, mapped_step, skips);
}

static int walk_held(std::vector<DmaBuffer> *dmabufs, struct walk_skips *skips)
{
    dmabufs->clear();
    DIR *dir = opendir(PROC_ROOT);
    if (!dir) {
        fprintf(stderr, "Failed to open /proc directory\n");
        return -1;
    }
    return walk_processes(dir, dmabufs, held_step, skips);
}

int get_dmabufs_mapped(std::vector<DmaBuffer> *dmabufs)
{
    return walk_mapped(dmabufs, NULL);
}

int get_dmabufs_process(std::vector<DmaBuffer> *dmabufs)
{
    return walk_held(dmabufs, NULL);
}

/* Runs a walk until it succeeds, at most WALK_STRICT_PASSES times; then once more, skipping
 * the processes that cannot be read, so the report still covers every process that can be.
 * The skipped ones are named on standard error: their buffers may be missing from the report. */
static void collect_with_retries(process_walk walk, std::vector<DmaBuffer> *dmabufs,
                                 const char *what)
{
    struct walk_skips skips;

    for (int pass = 0; pass < WALK_STRICT_PASSES; pass++) {
        if (walk(dmabufs, NULL) == 0) {
            if (pass > 0)
                fprintf(stderr, "quarrystat: the %s DMA-BUF walk took %d passes\n", what, pass + 1);
            return;
        }
    }
    if (walk(dmabufs, &skips) != 0) {
        /* Only the held walk gets here (the mapped walk ends the program instead). With no
         * holders known every row of the report would name "kernel"; say that it is not so. */
        fprintf(stderr,
                "quarrystat: /proc could not be opened in %d passes: no holders could be read, "
                "so an owner shown as \"kernel\" is not known\n",
                WALK_STRICT_PASSES + 1);
        return;
    }
    if (skips.pids.empty())
        return;
    fprintf(stderr,
            "quarrystat: skipped %zu process(es) whose %s DMA-BUF buffers could not be read "
            "in %d passes:",
            skips.pids.size(), what, WALK_STRICT_PASSES + 1);
    for (int pid : skips.pids)
        fprintf(stderr, " %d", pid);
    fputc('\n', stderr);
}

/* Passes on each message of the library once while it lives: a damaged buffer fails every
 * read of the statistics the same way, and each walk that meets it in a mapping too; one line
 * says so as well as twelve. */
class log_once {
public:
    log_once()
    {
        next_ = android::base::SetLogSink([this](android::base::LogSeverity severity,
                                                 const char *file, unsigned line,
                                                 const std::string &message) {
            if (!seen_.insert(message).second)
                return;
            if (next_)
                next_(severity, file, line, message);
            else
                android::base::StderrLogSink(severity, file, line, message);
        });
    }
    ~log_once() { android::base::SetLogSink(std::move(next_)); }
    log_once(const log_once &) = delete;
    log_once &operator=(const log_once &) = delete;

private:
    android::base::LogSink next_;
    std::unordered_set<std::string> seen_;
};

int read_with_retries(sysfs_read read, void *out, const char *path)
{
    useconds_t pause = SYSFS_RETRY_FIRST_PAUSE_US;
    log_once once;
    int attempt;

    for (attempt = 1; attempt <= SYSFS_READ_ATTEMPTS; attempt++) {
        if (read(out, path)) {
            if (attempt > 1)
                fprintf(stderr, "quarrystat: read %s in %d attempts\n", path, attempt);
            return attempt;
        }
        /* A directory that is not there is no buffer freed in passing: a kernel without the
         * statistics, or a damaged tree. Reading it again would only say so again. */
        struct stat st;
        if (stat(path, &st) != 0)
            break;
        if (attempt < SYSFS_READ_ATTEMPTS && pause > 0) {
            usleep(pause);
            pause *= 2;
        }
    }
    /* A single failed read has said why; after several, the lines above name each failure
     * once, and this says that they were not passing ones. */
    if (attempt > 1)
        fprintf(stderr, "quarrystat: gave up reading %s after %d reads\n", path,
                attempt > SYSFS_READ_ATTEMPTS ? SYSFS_READ_ATTEMPTS : attempt);
    return -1;
}

static bool read_exported_kb(void *out, const char *path)
{
    return android::dmabufinfo::GetDmabufTotalExportedKb(static_cast<uint64_t *>(out), path);
}

static bool read_sysfs_stats(void *out, const char *path)
{
    return android::dmabufinfo::GetDmabufSysfsStats(
        static_cast<android::dmabufinfo::DmabufSysfsStats *>(out), path);
}

/* Names what could not be allocated when the C++ library runs out of memory. */
static void report_no_memory(const char *what)
{
    fprintf(stderr, "quarrystat: out of memory: cannot allocate memory for %s\n", what);
}

/* The exported buffers on a kernel built without the DMA-BUF sysfs statistics, from the debug
 * file system's table of them. Only when the sysfs directory does not exist: where it does, it
 * is the one source, even when a read of it fails. */
static bool read_bufinfo_without_sysfs(android::dmabufinfo::DmabufSysfsStats *stats)
{
    struct stat st;

    if (stat(DMABUF_SYSFS_BUFFERS, &st) == 0 || errno != ENOENT)
        return false;
    return android::dmabufinfo::GetDmabufBufinfoStats(stats, DMABUF_BUFINFO);
}

/* -n's exported total from the table, and the mapped total again with the table's sizes: the
 * mapped walk had no sysfs to ask and took each mapping's length, which a partial mapping makes
 * smaller than its buffer. Both sources then give the same figure for the same buffers. */
static bool bufinfo_totals_kb(const std::vector<DmaBuffer> &mapped, uint64_t *exported_kb,
                              uint64_t *mapped_kb)
{
    android::dmabufinfo::DmabufSysfsStats stats;

    if (!read_bufinfo_without_sysfs(&stats))
        return false;
    std::unordered_map<uint64_t, uint64_t> size_by_inode;
    for (const auto &row : stats.buffer_stats())
        size_by_inode.emplace(row.inode, row.size);
    *mapped_kb = 0;
    for (const DmaBuffer &buf : mapped) {
        auto it = size_by_inode.find(buf.inode());
        *mapped_kb += (it == size_by_inode.end() ? buf.size() : it->second) >> 10;
    }
    *exported_kb = stats.total_size() >> 10; /* rounded once, as from sysfs */
    return true;
}

/* get_unmapped_buf_total's work; *what names the memory being filled at each step. */
static long unmapped_buf_total(const char **what)
{
    std::vector<DmaBuffer> mapped;
    uint64_t value = 0;
    int64_t heaps = -1;
    uint64_t mapped_kb = 0;
    long result;

    if (android::meminfo::ReadIonHeapsSizeKb(&value, ION_TOTAL_HEAPS_KB))
        heaps = static_cast<int64_t>(value);
    value = 0;
    bool pools_read = android::meminfo::ReadIonPoolsSizeKb(&value, ION_TOTAL_POOLS_KB);
    int64_t pools = static_cast<int64_t>(value);

    *what = "the mapped DMA-BUF buffers";
    collect_with_retries(walk_mapped, &mapped, "mapped");
    /* One record per buffer, rounded down to whole KB each. */
    for (const DmaBuffer &buf : mapped)
        mapped_kb += buf.size() >> 10;

    if (heaps >= 0 && pools_read && pools >= 0) {
        result = kb_sub(static_cast<long>(heaps), static_cast<long>(mapped_kb));
        printf("ION unmapped:   %ld KB\n", result);
        return result;
    }
    uint64_t exported_kb = 0;
    *what = "the DMA-BUF sysfs total";
    bool have_exported =
        read_with_retries(read_exported_kb, &exported_kb, DMABUF_SYSFS_BUFFERS) >= 0;
    if (!have_exported) {
        *what = "the DMA-BUF table of " DMABUF_BUFINFO;
        have_exported = bufinfo_totals_kb(mapped, &exported_kb, &mapped_kb);
    }
    if (!have_exported) {
        /* Without the exported total there is no unmapped figure to give. Saying so, and adding
         * nothing to the kernel total, keeps that total a sum of figures that were read; -1
         * minus the mapped total would put an invented number into it. */
        printf("DMA-BUF unmapped:   unknown (%s unreadable)\n", DMABUF_SYSFS_BUFFERS);
        return 0;
    }
    result = kb_sub(static_cast<long>(exported_kb), static_cast<long>(mapped_kb));
    printf("DMA-BUF unmapped:   %ld KB\n", result);
    return result;
}

void collect_held_dmabufs(std::vector<DmaBuffer> *held)
{
    collect_with_retries(walk_held, held, "held");
}

long get_unmapped_buf_total()
{
    const char *what = "the ION totals";
    log_once once;

    try {
        return unmapped_buf_total(&what);
    } catch (const std::bad_alloc &) {
        report_no_memory(what);
        throw;
    }
}

/* The process name from /proc/<pid>/comm, or "N/A" when it has gone or says nothing. */
static std::string process_name(int pid)
{
    std::ifstream in(android::base::StringPrintf(PROC_ROOT "/%d/comm", pid));
    std::string name;

    if (!in || !std::getline(in, name))
        return "N/A";
    return name;
}

static std::string owner_text(const DmaBuffer *held)
{
    std::string owner;

    if (!held)
        return "kernel";
    for (int pid : held->pids()) {
        owner += android::base::StringPrintf("[%ld]", static_cast<long>(pid));
        owner += android::base::StringPrintf("%s ", term_safe(process_name(pid)).c_str());
    }
    return owner;
}

/* show_unmapped_dmabuf's work; *what names the memory being filled at each step. */
static void unmapped_report(const char **what)
{
    /* ION devices keep their own accounting; this report is for DMA-BUF sysfs only. */
    static const bool ion_present = access(ION_DEVICE, R_OK) == 0;
    std::vector<DmaBuffer> mapped, held;
    android::dmabufinfo::DmabufSysfsStats stats;
    long total_kb = 0;

    if (ion_present) {
        puts("Not support ion");
        return;
    }
    /* Of the mapped buffers only the inodes are needed: keep those and let the records go
     * before the held walk builds its own, so the two lists are never in memory together. */
    collect_with_retries(walk_mapped, &mapped, "mapped");
    std::unordered_set<uint64_t> mapped_inodes;
    for (const DmaBuffer &buf : mapped)
        mapped_inodes.insert(buf.inode());
    std::vector<DmaBuffer>().swap(mapped);

    *what = "the held DMA-BUF buffers";
    collect_held_dmabufs(&held);
    *what = "the DMA-BUF sysfs statistics";
    if (read_with_retries(read_sysfs_stats, &stats, DMABUF_SYSFS_BUFFERS) < 0) {
        puts("Unable to read DMA-BUF sysfs stats from device");
        return;
    }

    /* Inode numbers are matched and printed whole, 64 bits: a buffer from 2^32 up is still
     * found and shown as the kernel numbers it. Smaller ones print as "%16u" would. */
    *what = "the report's rows";
    std::unordered_map<uint64_t, const DmaBuffer *> held_by_inode;
    for (const DmaBuffer &buf : held)
        held_by_inode.emplace(buf.inode(), &buf);

    puts("------------------ unmapped DMA-BUF per-buffer stats -----------------------");
    puts("    Dmabuf Inode |     Size(bytes) |   Exporter Name  |   owner                 ");
    for (const auto &row : stats.buffer_stats()) {
        if (mapped_inodes.count(row.inode))
            continue;
        auto it = held_by_inode.find(row.inode);
        std::string owner = owner_text(it == held_by_inode.end() ? NULL : it->second);
        printf("%16" PRIu64 " |%16" PRIu64 " | %16s | %-64s\n", row.inode, row.size,
               term_safe(row.exporter_name).c_str(), owner.c_str());
        total_kb = kb_add(total_kb, static_cast<long>(row.size >> 10));
    }
    printf("\nUnmapped dmabuf total size is %ld KB\n", total_kb);
}

int show_unmapped_dmabuf()
{
    const char *what = "the mapped DMA-BUF buffers";
    log_once once;

    try {
        unmapped_report(&what);
    } catch (const std::bad_alloc &) {
        report_no_memory(what);
        return -ENOMEM;
    }
    return 0;
}
