// What the unmapped reports do when processes and buffers come and go while they read, and how
// they show names on a terminal.
#include "unmapped.h"

#include <dmabufinfo/dmabuf_sysfs_stats.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "failing_new.h"
#include "kmem.h"
#include "temp_tree.h"
#include "term.h"

namespace {

using android::dmabufinfo::DmabufSysfsStats;

TEST(ProcessExited, OnlyWhenItsDirectoryIsGone) {
    TempTree t;
    t.Write("proc/42/maps", "");
    EXPECT_FALSE(process_exited(t.Path("proc").c_str(), 42));
    // A zombie keeps its directory with nothing readable in it: it has not exited yet.
    std::filesystem::remove(t.Path("proc/42/maps"));
    EXPECT_FALSE(process_exited(t.Path("proc").c_str(), 42));
    std::filesystem::remove_all(t.Path("proc/42"));
    EXPECT_TRUE(process_exited(t.Path("proc").c_str(), 42));
}

// A sysfs tree caught while the kernel frees buffer 2: its directory is listed but its files
// are gone. Each failed read lets the free finish (the directory goes) before the next one.
struct Moving {
    TempTree t;
    int reads = 0;
    bool freed_on_failure = true;
    DmabufSysfsStats stats;
    uint64_t exported_kb = 0;

    Moving() {
        t.Write("buffers/1/size", "4096\n");
        t.Write("buffers/1/exporter_name", "system\n");
        t.Write("buffers/2/exporter_name", "system\n");  // size already removed
        t.Write("buffers/3/size", "8192\n");
        t.Write("buffers/3/exporter_name", "cma\n");
    }
    std::string path() const { return t.Path("buffers"); }
    void AfterRead(bool ok) {
        reads++;
        if (!ok && freed_on_failure) std::filesystem::remove_all(t.Path("buffers/2"));
    }
};

bool ReadStats(void* out, const char* path) {
    auto* m = static_cast<Moving*>(out);
    bool ok = android::dmabufinfo::GetDmabufSysfsStats(&m->stats, path);
    m->AfterRead(ok);
    return ok;
}

bool ReadExported(void* out, const char* path) {
    auto* m = static_cast<Moving*>(out);
    bool ok = android::dmabufinfo::GetDmabufTotalExportedKb(&m->exported_kb, path);
    m->AfterRead(ok);
    return ok;
}

TEST(ReadWithRetries, FreedBufferIsGoneOnTheNextRead) {
    Moving m;
    testing::internal::CaptureStderr();
    EXPECT_EQ(2, read_with_retries(ReadStats, &m, m.path().c_str()));
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("quarrystat: read " + m.path() + " in 2 attempts\n"));
    EXPECT_EQ(2, m.reads);
    ASSERT_EQ(2u, m.stats.buffer_stats().size());
    EXPECT_EQ(2u, m.stats.total_count());
    EXPECT_EQ(12288u, m.stats.total_size());  // nothing of the failed read is left over

    Moving n;
    EXPECT_EQ(2, read_with_retries(ReadExported, &n, n.path().c_str()));
    EXPECT_EQ(12u, n.exported_kb);
}

TEST(ReadWithRetries, StillTreeReadsOnce) {
    Moving m;
    std::filesystem::remove_all(m.t.Path("buffers/2"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(1, read_with_retries(ReadStats, &m, m.path().c_str()));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());  // a first read needs no word
    EXPECT_EQ(1, m.reads);
}

// A buffer directory without its size file, for good: each read fails on it the same way. The
// failure is named once, not once per read, and then that the reads were given up.
TEST(ReadWithRetries, DamagedTreeGivesUpAfterBoundedReadsSayingSoOnce) {
    for (sysfs_read read : {ReadStats, ReadExported}) {
        Moving m;
        m.freed_on_failure = false;
        LogCapture log;
        testing::internal::CaptureStderr();
        EXPECT_EQ(-1, read_with_retries(read, &m, m.path().c_str()));
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_GT(m.reads, 1);
        EXPECT_LE(m.reads, 20);
        EXPECT_EQ(std::vector<std::string>{"Unable to access " + m.path() +
                                           "/2/size: No such file or directory"},
                  log.messages());
        EXPECT_EQ("quarrystat: gave up reading " + m.path() + " after " +
                      std::to_string(m.reads) + " reads\n",
                  err);
    }
}

TEST(EscapeControls, EveryControlCharacterAndNothingElse) {
    const struct {
        std::string in, out;
    } cases[] = {
        {"surfaceflinger", "surfaceflinger"},
        {"", ""},
        {"\x1b]0;owned\x07", "\\x1b]0;owned\\x07"},
        {"a\tb\nc\rd", "a\\x09b\\x0ac\\x0dd"},
        {"del\x7f", "del\\x7f"},
        {std::string("nul\0x", 5), "nul\\x00x"},
        {"caf\xc3\xa9 \\x1b", "caf\xc3\xa9 \\x1b"},  // UTF-8 and a literal backslash stay
    };
    for (const auto& c : cases) EXPECT_EQ(c.out, escape_controls(c.in)) << c.in;
}

// Runs term_safe with standard output on fd (a terminal or a pipe) and puts it back.
std::string TermSafeOn(int fd, const std::string& text) {
    fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    dup2(fd, STDOUT_FILENO);
    std::string shown = term_safe(text);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    return shown;
}

TEST(TermSafe, EscapesOnATerminalOnly) {
    const std::string name = "evil\x1b[2J";
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(0, grantpt(master));
    ASSERT_EQ(0, unlockpt(master));
    int slave = open(ptsname(master), O_RDWR | O_NOCTTY);
    ASSERT_GE(slave, 0);
    EXPECT_EQ("evil\\x1b[2J", TermSafeOn(slave, name));
    close(slave);
    close(master);

    int pipe_fds[2];
    ASSERT_EQ(0, pipe(pipe_fds));
    EXPECT_EQ(name, TermSafeOn(pipe_fds[1], name));
    close(pipe_fds[0]);
    close(pipe_fds[1]);
}

// Runs body in a child chroot'ed into root, its standard output thrown away; the child's exit
// status (-1 when it did not exit) and what it wrote on standard error.
struct ChildRun {
    int status;
    std::string err;
};
template <typename Body>
ChildRun RunChrooted(const std::string& root, Body body) {
    TempTree t;
    std::string err_path = t.Path("stderr");
    pid_t child = fork();
    if (child == 0) {
        int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int out = open("/dev/null", O_WRONLY);
        if (err < 0 || out < 0 || dup2(err, STDERR_FILENO) < 0 || dup2(out, STDOUT_FILENO) < 0 ||
            chroot(root.c_str()) != 0 || chdir("/") != 0)
            _exit(2);
        _exit(body());
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return {-1, ""};
    std::ifstream in(err_path);
    std::stringstream text;
    text << in.rdbuf();
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text.str()};
}

// The mapped walk could open /proc, the held walk cannot: after its bounded passes it says
// that no holders are known, so the report's "kernel" owners are not taken at face value.
TEST(CollectHeldDmabufs, NoProcMeansNoHoldersKnown) {
    TempTree empty;
    ChildRun run = RunChrooted(empty.Root(), [] {
        std::vector<android::dmabufinfo::DmaBuffer> held;
        collect_held_dmabufs(&held);
        return held.empty() ? 0 : 3;
    });
    EXPECT_EQ(0, run.status);
    EXPECT_EQ(
        "Failed to open /proc directory\n"
        "Failed to open /proc directory\n"
        "Failed to open /proc directory\n"
        "Failed to open /proc directory\n"
        "quarrystat: /proc could not be opened in 4 passes: no holders could be read, so an "
        "owner shown as \"kernel\" is not known\n",
        run.err);
}

// Out of memory at any point of -u or -n: the report returns -ENOMEM (the exit status 244) and
// names on standard error what it could not allocate, rather than aborting. Every count of
// allocations that succeed first is tried, so each step of the reports meets the failure.
TEST(OutOfMemory, ReportsReturnNoMemoryAndSaySo) {
    const std::string tree = std::string(QUARRY_SOURCE_DIR) + "/tests/fixtures/dmabuf-lab";
    for (int report = 0; report < 2; report++) {
        int failed_runs = 0;
        for (long allow = 0; allow < 400; allow++) {
            ChildRun run = RunChrooted(tree, [&] {
                FailAllocationsAfter(allow);
                int ret = report == 0 ? show_unmapped_dmabuf() : parse_kernel_memory();
                FailAllocationsAfter(-1);
                return ret == -ENOMEM ? 10 : ret == 0 ? 0 : 3;
            });
            ASSERT_NE(-1, run.status) << "report " << report << ", allow " << allow << ": "
                                      << run.err;
            if (run.status == 0) break;  // enough memory for the whole report
            ASSERT_EQ(10, run.status) << "allow " << allow;
            EXPECT_NE(std::string::npos,
                      run.err.find("quarrystat: out of memory: cannot allocate memory for "))
                << run.err;
            failed_runs++;
        }
        EXPECT_GT(failed_runs, 10) << "report " << report;
    }
}

// A buffer directory without its size file is met by both walks (a mapping of it) and by
// every read of the statistics: each report names it once, then says it gave up.
TEST(DamagedSysfs, EachReportNamesTheBufferOnce) {
    TempTree tree;
    std::filesystem::copy(std::string(QUARRY_SOURCE_DIR) + "/tests/fixtures/dmabuf-lab",
                          tree.Root(),
                          std::filesystem::copy_options::recursive |
                              std::filesystem::copy_options::copy_symlinks);
    std::filesystem::remove(tree.Path("sys/kernel/dmabuf/buffers/3/size"));
    for (int report = 0; report < 2; report++) {
        ChildRun run = RunChrooted(tree.Root(), [&] {
            return report == 0 ? show_unmapped_dmabuf() : parse_kernel_memory();
        });
        EXPECT_EQ(0, run.status);
        const std::string line = "Unable to access /sys/kernel/dmabuf/buffers/3/size";
        size_t first = run.err.find(line);
        EXPECT_NE(std::string::npos, first) << run.err;
        EXPECT_EQ(std::string::npos, run.err.find(line, first + 1)) << run.err;
        EXPECT_NE(std::string::npos,
                  run.err.find("quarrystat: gave up reading /sys/kernel/dmabuf/buffers after 10 "
                               "reads\n"))
            << run.err;
    }
}

// On a kernel without the sysfs statistics -n reads the debug table; running out of memory
// there names the table, not the sysfs total it no longer reads.
TEST(OutOfMemory, BufinfoPathNamesTheTable) {
    const std::string tree = std::string(QUARRY_SOURCE_DIR) + "/tests/fixtures/dmabuf-bufinfo";
    bool named = false;
    long allow = 0;
    for (; allow < 4000; allow++) {
        ChildRun run = RunChrooted(tree, [&] {
            FailAllocationsAfter(allow);
            int ret = parse_kernel_memory();
            FailAllocationsAfter(-1);
            return ret == -ENOMEM ? 10 : ret == 0 ? 0 : 3;
        });
        if (run.status == 0) break;
        ASSERT_EQ(10, run.status) << "allow " << allow << ": " << run.err;
        named |= run.err.find("quarrystat: out of memory: cannot allocate memory for the DMA-BUF "
                              "table of /d/dma_buf/bufinfo\n") != std::string::npos;
    }
    EXPECT_LT(allow, 4000);
    EXPECT_TRUE(named);
}

}  // namespace
