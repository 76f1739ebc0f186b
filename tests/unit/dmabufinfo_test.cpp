// Buffer records and the per-process fd and mapping readers, on temporary /proc and sysfs trees.
#include <dirent.h>
#include <dmabufinfo/dmabuf_sysfs_stats.h>
#include <dmabufinfo/dmabufinfo.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "temp_tree.h"

using android::dmabufinfo::DmaBuffer;
using android::dmabufinfo::DmaBufferList;
using android::dmabufinfo::DmabufSysfsStats;
using android::dmabufinfo::GetDmabufSysfsStats;
using android::dmabufinfo::ReadDmaBufFdRefs;
using android::dmabufinfo::ReadDmaBufMapRefs;

namespace {

std::string FdInfo(uint64_t ino, uint64_t size, uint64_t count, const std::string& exp,
                   const char* name = nullptr) {
    std::string s = "pos:\t0\nflags:\t02000002\nmnt_id:\t8\nino:\t" + std::to_string(ino) +
                    "\nsize:\t" + std::to_string(size) + "\ncount:\t" + std::to_string(count) +
                    "\nexp_name:\t" + exp + "\n";
    if (name) s += std::string("name:\t") + name + "\n";
    return s;
}

std::string MapLine(uint64_t start, uint64_t end, uint64_t inode, const std::string& name) {
    char buf[200];
    snprintf(buf, sizeof(buf), "%lx-%lx rw-s 00000000 00:07 %-10lu %s\n", (unsigned long)start,
             (unsigned long)end, (unsigned long)inode, name.c_str());
    return buf;
}

std::string RefMap(const std::unordered_map<int, int>& refs) {
    std::map<int, int> sorted(refs.begin(), refs.end());
    std::string s;
    for (auto [pid, n] : sorted)
        s += (s.empty() ? "" : ",") + std::to_string(pid) + ":" + std::to_string(n);
    return "{" + s + "}";
}

// One record on one line, so a whole array compares against a table.
std::string Describe(const DmaBuffer& b) {
    std::ostringstream out;
    out << b.inode() << " size=" << b.size() << " count=" << b.count() << " exp=" << b.exporter()
        << " name=" << b.name() << " fd=" << RefMap(b.fdrefs()) << " map=" << RefMap(b.maprefs())
        << " refs=" << b.total_refs() << " pids=";
    for (int pid : b.pids()) out << pid << ";";
    return out.str();
}

std::vector<std::string> DescribeByInode(const std::vector<DmaBuffer>& bufs) {
    std::vector<std::string> lines;
    for (const DmaBuffer& b : bufs) lines.push_back(Describe(b));
    std::sort(lines.begin(), lines.end());  // single-digit inodes lead each line
    return lines;
}

std::string ReadRealData(const std::string& rel) {
    std::ifstream in(std::string(QUARRY_REALDATA_DIR) + "/" + rel, std::ios::binary);
    EXPECT_TRUE(in) << rel;
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

TEST(DmaBuffer, ReferencesAndCopies) {
    DmaBuffer buf(5, 4096, 0, "<unknown>", "<unknown>");
    EXPECT_EQ(0u, buf.total_refs());
    EXPECT_TRUE(buf.pids().empty() && buf.fdrefs().empty() && buf.maprefs().empty());

    buf.RecordFdRef(7);
    buf.RecordFdRef(7);
    buf.RecordMapRef(7);
    EXPECT_EQ(2, buf.fdrefs().at(7));
    EXPECT_EQ(1, buf.maprefs().at(7));
    EXPECT_EQ(3u, buf.total_refs());
    EXPECT_EQ(std::set<int>({7}), buf.pids());

    DmaBuffer copy = buf;
    buf.RecordMapRef(300);
    copy.RecordFdRef(12);
    EXPECT_EQ(std::set<int>({7, 300}), buf.pids());
    EXPECT_EQ(std::vector<int>({7, 12}), std::vector<int>(copy.pids().begin(), copy.pids().end()));
    EXPECT_EQ(4u, buf.total_refs());
    EXPECT_EQ(4u, copy.total_refs());
    EXPECT_EQ(0u, copy.maprefs().count(300));
}

TEST(ReadDmaBufFdRefs, FillsRecordsMadeFromMappings) {
    TempTree t;
    t.Write("proc/9/fdinfo/3",
            "size:\t8192\ncount:\tlots\nexp_name:\t  \ninode:\t1\nino:\t1\nname:\tcam\n");
    t.Write("proc/9/fdinfo/4", "exp_name:\tsystem\nino:\t5\n");  // what is not said is 0
    t.Write("proc/9/fdinfo/5", "count:\t3\nexp_name:\tother\nname:\tnew\nino:\t2\n");
    std::vector<DmaBuffer> bufs;
    bufs.emplace_back(1, 4096, 0, "<unknown>", "<unknown>");
    bufs.emplace_back(2, 4096, 0, "system", "kept");
    ASSERT_TRUE(ReadDmaBufFdRefs(9, &bufs, t.Path("proc")));
    ASSERT_EQ(3u, bufs.size());
    EXPECT_EQ("5 size=0 count=0 exp=system name=<unknown> fd={9:1} map={} refs=1 pids=9;",
              Describe(bufs[2]));
    EXPECT_EQ("cam", bufs[0].name());
    EXPECT_EQ("", bufs[0].exporter());  // an empty exp_name still marks a DMA-BUF
    EXPECT_EQ(0u, bufs[0].count());     // "lots" is no number
    EXPECT_EQ(4096u, bufs[0].size());   // the size is never changed by a descriptor
    EXPECT_EQ(1, bufs[0].fdrefs().at(9));
    EXPECT_EQ("kept", bufs[1].name());  // a known name and exporter stay, a count of 0 is filled
    EXPECT_EQ("system", bufs[1].exporter());
    EXPECT_EQ(3u, bufs[1].count());
}

// The kernel documentation's example pads values with blanks where the kernel prints a tab.
TEST(ReadDmaBufFdRefs, BlankPaddedValues) {
    TempTree t;
    t.Write("proc/9/fdinfo/3", ReadRealData("fdinfo/kernel-doc-example-NOT-A-CAPTURE.txt"));
    std::vector<DmaBuffer> bufs;
    ASSERT_TRUE(ReadDmaBufFdRefs(9, &bufs, t.Path("proc")));
    ASSERT_EQ(1u, bufs.size());
    EXPECT_EQ(
        "63107 size=32768 count=2 exp=system-heap name=<unknown> fd={9:1} map={} refs=1 "
        "pids=9;",
        Describe(bufs[0]));
}

TEST(ReadDmaBufFdRefs, InodeFromLinkWhenFdinfoHasNone) {
    TempTree t;
    t.Write("target", std::string(10000, 'x'));
    t.Write("proc/9/fdinfo/3", "size:\t1\ncount:\t1\nexp_name:\tsystem\n");
    t.Symlink(t.Path("target"), "proc/9/fd/3");
    t.Write("proc/9/fdinfo/4", "exp_name:\tsystem\n");  // its link is gone: skipped
    struct stat st;
    ASSERT_EQ(0, stat(t.Path("target").c_str(), &st));
    std::vector<DmaBuffer> bufs;
    ASSERT_TRUE(ReadDmaBufFdRefs(9, &bufs, t.Path("proc")));
    ASSERT_EQ(1u, bufs.size());
    EXPECT_EQ(st.st_ino, bufs[0].inode());
    EXPECT_EQ(static_cast<uint64_t>(st.st_blocks) * 512, bufs[0].size());
}

TEST(ReadDmaBufFdRefs, Failures) {
    TempTree t;
    std::vector<DmaBuffer> bufs;
    {
        LogCapture log;
        EXPECT_FALSE(ReadDmaBufFdRefs(5, &bufs, t.Path("proc")));  // process gone
        ASSERT_EQ(1u, log.messages().size());
        EXPECT_EQ(
            "Failed to open " + t.Path("proc") + "/5/fdinfo directory: No such file or directory",
            log.messages()[0]);
    }
    t.Mkdir("proc/7/fdinfo");
    t.Write("proc/7/fdinfo/x1", "exp_name:\tsystem\n");  // not a descriptor number: skipped
    // A hexadecimal name is read as fd 16, whose fdinfo file "16" does not exist: the
    // descriptor counts as closed meanwhile and is skipped without a message.
    t.Write("proc/7/fdinfo/0x10", FdInfo(3, 4096, 1, "system"));
    {
        LogCapture log;
        EXPECT_TRUE(ReadDmaBufFdRefs(7, &bufs, t.Path("proc")));
        EXPECT_TRUE(bufs.empty());
        EXPECT_TRUE(log.messages().empty());
    }

    // Failures other than a missing file or a refused permission stop the walk with the errno
    // text. A link that points at itself fails with ELOOP wherever it is opened.
    t.Write("proc/8/fdinfo", "");
    t.Symlink("3", "proc/10/fdinfo/3");
    t.Write("proc/11/fdinfo/3", "size:\t1\nexp_name:\tsystem\n");
    t.Symlink("3", "proc/11/fd/3");
    t.Write("proc/11/fdinfo/4", FdInfo(3, 4096, 1, "system"));  // read before or after fd 3
    const std::string loop = ": Too many levels of symbolic links";
    {
        LogCapture log;
        EXPECT_FALSE(ReadDmaBufFdRefs(8, &bufs, t.Path("proc")));
        EXPECT_FALSE(ReadDmaBufFdRefs(10, &bufs, t.Path("proc")));
        EXPECT_FALSE(ReadDmaBufFdRefs(11, &bufs, t.Path("proc")));
        const std::vector<std::string> want = {
            "Failed to open " + t.Path("proc") + "/8/fdinfo directory: Not a directory",
            "Failed to open " + t.Path("proc") + "/10/fdinfo/3" + loop,
            "Failed to read fd info for pid: 10, fd: 3",
            "Failed to stat: " + t.Path("proc") + "/11/fd/3" + loop,
        };
        EXPECT_EQ(want, log.messages());
    }
    EXPECT_LE(bufs.size(), 1u);  // fd 4's buffer stays when it was read before the failure
}

// Without permission the hint is logged once per run, whether the directory or a file refuses.
// Runs in a child that drops root, so the refusals are real.
TEST(ReadDmaBufFdRefs, PermissionMessageOnce) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to drop to another user";
    TempTree t;
    t.Write("proc/1/fdinfo/3", FdInfo(1, 4096, 1, "system"));
    t.Write("proc/2/fdinfo/3", FdInfo(1, 4096, 1, "system"));
    t.Write("proc/3/fdinfo/3", FdInfo(1, 4096, 1, "system"));
    chmod(t.Root().c_str(), 0755);
    t.Chmod("proc/1/fdinfo", 0700);
    t.Chmod("proc/2/fdinfo", 0700);
    t.Chmod("proc/3/fdinfo/3", 0600);
    const std::string hint =
        "Failed to read fdinfo - requires either PTRACE_MODE_READ or root depending on the device "
        "kernel";
    pid_t child = fork();
    if (child == 0) {
        if (setresgid(65534, 65534, 65534) || setresuid(65534, 65534, 65534)) _exit(2);
        LogCapture log;
        std::vector<DmaBuffer> bufs;
        bool all_false = !ReadDmaBufFdRefs(1, &bufs, t.Path("proc")) &&
                         !ReadDmaBufFdRefs(2, &bufs, t.Path("proc")) &&
                         !ReadDmaBufFdRefs(3, &bufs, t.Path("proc"));
        const std::vector<std::string> want = {
            hint, "Failed to open " + t.Path("proc") + "/3/fdinfo/3: Permission denied"};
        _exit(all_false && log.messages() == want && bufs.empty() ? 0 : 1);
    }
    int status;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
}

TEST(ReadDmaBufMapRefs, RecordsMappedBuffers) {
    TempTree t;
    t.Write("sys/buffers/3/exporter_name", "system\n");
    t.Write("sys/buffers/3/size", "262144\n");
    t.Write("sys/buffers/6/exporter_name", "system\n");  // size unreadable: mapping length
    t.Write("proc/68/maps", "00400000-00481000 r-xp 00000000 00:02 9    /lab/dmabuf-test\n" +
                                MapLine(0x7f91785000, 0x7f917c5000, 3, "/dmabuf:") +
                                MapLine(0x7f917c5000, 0x7f91805000, 3, "/dmabuf:") + "\n" +
                                MapLine(0x7f91805000, 0x7f91905000, 1, "/dmabuf:lab-named") +
                                MapLine(0x1000, 0x2000, 8, "/dev/dmabuf") +
                                MapLine(0x1000, 0x2000, 9, "anon_inode:dmabuf") +
                                "004a3000-004a8000 rw-p 00000000 00:00 0 \n");
    t.Write("proc/69/maps", MapLine(0x10000, 0x20000, 6, "/dmabuf (deleted)") +
                                MapLine(0x30000, 0x34000, 6, "/dmabuf") +
                                MapLine(0x7f91785000, 0x7f917c5000, 3, "/dmabuf:"));
    std::vector<DmaBuffer> bufs;
    ASSERT_TRUE(ReadDmaBufMapRefs(68, &bufs, t.Path("proc"), t.Path("sys/buffers")));
    ASSERT_TRUE(ReadDmaBufMapRefs(69, &bufs, t.Path("proc"), t.Path("sys/buffers")));
    ASSERT_EQ(3u, bufs.size());  // in the order first met: 3, 1, 6
    EXPECT_EQ(3u, bufs[0].inode());
    EXPECT_EQ(262144u, bufs[0].size());
    EXPECT_EQ("system\n", bufs[0].exporter());  // as sysfs gives it
    EXPECT_EQ(2, bufs[0].maprefs().at(68));
    EXPECT_EQ(std::set<int>({68, 69}), bufs[0].pids());
    EXPECT_EQ(1u, bufs[1].inode());
    EXPECT_EQ("<unknown>", bufs[1].exporter());
    EXPECT_EQ(0x100000u, bufs[1].size());
    EXPECT_EQ("<unknown>", bufs[1].name());
    EXPECT_EQ(0u, bufs[1].count());
    EXPECT_EQ(6u, bufs[2].inode());
    EXPECT_EQ("system\n", bufs[2].exporter());
    EXPECT_EQ(0x10000u, bufs[2].size());  // the first mapping seen, not the later one
    EXPECT_EQ(2u, bufs[2].total_refs());
}

// Records are found by inode whatever the caller did to its array between calls.
TEST(ReadDmaBufMapRefs, FindsRecordsAfterCallerChanges) {
    TempTree t;
    t.Write("proc/5/maps",
            MapLine(0x1000, 0x2000, 4, "/dmabuf:") + MapLine(0x3000, 0x4000, 5, "/dmabuf:"));
    std::vector<DmaBuffer> bufs;
    ASSERT_TRUE(ReadDmaBufMapRefs(5, &bufs, t.Path("proc"), t.Path("sys")));
    ASSERT_TRUE(ReadDmaBufMapRefs(5, &bufs, t.Path("proc"), t.Path("sys")));
    ASSERT_EQ(2u, bufs.size());
    EXPECT_EQ(2, bufs[1].maprefs().at(5));

    std::vector<DmaBuffer> copy = bufs;             // another array
    copy.emplace(copy.begin(), 5, 1, 0, "x", "y");  // the caller's own record, in front
    ASSERT_TRUE(ReadDmaBufMapRefs(5, &copy, t.Path("proc"), t.Path("sys")));
    ASSERT_EQ(3u, copy.size());
    EXPECT_EQ(1, copy[0].maprefs().at(5));  // the first record with the inode takes the reference
    EXPECT_EQ(3, copy[1].maprefs().at(5));
    EXPECT_EQ(2, copy[2].maprefs().at(5));

    // A record replaced in place is found, not duplicated, and one replaced away is gone: the
    // array keeps its size and its first record, so nothing but the records themselves tells.
    copy[2] = DmaBuffer(7, 1, 0, "x", "y");
    t.Write("proc/6/maps", MapLine(0x1000, 0x2000, 7, "/dmabuf:"));
    ASSERT_TRUE(ReadDmaBufMapRefs(6, &copy, t.Path("proc"), t.Path("sys")));
    ASSERT_EQ(3u, copy.size());
    EXPECT_EQ(1, copy[2].maprefs().at(6));
    copy[1] = DmaBuffer(8, 1, 0, "x", "y");  // in the middle, in place of inode 4
    t.Write("proc/7/maps", MapLine(0x1000, 0x2000, 8, "/dmabuf:") +
                               MapLine(0x1000, 0x2000, 4, "/dmabuf:") +
                               MapLine(0x1000, 0x2000, 8, "/dmabuf:"));
    ASSERT_TRUE(ReadDmaBufMapRefs(7, &copy, t.Path("proc"), t.Path("sys")));
    ASSERT_EQ(4u, copy.size());
    EXPECT_EQ(2, copy[1].maprefs().at(7));
    EXPECT_EQ(4u, copy[3].inode());
    EXPECT_EQ(1u, copy[3].total_refs());

    bufs.clear();  // emptied and filled again, as a repeated walk does
    bufs.emplace_back(5, 1, 0, "x", "y");
    ASSERT_TRUE(ReadDmaBufMapRefs(5, &bufs, t.Path("proc"), t.Path("sys")));
    ASSERT_EQ(2u, bufs.size());
    EXPECT_EQ(5u, bufs[0].inode());
    EXPECT_EQ(1u, bufs[0].total_refs());
    EXPECT_EQ(4u, bufs[1].inode());
}

TEST(ReadDmaBufMapRefs, FailuresKeepEarlierReferences) {
    TempTree t;
    std::vector<DmaBuffer> bufs;
    t.Write("proc/5/maps", MapLine(0x1000, 0x2000, 4, "/dmabuf:") +
                               "a000-c000\trw-s 00000000 00:0b 77 /dmabuf\n" +
                               MapLine(0x1000, 0x2000, 5, "/dmabuf:"));
    LogCapture log;
    EXPECT_FALSE(ReadDmaBufMapRefs(5, &bufs, t.Path("proc"), t.Path("sys")));
    ASSERT_EQ(1u, bufs.size());
    EXPECT_EQ(4u, bufs[0].inode());
    EXPECT_FALSE(ReadDmaBufMapRefs(6, &bufs, t.Path("proc"), t.Path("sys")));
    ASSERT_EQ(2u, log.messages().size());
    EXPECT_EQ("Failed to parse " + t.Path("proc") + "/5/maps for pid: 5", log.messages()[0]);
    EXPECT_EQ("Failed to open " + t.Path("proc") + "/6/maps for pid: 6", log.messages()[1]);
}

// Lines of any length and files of many reads (64 KiB for maps, 4 KiB for fdinfo): lines that
// straddle a read, one longer than a whole read, and a last line without its newline.
TEST(ReadDmaBufMapRefs, LongLinesAndFilesBeyondOneRead) {
    TempTree t;
    std::string path = "/data/app/" + std::string(4000, 'p') + "/base.apk";
    std::string maps = "7f00000000-7f00001000 r--p 00000000 fd:05 1234   " + path + "\n" +
                       MapLine(0x1000, 0x3000, 4, "/dmabuf:" + std::string(300, 'n'));
    for (int i = 0; maps.size() < 3 * 65536; i++)
        maps += MapLine(0x10000 + i * 0x1000, 0x11000 + i * 0x1000, 4 + i % 3, "/dmabuf:");
    maps += "7f00000000-7f00001000 r--p 00000000 fd:05 1234   /" + std::string(70000, 'l') + "\n";
    std::string last = MapLine(0x1000, 0x2000, 9, "/dmabuf:");
    maps += last.substr(0, last.size() - 1);
    t.Write("proc/5/maps", maps);
    std::vector<DmaBuffer> bufs;
    ASSERT_TRUE(ReadDmaBufMapRefs(5, &bufs, t.Path("proc"), t.Path("sys")));
    size_t mappings = 0;
    for (const DmaBuffer& b : bufs) mappings += b.total_refs();
    // Every line is a mapping but the two long path lines; the last has no newline.
    EXPECT_EQ(static_cast<size_t>(std::count(maps.begin(), maps.end(), '\n')) - 1, mappings);
    ASSERT_EQ(4u, bufs.size());
    EXPECT_EQ(0x2000u, bufs[0].size());
    EXPECT_EQ(9u, bufs[3].inode());

    std::string fdinfo;
    while (fdinfo.size() < 3 * 4096) fdinfo += "pos:\t0\nflags:\t02000002\nmnt_id:\t8\n";
    t.Write("proc/5/fdinfo/3", fdinfo + FdInfo(4, 8192, 2, "system", "late"));
    // An empty first line, then one longer than a read: the read after it keeps the rest.
    t.Write("proc/5/fdinfo/7", "\nname:\t" + std::string(5000, 'n') + "\n" + FdInfo(10, 1, 1, "x"));
    ASSERT_TRUE(ReadDmaBufFdRefs(5, &bufs, t.Path("proc")));
    EXPECT_EQ("late", bufs[0].name());
    ASSERT_EQ(5u, bufs.size());
    EXPECT_EQ(std::string(5000, 'n'), bufs[4].name());
    EXPECT_EQ(1, bufs[0].fdrefs().at(5));
}

// Lines longer than one read, newlines right at and right after a read's end, and a last line
// without one: every line comes out whole and once.
TEST(ReadDmaBufMapRefs, LinesAcrossManyReads) {
    TempTree t;
    const size_t chunk = 64 * 1024;
    std::string head = "7f00000000-7f00001000 r--p 00000000 fd:05 1234   /data/";
    std::string maps = head + std::string(3 * chunk - head.size() - 1, 'p') + "\n";  // ends a read
    maps += MapLine(0x1000, 0x3000, 4, "/dmabuf:a");
    maps += head + std::string(chunk, 'q') + "\n";
    maps += MapLine(0x5000, 0x6000, 6, "/dmabuf:b");
    maps.pop_back();  // no newline at the end
    t.Write("proc/5/maps", maps);
    std::vector<DmaBuffer> bufs;
    ASSERT_TRUE(ReadDmaBufMapRefs(5, &bufs, t.Path("proc"), t.Path("sys")));
    ASSERT_EQ(2u, bufs.size());
    EXPECT_EQ(4u, bufs[0].inode());
    EXPECT_EQ(0x2000u, bufs[0].size());
    EXPECT_EQ(6u, bufs[1].inode());

    // fdinfo is read 4 KB at a time: a long name line does not hide the lines after it.
    t.Write("proc/6/fdinfo/3", "pos:\t0\nname:\t" + std::string(10000, 'n') +
                                   "\nino:\t9\nsize:\t4096\ncount:\t1\nexp_name:\tsystem\n");
    std::vector<DmaBuffer> held;
    ASSERT_TRUE(ReadDmaBufFdRefs(6, &held, t.Path("proc")));
    ASSERT_EQ(1u, held.size());
    EXPECT_EQ(9u, held[0].inode());
    EXPECT_EQ(10000u, held[0].name().size());
}

// The lab board's captures (kernel 6.1): a parent (68) and a child (69) holding and mapping seven
// buffers in known states; the kernel alone holds inode 7.
class LabCapture : public ::testing::Test {
  protected:
    void SetUp() override {
        // "/proc/68/fdinfo/3:ino:\t2": one fdinfo line per line, prefixed by its file.
        std::istringstream fdinfo(ReadRealData("lab-arm64-6.1/alloc-dmabuf-fdinfo-all.txt"));
        std::map<std::string, std::string> files;
        for (std::string line; std::getline(fdinfo, line);) {
            size_t colon = line.find(':');
            files[line.substr(1, colon - 1)] += line.substr(colon + 1) + "\n";
        }
        for (const auto& [path, content] : files) t_.Write(path, content);
        t_.Write("proc/68/fdinfo/0", "pos:\t0\nflags:\t02\nmnt_id:\t1\nino:\t4\n");  // a tty
        t_.Write("proc/68/maps", ReadRealData("lab-arm64-6.1/parent-maps.txt"));
        t_.Write("proc/69/maps", ReadRealData("lab-arm64-6.1/child-maps.txt"));
        // "1 size=1048576 exporter_name=system"
        std::istringstream sysfs(ReadRealData("lab-arm64-6.1/alloc-sysfs-buffers.txt"));
        std::string inode, size, exporter;
        while (sysfs >> inode >> size >> exporter) {
            t_.Write("sys/buffers/" + inode + "/size", size.substr(5) + "\n");
            t_.Write("sys/buffers/" + inode + "/exporter_name", exporter.substr(14) + "\n");
        }
    }
    std::string proc() const { return t_.Path("proc"); }
    std::string sys() const { return t_.Path("sys/buffers"); }

    TempTree t_;
};

TEST_F(LabCapture, HeldWalk) {
    std::vector<DmaBuffer> held;
    DmaBufferList list;  // the indexed list a scan uses gives the same records, in order
    for (int pid : {68, 69}) {
        ASSERT_TRUE(ReadDmaBufFdRefs(pid, &held, proc()));
        ASSERT_TRUE(ReadDmaBufMapRefs(pid, &held, proc(), sys()));
        ASSERT_TRUE(ReadDmaBufFdRefs(pid, &list, proc()));
        ASSERT_TRUE(ReadDmaBufMapRefs(pid, &list, proc(), sys()));
    }
    std::vector<DmaBuffer> listed = list.Release();
    EXPECT_TRUE(list.buffers().empty());
    EXPECT_EQ(nullptr, list.Find(1));
    ASSERT_EQ(held.size(), listed.size());
    for (size_t i = 0; i < held.size(); i++) EXPECT_EQ(Describe(held[i]), Describe(listed[i]));
    // Records made from a mapping carry the sysfs exporter as read, newline included.
    const std::vector<std::string> want = {
        "1 size=1048576 count=2 exp=system name=lab-named fd={68:1} map={68:1} refs=2 pids=68;",
        "2 size=65536 count=2 exp=system name=<unknown> fd={68:2} map={} refs=2 pids=68;",
        "3 size=262144 count=0 exp=system\n name=<unknown> fd={} map={68:2,69:2} refs=4 "
        "pids=68;69;",
        "4 size=2097152 count=2 exp=linux,cma name=<unknown> fd={68:1,69:1} map={} refs=2 "
        "pids=68;69;",
        "5 size=131072 count=1 exp=udmabuf name=<unknown> fd={69:1} map={} refs=1 pids=69;",
        "6 size=524288 count=0 exp=system\n name=<unknown> fd={} map={69:1} refs=1 pids=69;",
    };
    EXPECT_EQ(want, DescribeByInode(held));
}

TEST_F(LabCapture, MappedWalkLeavesTheUnmappedBuffers) {
    std::vector<DmaBuffer> mapped;
    ASSERT_TRUE(ReadDmaBufMapRefs(68, &mapped, proc(), sys()));
    ASSERT_TRUE(ReadDmaBufMapRefs(69, &mapped, proc(), sys()));
    std::vector<uint64_t> order;
    for (const DmaBuffer& b : mapped) order.push_back(b.inode());
    EXPECT_EQ(std::vector<uint64_t>({3, 1, 6}), order);  // as first met

    DmabufSysfsStats stats;
    ASSERT_TRUE(GetDmabufSysfsStats(&stats, sys()));
    EXPECT_EQ(7u, stats.total_count());
    EXPECT_EQ(4161536u, stats.total_size());
    EXPECT_EQ(5u, stats.exporter_info().at("system").count);
    EXPECT_EQ(2097152u, stats.exporter_info().at("linux,cma").size);
    std::vector<uint64_t> unmapped;
    for (const auto& row : stats.buffer_stats()) {
        bool is_mapped = false;
        for (const DmaBuffer& b : mapped) is_mapped |= b.inode() == row.inode;
        if (!is_mapped) unmapped.push_back(row.inode);
    }
    std::sort(unmapped.begin(), unmapped.end());
    EXPECT_EQ(std::vector<uint64_t>({2, 4, 5, 7}), unmapped);
}

// This machine's processes, read by the library as on a device: every maps file that can be
// opened parses, and our own descriptors read without failure.
TEST(LiveDmaBufReaders, EveryReadableProcess) {
    DIR* dir = opendir("/proc");
    ASSERT_NE(nullptr, dir);
    std::vector<DmaBuffer> bufs;
    size_t read = 0;
    while (struct dirent* entry = readdir(dir)) {
        int pid = atoi(entry->d_name);
        if (pid == 0) continue;
        std::string maps = std::string("/proc/") + entry->d_name + "/maps";
        // Reading another process's maps takes ptrace access, which permission bits do not
        // tell: only a file this test can open counts.
        if (!std::ifstream(maps)) continue;
        LogCapture log;
        bool ok = ReadDmaBufMapRefs(pid, &bufs);
        // A process may exit between the check and the read; nothing else may fail.
        if (!ok && std::ifstream(maps)) ADD_FAILURE() << log.messages().at(0);
        read++;
    }
    closedir(dir);
    EXPECT_GT(read, 0u);
    EXPECT_TRUE(ReadDmaBufFdRefs(getpid(), &bufs));
}

}  // namespace
