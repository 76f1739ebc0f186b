// DMA-BUF sysfs statistics: the walk, its totals, the number rule and the single-buffer reads.
#include <dmabufinfo/dmabuf_sysfs_stats.h>
#include <gtest/gtest.h>

#include "temp_tree.h"

using namespace android::dmabufinfo;

namespace {

void AddBuffer(const TempTree& t, const std::string& inode, const std::string& size,
               const std::string& exporter) {
    t.Write("buffers/" + inode + "/size", size);
    t.Write("buffers/" + inode + "/exporter_name", exporter);
}

TEST(ParseSysfsUint, NumberRule) {
    struct {
        std::string_view text;
        bool ok;
        uint64_t value;
    } cases[] = {
        {"4096", true, 4096},
        {"0x1000", true, 4096},
        {"0X1000", true, 4096},
        {"010", true, 10},
        {"  \t7", true, 7},
        {"0", true, 0},
        {"18446744073709551615", true, UINT64_MAX},
        {"18446744073709551616", false, 0},  // overflow
        {"-1", false, 0},
        {" -1", false, 0},
        {"", false, 0},
        {"   ", false, 0},
        {"4096 KB", false, 0},
        {"4096\n", false, 0},
        {"0x", false, 0},
        {"12abc", false, 0},
        {std::string_view("81\0"
                          "92",
                          5),
         false, 0},
    };
    for (const auto& c : cases) {
        uint64_t value = 99;
        EXPECT_EQ(c.ok, ParseSysfsUint(c.text, &value)) << "'" << c.text << "'";
        EXPECT_EQ(c.ok ? c.value : 99, value) << "'" << c.text << "'";
    }
}

TEST(GetDmabufSysfsStats, RowsAndTotals) {
    TempTree t;
    AddBuffer(t, "1", "1048576\n", "system\n");
    AddBuffer(t, "2", "0x10000\n", "  system  \n");
    AddBuffer(t, "4", "2097152\n", "linux,cma\n");
    AddBuffer(t, "7", "1536\n", "udmabuf\n");
    AddBuffer(t, "8", "1536\n", "udmabuf\n");
    DmabufSysfsStats stats;
    ASSERT_TRUE(GetDmabufSysfsStats(&stats, t.Path("buffers")));
    EXPECT_EQ(5u, stats.buffer_stats().size());
    EXPECT_EQ(5u, stats.total_count());
    EXPECT_EQ(1048576u + 65536 + 2097152 + 3072, stats.total_size());
    ASSERT_EQ(3u, stats.exporter_info().size());
    EXPECT_EQ(2u, stats.exporter_info().at("system").count);
    EXPECT_EQ(1048576u + 65536, stats.exporter_info().at("system").size);
    EXPECT_EQ(3072u, stats.exporter_info().at("udmabuf").size);
    for (const DmabufInfo& row : stats.buffer_stats()) {
        if (row.inode == 2) {
            EXPECT_EQ("system", row.exporter_name);
        }
    }

    uint64_t kb = 0;
    ASSERT_TRUE(GetDmabufTotalExportedKb(&kb, t.Path("buffers")));
    EXPECT_EQ((1048576u + 65536 + 2097152 + 3072) >> 10, kb);  // rounded once: 1536 * 2 = 3 KB
}

TEST(GetDmabufSysfsStats, EmptyAndMissingDirectory) {
    TempTree t;
    t.Mkdir("buffers");
    AddBuffer(t, "../old/3", "4096\n", "system\n");
    DmabufSysfsStats stats;
    ASSERT_TRUE(GetDmabufSysfsStats(&stats, t.Path("old")));
    ASSERT_TRUE(GetDmabufSysfsStats(&stats, t.Path("buffers")));  // what the object held goes
    EXPECT_TRUE(stats.buffer_stats().empty());
    EXPECT_EQ(0u, stats.total_size());
    uint64_t kb = 5;
    ASSERT_TRUE(GetDmabufTotalExportedKb(&kb, t.Path("buffers")));
    EXPECT_EQ(0u, kb);

    LogCapture log;
    kb = 5;
    EXPECT_FALSE(GetDmabufTotalExportedKb(&kb, t.Path("none")));
    EXPECT_EQ(5u, kb);
    EXPECT_FALSE(GetDmabufSysfsStats(&stats, t.Path("none")));
    ASSERT_EQ(2u, log.messages().size());
    EXPECT_EQ("Unable to access: " + t.Path("none") + ": No such file or directory",
              log.messages()[1]);
}

TEST(GetDmabufSysfsStats, FailuresStopTheWalk) {
    TempTree t;
    AddBuffer(t, "buf", "4096\n", "system\n");  // a name that is no inode number
    DmabufSysfsStats stats;
    {
        LogCapture log;
        EXPECT_FALSE(GetDmabufSysfsStats(&stats, t.Path("buffers")));
        ASSERT_EQ(1u, log.messages().size());
        EXPECT_EQ("Unable to parse value from buf", log.messages()[0]);
    }
    // The exported total does not read names, only sizes.
    uint64_t kb = 0;
    EXPECT_TRUE(GetDmabufTotalExportedKb(&kb, t.Path("buffers")));
    EXPECT_EQ(4u, kb);

    TempTree u;
    AddBuffer(u, "9", "4 KB\n", "system\n");
    LogCapture log;
    EXPECT_FALSE(GetDmabufSysfsStats(&stats, u.Path("buffers")));
    EXPECT_FALSE(GetDmabufTotalExportedKb(&kb, u.Path("buffers")));
    ASSERT_EQ(2u, log.messages().size());
    EXPECT_EQ("Unable to parse value from " + u.Path("buffers") + "/9/size", log.messages()[0]);

    TempTree v;
    v.Write("buffers/9/size", "4096\n");  // no exporter_name
    EXPECT_FALSE(GetDmabufSysfsStats(&stats, v.Path("buffers")));
    EXPECT_EQ(
        "Unable to access " + v.Path("buffers") + "/9/exporter_name: No such file or directory",
        log.messages().back());
}

TEST(ReadBuffer, ExporterKeepsNewlineSizeFollowsRule) {
    TempTree t;
    AddBuffer(t, "4294967", "0x2000\n", "system\n");
    std::string exporter;
    uint64_t size = 0;
    ASSERT_TRUE(ReadBufferExporter(4294967, &exporter, t.Path("buffers")));
    EXPECT_EQ("system\n", exporter);
    ASSERT_TRUE(ReadBufferSize(4294967, &size, t.Path("buffers")));
    EXPECT_EQ(0x2000u, size);
    LogCapture log;
    EXPECT_FALSE(ReadBufferExporter(5, &exporter, t.Path("buffers")));
    EXPECT_TRUE(log.messages().empty());  // nothing logged for a missing exporter
    EXPECT_FALSE(ReadBufferSize(5, &size, t.Path("buffers")));
    EXPECT_EQ(1u, log.messages().size());
}

}  // namespace
