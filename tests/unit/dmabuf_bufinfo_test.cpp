// The debug file system's DMA-BUF table: real tables of several kernels, the layouts it must
// refuse, and agreement with the sysfs statistics of the same buffers.
#include <dmabufinfo/dmabuf_bufinfo.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

#include "temp_tree.h"

using namespace android::dmabufinfo;

namespace {

std::string RealData(const std::string& rel) {
    std::ifstream in(std::string(QUARRY_REALDATA_DIR) + "/" + rel, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_FALSE(text.str().empty()) << rel;
    return text.str();
}

std::map<uint64_t, std::pair<uint64_t, std::string>> Rows(const DmabufSysfsStats& stats) {
    std::map<uint64_t, std::pair<uint64_t, std::string>> rows;
    for (const DmabufInfo& row : stats.buffer_stats())
        rows[row.inode] = {row.size, row.exporter_name};
    return rows;
}

const char kHeader[] =
    "\nDma-buf Objects:\nsize    \tflags   \tmode    \tcount   \texp_name\tino     \tname\n";
const char kObjectA[] =
    "00004096\t00000002\t00080007\t00000001\tsystem\t00000012\t<none>\n"
    "\tAttached Devices:\nTotal 0 devices attached\n\n";
const char kObjectB[] =
    "05368709120\t00000002\t00080007\t00000003\tlinux,cma\t4294967301\tcam era\n"
    "\twrite fence:drm_sched gfx seq 12 signalled\n"
    "\tAttached Devices:\n\t10000000.display\nTotal 1 devices attached\n\n";

// The same seven buffers on the lab board, listed by 6.1 both ways and by 6.12 in its table.
TEST(GetDmabufBufinfoStats, LabTablesMatchSysfs) {
    std::map<uint64_t, std::pair<uint64_t, std::string>> sysfs;
    std::istringstream listing(RealData("lab-arm64-6.1/alloc-sysfs-buffers.txt"));
    uint64_t inode;
    std::string size, exporter;
    while (listing >> inode >> size >> exporter)
        sysfs[inode] = {std::stoull(size.substr(5)), exporter.substr(14)};
    ASSERT_EQ(7u, sysfs.size());

    for (const char* rel :
         {"lab-arm64-6.1/dma-buf-bufinfo.txt", "lab-arm64-6.12/dma-buf-bufinfo.txt"}) {
        TempTree t;
        t.Write("bufinfo", RealData(rel));
        DmabufSysfsStats stats;
        ASSERT_TRUE(GetDmabufBufinfoStats(&stats, t.Path("bufinfo"))) << rel;
        EXPECT_EQ(sysfs, Rows(stats)) << rel;
        EXPECT_EQ(7u, stats.buffer_stats()[0].inode) << rel;  // newest first
        EXPECT_EQ(4161536u, stats.total_size());
        EXPECT_EQ(7u, stats.total_count());
        EXPECT_EQ(5u, stats.exporter_info().at("system").count);
        EXPECT_EQ(2097152u, stats.exporter_info().at("linux,cma").size);
    }
}

// An Android 4.9 phone: the old header, then the one with ino that its objects follow; empty
// names after a last tab; 172 objects agreeing with the Total line.
TEST(GetDmabufBufinfoStats, DoubleHeaderPhone) {
    TempTree t;
    t.Write("bufinfo", RealData("bufinfo/android12-phone-d-k4.9-ion-double-header.txt"));
    DmabufSysfsStats stats;
    ASSERT_TRUE(GetDmabufBufinfoStats(&stats, t.Path("bufinfo")));
    EXPECT_EQ(172u, stats.buffer_stats().size());
    EXPECT_EQ(120500224u, stats.total_size());
    ASSERT_EQ(1u, stats.exporter_info().size());
    EXPECT_EQ(172u, stats.exporter_info().at("ion").count);
    EXPECT_EQ(75971u, stats.buffer_stats()[0].inode);
    EXPECT_EQ(32768u, stats.buffer_stats()[0].size);
}

// A pasted excerpt: tabs turned into blanks, fence lines, and no Total line after the four
// objects. The rows are read, but a table cut short is refused.
TEST(GetDmabufBufinfoStats, ExcerptWithoutTotalIsRefused) {
    TempTree t;
    t.Write("bufinfo", RealData("bufinfo/arm64-asahi-2023-excerpt-tabs-as-spaces.txt"));
    DmabufSysfsStats stats;
    LogCapture log;
    EXPECT_FALSE(GetDmabufBufinfoStats(&stats, t.Path("bufinfo")));
    ASSERT_EQ(1u, log.messages().size());
    EXPECT_EQ(t.Path("bufinfo") + " ends before its Total line", log.messages()[0]);
    ASSERT_EQ(4u, stats.buffer_stats().size());
    EXPECT_EQ(125955u, stats.buffer_stats()[0].inode);
    EXPECT_EQ(1064960u, stats.buffer_stats()[0].size);
    EXPECT_EQ(23068672u, stats.buffer_stats()[3].size);
    EXPECT_EQ("drm", stats.buffer_stats()[3].exporter_name);
}

TEST(ParseDmabufBufinfo, Layouts) {
    std::string both =
        std::string(kHeader) + kObjectA + kObjectB + "\nTotal 2 objects, 5368713216 bytes\n";
    DmabufSysfsStats stats;
    ASSERT_TRUE(ParseDmabufBufinfo(both, &stats, "t"));
    ASSERT_EQ(2u, stats.buffer_stats().size());
    // Ten-digit sizes, inodes from 2^32 up, names with blanks, fence and device lines.
    EXPECT_EQ(5368709120u, stats.buffer_stats()[1].size);
    EXPECT_EQ(4294967301u, stats.buffer_stats()[1].inode);
    EXPECT_EQ("linux,cma", stats.buffer_stats()[1].exporter_name);
    EXPECT_EQ(12u, stats.buffer_stats()[0].inode);  // zero padding is not octal

    // 2^32 + 3 and 3 are two buffers: the inode is compared whole, not by its low 32 bits.
    ASSERT_TRUE(ParseDmabufBufinfo(std::string(kHeader) +
                                       "4096\t0\t0\t1\tsystem\t4294967299\t\n"
                                       "8192\t0\t0\t1\tsystem\t3\t\n"
                                       "Total 2 objects, 12288 bytes\n",
                                   &stats, "t"));
    EXPECT_EQ(2u, stats.total_count());

    // The largest inode there is.
    ASSERT_TRUE(ParseDmabufBufinfo(std::string(kHeader) +
                                       "4096\t0\t0\t1\tsystem\t18446744073709551615\t\n"
                                       "Total 1 objects, 4096 bytes\n",
                                   &stats, "t"));
    EXPECT_EQ(UINT64_MAX, stats.buffer_stats()[0].inode);

    // No buffers at all.
    ASSERT_TRUE(
        ParseDmabufBufinfo(std::string(kHeader) + "\nTotal 0 objects, 0 bytes\n", &stats, "t"));
    EXPECT_TRUE(stats.buffer_stats().empty());
    EXPECT_EQ(0u, stats.total_size());

    // A last line without its newline still counts.
    ASSERT_TRUE(ParseDmabufBufinfo(std::string(kHeader) + kObjectA + "Total 1 objects, 4096 bytes",
                                   &stats, "t"));
    EXPECT_EQ(1u, stats.total_count());
}

TEST(ParseDmabufBufinfo, RefusedTables) {
    struct {
        const char* what;
        std::string text;
        std::string message;
        size_t rows;  // kept from before the failure
    } cases[] = {
        {"no ino column (kernels before 4.12)",
         "\nDma-buf Objects:\nsize\tflags\tmode\tcount\texp_name\n"
         "00004096\t00000002\t00000007\t00000001\tion\n\nTotal 1 objects, 4096 bytes\n",
         "t has no ino column: its buffers cannot be matched with the processes' references", 0},
        {"cut short", std::string(kHeader) + kObjectA, "t ends before its Total line", 1},
        {"empty file", "", "t ends before its Total line", 0},
        {"total disagrees", std::string(kHeader) + kObjectA + "Total 2 objects, 8192 bytes\n",
         "t totals 2 objects, 8192 bytes, but lists 1 objects, 4096 bytes", 1},
        {"total malformed", std::string(kHeader) + "Total 0 objects, many bytes\n",
         "Unable to parse the total on line 4 of t", 0},
        {"size not a number", std::string(kHeader) + "0000409x\t0\t0\t1\tsystem\t00000012\t\n",
         "Unable to parse the object on line 4 of t", 0},
        {"inode overflows",
         std::string(kHeader) + kObjectA + "4096\t0\t0\t1\tsystem\t18446744073709551616\t\n",
         "Unable to parse the object on line 8 of t", 1},
        {"too few columns", std::string(kHeader) + "00004096\t00000002\t00080007\t1\tsystem\n",
         "Unable to parse the object on line 4 of t", 0},
        {"object before a header", "00004096\t0\t0\t1\tsystem\t12\t\nTotal 1 objects, 4096 bytes\n",
         "Unexpected object on line 1 of t", 0},
        {"object after the total", std::string(kHeader) + "Total 0 objects, 0 bytes\n" + kObjectA,
         "Unexpected object on line 5 of t", 0},
        {"one inode twice", std::string(kHeader) + kObjectA + kObjectB + kObjectA,
         "t lists inode 12 on lines 4 and 14: its buffers cannot be told apart by the processes' "
         "references",
         2},
        {"header without exp_name", "size\tflags\n", "Unable to parse the header on line 1 of t",
         0},
    };
    for (const auto& c : cases) {
        DmabufSysfsStats stats;
        LogCapture log;
        EXPECT_FALSE(ParseDmabufBufinfo(c.text, &stats, "t")) << c.what;
        ASSERT_EQ(1u, log.messages().size()) << c.what;
        EXPECT_EQ(c.message, log.messages()[0]) << c.what;
        EXPECT_EQ(c.rows, stats.buffer_stats().size()) << c.what;
    }
}

TEST(GetDmabufBufinfoStats, UnreadableFileLeavesStats) {
    TempTree t;
    DmabufSysfsStats stats;
    ASSERT_TRUE(ParseDmabufBufinfo(
        std::string(kHeader) + kObjectA + "Total 1 objects, 4096 bytes\n", &stats, "t"));
    LogCapture log;
    EXPECT_FALSE(GetDmabufBufinfoStats(&stats, t.Path("none")));
    ASSERT_EQ(1u, log.messages().size());
    EXPECT_EQ("Unable to access " + t.Path("none") + ": No such file or directory",
              log.messages()[0]);
    EXPECT_EQ(1u, stats.buffer_stats().size());
}

}  // namespace
